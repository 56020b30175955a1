// The machine link's core against a scripted Grbl: the test plays the controller's replies and
// the clock, and reads back every byte the link asked to write.

#include <gtest/gtest.h>

#include "app/app_state.h"
#include "machine/grbl_link.h"

namespace veltrin {
namespace {

constexpr const char* kBanner = "\r\nGrbl 1.1h ['$' for help]\r\n";

class LinkTest : public ::testing::Test {
protected:
    LinkTest()
    {
        remplir_glossaire(state.Liste_commentaires_grbl);
        state.settings.VitesseF = "800";
        state.settings.VitesseF_poin = "8000";
    }

    // Runs the link's actions: bytes are recorded, the rest kept for inspection.
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
    void advanceTo(std::int64_t ms)
    {
        while (now < ms) {
            now = std::min(ms, now + 10);
            link.onTick(now);
            collect();
        }
    }
    std::string takeWritten()
    {
        std::string out;
        out.swap(written);
        return out;
    }
    void connectWithBanner()
    {
        link.setPortOpen(true);
        link.connexion_on(now);
        grbl(kBanner);
        takeWritten();
    }
    // Starts a job and plays the welcome text that answers its soft reset.
    void startJob(JobProgram program)
    {
        written.clear();
        ASSERT_TRUE(link.envoi_programme(std::move(program), now));
        collect();
        ASSERT_EQ(takeWritten(), "\x18");
        grbl(kBanner);
    }
    const std::string& log() const { return state.user_msg_list.text(); }

    AppState state;
    GrblLink link{state};
    std::int64_t now = 1000;
    std::string written;
    std::vector<bool> detections;
    std::vector<CommandDone> commands;
    std::vector<ResumePoint> resumes;
    std::vector<JobEnded> ends;
};

JobProgram program(std::vector<std::string> lines)
{
    JobProgram p;
    p.lines = std::move(lines);
    p.fileName = "song.gcode";
    return p;
}

// --- detection ---

TEST_F(LinkTest, WelcomeTextWithinTheFirstWaitIsAcceptedWithoutSendingAnything)
{
    link.setPortOpen(true);
    link.connexion_on(now);
    advanceTo(2400);
    grbl("\r\nGrbl 1.1h ['$' for h");
    EXPECT_TRUE(detections.empty());
    grbl("elp]\r\n[MSG:'$H'|'$X' to unlock]\r\n");
    EXPECT_EQ(detections, std::vector<bool>{true});
    EXPECT_EQ(written, "");
    EXPECT_TRUE(state.connecte);
    EXPECT_TRUE(state.ouvre_midi_actif);
    EXPECT_NE(log().find("Grbl 1.1h ['$' for help]\r\n < [MSG:'$H'|'$X' to unlock]\r\n"), std::string::npos);
    advanceTo(10000);
    EXPECT_EQ(written, "");
}

TEST_F(LinkTest, SilentBoardGetsOneCarriageReturnThenAnOk)
{
    link.setPortOpen(true);
    link.connexion_on(now);
    advanceTo(3490);
    EXPECT_EQ(written, "");
    advanceTo(3500);
    EXPECT_EQ(takeWritten(), "\r");
    grbl("o");
    grbl("k\r\n");
    EXPECT_EQ(detections, std::vector<bool>{true});
    EXPECT_NE(log().find(" < ok\r\n"), std::string::npos);
    EXPECT_EQ(log().find("No Grbl"), std::string::npos);
}

TEST_F(LinkTest, NoAnswerAtAllSaysNoGrblButStillCountsAsConnected)
{
    link.setPortOpen(true);
    link.connexion_on(now);
    advanceTo(6000);
    EXPECT_EQ(written, "\r");
    EXPECT_EQ(detections, std::vector<bool>{false});
    EXPECT_NE(log().find("No Grbl on this board\r\n"), std::string::npos);
    EXPECT_TRUE(state.connecte);
    EXPECT_FALSE(state.ouvre_midi_actif);
}

TEST_F(LinkTest, MessageAnsweringTheProbeLeavesItsOkToNobody)
{
    link.setPortOpen(true);
    link.connexion_on(now);
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
    link.setPortOpen(true);
    link.connexion_on(now);
    link.connexion_off();
    collect();
    EXPECT_EQ(detections, std::vector<bool>{false});
    EXPECT_FALSE(state.connecte);
}

// --- single commands ---

TEST_F(LinkTest, CommandsWaitForTheResponseOfTheOneBefore)
{
    connectWithBanner();
    link.jog('X', 50);
    link.jog('Y', -50);
    collect();
    EXPECT_EQ(takeWritten(), "$J=G91X50F800\r");
    grbl("<Jog|MPos:1.000,0.000,0.000|FS:800,0>\r\nALARM:2\r\n[MSG:Reset to continue]\r\n");
    EXPECT_EQ(written, "");
    EXPECT_TRUE(commands.empty());
    grbl("error:15\r\n");
    EXPECT_EQ(takeWritten(), "$J=G91Y-50F800\r");
    grbl("ok\r\n");
    ASSERT_EQ(commands.size(), 2u);
    EXPECT_EQ(commands[0].reply, "error:15");
    EXPECT_EQ(commands[1].reply, "ok");
    EXPECT_FALSE(link.commandPending());
    EXPECT_NE(log().find("$J=G91X50F800 < <Jog|MPos:1.000,0.000,0.000|FS:800,0>\r\n < ALARM:2\r\n"),
              std::string::npos);
}

TEST_F(LinkTest, ClosedPortSendsNothingAndTheConsoleSaysSo)
{
    link.envoi_commande("$HX");
    EXPECT_FALSE(link.consoleCommand("$$"));
    collect();
    EXPECT_EQ(written, "");
    EXPECT_NE(log().find("Machine not connected"), std::string::npos);
}

TEST_F(LinkTest, RestartWhileACommandWaitsReleasesIt)
{
    connectWithBanner();
    link.homeX();
    collect();
    grbl(kBanner);
    ASSERT_EQ(commands.size(), 1u);
    EXPECT_EQ(commands[0].reply, "");
}

TEST_F(LinkTest, HomingRefusedByAStockFirmwareIsExplained)
{
    connectWithBanner();
    link.homeX();
    collect();
    grbl("error:3\r\n");
    EXPECT_NE(log().find("without single-axis homing"), std::string::npos);
}

TEST_F(LinkTest, ToolTestAndPointerFollowTheMachineType)
{
    connectWithBanner();
    state.settings.Laser_power = "250";
    link.laserPointer();
    link.laserPointer();
    collect();
    for (int i = 0; i < 3; ++i)
        grbl("ok\r\n");
    EXPECT_EQ(takeWritten(), "M03 S250\rG1 F1000\rG0 F1000 S0\r");
    EXPECT_FALSE(state.pointeur_laser);

    state.settings.Type_machine = "Poinçon";
    link.laserPointer();
    link.toolTest();
    collect();
    for (int i = 0; i < 3; ++i)
        grbl("ok\r\n");
    EXPECT_EQ(takeWritten(), "M03 S1000\rG1 F1000\rG0 F1000 S0\r");
}

TEST_F(LinkTest, SettingsListIsAnnotatedByPositionAcrossChunks)
{
    connectWithBanner();
    ASSERT_TRUE(link.consoleCommand("$$"));
    collect();
    EXPECT_EQ(takeWritten(), "$$\r");
    std::string answer;
    const char* values[] = {"$0=10", "$1=25", "$2=0", "$3=0", "$4=0", "$5=0", "$6=0", "$10=1",
                            "$11=0.010", "$12=0.002", "$13=0", "$20=0", "$21=0", "$22=0", "$23=0",
                            "$24=25.000", "$25=500.000", "$26=250", "$27=1.000", "$30=1000", "$31=0",
                            "$32=0", "$100=250.000", "$101=250.000", "$102=250.000", "$110=500.000",
                            "$111=500.000", "$112=500.000", "$120=10.000", "$121=10.000",
                            "$122=10.000", "$130=200.000", "$131=200.000", "$132=200.000"};
    for (const char* v : values)
        answer += std::string(v) + "\r\n";
    answer += "ok\r\n";
    // Chunks of 7 bytes cut lines anywhere, "\r" and "\n" apart included.
    for (std::size_t i = 0; i < answer.size(); i += 7)
        grbl(answer.substr(i, 7));
    ASSERT_EQ(commands.size(), 1u);
    EXPECT_NE(log().find("$$\r\n$0=10 (Step pulse time)\r\n$1=25 (Step idle delay)\r\n"), std::string::npos);
    EXPECT_NE(log().find("$32=0 (Laser mode enable)\r\n"), std::string::npos);
    EXPECT_NE(log().find("$132=200.000 (Z-axis max. travel)\r\nok \r\n"), std::string::npos);

    // "$$ " is not "$$": shown as it comes.
    link.consoleCommand("$$ ");
    collect();
    grbl("$0=10\r\nok\r\n");
    EXPECT_NE(log().find("$$ \r\n$0=10\r\nok\r\n"), std::string::npos);
}

TEST_F(LinkTest, LongerSettingsListGetsNothingPastTheGlossary)
{
    connectWithBanner();
    link.consoleCommand("$$");
    collect();
    for (int i = 0; i < 40; ++i) {
        std::string line = std::to_string(200 + i);
        line.insert(line.begin(), '$');
        line += "=1\r\n";
        grbl(line);
    }
    grbl("ok\r\n");
    EXPECT_NE(log().find("$234=1 \r\n$235=1\r\n"), std::string::npos);
    EXPECT_NE(log().find("$239=1\r\nok\r\n"), std::string::npos);
}

// --- job ---

TEST_F(LinkTest, JobNeedsAConnectionUnlessSimulated)
{
    EXPECT_FALSE(link.envoi_programme(program({"G0 X1 Y1"}), now));
    EXPECT_NE(log().find("Machine not connected\r\n"), std::string::npos);
    collect();
    EXPECT_EQ(written, "");
}

TEST_F(LinkTest, JobSendsOneLineAtATimeWithoutComments)
{
    connectWithBanner();
    ASSERT_TRUE(link.envoi_programme(program({";Laser gcode of the file : x", "$HX ;X origin search",
                                              "G92 X5 Y0 Z-1", "G0 X6.3 Y1.2", "G0 M5 S0"}),
                                     now));
    collect();
    EXPECT_EQ(takeWritten(), "\x18");
    // Nothing leaves before the welcome text, whatever else arrives.
    grbl("ok\r\n<Idle|MPos:0.000,0.000,0.000|FS:0,0>\r\n");
    EXPECT_EQ(written, "");
    grbl(kBanner);
    EXPECT_EQ(takeWritten(), "$HX\r");
    grbl("[MSG:Caution: Unlocked]\r\n<Home|MPos:0.000,0.000,0.000|FS:0,0>\r\n");
    EXPECT_EQ(written, "");
    grbl("ok\r\n");
    EXPECT_EQ(takeWritten(), "G92 X5 Y0 Z-1\r");
    grbl("o");
    EXPECT_EQ(written, "");
    grbl("k\r\n");
    EXPECT_EQ(takeWritten(), "G0 X6.3 Y1.2\r");
    grbl("ok\r\n");
    EXPECT_EQ(takeWritten(), "G0 M5 S0\r");
    EXPECT_TRUE(ends.empty());
    grbl("ok\r\n");
    ASSERT_EQ(ends.size(), 1u);
    EXPECT_EQ(ends[0].outcome, JobOutcome::EndOfPunch);
    EXPECT_EQ(link.job().okCount(), 4u);
    EXPECT_NE(log().find("Sending file : song.gcode\r\n"), std::string::npos);
    EXPECT_NE(log().find(">  ;Laser gcode of the file : x\r\n>  $HX ;X origin search  < [MSG:Caution: Unlocked]"),
              std::string::npos);
    EXPECT_NE(log().find(">  G0 X6.3 Y1.2  < ok\r\n"), std::string::npos);
    EXPECT_NE(log().find("  < ok\r\n\r\nEnd of punch\r\n"), std::string::npos);
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
    ASSERT_EQ(ends.size(), 1u);
    // The queued command goes once the job is over.
    EXPECT_EQ(takeWritten(), "$J=G91X1F800\r");
}

TEST_F(LinkTest, ZeroLineProgramEndsAfterTheReset)
{
    connectWithBanner();
    startJob(program({}));
    ASSERT_EQ(ends.size(), 1u);
    EXPECT_EQ(ends[0].outcome, JobOutcome::EndOfPunch);
}

TEST_F(LinkTest, PauseWithALineInFlightHoldsAtOnceAndSendsNothingMore)
{
    connectWithBanner();
    startJob(program({"G0 X1 Y1", "G1 X2 F800", "G1 Y2 F800"}));
    EXPECT_EQ(takeWritten(), "G0 X1 Y1\r");
    link.Pause_button_Click();
    collect();
    EXPECT_TRUE(state.en_pause);
    EXPECT_EQ(takeWritten(), "!");
    EXPECT_NE(log().find("Hit Continue to resume\r\n"), std::string::npos);
    grbl("<Hold:0|MPos:1.000,1.000,0.000|FS:0,0>\r\n");
    grbl("ok\r\n");  // the line in flight may still be answered during the hold
    advanceTo(5000);
    EXPECT_EQ(written, "");
    EXPECT_EQ(link.job().progress(), 1u);
    link.Pause_button_Click();
    collect();
    EXPECT_FALSE(state.en_pause);
    EXPECT_EQ(takeWritten(), "~G1 X2 F800\r");
}

TEST_F(LinkTest, ResumeBeforeTheLineInFlightIsAnsweredWaitsForIt)
{
    connectWithBanner();
    startJob(program({"G0 X1 Y1", "G1 X2 F800"}));
    link.Pause_button_Click();
    link.Pause_button_Click();
    collect();
    EXPECT_EQ(takeWritten(), "G0 X1 Y1\r!~");
    grbl("ok\r\n");
    EXPECT_EQ(takeWritten(), "G1 X2 F800\r");
}

TEST_F(LinkTest, StopResetsTheMachineThenSendsM5)
{
    connectWithBanner();
    startJob(program({"G0 X1 Y1", "G1 X2 F800", "G1 Y2 F800"}));
    EXPECT_EQ(takeWritten(), "G0 X1 Y1\r");
    link.Stop_button_Click();
    collect();
    EXPECT_TRUE(state.arret_demande);
    EXPECT_EQ(takeWritten(), "\x18");
    grbl("ALARM:3\r\n");
    grbl(kBanner);
    EXPECT_EQ(takeWritten(), "M5\r");
    grbl("error:9\r\n");
    ASSERT_EQ(ends.size(), 1u);
    EXPECT_EQ(ends[0].outcome, JobOutcome::Cancelled);
    EXPECT_NE(log().find("M5 < error:9\r\nPunch cancelled\r\n"), std::string::npos);
    EXPECT_EQ(log().find("End of punch"), std::string::npos);
    EXPECT_FALSE(link.jobRunning());
}

TEST_F(LinkTest, StopDuringAPauseWithASilentControllerStillEnds)
{
    connectWithBanner();
    startJob(program({"G0 X1 Y1", "G1 X2 F800"}));
    link.Pause_button_Click();
    link.Stop_button_Click();
    collect();
    EXPECT_FALSE(state.en_pause);
    EXPECT_EQ(takeWritten(), "G0 X1 Y1\r!\x18");
    advanceTo(now + JobStreamer::kStopBannerWaitMs + 20);
    EXPECT_EQ(takeWritten(), "M5\r");
    grbl("ok\r\n");
    ASSERT_EQ(ends.size(), 1u);
    EXPECT_EQ(ends[0].outcome, JobOutcome::Cancelled);
}

TEST_F(LinkTest, StopEndsEvenWhenM5IsNeverAnswered)
{
    connectWithBanner();
    startJob(program({"G5", "G0 X1 Y1"}));
    grbl("error:20\r\n");
    link.Stop_button_Click();
    collect();
    EXPECT_EQ(takeWritten(), "G5\r\x18");
    grbl(kBanner);
    EXPECT_EQ(takeWritten(), "M5\r");
    advanceTo(now + JobStreamer::kStopBannerWaitMs + 20);
    ASSERT_EQ(ends.size(), 1u);
    EXPECT_EQ(ends[0].outcome, JobOutcome::Cancelled);
    // A late answer to that "M5" is not taken for the next command's.
    link.homeX();
    collect();
    grbl("ok\r\n");
    EXPECT_TRUE(commands.empty());
    grbl("ok\r\n");
    ASSERT_EQ(commands.size(), 1u);
}

TEST_F(LinkTest, ErrorHoldsTheJobUntilResumedAndStopStillWorks)
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
    EXPECT_NE(log().find("Grbl refused line 2 (error:20): punch held\r\nHit Continue to resume\r\n"),
              std::string::npos);
    link.Pause_button_Click();
    collect();
    EXPECT_EQ(takeWritten(), "~G1 Y2 F800\r");
    grbl("error:22\r\n");
    link.Stop_button_Click();
    collect();
    EXPECT_EQ(takeWritten(), "\x18");
    grbl(kBanner);
    EXPECT_EQ(takeWritten(), "M5\r");
    grbl("ok\r\n");
    ASSERT_EQ(ends.size(), 1u);
    EXPECT_EQ(ends[0].outcome, JobOutcome::Cancelled);
    EXPECT_EQ(link.job().okCount(), 1u);
}

TEST_F(LinkTest, AlarmInTheMiddleHoldsAndStopGoesThroughAReset)
{
    connectWithBanner();
    startJob(program({"G0 X1 Y1", "G1 X2 F800", "G1 Y2 F800"}));
    grbl("ALARM:1\r\n[MSG:Reset to continue]\r\n");
    EXPECT_TRUE(link.job().held());
    grbl("ok\r\n");  // the line in flight is still answered, but nothing follows it
    EXPECT_EQ(takeWritten(), "G0 X1 Y1\r");
    EXPECT_NE(log().find("Grbl alarm ALARM:1: punch held at line 1"), std::string::npos);
    link.Stop_button_Click();
    collect();
    EXPECT_EQ(takeWritten(), "\x18");
    grbl(kBanner);
    EXPECT_EQ(takeWritten(), "M5\r");
}

TEST_F(LinkTest, RestartMidJobResendsTheLostLineOnResume)
{
    connectWithBanner();
    startJob(program({"G0 X1 Y1", "G1 X2 F800"}));
    grbl("ok\r\n");
    EXPECT_EQ(takeWritten(), "G0 X1 Y1\rG1 X2 F800\r");
    grbl(kBanner);
    EXPECT_TRUE(link.job().held());
    link.Pause_button_Click();
    collect();
    EXPECT_EQ(takeWritten(), "~G1 X2 F800\r");
}

TEST_F(LinkTest, SimulationShowsALineEvery50MsAndWritesNothing)
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
    EXPECT_EQ(state.Text2, "00:00:00");  // 5 lines of 50 ms left, rounded
    advanceTo(start + 490);
    EXPECT_TRUE(ends.empty());
    advanceTo(start + 500);
    ASSERT_EQ(ends.size(), 1u);
    EXPECT_FALSE(ends[0].measuredDuration.has_value());
    EXPECT_EQ(written, "");
    EXPECT_NE(log().find(">  G0 X9 Y1\r\n\r\nEnd of punch\r\n"), std::string::npos);
    EXPECT_EQ(state.settings.duree_metre_laser, "999");
}

TEST_F(LinkTest, SimulationPausesAndStops)
{
    state.mode_simulation = true;
    ASSERT_TRUE(link.envoi_programme(program({"G0 X1 Y1", "G0 X2 Y1", "G0 X3 Y1"}), now));
    advanceTo(now + 60);
    link.Pause_button_Click();
    advanceTo(now + 1000);
    EXPECT_EQ(link.job().progress(), 2u);
    link.Stop_button_Click();
    collect();
    ASSERT_EQ(ends.size(), 1u);
    EXPECT_EQ(ends[0].outcome, JobOutcome::Cancelled);
    EXPECT_EQ(written, "");
}

TEST_F(LinkTest, LearnedDurationReplaces999ThenAverages)
{
    connectWithBanner();
    // 10 mm of travel from (0, 0) then a 5 x 10 mm rectangle: 30 mm of cut, 40 mm in all.
    const std::vector<std::string> lines = {"G0 X6 Y8", "G1 X11 F800", "G1 Y18 F800", "G1 X6 F800",
                                            "G1 Y8 F800"};
    for (int job = 0; job < 2; ++job) {
        startJob(program(lines));
        for (std::size_t i = 0; i < lines.size(); ++i) {
            advanceTo(now + (job == 0 ? 2000 : 1000));
            grbl("ok\r\n");
        }
    }
    ASSERT_EQ(ends.size(), 2u);
    EXPECT_DOUBLE_EQ(*ends[0].measuredDuration, 10.0 / 40.0);
    EXPECT_DOUBLE_EQ(*ends[1].measuredDuration, 5.0 / 40.0);
    EXPECT_EQ(state.settings.duree_metre_laser, "0.1875");

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

TEST_F(LinkTest, RemainingTimeFromTheEstimateThenFromThePace)
{
    connectWithBanner();
    JobProgram p = program(std::vector<std::string>(100, "G1 X1 F800"));
    p.estimatedSeconds = 3600;
    startJob(p);
    EXPECT_EQ(state.Text2, "01:00:00");
    for (int i = 0; i < 50; ++i) {
        advanceTo(now + 100);
        grbl("ok\r\n");
    }
    // 50 lines in 5 s: 50 more take 5 s.
    EXPECT_EQ(state.Text2, "00:00:05");
}

TEST_F(LinkTest, LogIsTrimmedDuringAJob)
{
    connectWithBanner();
    std::vector<std::string> lines(400, "G1 X12.345 Y67.890 F800 ;a long comment for the log");
    startJob(program(lines));
    for (int i = 0; i < 400; ++i)
        grbl("ok\r\n");
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
    ASSERT_FALSE(resumes.empty());
    EXPECT_EQ(resumes.back().restartLine, 0);
    EXPECT_DOUBLE_EQ(resumes.back().restartMs, 500);
    // The title line goes nowhere; "M3" to the first "G1 Z-1"'s "G0" are acknowledged: the
    // second hole is half made.
    for (int i = 0; i < 4; ++i)
        grbl("ok\r\n");
    advanceTo(now + JobStreamer::kResumeEveryMs);
    EXPECT_EQ(resumes.back().restartLine, 5);
    EXPECT_DOUBLE_EQ(resumes.back().restartMs, 500);
    grbl("ok\r\n");
    advanceTo(now + JobStreamer::kResumeEveryMs);
    EXPECT_EQ(resumes.back().restartLine, 6);
    EXPECT_DOUBLE_EQ(resumes.back().restartMs, 2000);
    grbl("error:9\r\n");  // a hold writes at once
    EXPECT_EQ(resumes.back().restartLine, 7);
    link.connexion_off();
    collect();
    ASSERT_EQ(ends.size(), 1u);
    EXPECT_EQ(ends[0].outcome, JobOutcome::PortLost);
    EXPECT_NE(log().find("Port closed: punch interrupted at line 8"), std::string::npos);
}

// --- next roll and folds ---

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

TEST_F(LinkTest, NextRollJogsTheRollGapWaitsAndPunchesTheNextSong)
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
    grbl(kBanner);
    grbl("ok\r\n");
    EXPECT_EQ(ends.size(), 2u);
    // The last roll of a laser job asks about the folds.
    ASSERT_EQ(host.questions, std::vector<std::string>{"Cutting folds backwardly ?"});
}

TEST_F(LinkTest, FoldQuestionNeedsAFoldLength)
{
    FakeHost host;
    link.setHost(&host);
    connectWithBanner();
    state.scale.longueur_pli = 0;
    startJob(program({"G0 X1 Y1"}));
    grbl("ok\r\n");
    ASSERT_TRUE(host.pending);
    host.pending(true);
    EXPECT_EQ(host.messages, std::vector<std::string>{"Folds length not defined"});
    EXPECT_EQ(host.folds, 0);

    state.scale.longueur_pli = 160;
    startJob(program({"G0 X1 Y1"}));
    grbl("ok\r\n");
    host.pending(false);
    EXPECT_EQ(host.folds, 0);
    startJob(program({"G0 X1 Y1"}));
    grbl("ok\r\n");
    host.pending(true);
    EXPECT_EQ(host.folds, 1);

    // No question after a punch job.
    state.settings.Type_machine = "Poinçon";
    host.questions.clear();
    startJob(program({"G0 X1 Y1"}));
    grbl("ok\r\n");
    EXPECT_TRUE(host.questions.empty());
}

}  // namespace
}  // namespace veltrin
