// FConfig::parse on arbitrary text, unsigned and signed: never a crash; the result agrees with
// reading the text through a value tree; a parsed document must serialise and parse again, its
// text must then be stable (a deleted record's first reading takes an update time), and it must
// merge into itself alike whether the merge copies the records or takes them over.
#include <cstddef>
#include <cstdint>
#include <string>

#include "marl/Clock.h"
#include "marl/Log.h"
#include "model/FConfig.h"
#include "tests/model/TreeConfigReader.h"

using namespace FerritCore;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool quiet = [] {
        MarlLogger::Log::setLevel(0);
        return true;
    }();
    (void)quiet;
    // Records without an update time take the time of reading: the same in both readings.
    static MarlLogger::ScopedManualClock clock;
    const std::string text(reinterpret_cast<const char*>(data), size);
    Error error;
    auto config = FConfig::parse(text, "fuzz", error, false);
    if (!FerritTest::agreesWithTree(config.get(), text)) __builtin_trap();
    if (!config) {
        if (!error) __builtin_trap();
        (void)FConfig::parse(text, "fuzz", error, true);
        return 0;
    }
    const std::string once = config->serialize();
    auto again = FConfig::parse(once, "again", error, false);
    if (!again) __builtin_trap();
    const std::string twice = again->serialize();
    auto third = FConfig::parse(twice, "again", error, false);
    if (!third || third->serialize() != twice) __builtin_trap();
    FConfig copy = config->copyForChange();
    copy.merge(*again);
    copy.rebuildIndexes();
    FConfig taken = config->copyForChange();
    taken.merge(std::move(*again));
    if (taken.serialize() != copy.serialize()) __builtin_trap();
    return 0;
}
