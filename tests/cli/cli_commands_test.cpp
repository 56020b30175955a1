// veltrin-cli as a user runs it: the version, the settings listing, option order, and the
// files that stream and decode refuse.

#include <sys/stat.h>

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "app/setting_meanings.h"
#include "base/settings.h"
#include "support/midi_bytes.h"
#include "support/run_cli.h"

namespace veltrin {
namespace {

class Cli : public ::testing::Test {
protected:
    testing::CliRun run(const std::vector<std::string>& args) const
    {
        return testing::runCli("VELTRIN_DOCUMENTS=" + testing::quoted(dir.str()) + " XDG_CONFIG_HOME=" +
                                   testing::quoted((dir.path() / "config").string()),
                               args);
    }
    std::filesystem::path configFile() const { return dir.path() / "config" / "Veltrin" / "Veltrin.conf"; }

    testing::TempDir dir;
};

TEST_F(Cli, VersionIsTheProjects)
{
    const testing::CliRun version = run({"--version"});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_EQ(version.out, std::string("veltrin-cli ") + VELTRIN_VERSION + "\n");
}

TEST_F(Cli, SettingsListsEveryKeyWithStoredValueDefaultUnitAndMeaning)
{
    std::filesystem::create_directories(configFile().parent_path());
    testing::writeText(configFile(), "[Startup]\nVitesseF=950\n");
    const testing::CliRun listing = run({"settings"});
    ASSERT_EQ(listing.exitCode, 0) << listing.err;
    const std::vector<std::string> lines = testing::textLines(listing.out);
    ASSERT_EQ(lines.size(), settingKeys().size() + 1) << listing.out;
    EXPECT_TRUE(lines[0].starts_with("KEY ")) << lines[0];
    const auto lineOf = [&](const std::string& key) {
        for (const std::string& line : lines) {
            if (line.starts_with(key + " "))
                return line;
        }
        return std::string();
    };
    // Columns are split by two blanks or more.
    const auto columns = [](const std::string& line) {
        std::vector<std::string> cells;
        std::size_t at = 0;
        while (at < line.size()) {
            std::size_t gap = line.find("  ", at);
            if (gap == std::string::npos)
                gap = line.size();
            if (gap > at)
                cells.push_back(line.substr(at, gap - at));
            at = line.find_first_not_of(' ', gap);
            if (at == std::string::npos)
                break;
        }
        return cells;
    };
    EXPECT_EQ(columns(lineOf("VitesseF")), (std::vector<std::string>{"VitesseF", "950", "800", "mm/min", "laser cutting feed"}));
    EXPECT_EQ(columns(lineOf("Talon")).at(1), "-") << "not stored";
    EXPECT_EQ(columns(lineOf("Talon")).at(2), "6.3");
    for (const SettingKey& entry : settingKeys())
        EXPECT_FALSE(lineOf(std::string(entry.key)).empty()) << entry.key;
}

TEST(SettingMeanings, EveryKeyOfTheStoreHasOne)
{
    for (const SettingKey& entry : settingKeys()) {
        const SettingMeaning* meaning = settingMeaning(entry.key);
        ASSERT_NE(meaning, nullptr) << entry.key;
        EXPECT_FALSE(meaning->meaning.empty()) << entry.key;
    }
    EXPECT_EQ(settingMeaning("NoSuchKey"), nullptr);
}

TEST_F(Cli, StreamRefusesWhatIsNotAProgram)
{
    const auto folder = dir.path() / "programs";
    std::filesystem::create_directories(folder);
    const auto empty = dir.path() / "empty.gcode";
    testing::writeText(empty, "");
    const auto midi = dir.path() / "song.mid";
    testing::writeText(midi, std::string("MThd\0\0\0\6\0\0\0\1\0\x60", 14));
    const auto binary = dir.path() / "image.gcode";
    testing::writeText(binary, std::string("G0 X1\r\n\x01\x02\x03", 10));
    const auto prose = dir.path() / "notes.gcode";
    testing::writeText(prose, "; my notes\nbuy more card\n");
    const std::string fifo = (dir.path() / "pipe").string();
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::pair<std::string, std::string> cases[] = {
        {(dir.path() / "none.gcode").string(), "no such file"},
        {folder.string(), "a folder, not a file"},
        {fifo, "not a regular file (a device, a pipe or a socket)"},
        {empty.string(), "an empty file"},
        {midi.string(), "a MIDI file, not a G-code program (convert it first)"},
        {binary.string(), "not a text file (byte 0x01 at offset 7)"},
        {prose.string(), "not a G-code program (line 2: \"buy more card\")"},
    };
    for (const auto& [path, reason] : cases) {
        const testing::CliRun stream = run({"stream", path, "--simulate", "--defaults"});
        EXPECT_EQ(stream.exitCode, 2) << path << "\n" << stream.err;
        EXPECT_EQ(stream.err, "veltrin-cli stream: cannot send " + path + ": " + reason + "\n");
    }
}

// Options before or after the program or song: a --set before the program does not take it.
TEST_F(Cli, OptionsStandBeforeOrAfterTheFileInEveryCommand)
{
    const auto program = dir.path() / "tiny.gcode";
    testing::writeText(program, ";Laser gcode of the file : tiny\r\nG0 X1 Y1\r\nG0 M5 S0\r\n");
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"stream", "--set", "Lgponts=0", program.string(), "--simulate", "--defaults"},
             {"stream", "--simulate", program.string(), "--set", "Lgponts=0", "--defaults"},
             {"stream", "--defaults", "--set", "Lgponts=0", "--set", "Fourchette=3", "--simulate", program.string()},
         }) {
        const testing::CliRun stream = run(args);
        EXPECT_EQ(stream.exitCode, 0) << args[1] << "\n" << stream.err;
        EXPECT_NE(stream.out.find("End of punch"), std::string::npos) << stream.out;
    }
    const auto song = dir.path() / "empty.mid";
    testing::writeText(song, std::string("MThd\0\0\0\6\0\0\0\1\0\x60MTrk\0\0\0\4\0\xff\x2f\0", 26));
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"decode", "--sustain", song.string(), "--tempo", "100"},
             {"decode", song.string(), "--tempo", "100", "--sustain"},
         }) {
        const testing::CliRun decode = run(args);
        EXPECT_EQ(decode.exitCode, 0) << decode.err;
        EXPECT_NE(decode.out.find("HEAD"), std::string::npos) << decode.out;
    }
}

TEST_F(Cli, DecodeSaysWhyAFileCannotBeRead)
{
    const auto folder = dir.path() / "songs";
    std::filesystem::create_directories(folder);
    for (const auto& [path, reason] : std::vector<std::pair<std::string, std::string>>{
             {(dir.path() / "none.mid").string(), "no such file"}, {folder.string(), "a folder, not a file"}}) {
        const testing::CliRun decode = run({"decode", path});
        EXPECT_EQ(decode.exitCode, 2);
        EXPECT_EQ(decode.err, "veltrin-cli decode: cannot read " + path + ": " + reason + "\n");
    }
}

}  // namespace
}  // namespace veltrin
