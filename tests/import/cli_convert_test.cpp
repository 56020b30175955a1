// veltrin-cli convert, run as a user would: the built program, with its Documents folder
// (VELTRIN_DOCUMENTS) and its settings (XDG_CONFIG_HOME) in a temporary folder.

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "import/midi_bytes.h"
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
    EXPECT_EQ(std::count(marked.out.begin(), marked.out.end(), "Gcode writing between marks"), 2);
    EXPECT_EQ(marked.out.back(), (temp() / "valse_between marks.gcode").string());
    EXPECT_EQ(testing::holeYs(readText(marked.out.back())), (std::vector<double>{120, 180}));
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

// Settings typed wrong in the dialog: the run ends with a reason instead of hanging on a
// split that never advances, or sending Grbl a real-time command inside the power.
TEST_F(CliConvert, SettingsThatCannotMakeARoll)
{
    const ConvertRun stuck = convert({song, "--defaults", "--machine", "punch", "--set", "L_poincon=0", "--set", "Lgponts=0"});
    EXPECT_EQ(stuck.exitCode, 1);
    EXPECT_NE(stuck.err.find("L_poincon + Lgponts must be at least 0.06 mm"), std::string::npos) << stuck.err;
    const ConvertRun backwards = convert({song, "--defaults", "--set", "Vitcarton=-60"});
    EXPECT_EQ(backwards.exitCode, 1);
    EXPECT_NE(backwards.err.find("Vitcarton is below 0"), std::string::npos) << backwards.err;
    EXPECT_FALSE(std::filesystem::exists(temp() / "valse.gcode"));

    const ConvertRun power = convert({song, "--defaults", "--set", "Laser_power=5?0!"});
    ASSERT_EQ(power.exitCode, 0) << power.err;
    EXPECT_NE(readText(temp() / "valse.gcode").find("\r\nM3 S50 ;Laser power 50. M3 = constant power\r\n"),
              std::string::npos);
}

TEST_F(CliConvert, ProgramThatCannotBeWrittenSaysWhy)
{
    const auto folder = dir.path() / "a folder";
    std::filesystem::create_directories(folder);
    const ConvertRun run = convert({song, "--defaults", "--out", folder.string()});
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("the program was not written: " + folder.string() + ": Is a directory"), std::string::npos)
        << run.err;
    EXPECT_FALSE(std::filesystem::exists(folder.string() + ".tmp")) << "no half-written file is left";
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

}  // namespace
}  // namespace veltrin
