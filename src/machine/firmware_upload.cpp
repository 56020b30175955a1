#include "machine/firmware_upload.h"

namespace veltrin {

const std::array<GrblBoardEntry, 3>& grblBoards()
{
    static const std::array<GrblBoardEntry, 3> boards = {{
        {GrblBoard::Uno, "Uno - Uno rev3", "Prog_uno_Click", "uno", "115200"},
        {GrblBoard::NanoNew, "Nano (new bootloader 01-2018)", "Prog_Nano_N_Click", "nano", "115200"},
        {GrblBoard::NanoOld, "Nano (old bootloader)", "Prog_Nano_Click", "nano-old", "57600"},
    }};
    return boards;
}

const GrblBoardEntry& boardEntry(GrblBoard board)
{
    for (const auto& entry : grblBoards()) {
        if (entry.board == board)
            return entry;
    }
    return grblBoards().front();
}

std::optional<GrblBoard> boardByCliName(std::string_view name)
{
    for (const auto& entry : grblBoards()) {
        if (entry.cliName == name)
            return entry.board;
    }
    return std::nullopt;
}

std::vector<std::string> avrdudeArguments(GrblBoard board, std::string_view port, std::string_view image)
{
    // Each argument goes to avrdude as it is (no shell): a path with blanks or quotes needs
    // no quoting.
    return {"-v",
            "-pm328p",
            "-carduino",
            "-P" + std::string(port),
            "-b" + std::string(boardEntry(board).speed),
            "-D",
            "-Uflash:w:" + std::string(image) + ":i"};
}

std::vector<std::string> firmwareImageCandidates(const std::vector<std::string>& folders)
{
    std::vector<std::string> paths;
    for (std::string folder : folders) {
        if (folder.empty())
            continue;
        if (folder.back() != '/' && folder.back() != '\\')
            folder += '/';
        paths.push_back(folder + std::string(kFirmwareImageSubfolder) + "/" + std::string(kFirmwareImageName));
    }
    return paths;
}

std::string uploadOutcomeText(ProcessEnd end, int exitCode, std::string_view program, std::string_view detail)
{
    const std::string name(program);
    switch (end) {
    case ProcessEnd::Exited:
        if (exitCode == 0)
            return "Upload done: Grbl is on the board";
        return "Upload failed: " + name + " ended with exit status " + std::to_string(exitCode) +
               " (its messages above say why)";
    case ProcessEnd::Crashed:
        return "Upload failed: " + name + " stopped abnormally (crashed or killed); flash the board again";
    case ProcessEnd::FailedToStart:
        return "Upload not done: " + name + " could not be started" +
               (detail.empty() ? std::string() : " (" + std::string(detail) + ")") +
               "; install it (on Debian: apt-get install avrdude)";
    }
    return {};
}

}  // namespace veltrin
