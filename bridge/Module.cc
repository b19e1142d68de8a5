// The native module "ferritcore": its registration, Init, and the eighteen natives. Every native
// runs on the script thread; those marked "async" copy their arguments and hand the work to the
// engine's work pool. A missing or mistyped required argument makes a native return undefined
// (false for setProxyNative) with no effect; setProxyNative also returns false for a host object
// that carries no usable publisher's key and does not opt out of signature checks.
//
// Beside the eighteen, under registered symbols so that the module's own names stay theirs:
// Symbol.for("ferritcore.inspect") (the inspector, behind the queued lifecycle natives), "hostKey"
// (the key check of the package's entry point), "whenReady" (a callback once the lifecycle natives
// queued before it have run), "wantRecords" (performance records to the host object's
// sendEvent), "logTo" and "logLevel" (the log to a script function, and its level),
// "resourceSync" (getResourceSyncNative for the package's entry point, which reads the request and
// builds the response object in script), and "requestFields" (the compiled request reader itself,
// a function value, so that the package reads a request exactly as the addon does).
#include <node_api.h>

#include <charconv>
#include <cstdio>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "access/AppRoot.h"
#include "base/Environment.h"
#include "base/Errors.h"
#include "base/LogTags.h"
#include "base/ProcessState.h"
#include "base/Telemetry.h"
#include "bridge/BridgeProxy.h"
#include "bridge/HostKey.h"
#include "bridge/HostLog.h"
#include "bridge/HostValues.h"
#include "bridge/Napi.h"
#include "ferritcore/Access.h"
#include "ferritcore/AccessApi.h"
#include "lifecycle/Setup.h"
#include "marl/Inspector.h"
#include "marl/Json.h"
#include "marl/Log.h"
#include "runtime/Settings.h"
#include "storage/Variants.h"
#include "support/Mutex.h"
#include "update/Preload.h"
#include "update/UpdateQueue.h"

namespace FerritCore {
namespace {

using MarlLogger::json::JSON;

// What the system log of Init is told, as the platform's log would file it.
constexpr int kInitLogLevel = 6;
constexpr int kInitLogDomain = 21078;
// Preload packs that the host asks for are installed even when an installed copy looks current.
constexpr int kPreloadForce = 1;

// The process-wide state of the bridge: whether the proxy was set, and the host's bridge object.
struct BridgeState {
    Mutex mutex;
    bool proxySet GUARDED_BY(mutex) = false;
    std::shared_ptr<NAPI::Bridge> bridge GUARDED_BY(mutex);
};

BridgeState& state() {
    static BridgeState* const instance = ProcessState::create<BridgeState>([](BridgeState& s) {
        MutexLock lock(s.mutex);
        s.proxySet = false;
        s.bridge.reset();
    });
    return *instance;
}

std::shared_ptr<NAPI::Bridge> currentBridge() {
    MutexLock lock(state().mutex);
    return state().bridge;
}

// The lifecycle natives run on the work pool one after another, in the order the host called
// them: setup must find the proxy, the folders and the stored configuration that an earlier
// setProxyNative is still putting in place, not race it on another thread of the pool.
struct SerialQueue {
    Mutex mutex;
    std::deque<std::function<void()>> tasks GUARDED_BY(mutex);
    bool draining GUARDED_BY(mutex) = false;
};

SerialQueue& serialQueue() {
    static SerialQueue* const instance = ProcessState::create<SerialQueue>([](SerialQueue& q) {
        MutexLock lock(q.mutex);
        q.tasks.clear();
        q.draining = false;
    });
    return *instance;
}

void drainSerial() {
    SerialQueue& queue = serialQueue();
    for (;;) {
        std::function<void()> task;
        {
            MutexLock lock(queue.mutex);
            if (queue.tasks.empty()) {
                queue.draining = false;
                return;
            }
            task = std::move(queue.tasks.front());
            queue.tasks.pop_front();
        }
        task();
    }
}

// Queues `task` behind the lifecycle work already queued; the first of a run starts a drain on the
// work pool.
void postSerial(napi_env env, std::function<void()> task) {
    SerialQueue& queue = serialQueue();
    {
        MutexLock lock(queue.mutex);
        queue.tasks.push_back(std::move(task));
        if (queue.draining) return;
        queue.draining = true;
    }
    if (!NAPI::postAsyncTask(env, drainSerial)) drainSerial();
}

napi_value undefinedOf(napi_env env) {
    return NAPI::undefined(env);
}

// ---- 1

napi_value setProxyNative(napi_env env, napi_callback_info info) {
    // One more than needed, to tell three arguments from four.
    const std::vector<napi_value> args = NAPI::getArgs(env, info, 4);
    std::optional<std::string> root =
        args.size() == 3 ? NAPI::toString(env, args[1]) : std::nullopt;
    if (!root) return NAPI::toBool(env, false);
    {
        MutexLock lock(state().mutex);
        if (state().proxySet) return NAPI::toBool(env, true);
    }
    if (!NAPI::isObject(env, args[0])) return NAPI::toBool(env, false);
    // Nothing opens unless the host says whose signatures to trust, or says explicitly that it
    // trusts everything (the package's entry point turns these refusals into errors with words).
    HostKey hostKey = readHostKey(env, args[0]);
    if (!hostKey.opens()) {
        MarlLogger::LogBuilder(MarlLogger::MRLLevelError, LogTag::kBridge)
            .event("setProxy")
            .append("publicKey", hostKeyStateName(hostKey.state))
            .append("reason", hostKey.reason);
        return NAPI::toBool(env, false);
    }
    std::shared_ptr<NAPI::Bridge> bridge = NAPI::Bridge::create(env, args[0]);
    if (!bridge) return NAPI::toBool(env, false);
    // The raw-file folder stands in for the resource manager; anything but a string is none.
    const std::string rawFiles = NAPI::toString(env, args[2]).value_or(std::string());
    if (hostKey.state == HostKey::State::Insecure) {
        MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kBridge)
            .event("setProxy")
            .append("publicKey", hostKeyStateName(hostKey.state))
            .append("reason", "insecureNoSignatureCheck: no signature is checked");
    }
    auto proxy = std::make_shared<BridgeProxy>(bridge, rawFiles, std::move(hostKey.key));
    {
        MutexLock lock(state().mutex);
        if (state().proxySet) return NAPI::toBool(env, true);
        state().proxySet = true;
        state().bridge = bridge;
    }
    // The core reads raw files through the proxy, so no folder is handed to setProxy itself.
    postSerial(env, [proxy, root = std::move(*root)] { Setup::setProxy(proxy, root); });
    return NAPI::toBool(env, true);
}

// ---- 2

napi_value onSendRequestFinishedNative(napi_env env, napi_callback_info info) {
    const std::vector<napi_value> args = NAPI::getArgs(env, info, 3);
    if (args.size() < 2) return undefinedOf(env);
    const std::optional<std::string> idText = NAPI::toString(env, args[0]);
    if (!idText) return undefinedOf(env);
    uint64_t id = 0;
    const char* end = idText->data() + idText->size();
    auto [last, parsed] = std::from_chars(idText->data(), end, id);
    if (parsed != std::errc() || last != end || id == 0) return undefinedOf(env);
    std::unique_ptr<PendingRequest> pending = BridgeProxy::takePending(id);
    if (!pending) return undefinedOf(env);
    auto response =
        std::make_shared<ProxyResponse>(decodeProxyResponse(env, args[1], pending->wantHeaders));
    Error error = args.size() >= 3 ? decodeProxyError(env, args[2]) : Error();
    // A status that no HTTP response has is the host's failure, told as it gave it rather than
    // cut to 16 bits (-1 would read 65535).
    if (!error) {
        error = checkProxyStatus(env, args[1]);
        if (error) *response = ProxyResponse();
    }
    auto completion = std::make_shared<ProxyCompletion>(std::move(pending->completion));
    const auto finish = [completion, response, error] {
        (*completion)(std::move(*response), error);
    };
    if (!NAPI::postAsyncTask(env, finish)) finish();
    return undefinedOf(env);
}

// ---- 3 to 6: settings of the host, on the script thread.

// The script's number as a network status. A number the library does not know is kept as it is:
// it is logged, and nothing downloads until the host names a known network.
NetworkStatus networkStatusFromScript(int32_t value) {
    return static_cast<NetworkStatus>(static_cast<uint32_t>(value));
}

// The script's setup mode: bit 0 set, the host starts updating itself; the other bits mean nothing.
SetupMode setupModeFromScript(int32_t mode) {
    return (mode & 1) != 0 ? SetupMode::kHostStartsUpdate : SetupMode::kAutoUpdate;
}

napi_value setEnvNative(napi_env env, napi_callback_info info) {
    const std::vector<napi_value> args = NAPI::getArgs(env, info, 1);
    if (args.empty()) return undefinedOf(env);
    if (std::optional<int32_t> value = NAPI::toInt32(env, args[0])) Setup::setEnv(*value);
    return undefinedOf(env);
}

napi_value setLocaleNative(napi_env env, napi_callback_info info) {
    const std::vector<napi_value> args = NAPI::getArgs(env, info, 1);
    Setup::setLocale(args.empty() ? std::string()
                                  : NAPI::toString(env, args[0]).value_or(std::string()));
    return undefinedOf(env);
}

napi_value setDefaultConfigNative(napi_env env, napi_callback_info info) {
    const std::vector<napi_value> args = NAPI::getArgs(env, info, 1);
    if (args.empty() || !NAPI::isObject(env, args[0])) return undefinedOf(env);
    JSON object = JSON(MarlLogger::json::JSONObject());
    // "channel": the publisher's channel whose configuration the host reads.
    for (const char* key :
         {"configPrefixRelease", "zipPrefixRelease", "ACacheZipPrefixRelease", "configPrefixDebug",
          "configPrefixDaily", "zipPrefixDaily", "channel"}) {
        if (std::optional<std::string> text =
                NAPI::toString(env, NAPI::getProperty(env, args[0], key)))
            object.set(key, std::move(*text));
    }
    if (std::optional<double> interval =
            NAPI::toDouble(env, NAPI::getProperty(env, args[0], "configUpdateInterval")))
        object.set("configUpdateInterval", *interval);
    Settings::setDefaults(HostDefaults::fromJSON(object));
    return undefinedOf(env);
}

napi_value setNetworkStatusNative(napi_env env, napi_callback_info info) {
    const std::vector<napi_value> args = NAPI::getArgs(env, info, 1);
    if (args.empty()) return undefinedOf(env);
    if (std::optional<int32_t> value = NAPI::toInt32(env, args[0]))
        Setup::setNetworkStatus(networkStatusFromScript(*value));
    return undefinedOf(env);
}

// ---- 7 to 12: handed to the work pool.

napi_value registerAcceptNative(napi_env env, napi_callback_info info) {
    const std::vector<napi_value> args = NAPI::getArgs(env, info, 3);
    if (args.size() < 3) return undefinedOf(env);
    std::vector<std::string> texts;
    for (napi_value arg : args) {
        std::optional<std::string> text = NAPI::toString(env, arg);
        if (!text || text->empty()) return undefinedOf(env);
        texts.push_back(std::move(*text));
    }
    postSerial(env, [texts = std::move(texts)] {
        Variants::instance().registerAccept(texts[0], texts[1], texts[2]);
    });
    return undefinedOf(env);
}

napi_value setupNative(napi_env env, napi_callback_info info) {
    const std::vector<napi_value> args = NAPI::getArgs(env, info, 3);
    if (args.size() < 3) return undefinedOf(env);
    std::optional<std::string> appKey = NAPI::toString(env, args[0]);
    std::optional<std::string> appVersion = NAPI::toString(env, args[1]);
    const std::optional<int32_t> mode = NAPI::toInt32(env, args[2]);
    if (!appKey || !appVersion || !mode) return undefinedOf(env);
    postSerial(env,
               [appKey = std::move(*appKey), appVersion = std::move(*appVersion),
                mode = setupModeFromScript(*mode)] { Setup::setup(appKey, appVersion, mode); });
    return undefinedOf(env);
}

napi_value startUpdateNative(napi_env env, napi_callback_info) {
    postSerial(env, [] { Setup::startUpdate(); });
    return undefinedOf(env);
}

napi_value clientActivedNative(napi_env env, napi_callback_info) {
    postSerial(env, [] { Setup::clientActived(); });
    return undefinedOf(env);
}

napi_value clientDeactivedNative(napi_env env, napi_callback_info) {
    postSerial(env, [] { Setup::clientDeactived(); });
    return undefinedOf(env);
}

napi_value installPreloadNative(napi_env env, napi_callback_info info) {
    const std::vector<napi_value> args = NAPI::getArgs(env, info, 1);
    if (args.empty()) return undefinedOf(env);
    std::optional<std::string> name = NAPI::toString(env, args[0]);
    if (!name) return undefinedOf(env);
    postSerial(env, [name = std::move(*name)] {
        MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kPreload)
            .event("installPreload")
            .append("name", name)
            .append("force", kPreloadForce);
        // Once per app version: the file is checked against the version that installed it last.
        static_cast<void>(Preload::instance().install(name, /*checkInstalled=*/true));
    });
    return undefinedOf(env);
}

// ---- 13

napi_value getAccessAPINative(napi_env env, napi_callback_info) {
    napi_value result = nullptr;
    const auto address =
        static_cast<uint64_t>(reinterpret_cast<uintptr_t>(ferritcore_access_api()));
    if (napi_create_bigint_uint64(env, address, &result) != napi_ok) {
        NAPI::throwLastError(env);
        return nullptr;
    }
    return result;
}

// ---- 14

napi_value prefetchNative(napi_env env, napi_callback_info info) {
    const std::vector<napi_value> args = NAPI::getArgs(env, info, 1);
    if (args.empty()) return undefinedOf(env);
    bool isArray = false;
    uint32_t length = 0;
    if (napi_is_array(env, args[0], &isArray) != napi_ok || !isArray ||
        napi_get_array_length(env, args[0], &length) != napi_ok || length == 0)
        return undefinedOf(env);
    std::vector<std::string> urls;
    urls.reserve(length);
    for (uint32_t i = 0; i < length; ++i) {
        napi_value element = nullptr;
        if (napi_get_element(env, args[0], i, &element) != napi_ok) {
            NAPI::clearException(env);
            return undefinedOf(env);
        }
        std::optional<std::string> url = NAPI::toString(env, element);
        if (!url) return undefinedOf(env);
        urls.push_back(std::move(*url));
    }
    postSerial(env, [urls = std::move(urls)] { Access::prefetch(urls); });
    return undefinedOf(env);
}

// ---- 15

napi_value updatePackNative(napi_env env, napi_callback_info info) {
    const std::vector<napi_value> args = NAPI::getArgs(env, info, 2);
    if (args.size() < 2) return undefinedOf(env);
    std::shared_ptr<NAPI::JSFunction> callback = NAPI::toFunction(env, args[1]);
    if (!callback) return undefinedOf(env);
    const PackRequest request = decodePackRequest(env, args[0]);
    UpdateQueue::request(
        request.name, kTriggerVisit, [callback, name = request.name](const Error& error) {
            callback->call([name, error](napi_env env) -> std::vector<napi_value> {
                std::shared_ptr<NAPI::Bridge> bridge = currentBridge();
                return {NAPI::toString(env, name), encodeError(env, bridge.get(), error)};
            });
        });
    return undefinedOf(env);
}

// ---- 16, 17

napi_value getResourceSyncNative(napi_env env, napi_callback_info info) {
    const std::vector<napi_value> args = NAPI::getArgs(env, info, 1);
    if (args.empty()) return undefinedOf(env);
    const ResourceRequest request = decodeRequest(env, args[0]);
    // A hit is read straight into an ArrayBuffer of the engine's.
    EngineMemory memory(env);
    std::unique_ptr<ResourceResponse> response = getResourceInto(request, memory);
    // Only an error is made by the host's object: a hit takes no lock for it.
    std::shared_ptr<NAPI::Bridge> bridge = response->error ? currentBridge() : nullptr;
    return encodeResponse(env, bridge.get(), std::move(response), &memory);
}

// ---- resourceSync(fields, slot): getResourceSyncNative for the package's entry point, which reads
// the request object with the same reader in script and builds the response object itself, so a
// hit crosses with this one call and no call back into script (see encodeHit).

napi_value resourceSyncNative(napi_env env, napi_callback_info info) {
    const std::vector<napi_value> args = NAPI::getArgs(env, info, 2);
    if (args.size() < 2 || !NAPI::isObject(env, args[1])) return undefinedOf(env);
    const ResourceRequest request = decodeRequestFields(env, args[0]);
    EngineMemory memory(env);
    std::unique_ptr<ResourceResponse> response = getResourceInto(request, memory);
    std::shared_ptr<NAPI::Bridge> bridge = response->error ? currentBridge() : nullptr;
    return encodeHit(env, bridge.get(), std::move(response), memory, args[1]);
}

napi_value getResourceNative(napi_env env, napi_callback_info info) {
    const std::vector<napi_value> args = NAPI::getArgs(env, info, 2);
    if (args.size() < 2) return undefinedOf(env);
    std::shared_ptr<NAPI::JSFunction> callback = NAPI::toFunction(env, args[1]);
    if (!callback) return undefinedOf(env);
    const ResourceRequest request = decodeRequest(env, args[0]);
    Access::getResource(request, [callback](std::unique_ptr<ResourceResponse> response) {
        // Held so that a call the engine never runs still frees the response.
        auto held = std::make_shared<std::unique_ptr<ResourceResponse>>(std::move(response));
        callback->call([held](napi_env env) -> std::vector<napi_value> {
            std::shared_ptr<NAPI::Bridge> bridge = currentBridge();
            napi_value object = encodeResponse(env, bridge.get(), std::move(*held));
            return {object != nullptr ? object : NAPI::undefined(env)};
        });
    });
    return undefinedOf(env);
}

// ---- 18

napi_value getACacheRootPathNative(napi_env env, napi_callback_info info) {
    const std::vector<napi_value> args = NAPI::getArgs(env, info, 2);
    if (args.empty()) return undefinedOf(env);
    const std::optional<std::string> name = NAPI::toString(env, args[0]);
    if (!name) return undefinedOf(env);
    const std::string path =
        args.size() >= 2 ? NAPI::toString(env, args[1]).value_or(std::string()) : std::string();
    return NAPI::toString(env, AppRoot::rootPath(*name, path));
}

// ---- The inspection channel: (command, parameters as JSON text, callback(success, data text)).

napi_value inspectNative(napi_env env, napi_callback_info info) {
    const std::vector<napi_value> args = NAPI::getArgs(env, info, 3);
    if (args.size() < 3) return undefinedOf(env);
    const std::optional<std::string> command = NAPI::toString(env, args[0]);
    const std::optional<std::string> paramsText = NAPI::toString(env, args[1]);
    std::shared_ptr<NAPI::JSFunction> callback = NAPI::toFunction(env, args[2]);
    if (!command || !paramsText || !callback) return undefinedOf(env);
    const auto reply = [callback](bool success, const JSON& data) {
        callback->call([success, text = data.toString()](napi_env env) -> std::vector<napi_value> {
            return {NAPI::toBool(env, success), NAPI::toString(env, text)};
        });
    };
    // Behind the lifecycle natives already queued: a command sent right after setupNative finds
    // the commands that setup registers, instead of racing it on the work pool.
    postSerial(env, [command = std::move(*command), params = JSON::parse(*paramsText), reply] {
        if (!MarlLogger::Inspector::sendCommand(command, params, reply)) {
            const Error error = Errors::devToolNotAvailable(command);
            reply(/*success=*/false, JSON(MarlLogger::json::JSONObject{
                                         {"code", error.code()}, {"message", error.message()}}));
        }
    });
    return undefinedOf(env);
}

// ---- whenReady(callback): callback() on the script thread once every lifecycle native queued
// before this call has run, so that a host can wait for its own start-up order.

napi_value whenReadyNative(napi_env env, napi_callback_info info) {
    std::shared_ptr<NAPI::JSFunction> callback = NAPI::toFunction(env, NAPI::firstArg(env, info));
    if (!callback) return undefinedOf(env);
    postSerial(env, [callback] { callback->call({}); });
    return undefinedOf(env);
}

// ---- wantRecords(on): while on, performance records are built and handed to the host object's
// "sendEvent"; off (the start) they are not built at all. Anything but a boolean does nothing.

napi_value wantRecordsNative(napi_env env, napi_callback_info info) {
    const std::optional<bool> on = NAPI::readBool(env, NAPI::firstArg(env, info));
    if (!on) return undefinedOf(env);
    BridgeProxy::setWantsRecords(*on);
    Environment::instance().refreshTakesEvents();
    return undefinedOf(env);
}

// ---- logTo(callback | null): the log's entries go to callback(text) on the script thread, one
// JSON text per entry, in order; null sends them back to stderr. Anything else does nothing.

napi_value logToNative(napi_env env, napi_callback_info info) {
    napi_value target = NAPI::firstArg(env, info);
    napi_valuetype type = napi_undefined;
    if (napi_typeof(env, target, &type) != napi_ok) return undefinedOf(env);
    if (type == napi_null) {
        HostLogSink::restoreStderr();
    } else if (type == napi_function) {
        HostLogSink::install(env, target);
    }
    return undefinedOf(env);
}

// ---- logLevel(level?) -> number: entries of this level and more severe ones are written (1 the
// most severe, 5 the most verbose); a number sets it, and the level in force is the answer.

napi_value logLevelNative(napi_env env, napi_callback_info info) {
    if (const std::optional<int32_t> level = NAPI::toInt32(env, NAPI::firstArg(env, info)))
        MarlLogger::Log::setLevel(*level);
    return NAPI::toInt32(env, MarlLogger::Log::level());
}

// ---- The check of a host object's key, for the package's entry point: (host) -> {state, reason}.

napi_value hostKeyNative(napi_env env, napi_callback_info info) {
    const std::vector<napi_value> args = NAPI::getArgs(env, info, 1);
    const HostKey hostKey = args.empty() ? HostKey() : readHostKey(env, args[0]);
    napi_value result = nullptr;
    if (napi_create_object(env, &result) != napi_ok ||
        napi_set_named_property(env, result, "state",
                                NAPI::toString(env, hostKeyStateName(hostKey.state))) != napi_ok ||
        napi_set_named_property(env, result, "reason", NAPI::toString(env, hostKey.reason)) !=
            napi_ok) {
        NAPI::throwLastError(env);
        return nullptr;
    }
    return result;
}

// Defines `value` on the exports under the registered symbol `key`, so that the module's own
// names stay the eighteen natives. Failures leave the property out.
void defineSymbolValue(napi_env env, napi_value exports, const char* key, napi_value value) {
    napi_value global = nullptr, symbolObject = nullptr, symbolFor = nullptr, symbol = nullptr;
    napi_value keyName = NAPI::toString(env, key);
    if (value != nullptr && keyName != nullptr && napi_get_global(env, &global) == napi_ok &&
        (symbolObject = NAPI::getProperty(env, global, "Symbol")) != nullptr &&
        (symbolFor = NAPI::getProperty(env, symbolObject, "for")) != nullptr &&
        napi_call_function(env, symbolObject, symbolFor, 1, &keyName, &symbol) == napi_ok) {
        const napi_property_descriptor property = {nullptr, symbol, nullptr,      nullptr,
                                                   nullptr, value,  napi_default, nullptr};
        napi_define_properties(env, exports, 1, &property);
    }
    NAPI::clearException(env);
}

void defineSymbolMethod(napi_env env, napi_value exports, const char* key, const char* name,
                        napi_callback callback) {
    napi_value function = nullptr;
    if (napi_create_function(env, name, NAPI_AUTO_LENGTH, callback, nullptr, &function) != napi_ok)
        function = nullptr;
    defineSymbolValue(env, exports, key, function);
}

napi_value Init(napi_env env, napi_value exports) {
    // The order is part of the interface.
    const napi_property_descriptor natives[] = {
        NAPI::method("setProxyNative", setProxyNative),
        {"onSendRequestFinishedNative", nullptr, onSendRequestFinishedNative, nullptr, nullptr,
         nullptr, napi_default_method, nullptr},
        NAPI::method("setEnvNative", setEnvNative),
        NAPI::method("setLocaleNative", setLocaleNative),
        NAPI::method("setDefaultConfigNative", setDefaultConfigNative),
        NAPI::method("setNetworkStatusNative", setNetworkStatusNative),
        NAPI::method("registerAcceptNative", registerAcceptNative),
        NAPI::method("setupNative", setupNative),
        NAPI::method("startUpdateNative", startUpdateNative),
        NAPI::method("clientActivedNative", clientActivedNative),
        NAPI::method("clientDeactivedNative", clientDeactivedNative),
        NAPI::method("installPreloadNative", installPreloadNative),
        NAPI::method("getAccessAPINative", getAccessAPINative),
        NAPI::method("prefetchNative", prefetchNative),
        NAPI::method("updatePackNative", updatePackNative),
        NAPI::method("getResourceSyncNative", getResourceSyncNative),
        NAPI::method("getResourceNative", getResourceNative),
        NAPI::method("getACacheRootPathNative", getACacheRootPathNative),
    };
    static_assert(std::size(natives) == 18, "the module has eighteen natives");
    if (napi_define_properties(env, exports, std::size(natives), natives) != napi_ok) {
        std::fprintf(stderr, "[%d] level %d Init: napi_define_properties failed\n", kInitLogDomain,
                     kInitLogLevel);
        NAPI::clearException(env);
        return exports;
    }
    // The inspection channel is the logging library's door and the key check the entry point's,
    // neither one of the natives.
    defineSymbolMethod(env, exports, "ferritcore.inspect", "inspect", inspectNative);
    defineSymbolMethod(env, exports, "ferritcore.hostKey", "hostKey", hostKeyNative);
    defineSymbolMethod(env, exports, "ferritcore.whenReady", "whenReady", whenReadyNative);
    defineSymbolMethod(env, exports, "ferritcore.wantRecords", "wantRecords", wantRecordsNative);
    defineSymbolMethod(env, exports, "ferritcore.logTo", "logTo", logToNative);
    defineSymbolMethod(env, exports, "ferritcore.logLevel", "logLevel", logLevelNative);
    defineSymbolMethod(env, exports, "ferritcore.resourceSync", "resourceSync", resourceSyncNative);
    // The package's side of that door reads a request with the reader this side uses.
    defineSymbolValue(env, exports, "ferritcore.requestFields", requestFieldsReader(env));
    return exports;
}

napi_module moduleRecord = {
    NAPI_MODULE_VERSION,
    0,
    __FILE__,
    Init,
    "ferritcore",
    nullptr,
    {nullptr, nullptr, nullptr, nullptr},
};

// Registers the module while the library loads, before the engine asks for it.
[[gnu::constructor]] void registerModule() {
    napi_module_register(&moduleRecord);
}

}  // namespace
}  // namespace FerritCore
