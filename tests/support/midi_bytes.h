#pragma once
// Small Standard MIDI Files and file helpers for the tests. 500 ticks per quarter at the
// default tempo (500000 us per quarter): one tick is one millisecond.

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "base/numeric_text.h"
#include "midi/midi_builder.h"
#include "support/temp_dir.h"

namespace veltrin::testing {

struct TestNote {
    int startMs;
    int endMs;
    int note;
};

// A format 0 file: the notes on channel 1, each end written as a note-on of velocity 0.
inline std::vector<std::uint8_t> midiFile(const std::vector<TestNote>& notes)
{
    std::vector<std::tuple<int, bool, int>> events;  // tick, start, note: ends first at a tick
    for (const TestNote& n : notes) {
        events.emplace_back(n.startMs, true, n.note);
        events.emplace_back(n.endMs, false, n.note);
    }
    std::stable_sort(events.begin(), events.end(), [](const auto& a, const auto& b) {
        return std::get<0>(a) != std::get<0>(b) ? std::get<0>(a) < std::get<0>(b) : std::get<1>(a) < std::get<1>(b);
    });
    test::Bytes body;
    int tick = 0;
    for (const auto& [at, start, note] : events) {
        body = test::cat({body, test::msg(static_cast<std::uint32_t>(at - tick), 0x90, static_cast<std::uint8_t>(note),
                                          start ? 100 : 0)});
        tick = at;
    }
    return test::song(0, 500, {test::cat({body, test::kEndOfTrack})});
}

inline void writeFile(const std::filesystem::path& path, const std::vector<std::uint8_t>& bytes)
{
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

// The lines of a text, without their CR LF.
inline std::vector<std::string> textLines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(!line.empty() && line.back() == '\r' ? line.substr(0, line.size() - 1) : line);
    return lines;
}

// The Y (mm) of every hole of a program: its "G0 X.. Y.." travel lines.
inline std::vector<double> holeYs(const std::string& program)
{
    std::vector<double> ys;
    for (const std::string& line : textLines(program)) {
        if (line.rfind("G0 X", 0) == 0)
            ys.push_back(leadingNumber(line.substr(line.find(" Y") + 2)));
    }
    return ys;
}

// Five one-hole notes of the 27-29 scale at 0, 1, 2, 3 and 4 s: 0 to 240 mm at 60 mm/s.
inline const std::vector<TestNote> kFiveNotes = {
    {0, 200, 60}, {1000, 1200, 62}, {2000, 2200, 64}, {3000, 3200, 65}, {4000, 4200, 67},
};

}  // namespace veltrin::testing
