// assertOnWorker(): the check behind every "runs on the worker" of the system. Code whose state
// has no lock because only the process's worker touches it calls it first; where contracts are
// checked (support/Contract.h) a call from any other thread aborts with the caller's file and
// line, and elsewhere it is nothing. Test binaries drive the process's runner by hand, so there
// the test's thread counts as the worker (TaskRunner::isWorkerContext). Any thread.
#pragma once

#include "support/Contract.h"

namespace FerritCore {

// True on the process's worker (see TaskRunner::isWorkerContext).
bool isOnWorker();

inline void assertOnWorker(const char* file = __builtin_FILE(), int line = __builtin_LINE()) {
    if constexpr (kContractsChecked) {
        if (!isOnWorker()) contractBroken("this runs on the worker only", file, line);
    }
}

}  // namespace FerritCore
