#include "marl/Clock.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <unordered_set>

namespace MarlLogger {
namespace {

double realWallMs() {
    using namespace std::chrono;
    return duration<double, std::milli>(system_clock::now().time_since_epoch()).count();
}

double realSteadyMs() {
    using namespace std::chrono;
    return duration<double, std::milli>(steady_clock::now().time_since_epoch()).count();
}

TEST(ClockTest, ScopedManualClockDrivesBothClocks) {
    ScopedManualClock clock(5000.0);
    EXPECT_EQ(MRLCurrentTime(), 5000.0);
    EXPECT_EQ(MRLCurrentClock(), 1000.0);
    // Repeated reads do not move a manual clock.
    EXPECT_EQ(MRLCurrentTime(), 5000.0);
    EXPECT_EQ(MRLCurrentClock(), 1000.0);
}

TEST(ClockTest, AdvanceMovesBothClocks) {
    ScopedManualClock clock;
    const double wall = MRLCurrentTime();
    const double mono = MRLCurrentClock();
    clock->advance(3.0 * 3600 * 1000);  // three hours, without sleeping
    EXPECT_EQ(MRLCurrentTime(), wall + 3.0 * 3600 * 1000);
    EXPECT_EQ(MRLCurrentClock(), mono + 3.0 * 3600 * 1000);
}

TEST(ClockTest, SetWallMovesOnlyTheWallClock) {
    ScopedManualClock clock;
    const double mono = MRLCurrentClock();
    (*clock).setWall(42.0);
    EXPECT_EQ(MRLCurrentTime(), 42.0);
    EXPECT_EQ(MRLCurrentClock(), mono);
}

TEST(ClockTest, DefaultManualWallTime) {
    ScopedManualClock clock;
    EXPECT_EQ(MRLCurrentTime(), 1.7e12);
}

TEST(ClockTest, RealClocksWithoutManualClock) {
    const double wallBefore = realWallMs();
    const double steadyBefore = realSteadyMs();
    const double wall = MRLCurrentTime();
    const double mono = MRLCurrentClock();
    const double wallAfter = realWallMs();
    const double steadyAfter = realSteadyMs();
    EXPECT_GE(wall, wallBefore);
    EXPECT_LE(wall, wallAfter);
    EXPECT_GE(mono, steadyBefore);
    EXPECT_LE(mono, steadyAfter);
}

TEST(ClockTest, RealClocksReturnAfterScopedClockEnds) {
    {
        ScopedManualClock clock(1.0);
        EXPECT_EQ(MRLCurrentTime(), 1.0);
    }
    const double before = realWallMs();
    const double wall = MRLCurrentTime();
    EXPECT_GE(wall, before);
    EXPECT_LE(wall, realWallMs());
}

TEST(ClockTest, MonotonicClockNeverGoesBack) {
    double last = MRLCurrentClock();
    for (int i = 0; i < 1000; ++i) {
        const double now = MRLCurrentClock();
        ASSERT_GE(now, last);
        last = now;
    }
}

// A fake that overrides only what a test needs, installed directly.
class FixedSource : public TimeSource {
  public:
    double wallMs() override { return 11.0; }
    double clockMs() override { return 22.0; }
};

TEST(ClockTest, AnyTimeSourceCanBeInstalled) {
    FixedSource source;
    setTimeSource(&source);
    EXPECT_EQ(MRLCurrentTime(), 11.0);
    EXPECT_EQ(MRLCurrentClock(), 22.0);
    setTimeSource(nullptr);
    EXPECT_NE(MRLCurrentTime(), 11.0);
}

TEST(ClockTest, GeneratedIdStartsWithPrefix) {
    const std::string id = MRLGenerateID("FT_Access");
    EXPECT_EQ(id.rfind("FT_Access_", 0), 0u) << id;
    EXPECT_GT(id.size(), std::string("FT_Access_").size());
    EXPECT_EQ(MRLGenerateID("").front(), '_');
}

TEST(ClockTest, GeneratedIdsAreUnique) {
    std::unordered_set<std::string> seen;
    for (int i = 0; i < 10000; ++i) {
        const std::string id = MRLGenerateID("FT_Access");
        ASSERT_TRUE(seen.insert(id).second) << id;
        ASSERT_EQ(id.rfind("FT_Access_", 0), 0u) << id;
    }
    EXPECT_EQ(seen.size(), 10000u);
}

}  // namespace
}  // namespace MarlLogger
