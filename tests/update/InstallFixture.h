// A fresh process for each pack update test: a private root with its folders, the real packs
// store (the configuration and the files of packed packs), the test proxy serving pack zips built
// with the pack kit and signed with the test key, a manual clock, captured logs, and a fixed seed
// for the stretch of disabled periods. Tasks run only when the test drives the worker.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "base/Digest.h"
#include "base/Environment.h"
#include "base/Folder.h"
#include "base/PackedFiles.h"
#include "base/Proxy.h"
#include "ferritcore/Access.h"
#include "ferritcore/ResourceRequest.h"
#include "ferritcore/ResourceResponse.h"
#include "marl/Clock.h"
#include "marl/Json.h"
#include "marl/Log.h"
#include "model/PacksConfigStorage.h"
#include "model/ResourceIndex.h"
#include "model/SCache.h"
#include "runtime/Settings.h"
#include "runtime/TaskRunner.h"
#include "storage/PacksStore.h"
#include "tests/FakeProxy.h"
#include "tests/TestUtil.h"
#include "tools/pack/PackBuilder.h"
#include "update/UpdatePack.h"
#include "update/UpdateQueue.h"

namespace FerritTest {

using namespace FerritCore;
using FerritTools::PackContent;
using FerritTools::PackFiles;

class InstallFixture : public ProcessTest {
  protected:
    static constexpr const char* kConfigPrefix = "https://cfg.test/";
    static constexpr const char* kZipPrefix = "https://dl.test/";
    static constexpr const char* kAppZipPrefix = "https://app.test/";
    static constexpr const char* kSite = "https://shop.test/app/";

    void SetUp() override {
        ProcessTest::SetUp();
        initFolders(temp_.root());
        PackedFiles::set(PacksStore::files());
        SCache::setStorage(std::make_shared<PacksConfigStorage>());
        proxy_ = std::make_shared<FakeProxy>();
        Environment& environment = Environment::instance();
        environment.setProxy(proxy_);
        environment.setNetworkStatusValue(NetworkStatus::kUnrestricted);
        environment.setClientActive(true);
        HostDefaults defaults;
        defaults.configPrefix = kConfigPrefix;
        defaults.zipPrefix = kZipPrefix;
        defaults.acacheZipPrefix = kAppZipPrefix;
        Settings::setDefaults(defaults);
        UpdatePack::setRandomSource(seededDraws(20240611));
    }

    // ---- The pack kit, signing with the test key.

    static FerritTools::Signer signer() {
        return [](const std::string& md5Hex, std::string& signature, std::string&) {
            signature = FakeProxy::signatureOf(md5Hex);
            return true;
        };
    }
    static FerritTools::PackOptions options(const std::string& urlPrefix = kSite) {
        FerritTools::PackOptions options;
        options.urlPrefix = urlPrefix;
        options.signer = signer();
        return options;
    }
    static std::string zipOf(const PackFiles& files, const std::string& urlPrefix = kSite) {
        PackContent content;
        content.files = files;
        std::string zip, error;
        EXPECT_TRUE(FerritTools::buildPack(content, options(urlPrefix), zip, error)) << error;
        return zip;
    }
    static std::string incrementOf(const PackFiles& previous, const PackFiles& current) {
        PackContent before, after;
        before.files = previous;
        after.files = current;
        std::string zip, error;
        EXPECT_TRUE(FerritTools::buildIncrement(before, after, options(), zip, error)) << error;
        return zip;
    }
    // A signed list as a pack carries it, for zips that tests put together by hand.
    static std::string indexOf(const PackFiles& files, const std::vector<std::string>& removed = {},
                               const std::string& urlPrefix = kSite) {
        PackContent content;
        content.files = files;
        std::string json, signedIndex, error;
        EXPECT_TRUE(FerritTools::indexJson(content, urlPrefix, removed, json, error)) << error;
        EXPECT_TRUE(FerritTools::signIndex(json, "ed25519", signer(), signedIndex, error)) << error;
        return signedIndex;
    }

    // "shop", a plain incremental pack, installed at seq 1 (base 1) from version 1 through a real
    // task.
    void installShop() {
        const std::string zip = zipOf(version1());
        auto p = record("shop", kPackTypeFerrit, 1, 1, kPriorityAutoInstall);
        p->md5 = Digest::md5Hex(zip);
        put({p});
        serveFull("shop", 1, zip);
        const Error error = update("shop", kTriggerTimer);
        ASSERT_FALSE(error) << error.message();
    }

    // Version 1 and version 2 of a small site: one page changed, one added, one removed.
    static PackFiles version1() {
        return {{"index.html", "<!doctype html><title>v1</title>"},
                {"js/app.js", "console.log('v1');"},
                {"css/app.css", "body{color:red}"},
                {"img/logo.png", std::string("\x89PNG\r\n\x1a\n\0\0v1", 12)},
                {"old.txt", "going away"}};
    }
    static PackFiles version2() {
        PackFiles files = version1();
        files["index.html"] = "<!doctype html><title>v2</title>";
        files["js/extra.js"] = "export const extra = 2;";
        files.erase("old.txt");
        return files;
    }

    // ---- Records.

    // A record as a configuration would list it; `type` is a PackType, `priority` the low bits.
    static std::shared_ptr<Pack> record(const std::string& name, uint32_t type, uint64_t seq,
                                        uint64_t baseSeq, uint32_t priority = 0) {
        auto p = std::make_shared<Pack>();
        p->name = name;
        p->flags = type | priority;
        p->seq = seq;
        p->baseSeq = baseSeq;
        p->prefixes = {kSite};
        p->updateTime = MRLCurrentTime();
        return p;
    }
    // Stores records as they are (installed fields included) and runs the commit.
    void put(std::vector<std::shared_ptr<Pack>> packs) {
        SCache::mutate([&](FConfig& config) {
            config.version = "42";
            config.lastUpdate = MRLCurrentTime();
            for (auto& p : packs) config.put(p);
        });
        drive();
    }
    static PackPtr find(const std::string& name) { return SCache::current()->find(name); }

    // Serves the full zip of `name` at `seq` where a task asks for it.
    void serveFull(const std::string& name, uint64_t seq, const std::string& zip,
                   const char* prefix = kZipPrefix) {
        proxy_->serve(std::string(prefix) + name + "/" + std::to_string(seq) + ".zip", 200, zip);
    }
    // An answer that never comes.
    static FakeProxy::Answer silent() {
        FakeProxy::Answer answer;
        answer.never = true;
        return answer;
    }
    void serveIncrement(const std::string& name, uint64_t seq, const std::string& zip) {
        proxy_->serve(std::string(kZipPrefix) + name + "/i/" + std::to_string(seq) + ".zip", 200,
                      zip);
    }

    // Writes a version's folder as an install leaves it: the signed list and "res/<path>" files,
    // on the disk for a Disk folder, as keys for a Packed one.
    void writeVersion(const Folder& folder, const PackFiles& files) {
        std::vector<std::pair<std::string, std::string>> entries;
        entries.emplace_back("app-res.hvc", indexOf(files));
        for (const auto& [path, content] : files) entries.emplace_back("res/" + path, content);
        for (const auto& [path, content] : entries) {
            const Folder file = folder.childOf(path);
            file.ensureParent();
            Error error;
            ASSERT_TRUE(Folder::writeFile(file, content, error)) << error.message();
        }
    }

    // ---- Running.

    // Runs every task that is due, and what those post, until nothing more is due.
    static void drive() {
        while (TaskRunner::runDue() > 0) {
        }
    }
    // Moves the clock past the deletion of replaced versions and runs what came due.
    void settle() {
        clock_->advance(UpdatePack::kRetiredFolderDelayMs + 1);
        drive();
    }
    // One update through the queue, driven to its end; the completion's error.
    Error update(const std::string& name, UpdateTrigger trigger) {
        Error result(-1, "never completed");
        UpdateQueue::request(name, trigger, [&](const Error& error) { result = error; });
        drive();
        return result;
    }
    // One task made and started by hand, driven to its end.
    Error run(const UpdatePackPtr& task) {
        Error result(-1, "never completed");
        task->addListener([&](const Error& error) { result = error; });
        TaskRunner::post([task] { task->start(); });
        drive();
        return result;
    }

    // ---- Reading.

    struct Answer {
        std::string body;
        Error error;
    };
    static Answer read(const std::string& path) {
        ResourceRequest request(std::string(kSite) + path, std::string());
        std::unique_ptr<ResourceResponse> response = Access::getResource(request);
        return {response->data, response->error};
    }
    // Every path of `files` reads as its content.
    static void expectServes(const PackFiles& files) {
        for (const auto& [path, content] : files) {
            const Answer answer = read(path);
            EXPECT_FALSE(answer.error) << path << ": " << answer.error.message();
            EXPECT_EQ(answer.body, content) << path;
        }
    }

    // ---- The disk.

    bool onDisk(const std::string& relative) const {
        return std::filesystem::exists(temp_.path() / relative);
    }
    std::string readDisk(const std::string& relative) const {
        std::ifstream in(temp_.path() / relative, std::ios::binary);
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    // Entries left under "temp/".
    std::vector<std::string> tempLeft() const {
        std::vector<std::string> left;
        for (const auto& entry : std::filesystem::directory_iterator(temp_.path() / "temp"))
            left.push_back(entry.path().filename().string());
        return left;
    }
    // Keys of the packed store below `prefix`.
    static std::vector<std::string> packedKeys(const std::string& prefix) {
        std::vector<std::string> keys;
        PackedFiles::current()->enumerate(prefix, [&](std::string_view key) {
            keys.emplace_back(key);
            return false;
        });
        return keys;
    }

    std::shared_ptr<FakeProxy> proxy_;
    MarlLogger::ScopedManualClock clock_;
    MarlLogger::ScopedCapture logs_;
};

}  // namespace FerritTest
