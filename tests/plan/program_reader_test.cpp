// Programs read back into holes, tracks and times: hand-written ones with comments, odd
// spacing, relative moves and mistakes; what the check makes of them.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "plan/program_reader.h"
#include "plan/roll_check.h"
#include "scales/scale_file.h"

namespace veltrin {
namespace {

struct Machine {
    Settings settings;
    OrganScale scale;
    PlanValues values;
    explicit Machine(const char* machine)
    {
        settings.Type_machine = machine;
        Def_notes_Kolby(scale);
        values = planValues(settings, scale);  // 60 mm/s: 1 mm of roll is 16.67 ms
    }
    std::vector<RollProblem> check(const RollReading& roll, const std::vector<Piece>* planned) const
    {
        RollCheckInput input;
        input.roll = &roll;
        input.values = values;
        input.scale = &scale;
        input.bridgeMm = 1.5;
        input.planned = planned;
        return checkRoll(input);
    }
};

std::vector<RollProblemKind> kinds(const std::vector<RollProblem>& problems)
{
    std::vector<RollProblemKind> out;
    for (const RollProblem& p : problems)
        out.push_back(p.kind);
    return out;
}

// Laser holes of the 27-29 scale: track t's cut is 3 mm wide from X 4.8 + 4.2 t.
TEST(ProgramReader, AHandWrittenLaserProgramIsReadAsGrblRunsIt)
{
    const std::string program =
        "  ; my own roll\r\n"
        "$HX\r\n"
        "g92 x5 y0 z-1   (homing here)\r\n"
        "M3 S800\r\n"
        "G0 X4.8 Y60\r\n"                                       // 5: track 0, clockwise
        "g1x7.8 f800\r\n"
        "G1 Y 75 F800 ; the far end\r\n"
        "G1X4.8\r\n"
        "G1 Y60\r\n"                                            // 9
        "G0 X16.2 Y45\n"                                        // 10: track 2, from its far corner
        "G1 X13.2\n"
        "G1 Y30 (back)\n"
        "G1 X16.2\n"
        "G1 Y45\n"                                              // 14
        "G0 X9 Y200\n"                                          // 15: track 1, relative moves
        "G91 G1 X3\n"
        "Y15\n"
        "X-3\n"
        "Y-15\n"                                                // 19
        "G90 G0 X21.6 Y300\n"                                   // 20: not closed
        "G1 X24.6\n"
        "G1 Y310\n"                                             // 22
        "G0 X30 Y400\n"                                         // 23: a slit
        "G1 Y410\n"
        "G1 Y400\n"                                             // 25
        "G1 X4.8 Y500 Z3 what\n"                                // 26: not read
        "G0 M5 S0\n";
    const ProgramReading read = readProgram(program);
    ASSERT_EQ(read.cuts.size(), 3u);
    const auto same = [](const ReadHole& h, double x0, double x1, double y0, double y1, int line) {
        return std::abs(h.x0 - x0) < 1e-9 && std::abs(h.x1 - x1) < 1e-9 && std::abs(h.y0 - y0) < 1e-9 &&
               std::abs(h.y1 - y1) < 1e-9 && h.line == line;
    };
    EXPECT_TRUE(same(read.cuts[0], 4.8, 7.8, 60, 75, 9));
    EXPECT_TRUE(same(read.cuts[1], 13.2, 16.2, 30, 45, 14));
    EXPECT_TRUE(same(read.cuts[2], 9, 12, 200, 215, 19));
    EXPECT_EQ(read.openCuts, (std::vector<int>{22}));
    EXPECT_TRUE(read.strikes.empty()) << "G92 names Z; it does not move it";
    ASSERT_EQ(read.warnings.size(), 2u);
    EXPECT_EQ(read.warnings[0], "line 25: a cut that encloses nothing (a slit, no hole)");
    EXPECT_EQ(read.warnings[1].rfind("line 26: not read", 0), 0u) << read.warnings[1];

    const Machine laser("Laser");
    const RollReading roll = readRoll(read, laser.values, laser.scale);
    ASSERT_EQ(roll.holes.size(), 3u);
    EXPECT_EQ(roll.holes[0].track, 0);
    EXPECT_DOUBLE_EQ(roll.holes[0].startMs, 1000);
    EXPECT_EQ(roll.holes[1].track, 1);
    EXPECT_EQ(roll.holes[2].track, 2);
    EXPECT_DOUBLE_EQ(roll.holes[2].endMs, 750);
    const std::vector<RollNote> notes = rollNotes(roll, laser.values, laser.scale);
    ASSERT_EQ(notes.size(), 3u);
    EXPECT_EQ(notes[0].note, 50) << "track 2 plays D2, the first to start";

    // The plan's pieces in whole ms match within a tenth of a mm of roll.
    const std::vector<Piece> planned = {{1000, 0, 1250}, {3333, 1, 3583}, {500, 2, 750}};
    EXPECT_EQ(kinds(laser.check(roll, &planned)), (std::vector<RollProblemKind>{RollProblemKind::OpenCut}));
    const std::vector<Piece> other = {{1000, 0, 1250}, {3300, 1, 3583}, {500, 2, 750}, {4000, 3, 4100}};
    const std::vector<RollProblem> problems = laser.check(roll, &other);
    EXPECT_EQ(kinds(problems), (std::vector<RollProblemKind>{RollProblemKind::OpenCut, RollProblemKind::NoteShifted,
                                                              RollProblemKind::NoteMissing}));
    EXPECT_EQ(problems[1].detail, "note shifted: C2 at 0:03.3 on track 1 starts 33 ms late (line 19)");
    EXPECT_EQ(problems[2].detail, "note missing: F2 at 0:04.0 on track 3, 1 hole of the plan not made");
}

// Punch strikes: every move of Z, at the head's X and Y; a Z that does not move strikes not.
TEST(ProgramReader, APunchStrikesWhereverZMoves)
{
    const std::string program = ";Punch gcode of the file : x\n$HX\nG92 X10.5 Y0 Z-1\nM3 S1000 F8000\n"
                                "G0 X6.3 Y1.5\nG1 Z1\n"     // track 0 at 0 ms
                                "G0 Y6\nG1 Z1\n"            // Z already at 1: no strike
                                "G0 X10.5 Y1.5\nG1 Z-1\n"   // track 1 at 0 ms
                                "G0 X10.5 Y1.52\nG1 Z1\n"   // the same spot again
                                "G0 X8.4 Y20\nG1 Z-1\n"     // between two tracks
                                "G0 M5 S0\n";
    const ProgramReading read = readProgram(program);
    EXPECT_EQ(read.titled, ProgramMachine::Punch);
    ASSERT_EQ(read.strikes.size(), 4u);
    EXPECT_EQ(read.strikes[0].line, 6);
    EXPECT_EQ(read.strikes[1].line, 10);

    const Machine punch("Punch");
    const RollReading roll = readRoll(read, punch.values, punch.scale);
    ASSERT_EQ(roll.holes.size(), 3u);
    ASSERT_EQ(roll.offTrack.size(), 1u);
    EXPECT_DOUBLE_EQ(roll.holes[0].startMs, 0.0);
    EXPECT_DOUBLE_EQ(roll.holes[0].endMs, 50.0) << "a strike is one punch long";
    EXPECT_EQ(kinds(punch.check(roll, nullptr)),
              (std::vector<RollProblemKind>{RollProblemKind::DoubleCut, RollProblemKind::OffTrack}));
    // Struck twice by the plan (the last strike of a note may fall on the one before): as planned.
    const std::vector<Piece> planned = {{0, 0, 50}, {0, 1, 50}, {0, 1, 50}};
    EXPECT_EQ(kinds(punch.check(roll, &planned)), (std::vector<RollProblemKind>{RollProblemKind::OffTrack}));
}

// Openings longer than a piece and its end margin, or joining what the plan keeps apart.
TEST(ProgramReader, OpeningsWithoutTheirBridgeAreFound)
{
    const Machine laser("Laser");  // pieces of 15 mm (250 ms), bridges 1.5 mm: at most 250 + 75 ms
    const auto rollOf = [](std::vector<TrackHole> holes) {
        RollReading roll;
        roll.holes = std::move(holes);
        return roll;
    };
    EXPECT_TRUE(laser.check(rollOf({{0, 0, 325, 1}}), nullptr).empty());
    EXPECT_EQ(kinds(laser.check(rollOf({{0, 0, 330, 1}}), nullptr)),
              (std::vector<RollProblemKind>{RollProblemKind::NoBridge}));
    // Two planned pieces a bridge apart, cut as one hole of 300 ms: no bridge, told once.
    const std::vector<Piece> planned = {{0, 0, 150}, {175, 0, 300}};
    EXPECT_EQ(kinds(laser.check(rollOf({{0, 0, 300, 1}}), &planned)),
              (std::vector<RollProblemKind>{RollProblemKind::NoBridge}));
    EXPECT_EQ(kinds(laser.check(rollOf({{0, 0, 175, 1}, {0, 175, 300, 2}}), &planned)),
              (std::vector<RollProblemKind>{RollProblemKind::NoBridge, RollProblemKind::NoteShifted}));
    // Overlapping cuts burn the card twice.
    EXPECT_EQ(kinds(laser.check(rollOf({{0, 0, 150, 1}, {0, 100, 200, 2}}), nullptr)),
              (std::vector<RollProblemKind>{RollProblemKind::DoubleCut}));
}

}  // namespace
}  // namespace veltrin
