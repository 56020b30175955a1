#pragma once
// Flashing Grbl onto the machine's board (an Arduino Uno or Nano, ATmega328P) with avrdude:
// the boards of the "Grbl upload" menu, avrdude's argument list, where the firmware image is
// looked for, and the end of the upload in words.

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace veltrin {

enum class GrblBoard { Uno, NanoNew, NanoOld };

struct GrblBoardEntry {
    GrblBoard board;
    std::string_view menuText;  // the "Grbl upload" menu entry
    std::string_view handler;   // the window's handler of that entry
    std::string_view cliName;   // veltrin-cli flash --board
    std::string_view speed;     // the serial speed of the board's boot loader
};

// The three entries of the "Grbl upload" menu, in menu order: "Uno - Uno rev3" (115200),
// "Nano (new bootloader 01-2018)" (115200), "Nano (old bootloader)" (57600).
const std::array<GrblBoardEntry, 3>& grblBoards();
const GrblBoardEntry& boardEntry(GrblBoard board);
// The board of a --board name ("uno", "nano", "nano-old").
std::optional<GrblBoard> boardByCliName(std::string_view name);

// The question asked before anything is done; No is the default answer.
inline constexpr std::string_view kReflashQuestion = "Really want to re-flash firmware ?";

// avrdude's arguments, program name excluded: "-v", "-pm328p", "-carduino", "-P<port>",
// "-b<speed>", "-D" (no chip erase), "-Uflash:w:<image>:i" (write the flash from an Intel hex
// file). port is the port's system location ("/dev/ttyUSB0", "COM3").
std::vector<std::string> avrdudeArguments(GrblBoard board, std::string_view port, std::string_view image);

// The image's name, and where it stands below a folder that holds it.
inline constexpr std::string_view kFirmwareImageName = "Veltrin_grblUpload.hex";
inline constexpr std::string_view kFirmwareImageSubfolder = "Veltrin_uploader/Binaire";

// The paths where the image is looked for, in order: below each folder given (the
// executable's folder, dossier_appli, first; then the installed data folders).
std::vector<std::string> firmwareImageCandidates(const std::vector<std::string>& folders);

// How avrdude's process ended.
enum class ProcessEnd {
    Exited,         // it ran and returned exitCode
    Crashed,        // it crashed or was killed
    FailedToStart,  // the program was not found or could not be run
};

// The end of an upload in words, for the log: "Upload done: Grbl is on the board" for exit
// status 0, else what failed and with which exit status. detail: the system's reason when it
// failed to start.
std::string uploadOutcomeText(ProcessEnd end, int exitCode, std::string_view program, std::string_view detail);

}  // namespace veltrin
