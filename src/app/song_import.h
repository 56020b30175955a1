#pragma once
// The song import: the open command once the operator has chosen the files. It decodes the
// song (or the song a resume file names), finds the best band width, and writes the
// program through Genere_GCode. Also the simulation-mode switch that goes with the command.
//
// Use: Ouvre_midi(state, chosenPaths, rollGapMm) for a new choice; openCurrentFile(state)
// for the next roll of the same choice once currentFileIndex has moved on.

#include <string>
#include <string_view>
#include <vector>

#include "app/app_state.h"
#include "app/settings_store.h"
#include "base/result.h"

namespace veltrin {

enum class ImportError {
    NoFile,                // nothing chosen, or currentFileIndex past Liste_fichiers
    UnreadableResumeFile,  // the ".rep" file is missing or has fewer than four lines
    UnreadableSong,        // the MIDI file cannot be read, or has no header or track chunk
    ProgramNotWritten,     // Genere_GCode failed (detail: why); the song stays loaded
    SettingsRefused,       // the width search or Genere_GCode refused a setting or a mark
                           // (detail: the message); nothing written, the song stays loaded
};

struct ImportOptions {
    // Where a Fourchette chosen by the width search is saved at once; null: not saved.
    // Nothing of a resume file is ever saved.
    SettingsStore* store = nullptr;
    // Runs the best-width search after decoding (a resume file never runs it).
    bool widthSearch = true;
};

struct ImportReport {
    // The MIDI file decoded (line 1 of a resume file, or the chosen path).
    std::string songPath;
    // A resume file was opened: the start mark is its restart time, Fourchette its line 4,
    // and its "key=value" lines (settingsRestored) the values of this song's generations.
    bool resumed = false;
    bool settingsRestored = false;
    double restartMs = 0.0;
    // The decoder's error code and message (0 and empty when the whole file was read); the
    // import goes on with the lines decoded before the error.
    int decoderError = 0;
    std::string decoderMessage;
    // The program file written.
    std::string programPath;
};

// Ouvre_midi ("open MIDI"): takes the chosen files (one or several; several are one roll
// each, rollGapMm apart), fills Liste_fichiers, opens the first one (openCurrentFile).
// With no path nothing changes and NoFile is returned (the operator cancelled).
Result<ImportReport, ImportError> Ouvre_midi(AppState& state, const std::vector<std::string>& paths,
                                             int rollGapMm = 0, const ImportOptions& options = {});

// Opens the entry of Liste_fichiers at currentFileIndex: resets the end mark to 500000 and
// the song's plan, reads a resume file when the path ends in "rep" (its settings become the
// song's plan settings, AppState::songPlanSettings, and each value that differs from the
// operator's is logged as "Resume file value kept: KEY=VALUE (settings: CURRENT)"; a file
// without them logs "Resume file without settings: the current settings are used, with its
// Fourchette N"; an end mark it names is set again), logs the machine line, decodes the
// song into Liste_tran, logs "Midi file de-assembling" (a file with no header or track chunk
// ends the import there: UnreadableSong), runs the width search
// (unless resuming or switched off) and Genere_GCode: (false, false) without a search, and
// (true, false) after one, since the search has already split the song the same way.
Result<ImportReport, ImportError> openCurrentFile(AppState& state, const ImportOptions& options = {});

// The answer to "Define the distance between successive rolls (in mm)" as whole
// millimetres: its leading number rounded (half to even); no number gives 0.
int rollGapFromAnswer(std::string_view answer);

// The simulation-mode switch: inverts mode_simulation, enables the open command
// (ouvre_midi_actif) and returns the new mode.
bool toggleSimulationMode(AppState& state);

enum class StatusLamp { Yellow, Green, Red };

// The status lamp: yellow in simulation mode, else green when the machine is connected,
// red when not.
StatusLamp statusLamp(bool simulation, bool connected);

}  // namespace veltrin
