// Hostile archives through the whole install: each is refused with its code, nothing is written
// outside the new version's folder (which never appears), no temporary folder is left, and the
// installed version keeps serving.
#include <gtest/gtest.h>

#include <algorithm>

#include "base/Errors.h"
#include "base/Url.h"
#include "tests/update/InstallFixture.h"
#include "tools/pack/ZipWriter.h"

namespace FerritTest {

namespace Errors = FerritCore::Errors;
namespace {

using FerritTools::ZipWriter;
namespace fs = std::filesystem;

class HostileArchiveTest : public InstallFixture {
  protected:
    void SetUp() override {
        InstallFixture::SetUp();
        // The app is installed at seq 1; every test serves a hostile seq 2.
        put({record("app", kPackTypeACache, 1, 1, kPriorityAutoInstall)});
        serveFull("app", 1, zipOf(version1()), kAppZipPrefix);
        const Error error = update("app", kTriggerTimer);
        ASSERT_FALSE(error) << error.message();
        auto next = find("app")->clone();
        next->seq = 2;
        next->baseSeq = 2;
        put({next});
        before_ = everything();
    }

    static ZipWriter::Entry file(const std::string& name, const std::string& content) {
        ZipWriter::Entry entry;
        entry.name = name;
        entry.content = content;
        return entry;
    }
    // The signed list of `listed` and its files, then `extra`.
    static std::string archive(const std::vector<ZipWriter::Entry>& extra,
                               const PackFiles& listed = version2(), bool withList = true) {
        std::vector<ZipWriter::Entry> entries;
        if (withList) entries.push_back(file("app-res.hvc", indexOf(listed)));
        for (const auto& [path, content] : listed) entries.push_back(file("res/" + path, content));
        entries.insert(entries.end(), extra.begin(), extra.end());
        return raw(entries);
    }
    static std::string raw(const std::vector<ZipWriter::Entry>& entries) {
        ZipWriter writer;
        std::string error, zip;
        for (const ZipWriter::Entry& entry : entries)
            EXPECT_TRUE(writer.add(entry, error)) << error;
        EXPECT_TRUE(writer.finish(zip, error)) << error;
        return zip;
    }
    static ZipWriter::Entry rawEntry(const std::string& name, std::string stream, uint64_t size,
                                     uint32_t crc) {
        ZipWriter::Entry entry;
        entry.name = name;
        entry.content = std::move(stream);
        entry.raw = true;
        entry.declaredSize = size;
        entry.declaredCrc = crc;
        entry.zip64 = size >= 0xFFFFFFFFull;
        return entry;
    }

    // Every path below the root, relative to it, but the stores' own files.
    std::vector<std::string> everything() const {
        std::vector<std::string> paths;
        for (const auto& entry : fs::recursive_directory_iterator(temp_.path())) {
            std::string path = fs::relative(entry.path(), temp_.path()).generic_string();
            if (path.starts_with("packs")) continue;
            paths.push_back(path);
        }
        std::sort(paths.begin(), paths.end());
        return paths;
    }

    // Serves `zip` as seq 2 and runs the update: it fails with `code` (and, when given, the
    // reason), and leaves everything as it was.
    void expectRefused(const std::string& zip, int code, const std::string& reason = {}) {
        serveFull("app", 2, zip, kAppZipPrefix);
        const Error error = update("app", kTriggerTimer);
        EXPECT_EQ(error.code(), code) << error.message();
        if (!reason.empty()) {
            EXPECT_EQ(error.message(), reason);
        }
        EXPECT_EQ(find("app")->installedSeq, 1u);
        EXPECT_EQ(find("app")->status, kPackStatusNormal);
        expectServes(version1());
        settle();
        EXPECT_TRUE(tempLeft().empty());
        EXPECT_FALSE(onDisk("apps/app/2"));
        EXPECT_EQ(everything(), before_);
    }

    static std::string unzipFailed(const std::string& reason) {
        return "unzip \"temp/app_2_0/origin.zip\" failed: " + reason;
    }

    std::vector<std::string> before_;
};

TEST_F(HostileArchiveTest, ParentEntryIsRefused) {
    expectRefused(archive({file("../x", "x")}), Errors::kUnzipFailed,
                  unzipFailed("Entry name \"../x\" climbs out of its folder"));
    EXPECT_FALSE(onDisk("temp/x"));
}

TEST_F(HostileArchiveTest, AbsoluteEntryIsRefused) {
    expectRefused(archive({file("/etc/x", "x")}), Errors::kUnzipFailed,
                  unzipFailed("Entry name \"/etc/x\" is absolute"));
}

TEST_F(HostileArchiveTest, EntryClimbingThroughASubfolderIsRefused) {
    expectRefused(archive({file("a/../../x", "x")}), Errors::kUnzipFailed,
                  unzipFailed("Entry name \"a/../../x\" climbs out of its folder"));
}

TEST_F(HostileArchiveTest, BackslashEntryIsRefused) {
    expectRefused(archive({file("res\\..\\..\\x", "x")}), Errors::kUnzipFailed,
                  unzipFailed("Entry name \"res\\..\\..\\x\" holds a backslash"));
}

TEST_F(HostileArchiveTest, SymbolicLinkEntryIsRefused) {
    ZipWriter::Entry link = file("res/link", "/etc/passwd");
    link.deflate = false;
    link.unixMode = 0120777;
    expectRefused(archive({link}), Errors::kUnzipFailed,
                  unzipFailed("Entry \"res/link\" is a symbolic link"));
}

TEST_F(HostileArchiveTest, DuplicateEntryIsRefused) {
    expectRefused(archive({file("res/index.html", "<p>second copy</p>")}), Errors::kUnzipFailed,
                  unzipFailed("Duplicate entry \"res/index.html\""));
}

TEST_F(HostileArchiveTest, FourGiBDeclaredOverASmallStreamIsRefusedWithoutAllocatingIt) {
    const std::string stream = FerritTools::rawDeflate("hello");
    serveFull("app", 2, archive({rawEntry("res/big.bin", stream, 4ull << 30, 0)}), kAppZipPrefix);
    const Error error = update("app", kTriggerTimer);
    EXPECT_EQ(error.code(), Errors::kUnzipFailed);
    // The exact size depends on how minizip reads the 64-bit field: 2^32 or 2^32 - 1.
    EXPECT_NE(error.message().find("Entry \"res/big.bin\" declares 429496729"), std::string::npos)
        << error.message();
    EXPECT_EQ(find("app")->installedSeq, 1u);
    expectServes(version1());
    EXPECT_TRUE(tempLeft().empty());
}

TEST_F(HostileArchiveTest, DeflateBombDeclaringItsSizeIsRefused) {
    // About 1 KiB of stream that would inflate to 1 GiB of zeros.
    const std::string stream = FerritTools::rawDeflate(std::string(1 << 20, '\0'));
    ASSERT_LT(stream.size(), 2048u);
    expectRefused(archive({rawEntry("res/bomb.bin", stream, 1ull << 30, 0)}), Errors::kUnzipFailed,
                  unzipFailed("Entry \"res/bomb.bin\" declares 1073741824 bytes from " +
                              std::to_string(stream.size()) + " compressed"));
}

// A bomb that understates its size is read only up to the recorded size, which its list names.
TEST_F(HostileArchiveTest, DeflateBombUnderstatingItsSizeIsStoppedAtTheRecordedSize) {
    const std::string stream = FerritTools::rawDeflate(std::string(1 << 20, '\0'));
    const std::string head(1024, '\0');
    PackFiles listed = version2();
    listed["bomb.bin"] = head;
    std::vector<ZipWriter::Entry> entries;
    entries.push_back(file("app-res.hvc", indexOf(listed)));
    for (const auto& [path, content] : version2()) entries.push_back(file("res/" + path, content));
    entries.push_back(
        rawEntry("res/bomb.bin", stream, head.size(), FerritCore::Digest::crc32(head)));
    serveFull("app", 2, raw(entries), kAppZipPrefix);
    const Error error = update("app", kTriggerTimer);
    ASSERT_FALSE(error) << error.message();
    EXPECT_EQ(fs::file_size(temp_.path() / "apps/app/2/res/bomb.bin"), head.size());
}

TEST_F(HostileArchiveTest, TruncatedCentralDirectoryIsRefused) {
    const std::string zip = archive({});
    const size_t directory = zip.find(std::string("PK\x01\x02", 4));
    ASSERT_NE(directory, std::string::npos);
    expectRefused(
        zip.substr(0, directory + 30), Errors::kUnzipFailed,
        unzipFailed("Open zip file failed: -103 (UNZ_BADZIPFILE: not a zip archive or damaged)"));
}

TEST_F(HostileArchiveTest, EmptyZipIsRefused) {
    expectRefused(raw({}), Errors::kUnzipFailed);
}

TEST_F(HostileArchiveTest, ZipWithoutTheListIsRefused) {
    expectRefused(
        archive({}, version2(), /*withList=*/false), Errors::kUnzipFailed,
        unzipFailed("Open zip file failed: -100 (UNZ_END_OF_LIST_OF_FILE: no such entry)"));
}

TEST_F(HostileArchiveTest, UnsignedListIsRefused) {
    std::vector<ZipWriter::Entry> entries;
    entries.push_back(file("app-res.hvc", R"({"res/index.html":{"v":"x"}})"));
    entries.push_back(file("res/index.html", "<html>"));
    expectRefused(raw(entries), Errors::kFileDeserialization,
                  "file \"app.zip/app-res.hvc\" deserialization failed: Token || not found");
}

TEST_F(HostileArchiveTest, ListWithAForgedSignatureIsRefused) {
    std::string list = indexOf(version2());
    list.replace(list.rfind('|') + 1, std::string::npos, FakeProxy::base64("forged"));
    std::vector<ZipWriter::Entry> entries;
    entries.push_back(file("app-res.hvc", list));
    for (const auto& [path, content] : version2()) entries.push_back(file("res/" + path, content));
    expectRefused(raw(entries), Errors::kFileVerify);
}

// The tampered file has the listed size, so that the MD5 is what refuses it.
TEST_F(HostileArchiveTest, FileWhoseMd5DiffersFromTheListIsRefused) {
    const std::string tampered = "tampered(12345678)";
    ASSERT_EQ(tampered.size(), version2().at("js/app.js").size());
    std::vector<ZipWriter::Entry> entries;
    entries.push_back(file("app-res.hvc", indexOf(version2())));
    for (const auto& [path, content] : version2())
        entries.push_back(file("res/" + path, path == "js/app.js" ? tampered : content));
    expectRefused(raw(entries), Errors::kFileVerify,
                  "file \"temp/app_2_0/origin.zip/res/js/app.js\" verify failed: MD5 \"" +
                      FerritCore::Digest::md5Hex(tampered) + "\" different with expectation \"" +
                      FerritCore::Digest::md5Hex(version2().at("js/app.js")) + "\"");
}

TEST_F(HostileArchiveTest, FileThatTheListDoesNotNameIsRefused) {
    expectRefused(archive({file("res/extra.js", "sneaky();")}), Errors::kPreloadNotFound,
                  "temp/app_2_0/origin.zip/res/extra.js not found");
}

// An empty resource is never installed: a read could not tell it from a damaged file.
// An entry that lost its bytes while its list names content is damage (an empty file that its
// list names empty is content, and installs).
TEST_F(HostileArchiveTest, EmptyEntryWhoseListNamesContentIsRefusedWithNoData) {
    PackFiles listed = version2();
    listed["empty.txt"] = "it had content";
    std::vector<ZipWriter::Entry> entries;
    entries.push_back(file("app-res.hvc", indexOf(listed)));
    for (const auto& [path, content] : listed)
        entries.push_back(file("res/" + path, path == "empty.txt" ? "" : content));
    expectRefused(raw(entries), Errors::kNoData,
                  "file \"temp/app_2_0/origin.zip/res/empty.txt\" no data");
}

TEST_F(HostileArchiveTest, ListThatNamesAPathOutsideThePackIsRefused) {
    const std::string json =
        R"({"../../escape.txt":{"v":")" + FerritCore::Digest::md5Hex("x") + R"("}})";
    std::vector<ZipWriter::Entry> entries;
    entries.push_back(file("app-res.hvc", FakeProxy::signIndex(json)));
    expectRefused(raw(entries), Errors::kFileDeserialization);
}

// Random damage to a good pack zip never crashes, never writes outside, and never changes what
// is installed unless the damage left a zip that still verifies.
TEST_F(HostileArchiveTest, DamagedZipsFailCleanly) {
    const std::string good = archive({});
    std::mt19937 random(20240611);
    for (int round = 0; round < 40; ++round) {
        std::string damaged = good;
        const int flips = 1 + static_cast<int>(random() % 3);
        for (int i = 0; i < flips; ++i)
            damaged[random() % damaged.size()] = static_cast<char>(random());
        serveFull("app", 2, damaged, kAppZipPrefix);
        const Error error = update("app", kTriggerTimer);
        settle();
        EXPECT_TRUE(tempLeft().empty());
        if (error) {
            EXPECT_EQ(find("app")->installedSeq, 1u);
            expectServes(version1());
            EXPECT_EQ(everything(), before_) << error.message();
        } else {
            // A flip that missed everything checked: the new version is whole.
            expectServes(version2());
            return;
        }
    }
}

}  // namespace
}  // namespace FerritTest
