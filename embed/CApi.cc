// The functions of ferritcore.h: the start-up order run for a native host, its answers to the
// library's requests, the update triggers, the status report and close. The process keeps one
// attachment (its root and its EmbedProxy) from the first open on, because the core has no
// teardown; a handle is one host's turn on it.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/Environment.h"
#include "base/Errors.h"
#include "base/LogTags.h"
#include "base/ProcessState.h"
#include "base/StorageState.h"
#include "base/Telemetry.h"
#include "embed/EmbedLog.h"
#include "embed/EmbedProxy.h"
#include "ferritcore/Access.h"
#include "ferritcore/ferritcore.h"
#include "lifecycle/Setup.h"
#include "marl/Json.h"
#include "marl/Log.h"
#include "model/SCache.h"
#include "runtime/Settings.h"
#include "support/Mutex.h"
#include "update/UpdateConfig.h"
#include "update/UpdateQueue.h"

struct ferritcore_handle {
    // Nothing: the handle is only the proof of one open, compared by address. Every handle lives
    // as long as the process, so that a closed one never shares its address with a later one.
    int unused = 0;
};

namespace FerritCore {
namespace {

using MarlLogger::json::JSON;

// The HTTP statuses a response can have.
constexpr int32_t kFirstHttpStatus = 100;
constexpr int32_t kLastHttpStatus = 599;
// The codes of the status report that say the library is not set up.
constexpr std::string_view kNotSetUpCodes[] = {"NO_PROXY", "ROOT_NOT_EXIST", "NOT_SETUP",
                                               "NO_APPKEY", "NO_APPVERSION"};

// The header's enumerations are ordered so that zero is the usual choice; the library's own are
// not, so each crosses here.
constexpr MarlLogger::MRLLevel kLibraryLogOff = 0;

int32_t libraryEnv(ferritcore_env env) {
    switch (env) {
        case FERRITCORE_ENV_DAILY:
            return kEnvDaily;
        case FERRITCORE_ENV_DEBUG:
            return kEnvDebug;
        case FERRITCORE_ENV_RELEASE:
            break;
    }
    return kEnvRelease;
}

NetworkStatus libraryNetwork(ferritcore_network network) {
    switch (network) {
        case FERRITCORE_NETWORK_NONE:
            return NetworkStatus::kNone;
        case FERRITCORE_NETWORK_SLOW_MOBILE:
            return NetworkStatus::kSlowMobile;
        case FERRITCORE_NETWORK_FAST_MOBILE:
            return NetworkStatus::kFastMobile;
        case FERRITCORE_NETWORK_UNRESTRICTED:
            break;
    }
    return NetworkStatus::kUnrestricted;
}

bool validLevel(ferritcore_log_level level) {
    return level >= FERRITCORE_LOG_DEFAULT && level <= FERRITCORE_LOG_OFF;
}

MarlLogger::MRLLevel libraryLevel(ferritcore_log_level level) {
    if (level == FERRITCORE_LOG_DEFAULT) return MarlLogger::MRLLevelWarning;
    if (level == FERRITCORE_LOG_OFF) return kLibraryLogOff;
    return static_cast<MarlLogger::MRLLevel>(level);
}

// The process's attachment.
struct Attachment {
    Mutex mutex;
    std::string root GUARDED_BY(mutex);  // empty until the first open
    // What the root was opened with and every later open must repeat: the raw public key (empty:
    // none) and the folder of raw files.
    std::string publicKey GUARDED_BY(mutex);
    std::string rawFiles GUARDED_BY(mutex);
    std::string channel GUARDED_BY(mutex);
    std::shared_ptr<EmbedProxy> proxy GUARDED_BY(mutex);
    ferritcore_handle* open GUARDED_BY(mutex) = nullptr;
    // Every handle made, open or closed: a host thread that answers late with a closed handle
    // gets FERRITCORE_E_CLOSED, even when a later open made a new one.
    std::vector<std::unique_ptr<ferritcore_handle>> handles GUARDED_BY(mutex);
    bool hostStartsUpdate GUARDED_BY(mutex) = false;
    bool ownsLog GUARDED_BY(mutex) = false;  // the log goes to the host's callback
};

Attachment& attachment() {
    static Attachment* const instance = ProcessState::create<Attachment>([](Attachment& a) {
        MutexLock lock(a.mutex);
        a.root.clear();
        a.publicKey.clear();
        a.rawFiles.clear();
        a.channel.clear();
        a.proxy.reset();
        a.open = nullptr;
        a.handles.clear();
        a.hostStartsUpdate = false;
        a.ownsLog = false;
    });
    return *instance;
}

ferritcore_status report(ferritcore_error* error, ferritcore_status code, std::string_view words) {
    if (error != nullptr) {
        error->code = code;
        const size_t length = std::min(words.size(), sizeof(error->message) - 1);
        // An empty view may carry a null pointer, which memcpy must not be given.
        if (length > 0) std::memcpy(error->message, words.data(), length);
        error->message[length] = '\0';
    }
    return code;
}

ferritcore_status ok(ferritcore_error* error) {
    return report(error, FERRITCORE_OK, {});
}

std::string text(const char* given) {
    return given == nullptr ? std::string() : std::string(given);
}

// A root as the process keeps it: without trailing slashes, so that "/a/" and "/a" are one root.
std::string normalRoot(std::string root) {
    while (root.size() > 1 && root.back() == '/') root.pop_back();
    return root;
}

// The channel of `options`: empty when it has none, or when its struct_size does not reach it.
std::string channelOf(const ferritcore_options& options) {
    if (options.struct_size < FERRITCORE_OPTIONS_SIZE_V2) return {};
    return text(options.channel);
}

// The proxy of the open handle `handle`, or null with `error` set.
std::shared_ptr<EmbedProxy> openProxy(ferritcore_handle* handle, ferritcore_error* error) {
    Attachment& a = attachment();
    MutexLock lock(a.mutex);
    if (handle == nullptr || handle != a.open) {
        report(error, FERRITCORE_E_CLOSED, "the handle is closed or is no handle of this library");
        return nullptr;
    }
    return a.proxy;
}

// The failure of an answer that found no request waiting: the handle was closed meanwhile (its
// requests failed with the close), or the id is unknown.
ferritcore_status noSuchRequest(ferritcore_handle* handle, ferritcore_error* error) {
    if (!openProxy(handle, error)) return FERRITCORE_E_CLOSED;
    return report(error, FERRITCORE_E_UNKNOWN_REQUEST, "no request waits with this id");
}

// What open() checks before it touches the library; `key` is set when a key was given.
ferritcore_status checkOptions(const ferritcore_options* options,
                               std::shared_ptr<const Ed25519PublicKey>& key,
                               ferritcore_error* error) {
    if (options == nullptr) return report(error, FERRITCORE_E_INVALID_ARGUMENT, "options is null");
    if (options->struct_size < FERRITCORE_OPTIONS_SIZE_V1)
        return report(error, FERRITCORE_E_OPTIONS_SIZE,
                      "options.struct_size is smaller than the first version of the options");
    if (options->root == nullptr || options->root[0] == '\0')
        return report(error, FERRITCORE_E_INVALID_ARGUMENT, "options.root is required");
    if (options->app_key == nullptr || options->app_key[0] == '\0')
        return report(error, FERRITCORE_E_INVALID_ARGUMENT, "options.app_key is required");
    if (options->app_version == nullptr || options->app_version[0] == '\0')
        return report(error, FERRITCORE_E_INVALID_ARGUMENT, "options.app_version is required");
    if (!validLevel(options->log_level))
        return report(error, FERRITCORE_E_INVALID_ARGUMENT, "options.log_level is out of range");
    if (options->env < FERRITCORE_ENV_RELEASE || options->env > FERRITCORE_ENV_DEBUG)
        return report(error, FERRITCORE_E_INVALID_ARGUMENT, "options.env is out of range");
    if (options->network < FERRITCORE_NETWORK_UNRESTRICTED ||
        options->network > FERRITCORE_NETWORK_FAST_MOBILE)
        return report(error, FERRITCORE_E_INVALID_ARGUMENT, "options.network is out of range");
    if (options->on_request == nullptr)
        return report(error, FERRITCORE_E_INVALID_ARGUMENT, "options.on_request is required");
    // The name goes into every configuration URL.
    const std::string channel = channelOf(*options);
    if (!channel.empty() && !HostDefaults::isPlainChannel(channel))
        return report(error, FERRITCORE_E_INVALID_ARGUMENT,
                      "options.channel \"" + channel +
                          "\" must be a plain name: letters, digits, \".\", \"_\" and \"-\", "
                          "not starting with \".\"");
    if (options->public_key != nullptr && options->public_key_size > 0) {
        std::string reason;
        key =
            Ed25519PublicKey::parse(std::string_view(static_cast<const char*>(options->public_key),
                                                     options->public_key_size),
                                    Ed25519PublicKey::Form::Bytes, reason);
        if (!key) return report(error, FERRITCORE_E_PUBLIC_KEY, "options.public_key: " + reason);
    } else if (options->insecure_no_signature_check != 1) {
        return report(error, FERRITCORE_E_PUBLIC_KEY,
                      "options.public_key is required unless insecure_no_signature_check is 1");
    }
    return FERRITCORE_OK;
}

// The server addresses serve every env: a native host names the servers it means.
HostDefaults defaultsOf(const ferritcore_options& options) {
    HostDefaults defaults;
    const std::string config = text(options.config_server);
    const std::string packs = text(options.pack_server);
    defaults.configPrefix = config;
    defaults.configPrefixDebug = config;
    defaults.configPrefixDaily = config;
    defaults.zipPrefix = packs;
    defaults.zipPrefixDaily = packs;
    defaults.acacheZipPrefix = packs;
    defaults.channel = channelOf(options);
    return defaults;
}

// The codes of the status report that say the library is not set up, joined; empty when it is.
std::string missingSetup() {
    std::string missing;
    const JSON status = Setup::statusReport();
    for (const JSON& code : status["error"].arrayValue()) {
        for (std::string_view notSetUp : kNotSetUpCodes) {
            if (code.stringValue() != notSetUp) continue;
            if (!missing.empty()) missing += ", ";
            missing += code.stringValue();
        }
    }
    return missing;
}

}  // namespace
}  // namespace FerritCore

using namespace FerritCore;

ferritcore_status ferritcore_open(const ferritcore_options* options, ferritcore_handle** handle,
                                  ferritcore_error* error) {
    if (handle == nullptr) return report(error, FERRITCORE_E_INVALID_ARGUMENT, "handle is null");
    *handle = nullptr;
    if (EmbedProxy::inCallback())
        return report(error, FERRITCORE_E_IN_CALLBACK, "open() was called from a callback");
    std::shared_ptr<const Ed25519PublicKey> key;
    if (const ferritcore_status checked = checkOptions(options, key, error)) return checked;
    const std::string root = normalRoot(options->root);
    const std::string rawFiles = text(options->raw_file_folder);
    const std::string channel = channelOf(*options);
    HostCallbacks callbacks;
    callbacks.userData = options->user_data;
    callbacks.onRequest = options->on_request;
    callbacks.onPackUpdated = options->on_pack_updated;
    callbacks.onQueueFinished = options->on_queue_finished;
    callbacks.onStateChanged = options->on_state_changed;
    callbacks.onRecord = options->on_record;
    callbacks.onLog = options->on_log;

    Attachment& a = attachment();
    MutexLock lock(a.mutex);
    if (a.open != nullptr)
        return report(error, FERRITCORE_E_ALREADY_OPEN, "a handle is open already; close it first");
    if (!a.root.empty() && a.root != root)
        return report(error, FERRITCORE_E_OTHER_ROOT,
                      "the process holds the root " + a.root + "; one root per process");
    // What was verified or read with the first key and folder stays installed and keeps serving,
    // so a different one could not take effect for all of it: it is refused.
    const std::string publicKey = key ? key->raw() : std::string();
    if (!a.root.empty() && a.publicKey != publicKey)
        return report(
            error, FERRITCORE_E_OTHER_OPTIONS,
            "the root " + a.root + " was opened with another public key; it stays for the process");
    if (!a.root.empty() && a.rawFiles != rawFiles)
        return report(error, FERRITCORE_E_OTHER_OPTIONS,
                      "the root " + a.root +
                          " was opened with another raw_file_folder; it stays for the process");
    // The configuration installed is the first channel's: another would be read over it.
    if (!a.root.empty() && a.channel != channel)
        return report(error, FERRITCORE_E_OTHER_OPTIONS,
                      "the root " + a.root + " was opened with " +
                          (a.channel.empty() ? std::string("no channel")
                                             : "the channel \"" + a.channel + "\"") +
                          "; it stays for the process");
    // The host hears the log and the state from the first setting on.
    const bool first = a.proxy == nullptr;
    if (first) a.proxy = std::make_shared<EmbedProxy>();
    a.proxy->attach(callbacks, std::move(key));
    Environment::instance().refreshTakesEvents();
    if (callbacks.onLog != nullptr) {
        MarlLogger::Log::setSink(std::make_shared<EmbedLogSink>(a.proxy));
        a.ownsLog = true;
    }
    if (options->insecure_no_signature_check == 1 && options->public_key == nullptr) {
        MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kEmbed)
            .event("open")
            .append("reason", "insecure_no_signature_check: no signature is checked");
    }
    // The start-up order: the settings the first configuration request is built from, then the
    // host's network and key, then the app.
    Setup::setEnv(libraryEnv(options->env));
    if (options->locale != nullptr) Setup::setLocale(options->locale);
    Setup::setNetworkStatus(libraryNetwork(options->network));
    MarlLogger::Log::setLevel(libraryLevel(options->log_level));
    Settings::setDefaults(defaultsOf(*options));
    if (first) Setup::setProxy(a.proxy, root + "/", rawFiles);
    a.root = root;
    a.publicKey = publicKey;
    a.rawFiles = rawFiles;
    a.channel = channel;
    a.hostStartsUpdate = options->host_starts_update == 1;
    Setup::setup(options->app_key, options->app_version,
                 a.hostStartsUpdate ? SetupMode::kHostStartsUpdate : SetupMode::kAutoUpdate);
    if (!first) Setup::clientActived();
    const std::string missing = missingSetup();
    if (!missing.empty()) {
        a.proxy->detach();
        Environment::instance().refreshTakesEvents();
        if (a.ownsLog) MarlLogger::Log::setSink(std::make_shared<MarlLogger::StderrSink>());
        a.ownsLog = false;
        // A root that cannot be made says why in the storage state (read-only, full, denied).
        const std::string why = StorageState::reason();
        return report(
            error, FERRITCORE_E_SETUP_FAILED,
            "the library is not set up: " + missing + (why.empty() ? "" : " (" + why + ")"));
    }
    a.handles.push_back(std::make_unique<ferritcore_handle>());
    a.open = a.handles.back().get();
    *handle = a.open;
    return ok(error);
}

ferritcore_status ferritcore_close(ferritcore_handle* handle, ferritcore_error* error) {
    if (handle == nullptr) return ok(error);
    if (EmbedProxy::inCallback())
        return report(error, FERRITCORE_E_IN_CALLBACK, "close() was called from a callback");
    std::shared_ptr<EmbedProxy> proxy;
    {
        Attachment& a = attachment();
        MutexLock lock(a.mutex);
        if (handle != a.open)
            return report(error, FERRITCORE_E_CLOSED,
                          "the handle is closed or is no handle of this library");
        a.open = nullptr;
        proxy = a.proxy;
        if (a.ownsLog) MarlLogger::Log::setSink(std::make_shared<MarlLogger::StderrSink>());
        a.ownsLog = false;
    }
    proxy->detach();
    Environment::instance().refreshTakesEvents();
    Setup::clientDeactived();
    return ok(error);
}

ferritcore_status ferritcore_answer_request(ferritcore_handle* handle, uint64_t request_id,
                                            int32_t http_status, const ferritcore_header* headers,
                                            size_t header_count, const void* body, size_t body_size,
                                            ferritcore_error* error) {
    std::shared_ptr<EmbedProxy> proxy = openProxy(handle, error);
    if (!proxy) return error != nullptr ? error->code : FERRITCORE_E_CLOSED;
    if ((headers == nullptr && header_count > 0) || (body == nullptr && body_size > 0))
        return report(error, FERRITCORE_E_INVALID_ARGUMENT, "headers or body is null");
    if (http_status < kFirstHttpStatus || http_status > kLastHttpStatus) {
        // A status that no HTTP response has is the host's failure: the request fails with it.
        const Error invalid = Errors::hostInvalidStatus(std::to_string(http_status));
        if (!proxy->fail(request_id, invalid)) return noSuchRequest(handle, error);
        return report(error, FERRITCORE_E_INVALID_ARGUMENT, invalid.message());
    }
    ProxyResponse response;
    response.statusCode = static_cast<uint16_t>(http_status);
    for (size_t i = 0; i < header_count; ++i) {
        if (headers[i].name == nullptr || headers[i].value == nullptr) continue;
        response.header[headers[i].name] = headers[i].value;
    }
    if (body_size > 0) response.content.assign(static_cast<const char*>(body), body_size);
    if (!proxy->answer(request_id, std::move(response))) return noSuchRequest(handle, error);
    return ok(error);
}

ferritcore_status ferritcore_fail_request(ferritcore_handle* handle, uint64_t request_id,
                                          int32_t code, const char* message,
                                          ferritcore_error* error) {
    std::shared_ptr<EmbedProxy> proxy = openProxy(handle, error);
    if (!proxy) return error != nullptr ? error->code : FERRITCORE_E_CLOSED;
    if (code == 0) return report(error, FERRITCORE_E_INVALID_ARGUMENT, "code must not be 0");
    if (!proxy->fail(request_id, Error(code, text(message)))) return noSuchRequest(handle, error);
    return ok(error);
}

ferritcore_status ferritcore_update_foreground(ferritcore_handle* handle, ferritcore_error* error) {
    if (!openProxy(handle, error)) return FERRITCORE_E_CLOSED;
    Setup::clientActived();
    bool hostStarts = false;
    {
        Attachment& a = attachment();
        MutexLock lock(a.mutex);
        hostStarts = a.hostStartsUpdate;
    }
    if (hostStarts) Setup::startUpdate();
    return ok(error);
}

ferritcore_status ferritcore_update_background(ferritcore_handle* handle, ferritcore_error* error) {
    if (!openProxy(handle, error)) return FERRITCORE_E_CLOSED;
    Setup::clientDeactived();
    return ok(error);
}

ferritcore_status ferritcore_push_message(ferritcore_handle* handle, const char* topic,
                                          const char* message, ferritcore_error* error) {
    std::shared_ptr<EmbedProxy> proxy = openProxy(handle, error);
    if (!proxy) return FERRITCORE_E_CLOSED;
    if (topic == nullptr || topic[0] == '\0')
        return report(error, FERRITCORE_E_INVALID_ARGUMENT, "topic is required");
    if (!proxy->push(topic, text(message)))
        return report(error, FERRITCORE_E_UNKNOWN_TOPIC,
                      std::string("the library takes no message of the topic ") + topic);
    return ok(error);
}

ferritcore_status ferritcore_prefetch(ferritcore_handle* handle, const char* const* urls,
                                      size_t url_count, ferritcore_error* error) {
    if (!openProxy(handle, error)) return FERRITCORE_E_CLOSED;
    if (urls == nullptr && url_count > 0)
        return report(error, FERRITCORE_E_INVALID_ARGUMENT, "urls is null");
    std::vector<std::string> list;
    list.reserve(url_count);
    for (size_t i = 0; i < url_count; ++i) {
        if (urls[i] == nullptr || urls[i][0] == '\0')
            return report(error, FERRITCORE_E_INVALID_ARGUMENT, "a URL is null or empty");
        list.emplace_back(urls[i]);
    }
    if (!list.empty()) Access::prefetch(list);
    return ok(error);
}

ferritcore_status ferritcore_update_pack(ferritcore_handle* handle, const char* name,
                                         ferritcore_update_callback done, void* user_data,
                                         ferritcore_error* error) {
    std::shared_ptr<EmbedProxy> proxy = openProxy(handle, error);
    if (!proxy) return FERRITCORE_E_CLOSED;
    if (name == nullptr || name[0] == '\0')
        return report(error, FERRITCORE_E_INVALID_ARGUMENT, "name is required");
    // `done` is this handle's: an update that ends after a close, or after a later open, tells no
    // one.
    const uint64_t generation = proxy->generation();
    UpdateQueue::request(
        name, kTriggerVisit,
        [proxy, generation, done, user_data, pack = std::string(name)](const Error& failure) {
            if (done == nullptr) return;
            proxy->deliverTo(generation, [done, user_data, pack, failure](const HostCallbacks&) {
                done(user_data, pack.c_str(), failure.code(), failure.message().c_str());
            });
        });
    return ok(error);
}

namespace {

// The version a check asks for when no push named one: whatever is newest.
constexpr const char* kAnyConfigVersion = "0";

// One ferritcore_update_now(): counts the packs still updating and keeps the first failure, so
// that the last pack to end tells the host the whole result.
struct UpdateNowRun {
    std::shared_ptr<EmbedProxy> proxy;
    uint64_t generation = 0;
    ferritcore_update_callback done = nullptr;
    void* userData = nullptr;
    Mutex mutex;
    size_t pending GUARDED_BY(mutex) = 0;
    Error firstFailure GUARDED_BY(mutex);

    void tell(std::string pack, const Error& result) const {
        if (done == nullptr) return;
        proxy->deliverTo(generation, [done = done, userData = userData, pack = std::move(pack),
                                      result](const HostCallbacks&) {
            done(userData, pack.empty() ? nullptr : pack.c_str(), result.code(),
                 result.message().c_str());
        });
    }

    void packEnded(const std::string& pack, const Error& result) {
        tell(pack, result);
        Error end;
        {
            MutexLock lock(mutex);
            if (result && !firstFailure) firstFailure = result;
            if (--pending > 0) return;
            end = firstFailure;
        }
        tell({}, end);
    }
};

// The packs whose configured version is not the one installed, as the configuration in force
// says now.
std::vector<std::string> packsBehind() {
    std::vector<std::string> names;
    for (const auto& [name, pack] : SCache::current()->packs()) {
        if (pack->seq != pack->installedSeq) names.push_back(name);
    }
    return names;
}

}  // namespace

ferritcore_status ferritcore_update_now(ferritcore_handle* handle, ferritcore_update_callback done,
                                        void* user_data, ferritcore_error* error) {
    std::shared_ptr<EmbedProxy> proxy = openProxy(handle, error);
    if (!proxy) return FERRITCORE_E_CLOSED;
    auto run = std::make_shared<UpdateNowRun>();
    run->proxy = proxy;
    run->generation = proxy->generation();
    run->done = done;
    run->userData = user_data;
    // A host's "now" is the developer tool's: the check skips the pause between checks.
    UpdateConfig::instance().start(
        kTriggerDebugTool, kAnyConfigVersion,
        [run](const Error& failure) {
            if (failure) {
                run->tell({}, failure);
                return;
            }
            const std::vector<std::string> names = packsBehind();
            if (names.empty()) {
                run->tell({}, Error());
                return;
            }
            {
                MutexLock lock(run->mutex);
                run->pending = names.size();
            }
            for (const std::string& name : names) {
                UpdateQueue::request(name, kTriggerVisit, [run, name](const Error& result) {
                    run->packEnded(name, result);
                });
            }
        },
        0);
    return ok(error);
}

char* ferritcore_status_report(ferritcore_handle* handle, ferritcore_error* error) {
    if (!openProxy(handle, error)) return nullptr;
    const std::string status = Setup::statusReport().toString();
    char* copy = static_cast<char*>(std::malloc(status.size() + 1));
    if (copy == nullptr) {
        report(error, FERRITCORE_E_INVALID_ARGUMENT, "out of memory");
        return nullptr;
    }
    std::memcpy(copy, status.c_str(), status.size() + 1);
    ok(error);
    return copy;
}

void ferritcore_free_text(char* text) {
    std::free(text);
}

ferritcore_status ferritcore_set_network(ferritcore_handle* handle, ferritcore_network network,
                                         ferritcore_error* error) {
    if (!openProxy(handle, error)) return FERRITCORE_E_CLOSED;
    if (network < FERRITCORE_NETWORK_UNRESTRICTED || network > FERRITCORE_NETWORK_FAST_MOBILE)
        return report(error, FERRITCORE_E_INVALID_ARGUMENT, "network is out of range");
    Setup::setNetworkStatus(libraryNetwork(network));
    return ok(error);
}

ferritcore_status ferritcore_set_locale(ferritcore_handle* handle, const char* locale,
                                        ferritcore_error* error) {
    if (!openProxy(handle, error)) return FERRITCORE_E_CLOSED;
    Setup::setLocale(text(locale));
    return ok(error);
}

ferritcore_status ferritcore_set_log_level(ferritcore_handle* handle, ferritcore_log_level level,
                                           ferritcore_error* error) {
    if (!openProxy(handle, error)) return FERRITCORE_E_CLOSED;
    if (!validLevel(level))
        return report(error, FERRITCORE_E_INVALID_ARGUMENT, "level is out of range");
    MarlLogger::Log::setLevel(libraryLevel(level));
    return ok(error);
}
