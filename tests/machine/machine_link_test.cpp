// The machine link through the real QSerialPort code and veltrin-cli, against the Grbl emulator
// on a pseudo-terminal. Every wait has an upper bound.

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QDir>
#include <QSerialPort>
#include <QTemporaryDir>

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <set>

#include "app/app_state.h"
#include "base/numeric_text.h"
#include "machine/serial_port_qt.h"
#include "midi/resume_file.h"
#include "support/emulator_process.h"
#include "support/wait_until.h"

namespace veltrin {
namespace {

using test::EmulatorProcess;

using testing::waitUntil;

std::vector<std::string> readLines(const QString& path)
{
    std::ifstream file(path.toStdString());
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        lines.push_back(line);
    }
    return lines;
}

void writeLines(const QString& path, const std::vector<std::string>& lines, const char* end = "\n")
{
    std::ofstream file(path.toStdString(), std::ios::binary);
    for (const auto& line : lines)
        file << line << end;
}

// A laser program as the writer makes it: title, header, a rectangle of five lines per hole, tool off.
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

// What Grbl should receive of a program: the checks after the soft reset ("$I", and "$$" for a
// laser), then each line without its comment, empty ones left out.
std::vector<std::string> sentLines(const std::vector<std::string>& program, bool laser = true)
{
    std::vector<std::string> out = {"$I"};
    if (laser)
        out.push_back("$$");
    for (const auto& line : program) {
        if (std::string text = lineToSend(line); !text.empty())
            out.push_back(text);
    }
    return out;
}

struct CliRun {
    int exitCode = -1;
    std::string out;
    std::string err;
};

void startCli(QProcess& process, const QStringList& arguments, const QString& configDir)
{
    auto env = QProcessEnvironment::systemEnvironment();
    env.insert("XDG_CONFIG_HOME", configDir);
    process.setProcessEnvironment(env);
    process.start(QStringLiteral(VELTRIN_CLI), arguments);
}

CliRun runCli(const QStringList& arguments, const QString& configDir, const QByteArray& input = {})
{
    QProcess process;
    startCli(process, arguments, configDir);
    CliRun run;
    if (!process.waitForStarted(5000))
        return run;
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(60000)) {
        process.kill();
        process.waitForFinished(2000);
        return run;
    }
    run.exitCode = process.exitCode();
    run.out = process.readAllStandardOutput().toStdString();
    run.err = process.readAllStandardError().toStdString();
    return run;
}

// A pseudo-terminal whose other end is held and never answers.
struct SilentPty {
    SilentPty() : master(posix_openpt(O_RDWR | O_NOCTTY))
    {
        if (master >= 0 && grantpt(master) == 0 && unlockpt(master) == 0)
            path = QString::fromLocal8Bit(ptsname(master));
    }
    ~SilentPty()
    {
        if (master >= 0)
            close(master);
    }
    SilentPty(const SilentPty&) = delete;
    SilentPty& operator=(const SilentPty&) = delete;
    int master;
    QString path;
};

class MachineLinkTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        EmulatorProcess::ensureApplication();
        ASSERT_TRUE(dir.isValid());
        qputenv("XDG_CONFIG_HOME", config().toUtf8());
        port = std::make_unique<MachinePort>(state);
        remplir_glossaire(state.Liste_commentaires_grbl);
        QObject::connect(port.get(), &MachinePort::jobEnded, [this](JobOutcome o) { outcomes.push_back(o); });
        QObject::connect(port.get(), &MachinePort::detectionFinished, [this](bool found) { detections.push_back(found); });
        QObject::connect(port.get(), &MachinePort::scanFinished, [this](bool found) { scans.push_back(found); });
        // Pseudo-terminals are not in the system's list of ports: the scan and the watcher get this one.
        port->setPortLister([this] { return listed; });
    }

    // Starts the emulator with these options, a record file, speed 0 and a short boot unless given.
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
    QString config() const { return dir.filePath("config"); }
    std::vector<std::string> record() const { return readLines(recordPath()); }

    void connect(QString path = {})
    {
        ASSERT_TRUE(port->openPort(path.isEmpty() ? emulator->portPath() : path));
        ASSERT_TRUE(waitUntil([this] { return !detections.empty(); }, 8000));
        ASSERT_TRUE(detections.back());
    }
    void punch(const std::vector<std::string>& lines)
    {
        JobProgram p;
        p.lines = lines;
        p.fileName = "test.gcode";
        ASSERT_TRUE(port->punch(p));
    }
    void click(void (GrblLink::*button)())
    {
        (port->link().*button)();
        port->carryOut();
    }
    bool logHas(const std::string& text) const { return state.user_msg_list.text().find(text) != std::string::npos; }
    int logCount(const std::string& text) const
    {
        const std::string log = state.user_msg_list.text();
        int count = 0;
        for (auto at = log.find(text); at != std::string::npos; at = log.find(text, at + text.size()))
            ++count;
        return count;
    }

    QTemporaryDir dir;
    AppState state;
    std::unique_ptr<MachinePort> port;
    std::unique_ptr<EmulatorProcess> emulator;
    std::vector<JobOutcome> outcomes;
    std::vector<bool> detections;
    std::vector<bool> scans;
    QStringList listed;
};

TEST_F(MachineLinkTest, DetectsGrblByItsWelcomeTextThroughASymlink)
{
    const QString link = dir.filePath("ttyGRBL");
    startEmulator({"--link", link, "--factory-settings"});  // no unlock message: the banner alone
    connect(link);
    EXPECT_TRUE(state.connecte);
    EXPECT_TRUE(state.ouvre_midi_actif);
    EXPECT_TRUE(logHas("Grbl 1.1h ['$' for help]\r\n"));
    EXPECT_TRUE(record().empty()) << "found in the first wait: no \"\\r\" sent";
}

TEST_F(MachineLinkTest, DetectsASlowBoardAfterTheSecondWait)
{
    // The "\r" of the second wait falls into the boot loader; the welcome text that follows ends the detection.
    startEmulator({"--boot-ms", "3200"});
    connect();
    EXPECT_TRUE(logHas(" < Grbl 1.1h ['$' for help]\r\n"));
    EXPECT_FALSE(logHas("No Grbl"));
}

TEST_F(MachineLinkTest, SilentPortSaysNoGrblOnThisBoard)
{
    const SilentPty silent;
    ASSERT_FALSE(silent.path.isEmpty());
    ASSERT_TRUE(port->openPort(silent.path));
    ASSERT_TRUE(waitUntil([this] { return !detections.empty(); }, 8000));
    EXPECT_FALSE(detections.back());
    EXPECT_TRUE(logHas("No Grbl on this board\r\n"));
    EXPECT_TRUE(state.connecte);
    EXPECT_FALSE(state.ouvre_midi_actif);
    char buffer[64] = {};
    const ssize_t got = read(silent.master, buffer, sizeof buffer);
    const std::string sent(buffer, got > 0 ? static_cast<std::size_t>(got) : 0);
    EXPECT_EQ(sent.substr(0, 1), "\r");
    EXPECT_EQ(sent.find_first_not_of("?", 1), std::string::npos) << "then only status requests: " << sent;
    port->closePort();
}

TEST_F(MachineLinkTest, ScanPassesOverPortsThatDoNotOpenOrDoNotAnswerToTheOneWithGrbl)
{
    const SilentPty silent;
    ASSERT_FALSE(silent.path.isEmpty());
    startEmulator({});
    listed = {dir.filePath("no-such-port"), silent.path, emulator->portPath()};
    // At start-up the stored port does not open, so the scan takes over.
    state.settings.AdressePort = dir.filePath("unplugged").toStdString();
    port->openAtStartup();
    ASSERT_TRUE(waitUntil([this] { return !scans.empty(); }, 12000));
    EXPECT_EQ(scans, std::vector<bool>{true});
    EXPECT_EQ(detections, (std::vector<bool>{false, true})) << "the silent port was probed first";
    EXPECT_EQ(port->portName().toStdString(), emulator->portPath().toStdString());
    EXPECT_EQ(state.settings.AdressePort, emulator->portPath().toStdString());
    EXPECT_TRUE(port->isOpen());
    EXPECT_TRUE(state.connecte);
    EXPECT_TRUE(state.ouvre_midi_actif);
    EXPECT_FALSE(state.recherche_en_cours);
    EXPECT_FALSE(logHas("No Grbl")) << "a probe that finds nothing says nothing";
}

TEST_F(MachineLinkTest, ScanWithoutGrblKeepsTheFirstPortThatOpened)
{
    const SilentPty first, second;
    ASSERT_FALSE(first.path.isEmpty() || second.path.isEmpty());
    listed = {dir.filePath("no-such-port"), first.path, second.path};
    port->scanPorts();
    ASSERT_TRUE(waitUntil([this] { return !scans.empty(); }, 25000));
    EXPECT_EQ(scans, std::vector<bool>{false});
    EXPECT_EQ(detections, (std::vector<bool>{false, false, false})) << "two probes, then the kept port's detection";
    EXPECT_EQ(port->portName().toStdString(), first.path.toStdString());
    EXPECT_EQ(state.settings.AdressePort, first.path.toStdString());
    EXPECT_TRUE(port->isOpen());
    EXPECT_TRUE(state.connecte);
    EXPECT_FALSE(state.ouvre_midi_actif);
    EXPECT_FALSE(state.recherche_en_cours);
    EXPECT_EQ(logCount("No Grbl on this board\r\n"), 1);
}

TEST_F(MachineLinkTest, WatcherFollowsPortsThatComeAndGo)
{
    startEmulator({});
    EmulatorProcess other({"--speed", "0", "--boot-ms", "100"});
    ASSERT_TRUE(other.start()) << other.errorText().toStdString();
    const QString first = emulator->portPath(), second = other.portPath();
    ASSERT_TRUE(first.startsWith("/dev/"));
    // Opened by its name under /dev, as one types ttyUSB0: the open port is still found in the list.
    listed = {first};
    connect(first.mid(5));
    port->setWatching(true);

    listed = {};
    ASSERT_TRUE(waitUntil([this] { return !port->isOpen(); }, 5000)) << "the open port went away";
    EXPECT_FALSE(state.connecte);

    listed = {first};
    ASSERT_TRUE(waitUntil([this] { return detections.size() == 2; }, 5000));
    EXPECT_TRUE(detections.back());
    EXPECT_EQ(logCount("Arduino detected\r\n"), 1);
    EXPECT_EQ(port->portName().toStdString(), first.toStdString());
    EXPECT_EQ(state.settings.AdressePort, first.toStdString());

    // Another board arrives: into the port field, whose change moves the link to it.
    listed = {first, second};
    ASSERT_TRUE(waitUntil([this] { return detections.size() == 3; }, 5000));
    EXPECT_TRUE(detections.back());
    EXPECT_EQ(logCount("Arduino detected\r\n"), 2);
    EXPECT_EQ(port->portName().toStdString(), second.toStdString());
    EXPECT_EQ(state.settings.AdressePort, second.toStdString());

    listed = {first};
    ASSERT_TRUE(waitUntil([this] { return !port->isOpen(); }, 5000));
    EXPECT_FALSE(state.connecte);
    port->setWatching(false);
}

TEST_F(MachineLinkTest, CliStreamSendsALongJobWholeAndInOrder)
{
    startEmulator({});
    const auto program = laserProgram(420);
    ASSERT_GE(program.size(), 2000u);
    const QString path = dir.filePath("song.gcode");
    writeLines(path, program, "\r\n");
    const CliRun run = runCli({"stream", path, "--port", emulator->portPath(), "--defaults"}, config());
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find(">  G0 X6.3 Y0  < ok\n"), std::string::npos);
    EXPECT_NE(run.out.find("\nEnd of punch\n"), std::string::npos);
    const auto sent = sentLines(program);
    EXPECT_EQ(record(), sent);
    std::size_t oks = 0;
    for (auto at = run.out.find("  < ok\n"); at != std::string::npos; at = run.out.find("  < ok\n", at + 1))
        ++oks;
    EXPECT_EQ(oks, sent.size() - 2) << "the checks are not logged";
}

TEST_F(MachineLinkTest, PauseResumeAndStopInTheMiddle)
{
    startEmulator({"--speed", "50"});  // 20 mm at F800: 30 ms
    connect();
    const auto program = laserProgram(300, 20.0);
    punch(program);
    const auto& job = port->link().job();
    ASSERT_TRUE(waitUntil([&] { return job.progress() >= 100; }, 30000));
    click(&GrblLink::Pause_button_Click);
    ASSERT_TRUE(waitUntil([this] { return logHas("Hit Continue to resume"); }, 10000));
    const std::size_t paused = job.progress();
    // A board plugged in during the job is announced, but the link stays with the job.
    EmulatorProcess other({"--speed", "0", "--boot-ms", "100"});
    ASSERT_TRUE(other.start()) << other.errorText().toStdString();
    listed = {emulator->portPath()};
    port->setWatching(true);
    listed = {emulator->portPath(), other.portPath()};
    ASSERT_TRUE(waitUntil([this] { return logHas("Arduino detected"); }, 5000));
    port->setWatching(false);
    EXPECT_EQ(port->portName().toStdString(), emulator->portPath().toStdString());
    EXPECT_EQ(job.progress(), paused);

    click(&GrblLink::Pause_button_Click);
    ASSERT_TRUE(waitUntil([&] { return job.progress() >= paused + 20; }, 20000));

    click(&GrblLink::Stop_button_Click);
    ASSERT_TRUE(waitUntil([this] { return !outcomes.empty(); }, 10000));
    EXPECT_EQ(outcomes[0], JobOutcome::Cancelled);
    EXPECT_TRUE(logHas("Punch cancelled\r\n"));
    EXPECT_FALSE(logHas("End of punch"));
    auto lines = record();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.back(), "M5");
    lines.pop_back();
    auto expected = sentLines(program);
    ASSERT_LT(lines.size(), expected.size());
    expected.resize(lines.size());
    EXPECT_EQ(lines, expected) << "before the M5, the program's first lines in order";
}

TEST_F(MachineLinkTest, ErrorHoldsTheJobAndStopStillWorksWithSplitReplies)
{
    startEmulator({"--error-at", "62:20", "--split-replies"});  // lines count from power-up: "$I" is line 1
    connect();
    punch(laserProgram(100));
    ASSERT_TRUE(waitUntil([this] { return port->link().job().held(); }, 20000));
    EXPECT_TRUE(logHas(": error:20 (unsupported or invalid G-code command). Punch held"));
    EXPECT_EQ(port->link().job().progress(), 61u) << "the title line and 60 lines answered, one response each";
    waitUntil([] { return false; }, 300);
    EXPECT_EQ(port->link().job().progress(), 61u);
    click(&GrblLink::Stop_button_Click);
    ASSERT_TRUE(waitUntil([this] { return !outcomes.empty(); }, 10000));
    EXPECT_EQ(outcomes[0], JobOutcome::Cancelled);
    auto expected = sentLines(laserProgram(100));
    expected.resize(62);
    expected.push_back("M5");
    EXPECT_EQ(record(), expected);
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
    punch(first);
    ASSERT_TRUE(waitUntil([this] { return outcomes.size() == 2; }, 30000));
    EXPECT_EQ(outcomes[1], JobOutcome::EndOfPunch);
    std::vector<std::string> expected = sentLines(first);
    expected.push_back("$J=G91Y120F800");
    for (const auto& line : sentLines(second))
        expected.push_back(line);
    EXPECT_EQ(record(), expected);
    EXPECT_EQ(host.questions, std::vector<std::string>{"Cutting folds backwardly ?"});
    port->link().setHost(nullptr);
}

TEST_F(MachineLinkTest, CliStreamStopsOnTheFirstInterruptTermOrHangUpAndLeavesAResumeFile)
{
    const auto program = laserProgram(200, 20.0);
    const QString path = dir.filePath("slow.gcode");
    writeLines(path, program);
    for (const int signalNumber : {SIGINT, SIGTERM, SIGHUP}) {
        SCOPED_TRACE(signalNumber);
        startEmulator({"--speed", "20"});
        const QString song = dir.filePath(QStringLiteral("song%1.mid").arg(signalNumber));
        QProcess process;
        startCli(process, {"stream", path, "--port", emulator->portPath(), "--defaults", "--song", song}, config());
        ASSERT_TRUE(process.waitForStarted(5000));
        QByteArray out;
        ASSERT_TRUE(waitUntil([&] {
            out += process.readAllStandardOutput();
            return out.count("< ok") >= 40;
        }, 20000));
        ::kill(static_cast<pid_t>(process.processId()), signalNumber);
        ASSERT_TRUE(process.waitForFinished(10000));
        out += process.readAllStandardOutput();
        EXPECT_EQ(process.exitStatus(), QProcess::NormalExit);
        EXPECT_EQ(process.exitCode(), 1);
        EXPECT_TRUE(out.contains("Punch cancelled\n")) << out.toStdString();
        const auto lines = record();
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines.back(), "M5");
        EXPECT_LT(lines.size(), sentLines(program).size());
        const auto resume = readResumeFile(resumePathFor(song.toStdString()));
        ASSERT_TRUE(resume.ok());
        EXPECT_GE(resume->restartLine, 40);
        emulator.reset();
    }
}

TEST_F(MachineLinkTest, CliExitCodesForBadInputAndMissingMachines)
{
    const QString program = dir.filePath("song.gcode");
    writeLines(program, {"G0 X1 Y1"});
    const QString occupied = dir.filePath("ttyUSB0");
    writeLines(occupied, {"keep me"});
    const struct {
        QStringList arguments;
        int exitCode;
    } cases[] = {
        {{"stream", program, "--port", dir.filePath("no-such-port"), "--defaults"}, 1},
        {{"stream", dir.filePath("missing.gcode"), "--port", "x", "--defaults"}, 2},
        {{"emulate", "--error-at", "3"}, 2},
        {{"emulate", "--record", "/nonexistent-folder/r.txt"}, 2},
        {{"emulate", "--link", occupied}, 1},  // a link never replaces a real file
    };
    for (const auto& c : cases) {
        const CliRun run = runCli(c.arguments, config());
        EXPECT_EQ(run.exitCode, c.exitCode) << c.arguments.join(' ').toStdString() << "\n" << run.err;
        if (c.arguments[0] == "emulate") {
            EXPECT_EQ(run.out, "") << "no pty path printed";
        }
    }
    EXPECT_EQ(readLines(occupied), std::vector<std::string>{"keep me"});
}

TEST_F(MachineLinkTest, HangUpLeavesAResumeFileThatRegeneratesEveryHoleNotAcknowledged)
{
    const QString song = dir.filePath("song.mid");
    ASSERT_TRUE(QFile::copy(QStringLiteral(TEST_DATA_DIR "/midi/greensleeves.mid"), song));
    const QString first = dir.filePath("first.gcode");
    const CliRun convert = runCli({"convert", song, "--defaults", "--out", first}, config());
    ASSERT_EQ(convert.exitCode, 0) << convert.err;
    const auto program = readLines(first);
    ASSERT_GT(program.size(), 500u);

    startEmulator({"--hangup-after", "402"});  // "$I" and "$$" first
    const CliRun stream = runCli({"stream", first, "--port", emulator->portPath(), "--defaults", "--song", song,
                                  "--set", "Fourchette=5"},
                                 config());
    EXPECT_EQ(stream.exitCode, 1) << stream.err;
    EXPECT_NE(stream.out.find("Port closed: punch interrupted"), std::string::npos);
    EXPECT_TRUE(emulator->waitForExit(5000)) << "the emulator ends with its hang-up";

    const auto resume = readResumeFile(resumePathFor(song.toStdString()));
    ASSERT_TRUE(resume.ok());
    EXPECT_EQ(resume->songPath, song.toStdString());
    // The band width the program was made with (its record file), not this run's "--set".
    std::ifstream programFile(first.toStdString(), std::ios::binary);
    const std::string programText((std::istreambuf_iterator<char>(programFile)), std::istreambuf_iterator<char>());
    const auto made = readProgramRecord(first.toStdString(), programText);
    ASSERT_TRUE(made.ok());
    EXPECT_EQ(resume->Fourchette, settingValue(made->settings, "Fourchette").value_or("?"));
    // 400 lines answered: the first not acknowledged is the 401st line sent.
    std::size_t notAcknowledged = 0;
    for (int sent = 0; notAcknowledged < program.size(); ++notAcknowledged) {
        if (!lineToSend(program[notAcknowledged]).empty() && ++sent == 401)
            break;
    }
    ASSERT_EQ(resume->restartLine, static_cast<long long>(notAcknowledged));

    const QString second = dir.filePath("second.gcode");
    const CliRun again = runCli({"convert", song + ".rep", "--defaults", "--out", second}, config());
    ASSERT_EQ(again.exitCode, 0) << again.err;
    const auto rest = readLines(second);
    const std::set<std::string> restLines(rest.begin(), rest.end());
    // Each hole starts with its travel move "G0 X.. Y..": the hole of the first line not
    // acknowledged, and every hole after it, is in the new program.
    const auto isHole = [](const std::string& line) { return line.starts_with("G0 X") && line.find(" Y") != std::string::npos; };
    std::size_t from = notAcknowledged;
    while (from > 0 && !isHole(program[from]))
        --from;
    int holes = 0;
    for (std::size_t i = from; i < program.size(); ++i) {
        if (isHole(program[i])) {
            ++holes;
            EXPECT_TRUE(restLines.count(program[i])) << "missing hole " << program[i] << " (line " << i << ")";
        }
    }
    EXPECT_GT(holes, 0);

    // A restart time past the last hole: nothing to cut, said so, and no empty program.
    ResumeFile finished = resume.value();
    finished.restartMs = 1'500'000;  // 25 min: past the song's end
    ASSERT_TRUE(writeResumeFile(resumePathFor(song.toStdString()), finished).ok());
    const QString third = dir.filePath("third.gcode");
    const CliRun nothing = runCli({"convert", song + ".rep", "--defaults", "--out", third}, config());
    EXPECT_NE(nothing.exitCode, 0);
    EXPECT_NE(nothing.err.find("Nothing left to cut: "), std::string::npos) << nothing.err;
    EXPECT_FALSE(QFile::exists(third));
}

TEST_F(MachineLinkTest, CliConsoleAnswersEachCommandThenEndsWithItsInput)
{
    startEmulator({"--factory-settings"});
    const CliRun run = runCli({"console", "--port", emulator->portPath(), "--defaults"}, config(),
                              "$$\nG5\n$J=G91X50F800\n");
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("$$\n$0=10 (Step pulse time)\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("G5\nerror:20 (unsupported or invalid G-code command)\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("$J=G91X50F800\nok\n"), std::string::npos) << run.out;
    EXPECT_EQ(record(), (std::vector<std::string>{"$$", "G5", "$J=G91X50F800"}));
}

// --- a link that never hangs, and the checks before a job ---

TEST_F(MachineLinkTest, CliStreamDoesNotStartOnABoardThatIsNotGrblOrHasLaserModeOff)
{
    const QString path = dir.filePath("song.gcode");
    writeLines(path, laserProgram(5));
    const struct {
        QStringList options;
        const char* message;
        std::vector<std::string> received;
    } cases[] = {
        // Passes the detection (it answers the "\r" with "ok") but says nothing to a soft reset.
        {{"--ok-to-everything"}, "The board does not answer like Grbl: no welcome text within 5 s of its soft reset. "
                                 "Punch not started\n", {""}},
        {{"--laser-mode", "0"}, "Laser mode is off ($32=0): Grbl would keep the beam on during G0 travel and burn "
                                "lines across the roll. Send $32=1 to turn it on. Punch not started\n", {"$I", "$$"}},
        {{"--factory-settings"}, "Laser mode is off ($32=0)", {"$I", "$$"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.options.join(' ').toStdString());
        startEmulator(c.options);
        const CliRun run = runCli({"stream", path, "--port", emulator->portPath(), "--defaults"}, config());
        EXPECT_EQ(run.exitCode, 1) << run.err;
        EXPECT_NE(run.out.find(c.message), std::string::npos) << run.out;
        EXPECT_EQ(run.out.find(">  G0"), std::string::npos) << "no program line sent";
        EXPECT_EQ(record(), c.received);
        emulator.reset();
    }
}

TEST_F(MachineLinkTest, CliStreamHoldsAndStopsWhenTheControllerFallsSilent)
{
    startEmulator({"--silent-after", "30"});
    const QString path = dir.filePath("song.gcode");
    writeLines(path, laserProgram(20));
    const QString song = dir.filePath("silent.mid");
    const CliRun run =
        runCli({"stream", path, "--port", emulator->portPath(), "--defaults", "--song", song}, config());
    EXPECT_EQ(run.exitCode, 1) << run.err;
    EXPECT_NE(run.out.find("The controller is not answering: no status report for 5 s. Punch held at line "),
              std::string::npos)
        << run.out;
    EXPECT_NE(run.out.find("Punch cancelled\n"), std::string::npos) << run.out;
    EXPECT_NE(run.err.find("job held: stopping"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("progress: "), std::string::npos) << "without a terminal, a line every few seconds";
    EXPECT_NE(run.err.find(" of 105  "), std::string::npos) << run.err;
    EXPECT_EQ(run.out.find("<Idle"), std::string::npos) << "status reports stay out of the log";
    const auto resume = readResumeFile(resumePathFor(song.toStdString()));
    ASSERT_TRUE(resume.ok());
    EXPECT_GT(resume->restartLine, 20);
}

TEST_F(MachineLinkTest, CliStreamOnErrorContinuesOrStopsAndWithoutATerminalStops)
{
    const auto program = laserProgram(20);
    const QString path = dir.filePath("song.gcode");
    writeLines(path, program);
    const struct {
        QStringList extra;
        int exitCode;
        const char* decision;
    } cases[] = {
        {{"--on-error", "continue"}, 0, "job held: continuing"},
        {{"--on-error", "stop"}, 1, "job held: stopping"},
        {{}, 1, "job held: stopping"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.extra.join(' ').toStdString());
        startEmulator({"--error-at", "12:20"});
        const QString song = dir.filePath("held.mid");
        QFile::remove(song + ".rep");
        const CliRun run = runCli(QStringList{"stream", path, "--port", emulator->portPath(), "--defaults", "--song",
                                              song} + c.extra,
                                  config());
        EXPECT_EQ(run.exitCode, c.exitCode) << run.err;
        EXPECT_NE(run.out.find("Grbl refused line 11: error:20 (unsupported or invalid G-code command). Punch held\n"),
                  std::string::npos)
            << run.out;
        EXPECT_NE(run.err.find(c.decision), std::string::npos) << run.err;
        EXPECT_NE(run.out.find(c.exitCode == 0 ? "End of punch\n" : "Punch cancelled\n"), std::string::npos);
        const auto resume = readResumeFile(resumePathFor(song.toStdString()));
        if (c.exitCode == 0) {
            EXPECT_EQ(record(), sentLines(program)) << "every line sent once, the refused one included";
            EXPECT_FALSE(resume.ok()) << "a finished job leaves nothing to resume";
            EXPECT_NE(run.out.find("Resume file removed, the job is finished: " + resumePathFor(song.toStdString())),
                      std::string::npos)
                << run.out;
        } else {
            ASSERT_TRUE(resume.ok());
            EXPECT_NE(run.out.find("Resume file: " + resumePathFor(song.toStdString()) + " \u2014 open it"),
                      std::string::npos)
                << run.out;
            EXPECT_EQ(run.out.find("Hit Continue"), std::string::npos) << "no terminal: nobody hits Continue";
            EXPECT_EQ(resume->restartLine, 11) << "the line after the refused one";
            EXPECT_EQ(record().back(), "M5");
        }
        emulator.reset();
    }
}

TEST_F(MachineLinkTest, AnEmulatedRunAtAnotherSpeedLeavesTheLearnedDurationsAlone)
{
    const QString path = dir.filePath("song.gcode");
    writeLines(path, laserProgram(10));
    const QString settings = dir.filePath("config/Veltrin/Veltrin.conf");
    QDir().mkpath(dir.filePath("config/Veltrin"));
    writeLines(settings, {"[Startup]", "duree_metre_laser=0.5"});
    startEmulator({"--speed", "50"});
    const CliRun run = runCli({"stream", path, "--port", emulator->portPath()}, config());
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_NE(run.out.find("End of punch\nEmulated board at speed x50: the learned durations stay as they were\n"),
              std::string::npos)
        << run.out;
    const auto stored = readLines(settings);
    EXPECT_NE(std::find(stored.begin(), stored.end(), "duree_metre_laser=0.5"), stored.end())
        << "still the value before the run";
}

TEST_F(MachineLinkTest, PortThatCannotBeUsedSaysWhy)
{
    startEmulator({});
    QSerialPort holder(emulator->portPath());
    ASSERT_TRUE(holder.open(QIODevice::ReadWrite)) << holder.errorString().toStdString();
    const QString plainFile = dir.filePath("notes.txt");
    writeLines(plainFile, {"not a port"});
    const QString program = dir.filePath("song.gcode");
    writeLines(program, laserProgram(1));
    const struct {
        QString port;
        const char* reason;
    } cases[] = {
        {dir.filePath("ttyUSB9"), "it does not exist (is the board plugged in?)"},
        {plainFile, "it is not a serial port"},
        {emulator->portPath(), "it is busy: another program"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.port.toStdString());
        for (const char* command : {"stream", "console"}) {
            QStringList arguments{command};
            if (std::string_view(command) == "stream")
                arguments << program;
            arguments << "--port" << c.port << "--defaults";
            const CliRun run = runCli(arguments, config());
            EXPECT_EQ(run.exitCode, 1);
            const std::string expected = "cannot open the port " + c.port.toStdString() + ": " + c.reason;
            EXPECT_NE(run.err.find(expected), std::string::npos) << run.err;
            EXPECT_EQ(run.out.find(c.reason), std::string::npos) << "said once, on stderr: " << run.out;
        }
    }
    // Without write access the port is no longer "busy" but forbidden.
    EXPECT_EQ(MachinePort::openFailureReason(true, true, false, QSerialPort::PermissionError, "Permission denied"),
              "permission denied (on Linux, add your user to the dialout group and log in again)");
    EXPECT_EQ(MachinePort::openFailureReason(true, true, true, QSerialPort::UnknownError, "Inappropriate ioctl for device"),
              "it is not a serial port");
}

// Two windows (or a window and the command line) on one board would interleave their lines.
TEST_F(MachineLinkTest, OnePortOneVeltrinAndTheLockGoesWithThePort)
{
    startEmulator({});
    ASSERT_TRUE(port->openPort(emulator->portPath()));
    const QString program = dir.filePath("song.gcode");
    writeLines(program, laserProgram(1));
    const CliRun run = runCli({"stream", program, "--port", emulator->portPath(), "--defaults"}, config());
    EXPECT_EQ(run.exitCode, 1);
    const std::string pid = std::to_string(QCoreApplication::applicationPid());
    EXPECT_NE(run.err.find("it is in use by another"), std::string::npos) << run.err;
    EXPECT_NE(run.err.find("(process " + pid + "): one Veltrin per machine"), std::string::npos) << run.err;

    AppState other;
    MachinePort second(other);
    EXPECT_FALSE(second.openPort(emulator->portPath()));
    port->closePort();
    EXPECT_TRUE(second.openPort(emulator->portPath())) << second.openError().toStdString();
}

TEST_F(MachineLinkTest, CliConsoleSendsRealTimeCharactersAtOnceAndSaysWhenTheBoardIsGone)
{
    startEmulator({"--factory-settings"});
    const CliRun run = runCli({"console", "--port", emulator->portPath(), "--defaults"}, config(), "!\n?\n~\n$G\n");
    EXPECT_EQ(run.exitCode, 0) << run.out;
    EXPECT_NE(run.out.find("!\n?\n~\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("\n<Hold:"), std::string::npos) << "the typed \"?\" shows its report: " << run.out;
    EXPECT_NE(run.out.find("[GC:G0 "), std::string::npos) << run.out;
    EXPECT_EQ(record(), std::vector<std::string>{"$G"}) << "no line end after a real-time byte";
    emulator.reset();

    startEmulator({"--factory-settings", "--hangup-after", "1"});
    const CliRun gone = runCli({"console", "--port", emulator->portPath(), "--defaults"}, config(), "$I\n$G\n");
    EXPECT_EQ(gone.exitCode, 1);
    EXPECT_NE(gone.out.find("Port closed: " + emulator->portPath().toStdString() + " is gone"), std::string::npos)
        << gone.out;
}

TEST_F(MachineLinkTest, CliConsoleGivesUpOnASilentControllerAndGetsPastALimitAlarmWithCtrlX)
{
    startEmulator({"--factory-settings", "--silent-after", "1"});
    const CliRun silent = runCli({"console", "--port", emulator->portPath(), "--defaults"}, config(), "G4 P0\n$$\n");
    EXPECT_EQ(silent.exitCode, 1);
    EXPECT_NE(silent.out.find("The controller is not answering: no status report for 5 s, command given up: \"$$\""),
              std::string::npos)
        << silent.out;
    emulator.reset();

    // A hard limit after the first line: Grbl hears nothing until Ctrl-X.
    startEmulator({"--factory-settings", "--alarm-at", "1:1"});
    const CliRun alarm = runCli({"console", "--port", emulator->portPath(), "--defaults"}, config(),
                                "G4 P0\n$$\n$G\n\x18\n$I\n");
    EXPECT_EQ(alarm.exitCode, 1) << "commands were given up";
    EXPECT_NE(alarm.out.find("ALARM:1 (hard limit switch hit"), std::string::npos) << alarm.out;
    EXPECT_NE(alarm.out.find("until a soft reset (Ctrl-X): given up: \"$$\"\n"), std::string::npos) << alarm.out;
    EXPECT_NE(alarm.out.find("until a soft reset (Ctrl-X): command not sent: \"$G\"\n"), std::string::npos)
        << alarm.out;
    EXPECT_NE(alarm.out.find("Soft reset (Ctrl-X)\n"), std::string::npos) << alarm.out;
    EXPECT_NE(alarm.out.find("[VER:1.1h.20190830:emulator x0]\n[OPT:V,15,128]\nok\n"), std::string::npos)
        << alarm.out;
    EXPECT_EQ(record(), (std::vector<std::string>{"G4 P0", "$$", "$I"})) << "the \"$$\" sent before the alarm came";
}

}  // namespace
}  // namespace veltrin
