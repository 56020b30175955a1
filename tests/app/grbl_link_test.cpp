// The machine link's core against a scripted Grbl: the test plays the replies and the clock.

#include <gtest/gtest.h>

#include "app/app_state.h"
#include "app/grbl_link.h"

namespace veltrin {
namespace {

constexpr const char* kBanner = "\r\nGrbl 1.1h ['$' for help]\r\n";
constexpr auto npos = std::string::npos;
using Outcomes = std::vector<JobOutcome>;
constexpr auto kDone = JobOutcome::EndOfPunch;
constexpr auto kCancelled = JobOutcome::Cancelled;

JobProgram program(std::vector<std::string> lines)
{
    JobProgram p;
    p.lines = std::move(lines);
    p.fileName = "song.gcode";
    return p;
}

class FakeHost : public JobHost {
public:
    bool hasNextRoll() override { return rollsLeft > 0; }
    int rollGapMm() override { return 120; }
    std::optional<JobProgram> openNextRoll() override
    {
        --rollsLeft;
        ++opened;
        return program({"G0 X1 Y1"});
    }
    void askYesNo(std::string_view question, bool defaultYes, std::function<void(bool)> answer) override
    {
        questions.emplace_back(question);
        EXPECT_FALSE(defaultYes);
        pending = std::move(answer);
    }
    void showMessage(std::string_view text) override { messages.emplace_back(text); }
    void startBackwardFolds() override { ++folds; }

    int rollsLeft = 0;
    int opened = 0;
    int folds = 0;
    std::vector<std::string> questions;
    std::vector<std::string> messages;
    std::function<void(bool)> pending;
};

class LinkTest : public ::testing::Test {
protected:
    LinkTest()
    {
        remplir_glossaire(state.Liste_commentaires_grbl);
        state.settings.VitesseF = "800";
        state.settings.VitesseF_poin = "8000";
        // No status polling here: these cases play every byte of the controller by hand.
        LinkTimings timings;
        timings.statusEveryMs = 0;
        link.setTimings(timings);
    }

    void collect()
    {
        for (auto& action : link.takeActions()) {
            if (auto* w = std::get_if<WriteBytes>(&action))
                written += w->bytes;
            else if (auto* d = std::get_if<DetectionDone>(&action))
                detections.push_back(d->grblFound);
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
    void oks(int n)
    {
        for (int i = 0; i < n; ++i)
            grbl("ok\r\n");
    }
    void advanceTo(std::int64_t ms)
    {
        while (now < ms) {
            now = std::min(ms, now + 10);
            link.onTick(now);
            collect();
        }
    }
    void pause()
    {
        link.Pause_button_Click();
        collect();
    }
    void stop()
    {
        link.Stop_button_Click();
        collect();
    }
    std::string takeWritten()
    {
        std::string out;
        out.swap(written);
        return out;
    }
    void detect()
    {
        link.setPortOpen(true);
        link.connexion_on(now);
    }
    void connectWithBanner()
    {
        detect();
        grbl(kBanner);
        takeWritten();
    }
    // Starts a job and plays the welcome text that answers its soft reset.
    void startJob(JobProgram p)
    {
        const bool laser = p.laser;
        written.clear();
        ASSERT_TRUE(link.envoi_programme(std::move(p), now));
        collect();
        ASSERT_EQ(takeWritten(), "\x18");
        grbl(kBanner);
        passChecks(laser);
    }
    // The checks between the welcome text and the first line: "$I", and "$$" for a laser.
    void passChecks(bool laser, std::string_view version = "[VER:1.1h.20190830:]")
    {
        ASSERT_EQ(takeWritten(), "$I\r");
        grbl(std::string(version) + "\r\n[OPT:V,15,128]\r\nok\r\n");
        if (laser) {
            ASSERT_EQ(takeWritten(), "$$\r");
            grbl("$30=1000\r\n$31=0\r\n$32=1\r\n$100=250.000\r\nok\r\n");
        }
    }
    const std::string& log() const { return state.user_msg_list.text(); }
    Outcomes outcomes() const
    {
        Outcomes out;
        for (const auto& e : ends)
            out.push_back(e.outcome);
        return out;
    }

    AppState state;
    GrblLink link{state};
    std::int64_t now = 1000;
    std::string written;
    std::vector<bool> detections;
    std::vector<CommandDone> commands;
    std::vector<ResumePoint> resumes;
    std::vector<JobEnded> ends;
};

// --- detection (the welcome text and the silent port are in machine_link_test) ---

TEST_F(LinkTest, SilentBoardGetsOneCarriageReturnAfterTheFirstWaitThenItsOkDetectsGrbl)
{
    detect();
    advanceTo(3490);
    EXPECT_EQ(written, "");
    advanceTo(3500);
    EXPECT_EQ(takeWritten(), "\r");
    grbl("o");
    grbl("k\r\n");
    EXPECT_EQ(detections, std::vector<bool>{true});
    EXPECT_NE(log().find(" < ok\r\n"), npos);
    EXPECT_EQ(log().find("No Grbl"), npos);
}

TEST_F(LinkTest, MessageAnsweringTheProbeLeavesItsOkToNobody)
{
    detect();
    advanceTo(3500);
    grbl("[MSG:'$H'|'$X' to unlock]\r\n");
    EXPECT_EQ(detections, std::vector<bool>{true});
    link.envoi_commande("$X");
    collect();
    EXPECT_EQ(takeWritten(), "\r$X\r");
    grbl("ok\r\n");  // the probe's answer
    EXPECT_TRUE(commands.empty());
    grbl("[MSG:Caution: Unlocked]\r\nok\r\n");
    ASSERT_EQ(commands.size(), 1u);
    EXPECT_EQ(commands[0].reply, "ok");
}

TEST_F(LinkTest, PortClosedDuringDetectionEndsIt)
{
    detect();
    link.connexion_off();
    collect();
    EXPECT_EQ(detections, std::vector<bool>{false});
    EXPECT_FALSE(state.connecte);
}

// --- single commands ---

TEST_F(LinkTest, NothingLeavesWithoutAConnection)
{
    link.envoi_commande("$HX");
    EXPECT_FALSE(link.consoleCommand("$$"));
    EXPECT_FALSE(link.envoi_programme(program({"G0 X1 Y1"}), now));
    collect();
    EXPECT_EQ(written, "");
    EXPECT_NE(log().find("Machine not connected\r\nMachine not connected\r\n"), npos) << log();
}

TEST_F(LinkTest, CommandsWaitForTheResponseOfTheOneBefore)
{
    connectWithBanner();
    link.jog('X', 50);
    link.jog('Y', -50);
    collect();
    EXPECT_EQ(takeWritten(), "$J=G91X50F800\r");
    grbl("<Jog|MPos:1.000,0.000,0.000|FS:800,0>\r\nALARM:9\r\n[MSG:Pgm End]\r\n");
    EXPECT_EQ(written, "");
    EXPECT_TRUE(commands.empty());
    grbl("error:15\r\n");
    EXPECT_EQ(takeWritten(), "$J=G91Y-50F800\r");
    grbl("ok\r\n");
    ASSERT_EQ(commands.size(), 2u);
    EXPECT_EQ(commands[0].reply, "error:15");
    EXPECT_EQ(commands[1].reply, "ok");
    EXPECT_FALSE(link.commandPending());
    EXPECT_NE(log().find("$J=G91X50F800 < ALARM:9 (homing fail: no limit switch found within the search distance "
                         "(max travel $130, wiring))\r\n < [MSG:Pgm End]\r\n < error:15 (jog target beyond the "
                         "machine's travel: jog ignored)\r\n"),
              npos)
        << "status reports are not logged; errors and alarms carry their meaning";
    EXPECT_EQ(link.status().state, "Jog");
}

TEST_F(LinkTest, HomingRefusalIsExplainedAndARestartReleasesTheWaitingCommand)
{
    connectWithBanner();
    link.homeX();
    link.homeX();
    collect();
    grbl("error:3\r\n");
    EXPECT_NE(log().find("without single-axis homing ($HX); it may stay in Home: soft-reset it (Ctrl-X)"), npos);
    grbl(kBanner);
    EXPECT_EQ(takeWritten(), "$HX\r$HX\r");
    ASSERT_EQ(commands.size(), 2u);
    EXPECT_EQ(commands[0].reply, "error:3");
    EXPECT_EQ(commands[1].reply, "");
}

TEST_F(LinkTest, ToolTestAndPointerFollowTheMachineType)
{
    connectWithBanner();
    state.settings.Laser_power = "250";
    link.laserPointer();
    link.laserPointer();
    collect();
    oks(3);
    EXPECT_EQ(takeWritten(), "M03 S250\rG1 F1000\rG0 F1000 S0\r");
    EXPECT_FALSE(state.pointeur_laser);

    state.settings.Type_machine = "Poinçon";
    link.laserPointer();
    link.toolTest();
    collect();
    oks(3);
    EXPECT_EQ(takeWritten(), "M03 S1000\rG1 F1000\rG0 F1000 S0\r");
}

TEST_F(LinkTest, SettingsListIsAnnotatedByPositionEachTimeAcrossChunks)
{
    connectWithBanner();
    const std::string answer = "$0=10\r\n$1=25\r\nok\r\n";
    for (const char* command : {"$$", "$$", "$$ "}) {
        ASSERT_TRUE(link.consoleCommand(command));
        collect();
        EXPECT_EQ(takeWritten(), std::string(command) + "\r");
        for (std::size_t i = 0; i < answer.size(); i += 7)  // cuts lines anywhere, CR from LF too
            grbl(answer.substr(i, 7));
    }
    ASSERT_EQ(commands.size(), 3u);
    const std::string annotated = "$$\r\n$0=10 (Step pulse time)\r\n$1=25 (Step idle delay)\r\nok (Step pulse invert";
    const auto first = log().find(annotated);
    ASSERT_NE(first, npos) << log();
    EXPECT_NE(log().find(annotated, first + 1), npos) << "the second list is annotated from its start";
    EXPECT_NE(log().find("$$ \r\n$0=10\r\n$1=25\r\nok\r\n"), npos) << "\"$$ \" is not \"$$\"";
}

// --- job ---

TEST_F(LinkTest, JobResetsThenSendsOneLineAtATimeWithoutComments)
{
    connectWithBanner();
    ASSERT_TRUE(link.envoi_programme(program({";Laser gcode of the file : x", "$HX ;X origin search",
                                              "G92 X5 Y0 Z-1", "G0 X6.3 Y1.2", "G0 M5 S0"}),
                                     now));
    collect();
    EXPECT_EQ(takeWritten(), "\x18");
    grbl("ok\r\n<Idle|MPos:0.000,0.000,0.000|FS:0,0>\r\n");
    EXPECT_EQ(written, "") << "nothing leaves before the welcome text";
    grbl(kBanner);
    passChecks(true);
    EXPECT_EQ(takeWritten(), "$HX\r");
    grbl("[MSG:Caution: Unlocked]\r\n<Home|MPos:0.000,0.000,0.000|FS:0,0>\r\n");
    EXPECT_EQ(written, "");
    grbl("ok\r\n");
    EXPECT_EQ(takeWritten(), "G92 X5 Y0 Z-1\r");
    oks(2);
    EXPECT_EQ(takeWritten(), "G0 X6.3 Y1.2\rG0 M5 S0\r");
    EXPECT_TRUE(ends.empty());
    grbl("ok\r\n");
    EXPECT_EQ(outcomes(), Outcomes{kDone});
    EXPECT_EQ(link.job().okCount(), 4u);
    EXPECT_NE(log().find("Sending file : song.gcode\r\n"), npos);
    EXPECT_NE(log().find(">  ;Laser gcode of the file : x\r\n>  $HX ;X origin search  < [MSG:Caution: Unlocked]"), npos);
    EXPECT_NE(log().find(">  G0 M5 S0  < ok\r\n\r\nEnd of punch\r\n"), npos);
    EXPECT_EQ(state.gauge1_max, 5);
    EXPECT_EQ(state.gauge1_value, 5);
}

TEST_F(LinkTest, JobStartedWhileACommandWaitsTakesOverTheLine)
{
    connectWithBanner();
    link.envoi_commande("G4 P10");
    link.envoi_commande("$J=G91X1F800");
    collect();
    startJob(program({"G0 X1 Y1"}));
    ASSERT_EQ(commands.size(), 1u);
    EXPECT_EQ(commands[0].reply, "");
    EXPECT_EQ(takeWritten(), "G0 X1 Y1\r");
    grbl("ok\r\n");
    EXPECT_EQ(outcomes(), Outcomes{kDone});
    EXPECT_EQ(takeWritten(), "$J=G91X1F800\r") << "the queued command goes once the job is over";

    startJob(program({}));
    EXPECT_EQ(outcomes(), (Outcomes{kDone, kDone})) << "a program without lines ends after the reset";
}

TEST_F(LinkTest, PauseHoldsAtOnceAndResumeWaitsForTheLineInFlight)
{
    connectWithBanner();
    startJob(program({"G0 X1 Y1", "G1 X2 F800", "G1 Y2 F800", "G1 X3 F800"}));
    EXPECT_EQ(takeWritten(), "G0 X1 Y1\r");
    pause();
    EXPECT_TRUE(state.en_pause);
    EXPECT_EQ(takeWritten(), "!");
    EXPECT_NE(log().find("Hit Continue to resume\r\n"), npos);
    grbl("<Hold:0|MPos:1.000,1.000,0.000|FS:0,0>\r\nok\r\n");
    advanceTo(5000);
    EXPECT_EQ(written, "");
    EXPECT_EQ(link.job().progress(), 1u);
    pause();
    EXPECT_FALSE(state.en_pause);
    EXPECT_EQ(takeWritten(), "~G1 X2 F800\r");
    pause();
    pause();
    EXPECT_EQ(takeWritten(), "!~");
    grbl("ok\r\n");
    EXPECT_EQ(takeWritten(), "G1 Y2 F800\r");
}

TEST_F(LinkTest, ErrorHoldsUntilResumedAndStopResetsThenSendsM5)
{
    connectWithBanner();
    startJob(program({"G0 X1 Y1", "G5 X2", "G1 Y2 F800", "G1 X3 F800"}));
    grbl("ok\r\n");
    EXPECT_EQ(takeWritten(), "G0 X1 Y1\rG5 X2\r");
    grbl("error:20\r\n");
    advanceTo(now + 3000);
    EXPECT_EQ(written, "");
    EXPECT_TRUE(link.job().held());
    EXPECT_TRUE(state.en_pause);
    EXPECT_NE(log().find("Grbl refused line 2: error:20 (unsupported or invalid G-code command). Punch held\r\n"
                         "Hit Continue to resume\r\n"),
              npos);
    EXPECT_EQ(link.job().holdReason(), HoldReason::Refused);
    pause();
    EXPECT_EQ(takeWritten(), "~G1 Y2 F800\r");
    stop();
    EXPECT_TRUE(state.arret_demande);
    EXPECT_EQ(takeWritten(), "\x18");
    grbl("ALARM:3\r\n");
    grbl(kBanner);
    EXPECT_EQ(takeWritten(), "M5\r");
    grbl("error:9\r\n");
    EXPECT_EQ(outcomes(), Outcomes{kCancelled});
    EXPECT_NE(log().find("M5 < error:9\r\nPunch cancelled\r\n"), npos);
    EXPECT_EQ(log().find("End of punch"), npos);
    EXPECT_FALSE(link.jobRunning());
    EXPECT_EQ(link.job().okCount(), 1u);
}

TEST_F(LinkTest, StopEndsAgainstASilentControllerAndTheLateM5AnswerBelongsToNobody)
{
    connectWithBanner();
    startJob(program({"G0 X1 Y1", "G1 X2 F800"}));
    pause();
    stop();
    EXPECT_FALSE(state.en_pause);
    EXPECT_EQ(takeWritten(), "G0 X1 Y1\r!\x18");
    advanceTo(now + JobStreamer::kStopBannerWaitMs + 20);
    EXPECT_EQ(takeWritten(), "M5\r");
    EXPECT_TRUE(ends.empty());
    advanceTo(now + JobStreamer::kStopBannerWaitMs + 20);
    EXPECT_EQ(outcomes(), Outcomes{kCancelled});
    link.homeX();
    collect();
    grbl("ok\r\n");
    EXPECT_TRUE(commands.empty());
    grbl("ok\r\n");
    ASSERT_EQ(commands.size(), 1u);
}

TEST_F(LinkTest, AlarmOrRestartMidJobHoldsAndResumeResendsTheLostLineButNotAfterALimitAlarm)
{
    connectWithBanner();
    startJob(program({"G0 X1 Y1", "G1 X2 F800", "G1 Y2 F800"}));
    grbl("ALARM:9\r\n");
    EXPECT_EQ(link.job().holdReason(), HoldReason::Alarm);
    grbl("ok\r\n");  // the line in flight is still answered, but nothing follows it
    EXPECT_EQ(takeWritten(), "G0 X1 Y1\r");
    EXPECT_NE(log().find("Grbl alarm: ALARM:9 (homing fail: no limit switch found"), npos) << log();
    pause();
    EXPECT_EQ(takeWritten(), "~G1 X2 F800\r");

    // A hard limit: Grbl hears nothing but a soft reset, so Continue cannot work.
    grbl("ALARM:1\r\n[MSG:Reset to continue]\r\n");
    EXPECT_EQ(link.job().holdReason(), HoldReason::CriticalAlarm);
    EXPECT_TRUE(link.controllerDeaf());
    EXPECT_NE(log().find("ALARM:1 (hard limit switch hit"), npos);
    EXPECT_NE(log().find("Grbl answers nothing now until a soft reset: Stop the job"), npos);
    pause();
    EXPECT_EQ(written, "");
    EXPECT_TRUE(link.job().held());
    EXPECT_NE(log().find("only Stop ends this hold"), npos);

    grbl(kBanner);
    EXPECT_FALSE(link.controllerDeaf());
    EXPECT_EQ(link.job().holdReason(), HoldReason::Restarted);
    EXPECT_NE(log().find("Grbl restarted during the job: punch held at line 2"), npos);
    pause();
    EXPECT_EQ(takeWritten(), "~G1 X2 F800\r");
    EXPECT_EQ(link.job().holdCount(), 3);
}

TEST_F(LinkTest, SimulationShowsALineEvery50MsPausesAndWritesNothing)
{
    state.mode_simulation = true;
    std::vector<std::string> lines;
    for (int i = 0; i < 10; ++i)
        lines.push_back("G0 X" + std::to_string(i) + " Y1");
    const std::int64_t start = now;
    ASSERT_TRUE(link.envoi_programme(program(lines), now));
    collect();
    advanceTo(start + 220);
    EXPECT_EQ(link.job().progress(), 5u);
    EXPECT_EQ(state.Text2, "00:00:00");
    advanceTo(start + 490);
    EXPECT_TRUE(ends.empty());
    advanceTo(start + 500);
    ASSERT_EQ(ends.size(), 1u);
    EXPECT_FALSE(ends[0].measuredDuration.has_value());
    EXPECT_NE(log().find(">  G0 X9 Y1\r\n\r\nEnd of punch\r\n"), npos);
    EXPECT_EQ(state.settings.duree_metre_laser, "999");

    ASSERT_TRUE(link.envoi_programme(program(lines), now));
    advanceTo(now + 60);
    pause();
    advanceTo(now + 1000);
    EXPECT_EQ(link.job().progress(), 2u);
    stop();
    EXPECT_EQ(outcomes(), (Outcomes{kDone, kCancelled}));
    EXPECT_EQ(written, "");
}

TEST_F(LinkTest, LearnedDurationReplaces999ThenAveragesAndLaserHolesRestartAtTheirCorner)
{
    connectWithBanner();
    // 10 mm of travel from (0, 0) then a 5 x 10 mm rectangle: 40 mm in all.
    const std::vector<std::string> lines = {"G0 X6 Y8", "G1 X11 F800", "G1 Y18 F800", "G1 X6 F800", "G1 Y8 F800"};
    JobProgram laser = program(lines);
    laser.songPath = "/tmp/song.mid";
    for (const int msPerLine : {2000, 1000}) {
        startJob(laser);
        for (std::size_t i = 0; i < lines.size(); ++i) {
            advanceTo(now + msPerLine);
            grbl("ok\r\n");
        }
    }
    ASSERT_EQ(ends.size(), 2u);
    EXPECT_DOUBLE_EQ(*ends[0].measuredDuration, 10.0 / 40.0);
    EXPECT_DOUBLE_EQ(*ends[1].measuredDuration, 5.0 / 40.0);
    EXPECT_EQ(state.settings.duree_metre_laser, "0.1875");
    EXPECT_DOUBLE_EQ(resumes.front().restartMs, 133) << "a laser hole starts at its corner: Y 8 mm at 60 mm/s";

    // A punch job measures seconds per strike.
    state.settings.Type_machine = "Poinçon";
    JobProgram punch = program({"G0 X6 Y1.5", "G1 Z1", "G0 X10 Y1.5", "G1 Z-1"});
    punch.laser = false;
    startJob(punch);
    for (int i = 0; i < 4; ++i) {
        advanceTo(now + 500);
        grbl("ok\r\n");
    }
    EXPECT_DOUBLE_EQ(*ends[2].measuredDuration, 1.0);
    EXPECT_EQ(state.settings.duree_trou_poincon, "1");
}

TEST_F(LinkTest, RemainingTimeFromTheEstimateThenFromThePaceAndLogTrimmed)
{
    connectWithBanner();
    JobProgram p = program(std::vector<std::string>(400, "G1 X12.345 Y67.890 F800 ;a long comment for the log"));
    p.estimatedSeconds = 3600;
    startJob(p);
    EXPECT_EQ(state.Text2, "01:00:00");
    for (int i = 0; i < 200; ++i) {
        advanceTo(now + 25);
        grbl("ok\r\n");
    }
    EXPECT_EQ(state.Text2, "00:00:05") << "200 lines in 5 s: 200 more take 5 s";
    oks(200);
    ASSERT_EQ(ends.size(), 1u);
    EXPECT_LE(log().size(), JobStreamer::kLogLimit + 100);
}

TEST_F(LinkTest, ResumePointFollowsTheAcknowledgedHoles)
{
    connectWithBanner();
    // Punch at 60 mm/s with a 3 mm strike: a hole starting at t ms is struck at
    // Y = 0.06 t + 1.5. Holes in travel order: 1000 ms, 500 ms, 2000 ms.
    JobProgram p = program({";Punch gcode of the file : song", "M3 S1000 F8000", "G0 X6 Y61.5", "G1 Z1",
                            "G0 X10 Y31.5", "G1 Z-1", "G0 X14 Y121.5", "G1 Z1", "G0 M5 S0"});
    p.laser = false;
    p.songPath = "/tmp/song.mid";
    startJob(p);
    EXPECT_TRUE(resumes.empty()) << "nothing of this job acknowledged yet: an earlier resume point stays";
    grbl("ok\r\n");
    ASSERT_FALSE(resumes.empty()) << "the first acknowledged line writes at once";
    EXPECT_EQ(resumes.back().restartLine, 2);
    EXPECT_DOUBLE_EQ(resumes.back().restartMs, 500);
    // "M3" to the second hole's "G0" acknowledged: the second hole is half made.
    oks(3);
    advanceTo(now + JobStreamer::kResumeEveryMs);
    EXPECT_EQ(resumes.back().restartLine, 5);
    EXPECT_DOUBLE_EQ(resumes.back().restartMs, 500);
    grbl("ok\r\n");
    advanceTo(now + JobStreamer::kResumeEveryMs);
    EXPECT_EQ(resumes.back().restartLine, 6);
    EXPECT_DOUBLE_EQ(resumes.back().restartMs, 500) << "acknowledged, but maybe still in the planner";
    // Idle after a report that came once both holes were acknowledged: they are cut.
    grbl("<Run|MPos:10.000,31.500,0.000|FS:8000,0>\r\n<Idle|MPos:10.000,31.500,0.000|FS:0,0>\r\n");
    advanceTo(now + JobStreamer::kResumeEveryMs);
    EXPECT_DOUBLE_EQ(resumes.back().restartMs, 2000);
    grbl("error:9\r\n");
    EXPECT_EQ(resumes.back().restartLine, 7) << "a hold writes at once";
    link.connexion_off();
    collect();
    EXPECT_EQ(outcomes(), Outcomes{JobOutcome::PortLost});
    EXPECT_NE(log().find("Port closed: punch interrupted at line 8"), npos);
}

// --- next roll and folds (the second roll's lines are in machine_link_test) ---

TEST_F(LinkTest, NextRollJogsTheRollGapThenWaitsBeforeTheNextSong)
{
    FakeHost host;
    host.rollsLeft = 1;
    link.setHost(&host);
    connectWithBanner();
    startJob(program({"G0 X1 Y1"}));
    grbl("ok\r\n");
    EXPECT_EQ(takeWritten(), "G0 X1 Y1\r$J=G91Y120F800\r");
    EXPECT_TRUE(link.jobRunning());
    const std::int64_t answered = now;
    grbl("ok\r\n");
    advanceTo(answered + GrblLink::kNextRollPauseMs - 10);
    EXPECT_EQ(host.opened, 0);
    advanceTo(answered + GrblLink::kNextRollPauseMs);
    EXPECT_EQ(host.opened, 1);
    EXPECT_EQ(takeWritten(), "\x18");
    link.setHost(nullptr);
}

TEST_F(LinkTest, FoldQuestionAfterALaserJobNeedsAFoldLength)
{
    connectWithBanner();
    const struct { const char* machine; double foldLength; bool yes; std::size_t questions; const char* message; int folds; } cases[] = {
        {"Laser", 0, true, 1, "Folds length not defined", 0},
        {"Laser", 160, false, 1, nullptr, 0},
        {"Laser", 160, true, 1, nullptr, 1},
        {"Poinçon", 160, true, 0, nullptr, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.machine) + " fold " + std::to_string(c.foldLength) + (c.yes ? " yes" : " no"));
        FakeHost host;
        link.setHost(&host);
        state.settings.Type_machine = c.machine;
        state.scale.longueur_pli = c.foldLength;
        startJob(program({"G0 X1 Y1"}));
        grbl("ok\r\n");
        EXPECT_EQ(host.questions.size(), c.questions);
        if (host.pending)
            host.pending(c.yes);
        EXPECT_EQ(host.messages, c.message ? std::vector<std::string>{c.message} : std::vector<std::string>{});
        EXPECT_EQ(host.folds, c.folds);
        link.setHost(nullptr);
    }
}

}  // namespace
}  // namespace veltrin
