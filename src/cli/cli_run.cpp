#include "cli/cli_run.h"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

#include "app/settings_store_qt.h"
#include "app/song_import.h"
#include "base/data_folders.h"
#include "cli/cli_commands.h"
#include "cli/cli_machine.h"
#include "midi/resume_file.h"
#include "plan/plan_checks.h"
#include "scales/scale_file.h"

namespace veltrin::cli {

namespace {

int g_stopPipe[2] = {-1, -1};

constexpr int kStopSignals[] = {SIGINT, SIGTERM, SIGHUP};

// The handler only writes a byte: all the work is done by the event loop.
void onStopSignal(int signalNumber)
{
    const char byte = static_cast<char>(signalNumber);
    [[maybe_unused]] const auto written = ::write(g_stopPipe[1], &byte, 1);
    std::signal(signalNumber, SIG_DFL);
}

void complain(const char* command, const std::string& message)
{
    std::fflush(stdout);
    std::fprintf(stderr, "veltrin-cli %s: %s\n", command, message.c_str());
}

}  // namespace

StopSignals::StopSignals()
{
    if (::pipe2(g_stopPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return;
    for (const int signalNumber : kStopSignals)
        std::signal(signalNumber, onStopSignal);
}

StopSignals::~StopSignals()
{
    for (const int signalNumber : kStopSignals)
        std::signal(signalNumber, SIG_DFL);
    for (int& fd : g_stopPipe) {
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }
}

int StopSignals::readEnd() const
{
    return g_stopPipe[0];
}

void StopSignals::drain() const
{
    char bytes[16];
    while (::read(g_stopPipe[0], bytes, sizeof bytes) > 0) {
    }
}

int loadSongForRun(const char* command, const SongRunOptions& run, AppState& state, const QTemporaryDir& scratch)
{
    std::vector<std::string> overrides = run.assignments;
    if (!run.machine.empty())
        overrides.push_back(std::string("Type_machine=") + (run.machine == "laser" ? "Laser" : "Punch"));
    if (!run.scale.empty())
        overrides.push_back("Standard=" + run.scale);
    std::unique_ptr<QtSettingsStore> stored;
    if (!startMachineRun(command, state, run.defaults, overrides, stored))
        return kExitUsage;
    const std::string& scale = state.settings.Standard;
    if (!isBuiltInScale(scale) && scaleFilePath(state.dossier_documents, scale).empty()) {
        complain(command, "unknown scale \"" + scale + "\" (no " + instrumentsFolder(state.dossier_documents) + "/" +
                              scale + ".txt)");
        return kExitUsage;
    }
    // A resume file brings the settings of its program, checked by the generation.
    if (!isResumePath(run.song)) {
        if (auto checked = checkGenerationSettings(state.settings, state.scale); !checked) {
            complain(command, checked.detail());
            return kExitUsage;
        }
    }
    state.programPathOverride = scratch.filePath(QStringLiteral("program.gcode")).toStdString();
    ImportOptions options;
    options.widthSearch = false;  // the travel order changes no hole
    auto imported = Ouvre_midi(state, {run.song}, 0, options);
    if (imported && imported->decoderError != 0) {
        std::string message = imported->decoderMessage;
        std::erase(message, '\r');
        complain(command, message);
    }
    if (!imported) {
        complain(command, std::string("cannot ") + command + " " + run.song + ": " + imported.detail());
        return kExitUsage;
    }
    return kExitOk;
}

}  // namespace veltrin::cli
