#pragma once
// Piece: one stretch of a note's hole on its track, in song milliseconds. The plan keeps
// pieces as records; pieceLine() gives the text line the rest of the program shows or saves.

#include <cstdint>
#include <string>

namespace veltrin {

struct Piece {
    std::int32_t startMs = 0;
    std::int32_t track = 0;
    std::int32_t endMs = 0;
    // The two-character flag of a travel-ordered line (" 1" / " 0"); the optimizer leaves it false.
    bool flag = false;

    friend bool operator==(const Piece&, const Piece&) = default;
};

// Plan order: start, then track, then end (the order of the piece lines as text, for
// values inside their fields: times 0..9999999, tracks 0..999).
inline bool planOrder(const Piece& a, const Piece& b)
{
    if (a.startMs != b.startMs)
        return a.startMs < b.startMs;
    if (a.track != b.track)
        return a.track < b.track;
    return a.endMs < b.endMs;
}

// "SSSSSSS TTT EEEEEEE": start (7 digits), track (3), end (7), zero-padded.
std::string pieceLine(const Piece& piece);
// pieceLine followed by the flag, " 1" or " 0" (a line of List_GC_Finale).
std::string finalLine(const Piece& piece);

}  // namespace veltrin
