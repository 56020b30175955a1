// veltrin-cli convert, run as a user would: the built program, with its Documents folder
// (VELTRIN_DOCUMENTS) and its settings (XDG_CONFIG_HOME) in a temporary folder.

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <sys/wait.h>
#include <vector>

#include "import/midi_bytes.h"
#include "import/temp_dir.h"

namespace veltrin {
namespace {

using testing::readText;
using testing::textLines;

struct CliRun {
    int exitCode = -1;
    std::vector<std::string> out;
    std::string err;
};

std::string quoted(const std::string& text)
{
    std::string result = "'";
    for (char c : text) {
        if (c == '\'')
            result += "'\\''";
        else
            result += c;
    }
    return result + "'";
}

class CliConvert : public ::testing::Test {
protected:
    CliConvert()
    {
        std::filesystem::create_directories(docs() / "Veltrin" / "Instruments");
        std::filesystem::create_directories(dir.path() / "config");
        song = (dir.path() / "valse.mid").string();
        testing::writeFile(song, testing::midiFile(testing::kFiveNotes));
    }

    std::filesystem::path docs() const { return dir.path() / "docs"; }
    std::filesystem::path temp() const { return docs() / "Veltrin" / "Temp"; }
    std::filesystem::path configFile() const { return dir.path() / "config" / "Veltrin" / "Veltrin.conf"; }
    std::string stored() const { return readText(configFile()); }

    void store(const std::string& startupLines)
    {
        std::filesystem::create_directories(configFile().parent_path());
        testing::writeText(configFile(), "[Startup]\n" + startupLines);
    }

    CliRun convert(const std::vector<std::string>& args) const
    {
        std::string command = "VELTRIN_DOCUMENTS=" + quoted(docs().string()) +
                              " XDG_CONFIG_HOME=" + quoted((dir.path() / "config").string()) +
                              " QT_QPA_PLATFORM=offscreen " + quoted(VELTRIN_CLI) + " convert";
        for (const std::string& arg : args) {
            command += ' ';
            command += quoted(arg);
        }
        const auto outFile = dir.path() / "stdout.txt";
        const auto errFile = dir.path() / "stderr.txt";
        command += " >";
        command += quoted(outFile.string());
        command += " 2>";
        command += quoted(errFile.string());
        const int status = std::system(command.c_str());
        CliRun run;
        run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        run.out = textLines(readText(outFile));
        run.err = readText(errFile);
        return run;
    }

    static bool has(const std::vector<std::string>& lines, const std::string& line)
    {
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }

    TempDir dir;
    std::string song;
};

TEST_F(CliConvert, PrintsTheImportLogThenTheProgramAndSavesTheChosenWidth)
{
    const CliRun run = convert({song});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    ASSERT_GE(run.out.size(), 4u);
    EXPECT_EQ(run.out[0], "Gcode generation for laser perforator");
    EXPECT_EQ(run.out[1], "Midi file de-assembling");
    EXPECT_EQ(run.out[2], "Seeking for best optimizing width ");
    EXPECT_TRUE(has(run.out, "Ready to punch"));
    EXPECT_FALSE(has(run.out, "Standard 27-29 notes Kolby")) << "the start-up log is not the import's";
    EXPECT_EQ(run.out.back(), (temp() / "valse.gcode").string());
    EXPECT_EQ(textLines(readText(temp() / "valse.gcode")).at(0), ";Laser gcode of the file : valse");
    EXPECT_NE(stored().find("Fourchette="), std::string::npos) << stored();
}

TEST_F(CliConvert, StoredSettingsApplyUnlessDefaultsAndSetIsNeverSaved)
{
    store("Type_machine=Punch\nFourchette=99\n");
    EXPECT_EQ(convert({song, "--defaults"}).out.at(0), "Gcode generation for laser perforator");
    EXPECT_NE(stored().find("Fourchette=99"), std::string::npos) << "--defaults saves nothing";

    const CliRun stored1 = convert({song, "--no-width-search"});
    ASSERT_EQ(stored1.exitCode, 0) << stored1.err;
    EXPECT_EQ(stored1.out.at(0), "Gcode generation for punch perforator");
    EXPECT_FALSE(has(stored1.out, "Seeking for best optimizing width "));

    const CliRun overridden = convert({song, "--set", "Type_machine=Laser", "--set", "Vitcarton=30"});
    ASSERT_EQ(overridden.exitCode, 0) << overridden.err;
    EXPECT_EQ(overridden.out.at(0), "Gcode generation for laser perforator");
    const std::string program = readText(temp() / "valse.gcode");
    EXPECT_NE(program.find(" Y120\r\n"), std::string::npos) << "4 s at 30 mm/s:\n" << program;
    const std::string after = stored();
    EXPECT_NE(after.find("Type_machine=Punch"), std::string::npos) << after;
    EXPECT_EQ(after.find("Vitcarton"), std::string::npos) << after;
    EXPECT_EQ(after.find("Fourchette=99"), std::string::npos) << "the searched width replaced it";
    EXPECT_NE(after.find("Fourchette="), std::string::npos) << after;

    EXPECT_EQ(convert({song, "--machine", "punch", "--defaults"}).out.at(0),
              "Gcode generation for punch perforator");
}

TEST_F(CliConvert, OutAndMarksChooseTheProgram)
{
    const std::string out = (dir.path() / "mine.gcode").string();
    const CliRun run = convert({song, "--out", out, "--defaults"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_EQ(run.out.back(), out);
    EXPECT_TRUE(std::filesystem::exists(out));
    EXPECT_FALSE(std::filesystem::exists(temp() / "valse.gcode"));

    const CliRun marked = convert({song, "--defaults", "--start-mark", "2000", "--end-mark", "3500"});
    ASSERT_EQ(marked.exitCode, 0) << marked.err;
    EXPECT_EQ(std::count(marked.out.begin(), marked.out.end(), "Gcode writing between marks"), 2);
    const auto partial = temp() / "valse_between marks.gcode";
    EXPECT_EQ(marked.out.back(), partial.string());
    const std::string program = readText(partial);
    EXPECT_NE(program.find("G92 X5 Y120 Z-1 ;Homing position at 5 mm from X origin and at 120 mm "
                           "from roll begining"),
              std::string::npos)
        << program;
    EXPECT_EQ(program.find(" Y240\r\n"), std::string::npos) << "the hole at 4 s is past the end mark";
}

TEST_F(CliConvert, ScaleFromTheInstrumentsFolder)
{
    testing::writeText(docs() / "Veltrin" / "Instruments" / "Tiny three.txt",
                       "// three tracks\r\n60\r\n100\r\n6.3\r\n4.2\r\n0\r\n 3\r\n60\r\n62\r\n64\r\n");
    const CliRun run = convert({song, "--defaults", "--scale", "Tiny three"});
    ASSERT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(has(run.out, "--->  2 notes are not in the organ scale"));

    const CliRun unknown = convert({song, "--defaults", "--scale", "Nothing like it"});
    EXPECT_EQ(unknown.exitCode, 2);
    EXPECT_NE(unknown.err.find("unknown scale"), std::string::npos) << unknown.err;
}

TEST_F(CliConvert, BadUsageAndUnreadableInputExitTwo)
{
    for (const auto& args : std::vector<std::vector<std::string>>{
             {song, "--set", "NoSuchKey=1"},
             {song, "--set", "Vitcarton"},
             {song, "--machine", "drill"},
             {(dir.path() / "none.mid").string()},
             {(dir.path() / "none.mid.rep").string()},
             {song, "--start-mark", "soon"},
         }) {
        const CliRun run = convert(args);
        EXPECT_EQ(run.exitCode, 2) << args.back() << "\n" << run.err;
        EXPECT_FALSE(run.err.empty()) << args.back();
    }
    EXPECT_FALSE(std::filesystem::exists(configFile())) << "a refused run saves nothing";
}

TEST_F(CliConvert, DecoderErrorIsPrintedAndTheProgramStillWritten)
{
    auto bytes = testing::midiFile({{0, 200, 60}, {1000, 1200, 62}});
    bytes.resize(bytes.size() - 6);
    const auto cut = dir.path() / "cut.mid";
    testing::writeFile(cut, bytes);
    const CliRun run = convert({cut.string(), "--defaults"});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.err.find("*** Midifile corrupt, unexpected EOF.\n    Events processed until loc hex: "),
              std::string::npos)
        << run.err;
    EXPECT_EQ(run.out.back(), (temp() / "cut.gcode").string());
}

TEST_F(CliConvert, RealSongsConvertWholly)
{
    for (const char* name : {"frere-jacques", "greensleeves", "lavenders-blue"}) {
        const std::string out = (dir.path() / (std::string(name) + ".gcode")).string();
        const CliRun run = convert({std::string(TEST_DATA_DIR) + "/midi/" + name + ".mid", "--defaults", "--out", out});
        ASSERT_EQ(run.exitCode, 0) << name << "\n" << run.err;
        EXPECT_TRUE(run.err.empty()) << name << "\n" << run.err;
        const auto program = textLines(readText(out));
        ASSERT_FALSE(program.empty()) << name;
        EXPECT_EQ(program.front(), std::string(";Laser gcode of the file : ") + name);
        EXPECT_EQ(program.back(), "G0 M5 S0");
        EXPECT_GT(testing::holeYs(readText(out)).size(), 10u) << name;
    }
}

}  // namespace
}  // namespace veltrin
