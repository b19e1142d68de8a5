#include "storage/Folder.h"

#include <gtest/gtest.h>

#include <string>
#include <unordered_set>

namespace FerritCore {
namespace {

// The root is process-wide: each test sets its own and gives the old one back.
class FolderTest : public ::testing::Test {
  protected:
    void SetUp() override {
        saved_ = rootPath();
        setRootPath("/data/app/ferrit/");
    }
    void TearDown() override {
        if (saved_.empty()) {
            // An unset root can't be restored through setRootPath, which always leaves a "/";
            // "/" is the closest and reads as unset everywhere that matters.
            setRootPath("/");
        } else {
            setRootPath(saved_);
        }
    }

  private:
    std::string saved_;
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
