// TimeMarks: named instants (milliseconds of the wall clock) kept in the shared key-value store
// under "marks/<name>", so that timers keep their rhythm across restarts of the process.
//
// Any thread. The read-modify-write operations are serialised among themselves; a mark written
// by another process at the same moment may be overwritten.
#pragma once

#include <memory>
#include <string>
#include <string_view>

namespace FerritCore {

// Where marks are kept: the composition root installs the shared configuration store (see
// ConfigStore::marks), tests their own; without one they live in memory. Implementations must be
// safe to call from any thread.
class MarkStore {
  public:
    virtual ~MarkStore() = default;
    // The stored value, or 0 when there is none or it cannot be read.
    virtual double load(const std::string& key) = 0;
    virtual void store(const std::string& key, double value) = 0;
};

class TimeMarks {
  public:
    static constexpr std::string_view kKeyPrefix = "marks/";

    // The stored mark; when it is 0, absent or not a finite number, stores `now` and returns it.
    static double readMark(std::string_view name, double now);
    // Stores `now` whatever was there and returns the value it replaced, or `now` when that was
    // 0, absent or not a finite number.
    static double exchangeMark(std::string_view name, double now);
    // Stores `value`.
    static void writeMark(std::string_view name, double value);

    // Replaces where marks are kept; null keeps them in memory. The store is shared with every
    // later caller until it is replaced.
    static void setStore(std::shared_ptr<MarkStore> store);
    // The installed store, or the one in memory.
    static std::shared_ptr<MarkStore> store();
};

}  // namespace FerritCore
