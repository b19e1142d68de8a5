// The whole chain of updating as a host drives it: the proxy and the root, setup, the first
// configuration (twenty packs of varied priority and use), the start of updating, a visit, the
// background and the foreground, a push, a preview and a reader. Everything goes through the
// lifecycle's entry points, the real queue and the real install of zips made by the pack kit; the
// test only drives the clock and the worker.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "access/Reader.h"
#include "base/Digest.h"
#include "base/Environment.h"
#include "base/Errors.h"
#include "ferritcore/Access.h"
#include "ferritcore/ResourceRequest.h"
#include "ferritcore/ResourceResponse.h"
#include "lifecycle/Setup.h"
#include "marl/Clock.h"
#include "marl/Inspector.h"
#include "marl/Json.h"
#include "marl/Log.h"
#include "model/SCache.h"
#include "runtime/Settings.h"
#include "runtime/TaskRunner.h"
#include "storage/Statistics.h"
#include "tests/FakeProxy.h"
#include "tests/TestUtil.h"
#include "tools/pack/PackBuilder.h"
#include "update/Preview.h"
#include "update/UpdateConfig.h"
#include "update/UpdatePack.h"
#include "update/UpdateQueue.h"

namespace FerritTest {
namespace {

using namespace FerritCore;
using MarlLogger::json::JSON;
using MarlLogger::json::JSONObject;

constexpr const char* kConfigPrefix = "https://cfg.test/";
constexpr const char* kZipPrefix = "https://dl.test/";
constexpr const char* kSiteHost = "https://site.test/";
// The document this device kept from its last run: it has run before, so the first configuration
// of this process is not the initial one and starting updates runs the queue at once.
constexpr const char* kStoredVersion = "1699990000000";
constexpr const char* kFirstVersion = "1700000000000";
constexpr const char* kPushedVersion = "1700000100000";
// The first configuration request of the process: no full document has come yet, so the whole
// document is asked for.
constexpr const char* kFirstConfigUrl = "https://cfg.test/fconfig/key/1.0/0~0/~";
// The run of the queue that the start of updating arms comes two minutes later.
constexpr double kFirstQueueTickMs = 120000.0;
// A check of the configuration refuses to run again within this long.
constexpr double kConfigThrottleMs = 30000.0;
// The share of a push's delay after which the real document is asked for is below one.
constexpr double kPushDelayMs = 60000.0;
// This client's share of that delay, fixed by the test.
constexpr double kPushDelayShare = 0.25;
// A document that says it is full.
constexpr const char* kFullMark = "4294967295";

constexpr size_t kPackCount = 20;
// Priorities 9 and up qualify for the start-up run; the others wait for a visit.
constexpr uint32_t kPriorities[kPackCount] = {9,  15, 12, 3, 10, 11, 14, 9,  13, 5,
                                              10, 12, 15, 9, 11, 8,  13, 14, 10, 9};
// Visits before the start, as access weights; the low-priority packs are among the most used.
constexpr double kAccess[kPackCount] = {2.5, 0.5, 4.0, 9.0, 1.5, 3.5, 0.0, 6.0, 2.0, 8.0,
                                        5.5, 1.0, 3.0, 7.0, 4.5, 9.5, 0.2, 5.0, 6.5, 1.2};

std::string packName(size_t i) {
    return std::string("pk") + (i < 10 ? "0" : "") + std::to_string(i);
}
std::string sitePrefix(const std::string& name) {
    return std::string(kSiteHost) + name + "/";
}
std::string pageOf(const std::string& name, uint64_t seq) {
    return "<!doctype html><title>" + name + " v" + std::to_string(seq) + "</title>";
}

class UpdateChainTest : public ProcessTest {
  protected:
    void SetUp() override {
        ProcessTest::SetUp();
        HostDefaults defaults;
        defaults.configPrefix = kConfigPrefix;
        defaults.zipPrefix = kZipPrefix;
        Settings::setDefaults(defaults);
        UpdatePack::setRandomSource(seededDraws(20240611));
        Preview::setRandomSource([this] { return ++previewRandom_; });
        UpdateConfig::setRandomSource([] { return kPushDelayShare; });
        proxy_ = std::make_shared<FakeProxy>();
        for (size_t i = 0; i < kPackCount; ++i) {
            ConfigPackEntry entry;
            entry.record = configured(packName(i), 1, kPriorities[i]);
            packs_.push_back(entry);
        }
        proxy_->serve(kFirstConfigUrl, 200, document(kFirstVersion, packs_, false));

        // The device ran before: its stored document lies in the root, as an earlier layout
        // left it.
        std::filesystem::create_directories(temp_.path() / "config");
        std::ofstream(temp_.path() / "config/fconfig.config")
            << R"({"v":")" << kStoredVersion << R"("})";
    }

    // ---- The pack kit with the test key.

    static FerritTools::Signer signer() {
        return [](const std::string& md5Hex, std::string& signature, std::string&) {
            signature = FakeProxy::signatureOf(md5Hex);
            return true;
        };
    }
    static std::string zipOf(const std::string& name, uint64_t seq) {
        FerritTools::PackContent content;
        content.files = {{"index.html", pageOf(name, seq)}, {"app.js", "var v = " + name + ";"}};
        FerritTools::PackOptions options;
        options.urlPrefix = sitePrefix(name);
        options.signer = signer();
        std::string zip, error;
        EXPECT_TRUE(FerritTools::buildPack(content, options, zip, error)) << error;
        return zip;
    }
    // A record of `name` at `seq`, as a configuration names it, whose zip the proxy serves.
    FerritTools::ConfigPack configured(const std::string& name, uint64_t seq, uint32_t priority) {
        const std::string zip = zipOf(name, seq);
        FerritTools::ConfigPack record;
        record.name = name;
        record.seq = seq;
        record.baseSeq = seq;
        record.flags = kPackTypeFerrit | priority;
        record.md5 = Digest::md5Hex(zip);
        record.prefixes = {sitePrefix(name)};
        FakeProxy::Answer answer;
        answer.body = zip;
        answer.hold = holdZips_;
        proxy_->serve(zipUrl(name, seq), answer);
        return record;
    }
    static std::string zipUrl(const std::string& name, uint64_t seq) {
        return std::string(kZipPrefix) + name + "/" + std::to_string(seq) + ".zip";
    }
    struct ConfigPackEntry {
        FerritTools::ConfigPack record;
    };
    // The JSON of a document; `full` marks it as the whole set of records.
    static std::string documentJson(const std::string& version,
                                    const std::vector<ConfigPackEntry>& entries, bool full) {
        std::vector<FerritTools::ConfigPack> records;
        for (const ConfigPackEntry& entry : entries) records.push_back(entry.record);
        std::string signedDocument, error;
        EXPECT_TRUE(FerritTools::buildConfig(version, records, signer(), signedDocument, error))
            << error;
        std::string json = signedDocument.substr(0, signedDocument.rfind("||"));
        if (full) json.insert(1, std::string(R"("i":)") + kFullMark + ",");
        return json;
    }
    // The signed document that a configuration endpoint delivers.
    static std::string document(const std::string& version,
                                const std::vector<ConfigPackEntry>& entries, bool full) {
        return FakeProxy::sign(documentJson(version, entries, full));
    }

    // ---- The host's calls.

    // setProxy, the use of the packs before this run, setup, and the first configuration.
    void comeAlive() {
        Setup::setNetworkStatus(NetworkStatus::kUnrestricted);
        Setup::setProxy(proxy_, temp_.root());
        for (size_t i = 0; i < kPackCount; ++i) {
            if (kAccess[i] > 0) Statistics::addAccess(packName(i), nullptr, kAccess[i]);
        }
        Setup::setup("key", "1.0", SetupMode::kHostStartsUpdate);
        drive();
    }
    // The whole start-up run with every zip answered at once.
    void startAndInstall() {
        comeAlive();
        Setup::startUpdate();
        drive();
        ASSERT_EQ(proxy_->queueFinished.size(), 1u);
    }

    // ---- Observing.

    static void drive() {
        while (TaskRunner::runDue() > 0) {
        }
    }
    void advance(double ms) {
        clock_->advance(ms);
        drive();
    }
    // How often the proxy was asked for `url`.
    size_t requestsOf(const std::string& url) const {
        const std::vector<std::string> zips = zipRequests();
        return static_cast<size_t>(std::count(zips.begin(), zips.end(), url));
    }
    // The pack zips that the proxy was asked for, in order.
    std::vector<std::string> zipRequests() const {
        std::vector<std::string> out;
        for (const ProxyRequest& request : proxy_->requests) {
            if (request.url.starts_with(kZipPrefix)) out.push_back(request.url);
        }
        return out;
    }
    std::vector<std::string> configRequests() const {
        std::vector<std::string> out;
        for (const ProxyRequest& request : proxy_->requests) {
            if (request.url.starts_with(kConfigPrefix)) out.push_back(request.url);
        }
        return out;
    }
    static PackPtr find(const std::string& name) { return SCache::current()->find(name); }
    struct Answer {
        std::string body;
        Error error;
    };
    static Answer read(const std::string& name, const std::string& path = "index.html") {
        ResourceRequest request(sitePrefix(name) + path, std::string());
        std::unique_ptr<ResourceResponse> response = Access::getResource(request);
        return {response->data, response->error};
    }
    // The packs that a start-up run takes, best score first, computed from the priorities and
    // the access weights alone: (1 + 0.2 p) s + 0.1 p for every pack of priority 9 and up.
    static std::vector<std::string> expectedStartupOrder(size_t limit) {
        std::vector<std::pair<double, std::string>> scored;
        for (size_t i = 0; i < kPackCount; ++i) {
            const double p = kPriorities[i];
            if (kPriorities[i] < kPriorityStartup) continue;
            scored.emplace_back((1.0 + 0.2 * p) * kAccess[i] + 0.1 * p, packName(i));
        }
        std::sort(scored.begin(), scored.end(),
                  [](const auto& a, const auto& b) { return a.first > b.first; });
        // The cut and the order must not hang on a tie.
        for (size_t i = 1; i < scored.size() && i <= limit; ++i)
            EXPECT_GT(scored[i - 1].first, scored[i].first) << scored[i].second;
        std::vector<std::string> names;
        for (size_t i = 0; i < scored.size() && i < limit; ++i) names.push_back(scored[i].second);
        return names;
    }

    bool holdZips_ = false;
    uint32_t previewRandom_ = 0;
    std::vector<ConfigPackEntry> packs_;
    MarlLogger::ScopedManualClock clock_;
    MarlLogger::ScopedCapture logs_;
    std::shared_ptr<FakeProxy> proxy_;
};

// A variant whose zips wait until the test answers them, one at a time.
class UpdateChainHeldTest : public UpdateChainTest {
  protected:
    void SetUp() override {
        holdZips_ = true;
        UpdateChainTest::SetUp();
    }
};

TEST_F(UpdateChainHeldTest, StartInstallsTheBestPacksInScoreOrderOneNormalDownloadAtATime) {
    comeAlive();
    ASSERT_EQ(configRequests(), (std::vector<std::string>{kFirstConfigUrl}));
    ASSERT_EQ(SCache::current()->version, kFirstVersion);
    EXPECT_TRUE(zipRequests().empty()) << "nothing is fetched before updating starts";

    const size_t limit = Settings::current()->startupDownloadLimitValue();
    ASSERT_EQ(limit, 14u);
    const std::vector<std::string> order = expectedStartupOrder(limit);
    ASSERT_EQ(order.size(), limit);
    Setup::startUpdate();
    EXPECT_EQ(UpdateQueue::normalCount() + UpdateQueue::runningCount(), limit);

    // A pack that the run left out because of its priority, and that a reader now needs.
    const std::string visited = packName(3);
    std::vector<std::string> expected;
    for (size_t k = 0; k < order.size(); ++k) {
        drive();
        expected.push_back(zipUrl(order[k], 1));
        if (k == 2) {
            // The read cannot be served; it asks for the pack at once, and that task starts
            // beside the running download instead of waiting behind the rest of the run.
            EXPECT_EQ(read(visited).error.code(), Errors::kNotInstalled);
            drive();
            expected.push_back(zipUrl(visited, 1));
            ASSERT_EQ(zipRequests(), expected);
            EXPECT_EQ(proxy_->release(), 2u);
            drive();
            EXPECT_EQ(find(visited)->installedSeq, 1u);
            EXPECT_EQ(find(visited)->trigger, static_cast<uint32_t>(kTriggerVisit));
            EXPECT_EQ(read(visited).body, pageOf(visited, 1));
            continue;
        }
        // Exactly one download runs: the next is asked for only once this one has ended.
        ASSERT_EQ(zipRequests(), expected) << "download " << k;
        EXPECT_EQ(find(order[k])->installedSeq, 0u);
        if (k == 5) {
            // In the background the download under way finishes, and nothing new starts.
            Setup::clientDeactived();
            EXPECT_TRUE(UpdateQueue::paused());
            EXPECT_EQ(proxy_->release(), 1u);
            drive();
            EXPECT_EQ(find(order[k])->installedSeq, 1u);
            clock_->advance(kConfigThrottleMs / 2);
            drive();
            EXPECT_EQ(zipRequests(), expected) << "no start in the background";
            Setup::clientActived();
            EXPECT_FALSE(UpdateQueue::paused());
            continue;
        }
        EXPECT_EQ(proxy_->release(), 1u) << "download " << k;
        drive();
        EXPECT_EQ(find(order[k])->installedSeq, 1u) << order[k];
    }
    drive();
    EXPECT_EQ(zipRequests(), expected);
    EXPECT_EQ(proxy_->release(), 0u);
    EXPECT_EQ(UpdateQueue::normalCount() + UpdateQueue::fastCount() + UpdateQueue::runningCount(),
              0u);
    // One run of the queue, which counted the visit's task as well.
    EXPECT_EQ(proxy_->queueFinished, (std::vector<uint32_t>{static_cast<uint32_t>(limit + 1)}));

    for (size_t i = 0; i < kPackCount; ++i) {
        const std::string name = packName(i);
        const bool wanted = std::find(order.begin(), order.end(), name) != order.end();
        if (wanted || name == visited) {
            EXPECT_EQ(find(name)->installedSeq, 1u) << name;
            EXPECT_EQ(read(name).body, pageOf(name, 1)) << name;
        } else {
            EXPECT_EQ(find(name)->installedSeq, 0u) << name << " is not among the best";
        }
    }
}

TEST_F(UpdateChainTest, PushOfANewerConfigurationMergesAndRestartsTheUpdateAfterItsDelay) {
    startAndInstall();
    const std::vector<std::string> order = expectedStartupOrder(14);
    const std::string changed = order.front();
    ASSERT_EQ(find(changed)->installedSeq, 1u);

    // A preview of a pack that no configuration names yet, through the developer tool.
    const std::string previewName = "preview";
    const uint64_t previewId = 77;
    const std::string base = Preview::baseUrl(Environment::instance().env());
    const std::string previewZip = zipOf(previewName, 5);
    {
        FerritTools::ConfigPack record;
        record.name = previewName;
        record.seq = 5;
        record.baseSeq = 5;
        record.flags = kPackTypeFerrit;
        record.md5 = Digest::md5Hex(previewZip);
        record.prefixes = {sitePrefix(previewName)};
        std::string signedDocument, error;
        ASSERT_TRUE(FerritTools::buildConfig("9", {record}, signer(), signedDocument, error))
            << error;
        proxy_->serve(base + "rpc/preview/packConfig/77?v=1", 200, signedDocument);
        proxy_->serve(base + "rpc/preview/pack/77.zip?v=2", 200, previewZip);
    }
    bool answered = false, success = false;
    ASSERT_TRUE(MarlLogger::Inspector::sendCommand(
        "FerritDev.previewPack", JSONObject{{"packName", previewName}, {"seq", previewId}},
        [&](bool ok, const JSON&) {
            answered = true;
            success = ok;
        }));
    drive();
    ASSERT_TRUE(answered);
    ASSERT_TRUE(success);
    ASSERT_EQ(find(previewName)->status, static_cast<uint32_t>(kPackStatusPreview));
    EXPECT_EQ(find(previewName)->installedSeq, 5u);
    EXPECT_EQ(read(previewName).body, pageOf(previewName, 5));

    // The push names a newer version of the configuration and of one pack: the record is merged
    // at once, and the signed document is asked for within the push's delay.
    clock_->advance(kConfigThrottleMs + 1000);
    std::vector<ConfigPackEntry> next = packs_;
    for (ConfigPackEntry& entry : next) {
        if (entry.record.name == changed)
            entry.record = configured(changed, 2, entry.record.flags & 0x0F);
    }
    std::string message = documentJson(kPushedVersion, next, false);
    message.insert(1, R"("delay":60000,)");
    // The signed document of the new version is full: it leaves out a pack that was never
    // installed, which goes, and the preview pack, which stays.
    const std::string dropped = packName(9);
    std::vector<ConfigPackEntry> full;
    for (const ConfigPackEntry& entry : next) {
        if (entry.record.name != dropped) full.push_back(entry);
    }
    // The push's merge took its version, and no full document came within a week: the whole
    // document of that version is asked for.
    const std::string pushedUrl =
        std::string(kConfigPrefix) + "fconfig/key/1.0/" + kPushedVersion + "~0/~";
    proxy_->serve(pushedUrl, 200, document(kPushedVersion, full, true));
    const size_t configsBefore = configRequests().size();
    ASSERT_EQ(proxy_->pushHandlers.count("wpb.fconfig"), 1u);
    proxy_->pushHandlers["wpb.fconfig"](message);
    EXPECT_EQ(find(changed)->seq, 2u) << "the pushed record is merged at once";
    EXPECT_EQ(find(changed)->installedSeq, 1u);
    EXPECT_NE(find(dropped), nullptr);
    drive();
    EXPECT_EQ(configRequests().size(), configsBefore) << "the document is asked for later";
    advance(kPushDelayShare * kPushDelayMs - 1000);
    EXPECT_EQ(configRequests().size(), configsBefore) << "not before this client's share";

    advance(1000);
    const std::vector<std::string> configs = configRequests();
    ASSERT_EQ(configs.size(), configsBefore + 1);
    EXPECT_EQ(configs.back(), pushedUrl);
    EXPECT_EQ(SCache::current()->version, kPushedVersion);
    EXPECT_EQ(find(dropped), nullptr) << "the full document arrived";
    // The full document left the preview alone: its status, its version and its bytes.
    EXPECT_EQ(find(previewName)->status, static_cast<uint32_t>(kPackStatusPreview));
    EXPECT_EQ(find(previewName)->installedSeq, 5u);
    EXPECT_EQ(read(previewName).body, pageOf(previewName, 5));

    // The queue's next run installs the pushed version; the preview is not fetched again.
    const size_t previewZips = requestsOf(zipUrl(previewName, 5));
    advance(kFirstQueueTickMs);
    EXPECT_EQ(find(changed)->installedSeq, 2u);
    EXPECT_EQ(read(changed).body, pageOf(changed, 2));
    EXPECT_EQ(requestsOf(zipUrl(previewName, 5)), previewZips);
    EXPECT_EQ(find(previewName)->status, static_cast<uint32_t>(kPackStatusPreview));
}

TEST_F(UpdateChainTest, ReaderKeepsItsBytesWhileItsUpdateIsDroppedAndTheNextRunInstallsIt) {
    startAndInstall();
    const std::string held = expectedStartupOrder(14).front();
    std::shared_ptr<Reader> reader;
    Reader::load({held, "", ""}, [&](std::shared_ptr<Reader> r, const Error&) { reader = r; });
    ASSERT_NE(reader, nullptr);
    const std::string path = "//site.test/" + held + "/index.html";
    Error error;
    ASSERT_EQ(reader->read(path, nullptr, error), pageOf(held, 1)) << error.message();

    // A pack message names a newer version of the held pack.
    FerritTools::ConfigPack record = configured(held, 2, 0);
    for (const ConfigPackEntry& entry : packs_) {
        if (entry.record.name == held) record.flags = entry.record.flags;
    }
    std::string message = documentJson("1", {{record}}, false);
    message = message.substr(message.find(R"("packs":)") + 8);
    message.pop_back();
    ASSERT_EQ(proxy_->pushHandlers.count("wpb.packconfig"), 1u);
    proxy_->pushHandlers["wpb.packconfig"](message);
    ASSERT_EQ(find(held)->seq, 2u);

    // The queue's run finds the pack held: its task goes without a download.
    advance(kFirstQueueTickMs);
    EXPECT_EQ(requestsOf(zipUrl(held, 2)), 0u);
    EXPECT_EQ(find(held)->installedSeq, 1u);
    EXPECT_EQ(reader->read(path, nullptr, error), pageOf(held, 1)) << error.message();
    EXPECT_TRUE(UpdateQueue::isHeld(held));

    // Released, the pack is updated by the run after.
    reader.reset();
    EXPECT_FALSE(UpdateQueue::isHeld(held));
    advance(Settings::current()->configUpdateIntervalValue());
    EXPECT_EQ(requestsOf(zipUrl(held, 2)), 1u);
    EXPECT_EQ(find(held)->installedSeq, 2u);
    EXPECT_EQ(read(held).body, pageOf(held, 2));
}

}  // namespace
}  // namespace FerritTest
