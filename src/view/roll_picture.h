#pragma once
// RollPicture: the roll as the machine will cut it, in millimetres of card, for the roll view.
// X runs across the roll from its border (the program's X), Y along it from the start of the
// song (the program's Y). The application builds it from its plan (app/roll_snapshot.h); the
// view only draws it.

#include <vector>

namespace veltrin {

// One hole: a laser cut between two bridges, or one punch strike.
struct RollHole {
    float x0 = 0, x1 = 0;  // across the roll, x0 < x1
    float y0 = 0, y1 = 0;  // along the roll, y0 <= y1
    int track = 0;
    // Index of the hole's first line in the program written (0 = the title line): the hole
    // is cut once the machine has acknowledged the lines before it and this one.
    // kNotInProgram for a hole of the plan that a program between marks leaves out.
    int programLine = 0;
};

inline constexpr int kNotInProgram = -1;

// A note of the song that no track of the scale plays: not a hole, shown faintly on demand.
struct DroppedNote {
    float x = 0;           // across the roll: where its pitch would lie among the tracks
    float y0 = 0, y1 = 0;  // along the roll
    int note = 0;          // MIDI note number
};

struct RollPicture {
    double widthMm = 0.0;   // roll width across
    // End of the last hole (or dropped note) along the roll (0: empty roll).
    double lengthMm = 0.0;
    // Axis of each track across the roll, track 0 first.
    std::vector<double> trackAxesMm;
    // Every hole of the program, sorted by y0.
    std::vector<RollHole> holes;
    // The longest hole along the roll (y1 - y0), so that a visible stretch finds every hole
    // that reaches into it.
    double longestHoleMm = 0.0;
    std::vector<DroppedNote> dropped;  // sorted by y0
    double longestDroppedMm = 0.0;
    // longueur_pli: a book's fold length; 0 = a roll, no fold lines.
    double foldLengthMm = 0.0;
    // Vitcarton, mm of roll per second of song: turns positions into song times.
    double mmPerSecond = 60.0;
};

}  // namespace veltrin
