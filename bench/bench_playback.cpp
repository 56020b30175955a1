// Timing of the playback: how far from its planned time each MIDI message reaches the
// synthesizer, through the real timer thread (PlaybackRunner). The output hands every message
// to a FluidSynth synthesizer that renders in real time into /dev/null (its file driver: no
// audio device needed) and notes when it did; p50, p99 and the largest of
// |actual - planned| come out as counters, in microseconds. Real time: the 3-minute song
// takes 3 minutes.
//   bench_playback [--benchmark_filter=Jitter/20]

#include <benchmark/benchmark.h>

#include <fluidsynth.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "base/numeric_text.h"
#include "view/midi_output_qt.h"
#include "view/playback.h"
#include "view/playback_qt.h"

namespace {

using Clock = veltrin::PlaybackRunner::Clock;

// A song of the given length: a melody of eighth notes at 120 beats a minute over a bass
// and a two-note chord changing every beat, as a dense barrel-organ arrangement.
std::vector<std::string> songLines(int seconds)
{
    std::vector<std::string> lines;
    const auto add = [&](int ms, int note, const char* keyword) {
        lines.push_back(veltrin::fixedWidth(ms, 7) + " " + veltrin::fixedWidth(note, 3) + " " + keyword);
    };
    static const int melody[] = {72, 74, 76, 77, 79, 77, 76, 74};
    for (int ms = 0, i = 0; ms < seconds * 1000; ms += 250, ++i) {
        add(ms, melody[i % 8], "NOTE");
        add(ms + 240, melody[i % 8], "NOOF");
        if (i % 2 == 0) {
            for (int note : {48 + i % 5, 60 + i % 4, 64 + i % 3}) {
                add(ms, note, "NOTE");
                add(ms + 480, note, "NOOF");
            }
        }
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

// Gives every message to the synthesizer and notes when.
class TimedSynth final : public veltrin::MidiSink {
public:
    explicit TimedSynth(std::vector<Clock::time_point>& times) : m_times(times)
    {
        for (int level : {FLUID_PANIC, FLUID_ERR, FLUID_WARN, FLUID_INFO, FLUID_DBG})
            fluid_set_log_function(level, nullptr, nullptr);
        m_settings = new_fluid_settings();
        fluid_settings_setstr(m_settings, "audio.driver", "file");
        fluid_settings_setstr(m_settings, "audio.file.name", "/dev/null");
        fluid_settings_setstr(m_settings, "audio.file.type", "raw");
        m_synth = new_fluid_synth(m_settings);
        const std::string font = veltrin::findSoundFont({});
        if (!font.empty())
            fluid_synth_sfload(m_synth, font.c_str(), 1);
        m_driver = new_fluid_audio_driver(m_settings, m_synth);
    }
    ~TimedSynth() override
    {
        if (m_driver)
            delete_fluid_audio_driver(m_driver);
        delete_fluid_synth(m_synth);
        delete_fluid_settings(m_settings);
    }
    void send(const veltrin::MidiMessage& m) override
    {
        switch (m.status & 0xF0) {
        case 0x90:
            fluid_synth_noteon(m_synth, m.status & 0x0F, m.data1, m.data2);
            break;
        case 0x80:
            fluid_synth_noteoff(m_synth, m.status & 0x0F, m.data1);
            break;
        case 0xC0:
            fluid_synth_program_change(m_synth, m.status & 0x0F, m.data1);
            break;
        default:
            break;
        }
        m_times.push_back(Clock::now());
    }
    std::string name() const override { return "timed synthesizer"; }

private:
    std::vector<Clock::time_point>& m_times;
    fluid_settings_t* m_settings = nullptr;
    fluid_synth_t* m_synth = nullptr;
    fluid_audio_driver_t* m_driver = nullptr;
};

double percentile(std::vector<double> values, double p)
{
    if (values.empty())
        return 0.0;
    std::sort(values.begin(), values.end());
    const auto at = static_cast<std::size_t>(std::ceil(p * double(values.size()))) - 1;
    return values[std::min(at, values.size() - 1)];
}

void BM_PlaybackJitter(benchmark::State& state)
{
    const veltrin::PlaybackSchedule schedule = veltrin::planPlayback(songLines(static_cast<int>(state.range(0))), {});
    std::vector<double> errorsUs;
    for (auto _ : state) {
        std::vector<Clock::time_point> times;
        times.reserve(schedule.messages.size());
        Clock::time_point t0;
        std::mutex mutex;
        std::condition_variable done;
        bool finished = false;
        veltrin::PlaybackRunner runner;
        veltrin::PlaybackRunner::Callbacks callbacks;
        callbacks.started = [&](const std::string&, Clock::time_point start) { t0 = start; };
        callbacks.finished = [&] {
            const std::lock_guard lock(mutex);
            finished = true;
            done.notify_all();
        };
        runner.start(
            schedule,
            [&]() -> veltrin::Result<std::unique_ptr<veltrin::MidiSink>, veltrin::PlaybackOutputError> {
                return std::unique_ptr<veltrin::MidiSink>(std::make_unique<TimedSynth>(times));
            },
            callbacks);
        {
            std::unique_lock lock(mutex);
            done.wait(lock, [&] { return finished; });
        }
        runner.join();
        if (times.size() != schedule.messages.size()) {
            state.SkipWithError("not every message was sent");
            return;
        }
        for (std::size_t i = 0; i < times.size(); ++i) {
            const double planned = schedule.messages[i].atMs * 1000.0;
            const double actual = std::chrono::duration<double, std::micro>(times[i] - t0).count();
            errorsUs.push_back(std::abs(actual - planned));
        }
    }
    state.counters["messages"] = static_cast<double>(schedule.messages.size());
    state.counters["p50_us"] = percentile(errorsUs, 0.50);
    state.counters["p99_us"] = percentile(errorsUs, 0.99);
    state.counters["max_us"] = percentile(errorsUs, 1.0);
}
BENCHMARK(BM_PlaybackJitter)->Name("Jitter")->Arg(20)->Arg(180)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace

BENCHMARK_MAIN();
