// Eight host threads read one pack through Access and through Reader while a worker installs and
// publishes 50 versions of it: every read gives the bytes of one complete version, and a reader
// sees one version for its whole life. The installs run on a TaskRunner of their own in Worker
// mode, which drives the process's runner; the readers are plain threads.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "access/Reader.h"
#include "access/UpdateRequester.h"
#include "tests/update/InstallFixture.h"
#include "update/QueueRequester.h"
#include "update/UpdateQueue.h"

namespace FerritTest {
namespace {

using namespace FerritCore;
using MarlLogger::json::JSON;

constexpr int kReaders = 8;
constexpr uint64_t kVersions = 50;

class QueueConcurrentReadTest : public InstallFixture {
  protected:
    // Version `v`: two files whose bodies both name the version, of different lengths.
    static PackFiles versionFiles(uint64_t v) {
        const std::string tag = "version-" + std::to_string(v) + ";";
        std::string page, script;
        for (int i = 0; i < 64; ++i) page += tag;
        for (uint64_t i = 0; i < 16 + v; ++i) script += tag;
        return {{"index.html", page}, {"js/app.js", script}};
    }
    // The version whose file `path` has these bytes; 0 when none has.
    static uint64_t versionOf(const std::string& path, const std::string& body) {
        if (body.empty()) return 0;
        const size_t dash = body.find('-');
        const size_t semi = body.find(';');
        if (dash == std::string::npos || semi == std::string::npos || semi < dash) return 0;
        const uint64_t v = std::stoull(body.substr(dash + 1, semi - dash - 1));
        if (v == 0 || v > kVersions) return 0;
        return versionFiles(v).at(path) == body ? v : 0;
    }
};

TEST_F(QueueConcurrentReadTest, EveryReadGivesOneCompleteVersionWhileFiftyArePublished) {
    UpdateRequester::set(std::make_shared<QueueRequester>());
    auto first = record("shop", kPackTypeFerrit, 1, 1, kPriorityAutoInstall);
    put({first});
    for (uint64_t v = 1; v <= kVersions; ++v) serveFull("shop", v, zipOf(versionFiles(v)));
    ASSERT_FALSE(update("shop", kTriggerTimer));

    std::atomic<bool> done{false};
    std::atomic<int> torn{0};
    std::atomic<int> readerMixed{0};
    std::atomic<int> failed{0};
    std::atomic<uint64_t> reads{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < kReaders; ++t) {
        readers.emplace_back([&, t] {
            while (!done.load()) {
                if (t % 2 == 0) {
                    const Answer answer = read("js/app.js");
                    if (answer.error) {
                        ++failed;
                    } else if (versionOf("js/app.js", answer.body) == 0) {
                        ++torn;
                    }
                } else {
                    std::shared_ptr<Reader> reader;
                    Reader::load({"shop", "", ""},
                                 [&](std::shared_ptr<Reader> r, const Error&) { reader = r; });
                    if (!reader) continue;
                    Error pageError, scriptError;
                    const std::string page =
                        reader->read("//shop.test/app/index.html", nullptr, pageError);
                    const std::string script =
                        reader->read("//shop.test/app/js/app.js", nullptr, scriptError);
                    if (pageError || scriptError) {
                        ++failed;
                        continue;
                    }
                    const uint64_t a = versionOf("index.html", page);
                    const uint64_t b = versionOf("js/app.js", script);
                    if (a == 0 || b == 0) ++torn;
                    if (a != b) ++readerMixed;
                }
                ++reads;
            }
        });
    }

    // The installs: each version is made by its own task and started by the worker, which drives
    // the process's runner to the end of the install (a task started by hand: the readers' holds
    // keep the queue from replacing the pack, which is the point of the holds).
    std::atomic<uint64_t> installed{1};
    {
        TaskRunner worker("installer", TaskRunner::Mode::Worker);
        worker.postTask([&] {
            for (uint64_t v = 2; v <= kVersions; ++v) {
                auto next = find("shop")->clone();
                next->seq = v;
                next->baseSeq = v;
                SCache::mutate([&](FConfig& config) { config.put(next); });
                UpdatePackPtr task = UpdatePack::create("shop", JSON(), kTriggerTimer);
                bool ended = false;
                task->addListener([&](const Error&) { ended = true; });
                TaskRunner::post([task] { task->start(); });
                while (!ended) TaskRunner::runDue();
                installed = find("shop")->installedSeq;
            }
        });
        worker.runDueTasks();
    }
    done = true;
    for (std::thread& reader : readers) reader.join();
    EXPECT_EQ(installed.load(), kVersions);
    EXPECT_EQ(torn.load(), 0);
    EXPECT_EQ(readerMixed.load(), 0);
    EXPECT_EQ(failed.load(), 0);
    EXPECT_GT(reads.load(), 0u);
}

}  // namespace
}  // namespace FerritTest
