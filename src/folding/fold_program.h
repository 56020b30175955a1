#pragma once
// The fold-marking program file: the live marking's dashes for folds 0..N-1 in one program,
// to burn a book's folds as a job (Punch) rather than fold by fold. It starts as the song's
// program does: title line, the homing header when Gen_entete is 1, the laser line of
// Laser_mode; then the feed, the folds and "M5 S0".

#include <string>
#include <string_view>

#include "base/result.h"
#include "base/settings.h"
#include "folding/fold_commands.h"
#include "scales/organ_scale.h"

namespace veltrin {

struct FoldProgramInput {
    FoldValues values;
    int count = 1;           // folds 0..count-1
    std::string title;       // already made safe for a comment
    std::string Laser_mode;  // "M3" constant power, "M4" adaptive power
    bool header = true;      // Gen_entete is 1
};

// The program text, CR LF line ends.
std::string foldProgramText(const FoldProgramInput& input);

// "<dossier_documents>/Veltrin/Temp/<title>_folds.gcode".
std::string foldProgramPath(std::string_view dossier_documents, std::string_view songTitle);

// Checks the settings (checkFoldSettings) and the count (at least 1, the last fold within
// the largest coordinate), then writes the program of count folds at path, replaced whole
// (a crash leaves the old file or the new one), its folder made when missing. Returns path.
Result<std::string, FoldError> writeFoldProgram(const Settings& settings, const OrganScale& scale,
                                                std::string_view title, int count, const std::string& path);

}  // namespace veltrin
