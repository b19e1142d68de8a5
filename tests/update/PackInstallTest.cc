// Pack installs end to end: the queue makes a task, the task fetches through the test proxy, and
// the installed version is read back through Access. Zips come from the pack kit, signed with the
// test key; one is made by the Debian zip command.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "access/Reader.h"
#include "access/UpdateRequester.h"
#include "base/Errors.h"
#include "base/FileUtil.h"
#include "base/Url.h"
#include "storage/KeyValueStore.h"
#include "storage/Statistics.h"
#include "storage/ZipFile.h"
#include "tests/storage/StoreFixture.h"
#include "tests/update/InstallFixture.h"
#include "tools/pack/ZipWriter.h"
#include "update/PackInstaller.h"
#include "update/QueueRequester.h"

namespace FerritTest {

namespace Errors = FerritCore::Errors;
namespace {

using MarlLogger::json::JSON;

class PackInstallTest : public InstallFixture {
  protected:
    // "shop", a plain incremental pack, installed at seq 1 (base 1) from version 1.
    void installShop1() {
        ASSERT_NO_FATAL_FAILURE(installShop());
        ASSERT_EQ(find("shop")->installedSeq, 1u);
        proxy_->requests.clear();
        proxy_->updatedPacks.clear();
        proxy_->clearRecords();
    }
    // "app", an app pack, installed at seq 1 from version 1.
    void installApp1() {
        put({record("app", kPackTypeACache, 1, 1, kPriorityAutoInstall)});
        serveFull("app", 1, zipOf(version1()), kAppZipPrefix);
        const Error error = update("app", kTriggerTimer);
        ASSERT_FALSE(error) << error.message();
        ASSERT_EQ(find("app")->installedSeq, 1u);
        proxy_->requests.clear();
        proxy_->clearRecords();
    }
    // A newer configured version of a record, keeping what is installed.
    void configure(const std::string& name, uint64_t seq, uint64_t baseSeq,
                   const std::string& md5 = {}, const std::string& incrMd5 = {}) {
        auto p = find(name)->clone();
        p->seq = seq;
        p->baseSeq = baseSeq;
        p->md5 = md5;
        p->incrMd5 = incrMd5;
        put({p});
    }
    // Version 2 of "shop" configured as an increment on version 1, and its zip served.
    void offerIncrementToVersion2() {
        const std::string increment = incrementOf(version1(), version2());
        configure("shop", 2, 1, "", Digest::md5Hex(increment));
        serveIncrement("shop", 2, increment);
    }
    std::vector<std::string> urls() const {
        std::vector<std::string> out;
        for (const ProxyRequest& request : proxy_->requests) out.push_back(request.url);
        return out;
    }
    // The configuration the packs store holds, as a restart would load it.
    static PackPtr stored(const std::string& name) {
        const ErrorOr<std::string> text = PacksStore::instance().readConfig();
        if (!text.ok()) return nullptr;
        Error error;
        std::shared_ptr<FConfig> document =
            FConfig::parse(*text, "local", error, /*checkSignature=*/false);
        return document ? document->find(name) : nullptr;
    }
};

// ---- Full and incremental installs ------------------------------------------------------------

TEST_F(PackInstallTest, FullInstallOfAPlainPackServesEveryFile) {
    installShop1();
    PackPtr installed = find("shop");
    EXPECT_TRUE(installed->isPacks);
    EXPECT_EQ(installed->installedBaseSeq, 1u);
    expectServes(version1());
    EXPECT_TRUE(tempLeft().empty());
    EXPECT_FALSE(packedKeys("shop/1/").empty());
    EXPECT_EQ(stored("shop")->installedSeq, 1u);
}

// A host that gave no pack server and a build that compiled none in: the install fails in words
// that name the missing setting, and nothing is requested or left behind.
TEST_F(PackInstallTest, NoPackServerFailsInWordsAndSendsNothing) {
    if (!Settings::builtinZipPrefix().empty()) GTEST_SKIP() << "this build compiles a server in";
    HostDefaults defaults;
    defaults.configPrefix = kConfigPrefix;
    Settings::setDefaults(defaults);
    auto p = record("shop", kPackTypeFerrit, 1, 1, kPriorityAutoInstall);
    p->md5 = Digest::md5Hex(zipOf(version1()));
    put({p});
    const Error error = update("shop", kTriggerTimer);
    EXPECT_EQ(error.code(), Errors::kNoServerAddress);
    EXPECT_EQ(error.message(), "No server address: the host set no pack server (zipPrefixRelease)");
    EXPECT_TRUE(proxy_->requests.empty());
    EXPECT_TRUE(tempLeft().empty());
    EXPECT_FALSE(find("shop")->isInstalled());
}

TEST_F(PackInstallTest, FullInstallOfAnAppWritesItsFolder) {
    installApp1();
    EXPECT_FALSE(find("app")->isPacks);
    EXPECT_EQ(readDisk("apps/app/1/res/js/app.js"), "console.log('v1');");
    EXPECT_TRUE(onDisk("apps/app/1/app-res.hvc"));
    EXPECT_FALSE(onDisk("apps/app/1/app-res-incr.hvc"));
    expectServes(version1());
    EXPECT_TRUE(tempLeft().empty());
}

// Counts the syncs that reach the system.
class SyncCountingCalls : public FileUtil::Calls {
  public:
    int syncData(int fd) override {
        ++dataSyncs;
        return Calls::syncData(fd);
    }
    int syncDirectory(int fd) override {
        ++directorySyncs;
        return Calls::syncDirectory(fd);
    }
    int syncFileSystem(int fd) override {
        ++fileSystemSyncs;
        return Calls::syncFileSystem(fd);
    }
    int dataSyncs = 0, directorySyncs = 0, fileSystemSyncs = 0;
};

class ScopedCalls {
  public:
    explicit ScopedCalls(FileUtil::Calls* calls) { FileUtil::setCalls(calls); }
    ~ScopedCalls() { FileUtil::setCalls(nullptr); }
};

TEST_F(PackInstallTest, AppOfFewFilesIsMadeDurableFileByFile) {
    ASSERT_LT(version1().size() + 1, PackInstaller::kOneSyncFromFiles);
    SyncCountingCalls calls;
    {
        ScopedCalls scoped(&calls);
        installApp1();
    }
    EXPECT_EQ(calls.fileSystemSyncs, 0);
    // Every file written (the pages and the signed list), and each directory of the version.
    EXPECT_GE(calls.dataSyncs, static_cast<int>(version1().size()));
    EXPECT_GE(calls.directorySyncs, 4);
    expectServes(version1());
}

TEST_F(PackInstallTest, AppOfManyFilesIsMadeDurableByOneSyncOfTheFileSystem) {
    PackFiles files;
    for (size_t i = 0; i < PackInstaller::kOneSyncFromFiles; ++i)
        files["js/part" + std::to_string(i) + ".js"] =
            "export const part = " + std::to_string(i) + ";";
    put({record("app", kPackTypeACache, 1, 1, kPriorityAutoInstall)});
    serveFull("app", 1, zipOf(files), kAppZipPrefix);
    SyncCountingCalls calls;
    Error error;
    {
        ScopedCalls scoped(&calls);
        error = update("app", kTriggerTimer);
    }
    ASSERT_FALSE(error) << error.message();
    EXPECT_EQ(calls.fileSystemSyncs, 1);
    EXPECT_EQ(calls.dataSyncs, 0);
    ASSERT_EQ(find("app")->installedSeq, 1u);
    expectServes(files);
    EXPECT_TRUE(tempLeft().empty());
}

TEST_F(PackInstallTest, InstalledSizeCountsTheListAndEveryFile) {
    installShop1();
    uint64_t expected = indexOf(version1()).size();
    for (const auto& [path, content] : version1()) expected += content.size();
    EXPECT_EQ(find("shop")->installedSize, expected);
}

TEST_F(PackInstallTest, IncrementalInstallWithTheSameBaseSeqCopiesTheUnchangedFiles) {
    installShop1();
    offerIncrementToVersion2();

    const Error error = update("shop", kTriggerTimer);
    ASSERT_FALSE(error) << error.message();
    EXPECT_EQ(urls(), (std::vector<std::string>{"https://dl.test/shop/i/2.zip"}));
    EXPECT_EQ(find("shop")->installedSeq, 2u);
    expectServes(version2());
    // The removed file is gone from the new version.
    EXPECT_EQ(read("old.txt").error.code(), Errors::kNotFerritPackResource);
    const std::vector<std::string> keys = packedKeys("shop/2/");
    EXPECT_NE(std::find(keys.begin(), keys.end(), "shop/2/app-res-incr.hvc"), keys.end());
    EXPECT_NE(std::find(keys.begin(), keys.end(), "shop/2/app-res.hvc"), keys.end());
    EXPECT_EQ(std::find(keys.begin(), keys.end(), "shop/2/res/old.txt"), keys.end());
    // Size: the increment's list, the changed and added files, and the copies (the first full
    // list and the unchanged files).
    std::string incrementList;
    Error error2;
    ASSERT_TRUE(PackedFiles::current()->get("shop/2/app-res-incr.hvc", incrementList, error2));
    uint64_t expected = incrementList.size() + indexOf(version1()).size();
    for (const auto& [path, content] : version2()) expected += content.size();
    EXPECT_EQ(find("shop")->installedSize, expected);
    settle();
    EXPECT_TRUE(packedKeys("shop/1/").empty());
    EXPECT_TRUE(tempLeft().empty());
}

// The unchanged files of an increment name the bytes that version 1 stored: none is written
// again. Once version 1 goes, its files' bytes that version 2 still has stay, the rest go with it;
// once version 2 goes too, nothing is left.
TEST_F(PackInstallTest, IncrementalInstallSharesTheUnchangedFilesBytes) {
    installShop1();
    const std::string database = temp_.root() + "packs/" + KeyValueStore::kFileName;
    const auto query = [&](const std::string& sql) { return FerritTest::rawQuery(database, sql); };
    const std::string orphans =
        "SELECT count(*) FROM content WHERE NOT EXISTS (SELECT 1 FROM kv WHERE kv.c = content.h)";
    // Every file of version 1 under the pack and its checked MD5; the list holds its bytes itself.
    EXPECT_EQ(query("SELECT count(*) FROM content"), std::to_string(version1().size()));
    offerIncrementToVersion2();
    const Error error = update("shop", kTriggerTimer);
    ASSERT_FALSE(error) << error.message();
    expectServes(version2());
    // Two files more (the changed page and the new script), and the unchanged ones the same rows.
    EXPECT_EQ(query("SELECT count(*) FROM content"), std::to_string(version1().size() + 2));
    EXPECT_EQ(query("SELECT c FROM kv WHERE k = CAST('shop/2/res/js/app.js' AS BLOB)"),
              "shop/" + Digest::md5Hex(version1().at("js/app.js")))
        << "named by the pack and the MD5, so no other pack reaches it";
    EXPECT_EQ(query("SELECT count(*) FROM kv WHERE k >= CAST('shop/2/res/' AS BLOB) AND "
                    "k < CAST('shop/2/res0' AS BLOB) AND c IS NULL"),
              "0")
        << "every file of version 2 names its bytes";
    settle();
    ASSERT_TRUE(packedKeys("shop/1/").empty());
    expectServes(version2());
    EXPECT_EQ(query("SELECT count(*) FROM content"), std::to_string(version2().size()));
    EXPECT_EQ(query(orphans), "0");
    PackedFiles::current()->removeByPrefix("shop/2/");
    EXPECT_EQ(query("SELECT count(*) FROM content"), "0");
}

TEST_F(PackInstallTest, IncrementalInstallOnTheDiskLinksTheUnchangedFiles) {
    // A plain pack installed on the disk by an older build: the increment reads it from there.
    auto p = record("shop", kPackTypeFerrit, 1, 1);
    p->installedSeq = 1;
    p->installedBaseSeq = 1;
    put({p});
    writeVersion(Folder::disk("apps/shop/1/"), version1());
    offerIncrementToVersion2();
    const Error error = update("shop", kTriggerTimer);
    ASSERT_FALSE(error) << error.message();
    expectServes(version2());
}

// Edge: incremental needs the same baseSeq on both sides; otherwise the full zip is fetched and
// its md5 is checked.
TEST_F(PackInstallTest, IncrementalNeedsTheSameBaseSeqElseTheFullZipIsFetchedAndItsMd5Checked) {
    installShop1();
    const std::string full = zipOf(version2());
    configure("shop", 3, 3, Digest::md5Hex(full), "ignored-for-a-full-zip");
    serveFull("shop", 3, full);
    serveIncrement("shop", 3, incrementOf(version1(), version2()));
    Error error = update("shop", kTriggerTimer);
    ASSERT_FALSE(error) << error.message();
    EXPECT_EQ(urls(), (std::vector<std::string>{"https://dl.test/shop/3.zip"}));
    EXPECT_EQ(find("shop")->installedBaseSeq, 3u);
    expectServes(version2());

    // The same with an MD5 that is not the zip's: refused.
    configure("shop", 4, 4, "0123456789abcdef0123456789abcdef");
    serveFull("shop", 4, full);
    error = update("shop", kTriggerTimer);
    EXPECT_EQ(error.code(), Errors::kFileVerify);
    EXPECT_EQ(error.message(), "file \"temp/shop_4_0/origin.zip\" verify failed: MD5 \"" +
                                   Digest::md5Hex(full) +
                                   "\" different with expectation "
                                   "\"0123456789abcdef0123456789abcdef\"");
    EXPECT_EQ(find("shop")->installedSeq, 3u);
    expectServes(version2());
}

TEST_F(PackInstallTest, IncrementalWithAWrongMd5IsRefused) {
    installShop1();
    configure("shop", 2, 1, "", "0123456789abcdef0123456789abcdef");
    serveIncrement("shop", 2, incrementOf(version1(), version2()));
    EXPECT_EQ(update("shop", kTriggerTimer).code(), Errors::kFileVerify);
    EXPECT_EQ(find("shop")->installedSeq, 1u);
    expectServes(version1());
    EXPECT_TRUE(packedKeys("shop/2/").empty());
}

TEST_F(PackInstallTest, IncrementalWhoseInstalledFolderIsGoneMarksThePackForReinstall) {
    installShop1();
    PackedFiles::current()->removeByPrefix("shop/1/");
    ResourceIndexPool::clear();
    offerIncrementToVersion2();
    const Error error = update("shop", kTriggerTimer);
    EXPECT_EQ(error.code(), Errors::kFileNotExists);
    EXPECT_EQ(error.message(), "file \"/Packs/shop/1/\" not exists");
    EXPECT_EQ(find("shop")->status, kPackStatusNeedReinstall);
    EXPECT_EQ(find("shop")->installedSeq, 1u);
    EXPECT_TRUE(packedKeys("shop/2/").empty());
    // The next run fetches the full zip, the status says so.
    serveFull("shop", 2, zipOf(version2()));
    proxy_->requests.clear();
    EXPECT_FALSE(update("shop", kTriggerTimer));
    EXPECT_EQ(urls(), (std::vector<std::string>{"https://dl.test/shop/2.zip"}));
    EXPECT_EQ(find("shop")->status, kPackStatusNormal);
    expectServes(version2());
}

// Edge: a fixed sequence with a wrong md5 is accepted: the check is skipped for fixed sequences.
TEST_F(PackInstallTest, FixedSequenceWithAWrongMd5IsAccepted) {
    auto p = record("app@4", kPackTypeACache, 4, 4, kPriorityAutoInstall);
    p->subType = kSubTypeFixedSeq;
    p->md5 = "0123456789abcdef0123456789abcdef";
    put({p});
    serveFull("app", 4, zipOf(version1()), kAppZipPrefix);
    const Error error = update("app@4", kTriggerTimer);
    EXPECT_FALSE(error) << error.message();
    EXPECT_EQ(find("app@4")->installedSeq, 4u);
    EXPECT_EQ(readDisk("apps/app/4/res/index.html"), version1().at("index.html"));
}

TEST_F(PackInstallTest, WrappedInstallUnwrapsTheImageAndChecksTheZipsMd5) {
    const std::string zip = zipOf(version1());
    std::string png, error;
    ASSERT_TRUE(FerritTools::wrapPayload(zip, 5, png, error)) << error;
    auto p = record("shop", kPackTypeFerrit, 5, 5, kPriorityAutoInstall);
    p->flags |= uint64_t{kPayloadWrapped} << 16;
    p->md5 = Digest::md5Hex(zip);
    put({p});
    Settings::change([](Settings& s) { s.encryptionTypeRemote = 1; });
    proxy_->serve("https://dl.test/shop/5.png", 200, png);
    const Error result = update("shop", kTriggerTimer);
    ASSERT_FALSE(result) << result.message();
    EXPECT_EQ(find("shop")->installedSeq, 5u);
    expectServes(version1());
}

TEST_F(PackInstallTest, WrappedInstallWithADamagedImageIs2301) {
    const std::string zip = zipOf(version1());
    std::string png, error;
    ASSERT_TRUE(FerritTools::wrapPayload(zip, 5, png, error)) << error;
    png[png.size() - 6] ^= 0x55;  // inside the CRC
    auto p = record("shop", kPackTypeFerrit, 5, 5, kPriorityAutoInstall);
    p->flags |= uint64_t{kPayloadWrapped} << 16;
    put({p});
    Settings::change([](Settings& s) { s.encryptionTypeRemote = 1; });
    proxy_->serve("https://dl.test/shop/5.png", 200, png);
    const Error result = update("shop", kTriggerTimer);
    EXPECT_EQ(result.code(), Errors::kDecryptFailed);
    EXPECT_EQ(
        result.message().rfind("decrypt \"temp/shop_5_0/origin.zip\" using Type-A failed: CRC", 0),
        0u)
        << result.message();
    EXPECT_TRUE(tempLeft().empty());
}

// A zip served as ".zip" is never unwrapped, whatever its bytes.
TEST_F(PackInstallTest, ZipDownloadIsNotUnwrapped) {
    std::string png, error;
    ASSERT_TRUE(FerritTools::wrapPayload(zipOf(version1()), 5, png, error)) << error;
    auto p = record("shop", kPackTypeFerrit, 5, 5, kPriorityAutoInstall);
    p->flags |= uint64_t{kPayloadWrapped} << 16;
    put({p});
    serveFull("shop", 5, png);  // encryption is off: the task asks for ".zip"
    EXPECT_EQ(update("shop", kTriggerTimer).code(), Errors::kUnzipFailed);
}

TEST_F(PackInstallTest, RawInstallUnpacksTheWholeZipUnderRes) {
    const std::string url = "https://cdn.test/whole-app.zip";
    PackContent content;
    std::string zip, error;
    {
        // A raw app is any zip: no list, files at its top.
        FerritTools::ZipWriter writer;
        ASSERT_TRUE(writer.addFile("index.html", "<html>raw</html>", error)) << error;
        ASSERT_TRUE(writer.addDirectory("js/", error)) << error;
        ASSERT_TRUE(writer.addFile("js/main.js", "main()", error)) << error;
        ASSERT_TRUE(writer.finish(zip, error)) << error;
    }
    proxy_->serve(url, 200, zip);
    const Error result = update(url, kTriggerVisit);
    ASSERT_FALSE(result) << result.message();
    const std::string name = Digest::md5Hex(Url::key(url));
    PackPtr installed = find(name);
    ASSERT_NE(installed, nullptr);
    EXPECT_EQ(installed->installedSeq, 1u);
    EXPECT_EQ(installed->subType, kSubTypeFixedUrl);
    EXPECT_FALSE(installed->isPacks);
    EXPECT_EQ(installed->installedSize, 22u);
    EXPECT_EQ(readDisk("apps/" + name + "/1/res/index.html"), "<html>raw</html>");
    EXPECT_EQ(readDisk("apps/" + name + "/1/res/js/main.js"), "main()");
    EXPECT_EQ(proxy_->requests.at(0).url, url);
    EXPECT_TRUE(tempLeft().empty());
}

TEST_F(PackInstallTest, RawInstallOfAHostileZipLeavesNothing) {
    const std::string url = "https://cdn.test/evil.zip";
    std::string zip, error;
    FerritTools::ZipWriter writer;
    ASSERT_TRUE(writer.addFile("ok.html", "fine", error)) << error;
    ASSERT_TRUE(writer.addFile("../escape.txt", "x", error)) << error;
    ASSERT_TRUE(writer.finish(zip, error)) << error;
    proxy_->serve(url, 200, zip);
    EXPECT_EQ(update(url, kTriggerVisit).code(), Errors::kUnzipFailed);
    EXPECT_EQ(find(Digest::md5Hex(Url::key(url))), nullptr);
    EXPECT_FALSE(onDisk("apps/" + Digest::md5Hex(Url::key(url))));
    EXPECT_FALSE(onDisk("escape.txt"));
    EXPECT_TRUE(tempLeft().empty());
}

// ---- The hot-pack rule ------------------------------------------------------------------------

// Edge: the old folder stays after an install when persistOld is true, and "name@seq" points to it.
TEST_F(PackInstallTest, PersistOldKeepsTheOldFolderAndANameAtSeqRecordPointsToIt) {
    installApp1();
    Statistics::addAccess("app@1", nullptr, 2.0);  // hot
    configure("app", 2, 2);
    serveFull("app", 2, zipOf(version2()), kAppZipPrefix);
    const Error error = update("app", kTriggerTimer);
    ASSERT_FALSE(error) << error.message();
    settle();
    EXPECT_EQ(find("app")->installedSeq, 2u);
    PackPtr old = find("app@1");
    ASSERT_NE(old, nullptr);
    EXPECT_EQ(old->subType, kSubTypeFixedSeq);
    EXPECT_EQ(old->seq, 1u);
    EXPECT_EQ(old->baseSeq, 1u);
    EXPECT_EQ(old->installedSeq, 1u);
    EXPECT_TRUE(old->md5.empty());
    EXPECT_EQ(old->installedFolder().relative(), "apps/app/1/");
    EXPECT_TRUE(onDisk("apps/app/1/res/index.html"));
    // Readable as version 1 through a reader that pins it.
    std::shared_ptr<Reader> reader;
    Reader::load({"app", "app@1", ""}, [&](std::shared_ptr<Reader> r, const Error& e) {
        EXPECT_FALSE(e) << e.message();
        reader = std::move(r);
    });
    ASSERT_NE(reader, nullptr);
    Error readError;
    EXPECT_EQ(reader->read("//shop.test/app/index.html", nullptr, readError),
              version1().at("index.html"));
    EXPECT_FALSE(readError) << readError.message();
    expectServes(version2());
}

TEST_F(PackInstallTest, ColdAppDropsItsOldVersion) {
    installApp1();
    configure("app", 2, 2);
    serveFull("app", 2, zipOf(version2()), kAppZipPrefix);
    ASSERT_FALSE(update("app", kTriggerTimer));
    EXPECT_EQ(find("app@1"), nullptr);
    // The old folder outlives the swap by a moment, for reads that began before it.
    EXPECT_TRUE(onDisk("apps/app/1/res/index.html"));
    settle();
    EXPECT_FALSE(onDisk("apps/app/1"));
    EXPECT_TRUE(onDisk("apps/app/2/res/index.html"));
}

TEST_F(PackInstallTest, FixedVersionOfAnUninstalledAppTakesThePlainRecordsPlace) {
    put({record("app", kPackTypeACache, 5, 5)});
    auto fixed = record("app@4", kPackTypeACache, 4, 4);
    fixed->subType = kSubTypeFixedSeq;
    serveFull("app", 4, zipOf(version1()), kAppZipPrefix);
    UpdatePackPtr task =
        UpdatePack::create("app", JSON::parse(R"({"s":4,"b":4,"f":64})"), kTriggerVisit);
    ASSERT_EQ(task->name(), "app@4");
    const Error error = run(task);
    ASSERT_FALSE(error) << error.message();
    EXPECT_EQ(find("app@4"), nullptr);
    EXPECT_EQ(read("index.html").error.message(), "");
    EXPECT_EQ(find("app")->installedSeq, 4u);
    EXPECT_EQ(find("app")->seq, 4u);
    expectServes(version1());
}

// ---- Reads around an install ------------------------------------------------------------------

TEST_F(PackInstallTest, ReadDuringTheInstallGivesTheOldBytesAndAfterItTheNew) {
    installShop1();
    const std::string increment = incrementOf(version1(), version2());
    configure("shop", 2, 1, "", Digest::md5Hex(increment));
    FakeProxy::Answer held;
    held.body = increment;
    held.hold = true;
    proxy_->serve("https://dl.test/shop/i/2.zip", held);
    Error result(-1, "never completed");
    UpdateQueue::request("shop", kTriggerTimer, [&](const Error& error) { result = error; });
    drive();
    ASSERT_EQ(proxy_->requests.size(), 1u);  // the download is under way
    expectServes(version1());
    EXPECT_EQ(proxy_->release(), 1u);
    drive();
    ASSERT_FALSE(result) << result.message();
    expectServes(version2());
    settle();
    expectServes(version2());
}

TEST_F(PackInstallTest, ReaderHoldingTheOldListReadsTheOldFilesUntilTheyGo) {
    installApp1();
    std::shared_ptr<Reader> reader;
    Reader::load({"app", "", ""}, [&](std::shared_ptr<Reader> r, const Error&) { reader = r; });
    ASSERT_NE(reader, nullptr);
    configure("app", 2, 2);
    serveFull("app", 2, zipOf(version2()), kAppZipPrefix);
    // Run by hand: the queue would not replace a pack that a reader holds.
    ASSERT_FALSE(run(UpdatePack::create("app", JSON(), kTriggerTimer)));
    Error error;
    EXPECT_EQ(reader->read("//shop.test/app/index.html", nullptr, error),
              version1().at("index.html"));
    expectServes(version2());
}

class QueueInstallTest : public PackInstallTest {
  protected:
    void SetUp() override {
        PackInstallTest::SetUp();
        UpdateRequester::set(std::make_shared<QueueRequester>());
    }
};

TEST_F(QueueInstallTest, ReaderKeepsItsBytesWhileTheUpdateOfItsPackIsDropped) {
    installApp1();
    std::shared_ptr<Reader> reader;
    Reader::load({"app", "", ""}, [&](std::shared_ptr<Reader> r, const Error&) { reader = r; });
    ASSERT_NE(reader, nullptr);
    EXPECT_TRUE(UpdateQueue::isHeld("app"));
    configure("app", 2, 2);
    serveFull("app", 2, zipOf(version2()), kAppZipPrefix);
    bool called = false;
    UpdateQueue::request("app", kTriggerTimer, [&](const Error&) { called = true; });
    drive();
    settle();
    EXPECT_FALSE(called);
    EXPECT_EQ(find("app")->installedSeq, 1u);
    Error error;
    EXPECT_EQ(reader->read("//shop.test/app/index.html", nullptr, error),
              version1().at("index.html"));
    reader.reset();
    EXPECT_FALSE(UpdateQueue::isHeld("app"));
    // Released, the next run installs it.
    EXPECT_FALSE(update("app", kTriggerTimer));
    EXPECT_EQ(find("app")->installedSeq, 2u);
}

TEST_F(QueueInstallTest, StartInstallsStalePacksThroughTheProxyOneDownloadAtATime) {
    installShop1();
    const std::string full = zipOf(version2());
    configure("shop", 2, 2, Digest::md5Hex(full));
    FakeProxy::Answer held;
    held.body = full;
    held.hold = true;
    proxy_->serve("https://dl.test/shop/2.zip", held);
    const size_t runsBefore = proxy_->queueFinished.size();
    UpdateQueue::start(kTriggerTimer);
    drive();
    EXPECT_EQ(UpdateQueue::runningCount(), 1u);
    EXPECT_EQ(proxy_->release(), 1u);
    drive();
    settle();
    EXPECT_EQ(find("shop")->installedSeq, 2u);
    expectServes(version2());
    ASSERT_EQ(proxy_->queueFinished.size(), runsBefore + 1);
    EXPECT_EQ(proxy_->queueFinished.back(), 1u);
    ASSERT_EQ(proxy_->named("Ferrit.UpdateQueue").size(), 1u);
}

// ---- The end of a run -------------------------------------------------------------------------

TEST_F(PackInstallTest, FinishedDeletesTempPathsNotifiesTheHostAndReportsEveryStage) {
    const std::string zip = zipOf(version1());
    auto p = record("shop", kPackTypeFerrit, 0, 0, kPriorityAutoInstall);
    p->publishTime = MRLCurrentTime() - 60000;
    put({p});
    FerritTools::ConfigPack configured;
    configured.name = "shop";
    configured.seq = 6;
    configured.baseSeq = 6;
    configured.flags = kPackTypeFerrit | kPriorityAutoInstall;
    configured.md5 = Digest::md5Hex(zip);
    configured.publishTime = MRLCurrentTime() - 60000;
    configured.prefixes = {kSite};
    std::string document, error;
    ASSERT_TRUE(FerritTools::buildConfig("77", {configured}, signer(), document, error)) << error;
    proxy_->serve("https://cfg.test/packconfig/shop/0", 200, document);
    FakeProxy::Answer answer;
    answer.body = zip;
    answer.header["Content-Length"] = std::to_string(zip.size());
    proxy_->serve("https://dl.test/shop/6.zip", answer);
    Error result(-1, "never completed");
    UpdateQueue::request("shop", kTriggerTimer, [&](const Error& e) { result = e; });
    clock_->advance(2000);  // waiting in the queue
    drive();
    ASSERT_FALSE(result) << result.message();
    EXPECT_TRUE(tempLeft().empty());
    EXPECT_EQ(proxy_->updatedPacks, (std::vector<std::string>{"shop"}));
    const std::vector<FakeProxy::Record> records = proxy_->named("Ferrit.AppUpdate");
    ASSERT_EQ(records.size(), 1u);
    const FakeProxy::Record& record = records[0];
    EXPECT_EQ(record.dimensions.at("appName"), "shop");
    EXPECT_EQ(record.dimensions.at("trigger"), "Timer");
    EXPECT_EQ(record.dimensions.at("packType"), "Ferrit");
    EXPECT_EQ(record.dimensions.at("oldSeq"), "0");
    EXPECT_EQ(record.dimensions.at("newSeq"), "6");
    EXPECT_EQ(record.dimensions.at("incr"), "false");
    EXPECT_EQ(record.dimensions.at("fileURL"), "https://dl.test/shop/6.zip");
    EXPECT_EQ(record.dimensions.count("online"), 1u);
    EXPECT_EQ(record.dimensions.count("errorCode"), 0u);
    for (const char* stage :
         {"waitingTime", "configLoaded", "fileLoaded", "decrypted", "unzipped", "updateFinished",
          "fileSize", "expectedSize", "resSize", "notificationTime", "publishTime"}) {
        EXPECT_EQ(record.measures.count(stage), 1u) << stage;
    }
    EXPECT_EQ(record.measures.at("waitingTime"), 2000.0);
    EXPECT_EQ(record.measures.at("fileSize"), static_cast<double>(zip.size()));
    EXPECT_EQ(record.measures.at("expectedSize"), static_cast<double>(zip.size()));
    auto finished = logs_->last("finished", "Ferrit/UpdatePack");
    EXPECT_EQ(finished.field("name").stringValue(), "shop");
    EXPECT_EQ(finished.field("newSeq").uint64Value(), 6u);
    EXPECT_FALSE(finished.field("persistOld").boolValue());
    EXPECT_TRUE(finished.field("isPacks").boolValue());
    EXPECT_EQ(finished.field("tempPaths").arrayValue().size(), 1u);
    EXPECT_EQ(finished.field("tempPaths")[size_t{0}].stringValue(), "temp/shop_6_0/");
}

TEST_F(PackInstallTest, FailedRunReportsItsErrorAndTellsTheHostNothing) {
    put({record("shop", kPackTypeFerrit, 1, 1, kPriorityAutoInstall)});
    proxy_->serve("https://dl.test/shop/1.zip", 500, "oops");
    EXPECT_EQ(update("shop", kTriggerTimer).code(), Errors::kRequestInvalidStatus);
    EXPECT_TRUE(proxy_->updatedPacks.empty());
    const std::vector<FakeProxy::Record> records = proxy_->named("Ferrit.AppUpdate");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].dimensions.at("errorCode"), std::to_string(Errors::kRequestInvalidStatus));
}

// ---- The pack configuration -------------------------------------------------------------------

class PackConfigTest : public PackInstallTest {
  protected:
    void SetUp() override {
        PackInstallTest::SetUp();
        zip_ = zipOf(version1());
        put({record("shop", kPackTypeFerrit, 0, 0, kPriorityAutoInstall)});
        serveFull("shop", 3, zip_);
    }
    std::string document(const std::vector<FerritTools::ConfigPack>& packs) {
        std::string text, error;
        EXPECT_TRUE(FerritTools::buildConfig("77", packs, signer(), text, error)) << error;
        return text;
    }
    FerritTools::ConfigPack shop() const {
        FerritTools::ConfigPack p;
        p.name = "shop";
        p.seq = 3;
        p.baseSeq = 3;
        p.flags = kPackTypeFerrit | kPriorityAutoInstall;
        p.md5 = Digest::md5Hex(zip_);
        p.prefixes = {kSite};
        return p;
    }
    std::string zip_;
};

TEST_F(PackConfigTest, SignedConfigurationIsMergedAndThenTheZipFetched) {
    proxy_->serve("https://cfg.test/packconfig/shop/0", 200, document({shop()}));
    const Error error = update("shop", kTriggerTimer);
    ASSERT_FALSE(error) << error.message();
    EXPECT_EQ(urls(), (std::vector<std::string>{"https://cfg.test/packconfig/shop/0",
                                                "https://dl.test/shop/3.zip"}));
    EXPECT_EQ(find("shop")->seq, 3u);
    EXPECT_EQ(find("shop")->installedSeq, 3u);
    expectServes(version1());
    EXPECT_EQ(logs_->last("configUpdated", "Ferrit/UpdatePack").field("newSeq").uint64Value(), 3u);
}

TEST_F(PackConfigTest, UnsignedConfigurationIsRefused) {
    proxy_->serve("https://cfg.test/packconfig/shop/0", 200, R"({"v":"1","packs":{}})");
    EXPECT_EQ(update("shop", kTriggerTimer).code(), Errors::kRequestDeserialization);
    EXPECT_EQ(find("shop")->seq, 0u);
}

TEST_F(PackConfigTest, ConfigurationWithoutTheNameIsPackNameMismatch) {
    FerritTools::ConfigPack other = shop();
    other.name = "other";
    proxy_->serve("https://cfg.test/packconfig/shop/0", 200, document({other}));
    const Error error = update("shop", kTriggerTimer);
    EXPECT_EQ(error.code(), Errors::kPackNameMismatch);
    EXPECT_EQ(error.message(), "https://cfg.test/packconfig/shop/0 packName mismatch: shop");
    EXPECT_EQ(find("other"), nullptr);
}

TEST_F(PackConfigTest, PackDeletedByItsConfigurationIs2102) {
    proxy_->serve("https://cfg.test/packconfig/shop/0", 200,
                  FakeProxy::sign(R"({"v":"77","packs":{"shop":null}})"));
    const Error error = update("shop", kTriggerTimer);
    EXPECT_EQ(error.code(), Errors::kPackDeleted);
    EXPECT_EQ(error.message(), "shop deleted");
    EXPECT_EQ(find("shop"), nullptr);
    EXPECT_EQ(logs_->last("configUpdated", "Ferrit/UpdatePack").errorCode,
              std::to_string(Errors::kPackDeleted));
}

TEST_F(PackConfigTest, PackConfigurationThatNeverAnswersEndsAtItsDeadline) {
    proxy_->serve("https://cfg.test/packconfig/shop/0", silent());
    Error result;
    bool done = false;
    UpdateQueue::request("shop", kTriggerTimer, [&](const Error& error) {
        result = error;
        done = true;
    });
    drive();
    EXPECT_FALSE(done);
    clock_->advance(Settings::current()->configRequestDeadlineValue());
    drive();
    ASSERT_TRUE(done);
    EXPECT_EQ(result.code(), Errors::kRequestFailed);
    EXPECT_NE(result.message().find("no answer within 20 s"), std::string::npos)
        << result.message();
    EXPECT_EQ(UpdateQueue::runningCount(), 0u);
    // The next trigger runs.
    proxy_->serve("https://cfg.test/packconfig/shop/0", 200, document({shop()}));
    const Error error = update("shop", kTriggerTimer);
    EXPECT_FALSE(error) << error.message();
    EXPECT_EQ(find("shop")->installedSeq, 3u);
}

TEST_F(PackConfigTest, NetworkIsCheckedAgainOnceTheConfigurationGaveTheFlags) {
    Environment::instance().setNetworkStatusValue(
        NetworkStatus::kSlowMobile);  // slow cellular; the pack does not allow it
    proxy_->serve("https://cfg.test/packconfig/shop/0", 200, document({shop()}));
    const Error error = update("shop", kTriggerTimer);
    EXPECT_EQ(error.code(), Errors::kNetworkNotSupported);
    EXPECT_EQ(urls(), (std::vector<std::string>{"https://cfg.test/packconfig/shop/0"}));
    EXPECT_EQ(find("shop")->seq, 3u);  // the merged configuration stays: it is right in itself
    EXPECT_EQ(find("shop")->installedSeq, 0u);
}

// ---- Downloads that fail half way -------------------------------------------------------------

class FailedDownloadTest : public PackInstallTest {
  protected:
    void SetUp() override {
        PackInstallTest::SetUp();
        installShop1();
        full_ = zipOf(version2());
        configure("shop", 2, 2, Digest::md5Hex(full_));
    }
    // The record and the installed version are as they were, nothing is left in "temp/", and the
    // next trigger installs.
    void expectUntouchedThenInstalled() {
        EXPECT_EQ(find("shop")->installedSeq, 1u);
        EXPECT_EQ(find("shop")->status, kPackStatusNormal);
        EXPECT_EQ(stored("shop")->installedSeq, 1u);
        expectServes(version1());
        EXPECT_TRUE(tempLeft().empty());
        EXPECT_TRUE(packedKeys("shop/2/").empty());
        EXPECT_EQ(UpdateQueue::runningCount(), 0u);
        serveFull("shop", 2, full_);
        const Error error = update("shop", kTriggerTimer);
        EXPECT_FALSE(error) << error.message();
        expectServes(version2());
    }
    std::string full_;
};

TEST_F(FailedDownloadTest, TruncatedBodyLeavesTheRecordAndTheFolder) {
    serveFull("shop", 2, full_.substr(0, full_.size() / 2));
    EXPECT_EQ(update("shop", kTriggerTimer).code(), Errors::kFileVerify);
    expectUntouchedThenInstalled();
}

TEST_F(FailedDownloadTest, TruncatedBodyWithoutAnMd5FailsAtTheZip) {
    configure("shop", 2, 2);
    serveFull("shop", 2, full_.substr(0, full_.size() / 2));
    EXPECT_EQ(update("shop", kTriggerTimer).code(), Errors::kUnzipFailed);
    expectUntouchedThenInstalled();
}

TEST_F(FailedDownloadTest, ServerErrorLeavesTheRecordAndTheFolder) {
    serveFull("shop", 2, "");
    proxy_->serve("https://dl.test/shop/2.zip", 500, "busy");
    const Error error = update("shop", kTriggerTimer);
    EXPECT_EQ(error.code(), Errors::kRequestInvalidStatus);
    EXPECT_EQ(
        error.message(),
        "request \"https://dl.test/shop/2.zip\" invalid status code 500 (Internal Server Error)");
    expectUntouchedThenInstalled();
}

TEST_F(FailedDownloadTest, TransportErrorLeavesTheRecordAndTheFolder) {
    FakeProxy::Answer answer;
    answer.transportError = Error(-7, "connection reset");
    proxy_->serve("https://dl.test/shop/2.zip", answer);
    const Error error = update("shop", kTriggerTimer);
    EXPECT_EQ(error.code(), Errors::kRequestFailed);
    EXPECT_EQ(error.message(),
              "request \"https://dl.test/shop/2.zip\" failed: -7, connection reset");
    expectUntouchedThenInstalled();
}

TEST_F(FailedDownloadTest, DownloadThatNeverAnswersEndsAtItsDeadline) {
    proxy_->serve("https://dl.test/shop/2.zip", silent());
    Error result;
    bool done = false;
    UpdateQueue::request("shop", kTriggerTimer, [&](const Error& error) {
        result = error;
        done = true;
    });
    drive();
    EXPECT_FALSE(done);
    EXPECT_EQ(UpdateQueue::runningCount(), 1u);
    expectServes(version1());
    clock_->advance(Settings::current()->packRequestDeadlineValue());
    drive();
    ASSERT_TRUE(done);
    EXPECT_EQ(result.code(), Errors::kRequestFailed);
    expectUntouchedThenInstalled();
}

// The zip arrives after the run ended at its deadline: nothing installs from it, and the next
// run installs as usual.
TEST_F(FailedDownloadTest, ZipThatArrivesAfterTheDeadlineIsIgnored) {
    FakeProxy::Answer late;
    late.body = full_;
    late.hold = true;
    proxy_->serve("https://dl.test/shop/2.zip", late);
    int calls = 0;
    UpdateQueue::request("shop", kTriggerTimer, [&](const Error& error) {
        EXPECT_EQ(error.code(), Errors::kRequestFailed);
        ++calls;
    });
    drive();
    clock_->advance(Settings::current()->packRequestDeadlineValue());
    drive();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(proxy_->release(), 1u);
    drive();
    EXPECT_EQ(calls, 1);
    expectUntouchedThenInstalled();
}

// ---- Limits -----------------------------------------------------------------------------------

// A signed pack whose one file is a run of zeros: the list vouches for it, and still nothing of
// it is inflated, since its ratio is that of a bomb.
TEST_F(FailedDownloadTest, BombEntryIsRefusedBeforeAnythingIsWritten) {
    PackFiles bomb = version2();
    bomb["zeros.bin"] = std::string(4u << 20, '\0');
    const std::string zip = zipOf(bomb);
    ASSERT_LT(zip.size(), 64u << 10);
    configure("shop", 2, 2, Digest::md5Hex(zip));
    serveFull("shop", 2, zip);
    const Error error = update("shop", kTriggerTimer);
    EXPECT_EQ(error.code(), Errors::kUnzipFailed);
    EXPECT_NE(error.message().find("\"res/zeros.bin\" inflates 4194304 bytes from"),
              std::string::npos)
        << error.message();
    EXPECT_NE(error.message().find("(\"maxInflationRatio\")"), std::string::npos);
    EXPECT_TRUE(packedKeys("shop/2/").empty());
    configure("shop", 2, 2, Digest::md5Hex(full_));
    expectUntouchedThenInstalled();
}

// What the entries record is checked against the room the budget leaves, before writing.
TEST_F(FailedDownloadTest, ZipLargerThanTheRoomTheBudgetLeavesIsRefused) {
    PackFiles large = version2();
    std::mt19937 random(5);
    std::string noise(300000, '\0');
    for (char& c : noise) c = static_cast<char>(random());
    large["big.bin"] = noise;
    const std::string zip = zipOf(large);
    configure("shop", 2, 2, Digest::md5Hex(zip));
    serveFull("shop", 2, zip);
    Settings::updateRemote({{"ferritSizeLimit", "200000"}});
    const Error error = update("shop", kTriggerTimer);
    EXPECT_EQ(error.code(), Errors::kTooManyApps);
    EXPECT_NE(error.message().find("Too many apps installed: \"shop\" inflates to "),
              std::string::npos)
        << error.message();
    EXPECT_NE(error.message().find("bytes left of its budget of 200000 (\"ferritSizeLimit\")"),
              std::string::npos)
        << error.message();
    EXPECT_TRUE(packedKeys("shop/2/").empty());
    Settings::updateRemote({});
    configure("shop", 2, 2, Digest::md5Hex(full_));
    expectUntouchedThenInstalled();
}

// A list that states a size other than what the entry records: refused at the entry's start,
// before it is inflated.
TEST_F(FailedDownloadTest, EntryWhoseRecordedSizeDiffersFromTheListIsRefused) {
    PackFiles files = version2();
    const std::string zip = zipOf(files);
    // Same list, another content of another length for one file.
    PackFiles changed = files;
    changed["index.html"] = "<!doctype html><title>v2, longer</title>";
    FerritTools::ZipWriter writer;
    std::string failure;
    std::string archive;
    Error error;
    ZipFile original = ZipFile::open(Folder::disk("x.zip"), zip, error);
    ASSERT_TRUE(original);
    ASSERT_TRUE(original.forEachEntry(
        [&](const std::string& name, std::string content) {
            FerritTools::ZipWriter::Entry entry;
            entry.name = name;
            entry.content = name == "res/index.html" ? changed["index.html"] : content;
            return writer.add(entry, failure);
        },
        error));
    ASSERT_TRUE(writer.finish(archive, failure)) << failure;
    configure("shop", 2, 2, Digest::md5Hex(archive));
    serveFull("shop", 2, archive);
    const Error refused = update("shop", kTriggerTimer);
    EXPECT_EQ(refused.code(), Errors::kFileVerify) << refused.message();
    EXPECT_NE(refused.message().find("index.html"), std::string::npos) << refused.message();
    configure("shop", 2, 2, Digest::md5Hex(full_));
    expectUntouchedThenInstalled();
}

TEST_F(FailedDownloadTest, ProxyThatAnswersTwiceEndsTheRunOnce) {
    FakeProxy::Answer answer;
    answer.body = full_;
    answer.twice = true;
    proxy_->serve("https://dl.test/shop/2.zip", answer);
    int calls = 0;
    UpdateQueue::request("shop", kTriggerTimer, [&](const Error& error) {
        EXPECT_FALSE(error) << error.message();
        ++calls;
    });
    drive();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(proxy_->named("Ferrit.AppUpdate").size(), 1u);
    expectServes(version2());
}

// ---- The queue --------------------------------------------------------------------------------

TEST_F(PackInstallTest, SecondRequestForARunningPackWaitsForTheSameTask) {
    put({record("shop", kPackTypeFerrit, 1, 1, kPriorityAutoInstall)});
    FakeProxy::Answer held;
    held.body = zipOf(version1());
    held.hold = true;
    proxy_->serve("https://dl.test/shop/1.zip", held);
    std::vector<int> done;
    UpdateQueue::request("shop", kTriggerTimer, [&](const Error&) { done.push_back(1); });
    drive();
    UpdateQueue::request("shop", kTriggerVisit, [&](const Error&) { done.push_back(2); });
    drive();
    EXPECT_EQ(proxy_->requests.size(), 1u);
    EXPECT_EQ(UpdateQueue::runningCount(), 1u);
    proxy_->release();
    drive();
    EXPECT_EQ(done, (std::vector<int>{1, 2}));
    EXPECT_EQ(UpdateQueue::runningCount(), 0u);
}

TEST_F(PackInstallTest, RequestForAnUpToDatePackSucceedsAtOnce) {
    installShop1();
    const size_t pending = TaskRunner::pendingCount();
    Error result(-1, "never completed");
    UpdateQueue::request("shop", kTriggerTimer, [&](const Error& error) { result = error; });
    EXPECT_FALSE(result);
    EXPECT_EQ(TaskRunner::pendingCount(), pending);
}

TEST_F(PackInstallTest, RequestInASubProcessIs2004) {
    Environment::instance().setMainProcess(false);
    Error result;
    UpdateQueue::request("shop", kTriggerVisit, [&](const Error& error) { result = error; });
    EXPECT_EQ(result.code(), Errors::kSubProcessDisabled);
    Environment::instance().setMainProcess(true);
}

TEST_F(PackInstallTest, RequestForNameAtSeqFetchesThatFixedVersion) {
    installApp1();
    configure("app", 3, 3);
    serveFull("app", 2, zipOf(version2()), kAppZipPrefix);
    const Error error = update("app@2", kTriggerVisit);
    ASSERT_FALSE(error) << error.message();
    EXPECT_EQ(urls(), (std::vector<std::string>{"https://app.test/app/2.zip"}));
    EXPECT_EQ(readDisk("apps/app/2/res/index.html"), version2().at("index.html"));
}

// ---- A zip made by the archiver most servers have ---------------------------------------------

TEST_F(PackInstallTest, PackZipMadeByTheZipCommandInstalls) {
    if (std::system("command -v zip >/dev/null 2>&1") != 0) {
        GTEST_SKIP() << "the zip command (Debian package zip) is not installed";
    }
    namespace fs = std::filesystem;
    const fs::path source = temp_.path() / "source";
    fs::create_directories(source);
    std::ofstream(source / "app-res.hvc", std::ios::binary) << indexOf(version1());
    for (const auto& [path, content] : version1()) {
        fs::create_directories((source / "res" / path).parent_path());
        std::ofstream(source / "res" / path, std::ios::binary) << content;
    }
    const fs::path made = temp_.path() / "made.zip";
    const std::string command =
        "cd '" + source.string() + "' && zip -q -r '" + made.string() + "' app-res.hvc res";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
    fs::remove_all(source);
    std::ifstream in(made, std::ios::binary);
    const std::string zip(std::istreambuf_iterator<char>(in), {});
    fs::remove(made);

    put({record("shop", kPackTypeFerrit, 8, 8, kPriorityAutoInstall)});
    serveFull("shop", 8, zip);
    const Error error = update("shop", kTriggerTimer);
    ASSERT_FALSE(error) << error.message();
    expectServes(version1());
}

}  // namespace
}  // namespace FerritTest
