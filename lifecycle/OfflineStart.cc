// ferritcore_start_offline: the start of a native host that has no script engine and no network,
// through the public C interface.
#include <memory>
#include <string>

#include "base/Proxy.h"
#include "ferritcore/AccessApi.h"
#include "lifecycle/Setup.h"

namespace FerritCore {
namespace {

// A host with nothing to offer: requests fail in transport, raw files come from the folder that
// Setup attaches, and no signature is taken, since there is no key to check it with.
class OfflineProxy : public Proxy {
  public:
    bool verifySignature(const std::string&, const std::string&) override { return false; }
    void sendEvent(const PerfRecord&) override {}
};

}  // namespace
}  // namespace FerritCore

int ferritcore_start_offline(const char* root, const char* rawFileFolder) {
    if (root == nullptr || root[0] == '\0') return -1;
    FerritCore::Setup::setProxy(std::make_shared<FerritCore::OfflineProxy>(), root,
                                rawFileFolder != nullptr ? rawFileFolder : "");
    return 0;
}
