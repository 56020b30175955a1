#include "app/genere_gcode.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <future>
#include <limits>

#include "app/arranging.h"
#include "app/grbl_link.h"
#include "app/song_plan_scope.h"
#include "base/numeric_text.h"
#include "midi/resume_file.h"
#include "plan/plan_checks.h"
#include "plan/plan_steps.h"
#include "plan/plan_text.h"

namespace veltrin {

namespace {

MarkRange markRange(const AppState& state)
{
    MarkRange marks;
    marks.startMs = state.debut_marque.value_or(0.0);
    marks.endMs = state.fin_marque;
    return marks;
}

WriterInput writerInput(const AppState& state, const PlanValues& values,
                        const std::vector<Piece>& finale)
{
    WriterInput input;
    input.finale = &finale;
    input.values = values;
    input.marks = markRange(state);
    input.title = commentSafe(songTitle(state.chemin_morceau));
    input.Laser_mode = state.settings.Laser_mode;
    // The power is written into the command itself: like the comments, it carries no byte
    // that Grbl would take as a real-time command.
    input.Laser_power = commentSafe(state.settings.Laser_power);
    input.header = leadingNumber(state.settings.Gen_entete) == 1.0;
    return input;
}

// Writes text into a temporary file beside path and renames it over path, so that a crash
// leaves the previous program or the new one, never half of one. Creates the folder.
Result<std::string, PlanError> writeAtomically(const std::string& path, const std::string& text)
{
    namespace fs = std::filesystem;
    std::error_code ec;
    const fs::path target(path);
    if (target.has_parent_path())
        fs::create_directories(target.parent_path(), ec);
    const std::string temporary = path + ".tmp";
    {
        std::ofstream file(temporary, std::ios::binary | std::ios::trunc);
        if (!file)
            return fail(PlanError::CannotWriteProgram, temporary + ": " + std::strerror(errno));
        file.write(text.data(), static_cast<std::streamsize>(text.size()));
        file.close();
        if (!file) {
            fs::remove(temporary, ec);
            return fail(PlanError::CannotWriteProgram, temporary + ": write failed");
        }
    }
    fs::rename(temporary, target, ec);
    if (ec) {
        const std::string why = ec.message();
        fs::remove(temporary, ec);
        return fail(PlanError::CannotWriteProgram, path + ": " + why);
    }
    return path;
}

// Whether the values allow a generation: a roll that moves forward, and a split whose
// pieces advance along the roll (the split cuts long notes into steps of a piece and a
// bridge; steps under 1 ms would give countless pieces, or none at all would end a note).
Result<bool, PlanError> checkPlanValues(const PlanValues& values, bool fractionner)
{
    if (!(values.Vitcarton > 0.0))
        return fail(PlanError::ZeroRollSpeed, values.Vitcarton == 0.0 ? "Vitcarton is 0" : "Vitcarton is below 0");
    const double piece = values.laser ? values.temps_morceau : values.temps_poincon;
    if (fractionner && !(piece + values.temps_pont >= 1.0)) {
        return fail(PlanError::SplitTooFine,
                    std::string(values.laser ? "Dist_ponts" : "L_poincon") + " + Lgponts must be at least " +
                        plainNumber(values.Vitcarton / 1000.0) + " mm (1 ms of roll)");
    }
    return true;
}

bool splitsNotes(const PlanValues& values, const Settings& settings)
{
    // Only the laser without bridges keeps every note whole.
    return !(values.laser && leadingNumber(settings.Lgponts) == 0.0);
}

// The split becomes the song's plan. Notes shifted out of MIDI's range never reached the
// split, and are lost all the same.
void keepSplit(AppState& state, Arrangement& arranged, SplitResult split)
{
    state.Liste_play = std::move(arranged.playLines);
    state.List_GC_Ycroissant = std::move(split.pieces);
    state.notes_hors_gamme = split.notes_hors_gamme + arranged.shiftedOutOfRange;
    state.piste_courante = split.piste_courante;
    state.rollCleanup = split.cleanup;
}

}  // namespace

Result<std::string, PlanError> Genere_GCode(AppState& state, bool garder_notes,
                                            bool sans_optimisation)
{
    // A song taken up from a resume file is made again with the values of its first program.
    const SongPlanScope songPlan(state);
    const bool silent = state.recherche_largeur;
    // 0. Nothing is written from settings or marks that Grbl would reject or misread.
    if (!silent) {
        if (auto checked = checkGenerationSettings(state.settings, state.scale); !checked)
            return fail(checked.error(), checked.detail());
        if (auto checked = checkMarks(state.debut_marque, state.fin_marque); !checked)
            return fail(checked.error(), checked.detail());
    }
    // 1. Values of this generation; every total starts from 0.
    const PlanValues values = planValues(state.settings, state.scale);
    const bool fractionner = splitsNotes(values, state.settings);
    if (auto usable = checkPlanValues(values, fractionner && !garder_notes); !usable)
        return fail(usable.error(), usable.detail());
    state.nb_frappes = 0.0;
    state.distance_totale = 0.0;
    state.longueur_coupe = 0.0;
    state.y_max = 0.0;
    state.y_premiere_coupe = 0.0;

    // 2. Pair note starts and ends of the channels placed, shifted as Transpose says,
    // 3. split the notes into pieces.
    std::optional<Arrangement> arranged;
    if (!garder_notes) {
        arranged = songArrangement(state);
        keepSplit(state, *arranged, planSplit(arranged->noteLines, fractionner, values, state.scale));
        if (!silent) {
            const auto noteCount = static_cast<int>(arranged->noteLines.size());
            state.gauge1_max = noteCount;
            state.gauge1_value = noteCount == 0 ? 0 : noteCount - 1;
        }
    }

    if (!silent) {
        const auto& pieces = sans_optimisation ? state.List_GC_Finale : state.List_GC_Ycroissant;
        if (auto checked = checkProgramLimits(state.settings, values, pieces, markRange(state)); !checked)
            return fail(checked.error(), checked.detail());
    }

    // 4. Travel order.
    if (!sans_optimisation) {
        if (!silent) {
            state.gauge1_max = static_cast<int>(state.List_GC_Ycroissant.size());
            state.gauge1_value = 0;
            state.user_msg_list.append("Travel optimizing " + state.settings.Fourchette +
                                       "(Width : " + std::to_string(values.temps_fourchette) + ")");
        }
        state.List_GC_Finale =
            Optimise_trajets(state.List_GC_Ycroissant, values.temps_fourchette, values);
    }

    // 5. The program.
    if (!silent) {
        state.gauge1_max = static_cast<int>(state.List_GC_Finale.size());
        state.gauge1_value = 0;
    }
    Program program = writeProgram(writerInput(state, values, state.List_GC_Finale), silent);
    const ProgramTotals& t = program.totals;
    state.nb_frappes = t.nb_frappes;
    state.distance_totale = t.distance_totale;
    state.longueur_coupe = t.longueur_coupe;
    state.y_max = t.y_max;
    state.y_premiere_coupe = t.y_premiere_coupe;
    state.longueur_rouleau = t.longueur_rouleau;
    if (t.longueur_rouleau != 0.0)
        state.rollViewScale = 81195.01 / t.longueur_rouleau;
    state.jobProgressOnRoll = false;
    if (silent)
        return std::string();

    if (!state.List_GC_Finale.empty())
        state.gauge1_value = static_cast<int>(state.List_GC_Finale.size()) - 1;
    state.writtenHoles = std::move(program.holes);
    const std::string path = programPath(state);
    // Grbl's model times the program on another core while the file is written.
    std::future<MachineTime> machineTime;
    if (state.machineTimeInReport)
        machineTime = std::async(std::launch::async, [&text = program.text, settings = machineSettings(state)] {
            return estimateProgramText(text, settings);
        });
    auto written = writeAtomically(path, program.text);
    if (!written)
        return written;
    // What the program was made with, beside it: a job takes its roll speed and the settings
    // of its resume file from there.
    state.programSettings = planSettingsOf(state.settings, state.scale);
    // The marks, so that the program can be checked against the stretch of the song it covers.
    if (markRange(state).startSet())
        state.programSettings.emplace_back("debut_marque", plainNumber(markRange(state).startMs));
    if (markRange(state).endSet())
        state.programSettings.emplace_back("fin_marque", plainNumber(state.fin_marque));
    if (auto recorded = writeProgramRecord(path, state.chemin_morceau, program.text, state.programSettings); !recorded)
        return fail(PlanError::CannotWriteProgram, recorded.detail());

    // 6. The report.
    ReportInput report;
    report.laser = values.laser;
    report.totals = t;
    report.marks = markRange(state);
    report.Vitcarton = values.Vitcarton;
    report.L_poincon = values.L_poincon;
    report.vitesse_avance = values.vitesse_avance;
    report.notes_hors_gamme = state.notes_hors_gamme;
    report.rollCleanup = rollCleanupReport(state.rollCleanup);
    report.duree_metre_laser = leadingNumber(state.settings.duree_metre_laser);
    report.duree_trou_poincon = leadingNumber(state.settings.duree_trou_poincon);
    report.decimalSeparator = state.reportDecimalSeparator;
    for (const std::string& line : reportLines(report)) {
        state.user_msg_list.append(line);
        // Beside the writer's figure, the time Grbl's planner will really take with this
        // machine's rates and accelerations.
        if (machineTime.valid() && line.starts_with("Estimated punch duration"))
            state.user_msg_list.append(machineTimeLine(machineTime.get().seconds));
    }
    // A program of no hole is written (the song may be meant so), but never silently.
    if (state.writtenHoles.empty()) {
        state.user_msg_list.append(std::string("Warning: No hole to cut: no note of the song ") +
                                   (report.marks.startSet() || report.marks.endSet() ? "between the marks " : "") +
                                   "lies in the organ scale; the program only moves the machine");
    }
    // 7. What the channels, the transposition and the scale leave out, after the report.
    if (!arranged)
        arranged = songArrangementSummary(state);
    const std::vector<std::string> arranging = arrangingReport(*arranged, state.settings.Channels);
    for (const std::string& line : arranging)
        state.user_msg_list.append(line);
    if (!arranging.empty())
        state.user_msg_list.append("");
    state.punchEnabled = true;
    return written;
}

Result<double, PlanError> searchBestWidth(AppState& state)
{
    if (auto checked = checkGenerationSettings(state.settings, state.scale); !checked)
        return fail(checked.error(), checked.detail());
    const PlanValues values = planValues(state.settings, state.scale);
    const bool fractionner = splitsNotes(values, state.settings);
    if (auto usable = checkPlanValues(values, fractionner); !usable)
        return fail(usable.error(), usable.detail());
    state.user_msg_list.append("Seeking for best optimizing width ");
    state.recherche_largeur = true;

    // The split does not depend on the band width: made once, then every width only
    // re-orders the same pieces.
    Arrangement arranged = songArrangement(state);
    SplitResult split = planSplit(arranged.noteLines, fractionner, values, state.scale);
    const std::vector<Piece>& pieces = split.pieces;

    const double current = leadingNumber(state.settings.Fourchette);
    std::vector<double> candidates;
    for (int mm = 1; mm <= 30; ++mm)
        candidates.push_back(mm);
    candidates.push_back(current);

    // Each band time is measured once, though two widths may give the same.
    std::vector<int> times;
    for (const double width : candidates) {
        const int temps_fourchette = bandTime(width, values.Vitcarton);
        if (std::find(times.begin(), times.end(), temps_fourchette) == times.end())
            times.push_back(temps_fourchette);
    }
    const std::vector<double> distances = travelDistances(pieces, times, values, markRange(state));

    double bestWidth = 0.0;
    double bestDistance = std::numeric_limits<double>::infinity();
    state.gauge1_max = static_cast<int>(candidates.size());
    for (std::size_t i = 0; i < candidates.size(); ++i) {
        const double width = candidates[i];
        const auto time = std::find(times.begin(), times.end(), bandTime(width, values.Vitcarton));
        const double distance = distances[static_cast<std::size_t>(time - times.begin())];
        if (distance < bestDistance || (distance == bestDistance && width < bestWidth)) {
            bestDistance = distance;
            bestWidth = width;
        }
        state.gauge1_value = static_cast<int>(i);
    }
    state.recherche_largeur = false;
    // The split stays as the song's plan, as Genere_GCode(state, false, ...) would make it:
    // the band width takes no part in it.
    keepSplit(state, arranged, std::move(split));
    if (bestWidth != current)
        state.settings.Fourchette = plainNumber(bestWidth);
    return bestWidth;
}

std::optional<Result<std::string, PlanError>> planSettingsChanged(AppState& state)
{
    if (!state.demarrage_fini || state.chemin_morceau.empty())
        return std::nullopt;
    return Genere_GCode(state, false, false);
}

std::optional<Result<std::string, PlanError>> fourchetteChanged(AppState& state)
{
    if (state.chemin_morceau.empty())
        return std::nullopt;
    return Genere_GCode(state, true, false);
}

double Position_piste(const AppState& state, std::int16_t piste)
{
    return Position_piste(planValues(state.settings, state.scale), piste);
}

std::string songTitle(std::string_view songPath)
{
    const std::size_t slash = songPath.find_last_of("/\\");
    std::string_view name = slash == std::string_view::npos ? songPath : songPath.substr(slash + 1);
    const std::size_t dot = name.find_last_of('.');
    if (dot != std::string_view::npos && dot > 0)
        name = name.substr(0, dot);
    return std::string(name);
}

std::string commentSafe(std::string_view text)
{
    std::string safe;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        // Grbl acts on "?", "!" and "~" wherever they stand, comments included.
        if (byte >= 0x20 && byte <= 0x7e && c != '?' && c != '!' && c != '~')
            safe += c;
    }
    return safe;
}

std::string programPath(const AppState& state)
{
    if (!state.programPathOverride.empty())
        return state.programPathOverride;
    const MarkRange marks = markRange(state);
    const std::string title = songTitle(state.chemin_morceau);
    return state.dossier_documents + "/Veltrin/Temp/" + title +
           (marks.startSet() || marks.endSet() ? "_between marks.gcode" : ".gcode");
}

void resetSongPlan(AppState& state)
{
    state.programSettings.clear();
    state.songPlanSettings.clear();
    state.settingsAtResume.clear();
    state.debut_marque.reset();
    state.fin_marque = 500000.0;
    state.Liste_play.clear();
    state.List_GC_Ycroissant.clear();
    state.List_GC_Finale.clear();
    state.writtenHoles.clear();
    state.notes_hors_gamme = 0;
    state.piste_courante = 0;
    state.rollCleanup = {};
    state.nb_frappes = 0.0;
    state.distance_totale = 0.0;
    state.longueur_coupe = 0.0;
    state.y_max = 0.0;
    state.y_premiere_coupe = 0.0;
    state.longueur_rouleau = 0.0;
    state.punchEnabled = false;
}

}  // namespace veltrin
