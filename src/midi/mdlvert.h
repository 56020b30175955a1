#pragma once
// mdlvert: the MIDI decoder. Vertalen turns a Standard MIDI File (format 0 or 1) into text
// event lines ("NOTE", "NOOF", "TEMP", ... then "ENDF 9999999" and "HEAD ##10000 ...").
// The lines are read by fixed character columns elsewhere, so their layout is fixed:
// keyword in columns 1-4, then fields of one blank and a zero-padded number (fixedWidth).

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace veltrin {

struct DecodeOptions {
    // Forced tempo in beats per minute; 0 (or less) uses the file's own tempo events.
    int forcedTempoBpm = 0;
    // Honour the sustain pedal (controller 64): notes released while it is down end when
    // it is lifted.
    bool sustain = false;
};

// DecodeResult::errorCode of a file that holds no MIDI song at all.
inline constexpr int kDecodeNoHeaderChunk = 5;
inline constexpr int kDecodeNoTrackChunk = 6;

struct DecodeResult {
    // Event lines in the order they were produced (track by track; a NOTE at its note's end).
    std::vector<std::string> lines;
    // 0 no error, 1 unexpected end of file, 2 invalid delta-time, 3 running-status error,
    // 5 no header chunk, 6 no track chunk.
    int errorCode = 0;
    // The decoder's message for errorCode (two lines joined by CR LF for codes 1 to 3).
    std::string errorMessage;
    // The latest time (ms) of a note start or end. Past kMaxEventMs the 7-digit time fields
    // lose their leading digits: such a song cannot be cut from its lines.
    long long latestNoteMs = 0;
};

// The latest time an event line's 7-digit field holds, ms (about 2 h 46 min).
inline constexpr long long kMaxEventMs = 9999999;

// Vertalen ("convert"): decodes the bytes of the MIDI file at path (the path is only written
// into the HEAD line). On an error the lines produced before it are kept and no ENDF or HEAD
// line is written. Never reads outside bytes, whatever they hold.
DecodeResult Vertalen(std::span<const std::uint8_t> bytes, const std::string& path,
                      const DecodeOptions& options = {});

}  // namespace veltrin
