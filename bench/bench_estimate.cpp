// The machine time of the largest test song's program: the generated 20,000-note song of the
// plan and writer benchmarks, written for the laser (about 100,000 lines) and the punch, and
// run through the model of Grbl's planner at Grbl's defaults and at fast settings. Goal: under
// 50 ms.

#include <benchmark/benchmark.h>

#include <cstdint>
#include <string>

#include "app/genere_gcode.h"
#include "machine/grbl_planner.h"
#include "plan/plan_steps.h"
#include "bench_song.h"

namespace {

// The program text of the song for machine ("Laser" or "Punch"), planned once.
std::string programText(const std::string& machine)
{
    bench::Job job(machine);
    if (!veltrin::Genere_GCode(job.state, false, false).ok())
        return {};
    veltrin::WriterInput input;
    input.finale = &job.state.List_GC_Finale;
    input.values = veltrin::planValues(job.state.settings, job.state.scale);
    input.title = "bench";
    input.header = true;
    input.Laser_mode = job.state.settings.Laser_mode;
    input.Laser_power = job.state.settings.Laser_power;
    return veltrin::writeProgram(input, false).text;
}

veltrin::GrblSettings settingsFor(bool fast)
{
    veltrin::GrblSettings settings = veltrin::GrblSettings::defaults();
    if (fast) {
        settings.maxRateMmPerMin = {5000, 5000, 5000};
        settings.accelerationMmPerS2 = {800, 800, 800};
    }
    return settings;
}

void BM_EstimateProgram(benchmark::State& run, const std::string& machine, bool fast)
{
    const std::string text = programText(machine);
    if (text.empty()) {
        run.SkipWithError("the song could not be planned");
        return;
    }
    const veltrin::GrblSettings settings = settingsFor(fast);
    veltrin::MachineTime time;
    for (auto _ : run) {
        time = veltrin::estimateProgramText(text, settings);
        benchmark::DoNotOptimize(time.seconds);
    }
    run.counters["lines"] = static_cast<double>(time.answeredAt.size());
    run.counters["machine_s"] = time.seconds;
    run.SetBytesProcessed(static_cast<std::int64_t>(run.iterations() * text.size()));
}
BENCHMARK_CAPTURE(BM_EstimateProgram, laser_defaults, std::string("Laser"), false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_EstimateProgram, laser_fast, std::string("Laser"), true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_EstimateProgram, punch_defaults, std::string("Punch"), false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_EstimateProgram, punch_fast, std::string("Punch"), true)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
