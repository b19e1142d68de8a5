// The patched increment on the device: a changed file travels as a patch against the bytes the
// installed version holds. Each case runs with the installed version in the packed store and on
// the disk (a version an older build installed there). The happy path fetches only "/p/"; every
// way the patched form can fail falls back, in the same task, to the plain increment and then to
// the full zip, and the device always ends serving the new version's bytes. Only a plain pack
// takes increments, so the new version always lands in the packed store; an application staged
// on the disk, a record with its own zip and a preview never ask for the patched form.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "storage/Patch.h"
#include "storage/ZipFile.h"
#include "tests/update/InstallFixture.h"
#include "tools/pack/ZipWriter.h"

namespace FerritTest {
namespace {

// The same script with one line changed in the middle.
std::string oneLineChanged(std::string text, const std::string& line = "console.log(\"fixed\");") {
    text.insert(text.find('\n', text.size() / 2), " " + line);
    return text;
}

class PatchInstallTest : public InstallFixture, public ::testing::WithParamInterface<bool> {
  protected:
    static constexpr const char* kBig = "js/big.js";

    bool onDiskInstall() const { return GetParam(); }

    static PackFiles version1() {
        return {{"index.html", "<!doctype html><title>v1</title>"},
                {kBig, scriptText(200000, 29)},
                {"css/app.css", "body{color:red}"}};
    }
    // The script changes by one line, the page whole, and a file is added.
    static PackFiles version2() {
        PackFiles files = version1();
        files[kBig] = oneLineChanged(files[kBig]);
        files["index.html"] = "<!doctype html><title>v2</title>";
        files["js/extra.js"] = "export const extra = 2;";
        return files;
    }

    // "shop" at seq 1 (base 1) holding `files`: installed by a full zip into the packed store, or
    // written on the disk as an older build left it. `beside` are listed files outside "res/".
    void installFirst(const PackFiles& files, uint64_t seq = 1, uint64_t baseSeq = 1,
                      const PackFiles& beside = {}) {
        if (onDiskInstall()) {
            auto p = record("shop", kPackTypeFerrit, seq, baseSeq);
            p->installedSeq = seq;
            p->installedBaseSeq = baseSeq;
            put({p});
            const Folder folder = Folder::disk("apps/shop/" + std::to_string(seq) + "/");
            writeVersion(folder, files);
            PackFiles written = beside;
            if (!beside.empty()) written["app-res.hvc"] = listWith(files, beside);
            for (const auto& [path, content] : written) {
                Error error;
                ASSERT_TRUE(Folder::writeFile(folder.childOf(path), content, error))
                    << error.message();
            }
        } else {
            const std::string zip =
                beside.empty() ? zipOf(files) : handZip(listWith(files, beside), files, {}, beside);
            auto p = record("shop", kPackTypeFerrit, seq, baseSeq, kPriorityAutoInstall);
            p->md5 = Digest::md5Hex(zip);
            put({p});
            serveFull("shop", seq, zip);
            ASSERT_FALSE(update("shop", kTriggerTimer));
            ASSERT_TRUE(find("shop")->isPacks);
        }
        ASSERT_EQ(find("shop")->installedSeq, seq);
        proxy_->requests.clear();
        proxy_->clearRecords();
        logs_->clear();
    }
    // The installed file of `path`, as a folder of the installed version.
    Folder installedFile(const std::string& path) const {
        return find("shop")->installedFolder().childOf("res/" + path);
    }

    static std::string patchedOf(const PackFiles& previous, const PackFiles& current) {
        PackContent before, after;
        before.files = previous;
        after.files = current;
        std::string zip, error;
        FerritTools::PatchSummary summary;
        EXPECT_TRUE(
            FerritTools::buildPatchedIncrement(before, after, options(), zip, error, &summary))
            << error;
        EXPECT_EQ(summary.patched, std::vector<std::string>{kBig});
        return zip;
    }
    // A patched increment to `current` put together by hand: its list, the files that travel
    // whole, and the patch entries as given (name after "patch/", content).
    static std::string handPatched(
        const PackFiles& current, const PackFiles& whole,
        const std::vector<std::pair<std::string, std::string>>& patches) {
        return handZip(indexOf(current), whole, patches);
    }
    // A zip of `list`, the resources `whole`, the patch entries `patches` and the files `beside`
    // outside "res/".
    static std::string handZip(const std::string& list, const PackFiles& whole,
                               const std::vector<std::pair<std::string, std::string>>& patches,
                               const PackFiles& beside = {}) {
        FerritTools::ZipWriter writer;
        std::string zip, error;
        EXPECT_TRUE(writer.addFile("app-res.hvc", list, error)) << error;
        for (const auto& [path, content] : whole)
            EXPECT_TRUE(writer.addFile("res/" + path, content, error)) << error;
        for (const auto& [path, content] : beside)
            EXPECT_TRUE(writer.addFile(path, content, error)) << error;
        for (const auto& [name, content] : patches) {
            FerritTools::ZipWriter::Entry entry;
            entry.name = "patch/" + name;
            entry.content = content;
            entry.deflate = false;
            EXPECT_TRUE(writer.add(entry, error)) << error;
        }
        EXPECT_TRUE(writer.finish(zip, error)) << error;
        return zip;
    }
    // The signed list of `files` that also names `beside`, files outside "res/", as a list may.
    static std::string listWith(const PackFiles& files, const PackFiles& beside) {
        PackContent content;
        content.files = files;
        std::string json, signedIndex, error;
        EXPECT_TRUE(FerritTools::indexJson(content, kSite, {}, json, error)) << error;
        EXPECT_EQ(json.front(), '{');
        for (const auto& [path, text] : beside) {
            json.insert(1, "\"" + path + "\":{\"v\":\"" + Digest::md5Hex(text) +
                               "\",\"size\":" + std::to_string(text.size()) + "},");
        }
        EXPECT_TRUE(FerritTools::signIndex(json, "ed25519", signer(), signedIndex, error)) << error;
        return signedIndex;
    }
    // Version 2's patched zip with `patch` as the script's patch entry, named for `reference`.
    static std::string withPatch(const std::string& reference, const std::string& patch) {
        PackFiles whole = version2();
        whole.erase(kBig);
        whole.erase("css/app.css");
        return handPatched(version2(), whole, {{reference + "/" + kBig, patch}});
    }

    // Offers `seq` (base `baseSeq`) as the three forms; an empty zip is not served (404), and
    // `patchMd5` overrides the record's "cp" when given.
    void offer(uint64_t seq, uint64_t baseSeq, const std::string& patched,
               const std::string& increment, const std::string& full,
               const std::string& patchMd5 = {}) {
        auto p = find("shop")->clone();
        p->seq = seq;
        p->baseSeq = baseSeq;
        p->patchMd5 = patchMd5.empty() && !patched.empty() ? Digest::md5Hex(patched) : patchMd5;
        p->incrMd5 = Digest::md5Hex(increment);
        p->md5 = Digest::md5Hex(full);
        put({p});
        const std::string at = std::string(kZipPrefix) + "shop/";
        if (!patched.empty()) proxy_->serve(at + "p/" + std::to_string(seq) + ".zip", 200, patched);
        serveIncrement("shop", seq, increment);
        serveFull("shop", seq, full);
    }
    void offerVersion2(const std::string& patched, const std::string& patchMd5 = {}) {
        offer(2, 1, patched, incrementOf(version1(), version2()), zipOf(version2()), patchMd5);
    }

    std::vector<std::string> urls() const {
        std::vector<std::string> out;
        for (const ProxyRequest& request : proxy_->requests) out.push_back(request.url);
        return out;
    }
    static std::vector<std::string> zips(const std::vector<std::string>& forms, uint64_t seq = 2) {
        std::vector<std::string> out;
        out.reserve(forms.size());
        for (const std::string& form : forms)
            out.push_back(std::string(kZipPrefix) + "shop/" + form + std::to_string(seq) + ".zip");
        return out;
    }
    // The run's record.
    FakeProxy::Record runRecord() const {
        const auto records = proxy_->named("Ferrit.AppUpdate");
        EXPECT_EQ(records.size(), 1u);
        return records.empty() ? FakeProxy::Record() : records.back();
    }
    static std::string dimension(const FakeProxy::Record& record, const std::string& key) {
        const auto it = record.dimensions.find(key);
        return it == record.dimensions.end() ? std::string("(none)") : it->second;
    }

    // The run fell back from the patched form to the plain increment, saying `why`, and the
    // device serves version 2.
    void expectFellBackToTheIncrement(const std::string& why) {
        EXPECT_EQ(urls(), zips({"p/", "i/"}));
        EXPECT_EQ(find("shop")->installedSeq, 2u);
        expectServes(version2());
        const FakeProxy::Record run = runRecord();
        EXPECT_EQ(dimension(run, "form"), "incremental");
        EXPECT_NE(dimension(run, "patchRefused").find(why), std::string::npos)
            << dimension(run, "patchRefused");
        EXPECT_EQ(dimension(run, "incrRefused"), "(none)");
        // What the refused attempt held is not the installed form's.
        EXPECT_EQ(run.measures.count("patchMemory"), 0u);
        ASSERT_EQ(logs_->count("patchRefused"), 1u);
        const MarlLogger::LogEntry entry = logs_->last("patchRefused");
        EXPECT_EQ(entry.level, MarlLogger::MRLLevelWarning);
        EXPECT_EQ(entry.field("url").stringValue(), zips({"p/"})[0]);
        EXPECT_TRUE(entry.hasError);
        EXPECT_NE(entry.errorMessage.find(why), std::string::npos) << entry.errorMessage;
        // The inspector's update report says the same.
        const std::vector<UpdateOutcome> outcomes = UpdatePack::recentOutcomes();
        ASSERT_FALSE(outcomes.empty());
        EXPECT_EQ(outcomes.back().name, "shop");
        EXPECT_EQ(outcomes.back().form, "incremental");
        EXPECT_EQ(outcomes.back().patchRefused, dimension(run, "patchRefused"));
        EXPECT_TRUE(outcomes.back().error.empty());
        settle();
        EXPECT_TRUE(tempLeft().empty());
    }
};

TEST_P(PatchInstallTest, PatchedIncrementInstallsFromItsPatchesAlone) {
    ASSERT_NO_FATAL_FAILURE(installFirst(version1()));
    const std::string patched = patchedOf(version1(), version2());
    // The patch is what makes the zip small: the script travels as a few hundred bytes.
    EXPECT_LT(patched.size() * 4, incrementOf(version1(), version2()).size());
    offerVersion2(patched);
    const Error error = update("shop", kTriggerTimer);
    ASSERT_FALSE(error) << error.message();
    EXPECT_EQ(urls(), zips({"p/"}));
    EXPECT_EQ(find("shop")->installedSeq, 2u);
    expectServes(version2());
    const FakeProxy::Record run = runRecord();
    EXPECT_EQ(dimension(run, "form"), "patched");
    EXPECT_EQ(dimension(run, "incr"), "true");
    EXPECT_EQ(dimension(run, "patchRefused"), "(none)");
    EXPECT_EQ(dimension(run, "fileURL"), zips({"p/"})[0]);
    EXPECT_EQ(logs_->count("patchRefused"), 0u);
    const std::vector<UpdateOutcome> outcomes = UpdatePack::recentOutcomes();
    ASSERT_FALSE(outcomes.empty());
    EXPECT_EQ(outcomes.back().form, "patched");
    EXPECT_EQ(outcomes.back().seq, 2u);
    EXPECT_TRUE(outcomes.back().patchRefused.empty());
    settle();
    EXPECT_TRUE(tempLeft().empty());
    // The replaced version is gone; the new one lives in the packed store.
    EXPECT_FALSE(onDisk("apps/shop/1"));
    EXPECT_TRUE(packedKeys("shop/1/").empty());
}

TEST_P(PatchInstallTest, RecordWithoutPatchedIncrementFetchesThePlainOneAsBefore) {
    ASSERT_NO_FATAL_FAILURE(installFirst(version1()));
    offerVersion2(std::string());
    ASSERT_TRUE(find("shop")->patchMd5.empty());
    ASSERT_FALSE(update("shop", kTriggerTimer));
    EXPECT_EQ(urls(), zips({"i/"}));
    expectServes(version2());
    EXPECT_EQ(dimension(runRecord(), "form"), "incremental");
    EXPECT_EQ(dimension(runRecord(), "patchRefused"), "(none)");
}

TEST_P(PatchInstallTest, PatchAgainstAnotherReferenceFallsBack) {
    ASSERT_NO_FATAL_FAILURE(installFirst(version1()));
    // Made from a version of the script this device never had: no entry names its bytes.
    PackFiles other = version1();
    other[kBig] = oneLineChanged(other[kBig], "var other = 1;");
    offerVersion2(patchedOf(other, version2()));
    ASSERT_FALSE(update("shop", kTriggerTimer));
    expectFellBackToTheIncrement("no patch applies to the installed file");
}

TEST_P(PatchInstallTest, PatchMadeFromOtherBytesUnderTheInstalledNameFallsBack) {
    ASSERT_NO_FATAL_FAILURE(installFirst(version1()));
    const std::string old = version1().at(kBig);
    const std::string other = oneLineChanged(old, "var other = 1;");
    ErrorOr<std::string> patch = makePatch(other, version2().at(kBig));
    ASSERT_TRUE(patch.ok());
    offerVersion2(withPatch(Digest::md5Hex(old), *patch));
    ASSERT_FALSE(update("shop", kTriggerTimer));
    expectFellBackToTheIncrement("js/big.js");
}

TEST_P(PatchInstallTest, TruncatedPatchFallsBack) {
    ASSERT_NO_FATAL_FAILURE(installFirst(version1()));
    const std::string old = version1().at(kBig);
    ErrorOr<std::string> patch = makePatch(old, version2().at(kBig));
    ASSERT_TRUE(patch.ok());
    offerVersion2(withPatch(Digest::md5Hex(old), patch->substr(0, patch->size() - 5)));
    ASSERT_FALSE(update("shop", kTriggerTimer));
    expectFellBackToTheIncrement("truncated");
}

TEST_P(PatchInstallTest, PatchThatMakesOtherBytesFallsBack) {
    ASSERT_NO_FATAL_FAILURE(installFirst(version1()));
    const std::string old = version1().at(kBig);
    std::string wrong = version2().at(kBig);
    wrong[100] = wrong[100] == 'x' ? 'y' : 'x';
    ErrorOr<std::string> patch = makePatch(old, wrong);
    ASSERT_TRUE(patch.ok());
    offerVersion2(withPatch(Digest::md5Hex(old), *patch));
    ASSERT_FALSE(update("shop", kTriggerTimer));
    expectFellBackToTheIncrement("MD5");
}

TEST_P(PatchInstallTest, PatchForAnotherSizeIsRefusedAtItsHeader) {
    ASSERT_NO_FATAL_FAILURE(installFirst(version1()));
    const std::string old = version1().at(kBig);
    ErrorOr<std::string> patch = makePatch(old, version2().at(kBig) + "//");
    ASSERT_TRUE(patch.ok());
    offerVersion2(withPatch(Digest::md5Hex(old), *patch));
    ASSERT_FALSE(update("shop", kTriggerTimer));
    expectFellBackToTheIncrement("size");
}

TEST_P(PatchInstallTest, ReferenceAlteredAfterItsInstallFallsBack) {
    ASSERT_NO_FATAL_FAILURE(installFirst(version1()));
    // Same size, one byte changed: only its MD5 tells.
    std::string altered = version1().at(kBig);
    altered[5000] = altered[5000] == 'x' ? 'y' : 'x';
    Error error;
    ASSERT_TRUE(Folder::writeFile(installedFile(kBig), altered, error)) << error.message();
    offerVersion2(patchedOf(version1(), version2()));
    ASSERT_FALSE(update("shop", kTriggerTimer));
    // Refused for the installed file's bytes, before the patch made any.
    expectFellBackToTheIncrement("shop/1/res/js/big.js\" verify failed: MD5");
}

TEST_P(PatchInstallTest, PatchedZipWithAnotherMd5FallsBack) {
    ASSERT_NO_FATAL_FAILURE(installFirst(version1()));
    offerVersion2(patchedOf(version1(), version2()), "0123456789abcdef0123456789abcdef");
    ASSERT_FALSE(update("shop", kTriggerTimer));
    expectFellBackToTheIncrement("origin.zip");
}

TEST_P(PatchInstallTest, PatchedZipThatIsNotServedFallsBack) {
    ASSERT_NO_FATAL_FAILURE(installFirst(version1()));
    // Named by the record, never published: the server answers 404.
    offerVersion2(std::string(), "0123456789abcdef0123456789abcdef");
    ASSERT_FALSE(update("shop", kTriggerTimer));
    expectFellBackToTheIncrement("404");
}

TEST_P(PatchInstallTest, PlainIncrementBrokenTooEndsWithTheFullZip) {
    ASSERT_NO_FATAL_FAILURE(installFirst(version1()));
    // An increment made from another base lacks the script, which the device cannot keep.
    PackFiles otherBase = version1();
    otherBase[kBig] = version2().at(kBig);
    otherBase["index.html"] = version2().at("index.html");
    offer(2, 1, std::string(), incrementOf(otherBase, version2()), zipOf(version2()),
          "0123456789abcdef0123456789abcdef");
    ASSERT_FALSE(update("shop", kTriggerTimer));
    EXPECT_EQ(urls(), zips({"p/", "i/", ""}));
    EXPECT_EQ(find("shop")->installedSeq, 2u);
    expectServes(version2());
    const FakeProxy::Record run = runRecord();
    EXPECT_EQ(dimension(run, "form"), "full");
    EXPECT_NE(dimension(run, "patchRefused"), "(none)");
    EXPECT_NE(dimension(run, "incrRefused"), "(none)");
    EXPECT_EQ(logs_->count("patchRefused"), 1u);
    EXPECT_EQ(logs_->count("incrementRefused"), 1u);
    settle();
    EXPECT_TRUE(tempLeft().empty());
}

// A broken connection on the patched increment is refused like any failure of it: the plain
// increment is asked for next. When that fails the same way the run ends there, the full zip
// untried, with the version installed before.
TEST_P(PatchInstallTest, TransportFailureOnBothIncrementsEndsTheRun) {
    ASSERT_NO_FATAL_FAILURE(installFirst(version1()));
    offerVersion2(patchedOf(version1(), version2()));
    FakeProxy::Answer broken;
    broken.transportError = Error(-1, "connection reset");
    proxy_->serve(zips({"p/"})[0], broken);
    proxy_->serve(zips({"i/"})[0], broken);
    const Error error = update("shop", kTriggerTimer);
    EXPECT_TRUE(error);
    EXPECT_EQ(urls(), zips({"p/", "i/"}));
    EXPECT_EQ(find("shop")->installedSeq, 1u);
    expectServes(version1());
    EXPECT_NE(dimension(runRecord(), "patchRefused").find("connection reset"), std::string::npos)
        << dimension(runRecord(), "patchRefused");
    EXPECT_EQ(logs_->count("patchRefused"), 1u);
    settle();
    EXPECT_TRUE(tempLeft().empty());
}

// A list may name a file beside the resources, here changed since the installed version: only a
// resource can travel as a patch, and the budget's check looks for patches among those alone.
TEST_P(PatchInstallTest, ListedFileBesideTheResourcesTravelsWhole) {
    const PackFiles before{{"top.txt", "one"}};
    const PackFiles after{{"top.txt", "two, longer"}};
    ASSERT_NO_FATAL_FAILURE(installFirst(version1(), 1, 1, before));
    const std::string old = version1().at(kBig);
    ErrorOr<std::string> patch = makePatch(old, version2().at(kBig));
    ASSERT_TRUE(patch.ok());
    PackFiles whole = version2();
    whole.erase(kBig);
    whole.erase("css/app.css");
    offerVersion2(handZip(listWith(version2(), after), whole,
                          {{Digest::md5Hex(old) + "/" + kBig, *patch}}, after));
    const Error error = update("shop", kTriggerTimer);
    ASSERT_FALSE(error) << error.message();
    EXPECT_EQ(urls(), zips({"p/"}));
    EXPECT_EQ(find("shop")->installedSeq, 2u);
    expectServes(version2());
    EXPECT_EQ(dimension(runRecord(), "form"), "patched");
}

// The patched zip leaves out a changed file that has no patch entry: the plain increment keeps
// the same file and would be refused as well, so the run goes straight to the full zip.
TEST_P(PatchInstallTest, KeptFileTheIncrementKeepsTooGoesStraightToTheFullZip) {
    ASSERT_NO_FATAL_FAILURE(installFirst(version1()));
    const std::string old = version1().at(kBig);
    ErrorOr<std::string> patch = makePatch(old, version2().at(kBig));
    ASSERT_TRUE(patch.ok());
    const PackFiles whole{{"js/extra.js", version2().at("js/extra.js")}};
    offerVersion2(handPatched(version2(), whole, {{Digest::md5Hex(old) + "/" + kBig, *patch}}));
    ASSERT_FALSE(update("shop", kTriggerTimer));
    EXPECT_EQ(urls(), zips({"p/", ""}));
    EXPECT_EQ(find("shop")->installedSeq, 2u);
    expectServes(version2());
    const FakeProxy::Record run = runRecord();
    EXPECT_EQ(dimension(run, "form"), "full");
    EXPECT_NE(dimension(run, "incrRefused").find("index.html"), std::string::npos)
        << dimension(run, "incrRefused");
    EXPECT_EQ(logs_->count("incrementRefused"), 1u);
    settle();
    EXPECT_TRUE(tempLeft().empty());
}

// A device on version 2 (base 1) gets version 3 with two patches for the script, from version 1's
// bytes and from version 2's: it skips the first and applies the second.
TEST_P(PatchInstallTest, IntermediateVersionAppliesTheSecondPatch) {
    ASSERT_NO_FATAL_FAILURE(installFirst(version2(), 2, 1));
    PackFiles version3 = version2();
    version3[kBig] = oneLineChanged(version2().at(kBig), "var third = 3;");
    const std::string one = version1().at(kBig);
    const std::string two = version2().at(kBig);
    ErrorOr<std::string> fromOne = makePatch(one, version3.at(kBig));
    ErrorOr<std::string> fromTwo = makePatch(two, version3.at(kBig));
    ASSERT_TRUE(fromOne.ok() && fromTwo.ok());
    PackFiles whole = version3;
    whole.erase(kBig);
    const std::string patched = handPatched(version3, whole,
                                            {{Digest::md5Hex(one) + "/" + kBig, *fromOne},
                                             {Digest::md5Hex(two) + "/" + kBig, *fromTwo}});
    offer(3, 1, patched, incrementOf(version1(), version3), zipOf(version3));
    const Error error = update("shop", kTriggerTimer);
    ASSERT_FALSE(error) << error.message();
    EXPECT_EQ(urls(), zips({"p/"}, 3));
    EXPECT_EQ(find("shop")->installedSeq, 3u);
    expectServes(version3);
    EXPECT_EQ(dimension(runRecord(), "form"), "patched");
}

// A patch for a file the installed version does not have cannot apply.
TEST_P(PatchInstallTest, PatchForAPathTheInstalledVersionLacksFallsBack) {
    ASSERT_NO_FATAL_FAILURE(installFirst(version1()));
    const std::string old = version1().at(kBig);
    ErrorOr<std::string> patch = makePatch(old, version2().at("js/extra.js"));
    ASSERT_TRUE(patch.ok());
    PackFiles whole = version2();
    whole.erase("js/extra.js");
    whole.erase("css/app.css");
    offerVersion2(handPatched(version2(), whole, {{Digest::md5Hex(old) + "/js/extra.js", *patch}}));
    ASSERT_FALSE(update("shop", kTriggerTimer));
    expectFellBackToTheIncrement("no patch applies to the installed file");
}

// An entry under "patch/" whose name is no MD5 and path is refused, not guessed at.
TEST_P(PatchInstallTest, MalformedPatchNameFallsBack) {
    ASSERT_NO_FATAL_FAILURE(installFirst(version1()));
    const std::string old = version1().at(kBig);
    ErrorOr<std::string> patch = makePatch(old, version2().at(kBig));
    ASSERT_TRUE(patch.ok());
    offerVersion2(withPatch("not-an-md5", *patch));
    ASSERT_FALSE(update("shop", kTriggerTimer));
    expectFellBackToTheIncrement("not a patch entry's name");
}

// A patch for a path the new list does not name makes nothing the version has.
TEST_P(PatchInstallTest, PatchForAPathTheNewListDoesNotNameFallsBack) {
    ASSERT_NO_FATAL_FAILURE(installFirst(version1()));
    const std::string old = version1().at(kBig);
    ErrorOr<std::string> patch = makePatch(old, version2().at(kBig));
    ASSERT_TRUE(patch.ok());
    PackFiles whole = version2();
    whole.erase("css/app.css");
    offerVersion2(handPatched(version2(), whole, {{Digest::md5Hex(old) + "/js/gone.js", *patch}}));
    ASSERT_FALSE(update("shop", kTriggerTimer));
    expectFellBackToTheIncrement("js/gone.js");
}

// The budget's check counts a patch as the file it makes, not as its few bytes in the zip.
TEST_P(PatchInstallTest, PatchedFileCountsAgainstTheBudgetAtItsFullSize) {
    ASSERT_NO_FATAL_FAILURE(installFirst(version1()));
    const std::string patched = patchedOf(version1(), version2());
    ASSERT_LT(patched.size(), 50000u);
    offerVersion2(patched);
    Settings::updateRemote({{"ferritSizeLimit", "100000"}});
    const Error error = update("shop", kTriggerTimer);
    Settings::updateRemote({});
    EXPECT_EQ(error.code(), Errors::kTooManyApps) << error.message();
    EXPECT_EQ(urls(), zips({"p/", "i/"}));
    EXPECT_NE(dimension(runRecord(), "patchRefused").find("inflates to"), std::string::npos)
        << dimension(runRecord(), "patchRefused");
    EXPECT_EQ(find("shop")->installedSeq, 1u);
    expectServes(version1());
}

// A device that takes wrapped payloads never asks for the patched increment, a plain zip.
TEST_P(PatchInstallTest, DeviceOfWrappedPayloadsFetchesTheWrappedIncrement) {
    ASSERT_NO_FATAL_FAILURE(installFirst(version1()));
    const std::string increment = incrementOf(version1(), version2());
    std::string png, error;
    ASSERT_TRUE(FerritTools::wrapPayload(increment, 2, png, error)) << error;
    offerVersion2(patchedOf(version1(), version2()));
    auto p = find("shop")->clone();
    p->flags |= uint64_t{kPayloadWrapped} << 16;
    put({p});
    Settings::change([](Settings& s) { s.encryptionTypeRemote = 1; });
    proxy_->serve(std::string(kZipPrefix) + "shop/i/2.png", 200, png);
    ASSERT_FALSE(update("shop", kTriggerTimer));
    EXPECT_EQ(urls(), std::vector<std::string>{std::string(kZipPrefix) + "shop/i/2.png"});
    expectServes(version2());
    EXPECT_EQ(dimension(runRecord(), "form"), "incremental");
}

// A device on version 2 (base 1) whose script is already version 3's: the patch from version 1
// is not for it, and the installed file is kept.
TEST_P(PatchInstallTest, InstalledFileWithTheNewBytesIsKept) {
    ASSERT_NO_FATAL_FAILURE(installFirst(version2(), 2, 1));
    PackFiles version3 = version2();
    version3["index.html"] = "<!doctype html><title>v3</title>";
    offer(3, 1, patchedOf(version1(), version3), incrementOf(version1(), version3),
          zipOf(version3));
    ASSERT_FALSE(update("shop", kTriggerTimer));
    EXPECT_EQ(urls(), zips({"p/"}, 3));
    EXPECT_EQ(find("shop")->installedSeq, 3u);
    expectServes(version3);
    EXPECT_EQ(dimension(runRecord(), "form"), "patched");
}

// A file of a few megabytes: what the device holds to patch it is the installed file, the
// decoder's window and the file made, bounded by the limit and not by the patch or the zip.
TEST_P(PatchInstallTest, PatchOfALargeFileStaysWithinTheLimit) {
    PackFiles first = version1();
    first[kBig] = scriptText(5u << 20, 31);
    ASSERT_NO_FATAL_FAILURE(installFirst(first));
    PackFiles second = first;
    second[kBig] = oneLineChanged(first[kBig]);
    const std::string patched = patchedOf(first, second);
    EXPECT_LT(patched.size(), 8u << 10);
    offer(2, 1, patched, incrementOf(first, second), zipOf(second));
    ASSERT_FALSE(update("shop", kTriggerTimer));
    EXPECT_EQ(urls(), zips({"p/"}));
    expectServes(second);
    const FakeProxy::Record run = runRecord();
    EXPECT_EQ(dimension(run, "form"), "patched");
    ASSERT_EQ(run.measures.count("patchMemory"), 1u);
    const double held = run.measures.at("patchMemory");
    // The reference; the decoder, whose window holds the file made (a frame that states its
    // size needs no more); the file made, gathered whole as the new version lives in the packed
    // store, in a buffer of exactly its size; beside them a piece and a megabyte for the
    // decoder's own state. A buffer grown piece by piece would pass the bound by megabytes.
    const uint64_t reference = first[kBig].size();
    const uint64_t made = second[kBig].size();
    EXPECT_GE(held, static_cast<double>(reference + 2 * made));
    EXPECT_LE(held, static_cast<double>(reference + 2 * made + kPatchChunk + (1u << 20))) << held;
}

// An application staged on the disk under "apps/" is replaced whole: it never takes an
// increment, so a record of that type that names a patched increment still fetches the full zip.
TEST_P(PatchInstallTest, AppStagedOnTheDiskFetchesTheFullZipDespiteAPatch) {
    // The installed version is on the disk in both cases: one run says it all.
    if (onDiskInstall()) GTEST_SKIP() << "the same run as the packed case";
    const std::string first = zipOf(version1());
    auto p = record("shop", kPackTypeACache, 1, 1, kPriorityAutoInstall);
    p->md5 = Digest::md5Hex(first);
    put({p});
    serveFull("shop", 1, first, kAppZipPrefix);
    const Error installed = update("shop", kTriggerTimer);
    ASSERT_FALSE(installed) << installed.message();
    ASSERT_TRUE(onDisk("apps/shop/1"));
    proxy_->requests.clear();
    proxy_->clearRecords();
    const std::string patched = patchedOf(version1(), version2());
    offerVersion2(patched);
    ASSERT_FALSE(find("shop")->patchMd5.empty());
    // Each form is served where an app's zips live: only the full one may be asked for.
    const std::string at = std::string(kAppZipPrefix) + "shop/";
    proxy_->serve(at + "p/2.zip", 200, patched);
    proxy_->serve(at + "i/2.zip", 200, incrementOf(version1(), version2()));
    serveFull("shop", 2, zipOf(version2()), kAppZipPrefix);
    const Error error = update("shop", kTriggerTimer);
    ASSERT_FALSE(error) << error.message();
    EXPECT_EQ(urls(), std::vector<std::string>{at + "2.zip"});
    EXPECT_EQ(find("shop")->installedSeq, 2u);
    EXPECT_TRUE(onDisk("apps/shop/2"));
    expectServes(version2());
    EXPECT_EQ(dimension(runRecord(), "form"), "full");
    EXPECT_EQ(dimension(runRecord(), "patchRefused"), "(none)");
    settle();
    EXPECT_TRUE(tempLeft().empty());
}

// A folder entry under "patch/" names no folder of the version: an application staged on the
// disk, where folders are made, gets none.
TEST_P(PatchInstallTest, FolderEntryUnderPatchMakesNoFolder) {
    if (onDiskInstall()) GTEST_SKIP() << "the same run as the packed case";
    FerritTools::ZipWriter writer;
    std::string zip, error;
    ASSERT_TRUE(writer.addFile("app-res.hvc", indexOf(version1()), error)) << error;
    FerritTools::ZipWriter::Entry folder;
    folder.name = "patch/0123456789abcdef0123456789abcdef/";
    folder.deflate = false;
    folder.unixMode = 040755;
    ASSERT_TRUE(writer.add(folder, error)) << error;
    for (const auto& [path, content] : version1())
        ASSERT_TRUE(writer.addFile("res/" + path, content, error)) << error;
    ASSERT_TRUE(writer.finish(zip, error)) << error;
    auto p = record("shop", kPackTypeACache, 1, 1, kPriorityAutoInstall);
    p->md5 = Digest::md5Hex(zip);
    put({p});
    serveFull("shop", 1, zip, kAppZipPrefix);
    const Error installed = update("shop", kTriggerTimer);
    ASSERT_FALSE(installed) << installed.message();
    ASSERT_TRUE(onDisk("apps/shop/1/res"));
    EXPECT_FALSE(onDisk("apps/shop/1/patch"));
    expectServes(version1());
}

// A record that names its own zip is fetched from there alone, whatever "cp" says: the patched
// increment lives only on the pack server.
TEST_P(PatchInstallTest, RecordWithItsOwnZipNeverAsksForThePatchedIncrement) {
    ASSERT_NO_FATAL_FAILURE(installFirst(version1()));
    const std::string full = zipOf(version2());
    offerVersion2(patchedOf(version1(), version2()));
    auto p = find("shop")->clone();
    p->subType = kSubTypeFixedUrl;
    p->zipURL = "https://cdn.test/shop-2.zip";
    p->incrMd5 = Digest::md5Hex(full);
    put({p});
    ASSERT_FALSE(find("shop")->patchMd5.empty());
    proxy_->serve(p->zipURL, 200, full);
    const Error error = update("shop", kTriggerTimer);
    ASSERT_FALSE(error) << error.message();
    EXPECT_EQ(urls(), std::vector<std::string>{p->zipURL});
    EXPECT_EQ(find("shop")->installedSeq, 2u);
    expectServes(version2());
    EXPECT_NE(dimension(runRecord(), "form"), "patched");
    EXPECT_EQ(logs_->count("patchRefused"), 0u);
}

// A preview record carries its zip's address too: the preview is fetched from there alone.
TEST_P(PatchInstallTest, PreviewRecordNeverAsksForThePatchedIncrement) {
    ASSERT_NO_FATAL_FAILURE(installFirst(version1()));
    const std::string full = zipOf(version2());
    offerVersion2(patchedOf(version1(), version2()));
    auto p = find("shop")->clone();
    p->status = kPackStatusPreview;
    p->zipURL = "https://preview.test/shop-2.zip";
    put({p});
    ASSERT_FALSE(find("shop")->patchMd5.empty());
    proxy_->serve(p->zipURL, 200, full);
    const Error error = update("shop", kTriggerPreview);
    ASSERT_FALSE(error) << error.message();
    EXPECT_EQ(urls(), std::vector<std::string>{p->zipURL});
    EXPECT_EQ(find("shop")->installedSeq, 2u);
    expectServes(version2());
    EXPECT_EQ(dimension(runRecord(), "form"), "full");
    EXPECT_EQ(logs_->count("patchRefused"), 0u);
}

INSTANTIATE_TEST_SUITE_P(Installed, PatchInstallTest, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& info) {
                             return info.param ? std::string("OnDisk") : std::string("Packed");
                         });

}  // namespace
}  // namespace FerritTest
