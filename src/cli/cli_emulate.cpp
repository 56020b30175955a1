// veltrin-cli emulate: a Grbl 1.1 board in software on a pseudo-terminal (virtual machine,
// test partner of the machine link). The first line on stdout is the pty's path.

#include <CLI/CLI.hpp>

#include <QCoreApplication>
#include <QSocketNotifier>

#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <sys/signalfd.h>
#include <unistd.h>

#include "cli/cli_commands.h"
#include "emulator/emulator_pty_qt.h"

namespace veltrin::cli {

namespace {

struct EmulateArgs {
    GrblEmulatorOptions options;
    std::string link;
    std::string errorAt;
    std::string alarmAt;
};

// "K:N" (line K, code N), both whole numbers from 1.
bool parseLineFault(const std::string& text, LineFault& fault)
{
    const auto colon = text.find(':');
    if (colon == std::string::npos)
        return false;
    try {
        std::size_t used = 0;
        fault.line = std::stoi(text.substr(0, colon), &used);
        if (used != colon)
            return false;
        const std::string code = text.substr(colon + 1);
        fault.code = std::stoi(code, &used);
        if (used != code.size())
            return false;
    } catch (const std::exception&) {
        return false;
    }
    return fault.line >= 1 && fault.code >= 1;
}

const CLI::Validator kLineFault(
    [](std::string& text) {
        LineFault fault;
        return parseLineFault(text, fault) ? std::string() : "expected K:N, e.g. 12:20";
    },
    "K:N");

int runEmulate(EmulateArgs args)
{
    parseLineFault(args.errorAt, args.options.errorAt);
    parseLineFault(args.alarmAt, args.options.alarmAt);

    // SIGINT and SIGTERM end the event loop cleanly: blocked here (Qt's threads inherit the
    // mask) and read from a signalfd in the loop. A shell starting us in the background
    // ignores SIGINT for us; an ignored signal never reaches the signalfd, so take it back.
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    const int signalFd = signalfd(-1, &stopSignals, SFD_CLOEXEC);

    static int argc = 1;
    static char name[] = "veltrin-cli";
    static char* argv[] = {name, nullptr};
    QCoreApplication app(argc, argv);

    EmulatorPty pty(args.options);
    if (!pty.recordOpen()) {
        std::fprintf(stderr, "emulate: cannot write %s\n", args.options.recordPath.c_str());
        return kExitUsage;
    }
    if (!pty.open(QString::fromStdString(args.link))) {
        std::fprintf(stderr, "emulate: %s\n", pty.errorText().toLocal8Bit().constData());
        return kExitFailed;
    }
    std::printf("%s\n", pty.slavePath().toLocal8Bit().constData());
    std::fflush(stdout);
    std::fprintf(stderr, "emulate: %s on %s%s%s; Ctrl+C ends it\n",
                 args.options.okToEverything ? "a board that answers ok to everything" : "Grbl 1.1h",
                 pty.slavePath().toLocal8Bit().constData(), args.link.empty() ? "" : " and ",
                 args.link.c_str());

    QSocketNotifier signalNotifier(signalFd, QSocketNotifier::Read);
    QObject::connect(&signalNotifier, &QSocketNotifier::activated, &app, [signalFd, &app] {
        signalfd_siginfo info{};
        if (::read(signalFd, &info, sizeof info) > 0)
            app.quit();
    });
    QObject::connect(&pty, &EmulatorPty::hungUp, &app, [&app] {
        std::fprintf(stderr, "emulate: hung up as asked\n");
        app.quit();
    });
    app.exec();
    pty.close();
    ::close(signalFd);
    return kExitOk;
}

}  // namespace

void addEmulateCommand(CLI::App& app, int& exitCode)
{
    auto args = std::make_shared<EmulateArgs>();
    CLI::App* command = app.add_subcommand(
        "emulate", "Run a Grbl 1.1 board in software on a pseudo-terminal; prints its path");
    GrblEmulatorOptions& options = args->options;
    command->add_option("--speed", options.speed,
                        "Motion speed factor: 1 real time, 10 ten times faster, 0 no motion time")
        ->check(CLI::NonNegativeNumber);
    command->add_option("--record", options.recordPath, "Append every received line to FILE");
    command->add_option("--link", args->link, "Make PATH a symlink to the pseudo-terminal");
    command->add_flag("--stock", options.stock,
                      "A stock 1.1h image without single-axis homing (\"$HX\" gives error:3)");
    command->add_flag("--factory-settings", options.factorySettings,
                      "Start from Grbl's default settings (homing off, no alarm lock)");
    command->add_option("--laser-mode", options.laserMode,
                        "Laser mode $32 at power-up (default 1; 0 with --factory-settings)")
        ->check(CLI::Range(0, 1));
    command->add_flag("--ok-to-everything", options.okToEverything,
                      "Not Grbl: answer \"ok\" to every line, nothing else (no welcome text, no \"?\")");
    command->add_option("--boot-ms", options.bootMs, "Delay from reset to welcome text (ms)")
        ->check(CLI::NonNegativeNumber);
    command->add_flag("--split-replies", options.splitReplies,
                      "Send every line in two writes (\"o\", then \"k\\r\\n\")");
    command->add_option("--reply-delay-ms", options.replyDelayMs, "Hold every reply back (ms)")
        ->check(CLI::NonNegativeNumber);
    command->add_option("--error-at", args->errorAt, "Answer line K with error:N")
        ->check(kLineFault);
    command->add_option("--alarm-at", args->alarmAt, "Raise ALARM:N after line K")
        ->check(kLineFault);
    command->add_option("--silent-after", options.silentAfter, "Answer nothing after line K")
        ->check(CLI::PositiveNumber);
    command->add_option("--hangup-after", options.hangupAfter,
                        "Close the pseudo-terminal after line K and exit")
        ->check(CLI::PositiveNumber);
    command->callback([args, &exitCode] { exitCode = runEmulate(*args); });
}

}  // namespace veltrin::cli
