#include "base/Errors.h"
#include "base/Folder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <unordered_set>
#include <vector>

#include "base/AssetProvider.h"
#include "base/Environment.h"
#include "base/FileUtil.h"
#include "base/PackedFiles.h"
#include "base/Proxy.h"
#include "base/Telemetry.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "tests/FakeProxy.h"
#include "tests/MemoryPackedFiles.h"
#include "tests/TestUtil.h"

namespace FerritCore {
namespace {

// Folder values under a root that names no real folder.
class FolderTest : public FerritTest::ProcessTest {
  protected:
    void SetUp() override {
        ProcessTest::SetUp();
        setRootPath("/data/app/ferrit/");
    }
};

size_t expectedHash(FolderKind kind, const std::string& relative) {
    const size_t h = std::hash<std::string>{}(relative);
    return (static_cast<size_t>(kind) + (h << 6) + (h >> 2) + 0x9e3779b9) ^ h;
}

// --- normalizePath --------------------------------------------------------------------------

TEST_F(FolderTest, NormalizePathTurnsBackslashesIntoSlashes) {
    EXPECT_EQ(normalizePath("a\\b\\c.js"), "a/b/c.js");
    EXPECT_EQ(normalizePath("a\\b/c\\"), "a/b/c/");
}

TEST_F(FolderTest, NormalizePathCollapsesRuns) {
    EXPECT_EQ(normalizePath("a//b///c"), "a/b/c");
    EXPECT_EQ(normalizePath("a/\\/b"), "a/b");
}

TEST_F(FolderTest, NormalizePathKeepsOneLeadingSeparator) {
    EXPECT_EQ(normalizePath("/a/b"), "/a/b");
    EXPECT_EQ(normalizePath("///a/b"), "/a/b");
    EXPECT_EQ(normalizePath("\\a"), "/a");
}

TEST_F(FolderTest, NormalizePathKeepsOneTrailingSeparator) {
    EXPECT_EQ(normalizePath("a/b/"), "a/b/");
    EXPECT_EQ(normalizePath("a/b//"), "a/b/");
    EXPECT_EQ(normalizePath("a/b\\"), "a/b/");
    EXPECT_EQ(normalizePath("a/b"), "a/b");
}

TEST_F(FolderTest, NormalizePathOfEmptyAndSeparatorsOnly) {
    EXPECT_EQ(normalizePath(""), "");
    EXPECT_EQ(normalizePath("/"), "/");
    EXPECT_EQ(normalizePath("//\\"), "/");
}

TEST_F(FolderTest, NormalizePathLeavesDotsAlone) {
    EXPECT_EQ(normalizePath("a/./../b"), "a/./../b");
}

// --- Construction ---------------------------------------------------------------------------

TEST_F(FolderTest, ConstructionRemovesOneLeadingSlash) {
    EXPECT_EQ(Folder::disk("/apps/").relative(), "apps/");
    EXPECT_EQ(Folder::asset("//a/b").relative(), "a/b");
    EXPECT_EQ(Folder::packed("\\a").relative(), "a");
    EXPECT_EQ(Folder::onDemand("m", "/").relative(), "");
}

TEST_F(FolderTest, ConstructionKeepsKindAndModule) {
    const Folder onDemand = Folder::onDemand("Ferrit_Asset_m", "x/y");
    EXPECT_EQ(onDemand.kind(), FolderKind::OnDemand);
    EXPECT_EQ(onDemand.module(), "Ferrit_Asset_m");
    EXPECT_EQ(Folder::disk("a").kind(), FolderKind::Disk);
    EXPECT_EQ(Folder::asset("a").kind(), FolderKind::Asset);
    EXPECT_EQ(Folder::packed("a").kind(), FolderKind::Packed);
    EXPECT_TRUE(Folder::disk("a").module().empty());
}

TEST_F(FolderTest, DiskAbsoluteIsRootAndRelative) {
    EXPECT_EQ(Folder::disk("apps/p/1/").absolute(), "/data/app/ferrit/apps/p/1/");
    EXPECT_EQ(Folder::disk("").absolute(), "/data/app/ferrit/");
}

TEST_F(FolderTest, OtherKindsAbsoluteIsRelative) {
    EXPECT_EQ(Folder::asset("/a/b").absolute(), "a/b");
    EXPECT_EQ(Folder::packed("p/1/a").absolute(), "p/1/a");
    EXPECT_EQ(Folder::onDemand("m", "x/").absolute(), "x/");
}

TEST_F(FolderTest, SetRootPathAppendsOneSlash) {
    setRootPath("/r");
    EXPECT_EQ(rootPath(), "/r/");
    setRootPath("/r/");
    EXPECT_EQ(rootPath(), "/r/");
    EXPECT_EQ(Folder::disk("a").absolute(), "/r/a");
}

TEST_F(FolderTest, FolderKindNames) {
    EXPECT_STREQ(folderKindName(FolderKind::Disk), "Disk");
    EXPECT_STREQ(folderKindName(FolderKind::Asset), "Asset");
    EXPECT_STREQ(folderKindName(FolderKind::OnDemand), "OnDemand");
    EXPECT_STREQ(folderKindName(FolderKind::Packed), "Packed");
    EXPECT_STREQ(folderKindName(static_cast<FolderKind>(7)), "Unknown");
}

// --- childOf, isDirectory, baseName ---------------------------------------------------------

TEST_F(FolderTest, ChildOfDropsOneSlashWhenBothHaveOne) {
    EXPECT_EQ(Folder::disk("a/").childOf("/b").relative(), "a/b");
}

TEST_F(FolderTest, ChildOfAddsASlashWhenNeitherHasOne) {
    EXPECT_EQ(Folder::disk("a").childOf("b").relative(), "a/b");
}

TEST_F(FolderTest, ChildOfDirectoryNameIsADirectory) {
    const Folder child = Folder::disk("a/").childOf("b/");
    EXPECT_EQ(child.relative(), "a/b/");
    EXPECT_TRUE(child.isDirectory());
}

TEST_F(FolderTest, ChildOfKeepsOneSlashFromEitherSide) {
    EXPECT_EQ(Folder::disk("a/").childOf("b").relative(), "a/b");
    EXPECT_EQ(Folder::disk("a").childOf("/b").relative(), "a/b");
}

TEST_F(FolderTest, ChildOfTopFolderNeverBeginsWithSlash) {
    EXPECT_EQ(Folder::disk("").childOf("b").relative(), "b");
    EXPECT_EQ(Folder::disk("").childOf("/b/").relative(), "b/");
}

TEST_F(FolderTest, ChildOfKeepsKindModuleAndRecomputesAbsolute) {
    const Folder child = Folder::onDemand("m", "x/").childOf("y.js");
    EXPECT_EQ(child.kind(), FolderKind::OnDemand);
    EXPECT_EQ(child.module(), "m");
    EXPECT_EQ(child.relative(), "x/y.js");
    EXPECT_EQ(child.absolute(), "x/y.js");
    EXPECT_EQ(Folder::disk("apps/").childOf("p/").absolute(), "/data/app/ferrit/apps/p/");
}

TEST_F(FolderTest, EmptyRelativeIsADirectory) {
    EXPECT_TRUE(Folder::disk("").isDirectory());
    EXPECT_TRUE(Folder().isDirectory());
    EXPECT_TRUE(Folder::packed("/").isDirectory());
    EXPECT_TRUE(Folder::asset("a/").isDirectory());
    EXPECT_FALSE(Folder::asset("a").isDirectory());
}

TEST_F(FolderTest, BaseNameIsTheLastComponent) {
    EXPECT_EQ(Folder::disk("a/b/c.js").baseName(), "c.js");
    EXPECT_EQ(Folder::disk("a/b/").baseName(), "b");
    EXPECT_EQ(Folder::disk("c.js").baseName(), "c.js");
    EXPECT_EQ(Folder::disk("b/").baseName(), "b");
    EXPECT_EQ(Folder::disk("").baseName(), "");
}

// --- describe -------------------------------------------------------------------------------

TEST_F(FolderTest, DescribeOfEachKind) {
    EXPECT_EQ(Folder::packed("p/1/a.js").describe(), "/Packs/p/1/a.js");
    EXPECT_EQ(Folder::onDemand("Ferrit_Asset_m", "Ferrit_Asset_m/1/a.js").describe(),
              "/OnDemand(Ferrit_Asset_m)/Ferrit_Asset_m/1/a.js");
    EXPECT_EQ(Folder::asset("Ferrit_Asset_p/1/").describe(), "/Asset/Ferrit_Asset_p/1/");
    EXPECT_EQ(Folder::disk("apps/p/1/a.js").describe(), "apps/p/1/a.js");
}

TEST_F(FolderTest, DescribeOfDiskWithoutRootSaysEmpty) {
    setRootPath("");
    EXPECT_EQ(rootPath(), "/");
    EXPECT_EQ(Folder::disk("apps/a.js").describe(), "(EMPTY)apps/a.js");
    // Only Disk paths depend on the root.
    EXPECT_EQ(Folder::asset("a.js").describe(), "/Asset/a.js");
    setRootPath("/r");
    EXPECT_EQ(Folder::disk("apps/a.js").describe(), "apps/a.js");
}

// --- Equality and hash ----------------------------------------------------------------------

TEST_F(FolderTest, BackslashesAndDoubledSeparatorsEqualTheCleanForm) {
    EXPECT_EQ(Folder::disk("apps\\\\p//1\\a.js"), Folder::disk("apps/p/1/a.js"));
    EXPECT_EQ(Folder::disk("\\apps\\p\\"), Folder::disk("apps/p/"));
    EXPECT_EQ(Folder::disk("apps\\p\\").hash(), Folder::disk("apps/p/").hash());
}

TEST_F(FolderTest, EqualityComparesKindAndRelativeOnly) {
    EXPECT_EQ(Folder::onDemand("m1", "x/a.js"), Folder::onDemand("m2", "x/a.js"));
    EXPECT_FALSE(Folder::disk("x") == Folder::asset("x"));
    EXPECT_FALSE(Folder::disk("x") == Folder::disk("x/"));
    // absolute plays no part: the same Disk path under two roots is one Folder.
    const Folder before = Folder::disk("a");
    setRootPath("/other");
    EXPECT_EQ(before, Folder::disk("a"));
    EXPECT_NE(before.absolute(), Folder::disk("a").absolute());
}

TEST_F(FolderTest, HashFollowsItsFormula) {
    const Folder folders[] = {Folder::disk("apps/p/1/"), Folder::asset("a.js"),
                              Folder::onDemand("m", "x/"), Folder::packed(""),
                              Folder::packed("p/1/a.js")};
    for (const Folder& folder : folders) {
        SCOPED_TRACE(folder.describe());
        EXPECT_EQ(folder.hash(), expectedHash(folder.kind(), folder.relative()));
        EXPECT_EQ(std::hash<Folder>{}(folder), folder.hash());
    }
    // The kind enters the hash, the module doesn't.
    EXPECT_NE(Folder::disk("a").hash(), Folder::asset("a").hash());
    EXPECT_EQ(Folder::onDemand("m1", "a").hash(), Folder::onDemand("m2", "a").hash());
}

TEST_F(FolderTest, FoldersWorkInAHashSet) {
    std::unordered_set<Folder> set;
    set.insert(Folder::disk("a/b"));
    set.insert(Folder::disk("a\\b"));
    set.insert(Folder::asset("a/b"));
    set.insert(Folder::onDemand("m", "a/b"));
    set.insert(Folder::onDemand("n", "a/b"));
    EXPECT_EQ(set.size(), 3u);
    EXPECT_EQ(set.count(Folder::disk("/a//b")), 1u);
}

}  // namespace
}  // namespace FerritCore

// ============================================================================================
// What a Folder names, read and written for real: Disk below a private root, Asset from a
// raw-file folder, OnDemand through a module loader, Packed in a store kept in memory.
// ============================================================================================

namespace FerritCore {
namespace {

using FerritTest::MemoryPackedFiles;
using FerritTest::TempDir;

class FolderIOTest : public FerritTest::ProcessTest {
  protected:
    void SetUp() override {
        ProcessTest::SetUp();
        AssetProvider::set(std::make_shared<RawFileProvider>(raw_.root()));
        PackedFiles::set(store_);
    }

    static void writeAt(const std::filesystem::path& path, const std::string& content) {
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << content;
    }
    void writeDisk(const std::string& relative, const std::string& content) {
        writeAt(root_.path() / relative, content);
    }
    void writeRaw(const std::string& relative, const std::string& content) {
        writeAt(raw_.path() / relative, content);
    }
    void putPacked(const std::string& key, const std::string& value) {
        Error error;
        ASSERT_TRUE(store_->put(key, value, error)) << error.message();
    }
    std::string readDisk(const std::string& relative) const {
        std::ifstream in(root_.path() / relative, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    std::shared_ptr<FerritTest::FakeProxy> installProxy() {
        auto proxy = std::make_shared<FerritTest::FakeProxy>();
        Environment::instance().setProxy(proxy);
        return proxy;
    }
    static std::vector<std::string> relatives(const std::forward_list<Folder>& folders) {
        std::vector<std::string> out;
        for (const Folder& folder : folders) out.push_back(folder.relative());
        return out;
    }
    static std::vector<std::string> sorted(std::vector<std::string> values) {
        std::sort(values.begin(), values.end());
        return values;
    }

    TempDir& root_ = temp_;
    TempDir raw_;
    std::shared_ptr<MemoryPackedFiles> store_ = std::make_shared<MemoryPackedFiles>();
    MarlLogger::ScopedManualClock clock_;
    MarlLogger::ScopedCapture logs_;
};

// --- Disk -----------------------------------------------------------------------------------

TEST_F(FolderIOTest, DiskExistsTellsFilesFromDirectories) {
    writeDisk("apps/p/1/res/a.js", "a");
    EXPECT_TRUE(Folder::disk("apps/p/1/res/a.js").exists());
    EXPECT_TRUE(Folder::disk("apps/p/1/res/").exists());
    // A directory named as a file, and a file named as a directory, are not there.
    EXPECT_FALSE(Folder::disk("apps/p/1/res").exists());
    EXPECT_FALSE(Folder::disk("apps/p/1/res/a.js/").exists());
    EXPECT_FALSE(Folder::disk("apps/p/1/res/none.js").exists());
}

TEST_F(FolderIOTest, DiskSizeOfFileAndOfDirectorySumsItsFiles) {
    writeDisk("d/a", "12345");
    writeDisk("d/sub/b", "123");
    EXPECT_EQ(Folder::disk("d/a").diskSize(), 5u);
    EXPECT_EQ(Folder::disk("d/").diskSize(), 8u);
    EXPECT_EQ(Folder::disk("d/none").diskSize(), 0u);
}

TEST_F(FolderIOTest, ReadingZeroLengthDiskFileGives1103) {
    writeDisk("empty.js", "");
    Error error;
    EXPECT_EQ(Folder::readFile(Folder::disk("empty.js"), error), "");
    EXPECT_EQ(error.code(), Errors::kNoData);
    EXPECT_EQ(error.message(), "file \"empty.js\" no data");
}

TEST_F(FolderIOTest, ReadingMissingDiskFileGives1101) {
    Error error;
    Folder::readFile(Folder::disk("apps/none.js"), error);
    EXPECT_EQ(error.code(), Errors::kFileNotExists);
    EXPECT_EQ(error.message(), "file \"apps/none.js\" not exists");
}

TEST_F(FolderIOTest, ReadingDiskDirectoryGives1102WithErrno) {
    writeDisk("dir/a", "a");
    Error error;
    Folder::readFile(Folder::disk("dir"), error);
    EXPECT_EQ(error.code(), Errors::kFileRead);
    EXPECT_EQ(error.message().rfind("read file \"dir\" failed: 21, ", 0), 0u) << error.message();
}

TEST_F(FolderIOTest, ReadingDiskFileGivesItsBytesAndClearsError) {
    std::string content = "binary";
    content.push_back('\0');
    content.append("\xff\x01");
    writeDisk("f.bin", content);
    Error error(1, "stale");
    EXPECT_EQ(Folder::readFile(Folder::disk("f.bin"), error), content);
    EXPECT_FALSE(error);
}

TEST_F(FolderIOTest, WritingEmptyContentFailsWithNoDataInWordsAndLeavesEmptyFile) {
    writeDisk("w.txt", "previous");
    Error error;
    EXPECT_FALSE(Folder::writeFile(Folder::disk("w.txt"), "", error));
    EXPECT_EQ(error.code(), Errors::kFileWrite);
    EXPECT_EQ(error.message(), "file \"w.txt\" write failed: " + std::to_string(ENODATA) + ", " +
                                   std::strerror(ENODATA));
    EXPECT_TRUE(std::filesystem::exists(root_.path() / "w.txt"));
    EXPECT_EQ(std::filesystem::file_size(root_.path() / "w.txt"), 0u);
}

TEST_F(FolderIOTest, WriteFileCreatesNoDirectoryButEnsureParentDoes) {
    const Folder file = Folder::disk("new/deep/f.txt");
    Error error;
    EXPECT_FALSE(Folder::writeFile(file, "x", error));
    EXPECT_EQ(error.code(), Errors::kFileWrite);
    file.ensureParent();
    EXPECT_TRUE(std::filesystem::is_directory(root_.path() / "new/deep"));
    EXPECT_FALSE(std::filesystem::exists(root_.path() / "new/deep/f.txt"));
    EXPECT_TRUE(Folder::writeFile(file, "x", error));
    EXPECT_FALSE(error);
    EXPECT_EQ(readDisk("new/deep/f.txt"), "x");
}

TEST_F(FolderIOTest, EnsureParentOfDirectoryCreatesItWhole) {
    Folder::disk("a/b/c/").ensureParent();
    EXPECT_TRUE(std::filesystem::is_directory(root_.path() / "a/b/c"));
}

TEST_F(FolderIOTest, DirectoryHoldingOnlyDsStoreIsEmptyAndListsNothing) {
    writeDisk("mac/.DS_Store", "junk");
    const Folder folder = Folder::disk("mac/");
    EXPECT_TRUE(folder.isEmpty());
    EXPECT_TRUE(folder.listChildren().empty());
    EXPECT_TRUE(folder.listFiles().empty());
    writeDisk("mac/real.js", "x");
    EXPECT_FALSE(folder.isEmpty());
    EXPECT_EQ(relatives(folder.listChildren()), std::vector<std::string>{"mac/real.js"});
}

TEST_F(FolderIOTest, IsEmptyOfFileAndOfMissingDiskDirectoryIsTrue) {
    writeDisk("f", "x");
    EXPECT_TRUE(Folder::disk("f").isEmpty());
    EXPECT_TRUE(Folder::disk("missing/").isEmpty());
}

TEST_F(FolderIOTest, ListChildrenGivesTheReverseOfTheListing) {
    writeDisk("l/a.js", "a");
    writeDisk("l/b.js", "b");
    writeDisk("l/c/d.js", "d");
    std::vector<std::string> listing;
    ASSERT_EQ(FileUtil::listDirectory(root_.root() + "l/", listing), 0);
    std::vector<std::string> expected;
    for (const std::string& entry : listing)
        expected.push_back("l/" + entry.substr(root_.root().size() + 2));
    std::reverse(expected.begin(), expected.end());
    EXPECT_EQ(relatives(Folder::disk("l/").listChildren()), expected);
    EXPECT_EQ(sorted(expected), (std::vector<std::string>{"l/a.js", "l/b.js", "l/c/"}));
    EXPECT_TRUE(Folder::disk("l/a.js").listChildren().empty());
}

TEST_F(FolderIOTest, ListFilesIsDepthFirstAndHoldsOnlyFiles) {
    writeDisk("t/a.js", "a");
    writeDisk("t/x/b.js", "b");
    writeDisk("t/x/y/c.js", "c");
    writeDisk("t/x/y/.DS_Store", "");
    std::filesystem::create_directories(root_.path() / "t/empty");
    const std::vector<std::string> files = relatives(Folder::disk("t/").listFiles());
    EXPECT_EQ(sorted(files), (std::vector<std::string>{"t/a.js", "t/x/b.js", "t/x/y/c.js"}));
    // Depth first: the files of one directory are never split by another directory's.
    const auto b = std::find(files.begin(), files.end(), "t/x/b.js");
    const auto c = std::find(files.begin(), files.end(), "t/x/y/c.js");
    EXPECT_EQ(std::abs(std::distance(b, c)), 1);
}

TEST_F(FolderIOTest, RemoveFileRemovesAFileOrAWholeTree) {
    writeDisk("r/f", "x");
    writeDisk("r/d/e/g", "y");
    Folder::removeFile(Folder::disk("r/f"), Removal::kGone);
    EXPECT_FALSE(std::filesystem::exists(root_.path() / "r/f"));
    Folder::removeFile(Folder::disk("r/d/"), Removal::kGone);
    EXPECT_FALSE(std::filesystem::exists(root_.path() / "r/d"));
    // Nothing there: nothing happens, nothing is reported.
    Folder::removeFile(Folder::disk("r/none"), Removal::kGone);
}

TEST_F(FolderIOTest, RemoveFileWithRecreateBringsDirectoryBackEmpty) {
    writeDisk("temp/p/z.zip", "zip");
    Folder::removeFile(Folder::disk("temp/p/"), Removal::kRecreate);
    EXPECT_TRUE(std::filesystem::is_directory(root_.path() / "temp/p"));
    EXPECT_TRUE(std::filesystem::is_empty(root_.path() / "temp/p"));
}

TEST_F(FolderIOTest, RenameToCreatesTheTargetParentAndMoves) {
    writeDisk("temp/p/res/a.js", "a");
    Error error(5, "stale");
    Folder::renameTo(Folder::disk("temp/p/res/"), Folder::disk("apps/p/2/res/"), error);
    EXPECT_FALSE(error) << error.message();
    EXPECT_EQ(readDisk("apps/p/2/res/a.js"), "a");
    EXPECT_FALSE(std::filesystem::exists(root_.path() / "temp/p/res"));
}

TEST_F(FolderIOTest, RenameToFailureNamesTheTarget) {
    Error error;
    Folder::renameTo(Folder::disk("none"), Folder::disk("x/y"), error);
    EXPECT_EQ(error.code(), Errors::kFileWrite);
    EXPECT_EQ(error.message().rfind("file \"x/y\" write failed: 2, ", 0), 0u) << error.message();
}

TEST_F(FolderIOTest, RenameOfAnyOtherKindGives1104) {
    Error error;
    Folder::renameTo(Folder::disk("a"), Folder::packed("b"), error);
    EXPECT_EQ(error.code(), Errors::kFileWrite);
    EXPECT_EQ(error.message(), "rename from \"a\" to \"/Packs/b\" only support disk file");
    Folder::renameTo(Folder::asset("a"), Folder::disk("b"), error);
    EXPECT_EQ(error.message(), "rename from \"/Asset/a\" to \"b\" only support disk file");
}

// --- OpenDirectory ------------------------------------------------------------------------------

size_t openDescriptors() {
    return static_cast<size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                             std::filesystem::directory_iterator()));
}

TEST_F(FolderIOTest, OpenDirectoryFindsAndReadsFilesBelowIt) {
    writeDisk("o/res/a.js", "opened");
    writeDisk("o/res/d/x", "x");
    auto directory = OpenDirectory::open(root_.root() + "o");
    ASSERT_NE(directory, nullptr);
    EXPECT_TRUE(directory->hasFile("res/a.js"));
    EXPECT_FALSE(directory->hasFile("res/none.js"));
    EXPECT_FALSE(directory->hasFile("res/d"));
    std::string out = "kept:";
    EXPECT_EQ(directory->readFile("res/a.js", out), 0);
    EXPECT_EQ(out, "kept:opened");
    EXPECT_EQ(directory->readFile("res/none.js", out), ENOENT);
    EXPECT_EQ(directory->readFile("res/d", out), EISDIR);
    EXPECT_EQ(out, "kept:opened") << "a failed read appends nothing";
}

// A file is read as it is when it is read: replaced, its new bytes; removed, not there.
TEST_F(FolderIOTest, OpenDirectoryReadsEachFileAtTheTimeOfTheRead) {
    writeDisk("o/a.js", "first");
    auto directory = OpenDirectory::open(root_.root() + "o");
    ASSERT_NE(directory, nullptr);
    std::filesystem::remove(root_.path() / "o/a.js");
    writeDisk("o/a.js", "replaced");
    std::string out;
    EXPECT_EQ(directory->readFile("a.js", out), 0);
    EXPECT_EQ(out, "replaced");
    std::filesystem::remove(root_.path() / "o/a.js");
    EXPECT_FALSE(directory->hasFile("a.js"));
}

TEST_F(FolderIOTest, OpenDirectoryHoldsOneDescriptorAndAtMostTheLimit) {
    writeDisk("o/a.js", "a");
    const size_t before = openDescriptors();
    const int held = OpenDirectory::heldCount();
    {
        auto directory = OpenDirectory::open(root_.root() + "o");
        ASSERT_NE(directory, nullptr);
        EXPECT_EQ(openDescriptors(), before + 1);
        EXPECT_EQ(OpenDirectory::heldCount(), held + 1);
        std::string out;
        ASSERT_EQ(directory->readFile("a.js", out), 0);
        EXPECT_EQ(openDescriptors(), before + 1) << "the file's own descriptor is closed";
    }
    EXPECT_EQ(openDescriptors(), before);
    EXPECT_EQ(OpenDirectory::heldCount(), held);
    EXPECT_EQ(OpenDirectory::open(root_.root() + "o/a.js"), nullptr) << "a file is no directory";
    EXPECT_EQ(OpenDirectory::open(root_.root() + "none"), nullptr);
    std::vector<std::unique_ptr<OpenDirectory>> many;
    while (auto next = OpenDirectory::open(root_.root() + "o")) many.push_back(std::move(next));
    EXPECT_EQ(OpenDirectory::heldCount(), OpenDirectory::kMaxHeld);
    many.clear();
    EXPECT_EQ(OpenDirectory::heldCount(), held);
}

// A name from a list or document never reaches past the held directory: an absolute one would
// make openat ignore the directory, a climbing one would walk out of it.
TEST_F(FolderIOTest, OpenDirectoryRefusesNamesThatLeaveIt) {
    writeDisk("o/a.js", "inside");
    writeDisk("secret.txt", "outside");
    auto directory = OpenDirectory::open(root_.root() + "o");
    ASSERT_NE(directory, nullptr);
    const std::string absolute = root_.root() + "secret.txt";
    ASSERT_EQ(absolute.front(), '/');
    for (const std::string& name :
         {"/" + absolute, absolute, std::string("//etc/x.txt"), std::string("/etc/x"),
          std::string("a/../../x"), std::string("../secret.txt"), std::string(".."),
          std::string("a\\..\\..\\secret.txt"), std::string()}) {
        SCOPED_TRACE(name);
        const Error refused = OpenDirectory::checkName(name);
        EXPECT_EQ(refused.code(), Errors::kFileRead);
        EXPECT_EQ(refused.message(),
                  "read file \"" + name + "\" refused: the name leaves its folder");
        EXPECT_FALSE(directory->hasFile(name));
        errno = 0;
        EXPECT_EQ(directory->openFile(name), -1);
        EXPECT_EQ(errno, EACCES);
        std::string out;
        EXPECT_EQ(directory->readFile(name, out), EACCES);
        EXPECT_TRUE(out.empty());
    }
    // Names inside it, dots that do not climb among them, are taken.
    for (const std::string name : {"a.js", "./a.js", "..a.js", "a..js"})
        EXPECT_FALSE(OpenDirectory::checkName(name)) << name;
    std::string out;
    EXPECT_EQ(directory->readFile("./a.js", out), 0);
    EXPECT_EQ(out, "inside");
}

TEST_F(FolderIOTest, OpenDirectoryRefusesNamesWithANulInside) {
    writeDisk("o/a.js", "inside");
    auto directory = OpenDirectory::open(root_.root() + "o");
    ASSERT_NE(directory, nullptr);
    // Cut at the NUL, these would name the folder above, or a file the list does not name.
    for (const std::string& name : {std::string("..\0x", 4), std::string("a.js\0.png", 9)}) {
        EXPECT_EQ(OpenDirectory::checkName(name).code(), Errors::kFileRead);
        EXPECT_FALSE(directory->hasFile(name));
        errno = 0;
        EXPECT_EQ(directory->openFile(name), -1);
        EXPECT_EQ(errno, EACCES);
    }
}

// --- Layout -----------------------------------------------------------------------------------

TEST_F(FolderIOTest, TempContentFromEarlierRunDoesNotSurviveInitFolders) {
    writeDisk("temp/old/leftover.zip", "zip");
    writeDisk("apps/kept/1/res/a.js", "a");
    initFolders(root_.path().string());
    EXPECT_EQ(rootPath(), root_.root());
    EXPECT_TRUE(std::filesystem::is_directory(root_.path() / "temp"));
    EXPECT_TRUE(std::filesystem::is_empty(root_.path() / "temp"));
    EXPECT_EQ(readDisk("apps/kept/1/res/a.js"), "a");
}

// A start empties "temp/" in place: making the folder again would write the root's directory
// twice at every start. Its mode tells the same folder from a new one.
TEST_F(FolderIOTest, InitFoldersEmptiesTempWithoutMakingItAgain) {
    writeDisk("temp/run/_7_1/origin.zip", "zip");
    writeDisk("temp/loose.part", "part");
    const std::filesystem::path temp = root_.path() / "temp";
    // Not the mode that a made folder gets.
    const auto mode = std::filesystem::perms::owner_all | std::filesystem::perms::group_read |
                      std::filesystem::perms::group_exec;
    std::filesystem::permissions(temp, mode);
    initFolders(root_.path().string());
    ASSERT_TRUE(std::filesystem::is_directory(temp));
    EXPECT_TRUE(std::filesystem::is_empty(temp));
    EXPECT_EQ(std::filesystem::status(temp).permissions(), mode);
}

// A link in "temp/" to a folder elsewhere goes as a link, and when it cannot go it stays: what
// it points to is never emptied.
TEST_F(FolderIOTest, InitFoldersNeverFollowsALinkOutOfTemp) {
    writeDisk("outside/kept.txt", "kept");
    writeDisk("temp/loose.part", "part");
    const std::filesystem::path temp = root_.path() / "temp";
    std::filesystem::create_directory_symlink(root_.path() / "outside", temp / "link");
    struct RefuseLinkRemoval : FileUtil::Calls {
        int remove(const char* path) override {
            if (std::string_view(path).ends_with("temp/link")) return errno = EACCES, -1;
            return Calls::remove(path);
        }
    } calls;
    FileUtil::setCalls(&calls);
    initFolders(root_.path().string());
    FileUtil::setCalls(nullptr);
    EXPECT_EQ(readDisk("outside/kept.txt"), "kept");
    EXPECT_TRUE(std::filesystem::is_symlink(temp / "link"));
    EXPECT_FALSE(std::filesystem::exists(temp / "loose.part"));

    initFolders(root_.path().string());
    EXPECT_FALSE(std::filesystem::exists(std::filesystem::symlink_status(temp / "link")));
    EXPECT_EQ(readDisk("outside/kept.txt"), "kept");
}

TEST_F(FolderIOTest, InitFoldersMakesAppsAndTempUnderANewRoot) {
    const std::string root = root_.root() + "fresh//root";
    initFolders(root);
    EXPECT_EQ(rootPath(), root_.root() + "fresh/root/");
    EXPECT_TRUE(std::filesystem::is_directory(root_.path() / "fresh/root/apps"));
    EXPECT_TRUE(std::filesystem::is_directory(root_.path() / "fresh/root/temp"));
}

TEST_F(FolderIOTest, InitFolderFailureIsLoggedWith9992AndPath) {
    writeDisk("blocker", "a file where a folder should be");
    setRootPath(root_.root() + "blocker/");
    initFolder(Folder::disk("apps/"));
    const auto entry = logs_->last("initFolder", "Ferrit/Setup");
    ASSERT_EQ(entry.event, "initFolder");
    EXPECT_EQ(entry.level, 1);
    EXPECT_EQ(entry.errorCode, std::to_string(Errors::kCreateFolderFailed));
    EXPECT_EQ(entry.errorMessage.rfind("Create Ferrit folder failed: ", 0), 0u);
    EXPECT_EQ(entry.field("path").stringValue(), root_.root() + "blocker/apps/");
}

TEST_F(FolderIOTest, InitFolderOfExistingDirectoryDoesNothing) {
    std::filesystem::create_directories(root_.path() / "apps");
    initFolder(Folder::disk("apps/"));
    EXPECT_EQ(logs_->count("initFolder"), 0u);
}

// --- Asset ------------------------------------------------------------------------------------

TEST_F(FolderIOTest, AssetExistsThroughTheProvider) {
    writeRaw("Ferrit_Asset_kit/2/res/a.js", "a");
    EXPECT_TRUE(Folder::asset("Ferrit_Asset_kit/2/res/a.js").exists());
    EXPECT_TRUE(Folder::asset("Ferrit_Asset_kit/2/").exists());
    EXPECT_FALSE(Folder::asset("Ferrit_Asset_kit/2/res/b.js").exists());
    EXPECT_FALSE(Folder::asset("Ferrit_Asset_kit/2").exists());
}

TEST_F(FolderIOTest, AssetListingBelowFerritAssetNeverShowsPackConfig) {
    writeRaw("Ferrit_Asset_kit/2/packConfig.config", "{}");
    writeRaw("Ferrit_Asset_kit/2/res/a.js", "a");
    writeRaw("Ferrit_Asset_kit/2/.DS_Store", "");
    EXPECT_EQ(relatives(Folder::asset("Ferrit_Asset_kit/2/").listChildren()),
              std::vector<std::string>{"Ferrit_Asset_kit/2/res/"});
    EXPECT_EQ(relatives(Folder::asset("Ferrit_Asset_kit/2/").listFiles()),
              std::vector<std::string>{"Ferrit_Asset_kit/2/res/a.js"});
}

TEST_F(FolderIOTest, AssetListingElsewhereShowsPackConfig) {
    writeRaw("other/packConfig.config", "{}");
    writeRaw("other/b.js", "b");
    EXPECT_EQ(sorted(relatives(Folder::asset("other/").listChildren())),
              (std::vector<std::string>{"other/b.js", "other/packConfig.config"}));
}

TEST_F(FolderIOTest, AssetReadGivesBytesAndMissingAssetGives1101) {
    writeRaw("a/b.css", "b{}");
    Error error;
    EXPECT_EQ(Folder::readFile(Folder::asset("a/b.css"), error), "b{}");
    EXPECT_FALSE(error);
    Folder::readFile(Folder::asset("a/none.css"), error);
    EXPECT_EQ(error.code(), Errors::kFileNotExists);
    EXPECT_EQ(error.message(), "file \"/Asset/a/none.css\" not exists");
}

TEST_F(FolderIOTest, AssetReadFailureCarriesTheProviderCodeAndMessage) {
    AssetProvider::set(nullptr);
    Error error;
    Folder::readFile(Folder::asset("a/b.css"), error);
    EXPECT_EQ(error.code(), Errors::kFileRead);
    EXPECT_EQ(error.message(),
              "read file \"/Asset/a/b.css\" failed: 9991, Ferrit proxy not initialized");
}

TEST_F(FolderIOTest, ZeroLengthAssetReadsAsEmptyContent) {
    // Only Disk and Packed files call an empty content an error.
    writeRaw("empty.txt", "");
    Error error(1, "stale");
    EXPECT_EQ(Folder::readFile(Folder::asset("empty.txt"), error), "");
    EXPECT_FALSE(error);
}

TEST_F(FolderIOTest, AssetIsReadOnlyAndIsNeverRemoved) {
    writeRaw("keep.js", "k");
    Error error;
    EXPECT_FALSE(Folder::writeFile(Folder::asset("keep.js"), "x", error));
    EXPECT_EQ(error.code(), Errors::kAssetReadonly);
    EXPECT_EQ(error.message(), "file \"/Asset/keep.js\" write failed: asset is readonly");
    Folder::removeFile(Folder::asset("keep.js"), Removal::kRecreate);
    EXPECT_TRUE(Folder::asset("keep.js").exists());
}

TEST_F(FolderIOTest, AssetDiskSizeIsTheRawSize) {
    writeRaw("s/a", "1234");
    writeRaw("s/b/c", "12");
    EXPECT_EQ(Folder::asset("s/a").diskSize(), 4u);
    EXPECT_EQ(Folder::asset("s/").diskSize(), 6u);
    EXPECT_TRUE(Folder::asset("s/").exists());
    EXPECT_FALSE(Folder::asset("s/").isEmpty());
}

// --- OnDemand ---------------------------------------------------------------------------------

TEST_F(FolderIOTest, OnDemandExistsAndDiskSizeAnswerFalseAndZeroEvenWhenLoaded) {
    auto proxy = installProxy();
    writeRaw("Ferrit_Asset_od/1/res/a.js", "a");
    const Folder file = Folder::onDemand("Ferrit_Asset_od", "Ferrit_Asset_od/1/res/a.js");
    std::string got;
    Folder::readFileAsync(file, [&](std::string content, Error) { got = std::move(content); });
    ASSERT_EQ(got, "a");
    ASSERT_EQ(proxy->loads.size(), 1u);
    EXPECT_FALSE(file.exists());
    EXPECT_EQ(file.diskSize(), 0u);
    EXPECT_FALSE(Folder::onDemand("Ferrit_Asset_od", "Ferrit_Asset_od/1/").exists());
    EXPECT_EQ(Folder::onDemand("Ferrit_Asset_od", "Ferrit_Asset_od/1/").diskSize(), 0u);
}

TEST_F(FolderIOTest, OnDemandSyncReadGives1108) {
    Error error;
    Folder::readFile(Folder::onDemand("Ferrit_Asset_od", "Ferrit_Asset_od/1/res/a.js"), error);
    EXPECT_EQ(error.code(), Errors::kReadAsyncOnly);
    EXPECT_EQ(error.message(),
              "file \"/OnDemand(Ferrit_Asset_od)/Ferrit_Asset_od/1/res/a.js\" can only read "
              "asynchronous");
}

TEST_F(FolderIOTest, OnDemandAsyncReadLoadsTheModuleThenReadsItsAssetAndReports) {
    auto proxy = installProxy();
    writeRaw("Ferrit_Asset_od/1/res/a.js", "od-bytes");
    std::string got;
    Error error(1, "unset");
    int calls = 0;
    Folder::readFileAsync(Folder::onDemand("Ferrit_Asset_od", "Ferrit_Asset_od/1/res/a.js"),
                          [&](std::string content, Error e) {
                              ++calls;
                              got = std::move(content);
                              error = std::move(e);
                          });
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(got, "od-bytes");
    EXPECT_FALSE(error);
    EXPECT_EQ(proxy->loads, std::vector<std::string>{"Ferrit_Asset_od"});
    ASSERT_EQ(proxy->events, std::vector<std::string>{"Ferrit.OnDemand"});
    EXPECT_EQ(proxy->records[0].dimensions.at("tag"), "Ferrit_Asset_od");
    EXPECT_EQ(proxy->records[0].dimensions.at("path"), "Ferrit_Asset_od/1/res/a.js");
    EXPECT_EQ(proxy->records[0].dimensions.count("errorCode"), 0u);
    EXPECT_EQ(proxy->records[0].measures.count("time"), 1u);
}

TEST_F(FolderIOTest, OnDemandAsyncReadWithFailedLoadReportsTheLoadError) {
    auto proxy = installProxy();
    proxy->loadError = Error(Errors::kRequestFailed, std::string("module download failed"));
    writeRaw("Ferrit_Asset_od/1/res/a.js", "never read");
    std::string got = "unset";
    Error error;
    Folder::readFileAsync(Folder::onDemand("Ferrit_Asset_od", "Ferrit_Asset_od/1/res/a.js"),
                          [&](std::string content, Error e) {
                              got = std::move(content);
                              error = std::move(e);
                          });
    EXPECT_EQ(got, "");
    EXPECT_EQ(error.code(), Errors::kRequestFailed);
    ASSERT_EQ(proxy->records.size(), 1u);
    EXPECT_EQ(proxy->records[0].dimensions.at("errorCode"), std::to_string(Errors::kRequestFailed));
    EXPECT_EQ(proxy->records[0].dimensions.at("errorMsg"), "module download failed");
}

TEST_F(FolderIOTest, OnDemandAsyncReadWithoutProxyGives9991) {
    Error error;
    Folder::readFileAsync(Folder::onDemand("m", "m/a.js"),
                          [&](std::string, Error e) { error = std::move(e); });
    EXPECT_EQ(error.code(), Errors::kProxyNotInitialized);
}

TEST_F(FolderIOTest, ReadFileAsyncWithoutCallbackDoesNothing) {
    auto proxy = installProxy();
    Folder::readFileAsync(Folder::onDemand("m", "m/a.js"), nullptr);
    EXPECT_TRUE(proxy->loads.empty());
}

TEST_F(FolderIOTest, ReadFileAsyncOfOtherKindsCallsBackAtOnce) {
    writeDisk("x.txt", "disk");
    std::string got;
    Folder::readFileAsync(Folder::disk("x.txt"),
                          [&](std::string content, Error) { got = std::move(content); });
    EXPECT_EQ(got, "disk");
}

TEST_F(FolderIOTest, OnDemandIsNeverEmptyNorListedSynchronously) {
    const Folder folder = Folder::onDemand("m", "m/1/");
    EXPECT_FALSE(folder.isEmpty());
    EXPECT_TRUE(folder.listChildren().empty());
    EXPECT_TRUE(folder.listFiles().empty());
    Error error;
    EXPECT_FALSE(Folder::writeFile(Folder::onDemand("m", "m/1/a"), "x", error));
    EXPECT_EQ(error.code(), Errors::kAssetReadonly);
}

TEST_F(FolderIOTest, ListFilesAsyncOfOnDemandListsAfterTheModuleLoads) {
    auto proxy = installProxy();
    writeRaw("m/1/a.js", "a");
    writeRaw("m/1/sub/b.js", "b");
    std::vector<std::string> files;
    std::vector<FolderKind> kinds;
    Folder::listFilesAsync(Folder::onDemand("m", "m/1/"), [&](std::forward_list<Folder> list) {
        for (const Folder& file : list) {
            files.push_back(file.relative());
            kinds.push_back(file.kind());
        }
    });
    EXPECT_EQ(proxy->loads, std::vector<std::string>{"m"});
    EXPECT_EQ(sorted(files), (std::vector<std::string>{"m/1/a.js", "m/1/sub/b.js"}));
    EXPECT_EQ(kinds, (std::vector<FolderKind>{FolderKind::OnDemand, FolderKind::OnDemand}));
}

// --- Packed -----------------------------------------------------------------------------------

TEST_F(FolderIOTest, PackedExistsByKeyAndDirectoryByRange) {
    putPacked("p/1/res/a.js", "a");
    EXPECT_TRUE(Folder::packed("p/1/res/a.js").exists());
    EXPECT_FALSE(Folder::packed("p/1/res/b.js").exists());
    EXPECT_TRUE(Folder::packed("p/1/").exists());
    EXPECT_FALSE(Folder::packed("q/1/").exists());
}

TEST_F(FolderIOTest, PackedWriteAndReadRoundTrip) {
    Error error;
    EXPECT_TRUE(Folder::writeFile(Folder::packed("p/1/res/a.js"), "packed bytes", error));
    EXPECT_FALSE(error);
    EXPECT_EQ(Folder::readFile(Folder::packed("p/1/res/a.js"), error), "packed bytes");
    EXPECT_FALSE(error);
    EXPECT_EQ(Folder::packed("p/1/res/a.js").diskSize(), 12u);
    EXPECT_EQ(Folder::packed("p/1/").diskSize(), 12u);
}

TEST_F(FolderIOTest, PackedReadErrorsAreTheStoresAndEmptyValueGives1103) {
    Error error;
    Folder::readFile(Folder::packed("p/none"), error);
    EXPECT_EQ(error.code(), Errors::kFileNotExists);
    EXPECT_EQ(error.message(), "Storage \"packs/p/none\" not exists");
    putPacked("p/empty", "");
    Folder::readFile(Folder::packed("p/empty"), error);
    EXPECT_EQ(error.code(), Errors::kNoData);
    EXPECT_EQ(error.message(), "file \"/Packs/p/empty\" no data");
}

TEST_F(FolderIOTest, PackedWriteFailureIsTheStores) {
    store_->failWrites = true;
    Error error;
    EXPECT_FALSE(Folder::writeFile(Folder::packed("p/a"), "x", error));
    EXPECT_EQ(error.code(), Errors::kFileWrite);
}

TEST_F(FolderIOTest, RemoveFileOnPackedRemovesByKeyRange) {
    putPacked("a/b", "1");
    putPacked("a/bc", "2");
    putPacked("a/b/d", "3");
    putPacked("a/c", "4");
    Folder::removeFile(Folder::packed("a/b"), Removal::kGone);
    EXPECT_FALSE(Folder::packed("a/b").exists());
    EXPECT_FALSE(Folder::packed("a/bc").exists());
    EXPECT_FALSE(Folder::packed("a/b/d").exists());
    EXPECT_TRUE(Folder::packed("a/c").exists());
}

TEST_F(FolderIOTest, RemoveFileOnPackedTopRemovesEverything) {
    putPacked("a", "1");
    putPacked("z/y", "2");
    Folder::removeFile(Folder::packed(""), Removal::kGone);
    EXPECT_EQ(store_->size(), 0u);
}

TEST_F(FolderIOTest, PackedListFilesEnumeratesKeysAndHasNoChildren) {
    putPacked("p/1/res/a.js", "a");
    putPacked("p/1/res/sub/b.js", "b");
    putPacked("p/2/res/c.js", "c");
    const Folder folder = Folder::packed("p/1/");
    EXPECT_EQ(relatives(folder.listFiles()),
              (std::vector<std::string>{"p/1/res/a.js", "p/1/res/sub/b.js"}));
    EXPECT_TRUE(folder.listChildren().empty());
    EXPECT_FALSE(folder.isEmpty());
    EXPECT_TRUE(Folder::packed("p/3/").isEmpty());
}

TEST_F(FolderIOTest, PackedWithoutStoreFailsWith9997) {
    PackedFiles::set(nullptr);
    Error error;
    Folder::readFile(Folder::packed("p/a"), error);
    EXPECT_EQ(error.code(), Errors::kInitStorageFailed);
    EXPECT_FALSE(Folder::writeFile(Folder::packed("p/a"), "x", error));
    EXPECT_EQ(error.code(), Errors::kInitStorageFailed);
    EXPECT_FALSE(Folder::packed("p/a").exists());
    EXPECT_EQ(Folder::packed("p/a").diskSize(), 0u);
}

}  // namespace
}  // namespace FerritCore
