#include "model/Pack.h"

#include <cstdio>
#include <string_view>

#include "marl/Clock.h"
#include "model/Rollout.h"

namespace FerritCore {
namespace {

// "<prefix><name>/<seq>/" in one allocation.
std::string seqFolder(std::string_view prefix, std::string_view name, uint64_t seq) {
    char digits[24];
    const int n =
        std::snprintf(digits, sizeof(digits), "%llu", static_cast<unsigned long long>(seq));
    std::string out;
    out.reserve(prefix.size() + name.size() + static_cast<size_t>(n) + 2);
    out.append(prefix).append(name).push_back('/');
    out.append(digits, static_cast<size_t>(n)).push_back('/');
    return out;
}

}  // namespace

using MarlLogger::json::JSON;
using MarlLogger::json::JSONStringer;

namespace {

std::vector<std::string> readStrings(const JSON& value) {
    std::vector<std::string> out;
    out.reserve(value.size());
    for (const JSON& item : value.arrayValue()) out.push_back(item.stringValue());
    return out;
}

}  // namespace

const char* packStatusName(uint32_t status) {
    switch (status) {
        case kPackStatusNormal:
            return "Normal";
        case kPackStatusNeedReinstall:
            return "NeedReinstall";
        case kPackStatusEliminated:
            return "Eliminated";
        case kPackStatusPreview:
            return "Preview";
        case kPackStatusDeleted:
            return "Deleted";
        default:
            return "Unknown";
    }
}

void Pack::readJSON(const JSON& object) {
    for (const auto& [key, value] : object.objectValue()) {
        if (std::vector<std::string>* list = listField(key)) {
            *list = readStrings(value);
        } else {
            readField(key, value);
        }
    }
}

std::vector<std::string>* Pack::listField(std::string_view key) {
    if (key == "p") return &prefixes;
    if (key == "r") return &referrers;
    return nullptr;
}

std::string* Pack::textField(std::string_view key) {
    if (key == "c") return &md5;
    if (key == "ci") return &incrMd5;
    if (key == "cp") return &patchMd5;
    if (key == "zipURL") return &zipURL;
    return nullptr;
}

void Pack::readField(std::string_view k, const JSON& value) {
    // The keys are few and short, so comparing them in turn is cheaper than a lookup per field.
    if (k == "s")
        seq = value.uint64Value();
    else if (k == "f")
        flags = value.uint64Value();
    else if (k == "b")
        baseSeq = value.uint64Value();
    else if (k == "t")
        publishTime = value.doubleValue();
    else if (k == "m")
        marker = value.uint64Value();
    else if (k == "g")
        gray = value.uint64Value();
    else if (k == "rs")
        rolloutSeq = value.uint64Value();
    else if (k == "rp")
        rolloutShare = value.uint32Value();
    else if (k == "rt")
        rolloutTime = value.doubleValue();
    else if (k == "updateTime")
        updateTime = value.doubleValue();
    else if (k == "installedSeq")
        installedSeq = value.uint64Value();
    else if (k == "installedBaseSeq")
        installedBaseSeq = value.uint64Value();
    else if (k == "installedSize")
        installedSize = value.uint64Value();
    else if (k == "installTime")
        installTime = value.doubleValue();
    else if (k == "trigger")
        trigger = value.uint32Value();
    else if (k == "subType")
        subType = value.uint32Value();
    else if (k == "ACacheType")
        legacySubType = value.uint32Value();
    else if (k == "status")
        status = value.uint32Value();
    else if (k == "isOnDemand")
        isOnDemand = value.boolValue();
    else if (k == "isPacks")
        isPacks = value.boolValue();
    else if (std::string* text = textField(k))
        *text = value.stringValue();
    else if (std::vector<std::string>* list = listField(k))
        *list = readStrings(value);
}

void Pack::writeJSON(JSONStringer& out) const {
    out.object();
    if (seq != 0) out.key("s").value(seq);
    if (flags != 0) out.key("f").value(flags);
    if (baseSeq != 0) out.key("b").value(baseSeq);
    if (publishTime != 0) out.key("t").value(publishTime);
    if (marker != 0) out.key("m").value(marker);
    if (!md5.empty()) out.key("c").value(md5);
    if (!incrMd5.empty()) out.key("ci").value(incrMd5);
    if (!patchMd5.empty()) out.key("cp").value(patchMd5);
    if (!prefixes.empty()) {
        out.key("p").array();
        for (const auto& prefix : prefixes) out.value(prefix);
        out.endArray();
    }
    if (!referrers.empty()) {
        out.key("r").array();
        for (const auto& referrer : referrers) out.value(referrer);
        out.endArray();
    }
    if (gray != 0) out.key("g").value(gray);
    if (rolloutSeq != 0) out.key("rs").value(rolloutSeq);
    if (rolloutShare != 0) out.key("rp").value(rolloutShare);
    if (rolloutTime != 0) out.key("rt").value(rolloutTime);
    if (updateTime != 0) out.key("updateTime").value(updateTime);
    if (installedSeq != 0) out.key("installedSeq").value(installedSeq);
    if (installedBaseSeq != 0) out.key("installedBaseSeq").value(installedBaseSeq);
    if (installedSize != 0) out.key("installedSize").value(installedSize);
    if (installTime != 0) out.key("installTime").value(installTime);
    if (trigger != 0) out.key("trigger").value(trigger);
    if (subType != kSubTypePlain) out.key("subType").value(subType);
    if (legacySubType != 0) out.key("ACacheType").value(legacySubType);
    if (!zipURL.empty()) out.key("zipURL").value(zipURL);
    if (status != 0) out.key("status").value(status);
    if (isOnDemand) out.key("isOnDemand").value(true);
    if (isPacks) out.key("isPacks").value(true);
    out.endObject();
}

bool Pack::validate() {
    if (!isSupported() || grayState() > 2 || status > kPackStatusDeleted) return false;
    if (subType == kSubTypeFixedUrl && zipURL.empty()) return false;
    if (subType == kSubTypeFixedSeq && name.find('@') == std::string::npos) subType = kSubTypePlain;
    if (subType == kSubTypePlain) {
        if (legacySubType == kSubTypeFixedSeq || legacySubType == kSubTypeFixedUrl) {
            subType = legacySubType;
            if (subType == kSubTypeFixedUrl && zipURL.empty()) return false;
        } else if (name.find('@') != std::string::npos) {
            subType = kSubTypeFixedSeq;
        }
    } else if (subType != kSubTypeFixedSeq && subType != kSubTypeFixedUrl) {
        return false;
    }
    if (status == kPackStatusPreview && zipURL.empty()) status = kPackStatusNormal;
    // A share above every device means every device.
    if (rolloutShare > Rollout::kShareScale) rolloutShare = Rollout::kShareScale;
    if (updateTime <= 0) updateTime = MRLCurrentTime();
    legacySubType = 0;
    return true;
}

std::shared_ptr<Pack> Pack::clone(const std::string& newName) const {
    auto copy = std::make_shared<Pack>(*this);
    if (!newName.empty()) copy->name = newName;
    return copy;
}

bool Pack::isOutOfDate(double documentLastUpdate, double interval) const {
    const uint32_t type = packType();
    if (type != kPackTypeDefault && type != kPackTypeFerrit) return false;
    const double limit = MRLCurrentTime() - interval;
    return updateTime < limit && documentLastUpdate < limit;
}

bool triggerIgnoresPriority(UpdateTrigger trigger) {
    return trigger == kTriggerVisit || trigger == kTriggerPrefetch || trigger == kTriggerPreview;
}

std::string_view Pack::rootView() const {
    if (subType == kSubTypeFixedSeq) {
        const size_t at = name.find('@');
        if (at != std::string::npos) return std::string_view(name).substr(0, at);
    }
    return name;
}

std::string Pack::rootName() const {
    return std::string(rootView());
}

std::string Pack::appName() const {
    return std::string(appNameView());
}

std::string_view Pack::appNameView() const {
    return subType == kSubTypeFixedUrl ? std::string_view(zipURL) : rootView();
}

std::string Pack::pinnedName(const std::string& name, uint64_t seq) {
    return name + "@" + std::to_string(seq);
}

bool Pack::isSupported() const {
    const uint32_t type = packType();
    return type == kPackTypeDefault || type == kPackTypeACache || type == kPackTypeFerrit ||
           type == kPackTypeSCache;
}

bool Pack::needsConfig() const {
    return !(seq != 0 && baseSeq != 0) &&
           (packType() != kPackTypeACache || subType == kSubTypePlain);
}

bool Pack::isResident() const {
    const uint32_t p = priority();
    return subType == kSubTypePlain &&
           (p == kPriorityResident || p >= kPriorityStartup || packType() == kPackTypeSCache);
}

bool Pack::isBuiltIn() const {
    return packType() == kPackTypeSCache && subType != kSubTypeFixedSeq &&
           status != kPackStatusPreview;
}

bool Pack::canUpdateIncrementally() const {
    return packType() == kPackTypeFerrit && status != kPackStatusNeedReinstall &&
           status != kPackStatusPreview && installedSeq != 0 && installedSeq < seq &&
           baseSeq == installedBaseSeq;
}

void Pack::setStatus(uint32_t newStatus) {
    if (newStatus == kPackStatusNeedReinstall && !(status == kPackStatusNormal && isInstalled()))
        return;
    if (newStatus == kPackStatusEliminated &&
        (status == kPackStatusEliminated || status == kPackStatusPreview))
        return;
    status = newStatus;
}

Folder Pack::installedFolder() const {
    const std::string_view root = rootView();
    if (isBuiltIn()) {
        const std::string relative = seqFolder("Ferrit_Asset_", root, installedSeq);
        if (isOnDemand) return Folder::onDemand("Ferrit_Asset_" + std::string(root), relative);
        return Folder::asset(relative);
    }
    if (packType() == kPackTypeACache || !isPacks)
        return Folder::disk(seqFolder("apps/", root, installedSeq));
    return Folder::packed(seqFolder("", root, installedSeq));
}

Folder Pack::resourcesFolder() const {
    return installedFolder().childOf("res/");
}

}  // namespace FerritCore
