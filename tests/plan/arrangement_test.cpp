// The song as it goes on the roll: the channels placed, the transposition, the notes lost.

#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "plan/arrangement.h"
#include "plan/plan_steps.h"
#include "scales/scale_file.h"

namespace veltrin {
namespace {

using Lines = std::vector<std::string>;

struct ChannelNote {
    long startMs;
    long endMs;
    int note;
    int channel = 1;
};

// Decoded event lines: each NOTE line (channel in columns 21-25) and its NOOF.
Lines events(const std::vector<ChannelNote>& notes)
{
    Lines lines{"TEMP 0000000 000000 0500000"};
    char text[96];
    for (const ChannelNote& n : notes) {
        std::snprintf(text, sizeof text, "NOTE %07ld 000960 %05d %05d %05ld 00100 C3", n.startMs, n.channel, n.note,
                      n.endMs - n.startMs);
        lines.emplace_back(text);
        std::snprintf(text, sizeof text, "NOOF %07ld 000960 %05d", n.endMs, n.channel);
        lines.emplace_back(text);
    }
    return lines;
}

OrganScale scaleOf(std::vector<std::int16_t> notes)
{
    OrganScale scale;
    scale.nb_notes = static_cast<int>(notes.size());
    std::copy(notes.begin(), notes.end(), scale.notes_standard.begin());
    return scale;
}

OrganScale kolby()
{
    OrganScale scale;
    Def_notes_Kolby(scale);
    return scale;
}

const ChannelSet kEvery = ChannelSet::every();

TEST(Arrangement, ChannelsAndTransposeReadAsTheSettingWritesThem)
{
    struct Case {
        const char* text;
        std::optional<std::uint32_t> bits;
    };
    const Case channels[] = {
        {"1-9,11-16", 0x1FFFEU & ~(1U << 10)}, {"1-16", 0x1FFFEU}, {" 3 , 5-6 ,3", (1U << 3) | (1U << 5) | (1U << 6)},
        {"16", 1U << 16}, {"0-3", std::nullopt}, {"17", std::nullopt}, {"", std::nullopt}, {"4-2", std::nullopt},
        {"1,,2", std::nullopt}, {"1-", std::nullopt}, {"-3", std::nullopt}, {"1-2-3", std::nullopt}, {"ten", std::nullopt},
    };
    for (const Case& c : channels) {
        const auto set = parseChannels(c.text);
        ASSERT_EQ(set.has_value(), c.bits.has_value()) << c.text;
        if (set) {
            EXPECT_EQ(set->bits, *c.bits) << c.text;
        }
    }
    EXPECT_FALSE(parseChannels("1-9,11-16")->has(10));
    EXPECT_TRUE(parseChannels("1-16")->all());

    struct Shift {
        const char* text;
        std::optional<int> semitones;  // nullopt refused; 99: auto
    };
    const Shift shifts[] = {{"0", 0}, {"-5", -5}, {"+24", 24}, {" -24 ", -24}, {"Auto", 99}, {"AUTO", 99},
                            {"25", std::nullopt}, {"-25", std::nullopt}, {"2.0", std::nullopt}, {"- 5", std::nullopt},
                            {"", std::nullopt}, {"automatic", std::nullopt}, {"5x", std::nullopt}};
    for (const Shift& s : shifts) {
        const auto read = parseTranspose(s.text);
        ASSERT_EQ(read.has_value(), s.semitones.has_value()) << s.text;
        if (read) {
            EXPECT_EQ(read->automatic ? 99 : read->semitones, *s.semitones) << s.text;
        }
    }
}

// Lost notes by name, lowest first, with their count and the first one's time; their counts
// add up to what the split finds out of the scale.
TEST(Arrangement, LostNotesAreNamedCountedAndTimed)
{
    const OrganScale scale = kolby();  // no 61 (C#3), 85 (C#5) nor 40 (E1)
    const Lines song = events({{12400, 12600, 61}, {500, 700, 60}, {9000, 9100, 61}, {62000, 62500, 85},
                               {3000, 3500, 40}, {45, 80, 61}, {800, 900, 62}});
    const Arrangement a = arrangeSong(song, kEvery, {}, scale);
    ASSERT_EQ(a.lost.size(), 3u);
    EXPECT_EQ(a.lost[0].note, 40);
    EXPECT_EQ(a.lost[1].note, 61);
    EXPECT_EQ(a.lost[1].count, 3);
    EXPECT_EQ(a.lost[1].firstMs, 45.0);
    EXPECT_EQ(a.lost[1].ms, 200.0 + 100.0 + 35.0);
    EXPECT_EQ(arrangingReport(a, "1-16"),
              (Lines{"Notes outside the organ scale : E1 \u00d71 from 0:03.0, C#3 \u00d73 from 0:00.0, "
                     "C#5 \u00d71 from 1:02.0"}));
    PlanValues values;
    values.Vitcarton = 60;
    values.temps_morceau = 250;
    const SplitResult split = Decoupe_notes(a.noteLines, true, values, scale);
    EXPECT_EQ(split.notes_hors_gamme, 5);

    EXPECT_EQ(noteName(0), "C-2");
    EXPECT_EQ(noteName(23), "B-1");
    EXPECT_EQ(noteName(68), "G#3");
    EXPECT_EQ(noteName(-1), "B-3");
    EXPECT_EQ(songTimeText(3599999), "59:59.9");
    EXPECT_EQ(songTimeText(3600000), "60:00.0");
}

// A song built to fit a small scale exactly once shifted down three semitones; another to
// tell note-seconds from note counts; and the ties.
TEST(Arrangement, AutoChoosesTheShiftThatLosesTheFewestNoteSeconds)
{
    const OrganScale triad = scaleOf({60, 64, 67});
    const Lines fitsAtMinus3 = events({{0, 400, 63}, {500, 900, 67}, {1000, 1400, 70}, {1500, 1600, 63}});
    const Arrangement a = arrangeSong(fitsAtMinus3, kEvery, {true, 0}, triad);
    EXPECT_EQ(a.transposition.semitones, -3);
    EXPECT_EQ(a.transposition.asWritten.notes, 3);
    EXPECT_EQ(a.transposition.shifted.notes, 0);
    EXPECT_TRUE(a.lost.empty());
    EXPECT_EQ(a.noteLines, (Lines{"0000000 060 0000400", "0000500 064 0000900", "0001000 067 0001400",
                                  "0001500 060 0001600"}));
    EXPECT_EQ(a.playLines.front(), "0000000 060 NOTE");
    EXPECT_EQ(arrangingReport(a, "1-16"), (Lines{"Transposed \u22123 (auto): 3 \u2192 0 notes lost"}));

    // One long note against two short ones: the long one is kept.
    const OrganScale c = scaleOf({60});
    const Lines longAndShort = events({{0, 2000, 62}, {0, 10, 57}, {100, 110, 57}});
    EXPECT_EQ(arrangeSong(longAndShort, kEvery, {true, 0}, c).transposition.semitones, -2);

    // Ties: no shift beats the song as written; the nearer of two; downward between equals.
    EXPECT_EQ(arrangeSong(events({{0, 100, 64}}), kEvery, {true, 0}, triad).transposition.semitones, 0);
    EXPECT_EQ(arrangeSong(events({{0, 100, 66}}), kEvery, {true, 0}, scaleOf({60, 72})).transposition.semitones, -6);
    EXPECT_EQ(arrangeSong(events({{0, 100, 61}}), kEvery, {true, 0}, scaleOf({40, 62, 80})).transposition.semitones, 1);
    EXPECT_EQ(arrangingReport(arrangeSong(events({{0, 100, 64}}), kEvery, {true, 0}, triad), "1-16"),
              (Lines{"Transposition auto: every note is in the organ scale as written"}));
}

// A shift that takes notes out of MIDI's 0-127 loses them: they reach neither the split nor
// the player, and are named and counted all the same.
TEST(Arrangement, AFixedShiftMovesEveryNoteAndLosesThoseItTakesOutOfRange)
{
    const OrganScale scale = scaleOf({8, 127});
    const Lines song = events({{0, 100, 5}, {200, 300, 124}, {400, 500, 127}});
    const Arrangement up = arrangeSong(song, kEvery, {false, 3}, scale);
    EXPECT_EQ(up.noteLines, (Lines{"0000000 008 0000100", "0000200 127 0000300"}));
    EXPECT_EQ(up.playLines, (Lines{"0000000 008 NOTE", "0000100 008 NOOF", "0000200 127 NOTE", "0000300 127 NOOF"}));
    EXPECT_EQ(up.shiftedOutOfRange, 1);
    EXPECT_EQ(up.transposition.asWritten.notes, 2);
    EXPECT_EQ(up.transposition.shifted.notes, 1);
    ASSERT_EQ(up.lost.size(), 1u);
    EXPECT_EQ(up.lost[0].note, 130);
    EXPECT_EQ(arrangingReport(up, "1-16"),
              (Lines{"Transposed +3: 2 \u2192 1 note lost", "Notes outside the organ scale : A#8 \u00d71 from 0:00.4"}));

    const Arrangement down = arrangeSong(song, kEvery, {false, -24}, scale);
    EXPECT_EQ(down.lost.front().note, -19);
    EXPECT_EQ(noteName(down.lost.front().note), "F-4");
    EXPECT_EQ(down.transposition.shifted.notes, 3);
}

// Drums on channel 10 are not pitches: left out by the default channels, counted, and the
// rest of the song paired as it would be without them.
TEST(Arrangement, LeftOutChannelsTakeTheirNotesOffTheRollAndAreCounted)
{
    const std::vector<ChannelNote> melody = {{0, 500, 60, 1}, {500, 900, 62, 2}, {1000, 1200, 64, 16}};
    std::vector<ChannelNote> withDrums = melody;
    withDrums.insert(withDrums.begin() + 1, {{100, 150, 36, 10}, {300, 350, 38, 10}, {600, 650, 42, 10}});
    const Arrangement a = arrangeSong(events(withDrums), *parseChannels("1-9,11-16"), {}, kolby());
    Lines play;
    EXPECT_EQ(a.noteLines, pairNotes(events(melody), play));
    EXPECT_EQ(a.playLines, play);
    EXPECT_EQ(a.leftOut.total(), 3);
    EXPECT_EQ(a.leftOut.notes[10], 3);
    EXPECT_EQ(arrangingReport(a, "1-9,11-16"),
              (Lines{"Channel 10 left out (Channels = 1-9,11-16) : 3 notes"}));

    const Arrangement every = arrangeSong(events(withDrums), kEvery, {}, kolby());
    EXPECT_EQ(every.noteLines.size(), 6u);
    EXPECT_EQ(every.leftOut.total(), 0);
    const Arrangement two = arrangeSong(events(withDrums), *parseChannels("1,16"), {}, kolby());
    EXPECT_EQ(arrangingReport(two, "1,16").front(), "Channels 2, 10 left out (Channels = 1,16) : 4 notes");
}

// The report's summary, read without pairing the lines, says what the whole arrangement
// says: on a decoded song, and on lines out of the decoder's layout.
TEST(Arrangement, TheSummaryAgreesWithTheWholeArrangement)
{
    std::mt19937 random(77);
    std::vector<ChannelNote> notes;
    for (int i = 0; i < 2000; ++i) {
        const long start = static_cast<long>(random() % 60000);
        notes.push_back({start, start + static_cast<long>(random() % 900), static_cast<int>(random() % 128),
                         static_cast<int>(random() % 16) + 1});
    }
    const Lines decoded = events(notes);
    Lines odd = decoded;
    odd.insert(odd.begin() + 9, "NOOF 0000050 000960 00001");  // closes no note
    const auto same = [](const Arrangement& a, const Arrangement& b) {
        if (a.lost.size() != b.lost.size())
            return false;
        for (std::size_t i = 0; i < a.lost.size(); ++i) {
            if (a.lost[i].note != b.lost[i].note || a.lost[i].count != b.lost[i].count ||
                a.lost[i].firstMs != b.lost[i].firstMs || a.lost[i].ms != b.lost[i].ms)
                return false;
        }
        return a.leftOut.notes == b.leftOut.notes && a.shiftedOutOfRange == b.shiftedOutOfRange &&
               a.transposition.semitones == b.transposition.semitones &&
               a.transposition.asWritten.ms == b.transposition.asWritten.ms &&
               a.transposition.shifted.notes == b.transposition.shifted.notes;
    };
    const Lines* const songs[] = {&decoded, &odd};
    for (const Lines* lines : songs) {
        for (const TransposeSetting shift :
             {TransposeSetting{true, 0}, TransposeSetting{false, -24}, TransposeSetting{false, 7}}) {
            const ChannelSet channels = *parseChannels("1-9,11-16");
            const Arrangement whole = arrangeSong(*lines, channels, shift, kolby());
            EXPECT_TRUE(same(arrangementSummary(*lines, channels, shift, kolby()), whole)) << shift.semitones;
            EXPECT_EQ(whole.shiftedOutOfRange + static_cast<int>(whole.noteLines.size()) +
                          static_cast<int>(whole.leftOut.total()),
                      static_cast<int>(notes.size()) + (lines == &odd ? 1 : 0))
                << "every note is placed, left out or shifted out of range (the odd NOOF gives a note line)";
        }
    }
}

}  // namespace
}  // namespace veltrin
