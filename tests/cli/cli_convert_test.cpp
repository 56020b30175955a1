// veltrin-cli convert, run as a user would: the built program, with its Documents folder
// (VELTRIN_DOCUMENTS) and its settings (XDG_CONFIG_HOME) in a temporary folder.

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "midi/midi_builder.h"
#include "support/midi_bytes.h"
#include "support/run_cli.h"

namespace veltrin {
namespace {

using testing::readText;
using testing::textLines;

struct ConvertRun {
    int exitCode = -1;
    std::vector<std::string> out;
    std::string err;
    bool has(const std::string& line) const { return std::find(out.begin(), out.end(), line) != out.end(); }
};

class CliConvert : public ::testing::Test {
protected:
    CliConvert() { testing::writeFile(song, testing::midiFile(testing::kFiveNotes)); }

    std::filesystem::path temp() const { return dir.path() / "Veltrin" / "Temp"; }
    std::filesystem::path configFile() const { return dir.path() / "config" / "Veltrin" / "Veltrin.conf"; }
    std::string stored() const { return readText(configFile()); }

    void store(const std::string& startupLines)
    {
        std::filesystem::create_directories(configFile().parent_path());
        testing::writeText(configFile(), "[Startup]\n" + startupLines);
    }

    ConvertRun convert(std::vector<std::string> args, const std::string& locale = "C") const
    {
        args.insert(args.begin(), "convert");
        const testing::CliRun run = testing::runCli("LC_ALL=" + locale + " VELTRIN_DOCUMENTS=" + testing::quoted(dir.str()) +
                                                        " XDG_CONFIG_HOME=" +
                                                        testing::quoted((dir.path() / "config").string()),
                                                    args);
        return {run.exitCode, textLines(run.out), run.err};
    }

    testing::TempDir dir;
    std::string song = (dir.path() / "valse.mid").string();
};

TEST_F(CliConvert, PrintsTheImportLogThenTheProgramAndSavesTheChosenWidth)
{
    const ConvertRun run = convert({song});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.err, "");
    ASSERT_GE(run.out.size(), 4u);
    EXPECT_EQ(run.out[0], "Gcode generation for laser perforator");
    EXPECT_TRUE(run.has("Seeking for best optimizing width ") && run.has("Ready to punch"));
    EXPECT_FALSE(run.has("Standard 27-29 notes Kolby")) << "the start-up log is not the import's";
    EXPECT_EQ(run.out.back(), (temp() / "valse.gcode").string());
    EXPECT_EQ(testing::holeYs(readText(temp() / "valse.gcode")), (std::vector<double>{0, 60, 120, 180, 240}));
    EXPECT_NE(stored().find("Fourchette="), std::string::npos) << stored();
}

TEST_F(CliConvert, ReportFollowsTheOperatorsLocaleWhileTheProgramKeepsPoints)
{
    const ConvertRun run = convert({song, "--defaults", "--set", "Lgponts=0"}, "de_DE.UTF-8");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    const auto cut = std::find_if(run.out.begin(), run.out.end(), [](const std::string& line) {
        return line.starts_with("   - Cuttings length : ");
    });
    ASSERT_NE(cut, run.out.end());
    EXPECT_TRUE(cut->ends_with(" m") && cut->find(',') != std::string::npos) << *cut;
    const std::string program = readText(temp() / "valse.gcode");
    EXPECT_EQ(program.find(','), std::string::npos);
    // Middle C is track 5: X = 6.3 - 3 / 2 + 5 x 4.2 = 25.8, cut 3 mm wide to 28.8.
    EXPECT_NE(program.find("G0 X25.8 Y0\r\nG1 X28.8 F800\r\n"), std::string::npos) << program;
}

TEST_F(CliConvert, StoredSettingsApplyUnlessDefaultsAndSetIsNeverSaved)
{
    store("Type_machine=Punch\nFourchette=99\n");
    EXPECT_EQ(convert({song, "--defaults"}).out.at(0), "Gcode generation for laser perforator");
    EXPECT_NE(stored().find("Fourchette=99"), std::string::npos) << "--defaults saves nothing";

    const ConvertRun punch = convert({song, "--no-width-search"});
    ASSERT_EQ(punch.exitCode, 0) << punch.err;
    EXPECT_EQ(punch.out.at(0), "Gcode generation for punch perforator");
    EXPECT_FALSE(punch.has("Seeking for best optimizing width "));

    const ConvertRun overridden = convert({song, "--set", "Type_machine=Laser", "--set", "Vitcarton=30"});
    ASSERT_EQ(overridden.exitCode, 0) << overridden.err;
    EXPECT_EQ(overridden.out.at(0), "Gcode generation for laser perforator");
    EXPECT_EQ(testing::holeYs(readText(temp() / "valse.gcode")).back(), 120) << "4 s at 30 mm/s";
    const std::string after = stored();
    EXPECT_NE(after.find("Type_machine=Punch"), std::string::npos) << after;
    EXPECT_EQ(after.find("Vitcarton"), std::string::npos) << after;
    EXPECT_EQ(after.find("Fourchette=99"), std::string::npos) << "the searched width replaced it";

    EXPECT_EQ(convert({song, "--machine", "punch", "--defaults"}).out.at(0), "Gcode generation for punch perforator");
}

// The reference checker compares the holes of --out, --scale and the marks; here, which file
// is written and named.
TEST_F(CliConvert, OutAndMarksChooseTheProgramFile)
{
    const std::string out = (dir.path() / "mine.gcode").string();
    const ConvertRun run = convert({song, "--out", out, "--defaults"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.out.back(), out);
    EXPECT_TRUE(std::filesystem::exists(out));
    EXPECT_FALSE(std::filesystem::exists(temp() / "valse.gcode"));

    const ConvertRun marked = convert({song, "--defaults", "--start-mark", "2000", "--end-mark", "3500"});
    ASSERT_EQ(marked.exitCode, 0) << marked.err;
    // One report, for the program written between the marks.
    EXPECT_EQ(std::count(marked.out.begin(), marked.out.end(), "Gcode writing between marks"), 1);
    EXPECT_EQ(std::count(marked.out.begin(), marked.out.end(), "Ready to punch"), 1);
    EXPECT_EQ(marked.out.back(), (temp() / "valse_between marks.gcode").string());
    EXPECT_EQ(testing::holeYs(readText(marked.out.back())), (std::vector<double>{120, 180}));
    for (const char* mark : {"--start-mark", "--end-mark"}) {
        const ConvertRun one = convert({song, "--defaults", mark, "2000"});
        ASSERT_EQ(one.exitCode, 0) << one.err;
        EXPECT_EQ(std::count(one.out.begin(), one.out.end(), "Ready to punch"), 1) << mark;
    }

    // --out "" names no file: refused, not the Temp folder.
    std::filesystem::remove_all(temp());
    const ConvertRun empty = convert({song, "--defaults", "--out", ""});
    EXPECT_EQ(empty.exitCode, 2);
    EXPECT_NE(empty.err.find("--out \"\": name the program file to write"), std::string::npos) << empty.err;
    EXPECT_FALSE(std::filesystem::exists(temp() / "valse.gcode"));
}

// A song with no note of the scale still gives its program, and says it has no hole.
TEST_F(CliConvert, AProgramWithoutHolesSaysSo)
{
    testing::writeFile(song, testing::midiFile({}));
    const ConvertRun run = convert({song, "--defaults"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(run.has("Warning: No hole to cut: no note of the song lies in the organ scale; the program only "
                        "moves the machine"));
    testing::writeFile(dir.path() / "full.mid", testing::midiFile(testing::kFiveNotes));
    const ConvertRun notes = convert({(dir.path() / "full.mid").string(), "--defaults"});
    ASSERT_EQ(notes.exitCode, 0) << notes.err;
    EXPECT_FALSE(std::any_of(notes.out.begin(), notes.out.end(),
                             [](const std::string& line) { return line.starts_with("Warning: No hole"); }));
}

// A note past 9999999 ms cannot be written in the 7-digit time fields: decode says so and
// convert cuts no roll; a note just within is cut.
TEST_F(CliConvert, SongsPastTheTimeFieldsAreRefused)
{
    testing::writeFile(song, testing::midiFile({{0, 200, 60}, {10000000, 10001000, 62}}));
    const ConvertRun run = convert({song, "--defaults"});
    EXPECT_EQ(run.exitCode, 2) << run.err;
    EXPECT_NE(run.err.find("a note plays at 10001000 ms; songs longer than 9999999 ms (about 2 h 46 min) cannot be cut"),
              std::string::npos)
        << run.err;
    EXPECT_FALSE(std::filesystem::exists(temp() / "valse.gcode"));
    const testing::CliRun decoded = testing::runCli("", {"decode", song});
    EXPECT_EQ(decoded.exitCode, 1);
    EXPECT_NE(decoded.err.find("a note plays at 10001000 ms, past the 7-digit time fields"), std::string::npos)
        << decoded.err;

    testing::writeFile(song, testing::midiFile({{0, 200, 60}, {9998000, 9999000, 62}}));
    const ConvertRun within = convert({song, "--defaults", "--set", "Vitcarton=1"});
    EXPECT_EQ(within.exitCode, 0) << within.err;
}

// Broken numbers of a resume file and the scale it names refuse it; its stray lines are
// told in the log.
TEST_F(CliConvert, ABrokenResumeFileIsRefusedNamingTheLine)
{
    const auto rep = dir.path() / "valse.mid.rep";
    const std::pair<std::string, std::string> cases[] = {
        {song + "\r\nabc\r\n0\r\n7\r\n", "line 2 = \"abc\": the restart time must be a number of 0 ms or more"},
        {song + "\r\n1e400\r\n0\r\n7\r\n", "line 2 = \"1e400\""},
        {song + "\r\n-500\r\n0\r\n7\r\n", "line 2 = \"-500\""},
        {song + "\r\n0\r\nx\r\n7\r\n", "line 3 = \"x\""},
        {song + "\r\n0\r\n0\r\n7\r\nStandard=NoSuch\r\n", "Standard = \"NoSuch\": no such scale"},
        {song + "\r\n0\r\n0\r\n7\r\nLgponts=1e400\r\n", "Lgponts = \"1e400\": the bridge length must be a number"},
        {song + "\r\n0\r\n0\r\n7\r\nGen_entete=yes\r\n", "Gen_entete = \"yes\""},
    };
    for (const auto& [text, message] : cases) {
        testing::writeText(rep, text);
        const ConvertRun run = convert({rep.string(), "--defaults"});
        EXPECT_EQ(run.exitCode, 2) << message << "\n" << run.err;
        EXPECT_NE(run.err.find(message), std::string::npos) << run.err;
        EXPECT_FALSE(run.has("Ready to punch")) << message;
    }
    testing::writeText(rep, song + "\r\n0\r\n0\r\n7\r\nnot a setting\r\nVitcarton=60\r\n");
    const ConvertRun stray = convert({rep.string(), "--defaults"});
    ASSERT_EQ(stray.exitCode, 0) << stray.err;
    EXPECT_TRUE(stray.has("Warning: resume file line 5: not a setting (not key=value, skipped)"));
}

TEST_F(CliConvert, BadUsageAndUnreadableInputExitTwo)
{
    const std::string notMidi = (dir.path() / "notes.mid").string();
    testing::writeText(notMidi, "C D E F G\n");
    for (const auto& args : std::vector<std::vector<std::string>>{
             {song, "--set", "NoSuchKey=1"},
             {song, "--set", "Vitcarton"},
             {song, "--machine", "drill"},
             {song, "--scale", "Nothing like it"},
             {song, "--set", "Standard=Nothing like it"},
             {notMidi},
             {(dir.path() / "none.mid").string()},
             {(dir.path() / "none.mid.rep").string()},
             {song, "--start-mark", "soon"},
         }) {
        const ConvertRun run = convert(args);
        EXPECT_EQ(run.exitCode, 2) << args.back() << "\n" << run.err;
        EXPECT_FALSE(run.err.empty()) << args.back();
    }
    EXPECT_FALSE(std::filesystem::exists(configFile())) << "a refused run saves nothing";
}

// A file scale chosen in an earlier session whose file is gone: every note would be out of
// the scale and the width search would replace the stored width with its 1 mm tie.
TEST_F(CliConvert, StoredScaleWithoutItsFileIsRefused)
{
    store("Standard=Gone\nFourchette=7\n");
    const ConvertRun run = convert({song});
    EXPECT_EQ(run.exitCode, 2);
    EXPECT_NE(run.err.find("unknown scale \"Gone\""), std::string::npos) << run.err;
    EXPECT_NE(stored().find("Fourchette=7"), std::string::npos) << stored();
    EXPECT_EQ(convert({song, "--scale", "Kolby 27-29"}).exitCode, 0) << "a built-in scale for this run";
}

// Settings typed wrong in the dialog: the run ends with a message naming the key and its
// value, before anything is decoded or written.
TEST_F(CliConvert, RefusedSettingsNameTheKeyAndWriteNothing)
{
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"--set", "VitesseF=abc"}, "VitesseF = \"abc\": the laser feed must be a number above 0 (mm/min)"},
        {{"--set", "Laser_power=abc"}, "Laser_power = \"abc\": the laser power must be a whole number from 0 to 1000"},
        {{"--set", "Laser_power=5?0!"}, "Laser_power = \"5?0!\""},
        {{"--set", "Type_machine=Drill"}, "Type_machine = \"Drill\": the machine must be Laser or Punch"},
        {{"--machine", "punch", "--set", "L_poincon=0", "--set", "Lgponts=0"},
         "L_poincon = \"0\": the punch size along the roll must be a number above 0 (mm)"},
        {{"--machine", "punch", "--set", "L_poincon=0.01", "--set", "Lgponts=0"},
         "L_poincon = \"0.01\": L_poincon + Lgponts must be at least 0.06 mm (1 ms of roll)"},
        {{"--set", "Vitcarton=-60"}, "Vitcarton = \"-60\": the roll speed must be a number above 0 (mm/s)"},
        {{"--set", "Fourchette=abc"}, "Fourchette = \"abc\""},
        {{"--set", "Lgponts=1e400"}, "Lgponts = \"1e400\": the bridge length must be a number of 0 or more (mm)"},
        {{"--set", "Fourchette=1e400"}, "Fourchette = \"1e400\""},
        {{"--set", "Gen_entete=yes"}, "Gen_entete = \"yes\": the homing header must be 0 (not written) or 1 (written)"},
        {{"--set", "Ldecoupe=99999"}, "Ldecoupe = \"99999\": the hole size across the roll must be less than the track spacing"},
        {{"--machine", "punch", "--set", "MinHoleLength=99999"}, "MinHoleLength = \"99999\": the shortest hole must be at most 20 mm"},
        {{"--machine", "punch", "--set", "Vitcarton=1e300"}, "Vitcarton = \"1e300\": at this roll speed 1 ms of roll is 1e+297 mm"},
        // Only the song tells: its last hole ends at 4.2 s, at Y 126000 mm.
        {{"--set", "Vitcarton=30000", "--set", "Lgponts=0"}, "Vitcarton = \"30000\": the hole at 4.2 s of the song would lie at Y 126000 mm"},
    };
    for (const auto& [settings, message] : cases) {
        std::vector<std::string> args = {song, "--defaults"};
        args.insert(args.end(), settings.begin(), settings.end());
        const ConvertRun run = convert(args);
        EXPECT_EQ(run.exitCode, 2) << message << "\n" << run.err;
        EXPECT_NE(run.err.find(message), std::string::npos) << run.err;
        EXPECT_FALSE(run.has("Ready to punch")) << message;
        EXPECT_FALSE(std::filesystem::exists(temp() / "valse.gcode")) << message;
    }
    // "laser" in any case is the laser.
    const ConvertRun upper = convert({song, "--defaults", "--set", "Type_machine=LASER"});
    ASSERT_EQ(upper.exitCode, 0) << upper.err;
    EXPECT_EQ(upper.out.at(0), "Gcode generation for laser perforator");
    EXPECT_TRUE(readText(temp() / "valse.gcode").starts_with(";Laser gcode"));
}

TEST_F(CliConvert, MarksAreCheckedBeforeAnyProgramIsWritten)
{
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"--start-mark", "3000", "--end-mark", "2000"},
         "end mark = \"2000\": the end mark must come after the start mark (3000 ms)"},
        {{"--end-mark", "-300"}, "end mark = \"-300\": a mark must be a time from 0 to 9999999 ms"},
        {{"--start-mark", "nan"}, "start mark = \"nan\""},
        {{"--end-mark", "inf"}, "end mark = \"inf\""},
        {{"--start-mark", "10000000"}, "start mark = \"10000000\""},
    };
    for (const auto& [marks, message] : cases) {
        std::vector<std::string> args = {song, "--defaults"};
        args.insert(args.end(), marks.begin(), marks.end());
        const ConvertRun run = convert(args);
        EXPECT_EQ(run.exitCode, 2) << message << "\n" << run.err;
        EXPECT_NE(run.err.find(message), std::string::npos) << run.err;
        EXPECT_FALSE(std::filesystem::exists(temp() / "valse.gcode")) << message;
    }
}

TEST_F(CliConvert, OutNeverReplacesWhatIsReadNorAnythingButAFile)
{
    const auto folder = dir.path() / "a folder";
    std::filesystem::create_directories(folder);
    const auto link = dir.path() / "link.gcode";
    std::filesystem::create_symlink(song, link);
    const std::string fifo = (dir.path() / "pipe").string();
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string before = readText(song);
    const std::pair<std::string, std::string> cases[] = {
        {song, "that is " + song + ", which is read"},
        {(dir.path() / "." / "valse.mid").string(), "which is read"},
        {link.string(), "which is read"},
        {folder.string(), "a folder, not a file"},
        {fifo, "not a regular file"},
        {"/dev/null", "not a regular file"},
    };
    for (const auto& [out, message] : cases) {
        const ConvertRun run = convert({song, "--defaults", "--out", out});
        EXPECT_EQ(run.exitCode, 2) << out << "\n" << run.err;
        EXPECT_NE(run.err.find("--out " + out + ": "), std::string::npos) << run.err;
        EXPECT_NE(run.err.find(message), std::string::npos) << run.err;
    }
    EXPECT_EQ(readText(song), before) << "the song is untouched";
    // A resume file and the song it names are both read.
    const auto rep = dir.path() / "valse.mid.rep";
    testing::writeText(rep, song + "\r\n0\r\n0\r\n7\r\n");
    EXPECT_EQ(convert({rep.string(), "--defaults", "--out", song}).exitCode, 2);
    EXPECT_EQ(readText(song), before);
    // An existing program is replaced.
    const auto older = dir.path() / "older.gcode";
    testing::writeText(older, "old");
    const ConvertRun replaced = convert({song, "--defaults", "--out", older.string()});
    ASSERT_EQ(replaced.exitCode, 0) << replaced.err;
    EXPECT_TRUE(readText(older).starts_with(";Laser gcode"));
}

TEST_F(CliConvert, SongsThatCannotBeReadSayWhy)
{
    const auto folder = dir.path() / "songs";
    std::filesystem::create_directories(folder);
    const std::pair<std::string, std::string> cases[] = {
        {(dir.path() / "none.mid").string(), ": no such file"},
        {folder.string(), ": a folder, not a file"},
    };
    for (const auto& [input, reason] : cases) {
        const ConvertRun run = convert({input, "--defaults"});
        EXPECT_EQ(run.exitCode, 2);
        EXPECT_NE(run.err.find("cannot read " + input + reason), std::string::npos) << run.err;
    }
}

// Options stand before or after the song, --set included.
TEST_F(CliConvert, OptionsBeforeOrAfterTheSongAndAGivenWidthIsKept)
{
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"--defaults", "--set", "Fourchette=12", "--set", "Vitcarton=30", song},
             {song, "--set", "Fourchette=12", "--defaults", "--set", "Vitcarton=30"},
             {"--set", "Fourchette=12", song, "--set", "Vitcarton=30", "--defaults"},
         }) {
        const ConvertRun run = convert(args);
        ASSERT_EQ(run.exitCode, 0) << run.err;
        EXPECT_FALSE(run.has("Seeking for best optimizing width ")) << "a width given is used as given";
        EXPECT_TRUE(run.has("Travel optimizing 12(Width : 400)")) << "12 mm at 30 mm/s";
    }
    store("Fourchette=5\n");
    ASSERT_EQ(convert({song, "--set", "Fourchette=12"}).exitCode, 0);
    EXPECT_NE(stored().find("Fourchette=5"), std::string::npos) << "a --set is for this run only: " << stored();
}

// A file scale whose extension is written in capitals is listed and chosen by its name.
TEST_F(CliConvert, AScaleFileWithACapitalExtensionIsChosenByItsName)
{
    const auto folder = dir.path() / "Veltrin" / "Instruments";
    std::filesystem::create_directories(folder);
    testing::writeText(folder / "Upper.TXT", testing::kStreetOrgan);
    const ConvertRun run = convert({song, "--defaults", "--scale", "Upper"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    // The street organ plays notes 60 and 62 only: three of the five notes are out of it.
    EXPECT_TRUE(run.has("--->  3 notes are not in the organ scale"));

    // A scale file's warnings reach the terminal.
    testing::writeText(folder / "Twelve.txt", "60\n100\n7\n5\n0\n12\n60\n62\n");
    const ConvertRun warned = convert({song, "--defaults", "--scale", "Twelve"});
    ASSERT_EQ(warned.exitCode, 0) << warned.err;
    EXPECT_NE(warned.err.find("veltrin-cli convert: Warning: scale \"Twelve\": line 6: the track count is read from "
                              "its second character: \"12\" reads as 2 tracks"),
              std::string::npos)
        << warned.err;
}

// A settings file that is not one: said, with its path.
TEST_F(CliConvert, ASettingsFileThatCannotBeReadIsReported)
{
    store("Type_machine=Punch\n[Broken\n");
    const ConvertRun run = convert({song});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.err.find("Settings file is not in the settings format (what cannot be read takes its default): " +
                           configFile().string()),
              std::string::npos)
        << run.err;
}

TEST_F(CliConvert, DecoderErrorIsPrintedAndTheProgramStillWritten)
{
    auto bytes = testing::midiFile({{0, 200, 60}, {1000, 1200, 62}});
    bytes.resize(bytes.size() - 6);
    const auto cut = dir.path() / "cut.mid";
    testing::writeFile(cut, bytes);
    const ConvertRun run = convert({cut.string(), "--defaults"});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.err.find("*** Midifile corrupt, unexpected EOF.\n    Events processed until loc hex: "),
              std::string::npos)
        << run.err;
    EXPECT_EQ(run.out.back(), (temp() / "cut.gcode").string());
}

// A song with drums: channel 10's notes are pitches to no organ. They stay off the roll unless
// the channels say otherwise; the report counts them, names the notes the scale loses and
// tells what a transposition saves.
TEST_F(CliConvert, DrumsStayOffTheRollAndTheReportNamesWhatTheScaleLoses)
{
    // Channel 1: 51 53 56 58 60 63 65, which the 27-29 scale plays only three semitones down;
    // channel 10: a bass drum and a snare (36 and 38, which the scale does not play) and a
    // pedal hi-hat (44, which it plays once shifted). One tick is one ms.
    test::Bytes body;
    int at = 0;
    const auto note = [&](int start, int length, int key, int channel) {
        body = test::cat({body, test::msg(static_cast<std::uint32_t>(start - at), static_cast<std::uint8_t>(0x90 + channel - 1),
                                          static_cast<std::uint8_t>(key), 100),
                          test::msg(static_cast<std::uint32_t>(length), static_cast<std::uint8_t>(0x80 + channel - 1),
                                    static_cast<std::uint8_t>(key), 0)});
        at = start + length;
    };
    int t = 0;
    for (const int key : {51, 53, 56, 58, 60, 63, 65})
        note(t += 500, 300, key, 1);
    note(t += 500, 100, 36, 10);
    note(t += 500, 100, 38, 10);
    note(t += 500, 100, 63, 10);
    const auto drums = dir.path() / "drums.mid";
    testing::writeFile(drums, test::song(0, 500, {test::cat({body, test::kEndOfTrack})}));
    const auto holes = [&] { return testing::holeYs(readText(temp() / "drums.gcode")).size(); };

    ConvertRun run = convert({drums.string(), "--defaults"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(run.has("--->  4 notes are not in the organ scale"));
    const auto ready = std::find(run.out.begin(), run.out.end(), "Ready to punch");
    ASSERT_LE(std::distance(ready, run.out.end()), 6);
    EXPECT_EQ(std::vector<std::string>(ready + 1, ready + 5),
              (std::vector<std::string>{"", "Channel 10 left out (Channels = 1-9,11-16) : 3 notes",
                                        "Notes outside the organ scale : D#2 \u00d71 from 0:00.5, G#2 \u00d71 from 0:01.5, "
                                        "A#2 \u00d71 from 0:02.0, D#3 \u00d71 from 0:03.0",
                                        ""}));
    EXPECT_EQ(holes(), 3u);

    run = convert({drums.string(), "--defaults", "--set", "Transpose=auto"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(run.has("Transposed \u22123 (auto): 4 \u2192 0 notes lost"));
    EXPECT_FALSE(run.has("ATTENTION : "));
    EXPECT_EQ(holes(), 7u);

    run = convert({drums.string(), "--defaults", "--set", "Channels=1-16", "--set", "Transpose=-3"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(run.has("Transposed \u22123: 7 \u2192 2 notes lost"));
    EXPECT_TRUE(run.has("Notes outside the organ scale : A0 \u00d71 from 0:04.0, B0 \u00d71 from 0:04.5"));
    EXPECT_EQ(holes(), 8u) << "the hi-hat's 63, three down, is a pitch of the scale";
}

}  // namespace
}  // namespace veltrin
