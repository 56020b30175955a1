// veltrin-cli print: the roll (or book) of a song at 1:1 on A4 or Letter sheets, as a PDF
// to print or an SVG to look at and edit: the holes as the machine will cut them, the
// tracks, a book's folds, the joins between sheets and a footer naming the song, the scale,
// the machine and the settings that shape the holes.

#include <CLI/CLI.hpp>

#include <QGuiApplication>
#include <QTemporaryDir>

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "app/roll_snapshot.h"
#include "app/song_import.h"
#include "base/data_folders.h"
#include "cli/cli_commands.h"
#include "cli/cli_run.h"
#include "cli/cli_machine.h"
#include "cli/input_files.h"
#include "midi/resume_file.h"
#include "plan/plan_checks.h"
#include "scales/scale_file.h"
#include "view/roll_print_qt.h"

namespace veltrin::cli {

namespace {

struct PrintArgs {
    std::string song;
    std::string out;
    std::string paper = "a4";
    double marginMm = 10.0;
    double overlapMm = 10.0;
    std::string machine;
    std::string scale;
    std::vector<std::string> assignments;
    bool defaults = false;
};

void complain(const std::string& message)
{
    std::fflush(stdout);
    std::fprintf(stderr, "veltrin-cli print: %s\n", message.c_str());
}

// --out names a new or regular .pdf or .svg file, in a folder that exists, never the song.
std::string outProblem(const std::string& out, const std::string& song)
{
    namespace fs = std::filesystem;
    const std::string extension = [&] {
        std::string text = fs::path(out).extension().string();
        for (char& c : text)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return text;
    }();
    if (extension != ".pdf" && extension != ".svg")
        return "--out " + out + ": name a .pdf file (to print) or a .svg file (to edit)";
    std::error_code error;
    const fs::file_status status = fs::status(out, error);
    if (status.type() == fs::file_type::directory)
        return "--out " + out + ": a folder, not a file";
    if (status.type() != fs::file_type::not_found && status.type() != fs::file_type::regular)
        return "--out " + out + ": not a regular file (a device, a pipe or a socket)";
    if (status.type() == fs::file_type::regular && fs::equivalent(out, song, error))
        return "--out " + out + ": that is the song; choose another file";
    const fs::path folder = fs::absolute(out, error).parent_path();
    if (!fs::is_directory(folder, error))
        return "--out " + out + ": no folder " + folder.string();
    return {};
}

// Text needs a QGuiApplication; the offscreen platform needs no display, and a print
// command never shows a window.
class PrintApplication {
public:
    PrintApplication()
    {
        qputenv("QT_QPA_PLATFORM", "offscreen");
        m_application = std::make_unique<QGuiApplication>(m_argc, m_argv);
    }

private:
    int m_argc = 1;
    char m_name[12] = "veltrin-cli";
    char* m_argv[2] = {m_name, nullptr};
    std::unique_ptr<QGuiApplication> m_application;
};

int runPrint(const PrintArgs& args)
{
    if (std::string problem = fileProblem(args.song); !problem.empty()) {
        complain("cannot read " + args.song + ": " + problem);
        return kExitUsage;
    }
    if (std::string problem = outProblem(args.out, args.song); !problem.empty()) {
        complain(problem);
        return kExitUsage;
    }
    const PrintApplication application;
    AppState state;
    const QTemporaryDir scratch;
    if (!scratch.isValid()) {
        complain("no temporary folder for the song's program");
        return kExitFailed;
    }
    if (const int loaded = loadSongForRun("print", {args.song, args.machine, args.scale, args.assignments, args.defaults},
                                          state, scratch);
        loaded != kExitOk)
        return loaded;

    PrintOptions options;
    options.paper = args.paper == "letter" ? Paper::Letter : Paper::A4;
    options.marginMm = args.marginMm;
    options.overlapMm = args.overlapMm;
    options.footer = printFooterOf(state);
    const RollPicture picture = rollPictureOf(state);
    auto printed = printRoll(picture, options, QString::fromStdString(args.out));
    if (!printed) {
        complain(printed.detail());
        return printed.error() == PrintError::CannotWrite ? kExitFailed : kExitUsage;
    }
    const auto layout = layRollOnPaper(picture, options);
    std::printf("%s: %d %s of %s paper, the roll along the %s side, %.1f mm long; print at actual size (100 %%)\n",
                args.out.c_str(), printed.value(), printed.value() == 1 ? "sheet" : "sheets", paperName(options.paper),
                layout->turned ? "short" : "long", layout->lengthMm);
    if (state.notes_hors_gamme > 0)
        std::printf("%d notes of the song have no track in the scale and are not on the roll\n",
                    state.notes_hors_gamme);
    return kExitOk;
}

}  // namespace

void addPrintCommand(CLI::App& app, int& exitCode)
{
    auto args = std::make_shared<PrintArgs>();
    CLI::App* command = app.add_subcommand(
        "print", "The roll (or book) of a song at actual size on A4 or Letter sheets: a PDF to print, an SVG to edit");
    command->add_option("song", args->song, "MIDI file (.mid), or a resume file (.rep)")->required();
    command->add_option("--out", args->out, "The file to write: FILE.pdf or FILE.svg")->required();
    command->add_option("--paper", args->paper, "Paper: a4 or letter (default a4)")
        ->transform(CLI::IsMember({"a4", "letter"}, CLI::ignore_case));
    command->add_option("--margin", args->marginMm,
                        "Border the printer leaves blank on each side, mm (default 10, at most 40)");
    command->add_option("--overlap", args->overlapMm,
                        "Roll shown on both of two consecutive sheets, to join them, mm (default 10)");
    command->add_option("--machine", args->machine, "Machine for this run: laser or punch")
        ->transform(CLI::IsMember({"laser", "punch"}, CLI::ignore_case));
    command->add_option("--scale", args->scale,
                        "Organ scale for this run: a built-in name or a scale file of the Instruments folder");
    command->add_option("--set", args->assignments, "KEY=VALUE: a setting for this run only, not saved (repeatable)")
        ->expected(1)
        ->take_all();
    command->add_flag("--defaults", args->defaults, "Ignore the stored settings (every key at its default)");
    command->callback([args, &exitCode] { exitCode = runPrint(*args); });
}

}  // namespace veltrin::cli
