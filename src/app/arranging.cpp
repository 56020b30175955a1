#include "app/arranging.h"

#include <cstdlib>
#include <fstream>
#include <iterator>

#include "app/genere_gcode.h"
#include "app/settings_edit.h"
#include "base/numeric_text.h"
#include "midi/midi_writer.h"
#include "plan/plan_checks.h"
#include "plan/plan_steps.h"

namespace veltrin {

namespace {

ChannelSet channelsOf(const Settings& settings)
{
    return parseChannels(settings.Channels).value_or(ChannelSet::every());
}

TransposeSetting transposeOf(const Settings& settings)
{
    return parseTranspose(settings.Transpose).value_or(TransposeSetting{});
}

Arrangement arrangementWith(const std::vector<std::string>& Liste_tran, const Settings& settings,
                            const OrganScale& scale)
{
    return arrangeSong(Liste_tran, channelsOf(settings), transposeOf(settings), scale);
}

std::string shiftText(int semitones)
{
    // U+2212 MINUS SIGN, as the report writes it.
    std::string text = semitones < 0 ? "\u2212" : semitones > 0 ? "+" : "";
    text += std::to_string(std::abs(semitones));
    return text;
}

}  // namespace

Arrangement songArrangement(const AppState& state)
{
    return arrangementWith(state.Liste_tran, state.settings, state.scale);
}

Arrangement songArrangementSummary(const AppState& state)
{
    return arrangementSummary(state.Liste_tran, channelsOf(state.settings), transposeOf(state.settings), state.scale);
}

std::optional<TranspositionChoice> bestTransposition(const AppState& state)
{
    if (state.chemin_morceau.empty())
        return std::nullopt;
    return arrangementSummary(state.Liste_tran, channelsOf(state.settings), TransposeSetting{true, 0}, state.scale)
        .transposition;
}

std::optional<Result<std::string, PlanError>> applyBestTransposition(AppState& state, SettingsStore& store)
{
    const std::optional<TranspositionChoice> best = bestTransposition(state);
    if (!best)
        return std::nullopt;
    changeSetting(state, store, "Transpose", std::to_string(best->semitones));
    state.user_msg_list.append("Best transposition : " + shiftText(best->semitones) + " (" +
                               std::to_string(best->asWritten.notes) + " \u2192 " + std::to_string(best->shifted.notes) +
                               (best->shifted.notes == 1 ? " note lost)" : " notes lost)"));
    return planSettingsChanged(state);
}

Result<ProgramCheck, VerifyError> checkProgram(const AppState& state, std::string_view programText,
                                               const SettingList& madeWith, bool againstSong)
{
    // 1. The values the program was made with; its title line knows its machine when they
    //    do not say.
    Settings settings = state.settings;
    OrganScale scale = state.scale;
    applyPlanSettings(madeWith, settings, scale);
    const ProgramReading reading = readProgram(programText);
    if (reading.titled != ProgramMachine::Unknown && !settingValue(madeWith, "Type_machine"))
        settings.Type_machine = reading.titled == ProgramMachine::Laser ? "Laser" : "Punch";
    if (auto checked = checkGenerationSettings(settings, scale); !checked)
        return fail(VerifyError::SettingRefused, checked.detail());
    const PlanValues values = planValues(settings, scale);

    // 2. The roll read back, 3. the plan of the song between the marks.
    ProgramCheck check;
    check.againstSong = againstSong;
    check.roll = readRoll(reading, values, scale);
    check.notes = rollNotes(check.roll, values, scale);
    std::vector<Piece> planned;
    if (againstSong) {
        const Arrangement arranged = arrangementWith(state.Liste_tran, settings, scale);
        const bool fractionner = !(values.laser && leadingNumber(settings.Lgponts) == 0.0);
        MarkRange marks;
        marks.startMs = leadingNumber(settingValue(madeWith, "debut_marque").value_or("0"));
        marks.endMs = leadingNumber(settingValue(madeWith, "fin_marque").value_or("500000"));
        const MarkFilter between(marks);
        for (const Piece& piece : planSplit(arranged.noteLines, fractionner, values, scale).pieces) {
            if (between.keeps(piece.startMs))
                planned.push_back(piece);
        }
    }

    // 4. What is wrong.
    RollCheckInput input;
    input.roll = &check.roll;
    input.values = values;
    input.scale = &scale;
    input.bridgeMm = leadingNumber(settings.Lgponts);
    input.planned = againstSong ? &planned : nullptr;
    check.problems = checkRoll(input);
    check.report = rollCheckReport(check.roll, check.notes, check.problems, againstSong);
    return check;
}

Result<ProgramCheck, VerifyError> verifyLastProgram(const AppState& state)
{
    if (state.programSettings.empty())
        return fail(VerifyError::NoProgram, "no program written yet");
    const std::string path = programPath(state);
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return fail(VerifyError::NoProgram, path);
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    return checkProgram(state, text, state.programSettings, !state.Liste_tran.empty());
}

std::vector<std::uint8_t> rollMidiFile(const ProgramCheck& check, const std::string& title)
{
    std::vector<MidiNote> notes;
    notes.reserve(check.notes.size());
    for (const RollNote& note : check.notes)
        notes.push_back({note.startMs, note.endMs, note.note, 100, 1});
    return writeMidiFile(notes, title);
}

}  // namespace veltrin
