#include "access/CacheMatch.h"

#include "access/ComboRule.h"
#include "access/Matcher.h"
#include "access/ModuleCacheResource.h"
#include "access/PackPart.h"
#include "access/UniAppResource.h"
#include "base/Url.h"
#include "ferritcore/Access.h"
#include "marl/Clock.h"
#include "storage/ModuleCache.h"

namespace FerritCore {
namespace {

using MarlLogger::json::JSON;
using MarlLogger::json::JSONArray;
using MarlLogger::json::JSONObject;

// {"errorCode": c, "errorMsg": m} for a part with an error, {"name": n} otherwise.
JSON partInfo(const ResourcePart& part) {
    if (part.error)
        return JSONObject{{"errorCode", part.error.code()}, {"errorMsg", part.error.message()}};
    return JSONObject{{"name", part.name}};
}

// A file of an aggregate URL as the packs hold it: by the referrer's pack, else by prefix. Notes
// each stage in `info`; `decided` is set when the referrer stage answers (the match is then
// noted too). A referrer stage's part that does not answer ends here.
std::shared_ptr<PackPart> matchPackFile(const std::shared_ptr<RequestContext>& context,
                                        const std::string& partKey, std::string_view keyReferrer,
                                        JSONObject& info, bool& decided) {
    MatchKind kind = kMatchNone;
    if (std::shared_ptr<PackMatch> found = findByUrl(partKey, keyReferrer, &kind)) {
        auto part = std::make_shared<PackPart>(context, partKey, std::move(found));
        info.set("referrerInfo", partInfo(*part));
        if (!part->error || kind != kMatchNone || !part->isMissing()) {
            info.set("match", JSON("referrer"));
            decided = true;
            return part;
        }
        part->finish();
    }
    auto part = std::make_shared<PackPart>(context, partKey, findByPrefix(partKey, ""));
    info.set("prefixInfo", partInfo(*part));
    return part;
}

}  // namespace

bool matchCombo(Resource& resource, const ResourceRequest& request, ResourcePolicy policy,
                std::string_view keyReferrer, const Settings& settings,
                const std::vector<std::string>& urls, const MatchNote& note) {
    const std::shared_ptr<RequestContext>& context = resource.context;
    const bool uniApp = request.isUniApp() && settings.uniAppEnabledValue();
    const bool moduleOk = context->comboRule != nullptr && settings.moduleCacheEnabledValue();
    Resource::Parts parts;
    parts.reserve(urls.size());
    JSONArray infos;
    for (const std::string& url : urls) {
        const std::string partKey = "//" + url;
        JSONObject info{{"url", JSON(url)}};
        bool decided = false;
        std::shared_ptr<PackPart> part =
            matchPackFile(context, partKey, keyReferrer, info, decided);
        if (!decided) {
            if (part->error) {
                // No pack serves the file: a content cache may.
                std::shared_ptr<ResourcePart> cachePart;
                if (uniApp) {
                    cachePart = std::make_shared<UniAppResource>(context, url, request.packName,
                                                                 request.packVersion);
                    info.set("match", JSON("UniApp"));
                    info.set("name", JSON(cachePart->name));
                } else if (!request.isUniApp() && moduleOk &&
                           (policy == kPolicyAsync || ModuleCache::instance().contains(url))) {
                    cachePart = std::make_shared<ModuleCacheResource>(context, url);
                    info.set("match", JSON("ModuleCache"));
                }
                if (cachePart) {
                    part->finish();
                    parts.push_back(std::move(cachePart));
                    infos.push_back(JSON(std::move(info)));
                    continue;
                }
            }
            info.set("match", JSON("prefix"));
        }
        if (part->error) {
            // One file that nothing serves fails the whole: the host fetches the URL itself.
            // The parts matched so far, and this one, end unanswered.
            for (const auto& matched : parts) matched->finish();
            part->finish();
            parts.clear();
            infos.push_back(JSON(std::move(info)));
            break;
        }
        parts.push_back(std::move(part));
        infos.push_back(JSON(std::move(info)));
    }
    note("comboInfo", JSON(std::move(infos)));
    if (parts.empty()) return false;
    const double now = MRLCurrentClock();
    resource.matchTime = now - resource.lastTime;
    resource.lastTime = now;
    resource.isCombo = true;
    resource.parts = std::move(parts);
    resource.makeGroup();
    return true;
}

const char* matchCacheStages(Resource& resource, const ResourceRequest& request,
                             ResourcePolicy policy, std::string_view keyReferrer,
                             const Settings& settings, const MatchNote& note) {
    // The scheme makes no difference to the bare form, so the request's URL serves as well as the
    // context's.
    const std::string_view bareUrl = Url::bare(request.url);
    RequestContext& context = *resource.context;
    context.comboRule = comboRuleFor(bareUrl);

    if (policy != kPolicyProbe) {
        std::vector<std::string> urls;
        if (splitCombo(request.url, context.comboRule, urls)) {
            // Aggregate URLs are never UniApp or ModuleCache URLs themselves.
            return matchCombo(resource, request, policy, keyReferrer, settings, urls, note)
                       ? "COMBO"
                       : nullptr;
        }
    }

    if (request.isUniApp()) {
        if (!settings.uniAppEnabledValue()) return nullptr;
        resource.addPart(std::make_shared<UniAppResource>(resource.context, std::string(bareUrl),
                                                          request.packName, request.packVersion),
                         kMatchNone);
        resource.makeGroup();
        return "UniApp";
    }

    if (context.comboRule != nullptr && settings.moduleCacheEnabledValue() &&
        ModuleCache::instance().contains(bareUrl)) {
        resource.addPart(
            std::make_shared<ModuleCacheResource>(resource.context, std::string(bareUrl)),
            kMatchNone);
        resource.makeGroup();
        return "ModuleCache";
    }
    return nullptr;
}

}  // namespace FerritCore
