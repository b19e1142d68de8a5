// The C interface under real threads: a host that sends the library's requests on a pool of its
// own and answers them there after the request's callback returned, a close on one thread while
// a callback runs on another, late answers from the host's threads, readers of the C table on many
// threads while an update installs a new version, and open and close on different threads.
//
// The callbacks run on a thread of their own (the test asks it to run what is due); the library's
// worker is driven by the test's thread under the test's clock. Every wait is bounded and fails
// the test when it runs out; nothing sleeps.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "base/Environment.h"
#include "embed/EmbedLog.h"
#include "embed/EmbedProxy.h"
#include "ferritcore/ferritcore.h"
#include "marl/Json.h"
#include "marl/Log.h"
#include "runtime/TaskRunner.h"
#include "tests/embed/CApiHost.h"
#include "tools/common/ToolFiles.h"

namespace FerritTest {
namespace {

using namespace FerritCore;

// The longest any step of a test may take before the test fails; far beyond what a step needs.
constexpr auto kBound = std::chrono::seconds(60);
// The host's threads, and the threads that read through the table.
constexpr size_t kHostThreads = 4;
constexpr size_t kReaders = 6;
// What the host fails a request with, as its own network would.
constexpr int32_t kHostRefused = 7;
// Closes and opens of a host that comes and goes.
constexpr int kReopenTurns = 8;
// The log entry whose delivery holds the callback thread.
constexpr const char* kHoldingEntry = "holdTheCallbackThread";

// Version `v` of the site: both files name the version throughout, at lengths that differ by
// version, so that bytes of two versions never make a file of either.
std::map<std::string, std::string> siteVersion(int v) {
    const std::string tag = "version-" + std::to_string(v) + ";";
    std::string page = "<!doctype html>", script;
    for (int i = 0; i < 40 * v; ++i) page += tag;
    for (int i = 0; i < 300 + v; ++i) script += tag;
    return {{"index.html", page}, {"js/app.js", script}};
}

// Waits, without sleeping, until `done` holds; false when the bound ran out first.
template <typename Done>
bool spinUntil(Done done) {
    const auto deadline = std::chrono::steady_clock::now() + kBound;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::yield();
    }
    return true;
}

template <typename T>
bool ready(std::future<T>& future) {
    return future.wait_for(kBound) == std::future_status::ready;
}

// The library's callback thread: runs what is due on the callback runner when asked.
class CallbackThread {
  public:
    CallbackThread() : thread_([this] { loop(); }) {}
    ~CallbackThread() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stop_ = true;
        }
        wake_.notify_all();
        thread_.join();
    }
    // Starts running the due callbacks there; the future gives how many ran.
    std::future<size_t> pumpAsync() {
        std::packaged_task<size_t()> job([] { return EmbedProxy::deliveries().runDueTasks(); });
        std::future<size_t> ran = job.get_future();
        {
            std::lock_guard<std::mutex> lock(mutex_);
            jobs_.push_back(std::move(job));
        }
        wake_.notify_all();
        return ran;
    }
    size_t pump() {
        std::future<size_t> ran = pumpAsync();
        if (!ready(ran)) {
            ADD_FAILURE() << "the callbacks did not return";
            return 0;
        }
        return ran.get();
    }
    std::thread::id id() const { return thread_.get_id(); }

  private:
    void loop() {
        for (;;) {
            std::packaged_task<size_t()> job;
            {
                std::unique_lock<std::mutex> lock(mutex_);
                wake_.wait(lock, [&] { return stop_ || !jobs_.empty(); });
                if (jobs_.empty()) return;
                job = std::move(jobs_.front());
                jobs_.pop_front();
            }
            job();
        }
    }

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::packaged_task<size_t()>> jobs_;
    bool stop_ = false;
    std::thread thread_;
};

// A request as the host copies it inside the callback, to send it later.
struct HeldRequest {
    uint64_t id = 0;
    std::string url;
    std::string tempFile;
};

// The host: its request callback copies the request and returns; the test hands the copies to
// the host's own threads (kHostThreads, in turn) once the callbacks have returned, and those
// answer from the tree the host serves.
class ThreadedHost {
  public:
    ThreadedHost() {
        for (size_t i = 0; i < kHostThreads; ++i)
            threads_.emplace_back([this, i] { answerLoop(i); });
    }
    ~ThreadedHost() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            stop_ = true;
        }
        wake_.notify_all();
        for (std::thread& thread : threads_) thread.join();
    }

    void serve(std::map<std::string, std::string> tree) {
        std::lock_guard<std::mutex> lock(mutex_);
        served_ = std::move(tree);
    }
    void setHandle(ferritcore_handle* handle) { handle_.store(handle); }
    ferritcore_handle* handle() const { return handle_.load(); }

    // Hands the requests the callbacks copied to the host's threads; how many there were.
    size_t send() {
        std::lock_guard<std::mutex> lock(mutex_);
        const size_t count = held_.size();
        for (HeldRequest& request : held_) {
            queues_[next_++ % kHostThreads].push_back(std::move(request));
            ++sending_;
        }
        held_.clear();
        wake_.notify_all();
        return count;
    }
    // The copied requests, kept by the host (not sent).
    std::vector<HeldRequest> takeHeld() {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<HeldRequest> taken;
        taken.swap(held_);
        return taken;
    }
    // Waits until every request sent is answered.
    bool settle() {
        std::unique_lock<std::mutex> lock(mutex_);
        return idle_.wait_for(lock, kBound, [&] { return sending_ == 0; });
    }

    std::set<std::thread::id> answeringThreads() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return answering_;
    }
    std::set<std::thread::id> callbackThreads() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return callbackThreads_;
    }
    std::vector<ferritcore_status> answerStatuses() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return statuses_;
    }
    std::vector<std::string> updatedPacks() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return updatedPacks_;
    }
    std::vector<std::string> logs() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return logs_;
    }
    bool logged(const std::string& words) const {
        for (const std::string& line : logs())
            if (line.find(words) != std::string::npos) return true;
        return false;
    }

    // The next delivery of kHoldingEntry stops the callback thread until release().
    void holdNextLog() {
        std::lock_guard<std::mutex> lock(mutex_);
        holding_ = true;
    }
    std::future<void> entered() { return entered_.get_future(); }
    void release() { release_.set_value(); }
    bool heldCallbackReturned() const { return heldReturned_.load(); }

    // `call` runs inside the next request callback, on the callback thread.
    void callInNextRequest(std::function<void()> call) {
        std::lock_guard<std::mutex> lock(mutex_);
        inRequest_ = std::move(call);
    }

    static void onRequest(void* userData, const ferritcore_request* request) {
        auto* host = static_cast<ThreadedHost*>(userData);
        std::function<void()> call;
        {
            std::lock_guard<std::mutex> lock(host->mutex_);
            call.swap(host->inRequest_);
        }
        if (call) call();
        std::lock_guard<std::mutex> lock(host->mutex_);
        host->callbackThreads_.insert(std::this_thread::get_id());
        host->held_.push_back(
            {request->id, request->url, request->temp_file_path ? request->temp_file_path : ""});
    }
    static void onPackUpdated(void* userData, const char* name) {
        auto* host = static_cast<ThreadedHost*>(userData);
        std::lock_guard<std::mutex> lock(host->mutex_);
        host->callbackThreads_.insert(std::this_thread::get_id());
        host->updatedPacks_.push_back(name);
    }
    static void onLog(void* userData, ferritcore_log_level, const char* entry) {
        auto* host = static_cast<ThreadedHost*>(userData);
        bool hold = false;
        {
            std::lock_guard<std::mutex> lock(host->mutex_);
            host->callbackThreads_.insert(std::this_thread::get_id());
            host->logs_.push_back(entry);
            hold = host->holding_ && std::string(entry).find(kHoldingEntry) != std::string::npos;
            if (hold) host->holding_ = false;
        }
        if (!hold) return;
        host->entered_.set_value();
        std::future<void> released = host->release_.get_future();
        EXPECT_EQ(released.wait_for(kBound), std::future_status::ready);
        host->heldReturned_.store(true);
    }

  private:
    void answerLoop(size_t index) {
        for (;;) {
            HeldRequest request;
            {
                std::unique_lock<std::mutex> lock(mutex_);
                wake_.wait(lock, [&] { return stop_ || !queues_[index].empty(); });
                if (queues_[index].empty()) return;
                request = std::move(queues_[index].front());
                queues_[index].pop_front();
            }
            const ferritcore_status status = answer(request);
            std::lock_guard<std::mutex> lock(mutex_);
            answering_.insert(std::this_thread::get_id());
            statuses_.push_back(status);
            --sending_;
            idle_.notify_all();
        }
    }
    ferritcore_status answer(const HeldRequest& request) {
        std::string body;
        bool found = false;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            auto it = served_.find(request.url);
            found = it != served_.end();
            if (found) body = it->second;
        }
        ferritcore_error error{};
        if (!found)
            return ferritcore_answer_request(handle(), request.id, 404, nullptr, 0, nullptr, 0,
                                             &error);
        const std::string length = std::to_string(body.size());
        const ferritcore_header headers[] = {{"Content-Length", length.c_str()}};
        if (!request.tempFile.empty()) {
            EXPECT_TRUE(FerritTools::writeFileAtomically(request.tempFile, body));
            return ferritcore_answer_request(handle(), request.id, 200, headers, 1, nullptr, 0,
                                             &error);
        }
        return ferritcore_answer_request(handle(), request.id, 200, headers, 1, body.data(),
                                         body.size(), &error);
    }

    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable idle_;
    std::map<std::string, std::string> served_;
    std::atomic<ferritcore_handle*> handle_{nullptr};
    std::vector<HeldRequest> held_;
    std::deque<HeldRequest> queues_[kHostThreads];
    size_t next_ = 0;
    size_t sending_ = 0;
    bool stop_ = false;
    std::set<std::thread::id> answering_;
    std::set<std::thread::id> callbackThreads_;
    std::vector<ferritcore_status> statuses_;
    std::vector<std::string> updatedPacks_;
    std::vector<std::string> logs_;
    bool holding_ = false;
    std::function<void()> inRequest_;
    std::promise<void> entered_;
    std::promise<void> release_;
    std::atomic<bool> heldReturned_{false};
    std::vector<std::thread> threads_;
};

class CApiThreadTest : public CApiFixture {
  protected:
    void TearDown() override {
        if (host_.handle() != nullptr) ferritcore_close(host_.handle(), nullptr);
        host_.setHandle(nullptr);
        CApiFixture::TearDown();
    }

    // Publishes `site` into the tree (a later call publishes the next version) and has the host
    // serve the tree at the servers' addresses.
    void publish(const std::map<std::string, std::string>& site) {
        std::map<std::string, std::string> served;
        publishSite(site, *publisher_, work_.path(), served);
        host_.serve(std::move(served));
    }

    // Publishes the first version, opens, and lets time pass until it installs.
    void publishOpenAndInstall() {
        publish(siteVersion(1));
        ASSERT_EQ(open(), FERRITCORE_OK) << lastError_;
        driveUntil([&] { return !host_.updatedPacks().empty(); });
    }

    ferritcore_options options() {
        ferritcore_options options = hostOptions(root_, pem_, &host_);
        options.on_request = ThreadedHost::onRequest;
        options.on_pack_updated = ThreadedHost::onPackUpdated;
        options.on_log = ThreadedHost::onLog;
        return options;
    }
    ferritcore_status open() {
        ferritcore_handle* handle = nullptr;
        const ferritcore_status status = openHandle(options(), &handle);
        host_.setHandle(handle);
        return status;
    }

    // Runs the worker, the callbacks and the host's answers until none has anything to do.
    void drive() override {
        for (;;) {
            size_t ran = TaskRunner::runDue() + callbacks_.pump();
            ran += host_.send();
            if (!host_.settle()) {
                ADD_FAILURE() << "the host's threads did not answer";
                return;
            }
            if (ran == 0) return;
        }
    }
    // Runs the worker and the callbacks once; the requests the callbacks copy stay with the host.
    void driveHolding() {
        while (TaskRunner::runDue() + callbacks_.pump() > 0) {
        }
    }

    static std::shared_ptr<EmbedProxy> proxy() {
        return std::dynamic_pointer_cast<EmbedProxy>(Environment::instance().proxy());
    }

    ThreadedHost host_;
    CallbackThread callbacks_;
};

TEST_F(CApiThreadTest, HostAnsweringFromItsOwnThreadsInstallsAPackThatServes) {
    ASSERT_NO_FATAL_FAILURE(publishOpenAndInstall());
    ASSERT_EQ(host_.updatedPacks(), std::vector<std::string>{kPackName});
    expectServes(siteVersion(1));
    // Every answer was taken, from more than one of the host's threads, none of them the thread
    // the callbacks ran on.
    const std::vector<ferritcore_status> statuses = host_.answerStatuses();
    ASSERT_GE(statuses.size(), 2u);
    for (ferritcore_status status : statuses) EXPECT_EQ(status, FERRITCORE_OK);
    const std::set<std::thread::id> answering = host_.answeringThreads();
    EXPECT_GE(answering.size(), 2u);
    EXPECT_EQ(answering.count(callbacks_.id()), 0u);
    EXPECT_EQ(host_.callbackThreads(), std::set<std::thread::id>{callbacks_.id()});
}

TEST_F(CApiThreadTest, CallbackCallsEveryFunctionButOpenAndClose) {
    ASSERT_NO_FATAL_FAILURE(publishOpenAndInstall());
    ASSERT_EQ(host_.updatedPacks().size(), 1u);
    // Inside a callback: the calls that take the library's locks (the triggers take its lifecycle
    // lock, the answers the C interface's own) return, as they could not if a callback ran under
    // one of them; open and close are refused.
    std::map<std::string, ferritcore_status> statuses;
    std::string served;
    host_.callInNextRequest([&] {
        ferritcore_handle* handle = host_.handle();
        const ferritcore_options given = options();
        ferritcore_handle* another = nullptr;
        statuses["open"] = ferritcore_open(&given, &another, nullptr);
        statuses["close"] = ferritcore_close(handle, nullptr);
        statuses["foreground"] = ferritcore_update_foreground(handle, nullptr);
        statuses["background"] = ferritcore_update_background(handle, nullptr);
        statuses["foregroundAgain"] = ferritcore_update_foreground(handle, nullptr);
        statuses["network"] =
            ferritcore_set_network(handle, FERRITCORE_NETWORK_UNRESTRICTED, nullptr);
        statuses["locale"] = ferritcore_set_locale(handle, "en-US", nullptr);
        statuses["level"] = ferritcore_set_log_level(handle, FERRITCORE_LOG_INFO, nullptr);
        const std::string url = std::string(kPrefix) + "index.html";
        const char* urls[] = {url.c_str()};
        statuses["prefetch"] = ferritcore_prefetch(handle, urls, 1, nullptr);
        statuses["update"] = ferritcore_update_pack(handle, kPackName, nullptr, nullptr, nullptr);
        statuses["push"] = ferritcore_push_message(handle, kConfigTopic, "{}", nullptr);
        char* report = ferritcore_status_report(handle, nullptr);
        statuses["report"] = report != nullptr ? FERRITCORE_OK : FERRITCORE_E_CLOSED;
        ferritcore_free_text(report);
        int32_t code = 0;
        served = serve(url, code);
    });
    ASSERT_EQ(ferritcore_push_message(host_.handle(), kConfigTopic, "{}", nullptr), FERRITCORE_OK);
    driveUntil([&] { return !statuses.empty(); });
    ASSERT_FALSE(statuses.empty()) << "no request came";
    EXPECT_EQ(statuses.at("open"), FERRITCORE_E_IN_CALLBACK);
    EXPECT_EQ(statuses.at("close"), FERRITCORE_E_IN_CALLBACK);
    for (const auto& [call, status] : statuses) {
        if (call == "open" || call == "close") continue;
        EXPECT_EQ(status, FERRITCORE_OK) << call;
    }
    EXPECT_EQ(served, siteVersion(1).at("index.html"));
}

TEST_F(CApiThreadTest, LogEntriesOfEachWriterArriveInTheOrderWritten) {
    ASSERT_EQ(open(), FERRITCORE_OK) << lastError_;
    drive();
    constexpr size_t kWriters = 4;
    constexpr size_t kEntries = 100;
    static_assert(kWriters * kEntries < EmbedLogSink::kBacklogLimit, "none is dropped");
    std::promise<void> go;
    std::shared_future<void> start = go.get_future().share();
    std::vector<std::thread> writers;
    for (size_t w = 0; w < kWriters; ++w) {
        writers.emplace_back([&, w] {
            start.wait();
            for (size_t i = 0; i < kEntries; ++i) {
                MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, "Test")
                    .event("ordered")
                    .append("writer", static_cast<uint64_t>(w))
                    .append("i", static_cast<uint64_t>(i));
            }
        });
    }
    // The callback thread delivers while the writers write.
    std::future<size_t> delivering = callbacks_.pumpAsync();
    go.set_value();
    for (std::thread& writer : writers) writer.join();
    ASSERT_TRUE(ready(delivering));
    callbacks_.pump();

    std::vector<int64_t> last(kWriters, -1);
    size_t seen = 0;
    for (const std::string& line : host_.logs()) {
        const MarlLogger::json::JSON entry = MarlLogger::json::JSON::parse(line);
        if (entry["event"].stringValue() != "ordered") continue;
        const auto w = static_cast<size_t>(entry["writer"].uint64Value());
        const auto i = static_cast<int64_t>(entry["i"].uint64Value());
        ASSERT_LT(w, kWriters) << line;
        EXPECT_EQ(i, last[w] + 1) << line;
        last[w] = i;
        ++seen;
    }
    EXPECT_EQ(seen, kWriters * kEntries);
}

TEST_F(CApiThreadTest, RacingAnswersToOneRequestTakeExactlyOne) {
    publish(siteVersion(1));
    ASSERT_EQ(open(), FERRITCORE_OK) << lastError_;
    driveHolding();
    const std::vector<HeldRequest> held = host_.takeHeld();
    ASSERT_EQ(held.size(), 1u) << "the first configuration is asked for";
    std::promise<void> go;
    std::shared_future<void> start = go.get_future().share();
    std::vector<std::future<ferritcore_status>> answers;
    for (size_t i = 0; i < kHostThreads; ++i) {
        answers.push_back(std::async(std::launch::async, [&, i] {
            start.wait();
            ferritcore_error error{};
            if (i % 2 == 0)
                return ferritcore_answer_request(host_.handle(), held[0].id, 404, nullptr, 0,
                                                 nullptr, 0, &error);
            return ferritcore_fail_request(host_.handle(), held[0].id, kHostRefused, "refused",
                                           &error);
        }));
    }
    go.set_value();
    size_t taken = 0, unknown = 0;
    for (auto& answer : answers) {
        ASSERT_TRUE(ready(answer));
        const ferritcore_status status = answer.get();
        if (status == FERRITCORE_OK) ++taken;
        if (status == FERRITCORE_E_UNKNOWN_REQUEST) ++unknown;
    }
    EXPECT_EQ(taken, 1u);
    EXPECT_EQ(unknown, kHostThreads - 1);
    EXPECT_EQ(proxy()->pendingCount(), 0u);
}

TEST_F(CApiThreadTest, CloseOnAnotherThreadWaitsForTheRunningCallback) {
    publish(siteVersion(1));
    ASSERT_EQ(open(), FERRITCORE_OK) << lastError_;
    driveHolding();
    const std::vector<HeldRequest> held = host_.takeHeld();
    ASSERT_EQ(held.size(), 1u) << "the first configuration waits for the host";
    std::shared_ptr<EmbedProxy> embed = proxy();
    ASSERT_NE(embed, nullptr);
    ASSERT_EQ(embed->pendingCount(), 1u);

    // The callback thread is held inside a log callback; an entry queued behind it waits.
    host_.holdNextLog();
    std::future<void> entered = host_.entered();
    MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, "Test").event(kHoldingEntry);
    MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, "Test").event("queuedBeforeClose");
    std::future<size_t> pumping = callbacks_.pumpAsync();
    ASSERT_TRUE(ready(entered));

    ferritcore_handle* handle = host_.handle();
    std::atomic<bool> callbackHadReturned{false};
    std::future<ferritcore_status> closing = std::async(std::launch::async, [&] {
        ferritcore_error error{};
        const ferritcore_status status = ferritcore_close(handle, &error);
        callbackHadReturned = host_.heldCallbackReturned();
        return status;
    });
    // close() has stopped new callbacks and waits for the one running.
    ASSERT_TRUE(spinUntil([&] { return embed->detachesWaiting() == 1; }));
    EXPECT_EQ(closing.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
    EXPECT_EQ(ferritcore_status_report(handle, nullptr), nullptr) << "closed for every caller";
    host_.release();
    ASSERT_TRUE(ready(closing));
    EXPECT_EQ(closing.get(), FERRITCORE_OK);
    EXPECT_TRUE(callbackHadReturned) << "close() returned while a callback ran";
    host_.setHandle(nullptr);
    ASSERT_TRUE(ready(pumping));
    pumping.get();

    // Nothing queued before the close reached the host after it; the request that waited for the
    // host failed with the close, and the host's late answer is told the handle is closed.
    callbacks_.pump();
    EXPECT_FALSE(host_.logged("queuedBeforeClose"));
    EXPECT_EQ(embed->pendingCount(), 0u);
    ferritcore_error error{};
    EXPECT_EQ(ferritcore_answer_request(handle, held[0].id, 200, nullptr, 0, nullptr, 0, &error),
              FERRITCORE_E_CLOSED);
    EXPECT_EQ(error.code, FERRITCORE_E_CLOSED);
}

TEST_F(CApiThreadTest, AnswersAfterCloseAreToldTheHandleIsClosedEvenAfterAReopen) {
    publish(siteVersion(1));
    ASSERT_EQ(open(), FERRITCORE_OK) << lastError_;
    driveHolding();
    const std::vector<HeldRequest> held = host_.takeHeld();
    ASSERT_EQ(held.size(), 1u);
    ferritcore_handle* closed = host_.handle();
    ASSERT_EQ(ferritcore_close(closed, nullptr), FERRITCORE_OK);
    host_.setHandle(nullptr);

    // The host's threads answer late, on threads of their own.
    auto lateAnswers = [&](ferritcore_handle* handle) {
        std::future<ferritcore_error> answered = std::async(std::launch::async, [&] {
            ferritcore_error error{};
            ferritcore_answer_request(handle, held[0].id, 200, nullptr, 0, nullptr, 0, &error);
            return error;
        });
        std::future<ferritcore_error> failed = std::async(std::launch::async, [&] {
            ferritcore_error error{};
            ferritcore_fail_request(handle, held[0].id, kHostRefused, "late", &error);
            return error;
        });
        EXPECT_TRUE(ready(answered));
        EXPECT_TRUE(ready(failed));
        return std::make_pair(answered.get(), failed.get());
    };
    auto [answered, failed] = lateAnswers(closed);
    EXPECT_EQ(answered.code, FERRITCORE_E_CLOSED);
    EXPECT_NE(std::string(answered.message).find("closed"), std::string::npos);
    EXPECT_EQ(failed.code, FERRITCORE_E_CLOSED);

    // A later open makes a new handle; the old one stays closed, and the new one does not know the
    // old request.
    ASSERT_EQ(open(), FERRITCORE_OK) << lastError_;
    EXPECT_NE(host_.handle(), closed);
    std::tie(answered, failed) = lateAnswers(closed);
    EXPECT_EQ(answered.code, FERRITCORE_E_CLOSED);
    EXPECT_EQ(failed.code, FERRITCORE_E_CLOSED);
    std::tie(answered, failed) = lateAnswers(host_.handle());
    EXPECT_EQ(answered.code, FERRITCORE_E_UNKNOWN_REQUEST);
    EXPECT_EQ(failed.code, FERRITCORE_E_UNKNOWN_REQUEST);

    // However often the host closes and opens, no handle takes the place of a closed one.
    std::set<ferritcore_handle*> handles{closed, host_.handle()};
    for (int turn = 0; turn < kReopenTurns; ++turn) {
        ASSERT_EQ(ferritcore_close(host_.handle(), nullptr), FERRITCORE_OK);
        host_.setHandle(nullptr);
        ASSERT_EQ(open(), FERRITCORE_OK) << lastError_;
        EXPECT_TRUE(handles.insert(host_.handle()).second) << "turn " << turn;
        EXPECT_EQ(ferritcore_fail_request(closed, held[0].id, kHostRefused, "late", nullptr),
                  FERRITCORE_E_CLOSED);
    }
}

TEST_F(CApiThreadTest, ReadersThroughTheTableSeeOneWholeVersionWhileAnUpdateInstalls) {
    ASSERT_NO_FATAL_FAILURE(publishOpenAndInstall());
    ASSERT_EQ(host_.updatedPacks().size(), 1u);
    const std::map<std::string, std::string> first = siteVersion(1), second = siteVersion(2);

    std::atomic<bool> stop{false};
    std::atomic<size_t> reads{0}, torn{0}, failed{0}, newer{0};
    std::vector<std::thread> readers;
    for (size_t r = 0; r < kReaders; ++r) {
        readers.emplace_back([&, r] {
            const std::string path = r % 2 == 0 ? "index.html" : "js/app.js";
            while (!stop.load()) {
                int32_t code = 0;
                const std::string body = serve(kPrefix + path, code);
                if (code != 0) {
                    ++failed;
                } else if (body == second.at(path)) {
                    ++newer;
                } else if (body != first.at(path)) {
                    ++torn;
                }
                ++reads;
            }
        });
    }
    // The readers are under way before the new version is published and asked for.
    ASSERT_TRUE(spinUntil([&] { return reads.load() >= kReaders; }));
    publish(second);
    ferritcore_error error{};
    ASSERT_EQ(ferritcore_push_message(host_.handle(), kConfigTopic, "{}", &error), FERRITCORE_OK)
        << error.message;
    driveUntil([&] { return host_.updatedPacks().size() == 2; });
    const size_t readsAtInstall = reads.load();
    // Some reads come after the install, and find the new version.
    ASSERT_TRUE(spinUntil([&] { return newer.load() >= kReaders; }));
    stop = true;
    for (std::thread& reader : readers) reader.join();

    ASSERT_EQ(host_.updatedPacks().size(), 2u) << "the new version was installed";
    EXPECT_EQ(torn.load(), 0u);
    EXPECT_EQ(failed.load(), 0u);
    EXPECT_GT(readsAtInstall, kReaders);
    expectServes(second);
}

TEST_F(CApiThreadTest, OpenCloseAndOpenAgainOnDifferentThreads) {
    publish(siteVersion(1));
    auto onThread = [](auto call) {
        auto done = std::async(std::launch::async, call);
        EXPECT_TRUE(ready(done));
        return done.get();
    };
    ASSERT_EQ(onThread([&] { return open(); }), FERRITCORE_OK) << lastError_;
    ferritcore_handle* first = host_.handle();
    driveUntil([&] { return !host_.updatedPacks().empty(); });
    ASSERT_EQ(host_.updatedPacks(), std::vector<std::string>{kPackName});
    ASSERT_EQ(onThread([&] { return ferritcore_close(first, nullptr); }), FERRITCORE_OK);
    host_.setHandle(nullptr);

    ASSERT_EQ(onThread([&] { return open(); }), FERRITCORE_OK) << lastError_;
    ferritcore_handle* second = host_.handle();
    EXPECT_NE(second, first);
    EXPECT_EQ(onThread([&] { return ferritcore_status_report(first, nullptr); }), nullptr);
    char* report = onThread([&] { return ferritcore_status_report(second, nullptr); });
    EXPECT_NE(report, nullptr);
    ferritcore_free_text(report);
    // The library runs on for the second handle: a push is answered through the new callbacks,
    // and the pack installed under the first still serves.
    const size_t logsBefore = host_.logs().size();
    ASSERT_EQ(
        onThread([&] { return ferritcore_push_message(second, kConfigTopic, "{}", nullptr); }),
        FERRITCORE_OK);
    drive();
    EXPECT_GT(host_.logs().size(), logsBefore);
    int32_t code = 0;
    EXPECT_EQ(serve(std::string(kPrefix) + "index.html", code), siteVersion(1).at("index.html"));
    EXPECT_EQ(onThread([&] { return ferritcore_close(second, nullptr); }), FERRITCORE_OK);
    host_.setHandle(nullptr);
}

}  // namespace
}  // namespace FerritTest
