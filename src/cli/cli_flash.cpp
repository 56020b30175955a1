// (being written)
#include "cli/cli_commands.h"
namespace veltrin::cli {
void addFlashCommand(CLI::App&, int&) {}
}
