#include "update/Pack.h"

#include <cstdio>
#include <string_view>

namespace FerritCore {
namespace {

// "<prefix><name>/<seq>/" in one allocation.
std::string seqFolder(std::string_view prefix, std::string_view name, uint64_t seq) {
    char digits[24];
    const int n = std::snprintf(digits, sizeof(digits), "%llu", static_cast<unsigned long long>(seq));
    std::string out;
    out.reserve(prefix.size() + name.size() + static_cast<size_t>(n) + 2);
    out.append(prefix).append(name).push_back('/');
    out.append(digits, static_cast<size_t>(n)).push_back('/');
    return out;
}

}  // namespace

const char* packStatusName(uint32_t status) {
    switch (status) {
        case kPackStatusNormal: return "Normal";
        case kPackStatusNeedReinstall: return "NeedReinstall";
        case kPackStatusEliminated: return "Eliminated";
        case kPackStatusPreview: return "Preview";
        case kPackStatusDeleted: return "Deleted";
        default: return "Unknown";
    }
}

std::string_view Pack::rootView() const {
    if (subType == 1) {
        const size_t at = name.find('@');
        if (at != std::string::npos) return std::string_view(name).substr(0, at);
    }
    return name;
}

std::string Pack::rootName() const { return std::string(rootView()); }

std::string Pack::appName() const { return subType == 2 ? zipURL : rootName(); }

std::string Pack::pinnedName(const std::string& name, uint64_t seq) {
    return name + "@" + std::to_string(seq);
}

bool Pack::isSupported() const {
    const uint32_t type = packType();
    return type == kPackTypeDefault || type == kPackTypeACache || type == kPackTypeFerrit ||
           type == kPackTypeSCache;
}

bool Pack::needsConfig() const {
    return !(seq != 0 && baseSeq != 0) && (packType() != kPackTypeACache || subType == 0);
}

bool Pack::isResident() const {
    const uint32_t p = priority();
    return subType == 0 && (p == 7 || p > 8 || packType() == kPackTypeSCache);
}

bool Pack::isBuiltIn() const {
    return packType() == kPackTypeSCache && subType != 1 && status != kPackStatusPreview;
}

bool Pack::canUpdateIncrementally() const {
    return packType() == kPackTypeFerrit && status != kPackStatusNeedReinstall &&
           status != kPackStatusPreview && installedSeq != 0 && installedSeq < seq &&
           baseSeq == installedBaseSeq;
}

void Pack::setStatus(uint32_t newStatus) {
    if (newStatus == kPackStatusNeedReinstall && !(status == kPackStatusNormal && isInstalled())) return;
    if (newStatus == kPackStatusEliminated && (status == kPackStatusEliminated || status == kPackStatusPreview))
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
    if (packType() == kPackTypeACache || !isPacks) return Folder::disk(seqFolder("apps/", root, installedSeq));
    return Folder::packed(seqFolder("", root, installedSeq));
}

Folder Pack::resourcesFolder() const { return installedFolder().childOf("res/"); }

}  // namespace FerritCore
