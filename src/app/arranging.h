#pragma once
// The arranging aids on the application state: the song as it goes on the roll (the channels
// placed, the transposition, the notes the scale loses), the "Best transposition" command,
// and a program read back into the notes the organ will play ("Verify", roll-midi).

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/app_state.h"
#include "app/settings_store.h"
#include "base/result.h"
#include "midi/resume_file.h"
#include "plan/arrangement.h"
#include "plan/plan_error.h"
#include "plan/roll_check.h"

namespace veltrin {

// The loaded song (Liste_tran) as the next generation places it: the channels of Channels,
// the shift of Transpose, on state's scale. A setting that does not read (the generation
// refuses it) counts as every channel and no shift.
Arrangement songArrangement(const AppState& state);
// The same without its note and playback lines (arrangementSummary): for the report.
Arrangement songArrangementSummary(const AppState& state);

// The shift "auto" would choose for the loaded song, and what it saves against the song as
// written; nullopt while no song is loaded.
std::optional<TranspositionChoice> bestTransposition(const AppState& state);

// "Best transposition": puts the shift bestTransposition finds into Transpose (as a number,
// saved in store), logs "Best transposition : \u22125 (286 \u2192 12 notes lost)" and makes the
// program again as an edit of the plan's settings does (planSettingsChanged). nullopt when no
// song is loaded (nothing changes).
std::optional<Result<std::string, PlanError>> applyBestTransposition(AppState& state, SettingsStore& store);

enum class VerifyError {
    NoProgram,       // no program written yet, or its file cannot be read (detail: the path)
    SettingRefused,  // the settings it would be read with are refused (detail: the message)
};

// A program read back and checked.
struct ProgramCheck {
    RollReading roll;
    std::vector<RollNote> notes;        // what the organ plays from it
    std::vector<RollProblem> problems;  // empty: nothing wrong
    std::vector<std::string> report;    // rollCheckReport's lines
    bool againstSong = false;
    bool ok() const { return problems.empty(); }
};

// Reads programText back with the values it was made with: madeWith (the record beside the
// program, or state.programSettings) laid over state's settings and scale, and the machine
// its title line names when madeWith names none. With againstSong it is compared with the pieces the plan makes of
// state.Liste_tran between the marks madeWith names ("debut_marque", "fin_marque").
Result<ProgramCheck, VerifyError> checkProgram(const AppState& state, std::string_view programText,
                                               const SettingList& madeWith, bool againstSong);

// "Verify" before Punch: the program last written (programPath(state)), with the settings
// it was made with (state.programSettings), against the song loaded.
Result<ProgramCheck, VerifyError> verifyLastProgram(const AppState& state);

// The notes of a program read back, as a MIDI file (midi/midi_writer.h).
std::vector<std::uint8_t> rollMidiFile(const ProgramCheck& check, const std::string& title);

}  // namespace veltrin
