#pragma once
// What several veltrin-cli commands share beyond the machine: the stop signals of a run that
// lasts (stream, play, fold) and the song turned into a program in a folder of its own, for
// the commands that only need its plan (play, print).

#include <QTemporaryDir>

#include <string>
#include <vector>

#include "app/app_state.h"

namespace veltrin::cli {

// While it lives, the first SIGINT, SIGTERM or SIGHUP writes a byte to a pipe whose read end
// an event loop watches (QSocketNotifier); a second one ends the program the usual way.
class StopSignals {
public:
    StopSignals();
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;
    int readEnd() const;
    // Empties the pipe once its read end is readable.
    void drain() const;
};

// The settings options of a command that makes a program: --set KEY=VALUE..., --machine,
// --scale, --defaults.
struct SongRunOptions {
    std::string song;
    std::string machine;  // "laser", "punch" or empty
    std::string scale;
    std::vector<std::string> assignments;
    bool defaults = false;
};

// Decodes the song and writes its program into scratch (removed with it), with the stored
// settings (none with defaults) and the options laid over them, nothing saved. Problems go to
// stderr as "veltrin-cli <command>: ..."; returns kExitOk, or kExitUsage for a bad setting, an
// unknown scale or a song that cannot be read.
int loadSongForRun(const char* command, const SongRunOptions& options, AppState& state, const QTemporaryDir& scratch);

}  // namespace veltrin::cli
