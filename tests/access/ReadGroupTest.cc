#include <gtest/gtest.h>

#include "access/ReadGroup.h"
#include "access/Resource.h"
#include "base/Errors.h"
#include "tests/access/AccessFixture.h"

namespace FerritTest {

namespace Errors = FerritCore::Errors;
namespace {

// A part whose read outcome the test decides; asynchronous completions are held until released.
class ScriptedPart : public ResourcePart {
  public:
    ScriptedPart(std::shared_ptr<RequestContext> context, std::string content, ReadStatus status,
                 int* reads)
        : ResourcePart(std::move(context), "//h/p", "S:p"),
          content_(std::move(content)),
          status_(status),
          reads_(reads) {}

    uint64_t size() const override { return content_.size(); }
    ReadStatus read() override {
        ++*reads_;
        if (status_ == ReadStatus::Failed) error = Error(Errors::kFileRead, "scripted failure");
        return status_;
    }
    void readAsync(std::function<void(std::shared_ptr<ResourcePart>)> callback) override {
        pending_ = std::move(callback);
    }
    void appendTo(std::string& out, unsigned& crc) override {
        crc = static_cast<unsigned>(content_.size());
        out.append(content_);
    }
    // Finishes a held asynchronous read, with or without an error.
    void finish(Error e = Error()) {
        error = std::move(e);
        auto callback = std::move(pending_);
        if (callback) callback(shared_from_this());
    }

  private:
    std::string content_;
    ReadStatus status_;
    int* reads_;
    std::function<void(std::shared_ptr<ResourcePart>)> pending_;
};

class ReadGroupTest : public AccessFixture {
  protected:
    std::shared_ptr<ScriptedPart> part(std::string content, ReadStatus status) {
        return std::make_shared<ScriptedPart>(context_, std::move(content), status, &reads_);
    }
    const ResourceRequest request_{"https://h/x", HeaderMap{}};  // read by the context
    std::shared_ptr<RequestContext> context_ =
        std::make_shared<RequestContext>(request_, kTriggerVisit);
    int reads_ = 0;
};

TEST_F(ReadGroupTest, AllDoneDeliversInOrderOnce) {
    auto group = std::make_shared<ReadGroup>(
        std::vector<std::shared_ptr<ResourcePart>>{part("a", ReadStatus::Done),
                                                   part("bc", ReadStatus::Done)},
        context_);
    int calls = 0;
    std::string got;
    group->run([&](const std::string& data, const Error& e) {
        ++calls;
        got = data;
        EXPECT_FALSE(e);
    });
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(got, "abc");
    EXPECT_EQ(group->type, "sync");
    EXPECT_EQ(group->localCount.load(), 2);
    EXPECT_EQ(group->remaining.load(), -1);
    EXPECT_EQ(group->crcs, (std::vector<unsigned>{1, 2}));
}

TEST_F(ReadGroupTest, FirstPartFailureStopsLaterReads) {
    auto first = part("a", ReadStatus::Failed);
    auto second = part("b", ReadStatus::Done);
    auto group = std::make_shared<ReadGroup>(
        std::vector<std::shared_ptr<ResourcePart>>{first, second}, context_);
    int calls = 0;
    Error got;
    group->run([&](const std::string& data, const Error& e) {
        ++calls;
        got = e;
        EXPECT_TRUE(data.empty());
    });
    EXPECT_EQ(reads_, 1);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(got.code(), Errors::kFileRead);
    EXPECT_EQ(group->remaining.load(), -1);
}

TEST_F(ReadGroupTest, LateFinishAfterFailureDoesNothing) {
    auto slow = part("a", ReadStatus::NeedFetch);
    auto failing = part("b", ReadStatus::Failed);
    auto group = std::make_shared<ReadGroup>(
        std::vector<std::shared_ptr<ResourcePart>>{slow, failing}, context_);
    int calls = 0;
    group->run([&](const std::string&, const Error& e) {
        ++calls;
        EXPECT_EQ(e.code(), Errors::kFileRead);
    });
    EXPECT_EQ(calls, 1);
    slow->finish();
    slow->finish(Error(1, "late"));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(group->remaining.load(), -1);
}

TEST_F(ReadGroupTest, WhenTheFirstPartOfAGroupFailsLaterPartsAreNotReadAndALateFinishDoesNothing) {
    auto group = std::make_shared<ReadGroup>(
        std::vector<std::shared_ptr<ResourcePart>>{part("a", ReadStatus::Failed),
                                                   part("b", ReadStatus::Done)},
        context_);
    int calls = 0;
    Error got;
    group->run([&](const std::string& data, const Error& e) {
        ++calls;
        got = e;
        EXPECT_TRUE(data.empty());
    });
    EXPECT_EQ(reads_, 1);  // "b" was never read
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(got.code(), Errors::kFileRead);
    EXPECT_EQ(group->remaining.load(), -1);

    // A part that went to the network before the failure and finishes after it, with or without
    // an error, changes nothing; the part after the failure is not read.
    reads_ = 0;
    auto slow = part("s", ReadStatus::NeedFetch);
    auto next = part("n", ReadStatus::Done);
    auto second = std::make_shared<ReadGroup>(
        std::vector<std::shared_ptr<ResourcePart>>{slow, part("f", ReadStatus::Failed), next},
        context_);
    calls = 0;
    second->run([&](const std::string&, const Error& e) {
        ++calls;
        got = e;
    });
    EXPECT_EQ(reads_, 2);
    EXPECT_EQ(calls, 1);
    slow->finish();
    slow->finish(Error(1, "late"));
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(got.code(), Errors::kFileRead);
    EXPECT_EQ(second->remaining.load(), -1);
}

TEST_F(ReadGroupTest, AsynchronousPartsCompleteTheGroup) {
    auto local = part("a", ReadStatus::Done);
    auto remote = part("b", ReadStatus::NeedAggregate);
    auto onDemand = part("c", ReadStatus::NeedAsync);
    auto group = std::make_shared<ReadGroup>(
        std::vector<std::shared_ptr<ResourcePart>>{local, remote, onDemand}, context_);
    int calls = 0;
    std::string got;
    group->run([&](const std::string& data, const Error&) {
        ++calls;
        got = data;
    });
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(group->type, "async");
    EXPECT_EQ(group->localCount.load(), 2);
    EXPECT_EQ(group->remoteCount.load(), 1);
    onDemand->finish();
    EXPECT_EQ(calls, 0);
    remote->finish();
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(got, "abc");
}

TEST_F(ReadGroupTest, ResourceReadStopsAtFirstFailingPart) {
    auto resource = std::make_shared<Resource>(context_, "", false);
    resource->addPart(part("a", ReadStatus::Done), kMatchNone);
    resource->addPart(part("b", ReadStatus::Failed), kMatchNone);
    resource->addPart(part("c", ReadStatus::Done), kMatchNone);
    EXPECT_EQ(resource->read(), "");
    EXPECT_EQ(resource->error.code(), Errors::kFileRead);
    EXPECT_EQ(reads_, 2);
    EXPECT_EQ(logs_->last("read").errorCode, std::to_string(Errors::kFileRead));
}

TEST_F(ReadGroupTest, ResourceReadOfSeveralPartsConcatenates) {
    auto resource = std::make_shared<Resource>(context_, "", false);
    resource->addPart(part("a", ReadStatus::Done), kMatchNone);
    resource->addPart(part("bc", ReadStatus::Done), kMatchNone);
    EXPECT_EQ(resource->read(), "abc");
    auto entry = logs_->last("read");
    EXPECT_EQ(entry.field("size").int32Value(), 3);
    EXPECT_EQ(entry.field("crc").size(), 2u);
}

TEST_F(ReadGroupTest, NeedAsyncIsAFailureOnTheSyncPath) {
    auto resource = std::make_shared<Resource>(context_, "", false);
    auto p = part("a", ReadStatus::NeedAsync);
    p->error = Error(Errors::kReadAsyncOnly, "async only");
    resource->addPart(p, kMatchNone);
    resource->error.clear();
    EXPECT_EQ(resource->read(), "");
    EXPECT_EQ(resource->error.code(), Errors::kReadAsyncOnly);
}

TEST_F(ReadGroupTest, ResourceReadAsyncThroughGroupLogsCounts) {
    auto resource = std::make_shared<Resource>(context_, "", false);
    resource->addPart(part("a", ReadStatus::Done), kMatchNone);
    resource->addPart(part("b", ReadStatus::Done), kMatchNone);
    resource->makeGroup();
    std::string got;
    resource->readAsync([&](const std::string& data, const Error&) { got = data; });
    EXPECT_EQ(got, "ab");
    auto entry = logs_->last("read");
    EXPECT_EQ(entry.field("localCount").int32Value(), 2);
    EXPECT_EQ(entry.field("remoteCount").int32Value(), 0);
}

TEST_F(ReadGroupTest, ResourceWithErrorReadsNothing) {
    auto resource = std::make_shared<Resource>(context_, "", false);
    resource->addPart(part("a", ReadStatus::Done), kMatchNone);
    resource->error = Error(Errors::kNotFerritResource, "x");
    EXPECT_EQ(resource->read(), "");
    Error got;
    resource->readAsync([&](const std::string&, const Error& e) { got = e; });
    EXPECT_EQ(got.code(), Errors::kNotFerritResource);
    EXPECT_EQ(reads_, 0);
}

}  // namespace
}  // namespace FerritTest
