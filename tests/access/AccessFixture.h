// A clean process-wide state for each access test: empty configuration, default settings, no
// proxy, an empty index pool and task queue, a manual clock, captured logs and a private root.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "TestUtil.h"
#include "access/ResourceIndex.h"
#include "marl/Clock.h"
#include "marl/Json.h"
#include "marl/Log.h"
#include "runtime/Environment.h"
#include "runtime/Proxy.h"
#include "runtime/Settings.h"
#include "runtime/TaskRunner.h"
#include "runtime/Telemetry.h"
#include "storage/Folder.h"
#include "storage/Statistics.h"
#include "update/SCache.h"
#include "update/UpdateQueue.h"

namespace FerritTest {

using namespace FerritCore;

// Records every update request the read path makes.
struct UpdateRequest {
    std::string name;
    int trigger;
};

// Records performance records; signatures are accepted or refused as the test says.
class RecordingProxy : public Proxy {
public:
    bool verifySignature(const std::string&, const std::string&) override { return accept; }
    void sendEvent(const PerfRecord& record) override {
        names.push_back(record.name());
        dimensions.push_back(record.dimensions());
    }
    bool accept = true;
    std::vector<std::string> names;
    std::vector<std::unordered_map<std::string, std::string>> dimensions;
};

class AccessFixture : public ::testing::Test {
protected:
    void SetUp() override {
        SCache::reset();
        Settings::reset();
        Environment::instance().resetForTesting();
        ResourceIndexPool::reset();
        ResourceIndexPool::setLoader(nullptr);
        Statistics::clear();
        TaskRunner::clear();
        setRootPath(temp_.root());
        UpdateQueue::setHandler([this](const std::string& name, int trigger, UpdateQueue::Completion done) {
            updates.push_back({name, trigger});
            if (done) done(Error());
        });
    }
    void TearDown() override {
        UpdateQueue::setHandler(nullptr);
        ResourceIndexPool::setLoader(nullptr);
        ResourceIndexPool::reset();
        TaskRunner::clear();
        SCache::reset();
        Settings::reset();
        Environment::instance().resetForTesting();
    }

    // A record; type is one of the PackType values.
    static std::shared_ptr<Pack> pack(const std::string& name, uint32_t type, uint64_t installedSeq, uint64_t seq,
                                      std::vector<std::string> prefixes = {}, std::vector<std::string> referrers = {}) {
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

    static void install(std::vector<std::shared_ptr<Pack>> packs, double lastUpdate = 0) {
        SCache::mutate([&](FConfig& config) {
            config.version = "42";
            config.lastUpdate = lastUpdate > 0 ? lastUpdate : MRLCurrentTime();
            for (auto& p : packs) config.put(p);
        });
    }

    // A resource table {path: {"url", "v", "header"}}.
    static MarlLogger::json::JSON table(std::vector<std::pair<std::string, std::string>> pathsAndUrls) {
        MarlLogger::json::JSON t;
        for (auto& [path, url] : pathsAndUrls) {
            MarlLogger::json::JSON entry;
            if (!url.empty()) entry.set("url", url);
            entry.set("v", "0123456789abcdef0123456789abcdef");
            t.set(path, entry);
        }
        return t;
    }

    // Serves `tables` by pack name through the pool's folder loader.
    void serveIndexes(std::map<std::string, MarlLogger::json::JSON> tables) {
        ResourceIndexPool::setLoader([tables = std::move(tables)](const Pack& p) -> ResourceIndexPtr {
            auto it = tables.find(p.name);
            if (it == tables.end()) return nullptr;
            return std::make_shared<const ResourceIndex>(p.name, it->second);
        });
    }

    // Writes a file below the root.
    void writeFile(const std::string& relative, const std::string& content) {
        std::filesystem::path path = temp_.path() / relative;
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path, std::ios::binary) << content;
    }

    TempDir temp_;
    MarlLogger::ScopedManualClock clock_;
    MarlLogger::ScopedCapture logs_;
    std::vector<UpdateRequest> updates;
};

}  // namespace FerritTest
