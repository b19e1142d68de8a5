// A fresh process for each access test, with a private root, the test proxy, a recording update
// requester, a manual clock and captured logs.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "access/UpdateRequester.h"
#include "base/AssetProvider.h"
#include "base/Digest.h"
#include "base/Environment.h"
#include "base/Folder.h"
#include "base/PackedFiles.h"
#include "base/Proxy.h"
#include "base/Telemetry.h"
#include "ferritcore/Access.h"
#include "marl/Clock.h"
#include "marl/Json.h"
#include "marl/Log.h"
#include "model/ResourceIndex.h"
#include "model/SCache.h"
#include "runtime/Settings.h"
#include "runtime/TaskRunner.h"
#include "storage/Statistics.h"
#include "tests/FakeProxy.h"
#include "tests/TestUtil.h"

namespace FerritTest {

using namespace FerritCore;

// Records every update request the read path makes.
struct UpdateRequest {
    std::string name;
    UpdateTrigger trigger;
};

// An index file as a pack carries it, signed with the test key.
inline std::string signedIndex(const std::string& json) {
    return FakeProxy::signIndex(json);
}
inline std::string signedIndex(const MarlLogger::json::JSON& table) {
    return signedIndex(table.isNull() ? std::string("{}") : table.toString());
}

// Records the read path's update requests and answers each at once: through `answer` when a test
// sets it (to do what the update would do), else with success.
class RecordingRequester : public UpdateRequester {
  public:
    void request(const std::string& name, UpdateTrigger trigger, Completion completion) override {
        requests.push_back({name, trigger});
        if (answer) {
            answer(name, std::move(completion));
        } else if (completion) {
            completion(Error());
        }
    }
    void holdPack(const std::string& name) override { ++held[name]; }
    void releasePack(const std::string& name) override {
        auto it = held.find(name);
        if (it != held.end() && --it->second == 0) held.erase(it);
    }
    void prefetch(const std::vector<std::string>& items) override { prefetched.push_back(items); }
    std::vector<UpdateRequest> requests;
    std::vector<std::vector<std::string>> prefetched;
    std::function<void(const std::string& name, Completion completion)> answer;
    // Holds of readers that are alive, by pack name.
    std::map<std::string, int> held;
};

class AccessFixture : public ProcessTest {
  protected:
    void SetUp() override {
        ProcessTest::SetUp();
        // Indexes are signed: a proxy that checks the test key is there unless a test removes it.
        proxy_ = std::make_shared<FakeProxy>();
        Environment::instance().setProxy(proxy_);
        UpdateRequester::set(requester_);
    }

    // A record; type is one of the PackType values.
    static std::shared_ptr<Pack> pack(const std::string& name, uint32_t type, uint64_t installedSeq,
                                      uint64_t seq, std::vector<std::string> prefixes = {},
                                      std::vector<std::string> referrers = {}) {
        auto p = std::make_shared<Pack>();
        p->name = name;
        p->flags = type;
        p->installedSeq = installedSeq;
        p->seq = seq;
        p->prefixes = std::move(prefixes);
        p->referrers = std::move(referrers);
        p->updateTime = MRLCurrentTime();
        return p;
    }

    // The asynchronous form, as far as it goes without the worker: the answer, or null when none
    // came yet. An answer never comes twice.
    static std::unique_ptr<ResourceResponse> getAsync(const ResourceRequest& request) {
        std::unique_ptr<ResourceResponse> got;
        int calls = 0;
        Access::getResource(request, [&](std::unique_ptr<ResourceResponse> r) {
            ++calls;
            got = std::move(r);
        });
        EXPECT_LE(calls, 1);
        return got;
    }

    static void install(std::vector<std::shared_ptr<Pack>> packs, double lastUpdate = 0) {
        SCache::mutate([&](FConfig& config) {
            config.version = "42";
            config.lastUpdate = lastUpdate > 0 ? lastUpdate : MRLCurrentTime();
            for (auto& p : packs) config.put(p);
        });
        TaskRunner::runDue();  // the commit of the transaction
    }

    // A resource table {path: {"url", "v", "header"}}.
    static MarlLogger::json::JSON table(
        std::vector<std::pair<std::string, std::string>> pathsAndUrls) {
        MarlLogger::json::JSON t;
        for (auto& [path, url] : pathsAndUrls) {
            MarlLogger::json::JSON entry;
            if (!url.empty()) entry.set("url", url);
            entry.set("v", "0123456789abcdef0123456789abcdef");
            t.set(path, entry);
        }
        return t;
    }

    // {path: {"url", "v"}} whose "v" is the real MD5 of the content, for verified reads.
    static MarlLogger::json::JSON tableOf(
        const std::vector<std::tuple<std::string, std::string, std::string>>& pathUrlContent) {
        MarlLogger::json::JSON t;
        for (const auto& [path, url, content] : pathUrlContent) {
            MarlLogger::json::JSON entry;
            if (!url.empty()) entry.set("url", url);
            entry.set("v", Digest::md5Hex(content));
            t.set(path, entry);
        }
        return t;
    }

    // Writes each table as the signed full list "app-res.hvc" of the installed folder of the
    // pack of that name in the current configuration (a Disk pack under "apps/").
    void serveIndexes(std::map<std::string, MarlLogger::json::JSON> tables) {
        for (const auto& [name, table] : tables) {
            PackPtr p = SCache::current()->find(name);
            ASSERT_NE(p, nullptr) << name;
            const Folder folder = p->installedFolder();
            ASSERT_EQ(folder.kind(), FolderKind::Disk) << name;
            writeFile(folder.relative() + "app-res.hvc", signedIndex(table));
        }
    }

    // Writes a file below the root.
    void writeFile(const std::string& relative, const std::string& content) {
        std::filesystem::path path = temp_.path() / relative;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << content;
    }

    std::shared_ptr<FakeProxy> proxy_;
    std::shared_ptr<RecordingRequester> requester_ = std::make_shared<RecordingRequester>();
    std::vector<UpdateRequest>& updates = requester_->requests;
    MarlLogger::ScopedManualClock clock_;
    MarlLogger::ScopedCapture logs_;
};

}  // namespace FerritTest
