// Contracts that the code states and the machine checks: "runs on the worker", "the caller holds
// the lock". Builds that define FERRIT_CONTRACTS (Debug and sanitizer builds) check them; in every
// other build a check compiles to nothing. A broken contract is a bug of ours, never a condition to
// handle: the process says where and what, and aborts, so that the test run that met it fails at
// the call that broke it. Any thread.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace FerritCore {

#if defined(FERRIT_CONTRACTS)
inline constexpr bool kContractsChecked = true;
#else
inline constexpr bool kContractsChecked = false;
#endif

// Ends the process: `what` names the contract, `file` and `line` the check that found it broken.
[[noreturn]] inline void contractBroken(const char* what, const char* file, int line) {
    std::fprintf(stderr, "%s:%d: contract broken: %s\n", file, line, what);
    std::fflush(stderr);
    std::abort();
}

}  // namespace FerritCore
