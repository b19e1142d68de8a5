// A clean process-wide state for each access test: empty configuration, default settings, no
// proxy, an empty index pool and task queue, a manual clock, captured logs and a private root.
#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <openssl/evp.h>

#include "TestUtil.h"
#include "access/Digest.h"
#include "access/ResourceIndex.h"
#include "marl/Clock.h"
#include "marl/Json.h"
#include "marl/Log.h"
#include "runtime/Environment.h"
#include "runtime/Proxy.h"
#include "runtime/Settings.h"
#include "runtime/TaskRunner.h"
#include "runtime/Telemetry.h"
#include "storage/AssetProvider.h"
#include "storage/Folder.h"
#include "storage/PackedFiles.h"
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

// The test signature scheme: the bytes "signed:" followed by the MD5 text. A real host verifies
// an asymmetric signature; what matters here is that a signature over other text is refused.
inline std::string testSignature(const std::string& md5Hex) {
    return "signed:" + md5Hex;
}

inline std::string base64(std::string_view bytes) {
    std::string out(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    const int n = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(out.data()),
                                  reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
    out.resize(n > 0 ? static_cast<size_t>(n) : 0);
    return out;
}

// An index file as a pack carries it: the JSON, "||", a token, "|", the base64 signature.
inline std::string signedIndex(const std::string& json) {
    return json + "||token|" + base64(testSignature(Digest::md5Hex(json)));
}
inline std::string signedIndex(const MarlLogger::json::JSON& table) {
    return signedIndex(table.isNull() ? std::string("{}") : table.toString());
}

// Records performance records; signatures are accepted when they follow the test scheme and
// `accept` is set, so that a test can refuse them all.
class RecordingProxy : public Proxy {
public:
    bool verifySignature(const std::string& md5Hex, const std::string& signature) override {
        ++verifications;
        return accept && signature == testSignature(md5Hex);
    }
    void sendEvent(const PerfRecord& record) override {
        names.push_back(record.name());
        dimensions.push_back(record.dimensions());
    }
    bool accept = true;
    int verifications = 0;
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
        AssetProvider::set(nullptr);
        PackedFiles::set(nullptr);
        setRootPath(temp_.root());
        // Indexes are signed: a proxy that checks the test scheme is there unless a test removes it.
        proxy_ = std::make_shared<RecordingProxy>();
        Environment::instance().setProxy(proxy_);
        UpdateQueue::setHandler([this](const std::string& name, int trigger, UpdateQueue::Completion done) {
            updates.push_back({name, trigger});
            if (done) done(Error());
        });
    }
    void TearDown() override {
        UpdateQueue::setHandler(nullptr);
        ResourceIndexPool::setLoader(nullptr);
        ResourceIndexPool::reset();
        AssetProvider::set(nullptr);
        PackedFiles::set(nullptr);
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
        TaskRunner::runDue();  // the commit of the transaction
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

    TempDir temp_;
    std::shared_ptr<RecordingProxy> proxy_;
    MarlLogger::ScopedManualClock clock_;
    MarlLogger::ScopedCapture logs_;
    std::vector<UpdateRequest> updates;
};

}  // namespace FerritTest
