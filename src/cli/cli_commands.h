#pragma once
// The commands of veltrin-cli, one file each (cli_decode.cpp, cli_scales.cpp, ...). Each
// add...Command adds its subcommand to app; the subcommand's callback runs the command and
// stores its exit code in exitCode.

namespace CLI {
class App;
}

namespace veltrin::cli {

// Exit codes: 0 done, 1 the job failed, 2 bad usage or unreadable input.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

// decode SONG.mid [--sustain] [--tempo BPM]: the decoder's event lines on stdout.
void addDecodeCommand(CLI::App& app, int& exitCode);

// convert SONG.mid|SONG.mid.rep [--machine laser|punch] [--scale NAME] [--set KEY=VALUE]...
// [--start-mark MS] [--end-mark MS] [--no-width-search] [--out PATH] [--defaults]: the open
// command; prints the import's log and the program's path. A setting or a mark that the
// generation refuses, a song that cannot be read and an --out that is not a new or regular
// file (or is the song) end the run with exit 2 before anything is written.
void addConvertCommand(CLI::App& app, int& exitCode);

// scales: the organ scale names, built-ins first, then the Instruments folder's files.
void addScalesCommand(CLI::App& app, int& exitCode);

// settings: every key of the settings store with its stored value, default, unit and meaning.
void addSettingsCommand(CLI::App& app, int& exitCode);

// stream PROGRAM.gcode --port PORT [--simulate] [--song SONG.mid] [--set KEY=VALUE]...
// [--defaults]: Punch on that file; the log on stdout; exit 0 after "End of punch", 1 when
// not connected, cancelled or failed, 2 for a file that is not a G-code program (a folder,
// an empty file, binary bytes, a MIDI file, other text).
void addStreamCommand(CLI::App& app, int& exitCode);

// console --port PORT [--set KEY=VALUE]... [--defaults]: Grbl commands from stdin, each
// waiting for its answer; the log on stdout.
void addConsoleCommand(CLI::App& app, int& exitCode);

// emulate [--speed F] [--record FILE] [--link PATH] [--stock] [--factory-settings]
// [--boot-ms N] [--split-replies] [--reply-delay-ms N] [--error-at K:N] [--alarm-at K:N]
// [--silent-after K] [--hangup-after K]: a Grbl 1.1 board on a pseudo-terminal whose path is
// the first line on stdout; runs until SIGINT/SIGTERM or the hang-up fault.
void addEmulateCommand(CLI::App& app, int& exitCode);

// play SONG.mid [--roll] [--start-mark MS] [--end-mark MS] [--port NAME | --synth | --wav FILE]
// with the settings options of convert: the song (or, with --roll, the cut roll) played.
void addPlayCommand(CLI::App& app, int& exitCode);
// midi-ports: the system's MIDI outputs.
void addMidiPortsCommand(CLI::App& app, int& exitCode);

// fold --port PORT [--count N] [--backward-from-mm Y]: live fold marking.
void addFoldCommand(CLI::App& app, int& exitCode);
// fold-file SONG.mid [--count N] [--out PATH]: the fold-marking program of a song.
void addFoldFileCommand(CLI::App& app, int& exitCode);
// flash --port PORT --board uno|nano|nano-old [--image FILE.hex] [--yes]: Grbl onto the board.
void addFlashCommand(CLI::App& app, int& exitCode);

// verify PROGRAM.gcode [SONG.mid]: the program read back into the notes the organ will play.
void addVerifyCommand(CLI::App& app, int& exitCode);
// roll-midi PROGRAM.gcode OUT.mid: those notes as a MIDI file.
void addRollMidiCommand(CLI::App& app, int& exitCode);

// estimate PROGRAM.gcode [--grbl-settings FILE]: the machine time of a program on Grbl 1.1.
void addEstimateCommand(CLI::App& app, int& exitCode);
// print SONG.mid --out FILE.pdf|FILE.svg: the roll at 1:1 on paper.
void addPrintCommand(CLI::App& app, int& exitCode);

}  // namespace veltrin::cli
