// veltrin-cli: convert, decode, stream and inspect from the command line, through the same
// core as the desktop application.

#include <CLI/CLI.hpp>

#include "app/cli_commands.h"

int main(int argc, char** argv)
{
    CLI::App app{"Veltrin: MIDI songs to barrel-organ rolls and books, and the machine that cuts them",
                 "veltrin-cli"};
    app.require_subcommand(1);
    int exitCode = veltrin::cli::kExitOk;
    // Commands (one line each; see cli_commands.h).
    veltrin::cli::addConvertCommand(app, exitCode);
    veltrin::cli::addDecodeCommand(app, exitCode);
    veltrin::cli::addScalesCommand(app, exitCode);
    veltrin::cli::addStreamCommand(app, exitCode);
    veltrin::cli::addConsoleCommand(app, exitCode);
    veltrin::cli::addEmulateCommand(app, exitCode);

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return veltrin::cli::kExitUsage;
    }
    return exitCode;
}
