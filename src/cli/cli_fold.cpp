// (being written)
#include "cli/cli_commands.h"
namespace veltrin::cli {
void addFoldCommand(CLI::App&, int&) {}
void addFoldFileCommand(CLI::App&, int&) {}
}
