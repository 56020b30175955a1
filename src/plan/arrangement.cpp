// The song as it goes on the roll: channels, transposition and the notes the scale loses.

#include "plan/arrangement.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "base/numeric_text.h"
#include "plan/plan_steps.h"

namespace veltrin {

namespace {

// Note numbers a note line's three-digit field holds.
constexpr int kNoteFieldValues = 1000;
constexpr int kMidiNotes = 128;

std::string_view trimmed(std::string_view text)
{
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
        text.remove_suffix(1);
    return text;
}

// A whole number of digits only (no sign), at most four of them.
std::optional<int> smallNumber(std::string_view text)
{
    text = trimmed(text);
    if (text.empty() || text.size() > 4)
        return std::nullopt;
    int value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9')
            return std::nullopt;
        value = value * 10 + (c - '0');
    }
    return value;
}

// The value of count characters at text when they are all digits, else -1.
int digitsAt(std::string_view line, std::size_t at, std::size_t count)
{
    if (line.size() < at + count)
        return -1;
    int value = 0;
    for (std::size_t i = at; i < at + count; ++i) {
        const char c = line[i];
        if (c < '0' || c > '9')
            return -1;
        value = value * 10 + (c - '0');
    }
    return value;
}

// Characters pos (0-based) to pos + length - 1 of line, as far as the line goes.
std::string_view field(std::string_view line, std::size_t pos, std::size_t length)
{
    return pos >= line.size() ? std::string_view() : line.substr(pos, length);
}

// A time field as the plan reads it (see placeNotes).
double timeOf(std::string_view text)
{
    const double value = leadingNumber(text);
    return std::isnan(value) ? 0.0 : std::clamp(value, -9999999.0, 9999999.0);
}

// The track of each note number 0-999 in the scale's table (the first entry that plays it),
// -1 for none: the lookup of placeNotes.
std::array<int, kNoteFieldValues> tracksOfNotes(const OrganScale& scale)
{
    std::array<int, kNoteFieldValues> track;
    track.fill(-1);
    const int size = scale.standard_AF_actif ? kAlderFennTracks : kMaxTracks;
    const int searched = std::clamp(scale.nb_notes, 0, size);
    for (int i = searched - 1; i >= 0; --i) {
        const int note = scale.trackNote(i);
        if (note >= 0 && note < kNoteFieldValues)
            track[static_cast<std::size_t>(note)] = i;
    }
    return track;
}

// The song's notes by note number, from the note lines. Lines whose note field is three
// digits move with the transposition; any other (a line written by hand) is placed as its
// field reads, whatever the shift.
struct PitchUse {
    std::array<int, kNoteFieldValues> count{};
    std::array<double, kNoteFieldValues> ms{};
    std::array<double, kNoteFieldValues> firstMs{};
    // The lines whose note field is not three digits: the number it reads (kNoPitch when
    // that is no whole number from 0 to 999), start and length.
    struct Fixed {
        int note;
        double startMs;
        double ms;
    };
    std::vector<Fixed> fixed;
};

PitchUse pitchUse(const std::vector<std::string>& noteLines)
{
    PitchUse use;
    for (const std::string& line : noteLines) {
        const double start = timeOf(field(line, 0, 7));
        const double length = std::max(0.0, timeOf(field(line, 12, 7)) - start);
        const int note = digitsAt(line, 8, 3);
        if (note >= 0) {
            const auto at = static_cast<std::size_t>(note);
            if (use.count[at] == 0 || start < use.firstMs[at])
                use.firstMs[at] = start;
            ++use.count[at];
            use.ms[at] += length;
            continue;
        }
        const double number = leadingNumber(field(line, 8, 3));
        const bool whole = number == std::floor(number) && number >= 0.0 && number < kNoteFieldValues;
        use.fixed.push_back({whole ? static_cast<int>(number) : kNoPitch, start, length});
    }
    return use;
}

// Whether a note of number `note` of the lines, shifted by `shift`, reaches no track. A
// shift that takes a note out of MIDI's 0-127 loses it.
bool lostAt(int note, int shift, const std::array<int, kNoteFieldValues>& tracks)
{
    const int placed = note + shift;
    if (shift != 0 && (placed < 0 || placed >= kMidiNotes))
        return true;
    return placed < 0 || placed >= kNoteFieldValues || tracks[static_cast<std::size_t>(placed)] < 0;
}

Loss lossAt(const PitchUse& use, int shift, const std::array<int, kNoteFieldValues>& tracks)
{
    Loss loss;
    for (int note = 0; note < kNoteFieldValues; ++note) {
        const auto at = static_cast<std::size_t>(note);
        if (use.count[at] > 0 && lostAt(note, shift, tracks)) {
            loss.notes += use.count[at];
            loss.ms += use.ms[at];
        }
    }
    for (const PitchUse::Fixed& line : use.fixed) {
        if (line.note == kNoPitch || tracks[static_cast<std::size_t>(line.note)] < 0) {
            ++loss.notes;
            loss.ms += line.ms;
        }
    }
    return loss;
}

// The shift "auto" chooses (see arrangeSong).
int bestShift(const PitchUse& use, const std::array<int, kNoteFieldValues>& tracks)
{
    int best = 0;
    Loss bestLoss = lossAt(use, 0, tracks);
    for (int distance = 1; distance <= kMaxTranspose; ++distance) {
        for (const int shift : {-distance, distance}) {
            const Loss loss = lossAt(use, shift, tracks);
            // Lengths are sums of whole ms: equal sums are equal doubles.
            if (loss.ms < bestLoss.ms || (loss.ms == bestLoss.ms && std::abs(shift) == std::abs(best) &&
                                          loss.notes < bestLoss.notes)) {
                best = shift;
                bestLoss = loss;
            }
        }
    }
    return best;
}

// Shifts the note field (characters 9-11) of each line by shift and removes the lines whose
// note leaves low..high. Fields that are not three digits stay as they are.
void shiftNoteField(std::vector<std::string>& lines, int shift, int low, int high)
{
    std::size_t kept = 0;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        std::string& line = lines[i];
        const int note = digitsAt(line, 8, 3);
        if (note >= 0) {
            const int placed = note + shift;
            if (placed < low || placed > high)
                continue;
            line[8] = static_cast<char>('0' + placed / 100);
            line[9] = static_cast<char>('0' + placed / 10 % 10);
            line[10] = static_cast<char>('0' + placed % 10);
        }
        if (kept != i)
            lines[kept] = std::move(line);
        ++kept;
    }
    lines.resize(kept);
}

// The song's notes by number as pairNotes pairs them, read where they stand (the decoder
// writes each NOOF right after its NOTE), without making note lines; nullopt for lines out of
// the decoder's layout, which only the pairing itself reads right.
std::optional<PitchUse> pitchUseOfEvents(const std::vector<std::string>& Liste_tran, const ChannelSet& channels,
                                         ChannelsLeftOut& leftOut)
{
    PitchUse use;
    int pending = -1;  // the note opened last and not yet closed
    double start = 0.0;
    bool dropping = false;
    for (const std::string& line : Liste_tran) {
        if (line.size() < 4)
            continue;
        const bool isNote = std::memcmp(line.data(), "NOTE", 4) == 0;
        if (!isNote && std::memcmp(line.data(), "NOOF", 4) != 0)
            continue;
        const int time = line.size() > 12 && line[12] == ' ' ? digitsAt(line, 5, 7) : -1;
        if (time < 0)
            return std::nullopt;
        if (isNote) {
            const int channel = digitsAt(line, 20, 5);
            dropping = channel >= 1 && channel <= 16 && !channels.has(channel);
            if (dropping) {
                ++leftOut.notes[static_cast<std::size_t>(channel)];
                continue;
            }
            pending = digitsAt(line, 28, 3);
            if (pending < 0)
                return std::nullopt;
            start = time;
            continue;
        }
        if (std::exchange(dropping, false))
            continue;
        if (pending < 0)
            return std::nullopt;
        const auto at = static_cast<std::size_t>(pending);
        if (use.count[at] == 0 || start < use.firstMs[at])
            use.firstMs[at] = start;
        ++use.count[at];
        use.ms[at] += std::max(0.0, time - start);
        pending = -1;
    }
    return use;
}

// The shift, what it loses and the notes lost, from the song's notes by number.
void decide(const PitchUse& use, const TransposeSetting& transpose, const OrganScale& scale, Arrangement& result)
{
    const std::array<int, kNoteFieldValues> tracks = tracksOfNotes(scale);
    const int shift = transpose.automatic ? bestShift(use, tracks) : transpose.semitones;
    result.transposition = {transpose.automatic, shift, lossAt(use, 0, tracks), lossAt(use, shift, tracks)};
    for (int note = 0; note < kNoteFieldValues; ++note) {
        const auto at = static_cast<std::size_t>(note);
        if (use.count[at] == 0 || !lostAt(note, shift, tracks))
            continue;
        result.lost.push_back({note + shift, use.count[at], use.firstMs[at], use.ms[at]});
        if (shift != 0 && (note + shift < 0 || note + shift >= kMidiNotes))
            result.shiftedOutOfRange += use.count[at];
    }
    for (const PitchUse::Fixed& line : use.fixed) {
        if (line.note != kNoPitch && tracks[static_cast<std::size_t>(line.note)] >= 0)
            continue;
        auto same = std::find_if(result.lost.begin(), result.lost.end(),
                                 [&](const LostNote& lost) { return lost.note == line.note; });
        if (same == result.lost.end()) {
            result.lost.push_back({line.note, 1, line.startMs, line.ms});
        } else {
            ++same->count;
            same->firstMs = std::min(same->firstMs, line.startMs);
            same->ms += line.ms;
        }
    }
    std::sort(result.lost.begin(), result.lost.end(),
              [](const LostNote& a, const LostNote& b) { return a.note < b.note; });
}

std::string countText(int count, const char* one, const char* many)
{
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

}  // namespace

std::optional<ChannelSet> parseChannels(std::string_view text)
{
    ChannelSet set;
    std::size_t at = 0;
    while (at <= text.size()) {
        std::size_t comma = text.find(',', at);
        if (comma == std::string_view::npos)
            comma = text.size();
        const std::string_view item = text.substr(at, comma - at);
        const std::size_t dash = item.find('-');
        const auto first = smallNumber(item.substr(0, dash));
        const auto last = dash == std::string_view::npos ? first : smallNumber(item.substr(dash + 1));
        if (!first || !last || *first < 1 || *last > 16 || *first > *last)
            return std::nullopt;
        for (int channel = *first; channel <= *last; ++channel)
            set.bits |= 1U << channel;
        at = comma + 1;
    }
    return set;
}

std::optional<TransposeSetting> parseTranspose(std::string_view text)
{
    text = trimmed(text);
    if (text.size() == 4) {
        std::string lower(text);
        for (char& c : lower)
            c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
        if (lower == "auto")
            return TransposeSetting{true, 0};
    }
    bool negative = false;
    if (!text.empty() && (text.front() == '-' || text.front() == '+')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    const auto value = smallNumber(text);
    if (!value || text != trimmed(text) || *value > kMaxTranspose)
        return std::nullopt;
    return TransposeSetting{false, negative ? -*value : *value};
}

int ChannelsLeftOut::total() const
{
    int sum = 0;
    for (const int count : notes)
        sum += count;
    return sum;
}

Arrangement arrangeSong(const std::vector<std::string>& Liste_tran, const ChannelSet& channels,
                        const TransposeSetting& transpose, const OrganScale& scale)
{
    Arrangement result;
    // 1. The channels: notes of the channels left out never reach the pairing.
    result.noteLines = pairNotes(Liste_tran, result.playLines, channels, &result.leftOut.notes);
    // 2. The shift, chosen on the notes as written, and the notes lost.
    const PitchUse use = pitchUse(result.noteLines);
    decide(use, transpose, scale, result);
    // 3. The notes shifted.
    if (const int shift = result.transposition.semitones; shift != 0) {
        shiftNoteField(result.noteLines, shift, 0, kMidiNotes - 1);
        shiftNoteField(result.playLines, shift, 0, kMidiNotes - 1);
        // A line written by hand keeps its note field: the shifted ones may now sort
        // differently against it.
        if (!use.fixed.empty()) {
            std::sort(result.noteLines.begin(), result.noteLines.end());
            std::sort(result.playLines.begin(), result.playLines.end());
        }
    }
    return result;
}

Arrangement arrangementSummary(const std::vector<std::string>& Liste_tran, const ChannelSet& channels,
                               const TransposeSetting& transpose, const OrganScale& scale)
{
    Arrangement result;
    std::optional<PitchUse> use = pitchUseOfEvents(Liste_tran, channels, result.leftOut);
    if (!use) {
        result.leftOut = {};
        std::vector<std::string> playLines;
        use = pitchUse(pairNotes(Liste_tran, playLines, channels, &result.leftOut.notes));
    }
    decide(*use, transpose, scale, result);
    return result;
}

std::string noteName(int note)
{
    static constexpr const char* kNames[] = {"C", "C#", "D", "D#", "E", "F", "F#", "G", "G#", "A", "A#", "B"};
    const int octave = (note >= 0 ? note / 12 : (note - 11) / 12) - 2;
    return std::string(kNames[((note % 12) + 12) % 12]) + std::to_string(octave);
}

std::string songTimeText(double ms)
{
    const long long tenths = static_cast<long long>(std::floor(std::max(0.0, ms) / 100.0));
    const long long minutes = tenths / 600;
    const long long seconds = tenths / 10 % 60;
    return std::to_string(minutes) + ":" + (seconds < 10 ? "0" : "") + std::to_string(seconds) + "." +
           std::to_string(tenths % 10);
}

std::vector<std::string> arrangingReport(const Arrangement& arrangement, std::string_view channelsText)
{
    std::vector<std::string> lines;
    // 1. The channels left out.
    if (const int total = arrangement.leftOut.total(); total > 0) {
        std::string names;
        int count = 0;
        for (int channel = 1; channel <= 16; ++channel) {
            if (arrangement.leftOut.notes[static_cast<std::size_t>(channel)] == 0)
                continue;
            names += (count++ > 0 ? ", " : "") + std::to_string(channel);
        }
        lines.push_back(std::string(count == 1 ? "Channel " : "Channels ") + names + " left out (Channels = " +
                        std::string(channelsText) + ") : " + countText(total, "note", "notes"));
    }
    // 2. The transposition and what it saves.
    const TranspositionChoice& t = arrangement.transposition;
    if (t.semitones != 0) {
        // U+2212 MINUS SIGN, U+2192 RIGHTWARDS ARROW
        const std::string shift = (t.semitones < 0 ? "\u2212" : "+") + std::to_string(std::abs(t.semitones));
        lines.push_back("Transposed " + shift + (t.automatic ? " (auto)" : "") + ": " +
                        std::to_string(t.asWritten.notes) + " \u2192 " +
                        countText(t.shifted.notes, "note lost", "notes lost"));
    } else if (t.automatic) {
        lines.push_back(t.asWritten.notes == 0
                            ? std::string("Transposition auto: every note is in the organ scale as written")
                            : "Transposition auto: no shift loses less than the song as written (" +
                                  countText(t.asWritten.notes, "note lost", "notes lost") + ")");
    }
    // 3. The notes lost, by name.
    if (!arrangement.lost.empty()) {
        std::string text = "Notes outside the organ scale : ";
        for (std::size_t i = 0; i < arrangement.lost.size(); ++i) {
            const LostNote& lost = arrangement.lost[i];
            text += (i > 0 ? ", " : "") + (lost.note == kNoPitch ? std::string("?") : noteName(lost.note)) +
                    " \u00d7" + std::to_string(lost.count) + " from " + songTimeText(lost.firstMs);
        }
        lines.push_back(std::move(text));
    }
    return lines;
}

}  // namespace veltrin
