#include "update/Push.h"

#include "base/LogTags.h"
#include "base/StringMap.h"
#include "base/Telemetry.h"
#include "marl/Json.h"
#include "marl/Log.h"
#include "model/FConfig.h"
#include "model/SCache.h"
#include "update/UpdateConfig.h"

namespace FerritCore {

bool Push::isConfigMessage(std::string_view message) {
    return message.find("\"v\": \"") != std::string_view::npos ||
           message.find("\"v\":\"") != std::string_view::npos;
}

void Push::onConfigPush(const std::vector<std::string>& messages) {
    if (messages.empty()) return;
    std::shared_ptr<FConfig> newer;
    for (const std::string& message : messages) {
        MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kPush)
            .event("fconfig")
            .appendJSON("message", message);
        Error error;
        std::shared_ptr<FConfig> document =
            FConfig::parse(message, "Push Message", error, /*checkSignature=*/false);
        // A message that does not parse is never newer: the next one is tried.
        if (document && SCache::current()->version < document->version) {
            newer = std::move(document);
            break;
        }
    }
    if (!newer) return;
    if (!newer->packs().empty()) {
        SCache::mutate([&](FConfig& config) { config.merge(*newer); });
    }
    UpdateConfig::instance().start(kTriggerPush, newer->version, nullptr, newer->delay);
}

void Push::onPackConfigPush(const std::vector<std::string>& messages) {
    if (messages.empty()) return;
    StringMap<PackPtr> collection;
    std::string text = "[";
    for (const std::string& message : messages) {
        if (isConfigMessage(message)) continue;
        const MarlLogger::json::JSON object = MarlLogger::json::JSON::parse(message);
        if (object.isObject()) {
            StringMap<PackPtr> records;
            FConfig::readPacks(object, records);
            // The first message that names a pack decides its record.
            for (auto& [name, record] : records) collection.emplace(name, std::move(record));
        }
        text += message;
        text += ",";
    }
    if (text.size() > 1) {
        text.back() = ']';
    } else {
        text += "]";
    }
    MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kPush)
        .event("packConfig")
        .appendJSON("messages", text);
    if (collection.empty()) return;
    SCache::mutate([&](FConfig& config) {
        for (auto& [name, record] : collection) config.mergePack(record);
    });
}

}  // namespace FerritCore
