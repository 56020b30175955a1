// The G-code program writer on a generated 20,000-note song on the 27-29 scale: the
// program text of the ordered pieces, the same written to its file with the report, and
// the coordinate text alone.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "app/app_state.h"
#include "app/genere_gcode.h"
#include "plan/plan_steps.h"
#include "plan/plan_text.h"
#include "scales/scale_file.h"
#include "bench_song.h"

namespace {

using veltrin::AppState;

using bench::generatedSong;

// A song planned and ordered once; the benchmarks only write its program.
struct PlannedJob : bench::Job {
    explicit PlannedJob(const std::string& machine) : Job(machine) { ok = veltrin::Genere_GCode(state, false, false).ok(); }
    bool ok = false;
};

void BM_WriteProgram(benchmark::State& run, const std::string& machine)
{
    PlannedJob job(machine);
    if (!job.ok) {
        run.SkipWithError("the song could not be planned");
        return;
    }
    veltrin::WriterInput input;
    input.finale = &job.state.List_GC_Finale;
    input.values = veltrin::planValues(job.state.settings, job.state.scale);
    input.title = "bench";
    input.Laser_mode = job.state.settings.Laser_mode;
    input.Laser_power = job.state.settings.Laser_power;
    std::size_t bytes = 0;
    for (auto _ : run) {
        const veltrin::Program program = veltrin::writeProgram(input, false);
        bytes = program.text.size();
        benchmark::DoNotOptimize(program.text.data());
    }
    run.counters["pieces"] = static_cast<double>(job.state.List_GC_Finale.size());
    run.SetBytesProcessed(static_cast<std::int64_t>(run.iterations() * bytes));
}
BENCHMARK_CAPTURE(BM_WriteProgram, laser, std::string("Laser"))->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_WriteProgram, punch, std::string("Punch"))->Unit(benchmark::kMillisecond);

// Genere_GCode keeping the plan and its order: the program, its file and the report.
void BM_WriteProgramFile(benchmark::State& run, const std::string& machine)
{
    PlannedJob job(machine);
    if (!job.ok) {
        run.SkipWithError("the song could not be planned");
        return;
    }
    for (auto _ : run) {
        job.state.user_msg_list.clear();
        auto written = veltrin::Genere_GCode(job.state, true, true);
        if (!written.ok())
            run.SkipWithError(written.detail().c_str());
    }
}
BENCHMARK_CAPTURE(BM_WriteProgramFile, laser, std::string("Laser"))->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_WriteProgramFile, punch, std::string("Punch"))->Unit(benchmark::kMillisecond);

// Coordinates along the roll, roll speed x start time: short decimals at 60 mm/s, longer
// texts at 33.3 mm/s, whose products are seldom the doubles nearest to short decimals.
void BM_PlainNumber(benchmark::State& run, double Vitcarton)
{
    std::mt19937 random(7);
    std::uniform_int_distribution<int> ms(0, 600000);
    std::vector<double> values;
    for (int i = 0; i < 4096; ++i)
        values.push_back(Vitcarton * ms(random) / 1000.0);
    std::string text;
    for (auto _ : run) {
        text.clear();
        for (const double value : values)
            veltrin::appendPlainNumber(text, value);
        benchmark::DoNotOptimize(text.data());
    }
    run.SetItemsProcessed(static_cast<std::int64_t>(run.iterations() * values.size()));
}
BENCHMARK_CAPTURE(BM_PlainNumber, short, 60.0);
BENCHMARK_CAPTURE(BM_PlainNumber, long, 33.3);

}  // namespace

BENCHMARK_MAIN();
