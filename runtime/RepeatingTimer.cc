#include "runtime/RepeatingTimer.h"

#include "runtime/TimeMarks.h"

namespace FerritCore {

void RepeatingTimer::setLastRunTime(double time) {
    lastRun_.store(time, std::memory_order_release);
    if (!markName_.empty()) TimeMarks::writeMark(markName_, time);
}

}  // namespace FerritCore
