// The perforation plan: derived values, pairing of note starts and ends, the split into
// pieces and the track positions.

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>

#include "base/numeric_text.h"
#include "midi/event_line.h"
#include "plan/plan_steps.h"

namespace veltrin {

namespace {

// Characters pos (1-based) to pos + length - 1 of line, as far as the line goes.
std::string_view mid(std::string_view line, std::size_t pos, std::size_t length)
{
    if (pos - 1 >= line.size())
        return {};
    return line.substr(pos - 1, length);
}

std::int32_t roundedMs(double ms)
{
    // Piece times are written with the pattern "0000000": rounded half away from zero. The
    // part after the point of a time is exact, so this is std::round without the call.
    const auto whole = static_cast<long long>(ms);  // toward zero
    const double part = ms - static_cast<double>(whole);
    if (part >= 0.5)
        return static_cast<std::int32_t>(whole + 1);
    if (part <= -0.5)
        return static_cast<std::int32_t>(whole - 1);
    return static_cast<std::int32_t>(whole);
}

// leadingNumber of a field of a note line, whose fields are plain digits but for lines
// written by hand: digits alone are read directly.
double fieldNumber(std::string_view field)
{
    if (field.empty() || field.size() > 9)
        return leadingNumber(field);
    long value = 0;
    for (const char c : field) {
        if (c < '0' || c > '9')
            return leadingNumber(field);
        value = value * 10 + (c - '0');
    }
    return static_cast<double>(value);
}

// A time field of a note line: its leadingNumber, kept within what seven characters hold
// without an exponent ("1e12" reads as 10^12, and would split into countless pieces).
double fieldTime(std::string_view field)
{
    constexpr double kLongestTime = 9999999.0;
    const double time = fieldNumber(field);
    if (std::isnan(time))
        return 0.0;
    return std::clamp(time, -kLongestTime, kLongestTime);
}

// The first eight characters of text as one number whose order is the text order of those
// characters (missing characters count as 0).
std::uint64_t prefixKey(const std::string& text)
{
    std::uint64_t key = 0;
    for (std::size_t i = 0; i < 8; ++i)
        key = (key << 8) | (i < text.size() ? static_cast<unsigned char>(text[i]) : 0U);
    return key;
}

// Sorts lines in std::string order. The lines begin with fixed-width times, so comparing
// their first eight characters as one number settles most comparisons.
void sortLines(std::vector<std::string>& lines)
{
    struct Entry {
        std::uint64_t key;
        std::uint32_t index;
    };
    std::vector<Entry> entries(lines.size());
    for (std::size_t i = 0; i < lines.size(); ++i)
        entries[i] = Entry{prefixKey(lines[i]), static_cast<std::uint32_t>(i)};
    std::sort(entries.begin(), entries.end(), [&lines](const Entry& a, const Entry& b) {
        if (a.key != b.key)
            return a.key < b.key;
        return lines[a.index] < lines[b.index];
    });
    std::vector<std::string> sorted;
    sorted.reserve(lines.size());
    for (const Entry& entry : entries)
        sorted.push_back(std::move(lines[entry.index]));
    lines = std::move(sorted);
}

// The value of the count characters at text when they are all digits, else -1.
long long digitsValue(const char* text, int count)
{
    long long value = 0;
    for (int i = 0; i < count; ++i) {
        const unsigned digit = static_cast<unsigned char>(text[i]) - unsigned{'0'};
        if (digit > 9)
            return -1;
        value = value * 10 + digit;
    }
    return value;
}

// Whether a NOTE or NOOF line belongs to a note of a channel left out: a NOTE line whose
// channel (columns 21-25) is a channel 1-16 outside channels, counted in leftOut, and the NOOF
// line after it, which closes it. dropping carries the NOTE's verdict to its NOOF.
bool leftOutChannel(std::string_view line, const ChannelSet& channels, std::array<int, 17>& leftOut, bool isNote,
                    bool& dropping)
{
    if (!isNote)
        return std::exchange(dropping, false);
    const long long channel = line.size() < 25 ? -1 : digitsValue(line.data() + 20, 5);
    dropping = channel >= 1 && channel <= 16 && !channels.has(static_cast<int>(channel));
    if (dropping)
        ++leftOut[static_cast<std::size_t>(channel)];
    return dropping;
}

// The pairing as numbers: each note line "SSSSSSS NNN EEEEEEE" as S << 34 | N << 24 | E,
// each playback line "TTTTTTT NNN NOTE" / "TTTTTTT NNN NOOF" as T << 11 | N << 1 | (1 for
// NOTE, 0 for NOOF, which sorts first). Times (7 digits) take 24 bits and note numbers
// (3 digits) 10, so the order of the numbers is the text order of the lines, and equal
// numbers are equal lines. This holds when every NOTE and NOOF line has the decoder's
// layout (digits in the time and note columns, a blank after the time) and every NOOF
// closes an open note; false otherwise, and the lines are then made as text.
bool pairAsNumbers(const std::vector<std::string>& Liste_tran, const ChannelSet& channels,
                   std::array<int, 17>& leftOut, std::vector<std::uint64_t>& noteKeys,
                   std::vector<std::uint64_t>& playKeys)
{
    long long pendingStart = -1;  // start of the note opened last and not yet closed
    long long note = -1;          // its number
    bool dropping = false;        // the note opened last is of a channel left out
    for (const std::string& line : Liste_tran) {
        if (line.size() < 4)
            continue;
        const bool isNote = std::memcmp(line.data(), "NOTE", 4) == 0;
        if (!isNote && std::memcmp(line.data(), "NOOF", 4) != 0)
            continue;
        if (leftOutChannel(line, channels, leftOut, isNote, dropping))
            continue;
        if (line.size() < 13 || line[12] != ' ')
            return false;
        const long long time = digitsValue(line.data() + 5, 7);
        if (time < 0)
            return false;
        if (isNote) {
            note = line.size() < 31 ? -1 : digitsValue(line.data() + 28, 3);
            if (note < 0)
                return false;
            pendingStart = time;
        } else {
            if (pendingStart < 0)
                return false;
            noteKeys.push_back(static_cast<std::uint64_t>(pendingStart) << 34 |
                               static_cast<std::uint64_t>(note) << 24 |
                               static_cast<std::uint64_t>(time));
            pendingStart = -1;
        }
        playKeys.push_back(static_cast<std::uint64_t>(time) << 11 |
                           static_cast<std::uint64_t>(note) << 1 | (isNote ? 1U : 0U));
    }
    return true;
}

// The pairing as text, for event lines of any content.
void pairAsText(const std::vector<std::string>& Liste_tran, const ChannelSet& channels, std::array<int, 17>& leftOut,
                std::vector<std::string>& notes, std::vector<std::string>& playLines)
{
    std::string pending;
    std::string_view lastNote;  // note number of the last NOTE line, for the NOOF playback line
    bool dropping = false;
    auto playLine = [&](std::string_view line, std::string_view what) {
        std::string& play = playLines.emplace_back();
        play.reserve(16);
        play.append(mid(line, 6, 8)).append(lastNote).append(what);
    };
    for (const std::string& line : Liste_tran) {
        const std::string_view keyword = mid(line, 1, 4);
        if ((keyword == "NOTE" || keyword == "NOOF") &&
            leftOutChannel(line, channels, leftOut, keyword == "NOTE", dropping))
            continue;
        if (keyword == "NOTE") {
            lastNote = mid(line, 29, 3);
            pending.assign(mid(line, 6, 7)).append(" ").append(lastNote);
            playLine(line, " NOTE");
        } else if (keyword == "NOOF") {
            // Positional on purpose: a NOOF closes whatever note was opened last.
            std::string& note = notes.emplace_back();
            note.reserve(19);
            note.append(pending).append(" ").append(mid(line, 6, 7));
            pending.clear();
            playLine(line, " NOOF");
        }
    }
    sortLines(notes);
    sortLines(playLines);
}

// Sorts numbers in ascending order: a radix sort, 11 bits a pass from the lowest, that
// skips the bits every number shares; for plan-sized lists it beats comparison sorting.
void sortNumbers(std::vector<std::uint64_t>& numbers)
{
    if (numbers.size() < 512) {
        std::sort(numbers.begin(), numbers.end());
        return;
    }
    std::uint64_t someSet = 0;
    std::uint64_t allSet = ~std::uint64_t{0};
    for (const std::uint64_t number : numbers) {
        someSet |= number;
        allSet &= number;
    }
    const std::uint64_t varying = someSet ^ allSet;
    constexpr int kDigitBits = 11;
    constexpr std::uint64_t kDigitMask = (std::uint64_t{1} << kDigitBits) - 1;
    std::vector<std::uint64_t> sorted(numbers.size());
    std::vector<std::uint32_t> position(kDigitMask + 1);
    for (int shift = 0; shift < 64 && (varying >> shift) != 0; shift += kDigitBits) {
        if ((varying >> shift & kDigitMask) == 0)
            continue;
        std::fill(position.begin(), position.end(), 0U);
        for (const std::uint64_t number : numbers)
            ++position[number >> shift & kDigitMask];
        std::uint32_t before = 0;
        for (std::uint32_t& slot : position)
            before += std::exchange(slot, before);
        for (const std::uint64_t number : numbers)
            sorted[position[number >> shift & kDigitMask]++] = number;
        numbers.swap(sorted);
    }
}

// Sorts the pieces of the split (flags all false) into plan order. Between pieces of one
// start and track the order of the ends is the order of the lengths, so each piece is
// packed as the offsets of its start, track and length from their smallest values, side by
// side in one 64-bit number when they fit: the numbers sort in plan order, and the pieces
// are made again from them.
void sortPieces(std::vector<Piece>& pieces)
{
    if (pieces.empty())
        return;
    struct Range {
        std::int64_t low;
        std::int64_t high;
        void add(std::int64_t value)
        {
            low = std::min(low, value);
            high = std::max(high, value);
        }
        int bits() const { return static_cast<int>(std::bit_width(static_cast<std::uint64_t>(high - low))); }
    };
    const auto length = [](const Piece& piece) { return std::int64_t{piece.endMs} - piece.startMs; };
    Range starts{pieces.front().startMs, pieces.front().startMs};
    Range tracks{pieces.front().track, pieces.front().track};
    Range lengths{length(pieces.front()), length(pieces.front())};
    for (const Piece& piece : pieces) {
        starts.add(piece.startMs);
        tracks.add(piece.track);
        lengths.add(length(piece));
    }
    const int lengthBits = lengths.bits();
    const int startShift = tracks.bits() + lengthBits;
    if (starts.bits() + startShift >= 64) {
        std::sort(pieces.begin(), pieces.end(), planOrder);
        return;
    }
    std::vector<std::uint64_t> keys;
    keys.reserve(pieces.size());
    for (const Piece& piece : pieces)
        keys.push_back(static_cast<std::uint64_t>(piece.startMs - starts.low) << startShift |
                       static_cast<std::uint64_t>(piece.track - tracks.low) << lengthBits |
                       static_cast<std::uint64_t>(length(piece) - lengths.low));
    sortNumbers(keys);
    const std::uint64_t trackMask = (std::uint64_t{1} << (startShift - lengthBits)) - 1;
    const std::uint64_t lengthMask = (std::uint64_t{1} << lengthBits) - 1;
    for (std::size_t i = 0; i < keys.size(); ++i) {
        const std::uint64_t key = keys[i];
        const std::int64_t start = starts.low + static_cast<std::int64_t>(key >> startShift);
        pieces[i] = Piece{static_cast<std::int32_t>(start),
                          static_cast<std::int32_t>(tracks.low +
                                                    static_cast<std::int64_t>(key >> lengthBits & trackMask)),
                          static_cast<std::int32_t>(start + lengths.low +
                                                    static_cast<std::int64_t>(key & lengthMask)),
                          false};
    }
}

}  // namespace

std::string pieceLine(const Piece& piece)
{
    return fixedWidth(piece.startMs, 7) + " " + fixedWidth(piece.track, 3) + " " +
           fixedWidth(piece.endMs, 7);
}

std::string finalLine(const Piece& piece)
{
    return pieceLine(piece) + (piece.flag ? " 1" : " 0");
}

int bandTime(double fourchetteMm, double Vitcarton)
{
    return static_cast<int>(roundHalfEven(fourchetteMm * 1000.0 / Vitcarton));
}

PlanValues planValues(const Settings& settings, const OrganScale& scale)
{
    PlanValues v;
    v.Vitcarton = leadingNumber(settings.Vitcarton);
    v.temps_pont = leadingNumber(settings.Lgponts) * 1000.0 / v.Vitcarton;
    v.temps_morceau = leadingNumber(settings.Dist_ponts) * 1000.0 / v.Vitcarton;
    v.largeur_coupe = leadingNumber(settings.Ldecoupe);
    v.laser = settings.isLaser();
    v.Ldecoupe = v.largeur_coupe;
    v.talon_x = v.laser ? leadingNumber(settings.Talon) - v.Ldecoupe / 2.0
                        : leadingNumber(settings.Talon);
    v.origine_x = leadingNumber(v.laser ? settings.OrigineX : settings.OrigineX_poin);
    v.vitesse_avance = static_cast<int>(
        roundHalfEven(leadingNumber(v.laser ? settings.VitesseF : settings.VitesseF_poin)));
    v.pas_pistes = leadingNumber(settings.Dist_notes);
    v.temps_fourchette = bandTime(leadingNumber(settings.Fourchette), v.Vitcarton);
    v.L_poincon = leadingNumber(settings.L_poincon);
    v.temps_poincon = v.L_poincon * 1000.0 / v.Vitcarton;
    v.BassesAF = leadingNumber(settings.BassesAF);
    v.standard_AF_actif = scale.standard_AF_actif;
    v.rollCleanup = leadingNumber(settings.RollCleanup) != 0.0;
    v.temps_trou_min = std::max(0.0, leadingNumber(settings.MinHoleLength)) * 1000.0 / v.Vitcarton;
    return v;
}

std::vector<std::string> pairNotes(const std::vector<std::string>& Liste_tran,
                                   std::vector<std::string>& playLines, const ChannelSet& channels,
                                   std::array<int, 17>* leftOut)
{
    std::vector<std::string> notes;
    playLines.clear();
    std::vector<std::uint64_t> noteKeys;
    std::vector<std::uint64_t> playKeys;
    noteKeys.reserve(Liste_tran.size() / 2);
    playKeys.reserve(Liste_tran.size());
    std::array<int, 17> dropped{};
    if (!pairAsNumbers(Liste_tran, channels, dropped, noteKeys, playKeys)) {
        notes.reserve(Liste_tran.size() / 2);
        playLines.reserve(Liste_tran.size());
        dropped.fill(0);
        pairAsText(Liste_tran, channels, dropped, notes, playLines);
        if (leftOut)
            *leftOut = dropped;
        return notes;
    }
    if (leftOut)
        *leftOut = dropped;
    // The lines of a decoded song: sorted as numbers, then written out.
    notes.reserve(noteKeys.size());
    playLines.reserve(playKeys.size());
    sortNumbers(noteKeys);
    sortNumbers(playKeys);
    constexpr std::uint64_t kTimeMask = (1U << 24) - 1;
    constexpr std::uint64_t kNoteMask = (1U << 10) - 1;
    char text[] = "0000000 000 0000000";
    for (const std::uint64_t key : noteKeys) {
        event_line::writeDigits(text + 7, static_cast<std::uint32_t>(key >> 34), 7);
        event_line::writeDigits(text + 11, static_cast<std::uint32_t>(key >> 24 & kNoteMask), 3);
        event_line::writeDigits(text + 19, static_cast<std::uint32_t>(key & kTimeMask), 7);
        notes.emplace_back(text, sizeof text - 1);
    }
    char play[] = "0000000 000 NOTE";
    for (const std::uint64_t key : playKeys) {
        event_line::writeDigits(play + 7, static_cast<std::uint32_t>(key >> 11), 7);
        event_line::writeDigits(play + 11, static_cast<std::uint32_t>(key >> 1 & kNoteMask), 3);
        std::memcpy(play + 12, key % 2 != 0 ? "NOTE" : "NOOF", 4);
        playLines.emplace_back(play, sizeof play - 1);
    }
    return notes;
}

std::vector<PlanNote> placeNotes(const std::vector<std::string>& noteLines, const OrganScale& scale)
{
    const bool af = scale.standard_AF_actif;
    const int tableSize = af ? kAlderFennTracks : kMaxTracks;
    const int searched = std::clamp(scale.nb_notes, 0, tableSize);
    std::vector<PlanNote> notes;
    notes.reserve(noteLines.size());

    // The track of each note number 0-999 (-1 for none): the first table entry that
    // plays it.
    const auto tableNote = [&](int i) -> int {
        return af ? scale.notes_AF[static_cast<std::size_t>(i)]
                  : scale.notes_standard[static_cast<std::size_t>(i)];
    };
    std::array<std::int16_t, 1000> trackOfNote;
    trackOfNote.fill(-1);
    for (int i = searched - 1; i >= 0; --i)
        if (tableNote(i) >= 0 && tableNote(i) < 1000)
            trackOfNote[static_cast<std::size_t>(tableNote(i))] = static_cast<std::int16_t>(i);

    for (const std::string& line : noteLines) {
        // The note line's fields: plain digits in the lines pairNotes makes.
        const long long startDigits = line.size() < 19 ? -1 : digitsValue(line.data(), 7);
        const long long noteDigits = startDigits < 0 ? -1 : digitsValue(line.data() + 8, 3);
        const long long endDigits = noteDigits < 0 ? -1 : digitsValue(line.data() + 12, 7);
        PlanNote& note = notes.emplace_back();
        if (endDigits >= 0) {
            note.startMs = static_cast<double>(startDigits);
            note.endMs = static_cast<double>(endDigits);
            note.piste = trackOfNote[static_cast<std::size_t>(noteDigits)];
        } else {
            note.startMs = fieldTime(mid(line, 1, 7));
            note.endMs = fieldTime(mid(line, 13, 7));
            const double number = fieldNumber(mid(line, 9, 3));
            // Its track: the first table entry that plays this note.
            for (int i = 0; i < searched; ++i) {
                if (tableNote(i) == number) {
                    note.piste = i;
                    break;
                }
            }
        }
    }
    return notes;
}

SplitResult splitNotes(const std::vector<PlanNote>& notes, bool fractionner, const PlanValues& values)
{
    SplitResult result;
    // 1. Bridges of the laser keep a margin, so that the last piece is never a sliver; the
    //    punch works in strikes and needs none.
    double marge_pont = 0.0;
    double temps_morceau = values.temps_morceau;
    if (values.laser)
        marge_pont = static_cast<double>(roundHalfEven(values.temps_pont + 50.0));
    else
        temps_morceau = values.temps_poincon;
    result.pieces.reserve(notes.size());

    for (const PlanNote& note : notes) {
        double start = note.startMs;
        const double end = note.endMs;
        const double duree = end - start;
        const int piste = note.piste;
        if (piste < 0) {
            ++result.notes_hors_gamme;
            continue;
        }
        result.piste_courante = piste;

        auto add = [&](double from, double to) {
            result.pieces.push_back(Piece{roundedMs(from), piste, roundedMs(to), false});
        };
        // 2. The pieces.
        if (fractionner && duree >= temps_morceau) {
            double reste = duree;
            // Genere_GCode refuses steps under 1 ms; a step that does not advance at all
            // would never end the note.
            const double step = temps_morceau + values.temps_pont;
            while (step > 0.0 && reste > marge_pont + temps_morceau) {
                add(start, start + temps_morceau);
                start += step;
                reste -= step;
            }
            if (values.laser)
                add(start, end);
            else
                add(end - values.temps_poincon, end);  // last strike ends at the note's end
        } else {
            add(start, end);
        }
    }
    sortPieces(result.pieces);
    return result;
}

SplitResult Decoupe_notes(const std::vector<std::string>& noteLines, bool fractionner,
                          const PlanValues& values, const OrganScale& scale)
{
    return splitNotes(placeNotes(noteLines, scale), fractionner, values);
}

SplitResult planSplit(const std::vector<std::string>& noteLines, bool fractionner,
                      const PlanValues& values, const OrganScale& scale)
{
    std::vector<PlanNote> notes = placeNotes(noteLines, scale);
    RollCleanupCounts counts;
    if (values.rollCleanup)
        counts = cleanRoll(notes, rollCleanupValues(values, fractionner));
    SplitResult result = splitNotes(notes, fractionner, values);
    result.cleanup = counts;
    return result;
}

double Position_piste(const PlanValues& values, int piste)
{
    if (!values.standard_AF_actif)
        return values.talon_x + piste * values.pas_pistes;
    // The 20-note scale: the four bass tracks are wider and spaced 1.5 pitches; the treble
    // tracks stay on the normal grid, so only the bass tracks are shifted by decalage.
    if (piste <= 3) {
        const double decalage = values.laser ? (values.BassesAF - values.Ldecoupe) / 2.0 : 0.0;
        return values.talon_x - decalage + piste * 1.5 * values.pas_pistes;
    }
    return values.talon_x + 4.5 * values.pas_pistes + (piste - 3) * values.pas_pistes;
}

}  // namespace veltrin
