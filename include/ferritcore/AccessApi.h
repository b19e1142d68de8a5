/* AccessApi: the C interface of the request path, for native code of the host's process (a web
 * engine's request hook) that calls the cache without going through a script engine. Plain C; any
 * thread, as Access::getResource is.
 *
 * The table is owned by the library and lives until the process ends; never free it. Its order is
 * part of the interface: nine function pointers, then a null pointer. Both record types are opaque.
 *
 * Ownership:
 *   - createRequest returns a request that the caller owns and gives back with freeRequest.
 *   - getResource returns a response that the caller owns and gives back with freeResponse, which
 *     tells the cache that the response was consumed. It never returns null.
 *   - Texts and bytes handed out by getResponseError, getResponseHeader and getResponseData belong
 *     to the response: they stay valid, unchanged, until freeResponse. Nothing is copied.
 *   - Texts handed in are copied; the caller keeps its own.
 */
#ifndef FERRITCORE_ACCESS_API_H
#define FERRITCORE_ACCESS_API_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define FERRIT_C_EXPORT __attribute__((visibility("default")))

typedef struct FerritRequest FerritRequest;
typedef struct FerritResponse FerritResponse;

typedef struct FerritAccessApi {
    /* A request for `url` (null reads as the empty URL, which the cache answers with 3001). */
    FerritRequest* (*createRequest)(const char* url);
    /* Adds or replaces a request header; does nothing when any argument is null. */
    void (*addRequestHeader)(FerritRequest* request, const char* name, const char* value);
    /* Sets the referrer; does nothing when either argument is null. */
    void (*setRequestReferrer)(FerritRequest* request, const char* referrer);
    /* Frees a request; null is allowed. */
    void (*freeRequest)(FerritRequest* request);
    /* Answers the request synchronously. A null request gets a response with error 3001
     * "Not Ferrit resource". The request may be freed at once; the response does not refer to
     * it. */
    FerritResponse* (*getResource)(const FerritRequest* request);
    /* 1 when the response carries an error, else 0. `code` and `message` may be null. A null
     * response answers 1 with code -1 and "response is nullptr". */
    int (*getResponseError)(const FerritResponse* response, int32_t* code, const char** message);
    /* The value of a response header, the name compared without case; null when absent. */
    const char* (*getResponseHeader)(const FerritResponse* response, const char* name);
    /* The body, not copied: 1 with both outs set, or 0 with both outs cleared when the response
     * is null or carries an error. Outs may be null. */
    int (*getResponseData)(const FerritResponse* response, const void** data, size_t* size);
    /* Marks the response consumed with success, then frees it; null is allowed. */
    void (*freeResponse)(FerritResponse* response);
    /* Always null: the end of the table. */
    const void* end;
} FerritAccessApi;

/* The table. Never null; the same address on every call. */
FERRIT_C_EXPORT const FerritAccessApi* ferritcore_access_api(void);

/* Starts the library for a native host that brings no network and checks no signatures, when no
 * script host has set it up: the folders under `root` are made, the stored configuration is
 * loaded, and the packs delivered in `rawFileFolder` (may be null: none) serve at once. Packs that
 * must be verified against a signed list do not serve. 0 on success, -1 when `root` is null or
 * empty. Call once, before the table is used, on any thread. */
FERRIT_C_EXPORT int ferritcore_start_offline(const char* root, const char* rawFileFolder);

#ifdef __cplusplus
}
#endif

#endif /* FERRITCORE_ACCESS_API_H */
