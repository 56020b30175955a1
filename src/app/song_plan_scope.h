#pragma once
// The settings a resumed song's program is made with, on AppState.

#include <optional>

#include "base/settings.h"
#include "scales/organ_scale.h"

namespace veltrin {

struct AppState;

// While it lives, state.settings and state.scale hold the values that the current song's
// program is made with: for a song opened from a resume file (state.songPlanSettings set),
// the resume file's values, except those the operator has changed since the import
// (state.settingsAtResume); otherwise the operator's own, untouched. The operator's values
// come back when it ends.
class SongPlanScope {
public:
    explicit SongPlanScope(AppState& state);
    ~SongPlanScope();
    SongPlanScope(const SongPlanScope&) = delete;
    SongPlanScope& operator=(const SongPlanScope&) = delete;

private:
    AppState* m_state = nullptr;
    std::optional<Settings> m_settings;
    std::optional<OrganScale> m_scale;
};

}  // namespace veltrin
