// veltrin-cli estimate: the machine time of any G-code program on a Grbl 1.1 board, from the
// model of Grbl's planner, with the board's "$$" settings or Grbl's defaults.

#include <CLI/CLI.hpp>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>

#include "base/numeric_text.h"
#include "cli/cli_commands.h"
#include "cli/input_files.h"
#include "machine/grbl_planner.h"

namespace veltrin::cli {

namespace {

struct EstimateArgs {
    std::string program;
    std::string settingsFile;
    std::optional<double> homingSearchMm;
};

bool readText(const std::string& path, std::string& text)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return false;
    text.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    return !file.bad();
}

std::string clock(double seconds)
{
    // machineTimeLine's "hh:mm:ss" after its label.
    const std::string line = machineTimeLine(seconds);
    return line.substr(line.find(" : ") + 3);
}

// The values the time depends on most, as "$$" gives them.
std::string settingsSummary(const GrblSettings& s)
{
    std::string text;
    const auto add = [&](int number, double value) {
        text += (text.empty() ? "$" : " $") + std::to_string(number) + "=" + plainNumber(value);
    };
    for (int axis = 0; axis < 3; ++axis)
        add(110 + axis, s.maxRateMmPerMin[axis]);
    for (int axis = 0; axis < 3; ++axis)
        add(120 + axis, s.accelerationMmPerS2[axis]);
    add(11, s.junctionDeviationMm);
    add(32, s.laserMode ? 1 : 0);
    return text;
}

int runEstimate(const EstimateArgs& args)
{
    std::string program;
    if (std::string problem = programFileProblem(args.program); !problem.empty() || !readText(args.program, program)) {
        std::fprintf(stderr, "veltrin-cli estimate: cannot read %s: %s\n", args.program.c_str(),
                     problem.empty() ? "read error" : problem.c_str());
        return kExitUsage;
    }
    GrblSettings settings = GrblSettings::defaults();
    std::string source = "Grbl 1.1 defaults";
    if (!args.settingsFile.empty()) {
        std::string text;
        if (std::string problem = fileProblem(args.settingsFile); !problem.empty() || !readText(args.settingsFile, text)) {
            std::fprintf(stderr, "veltrin-cli estimate: cannot read %s: %s\n", args.settingsFile.c_str(),
                         problem.empty() ? "read error" : problem.c_str());
            return kExitUsage;
        }
        auto parsed = parseSettingsText(text);
        if (!parsed) {
            std::fprintf(stderr, "veltrin-cli estimate: %s holds no usable Grbl settings: %s\n",
                         args.settingsFile.c_str(), parsed.detail().c_str());
            return kExitUsage;
        }
        settings = parsed.value();
        source = args.settingsFile;
    }
    EstimateOptions options;
    options.homingSearchMm = args.homingSearchMm;
    const MachineTime time = estimateProgramText(program, settings, options);

    std::printf("%s\n", machineTimeLine(time.seconds).c_str());
    std::printf("   - Lines : %zu, moves : %zu\n", time.answeredAt.size(), time.moves);
    if (time.homingSeconds > 0)
        std::printf("   - Homing : %s\n", clock(time.homingSeconds).c_str());
    if (time.dwellSeconds > 0)
        std::printf("   - Dwells : %s\n", clock(time.dwellSeconds).c_str());
    if (time.refusedLines > 0)
        std::printf("   - Lines Grbl refuses : %zu\n", time.refusedLines);
    std::printf("   - Settings : %s (%s)\n", source.c_str(), settingsSummary(settings).c_str());
    for (const MachineTimeNote& note : time.notes)
        std::fprintf(stderr, "veltrin-cli estimate: line %zu: %s\n", note.line, note.text.c_str());
    if (time.moreNotes > 0)
        std::fprintf(stderr, "veltrin-cli estimate: %zu more notes like these\n", time.moreNotes);
    return kExitOk;
}

}  // namespace

void addEstimateCommand(CLI::App& app, int& exitCode)
{
    auto args = std::make_shared<EstimateArgs>();
    CLI::App* command = app.add_subcommand(
        "estimate", "Print the machine time of a G-code program on a Grbl 1.1 board (a model of its planner)");
    command->add_option("program", args->program, "G-code program (.gcode)")->required();
    command->add_option("--grbl-settings", args->settingsFile,
                        "The board's \"$$\" answer saved in a file (default: Grbl 1.1's factory settings)");
    command->add_option("--homing-search", args->homingSearchMm,
                        "Distance in mm from the X head to its switch when the program homes "
                        "(default: half the X travel $130)")
        ->check(CLI::Range(0.0, 1e6));
    command->callback([args, &exitCode] { exitCode = runEstimate(*args); });
}

}  // namespace veltrin::cli
