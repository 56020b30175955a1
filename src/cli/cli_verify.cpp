// veltrin-cli verify and roll-midi: a program (ours or edited by hand) read back into the
// holes it makes and the notes the organ will play from them; verify checks them, against
// the song when one is given, and roll-midi writes them as a MIDI file.

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "app/app_state.h"
#include "app/arranging.h"
#include "app/folders_qt.h"
#include "app/genere_gcode.h"
#include "app/settings_store_qt.h"
#include "app/startup.h"
#include "base/numeric_text.h"
#include "cli/cli_commands.h"
#include "cli/input_files.h"
#include "midi/mdlvert.h"
#include "midi/resume_file.h"
#include "scales/scale_file.h"

namespace veltrin::cli {

namespace {

struct ReadBackArgs {
    std::string program;
    std::string song;  // verify: the song to compare with; roll-midi: the MIDI file to write
    std::string machine;
    std::string scale;
    std::vector<std::string> assignments;
    std::optional<double> startMark;
    std::optional<double> endMark;
    bool defaults = false;
};

void printLine(std::string_view line)
{
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
}

bool readFile(const std::string& path, std::string& text)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return false;
    text.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    return !file.bad();
}

// The keys a scale sets, which a scale chosen on the command line replaces.
bool isScaleKey(std::string_view key)
{
    static const std::set<std::string_view> keys = {"Standard", "notes", "nb_notes", "standard_AF_actif",
                                                    "longueur_pli", "Vitcarton", "Ldecoupe", "Dist_notes",
                                                    "Talon", "BassesAF"};
    return keys.count(key) > 0;
}

// The run: its settings (stored, or defaults) with the command line's, the program's text,
// and the values it was made with (the record beside it), less what the command line sets.
struct ReadBack {
    AppState state;
    std::string text;
    SettingList madeWith;
    std::string settingsNote;
    std::string recordedSong;  // the song the record names, if any
};

int prepare(const char* command, const ReadBackArgs& args, ReadBack& run)
{
    if (std::string problem = programFileProblem(args.program); !problem.empty()) {
        std::fprintf(stderr, "veltrin-cli %s: cannot read %s: %s\n", command, args.program.c_str(), problem.c_str());
        return kExitUsage;
    }
    if (!readFile(args.program, run.text)) {
        std::fprintf(stderr, "veltrin-cli %s: cannot read %s\n", command, args.program.c_str());
        return kExitUsage;
    }
    std::vector<std::string> overrides = args.assignments;
    if (!args.machine.empty())
        overrides.push_back(std::string("Type_machine=") + (args.machine == "laser" ? "Laser" : "Punch"));
    if (!args.scale.empty())
        overrides.push_back("Standard=" + args.scale);
    std::unique_ptr<QtSettingsStore> stored;
    if (!args.defaults)
        stored = std::make_unique<QtSettingsStore>();
    auto started = startForRun(run.state, stored.get(), overrides, platformFolders());
    if (!started) {
        std::fprintf(stderr, "veltrin-cli %s: %s: %s\n", command,
                     started.error() == SettingsError::UnknownKey ? "unknown setting" : "expected KEY=VALUE",
                     started.detail().c_str());
        return kExitUsage;
    }
    const std::string& scale = run.state.settings.Standard;
    if (!isBuiltInScale(scale) && scaleFilePath(run.state.dossier_documents, scale).empty()) {
        std::fprintf(stderr, "veltrin-cli %s: unknown scale \"%s\"\n", command, scale.c_str());
        return kExitUsage;
    }

    // What the program was made with, unless the command line says otherwise.
    bool textMatches = false;
    auto record = readProgramRecord(args.program, run.text, &textMatches);
    if (record) {
        run.recordedSong = record->songPath;
        std::set<std::string> given;
        for (const std::string& assignment : overrides) {
            std::string key = assignment.substr(0, assignment.find('='));
            if (key.size() > 2 && key.ends_with("AF") && isScaleKey(key.substr(0, key.size() - 2)))
                key.resize(key.size() - 2);
            given.insert(key);
        }
        const bool scaleGiven = given.count("Standard") > 0;
        for (auto& [key, value] : record->settings) {
            if (given.count(key) == 0 && !(scaleGiven && isScaleKey(key)))
                run.madeWith.emplace_back(key, value);
        }
        run.settingsNote = textMatches ? "Settings : those the program was made with (" +
                                             programRecordPath(args.program) + ")"
                                       : "Settings : those recorded beside the program (" +
                                             programRecordPath(args.program) + "); the program was changed since";
    } else {
        run.settingsNote = "Settings : the current ones (no record beside the program)";
    }
    if (!args.machine.empty())
        run.madeWith.emplace_back("Type_machine", args.machine == "laser" ? "Laser" : "Punch");
    std::erase_if(run.madeWith, [&](const auto& entry) {
        return (args.startMark && entry.first == "debut_marque") || (args.endMark && entry.first == "fin_marque");
    });
    if (args.startMark)
        run.madeWith.emplace_back("debut_marque", plainNumber(*args.startMark));
    if (args.endMark)
        run.madeWith.emplace_back("fin_marque", plainNumber(*args.endMark));
    return kExitOk;
}

int runVerify(const ReadBackArgs& args)
{
    ReadBack run;
    if (const int code = prepare("verify", args, run); code != kExitOk)
        return code;
    const bool againstSong = !args.song.empty();
    if (againstSong) {
        if (std::string problem = fileProblem(args.song); !problem.empty()) {
            std::fprintf(stderr, "veltrin-cli verify: cannot read %s: %s\n", args.song.c_str(), problem.c_str());
            return kExitUsage;
        }
        std::string bytes;
        readFile(args.song, bytes);
        DecodeResult decoded = Vertalen(
            std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()), args.song);
        if (decoded.errorCode == kDecodeNoHeaderChunk || decoded.errorCode == kDecodeNoTrackChunk) {
            std::fprintf(stderr, "veltrin-cli verify: %s is not a MIDI song\n", args.song.c_str());
            return kExitUsage;
        }
        if (decoded.errorCode != 0) {
            std::erase(decoded.errorMessage, '\r');
            std::fprintf(stderr, "veltrin-cli verify: %s: %s\n", args.song.c_str(), decoded.errorMessage.c_str());
        }
        run.state.Liste_tran = std::move(decoded.lines);
        run.state.chemin_morceau = args.song;
    }
    auto check = checkProgram(run.state, run.text, run.madeWith, againstSong);
    if (!check) {
        std::fprintf(stderr, "veltrin-cli verify: %s\n", check.detail().c_str());
        return kExitUsage;
    }
    printLine("Program : " + args.program);
    printLine(run.settingsNote);
    if (againstSong) {
        printLine("Song : " + args.song);
        std::error_code error;
        if (!run.recordedSong.empty() && !std::filesystem::equivalent(run.recordedSong, args.song, error))
            printLine("Warning: the program was made from " + run.recordedSong + ", not from this song");
    }
    for (const std::string& line : check->report)
        printLine(line);
    std::fflush(stdout);
    return check->ok() ? kExitOk : kExitFailed;
}

int runRollMidi(const ReadBackArgs& args)
{
    ReadBack run;
    if (const int code = prepare("roll-midi", args, run); code != kExitOk)
        return code;
    namespace fs = std::filesystem;
    std::error_code error;
    const fs::file_status status = fs::status(args.song, error);
    if (status.type() == fs::file_type::directory ||
        (status.type() != fs::file_type::not_found && fs::equivalent(args.song, args.program, error))) {
        std::fprintf(stderr, "veltrin-cli roll-midi: %s: choose a new file or a MIDI file to replace\n",
                     args.song.c_str());
        return kExitUsage;
    }
    auto check = checkProgram(run.state, run.text, run.madeWith, false);
    if (!check) {
        std::fprintf(stderr, "veltrin-cli roll-midi: %s\n", check.detail().c_str());
        return kExitUsage;
    }
    const std::vector<std::uint8_t> bytes = rollMidiFile(check.value(), songTitle(args.program));
    auto written = writeFileDurably(args.song, std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()),
                                    false);
    if (!written) {
        std::fprintf(stderr, "veltrin-cli roll-midi: cannot write %s\n", written.detail().c_str());
        return kExitFailed;
    }
    printLine(check->report.front());
    for (const std::string& warning : check->roll.warnings)
        std::fprintf(stderr, "veltrin-cli roll-midi: %s\n", warning.c_str());
    printLine(std::to_string(check->notes.size()) + (check->notes.size() == 1 ? " note written to " : " notes written to ") +
              args.song);
    std::fflush(stdout);
    return kExitOk;
}

// The options both commands take: the values a program is read with.
void addReadingOptions(CLI::App* command, ReadBackArgs& args)
{
    command->add_option("--machine", args.machine, "Read the program for this machine: laser or punch")
        ->transform(CLI::IsMember({"laser", "punch"}, CLI::ignore_case));
    command->add_option("--scale", args.scale, "Organ scale the roll is for: a built-in name or a scale file");
    command->add_option("--set", args.assignments, "KEY=VALUE: a value to read the program with (repeatable)")
        ->expected(1)
        ->take_all();
    command->add_flag("--defaults", args.defaults, "Start from the default settings instead of the stored ones");
}

}  // namespace

void addVerifyCommand(CLI::App& app, int& exitCode)
{
    auto args = std::make_shared<ReadBackArgs>();
    CLI::App* command = app.add_subcommand(
        "verify", "Read a G-code program back into the notes the organ will play and check it, against the song "
                  "when given: notes missing, extra or shifted, slots with no bridge, double cuts; exit 1 when "
                  "the program would not play the song as planned");
    command->add_option("program", args->program, "G-code program (.gcode)")->required();
    command->add_option("song", args->song, "MIDI file the program was made from");
    addReadingOptions(command, *args);
    command->add_option("--start-mark", args->startMark, "The program starts at this mark (ms)");
    command->add_option("--end-mark", args->endMark, "The program ends at this mark (ms)");
    command->callback([args, &exitCode] { exitCode = runVerify(*args); });
}

void addRollMidiCommand(CLI::App& app, int& exitCode)
{
    auto args = std::make_shared<ReadBackArgs>();
    CLI::App* command =
        app.add_subcommand("roll-midi", "Write the notes the organ will play from a G-code program as a MIDI file");
    command->add_option("program", args->program, "G-code program (.gcode)")->required();
    command->add_option("out", args->song, "MIDI file to write")->required();
    addReadingOptions(command, *args);
    command->callback([args, &exitCode] { exitCode = runRollMidi(*args); });
}

}  // namespace veltrin::cli
