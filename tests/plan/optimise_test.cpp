// The travel order: bands, their direction, the order inside a track, and the width search.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <tuple>

#include "app/genere_gcode.h"
#include "plan/plan_steps.h"
#include "plan_test_support.h"
#include "support/plain_models.h"

namespace veltrin {
namespace {

using Pieces = std::vector<Piece>;

// Laser, Vitcarton 60 (0.06 mm per ms), track pitch 4.2 mm.
const PlanValues kValues = planValues(Settings{}, OrganScale{});

TEST(OptimiseTrajets, BandsAndTheirDirection)
{
    // The first band starts at 0: 100 = 0 + 100 stays in it; its tracks go upwards, the low
    // end being nearer to track 0. 101 opens a new band.
    EXPECT_EQ(Optimise_trajets({{0, 5, 10}, {100, 1, 110}}, 100, kValues), (Pieces{{100, 1, 110}, {0, 5, 10}}));
    EXPECT_EQ(Optimise_trajets({{0, 5, 10}, {101, 1, 111}}, 100, kValues), (Pieces{{0, 5, 10}, {101, 1, 111}}));
    const Pieces pieces{
        {0, 4, 20}, {10, 1, 30}, {50, 6, 60},  // band 0..100: upwards, ends on track 6
        {200, 2, 210}, {220, 5, 230},          // band 200..300: 5 nearer to 6, downwards, ends on 2
        {400, 9, 410}, {420, 1, 430},          // |1 - 2| < |9 - 2|: upwards
    };
    EXPECT_EQ(Optimise_trajets(pieces, 100, kValues),
              (Pieces{{10, 1, 30}, {0, 4, 20}, {50, 6, 60}, {220, 5, 230}, {200, 2, 210}, {420, 1, 430},
                      {400, 9, 410}}));
    // Ends at equal distance from the last track go upwards: after 5, tracks 3 and 7.
    EXPECT_EQ(Optimise_trajets({{0, 5, 10}, {200, 7, 210}, {210, 3, 220}}, 100, kValues),
              (Pieces{{0, 5, 10}, {210, 3, 220}, {200, 7, 210}}));
}

TEST(OrdonneBande, TrackGroupsTakenFromTheNearerEnd)
{
    const Pieces band{{0, 0, 5}, {100, 0, 105}, {10, 3, 15}, {95, 3, 98}};
    // Upwards: track 0 from the cleared previous point (track 0, time 0): ascending, ending
    // at (0, 100). Track 3: its first piece at 12.6^2 + 5.4^2, its last at 12.6^2 + 0.3^2:
    // descending.
    EXPECT_EQ(Ordonne_bande(band, false, kValues), (Pieces{{0, 0, 5}, {100, 0, 105}, {95, 3, 98}, {10, 3, 15}}));
    // Downwards: track 3 ascending from time 0, ending at 95; track 0 then descending.
    EXPECT_EQ(Ordonne_bande(band, true, kValues), (Pieces{{10, 3, 15}, {95, 3, 98}, {100, 0, 105}, {0, 0, 5}}));
    // Equal distances keep ascending order; equal starts keep the order of the ends.
    EXPECT_EQ(Ordonne_bande({{50, 1, 60}, {0, 2, 10}, {100, 2, 110}}, false, kValues),
              (Pieces{{50, 1, 60}, {0, 2, 10}, {100, 2, 110}}));
    EXPECT_EQ(Ordonne_bande({{40, 2, 45}, {40, 2, 60}}, true, kValues), (Pieces{{40, 2, 45}, {40, 2, 60}}));
}

using models::bandByBand;

TEST(OptimiseTrajets, SameAsBandByBand)
{
    std::mt19937 random(11);
    for (const int tracks : {3, 29, 64, 80}) {
        // Few distinct times: many pieces share a start, or a start and an end, or all three.
        std::uniform_int_distribution<int> start(0, 400);
        std::uniform_int_distribution<int> length(0, 30);
        std::uniform_int_distribution<int> track(0, tracks - 1);
        Pieces pieces;
        for (int i = 0; i < 4000; ++i) {
            const int from = start(random) * 10;
            pieces.push_back({from, track(random), from + length(random) * 10});
        }
        std::sort(pieces.begin(), pieces.end(), planOrder);
        for (const int width : {-5, 0, 10, 55, 300, 5000}) {
            EXPECT_EQ(Optimise_trajets(pieces, width, kValues), bandByBand(pieces, width, kValues))
                << tracks << " tracks, width " << width;
        }
        // Out of plan order (the bands then follow the given order).
        std::shuffle(pieces.begin(), pieces.end(), random);
        EXPECT_EQ(Optimise_trajets(pieces, 300, kValues), bandByBand(pieces, 300, kValues));
    }
}

// The width search measures each width without writing a program: its distance must be the
// one the program of that width adds up, to the last bit, for both machines, both kinds of
// scale and with or without marks.
TEST(TravelDistance, SameAsTheWrittenProgram)
{
    std::mt19937 random(7);
    std::uniform_int_distribution<int> start(0, 60000);
    std::uniform_int_distribution<int> length(1, 3000);
    for (const bool laser : {true, false}) {
        for (const bool wideBass : {false, true}) {
            Settings settings;
            settings.Type_machine = laser ? "Laser" : "Punch";
            OrganScale scale;
            scale.standard_AF_actif = wideBass;
            const PlanValues values = planValues(settings, scale);
            std::uniform_int_distribution<int> track(0, wideBass ? 19 : 28);
            Pieces pieces;
            for (int i = 0; i < 3000; ++i) {
                const int from = start(random);
                pieces.push_back({from, track(random), from + length(random)});
            }
            std::sort(pieces.begin(), pieces.end(), planOrder);
            // Pieces out of plan order take the walk that sorts each band.
            Pieces shuffled = pieces;
            std::shuffle(shuffled.begin(), shuffled.end(), random);
            for (const MarkRange marks : {MarkRange{}, MarkRange{12000.7, 41000.2}, MarkRange{5000.0, 500000.0}}) {
                const std::vector<double> unsorted = travelDistances(shuffled, {0, 250}, values, marks);
                for (std::size_t w = 0; w < unsorted.size(); ++w) {
                    const Pieces finale = Optimise_trajets(shuffled, w == 0 ? 0 : 250, values);
                    WriterInput input;
                    input.finale = &finale;
                    input.values = values;
                    input.marks = marks;
                    EXPECT_EQ(unsorted[w], writeProgram(input, true).totals.distance_totale);
                }
                const std::vector<int> widths{0, 17, 250, 5000};
                const std::vector<double> measured = travelDistances(pieces, widths, values, marks);
                ASSERT_EQ(measured.size(), widths.size());
                for (std::size_t w = 0; w < widths.size(); ++w) {
                    const int width = widths[w];
                    const Pieces finale = Optimise_trajets(pieces, width, values);
                    WriterInput input;
                    input.finale = &finale;
                    input.values = values;
                    input.marks = marks;
                    const double written = writeProgram(input, false).totals.distance_totale;
                    EXPECT_GT(written, 0.0);
                    EXPECT_EQ(measured[w], written)
                        << laser << wideBass << marks.startMs << " " << width;
                    EXPECT_EQ(writeProgram(input, true).totals.distance_totale, written);
                }
            }
        }
    }
}

// Songs for the 51-track scale below: voices of notes following each other on notes 30
// to 80.
std::vector<std::string> voicesSong(int noteCount, unsigned seed)
{
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> note(30, 80);
    std::uniform_int_distribution<long> length(40, 1500);
    std::uniform_int_distribution<long> gap(0, 300);
    std::vector<testing::SongNote> notes;
    constexpr int kVoices = 6;
    for (int voice = 0; voice < kVoices; ++voice) {
        long time = voice * 23;
        for (int i = voice; i < noteCount; i += kVoices) {
            const long start = time + gap(random);
            time = start + length(random);
            notes.push_back({start, time, note(random)});
        }
    }
    return testing::songEvents(notes);
}

void useWideScale(AppState& state)
{
    state.scale.nb_notes = 51;
    for (std::size_t i = 0; i < 51; ++i)
        state.scale.notes_standard[i] = static_cast<std::int16_t>(30 + i);
}

// The width search's measure of each width is the distance_totale that a generation at that
// width adds up, to the last bit: for a small song, measured by the calling thread, and for
// one big enough to share the widths among threads.
TEST(TravelDistance, EveryWidthAsItsGeneration)
{
    for (const int noteCount : {30, 3000}) {
        for (const char* machine : {"Laser", "Punch"}) {
            for (const bool betweenMarks : {false, true}) {
                AppState state;
                useWideScale(state);
                state.settings.Type_machine = machine;
                state.Liste_tran = voicesSong(noteCount, static_cast<unsigned>(noteCount));
                if (betweenMarks) {
                    state.debut_marque = noteCount * 20.5;
                    state.fin_marque = noteCount * 90.0;
                }
                state.recherche_largeur = true;  // no program file, only the totals
                ASSERT_TRUE(Genere_GCode(state, false, false).ok());
                const std::vector<Piece> pieces = state.List_GC_Ycroissant;
                const PlanValues values = planValues(state.settings, state.scale);
                std::vector<int> widths;
                for (int mm = 1; mm <= 30; ++mm)
                    widths.push_back(bandTime(mm, values.Vitcarton));
                if (noteCount > 30)
                    ASSERT_GE(pieces.size() * widths.size(), 2 * kTravelMovesPerThread);
                else
                    ASSERT_LT(pieces.size() * widths.size(), 2 * kTravelMovesPerThread);
                MarkRange marks;
                marks.startMs = state.debut_marque.value_or(0.0);
                marks.endMs = state.fin_marque;
                const std::vector<double> measured = travelDistances(pieces, widths, values, marks);
                ASSERT_EQ(measured.size(), widths.size());
                for (int mm = 1; mm <= 30; ++mm) {
                    state.settings.Fourchette = std::to_string(mm);
                    ASSERT_TRUE(Genere_GCode(state, true, false).ok());
                    EXPECT_GT(state.distance_totale, 0.0);
                    EXPECT_EQ(measured[static_cast<std::size_t>(mm - 1)], state.distance_totale)
                        << noteCount << " notes, " << machine << ", marks " << betweenMarks << ", " << mm << " mm";
                }
            }
        }
    }
}

// Tracks 0 and 20 alternate every 10 ms. A band of 30 ms or more holds all four pieces and
// visits each track once; 1 mm (17 ms) makes two bands that cross the roll twice. So 2 mm
// (33 ms) is the smallest of the best widths, better than the current 7.5.
TEST(SearchBestWidth, SmallestWidthOfTheShortestTravel)
{
    testing::TempDir documents;
    AppState state;
    state.dossier_documents = documents.str();
    state.chemin_morceau = "/songs/alternate.mid";
    useWideScale(state);
    state.Liste_tran = testing::songEvents({{0, 5, 30}, {10, 15, 50}, {20, 25, 30}, {30, 35, 50}});
    state.settings.Fourchette = "7.5";
    state.settings.RollCleanup = "0";  // the 5 ms notes as they are
    auto chosen = searchBestWidth(state);
    ASSERT_TRUE(chosen.ok());
    EXPECT_EQ(chosen.value(), 2.0);
    EXPECT_EQ(state.settings.Fourchette, "2");
    EXPECT_EQ(state.user_msg_list.text(), "Seeking for best optimizing width \r\n");
    EXPECT_TRUE(state.List_GC_Finale.empty());
    EXPECT_FALSE(std::filesystem::exists(documents.str() + "/Veltrin"));

    // x0 = 4.8, x20 = 88.8. 2 mm: (x0, 0) (x0, 1.2) (x20, 0.6) (x20, 1.8).
    ASSERT_TRUE(Genere_GCode(state, false, false).ok());
    EXPECT_NEAR(state.distance_totale, 4.8 + 1.2 + std::hypot(84, 0.6) + 1.2, 1e-9);
    // 1 mm: (x0, 0) (x20, 0.6), then downwards (x20, 1.8) (x0, 1.2).
    state.settings.Fourchette = "1";
    ASSERT_TRUE(Genere_GCode(state, false, false).ok());
    EXPECT_NEAR(state.distance_totale, 4.8 + std::hypot(84, 0.6) + 1.2 + std::hypot(84, 0.6), 1e-9);

    // One note: every width gives the same travel, and the smallest wins.
    state.Liste_tran = testing::songEvents({{1000, 1100, 30}});
    EXPECT_EQ(searchBestWidth(state).value(), 1.0);
    state.settings.Vitcarton = "0";
    EXPECT_EQ(searchBestWidth(state).error(), PlanError::ZeroRollSpeed);
}

}  // namespace
}  // namespace veltrin
