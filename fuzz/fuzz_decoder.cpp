// libFuzzer entry for the MIDI decoder: any bytes must decode without a crash, a hang or a
// read outside the input, and the lines must keep their shape.
//   fuzz_decoder -max_total_time=300 CORPUS_DIR tests/data/midi

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <string_view>

#include "midi/mdlvert.h"

namespace {

void check(bool condition)
{
    if (!condition)
        std::abort();
}

bool knownKeyword(const std::string& line)
{
    static constexpr std::string_view kKeywords[] = {
        "NOTE", "NOOF", "KAFT", "CONC", "PRGC", "CAFT", "PBEN", "MQTR", "SNGP", "SNGS",
        "F4XX", "F5XX", "F6XX", "F7XX", "F8XX", "F9XX", "FAXX", "FBXX", "FCXX", "FDXX",
        "FEXX", "SEQN", "TEXT", "AUTH", "TNAM", "INST", "LYRC", "MARK", "CUEP", "TEMP",
        "SMPT", "TIME", "KEYS", "ENDF", "HEAD"};
    if (line.size() < 5 || line[4] != ' ')
        return false;
    for (const std::string_view keyword : kKeywords)
        if (line.compare(0, 4, keyword) == 0)
            return true;
    return false;
}

void checkResult(const veltrin::DecodeResult& result)
{
    const auto& lines = result.lines;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        check(knownKeyword(lines[i]));
        // Every NOTE is followed at once by its NOOF, and no NOOF stands alone.
        if (lines[i].compare(0, 4, "NOTE") == 0)
            check(i + 1 < lines.size() && lines[i + 1].compare(0, 4, "NOOF") == 0);
        if (lines[i].compare(0, 4, "NOOF") == 0)
            check(i > 0 && lines[i - 1].compare(0, 4, "NOTE") == 0);
    }
    if (result.errorCode == 0) {
        check(lines.size() >= 2);
        check(lines[lines.size() - 2] == "ENDF 9999999");
        check(lines.back().compare(0, 13, "HEAD ##10000 ") == 0);
    } else {
        check(!result.errorMessage.empty());
        for (const std::string& line : lines)
            check(line.compare(0, 4, "ENDF") != 0 && line.compare(0, 4, "HEAD") != 0);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::span<const std::uint8_t> bytes(data, size);
    checkResult(veltrin::Vertalen(bytes, "fuzz.mid"));

    // The sustain pedal and a forced tempo take other paths; the last byte picks the tempo.
    veltrin::DecodeOptions options;
    options.sustain = true;
    options.forcedTempoBpm = size > 0 ? data[size - 1] : 0;
    checkResult(veltrin::Vertalen(bytes, "fuzz.mid", options));
    return 0;
}
