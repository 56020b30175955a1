// HoleProgress: which holes of a streaming program are surely cut, from the acknowledged
// lines, the blocks they queue and the Idle reports.

#include "machine/hole_progress.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/numeric_text.h"

namespace veltrin {
namespace {

// A punch program at 60 mm/s, 3 mm strikes: hole h starts at 100 h ms (Y = 6 h + 1.5).
std::vector<std::string> punchProgram(int holes)
{
    std::vector<std::string> lines = {";Punch gcode of the file : t", "$HX ;X origin search", "G92 X10.5 Y0 Z-1",
                                      "M3 S1000 F8000"};
    for (int h = 0; h < holes; ++h) {
        lines.push_back("G0 X" + plainNumber(6 + (h % 5) * 4.2) + " Y" + plainNumber(6 * h + 1.5));
        lines.push_back(h % 2 == 0 ? "G1 Z1" : "G1 Z-1");
    }
    lines.push_back("G0 M5 S0");
    return lines;
}

// First line of hole h in punchProgram: 4 header lines, 2 lines a hole.
std::size_t endOfHole(int h)
{
    return 4 + 2 * static_cast<std::size_t>(h) + 2;
}

TEST(HoleProgress, AHoleIsDoneSeventeenBlocksLaterOrAfterIdleSeenTwice)
{
    HoleProgress holes;
    holes.prepare(punchProgram(30), false, 60, 3);
    ASSERT_EQ(holes.holeCount(), 30u);
    EXPECT_DOUBLE_EQ(holes.holeStarts()[7], 700);
    EXPECT_EQ(holes.blocksBefore(4), 0u) << "the header queues no motion";
    EXPECT_DOUBLE_EQ(holes.restartMs(0), 0);
    // Hole 0 ends at line 6; 17 blocks after it end at line 6 + 17 (two blocks a hole).
    EXPECT_EQ(holes.holesDone(endOfHole(0) + 16), 0u);
    EXPECT_EQ(holes.holesDone(endOfHole(0) + 17), 1u);
    EXPECT_DOUBLE_EQ(holes.restartMs(endOfHole(0) + 17), 100);
    EXPECT_EQ(holes.holesDone(endOfHole(29)), 21u);

    // An Idle report counts only for lines answered before the report before it.
    holes.statusReport(true, endOfHole(5));
    EXPECT_EQ(holes.holesDone(endOfHole(5)), 0u) << "no report before this one in the job";
    holes.statusReport(false, endOfHole(6));
    holes.statusReport(true, endOfHole(7));
    EXPECT_EQ(holes.holesDone(endOfHole(7)), 7u);
    EXPECT_DOUBLE_EQ(holes.restartMs(endOfHole(7)), 700);
    holes.statusReport(true, holes.holeCount() * 2 + 5);
    holes.statusReport(true, holes.holeCount() * 2 + 5);
    EXPECT_DOUBLE_EQ(holes.restartMs(holes.holeCount() * 2 + 5), 2901) << "all made: one past the last start";
}

TEST(HoleProgress, PlannerLostOrRefusedLinesStopHolesFromBecomingDone)
{
    HoleProgress lost;
    lost.prepare(punchProgram(30), false, 60, 3);
    lost.plannerLost(endOfHole(20));  // a soft reset: 12 holes were through the planner
    lost.statusReport(true, endOfHole(29));
    lost.statusReport(true, endOfHole(29));
    EXPECT_EQ(lost.holesDone(endOfHole(29)), 12u);

    HoleProgress refused;
    refused.prepare(punchProgram(30), false, 60, 3);
    refused.refused(endOfHole(3) + 1);  // the strike of hole 4
    EXPECT_EQ(refused.holesDone(endOfHole(29)), 4u);
    EXPECT_EQ(refused.blocksBefore(endOfHole(29)), 60u);
}

// Lines that name axes without queuing a motion are no blocks: only moves of 0.05 mm or more
// from a known position count.
TEST(HoleProgress, BlocksAreMotionsThatSurelyMove)
{
    const struct {
        const char* name;
        std::vector<std::string> lines;
        std::size_t blocks;
    } cases[] = {
        {"unknown position, then known", {"G0 X5 Y5", "G0 X6 Y5", "G1 Y7 F800"}, 2},
        {"G92 sets, moves count", {"G92 X0 Y0 Z0", "G1 X1", "G1 X1", "G1 X1.04", "G1 X1.1"}, 2},
        {"homing forgets X", {"G92 X0 Y0", "$HX", "G0 X3", "G0 Y2", "G0 X4"}, 2},
        {"relative moves", {"G92 X0 Y0", "G91 G1 X0.01", "X2", "G90 G0 X2.01"}, 1},
        {"comments, lower case, modal words", {"G92 X0 Y0 (start)", "g1 x3 ;cut", "y4 (modal G1)", "M5"}, 2},
        {"G10, G28.1 and G53 do not count", {"G92 X0 Y0", "G10 L20 P1 X5", "G28.1 X3", "G53 G0 X9"}, 0},
    };
    for (const auto& c : cases) {
        HoleProgress holes;
        holes.prepare(c.lines, true, 60, 3);
        EXPECT_EQ(holes.blocksBefore(c.lines.size()), c.blocks) << c.name;
    }
}

}  // namespace
}  // namespace veltrin
