#pragma once
// Small Standard MIDI Files built in memory for the decoder tests.

#include <cstdint>
#include <initializer_list>
#include <vector>

namespace veltrin::test {

using Bytes = std::vector<std::uint8_t>;

inline Bytes vlq(std::uint32_t value)
{
    Bytes out{static_cast<std::uint8_t>(value & 0x7F)};
    while ((value >>= 7) != 0)
        out.insert(out.begin(), static_cast<std::uint8_t>(0x80 | (value & 0x7F)));
    return out;
}

inline Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const Bytes& part : parts)
        out.insert(out.end(), part.begin(), part.end());
    return out;
}

// Header and one "MTrk" chunk per event list; division is written as its 16-bit pattern.
inline Bytes song(int format, int division, std::initializer_list<Bytes> tracks)
{
    Bytes out{'M', 'T', 'h', 'd', 0, 0, 0, 6, 0, static_cast<std::uint8_t>(format), 0,
              static_cast<std::uint8_t>(tracks.size()),
              static_cast<std::uint8_t>((division >> 8) & 0xFF),
              static_cast<std::uint8_t>(division & 0xFF)};
    for (const Bytes& events : tracks) {
        out.insert(out.end(), {'M', 'T', 'r', 'k'});
        for (int shift = 24; shift >= 0; shift -= 8)
            out.push_back(static_cast<std::uint8_t>(events.size() >> shift));
        out.insert(out.end(), events.begin(), events.end());
    }
    return out;
}

inline const Bytes kEndOfTrack{0x00, 0xFF, 0x2F, 0x00};

// Delta and a tempo meta event (microseconds per quarter note).
inline Bytes tempoEvent(std::uint32_t delta, std::uint32_t tempo)
{
    return cat({vlq(delta), {0xFF, 0x51, 0x03, static_cast<std::uint8_t>(tempo >> 16),
                             static_cast<std::uint8_t>(tempo >> 8),
                             static_cast<std::uint8_t>(tempo)}});
}

// Delta and a three-byte channel message.
inline Bytes msg(std::uint32_t delta, std::uint8_t status, std::uint8_t data1, std::uint8_t data2)
{
    return cat({vlq(delta), {status, data1, data2}});
}

}  // namespace veltrin::test
