#include "marl/Clock.h"

#include <unistd.h>

#include <chrono>
#include <random>

#include "support/Ascii.h"

namespace MarlLogger {
namespace {

std::atomic<TimeSource*> gSource{nullptr};

}  // namespace

void setTimeSource(TimeSource* source) {
    gSource.store(source, std::memory_order_release);
}

void ManualClock::advance(double ms) {
    wall_.store(wall_.load(std::memory_order_relaxed) + ms, std::memory_order_relaxed);
    clock_.store(clock_.load(std::memory_order_relaxed) + ms, std::memory_order_relaxed);
}

}  // namespace MarlLogger

double MRLCurrentTime() {
    if (auto* source = MarlLogger::gSource.load(std::memory_order_acquire)) return source->wallMs();
    using namespace std::chrono;
    return duration<double, std::milli>(system_clock::now().time_since_epoch()).count();
}

double MRLCurrentClock() {
    if (auto* source = MarlLogger::gSource.load(std::memory_order_acquire))
        return source->clockMs();
    using namespace std::chrono;
    return duration<double, std::milli>(steady_clock::now().time_since_epoch()).count();
}

std::string MRLGenerateID(std::string_view prefix) {
    // A per-process random stem keeps ids of different processes apart; the counter keeps ids of
    // one process apart. Formatting by hand keeps this off the cost of a stream or printf.
    static const uint64_t stem = [] {
        std::random_device device;
        return (static_cast<uint64_t>(device()) << 32 ^ device() ^
                static_cast<uint64_t>(getpid())) &
               0xFFFFFFFFFFull;
    }();
    static std::atomic<uint64_t> counter{0};
    const uint64_t n = counter.fetch_add(1, std::memory_order_relaxed);
    constexpr const char* kHex = FerritCore::Ascii::kLowerHexDigits;
    char buffer[32];
    char* p = buffer;
    *p++ = '_';
    for (int shift = 36; shift >= 0; shift -= 4) *p++ = kHex[(stem >> shift) & 0xF];
    *p++ = '_';
    char digits[16];
    int count = 0;
    uint64_t v = n;
    do {
        digits[count++] = kHex[v & 0xF];
        v >>= 4;
    } while (v != 0);
    while (count > 0) *p++ = digits[--count];
    std::string id;
    id.reserve(prefix.size() + static_cast<size_t>(p - buffer));
    id.append(prefix);
    id.append(buffer, p);
    return id;
}
