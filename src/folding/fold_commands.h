#pragma once
// The command lines of fold marking, shared by the live marking on the machine and the
// fold-marking program file. A book's folds are lines across the cardboard every longueur_pli
// mm along Y, fold 0 at Y 0; each fold is burnt as one dash per track, centred on the track.

#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"
#include "base/settings.h"
#include "scales/organ_scale.h"

namespace veltrin {

// The settings a fold marking reads, as numbers.
struct FoldValues {
    double OrigineX = 0.0;     // X the homing point is given by "G92" (mm)
    long long feed = 0;        // VitesseF as a whole number (mm/min), the speed a dash is burnt at
    double Talon = 0.0;        // X of the first track's centre (mm)
    double Dist_notes = 0.0;   // track pitch (mm)
    double longueur_pli = 0.0; // fold length (mm); 0 = the scale is no book
    int nb_notes = 0;          // tracks of the scale: one dash each
    double Laser_power = 0.0;  // "S" of "M3"
    // longueur_point ("dash length"): length of each dash across a fold line (mm).
    double longueur_point = 0.0;
};

// The values as the settings and the scale give them (leading-number rule; the feed's
// fraction dropped).
FoldValues foldValues(const Settings& settings, const OrganScale& scale);

enum class FoldError {
    NoFoldLength,    // longueur_pli is 0: "Folds length not defined"
    NotLaser,        // the punch cannot burn dashes
    SettingRefused,  // a value Grbl would reject or that would put a dash off the roll (detail)
    BadCount,        // a number of folds under 1, or folds beyond the largest coordinate
    CannotWrite,     // the program file could not be written (detail: path and why)
};

// Every value a fold marking reads: fails with NoFoldLength, NotLaser or SettingRefused (the
// detail names the key, its value and what is allowed, as the program's checks do).
Result<bool, FoldError> checkFoldSettings(const Settings& settings, const OrganScale& scale);

// The largest Y a fold line may stand at: the programs' coordinate limit.
double maxFoldY();

// X where the first track's dash starts: Talon less half a dash.
double foldStartX(const FoldValues& v);

// "M3 S<power>" (laser on, constant power) and "F<feed>".
std::string laserOnCommand(const FoldValues& v);
std::string feedCommand(const FoldValues& v);

// The forward marking's preamble: "$HX", "G92 X<OrigineX> Y0" (the fold under the laser is
// Y 0), "M3 S<power>", "F<feed>".
std::vector<std::string> foldPreamble(const FoldValues& v);

// The lines of fold k: "G0 Y<k x longueur_pli> X<start X>", then for each track j
// "G0 X<x>" and "G1 X<x + longueur_point>" with x = start X + j x Dist_notes.
std::vector<std::string> foldLines(const FoldValues& v, int k);

// "M5 S0": laser off.
inline constexpr std::string_view kLaserOff = "M5 S0";

// The backward marking starts this far before the highest Y a job reached, so that no fold is
// burnt into the song's last holes.
inline constexpr double kBackwardMarginMm = 20.0;

// The backward marking's first fold: the highest fold line at or below y_max - 20 mm; 0 when
// there is none (a roll shorter than the margin still gets its fold 0).
int backwardFirstFold(double y_max, double longueur_pli);

// Folds 0..N-1 that cover a roll of rollLengthMm: every fold line up to the first one at or
// past the roll's end (at least 1).
int foldsForRoll(double rollLengthMm, double longueur_pli);

}  // namespace veltrin
