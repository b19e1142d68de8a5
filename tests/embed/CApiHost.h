// What the tests of the C interface share: the servers and the pack a host is set up for, the
// publisher whose key the host trusts, a site published into the URLs the host serves, the
// options a host opens with, and a read through the C table. Not thread-safe: the test's thread
// uses it, except serve(), which any thread may call.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "ferritcore/ferritcore.h"
#include "marl/Clock.h"
#include "tests/TestUtil.h"
#include "tools/common/Ed25519Key.h"

namespace FerritTest {

inline constexpr const char* kConfigServer = "https://cfg.test/";
inline constexpr const char* kPackServer = "https://dl.test/";
inline constexpr const char* kPackName = "shop";
inline constexpr const char* kPrefix = "https://shop.test/app/";
// Long enough for every timer of the update path to come due.
inline constexpr double kUpdateWaitMs = 600000.0;
inline constexpr double kClockStepMs = 1000.0;
// What the host fails a request with, as its own network would.
inline constexpr int32_t kHostRefused = 7;
// A topic the library subscribes to at setup.
inline constexpr const char* kConfigTopic = "wpb.fconfig";

// A new key, or null with the failure added to the test.
std::unique_ptr<FerritTools::Ed25519Key> makeKey();

// The public half of `key` as the PEM text a host would ship (written through a file in `folder`).
std::string publicPem(const FerritTools::Ed25519Key& key, const std::filesystem::path& folder);

// Publishes `site` (path in the pack -> content) as pack kPackName, signed with `signer`, into a
// tree under `work` (treeOf(work); a later call publishes the next version over the last), on
// `channel` (empty: the tree's own documents), and fills `served` with the tree's files
// (serveTree).
void publishSite(const std::map<std::string, std::string>& site,
                 const FerritTools::Ed25519Key& signer, const std::filesystem::path& work,
                 std::map<std::string, std::string>& served, const std::string& channel = {});

// The tree that publishSite() publishes into below `work`.
std::filesystem::path treeOf(const std::filesystem::path& work);

// Fills `served` with the files of the tree below `work` at the servers' addresses (URL -> body),
// after a command changed the tree in place.
void serveTree(const std::filesystem::path& work, std::map<std::string, std::string>& served);

// The options of a host at `root` that trusts `pem` and is set up for the servers and the app of
// publishSite(); the callbacks are left to the host. `pem` and `root` must outlive the options.
ferritcore_options hostOptions(const std::string& root, const std::string& pem, void* host);

// What the C table serves for `url`: the body, or empty with the error's code in `code`.
std::string serve(const std::string& url, int32_t& code);

// Expects the C table to serve every file of `site` under kPrefix, whole.
void expectServes(const std::map<std::string, std::string>& site);

// A fresh process with a manual clock, a private work folder, and a publisher whose key (pem_)
// the host trusts.
class CApiFixture : public ProcessTest {
  protected:
    void SetUp() override;

    // Runs what is due until nothing is.
    virtual void drive() = 0;
    // Lets time pass, in steps, driving what comes due, until `done` holds or the wait is over.
    template <typename Done>
    void driveUntil(Done done) {
        drive();
        for (double waited = 0; !done() && waited < kUpdateWaitMs; waited += kClockStepMs) {
            clock_->advance(kClockStepMs);
            drive();
        }
    }

    // ferritcore_open(), keeping the error's words in lastError_.
    ferritcore_status openHandle(const ferritcore_options& options, ferritcore_handle** handle);

    MarlLogger::ScopedManualClock clock_;
    TempDir work_;
    std::string root_ = (work_.path() / "root").string();
    std::unique_ptr<FerritTools::Ed25519Key> publisher_;
    std::string pem_;
    std::string lastError_;
};

}  // namespace FerritTest
