#pragma once
// The generated song of the plan and writer benchmarks, as event lines, and a job that
// holds it in a temporary Documents folder.

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "app/app_state.h"
#include "scales/scale_file.h"

namespace bench {

// Event lines of a song of noteCount notes, as the decoder writes them: 32 voices whose
// notes follow each other, 60 ms to 2 s long, mostly in the scale. 20,000 notes last about
// 13 minutes, a roll of about 46 m, within the coordinates a program may hold.
inline std::vector<std::string> generatedSong(int noteCount)
{
    std::mt19937 random(2024);
    std::uniform_int_distribution<int> pitch(46, 88);
    std::uniform_int_distribution<int> length(60, 2000);
    std::uniform_int_distribution<int> gap(0, 400);
    std::vector<std::string> lines{"TEMP 0000000 000000 0500000"};
    constexpr int kVoices = 32;
    for (int voice = 0; voice < kVoices; ++voice) {
        long time = voice * 37;
        for (int i = voice; i < noteCount; i += kVoices) {
            const long start = time + gap(random);
            const long end = start + length(random);
            char noteLine[96];
            char offLine[64];
            std::snprintf(noteLine, sizeof noteLine, "NOTE %07ld 000960 00001 %05d %05ld 00100 C3",
                          start, pitch(random), end - start);
            std::snprintf(offLine, sizeof offLine, "NOOF %07ld 000960 00001", end);
            lines.emplace_back(noteLine);
            lines.emplace_back(offLine);
            time = end;
        }
    }
    lines.emplace_back("ENDF 9999999");
    return lines;
}

// The application state of a 20,000-note song on the built-in scale, for machine ("Laser"
// or "Punch"), with a Documents folder of its own that goes with the job.
struct Job {
    explicit Job(const std::string& machine)
    {
        char pattern[] = "/tmp/veltrin_bench_XXXXXX";
        folder = mkdtemp(pattern);
        state.dossier_documents = folder;
        state.chemin_morceau = "/songs/bench.mid";
        state.settings.Type_machine = machine;
        veltrin::MessageLog log;
        veltrin::Def_standard(folder, state.settings, state.scale, log);
        state.Liste_tran = generatedSong(20000);
    }
    ~Job() { std::filesystem::remove_all(folder); }
    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;

    std::string folder;
    veltrin::AppState state;
};

}  // namespace bench
