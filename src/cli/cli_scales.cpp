// veltrin-cli scales: the names an organ scale can be chosen by, one per line.

#include <CLI/CLI.hpp>

#include <cstdio>
#include <string>

#include "app/folders_qt.h"
#include "cli/cli_commands.h"
#include "scales/scale_file.h"

namespace veltrin::cli {

void addScalesCommand(CLI::App& app, int& exitCode)
{
    CLI::App* command = app.add_subcommand(
        "scales", "List the organ scales: the built-in ones, then the files of "
                  "<Documents>/Veltrin/Instruments (VELTRIN_DOCUMENTS replaces Documents)");
    command->callback([&exitCode] {
        for (const std::string& name : list_std_perso(lire_dossier_documents()))
            std::printf("%s\n", name.c_str());
        std::fflush(stdout);
        exitCode = kExitOk;
    });
}

}  // namespace veltrin::cli
