#include <gtest/gtest.h>

#include "machine/grbl_protocol.h"

namespace veltrin {
namespace {

TEST(LineAssembler, JoinsLinesCutBetweenReadsAndDropsCarriageReturnsAndNul)
{
    LineAssembler lines;
    EXPECT_TRUE(lines.feed("o").empty());
    EXPECT_EQ(lines.pending(), "o");
    EXPECT_EQ(lines.feed("k\r\nerr"), std::vector<std::string>{"ok"});
    EXPECT_EQ(lines.feed(std::string("or:2", 4) + std::string("\0\r\n", 3) + "<Idle|MPos:0.000>\n"),
              (std::vector<std::string>{"error:2", "<Idle|MPos:0.000>"}));
    EXPECT_EQ(lines.feed("\r\nGrbl 1.1h ['$' for help]\r\n"),
              std::vector<std::string>{"Grbl 1.1h ['$' for help]"});
}

TEST(ClassifyReply, OnlyOkAndErrorAnswerALine)
{
    struct Case {
        const char* line;
        ReplyKind kind;
        int code;
    };
    const Case cases[] = {
        {"ok", ReplyKind::Ok, 0},
        {"error:22", ReplyKind::Error, 22},
        {"ALARM:1", ReplyKind::Alarm, 1},
        {"Grbl 1.1h ['$' for help]", ReplyKind::Banner, 0},
        {"[MSG:'$H'|'$X' to unlock]", ReplyKind::Message, 0},
        {"<Hold:0|MPos:1.000,2.000,0.000|FS:0,0>", ReplyKind::Status, 0},
        {"$110=500.000", ReplyKind::Setting, 0},
        {"okay", ReplyKind::Other, 0},
        {">G1X1:ok", ReplyKind::Other, 0},
    };
    for (const auto& c : cases) {
        const Reply r = classifyReply(c.line);
        EXPECT_EQ(r.kind, c.kind) << c.line;
        EXPECT_EQ(r.code, c.code) << c.line;
        EXPECT_EQ(isResponse(r), c.kind == ReplyKind::Ok || c.kind == ReplyKind::Error) << c.line;
    }
}

TEST(LineToSend, StripsCommentsAndRealTimeBytes)
{
    EXPECT_EQ(lineToSend("$HX ;X origin search"), "$HX");
    EXPECT_EQ(lineToSend(";Laser gcode of the file : Why?!"), "");
    EXPECT_EQ(lineToSend("G0 X1 (fast ~ move) Y2"), "G0 X1  Y2");
    EXPECT_EQ(lineToSend("G1 X3!?~ F800"), "G1 X3 F800");
    EXPECT_EQ(lineToSend("G1 Y4\x18\r"), "G1 Y4");
    EXPECT_EQ(lineToSend("G1 Y5 \xC3\xA9"), "G1 Y5");
    EXPECT_EQ(lineToSend("   "), "");
    EXPECT_EQ(lineToSend("M3 S1000 F8000"), "M3 S1000 F8000");
}

TEST(KeyCommands, JogsCarryTheMachineFeedAsAWholeNumber)
{
    // The jog texts themselves are pinned in grbl_link_test.
    EXPECT_EQ(jogFeed(true, "1500.9", "8000"), 1500);
    EXPECT_EQ(jogFeed(false, "1500", "8000 mm/min"), 8000);
}

TEST(Glossary, PairsLinesByPositionAndStopsAfterTheLastEntry)
{
    std::vector<std::string> glossary;
    remplir_glossaire(glossary);
    ASSERT_EQ(glossary.size(), 35u);

    SettingsAnnotator annotator(glossary);
    annotator.restart();
    EXPECT_EQ(annotator.annotate("$0=10"), "$0=10 (Step pulse time)");
    EXPECT_EQ(annotator.annotate("$1=25"), "$1=25 (Step idle delay)");
    for (int i = 2; i < 34; ++i)
        annotator.annotate("$x=0");
    EXPECT_EQ(annotator.annotate("ok"), "ok ");
    EXPECT_EQ(annotator.annotate("$200=1"), "$200=1");
    annotator.restart();
    EXPECT_EQ(annotator.annotate("$0=10"), "$0=10 (Step pulse time)");
}

TEST(TimeTexts, ClockTextAndLearnedDuration)
{
    EXPECT_EQ(remainingClock(0), "00:00:00");
    EXPECT_EQ(remainingClock(3661.4), "01:01:01");
    EXPECT_EQ(remainingClock(59.6), "00:01:00");
    EXPECT_EQ(remainingClock(86399), "23:59:59");
    EXPECT_EQ(remainingClock(86400 + 61), "00:01:01");
    EXPECT_EQ(remainingClock(-5), "00:00:00");

    EXPECT_DOUBLE_EQ(learnedDuration(999, 0.25), 0.25);
    EXPECT_DOUBLE_EQ(learnedDuration(0.5, 0.25), 0.375);
    EXPECT_DOUBLE_EQ(learnedDuration(998.9, 1.1), 500);
}

}  // namespace
}  // namespace veltrin

namespace veltrin {
namespace {

TEST(GrblCodes, EveryErrorAndAlarmOfGrblHasItsMeaningInWords)
{
    // Grbl 1.1h leaves error codes 18 and 19 unused.
    for (int code = 1; code <= 38; ++code) {
        if (code == 18 || code == 19)
            EXPECT_TRUE(errorMeaning(code).empty()) << code;
        else
            EXPECT_GT(errorMeaning(code).size(), 10u) << code;
    }
    for (int code = 1; code <= 9; ++code)
        EXPECT_GT(alarmMeaning(code).size(), 10u) << code;
    for (const int code : {0, -1, 39, 100}) {
        EXPECT_TRUE(errorMeaning(code).empty()) << code;
        EXPECT_TRUE(alarmMeaning(code).empty()) << code;
    }
    EXPECT_TRUE(alarmMeaning(10).empty());
    EXPECT_EQ(explainedReply("error:22"), "error:22 (feed rate not set)");
    EXPECT_EQ(explainedReply("ALARM:2"),
              "ALARM:2 (soft limit: a motion target lies beyond the machine's travel; the position is kept)");
    EXPECT_EQ(explainedReply("error:19"), "error:19") << "no words for an unknown code";
    EXPECT_EQ(explainedReply("ok"), "ok");
    EXPECT_TRUE(isCriticalAlarm(1));
    EXPECT_TRUE(isCriticalAlarm(2));
    EXPECT_FALSE(isCriticalAlarm(3));
}

TEST(StatusReport, StateAndPositionFromMachineOrWorkCoordinates)
{
    struct Case {
        const char* line;
        bool parsed;
        const char* state;
        bool machine;
        double x, y, z;
        bool offset;
        double ox;
    };
    const Case cases[] = {
        {"<Idle|MPos:0.000,0.000,0.000|FS:0,0>", true, "Idle", true, 0, 0, 0, false, 0},
        {"<Run|MPos:-12.500,301.250,-1.000|FS:800,1000>", true, "Run", true, -12.5, 301.25, -1, false, 0},
        {"<Hold:0|WPos:5.000,6.000,0.000|FS:0,0|WCO:-195.000,0.000,0.000>", true, "Hold:0", false, 5, 6, 0, true, -195},
        {"<Alarm|WPos:1.000,2.000,3.000>", true, "Alarm", false, 1, 2, 3, false, 0},
        {"<Idle|FS:0,0>", false, "", true, 0, 0, 0, false, 0},
        {"<Idle|MPos:1.000,2.000>", false, "", true, 0, 0, 0, false, 0},
        {"<|MPos:1.000,2.000,3.000>", false, "", true, 0, 0, 0, false, 0},
        {"Idle|MPos:1.000,2.000,3.000", false, "", true, 0, 0, 0, false, 0},
        {"<Run|MPos:x,2.000,3.000>", false, "", true, 0, 0, 0, false, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        const auto report = parseStatusReport(c.line);
        ASSERT_EQ(report.has_value(), c.parsed);
        if (!report)
            continue;
        EXPECT_EQ(report->state, c.state);
        EXPECT_EQ(report->machinePosition, c.machine);
        EXPECT_DOUBLE_EQ(report->position[0], c.x);
        EXPECT_DOUBLE_EQ(report->position[1], c.y);
        EXPECT_DOUBLE_EQ(report->position[2], c.z);
        EXPECT_EQ(report->hasWorkOffset, c.offset);
        EXPECT_DOUBLE_EQ(report->workOffset[0], c.ox);
    }
}

TEST(EmulatorSpeed, ReadFromTheBuildInfoOfTheVersionLine)
{
    EXPECT_EQ(emulatorSpeed("[VER:1.1h.20190830:" + emulatorBuildInfo(20) + "]"), 20.0);
    EXPECT_EQ(emulatorSpeed("[VER:1.1h.20190830:" + emulatorBuildInfo(0.5) + "]"), 0.5);
    EXPECT_EQ(emulatorSpeed("[VER:1.1h.20190830:emulator x0]"), 0.0);
    EXPECT_EQ(emulatorSpeed("[VER:1.1h.20190830:emulator x1]"), 1.0);
    EXPECT_FALSE(emulatorSpeed("[VER:1.1h.20190830:]"));
    EXPECT_FALSE(emulatorSpeed("[VER:1.1h.20190830:my laser]"));
    EXPECT_FALSE(emulatorSpeed("[VER:1.1h.20190830:emulator x]"));
    EXPECT_FALSE(emulatorSpeed("[OPT:V,15,128]"));
}

}  // namespace
}  // namespace veltrin
