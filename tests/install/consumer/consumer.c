/* A C host linked against an installed libferritcore.so: it takes the function table and asks
 * for a URL before anything is set up, which the cache answers with 3001 "Not Ferrit resource"
 * (followed by the reason).
 * Exits 0 when every check holds. */
#include <stdio.h>
#include <string.h>

#include <ferritcore/AccessApi.h>

enum { kNotFerritResource = 3001 };
static const char kNotFerritMessage[] = "Not Ferrit resource";

int main(void) {
    const FerritAccessApi* api = ferritcore_access_api();
    if (api == NULL || api->end != NULL) {
        fprintf(stderr, "consumer: no function table\n");
        return 1;
    }
    FerritRequest* request = api->createRequest("https://consumer.example.com/index.html");
    if (request == NULL) {
        fprintf(stderr, "consumer: createRequest returned null\n");
        return 1;
    }
    api->addRequestHeader(request, "Accept", "text/html");
    FerritResponse* response = api->getResource(request);
    api->freeRequest(request);

    int32_t code = 0;
    const char* message = NULL;
    int failed = api->getResponseError(response, &code, &message);
    const void* data = NULL;
    size_t size = 1;
    int hasData = api->getResponseData(response, &data, &size);
    int ok = failed == 1 && code == kNotFerritResource && message != NULL &&
             strncmp(message, kNotFerritMessage, strlen(kNotFerritMessage)) == 0 && hasData == 0 &&
             data == NULL && size == 0;
    printf("consumer: error %d \"%s\"\n", (int)code, message != NULL ? message : "(null)");
    api->freeResponse(response);
    return ok ? 0 : 1;
}
