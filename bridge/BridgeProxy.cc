#include "bridge/BridgeProxy.h"

#include "bridge/HostValues.h"

#include <atomic>
#include <charconv>
#include <cmath>
#include <cstdio>

#include "base/AssetProvider.h"
#include "base/Errors.h"
#include "base/LogTags.h"
#include "base/ProcessState.h"
#include "base/Telemetry.h"
#include "lifecycle/Setup.h"
#include "marl/Log.h"

namespace FerritCore {
namespace {

struct PendingSet {
    Mutex mutex;
    std::unordered_set<PendingRequest*> live GUARDED_BY(mutex);
};

PendingSet& pendingSet() {
    // Records still in flight at a reset are the host's to answer; the set only forgets them.
    static PendingSet* const instance = ProcessState::create<PendingSet>([](PendingSet& set) {
        MutexLock lock(set.mutex);
        set.live.clear();
    });
    return *instance;
}

// Fails a request that never reached the host, with `error`, which says why. Runs on the script
// thread, so the completion is handed to the work pool like every other completion of a host
// request.
void failRequest(napi_env env, ProxyCompletion completion, const Error& error) {
    auto shared = std::make_shared<ProxyCompletion>(std::move(completion));
    if (!NAPI::postAsyncTask(env, [shared, error] { (*shared)(ProxyResponse(), error); }))
        (*shared)(ProxyResponse(), error);
}

// The engine's own words for a conversion that failed.
Error conversionFailed(napi_env env, std::string_view what) {
    std::string cause(what);
    const std::string text = NAPI::takeExceptionText(env);
    if (!text.empty()) cause.append(": ").append(text);
    return Errors::napiFailed(cause);
}

// Whether the host listens for performance records: off until it says otherwise.
std::atomic<bool> wantsRecords{false};

// The lowest and highest status codes that an HTTP response can have.
constexpr double kFirstHttpStatus = 100;
constexpr double kLastHttpStatus = 599;

bool setProperty(napi_env env, napi_value object, const char* key, napi_value value) {
    return value != nullptr && napi_set_named_property(env, object, key, value) == napi_ok;
}

// The record as the host object's "sendEvent" receives it: {name, dimensions, measures}. Null with
// the engine's error raised on failure.
napi_value encodeRecord(napi_env env, const std::string& name,
                        const PerfRecord::Dimensions& dimensions,
                        const PerfRecord::Measures& measures) {
    napi_value object = nullptr, dimensionObject = nullptr, measureObject = nullptr;
    if (napi_create_object(env, &object) != napi_ok ||
        napi_create_object(env, &dimensionObject) != napi_ok ||
        napi_create_object(env, &measureObject) != napi_ok) {
        NAPI::throwLastError(env);
        return nullptr;
    }
    for (const auto& [key, value] : dimensions) {
        if (!setProperty(env, dimensionObject, key.c_str(), NAPI::toString(env, value)))
            return nullptr;
    }
    for (const auto& [key, value] : measures) {
        if (!setProperty(env, measureObject, key.c_str(), NAPI::toNumber(env, value)))
            return nullptr;
    }
    if (!setProperty(env, object, "name", NAPI::toString(env, name)) ||
        !setProperty(env, object, "dimensions", dimensionObject) ||
        !setProperty(env, object, "measures", measureObject))
        return nullptr;
    return object;
}

}  // namespace

BridgeProxy::BridgeProxy(std::shared_ptr<NAPI::Bridge> bridge, const std::string& rawFileFolder,
                         std::shared_ptr<const Ed25519PublicKey> publicKey)
    : bridge_(std::move(bridge)), publicKey_(std::move(publicKey)) {
    if (!rawFileFolder.empty()) rawFiles_ = std::make_unique<RawFileProvider>(rawFileFolder);
}

BridgeProxy::~BridgeProxy() = default;

void BridgeProxy::sendRequest(const ProxyRequest& request, ProxyCompletion completion) {
    if (!completion) return;
    auto shared = std::make_shared<ProxyCompletion>(std::move(completion));
    std::shared_ptr<NAPI::Bridge> bridge = bridge_;
    const bool posted = bridge->postJSTask([bridge, request, shared](napi_env env) {
        napi_value object = encodeProxyRequest(env, request);
        if (object == nullptr) {
            failRequest(env, std::move(*shared),
                        conversionFailed(env, "the request object could not be made"));
            return;
        }
        auto pending = std::make_unique<PendingRequest>();
        pending->completion = std::move(*shared);
        pending->wantHeaders = request.wantHeaders;
        const std::string id = std::to_string(
            static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(pending.get())));
        napi_value idValue = NAPI::toString(env, id);
        if (idValue == nullptr) {
            failRequest(env, std::move(pending->completion),
                        conversionFailed(env, "the request id could not be made"));
            return;
        }
        PendingRequest* const sent = pending.get();
        {
            PendingSet& set = pendingSet();
            MutexLock lock(set.mutex);
            set.live.insert(pending.release());
        }
        // A host without the method, or whose method threw, will never answer: the request fails
        // now rather than waiting for ever, with what the host threw.
        std::string failure;
        if (bridge->invoke("sendRequest", {object, idValue}, &failure) == nullptr) {
            std::unique_ptr<PendingRequest> unsent =
                takePending(static_cast<uint64_t>(reinterpret_cast<uintptr_t>(sent)));
            if (unsent)
                failRequest(env, std::move(unsent->completion), Errors::napiFailed(failure));
        }
    });
    // The script side is gone (the host is shutting down): the request fails in transport.
    if (!posted)
        (*shared)(ProxyResponse(), Errors::napiFailed("the host's script thread is shutting down"));
}

std::unique_ptr<PendingRequest> BridgeProxy::takePending(uint64_t id) {
    if (id == 0) return nullptr;
    auto* pending = reinterpret_cast<PendingRequest*>(static_cast<uintptr_t>(id));
    PendingSet& set = pendingSet();
    MutexLock lock(set.mutex);
    if (set.live.erase(pending) == 0) return nullptr;
    return std::unique_ptr<PendingRequest>(pending);
}

size_t BridgeProxy::pendingCount() {
    PendingSet& set = pendingSet();
    MutexLock lock(set.mutex);
    return set.live.size();
}

bool BridgeProxy::verifySignature(const std::string& md5Hex, const std::string& signature) {
    if (publicKey_ == nullptr) return true;
    return verifyWithPublisherKey(*publicKey_, md5Hex, signature, LogTag::kBridge);
}

void BridgeProxy::setWantsRecords(bool wants) {
    wantsRecords.store(wants, std::memory_order_release);
}

bool BridgeProxy::takesEvents() const {
    return wantsRecords.load(std::memory_order_acquire);
}

void BridgeProxy::sendEvent(const PerfRecord& record) {
    if (!takesEvents()) return;
    callHost("sendEvent",
             [name = record.name(), dimensions = record.dimensions(),
              measures = record.measures()](napi_env env) -> std::vector<napi_value> {
                 napi_value object = encodeRecord(env, name, dimensions, measures);
                 if (object == nullptr) return {};
                 return {object};
             });
}

void BridgeProxy::onQueueFinished(uint32_t count) {
    callHost("onQueueFinished", [count](napi_env env) -> std::vector<napi_value> {
        return {NAPI::toNumber(env, count)};
    });
}

void BridgeProxy::onPackUpdated(const std::string& name) {
    callHost("onPackUpdated", [name](napi_env env) -> std::vector<napi_value> {
        return {NAPI::toString(env, name)};
    });
}

void BridgeProxy::onStateChanged() {
    MutexLock lock(stateMutex_);
    callHost("onStateChanged",
             [report = Setup::statusReport().toString()](napi_env env) -> std::vector<napi_value> {
                 return {NAPI::toString(env, report)};
             });
}

void BridgeProxy::callHost(const char* method, NAPI::ArgumentBuilder builder) {
    std::shared_ptr<NAPI::Bridge> bridge = bridge_;
    // Dropped when the script side is going away: nobody is left to hear it.
    bridge->postJSTask([bridge, method, builder = std::move(builder)](napi_env env) {
        if (!bridge->hasMethod(method)) return;
        std::vector<napi_value> arguments = builder(env);
        std::string failure;
        if (arguments.empty()) {
            failure = NAPI::takeExceptionText(env);
            failure = std::string("the arguments of ") + method + " could not be made" +
                      (failure.empty() ? std::string() : ": " + failure);
        } else if (bridge->invoke(method, arguments, &failure) != nullptr) {
            return;
        }
        // What the host's own listener threw is the host's to fix; it is said once per call.
        MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kBridge)
            .event("hostMethod")
            .append("method", method)
            .append("reason", failure);
    });
}

bool BridgeProxy::assetExists(const std::string& path) {
    return rawFiles_ != nullptr && rawFiles_->hasAsset(path);
}

std::vector<std::string> BridgeProxy::assetList(const std::string& path) {
    if (rawFiles_ == nullptr) return {};
    return rawFiles_->listAsset(path);
}

uint64_t BridgeProxy::assetSize(const std::string& path) {
    return rawFiles_ == nullptr ? 0 : rawFiles_->assetSize(path);
}

std::string BridgeProxy::assetDiskPath() const {
    return rawFiles_ == nullptr ? std::string() : rawFiles_->folder();
}

std::string BridgeProxy::assetRead(const std::string& path, Error& error) {
    if (rawFiles_ == nullptr) {
        error = Errors::resourceManagerNotFound();
        return {};
    }
    return rawFiles_->readAsset(path, error);
}

napi_value encodeProxyRequest(napi_env env, const ProxyRequest& request) {
    napi_value object = nullptr;
    if (napi_create_object(env, &object) != napi_ok) {
        NAPI::throwLastError(env);
        return nullptr;
    }
    if (!setProperty(env, object, "url", NAPI::toString(env, request.url))) return nullptr;
    if (request.timeout != 0 &&
        !setProperty(env, object, "timeout", NAPI::toInt32(env, request.timeout)))
        return nullptr;
    if (!request.tempFilePath.empty() &&
        !setProperty(env, object, "tempFilePath", NAPI::toString(env, request.tempFilePath)))
        return nullptr;
    if (!request.header.empty()) {
        napi_value header = nullptr;
        if (napi_create_object(env, &header) != napi_ok) {
            NAPI::throwLastError(env);
            return nullptr;
        }
        for (const auto& [name, value] : request.header) {
            if (!setProperty(env, header, name.c_str(), NAPI::toString(env, value))) return nullptr;
        }
        if (!setProperty(env, object, "header", header)) return nullptr;
    }
    return object;
}

ProxyResponse decodeProxyResponse(napi_env env, napi_value value, bool wantHeaders) {
    ProxyResponse response;
    response.statusCode = 200;
    if (!NAPI::isObject(env, value)) return response;
    if (std::optional<int32_t> status =
            NAPI::toInt32(env, NAPI::getProperty(env, value, "statusCode")))
        response.statusCode = static_cast<uint16_t>(*status);
    napi_value header = NAPI::getProperty(env, value, "header");
    if (NAPI::isObject(env, header)) {
        if (wantHeaders) {
            response.header = readStringMembers(env, header);
        } else if (std::optional<std::string> length =
                       NAPI::toString(env, NAPI::getProperty(env, header, "content-length"));
                   length && !length->empty()) {
            response.header["Content-Length"] = std::move(*length);
        }
    }
    if (std::optional<std::string> content =
            NAPI::toData(env, NAPI::getProperty(env, value, "content")))
        response.content = std::move(*content);
    return response;
}

Error checkProxyStatus(napi_env env, napi_value value) {
    const std::optional<double> status =
        NAPI::toDouble(env, NAPI::getProperty(env, value, "statusCode"));
    if (!status || (*status >= kFirstHttpStatus && *status <= kLastHttpStatus &&
                    std::trunc(*status) == *status))
        return Error();
    // Shown as the host gave it: a whole number as one, anything else as the engine would print it.
    char text[64];
    if (std::isfinite(*status) && std::trunc(*status) == *status && std::fabs(*status) < 1e15)
        std::snprintf(text, sizeof(text), "%.0f", *status);
    else
        std::snprintf(text, sizeof(text), "%g", *status);
    return Errors::hostInvalidStatus(text);
}

Error decodeProxyError(napi_env env, napi_value value) {
    if (!NAPI::isObject(env, value)) return Error();
    const std::optional<int32_t> code = NAPI::toInt32(env, NAPI::getProperty(env, value, "code"));
    std::optional<std::string> message =
        NAPI::toString(env, NAPI::getProperty(env, value, "message"));
    if (!code || *code == 0 || !message) return Error();
    return Error(*code, std::move(*message));
}

}  // namespace FerritCore
