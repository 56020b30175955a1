#include "app/song_import.h"

#include <cstdint>
#include <filesystem>
#include <fstream>

#include "app/genere_gcode.h"
#include "app/song_plan_scope.h"
#include "base/data_folders.h"
#include "base/numeric_text.h"
#include "midi/mdlvert.h"
#include "midi/resume_file.h"
#include "scales/scale_file.h"

namespace veltrin {

namespace {

bool readBytes(const std::string& path, std::vector<std::uint8_t>& bytes)
{
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error))
        return false;
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    if (!in)
        return false;
    const std::streamoff size = in.tellg();
    if (size < 0)
        return false;
    bytes.resize(static_cast<std::size_t>(size));
    in.seekg(0);
    in.read(reinterpret_cast<char*>(bytes.data()), size);
    return static_cast<bool>(in) || size == 0;
}

Failure<ImportError> notWritten(PlanError error, const std::string& detail)
{
    return fail(error == PlanError::CannotWriteProgram ? ImportError::ProgramNotWritten : ImportError::SettingsRefused,
                detail);
}

void saveFourchette(const AppState& state, const ImportOptions& options)
{
    if (options.store)
        options.store->write("Fourchette", state.settings.Fourchette);
}

}  // namespace

Result<ImportReport, ImportError> Ouvre_midi(AppState& state, const std::vector<std::string>& paths,
                                             int rollGapMm, const ImportOptions& options)
{
    if (paths.empty())
        return fail(ImportError::NoFile);
    state.Liste_fichiers = paths;
    state.currentFileIndex = 0;
    if (paths.size() > 1)
        state.rollGapMm = rollGapMm;
    return openCurrentFile(state, options);
}

Result<ImportReport, ImportError> openCurrentFile(AppState& state, const ImportOptions& options)
{
    if (state.currentFileIndex < 0 ||
        static_cast<std::size_t>(state.currentFileIndex) >= state.Liste_fichiers.size())
        return fail(ImportError::NoFile, std::to_string(state.currentFileIndex));

    // 1. A new song: the whole song is marked again and nothing of the previous song stays,
    // so after a failure below no song is loaded.
    resetSongPlan(state);
    state.fin_marque = 500000.0;
    state.chemin_morceau.clear();
    state.Liste_tran.clear();
    state.Liste_play.clear();

    ImportReport report;
    report.songPath = state.Liste_fichiers[static_cast<std::size_t>(state.currentFileIndex)];

    // 2. A resume file names the song and brings the restart time and the settings its
    // program was made with: the band width of line 4 and the "key=value" lines. They become
    // this song's plan settings (state.songPlanSettings), which no generation of it saves
    // nor lets replace the operator's.
    SettingList songPlan;
    if (isResumePath(report.songPath)) {
        std::vector<std::string> skippedLines;
        auto resume = readResumeFile(report.songPath, &skippedLines);
        if (!resume)
            return fail(ImportError::UnreadableResumeFile, resume.detail());
        // A plan made for a scale that is not here cannot be made again as it was.
        if (const auto scale = settingValue(resume->settings, "Standard");
            scale && !isBuiltInScale(*scale) && scaleFilePath(state.dossier_documents, *scale).empty())
            return fail(ImportError::UnreadableResumeFile,
                        report.songPath + ": Standard = \"" + *scale + "\": no such scale (built in or in " +
                            instrumentsFolder(state.dossier_documents) + ")");
        for (const std::string& skipped : skippedLines)
            state.user_msg_list.append("Warning: resume file " + skipped + " (not key=value, skipped)");
        report.resumed = true;
        report.songPath = resume->songPath;
        report.restartMs = resume->restartMs;
        report.settingsRestored = !resume->settings.empty();
        songPlan = std::move(resume->settings);
        std::erase_if(songPlan, [](const auto& entry) { return entry.first == "Fourchette"; });
        songPlan.emplace_back("Fourchette", resume->Fourchette);
    }

    std::vector<std::uint8_t> bytes;
    if (!readBytes(report.songPath, bytes))
        return fail(ImportError::UnreadableSong, report.songPath);
    state.chemin_morceau = report.songPath;
    if (report.resumed) {
        state.songPlanSettings = std::move(songPlan);
        state.settingsAtResume = planSettingsOf(state.settings, state.scale);
        if (const auto end = settingValue(state.songPlanSettings, "fin_marque"))
            state.fin_marque = leadingNumber(*end);
    }

    const bool laser = [&state] {
        const SongPlanScope songSettings(state);
        return state.settings.isLaser();
    }();
    state.user_msg_list.append(laser ? "Gcode generation for laser perforator" : "Gcode generation for punch perforator");
    if (report.resumed && !report.settingsRestored) {
        state.user_msg_list.append("Resume file without settings: the current settings are used, with its "
                                   "Fourchette " + settingValue(state.songPlanSettings, "Fourchette").value_or(""));
    } else if (report.resumed) {
        for (const std::string& difference : settingDifferences(state.songPlanSettings, state.settingsAtResume))
            state.user_msg_list.append("Resume file value kept: " + difference);
    }

    // 3. Decode. A decoder error is the decoder's to tell; the lines before it are used.
    DecodeResult decoded = Vertalen(bytes, report.songPath);
    state.Liste_tran = std::move(decoded.lines);
    report.decoderError = decoded.errorCode;
    report.decoderMessage = std::move(decoded.errorMessage);
    state.user_msg_list.append("Midi file de-assembling");
    if (decoded.errorCode == kDecodeNoHeaderChunk || decoded.errorCode == kDecodeNoTrackChunk) {
        // Not a MIDI song at all: there is nothing to cut, and the band width stays.
        state.chemin_morceau.clear();
        state.Liste_tran.clear();
        return fail(ImportError::UnreadableSong, report.songPath + ": " + report.decoderMessage);
    }

    // A note past the 7-digit time fields would land at a wrong time: no roll at all.
    if (decoded.latestNoteMs > kMaxEventMs) {
        state.chemin_morceau.clear();
        state.Liste_tran.clear();
        return fail(ImportError::UnreadableSong,
                    report.songPath + ": a note plays at " + std::to_string(decoded.latestNoteMs) +
                        " ms; songs longer than 9999999 ms (about 2 h 46 min) cannot be cut");
    }

    // 4. Band width, then the program. A resumed job keeps its band width so the holes
    // come in the same order as in the interrupted program; it restarts at the earliest
    // hole not surely made.
    // The search leaves the song split, which the program then keeps.
    bool splitKept = false;
    if (report.resumed) {
        if (report.restartMs > 0.0)
            state.debut_marque = report.restartMs;
    } else if (options.widthSearch) {
        auto width = searchBestWidth(state);
        if (!width)
            return notWritten(width.error(), width.detail());
        saveFourchette(state, options);
        splitKept = true;
    }
    auto program = Genere_GCode(state, splitKept, false);
    if (!program)
        return notWritten(program.error(), program.detail());
    if (report.resumed && state.writtenHoles.empty()) {
        // A restart time past the last hole: the job was finished, and an empty program would
        // only look like one that lost its holes.
        std::error_code ignored;
        std::filesystem::remove(program.value(), ignored);
        std::filesystem::remove(programRecordPath(program.value()), ignored);
        return fail(ImportError::SettingsRefused,
                    "Nothing left to cut: every hole of " + report.songPath + " starts before the resume "
                    "file's restart time (" + plainNumber(report.restartMs) + " ms); the job was finished");
    }
    report.programPath = std::move(program.value());
    return report;
}

int rollGapFromAnswer(std::string_view answer)
{
    return static_cast<int>(roundHalfEven(leadingNumber(answer)));
}

bool toggleSimulationMode(AppState& state)
{
    state.mode_simulation = !state.mode_simulation;
    // The switch is how a song is opened without a board: the open command is available
    // afterwards whichever way it went.
    state.ouvre_midi_actif = true;
    return state.mode_simulation;
}

StatusLamp statusLamp(bool simulation, bool connected)
{
    if (simulation)
        return StatusLamp::Yellow;
    return connected ? StatusLamp::Green : StatusLamp::Red;
}

}  // namespace veltrin
