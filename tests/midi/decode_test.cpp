// The MIDI decoder on hand-built files: every event kind, timing, notes, errors.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "app/numeric_text.h"
#include "midi/mdlvert.h"
#include "midi_builder.h"

namespace veltrin {
namespace {

using test::Bytes;
using test::cat;
using test::kEndOfTrack;
using test::msg;
using test::song;
using test::tempoEvent;
using Lines = std::vector<std::string>;

DecodeResult decode(const Bytes& bytes, DecodeOptions options = {})
{
    return Vertalen(bytes, "song.mid", options);
}

// The lines of a file that must decode without error, ENDF and HEAD included.
Lines lines(const Bytes& bytes, DecodeOptions options = {})
{
    const DecodeResult result = decode(bytes, options);
    EXPECT_EQ(result.errorCode, 0) << result.errorMessage;
    return result.lines;
}

// With a division of 500 and the default 500000 us per quarter, one tick is exactly 1 ms.
constexpr int kMsDivision = 500;

TEST(Decoder, WritesEveryEventKindWithItsFields)
{
    Bytes events = cat({
        {0x00, 0xFF, 0x00, 0x02, 0x01, 0x02},        // sequence number 258
        {0x00, 0xFF, 0x54, 0x05, 1, 2, 3, 4, 5},     // SMPTE offset
        {0x00, 0xFF, 0x58, 0x04, 3, 3, 24, 8},       // time signature 3/8
        {0x00, 0xFF, 0x58, 0x04, 2, 6, 24, 8},       // exponent 6: denominator stays 8
        {0x00, 0xFF, 0x59, 0x02, 0xFF, 0x01},        // key: 1 flat (signed byte), minor
        {0x0A, 0xA2, 60, 33},                        // key pressure, channel 3
        {0x0A, 0xB3, 7, 100},                        // controller 7 = 100, channel 4
        {0x0A, 0xC4, 5},                             // program 5, channel 5
        {0x0A, 0xD5, 51},                            // channel pressure, channel 6
        {0x0A, 0xE6, 0x01, 0x02},                    // pitch bend 1 + 128 * 2, channel 7
        {0x0A, 0xF1, 5},                             // quarter frame
        {0x0A, 0xF2, 0x01, 0x01},                    // song position 129
        {0x0A, 0xF3, 2},                             // song select
        {0x0A, 0xF7, 0x01, 0x00},                    // sysex packet: listed, data skipped
        {0x0A, 0xF0, 0x02, 0x01, 0xF7},              // system exclusive: no line
        {0x0A, 0xF4}, {0x00, 0xF5}, {0x00, 0xF6},    // system bytes without data
        {0x00, 0xF8}, {0x00, 0xF9}, {0x00, 0xFA}, {0x00, 0xFB},
        {0x00, 0xFC}, {0x00, 0xFD}, {0x00, 0xFE},
        {0x00, 0xFF, 0x7F, 0x02, 0x00, 0x00},        // sequencer-specific meta: no line
    });
    for (std::uint8_t type = 1; type <= 7; ++type) {  // text meta events 0x01 .. 0x07
        const auto digit = static_cast<std::uint8_t>('0' + type);
        events = cat({events, {0x00, 0xFF, type, 0x02, 'a', digit}});
    }
    events = cat({events, kEndOfTrack});

    EXPECT_EQ(lines(song(0, kMsDivision, {events})),
              (Lines{"SEQN 0000000 000000 00258",
                     "SMPT 0000000 000000 00001 00002 00003 00004 00005",
                     "TIME 0000000 000000 00003 00008 00024 00008",
                     "TIME 0000000 000000 00002 00008 00024 00008",
                     "KEYS 0000000 000000 00255 00001",
                     "KAFT 0000010 000010 00003 00060",
                     "CONC 0000020 000020 00004 00007 00100",
                     "PRGC 0000030 000030 00005 00005",
                     "CAFT 0000040 000040 00006 00051",
                     "PBEN 0000050 000050 00007 00257",
                     "MQTR 0000060 000060 00005",
                     "SNGP 0000070 000070 00129",
                     "SNGS 0000080 000080 00002",
                     "F7XX 0000090 000090",
                     "F4XX 0000110 000110", "F5XX 0000110 000110", "F6XX 0000110 000110",
                     "F8XX 0000110 000110", "F9XX 0000110 000110", "FAXX 0000110 000110",
                     "FBXX 0000110 000110", "FCXX 0000110 000110", "FDXX 0000110 000110",
                     "FEXX 0000110 000110",
                     "TEXT 0000110 000110 a1",
                     "AUTH 0000110 000110 a2",
                     "TNAM 0000110 000110 a3",
                     "INST 0000110 000110 a4",
                     "LYRC 0000110 000110 a5",
                     "MARK 0000110 000110 a6",
                     "CUEP 0000110 000110 a7",
                     "ENDF 9999999",
                     "HEAD ##10000  song.mid 00000"}));
}

TEST(Decoder, NoteLinesCarryStartEndDurationVelocityAndName)
{
    // 480 ticks per quarter at 1000000 us: 720 ticks = 1500 ms, 840 ticks = 1750 ms.
    const Bytes file = song(0, 480, {cat({tempoEvent(0, 1000000),
                                          msg(720, 0x90, 60, 100),   // middle C on
                                          msg(120, 0x80, 60, 0),     // off at tick 840
                                          kEndOfTrack})});
    const Lines out = lines(file);
    ASSERT_EQ(out.size(), 5U);
    EXPECT_EQ(out[1], "NOTE 0001500 000840 00001 00060 00250 00100 C3");
    EXPECT_EQ(out[2], "NOOF 0001750 000840 00001");
    EXPECT_EQ(out[4], "HEAD ##10000  song.mid 01750");

    // Octave = note / 12 - 2 without its sign; channel 16; velocity-0 note-ons end notes.
    Bytes events;
    for (int note : {0, 11, 12, 23, 24, 61, 127})  // on at +1, velocity-0 note-on ends it
        events = cat({events, msg(1, 0x9F, static_cast<std::uint8_t>(note), 64),
                      msg(1, 0x9F, static_cast<std::uint8_t>(note), 0)});
    Lines names;
    for (const std::string& line : lines(song(0, kMsDivision, {cat({events, kEndOfTrack})})))
        if (line.starts_with("NOTE"))
            names.push_back(line.substr(20, 6) + line.substr(44));
    EXPECT_EQ(names, (Lines{"00016 C2", "00016 B2", "00016 C1", "00016 B1", "00016 C0",
                            "00016 C#3", "00016 G8"}));
}

TEST(Decoder, TimesUseAFloatRateAndRoundHalfToEven)
{
    // 500000 / 480 / 1000 as a float is 1.04166663: tick 36 gives 37.4999985 ms, so 37
    // (exact arithmetic would give 37.5 and round to 38).
    EXPECT_EQ(lines(song(0, 480, {cat({msg(36, 0xB0, 1, 2), kEndOfTrack})})).front(),
              "CONC 0000037 000036 00001 00001 00002");
    // 1000 ticks per quarter: 0.5 ms per tick, so ticks 1, 3, 5 fall on 0.5, 1.5, 2.5 ms.
    const Lines out = lines(song(0, 1000, {cat({msg(1, 0xB0, 1, 0), msg(2, 0xB0, 1, 0),
                                                msg(2, 0xB0, 1, 0), kEndOfTrack})}));
    EXPECT_EQ(out[0].substr(0, 12) + out[1].substr(4, 8) + out[2].substr(4, 8),
              "CONC 0000000 0000002 0000002");
}

TEST(Decoder, NoteSpanningTempoChangesKeepsItsStartAndTrueDuration)
{
    // 1 ms/tick until tick 300, 2 ms/tick until tick 350, then 0.5 ms/tick.
    const Bytes file = song(0, kMsDivision, {cat({msg(100, 0x90, 60, 100),
                                                  tempoEvent(200, 1000000),
                                                  tempoEvent(50, 250000),
                                                  msg(50, 0x80, 60, 0),
                                                  msg(0, 0xB0, 7, 1),
                                                  kEndOfTrack})});
    EXPECT_EQ(lines(file), (Lines{"TEMP 0000300 000300 1000000",
                                  "TEMP 0000400 000350 0250000",
                                  "NOTE 0000100 000400 00001 00060 00325 00100 C3",
                                  "NOOF 0000425 000400 00001",
                                  "CONC 0000425 000400 00001 00007 00001",
                                  "ENDF 9999999",
                                  "HEAD ##10000  song.mid 00425"}));
}

TEST(Decoder, FormatOneTakesTheTempoMapFromTheFirstTrackOnly)
{
    const Bytes tempoTrack = cat({tempoEvent(0, 1000000), tempoEvent(1000, 250000), kEndOfTrack});
    const Bytes noteTrack = cat({msg(0, 0x90, 60, 100),
                                 tempoEvent(500, 2000000),  // ignored: not the first track
                                 msg(1500, 0x80, 60, 0), kEndOfTrack});
    // 2 ms/tick for 1000 ticks, then 0.5 ms/tick: tick 2000 is at 2500 ms.
    EXPECT_EQ(lines(song(1, kMsDivision, {tempoTrack, noteTrack})),
              (Lines{"TEMP 0000000 000000 1000000",
                     "TEMP 0002000 001000 0250000",
                     "NOTE 0000000 002000 00001 00060 02500 00100 C3",
                     "NOOF 0002500 002000 00001",
                     "ENDF 9999999",
                     "HEAD ##10000  song.mid 02500"}));

    // In format 0 every track's tempo events count: the second track's one is written and
    // changes the time of what follows it.
    const Lines format0 = lines(song(0, kMsDivision, {tempoTrack, noteTrack}));
    EXPECT_EQ(format0[2], "TEMP 0001000 000500 2000000");
}

TEST(Decoder, NoteOnOfASoundingNoteOnlyRaisesItsCount)
{
    const Bytes file = song(0, kMsDivision, {cat({msg(0, 0x90, 60, 90),
                                                  msg(50, 0x80, 61, 0),    // 61 is not sounding
                                                  msg(50, 0x90, 60, 50),   // second note-on
                                                  msg(100, 0x80, 60, 0),   // count 2 -> 1
                                                  msg(100, 0x90, 60, 0),   // count 1 -> 0
                                                  msg(10, 0x80, 60, 0),    // nothing left
                                                  kEndOfTrack})});
    EXPECT_EQ(lines(file), (Lines{"NOTE 0000000 000300 00001 00060 00300 00090 C3",
                                  "NOOF 0000300 000300 00001",
                                  "ENDF 9999999",
                                  "HEAD ##10000  song.mid 00300"}));
}

TEST(Decoder, SustainPedalHoldsReleasedNotesUntilItLifts)
{
    const Bytes file = song(0, kMsDivision, {cat({msg(0, 0xB0, 64, 127),    // pedal down
                                                  msg(100, 0x90, 60, 80),
                                                  msg(100, 0x80, 60, 0),     // released at 200
                                                  msg(200, 0xB0, 64, 0),     // pedal up at 400
                                                  msg(0, 0xB0, 64, 64),      // down again
                                                  msg(100, 0x90, 62, 70),
                                                  msg(100, 0x80, 62, 0),
                                                  {0x64, 0xFF, 0x2F, 0x00}})});  // end at 700
    DecodeOptions sustain;
    sustain.sustain = true;
    EXPECT_EQ(lines(file, sustain),
              (Lines{"CONC 0000000 000000 00001 00064 00127",
                     "CONC 0000400 000400 00001 00064 00000",
                     "NOTE 0000100 000400 00001 00060 00300 00080 C3",
                     "NOOF 0000400 000400 00001",
                     "CONC 0000400 000400 00001 00064 00064",
                     // still held at the end of the song: ends with the last track
                     "NOTE 0000500 000700 00001 00062 00200 00070 D3",
                     "NOOF 0000700 000700 00001",
                     "ENDF 9999999",
                     "HEAD ##10000  song.mid 00700"}));

    // Without the option the pedal is only a controller.
    const Lines plain = lines(file);
    EXPECT_EQ(plain[1], "NOTE 0000100 000200 00001 00060 00100 00080 C3");
    EXPECT_EQ(plain[5], "NOTE 0000500 000600 00001 00062 00100 00070 D3");
}

TEST(Decoder, ForcedTempoOverridesTheFileTempoButKeepsTheTempLines)
{
    const Bytes file = song(0, kMsDivision, {cat({tempoEvent(0, 1000000), msg(0, 0x90, 60, 100),
                                                  msg(500, 0x80, 60, 0), kEndOfTrack})});
    DecodeOptions forced;
    forced.forcedTempoBpm = 120;  // 500000 us per quarter: 1 ms per tick
    EXPECT_EQ(lines(file, forced)[0], "TEMP 0000000 000000 1000000");
    EXPECT_EQ(lines(file, forced)[1], "NOTE 0000000 000500 00001 00060 00500 00100 C3");
    EXPECT_EQ(lines(file)[1], "NOTE 0000000 000500 00001 00060 01000 00100 C3");
    forced.forcedTempoBpm = 7;  // 60 / 7 * 10^6 = 8571428.57 us, rounded
    EXPECT_EQ(lines(file, forced)[1], "NOTE 0000000 000500 00001 00060 08571 00100 C3");
}

TEST(Decoder, RunningStatusRepeatsTheLastChannelStatus)
{
    const Bytes file = song(0, kMsDivision, {cat({{0x00, 0x91, 60, 100},  // note on, channel 2
                                                  {0x00, 62, 101},        // running: note on
                                                  {0x0A, 60, 0},          // running: off
                                                  {0x0A, 62, 0},
                                                  kEndOfTrack})});
    EXPECT_EQ(lines(file), (Lines{"NOTE 0000000 000010 00002 00060 00010 00100 C3",
                                  "NOOF 0000010 000010 00002",
                                  "NOTE 0000000 000020 00002 00062 00020 00101 D3",
                                  "NOOF 0000020 000020 00002",
                                  "ENDF 9999999",
                                  "HEAD ##10000  song.mid 00020"}));
}

TEST(Decoder, FieldsTooWideLoseTheirLeadingDigits)
{
    // A note ending at 123,456 ms, and one from 10,000,123 ms for 10 ms. A field keeps the
    // text of value + 10^width without its first digit, so a value of nine times the power
    // or more is one digit wider.
    const Bytes file = song(0, kMsDivision, {cat({msg(0, 0x90, 50, 100),
                                                  msg(123456, 0x80, 50, 0),
                                                  msg(10000123 - 123456, 0x90, 60, 100),
                                                  msg(10, 0x80, 60, 0), kEndOfTrack})});
    const Lines out = lines(file);
    EXPECT_EQ(out[0], "NOTE 0000000 123456 00001 00050 23456 00100 D2");
    EXPECT_EQ(out[1], "NOOF 0123456 123456 00001");
    EXPECT_EQ(out[2], "NOTE 0000123 1000133 00001 00060 00010 00100 C3");
    EXPECT_EQ(out[5], "HEAD ##10000  song.mid 0100133");

    // The same rule as the shared helper, on both sides of every boundary.
    const long long ticks[] = {0, 9, 999999, 1000000, 8999999, 9000000, 9999999, 10000000,
                               89999999, 90000000, 99999999, 100000000, 268435455};
    Bytes sweepEvents;
    long long previous = 0;
    for (const long long tick : ticks) {
        const Bytes event = msg(static_cast<std::uint32_t>(tick - previous), 0xB0, 1, 1);
        sweepEvents.insert(sweepEvents.end(), event.begin(), event.end());
        previous = tick;
    }
    const Lines sweep = lines(song(0, kMsDivision, {cat({sweepEvents, kEndOfTrack})}));
    for (std::size_t i = 0; i < std::size(ticks); ++i)
        EXPECT_EQ(sweep[i], "CONC " + fixedWidth(ticks[i], 7) + " " + fixedWidth(ticks[i], 6) +
                              " 00001 00001 00001");
}

TEST(Decoder, SmpteAndZeroDivisionsTimeWithoutTheTempo)
{
    // -25 frames per second, 40 ticks per frame: 1 ms per tick whatever the tempo.
    const Bytes events = cat({tempoEvent(0, 250000), msg(1000, 0xB0, 1, 1), kEndOfTrack});
    EXPECT_EQ(lines(song(0, 0xE728, {events}))[1], "CONC 0001000 001000 00001 00001 00001");
    EXPECT_EQ(lines(song(0, 0, {events}))[1], "CONC 0000000 001000 00001 00001 00001");
}

TEST(Decoder, ErrorsKeepTheLinesWrittenAndGiveTheOffsetInHex)
{
    // The first event of the first track is at offset 22 (0x16).
    struct Case {
        Bytes file;
        int code;
        std::string message;
        Lines kept;
    };
    Bytes truncated = song(0, kMsDivision, {cat({{0x00, 0xC0, 5}, {0x0A, 0x90, 60, 100},
                                                 kEndOfTrack})});
    truncated.resize(28);  // the note-on at 0x19 loses its velocity
    Bytes missingTrack = song(0, kMsDivision, {cat({{0x00, 0xC0, 5}, kEndOfTrack})});
    missingTrack[11] = 2;
    Bytes wrongChunk = song(0, kMsDivision, {kEndOfTrack});
    wrongChunk[17] = 'x';  // "MTrx"
    const std::string at = "\r\n    Events processed until loc hex: ";
    const std::string eof = "*** Midifile corrupt, unexpected EOF." + at;
    const std::string running = "Midifile corrupt, running status error. " + at;
    const std::string noHeader = "Midifile corrupt: header MThd not in file.";
    const std::string noTrack = "Midifile corrupt, header MTrk not in file.";
    const std::string program = "PRGC 0000000 000000 00001 00005";
    const Case cases[] = {
        {truncated, 1, eof + "19", {program}},
        {Bytes{'M', 'T', 'h', 'd', 0, 0, 0, 6, 0}, 1, eof + "0", {}},
        {song(0, kMsDivision, {cat({{0x81, 0x81, 0x81, 0x81, 0x01, 0xC0, 5}, kEndOfTrack})}), 2,
         "Midifile corrupt, deltatime invalid format." + at + "16", {}},
        {song(0, kMsDivision, {cat({{0x00, 0x90, 60, 100}, {0x00, 0xFF, 0x01, 0x01, 'x'},
                                    {0x00, 60, 0}, kEndOfTrack})}),  // running status after meta
         3, running + "1F", {"TEXT 0000000 000000 x"}},
        {song(0, kMsDivision, {cat({{0x00, 60, 0}, kEndOfTrack})}), 3, running + "16", {}},
        {Bytes{}, 5, noHeader, {}},
        {Bytes{'R', 'I', 'F', 'F', 0, 0, 0, 0}, 5, noHeader, {}},
        {missingTrack, 6, noTrack, {program}},
        {wrongChunk, 6, noTrack, {}},
    };
    for (const Case& c : cases) {
        const DecodeResult result = decode(c.file);
        EXPECT_EQ(result.errorCode, c.code) << c.message;
        EXPECT_EQ(result.errorMessage, c.message);
        EXPECT_EQ(result.lines, c.kept) << c.message;
    }
}

TEST(Decoder, ManyTempoChangesAreAllApplied)
{
    // 3000 changes, more than any fixed map would hold: each 1-tick step alternates 1 and
    // 2 ms per tick, so tick 3000 lands at 1500 * 1 + 1500 * 2 = 4500 ms.
    Bytes events;
    for (int i = 0; i < 3000; ++i) {
        const Bytes change = tempoEvent(i == 0 ? 0 : 1, i % 2 == 0 ? 500000 : 1000000);
        events.insert(events.end(), change.begin(), change.end());
    }
    const Lines out = lines(song(0, kMsDivision, {cat({events, msg(1, 0xB0, 1, 1), kEndOfTrack})}));
    ASSERT_EQ(out.size(), 3003U);
    EXPECT_EQ(out[3000], "CONC 0004500 003000 00001 00001 00001");
}

}  // namespace
}  // namespace veltrin
