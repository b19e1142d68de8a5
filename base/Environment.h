// Environment: the process-wide state every other part asks "may I do this yet?". A singleton
// created at first use and never destroyed. Every accessor is safe from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "base/Published.h"

#include "support/Mutex.h"

namespace FerritCore {

class Proxy;

// SetupFlags: how far start-up has come. Each bit is set once, by whichever call wins.
enum SetupFlag : uint32_t {
    kSetupDone = 0x1,                // the first effective setup
    kConfigFirstUpdated = 0x2,       // the first finished configuration update of the process
    kAutoStartAllowed = 0x4,         // setup was told that the host will not call startUpdate
    kUpdateStarted = 0x8,            // startUpdate ran
    kInitialConfigFinished = 0x400,  // a configuration update that was the initial one finished
};

// What a SetupFlags value says in words, for messages that carry the value: which steps of
// start-up had happened ("set up, first configuration update not finished, updating not started").
std::string setupPhaseWords(uint32_t flags);

// Which service environment the process talks to. The numbers are the host's and are stored in
// the configuration document; any other number means "Release".
enum ServiceEnv : int32_t {
    kEnvDebug = 0,  // pre-release configuration; packs come from the release endpoint
    kEnvDaily = 1,
    kEnvRelease = 2,
};

// The host's network status, as setNetworkStatus gives it. The numbers are the host's own and
// appear in the log; a value outside them is kept as it came and downloads nothing.
enum class NetworkStatus : uint32_t {
    kNone = 0,  // the start: no download until the host names a network
    kUnrestricted = 1,
    kSlowMobile = 2,
    kFastMobile = 3,
};

// Feature bits of the status report.
enum FeatureBit : uint32_t {
    kFeaturePushRegistered = 0x1,  // the push topics are registered
    kFeatureRemoteSettings = 0x2,  // a remote settings map was applied
};

class Environment {
  public:
    static Environment& instance();

    std::shared_ptr<Proxy> proxy() const { return proxy_.load(); }
    // The proxy as the calling thread reads it on the request path (see Published).
    const Published<Proxy>& publishedProxy() const { return proxy_; }
    void setProxy(std::shared_ptr<Proxy> proxy);
    // Whether a proxy that takes performance records is set, without taking a reference to it:
    // lets the request path skip building records that would be dropped.
    bool takesEvents() const { return takesEvents_.load(std::memory_order_acquire); }
    // Asks the proxy again whether it takes records, for a proxy whose answer changes while it is
    // set (a host that listens for records only some of the time).
    void refreshTakesEvents();

    bool isMainProcess() const { return isMainProcess_.load(std::memory_order_relaxed); }
    void setMainProcess(bool main) { isMainProcess_.store(main, std::memory_order_relaxed); }

    // Set by the developer tool; a non-zero value switches the whole cache off.
    uint32_t developerDisabled() const {
        return developerDisabled_.load(std::memory_order_relaxed);
    }
    void setDeveloperDisabled(uint32_t value) {
        developerDisabled_.store(value, std::memory_order_relaxed);
    }
    bool isDisabledByDeveloper() const { return developerDisabled() != 0; }

    NetworkStatus networkStatus() const { return networkStatus_.load(std::memory_order_relaxed); }
    void setNetworkStatusValue(NetworkStatus status) {
        networkStatus_.store(status, std::memory_order_relaxed);
    }

    // Which service environment the process talks to (ServiceEnv).
    int32_t env() const { return env_.load(std::memory_order_relaxed); }
    void setEnvValue(int32_t env) { env_.store(env, std::memory_order_relaxed); }

    // The host application, percent-escaped at setup, and its locale.
    std::string appKey() const;
    std::string appVersion() const;
    std::string locale() const;
    void setApp(std::string appKey, std::string appVersion);
    void setLocaleValue(std::string locale);
    // The "Referer" of configuration and pack requests, built at setup.
    std::string referer() const;
    void setReferer(std::string referer);

    // SetupFlags: how far start-up has come.
    uint32_t flags() const { return flags_.load(std::memory_order_acquire); }
    // Sets `bit`; true when this call was the one that set it, however many threads race.
    bool setFlag(uint32_t bit);

    // Feature bits shown by the status report: 1 push topics registered, 2 remote settings applied.
    uint32_t feature() const { return feature_.load(std::memory_order_acquire); }
    // Sets `bit`; true when this call was the one that set it.
    bool setFeatureBit(uint32_t bit) {
        return (feature_.fetch_or(bit, std::memory_order_acq_rel) & bit) == 0;
    }

    // The host's foreground state. Setting it true records `activeSince` (wall clock).
    bool clientActive() const { return clientActive_.load(std::memory_order_acquire); }
    double activeSince() const { return activeSince_.load(std::memory_order_acquire); }
    void setClientActive(bool active);

    // Parent id of start-up events and "sessionID" of every performance record.
    std::string sessionName() const;
    // The same, read in place for as long as the reader lives: a record built on every request
    // copies it into a buffer it keeps instead of making a string of it.
    Published<const std::string>::Reader readSessionName() const {
        return Published<const std::string>::Reader(sessionName_);
    }
    void setSessionName(std::string name);

  private:
    Environment() = default;
    // Back to the initial state (ProcessState::resetForTesting).
    void reset();

    // Serialises setProxy and refreshTakesEvents, so that the flag always answers for the proxy
    // that is set.
    Mutex proxyMutex_;
    Published<Proxy> proxy_{nullptr};
    std::atomic<bool> takesEvents_{false};
    std::atomic<bool> isMainProcess_{true};
    std::atomic<uint32_t> developerDisabled_{0};
    std::atomic<int32_t> env_{kEnvRelease};
    std::atomic<NetworkStatus> networkStatus_{NetworkStatus::kNone};
    std::atomic<uint32_t> flags_{0};
    std::atomic<bool> clientActive_{false};
    std::atomic<double> activeSince_{0};

    std::atomic<uint32_t> feature_{0};

    mutable Mutex mutex_;
    Published<const std::string> sessionName_{std::make_shared<const std::string>()};
    std::string appKey_ GUARDED_BY(mutex_);
    std::string appVersion_ GUARDED_BY(mutex_);
    std::string locale_ GUARDED_BY(mutex_);
    std::string referer_ GUARDED_BY(mutex_);
};

}  // namespace FerritCore
