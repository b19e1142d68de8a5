/* A native host written in C: it loads libferritcore.so at run time, starts it offline over a
 * raw-file folder holding one pack, takes the function table and serves a URL from the pack.
 *   AccessApiCTest PATH-TO-libferritcore.so
 * Exits 0 when every check holds. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ferritcore/AccessApi.h"

static const char kBody[] = "export default \"served through the C table\";\n";
/* The MD5 of kBody, as the pack's list records it. */
static const char kBodyMd5[] = "7ff5c3c1bc416dd0946caddef0c08913";
/* The library's code for a URL that nothing serves, as the C table passes it through. */
enum { kNotFerritResource = 3001 };
static const char kUrl[] = "https://c.example.com/web/app.js";

static int failures = 0;

#define CHECK(condition)                                                                  \
    do {                                                                                  \
        if (!(condition)) {                                                               \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            ++failures;                                                                   \
        }                                                                                 \
    } while (0)

static int writeFile(const char* path, const char* content, size_t size) {
    FILE* file = fopen(path, "wb");
    if (file == NULL) return -1;
    size_t written = fwrite(content, 1, size, file);
    fclose(file);
    return written == size ? 0 : -1;
}

static int makeDirs(const char* path) {
    char buffer[4096];
    snprintf(buffer, sizeof(buffer), "%s", path);
    for (char* p = buffer + 1; *p != '\0'; ++p) {
        if (*p != '/') continue;
        *p = '\0';
        mkdir(buffer, 0700);
        *p = '/';
    }
    return mkdir(buffer, 0700) == 0 || access(buffer, F_OK) == 0 ? 0 : -1;
}

/* The raw-file folder: one pack "web" delivered with the app, its list embedded in the built-in
 * configuration. */
static int makeRawFiles(const char* folder) {
    char path[4096];
    char config[2048];
    snprintf(path, sizeof(path), "%s/Ferrit_Asset_web/1/res", folder);
    if (makeDirs(path) != 0) return -1;
    snprintf(path, sizeof(path), "%s/Ferrit_Asset_web/1/res/app.js", folder);
    if (writeFile(path, kBody, strlen(kBody)) != 0) return -1;
    snprintf(config, sizeof(config),
             "{\"v\":\"1\",\"packs\":{\"web\":{\"s\":1,\"f\":96,\"p\":[\"https://c.example.com/web/"
             "\"]}},"
             "\"resources\":{\"web\":{\"res/app.js\":{\"url\":\"%s\",\"v\":\"%s\"}}}}",
             kUrl, kBodyMd5);
    snprintf(path, sizeof(path), "%s/Ferrit_Asset.config", folder);
    return writeFile(path, config, strlen(config));
}

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: %s PATH-TO-libferritcore.so\n", argv[0]);
        return 2;
    }
    char root[] = "/tmp/ferrit-c-test-XXXXXX";
    if (mkdtemp(root) == NULL) return 2;
    char rawFiles[1024];
    snprintf(rawFiles, sizeof(rawFiles), "%s/rawfile", root);
    char cache[1024];
    snprintf(cache, sizeof(cache), "%s/cache/", root);
    if (makeRawFiles(rawFiles) != 0 || makeDirs(cache) != 0) return 2;

    void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (library == NULL) {
        fprintf(stderr, "dlopen: %s\n", dlerror());
        return 1;
    }
    typedef const FerritAccessApi* (*TableFunction)(void);
    typedef int (*StartFunction)(const char*, const char*);
    TableFunction table = (TableFunction)dlsym(library, "ferritcore_access_api");
    StartFunction start = (StartFunction)dlsym(library, "ferritcore_start_offline");
    CHECK(table != NULL);
    CHECK(start != NULL);
    if (table == NULL || start == NULL) return 1;

    const FerritAccessApi* api = table();
    CHECK(api == table());
    const void* const* slots = (const void* const*)api;
    for (int i = 0; i < 9; ++i) CHECK(slots[i] != NULL);
    CHECK(slots[9] == NULL);

    /* The null cases need no start. */
    int32_t code = 0;
    const char* message = NULL;
    CHECK(api->getResponseError(NULL, &code, &message) == 1);
    CHECK(code == -1);
    CHECK(message != NULL && strcmp(message, "response is nullptr") == 0);
    api->freeResponse(NULL);
    api->freeRequest(NULL);

    CHECK(start(NULL, rawFiles) == -1);
    CHECK(start(cache, rawFiles) == 0);

    FerritRequest* request = api->createRequest(kUrl);
    api->addRequestHeader(request, "Accept", "*/*");
    FerritResponse* response = api->getResource(request);
    api->freeRequest(request);
    CHECK(response != NULL);
    code = -7;
    message = NULL;
    int hasError = api->getResponseError(response, &code, &message);
    if (hasError) fprintf(stderr, "error %d %s\n", code, message ? message : "");
    CHECK(hasError == 0);
    const void* data = NULL;
    size_t size = 0;
    CHECK(api->getResponseData(response, &data, &size) == 1);
    CHECK(size == strlen(kBody));
    CHECK(data != NULL && memcmp(data, kBody, size) == 0);
    const char* type = api->getResponseHeader(response, "content-type");
    CHECK(type != NULL && strstr(type, "javascript") != NULL);
    api->freeResponse(response);

    /* A URL that no pack serves. */
    request = api->createRequest("https://c.example.com/elsewhere.js");
    response = api->getResource(request);
    api->freeRequest(request);
    CHECK(api->getResponseError(response, &code, NULL) == 1);
    CHECK(code == kNotFerritResource);
    CHECK(api->getResponseData(response, &data, &size) == 0);
    CHECK(data == NULL && size == 0);
    api->freeResponse(response);

    char command[4200];
    snprintf(command, sizeof(command), "rm -rf '%s'", root);
    if (system(command) != 0) fprintf(stderr, "could not remove %s\n", root);
    if (failures == 0) printf("C table: every check held\n");
    return failures == 0 ? 0 : 1;
}
