/* c_host.c: a native host of ferritcore in plain C11, the model for a web engine's embedder.
 *
 * It does what such a host does, in order:
 *   1. opens the library (ferritcore.h) with a root folder, the app's key and version, the
 *      publisher's public key and the address of the server that holds the published tree;
 *   2. carries the library's HTTP requests itself, with libcurl on threads of its own: the library
 *      opens no socket, it asks the host (on_request) and takes the answer back
 *      (ferritcore_answer_request, or ferritcore_fail_request when no HTTP answer came);
 *   3. asks for an update now (ferritcore_update_now): the library fetches the signed
 *      configuration, checks it with the publisher's key and installs every pack it names, and
 *      tells each pack and then the end through one callback; the main thread waits on a
 *      condition that the callback signals (no polling, no sleeping), with one deadline;
 *   4. serves URL through the table of AccessApi.h, as the engine's request hook would, and
 *      checks the bytes.
 *
 * Usage:
 *   c-host (--expect-file F | --expect-size N) [options]
 *          ROOT APP_KEY APP_VERSION PUBLIC_KEY SERVER URL
 *
 *   ROOT                  the library's folder, made when missing
 *   APP_KEY APP_VERSION   the app, as the tree was published for it
 *   PUBLIC_KEY            the publisher's public key file, as `ferrit keygen` wrote it (PEM)
 *   SERVER                the address of the tree `ferrit publish` wrote, e.g.
 *                         http://127.0.0.1:8080/: the configuration is read from there and the
 *                         packs from SERVER/packs/
 *   URL                   an address inside one of the tree's packs
 *   --expect-file F       the body served must equal the bytes of file F
 *   --expect-size N       the body served must be N bytes long
 *
 * Options:
 *   --locale L            the locale the tree was published for (default en-US)
 *   --log-level L         error, warning (the default), info, debug, verbose or off: the
 *                         library's log entries that severe or more are printed to stderr
 *   --timeout S           seconds the update may take, configuration and pack (default 30)
 *
 * Exit codes:
 *   0  the configured packs are installed (now, or by an earlier run) and URL was served from
 *      one of them with the expected bytes
 *   1  the command line is wrong, or a file named on it cannot be read
 *   2  the library did not open (its error is printed)
 *   3  the update failed; the library's error is printed in words: "the update was refused:
 *      1010 ... verify failed ..." for a tree signed by another key than PUBLIC_KEY, "the update
 *      failed: ..." when the server did not answer or has no such tree or pack
 *   4  the update did not end within the timeout
 *   5  no pack serves URL, or the bytes served are not the expected ones
 *
 * Only the installed headers are used: <ferritcore/ferritcore.h> (which includes AccessApi.h).
 */
#include <curl/curl.h>
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <threads.h>
#include <time.h>

#include <ferritcore/ferritcore.h>

enum {
    EXIT_SERVED = 0,
    EXIT_USAGE = 1,
    EXIT_NOT_OPENED = 2,
    EXIT_REFUSED = 3,
    EXIT_TIMED_OUT = 4,
    EXIT_NOT_SERVED = 5
};

/* The library's code for a signed document or list that the publisher's key does not verify (or
 * bytes that do not match what it lists). */
#define CODE_VERIFY_FAILED 1010

/* Threads that send requests; the library may have several in flight (the configuration, then
 * one per pack). */
#define SENDER_COUNT 4
#define DEFAULT_TIMEOUT_SECONDS 30

/* ---- What the callbacks tell the main thread, under one lock. */

typedef struct host_state {
    mtx_t lock;
    cnd_t changed;   /* signalled when the update ends */
    int update_done; /* ferritcore_update_now() told its end (on_update) */
    int32_t update_code;
    char update_error[FERRITCORE_ERROR_MESSAGE_SIZE * 2]; /* its words when update_code != 0 */
} host_state;

/* ---- The host's network: a queue of requests and the threads that send them. */

/* A request copied out of the callback: what the library hands in is valid only during it. */
typedef struct pending_request {
    uint64_t id;
    char* url;
    struct curl_slist* headers; /* "Name: value" lines */
    long timeout_ms;
    char* temp_file_path; /* null: the body comes back in memory */
    struct pending_request* next;
} pending_request;

typedef struct network {
    mtx_t lock;
    cnd_t work;
    pending_request* head;
    pending_request* tail;
    int stopping;
    ferritcore_handle* handle; /* set once open() returned; requests wait for it */
    thrd_t senders[SENDER_COUNT];
} network;

static host_state g_host;
static network g_net;

static char* copy_text(const char* text) {
    size_t size = strlen(text) + 1;
    char* copy = malloc(size);
    if (copy != NULL) memcpy(copy, text, size);
    return copy;
}

/* A growing buffer for a body that comes back in memory. */
typedef struct buffer {
    char* data;
    size_t size;
} buffer;

static size_t write_to_buffer(char* data, size_t size, size_t count, void* user) {
    buffer* body = user;
    size_t n = size * count;
    char* grown = realloc(body->data, body->size + n);
    if (grown == NULL) return 0; /* curl fails the transfer */
    memcpy(grown + body->size, data, n);
    body->data = grown;
    body->size += n;
    return n;
}

/* The response headers, kept as the library wants them: name and value apart. */
#define MAX_HEADERS 64
typedef struct header_list {
    ferritcore_header items[MAX_HEADERS];
    size_t count;
} header_list;

static void clear_headers(header_list* list) {
    for (size_t i = 0; i < list->count; ++i) {
        free((char*)list->items[i].name);
        free((char*)list->items[i].value);
    }
    list->count = 0;
}

static size_t take_header(char* line, size_t size, size_t count, void* user) {
    header_list* list = user;
    size_t n = size * count;
    /* A status line starts a response: after a redirect only the last one's headers count. */
    if (n >= 5 && strncmp(line, "HTTP/", 5) == 0) {
        clear_headers(list);
        return n;
    }
    const char* colon = memchr(line, ':', n);
    if (colon == NULL || list->count == MAX_HEADERS) return n;
    const char* value = colon + 1;
    const char* end = line + n;
    while (value < end && (*value == ' ' || *value == '\t')) ++value;
    while (end > value && (end[-1] == '\r' || end[-1] == '\n' || end[-1] == ' ')) --end;
    char* name_copy = malloc((size_t)(colon - line) + 1);
    char* value_copy = malloc((size_t)(end - value) + 1);
    if (name_copy == NULL || value_copy == NULL) {
        free(name_copy);
        free(value_copy);
        return 0;
    }
    memcpy(name_copy, line, (size_t)(colon - line));
    name_copy[colon - line] = '\0';
    memcpy(value_copy, value, (size_t)(end - value));
    value_copy[end - value] = '\0';
    list->items[list->count].name = name_copy;
    list->items[list->count].value = value_copy;
    ++list->count;
    return n;
}

/* Abort a transfer once the host shuts down. */
static int keep_going(void* user, curl_off_t a, curl_off_t b, curl_off_t c, curl_off_t d) {
    (void)user, (void)a, (void)b, (void)c, (void)d;
    mtx_lock(&g_net.lock);
    int stop = g_net.stopping;
    mtx_unlock(&g_net.lock);
    return stop;
}

/* Sends one request and answers it, exactly once, from this sender thread. */
static void send_request(CURL* curl, ferritcore_handle* handle, const pending_request* request) {
    buffer body = {NULL, 0};
    header_list headers = {.count = 0};
    FILE* file = NULL;
    char curl_error[CURL_ERROR_SIZE] = "";

    curl_easy_reset(curl);
    curl_easy_setopt(curl, CURLOPT_URL, request->url);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, request->headers);
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, request->timeout_ms);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, curl_error);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, take_header);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, &headers);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, keep_going);
    if (request->temp_file_path != NULL) {
        /* A pack: the body goes to the library's file, never through memory. */
        file = fopen(request->temp_file_path, "wb");
        if (file == NULL) {
            ferritcore_fail_request(handle, request->id, errno, "cannot write the temp file", NULL);
            return;
        }
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, file); /* curl's default writer: fwrite */
    } else {
        curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, write_to_buffer);
        curl_easy_setopt(curl, CURLOPT_WRITEDATA, &body);
    }

    CURLcode sent = curl_easy_perform(curl);
    if (file != NULL && fclose(file) != 0 && sent == CURLE_OK) sent = CURLE_WRITE_ERROR;
    ferritcore_error error = {0};
    ferritcore_status status;
    if (sent != CURLE_OK) {
        /* No HTTP answer: a transport failure, with curl's code and words. */
        status =
            ferritcore_fail_request(handle, request->id, (int32_t)sent,
                                    curl_error[0] ? curl_error : curl_easy_strerror(sent), &error);
    } else {
        /* Any HTTP status is an answer; the library judges it (404, 500, ...). */
        long http_status = 0;
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &http_status);
        status = ferritcore_answer_request(handle, request->id, (int32_t)http_status, headers.items,
                                           headers.count, body.data, body.size, &error);
    }
    if (status != FERRITCORE_OK)
        fprintf(stderr, "c-host: answering %s: %s\n", request->url, error.message);
    clear_headers(&headers);
    free(body.data);
}

static void free_request(pending_request* request) {
    free(request->url);
    free(request->temp_file_path);
    curl_slist_free_all(request->headers);
    free(request);
}

static int sender_main(void* unused) {
    (void)unused;
    CURL* curl = curl_easy_init();
    mtx_lock(&g_net.lock);
    for (;;) {
        while (!g_net.stopping && (g_net.head == NULL || g_net.handle == NULL))
            cnd_wait(&g_net.work, &g_net.lock);
        if (g_net.stopping) break;
        pending_request* request = g_net.head;
        g_net.head = request->next;
        if (g_net.head == NULL) g_net.tail = NULL;
        ferritcore_handle* handle = g_net.handle;
        mtx_unlock(&g_net.lock);
        if (curl != NULL)
            send_request(curl, handle, request);
        else
            ferritcore_fail_request(handle, request->id, CURLE_FAILED_INIT, "no curl handle", NULL);
        free_request(request);
        mtx_lock(&g_net.lock);
    }
    mtx_unlock(&g_net.lock);
    curl_easy_cleanup(curl);
    return 0;
}

/* ---- The library's callbacks. They run on the library's callback thread and must return at
 * once: they copy what they need and hand work to the host's own threads. */

static void on_request(void* user_data, const ferritcore_request* request) {
    (void)user_data;
    pending_request* copy = calloc(1, sizeof *copy);
    if (copy == NULL) return; /* the request waits until close() fails it */
    copy->id = request->id;
    copy->url = copy_text(request->url);
    copy->timeout_ms = request->timeout_ms;
    if (request->temp_file_path != NULL) copy->temp_file_path = copy_text(request->temp_file_path);
    for (size_t i = 0; i < request->header_count; ++i) {
        char line[1024];
        snprintf(line, sizeof line, "%s: %s", request->headers[i].name, request->headers[i].value);
        copy->headers = curl_slist_append(copy->headers, line);
    }
    mtx_lock(&g_net.lock);
    if (g_net.tail != NULL)
        g_net.tail->next = copy;
    else
        g_net.head = copy;
    g_net.tail = copy;
    cnd_signal(&g_net.work);
    mtx_unlock(&g_net.lock);
}

/* News of every pack the library installs, also on its own schedule (its periodic runs, a push).
 * News still queued when close() is called is dropped: a host that waits for an update waits on
 * the update's own callback, not on this. */
static void on_pack_updated(void* user_data, const char* name) {
    (void)user_data;
    printf("event: pack %s updated\n", name);
}

/* The callback of ferritcore_update_now(): once per pack it updated (code 0, or the library's code
 * and words), then once with no pack name when all is over, with the first failure if any. */
static void on_update(void* user_data, const char* pack_name, int32_t code, const char* message) {
    host_state* host = user_data;
    if (pack_name != NULL) {
        if (code == 0)
            printf("pack %s is installed\n", pack_name);
        else
            printf("pack %s failed: %d %s\n", pack_name, (int)code, message);
        return;
    }
    mtx_lock(&host->lock);
    host->update_code = code;
    if (code != 0) snprintf(host->update_error, sizeof host->update_error, "%s", message);
    host->update_done = 1;
    cnd_broadcast(&host->changed);
    mtx_unlock(&host->lock);
}

/* The library's log, one JSON line per entry, at the level asked on the command line. */
static void on_log(void* user_data, ferritcore_log_level level, const char* entry_json) {
    (void)user_data;
    (void)level;
    fprintf(stderr, "log: %s\n", entry_json);
}

/* ---- Command line */

typedef struct arguments {
    const char* root;
    const char* app_key;
    const char* app_version;
    const char* public_key_file;
    const char* server;
    const char* url;
    const char* expect_file;
    long expect_size; /* -1: not given */
    const char* locale;
    ferritcore_log_level log_level;
    long timeout_seconds;
} arguments;

static int parse_level(const char* name, ferritcore_log_level* level) {
    /* In the order of ferritcore_log_level from FERRITCORE_LOG_ERROR on. */
    static const char* const names[] = {"error", "warning", "info", "debug", "verbose", "off"};
    for (int i = 0; i < (int)(sizeof names / sizeof names[0]); ++i) {
        if (strcmp(name, names[i]) == 0) {
            *level = (ferritcore_log_level)(FERRITCORE_LOG_ERROR + i);
            return 1;
        }
    }
    return 0;
}

static int parse_arguments(int argc, char** argv, arguments* args) {
    const char** positional[] = {&args->root,        &args->app_key,
                                 &args->app_version, &args->public_key_file,
                                 &args->server,      &args->url};
    const size_t positional_count = sizeof positional / sizeof positional[0];
    size_t given = 0;
    *args = (arguments){.expect_size = -1,
                        .locale = "en-US",
                        .log_level = FERRITCORE_LOG_WARNING,
                        .timeout_seconds = DEFAULT_TIMEOUT_SECONDS};
    for (int i = 1; i < argc; ++i) {
        const char* value = i + 1 < argc ? argv[i + 1] : NULL;
        if (strncmp(argv[i], "--", 2) == 0 && value == NULL) return 0;
        if (strcmp(argv[i], "--expect-file") == 0) {
            args->expect_file = argv[++i];
        } else if (strcmp(argv[i], "--expect-size") == 0) {
            args->expect_size = strtol(argv[++i], NULL, 10);
        } else if (strcmp(argv[i], "--log-level") == 0) {
            if (!parse_level(argv[++i], &args->log_level)) return 0;
        } else if (strcmp(argv[i], "--locale") == 0) {
            args->locale = argv[++i];
        } else if (strcmp(argv[i], "--timeout") == 0) {
            args->timeout_seconds = strtol(argv[++i], NULL, 10);
        } else if (strncmp(argv[i], "--", 2) == 0 || given == positional_count) {
            return 0;
        } else {
            *positional[given++] = argv[i];
        }
    }
    return given == positional_count && args->timeout_seconds > 0 &&
           (args->expect_file != NULL || args->expect_size >= 0);
}

/* Reads a whole file; null when it cannot. */
static char* read_file(const char* path, size_t* size) {
    FILE* file = fopen(path, "rb");
    if (file == NULL) return NULL;
    buffer content = {NULL, 0};
    char chunk[4096];
    size_t n;
    while ((n = fread(chunk, 1, sizeof chunk, file)) > 0) {
        if (write_to_buffer(chunk, 1, n, &content) != n) break;
    }
    int failed = ferror(file);
    fclose(file);
    if (failed) {
        free(content.data);
        return NULL;
    }
    *size = content.size;
    return content.data != NULL ? content.data : calloc(1, 1);
}

/* Waits, on the condition the callbacks signal, until `done` holds or the deadline passes; 0 when
 * the deadline passed first. Called with g_host.lock held. */
static int wait_for(int (*done)(const host_state*), const struct timespec* deadline) {
    while (!done(&g_host)) {
        if (cnd_timedwait(&g_host.changed, &g_host.lock, deadline) == thrd_timedout)
            return done(&g_host);
    }
    return 1;
}

static int update_done(const host_state* host) {
    return host->update_done;
}

/* Asks the table for `url` as the engine's request hook would, and compares the body with what is
 * expected. */
static int serve(const char* url, const char* expected, size_t expected_size) {
    const FerritAccessApi* api = ferritcore_access_api();
    FerritRequest* request = api->createRequest(url);
    api->addRequestHeader(request, "Accept", "*/*");
    FerritResponse* response = api->getResource(request);
    api->freeRequest(request); /* the response does not refer to it */

    int32_t code = 0;
    const char* message = NULL;
    int result = EXIT_SERVED;
    const void* data = NULL;
    size_t size = 0;
    if (api->getResponseError(response, &code, &message)) {
        /* A miss: the engine would go to the network; here it is a failure. */
        printf("%s: not served (%d %s)\n", url, (int)code, message);
        result = EXIT_NOT_SERVED;
    } else if (!api->getResponseData(response, &data, &size) || size != expected_size) {
        printf("%s: served %zu bytes, not the %zu expected\n", url, size, expected_size);
        result = EXIT_NOT_SERVED;
    } else if (expected != NULL && memcmp(data, expected, size) != 0) {
        printf("%s: served %zu bytes, not the expected ones\n", url, size);
        result = EXIT_NOT_SERVED;
    } else {
        const char* type = api->getResponseHeader(response, "Content-Type");
        printf("%s: %zu bytes from the pack (%s)\n", url, size, type != NULL ? type : "no type");
    }
    api->freeResponse(response); /* the bytes above are valid until here */
    return result;
}

int main(int argc, char** argv) {
    arguments args;
    if (!parse_arguments(argc, argv, &args)) {
        fprintf(stderr,
                "usage: c-host (--expect-file F | --expect-size N) [--log-level L] "
                "[--locale L] [--timeout S] ROOT APP_KEY APP_VERSION PUBLIC_KEY_FILE "
                "SERVER URL\n");
        return EXIT_USAGE;
    }
    size_t key_size = 0;
    char* key = read_file(args.public_key_file, &key_size);
    size_t expected_size = (size_t)args.expect_size;
    char* expected = args.expect_file ? read_file(args.expect_file, &expected_size) : NULL;
    if (key == NULL || (args.expect_file != NULL && expected == NULL)) {
        fprintf(stderr, "c-host: cannot read %s\n",
                key == NULL ? args.public_key_file : args.expect_file);
        return EXIT_USAGE;
    }

    /* The host's network first: curl once per process, then the sender threads, which wait for
     * the handle before they send anything. */
    curl_global_init(CURL_GLOBAL_DEFAULT);
    mtx_init(&g_host.lock, mtx_plain);
    cnd_init(&g_host.changed);
    mtx_init(&g_net.lock, mtx_plain);
    cnd_init(&g_net.work);
    for (int i = 0; i < SENDER_COUNT; ++i) thrd_create(&g_net.senders[i], sender_main, NULL);

    /* The tree as `ferrit publish` writes it: configuration at SERVER, packs below "packs/" (the
     * manifest's "zips"). */
    size_t server_length = strlen(args.server);
    char* packs = malloc(server_length + sizeof "/packs/");
    if (packs == NULL) return EXIT_USAGE;
    sprintf(packs, "%s%spacks/", args.server,
            server_length > 0 && args.server[server_length - 1] == '/' ? "" : "/");

    ferritcore_options options = {0}; /* zero: the usual defaults */
    options.struct_size = sizeof options;
    options.root = args.root;
    options.app_key = args.app_key;
    options.app_version = args.app_version;
    options.public_key = key; /* PEM text as `ferrit keygen` wrote it; copied by open() */
    options.public_key_size = key_size;
    options.config_server = args.server;
    options.pack_server = packs;
    options.locale = args.locale;
    options.log_level = args.log_level;
    options.host_starts_update = 1; /* updates start when this host says so, below */
    options.user_data = &g_host;
    options.on_request = on_request;
    options.on_pack_updated = on_pack_updated;
    options.on_log = on_log;

    ferritcore_handle* handle = NULL;
    ferritcore_error error = {0};
    if (ferritcore_open(&options, &handle, &error) != FERRITCORE_OK) {
        fprintf(stderr, "c-host: the library did not open: %d %s\n", (int)error.code,
                error.message);
        return EXIT_NOT_OPENED;
    }
    /* Requests that came during open() wait in the queue; the senders may answer them now. */
    mtx_lock(&g_net.lock);
    g_net.handle = handle;
    cnd_broadcast(&g_net.work);
    mtx_unlock(&g_net.lock);

    /* The update, now: the library fetches the signed configuration, checks it with the
     * publisher's key, and installs each pack whose installed version is not the configured one
     * (none, on a root that is current). */
    struct timespec deadline;
    timespec_get(&deadline, TIME_UTC);
    deadline.tv_sec += args.timeout_seconds;
    int result = EXIT_SERVED;
    ferritcore_update_now(handle, on_update, &g_host, NULL);
    mtx_lock(&g_host.lock);
    if (!wait_for(update_done, &deadline)) {
        fprintf(stderr, "c-host: the update did not end within %ld s\n", args.timeout_seconds);
        result = EXIT_TIMED_OUT;
    } else if (g_host.update_code != 0) {
        /* A tree signed by another key is refused; a server that does not answer, or answers 404
         * (another app version or locale), fails the update too. */
        fprintf(stderr, "c-host: the update %s: %d %s\n",
                g_host.update_code == CODE_VERIFY_FAILED ? "was refused" : "failed",
                (int)g_host.update_code, g_host.update_error);
        result = EXIT_REFUSED;
    }
    mtx_unlock(&g_host.lock);

    /* 3. Serving, through the table; it works whether or not a handle is open. */
    if (result == EXIT_SERVED) {
        result = serve(args.url, expected, expected_size);
    } else if (result == EXIT_REFUSED) {
        /* What was installed before a refusal still serves; in a fresh ROOT nothing does. */
        serve(args.url, expected, expected_size);
    }

    /* Shutting down: the senders first (a transfer under way is cut short and failed), while
     * the handle is still open for their answers; then close(), which fails the requests still
     * waiting, stops the callbacks and frees the handle. After close() the library's log goes
     * to stderr again: at the level asked. */
    mtx_lock(&g_net.lock);
    g_net.stopping = 1;
    cnd_broadcast(&g_net.work);
    mtx_unlock(&g_net.lock);
    for (int i = 0; i < SENDER_COUNT; ++i) thrd_join(g_net.senders[i], NULL);
    ferritcore_set_log_level(handle, args.log_level, NULL);
    ferritcore_close(handle, NULL);
    /* Requests that no sender took were failed by close(); their copies are left to free. */
    while (g_net.head != NULL) {
        pending_request* next = g_net.head->next;
        free_request(g_net.head);
        g_net.head = next;
    }
    curl_global_cleanup();
    free(packs);
    free(expected);
    free(key);
    return result;
}
