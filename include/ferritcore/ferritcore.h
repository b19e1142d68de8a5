/* ferritcore.h: the C interface of the whole library, for a native host (a web engine's embedder)
 * that has no script engine. It sets the library up, carries its network traffic through the
 * host, starts updates, and tells the host what happens. Requests are served through the table
 * of AccessApi.h, which stays as it is; this header only adds to it. Plain C.
 *
 * One root per process. The library keeps its state for the life of the process and has no
 * teardown: ferritcore_close() does not unload anything. It stops every callback of the handle
 * (none starts after close() returns), sends the client to the background, fails the requests
 * still waiting for the host, and detaches. A later ferritcore_open() with the same root attaches
 * again to the running library, with the new callbacks and user data, and the new environment,
 * servers, locale, network, log level, app key and version; one with another root fails with
 * FERRITCORE_E_OTHER_ROOT. The public key, raw_file_folder and channel stay those of the first
 * open (what was verified, read and configured with them stays installed): a later open with
 * another key (or none), another folder or another channel fails with
 * FERRITCORE_E_OTHER_OPTIONS; the same key in another form is the same key. host_starts_update 0 on
 a later open hands the start of updates to the
 * library; 1 does not take back a start the library was given. At most one handle is open at a
 * time (FERRITCORE_E_ALREADY_OPEN).
 *
 * Errors. Every call that can fail returns a ferritcore_status (0 is success) and, when the
 * caller passes a ferritcore_error, fills it with the code and the words. An out-parameter rather
 * than a last-error accessor: calls come from any thread, and an error that travels with its call
 * needs no thread-local state and cannot be overwritten by another call before it is read. The
 * codes below FERRITCORE_E_FIRST_LIBRARY_CODE are this interface's own; the library's own codes
 * (those the table's getResponseError gives, the codes of an update's completion) pass as they
 * are. Nothing throws across this interface.
 *
 * Threading:
 *   - Every function may be called from any thread, unless said otherwise, and from several
 *     threads at once: a host may answer different requests on different threads at the same
 *     time.
 *   - No call waits for the network or for the host, except ferritcore_close(), which waits for a
 *     callback running on another thread to return. What each call does on the calling thread
 *     before it returns (reading and writing the library's files and databases, waits for a lock
 *     that another call of this header holds) is said at the call; the work it starts (fetching,
 *     installing) runs on the library's threads.
 *   - Every callback runs on the library's one callback thread, one callback at a time, never on
 *     a thread that called a function of this header and never with a lock of the library held.
 *     A callback may call any function of this header and of the table, except
 *     ferritcore_open() and ferritcore_close(), which answer FERRITCORE_E_IN_CALLBACK there.
 *   - A callback must return soon: later callbacks wait for it. Long work (sending a request)
 *     goes to the host's own threads.
 *   - Callbacks arrive in the order their news happened: state reports in the order of the state
 *     changes, log entries in the order they were written.
 *   - After ferritcore_close() returns, no callback of that handle runs; what was queued for it
 *     is dropped, never delivered to a later handle (the `done` of ferritcore_update_pack()
 *     included).
 *   - Close may race with the host's threads: a request answered or failed while or after its
 *     handle closes gets FERRITCORE_E_CLOSED (or FERRITCORE_OK when the answer was taken first),
 *     never a crash.

 * Ownership:
 *   - Everything handed in is copied before the call returns (options and every text and byte
 *     buffer in it, headers, bodies, URLs); the caller keeps its own.
 *   - Everything handed to a callback (texts, header arrays, the request) is the library's and is
 *     valid only until the callback returns; a host that answers later copies what it needs. The
 *     request id stays valid until the request is answered or failed, or the handle is closed.
 *   - ferritcore_status_report() returns text that the caller frees with ferritcore_free_text().
 *   - The handle is the library's; the host never frees it. After ferritcore_close() it stays a
 *     safe argument for the life of the process: every call with it answers FERRITCORE_E_CLOSED,
 *     also after a later open, whose handle is never the same pointer. (Each open keeps a few
 *     bytes for the process's life.)
 */
#ifndef FERRITCORE_FERRITCORE_H
#define FERRITCORE_FERRITCORE_H

#include <stddef.h>
#include <stdint.h>

#include "ferritcore/AccessApi.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Errors */

typedef int32_t ferritcore_status;

enum {
    FERRITCORE_OK = 0,
    /* An argument is null, empty or out of range; the words name it. */
    FERRITCORE_E_INVALID_ARGUMENT = -1,
    /* The options' struct_size is smaller than the first version of the struct. */
    FERRITCORE_E_OPTIONS_SIZE = -2,
    /* The public key is not an Ed25519 public key in any form the library reads. */
    FERRITCORE_E_PUBLIC_KEY = -3,
    /* A handle is open already; close it first. */
    FERRITCORE_E_ALREADY_OPEN = -4,
    /* The process holds another root; the library keeps one root per process. */
    FERRITCORE_E_OTHER_ROOT = -5,
    /* The handle is closed, or is no handle of this library. */
    FERRITCORE_E_CLOSED = -6,
    /* The request id is unknown, already answered or failed. */
    FERRITCORE_E_UNKNOWN_REQUEST = -7,
    /* open() or close() called from inside a callback. */
    FERRITCORE_E_IN_CALLBACK = -8,
    /* The library did not come up (the words say what its status report misses). */
    FERRITCORE_E_SETUP_FAILED = -9,
    /* A push message of a topic that the library did not subscribe to. */
    FERRITCORE_E_UNKNOWN_TOPIC = -10,
    /* The root was opened before in this process with another public key (or none), another
     * raw_file_folder or another channel; what was installed under the first stays, so they stay
     * too. */
    FERRITCORE_E_OTHER_OPTIONS = -11,
    /* Codes from here up are the library's own and pass unchanged. */
    FERRITCORE_E_FIRST_LIBRARY_CODE = 1
};

/* Room for the words of an error, with the terminating zero. Longer words are cut. */
#define FERRITCORE_ERROR_MESSAGE_SIZE 256

typedef struct ferritcore_error {
    ferritcore_status code;
    char message[FERRITCORE_ERROR_MESSAGE_SIZE];
} ferritcore_error;

/* ---- Values of the options */

/* The values below are chosen so that a zeroed options struct asks for the usual: release
 * servers, an unrestricted network, warnings and errors in the log. */

/* Which deployment the library believes it is in (it picks the update behaviour of that
 * deployment; the server addresses of the options serve every one). */
typedef enum ferritcore_env {
    FERRITCORE_ENV_RELEASE = 0,
    FERRITCORE_ENV_DAILY = 1,
    FERRITCORE_ENV_DEBUG = 2
} ferritcore_env;

/* What the device's network is; updates wait for a network and spare a slow one. */
typedef enum ferritcore_network {
    FERRITCORE_NETWORK_UNRESTRICTED = 0,
    FERRITCORE_NETWORK_NONE = 1,
    FERRITCORE_NETWORK_SLOW_MOBILE = 2,
    FERRITCORE_NETWORK_FAST_MOBILE = 3
} ferritcore_network;

/* Log levels: an entry is delivered when its level is at most the level set. An entry's own level
 * is one of ERROR to VERBOSE. */
typedef enum ferritcore_log_level {
    FERRITCORE_LOG_DEFAULT = 0, /* as FERRITCORE_LOG_WARNING */
    FERRITCORE_LOG_ERROR = 1,
    FERRITCORE_LOG_WARNING = 2,
    FERRITCORE_LOG_INFO = 3,
    FERRITCORE_LOG_DEBUG = 4,
    FERRITCORE_LOG_VERBOSE = 5,
    FERRITCORE_LOG_OFF = 6 /* nothing at all */
} ferritcore_log_level;

/* ---- The host's network */

typedef struct ferritcore_handle ferritcore_handle;

/* One HTTP header; both texts zero-terminated. */
typedef struct ferritcore_header {
    const char* name;
    const char* value;
} ferritcore_header;

/* A request the library needs the host to send (GET). Valid only during the callback. */
typedef struct ferritcore_request {
    /* What the host echoes in ferritcore_answer_request() or ferritcore_fail_request(). Never 0. */
    uint64_t id;
    const char* url;
    const ferritcore_header* headers;
    size_t header_count;
    /* Milliseconds the host may take; 0: the host's own default. */
    int32_t timeout_ms;
    /* Null: the body comes back in the answer. Else the host writes the body to this file (made
     * or replaced) and answers with no body. */
    const char* temp_file_path;
    /* 1 when the library reads every response header (else only Content-Length matters). */
    int wants_headers;
} ferritcore_request;

/* Called once per request, on the callback thread. It must return at once; the host sends the
 * request on its own threads and answers it exactly once, later, from any thread (also from inside
 * this callback), with ferritcore_answer_request() or ferritcore_fail_request(). A request that is
 * never answered waits until the handle is closed. The library may stop waiting for it sooner (its
 * own deadline); an answer after that is taken and ignored. */
typedef void (*ferritcore_request_callback)(void* user_data, const ferritcore_request* request);

/* ---- Events */

/* A pack was installed; `name` valid during the call. */
typedef void (*ferritcore_pack_updated_callback)(void* user_data, const char* name);
/* The update queue ran dry after `count` packs. */
typedef void (*ferritcore_queue_finished_callback)(void* user_data, uint32_t count);
/* The lifecycle or storage state changed; `status_json` is the status report of the new state,
 * the same text as ferritcore_status_report() gives, valid during the call. */
typedef void (*ferritcore_state_changed_callback)(void* user_data, const char* status_json);
/* A performance record as JSON text {"name", "dimensions": {text}, "measures": {number}}, valid
 * during the call. Records are built only when this callback is set. */
typedef void (*ferritcore_record_callback)(void* user_data, const char* record_json);
/* One log entry at `level` as one line of JSON text (without a newline), valid during the call.
 * Without a log callback the log goes to stderr. */
typedef void (*ferritcore_log_callback)(void* user_data, ferritcore_log_level level,
                                        const char* entry_json);
/* An update of one pack finished: `code` 0 is success, else the library's code and `message` its
 * words; both texts valid during the call. */
typedef void (*ferritcore_update_callback)(void* user_data, const char* pack_name, int32_t code,
                                           const char* message);

/* ---- Options */

/* The size of the first version of ferritcore_options: open() refuses less. Fields added later go
 * at the end; a struct_size that does not reach them leaves them at their defaults. */
#define FERRITCORE_OPTIONS_SIZE_V1 \
    (offsetof(ferritcore_options, on_log) + sizeof(ferritcore_log_callback))
/* The size of the second version, which adds `channel`. */
#define FERRITCORE_OPTIONS_SIZE_V2 (offsetof(ferritcore_options, channel) + sizeof(const char*))

typedef struct ferritcore_options {
    /* sizeof(ferritcore_options) as the caller was compiled. */
    size_t struct_size;

    /* The folder the library keeps everything in; made when missing. Required. */
    const char* root;
    /* The app's key and version, as the configuration server knows them. Required. */
    const char* app_key;
    const char* app_version;
    /* The publisher's Ed25519 public key: PEM text, base64 of the raw key or DER, the 32 raw
     * bytes, or DER. Required unless insecure_no_signature_check is 1. */
    const void* public_key;
    size_t public_key_size;
    /* 1: no signature is checked at all (development only). A key given is checked all the
     * same. */
    int insecure_no_signature_check;

    /* Where the configuration documents and the packs are read from, for `env`. Null: the
     * library's defaults. */
    const char* config_server;
    const char* pack_server;
    ferritcore_env env;

    /* Like "en-US"; null: the library's default. */
    const char* locale;
    ferritcore_network network;
    /* The app's raw files (packs shipped with the app); null: none. */
    const char* raw_file_folder;
    ferritcore_log_level log_level;
    /* 1: the host calls ferritcore_update_foreground() to start updates; 0: they start on their
     * own. */
    int host_starts_update;

    /* Callbacks; only on_request is required. All get `user_data`. */
    void* user_data;
    ferritcore_request_callback on_request;
    ferritcore_pack_updated_callback on_pack_updated;
    ferritcore_queue_finished_callback on_queue_finished;
    ferritcore_state_changed_callback on_state_changed;
    ferritcore_record_callback on_record;
    ferritcore_log_callback on_log;

    /* Second version (FERRITCORE_OPTIONS_SIZE_V2); a struct_size of FERRITCORE_OPTIONS_SIZE_V1
     * leaves it null. */
    /* The publisher's channel (`ferrit publish --channel NAME`): the configuration is read below
     * config_server's "channels/NAME/", the packs stay at pack_server. A plain name: letters,
     * digits, ".", "_" and "-", not starting with "."; any other fails open() with
     * FERRITCORE_E_INVALID_ARGUMENT. Null or empty: the configuration of config_server itself. */
    const char* channel;
} ferritcore_options;

/* ---- Open and close */

/* Sets the library up in the start-up order (environment, locale, network, server addresses,
 * the host's network and key, the app's key and version) and returns once it is set up: the
 * stored configuration is loaded and the packs already installed serve through the table. The
 * first configuration update runs after that, on the library's threads. On failure `*handle` is
 * null.
 * Blocks on: the first open makes the root's folders and reads the stored configuration from the
 * root's database on the calling thread. While it runs, the calls of this header that take a
 * handle (answers from the host's threads too) wait for it; it waits for no callback and for no
 * host. */
FERRIT_C_EXPORT ferritcore_status ferritcore_open(const ferritcore_options* options,
                                                  ferritcore_handle** handle,
                                                  ferritcore_error* error);

/* Stops the callbacks and detaches (see the top of this header). Null is allowed.
 * Blocks on: a callback running on another thread, until it returns (so a host must not close
 * while holding a lock that its callbacks take); then, as ferritcore_update_background(), the
 * compaction of the library's databases when it is due. */
FERRIT_C_EXPORT ferritcore_status ferritcore_close(ferritcore_handle* handle,
                                                   ferritcore_error* error);

/* ---- The host's answers */

/* Answers request `request_id` with an HTTP status (100..599), headers and body (`body` may be
 * null when `body_size` is 0, or when the body went to the request's temp file). The library takes
 * the answer in on the calling thread (it copies it and may check it) before it returns. A status
 * outside 100..599 fails the request with the library's error 1004 and returns
 * FERRITCORE_E_INVALID_ARGUMENT. Each request is taken once: of several answers and failures of
 * one id, racing on several threads, one is taken and the others get
 * FERRITCORE_E_UNKNOWN_REQUEST. */
FERRIT_C_EXPORT ferritcore_status
ferritcore_answer_request(ferritcore_handle* handle, uint64_t request_id, int32_t http_status,
                          const ferritcore_header* headers, size_t header_count, const void* body,
                          size_t body_size, ferritcore_error* error);

/* Fails request `request_id` in transport (no HTTP answer): `code` non-zero, `message` the
 * host's words (may be null). */
FERRIT_C_EXPORT ferritcore_status ferritcore_fail_request(ferritcore_handle* handle,
                                                          uint64_t request_id, int32_t code,
                                                          const char* message,
                                                          ferritcore_error* error);

/* ---- Update triggers; the fetching and installing they start runs on the library's threads.
 * ferritcore_update_foreground() and ferritcore_update_background() take the library's lifecycle
 * lock, as open and close do: each waits for another of the four running on another thread,
 * including the compaction described below. */

/* The app came to the foreground (also: the host starts updates, when it said it would).
 * Blocks on: when it starts updates (the first call after open with host_starts_update 1), the
 * update queue's planning (it reads the stored configuration again when another process changed
 * it) and the compaction of the library's databases (a SQLite checkpoint and truncation of three
 * databases, which takes as long as the disk takes; at most once every ten minutes, shared with
 * ferritcore_update_background() and ferritcore_close()). Else it only posts a configuration
 * check. */
FERRIT_C_EXPORT ferritcore_status ferritcore_update_foreground(ferritcore_handle* handle,
                                                               ferritcore_error* error);
/* The app went to the background: updates pause.
 * Blocks on: the compaction of the library's databases on the calling thread, when ten minutes
 * have passed since the last (see ferritcore_update_foreground()). */
FERRIT_C_EXPORT ferritcore_status ferritcore_update_background(ferritcore_handle* handle,
                                                               ferritcore_error* error);
/* A push message arrived for `topic`; the library acts on the topics it subscribed to.
 * Blocks on: parsing the message; a configuration message that carries pack records stores them
 * in the library's configuration on the calling thread. The fetch it starts runs later. */
FERRIT_C_EXPORT ferritcore_status ferritcore_push_message(ferritcore_handle* handle,
                                                          const char* topic, const char* message,
                                                          ferritcore_error* error);
/* Installs ahead of use the packs that serve these URLs.
 * Blocks on: nothing; the URLs are matched against the configuration in memory. */
FERRIT_C_EXPORT ferritcore_status ferritcore_prefetch(ferritcore_handle* handle,
                                                      const char* const* urls, size_t url_count,
                                                      ferritcore_error* error);
/* Updates pack `name` now; `done` (may be null) is called once, on the callback thread, unless the
 * handle is closed first; never for a later handle.
 * Blocks on: the update queue's planning (it reads the stored configuration again when another
 * process changed it). */
FERRIT_C_EXPORT ferritcore_status ferritcore_update_pack(ferritcore_handle* handle,
                                                         const char* name,
                                                         ferritcore_update_callback done,
                                                         void* user_data, ferritcore_error* error);

/* Fetches the newest configuration now (whatever the time since the last check), then updates
 * every configured pack whose installed version differs from the configured one: what a host
 * calls to be current at once, rather than waiting for the library's own schedule. `done` (may be
 * null) is called on the callback thread once per pack, with its name and its result as for
 * ferritcore_update_pack(), and then once more with `pack_name` null: code 0 when the
 * configuration was fetched and every pack updated, else the configuration's failure, or the
 * first pack's failure. Unless the handle is closed first; never for a later handle. The check
 * runs in the foreground only: in the background (ferritcore_update_background()) it waits for
 * the next ferritcore_update_foreground().
 * Blocks on: nothing; the check and the updates run on the library's threads. */
FERRIT_C_EXPORT ferritcore_status ferritcore_update_now(ferritcore_handle* handle,
                                                        ferritcore_update_callback done,
                                                        void* user_data, ferritcore_error* error);

/* ---- Status and settings */

/* The status report as JSON text ({"version", "process", "feature"} and "error" when anything is
 * missing), or null with `error` set. Free it with ferritcore_free_text(). Blocks on: nothing
 * beyond a stat of the root. */
FERRIT_C_EXPORT char* ferritcore_status_report(ferritcore_handle* handle, ferritcore_error* error);
/* Frees text this library returned; null is allowed. */
FERRIT_C_EXPORT void ferritcore_free_text(char* text);

FERRIT_C_EXPORT ferritcore_status ferritcore_set_network(ferritcore_handle* handle,
                                                         ferritcore_network network,
                                                         ferritcore_error* error);
FERRIT_C_EXPORT ferritcore_status ferritcore_set_locale(ferritcore_handle* handle,
                                                        const char* locale,
                                                        ferritcore_error* error);
FERRIT_C_EXPORT ferritcore_status ferritcore_set_log_level(ferritcore_handle* handle,
                                                           ferritcore_log_level level,
                                                           ferritcore_error* error);

#ifdef __cplusplus
}
#endif

#endif /* FERRITCORE_FERRITCORE_H */
