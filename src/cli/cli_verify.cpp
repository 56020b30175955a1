// (being written)
#include "cli/cli_commands.h"
namespace veltrin::cli {
void addVerifyCommand(CLI::App&, int&) {}
void addRollMidiCommand(CLI::App&, int&) {}
}
