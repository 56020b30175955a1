// Pairing of note starts and ends, the split into pieces, track positions, piece order.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <random>
#include <string>

#include "plan/plan_steps.h"
#include "plan_test_support.h"
#include "support/plain_models.h"

namespace veltrin {
namespace {

using Pieces = std::vector<Piece>;
using Lines = std::vector<std::string>;

TEST(PairNotes, EachNoofClosesTheNoteOpenedLast)
{
    Lines play;
    // The first line is paired like any other; other keywords are ignored.
    auto events = testing::songEvents({{1500, 1750, 64}, {200, 900, 60}});
    events.erase(events.begin());
    EXPECT_EQ(pairNotes(events, play), (Lines{"0000200 060 0000900", "0001500 064 0001750"}));
    EXPECT_EQ(play, (Lines{"0000200 060 NOTE", "0000900 060 NOOF", "0001500 064 NOTE", "0001750 064 NOOF"}));

    // NOTE, NOTE, NOOF loses the first note; a NOOF with nothing open gives " " & its time.
    // The NOOF playback lines carry the note opened last.
    const Lines odd = testing::songEvents({{100, 300, 60}, {200, 400, 62}, {500, 600, 64}});
    EXPECT_EQ(pairNotes({odd[1], odd[3], odd[4], odd[6]}, play), (Lines{" 0000600", "0000200 062 0000400"}));
    EXPECT_EQ(play, (Lines{"0000100 060 NOTE", "0000200 062 NOTE", "0000400 062 NOOF", "0000600 062 NOOF"}));
}

using models::pairedAsText;

// Decoded songs are paired as numbers; any line out of the decoder's layout sends the whole
// list through the text rule. Both must give the lines of the rule.
TEST(PairNotes, DecodedAndOddLinesGiveTheLinesOfTheTextRule)
{
    std::mt19937 random(2024);
    std::uniform_int_distribution<int> start(0, 400);
    std::uniform_int_distribution<int> length(0, 300);
    std::uniform_int_distribution<int> note(0, 127);
    std::vector<testing::SongNote> song;
    for (int i = 0; i < 3000; ++i) {
        // Few distinct starts, so chords, equal notes and equal lines are common.
        const long s = start(random) * 25L + (i % 7 == 0 ? 9980000 : 0);
        song.push_back({s, s + length(random) / (i % 3 + 1), note(random)});
    }
    Lines events = testing::songEvents(song);
    // After the 20th note's NOOF: a note number no MIDI note has.
    events.insert(events.begin() + 41, {"NOTE 0000100 000960 00001 00999 00100 00100 C3",
                                        "NOOF 0000200 000960 00001"});

    const std::vector<Lines> odd{
        {"NOOF 0000050 000960 00001"},                           // closes no note
        {"NOTE 00001x0 000960 00001 00060 00100 00100 C3"},      // not a time
        {"NOTE 0000100 000960 00001 00060"},                     // shorter note field
        {"NOTE 0000100 000960 00001 0060"},                      // no note number
        {"NOOF 0000300"},                                        // no blank after the time
        {"NOTE 0000100 000960 00001 00060 00100 00100 C3", "NOTE 0000150 000960 00001 00061 00100 00100 C3",
         "NOOF 0000400 000960 00001", "NOOF 0000500 000960 00001"},  // a note lost, a NOOF alone
    };
    for (std::size_t i = 0; i <= odd.size(); ++i) {
        Lines input = events;
        if (i < odd.size())
            input.insert(input.begin() + static_cast<std::ptrdiff_t>(101 + 50 * i), odd[i].begin(),
                         odd[i].end());
        Lines play, expectedPlay;
        const Lines expected = pairedAsText(input, expectedPlay);
        ASSERT_EQ(pairNotes(input, play), expected) << "case " << i;
        ASSERT_EQ(play, expectedPlay) << "case " << i;
    }
}

class Split : public ::testing::Test {
protected:
    Split()
    {
        scale.nb_notes = 4;
        scale.notes_standard = {60, 62, 64, 62};  // 62 twice: the lowest track wins
    }
    SplitResult split(const Lines& noteLines)
    {
        const PlanValues values = planValues(settings, scale);
        return Decoupe_notes(noteLines, !(values.laser && settings.Lgponts == "0"), values, scale);
    }
    Settings settings;  // laser, Vitcarton 60: pieces 250 ms, bridges 25 ms, margin 75
    OrganScale scale;
};

TEST_F(Split, LaserPiecesBetweenBridges)
{
    // Exactly one piece long: the rest 250 is not above 325, no bridge. 750: [2000,2250],
    // rest 475 > 325: [2275,2525], rest 200: last [2550,2750]. 326: [4000,4250], [4275,4326].
    EXPECT_EQ(split({"0001000 060 0001250", "0002000 064 0002750", "0004000 062 0004326"}).pieces,
              (Pieces{{1000, 0, 1250}, {2000, 2, 2250}, {2275, 2, 2525}, {2550, 2, 2750},
                      {4000, 1, 4250}, {4275, 1, 4326}}));

    // Vitcarton 80: pieces 187.5, bridges 18.75, margin round(68.75) = 69, step 206.25.
    // 1001-1801: [1001, 1188.5 -> 1189], [1207.25 -> 1207, 1394.75 -> 1395],
    // [1413.5 -> 1414, 1601], rest 181.25: last [1619.75 -> 1620, 1801].
    settings.Vitcarton = "80";
    EXPECT_EQ(split({"0001001 060 0001801"}).pieces,
              (Pieces{{1001, 0, 1189}, {1207, 0, 1395}, {1414, 0, 1601}, {1620, 0, 1801}}));
    // Bridges 12.5: margin 62.5 rounds half to even, 62; 250 > 62 + 187.5 gets a bridge.
    settings.Lgponts = "1";
    EXPECT_EQ(split({"0001000 060 0001250"}).pieces, (Pieces{{1000, 0, 1188}, {1200, 0, 1250}}));
    settings.Lgponts = "0";  // no bridges: notes stay whole
    EXPECT_EQ(split({"0001000 060 0003000"}).pieces, (Pieces{{1000, 0, 3000}}));
}

TEST_F(Split, PunchStrikes)
{
    settings.Type_machine = std::string("Punch");
    // Strikes of 50 ms, gaps of 25. Shorter than a strike, or exactly one: one piece.
    // 180: [3000,3050], [3075,3125], rest 30: the last strike ends at the end, [3130,3180].
    EXPECT_EQ(split({"0001000 060 0001030", "0002000 062 0002050", "0003000 064 0003180"}).pieces,
              (Pieces{{1000, 0, 1030}, {2000, 1, 2050}, {3000, 2, 3050}, {3075, 2, 3125}, {3130, 2, 3180}}));
    // Touching strikes, the last overlapping: [0,50], [50,100], rest 20: [70,120].
    settings.Lgponts = "0";
    EXPECT_EQ(split({"0000000 060 0000120"}).pieces, (Pieces{{0, 0, 50}, {50, 0, 100}, {70, 0, 120}}));
    // No strike length and no gap: nothing would advance. The split still ends (the note gets
    // its last strike only); a generation refuses such values before it splits.
    settings.L_poincon = "0";
    EXPECT_EQ(split({"0000000 060 0000120"}).pieces, (Pieces{{120, 0, 120}}));
}

// Note lines written by hand are read by the leading-number rule, which takes exponents: a
// time stays within what its seven characters hold without one.
TEST_F(Split, TimesWithAnExponentStayWithinTheirField)
{
    const auto pieces = split({"0001000 060 0001e12"}).pieces;
    ASSERT_FALSE(pieces.empty());
    EXPECT_EQ(pieces.size(), 36360u) << "(9999999 - 1000) / 275 steps of a piece and a bridge";
    EXPECT_EQ(pieces.back().endMs, 9999999);
    EXPECT_EQ(split({"001e300 060 0000000"}).pieces, (Pieces{{9999999, 0, 0}}));
}

TEST_F(Split, NotesOutOfTheScale)
{
    auto result = split({"0001000 061 0001100", "0002000 062 0002100", "0003000 065 0003100"});
    EXPECT_EQ(result.notes_hors_gamme, 2);
    EXPECT_EQ(result.pieces, (Pieces{{2000, 1, 2100}}));
    scale.nb_notes = 2;  // only the first nb_notes entries count
    EXPECT_EQ(split({"0001000 064 0001100"}).notes_hors_gamme, 1);
    scale.standard_AF_actif = true;  // the 20-note scale reads its own table
    scale.nb_notes = 20;
    scale.notes_AF[7] = 64;
    result = split({"0001000 064 0001100", "0002000 060 0002100"});
    EXPECT_EQ(result.pieces, (Pieces{{1000, 7, 1100}}));
    EXPECT_EQ(result.notes_hors_gamme, 1);
}

// Note lines as pairNotes writes them (digits) and with the same numbers written otherwise
// (read by the leading-number rule) give the same pieces, in plan order.
TEST_F(Split, EveryNumberTextGivesTheSamePiecesInPlanOrder)
{
    scale.nb_notes = 6;
    scale.notes_standard = {60, 64, 62, 64, 67, 0};
    std::mt19937 random(77);
    std::uniform_int_distribution<int> start(0, 200);
    std::uniform_int_distribution<int> length(1, 900);
    std::uniform_int_distribution<int> note(59, 68);
    Lines digits, blanks;
    char text[32];
    for (int i = 0; i < 2000; ++i) {
        const int s = start(random) * 40;
        const int e = s + length(random);
        const int n = i % 10 ? note(random) : 0;
        std::snprintf(text, sizeof text, "%07d %03d %07d", s, n, e);
        digits.emplace_back(text);
        std::snprintf(text, sizeof text, "%7d %3d %7d", s, n, e);  // leading blanks
        blanks.emplace_back(text);
    }
    for (const char* machine : {"Laser", "Punch"}) {
        settings.Type_machine = std::string(machine);
        const SplitResult fromDigits = split(digits);
        const SplitResult fromBlanks = split(blanks);
        EXPECT_EQ(fromDigits.pieces, fromBlanks.pieces) << machine;
        EXPECT_EQ(fromDigits.notes_hors_gamme, fromBlanks.notes_hors_gamme);
        EXPECT_EQ(fromDigits.piste_courante, fromBlanks.piste_courante);
        EXPECT_GT(fromDigits.notes_hors_gamme, 0);
        // Long notes gave several pieces.
        EXPECT_GT(fromDigits.pieces.size(),
                  digits.size() - static_cast<std::size_t>(fromDigits.notes_hors_gamme));
        EXPECT_TRUE(std::is_sorted(fromDigits.pieces.begin(), fromDigits.pieces.end(), planOrder));
    }
}

// The punch shifts no bass track: 10 + 9 x piste below track 4, then 10 + 27 + 6 x (piste - 3).
TEST(PositionPiste, PunchOnTheTwentyNoteScale)
{
    Settings settings;
    settings.Type_machine = std::string("Punch");  // a plain literal trips GCC 12's -Wrestrict
    settings.Talon = std::string("10");
    settings.Dist_notes = std::string("6");
    OrganScale scale;
    scale.standard_AF_actif = true;
    EXPECT_DOUBLE_EQ(Position_piste(planValues(settings, scale), 2), 28.0);
    EXPECT_DOUBLE_EQ(Position_piste(planValues(settings, scale), 4), 43.0);
}

// Pieces are sorted as records by planOrder, the plan's lines as text: for every reachable
// value (seven-digit times, tracks below 51) the two orders must agree.
TEST(PieceOrder, RecordOrderIsTheTextOrderOfPieceLines)
{
    std::mt19937 random(12345);
    std::uniform_int_distribution<int> time(0, 9999999);
    std::uniform_int_distribution<int> small(0, 30);
    Pieces pieces{{9999999, 50, 9999999}, {0, 0, 0}, {0, 0, 0}};
    for (int i = 0; i < 4000; ++i) {
        const int start = i % 2 ? time(random) : small(random) * 10;  // many equal starts
        pieces.push_back({start, i % 3 ? small(random) + 20 : 7, start + small(random)});
    }
    Lines lines, fromRecords;
    for (const Piece& p : pieces)
        lines.push_back(pieceLine(p));
    std::sort(lines.begin(), lines.end());
    std::sort(pieces.begin(), pieces.end(), planOrder);
    for (const Piece& p : pieces)
        fromRecords.push_back(pieceLine(p));
    EXPECT_EQ(fromRecords, lines);
    EXPECT_EQ(finalLine(Piece{75, 3, 1250}), "0000075 003 0001250 0");
}

}  // namespace
}  // namespace veltrin
