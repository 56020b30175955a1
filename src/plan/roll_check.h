#pragma once
// The roll read back: the holes of a program (program_reader.h) put on the tracks of the
// scale and turned into times of the song, the notes the organ will play from them, and
// what is wrong with them, against the plan of the song when there is one.
//
// Use: readRoll() on a ProgramReading with the values of the generation (planValues) and
// the scale; rollNotes() for the notes; checkRoll() for the problems, given the pieces the
// plan makes of the song (or none), and rollCheckReport() for their lines.

#include <string>
#include <vector>

#include "plan/piece.h"
#include "plan/plan_steps.h"
#include "plan/program_reader.h"
#include "scales/organ_scale.h"

namespace veltrin {

// A hole on its track, its times in song ms (a strike covers one punch length from its
// start, as the plan's pieces do).
struct TrackHole {
    int track = 0;
    double startMs = 0.0;
    double endMs = 0.0;
    int line = 0;  // the program line that makes it
};

struct RollReading {
    bool laser = true;
    std::vector<TrackHole> holes;        // by track, then start
    std::vector<ReadHole> offTrack;     // holes on no track of the scale
    std::vector<int> openCuts;          // lines of cuts that do not close
    std::vector<std::string> warnings;  // the reader's
};

// Puts the holes of the machine's kind on the tracks: a laser cut on the track whose hole it
// covers (Position_piste is its left edge, Ldecoupe or BassesAF its width), a strike on the
// track whose axis it is on; a hole farther than a quarter of the track pitch from every
// track, or on a track past the scale's last, is off the tracks.
RollReading readRoll(const ProgramReading& program, const PlanValues& values, const OrganScale& scale);

// A note the organ plays from the roll.
struct RollNote {
    int track = 0;
    int note = 0;  // the MIDI note of the track
    double startMs = 0.0;
    double endMs = 0.0;
};

// The notes of the roll, by start: a track sounds while one of its holes passes the reading
// bar, so holes that touch or overlap are one note and a bridge is a short silence.
std::vector<RollNote> rollNotes(const RollReading& roll, const PlanValues& values, const OrganScale& scale);

enum class RollProblemKind {
    NoteMissing,  // a hole of the plan the program does not make
    NoteExtra,    // a hole the plan does not have
    NoteShifted,  // a hole of the plan made earlier or later, or shorter or longer
    NoBridge,     // an opening longer than a piece and its bridge, or holes the plan keeps apart run together
    DoubleCut,    // card cut or struck twice
    OffTrack,     // a hole on no track
    OpenCut,      // a cut that never closes: its piece does not fall out
};

struct RollProblem {
    RollProblemKind kind = RollProblemKind::NoteExtra;
    int track = -1;
    double startMs = 0.0;
    int line = 0;        // the program line concerned, 0 when none
    std::string detail;  // the whole sentence for the report
};

struct RollCheckInput {
    const RollReading* roll = nullptr;
    PlanValues values;
    const OrganScale* scale = nullptr;
    double bridgeMm = 0.0;  // Lgponts
    // The pieces the plan makes of the song between the marks (plan order), or null when the
    // program is checked on its own.
    const std::vector<Piece>* planned = nullptr;
};

// What is wrong with the roll, in order along the roll. Times compare within 0.1 mm of roll
// (at least 1 ms); a punch hole is compared by where its strike starts.
std::vector<RollProblem> checkRoll(const RollCheckInput& input);

// The lines of the verdict: what was read, each problem, and "No problem found..." or
// "N problems: the program would not play the song as planned".
std::vector<std::string> rollCheckReport(const RollReading& roll, const std::vector<RollNote>& notes,
                                         const std::vector<RollProblem>& problems, bool againstSong);

}  // namespace veltrin
