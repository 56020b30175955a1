#pragma once
// AppState: everything the main window holds as fields, in one GUI-free object. The window
// shows and edits it; the CLI and the tests drive the same object without a window.

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/message_log.h"
#include "base/settings.h"
#include "plan/piece.h"
#include "plan/roll_cleanup.h"
#include "scales/organ_scale.h"

namespace veltrin {

struct AppState {
    Settings settings;
    OrganScale scale;

    // dossier_appli: the folder of the executable, with a trailing "/".
    std::string dossier_appli;
    // dossier_documents: the Documents folder (VELTRIN_DOCUMENTS when set), no trailing "/".
    std::string dossier_documents;
    // facteur_zoom: zoom of the roll view.
    double facteur_zoom = 3.0;
    // demarrage_fini ("start-up finished"): until set, machine-type and bridge changes do
    // not regenerate the plan.
    bool demarrage_fini = false;

    // user_msg_list: the message log.
    MessageLog user_msg_list;

    // Liste_tran: the decoded song's event lines, in decoding order.
    std::vector<std::string> Liste_tran;

    // --- song, plan and marks ---

    // Liste_fichiers ("file list"): the songs chosen in one go, one roll each, in the order
    // they were chosen; the song opened is the entry at currentFileIndex (0 on a fresh import).
    std::vector<std::string> Liste_fichiers;
    int currentFileIndex = 0;
    // Distance between successive rolls, mm: the jog between two rolls of Liste_fichiers.
    int rollGapMm = 0;

    // chemin_morceau ("song path"): the current song file; empty while no song is loaded.
    // The song title is its file name without the extension.
    std::string chemin_morceau;
    // debut_marque / fin_marque ("start / end mark"): the stretch of the song, in ms, that a
    // partial program covers. No start mark (or 0) = from the start; fin_marque 500000 =
    // to the end of the song.
    std::optional<double> debut_marque;
    double fin_marque = 500000.0;
    // Program file to write instead of "<dossier_documents>/Veltrin/Temp/<title>.gcode"
    // (or "<title>_between marks.gcode"); empty = that default.
    std::string programPathOverride;
    // Decimal separator of the figures in the operator's report (the program always uses
    // "."); the GUI and the CLI set it from the locale.
    char reportDecimalSeparator = '.';
    // recherche_largeur ("width search"): set while the best-width search runs; Genere_GCode
    // then computes silently (no file, no report, no log, no progress).
    bool recherche_largeur = false;

    // Liste_play: playback lines "TTTTTTT NNN NOTE" / "TTTTTTT NNN NOOF", kept sorted.
    std::vector<std::string> Liste_play;
    // List_GC_Ycroissant ("Y ascending"): the pieces of the plan, in (start, track, end) order.
    std::vector<Piece> List_GC_Ycroissant;
    // List_GC_Finale ("final"): the pieces in travel order, as the program visits them.
    std::vector<Piece> List_GC_Finale;
    // For each hole written into the last program: its piece and the index of its first
    // program line (0 = the title line).
    std::vector<std::pair<Piece, int>> writtenHoles;
    // The settings the last program written was made with, as (key, value) pairs (see
    // midi/resume_file.h); the record file beside the program holds the same. A job takes
    // the roll speed and the resume file's settings from here.
    std::vector<std::pair<std::string, std::string>> programSettings;
    // A song opened from a resume file: the values its interrupted program was made with, and
    // the operator's values at the import. Every generation of that song (marks, a changed
    // Fourchette...) uses the former for each key the operator has not changed since; the
    // operator's settings themselves are never replaced. Opening another song clears both.
    std::vector<std::pair<std::string, std::string>> songPlanSettings;
    std::vector<std::pair<std::string, std::string>> settingsAtResume;
    // notes_hors_gamme ("notes out of scale"): notes of the song with no track in the scale.
    int notes_hors_gamme = 0;
    // piste_courante ("current track"): the track of the last note split.
    int piste_courante = 0;
    // What the roll cleanup of the last split changed (the report tells it).
    RollCleanupCounts rollCleanup;

    // Running totals of the last generation (each generation starts them from 0):
    // nb_frappes (punch strikes), distance_totale (travel between holes, mm), longueur_coupe
    // (laser cut length, mm), y_max (farthest Y reached, mm), y_premiere_coupe (Y of the
    // first laser cut, mm).
    double nb_frappes = 0.0;
    double distance_totale = 0.0;
    double longueur_coupe = 0.0;
    double y_max = 0.0;
    double y_premiere_coupe = 0.0;
    // longueur_rouleau ("roll length"): end of the last piece in travel order, mm.
    double longueur_rouleau = 0.0;
    // Horizontal scale of the roll view: 81195.01 / longueur_rouleau (left as it was while
    // the roll is empty).
    double rollViewScale = 1.0;
    // Set by the streaming while a job runs (the roll view draws its progress); each
    // generation clears it.
    bool jobProgressOnRoll = false;
    // Punch_button enabled: a program is ready to be sent.
    bool punchEnabled = false;
    // gauge1: the progress bar, maximum and value.
    int gauge1_max = 0;
    int gauge1_value = 0;

    // --- machine link ---

    // mode_simulation ("simulation mode"): a job runs without the machine, showing its lines.
    bool mode_simulation = false;
    // connecte ("connected"): the port is open and the detection of Grbl has run (whether or
    // not Grbl answered).
    bool connecte = false;
    // Ouvre_midi enabled: cleared when no Grbl answers on the open port.
    bool ouvre_midi_actif = true;
    // recherche_en_cours ("search running"): a port scan runs; port-field changes are ignored.
    bool recherche_en_cours = false;
    // en_pause ("paused") and arret_demande ("stop asked"): the job's Pause and Stop state.
    bool en_pause = false;
    bool arret_demande = false;
    // pointeur_laser ("laser pointer"): the low-power pointer of Alt+L is on.
    bool pointeur_laser = false;
    // Text2: the job's remaining time, "hh:mm:ss".
    std::string Text2 = "00:00:00";
    // The report of a program gives the machine time of Grbl's planner beside the writer's
    // estimate. The window clears this and logs that line itself once the roll is redrawn (the
    // model takes tens of ms on a long song), so that an edit redraws the roll at once.
    bool machineTimeInReport = true;
    // The machine's own settings, the "$N=value" lines of its last "$$" answer (the window keeps
    // them per port between runs); empty: Grbl's defaults. The machine-time model reads them.
    std::vector<std::string> grblSettingsLines;
    // Liste_commentaires_grbl ("Grbl comments list"): the explanations of the "$$" lines.
    std::vector<std::string> Liste_commentaires_grbl;
};

}  // namespace veltrin
