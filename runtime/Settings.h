// Settings: every tunable of the system, as an immutable snapshot with three layers of value: a
// built-in default, a default the host sets at start (setDefaults), and a remote value
// (updateRemote). A getter answers the remote value when it is set and the default otherwise.
//
// Threading: readers take the snapshot with one atomic load (current()) and never lock; a snapshot
// is never changed once published, so a reader that holds one keeps it whole. Writers, from any
// thread, share a recursive mutex and copy, change and swap the record. No operation fails:
// values that do not parse read as 0 or false.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "base/Published.h"
#include "marl/Json.h"

namespace FerritCore {

// The core version that the referer, the inspector, the status report and telemetry carry; the
// build sets it.
inline constexpr std::string_view kCoreVersion = FERRIT_CORE_VERSION;

// A span of time in which nothing installs. Milliseconds of the wall clock; the end is stretched
// by a random 0..jitter at each test, so that clients do not all resume at once.
struct InstallPeriod {
    double start = 0;
    double end = 0;
    double jitter = 0;
    bool operator==(const InstallPeriod&) const = default;
};

// The host's layer, as setDefaultConfigNative passes it.
struct HostDefaults {
    std::string configPrefix;         // "configPrefixRelease"
    std::string zipPrefix;            // "zipPrefixRelease"
    std::string acacheZipPrefix;      // "ACacheZipPrefixRelease", else "zipPrefixRelease"
    std::string configPrefixDebug;    // "configPrefixDebug": the configuration of "Debug"
    std::string configPrefixDaily;    // "configPrefixDaily": the configuration of "Daily"
    std::string zipPrefixDaily;       // "zipPrefixDaily": the downloads of "Daily"
    double configUpdateInterval = 0;  // "configUpdateInterval"; not a number reads 0
    uint32_t encryptionType = 0;      // no key sets it
    // "channel": the publisher's channel whose configuration the host reads, below
    // "channels/<name>/" of each configuration prefix; empty for the prefix's own documents. A
    // name that is not plain (letters, digits, ".", "_", "-", not starting with ".") reads empty.
    std::string channel;

    // Whether `channel` is a name that channel takes: letters, digits, ".", "_" and "-", not
    // empty and not starting with ".", since it goes into every configuration URL.
    static bool isPlainChannel(const std::string& channel);
    // Reads the host's object: a string member that is missing or not a string reads empty, and
    // "zipPrefixRelease" also serves packs of type 64 unless "ACacheZipPrefixRelease" is given.
    static HostDefaults fromJSON(const MarlLogger::json::JSON& object);
};

struct Settings {
    using StringSet = std::unordered_set<std::string>;
    using StringMap = std::map<std::string, std::string>;

    // The six deployment endpoints, each with a trailing "/", or empty: nothing is compiled in
    // unless the build sets it (the FERRIT_*_PREFIX cache variables), and a host then gives its
    // own through the host layer. A request whose endpoint is empty is not sent.
    static const std::string& builtinConfigPrefix();     // release configuration
    static const std::string& builtinZipPrefix();        // release pack download
    static const std::string& builtinACacheZipPrefix();  // release download, packs of type 64
    static const std::string& preReleaseConfigPrefix();  // "Debug" configuration (https)
    static const std::string& dailyConfigPrefix();       // "Daily" configuration (plain http)
    static const std::string& testZipPrefix();           // "Daily" pack download (plain http)

    static constexpr double kDefaultConfigUpdateInterval = 300000;
    static constexpr uint64_t kDefaultSizeLimit = 52428800;
    static constexpr uint32_t kACachePackType = 64;
    // How long the system waits for the host to answer a request before it ends the request
    // itself: the timeout the host is given plus ten seconds, so that a host that keeps its own
    // timeout always answers first.
    static constexpr double kDefaultConfigRequestDeadline = 20000;
    static constexpr double kDefaultResourceRequestDeadline = 30000;
    static constexpr double kDefaultPackRequestDeadline = 30000;
    // The most bytes a zip entry may inflate to for each compressed byte. Web text compresses
    // ten to one or so; a run of one byte compresses a thousand to one, which only a bomb needs.
    static constexpr uint32_t kDefaultMaxInflationRatio = 200;
    // The largest configuration document taken from the network: a document of 5,000 packs is
    // under 5 MB.
    static constexpr uint64_t kDefaultConfigMaxSize = 16ull << 20;

    // ---- Host layer and the remote values that override it.
    std::string configPrefix = builtinConfigPrefix();
    // The host's channel (HostDefaults::channel); the configuration prefixes lead to it.
    std::string channel;
    std::optional<double> configUpdateIntervalRemote;
    double configUpdateIntervalDefault = kDefaultConfigUpdateInterval;
    std::string zipPrefix = builtinZipPrefix();
    std::string acacheZipPrefix = builtinACacheZipPrefix();
    std::string configPrefixDebug = preReleaseConfigPrefix();
    std::string configPrefixDaily = dailyConfigPrefix();
    std::string zipPrefixDaily = testZipPrefix();
    uint32_t encryptionTypeDefault = 0;
    std::optional<std::string> zipPrefixRemote;        // "ferritZipPrefix"
    std::optional<std::string> acacheZipPrefixRemote;  // "acacheZipPrefix"
    std::optional<uint32_t> encryptionTypeRemote;      // "encryptionType"
    std::vector<InstallPeriod> disableInstallPeriods;  // "disableInstallPeriods"

    // ---- Remote layer: each is named as its key in the remote map and the JSON dump.
    std::optional<double> configBackupUpdateInterval;
    std::optional<double> configOutOfDateInterval;
    std::optional<uint8_t> startupDownloadLimit;
    std::optional<uint8_t> downloadLimit;
    std::optional<uint8_t> autoInstallLimit;
    std::optional<bool> reinstallPreload;
    std::optional<bool> cleanupEnabled;
    std::optional<bool> cacheCRCEnabled;
    std::optional<bool> cacheValidationEnabled;
    std::optional<bool> requestForceHttps;
    std::optional<bool> aggregateRequestEnabled;
    std::optional<bool> moduleCacheEnabled;
    std::optional<uint32_t> moduleCacheMinHotSize;
    std::optional<bool> moduleCacheCheckMD5;
    std::optional<bool> uniAppEnabled;
    std::optional<uint64_t> uniAppMaxSize;
    std::optional<uint32_t> uniAppMinHotSize;
    std::optional<bool> uniAppCheckMD5;
    std::optional<bool> scache404Enabled;
    std::optional<bool> onDemandEnabled;
    std::optional<uint64_t> ferritSizeLimit;
    std::optional<uint64_t> acacheSizeLimit;
    std::optional<uint64_t> ferritSizeLimitOpt;
    std::optional<uint64_t> acacheSizeLimitOpt;
    std::optional<uint64_t> moduleCacheMaxSize;
    std::optional<uint64_t> moduleCacheMaxSizeOpt;
    std::optional<bool> enableSCache;
    std::optional<bool> autoDisableSCache;
    std::optional<double> configRequestDeadline;    // ms
    std::optional<double> resourceRequestDeadline;  // ms
    std::optional<double> packRequestDeadline;      // ms
    std::optional<uint32_t> maxInflationRatio;
    std::optional<uint64_t> configMaxSize;  // bytes
    // Packs for which SCache is off; replaced by updateSwitches, untouched by updateRemote.
    StringSet disableSCacheList;
    // File extensions (lower case) that SCache serves; empty means "js" and "css".
    StringSet scacheFileType;

    // ---- Getters: the remote value when set, the default otherwise.
    double configUpdateIntervalValue() const {
        return configUpdateIntervalRemote.value_or(configUpdateIntervalDefault);
    }
    double configBackupUpdateIntervalValue() const {
        return configBackupUpdateInterval.value_or(1800000.0);
    }
    double configOutOfDateIntervalValue() const {
        return configOutOfDateInterval.value_or(129600000.0);
    }
    uint8_t startupDownloadLimitValue() const { return startupDownloadLimit.value_or(14); }
    uint8_t downloadLimitValue() const { return downloadLimit.value_or(30); }
    uint8_t autoInstallLimitValue() const { return autoInstallLimit.value_or(3); }
    bool reinstallPreloadValue() const { return reinstallPreload.value_or(true); }
    bool cleanupEnabledValue() const { return cleanupEnabled.value_or(true); }
    bool cacheCRCEnabledValue() const { return cacheCRCEnabled.value_or(true); }
    bool cacheValidationEnabledValue() const { return cacheValidationEnabled.value_or(true); }
    bool requestForceHttpsValue() const { return requestForceHttps.value_or(true); }
    bool aggregateRequestEnabledValue() const { return aggregateRequestEnabled.value_or(true); }
    bool moduleCacheEnabledValue() const { return moduleCacheEnabled.value_or(true); }
    uint32_t moduleCacheMinHotSizeValue() const { return moduleCacheMinHotSize.value_or(100); }
    bool moduleCacheCheckMD5Value() const { return moduleCacheCheckMD5.value_or(true); }
    bool uniAppEnabledValue() const { return uniAppEnabled.value_or(true); }
    uint32_t uniAppMinHotSizeValue() const { return uniAppMinHotSize.value_or(100); }
    bool uniAppCheckMD5Value() const { return uniAppCheckMD5.value_or(true); }
    bool scache404EnabledValue() const { return scache404Enabled.value_or(true); }
    bool onDemandEnabledValue() const { return onDemandEnabled.value_or(true); }
    uint32_t encryptionTypeValue() const {
        return encryptionTypeRemote.value_or(encryptionTypeDefault);
    }
    bool enableSCacheValue() const { return enableSCache.value_or(true); }
    bool autoDisableSCacheValue() const { return autoDisableSCache.value_or(false); }

    // Size limits in bytes, one family: the Opt value when set and greater than 0, else the plain
    // value when set and greater than 0, else 52428800. A limit of 0 never means "nothing".
    uint64_t ferritSizeLimitValue() const;
    uint64_t acacheSizeLimitValue() const;
    uint64_t moduleCacheMaxSizeValue() const;
    // Has no Opt value; 0 likewise means the default.
    uint64_t uniAppMaxSizeValue() const;

    // The limits that protect the process from a host or a server that misbehaves. A value that
    // is not above 0 (which is what text that does not parse reads) means the default: a deadline
    // or a limit of nothing would refuse everything.
    double configRequestDeadlineValue() const;
    double resourceRequestDeadlineValue() const;
    double packRequestDeadlineValue() const;
    uint32_t maxInflationRatioValue() const;
    uint64_t configMaxSizeValue() const;

    // False when the pack is in "disableSCacheList"; otherwise "enableSCache".
    bool isSCacheEnabled(std::string_view packName) const;
    // Whether SCache serves a file of this name: by what follows its last ".", lower-cased,
    // against "scacheFileType", or "js" and "css" when that is empty. False without a dot.
    bool isSCacheFileType(std::string_view fileName) const;
    // True when now (MRLCurrentTime) lies in one of the install-disabled periods, each end
    // stretched by a fresh random whole number of milliseconds between 0 and its jitter.
    bool isInstallDisabled() const;
    // As above at `now`, with `draw(maxInclusive)` giving the stretch (tests).
    bool isInstallDisabled(double now, uint64_t (*draw)(uint64_t maxInclusive)) const;

    // The configuration endpoint for the process's environment (Environment::env) or for `env`:
    // 0 "Debug" `configPrefixDebug`, 1 "Daily" `configPrefixDaily`, anything else
    // `configPrefix`, followed by "channels/<channel>/" when the host named a channel. Empty when
    // neither the build nor the host set one.
    std::string configPrefixFor() const;
    std::string configPrefixFor(int32_t env) const;
    // The download endpoint of a pack type: a remote override first; then for "Debug" the
    // built-in release endpoint (the host's release one when the build set none) and for "Daily"
    // `zipPrefixDaily`, whatever the type; otherwise `zipPrefix`, or `acacheZipPrefix` for type
    // 64. Empty when neither the build nor the host set one.
    std::string zipPrefixFor(uint32_t packType) const;
    std::string zipPrefixFor(uint32_t packType, int32_t env) const;
    // The host's setting that supplies each endpoint, for words that say which one is missing.
    static const char* configPrefixKey(int32_t env);
    static const char* zipPrefixKey(uint32_t packType, int32_t env);

    // What differs from the built-in values, as the inspector's "config" shows it.
    MarlLogger::json::JSON toJSON() const;

    // The keys of the remote layer, in the order they are applied and dumped.
    static const std::vector<std::string_view>& remoteKeys();

    // ---- The process's record.

    // The current snapshot; never null.
    static std::shared_ptr<const Settings> current();
    // A read of the current snapshot that stays the same for as long as it lives, and that writes
    // nothing that other threads read (see Published): what the request path reads through.
    // Belongs to the thread that made it.
    class Snapshot : public Published<const Settings>::Reader {
      public:
        Snapshot();
    };
    // Copies the current record, applies `change`, hands the copy to the listener, publishes it.
    static void change(const std::function<void(Settings&)>& change);
    // Replaces the host layer: an endpoint that is empty restores the built-in one, any other gets
    // a trailing "/"; an interval that is not greater than 0 becomes 300000.
    static void setDefaults(const HostDefaults& defaults);
    // Replaces the remote layer with the keys of `values`, parsing each by its type; a key that is
    // absent clears its value. Leaves "disableSCacheList" alone. Sets feature bit 2 in Environment.
    static void updateRemote(const StringMap& values);
    // Replaces "disableSCacheList": a pack is in it when its value is "0" or "false", or "auto"
    // while "autoDisableSCache" is true.
    static void updateSwitches(const StringMap& switches);
    // Called, under the writers' mutex, with each new record before it is published; null removes
    // it. Nothing of the system installs one.
    static void setListener(std::function<void(const Settings&)> listener);
};

}  // namespace FerritCore
