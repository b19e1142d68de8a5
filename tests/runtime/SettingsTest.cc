#include "runtime/Settings.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "base/Environment.h"
#include "marl/Clock.h"
#include "tests/TestUtil.h"

namespace FerritCore {
namespace {

using MarlLogger::json::JSON;

class SettingsTest : public FerritTest::ProcessTest {
  protected:
    static std::shared_ptr<const Settings> now() { return Settings::current(); }

    MarlLogger::ScopedManualClock clock_;
};

uint64_t drawMax(uint64_t maxInclusive) {
    return maxInclusive;
}
uint64_t drawZero(uint64_t) {
    return 0;
}

// ---- Built-in values

TEST_F(SettingsTest, BuiltInRecordAnswersEveryDefault) {
    const auto s = now();
    EXPECT_EQ(s->configUpdateIntervalValue(), 300000);
    EXPECT_EQ(s->configBackupUpdateIntervalValue(), 1800000);
    EXPECT_EQ(s->configOutOfDateIntervalValue(), 129600000);
    EXPECT_EQ(s->startupDownloadLimitValue(), 14);
    EXPECT_EQ(s->downloadLimitValue(), 30);
    EXPECT_EQ(s->autoInstallLimitValue(), 3);
    EXPECT_TRUE(s->reinstallPreloadValue());
    EXPECT_TRUE(s->cleanupEnabledValue());
    EXPECT_TRUE(s->cacheCRCEnabledValue());
    EXPECT_TRUE(s->cacheValidationEnabledValue());
    EXPECT_TRUE(s->requestForceHttpsValue());
    EXPECT_TRUE(s->aggregateRequestEnabledValue());
    EXPECT_TRUE(s->moduleCacheEnabledValue());
    EXPECT_EQ(s->moduleCacheMinHotSizeValue(), 100u);
    EXPECT_TRUE(s->moduleCacheCheckMD5Value());
    EXPECT_TRUE(s->uniAppEnabledValue());
    EXPECT_EQ(s->uniAppMaxSizeValue(), 52428800u);
    EXPECT_EQ(s->uniAppMinHotSizeValue(), 100u);
    EXPECT_TRUE(s->uniAppCheckMD5Value());
    EXPECT_TRUE(s->scache404EnabledValue());
    EXPECT_TRUE(s->onDemandEnabledValue());
    EXPECT_EQ(s->encryptionTypeValue(), 0u);
    EXPECT_EQ(s->ferritSizeLimitValue(), 52428800u);
    EXPECT_EQ(s->acacheSizeLimitValue(), 52428800u);
    EXPECT_EQ(s->moduleCacheMaxSizeValue(), 52428800u);
    EXPECT_TRUE(s->enableSCacheValue());
    EXPECT_FALSE(s->autoDisableSCacheValue());
    EXPECT_TRUE(s->disableSCacheList.empty());
    EXPECT_TRUE(s->scacheFileType.empty());
    EXPECT_TRUE(s->disableInstallPeriods.empty());
    EXPECT_EQ(s->configPrefix, Settings::builtinConfigPrefix());
    EXPECT_EQ(s->zipPrefix, Settings::builtinZipPrefix());
    EXPECT_EQ(s->acacheZipPrefix, Settings::builtinACacheZipPrefix());
}

// Nothing is compiled in by default: a host gives its servers, and a build for one deployment may
// still set them.
TEST_F(SettingsTest, BuiltInEndpointsAreEmptyUnlessTheBuildSetsThem) {
    if (FERRIT_ENDPOINTS_SET_BY_BUILD) GTEST_SKIP() << "this build compiles endpoints in";
    for (const std::string* prefix :
         {&Settings::builtinConfigPrefix(), &Settings::builtinZipPrefix(),
          &Settings::builtinACacheZipPrefix(), &Settings::preReleaseConfigPrefix(),
          &Settings::dailyConfigPrefix(), &Settings::testZipPrefix()}) {
        EXPECT_EQ(*prefix, "");
    }
    const auto s = now();
    for (int32_t env : {0, 1, 2}) {
        EXPECT_EQ(s->configPrefixFor(env), "") << env;
        EXPECT_EQ(s->zipPrefixFor(0, env), "") << env;
        EXPECT_EQ(s->zipPrefixFor(64, env), "") << env;
    }
}

// Each endpoint has the host's setting that supplies it, named in the words of a request that
// has none.
TEST_F(SettingsTest, EveryEndpointNamesTheHostsKeyForIt) {
    EXPECT_STREQ(Settings::configPrefixKey(0), "configPrefixDebug");
    EXPECT_STREQ(Settings::configPrefixKey(1), "configPrefixDaily");
    EXPECT_STREQ(Settings::configPrefixKey(2), "configPrefixRelease");
    EXPECT_STREQ(Settings::zipPrefixKey(0, 2), "zipPrefixRelease");
    EXPECT_STREQ(Settings::zipPrefixKey(64, 2), "ACacheZipPrefixRelease");
    EXPECT_STREQ(Settings::zipPrefixKey(64, 1), "zipPrefixDaily");
    EXPECT_STREQ(Settings::zipPrefixKey(64, 0), "zipPrefixRelease");
}

TEST_F(SettingsTest, CoreVersionIsTheBuildsVersion) {
    EXPECT_EQ(kCoreVersion, "10.10.0-rc.5");
}

// ---- Host layer

TEST_F(SettingsTest, HostIntervalZeroOrNegativeStoresDefault) {
    Settings::setDefaults(HostDefaults::fromJSON(JSON::parse(R"({"configUpdateInterval":0})")));
    EXPECT_EQ(now()->configUpdateIntervalDefault, 300000);
    Settings::setDefaults(HostDefaults::fromJSON(JSON::parse(R"({"configUpdateInterval":-1})")));
    EXPECT_EQ(now()->configUpdateIntervalDefault, 300000);
    Settings::setDefaults(
        HostDefaults::fromJSON(JSON::parse(R"({"configUpdateInterval":"600000"})")));
    EXPECT_EQ(now()->configUpdateIntervalDefault, 300000);  // not a number counts as 0
    Settings::setDefaults(
        HostDefaults::fromJSON(JSON::parse(R"({"configUpdateInterval":600000})")));
    EXPECT_EQ(now()->configUpdateIntervalDefault, 600000);
    EXPECT_EQ(now()->configUpdateIntervalValue(), 600000);
}

TEST_F(SettingsTest, HostEndpointsGetTrailingSlashAndEmptyRestoresBuiltIn) {
    HostDefaults defaults;
    defaults.configPrefix = "https://c.test/conf";
    defaults.zipPrefix = "https://z.test/zip/";
    defaults.acacheZipPrefix = "";
    Settings::setDefaults(defaults);
    EXPECT_EQ(now()->configPrefix, "https://c.test/conf/");
    EXPECT_EQ(now()->zipPrefix, "https://z.test/zip/");
    EXPECT_EQ(now()->acacheZipPrefix, Settings::builtinACacheZipPrefix());
}

TEST_F(SettingsTest, HostZipPrefixServesBothEndpointsUnlessACachePrefixGiven) {
    HostDefaults one =
        HostDefaults::fromJSON(JSON::parse(R"({"zipPrefixRelease":"https://z.test"})"));
    EXPECT_EQ(one.zipPrefix, "https://z.test");
    EXPECT_EQ(one.acacheZipPrefix, "https://z.test");
    HostDefaults two = HostDefaults::fromJSON(JSON::parse(
        R"({"zipPrefixRelease":"https://z.test","ACacheZipPrefixRelease":"https://a.test"})"));
    EXPECT_EQ(two.acacheZipPrefix, "https://a.test");
    EXPECT_EQ(two.encryptionType, 0u);
}

TEST_F(SettingsTest, HostChannelLeadsEachConfigurationPrefixToItsDocuments) {
    Settings::setDefaults(HostDefaults::fromJSON(JSON::parse(
        R"({"configPrefixRelease":"https://c.test/","configPrefixDaily":"http://d.test/",)"
        R"("zipPrefixRelease":"https://c.test/packs/","channel":"beta"})")));
    EXPECT_EQ(now()->configPrefixFor(2), "https://c.test/channels/beta/");
    EXPECT_EQ(now()->configPrefixFor(1), "http://d.test/channels/beta/");
    EXPECT_EQ(now()->zipPrefix, "https://c.test/packs/") << "zips serve every channel";
    EXPECT_EQ(now()->toJSON()["channel"].stringValue(), "beta");
    for (const char* bad : {"../x", "a/b", ".hidden", "with space"}) {
        Settings::setDefaults(HostDefaults::fromJSON(JSON::parse(
            std::string(R"({"configPrefixRelease":"https://c.test/","channel":")") + bad + "\"}")));
        EXPECT_EQ(now()->configPrefixFor(2), "https://c.test/") << bad;
    }
    Settings::setDefaults(
        HostDefaults::fromJSON(JSON::parse(R"({"configPrefixRelease":"https://c.test/"})")));
    EXPECT_EQ(now()->configPrefixFor(2), "https://c.test/") << "no channel: the tree's own";
}

TEST_F(SettingsTest, EmptyHostObjectRestoresBuiltInDefaults) {
    HostDefaults defaults;
    defaults.configPrefix = "https://c.test/";
    defaults.configUpdateInterval = 1000;
    defaults.encryptionType = 3;
    Settings::setDefaults(defaults);
    Settings::setDefaults(HostDefaults::fromJSON(JSON::parse("{}")));
    EXPECT_EQ(now()->configPrefix, Settings::builtinConfigPrefix());
    EXPECT_EQ(now()->configUpdateIntervalDefault, 300000);
    EXPECT_EQ(now()->encryptionTypeDefault, 0u);
    EXPECT_EQ(now()->toJSON(), JSON(MarlLogger::json::JSONObject()));
}

// ---- Remote layer

TEST_F(SettingsTest, UpdateRemoteParsesEachTypeByItsRule) {
    Settings::updateRemote({
        {"configUpdateInterval", "60000.5"},
        {"configBackupUpdateInterval", "abc"},
        {"configOutOfDateInterval", " 12e3"},
        {"startupDownloadLimit", "12abc"},
        {"downloadLimit", "-3"},
        {"autoInstallLimit", "300"},
        {"reinstallPreload", "0"},
        {"cleanupEnabled", "false"},
        {"cacheCRCEnabled", "yes"},
        {"cacheValidationEnabled", ""},
        {"requestForceHttps", "TRUE"},
        {"aggregateRequestEnabled", "1"},
        {"moduleCacheMinHotSize", "4294967296"},
        {"uniAppMaxSize", "18446744073709551616"},
        {"ferritZipPrefix", "https://z.test/p"},
        {"acacheZipPrefix", "https://a.test/"},
        {"encryptionType", "7"},
    });
    const auto s = now();
    EXPECT_EQ(s->configUpdateIntervalValue(), 60000.5);
    ASSERT_TRUE(s->configBackupUpdateInterval.has_value());  // set, although it did not parse
    EXPECT_EQ(s->configBackupUpdateIntervalValue(), 0);
    EXPECT_EQ(s->configOutOfDateIntervalValue(), 12000);
    EXPECT_EQ(s->startupDownloadLimitValue(), 12);
    EXPECT_EQ(s->downloadLimitValue(), 0);
    EXPECT_EQ(s->autoInstallLimitValue(), 255);  // saturates instead of wrapping to 44
    EXPECT_FALSE(s->reinstallPreloadValue());
    EXPECT_FALSE(s->cleanupEnabledValue());
    EXPECT_FALSE(s->cacheCRCEnabledValue());
    EXPECT_FALSE(s->cacheValidationEnabledValue());
    EXPECT_FALSE(s->requestForceHttpsValue());
    EXPECT_TRUE(s->aggregateRequestEnabledValue());
    EXPECT_EQ(s->moduleCacheMinHotSizeValue(), 4294967295u);
    EXPECT_EQ(s->uniAppMaxSize.value(), UINT64_MAX);
    EXPECT_EQ(s->zipPrefixRemote.value(), "https://z.test/p/");
    EXPECT_EQ(s->acacheZipPrefixRemote.value(), "https://a.test/");
    EXPECT_EQ(s->encryptionTypeValue(), 7u);
    // Absent keys fall back to their defaults.
    EXPECT_TRUE(s->moduleCacheEnabledValue());
    EXPECT_FALSE(s->moduleCacheEnabled.has_value());
}

TEST_F(SettingsTest, DoubleThatIsNotFiniteReadsZero) {
    Settings::updateRemote(
        {{"configOutOfDateInterval", "inf"}, {"configBackupUpdateInterval", "1e400"}});
    EXPECT_EQ(now()->configOutOfDateIntervalValue(), 0);
    EXPECT_EQ(now()->configBackupUpdateIntervalValue(), 0);
}

TEST_F(SettingsTest, EmptyRemoteMapClearsRemoteValuesAndPeriodsButKeepsHostDefaultsAndSwitches) {
    HostDefaults defaults;
    defaults.configPrefix = "https://c.test/";
    defaults.configUpdateInterval = 900000;
    Settings::setDefaults(defaults);
    Settings::updateSwitches({{"packA", "0"}});
    Settings::updateRemote({{"configUpdateInterval", "1000"},
                            {"enableSCache", "false"},
                            {"ferritSizeLimit", "10"},
                            {"disableInstallPeriods", R"([{"s":1,"e":2}])"},
                            {"scacheFileType", R"(["png"])"}});
    ASSERT_EQ(now()->configUpdateIntervalValue(), 1000);
    ASSERT_EQ(now()->disableInstallPeriods.size(), 1u);

    Settings::updateRemote({});
    const auto s = now();
    EXPECT_FALSE(s->configUpdateIntervalRemote.has_value());
    EXPECT_EQ(s->configUpdateIntervalValue(), 900000);
    EXPECT_FALSE(s->enableSCache.has_value());
    EXPECT_FALSE(s->ferritSizeLimit.has_value());
    EXPECT_TRUE(s->disableInstallPeriods.empty());
    EXPECT_TRUE(s->scacheFileType.empty());
    EXPECT_EQ(s->configPrefix, "https://c.test/");
    EXPECT_EQ(s->disableSCacheList, (Settings::StringSet{"packA"}));
}

TEST_F(SettingsTest, UpdateRemoteIgnoresDisableSCacheListKey) {
    Settings::updateSwitches({{"packA", "false"}});
    Settings::updateRemote({{"disableSCacheList", R"(["packB"])"}});
    EXPECT_EQ(now()->disableSCacheList, (Settings::StringSet{"packA"}));
}

TEST_F(SettingsTest, UpdateRemoteSetsFeatureBitTwo) {
    EXPECT_EQ(Environment::instance().feature() & 2u, 0u);
    Settings::updateRemote({});
    EXPECT_EQ(Environment::instance().feature() & 2u, 2u);
}

TEST_F(SettingsTest, PeriodsComeFromSEAndDWithDefaultJitter) {
    Settings::updateRemote(
        {{"disableInstallPeriods", R"([{"s":10,"e":20,"d":5},{"s":"30","e":40},7,{"e":1}])"}});
    const auto& periods = now()->disableInstallPeriods;
    ASSERT_EQ(periods.size(), 3u);
    EXPECT_EQ(periods[0], (InstallPeriod{10, 20, 5}));
    EXPECT_EQ(periods[1], (InstallPeriod{30, 40, 300000}));
    EXPECT_EQ(periods[2], (InstallPeriod{0, 1, 300000}));
}

TEST_F(SettingsTest, MalformedListsYieldEmpty) {
    Settings::updateRemote({{"disableInstallPeriods", "[{"}, {"scacheFileType", "png"}});
    EXPECT_TRUE(now()->disableInstallPeriods.empty());
    EXPECT_TRUE(now()->scacheFileType.empty());
    EXPECT_TRUE(now()->isSCacheFileType("a.js"));
}

// ---- Size limits

TEST_F(SettingsTest, SizeLimitTenWithZeroOptIsTenAndBothAbsentIsDefault) {
    Settings::updateRemote({{"ferritSizeLimit", "10"}, {"ferritSizeLimitOpt", "0"}});
    EXPECT_EQ(now()->ferritSizeLimitValue(), 10u);
    Settings::updateRemote({});
    EXPECT_EQ(now()->ferritSizeLimitValue(), 52428800u);
}

TEST_F(SettingsTest, PositiveOptWinsAndZeroOrNegativeFallsThrough) {
    Settings::updateRemote({{"acacheSizeLimit", "10"}, {"acacheSizeLimitOpt", "20"}});
    EXPECT_EQ(now()->acacheSizeLimitValue(), 20u);
    Settings::updateRemote({{"acacheSizeLimit", "10"}, {"acacheSizeLimitOpt", "-20"}});
    EXPECT_EQ(now()->acacheSizeLimitValue(), 10u);
    Settings::updateRemote({{"moduleCacheMaxSize", "0"}, {"moduleCacheMaxSizeOpt", "0"}});
    EXPECT_EQ(now()->moduleCacheMaxSizeValue(), 52428800u);
    Settings::updateRemote({{"moduleCacheMaxSizeOpt", "5"}});
    EXPECT_EQ(now()->moduleCacheMaxSizeValue(), 5u);
    Settings::updateRemote({{"uniAppMaxSize", "0"}});
    EXPECT_EQ(now()->uniAppMaxSizeValue(), 52428800u);
}

// ---- SCache switches and file types

TEST_F(SettingsTest, ExtensionTestIsCaseInsensitiveAndTakesLastExtension) {
    const auto s = now();
    EXPECT_TRUE(s->isSCacheFileType("a.CSS"));
    EXPECT_TRUE(s->isSCacheFileType("dir/app.js"));
    EXPECT_FALSE(s->isSCacheFileType("a"));
    EXPECT_FALSE(s->isSCacheFileType("a.js.map"));
}

TEST_F(SettingsTest, RemoteFileTypesReplaceJsAndCss) {
    Settings::updateRemote({{"scacheFileType", R"(["PNG","svg",3])"}});
    const auto s = now();
    EXPECT_EQ(s->scacheFileType, (Settings::StringSet{"png", "svg"}));
    EXPECT_TRUE(s->isSCacheFileType("logo.Png"));
    EXPECT_FALSE(s->isSCacheFileType("app.js"));
}

TEST_F(SettingsTest, AutoSwitchDisablesNothingUnlessAutoDisableSCacheIsTrue) {
    Settings::updateSwitches({{"a", "auto"}, {"b", "0"}, {"c", "false"}, {"d", "1"}, {"e", "off"}});
    EXPECT_EQ(now()->disableSCacheList, (Settings::StringSet{"b", "c"}));
    Settings::updateRemote({{"autoDisableSCache", "true"}});
    Settings::updateSwitches({{"a", "auto"}, {"b", "0"}});
    EXPECT_EQ(now()->disableSCacheList, (Settings::StringSet{"a", "b"}));
    Settings::updateRemote({{"autoDisableSCache", "false"}});
    Settings::updateSwitches({{"a", "auto"}});
    EXPECT_TRUE(now()->disableSCacheList.empty());
}

TEST_F(SettingsTest, SCacheIsOffForListedPackOrWhenSwitchedOff) {
    Settings::updateSwitches({{"off", "0"}});
    EXPECT_FALSE(now()->isSCacheEnabled("off"));
    EXPECT_TRUE(now()->isSCacheEnabled("on"));
    Settings::updateRemote({{"enableSCache", "false"}});
    EXPECT_FALSE(now()->isSCacheEnabled("on"));
}

// ---- Install periods

TEST_F(SettingsTest, InstallIsDisabledWithinPeriodAndItsJitter) {
    Settings::updateRemote({{"disableInstallPeriods", R"([{"s":100,"e":200,"d":50}])"}});
    const auto s = now();
    EXPECT_FALSE(s->isInstallDisabled(99, &drawMax));
    EXPECT_TRUE(s->isInstallDisabled(100, &drawZero));
    EXPECT_TRUE(s->isInstallDisabled(200, &drawZero));
    EXPECT_FALSE(s->isInstallDisabled(201, &drawZero));
    EXPECT_TRUE(s->isInstallDisabled(250, &drawMax));
    EXPECT_FALSE(s->isInstallDisabled(251, &drawMax));
}

TEST_F(SettingsTest, InstallDisabledReadsWallClock) {
    const double wall = MRLCurrentTime();
    JSON periods;
    periods.push(JSON(MarlLogger::json::JSONObject{
        {"s", JSON(wall - 10)}, {"e", JSON(wall + 10)}, {"d", JSON(0)}}));
    Settings::updateRemote({{"disableInstallPeriods", periods.toString()}});
    EXPECT_TRUE(now()->isInstallDisabled());
    clock_->advance(11);
    EXPECT_FALSE(now()->isInstallDisabled());
    Settings::updateRemote({});
    EXPECT_FALSE(now()->isInstallDisabled());
}

TEST_F(SettingsTest, RandomStretchStaysWithinJitter) {
    const double wall = MRLCurrentTime();
    JSON periods;
    periods.push(JSON(MarlLogger::json::JSONObject{
        {"s", JSON(wall - 1000)}, {"e", JSON(wall - 100)}, {"d", JSON(50)}}));
    Settings::updateRemote({{"disableInstallPeriods", periods.toString()}});
    for (int i = 0; i < 200; ++i) EXPECT_FALSE(now()->isInstallDisabled());
}

// ---- Endpoints

// Every environment's endpoints come from the host when the build has none: nothing compiled in
// is required.
TEST_F(SettingsTest, HostSetsTheOtherEnvironmentsEndpoints) {
    Settings::setDefaults(HostDefaults::fromJSON(JSON::parse(
        R"({"configPrefixRelease":"https://r.test/","zipPrefixRelease":"https://r.test/packs",)"
        R"("configPrefixDebug":"https://d.test","configPrefixDaily":"http://y.test/",)"
        R"("zipPrefixDaily":"http://y.test/packs"})")));
    const auto s = now();
    EXPECT_EQ(s->configPrefixFor(0), "https://d.test/");
    EXPECT_EQ(s->configPrefixFor(1), "http://y.test/");
    EXPECT_EQ(s->configPrefixFor(2), "https://r.test/");
    EXPECT_EQ(s->zipPrefixFor(0, 1), "http://y.test/packs/");
    EXPECT_EQ(s->zipPrefixFor(64, 1), "http://y.test/packs/");
    EXPECT_EQ(s->zipPrefixFor(0, 2), "https://r.test/packs/");
    if (Settings::builtinZipPrefix().empty()) {
        EXPECT_EQ(s->zipPrefixFor(0, 0), "https://r.test/packs/");
    }
    EXPECT_EQ(s->toJSON()["configPrefixDebug"].stringValue(), "https://d.test/");
    EXPECT_EQ(s->toJSON()["configPrefixDaily"].stringValue(), "http://y.test/");
    EXPECT_EQ(s->toJSON()["zipPrefixDaily"].stringValue(), "http://y.test/packs/");
    // An empty object restores the built-in values, these as the others.
    Settings::setDefaults(HostDefaults::fromJSON(JSON::parse("{}")));
    EXPECT_EQ(now()->configPrefixFor(0), Settings::preReleaseConfigPrefix());
    EXPECT_EQ(now()->configPrefixFor(1), Settings::dailyConfigPrefix());
    EXPECT_EQ(now()->zipPrefixFor(0, 1), Settings::testZipPrefix());
    EXPECT_EQ(now()->toJSON(), JSON(MarlLogger::json::JSONObject()));
}

TEST_F(SettingsTest, ConfigPrefixFollowsEnvironment) {
    HostDefaults defaults;
    defaults.configPrefix = "https://host.test/config/";
    Settings::setDefaults(defaults);
    const auto s = now();
    EXPECT_EQ(s->configPrefixFor(0), Settings::preReleaseConfigPrefix());
    EXPECT_EQ(s->configPrefixFor(1), Settings::dailyConfigPrefix());
    EXPECT_EQ(s->configPrefixFor(2), "https://host.test/config/");
    EXPECT_EQ(s->configPrefixFor(7), "https://host.test/config/");
    EXPECT_EQ(s->configPrefixFor(), "https://host.test/config/");
    Environment::instance().setEnvValue(1);
    EXPECT_EQ(s->configPrefixFor(), Settings::dailyConfigPrefix());
}

TEST_F(SettingsTest, DailyEnvironmentUsesRemoteZipPrefixRatherThanTestEndpoint) {
    Environment::instance().setEnvValue(1);
    EXPECT_EQ(now()->zipPrefixFor(0), Settings::testZipPrefix());
    Settings::updateRemote({{"ferritZipPrefix", "https://remote.test/zip"}});
    EXPECT_EQ(now()->zipPrefixFor(0), "https://remote.test/zip/");
    EXPECT_EQ(now()->zipPrefixFor(64), Settings::testZipPrefix());  // no type-64 override
}

TEST_F(SettingsTest, DebugEnvironmentDownloadsFromBuiltInReleaseEndpoint) {
    HostDefaults defaults;
    defaults.zipPrefix = "https://host.test/zip/";
    Settings::setDefaults(defaults);
    // The build's release endpoint, when it set one; else the host's, since nothing else is there.
    const std::string expected = Settings::builtinZipPrefix().empty()
                                     ? "https://host.test/zip/"
                                     : Settings::builtinZipPrefix();
    EXPECT_EQ(now()->zipPrefixFor(0, 0), expected);
    EXPECT_EQ(now()->zipPrefixFor(64, 0), expected);
    EXPECT_EQ(now()->zipPrefixFor(0, 2), "https://host.test/zip/");
}

TEST_F(SettingsTest, ReleaseEnvironmentPicksEndpointByPackType) {
    HostDefaults defaults;
    defaults.zipPrefix = "https://host.test/zip/";
    defaults.acacheZipPrefix = "https://host.test/acache/";
    Settings::setDefaults(defaults);
    EXPECT_EQ(now()->zipPrefixFor(0x50, 2), "https://host.test/zip/");
    EXPECT_EQ(now()->zipPrefixFor(64, 2), "https://host.test/acache/");
    Settings::updateRemote({{"acacheZipPrefix", "https://remote.test/a/"}});
    EXPECT_EQ(now()->zipPrefixFor(64, 2), "https://remote.test/a/");
    EXPECT_EQ(now()->zipPrefixFor(64, 0), "https://remote.test/a/");
    EXPECT_EQ(now()->zipPrefixFor(0x50, 2), "https://host.test/zip/");
}

// ---- Dump

TEST_F(SettingsTest, ToJSONOfBuiltInRecordIsEmpty) {
    EXPECT_EQ(now()->toJSON().toString(), "{}");
}

TEST_F(SettingsTest, ToJSONWritesOnlyWhatDiffersFromBuiltIn) {
    HostDefaults defaults;
    defaults.configPrefix = "https://c.test/";
    defaults.zipPrefix = "https://z.test/";
    defaults.configUpdateInterval = 600000;
    defaults.encryptionType = 2;
    Settings::setDefaults(defaults);
    Settings::updateRemote({{"autoDisableSCache", "true"},
                            {"cleanupEnabled", "false"},
                            {"downloadLimit", "5"},
                            {"acacheZipPrefix", "https://a.test/"},
                            {"scacheFileType", R"(["svg","png"])"},
                            {"disableInstallPeriods", R"([{"s":1,"e":2,"d":3}])"}});
    Settings::updateSwitches({{"p2", "0"}, {"p1", "0"}});
    const JSON dump = now()->toJSON();
    EXPECT_EQ(dump.toString(),
              R"({"configPrefixRelease":"https://c.test/","configUpdateInterval":600000.0,)"
              R"("downloadLimit":5,"cleanupEnabled":false,"ferritZipPrefix":"https://z.test/",)"
              R"("acacheZipPrefix":"https://a.test/",)"
              R"("encryptionType":2,"disableInstallPeriods":[{"s":1.0,"e":2.0,"d":3.0}],)"
              R"("disableSCacheList":["p1","p2"],"scacheFileType":["png","svg"]})");
    EXPECT_TRUE(dump["autoDisableSCache"].isNull());
}

TEST_F(SettingsTest, ToJSONPrefersRemoteIntervalAndEncryption) {
    HostDefaults defaults;
    defaults.configUpdateInterval = 600000;
    defaults.encryptionType = 2;
    Settings::setDefaults(defaults);
    Settings::updateRemote({{"configUpdateInterval", "1000"}, {"encryptionType", "0"}});
    const JSON dump = now()->toJSON();
    EXPECT_EQ(dump["configUpdateInterval"].doubleValue(), 1000);
    EXPECT_EQ(dump["encryptionType"].uint32Value(), 0u);
    EXPECT_FALSE(dump["encryptionType"].isNull());
}

// ---- Snapshots and writers

TEST_F(SettingsTest, HeldSnapshotStaysWholeAcrossChange) {
    const auto before = now();
    Settings::updateRemote({{"downloadLimit", "1"}});
    EXPECT_EQ(before->downloadLimitValue(), 30);
    EXPECT_EQ(now()->downloadLimitValue(), 1);
    EXPECT_NE(before.get(), now().get());
}

TEST_F(SettingsTest, ListenerSeesNewRecordBeforeItIsPublished) {
    std::vector<int> seen;
    std::vector<int> publishedAtCall;
    Settings::setListener([&](const Settings& next) {
        seen.push_back(next.downloadLimitValue());
        publishedAtCall.push_back(Settings::current()->downloadLimitValue());
    });
    Settings::updateRemote({{"downloadLimit", "7"}});
    EXPECT_EQ(seen, (std::vector<int>{7}));
    EXPECT_EQ(publishedAtCall, (std::vector<int>{30}));
    Settings::setListener(nullptr);
    Settings::updateRemote({});
    EXPECT_EQ(seen.size(), 1u);
}

TEST_F(SettingsTest, WritersMayNestThroughRecursiveMutex) {
    Settings::setListener([](const Settings& next) {
        if (next.downloadLimitValue() == 9) Settings::updateSwitches({{"nested", "0"}});
    });
    Settings::updateRemote({{"downloadLimit", "9"}});
    // The outer change publishes last and so wins; nothing deadlocks.
    EXPECT_EQ(now()->downloadLimitValue(), 9);
}

TEST_F(SettingsTest, ConcurrentReadersAlwaysSeeWholeRecords) {
    std::atomic<bool> stop{false};
    std::atomic<int> torn{0};
    std::vector<std::thread> readers;
    for (int t = 0; t < 3; ++t) {
        readers.emplace_back([&] {
            while (!stop.load()) {
                const auto s = Settings::current();
                // Each writer sets both values to the same number.
                if (s->downloadLimitValue() != s->startupDownloadLimitValue() &&
                    !(s->downloadLimitValue() == 30 && s->startupDownloadLimitValue() == 14)) {
                    torn.fetch_add(1);
                }
            }
        });
    }
    std::vector<std::thread> writers;
    for (int t = 0; t < 2; ++t) {
        writers.emplace_back([t] {
            for (int i = 0; i < 300; ++i) {
                const std::string v = std::to_string((i + t) % 200);
                Settings::updateRemote({{"downloadLimit", v}, {"startupDownloadLimit", v}});
            }
        });
    }
    for (std::thread& w : writers) w.join();
    stop.store(true);
    for (std::thread& r : readers) r.join();
    EXPECT_EQ(torn.load(), 0);
}

}  // namespace
}  // namespace FerritCore
