#include "view/roll_layout.h"

#include <cmath>
#include <gtest/gtest.h>

#include "app/marks.h"

namespace veltrin {
namespace {

// A column clicked on a strip, taken through the marks' rule (app/marks.h) with the
// layout's strip lengths, names the roll position under it.
TEST(RollLayout, ClickedColumnGivesTheRollPositionThroughTheMarksRule)
{
    struct Case {
        double zoom;
        double scrollMm;
        int strip;
        double localX;
    };
    const Case cases[] = {
        {kDefaultZoom, 0, 0, 0},
        {kDefaultZoom, 120, 2, 250},
        {0.5, 3000, 4, 999},
        {kMaximumZoom, 17, 1, 3},
    };
    constexpr double kMmPerSecond = 60.0;
    for (const Case& c : cases) {
        const RollLayout layout = RollLayout::fit(1000, 500, c.zoom, c.scrollMm, 100);
        const double stripMm = 1000 / c.zoom;
        const double expectedMm = c.scrollMm + c.strip * stripMm + c.localX / c.zoom;
        EXPECT_DOUBLE_EQ(layout.stripStartMm(c.strip), c.scrollMm + c.strip * stripMm);
        EXPECT_DOUBLE_EQ(layout.rollMmAt(c.strip, c.localX), expectedMm);
        const double ms = markTimeAt(stripOffset(layout.stripLengths(), c.strip),
                                     layout.stripCoordinate(c.localX), layout.zoom, kMmPerSecond);
        EXPECT_NEAR(ms * kMmPerSecond / 1000.0, expectedMm, 1e-9)
            << "zoom " << c.zoom << " scroll " << c.scrollMm << " strip " << c.strip;
    }
}

// Strips are stacked top to bottom, each with its gap above its card band; across the
// roll, X = 0 is the bottom of the band and the roll width its top.
TEST(RollLayout, StripsStackAndTheBassBorderIsAtTheBottom)
{
    const RollLayout layout = RollLayout::fit(800, 520, kDefaultZoom, 0, 130);
    ASSERT_EQ(layout.stripHeightPx, 104);
    EXPECT_EQ(layout.stripAt(0), 0);
    EXPECT_EQ(layout.stripAt(104), 1);
    EXPECT_EQ(layout.stripAt(519), 4);
    EXPECT_EQ(layout.stripAt(520), -1) << "below the strips: HScroll1";
    for (int strip = 0; strip < kRollStrips; ++strip) {
        const int bottom = layout.cardTopPx(strip) + layout.cardHeightPx();
        EXPECT_DOUBLE_EQ(layout.acrossPx(strip, 0), bottom);
        EXPECT_DOUBLE_EQ(layout.acrossPx(strip, 130), layout.cardTopPx(strip));
        EXPECT_LT(layout.acrossPx(strip, 80), layout.acrossPx(strip, 20)) << "X grows upwards";
    }
    // Which strip shows a roll position: 800 px at 3 px/mm is 266.7 mm a strip.
    EXPECT_EQ(layout.stripShowing(0), 0);
    EXPECT_EQ(layout.stripShowing(270), 1);
    EXPECT_EQ(layout.stripShowing(1333.2), 4);
    EXPECT_EQ(layout.stripShowing(1333.4), -1);
}

TEST(RollLayout, ScrollRangeAndTheLeftRightRule)
{
    // 1000 px at 2 px/mm: 500 mm a strip; the end may come into strip 3.
    const RollLayout layout = RollLayout::fit(1000, 500, 2, 0, 100);
    const std::pair<double, int> maxima[] = {{0, 0}, {1999, 0}, {2000, 0}, {2000.2, 1}, {27345.5, 25346}};
    for (const auto& [lengthMm, maximum] : maxima)
        EXPECT_EQ(layout.scrollMaximum(lengthMm), maximum) << lengthMm;

    // Left moves back only from 10 on: at 9 it does nothing, at 10 it goes to 0.
    const std::pair<int, int> back[] = {{0, 0}, {9, 9}, {10, 0}, {11, 1}, {250, 240}};
    for (const auto& [value, after] : back)
        EXPECT_EQ(scrollBackValue(value), after) << value;
    const std::tuple<int, int, int> forward[] = {{0, 100, 10}, {95, 100, 100}, {100, 100, 100}, {0, 0, 0}};
    for (const auto& [value, maximum, after] : forward)
        EXPECT_EQ(scrollForwardValue(value, maximum), after) << value << " of " << maximum;

    // A position off screen comes a quarter strip from the left of strip 0, within range.
    EXPECT_EQ(layout.scrollToShow(1200, 0, 5000), 0) << "on screen already";
    EXPECT_EQ(layout.scrollToShow(2600, 0, 5000), 2475);
    EXPECT_EQ(layout.scrollToShow(50, 2000, 5000), 0);
    EXPECT_EQ(layout.scrollToShow(9000, 0, 5000), 5000);
}

TEST(RollLayout, ZoomStepsStayBetweenTheWidestAndClosest)
{
    double zoom = kDefaultZoom;
    for (int i = 0; i < 30; ++i)
        zoom = zoomedIn(zoom);
    EXPECT_EQ(zoom, kMaximumZoom);
    for (int i = 0; i < 30; ++i)
        zoom = zoomedOut(zoom);
    EXPECT_EQ(zoom, kMinimumZoom);
    EXPECT_DOUBLE_EQ(zoomedOut(zoomedIn(kDefaultZoom)), kDefaultZoom);
    EXPECT_EQ(clampZoom(std::nan("")), kDefaultZoom);
    EXPECT_EQ(clampZoom(0), kMinimumZoom);
    EXPECT_EQ(clampZoom(1e9), kMaximumZoom);
    // The widest zoom shows the longest roll a program holds (99999 mm) in five strips of
    // a 1000 px view.
    EXPECT_GE(RollLayout::fit(1000, 500, kMinimumZoom, 0, 100).visibleEndMm(), 99999.0);
}

RollHole hole(float y0, float y1, int track = 0, int programLine = 1)
{
    return RollHole{1.0f, 3.0f, y0, y1, track, programLine};
}

TEST(RollLayout, VisibleHolesIncludeALongHoleStartingBeforeTheStretch)
{
    const std::vector<RollHole> holes = {hole(0, 700), hole(100, 101), hole(550, 560), hole(900, 905),
                                         hole(1000, 1001)};
    const IndexRange range = visibleHoles(holes, 700, 600, 1000);
    EXPECT_EQ(range.first, 0u) << "the hole from 0 to 700 reaches into [600, 1000)";
    EXPECT_EQ(range.last, 4u) << "a hole starting at 1000 is not in [600, 1000)";
    EXPECT_TRUE(visibleHoles(holes, 700, 2000, 3000).empty());
    EXPECT_TRUE(visibleHoles({}, 0, 0, 100).empty());
}

// At wide zooms the holes of a track merge into runs of pixels; at the default zoom every
// bridge stays visible.
TEST(RollLayout, HoleRunsMergePerTrackOnlyWhenThePixelsTouch)
{
    RollPicture picture;
    picture.widthMm = 100;
    // Track 0: three pieces with 1.5 mm bridges; track 1: one hole between them.
    picture.holes = {hole(10, 25, 0), hole(20, 30, 1), hole(26.5f, 41.5f, 0), hole(43, 58, 0)};
    picture.longestHoleMm = 15;
    struct Case {
        double zoom;
        int acknowledgedLines;
        std::size_t runs;
    };
    const Case cases[] = {
        {kDefaultZoom, -1, 4},  // 4.5 px bridges
        {0.1, -1, 2},           // 0.15 px bridges: one run for track 0, one for track 1
        {0.1, 2, 2},
        {kMinimumZoom, -1, 2},
    };
    std::vector<PixelRun> runs;
    for (const Case& c : cases) {
        const RollLayout layout = RollLayout::fit(1000, 500, c.zoom, 0, 100);
        holeRuns(layout, 0, picture, c.acknowledgedLines, runs);
        EXPECT_EQ(runs.size(), c.runs) << "zoom " << c.zoom;
        for (const PixelRun& run : runs)
            EXPECT_GE(run.toPx - run.fromPx, 1);
    }
    // A cut hole and the planned one after it are drawn apart, even in one pixel.
    picture.holes[2].programLine = 5;
    picture.holes[3].programLine = 9;
    holeRuns(RollLayout::fit(1000, 500, 0.1, 0, 100), 0, picture, 6, runs);
    EXPECT_EQ(runs.size(), 3u);
    picture.holes[3].programLine = kNotInProgram;
    EXPECT_EQ(holeStyle(picture.holes[3], 1000), HoleStyle::Outside) << "never counted as cut";
}

TEST(RollLayout, AHoleAcrossTwoStripsIsDrawnInBoth)
{
    RollPicture picture;
    picture.widthMm = 100;
    // 300 px at 3 px/mm: strips of 100 mm.
    picture.holes = {hole(90, 110), hole(190, 200), hole(300, 301)};
    picture.longestHoleMm = 20;
    const RollLayout layout = RollLayout::fit(300, 500, 3, 0, 100);
    std::vector<PixelRun> runs;
    holeRuns(layout, 0, picture, -1, runs);
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_EQ(runs[0].fromPx, 270);
    EXPECT_EQ(runs[0].toPx, 300) << "clipped at the strip's end";
    holeRuns(layout, 1, picture, -1, runs);
    ASSERT_EQ(runs.size(), 2u);
    EXPECT_EQ(runs[0].fromPx, 0);
    EXPECT_EQ(runs[0].toPx, 30);
    EXPECT_EQ(runs[1].fromPx, 270);
    holeRuns(layout, 2, picture, -1, runs);
    EXPECT_EQ(runs.size(), 0u) << "a hole ending where strip 2 begins stays in strip 1";
    holeRuns(layout, 3, picture, -1, runs);
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_EQ(runs[0].fromPx, 0);
}

}  // namespace
}  // namespace veltrin
