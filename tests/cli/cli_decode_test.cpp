// veltrin-cli decode, run as a process: lines on stdout, messages on stderr, exit codes.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "midi/midi_builder.h"
#include "support/run_cli.h"

namespace veltrin {
namespace {

using namespace test;
using testing::CliRun;

class CliDecode : public ::testing::Test {
protected:
    std::string write(const std::string& name, const Bytes& bytes)
    {
        const std::string path = (m_dir.path() / name).string();
        testing::writeText(path, std::string(bytes.begin(), bytes.end()));
        return path;
    }

    static CliRun run(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), "decode");
        return testing::runCli("", arguments);
    }

    testing::TempDir m_dir;
};

// Tempo 1000000 us per quarter; pedal down, a note released under it, pedal up at tick 200.
const Bytes kPedalSong = song(0, 500, {cat({tempoEvent(0, 1000000), msg(0, 0xB0, 64, 127),
                                            msg(0, 0x90, 60, 100), msg(100, 0x80, 60, 0),
                                            msg(100, 0xB0, 64, 0), kEndOfTrack})});

TEST_F(CliDecode, PrintsTheLinesWithTheOptionsGiven)
{
    const std::string path = write("pedal.mid", kPedalSong);
    // The pedal ends the note at tick 200: 200 ms at 120 BPM, 400 ms at the file's 60.
    const CliRun both = run({"--sustain", "--tempo", "120", path});
    EXPECT_EQ(both.exitCode, 0);
    EXPECT_EQ(both.err, "");
    EXPECT_EQ(both.out, "TEMP 0000000 000000 1000000\n"
                        "CONC 0000000 000000 00001 00064 00127\n"
                        "CONC 0000200 000200 00001 00064 00000\n"
                        "NOTE 0000000 000200 00001 00060 00200 00100 C3\n"
                        "NOOF 0000200 000200 00001\n"
                        "ENDF 9999999\n"
                        "HEAD ##10000  " + path + " 00200\n");
    EXPECT_NE(run({"--sustain", path}).out.find("\nNOTE 0000000 000200 00001 00060 00400 "),
              std::string::npos);
}

TEST_F(CliDecode, ADecoderErrorKeepsTheLinesAndExitsOne)
{
    Bytes cut = kPedalSong;
    cut.resize(cut.size() - 10);  // the note-off at 0x25 loses its last byte
    const CliRun result = run({write("cut.mid", cut)});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.out, "TEMP 0000000 000000 1000000\nCONC 0000000 000000 00001 00064 00127\n");
    EXPECT_EQ(result.err,
              "*** Midifile corrupt, unexpected EOF.\r\n    Events processed until loc hex: 25\n");
}

TEST_F(CliDecode, UnreadableFileOrBadUsageExitsTwoAndHelpExitsZero)
{
    const std::string song = write("song.mid", kPedalSong);
    const std::vector<std::vector<std::string>> usages = {
        {(m_dir.path() / "missing.mid").string()}, {m_dir.str()}, {}, {"--tempo", "fast", song},
        {"--tempo", "0", song}, {"--bogus", song}};
    for (const auto& arguments : usages) {
        SCOPED_TRACE(::testing::PrintToString(arguments));
        const CliRun result = run(arguments);
        EXPECT_EQ(result.exitCode, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_NE(result.err, "");
    }
    const CliRun help = run({"--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_NE(help.out.find("--sustain"), std::string::npos);
    EXPECT_NE(help.out.find("--tempo"), std::string::npos);
}

}  // namespace
}  // namespace veltrin
