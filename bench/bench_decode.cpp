// Decoding speed of the MIDI decoder on a large generated song: format 1, 16 tracks (a
// tempo track with 500 tempo changes and 15 tracks of notes), 50,000 notes in all; and the
// front half of the plan on its event lines: the pairing of note starts and ends and the
// split into pieces.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "midi/mdlvert.h"
#include "plan/plan_steps.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

void putVarLen(Bytes& out, std::uint32_t value)
{
    std::uint8_t buffer[4];
    int count = 0;
    do {
        buffer[count++] = static_cast<std::uint8_t>(value & 0x7F);
        value >>= 7;
    } while (value != 0 && count < 4);
    while (count > 1)
        out.push_back(static_cast<std::uint8_t>(buffer[--count] | 0x80));
    out.push_back(buffer[0]);
}

void putTrack(Bytes& file, const Bytes& events)
{
    file.insert(file.end(), {'M', 'T', 'r', 'k'});
    const auto size = static_cast<std::uint32_t>(events.size() + 4);
    for (int shift = 24; shift >= 0; shift -= 8)
        file.push_back(static_cast<std::uint8_t>(size >> shift));
    file.insert(file.end(), events.begin(), events.end());
    file.insert(file.end(), {0x00, 0xFF, 0x2F, 0x00});
}

Bytes makeSong()
{
    constexpr int kNoteTracks = 15;
    constexpr int kNotes = 50000;
    constexpr int kTempoChanges = 500;
    constexpr int kDivision = 480;
    std::mt19937 random(7);
    Bytes file{'M', 'T', 'h', 'd', 0, 0, 0, 6, 0, 1, 0, kNoteTracks + 1,
               kDivision >> 8, kDivision & 0xFF};

    // Each note track: notes of 1 to 4 eighths, a new one every eighth, so 2 to 4 sound at
    // once and many span a tempo change.
    const int notesPerTrack = kNotes / kNoteTracks + 1;
    const std::uint32_t songTicks = static_cast<std::uint32_t>(notesPerTrack) * 240;
    Bytes tempo;
    for (int i = 0; i < kTempoChanges; ++i) {
        putVarLen(tempo, i == 0 ? 0 : songTicks / kTempoChanges);
        const std::uint32_t usPerQuarter = 400000 + random() % 400000;
        tempo.insert(tempo.end(), {0xFF, 0x51, 0x03, static_cast<std::uint8_t>(usPerQuarter >> 16),
                                   static_cast<std::uint8_t>(usPerQuarter >> 8),
                                   static_cast<std::uint8_t>(usPerQuarter)});
    }
    putTrack(file, tempo);

    int notesLeft = kNotes;
    for (int t = 0; t < kNoteTracks; ++t) {
        struct Event {
            std::uint32_t tick;
            std::uint8_t note;
            std::uint8_t velocity;
        };
        std::vector<Event> events;
        const int count = std::min(notesLeft, notesPerTrack);
        notesLeft -= count;
        for (int n = 0; n < count; ++n) {
            const std::uint32_t start = static_cast<std::uint32_t>(n) * 240;
            const auto note = static_cast<std::uint8_t>(36 + (n * 7 + t) % 60);
            events.push_back({start, note, static_cast<std::uint8_t>(40 + random() % 80)});
            const auto length = static_cast<std::uint32_t>(240 * (1 + random() % 4) - 1);
            events.push_back({start + length, note, 0});
        }
        std::stable_sort(events.begin(), events.end(),
                         [](const Event& a, const Event& b) { return a.tick < b.tick; });
        Bytes track{0x00, static_cast<std::uint8_t>(0xC0 | t), 0};
        std::uint32_t tick = 0;
        bool first = true;
        for (const Event& e : events) {
            putVarLen(track, e.tick - tick);
            tick = e.tick;
            if (first)  // then running status: note-ons all the way, velocity 0 ends a note
                track.push_back(static_cast<std::uint8_t>(0x90 | t));
            first = false;
            track.push_back(e.note);
            track.push_back(e.velocity);
        }
        putTrack(file, track);
    }
    return file;
}

void BM_Vertalen(benchmark::State& state)
{
    const Bytes song = makeSong();
    std::size_t lines = 0;
    for (auto _ : state) {
        veltrin::DecodeResult result = veltrin::Vertalen(song, "bench.mid");
        lines = result.lines.size();
        benchmark::DoNotOptimize(result);
    }
    state.counters["lines"] = static_cast<double>(lines);
    state.counters["bytes"] = static_cast<double>(song.size());
}
BENCHMARK(BM_Vertalen)->Unit(benchmark::kMillisecond);

// pairNotes and Decoupe_notes on the decoded song, with bridges, on a 51-track scale that
// holds every note of the song.
void BM_PairAndSplit(benchmark::State& state, const char* machine)
{
    const std::vector<std::string> events = veltrin::Vertalen(makeSong(), "bench.mid").lines;
    veltrin::Settings settings;
    settings.Type_machine = std::string(machine);
    veltrin::OrganScale scale;
    scale.nb_notes = veltrin::kMaxTracks;
    for (int track = 0; track < veltrin::kMaxTracks; ++track)
        scale.notes_standard[static_cast<std::size_t>(track)] = static_cast<std::int16_t>(36 + track);
    const veltrin::PlanValues values = veltrin::planValues(settings, scale);
    std::size_t pieces = 0;
    for (auto _ : state) {
        std::vector<std::string> play;
        const std::vector<std::string> notes = veltrin::pairNotes(events, play);
        const veltrin::SplitResult split = veltrin::Decoupe_notes(notes, true, values, scale);
        pieces = split.pieces.size();
        benchmark::DoNotOptimize(split);
    }
    state.counters["pieces"] = static_cast<double>(pieces);
}
BENCHMARK_CAPTURE(BM_PairAndSplit, laser, "Laser")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_PairAndSplit, punch, "Punch")->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
