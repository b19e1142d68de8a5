// Environment: the process-wide state every other part asks "may I do this yet?". A singleton
// created at first use and never destroyed. Every accessor is safe from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>

namespace FerritCore {

class Proxy;

class Environment {
public:
    static Environment& instance();

    std::shared_ptr<Proxy> proxy() const { return proxy_.load(std::memory_order_acquire); }
    void setProxy(std::shared_ptr<Proxy> proxy) { proxy_.store(std::move(proxy), std::memory_order_release); }

    bool isMainProcess() const { return isMainProcess_.load(std::memory_order_relaxed); }
    void setMainProcess(bool main) { isMainProcess_.store(main, std::memory_order_relaxed); }

    // Set by the developer tool; a non-zero value switches the whole cache off.
    uint32_t developerDisabled() const { return developerDisabled_.load(std::memory_order_relaxed); }
    void setDeveloperDisabled(uint32_t value) { developerDisabled_.store(value, std::memory_order_relaxed); }
    bool isDisabledByDeveloper() const { return developerDisabled() != 0; }

    // Parent id of start-up events and "sessionID" of every performance record.
    std::string sessionName() const;
    void setSessionName(std::string name);

    // Until-times of aggregate requests: a write holds the name for 5000 ms of the clock; a read
    // answers true while that time has not passed and forgets the entry once it has.
    void addCooldown(const std::string& name);
    bool inCooldown(std::string_view name);

    // Back to the initial state (tests).
    void resetForTesting();

private:
    Environment() = default;

    std::atomic<std::shared_ptr<Proxy>> proxy_;
    std::atomic<bool> isMainProcess_{true};
    std::atomic<uint32_t> developerDisabled_{0};

    mutable std::mutex mutex_;
    std::string sessionName_;                            // guarded by mutex_
    std::unordered_map<std::string, double> cooldowns_;  // guarded by mutex_
    // Lets a read skip the lock while there are no cooldowns, which is nearly always.
    std::atomic<size_t> cooldownCount_{0};
};

}  // namespace FerritCore
