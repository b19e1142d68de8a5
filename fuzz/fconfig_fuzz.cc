// FConfig::parse on arbitrary text, unsigned and signed: never a crash; the result agrees with
// reading the text through a value tree; a parsed document must serialise and parse again, its
// text must then be stable (a deleted record's first reading takes an update time), and it must
// merge into itself alike whether the merge copies the records or takes them over. Reading the
// text as this device's stored copy, in place, gives what reading it as "local" gives. A copy
// whose tables come from the snapshot before it answers, through them, the records it holds, and
// answers what tables built afresh answer, whether its writers replaced records routing alike
// or changed a record's prefixes.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "marl/Clock.h"
#include "marl/Log.h"
#include "model/FConfig.h"
#include "tests/model/TreeConfigReader.h"

using namespace FerritCore;

namespace {

void check(bool ok) {
    if (!ok) __builtin_trap();
}

// The in-place reading of a stored text against the reading of the same text as "local".
void compareStored(const std::string& text) {
    Error localError;
    const auto local = FConfig::parse(text, "local", localError, /*checkSignature=*/false);
    std::string stored;
    // The spare bytes let the reader run its wide scan past the end without a copy.
    stored.reserve(text.size() + MarlLogger::json::JSON::kInPlaceSpare);
    stored.assign(text);
    Error storedError;
    const auto fromStore =
        FConfig::parseStored(std::move(stored), storedError, [&text] { return text; });
    check((local == nullptr) == (fromStore == nullptr));
    check(localError.code() == storedError.code());
    check(localError.message() == storedError.message());
    if (local) check(local->serialize() == fromStore->serialize());
}

// Every answer of `copy`'s tables, some shared with an earlier snapshot, is the record `copy`
// holds under that name, and the tables say what tables built from its records alone say.
void checkTables(const FConfig& copy) {
    FConfig fresh = copy.copyForChange();
    fresh.rebuildIndexes();
    check(copy.urlIndex().size() == fresh.urlIndex().size());
    for (const auto& [key, place] : copy.urlIndex()) {
        const std::string& name = copy.routedName(place);
        check(copy.urlPackName(key) == name);
        check(fresh.urlPackName(key) == name);
        const PackPtr record = copy.find(name);
        check(record != nullptr);
        check(copy.packForUrl(key) == record);
        check(copy.routedPack(name) == record);
    }
    for (const auto& [name, record] : copy.packs()) {
        const PackPtr routed = copy.routedPack(name);
        check((routed != nullptr) == (fresh.routedPack(name) != nullptr));
        check(routed == nullptr || routed == copy.find(name));
    }
}

}  // namespace

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
    compareStored(text);
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
    // The published snapshot has its tables; a transaction that keeps the routing reuses them.
    config->rebuildIndexes();
    FConfig copy = config->copyForChange();
    copy.merge(*again);
    copy.rebuildIndexes(config.get());
    checkTables(copy);
    // A transaction that only replaces records keeps its tables through the writers' mark; one
    // that changes a record's prefixes must not.
    FConfig touched = config->copyForChange();
    for (const auto& [name, record] : config->packs()) touched.setStatus(name, record->status ^ 2);
    if (!config->packs().empty()) {
        auto moved = config->packs().begin()->second->clone();
        moved->prefixes.push_back("https://moved.test/" + moved->name + "/");
        touched.put(std::move(moved));
    }
    touched.rebuildIndexes(config.get());
    checkTables(touched);
    FConfig taken = config->copyForChange();
    taken.merge(std::move(*again));
    if (taken.serialize() != copy.serialize()) __builtin_trap();
    return 0;
}
