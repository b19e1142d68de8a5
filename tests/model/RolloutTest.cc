// A staged rollout as a device reads it: the record names the released version, and beside it the
// version in rollout with its share ("rs", "rp", "rt"). A device places itself by its install
// identifier and the pack's name; in the share it takes the gray version, outside it the released
// one, and the merge's own gray and rollback rules take the version back.
#include <gtest/gtest.h>

#include <cctype>
#include <filesystem>
#include <string>

#include "base/FileUtil.h"
#include "model/Rollout.h"
#include "tests/model/UpdateFixture.h"

namespace FerritTest {
namespace {

constexpr const char* kPack = "shop";
constexpr uint32_t kTenPercent = 1000;
constexpr uint32_t kHalf = 5000;

// The first identifier "device-<n>" whose slot for `pack` lies in [low, high).
std::string idWithSlot(const std::string& pack, uint32_t low, uint32_t high) {
    for (int n = 0;; ++n) {
        std::string id = "device-" + std::to_string(n);
        const uint32_t slot = Rollout::cohortSlot(id, pack);
        if (slot >= low && slot < high) return id;
    }
}

class RolloutTest : public UpdateFixture {
  protected:
    // This device's identifier, as a host (or the test) may choose it before the first start.
    void useInstallId(const std::string& id) {
        ASSERT_EQ(FileUtil::writeFile(temp_.root() + std::string(Rollout::kInstallIdFile), id), 0);
    }
    std::string installIdPath() const {
        return temp_.root() + std::string(Rollout::kInstallIdFile);
    }
    // The global document of a rollout of `grayed` at `share` over the released `released`.
    static std::string rolloutDoc(uint64_t version, uint64_t released, uint64_t grayed,
                                  uint32_t share) {
        std::string record = R"({"f":80,"g":1,"t":1000,"p":["https://shop.test/"])";
        // With nothing released the record is marked deleted, as the publisher writes it.
        record += released != 0 ? R"(,"s":)" + std::to_string(released) : R"(,"status":4)";
        record += R"(,"rs":)" + std::to_string(grayed) + R"(,"rp":)" + std::to_string(share) +
                  R"(,"rt":2000})";
        return R"({"v":")" + std::to_string(version) + R"(","packs":{"shop":)" + record + "}}";
    }
    // Merges the document as a device that knows nothing of "rs", "rp" and "rt" would read it.
    void mergeIgnoringRolloutKeys(const std::string& text) {
        auto document = doc(text);
        SCache::mutate([&](FConfig& config) {
            for (const auto& [name, record] : document->packs()) {
                auto unaware = record->clone();
                unaware->rolloutSeq = 0;
                unaware->rolloutShare = 0;
                unaware->rolloutTime = 0;
                config.mergePack(unaware);
            }
        });
    }
    static PackPtr shop() { return SCache::current()->find(kPack); }
    // The device installed what its record names.
    static void installCurrent() {
        const PackPtr p = shop();
        ASSERT_NE(p, nullptr);
        SCache::mutate([&](FConfig& config) {
            config.setInstalled(kPack, kTriggerTimer, p->seq, p->seq, 100, false);
        });
    }
};

TEST_F(RolloutTest, SlotIsStablePerIdentifierAndPackAndBelowTheScale) {
    EXPECT_EQ(Rollout::cohortSlot("abc", kPack), Rollout::cohortSlot("abc", kPack));
    int differs = 0;
    for (int n = 0; n < 100; ++n) {
        const std::string id = "id" + std::to_string(n);
        EXPECT_LT(Rollout::cohortSlot(id, kPack), Rollout::kShareScale);
        if (Rollout::cohortSlot(id, kPack) != Rollout::cohortSlot(id, "cart")) ++differs;
    }
    EXPECT_GT(differs, 90) << "one device is not first in line for every pack";
    EXPECT_FALSE(Rollout::inCohort("", kPack, Rollout::kShareScale)) << "no identifier, no rollout";
    EXPECT_TRUE(Rollout::inCohort("abc", kPack, Rollout::kShareScale));
    EXPECT_FALSE(Rollout::inCohort("abc", kPack, 0));
}

TEST_F(RolloutTest, DeviceInTheShareTakesTheGrayVersion) {
    useInstallId(idWithSlot(kPack, 0, kTenPercent));
    mergeText(rolloutDoc(10, 1, 2, kTenPercent));
    ASSERT_NE(shop(), nullptr);
    EXPECT_EQ(shop()->seq, 2u);
    EXPECT_EQ(shop()->grayState(), kGrayStateGray);
    EXPECT_EQ(shop()->publishTime, 2000.0);
    EXPECT_EQ(shop()->baseSeq, 0u) << "the gray version's own document is asked for";
    EXPECT_FALSE(shop()->inRollout()) << "the stored record is what the device took";
}

TEST_F(RolloutTest, DeviceOutsideTheShareKeepsTheReleasedVersion) {
    useInstallId(idWithSlot(kPack, kTenPercent, Rollout::kShareScale));
    mergeText(rolloutDoc(10, 1, 2, kTenPercent));
    ASSERT_NE(shop(), nullptr);
    EXPECT_EQ(shop()->seq, 1u);
    EXPECT_EQ(shop()->grayState(), kGrayStateReleased);
}

TEST_F(RolloutTest, RaisingTheShareKeepsTheDeviceAndBringsInAnother) {
    const std::string early = idWithSlot(kPack, 0, kTenPercent);
    const std::string later = idWithSlot(kPack, kTenPercent, kHalf);
    for (const std::string& id : {early, later}) {
        // A device of its own: a fresh root and an empty configuration.
        TempDir device;
        setRootPath(device.root());
        SCache::publish(std::make_shared<FConfig>());
        ASSERT_EQ(FileUtil::writeFile(device.root() + std::string(Rollout::kInstallIdFile), id), 0);
        mergeText(rolloutDoc(10, 1, 2, kTenPercent));
        EXPECT_EQ(shop()->seq, id == early ? 2u : 1u);
        installCurrent();
        mergeText(rolloutDoc(11, 1, 2, kHalf));
        EXPECT_EQ(shop()->seq, 2u);
        EXPECT_EQ(shop()->installedSeq, id == early ? 2u : 1u)
            << "the early device keeps what it installed";
    }
    setRootPath(temp_.root());
}

TEST_F(RolloutTest, TakingTheRolloutBackReturnsTheShareToTheReleasedVersion) {
    useInstallId(idWithSlot(kPack, 0, kTenPercent));
    mergeText(rolloutDoc(10, 1, 2, kTenPercent));
    installCurrent();
    const PackPtr gray = shop();
    // The rollback: the released version, marked released, and a share of nobody.
    FConfigPtr after;
    SCache::mutate([&](FConfig& config) {
        config.merge(*doc(rolloutDoc(11, 1, 2, 0)));
        EXPECT_EQ(config.removed.count(gray), 1u) << "the gray version's files go";
    });
    ASSERT_NE(shop(), nullptr);
    EXPECT_EQ(shop()->seq, 1u);
    EXPECT_EQ(shop()->installedSeq, 0u) << "downloaded again at the released sequence";
    EXPECT_EQ(logs_->last("remove", "Ferrit/FConfig").field("reason").stringValue(),
              "Rollback gray");
}

// Version 2 taken in a rollout and promoted since: a later rollout of version 3 that leaves the
// device out names version 2 released, which is what the device holds. It keeps its files, and
// its record loses the gray mark.
TEST_F(RolloutTest, DeviceOutsideTheNextShareKeepsThePromotedVersionItTookGray) {
    useInstallId(idWithSlot(kPack, kTenPercent, kHalf));
    mergeText(rolloutDoc(10, 1, 2, kHalf));
    // The gray version's own document, which names its base.
    mergeText(R"({"v":"10","packs":{"shop":{"s":2,"b":1,"g":2,"f":80,"t":2000,)"
              R"("p":["https://shop.test/"]}}})");
    installCurrent();
    ASSERT_EQ(shop()->grayState(), kGrayStateGray);
    ASSERT_EQ(shop()->baseSeq, 1u);
    mergeText(R"({"v":"11","packs":{"shop":{"s":2,"f":80,"t":2000,"p":["https://shop.test/"]}}})");
    ASSERT_EQ(shop()->grayState(), kGrayStateGray) << "a promotion's record moves nothing";
    const PackPtr held = shop();
    SCache::mutate([&](FConfig& config) {
        config.merge(*doc(rolloutDoc(12, 2, 3, kTenPercent)));
        EXPECT_EQ(config.removed.count(held), 0u) << "the promoted version's files stay";
    });
    EXPECT_EQ(shop()->seq, 2u);
    EXPECT_EQ(shop()->installedSeq, 2u);
    EXPECT_EQ(shop()->grayState(), kGrayStateNormal);
}

// The gray rules of documents without the rollout keys stay as they are: a released record of
// the sequence a device holds gray takes the gray version back.
TEST_F(RolloutTest, RecordWithoutRolloutKeysStillTakesBackTheGrayVersionOfItsSequence) {
    useInstallId(idWithSlot(kPack, 0, kTenPercent));
    mergeText(rolloutDoc(10, 1, 2, kTenPercent));
    installCurrent();
    const PackPtr gray = shop();
    SCache::mutate([&](FConfig& config) {
        config.merge(*doc(
            R"({"v":"11","packs":{"shop":{"s":2,"g":1,"f":80,"t":3000,"p":["https://shop.test/"]}}})"));
        EXPECT_EQ(config.removed.count(gray), 1u);
    });
    EXPECT_EQ(shop()->installedSeq, 0u);
    EXPECT_EQ(logs_->last("remove", "Ferrit/FConfig").field("reason").stringValue(),
              "Rollback gray");
}

TEST_F(RolloutTest, TakingBackAFirstGrayRemovesThePackFromTheShareOnly) {
    useInstallId(idWithSlot(kPack, 0, kTenPercent));
    mergeText(rolloutDoc(10, 0, 1, kTenPercent));
    ASSERT_NE(shop(), nullptr);
    EXPECT_EQ(shop()->seq, 1u);
    installCurrent();
    mergeText(rolloutDoc(11, 0, 1, 0));
    EXPECT_EQ(shop(), nullptr);
    EXPECT_EQ(logs_->last("remove", "Ferrit/FConfig").field("reason").stringValue(),
              "Rollback first gray");
}

TEST_F(RolloutTest, FirstGrayIsNoRecordAtAllOutsideTheShare) {
    useInstallId(idWithSlot(kPack, kTenPercent, Rollout::kShareScale));
    mergeText(rolloutDoc(10, 0, 1, kTenPercent));
    EXPECT_EQ(shop(), nullptr) << "nothing is released: no record that would ask for version 0";
    mergeText(rolloutDoc(11, 0, 1, 0));
    EXPECT_EQ(shop(), nullptr);
}

TEST_F(RolloutTest, PromotedRecordKeepsTheGrayInstallWithoutADownload) {
    useInstallId(idWithSlot(kPack, 0, kTenPercent));
    mergeText(rolloutDoc(10, 1, 2, kTenPercent));
    installCurrent();
    mergeText(R"({"v":"12","packs":{"shop":{"s":2,"f":80,"t":2000}}})");
    EXPECT_EQ(shop()->seq, 2u);
    EXPECT_EQ(shop()->installedSeq, 2u);
    EXPECT_TRUE(SCache::current()->find(kPack) != nullptr);
}

// A device that knows nothing of "rs", "rp" and "rt" reads the same record as the released
// version alone, as the merge always did for a device outside the gray group.
TEST_F(RolloutTest, DeviceIgnoringTheRolloutKeysReadsTheReleasedVersion) {
    useInstallId(idWithSlot(kPack, 0, kTenPercent));
    mergeIgnoringRolloutKeys(rolloutDoc(10, 1, 2, kTenPercent));
    EXPECT_EQ(shop()->seq, 1u);
    EXPECT_EQ(shop()->grayState(), kGrayStateReleased);
}

// During a first rollout, a device that does not know the keys sees no pack at all (the record
// says it is deleted), not one of version 0 whose document it would ask for in vain.
TEST_F(RolloutTest, DeviceIgnoringTheRolloutKeysSeesNoPackDuringAFirstRollout) {
    useInstallId(idWithSlot(kPack, 0, kTenPercent));
    mergeIgnoringRolloutKeys(rolloutDoc(10, 0, 1, kTenPercent));
    EXPECT_EQ(shop(), nullptr);
}

// A document without the keys merges exactly as before and never reads nor makes an identifier.
TEST_F(RolloutTest, DocumentWithoutRolloutKeysMergesAsBeforeAndTouchesNoIdentifier) {
    mergeText(R"({"v":"10","packs":{"shop":{"s":2,"f":80,"g":2,"t":1000}}})");
    installCurrent();
    EXPECT_FALSE(std::filesystem::exists(installIdPath()));
    const PackPtr gray = shop();
    SCache::mutate([&](FConfig& config) {
        config.merge(*doc(R"({"v":"11","packs":{"shop":{"s":1,"f":80,"g":1}}})"));
        EXPECT_EQ(config.removed.count(gray), 1u);
    });
    EXPECT_EQ(shop()->seq, 1u);
    EXPECT_EQ(shop()->installedSeq, 0u);
    EXPECT_FALSE(std::filesystem::exists(installIdPath()));
}

TEST_F(RolloutTest, IdentifierIsMadeOnceAndKept) {
    const std::string first = Rollout::loadInstallId(temp_.root());
    ASSERT_EQ(first.size(), 2 * Rollout::kInstallIdBytes);
    for (char c : first) EXPECT_TRUE(std::isxdigit(static_cast<unsigned char>(c))) << first;
    EXPECT_EQ(Rollout::loadInstallId(temp_.root()), first);
    std::string stored;
    ASSERT_EQ(FileUtil::readFile(installIdPath(), stored), 0);
    EXPECT_EQ(stored, first + "\n");
    TempDir other;
    EXPECT_NE(Rollout::loadInstallId(other.root()), first) << "random per install";
    for (const auto& entry : std::filesystem::directory_iterator(temp_.path()))
        EXPECT_EQ(entry.path().filename(), Rollout::kInstallIdFile) << "no temporary file left";
}

TEST_F(RolloutTest, IdentifierChosenBeforeTheFirstStartIsRead) {
    useInstallId("chosen-id\n");
    EXPECT_EQ(Rollout::installId(), "chosen-id");
}

TEST_F(RolloutTest, IdentifierThatFailedOnceIsReadAgainAtTheNextDocument) {
    // The first read fails (a folder stands where the identifier's file goes); the device is out
    // of the share for that document only.
    const std::string id = idWithSlot(kPack, 0, kTenPercent);
    ASSERT_EQ(FileUtil::makeDirectory(installIdPath()), 0);
    EXPECT_EQ(Rollout::installId(), "");
    mergeText(rolloutDoc(10, 1, 2, kTenPercent));
    EXPECT_EQ(shop()->seq, 1u);
    // Readable again: the next document places the device by its identifier.
    ASSERT_EQ(FileUtil::removeDirectory(installIdPath()), 0);
    useInstallId(id);
    mergeText(rolloutDoc(11, 1, 2, kTenPercent));
    EXPECT_EQ(Rollout::installId(), id);
    EXPECT_EQ(shop()->seq, 2u) << "in the share once its identifier reads";
}

TEST_F(RolloutTest, RootThatCannotHoldTheIdentifierLeavesTheDeviceOutOfEveryRollout) {
    // A root whose path is taken by a file: nothing can be made below it, as on a read-only root.
    const std::string blocked = temp_.root() + "file";
    ASSERT_EQ(FileUtil::writeFile(blocked, "x"), 0);
    EXPECT_EQ(Rollout::loadInstallId(blocked + "/"), "");
    setRootPath(blocked);
    mergeText(rolloutDoc(10, 1, 2, Rollout::kShareScale));
    EXPECT_EQ(shop()->seq, 1u) << "not even a share of every device takes it";
    EXPECT_EQ(logs_->last("installId", "Ferrit/FConfig").field("effect").stringValue(),
              "out of every rollout");
}

}  // namespace
}  // namespace FerritTest
