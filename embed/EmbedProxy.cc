#include "embed/EmbedProxy.h"

#include <strings.h>

#include <vector>

#include "base/Errors.h"
#include "base/LogTags.h"
#include "base/ProcessState.h"
#include "base/Telemetry.h"
#include "lifecycle/Setup.h"
#include "marl/Json.h"
#include "runtime/TaskRunner.h"

namespace FerritCore {
namespace {

using MarlLogger::json::JSON;
using MarlLogger::json::JSONObject;

// The name of the thread that calls the host (Linux keeps 15 bytes).
constexpr const char* kDeliveryName = "ferrit.host";
// The header the core reads the body's length from when it wants no other header.
constexpr const char* kContentLength = "Content-Length";
// The core counts a request's timeout in seconds; the host is told milliseconds.
constexpr int32_t kMillisecondsPerSecond = 1000;

// How deep the calling thread is inside callbacks to the host.
thread_local int callbackDepth = 0;

std::string recordText(const PerfRecord& record) {
    JSONObject dimensions, measures;
    for (const auto& [key, value] : record.dimensions()) dimensions.set(key, JSON(value));
    for (const auto& [key, value] : record.measures()) measures.set(key, JSON(value));
    return JSON(JSONObject{{"name", JSON(record.name())},
                           {"dimensions", JSON(std::move(dimensions))},
                           {"measures", JSON(std::move(measures))}})
        .toString();
}

}  // namespace

TaskRunner& EmbedProxy::deliveries() {
    // Made on first use with the mode of the process's runner, so that a process whose runner is
    // driven by hand drives the host's callbacks by hand too; what is queued at a reset is dropped.
    static TaskRunner* const runner = [] {
        auto* made = new TaskRunner(kDeliveryName, TaskRunner::shared().mode());
        ProcessState::onReset([made] { made->dropTasks(); });
        return made;
    }();
    return *runner;
}

bool EmbedProxy::inCallback() {
    return callbackDepth > 0;
}

void EmbedProxy::attach(const HostCallbacks& callbacks,
                        std::shared_ptr<const Ed25519PublicKey> publicKey) {
    MutexLock lock(mutex_);
    callbacks_ = callbacks;
    publicKey_ = std::move(publicKey);
    attached_ = true;
    ++generation_;
}

void EmbedProxy::detach() {
    std::map<uint64_t, Pending> abandoned;
    {
        MutexLock lock(mutex_);
        if (!attached_) return;
        attached_ = false;
        ++generation_;
        callbacks_ = HostCallbacks();
        publicKey_.reset();
        // A callback on another thread finishes before the host may free what it gave.
        ++detachesWaiting_;
        while (running_ > 0) idle_.wait(mutex_);
        --detachesWaiting_;
        abandoned.swap(pending_);
    }
    for (auto& [id, pending] : abandoned)
        pending.completion(ProxyResponse(), Errors::hostFailed("the host closed the library"));
}

bool EmbedProxy::attached() const {
    MutexLock lock(mutex_);
    return attached_;
}

void EmbedProxy::deliver(std::function<void(const HostCallbacks&)> call) {
    deliverTo(generation(), std::move(call));
}

uint64_t EmbedProxy::generation() const {
    MutexLock lock(mutex_);
    return attached_ ? generation_ : 0;
}

void EmbedProxy::deliverTo(uint64_t generation, std::function<void(const HostCallbacks&)> call) {
    {
        MutexLock lock(mutex_);
        if (!attached_ || generation != generation_) return;
    }
    deliveries().postTask([self = shared_from_this(), generation, call = std::move(call)] {
        self->run(generation, call);
    });
}

void EmbedProxy::run(uint64_t generation, const std::function<void(const HostCallbacks&)>& call) {
    HostCallbacks callbacks;
    {
        MutexLock lock(mutex_);
        if (!attached_ || generation != generation_) return;
        callbacks = callbacks_;
        ++running_;
    }
    ++callbackDepth;
    call(callbacks);
    --callbackDepth;
    MutexLock lock(mutex_);
    --running_;
    idle_.signalAll();
}

void EmbedProxy::sendRequest(const ProxyRequest& request, ProxyCompletion completion) {
    if (!completion) return;
    const uint64_t id = nextId_.fetch_add(1, std::memory_order_relaxed);
    bool queued = false;
    {
        MutexLock lock(mutex_);
        if (attached_) {
            pending_.emplace(id, Pending{std::move(completion), request.wantHeaders});
            queued = true;
        }
    }
    // Not attached: nobody will send it.
    if (!queued) {
        completion(ProxyResponse(), Errors::hostFailed("no host is attached"));
        return;
    }
    deliver([self = shared_from_this(), id, request](const HostCallbacks& host) {
        if (host.onRequest == nullptr) {
            self->fail(id, Errors::hostFailed("the host has no request callback"));
            return;
        }
        std::vector<ferritcore_header> headers;
        headers.reserve(request.header.size());
        for (const auto& [name, value] : request.header)
            headers.push_back({name.c_str(), value.c_str()});
        ferritcore_request given{};
        given.id = id;
        given.url = request.url.c_str();
        given.headers = headers.data();
        given.header_count = headers.size();
        given.timeout_ms = request.timeout * kMillisecondsPerSecond;
        given.temp_file_path =
            request.tempFilePath.empty() ? nullptr : request.tempFilePath.c_str();
        given.wants_headers = request.wantHeaders ? 1 : 0;
        host.onRequest(host.userData, &given);
    });
}

bool EmbedProxy::takePending(uint64_t id, Pending& pending) {
    MutexLock lock(mutex_);
    auto it = pending_.find(id);
    if (it == pending_.end()) return false;
    pending = std::move(it->second);
    pending_.erase(it);
    return true;
}

bool EmbedProxy::answer(uint64_t id, ProxyResponse response) {
    Pending pending;
    if (!takePending(id, pending)) return false;
    if (!pending.wantHeaders) {
        HeaderMap kept;
        for (auto& [name, value] : response.header) {
            if (strcasecmp(name.c_str(), kContentLength) == 0 && !value.empty())
                kept[kContentLength] = std::move(value);
        }
        response.header = std::move(kept);
    }
    pending.completion(std::move(response), Error());
    return true;
}

bool EmbedProxy::fail(uint64_t id, const Error& error) {
    Pending pending;
    if (!takePending(id, pending)) return false;
    pending.completion(ProxyResponse(), error);
    return true;
}

size_t EmbedProxy::pendingCount() const {
    MutexLock lock(mutex_);
    return pending_.size();
}

size_t EmbedProxy::detachesWaiting() const {
    MutexLock lock(mutex_);
    return detachesWaiting_;
}

bool EmbedProxy::verifySignature(const std::string& md5Hex, const std::string& signature) {
    bool checks = false;
    std::shared_ptr<const Ed25519PublicKey> key;
    {
        MutexLock lock(mutex_);
        // No host, no trust.
        if (!attached_) return false;
        key = publicKey_;
        checks = key != nullptr;
    }
    if (!checks) return true;
    return verifyWithPublisherKey(*key, md5Hex, signature, LogTag::kEmbed);
}

std::shared_ptr<const Ed25519PublicKey> EmbedProxy::publicKey() const {
    MutexLock lock(mutex_);
    return attached_ ? publicKey_ : nullptr;
}

bool EmbedProxy::checksSignatures() const {
    MutexLock lock(mutex_);
    return !attached_ || publicKey_ != nullptr;
}

bool EmbedProxy::takesEvents() const {
    MutexLock lock(mutex_);
    return attached_ && callbacks_.onRecord != nullptr;
}

void EmbedProxy::sendEvent(const PerfRecord& record) {
    if (!takesEvents()) return;
    deliver([text = recordText(record)](const HostCallbacks& host) {
        if (host.onRecord != nullptr) host.onRecord(host.userData, text.c_str());
    });
}

void EmbedProxy::onQueueFinished(uint32_t count) {
    deliver([count](const HostCallbacks& host) {
        if (host.onQueueFinished != nullptr) host.onQueueFinished(host.userData, count);
    });
}

void EmbedProxy::onPackUpdated(const std::string& name) {
    deliver([name](const HostCallbacks& host) {
        if (host.onPackUpdated != nullptr) host.onPackUpdated(host.userData, name.c_str());
    });
}

void EmbedProxy::onStateChanged() {
    MutexLock lock(stateMutex_);
    deliver([report = Setup::statusReport().toString()](const HostCallbacks& host) {
        if (host.onStateChanged != nullptr) host.onStateChanged(host.userData, report.c_str());
    });
}

bool EmbedProxy::registerPushTopic(const std::string& topic,
                                   std::function<void(const std::string& message)> handler) {
    MutexLock lock(mutex_);
    pushHandlers_[topic] = std::move(handler);
    return true;
}

bool EmbedProxy::push(const std::string& topic, const std::string& message) {
    std::function<void(const std::string&)> handler;
    {
        MutexLock lock(mutex_);
        auto it = pushHandlers_.find(topic);
        if (it == pushHandlers_.end() || !it->second) return false;
        handler = it->second;
    }
    handler(message);
    return true;
}

}  // namespace FerritCore
