#pragma once
// Event lines written by hand for the plan tests.

#include <cstdio>
#include <ostream>
#include <string>
#include <vector>

#include "app/app_state.h"
#include "support/temp_dir.h"

namespace veltrin {

inline void PrintTo(const Piece& piece, std::ostream* out) { *out << finalLine(piece); }

namespace testing {

struct SongNote {
    long startMs;
    long endMs;
    int note;
};

// A decoded song: a TEMP line, then each note's NOTE line (start ms in columns 6-12, note
// number in 27-31) directly followed by its NOOF line (end ms in 6-12), then ENDF.
inline std::vector<std::string> songEvents(const std::vector<SongNote>& notes)
{
    std::vector<std::string> lines{"TEMP 0000000 000000 0500000"};
    char text[96];
    for (const SongNote& n : notes) {
        std::snprintf(text, sizeof text, "NOTE %07ld 000960 00001 %05d %05ld 00100 C3", n.startMs,
                      n.note, n.endMs - n.startMs);
        lines.emplace_back(text);
        std::snprintf(text, sizeof text, "NOOF %07ld 000960 00001", n.endMs);
        lines.emplace_back(text);
    }
    lines.emplace_back("ENDF 9999999");
    return lines;
}

inline std::string crlf(const std::vector<std::string>& lines)
{
    std::string text;
    for (const std::string& line : lines)
        text += line + "\r\n";
    return text;
}

}  // namespace testing
}  // namespace veltrin
