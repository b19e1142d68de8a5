// RepeatingTimer: the rhythm of a repeating task. The poster keeps the shared pointer that
// TaskRunner::postRepeating returns, and every repetition of the task holds it too, so the poster
// can move the next run or change the interval after the timer has started.
//
// With a mark name, the time of the last run is also kept as a time mark ("marks/<name>"), so the
// rhythm survives restarts of the process. Times are milliseconds of the wall clock
// (MRLCurrentTime), the only clock that means the same thing in the next process.
//
// Any thread may call any operation; the task runner reads the timer on its worker.
#pragma once

#include <atomic>
#include <string>

namespace FerritCore {

class RepeatingTimer {
  public:
    // `markName` may be empty: the rhythm then lives in this object only.
    RepeatingTimer(std::string markName, double interval)
        : markName_(std::move(markName)), interval_(interval) {}
    virtual ~RepeatingTimer() = default;
    RepeatingTimer(const RepeatingTimer&) = delete;
    RepeatingTimer& operator=(const RepeatingTimer&) = delete;

    // Wall-clock time of the last run that returned; 0 before the first.
    virtual double lastRunTime() const { return lastRun_.load(std::memory_order_acquire); }
    // Stores the time and, when the timer has a mark name, writes it to the mark.
    virtual void setLastRunTime(double time);
    virtual double interval() const { return interval_.load(std::memory_order_acquire); }
    virtual void setInterval(double interval) {
        interval_.store(interval, std::memory_order_release);
    }

    const std::string& markName() const { return markName_; }

  private:
    friend class TaskRunner;
    // Adopts a time read back from the mark, without writing it again.
    void adoptLastRun(double time) { lastRun_.store(time, std::memory_order_release); }

    const std::string markName_;
    std::atomic<double> interval_;
    std::atomic<double> lastRun_{0};
};

}  // namespace FerritCore
