// The two lookups that find a pack for a URL: by exact URL (or the referrer's URL), and by path
// prefix. Each takes one configuration snapshot with an atomic load and holds no lock while it
// looks. Any thread.
#pragma once

#include <memory>
#include <string_view>

#include "access/PackPart.h"
#include "runtime/Settings.h"
#include "update/FConfig.h"

namespace FerritCore {

// How a URL match relates to the SCache packs.
enum MatchKind : int {
    kMatchNone = 0,          // not an SCache claim
    kMatchReferrerSCache = 1,  // the referrer's pack is an SCache pack that claims this file type
    kMatchUrlSCache = 2,     // the URL itself is in an SCache pack
};

// The pack named for `keyUrl`, else for `keyReferrer`, in `urlIndex`; null when neither is known
// or the developer tool switched the cache off. `kind` receives the MatchKind.
std::shared_ptr<PackMatch> findByUrl(std::string_view keyUrl, std::string_view keyReferrer, int* kind);
// The pack of the longest matching prefix; never null: 3001 when nothing matches, 3003 when the
// developer tool switched the cache off.
std::shared_ptr<PackMatch> findByPrefix(std::string_view keyUrl, std::string_view accept);

// The pack indexed for URL key `k`, or null; an SCache pack switched off by the settings is null
// as well.
PackPtr packByUrl(const FConfig& config, const Settings& settings, std::string_view k);
// Whether the SCache file-type setting claims `k` by its extension.
bool fileTypeClaimed(const Settings& settings, std::string_view k);

}  // namespace FerritCore
