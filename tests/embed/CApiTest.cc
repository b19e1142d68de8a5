// A native host driving the whole library through ferritcore.h: a site is published into a tree
// signed with the publisher's key, the host's request callback answers from that tree in memory
// (as a static server would), and what the update path installs is served through the C table.
// A tree signed by another key installs nothing. The library's worker and the callback thread are
// both driven by hand.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/Ed25519PublicKey.h"
#include "base/Errors.h"
#include "embed/EmbedLog.h"
#include "embed/EmbedProxy.h"
#include "ferritcore/ferritcore.h"
#include "marl/Json.h"
#include "marl/Log.h"
#include "runtime/TaskRunner.h"
#include "tests/embed/CApiHost.h"
#include "tools/common/ToolFiles.h"
#include "tools/keys/KeyRotation.h"

namespace FerritTest {
namespace {

using namespace FerritCore;

using FerritTools::Ed25519Key;

// What the library allows a configuration and a pack request, as the host reads it.
constexpr int32_t kConfigTimeoutMs = 10000;
constexpr int32_t kPackTimeoutMs = 20000;

const std::map<std::string, std::string> kSite = {
    {"index.html", "<!doctype html><title>from C</title>"},
    {"js/app.js", "console.log('served through the C table');"},
};
// The next version of the site, and the one after it.
const std::map<std::string, std::string> kSecondSite = {
    {"index.html", "<!doctype html><title>second</title>"},
};
const std::map<std::string, std::string> kThirdSite = {
    {"index.html", "<!doctype html><title>third</title>"},
};
// The code of a configuration whose signature no trusted key made.
constexpr int32_t kSignatureRefused = Errors::kRequestVerify;
// The end of an update that never came.
constexpr int32_t kNoEnd = -1;

// A key the caller keeps, as the tool's functions take keys.
std::shared_ptr<const Ed25519Key> borrowed(const Ed25519Key& key) {
    return std::shared_ptr<const Ed25519Key>(&key, [](const Ed25519Key*) {});
}

// The host: answers every request from the tree it serves, at once, inside the callback, and
// keeps what the library told it.
struct FakeHost {
    std::map<std::string, std::string> served;  // URL -> body
    std::vector<std::string> requested;
    std::vector<int32_t> timeouts;  // of each request, in the order of `requested`
    std::vector<std::string> updatedPacks;
    std::vector<std::string> states;
    std::vector<std::string> logs;
    ferritcore_handle* handle = nullptr;
    bool answerRequests = true;
    bool failRequests = false;
    bool closeInCallback = false;
    ferritcore_status closeFromCallback = FERRITCORE_OK;
    std::vector<std::pair<std::string, int32_t>> updates;  // pack, code
    std::vector<uint64_t> unanswered;

    static void onRequest(void* userData, const ferritcore_request* request) {
        auto* host = static_cast<FakeHost*>(userData);
        host->requested.push_back(request->url);
        host->timeouts.push_back(request->timeout_ms);
        if (host->closeInCallback)
            host->closeFromCallback = ferritcore_close(host->handle, nullptr);
        if (host->failRequests) {
            ferritcore_error error{};
            EXPECT_EQ(ferritcore_fail_request(host->handle, request->id, kHostRefused,
                                              "no route to the server", &error),
                      FERRITCORE_OK)
                << error.message;
            return;
        }
        if (!host->answerRequests) {
            host->unanswered.push_back(request->id);
            return;
        }
        auto it = host->served.find(request->url);
        ferritcore_error error{};
        if (it == host->served.end()) {
            EXPECT_EQ(ferritcore_answer_request(host->handle, request->id, 404, nullptr, 0, nullptr,
                                                0, &error),
                      FERRITCORE_OK)
                << error.message;
            return;
        }
        const std::string length = std::to_string(it->second.size());
        const ferritcore_header headers[] = {{"Content-Length", length.c_str()}};
        if (request->temp_file_path != nullptr) {
            std::string failure;
            EXPECT_TRUE(FerritTools::writeFileAtomically(request->temp_file_path, it->second));
            EXPECT_EQ(ferritcore_answer_request(host->handle, request->id, 200, headers, 1, nullptr,
                                                0, &error),
                      FERRITCORE_OK)
                << error.message;
            return;
        }
        EXPECT_EQ(ferritcore_answer_request(host->handle, request->id, 200, headers, 1,
                                            it->second.data(), it->second.size(), &error),
                  FERRITCORE_OK)
            << error.message;
    }
    static void onPackUpdated(void* userData, const char* name) {
        static_cast<FakeHost*>(userData)->updatedPacks.push_back(name);
    }
    static void onStateChanged(void* userData, const char* report) {
        static_cast<FakeHost*>(userData)->states.push_back(report);
    }
    static void onUpdate(void* userData, const char* pack, int32_t code, const char*) {
        static_cast<FakeHost*>(userData)->updates.emplace_back(pack, code);
    }
    // ferritcore_update_now() tells each pack, then the end with no pack name.
    static void onUpdateNow(void* userData, const char* pack, int32_t code, const char*) {
        static_cast<FakeHost*>(userData)->updates.emplace_back(pack != nullptr ? pack : kEnd, code);
    }
    static constexpr const char* kEnd = "(end)";
    static void onLog(void* userData, ferritcore_log_level, const char* entry) {
        static_cast<FakeHost*>(userData)->logs.push_back(entry);
    }
    bool logged(const std::string& words) const {
        for (const std::string& line : logs)
            if (line.find(words) != std::string::npos) return true;
        return false;
    }
};

class CApiTest : public CApiFixture {
  protected:
    void TearDown() override {
        if (host_.handle != nullptr) ferritcore_close(host_.handle, nullptr);
        CApiFixture::TearDown();
    }

    // Publishes the site, signed with `signer`, and serves the tree at the servers' addresses.
    void publish(const FerritTools::Ed25519Key& signer) {
        publishSite(kSite, signer, work_.path(), host_.served);
    }
    // Publishes the site signed by the publisher, opens, and lets time pass until it installs.
    void publishOpenAndInstall() {
        publish(*publisher_);
        ASSERT_EQ(open(publisherOptions()), FERRITCORE_OK) << lastError_;
        driveUntil([&] { return !host_.updatedPacks.empty(); });
    }

    // The options of a host that trusts the publisher.
    ferritcore_options publisherOptions() {
        ferritcore_options options = hostOptions(root_, pem_, &host_);
        options.on_request = FakeHost::onRequest;
        options.on_pack_updated = FakeHost::onPackUpdated;
        options.on_state_changed = FakeHost::onStateChanged;
        options.on_log = FakeHost::onLog;
        return options;
    }
    ferritcore_status open(const ferritcore_options& options) {
        return openHandle(options, &host_.handle);
    }

    // Asks for the newest configuration now and runs what that starts; the code that the end of
    // the update told, kNoEnd when it told none.
    int32_t updateNow() {
        host_.updates.clear();
        ferritcore_error error{};
        EXPECT_EQ(ferritcore_update_now(host_.handle, FakeHost::onUpdateNow, &host_, &error),
                  FERRITCORE_OK)
            << error.message;
        drive();
        for (const auto& [pack, code] : host_.updates)
            if (pack == FakeHost::kEnd) return code;
        return kNoEnd;
    }
    // `ferrit key rotate` on the published tree by `key`: names `next` or retires `retire`; then
    // the host serves the tree as it is now.
    void rotate(const Ed25519Key& key, const Ed25519Key* next, const Ed25519Key* retire) {
        FerritTools::RotateRequest request;
        request.out = treeOf(work_.path()).string();
        request.key = borrowed(key);
        if (next != nullptr) request.next = borrowed(*next);
        if (retire != nullptr) request.retire = borrowed(*retire);
        FerritTools::RotateResult result;
        std::string error;
        ASSERT_TRUE(FerritTools::rotateKeys(request, result, error)) << error;
        serveTree(work_.path(), host_.served);
    }
    // Serves each global document of the tree signed again by `signer`, issued after the tree's
    // own and saying nothing of keys: what the holder of `signer` would sign now.
    void serveDocumentsSignedBy(const Ed25519Key& signer) {
        const std::filesystem::path tree = treeOf(work_.path());
        const std::vector<std::string> documents = FerritTools::globalDocuments(tree.string());
        ASSERT_FALSE(documents.empty());
        for (const std::string& relative : documents) {
            std::string text, signedDocument, error;
            ASSERT_TRUE(FerritTools::readWholeFile((tree / relative).string(), text));
            const std::string json = text.substr(0, text.rfind("||"));
            FerritTools::DocumentStamp stamp;
            stamp.issued = MarlLogger::json::JSON::parse(json)["issued"].uint64Value() + 1;
            ASSERT_TRUE(FerritTools::stampDocument(
                json, stamp, FerritTools::ed25519Signer(borrowed(signer)), signedDocument, error))
                << error;
            host_.served[kConfigServer + relative] = signedDocument;
        }
    }
    // Whether the host's log has an entry of `event` that names `key`.
    bool loggedKey(const std::string& event, const Ed25519Key& key) const {
        for (const std::string& line : host_.logs) {
            if (line.find("\"" + event + "\"") != std::string::npos &&
                line.find(key.publicKey()->id()) != std::string::npos)
                return true;
        }
        return false;
    }

    // Runs the worker and the callbacks until neither has anything due.
    void drive() override {
        for (;;) {
            const size_t ran = TaskRunner::runDue() + EmbedProxy::deliveries().runDueTasks();
            if (ran == 0) return;
        }
    }

    FakeHost host_;
};

TEST_F(CApiTest, PackInstalledThroughTheUpdatePathServesThroughTheTable) {
    ASSERT_NO_FATAL_FAILURE(publishOpenAndInstall());
    ASSERT_EQ(host_.updatedPacks, std::vector<std::string>{kPackName});
    EXPECT_FALSE(host_.requested.empty());
    expectServes(kSite);
    EXPECT_FALSE(host_.states.empty());
    EXPECT_FALSE(host_.logs.empty());
}

TEST_F(CApiTest, RequestsCarryTheirTimeoutInMilliseconds) {
    ASSERT_NO_FATAL_FAILURE(publishOpenAndInstall());
    ASSERT_EQ(host_.requested.size(), host_.timeouts.size());
    bool sawConfig = false, sawPack = false;
    for (size_t i = 0; i < host_.requested.size(); ++i) {
        if (host_.requested[i].starts_with(kConfigServer)) {
            sawConfig = true;
            EXPECT_EQ(host_.timeouts[i], kConfigTimeoutMs) << host_.requested[i];
        } else if (host_.requested[i].starts_with(kPackServer)) {
            sawPack = true;
            EXPECT_EQ(host_.timeouts[i], kPackTimeoutMs) << host_.requested[i];
        }
    }
    EXPECT_TRUE(sawConfig);
    EXPECT_TRUE(sawPack);
}

TEST_F(CApiTest, TreeSignedByAnotherKeyInstallsNothing) {
    std::unique_ptr<FerritTools::Ed25519Key> other = makeKey();
    publish(*other);
    ASSERT_EQ(open(publisherOptions()), FERRITCORE_OK) << lastError_;
    driveUntil([&] { return !host_.updatedPacks.empty(); });
    EXPECT_TRUE(host_.updatedPacks.empty());
    EXPECT_FALSE(host_.requested.empty()) << "the configuration was asked for";
    EXPECT_TRUE(host_.logged("signature does not verify"));
    int32_t code = 0;
    EXPECT_EQ(serve(std::string(kPrefix) + "index.html", code), "");
    EXPECT_NE(code, 0);
}

TEST_F(CApiTest, StatusReportIsJsonTheCallerFrees) {
    ASSERT_EQ(open(publisherOptions()), FERRITCORE_OK) << lastError_;
    ferritcore_error error{};
    char* report = ferritcore_status_report(host_.handle, &error);
    ASSERT_NE(report, nullptr) << error.message;
    const MarlLogger::json::JSON status = MarlLogger::json::JSON::parse(report);
    ferritcore_free_text(report);
    EXPECT_FALSE(status["version"].stringValue().empty());
    // Not updated yet: the first configuration has not come.
    bool waitsForConfig = false;
    for (const auto& code : status["error"].arrayValue())
        waitsForConfig = waitsForConfig || code.stringValue() == "NOT_UPDATE_CONFIG";
    EXPECT_TRUE(waitsForConfig) << status.toString();
}

TEST_F(CApiTest, OpenRefusesWhatItCannotUse) {
    ferritcore_options options = publisherOptions();
    ferritcore_options noKey = options;
    noKey.public_key = nullptr;
    noKey.public_key_size = 0;
    EXPECT_EQ(open(noKey), FERRITCORE_E_PUBLIC_KEY);
    const std::string notAKey = "not a key";
    ferritcore_options badKey = options;
    badKey.public_key = notAKey.data();
    badKey.public_key_size = notAKey.size();
    EXPECT_EQ(open(badKey), FERRITCORE_E_PUBLIC_KEY);
    ferritcore_options small = options;
    small.struct_size = FERRITCORE_OPTIONS_SIZE_V1 - 1;
    EXPECT_EQ(open(small), FERRITCORE_E_OPTIONS_SIZE);
    ferritcore_options noRequest = options;
    noRequest.on_request = nullptr;
    EXPECT_EQ(open(noRequest), FERRITCORE_E_INVALID_ARGUMENT);
    EXPECT_EQ(host_.handle, nullptr);
}

TEST_F(CApiTest, CloseStopsCallbacksAndTheSameRootAttachesAgain) {
    publish(*publisher_);
    const ferritcore_options options = publisherOptions();
    host_.answerRequests = false;
    ASSERT_EQ(open(options), FERRITCORE_OK) << lastError_;
    ferritcore_handle* second = nullptr;
    ferritcore_error error{};
    EXPECT_EQ(ferritcore_open(&options, &second, &error), FERRITCORE_E_ALREADY_OPEN);
    EXPECT_EQ(second, nullptr);
    drive();
    ASSERT_EQ(host_.unanswered.size(), 1u) << "the first configuration is asked for";
    EXPECT_EQ(ferritcore_answer_request(host_.handle, host_.unanswered[0] + 1000, 200, nullptr, 0,
                                        nullptr, 0, &error),
              FERRITCORE_E_UNKNOWN_REQUEST);

    ferritcore_handle* closed = host_.handle;
    ASSERT_EQ(ferritcore_close(closed, &error), FERRITCORE_OK) << error.message;
    host_.handle = nullptr;
    // The request that waited failed with the close; the host's late answer finds nothing.
    EXPECT_EQ(
        ferritcore_answer_request(closed, host_.unanswered[0], 200, nullptr, 0, nullptr, 0, &error),
        FERRITCORE_E_CLOSED);
    const size_t logsAtClose = host_.logs.size();
    const size_t statesAtClose = host_.states.size();
    clock_->advance(kUpdateWaitMs);
    drive();
    EXPECT_EQ(host_.logs.size(), logsAtClose);
    EXPECT_EQ(host_.states.size(), statesAtClose);

    ferritcore_options elsewhere = options;
    const std::string otherRoot = (work_.path() / "other").string();
    elsewhere.root = otherRoot.c_str();
    EXPECT_EQ(open(elsewhere), FERRITCORE_E_OTHER_ROOT);
    host_.answerRequests = true;
    ASSERT_EQ(open(options), FERRITCORE_OK) << lastError_;
    driveUntil([&] { return !host_.updatedPacks.empty(); });
    ASSERT_EQ(host_.updatedPacks, std::vector<std::string>{kPackName});
    int32_t code = 0;
    EXPECT_EQ(serve(std::string(kPrefix) + "index.html", code), kSite.at("index.html"));
}

TEST_F(CApiTest, UpdatePackTellsItsCompletionOnTheCallbackThread) {
    ASSERT_NO_FATAL_FAILURE(publishOpenAndInstall());
    ASSERT_EQ(host_.updatedPacks, std::vector<std::string>{kPackName});
    ferritcore_error error{};
    ASSERT_EQ(ferritcore_update_pack(host_.handle, kPackName, FakeHost::onUpdate, &host_, &error),
              FERRITCORE_OK)
        << error.message;
    ASSERT_EQ(
        ferritcore_update_pack(host_.handle, "nosuchpack", FakeHost::onUpdate, &host_, &error),
        FERRITCORE_OK)
        << error.message;
    EXPECT_TRUE(host_.updates.empty()) << "told on the callback thread, not in the call";
    driveUntil([&] { return host_.updates.size() == 2; });
    ASSERT_EQ(host_.updates.size(), 2u);
    std::map<std::string, int32_t> codes(host_.updates.begin(), host_.updates.end());
    EXPECT_EQ(codes.at(kPackName), 0);
    EXPECT_NE(codes.at("nosuchpack"), 0);
    EXPECT_EQ(ferritcore_update_pack(host_.handle, "", nullptr, nullptr, &error),
              FERRITCORE_E_INVALID_ARGUMENT);
}

TEST_F(CApiTest, UpdateNowFetchesTheConfigurationAndInstallsEachPackBehindWithNoWait) {
    publish(*publisher_);
    ferritcore_options options = publisherOptions();
    options.host_starts_update = 1;
    ASSERT_EQ(open(options), FERRITCORE_OK) << lastError_;
    drive();
    ferritcore_error error{};
    ASSERT_EQ(ferritcore_update_now(host_.handle, FakeHost::onUpdateNow, &host_, &error),
              FERRITCORE_OK)
        << error.message;
    EXPECT_TRUE(host_.updates.empty()) << "told on the callback thread, not in the call";
    drive();  // no time passes: the check and the install do not wait for a schedule
    using Told = std::vector<std::pair<std::string, int32_t>>;
    EXPECT_EQ(host_.updates, (Told{{kPackName, 0}, {FakeHost::kEnd, 0}}));
    expectServes(kSite);
    // Current already: only the end is told.
    host_.updates.clear();
    ASSERT_EQ(ferritcore_update_now(host_.handle, FakeHost::onUpdateNow, &host_, &error),
              FERRITCORE_OK);
    drive();
    EXPECT_EQ(host_.updates, (Told{{FakeHost::kEnd, 0}}));
}

TEST_F(CApiTest, UpdateNowTellsTheEndWithTheConfigurationsFailure) {
    std::unique_ptr<FerritTools::Ed25519Key> other = makeKey();
    publish(*other);
    ferritcore_options options = publisherOptions();
    options.host_starts_update = 1;
    ASSERT_EQ(open(options), FERRITCORE_OK) << lastError_;
    drive();
    ferritcore_error error{};
    ASSERT_EQ(ferritcore_update_now(host_.handle, FakeHost::onUpdateNow, &host_, &error),
              FERRITCORE_OK);
    drive();
    ASSERT_EQ(host_.updates.size(), 1u);
    EXPECT_EQ(host_.updates[0].first, FakeHost::kEnd);
    EXPECT_NE(host_.updates[0].second, 0);
    EXPECT_TRUE(host_.updatedPacks.empty());
}

TEST_F(CApiTest, PushMessageReachesOnlyTopicsTheLibraryTakes) {
    ASSERT_NO_FATAL_FAILURE(publishOpenAndInstall());
    ferritcore_error error{};
    EXPECT_EQ(ferritcore_push_message(host_.handle, "no.such.topic", "{}", &error),
              FERRITCORE_E_UNKNOWN_TOPIC);
    EXPECT_NE(std::string(error.message).find("no.such.topic"), std::string::npos);
    const size_t before = host_.requested.size();
    EXPECT_EQ(ferritcore_push_message(host_.handle, kConfigTopic, "{}", &error), FERRITCORE_OK)
        << error.message;
    driveUntil([&] { return host_.requested.size() > before; });
    EXPECT_GT(host_.requested.size(), before) << "the push asks for the configuration again";
}

TEST_F(CApiTest, RequestTheHostFailsReachesTheLibraryWithTheHostsCodeAndWords) {
    host_.failRequests = true;
    ASSERT_NO_FATAL_FAILURE(publishOpenAndInstall());
    ASSERT_FALSE(host_.requested.empty());
    EXPECT_TRUE(host_.updatedPacks.empty());
    EXPECT_TRUE(
        host_.logged("failed: " + std::to_string(kHostRefused) + ", no route to the server"));
    int32_t code = 0;
    EXPECT_EQ(serve(std::string(kPrefix) + "index.html", code), "");
    EXPECT_NE(code, 0);
    ferritcore_error error{};
    EXPECT_EQ(ferritcore_fail_request(host_.handle, 1, 0, "zero", &error),
              FERRITCORE_E_INVALID_ARGUMENT);
}

TEST_F(CApiTest, CloseFromInsideACallbackIsRefused) {
    publish(*publisher_);
    host_.closeInCallback = true;
    ASSERT_EQ(open(publisherOptions()), FERRITCORE_OK) << lastError_;
    drive();
    ASSERT_FALSE(host_.requested.empty());
    EXPECT_EQ(host_.closeFromCallback, FERRITCORE_E_IN_CALLBACK);
    char* report = ferritcore_status_report(host_.handle, nullptr);
    EXPECT_NE(report, nullptr) << "the handle is still open";
    ferritcore_free_text(report);
}

TEST_F(CApiTest, LogBacklogDropsWhatTheHostCannotTakeAndSaysHowMany) {
    ASSERT_EQ(open(publisherOptions()), FERRITCORE_OK) << lastError_;
    drive();
    host_.logs.clear();
    constexpr size_t kOver = 500;
    for (size_t i = 0; i < EmbedLogSink::kBacklogLimit + kOver; ++i) {
        MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, "Test").event("flood").append("i", i);
    }
    drive();
    ASSERT_EQ(host_.logs.size(), EmbedLogSink::kBacklogLimit + 1);
    EXPECT_NE(host_.logs.front().find("\"i\":0"), std::string::npos) << host_.logs.front();
    EXPECT_NE(host_.logs.back().find("logDropped"), std::string::npos) << host_.logs.back();
    EXPECT_NE(host_.logs.back().find("\"count\":" + std::to_string(kOver)), std::string::npos)
        << host_.logs.back();
    // Room again: the next entry is delivered.
    MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, "Test").event("after");
    drive();
    EXPECT_NE(host_.logs.back().find("after"), std::string::npos);
}

TEST_F(CApiTest, ReopenWithAnotherKeyOrRawFolderIsRefusedAndTheSameKeyInAnyFormIsNot) {
    std::unique_ptr<FerritTools::Ed25519Key> other = makeKey();
    const std::string otherPem = publicPem(*other, work_.path());
    const ferritcore_options options = publisherOptions();
    ASSERT_EQ(open(options), FERRITCORE_OK) << lastError_;
    ASSERT_EQ(ferritcore_close(host_.handle, nullptr), FERRITCORE_OK);
    host_.handle = nullptr;

    ferritcore_options otherKey = options;
    otherKey.public_key = otherPem.data();
    otherKey.public_key_size = otherPem.size();
    EXPECT_EQ(open(otherKey), FERRITCORE_E_OTHER_OPTIONS);
    EXPECT_NE(lastError_.find("another public key"), std::string::npos) << lastError_;
    EXPECT_EQ(host_.handle, nullptr);
    ferritcore_options noKey = options;
    noKey.public_key = nullptr;
    noKey.public_key_size = 0;
    noKey.insecure_no_signature_check = 1;
    EXPECT_EQ(open(noKey), FERRITCORE_E_OTHER_OPTIONS);
    ferritcore_options otherFolder = options;
    const std::string rawFiles = (work_.path() / "raw").string();
    otherFolder.raw_file_folder = rawFiles.c_str();
    EXPECT_EQ(open(otherFolder), FERRITCORE_E_OTHER_OPTIONS);
    EXPECT_NE(lastError_.find("raw_file_folder"), std::string::npos) << lastError_;

    // The same key as its 32 raw bytes is the same key.
    std::string reason;
    const std::string raw =
        Ed25519PublicKey::parse(pem_, Ed25519PublicKey::Form::Bytes, reason)->raw();
    ferritcore_options rawKey = options;
    rawKey.public_key = raw.data();
    rawKey.public_key_size = raw.size();
    ASSERT_EQ(open(rawKey), FERRITCORE_OK) << lastError_;
}

TEST_F(CApiTest, UpdateAskedForBeforeACloseTellsNoLaterHandle) {
    publish(*publisher_);
    const ferritcore_options options = publisherOptions();
    host_.answerRequests = false;
    ASSERT_EQ(open(options), FERRITCORE_OK) << lastError_;
    drive();
    ASSERT_EQ(host_.unanswered.size(), 1u) << "the first configuration is asked for";
    // The configuration comes; the pack's download then waits for the host.
    const std::string& body = host_.served.at(host_.requested.at(0));
    ferritcore_error error{};
    ASSERT_EQ(ferritcore_answer_request(host_.handle, host_.unanswered[0], 200, nullptr, 0,
                                        body.data(), body.size(), &error),
              FERRITCORE_OK)
        << error.message;
    driveUntil([&] { return host_.unanswered.size() > 1; });
    ASSERT_GT(host_.unanswered.size(), 1u);
    ASSERT_EQ(ferritcore_update_pack(host_.handle, kPackName, FakeHost::onUpdate, &host_, &error),
              FERRITCORE_OK)
        << error.message;
    ASSERT_EQ(ferritcore_close(host_.handle, &error), FERRITCORE_OK) << error.message;
    host_.handle = nullptr;
    host_.answerRequests = true;
    ASSERT_EQ(open(options), FERRITCORE_OK) << lastError_;
    driveUntil([&] { return !host_.updatedPacks.empty(); });
    ASSERT_EQ(host_.updatedPacks, std::vector<std::string>{kPackName});
    EXPECT_TRUE(host_.updates.empty()) << "the update asked for by the closed handle is not told";
}

// ---- keys that change, as a native host follows them

// The host opens with A, as an app built with A does. A names B, B signs the next version and
// retires A: B's documents are taken, and a document A signs afterwards is refused as A's, the
// key the host opened with, because a retirement outranks it.
TEST_F(CApiTest, HostFollowsTheSuccessorAndRefusesItsOwnKeyOnceRetired) {
    ASSERT_NO_FATAL_FAILURE(publishOpenAndInstall());
    std::unique_ptr<Ed25519Key> b = makeKey();
    ASSERT_NO_FATAL_FAILURE(rotate(*publisher_, b.get(), nullptr));
    EXPECT_EQ(updateNow(), 0);
    EXPECT_TRUE(loggedKey("trusted", *b));

    publishSite(kSecondSite, *b, work_.path(), host_.served);
    EXPECT_EQ(updateNow(), 0);
    expectServes(kSecondSite);
    ASSERT_NO_FATAL_FAILURE(rotate(*b, nullptr, publisher_.get()));
    EXPECT_EQ(updateNow(), 0);
    EXPECT_TRUE(loggedKey("retired", *publisher_));

    ASSERT_NO_FATAL_FAILURE(serveDocumentsSignedBy(*publisher_));
    EXPECT_EQ(updateNow(), kSignatureRefused);
    EXPECT_TRUE(loggedKey("refusedRetired", *publisher_)) << "refused as the host's retired key";
    publishSite(kThirdSite, *b, work_.path(), host_.served);
    EXPECT_EQ(updateNow(), 0);
    expectServes(kThirdSite);
}

// A names B, then a document of A retires B: a key never retires the key after it (a leaked A
// must not shut out its successor), so the device refuses the retirement, and both the host's
// own key A and B still sign. A publisher whose successor leaked rotates forward from it.
TEST_F(CApiTest, HostKeyAndItsSuccessorStillSignWhenTheHostKeyRetiresTheSuccessor) {
    ASSERT_NO_FATAL_FAILURE(publishOpenAndInstall());
    std::unique_ptr<Ed25519Key> b = makeKey();
    ASSERT_NO_FATAL_FAILURE(rotate(*publisher_, b.get(), nullptr));
    EXPECT_EQ(updateNow(), 0);
    ASSERT_NO_FATAL_FAILURE(rotate(*publisher_, nullptr, b.get()));
    EXPECT_EQ(updateNow(), 0);
    EXPECT_TRUE(loggedKey("retireRefused", *b));
    EXPECT_FALSE(loggedKey("retired", *b));

    publishSite(kSecondSite, *publisher_, work_.path(), host_.served);
    EXPECT_EQ(updateNow(), 0);
    expectServes(kSecondSite);
    ASSERT_NO_FATAL_FAILURE(serveDocumentsSignedBy(*b));
    EXPECT_EQ(updateNow(), 0);
}

// A host that opened without a key checks nothing, before a retirement and after it: documents
// of any key are taken, the retired one's and a stranger's included.
TEST_F(CApiTest, HostWithoutAKeyTakesEveryDocumentAfterAKeyIsRetired) {
    publish(*publisher_);
    ferritcore_options options = publisherOptions();
    options.public_key = nullptr;
    options.public_key_size = 0;
    options.insecure_no_signature_check = 1;
    ASSERT_EQ(open(options), FERRITCORE_OK) << lastError_;
    driveUntil([&] { return !host_.updatedPacks.empty(); });
    expectServes(kSite);
    std::unique_ptr<Ed25519Key> b = makeKey();
    ASSERT_NO_FATAL_FAILURE(rotate(*publisher_, b.get(), nullptr));
    EXPECT_EQ(updateNow(), 0);
    publishSite(kSecondSite, *b, work_.path(), host_.served);
    EXPECT_EQ(updateNow(), 0);
    ASSERT_NO_FATAL_FAILURE(rotate(*b, nullptr, publisher_.get()));
    EXPECT_EQ(updateNow(), 0);
    EXPECT_FALSE(loggedKey("retired", *publisher_)) << "a host that checks nothing learns nothing";

    std::unique_ptr<Ed25519Key> stranger = makeKey();
    ASSERT_NO_FATAL_FAILURE(serveDocumentsSignedBy(*stranger));
    EXPECT_EQ(updateNow(), 0);
    ASSERT_NO_FATAL_FAILURE(serveDocumentsSignedBy(*publisher_));
    EXPECT_EQ(updateNow(), 0);
    expectServes(kSecondSite);
}

// ---- channels

TEST_F(CApiTest, HostOnAChannelReadsItsConfigurationAndInstallsItsPacks) {
    publishSite(kSecondSite, *publisher_, work_.path(), host_.served, "beta");
    ferritcore_options options = publisherOptions();
    options.channel = "beta";
    ASSERT_EQ(open(options), FERRITCORE_OK) << lastError_;
    driveUntil([&] { return !host_.updatedPacks.empty(); });
    ASSERT_FALSE(host_.requested.empty());
    EXPECT_TRUE(host_.requested[0].starts_with(std::string(kConfigServer) + "channels/beta/"))
        << host_.requested[0];
    expectServes(kSecondSite);
}

// A caller compiled against the first version of the options has no channel: whatever lies
// where the field would be is not read.
TEST_F(CApiTest, OptionsOfTheFirstVersionReadNoChannel) {
    ferritcore_options options = publisherOptions();
    options.struct_size = FERRITCORE_OPTIONS_SIZE_V1;
    options.channel = "beta";
    ASSERT_EQ(open(options), FERRITCORE_OK) << lastError_;
    drive();
    ASSERT_FALSE(host_.requested.empty());
    EXPECT_TRUE(host_.requested[0].starts_with(std::string(kConfigServer) + "fconfig/"))
        << host_.requested[0];
}

TEST_F(CApiTest, ChannelThatIsNoPlainNameFailsOpen) {
    ferritcore_options options = publisherOptions();
    for (const char* bad : {".hidden", "a/b", "../up", "sp ace", "beta?x"}) {
        options.channel = bad;
        EXPECT_EQ(open(options), FERRITCORE_E_INVALID_ARGUMENT) << bad;
        EXPECT_NE(lastError_.find("options.channel"), std::string::npos) << lastError_;
        EXPECT_NE(lastError_.find("plain name"), std::string::npos) << lastError_;
        EXPECT_EQ(host_.handle, nullptr);
    }
    EXPECT_TRUE(host_.requested.empty());
    options.channel = "Beta-2.x_y";
    EXPECT_EQ(open(options), FERRITCORE_OK) << lastError_;
}

TEST_F(CApiTest, ReopenOnAnotherChannelIsRefused) {
    ferritcore_options options = publisherOptions();
    options.channel = "beta";
    ASSERT_EQ(open(options), FERRITCORE_OK) << lastError_;
    ASSERT_EQ(ferritcore_close(host_.handle, nullptr), FERRITCORE_OK);
    host_.handle = nullptr;
    ferritcore_options stable = options;
    stable.channel = "stable";
    EXPECT_EQ(open(stable), FERRITCORE_E_OTHER_OPTIONS);
    EXPECT_NE(lastError_.find("\"beta\""), std::string::npos) << lastError_;
    ferritcore_options none = options;
    none.channel = nullptr;
    EXPECT_EQ(open(none), FERRITCORE_E_OTHER_OPTIONS);
    ferritcore_options firstVersion = options;
    firstVersion.struct_size = FERRITCORE_OPTIONS_SIZE_V1;
    EXPECT_EQ(open(firstVersion), FERRITCORE_E_OTHER_OPTIONS);
    EXPECT_EQ(open(options), FERRITCORE_OK) << lastError_;
}

}  // namespace
}  // namespace FerritTest
