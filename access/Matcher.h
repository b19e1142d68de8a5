// The two lookups that find a pack for a URL: by exact URL (or the referrer's URL), and by path
// prefix. Each takes one configuration snapshot with an atomic load and holds no lock while it
// looks. Any thread.
#pragma once

#include <memory>
#include <string_view>

#include "access/PackPart.h"
#include "model/FConfig.h"
#include "runtime/Settings.h"

namespace FerritCore {

// The pack named for `keyUrl`, else for `keyReferrer`, in `urlIndex`; null when neither is known
// or the developer tool switched the cache off. `kind` receives how the match relates to the SCache
// packs.
std::shared_ptr<PackMatch> findByUrl(std::string_view keyUrl, std::string_view keyReferrer,
                                     MatchKind* kind);
// The pack of the longest matching prefix; never null: 3001 when nothing matches, 3003 when the
// developer tool switched the cache off.
std::shared_ptr<PackMatch> findByPrefix(std::string_view keyUrl, std::string_view accept);

// The pack indexed for URL key `k`, or null; an SCache pack switched off by the settings is null
// as well.
PackPtr packByUrl(const FConfig& config, const Settings& settings, std::string_view k);
// Whether the SCache file-type setting claims `k` by its extension.
bool fileTypeClaimed(const Settings& settings, std::string_view k);

// A pack name with a version, as the pack reader is given one: "<letter>:<name>@<seq>" (the
// letter A, S, F or D naming the type, as in the match text), or "<name>@<seq>", or "<seq>"
// alone. A part left out is empty or 0; 0 is the reserved sequence that names no version.
struct NameWithVersion {
    bool hasType = false;
    uint32_t type = kPackTypeDefault;
    std::string name;
    uint64_t seq = 0;
};
// False when the text is none of those forms.
bool parseNameWithVersion(std::string_view text, NameWithVersion& out);

// The pack for the pack reader and the installed-state query (not the matcher). A `name` that is
// an absolute URL is the fixed-URL pack named by the MD5 of its "//" form. Otherwise a non-empty
// `info` naming an app or asset pack and a sequence asks for that version: the pinned copy
// "name@seq", or the plain record when that has exactly this version installed. Otherwise the
// record of `name`. Null when nothing fits, unless `fallback` is given: then a stand-in record
// is made (a fixed-URL app pack at sequence 1, or a pinned copy at the asked sequence) and
// `*fallback` is set to true. Pure; any thread.
PackPtr findByName(const FConfig& config, std::string_view name, std::string_view info,
                   bool* fallback);

}  // namespace FerritCore
