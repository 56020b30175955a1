// The whole convert, as "Open midi file..." runs it: read and decode a generated 20,000-note
// format 1 song, search the best band width, plan, order and write the program, on the
// 27-29 scale.
//
//   bench_convert                      run the benchmark
//   bench_convert --write-song PATH    only write the generated song to PATH (to time other
//                                      tools on the same file)

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "app/app_state.h"
#include "app/song_import.h"
#include "scales/scale_file.h"

namespace {

constexpr int kNoteCount = 20000;
constexpr int kVoices = 16;
constexpr int kTicksPerQuarter = 480;

void putVariableLength(std::vector<std::uint8_t>& out, std::uint32_t value)
{
    std::uint8_t bytes[4];
    int count = 0;
    do {
        bytes[count++] = static_cast<std::uint8_t>(value & 0x7F);
        value >>= 7;
    } while (value != 0 && count < 4);
    while (count-- > 0)
        out.push_back(static_cast<std::uint8_t>(bytes[count] | (count > 0 ? 0x80 : 0)));
}

void putBigEndian(std::vector<std::uint8_t>& out, std::uint32_t value, int size)
{
    for (int shift = (size - 1) * 8; shift >= 0; shift -= 8)
        out.push_back(static_cast<std::uint8_t>(value >> shift));
}

struct TimedEvent {
    std::uint32_t tick;
    std::vector<std::uint8_t> bytes;
};

void appendTrack(std::vector<std::uint8_t>& file, std::vector<TimedEvent> events)
{
    std::stable_sort(events.begin(), events.end(),
                     [](const TimedEvent& a, const TimedEvent& b) { return a.tick < b.tick; });
    std::vector<std::uint8_t> body;
    std::uint32_t tick = 0;
    for (const TimedEvent& e : events) {
        putVariableLength(body, e.tick - tick);
        tick = e.tick;
        body.insert(body.end(), e.bytes.begin(), e.bytes.end());
    }
    body.insert(body.end(), {0x00, 0xFF, 0x2F, 0x00});
    file.insert(file.end(), {'M', 'T', 'r', 'k'});
    putBigEndian(file, static_cast<std::uint32_t>(body.size()), 4);
    file.insert(file.end(), body.begin(), body.end());
}

// A format 1 song: a tempo track with a tempo change every 30 s, then kVoices tracks whose
// notes follow each other (about 60 ms to 2 s long, mostly notes of the 27-29 scale).
std::vector<std::uint8_t> generatedSong()
{
    std::mt19937 random(2024);
    std::uniform_int_distribution<int> pitch(46, 88);
    std::uniform_int_distribution<int> length(60, 2000);
    std::uniform_int_distribution<int> gap(0, 400);

    std::vector<std::uint8_t> file = {'M', 'T', 'h', 'd', 0, 0, 0, 6, 0, 1};
    putBigEndian(file, kVoices + 1, 2);
    putBigEndian(file, kTicksPerQuarter, 2);

    std::vector<TimedEvent> tempo;
    std::uint32_t lastTick = 0;
    std::vector<std::vector<TimedEvent>> voices(kVoices);
    for (int voice = 0; voice < kVoices; ++voice) {
        std::uint32_t tick = static_cast<std::uint32_t>(voice * 37);
        for (int i = voice; i < kNoteCount; i += kVoices) {
            const std::uint32_t start = tick + static_cast<std::uint32_t>(gap(random));
            const std::uint32_t end = start + static_cast<std::uint32_t>(length(random));
            const auto note = static_cast<std::uint8_t>(pitch(random));
            const auto channel = static_cast<std::uint8_t>(voice);
            voices[static_cast<std::size_t>(voice)].push_back({start, {static_cast<std::uint8_t>(0x90 | channel), note, 90}});
            voices[static_cast<std::size_t>(voice)].push_back({end, {static_cast<std::uint8_t>(0x80 | channel), note, 0}});
            tick = end;
        }
        lastTick = std::max(lastTick, tick);
    }
    for (std::uint32_t tick = 0, i = 0; tick < lastTick; tick += 30000, ++i) {
        const std::uint32_t microseconds = (i % 2 == 0) ? 500000 : 461538;
        tempo.push_back({tick, {0xFF, 0x51, 0x03, static_cast<std::uint8_t>(microseconds >> 16),
                                static_cast<std::uint8_t>(microseconds >> 8),
                                static_cast<std::uint8_t>(microseconds)}});
    }
    appendTrack(file, std::move(tempo));
    for (auto& voice : voices)
        appendTrack(file, std::move(voice));
    return file;
}

bool writeSong(const std::string& path)
{
    const auto bytes = generatedSong();
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(out);
}

void BM_ConvertSong(benchmark::State& bench, const char* machine)
{
    char pattern[] = "/tmp/veltrin_bench_convert_XXXXXX";
    const std::string folder = mkdtemp(pattern);
    std::filesystem::create_directories(folder + "/Veltrin/Temp");
    const std::string song = folder + "/bench.mid";
    if (!writeSong(song)) {
        bench.SkipWithError("cannot write the song");
        return;
    }

    veltrin::AppState state;
    state.dossier_documents = folder;
    state.settings.Type_machine = machine;
    veltrin::MessageLog log;
    veltrin::Def_standard(folder, state.settings, state.scale, log);
    state.demarrage_fini = true;

    std::size_t programBytes = 0;
    for (auto _ : bench) {
        state.user_msg_list.clear();
        auto report = veltrin::Ouvre_midi(state, {song});
        if (!report) {
            bench.SkipWithError(report.detail().c_str());
            break;
        }
        programBytes = std::filesystem::file_size(report->programPath);
        benchmark::DoNotOptimize(state.List_GC_Finale.data());
    }
    bench.counters["notes"] = static_cast<double>(kNoteCount);
    bench.counters["pieces"] = static_cast<double>(state.List_GC_Finale.size());
    bench.counters["program_kB"] = static_cast<double>(programBytes) / 1024.0;
    bench.counters["Fourchette"] = std::atof(state.settings.Fourchette.c_str());
    std::filesystem::remove_all(folder);
}

BENCHMARK_CAPTURE(BM_ConvertSong, laser, "Laser")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_ConvertSong, punch, "Punch")->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && std::strcmp(argv[1], "--write-song") == 0)
        return writeSong(argv[2]) ? 0 : 1;
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
