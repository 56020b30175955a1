#include "midi/midi_writer.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <tuple>

namespace veltrin {

namespace {

constexpr std::uint32_t kTicksPerQuarter = 1000;
constexpr std::uint32_t kMicrosecondsPerQuarter = 1000000;  // so one tick is one ms
constexpr std::uint8_t kChurchOrgan = 19;                   // General MIDI program 20, counted from 0

void put32(std::vector<std::uint8_t>& out, std::uint32_t value)
{
    for (int shift = 24; shift >= 0; shift -= 8)
        out.push_back(static_cast<std::uint8_t>(value >> shift));
}

void putVariable(std::vector<std::uint8_t>& out, std::uint32_t value)
{
    std::array<std::uint8_t, 5> bytes{};
    int count = 0;
    do {
        bytes[static_cast<std::size_t>(count++)] = static_cast<std::uint8_t>(value & 0x7F);
        value >>= 7;
    } while (value != 0);
    while (count-- > 0)
        out.push_back(static_cast<std::uint8_t>(bytes[static_cast<std::size_t>(count)] | (count > 0 ? 0x80 : 0)));
}

std::uint32_t tick(double ms)
{
    return static_cast<std::uint32_t>(std::clamp(std::llround(ms), 0LL, 0x0FFFFFFFLL));
}

}  // namespace

std::vector<std::uint8_t> writeMidiFile(const std::vector<MidiNote>& notes, const std::string& trackName)
{
    // 1. The events: (tick, 0 = note off before 1 = note on at one tick, channel, note, velocity).
    std::vector<std::tuple<std::uint32_t, int, int, int, int>> events;
    std::array<bool, 17> used{};
    for (const MidiNote& n : notes) {
        const int channel = std::clamp(n.channel, 1, 16);
        const int note = std::clamp(n.note, 0, 127);
        const std::uint32_t on = tick(n.startMs);
        const std::uint32_t off = std::max(on + 1, tick(n.endMs));
        events.emplace_back(on, 1, channel, note, std::clamp(n.velocity, 1, 127));
        events.emplace_back(off, 0, channel, note, 0);
        used[static_cast<std::size_t>(channel)] = true;
    }
    std::sort(events.begin(), events.end());

    // 2. The track.
    std::vector<std::uint8_t> track;
    track.insert(track.end(), {0x00, 0xFF, 0x03});
    putVariable(track, static_cast<std::uint32_t>(trackName.size()));
    track.insert(track.end(), trackName.begin(), trackName.end());
    track.insert(track.end(), {0x00, 0xFF, 0x51, 0x03, static_cast<std::uint8_t>(kMicrosecondsPerQuarter >> 16),
                               static_cast<std::uint8_t>(kMicrosecondsPerQuarter >> 8),
                               static_cast<std::uint8_t>(kMicrosecondsPerQuarter)});
    for (int channel = 1; channel <= 16; ++channel) {
        if (used[static_cast<std::size_t>(channel)])
            track.insert(track.end(), {0x00, static_cast<std::uint8_t>(0xC0 + channel - 1), kChurchOrgan});
    }
    // A key already down is released before it is struck again; its own release then does
    // nothing more.
    std::array<std::array<int, 128>, 17> down{};
    std::uint32_t now = 0;
    for (const auto& [at, isOn, channel, note, velocity] : events) {
        int& held = down[static_cast<std::size_t>(channel)][static_cast<std::size_t>(note)];
        const auto status = static_cast<std::uint8_t>((isOn ? 0x90 : 0x80) + channel - 1);
        if (!isOn && --held > 0)
            continue;
        if (isOn && held++ > 0) {
            putVariable(track, at - now);
            now = at;
            track.insert(track.end(), {static_cast<std::uint8_t>(0x80 + channel - 1), static_cast<std::uint8_t>(note), 0});
        }
        putVariable(track, at - now);
        now = at;
        track.insert(track.end(), {status, static_cast<std::uint8_t>(note), static_cast<std::uint8_t>(velocity)});
    }
    track.insert(track.end(), {0x00, 0xFF, 0x2F, 0x00});

    // 3. The header and the track chunk.
    std::vector<std::uint8_t> file{'M', 'T', 'h', 'd', 0, 0, 0, 6, 0, 0, 0, 1,
                                   static_cast<std::uint8_t>(kTicksPerQuarter >> 8),
                                   static_cast<std::uint8_t>(kTicksPerQuarter & 0xFF)};
    file.insert(file.end(), {'M', 'T', 'r', 'k'});
    put32(file, static_cast<std::uint32_t>(track.size()));
    file.insert(file.end(), track.begin(), track.end());
    return file;
}

}  // namespace veltrin
