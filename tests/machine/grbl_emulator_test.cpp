#include "machine/grbl_emulator.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace veltrin {
namespace {

constexpr std::string_view kBanner = "\r\nGrbl 1.1h ['$' for help]\r\n";
constexpr std::string_view kUnlockHint = "[MSG:'$H'|'$X' to unlock]\r\n";

// Drives an emulator on a test clock: send() and wait() return what the board sent meanwhile.
class Board {
public:
    explicit Board(GrblEmulatorOptions options) : m_grbl(adjusted(std::move(options)))
    {
        // Past the banner of the power-up, however late replies come.
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
    static GrblEmulatorOptions adjusted(GrblEmulatorOptions options)
    {
        options.bootMs = 0;
        return options;
    }
    GrblEmulator m_grbl;
    std::int64_t m_nowMs = 0;
};

GrblEmulatorOptions instant()
{
    GrblEmulatorOptions options;
    options.speed = 0;
    options.factorySettings = true;
    return options;
}

GrblEmulatorOptions realTime()
{
    GrblEmulatorOptions options = instant();
    options.speed = 1;
    return options;
}

int count(const std::string& text, std::string_view what)
{
    int n = 0;
    for (auto pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + 1))
        ++n;
    return n;
}

TEST(GrblEmulatorStart, WelcomeTextComesAfterTheBootDelayAndEarlierBytesAreLost)
{
    GrblEmulatorOptions options = instant();
    options.bootMs = 1500;
    GrblEmulator grbl(options);
    grbl.receive("$$\r");
    grbl.advance(1499);
    EXPECT_EQ(grbl.takeOutput(), "") << "still in the boot loader";
    grbl.advance(1500);
    EXPECT_EQ(grbl.takeOutput(), kBanner);
    grbl.advance(3000);
    EXPECT_EQ(grbl.takeOutput(), "") << "the line sent while booting must be lost";

    grbl.powerUp(4000);
    grbl.advance(5500);
    EXPECT_EQ(grbl.takeOutput(), kBanner) << "a port opening resets the board again";
}

TEST(GrblEmulatorStart, OurMachinesPowerUpLockedUntilUnlockedOrHomed)
{
    GrblEmulator grbl{GrblEmulatorOptions{}};
    grbl.advance(1000);
    EXPECT_EQ(grbl.takeOutput(), std::string(kBanner) + std::string(kUnlockHint));
    EXPECT_EQ(grbl.stateText(), "Alarm");
    grbl.receive("G0 X1\r$X\rG0 X1\r");
    grbl.advance(1000);
    EXPECT_EQ(grbl.takeOutput(), "error:9\r\n[MSG:Caution: Unlocked]\r\nok\r\nok\r\n");
}

TEST(GrblEmulatorLines, CleansLinesAndAnswersEachOnce)
{
    Board board(instant());
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

TEST(GrblEmulatorLines, LongLinesAndBadWordsGiveGrblsErrors)
{
    Board board(instant());
    const std::string line79 = "G0X1." + std::string(74, '0');
    ASSERT_EQ(line79.size(), 79u);
    EXPECT_EQ(board.send(line79 + "\r"), "ok\r\n");
    EXPECT_EQ(board.send(line79 + "0\r"), "error:11\r\n");
    EXPECT_EQ(board.send("G0 X1" + std::string(100, ' ') + "(" + std::string(100, 'c') + ")\r"),
              "ok\r\n")
        << "blanks and comments do not count towards the limit";
    EXPECT_EQ(board.send("1G0\r"), "error:1\r\n");
    EXPECT_EQ(board.send("G0 X\r"), "error:2\r\n");
    EXPECT_EQ(board.send("G0 X1.2.3\r"), "error:1\r\n");
    EXPECT_EQ(board.send("G38.2 X1\r"), "error:20\r\n");
    EXPECT_EQ(board.send("M7 Q1\r"), "error:20\r\n");
    EXPECT_EQ(board.send("$Q\r"), "error:3\r\n");
}

TEST(GrblEmulatorLines, EveryLineOfRandomInputGetsExactlyOneResponse)
{
    // Any text at all, in chunks of any size: one "ok" or "error:N" per line end, nothing lost
    // while the buffer has room (speed 0 keeps the planner from filling).
    const std::string alphabet = "GXYZFSgxyz0123456789.-+ ;()\t\r\nABQ";
    unsigned seed = 12345;
    const auto next = [&seed] {
        seed = seed * 1103515245u + 12345u;
        return (seed >> 16) & 0x7fff;
    };
    Board board(instant());
    std::string output;
    for (int chunk = 0; chunk < 2000; ++chunk) {
        std::string bytes;
        const unsigned size = next() % 40;
        for (unsigned i = 0; i < size; ++i)
            bytes += alphabet[next() % alphabet.size()];
        output += board.send(bytes);
        output += board.wait(next() % 3);
    }
    EXPECT_EQ(count(output, "ok\r\n") + count(output, "error:"), board.grbl().linesReceived());
    EXPECT_GT(board.grbl().linesReceived(), 1000);
    EXPECT_EQ(board.grbl().droppedBytes(), 0);
}

TEST(GrblEmulatorLines, FeedMustBeSetBeforeTheFirstG1AndAgainAfterAReset)
{
    Board board(instant());
    EXPECT_EQ(board.send("G1 X10\r"), "error:22\r\n");
    EXPECT_EQ(board.send("G1\r"), "ok\r\n") << "no axis words, no motion, no error";
    EXPECT_EQ(board.send("G0 X5\r"), "ok\r\n") << "rapids need no feed";
    EXPECT_EQ(board.send("G1 X10 F600\r"), "ok\r\n");
    EXPECT_EQ(board.send("G1 X20\r"), "ok\r\n") << "the feed is modal";
    board.send("\x18");
    EXPECT_EQ(board.wait(GrblEmulator::kSoftResetMs), kBanner);
    EXPECT_EQ(board.send("G1 X10\r"), "error:22\r\n");
}

TEST(GrblEmulatorSettings, ListsTheDefaultsAndTakesWrites)
{
    Board factory(instant());
    const std::string expected =
        "$0=10\r\n$1=25\r\n$2=0\r\n$3=0\r\n$4=0\r\n$5=0\r\n$6=0\r\n$10=1\r\n$11=0.010\r\n"
        "$12=0.002\r\n$13=0\r\n$20=0\r\n$21=0\r\n$22=0\r\n$23=0\r\n$24=25.000\r\n"
        "$25=500.000\r\n$26=250\r\n$27=1.000\r\n$30=1000\r\n$31=0\r\n$32=0\r\n"
        "$100=250.000\r\n$101=250.000\r\n$102=250.000\r\n$110=500.000\r\n$111=500.000\r\n"
        "$112=500.000\r\n$120=10.000\r\n$121=10.000\r\n$122=10.000\r\n$130=200.000\r\n"
        "$131=200.000\r\n$132=200.000\r\nok\r\n";
    EXPECT_EQ(factory.send("$$\r"), expected);
    EXPECT_EQ(count(expected, "$"), 34);

    GrblEmulatorOptions ours = instant();
    ours.factorySettings = false;
    Board machine(ours);
    const std::string list = machine.send("$$\r");
    EXPECT_NE(list.find("$22=1\r\n$23=1\r\n"), std::string::npos) << list;

    EXPECT_EQ(factory.send("$110=1000.5\r$26=12.7\r"), "ok\r\nok\r\n");
    const std::string changed = factory.send("$$\r");
    EXPECT_NE(changed.find("$110=1000.500\r\n"), std::string::npos);
    EXPECT_NE(changed.find("$26=12\r\n"), std::string::npos) << "whole-number settings";
    EXPECT_EQ(factory.send("$999=1\r"), "error:3\r\n");
    factory.send("G0 X5\rG92 X1\r");
    const std::string parameters = factory.send("$#\r");
    EXPECT_NE(parameters.find("[G92:4.000,0.000,0.000]\r\n[TLO:0.000]\r\n"), std::string::npos)
        << parameters;
    EXPECT_EQ(factory.send("$1=x\r"), "error:2\r\n");
    EXPECT_EQ(factory.send("$1=-4\r"), "error:4\r\n");
}

TEST(GrblEmulatorSettings, SettingsListAndWritesAreRefusedWhileRunning)
{
    Board board(realTime());
    board.send("G1 X10 F300\r");
    EXPECT_EQ(board.send("$$\r"), "error:8\r\n");
    EXPECT_EQ(board.send("$1=30\r"), "error:8\r\n");
    board.wait(2001);
    EXPECT_EQ(count(board.send("$$\r"), "\r\n"), 35);
}

TEST(GrblEmulatorHoming, OurImageHomesXOnlyAndTakesTheTimeOfTheSearch)
{
    GrblEmulatorOptions options = realTime();
    options.factorySettings = false;
    Board board(options);
    EXPECT_EQ(board.send("$HY\r"), "error:3\r\n") << "Y has no switch";
    EXPECT_EQ(board.send("$HX\r"), "");
    EXPECT_EQ(board.status(), "<Home|MPos:0.000,0.000,0.000|FS:0,0>\r\n");
    // 199 mm at $25=500 mm/min, then three pull-off lengths at $24=25 mm/min.
    EXPECT_EQ(board.wait(23880 + 7200 - 1), "");
    EXPECT_EQ(board.wait(2), "ok\r\n");
    EXPECT_EQ(board.status(), "<Idle|MPos:-199.000,0.000,0.000|FS:0,0>\r\n");
    EXPECT_EQ(board.send("G92 X0\rG0 X10\r"), "ok\r\nok\r\n") << "homing unlocks";
}

TEST(GrblEmulatorHoming, StockImageRefusesHXAndStaysInHomeUntilReset)
{
    GrblEmulatorOptions options = instant();
    options.factorySettings = false;
    options.stock = true;
    Board board(options);
    EXPECT_EQ(board.send("$HX\r"), "error:3\r\n");
    EXPECT_EQ(board.status(), "<Home|MPos:0.000,0.000,0.000|FS:0,0>\r\n");
    EXPECT_EQ(board.send("$X\r"), "ok\r\n");
    EXPECT_EQ(board.grbl().stateText(), "Home");
    EXPECT_EQ(board.send("\x18"), "ALARM:6\r\n");
    EXPECT_EQ(board.wait(GrblEmulator::kSoftResetMs),
              std::string(kBanner) + std::string(kUnlockHint));

    Board factory(instant());
    EXPECT_EQ(factory.send("$H\r"), "error:5\r\n") << "homing not enabled";
}

TEST(GrblEmulatorJog, AppliesGrblsJogRules)
{
    Board board(realTime());
    EXPECT_EQ(board.send("$J=G91X10\r"), "error:22\r\n");
    EXPECT_EQ(board.send("$J=G91X10F600M3\r"), "error:16\r\n");
    EXPECT_EQ(board.send("$J=G1X10F600\r"), "error:16\r\n");
    EXPECT_EQ(board.send("$J=G91F600\r"), "error:16\r\n");
    EXPECT_EQ(board.send("$J=G91X10F300\r"), "ok\r\n");
    EXPECT_EQ(board.send("$J=G91X10F300\r"), "ok\r\n") << "jogs queue behind jogs";
    EXPECT_EQ(board.status(), "<Jog|MPos:0.000,0.000,0.000|FS:300,0>\r\n");
    EXPECT_EQ(board.send("G0 X1\r"), "error:9\r\n") << "G-code is locked out while jogging";
    board.wait(1000);
    board.send("\x85");
    EXPECT_EQ(board.status(), "<Idle|MPos:5.000,0.000,0.000|FS:0,0>\r\n");

    EXPECT_EQ(board.send("G1 X0 F300\r"), "ok\r\n");
    EXPECT_EQ(board.send("$J=G91X10F300\r"), "error:8\r\n") << "no jog while running";
    board.wait(1001);
    EXPECT_EQ(board.send("$J=G90X2F300\r"), "ok\r\n");
    board.wait(1000);
    EXPECT_EQ(board.status(), "<Idle|MPos:2.000,0.000,0.000|FS:0,0>\r\n");

    EXPECT_EQ(board.send("$20=1\r$J=G91X10F600\r"), "ok\r\nerror:15\r\n")
        << "soft limits: machine space is negative";
}

TEST(GrblEmulatorAlarm, HardLimitSilencesEverythingButAReset)
{
    GrblEmulatorOptions options = instant();
    options.alarmAt = {2, 1};
    Board board(options);
    EXPECT_EQ(board.send("G0 X1\rG0 X2\rG0 X3\r"), "ok\r\nok\r\nALARM:1\r\n[MSG:Reset to continue]\r\n");
    EXPECT_EQ(board.status(), "");
    EXPECT_EQ(board.send("$X\r"), "");
    board.send("\x18");
    EXPECT_EQ(board.wait(GrblEmulator::kSoftResetMs), std::string(kBanner) + std::string(kUnlockHint));
    EXPECT_EQ(board.send("G0 X1\r"), "error:9\r\n");
    EXPECT_EQ(board.send("$X\r"), "[MSG:Caution: Unlocked]\r\nok\r\n");
    EXPECT_EQ(board.send("G0 X1\r"), "ok\r\n");
}

TEST(GrblEmulatorAlarm, OtherAlarmsLockButStillAnswer)
{
    GrblEmulatorOptions options = instant();
    options.alarmAt = {1, 9};
    Board board(options);
    EXPECT_EQ(board.send("G0 X1\r"), "ok\r\nALARM:9\r\n");
    EXPECT_EQ(board.status(), "<Alarm|MPos:1.000,0.000,0.000|FS:0,0>\r\n");
    EXPECT_EQ(board.send("G0 X1\r"), "error:9\r\n");
}

TEST(GrblEmulatorRealtime, ActsOnRealtimeBytesInsideCommentsAndDropsHighBytes)
{
    GrblEmulatorOptions options = instant();
    options.recordPath = (std::filesystem::temp_directory_path() /
                          ("veltrin_record_" + std::to_string(::getpid()) + ".txt"))
                             .string();
    Board board(options);
    EXPECT_EQ(board.send("G0 X1 (where? \xe9t\xe9)\r"),
              "<Idle|MPos:0.000,0.000,0.000|FS:0,0>\r\nok\r\n");
    EXPECT_EQ(board.send("G0 X2 (stop!)\r"), "")
        << "the '!' in the comment held the machine, and a hold suspends the parser";
    EXPECT_EQ(board.grbl().stateText(), "Hold:0");
    EXPECT_EQ(board.send("~"), "ok\r\n");
    EXPECT_EQ(board.status(), "<Idle|MPos:2.000,0.000,0.000|FS:0,0>\r\n");
    std::ifstream record(options.recordPath);
    std::stringstream text;
    text << record.rdbuf();
    EXPECT_EQ(text.str(), "G0 X1 (where t)\nG0 X2 (stop)\n");
    std::filesystem::remove(options.recordPath);
}

TEST(GrblEmulatorRealtime, SoftResetWhileMovingRaisesAlarm3AndFlushesTheBuffer)
{
    Board board(realTime());
    board.send("G1 X10 F300\r");
    board.wait(1000);
    EXPECT_EQ(board.send("\x18" "G0 X1\r"), "ALARM:3\r\n");
    EXPECT_EQ(board.wait(GrblEmulator::kSoftResetMs),
              std::string(kBanner) + std::string(kUnlockHint));
    EXPECT_EQ(board.status(), "<Alarm|MPos:5.000,0.000,0.000|FS:0,0>\r\n")
        << "the line sent with the reset was lost and the carriage stopped where it was";

    Board idle(instant());
    idle.send("\x18");
    EXPECT_EQ(idle.wait(GrblEmulator::kSoftResetMs), kBanner) << "no alarm when idle";
}

TEST(GrblEmulatorMotion, PositionFollowsTheMoveAndFeedHoldStopsIt)
{
    Board board(realTime());
    EXPECT_EQ(board.send("G1 X30 F480 S500 M3\r"), "ok\r\n")
        << "spindle and move on one line; the machine is idle, so the spindle starts at once";
    board.wait(1000);
    EXPECT_EQ(board.status(), "<Run|MPos:8.000,0.000,0.000|FS:480,500>\r\n");
    board.send("!");
    EXPECT_EQ(board.status(), "<Hold:1|MPos:8.000,0.000,0.000|FS:240,500>\r\n");
    board.send("~");  // ignored until the hold has stopped the machine
    board.wait(800);  // 8 mm/s at 10 mm/s² stops in 0.8 s, covering 3.2 mm
    EXPECT_EQ(board.status(), "<Hold:0|MPos:11.200,0.000,0.000|FS:0,500>\r\n");
    EXPECT_EQ(board.send("\rM5\r"), "") << "lines wait while the machine holds";
    board.wait(2000);
    EXPECT_EQ(board.status(), "<Hold:0|MPos:11.200,0.000,0.000|FS:0,500>\r\n");
    EXPECT_EQ(board.send("~"), "ok\r\n") << "the empty line; M5 waits for the motion to end";
    board.wait(1000);
    EXPECT_EQ(board.status(), "<Run|MPos:19.200,0.000,0.000|FS:480,500>\r\n");
    EXPECT_EQ(board.wait(1351), "ok\r\n");
    EXPECT_EQ(board.status(), "<Idle|MPos:30.000,0.000,0.000|FS:0,0>\r\n");
}

TEST(GrblEmulatorMotion, KeepsGoingAfterWeeksOfUptime)
{
    // At such clock values a millisecond has few bits left below it; block ends must not
    // stall the clock.
    Board board(realTime());
    board.wait(1'000'000'000'000);
    std::string lines;
    for (int i = 1; i <= 17; ++i)  // what fits in the planner and the receive buffer
        lines += "G1 X" + std::to_string(i) + ".0037 Y" + std::to_string(i % 7) + ".3 F337\r";
    EXPECT_EQ(count(board.send(lines), "ok"), 16);
    std::string answers;
    for (int i = 0; i < 300; ++i)
        answers += board.wait(97);
    EXPECT_EQ(answers, "ok\r\n");
    EXPECT_EQ(board.status(), "<Idle|MPos:17.004,3.300,0.000|FS:0,0>\r\n");
}

TEST(GrblEmulatorMotion, RapidsRunAtTheAxisRateLimits)
{
    Board board(realTime());
    board.send("G0 X10 Y10\r");  // each axis at 500 mm/min: 1.2 s for both
    board.wait(600);
    EXPECT_EQ(board.status(), "<Run|MPos:5.000,5.000,0.000|FS:707,0>\r\n");
    board.wait(601);
    EXPECT_EQ(board.send("$111=1000\rG0 Y0\r"), "ok\r\nok\r\n");
    board.wait(601);
    EXPECT_EQ(board.status(), "<Idle|MPos:10.000,0.000,0.000|FS:0,0>\r\n");
}

TEST(GrblEmulatorPlanner, OkLagsWhenTheSixteenBlocksAreFull)
{
    Board board(realTime());
    std::string lines;
    for (int i = 1; i <= 20; ++i)
        lines += "G1 X" + std::to_string(i * 5) + " F300\r";  // 1 s each
    EXPECT_EQ(count(board.send(lines), "ok"), 16);
    EXPECT_EQ(count(board.wait(999), "ok"), 0);
    EXPECT_EQ(count(board.wait(2), "ok"), 1) << "a block ended, the waiting line got its place";
    EXPECT_EQ(count(board.wait(3000), "ok"), 3);
    EXPECT_EQ(count(board.wait(16000), "ok"), 0);
    EXPECT_EQ(board.status(), "<Idle|MPos:100.000,0.000,0.000|FS:0,0>\r\n");
}

TEST(GrblEmulatorPlanner, ReceiveBufferDropsWhatOverflowsWhileThePlannerIsFull)
{
    Board board(realTime());
    std::string lines;
    for (int i = 1; i <= 17; ++i)
        lines += "G1 X" + std::to_string(i) + " F60\r";  // 1 s each; line 17 waits
    EXPECT_EQ(count(board.send(lines), "ok"), 16);
    std::string burst;
    for (int i = 0; i < 10; ++i)
        burst += "G1 X100.0000000000\r";  // 19 bytes each
    ASSERT_EQ(burst.size(), 190u);
    board.send(burst);
    EXPECT_EQ(board.grbl().droppedBytes(), 190 - 128);
    // Six whole lines fit (114 bytes); the seventh lost its end and never completes.
    EXPECT_EQ(count(board.wait(60000), "ok"), 1 + 6);
    EXPECT_EQ(board.send("\r"), "ok\r\n") << "the cut line \"G1 X100.000000\" ends with this CR";
    EXPECT_EQ(board.grbl().linesReceived(), 17 + 7);
}

TEST(GrblEmulatorFaults, ErrorAtLineKReplacesItsAnswerAndSkipsIt)
{
    GrblEmulatorOptions options = instant();
    options.errorAt = {2, 20};
    Board board(options);
    EXPECT_EQ(board.send("G0 X1\rG0 X2\rG0 X3\r"), "ok\r\nerror:20\r\nok\r\n");
    EXPECT_EQ(board.status(), "<Idle|MPos:3.000,0.000,0.000|FS:0,0>\r\n");
}

TEST(GrblEmulatorFaults, SilenceAfterLineKAnswersNothingAtAll)
{
    GrblEmulatorOptions options = instant();
    options.silentAfter = 2;
    Board board(options);
    EXPECT_EQ(board.send("G0 X1\rG0 X2\rG0 X3\r"), "ok\r\nok\r\n");
    EXPECT_EQ(board.status(), "");
    board.send("\x18");
    EXPECT_EQ(board.wait(1000), "");
}

TEST(GrblEmulatorFaults, HangUpAfterLineKDeliversItsAnswerFirst)
{
    GrblEmulatorOptions options = instant();
    options.hangupAfter = 1;
    options.replyDelayMs = 10;
    Board board(options);
    EXPECT_EQ(board.send("G0 X1\rG0 X2\r"), "");
    EXPECT_TRUE(board.grbl().hungUp());
    EXPECT_TRUE(board.grbl().outputPending());
    EXPECT_EQ(board.wait(10), "ok\r\n");
    EXPECT_FALSE(board.grbl().outputPending());
}

TEST(GrblEmulatorFaults, SplitAndDelayedRepliesKeepTheirOrder)
{
    GrblEmulatorOptions options = instant();
    options.splitReplies = true;
    options.replyDelayMs = 50;
    Board board(options);
    EXPECT_EQ(board.send("G0 X1\rG0 X\r"), "");
    EXPECT_EQ(board.wait(49), "");
    EXPECT_EQ(board.wait(1), "o");
    EXPECT_EQ(board.wait(GrblEmulator::kSplitGapMs - 1), "");
    EXPECT_EQ(board.wait(1), "k\r\ne");
    EXPECT_EQ(board.wait(GrblEmulator::kSplitGapMs), "rror:2\r\n");
}

TEST(GrblEmulatorFaults, RecordHoldsEveryLineThatReachedThePort)
{
    GrblEmulatorOptions options = instant();
    options.bootMs = 100;
    options.recordPath = (std::filesystem::temp_directory_path() /
                          ("veltrin_port_record_" + std::to_string(::getpid()) + ".txt"))
                             .string();
    {
        GrblEmulator grbl(options);
        grbl.receive("G0 X1\r");  // lost in the boot loader, but it reached the port
        grbl.advance(100);
        grbl.receive("g1 x2 f100 (c)\r\n");
        grbl.advance(200);
        EXPECT_EQ(grbl.takeOutput(), std::string(kBanner) + "ok\r\nok\r\n");
    }
    std::ifstream record(options.recordPath);
    std::stringstream text;
    text << record.rdbuf();
    EXPECT_EQ(text.str(), "G0 X1\ng1 x2 f100 (c)\n\n");
    std::filesystem::remove(options.recordPath);
}

TEST(GrblEmulatorFaults, RecordFileThatCannotBeOpenedIsReported)
{
    GrblEmulatorOptions options = instant();
    options.recordPath = "/nonexistent-folder/record.txt";
    EXPECT_FALSE(GrblEmulator(options).recordOpen());
    EXPECT_TRUE(GrblEmulator(instant()).recordOpen());
}

TEST(GrblEmulatorMotion, DwellAndProgramEndWaitForTheMotion)
{
    Board board(realTime());
    EXPECT_EQ(board.send("G1 X10 F300\rG4 P0.5\r"), "ok\r\n");
    EXPECT_EQ(board.wait(2499), "");
    EXPECT_EQ(board.wait(2), "ok\r\n");
    EXPECT_EQ(board.send("G0 X0\rM2\r"), "ok\r\n");
    EXPECT_EQ(board.wait(1201), "[MSG:Pgm End]\r\nok\r\n");
    EXPECT_EQ(board.send("$G\r"), "[GC:G1 G54 G17 G21 G90 G94 M5 M9 T0 F300 S0]\r\nok\r\n");
    EXPECT_EQ(board.send("M0\r"), "") << "a program pause holds before it answers";
    EXPECT_EQ(board.grbl().stateText(), "Hold:0");
    EXPECT_EQ(board.send("~"), "ok\r\n");
    EXPECT_EQ(board.grbl().stateText(), "Idle");
}

}  // namespace
}  // namespace veltrin
