// The patched increment beside the plain one: built by the one increment builder from the bytes of
// every version since the base, and written by publish next to i/<seq>.zip only when it is smaller.
// Each patch is applied with the device's own applier, and the records are read back with the
// library's own reader.
#include "tools/pack/PackBuilder.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <iostream>
#include <random>
#include <string>
#include <vector>

#include "base/Digest.h"
#include "base/Folder.h"
#include "marl/Json.h"
#include "model/Pack.h"
#include "storage/Patch.h"
#include "storage/ZipFile.h"
#include "tools/common/ToolFiles.h"
#include "tools/pack/ZipWriter.h"
#include "tools/publish/Publisher.h"

namespace FerritTools {
namespace {

namespace fs = std::filesystem;
using FerritCore::Digest::md5Hex;
using MarlLogger::json::JSON;

constexpr const char* kPrefix = "https://shop.example.com/app/";

// Signs deterministically without a key: the bytes of what is signed are what these tests compare.
Signer fakeSigner() {
    return [](const std::string& md5, std::string& signature, std::string&) {
        signature = "signed:" + md5;
        return true;
    };
}

PackOptions testOptions() {
    PackOptions options;
    options.urlPrefix = kPrefix;
    options.signer = fakeSigner();
    return options;
}

// A script a bundler writes: many distinct lines, large enough that a one-line change patches to
// far less than the file deflated.
std::string largeScript() {
    std::string script;
    for (int i = 0; script.size() < 300000; ++i)
        script += "export function handler" + std::to_string(i) + "(event){return event.value*" +
                  std::to_string((i * 7919) % 104729) + "+" + std::to_string(i % 13) + ";}\n";
    return script;
}

// The script with the line at `line` replaced.
std::string withLine(const std::string& script, size_t line, const std::string& text) {
    size_t start = 0;
    for (size_t i = 0; i < line; ++i) start = script.find('\n', start) + 1;
    const size_t end = script.find('\n', start);
    return script.substr(0, start) + text + script.substr(end);
}

struct Zip {
    explicit Zip(std::string bytes) : bytes_(std::move(bytes)) {
        FerritCore::Error error;
        zip_ = FerritCore::ZipFile::open(FerritCore::Folder::disk("test.zip"), bytes_, error);
        EXPECT_FALSE(error) << error.message();
    }
    std::vector<std::string> names() {
        std::vector<std::string> seen;
        FerritCore::Error error;
        EXPECT_TRUE(zip_.forEachEntry(
            [&](const std::string& name, const std::string& /*content*/) {
                seen.push_back(name);
                return true;
            },
            error))
            << error.message();
        return seen;
    }
    std::string read(const std::string& name) {
        FerritCore::Error error;
        std::string content = zip_.readEntry(name, error);
        EXPECT_FALSE(error) << name << ": " << error.message();
        return content;
    }
    std::string bytes_;
    FerritCore::ZipFile zip_;
};

// The bytes `patch` makes from `reference`, checked against the size and MD5 of `expected`.
std::string applied(const std::string& reference, const std::string& patch,
                    const std::string& expected) {
    std::string made;
    const FerritCore::Error error =
        FerritCore::applyPatch(reference, patch, FerritCore::Folder::disk("made"), expected.size(),
                               md5Hex(expected), [&made](std::string_view piece) {
                                   made.append(piece);
                                   return FerritCore::Error();
                               });
    EXPECT_FALSE(error) << error.message();
    return made;
}

// Three versions since a base: a file changed and changed back, one removed and one added, one
// unchanged, one changed once.
struct History {
    PackContent base, second, third;
    History() {
        base.files = {{"index.html", "<html>one</html>"},
                      {"keep.css", "body{}"},
                      {"back.js", "let x = 1;"},
                      {"gone.js", "let gone = 1;"}};
        second.files = {{"index.html", "<html>two</html>"},
                        {"keep.css", "body{}"},
                        {"back.js", "let x = 2;"},
                        {"added.js", "let added = 2;"}};
        third.files = {{"index.html", "<html>three</html>"},
                       {"keep.css", "body{}"},
                       {"back.js", "let x = 1;"},
                       {"added.js", "let added = 3;"},
                       {"late.js", "let late = 3;"}};
        third.headers["keep.css"] = {{"Access-Control-Allow-Origin", "*"}};
    }
    std::vector<PackListing> since() const {
        return {listingOf(base.files), listingOf(second.files)};
    }
};

// The zip a builder must give, written entry by entry with the zip writer alone: the signed list
// of `content` (naming `removed`) first, then "res/<path>" for each of `paths` in that order, an
// empty file stored and every other one deflated at the default level.
std::string expectedZip(const PackContent& content, const std::vector<std::string>& removed,
                        const std::vector<std::string>& paths) {
    std::string json, index, error, zip;
    EXPECT_TRUE(indexJson(content, kPrefix, removed, json, error)) << error;
    EXPECT_TRUE(signIndex(json, "ed25519", fakeSigner(), index, error)) << error;
    ZipWriter writer;
    ZipWriter::Entry entry;
    entry.name = "app-res.hvc";
    entry.content = index;
    EXPECT_TRUE(writer.add(entry, error)) << error;
    for (const std::string& path : paths) {
        entry.name = "res/" + path;
        entry.content = content.files.at(path);
        entry.deflate = !entry.content.empty();
        EXPECT_TRUE(writer.add(entry, error)) << error;
    }
    EXPECT_TRUE(writer.finish(zip, error)) << error;
    return zip;
}

// The plain increment is, byte for byte, the list and the carried files alone: a device that never
// asks for a patched increment sees no change at all.
TEST(PatchedIncrementTest, PlainIncrementKeepsItsBytes) {
    const History history;
    std::string zip, error;
    IncrementSummary summary;
    ASSERT_TRUE(
        buildIncrementSince(history.since(), history.third, testOptions(), zip, error, &summary))
        << error;
    EXPECT_EQ(zip, expectedZip(history.third, {"gone.js"},
                               {"added.js", "back.js", "index.html", "late.js"}));
    EXPECT_EQ(summary.changed, (std::vector<std::string>{"back.js", "index.html"}));
    EXPECT_EQ(summary.added, (std::vector<std::string>{"added.js", "late.js"}));
    EXPECT_EQ(summary.removed, std::vector<std::string>{"gone.js"});
}

// The two-version patched increment (what `ferrit pack diff --patches` writes): the plain
// increment's list byte for byte, the unpatched files whole, and the changed script as one stored
// patch that turns the old bytes into the new; the whole file is weighed as the plain increment's
// entry of it.
TEST(PatchedIncrementTest, TwoVersionPatchedIncrementCarriesPatchAndList) {
    PackContent before, after;
    before.files = {{"app.js", largeScript()}, {"index.html", "<html>one</html>"}};
    after.files = {{"app.js", withLine(largeScript(), 1000, "export const fixed = true;")},
                   {"index.html", "<html>two</html>"},
                   {"new.js", "let fresh = 2;"}};
    std::string zip, error;
    PatchSummary summary;
    ASSERT_TRUE(buildPatchedIncrement(before, after, testOptions(), zip, error, &summary)) << error;
    EXPECT_EQ(summary.patched, std::vector<std::string>{"app.js"});
    const std::string patchName = "patch/" + md5Hex(before.files["app.js"]) + "/app.js";
    Zip opened(zip);
    EXPECT_EQ(opened.names(),
              (std::vector<std::string>{"app-res.hvc", patchName, "res/index.html", "res/new.js"}));
    const std::string plain = expectedZip(after, {}, {"app.js", "index.html", "new.js"});
    EXPECT_EQ(opened.read("app-res.hvc"), Zip(plain).read("app-res.hvc"));
    EXPECT_EQ(opened.read("res/index.html"), "<html>two</html>");
    EXPECT_EQ(opened.read("res/new.js"), "let fresh = 2;");
    const std::string patch = opened.read(patchName);
    // Stored: the patch's own bytes stand in the archive as they are.
    EXPECT_NE(zip.find(patch), std::string::npos);
    EXPECT_EQ(summary.patchBytes, patch.size());
    EXPECT_EQ(applied(before.files["app.js"], patch, after.files["app.js"]), after.files["app.js"]);
    // A zip entry adds its name twice and 76 bytes of headers to its data.
    const std::string withoutApp = expectedZip(after, {}, {"index.html", "new.js"});
    EXPECT_EQ(summary.wholeBytes, plain.size() - withoutApp.size() - 76 - 2 * strlen("res/app.js"));
}

// `size` bytes that deflate cannot shrink, the same on every platform.
std::string noise(size_t size, uint32_t seed) {
    std::mt19937 generator(seed);
    std::string bytes(size, '\0');
    for (char& byte : bytes) byte = static_cast<char>(generator() & 0xFF);
    return bytes;
}

// A file with two older MD5s since the base, each of whose patches alone saves the margin, but
// which together weigh more than the file whole: the zip would carry both, so it travels whole.
TEST(PatchedIncrementTest, MarginCountsEveryPatchOfAPath) {
    const std::string fresh = noise(8000, 7);
    // Each older version shares a different 40% of the new bytes.
    const std::string first = fresh.substr(0, 3200) + noise(4800, 11);
    const std::string second = noise(4800, 13) + fresh.substr(4800);
    const uint64_t whole = rawDeflate(fresh).size();
    for (const std::string* old : {&first, &second}) {
        FerritCore::ErrorOr<std::string> patch = FerritCore::makePatch(*old, fresh);
        ASSERT_TRUE(patch.ok());
        ASSERT_LE(patch->size() + kPatchMarginBytes, whole);
    }
    const PackFiles v1{{"data.bin", first}}, v2{{"data.bin", second}};
    PackContent current;
    current.files = {{"data.bin", fresh}};
    std::string zip, error;
    PatchSummary summary;
    const ReferenceFiles both{{"data.bin", {{md5Hex(first), first}, {md5Hex(second), second}}}};
    ASSERT_TRUE(buildIncrementSince({listingOf(v1), listingOf(v2)}, current, testOptions(), zip,
                                    error, nullptr, &both, &summary))
        << error;
    EXPECT_TRUE(summary.patched.empty());
    EXPECT_EQ(Zip(zip).names(), (std::vector<std::string>{"app-res.hvc", "res/data.bin"}));
    // With one older MD5 the same patch pays, and the path travels as it.
    const ReferenceFiles one{{"data.bin", {{md5Hex(first), first}}}};
    ASSERT_TRUE(buildIncrementSince({listingOf(v1)}, current, testOptions(), zip, error, nullptr,
                                    &one, &summary))
        << error;
    EXPECT_EQ(summary.patched, std::vector<std::string>{"data.bin"});
}

// The signed list's JSON, parsed: what comes before its separators.
JSON listOf(const std::string& signedList) {
    std::string parseError;
    JSON list = JSON::parse(signedList.substr(0, signedList.find("||")), &parseError);
    EXPECT_TRUE(parseError.empty()) << parseError;
    return list;
}

// A tree published by `publish` from versions of one pack, each a folder of files.
class PublishPatchedTest : public testing::Test {
  protected:
    void SetUp() override {
        root_ = fs::temp_directory_path() /
                ("patched-publish-test-" + std::to_string(::getpid()) + "-" +
                 testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(root_);
        fs::create_directories(root_);
        manifest_.appKey = "shop";
        manifest_.appVersion = "1.0";
        PublishPack pack;
        pack.name = "shop";
        pack.folder = "shop";
        pack.prefix = kPrefix;
        manifest_.packs.push_back(pack);
    }
    void TearDown() override { fs::remove_all(root_); }

    // Publishes `files` as the pack's next version.
    PublishedPack publishVersion(const PackFiles& files) {
        const fs::path site = root_ / "site";
        fs::remove_all(site);
        for (const auto& [path, bytes] : files) {
            fs::create_directories((site / "shop" / path).parent_path());
            EXPECT_TRUE(writeFileAtomically((site / "shop" / path).string(), bytes));
        }
        PublishResult result;
        std::string error;
        EXPECT_TRUE(
            publish(site.string(), manifest_, out(), history(), fakeSigner(), result, error))
            << error;
        EXPECT_EQ(result.packs.size(), 1u);
        return result.packs.empty() ? PublishedPack() : result.packs.front();
    }
    std::string out() const { return (root_ / "out").string(); }
    std::string history() const { return (root_ / "history").string(); }
    std::string treeFile(const std::string& relative) const {
        std::string bytes;
        EXPECT_TRUE(readWholeFile((root_ / "out" / relative).string(), bytes)) << relative;
        return bytes;
    }
    bool inTree(const std::string& relative) const { return fs::exists(root_ / "out" / relative); }
    JSON state() const {
        std::string text, parseError;
        EXPECT_TRUE(readWholeFile((root_ / "history" / "state.json").string(), text));
        return JSON::parse(text, &parseError);
    }
    // The record of `seq` in the pack's own document.
    JSON packDocument(uint64_t seq) const {
        const std::string text = treeFile("packconfig/shop/" + std::to_string(seq));
        return listOf(text)["packs"]["shop"];
    }

    fs::path root_;
    PublishManifest manifest_;
};

// Three versions where a large script changes one line each time: the patched increment to the
// third carries a patch against each older MD5, a file added since the base travels whole, and
// the plain increment, the list and the records are what the builder without patches gives.
TEST_F(PublishPatchedTest, ThirdVersionPatchesAgainstBothOlderVersions) {
    const std::string script1 = largeScript();
    const std::string script2 = withLine(script1, 500, "export const fix = 2;");
    const std::string script3 = withLine(script2, 2500, "export const fix = 3;");
    // A file that never changes weighs in the full zip alone.
    const std::string style = "body{margin:0}\n" + withLine(script1, 0, "/* styles */");
    const PackFiles v1{{"app.js", script1}, {"index.html", "<html>one</html>"}, {"app.css", style}};
    const PackFiles v2{{"app.js", script2},
                       {"index.html", "<html>one</html>"},
                       {"app.css", style},
                       {"added.js", "let added = 2;"}};
    const PackFiles v3{{"app.js", script3},
                       {"index.html", "<html>three</html>"},
                       {"app.css", style},
                       {"added.js", "let added = 3;"}};
    publishVersion(v1);
    const PublishedPack second = publishVersion(v2);
    EXPECT_TRUE(second.patched);
    EXPECT_TRUE(inTree("packs/shop/p/2.zip"));
    const PublishedPack third = publishVersion(v3);
    ASSERT_EQ(third.seq, 3u);
    ASSERT_TRUE(third.patched);
    EXPECT_EQ(third.patches.patched, std::vector<std::string>{"app.js"});

    // The full zip and the plain increment, written with the zip writer alone.
    PackContent content;
    content.files = v3;
    const std::string full =
        expectedZip(content, {}, {"added.js", "app.css", "app.js", "index.html"});
    const std::string plain = expectedZip(content, {}, {"added.js", "app.js", "index.html"});
    EXPECT_EQ(treeFile("packs/shop/3.zip"), full);
    EXPECT_EQ(treeFile("packs/shop/i/3.zip"), plain);

    Zip patched(treeFile("packs/shop/p/3.zip"));
    Zip increment(plain);
    const std::string from1 = "patch/" + md5Hex(script1) + "/app.js";
    const std::string from2 = "patch/" + md5Hex(script2) + "/app.js";
    // The newest version's patch first: the likeliest device's is judged before the rest.
    const std::vector<std::string> expected{"app-res.hvc", "res/added.js", from2, from1,
                                            "res/index.html"};
    std::vector<std::string> names = patched.names();
    EXPECT_EQ(names, expected);
    EXPECT_EQ(patched.read("app-res.hvc"), increment.read("app-res.hvc"));
    EXPECT_EQ(patched.read("res/added.js"), "let added = 3;");
    // Each patch makes, from its reference, the bytes the list names.
    const JSON listed = listOf(patched.read("app-res.hvc"))["res/app.js"];
    EXPECT_EQ(listed["v"].stringValue(), md5Hex(script3));
    EXPECT_EQ(listed["size"].uint64Value(), script3.size());
    EXPECT_EQ(applied(script1, patched.read(from1), script3), script3);
    EXPECT_EQ(applied(script2, patched.read(from2), script3), script3);

    // "c", "ci" and "b" as without patches, and "cp" beside them in the state and the documents.
    const std::string patchMd5 = md5Hex(treeFile("packs/shop/p/3.zip"));
    const JSON record = state()["packs"]["shop"];
    const JSON build = record["builds"]["3"];
    for (const JSON& held : {record, build}) {
        EXPECT_EQ(held["c"].stringValue(), md5Hex(full));
        EXPECT_EQ(held["ci"].stringValue(), md5Hex(plain));
        EXPECT_EQ(held["cp"].stringValue(), patchMd5);
    }
    EXPECT_EQ(build["b"].uint64Value(), 1u);
    const JSON document = packDocument(3);
    EXPECT_EQ(document["c"].stringValue(), md5Hex(full));
    EXPECT_EQ(document["ci"].stringValue(), md5Hex(plain));
    EXPECT_EQ(document["b"].uint64Value(), 1u);
    EXPECT_EQ(document["cp"].stringValue(), patchMd5);

    EXPECT_EQ(third.incrementBytes, plain.size());
    EXPECT_EQ(third.patchedBytes, treeFile("packs/shop/p/3.zip").size());
    EXPECT_EQ(third.fullBytes, full.size());
    std::cout << "sizes of version 3: full " << third.fullBytes << ", plain increment "
              << third.incrementBytes << ", patched increment " << third.patchedBytes << "\n";
    EXPECT_LT(third.patchedBytes * 4, third.incrementBytes);
}

// A version whose full zip is gone from the tree gives no references: a path it had with other
// bytes travels whole, another still travels as a patch, and publish succeeds.
TEST_F(PublishPatchedTest, VersionWithoutItsZipLeavesItsPathsWhole) {
    const std::string app1 = largeScript();
    const std::string app2 = withLine(app1, 700, "export const fix = 2;");
    const std::string app3 = withLine(app2, 900, "export const fix = 3;");
    const std::string lib = largeScript() + "export const lib = true;\n";
    const std::string lib3 = withLine(lib, 42, "export const fix = 3;");
    publishVersion({{"app.js", app1}, {"lib.js", lib}});
    publishVersion({{"app.js", app2}, {"lib.js", lib}});
    fs::remove(root_ / "out" / "packs" / "shop" / "1.zip");
    const PublishedPack third = publishVersion({{"app.js", app3}, {"lib.js", lib3}});
    ASSERT_EQ(third.seq, 3u);
    ASSERT_TRUE(third.patched);
    EXPECT_EQ(third.patches.patched, std::vector<std::string>{"lib.js"});
    Zip patched(treeFile("packs/shop/p/3.zip"));
    const std::string fromLib = "patch/" + md5Hex(lib) + "/lib.js";
    // In path order, as in the plain increment: each patch takes its file's place.
    EXPECT_EQ(patched.names(), (std::vector<std::string>{"app-res.hvc", "res/app.js", fromLib}));
    EXPECT_EQ(patched.read("res/app.js"), app3);
    EXPECT_EQ(applied(lib, patched.read(fromLib), lib3), lib3);
}

// A version whose zip holds other bytes than its list says is no reference either.
TEST_F(PublishPatchedTest, DamagedVersionZipGivesNoReferences) {
    const std::string app1 = largeScript();
    const std::string app2 = withLine(app1, 700, "export const fix = 2;");
    publishVersion({{"app.js", app1}});
    std::string other;
    PackContent changed;
    changed.files = {{"app.js", app1 + "// not what the list says\n"}};
    ASSERT_TRUE(buildPack(changed, testOptions(), other, other));
    ASSERT_TRUE(writeFileAtomically((root_ / "out" / "packs" / "shop" / "1.zip").string(), other));
    const PublishedPack second = publishVersion({{"app.js", app2}});
    EXPECT_TRUE(second.incremental);
    EXPECT_FALSE(second.patched);
    EXPECT_TRUE(second.patches.patched.empty());
    EXPECT_FALSE(inTree("packs/shop/p/2.zip"));
}

// References are read by entry name, one copy per distinct older MD5, from the first version that
// lists it: a later version with nothing still wanted is not read, and a version whose zip is gone
// leaves the MD5 to the next version that has it.
TEST_F(PublishPatchedTest, ReferencesReadOncePerDistinctMd5) {
    const std::string app = largeScript();
    const std::string lib = largeScript() + "export const lib = true;\n";
    const PackFiles v1{{"app.js", app}, {"lib.js", lib}, {"index.html", "<html>one</html>"}};
    const PackFiles v2{{"app.js", app}, {"lib.js", lib}, {"index.html", "<html>two</html>"}};
    const PackFiles v3{{"app.js", withLine(app, 3, "export const fix = 3;")},
                       {"lib.js", withLine(lib, 9, "export const fix = 3;")},
                       {"index.html", "<html>three</html>"},
                       {"added.js", "let added = 3;"}};
    publishVersion(v1);
    publishVersion(v2);
    const std::vector<PackListing> since{listingOf(v1), listingOf(v2)};
    const std::vector<std::string> changed{"app.js", "index.html", "lib.js"};
    ReferenceFiles references;
    const ReferenceFiles expected{{"app.js", {{md5Hex(app), app}}},
                                  {"index.html",
                                   {{md5Hex("<html>one</html>"), "<html>one</html>"},
                                    {md5Hex("<html>two</html>"), "<html>two</html>"}}},
                                  {"lib.js", {{md5Hex(lib), lib}}}};
    // Every MD5 the first version has: the second is not read.
    EXPECT_EQ(readPatchReferences(out(), "packs/shop/", 1, since, listingOf(v3),
                                  {"app.js", "lib.js"}, references),
              1u);
    EXPECT_EQ(references,
              (ReferenceFiles{{"app.js", {{md5Hex(app), app}}}, {"lib.js", {{md5Hex(lib), lib}}}}));
    // index.html has two older MD5s: the second version's zip is read for its own.
    references.clear();
    EXPECT_EQ(
        readPatchReferences(out(), "packs/shop/", 1, since, listingOf(v3), changed, references),
        2u);
    EXPECT_EQ(references, expected);
    // Without the first zip the second gives every MD5 it shares with it.
    fs::remove(root_ / "out" / "packs" / "shop" / "1.zip");
    references.clear();
    EXPECT_EQ(readPatchReferences(out(), "packs/shop/", 1, since, listingOf(v3),
                                  {"app.js", "lib.js"}, references),
              1u);
    EXPECT_EQ(references,
              (ReferenceFiles{{"app.js", {{md5Hex(app), app}}}, {"lib.js", {{md5Hex(lib), lib}}}}));
}

// A patched increment no smaller than the plain one is not written, and no record names it.
TEST_F(PublishPatchedTest, PatchedFormNotSmallerIsNotWritten) {
    publishVersion({{"index.html", "<html>one</html>"}, {"app.css", "body{}"}});
    const PublishedPack second =
        publishVersion({{"index.html", "<html>two</html>"}, {"app.css", "body{}"}});
    EXPECT_TRUE(second.incremental);
    EXPECT_FALSE(second.patched);
    EXPECT_EQ(second.patchedBytes, second.incrementBytes);
    EXPECT_FALSE(inTree("packs/shop/p/2.zip"));
    const JSON record = state()["packs"]["shop"];
    EXPECT_FALSE(record["cp"].isString());
    EXPECT_FALSE(record["builds"]["2"]["cp"].isString());
    EXPECT_FALSE(packDocument(2)["cp"].isString());
    EXPECT_FALSE(state().toString().find("\"cp\"") != std::string::npos);
}

// A publish killed after writing only the patched increment leaves its number taken.
TEST_F(PublishPatchedTest, TakenPatchedZipSkipsItsNumber) {
    publishVersion({{"index.html", "<html>one</html>"}});
    fs::create_directories(root_ / "out" / "packs" / "shop" / "p");
    ASSERT_TRUE(
        writeFileAtomically((root_ / "out" / "packs" / "shop" / "p" / "2.zip").string(), "left"));
    const PublishedPack second = publishVersion({{"index.html", "<html>two</html>"}});
    EXPECT_EQ(second.skipped, std::vector<uint64_t>{2});
    EXPECT_EQ(second.seq, 3u);
}

// A record with "cp" reads, with the library's own reader, as the same record without it.
TEST(PatchedRecordTest, ReaderKeepsEveryOtherField) {
    ConfigPack record;
    record.name = "shop";
    record.seq = 3;
    record.flags = 0x50;
    record.baseSeq = 1;
    record.publishTime = 1700000000000;
    record.md5 = md5Hex("full");
    record.incrMd5 = md5Hex("increment");
    record.prefixes = {kPrefix};
    ConfigPack patched = record;
    patched.patchMd5 = md5Hex("patched");
    std::string plainDocument, patchedDocument, error;
    ASSERT_TRUE(buildConfig("7", {record}, fakeSigner(), plainDocument, error)) << error;
    ASSERT_TRUE(buildConfig("7", {patched}, fakeSigner(), patchedDocument, error)) << error;
    const JSON withKey = listOf(patchedDocument)["packs"]["shop"];
    EXPECT_EQ(withKey["cp"].stringValue(), patched.patchMd5);
    FerritCore::Pack without, with;
    without.readJSON(listOf(plainDocument)["packs"]["shop"]);
    with.readJSON(withKey);
    EXPECT_EQ(with.seq, without.seq);
    EXPECT_EQ(with.flags, without.flags);
    EXPECT_EQ(with.baseSeq, without.baseSeq);
    EXPECT_EQ(with.publishTime, without.publishTime);
    EXPECT_EQ(with.md5, without.md5);
    EXPECT_EQ(with.incrMd5, without.incrMd5);
    EXPECT_EQ(with.prefixes, without.prefixes);
    EXPECT_EQ(with.gray, without.gray);
    EXPECT_EQ(with.status, without.status);
    EXPECT_EQ(with.subType, without.subType);
    EXPECT_EQ(with.zipURL, without.zipURL);
    EXPECT_EQ(with.incrMd5, record.incrMd5);
    EXPECT_TRUE(with.validate());
}

}  // namespace
}  // namespace FerritTools
