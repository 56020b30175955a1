// The holes of a G-code program, read as Grbl would run it.

#include "plan/program_reader.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <optional>

namespace veltrin {

namespace {

// Two points closer than this along both axes are one point: a cut that ends there has come
// back to its start. Far below any hole, far above the digits a hand-edited program drops.
constexpr double kSamePointMm = 0.001;
constexpr double kMmPerInch = 25.4;

struct Point {
    double x = 0.0;
    double y = 0.0;
};

bool samePoint(const Point& a, const Point& b)
{
    return std::fabs(a.x - b.x) <= kSamePointMm && std::fabs(a.y - b.y) <= kSamePointMm;
}

// The command text of a line as Grbl sees it: no comments, no blanks, upper case.
std::string commandText(std::string_view line)
{
    std::string text;
    bool inParentheses = false;
    for (const char c : line) {
        if (inParentheses) {
            inParentheses = c != ')';
            continue;
        }
        if (c == ';')
            break;
        if (c == '(') {
            inParentheses = true;
            continue;
        }
        if (c == ' ' || c == '\t' || c == '\r')
            continue;
        text += c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
    }
    return text;
}

struct Word {
    char letter;
    double value;
};

// The words of a command text; nullopt when it holds anything else.
std::optional<std::vector<Word>> wordsOf(const std::string& text)
{
    std::vector<Word> words;
    std::size_t at = 0;
    while (at < text.size()) {
        const char letter = text[at++];
        if (letter < 'A' || letter > 'Z')
            return std::nullopt;
        const std::size_t begin = at;
        if (at < text.size() && (text[at] == '-' || text[at] == '+'))
            ++at;
        bool digits = false;
        bool point = false;
        for (; at < text.size(); ++at) {
            const char c = text[at];
            if (c >= '0' && c <= '9') {
                digits = true;
            } else if (c == '.' && !point) {
                point = true;
            } else {
                break;
            }
        }
        if (!digits)
            return std::nullopt;
        // from_chars reads "." whatever the locale, but takes no "+".
        const char* first = text.data() + begin + (text[begin] == '+' ? 1 : 0);
        double value = 0.0;
        std::from_chars(first, text.data() + at, value);
        words.push_back({letter, value});
    }
    return words;
}

class Reader {
public:
    ProgramReading run(std::string_view text)
    {
        std::size_t at = 0;
        int number = 0;
        while (at <= text.size()) {
            std::size_t end = text.find('\n', at);
            if (end == std::string_view::npos)
                end = text.size();
            ++number;
            line(text.substr(at, end - at), number);
            if (m_ended)
                break;
            at = end + 1;
        }
        endCut();
        return std::move(m_reading);
    }

private:
    void warn(int number, const std::string& what)
    {
        m_reading.warnings.push_back("line " + std::to_string(number) + ": " + what);
    }

    void line(std::string_view raw, int number)
    {
        if (number == 1) {
            std::string_view title = raw.substr(std::min(raw.find_first_not_of(" \t"), raw.size()));
            if (title.starts_with(";Laser gcode"))
                m_reading.titled = ProgramMachine::Laser;
            else if (title.starts_with(";Punch gcode"))
                m_reading.titled = ProgramMachine::Punch;
        }
        const std::string text = commandText(raw);
        // "$" lines are Grbl's own commands ($HX homes X, which the G92 after it names);
        // "%" marks the start and end of a program.
        if (text.empty() || text[0] == '$' || text[0] == '%')
            return;
        const auto words = wordsOf(text);
        if (!words) {
            warn(number, "not read (\"" + text + "\")");
            return;
        }
        std::optional<double> axis[3];  // X, Y, Z
        bool setPosition = false;       // G92: the axis words name the position, no move
        bool noMove = false;            // G10, G28, G30...: the axis words are not a move
        for (const Word& w : *words) {
            const int code = static_cast<int>(std::lround(w.value * 10.0));  // G38.2 is 382
            switch (w.letter) {
            case 'X':
            case 'Y':
            case 'Z':
                axis[w.letter - 'X'] = w.value * (m_inches ? kMmPerInch : 1.0);
                break;
            case 'G':
                if (code == 0 || code == 10 || code == 20 || code == 30) {
                    m_motion = code / 10;
                    if (code >= 20)
                        warn(number, "an arc, read as a straight move");
                } else if (code == 900 || code == 910) {
                    m_relative = code == 910;
                } else if (code == 200 || code == 210) {
                    m_inches = code == 200;
                } else if (code == 920) {
                    setPosition = true;
                } else if (code == 100 || code == 280 || code == 300 || (code >= 380 && code < 390)) {
                    noMove = true;
                    std::string what = "G";
                    what += std::to_string(code / 10);
                    warn(number, what + " is not followed: the head's position is not known after it");
                }
                break;
            case 'M':
                if (code == 30 || code == 40) {
                    m_spindle = true;
                } else if (code == 50) {
                    m_spindle = false;
                } else if (code == 20 || code == 300) {
                    m_ended = true;
                }
                break;
            case 'S':
                m_power = w.value;
                break;
            default:
                break;  // F, P, N...: nothing to do with where holes are
            }
        }
        if (!laserOn())
            endCut();
        const bool anyAxis = axis[0] || axis[1] || axis[2];
        if (!anyAxis || noMove)
            return;
        if (setPosition) {
            // G92 names the current position in work coordinates, which are the roll's.
            endCut();
            if (axis[0])
                m_at.x = *axis[0];
            if (axis[1])
                m_at.y = *axis[1];
            if (axis[2])
                m_z = *axis[2];
            return;
        }
        Point to = m_at;
        if (axis[0])
            to.x = m_relative ? m_at.x + *axis[0] : *axis[0];
        if (axis[1])
            to.y = m_relative ? m_at.y + *axis[1] : *axis[1];
        const bool moves = !samePoint(m_at, to);
        if (m_motion != 0 && laserOn()) {
            if (moves)
                cutTo(to, number);
        } else if (moves) {
            endCut();
        }
        m_at = to;
        if (axis[2]) {
            const double z = m_relative && m_z ? *m_z + *axis[2] : *axis[2];
            if (!m_z || std::fabs(z - *m_z) > kSamePointMm)
                m_reading.strikes.push_back({m_at.x, m_at.x, m_at.y, m_at.y, number});
            m_z = z;
        }
    }

    bool laserOn() const { return m_spindle && m_power > 0.0; }

    void cutTo(const Point& to, int number)
    {
        if (m_loop.empty())
            m_loop.push_back(m_at);
        m_loop.push_back(to);
        m_lastCutLine = number;
        if (m_loop.size() < 3 || !samePoint(to, m_loop.front()))
            return;
        ReadHole hole{m_loop.front().x, m_loop.front().x, m_loop.front().y, m_loop.front().y, number};
        for (const Point& p : m_loop) {
            hole.x0 = std::min(hole.x0, p.x);
            hole.x1 = std::max(hole.x1, p.x);
            hole.y0 = std::min(hole.y0, p.y);
            hole.y1 = std::max(hole.y1, p.y);
        }
        m_loop.clear();
        if (hole.x1 - hole.x0 <= kSamePointMm || hole.y1 - hole.y0 <= kSamePointMm) {
            warn(number, "a cut that encloses nothing (a slit, no hole)");
            return;
        }
        m_reading.cuts.push_back(hole);
    }

    // The cut under way is over; one that has not come back to its start is open.
    void endCut()
    {
        if (m_loop.size() >= 2)
            m_reading.openCuts.push_back(m_lastCutLine);
        m_loop.clear();
    }

    ProgramReading m_reading;
    Point m_at;
    std::optional<double> m_z;  // not known until a program names it
    int m_motion = 0;           // G0 at power-on
    bool m_relative = false;
    bool m_inches = false;
    bool m_spindle = false;
    double m_power = 0.0;
    bool m_ended = false;
    std::vector<Point> m_loop;
    int m_lastCutLine = 0;
};

}  // namespace

ProgramReading readProgram(std::string_view text)
{
    return Reader().run(text);
}

}  // namespace veltrin
