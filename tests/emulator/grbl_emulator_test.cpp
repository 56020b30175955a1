#include "emulator/grbl_emulator.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace veltrin {
namespace {

const std::string kBanner = "\r\nGrbl 1.1h ['$' for help]\r\n";
const std::string kLocked = kBanner + "[MSG:'$H'|'$X' to unlock]\r\n";

// speed 0: motion takes no time; factory: Grbl's defaults (no homing, no alarm lock).
GrblEmulatorOptions options(double speed = 0, bool factory = true)
{
    GrblEmulatorOptions o;
    o.speed = speed;
    o.factorySettings = factory;
    return o;
}

// An emulator on a test clock, past its welcome text: send() and wait() return what it sent meanwhile.
class Board {
public:
    explicit Board(GrblEmulatorOptions o) : m_grbl((o.bootMs = 0, o))
    {
        std::string banner;
        while (banner.find("help]\r\n") == std::string::npos && m_nowMs < 1000)
            banner += wait(1);
    }
    std::string send(std::string_view bytes)
    {
        m_grbl.receive(bytes);
        return wait(0);
    }
    std::string wait(std::int64_t ms)
    {
        m_nowMs += ms;
        m_grbl.advance(m_nowMs);
        return m_grbl.takeOutput();
    }
    std::string status() { return send("?"); }
    GrblEmulator& grbl() { return m_grbl; }

private:
    GrblEmulator m_grbl;
    std::int64_t m_nowMs = 0;
};

int count(const std::string& text, std::string_view what)
{
    int n = 0;
    for (auto pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + 1))
        ++n;
    return n;
}

struct RecordFile {
    ~RecordFile() { std::filesystem::remove(path); }
    std::string text() const { return (std::stringstream() << std::ifstream(path).rdbuf()).str(); }
    const std::string path = (std::filesystem::temp_directory_path() / ("veltrin_record_" + std::to_string(::getpid()))).string();
};

TEST(GrblEmulatorStart, WelcomeTextAfterTheBootDelayLosesEarlierBytesButRecordsThem)
{
    RecordFile record;
    GrblEmulatorOptions o = options();
    o.bootMs = 1500;
    o.recordPath = record.path;
    GrblEmulator grbl(o);
    grbl.receive("$$\r");
    grbl.advance(1499);
    EXPECT_EQ(grbl.takeOutput(), "") << "still in the boot loader";
    grbl.advance(1500);
    EXPECT_EQ(grbl.takeOutput(), kBanner);
    grbl.receive("g1 x2 f100 (c)\r\n");
    grbl.advance(3000);
    EXPECT_EQ(grbl.takeOutput(), "ok\r\nok\r\n") << "the line sent while booting is lost";
    EXPECT_EQ(record.text(), "$$\ng1 x2 f100 (c)\n\n");

    grbl.powerUp(4000);
    grbl.advance(5500);
    EXPECT_EQ(grbl.takeOutput(), kBanner) << "a port opening resets the board again";
}

TEST(GrblEmulatorStart, OurMachinesPowerUpLockedUntilUnlocked)
{
    GrblEmulator grbl{GrblEmulatorOptions{}};
    grbl.advance(1000);
    EXPECT_EQ(grbl.takeOutput(), kLocked);
    EXPECT_EQ(grbl.stateText(), "Alarm");
    grbl.receive("G0 X1\r$X\rG0 X1\r");
    grbl.advance(1000);
    EXPECT_EQ(grbl.takeOutput(), "error:9\r\n[MSG:Caution: Unlocked]\r\nok\r\nok\r\n");
}

TEST(GrblEmulatorLines, CleansLinesAndAnswersEachOnce)
{
    Board board(options());
    EXPECT_EQ(board.send("g0 x1 (move) ; to one\r"), "ok\r\n");
    EXPECT_EQ(board.send("\r"), "ok\r\n") << "empty line";
    EXPECT_EQ(board.send("(only a comment)\n"), "ok\r\n");
    EXPECT_EQ(board.send("G0 X2\r\n"), "ok\r\nok\r\n") << "CR and LF each end a line";
    EXPECT_EQ(board.send("G0 X3"), "") << "no answer before the line end";
    EXPECT_EQ(board.send("\n"), "ok\r\n");
    board.send("$10=0\r");
    EXPECT_EQ(board.status(), "<Idle|WPos:3.000,0.000,0.000|FS:0,0>\r\n");
    EXPECT_EQ(board.grbl().linesReceived(), 7);
}

// A sender finds the head on the roll from MPos less the work offset, which Grbl only gives
// now and then: at once after a change, then every 10th report while idle.
TEST(GrblEmulatorLines, StatusGivesTheWorkOffsetAfterAChangeThenEveryTenthIdleReport)
{
    Board board(options());
    board.send("G0 X7\r");
    board.send("G92 X5\r");
    EXPECT_EQ(board.status(), "<Idle|MPos:7.000,0.000,0.000|FS:0,0|WCO:2.000,0.000,0.000>\r\n");
    for (int report = 1; report < 10; ++report)
        EXPECT_EQ(board.status().find("WCO"), std::string::npos) << report;
    EXPECT_NE(board.status().find("|WCO:2.000,0.000,0.000>"), std::string::npos);
}

TEST(GrblEmulatorLines, BadLinesGetGrblsErrorCodes)
{
    const std::string line79 = "G0X1." + std::string(74, '0');
    const struct {
        std::string line;
        const char* answer;
    } cases[] = {
        {line79, "ok\r\n"},
        {line79 + "0", "error:11\r\n"},
        {"G0 X1" + std::string(100, ' ') + "(" + std::string(100, 'c') + ")", "ok\r\n"},  // blanks and comments do not count
        {"1G0", "error:1\r\n"},
        {"G0 X", "error:2\r\n"},
        {"G0 X1.2.3", "error:1\r\n"},
        {"G38.2 X1", "error:20\r\n"},
        {"M7 Q1", "error:20\r\n"},
        {"$Q", "error:3\r\n"},
        {"$999=1", "error:3\r\n"},
        {"$1=x", "error:2\r\n"},
        {"$1=-4", "error:4\r\n"},
        {"$H", "error:5\r\n"},  // homing not enabled
        {"G1 X10", "error:22\r\n"},  // no feed yet
        {"G1", "ok\r\n"},
        {"G0 X5", "ok\r\n"},
    };
    Board board(options());
    for (const auto& c : cases)
        EXPECT_EQ(board.send(c.line + "\r"), c.answer) << c.line;
}

TEST(GrblEmulatorLines, FeedIsModalUntilAReset)
{
    Board board(options());
    EXPECT_EQ(board.send("G1 X10 F600\rG1 X20\r"), "ok\r\nok\r\n");
    board.send("\x18");
    EXPECT_EQ(board.wait(GrblEmulator::kSoftResetMs), kBanner) << "no alarm when idle";
    EXPECT_EQ(board.send("G1 X10\r"), "error:22\r\n");
}

TEST(GrblEmulatorLines, EveryLineOfRandomInputGetsExactlyOneResponse)
{
    const std::string alphabet = "GXYZFSgxyz0123456789.-+ ;()\t\r\nABQ";
    unsigned seed = 12345;
    const auto next = [&seed] {
        seed = seed * 1103515245u + 12345u;
        return (seed >> 16) & 0x7fff;
    };
    Board board(options());
    std::string output;
    for (int chunk = 0; chunk < 2000; ++chunk) {
        std::string bytes;
        for (unsigned i = 0, size = next() % 40; i < size; ++i)
            bytes += alphabet[next() % alphabet.size()];
        output += board.send(bytes);
        output += board.wait(next() % 3);
    }
    EXPECT_EQ(count(output, "ok\r\n") + count(output, "error:"), board.grbl().linesReceived());
    EXPECT_GT(board.grbl().linesReceived(), 1000);
    EXPECT_EQ(board.grbl().droppedBytes(), 0);
}

TEST(GrblEmulatorSettings, ListsTheDefaultsAndTakesWrites)
{
    Board factory(options());
    EXPECT_EQ(factory.send("$$\r"),
              "$0=10\r\n$1=25\r\n$2=0\r\n$3=0\r\n$4=0\r\n$5=0\r\n$6=0\r\n$10=1\r\n$11=0.010\r\n"
              "$12=0.002\r\n$13=0\r\n$20=0\r\n$21=0\r\n$22=0\r\n$23=0\r\n$24=25.000\r\n"
              "$25=500.000\r\n$26=250\r\n$27=1.000\r\n$30=1000\r\n$31=0\r\n$32=0\r\n"
              "$100=250.000\r\n$101=250.000\r\n$102=250.000\r\n$110=500.000\r\n$111=500.000\r\n"
              "$112=500.000\r\n$120=10.000\r\n$121=10.000\r\n$122=10.000\r\n$130=200.000\r\n"
              "$131=200.000\r\n$132=200.000\r\nok\r\n");
    Board machine(options(0, false));
    const std::string list = machine.send("$$\r");
    EXPECT_NE(list.find("$22=1\r\n$23=1\r\n"), std::string::npos) << list;

    EXPECT_EQ(factory.send("$110=1000.5\r$26=12.7\r"), "ok\r\nok\r\n");
    const std::string changed = factory.send("$$\r");
    EXPECT_NE(changed.find("$110=1000.500\r\n"), std::string::npos);
    EXPECT_NE(changed.find("$26=12\r\n"), std::string::npos) << "whole-number settings";
    factory.send("G0 X5\rG92 X1\r");
    const std::string parameters = factory.send("$#\r");
    EXPECT_NE(parameters.find("[G92:4.000,0.000,0.000]\r\n[TLO:0.000]\r\n"), std::string::npos) << parameters;

    Board moving(options(1));
    moving.send("G1 X10 F300\r");
    EXPECT_EQ(moving.send("$$\r$1=30\r"), "error:8\r\nerror:8\r\n") << "not while running";
    moving.wait(2501);  // 10 mm at 5 mm/s, ramps of 0.5 s at 10 mm/s² at both ends: 2.5 s
    EXPECT_EQ(count(moving.send("$$\r"), "\r\n"), 35);
}

TEST(GrblEmulatorSettings, LaserModeIsOnForOurMachinesOffForTheFactoryAndCanBeChosen)
{
    struct Case {
        bool factory;
        int laserMode;
        const char* expected;
    };
    const Case cases[] = {
        {false, -1, "$32=1\r\n"}, {true, -1, "$32=0\r\n"}, {false, 0, "$32=0\r\n"}, {true, 1, "$32=1\r\n"},
    };
    for (const auto& c : cases) {
        GrblEmulatorOptions o = options(0, c.factory);
        o.laserMode = c.laserMode;
        Board board(o);
        EXPECT_NE(board.send("$$\r").find(c.expected), std::string::npos)
            << "factory " << c.factory << ", laser mode " << c.laserMode;
    }
}

TEST(GrblEmulatorSettings, BuildInfoTellsTheSpeedFactor)
{
    for (const double speed : {0.0, 1.0, 20.0, 2.5}) {
        Board board(options(speed));
        std::ostringstream expected;
        expected << "[VER:1.1h.20190830:emulator x" << speed << "]\r\n[OPT:V,15,128]\r\nok\r\n";
        EXPECT_EQ(board.send("$I\r"), expected.str());
    }
}

TEST(GrblEmulatorFaults, OkToEverythingIsNoGrblAtAll)
{
    GrblEmulatorOptions o = options();
    o.okToEverything = true;
    o.bootMs = 0;
    GrblEmulator board(o);
    board.advance(2000);
    EXPECT_EQ(board.takeOutput(), "") << "no welcome text";
    board.receive("?");
    board.receive("\x18");
    board.advance(2100);
    EXPECT_EQ(board.takeOutput(), "") << "real-time bytes are not understood";
    board.receive("$$\rG5 X1\rFOO\r");
    board.advance(2200);
    EXPECT_EQ(board.takeOutput(), "ok\r\nok\r\nok\r\n");
    EXPECT_EQ(board.linesReceived(), 3);
}

TEST(GrblEmulatorHoming, OurImageHomesXOnlyAndTakesTheTimeOfTheSearch)
{
    Board board(options(1, false));
    EXPECT_EQ(board.send("$HY\r"), "error:3\r\n") << "Y has no switch";
    EXPECT_EQ(board.send("$HX\r"), "");
    EXPECT_EQ(board.status(), "<Home|MPos:0.000,0.000,0.000|FS:0,0>\r\n");
    // The switch is 200 mm away. Search at $25 (8.333 mm/s, reached in 0.833 s over 3.472 mm
    // at 10 mm/s²): 0.833 + 196.528 / 8.333 = 24.417 s; pull-off 1 mm (a triangle, 2 x
    // sqrt(0.1) = 0.632 s); locate at $24 (0.417 mm/s): 0.042 + 0.991 / 0.417 = 2.421 s;
    // pull-off 0.632 s; four debounces of $26=250 ms. 29.102 s in all.
    EXPECT_EQ(board.wait(29102), "");
    EXPECT_EQ(board.wait(1), "ok\r\n");
    EXPECT_EQ(board.status(), "<Idle|MPos:-199.000,0.000,0.000|FS:0,0>\r\n");
    EXPECT_EQ(board.send("G92 X0\rG0 X10\r"), "ok\r\nok\r\n") << "homing unlocks";
}

TEST(GrblEmulatorHoming, StockImageRefusesHXAndStaysInHomeUntilReset)
{
    GrblEmulatorOptions o = options(0, false);
    o.stock = true;
    Board board(o);
    EXPECT_EQ(board.send("$HX\r"), "error:3\r\n");
    EXPECT_EQ(board.status(), "<Home|MPos:0.000,0.000,0.000|FS:0,0>\r\n");
    EXPECT_EQ(board.send("$X\r"), "ok\r\n");
    EXPECT_EQ(board.grbl().stateText(), "Home");
    EXPECT_EQ(board.send("\x18"), "ALARM:6\r\n");
    EXPECT_EQ(board.wait(GrblEmulator::kSoftResetMs), kLocked);
}

TEST(GrblEmulatorJog, AppliesGrblsJogRules)
{
    Board board(options(1));
    EXPECT_EQ(board.send("$J=G91X10\r"), "error:22\r\n");
    EXPECT_EQ(board.send("$J=G91X10F600M3\r"), "error:16\r\n");
    EXPECT_EQ(board.send("$J=G1X10F600\r"), "error:16\r\n");
    EXPECT_EQ(board.send("$J=G91F600\r"), "error:16\r\n");
    EXPECT_EQ(board.send("$J=G91X10F300\r$J=G91X10F300\r"), "ok\r\nok\r\n") << "jogs queue behind jogs";
    board.wait(650);  // at 5 mm/s after 0.5 s and 1.25 mm, then 0.75 mm more
    EXPECT_EQ(board.status(), "<Jog|MPos:2.000,0.000,0.000|FS:300,0>\r\n");
    EXPECT_EQ(board.send("G0 X1\r"), "error:9\r\n") << "G-code is locked out while jogging";
    board.wait(400);
    board.send("\x85");
    EXPECT_EQ(board.status(), "<Idle|MPos:4.000,0.000,0.000|FS:0,0>\r\n");

    EXPECT_EQ(board.send("G1 X0 F300\r"), "ok\r\n");
    EXPECT_EQ(board.send("$J=G91X10F300\r"), "error:8\r\n") << "no jog while running";
    board.wait(1301);  // 4 mm: two ramps of 1.25 mm (1 s) and 1.5 mm at 5 mm/s
    EXPECT_EQ(board.send("$J=G90X2F300\r"), "ok\r\n");
    board.wait(1000);
    EXPECT_EQ(board.status(), "<Idle|MPos:2.000,0.000,0.000|FS:0,0>\r\n");
    EXPECT_EQ(board.send("$20=1\r$J=G91X10F600\r"), "ok\r\nerror:15\r\n") << "soft limits: machine space is negative";
}

TEST(GrblEmulatorAlarm, HardLimitSilencesAllButAResetAndOtherAlarmsStillAnswer)
{
    GrblEmulatorOptions o = options();
    o.alarmAt = {2, 1};
    Board board(o);
    EXPECT_EQ(board.send("G0 X1\rG0 X2\rG0 X3\r"), "ok\r\nok\r\nALARM:1\r\n[MSG:Reset to continue]\r\n");
    EXPECT_EQ(board.status(), "");
    EXPECT_EQ(board.send("$X\r"), "");
    board.send("\x18");
    EXPECT_EQ(board.wait(GrblEmulator::kSoftResetMs), kLocked);
    EXPECT_EQ(board.send("G0 X1\r"), "error:9\r\n");
    EXPECT_EQ(board.send("$X\r"), "[MSG:Caution: Unlocked]\r\nok\r\n");
    EXPECT_EQ(board.send("G0 X1\r"), "ok\r\n");

    o.alarmAt = {1, 9};
    Board other(o);
    EXPECT_EQ(other.send("G0 X1\r"), "ok\r\nALARM:9\r\n");
    EXPECT_EQ(other.status(), "<Alarm|MPos:1.000,0.000,0.000|FS:0,0>\r\n");
    EXPECT_EQ(other.send("G0 X1\r"), "error:9\r\n");
}

TEST(GrblEmulatorRealtime, ActsOnRealtimeBytesInsideCommentsAndDropsHighBytes)
{
    RecordFile record;
    GrblEmulatorOptions o = options();
    o.recordPath = record.path;
    Board board(o);
    EXPECT_EQ(board.send("G0 X1 (where? \xe9t\xe9)\r"), "<Idle|MPos:0.000,0.000,0.000|FS:0,0>\r\nok\r\n");
    EXPECT_EQ(board.send("G0 X2 (stop!)\r"), "") << "the '!' in the comment held the machine, which suspends the parser";
    EXPECT_EQ(board.grbl().stateText(), "Hold:0");
    EXPECT_EQ(board.send("~"), "ok\r\n");
    EXPECT_EQ(board.status(), "<Idle|MPos:2.000,0.000,0.000|FS:0,0>\r\n");
    EXPECT_EQ(record.text(), "G0 X1 (where t)\nG0 X2 (stop)\n");
}

TEST(GrblEmulatorRealtime, SoftResetWhileMovingRaisesAlarm3AndFlushesTheBuffer)
{
    Board board(options(1));
    board.send("G1 X10 F300\r");
    board.wait(1050);  // 1.25 mm to reach 5 mm/s in 0.5 s, then 2.75 mm
    EXPECT_EQ(board.send("\x18" "G0 X1\r"), "ALARM:3\r\n");
    EXPECT_EQ(board.wait(GrblEmulator::kSoftResetMs), kLocked);
    EXPECT_EQ(board.status(), "<Alarm|MPos:4.000,0.000,0.000|FS:0,0>\r\n")
        << "the line sent with the reset was lost and the carriage stopped where it was";
}

TEST(GrblEmulatorMotion, PositionFollowsTheMoveAndFeedHoldStopsIt)
{
    Board board(options(1));
    EXPECT_EQ(board.send("G1 X30 F480 S500 M3\r"), "ok\r\n") << "idle: the spindle starts at once";
    board.wait(1000);  // 8 mm/s reached in 0.8 s over 3.2 mm at 10 mm/s², then 1.6 mm
    EXPECT_EQ(board.status(), "<Run|MPos:4.800,0.000,0.000|FS:480,500>\r\n");
    board.send("!");
    EXPECT_EQ(board.status(), "<Hold:1|MPos:4.800,0.000,0.000|FS:480,500>\r\n");
    board.send("~");  // ignored until the hold has stopped the machine
    board.wait(400);
    EXPECT_EQ(board.status(), "<Hold:1|MPos:7.200,0.000,0.000|FS:240,500>\r\n") << "slowing down";
    board.wait(400);  // 8 mm/s at 10 mm/s² stops in 0.8 s, covering 3.2 mm
    EXPECT_EQ(board.status(), "<Hold:0|MPos:8.000,0.000,0.000|FS:0,500>\r\n");
    EXPECT_EQ(board.send("\r"), "ok\r\n") << "an empty line is answered even in a hold";
    EXPECT_EQ(board.send("M5\r\r"), "") << "a line to run waits while the machine holds, and the next behind it";
    board.wait(2000);
    EXPECT_EQ(board.status(), "<Hold:0|MPos:8.000,0.000,0.000|FS:0,500>\r\n");
    EXPECT_EQ(board.send("~"), "") << "M5 waits for the motion to end";
    board.wait(1000);  // the 22 mm left start again from rest
    EXPECT_EQ(board.status(), "<Run|MPos:12.800,0.000,0.000|FS:480,500>\r\n");
    // 22 mm: two ramps of 3.2 mm (0.8 s each) and 15.6 mm at 8 mm/s (1.95 s): 3.55 s.
    EXPECT_EQ(board.wait(2549), "");
    EXPECT_EQ(board.wait(2), "ok\r\nok\r\n") << "M5, then the empty line behind it";
    EXPECT_EQ(board.status(), "<Idle|MPos:30.000,0.000,0.000|FS:0,0>\r\n");
}

TEST(GrblEmulatorMotion, KeepsGoingAfterWeeksOfUptime)
{
    Board board(options(1));
    board.wait(1'000'000'000'000);  // a millisecond has few bits left at such clock values
    std::string lines;
    for (int i = 1; i <= 17; ++i)
        lines += "G1 X" + std::to_string(i) + ".0037 Y" + std::to_string(i % 7) + ".3 F337\r";
    EXPECT_EQ(count(board.send(lines), "ok"), 15);
    std::string answers;
    for (int i = 0; i < 300; ++i)
        answers += board.wait(97);
    EXPECT_EQ(answers, "ok\r\nok\r\n");
    EXPECT_EQ(board.status(), "<Idle|MPos:17.004,3.300,0.000|FS:0,0>\r\n");
}

TEST(GrblEmulatorMotion, RapidsAtTheAxisRatesDwellAndProgramEndWaitForTheMotion)
{
    Board board(options(1));
    // Each axis at 500 mm/min and 10 mm/s²: along the diagonal 707 mm/min (11.785 mm/s) and
    // 14.142 mm/s², 4.910 mm to reach it (0.833 s); 14.142 mm take 2 x 0.833 + 0.367 s.
    board.send("G0 X10 Y10\r");
    board.wait(400);  // 1.131 mm along the diagonal, at 5.657 mm/s
    EXPECT_EQ(board.status(), "<Run|MPos:0.800,0.800,0.000|FS:339,0>\r\n");
    board.wait(1634);
    EXPECT_EQ(board.send("$111=1000\rG0 Y0\r"), "ok\r\nok\r\n");
    board.wait(2001);  // Y at up to 16.7 mm/s: 10 mm are a triangle of 2 x 1 s
    EXPECT_EQ(board.status(), "<Idle|MPos:10.000,0.000,0.000|FS:0,0>\r\n");

    EXPECT_EQ(board.send("G1 X0 F300\rG4 P0.5\r"), "ok\r\n");
    EXPECT_EQ(board.wait(2999), "") << "10 mm at 5 mm/s with its ramps: 2.5 s, then the dwell";
    EXPECT_EQ(board.wait(2), "ok\r\n");
    EXPECT_EQ(board.send("G0 X10\rM2\r"), "ok\r\n");
    EXPECT_EQ(board.wait(2034), "[MSG:Pgm End]\r\nok\r\n") << "10 mm at 8.333 mm/s: 2.033 s";
    EXPECT_EQ(board.send("$G\r"), "[GC:G1 G54 G17 G21 G90 G94 M5 M9 T0 F300 S0]\r\nok\r\n");
    EXPECT_EQ(board.send("M0\r"), "") << "a program pause holds before it answers";
    EXPECT_EQ(board.grbl().stateText(), "Hold:0");
    EXPECT_EQ(board.send("~"), "ok\r\n");
    EXPECT_EQ(board.grbl().stateText(), "Idle");
}

// Grbl's planner ring has 16 blocks and keeps one free: 15 moves fit ("[OPT:V,15,128]").
TEST(GrblEmulatorPlanner, OkLagsWhenTheFifteenPlannerMovesAreFull)
{
    Board board(options(1));
    std::string lines;
    for (int i = 1; i <= 20; ++i)
        lines += "G1 X" + std::to_string(i * 5) + " F300\r";  // 1 s each at 5 mm/s, in one run
    EXPECT_EQ(count(board.send(lines), "ok"), 15);
    // The first move reaches 5 mm/s after 1.25 mm (0.5 s), then runs 3.75 mm (0.75 s).
    EXPECT_EQ(count(board.wait(1249), "ok"), 0);
    EXPECT_EQ(count(board.wait(2), "ok"), 1) << "a block ended, the waiting line got its place";
    EXPECT_EQ(count(board.wait(4000), "ok"), 4) << "the look-ahead keeps the speed over the joints";
    // 100 mm: 97.5 mm at 5 mm/s between two ramps of 0.5 s, 20.5 s in all.
    EXPECT_EQ(count(board.wait(15251), "ok"), 0);
    EXPECT_EQ(board.status(), "<Idle|MPos:100.000,0.000,0.000|FS:0,0>\r\n");
}

TEST(GrblEmulatorPlanner, ReceiveBufferDropsWhatOverflowsWhileThePlannerIsFull)
{
    Board board(options(1));
    std::string lines;
    for (int i = 1; i <= 17; ++i)
        lines += "G1 X" + std::to_string(i) + " F60\r";  // 1 s each; lines 16 and 17 wait
    EXPECT_EQ(count(board.send(lines), "ok"), 15);
    std::string burst;
    for (int i = 0; i < 10; ++i)
        burst += "G1 X100.0000000000\r";  // 19 bytes each
    board.send(burst);
    // Line 17 (11 bytes) still fills the buffer behind line 16, which waits for its place.
    EXPECT_EQ(board.grbl().droppedBytes(), 190 - (128 - 11));
    // Six whole lines fit (114 bytes); the seventh lost its end and never completes.
    EXPECT_EQ(count(board.wait(60000), "ok"), 2 + 6);
    EXPECT_EQ(board.send("\r"), "ok\r\n") << "the cut line \"G1 X100.000000\" ends with this CR";
    EXPECT_EQ(board.grbl().linesReceived(), 17 + 7);
}

TEST(GrblEmulatorFaults, ErrorAtLineKAndSilenceAfterLineK)
{
    GrblEmulatorOptions o = options();
    o.errorAt = {2, 20};
    Board error(o);
    EXPECT_EQ(error.send("G0 X1\rG0 X2\rG0 X3\r"), "ok\r\nerror:20\r\nok\r\n");
    EXPECT_EQ(error.status(), "<Idle|MPos:3.000,0.000,0.000|FS:0,0>\r\n") << "the refused line did not run";

    o = options();
    o.silentAfter = 2;
    Board silent(o);
    EXPECT_EQ(silent.send("G0 X1\rG0 X2\rG0 X3\r"), "ok\r\nok\r\n");
    EXPECT_EQ(silent.status(), "");
    silent.send("\x18");
    EXPECT_EQ(silent.wait(1000), "");
}

TEST(GrblEmulatorFaults, HangUpDeliversItsLastAnswerAndSplitDelayedRepliesKeepTheirOrder)
{
    GrblEmulatorOptions o = options();
    o.hangupAfter = 1;
    o.replyDelayMs = 10;
    Board hangUp(o);
    EXPECT_EQ(hangUp.send("G0 X1\rG0 X2\r"), "");
    EXPECT_TRUE(hangUp.grbl().hungUp());
    EXPECT_TRUE(hangUp.grbl().outputPending());
    EXPECT_EQ(hangUp.wait(10), "ok\r\n");
    EXPECT_FALSE(hangUp.grbl().outputPending());

    o = options();
    o.splitReplies = true;
    o.replyDelayMs = 50;
    Board split(o);
    EXPECT_EQ(split.send("G0 X1\rG0 X\r"), "");
    EXPECT_EQ(split.wait(49), "");
    EXPECT_EQ(split.wait(1), "o");
    EXPECT_EQ(split.wait(GrblEmulator::kSplitGapMs - 1), "");
    EXPECT_EQ(split.wait(1), "k\r\ne");
    EXPECT_EQ(split.wait(GrblEmulator::kSplitGapMs), "rror:2\r\n");
}

}  // namespace
}  // namespace veltrin
