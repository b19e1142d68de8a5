// Expiry and date parsing on arbitrary bytes: Cache-Control and Expires come from the network, so
// no value may crash or reach undefined behaviour, and a date that parses must print and parse
// back to the same second.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "base/Http.h"
#include "marl/Clock.h"

namespace {

void check(bool condition) {
    if (!condition) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // A fixed clock keeps runs reproducible; an input that starts with 'T' and eight more bytes
    // sets it to any double, NaN and infinities included.
    static MarlLogger::ManualClock clock;
    MarlLogger::setTimeSource(&clock);
    clock.setWall(1.7e12);
    std::string_view text(reinterpret_cast<const char*>(data), size);
    if (size >= 9 && data[0] == 'T') {
        double wall = 0;
        std::memcpy(&wall, data + 1, sizeof(wall));
        clock.setWall(wall);
        text.remove_prefix(9);
    }

    // Up to the first newline is the Cache-Control value, the rest the Expires value.
    const size_t newline = text.find('\n');
    const std::string control(text.substr(0, newline));
    const std::string expires(newline == std::string_view::npos ? std::string_view()
                                                                : text.substr(newline + 1));

    using FerritCore::HeaderMap;
    (void)FerritCore::Http::parseExpires(
        HeaderMap{{"Cache-Control", control}, {"Expires", expires}});
    (void)FerritCore::Http::parseExpires(HeaderMap{{"cache-control", control}});
    (void)FerritCore::Http::parseExpires(HeaderMap{{"Expires", expires}});
    (void)FerritCore::Http::parseExpires(HeaderMap{{"EXPIRES", control}});

    const std::string raw(reinterpret_cast<const char*>(data), size);
    long long seconds = 0;
    if (FerritCore::Http::parseHttpDate(raw, &seconds)) {
        const std::string printed =
            FerritCore::Http::httpDate(static_cast<double>(seconds) * 1000.0);
        check(!printed.empty());
        long long again = 0;
        check(FerritCore::Http::parseHttpDate(printed, &again));
        check(again == seconds);
    }
    if (size >= sizeof(double)) {
        double ms = 0;
        std::memcpy(&ms, data, sizeof(ms));
        const std::string printed = FerritCore::Http::httpDate(ms);
        if (!printed.empty()) check(FerritCore::Http::parseHttpDate(printed, &seconds));
    }
    MarlLogger::setTimeSource(nullptr);
    return 0;
}
