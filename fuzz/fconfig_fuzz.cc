// FConfig::parse on arbitrary text, unsigned and signed: never a crash; a parsed document must
// serialise, parse again to the same text, and merge into itself.
#include <cstddef>
#include <cstdint>
#include <string>

#include "marl/Log.h"
#include "model/FConfig.h"

using namespace FerritCore;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool quiet = [] {
        MarlLogger::Log::setLevel(0);
        return true;
    }();
    (void)quiet;
    const std::string text(reinterpret_cast<const char*>(data), size);
    Error error;
    auto config = FConfig::parse(text, "fuzz", error, false);
    if (!config) {
        if (!error) __builtin_trap();
        (void)FConfig::parse(text, "fuzz", error, true);
        return 0;
    }
    const std::string once = config->serialize();
    auto again = FConfig::parse(once, "again", error, false);
    if (!again) __builtin_trap();
    if (again->serialize() != once) __builtin_trap();
    FConfig copy = config->copyForChange();
    copy.merge(*again);
    copy.rebuildIndexes();
    return 0;
}
