#pragma once
// The roll cleanup: before the split, the notes of each track are made into holes the organ
// reads as the song plays them. Several voices of a song often play one pitch at once, and
// notes of one pitch often follow each other without a gap; cut as they stand, such notes
// give holes cut twice, slots without bridges (the pieces of one note cut the bridges of the
// other) and repeats that run into one long slot. The cleanup, track by track:
//   - notes that overlap become one run, from the earliest start to the latest end (equal
//     notes included), so the split lays bridges over the whole run;
//   - a note that starts less than `separation` after the hole before it ends is kept apart
//     from it: the earlier hole is shortened, down to the minimum length at most; when that
//     is not enough the later note starts later (its end stays, unless that leaves it under
//     the minimum). No two holes of a track touch. A note is never started more than
//     maxDelay() later than the song plays it: a repeat that the card cannot separate
//     within that is joined to the hole before it (the hole runs on to its end), since a
//     held note is better than a song drifting out of time behind a fast trill;
//   - no hole is shorter than minHole: a short note is lengthened at its end, and with
//     bridges the split's last piece of a long note is kept from being a sliver.
// A punched hole is at least one strike long whatever the note, so the punch's holes run
// from the note's start to the later of its end and the end of its first strike.

#include <string>
#include <vector>

namespace veltrin {

// One note placed on its track, in song ms; piste -1 when the scale does not play it (the
// cleanup leaves such notes as they are).
struct PlanNote {
    double startMs = 0.0;
    double endMs = 0.0;
    int piste = -1;
};

// The lengths the cleanup works with, as times of the song.
struct RollCleanupValues {
    bool laser = true;
    double separation = 0.0;  // card left between two notes of a track
    double minHole = 0.0;     // the shortest hole
    double strike = 0.0;      // punch: the length of one strike
    // Laser with bridges: the split's piece, bridge and end margin (see Decoupe_notes);
    // piece 0 when notes stay whole.
    double piece = 0.0;
    double bridge = 0.0;
    double margin = 0.0;
};

// What a cleanup changed.
struct RollCleanupCounts {
    int merged = 0;      // notes that overlapped an earlier note of their track, now one run with it
    int separated = 0;   // notes that followed the hole before them too closely, now kept apart
    int delayed = 0;     // of those, the notes that start later
    int lengthened = 0;  // holes lengthened to the minimum
    int joined = 0;      // repeats too fast for the card, joined to the hole before them
    bool any() const { return merged + separated + lengthened + joined > 0; }
    friend bool operator==(const RollCleanupCounts&, const RollCleanupCounts&) = default;
};

// The card left between two notes of a track when no bridges are set (Lgponts 0): the
// default bridge, so that repeats never run into one slot.
inline constexpr double kSeparationWithoutBridgesMm = 1.5;

// The most a note's start may move later: one hole at its shortest and the card after it,
// the least room a separated repeat needs. Beyond it the note joins the hole before.
inline double maxDelay(const RollCleanupValues& v)
{
    return (v.laser ? v.minHole : (v.minHole > v.strike ? v.minHole : v.strike)) + v.separation;
}

// Cleans the notes in place, track by track. Notes merged into an earlier one leave the
// list, as do repeats joined to the hole before them; the others keep their order. Changed times are whole ms (ends of shortened holes
// rounded down, every other changed time up), so the split's rounding keeps the lengths.
RollCleanupCounts cleanRoll(std::vector<PlanNote>& notes, const RollCleanupValues& values);

// The report's line, "   - Roll cleanup : 3 overlapping notes merged, 12 repeats separated
// (2 started later), 4 fast repeats joined to the hole before, 5 short holes lengthened"
// (only the counts that are not 0); empty when
// the cleanup changed nothing.
std::string rollCleanupReport(const RollCleanupCounts& counts);

}  // namespace veltrin
