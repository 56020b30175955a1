// veltrin-cli decode: prints the event lines of a MIDI file, as the import sees them.

#include <CLI/CLI.hpp>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "cli/cli_commands.h"
#include "cli/input_files.h"
#include "midi/mdlvert.h"

namespace veltrin::cli {

namespace {

// Songs are a few hundred kilobytes at most.
constexpr std::size_t kMaxBytes = std::size_t{256} << 20;

struct DecodeArgs {
    std::string path;
    bool sustain = false;
    int tempoBpm = 0;
};

// The whole file, or the system's reason why it cannot be read (a folder opens but does
// not read).
bool readFile(const std::string& path, std::vector<std::uint8_t>& bytes, std::string& reason)
{
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        reason = std::strerror(errno);
        return false;
    }
    std::uint8_t buffer[65536];
    std::size_t count = 0;
    while ((count = std::fread(buffer, 1, sizeof buffer, file)) > 0 && bytes.size() < kMaxBytes)
        bytes.insert(bytes.end(), buffer, buffer + count);
    bool failed = std::ferror(file) != 0;
    if (failed)
        reason = std::strerror(errno);
    if (!failed && bytes.size() >= kMaxBytes) {
        failed = true;  // not a song: /dev/zero and the like never end
        reason = "too large for a MIDI file";
    }
    std::fclose(file);
    return !failed;
}

int runDecode(const DecodeArgs& args)
{
    std::vector<std::uint8_t> bytes;
    std::string reason = fileProblem(args.path);
    if (!reason.empty() || !readFile(args.path, bytes, reason)) {
        std::fprintf(stderr, "veltrin-cli decode: cannot read %s: %s\n", args.path.c_str(),
                     reason.c_str());
        return kExitUsage;
    }
    DecodeOptions options;
    options.sustain = args.sustain;
    options.forcedTempoBpm = args.tempoBpm;
    const DecodeResult result = Vertalen(bytes, args.path, options);

    std::string text;
    std::size_t total = 0;
    for (const std::string& line : result.lines)
        total += line.size() + 1;
    text.reserve(total);
    for (const std::string& line : result.lines) {
        text += line;
        text += '\n';
    }
    std::fwrite(text.data(), 1, text.size(), stdout);
    std::fflush(stdout);
    if (result.errorCode != 0) {
        std::fprintf(stderr, "%s\n", result.errorMessage.c_str());
        return kExitFailed;
    }
    if (result.latestNoteMs > kMaxEventMs) {
        std::fprintf(stderr,
                     "veltrin-cli decode: a note plays at %lld ms, past the 7-digit time fields (9999999 ms, about "
                     "2 h 46 min): the times of the lines after it are wrong\n",
                     result.latestNoteMs);
        return kExitFailed;
    }
    return kExitOk;
}

}  // namespace

void addDecodeCommand(CLI::App& app, int& exitCode)
{
    auto args = std::make_shared<DecodeArgs>();
    CLI::App* command = app.add_subcommand(
        "decode", "Print the event lines (NOTE, NOOF, TEMP, ..., ENDF, HEAD) of a MIDI file");
    command->add_option("song", args->path, "MIDI file (.mid)")->required();
    command->add_flag("--sustain", args->sustain,
                      "Honour the sustain pedal (controller 64): held notes end when it lifts");
    command->add_option("--tempo", args->tempoBpm,
                        "Forced tempo in beats per minute instead of the file's tempo events")
        ->check(CLI::Range(1, 32767));
    command->callback([args, &exitCode] { exitCode = runDecode(*args); });
}

}  // namespace veltrin::cli
