#pragma once
// The stages of Genere_GCode, each on plain data: derived values, pairing of note starts and
// ends, the split into pieces, the travel order, and the program text with its totals.
// Genere_GCode (app/genere_gcode.h) chains them on an AppState; tests and the width search call
// them directly.

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "base/settings.h"
#include "plan/arrangement.h"
#include "plan/piece.h"
#include "plan/roll_cleanup.h"
#include "scales/organ_scale.h"

namespace veltrin {

// The settings of a generation, read as numbers once at its start (times in song ms,
// lengths in mm).
struct PlanValues {
    bool laser = true;
    double Vitcarton = 0.0;      // roll speed, mm/s
    double temps_pont = 0.0;     // one bridge, as time
    double temps_morceau = 0.0;  // one piece between bridges, as time
    double largeur_coupe = 0.0;  // cut width across the roll (Ldecoupe)
    double talon_x = 0.0;        // X of track 0: left edge of a laser cut, axis of the punch
    double origine_x = 0.0;      // homing offset written into the header
    int vitesse_avance = 0;      // feed rate, mm/min
    double pas_pistes = 0.0;     // track pitch (Dist_notes)
    int temps_fourchette = 0;    // travel-optimizing band width, as time
    double temps_poincon = 0.0;  // one punch strike, as time
    double L_poincon = 0.0;
    double Ldecoupe = 0.0;
    double BassesAF = 0.0;
    bool standard_AF_actif = false;
    bool rollCleanup = false;     // RollCleanup: clean each track's notes before the split
    double temps_trou_min = 0.0;  // MinHoleLength, as time
};

// The values of a generation. Vitcarton must not read 0.
PlanValues planValues(const Settings& settings, const OrganScale& scale);

// The band width as time for a width of fourchetteMm: rounded half to even.
int bandTime(double fourchetteMm, double Vitcarton);

// Pairing: each "NOOF" line closes the note of the "NOTE" line last met, giving one note line
// "SSSSSSS NNN EEEEEEE" (start and note number as they stand in the NOTE line, end time of
// the NOOF); the note lines come back in text order. playLines receives the playback lines
// "TTTTTTT NNN NOTE" / "TTTTTTT NNN NOOF", sorted. A NOTE line of a channel (columns 21-25)
// outside channels is skipped with the NOOF line after it, and counted in leftOut (by
// channel) when given; a line without a readable channel is kept.
std::vector<std::string> pairNotes(const std::vector<std::string>& Liste_tran,
                                   std::vector<std::string>& playLines,
                                   const ChannelSet& channels = ChannelSet::every(),
                                   std::array<int, 17>* leftOut = nullptr);

struct SplitResult {
    std::vector<Piece> pieces;  // in plan order (start, track, end)
    int notes_hors_gamme = 0;
    int piste_courante = 0;
    RollCleanupCounts cleanup;  // what planSplit's cleanup changed
};

// The note lines on their tracks (piste -1 for a note the scale does not play), in the
// order of the lines; Decoupe_notes reads them so.
std::vector<PlanNote> placeNotes(const std::vector<std::string>& noteLines, const OrganScale& scale);

// The split of notes already on their tracks (see Decoupe_notes).
SplitResult splitNotes(const std::vector<PlanNote>& notes, bool fractionner, const PlanValues& values);

// Decoupe_notes ("split notes"): puts each note line on its track and cuts it into pieces:
// laser pieces of temps_morceau separated by bridges of temps_pont, the last taking the
// rest; punch strikes of temps_poincon with gaps of temps_pont, the last ending at the note's
// end. fractionner false (laser without bridges) keeps each note whole.
SplitResult Decoupe_notes(const std::vector<std::string>& noteLines, bool fractionner,
                          const PlanValues& values, const OrganScale& scale);

// The plan of a generation and of the width search alike: Decoupe_notes, with the roll
// cleanup (cleanRoll) between placing the notes and splitting them when values.rollCleanup
// is set.
SplitResult planSplit(const std::vector<std::string>& noteLines, bool fractionner,
                      const PlanValues& values, const OrganScale& scale);

// The cleanup's lengths for these values: the card between two notes is the bridge
// (Lgponts), or kSeparationWithoutBridgesMm of roll when Lgponts is 0.
RollCleanupValues rollCleanupValues(const PlanValues& values, bool fractionner);

// Position_piste for the given values (see app/genere_gcode.h).
double Position_piste(const PlanValues& values, int piste);

// distF: squared distance between the start points of two pieces, with the plain track
// formula X = pas_pistes x track + talon_x (the wide bass tracks are not considered).
double distF(const Piece& a, const Piece& b, const PlanValues& values);

// Ordonne_bande ("order band"): the pieces of one band, given in (track, start, end) order,
// in visiting order: track by track, from the highest track down when sens is true, from
// the lowest up otherwise; the pieces of a track in ascending time unless its last piece is
// nearer (distF) to the previous piece visited than its first.
std::vector<Piece> Ordonne_bande(const std::vector<Piece>& band, bool sens,
                                 const PlanValues& values);

// Optimise_trajets ("optimize travels"): the pieces (plan order) in travel order, cut into
// bands along the roll, a band closing when a piece starts more than temps_fourchette after
// the band's first piece; each band is visited towards the end of the roll nearest to the
// track where the previous band ended (track 0 before the first band).
std::vector<Piece> Optimise_trajets(const std::vector<Piece>& ycroissant, int temps_fourchette,
                                    const PlanValues& values);

// The stretch of the song a program covers.
struct MarkRange {
    double startMs = 0.0;  // 0 = from the start
    double endMs = 500000.0;
    bool startSet() const { return startMs > 0.0; }
    bool endSet() const { return endMs != 500000.0; }
};

// Where a hole starts along the roll: the start of a laser cut, the centre of a strike.
inline double holeY(const PlanValues& v, const Piece& piece)
{
    const double start = piece.startMs;
    return v.laser ? v.Vitcarton * start / 1000.0 : v.Vitcarton * start / 1000.0 + v.L_poincon / 2.0;
}

// Which pieces are written between the marks: those starting from the start mark's whole
// ms up to, but not including, the end mark's (to the end when no end mark is set).
struct MarkFilter {
    double start;
    double end;
    bool toTheEnd;
    explicit MarkFilter(const MarkRange& marks)
        : start(std::floor(marks.startMs)), end(std::floor(marks.endMs)), toTheEnd(!marks.endSet())
    {
    }
    bool keeps(double startMs) const { return start <= startMs && (toTheEnd || startMs < end); }
};

// The square of the straight move from (x, y) to (toX, toY).
inline double squaredMove(double x, double y, double toX, double toY)
{
    return (toX - x) * (toX - x) + (toY - y) * (toY - y);
}

// The straight-line travel from hole to hole, from the origin (0, 0) on.
struct TravelLength {
    double total = 0.0;
    double x = 0.0;
    double y = 0.0;
    void moveTo(double toX, double toY)
    {
        total += std::sqrt(squaredMove(x, y, toX, toY));
        x = toX;
        y = toY;
    }
};

// writeProgram's distance_totale for the pieces Optimise_trajets would give at each band
// width of widths (as times), without making the programs or the ordered lists: the
// measures of the band-width search.
std::vector<double> travelDistances(const std::vector<Piece>& ycroissant,
                                    const std::vector<int>& widths, const PlanValues& values,
                                    const MarkRange& marks);

// travelDistances shares the widths among threads (one per core) once the pieces times the
// widths reach twice this; below, the calling thread measures them all.
inline constexpr std::size_t kTravelMovesPerThread = 50000;

struct ProgramTotals {
    double nb_frappes = 0.0;
    double distance_totale = 0.0;
    double longueur_coupe = 0.0;
    double y_max = 0.0;
    double y_premiere_coupe = 0.0;
    bool anyHole = false;
    double lastY1 = 0.0;         // Y1 of the last hole written
    double longueur_rouleau = 0.0;
};

struct Program {
    std::string text;  // the whole program, CR LF line ends (empty when silent)
    ProgramTotals totals;
    std::vector<std::pair<Piece, int>> holes;  // hole and its first line index (not silent)
};

struct WriterInput {
    const std::vector<Piece>* finale = nullptr;
    PlanValues values;
    MarkRange marks;
    std::string title;        // already made safe for a comment
    std::string Laser_mode;
    std::string Laser_power;
    bool header = true;       // Gen_entete is 1
};

// The program for the pieces in travel order, with its totals. silent computes the totals
// only.
Program writeProgram(const WriterInput& input, bool silent);

struct ReportInput {
    bool laser = true;
    ProgramTotals totals;
    MarkRange marks;
    double Vitcarton = 0.0;
    double L_poincon = 0.0;
    int vitesse_avance = 0;
    int notes_hors_gamme = 0;
    std::string rollCleanup;  // rollCleanupReport's line; empty: none
    double duree_metre_laser = 999.0;
    double duree_trou_poincon = 999.0;
    char decimalSeparator = '.';
};

// The report lines appended to the message log after a program is written (the last is
// empty).
std::vector<std::string> reportLines(const ReportInput& input);

}  // namespace veltrin
