#pragma once
// Small Standard MIDI Files and file helpers for the tests. 500 ticks per quarter at the
// default tempo (500000 us per quarter): one tick is one millisecond.

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "app/numeric_text.h"

namespace veltrin::testing {

struct TestNote {
    int startMs;
    int endMs;
    int note;
};

// A format 0 file: the notes on channel 1, each end written as a note-on of velocity 0.
inline std::vector<std::uint8_t> midiFile(const std::vector<TestNote>& notes)
{
    struct Event {
        int tick;
        int isStart;  // ends before starts at the same tick
        int note;
    };
    std::vector<Event> events;
    for (const TestNote& n : notes) {
        events.push_back({n.startMs, 1, n.note});
        events.push_back({n.endMs, 0, n.note});
    }
    std::stable_sort(events.begin(), events.end(), [](const Event& a, const Event& b) {
        return a.tick != b.tick ? a.tick < b.tick : a.isStart < b.isStart;
    });
    std::vector<std::uint8_t> body;
    int tick = 0;
    for (const Event& e : events) {
        const auto delta = static_cast<std::uint32_t>(e.tick - tick);  // below 16384
        if (delta >= 128)
            body.push_back(static_cast<std::uint8_t>(0x80 | (delta >> 7)));
        body.push_back(static_cast<std::uint8_t>(delta & 0x7F));
        tick = e.tick;
        body.insert(body.end(), {0x90, static_cast<std::uint8_t>(e.note),
                                 static_cast<std::uint8_t>(e.isStart ? 100 : 0)});
    }
    body.insert(body.end(), {0x00, 0xFF, 0x2F, 0x00});
    const auto size = static_cast<std::uint32_t>(body.size());
    const std::uint8_t header[] = {'M', 'T', 'h', 'd', 0, 0, 0, 6, 0, 0, 0, 1, 0x01, 0xF4,
                                   'M', 'T', 'r', 'k', 0, 0,
                                   static_cast<std::uint8_t>(size >> 8),
                                   static_cast<std::uint8_t>(size)};
    body.insert(body.begin(), std::begin(header), std::end(header));
    return body;
}

inline void writeFile(const std::filesystem::path& path, const std::vector<std::uint8_t>& bytes)
{
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

inline void writeText(const std::filesystem::path& path, const std::string& text)
{
    std::ofstream(path, std::ios::binary) << text;
}

inline std::string readText(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The lines of a text, without their CR LF.
inline std::vector<std::string> textLines(const std::string& text)
{
    std::vector<std::string> lines;
    for (std::size_t start = 0; start < text.size();) {
        std::size_t end = std::min(text.find('\n', start), text.size());
        std::string line = text.substr(start, end - start);
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        lines.push_back(line);
        start = end + 1;
    }
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
