// The roll view on the generated 20,000-note song (about 46 m of roll, 27-29 scale, laser):
// one frame of 1200 x 700 px painted at the default and at the widest zoom, with the
// marks, a job's progress and the notes outside the scale shown; and a bridge length edit
// as the settings dialog makes it, through the new plan and picture to the next frame.

#include <benchmark/benchmark.h>

#include <QApplication>
#include <QImage>

#include <algorithm>
#include <cstdlib>
#include <memory>

#include "app/genere_gcode.h"
#include "app/roll_snapshot.h"
#include "app/settings_edit.h"
#include "app/settings_store.h"
#include "bench_song.h"
#include "view/roll_view_widget.h"

namespace {

constexpr int kWidthPx = 1200;
constexpr int kHeightPx = 700;

// The song, planned and written once for every benchmark.
bench::Job& plannedSong()
{
    static bench::Job job("Laser");
    static const bool planned = [] {
        job.state.demarrage_fini = true;
        return veltrin::Genere_GCode(job.state, false, false).ok();
    }();
    if (!planned)
        std::abort();
    return job;
}

// A view of the song's picture mid-job: marks around most of the roll, half the program
// acknowledged, the dropped notes on.
void prepare(veltrin::RollViewWidget& view, const std::shared_ptr<const veltrin::RollPicture>& picture)
{
    view.resize(kWidthPx, kHeightPx);
    view.setPicture(picture);
    view.setMarks(picture->lengthMm * 0.05, picture->lengthMm * 0.95);
    int lastLine = 0;
    for (const veltrin::RollHole& hole : picture->holes)
        lastLine = std::max(lastLine, hole.programLine);
    view.setProgress(lastLine / 2);
    view.setShowDropped(true);
}

void BM_PaintFrame(benchmark::State& bench, bool widest)
{
    const auto picture = std::make_shared<const veltrin::RollPicture>(veltrin::rollPictureOf(plannedSong().state));
    veltrin::RollViewWidget view;
    prepare(view, picture);
    if (widest)
        view.setZoom(view.minimumZoom());
    else
        view.ensureVisible(picture->lengthMm / 2);  // the middle of the roll, where it is busiest
    QImage image(kWidthPx, kHeightPx, QImage::Format_RGB32);
    for (auto _ : bench) {
        view.render(&image);
        benchmark::DoNotOptimize(image.constBits());
    }
    bench.counters["holes"] = static_cast<double>(picture->holes.size());
    bench.counters["roll_m"] = picture->lengthMm / 1000.0;
    bench.counters["zoom"] = view.zoom();
}

// Lgponts edited: the plan is made again, then its picture and one frame, as the window does
// it (the machine time of Grbl's model follows in the log afterwards: bench_estimate).
void BM_EditBridgeLength(benchmark::State& bench)
{
    veltrin::AppState& state = plannedSong().state;
    state.machineTimeInReport = false;
    veltrin::MemorySettingsStore store;
    veltrin::RollViewWidget view;
    prepare(view, std::make_shared<const veltrin::RollPicture>(veltrin::rollPictureOf(state)));
    QImage image(kWidthPx, kHeightPx, QImage::Format_RGB32);
    bool longer = false;
    for (auto _ : bench) {
        longer = !longer;
        veltrin::changeSetting(state, store, "Lgponts", longer ? "2" : "1.5");
        const auto made = veltrin::planSettingsChanged(state);
        if (!made || !*made) {
            bench.SkipWithError("the plan was not made");
            break;
        }
        view.setPicture(std::make_shared<const veltrin::RollPicture>(veltrin::rollPictureOf(state)));
        view.render(&image);
        benchmark::DoNotOptimize(image.constBits());
    }
    bench.counters["pieces"] = static_cast<double>(state.List_GC_Finale.size());
}

BENCHMARK_CAPTURE(BM_PaintFrame, default_zoom, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_PaintFrame, widest_zoom, true)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EditBridgeLength)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv)
{
    ::setenv("QT_QPA_PLATFORM", "offscreen", 0);
    QApplication application(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
