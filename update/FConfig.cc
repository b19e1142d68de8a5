#include "update/FConfig.h"

#include "access/Url.h"

namespace FerritCore {

FConfig FConfig::copyForChange() const {
    FConfig copy;
    copy.version = version;
    copy.fullMark = fullMark;
    copy.scacheVersion = scacheVersion;
    copy.delay = delay;
    copy.env = env;
    copy.clientVersion = clientVersion;
    copy.locale = locale;
    copy.lastUpdate = lastUpdate;
    copy.lastFullUpdate = lastFullUpdate;
    copy.packs = packs;
    return copy;
}

void FConfig::rebuildIndexes() {
    urlIndex.clear();
    prefixTree = PrefixTree();
    std::string keyBuffer;
    for (const auto& [name, pack] : packs) {
        if (pack->packType() == kPackTypeSCache && pack->subType == 1) continue;
        for (const auto& prefix : pack->prefixes) {
            Url::keyInto(prefix, keyBuffer);
            if (keyBuffer.empty()) continue;
            PrefixValue value;
            value.packName = name;
            prefixTree.add(keyBuffer, std::move(value));
        }
        for (const auto& referrer : pack->referrers) {
            Url::keyInto(referrer, keyBuffer);
            if (!keyBuffer.empty()) urlIndex.emplace(keyBuffer, name);
        }
    }
}

PackPtr FConfig::find(std::string_view name) const {
    auto it = packs.find(name);
    return it == packs.end() ? nullptr : it->second;
}

void FConfig::put(PackPtr pack) {
    if (!pack) return;
    packs[pack->name] = std::move(pack);
    dirty = true;
}

bool FConfig::remove(std::string_view name) {
    auto it = packs.find(name);
    if (it == packs.end()) return false;
    removed.insert(it->second);
    packs.erase(it);
    return true;
}

}  // namespace FerritCore
