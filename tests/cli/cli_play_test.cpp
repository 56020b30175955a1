// veltrin-cli play and midi-ports, run as a user would. Real time plays on the built-in
// synthesizer into ALSA's null device (an .asoundrc in the test's HOME), so no sound card is
// needed and nothing is heard.

#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "support/midi_bytes.h"
#include "support/run_cli.h"

namespace veltrin {
namespace {

class CliPlay : public ::testing::Test {
protected:
    CliPlay()
    {
        // The five notes of the 27-29 scale, then note 59, which it has no track for.
        std::vector<testing::TestNote> notes = testing::kFiveNotes;
        notes.push_back({5000, 5200, 59});
        testing::writeFile(song, testing::midiFile(notes));
        testing::writeText(dir.path() / ".asoundrc", "pcm.!default { type null }\n");
    }

    std::string environment() const
    {
        return "HOME=" + testing::quoted(dir.str()) + " PULSE_SERVER=/nonexistent VELTRIN_DOCUMENTS=" +
               testing::quoted(dir.str()) + " XDG_CONFIG_HOME=" + testing::quoted((dir.path() / "config").string());
    }

    testing::CliRun play(std::vector<std::string> args) const
    {
        args.insert(args.begin(), {"play", song, "--defaults"});
        return testing::runCli(environment(), args);
    }

    static bool hasSequencer() { return std::filesystem::exists("/dev/snd/seq"); }

    testing::TempDir dir;
    std::string song = (dir.path() / "valse.mid").string();
    std::string wav = (dir.path() / "valse.wav").string();
};

TEST_F(CliPlay, WavRenderingPlaysTheSongOrTheRollBetweenTheMarks)
{
    struct Case {
        std::vector<std::string> options;
        std::string said;
    };
    // The song ends with note 59 at 5.2 s; the roll with the last hole at 4.2 s; a second
    // of sound follows the last note.
    const Case cases[] = {
        {{}, ": 6.2 s of the song\n"},
        {{"--roll"}, ": 5.2 s of the roll\n"},
        {{"--start-mark", "1000", "--end-mark", "3000"}, ": 3.0 s of the song\n"},
        {{"--roll", "--start-mark", "2000"}, ": 3.2 s of the roll\n"},
    };
    for (const Case& c : cases) {
        std::vector<std::string> args = c.options;
        args.insert(args.end(), {"--wav", wav});
        const testing::CliRun run = play(args);
        SCOPED_TRACE(run.err);
        EXPECT_EQ(run.exitCode, 0);
        EXPECT_EQ(run.out, wav + c.said);
        EXPECT_TRUE(std::filesystem::exists(wav));
        std::filesystem::remove(wav);
    }
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "Veltrin" / "Temp" / "valse.gcode")) << "play writes no program";
}

TEST_F(CliPlay, WhatCannotBePlayedIsToldWithExit2)
{
    struct Case {
        std::vector<std::string> args;
        std::string message;
    };
    std::vector<Case> cases = {
        {{"--wav", dir.str()}, "a folder, not a file"},
        {{"--wav", song}, "that is the song"},
        {{"--wav", wav, "--soundfont", "/no/such.sf2"}, "sound font /no/such.sf2: no such file"},
        {{"--wav", wav, "--start-mark", "3000", "--end-mark", "1000"}, "mark"},
        {{"--wav", wav, "--set", "Vitcarton=0"}, "Vitcarton"},
        {{"--wav", wav, "--scale", "Nowhere"}, "unknown scale \"Nowhere\""},
        {{"--synth", "--port", "x"}, "excludes"},
    };
    if (!hasSequencer())
        cases.push_back({{"--port", "USB"}, "no MIDI output: the ALSA sequencer is not there"});
    for (const Case& c : cases) {
        const testing::CliRun run = play(c.args);
        EXPECT_EQ(run.exitCode, 2) << c.message;
        EXPECT_NE(run.err.find(c.message), std::string::npos) << run.err;
        EXPECT_FALSE(std::filesystem::exists(wav));
    }
    const testing::CliRun missing = testing::runCli(environment(), {"play", song + ".not-there"});
    EXPECT_EQ(missing.exitCode, 2);
    EXPECT_NE(missing.err.find("no such file"), std::string::npos) << missing.err;
}

TEST_F(CliPlay, RealTimeOnTheSynthesizerPlaysToTheEndOrStopsAtCtrlC)
{
    const testing::CliRun whole = play({"--synth", "--start-mark", "4000"});
    if (whole.err.find("no audio device") != std::string::npos)
        GTEST_SKIP() << whole.err;
    ASSERT_EQ(whole.exitCode, 0) << whole.err;
    EXPECT_NE(whole.out.find("on Built-in synthesizer"), std::string::npos) << whole.out;
    EXPECT_NE(whole.out.find("End of the song"), std::string::npos) << whole.out;

    // A minute of song, stopped after a second.
    testing::writeFile(song, testing::midiFile({{0, 60000, 60}}));
    const testing::TempDir scratch;
    const std::string out = (scratch.path() / "out").string();
    const std::string command = environment() + " sh -c '" + VELTRIN_CLI + " play " + song +
                                " --defaults --synth >" + out + " 2>&1 & p=$!; sleep 1; kill -INT $p; wait $p'";
    const int status = std::system(command.c_str());
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_NE(testing::readText(out).find("Stopped: every note switched off"), std::string::npos)
        << testing::readText(out);
}

TEST_F(CliPlay, MidiPortsListsTheOutputsOrSaysThereIsNone)
{
    const testing::CliRun run = testing::runCli(environment(), {"midi-ports"});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    if (!hasSequencer()) {
        EXPECT_EQ(run.out, "");
        EXPECT_NE(run.err.find("no MIDI output to play on: the ALSA sequencer is not there"), std::string::npos)
            << run.err;
    } else {
        EXPECT_TRUE(run.out.empty() || run.out.starts_with("0: ")) << run.out;
    }
}

}  // namespace
}  // namespace veltrin
