#include "app/playback_plan.h"

#include <algorithm>
#include <array>
#include <utility>

#include "base/numeric_text.h"
#include "midi/resume_file.h"
#include "plan/plan_steps.h"

namespace veltrin {

namespace {

struct OpenSpan {
    double fromMs = 0.0;
    double toMs = 0.0;
};

std::string playLine(long long timeMs, int note, const char* keyword)
{
    return fixedWidth(timeMs, 7) + " " + fixedWidth(note, 3) + " " + keyword;
}

}  // namespace

PlaybackRange playbackRange(const AppState& state)
{
    PlaybackRange range;
    range.startMs = state.debut_marque.value_or(0.0);
    if (state.fin_marque != 500000.0)
        range.endMs = state.fin_marque;
    return range;
}

std::vector<std::string> rollPlayLines(const AppState& state)
{
    // 1. The values the program was made with: its roll speed, tool and track table.
    Settings settings = state.settings;
    OrganScale scale = state.scale;
    if (!state.programSettings.empty())
        applyPlanSettings(state.programSettings, settings, scale);
    const PlanValues v = planValues(settings, scale);
    if (!(v.Vitcarton > 0.0))
        return {};
    const int tableSize = scale.standard_AF_actif ? kAlderFennTracks : kMaxTracks;
    const int trackCount = std::clamp(scale.nb_notes, 0, tableSize);

    // 2. How long each hole stays over the reading bar, per note.
    std::array<std::vector<OpenSpan>, 128> open;
    for (const auto& [piece, line] : state.writtenHoles) {
        if (piece.track < 0 || piece.track >= trackCount)
            continue;
        const int note = scale.trackNote(piece.track);
        if (note < 0 || note > 127)
            continue;
        const double from = piece.startMs;
        const double to = v.laser ? piece.endMs : from + v.temps_poincon;
        if (to > from)
            open[static_cast<std::size_t>(note)].push_back({from, to});
    }

    // 3. Holes of one note that meet or overlap sound as one note.
    std::vector<std::string> lines;
    for (int note = 0; note < 128; ++note) {
        std::vector<OpenSpan>& spans = open[static_cast<std::size_t>(note)];
        std::sort(spans.begin(), spans.end(),
                  [](const OpenSpan& a, const OpenSpan& b) { return a.fromMs < b.fromMs; });
        for (std::size_t i = 0; i < spans.size();) {
            OpenSpan joined = spans[i];
            for (++i; i < spans.size() && spans[i].fromMs <= joined.toMs; ++i)
                joined.toMs = std::max(joined.toMs, spans[i].toMs);
            const long long on = roundHalfEven(joined.fromMs);
            const long long off = roundHalfEven(joined.toMs);
            if (off <= on)
                continue;
            lines.push_back(playLine(on, note, "NOTE"));
            lines.push_back(playLine(off, note, "NOOF"));
        }
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

PlaybackPlan playbackPlan(const AppState& state, PlaybackSource source)
{
    PlaybackPlan plan;
    const PlaybackRange range = playbackRange(state);
    plan.schedule = planPlayback(source == PlaybackSource::Song ? state.Liste_play : rollPlayLines(state), range);
    Settings settings = state.settings;
    OrganScale scale = state.scale;
    if (!state.programSettings.empty())
        applyPlanSettings(state.programSettings, settings, scale);
    plan.mmPerSecond = std::max(0.0, leadingNumber(settings.Vitcarton));
    return plan;
}

}  // namespace veltrin
