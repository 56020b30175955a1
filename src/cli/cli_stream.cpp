// veltrin-cli stream: Punch on a program file, through the same serial code as the desktop
// application. The log goes to stdout as the application shows it; the progress (state,
// position, line k of n, time left) goes to stderr: one updating line on a terminal, else a
// line every few seconds. The first Ctrl-C, SIGTERM or SIGHUP is Stop. A hold asks Continue
// or Stop on a terminal and stops without one, unless --on-error says.

#include <CLI/CLI.hpp>

#include <QSocketNotifier>
#include <QTimer>

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <unistd.h>

#include "app/grbl_link.h"
#include "cli/cli_commands.h"
#include "cli/cli_run.h"
#include "cli/cli_machine.h"
#include "cli/input_files.h"
#include "midi/resume_file.h"

namespace veltrin::cli {

namespace {

struct StreamArgs {
    std::string program;
    std::string port;
    std::string song;
    bool simulate = false;
    std::vector<std::string> assignments;
    bool defaults = false;
    std::string onError;  // "continue", "stop", or empty: ask on a terminal, else stop
};


// Continue (true) or Stop for a hold when nobody is asked: --on-error for Grbl's errors and
// alarms; a limit alarm, a silent or restarted controller always stop.
bool continueWithoutAsking(HoldReason reason, const std::string& onError)
{
    const bool errorOrAlarm =
        reason == HoldReason::Refused || reason == HoldReason::Alarm || reason == HoldReason::Homing;
    return onError == "continue" && errorOrAlarm;
}

// The command line has no dialogs: one roll, and the fold question answered on the terminal
// (No when stdin is not one).
class StreamHost final : public JobHost {
public:
    bool hasNextRoll() override { return false; }
    int rollGapMm() override { return 0; }
    std::optional<JobProgram> openNextRoll() override { return std::nullopt; }
    void askYesNo(std::string_view question, bool defaultYes, std::function<void(bool)> answer) override
    {
        bool yes = defaultYes;
        std::fprintf(stderr, "%.*s [%s] ", static_cast<int>(question.size()), question.data(),
                     defaultYes ? "Y/n" : "y/N");
        if (isatty(STDIN_FILENO)) {
            char reply[16] = {};
            if (std::fgets(reply, sizeof reply, stdin) && (reply[0] == 'y' || reply[0] == 'Y'))
                yes = true;
            else if (reply[0] == 'n' || reply[0] == 'N')
                yes = false;
        } else {
            std::fprintf(stderr, "%s\n", yes ? "Yes" : "No");
        }
        answer(yes);
    }
    void showMessage(std::string_view text) override
    {
        std::fprintf(stderr, "%.*s\n", static_cast<int>(text.size()), text.data());
    }
    void startBackwardFolds() override
    {
        std::fprintf(stderr, "veltrin-cli stream: fold marking is done from the application\n");
    }
};

void drawProgress(const AppState& state, const GrblLink& link)
{
    const int width = 20;
    const int max = state.gauge1_max;
    const int value = state.gauge1_value;
    const int filled = max > 0 ? value * width / max : width;
    std::string bar(static_cast<std::size_t>(filled), '#');
    bar.resize(width, '.');
    std::fprintf(stderr, "\r[%s] %s\x1b[K", bar.c_str(), link.progressLine().c_str());
    std::fflush(stderr);
}

int runStream(const StreamArgs& args)
{
    if (const std::string problem = programFileProblem(args.program); !problem.empty()) {
        std::fprintf(stderr, "veltrin-cli stream: cannot send %s: %s\n", args.program.c_str(), problem.c_str());
        return kExitUsage;
    }
    std::ifstream file(args.program, std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "veltrin-cli stream: cannot read %s\n", args.program.c_str());
        return kExitUsage;
    }
    const std::string programText((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::vector<std::string> lines;
    for (std::size_t at = 0; at < programText.size();) {
        std::size_t end = programText.find('\n', at);
        if (end == std::string::npos)
            end = programText.size();
        std::string line = programText.substr(at, end - at);
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        lines.push_back(std::move(line));
        at = end + 1;
    }
    if (!args.simulate && args.port.empty()) {
        std::fprintf(stderr, "veltrin-cli stream: --port is required unless --simulate\n");
        return kExitUsage;
    }

    const CliApplication application;

    AppState state;
    std::unique_ptr<QtSettingsStore> stored;
    if (!startMachineRun("stream", state, args.defaults, args.assignments, stored))
        return kExitUsage;
    // The program's title line tells the machine it was written for.
    if (!lines.empty() && lines.front().starts_with(";Laser gcode"))
        state.settings.Type_machine = "Laser";
    else if (!lines.empty() && lines.front().starts_with(";Punch gcode") && state.settings.isLaser())
        state.settings.Type_machine = "Punch";
    // What the program was made with: the record file that its generation wrote beside it
    // gives the roll speed that turns hole Y back into time, the settings of the resume file
    // and, without --song, the song. A program without one (written by hand, or changed since)
    // is timed with the current settings.
    std::string recordNote;
    auto record = readProgramRecord(args.program, programText);
    if (record) {
        state.programSettings = record->settings;
    } else {
        recordNote = std::string(record.error() == ResumeFileError::OtherProgram
                                     ? "The settings file beside the program was written for another program"
                                     : "No settings file beside the program") +
                     " (" + programRecordPath(args.program) + "): its holes are timed with the current settings";
    }
    state.chemin_morceau = !args.song.empty() ? args.song : record ? record->songPath : std::string();
    JobProgram program = programForJob(state, std::move(lines), args.program);
    state.mode_simulation = args.simulate;

    MachinePort port(state);
    StreamHost host;
    port.link().setHost(&host);
    port.link().setLogEcho(printLog);
    if (!recordNote.empty())
        port.link().logLine(recordNote);

    if (!args.simulate && !openAndDetect("stream", port, args.port))
        return kExitFailed;

    const bool bar = isatty(STDERR_FILENO);
    // On a terminal the progress line is drawn only between whole log lines, and wiped before
    // the log goes on.
    bool barShown = false;
    bool logAtLineStart = true;
    port.link().setLogEcho([&](std::string_view text) {
        if (barShown) {
            std::fputs("\r\x1b[K", stderr);
            barShown = false;
        }
        printLog(text);
        if (!text.empty())
            logAtLineStart = text.back() == '\n';
    });
    const bool terminal = isatty(STDIN_FILENO);
    // Without a terminal (or with --on-error) a hold is decided here, and nobody hits Continue.
    port.link().setContinuePrompt(terminal && args.onError.empty());
    JobOutcome outcome = JobOutcome::Cancelled;
    bool ended = false;
    bool asking = false;
    QObject::connect(&port, &MachinePort::jobEnded, QCoreApplication::instance(), [&](JobOutcome o) {
        outcome = o;
        ended = true;
        const JobStreamer& job = port.link().job();
        if ((o == JobOutcome::Cancelled || o == JobOutcome::PortLost) && job.resumeWritten()) {
            const std::string path = resumePathFor(job.songPath());
            port.link().logLine("Resume file: " + path + " \u2014 open it (veltrin-cli convert " + path +
                                ") to cut what is left");
        }
        // The fold question (if any) has been answered inside the end of the job.
        QTimer::singleShot(0, QCoreApplication::instance(), [] { QCoreApplication::exit(0); });
    });
    const auto stop = [&] {
        port.link().Stop_button_Click();
        port.carryOut();
    };

    const StopSignals stopSignals;
    QSocketNotifier signalNotifier(stopSignals.readEnd(), QSocketNotifier::Read);
    QObject::connect(&signalNotifier, &QSocketNotifier::activated, QCoreApplication::instance(), [&] {
        stopSignals.drain();
        stop();
    });

    // A hold: Continue or Stop, asked on the terminal (the answer comes through the event loop).
    QSocketNotifier answer(STDIN_FILENO, QSocketNotifier::Read);
    answer.setEnabled(false);
    QObject::connect(&answer, &QSocketNotifier::activated, QCoreApplication::instance(), [&] {
        char reply[64] = {};
        const ssize_t got = ::read(STDIN_FILENO, reply, sizeof reply - 1);
        answer.setEnabled(false);
        asking = false;
        if (got > 0 && (reply[0] == 'c' || reply[0] == 'C') && port.link().job().held()) {
            port.link().Pause_button_Click();
            port.carryOut();
        } else if (port.link().job().held()) {
            stop();
        }
    });
    int holdsSeen = 0;
    QObject::connect(&port, &MachinePort::stateChanged, QCoreApplication::instance(), [&] {
        const JobStreamer& job = port.link().job();
        if (!job.held() || job.holdCount() == holdsSeen)
            return;
        holdsSeen = job.holdCount();
        const HoldReason reason = job.holdReason();
        const bool canContinue = reason != HoldReason::CriticalAlarm;
        if (terminal && canContinue && args.onError.empty()) {
            if (barShown)
                std::fputs("\r\x1b[K", stderr);
            barShown = false;
            std::fprintf(stderr, "Continue or Stop? [c/S] ");
            std::fflush(stderr);
            asking = true;
            answer.setEnabled(true);
            return;
        }
        const bool goOn = canContinue && continueWithoutAsking(reason, args.onError);
        std::fprintf(stderr, "veltrin-cli stream: job held: %s\n", goOn ? "continuing" : "stopping");
        // Out of the link's own call, which this signal ends.
        QTimer::singleShot(0, QCoreApplication::instance(), [&, goOn] {
            if (!port.link().job().held())
                return;
            if (goOn) {
                port.link().Pause_button_Click();
                port.carryOut();
            } else {
                stop();
            }
        });
    });

    QTimer progress;
    QObject::connect(&progress, &QTimer::timeout, QCoreApplication::instance(), [&] {
        if (ended || asking)
            return;
        if (bar) {
            if (!logAtLineStart)
                return;
            drawProgress(state, port.link());
            barShown = true;
        } else {
            std::fprintf(stderr, "progress: %s\n", port.link().progressLine().c_str());
            std::fflush(stderr);
        }
    });
    progress.start(bar ? 250 : 5000);

    if (!port.punch(std::move(program)))
        return kExitFailed;
    if (!ended)
        QCoreApplication::exec();
    if (bar && logAtLineStart) {
        drawProgress(state, port.link());
        std::fputc('\n', stderr);
    }
    if (outcome == JobOutcome::EndOfPunch && stored && !args.simulate) {
        stored->write("duree_metre_laser", state.settings.duree_metre_laser);
        stored->write("duree_trou_poincon", state.settings.duree_trou_poincon);
    }
    port.closePort();
    return outcome == JobOutcome::EndOfPunch ? kExitOk : kExitFailed;
}

}  // namespace

void addStreamCommand(CLI::App& app, int& exitCode)
{
    auto args = std::make_shared<StreamArgs>();
    CLI::App* command = app.add_subcommand("stream", "Send a G-code program to the machine (Punch)");
    command->add_option("program", args->program, "G-code program file")->required();
    command->add_option("--port", args->port, "Serial port: a name (ttyUSB0, COM3) or a path");
    command->add_flag("--simulate", args->simulate, "Show the lines at 50 ms each; nothing is sent");
    command->add_option("--song", args->song, "Song of the program: its resume file is written while streaming (default: the song named in the program's settings file)");
    command->add_option("--set", args->assignments, "Setting for this run only, KEY=VALUE");
    command->add_flag("--defaults", args->defaults, "Default settings instead of the stored ones");
    command->add_option("--on-error", args->onError,
                        "On a hold by error:N or ALARM:N: continue or stop (default: ask on a terminal, "
                        "else stop)")
        ->check(CLI::IsMember({"continue", "stop"}));
    command->callback([args, &exitCode] { exitCode = runStream(*args); });
}

}  // namespace veltrin::cli
