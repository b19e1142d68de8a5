#include "runtime/Settings.h"

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cmath>
#include <limits>
#include <mutex>
#include <random>
#include <variant>

#include "base/Environment.h"
#include "base/ProcessState.h"
#include "base/Published.h"
#include "base/Url.h"
#include "marl/Clock.h"
#include "support/Ascii.h"
#include "support/Mutex.h"

// Deployment endpoints: empty unless the build sets them (see the FERRIT_*_PREFIX cache
// variables). A host that talks to its own servers gives them through setDefaultConfigNative.
#ifndef FERRIT_CONFIG_PREFIX_RELEASE
#define FERRIT_CONFIG_PREFIX_RELEASE ""
#endif
#ifndef FERRIT_ZIP_PREFIX_RELEASE
#define FERRIT_ZIP_PREFIX_RELEASE ""
#endif
#ifndef FERRIT_ACACHE_ZIP_PREFIX_RELEASE
#define FERRIT_ACACHE_ZIP_PREFIX_RELEASE ""
#endif
#ifndef FERRIT_CONFIG_PREFIX_PRE_RELEASE
#define FERRIT_CONFIG_PREFIX_PRE_RELEASE ""
#endif
#ifndef FERRIT_CONFIG_PREFIX_DAILY
#define FERRIT_CONFIG_PREFIX_DAILY ""
#endif
#ifndef FERRIT_ZIP_PREFIX_TEST
#define FERRIT_ZIP_PREFIX_TEST ""
#endif

namespace FerritCore {

using MarlLogger::json::JSON;

namespace {

constexpr double kDefaultPeriodJitter = 300000;

// Below a configuration prefix: the folder of the publisher's channels.
constexpr const char* kChannelsFolder = "channels/";

// An endpoint is a prefix that paths are appended to.
std::string withTrailingSlash(std::string value) {
    if (value.empty() || value.back() != '/') value.push_back('/');
    return value;
}

// A standard decimal parse of the leading number; a failure, an overflow or a value that is not
// finite gives 0, since every double here is a time that must stay usable.
double parseDouble(std::string_view text) {
    size_t start = 0;
    while (start < text.size() &&
           (text[start] == ' ' || (text[start] >= '\t' && text[start] <= '\r')))
        ++start;
    if (start < text.size() && text[start] == '+') ++start;
    double value = 0;
    const auto [end, error] =
        std::from_chars(text.data() + start, text.data() + text.size(), value);
    (void)end;
    if (error != std::errc() || !std::isfinite(value)) return 0;
    return value;
}

// Decimal digits from the start of the text; none gives 0. Too large a number saturates at the
// type's largest value rather than wrapping round to a small one.
template <typename T>
T parseUnsigned(std::string_view text) {
    uint64_t value = 0;
    constexpr uint64_t kMax = std::numeric_limits<T>::max();
    for (char c : text) {
        if (c < '0' || c > '9') break;
        const uint64_t digit = static_cast<uint64_t>(c - '0');
        if (value > (kMax - digit) / 10) return static_cast<T>(kMax);
        value = value * 10 + digit;
    }
    return static_cast<T>(value);
}

bool parseBool(std::string_view text) {
    return text == "1" || text == "true";
}

std::vector<InstallPeriod> parsePeriods(std::string_view text) {
    std::vector<InstallPeriod> periods;
    const JSON document = JSON::parse(text);
    for (const JSON& element : document.arrayValue()) {
        // Something that is not an object names no period.
        if (!element.isObject()) continue;
        InstallPeriod period;
        period.start = element["s"].doubleValue();
        period.end = element["e"].doubleValue();
        period.jitter =
            element.objectValue().find("d") ? element["d"].doubleValue() : kDefaultPeriodJitter;
        periods.push_back(period);
    }
    return periods;
}

// Extensions are compared in lower case, so they are kept so.
Settings::StringSet parseFileTypes(std::string_view text) {
    Settings::StringSet types;
    const JSON document = JSON::parse(text);
    for (const JSON& element : document.arrayValue()) {
        if (!element.isString()) continue;
        std::string type(element.stringViewValue());
        Ascii::lowerInPlace(type);
        types.insert(std::move(type));
    }
    return types;
}

// ---- The remote keys, in the order they are applied and dumped.

using Field = std::variant<std::optional<double> Settings::*, std::optional<uint8_t> Settings::*,
                           std::optional<uint32_t> Settings::*, std::optional<uint64_t> Settings::*,
                           std::optional<bool> Settings::*, std::optional<std::string> Settings::*,
                           std::vector<InstallPeriod> Settings::*, Settings::StringSet Settings::*>;

struct RemoteKey {
    std::string_view name;
    Field field;
};

const RemoteKey kRemoteKeys[] = {
    {"configUpdateInterval", &Settings::configUpdateIntervalRemote},
    {"configBackupUpdateInterval", &Settings::configBackupUpdateInterval},
    {"configOutOfDateInterval", &Settings::configOutOfDateInterval},
    {"startupDownloadLimit", &Settings::startupDownloadLimit},
    {"downloadLimit", &Settings::downloadLimit},
    {"autoInstallLimit", &Settings::autoInstallLimit},
    {"reinstallPreload", &Settings::reinstallPreload},
    {"cleanupEnabled", &Settings::cleanupEnabled},
    {"cacheCRCEnabled", &Settings::cacheCRCEnabled},
    {"cacheValidationEnabled", &Settings::cacheValidationEnabled},
    {"requestForceHttps", &Settings::requestForceHttps},
    {"aggregateRequestEnabled", &Settings::aggregateRequestEnabled},
    {"moduleCacheEnabled", &Settings::moduleCacheEnabled},
    {"moduleCacheMinHotSize", &Settings::moduleCacheMinHotSize},
    {"moduleCacheCheckMD5", &Settings::moduleCacheCheckMD5},
    {"uniAppEnabled", &Settings::uniAppEnabled},
    {"uniAppMaxSize", &Settings::uniAppMaxSize},
    {"uniAppMinHotSize", &Settings::uniAppMinHotSize},
    {"uniAppCheckMD5", &Settings::uniAppCheckMD5},
    {"scache404Enabled", &Settings::scache404Enabled},
    {"onDemandEnabled", &Settings::onDemandEnabled},
    {"ferritZipPrefix", &Settings::zipPrefixRemote},
    {"acacheZipPrefix", &Settings::acacheZipPrefixRemote},
    {"encryptionType", &Settings::encryptionTypeRemote},
    {"disableInstallPeriods", &Settings::disableInstallPeriods},
    {"ferritSizeLimit", &Settings::ferritSizeLimit},
    {"acacheSizeLimit", &Settings::acacheSizeLimit},
    {"ferritSizeLimitOpt", &Settings::ferritSizeLimitOpt},
    {"acacheSizeLimitOpt", &Settings::acacheSizeLimitOpt},
    {"moduleCacheMaxSize", &Settings::moduleCacheMaxSize},
    {"moduleCacheMaxSizeOpt", &Settings::moduleCacheMaxSizeOpt},
    {"enableSCache", &Settings::enableSCache},
    {"autoDisableSCache", &Settings::autoDisableSCache},
    {"disableSCacheList", &Settings::disableSCacheList},
    {"scacheFileType", &Settings::scacheFileType},
    {"configRequestDeadline", &Settings::configRequestDeadline},
    {"resourceRequestDeadline", &Settings::resourceRequestDeadline},
    {"packRequestDeadline", &Settings::packRequestDeadline},
    {"maxInflationRatio", &Settings::maxInflationRatio},
    {"configMaxSize", &Settings::configMaxSize},
};

// Sets the field from the remote text, or clears it when the key is absent.
struct Assign {
    Settings& settings;
    const std::string* text;  // null when absent

    void operator()(std::optional<double> Settings::*field) const {
        settings.*field = text ? std::optional<double>(parseDouble(*text)) : std::nullopt;
    }
    void operator()(std::optional<uint8_t> Settings::*field) const {
        settings.*field =
            text ? std::optional<uint8_t>(parseUnsigned<uint8_t>(*text)) : std::nullopt;
    }
    void operator()(std::optional<uint32_t> Settings::*field) const {
        settings.*field =
            text ? std::optional<uint32_t>(parseUnsigned<uint32_t>(*text)) : std::nullopt;
    }
    void operator()(std::optional<uint64_t> Settings::*field) const {
        settings.*field =
            text ? std::optional<uint64_t>(parseUnsigned<uint64_t>(*text)) : std::nullopt;
    }
    void operator()(std::optional<bool> Settings::*field) const {
        settings.*field = text ? std::optional<bool>(parseBool(*text)) : std::nullopt;
    }
    void operator()(std::optional<std::string> Settings::*field) const {
        settings.*field =
            text ? std::optional<std::string>(withTrailingSlash(*text)) : std::nullopt;
    }
    void operator()(std::vector<InstallPeriod> Settings::*field) const {
        settings.*field = text ? parsePeriods(*text) : std::vector<InstallPeriod>();
    }
    void operator()(Settings::StringSet Settings::*field) const {
        settings.*field = text ? parseFileTypes(*text) : Settings::StringSet();
    }
};

JSON sortedArray(const Settings::StringSet& set) {
    std::vector<std::string> sorted(set.begin(), set.end());
    std::sort(sorted.begin(), sorted.end());
    return JSON(sorted);
}

// Writes the field when it is set (a list: when it is not empty).
struct Dump {
    const Settings& settings;
    JSON& out;
    std::string name;

    void operator()(std::optional<double> Settings::*field) const {
        if (const auto& v = settings.*field) out.set(name, JSON(*v));
    }
    void operator()(std::optional<uint8_t> Settings::*field) const {
        if (const auto& v = settings.*field) out.set(name, JSON(static_cast<uint32_t>(*v)));
    }
    void operator()(std::optional<uint32_t> Settings::*field) const {
        if (const auto& v = settings.*field) out.set(name, JSON(*v));
    }
    void operator()(std::optional<uint64_t> Settings::*field) const {
        if (const auto& v = settings.*field) out.set(name, JSON(*v));
    }
    void operator()(std::optional<bool> Settings::*field) const {
        if (const auto& v = settings.*field) out.set(name, JSON(*v));
    }
    void operator()(std::optional<std::string> Settings::*field) const {
        if (const auto& v = settings.*field) out.set(name, JSON(*v));
    }
    void operator()(std::vector<InstallPeriod> Settings::*field) const {
        const auto& periods = settings.*field;
        if (periods.empty()) return;
        JSON list = JSON(MarlLogger::json::JSONArray());
        for (const InstallPeriod& p : periods) {
            list.push(JSON(MarlLogger::json::JSONObject{
                {"s", JSON(p.start)}, {"e", JSON(p.end)}, {"d", JSON(p.jitter)}}));
        }
        out.set(name, std::move(list));
    }
    void operator()(Settings::StringSet Settings::*field) const {
        const auto& set = settings.*field;
        if (!set.empty()) out.set(name, sortedArray(set));
    }
};

uint64_t sizeLimit(const std::optional<uint64_t>& opt, const std::optional<uint64_t>& plain) {
    if (opt && *opt > 0) return *opt;
    if (plain && *plain > 0) return *plain;
    return Settings::kDefaultSizeLimit;
}

uint64_t randomStretch(uint64_t maxInclusive) {
    thread_local std::mt19937_64 engine{std::random_device{}()};
    return std::uniform_int_distribution<uint64_t>(0, maxInclusive)(engine);
}

// ---- The process's record.

struct Store {
    Published<const Settings> current{std::make_shared<const Settings>()};
    RecursiveMutex writers;
    std::function<void(const Settings&)> listener GUARDED_BY(writers);
};

Store& store() {
    static Store* const instance = ProcessState::create<Store>([](Store& s) {
        RecursiveLock lock(s.writers);
        s.listener = nullptr;
        s.current.store(std::make_shared<const Settings>());
    });
    return *instance;
}

}  // namespace

const std::vector<std::string_view>& Settings::remoteKeys() {
    static const auto* names = [] {
        auto* list = new std::vector<std::string_view>();
        for (const RemoteKey& key : kRemoteKeys) list->push_back(key.name);
        return list;
    }();
    return *names;
}

// ---- Endpoints

const std::string& Settings::builtinConfigPrefix() {
    static const std::string* value = new std::string(FERRIT_CONFIG_PREFIX_RELEASE);
    return *value;
}
const std::string& Settings::builtinZipPrefix() {
    static const std::string* value = new std::string(FERRIT_ZIP_PREFIX_RELEASE);
    return *value;
}
const std::string& Settings::builtinACacheZipPrefix() {
    static const std::string* value = new std::string(FERRIT_ACACHE_ZIP_PREFIX_RELEASE);
    return *value;
}
const std::string& Settings::preReleaseConfigPrefix() {
    static const std::string* value = new std::string(FERRIT_CONFIG_PREFIX_PRE_RELEASE);
    return *value;
}
const std::string& Settings::dailyConfigPrefix() {
    static const std::string* value = new std::string(FERRIT_CONFIG_PREFIX_DAILY);
    return *value;
}
const std::string& Settings::testZipPrefix() {
    static const std::string* value = new std::string(FERRIT_ZIP_PREFIX_TEST);
    return *value;
}

std::string Settings::configPrefixFor() const {
    return configPrefixFor(Environment::instance().env());
}

std::string Settings::configPrefixFor(int32_t env) const {
    std::string prefix;
    switch (env) {
        case kEnvDebug:
            prefix = configPrefixDebug;
            break;
        case kEnvDaily:
            prefix = configPrefixDaily;
            break;
        default:
            prefix = configPrefix;
            break;
    }
    // A channel's documents lie below the same server; the zips are shared by every channel.
    if (!prefix.empty() && !channel.empty()) prefix += kChannelsFolder + channel + "/";
    return prefix;
}

const char* Settings::configPrefixKey(int32_t env) {
    switch (env) {
        case 0:
            return "configPrefixDebug";
        case 1:
            return "configPrefixDaily";
        default:
            return "configPrefixRelease";
    }
}

const char* Settings::zipPrefixKey(uint32_t packType, int32_t env) {
    if (env == 1) return "zipPrefixDaily";
    if (env != 0 && packType == kACachePackType) return "ACacheZipPrefixRelease";
    return "zipPrefixRelease";
}

std::string Settings::zipPrefixFor(uint32_t packType) const {
    return zipPrefixFor(packType, Environment::instance().env());
}

std::string Settings::zipPrefixFor(uint32_t packType, int32_t env) const {
    const bool acache = packType == kACachePackType;
    // A remote override beats the environment.
    if (!acache && zipPrefixRemote) return *zipPrefixRemote;
    if (acache && acacheZipPrefixRemote) return *acacheZipPrefixRemote;
    // "Debug" reads a pre-release configuration but downloads from the release endpoint, and not
    // from one the host may have set, unless the build compiled none in.
    if (env == kEnvDebug) return !builtinZipPrefix().empty() ? builtinZipPrefix() : zipPrefix;
    if (env == kEnvDaily) return zipPrefixDaily;
    return acache ? acacheZipPrefix : zipPrefix;
}

// ---- Getters

uint64_t Settings::ferritSizeLimitValue() const {
    return sizeLimit(ferritSizeLimitOpt, ferritSizeLimit);
}
uint64_t Settings::acacheSizeLimitValue() const {
    return sizeLimit(acacheSizeLimitOpt, acacheSizeLimit);
}
uint64_t Settings::moduleCacheMaxSizeValue() const {
    return sizeLimit(moduleCacheMaxSizeOpt, moduleCacheMaxSize);
}
uint64_t Settings::uniAppMaxSizeValue() const {
    return sizeLimit(std::nullopt, uniAppMaxSize);
}

namespace {
template <typename T>
T positiveOr(const std::optional<T>& value, T fallback) {
    return value && *value > 0 ? *value : fallback;
}
}  // namespace

double Settings::configRequestDeadlineValue() const {
    return positiveOr(configRequestDeadline, kDefaultConfigRequestDeadline);
}
double Settings::resourceRequestDeadlineValue() const {
    return positiveOr(resourceRequestDeadline, kDefaultResourceRequestDeadline);
}
double Settings::packRequestDeadlineValue() const {
    return positiveOr(packRequestDeadline, kDefaultPackRequestDeadline);
}
uint32_t Settings::maxInflationRatioValue() const {
    return positiveOr(maxInflationRatio, kDefaultMaxInflationRatio);
}
uint64_t Settings::configMaxSizeValue() const {
    return positiveOr(configMaxSize, kDefaultConfigMaxSize);
}

bool Settings::isSCacheEnabled(std::string_view packName) const {
    if (!disableSCacheList.empty() && disableSCacheList.count(std::string(packName)) != 0)
        return false;
    return enableSCacheValue();
}

bool Settings::isSCacheFileType(std::string_view fileName) const {
    if (fileName.rfind('.') == std::string_view::npos) return false;
    const std::string ext = Url::extension(fileName);
    if (!scacheFileType.empty()) return scacheFileType.count(ext) != 0;
    return ext == "js" || ext == "css";
}

bool Settings::isInstallDisabled() const {
    if (disableInstallPeriods.empty()) return false;
    return isInstallDisabled(MRLCurrentTime(), &randomStretch);
}

bool Settings::isInstallDisabled(double now, uint64_t (*draw)(uint64_t maxInclusive)) const {
    constexpr double kMaxStretch = static_cast<double>(std::numeric_limits<uint64_t>::max());
    for (const InstallPeriod& period : disableInstallPeriods) {
        if (!(now >= period.start)) continue;
        // A jitter that is negative or not a number stretches nothing.
        uint64_t maxStretch = 0;
        if (period.jitter >= kMaxStretch) {
            maxStretch = std::numeric_limits<uint64_t>::max();
        } else if (period.jitter > 0) {
            maxStretch = static_cast<uint64_t>(period.jitter);
        }
        const uint64_t stretch = maxStretch == 0 || !draw ? 0 : draw(maxStretch);
        if (now <= period.end + static_cast<double>(stretch)) return true;
    }
    return false;
}

// ---- Dump

JSON Settings::toJSON() const {
    JSON out = JSON(MarlLogger::json::JSONObject());
    if (configPrefix != builtinConfigPrefix()) out.set("configPrefixRelease", JSON(configPrefix));
    if (configPrefixDebug != preReleaseConfigPrefix())
        out.set("configPrefixDebug", JSON(configPrefixDebug));
    if (configPrefixDaily != dailyConfigPrefix())
        out.set("configPrefixDaily", JSON(configPrefixDaily));
    if (zipPrefixDaily != testZipPrefix()) out.set("zipPrefixDaily", JSON(zipPrefixDaily));
    if (!channel.empty()) out.set("channel", JSON(channel));
    for (const RemoteKey& key : kRemoteKeys) {
        const std::string name(key.name);
        if (name == "configUpdateInterval") {
            if (configUpdateIntervalRemote) {
                out.set(name, JSON(*configUpdateIntervalRemote));
            } else if (configUpdateIntervalDefault != kDefaultConfigUpdateInterval) {
                out.set(name, JSON(configUpdateIntervalDefault));
            }
        } else if (name == "ferritZipPrefix") {
            if (zipPrefixRemote) {
                out.set(name, JSON(*zipPrefixRemote));
            } else if (zipPrefix != builtinZipPrefix()) {
                out.set(name, JSON(zipPrefix));
            }
        } else if (name == "acacheZipPrefix") {
            if (acacheZipPrefixRemote) {
                out.set(name, JSON(*acacheZipPrefixRemote));
            } else if (acacheZipPrefix != builtinACacheZipPrefix()) {
                out.set(name, JSON(acacheZipPrefix));
            }
        } else if (name == "encryptionType") {
            if (encryptionTypeRemote) {
                out.set(name, JSON(*encryptionTypeRemote));
            } else if (encryptionTypeDefault != 0) {
                out.set(name, JSON(encryptionTypeDefault));
            }
        } else if (name != "autoDisableSCache") {
            std::visit(Dump{*this, out, name}, key.field);
        }
    }
    return out;
}

// ---- Host defaults

bool HostDefaults::isPlainChannel(const std::string& channel) {
    if (channel.empty() || channel[0] == '.') return false;
    for (char c : channel) {
        const bool plain = Ascii::isAlphaNumeric(c) || c == '.' || c == '_' || c == '-';
        if (!plain) return false;
    }
    return true;
}

HostDefaults HostDefaults::fromJSON(const JSON& object) {
    HostDefaults defaults;
    defaults.configPrefix = std::string(object["configPrefixRelease"].stringViewValue());
    defaults.zipPrefix = std::string(object["zipPrefixRelease"].stringViewValue());
    // One key can serve both download endpoints.
    defaults.acacheZipPrefix = defaults.zipPrefix;
    const JSON& acache = object["ACacheZipPrefixRelease"];
    if (acache.isString()) defaults.acacheZipPrefix = std::string(acache.stringViewValue());
    defaults.configPrefixDebug = std::string(object["configPrefixDebug"].stringViewValue());
    defaults.configPrefixDaily = std::string(object["configPrefixDaily"].stringViewValue());
    defaults.zipPrefixDaily = std::string(object["zipPrefixDaily"].stringViewValue());
    const JSON& interval = object["configUpdateInterval"];
    defaults.configUpdateInterval = interval.isNumber() ? interval.doubleValue() : 0;
    const std::string channel(object["channel"].stringViewValue());
    if (isPlainChannel(channel)) defaults.channel = channel;
    return defaults;
}

// ---- Writers

std::shared_ptr<const Settings> Settings::current() {
    return store().current.load();
}

Settings::Snapshot::Snapshot() : Published<const Settings>::Reader(store().current) {}

void Settings::change(const std::function<void(Settings&)>& change) {
    Store& s = store();
    RecursiveLock lock(s.writers);
    auto copy = std::make_shared<Settings>(*s.current.load());
    change(*copy);
    if (s.listener) s.listener(*copy);
    s.current.store(std::move(copy));
}

void Settings::setDefaults(const HostDefaults& defaults) {
    change([&defaults](Settings& s) {
        s.configPrefix = defaults.configPrefix.empty() ? builtinConfigPrefix()
                                                       : withTrailingSlash(defaults.configPrefix);
        s.zipPrefix =
            defaults.zipPrefix.empty() ? builtinZipPrefix() : withTrailingSlash(defaults.zipPrefix);
        s.acacheZipPrefix = defaults.acacheZipPrefix.empty()
                                ? builtinACacheZipPrefix()
                                : withTrailingSlash(defaults.acacheZipPrefix);
        s.configPrefixDebug = defaults.configPrefixDebug.empty()
                                  ? preReleaseConfigPrefix()
                                  : withTrailingSlash(defaults.configPrefixDebug);
        s.configPrefixDaily = defaults.configPrefixDaily.empty()
                                  ? dailyConfigPrefix()
                                  : withTrailingSlash(defaults.configPrefixDaily);
        s.zipPrefixDaily = defaults.zipPrefixDaily.empty()
                               ? testZipPrefix()
                               : withTrailingSlash(defaults.zipPrefixDaily);
        s.configUpdateIntervalDefault = defaults.configUpdateInterval > 0
                                            ? defaults.configUpdateInterval
                                            : kDefaultConfigUpdateInterval;
        s.encryptionTypeDefault = defaults.encryptionType;
        s.channel =
            HostDefaults::isPlainChannel(defaults.channel) ? defaults.channel : std::string();
    });
}

void Settings::updateRemote(const StringMap& values) {
    change([&values](Settings& s) {
        for (const RemoteKey& key : kRemoteKeys) {
            // The switches have their own entry point.
            if (key.name == "disableSCacheList") continue;
            auto it = values.find(std::string(key.name));
            std::visit(Assign{s, it == values.end() ? nullptr : &it->second}, key.field);
        }
    });
    Environment::instance().setFeatureBit(kFeatureRemoteSettings);
}

void Settings::updateSwitches(const StringMap& switches) {
    change([&switches](Settings& s) {
        const bool autoDisable = s.autoDisableSCacheValue();
        StringSet disabled;
        for (const auto& [pack, value] : switches) {
            if (value == "0" || value == "false" || (value == "auto" && autoDisable))
                disabled.insert(pack);
        }
        s.disableSCacheList = std::move(disabled);
    });
}

void Settings::setListener(std::function<void(const Settings&)> listener) {
    Store& s = store();
    RecursiveLock lock(s.writers);
    s.listener = std::move(listener);
}

}  // namespace FerritCore
