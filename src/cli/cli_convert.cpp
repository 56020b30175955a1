// veltrin-cli convert: the open command of the desktop application without its dialogs:
// decodes a song (or the song of a resume file), finds the best band width, writes the
// program, and prints the message log of the import and the program's path.

#include <CLI/CLI.hpp>

#include <QLocale>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/app_state.h"
#include "app/folders_qt.h"
#include "app/marks.h"
#include "app/settings_store_qt.h"
#include "app/song_import.h"
#include "app/startup.h"
#include "base/data_folders.h"
#include "cli/cli_commands.h"
#include "cli/input_files.h"
#include "midi/resume_file.h"
#include "plan/plan_checks.h"
#include "scales/scale_file.h"

namespace veltrin::cli {

namespace {

struct ConvertArgs {
    std::string song;
    std::string machine;
    std::string scale;
    std::vector<std::string> assignments;
    std::optional<double> startMark;
    std::optional<double> endMark;
    bool noWidthSearch = false;
    std::string out;
    bool outGiven = false;  // --out given, even as ""
    bool defaults = false;
};

void printMessage(std::string_view message)
{
    std::fwrite(message.data(), 1, message.size(), stdout);
    std::fputc('\n', stdout);
}

// The decoder's message has its two lines joined by CR LF; the terminal wants LF.
std::string terminalText(std::string text)
{
    for (std::size_t at = text.find("\r\n"); at != std::string::npos; at = text.find("\r\n", at))
        text.erase(at, 1);
    return text;
}

const char* importErrorText(ImportError error)
{
    switch (error) {
    case ImportError::NoFile:
        return "no song";
    case ImportError::UnreadableResumeFile:
        return "cannot read the resume file";
    case ImportError::UnreadableSong:
        return "cannot read the song";
    case ImportError::ProgramNotWritten:
        return "the program was not written";
    case ImportError::SettingsRefused:
        return "no program written";
    }
    return "import failed";
}

// The song (or resume file) must be a file that reads; a resume file's song too.
std::string inputProblem(const std::string& input, std::vector<std::string>& inputs)
{
    inputs.push_back(input);
    if (std::string problem = fileProblem(input); !problem.empty())
        return "cannot read " + input + ": " + problem;
    if (isResumePath(input)) {
        auto resume = readResumeFile(input);
        if (resume && !resume->songPath.empty()) {
            inputs.push_back(resume->songPath);
            if (std::string problem = fileProblem(resume->songPath); !problem.empty())
                return "cannot read the song of " + input + ", " + resume->songPath + ": " + problem;
        }
    }
    return {};
}

// --out names a new file or a regular file to replace, never one of the files read.
std::string outProblem(const std::string& out, const std::vector<std::string>& inputs)
{
    namespace fs = std::filesystem;
    std::error_code error;
    const fs::file_status status = fs::status(out, error);
    if (status.type() == fs::file_type::not_found)
        return {};
    if (status.type() == fs::file_type::directory)
        return "--out " + out + ": a folder, not a file";
    if (status.type() != fs::file_type::regular)
        return "--out " + out + ": not a regular file (a device, a pipe or a socket)";
    for (const std::string& input : inputs) {
        if (fs::equivalent(out, input, error))
            return "--out " + out + ": that is " + input + ", which is read; choose another file";
    }
    return {};
}

int runConvert(const ConvertArgs& args)
{
    const StartupFolders folders = platformFolders();

    std::vector<std::string> inputs;
    if (std::string problem = inputProblem(args.song, inputs); !problem.empty()) {
        std::fprintf(stderr, "veltrin-cli convert: %s\n", problem.c_str());
        return kExitUsage;
    }
    if (args.outGiven && args.out.empty()) {
        std::fprintf(stderr, "veltrin-cli convert: --out \"\": name the program file to write\n");
        return kExitUsage;
    }
    if (!args.out.empty()) {
        if (std::string problem = outProblem(args.out, inputs); !problem.empty()) {
            std::fprintf(stderr, "veltrin-cli convert: %s\n", problem.c_str());
            return kExitUsage;
        }
    }
    // The marks are checked before anything is written: the whole program comes first.
    if (auto marks = checkMarks(args.startMark, args.endMark.value_or(500000.0)); !marks) {
        std::fprintf(stderr, "veltrin-cli convert: %s\n", marks.detail().c_str());
        return kExitUsage;
    }

    // This run's settings: the stored ones (none with --defaults), then --set, then the
    // dedicated options. None of them is saved.
    std::vector<std::string> overrides = args.assignments;
    if (!args.machine.empty())
        overrides.push_back(std::string("Type_machine=") + (args.machine == "laser" ? "Laser" : "Punch"));
    if (!args.scale.empty())
        overrides.push_back("Standard=" + args.scale);

    std::unique_ptr<QtSettingsStore> stored;
    if (!args.defaults) {
        stored = std::make_unique<QtSettingsStore>();
        if (const std::string problem = stored->problem(); !problem.empty())
            std::fprintf(stderr, "veltrin-cli convert: %s\n", problem.c_str());
    }

    AppState state;
    // The report's figures follow the operator's locale, as in the window; the program's
    // numbers never do.
    const QString point = QLocale::system().decimalPoint();
    if (point.size() == 1 && point.front().unicode() < 0x80)
        state.reportDecimalSeparator = static_cast<char>(point.front().unicode());
    auto started = startForRun(state, stored.get(), overrides, folders);
    if (!started) {
        std::fprintf(stderr, "veltrin-cli convert: %s: %s\n",
                     started.error() == SettingsError::UnknownKey ? "unknown setting"
                                                                  : "expected KEY=VALUE",
                     started.detail().c_str());
        return kExitUsage;
    }
    // The start-up log is not the import's, but its warnings (a scale file that does not say
    // what its maker meant) are worth reading.
    const std::string startupLog = state.user_msg_list.text();
    for (std::size_t at = 0; at < startupLog.size();) {
        std::size_t end = startupLog.find("\r\n", at);
        if (end == std::string::npos)
            end = startupLog.size();
        const std::string line = startupLog.substr(at, end - at);
        if (line.starts_with("Warning: "))
            std::fprintf(stderr, "veltrin-cli convert: %s\n", line.c_str());
        at = end + 2;
    }
    // The scale may come from --scale, --set Standard=... or the stored settings: a file
    // scale whose file is not there would put every note out of the scale.
    const std::string& scale = state.settings.Standard;
    if (!isBuiltInScale(scale) && scaleFilePath(state.dossier_documents, scale).empty()) {
        const std::string file = instrumentsFolder(state.dossier_documents) + "/" + scale + ".txt";
        std::fprintf(stderr, "veltrin-cli convert: unknown scale \"%s\" (no %s)\n", scale.c_str(), file.c_str());
        return kExitUsage;
    }
    // Settings that would make a program Grbl rejects or misreads stop the run here, before
    // the song is even decoded (a resume file brings its own, checked by the generation).
    if (!isResumePath(args.song)) {
        if (auto checked = checkGenerationSettings(state.settings, state.scale); !checked) {
            std::fprintf(stderr, "veltrin-cli convert: %s\n", checked.detail().c_str());
            return kExitUsage;
        }
    }
    state.programPathOverride = args.out;

    // From here on the log is the import's: print it as it grows.
    // With a mark the song's whole program comes first and the program between the marks
    // replaces it: only the report of the last one is printed (a report runs from its first
    // "   - " line until the next "Gcode writing between marks" or the end).
    const bool marked = args.startMark || args.endMark;
    auto heldReport = std::make_shared<std::vector<std::string>>();
    auto holding = std::make_shared<bool>(false);
    if (marked) {
        state.user_msg_list.setListener([heldReport, holding](std::string_view message) {
            if (message == "Gcode writing between marks") {
                heldReport->clear();
                *holding = false;
            } else if (message.starts_with("   - Cuttings length : ") || message.starts_with("   - Overall distances : ")) {
                *holding = true;
            }
            if (*holding)
                heldReport->emplace_back(message);
            else
                printMessage(message);
        });
    } else {
        state.user_msg_list.setListener(printMessage);
    }

    ImportOptions options;
    // The band width the search chooses is saved, as in the application.
    options.store = stored.get();
    // A band width given with --set is used as given: no search replaces it.
    const bool widthGiven = std::any_of(args.assignments.begin(), args.assignments.end(),
                                        [](const std::string& a) { return a.starts_with("Fourchette="); });
    options.widthSearch = !args.noWidthSearch && !widthGiven;
    auto imported = Ouvre_midi(state, {args.song}, 0, options);
    if (imported && imported->decoderError != 0) {
        std::fflush(stdout);
        std::fprintf(stderr, "%s\n", terminalText(imported->decoderMessage).c_str());
    }
    if (!imported) {
        std::fflush(stdout);
        std::fprintf(stderr, "veltrin-cli convert: %s: %s\n", importErrorText(imported.error()),
                     imported.detail().c_str());
        return imported.error() == ImportError::ProgramNotWritten ? kExitFailed : kExitUsage;
    }
    std::string program = imported->programPath;

    // Both marks: the start is stored as it stands (checked above) and the end mark writes
    // the one program between them.
    if (args.startMark && args.endMark)
        state.debut_marque = *args.startMark;
    for (const auto& [mark, setMark] :
         {std::pair{args.startMark, &setStartMark}, std::pair{args.endMark, &setEndMark}}) {
        if (!mark || (setMark == &setStartMark && args.endMark))
            continue;
        auto written = setMark(state, *mark);
        if (!written) {
            std::fflush(stdout);
            std::fprintf(stderr, "veltrin-cli convert: the program between marks was not written: %s\n",
                         written.detail().c_str());
            return written.error() == PlanError::CannotWriteProgram ? kExitFailed : kExitUsage;
        }
        program = written.value();
    }
    for (const std::string& line : *heldReport)
        printMessage(line);

    printMessage(program);
    std::fflush(stdout);
    return kExitOk;
}

}  // namespace

void addConvertCommand(CLI::App& app, int& exitCode)
{
    auto args = std::make_shared<ConvertArgs>();
    CLI::App* command = app.add_subcommand(
        "convert", "Turn a song (.mid) or a resume file (.mid.rep) into a G-code program, as "
                   "\"Open midi file...\" does; prints the log and the program's path");
    command->add_option("song", args->song,
                        "MIDI file (.mid) or resume file (.rep: the song is made again with the "
                        "settings of its interrupted program, none of them saved)")
        ->required();
    command->add_option("--machine", args->machine, "Machine for this run: laser or punch")
        ->transform(CLI::IsMember({"laser", "punch"}, CLI::ignore_case));
    command->add_option("--scale", args->scale,
                        "Organ scale for this run: a built-in name or a scale file of the "
                        "Instruments folder (without .txt)");
    command->add_option("--set", args->assignments,
                        "KEY=VALUE: a setting for this run only, not saved (repeatable); "
                        "Fourchette given so is used as given, without the width search")
        ->expected(1)
        ->take_all();
    command->add_option("--start-mark", args->startMark,
                        "Start mark in ms: also write the program between the marks");
    command->add_option("--end-mark", args->endMark,
                        "End mark in ms: also write the program between the marks");
    command->add_flag("--no-width-search", args->noWidthSearch,
                      "Keep Fourchette instead of searching the best band width");
    CLI::Option* out = command->add_option("--out", args->out,
                        "Write the program here instead of the Temp folder (with a mark: the "
                        "program between the marks): a new file or a file to replace, never the "
                        "song read");
    command->add_flag("--defaults", args->defaults,
                      "Ignore the stored settings (every key at its default); nothing is saved");
    command->callback([args, out, &exitCode] {
        args->outGiven = out->count() > 0;
        exitCode = runConvert(*args);
    });
}

}  // namespace veltrin::cli
