#pragma once
// The main job of a song: the perforation plan (pieces of each note on its track), their
// travel order, and the G-code program with its report. Everything reads and writes the
// "song, plan and marks" fields of AppState.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "app/app_state.h"
#include "base/result.h"
#include "plan/plan_error.h"

namespace veltrin {

// Genere_GCode ("generate G-code"): rebuilds the plan from Liste_tran unless garder_notes
// ("keep notes") is set, orders the pieces unless sans_optimisation ("without optimizing")
// is set, then writes the program file and appends the report to user_msg_list. Returns
// the program's path. While state.recherche_largeur is set it only computes the plan, the
// order and the running totals: no file, no report, no log line.
Result<std::string, PlanError> Genere_GCode(AppState& state, bool garder_notes,
                                            bool sans_optimisation);

// The best-width search: logs "Seeking for best optimizing width ", splits the song once
// (planSplit, roll cleanup included, as Genere_GCode does), then orders it for every band width from 1 to 30 mm and for the current Fourchette, and
// keeps the width with the smallest distance_totale (the smaller width on a tie). The
// chosen width goes into state.settings.Fourchette; returns it in mm. Nothing is written.
// The split is kept as the song's plan (Liste_play, List_GC_Ycroissant, notes_hors_gamme,
// piste_courante, rollCleanup), so that Genere_GCode(state, true, false) then orders it at that width.
Result<double, PlanError> searchBestWidth(AppState& state);

// The change handlers of the plan's settings. A change of Type_machine, Lgponts or
// Dist_ponts rebuilds the plan and the program, once start-up is over (demarrage_fini); a
// change of Fourchette re-orders the pieces kept from the last split and writes the program
// again. Both do nothing (nullopt) while no song is loaded (chemin_morceau empty).
// searchBestWidth sets Fourchette without calling fourchetteChanged.
std::optional<Result<std::string, PlanError>> planSettingsChanged(AppState& state);
std::optional<Result<std::string, PlanError>> fourchetteChanged(AppState& state);

// Position_piste ("track position"): X in mm of a track's hole for the current machine and
// scale (left edge of a laser cut, axis of the punch); the 20-note scale's four bass
// tracks are wider and spaced 1.5 track pitches.
double Position_piste(const AppState& state, std::int16_t piste);

// The song title: the file name of the song path without folder and extension.
std::string songTitle(std::string_view songPath);

// The title as written into a program comment: printable ASCII only, without the bytes
// Grbl takes as real-time commands ("?", "!", "~").
std::string commentSafe(std::string_view text);

// Where Genere_GCode writes: state.programPathOverride when set, else
// "<dossier_documents>/Veltrin/Temp/<title>.gcode", or "<title>_between marks.gcode" when a
// mark is set.
std::string programPath(const AppState& state);

// Forgets the plan of the previous song (pieces, order, totals, playback list, marks back to
// the whole song); the import calls it before decoding a new song.
void resetSongPlan(AppState& state);

}  // namespace veltrin
