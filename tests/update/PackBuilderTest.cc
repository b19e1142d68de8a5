// The pack kit against the library's own readers: what it builds opens as a zip, verifies as a
// resource index, unwraps and parses as a configuration document.
#include "base/Errors.h"
#include "tools/pack/PackBuilder.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "base/Digest.h"
#include "base/Environment.h"
#include "marl/Json.h"
#include "model/FConfig.h"
#include "model/ResourceIndex.h"
#include "storage/Patch.h"
#include "storage/ZipFile.h"
#include "tests/FakeProxy.h"
#include "tests/TestUtil.h"
#include "tools/common/Ed25519Key.h"
#include "update/WrappedPayload.h"

namespace FerritTest {
namespace {

using namespace FerritCore;
using FerritTools::PackContent;
using FerritTools::PackOptions;
using MarlLogger::json::JSON;

constexpr const char* kPrefix = "https://shop.example.com/app/";

class PackBuilderTest : public ProcessTest {
  protected:
    void SetUp() override {
        ProcessTest::SetUp();
        Environment::instance().setProxy(proxy_);
    }

    // Signs as the test proxy's key does.
    static FerritTools::Signer testSigner() {
        return [](const std::string& md5Hex, std::string& signature, std::string&) {
            signature = FakeProxy::signatureOf(md5Hex);
            return true;
        };
    }
    static PackOptions options() {
        PackOptions options;
        options.urlPrefix = kPrefix;
        options.signer = testSigner();
        return options;
    }
    static PackContent version1() {
        PackContent content;
        content.files = {{"index.html", "<html>one</html>"},
                         {"css/app.css", "body{color:red}"},
                         {"gone.js", "let old = 1;"}};
        content.headers["css/app.css"] = {{"Access-Control-Allow-Origin", "*"}};
        return content;
    }
    static PackContent version2() {
        PackContent content;
        content.files = {{"index.html", "<html>two</html>"},
                         {"css/app.css", "body{color:red}"},
                         {"new.js", "let fresh = 2;"}};
        return content;
    }
    static std::string build(const PackContent& content) {
        std::string zip, error;
        EXPECT_TRUE(FerritTools::buildPack(content, options(), zip, error)) << error;
        return zip;
    }
    static std::vector<std::string> names(ZipFile& zip) {
        std::vector<std::string> seen;
        Error error;
        EXPECT_TRUE(zip.forEachEntry(
            [&](const std::string& name, std::string) {
                seen.push_back(name);
                return true;
            },
            error));
        EXPECT_FALSE(error) << error.message();
        return seen;
    }
    // The index of a pack zip as the installer reads it.
    static ResourceIndex indexOf(ZipFile& zip, const std::string& name, bool increment) {
        return ResourceIndex(
            name,
            [&zip](const std::string& entry, Error& error) { return zip.readEntry(entry, error); },
            increment);
    }

    std::shared_ptr<FakeProxy> proxy_ = std::make_shared<FakeProxy>();
};

TEST_F(PackBuilderTest, BuiltPackVerifiesAsTheResourceIndexOfItsZip) {
    const std::string bytes = build(version1());
    Error error;
    ZipFile zip = ZipFile::open(Folder::disk("temp/shop/origin.zip"), bytes, error);
    ASSERT_TRUE(zip) << error.message();
    const ResourceIndex index = indexOf(zip, "shop", false);
    ASSERT_FALSE(index.error()) << index.error().message();
    auto record = index.find("//shop.example.com/app/css/app.css");
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record->path, "res/css/app.css");
    EXPECT_EQ(record->md5, Digest::md5Hex("body{color:red}"));
    EXPECT_EQ(record->header.at("Access-Control-Allow-Origin"), "*");
    EXPECT_EQ(index.find("res/index.html")->url, std::string(kPrefix) + "index.html");
    EXPECT_TRUE(index.removed().empty());
    // The proxy checked the test key's signature of the list's MD5.
    ASSERT_EQ(proxy_->verified.size(), 1u);
}

TEST_F(PackBuilderTest, BuiltPackHoldsTheListFirstThenEveryFileUnderResInPathOrder) {
    const std::string bytes = build(version1());
    Error error;
    ZipFile zip = ZipFile::open(Folder::disk("p.zip"), bytes, error);
    EXPECT_EQ(names(zip), (std::vector<std::string>{"app-res.hvc", "res/css/app.css", "res/gone.js",
                                                    "res/index.html"}));
    EXPECT_EQ(zip.readEntry("res/gone.js", error), "let old = 1;");
}

TEST_F(PackBuilderTest, EmptyFileIsListedWithTheDigestOfNoBytesAndSizeZeroAndReadsBackEmpty) {
    PackContent content;
    content.files = {{"empty.txt", ""}, {"one.txt", "1"}};
    const std::string bytes = build(content);
    Error error;
    ZipFile zip = ZipFile::open(Folder::disk("p.zip"), bytes, error);
    ASSERT_TRUE(zip) << error.message();
    EXPECT_EQ(names(zip),
              (std::vector<std::string>{"app-res.hvc", "res/empty.txt", "res/one.txt"}));
    EXPECT_EQ(zip.readEntry("res/empty.txt", error), "");
    EXPECT_FALSE(error) << error.message();
    const ResourceIndex index = indexOf(zip, "shop", false);
    ASSERT_FALSE(index.error()) << index.error().message();
    ASSERT_NE(index.find("res/empty.txt"), nullptr);
    EXPECT_EQ(index.find("res/empty.txt")->md5, "d41d8cd98f00b204e9800998ecf8427e");
    const std::string list = zip.readEntry("app-res.hvc", error);
    const JSON table = JSON::parse(list.substr(0, list.find("||")));
    const MarlLogger::json::Type sizeType = table["res/empty.txt"]["size"].type();
    EXPECT_TRUE(sizeType == MarlLogger::json::Type::Int ||
                sizeType == MarlLogger::json::Type::UInt);
    EXPECT_EQ(table["res/empty.txt"]["size"].int64Value(), 0);
    EXPECT_EQ(table["res/one.txt"]["size"].int64Value(), 1);
}

TEST_F(PackBuilderTest, IncrementSinceEveryVersionCarriesWhatAnyOfThemChangedOrRemoved) {
    const PackContent v1 = version1();
    const PackContent v2 = version2();
    std::string bytes, error;
    FerritTools::IncrementSummary summary;
    ASSERT_TRUE(FerritTools::buildIncrementSince(
        {FerritTools::listingOf(v1.files), FerritTools::listingOf(v2.files)}, v1, options(), bytes,
        error, &summary))
        << error;
    // Back to the first version: its page differs on a device of the second, and the second's
    // script is gone; the style sheet is the same in both and stays out.
    EXPECT_EQ(summary.changed, (std::vector<std::string>{"gone.js", "index.html"}));
    EXPECT_TRUE(summary.added.empty());
    EXPECT_EQ(summary.removed, (std::vector<std::string>{"new.js"}));
    Error readError;
    ZipFile zip = ZipFile::open(Folder::disk("i.zip"), bytes, readError);
    EXPECT_EQ(names(zip),
              (std::vector<std::string>{"app-res.hvc", "res/gone.js", "res/index.html"}));
    const ResourceIndex index = indexOf(zip, "shop", true);
    ASSERT_FALSE(index.error()) << index.error().message();
    EXPECT_EQ(index.removed().count("res/new.js"), 1u);
}

TEST_F(PackBuilderTest, SameContentGivesTheSameBytes) {
    EXPECT_EQ(build(version1()), build(version1()));
    EXPECT_NE(build(version1()), build(version2()));
}

TEST_F(PackBuilderTest, ListSignedWithAnotherKeyIsRefusedByTheIndex) {
    PackOptions other = options();
    other.signer = [](const std::string& md5Hex, std::string& signature, std::string&) {
        signature = "other-key:" + md5Hex;
        return true;
    };
    std::string bytes, message;
    ASSERT_TRUE(FerritTools::buildPack(version1(), other, bytes, message)) << message;
    Error error;
    ZipFile zip = ZipFile::open(Folder::disk("p.zip"), bytes, error);
    EXPECT_EQ(indexOf(zip, "shop", false).error().code(), Errors::kFileVerify);
}

TEST_F(PackBuilderTest, ExtractedPackVerifiesItsFilesFromTheFolder) {
    const std::string bytes = build(version1());
    Error error;
    ZipFile zip = ZipFile::open(Folder::disk("p.zip"), bytes, error);
    const Folder folder = Folder::disk("apps/shop/1/");
    EXPECT_GT(zip.extractTo(folder, error), 0u);
    ASSERT_FALSE(error) << error.message();
    const ResourceIndex index("shop", folder);
    ASSERT_FALSE(index.error()) << index.error().message();
    EXPECT_TRUE(index.verifyFiles(folder, error)) << error.message();
}

TEST_F(PackBuilderTest, IncrementalZipHoldsOnlyChangedAndAddedFiles) {
    std::string bytes, message;
    FerritTools::IncrementSummary summary;
    ASSERT_TRUE(
        FerritTools::buildIncrement(version1(), version2(), options(), bytes, message, &summary))
        << message;
    EXPECT_EQ(summary.changed, std::vector<std::string>{"index.html"});
    EXPECT_EQ(summary.added, std::vector<std::string>{"new.js"});
    EXPECT_EQ(summary.removed, std::vector<std::string>{"gone.js"});
    Error error;
    ZipFile zip = ZipFile::open(Folder::disk("i.zip"), bytes, error);
    EXPECT_EQ(names(zip),
              (std::vector<std::string>{"app-res.hvc", "res/index.html", "res/new.js"}));
}

// A large script that a bundler rewrote for a one-line fix travels as a patch against the old
// bytes; files too small to gain, and new ones, travel whole; the list is the plain increment's.
TEST_F(PackBuilderTest, PatchedIncrementCarriesALargeChangedFileAsAPatch) {
    std::string script;
    for (int i = 0; script.size() < 200000; ++i)
        script +=
            "function f" + std::to_string(i) + "(a){return a*" + std::to_string(i % 97) + "}\n";
    PackContent before = version1(), after = version2();
    before.files["app.js"] = script;
    after.files["app.js"] = script;
    after.files["app.js"].insert(100000, "console.log('fixed');");
    std::string plain, patched, message;
    ASSERT_TRUE(FerritTools::buildIncrement(before, after, options(), plain, message)) << message;
    FerritTools::PatchSummary summary;
    ASSERT_TRUE(
        FerritTools::buildPatchedIncrement(before, after, options(), patched, message, &summary))
        << message;
    EXPECT_EQ(summary.patched, std::vector<std::string>{"app.js"});
    EXPECT_LT(summary.patchBytes + FerritTools::kPatchMarginBytes, summary.wholeBytes);
    EXPECT_LT(patched.size() * 4, plain.size());
    Error error;
    ZipFile zip = ZipFile::open(Folder::disk("p.zip"), patched, error);
    const std::string entry = "patch/" + Digest::md5Hex(script) + "/app.js";
    // In path order, as in the plain increment: the patch takes its file's place.
    EXPECT_EQ(names(zip),
              (std::vector<std::string>{"app-res.hvc", entry, "res/index.html", "res/new.js"}));
    ZipFile plainZip = ZipFile::open(Folder::disk("i.zip"), plain, error);
    EXPECT_EQ(zip.readEntry("app-res.hvc", error), plainZip.readEntry("app-res.hvc", error));
    // The patch makes, from the old bytes, what the signed list names.
    const ResourceIndex index = indexOf(zip, "shop", /*increment=*/true);
    ASSERT_FALSE(index.error()) << index.error().message();
    const auto record = index.find("res/app.js");
    ASSERT_NE(record, nullptr);
    std::string made;
    const Error applied = applyPatch(script, zip.readEntry(entry, error), Folder::disk("app.js"),
                                     record->size, record->md5, [&made](std::string_view piece) {
                                         made.append(piece);
                                         return Error();
                                     });
    EXPECT_FALSE(applied) << applied.message();
    EXPECT_EQ(made, after.files["app.js"]);
}

TEST_F(PackBuilderTest, IncrementalIndexHidesRemovedPathsAndDescribesTheNewVersion) {
    std::string bytes, message;
    ASSERT_TRUE(FerritTools::buildIncrement(version1(), version2(), options(), bytes, message));
    Error error;
    ZipFile zip = ZipFile::open(Folder::disk("i.zip"), bytes, error);
    const ResourceIndex index = indexOf(zip, "shop", true);
    ASSERT_FALSE(index.error()) << index.error().message();
    EXPECT_EQ(index.removed().count("res/gone.js"), 1u);
    EXPECT_EQ(index.find("//shop.example.com/app/gone.js"), nullptr);
    EXPECT_EQ(index.find("res/index.html")->md5, Digest::md5Hex("<html>two</html>"));
    // Unchanged files are listed too, so the increment alone describes the new version.
    EXPECT_EQ(index.find("res/css/app.css")->md5, Digest::md5Hex("body{color:red}"));
    EXPECT_NE(index.find("res/new.js"), nullptr);
    // Read as a full list, the records without "v" fail the whole index.
    const ResourceIndex full = indexOf(zip, "shop", false);
    EXPECT_EQ(full.error().code(), Errors::kFileDeserialization);
    EXPECT_EQ(full.error().message(),
              "file \"shop.zip/app-res.hvc\" deserialization failed: MD5 for \"res/gone.js\" not "
              "found");
}

TEST_F(PackBuilderTest, WrapThenUnwrapGivesTheZipBackWithItsMd5) {
    const std::string bytes = build(version1());
    std::string png, message;
    ASSERT_TRUE(FerritTools::wrapPayload(bytes, 7, png, message)) << message;
    auto pack = std::make_shared<Pack>();
    pack->seq = 7;
    UnwrapContext context{pack, kWrappedPayloadKind, "", Folder::disk("temp/shop_7_0/origin.zip")};
    Error error;
    ASSERT_TRUE(unwrap(context, png, error)) << error.message();
    EXPECT_EQ(png, bytes);
    EXPECT_EQ(context.md5, Digest::md5Hex(bytes));
}

TEST_F(PackBuilderTest, WrapWithSeq256And512UsesKeyByteZero) {
    const std::string bytes = build(version1());
    for (uint64_t seq : {256u, 512u}) {
        std::string png, message;
        ASSERT_TRUE(FerritTools::wrapPayload(bytes, seq, png, message)) << message;
        EXPECT_NE(png.find(bytes), std::string::npos) << seq;
        auto pack = std::make_shared<Pack>();
        pack->seq = seq;
        UnwrapContext context{pack, kWrappedPayloadKind, "", Folder::disk("x.png")};
        Error error;
        ASSERT_TRUE(unwrap(context, png, error)) << error.message();
        EXPECT_EQ(png, bytes);
    }
}

// Every chunk of the image is whole and carries its correct CRC-32.
TEST_F(PackBuilderTest, WrappedImageIsAWellFormedPng) {
    std::string png, message;
    ASSERT_TRUE(FerritTools::wrapPayload(build(version1()), 3, png, message)) << message;
    ASSERT_EQ(png.substr(0, 8), std::string("\x89PNG\r\n\x1a\n", 8));
    std::vector<std::string> types;
    size_t at = 8;
    auto be32 = [&](size_t i) {
        return (static_cast<uint32_t>(static_cast<unsigned char>(png[i])) << 24) |
               (static_cast<unsigned char>(png[i + 1]) << 16) |
               (static_cast<unsigned char>(png[i + 2]) << 8) |
               static_cast<unsigned char>(png[i + 3]);
    };
    while (at < png.size()) {
        ASSERT_LE(at + 12, png.size());
        const uint32_t length = be32(at);
        ASSERT_LE(at + 12 + length, png.size());
        types.push_back(png.substr(at + 4, 4));
        EXPECT_EQ(Digest::crc32(std::string_view(png).substr(at + 4, length + 4)),
                  be32(at + 8 + length))
            << types.back();
        at += 12 + length;
    }
    EXPECT_EQ(types, (std::vector<std::string>{"IHDR", "IDAT", "IEND"}));
    EXPECT_EQ(FerritTools::plainPng().substr(FerritTools::plainPng().size() - 12),
              std::string("\0\0\0\0IEND\xae\x42\x60\x82", 12));
}

TEST_F(PackBuilderTest, ConfigurationDocumentVerifiesAndParses) {
    std::vector<FerritTools::ConfigPack> packs(1);
    packs[0].name = "shop";
    packs[0].seq = 4;
    packs[0].baseSeq = 3;
    packs[0].flags = 0x50 | 65536;
    packs[0].md5 = Digest::md5Hex("full");
    packs[0].incrMd5 = Digest::md5Hex("increment");
    packs[0].prefixes = {kPrefix};
    std::string document, message;
    ASSERT_TRUE(FerritTools::buildConfig("1700000000000", packs, testSigner(), document, message))
        << message;
    Error error;
    auto config = FConfig::parse(document, "https://cfg.test/packconfig/shop/4", error, true);
    ASSERT_NE(config, nullptr) << error.message();
    EXPECT_EQ(config->version, "1700000000000");
    auto pack = config->find("shop");
    ASSERT_NE(pack, nullptr);
    EXPECT_EQ(pack->seq, 4u);
    EXPECT_EQ(pack->baseSeq, 3u);
    EXPECT_EQ(pack->packType(), 0x50u);
    EXPECT_EQ(pack->payloadKind(), 1u);
    EXPECT_EQ(pack->md5, Digest::md5Hex("full"));
    EXPECT_EQ(pack->incrMd5, Digest::md5Hex("increment"));
    EXPECT_EQ(pack->prefixes, std::vector<std::string>{kPrefix});
    // Signed with another key, the document is refused.
    proxy_->acceptSignatures = false;
    EXPECT_EQ(FConfig::parse(document, "u", error, true), nullptr);
    EXPECT_EQ(error.code(), Errors::kRequestVerify);
}

TEST_F(PackBuilderTest, ConfigurationDocumentNeedsAVersionAndDistinctNames) {
    std::vector<FerritTools::ConfigPack> packs(2);
    packs[0].name = packs[1].name = "shop";
    std::string document, message;
    EXPECT_FALSE(FerritTools::buildConfig("", {}, testSigner(), document, message));
    EXPECT_FALSE(FerritTools::buildConfig("1", packs, testSigner(), document, message));
    EXPECT_EQ(message, "pack shop is named twice");
}

TEST_F(PackBuilderTest, HeaderForAPathWithoutAFileIsAnError) {
    PackContent content = version1();
    content.headers["missing.js"] = {{"X", "y"}};
    std::string bytes, message;
    EXPECT_FALSE(FerritTools::buildPack(content, options(), bytes, message));
    EXPECT_EQ(message, "a header names no file: missing.js");
}

TEST_F(PackBuilderTest, FailingSignerFailsTheBuild) {
    PackOptions failing = options();
    failing.signer = [](const std::string&, std::string&, std::string& error) {
        error = "no key today";
        return false;
    };
    std::string bytes, message;
    EXPECT_FALSE(FerritTools::buildPack(version1(), failing, bytes, message));
    EXPECT_EQ(message, "no key today");
    EXPECT_TRUE(bytes.empty());
}

TEST_F(PackBuilderTest, ReadFolderLeavesOutDsStoreAndMacosx) {
    const std::filesystem::path site = temp_.path() / "site";
    std::filesystem::create_directories(site / "css");
    std::filesystem::create_directories(site / "__MACOSX/css");
    std::ofstream(site / "index.html") << "<html>";
    std::ofstream(site / "css/app.css") << "body{}";
    std::ofstream(site / ".DS_Store") << "finder";
    std::ofstream(site / "css/.DS_Store") << "finder";
    std::ofstream(site / "__MACOSX/css/._app.css") << "fork";
    FerritTools::PackFiles files;
    std::string message;
    ASSERT_TRUE(FerritTools::readFolder(site.string(), files, message)) << message;
    EXPECT_EQ(files, (FerritTools::PackFiles{{"css/app.css", "body{}"}, {"index.html", "<html>"}}));
    EXPECT_FALSE(FerritTools::readFolder((site / "nothing").string(), files, message));
}

// The real tool's signer: Ed25519 over the MD5 text, checked with the public half.
TEST_F(PackBuilderTest, Ed25519SignerSignsTheMd5TextDeterministically) {
    std::string message;
    std::shared_ptr<const FerritTools::Ed25519Key> key = FerritTools::Ed25519Key::generate(message);
    ASSERT_NE(key, nullptr) << message;
    const std::string privatePem = (temp_.path() / "k.pem").string();
    const std::string publicPem = (temp_.path() / "k.pub.pem").string();
    ASSERT_TRUE(key->writePrivatePem(privatePem, message)) << message;
    ASSERT_TRUE(key->writePublicPem(publicPem, message)) << message;
    std::shared_ptr<const FerritTools::Ed25519Key> loaded =
        FerritTools::Ed25519Key::loadPrivate(privatePem, message);
    auto verifier = FerritTools::Ed25519Key::loadPublic(publicPem, message);
    ASSERT_NE(loaded, nullptr) << message;
    ASSERT_NE(verifier, nullptr) << message;
    EXPECT_FALSE(verifier->hasPrivate());

    const std::string md5 = Digest::md5Hex("{}");
    std::string first, second;
    ASSERT_TRUE(FerritTools::ed25519Signer(key)(md5, first, message)) << message;
    ASSERT_TRUE(FerritTools::ed25519Signer(loaded)(md5, second, message)) << message;
    EXPECT_EQ(first, second);
    EXPECT_EQ(first.size(), 64u);
    EXPECT_TRUE(verifier->verify(md5, first));
    EXPECT_FALSE(verifier->verify(Digest::md5Hex("{ }"), first));
    EXPECT_FALSE(verifier->sign(md5, first, message));
    EXPECT_EQ(FerritTools::Ed25519Key::loadPrivate(publicPem, message), nullptr);
}

}  // namespace
}  // namespace FerritTest
