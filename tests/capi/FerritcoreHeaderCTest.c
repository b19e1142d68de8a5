/* The whole-library header compiles as strict C and its promises about the options hold: a host
 * can fill every field, and the first version's size is within the struct. Built as an object
 * only; the build fails when the header stops being C. */
#include <stddef.h>

#include "ferritcore/ferritcore.h"

static void onRequest(void* userData, const ferritcore_request* request) {
    (void)userData;
    (void)request;
}

static void onLog(void* userData, ferritcore_log_level level, const char* entry) {
    (void)userData;
    (void)level;
    (void)entry;
}

/* Never called; it makes the compiler check every field and prototype as C sees them. */
int ferritcoreHeaderCheck(void);
int ferritcoreHeaderCheck(void) {
    static const unsigned char key[32] = {0};
    ferritcore_options options = {0};
    ferritcore_error error = {0, {0}};
    ferritcore_handle* handle = NULL;
    ferritcore_status (*openFunction)(const ferritcore_options*, ferritcore_handle**,
                                      ferritcore_error*) = ferritcore_open;
    char* (*reportFunction)(ferritcore_handle*, ferritcore_error*) = ferritcore_status_report;
    options.struct_size = sizeof options;
    options.root = "/tmp/ferrit";
    options.app_key = "app";
    options.app_version = "1.0";
    options.public_key = key;
    options.public_key_size = sizeof key;
    options.env = FERRITCORE_ENV_RELEASE;
    options.network = FERRITCORE_NETWORK_UNRESTRICTED;
    options.log_level = FERRITCORE_LOG_WARNING;
    options.on_request = onRequest;
    options.on_log = onLog;
    (void)handle;
    (void)openFunction;
    (void)reportFunction;
    return FERRITCORE_OPTIONS_SIZE_V1 <= sizeof options && error.code == FERRITCORE_OK &&
           sizeof error.message == FERRITCORE_ERROR_MESSAGE_SIZE;
}
