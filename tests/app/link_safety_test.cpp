// The link's safety nets against a scripted controller on a test clock: status polling, the
// watchdog, limit alarms, the welcome text after a job's reset, the laser-mode and homing
// checks, and learned durations on an emulator. The clocks are shortened here.

#include <gtest/gtest.h>

#include "app/app_state.h"
#include "app/grbl_link.h"

namespace veltrin {
namespace {

constexpr const char* kBanner = "\r\nGrbl 1.1h ['$' for help]\r\n";
constexpr const char* kIdle = "<Idle|MPos:0.000,0.000,0.000|FS:0,0>\r\n";
constexpr auto npos = std::string::npos;

constexpr std::int64_t kEvery = 50;
constexpr std::int64_t kLost = 200;
constexpr std::int64_t kSilence = 500;
constexpr std::int64_t kBannerWait = 300;

class SafetyTest : public ::testing::Test {
protected:
    SafetyTest()
    {
        LinkTimings timings;
        timings.statusEveryMs = kEvery;
        timings.statusLostMs = kLost;
        timings.silenceMs = kSilence;
        timings.bannerWaitMs = kBannerWait;
        link.setTimings(timings);
        state.settings.VitesseF = "800";
        link.setPortOpen(true);
        link.connexion_on(now);
        grbl(kBanner);
        written.clear();
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
            else if (auto* e = std::get_if<JobEnded>(&action))
                ends.push_back(*e);
        }
    }
    void grbl(std::string_view bytes)
    {
        link.onBytes(bytes);
        collect();
    }
    // Moves the clock in 10 ms ticks; a board that answers "?" does so at once.
    void advanceTo(std::int64_t ms, bool answersStatus = false)
    {
        while (now < ms) {
            now = std::min(ms, now + 10);
            link.onTick(now);
            collect();
            if (answersStatus && takeStatusRequests() > 0)
                grbl(kIdle);
        }
    }
    // Removes the "?" written so far and counts them.
    int takeStatusRequests()
    {
        int n = 0;
        std::string rest;
        for (char c : written) {
            if (c == '?')
                ++n;
            else
                rest += c;
        }
        written = rest;
        return n;
    }
    std::string takeWritten()
    {
        takeStatusRequests();
        std::string out;
        out.swap(written);
        return out;
    }
    JobProgram program(std::vector<std::string> lines, bool laser = true)
    {
        JobProgram p;
        p.lines = std::move(lines);
        p.fileName = "song.gcode";
        p.laser = laser;
        p.songPath = "/tmp/song.mid";
        return p;
    }
    // Starts a job up to its checks: the reset and the welcome text.
    void startJob(JobProgram p)
    {
        ASSERT_TRUE(link.envoi_programme(std::move(p), now));
        collect();
        ASSERT_EQ(takeWritten(), "\x18");
        grbl(kBanner);
        ASSERT_EQ(takeWritten(), "$I\r");
    }
    const std::string& log() const { return state.user_msg_list.text(); }

    AppState state;
    GrblLink link{state};
    std::int64_t now = 1000;
    std::string written;
    std::vector<CommandDone> commands;
    std::vector<ResumePoint> resumes;
    std::vector<JobEnded> ends;
};

TEST_F(SafetyTest, PollsWithOneRequestOutstandingAndKeepsTheReportsOutOfTheLog)
{
    advanceTo(now + 10);
    EXPECT_EQ(takeStatusRequests(), 1) << "the first request goes at once";
    const std::int64_t asked = now;
    advanceTo(asked + kLost - 10);
    EXPECT_EQ(takeStatusRequests(), 0) << "unanswered: no second request before the first is lost";
    advanceTo(asked + kLost);
    EXPECT_EQ(takeStatusRequests(), 1) << "taken as lost, another goes";
    grbl(kIdle);
    advanceTo(now + kEvery);
    EXPECT_EQ(takeStatusRequests(), 1) << "answered: the next one a period later";

    const std::size_t logSize = log().size();
    advanceTo(now + 20 * kEvery, true);
    advanceTo(now + 10 * kEvery);
    EXPECT_EQ(log().size(), logSize) << "no status report in the log";
    ASSERT_TRUE(link.status().known);
    EXPECT_EQ(link.status().state, "Idle");

    // Work position plus the last work offset gives the machine position.
    grbl("<Run|WPos:10.000,20.000,0.000|FS:800,0|WCO:-195.000,5.000,0.000>\r\n");
    EXPECT_DOUBLE_EQ(link.status().machinePosition[0], -185.0);
    grbl("<Run|WPos:12.000,20.000,0.000|FS:800,0>\r\n");
    EXPECT_DOUBLE_EQ(link.status().machinePosition[0], -183.0);
    EXPECT_DOUBLE_EQ(link.status().machinePosition[1], 25.0);
    EXPECT_EQ(link.progressLine(), "Run X-183.000 Y25.000");

    // A "?" typed at the console shows its report; the "\r" after it answers "ok".
    ASSERT_TRUE(link.consoleCommand("?"));
    collect();
    grbl("<Idle|MPos:1.000,2.000,0.000|FS:0,0>\r\nok\r\n");
    EXPECT_NE(log().find("?\r\n<Idle|MPos:1.000,2.000,0.000|FS:0,0>\r\nok\r\n"), npos) << log();
}

TEST_F(SafetyTest, WatchdogGivesUpACommandOnlyWhenStatusReportsStop)
{
    // A long homing answered by status reports all along is left alone.
    link.homeX();
    collect();
    EXPECT_EQ(takeWritten(), "$HX\r");
    advanceTo(now + 4 * kSilence, true);
    EXPECT_TRUE(commands.empty());
    grbl("ok\r\n");
    ASSERT_EQ(commands.size(), 1u);

    // Then the controller falls silent: the command waiting and those queued are given up.
    link.jog('X', 50);
    link.jog('Y', 50);
    collect();
    EXPECT_EQ(takeWritten(), "$J=G91X50F800\r");
    const std::int64_t sent = now;
    advanceTo(sent + kSilence - 10);
    EXPECT_EQ(commands.size(), 1u);
    advanceTo(sent + kSilence);
    ASSERT_EQ(commands.size(), 3u);
    EXPECT_EQ(commands[1].reply, "");
    EXPECT_EQ(commands[2].command, "$J=G91Y50F800");
    EXPECT_FALSE(link.commandPending());
    EXPECT_EQ(takeWritten(), "") << "nothing more is sent";
    EXPECT_NE(log().find("The controller is not answering: no status report for 0.5 s, command given up: "
                         "\"$J=G91X50F800\"\r\n"),
              npos)
        << log();
    // Its answer, should it come after all, is not taken for the next command's.
    link.homeX();
    collect();
    grbl("ok\r\n");
    EXPECT_EQ(commands.size(), 3u);
    grbl("ok\r\n");
    EXPECT_EQ(commands.size(), 4u);
}

TEST_F(SafetyTest, WatchdogHoldsAStreamingJobAndWritesItsResumePoint)
{
    startJob(program({"G0 X1 Y1", "G1 X2 F800", "G1 Y2 F800"}, false));
    grbl("[VER:1.1h.20190830:]\r\nok\r\n");
    EXPECT_EQ(takeWritten(), "G0 X1 Y1\r");
    advanceTo(now + 2 * kSilence, true);
    EXPECT_FALSE(link.job().held()) << "a slow line with a live controller is no fault";
    grbl("ok\r\n");
    EXPECT_EQ(takeWritten(), "G1 X2 F800\r");
    const std::string progress = link.progressLine();
    EXPECT_TRUE(progress.starts_with("Idle X0.000 Y0.000  line 1 of 3  ")) << progress;
    EXPECT_TRUE(progress.ends_with(" left")) << progress;
    advanceTo(now + kSilence);
    ASSERT_TRUE(link.job().held());
    EXPECT_EQ(link.job().holdReason(), HoldReason::Silent);
    EXPECT_TRUE(state.en_pause);
    ASSERT_FALSE(resumes.empty());
    EXPECT_EQ(resumes.back().restartLine, 1);
    EXPECT_NE(log().find("The controller is not answering: no status report for 0.5 s. Punch held at line 2\r\n"
                         "Hit Continue to resume\r\n"),
              npos)
        << log();
    advanceTo(now + 4 * kSilence);
    EXPECT_EQ(link.job().holdCount(), 1) << "held once";
}

TEST_F(SafetyTest, AfterALimitAlarmNothingIsSentOrAwaitedUntilASoftReset)
{
    link.homeX();
    collect();
    takeWritten();
    grbl("ALARM:1\r\n[MSG:Reset to continue]\r\n");
    ASSERT_EQ(commands.size(), 1u);
    EXPECT_EQ(commands[0].reply, "");
    EXPECT_TRUE(link.controllerDeaf());
    EXPECT_NE(log().find("ALARM:1 (hard limit switch hit"), npos);
    EXPECT_NE(log().find("Grbl answers nothing after a limit alarm until a soft reset (Ctrl-X): given up: \"$HX\""),
              npos)
        << log();
    advanceTo(now + 3 * kSilence);
    EXPECT_EQ(written, "") << "no status request to a controller that cannot answer";
    link.jog('X', 10);
    collect();
    ASSERT_EQ(commands.size(), 2u) << "refused at once";
    EXPECT_EQ(written, "");

    link.softReset();
    collect();
    EXPECT_EQ(takeWritten(), "\x18");
    grbl(kBanner);
    EXPECT_FALSE(link.controllerDeaf());
    advanceTo(now + kEvery);
    EXPECT_EQ(takeStatusRequests(), 1) << "polling again";
}

TEST_F(SafetyTest, AJobWhoseResetBringsNoWelcomeTextDoesNotStart)
{
    ASSERT_TRUE(link.envoi_programme(program({"G0 X1 Y1"}), now));
    collect();
    EXPECT_EQ(takeWritten(), "\x18");
    // A board that answers "ok" to everything says nothing to a soft reset.
    const std::int64_t reset = now;
    advanceTo(reset + kBannerWait - 10);
    EXPECT_TRUE(ends.empty());
    advanceTo(reset + kBannerWait);
    ASSERT_EQ(ends.size(), 1u);
    EXPECT_EQ(ends[0].outcome, JobOutcome::NotStarted);
    EXPECT_EQ(takeWritten(), "") << "no program line left";
    EXPECT_NE(log().find("The board does not answer like Grbl: no welcome text within 0.3 s of its soft reset. "
                         "Punch not started\r\n"),
              npos)
        << log();
    EXPECT_FALSE(link.jobRunning());

    // A welcome text, then silence: the checks give up after the watchdog's time.
    startJob(program({"G0 X1 Y1"}));
    const std::int64_t checking = now;
    advanceTo(checking + kSilence + 10);  // the wait starts at the next tick
    ASSERT_EQ(ends.size(), 2u);
    EXPECT_EQ(ends[1].outcome, JobOutcome::NotStarted);
    EXPECT_NE(log().find("The controller is not answering: no status report for 0.5 s. Punch not started\r\n"), npos);
    EXPECT_EQ(takeWritten(), "");
}

TEST_F(SafetyTest, LaserJobNeedsLaserModeAndAPunchJobDoesNotAsk)
{
    const struct {
        bool laser;
        const char* settings;  // the answer to "$$", or nullptr when it is not asked
        bool starts;
        const char* message;
    } cases[] = {
        {true, "$31=0\r\n$32=1\r\n$100=250.000\r\nok\r\n", true, nullptr},
        {true, "$31=0\r\n$32=0\r\n$100=250.000\r\nok\r\n", false,
         "Laser mode is off ($32=0): Grbl would keep the beam on during G0 travel and burn lines across the roll. "
         "Send $32=1 to turn it on. Punch not started"},
        {true, "$31=0\r\n$100=250.000\r\nok\r\n", false, "Grbl listed no laser mode setting ($32)"},
        {true, "error:8\r\n", false,
         "Grbl did not list its settings (\"$$\" answered error:8 ('$' command refused while the machine is not idle))"},
        {false, nullptr, true, nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.settings ? c.settings : "punch");
        ends.clear();
        startJob(program({"G0 X1 Y1"}, c.laser));
        grbl("[VER:1.1h.20190830:]\r\n[OPT:V,15,128]\r\nok\r\n");
        if (c.settings) {
            ASSERT_EQ(takeWritten(), "$$\r");
            grbl(c.settings);
        }
        if (c.starts) {
            EXPECT_EQ(takeWritten(), "G0 X1 Y1\r");
            grbl("ok\r\n");
            grbl(kIdle);
            grbl(kIdle);
            ASSERT_EQ(ends.size(), 1u);
            EXPECT_EQ(ends[0].outcome, JobOutcome::EndOfPunch);
        } else {
            EXPECT_EQ(takeWritten(), "");
            ASSERT_EQ(ends.size(), 1u);
            EXPECT_EQ(ends[0].outcome, JobOutcome::NotStarted);
            EXPECT_NE(log().find(c.message), npos) << log();
        }
        EXPECT_EQ(log().find(" < $32="), npos) << "the checks' answers stay out of the log";
    }
}

TEST_F(SafetyTest, HeaderHomingRefusedHoldsWithTheRemedy)
{
    const struct {
        const char* reply;
        const char* message;
    } cases[] = {
        {"error:3\r\n", "This board's Grbl has no single-axis homing: \"$HX\" of the program's header was refused "
                        "(error:3). Turn the header off (Gen_entete=0) or flash a Grbl built with single-axis homing. "
                        "Punch held"},
        {"error:5\r\n", "Homing is disabled on this board ($22=0): \"$HX\" of the program's header was refused "
                        "(error:5). Enable it with $22=1 or turn the header off (Gen_entete=0). Punch held"},
        {"error:9\r\n", "Grbl refused line 2: error:9 (G-code locked out during an alarm or a jog). Punch held"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reply);
        startJob(program({";Punch gcode of the file : song", "$HX ;X origin search", "G92 X5 Y0 Z-1"}, false));
        grbl("ok\r\n");
        EXPECT_EQ(takeWritten(), "$HX\r");
        grbl(c.reply);
        ASSERT_TRUE(link.job().held());
        EXPECT_EQ(link.job().holdReason(), std::string_view(c.reply) == "error:9\r\n" ? HoldReason::Refused
                                                                                     : HoldReason::Homing);
        EXPECT_NE(log().find(c.message), npos) << log();
        link.Stop_button_Click();
        collect();
        grbl(kBanner);
        grbl("ok\r\n");
        EXPECT_FALSE(link.jobRunning());
        takeWritten();
    }
}

TEST_F(SafetyTest, AnEmulatorAtAnotherPaceLeavesTheLearnedDurationsAlone)
{
    const struct {
        const char* version;
        const char* learned;
    } cases[] = {
        {"[VER:1.1h.20190830:emulator x20]", "999"},
        {"[VER:1.1h.20190830:emulator x0]", "999"},
        {"[VER:1.1h.20190830:emulator x1]", "0.25"},  // real time: as good as a machine
        {"[VER:1.1h.20190830:]", "0.25"},
    };
    state.settings.Type_machine = "Poinçon";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.version);
        state.settings.duree_trou_poincon = "999";
        ends.clear();
        takeWritten();
        startJob(program({"G0 X6 Y1.5", "G1 Z1", "G0 X10 Y1.5", "G1 Z-1"}, false));
        grbl(std::string(c.version) + "\r\nok\r\n");
        for (int i = 0; i < 4; ++i) {
            advanceTo(now + 125, true);
            grbl("ok\r\n");
        }
        grbl(kIdle);
        grbl(kIdle);
        ASSERT_EQ(ends.size(), 1u);
        EXPECT_EQ(ends[0].outcome, JobOutcome::EndOfPunch);
        EXPECT_EQ(state.settings.duree_trou_poincon, c.learned);
        const bool left = std::string_view(c.learned) == "999";
        EXPECT_EQ(log().find("the learned durations stay as they were") != npos, left);
        state.user_msg_list.clear();
    }
}

}  // namespace
}  // namespace veltrin
