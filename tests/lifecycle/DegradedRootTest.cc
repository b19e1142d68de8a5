// Degraded, not dark: a root that cannot be written (a read-only mount, a full disk, a write that
// fails in the middle of an install) keeps serving what is installed, byte for byte; the status
// report and the inspector say why; updating waits without piling up errors; and the next trigger
// after writing works again resumes by itself and installs.
//
// Real faults where the machine allows them: a read-only bind mount and a small tmpfs filled to
// its last byte (as root, as CI runs). Where mounting is refused the test says so on its output
// and meets the same fault through the file layer instead.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <unordered_set>

#include "base/Errors.h"
#include "base/FileUtil.h"
#include "base/StorageState.h"
#include "lifecycle/DevInspector.h"
#include "lifecycle/Services.h"
#include "lifecycle/Setup.h"
#include "marl/Inspector.h"
#include "storage/PacksStore.h"
#include "tests/update/InstallFixture.h"
#include "update/UpdateConfig.h"

namespace FerritTest {

namespace Errors = FerritCore::Errors;
namespace {

// Refuses with one errno every change of the disk under a folder, while armed: names are not
// made, and the bytes of files opened there are not written (a full disk takes the name and
// refuses the data).
class RefusingCalls : public FileUtil::Calls {
  public:
    RefusingCalls(std::string under, int errnum) : under_(std::move(under)), errnum_(errnum) {}
    bool armed = false;

    FILE* openForWrite(const char* path, const char* mode) override {
        FILE* file = FileUtil::Calls::openForWrite(path, mode);
        if (file != nullptr && under(path)) opened_.insert(file);
        return file;
    }
    size_t write(FILE* file, const void* data, size_t size) override {
        if (armed && opened_.count(file) != 0) {
            errno = errnum_;
            return 0;
        }
        return FileUtil::Calls::write(file, data, size);
    }
    int makeDirectory(const char* path, mode_t mode) override {
        return refuses(path) ? -1 : FileUtil::Calls::makeDirectory(path, mode);
    }
    int rename(const char* from, const char* to) override {
        return refuses(to) ? -1 : FileUtil::Calls::rename(from, to);
    }
    int link(const char* from, const char* to) override {
        return refuses(to) ? -1 : FileUtil::Calls::link(from, to);
    }

  private:
    bool under(const char* path) const { return std::string_view(path).starts_with(under_); }
    bool refuses(const char* path) {
        if (!armed || !under(path)) return false;
        errno = errnum_;
        return true;
    }
    std::string under_;
    int errnum_;
    // Streams are never closed through this layer; a reused address only widens the refusal.
    std::unordered_set<FILE*> opened_;
};

class DegradedRootTest : public InstallFixture {
  protected:
    void SetUp() override {
        InstallFixture::SetUp();
        Services::wire();
    }
    void TearDown() override {
        FileUtil::setCalls(nullptr);
        InstallFixture::TearDown();
        unmount();
    }
    ~DegradedRootTest() override { unmount(); }

    // A new process started at `root` the way the host starts one: everything reset, then the
    // proxy and the root (which loads the stored configuration).
    void startAt(const std::string& root) {
        ProcessState::resetForTesting();
        Environment& environment = Environment::instance();
        environment.setNetworkStatusValue(NetworkStatus::kUnrestricted);
        environment.setClientActive(true);
        HostDefaults defaults;
        defaults.configPrefix = kConfigPrefix;
        defaults.zipPrefix = kZipPrefix;
        defaults.acacheZipPrefix = kAppZipPrefix;
        Settings::setDefaults(defaults);
        UpdatePack::setRandomSource(seededDraws(20240611));
        Setup::setProxy(proxy_, root);
    }

    // "app", a pack installed under "apps/" as files, at `seq` with `files`.
    void installApp(uint64_t seq, const PackFiles& files) {
        const std::string zip = zipOf(files);
        PackPtr old = find("app");
        auto p =
            old ? old->clone() : record("app", kPackTypeACache, seq, seq, kPriorityAutoInstall);
        p->seq = seq;
        p->baseSeq = seq;
        p->md5 = Digest::md5Hex(zip);
        put({p});
        serveFull("app", seq, zip, kAppZipPrefix);
    }

    static std::string storageState() { return Setup::statusReport()["storage"].stringValue(); }
    static bool reportsReadOnly() {
        const MarlLogger::json::JSON report = Setup::statusReport();
        for (const auto& code : report["error"].arrayValue()) {
            if (code.stringValue() == "STORAGE_READ_ONLY") return true;
        }
        return false;
    }
    // A configuration check asked for while the root cannot be written tells its caller why at
    // once (a host awaiting it must not wait for a run that cannot come), and asks for nothing.
    void expectConfigCheckIsToldWhy(const std::string& words) {
        proxy_->requests.clear();
        bool told = false;
        UpdateConfig::instance().start(
            kTriggerDebugTool, "0",
            [&](const Error& error) {
                told = true;
                EXPECT_EQ(error.code(), Errors::kFileWrite);
                EXPECT_NE(error.message().find(words), std::string::npos) << error.message();
            },
            0);
        drive();
        EXPECT_TRUE(told);
        EXPECT_TRUE(proxy_->requests.empty());
    }
    size_t zipRequests() const {
        size_t count = 0;
        for (const ProxyRequest& request : proxy_->requests) {
            if (request.url.ends_with(".zip")) ++count;
        }
        return count;
    }

    // Mounts; false (with the reason printed) when the machine refuses.
    bool mountOrSay(const char* source, const char* type, unsigned long flags, const char* data) {
        if (::mount(source, mount_.path().c_str(), type, flags, data) == 0) {
            mounted_ = true;
            return true;
        }
        std::cout << "[ mount refused: " << std::strerror(errno)
                  << "; the fault layer stands in for the real fault ]" << std::endl;
        return false;
    }
    bool remount(unsigned long flags) {
        return ::mount(nullptr, mount_.path().c_str(), nullptr, MS_REMOUNT | flags, nullptr) == 0;
    }
    void unmount() {
        if (!mounted_) return;
        FerritCore::ProcessState::resetForTesting();
        if (::umount2(mount_.path().c_str(), MNT_DETACH) == 0) mounted_ = false;
    }

    // The fault of the scenarios, met through the file layer when mounting is refused: the
    // install of version 2 fails with `errnum`, version 1 keeps serving and the state says why;
    // once writes work again the next trigger installs version 2.
    void faultLayerScenario(int errnum, const std::string& words) {
        installApp(1, version1());
        ASSERT_FALSE(update("app", kTriggerTimer));
        installApp(2, version2());
        RefusingCalls calls(temp_.root(), errnum);
        FileUtil::setCalls(&calls);
        calls.armed = true;
        EXPECT_TRUE(update("app", kTriggerTimer));
        expectServes(version1());
        EXPECT_EQ(storageState(), "read-only: " + words);
        EXPECT_TRUE(reportsReadOnly());
        expectConfigCheckIsToldWhy(words);
        calls.armed = false;
        const Error error = update("app", kTriggerTimer);
        EXPECT_FALSE(error) << error.message();
        EXPECT_EQ(storageState(), "writable");
        expectServes(version2());
        FileUtil::setCalls(nullptr);
    }

    TempDir mount_;
    bool mounted_ = false;
};

TEST_F(DegradedRootTest, ReadOnlyBindMountServesInstalledPacksAndResumesAfterRemount) {
    installApp(1, version1());
    ASSERT_FALSE(update("app", kTriggerTimer));
    expectServes(version1());

    ProcessState::resetForTesting();  // a clean shutdown
    if (!mountOrSay(temp_.path().c_str(), nullptr, MS_BIND, nullptr) ||
        !remount(MS_BIND | MS_RDONLY)) {
        if (mounted_)
            std::cout << "[ read-only remount refused: " << std::strerror(errno) << " ]\n";
        startAt(temp_.root());
        faultLayerScenario(EROFS, "root " + temp_.root() + " is on a read-only file system");
        return;
    }
    const std::string root = mount_.root();
    startAt(root);

    // Every installed URL, byte-identical, with the configuration read from the packs store.
    expectServes(version1());
    EXPECT_TRUE(PacksStore::instance().isReadOnly());
    EXPECT_EQ(storageState(), "read-only: root " + root + " is on a read-only file system");
    EXPECT_TRUE(reportsReadOnly());
    DevInspector::registerAgent();
    bool answered = false;
    MarlLogger::Inspector::sendCommand(
        "FerritDev.info", MarlLogger::json::JSON(), [&](bool, const MarlLogger::json::JSON& data) {
            answered = true;
            EXPECT_EQ(data["storage"].stringValue(),
                      "read-only: root " + root + " is on a read-only file system");
        });
    EXPECT_TRUE(answered);

    // Updating waits, with its reason, and asks the network for nothing.
    proxy_->requests.clear();
    const Error paused = update("app", kTriggerTimer);
    EXPECT_EQ(paused.code(), Errors::kFileWrite);
    EXPECT_NE(paused.message().find("read-only: root " + root), std::string::npos)
        << paused.message();
    UpdateQueue::start(kTriggerTimer);
    drive();
    EXPECT_EQ(zipRequests(), 0u);
    expectServes(version1());
    expectConfigCheckIsToldWhy("read-only: root " + root);

    // Writable again: the next trigger resumes by itself, and a new version installs.
    ASSERT_TRUE(remount(MS_BIND)) << std::strerror(errno);
    UpdateQueue::start(kTriggerTimer);
    drive();
    EXPECT_EQ(storageState(), "writable");
    EXPECT_FALSE(reportsReadOnly());
    EXPECT_FALSE(PacksStore::instance().isReadOnly());
    installApp(2, version2());
    const Error error = update("app", kTriggerTimer);
    EXPECT_FALSE(error) << error.message();
    EXPECT_EQ(find("app")->installedSeq, 2u);
    expectServes(version2());
}

TEST_F(DegradedRootTest, FullDiskAtStartServesInstalledPacksAndResumesOnceSpaceIsFree) {
    if (!mountOrSay("ferrit-test", "tmpfs", 0, "size=4m")) {
        faultLayerScenario(ENOSPC, "disk full at root " + temp_.root());
        return;
    }
    const std::string root = mount_.root();
    startAt(root);
    installApp(1, version1());
    ASSERT_FALSE(update("app", kTriggerTimer));
    expectServes(version1());

    // A clean shutdown, then the disk fills to its last byte.
    ProcessState::resetForTesting();
    {
        const std::string filler = root + "filler";
        FILE* file = std::fopen(filler.c_str(), "wb");
        ASSERT_NE(file, nullptr);
        std::setvbuf(file, nullptr, _IONBF, 0);
        const std::string block(65536, 'f');
        while (std::fwrite(block.data(), 1, block.size(), file) == block.size()) {
        }
        while (std::fwrite("f", 1, 1, file) == 1) {
        }
        std::fclose(file);
        std::ofstream probe(root + "probe", std::ios::binary);
        probe << "x";
        probe.flush();
        ASSERT_FALSE(probe.good()) << "the disk is not full";
    }
    startAt(root);
    expectServes(version1());
    EXPECT_EQ(storageState(), "read-only: disk full at root " + root);
    EXPECT_TRUE(reportsReadOnly());

    // A trigger while the disk is still full: nothing changes, nothing is asked for.
    proxy_->requests.clear();
    UpdateQueue::start(kTriggerTimer);
    drive();
    EXPECT_EQ(zipRequests(), 0u);
    EXPECT_EQ(storageState(), "read-only: disk full at root " + root);

    // Space comes back: the next trigger resumes, and a new version installs.
    std::filesystem::remove(root + "filler");
    std::filesystem::remove(root + "probe");
    UpdateQueue::start(kTriggerTimer);
    drive();
    EXPECT_EQ(storageState(), "writable");
    installApp(2, version2());
    const Error error = update("app", kTriggerTimer);
    EXPECT_FALSE(error) << error.message();
    expectServes(version2());
}

// A write that fails in the middle of running, at an install step: the installed version keeps
// serving, the state says why, further triggers wait without new errors, and the first trigger
// after space comes back installs.
TEST_F(DegradedRootTest, NoSpaceDuringAnInstallKeepsServingTheInstalledVersion) {
    installApp(1, version1());
    ASSERT_FALSE(update("app", kTriggerTimer));
    installApp(2, version2());
    RefusingCalls calls(temp_.root() + "temp/", ENOSPC);
    FileUtil::setCalls(&calls);
    calls.armed = true;

    const Error failed = update("app", kTriggerTimer);
    EXPECT_TRUE(failed);
    EXPECT_EQ(find("app")->installedSeq, 1u);
    expectServes(version1());
    EXPECT_EQ(storageState(), "read-only: disk full at root " + temp_.root());
    EXPECT_TRUE(reportsReadOnly());

    // Still no room (the probe under the root fails too): triggers wait and fetch nothing.
    RefusingCalls everywhere(temp_.root(), ENOSPC);
    everywhere.armed = true;
    FileUtil::setCalls(&everywhere);
    proxy_->requests.clear();
    EXPECT_EQ(update("app", kTriggerTimer).code(), Errors::kFileWrite);
    UpdateQueue::start(kTriggerTimer);
    drive();
    EXPECT_EQ(zipRequests(), 0u);
    expectServes(version1());

    everywhere.armed = false;
    const Error error = update("app", kTriggerTimer);
    EXPECT_FALSE(error) << error.message();
    EXPECT_EQ(storageState(), "writable");
    EXPECT_EQ(find("app")->installedSeq, 2u);
    expectServes(version2());
    FileUtil::setCalls(nullptr);
}

}  // namespace
}  // namespace FerritTest
