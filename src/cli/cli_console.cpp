// veltrin-cli console: the console line of the desktop application on stdin. Each line read
// is sent as a Grbl command and waits for its answer; the log is printed as the application
// shows it ("$$" annotated). End of input ends the run once the last command is answered.
// A command that the controller leaves unanswered (no status report for 5 s, Idle, Hold or
// Alarm reported for 5 s, or a limit alarm) is given up with a message; a line holding only
// Ctrl-X sends Grbl's soft reset, and "!", "~" or "?" alone go at once as real-time bytes.

#include <CLI/CLI.hpp>

#include <QSocketNotifier>

#include <cstdio>
#include <unistd.h>

#include "cli/cli_commands.h"
#include "cli/cli_machine.h"
#include "machine/grbl_protocol.h"

namespace veltrin::cli {

namespace {

struct ConsoleArgs {
    std::string port;
    std::vector<std::string> assignments;
    bool defaults = false;
};

int runConsole(const ConsoleArgs& args)
{
    const CliApplication application;

    AppState state;
    std::unique_ptr<QtSettingsStore> stored;
    if (!startMachineRun("console", state, args.defaults, args.assignments, stored))
        return kExitUsage;
    remplir_glossaire(state.Liste_commentaires_grbl);

    MachinePort port(state);
    port.link().setLogEcho(printLog);
    if (!openAndDetect("console", port, args.port))
        return kExitFailed;

    bool inputEnded = false;
    bool failed = false;
    bool portGone = false;
    const auto finishIfDone = [&] {
        if (inputEnded && !port.link().commandPending())
            QCoreApplication::exit(0);
    };
    QObject::connect(&port, &MachinePort::commandFinished, QCoreApplication::instance(),
                     [&](const QString&, const QString& reply) {
                         // Given up, or lost to a restart.
                         if (reply.isEmpty())
                             failed = true;
                         finishIfDone();
                     });
    const auto watchPort = QObject::connect(&port, &MachinePort::stateChanged, QCoreApplication::instance(), [&] {
        if (!port.isOpen() && !portGone) {
            portGone = true;
            port.link().logLine("Port closed: " + args.port + " is gone (board unplugged or reset?)");
            failed = true;
            QCoreApplication::exit(0);
        }
    });

    // stdin is read when the event loop says it has something, so that the loop (and the
    // port) never waits on the keyboard.
    std::string pending;
    QSocketNotifier input(STDIN_FILENO, QSocketNotifier::Read);
    QObject::connect(&input, &QSocketNotifier::activated, QCoreApplication::instance(), [&] {
        char buffer[4096];
        const ssize_t got = ::read(STDIN_FILENO, buffer, sizeof buffer);
        if (got > 0) {
            pending.append(buffer, static_cast<std::size_t>(got));
        }
        for (std::size_t end = pending.find('\n'); end != std::string::npos; end = pending.find('\n')) {
            std::string line = pending.substr(0, end);
            pending.erase(0, end + 1);
            if (!line.empty() && line.back() == '\r')
                line.pop_back();
            if (line == "\x18")
                port.link().softReset();
            else if (line == "!" || line == "~" || line == "?")
                port.link().realtimeCommand(line[0]);
            else
                port.link().consoleCommand(line);
        }
        if (got <= 0) {
            input.setEnabled(false);
            if (!pending.empty())
                port.link().consoleCommand(pending);
            inputEnded = true;
        }
        port.carryOut();
        finishIfDone();
    });
    QCoreApplication::exec();
    QObject::disconnect(watchPort);
    port.closePort();
    return failed ? kExitFailed : kExitOk;
}

}  // namespace

void addConsoleCommand(CLI::App& app, int& exitCode)
{
    auto args = std::make_shared<ConsoleArgs>();
    CLI::App* command = app.add_subcommand("console", "Type Grbl commands on stdin, as in the console line");
    command->add_option("--port", args->port, "Serial port: a name (ttyUSB0, COM3) or a path")->required();
    command->add_option("--set", args->assignments, "Setting for this run only, KEY=VALUE");
    command->add_flag("--defaults", args->defaults, "Default settings instead of the stored ones");
    command->callback([args, &exitCode] { exitCode = runConsole(*args); });
}

}  // namespace veltrin::cli
