// The progress bar of long work: drawn in place on a terminal, nothing at all elsewhere.
#include "tools/common/ToolProgress.h"

#include <gtest/gtest.h>

#include <sstream>

namespace FerritTools {
namespace {

TEST(ToolProgressTest, LineShowsFilesBytesAndABarOfTheBytes) {
    EXPECT_EQ(ToolProgress::line("publish", 3, 4, 1500, 3000, "shop/index.html"),
              "publish [############............] 3/4 files, 1.5 kB/3.0 kB shop/index.html");
    EXPECT_EQ(ToolProgress::line("publish", 0, 0, 0, 0, ""),
              "publish [........................] 0 files, 0 B");
    EXPECT_EQ(ToolProgress::line("install", 2, 0, 500, 1000, ""),
              "install [############............] 2 files, 500 B/1.0 kB");
}

TEST(ToolProgressTest, LineWithoutKnownBytesMeasuresFiles) {
    EXPECT_EQ(ToolProgress::line("install", 1, 4, 2500000, 0, "1/2 packs"),
              "install [######..................] 1/4 files, 2.5 MB 1/2 packs");
}

TEST(ToolProgressTest, BytesTextPicksTheUnit) {
    EXPECT_EQ(ToolProgress::bytesText(999), "999 B");
    EXPECT_EQ(ToolProgress::bytesText(1000), "1.0 kB");
    EXPECT_EQ(ToolProgress::bytesText(3400000), "3.4 MB");
    EXPECT_EQ(ToolProgress::bytesText(2000000000), "2.0 GB");
}

TEST(ToolProgressTest, DisabledWritesNothing) {
    std::ostringstream stream;
    {
        ToolProgress progress("publish", false, stream);
        progress.setTotal(2, 10);
        progress.add(1, 5, "a");
        progress.done();
    }
    EXPECT_EQ(stream.str(), "");
}

TEST(ToolProgressTest, EnabledRedrawsInPlaceAndErasesWhenDone) {
    std::ostringstream stream;
    {
        ToolProgress progress("publish", true, stream);
        progress.setTotal(2, 10);
        progress.add(1, 5, "a");
        progress.add(1, 5, "b");
    }  // done() on destruction
    EXPECT_EQ(stream.str(),
              "\r\033[Kpublish [############............] 1/2 files, 5 B/10 B a"
              "\r\033[Kpublish [########################] 2/2 files, 10 B/10 B b"
              "\r\033[K");
}

TEST(ToolProgressTest, ManySmallStepsThatDoNotMoveTheBarDrawOnce) {
    std::ostringstream stream;
    ToolProgress progress("publish", true, stream);
    progress.setTotal(1000, 1000000);
    // A thousand steps in far less than the redraw interval, within the first cell.
    for (int i = 0; i < 40; ++i) progress.add(1, 1000, "f");
    std::string drawn = stream.str();
    size_t draws = 0;
    for (size_t at = drawn.find('\r'); at != std::string::npos; at = drawn.find('\r', at + 1))
        ++draws;
    EXPECT_EQ(draws, 1u) << drawn;
    // The step that moves the bar is drawn at once.
    progress.add(10, 10000, "g");
    EXPECT_NE(stream.str().find("[#......................."), std::string::npos) << stream.str();
}

}  // namespace
}  // namespace FerritTools
