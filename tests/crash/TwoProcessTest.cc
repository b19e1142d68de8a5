// Two processes on one root, as two hosts of the same app share it: a writer installs versions 2
// and 3 of a pack through the real update, retiring each version it replaces, while a reader that
// loaded version 1 reads every URL of the pack in a loop. No answer of the reader may be anything
// but some installed version's bytes, and once the writer says that version 3 is published, the
// reader's next-but-one answer and every one after it must be version 3's.
//
// The processes are this test binary started again with "--child": "prepare" installs version 1
// and ends; "reader" and "writer" then run side by side on that root. The writer tells the reader
// of each publish through a pipe; the reader looks at the pipe before every request.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "base/Errors.h"
#include "ferritcore/ResourceResponse.h"
#include "marl/Clock.h"
#include "marl/Log.h"
#include "model/SCache.h"
#include "runtime/TaskRunner.h"
#include "tests/FakeProxy.h"
#include "tests/crash/CrashScenario.h"

using namespace FerritCore;
using namespace FerritCrash;

namespace {

constexpr int kFiles = 48;
constexpr size_t kBytesPerFile = 2048;
constexpr uint64_t kSeed = 20261124;
constexpr int kVersions = 3;
// Where the children find their ends of the pipes (set up between fork and exec).
constexpr int kSignalFd = 3;  // reader: publishes, from the writer; writer: the other end
constexpr int kReadyFd = 4;   // reader: tells the parent that it serves version 1
// Full passes over the URLs that the reader makes after the writer has ended.
constexpr int kPassesAfterWriter = 2;

// An app on the disk (each version a folder under "apps/") and a plain pack in the packed store
// (each version a range of keys): a retired version's files go in different ways.
const Scenario kDisk{"disk", "app", kPackTypeACache, false};
const Scenario kPacked{"packed", "shop", kPackTypeFerrit, false};

const Scenario& scenarioNamed(const std::string& label) {
    return label == kPacked.label ? kPacked : kDisk;
}

std::array<FerritTest::SiteFiles, kVersions> versions() {
    std::array<FerritTest::SiteFiles, kVersions> all;
    all[0] = siteVersion(1, kFiles, kBytesPerFile, kSeed);
    all[1] = siteVersion(2, kFiles, kBytesPerFile, kSeed);
    all[2] = FerritTest::SyntheticSite::nextVersion(all[1], kChangedFraction, kSeed + 2);
    return all;
}

void writeVersionFixtures(const fs::path& folder) {
    fs::create_directories(folder);
    const auto all = versions();
    for (int v = 0; v < kVersions; ++v) {
        FerritTools::PackContent content;
        content.files = all[v];
        std::string zip, error;
        ASSERT_TRUE(FerritTools::buildPack(content, packOptions(), zip, error)) << error;
        writeAll(folder / ("v" + std::to_string(v + 1) + ".zip"), zip);
    }
}

// The process's start on `root`, with version 3's zip served as well.
std::shared_ptr<FerritTest::FakeProxy> startOn(const std::string& root, const fs::path& fixtures,
                                               const Scenario& scenario) {
    auto proxy = start(root, fixtures, scenario);
    const std::string prefix = scenario.type == kPackTypeACache ? kAppZipPrefix : kZipPrefix;
    proxy->serve(prefix + scenario.name + "/3.zip", 200, readAll(fixtures / "v3.zip"));
    return proxy;
}

size_t zipRequests(const FerritTest::FakeProxy& proxy) {
    size_t count = 0;
    for (const ProxyRequest& request : proxy.requests)
        if (!request.tempFilePath.empty()) ++count;
    return count;
}

// Whether `response` is what version `files` gives for `path`: its bytes, or "not in this pack"
// for a path that the version does not have.
bool answersAs(const FerritTest::SiteFiles& files, const std::string& path,
               const ResourceResponse& response) {
    auto it = files.find(path);
    if (it == files.end())
        return response.error.code() == Errors::notFerritPackResource(std::string()).code();
    return !response.error && response.data == it->second;
}

// ---- The children ------------------------------------------------------------------------------

int childPrepare(const std::string& root, const fs::path& fixtures, const Scenario& scenario) {
    MarlLogger::ScopedManualClock clock;
    startOn(root, fixtures, scenario);
    configure(scenario, 1, fixtures);
    Error error;
    updatePack(scenario, *clock, error);
    if (error) {
        std::printf("ERROR %d %s\n", error.code(), error.message().c_str());
        return 1;
    }
    return 0;
}

// Installs versions 2 and 3, each through the real update, its predecessor retired, and writes
// the version to the pipe once it is published.
int childWriter(const std::string& root, const fs::path& fixtures, const Scenario& scenario) {
    MarlLogger::ScopedManualClock clock;
    startOn(root, fixtures, scenario);
    for (uint64_t seq = 2; seq <= kVersions; ++seq) {
        configure(scenario, seq, fixtures);
        Error error;
        updatePack(scenario, *clock, error);
        if (error) {
            std::printf("ERROR %d %s\n", error.code(), error.message().c_str());
            return 1;
        }
        const char signal = static_cast<char>('0' + seq);
        if (::write(kSignalFd, &signal, 1) != 1) {
            std::printf("ERROR signal: %s\n", std::strerror(errno));
            return 1;
        }
        std::printf("PUBLISHED %llu\n", static_cast<unsigned long long>(seq));
    }
    ::close(kSignalFd);
    return 0;
}

// Reads every URL of the pack in a loop until the writer has ended. Prints "READS <n>",
// "BAD <n>" (answers that are no installed version's), "AFTER <n>" (answers after the publish of
// version 3), "STALE <n>" (of those, from the next-but-one on, answers that are not version 3's),
// "RELOADS <n>" and "ZIPS <n>" (downloads this process made once its queued work ran).
int childReader(const std::string& root, const fs::path& fixtures, const Scenario& scenario) {
    MarlLogger::ScopedManualClock clock;
    auto proxy = startOn(root, fixtures, scenario);
    const auto all = versions();
    std::set<std::string> paths;
    for (const auto& files : all)
        for (const auto& [path, content] : files) paths.insert(path);

    auto ask = [](const std::string& path) {
        ResourceRequest request(std::string(kSite) + path, std::string());
        return Access::getResource(request);
    };
    // Version 1 is what this process loaded; the parent starts the writer once it is served.
    for (const std::string& path : paths) {
        if (!answersAs(all[0], path, *ask(path))) {
            std::printf("NOT_READY %s\n", path.c_str());
            return 1;
        }
    }
    const char ready = 'r';
    if (::write(kReadyFd, &ready, 1) != 1) {
        std::printf("ERROR ready: %s\n", std::strerror(errno));
        return 1;
    }
    ::close(kReadyFd);
    ::fcntl(kSignalFd, F_SETFL, ::fcntl(kSignalFd, F_GETFL) | O_NONBLOCK);

    size_t reads = 0, bad = 0, after = 0, stale = 0;
    int published = 1;
    bool writerEnded = false;
    int passesLeft = kPassesAfterWriter;
    while (passesLeft > 0) {
        for (const std::string& path : paths) {
            char signal = 0;
            ssize_t n = -1;
            while (!writerEnded && (n = ::read(kSignalFd, &signal, 1)) != 0) {
                if (n < 0) break;  // nothing written yet
                published = signal - '0';
            }
            if (!writerEnded && n == 0) writerEnded = true;
            const std::unique_ptr<ResourceResponse> response = ask(path);
            ++reads;
            bool any = false;
            for (const auto& files : all) any = any || answersAs(files, path, *response);
            if (!any) {
                if (bad < 10)
                    std::printf("BADANSWER %s %d %s\n", path.c_str(), response->error.code(),
                                response->error.message().c_str());
                ++bad;
            }
            if (published == kVersions) {
                ++after;
                if (after >= 2 && !answersAs(all[kVersions - 1], path, *response)) {
                    if (stale < 10)
                        std::printf("STALEANSWER %zu %s %d\n", after, path.c_str(),
                                    response->error.code());
                    ++stale;
                }
            }
        }
        if (writerEnded) --passesLeft;
    }
    // What the failed answers on the way queued (updates of a pack that looked stale) runs now:
    // it must find version 3 installed and fetch nothing.
    drive();
    std::printf("PATHS %zu\nREADS %zu\nBAD %zu\nAFTER %zu\nSTALE %zu\nRELOADS %llu\nZIPS %zu\n",
                paths.size(), reads, bad, after, stale,
                static_cast<unsigned long long>(SCache::reloadCount()), zipRequests(*proxy));
    return 0;
}

int runChild(int argc, char** argv) {
    MarlLogger::Log::setLevel(0);
    TaskRunner::setSharedMode(TaskRunner::Mode::Manual);
    if (argc < 6) return 2;
    const std::string command = argv[2];
    const std::string root = argv[3];
    const fs::path fixtures = argv[4];
    const Scenario& scenario = scenarioNamed(argv[5]);
    if (command == "prepare") return childPrepare(root, fixtures, scenario);
    if (command == "writer") return childWriter(root, fixtures, scenario);
    if (command == "reader") return childReader(root, fixtures, scenario);
    return 2;
}

// ---- The parent's side -------------------------------------------------------------------------

struct Child {
    pid_t pid = -1;
    int output = -1;
    int status = 0;
    std::string text;

    bool succeeded() const { return WIFEXITED(status) && WEXITSTATUS(status) == 0; }
    long long number(const std::string& key) const {
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);)
            if (line.rfind(key + " ", 0) == 0) return std::atoll(line.c_str() + key.size() + 1);
        return -1;
    }
};

// Starts this binary with `args`; each pair of `fds` is (descriptor here, number in the child).
Child spawn(const std::vector<std::string>& args, const std::vector<std::pair<int, int>>& fds) {
    Child child;
    int out[2];
    if (::pipe2(out, O_CLOEXEC) != 0) return child;
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(out[1], STDOUT_FILENO);
        // Out of the way first, so that no target overwrites a source; dup2 then clears
        // close-on-exec on each target.
        std::vector<std::pair<int, int>> moved;
        for (const auto& [from, to] : fds)
            moved.emplace_back(::fcntl(from, F_DUPFD_CLOEXEC, 64), to);
        for (const auto& [from, to] : moved) ::dup2(from, to);
        std::vector<char*> argv;
        static char self[] = "/proc/self/exe";
        argv.push_back(self);
        for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
        argv.push_back(nullptr);
        ::execv("/proc/self/exe", argv.data());
        ::_exit(127);
    }
    ::close(out[1]);
    child.pid = pid;
    child.output = out[0];
    return child;
}

void finish(Child& child) {
    if (child.pid < 0) return;
    char buffer[4096];
    for (ssize_t n; (n = ::read(child.output, buffer, sizeof(buffer))) > 0;)
        child.text.append(buffer, static_cast<size_t>(n));
    ::close(child.output);
    ::waitpid(child.pid, &child.status, 0);
}

class TwoProcessTest : public ::testing::TestWithParam<const Scenario*> {
  protected:
    void SetUp() override {
        base_ = fs::temp_directory_path() /
                ("ferrit-two-" + std::to_string(::getpid()) + "-" + GetParam()->label);
        fs::remove_all(base_);
        fs::create_directories(base_);
    }
    void TearDown() override { fs::remove_all(base_); }

    std::vector<std::string> args(const std::string& command) const {
        return {"--child", command, (base_ / "root").string() + "/", (base_ / "fixtures").string(),
                GetParam()->label};
    }

    fs::path base_;
};

TEST_P(TwoProcessTest, ReaderServesEveryInstalledVersionAndTheNewestAtOnce) {
    ASSERT_NO_FATAL_FAILURE(writeVersionFixtures(base_ / "fixtures"));
    Child prepared = spawn(args("prepare"), {});
    finish(prepared);
    ASSERT_TRUE(prepared.succeeded()) << prepared.text;

    int signal[2], ready[2];
    ASSERT_EQ(::pipe2(signal, O_CLOEXEC), 0);
    ASSERT_EQ(::pipe2(ready, O_CLOEXEC), 0);
    Child reader = spawn(args("reader"), {{signal[0], kSignalFd}, {ready[1], kReadyFd}});
    ::close(signal[0]);
    ::close(ready[1]);
    char byte = 0;
    const bool readerReady = ::read(ready[0], &byte, 1) == 1;
    ::close(ready[0]);
    Child writer;
    if (readerReady) writer = spawn(args("writer"), {{signal[1], kSignalFd}});
    ::close(signal[1]);  // the reader sees the end of the pipe when the writer ends
    finish(writer);
    finish(reader);
    ASSERT_TRUE(readerReady) << reader.text;
    ASSERT_TRUE(writer.succeeded()) << writer.text;
    ASSERT_TRUE(reader.succeeded()) << reader.text;

    EXPECT_GT(reader.number("READS"), 0) << reader.text;
    EXPECT_EQ(reader.number("BAD"), 0) << reader.text;
    EXPECT_GE(reader.number("AFTER"), reader.number("PATHS")) << "a whole pass after the publish\n"
                                                              << reader.text;
    EXPECT_EQ(reader.number("STALE"), 0) << reader.text;
    EXPECT_GE(reader.number("RELOADS"), 1) << reader.text;
    EXPECT_EQ(reader.number("ZIPS"), 0) << "the reader fetched what the writer installed\n"
                                        << reader.text;
    std::printf(
        "[ two      ] %s: %lld reads while versions 2 and 3 were installed, %lld bad, "
        "%lld after the last publish (%lld stale), %lld reloads\n",
        GetParam()->label, reader.number("READS"), reader.number("BAD"), reader.number("AFTER"),
        reader.number("STALE"), reader.number("RELOADS"));
}

INSTANTIATE_TEST_SUITE_P(Packs, TwoProcessTest, ::testing::Values(&kDisk, &kPacked),
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
