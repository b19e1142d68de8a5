#include "base/StorageState.h"

#include <atomic>
#include <cerrno>

#include "base/FileUtil.h"
#include "base/Folder.h"
#include "base/LogTags.h"
#include "base/ProcessState.h"
#include "base/Proxy.h"
#include "marl/Log.h"
#include "support/Mutex.h"

namespace FerritCore::StorageState {
namespace {

struct State {
    std::atomic<bool> readOnly{false};
    Mutex mutex;
    std::string reason GUARDED_BY(mutex);
};

State& state() {
    static State* const instance = ProcessState::create<State>([](State& s) {
        MutexLock lock(s.mutex);
        s.readOnly.store(false, std::memory_order_release);
        s.reason.clear();
    });
    return *instance;
}

std::string reasonFor(Cause cause, std::string_view path) {
    const std::string& root = rootPath();
    switch (cause) {
        case Cause::ReadOnlyFileSystem:
            return "root " + root + " is on a read-only file system";
        case Cause::DiskFull:
            return "disk full at root " + root;
        case Cause::PermissionDenied: {
            // The probe's file names the folder it was written in.
            std::string_view where = path;
            const std::string probeName = std::string("/") + kProbeFileName;
            if (where.ends_with(probeName)) where.remove_suffix(probeName.size());
            return "permission denied at " + std::string(where);
        }
        case Cause::None:
            break;
    }
    return std::string();
}

bool underRoot(std::string_view path) {
    const std::string& root = rootPath();
    // An unset root reads as "/": nothing under it counts, tests and tools write elsewhere.
    return root.size() > 1 && path.starts_with(root.substr(0, root.size() - 1));
}

}  // namespace

Cause causeOf(int errnum) {
    switch (errnum) {
        case EROFS:
            return Cause::ReadOnlyFileSystem;
        case ENOSPC:
        case EDQUOT:
            return Cause::DiskFull;
        case EACCES:
            return Cause::PermissionDenied;
        default:
            return Cause::None;
    }
}

bool writable() {
    return !state().readOnly.load(std::memory_order_acquire);
}

std::string describe() {
    State& s = state();
    MutexLock lock(s.mutex);
    if (!s.readOnly.load(std::memory_order_relaxed)) return "writable";
    return "read-only: " + s.reason;
}

std::string reason() {
    State& s = state();
    MutexLock lock(s.mutex);
    return s.readOnly.load(std::memory_order_relaxed) ? s.reason : std::string();
}

void enterReadOnly(Cause cause, std::string_view path) {
    if (cause == Cause::None) return;
    State& s = state();
    std::string entered;
    {
        MutexLock lock(s.mutex);
        if (s.readOnly.load(std::memory_order_relaxed)) return;
        s.reason = reasonFor(cause, path);
        s.readOnly.store(true, std::memory_order_release);
        entered = s.reason;
    }
    MarlLogger::LogBuilder(MarlLogger::MRLLevelWarning, LogTag::kSetup)
        .event("storageReadOnly")
        .append("reason", entered)
        .append("path", path);
    ProxyCalls::onStateChanged();
}

void noteWriteFailure(int errnum, std::string_view path) {
    const Cause cause = causeOf(errnum);
    if (cause == Cause::None || !underRoot(path)) return;
    enterReadOnly(cause, path);
}

void markWritable() {
    State& s = state();
    std::string was;
    {
        MutexLock lock(s.mutex);
        if (!s.readOnly.load(std::memory_order_relaxed)) return;
        was.swap(s.reason);
        s.readOnly.store(false, std::memory_order_release);
    }
    MarlLogger::LogBuilder(MarlLogger::MRLLevelInfo, LogTag::kSetup)
        .event("storageWritable")
        .append("was", was);
    ProxyCalls::onStateChanged();
}

int probe(const std::string& folder) {
    if (folder.empty()) return ENOENT;
    std::string file = folder;
    if (file.back() != '/') file.push_back('/');
    file.append(kProbeFileName);
    // One byte: a full disk refuses the data block although it may still grant the name.
    const int written = FileUtil::writeFile(file, "1");
    // A file made before the failure is not left behind; its removal's own failure says nothing
    // more than the write's.
    const int removed = FileUtil::remove(file);
    if (written != 0) return written;
    return removed == ENOENT ? 0 : removed;
}

}  // namespace FerritCore::StorageState
