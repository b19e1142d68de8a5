// What the crash tests share: the pack they install (two versions of a synthetic site, published
// in full and as an increment), a process started on a root as a host starts it, one update run
// to its end, how a restart's answers compare with the two versions, and a database VFS that
// hands every call to the default one but those a test wants to watch.
//
// The tests differ in how a run is cut short (a kill, a power cut) and in what a cut loses; the
// install they cut and the reading after it must stay the same, so that their results compare.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <string>

#include "base/Digest.h"
#include "base/Environment.h"
#include "base/Errors.h"
#include "ferritcore/Access.h"
#include "ferritcore/ResourceRequest.h"
#include "ferritcore/ResourceResponse.h"
#include "lifecycle/Setup.h"
#include "marl/Clock.h"
#include "model/ResourceIndex.h"
#include "model/SCache.h"
#include "runtime/Settings.h"
#include "runtime/TaskRunner.h"
#include "tests/FakeProxy.h"
#include "tests/SyntheticSite.h"
#include "tools/pack/PackBuilder.h"
#include "update/UpdatePack.h"
#include "update/UpdateQueue.h"

namespace FerritCrash {

namespace fs = std::filesystem;

inline constexpr const char* kSite = "https://shop.test/app/";
inline constexpr const char* kZipPrefix = "https://dl.test/";
inline constexpr const char* kAppZipPrefix = "https://app.test/";
// The share of files that the second version changes, adds or removes.
inline constexpr double kChangedFraction = 0.3;

// A positive number from the environment, or `fallback` when it is unset or not one. The parent
// and its children read the same environment, so they agree on what it sets.
inline int fromEnvironment(const char* name, int fallback) {
    const char* text = std::getenv(name);
    const int value = text != nullptr ? std::atoi(text) : 0;
    return value > 0 ? value : fallback;
}

// One install under test: which pack, of which type, and whether version 2 comes as an increment
// on version 1 or in full.
struct Scenario {
    const char* label;
    const char* name;
    uint32_t type;
    bool incremental;
};

inline std::string readAll(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

inline void writeAll(const fs::path& path, const std::string& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

// Version `which` (1 or 2) of a site of `files` files; the same seed gives the same site.
inline FerritTest::SiteFiles siteVersion(int which, int files, size_t bytesPerFile, uint64_t seed) {
    const FerritTest::SiteFiles first =
        FerritTest::SyntheticSite::make(files, static_cast<size_t>(files) * bytesPerFile, seed);
    return which == 1 ? first
                      : FerritTest::SyntheticSite::nextVersion(first, kChangedFraction, seed + 1);
}

inline FerritTools::PackOptions packOptions() {
    FerritTools::PackOptions options;
    options.urlPrefix = kSite;
    options.signer = [](const std::string& md5Hex, std::string& signature, std::string&) {
        signature = FerritTest::FakeProxy::signatureOf(md5Hex);
        return true;
    };
    options.level = 6;
    return options;
}

// The zips a server would publish: version 1 in full, and version 2 in full and as an increment.
inline void writeFixtures(const fs::path& folder, const FerritTest::SiteFiles& first,
                          const FerritTest::SiteFiles& second) {
    fs::create_directories(folder);
    FerritTools::PackContent one, two;
    one.files = first;
    two.files = second;
    std::string zip, error;
    ASSERT_TRUE(FerritTools::buildPack(one, packOptions(), zip, error)) << error;
    writeAll(folder / "v1.zip", zip);
    ASSERT_TRUE(FerritTools::buildPack(two, packOptions(), zip, error)) << error;
    writeAll(folder / "v2.zip", zip);
    ASSERT_TRUE(FerritTools::buildIncrement(one, two, packOptions(), zip, error)) << error;
    writeAll(folder / "v2-increment.zip", zip);
}

// Says whether a run was cut short: no task may run after that.
using Halted = bool (*)();

// Runs every task that is due, until none is or the run is cut short.
inline void drive(Halted halted = nullptr) {
    while ((halted == nullptr || !halted()) && FerritCore::TaskRunner::runDue() > 0) {
    }
}

// The start of a process on `root`, as a host makes it, with the proxy serving the fixtures.
template <typename Proxy = FerritTest::FakeProxy>
std::shared_ptr<Proxy> start(const std::string& root, const fs::path& fixtures,
                             const Scenario& scenario) {
    using namespace FerritCore;
    auto proxy = std::make_shared<Proxy>();
    const std::string prefix = scenario.type == kPackTypeACache ? kAppZipPrefix : kZipPrefix;
    const std::string name = scenario.name;
    proxy->serve(prefix + name + "/1.zip", 200, readAll(fixtures / "v1.zip"));
    proxy->serve(prefix + name + "/2.zip", 200, readAll(fixtures / "v2.zip"));
    proxy->serve(prefix + name + "/i/2.zip", 200, readAll(fixtures / "v2-increment.zip"));
    HostDefaults defaults;
    defaults.zipPrefix = kZipPrefix;
    defaults.acacheZipPrefix = kAppZipPrefix;
    Settings::setDefaults(defaults);
    Setup::setProxy(proxy, root);
    Environment::instance().setNetworkStatusValue(NetworkStatus::kUnrestricted);
    return proxy;
}

// One update of the pack, the replaced version's deletion included. `result` outlives the run: a
// run cut short leaves its completion pending, and it must not write to a stack that is gone.
inline void updatePack(const Scenario& scenario, MarlLogger::ManualClock& clock,
                       FerritCore::Error& result, Halted halted = nullptr) {
    using namespace FerritCore;
    result = Error(-1, "never completed");
    UpdateQueue::request(scenario.name, kTriggerTimer,
                         [&result](const Error& error) { result = error; });
    drive(halted);
    clock.advance(UpdatePack::kRetiredFolderDelayMs + 1);
    drive(halted);
}

// The configured record of version `seq`.
inline void configure(const Scenario& scenario, uint64_t seq, const fs::path& fixtures,
                      Halted halted = nullptr) {
    using namespace FerritCore;
    SCache::mutate([&](FConfig& config) {
        PackPtr old = config.find(scenario.name);
        auto pack = old ? old->clone() : std::make_shared<Pack>();
        pack->name = scenario.name;
        pack->flags = scenario.type | kPriorityAutoInstall;
        pack->seq = seq;
        pack->baseSeq = scenario.incremental ? 1 : seq;
        pack->prefixes = {kSite};
        pack->md5 = Digest::md5Hex(readAll(fixtures / ("v" + std::to_string(seq) + ".zip")));
        pack->incrMd5 = Digest::md5Hex(readAll(fixtures / "v2-increment.zip"));
        pack->updateTime = MRLCurrentTime();
        config.version = std::to_string(seq);
        config.lastUpdate = MRLCurrentTime();
        config.put(std::move(pack));
    });
    drive(halted);
}

// How each answer compares with the two versions.
enum class Verdict { Old, New, Either, Bad };

inline Verdict judge(const FerritTest::SiteFiles& one, const FerritTest::SiteFiles& two,
                     const std::string& path, const FerritCore::ResourceResponse& response) {
    // A path that only one version has: the other answers "not in this pack".
    const int notInPack = FerritCore::Errors::notFerritPackResource(std::string()).code();
    auto in1 = one.find(path);
    auto in2 = two.find(path);
    const bool asOld = in1 != one.end() ? (!response.error && response.data == in1->second)
                                        : response.error.code() == notInPack;
    const bool asNew = in2 != two.end() ? (!response.error && response.data == in2->second)
                                        : response.error.code() == notInPack;
    if (asOld && asNew) return Verdict::Either;
    if (asOld) return Verdict::Old;
    if (asNew) return Verdict::New;
    return Verdict::Bad;
}

// What a restart serves for every path of either version.
struct Reading {
    size_t olds = 0, news = 0, bads = 0;
};

// Reads every path of either version; `onBad` sees each answer that is neither version's.
template <typename OnBad>
Reading readEvery(const FerritTest::SiteFiles& one, const FerritTest::SiteFiles& two, OnBad onBad) {
    using namespace FerritCore;
    std::set<std::string> paths;
    for (const auto& [path, content] : one) paths.insert(path);
    for (const auto& [path, content] : two) paths.insert(path);
    Reading reading;
    for (const std::string& path : paths) {
        ResourceRequest request(std::string(kSite) + path, std::string());
        std::unique_ptr<ResourceResponse> response = Access::getResource(request);
        switch (judge(one, two, path, *response)) {
            case Verdict::Old:
                ++reading.olds;
                break;
            case Verdict::New:
                ++reading.news;
                break;
            case Verdict::Either:
                break;
            case Verdict::Bad:
                onBad(path, *response, reading.bads++);
                break;
        }
    }
    return reading;
}

// Whether every file that the installed version's list names is there and whole.
inline FerritCore::Error verifyInstalled(const Scenario& scenario) {
    using namespace FerritCore;
    Error error;
    if (PackPtr pack = SCache::current()->find(scenario.name)) {
        const ResourceIndexPtr index = ResourceIndexPool::get(*pack);
        if (index && index->folder()) index->verifyFiles(*index->folder(), error);
    }
    return error;
}

// ---- A database VFS over the default one -------------------------------------------------------

// The head of each file handle: the test's own fields follow it, and the default VFS's handle lies
// right behind those, in the space the database allocates.
struct WrappedFile {
    sqlite3_file base;
    sqlite3_file* real;
};

// What a test watches; a call without a hook goes straight to the default VFS.
struct VfsHooks {
    const char* name = nullptr;
    // The size of the test's handle, WrappedFile at its head.
    int fileSize = static_cast<int>(sizeof(WrappedFile));
    // Before the default VFS opens the file.
    void (*open)(sqlite3_file* file, sqlite3_filename name, int flags) = nullptr;
    // Before a file is deleted: anything but SQLITE_OK refuses the deletion.
    int (*remove)(const char* name) = nullptr;
    int (*write)(sqlite3_file* file, const void* data, int amount, sqlite3_int64 offset) = nullptr;
    int (*truncate)(sqlite3_file* file, sqlite3_int64 size) = nullptr;
    int (*sync)(sqlite3_file* file, int flags) = nullptr;
};

inline sqlite3_vfs* realVfs = nullptr;
inline sqlite3_vfs wrapVfs;
inline sqlite3_io_methods wrapMethods;
inline VfsHooks vfsHooks;

inline sqlite3_file* realOf(sqlite3_file* file) {
    return reinterpret_cast<WrappedFile*>(file)->real;
}

// Registers the VFS as the default: call it before any store opens.
inline void installVfs(const VfsHooks& hooks) {
    vfsHooks = hooks;
    realVfs = sqlite3_vfs_find(nullptr);
    wrapVfs = *realVfs;
    wrapVfs.zName = hooks.name;
    wrapVfs.szOsFile = hooks.fileSize + realVfs->szOsFile;
    wrapVfs.xOpen = [](sqlite3_vfs*, sqlite3_filename name, sqlite3_file* file, int flags,
                       int* outFlags) {
        auto* own = reinterpret_cast<WrappedFile*>(file);
        own->real =
            reinterpret_cast<sqlite3_file*>(reinterpret_cast<char*>(file) + vfsHooks.fileSize);
        if (vfsHooks.open != nullptr) vfsHooks.open(file, name, flags);
        const int rc = realVfs->xOpen(realVfs, name, own->real, flags, outFlags);
        own->base.pMethods = own->real->pMethods != nullptr ? &wrapMethods : nullptr;
        return rc;
    };
    wrapVfs.xDelete = [](sqlite3_vfs*, const char* name, int syncDirectory) {
        if (vfsHooks.remove != nullptr) {
            const int rc = vfsHooks.remove(name);
            if (rc != SQLITE_OK) return rc;
        }
        return realVfs->xDelete(realVfs, name, syncDirectory);
    };
    wrapVfs.pNext = nullptr;
    wrapMethods = sqlite3_io_methods{
        3,
        [](sqlite3_file* f) {
            sqlite3_file* real = realOf(f);
            const int rc = real->pMethods->xClose(real);
            f->pMethods = nullptr;
            return rc;
        },
        [](sqlite3_file* f, void* out, int amount, sqlite3_int64 offset) {
            return realOf(f)->pMethods->xRead(realOf(f), out, amount, offset);
        },
        [](sqlite3_file* f, const void* in, int amount, sqlite3_int64 offset) {
            if (vfsHooks.write != nullptr) return vfsHooks.write(f, in, amount, offset);
            return realOf(f)->pMethods->xWrite(realOf(f), in, amount, offset);
        },
        [](sqlite3_file* f, sqlite3_int64 size) {
            if (vfsHooks.truncate != nullptr) return vfsHooks.truncate(f, size);
            return realOf(f)->pMethods->xTruncate(realOf(f), size);
        },
        [](sqlite3_file* f, int flags) {
            if (vfsHooks.sync != nullptr) return vfsHooks.sync(f, flags);
            return realOf(f)->pMethods->xSync(realOf(f), flags);
        },
        [](sqlite3_file* f, sqlite3_int64* size) {
            return realOf(f)->pMethods->xFileSize(realOf(f), size);
        },
        [](sqlite3_file* f, int lock) { return realOf(f)->pMethods->xLock(realOf(f), lock); },
        [](sqlite3_file* f, int lock) { return realOf(f)->pMethods->xUnlock(realOf(f), lock); },
        [](sqlite3_file* f, int* out) {
            return realOf(f)->pMethods->xCheckReservedLock(realOf(f), out);
        },
        [](sqlite3_file* f, int op, void* arg) {
            return realOf(f)->pMethods->xFileControl(realOf(f), op, arg);
        },
        [](sqlite3_file* f) { return realOf(f)->pMethods->xSectorSize(realOf(f)); },
        [](sqlite3_file* f) { return realOf(f)->pMethods->xDeviceCharacteristics(realOf(f)); },
        [](sqlite3_file* f, int region, int size, int extend, void volatile** out) {
            return realOf(f)->pMethods->xShmMap(realOf(f), region, size, extend, out);
        },
        [](sqlite3_file* f, int offset, int n, int flags) {
            return realOf(f)->pMethods->xShmLock(realOf(f), offset, n, flags);
        },
        [](sqlite3_file* f) { realOf(f)->pMethods->xShmBarrier(realOf(f)); },
        [](sqlite3_file* f, int deleteFlag) {
            return realOf(f)->pMethods->xShmUnmap(realOf(f), deleteFlag);
        },
        [](sqlite3_file* f, sqlite3_int64 offset, int amount, void** out) {
            return realOf(f)->pMethods->xFetch(realOf(f), offset, amount, out);
        },
        [](sqlite3_file* f, sqlite3_int64 offset, void* pointer) {
            return realOf(f)->pMethods->xUnfetch(realOf(f), offset, pointer);
        },
    };
    sqlite3_vfs_register(&wrapVfs, 1);
}

}  // namespace FerritCrash
