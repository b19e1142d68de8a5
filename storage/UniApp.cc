#include "storage/UniApp.h"

#include <cstdint>

#include "base/LogTags.h"
#include "runtime/Settings.h"

namespace FerritCore {

UniApp::UniApp() : HotCache(kName, kKey, LogTag::kUniApp) {}

UniApp& UniApp::instance() {
    return StoreInstance<UniApp>::get();
}

int64_t UniApp::maxSizeSetting() const {
    // An explicit 0 is a limit, unlike the size limits of packs: it keeps nothing beyond the node
    // just stored. The settings' own reading of this key treats 0 as unset, so it is read here.
    const uint64_t limit = Settings::current()->uniAppMaxSize.value_or(Settings::kDefaultSizeLimit);
    return limit > static_cast<uint64_t>(INT64_MAX) ? INT64_MAX : static_cast<int64_t>(limit);
}

uint64_t UniApp::minHotCountSetting() const {
    return Settings::current()->uniAppMinHotSizeValue();
}

bool UniApp::update(std::string_view url, const CachedResource& resource, Error& error) {
    return store(url, resource, error);
}

}  // namespace FerritCore
