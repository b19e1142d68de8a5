#include "access/Matcher.h"

#include "access/Errors.h"
#include "marl/Clock.h"
#include "runtime/Environment.h"
#include "update/SCache.h"

namespace FerritCore {

PackPtr packByUrl(const FConfig& config, const Settings& settings, std::string_view k) {
    if (k.empty()) return nullptr;
    auto entry = config.urlIndex.find(k);
    if (entry == config.urlIndex.end()) return nullptr;
    PackPtr pack = config.find(entry->second);
    if (pack && pack->packType() == kPackTypeSCache && !settings.isSCacheEnabled(pack->name)) return nullptr;
    return pack;
}

bool fileTypeClaimed(const Settings& settings, std::string_view k) { return settings.isSCacheFileType(k); }

std::shared_ptr<PackMatch> findByUrl(std::string_view keyUrl, std::string_view keyReferrer, int* kind) {
    if (Environment::instance().isDisabledByDeveloper()) return nullptr;
    *kind = kMatchNone;
    const double start = MRLCurrentClock();
    const FConfigPtr config = SCache::current();
    const std::shared_ptr<const Settings> settings = Settings::current();
    // A URL's own pack wins over its referrer's, whatever their types.
    PackPtr pack = packByUrl(*config, *settings, keyUrl);
    if (pack) {
        if (pack->packType() == kPackTypeSCache) *kind = kMatchUrlSCache;
    } else {
        pack = packByUrl(*config, *settings, keyReferrer);
        if (!pack) return nullptr;
        if (pack->packType() == kPackTypeSCache && fileTypeClaimed(*settings, keyUrl)) *kind = kMatchReferrerSCache;
    }
    auto match = std::make_shared<PackMatch>(*config, std::move(pack), false);
    match->matchTime = MRLCurrentClock() - start;
    return match;
}

std::shared_ptr<PackMatch> findByPrefix(std::string_view keyUrl, std::string_view accept) {
    if (Environment::instance().isDisabledByDeveloper())
        return std::make_shared<PackMatch>(std::string(), Errors::disabledByDevToolRef());
    const double start = MRLCurrentClock();
    const FConfigPtr config = SCache::current();
    const std::string_view name = config->prefixTree.lookup(keyUrl, accept);
    PackPtr pack = name.empty() ? nullptr : config->find(name);
    if (!pack) return std::make_shared<PackMatch>(std::string(), Errors::notFerritResourceRef());
    auto match = std::make_shared<PackMatch>(*config, std::move(pack), false);
    match->matchTime = MRLCurrentClock() - start;
    return match;
}

}  // namespace FerritCore
