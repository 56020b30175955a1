#include "app/song_import.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>

#include "app/arranging.h"
#include "app/genere_gcode.h"
#include "app/marks.h"
#include "app/roll_snapshot.h"
#include "midi/resume_file.h"
#include "scales/scale_file.h"
#include "support/midi_bytes.h"
#include "support/temp_dir.h"

namespace veltrin {
namespace {

using testing::holeYs;
using testing::readText;

class SongImport : public ::testing::Test {
protected:
    SongImport()
    {
        std::filesystem::create_directories(temp());
        state.dossier_documents = (dir.path() / "docs").string();
        Def_notes_Kolby(state.scale);
        state.scale.nb_notes = 29;
        options.store = &store;
    }

    std::filesystem::path temp() const { return dir.path() / "docs" / "Veltrin" / "Temp"; }

    std::string song(const std::string& name, const std::vector<testing::TestNote>& notes = testing::kFiveNotes)
    {
        testing::writeFile(dir.path() / name, testing::midiFile(notes));
        return (dir.path() / name).string();
    }

    bool logged(const std::string& line) const
    {
        const auto lines = testing::textLines(state.user_msg_list.text());
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }

    testing::TempDir dir;
    AppState state;
    MemorySettingsStore store;
    ImportOptions options;
};

TEST_F(SongImport, LogsItsStepsInOrderMarksTheWholeSongAndSavesTheWidth)
{
    state.debut_marque = 1000.0;
    state.fin_marque = 2000.0;
    const std::string path = song("valse.mid");
    auto report = Ouvre_midi(state, {path}, 0, options);
    ASSERT_TRUE(report.ok()) << report.detail();
    EXPECT_EQ(report->programPath, (temp() / "valse.gcode").string());
    EXPECT_EQ(state.chemin_morceau, path);
    EXPECT_EQ(state.fin_marque, 500000.0);
    EXPECT_FALSE(state.debut_marque.value_or(0.0) > 0.0);
    const auto log = testing::textLines(state.user_msg_list.text());
    ASSERT_GE(log.size(), 3u);
    EXPECT_EQ(log[0] + "|" + log[1] + "|" + log[2],
              "Gcode generation for laser perforator|Midi file de-assembling|Seeking for best optimizing width ");
    EXPECT_EQ(store.read("Fourchette"), state.settings.Fourchette);
    EXPECT_EQ(holeYs(readText(report->programPath)), (std::vector<double>{0, 60, 120, 180, 240}));

    state.settings.Type_machine = "Punch";
    state.settings.Fourchette = "13";
    MemorySettingsStore untouched;
    ASSERT_TRUE(Ouvre_midi(state, {path}, 0, {&untouched, false}).ok());
    EXPECT_EQ(testing::textLines(state.user_msg_list.text()).at(log.size()),
              "Gcode generation for punch perforator");
    EXPECT_EQ(state.settings.Fourchette, "13") << "no width search";
    EXPECT_TRUE(untouched.values().empty());
}

TEST_F(SongImport, SeveralFilesDecodeOnlyTheCurrentEntry)
{
    const std::string first = song("first.mid", {{0, 300, 60}});
    const std::string second = song("second.mid", {{0, 300, 62}, {500, 800, 64}});
    const std::string missing = (dir.path() / "missing.mid").string();

    ASSERT_TRUE(Ouvre_midi(state, {first, second, missing}, 250).ok());
    EXPECT_EQ(state.Liste_fichiers, (std::vector<std::string>{first, second, missing}));
    EXPECT_EQ(state.rollGapMm, 250);
    EXPECT_EQ(state.chemin_morceau, first);
    EXPECT_EQ(state.List_GC_Ycroissant.size(), 1u);
    EXPECT_FALSE(std::filesystem::exists(temp() / "second.gcode"));

    // The next roll: the machine side moves the index on.
    state.currentFileIndex = 1;
    ASSERT_TRUE(openCurrentFile(state).ok());
    EXPECT_EQ(state.chemin_morceau, second);
    EXPECT_EQ(state.List_GC_Ycroissant.size(), 2u) << "nothing of the first song is left";

    state.currentFileIndex = 2;
    EXPECT_EQ(openCurrentFile(state).error(), ImportError::UnreadableSong);
    EXPECT_TRUE(state.chemin_morceau.empty() && state.List_GC_Ycroissant.empty());

    state.Liste_fichiers[2] = dir.path().string();
    EXPECT_EQ(openCurrentFile(state).error(), ImportError::UnreadableSong) << "a folder";

    state.currentFileIndex = 3;
    EXPECT_EQ(openCurrentFile(state).error(), ImportError::NoFile);
    EXPECT_EQ(Ouvre_midi(state, {}).error(), ImportError::NoFile);
    EXPECT_EQ(state.Liste_fichiers.size(), 3u) << "a cancelled choice changes nothing";
}

TEST_F(SongImport, ResumeFileRestartsAtItsTimeWithItsBandWidth)
{
    const std::string path = song("valse.mid");
    ASSERT_TRUE(writeResumeFile(resumePathFor(path), {path, 2000, 37, "11", {}}).ok());
    auto report = Ouvre_midi(state, {resumePathFor(path)}, 0, options);
    ASSERT_TRUE(report.ok()) << report.detail();
    EXPECT_TRUE(report->resumed);
    EXPECT_EQ(state.chemin_morceau, path);
    EXPECT_TRUE(logged("Travel optimizing 11(Width : 183)")) << state.user_msg_list.text();
    EXPECT_TRUE(logged("Resume file without settings: the current settings are used, with its Fourchette 11"));
    EXPECT_EQ(state.settings.Fourchette, "7") << "the operator's value stays";
    EXPECT_FALSE(store.read("Fourchette").has_value()) << "nothing of a resume file is saved";
    EXPECT_EQ(state.debut_marque, 2000.0);
    EXPECT_FALSE(logged("Seeking for best optimizing width "));
    EXPECT_EQ(report->programPath, (temp() / "valse_between marks.gcode").string());
    EXPECT_EQ(holeYs(readText(report->programPath)), (std::vector<double>{120, 180, 240}));
}

// A resume file brings the values its program was made with: the song is made again with
// them, later generations of the same song keep them (but for a value the operator changes
// afterwards), and none of them becomes the operator's setting.
TEST_F(SongImport, ResumeFileSettingsMakeTheSongAgainWithoutReplacingTheOperators)
{
    const std::string path = song("valse.mid");
    Settings made = state.settings;
    made.Type_machine = "Punch";
    made.Vitcarton = "80";
    SettingList settings = planSettingsOf(made, state.scale);
    settings.emplace_back("fin_marque", "3500");
    ASSERT_TRUE(writeResumeFile(resumePathFor(path), {path, 1000, 12, "9", settings}).ok());
    const Settings operatorSettings = state.settings;

    auto report = Ouvre_midi(state, {resumePathFor(path)}, 0, options);
    ASSERT_TRUE(report.ok()) << report.detail();
    EXPECT_TRUE(report->settingsRestored);
    const auto log = testing::textLines(state.user_msg_list.text());
    ASSERT_GE(log.size(), 3u);
    EXPECT_EQ(log[0] + "|" + log[1] + "|" + log[2],
              "Gcode generation for punch perforator|Resume file value kept: Type_machine=Punch (settings: "
              "Laser)|Resume file value kept: Vitcarton=80 (settings: 60)");
    EXPECT_TRUE(logged("Travel optimizing 9(Width : 112)"));
    // Strikes at 80 mm/s, the first of a note centred 1.5 mm after its start: the notes from
    // 1 s up to the end mark at 3.5 s.
    const auto strikesFrom = [](const std::string& program, std::vector<double> firsts) {
        const std::vector<double> ys = holeYs(program);
        bool all = !ys.empty() && ys.front() == firsts.front() && ys.back() < 80 * 3.5 + 1.5;
        for (const double y : firsts)
            all = all && std::count(ys.begin(), ys.end(), y) == 1;
        return all;
    };
    EXPECT_TRUE(strikesFrom(readText(report->programPath), {81.5, 161.5, 241.5}));
    EXPECT_EQ(state.fin_marque, 3500.0);
    EXPECT_EQ(settingValue(state.programSettings, "Vitcarton"), "80");
    EXPECT_EQ(settingLines(planSettingsOf(state.settings, state.scale)),
              settingLines(planSettingsOf(operatorSettings, state.scale)));
    EXPECT_TRUE(store.values().empty());

    // A mark later: still the resume file's values.
    state.debut_marque = 2000.0;
    auto marked = Genere_GCode(state, false, false);
    ASSERT_TRUE(marked.ok());
    EXPECT_TRUE(strikesFrom(readText(marked.value()), {161.5, 241.5}));
    // The operator's own change wins for that key alone.
    state.settings.Fourchette = "4";
    ASSERT_TRUE(fourchetteChanged(state).has_value());
    EXPECT_TRUE(logged("Travel optimizing 4(Width : 50)")) << state.user_msg_list.text();
    EXPECT_EQ(settingValue(state.programSettings, "Vitcarton"), "80");
    EXPECT_EQ(settingValue(state.programSettings, "Fourchette"), "4");

    // Another song: the operator's settings alone.
    auto other = Ouvre_midi(state, {song("other.mid")}, 0, {nullptr, false});
    ASSERT_TRUE(other.ok());
    EXPECT_EQ(holeYs(readText(other->programPath)), (std::vector<double>{0, 60, 120, 180, 240}));
    EXPECT_TRUE(state.songPlanSettings.empty());
}

// An upper-case ".REP" is no resume file: it is decoded as a song (no MThd header); a cut
// song keeps the notes before the break. Both imports go on.
// A resume file named in capitals is taken for a song, and a text file is no song at all:
// the import stops after the decoder, the band width untouched and nothing written.
TEST_F(SongImport, FileWithoutAMidiHeaderIsNoSong)
{
    const std::string path = song("valse.mid");
    testing::writeText(path + ".REP", path + "\r\n2000\r\n3\r\n11\r\n");
    state.settings.Fourchette = "7";
    auto report = Ouvre_midi(state, {path + ".REP"}, 0, options);
    ASSERT_FALSE(report.ok());
    EXPECT_EQ(report.error(), ImportError::UnreadableSong);
    EXPECT_NE(report.detail().find("header MThd not in file"), std::string::npos) << report.detail();
    EXPECT_TRUE(state.chemin_morceau.empty());
    EXPECT_TRUE(logged("Midi file de-assembling"));
    EXPECT_FALSE(logged("Seeking for best optimizing width "));
    EXPECT_EQ(state.settings.Fourchette, "7");
    EXPECT_FALSE(store.read("Fourchette").has_value());
    EXPECT_TRUE(std::filesystem::is_empty(temp()));
}

TEST_F(SongImport, DecoderErrorsLetTheImportGoOn)
{
    auto bytes = testing::midiFile(testing::kFiveNotes);
    bytes.resize(bytes.size() - 16);  // cut in the fourth note's end event
    testing::writeFile(dir.path() / "cut.mid", bytes);
    auto report = Ouvre_midi(state, {(dir.path() / "cut.mid").string()});
    ASSERT_TRUE(report.ok()) << report.detail();
    EXPECT_EQ(report->decoderError, 1);
    EXPECT_NE(report->decoderMessage.find("unexpected EOF"), std::string::npos);
    EXPECT_EQ(holeYs(readText(report->programPath)), (std::vector<double>{0, 60, 120}));
}

TEST_F(SongImport, UnreadableResumeFileOrProgramAreReported)
{
    testing::writeText(dir.path() / "short.mid.rep", "/short.mid\r\n100\r\n");
    EXPECT_EQ(Ouvre_midi(state, {(dir.path() / "short.mid.rep").string()}).error(),
              ImportError::UnreadableResumeFile);

    std::filesystem::remove_all(temp());
    testing::writeText(temp(), "a file where the Temp folder should be");
    auto report = Ouvre_midi(state, {song("a.mid")});
    ASSERT_FALSE(report.ok());
    EXPECT_EQ(report.error(), ImportError::ProgramNotWritten);
    EXPECT_FALSE(state.chemin_morceau.empty()) << "the song is loaded all the same";
}

// A song the 27-29 scale plays only three semitones down: the report names what it loses,
// "Best transposition" finds the shift, saves it and makes the program again, and the
// program then verifies against the song, between marks too.
TEST_F(SongImport, BestTranspositionSavesTheShiftAndTheProgramThenVerifies)
{
    const std::string path = song("low.mid", {{0, 300, 51}, {400, 700, 53}, {800, 1100, 56}, {1200, 1500, 58},
                                              {1600, 1900, 60}, {2000, 2300, 63}, {2400, 2700, 65}});
    state.demarrage_fini = true;
    ASSERT_TRUE(Ouvre_midi(state, {path}, 0, options).ok());
    EXPECT_EQ(state.notes_hors_gamme, 4);
    EXPECT_TRUE(logged("Notes outside the organ scale : D#2 \u00d71 from 0:00.0, G#2 \u00d71 from 0:00.8, "
                       "A#2 \u00d71 from 0:01.2, D#3 \u00d71 from 0:02.0"));
    const auto lost = rollPictureOf(state).dropped;
    EXPECT_EQ(lost.size(), 4u) << "the roll shows the lost notes faintly";

    const auto best = bestTransposition(state);
    ASSERT_TRUE(best);
    EXPECT_EQ(best->semitones, -3);
    EXPECT_EQ(best->asWritten.notes, 4);
    EXPECT_EQ(best->shifted.notes, 0);
    auto written = applyBestTransposition(state, store);
    ASSERT_TRUE(written && written->ok());
    EXPECT_EQ(store.read("Transpose"), "-3");
    EXPECT_TRUE(logged("Best transposition : \u22123 (4 \u2192 0 notes lost)"));
    EXPECT_TRUE(logged("Transposed \u22123: 4 \u2192 0 notes lost"));
    EXPECT_EQ(state.notes_hors_gamme, 0);
    EXPECT_EQ(holeYs(readText(written->value())).size(), 7u);
    EXPECT_TRUE(rollPictureOf(state).dropped.empty());

    auto check = verifyLastProgram(state);
    ASSERT_TRUE(check.ok()) << check.detail();
    EXPECT_TRUE(check->ok()) << check->report.back();
    EXPECT_TRUE(check->againstSong);
    ASSERT_TRUE(setStartMark(state, 1000.5).ok());
    ASSERT_TRUE(setEndMark(state, 2100).ok());
    check = verifyLastProgram(state);
    ASSERT_TRUE(check.ok());
    EXPECT_TRUE(check->ok()) << check->report.back();
    EXPECT_EQ(check->notes.size(), 3u) << "the notes between the marks";
    EXPECT_TRUE(logged("Transposed \u22123: 4 \u2192 0 notes lost")) << "each report tells it";

    resetSongPlan(state);
    state.chemin_morceau.clear();
    EXPECT_FALSE(bestTransposition(state));
    EXPECT_FALSE(applyBestTransposition(state, store));
    EXPECT_FALSE(verifyLastProgram(state).ok());
}

TEST(SimulationSwitch, AlwaysLeavesTheOpenCommandAvailable)
{
    AppState state;
    state.ouvre_midi_actif = false;  // no board answered at start-up
    EXPECT_TRUE(toggleSimulationMode(state));
    EXPECT_TRUE(state.ouvre_midi_actif);
    state.ouvre_midi_actif = false;
    EXPECT_FALSE(toggleSimulationMode(state));
    EXPECT_TRUE(state.ouvre_midi_actif);
    EXPECT_EQ(statusLamp(true, false), StatusLamp::Yellow);
    EXPECT_EQ(statusLamp(false, true), StatusLamp::Green);
    EXPECT_EQ(statusLamp(false, false), StatusLamp::Red);
}

}  // namespace
}  // namespace veltrin
