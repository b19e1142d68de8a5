// StretchSource: the random stretch that the disabled install periods add to their end, so that
// devices do not all start installing at the same moment when a period closes. A uniform whole
// number from 0 to a bound, from a generator seeded at random unless a test installs a source of
// its own.
//
// Threading: any thread; the source is swapped under a lock and called outside it.
#pragma once

#include <cstdint>
#include <functional>

namespace FerritCore {

class StretchSource {
  public:
    using Source = std::function<uint64_t(uint64_t maxInclusive)>;

    // A whole number from 0 to `maxInclusive`.
    static uint64_t draw(uint64_t maxInclusive);
    // Null restores the default generator. A reset of the process state restores it too.
    static void set(Source source);
};

}  // namespace FerritCore
