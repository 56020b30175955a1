// veltrin-cli stream: Punch on a program file, through the same serial code as the desktop
// application. The log goes to stdout as the application shows it; a progress bar with the
// remaining time goes to stderr when it is a terminal. The first Ctrl-C is Stop.

#include <CLI/CLI.hpp>

#include <QTimer>

#include <atomic>
#include <csignal>
#include <fstream>
#include <unistd.h>

#include "app/cli_commands.h"
#include "app/cli_machine.h"
#include "machine/grbl_link.h"

namespace veltrin::cli {

namespace {

struct StreamArgs {
    std::string program;
    std::string port;
    std::string song;
    bool simulate = false;
    std::vector<std::string> assignments;
    bool defaults = false;
};

std::atomic<bool> g_stopAsked{false};

void onInterrupt(int)
{
    g_stopAsked = true;
    // A second Ctrl-C ends the program the usual way.
    std::signal(SIGINT, SIG_DFL);
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

void drawProgress(const AppState& state)
{
    const int width = 30;
    const int max = state.gauge1_max;
    const int value = state.gauge1_value;
    const int filled = max > 0 ? value * width / max : width;
    std::string bar(static_cast<std::size_t>(filled), '#');
    bar.resize(width, '.');
    std::fprintf(stderr, "\r[%s] %d/%d %s ", bar.c_str(), value, max, state.Text2.c_str());
    std::fflush(stderr);
}

int runStream(const StreamArgs& args)
{
    std::ifstream file(args.program, std::ios::binary);
    if (!file) {
        std::fprintf(stderr, "veltrin-cli stream: cannot read %s\n", args.program.c_str());
        return kExitUsage;
    }
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        lines.push_back(std::move(line));
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
    state.chemin_morceau = args.song;
    JobProgram program = programForJob(state, std::move(lines), args.program);
    state.mode_simulation = args.simulate;

    MachinePort port(state);
    StreamHost host;
    port.link().setHost(&host);
    port.link().setLogEcho(printLog);

    if (!args.simulate && !openAndDetect("stream", port, args.port))
        return kExitFailed;

    const bool bar = isatty(STDERR_FILENO);
    JobOutcome outcome = JobOutcome::Cancelled;
    bool ended = false;
    QObject::connect(&port, &MachinePort::jobEnded, QCoreApplication::instance(), [&](JobOutcome o) {
        outcome = o;
        ended = true;
        // The fold question (if any) has been answered inside the end of the job.
        QTimer::singleShot(0, QCoreApplication::instance(), [] { QCoreApplication::exit(0); });
    });
    QTimer progress;
    QObject::connect(&progress, &QTimer::timeout, QCoreApplication::instance(), [&] {
        if (g_stopAsked.exchange(false)) {
            port.link().Stop_button_Click();
            port.carryOut();
        }
        if (bar && !ended)
            drawProgress(state);
    });
    progress.start(100);

    g_stopAsked = false;
    std::signal(SIGINT, onInterrupt);
    if (!port.punch(std::move(program)))
        return kExitFailed;
    if (!ended)
        QCoreApplication::exec();
    std::signal(SIGINT, SIG_DFL);
    if (bar) {
        drawProgress(state);
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
    command->add_option("--song", args->song, "Song of the program: its resume file is written while streaming");
    command->add_option("--set", args->assignments, "Setting for this run only, KEY=VALUE");
    command->add_flag("--defaults", args->defaults, "Default settings instead of the stored ones");
    command->callback([args, &exitCode] { exitCode = runStream(*args); });
}

}  // namespace veltrin::cli
