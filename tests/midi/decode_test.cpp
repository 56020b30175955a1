// The MIDI decoder on hand-built files whose lines were worked out by hand.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/numeric_text.h"
#include "midi/mdlvert.h"
#include "midi_builder.h"

namespace veltrin {
namespace {

using namespace test;
using Lines = std::vector<std::string>;

// With a division of 500 and the default 500000 us per quarter, one tick is exactly 1 ms.
constexpr int kMsDivision = 500;

Bytes track0(std::initializer_list<Bytes> events, int division = kMsDivision)
{
    return song(0, division, {cat({cat(events), kEndOfTrack})});
}

Lines decodeOk(const Bytes& file, DecodeOptions options = {})
{
    const DecodeResult result = Vertalen(file, "song.mid", options);
    EXPECT_EQ(result.errorCode, 0) << result.errorMessage;
    return result.lines;
}

Bytes everyEventKind()
{
    Bytes events = cat({
        {0x00, 0xFF, 0x00, 0x02, 0x01, 0x02},      // sequence number 258
        {0x00, 0xFF, 0x54, 0x05, 1, 2, 3, 4, 5},   // SMPTE offset
        {0x00, 0xFF, 0x58, 0x04, 3, 3, 24, 8},     // time signature 3/8
        {0x00, 0xFF, 0x58, 0x04, 2, 6, 24, 8},     // exponent 6: denominator stays 8
        {0x00, 0xFF, 0x59, 0x02, 0xFF, 0x01},      // key: 1 flat (signed byte), minor
        {0x0A, 0xA2, 60, 33}, {0x0A, 0xB3, 7, 100}, {0x0A, 0xC4, 5}, {0x0A, 0xD5, 51},
        {0x0A, 0xE6, 0x01, 0x02},                  // pitch bend 1 + 128 * 2
        {0x0A, 0xF1, 5}, {0x0A, 0xF2, 0x01, 0x01}, {0x0A, 0xF3, 2},
        {0x0A, 0xF7, 0x01, 0x00},                  // sysex packet: listed, data skipped
        {0x0A, 0xF0, 0x02, 0x01, 0xF7},            // system exclusive: no line
        {0x0A, 0xF4}, {0x00, 0xF5}, {0x00, 0xF6}, {0x00, 0xF8}, {0x00, 0xF9}, {0x00, 0xFA},
        {0x00, 0xFB}, {0x00, 0xFC}, {0x00, 0xFD}, {0x00, 0xFE},
        {0x00, 0xFF, 0x7F, 0x02, 0x00, 0x00},      // sequencer meta event 0x7F: no line
    });
    for (std::uint8_t type = 1; type <= 7; ++type)
        events = cat({events, {0x00, 0xFF, type, 2, 'a', static_cast<std::uint8_t>('0' + type)}});
    return track0({events});
}

// Sustain pedal down, a note released under it, pedal up at 400, down again and a note
// still held at the end of the track (700).
const Bytes kPedalSong = track0({msg(0, 0xB0, 64, 127), msg(100, 0x90, 60, 80),
                                 msg(100, 0x80, 60, 0), msg(200, 0xB0, 64, 0),
                                 msg(0, 0xB0, 64, 64), msg(100, 0x90, 62, 70),
                                 msg(100, 0x80, 62, 0), {0x64, 0xFF, 0x2F, 0x00}});

// Format 1 takes the tempo map from the first track only; format 0 from every track.
const Bytes kTempoTrack = cat({tempoEvent(0, 1000000), tempoEvent(1000, 250000), kEndOfTrack});
const Bytes kNoteTrack = cat({msg(0, 0x90, 60, 100), tempoEvent(1500, 2000000),
                              msg(500, 0x80, 60, 0), kEndOfTrack});

const Bytes kOneSecondNote = track0({tempoEvent(0, 1000000), msg(0, 0x90, 60, 100),
                                     msg(500, 0x80, 60, 0)});

TEST(Decoder, HandWorkedSongsGiveTheirExactLines)
{
    struct Case {
        const char* name;
        Bytes file;
        Lines lines;          // ENDF and HEAD follow
        const char* endMs;    // last field of HEAD
        DecodeOptions options = {};
    };
    const Case cases[] = {
        {"every event kind", everyEventKind(),
         {"SEQN 0000000 000000 00258", "SMPT 0000000 000000 00001 00002 00003 00004 00005",
          "TIME 0000000 000000 00003 00008 00024 00008",
          "TIME 0000000 000000 00002 00008 00024 00008",
          "KEYS 0000000 000000 00255 00001", "KAFT 0000010 000010 00003 00060",
          "CONC 0000020 000020 00004 00007 00100", "PRGC 0000030 000030 00005 00005",
          "CAFT 0000040 000040 00006 00051", "PBEN 0000050 000050 00007 00257",
          "MQTR 0000060 000060 00005", "SNGP 0000070 000070 00129", "SNGS 0000080 000080 00002",
          "F7XX 0000090 000090", "F4XX 0000110 000110", "F5XX 0000110 000110",
          "F6XX 0000110 000110", "F8XX 0000110 000110", "F9XX 0000110 000110",
          "FAXX 0000110 000110", "FBXX 0000110 000110", "FCXX 0000110 000110",
          "FDXX 0000110 000110", "FEXX 0000110 000110", "TEXT 0000110 000110 a1",
          "AUTH 0000110 000110 a2", "TNAM 0000110 000110 a3", "INST 0000110 000110 a4",
          "LYRC 0000110 000110 a5", "MARK 0000110 000110 a6", "CUEP 0000110 000110 a7"},
         "00000"},
        // 480 ticks per quarter at 1000000 us: tick 720 is 1500 ms, tick 840 is 1750 ms.
        {"middle C",
         track0({tempoEvent(0, 1000000), msg(720, 0x90, 60, 100), msg(120, 0x80, 60, 0)}, 480),
         {"TEMP 0000000 000000 1000000", "NOTE 0001500 000840 00001 00060 00250 00100 C3",
          "NOOF 0001750 000840 00001"},
         "01750"},
        // 500000 / 480 / 1000 as a float is 1.04166663: tick 36 is 37.4999985 ms, not 37.5.
        {"float ms per tick", track0({msg(36, 0xB0, 1, 2)}, 480),
         {"CONC 0000037 000036 00001 00001 00002"}, "00000"},
        // 0.5 ms per tick: ticks 1, 3 and 5 fall on 0.5, 1.5 and 2.5 ms, rounded half to even.
        {"half to even", track0({msg(1, 0xB0, 1, 0), msg(2, 0xB0, 1, 0), msg(2, 0xB0, 1, 0)}, 1000),
         {"CONC 0000000 000001 00001 00001 00000", "CONC 0000002 000003 00001 00001 00000",
          "CONC 0000002 000005 00001 00001 00000"},
         "00000"},
        // -25 frames per second, 40 ticks per frame: 1 ms per tick whatever the tempo.
        {"SMPTE division", track0({tempoEvent(0, 250000), msg(1000, 0xB0, 1, 1)}, 0xE728),
         {"TEMP 0000000 000000 0250000", "CONC 0001000 001000 00001 00001 00001"}, "00000"},
        // 29.97 frames per second (-29), 40 ticks per frame: 0.834168 ms per tick.
        {"SMPTE drop-frame division", track0({msg(1000, 0xB0, 1, 1)}, 0xE328),
         {"CONC 0000834 001000 00001 00001 00001"}, "00000"},
        {"zero division", track0({tempoEvent(0, 250000), msg(1000, 0xB0, 1, 1)}, 0),
         {"TEMP 0000000 000000 0250000", "CONC 0000000 001000 00001 00001 00001"}, "00000"},
        // 1 ms/tick until tick 300, 2 ms/tick until 350, then 0.5 ms/tick.
        {"note across tempo changes",
         track0({msg(100, 0x90, 60, 100), tempoEvent(200, 1000000), tempoEvent(50, 250000),
                 msg(50, 0x80, 60, 0), msg(0, 0xB0, 7, 1)}),
         {"TEMP 0000300 000300 1000000", "TEMP 0000400 000350 0250000",
          "NOTE 0000100 000400 00001 00060 00325 00100 C3", "NOOF 0000425 000400 00001",
          "CONC 0000425 000400 00001 00007 00001"},
         "00425"},
        // 2 ms/tick for 1000 ticks, then 0.5 ms/tick; the second track's tempo is ignored.
        {"format 1 tempo map", song(1, kMsDivision, {kTempoTrack, kNoteTrack}),
         {"TEMP 0000000 000000 1000000", "TEMP 0002000 001000 0250000",
          "NOTE 0000000 002000 00001 00060 02500 00100 C3", "NOOF 0002500 002000 00001"},
         "02500"},
        // ... in format 0 it sets 4 ms/tick from tick 1500 (2250 ms).
        {"format 0 tempo map", song(0, kMsDivision, {kTempoTrack, kNoteTrack}),
         {"TEMP 0000000 000000 1000000", "TEMP 0002000 001000 0250000",
          "TEMP 0002250 001500 2000000", "NOTE 0000000 002000 00001 00060 04250 00100 C3",
          "NOOF 0004250 002000 00001"},
         "04250"},
        {"note-on of a sounding note raises its count",
         track0({msg(0, 0x90, 60, 90), msg(50, 0x80, 61, 0), msg(50, 0x90, 60, 50),
                 msg(100, 0x80, 60, 0), msg(100, 0x90, 60, 0), msg(10, 0x80, 60, 0)}),
         {"NOTE 0000000 000300 00001 00060 00300 00090 C3", "NOOF 0000300 000300 00001"}, "00300"},
        {"running status",
         track0({{0x00, 0x91, 60, 100}, {0x00, 62, 101}, {0x0A, 60, 0}, {0x0A, 62, 0}}),
         {"NOTE 0000000 000010 00002 00060 00010 00100 C3", "NOOF 0000010 000010 00002",
          "NOTE 0000000 000020 00002 00062 00020 00101 D3", "NOOF 0000020 000020 00002"},
         "00020"},
        {"sustain pedal", kPedalSong,
         {"CONC 0000000 000000 00001 00064 00127", "CONC 0000400 000400 00001 00064 00000",
          "NOTE 0000100 000400 00001 00060 00300 00080 C3", "NOOF 0000400 000400 00001",
          "CONC 0000400 000400 00001 00064 00064", "NOTE 0000500 000700 00001 00062 00200 00070 D3",
          "NOOF 0000700 000700 00001"},
         "00700", {.sustain = true}},
        {"pedal ignored without the option", kPedalSong,
         {"CONC 0000000 000000 00001 00064 00127", "NOTE 0000100 000200 00001 00060 00100 00080 C3",
          "NOOF 0000200 000200 00001", "CONC 0000400 000400 00001 00064 00000",
          "CONC 0000400 000400 00001 00064 00064", "NOTE 0000500 000600 00001 00062 00100 00070 D3",
          "NOOF 0000600 000600 00001"},
         "00600"},
        {"forced tempo keeps the TEMP line", kOneSecondNote,
         {"TEMP 0000000 000000 1000000", "NOTE 0000000 000500 00001 00060 00500 00100 C3",
          "NOOF 0000500 000500 00001"},
         "00500", {.forcedTempoBpm = 120}},
        // 60 / 7 * 10^6 us per quarter: 17.142857 ms per tick.
        {"forced tempo 7", kOneSecondNote,
         {"TEMP 0000000 000000 1000000", "NOTE 0000000 000500 00001 00060 08571 00100 C3",
          "NOOF 0008571 000500 00001"},
         "08571", {.forcedTempoBpm = 7}},
        // A field is value + 10^width without its first digit: 9 * 10^width or more is wider.
        {"fields too wide",
         track0({msg(0, 0x90, 50, 100), msg(123456, 0x80, 50, 0),
                 msg(10000123 - 123456, 0x90, 60, 100), msg(10, 0x80, 60, 0)}),
         {"NOTE 0000000 123456 00001 00050 23456 00100 D2", "NOOF 0123456 123456 00001",
          "NOTE 0000123 1000133 00001 00060 00010 00100 C3", "NOOF 0000133 1000133 00001"},
         "0100133"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Lines expected = c.lines;
        expected.push_back("ENDF 9999999");
        expected.push_back(std::string("HEAD ##10000  song.mid ") + c.endMs);
        EXPECT_EQ(decodeOk(c.file, c.options), expected);
    }
}

TEST(Decoder, NoteNamesAndFieldWidthsAtEveryBoundary)
{
    // Octave = note / 12 - 2 without its sign; channel 16; velocity-0 note-ons end notes.
    Bytes events;
    for (int note : {0, 11, 12, 23, 24, 61, 127})
        events = cat({events, msg(1, 0x9F, static_cast<std::uint8_t>(note), 64),
                      msg(1, 0x9F, static_cast<std::uint8_t>(note), 0)});
    Lines names;
    for (const std::string& line : decodeOk(track0({events})))
        if (line.starts_with("NOTE"))
            names.push_back(line.substr(20, 6) + line.substr(44));
    EXPECT_EQ(names, (Lines{"00016 C2", "00016 B2", "00016 C1", "00016 B1", "00016 C0",
                            "00016 C#3", "00016 G8"}));

    const long long ticks[] = {0, 9, 999999, 1000000, 8999999, 9000000, 9999999, 10000000,
                               89999999, 90000000, 99999999, 100000000, 268435455};
    Bytes sweep;
    long long previous = 0;
    for (const long long tick : ticks) {
        sweep = cat({sweep, msg(static_cast<std::uint32_t>(tick - previous), 0xB0, 1, 1)});
        previous = tick;
    }
    const Lines out = decodeOk(track0({sweep}));
    for (std::size_t i = 0; i < std::size(ticks); ++i)
        EXPECT_EQ(out[i], "CONC " + fixedWidth(ticks[i], 7) + " " + fixedWidth(ticks[i], 6) +
                              " 00001 00001 00001");
}

TEST(Decoder, ErrorsKeepTheLinesWrittenAndGiveTheOffsetInHex)
{
    // The first event of the first track is at offset 22 (0x16).
    Bytes truncated = track0({{0x00, 0xC0, 5}, {0x0A, 0x90, 60, 100}});
    truncated.resize(28);  // the note-on at 0x19 loses its velocity
    Bytes missingTrack = track0({{0x00, 0xC0, 5}});
    missingTrack[11] = 2;
    Bytes wrongChunk = track0({});
    wrongChunk[17] = 'x';  // "MTrx"
    const std::string at = "\r\n    Events processed until loc hex: ";
    const std::string eof = "*** Midifile corrupt, unexpected EOF." + at;
    const std::string running = "Midifile corrupt, running status error. " + at;
    const std::string noHeader = "Midifile corrupt: header MThd not in file.";
    const std::string noTrack = "Midifile corrupt, header MTrk not in file.";
    const std::string program = "PRGC 0000000 000000 00001 00005";
    const struct {
        Bytes file;
        int code;
        std::string message;
        Lines kept;
    } cases[] = {
        {truncated, 1, eof + "19", {program}},
        {Bytes{'M', 'T', 'h', 'd', 0, 0, 0, 6, 0}, 1, eof + "0", {}},
        {track0({{0x81, 0x81, 0x81, 0x81, 0x01, 0xC0, 5}}), 2,
         "Midifile corrupt, deltatime invalid format." + at + "16", {}},
        {track0({{0x00, 0x90, 60, 100}, {0x00, 0xFF, 0x01, 0x01, 'x'}, {0x00, 60, 0}}),
         3, running + "1F", {"TEXT 0000000 000000 x"}},  // running status after a meta event
        {track0({{0x00, 60, 0}}), 3, running + "16", {}},
        {Bytes{}, 5, noHeader, {}},
        {Bytes{'R', 'I', 'F', 'F', 0, 0, 0, 0}, 5, noHeader, {}},
        {missingTrack, 6, noTrack, {program}},
        {wrongChunk, 6, noTrack, {}},
    };
    for (const auto& c : cases) {
        const DecodeResult result = Vertalen(c.file, "song.mid");
        EXPECT_EQ(result.errorCode, c.code) << c.message;
        EXPECT_EQ(result.errorMessage, c.message);
        EXPECT_EQ(result.lines, c.kept) << c.message;
    }
}

}  // namespace
}  // namespace veltrin
