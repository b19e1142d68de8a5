#include "base/FileUtil.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>

#include "tests/TestUtil.h"

namespace FerritCore {
namespace {

using FerritTest::TempDir;

class FileUtilTest : public ::testing::Test {
  protected:
    std::string path(const std::string& relative) const { return temp_.root() + relative; }
    void write(const std::string& relative, const std::string& content) {
        std::filesystem::create_directories(std::filesystem::path(path(relative)).parent_path());
        std::ofstream(path(relative), std::ios::binary) << content;
    }
    static std::string slurp(const std::string& file) {
        std::ifstream in(file, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }

    TempDir temp_;
};

// --- Canonicalisation ------------------------------------------------------------------------

TEST_F(FileUtilTest, CanonicalizeDropsDotsAndEmptyPieces) {
    EXPECT_EQ(FileUtil::canonicalize("/r/./a//b"), "/r/a/b");
    EXPECT_EQ(FileUtil::canonicalize("x\\y\\z"), "x/y/z");
}

TEST_F(FileUtilTest, CanonicalizeResolvesDotDotAfterTwoKeptPieces) {
    EXPECT_EQ(FileUtil::canonicalize("/r/apps/x/../y"), "/r/apps/y");
    EXPECT_EQ(FileUtil::canonicalize("x/a/../b"), "x/b");
    EXPECT_EQ(FileUtil::canonicalize("/a/../b"), "/b");
}

TEST_F(FileUtilTest, CanonicalizeKeepsDotDotWithoutTwoKeptPieces) {
    EXPECT_EQ(FileUtil::canonicalize("a/../b"), "a/../b");
    EXPECT_EQ(FileUtil::canonicalize("/../b"), "/../b");
    // A ".." after a kept ".." stays too.
    EXPECT_EQ(FileUtil::canonicalize("a/../../b"), "a/../../b");
}

TEST_F(FileUtilTest, CanonicalizeLeavesFirstAndLastPiecesUntouched) {
    EXPECT_EQ(FileUtil::canonicalize("./a/.."), "./a/..");
    EXPECT_EQ(FileUtil::canonicalize("a/b/"), "a/b/");
    EXPECT_EQ(FileUtil::canonicalize("/"), "/");
    EXPECT_EQ(FileUtil::canonicalize(""), "");
    EXPECT_EQ(FileUtil::canonicalize("a"), "a");
}

// --- Empty paths and null streams --------------------------------------------------------------

TEST_F(FileUtilTest, EmptyPathAndNullStreamGiveErrnoValuesWithText) {
    std::string out;
    uint64_t size = 0;
    FILE* file = nullptr;
    std::vector<std::string> names;
    // Each is an errno value, so that a message built from it says what went wrong in words.
    EXPECT_EQ(FileUtil::open("x", "rb", nullptr), EINVAL);
    EXPECT_EQ(FileUtil::open("", "rb", &file), ENOENT);
    EXPECT_EQ(FileUtil::readFile("", out), ENOENT);
    EXPECT_EQ(FileUtil::readWhole("", out), ENOENT);
    EXPECT_EQ(FileUtil::writeFile("", "x"), ENOENT);
    EXPECT_EQ(FileUtil::fileSize("", size), ENOENT);
    EXPECT_EQ(FileUtil::remove(""), ENOENT);
    EXPECT_EQ(FileUtil::rename("", "x"), ENOENT);
    EXPECT_EQ(FileUtil::makeDirectory(""), ENOENT);
    EXPECT_EQ(FileUtil::makeDirectories(""), ENOENT);
    EXPECT_EQ(FileUtil::listDirectory("", names), ENOENT);
    EXPECT_EQ(FileUtil::readAll(nullptr, out), EBADF);
    EXPECT_EQ(FileUtil::readSize(nullptr, 3, out), EBADF);
    EXPECT_EQ(FileUtil::write(nullptr, "x"), EBADF);
    EXPECT_FALSE(FileUtil::isFile(""));
    EXPECT_FALSE(FileUtil::isDirectory(""));
}

// --- Reading and writing -----------------------------------------------------------------------

TEST_F(FileUtilTest, ReadAllReadsAcrossManyBlocks) {
    std::string content;
    for (int i = 0; i < 1000; ++i) content.push_back(static_cast<char>(i * 7));
    write("big.bin", content);
    std::string out;
    EXPECT_EQ(FileUtil::readFile(path("big.bin"), out), 0);
    EXPECT_EQ(out, content);
    out.clear();
    EXPECT_EQ(FileUtil::readWhole(path("big.bin"), out), 0);
    EXPECT_EQ(out, content);
}

TEST_F(FileUtilTest, ReadOfMissingFileGivesEnoent) {
    std::string out;
    EXPECT_EQ(FileUtil::readFile(path("none"), out), ENOENT);
    EXPECT_EQ(FileUtil::readWhole(path("none"), out), ENOENT);
    EXPECT_TRUE(out.empty());
}

TEST_F(FileUtilTest, ReadWholeOfDirectoryGivesEisdir) {
    std::filesystem::create_directories(path("d"));
    std::string out;
    EXPECT_EQ(FileUtil::readWhole(path("d"), out), EISDIR);
}

TEST_F(FileUtilTest, ReadSizeIsShortAtEndOfFileWithoutError) {
    write("f", "abcdef");
    FILE* file = nullptr;
    ASSERT_EQ(FileUtil::open(path("f"), "rb", &file), 0);
    std::string out;
    EXPECT_EQ(FileUtil::readSize(file, 4, out), 0);
    EXPECT_EQ(out, "abcd");
    EXPECT_EQ(FileUtil::readSize(file, 10, out), 0);
    EXPECT_EQ(out, "abcdef");
    std::fclose(file);
}

TEST_F(FileUtilTest, WriteOfEmptyDataFailsWithNoDataAndLeavesEmptyFile) {
    write("f", "old");
    EXPECT_EQ(FileUtil::writeFile(path("f"), ""), ENODATA);
    EXPECT_TRUE(std::filesystem::exists(path("f")));
    EXPECT_EQ(std::filesystem::file_size(path("f")), 0u);
}

TEST_F(FileUtilTest, WriteTruncatesAndAppendAppends) {
    write("f", "a longer old text");
    EXPECT_EQ(FileUtil::writeFile(path("f"), "new"), 0);
    EXPECT_EQ(slurp(path("f")), "new");
    EXPECT_EQ(FileUtil::appendFile(path("f"), "+more"), 0);
    EXPECT_EQ(slurp(path("f")), "new+more");
}

TEST_F(FileUtilTest, WriteIntoMissingDirectoryGivesEnoent) {
    EXPECT_EQ(FileUtil::writeFile(path("no/such/f"), "x"), ENOENT);
}

TEST_F(FileUtilTest, FileSizeAndKindsByStat) {
    write("d/f", "12345");
    uint64_t size = 0;
    EXPECT_EQ(FileUtil::fileSize(path("d/f"), size), 0);
    EXPECT_EQ(size, 5u);
    EXPECT_EQ(FileUtil::fileSize(path("d/none"), size), ENOENT);
    EXPECT_TRUE(FileUtil::isFile(path("d/f")));
    EXPECT_FALSE(FileUtil::isDirectory(path("d/f")));
    EXPECT_TRUE(FileUtil::isDirectory(path("d")));
    EXPECT_FALSE(FileUtil::isFile(path("d")));
}

TEST_F(FileUtilTest, PrimitivesCanonicaliseTheirPath) {
    write("a/b/f", "x");
    std::string out;
    EXPECT_EQ(FileUtil::readFile(temp_.root() + "a//./b\\f", out), 0);
    EXPECT_EQ(out, "x");
    EXPECT_TRUE(FileUtil::isFile(temp_.root() + "a/c/../b/f"));
}

// --- Directories -------------------------------------------------------------------------------

TEST_F(FileUtilTest, MakeDirectoriesCreatesEachPrefixEndingInASeparator) {
    EXPECT_EQ(FileUtil::makeDirectories(path("x/y/z/")), 0);
    EXPECT_TRUE(std::filesystem::is_directory(path("x/y/z")));
    // Text after the last separator is a file name, not a directory.
    EXPECT_EQ(FileUtil::makeDirectories(path("p/q")), 0);
    EXPECT_TRUE(std::filesystem::is_directory(path("p")));
    EXPECT_FALSE(std::filesystem::exists(path("p/q")));
    // Backslashes separate as well.
    EXPECT_EQ(FileUtil::makeDirectories(path("m\\n\\")), 0);
    EXPECT_TRUE(std::filesystem::is_directory(path("m/n")));
}

TEST_F(FileUtilTest, MakeDirectoriesStopsAtFirstFailure) {
    write("file", "x");
    EXPECT_EQ(FileUtil::makeDirectories(path("file/sub/")), EEXIST);
    EXPECT_FALSE(std::filesystem::exists(path("file/sub")));
}

TEST_F(FileUtilTest, MakeDirectoryUsesOwnerOnlyMode) {
    ASSERT_EQ(FileUtil::makeDirectory(path("private")), 0);
    struct stat info;
    ASSERT_EQ(::stat(path("private").c_str(), &info), 0);
    // Group and others never get a bit, whatever the umask.
    EXPECT_EQ(info.st_mode & 0077, 0u);
    EXPECT_EQ(FileUtil::makeDirectory(path("private")), EEXIST);
}

TEST_F(FileUtilTest, ListDirectoryJoinsNamesAndMarksDirectories) {
    write("l/a.txt", "a");
    write("l/sub/b.txt", "b");
    std::vector<std::string> names;
    ASSERT_EQ(FileUtil::listDirectory(path("l"), names), 0);
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{path("l/a.txt"), path("l/sub/")}));
    EXPECT_EQ(FileUtil::listDirectory(path("none"), names), ENOENT);
    EXPECT_TRUE(names.empty());
}

TEST_F(FileUtilTest, RemoveTreeRemovesEverythingBelow) {
    write("t/a", "1");
    write("t/b/c", "2");
    write("t/b/d/e", "3");
    EXPECT_EQ(FileUtil::removeTree(path("t")), 0);
    EXPECT_FALSE(std::filesystem::exists(path("t")));
    EXPECT_EQ(FileUtil::removeTree(path("t")), ENOENT);
}

TEST_F(FileUtilTest, RemoveOfNonEmptyDirectoryFailsAndRemoveDirectoryOfEmptyOneWorks) {
    write("r/x", "1");
    EXPECT_NE(FileUtil::remove(path("r")), 0);
    EXPECT_EQ(FileUtil::remove(path("r/x")), 0);
    EXPECT_EQ(FileUtil::removeDirectory(path("r")), 0);
    EXPECT_FALSE(std::filesystem::exists(path("r")));
}

TEST_F(FileUtilTest, RenameMovesAFile) {
    write("from", "content");
    EXPECT_EQ(FileUtil::rename(path("from"), path("to")), 0);
    EXPECT_EQ(slurp(path("to")), "content");
    EXPECT_EQ(FileUtil::rename(path("from"), path("to2")), ENOENT);
}

// --- The one retry ----------------------------------------------------------------------------

// A first attempt that fails is retried once with the recoded path, and the second attempt's
// outcome is the result.
TEST_F(FileUtilTest, FailedAttemptIsRetriedOnceWithRecodedPath) {
    write("real", "found on retry");
    int calls = 0;
    FileUtil::ScopedRecoder recoder([&](const std::string& p) {
        ++calls;
        return p == path("alias") ? path("real") : p;
    });
    std::string out;
    EXPECT_EQ(FileUtil::readFile(path("alias"), out), 0);
    EXPECT_EQ(out, "found on retry");
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(FileUtil::isFile(path("alias")));
    // A success on the first attempt never recodes.
    calls = 0;
    EXPECT_TRUE(FileUtil::isFile(path("real")));
    EXPECT_EQ(calls, 0);
}

TEST_F(FileUtilTest, EmptyRecodingIsNotRetriedAndLastErrnoIsReported) {
    int calls = 0;
    FileUtil::ScopedRecoder recoder([&](const std::string&) {
        ++calls;
        return std::string();
    });
    std::string out;
    EXPECT_EQ(FileUtil::readFile(path("none"), out), ENOENT);
    EXPECT_EQ(calls, 1);
}

TEST_F(FileUtilTest, RetryReportsTheErrnoOfTheSecondAttempt) {
    write("file", "x");
    FileUtil::ScopedRecoder recoder([&](const std::string&) { return path("file/below"); });
    std::string out;
    // First attempt: ENOENT; second: a path through a file, ENOTDIR.
    EXPECT_EQ(FileUtil::readFile(path("none"), out), ENOTDIR);
}

TEST_F(FileUtilTest, WideRoundTripKeepsAsciiPaths) {
    EXPECT_EQ(FileUtil::recode("/data/apps/a.js"), "/data/apps/a.js");
}

}  // namespace
}  // namespace FerritCore

namespace FerritCore {
namespace {

// --- Links, exchange and the step hook ---------------------------------------------------------

class FileUtilStepTest : public ::testing::Test {
  protected:
    void TearDown() override { FileUtil::setStepHook(nullptr); }
    std::string path(const std::string& relative) const { return temp_.root() + relative; }
    static int steps;
    FerritTest::TempDir temp_;
};
int FileUtilStepTest::steps = 0;

TEST_F(FileUtilStepTest, LinkGivesASecondNameToTheSameFile) {
    ASSERT_EQ(FileUtil::writeFile(path("a.txt"), "shared"), 0);
    ASSERT_EQ(FileUtil::link(path("a.txt"), path("b.txt")), 0);
    ASSERT_EQ(FileUtil::remove(path("a.txt")), 0);
    std::string content;
    EXPECT_EQ(FileUtil::readFile(path("b.txt"), content), 0);
    EXPECT_EQ(content, "shared");
    EXPECT_EQ(FileUtil::link(path("missing"), path("c.txt")), ENOENT);
    EXPECT_EQ(FileUtil::link("", path("c.txt")), ENOENT);
}

TEST_F(FileUtilStepTest, ExchangeSwapsTwoFoldersInOneStep) {
    ASSERT_EQ(FileUtil::makeDirectories(path("old/")), 0);
    ASSERT_EQ(FileUtil::makeDirectories(path("new/")), 0);
    ASSERT_EQ(FileUtil::writeFile(path("old/f"), "old"), 0);
    ASSERT_EQ(FileUtil::writeFile(path("new/f"), "new"), 0);
    const int result = FileUtil::exchange(path("new"), path("old"));
    if (result == EINVAL || result == ENOSYS) GTEST_SKIP() << "no exchange on this file system";
    ASSERT_EQ(result, 0);
    std::string content;
    EXPECT_EQ(FileUtil::readFile(path("old/f"), content), 0);
    EXPECT_EQ(content, "new");
    content.clear();
    EXPECT_EQ(FileUtil::readFile(path("new/f"), content), 0);
    EXPECT_EQ(content, "old");
    EXPECT_EQ(FileUtil::exchange(path("new"), path("absent")), ENOENT);
}

TEST_F(FileUtilStepTest, HookRunsBeforeEveryChangeOfTheFileSystem) {
    steps = 0;
    FileUtil::setStepHook([] { ++steps; });
    ASSERT_EQ(FileUtil::makeDirectory(path("d")), 0);
    EXPECT_EQ(steps, 1);
    ASSERT_EQ(FileUtil::writeFile(path("d/f"), "x"), 0);
    EXPECT_EQ(steps, 3);  // created, then written
    ASSERT_EQ(FileUtil::link(path("d/f"), path("d/g")), 0);
    ASSERT_EQ(FileUtil::rename(path("d/g"), path("d/h")), 0);
    EXPECT_EQ(steps, 5);
    std::string content;
    ASSERT_EQ(FileUtil::readFile(path("d/f"), content), 0);
    EXPECT_EQ(steps, 5);  // reads change nothing
    ASSERT_EQ(FileUtil::removeTree(path("d")), 0);
    EXPECT_EQ(steps, 8);  // two files, then the folder
    FileUtil::setStepHook(nullptr);
    ASSERT_EQ(FileUtil::writeFile(path("e"), "x"), 0);
    EXPECT_EQ(steps, 8);
}

// Counts what reaches the system calls, and refuses them when told to, as a power-cut test does.
class CountingCalls : public FileUtil::Calls {
  public:
    int syncData(int fd) override {
        ++dataSyncs;
        if (refuse) return errno = EIO, -1;
        return Calls::syncData(fd);
    }
    int syncDirectory(int fd) override {
        ++directorySyncs;
        if (refuse) return errno = EIO, -1;
        return Calls::syncDirectory(fd);
    }
    int syncFileSystem(int fd) override {
        ++fileSystemSyncs;
        if (refuse) return errno = EIO, -1;
        return Calls::syncFileSystem(fd);
    }
    int rename(const char* from, const char* to) override {
        ++renames;
        if (refuse) return errno = EIO, -1;
        return Calls::rename(from, to);
    }
    FILE* openForWrite(const char* path, const char* mode) override {
        ++writeOpens;
        return Calls::openForWrite(path, mode);
    }
    int dataSyncs = 0, directorySyncs = 0, fileSystemSyncs = 0, renames = 0, writeOpens = 0;
    bool refuse = false;
};

class ScopedCalls {
  public:
    explicit ScopedCalls(FileUtil::Calls* calls) { FileUtil::setCalls(calls); }
    ~ScopedCalls() { FileUtil::setCalls(nullptr); }
};

TEST_F(FileUtilTest, SyncsOfFilesAndDirectoriesGoThroughTheInstalledCalls) {
    CountingCalls calls;
    ScopedCalls scoped(&calls);
    ASSERT_EQ(FileUtil::writeFile(path("a/b.txt"), "x"), ENOENT);
    write("a/b.txt", "bytes");
    EXPECT_EQ(FileUtil::writeFile(path("a/c.txt"), "more"), 0);
    EXPECT_EQ(calls.writeOpens, 2);
    EXPECT_EQ(FileUtil::syncFile(path("a/c.txt")), 0);
    EXPECT_EQ(FileUtil::syncDirectory(path("a/")), 0);
    EXPECT_EQ(FileUtil::startWriteback(path("a/b.txt")), 0);
    EXPECT_EQ(calls.dataSyncs, 1);
    EXPECT_EQ(calls.directorySyncs, 1);
    EXPECT_EQ(FileUtil::rename(path("a/b.txt"), path("a/d.txt")), 0);
    EXPECT_EQ(calls.renames, 1);
    EXPECT_EQ(slurp(path("a/d.txt")), "bytes");
}

TEST_F(FileUtilTest, SyncsGiveErrnoResults) {
    EXPECT_EQ(FileUtil::syncFile(""), ENOENT);
    EXPECT_EQ(FileUtil::syncDirectory(""), ENOENT);
    EXPECT_EQ(FileUtil::syncDescriptor(-1), EBADF);
    EXPECT_EQ(FileUtil::syncFile(path("missing")), ENOENT);
    EXPECT_EQ(FileUtil::syncDirectory(path("missing/")), ENOENT);
    write("file", "x");
    EXPECT_EQ(FileUtil::syncDirectory(path("file")), ENOTDIR);
    CountingCalls calls;
    calls.refuse = true;
    ScopedCalls scoped(&calls);
    EXPECT_EQ(FileUtil::syncFile(path("file")), EIO);
    EXPECT_EQ(FileUtil::syncDirectory(temp_.root()), EIO);
    EXPECT_EQ(FileUtil::rename(path("file"), path("other")), EIO);
    EXPECT_EQ(slurp(path("file")), "x");
}

TEST_F(FileUtilTest, FileSystemSyncGoesThroughTheInstalledCallsAndGivesErrnoResults) {
    write("a/b.txt", "bytes");
    CountingCalls calls;
    ScopedCalls scoped(&calls);
    FileUtil::FileSystemSync held(path("a/"));
    EXPECT_TRUE(held.usable());  // the kernels this runs on report failures through syncfs
    EXPECT_EQ(held.sync(), 0);
    EXPECT_EQ(calls.fileSystemSyncs, 1);
    EXPECT_EQ(calls.dataSyncs, 0);
    calls.refuse = true;
    EXPECT_EQ(held.sync(), EIO);
    // A directory that cannot be opened gives its reason at the sync, which reaches no system call.
    FileUtil::FileSystemSync missing(path("missing/"));
    EXPECT_FALSE(missing.usable());
    EXPECT_EQ(missing.sync(), ENOENT);
    FileUtil::FileSystemSync notADirectory(path("a/b.txt"));
    EXPECT_EQ(notADirectory.sync(), ENOTDIR);
    EXPECT_EQ(calls.fileSystemSyncs, 2);
}

// --- Reading into the caller's memory ----------------------------------------------------------

TEST_F(FileUtilTest, HeldFileReadsWholeIntoTheGivenMemoryAndCloses) {
    write("a.js", "sixteen bytes!!!");
    HeldFile file(::open(path("a.js").c_str(), O_RDONLY));
    std::string memory;
    size_t size = 0;
    const int result = file.readIntoAndClose(
        [&](size_t n) {
            memory.assign(n, '\0');
            return memory.data();
        },
        size);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(size, 16u);
    EXPECT_EQ(memory, "sixteen bytes!!!");
    EXPECT_FALSE(file.isOpen());
}

// A failure leaves the file open at its start, so that the whole read can still be made.
TEST_F(FileUtilTest, HeldFileWithoutMemoryStaysOpenForTheWholeRead) {
    write("a.js", "content");
    HeldFile file(::open(path("a.js").c_str(), O_RDONLY));
    size_t size = 0;
    EXPECT_EQ(file.readIntoAndClose([](size_t) -> char* { return nullptr; }, size), ENOMEM);
    ASSERT_TRUE(file.isOpen());
    std::string out;
    EXPECT_EQ(file.readAndClose(out), 0);
    EXPECT_EQ(out, "content");
}

TEST_F(FileUtilTest, HeldFileRemovedOrEmptyIsNotReadIntoMemory) {
    write("gone.js", "x");
    write("empty.js", "");
    HeldFile gone(::open(path("gone.js").c_str(), O_RDONLY));
    HeldFile empty(::open(path("empty.js").c_str(), O_RDONLY));
    std::filesystem::remove(path("gone.js"));
    int calls = 0;
    const auto allocate = [&](size_t) -> char* {
        ++calls;
        return nullptr;
    };
    size_t size = 0;
    EXPECT_EQ(gone.readIntoAndClose(allocate, size), ESTALE);
    EXPECT_EQ(empty.readIntoAndClose(allocate, size), ENODATA);
    EXPECT_EQ(calls, 0);
}

}  // namespace
}  // namespace FerritCore
