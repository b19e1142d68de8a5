#include "update/Preview.h"

#include <cinttypes>
#include <cstdio>
#include <memory>
#include <random>

#include "base/Environment.h"
#include "base/Errors.h"
#include "base/LogTags.h"
#include "base/ProcessState.h"
#include "base/Telemetry.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "model/FConfig.h"
#include "model/SCache.h"
#include "runtime/Network.h"
#include "support/Mutex.h"
#include "update/UpdateQueue.h"

#ifndef FERRIT_PREVIEW_PREFIX_PRE_RELEASE
#define FERRIT_PREVIEW_PREFIX_PRE_RELEASE "https://preview-pre.example.com/ferrit/"
#endif
#ifndef FERRIT_PREVIEW_PREFIX_DAILY
#define FERRIT_PREVIEW_PREFIX_DAILY "http://preview-daily.example.com/ferrit/"
#endif
#ifndef FERRIT_PREVIEW_PREFIX_RELEASE
#define FERRIT_PREVIEW_PREFIX_RELEASE "https://preview.example.com/ferrit/"
#endif

namespace FerritCore {
namespace {

struct RandomState {
    Mutex mutex;
    Preview::RandomSource source GUARDED_BY(mutex);
};

RandomState& randomState() {
    static RandomState* const instance = ProcessState::create<RandomState>([](RandomState& s) {
        MutexLock lock(s.mutex);
        s.source = nullptr;
    });
    return *instance;
}

uint32_t nextRandom() {
    RandomState& s = randomState();
    MutexLock lock(s.mutex);
    if (!s.source) {
        auto engine = std::make_shared<std::mt19937>(std::random_device{}());
        s.source = [engine] { return static_cast<uint32_t>((*engine)()); };
    }
    return s.source();
}

std::string previewUrl(const char* format, uint64_t id) {
    char tail[96];
    std::snprintf(tail, sizeof(tail), format, id, nextRandom());
    return Preview::baseUrl(Environment::instance().env()) + tail;
}

MarlLogger::json::JSON messageOf(const std::string& message) {
    MarlLogger::json::JSONObject object;
    object.set("message", message);
    return MarlLogger::json::JSON(std::move(object));
}

// Merges the record of `name` from the fetched configuration as a preview; the failure's text, or
// empty on success.
std::string applyConfig(const std::string& name, const std::string& body,
                        const std::string& configUrl, const std::string& zipUrl) {
    Error error;
    std::shared_ptr<FConfig> document =
        FConfig::parse(body, configUrl, error, /*checkSignature=*/true);
    if (!document) return error.message();
    PackPtr record = document->find(name);
    if (!record) return Errors::packNameMismatch(configUrl, name).message();
    auto preview = record->clone();
    preview->trigger = static_cast<uint32_t>(kTriggerPreview);
    preview->status = kPackStatusPreview;
    preview->zipURL = zipUrl;
    // Status 3 goes in whatever the sequence.
    const FConfigPtr config =
        SCache::mutate([&](FConfig& copy) { copy.mergePack(std::move(preview)); });
    if (!config->find(name)) return Errors::packDeleted(name).message();
    return std::string();
}

}  // namespace

std::string Preview::baseUrl(int32_t env) {
    switch (env) {
        case kEnvDebug:
            return FERRIT_PREVIEW_PREFIX_PRE_RELEASE;
        case kEnvDaily:
            return FERRIT_PREVIEW_PREFIX_DAILY;
        default:
            return FERRIT_PREVIEW_PREFIX_RELEASE;
    }
}

void Preview::setRandomSource(RandomSource source) {
    RandomState& s = randomState();
    MutexLock lock(s.mutex);
    s.source = std::move(source);
}

void Preview::install(const std::string& name, uint64_t id, Callback callback) {
    if (!callback) return;
    const std::string runId = MRLGenerateID(TracePrefix::kPreview);
    const std::string configUrl = previewUrl("rpc/preview/packConfig/%" PRIu64 "?v=%u", id);
    MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kUpdatePack)
        .event("preview")
        .id(runId)
        .append("name", name)
        .append("id", id)
        .append("url", configUrl);
    Network::requestConfig(
        configUrl, runId, [name, id, runId, configUrl, callback](std::string body, Error error) {
            if (error) {
                callback(/*success=*/false, messageOf(error.message()));
                return;
            }
            const std::string zipUrl = previewUrl("rpc/preview/pack/%" PRIu64 ".zip?v=%u", id);
            const std::string message = applyConfig(name, body, configUrl, zipUrl);
            if (!message.empty()) {
                callback(/*success=*/false, messageOf(message));
                return;
            }
            UpdatePackPtr task =
                UpdateQueue::factory()->create(name, MarlLogger::json::JSON(), kTriggerPreview);
            task->setParentId(runId);
            UpdateQueue::add(task, [callback](const Error& result) {
                if (result) {
                    callback(/*success=*/false, messageOf(result.message()));
                } else {
                    callback(/*success=*/true,
                             MarlLogger::json::JSON(MarlLogger::json::JSONObject()));
                }
            });
        });
}

}  // namespace FerritCore
