// (being written)
#include "cli/cli_commands.h"
namespace veltrin::cli {
void addPlayCommand(CLI::App&, int&) {}
void addMidiPortsCommand(CLI::App&, int&) {}
}
