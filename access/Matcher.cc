#include "access/Matcher.h"

#include <cstdint>

#include "base/Digest.h"
#include "base/Environment.h"
#include "base/Errors.h"
#include "base/Recycled.h"
#include "base/Url.h"
#include "marl/Clock.h"
#include "model/SCache.h"

namespace FerritCore {

PackPtr packByUrl(const FConfig& config, const Settings& settings, std::string_view k) {
    if (k.empty()) return nullptr;
    PackPtr pack = config.packForUrl(k);
    if (pack && pack->packType() == kPackTypeSCache && !settings.isSCacheEnabled(pack->name))
        return nullptr;
    return pack;
}

bool fileTypeClaimed(const Settings& settings, std::string_view k) {
    return settings.isSCacheFileType(k);
}

std::shared_ptr<PackMatch> findByUrl(std::string_view keyUrl, std::string_view keyReferrer,
                                     MatchKind* kind) {
    if (Environment::instance().isDisabledByDeveloper()) return nullptr;
    *kind = kMatchNone;
    const SCache::Snapshot config;
    const Settings::Snapshot settings;
    // A URL's own pack wins over its referrer's, whatever their types.
    PackPtr pack = packByUrl(*config, *settings, keyUrl);
    if (pack) {
        if (pack->packType() == kPackTypeSCache) *kind = kMatchUrlSCache;
    } else {
        pack = packByUrl(*config, *settings, keyReferrer);
        if (!pack) return nullptr;
        if (pack->packType() == kPackTypeSCache && fileTypeClaimed(*settings, keyUrl))
            *kind = kMatchReferrerSCache;
    }
    // Timed from here: most URLs have no pack of their own, and two hash probes that find nothing
    // are not worth a reading of the clock.
    const double start = MRLCurrentClock();
    auto match = makeRecycled<PackMatch>(*config, std::move(pack), /*pinned=*/false);
    match->requestFollowUp();
    match->readyTime = MRLCurrentClock();
    match->matchTime = match->readyTime - start;
    return match;
}

std::shared_ptr<PackMatch> findByPrefix(std::string_view keyUrl, std::string_view accept) {
    if (Environment::instance().isDisabledByDeveloper())
        return std::make_shared<PackMatch>(std::string(), Errors::disabledByDevToolRef());
    const double start = MRLCurrentClock();
    const SCache::Snapshot config;
    const std::string_view name = config->prefixTree().lookup(keyUrl, accept);
    PackPtr pack = name.empty() ? nullptr : config->routedPack(name);
    if (!pack) return std::make_shared<PackMatch>(std::string(), Errors::notFerritResourceRef());
    auto match = makeRecycled<PackMatch>(*config, std::move(pack), /*pinned=*/false);
    match->requestFollowUp();
    match->readyTime = MRLCurrentClock();
    match->matchTime = match->readyTime - start;
    return match;
}

bool parseNameWithVersion(std::string_view text, NameWithVersion& out) {
    out = NameWithVersion();
    if (text.size() >= 2 && text[1] == ':') {
        switch (text[0]) {
            case 'A':
                out.type = kPackTypeACache;
                break;
            case 'S':
                out.type = kPackTypeSCache;
                break;
            case 'F':
                out.type = kPackTypeFerrit;
                break;
            case 'D':
                out.type = kPackTypeDefault;
                break;
            default:
                return false;
        }
        out.hasType = true;
        text.remove_prefix(2);
    }
    const size_t at = text.rfind('@');
    std::string_view digits = text;
    if (at != std::string_view::npos) {
        out.name = std::string(text.substr(0, at));
        digits = text.substr(at + 1);
    } else if (out.hasType) {
        // A type letter goes with a name; the version may be left out.
        out.name = std::string(text);
        digits = {};
    }
    uint64_t seq = 0;
    for (const char c : digits) {
        if (c < '0' || c > '9') return false;
        const uint64_t digit = static_cast<uint64_t>(c - '0');
        if (seq > (UINT64_MAX - digit) / 10) return false;
        seq = seq * 10 + digit;
    }
    if (digits.empty() && out.name.empty()) return false;
    out.seq = seq;
    return true;
}

PackPtr findByName(const FConfig& config, std::string_view name, std::string_view info,
                   bool* fallback) {
    const bool mayMakeUp = fallback != nullptr;
    if (fallback != nullptr) *fallback = false;
    if (Url::isAbsolute(name)) {
        const std::string packName = Digest::md5Hex(Url::key(name));
        if (PackPtr pack = config.find(packName)) return pack;
        if (!mayMakeUp) return nullptr;
        auto made = std::make_shared<Pack>();
        made->name = packName;
        made->flags = kPackTypeACache;
        made->subType = kSubTypeFixedUrl;
        made->seq = 1;
        made->installedSeq = 1;
        made->zipURL = std::string(name);
        *fallback = true;
        return made;
    }
    NameWithVersion wanted;
    if (!info.empty() && parseNameWithVersion(info, wanted)) {
        if (wanted.name.empty()) wanted.name = std::string(name);
        PackPtr plain = config.find(wanted.name);
        const uint32_t type =
            wanted.hasType ? wanted.type : (plain ? plain->packType() : kPackTypeDefault);
        if ((type == kPackTypeACache || type == kPackTypeSCache) && wanted.seq != 0) {
            const std::string pinned = Pack::pinnedName(wanted.name, wanted.seq);
            if (PackPtr pack = config.find(pinned)) return pack;
            if (plain && plain->installedSeq == wanted.seq) return plain;
            if (!mayMakeUp) return nullptr;
            std::shared_ptr<Pack> made =
                plain ? std::make_shared<Pack>(*plain) : std::make_shared<Pack>();
            made->name = pinned;
            made->flags = (made->flags & ~static_cast<uint64_t>(0xF0)) | type;
            made->subType = kSubTypeFixedSeq;
            made->status = kPackStatusNormal;
            made->seq = wanted.seq;
            made->installedSeq = wanted.seq;
            *fallback = true;
            return made;
        }
    }
    return config.find(name);
}

}  // namespace FerritCore
