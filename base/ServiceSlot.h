// ServiceSlot: the process-wide holder of one replaceable service (the asset provider, the packed
// files, the mark store, the update requester): what a lower layer asks for and the composition
// root installs. Readers take a reference with one atomic load, so that a concurrent set() never
// destroys a service during a call. Any thread.
#pragma once

#include <atomic>
#include <memory>

#include "base/ProcessState.h"

namespace FerritCore {

template <typename Service>
class ServiceSlot {
  public:
    // Created at first use and never destroyed, so that a late reader during process exit still
    // finds it; ProcessState::resetForTesting empties it.
    static ServiceSlot& instance() {
        static ServiceSlot* const slot = [] {
            auto* made = new ServiceSlot();
            ProcessState::onReset([made] { made->set(nullptr); });
            return made;
        }();
        return *slot;
    }

    // The service, or null while none is installed.
    std::shared_ptr<Service> get() const { return service_.load(std::memory_order_acquire); }
    void set(std::shared_ptr<Service> service) {
        service_.store(std::move(service), std::memory_order_release);
    }

  private:
    ServiceSlot() = default;
    std::atomic<std::shared_ptr<Service>> service_;
};

// Calls `method` on `service` with `args`, or answers `fallback` when there is no service: what
// every forwarder over a replaceable service does, with the caller's reference keeping the service
// alive for the whole call.
template <typename Service, typename R, typename... Params, typename... Args>
R callOr(const std::shared_ptr<Service>& service, R (Service::*method)(Params...), R fallback,
         Args&&... args) {
    return service ? ((*service).*method)(std::forward<Args>(args)...) : std::move(fallback);
}
template <typename Service, typename... Params, typename... Args>
void callIfAny(const std::shared_ptr<Service>& service, void (Service::*method)(Params...),
               Args&&... args) {
    if (service) ((*service).*method)(std::forward<Args>(args)...);
}

}  // namespace FerritCore
