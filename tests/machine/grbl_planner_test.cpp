#include "machine/grbl_planner.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "base/numeric_text.h"
#include "emulator/grbl_emulator.h"
#include "machine/grbl_protocol.h"
#include "support/run_cli.h"

namespace veltrin {
namespace {

using Lines = std::vector<std::string>;

GrblSettings fast()
{
    GrblSettings s;
    s.maxRateMmPerMin = {5000, 5000, 5000};
    s.accelerationMmPerS2 = {800, 800, 800};
    return s;
}

double seconds(const Lines& lines, const GrblSettings& settings = {}, EstimateOptions options = {})
{
    return estimateProgram(lines, settings, options).seconds;
}

// Times worked by hand, at Grbl's defaults (500 mm/min, 10 mm/s², $11=0.010) unless "fast"
// (5000 mm/min, 800 mm/s²).
TEST(GrblPlannerTime, WorkedExamples)
{
    const struct {
        const char* what;
        Lines program;
        GrblSettings settings;
        double expected;
    } cases[] = {
        // 5 mm/s reached in 0.5 s over 1.25 mm at each end, 7.5 mm between: 0.5 + 1.5 + 0.5.
        {"trapezoid", {"G1 X10 F300"}, {}, 2.5},
        // F600 is held to 500 mm/min, out of reach in 2 mm: a triangle peaking at sqrt(20).
        {"triangle", {"G1 X2 F600"}, {}, 2 * std::sqrt(20.0) / 10},
        // Along (0.6, 0.8) Y limits both: 625 mm/min (10.417 mm/s) and 12.5 mm/s²; two ramps
        // of 4.340 mm (0.833 s each), 41.319 mm at speed.
        {"rapid diagonal", {"G0 X30 Y40"}, {}, 2 * 0.833333 + 41.319444 / 10.416667},
        // 83.333 mm/s at 800 mm/s²: ramps of 4.340 mm (0.104 s), 91.319 mm at speed.
        {"rapid, fast", {"G0 X100"}, fast(), 2 * 0.104167 + 91.319444 / 83.333333},
        // Corners of 90°: v² = 14.142 mm/s² x 0.010 mm x sin45 / (1 - sin45) = 0.3414, so
        // 0.5843 mm/s. First and last sides 2.4450 s, the two between 2.3900 s.
        {"square", {"G1 X10 F300", "Y10", "X0", "Y0"}, {}, 2 * 2.444983 + 2 * 2.389966},
        // The same at F3000 and 800 mm/s²: corners at 5.2263 mm/s; 0.256308 and 0.250117 s.
        {"square, fast", {"G1 X10 F3000", "Y10", "X0", "Y0"}, fast(), 2 * 0.256308 + 2 * 0.250117},
        // Each reversal stops: two moves of 2.5 s.
        {"reversal", {"G1 X10 F300", "X0"}, {}, 5.0},
    };
    for (const auto& c : cases)
        EXPECT_NEAR(seconds(c.program, c.settings), c.expected, 1e-3) << c.what;
}

// With 15 moves planned, the last one must be able to stop: 0.1 mm moves never reach
// F600. In the steady run each move enters and leaves at v² = 2 x 10 x (14 x 0.1) = 28 and
// peaks at v² = 29 in its middle: 2 (sqrt 29 - sqrt 28) / 10 s each.
TEST(GrblPlannerTime, ALongRunOfShortMovesIsHeldBackByTheLookAhead)
{
    const auto run = [](int moves) {
        Lines lines{"G1 F600"};
        for (int i = 1; i <= moves; ++i)
            lines.push_back(plainNumber(i / 10.0).insert(0, 1, 'X'));
        return seconds(lines);
    };
    const double perMove = 2 * (std::sqrt(29.0) - std::sqrt(28.0)) / 10;
    EXPECT_NEAR(run(2000) - run(1000), 1000 * perMove, 1e-3);
}

TEST(GrblPlannerTime, LaserModeLetsCuttingMovesChangePowerWithoutStopping)
{
    const Lines program = {"M3 S100", "G1 X10 F600", "G1 X20 S200", "G1 X30 S300"};
    GrblSettings laser;
    laser.laserMode = true;
    // In laser mode one run of 30 mm at 8.333 mm/s: ramps of 3.472 mm (0.833 s).
    EXPECT_NEAR(seconds(program, laser), 2 * 0.833333 + (30 - 6.944444) / 8.333333, 1e-3);
    // Without it each power change waits for the machine to stop: three runs of 10 mm.
    EXPECT_NEAR(seconds(program), 3 * (2 * 0.833333 + (10 - 6.944444) / 8.333333), 1e-3);
    EXPECT_NEAR(seconds({"M3 S100", "G1 X10 F600", "M5", "G1 X20"}, laser), 2 * (2 * 0.833333 + 3.055556 / 8.333333), 1e-3)
        << "switching the laser off waits even in laser mode";
}

TEST(GrblPlannerTime, DwellsHomingAndSettingsWaitForTheMotion)
{
    const MachineTime dwell = estimateProgram({"G1 X10 F300", "G4 P1.5", "G1 X20"}, {});
    EXPECT_NEAR(dwell.seconds, 2.5 + 1.5 + 2.5, 1e-6);
    EXPECT_DOUBLE_EQ(dwell.dwellSeconds, 1.5);

    // 100 mm to the switch: search 0.833 + 96.528 / 8.333 = 12.417 s, pull-off 0.632 s,
    // locate 0.042 + 0.991 / 0.417 = 2.421 s, pull-off 0.632 s, 4 x 250 ms.
    const double pullOffs = 2 * 0.632456 + 2.420833 + 1.0;
    EXPECT_NEAR(seconds({"$HX"}, {}, {100.0}), 12.416667 + pullOffs, 1e-3);
    // Homed towards minus the head then stands at -199; 50 mm further on (and at rest: Grbl
    // refuses to home while moving) the second search is 51 mm: 0.833 + 47.528 / 8.333 s.
    GrblSettings minus;
    minus.homingDirectionMask = 1;
    const MachineTime twice = estimateProgram({"$HX", "G92 X0", "G0 X50", "G4 P0", "$HX"}, minus, {100.0});
    EXPECT_NEAR(twice.homingSeconds, 12.416667 + 6.536667 + 2 * pullOffs, 1e-3);
    EXPECT_NEAR(twice.seconds - twice.homingSeconds, 2 * 0.833333 + 43.055556 / 8.333333, 1e-3);
    const MachineTime unknown = estimateProgram({"$HX"}, {});
    EXPECT_NEAR(unknown.seconds, seconds({"$HX"}, {}, {100.0}), 1e-9) << "half the 200 mm travel";
    ASSERT_EQ(unknown.notes.size(), 1u);
    EXPECT_EQ(unknown.notes[0].line, 1u);

    // At rest a setting line takes effect: Y at 1000 mm/min makes 10 mm a triangle of 2 s.
    EXPECT_NEAR(seconds({"$111=1000", "G0 Y10"}), 2.0, 1e-6);
    const MachineTime moving = estimateProgram({"G0 X10", "$111=1000", "G0 Y10"}, {});
    EXPECT_EQ(moving.refusedLines, 1u) << "Grbl refuses settings while it moves";
}

TEST(GrblPlannerProgram, EquivalentProgramsTakeTheSameTime)
{
    // (0,0) to (10,5) to (20,5) at 300 mm/min, written in other ways.
    const double reference = seconds({"G1 X10 Y5 F300", "G1 X20"});
    const struct {
        const char* what;
        Lines program;
    } cases[] = {
        {"comments, blanks, lower case", {"g1 x10 (go) y5 f300 ; first", "(nothing)", "", "  x20\r"}},
        {"relative", {"G91 G1 X10 Y5 F300", "X10"}},
        {"inches", {"G20 G1 X0.3937007874 Y0.1968503937 F11.811023622", "X0.7874015748"}},
        {"G92 offset", {"G92 X-5 Y-5", "G1 X5 Y0 F300", "X15"}},
        {"machine coordinates", {"G92 X100", "G53 G1 X10 Y5 F300", "G53 X20"}},
        {"inverse time", {"G93 G1 X10 Y5 F26.832815730", "X20 F30"}},
        {"a laser power in the moves", {"G1 X10 Y5 F300 S10", "G1 X20 S20"}},
    };
    for (const auto& c : cases) {
        const MachineTime time = estimateProgram(c.program, {});
        EXPECT_NEAR(time.seconds, reference, 1e-4) << c.what;
        EXPECT_EQ(time.refusedLines, 0u) << c.what;
    }
}

TEST(GrblPlannerProgram, LinesGrblRefusesAreCountedAndNamedButTakeNoTime)
{
    const struct {
        std::string line;
        int error;
    } cases[] = {
        {"G1 X10", 22},        {"G5 X1", 20},          {"G0 X", 2},
        {"1G0", 1},            {"G4", 28},             {"G2 X10 Y0 F100", 35},
        {"G2 X10 R2 F100", 34}, {"$Q", 3},             {"G0 X1" + std::string(80, '0'), 11},
        {"G80 X1", 31},        {"G2 X0 Y0 R5 F100", 33},
    };
    for (const auto& c : cases) {
        const MachineTime time = estimateProgram({c.line}, {});
        EXPECT_EQ(time.refusedLines, 1u) << c.line;
        EXPECT_EQ(time.seconds, 0.0) << c.line;
        ASSERT_EQ(time.notes.size(), 1u) << c.line;
        EXPECT_EQ(time.notes[0].text.rfind("error:" + std::to_string(c.error) + " (", 0), 0u)
            << c.line << ": " << time.notes[0].text;
    }
    EXPECT_EQ(estimateProgram({"G1 X10 F300", "$HX"}, {}).refusedLines, 1u) << "homing while moving";
    const MachineTime unmodelled = estimateProgram({"G28", "G1 X10 F300"}, {});
    EXPECT_EQ(unmodelled.refusedLines, 0u);
    EXPECT_NEAR(unmodelled.seconds, 2.5, 1e-9);
    ASSERT_EQ(unmodelled.notes.size(), 1u);
    EXPECT_EQ(unmodelled.notes[0].text.rfind("G28 is not modelled", 0), 0u);
}

// Arcs run as chords within $12 of the circle; at F300 with corners too gentle to slow
// down, the time is the length at 5 mm/s plus 0.5 s for the two ramps.
TEST(GrblPlannerProgram, ArcsRunAsChords)
{
    const double pi = std::acos(-1.0);
    const struct {
        const char* what;
        Lines program;
        double lengthMm;
    } cases[] = {
        {"full circle", {"G2 X0 Y0 I10 J0 F300"}, 2 * pi * 10},
        {"quarter, R", {"G2 X10 Y-10 R10 F300"}, pi * 5},
        {"three quarters, R negative", {"G2 X10 Y-10 R-10 F300"}, pi * 15},
        {"counter-clockwise half, I J", {"G3 X20 Y0 I10 J0 F300"}, pi * 10},
        {"helix", {"G2 X0 Y0 Z5 I10 F300"}, std::hypot(2 * pi * 10, 5.0)},
    };
    for (const auto& c : cases)
        EXPECT_NEAR(seconds(c.program), c.lengthMm / 5 + 0.5, 0.01) << c.what;
}

// Each move reverses the last: every one is 2.5 s from rest to rest. Lines 1-15 fill the
// planner at once; line k (from 16) is answered when move k - 15 ends.
TEST(GrblPlannerProgram, AnswersComeAsThePlannerFreesAndTimeLeftFollowsThem)
{
    Lines program{"G1 X10 F300"};
    for (int i = 1; i < 20; ++i)
        program.push_back(i % 2 ? "X0" : "X10");
    const MachineTime time = estimateProgram(program, {});
    ASSERT_EQ(time.answeredAt.size(), 20u);
    EXPECT_NEAR(time.seconds, 50.0, 1e-9);
    EXPECT_EQ(time.answeredAt[14], 0.0);
    EXPECT_NEAR(time.answeredAt[15], 2.5, 1e-9);
    EXPECT_NEAR(time.answeredAt[19], 12.5, 1e-9);
    const struct {
        std::size_t answered;
        double since;
        double left;
    } cases[] = {
        {0, 0, 50},    {16, 0, 47.5}, {16, 1, 46.5}, {16, 10, 45.0},  // no further than the next answer
        {20, 3, 34.5}, {20, 100, 0},
    };
    for (const auto& c : cases)
        EXPECT_NEAR(time.secondsLeft(c.answered, c.since), c.left, 1e-9) << c.answered << " answered, " << c.since << " s";
}

TEST(GrblSettingsList, ReadsABoardsAnswerAndRefusesWhatNoMachineMovesWith)
{
    // The emulator of our machines answers "$$" as Grbl does.
    GrblEmulatorOptions options;
    options.speed = 0;
    options.bootMs = 0;
    GrblEmulator board(options);
    board.advance(1);
    board.takeOutput();
    board.receive("$111=4000\r$$\r");
    board.advance(2);
    const auto settings = parseSettingsText(board.takeOutput());
    ASSERT_TRUE(settings.ok()) << settings.detail();
    EXPECT_EQ(settings->maxRateMmPerMin[1], 4000);
    EXPECT_EQ(settings->accelerationMmPerS2[0], 10);
    EXPECT_EQ(settings->homingDirectionMask, 1);
    EXPECT_TRUE(settings->laserMode);

    const auto saved = parseSettingsList({"ok", "  $110=5000.000 (x max rate, mm/min)\r", "$120=800", "$11=0.002"});
    ASSERT_TRUE(saved.ok()) << saved.detail();
    EXPECT_EQ(saved->maxRateMmPerMin[0], 5000);
    EXPECT_EQ(saved->accelerationMmPerS2[0], 800);
    EXPECT_EQ(saved->junctionDeviationMm, 0.002);
    EXPECT_EQ(saved->maxRateMmPerMin[2], 500) << "what the list leaves out keeps Grbl's default";

    const struct {
        const char* text;
        GrblSettingsError error;
        const char* detail;
    } bad[] = {
        {"", GrblSettingsError::NoSettings, "no"},
        {"ok\nGrbl 1.1h ['$' for help]\n", GrblSettingsError::NoSettings, "no"},
        {"$110=500\n$120=0\n", GrblSettingsError::BadValue, "$120=0"},
        {"$110=fast\n", GrblSettingsError::BadValue, "$110=fast"},
        {"$100=-250\n", GrblSettingsError::BadValue, "$100=-250"},
    };
    for (const auto& c : bad) {
        const auto result = parseSettingsText(c.text);
        ASSERT_FALSE(result.ok()) << c.text;
        EXPECT_EQ(result.error(), c.error) << c.text;
        EXPECT_EQ(result.detail().rfind(c.detail, 0), 0u) << result.detail();
    }
}

// Our programs as the writer makes them: a laser cuts each hole as a rectangle, a punch
// strikes once per hole by moving Z.
Lines ourProgram(bool laser, int holes)
{
    Lines lines = {laser ? ";Laser gcode of the file : test" : ";Punch gcode of the file : test",
                   "$HX ;X origin search", "G92 X5 Y0 Z-1 ;Homing position at 5 mm from X origin",
                   laser ? "M3 S1000 ;Laser power 1000. M3 = constant power" : "M3 S1000 F8000"};
    for (int h = 0; h < holes; ++h) {
        const std::string x = std::to_string(6 + (h * 37) % 29 * 4);
        const std::string y = std::to_string(h * 7 + (h % 3) * 2);
        lines.push_back("G0 X" + x + " Y" + y);
        if (laser) {
            const std::string far = std::to_string(9 + (h * 37) % 29 * 4);
            const std::string end = std::to_string(h * 7 + (h % 3) * 2 + 5 + h % 11);
            for (const std::string& cut : {"X" + far, "Y" + end, "X" + x, "Y" + y})
                lines.push_back("G1 " + cut + " F800");
        } else {
            lines.push_back(h % 2 ? "G1 Z-1" : "G1 Z1");
        }
    }
    lines.push_back("G0 M5 S0");
    return lines;
}

// The emulator runs a program streamed one line at a time (the next line leaves 1 ms after
// each "ok"); its time to Idle agrees with the estimate made with its own "$$".
TEST(GrblPlannerEmulator, AgreesWithTheEmulatorRunningOurPrograms)
{
    const struct {
        bool laser;
        const char* settingsLines;
    } cases[] = {
        {true, ""},
        {false, ""},
        {true, "$110=5000\r$111=5000\r$112=5000\r$120=800\r$121=800\r$122=800\r"},
        {false, "$110=5000\r$111=5000\r$112=5000\r$120=800\r$121=800\r$122=800\r"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.laser ? "laser" : "punch") + (*c.settingsLines ? ", fast" : ", defaults"));
        GrblEmulatorOptions options;
        options.bootMs = 0;
        GrblEmulator board(options);
        std::int64_t now = 1;
        board.advance(now);
        board.receive(std::string(c.settingsLines) + "$$\r");
        board.advance(now);
        const auto settings = parseSettingsText(board.takeOutput());
        ASSERT_TRUE(settings.ok());

        const Lines program = ourProgram(c.laser, 40);
        const std::int64_t start = now;
        for (const std::string& line : program) {
            board.receive(lineToSend(line) + "\r");
            while (board.takeOutput().find("ok") == std::string::npos && now - start < 3'600'000)
                board.advance(++now);
        }
        while (board.stateText() != "Idle" && now - start < 3'600'000)
            board.advance(++now);
        const double emulated = static_cast<double>(now - start) / 1000.0;
        // The emulator's head powers up 200 mm from the X switch.
        const double estimated = seconds(program, settings.value(), {200.0});
        EXPECT_NEAR(emulated, estimated, 0.001 * estimated);
    }
}

TEST(GrblPlannerReport, MachineTimeLineAndTheCommandLine)
{
    EXPECT_EQ(machineTimeLine(520.4), "Machine time (Grbl model) : 00:08:40");
    EXPECT_EQ(machineTimeLine(90061), "Machine time (Grbl model) : 25:01:01") << "no wrap after a day";
    EXPECT_EQ(machineTimeLine(-3), "Machine time (Grbl model) : 00:00:00");

    const testing::TempDir dir;
    const Lines program = ourProgram(true, 5);
    std::string text;
    for (const std::string& line : program)
        text += line + "\r\n";
    testing::writeText(dir.path() / "song.gcode", text);
    testing::writeText(dir.path() / "grbl.txt", "$110=5000.000\r\n$120=800.000\r\nok\r\n");
    testing::writeText(dir.path() / "bad.txt", "$120=0\r\n");
    const std::string path = (dir.path() / "song.gcode").string();

    GrblSettings settings;
    settings.maxRateMmPerMin[0] = 5000;
    settings.accelerationMmPerS2[0] = 800;
    const auto run = testing::runCli("", {"estimate", path, "--grbl-settings", (dir.path() / "grbl.txt").string()});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.out.substr(0, run.out.find('\n')), machineTimeLine(seconds(program, settings)));
    EXPECT_NE(run.out.find("   - Homing : 00:00:"), std::string::npos) << run.out;

    const auto bad = testing::runCli("", {"estimate", path, "--grbl-settings", (dir.path() / "bad.txt").string()});
    EXPECT_EQ(bad.exitCode, 2);
    EXPECT_NE(bad.err.find("$120=0"), std::string::npos) << bad.err;
    EXPECT_EQ(testing::runCli("", {"estimate", (dir.path() / "none.gcode").string()}).exitCode, 2);
}

}  // namespace
}  // namespace veltrin
