// EmbedProxy: the Proxy of a native host that speaks C (ferritcore.h). Network requests go to the
// host's request callback and come back through answer() or fail(); events, state reports and
// log entries go to the host's callbacks; signatures are checked with the publisher's key the host
// opened with. The host's raw files are read from its folder by the core itself (Setup::setProxy
// is given the folder), so the asset operations keep the defaults.
//
// One proxy serves the process for its whole life, because the core keeps the proxy it was given
// and has no teardown. A host attaches to it (attach) and detaches (detach); a later host attaches
// to the same proxy. While no host is attached, requests fail at once, no signature is taken, and
// nothing is delivered.
//
// Every callback runs on the delivery runner (deliveries()), one at a time, in the order the news
// happened, never on a thread of the core that may hold the core's locks. A callback queued before
// a detach is dropped, never delivered to a later host. Thread-safe: the core calls the proxy from
// the worker and from the host's threads.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "base/Ed25519PublicKey.h"
#include "base/Proxy.h"
#include "ferritcore/ferritcore.h"
#include "support/Mutex.h"

namespace FerritCore {

class TaskRunner;

// What a host gave at open: its callbacks and their user data. Plain values, copied.
struct HostCallbacks {
    void* userData = nullptr;
    ferritcore_request_callback onRequest = nullptr;
    ferritcore_pack_updated_callback onPackUpdated = nullptr;
    ferritcore_queue_finished_callback onQueueFinished = nullptr;
    ferritcore_state_changed_callback onStateChanged = nullptr;
    ferritcore_record_callback onRecord = nullptr;
    ferritcore_log_callback onLog = nullptr;
};

class EmbedProxy : public Proxy, public std::enable_shared_from_this<EmbedProxy> {
  public:
    EmbedProxy() = default;
    ~EmbedProxy() override = default;

    // Makes `callbacks` the host's. `publicKey` null checks nothing (a host that opened without
    // signature checks). Replaces nothing: the caller detaches first.
    void attach(const HostCallbacks& callbacks, std::shared_ptr<const Ed25519PublicKey> publicKey);
    // No callback starts after it returns; it waits for the one running on another thread. The
    // requests still waiting for the host fail in transport. Must not be called from a callback.
    void detach();
    bool attached() const;

    // The host's answer to request `id`: false when the id is unknown, answered or failed.
    bool answer(uint64_t id, ProxyResponse response);
    // The host's failure of request `id`: false likewise.
    bool fail(uint64_t id, const Error& error);
    // Hands a push message to the core's handler of `topic`; false when the core did not
    // subscribe to it.
    bool push(const std::string& topic, const std::string& message);
    // Delivers `call` to the attached host on the delivery runner (dropped after a detach).
    void deliver(std::function<void(const HostCallbacks&)> call);
    // The attached host's turn, 0 while none is attached: what deliverTo() is given to reach
    // only the host that asked, never one that attached after it.
    uint64_t generation() const;
    // Delivers `call` if the host of `generation` is still attached, on the delivery runner;
    // dropped otherwise, and dropped when that host detaches before it runs.
    void deliverTo(uint64_t generation, std::function<void(const HostCallbacks&)> call);

    // The runner every callback runs on: a thread of its own, or, when the process's runner is
    // driven by hand (tests), one driven by hand too.
    static TaskRunner& deliveries();
    // Whether the calling thread is inside a callback to the host.
    static bool inCallback();

    void sendRequest(const ProxyRequest& request, ProxyCompletion completion) override;
    // Whether the attached host's key signed `md5Hex`; a signature that does not verify is
    // logged in the words the host reads. Without a host nothing verifies; a host that opened
    // without a key takes every signature.
    bool verifySignature(const std::string& md5Hex, const std::string& signature) override;
    // The key the attached host opened with, so that a later document can retire it and a
    // retirement of another key leaves it asked; null without a host or for one without a key.
    std::shared_ptr<const Ed25519PublicKey> publicKey() const override;
    // False only while a host that opened without a key is attached: without a host nothing is
    // taken, so there is a check, and it refuses.
    bool checksSignatures() const override;
    void sendEvent(const PerfRecord& record) override;
    bool takesEvents() const override;
    void onQueueFinished(uint32_t count) override;
    void onPackUpdated(const std::string& name) override;
    void onStateChanged() override;
    bool registerPushTopic(const std::string& topic,
                           std::function<void(const std::string& message)> handler) override;

    // How many requests wait for the host (tests).
    size_t pendingCount() const;
    // How many detaches wait for a callback to return (tests).
    size_t detachesWaiting() const;

  private:
    struct Pending {
        ProxyCompletion completion;
        bool wantHeaders = false;
    };
    // Takes the request `id` out of those waiting for the host: false when it is unknown,
    // answered or failed.
    bool takePending(uint64_t id, Pending& pending);
    // Runs `call` unless the host of `generation` has gone since it was queued.
    void run(uint64_t generation, const std::function<void(const HostCallbacks&)>& call);

    mutable Mutex mutex_;
    CondVar idle_;  // a callback returned
    HostCallbacks callbacks_ GUARDED_BY(mutex_);
    std::shared_ptr<const Ed25519PublicKey> publicKey_ GUARDED_BY(mutex_);
    bool attached_ GUARDED_BY(mutex_) = false;
    uint64_t generation_ GUARDED_BY(mutex_) = 0;  // one more at every attach and detach
    int running_ GUARDED_BY(mutex_) = 0;          // callbacks running now
    size_t detachesWaiting_ GUARDED_BY(mutex_) = 0;
    std::map<uint64_t, Pending> pending_ GUARDED_BY(mutex_);
    std::map<std::string, std::function<void(const std::string&)>> pushHandlers_ GUARDED_BY(mutex_);
    std::atomic<uint64_t> nextId_{1};
    // Makes building a state's report and queueing it one step, so that reports reach the host in
    // the order of the changes.
    Mutex stateMutex_;
};

}  // namespace FerritCore
