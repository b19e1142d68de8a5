// Aggregate requests: filling a batch, the URL it fetches, and the split of its answer; and the
// read group that hands each part its piece.
#include <gtest/gtest.h>

#include <zlib.h>

#include "access/AggregateRequest.h"
#include "access/ComboRule.h"
#include "access/ReadGroup.h"
#include "base/Errors.h"
#include "tests/access/AccessFixture.h"

namespace FerritTest {

namespace Errors = FerritCore::Errors;
namespace {

using Pieces = std::vector<std::string>;
const std::string kSep(AggregateRequest::kSeparator);

std::string joined(const Pieces& pieces) {
    std::string body;
    for (size_t i = 0; i < pieces.size(); ++i) {
        if (i > 0) body += kSep;
        body += pieces[i];
    }
    return body;
}

class AggregateRequestTest : public AccessFixture {
  protected:
    const ComboRule& rule() {
        const ComboRule* found = comboRuleFor(comboRuleHost() + "/x.js");
        EXPECT_NE(found, nullptr);
        return *found;
    }
    std::string host() const { return comboRuleHost(); }
    std::string origin() const { return "https://" + comboRuleHost(); }

    // Sends `batch` and returns what its callback got.
    struct Answer {
        int calls = 0;
        HeaderMap header;
        Pieces pieces;
        Error error;
    };
    Answer sendAndWait(AggregateRequest& batch) {
        Answer answer;
        batch.send(origin(), [&](HeaderMap header, Pieces pieces, Error error) {
            ++answer.calls;
            answer.header = std::move(header);
            answer.pieces = std::move(pieces);
            answer.error = std::move(error);
        });
        return answer;
    }
    FakeProxy::Answer answerOf(std::string body, HeaderMap header = {}) {
        FakeProxy::Answer answer;
        answer.body = std::move(body);
        answer.header = std::move(header);
        return answer;
    }
};

TEST_F(AggregateRequestTest, The25thUrlFillsTheBatch) {
    AggregateRequest batch(rule(), "trace");
    for (int i = 0; i < 24; ++i)
        EXPECT_FALSE(batch.add(host() + "/m/" + std::to_string(i) + ".js"));
    EXPECT_TRUE(batch.add(host() + "/m/24.js"));
    EXPECT_EQ(batch.size(), 25u);
}

TEST_F(AggregateRequestTest, BatchOfOneHasNoQuestionMarksAndNoGuardFile) {
    AggregateRequest batch(rule(), "trace");
    batch.add(host() + "/lib/one.js");
    EXPECT_EQ(batch.requestUrl(origin()), origin() + "/lib/one.js");
}

TEST_F(AggregateRequestTest, BatchOfSeveralEndsWithTheGuardFileOfItsCrc) {
    AggregateRequest batch(rule(), "trace");
    const std::string a = host() + "/lib/a.js";
    const std::string b = host() + "/lib/b.js";
    batch.add(a);
    batch.add(b);
    const std::string both = a + b;
    const uLong crc =
        ::crc32(0L, reinterpret_cast<const Bytef*>(both.data()), static_cast<uInt>(both.size()));
    EXPECT_EQ(batch.crc(), static_cast<uint32_t>(crc));
    const char letter = static_cast<char>('a' + crc % 23);
    EXPECT_EQ(batch.requestUrl(origin()),
              origin() + "\?\?/lib/a.js,/lib/b.js,/ferrit/s/" + std::string(1, letter) + ".js");
    // Built so, the URL is never split again.
    std::vector<std::string> urls;
    EXPECT_FALSE(splitCombo(batch.requestUrl(origin()), &rule(), urls));
}

TEST_F(AggregateRequestTest, AnswerWithThreePiecesToABatchOfThreeFailsAndFourSucceeds) {
    Pieces pieces;
    Error error = AggregateRequest::splitAnswer(joined({"a", "b", "c"}), 3, pieces);
    EXPECT_EQ(error.code(), Errors::kRequestVerify);
    EXPECT_EQ(error.message(),
              "aggregate verify failed: resource count \"2\" not equal to expected \"3\"");
    EXPECT_TRUE(pieces.empty());
    error = AggregateRequest::splitAnswer(joined({"a", "b", "c", "guard"}), 3, pieces);
    EXPECT_FALSE(error);
    EXPECT_EQ(pieces, (Pieces{"a", "b", "c"}));
}

TEST_F(AggregateRequestTest, AnswerWithMoreOrNoSeparatorsFails) {
    Pieces pieces;
    EXPECT_EQ(AggregateRequest::splitAnswer(joined({"a", "b", "c", "d", "e"}), 3, pieces).message(),
              "aggregate verify failed: resource count \"4\" not equal to expected \"3\"");
    EXPECT_EQ(AggregateRequest::splitAnswer("no separator at all", 3, pieces).message(),
              "aggregate verify failed: resource count \"0\" not equal to expected \"3\"");
    EXPECT_EQ(AggregateRequest::splitAnswer("", 1, pieces).code(), Errors::kRequestVerify);
    // Empty pieces are pieces all the same.
    EXPECT_FALSE(AggregateRequest::splitAnswer(kSep + kSep, 2, pieces));
    EXPECT_EQ(pieces, (Pieces{"", ""}));
}

TEST_F(AggregateRequestTest, SendRequestsTheBatchAndSplitsTheAnswer) {
    AggregateRequest batch(rule(), "FT_Access_parent");
    batch.add(host() + "/a.js");
    batch.add(host() + "/b.js");
    proxy_->serve(batch.requestUrl(origin()), answerOf(joined({"A();", "B();", "/* guard */"}),
                                                       {{"Content-Type", "application/javascript"},
                                                        {"Content-MD5", "of-the-whole"},
                                                        {"ETag", "\"whole\""},
                                                        {"Cache-Control", "max-age=600"}}));
    const Answer answer = sendAndWait(batch);
    EXPECT_EQ(answer.calls, 1);
    ASSERT_FALSE(answer.error) << answer.error.message();
    EXPECT_EQ(answer.pieces, (Pieces{"A();", "B();"}));
    EXPECT_EQ(answer.header.count("Content-MD5"), 0u);
    EXPECT_EQ(answer.header.count("ETag"), 0u);
    EXPECT_EQ(answer.header.at("Content-Type"), "application/javascript");
    ASSERT_EQ(proxy_->requests.size(), 1u);
    EXPECT_EQ(proxy_->requests[0].header.at("f-refer"), "ferrit_resource");
    EXPECT_EQ(proxy_->requests[0].traceId, "FT_Access_parent");
    EXPECT_EQ(batch.url(), batch.requestUrl(origin()));
    EXPECT_EQ(logs_->count("expired"), 0u);
}

TEST_F(AggregateRequestTest, BatchOfOneKeepsItsDigest) {
    AggregateRequest batch(rule(), "trace");
    batch.add(host() + "/one.js");
    proxy_->serve(origin() + "/one.js",
                  answerOf("ONE" + kSep + "not a separator here",
                           {{"Content-MD5", "x"}, {"Cache-Control", "max-age=60"}}));
    const Answer answer = sendAndWait(batch);
    ASSERT_FALSE(answer.error);
    EXPECT_EQ(answer.pieces, (Pieces{"ONE" + kSep + "not a separator here"}));
    EXPECT_EQ(answer.header.at("Content-MD5"), "x");
}

TEST_F(AggregateRequestTest, WrongCountFailsTheWholeBatchWithNoPieces) {
    AggregateRequest batch(rule(), "trace");
    batch.add(host() + "/a.js");
    batch.add(host() + "/b.js");
    proxy_->serve(batch.requestUrl(origin()),
                  answerOf(joined({"A();", "guard"}), {{"Cache-Control", "max-age=60"}}));
    const Answer answer = sendAndWait(batch);
    EXPECT_EQ(answer.error.code(), Errors::kRequestVerify);
    EXPECT_TRUE(answer.pieces.empty());
    EXPECT_TRUE(answer.header.empty());
}

TEST_F(AggregateRequestTest, ExpiredAnswerIsDeliveredAndLogged) {
    AggregateRequest batch(rule(), "trace");
    batch.add(host() + "/a.js");
    batch.add(host() + "/b.js");
    proxy_->serve(batch.requestUrl(origin()),
                  answerOf(joined({"A", "B", "g"}), {{"Cache-Control", "no-cache"}}));
    const Answer answer = sendAndWait(batch);
    ASSERT_FALSE(answer.error);
    EXPECT_EQ(answer.pieces.size(), 2u);
    const auto expired = logs_->last("expired", "Ferrit/AggregateRequest");
    EXPECT_EQ(expired.field("url").stringValue(), batch.url());
    EXPECT_EQ(expired.field("expires").int64Value(), 0);
    EXPECT_EQ(expired.field("header")["Cache-Control"].stringValue(), "no-cache");
}

TEST_F(AggregateRequestTest, FailedRequestGivesItsError) {
    AggregateRequest batch(rule(), "trace");
    batch.add(host() + "/a.js");
    batch.add(host() + "/b.js");
    EXPECT_EQ(sendAndWait(batch).error.code(),
              Errors::kRequestInvalidStatus);  // unknown to the proxy: 404
    FakeProxy::Answer broken;
    broken.transportError = Error(7, "reset");
    proxy_->serve(batch.requestUrl(origin()), broken);
    EXPECT_EQ(sendAndWait(batch).error.code(), Errors::kRequestFailed);
}

TEST_F(AggregateRequestTest, BatchThatNeverAnswersEndsAtItsDeadlineOnce) {
    AggregateRequest batch(rule(), "trace");
    batch.add(host() + "/a.js");
    batch.add(host() + "/b.js");
    FakeProxy::Answer late = answerOf("a" + std::string(AggregateRequest::kSeparator) + "b" +
                                      std::string(AggregateRequest::kSeparator) + "guard");
    late.hold = true;
    proxy_->serve(batch.requestUrl(origin()), late);
    Answer answer;
    batch.send(origin(), [&](HeaderMap, Pieces pieces, Error error) {
        ++answer.calls;
        answer.pieces = std::move(pieces);
        answer.error = std::move(error);
    });
    TaskRunner::runDue();
    EXPECT_EQ(answer.calls, 0);
    clock_->advance(Settings::current()->resourceRequestDeadlineValue());
    TaskRunner::runDue();
    ASSERT_EQ(answer.calls, 1);
    EXPECT_EQ(answer.error.code(), Errors::kRequestFailed);
    EXPECT_NE(answer.error.message().find("no answer within 30 s"), std::string::npos)
        << answer.error.message();
    EXPECT_TRUE(answer.pieces.empty());
    // The answer comes at last: the batch has been told already.
    EXPECT_EQ(proxy_->release(), 1u);
    TaskRunner::runDue();
    EXPECT_EQ(answer.calls, 1);
}

TEST_F(AggregateRequestTest, SendWithoutCallbackRequestsNothing) {
    AggregateRequest batch(rule(), "trace");
    batch.add(host() + "/a.js");
    batch.send(origin(), nullptr);
    EXPECT_TRUE(proxy_->requests.empty());
}

// ---- The read group with aggregate requests -----------------------------------------------------

// A part that needs the network (or not, as the test says) and keeps what it is given.
class NetworkPart : public ResourcePart {
  public:
    NetworkPart(std::shared_ptr<RequestContext> context, std::string url, ReadStatus status,
                std::string local = {})
        : ResourcePart(std::move(context), std::move(url), "N"),
          status_(status),
          content_(std::move(local)) {}

    uint64_t size() const override { return content_.size(); }
    ReadStatus read() override { return status_; }
    void readAsync(std::function<void(std::shared_ptr<ResourcePart>)> callback) override {
        fetchedAlone = true;
        error = Error(Errors::kRequestInvalidStatus, "fetched alone in this test");
        callback(shared_from_this());
    }
    bool accept(const HeaderMap& header, const std::string& content, Error& refusal) override {
        accepted.push_back(content);
        acceptedHeader = header;
        if (refuse) {
            refusal = Error(Errors::kRequestVerify, "refused");
            error = refusal;
            return false;
        }
        error.clear();
        content_ = content;
        return true;
    }
    void appendTo(std::string& out, unsigned& crc) override {
        out += content_;
        crc = static_cast<unsigned>(content_.size());
    }

    bool refuse = false;
    bool fetchedAlone = false;
    Pieces accepted;
    HeaderMap acceptedHeader;

  private:
    ReadStatus status_;
    std::string content_;
};

class AggregateGroupTest : public AggregateRequestTest {
  protected:
    void SetUp() override {
        AggregateRequestTest::SetUp();
        // The context reads the request where it is: the request lives as long as the test.
        request_ = std::make_unique<ResourceRequest>(origin() + "/??" + "x.js", "");
        context_ = std::make_shared<RequestContext>(*request_, kTriggerVisit);
        context_->comboRule = &rule();
    }
    std::shared_ptr<NetworkPart> remote(const std::string& file) {
        auto part =
            std::make_shared<NetworkPart>(context_, host() + "/" + file, ReadStatus::NeedAggregate);
        part->error = Error(Errors::kFileNotExists, "not cached");
        return part;
    }
    std::shared_ptr<NetworkPart> local(const std::string& content) {
        return std::make_shared<NetworkPart>(context_, host() + "/local", ReadStatus::Done,
                                             content);
    }
    // Runs the group and returns what it delivered.
    std::pair<int, std::pair<std::string, Error>> run(
        const std::vector<std::shared_ptr<ResourcePart>>& parts,
        std::shared_ptr<ReadGroup>* keep = nullptr) {
        auto group = std::make_shared<ReadGroup>(parts, context_);
        if (keep != nullptr) *keep = group;
        int calls = 0;
        std::string data;
        Error error;
        group->run([&](const std::string& d, const Error& e) {
            ++calls;
            data = d;
            error = e;
        });
        return {calls, {data, error}};
    }

    std::unique_ptr<ResourceRequest> request_;
    std::shared_ptr<RequestContext> context_;
};

TEST_F(AggregateGroupTest, PartsNeedingTheNetworkShareOneRequestAndDeliverInOrder) {
    auto a = remote("a.js");
    auto b = remote("b.js");
    auto mid = local("[local]");
    AggregateRequest expected(rule(), "t");
    expected.add(a->url);
    expected.add(b->url);
    proxy_->serve(expected.requestUrl(origin()),
                  answerOf(joined({"[a]", "[b]", "guard"}), {{"Cache-Control", "max-age=60"}}));
    std::shared_ptr<ReadGroup> group;
    auto [calls, result] = run({a, mid, b}, &group);
    EXPECT_EQ(calls, 1);
    ASSERT_FALSE(result.second) << result.second.message();
    EXPECT_EQ(result.first, "[a][local][b]");
    ASSERT_EQ(proxy_->requests.size(), 1u);
    EXPECT_EQ(a->accepted, (Pieces{"[a]"}));
    EXPECT_EQ(b->accepted, (Pieces{"[b]"}));
    EXPECT_EQ(group->pendingIndices, (std::vector<int32_t>{0, 2}));
    EXPECT_EQ(group->remoteCount.load(), 2);
    EXPECT_EQ(group->localCount.load(), 1);
    EXPECT_EQ(group->type, "async");
    EXPECT_EQ(group->remaining.load(), -1);
}

TEST_F(AggregateGroupTest, TwentySixPartsMakeABatchOf25AndABatchOfOne) {
    std::vector<std::shared_ptr<ResourcePart>> parts;
    AggregateRequest first(rule(), "t");
    Pieces answer;
    for (int i = 0; i < 26; ++i) {
        auto part = remote("m" + std::to_string(i) + ".js");
        if (i < 25) {
            first.add(part->url);
            answer.push_back("<" + std::to_string(i) + ">");
        }
        parts.push_back(part);
    }
    answer.push_back("guard");
    proxy_->serve(first.requestUrl(origin()), answerOf(joined(answer)));
    proxy_->serve(origin() + "/m25.js", answerOf("<25>"));
    auto [calls, result] = run(parts);
    EXPECT_EQ(calls, 1);
    ASSERT_FALSE(result.second) << result.second.message();
    ASSERT_EQ(proxy_->requests.size(), 2u);
    EXPECT_EQ(proxy_->requests[1].url, origin() + "/m25.js");
    EXPECT_EQ(result.first.substr(0, 6), "<0><1>");
    EXPECT_EQ(result.first.substr(result.first.size() - 8), "<24><25>");
}

// A batch whose request fails before send() returns fails the group at once; the pieces after it
// still form their own batch and go out, so that their answer fills the cache for the next visit.
// The group still answers once, with that first error.
TEST_F(AggregateGroupTest, BatchThatFailsAtOnceStillSendsTheNextBatch) {
    std::vector<std::shared_ptr<ResourcePart>> parts;
    AggregateRequest first(rule(), "t");
    AggregateRequest second(rule(), "t");
    std::vector<std::shared_ptr<NetworkPart>> late;
    for (int i = 0; i < 27; ++i) {
        auto part = remote("m" + std::to_string(i) + ".js");
        if (i < 25) {
            first.add(part->url);
        } else {
            second.add(part->url);
            late.push_back(part);
        }
        parts.push_back(part);
    }
    proxy_->serve(first.requestUrl(origin()), 500, "down");
    proxy_->serve(second.requestUrl(origin()), answerOf(joined({"<25>", "<26>", "guard"})));
    auto [calls, result] = run(parts);
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(result.second) << "the first batch's failure is the group's answer";
    EXPECT_TRUE(result.first.empty());
    ASSERT_EQ(proxy_->requests.size(), 2u) << "the batch after the failed one was not sent";
    EXPECT_EQ(proxy_->requests[1].url, second.requestUrl(origin()));
    EXPECT_EQ(late[0]->accepted, (Pieces{"<25>"}));
    EXPECT_EQ(late[1]->accepted, (Pieces{"<26>"}));
}

TEST_F(AggregateGroupTest, WrongCountFailsTheGroupWith1010) {
    auto a = remote("a.js");
    auto b = remote("b.js");
    AggregateRequest expected(rule(), "t");
    expected.add(a->url);
    expected.add(b->url);
    proxy_->serve(expected.requestUrl(origin()), answerOf(joined({"[a]", "[b]"})));
    auto [calls, result] = run({a, b});
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(result.second.code(), Errors::kRequestVerify);
    EXPECT_TRUE(result.first.empty());
    EXPECT_TRUE(a->accepted.empty());
}

TEST_F(AggregateGroupTest, RefusedPieceFailsNeitherItsNeighboursNorTheAnswer) {
    auto a = remote("a.js");
    auto b = remote("b.js");
    a->refuse = true;
    AggregateRequest expected(rule(), "t");
    expected.add(a->url);
    expected.add(b->url);
    proxy_->serve(expected.requestUrl(origin()), answerOf(joined({"[a]", "[b]", "g"})));
    auto [calls, result] = run({a, b});
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(a->accepted, (Pieces{"[a]"}));
    EXPECT_EQ(b->accepted, (Pieces{"[b]"}));
    EXPECT_FALSE(result.second) << result.second.message();
    EXPECT_EQ(result.first, "[b]") << "the refused piece holds nothing; its neighbour is delivered";
}

TEST_F(AggregateGroupTest, WithoutARuleEachPartFetchesAlone) {
    context_->comboRule = nullptr;
    auto a = remote("a.js");
    auto [calls, result] = run({a});
    EXPECT_TRUE(a->fetchedAlone);
    EXPECT_TRUE(proxy_->requests.empty());
    EXPECT_EQ(result.second.code(), Errors::kRequestInvalidStatus);
}

TEST_F(AggregateGroupTest, FailureBeforeTheBatchIsSentStillSendsItAndChangesNothing) {
    auto a = remote("a.js");
    auto failing = std::make_shared<NetworkPart>(context_, host() + "/f", ReadStatus::Failed);
    failing->error = Error(Errors::kPackFileNotFound, "gone");
    auto after = remote("after.js");
    auto [calls, result] = run({a, failing, after});
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(result.second.code(), Errors::kPackFileNotFound);
    // The part after the failure was never read; the batch of the one before went out.
    ASSERT_EQ(proxy_->requests.size(), 1u);
    EXPECT_EQ(proxy_->requests[0].url, origin() + "/a.js");
    EXPECT_TRUE(after->accepted.empty());
}

}  // namespace
}  // namespace FerritTest
