// Staged rollouts as the publisher writes them and devices take them. The documents come from the
// release commands' own code (rollout, promote, rollback) into a tree on the disk that the test
// proxy serves as a static server would.
//
// At scale: 100,000 install identifiers, each a device whose record goes through the library's own
// merge (FConfig::merge with that identifier, so the cohort decision is the library's) and whose
// install is recorded as the library records it. The shares must lie within half a point of 1, 10,
// 50 and 100%, no device may leave the rollout as the share grows, and after a rollback every
// device must be on its way to the released files. Which bytes a device ends with depends only on
// the version it holds and the one it is told to take, so every such pair that the 100,000 devices
// reach is then installed for real, through the pack's own document and its zip or increment, and
// must serve exactly the released files.
#include <gtest/gtest.h>

#include <filesystem>
#include <iostream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "model/Rollout.h"
#include "tests/lifecycle/PublishedTreeFixture.h"
#include "tools/common/ToolFiles.h"
#include "tools/publish/Publisher.h"
#include "tools/publish/Release.h"

namespace FerritTest {
namespace {

namespace fs = std::filesystem;

constexpr const char* kPack = "shop";
constexpr const char* kAppKey = "key";
constexpr const char* kAppVersion = "1.0";
// Installed without a visit.
constexpr uint32_t kPriority = 9;
constexpr int kDevices = 100000;
// Half a percentage point, in devices.
constexpr double kTolerance = 0.005 * kDevices;
constexpr uint32_t kPercentSteps[] = {1, 10, 50, 100};

const PackFiles& firstFiles() {
    static const PackFiles files{{"index.html", "<title>1</title>"},
                                 {"js/app.js", "run(1);"},
                                 {"css/app.css", "body{color:red}"},
                                 {"only-1.txt", "in 1 only"}};
    return files;
}

const PackFiles& secondFiles() {
    static const PackFiles files{{"index.html", "<title>2</title>"},
                                 {"js/app.js", "run(2);"},
                                 {"css/app.css", "body{color:red}"},
                                 {"only-2.txt", "in 2 only"}};
    return files;
}

const PackFiles& thirdFiles() {
    static const PackFiles files{{"index.html", "<title>3</title>"},
                                 {"js/app.js", "run(2);"},
                                 {"css/app.css", "body{color:blue}"},
                                 {"only-2.txt", "in 2 only"}};
    return files;
}

// The identifier of the n-th simulated device.
std::string deviceId(int n) {
    return "install-" + std::to_string(n);
}

// The first simulated identifier whose slot for the pack lies in [low, high).
std::string idWithSlot(uint32_t low, uint32_t high) {
    for (int n = 0;; ++n) {
        const uint32_t slot = Rollout::cohortSlot(deviceId(n), kPack);
        if (slot >= low && slot < high) return deviceId(n);
    }
}

class RolloutSimulationTest : public PublishedTreeFixture {
  protected:
    void SetUp() override {
        PublishedTreeFixture::SetUp();
        manifest_.appKey = kAppKey;
        manifest_.appVersion = kAppVersion;
        manifest_.zipFolder = kZipFolder;
        FerritTools::PublishPack pack;
        pack.name = kPack;
        pack.folder = kSiteFolder;
        pack.prefix = kSite;
        pack.priority = kPriority;
        manifest_.packs.push_back(pack);
    }

    void publish(const PackFiles& files) {
        writeSite(files);
        FerritTools::PublishResult result;
        std::string error;
        ASSERT_TRUE(
            FerritTools::publish(site(), manifest_, tree(), std::string(), signer(), result, error))
            << error;
        serveTree();
    }
    void rollout(const PackFiles& files, uint32_t percent) {
        writeSite(files);
        FerritTools::ReleaseResult result;
        std::string error;
        ASSERT_TRUE(FerritTools::rollout(site(), manifest_, tree(), std::string(), signer(),
                                         std::string(), kPack,
                                         percent * FerritTools::kSharePerPercent, result, error))
            << error;
        serveTree();
    }
    void promote() {
        FerritTools::ReleaseResult result;
        std::string error;
        ASSERT_TRUE(FerritTools::promote(manifest_, tree(), std::string(), signer(), std::string(),
                                         std::string(), kPack, result, error))
            << error;
        serveTree();
    }
    void rollback() {
        FerritTools::ReleaseResult result;
        std::string error;
        ASSERT_TRUE(FerritTools::rollback(manifest_, tree(), std::string(), signer(), std::string(),
                                          kPack, 0, result, error))
            << error;
        serveTree();
    }

    // The global configuration as a device of no version fetches it, signature checked.
    std::shared_ptr<FConfig> globalDocument() const {
        std::string text;
        EXPECT_TRUE(FerritTools::readWholeFile(
            tree() + "/fconfig/" + kAppKey + "/" + kAppVersion + "/0~0/~", text));
        Error error;
        auto document = FConfig::parse(text, "tree", error, true);
        EXPECT_TRUE(document) << error.message();
        return document;
    }

    // A real device on this process's root: takes the global document in through the library's
    // merge (its install identifier read from the root), then updates the pack as far as the
    // record asks.
    void deviceFollows() {
        auto document = globalDocument();
        ASSERT_TRUE(document);
        SCache::mutate([&](FConfig& config) { config.merge(std::move(*document)); });
        drive();
        const PackPtr record = find(kPack);
        if (!record || record->installedSeq == record->seq) return;
        const Error error = update(kPack, kTriggerTimer);
        ASSERT_FALSE(error) << error.message();
        settle();
        ASSERT_EQ(find(kPack)->installedSeq, find(kPack)->seq);
    }

    void useInstallId(const std::string& id) {
        ASSERT_EQ(FileUtil::writeFile(temp_.root() + std::string(Rollout::kInstallIdFile), id), 0);
    }

    // Every path of `files` answers its bytes and no other path of the two versions answers.
    static void expectServesExactly(const PackFiles& files) {
        expectServes(files);
        for (const PackFiles* other : {&firstFiles(), &secondFiles(), &thirdFiles()}) {
            for (const auto& [path, unused] : *other) {
                if (files.count(path) != 0) continue;
                EXPECT_TRUE(read(path).error) << "still serves " << path;
            }
        }
    }

    bool downloadedAnyZip() const { return !zipsDownloaded().empty(); }
    std::vector<std::string> zipsDownloaded() const {
        std::vector<std::string> zips;
        for (const ProxyRequest& request : proxy_->requests)
            if (request.url.starts_with(kZipPrefix)) zips.push_back(request.url);
        return zips;
    }

    // Takes the device through 10%, 50%, promotion and rollback; `inFirstTen` says whether its
    // slot is in the first 10%.
    void followTheWholeStory(bool inFirstTen) {
        useInstallId(inFirstTen ? idWithSlot(0, 1000) : idWithSlot(1000, 5000));
        publish(firstFiles());
        deviceFollows();
        expectServesExactly(firstFiles());
        rollout(secondFiles(), 10);
        deviceFollows();
        expectServesExactly(inFirstTen ? secondFiles() : firstFiles());
        rollout(secondFiles(), 50);
        deviceFollows();
        expectServesExactly(secondFiles());
        proxy_->requests.clear();
        promote();
        deviceFollows();
        expectServesExactly(secondFiles());
        EXPECT_FALSE(downloadedAnyZip()) << "a promotion moves no device that has the version";
        rollback();
        deviceFollows();
        EXPECT_EQ(find(kPack)->seq, 3u);
        expectServesExactly(firstFiles());
    }

    FerritTools::PublishManifest manifest_;
};

TEST_F(RolloutSimulationTest, DeviceInTheFirstTenPercentServesEachStepExactly) {
    followTheWholeStory(true);
}

TEST_F(RolloutSimulationTest, DeviceThatJoinsAtFiftyPercentServesEachStepExactly) {
    followTheWholeStory(false);
}

TEST_F(RolloutSimulationTest, GrayRollbackReturnsTheShareToTheReleasedFilesExactly) {
    useInstallId(idWithSlot(0, 1000));
    publish(firstFiles());
    deviceFollows();
    rollout(secondFiles(), 10);
    deviceFollows();
    expectServesExactly(secondFiles());
    rollback();
    deviceFollows();
    EXPECT_EQ(find(kPack)->seq, 1u);
    expectServesExactly(firstFiles());
}

TEST_F(RolloutSimulationTest, FirstGrayRollbackRemovesThePackFromTheShare) {
    useInstallId(idWithSlot(0, 1000));
    rollout(secondFiles(), 10);
    deviceFollows();
    expectServesExactly(secondFiles());
    rollback();
    deviceFollows();
    EXPECT_EQ(find(kPack), nullptr);
    EXPECT_TRUE(read("index.html").error);
}

// 100,000 devices through 1, 10, 50 and 100%, a rollback of the rollout; then, on a second tree,
// 10%, promotion, and the rollback of the released version. The documents are published first;
// then each device goes through all of them in order, one device at a time.
TEST_F(RolloutSimulationTest, HundredThousandDevicesKeepTheirCohortAndEndOnTheReleasedFiles) {
    using Documents = std::vector<std::shared_ptr<FConfig>>;
    Documents story;  // released 1, then 1, 10, 50 and 100%, then the rollout taken back
    publish(firstFiles());
    story.push_back(globalDocument());
    for (uint32_t percent : kPercentSteps) {
        rollout(secondFiles(), percent);
        story.push_back(globalDocument());
    }
    rollback();
    story.push_back(globalDocument());
    fs::remove_all(tree());
    fs::remove_all(tree() + ".publish");
    Documents second;  // released 1, 10%, promoted, the released version rolled back
    publish(firstFiles());
    second.push_back(globalDocument());
    rollout(secondFiles(), 10);
    second.push_back(globalDocument());
    promote();
    second.push_back(globalDocument());
    rollback();
    second.push_back(globalDocument());
    for (const auto& document : story) ASSERT_TRUE(document);
    for (const auto& document : second) ASSERT_TRUE(document);

    // A device's record after the library's merge with its identifier, and its install as the
    // library records it.
    auto take = [](FConfig& device, const FConfig& document, const std::string& id) {
        device.merge(document, id);
        const PackPtr record = device.find(kPack);
        return record ? record->seq : 0;
    };
    auto install = [](FConfig& device) {
        const PackPtr record = device.find(kPack);
        if (record && record->installedSeq != record->seq)
            device.setInstalled(kPack, kTriggerTimer, record->seq, record->seq, 1, false);
    };
    constexpr size_t kSteps = std::size(kPercentSteps);
    std::vector<int> onGray(kSteps, 0);
    int left = 0;
    // (version held, version told) after each rollback, over every device.
    std::set<std::pair<uint64_t, uint64_t>> grayBack, releasedBack;
    for (int n = 0; n < kDevices; ++n) {
        const std::string id = deviceId(n);
        FConfig device;
        EXPECT_EQ(take(device, *story[0], id), 1u);
        install(device);
        bool hadGray = false;
        for (size_t step = 0; step < kSteps; ++step) {
            const uint64_t seq = take(device, *story[1 + step], id);
            if (seq == 2) ++onGray[step];
            if (hadGray && seq != 2) ++left;
            hadGray = seq == 2;
            install(device);
        }
        EXPECT_EQ(take(device, *story.back(), id), 1u);
        grayBack.insert({device.find(kPack)->installedSeq, 1});

        FConfig again;
        take(again, *second[0], id);
        install(again);
        take(again, *second[1], id);
        install(again);
        take(again, *second[2], id);
        // Half the devices are offline from the promotion on and install nothing more.
        if (n % 2 == 0) install(again);
        EXPECT_EQ(take(again, *second[3], id), 3u);
        releasedBack.insert({again.find(kPack)->installedSeq, 3});
    }
    for (size_t step = 0; step < kSteps; ++step) {
        std::cout << "rollout at " << kPercentSteps[step] << "%: " << onGray[step] << " of "
                  << kDevices << " devices\n";
    }
    for (size_t step = 0; step < kSteps; ++step)
        EXPECT_NEAR(onGray[step], kPercentSteps[step] * kDevices / 100.0, kTolerance)
            << kPercentSteps[step] << "%";
    EXPECT_EQ(left, 0) << "devices left the rollout as the share grew";
    // The gray version's record goes whole: every device downloads version 1 again, which
    // GrayRollbackReturnsTheShareToTheReleasedFilesExactly installs for real.
    EXPECT_EQ(grayBack, (std::set<std::pair<uint64_t, uint64_t>>{{0, 1}}));
    // Devices on 1 and on 2 are told 3, which the two story tests (from 2) and
    // ReleasedRollbackBringsDevicesOnEitherVersionToTheFirstFiles (from 1) install for real.
    EXPECT_EQ(releasedBack, (std::set<std::pair<uint64_t, uint64_t>>{{1, 3}, {2, 3}}));
    std::string three, one;
    ASSERT_TRUE(FerritTools::readWholeFile(tree() + "/packs/shop/3.zip", three));
    ASSERT_TRUE(FerritTools::readWholeFile(tree() + "/packs/shop/1.zip", one));
    EXPECT_EQ(three, one) << "version 3 holds exactly version 1's files";
}

// A device that took a version while it was in rollout holds, once it is promoted, the released
// version: a later, smaller rollout of the next version that leaves the device out must not take
// it back (which would throw its files away and download the whole version again), and the next
// version reaches it as an increment.
TEST_F(RolloutSimulationTest, DeviceOnAPromotedVersionTakesTheNextVersionAsAnIncrement) {
    useInstallId(idWithSlot(1000, 5000));
    publish(firstFiles());
    deviceFollows();
    rollout(secondFiles(), 50);
    deviceFollows();
    expectServesExactly(secondFiles());
    promote();
    deviceFollows();
    // Outside the next rollout's share: nothing to download, the promoted files served.
    proxy_->requests.clear();
    rollout(thirdFiles(), 10);
    deviceFollows();
    EXPECT_EQ(zipsDownloaded(), std::vector<std::string>{})
        << "a device on the released version was taken back to it";
    EXPECT_EQ(find(kPack)->seq, 2u);
    EXPECT_EQ(find(kPack)->grayState(), kGrayStateNormal) << "the promoted version is released";
    expectServesExactly(secondFiles());
    // In the share once it grows: the increment, not the full zip.
    rollout(thirdFiles(), 50);
    deviceFollows();
    expectServesExactly(thirdFiles());
    promote();
    deviceFollows();
    EXPECT_EQ(zipsDownloaded(), std::vector<std::string>{std::string(kZipPrefix) + "shop/i/3.zip"});
    expectServesExactly(thirdFiles());
}

// The pairs of (version held, version told) that the 100,000 devices reach after each rollback,
// installed for real: a device on version 1 and one on version 2 both end on exactly version 1's
// files through version 3's increment.
TEST_F(RolloutSimulationTest, ReleasedRollbackBringsDevicesOnEitherVersionToTheFirstFiles) {
    useInstallId(idWithSlot(0, 1000));
    publish(firstFiles());
    deviceFollows();
    rollout(secondFiles(), 10);
    promote();
    rollback();
    proxy_->requests.clear();
    deviceFollows();
    expectServesExactly(firstFiles());
    bool increment = false;
    for (const ProxyRequest& request : proxy_->requests)
        increment = increment || request.url == std::string(kZipPrefix) + "shop/i/3.zip";
    EXPECT_TRUE(increment) << "the device on version 1 took the increment";
}

}  // namespace
}  // namespace FerritTest
