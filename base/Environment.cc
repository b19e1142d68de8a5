#include "base/Environment.h"

#include "base/ProcessState.h"
#include "base/Proxy.h"
#include "marl/Clock.h"
#include "support/Mutex.h"

namespace FerritCore {

std::string setupPhaseWords(uint32_t flags) {
    std::string words = (flags & kSetupDone) ? "set up" : "not set up";
    words += (flags & kConfigFirstUpdated) ? ", first configuration update finished"
                                           : ", first configuration update not finished";
    if (flags & kInitialConfigFinished) words += ", first configuration of this root taken in";
    if (flags & kUpdateStarted) {
        words += ", updating started";
    } else {
        words += (flags & kAutoStartAllowed) ? ", updating not started but left to start by itself"
                                             : ", updating not started";
    }
    return words;
}

Environment& Environment::instance() {
    static Environment* const environment = [] {
        auto* made = new Environment();  // never destroyed
        ProcessState::onReset([made] { made->reset(); });
        return made;
    }();
    return *environment;
}

std::string Environment::sessionName() const {
    // Read by every performance record: through the per-thread snapshot, without the lock.
    return *Published<const std::string>::Reader(sessionName_);
}

void Environment::setSessionName(std::string name) {
    sessionName_.store(std::make_shared<const std::string>(std::move(name)));
}

std::string Environment::appKey() const {
    MutexLock lock(mutex_);
    return appKey_;
}

std::string Environment::appVersion() const {
    MutexLock lock(mutex_);
    return appVersion_;
}

std::string Environment::locale() const {
    MutexLock lock(mutex_);
    return locale_;
}

void Environment::setApp(std::string appKey, std::string appVersion) {
    MutexLock lock(mutex_);
    appKey_ = std::move(appKey);
    appVersion_ = std::move(appVersion);
}

void Environment::setLocaleValue(std::string locale) {
    MutexLock lock(mutex_);
    locale_ = std::move(locale);
}

std::string Environment::referer() const {
    MutexLock lock(mutex_);
    return referer_;
}

void Environment::setReferer(std::string referer) {
    MutexLock lock(mutex_);
    referer_ = std::move(referer);
}

void Environment::setClientActive(bool active) {
    if (active) activeSince_.store(MRLCurrentTime(), std::memory_order_release);
    clientActive_.store(active, std::memory_order_release);
}

bool Environment::setFlag(uint32_t bit) {
    uint32_t old = flags_.load(std::memory_order_acquire);
    while ((old & bit) == 0) {
        if (flags_.compare_exchange_weak(old, old | bit, std::memory_order_acq_rel)) return true;
    }
    return false;
}

void Environment::setProxy(std::shared_ptr<Proxy> proxy) {
    MutexLock lock(proxyMutex_);
    takesEvents_.store(proxy != nullptr && proxy->takesEvents(), std::memory_order_release);
    proxy_.store(std::move(proxy));
}

void Environment::refreshTakesEvents() {
    MutexLock lock(proxyMutex_);
    const std::shared_ptr<Proxy> proxy = proxy_.load();
    takesEvents_.store(proxy != nullptr && proxy->takesEvents(), std::memory_order_release);
}

void Environment::reset() {
    setProxy(nullptr);
    setMainProcess(true);
    setDeveloperDisabled(0);
    feature_.store(0, std::memory_order_release);
    env_.store(2, std::memory_order_relaxed);
    networkStatus_.store(NetworkStatus::kNone, std::memory_order_relaxed);
    flags_.store(0, std::memory_order_release);
    clientActive_.store(false, std::memory_order_release);
    activeSince_.store(0, std::memory_order_release);
    MutexLock lock(mutex_);
    sessionName_.store(std::make_shared<const std::string>());
    appKey_.clear();
    appVersion_.clear();
    locale_.clear();
    referer_.clear();
}

}  // namespace FerritCore
