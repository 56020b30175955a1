#pragma once
// Plain models of rules that the product implements with fast paths: the shortest number
// text, the pairing of note starts and ends, and the travel order band by band. The tests
// and the convert fuzzer compare the product with them.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "plan/plan_steps.h"

namespace veltrin::models {

// plainNumber's text the slow way: printf's correctly rounded 15 significant digits, laid
// out by hand.
inline std::string slowPlainNumber(double value)
{
    if (value == 0.0 || !std::isfinite(value))
        return "0";
    char text[64];
    std::snprintf(text, sizeof text, "%.14e", std::fabs(value));  // "d.dddddddddddddde+XX"
    std::string digits = text[0] + std::string(text + 2, 14);
    const int exponent = std::atoi(std::strchr(text, 'e') + 1);
    while (digits.size() > 1 && digits.back() == '0')
        digits.pop_back();
    std::string out = value < 0 ? "-" : "";
    const auto integerCount = static_cast<std::size_t>(exponent + 1);
    if (exponent < 0)
        out += "0." + std::string(static_cast<std::size_t>(-exponent - 1), '0') + digits;
    else if (digits.size() <= integerCount)
        out += digits + std::string(integerCount - digits.size(), '0');
    else
        out += digits.substr(0, integerCount) + "." + digits.substr(integerCount);
    return out;
}

// The pairing rule worked on the text, for any event lines: each NOOF closes the note the
// last NOTE opened; both lists in the order of a sorted text list.
inline std::vector<std::string> pairedAsText(const std::vector<std::string>& events,
                                             std::vector<std::string>& play)
{
    const auto mid = [](const std::string& line, std::size_t pos, std::size_t length) {
        return pos - 1 < line.size() ? line.substr(pos - 1, length) : std::string();
    };
    std::vector<std::string> notes;
    play.clear();
    std::string pending, lastNote;
    for (const std::string& line : events) {
        const std::string keyword = mid(line, 1, 4);
        if (keyword == "NOTE") {
            lastNote = mid(line, 29, 3);
            pending = mid(line, 6, 7) + " " + lastNote;
        } else if (keyword == "NOOF") {
            notes.push_back(pending + " " + mid(line, 6, 7));
            pending.clear();
        } else {
            continue;
        }
        play.push_back(mid(line, 6, 8) + lastNote + " " + keyword);
    }
    std::sort(notes.begin(), notes.end());
    std::sort(play.begin(), play.end());
    return notes;
}

// Optimise_trajets step by step as its description goes: bands closed by a piece starting
// more than the width after the band's first (0 for the first band), each sorted by track,
// start and end and given to Ordonne_bande towards the end nearer the last track visited.
inline std::vector<Piece> bandByBand(const std::vector<Piece>& ycroissant, int width, const PlanValues& values)
{
    std::vector<Piece> finale;
    std::vector<Piece> band;
    int lastTrack = 0;
    long long bandStart = 0;
    auto close = [&] {
        std::sort(band.begin(), band.end(), [](const Piece& a, const Piece& b) {
            return std::tie(a.track, a.startMs, a.endMs) < std::tie(b.track, b.startMs, b.endMs);
        });
        const bool downwards = std::abs(band.front().track - lastTrack) > std::abs(band.back().track - lastTrack);
        const std::vector<Piece> ordered = Ordonne_bande(band, downwards, values);
        finale.insert(finale.end(), ordered.begin(), ordered.end());
        lastTrack = finale.back().track;
        band.clear();
    };
    for (const Piece& piece : ycroissant) {
        if (!band.empty() && piece.startMs > bandStart + width) {
            close();
            bandStart = piece.startMs;
        }
        band.push_back(piece);
    }
    if (!band.empty())
        close();
    return finale;
}

}  // namespace veltrin::models
