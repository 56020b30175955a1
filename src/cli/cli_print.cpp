// (being written)
#include "cli/cli_commands.h"
namespace veltrin::cli {
void addPrintCommand(CLI::App&, int&) {}
}
