#include "folding/fold_commands.h"

#include <algorithm>
#include <cmath>
#include <optional>
#include <tuple>

#include "base/numeric_text.h"
#include "plan/plan_checks.h"

namespace veltrin {

namespace {

// Lengths computed from fold lengths and pitches land a hair off their exact multiple.
constexpr double kToleranceMm = 1e-6;

std::string refusal(std::string_view key, std::string_view value, std::string_view rule)
{
    return std::string(key) + " = \"" + std::string(value) + "\": " + std::string(rule);
}

Failure<FoldError> refused(std::string_view key, std::string_view value, std::string_view rule)
{
    return fail(FoldError::SettingRefused, refusal(key, value, rule));
}

// A length or offset: a plain number, of 0 or more (or above 0).
std::optional<std::string> lengthRule(std::string_view key, std::string_view text, std::string_view what,
                                      bool aboveZero)
{
    const std::optional<double> value = strictNumber(text);
    if (value && (aboveZero ? *value > 0.0 : *value >= 0.0) && *value <= kMaxCoordinateMm)
        return std::nullopt;
    return refusal(key, text, std::string(what) + " must be a number " + (aboveZero ? "above 0" : "of 0 or more") +
                                  " and at most 99999 (mm)");
}

}  // namespace

FoldValues foldValues(const Settings& settings, const OrganScale& scale)
{
    FoldValues v;
    v.OrigineX = leadingNumber(settings.OrigineX);
    // A whole number, the fraction dropped, as the jog commands write it.
    v.feed = static_cast<long long>(leadingNumber(settings.VitesseF));
    v.Talon = leadingNumber(settings.Talon);
    v.Dist_notes = leadingNumber(settings.Dist_notes);
    v.longueur_pli = scale.longueur_pli;
    v.nb_notes = scale.nb_notes;
    v.Laser_power = leadingNumber(settings.Laser_power);
    v.longueur_point = leadingNumber(settings.longueur_point);
    return v;
}

Result<bool, FoldError> checkFoldSettings(const Settings& s, const OrganScale& scale)
{
    if (!(scale.longueur_pli > 0.0))
        return fail(FoldError::NoFoldLength, "Folds length not defined");
    if (!s.isLaser())
        return fail(FoldError::NotLaser, "Fold marking needs the laser: Type_machine is \"" + s.Type_machine + "\"");
    const std::optional<double> feed = strictNumber(s.VitesseF);
    if (!feed || *feed < 1.0 || *feed >= kMaxFeed + 1.0)
        return refused("VitesseF", s.VitesseF, "the laser feed must be a number from 1 to 99999 (mm/min)");
    const std::optional<double> power = strictNumber(s.Laser_power);
    if (!power || *power < 0.0 || *power > 1000.0)
        return refused("Laser_power", s.Laser_power, "the laser power must be a number from 0 to 1000");
    for (const auto& [key, text, what, aboveZero] :
         {std::tuple{"OrigineX", &s.OrigineX, "the distance from the homing point to the roll's X origin", false},
          std::tuple{"Talon", &s.Talon, "the distance from the roll's edge to the first track", false},
          std::tuple{"Dist_notes", &s.Dist_notes, "the track pitch", false},
          std::tuple{"longueur_point", &s.longueur_point, "the fold dash length", true}}) {
        if (auto rule = lengthRule(key, *text, what, aboveZero))
            return fail(FoldError::SettingRefused, std::move(*rule));
    }
    const FoldValues v = foldValues(s, scale);
    if (foldStartX(v) < -kToleranceMm)
        return refused("longueur_point", s.longueur_point,
                       "a dash centred on the first track (Talon " + plainNumber(v.Talon) +
                           " mm) must not start before the roll's edge: at most " + plainNumber(2.0 * v.Talon) +
                           " mm");
    const double lastX = foldStartX(v) + (scale.nb_notes - 1) * v.Dist_notes + v.longueur_point;
    if (lastX > kMaxCoordinateMm)
        return refused("Dist_notes", s.Dist_notes, "the last track's dash would end beyond X 99999 mm");
    if (scale.longueur_pli > kMaxCoordinateMm)
        return fail(FoldError::SettingRefused, "longueur_pli = " + plainNumber(scale.longueur_pli) +
                                                   ": the fold length must be at most 99999 (mm)");
    return true;
}

double maxFoldY()
{
    return kMaxCoordinateMm;
}

double foldStartX(const FoldValues& v)
{
    return v.Talon - v.longueur_point / 2.0;
}

std::string laserOnCommand(const FoldValues& v)
{
    return "M3 S" + plainNumber(v.Laser_power);
}

std::string feedCommand(const FoldValues& v)
{
    std::string text = "F";
    text += std::to_string(v.feed);
    return text;
}

std::vector<std::string> foldPreamble(const FoldValues& v)
{
    return {"$HX", "G92 X" + plainNumber(v.OrigineX) + " Y0", laserOnCommand(v), feedCommand(v)};
}

std::vector<std::string> foldLines(const FoldValues& v, int k)
{
    const double startX = foldStartX(v);
    std::vector<std::string> lines;
    lines.reserve(1 + 2 * static_cast<std::size_t>(std::max(v.nb_notes, 0)));
    lines.push_back("G0 Y" + plainNumber(v.longueur_pli * k) + " X" + plainNumber(startX));
    for (int j = 0; j < v.nb_notes; ++j) {
        const double x = startX + j * v.Dist_notes;
        lines.push_back("G0 X" + plainNumber(x));
        lines.push_back("G1 X" + plainNumber(x + v.longueur_point));
    }
    return lines;
}

int backwardFirstFold(double y_max, double longueur_pli)
{
    if (!(longueur_pli > 0.0))
        return 0;
    const double folds = std::floor((y_max - kBackwardMarginMm + kToleranceMm) / longueur_pli);
    if (!(folds > 0.0))
        return 0;
    return static_cast<int>(std::min(folds, kMaxCoordinateMm / longueur_pli));
}

int foldsForRoll(double rollLengthMm, double longueur_pli)
{
    if (!(longueur_pli > 0.0) || !(rollLengthMm > 0.0))
        return 1;
    const double spans = std::ceil((rollLengthMm - kToleranceMm) / longueur_pli);
    return static_cast<int>(std::min(std::max(spans, 0.0), kMaxCoordinateMm / longueur_pli)) + 1;
}

}  // namespace veltrin
