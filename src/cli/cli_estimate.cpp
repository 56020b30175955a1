// (being written)
#include "cli/cli_commands.h"
namespace veltrin::cli {
void addEstimateCommand(CLI::App&, int&) {}
}
