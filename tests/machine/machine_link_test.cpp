// The machine link through the real QSerialPort code, against the Grbl emulator on a
// pseudo-terminal. Every wait has a hard upper bound.

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <set>

#include "app/app_state.h"
#include "app/numeric_text.h"
#include "machine/emulator_process.h"
#include "machine/serial_port_qt.h"
#include "midi/resume_file.h"

namespace veltrin {
namespace {

using test::EmulatorProcess;

// Runs the event loop until done() or timeoutMs; true when done.
bool waitUntil(const std::function<bool()>& done, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > timeoutMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        usleep(200);
    }
    return true;
}

std::vector<std::string> readLines(const QString& path)
{
    std::ifstream file(path.toStdString());
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    return lines;
}

// A laser program as the writer makes it: title, header, power line, one rectangle of five
// lines per hole, tool off.
std::vector<std::string> laserProgram(int holes, double stepMm = 1.0)
{
    std::vector<std::string> lines = {";Laser gcode of the file : test", "$HX ;X origin search",
                                      "G92 X5 Y0 Z-1 ;Homing position at 5 mm from X origin",
                                      "M3 S1000 ;Laser power 1000. M3 = constant power"};
    for (int h = 0; h < holes; ++h) {
        const double x = 6.3 + (h % 20) * 4.2;
        const double y = h * stepMm;
        const std::string X = plainNumber(x), Y = plainNumber(y);
        lines.push_back("G0 X" + X + " Y" + Y);
        lines.push_back("G1 X" + plainNumber(x + 3) + " F800");
        lines.push_back("G1 Y" + plainNumber(y + 2) + " F800");
        lines.push_back("G1 X" + X + " F800");
        lines.push_back("G1 Y" + Y + " F800");
    }
    lines.push_back("G0 M5 S0");
    return lines;
}

// What Grbl should receive of a program: each line without its comment, empty ones left out.
std::vector<std::string> sentLines(const std::vector<std::string>& program)
{
    std::vector<std::string> out;
    for (const auto& line : program) {
        std::string text = lineToSend(line);
        if (!text.empty())
            out.push_back(text);
    }
    return out;
}

class MachineLinkTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        if (QCoreApplication::instance() == nullptr) {
            static int argc = 1;
            static char name[] = "machine_link_tests";
            static char* argv[] = {name, nullptr};
            static QCoreApplication application(argc, argv);
        }
        port = std::make_unique<MachinePort>(state);
        ASSERT_TRUE(dir.isValid());
        qputenv("XDG_CONFIG_HOME", dir.filePath("config").toUtf8());
        remplir_glossaire(state.Liste_commentaires_grbl);
        QObject::connect(port.get(), &MachinePort::jobEnded, [this](JobOutcome o) { outcomes.push_back(o); });
        QObject::connect(port.get(), &MachinePort::detectionFinished, [this](bool found) { detections.push_back(found); });
    }

    // Starts the emulator with these options plus a record file and a short boot.
    void startEmulator(QStringList options)
    {
        options << "--record" << recordPath();
        if (!options.contains("--speed"))
            options << "--speed" << "0";
        if (!options.contains("--boot-ms"))
            options << "--boot-ms" << "100";
        emulator = std::make_unique<EmulatorProcess>(options);
        ASSERT_TRUE(emulator->start()) << emulator->errorText().toStdString();
    }
    QString recordPath() const { return dir.filePath("record.txt"); }

    void connect(int timeoutMs = 8000)
    {
        ASSERT_TRUE(port->openPort(emulator->portPath()));
        ASSERT_TRUE(waitUntil([this] { return !detections.empty(); }, timeoutMs));
        ASSERT_TRUE(detections.back());
    }
    JobProgram job(std::vector<std::string> lines)
    {
        JobProgram p;
        p.lines = std::move(lines);
        p.fileName = "test.gcode";
        return p;
    }
    bool logHas(const std::string& text) const
    {
        return state.user_msg_list.text().find(text) != std::string::npos;
    }

    QTemporaryDir dir;
    AppState state;
    std::unique_ptr<MachinePort> port;
    std::unique_ptr<EmulatorProcess> emulator;
    std::vector<JobOutcome> outcomes;
    std::vector<bool> detections;
};

TEST_F(MachineLinkTest, DetectsGrblByItsWelcomeText)
{
    startEmulator({});
    QElapsedTimer clock;
    clock.start();
    connect();
    EXPECT_LT(clock.elapsed(), 2500);
    EXPECT_TRUE(state.connecte);
    EXPECT_TRUE(state.ouvre_midi_actif);
    EXPECT_TRUE(logHas("Grbl 1.1h ['$' for help]\r\n"));
}

TEST_F(MachineLinkTest, DetectsASlowBoardAfterTheSecondWait)
{
    // The "\r" of the second wait falls into the boot loader; the welcome text that follows
    // still ends the detection well.
    startEmulator({"--boot-ms", "3200"});
    connect(8000);
    EXPECT_TRUE(logHas(" < Grbl 1.1h ['$' for help]\r\n"));
    EXPECT_FALSE(logHas("No Grbl"));
}

TEST_F(MachineLinkTest, SilentPortSaysNoGrblOnThisBoard)
{
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(grantpt(master), 0);
    ASSERT_EQ(unlockpt(master), 0);
    const QString slave = QString::fromLocal8Bit(ptsname(master));
    ASSERT_TRUE(port->openPort(slave));
    ASSERT_TRUE(waitUntil([this] { return !detections.empty(); }, 8000));
    EXPECT_FALSE(detections.back());
    EXPECT_TRUE(logHas("No Grbl on this board\r\n"));
    EXPECT_TRUE(state.connecte);
    EXPECT_FALSE(state.ouvre_midi_actif);
    char buffer[16] = {};
    const ssize_t got = read(master, buffer, sizeof buffer);
    EXPECT_EQ(std::string(buffer, got > 0 ? static_cast<std::size_t>(got) : 0), "\r");
    port->closePort();
    close(master);
}

TEST_F(MachineLinkTest, LongJobArrivesWholeAndInOrder)
{
    startEmulator({});
    connect();
    const auto program = laserProgram(420);
    ASSERT_GE(program.size(), 2000u);
    ASSERT_TRUE(port->punch(job(program)));
    ASSERT_TRUE(waitUntil([this] { return !outcomes.empty(); }, 60000));
    EXPECT_EQ(outcomes[0], JobOutcome::EndOfPunch);
    EXPECT_EQ(readLines(recordPath()), sentLines(program));
    EXPECT_EQ(port->link().job().okCount(), sentLines(program).size());
    EXPECT_TRUE(logHas("End of punch\r\n"));
}

TEST_F(MachineLinkTest, SplitRepliesAreStillOneResponseEach)
{
    startEmulator({"--split-replies"});
    connect();
    const auto program = laserProgram(40);
    ASSERT_TRUE(port->punch(job(program)));
    ASSERT_TRUE(waitUntil([this] { return !outcomes.empty(); }, 30000));
    EXPECT_EQ(outcomes[0], JobOutcome::EndOfPunch);
    EXPECT_EQ(readLines(recordPath()), sentLines(program));
}

TEST_F(MachineLinkTest, PauseResumeAndStopInTheMiddle)
{
    // 20 mm moves at F800 last 1.5 s; at 50 times the speed, 30 ms.
    startEmulator({"--speed", "50"});
    connect();
    const auto program = laserProgram(300, 20.0);
    ASSERT_TRUE(port->punch(job(program)));
    ASSERT_TRUE(waitUntil([this] { return port->link().job().progress() >= 100; }, 30000));
    port->link().Pause_button_Click();
    port->carryOut();
    ASSERT_TRUE(waitUntil([this] { return logHas("Hit Continue to resume"); }, 10000));
    const std::size_t paused = port->link().job().progress();
    waitUntil([] { return false; }, 400);
    EXPECT_EQ(port->link().job().progress(), paused);

    port->link().Pause_button_Click();
    port->carryOut();
    ASSERT_TRUE(waitUntil([&] { return port->link().job().progress() >= paused + 20; }, 20000));

    port->link().Stop_button_Click();
    port->carryOut();
    ASSERT_TRUE(waitUntil([this] { return !outcomes.empty(); }, 10000));
    EXPECT_EQ(outcomes[0], JobOutcome::Cancelled);
    EXPECT_TRUE(logHas("Punch cancelled\r\n"));
    EXPECT_FALSE(logHas("End of punch"));
    const auto record = readLines(recordPath());
    ASSERT_FALSE(record.empty());
    EXPECT_EQ(record.back(), "M5");
    // Before the "M5", the lines received are the program's first ones, in order.
    const auto expected = sentLines(program);
    ASSERT_LT(record.size() - 1, expected.size());
    for (std::size_t i = 0; i + 1 < record.size(); ++i)
        ASSERT_EQ(record[i], expected[i]) << "line " << i;
}

TEST_F(MachineLinkTest, ErrorHoldsTheJobAndStopStillWorks)
{
    // Lines count from power-up: the job's first line ("$HX") is line 1.
    startEmulator({"--error-at", "60:20"});
    connect();
    const auto program = laserProgram(100);
    ASSERT_TRUE(port->punch(job(program)));
    ASSERT_TRUE(waitUntil([this] { return port->link().job().held(); }, 20000));
    EXPECT_TRUE(logHas("(error:20): punch held"));
    const std::size_t held = port->link().job().progress();
    EXPECT_EQ(held, 61u);  // the title line and 60 lines answered
    waitUntil([] { return false; }, 300);
    EXPECT_EQ(port->link().job().progress(), held);
    port->link().Stop_button_Click();
    port->carryOut();
    ASSERT_TRUE(waitUntil([this] { return !outcomes.empty(); }, 10000));
    EXPECT_EQ(outcomes[0], JobOutcome::Cancelled);
    const auto record = readLines(recordPath());
    ASSERT_EQ(record.size(), 61u);
    EXPECT_EQ(record.back(), "M5");
}

TEST_F(MachineLinkTest, HangUpLeavesAResumeFileAtTheFirstLineNotAcknowledged)
{
    startEmulator({"--hangup-after", "300"});
    connect();
    JobProgram p = job(laserProgram(200));
    p.songPath = dir.filePath("song.mid").toStdString();
    p.Fourchette = "7";
    p.Vitcarton = 1000;  // Y in mm is then the start time in ms
    ASSERT_TRUE(port->punch(p));
    ASSERT_TRUE(waitUntil([this] { return !outcomes.empty(); }, 20000));
    EXPECT_EQ(outcomes[0], JobOutcome::PortLost);
    EXPECT_FALSE(state.connecte);
    auto resume = readResumeFile(resumePathFor(p.songPath));
    ASSERT_TRUE(resume.ok());
    EXPECT_EQ(resume->songPath, p.songPath);
    EXPECT_EQ(resume->Fourchette, "7");
    // 300 lines acknowledged: the title line, the 3 header lines and 296 hole lines, so
    // line 300 (the 60th hole's second line) is the first not acknowledged; that hole starts
    // at 59 mm.
    EXPECT_EQ(resume->restartLine, 301);
    EXPECT_DOUBLE_EQ(resume->restartMs, 59);
}

class TwoRolls : public JobHost {
public:
    bool hasNextRoll() override { return next < rolls.size(); }
    int rollGapMm() override { return 120; }
    std::optional<JobProgram> openNextRoll() override
    {
        JobProgram p;
        p.lines = rolls[next++];
        p.fileName = "roll.gcode";
        return p;
    }
    void askYesNo(std::string_view question, bool, std::function<void(bool)> answer) override
    {
        questions.emplace_back(question);
        answer(false);
    }
    void showMessage(std::string_view) override {}
    void startBackwardFolds() override {}

    std::vector<std::vector<std::string>> rolls;
    std::size_t next = 0;
    std::vector<std::string> questions;
};

TEST_F(MachineLinkTest, NextRollFollowsAfterTheRollGap)
{
    startEmulator({});
    connect();
    TwoRolls host;
    const auto first = laserProgram(30);
    auto second = laserProgram(20);
    second[5] = "G1 X99 F800 ;second roll";
    host.rolls = {second};
    port->link().setHost(&host);
    ASSERT_TRUE(port->punch(job(first)));
    ASSERT_TRUE(waitUntil([this] { return outcomes.size() == 2; }, 30000));
    EXPECT_EQ(outcomes[1], JobOutcome::EndOfPunch);
    std::vector<std::string> expected = sentLines(first);
    expected.push_back("$J=G91Y120F800");
    for (const auto& line : sentLines(second))
        expected.push_back(line);
    EXPECT_EQ(readLines(recordPath()), expected);
    EXPECT_EQ(host.questions, std::vector<std::string>{"Cutting folds backwardly ?"});
    port->link().setHost(nullptr);
}

// --- veltrin-cli stream and console ---

struct CliRun {
    int exitCode = -1;
    std::string out;
    std::string err;
};

CliRun runCli(const QStringList& arguments, const QByteArray& input, const QString& configDir, int timeoutMs)
{
    QProcess process;
    auto env = QProcessEnvironment::systemEnvironment();
    env.insert("XDG_CONFIG_HOME", configDir);
    process.setProcessEnvironment(env);
    process.start(QStringLiteral(VELTRIN_CLI), arguments);
    CliRun run;
    if (!process.waitForStarted(5000))
        return run;
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished(2000);
        return run;
    }
    run.exitCode = process.exitCode();
    run.out = process.readAllStandardOutput().toStdString();
    run.err = process.readAllStandardError().toStdString();
    return run;
}

TEST_F(MachineLinkTest, CliStreamPunchesAFile)
{
    startEmulator({});
    const auto program = laserProgram(100);
    const QString path = dir.filePath("song.gcode");
    {
        std::ofstream file(path.toStdString(), std::ios::binary);
        for (const auto& line : program)
            file << line << "\r\n";
    }
    const CliRun run = runCli({"stream", path, "--port", emulator->portPath(), "--defaults"}, {},
                              dir.filePath("config"), 30000);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find(">  G0 X6.3 Y0  < ok\n"), std::string::npos);
    EXPECT_NE(run.out.find("\nEnd of punch\n"), std::string::npos);
    EXPECT_EQ(readLines(recordPath()), sentLines(program));
}

TEST_F(MachineLinkTest, CliStreamStopsOnTheFirstInterrupt)
{
    startEmulator({"--speed", "20"});
    const auto program = laserProgram(200, 20.0);
    const QString path = dir.filePath("slow.gcode");
    {
        std::ofstream file(path.toStdString());
        for (const auto& line : program)
            file << line << "\n";
    }
    QProcess process;
    auto env = QProcessEnvironment::systemEnvironment();
    env.insert("XDG_CONFIG_HOME", dir.filePath("config"));
    process.setProcessEnvironment(env);
    process.start(QStringLiteral(VELTRIN_CLI), {"stream", path, "--port", emulator->portPath(), "--defaults"});
    ASSERT_TRUE(process.waitForStarted(5000));
    QByteArray out;
    ASSERT_TRUE(waitUntil([&] {
        out += process.readAllStandardOutput();
        return out.count("< ok") >= 40;
    }, 20000));
    ::kill(static_cast<pid_t>(process.processId()), SIGINT);
    ASSERT_TRUE(process.waitForFinished(10000));
    out += process.readAllStandardOutput();
    EXPECT_EQ(process.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(process.exitCode(), 1);
    EXPECT_TRUE(out.contains("Punch cancelled\n")) << out.toStdString();
    const auto record = readLines(recordPath());
    ASSERT_FALSE(record.empty());
    EXPECT_EQ(record.back(), "M5");
    EXPECT_LT(record.size(), sentLines(program).size());
}

TEST_F(MachineLinkTest, PortGivenAsASymlinkWorks)
{
    const QString link = dir.filePath("ttyGRBL");
    startEmulator({"--link", link});
    ASSERT_TRUE(port->openPort(link));
    ASSERT_TRUE(waitUntil([this] { return !detections.empty(); }, 8000));
    EXPECT_TRUE(detections.back());
}

TEST_F(MachineLinkTest, CliStreamWithoutAMachineFails)
{
    const QString path = dir.filePath("song.gcode");
    std::ofstream(path.toStdString()) << "G0 X1 Y1\n";
    const CliRun run = runCli({"stream", path, "--port", dir.filePath("no-such-port"), "--defaults"}, {},
                              dir.filePath("config"), 10000);
    EXPECT_EQ(run.exitCode, 1);
    const CliRun missing = runCli({"stream", dir.filePath("missing.gcode"), "--port", "x", "--defaults"}, {},
                                  dir.filePath("config"), 10000);
    EXPECT_EQ(missing.exitCode, 2);
}

TEST_F(MachineLinkTest, ResumeFileOfAnInterruptedJobRegeneratesEveryHoleNotMade)
{
    const QString song = dir.filePath("song.mid");
    ASSERT_TRUE(QFile::copy(QStringLiteral(TEST_DATA_DIR "/midi/greensleeves.mid"), song));
    const QString config = dir.filePath("config");
    const QString first = dir.filePath("first.gcode");
    const CliRun convert = runCli({"convert", song, "--defaults", "--out", first}, {}, config, 60000);
    ASSERT_EQ(convert.exitCode, 0) << convert.err;
    const auto program = readLines(first);
    ASSERT_GT(program.size(), 500u);

    startEmulator({"--hangup-after", "400"});
    const CliRun stream = runCli({"stream", first, "--port", emulator->portPath(), "--defaults", "--song", song}, {},
                                 config, 30000);
    EXPECT_EQ(stream.exitCode, 1) << stream.err;
    EXPECT_NE(stream.out.find("Port closed: punch interrupted"), std::string::npos);

    auto resume = readResumeFile(resumePathFor(song.toStdString()));
    ASSERT_TRUE(resume.ok());
    ASSERT_GT(resume->restartLine, 0);
    ASSERT_LT(static_cast<std::size_t>(resume->restartLine), program.size());

    const QString second = dir.filePath("second.gcode");
    const CliRun again = runCli({"convert", song + ".rep", "--defaults", "--out", second}, {}, config, 60000);
    ASSERT_EQ(again.exitCode, 0) << again.err;
    const auto rest = readLines(second);
    std::set<std::string> restLines;
    for (auto line : rest) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        restLines.insert(line);
    }

    // The hole of the first line not acknowledged, and every hole after it, is in the new
    // program (a hole starts with its travel move "G0 X.. Y..").
    const auto isHole = [](const std::string& line) {
        return line.starts_with("G0 X") && line.find(" Y") != std::string::npos;
    };
    std::size_t from = static_cast<std::size_t>(resume->restartLine);
    while (from > 0 && !isHole(program[from]))
        --from;
    int holes = 0;
    for (std::size_t i = from; i < program.size(); ++i) {
        std::string line = program[i];
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        if (!isHole(line))
            continue;
        ++holes;
        EXPECT_TRUE(restLines.count(line)) << "missing hole " << line << " (line " << i << ")";
    }
    EXPECT_GT(holes, 0);
}

TEST_F(MachineLinkTest, CliConsoleAnswersEachCommandThenEndsWithItsInput)
{
    startEmulator({"--factory-settings"});
    const CliRun run = runCli({"console", "--port", emulator->portPath(), "--defaults"}, "$$\nG5\n$J=G91X50F800\n",
                              dir.filePath("config"), 20000);
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("$$\n$0=10 (Step pulse time)\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("G5\nerror:20\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("$J=G91X50F800\nok\n"), std::string::npos) << run.out;
    EXPECT_EQ(readLines(recordPath()), (std::vector<std::string>{"$$", "G5", "$J=G91X50F800"}));
}

}  // namespace
}  // namespace veltrin
