#include "update/UpdateTarget.h"

#include <string_view>

#include "base/Digest.h"
#include "base/Errors.h"
#include "base/Url.h"
#include "marl/Clock.h"
#include "model/ResourceIndex.h"
#include "runtime/Network.h"
#include "runtime/Settings.h"
#include "storage/Statistics.h"
#include "storage/Variants.h"
#include "update/StretchSource.h"

namespace FerritCore {

using MarlLogger::json::JSON;

namespace {

// The variant of a pack named "name~variant".
constexpr char kVariantSeparator = '~';
// Below this priority a "Startup" run leaves an uninstalled pack alone.
constexpr uint32_t kStartupPriorityFloor = 8;

// A whole app fetched from its URL is known by the MD5 of the URL's key form, the name under
// which a reader looks it up.
PackPtr resolveUrl(const FConfig& config, const std::string& url) {
    const std::string key = Digest::md5Hex(Url::key(url));
    if (PackPtr found = config.find(key)) return found;
    auto clone = std::make_shared<Pack>();
    clone->name = key;
    clone->subType = kSubTypeFixedUrl;
    clone->seq = 1;
    clone->baseSeq = 1;
    clone->flags = kPackTypeACache;
    clone->zipURL = url;
    clone->updateTime = MRLCurrentTime();
    return clone;
}

// The record of the version that `wanted` (a valid record of `requestedName`) names: a fixed
// sequence of an app or of an SCache pack, or the plain record.
PackPtr resolveWanted(const FConfig& config, const std::string& requestedName, const Pack& wanted) {
    const uint64_t s = wanted.seq;
    const bool app = wanted.packType() == kPackTypeACache;
    if ((!app && wanted.packType() != kPackTypeSCache) || s == 0) return config.find(requestedName);
    const std::string pinned = Pack::pinnedName(requestedName, s);
    if (PackPtr found = config.find(pinned)) return found;
    if (app) {
        PackPtr plain = config.find(requestedName);
        if (plain && plain->installedSeq == s) return plain;
    }
    auto clone = wanted.clone(pinned);
    if (!app) {
        clone->seq = s;
        clone->baseSeq = s;
        clone->isOnDemand = false;
    }
    clone->subType = kSubTypeFixedSeq;
    return clone;
}

// Step 1 of the judgement: the current record, and the one the task works on.
PackPtr currentRecord(const FConfig& config, const TaskAsk& ask, Verdict& verdict) {
    PackPtr& pack = verdict.pack;
    PackPtr cur;
    if (pack && pack->packType() == kPackTypeSCache && pack->subType == kSubTypeFixedSeq) {
        cur = config.find(pack->name);
    } else {
        cur = config.find(ask.name);
    }
    if (cur) {
        // The configuration moved on since the task was made: work on its record.
        if (pack && pack->name == cur->name) pack = cur;
    } else if (!pack) {
        verdict.error = Errors::notFerrit(ask.requestedName);
        return nullptr;
    } else if (pack->packType() == kPackTypeACache && pack->subType == kSubTypeFixedSeq) {
        cur = config.find(ask.requestedName);
        if (cur) {
            verdict.fixedSeq = pack->seq;
        } else {
            cur = pack;
        }
    } else {
        cur = pack;
    }
    if (!pack) pack = cur;
    return cur;
}

// Steps 2 to 4: eviction, the network and the disabled periods, each unless the policy skips it.
bool held(const Pack& cur, const TaskAsk& ask, Verdict& verdict) {
    if (!ask.policy.ignoreEliminated && cur.status == kPackStatusEliminated) {
        verdict.error = Errors::updateEliminated(ask.requestedName);
        return true;
    }
    Error refused;
    if (!ask.policy.ignoreNetwork && !UpdateTarget::networkAllows(*verdict.pack, refused)) {
        if (refused) verdict.error = std::move(refused);
        return true;
    }
    if (!ask.policy.ignoreDisabledPeriods &&
        Settings::current()->isInstallDisabled(MRLCurrentTime(), &StretchSource::draw)) {
        verdict.error = Errors::packUpdateDisabled(ask.requestedName);
        return true;
    }
    return false;
}

// Step 5: an installed pack needs work when its record says so, or, when the policy asks, when
// its installed version does not open.
bool installedNeedsWork(const Pack& cur, const TaskAsk& ask, const Verdict& verdict) {
    bool need = false;
    if (cur.status == kPackStatusNeedReinstall) {
        need = true;
    } else if (cur.status == kPackStatusPreview) {
        need = ask.trigger == kTriggerPreview;
    } else if (verdict.fixedSeq) {
        need = cur.installedSeq != *verdict.fixedSeq;
    } else {
        need = cur.seq > cur.installedSeq;
    }
    if (need || !ask.policy.verifyInstalled) return need;
    if (cur.packType() == kPackTypeACache && cur.subType == kSubTypeFixedUrl)
        return cur.resourcesFolder().isEmpty();
    const ResourceIndexPtr index = ResourceIndexPool::get(cur);
    return !index || index->error() ||
           (cur.packType() == kPackTypeACache && cur.resourcesFolder().isEmpty());
}

// Step 6: a pack not installed qualifies by its priority or its visits, and by its variant.
bool uninstalledQualifies(const Pack& cur, const TaskAsk& ask) {
    if (!ask.policy.ignorePriority) {
        bool goesOn = false;
        if (ask.trigger == kTriggerStartup) {
            goesOn = cur.priority() > kStartupPriorityFloor;
        } else {
            goesOn = (cur.priority() & kPriorityAutoInstall) != 0 ||
                     Statistics::accessValue(cur.name) >=
                         static_cast<double>(Settings::current()->autoInstallLimitValue());
        }
        if (!goesOn) return false;
    }
    const size_t tilde = cur.name.find(kVariantSeparator);
    return tilde == std::string::npos ||
           Variants::instance().accepts(std::string_view(cur.name).substr(tilde + 1));
}

}  // namespace

Target UpdateTarget::resolve(const FConfig& config, const std::string& requestedName,
                             const JSON& info) {
    Target target{nullptr, requestedName};
    if (Url::isAbsolute(requestedName)) {
        target.pack = resolveUrl(config, requestedName);
        target.name = target.pack->name;
        return target;
    }
    target.pack = config.find(requestedName);
    if (info.isObject() && info.size() != 0) {
        auto wanted = std::make_shared<Pack>();
        wanted->name = requestedName;
        wanted->readJSON(info);
        if (wanted->validate()) target.pack = resolveWanted(config, requestedName, *wanted);
    }
    if (target.pack) target.name = target.pack->name;
    return target;
}

PackPtr UpdateTarget::resolvePinned(const FConfig& config, const std::string& pinnedName,
                                    const std::string& requestedName, uint64_t seq) {
    if (PackPtr found = config.find(pinnedName)) return found;
    PackPtr plain = config.find(requestedName);
    if (!plain) return nullptr;
    auto clone = plain->clone(pinnedName);
    clone->seq = seq;
    clone->baseSeq = seq;
    clone->isOnDemand = false;
    clone->subType = kSubTypeFixedSeq;
    clone->installedSeq = 0;
    clone->installedBaseSeq = 0;
    clone->installedSize = 0;
    clone->installTime = 0;
    clone->isPacks = false;
    return clone;
}

Verdict UpdateTarget::evaluate(const FConfig& config, const PackPtr& pack, const TaskAsk& ask) {
    Verdict verdict;
    verdict.pack = pack;
    const PackPtr cur = currentRecord(config, ask, verdict);
    if (!cur || held(*cur, ask, verdict)) return verdict;
    verdict.error = Error();
    if (cur->isInstalled()) {
        const bool need = installedNeedsWork(*cur, ask, verdict);
        verdict.state = need ? UpdateState::NeedUpdate : UpdateState::UpToDate;
        verdict.runnable = need;
        return verdict;
    }
    if (!uninstalledQualifies(*cur, ask)) return verdict;
    verdict.state = UpdateState::NeedUpdate;
    verdict.runnable = true;
    return verdict;
}

bool UpdateTarget::networkAllows(const Pack& pack, Error& error) {
    // Only the small configuration request follows: it may go on any network.
    if (pack.needsConfig()) return true;
    std::string reason;
    if (Network::downloadAllowed(pack.flags, reason)) return true;
    // A status that the host should not send stops the download without a word.
    if (!reason.empty()) error = Errors::networkNotSupported(pack.name, reason);
    return false;
}

}  // namespace FerritCore
