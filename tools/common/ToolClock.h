// The wall clock of the command-line tools: what they stamp into histories and documents.
#pragma once

#include <chrono>
#include <cstdint>

namespace FerritTools {

// Now, in milliseconds since the epoch.
inline uint64_t nowMs() {
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                     std::chrono::system_clock::now().time_since_epoch())
                                     .count());
}

}  // namespace FerritTools
