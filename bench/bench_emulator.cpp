// Throughput of the Grbl emulator core: program lines answered per second when motion takes
// no time (the emulator must never be the bottleneck of a streaming test or benchmark).

#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "emulator/grbl_emulator.h"

namespace {

std::vector<std::string> programLines(int count)
{
    std::vector<std::string> lines;
    for (int i = 0; i < count; ++i) {
        lines.push_back(i % 2 == 0 ? "G0 X" + std::to_string(i % 300) + ".25 Y" + std::to_string(i) + ".5\r"
                                   : "G1 X" + std::to_string(i % 300) + ".75 F1500 ; hole\r");
    }
    return lines;
}

veltrin::GrblEmulatorOptions instantBoard()
{
    veltrin::GrblEmulatorOptions options;
    options.speed = 0;
    options.bootMs = 0;
    options.factorySettings = true;
    return options;
}

// One line in flight: send, advance, read the "ok".
void BM_SendResponse(benchmark::State& state)
{
    const auto lines = programLines(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        veltrin::GrblEmulator grbl(instantBoard());
        std::int64_t nowMs = 0;
        grbl.advance(nowMs);
        grbl.takeOutput();
        for (const std::string& line : lines) {
            grbl.receive(line);
            grbl.advance(++nowMs);
            benchmark::DoNotOptimize(grbl.takeOutput());
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_SendResponse)->Arg(10000);

// A status poll between lines, as a sender showing the position does.
void BM_StatusPoll(benchmark::State& state)
{
    veltrin::GrblEmulator grbl(instantBoard());
    grbl.advance(0);
    grbl.takeOutput();
    for (auto _ : state) {
        grbl.receive("?");
        benchmark::DoNotOptimize(grbl.takeOutput());
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StatusPoll);

}  // namespace

BENCHMARK_MAIN();
