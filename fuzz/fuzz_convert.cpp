// libFuzzer entry for the convert path: any bytes go through the decoder, the pairing of note
// starts and ends, the split into pieces, the travel order, the band-width measures and the
// program writer, and each of their fast paths must give what a plain model written here
// gives; the roll cleanup of the same notes must keep its rules. Any difference aborts.
//   fuzz_convert -max_total_time=600 CORPUS_DIR tests/data/midi examples
//
// The last bytes of the input choose the settings (machine, scale, speeds, bridges, marks)
// and how some event lines are spoiled, so that the paths for odd lines run too. Bytes that
// decode to no note at all are read as a list of notes instead.

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "base/message_log.h"
#include "base/numeric_text.h"
#include "base/settings.h"
#include "midi/mdlvert.h"
#include "plan/piece.h"
#include "plan/plan_steps.h"
#include "scales/organ_scale.h"
#include "scales/scale_file.h"
#include "support/plain_models.h"

namespace {

using Lines = std::vector<std::string>;
using Pieces = std::vector<veltrin::Piece>;

// Bounds that keep a run to a few milliseconds.
constexpr std::size_t kMaxInput = 64 * 1024;
constexpr std::size_t kMaxNotes = 600;
constexpr std::size_t kMaxPieces = 1200;

void check(bool condition)
{
    if (!condition)
        std::abort();
}

// Bits and bytes taken from the end of the input backwards (zeros once it is used up).
class TailReader {
public:
    TailReader(const std::uint8_t* data, std::size_t size) : m_data(data), m_left(size) {}

    unsigned byte()
    {
        if (m_left == 0)
            return 0;
        return m_data[--m_left];
    }
    // Two bytes as one number, the first the high one.
    unsigned word()
    {
        const unsigned high = byte();
        return high * 256 + byte();
    }
    unsigned bits(int count)
    {
        while (m_bitCount < count) {
            m_bits |= static_cast<std::uint64_t>(byte()) << m_bitCount;
            m_bitCount += 8;
        }
        const auto value = static_cast<unsigned>(m_bits & ((std::uint64_t{1} << count) - 1));
        m_bits >>= count;
        m_bitCount -= count;
        return value;
    }
    template <typename T, std::size_t N>
    const T& pick(const T (&options)[N])
    {
        return options[byte() % N];
    }

private:
    const std::uint8_t* m_data;
    std::size_t m_left;
    std::uint64_t m_bits = 0;
    int m_bitCount = 0;
};

// Characters pos (1-based) to pos + length - 1 of line, as far as the line goes.
std::string mid(const std::string& line, std::size_t pos, std::size_t length)
{
    return pos - 1 < line.size() ? line.substr(pos - 1, length) : std::string();
}

bool isKeyword(const std::string& line, const char* keyword)
{
    return line.compare(0, 4, keyword) == 0;
}

// ---- Numbers ---------------------------------------------------------------------------

using veltrin::models::slowPlainNumber;

void checkNumber(double value)
{
    // Exactly the promised room, so that a write past it is caught.
    const std::unique_ptr<char[]> room(new char[veltrin::kPlainNumberMaxChars]);
    const char* end = veltrin::writePlainNumber(room.get(), value);
    check(end > room.get() && end <= room.get() + veltrin::kPlainNumberMaxChars);
    const std::string written(room.get(), static_cast<std::size_t>(end - room.get()));
    check(written == slowPlainNumber(value));
    check(veltrin::plainNumber(value) == written);
}

void checkNumbers(const std::uint8_t* data, std::size_t size)
{
    // Raw bit patterns: every exponent, subnormals and non-numbers.
    for (std::size_t at = 0; at + 8 <= size && at < 16 * 8; at += 8) {
        double value = 0.0;
        std::memcpy(&value, data + at, sizeof value);
        checkNumber(value);
    }
    // Short decimals k / 10^d and their neighbours.
    for (std::size_t at = 0; at + 9 <= size && at < 16 * 9; at += 9) {
        std::uint64_t bits = 0;
        std::memcpy(&bits, data + at, sizeof bits);
        const unsigned shape = data[at + 8];
        const double k = static_cast<double>(bits % static_cast<std::uint64_t>(std::pow(10.0, shape % 17 + 1)));
        const double value = k / std::pow(10.0, (shape >> 3) % 25);
        for (const double v : {value, std::nextafter(value, 0.0), std::nextafter(value, 2 * value + 1)}) {
            checkNumber(v);
            checkNumber(-v);
        }
    }
}

// ---- Event lines -------------------------------------------------------------------------

std::string padded(long long value, int width)
{
    char text[32];
    std::snprintf(text, sizeof text, "%0*lld", width, value);
    return text;
}

// A song read from the bytes, four a note: time since the previous start, length, note,
// shape. Mostly notes of the scale, so that the split has work.
Lines songFromBytes(const std::uint8_t* data, std::size_t size, const veltrin::OrganScale& scale)
{
    Lines lines;
    long long start = 0;
    for (std::size_t at = 0; at + 4 <= size && lines.size() < 2 * kMaxNotes; at += 4) {
        const auto tick = static_cast<long long>(at);
        const unsigned shape = data[at + 3];
        start = std::min<long long>(start + data[at] * (shape & 0x10 ? 37 : 4), 9990000);
        const long long length = 1 + data[at + 1] * (shape & 0x20 ? 97 : 8);
        int note = data[at + 2];
        if ((shape & 3) != 0)
            note = scale.trackNote(note % scale.nb_notes);
        lines.push_back("NOTE " + padded(start, 7) + " " + padded(tick, 6) + " " + padded(shape % 16, 5) +
                        " " + padded(note, 5) + " " + padded(length, 5) + " 00100 C4");
        // Like the decoder, the last seven digits of a time past the field.
        lines.push_back("NOOF " + padded((start + length) % 10000000, 7) + " " + padded(tick, 6) + " " +
                        padded(shape % 16, 5));
        if (shape & 0x40)
            lines.push_back("TEMP " + padded(start, 7) + " " + padded(tick, 6) + " 0500000");
    }
    return lines;
}

// Spoils a few lines the way a hand-edited list would: a digit made a blank or a letter, a
// line cut short, two lines swapped, a NOOF with no note open. The letters leave out "e":
// the leading-number rule reads "0001e12" as 10^12 ms, a note no piece budget can split.
void spoil(Lines& lines, TailReader& tail)
{
    const unsigned count = tail.bits(2) + 1;
    for (unsigned n = 0; n < count; ++n) {
        const unsigned what = tail.bits(2);
        if (what == 3) {
            // After a NOOF (or at the start) nothing is open.
            std::size_t at = 0;
            const std::size_t wanted = lines.empty() ? 0 : tail.word();
            for (std::size_t i = 0; i < lines.size(); ++i)
                if (isKeyword(lines[i], "NOOF") && i <= wanted)
                    at = i + 1;
            lines.insert(lines.begin() + static_cast<std::ptrdiff_t>(at),
                         "NOOF " + padded(tail.byte() * 100, 7) + " 000000 00000");
            continue;
        }
        if (lines.empty())
            return;
        std::string& line = lines[tail.word() % lines.size()];
        if (what == 0) {
            std::vector<std::size_t> digits;
            for (std::size_t i = 5; i < line.size() && i < 31; ++i)
                if (line[i] >= '0' && line[i] <= '9')
                    digits.push_back(i);
            if (!digits.empty())
                line[digits[tail.byte() % digits.size()]] = tail.pick({' ', 'x', 'A', '#', 'z', '.'});
        } else if (what == 1) {
            line.resize(std::min<std::size_t>(line.size(), tail.byte() % 34));
        } else {
            std::swap(line, lines[tail.word() % lines.size()]);
        }
    }
}

// ---- Pairing -------------------------------------------------------------------------------

using veltrin::models::pairedAsText;

// ---- Split ---------------------------------------------------------------------------------

struct ModelSplit {
    Pieces pieces;
    int horsGamme = 0;
    int piste = 0;
};

std::int32_t wholeMs(double ms)
{
    return static_cast<std::int32_t>(std::llround(ms));
}

// The split read plainly: every field by the leading-number rule, the track by a search of
// the table. Stops before the note that would take the pieces past kMaxPieces and cuts
// noteLines there.
ModelSplit splitPlainly(Lines& noteLines, bool fractionner, const veltrin::PlanValues& v,
                        const veltrin::OrganScale& scale)
{
    ModelSplit model;
    const double marge = v.laser ? std::nearbyint(v.temps_pont + 50.0) : 0.0;
    const double morceau = v.laser ? v.temps_morceau : v.temps_poincon;
    const int tableSize = scale.standard_AF_actif ? veltrin::kAlderFennTracks : veltrin::kMaxTracks;
    const int searched = std::clamp(scale.nb_notes, 0, tableSize);
    for (std::size_t k = 0; k < noteLines.size(); ++k) {
        const std::string& line = noteLines[k];
        double start = veltrin::leadingNumber(mid(line, 1, 7));
        const double end = veltrin::leadingNumber(mid(line, 13, 7));
        const double note = veltrin::leadingNumber(mid(line, 9, 3));
        int piste = -1;
        for (int i = 0; i < searched && piste < 0; ++i)
            if (scale.trackNote(i) == note)
                piste = i;
        if (piste < 0) {
            ++model.horsGamme;
            continue;
        }
        Pieces mine;
        const double duree = end - start;
        if (fractionner && duree >= morceau) {
            double reste = duree;
            const double step = morceau + v.temps_pont;
            while (reste > marge + morceau && mine.size() <= kMaxPieces) {
                mine.push_back({wholeMs(start), piste, wholeMs(start + morceau), false});
                start += step;
                reste -= step;
            }
            if (v.laser)
                mine.push_back({wholeMs(start), piste, wholeMs(end), false});
            else
                mine.push_back({wholeMs(end - v.temps_poincon), piste, wholeMs(end), false});
        } else {
            mine.push_back({wholeMs(start), piste, wholeMs(end), false});
        }
        if (model.pieces.size() + mine.size() > kMaxPieces) {
            noteLines.resize(k);
            break;
        }
        model.piste = piste;
        model.pieces.insert(model.pieces.end(), mine.begin(), mine.end());
    }
    std::sort(model.pieces.begin(), model.pieces.end(), veltrin::planOrder);
    return model;
}

// ---- Travel --------------------------------------------------------------------------------

using veltrin::models::bandByBand;

bool betweenMarks(const veltrin::Piece& piece, const veltrin::MarkRange& marks)
{
    return std::floor(marks.startMs) <= piece.startMs &&
           (!marks.endSet() || piece.startMs < std::floor(marks.endMs));
}

// The straight-line travel over the holes between the marks, from (0, 0).
double walkPlainly(const Pieces& finale, const veltrin::PlanValues& v, const veltrin::MarkRange& marks)
{
    double total = 0.0;
    double x = 0.0;
    double y = 0.0;
    for (const veltrin::Piece& piece : finale) {
        if (!betweenMarks(piece, marks))
            continue;
        const double toX = veltrin::Position_piste(v, piece.track);
        const double toY = veltrin::holeY(v, piece);
        total += std::sqrt((toX - x) * (toX - x) + (toY - y) * (toY - y));
        x = toX;
        y = toY;
    }
    return total;
}

// Whether order holds the pieces of sorted (in plan order), each as often.
bool samePieces(Pieces order, const Pieces& sorted)
{
    std::sort(order.begin(), order.end(), veltrin::planOrder);
    return order == sorted;
}

bool sameBits(double a, double b)
{
    return std::memcmp(&a, &b, sizeof a) == 0;
}

// Optimise_trajets and travelDistances at each width against the plain order and walk.
void checkTravel(const Pieces& pieces, const std::vector<int>& widths, const veltrin::PlanValues& v,
                 const veltrin::MarkRange& marks, bool inPlanOrder)
{
    const std::vector<double> distances = veltrin::travelDistances(pieces, widths, v, marks);
    check(distances.size() == widths.size());
    Pieces sorted = pieces;
    if (!inPlanOrder)
        std::sort(sorted.begin(), sorted.end(), veltrin::planOrder);
    for (std::size_t w = 0; w < widths.size(); ++w) {
        const Pieces finale = veltrin::Optimise_trajets(pieces, widths[w], v);
        check(samePieces(finale, sorted));
        if (inPlanOrder)
            check(finale == bandByBand(pieces, widths[w], v));
        check(sameBits(distances[w], walkPlainly(finale, v, marks)));
    }
}

// ---- Program -------------------------------------------------------------------------------

// The program text of the writer's rules, line by line; firstLines gets each hole's first
// line index.
std::string programPlainly(const veltrin::WriterInput& in, std::vector<int>& firstLines)
{
    const veltrin::PlanValues& v = in.values;
    std::vector<std::string> lines;
    const std::string origin = slowPlainNumber(v.origine_x);
    lines.push_back((v.laser ? ";Laser gcode of the file : " : ";Punch gcode of the file : ") + in.title);
    if (in.header) {
        lines.push_back("$HX ;X origin search");
        if (!in.marks.startSet()) {
            lines.push_back("G92 X" + origin + " Y0 Z-1 ;Homing position at " + origin + " mm from X origin");
        } else {
            const std::string y0 = slowPlainNumber(std::floor(in.marks.startMs * v.Vitcarton / 1000.0));
            lines.push_back("G92 X" + origin + " Y" + y0 + " Z-1 ;Homing position at " + origin +
                            " mm from X origin and at " + y0 + " mm from roll begining");
        }
    }
    const std::string feed = std::to_string(v.vitesse_avance);
    if (!v.laser)
        lines.push_back("M3 S1000 F" + feed);
    else if (in.Laser_mode == "M3")
        lines.push_back("M3 S" + in.Laser_power + " ;Laser power " + in.Laser_power + ". M3 = constant power");
    else
        lines.push_back("M4 S" + in.Laser_power + " ; M4 = Adaptative power according to speed up to " +
                        in.Laser_power + "max");
    int strikes = 0;
    for (const veltrin::Piece& piece : *in.finale) {
        if (!betweenMarks(piece, in.marks))
            continue;
        firstLines.push_back(static_cast<int>(lines.size()));
        const double x1 = veltrin::Position_piste(v, piece.track);
        const std::string x1Text = slowPlainNumber(x1);
        const std::string y1Text = slowPlainNumber(veltrin::holeY(v, piece));
        lines.push_back("G0 X" + x1Text + " Y" + y1Text);
        if (!v.laser) {
            lines.push_back(strikes++ % 2 == 0 ? "G1 Z1" : "G1 Z-1");
            continue;
        }
        const double x2 = x1 + (v.standard_AF_actif && piece.track < 4 ? v.BassesAF : v.Ldecoupe);
        const double endMs = piece.endMs;
        lines.push_back("G1 X" + slowPlainNumber(x2) + " F" + feed);
        lines.push_back("G1 Y" + slowPlainNumber(endMs * v.Vitcarton / 1000.0) + " F" + feed);
        lines.push_back("G1 X" + x1Text + " F" + feed);
        lines.push_back("G1 Y" + y1Text + " F" + feed);
    }
    lines.push_back("G0 M5 S0");
    std::string text;
    for (const std::string& line : lines)
        text += line + "\r\n";
    return text;
}

void checkProgram(const veltrin::WriterInput& input, double plainDistance)
{
    const veltrin::Program program = veltrin::writeProgram(input, false);
    const veltrin::Program silent = veltrin::writeProgram(input, true);
    check(silent.text.empty() && silent.holes.empty());

    // Every line ends with CR LF, and no CR or LF stands elsewhere.
    const std::string& text = program.text;
    check(text.size() >= 2 && text.compare(text.size() - 2, 2, "\r\n") == 0);
    std::size_t lineCount = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\r')
            check(i + 1 < text.size() && text[i + 1] == '\n');
        if (text[i] == '\n') {
            check(i > 0 && text[i - 1] == '\r');
            ++lineCount;
        }
    }
    std::size_t holes = 0;
    for (const veltrin::Piece& piece : *input.finale)
        holes += betweenMarks(piece, input.marks) ? 1 : 0;
    const std::size_t fixedLines = 3 + (input.header ? 2 : 0);
    check(lineCount == fixedLines + holes * (input.values.laser ? 5 : 2));

    std::vector<int> firstLines;
    check(text == programPlainly(input, firstLines));
    check(program.holes.size() == holes && firstLines.size() == holes);
    std::size_t h = 0;
    for (const veltrin::Piece& piece : *input.finale) {
        if (!betweenMarks(piece, input.marks))
            continue;
        check(program.holes[h].first == piece && program.holes[h].second == firstLines[h]);
        ++h;
    }

    for (const veltrin::ProgramTotals* t : {&program.totals, &silent.totals})
        check(sameBits(t->distance_totale, plainDistance));
    check(sameBits(program.totals.longueur_coupe, silent.totals.longueur_coupe));
    check(program.totals.nb_frappes == (input.values.laser ? 0.0 : static_cast<double>(holes)));
}

// ---- Roll cleanup --------------------------------------------------------------------------

// The cleanup of the same notes: off, the plan is the split's; on, every track's holes keep
// their card and their minimum length, and the merged notes leave the list.
void checkCleanup(const Lines& noteLines, bool fractionner, veltrin::PlanValues values,
                  const veltrin::OrganScale& scale, const veltrin::SplitResult& plain)
{
    values.rollCleanup = false;
    check(veltrin::planSplit(noteLines, fractionner, values, scale).pieces == plain.pieces);
    values.rollCleanup = true;
    const veltrin::RollCleanupValues r = veltrin::rollCleanupValues(values, fractionner);
    std::vector<veltrin::PlanNote> notes = veltrin::placeNotes(noteLines, scale);
    const std::size_t placed = notes.size();
    const veltrin::RollCleanupCounts counts = veltrin::cleanRoll(notes, r);
    check(notes.size() + static_cast<std::size_t>(counts.merged) == placed);
    check(veltrin::planSplit(noteLines, fractionner, values, scale).cleanup == counts);
    std::sort(notes.begin(), notes.end(), [](const veltrin::PlanNote& a, const veltrin::PlanNote& b) {
        return a.piste != b.piste ? a.piste < b.piste : a.startMs < b.startMs;
    });
    const auto holeEnd = [&r](const veltrin::PlanNote& n) {
        return r.laser ? n.endMs : std::max(n.endMs, n.startMs + r.strike);
    };
    constexpr double kSlack = 1e-6;  // times are whole ms, but a hand-written start need not be
    for (std::size_t i = 0; i < notes.size(); ++i) {
        if (notes[i].piste < 0)
            continue;
        check(holeEnd(notes[i]) - notes[i].startMs >= r.minHole - kSlack);
        if (i > 0 && notes[i - 1].piste == notes[i].piste)
            check(notes[i].startMs - holeEnd(notes[i - 1]) >= r.separation - kSlack);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size > kMaxInput)
        return 0;
    // The number texts, for doubles made of the first bytes.
    checkNumbers(data, size);

    // The settings, from the last bytes.
    TailReader tail(data, size);
    veltrin::Settings settings;
    settings.Standard = tail.bits(1) != 0 ? veltrin::kAlderFennName : veltrin::kKolbyName;
    veltrin::OrganScale scale;
    veltrin::MessageLog log;
    check(veltrin::Def_standard("", settings, scale, log).ok());
    settings.Type_machine = tail.bits(1) != 0 ? "Punch" : "Laser";
    // Each piece plus its bridge keeps at least 1 ms of roll.
    settings.Vitcarton = tail.pick({"60", "30", "120", "7.5", "45.5"});
    settings.Lgponts = tail.pick({"1.5", "0", "0.5", "3", "0.25"});
    settings.Dist_ponts = tail.pick({"15", "5", "2", "40", "7.3"});
    settings.L_poincon = tail.pick({"3", "1", "5", "0.5", "2.2"});
    settings.Fourchette = tail.pick({"7", "0", "30", "2.5", "1"});
    const veltrin::PlanValues values = veltrin::planValues(settings, scale);
    const bool fractionner = !(values.laser && veltrin::leadingNumber(settings.Lgponts) == 0.0);
    const double step = values.laser ? values.temps_morceau : values.temps_poincon;
    check(step + values.temps_pont >= 1.0);

    // 1. The event lines: the decoder's, at most kMaxNotes notes of them, else the bytes read
    //    as notes; sometimes spoiled.
    veltrin::DecodeOptions options;
    options.sustain = tail.bits(1) != 0;
    Lines events = veltrin::Vertalen(std::span<const std::uint8_t>(data, size), "fuzz.mid", options).lines;
    std::size_t notes = 0;
    for (std::size_t i = 0; i < events.size(); ++i) {
        if (isKeyword(events[i], "NOOF") && ++notes == kMaxNotes) {
            events.resize(i + 1);
            break;
        }
    }
    if (notes == 0)
        events = songFromBytes(data, size, scale);
    if (tail.bits(2) == 0)
        spoil(events, tail);

    // 2. Pairing.
    Lines play;
    Lines expectedPlay;
    Lines noteLines = veltrin::pairNotes(events, play);
    check(noteLines == pairedAsText(events, expectedPlay));
    check(play == expectedPlay);

    // 3. Split: in plan order, the pieces of the plain split.
    const ModelSplit model = splitPlainly(noteLines, fractionner, values, scale);
    const veltrin::SplitResult split = veltrin::Decoupe_notes(noteLines, fractionner, values, scale);
    check(std::is_sorted(split.pieces.begin(), split.pieces.end(), veltrin::planOrder));
    check(split.pieces == model.pieces);
    check(split.notes_hors_gamme == model.horsGamme && split.piste_courante == model.piste);
    const Pieces& pieces = split.pieces;

    // 4. Travel order and distances, for a few widths and marks.
    veltrin::MarkRange marks;
    const unsigned markShape = tail.bits(2);
    if (markShape >= 2 && !pieces.empty()) {
        const double last = pieces.back().startMs;
        marks.startMs = std::floor(last * tail.byte() / 255.0) + (tail.bits(1) != 0 ? 0.5 : 0.0);
        if (markShape == 3)
            marks.endMs = marks.startMs + last * tail.byte() / 128.0;
    }
    std::vector<int> widths = {values.temps_fourchette, 0, static_cast<int>(tail.byte() * 40)};
    if (tail.bits(1) != 0)
        widths.push_back(tail.bits(1) != 0 ? -1 : 20000000);
    checkTravel(pieces, widths, values, marks, true);
    if (pieces.size() >= 1000 && tail.bits(5) == 0) {
        // Enough widths of enough pieces share the measures among threads: each must be
        // what the calling thread alone measures, a few widths at a time.
        std::vector<int> many;
        for (int k = 0; pieces.size() * many.size() < 2 * veltrin::kTravelMovesPerThread; ++k)
            many.push_back(k * 7 + static_cast<int>(tail.byte()));
        const std::vector<double> shared = veltrin::travelDistances(pieces, many, values, marks);
        const std::size_t chunk = veltrin::kTravelMovesPerThread / pieces.size();
        for (std::size_t from = 0; from < many.size(); from += chunk) {
            const std::vector<int> some(many.begin() + static_cast<std::ptrdiff_t>(from),
                                        many.begin() + static_cast<std::ptrdiff_t>(std::min(from + chunk, many.size())));
            const std::vector<double> alone = veltrin::travelDistances(pieces, some, values, marks);
            for (std::size_t i = 0; i < some.size(); ++i)
                check(sameBits(alone[i], shared[from + i]));
        }
    }
    if (tail.bits(2) == 0) {
        // Out of plan order: the walk piece by piece.
        const Pieces reversed(pieces.rbegin(), pieces.rend());
        checkTravel(reversed, {values.temps_fourchette, 100}, values, marks, false);
    }

    // 5. The program of the ordered pieces.
    const Pieces finale = veltrin::Optimise_trajets(pieces, values.temps_fourchette, values);
    veltrin::WriterInput input;
    input.finale = &finale;
    input.values = values;
    input.marks = marks;
    input.title = "fuzz";
    input.Laser_mode = tail.bits(1) != 0 ? "M4" : "M3";
    input.Laser_power = "1000";
    input.header = tail.bits(1) == 0;
    checkProgram(input, walkPlainly(finale, values, marks));

    // 6. The roll cleanup of the same notes, with a minimum hole of its own.
    veltrin::PlanValues cleaned = values;
    cleaned.temps_trou_min = veltrin::leadingNumber(tail.pick({"3", "0", "8", "1.5"})) * 1000.0 / values.Vitcarton;
    checkCleanup(noteLines, fractionner, cleaned, scale, split);
    return 0;
}
