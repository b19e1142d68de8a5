// Clocks and trace ids. Every time reading in the system goes through one injectable time
// source so that tests can move time by hours without sleeping. Any thread.
#pragma once

#include <atomic>
#include <string>
#include <string_view>

namespace MarlLogger {

class TimeSource {
  public:
    virtual ~TimeSource() = default;
    // Wall clock, milliseconds since the epoch.
    virtual double wallMs() = 0;
    // Monotonic clock, milliseconds from an arbitrary origin.
    virtual double clockMs() = 0;
};

// Installs `source` for the whole process; null restores the real clocks. The caller keeps
// ownership and must keep the source alive until it is replaced.
void setTimeSource(TimeSource* source);

// A clock that moves only when told to. Starts at the given wall time and at clock 1000.
class ManualClock : public TimeSource {
  public:
    explicit ManualClock(double wallMs = 1.7e12) : wall_(wallMs), clock_(1000.0) {}
    double wallMs() override { return wall_.load(std::memory_order_relaxed); }
    double clockMs() override { return clock_.load(std::memory_order_relaxed); }
    // Moves both clocks forward by `ms`.
    void advance(double ms);
    void setWall(double ms) { wall_.store(ms, std::memory_order_relaxed); }

  private:
    std::atomic<double> wall_;
    std::atomic<double> clock_;
};

// Installs a ManualClock for the lifetime of this object (tests).
class ScopedManualClock {
  public:
    explicit ScopedManualClock(double wallMs = 1.7e12) : clock_(wallMs) { setTimeSource(&clock_); }
    ~ScopedManualClock() { setTimeSource(nullptr); }
    ManualClock& operator*() { return clock_; }
    ManualClock* operator->() { return &clock_; }

  private:
    ManualClock clock_;
};

}  // namespace MarlLogger

// Wall clock in milliseconds since the epoch.
double MRLCurrentTime();
// Monotonic clock in milliseconds, for durations.
double MRLCurrentClock();
// `prefix`, "_", and a suffix unique within the process and unlikely to repeat across processes.
std::string MRLGenerateID(std::string_view prefix);
