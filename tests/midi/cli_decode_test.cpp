// veltrin-cli decode, run as a process: lines on stdout, messages on stderr, exit codes.

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "midi/mdlvert.h"
#include "midi_builder.h"

namespace veltrin {
namespace {

namespace fs = std::filesystem;
using test::Bytes;

struct CliRun {
    int exitCode = -1;
    std::string out;
    std::string err;
};

class CliDecode : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_dir = fs::temp_directory_path() /
                ("veltrin-cli-decode-" + std::to_string(::getpid()) + "-" +
                 ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::create_directories(m_dir);
    }
    void TearDown() override { fs::remove_all(m_dir); }

    std::string writeFile(const std::string& name, const Bytes& bytes)
    {
        const fs::path path = m_dir / name;
        std::ofstream(path, std::ios::binary)
            .write(reinterpret_cast<const char*>(bytes.data()),
                   static_cast<std::streamsize>(bytes.size()));
        return path.string();
    }

    CliRun run(const std::string& arguments)
    {
        const fs::path out = m_dir / "stdout.txt";
        const fs::path err = m_dir / "stderr.txt";
        const std::string command = std::string("'") + VELTRIN_CLI + "' " + arguments + " > '" +
                                    out.string() + "' 2> '" + err.string() + "'";
        const int status = std::system(command.c_str());
        CliRun result;
        result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        result.out = slurp(out);
        result.err = slurp(err);
        return result;
    }

    static std::string slurp(const fs::path& path)
    {
        std::ifstream file(path, std::ios::binary);
        std::ostringstream text;
        text << file.rdbuf();
        return text.str();
    }

    static std::string joined(const std::vector<std::string>& lines)
    {
        std::string text;
        for (const std::string& line : lines)
            text += line + "\n";
        return text;
    }

    fs::path m_dir;
};

// Pedal down, a note released under it, pedal up; a tempo event of 1000000 us per quarter.
const Bytes kPedalSong = test::song(0, 500, {test::cat({test::tempoEvent(0, 1000000),
                                                        test::msg(0, 0xB0, 64, 127),
                                                        test::msg(0, 0x90, 60, 100),
                                                        test::msg(100, 0x80, 60, 0),
                                                        test::msg(100, 0xB0, 64, 0),
                                                        test::kEndOfTrack})});

TEST_F(CliDecode, PrintsTheEventLinesOfASong)
{
    const std::string path = std::string(TEST_DATA_DIR) + "/midi/frere-jacques.mid";
    const CliRun result = run("decode '" + path + "'");
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(result.err, "");
    std::ifstream golden(std::string(TEST_DATA_DIR) + "/midi/frere-jacques.events");
    std::string expected;
    for (std::string line; std::getline(golden, line);)
        expected += line.starts_with("HEAD") ? "HEAD ##10000  " + path + " 45333\n" : line + "\n";
    EXPECT_EQ(result.out, expected);
}

TEST_F(CliDecode, PassesSustainAndTempoToTheDecoder)
{
    const std::string path = writeFile("pedal.mid", kPedalSong);
    DecodeOptions options;
    options.sustain = true;
    options.forcedTempoBpm = 120;
    const CliRun both = run("decode --sustain --tempo 120 '" + path + "'");
    EXPECT_EQ(both.exitCode, 0) << both.err;
    EXPECT_EQ(both.out, joined(Vertalen(kPedalSong, path, options).lines));
    // The pedal makes the note end at tick 200: 200 ms at 120 BPM, 400 ms at the file's 60.
    EXPECT_NE(both.out.find("NOTE 0000000 000200 00001 00060 00200 00100 C3\n"), std::string::npos);
    EXPECT_NE(run("decode --sustain '" + path + "'").out.find(" 000200 00001 00060 00400 "),
              std::string::npos);
}

TEST_F(CliDecode, ADecoderErrorKeepsTheLinesAndExitsOne)
{
    Bytes cut = kPedalSong;
    cut.resize(cut.size() - 10);  // the note-off at 0x25 loses its last byte
    const std::string path = writeFile("cut.mid", cut);
    const CliRun result = run("decode '" + path + "'");
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, joined(Vertalen(cut, path).lines));
    EXPECT_FALSE(result.out.empty());
    EXPECT_EQ(result.err,
              "*** Midifile corrupt, unexpected EOF.\r\n    Events processed until loc hex: 25\n");
}

TEST_F(CliDecode, UnreadableFileOrBadUsageExitsTwo)
{
    const std::string song = writeFile("song.mid", kPedalSong);
    for (const std::string& arguments :
         {"decode '" + (m_dir / "missing.mid").string() + "'", "decode '" + m_dir.string() + "'",
          std::string("decode"), "decode --tempo fast '" + song + "'",
          "decode --tempo 0 '" + song + "'", "decode --bogus '" + song + "'"}) {
        const CliRun result = run(arguments);
        EXPECT_EQ(result.exitCode, 2) << arguments;
        EXPECT_EQ(result.out, "") << arguments;
        EXPECT_FALSE(result.err.empty()) << arguments;
    }
}

TEST_F(CliDecode, HelpDescribesTheOptions)
{
    const CliRun result = run("decode --help");
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_NE(result.out.find("--sustain"), std::string::npos);
    EXPECT_NE(result.out.find("--tempo"), std::string::npos);
}

}  // namespace
}  // namespace veltrin
