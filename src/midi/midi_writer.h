#pragma once
// A Standard MIDI File made from notes: what the roll plays, for any MIDI player.

#include <cstdint>
#include <string>
#include <vector>

namespace veltrin {

struct MidiNote {
    double startMs = 0.0;
    double endMs = 0.0;
    int note = 60;       // 0-127
    int velocity = 100;  // 1-127
    int channel = 1;     // 1-16
};

// A format 0 file of one track: the track name, a tempo of one quarter note a second at
// 1000 ticks a quarter (one tick is one millisecond), a program change to the General MIDI
// church organ on every channel used, and the notes. Times are rounded to whole ms (a note
// lasts at least 1 ms); a note that starts while the same note of its channel still sounds
// strikes the key again (MIDI cannot hold one key twice), and the key is let go at the last
// of their ends. Notes, velocities and channels out of range are brought into it.
std::vector<std::uint8_t> writeMidiFile(const std::vector<MidiNote>& notes, const std::string& trackName);

}  // namespace veltrin
