// veltrin-cli play: the play command of the desktop application. Plays the song (or, with
// --roll, the roll as the organ will read its holes) between the marks on the system's MIDI
// output, the built-in synthesizer, or into a WAV file. The first Ctrl-C, SIGTERM or SIGHUP
// stops it with every note switched off. veltrin-cli midi-ports lists the MIDI outputs.

#include <CLI/CLI.hpp>

#include <QSocketNotifier>
#include <QTemporaryDir>

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

#include "app/playback_plan.h"
#include "app/song_import.h"
#include "base/data_folders.h"
#include "cli/cli_commands.h"
#include "cli/cli_machine.h"
#include "cli/cli_run.h"
#include "cli/input_files.h"
#include "midi/resume_file.h"
#include "plan/plan_checks.h"
#include "scales/scale_file.h"
#include "view/midi_output_qt.h"
#include "view/playback_qt.h"

namespace veltrin::cli {

namespace {

struct PlayArgs {
    std::string song;
    bool roll = false;
    std::optional<double> startMark;
    std::optional<double> endMark;
    std::string port;
    bool synth = false;
    std::string wav;
    bool wavGiven = false;  // --wav given, even as ""
    std::string soundFont;
    std::string machine;
    std::string scale;
    std::vector<std::string> assignments;
    bool defaults = false;
};

void complain(const std::string& message)
{
    std::fflush(stdout);
    std::fprintf(stderr, "veltrin-cli play: %s\n", message.c_str());
}

// --wav names a new file or a regular file to replace, never the song.
std::string wavProblem(const std::string& wav, const std::string& song)
{
    namespace fs = std::filesystem;
    if (wav.empty())
        return "--wav \"\": name the WAV file to write";
    std::error_code error;
    const fs::file_status status = fs::status(wav, error);
    if (status.type() == fs::file_type::directory)
        return "--wav " + wav + ": a folder, not a file";
    if (status.type() != fs::file_type::not_found && status.type() != fs::file_type::regular)
        return "--wav " + wav + ": not a regular file (a device, a pipe or a socket)";
    if (status.type() == fs::file_type::regular && fs::equivalent(wav, song, error))
        return "--wav " + wav + ": that is the song; choose another file";
    const fs::path folder = fs::absolute(wav, error).parent_path();
    if (!fs::is_directory(folder, error))
        return "--wav " + wav + ": no folder " + folder.string();
    return {};
}

std::string seconds(double ms)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f s", ms / 1000.0);
    return text;
}

// The song's program in a folder of its own (cli_run.h): the playback list and, for --roll,
// the holes come from it. Nothing is saved.
int loadSong(const PlayArgs& args, AppState& state, const QTemporaryDir& scratch)
{
    if (const int loaded = loadSongForRun("play", {args.song, args.machine, args.scale, args.assignments, args.defaults},
                                          state, scratch);
        loaded != kExitOk)
        return loaded;
    // The marks hold for this playback only; the program stays the whole song's.
    if (args.startMark)
        state.debut_marque = *args.startMark;
    if (args.endMark)
        state.fin_marque = *args.endMark;
    return kExitOk;
}

int playLive(const PlayArgs& args, const PlaybackPlan& plan, std::unique_ptr<MidiSink> sink)
{
    const std::string name = sink->name();
    PlaybackController controller;
    bool stopped = false;
    const bool terminal = isatty(STDERR_FILENO);
    const double lengthMs = plan.schedule.durationMs();
    QObject::connect(&controller, &PlaybackController::finished, QCoreApplication::instance(),
                     [] { QCoreApplication::exit(0); });
    if (terminal) {
        QObject::connect(&controller, &PlaybackController::positionChanged, QCoreApplication::instance(),
                         [&](double songMs) {
                             const double fromMs = plan.schedule.firstSongMs.value_or(0.0);
                             std::fprintf(stderr, "\r\x1b[K%s of %s", seconds(songMs - fromMs).c_str(),
                                          seconds(lengthMs).c_str());
                         });
    }
    const StopSignals stopSignals;
    QSocketNotifier signalNotifier(stopSignals.readEnd(), QSocketNotifier::Read);
    QObject::connect(&signalNotifier, &QSocketNotifier::activated, QCoreApplication::instance(), [&] {
        stopSignals.drain();
        stopped = true;
        controller.stop();
    });

    std::printf("Playing %s (%s, %s) on %s\n", args.song.c_str(), args.roll ? "the roll" : "the song",
                seconds(lengthMs).c_str(), name.c_str());
    std::fflush(stdout);
    controller.play(plan.schedule, plan.mmPerSecond, std::move(sink));
    QCoreApplication::exec();
    if (terminal)
        std::fputs("\r\x1b[K", stderr);
    std::printf("%s\n", stopped ? "Stopped: every note switched off" : "End of the song");
    return kExitOk;
}

int runPlay(const PlayArgs& args)
{
    if (std::string problem = fileProblem(args.song); !problem.empty()) {
        complain("cannot read " + args.song + ": " + problem);
        return kExitUsage;
    }
    if (auto marks = checkMarks(args.startMark, args.endMark.value_or(500000.0)); !marks) {
        complain(marks.detail());
        return kExitUsage;
    }
    const CliApplication application;
    // The output first: a missing device is told before the song is even read.
    std::unique_ptr<MidiSink> sink;
    if (args.wavGiven) {
        if (std::string problem = wavProblem(args.wav, args.song); !problem.empty()) {
            complain(problem);
            return kExitUsage;
        }
        if (std::string problem = soundFontProblem(args.soundFont); !problem.empty()) {
            complain(problem);
            return kExitUsage;
        }
    } else {
        PlaybackOutput output;
        output.kind = !args.port.empty() ? PlaybackOutput::Kind::Port
                      : args.synth       ? PlaybackOutput::Kind::Synth
                                         : PlaybackOutput::Kind::Default;
        output.port = args.port;
        output.soundFont = args.soundFont;
        auto opened = openPlaybackOutput(output);
        if (!opened) {
            const bool noDevice = opened.error() == PlaybackOutputError::NoAudioDevice ||
                                  opened.error() == PlaybackOutputError::NoMidiOutput;
            complain(opened.detail() + (noDevice ? "; --wav FILE.wav renders the song without one" : ""));
            return kExitUsage;
        }
        sink = std::move(opened.value());
    }

    AppState state;
    const QTemporaryDir scratch;
    if (!scratch.isValid()) {
        complain("no temporary folder for the song's program");
        return kExitFailed;
    }
    if (const int loaded = loadSong(args, state, scratch); loaded != kExitOk)
        return loaded;
    const PlaybackPlan plan = playbackPlan(state, args.roll ? PlaybackSource::Roll : PlaybackSource::Song);
    if (plan.schedule.linesPlayed == 0)
        complain("nothing to play between the marks");

    if (args.wavGiven) {
        auto rendered = renderWav(plan.schedule, args.wav, args.soundFont);
        if (!rendered) {
            complain(rendered.detail());
            return rendered.error() == PlaybackOutputError::CannotWriteFile ? kExitFailed : kExitUsage;
        }
        std::printf("%s: %s of %s\n", args.wav.c_str(), seconds(rendered.value() * 1000.0).c_str(),
                    args.roll ? "the roll" : "the song");
        return kExitOk;
    }
    return playLive(args, plan, std::move(sink));
}

}  // namespace

void addPlayCommand(CLI::App& app, int& exitCode)
{
    auto args = std::make_shared<PlayArgs>();
    CLI::App* command = app.add_subcommand(
        "play", "Play a song as \"Play (p)\" does, or with --roll the roll as the organ will read its holes, "
                "on the MIDI output (with none, the built-in synthesizer) or into a WAV file");
    command->add_option("song", args->song, "MIDI file (.mid), or a resume file (.rep)")->required();
    command->add_flag("--roll", args->roll,
                      "Play the holes of the song's program as the organ reads them: bridges are short "
                      "silences, notes the scale has no track for are not heard");
    command->add_option("--start-mark", args->startMark, "Start mark in ms: play from there");
    command->add_option("--end-mark", args->endMark, "End mark in ms: stop at the first note there or after");
    CLI::Option* port = command->add_option(
        "--port", args->port, "MIDI output: its name, its number, or a part of its name (see midi-ports)");
    CLI::Option* synth = command->add_flag("--synth", args->synth, "Play on the built-in synthesizer");
    CLI::Option* wav = command->add_option("--wav", args->wav,
                                           "Render into this WAV file (no sound device needed), not in real time");
    port->excludes(synth, wav);
    synth->excludes(wav);
    command->add_option("--soundfont", args->soundFont,
                        "Sound font of the built-in synthesizer (default: the General MIDI font of "
                        "fluid-soundfont-gm)");
    command->add_option("--machine", args->machine, "Machine for this run: laser or punch")
        ->transform(CLI::IsMember({"laser", "punch"}, CLI::ignore_case));
    command->add_option("--scale", args->scale,
                        "Organ scale for this run: a built-in name or a scale file of the Instruments folder");
    command->add_option("--set", args->assignments, "KEY=VALUE: a setting for this run only, not saved (repeatable)")
        ->expected(1)
        ->take_all();
    command->add_flag("--defaults", args->defaults, "Ignore the stored settings (every key at its default)");
    command->callback([args, wav, &exitCode] {
        args->wavGiven = wav->count() > 0;
        exitCode = runPlay(*args);
    });
}

void addMidiPortsCommand(CLI::App& app, int& exitCode)
{
    CLI::App* command = app.add_subcommand(
        "midi-ports", "List the system's MIDI outputs (the default one marked); play --port takes a name or number");
    command->callback([&exitCode] {
        const MidiPortList ports = listMidiOutputs();
        const std::optional<std::size_t> chosen = defaultMidiPort(ports.names);
        for (std::size_t i = 0; i < ports.names.size(); ++i)
            std::printf("%zu: %s%s\n", i, ports.names[i].c_str(), chosen == i ? "  (default)" : "");
        if (!chosen) {
            std::fflush(stdout);
            const std::string why = ports.problem.empty() ? "the system has none" : ports.problem;
            std::fprintf(stderr, "veltrin-cli midi-ports: no MIDI output to play on: %s; play uses the built-in "
                                 "synthesizer\n",
                         why.c_str());
        }
        exitCode = kExitOk;
    });
}

}  // namespace veltrin::cli
