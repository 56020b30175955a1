#include "app/roll_snapshot.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "app/marks.h"
#include "app/song_import.h"
#include "base/numeric_text.h"
#include "scales/scale_file.h"
#include "support/midi_bytes.h"
#include "support/temp_dir.h"

namespace veltrin {
namespace {

// The number after " <letter>" in a program line ("G0 X6.3 Y12" -> X 6.3).
double field(const std::string& line, char letter)
{
    const std::size_t at = line.find(std::string(" ") + letter);
    return at == std::string::npos ? std::nan("") : leadingNumber(line.substr(at + 2));
}

// A laser song: a long note cut into pieces between bridges, notes on the bass and treble
// tracks, and note 59, which neither built-in scale plays.
const std::vector<testing::TestNote> kSong = {
    {0, 1000, 60}, {200, 500, 53}, {600, 900, 86}, {1200, 1500, 59}, {1300, 1600, 62},
};

class RollPictureOf : public ::testing::Test {
protected:
    // Opens kSong on a built-in scale for machine; returns the program's lines.
    std::vector<std::string> open(const std::string& machine, const std::string& standard)
    {
        state = AppState();
        state.dossier_documents = dir.str();
        state.settings.Standard = standard;
        MessageLog log;
        Def_standard(dir.str(), state.settings, state.scale, log);
        state.settings.Type_machine = machine;
        // The 20-note scale's bass holes differ from the others, so that a mix-up shows.
        state.settings.BassesAF = "6";
        const auto path = dir.path() / "song.mid";
        testing::writeFile(path, testing::midiFile(kSong));
        auto report = Ouvre_midi(state, {path.string()}, 0, {nullptr, false});
        EXPECT_TRUE(report.ok()) << report.detail();
        return report.ok() ? testing::textLines(testing::readText(report->programPath))
                           : std::vector<std::string>{};
    }

    testing::TempDir dir;
    AppState state;
};

// Every hole of the program is in the picture, where the program's lines put it: a laser
// cut from its G0 corner to the X and Y of the lines after it, a strike centred on its G0.
TEST_F(RollPictureOf, EveryHoleLiesWhereTheProgramCutsIt)
{
    struct Case {
        const char* machine;
        const char* standard;
    };
    for (const Case c : {Case{"Laser", kKolbyName}, Case{"Punch", kKolbyName}, Case{"Laser", kAlderFennName},
                         Case{"Punch", kAlderFennName}}) {
        SCOPED_TRACE(std::string(c.machine) + " on " + c.standard);
        const std::vector<std::string> program = open(c.machine, c.standard);
        ASSERT_FALSE(program.empty());
        // The operator edits a setting after the program was written: the picture still
        // shows the program.
        state.settings.Talon = "40";
        const RollPicture picture = rollPictureOf(state);

        const auto travels = std::count_if(program.begin(), program.end(),
                                           [](const std::string& line) { return line.rfind("G0 X", 0) == 0; });
        ASSERT_EQ(picture.holes.size(), static_cast<std::size_t>(travels));
        ASSERT_GT(travels, 6) << "the long note is cut into several pieces";
        EXPECT_TRUE(std::is_sorted(picture.holes.begin(), picture.holes.end(),
                                   [](const RollHole& a, const RollHole& b) { return a.y0 < b.y0; }));
        const bool laser = std::string(c.machine) == "Laser";
        const bool af = std::string(c.standard) == kAlderFennName;
        double lastEnd = 0;
        for (const RollHole& hole : picture.holes) {
            ASSERT_GE(hole.programLine, 0);
            ASSERT_LT(static_cast<std::size_t>(hole.programLine + 2), program.size());
            const std::string& travel = program[static_cast<std::size_t>(hole.programLine)];
            ASSERT_EQ(travel.rfind("G0 X", 0), 0u) << travel;
            const double width = af && hole.track < 4 ? 6.0 : (af ? 4.0 : 3.0);
            if (laser) {
                const std::string& across = program[static_cast<std::size_t>(hole.programLine + 1)];
                const std::string& along = program[static_cast<std::size_t>(hole.programLine + 2)];
                EXPECT_NEAR(hole.x0, field(travel, 'X'), 1e-4) << travel;
                EXPECT_NEAR(hole.y0, field(travel, 'Y'), 1e-4) << travel;
                EXPECT_NEAR(hole.x1, field(across, 'X'), 1e-4) << across;
                EXPECT_NEAR(hole.y1, field(along, 'Y'), 1e-4) << along;
            } else {
                EXPECT_NEAR((hole.x0 + hole.x1) / 2, field(travel, 'X'), 1e-4) << travel;
                EXPECT_NEAR((hole.y0 + hole.y1) / 2, field(travel, 'Y'), 1e-4) << travel;
                EXPECT_NEAR(hole.y1 - hole.y0, 3.0, 1e-4) << "one strike of L_poincon";
            }
            EXPECT_NEAR(hole.x1 - hole.x0, width, 1e-4) << "track " << hole.track;
            // Every hole lies on its track's axis.
            ASSERT_LT(static_cast<std::size_t>(hole.track), picture.trackAxesMm.size());
            EXPECT_NEAR((hole.x0 + hole.x1) / 2, picture.trackAxesMm[static_cast<std::size_t>(hole.track)], 1e-4);
            EXPECT_LE(hole.x1, picture.widthMm);
            lastEnd = std::max(lastEnd, double{hole.y1});
        }
        EXPECT_EQ(picture.lengthMm, lastEnd);
        EXPECT_EQ(picture.mmPerSecond, 60.0);
        EXPECT_EQ(picture.foldLengthMm, af ? 0.0 : 160.0);

        // Note 59, from 1.2 s to 1.5 s, is not a hole: it lies faintly between its
        // neighbours in pitch, 57 (track 0 of the 27-29 scale) and 60.
        ASSERT_EQ(picture.dropped.size(), 1u);
        const DroppedNote& dropped = picture.dropped[0];
        EXPECT_EQ(dropped.note, 59);
        EXPECT_NEAR(dropped.y0, 72.0, 1e-4);
        EXPECT_NEAR(dropped.y1, 90.0, 1e-4);
        const auto axisOf = [&](int note) {
            for (int track = 0; track < state.scale.nb_notes; ++track)
                if (state.scale.trackNote(track) == note)
                    return picture.trackAxesMm[static_cast<std::size_t>(track)];
            return std::nan("");
        };
        const double below = axisOf(af ? 58 : 57);
        const double above = axisOf(60);
        EXPECT_GT(dropped.x, std::min(below, above));
        EXPECT_LT(dropped.x, std::max(below, above));
    }
}

// A program between marks leaves holes of the plan out: they stay in the picture, marked
// as not in the program, so the roll outside the marks is still shown.
TEST_F(RollPictureOf, HolesOutsideTheMarksStayMarkedAsNotInTheProgram)
{
    ASSERT_FALSE(open("Laser", kKolbyName).empty());
    const std::size_t planned = state.List_GC_Finale.size();
    ASSERT_TRUE(setStartMark(state, 1200).ok());
    ASSERT_LT(state.writtenHoles.size(), planned);
    const RollPicture picture = rollPictureOf(state);
    ASSERT_EQ(picture.holes.size(), planned);
    for (const RollHole& hole : picture.holes) {
        if (hole.y0 < 72.0f)
            EXPECT_EQ(hole.programLine, kNotInProgram) << "hole at " << hole.y0;
        else
            EXPECT_GE(hole.programLine, 0) << "hole at " << hole.y0;
    }
}

// A scale file gives the roll width; a built-in scale chosen afterwards has its own, even
// though the file's width still stands in the scale record.
TEST_F(RollPictureOf, RollWidthComesFromTheScaleInUse)
{
    dir.writeScale("Street", testing::kStreetOrgan);
    state.dossier_documents = dir.str();
    state.settings.Standard = "Street";
    MessageLog log;
    ASSERT_TRUE(Def_standard(dir.str(), state.settings, state.scale, log).ok());
    EXPECT_EQ(rollPictureOf(state).widthMm, 191.0);
    state.settings.Standard = kKolbyName;
    Def_standard(dir.str(), state.settings, state.scale, log);
    ASSERT_EQ(state.scale.largeur_carton, 191.0);
    // 29 tracks 4.2 mm apart from 6.3 mm, and 6.3 mm beyond the last.
    EXPECT_NEAR(rollPictureOf(state).widthMm, 6.3 + 28 * 4.2 + 6.3, 1e-9);
    EXPECT_TRUE(rollPictureOf(state).holes.empty());
}

}  // namespace
}  // namespace veltrin
