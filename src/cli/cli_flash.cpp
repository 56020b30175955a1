// veltrin-cli flash: the "Grbl upload" menu on the command line. avrdude flashes the Grbl image
// onto the board on --port; its output and its end go to the log on stdout, and the port is
// opened again afterwards so that Grbl's welcome text shows the new firmware runs.

#include <CLI/CLI.hpp>

#include <QFileInfo>
#include <QTimer>

#include <cstdio>
#include <memory>
#include <unistd.h>

#include "app/grbl_link.h"
#include "cli/cli_commands.h"
#include "cli/cli_machine.h"
#include "machine/process_runner_qt.h"

namespace veltrin::cli {

namespace {

struct FlashArgs {
    std::string port;
    std::string board;
    std::string image;
    std::string avrdude = "avrdude";
    bool yes = false;
    std::vector<std::string> assignments;
    std::string machine;
    std::string scale;
    bool defaults = false;
};

// The question on the terminal (No without one, unless --yes); messages on stderr.
class FlashHost final : public JobHost {
public:
    explicit FlashHost(bool yes) : m_yes(yes) {}
    bool hasNextRoll() override { return false; }
    int rollGapMm() override { return 0; }
    std::optional<JobProgram> openNextRoll() override { return std::nullopt; }
    void askYesNo(std::string_view question, bool defaultYes, std::function<void(bool)> answer) override
    {
        std::fprintf(stderr, "%.*s [%s] ", static_cast<int>(question.size()), question.data(),
                     defaultYes ? "Y/n" : "y/N");
        bool yes = defaultYes;
        if (m_yes) {
            yes = true;
            std::fprintf(stderr, "Yes (--yes)\n");
        } else if (isatty(STDIN_FILENO)) {
            char reply[16] = {};
            if (std::fgets(reply, sizeof reply, stdin))
                yes = reply[0] == 'y' || reply[0] == 'Y' || (reply[0] == '\n' && defaultYes);
        } else {
            std::fprintf(stderr, "%s (no terminal; --yes answers Yes)\n", yes ? "Yes" : "No");
        }
        answer(yes);
    }
    void showMessage(std::string_view text) override
    {
        std::fprintf(stderr, "veltrin-cli flash: %.*s\n", static_cast<int>(text.size()), text.data());
    }
    void startBackwardFolds() override {}

private:
    bool m_yes;
};

// Waits in the event loop for the detection of Grbl on the port just opened.
void waitForDetection(MachinePort& port)
{
    if (!port.isOpen() || !port.link().detecting())
        return;
    const auto done = QObject::connect(&port, &MachinePort::detectionFinished, qApp,
                                       [] { QCoreApplication::exit(0); });
    QCoreApplication::exec();
    QObject::disconnect(done);
}

int runFlash(const FlashArgs& args)
{
    const GrblBoard board = *boardByCliName(args.board);
    const CliApplication application;

    std::vector<std::string> overrides = args.assignments;
    if (!args.machine.empty())
        overrides.push_back(std::string("Type_machine=") + (args.machine == "laser" ? "Laser" : "Punch"));
    if (!args.scale.empty())
        overrides.push_back("Standard=" + args.scale);
    AppState state;
    std::unique_ptr<QtSettingsStore> stored;
    if (!startMachineRun("flash", state, args.defaults, overrides, stored))
        return kExitUsage;

    MachinePort port(state);
    FlashHost host(args.yes);
    FirmwareUpload upload(port);
    upload.setHost(&host);
    upload.setProgram(QString::fromStdString(args.avrdude));
    const QString image = QString::fromStdString(args.image);
    // Without an image there is nothing to flash: told before the board is touched.
    if (image.isEmpty() ? upload.findImage().isEmpty() : !QFileInfo(image).isFile()) {
        upload.upload(board, image);
        std::fprintf(stderr, "veltrin-cli flash: give the image with --image FILE.hex\n");
        return kExitUsage;
    }

    // A board without Grbl (a new one) answers nothing, which is no fault here; a port that
    // does not open is told, and the upload then refuses with "Bad port number".
    openAndDetect("flash", port, args.port);
    port.link().setLogEcho(printLog);

    bool ok = false;
    QObject::connect(&upload, &FirmwareUpload::finished, qApp, [&](bool succeeded) {
        ok = succeeded;
        QTimer::singleShot(0, qApp, [] { QCoreApplication::exit(0); });
    });
    upload.upload(board, image);
    if (!upload.running()) {
        std::fprintf(stderr, "veltrin-cli flash: nothing flashed\n");
        port.closePort();
        return kExitFailed;
    }
    QCoreApplication::exec();
    waitForDetection(port);
    port.closePort();
    return ok ? kExitOk : kExitFailed;
}

}  // namespace

void addFlashCommand(CLI::App& app, int& exitCode)
{
    auto args = std::make_shared<FlashArgs>();
    CLI::App* command = app.add_subcommand("flash", "Flash Grbl onto the machine's board with avrdude (\"Grbl upload\")");
    command->add_option("--port", args->port, "Serial port of the board: a name (ttyUSB0, COM3) or a path")->required();
    command->add_option("--board", args->board,
                        "uno (Uno, Uno rev3), nano (Nano, new boot loader 01-2018) or nano-old (Nano, old "
                        "boot loader: 57600 baud)")
        ->required()
        ->check(CLI::IsMember({"uno", "nano", "nano-old"}));
    command->add_option("--image", args->image,
                        "Grbl image (Intel hex); default: Veltrin_uploader/Binaire/Veltrin_grblUpload.hex beside "
                        "the program or in its data folder");
    command->add_flag("--yes", args->yes, "Answer Yes to \"Really want to re-flash firmware ?\"");
    command->add_option("--avrdude", args->avrdude, "The avrdude program to run (default: avrdude from PATH)");
    command->add_option("--set", args->assignments, "KEY=VALUE: a setting for this run only, not saved (repeatable)");
    command->add_option("--machine", args->machine, "Machine for this run: laser or punch")
        ->transform(CLI::IsMember({"laser", "punch"}, CLI::ignore_case));
    command->add_option("--scale", args->scale, "Organ scale for this run");
    command->add_flag("--defaults", args->defaults, "Ignore the stored settings (every key at its default)");
    command->callback([args, &exitCode] { exitCode = runFlash(*args); });
}

}  // namespace veltrin::cli
