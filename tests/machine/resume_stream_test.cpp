// Resume files made by the real stream path: veltrin-cli convert and stream against the Grbl
// emulator on a pseudo-terminal, with a scale file at 80 mm/s while the stored scale turns
// 60, and the settings changed between the interruption and the resume.

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "base/numeric_text.h"
#include "machine/grbl_protocol.h"
#include "midi/resume_file.h"
#include "support/emulator_process.h"
#include "support/midi_bytes.h"

namespace veltrin {
namespace {

using test::EmulatorProcess;

std::string fileText(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

struct CliRun {
    int exitCode = -1;
    std::string out;
};

class ResumeStream : public ::testing::Test {
protected:
    void SetUp() override
    {
        EmulatorProcess::ensureApplication();
        ASSERT_TRUE(dir.isValid());
        std::filesystem::create_directories(instruments());
        testing::writeText(instruments() / "Street 80.txt",
                           "// street organ at 80 mm/s\r\n80\r\n120\r\n7\r\n5\r\n150\r\n 12\r\n60\r\n62\r\n64\r\n"
                           "65\r\n67\r\n69\r\n71\r\n72\r\n74\r\n76\r\n77\r\n79\r\n");
        std::vector<testing::TestNote> notes;
        const int scale[] = {60, 62, 64, 65, 67, 69, 71, 72, 74, 76, 77, 79};
        for (int i = 0; i < 160; ++i)
            notes.push_back({i * 120, i * 120 + 80 + (i * 53) % 700, scale[(i * 5) % 12]});
        testing::writeFile(song(), testing::midiFile(notes));
    }

    std::filesystem::path root() const { return dir.path().toStdString(); }
    std::filesystem::path instruments() const { return root() / "Veltrin" / "Instruments"; }
    std::string song() const { return (root() / "song.mid").string(); }
    std::string config() const { return (root() / "config" / "Veltrin" / "Veltrin.conf").string(); }
    void store(const std::string& startupLines) const
    {
        std::filesystem::create_directories(root() / "config" / "Veltrin");
        testing::writeText(config(), "[Startup]\n" + startupLines);
    }

    CliRun cli(const QStringList& arguments, QProcess* running = nullptr) const
    {
        QProcess own;
        QProcess& process = running ? *running : own;
        auto env = QProcessEnvironment::systemEnvironment();
        env.insert("XDG_CONFIG_HOME", QString::fromStdString((root() / "config").string()));
        env.insert("VELTRIN_DOCUMENTS", dir.path());
        process.setProcessEnvironment(env);
        process.start(QStringLiteral(VELTRIN_CLI), arguments);
        CliRun run;
        if (running || !process.waitForStarted(5000))
            return run;
        process.closeWriteChannel();
        if (!process.waitForFinished(60000)) {
            process.kill();
            process.waitForFinished(2000);
            return run;
        }
        run.exitCode = process.exitCode();
        run.out = process.readAllStandardOutput().toStdString();
        return run;
    }

    // Interrupts a job (stopEmulator: the board's port disappears mid-job, else the emulator
    // hangs up by itself), changes the stored settings, resumes, and checks that no hole of
    // the first program is both possibly uncut and missing from the resumed one.
    void interruptAndResume(const std::string& settings, const QStringList& emulatorOptions, bool stopEmulator)
    {
        store(settings);
        const std::string first = (root() / "first.gcode").string();
        const CliRun convert = cli({"convert", QString::fromStdString(song()), "--out", QString::fromStdString(first)});
        ASSERT_EQ(convert.exitCode, 0) << convert.out;
        const auto program = testing::textLines(fileText(first));
        ASSERT_TRUE(std::filesystem::exists(programRecordPath(first)));
        // Streamed once the stored scale is the built-in one at 60 mm/s: the hole times come
        // from the program's record all the same.
        store("Standard=Kolby 27-29\n");

        EmulatorProcess emulator(QStringList(emulatorOptions) << "--speed" << "0" << "--boot-ms" << "100"
                                                             << "--record" << dir.filePath("record.txt"));
        ASSERT_TRUE(emulator.start()) << emulator.errorText().toStdString();
        QProcess streaming;
        // No --song: the program's record file names it.
        cli({"stream", QString::fromStdString(first), "--port", emulator.portPath()}, &streaming);
        if (stopEmulator) {
            QElapsedTimer clock;
            clock.start();
            while (testing::textLines(fileText(dir.filePath("record.txt").toStdString())).size() < 250 &&
                   clock.elapsed() < 20000) {
                QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
                usleep(1000);
            }
            emulator.stop();
        }
        ASSERT_TRUE(streaming.waitForFinished(30000));
        const std::string streamOut = streaming.readAllStandardOutput().toStdString();
        EXPECT_EQ(streaming.exitCode(), 1) << streamOut;
        EXPECT_NE(streamOut.find("Port closed: punch interrupted"), std::string::npos) << streamOut;

        const auto resume = readResumeFile(resumePathFor(song()));
        ASSERT_TRUE(resume.ok()) << resume.detail();
        EXPECT_EQ(resume->songPath, song());
        EXPECT_EQ(settingValue(resume->settings, "Standard"), "Street 80");
        EXPECT_EQ(settingValue(resume->settings, "Vitcarton"), "80");
        ASSERT_GT(resume->restartLine, 20);
        ASSERT_LT(static_cast<std::size_t>(resume->restartLine), program.size());

        // The operator has moved on: the stored scale, machine, band width and cleanup differ.
        const std::string changed =
            "Standard=Kolby 27-29\nType_machine=Laser\nVitcarton=60\nFourchette=3\nRollCleanup=1\nLgponts=2\n";
        store(changed);
        const std::string second = (root() / "second.gcode").string();
        const CliRun again = cli({"convert", QString::fromStdString(resumePathFor(song())), "--out",
                               QString::fromStdString(second)});
        ASSERT_EQ(again.exitCode, 0) << again.out;
        EXPECT_NE(again.out.find("Resume file value kept: Standard=Street 80 (settings: Kolby 27-29)"),
                  std::string::npos)
            << again.out;
        EXPECT_EQ(fileText(config()), "[Startup]\n" + changed) << "nothing of the resume file is saved";

        // A hole is its travel line "G0 X.. Y..": the same settings give the same text. Surely
        // cut: 16 motion lines acknowledged after its last line (Grbl's planner holds 16).
        const auto rest = testing::textLines(fileText(second));
        const std::set<std::string> resumed(rest.begin(), rest.end());
        const auto isHole = [](const std::string& line) { return line.starts_with("G0 X") && line.find(" Y") != std::string::npos; };
        const auto isMotion = [](const std::string& line) {
            const std::string text = lineToSend(line);
            return (text.starts_with("G0 ") || text.starts_with("G1 ")) && text.find_first_of("XYZ") != std::string::npos;
        };
        const auto acknowledged = static_cast<std::size_t>(resume->restartLine);
        int motionsAfter = 0;  // motions acknowledged after the current line
        int missing = 0;
        int uncut = 0;
        std::vector<int> after(program.size() + 1, 0);
        for (std::size_t i = acknowledged; i-- > 0;) {
            after[i] = motionsAfter;
            if (isMotion(program[i]))
                ++motionsAfter;
        }
        for (std::size_t i = 0; i < program.size(); ++i) {
            if (!isHole(program[i]))
                continue;
            std::size_t end = i + 1;
            while (end < program.size() && !isHole(program[end]))
                ++end;
            const bool cut = end <= acknowledged && after[end - 1] >= 16;
            if (!cut) {
                ++uncut;
                if (!resumed.count(program[i])) {
                    ++missing;
                    ADD_FAILURE() << "hole " << program[i] << " (line " << i << ") not cut for sure and not resumed";
                }
            }
        }
        EXPECT_EQ(missing, 0);
        EXPECT_GT(uncut, 0);
    }

    QTemporaryDir dir;
};

TEST_F(ResumeStream, LaserOnAFileScaleHangsUpAndResumesWithItsOwnRollSpeed)
{
    interruptAndResume("Standard=Street 80\nType_machine=Laser\nRollCleanup=1\n", {"--hangup-after", "300"}, false);
}

TEST_F(ResumeStream, PunchWhoseBoardDisappearsResumesWithoutCleanup)
{
    interruptAndResume("Standard=Street 80\nType_machine=Punch\nRollCleanup=0\n", {}, true);
}

TEST_F(ResumeStream, ProgramWithoutItsRecordIsTimedWithTheCurrentSettings)
{
    store("");
    const std::string hand = (root() / "hand.gcode").string();
    testing::writeText(hand, ";Laser gcode of the file : hand\r\nG0 X10 Y10\r\nG0 M5 S0\r\n");
    const CliRun run = cli({"stream", QString::fromStdString(hand), "--simulate"});
    EXPECT_EQ(run.exitCode, 0) << run.out;
    EXPECT_NE(run.out.find("No settings file beside the program (" + programRecordPath(hand) +
                           "): its holes are timed with the current settings"),
              std::string::npos)
        << run.out;

    // A record written for another text is no record of this program.
    testing::writeText(programRecordPath(hand), "Song=/x.mid\r\nProgramHash=0123456789abcdef\r\nVitcarton=80\r\n");
    const CliRun other = cli({"stream", QString::fromStdString(hand), "--simulate"});
    EXPECT_NE(other.out.find("The settings file beside the program was written for another program"),
              std::string::npos)
        << other.out;
}

}  // namespace
}  // namespace veltrin
