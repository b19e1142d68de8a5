// The patched increment beside the plain one: built by the one increment builder from the bytes of
// every version since the base, and written by publish next to i/<seq>.zip only when it is smaller.
// Each patch is applied with the device's own applier, and the records are read back with the
// library's own reader.
#include "tools/pack/PackBuilder.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "base/Digest.h"
#include "base/Folder.h"
#include "marl/Json.h"
#include "model/Pack.h"
#include "storage/Patch.h"
#include "storage/ZipFile.h"
#include "tools/common/ToolFiles.h"
#include "tools/publish/Publisher.h"

namespace FerritTools {
namespace {

namespace fs = std::filesystem;
using FerritCore::Digest::md5Hex;
using MarlLogger::json::JSON;

constexpr const char* kPrefix = "https://shop.example.com/app/";

// Signs deterministically without a key: the bytes of what is signed are what these tests compare.
Signer fakeSigner() {
    return [](const std::string& md5, std::string& signature, std::string&) {
        signature = "signed:" + md5;
        return true;
    };
}

PackOptions testOptions() {
    PackOptions options;
    options.urlPrefix = kPrefix;
    options.signer = fakeSigner();
    return options;
}

// A script a bundler writes: many distinct lines, large enough that a one-line change patches to
// far less than the file deflated.
[[maybe_unused]] std::string largeScript() {
    std::string script;
    for (int i = 0; script.size() < 300000; ++i)
        script += "export function handler" + std::to_string(i) + "(event){return event.value*" +
                  std::to_string((i * 7919) % 104729) + "+" + std::to_string(i % 13) + ";}\n";
    return script;
}

// The script with the line at `line` replaced.
[[maybe_unused]] std::string withLine(const std::string& script, size_t line, const std::string& text) {
    size_t start = 0;
    for (size_t i = 0; i < line; ++i) start = script.find('\n', start) + 1;
    const size_t end = script.find('\n', start);
    return script.substr(0, start) + text + script.substr(end);
}

struct Zip {
    explicit Zip(std::string bytes) : bytes_(std::move(bytes)) {
        FerritCore::Error error;
        zip_ = FerritCore::ZipFile::open(FerritCore::Folder::disk("test.zip"), bytes_, error);
        EXPECT_FALSE(error) << error.message();
    }
    std::vector<std::string> names() {
        std::vector<std::string> seen;
        FerritCore::Error error;
        EXPECT_TRUE(zip_.forEachEntry(
            [&](const std::string& name, std::string) {
                seen.push_back(name);
                return true;
            },
            error))
            << error.message();
        return seen;
    }
    std::string read(const std::string& name) {
        FerritCore::Error error;
        std::string content = zip_.readEntry(name, error);
        EXPECT_FALSE(error) << name << ": " << error.message();
        return content;
    }
    std::string bytes_;
    FerritCore::ZipFile zip_;
};

// The bytes `patch` makes from `reference`, checked against the size and MD5 of `expected`.
[[maybe_unused]] std::string applied(const std::string& reference, const std::string& patch,
                    const std::string& expected) {
    std::string made;
    const FerritCore::Error error = FerritCore::applyPatch(
        reference, patch, FerritCore::Folder::disk("made"), expected.size(), md5Hex(expected),
        [&made](std::string_view piece) {
            made.append(piece);
            return FerritCore::Error();
        });
    EXPECT_FALSE(error) << error.message();
    return made;
}

// Three versions since a base: a file changed and changed back, one removed and one added, one
// unchanged, one changed once.
struct History {
    PackContent base, second, third;
    History() {
        base.files = {{"index.html", "<html>one</html>"},
                      {"keep.css", "body{}"},
                      {"back.js", "let x = 1;"},
                      {"gone.js", "let gone = 1;"}};
        second.files = {{"index.html", "<html>two</html>"},
                        {"keep.css", "body{}"},
                        {"back.js", "let x = 2;"},
                        {"added.js", "let added = 2;"}};
        third.files = {{"index.html", "<html>three</html>"},
                       {"keep.css", "body{}"},
                       {"back.js", "let x = 1;"},
                       {"added.js", "let added = 3;"},
                       {"late.js", "let late = 3;"}};
        third.headers["keep.css"] = {{"Access-Control-Allow-Origin", "*"}};
    }
    std::vector<PackListing> since() const {
        return {listingOf(base.files), listingOf(second.files)};
    }
};

// The plain increment is the bytes the builder gave before it learned patches: a device that
// never asks for a patched increment sees no change at all.
TEST(PatchedIncrementTest, PlainIncrementKeepsItsBytes) {
    const History history;
    std::string zip, error;
    IncrementSummary summary;
    ASSERT_TRUE(
        buildIncrementSince(history.since(), history.third, testOptions(), zip, error, &summary))
        << error;
    EXPECT_EQ(md5Hex(zip), "876953a8647a497c51809e28d83f2d9c");
    EXPECT_EQ(summary.changed, (std::vector<std::string>{"back.js", "index.html"}));
    EXPECT_EQ(summary.added, (std::vector<std::string>{"added.js", "late.js"}));
    EXPECT_EQ(summary.removed, std::vector<std::string>{"gone.js"});
}


// The two-version patched increment (what `ferrit pack diff --patches` writes) keeps its bytes now
// that it is the general builder's case of one version since the base.
TEST(PatchedIncrementTest, TwoVersionPatchedIncrementKeepsItsBytes) {
    PackContent before, after;
    before.files = {{"app.js", largeScript()}, {"index.html", "<html>one</html>"}};
    after.files = {{"app.js", withLine(largeScript(), 1000, "export const fixed = true;")},
                   {"index.html", "<html>two</html>"},
                   {"new.js", "let fresh = 2;"}};
    std::string zip, error;
    PatchSummary summary;
    ASSERT_TRUE(buildPatchedIncrement(before, after, testOptions(), zip, error, &summary)) << error;
    EXPECT_EQ(md5Hex(zip), "473d6d4b4d8bb57bc7e613e43cf0e441");
    EXPECT_EQ(summary.patched, std::vector<std::string>{"app.js"});
    Zip opened(zip);
    EXPECT_EQ(opened.names(),
              (std::vector<std::string>{"app-res.hvc",
                                        "patch/" + md5Hex(before.files["app.js"]) + "/app.js",
                                        "res/index.html", "res/new.js"}));
}

}  // namespace
}  // namespace FerritTools
