#include "folding/fold_program.h"

#include <filesystem>

#include "base/data_folders.h"
#include "base/numeric_text.h"
#include "midi/resume_file.h"

namespace veltrin {

std::string foldProgramText(const FoldProgramInput& input)
{
    const FoldValues& v = input.values;
    std::string text;
    const auto line = [&text](std::string_view part) {
        text += part;
        text += "\r\n";
    };
    // The title, header and laser lines read as those of the song's program, so that the
    // program is sent and checked (laser mode) as any laser program.
    line(";Laser gcode of the file : " + input.title + "_folds");
    const std::string origin = plainNumber(v.OrigineX);
    if (input.header) {
        line("$HX ;X origin search");
        line("G92 X" + origin + " Y0 Z-1 ;Homing position at " + origin + " mm from X origin");
    }
    const std::string power = plainNumber(v.Laser_power);
    if (input.Laser_mode == "M4")
        line("M4 S" + power + " ; M4 = Adaptative power according to speed up to " + power + "max");
    else
        line("M3 S" + power + " ;Laser power " + power + ". M3 = constant power");
    line(feedCommand(v));
    for (int k = 0; k < input.count; ++k) {
        for (const std::string& command : foldLines(v, k))
            line(command);
    }
    line(kLaserOff);
    return text;
}

std::string foldProgramPath(std::string_view dossier_documents, std::string_view songTitle)
{
    return tempFolder(dossier_documents) + std::string(songTitle) + "_folds.gcode";
}

Result<std::string, FoldError> writeFoldProgram(const Settings& settings, const OrganScale& scale,
                                                std::string_view title, int count, const std::string& path)
{
    if (auto checked = checkFoldSettings(settings, scale); !checked)
        return fail(checked.error(), checked.detail());
    if (count < 1)
        return fail(FoldError::BadCount, "The number of folds must be at least 1, not " + std::to_string(count));
    if (scale.longueur_pli * (count - 1) > maxFoldY())
        return fail(FoldError::BadCount, std::to_string(count) + " folds of " + plainNumber(scale.longueur_pli) +
                                             " mm reach beyond Y 99999 mm: at most " +
                                             std::to_string(static_cast<int>(maxFoldY() / scale.longueur_pli) + 1));
    FoldProgramInput input;
    input.values = foldValues(settings, scale);
    input.count = count;
    input.title = std::string(title);
    input.Laser_mode = settings.Laser_mode;
    input.header = leadingNumber(settings.Gen_entete) == 1.0;

    namespace fs = std::filesystem;
    std::error_code error;
    if (const fs::path folder = fs::path(path).parent_path(); !folder.empty())
        fs::create_directories(folder, error);
    auto written = writeFileDurably(path, foldProgramText(input), false);
    if (!written)
        return fail(FoldError::CannotWrite, "The fold-marking program was not written: " + written.detail());
    return path;
}

}  // namespace veltrin
