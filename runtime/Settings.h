// Settings: every tunable, as an immutable snapshot. Readers take the snapshot with one atomic
// load and never lock; writers share a recursive mutex, copy, change and swap.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>

namespace FerritCore {

struct Settings {
    // Remote layer: a value is in force when set, the default otherwise.
    std::optional<double> configOutOfDateInterval;
    std::optional<bool> requestForceHttps;
    std::optional<bool> moduleCacheEnabled;
    std::optional<bool> uniAppEnabled;
    std::optional<bool> scache404Enabled;
    std::optional<bool> onDemandEnabled;
    std::optional<bool> enableSCache;
    std::optional<std::unordered_set<std::string>> scacheFileType;
    std::unordered_set<std::string> disableSCacheList;

    double configOutOfDateIntervalValue() const { return configOutOfDateInterval.value_or(129600000.0); }
    bool requestForceHttpsValue() const { return requestForceHttps.value_or(true); }
    bool moduleCacheEnabledValue() const { return moduleCacheEnabled.value_or(true); }
    bool uniAppEnabledValue() const { return uniAppEnabled.value_or(true); }
    bool scache404EnabledValue() const { return scache404Enabled.value_or(true); }
    bool onDemandEnabledValue() const { return onDemandEnabled.value_or(true); }

    // False when the pack is in "disableSCacheList"; otherwise "enableSCache" (default true).
    bool isSCacheEnabled(std::string_view packName) const;
    // Whether SCache serves a file of this name: by its lower-cased extension, against
    // "scacheFileType", or "js" and "css" when that is empty. False without a dot.
    bool isSCacheFileType(std::string_view fileName) const;

    // The current snapshot; never null.
    static std::shared_ptr<const Settings> current();
    // Copies the current record, applies `change`, publishes the copy.
    static void change(const std::function<void(Settings&)>& change);
    // Back to the built-in values (tests).
    static void reset();
};

}  // namespace FerritCore
