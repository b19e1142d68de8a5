// The configuration document read the plain way, through a whole value tree: the reference that
// FConfig::parse, which reads straight from the parser, must agree with (tests and fuzz target).
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "marl/Json.h"
#include "model/FConfig.h"

namespace FerritTest {

// Fields and records as FConfig::parse reads them, before its version and time rules; null
// when the text is not a JSON object.
inline std::shared_ptr<FerritCore::FConfig> readThroughTree(std::string_view text) {
    using MarlLogger::json::JSON;
    std::string reason;
    const JSON document = JSON::parse(text, &reason);
    if (!reason.empty() || !document.isObject()) return nullptr;
    auto config = std::make_shared<FerritCore::FConfig>();
    for (const auto& [key, value] : document.objectValue()) {
        const std::string_view k = key;
        if (k == "v")
            config->version = value.stringValue();
        else if (k == "i")
            config->fullMark = value.uint32Value();
        else if (k == "scacheVersion")
            config->scacheVersion = value.stringValue();
        else if (k == "delay")
            config->delay = value.doubleValue();
        else if (k == "env")
            config->env = value.uint32Value();
        else if (k == "clientVersion")
            config->clientVersion = value.stringValue();
        else if (k == "locale")
            config->locale = value.stringValue();
        else if (k == "lastUpdate")
            config->lastUpdate = value.doubleValue();
        else if (k == "lastFullUpdate")
            config->lastFullUpdate = value.doubleValue();
        else if (k == "issued")
            config->issued = value.doubleValue();
        else if (k == "expires")
            config->expires = value.doubleValue();
        else if (k == "channel")
            config->channel = value.stringValue();
        else if (k == "packs") {
            // A later "packs" replaces an earlier one, as a tree keeps the last of a key.
            FerritCore::StringMap<FerritCore::PackPtr> records;
            FerritCore::FConfig::readPacks(value, records);
            config->clearPacks();
            for (auto& [name, record] : records) config->store(std::move(record));
        }
    }
    return config;
}

// Whether what FConfig::parse made of `text` (null when it failed) is what the tree reading
// gives once the same version and time rules are applied. Run under a fixed clock: records
// without an update time take the time of reading.
inline bool agreesWithTree(const FerritCore::FConfig* parsed, std::string_view text) {
    auto tree = readThroughTree(text);
    if (!tree || tree->version.empty()) return parsed == nullptr;
    if (parsed == nullptr) return false;
    tree->version = FerritCore::normalizeVersion(tree->version);
    if (tree->lastUpdate == 0) tree->lastUpdate = parsed->lastUpdate;
    if (tree->isFull() && tree->lastFullUpdate == 0) tree->lastFullUpdate = tree->lastUpdate;
    return tree->serialize() == parsed->serialize();
}

}  // namespace FerritTest
