// The G-code program of the ordered pieces, its running totals and the operator's report.

#include <algorithm>
#include <cmath>

#include "plan/plan_steps.h"
#include "app/numeric_text.h"
#include "plan/plan_text.h"

namespace veltrin {

namespace {

class ProgramText {
public:
    explicit ProgramText(bool silent) : m_silent(silent) {}
    // Appends one line with its CR LF (nothing when silent).
    template <typename... Parts>
    void line(const Parts&... parts)
    {
        if (m_silent)
            return;
        (m_text.append(parts), ...);
        m_text.append("\r\n");
        ++m_count;
    }
    int count() const { return m_count; }
    std::string take() { return std::move(m_text); }

private:
    bool m_silent;
    std::string m_text;
    int m_count = 0;
};

}  // namespace

Program writeProgram(const WriterInput& input, bool silent)
{
    Program program;
    ProgramTotals& t = program.totals;
    const PlanValues& v = input.values;
    ProgramText out(silent);
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
    const std::string feed = std::to_string(v.vitesse_avance);
    if (!v.laser)
        out.line("M3 S1000 F", feed);  // the spindle output drives the punch
    else if (input.Laser_mode == "M3")
        out.line("M3 S", input.Laser_power, " ;Laser power ", input.Laser_power,
                 ". M3 = constant power");
    else
        out.line("M4 S", input.Laser_power,
                 " ; M4 = Adaptative power according to speed up to ", input.Laser_power, "max");

    // 2. The holes between the marks, in travel order.
    const double markStart = std::floor(input.marks.startMs);
    const double markEnd = std::floor(input.marks.endMs);
    const bool toTheEnd = !input.marks.endSet();
    double previousX = 0.0;
    double previousY = 0.0;
    const std::vector<Piece>& finale = *input.finale;
    for (const Piece& piece : finale) {
        const double start = piece.startMs;
        const double end = piece.endMs;
        if (!(markStart <= start && (toTheEnd || start < markEnd)))
            continue;
        const double x1 = Position_piste(v, piece.track);
        double y1 = 0.0;
        if (!silent)
            program.holes.emplace_back(piece, out.count());
        if (!v.laser) {
            // A strike is centred half a punch length after the piece's start.
            y1 = v.Vitcarton * start / 1000.0 + v.L_poincon / 2.0;
            out.line("G0 X", plainNumber(x1), " Y", plainNumber(y1));
            // Each strike moves Z from one end to the other.
            out.line(static_cast<long long>(t.nb_frappes) % 2 == 0 ? "G1 Z1" : "G1 Z-1");
            t.nb_frappes += 1.0;
            t.y_max = std::max(t.y_max, y1);
        } else {
            y1 = v.Vitcarton * start / 1000.0;
            if (!t.anyHole)
                t.y_premiere_coupe = y1;
            const double x2 = x1 + (v.standard_AF_actif && piece.track < 4 ? v.BassesAF : v.Ldecoupe);
            const double y2 = end * v.Vitcarton / 1000.0;
            if (!silent) {
                const std::string x1Text = plainNumber(x1);
                const std::string y1Text = plainNumber(y1);
                // Travel with the beam off (G0), then the rectangle clockwise back to its corner.
                out.line("G0 X", x1Text, " Y", y1Text);
                out.line("G1 X", plainNumber(x2), " F", feed);
                out.line("G1 Y", plainNumber(y2), " F", feed);
                out.line("G1 X", x1Text, " F", feed);
                out.line("G1 Y", y1Text, " F", feed);
            }
            // The cut length counts Ldecoupe even for the wider bass holes.
            t.longueur_coupe += 2.0 * (y2 - y1) + 2.0 * v.Ldecoupe;
            t.y_max = std::max(t.y_max, y2);
        }
        t.distance_totale += std::sqrt((x1 - previousX) * (x1 - previousX) +
                                       (y1 - previousY) * (y1 - previousY));
        previousX = x1;
        previousY = y1;
        t.anyHole = true;
        t.lastY1 = y1;
    }
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
