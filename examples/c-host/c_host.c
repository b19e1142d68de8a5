/* c_host.c: a native host of ferritcore in plain C11, the model for a web engine's embedder.
 *
 * It does what such a host does, in order:
 *   1. opens the library (ferritcore.h) with a root folder, the app's key and version, the
 *      publisher's public key and the address of the server that holds the published tree;
 *   2. carries the library's HTTP requests itself, with libcurl on threads of its own: the library
 *      opens no socket, it asks the host (on_request) and takes the answer back
 *      (ferritcore_answer_request, or ferritcore_fail_request when no HTTP answer came);
 *   3. comes to the foreground, which fetches the signed configuration, then installs the pack
 *      behind URL, waiting each time on a condition that the callbacks signal (no polling, no
 *      sleeping) with one deadline for the whole update;
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
 *   0  the pack behind URL is installed (now, or by an earlier run) and URL was served from it
 *      with the expected bytes
 *   1  the command line is wrong, or a file named on it cannot be read
 *   2  the library did not open (its error is printed)
 *   3  the update installed nothing; the library's error is printed in words: "the update was
 *      refused: ... verify failed ..." for a tree signed by another key than PUBLIC_KEY, "the
 *      update failed: ..." when the server did not answer or has no such tree or pack
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

/* Threads that send requests; the library may have several in flight (the configuration, then
 * one per pack). */
#define SENDER_COUNT 4
#define DEFAULT_TIMEOUT_SECONDS 30

/* ---- What the callbacks tell the main thread, under one lock. */

typedef struct host_state {
    mtx_t lock;
    cnd_t changed;       /* signalled whenever a field below changes */
    int config_finished; /* the configuration update ended (see on_log) */
    char config_error[FERRITCORE_ERROR_MESSAGE_SIZE * 2]; /* its error in words; empty: none */
    int signature_refused; /* a signed document did not verify with the publisher's key */
    int prefetch_answered; /* the library said which pack serves the URL (see on_log) */
    char pack_name[256];   /* that pack; empty when no pack serves the URL */
    int pack_done;         /* the update of that pack finished (on_pack_done) */
    char pack_error[FERRITCORE_ERROR_MESSAGE_SIZE * 2]; /* its error in words; empty: none */
    ferritcore_log_level print_level;
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
 * For a pack this host asked for, on_pack_done below may come first, and news still queued when
 * close() is called is dropped: a host waits on the completion, not on this. */
static void on_pack_updated(void* user_data, const char* name) {
    (void)user_data;
    printf("event: pack %s updated\n", name);
}

/* The completion of ferritcore_update_pack(): code 0, or the library's code and words. */
static void on_pack_done(void* user_data, const char* pack_name, int32_t code,
                         const char* message) {
    host_state* host = user_data;
    if (code == 0) printf("pack %s is installed\n", pack_name);
    mtx_lock(&host->lock);
    if (code != 0)
        snprintf(host->pack_error, sizeof host->pack_error, "pack %s: %d %s", pack_name, (int)code,
                 message);
    host->pack_done = 1;
    cnd_broadcast(&host->changed);
    mtx_unlock(&host->lock);
}

/* Copies the text value of `"key":"..."` in one log entry to `out` (an escaped character as
 * itself); 0 when the entry has no such key. */
static int json_text(const char* entry, const char* key, char* out, size_t size) {
    char pattern[64];
    snprintf(pattern, sizeof pattern, "\"%s\":\"", key);
    const char* start = strstr(entry, pattern);
    if (start == NULL) return 0;
    start += strlen(pattern);
    size_t n = 0;
    for (const char* p = start; *p != '\0' && *p != '"' && n + 1 < size; ++p) {
        if (*p == '\\' && p[1] != '\0') ++p; /* \" and \\ as the characters they stand for */
        out[n++] = *p;
    }
    out[n] = '\0';
    return 1;
}

static void on_log(void* user_data, ferritcore_log_level level, const char* entry_json) {
    host_state* host = user_data;
    /* The library delivers entries at the level it was opened with (at least info here, see
     * main); this host prints only those at the level asked on its command line. */
    if (host->print_level != FERRITCORE_LOG_OFF && level <= host->print_level)
        fprintf(stderr, "log: %s\n", entry_json);

    /* The end of a configuration update is told in the log: the entry of tag
     * "Ferrit/UpdateConfig" and event "finished", with "errorCode" and "errorMsg" when it
     * failed. A document that the publisher's key does not verify adds an error entry of its own
     * with the words "signature does not verify". */
    char tag[64], event[64], words[sizeof host->config_error - 32];
    if (!json_text(entry_json, "tag", tag, sizeof tag) ||
        !json_text(entry_json, "event", event, sizeof event))
        return;
    mtx_lock(&host->lock);
    if (strcmp(tag, "Ferrit/Embed") == 0 && strcmp(event, "verifySignature") == 0) {
        host->signature_refused = 1;
    } else if (strcmp(tag, "Ferrit/UpdateConfig") == 0 && strcmp(event, "finished") == 0) {
        char code[16] = "";
        if (json_text(entry_json, "errorCode", code, sizeof code) &&
            json_text(entry_json, "errorMsg", words, sizeof words))
            snprintf(host->config_error, sizeof host->config_error, "%s %s", code, words);
        host->config_finished = 1;
        cnd_broadcast(&host->changed);
    } else if (strcmp(tag, "Ferrit/Prefetch") == 0 && strcmp(event, "trigger") == 0) {
        /* A prefetch tells, per URL, the pack that serves it ("packName"), or the status
         * "notFerritResource" when none does. This host prefetches one URL at a time. */
        if (!json_text(entry_json, "packName", host->pack_name, sizeof host->pack_name))
            host->pack_name[0] = '\0';
        host->prefetch_answered = 1;
        cnd_broadcast(&host->changed);
    }
    mtx_unlock(&host->lock);
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

static int config_finished(const host_state* host) {
    return host->config_finished;
}
static int prefetch_answered(const host_state* host) {
    return host->prefetch_answered;
}
static int pack_done(const host_state* host) {
    return host->pack_done;
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
    } else if (!api->getResponseData(response, &data, &size) || size != expected_size ||
               (expected != NULL && memcmp(data, expected, size) != 0)) {
        printf("%s: served %zu bytes, not the %zu expected\n", url, size, expected_size);
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
    g_host.print_level = args.log_level;
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
    /* This interface tells the end of a configuration update only in the log, at info for a
     * success: ask for at least that much, and print what was asked (on_log). */
    options.log_level = args.log_level > FERRITCORE_LOG_INFO && args.log_level != FERRITCORE_LOG_OFF
                            ? args.log_level
                            : FERRITCORE_LOG_INFO;
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

    /* 1. The configuration: the app comes to the foreground, the library fetches the signed
     *    configuration and checks it with the publisher's key. */
    struct timespec deadline;
    timespec_get(&deadline, TIME_UTC);
    deadline.tv_sec += args.timeout_seconds;
    int result = EXIT_SERVED;
    ferritcore_update_foreground(handle, NULL);
    mtx_lock(&g_host.lock);
    if (!wait_for(config_finished, &deadline)) {
        fprintf(stderr, "c-host: no configuration within %ld s\n", args.timeout_seconds);
        result = EXIT_TIMED_OUT;
    } else if (g_host.config_error[0] != '\0') {
        /* A document signed by another key is refused; a server that does not answer, or
         * answers 404 (another app version or locale), fails the update too. */
        if (g_host.signature_refused)
            fprintf(stderr,
                    "c-host: the update was refused: %s (the signature does not verify "
                    "with the public key)\n",
                    g_host.config_error);
        else
            fprintf(stderr, "c-host: the update failed: %s\n", g_host.config_error);
        result = EXIT_REFUSED;
    }
    mtx_unlock(&g_host.lock);

    /* 2. The pack behind URL. A prefetch names it (and queues its update); updating it by name
     *    then installs it now rather than at the library's next periodic run, and tells when
     *    that is done. A pack installed already at the configured version is done at once. */
    char pack[sizeof g_host.pack_name] = "";
    if (result == EXIT_SERVED) {
        const char* urls[] = {args.url};
        ferritcore_prefetch(handle, urls, 1, NULL);
        mtx_lock(&g_host.lock);
        if (!wait_for(prefetch_answered, &deadline)) {
            fprintf(stderr, "c-host: no answer to the prefetch within %ld s\n",
                    args.timeout_seconds);
            result = EXIT_TIMED_OUT;
        } else if (g_host.pack_name[0] == '\0') {
            fprintf(stderr, "c-host: no pack of the configuration serves %s\n", args.url);
            result = EXIT_NOT_SERVED;
        }
        memcpy(pack, g_host.pack_name, sizeof pack);
        mtx_unlock(&g_host.lock);
    }
    if (result == EXIT_SERVED) {
        ferritcore_update_pack(handle, pack, on_pack_done, &g_host, NULL);
        mtx_lock(&g_host.lock);
        if (!wait_for(pack_done, &deadline)) {
            fprintf(stderr, "c-host: pack %s was not installed within %ld s\n", pack,
                    args.timeout_seconds);
            result = EXIT_TIMED_OUT;
        } else if (g_host.pack_error[0] != '\0') {
            fprintf(stderr, "c-host: the update failed: %s\n", g_host.pack_error);
            result = EXIT_REFUSED;
        }
        mtx_unlock(&g_host.lock);
    }

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
