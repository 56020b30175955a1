#include "app/marks.h"

#include <algorithm>

#include "plan/plan_checks.h"

namespace veltrin {

double stripOffset(const std::array<double, 4>& stripLengths, int strip)
{
    const int before = std::clamp(strip, 0, static_cast<int>(stripLengths.size()));
    double offset = 0.0;
    for (int i = 0; i < before; ++i)
        offset += stripLengths[static_cast<std::size_t>(i)];
    return offset;
}

double markTimeAt(double offset, double x, double zoom, double rollMmPerSecond)
{
    const double positionMm = (offset + x) / zoom;
    return positionMm * 1000.0 / rollMmPerSecond;
}

StripClickOutcome stripClick(bool busy, MouseButton button, bool modifierHeld,
                             const std::array<double, 4>& stripLengths, int strip, double x,
                             double zoom, double rollMmPerSecond)
{
    if (busy)
        return {};
    switch (button) {
    case MouseButton::Right:
        return {StripClickAction::ZoomMenu, 0.0};
    case MouseButton::Middle:
        return {};
    case MouseButton::Left:
        break;
    }
    const double timeMs = markTimeAt(stripOffset(stripLengths, strip), x, zoom, rollMmPerSecond);
    return {modifierHeld ? StripClickAction::SetEndMark : StripClickAction::SetStartMark, timeMs};
}

namespace {

Result<std::string, PlanError> writeBetweenMarks(AppState& state)
{
    if (state.chemin_morceau.empty())
        return std::string();
    state.user_msg_list.append("Gcode writing between marks");
    return Genere_GCode(state, true, true);
}

}  // namespace

Result<std::string, PlanError> setStartMark(AppState& state, double timeMs)
{
    if (auto checked = checkMarks(timeMs, state.fin_marque); !checked)
        return fail(checked.error(), checked.detail());
    state.debut_marque = timeMs;
    return writeBetweenMarks(state);
}

Result<std::string, PlanError> setEndMark(AppState& state, double timeMs)
{
    if (auto checked = checkMarks(state.debut_marque, timeMs); !checked)
        return fail(checked.error(), checked.detail());
    state.fin_marque = timeMs;
    return writeBetweenMarks(state);
}

}  // namespace veltrin
