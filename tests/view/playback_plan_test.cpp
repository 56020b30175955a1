#include "app/playback_plan.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "scales/scale_file.h"
#include "support/temp_dir.h"

namespace veltrin {
namespace {

class RollPlayLines : public ::testing::Test {
protected:
    RollPlayLines()
    {
        state.settings.Standard = kKolbyName;
        MessageLog log;
        Def_standard(dir.str(), state.settings, state.scale, log);
        state.settings.Vitcarton = std::string("60");
        state.settings.L_poincon = std::string("3");  // 50 ms of roll at 60 mm/s
    }

    // The track that plays note on the scale.
    int trackOf(int note) const
    {
        for (int track = 0; track < state.scale.nb_notes; ++track) {
            if (state.scale.trackNote(track) == note)
                return track;
        }
        ADD_FAILURE() << "no track for note " << note;
        return -1;
    }

    void hole(int startMs, int note, int endMs)
    {
        state.writtenHoles.push_back({Piece{startMs, trackOf(note), endMs}, 0});
    }

    testing::TempDir dir;
    AppState state;
};

TEST_F(RollPlayLines, LaserCutsSoundWhileOpenBridgesAreGapsAndMeetingHolesAreOneNote)
{
    state.settings.Type_machine = "Laser";
    hole(1100, 62, 1300);  // overlaps the next one: one note
    hole(1000, 62, 1200);
    hole(0, 60, 400);      // a bridge of 33 ms before the next piece
    hole(433, 60, 833);
    hole(1400, 64, 1500);  // meets the next one: one note
    hole(1500, 64, 1600);
    state.writtenHoles.push_back({Piece{2000, 99, 2100}, 0});  // no such track: never heard
    EXPECT_EQ(rollPlayLines(state), (std::vector<std::string>{
                                        "0000000 060 NOTE", "0000400 060 NOOF", "0000433 060 NOTE",
                                        "0000833 060 NOOF", "0001000 062 NOTE", "0001300 062 NOOF",
                                        "0001400 064 NOTE", "0001600 064 NOOF"}));
}

TEST_F(RollPlayLines, PunchStrikesSoundForOneStrikeOfRollAtTheProgramsOwnSpeed)
{
    state.settings.Type_machine = "Punch";
    hole(0, 60, 100);
    hole(40, 60, 100);  // overlapping strikes: one note
    hole(300, 60, 400);
    EXPECT_EQ(rollPlayLines(state), (std::vector<std::string>{"0000000 060 NOTE", "0000090 060 NOOF",
                                                              "0000300 060 NOTE", "0000350 060 NOOF"}));
    // The program was made at 30 mm/s: a strike stays open twice as long, whatever the
    // settings say now.
    state.programSettings = {{"Vitcarton", "30"}, {"Type_machine", "Punch"}, {"L_poincon", "3"}};
    EXPECT_EQ(rollPlayLines(state), (std::vector<std::string>{"0000000 060 NOTE", "0000140 060 NOOF",
                                                              "0000300 060 NOTE", "0000400 060 NOOF"}));
    EXPECT_EQ(playbackPlan(state, PlaybackSource::Roll).mmPerSecond, 30.0);
}

TEST_F(RollPlayLines, BothSourcesPlayBetweenTheMarks)
{
    state.settings.Type_machine = "Laser";
    hole(0, 60, 400);
    hole(1000, 62, 1400);
    hole(2000, 64, 2400);
    state.Liste_play = rollPlayLines(state);
    state.debut_marque = 1000.0;
    state.fin_marque = 2000.0;
    for (const PlaybackSource source : {PlaybackSource::Song, PlaybackSource::Roll}) {
        const PlaybackSchedule schedule = playbackPlan(state, source).schedule;
        EXPECT_EQ(schedule.firstSongMs, 1000.0);
        EXPECT_EQ(schedule.lastSongMs, 2000.0);
        EXPECT_EQ(schedule.durationMs(), 1000.0);
    }
    // 500000 is the end mark of a song never marked: to the end, however long the song.
    state.fin_marque = 500000.0;
    EXPECT_FALSE(playbackRange(state).endMs);
    EXPECT_EQ(playbackPlan(state, PlaybackSource::Song).schedule.lastSongMs, 2400.0);
}

}  // namespace
}  // namespace veltrin
