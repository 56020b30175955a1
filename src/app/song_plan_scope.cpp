#include "app/song_plan_scope.h"

#include <utility>

#include "app/app_state.h"
#include "midi/resume_file.h"

namespace veltrin {

SongPlanScope::SongPlanScope(AppState& state)
{
    if (state.songPlanSettings.empty())
        return;
    m_state = &state;
    m_settings = state.settings;
    m_scale = state.scale;
    // A key the operator has changed since the import is the operator's again.
    const SettingList now = planSettingsOf(state.settings, state.scale);
    SettingList kept;
    for (const auto& [key, value] : state.songPlanSettings) {
        const auto atImport = settingValue(state.settingsAtResume, key);
        const auto current = settingValue(now, key);
        if (atImport && current && *atImport != *current)
            continue;
        kept.emplace_back(key, value);
    }
    applyPlanSettings(kept, state.settings, state.scale);
}

SongPlanScope::~SongPlanScope()
{
    if (!m_state)
        return;
    m_state->settings = std::move(*m_settings);
    m_state->scale = std::move(*m_scale);
}

}  // namespace veltrin
