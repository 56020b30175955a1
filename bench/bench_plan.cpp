// The main job of a song on the 27-29 scale: plan, travel order and program of a generated
// 20,000-note song, and the best-width search over the same song.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "app/app_state.h"
#include "app/genere_gcode.h"
#include "plan/plan_steps.h"
#include "scales/scale_file.h"
#include "bench_song.h"

namespace {

using veltrin::AppState;

using bench::generatedSong;

using bench::Job;

void BM_GenereGCode(benchmark::State& run, const std::string& machine)
{
    Job job(machine);
    for (auto _ : run) {
        job.state.user_msg_list.clear();
        auto written = veltrin::Genere_GCode(job.state, false, false);
        if (!written.ok())
            run.SkipWithError(written.detail().c_str());
    }
    run.counters["pieces"] = static_cast<double>(job.state.List_GC_Finale.size());
}
BENCHMARK_CAPTURE(BM_GenereGCode, laser, std::string("Laser"))->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_GenereGCode, punch, std::string("Punch"))->Unit(benchmark::kMillisecond);

void BM_SearchBestWidth(benchmark::State& run)
{
    Job job("Laser");
    for (auto _ : run) {
        job.state.settings.Fourchette = "7";
        auto chosen = veltrin::searchBestWidth(job.state);
        benchmark::DoNotOptimize(chosen);
    }
}
BENCHMARK(BM_SearchBestWidth)->Unit(benchmark::kMillisecond);

// The band-width search's measures alone, on the song's pieces split once: every width
// of the search (threads share them when the machine has several cores), or one width
// (measured by the calling thread).
struct SplitJob : Job {
    SplitJob() : Job("Laser"), values(veltrin::planValues(state.settings, state.scale))
    {
        std::vector<std::string> playLines;
        pieces = veltrin::Decoupe_notes(veltrin::pairNotes(state.Liste_tran, playLines), true,
                                        values, state.scale)
                     .pieces;
    }
    veltrin::PlanValues values;
    std::vector<veltrin::Piece> pieces;
};

void BM_TravelDistances(benchmark::State& run)
{
    SplitJob job;
    std::vector<int> times;
    for (int mm = 1; mm <= 30; ++mm)
        times.push_back(veltrin::bandTime(mm, job.values.Vitcarton));
    for (auto _ : run)
        benchmark::DoNotOptimize(veltrin::travelDistances(job.pieces, times, job.values, {}));
    run.counters["pieces"] = static_cast<double>(job.pieces.size());
}
// CPU time of all threads: the work done, which the threads share out.
BENCHMARK(BM_TravelDistances)->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond);

void BM_TravelDistanceOneWidth(benchmark::State& run)
{
    SplitJob job;
    const std::vector<int> times{veltrin::bandTime(static_cast<double>(run.range(0)), job.values.Vitcarton)};
    for (auto _ : run)
        benchmark::DoNotOptimize(veltrin::travelDistances(job.pieces, times, job.values, {}));
}
BENCHMARK(BM_TravelDistanceOneWidth)->Arg(1)->Arg(7)->Arg(30)->Unit(benchmark::kMicrosecond);

// What the import runs after decoding: the width search, then the generation.
void BM_SearchThenGenerate(benchmark::State& run)
{
    Job job("Laser");
    for (auto _ : run) {
        job.state.settings.Fourchette = "7";
        job.state.user_msg_list.clear();
        auto chosen = veltrin::searchBestWidth(job.state);
        auto written = veltrin::Genere_GCode(job.state, false, false);
        benchmark::DoNotOptimize(chosen);
        benchmark::DoNotOptimize(written);
    }
}
BENCHMARK(BM_SearchThenGenerate)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
