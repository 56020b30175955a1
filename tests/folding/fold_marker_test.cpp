// The live fold marking against a scripted Grbl: the test plays every reply and reads every
// command written.

#include <gtest/gtest.h>

#include "base/message_log.h"
#include "folding/fold_marker.h"

namespace veltrin {
namespace {

using Lines = std::vector<std::string>;

// Talon 6.3, Dist_notes 4.2 and 2 mm dashes: the dashes run from 5.3 to 7.3, 9.5 to 11.5, ...
FoldValues values(int tracks)
{
    FoldValues v;
    v.OrigineX = 5;
    v.feed = 800;
    v.Talon = 6.3;
    v.Dist_notes = 4.2;
    v.longueur_pli = 160;
    v.nb_notes = tracks;
    v.Laser_power = 1000;
    v.longueur_point = 2;
    return v;
}

// The lines of one fold of a 2-track scale at Y.
Lines twoTrackFold(const std::string& y)
{
    return {"G0 Y" + y + " X5.3", "G0 X5.3", "G1 X7.3", "G0 X9.5", "G1 X11.5"};
}

Lines operator+(Lines a, const Lines& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

const Lines kPreamble = {"$HX", "G92 X5 Y0", "M3 S1000", "F800"};

class FoldMarkerTest : public ::testing::Test {
public:
    void collect()
    {
        for (auto& action : marker.takeActions()) {
            if (auto* w = std::get_if<WriteBytes>(&action)) {
                std::string bytes = w->bytes;
                if (!bytes.empty() && bytes.back() == '\r')
                    bytes.pop_back();
                sent.push_back(bytes);
            } else {
                ends.push_back(std::get<FoldEnded>(action));
            }
        }
    }
    void grbl(std::string_view line)
    {
        marker.onLine(line);
        collect();
    }
    void laserModeOn()
    {
        collect();
        grbl("$32=1");
        grbl("ok");
    }
    void oks(int n)
    {
        for (int i = 0; i < n; ++i)
            grbl("ok");
    }

    MessageLog log;
    LogSink sink{log};
    FoldMarker marker{sink};
    Lines sent;
    std::vector<FoldEnded> ends;
};

TEST_F(FoldMarkerTest, ForwardFinishesTheFoldInProgressOnStopAndASecondMarkingFindsStopStillSet)
{
    marker.startForward(values(2), false);
    laserModeOn();
    oks(4 + 5 + 2);  // preamble, fold 0, two lines of fold 1
    marker.stop();
    collect();
    oks(3);  // the rest of fold 1
    EXPECT_EQ(sent, Lines{"$$"} + kPreamble + twoTrackFold("0") + twoTrackFold("160") + Lines{"M5 S0"});
    EXPECT_TRUE(ends.empty()) << "ends only once M5 S0 is answered";
    grbl("ok");
    ASSERT_EQ(ends.size(), 1u);
    EXPECT_EQ(ends[0].outcome, FoldOutcome::Done);
    EXPECT_EQ(ends[0].foldsMarked, 2);
    EXPECT_TRUE(marker.arret_demande()) << "the forward marking never clears the stop flag";

    // Started again with the flag as the first marking left it: preamble, then M5 S0 at once.
    sent.clear();
    marker.startForward(values(2), marker.arret_demande());
    laserModeOn();
    oks(4);
    EXPECT_EQ(sent, Lines{"$$"} + kPreamble + Lines{"M5 S0"});
    grbl("ok");
    EXPECT_EQ(ends.back().foldsMarked, 0);
    EXPECT_NE(log.text().find("Stop was still set"), std::string::npos);
}

TEST_F(FoldMarkerTest, FoldZeroIsAtYZeroAndWithoutTracksOnlyTheTravelsAreSent)
{
    marker.startForward(values(0), false, 3);
    laserModeOn();
    oks(4 + 3);
    EXPECT_EQ(sent, (Lines{"$$"} + kPreamble + Lines{"G0 Y0 X5.3", "G0 Y160 X5.3", "G0 Y320 X5.3", "M5 S0"}));
    grbl("ok");
    EXPECT_EQ(ends.at(0).foldsMarked, 3);
}

TEST_F(FoldMarkerTest, BackwardFromTheLastWholeFoldBelowTheMarginDownToZeroAndClearsStop)
{
    marker.startForward(values(1), true, 1);  // leaves the stop flag set
    laserModeOn();
    oks(5);
    ASSERT_TRUE(marker.arret_demande());
    sent.clear();
    marker.startBackward(values(1), 500.0);  // 500 - 20 = 480 = fold 3
    EXPECT_FALSE(marker.arret_demande());
    laserModeOn();
    oks(3 + 4 * 3);
    const auto fold = [](const std::string& y) { return Lines{"G0 Y" + y + " X5.3", "G0 X5.3", "G1 X7.3"}; };
    EXPECT_EQ(sent, (Lines{"$$", "G0 Y480", "M3 S1000", "F800"} + fold("480") + fold("320") + fold("160") +
                     fold("0") + Lines{"M5 S0"}));
}

TEST(BackwardFirstFold, HighestFoldLineAtOrBelowTheMargin)
{
    struct Case {
        double y_max, fold;
        int expected;
    };
    for (const Case c : {Case{500, 160, 3}, Case{340, 160, 2}, Case{339.99, 160, 1}, Case{19, 160, 0},
                         Case{0, 160, 0}, Case{179.99, 160, 0}, Case{180, 160, 1}, Case{20.7, 0.1, 7}})
        EXPECT_EQ(backwardFirstFold(c.y_max, c.fold), c.expected) << c.y_max << " / " << c.fold;
}

TEST_F(FoldMarkerTest, StartsOnlyWithLaserModeOn)
{
    for (const Lines& replies : {Lines{"$32=0", "ok"}, Lines{"$0=10", "ok"}, Lines{"error:9"}}) {
        sent.clear();
        ends.clear();
        marker.startForward(values(2), false);
        collect();
        for (const auto& reply : replies)
            grbl(reply);
        EXPECT_EQ(sent, Lines{"$$"}) << replies.front();
        ASSERT_EQ(ends.size(), 1u);
        EXPECT_EQ(ends[0].outcome, FoldOutcome::NotStarted);
        EXPECT_FALSE(ends[0].why.empty());
    }
}

TEST_F(FoldMarkerTest, RefusedCommandHoldsContinueSkipsItStopSendsLaserOff)
{
    marker.startForward(values(2), false);
    laserModeOn();
    oks(4 + 1);
    grbl("error:20");  // "G0 X5.3" refused
    EXPECT_TRUE(marker.held());
    EXPECT_NE(marker.holdMessage().find("\"G0 X5.3\""), std::string::npos) << marker.holdMessage();
    const std::size_t before = sent.size();
    marker.resume();
    collect();
    EXPECT_EQ(sent.back(), "G1 X7.3");
    EXPECT_EQ(sent.size(), before + 1);
    grbl("error:20");
    marker.stop();
    collect();
    EXPECT_EQ(sent.back(), "M5 S0");
    grbl("ok");
    EXPECT_EQ(ends.at(0).outcome, FoldOutcome::Done);
}

// What ends a marking at once, without "M5 S0": Grbl stopped the laser itself, or nothing more
// can be sent; a silent controller is reset by Stop.
TEST_F(FoldMarkerTest, AlarmRestartLostPortAndSilenceEndTheMarking)
{
    struct Case {
        const char* name;
        std::function<void(FoldMarkerTest&)> event;
        FoldOutcome outcome;
        std::string lastSent;
        bool answerOwed;  // the fold's first travel may still be answered
    };
    const std::vector<Case> cases = {
        {"alarm", [](FoldMarkerTest& t) { t.grbl("ALARM:1"); }, FoldOutcome::Alarm, "G0 Y0 X5.3", true},
        {"restart", [](FoldMarkerTest& t) { t.grbl("Grbl 1.1h ['$' for help]"); }, FoldOutcome::Restarted, "G0 Y0 X5.3", false},
        {"port", [](FoldMarkerTest& t) { t.marker.portLost(); }, FoldOutcome::PortLost, "G0 Y0 X5.3", true},
        {"silent",
         [](FoldMarkerTest& t) {
             t.marker.controllerSilent(5000);
             EXPECT_TRUE(t.marker.held());
             t.marker.stop();
         },
         FoldOutcome::Stopped, "\x18", true},
    };
    for (const Case& c : cases) {
        sent.clear();
        ends.clear();
        marker.startForward(values(2), false);
        laserModeOn();
        oks(4);
        c.event(*this);
        collect();
        ASSERT_EQ(ends.size(), 1u) << c.name;
        EXPECT_EQ(ends[0].outcome, c.outcome) << c.name;
        EXPECT_EQ(sent.back(), c.lastSent) << c.name;
        EXPECT_EQ(ends[0].answerOwed, c.answerOwed) << c.name;
        EXPECT_FALSE(marker.running());
    }
}

}  // namespace
}  // namespace veltrin
