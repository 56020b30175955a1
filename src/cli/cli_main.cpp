// veltrin-cli: convert, decode, stream and inspect from the command line, through the same
// core as the desktop application.

#include <CLI/CLI.hpp>

#include "cli/cli_commands.h"

namespace {

// Options and the song (or program) may come in any order. An option that can be given
// several times takes one value each time it is given: left to itself, CLI11 lets such an
// option take the words that follow it ("extra arguments"), the song or program included.
void oneValuePerOption(CLI::App& app)
{
    for (CLI::App* command : app.get_subcommands([](CLI::App*) { return true; })) {
        for (CLI::Option* option : command->get_options()) {
            if (!option->nonpositional() || (option->get_expected_max() <= 1 && !option->get_allow_extra_args()))
                continue;
            option->expected(1);
            option->allow_extra_args(false);
            option->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
        }
        oneValuePerOption(*command);
    }
}

}  // namespace

int main(int argc, char** argv)
{
    CLI::App app{"Veltrin: MIDI songs to barrel-organ rolls and books, and the machine that cuts them",
                 "veltrin-cli"};
    app.require_subcommand(1);
    app.set_version_flag("--version", std::string("veltrin-cli ") + VELTRIN_VERSION);
    int exitCode = veltrin::cli::kExitOk;
    // Commands (one line each; see cli_commands.h).
    veltrin::cli::addConvertCommand(app, exitCode);
    veltrin::cli::addDecodeCommand(app, exitCode);
    veltrin::cli::addScalesCommand(app, exitCode);
    veltrin::cli::addSettingsCommand(app, exitCode);
    veltrin::cli::addStreamCommand(app, exitCode);
    veltrin::cli::addConsoleCommand(app, exitCode);
    veltrin::cli::addEmulateCommand(app, exitCode);
    veltrin::cli::addPlayCommand(app, exitCode);
    veltrin::cli::addMidiPortsCommand(app, exitCode);
    veltrin::cli::addFoldCommand(app, exitCode);
    veltrin::cli::addFoldFileCommand(app, exitCode);
    veltrin::cli::addFlashCommand(app, exitCode);
    veltrin::cli::addVerifyCommand(app, exitCode);
    veltrin::cli::addRollMidiCommand(app, exitCode);
    veltrin::cli::addEstimateCommand(app, exitCode);
    veltrin::cli::addPrintCommand(app, exitCode);
    oneValuePerOption(app);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // Help and --version end the run successfully; anything else is bad usage.
        const int code = app.exit(e);
        return code == 0 ? veltrin::cli::kExitOk : veltrin::cli::kExitUsage;
    }
    return exitCode;
}
