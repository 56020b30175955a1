// The roll cleanup before the split: worked cases, properties over random songs, whole
// generations and a real song.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <map>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "app/genere_gcode.h"
#include "plan/plan_steps.h"
#include "plan/roll_cleanup.h"
#include "plan_test_support.h"
#include "scales/scale_file.h"

namespace veltrin {

inline void PrintTo(const PlanNote& n, std::ostream* out)
{
    *out << "[" << n.startMs << "," << n.endMs << " t" << n.piste << "]";
}
inline bool operator==(const PlanNote& a, const PlanNote& b)
{
    return a.startMs == b.startMs && a.endMs == b.endMs && a.piste == b.piste;
}

namespace {

using Notes = std::vector<PlanNote>;
using Lines = std::vector<std::string>;

// Laser at 60 mm/s with the default settings: bridges and card 25 ms, pieces 250, margin 75,
// holes of at least 3 mm = 50 ms.
RollCleanupValues laser()
{
    RollCleanupValues v;
    v.laser = true;
    v.separation = 25, v.minHole = 50, v.piece = 250, v.bridge = 25, v.margin = 75;
    return v;
}
// Punch at 60 mm/s: strikes of 50 ms, card 25 ms.
RollCleanupValues punch()
{
    RollCleanupValues v;
    v.laser = false;
    v.separation = 25, v.minHole = 50, v.strike = 50;
    return v;
}

struct Case {
    const char* what;
    RollCleanupValues values;
    Notes in;
    Notes out;
    RollCleanupCounts counts;  // merged, separated, delayed, lengthened
};

TEST(RollCleanup, WorkedCases)
{
    RollCleanupValues slowLaser = laser();  // a minimum of 80 ms: the split could leave slivers
    slowLaser.minHole = 80;
    RollCleanupValues longStrike = punch();
    longStrike.minHole = 80;
    const std::vector<Case> cases{
        {"overlap: one run to the latest end", laser(), {{0, 300, 0}, {200, 600, 0}}, {{0, 600, 0}}, {1, 0, 0, 0}},
        {"duplicates and a note inside", laser(), {{0, 300, 0}, {100, 150, 0}, {0, 300, 0}}, {{0, 300, 0}}, {2, 0, 0, 0}},
        {"back to back: the first leaves the card", laser(), {{300, 600, 1}, {0, 300, 1}},
         {{300, 600, 1}, {0, 275, 1}}, {0, 1, 0, 0}},
        {"a card already wide enough stays", laser(), {{0, 300, 0}, {325, 600, 0}}, {{0, 300, 0}, {325, 600, 0}}, {}},
        {"the first too short to shorten: the next starts later", laser(), {{0, 60, 0}, {70, 200, 0}},
         {{0, 50, 0}, {75, 200, 0}}, {0, 1, 1, 0}},
        {"a note pushed past its end keeps the minimum", laser(), {{0, 60, 0}, {62, 70, 0}},
         {{0, 50, 0}, {75, 125, 0}}, {0, 1, 1, 1}},
        {"a tiny note lengthened, the next one started later", laser(), {{0, 2, 0}, {30, 100, 0}},
         {{0, 50, 0}, {75, 125, 0}}, {0, 1, 1, 1}},
        {"a tiny note alone", laser(), {{1000, 1002, 3}}, {{1000, 1050, 3}}, {0, 0, 0, 1}},
        {"other tracks and notes out of the scale are left alone", laser(),
         {{0, 300, 0}, {100, 400, 1}, {0, 300, -1}, {0, 300, -1}, {5, 6, -1}},
         {{0, 300, 0}, {100, 400, 1}, {0, 300, -1}, {0, 300, -1}, {5, 6, -1}}, {}},
        // 610 ms splits into 250, 250 and a last piece of 60: it grows to 80.
        {"no sliver after the last bridge", slowLaser, {{0, 610, 0}}, {{0, 630, 0}}, {0, 0, 0, 1}},
        // Cut back to 610 the note would end in a sliver of 60: it ends with its second piece.
        {"shortened without a sliver", slowLaser, {{0, 630, 0}, {635, 900, 0}}, {{0, 525, 0}, {635, 900, 0}},
         {0, 1, 0, 0}},
        // A strike covers 50 ms whatever the note: the next note keeps the card after it.
        {"punch: the strike is the hole", punch(), {{0, 30, 0}, {60, 200, 0}}, {{0, 30, 0}, {75, 200, 0}},
         {0, 1, 1, 0}},
        {"punch: a short note is a whole strike", punch(), {{0, 30, 0}}, {{0, 30, 0}}, {}},
        {"punch: back to back", punch(), {{0, 300, 0}, {300, 600, 0}}, {{0, 275, 0}, {300, 600, 0}}, {0, 1, 0, 0}},
        {"punch: a minimum above the strike", longStrike, {{0, 30, 0}, {200, 210, 0}}, {{0, 80, 0}, {200, 280, 0}},
         {0, 0, 0, 2}},
    };
    for (const Case& c : cases) {
        Notes notes = c.in;
        const RollCleanupCounts counts = cleanRoll(notes, c.values);
        EXPECT_EQ(notes, c.out) << c.what;
        EXPECT_EQ(counts, c.counts) << c.what << ": " << rollCleanupReport(counts);
    }
}

TEST(RollCleanup, ReportLine)
{
    EXPECT_EQ(rollCleanupReport({3, 12, 2, 5}),
              "   - Roll cleanup : 3 overlapping notes merged, 12 repeats separated (2 started later), "
              "5 short holes lengthened");
    EXPECT_EQ(rollCleanupReport({1, 1, 0, 1}),
              "   - Roll cleanup : 1 overlapping note merged, 1 repeat separated, 1 short hole lengthened");
    EXPECT_EQ(rollCleanupReport({0, 0, 0, 4}), "   - Roll cleanup : 4 short holes lengthened");
    EXPECT_EQ(rollCleanupReport({}), "");
}

// The values a generation uses: the card is the bridge, or 1.5 mm without bridges; the
// minimum never exceeds the split's own pieces.
TEST(RollCleanup, ValuesFromTheSettings)
{
    Settings settings;
    OrganScale scale;
    RollCleanupValues v = rollCleanupValues(planValues(settings, scale), true);
    EXPECT_EQ(std::make_tuple(v.separation, v.minHole, v.piece, v.bridge, v.margin),
              std::make_tuple(25.0, 50.0, 250.0, 25.0, 75.0));
    settings.Lgponts = "0";
    v = rollCleanupValues(planValues(settings, scale), false);
    EXPECT_EQ(std::make_tuple(v.separation, v.minHole, v.piece), std::make_tuple(25.0, 50.0, 0.0));
    settings.Lgponts = "1.5", settings.Dist_ponts = "2", settings.MinHoleLength = "6";
    EXPECT_DOUBLE_EQ(rollCleanupValues(planValues(settings, scale), true).minHole, 2000.0 / 60);
    settings.Type_machine = "Punch", settings.Vitcarton = "30";
    v = rollCleanupValues(planValues(settings, scale), true);
    EXPECT_EQ(std::make_tuple(v.laser, v.separation, v.minHole, v.strike, v.piece),
              std::make_tuple(false, 50.0, 200.0, 100.0, 0.0));
}

// Random songs on four tracks, dense with chords of one pitch, repeats and tiny notes.
Lines randomNoteLines(std::mt19937& random, int count)
{
    std::uniform_int_distribution<int> slot(0, 400);
    std::uniform_int_distribution<int> pick(0, 9);
    std::uniform_int_distribution<int> longLength(1, 1500);
    std::uniform_int_distribution<int> note(59, 65);
    Lines lines;
    char text[32];
    int previousEnd = 0;
    for (int i = 0; i < count; ++i) {
        const int kind = pick(random);
        int start = slot(random) * 20;
        if (kind == 0 && i > 0)
            start = previousEnd;  // a repeat right after a note (of any pitch)
        const int length = kind == 1 ? pick(random) + 1 : kind == 2 ? 20 + pick(random) * 5 : longLength(random);
        std::snprintf(text, sizeof text, "%07d %03d %07d", start, note(random), start + length);
        lines.emplace_back(text);
        previousEnd = start + length;
        if (kind == 3)
            lines.push_back(lines.back());  // the same note twice
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

struct Config {
    const char* what;
    const char* machine;
    const char* Vitcarton;
    const char* Lgponts;
    const char* MinHoleLength;
};

// Over a few hundred random songs and several machines: no hole on a track overlaps or
// touches another, none is under the minimum, no run of cut card is longer than the
// split's longest piece, and every note still sounds, in order.
TEST(RollCleanup, PropertiesOverRandomSongs)
{
    const std::vector<Config> configs{
        {"laser", "Laser", "60", "1.5", "3"},       {"slow laser", "Laser", "25", "1.5", "3"},
        {"laser, no bridges", "Laser", "60", "0", "3"}, {"laser, long minimum", "Laser", "80", "2", "6"},
        {"punch", "Punch", "60", "1.5", "3"},       {"punch, touching strikes", "Punch", "60", "0", "5"},
    };
    OrganScale scale;
    scale.nb_notes = 4;
    scale.notes_standard = {60, 62, 64, 62};  // 59, 61, 63, 65 are out of the scale
    std::mt19937 random(4242);
    int runs = 0;
    for (int song = 0; song < 300; ++song) {
        const Lines lines = randomNoteLines(random, 10 + song % 60);
        const Config& config = configs[static_cast<std::size_t>(song) % configs.size()];
        Settings settings;
        settings.Type_machine = config.machine, settings.Vitcarton = config.Vitcarton;
        settings.Lgponts = config.Lgponts, settings.MinHoleLength = config.MinHoleLength;
        const PlanValues values = planValues(settings, scale);
        const bool fractionner = !(values.laser && settings.Lgponts == "0");
        const RollCleanupValues cleanup = rollCleanupValues(values, fractionner);
        const std::string where = std::string(config.what) + ", song " + std::to_string(song);

        // The notes: cleaned, compared with the notes as placed.
        const Notes placed = placeNotes(lines, scale);
        Notes cleaned = placed;
        const RollCleanupCounts counts = cleanRoll(cleaned, cleanup);
        const auto holeEnd = [&](const PlanNote& n) {
            return values.laser ? n.endMs : std::max(n.endMs, n.startMs + values.temps_poincon);
        };
        std::map<int, Notes> before, after;
        for (const PlanNote& n : placed)
            before[n.piste].push_back(n);
        for (const PlanNote& n : cleaned)
            after[n.piste].push_back(n);
        ASSERT_EQ(placed.size(), cleaned.size() + static_cast<std::size_t>(counts.merged + counts.joined)) << where;
        ASSERT_EQ(before[-1], after[-1]) << where << ": notes out of the scale untouched";
        for (auto& [piste, holes] : after) {
            if (piste < 0)
                continue;
            std::sort(holes.begin(), holes.end(),
                      [](const PlanNote& a, const PlanNote& b) { return a.startMs < b.startMs; });
            for (std::size_t k = 0; k < holes.size(); ++k) {
                ASSERT_GE(holeEnd(holes[k]) - holes[k].startMs, cleanup.minHole) << where << " track " << piste;
                if (k > 0) {
                    ASSERT_GE(holes[k].startMs - holeEnd(holes[k - 1]), cleanup.separation)
                        << where << " track " << piste << " hole " << k;
                }
            }
            // Every note of the track sounds in time: a hole of its track is open at most
            // maxDelay after the note starts. Every hole starts with a note, at most that late.
            const double bound = maxDelay(cleanup);
            for (const PlanNote& n : before[piste]) {
                const bool inTime = std::any_of(holes.begin(), holes.end(), [&](const PlanNote& h) {
                    return h.startMs <= n.startMs + bound && holeEnd(h) > n.startMs;
                });
                ASSERT_TRUE(inTime) << where << " track " << piste << " note at " << n.startMs;
            }
            for (const PlanNote& h : holes) {
                const bool fromANote = std::any_of(before[piste].begin(), before[piste].end(), [&](const PlanNote& n) {
                    return h.startMs >= n.startMs && h.startMs <= n.startMs + bound;
                });
                ASSERT_TRUE(fromANote) << where << " track " << piste << " hole at " << h.startMs;
            }
        }

        // The pieces of the laser with bridges: their runs on a track.
        const SplitResult split = planSplit(lines, fractionner, values, scale);
        EXPECT_EQ(split.cleanup, counts) << where;
        EXPECT_EQ(split.notes_hors_gamme, static_cast<int>(before[-1].size())) << where;
        if (!values.laser || !fractionner)
            continue;
        ++runs;
        const double longest = values.temps_morceau + std::round(values.temps_pont + 50.0);
        std::map<int, std::vector<Piece>> pieces;
        for (const Piece& p : split.pieces)
            pieces[p.track].push_back(p);
        for (const auto& [piste, list] : pieces) {
            for (std::size_t k = 0; k < list.size(); ++k) {
                ASSERT_LE(list[k].endMs - list[k].startMs, longest + 1) << where;
                ASSERT_GE(list[k].endMs - list[k].startMs, cleanup.minHole - 1) << where;
                if (k > 0) {
                    ASSERT_GE(list[k].startMs - list[k - 1].endMs, values.temps_pont - 1) << where;
                }
            }
        }
    }
    EXPECT_GT(runs, 100);
}

// Fast repeats on one pitch, then a note of that pitch and one of another pitch at 5000 ms:
// however long and fast the trill, no note starts later than maxDelay, and a trill the card
// cannot hold is joined rather than pushed on.
TEST(RollCleanup, FastRepeatsKeepTheSongInTime)
{
    struct Trill {
        const char* what;
        RollCleanupValues values;
        int count;
        double length;  // each note, back to back from 1000 ms
        bool joins;
    };
    const std::vector<Trill> trills{
        {"laser, 32 notes of 60 ms", laser(), 32, 60, true},
        {"laser, 32 notes of 80 ms", laser(), 32, 80, false},
        {"laser, 100 notes of 30 ms", laser(), 100, 30, true},
        {"laser, 3900 notes of 1 ms", laser(), 3900, 1, true},
        {"punch, 32 notes of 60 ms", punch(), 32, 60, true},
        {"punch, 100 notes of 30 ms", punch(), 100, 30, true},
        {"punch, 40 notes of 100 ms", punch(), 40, 100, false},
    };
    for (const Trill& t : trills) {
        Notes notes;
        for (int i = 0; i < t.count; ++i)
            notes.push_back({1000 + i * t.length, 1000 + (i + 1) * t.length, 0});
        notes.push_back({5000, 5500, 0});
        notes.push_back({5000, 5500, 1});
        const Notes placed = notes;
        const RollCleanupCounts counts = cleanRoll(notes, t.values);
        const double bound = maxDelay(t.values);
        EXPECT_EQ(notes.size() + static_cast<std::size_t>(counts.joined), placed.size()) << t.what;
        EXPECT_EQ(counts.joined > 0, t.joins) << t.what << ": " << rollCleanupReport(counts);
        // Each placed note sounds within the bound: the hole open then started at most
        // `bound` after it.
        for (const PlanNote& n : placed) {
            const bool inTime = std::any_of(notes.begin(), notes.end(), [&](const PlanNote& h) {
                const double end = t.values.laser ? h.endMs : std::max(h.endMs, h.startMs + t.values.strike);
                return h.piste == n.piste && h.startMs <= n.startMs + bound && end > n.startMs;
            });
            ASSERT_TRUE(inTime) << t.what << ": note at " << n.startMs;
        }
        EXPECT_EQ(notes.back(), (PlanNote{5000, 5500, 1})) << t.what;
        const auto last = std::find_if(notes.begin(), notes.end(), [](const PlanNote& h) {
            return h.piste == 0 && h.startMs >= 4900;
        });
        ASSERT_NE(last, notes.end()) << t.what;
        EXPECT_LE(last->startMs, 5000 + bound) << t.what;
    }
    // The report names the joins.
    RollCleanupCounts joined;
    joined.joined = 3;
    EXPECT_EQ(rollCleanupReport(joined), "   - Roll cleanup : 3 fast repeats joined to the hole before");
}

// The punch at roll speeds where a strike is not a whole number of ms: the strikes of two
// notes of a track keep Lgponts of card between them once their times are rounded.
TEST(RollCleanup, PunchCardHoldsAfterRounding)
{
    for (const char* speed : {"80", "70", "60", "45", "33"}) {
        Settings settings;
        settings.Type_machine = "Punch", settings.Vitcarton = speed;
        OrganScale scale;
        scale.nb_notes = 1;
        scale.notes_standard = {60};
        const PlanValues values = planValues(settings, scale);
        Notes notes;
        for (int i = 0; i < 40; ++i)
            notes.push_back({1000.0 + i * 137, 1000.0 + (i + 1) * 137, 0});
        cleanRoll(notes, rollCleanupValues(values, true));
        const SplitResult split = splitNotes(notes, true, values);
        // Each note's strikes, as lengths of roll: from the first strike's start to the
        // last one's end.
        for (std::size_t k = 1; k < notes.size(); ++k) {
            double endOfPrevious = 0.0;
            double startOfNext = 1e18;
            for (const Piece& p : split.pieces) {
                if (p.startMs >= notes[k - 1].startMs && p.startMs < notes[k].startMs)
                    endOfPrevious = std::max(endOfPrevious, p.startMs + values.temps_poincon);
                if (p.startMs >= notes[k].startMs)
                    startOfNext = std::min<double>(startOfNext, p.startMs);
            }
            const double cardMm = (startOfNext - endOfPrevious) * values.Vitcarton / 1000.0;
            ASSERT_GE(cardMm, 1.5 - 1e-9) << speed << " mm/s, note " << k;
        }
    }
}

// Without the cleanup the plan is the split of the notes as they came.
TEST(RollCleanup, OffGivesTheSplitAsItWas)
{
    OrganScale scale;
    scale.nb_notes = 4;
    scale.notes_standard = {60, 62, 64, 62};
    std::mt19937 random(99);
    for (const char* machine : {"Laser", "Punch"}) {
        Settings settings;
        settings.Type_machine = machine;
        settings.RollCleanup = "0";
        const PlanValues values = planValues(settings, scale);
        const Lines lines = randomNoteLines(random, 500);
        const SplitResult off = planSplit(lines, true, values, scale);
        const SplitResult asItWas = Decoupe_notes(lines, true, values, scale);
        EXPECT_EQ(off.pieces, asItWas.pieces) << machine;
        EXPECT_EQ(off.cleanup, RollCleanupCounts{}) << machine;
        settings.RollCleanup = "1";
        EXPECT_NE(planSplit(lines, true, planValues(settings, scale), scale).pieces, asItWas.pieces) << machine;
    }
}

class CleanGeneration : public ::testing::Test {
protected:
    CleanGeneration()
    {
        state.dossier_documents = documents.str();
        state.chemin_morceau = "/songs/song.mid";
        state.scale.nb_notes = 3;
        state.scale.notes_standard = {60, 62, 64};
    }
    testing::TempDir documents;
    AppState state;
};

// Two voices play note 60 together, then it is repeated back to back; a 2 ms note on 64.
// Laser: [1000,1200] and its twin are one hole, [1200,1400] leaves 25 ms of card after the
// first; [2000,2002] becomes [2000,2050].
TEST_F(CleanGeneration, ReportAndPlan)
{
    state.Liste_tran = testing::songEvents({{1000, 1200, 60}, {1000, 1200, 60}, {1200, 1400, 60}, {2000, 2002, 64}});
    ASSERT_TRUE(Genere_GCode(state, false, false).ok());
    EXPECT_EQ(state.List_GC_Ycroissant, (std::vector<Piece>{{1000, 0, 1175}, {1200, 0, 1400}, {2000, 2, 2050}}));
    const std::string report = state.user_msg_list.text();
    EXPECT_NE(report.find(" m\r\n   - Roll cleanup : 1 overlapping note merged, 1 repeat separated, "
                          "1 short hole lengthened\r\nRoll length : "),
              std::string::npos)
        << report;

    // A partial program keeps the plan, and its report says what the cleanup did to it.
    state.user_msg_list.clear();
    state.debut_marque = 1500.0;
    ASSERT_TRUE(Genere_GCode(state, true, true).ok());
    EXPECT_NE(state.user_msg_list.text().find("Roll cleanup"), std::string::npos);

    // Off: the plan of the notes as they came, and no line in the report.
    state.debut_marque.reset();
    state.settings.RollCleanup = "0";
    state.user_msg_list.clear();
    ASSERT_TRUE(Genere_GCode(state, false, false).ok());
    EXPECT_EQ(state.List_GC_Ycroissant,
              (std::vector<Piece>{{1000, 0, 1200}, {1000, 0, 1200}, {1200, 0, 1400}, {2000, 2, 2002}}));
    EXPECT_EQ(state.user_msg_list.text().find("Roll cleanup"), std::string::npos);
}

// The width search scores the plan that the program then writes.
TEST_F(CleanGeneration, WidthSearchKeepsTheCleanedPlan)
{
    std::mt19937 random(7);
    std::vector<testing::SongNote> song;
    std::uniform_int_distribution<int> start(0, 300);
    std::uniform_int_distribution<int> length(1, 900);
    std::uniform_int_distribution<int> note(60, 64);
    for (int i = 0; i < 400; ++i) {
        const long s = start(random) * 20L;
        song.push_back({s, s + length(random), note(random)});
    }
    state.Liste_tran = testing::songEvents(song);
    ASSERT_TRUE(searchBestWidth(state).ok());
    const std::vector<Piece> searched = state.List_GC_Ycroissant;
    const RollCleanupCounts counts = state.rollCleanup;
    EXPECT_GT(counts.merged + counts.separated, 0);
    ASSERT_TRUE(Genere_GCode(state, false, false).ok());
    EXPECT_EQ(state.List_GC_Ycroissant, searched);
    EXPECT_EQ(state.rollCleanup, counts);
}

// Real songs decoded (tests/data/midi/*.events) on the built-in 27-29-note scale with the
// default settings: no hole is cut twice and the longest slot of a track is one piece and
// its margin (19.5 mm). Without the cleanup both faults are there.
TEST(RollCleanupRealSongs, SlotsBoundedAndNoHoleCutTwice)
{
    for (const char* name : {"greensleeves", "frere-jacques"}) {
        testing::TempDir documents;
        AppState state;
        state.dossier_documents = documents.str();
        state.chemin_morceau = std::string("/songs/") + name + ".mid";
        Def_standard(state.dossier_documents, state.settings, state.scale, state.user_msg_list);
        std::ifstream events(std::string(TEST_DATA_DIR) + "/midi/" + name + ".events");
        for (std::string line; std::getline(events, line);)
            state.Liste_tran.push_back(line);
        ASSERT_GT(state.Liste_tran.size(), 100u) << name;

        const auto measure = [&state](double& longestMm, int& twice) {
            std::map<int, std::vector<Piece>> byTrack;
            std::set<std::tuple<int, int, int>> seen;
            twice = 0;
            for (const Piece& p : state.List_GC_Finale) {
                byTrack[p.track].push_back(p);
                twice += seen.insert({p.startMs, p.track, p.endMs}).second ? 0 : 1;
            }
            longestMm = 0.0;
            for (auto& [track, pieces] : byTrack) {
                std::sort(pieces.begin(), pieces.end(), planOrder);
                int runStart = pieces.front().startMs, runEnd = pieces.front().endMs;
                for (const Piece& p : pieces) {
                    if (p.startMs > runEnd) {
                        runStart = p.startMs;
                    }
                    runEnd = std::max(runEnd, p.endMs);
                    longestMm = std::max(longestMm, (runEnd - runStart) * 0.06);
                }
            }
        };
        double longestMm = 0.0;
        int twice = 0;
        ASSERT_TRUE(Genere_GCode(state, false, false).ok()) << name;
        measure(longestMm, twice);
        EXPECT_LE(longestMm, 19.5) << name;
        EXPECT_EQ(twice, 0) << name;
        EXPECT_NE(state.user_msg_list.text().find("overlapping notes merged"), std::string::npos) << name;

        state.settings.RollCleanup = "0";
        ASSERT_TRUE(Genere_GCode(state, false, false).ok()) << name;
        measure(longestMm, twice);
        EXPECT_GT(longestMm, 100.0) << name;
        EXPECT_GT(twice, 10) << name;
    }
}

}  // namespace
}  // namespace veltrin
