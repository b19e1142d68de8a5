// A device serves no byte that its signed list does not vouch for: an increment keeps a file from
// the installed version only when both versions' lists name the same bytes (and otherwise the
// full zip is fetched in the same run), every file a list names must arrive, a file whose length
// is not its list's is never answered, and a file that its list names empty is content, not
// damage. Zips are put together here by hand where a test needs a list that the pack kit would
// not write.
#include <gtest/gtest.h>

#include <filesystem>

#include "access/UpdateRequester.h"
#include "base/Errors.h"
#include "base/Url.h"
#include "storage/ZipFile.h"
#include "tests/update/InstallFixture.h"
#include "tools/pack/ZipWriter.h"

namespace FerritTest {

namespace Errors = FerritCore::Errors;
namespace {

using MarlLogger::json::JSON;
using MarlLogger::json::JSONObject;

constexpr uint32_t kDamagedPackFile = Errors::kPackFileNotFound;
constexpr uint32_t kNoData = Errors::kNoData;
constexpr uint32_t kVerifyFailed = Errors::kFileVerify;
constexpr uint32_t kNotExists = Errors::kFileNotExists;

class IntegrityTest : public InstallFixture {
  protected:
    // A signed list of `files` whose records state each file's size, as publishers now write
    // them; `removed` are paths an increment takes away.
    static std::string sizedListOf(const PackFiles& files,
                                   const std::vector<std::string>& removed = {}) {
        PackContent content;
        content.files = files;
        std::string json, signedList, error;
        EXPECT_TRUE(FerritTools::indexJson(content, kSite, removed, json, error)) << error;
        JSON table = JSON::parse(json);
        JSONObject sized;
        for (const auto& [path, record] : table.objectValue()) {
            JSONObject copy = record.objectValue();
            const auto file = files.find(path.substr(4));
            if (file != files.end()) copy.set("size", JSON(uint64_t(file->second.size())));
            sized.set(path, JSON(std::move(copy)));
        }
        EXPECT_TRUE(FerritTools::signIndex(JSON(std::move(sized)).toString(), "ed25519", signer(),
                                           signedList, error))
            << error;
        return signedList;
    }
    // A pack zip of a given list and files ("res/<path>" entries).
    static std::string zipWith(const std::string& list, const PackFiles& files) {
        FerritTools::ZipWriter writer;
        std::string zip, error;
        EXPECT_TRUE(writer.addFile("app-res.hvc", list, error)) << error;
        for (const auto& [path, content] : files)
            EXPECT_TRUE(writer.addFile("res/" + path, content, error)) << error;
        EXPECT_TRUE(writer.finish(zip, error)) << error;
        return zip;
    }
    static std::string sizedZipOf(const PackFiles& files) {
        return zipWith(sizedListOf(files), files);
    }

    // "shop" (packed store) installed at `seq` from `files` by a full zip.
    void installShopAt(uint64_t seq, const PackFiles& files) {
        const std::string zip = sizedZipOf(files);
        auto p = record("shop", kPackTypeFerrit, seq, seq, kPriorityAutoInstall);
        p->md5 = Digest::md5Hex(zip);
        put({p});
        serveFull("shop", seq, zip);
        const Error error = update("shop", kTriggerTimer);
        ASSERT_FALSE(error) << error.message();
        ASSERT_EQ(find("shop")->installedSeq, seq);
        proxy_->requests.clear();
        proxy_->clearRecords();
    }
    // A newer version of "shop" that an increment from `baseSeq` reaches, its full zip served too.
    void configureShop(uint64_t seq, uint64_t baseSeq, const std::string& increment,
                       const std::string& full) {
        auto p = find("shop")->clone();
        p->seq = seq;
        p->baseSeq = baseSeq;
        p->incrMd5 = Digest::md5Hex(increment);
        p->md5 = Digest::md5Hex(full);
        put({p});
        serveIncrement("shop", seq, increment);
        serveFull("shop", seq, full);
    }
    // Updates "shop" to `seq` by an increment from the first version that lists and carries
    // `changed` and removes `removed`, the full zip of `whole` served beside it; the run's error.
    Error updateShop(uint64_t seq, const PackFiles& changed,
                     const std::vector<std::string>& removed, const PackFiles& whole) {
        configureShop(seq, 1, zipWith(sizedListOf(changed, removed), changed), sizedZipOf(whole));
        return update("shop", kTriggerTimer);
    }
    // Version 2 of "shop": B, reached by an increment from A.
    void updateShopToB() {
        ASSERT_FALSE(
            updateShop(2, {{"index.html", siteB().at("index.html")}}, {"css/app.css"}, siteB()));
        ASSERT_EQ(urls(), (std::vector<std::string>{"https://dl.test/shop/i/2.zip"}));
        expectServes(siteB());
        proxy_->requests.clear();
        proxy_->clearRecords();
    }
    std::vector<std::string> urls() const {
        std::vector<std::string> out;
        for (const ProxyRequest& request : proxy_->requests) out.push_back(request.url);
        return out;
    }

    static PackFiles siteA() {
        return {{"index.html", "<title>A</title>"},
                {"js/app.js", "console.log('A');"},
                {"css/app.css", "body{color:red}"}};
    }
    static PackFiles siteB() {
        PackFiles files = siteA();
        files["index.html"] = "<title>B, longer than A</title>";
        files.erase("css/app.css");
        return files;
    }
};

// ---- Increments checked against the installed version -----------------------------------------

// Publish A, then B, then A again, each increment made from the first version: the third lists
// nothing, and the device on B would keep B's bytes under A's list. Detected, the full zip is
// fetched in the same run, and the device ends byte-identical to the new version.
TEST_F(IntegrityTest, RevertIncrementThatWouldKeepAnotherVersionsBytesFetchesTheFullZip) {
    installShopAt(1, siteA());
    ASSERT_NO_FATAL_FAILURE(updateShopToB());
    // The third version's increment from the first lists no change at all.
    const Error error = updateShop(3, {}, {}, siteA());
    ASSERT_FALSE(error) << error.message();
    EXPECT_EQ(urls(), (std::vector<std::string>{"https://dl.test/shop/i/3.zip",
                                                "https://dl.test/shop/3.zip"}));
    EXPECT_EQ(find("shop")->installedSeq, 3u);
    expectServes(siteA());
    settle();
    EXPECT_TRUE(tempLeft().empty());

    // Said in the log and in the record of the run.
    EXPECT_EQ(logs_->count("incrementRefused"), 1u);
    const auto records = proxy_->named("Ferrit.AppUpdate");
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].dimensions.at("incr"), "false");
    ASSERT_EQ(records[0].dimensions.count("incrRefused"), 1u);
    // The first file that cannot be kept, in path order, is named: the style sheet that B removed
    // comes before B's own bytes of the page.
    const std::string& refused = records[0].dimensions.at("incrRefused");
    EXPECT_NE(refused.find("res/css/app.css\" not exists"), std::string::npos) << refused;
}

// A file removed in the installed version and listed again by the new one, unchanged since the
// base: the installed version cannot vouch for it, so the full zip is fetched.
TEST_F(IntegrityTest, FileRemovedByTheInstalledVersionAndRestoredFetchesTheFullZip) {
    installShopAt(1, siteA());
    ASSERT_NO_FATAL_FAILURE(updateShopToB());
    EXPECT_EQ(read("css/app.css").error.code(), Errors::kNotFerritPackResource);
    // Version 3 is B with the style sheet back; its increment from 1 lists only the page.
    PackFiles v3Files = siteB();
    v3Files["css/app.css"] = siteA().at("css/app.css");
    ASSERT_FALSE(updateShop(3, {{"index.html", v3Files.at("index.html")}}, {}, v3Files));
    EXPECT_EQ(urls().back(), "https://dl.test/shop/3.zip");
    expectServes(v3Files);
}

// A file changed in the installed version and changed back: the same refusal, and the old bytes
// are never served on the way.
TEST_F(IntegrityTest, FileChangedAndChangedBackIsNeverServedWithTheInstalledBytes) {
    installShopAt(1, siteA());
    PackFiles v2Files = siteA();
    v2Files["js/app.js"] = "console.log('changed');";
    ASSERT_FALSE(updateShop(2, {{"js/app.js", v2Files.at("js/app.js")}}, {}, v2Files));
    expectServes(v2Files);
    ASSERT_FALSE(updateShop(3, {}, {}, siteA()));
    expectServes(siteA());
}

// An increment whose files all agree with the installed version installs as an increment.
TEST_F(IntegrityTest, IncrementThatTheInstalledListVouchesForInstallsWithoutTheFullZip) {
    installShopAt(1, siteA());
    const std::string v2 =
        zipWith(sizedListOf(siteB(), {"css/app.css"}), {{"index.html", siteB().at("index.html")}});
    configureShop(2, 1, v2, sizedZipOf(siteB()));
    ASSERT_FALSE(update("shop", kTriggerTimer));
    EXPECT_EQ(urls(), (std::vector<std::string>{"https://dl.test/shop/i/2.zip"}));
    expectServes(siteB());
    EXPECT_EQ(logs_->count("incrementRefused"), 0u);
}

// An increment that lists a changed file but does not carry it would leave the installed bytes
// under the new list. (An increment may list unchanged files without carrying them: the pack kit
// lists the new version whole.)
TEST_F(IntegrityTest, IncrementThatListsAFileItsZipLacksFetchesTheFullZip) {
    installShopAt(1, siteA());
    PackFiles v2Files = siteA();
    v2Files["js/app.js"] = "console.log('v2');";
    configureShop(2, 1, zipWith(sizedListOf({{"js/app.js", v2Files.at("js/app.js")}}), {}),
                  sizedZipOf(v2Files));
    ASSERT_FALSE(update("shop", kTriggerTimer));
    EXPECT_EQ(urls().back(), "https://dl.test/shop/2.zip");
    expectServes(v2Files);
}

// A full zip whose list names a file it does not hold is refused; the old version stays.
TEST_F(IntegrityTest, FullZipThatLacksAListedFileIsRefused) {
    installShopAt(1, siteA());
    PackFiles v2Files = siteA();
    v2Files["js/more.js"] = "more()";
    PackFiles carried = v2Files;
    carried.erase("js/more.js");
    const std::string full = zipWith(sizedListOf(v2Files), carried);
    auto p = find("shop")->clone();
    p->seq = 2;
    p->baseSeq = 2;
    p->md5 = Digest::md5Hex(full);
    put({p});
    serveFull("shop", 2, full);
    const Error error = update("shop", kTriggerTimer);
    EXPECT_EQ(error.code(), kNotExists) << error.message();
    EXPECT_EQ(find("shop")->installedSeq, 1u);
    expectServes(siteA());
    EXPECT_TRUE(packedKeys("shop/2/").empty());
}

// ---- Sizes at read ----------------------------------------------------------------------------

TEST_F(IntegrityTest, FileOfAnotherSizeThanItsListIsNotServedAndThePackIsReinstalled) {
    put({record("app", kPackTypeACache, 1, 1, kPriorityAutoInstall)});
    serveFull("app", 1, sizedZipOf(siteA()), kAppZipPrefix);
    ASSERT_FALSE(update("app", kTriggerTimer));
    // A power cut that kept a shorter file, and one that kept a longer one.
    std::filesystem::resize_file(temp_.path() / "apps/app/1/res/js/app.js", 5);
    std::filesystem::resize_file(temp_.path() / "apps/app/1/res/index.html", 2000);
    for (const char* path : {"js/app.js", "index.html"}) {
        const Answer answer = read(path);
        EXPECT_EQ(answer.error.code(), kDamagedPackFile) << path;
        EXPECT_TRUE(answer.body.empty()) << path;
    }
    EXPECT_EQ(logs_->count("sizeMismatch"), 2u);
    drive();
    EXPECT_EQ(find("app")->status, kPackStatusNeedReinstall);
    // The next install brings the pack back whole.
    ASSERT_FALSE(update("app", kTriggerTimer));
    expectServes(siteA());
}

// A list written before lists carried sizes reads as it always did.
TEST_F(IntegrityTest, ListWithoutSizesServesAsBefore) {
    put({record("app", kPackTypeACache, 1, 1, kPriorityAutoInstall)});
    serveFull("app", 1, zipOf(siteA()), kAppZipPrefix);
    ASSERT_FALSE(update("app", kTriggerTimer));
    expectServes(siteA());
}

TEST_F(IntegrityTest, SizeThatIsNoCountOfBytesFailsTheList) {
    for (const char* size : {"-1", "\"12\"", "1.5", "18446744073709551615"}) {
        const std::string json = std::string("{\"res/a.js\":{\"url\":\"") + kSite +
                                 "a.js\",\"v\":\"" + Digest::md5Hex("a") + "\",\"size\":" + size +
                                 "}}";
        std::string list, error;
        ASSERT_TRUE(FerritTools::signIndex(json, "ed25519", signer(), list, error)) << error;
        const ResourceIndex index(
            "shop", [&](const std::string&, Error&) { return list; }, false);
        EXPECT_EQ(index.error().code(), Errors::kFileDeserialization) << size;
        EXPECT_NE(index.error().message().find("is not a count of bytes"), std::string::npos)
            << index.error().message();
    }
}

// ---- Empty files ------------------------------------------------------------------------------

PackFiles withEmptyFiles() {
    return {{"index.html", "<title>empty files</title>"},
            {"css/empty.css", ""},
            {"js/placeholder.js", ""}};
}

TEST_F(IntegrityTest, EmptyFileInstallsAndServesEmptyOnTheDisk) {
    put({record("app", kPackTypeACache, 1, 1, kPriorityAutoInstall)});
    serveFull("app", 1, sizedZipOf(withEmptyFiles()), kAppZipPrefix);
    const Error error = update("app", kTriggerTimer);
    ASSERT_FALSE(error) << error.message();
    EXPECT_TRUE(onDisk("apps/app/1/res/css/empty.css"));
    expectServes(withEmptyFiles());
}

TEST_F(IntegrityTest, EmptyFileInstallsAndServesEmptyInThePackedStore) {
    ASSERT_NO_FATAL_FAILURE(installShopAt(1, withEmptyFiles()));
    expectServes(withEmptyFiles());
}

// A list without sizes names an empty file by the MD5 of no bytes.
TEST_F(IntegrityTest, EmptyFileOfAListWithoutSizesInstallsAndServesEmpty) {
    const std::string zip = zipOf(withEmptyFiles());
    auto p = record("shop", kPackTypeFerrit, 1, 1, kPriorityAutoInstall);
    put({p});
    serveFull("shop", 1, zip);
    ASSERT_FALSE(update("shop", kTriggerTimer));
    expectServes(withEmptyFiles());
}

TEST_F(IntegrityTest, EmptyFileArrivesAndIsKeptThroughAnIncrement) {
    ASSERT_NO_FATAL_FAILURE(installShopAt(1, siteA()));
    PackFiles v2Files = siteA();
    v2Files["css/empty.css"] = "";
    ASSERT_FALSE(updateShop(2, {{"css/empty.css", ""}}, {}, v2Files));
    EXPECT_EQ(urls(), (std::vector<std::string>{"https://dl.test/shop/i/2.zip"}));
    expectServes(v2Files);
    // Version 3 changes the page only: the empty file is kept from version 2.
    PackFiles v3Files = v2Files;
    v3Files["index.html"] = "<title>v3</title>";
    proxy_->requests.clear();
    ASSERT_FALSE(updateShop(3, {{"index.html", v3Files.at("index.html")}, {"css/empty.css", ""}},
                            {}, v3Files));
    EXPECT_EQ(urls(), (std::vector<std::string>{"https://dl.test/shop/i/3.zip"}));
    expectServes(v3Files);
}

// A file truncated to nothing is damage: its list says it has content.
TEST_F(IntegrityTest, FileThatReadsEmptyWhileItsListSaysContentIsNotServed) {
    put({record("app", kPackTypeACache, 1, 1, kPriorityAutoInstall)});
    serveFull("app", 1, zipOf(siteA()), kAppZipPrefix);  // a list without sizes
    ASSERT_FALSE(update("app", kTriggerTimer));
    std::filesystem::resize_file(temp_.path() / "apps/app/1/res/js/app.js", 0);
    const Answer answer = read("js/app.js");
    EXPECT_EQ(answer.error.code(), kNoData) << answer.error.message();
    EXPECT_TRUE(answer.body.empty());
}

// The same in a zip: an empty entry whose list names content is refused with 1103.
TEST_F(IntegrityTest, EmptyEntryWhoseListNamesContentIsRefused) {
    PackFiles listed = siteA();
    PackFiles carried = siteA();
    carried["js/app.js"] = "";
    put({record("app", kPackTypeACache, 1, 1, kPriorityAutoInstall)});
    serveFull("app", 1, zipWith(sizedListOf(listed), carried), kAppZipPrefix);
    EXPECT_EQ(update("app", kTriggerTimer).code(), kNoData);
    EXPECT_EQ(find("app")->installedSeq, 0u);
}

TEST_F(IntegrityTest, EntryOfAnotherSizeThanItsListIsRefused) {
    PackFiles carried = siteA();
    carried["js/app.js"] += " ";
    put({record("app", kPackTypeACache, 1, 1, kPriorityAutoInstall)});
    serveFull("app", 1, zipWith(sizedListOf(siteA()), carried), kAppZipPrefix);
    const Error error = update("app", kTriggerTimer);
    EXPECT_EQ(error.code(), kVerifyFailed);
    EXPECT_NE(error.message().find("size 18 different with expectation 17"), std::string::npos)
        << error.message();
}

TEST_F(IntegrityTest, EmptyFileOfARawAppZipIsWrittenEmpty) {
    const std::string url = "https://cdn.test/raw.zip";
    FerritTools::ZipWriter writer;
    std::string zip, error;
    ASSERT_TRUE(writer.addFile("index.html", "<html></html>", error)) << error;
    ASSERT_TRUE(writer.addFile("empty.css", "", error)) << error;
    ASSERT_TRUE(writer.finish(zip, error)) << error;
    proxy_->serve(url, 200, zip);
    const Error result = update(url, kTriggerVisit);
    ASSERT_FALSE(result) << result.message();
    const std::string name = Digest::md5Hex(Url::key(url));
    EXPECT_TRUE(onDisk("apps/" + name + "/1/res/empty.css"));
    EXPECT_EQ(readDisk("apps/" + name + "/1/res/empty.css"), "");
}

// An archive with no entries is an empty archive, not a damaged one.
TEST_F(IntegrityTest, EmptyArchiveIsValidAndHoldsNothing) {
    FerritTools::ZipWriter writer;
    std::string archive, message;
    ASSERT_TRUE(writer.finish(archive, message)) << message;
    Error error;
    ZipFile zip = ZipFile::open(Folder::disk("empty.zip"), archive, error);
    ASSERT_TRUE(zip) << error.message();
    size_t entries = 0;
    EXPECT_TRUE(zip.forEachEntry(
        [&](const std::string&, std::string) {
            ++entries;
            return true;
        },
        error));
    EXPECT_FALSE(error) << error.message();
    EXPECT_EQ(entries, 0u);
    EXPECT_FALSE(zip.hasEntry("app-res.hvc"));
}

// ---- The replaced version waits on the commit ---------------------------------------------------

// A store that refuses the commit that names a new version (a full disk): it still names the old
// one, so a restart needs the old files, and the old folder must stay.
class RefusingStorage : public ConfigStorage {
  public:
    Error writeConfig(const std::string&, Durability) override {
        return Error(Errors::kFileWrite, "write storage \"packs/config\" failed: 13");
    }
    void removeFolder(const Folder& folder) override { Folder::removeFile(folder, Removal::kGone); }
    void wipeInstalled() override {}
};

TEST_F(IntegrityTest, ReplacedVersionStaysWhenTheCommitThatNamesTheNewOneFails) {
    put({record("app", kPackTypeACache, 1, 1, kPriorityAutoInstall)});
    serveFull("app", 1, sizedZipOf(siteA()), kAppZipPrefix);
    ASSERT_FALSE(update("app", kTriggerTimer));
    auto p = find("app")->clone();
    p->seq = 2;
    p->baseSeq = 2;
    put({p});
    serveFull("app", 2, sizedZipOf(siteB()), kAppZipPrefix);
    SCache::setStorage(std::make_shared<RefusingStorage>());
    ASSERT_FALSE(update("app", kTriggerTimer));
    settle();
    EXPECT_TRUE(onDisk("apps/app/1/res/js/app.js"));
    EXPECT_EQ(logs_->count("retire"), 1u);
    // This process serves the new version, which it holds in memory.
    expectServes(siteB());
}

TEST_F(IntegrityTest, ReplacedVersionGoesOnceTheCommitThatNamesTheNewOneRan) {
    put({record("app", kPackTypeACache, 1, 1, kPriorityAutoInstall)});
    serveFull("app", 1, sizedZipOf(siteA()), kAppZipPrefix);
    ASSERT_FALSE(update("app", kTriggerTimer));
    auto p = find("app")->clone();
    p->seq = 2;
    p->baseSeq = 2;
    put({p});
    serveFull("app", 2, sizedZipOf(siteB()), kAppZipPrefix);
    ASSERT_FALSE(update("app", kTriggerTimer));
    EXPECT_EQ(proxy_->updatedPacks, (std::vector<std::string>{"app", "app"}));
    settle();
    EXPECT_FALSE(onDisk("apps/app/1"));
    EXPECT_EQ(logs_->count("retire"), 0u);
}

}  // namespace
}  // namespace FerritTest
