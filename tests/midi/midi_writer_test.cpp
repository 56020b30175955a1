// The MIDI file of the notes a roll plays, read back by our own decoder.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "midi/mdlvert.h"
#include "midi/midi_writer.h"

namespace veltrin {
namespace {

std::vector<std::string> noteLines(const std::vector<MidiNote>& notes)
{
    const std::vector<std::uint8_t> bytes = writeMidiFile(notes, "roll");
    const DecodeResult decoded = Vertalen(bytes, "roll.mid");
    EXPECT_EQ(decoded.errorCode, 0) << decoded.errorMessage;
    std::vector<std::string> lines;
    for (const std::string& line : decoded.lines) {
        if (line.starts_with("NOTE") || line.starts_with("TNAM") || line.starts_with("PRGC"))
            lines.push_back(line);
    }
    return lines;
}

TEST(MidiWriter, NotesComeBackAtTheirMillisecondsAndOneKeyIsNeverHeldTwice)
{
    // Times rounded to whole ms; a note of no length lasts 1 ms; the key of 60 is struck again
    // while held, and let go at the later end.
    EXPECT_EQ(noteLines({{1000.4, 1250.6, 60}, {1200, 1400, 60}, {0, 0, 72, 90, 3}, {70000, 70500, 140, 300, 0}}),
              (std::vector<std::string>{
                  "TNAM 0000000 000000 roll",
                  "PRGC 0000000 000000 00001 00019",
                  "PRGC 0000000 000000 00003 00019",
                  "NOTE 0000000 000001 00003 00072 00001 00090 C4",
                  "NOTE 0001000 001200 00001 00060 00200 00100 C3",
                  "NOTE 0001200 001400 00001 00060 00200 00100 C3",
                  "NOTE 0070000 070500 00001 00127 00500 00127 G8",
              }));
}

}  // namespace
}  // namespace veltrin
