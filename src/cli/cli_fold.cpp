// veltrin-cli fold and fold-file: the fold marks of a cardboard book. fold marks them live on
// the machine, forwards from the fold under the laser (the first Ctrl-C, SIGTERM or SIGHUP is
// Stop: the fold in progress is finished, then "M5 S0"), or backwards from a Y the last job
// reached; fold-file writes the fold-marking program of a song.

#include <CLI/CLI.hpp>

#include <QSocketNotifier>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <optional>
#include <unistd.h>

#include "app/genere_gcode.h"
#include "app/grbl_link.h"
#include "app/song_import.h"
#include "base/data_folders.h"
#include "base/numeric_text.h"
#include "cli/cli_commands.h"
#include "cli/cli_run.h"
#include "cli/cli_machine.h"
#include "cli/input_files.h"
#include "folding/fold_program.h"
#include "scales/scale_file.h"

namespace veltrin::cli {

namespace {

// The settings options every fold command shares with convert.
struct RunSettings {
    std::vector<std::string> assignments;
    std::string machine;
    std::string scale;
    bool defaults = false;

    void addOptions(CLI::App& command)
    {
        command.add_option("--set", assignments, "KEY=VALUE: a setting for this run only, not saved (repeatable)");
        command.add_option("--machine", machine, "Machine for this run: laser or punch")
            ->transform(CLI::IsMember({"laser", "punch"}, CLI::ignore_case));
        command.add_option("--scale", scale,
                           "Organ scale for this run: a built-in name or a scale file of the Instruments folder");
        command.add_flag("--defaults", defaults, "Ignore the stored settings (every key at its default)");
    }
};

// The run's settings, checked for a fold marking; false after a message on stderr.
bool foldSettings(const char* command, const RunSettings& run, AppState& state, std::unique_ptr<QtSettingsStore>& stored)
{
    std::vector<std::string> overrides = run.assignments;
    if (!run.machine.empty())
        overrides.push_back(std::string("Type_machine=") + (run.machine == "laser" ? "Laser" : "Punch"));
    if (!run.scale.empty())
        overrides.push_back("Standard=" + run.scale);
    if (!startMachineRun(command, state, run.defaults, overrides, stored))
        return false;
    const std::string& scale = state.settings.Standard;
    if (!isBuiltInScale(scale) && scaleFilePath(state.dossier_documents, scale).empty()) {
        std::fprintf(stderr, "veltrin-cli %s: unknown scale \"%s\" (no %s/%s.txt)\n", command, scale.c_str(),
                     instrumentsFolder(state.dossier_documents).c_str(), scale.c_str());
        return false;
    }
    if (auto checked = checkFoldSettings(state.settings, state.scale); !checked) {
        std::fprintf(stderr, "veltrin-cli %s: %s%s\n", command, checked.detail().c_str(),
                     checked.error() == FoldError::NoFoldLength
                         ? (" (the scale \"" + scale + "\" makes no book)").c_str()
                         : "");
        return false;
    }
    return true;
}

// --- fold ---

struct FoldArgs {
    std::string port;
    std::optional<int> count;
    std::optional<double> backwardFromMm;
    RunSettings settings;
};

// Messages of the link go to stderr; the command line has no question to answer here.
class FoldHost final : public JobHost {
public:
    bool hasNextRoll() override { return false; }
    int rollGapMm() override { return 0; }
    std::optional<JobProgram> openNextRoll() override { return std::nullopt; }
    void askYesNo(std::string_view, bool defaultYes, std::function<void(bool)> answer) override { answer(defaultYes); }
    void showMessage(std::string_view text) override
    {
        std::fprintf(stderr, "veltrin-cli fold: %.*s\n", static_cast<int>(text.size()), text.data());
    }
    void startBackwardFolds() override {}
};

// Before a backward marking: the board must still hold the coordinates of the job. Opening
// the port resets most Arduino boards, which forgets them (Y 0, or locked in Alarm), and a
// marking from there would burn the folds off their places.
bool jobCoordinatesKept(MachinePort& port)
{
    QTimer timeout;
    timeout.setSingleShot(true);
    QObject::connect(&timeout, &QTimer::timeout, qApp, [] { QCoreApplication::exit(0); });
    const auto reported = QObject::connect(&port, &MachinePort::stateChanged, qApp, [&] {
        if (port.link().status().known)
            QCoreApplication::exit(0);
    });
    if (!port.link().status().known) {
        timeout.start(3000);
        QCoreApplication::exec();
    }
    QObject::disconnect(reported);
    const MachineStatus& status = port.link().status();
    const auto head = port.link().workPositionXY();
    if (status.known && head && status.state != "Alarm" && std::abs(head->second) >= 0.001)
        return true;
    std::fprintf(stderr,
                 "veltrin-cli fold: the board %s: the coordinates of the job are gone (opening the port resets "
                 "most boards). Mark the folds backwards from the application right after the job, or "
                 "forwards from the first fold (without --backward-from-mm)\n",
                 !status.known ? "reports no position" : status.state == "Alarm" ? "is locked (Alarm)" : "is at Y 0");
    return false;
}

int runFold(const FoldArgs& args)
{
    if (args.count && *args.count < 1) {
        std::fprintf(stderr, "veltrin-cli fold: --count %d: at least 1 fold\n", *args.count);
        return kExitUsage;
    }
    if (args.count && args.backwardFromMm) {
        std::fprintf(stderr, "veltrin-cli fold: --count is for the forward marking; the backward marking "
                             "goes down to fold 0\n");
        return kExitUsage;
    }
    if (args.backwardFromMm && !(*args.backwardFromMm >= 0.0 && *args.backwardFromMm <= 99999.0)) {
        std::fprintf(stderr, "veltrin-cli fold: --backward-from-mm %s: a Y from 0 to 99999 mm\n",
                     plainNumber(*args.backwardFromMm).c_str());
        return kExitUsage;
    }

    const CliApplication application;
    AppState state;
    std::unique_ptr<QtSettingsStore> stored;
    if (!foldSettings("fold", args.settings, state, stored))
        return kExitUsage;

    MachinePort port(state);
    FoldHost host;
    port.link().setHost(&host);
    port.link().setLogEcho(printLog);
    // Nobody hits Continue here: a hold stops the marking.
    port.link().setContinuePrompt(false);
    if (!openAndDetect("fold", port, args.port))
        return kExitFailed;
    if (args.backwardFromMm && !jobCoordinatesKept(port))
        return kExitFailed;

    std::optional<FoldEnded> ended;
    QObject::connect(&port, &MachinePort::foldMarkingEnded, qApp, [&](FoldOutcome outcome, int folds) {
        ended = FoldEnded{outcome, folds, false, {}};
        QTimer::singleShot(0, qApp, [] { QCoreApplication::exit(0); });
    });
    const auto stop = [&] {
        port.link().Stop_button_Click();
        port.carryOut();
    };
    int holdsSeen = 0;
    QObject::connect(&port, &MachinePort::stateChanged, qApp, [&] {
        const FoldMarker& folds = port.link().folds();
        if (!folds.held() || folds.holdCount() == holdsSeen)
            return;
        holdsSeen = folds.holdCount();
        std::fprintf(stderr, "veltrin-cli fold: marking held: stopping\n");
        QTimer::singleShot(0, qApp, stop);  // out of the link's own call
    });
    const StopSignals stopSignals;
    QSocketNotifier signalNotifier(stopSignals.readEnd(), QSocketNotifier::Read);
    QObject::connect(&signalNotifier, &QSocketNotifier::activated, qApp, [&] {
        stopSignals.drain();
        stop();
    });

    const bool started = args.backwardFromMm ? port.link().marquage_plis_arriere(*args.backwardFromMm)
                                             : port.link().marquage_plis(args.count);
    port.carryOut();
    if (!started) {
        port.closePort();
        return kExitFailed;
    }
    if (!ended)
        QCoreApplication::exec();
    port.closePort();
    return ended && ended->outcome == FoldOutcome::Done ? kExitOk : kExitFailed;
}

// --- fold-file ---

struct FoldFileArgs {
    std::string song;
    std::optional<int> count;
    std::string out;
    RunSettings settings;
};

int runFoldFile(const FoldFileArgs& args)
{
    if (std::string problem = fileProblem(args.song); !problem.empty()) {
        std::fprintf(stderr, "veltrin-cli fold-file: cannot read %s: %s\n", args.song.c_str(), problem.c_str());
        return kExitUsage;
    }
    if (args.count && *args.count < 1) {
        std::fprintf(stderr, "veltrin-cli fold-file: --count %d: at least 1 fold\n", *args.count);
        return kExitUsage;
    }
    namespace fs = std::filesystem;
    std::error_code error;
    if (!args.out.empty() && fs::is_directory(args.out, error)) {
        std::fprintf(stderr, "veltrin-cli fold-file: --out %s: a folder, not a file\n", args.out.c_str());
        return kExitUsage;
    }
    if (!args.out.empty() && fs::equivalent(args.out, args.song, error)) {
        std::fprintf(stderr, "veltrin-cli fold-file: --out %s: that is the song; choose another file\n",
                     args.out.c_str());
        return kExitUsage;
    }

    const CliApplication application;
    AppState state;
    std::unique_ptr<QtSettingsStore> stored;
    if (!foldSettings("fold-file", args.settings, state, stored))
        return kExitUsage;

    // The roll's length comes from the song's plan; its program goes to a folder of this run
    // only, so that the song's own program in Temp stays as it was.
    int count = 0;
    if (args.count) {
        count = *args.count;
    } else {
        const QTemporaryDir scratch;
        if (!scratch.isValid()) {
            std::fprintf(stderr, "veltrin-cli fold-file: no temporary folder for the song's plan\n");
            return kExitFailed;
        }
        state.programPathOverride = scratch.filePath(QStringLiteral("song.gcode")).toStdString();
        ImportOptions options;
        options.widthSearch = false;
        auto imported = Ouvre_midi(state, {args.song}, 0, options);
        if (!imported) {
            std::fprintf(stderr, "veltrin-cli fold-file: the song's roll was not made: %s\n", imported.detail().c_str());
            return kExitUsage;
        }
        const double rollMm = std::max(state.y_max, state.longueur_rouleau);
        count = foldsForRoll(rollMm, state.scale.longueur_pli);
        std::printf("Roll of %s mm: %d folds of %s mm\n", plainNumber(std::round(rollMm)).c_str(), count,
                    plainNumber(state.scale.longueur_pli).c_str());
    }
    const std::string title = songTitle(args.song);
    const std::string path = args.out.empty() ? foldProgramPath(state.dossier_documents, title) : args.out;
    auto written = writeFoldProgram(state.settings, state.scale, commentSafe(title), count, path);
    if (!written) {
        std::fprintf(stderr, "veltrin-cli fold-file: %s\n", written.detail().c_str());
        return written.error() == FoldError::CannotWrite ? kExitFailed : kExitUsage;
    }
    std::printf("%s\n", written->c_str());
    return kExitOk;
}

}  // namespace

void addFoldCommand(CLI::App& app, int& exitCode)
{
    auto args = std::make_shared<FoldArgs>();
    CLI::App* command = app.add_subcommand(
        "fold", "Mark the folds of a book on the machine with the laser: forwards from the fold under the laser "
                "until Ctrl-C (Stop), or backwards after a job");
    command->add_option("--port", args->port, "Serial port: a name (ttyUSB0, COM3) or a path")->required();
    command->add_option("--count", args->count, "Stop by itself after this many folds");
    command->add_option("--backward-from-mm", args->backwardFromMm,
                        "Backwards, from the highest fold line at or below Y - 20 mm down to Y 0: Y is the "
                        "highest Y the last job reached, on a board that kept its coordinates");
    args->settings.addOptions(*command);
    command->callback([args, &exitCode] { exitCode = runFold(*args); });
}

void addFoldFileCommand(CLI::App& app, int& exitCode)
{
    auto args = std::make_shared<FoldFileArgs>();
    CLI::App* command = app.add_subcommand(
        "fold-file", "Write the fold-marking program of a song's book (laser): Temp/<song>_folds.gcode");
    command->add_option("song", args->song, "MIDI file (.mid): its roll length gives the number of folds")
        ->required();
    command->add_option("--count", args->count, "Number of folds (default: enough for the song's roll)");
    command->add_option("--out", args->out, "Write the program here instead of the Temp folder");
    args->settings.addOptions(*command);
    command->callback([args, &exitCode] { exitCode = runFoldFile(*args); });
}

}  // namespace veltrin::cli
