// Crash safety of a pack install, tested for real: a child process installs a new version of a
// pack and is killed with SIGKILL at one of many points evenly spread over the install; then a
// second child starts on the same root as a host would after the crash, reads every URL of the
// pack, and installs again.
//
// Every answer must be byte for byte the old version's or the new one's (never a partial file,
// and, stronger, never a mix of the two versions across the pack), "temp/" must be empty after
// the start, and the next install must succeed.
//
// Where the kills land: the child counts every step that changes what lies on the disk (each
// file created and each written, each folder made, renamed or removed, each batch written to and
// each copy or removal in the packed store, each write of the configuration, the download, and
// below those every write, truncation and deletion that the database makes in its files, so that
// kills land inside its transactions too) and kills itself just before the Nth. A calibration run
// without a kill counts the steps of the whole install, and the points are spread evenly over that
// count. Counting steps rather than timing kills makes every point land in the same place on every
// run and on any machine, however loaded; the step hooks sit exactly where a real crash would cut
// the install short.
//
//   install_crash_test                      the CI run: FERRIT_CRASH_POINTS points (default 200)
//                                           for each of the two kinds of pack
//   FERRIT_CRASH_POINTS=1000 install_crash_test   the longer run (tests/crash/run-crash-test.sh)
//   FERRIT_CRASH_FILES=N                    files in each version of the pack (default 160)
//   FERRIT_CRASH_JOBS=N                     points run side by side (default 2)
//
// The children are this program again, with "--child" and a command.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <unordered_set>
#include <vector>

#include "base/FileUtil.h"
#include "base/Folder.h"
#include "base/PackedFiles.h"
#include "ferritcore/ResourceResponse.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "model/PacksConfigStorage.h"
#include "model/SCache.h"
#include "runtime/TaskRunner.h"
#include "storage/PacksStore.h"
#include "tests/FakeProxy.h"
#include "tests/crash/CrashScenario.h"

namespace fs = std::filesystem;
using namespace FerritCore;
using namespace FerritCrash;

namespace {

constexpr const char* kPointsVariable = "FERRIT_CRASH_POINTS";
constexpr int kDefaultPoints = 200;
constexpr const char* kJobsVariable = "FERRIT_CRASH_JOBS";
constexpr int kDefaultJobs = 2;
// The two versions: enough files for many distinct kill points, small enough for a quick run.
constexpr int kFiles = 160;
constexpr size_t kBytesPerFile = 2560;
// A longer run wants more distinct steps than the CI pack has: FERRIT_CRASH_FILES makes a larger
// one.
constexpr const char* kFilesVariable = "FERRIT_CRASH_FILES";
constexpr uint64_t kSeed = 20240611;

// ---- The two kinds of pack ---------------------------------------------------------------------

// An app on the disk, staged under "temp/" and moved into place; a plain pack in the packed
// store, updated by an increment whose unchanged files are copied inside the store.
const Scenario kDisk{"disk", "app", kPackTypeACache, false};
const Scenario kPacked{"packed", "shop", kPackTypeFerrit, true};

const Scenario& scenarioNamed(const std::string& label) {
    return label == kPacked.label ? kPacked : kDisk;
}

FerritTest::SiteFiles version(int which) {
    return siteVersion(which, fromEnvironment(kFilesVariable, kFiles), kBytesPerFile, kSeed);
}

// ---- The child's side -------------------------------------------------------------------------

// Set once in the child, before anything runs: the step at which it kills itself (0: never).
int64_t killAt = 0;
int64_t steps = 0;

void step() {
    if (++steps == killAt) ::kill(::getpid(), SIGKILL);
}

// The test proxy, with the download written as one more step.
class StepProxy : public FerritTest::FakeProxy {
  public:
    void sendRequest(const ProxyRequest& request, ProxyCompletion completion) override {
        if (!request.tempFilePath.empty()) step();
        FakeProxy::sendRequest(request, std::move(completion));
    }
};

// The packed store, with a step before each change.
class StepPackedFiles : public PackedFiles {
  public:
    explicit StepPackedFiles(std::shared_ptr<PackedFiles> real) : real_(std::move(real)) {}
    bool get(std::string_view key, std::string& value, Error& error) override {
        return real_->get(key, value, error);
    }
    bool put(std::string_view key, std::string_view value, Error& error) override {
        step();
        return real_->put(key, value, error);
    }
    bool putAll(const std::vector<std::pair<std::string, std::string>>& entries,
                Error& error) override {
        step();
        return real_->putAll(entries, error);
    }
    bool putChecked(const std::vector<CheckedFile>& files, Error& error) override {
        step();
        return real_->putChecked(files, error);
    }
    bool copyPrefix(std::string_view from, std::string_view to,
                    const std::unordered_set<std::string>& skip, uint64_t& bytes,
                    Error& error) override {
        step();
        return real_->copyPrefix(from, to, skip, bytes, error);
    }
    bool contains(std::string_view key) override { return real_->contains(key); }
    void removeByPrefix(std::string_view prefix) override {
        step();
        real_->removeByPrefix(prefix);
    }
    void enumerate(std::string_view prefix,
                   const std::function<bool(std::string_view key)>& visit) override {
        real_->enumerate(prefix, visit);
    }

  private:
    std::shared_ptr<PackedFiles> real_;
};

// The database's own file system, with a step before each change of a file: a kill then lands
// between any two pages that a commit writes to the log, as a crash would.
void installStepVfs() {
    VfsHooks hooks;
    hooks.name = "ferrit-crash-step";
    hooks.remove = [](const char*) {
        step();
        return SQLITE_OK;
    };
    hooks.write = [](sqlite3_file* f, const void* in, int amount, sqlite3_int64 offset) {
        step();
        return realOf(f)->pMethods->xWrite(realOf(f), in, amount, offset);
    };
    hooks.truncate = [](sqlite3_file* f, sqlite3_int64 size) {
        step();
        return realOf(f)->pMethods->xTruncate(realOf(f), size);
    };
    installVfs(hooks);
}

// The configuration's commits, with a step before each write.
class StepConfigStorage : public PacksConfigStorage {
  public:
    Error writeConfig(const std::string& text, Durability durability) override {
        step();
        return PacksConfigStorage::writeConfig(text, durability);
    }
    void removeFolder(const Folder& folder) override {
        step();
        PacksConfigStorage::removeFolder(folder);
    }
};

// "prepare": version 1 installed, version 2 configured, the process ended cleanly.
int childPrepare(const std::string& root, const fs::path& fixtures, const Scenario& variant) {
    MarlLogger::ScopedManualClock clock;
    start(root, fixtures, variant);
    configure(variant, 1, fixtures);
    Error error;
    updatePack(variant, *clock, error);
    if (error) {
        std::printf("ERROR %d %s\n", error.code(), error.message().c_str());
        return 1;
    }
    configure(variant, 2, fixtures);
    return 0;
}

// "install": the update to version 2, killed at step `kill` (0: runs to its end and says how
// many steps it took).
int childInstall(const std::string& root, const fs::path& fixtures, const Scenario& variant,
                 int64_t kill) {
    MarlLogger::ScopedManualClock clock;
    start<StepProxy>(root, fixtures, variant);
    PackedFiles::set(std::make_shared<StepPackedFiles>(PacksStore::files()));
    SCache::setStorage(std::make_shared<StepConfigStorage>());
    killAt = kill;
    steps = 0;
    FileUtil::setStepHook(step);
    Error error;
    updatePack(variant, *clock, error);
    FileUtil::setStepHook(nullptr);
    std::printf("STEPS %lld\n", static_cast<long long>(steps));
    if (error) {
        std::printf("ERROR %d %s\n", error.code(), error.message().c_str());
        return 1;
    }
    return 0;
}

// "verify": the next start on the crashed root; reads every URL, then installs again. Prints
// "TEMP <entries before> <entries after>", "READ <old> <new> <bad>", one "BAD <path> <code>" per
// bad answer, "VERSION <old|new|mixed>", "REINSTALL <code>", "AFTER <new> <bad>".
int childVerify(const std::string& root, const fs::path& fixtures, const Scenario& variant) {
    MarlLogger::ScopedManualClock clock;
    size_t before = 0, after = 0;
    if (fs::is_directory(fs::path(root) / "temp"))
        before = static_cast<size_t>(std::distance(fs::directory_iterator(fs::path(root) / "temp"),
                                                   fs::directory_iterator()));
    start(root, fixtures, variant);
    after = static_cast<size_t>(
        std::distance(fs::directory_iterator(fs::path(root) / "temp"), fs::directory_iterator()));
    std::printf("TEMP %zu %zu\n", before, after);

    const FerritTest::SiteFiles one = version(1);
    const FerritTest::SiteFiles two = version(2);
    const auto reportBad = [](const std::string& path, const ResourceResponse& response, size_t) {
        std::printf("BAD %s %d %zu\n", path.c_str(), response.error.code(), response.data.size());
    };
    Reading reading = readEvery(one, two, reportBad);
    std::printf("READ %zu %zu %zu\n", reading.olds, reading.news, reading.bads);
    const Error verifyError = verifyInstalled(variant);
    if (verifyError) std::printf("UNVERIFIED %s\n", verifyError.message().c_str());
    std::printf("VERIFY %d\n", verifyError.code());
    std::printf("VERSION %s\n", reading.olds > 0 && reading.news > 0 ? "mixed"
                                : reading.news > 0                   ? "new"
                                                                     : "old");
    // Reads of a version being replaced ask for repairs and updates: they run here, and then the
    // next trigger installs whatever is still missing.
    drive();
    Error error;
    updatePack(variant, *clock, error);
    std::printf("REINSTALL %d %s\n", error.code(), error.message().c_str());
    reading = readEvery(one, two, reportBad);
    std::printf("AFTER %zu %zu\n", reading.news, reading.bads);
    return 0;
}

int runChild(int argc, char** argv) {
    MarlLogger::Log::setLevel(0);
    TaskRunner::setSharedMode(TaskRunner::Mode::Manual);
    installStepVfs();
    if (argc < 6) return 2;
    const std::string command = argv[2];
    const std::string root = argv[3];
    const fs::path fixtures = argv[4];
    const Scenario& variant = scenarioNamed(argv[5]);
    if (command == "prepare") return childPrepare(root, fixtures, variant);
    if (command == "install" && argc >= 7)
        return childInstall(root, fixtures, variant, std::atoll(argv[6]));
    if (command == "verify") return childVerify(root, fixtures, variant);
    return 2;
}

// ---- The parent's side ------------------------------------------------------------------------

struct ChildResult {
    int status = 0;
    std::string output;
    bool killed() const { return WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL; }
    bool succeeded() const { return WIFEXITED(status) && WEXITSTATUS(status) == 0; }
    // The words of the first line that begins with `key`.
    std::vector<std::string> line(const std::string& key) const {
        std::istringstream lines(output);
        std::string text;
        while (std::getline(lines, text)) {
            if (text.rfind(key + " ", 0) != 0) continue;
            std::istringstream words(text.substr(key.size() + 1));
            std::vector<std::string> out;
            for (std::string word; words >> word;) out.push_back(word);
            return out;
        }
        return {};
    }
    long long number(const std::string& key, size_t index = 0) const {
        const std::vector<std::string> words = line(key);
        return index < words.size() ? std::atoll(words[index].c_str()) : -1;
    }
};

// A child started and not yet waited for: its pid and the read end of its output.
struct RunningChild {
    pid_t pid = -1;
    int output = -1;
};

RunningChild spawnSelf(const std::vector<std::string>& args) {
    RunningChild running;
    int pipe[2];
    if (::pipe(pipe) != 0) return running;
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(pipe[1], STDOUT_FILENO);
        ::close(pipe[0]);
        ::close(pipe[1]);
        std::vector<char*> argv;
        static char self[] = "/proc/self/exe";
        argv.push_back(self);
        for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
        argv.push_back(nullptr);
        ::execv("/proc/self/exe", argv.data());
        ::_exit(127);
    }
    ::close(pipe[1]);
    running.pid = pid;
    running.output = pipe[0];
    return running;
}

// Reads the child's output to its end and waits for it.
ChildResult collect(const RunningChild& running) {
    ChildResult result;
    if (running.pid < 0) return result;
    char buffer[4096];
    for (ssize_t n; (n = ::read(running.output, buffer, sizeof(buffer))) > 0;)
        result.output.append(buffer, static_cast<size_t>(n));
    ::close(running.output);
    ::waitpid(running.pid, &result.status, 0);
    return result;
}

ChildResult runSelf(const std::vector<std::string>& args) {
    return collect(spawnSelf(args));
}

// How many points run side by side: each has its own root, so they share nothing but the
// fixtures, which no child writes. The children mostly wait on the disk, so two per core pays.
int jobsToRun() {
    return fromEnvironment(kJobsVariable, kDefaultJobs);
}

int pointsToRun() {
    return fromEnvironment(kPointsVariable, kDefaultPoints);
}

class InstallCrashTest : public ::testing::TestWithParam<const Scenario*> {
  protected:
    void SetUp() override {
        base_ = fs::temp_directory_path() /
                ("ferrit-crash-" + std::to_string(::getpid()) + "-" + GetParam()->label);
        fs::remove_all(base_);
        fs::create_directories(base_);
    }
    void TearDown() override { fs::remove_all(base_); }

    std::vector<std::string> childArgs(const std::string& command, const fs::path& root,
                                       const std::string& extra = {}) {
        std::vector<std::string> args{"--child", command, root.string() + "/",
                                      (base_ / "fixtures").string(), GetParam()->label};
        if (!extra.empty()) args.push_back(extra);
        return args;
    }
    ChildResult child(const std::string& command, const fs::path& root,
                      const std::string& extra = {}) {
        return runSelf(childArgs(command, root, extra));
    }
    // A fresh copy of the prepared root, one for each job.
    fs::path freshRoot(int job = 0) {
        const fs::path root = base_ / ("root-" + std::to_string(job));
        fs::remove_all(root);
        fs::copy(base_ / "template", root, fs::copy_options::recursive);
        return root;
    }

    fs::path base_;
};

TEST_P(InstallCrashTest, KilledAnywhereTheInstallLeavesTheOldOrTheNewVersion) {
    const Scenario& variant = *GetParam();
    ASSERT_NO_FATAL_FAILURE(writeFixtures(base_ / "fixtures", version(1), version(2)));
    const ChildResult prepared = child("prepare", base_ / "template");
    ASSERT_TRUE(prepared.succeeded()) << prepared.output;

    // Calibration: the whole install, and what it reads like afterwards.
    const ChildResult calibration = child("install", freshRoot(), "0");
    ASSERT_TRUE(calibration.succeeded()) << calibration.output;
    const long long total = calibration.number("STEPS");
    ASSERT_GT(total, 0);
    const ChildResult clean = child("verify", base_ / "root-0");
    ASSERT_EQ(clean.line("VERSION"), std::vector<std::string>{"new"}) << clean.output;

    const int points = pointsToRun();
    std::set<long long> distinct;
    int killed = 0, oldVersion = 0, newVersion = 0, mixed = 0, badAnswers = 0, reinstalls = 0,
        leftovers = 0, recovered = 0;
    const int jobs = jobsToRun();
    for (int first = 0; first < points; first += jobs) {
        const int count = std::min(jobs, points - first);
        std::vector<long long> at(static_cast<size_t>(count));
        std::vector<fs::path> roots(static_cast<size_t>(count));
        std::vector<RunningChild> running(static_cast<size_t>(count));
        for (int j = 0; j < count; ++j) {
            // Evenly spread over steps 1..total.
            at[j] = 1 + static_cast<long long>(first + j) * total / points;
            distinct.insert(at[j]);
            roots[j] = freshRoot(j);
            running[j] = spawnSelf(childArgs("install", roots[j], std::to_string(at[j])));
        }
        for (int j = 0; j < count; ++j) {
            const ChildResult install = collect(running[j]);
            EXPECT_TRUE(install.killed()) << "step " << at[j] << ": " << install.output;
            if (install.killed()) ++killed;
        }
        for (int j = 0; j < count; ++j) running[j] = spawnSelf(childArgs("verify", roots[j]));
        for (int j = 0; j < count; ++j) {
            const ChildResult verify = collect(running[j]);
            ASSERT_TRUE(verify.succeeded()) << "step " << at[j] << ": " << verify.output;
            const std::string state =
                verify.line("VERSION").empty() ? "" : verify.line("VERSION")[0];
            if (state == "old") ++oldVersion;
            if (state == "new") ++newVersion;
            if (state == "mixed") ++mixed;
            EXPECT_NE(state, "mixed") << "step " << at[j] << ": " << verify.output;
            const long long bad = verify.number("READ", 2);
            EXPECT_EQ(verify.number("VERIFY"), 0) << "step " << at[j] << ": " << verify.output;
            badAnswers += static_cast<int>(bad);
            EXPECT_EQ(bad, 0) << "step " << at[j] << ": " << verify.output;
            if (verify.number("TEMP", 0) > 0) ++leftovers;
            if (verify.number("TEMP", 0) > 0 && verify.number("TEMP", 1) == 0) ++recovered;
            EXPECT_EQ(verify.number("TEMP", 1), 0) << "step " << at[j];
            EXPECT_EQ(verify.number("REINSTALL"), 0) << "step " << at[j] << ": " << verify.output;
            EXPECT_EQ(verify.number("AFTER", 1), 0) << "step " << at[j] << ": " << verify.output;
            if (verify.number("REINSTALL") == 0 && verify.number("AFTER", 1) == 0) ++reinstalls;
        }
    }
    std::printf(
        "[ crash    ] %s: %d kill points (%zu distinct) over %lld steps of the install; %d killed; "
        "after the restart %d read as the old version, %d as the new one, %d mixed, %d bad "
        "answers; %d left temp/ entries, %d of them emptied at the start; %d installed again\n",
        variant.label, points, distinct.size(), total, killed, oldVersion, newVersion, mixed,
        badAnswers, leftovers, recovered, reinstalls);
    RecordProperty("points", points);
    RecordProperty("steps", static_cast<int>(total));
}

INSTANTIATE_TEST_SUITE_P(Packs, InstallCrashTest, ::testing::Values(&kDisk, &kPacked),
                         [](const ::testing::TestParamInfo<const Scenario*>& info) {
                             return std::string(info.param->label);
                         });

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::string(argv[1]) == "--child") return runChild(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    MarlLogger::Log::setLevel(0);
    TaskRunner::setSharedMode(TaskRunner::Mode::Manual);
    return RUN_ALL_TESTS();
}
