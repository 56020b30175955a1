// veltrin-cli fold, fold-file and flash as a user runs them, against the emulator started as a
// user starts it (veltrin-cli emulate --link).

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "support/run_cli.h"

namespace veltrin {
namespace {

using Lines = std::vector<std::string>;

const std::string kSong = std::string(TEST_DATA_DIR) + "/../../examples/au-clair-de-la-lune.mid";

Lines fileLines(const std::filesystem::path& path)
{
    std::ifstream file(path);
    Lines lines;
    for (std::string line; std::getline(file, line);) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        lines.push_back(line);
    }
    return lines;
}

class CliFold : public ::testing::Test {
protected:
    ~CliFold() override
    {
        if (m_emulatorPid > 0)
            ::kill(m_emulatorPid, SIGTERM);
    }
    std::string environment() const
    {
        return "VELTRIN_DOCUMENTS=" + testing::quoted(dir.str()) +
               " XDG_CONFIG_HOME=" + testing::quoted((dir.path() / "config").string());
    }
    testing::CliRun run(const std::vector<std::string>& args) const { return testing::runCli(environment(), args); }
    std::string port() const { return (dir.path() / "grbl").string(); }
    Lines received() const { return fileLines(dir.path() / "record.txt"); }

    // `veltrin-cli emulate --link` in the background, until the test ends.
    void startEmulator(const std::string& speed)
    {
        const std::string pidFile = (dir.path() / "emulator.pid").string();
        const std::string command = testing::quoted(VELTRIN_CLI) + " emulate --speed " + speed + " --boot-ms 100 --link " +
                                    testing::quoted(port()) + " --record " +
                                    testing::quoted((dir.path() / "record.txt").string()) +
                                    " >/dev/null 2>&1 & echo $! > " + testing::quoted(pidFile);
        ASSERT_EQ(std::system(command.c_str()), 0);
        for (int i = 0; i < 500 && !std::filesystem::exists(port()); ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        ASSERT_TRUE(std::filesystem::exists(port()));
        std::ifstream(pidFile) >> m_emulatorPid;
    }

    testing::TempDir dir;

private:
    pid_t m_emulatorPid = -1;
};

// The forward marking on the default scale (29 tracks) until Ctrl-C.
TEST_F(CliFold, CtrlCFinishesTheFoldInProgress)
{
    // The board moves (20 times real time), so the marking is still on its first folds when
    // Ctrl-C comes, right after the first fold's travel was received.
    startEmulator("20");
    const std::string out = (dir.path() / "out").string();
    const std::string command = environment() + " " + testing::quoted(VELTRIN_CLI) + " fold --defaults --port " +
                                testing::quoted(port()) + " >" + testing::quoted(out) +
                                " 2>&1 & pid=$!; for i in $(seq 400); do grep -q 'G0 Y0 X5.3' " +
                                testing::quoted((dir.path() / "record.txt").string()) +
                                " 2>/dev/null && break; sleep 0.05; done; kill -INT $pid; wait $pid";
    const int status = std::system(command.c_str());
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << testing::readText(out);
    const Lines sent = received();
    // "$$", the preamble, whole folds of a travel and 29 dashes, laser off.
    ASSERT_GE(sent.size(), 65u);
    EXPECT_EQ((Lines(sent.begin(), sent.begin() + 8)),
              (Lines{"$$", "$HX", "G92 X5 Y0", "M3 S1000", "F800", "G0 Y0 X5.3", "G0 X5.3", "G1 X7.3"}));
    EXPECT_EQ((sent.size() - 6) % 59, 0u) << "whole folds only";
    EXPECT_EQ(sent[sent.size() - 2], "G1 X124.9") << "the last track's dash";
    EXPECT_EQ(sent.back(), "M5 S0");
    EXPECT_NE(testing::readText(out).find("Folds marked : " + std::to_string((sent.size() - 6) / 59)),
              std::string::npos);
}

TEST_F(CliFold, BackwardRefusedOnABoardThatLostTheJobsCoordinates)
{
    startEmulator("0");
    const auto result = run({"fold", "--port", port(), "--backward-from-mm", "500", "--defaults"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_NE(result.err.find("coordinates of the job are gone"), std::string::npos) << result.err;
    for (const std::string& line : received())
        EXPECT_TRUE(line.empty() || line.starts_with("$")) << "nothing moved: " << line;
}

TEST_F(CliFold, FoldFileCoversTheSongsRollAndLeavesItsProgramAlone)
{
    const auto result = run({"fold-file", kSong, "--defaults"});
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const auto temp = dir.path() / "Veltrin" / "Temp";
    EXPECT_EQ(result.out, "Roll of 2040 mm: 14 folds of 160 mm\n" + (temp / "au-clair-de-la-lune_folds.gcode").string() + "\n");
    const Lines lines = fileLines(temp / "au-clair-de-la-lune_folds.gcode");
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), [](const std::string& l) { return l.starts_with("G0 Y"); }), 14);
    EXPECT_NE(std::find(lines.begin(), lines.end(), "G0 Y2080 X5.3"), lines.end());
    EXPECT_FALSE(std::filesystem::exists(temp / "au-clair-de-la-lune.gcode"));

    const auto punch = run({"fold-file", kSong, "--defaults", "--machine", "punch"});
    EXPECT_EQ(punch.exitCode, 2);
    EXPECT_NE(punch.err.find("laser"), std::string::npos) << punch.err;
}

TEST_F(CliFold, FlashRunsAvrdudeOnlyAfterYes)
{
    startEmulator("0");
    const auto standIn = dir.path() / "avrdude";
    testing::writeText(standIn, "#!/bin/sh\nprintf '%s\\n' \"$@\" > \"$(dirname \"$0\")/args\"\necho 'avrdude done.  Thank you.'\n");
    std::filesystem::permissions(standIn, std::filesystem::perms::owner_all);
    const auto image = dir.path() / "grbl.hex";
    testing::writeText(image, ":00000001FF\n");
    const std::vector<std::string> flash = {"flash", "--port", port(), "--board", "nano-old", "--image", image.string(),
                                            "--avrdude", standIn.string(), "--defaults"};

    const auto no = run(flash);  // no terminal: No
    EXPECT_EQ(no.exitCode, 1);
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "args"));

    std::vector<std::string> yes = flash;
    yes.push_back("--yes");
    const auto done = run(yes);
    EXPECT_EQ(done.exitCode, 0) << done.out << done.err;
    const Lines args = fileLines(dir.path() / "args");
    ASSERT_EQ(args.size(), 7u);
    EXPECT_EQ(args[4], "-b57600");
    EXPECT_EQ(args[6], "-Uflash:w:" + image.string() + ":i");
    EXPECT_NE(done.out.find("avrdude done.  Thank you.\nUpload done"), std::string::npos) << done.out;
}

}  // namespace
}  // namespace veltrin
