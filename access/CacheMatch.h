// The stages of the matcher that follow a prefix miss: the aggregate (COMBO) URL split into its
// files, each resolved by itself; the UniApp request; and the module that ModuleCache holds.
// Called by Access::match on the matching thread.
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "access/Resource.h"
#include "ferritcore/Access.h"
#include "ferritcore/ResourceRequest.h"
#include "marl/Json.h"
#include "runtime/Settings.h"

namespace FerritCore {

// Adds a key to the "match" event.
using MatchNote = std::function<void(std::string_view key, MarlLogger::json::JSON value)>;

// Sets the request's aggregate rule in the context, then tries the stages in order. When one
// answers, its parts are in `resource` with their read group, and the result is the "match" text:
// "COMBO", "UniApp" or "ModuleCache". Null when none answers: the prefix stage's part stands. A
// policy of 0 (probe) never splits an aggregate URL; an aggregate URL that splits but leaves no
// parts ends the match, as does a UniApp request when UniApp is switched off.
const char* matchCacheStages(Resource& resource, const ResourceRequest& request,
                             ResourcePolicy policy, std::string_view keyReferrer,
                             const Settings& settings, const MatchNote& note);

// The COMBO stage alone, over the files that splitCombo gave: each becomes the part of its pack,
// or of UniApp or ModuleCache when no pack holds it; the first that nothing can serve fails the
// whole. True when it yields parts (the resource is then a COMBO). Notes "comboInfo". A part that
// it drops (a stage that did not answer, or all of them when the whole fails) ends there.
bool matchCombo(Resource& resource, const ResourceRequest& request, ResourcePolicy policy,
                std::string_view keyReferrer, const Settings& settings,
                const std::vector<std::string>& urls, const MatchNote& note);

}  // namespace FerritCore
