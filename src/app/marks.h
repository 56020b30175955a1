#pragma once
// Marks: a start and an end time (ms from the start of the song) chosen on the roll view.
// Setting either one rewrites the program for the stretch between them.

#include <array>
#include <string>

#include "app/app_state.h"
#include "app/genere_gcode.h"
#include "base/result.h"

namespace veltrin {

// The roll view's five strips, Picture2 to Picture6, numbered 0 to 4 here.
inline constexpr int kStripCount = 5;

// Where strip 0..4 starts along the roll, in the strips' coordinate units: the sum of the
// lengths of the strips before it (only the first four lengths are ever needed).
double stripOffset(const std::array<double, 4>& stripLengths, int strip);

// The song time (ms) under X of a strip: (offset + X) / zoom is millimetres along the roll,
// and rollMmPerSecond (S, the roll length per second of music) turns it into time.
double markTimeAt(double stripOffset, double x, double zoom, double rollMmPerSecond);

enum class MouseButton { Left, Middle, Right };

enum class StripClickAction { Nothing, ZoomMenu, SetStartMark, SetEndMark };

struct StripClickOutcome {
    StripClickAction action = StripClickAction::Nothing;
    double timeMs = 0.0;  // for SetStartMark and SetEndMark
};

// What a mouse click on a strip asks for: nothing while the window is busy; the zoom menu
// for the right button; the end mark for a left click with any modifier key held, the
// start mark for a plain left click; the middle button does nothing.
StripClickOutcome stripClick(bool busy, MouseButton button, bool modifierHeld,
                             const std::array<double, 4>& stripLengths, int strip, double x,
                             double zoom, double rollMmPerSecond);

// Set the start mark (debut_marque) or the end mark (fin_marque), in ms. With a song
// loaded (chemin_morceau not empty) each also logs "Gcode writing between marks" and
// rewrites the program for the stretch between the marks with the pieces of the last plan
// (Genere_GCode(true, true)), returning its path; without a song only the mark is stored
// and the path is empty. A mark that checkMarks refuses (not a time from 0 to 9999999 ms, or
// an end not after the start) is not stored: PlanError::MarkRefused with the message.
Result<std::string, PlanError> setStartMark(AppState& state, double timeMs);
Result<std::string, PlanError> setEndMark(AppState& state, double timeMs);

}  // namespace veltrin
