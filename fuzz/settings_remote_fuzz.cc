// The remote settings and the SCache switches from arbitrary key/value maps: applying them must
// never crash, and every getter must still answer within its contract.
//
// Input: records of [selector][length][value bytes]. The selector names a known remote key, or
// (when it is past the last key) takes the key from the value up to its first "="; its top bit
// sends the record to the switches map instead.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "marl/Clock.h"
#include "runtime/Settings.h"

using namespace FerritCore;

namespace {

uint64_t drawHalf(uint64_t maxInclusive) {
    return maxInclusive / 2;
}

void check(bool condition) {
    if (!condition) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::vector<std::string_view>& keys = Settings::remoteKeys();
    Settings::StringMap remote;
    Settings::StringMap switches;
    size_t at = 0;
    while (at + 2 <= size) {
        const uint8_t selector = data[at];
        const size_t length = std::min<size_t>(data[at + 1], size - at - 2);
        std::string value(reinterpret_cast<const char*>(data + at + 2), length);
        at += 2 + length;
        const size_t index = (selector & 0x7f) % (keys.size() + 1);
        std::string key;
        if (index < keys.size()) {
            key = std::string(keys[index]);
        } else {
            const size_t equals = value.find('=');
            key = value.substr(0, equals);
            value = equals == std::string::npos ? std::string() : value.substr(equals + 1);
        }
        (selector & 0x80 ? switches : remote)[key] = value;
    }

    Settings::updateRemote(remote);
    Settings::updateSwitches(switches);
    const std::shared_ptr<const Settings> s = Settings::current();
    check(s != nullptr);

    check(s->ferritSizeLimitValue() > 0);
    check(s->acacheSizeLimitValue() > 0);
    check(s->moduleCacheMaxSizeValue() > 0);
    check(s->uniAppMaxSizeValue() > 0);
    (void)s->configUpdateIntervalValue();
    (void)s->configBackupUpdateIntervalValue();
    (void)s->configOutOfDateIntervalValue();
    (void)s->startupDownloadLimitValue();
    (void)s->downloadLimitValue();
    (void)s->autoInstallLimitValue();
    (void)s->encryptionTypeValue();
    (void)s->moduleCacheMinHotSizeValue();
    (void)s->uniAppMinHotSizeValue();
    (void)s->enableSCacheValue();
    // Every double of the remote layer is a usable time.
    if (s->configUpdateIntervalRemote) check(std::isfinite(*s->configUpdateIntervalRemote));
    if (s->configOutOfDateInterval) check(std::isfinite(*s->configOutOfDateInterval));

    for (const auto& [name, value] : switches) {
        // A pack is off exactly when its switch says so.
        const bool off =
            value == "0" || value == "false" || (value == "auto" && s->autoDisableSCacheValue());
        check(s->disableSCacheList.count(name) == (off ? 1u : 0u));
        check(!off || !s->isSCacheEnabled(name));
    }
    for (const auto& [name, value] : remote) {
        (void)s->isSCacheFileType(value);
        (void)s->isSCacheFileType(name);
    }
    for (int env = 0; env <= 2; ++env) {
        // Empty when neither the build nor the host gave one; a prefix otherwise.
        const std::string config = s->configPrefixFor(env);
        check(config.empty() || config.back() == '/');
        for (uint32_t type : {0u, 64u}) {
            const std::string prefix = s->zipPrefixFor(type, env);
            check(prefix.empty() || prefix.back() == '/');
        }
    }
    for (const InstallPeriod& period : s->disableInstallPeriods) {
        (void)s->isInstallDisabled(period.start, &drawHalf);
        (void)s->isInstallDisabled(period.end, &drawHalf);
    }
    (void)s->isInstallDisabled();

    const MarlLogger::json::JSON dump = s->toJSON();
    check(dump.isObject());
    check(dump["autoDisableSCache"].isNull());
    (void)dump.toString();
    return 0;
}
