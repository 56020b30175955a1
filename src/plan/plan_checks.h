#pragma once
// Checks made before a program is written: the settings a generation reads, the marks, and
// the coordinates and line lengths of the program they would give. Each refusal is one
// message naming the key (or mark), its value and what is allowed, e.g.
//   VitesseF = "abc": the laser feed must be a number above 0 (mm/min)
// Grbl takes numbers without exponent, coordinates we keep within +-99999 mm, and lines of
// at most 79 characters once spaces and comments are dropped.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/numeric_text.h"
#include "base/result.h"
#include "base/settings.h"
#include "plan/piece.h"
#include "plan/plan_error.h"
#include "plan/plan_steps.h"
#include "scales/organ_scale.h"

namespace veltrin {

// The largest coordinate a program may hold, mm.
inline constexpr double kMaxCoordinateMm = 99999.0;
// The longest line Grbl stores (its 80-byte buffer less the end of line), counted without
// spaces and comments.
inline constexpr std::size_t kMaxGrblLineChars = 79;
// The largest mark: the time field of a piece holds 7 digits (about 2 h 46 min).
inline constexpr double kMaxMarkMs = 9999999.0;
// The largest shortest-hole length, mm: more turns every short note into a long slot.
inline constexpr double kMaxMinHoleMm = 20.0;
// The largest feed the program writes, mm/min.
inline constexpr double kMaxFeed = 99999.0;

// strictNumber (base/numeric_text.h) reads every number the checks read.

// Every setting that Genere_GCode reads for this machine and scale. Fails with
// PlanError::ZeroRollSpeed for Vitcarton, PlanError::SettingRefused for any other key.
Result<bool, PlanError> checkGenerationSettings(const Settings& settings, const OrganScale& scale);

// The marks: each a time from 0 to kMaxMarkMs, and the end after the start when both are
// set (no start mark or 0 = from the start; an end of 500000 = to the end of the song).
// Fails with PlanError::MarkRefused.
Result<bool, PlanError> checkMarks(std::optional<double> debut_marque, double fin_marque);

// The program the pieces would give between the marks: every coordinate within
// +-kMaxCoordinateMm and every line within kMaxGrblLineChars. Fails with
// PlanError::SettingRefused naming the key that sets the offending number.
Result<bool, PlanError> checkProgramLimits(const Settings& settings, const PlanValues& values,
                                           const std::vector<Piece>& pieces, const MarkRange& marks);

}  // namespace veltrin
