// The machine link's console and the end of a job against a scripted Grbl that reports its
// status: real-time characters, commands whose answer cannot come, a late welcome text, the
// wait for the machine after the last line, and the resume file's life.

#include <gtest/gtest.h>

#include "app/app_state.h"
#include "app/grbl_link.h"

namespace veltrin {
namespace {

constexpr const char* kBanner = "\r\nGrbl 1.1h ['$' for help]\r\n";
constexpr const char* kIdle = "<Idle|MPos:0.000,0.000,0.000|FS:0,0>\r\n";
constexpr const char* kRun = "<Run|MPos:1.000,1.000,0.000|FS:800,0>\r\n";
constexpr const char* kHold = "<Hold:0|MPos:0.000,0.000,0.000|FS:0,0>\r\n";
constexpr std::int64_t kEvery = 100;
constexpr std::int64_t kStuck = 1000;
constexpr auto npos = std::string::npos;

class ConsoleLinkTest : public ::testing::Test {
protected:
    ConsoleLinkTest()
    {
        remplir_glossaire(state.Liste_commentaires_grbl);
        LinkTimings timings;
        timings.statusEveryMs = kEvery;
        timings.statusLostMs = 400;
        timings.silenceMs = 3000;
        timings.stuckMs = kStuck;
        link.setTimings(timings);
        link.setPortOpen(true);
        link.connexion_on(now);
    }

    void collect()
    {
        for (auto& action : link.takeActions()) {
            if (auto* w = std::get_if<WriteBytes>(&action))
                written += w->bytes;
            else if (auto* c = std::get_if<CommandDone>(&action))
                commands.push_back(*c);
            else if (auto* r = std::get_if<ResumePoint>(&action))
                resumes.push_back(*r);
            else if (auto* f = std::get_if<ResumeFinished>(&action))
                finished.push_back(*f);
            else if (auto* e = std::get_if<JobEnded>(&action))
                ends.push_back(*e);
        }
    }
    void grbl(std::string_view bytes)
    {
        link.onBytes(bytes);
        collect();
    }
    // Moves the clock in 10 ms ticks; each "?" is answered with report (none when empty).
    void advanceTo(std::int64_t ms, const char* report = "")
    {
        while (now < ms) {
            now = std::min(ms, now + 10);
            link.onTick(now);
            collect();
            if (takeStatusRequests() > 0 && *report)
                grbl(report);
        }
    }
    int takeStatusRequests()
    {
        const auto n = std::count(written.begin(), written.end(), '?');
        std::erase(written, '?');
        return static_cast<int>(n);
    }
    std::string takeWritten()
    {
        takeStatusRequests();
        std::string out;
        out.swap(written);
        return out;
    }
    void connected()
    {
        grbl(kBanner);
        takeWritten();
    }
    const std::string& log() const { return state.user_msg_list.text(); }

    AppState state;
    GrblLink link{state};
    std::int64_t now = 1000;
    std::string written;
    std::vector<CommandDone> commands;
    std::vector<ResumePoint> resumes;
    std::vector<ResumeFinished> finished;
    std::vector<JobEnded> ends;
};

TEST_F(ConsoleLinkTest, RealTimeCharactersGoAtOnceAndWaitForNothing)
{
    connected();
    link.consoleCommand("G1 X10 F100");
    collect();
    EXPECT_EQ(takeWritten(), "G1 X10 F100\r");
    for (const char c : {'!', '?', '~'}) {
        link.realtimeCommand(c);
        collect();
        EXPECT_EQ(written, std::string(1, c)) << "ahead of the line in flight, without a line end";
        written.clear();
    }
    EXPECT_TRUE(link.commandPending()) << "only the G1 waits";
    grbl("<Run|MPos:2.000,0.000,0.000|FS:100,0>\r\n");
    grbl(kRun);
    EXPECT_NE(log().find("G1 X10 F100\r\n!\r\n?\r\n~\r\n<Run|MPos:2.000,0.000,0.000|FS:100,0>\r\n"), npos)
        << "the report asked by the typed \"?\" is shown, and only that one:\n"
        << log();
    EXPECT_EQ(log().find("<Run|MPos:1.000"), npos) << log();
    grbl("ok\r\n");
    ASSERT_EQ(commands.size(), 1u);
    EXPECT_EQ(commands[0].reply, "ok");
}

// A line waits while the board reports a state in which no answer comes: given up after
// stuckMs, and the commands queued behind it are named as not sent. A report that says the
// machine works, or the command's own output, keeps it waiting.
TEST_F(ConsoleLinkTest, CommandWaitingWhileTheBoardReportsNoWorkIsGivenUpAndTheQueueNamed)
{
    const struct {
        const char* report;
        const char* state;
    } cases[] = {{kHold, "Hold:0"}, {kIdle, "Idle"}, {"<Alarm|MPos:0.000,0.000,0.000|FS:0,0>\r\n", "Alarm"}};
    connected();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.state);
        commands.clear();
        link.consoleCommand("G1 X10 F100");
        link.consoleCommand("$$");
        link.consoleCommand("$G");
        collect();
        EXPECT_EQ(takeWritten(), "G1 X10 F100\r");
        const std::int64_t sent = now;
        advanceTo(sent + 3 * kStuck, kRun);
        EXPECT_TRUE(commands.empty()) << "the machine works: the answer may still come";
        advanceTo(now + kStuck - 2 * kEvery, c.report);
        EXPECT_TRUE(commands.empty());
        advanceTo(now + 3 * kEvery, c.report);
        ASSERT_EQ(commands.size(), 3u);
        for (const auto& done : commands)
            EXPECT_EQ(done.reply, "");
        EXPECT_FALSE(link.commandPending());
        EXPECT_NE(log().find(std::string("No answer while Grbl reports ") + c.state +
                             " for 1 s (after \"!\" send \"~\"; after an alarm, \"$X\" or Ctrl-X): command given up: "
                             "\"G1 X10 F100\"\r\nNot sent: \"$$\"\r\nNot sent: \"$G\"\r\n"),
                  npos)
            << log();
        EXPECT_EQ(takeWritten(), "") << "nothing queued went out";
        grbl("ok\r\n");  // the late answer belongs to nobody
    }
    commands.clear();
    link.consoleCommand("$$");
    collect();
    EXPECT_EQ(takeWritten(), "$$\r");
    for (int i = 0; i < 20; ++i) {
        advanceTo(now + kStuck / 4, kIdle);
        grbl(std::string("$").append(std::to_string(i)).append("=1\r\n"));
    }
    EXPECT_TRUE(commands.empty()) << "a listing that goes on is an answer coming";
}

// The detection's "\r" went out before a late welcome text: its "ok" may come yet. A typed
// command waits until an "ok" or a status report tells, so that answers pair up.
TEST_F(ConsoleLinkTest, CommandsWaitForTheProbeOfALateWelcomeText)
{
    const struct {
        const char* first;
        const char* name;
    } cases[] = {{"ok\r\n", "the probe answered"}, {kIdle, "the probe lost in the boot"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        link.connexion_on(now);
        advanceTo(now + GrblLink::kDetectionWaitMs);
        EXPECT_EQ(takeWritten(), "\r");
        grbl(kBanner);
        link.consoleCommand("$$");
        collect();
        advanceTo(now + 50);
        EXPECT_EQ(takeWritten(), "") << "\"$$\" waits for the probe's fate";
        grbl(c.first);
        EXPECT_EQ(takeWritten(), "$$\r");
        grbl("$0=10\r\nok\r\n");
        ASSERT_FALSE(commands.empty());
        EXPECT_EQ(commands.back().reply, "ok");
        EXPECT_NE(log().find("$$\r\n$0=10 (Step pulse time)\r\nok"), npos) << log();
        commands.clear();
    }
}

TEST_F(ConsoleLinkTest, AnErrorToTheSettingsListCarriesItsMeaningNotASettingsLabel)
{
    connected();
    link.consoleCommand("$$");
    collect();
    grbl("error:8\r\n");
    EXPECT_NE(log().find("$$\r\nerror:8 ('$' command refused while the machine is not idle)\r\n"), npos) << log();
    EXPECT_EQ(log().find("Step pulse"), npos) << log();
}

TEST_F(ConsoleLinkTest, PortClosedNamesTheCommandsLeftUnanswered)
{
    connected();
    link.consoleCommand("$I");
    link.consoleCommand("$G");
    link.setPortOpen(false);
    collect();
    EXPECT_EQ(commands.size(), 2u);
    EXPECT_NE(log().find("Port closed: command not answered: \"$I\"\r\nNot sent: \"$G\"\r\n"), npos) << log();
}

JobProgram punchProgram()
{
    JobProgram p;
    p.lines = {"G0 X6 Y61.5", "G1 Z1", "G0 X10 Y31.5", "G1 Z-1"};
    p.fileName = "song.gcode";
    p.laser = false;
    p.songPath = "/tmp/song.mid";
    return p;
}

// Grbl answers "ok" when a line enters its planner: the job ends when the machine reports
// Idle (twice: the first may come before the last motion starts), and only then is the
// resume file done with.
TEST_F(ConsoleLinkTest, JobEndsWhenTheMachineIsIdleAfterItsLastLineAndDropsItsResumeFile)
{
    connected();
    ASSERT_TRUE(link.envoi_programme(punchProgram(), now));
    collect();
    EXPECT_EQ(takeWritten(), "\x18");
    EXPECT_TRUE(resumes.empty());
    grbl(kBanner);
    EXPECT_EQ(takeWritten(), "$I\r");
    grbl("[VER:1.1h.20190830:]\r\nok\r\n");
    for (int i = 0; i < 4; ++i) {
        takeWritten();
        grbl("ok\r\n");
    }
    advanceTo(now + 5 * kEvery, kRun);
    EXPECT_TRUE(ends.empty()) << "the planner still runs the last holes";
    EXPECT_TRUE(link.jobRunning());
    grbl(kIdle);
    grbl(kRun);
    grbl(kIdle);
    EXPECT_TRUE(ends.empty()) << "an Idle between two Run reports is no end";
    grbl(kIdle);
    ASSERT_EQ(ends.size(), 1u);
    EXPECT_EQ(ends[0].outcome, JobOutcome::EndOfPunch);
    ASSERT_EQ(finished.size(), 1u);
    EXPECT_EQ(finished[0].songPath, "/tmp/song.mid");
    EXPECT_NE(log().find("End of punch"), npos);
}

TEST_F(ConsoleLinkTest, AJobThatStopsWhileItsMachineRunsKeepsItsResumeFileAndBreaksTheLogLine)
{
    connected();
    link.setContinuePrompt(false);
    ASSERT_TRUE(link.envoi_programme(punchProgram(), now));
    collect();
    grbl(kBanner);
    grbl("[VER:1.1h.20190830:]\r\nok\r\n");
    grbl("ok\r\n");
    ASSERT_FALSE(resumes.empty());
    // The watchdog: no report while a line is in flight.
    advanceTo(now + 4000);
    ASSERT_TRUE(link.job().held());
    EXPECT_NE(log().find(">  G1 Z1\r\nThe controller is not answering"), npos) << "on a line of its own:\n" << log();
    EXPECT_EQ(log().find("Hit Continue"), npos) << "nobody to hit it";
    link.Stop_button_Click();
    collect();
    grbl(kBanner);
    grbl("ok\r\n");
    ASSERT_EQ(ends.size(), 1u);
    EXPECT_EQ(ends[0].outcome, JobOutcome::Cancelled);
    EXPECT_TRUE(finished.empty());
    EXPECT_TRUE(link.job().resumeWritten());
}

// A job refused at its start (laser mode off, or a board that is no Grbl) leaves the resume
// point of an earlier job where it was.
TEST_F(ConsoleLinkTest, AJobRefusedAtItsStartWritesNoResumePoint)
{
    connected();
    JobProgram laser = punchProgram();
    laser.laser = true;
    ASSERT_TRUE(link.envoi_programme(laser, now));
    collect();
    grbl(kBanner);
    grbl("[VER:1.1h.20190830:]\r\nok\r\n$32=0\r\nok\r\n");
    ASSERT_EQ(ends.size(), 1u);
    EXPECT_EQ(ends[0].outcome, JobOutcome::NotStarted);

    ASSERT_TRUE(link.envoi_programme(punchProgram(), now));
    collect();
    advanceTo(now + 6000);  // no welcome text
    ASSERT_EQ(ends.size(), 2u);
    EXPECT_EQ(ends[1].outcome, JobOutcome::NotStarted);
    EXPECT_TRUE(resumes.empty());
    EXPECT_FALSE(link.job().resumeWritten());
}

}  // namespace
}  // namespace veltrin
