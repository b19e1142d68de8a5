#include "access/UpdateRequester.h"

#include "base/Errors.h"
#include "base/ServiceSlot.h"

namespace FerritCore {

std::shared_ptr<UpdateRequester> UpdateRequester::current() {
    return ServiceSlot<UpdateRequester>::instance().get();
}

void UpdateRequester::set(std::shared_ptr<UpdateRequester> requester) {
    ServiceSlot<UpdateRequester>::instance().set(std::move(requester));
}

void requestUpdate(const std::string& name, UpdateTrigger trigger,
                   UpdateRequester::Completion completion) {
    if (std::shared_ptr<UpdateRequester> requester = UpdateRequester::current()) {
        requester->request(name, trigger, std::move(completion));
        return;
    }
    // Nothing updates in this process (nothing was wired, as before setup).
    if (completion) completion(Errors::updateDisabled());
}

void holdPackForReading(const std::string& name) {
    if (std::shared_ptr<UpdateRequester> requester = UpdateRequester::current())
        requester->holdPack(name);
}

void releasePackFromReading(const std::string& name) {
    if (std::shared_ptr<UpdateRequester> requester = UpdateRequester::current())
        requester->releasePack(name);
}

}  // namespace FerritCore
