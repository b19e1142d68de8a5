// What a signed configuration document may say about its own keys, freshness and order, as a
// device that fetches it judges it: a successor key is trusted from the document that names it
// (or from an endorsement by a trusted key), a retired key is refused from the document that
// retires it, the host's own key included, and signed lists follow the same keys; a document past
// its expiry, or signed before the one the device has, is ignored and reported while the device
// keeps what it has. Documents without these fields behave exactly as before.
#include <gtest/gtest.h>

#include "base/Digest.h"
#include "base/Errors.h"
#include "model/KeyTrust.h"
#include "storage/ConfigStore.h"
#include "tests/FakeProxy.h"
#include "tests/TestUtil.h"
#include "tests/model/UpdateFixture.h"
#include "tools/common/Ed25519Key.h"
#include "update/UpdateConfig.h"

namespace FerritTest {

namespace Errors = FerritCore::Errors;
namespace {

using FerritTools::Ed25519Key;

constexpr double kDay = 86400000.0;
constexpr double kNow = 1.7e12;
constexpr const char* kUrl = "https://cfg.test/fconfig/key/1.0/0~0/zh_CN~zh_CN";

std::unique_ptr<Ed25519Key> newKey() {
    std::string error;
    auto key = Ed25519Key::generate(error);
    EXPECT_TRUE(key) << error;
    return key;
}

// "<json>||<base64 signature of its MD5 text>", as the publisher signs.
std::string signedBy(const Ed25519Key& key, const std::string& json) {
    std::string signature, error;
    EXPECT_TRUE(key.sign(Digest::md5Hex(json), signature, error)) << error;
    return json + "||" + Digest::base64Encode(signature);
}

std::string rawOf(const Ed25519Key& key) {
    return Digest::base64Encode(key.publicKey()->raw());
}

// An endorsement of `successor` by `by`: the "keys" member's "endorsement".
std::string endorsement(const Ed25519Key& by, const Ed25519Key& successor) {
    const std::string statement = KeyTrust::endorsementStatement(rawOf(successor));
    std::string signature, error;
    EXPECT_TRUE(by.sign(Digest::md5Hex(statement), signature, error)) << error;
    return R"({"key":")" + rawOf(successor) + R"(","signature":")" +
           Digest::base64Encode(signature) + R"("})";
}

class SignedConfigTest : public UpdateFixture {
  protected:
    void SetUp() override {
        UpdateFixture::SetUp();
        clock_->setWall(kNow);
        startProcess();
    }

    // What a process does before its first check: the app, the server, a host that opens with
    // the key it was built with (A unless `host` says).
    void startProcess(const Ed25519Key* host = nullptr) {
        Environment& environment = Environment::instance();
        environment.setApp("key", "1.0");
        environment.setLocaleValue("zh_CN");
        environment.setClientActive(true);
        HostDefaults defaults;
        defaults.configPrefix = "https://cfg.test/";
        Settings::setDefaults(defaults);
        proxy_ = std::make_shared<FakeProxy>();
        proxy_->hostKey = (host != nullptr ? *host : *a_).publicKey();
        environment.setProxy(proxy_);
        if (SCache::current()->version == "0")
            SCache::publish(std::make_shared<FConfig>());  // made with the running locale
    }

    // The next process on the same root.
    void restartProcess(const Ed25519Key* host = nullptr) {
        ProcessState::resetForTesting();
        setRootPath(temp_.root());
        clock_->setWall(kNow);
        startProcess(host);
        UpdateConfig::loadAtStart();
    }

    // Serves `document` at `url` and runs one check; the check's error.
    Error fetch(const std::string& document, const char* url = kUrl) {
        proxy_->serve(url, 200, document);
        Error got(-1, "not called");
        UpdateConfig::instance().start(
            kTriggerDebugTool, "0", [&](const Error& e) { got = e; }, 0);
        TaskRunner::runDue();
        return got;
    }
    static std::string version() { return SCache::current()->version; }
    static std::string id(const Ed25519Key& key) { return key.publicKey()->id(); }
    static bool trusts(const std::string& id) {
        const MarlLogger::json::JSON keys = KeyTrust::instance().describe();
        for (const auto& held : keys["trusted"].arrayValue())
            if (held.stringValue() == id) return true;
        return false;
    }

    std::unique_ptr<Ed25519Key> a_ = newKey();
    std::unique_ptr<Ed25519Key> b_ = newKey();
    std::unique_ptr<Ed25519Key> c_ = newKey();
    std::shared_ptr<FakeProxy> proxy_;
};

// ---- rotation ----

// A names B; B retires A; from then on a document signed by A is refused, although the host
// still opens with A: a retirement outranks the key an app was built with, in this process and
// in the next one.
TEST_F(SignedConfigTest, SuccessorIsAcceptedAndTheRetiredKeyIsRefused) {
    ASSERT_FALSE(fetch(signedBy(*a_, R"({"v":"1","keys":{"next":")" + rawOf(*b_) + R"("}})")));
    EXPECT_EQ(version(), "1");
    EXPECT_TRUE(trusts(id(*b_)));
    EXPECT_EQ(logs_->last("trusted", "Ferrit/Keys").field("key").stringValue(), id(*b_));
    // Both keys sign for now.
    ASSERT_FALSE(fetch(signedBy(*b_, R"({"v":"2"})")));
    ASSERT_FALSE(fetch(signedBy(*a_, R"({"v":"3"})")));
    EXPECT_EQ(version(), "3");

    ASSERT_FALSE(fetch(signedBy(*b_, R"({"v":"4","keys":{"retired":[")" + id(*a_) + R"("]}})")));
    EXPECT_EQ(version(), "4");
    EXPECT_TRUE(KeyTrust::instance().isRetired(id(*a_)));
    const Error refused = fetch(signedBy(*a_, R"({"v":"5","packs":{"evil":{"s":1}}})"));
    EXPECT_EQ(refused.code(), Errors::kRequestVerify) << refused.message();
    EXPECT_EQ(version(), "4");
    EXPECT_EQ(SCache::current()->find("evil"), nullptr);
    EXPECT_EQ(logs_->last("refusedRetired", "Ferrit/Keys").field("key").stringValue(), id(*a_));
    ASSERT_FALSE(fetch(signedBy(*b_, R"({"v":"6"})")));

    // The next process: the host opens with A again, and the root remembers.
    restartProcess();
    EXPECT_EQ(fetch(signedBy(*a_, R"({"v":"7"})")).code(), Errors::kRequestVerify);
    EXPECT_FALSE(fetch(signedBy(*b_, R"({"v":"8"})")));
    EXPECT_EQ(version(), "8");
}

// Signed lists of packs follow the same keys as documents.
TEST_F(SignedConfigTest, SignedListsFollowTheKeysOfDocuments) {
    const std::string list = R"({"res/a.js":{"url":"https://x.test/a.js","v":"1"}})";
    auto listBy = [&](const Ed25519Key& key) {
        std::string signature, error;
        EXPECT_TRUE(key.sign(Digest::md5Hex(list), signature, error));
        return list + "||ed25519|" + Digest::base64Encode(signature);
    };
    const Folder file = Folder::disk("p/1/app-res.hvc");
    MarlLogger::json::JSON table;
    Error error;
    EXPECT_TRUE(ResourceIndex::parseSigned(file, listBy(*a_), table, error));
    EXPECT_FALSE(ResourceIndex::parseSigned(file, listBy(*b_), table, error));
    EXPECT_EQ(error.code(), Errors::kFileVerify);

    ASSERT_FALSE(fetch(signedBy(*a_, R"({"v":"1","keys":{"next":")" + rawOf(*b_) + R"("}})")));
    EXPECT_TRUE(ResourceIndex::parseSigned(file, listBy(*b_), table, error)) << error.message();
    ASSERT_FALSE(fetch(signedBy(*b_, R"({"v":"2","keys":{"retired":[")" + id(*a_) + R"("]}})")));
    EXPECT_FALSE(ResourceIndex::parseSigned(file, listBy(*a_), table, error));
    EXPECT_EQ(error.code(), Errors::kFileVerify);
    EXPECT_TRUE(ResourceIndex::parseSigned(file, listBy(*b_), table, error));
}

// The process that fetches documents learns B; another process on the root, which read the set
// before, still takes B's lists.
TEST_F(SignedConfigTest, KeyThatAnotherProcessLearntVerifiesItsLists) {
    const std::string list = R"({"res/a.js":{"url":"https://x.test/a.js","v":"1"}})";
    std::string signature, error;
    ASSERT_TRUE(b_->sign(Digest::md5Hex(list), signature, error));
    const std::string signedList = list + "||ed25519|" + Digest::base64Encode(signature);
    const Folder file = Folder::disk("p/1/app-res.hvc");
    MarlLogger::json::JSON table;
    Error refused;
    EXPECT_FALSE(ResourceIndex::parseSigned(file, signedList, table, refused));
    // What the other process stored.
    ASSERT_FALSE(ConfigStore::instance().put(
        KeyTrust::kStoreKey,
        MarlLogger::json::JSON::parse(R"({"trusted":[")" + rawOf(*b_) + R"("],"retired":[]})")));
    Error taken;
    EXPECT_TRUE(ResourceIndex::parseSigned(file, signedList, table, taken)) << taken.message();
}

// A device that was away while documents named B still follows: the first document it sees is
// signed by B and carries A's endorsement of B, and that same document may retire A.
TEST_F(SignedConfigTest, EndorsedSuccessorVerifiesOnADeviceThatMissedTheChange) {
    const std::string keys = R"("keys":{"endorsement":)" + endorsement(*a_, *b_) +
                             R"(,"retired":[")" + id(*a_) + R"("]})";
    ASSERT_FALSE(fetch(signedBy(*b_, R"({"v":"5",)" + keys + "}")));
    EXPECT_EQ(version(), "5");
    EXPECT_TRUE(trusts(id(*b_)));
    EXPECT_TRUE(KeyTrust::instance().isRetired(id(*a_)));
    EXPECT_EQ(fetch(signedBy(*a_, R"({"v":"6"})")).code(), Errors::kRequestVerify);
    // The endorsement by A, now retired, vouches for nothing new; B is trusted on its own.
    ASSERT_FALSE(fetch(signedBy(*b_, R"({"v":"7",)" + keys + "}")));
    EXPECT_EQ(version(), "7");
}

// An endorsement counts only from a trusted key, and only for the key that signed.
TEST_F(SignedConfigTest, EndorsementByAKeyThatIsNotTrustedIsRefused) {
    const std::string byC = R"("keys":{"endorsement":)" + endorsement(*c_, *b_) + "}";
    EXPECT_EQ(fetch(signedBy(*b_, R"({"v":"5",)" + byC + "}")).code(), Errors::kRequestVerify);
    const std::string ofB = R"("keys":{"endorsement":)" + endorsement(*a_, *b_) + "}";
    EXPECT_EQ(fetch(signedBy(*c_, R"({"v":"5",)" + ofB + "}")).code(), Errors::kRequestVerify);
    EXPECT_EQ(version(), "0");
    EXPECT_FALSE(trusts(id(*b_)));
    EXPECT_FALSE(trusts(id(*c_)));
}

TEST_F(SignedConfigTest, DocumentNeverRetiresTheKeyThatSignedIt) {
    ASSERT_FALSE(fetch(signedBy(*a_, R"({"v":"1","keys":{"retired":[")" + id(*a_) + R"("]}})")));
    EXPECT_FALSE(KeyTrust::instance().isRetired(id(*a_)));
    EXPECT_EQ(logs_->count("retireSigner", "Ferrit/Keys"), 1u);
    EXPECT_FALSE(fetch(signedBy(*a_, R"({"v":"2"})")));
}

// A host whose check is its own cannot say whether its key is the one retired: from the first
// retirement on, only the keys the device learnt sign.
TEST_F(SignedConfigTest, HostThatDoesNotNameItsKeyIsNotAskedOnceAKeyIsRetired) {
    proxy_->hostKey = nullptr;  // the test key's scheme, which names no key
    ASSERT_FALSE(fetch(FakeProxy::sign(R"({"v":"1","keys":{"next":")" + rawOf(*b_) + R"("}})")));
    ASSERT_FALSE(fetch(FakeProxy::sign(R"({"v":"2"})")));
    ASSERT_FALSE(fetch(signedBy(*b_, R"({"v":"3","keys":{"retired":[")" + id(*c_) + R"("]}})")));
    EXPECT_EQ(fetch(FakeProxy::sign(R"({"v":"4"})")).code(), Errors::kRequestVerify);
    EXPECT_FALSE(fetch(signedBy(*b_, R"({"v":"5"})")));
    EXPECT_EQ(version(), "5");
}

// A host that checks nothing (opened without a key) takes every document, whoever signed it,
// whatever it retires: it has no key to outrank.
TEST_F(SignedConfigTest, HostThatChecksNothingTakesEveryDocument) {
    proxy_->hostKey = nullptr;
    proxy_->checksNothing = true;
    ASSERT_FALSE(fetch(signedBy(*a_, R"({"v":"1","keys":{"next":")" + rawOf(*b_) + R"("}})")));
    ASSERT_FALSE(fetch(signedBy(*b_, R"({"v":"2","keys":{"retired":[")" + id(*a_) + R"("]}})")));
    EXPECT_FALSE(fetch(signedBy(*c_, R"({"v":"3"})")));
    EXPECT_FALSE(fetch(signedBy(*a_, R"({"v":"4"})")));
    EXPECT_EQ(version(), "4");
}

// What a host that checks nothing took says nothing about keys: anyone could have signed it. The
// same root opened later by a host that checks trusts no key those documents named and still
// takes its own key, which they retired.
TEST_F(SignedConfigTest, HostThatChecksNothingStoresNoKeyStatements) {
    proxy_->hostKey = nullptr;
    proxy_->checksNothing = true;
    ASSERT_FALSE(
        fetch(signedBy(*c_, R"({"v":"1","keys":{"next":")" + rawOf(*b_) + R"(","endorsement":)" +
                                endorsement(*c_, *c_) + R"(,"retired":[")" + id(*a_) + R"("]}})")));
    EXPECT_EQ(version(), "1");
    EXPECT_EQ(KeyTrust::instance().describe().toString(), R"({"trusted":[],"retired":[]})");
    EXPECT_TRUE(ConfigStore::instance()
                    .get(KeyTrust::kStoreKey)
                    .valueOr(MarlLogger::json::JSON())
                    .isNull());

    restartProcess();
    EXPECT_EQ(fetch(signedBy(*b_, R"({"v":"2"})")).code(), Errors::kRequestVerify);
    EXPECT_EQ(fetch(signedBy(*c_, R"({"v":"3"})")).code(), Errors::kRequestVerify);
    EXPECT_FALSE(fetch(signedBy(*a_, R"({"v":"4"})")));
    EXPECT_EQ(version(), "4");
}

// A key that leaked (A, the key the app was built with) cannot retire its successor B: not on a
// device that has not heard of B yet, not on one that has, not through a key it planted. B then
// retires A, and an app built with B opens on the same root.
TEST_F(SignedConfigTest, LeakedKeyCannotRetireItsSuccessor) {
    const std::string retireB = R"("keys":{"retired":[")" + id(*b_) + R"("]})";
    ASSERT_FALSE(fetch(signedBy(*a_, R"({"v":"1",)" + retireB + "}")));
    EXPECT_FALSE(KeyTrust::instance().isRetired(id(*b_)));
    EXPECT_EQ(logs_->last("retireRefused", "Ferrit/Keys").field("key").stringValue(), id(*b_));
    const std::string endorsed = R"("keys":{"endorsement":)" + endorsement(*a_, *b_) + "}";
    ASSERT_FALSE(fetch(signedBy(*b_, R"({"v":"2",)" + endorsed + "}")));
    EXPECT_TRUE(trusts(id(*b_)));

    ASSERT_FALSE(fetch(signedBy(*a_, R"({"v":"3",)" + retireB + "}")));
    ASSERT_FALSE(fetch(signedBy(*a_, R"({"v":"4","keys":{"next":")" + rawOf(*c_) + R"("}})")));
    ASSERT_FALSE(fetch(signedBy(*c_, R"({"v":"5",)" + retireB + "}")));
    EXPECT_FALSE(KeyTrust::instance().isRetired(id(*b_)));
    EXPECT_TRUE(trusts(id(*b_)));
    ASSERT_FALSE(fetch(signedBy(*b_, R"({"v":"6","keys":{"retired":[")" + id(*a_) + R"("]}})")));
    EXPECT_TRUE(KeyTrust::instance().isRetired(id(*a_)));

    restartProcess(b_.get());
    EXPECT_FALSE(fetch(signedBy(*b_, R"({"v":"7"})")));
    EXPECT_EQ(version(), "7");
    EXPECT_EQ(fetch(signedBy(*a_, R"({"v":"8"})")).code(), Errors::kRequestVerify);
}

// While A leaked, its holder planted C (named "next"), D (endorsed) and, through C, E. When B
// retires A they go with it, in this process and the next; a key the retiring document names
// itself (F, which A endorsed) stays.
TEST_F(SignedConfigTest, KeysALeakedKeyIntroducedGoWhenItIsRetired) {
    const auto d = newKey();
    const auto e = newKey();
    const auto f = newKey();
    ASSERT_FALSE(fetch(signedBy(*a_, R"({"v":"1","keys":{"next":")" + rawOf(*b_) + R"("}})")));
    ASSERT_FALSE(fetch(signedBy(*a_, R"({"v":"2","keys":{"next":")" + rawOf(*c_) + R"("}})")));
    ASSERT_FALSE(
        fetch(signedBy(*a_, R"({"v":"3","keys":{"endorsement":)" + endorsement(*a_, *d) + "}}")));
    ASSERT_FALSE(fetch(signedBy(*c_, R"({"v":"4","keys":{"next":")" + rawOf(*e) + R"("}})")));
    ASSERT_FALSE(
        fetch(signedBy(*a_, R"({"v":"5","keys":{"endorsement":)" + endorsement(*a_, *f) + "}}")));
    for (const auto* key : {c_.get(), d.get(), e.get(), f.get()}) EXPECT_TRUE(trusts(id(*key)));

    ASSERT_FALSE(fetch(signedBy(*b_, R"({"v":"6","keys":{"endorsement":)" + endorsement(*a_, *f) +
                                         R"(,"retired":[")" + id(*a_) + R"("]}})")));
    EXPECT_TRUE(KeyTrust::instance().isRetired(id(*a_)));
    EXPECT_TRUE(trusts(id(*b_)));
    EXPECT_TRUE(trusts(id(*f)));
    for (const auto* key : {c_.get(), d.get(), e.get()}) {
        EXPECT_FALSE(trusts(id(*key)));
        EXPECT_EQ(fetch(signedBy(*key, R"({"v":"7"})")).code(), Errors::kRequestVerify);
    }
    EXPECT_EQ(logs_->count("dropped", "Ferrit/Keys"), 3u);
    EXPECT_FALSE(fetch(signedBy(*f, R"({"v":"8"})")));

    restartProcess();
    for (const auto* key : {a_.get(), c_.get(), d.get(), e.get()})
        EXPECT_EQ(fetch(signedBy(*key, R"({"v":"9"})")).code(), Errors::kRequestVerify);
    EXPECT_FALSE(fetch(signedBy(*b_, R"({"v":"10"})")));
    EXPECT_EQ(version(), "10");
}

// A process learnt a retirement its store does not hold (the write failed, or another process
// wrote what it read before). A badly signed document makes it read the store again: what it
// learnt stands.
TEST_F(SignedConfigTest, RefusedSignatureKeepsRetirementsLearntInMemory) {
    ASSERT_FALSE(fetch(signedBy(*a_, R"({"v":"1","keys":{"next":")" + rawOf(*b_) + R"("}})")));
    ASSERT_FALSE(fetch(signedBy(*b_, R"({"v":"2","keys":{"retired":[")" + id(*a_) + R"("]}})")));
    ASSERT_FALSE(ConfigStore::instance().put(
        KeyTrust::kStoreKey,
        MarlLogger::json::JSON::parse(R"({"trusted":[")" + rawOf(*b_) + R"("],"retired":[]})")));
    EXPECT_EQ(fetch(signedBy(*c_, R"({"v":"3"})")).code(), Errors::kRequestVerify);
    EXPECT_TRUE(KeyTrust::instance().isRetired(id(*a_)));
    EXPECT_EQ(fetch(signedBy(*a_, R"({"v":"4"})")).code(), Errors::kRequestVerify);
    EXPECT_FALSE(fetch(signedBy(*b_, R"({"v":"5"})")));
    EXPECT_EQ(version(), "5");
}

// The member is read from the tokens wherever it stands, nested values whole, and what is not
// in its form is left out.
TEST_F(SignedConfigTest, KeyStatementsAreReadFromTheDocumentText) {
    const std::string next = rawOf(*b_);
    const std::string id = std::string(32, 'a');
    const KeyStatements first = KeyStatements::readDocument(
        R"({"keys":{"next":")" + next + R"(","retired":[")" + id + R"(","short",7]},"v":"1"})");
    EXPECT_EQ(first.next, next);
    EXPECT_EQ(first.retired, std::vector<std::string>{id});
    const KeyStatements last = KeyStatements::readDocument(
        R"({"v":"1","packs":{"keys":{"next":"x"}},"keys":{"endorsement":{"key":")" + next +
        R"(","signature":"c2ln"},"next":"not a key"}})");
    EXPECT_EQ(last.endorsedKey, next);
    EXPECT_EQ(last.endorsement, "c2ln");
    EXPECT_TRUE(last.next.empty());
    EXPECT_TRUE(KeyStatements::readDocument(R"({"v":"1","keys":7})").empty());
    EXPECT_TRUE(KeyStatements::readDocument(R"({"v":"1","keys":{"next":)").empty());
}

// ---- expiry ----

// The same signed document, taken while fresh, is replayed after its expiry: ignored, logged and
// reported; the device keeps what it has. A fresh document is taken again.
TEST_F(SignedConfigTest, ReplayedExpiredDocumentIsIgnored) {
    const std::string fresh =
        signedBy(*a_, R"({"v":"1","issued":)" + std::to_string(static_cast<long long>(kNow)) +
                          R"(,"expires":)" + std::to_string(static_cast<long long>(kNow + kDay)) +
                          R"(,"packs":{"a":{"s":1}}})");
    ASSERT_FALSE(fetch(fresh));
    EXPECT_EQ(SCache::current()->expires, kNow + kDay);
    EXPECT_TRUE(UpdateConfig::instance().lastRefusal().isNull());

    clock_->setWall(kNow + 2 * kDay);
    const Error refused = fetch(fresh);
    EXPECT_EQ(refused.code(), Errors::kRequestVerify);
    EXPECT_NE(refused.message().find("expired at"), std::string::npos) << refused.message();
    EXPECT_EQ(logs_->last("refused", "Ferrit/UpdateConfig").field("reason").stringValue(),
              "expired");
    const auto refusal = UpdateConfig::instance().lastRefusal();
    EXPECT_EQ(refusal["reason"].stringValue(), "expired");
    EXPECT_EQ(refusal["url"].stringValue(), kUrl);
    EXPECT_EQ(refusal["expires"].doubleValue(), kNow + kDay);
    EXPECT_NE(SCache::current()->find("a"), nullptr) << "the device keeps what it has";
    EXPECT_EQ(version(), "1");

    const double later = kNow + 2 * kDay;
    ASSERT_FALSE(fetch(signedBy(
        *a_, R"({"v":"2","issued":)" + std::to_string(static_cast<long long>(later)) +
                 R"(,"expires":)" + std::to_string(static_cast<long long>(later + kDay)) + "}")));
    EXPECT_EQ(version(), "2");
    EXPECT_EQ(SCache::current()->issued, later);
}

// A document signed ahead of the device's clock is taken, so that a device whose clock runs
// behind keeps its updates; its stamp is kept at most a day ahead, so that one a leaked key
// signed far ahead holds later documents back for a day at most.
TEST_F(SignedConfigTest, DocumentSignedAheadOfTheClockIsTakenAndHoldsBackADayAtMost) {
    auto at = [](double ms) { return std::to_string(static_cast<long long>(ms)); };
    ASSERT_FALSE(fetch(signedBy(*a_, R"({"v":"1","issued":)" + at(kNow + 30 * kDay) + "}")));
    EXPECT_EQ(version(), "1");
    EXPECT_EQ(SCache::current()->issued, kNow + kDay);

    ASSERT_FALSE(fetch(signedBy(*a_, R"({"v":"2","issued":9000000000000000})")));
    EXPECT_EQ(SCache::current()->issued, kNow + kDay);
    EXPECT_EQ(fetch(signedBy(*a_, R"({"v":"3","issued":)" + at(kNow + kDay / 2) + "}")).code(),
              Errors::kRequestVerify)
        << "within the day, an earlier signature is older";
    EXPECT_EQ(version(), "2");
    clock_->setWall(kNow + kDay);
    ASSERT_FALSE(fetch(signedBy(*a_, R"({"v":"4","issued":)" + at(kNow + kDay) + "}")));
    EXPECT_EQ(version(), "4");
}

// A stamp a device kept from a document signed far ahead, before such documents were refused,
// holds back no document: the next one signed now is taken and its stamp kept.
TEST_F(SignedConfigTest, StampKeptFromFarAheadHoldsNothingBack) {
    SCache::mutate([](FConfig& config) {
        config.issued = 9e15;
        config.dirty = true;
    });
    ASSERT_FALSE(fetch(signedBy(
        *a_, R"({"v":"1","issued":)" + std::to_string(static_cast<long long>(kNow)) + "}")));
    EXPECT_EQ(version(), "1");
    EXPECT_EQ(SCache::current()->issued, kNow);
}

// ---- channels ----

// A signed document says its channel; a server that serves one channel's documents at another's
// paths moves no device. A document without the member is the default channel's.
TEST_F(SignedConfigTest, DocumentOfAnotherChannelIsRefused) {
    const Error refused = fetch(signedBy(*a_, R"({"v":"1","channel":"beta"})"));
    EXPECT_EQ(refused.code(), Errors::kRequestVerify);
    EXPECT_NE(refused.message().find(
                  R"(refused: published for channel "beta", this host reads the default channel)"),
              std::string::npos)
        << refused.message();
    EXPECT_EQ(UpdateConfig::instance().lastRefusal()["reason"].stringValue(), "channel");
    EXPECT_EQ(version(), "0");
    ASSERT_FALSE(fetch(signedBy(*a_, R"({"v":"2"})")));

    // The same host on channel "beta".
    HostDefaults defaults;
    defaults.configPrefix = "https://cfg.test/";
    defaults.channel = "beta";
    Settings::setDefaults(defaults);
    constexpr const char* kBeta = "https://cfg.test/channels/beta/fconfig/key/1.0/0~0/zh_CN~zh_CN";
    EXPECT_EQ(fetch(signedBy(*a_, R"({"v":"3"})"), kBeta).code(), Errors::kRequestVerify);
    EXPECT_EQ(fetch(signedBy(*a_, R"({"v":"4","channel":"stable"})"), kBeta).code(),
              Errors::kRequestVerify);
    EXPECT_EQ(version(), "2");
    ASSERT_FALSE(fetch(signedBy(*a_, R"({"v":"5","channel":"beta"})"), kBeta));
    EXPECT_EQ(version(), "5");
}

// ---- rollback ----

// A document signed before the one the device has is ignored, even with a higher version and a
// released record that would otherwise roll a gray version back; so is a document that does not
// say when it was signed, once the device has one that does.
TEST_F(SignedConfigTest, OlderDocumentIsIgnored) {
    ASSERT_FALSE(fetch(signedBy(*a_, R"({"v":"10","issued":2000,"packs":{"a":{"s":2,"g":2}}})")));
    EXPECT_EQ(SCache::current()->issued, 2000);
    const Error refused =
        fetch(signedBy(*a_, R"({"v":"11","issued":1000,"packs":{"a":{"s":1,"g":1}}})"));
    EXPECT_EQ(refused.code(), Errors::kRequestVerify);
    EXPECT_NE(refused.message().find("before the configuration this device has"), std::string::npos)
        << refused.message();
    EXPECT_EQ(UpdateConfig::instance().lastRefusal()["reason"].stringValue(), "older");
    EXPECT_EQ(version(), "10");
    EXPECT_EQ(SCache::current()->find("a")->seq, 2u);
    EXPECT_EQ(fetch(signedBy(*a_, R"({"v":"12","packs":{"a":{"s":1,"g":1}}})")).code(),
              Errors::kRequestVerify);
    EXPECT_EQ(SCache::current()->find("a")->seq, 2u);

    // The same signature again is no rollback, and a later one is taken.
    EXPECT_FALSE(fetch(signedBy(*a_, R"({"v":"10","issued":2000,"packs":{"a":{"s":2,"g":2}}})")));
    EXPECT_FALSE(fetch(signedBy(*a_, R"({"v":"13","issued":3000,"packs":{"a":{"s":1,"g":1}}})")));
    EXPECT_EQ(version(), "13");
    ASSERT_NE(SCache::current()->find("a"), nullptr);
    EXPECT_EQ(SCache::current()->find("a")->seq, 1u) << "a gray version taken back";
}

// ---- documents without the fields ----

// Without "issued", "expires" and "keys" nothing changes: a document with a lower version is
// merged as before, nothing is refused, nothing is learnt.
TEST_F(SignedConfigTest, DocumentsWithoutTheFieldsBehaveAsBefore) {
    ASSERT_FALSE(fetch(signedBy(*a_, R"({"v":"10","packs":{"a":{"s":2,"g":2}}})")));
    clock_->setWall(kNow + 400 * kDay);
    ASSERT_FALSE(fetch(signedBy(*a_, R"({"v":"9","packs":{"a":{"s":1,"g":1},"b":{"s":1}}})")));
    EXPECT_EQ(version(), "10");
    EXPECT_EQ(SCache::current()->find("a")->seq, 1u) << "a gray version taken back";
    EXPECT_NE(SCache::current()->find("b"), nullptr);
    EXPECT_EQ(SCache::current()->issued, 0);
    EXPECT_EQ(SCache::current()->expires, 0);
    EXPECT_TRUE(UpdateConfig::instance().lastRefusal().isNull());
    EXPECT_EQ(KeyTrust::instance().describe().toString(), R"({"trusted":[],"retired":[]})");
    EXPECT_EQ(SCache::current()->serialize().find("issued"), std::string::npos);
    EXPECT_TRUE(ConfigStore::instance()
                    .get(KeyTrust::kStoreKey)
                    .valueOr(MarlLogger::json::JSON())
                    .isNull());
}

// The new members are members an older reader passes over: the same document with them reads as
// without them in every one of the record's own fields, so a device that knows nothing of them
// follows it as before.
TEST_F(SignedConfigTest, NewFieldsLeaveEveryOtherFieldAsItWas) {
    const std::string plain = R"({"v":"7","i":4294967295,"delay":5,"packs":{"a":{"s":3,"g":2}}})";
    const std::string extended =
        R"({"v":"7","issued":5,"expires":9,"keys":{"next":")" + rawOf(*b_) +
        R"(","retired":["00112233445566778899aabbccddeeff"]},"i":4294967295,"delay":5,)"
        R"("packs":{"a":{"s":3,"g":2}}})";
    auto withFields = doc(extended);
    auto without = doc(plain);
    ASSERT_TRUE(withFields && without);
    withFields->issued = 0;
    withFields->expires = 0;
    EXPECT_EQ(withFields->serialize(), without->serialize());
}

}  // namespace
}  // namespace FerritTest
