#pragma once
// What of a song goes on the roll, and where: the MIDI channels placed (setting Channels),
// the shift of every note before it meets the scale (setting Transpose, a number of
// semitones or "auto"), and the notes that the scale cannot play, by name.
//
// Use: arrangeSong() on the decoded event lines gives the note lines and playback lines that
// the plan splits (pairNotes' lines, of the chosen channels, shifted), with what was left out
// and what is lost; arrangingReport() gives the lines the report adds for them.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "scales/organ_scale.h"

namespace veltrin {

// A set of the MIDI channels 1 to 16.
struct ChannelSet {
    std::uint32_t bits = 0;  // bit c set: channel c is in the set
    bool has(int channel) const { return channel >= 1 && channel <= 16 && (bits >> channel & 1U) != 0; }
    bool all() const { return (bits & kEvery) == kEvery; }
    static ChannelSet every() { return ChannelSet{kEvery}; }
    static constexpr std::uint32_t kEvery = 0x1FFFEU;
};

// Channels as the setting writes them: channel numbers and ranges from 1 to 16 separated by
// commas ("1-9,11-16", "1, 3, 5 - 8"); nullopt for anything else, an empty list included.
std::optional<ChannelSet> parseChannels(std::string_view text);

// The farthest Transpose may shift a note, in semitones, and the farthest "auto" looks.
inline constexpr int kMaxTranspose = 24;

struct TransposeSetting {
    bool automatic = false;  // "auto": the shift that loses the fewest note-seconds
    int semitones = 0;       // the shift when not automatic
};

// Transpose as the setting writes it: a whole number from -24 to 24 ("-5", "+3", "0") or
// "auto" in any case, blanks around allowed; nullopt for anything else.
std::optional<TransposeSetting> parseTranspose(std::string_view text);

// The notes of each channel left out of the roll.
struct ChannelsLeftOut {
    std::array<int, 17> notes{};  // index: the channel (0 unused)
    int total() const;
};

// What a shift of the song loses: the notes no track plays once shifted, and their length.
struct Loss {
    int notes = 0;
    double ms = 0.0;
};

// The shift a generation uses and what it saves against the song as written.
struct TranspositionChoice {
    bool automatic = false;
    int semitones = 0;
    Loss asWritten;  // shift 0
    Loss shifted;    // the shift chosen
};

// A note number that no track plays, with its notes in the song.
struct LostNote {
    int note = 0;         // as placed (shifted); kNoPitch for a note field that is no whole number
    int count = 0;
    double firstMs = 0.0;  // start of its first note
    double ms = 0.0;       // total length of its notes
};
inline constexpr int kNoPitch = -1000000;

// The song as it goes on the roll.
struct Arrangement {
    // pairNotes' note lines ("SSSSSSS NNN EEEEEEE", in text order) and playback lines
    // ("TTTTTTT NNN NOTE" / "NOOF", sorted) of the chosen channels, note numbers shifted.
    // A note whose shift leaves MIDI's 0-127 is in neither: no track and no player plays it.
    std::vector<std::string> noteLines;
    std::vector<std::string> playLines;
    ChannelsLeftOut leftOut;
    TranspositionChoice transposition;
    // Notes taken out because their shifted number leaves 0-127; the split counts the other
    // lost notes, so notes_hors_gamme is the split's count plus this.
    int shiftedOutOfRange = 0;
    // Every lost note number, lowest first; their counts add up to notes_hors_gamme.
    std::vector<LostNote> lost;
};

// The song's notes of the channels in `channels`, shifted as `transpose` says, with the
// scale's tracks deciding what "auto" chooses and what is lost. The pairing leaves out the
// notes of other channels (see pairNotes). "auto" picks, within +-24, the shift
// whose lost notes are the shortest in total; on a tie the smallest shift, then the one
// losing fewer notes, then the downward one.
Arrangement arrangeSong(const std::vector<std::string>& Liste_tran, const ChannelSet& channels,
                        const TransposeSetting& transpose, const OrganScale& scale);

// What arrangeSong says of the song, without its note and playback lines (left empty): what
// a report or "Best transposition" needs, for less work.
Arrangement arrangementSummary(const std::vector<std::string>& Liste_tran, const ChannelSet& channels,
                               const TransposeSetting& transpose, const OrganScale& scale);

// The name of a MIDI note as the event lines give it, middle C (60) being "C3", with the
// octave's sign kept below C1: 0 is "C-2", 71 "B3", 68 "G#3".
std::string noteName(int note);

// A time of the song as "m:ss.t" (tenths of a second, rounded down): 12400 ms is "0:12.4".
std::string songTimeText(double ms);

// The lines the report adds for the arrangement, each only when it has something to say:
//   "Channel 10 left out (Channels = 1-9,11-16) : 412 notes"
//   "Transposed \u22125: 286 \u2192 12 notes lost" ("(auto)" after the shift when chosen so)
//   "Notes outside the organ scale : G#3 \u00d742 from 0:12.4, A3 \u00d73 from 1:02.0"
std::vector<std::string> arrangingReport(const Arrangement& arrangement, std::string_view channelsText);

}  // namespace veltrin
