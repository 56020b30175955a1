// The G-code program of the ordered pieces, its running totals and the operator's report.

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <string>
#include <string_view>

#include "plan/plan_steps.h"
#include "base/numeric_text.h"
#include "plan/plan_text.h"

namespace veltrin {

namespace {

// A short text written many times (a coordinate, the feed rate). It is kept with room to
// spare and copied in whole 16-byte blocks, so the copy may write past the text's end up to
// the end of its last block; what follows in the program overwrites those bytes.
class ShortText {
public:
    static constexpr std::size_t kBlock = 16;

    void setNumber(double value) { m_size = size(writePlainNumber(m_chars.data(), value)); }
    void setWhole(int value) { m_size = size(std::to_chars(m_chars.data(), m_chars.data() + kBlock, value).ptr); }
    // The bytes a copy writes.
    std::size_t room() const { return (m_size + kBlock - 1) / kBlock * kBlock; }
    char* copyTo(char* out) const
    {
        for (std::size_t i = 0; i < m_size; i += kBlock)
            std::memcpy(out + i, m_chars.data() + i, kBlock);
        return out + m_size;
    }

private:
    std::size_t size(const char* end) const { return static_cast<std::size_t>(end - m_chars.data()); }

    std::array<char, (kPlainNumberMaxChars + kBlock - 1) / kBlock * kBlock> m_chars{};
    std::size_t m_size = 0;
};

// The program text, written into one buffer that grows seldom. A line's parts are texts
// and numbers; numbers are written in plainNumber's form. A silent program neither formats
// nor keeps anything.
class ProgramText {
public:
    ProgramText(bool silent, std::size_t expectedBytes) : m_silent(silent)
    {
        if (!silent)
            m_text.resize(expectedBytes);
    }
    // Appends one line with its CR LF (nothing when silent).
    template <typename... Parts>
    void line(const Parts&... parts)
    {
        if (m_silent)
            return;
        const std::size_t bytes = (room(parts) + ... + 2);
        if (m_text.size() - m_size < bytes)
            grow(bytes);
        char* out = m_text.data() + m_size;
        ((out = put(out, parts)), ...);
        *out++ = '\r';
        *out++ = '\n';
        m_size = static_cast<std::size_t>(out - m_text.data());
        ++m_count;
    }
    int count() const { return m_count; }
    std::string take()
    {
        m_text.resize(m_size);
        return std::move(m_text);
    }

private:
    // The most bytes a part writes.
    template <std::size_t N>
    static std::size_t room(const char (&)[N]) { return N - 1; }
    static std::size_t room(std::string_view text) { return text.size(); }
    static std::size_t room(const ShortText& text) { return text.room(); }
    static std::size_t room(double) { return kPlainNumberMaxChars; }

    template <std::size_t N>
    static char* put(char* out, const char (&text)[N]) { return std::copy_n(text, N - 1, out); }
    static char* put(char* out, std::string_view text) { return std::copy(text.begin(), text.end(), out); }
    static char* put(char* out, const ShortText& text) { return text.copyTo(out); }
    static char* put(char* out, double number) { return writePlainNumber(out, number); }

    void grow(std::size_t bytes) { m_text.resize(std::max(2 * m_text.size(), m_size + bytes)); }

    bool m_silent;
    std::string m_text;  // the lines written, then room for more
    std::size_t m_size = 0;
    int m_count = 0;
};

// What a hole's X depends on, worked out once per track up to the highest of the pieces:
// Position_piste, the far X of a laser cut, and their texts (not for a silent program).
struct TrackColumns {
    std::vector<double> x1;
    std::vector<ShortText> x1Text;
    std::vector<ShortText> x2Text;

    TrackColumns(const PlanValues& v, const std::vector<Piece>& pieces, bool silent)
    {
        int highest = 0;
        for (const Piece& piece : pieces)
            highest = std::max(highest, piece.track);
        const auto count = static_cast<std::size_t>(highest) + 1;
        x1.resize(count);
        if (!silent) {
            x1Text.resize(count);
            x2Text.resize(count);
        }
        for (int track = 0; track <= highest; ++track) {
            const auto i = static_cast<std::size_t>(track);
            x1[i] = Position_piste(v, track);
            if (silent)
                continue;
            x1Text[i].setNumber(x1[i]);
            x2Text[i].setNumber(farX(v, track, x1[i]));
        }
    }

    // The X where a laser cut of the track ends: wider for the bass holes of the 20-note scale.
    static double farX(const PlanValues& v, int track, double x1)
    {
        return x1 + (v.standard_AF_actif && track < 4 ? v.BassesAF : v.Ldecoupe);
    }
};

}  // namespace

Program writeProgram(const WriterInput& input, bool silent)
{
    Program program;
    ProgramTotals& t = program.totals;
    const PlanValues& v = input.values;
    const std::vector<Piece>& finale = *input.finale;
    // About 90 bytes for the five lines of a laser hole, 30 for the two of a strike.
    ProgramText out(silent, 512 + finale.size() * (v.laser ? 96 : 32));
    const std::string originText = plainNumber(v.origine_x);

    // 1. Title, header and tool.
    out.line(v.laser ? ";Laser gcode of the file : " : ";Punch gcode of the file : ", input.title);
    if (input.header) {
        out.line("$HX ;X origin search");
        if (!input.marks.startSet()) {
            out.line("G92 X", originText, " Y0", " Z-1", " ;Homing position at ", originText,
                     " mm from X origin");
        } else {
            // The job goes on along a roll already advanced to the start mark.
            const std::string y0 = plainNumber(std::floor(input.marks.startMs * v.Vitcarton / 1000.0));
            out.line("G92 X", originText, " Y", y0, " Z-1", " ;Homing position at ", originText,
                     " mm from X origin and at ", y0, " mm from roll begining");
        }
    }
    ShortText feed;
    feed.setWhole(v.vitesse_avance);
    if (!v.laser)
        out.line("M3 S1000 F", feed);  // the spindle output drives the punch
    else if (input.Laser_mode == "M3")
        out.line("M3 S", input.Laser_power, " ;Laser power ", input.Laser_power,
                 ". M3 = constant power");
    else
        out.line("M4 S", input.Laser_power,
                 " ; M4 = Adaptative power according to speed up to ", input.Laser_power, "max");

    // 2. The holes between the marks, in travel order.
    const TrackColumns columns(v, finale, silent);
    if (!silent)
        program.holes.reserve(finale.size());
    ShortText x1Number;  // the X of a hole whose track has no column
    ShortText y1Text;    // a laser cut's corner, written twice
    const MarkFilter betweenMarks(input.marks);
    TravelLength travel;
    for (const Piece& piece : finale) {
        const double start = piece.startMs;
        const double end = piece.endMs;
        if (!betweenMarks.keeps(start))
            continue;
        // Tracks come from the scale's table, so never below 0; the formula stays for others.
        const bool known = piece.track >= 0;
        const auto track = static_cast<std::size_t>(piece.track);
        const double x1 = known ? columns.x1[track] : Position_piste(v, piece.track);
        const ShortText* x1Text = &x1Number;
        if (!silent && known)
            x1Text = &columns.x1Text[track];
        else if (!silent)
            x1Number.setNumber(x1);
        double y1 = 0.0;
        if (!silent)
            program.holes.emplace_back(piece, out.count());
        if (!v.laser) {
            // A strike is centred half a punch length after the piece's start.
            y1 = holeY(v, piece);
            out.line("G0 X", *x1Text, " Y", y1);
            // Each strike moves Z from one end to the other.
            if (static_cast<long long>(t.nb_frappes) % 2 == 0)
                out.line("G1 Z1");
            else
                out.line("G1 Z-1");
            t.nb_frappes += 1.0;
            t.y_max = std::max(t.y_max, y1);
        } else {
            y1 = holeY(v, piece);
            if (!t.anyHole)
                t.y_premiere_coupe = y1;
            const double x2 = TrackColumns::farX(v, piece.track, x1);
            const double y2 = end * v.Vitcarton / 1000.0;
            if (!silent) {
                y1Text.setNumber(y1);
                // Travel with the beam off (G0), then the rectangle clockwise back to its corner.
                out.line("G0 X", *x1Text, " Y", y1Text);
                if (known)
                    out.line("G1 X", columns.x2Text[track], " F", feed);
                else
                    out.line("G1 X", x2, " F", feed);
                out.line("G1 Y", y2, " F", feed);
                out.line("G1 X", *x1Text, " F", feed);
                out.line("G1 Y", y1Text, " F", feed);
            }
            // The cut length counts Ldecoupe even for the wider bass holes.
            t.longueur_coupe += 2.0 * (y2 - y1) + 2.0 * v.Ldecoupe;
            t.y_max = std::max(t.y_max, y2);
        }
        travel.moveTo(x1, y1);
        t.anyHole = true;
        t.lastY1 = y1;
    }
    t.distance_totale = travel.total;
    out.line("G0 M5 S0");

    // 3. The roll length comes from the last piece in travel order, inside the marks or not.
    if (!finale.empty())
        t.longueur_rouleau = finale.back().endMs * v.Vitcarton / 1000.0;
    program.text = out.take();
    return program;
}

std::vector<std::string> reportLines(const ReportInput& in)
{
    std::vector<std::string> lines;
    const ProgramTotals& t = in.totals;
    const char sep = in.decimalSeparator;
    auto metres = [sep](double mm) { return fixedDecimals(mm / 1000.0, 2, 1, sep) + " m"; };
    if (in.laser) {
        lines.push_back("   - Cuttings length : " + metres(t.longueur_coupe));
        lines.push_back("   - Overall length between holes : " + metres(t.distance_totale));
    } else {
        lines.push_back("   - Overall distances : " + metres(t.distance_totale));
        lines.push_back("   - Number of punch strikes : " + plainNumber(t.nb_frappes));
    }
    if (!in.rollCleanup.empty())
        lines.push_back(in.rollCleanup);
    if (in.notes_hors_gamme > 0) {
        lines.push_back("ATTENTION : ");
        // The count is written with a leading space for its (positive) sign: "--->  3 notes".
        std::string count = std::to_string(in.notes_hors_gamme);
        count.insert(count.begin(), ' ');
        lines.push_back("---> " + count +
                        (in.notes_hors_gamme == 1 ? " note is not in the organ scale"
                                                  : " notes are not in the organ scale"));
    }

    double rollMetres = 0.0;
    if (in.marks.startSet()) {
        const double yEnd = in.marks.endSet() ? in.Vitcarton * in.marks.endMs / 1000.0 : t.lastY1;
        rollMetres = (yEnd - in.Vitcarton * in.marks.startMs / 1000.0) / 1000.0;
    } else {
        rollMetres = t.y_max / 1000.0;
    }
    if (!in.laser)
        rollMetres += in.L_poincon / 2000.0;
    lines.push_back("Roll length : " + fixedDecimals(rollMetres, 3, rollMetres > 10.0 ? 2 : 1, sep) + " m");

    double seconds = 0.0;
    if (in.laser) {
        const double travel = t.longueur_coupe + t.distance_totale;
        seconds = in.duree_metre_laser != 999.0 ? in.duree_metre_laser * travel
                                                : travel / in.vitesse_avance * 60.0;
    } else {
        // Unlearned: travel at the feed rate plus half again for the strikes.
        seconds = in.duree_trou_poincon != 999.0 ? in.duree_trou_poincon * t.nb_frappes
                                                 : t.distance_totale / in.vitesse_avance * 1.5 * 60.0;
    }
    lines.push_back("Estimated punch duration : " + clockText(seconds));
    lines.push_back("Ready to punch");
    lines.push_back("");
    return lines;
}

}  // namespace veltrin
