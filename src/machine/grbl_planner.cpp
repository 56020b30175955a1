#include "machine/grbl_planner.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

#include "base/numeric_text.h"
#include "machine/grbl_protocol.h"

namespace veltrin {

namespace {

constexpr double kLargeSpeedSqr = 1e38;        // Grbl's SOME_LARGE_VALUE: a straight junction
constexpr double kMinimumFeedMmPerMin = 1.0;   // Grbl's MINIMUM_FEED_RATE
constexpr double kMmPerInch = 25.4;
// Grbl 1.1's homing: the search runs up to 1.5 x max travel, four phases.
constexpr double kHomingSearchScalar = 1.5;
constexpr int kHomingPhases = 4;

double norm(const Axes& v)
{
    return std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
}

// The largest value along a unit direction that keeps every axis within its own limit,
// from the limits' inverses.
double limitAlong(const Axes& perLimit, const Axes& unit)
{
    const double most = std::max({std::fabs(unit[0]) * perLimit[0], std::fabs(unit[1]) * perLimit[1],
                                  std::fabs(unit[2]) * perLimit[2]});
    return most > 0 ? 1.0 / most : std::numeric_limits<double>::max();
}

// Grbl's lround: halves away from zero (a target beyond any machine stays representable).
long long roundSteps(double steps)
{
    steps = std::clamp(steps, -1e15, 1e15);
    return steps >= 0 ? static_cast<long long>(steps + 0.5) : -static_cast<long long>(0.5 - steps);
}

// From rest to distance at most at speed, not slowing down: a homing approach, which the
// switch stops at once.
double runToSeconds(double distance, double speed, double acceleration)
{
    const double rampMm = speed * speed / (2 * acceleration);
    if (distance <= rampMm)
        return std::sqrt(2 * distance / acceleration);
    return speed / acceleration + (distance - rampMm) / speed;
}

}  // namespace

bool GrblSettings::set(int number, double value)
{
    if (!std::isfinite(value) || value < 0)
        return false;
    const auto positive = [&](double& field) {
        if (value <= 0)
            return false;
        field = value;
        return true;
    };
    switch (number) {
    case 11: junctionDeviationMm = value; return true;
    case 12: return positive(arcToleranceMm);
    case 23: homingDirectionMask = static_cast<int>(std::min(value, 255.0)); return true;
    case 24: return positive(homingFeedMmPerMin);
    case 25: return positive(homingSeekMmPerMin);
    case 26: homingDebounceMs = value; return true;
    case 27: homingPullOffMm = value; return true;
    case 32: laserMode = value != 0; return true;
    case 100: case 101: case 102: return positive(stepsPerMm[number - 100]);
    case 110: case 111: case 112: return positive(maxRateMmPerMin[number - 110]);
    case 120: case 121: case 122: return positive(accelerationMmPerS2[number - 120]);
    case 130: case 131: case 132: maxTravelMm[number - 130] = value; return true;
    default: return true;  // a setting the motion does not depend on
    }
}

Result<GrblSettings, GrblSettingsError> parseSettingsList(const std::vector<std::string>& lines)
{
    GrblSettings settings;
    int found = 0;
    for (const std::string& raw : lines) {
        std::string_view line = raw;
        while (!line.empty() && (line.front() == ' ' || line.front() == '\t'))
            line.remove_prefix(1);
        if (line.size() < 4 || line[0] != '$' || line[1] < '0' || line[1] > '9')
            continue;
        const auto equals = line.find('=');
        if (equals == std::string_view::npos)
            continue;
        const auto number = strictNumber(line.substr(1, equals - 1));
        if (!number || *number != std::floor(*number) || *number > 1000)
            continue;
        // The value ends where a comment ("(x max rate, mm/min)") or blanks begin.
        std::string_view valueText = line.substr(equals + 1);
        valueText = valueText.substr(0, valueText.find_first_of(" \t(;\r"));
        const auto value = strictNumber(valueText);
        std::string shown(line.substr(0, equals + 1));
        shown += valueText;
        if (!value)
            return fail(GrblSettingsError::BadValue, shown + " is not a number");
        if (!settings.set(static_cast<int>(*number), *value))
            return fail(GrblSettingsError::BadValue, shown + ": no machine moves with that value");
        ++found;
    }
    if (found == 0)
        return fail(GrblSettingsError::NoSettings, "no \"$N=value\" line");
    return settings;
}

Result<GrblSettings, GrblSettingsError> parseSettingsText(std::string_view text)
{
    std::vector<std::string> lines;
    while (!text.empty()) {
        const auto end = text.find('\n');
        lines.emplace_back(text.substr(0, end));
        if (end == std::string_view::npos)
            break;
        text.remove_prefix(end + 1);
    }
    return parseSettingsList(lines);
}

double profileSecondsLeft(double doneMm, double speed, double exitSpeed, double nominalSpeed,
                          double acceleration, double mm)
{
    const double left = mm - doneMm;
    if (left <= 0)
        return 0;
    const double v = std::max(speed, 0.0);
    const double ve = std::max(exitSpeed, 0.0);
    // Rounding can leave a block a hair too short to slow down to its exit at the
    // acceleration: it slows down evenly over what is left.
    if (v * v - ve * ve >= 2 * acceleration * left)
        return 2 * left / (v + ve);
    double peak = std::sqrt((2 * acceleration * left + v * v + ve * ve) / 2);
    peak = std::max(std::min(peak, nominalSpeed), std::max(v, ve));
    // Up from v and down to ve at the acceleration, at the peak speed between.
    const double perAcceleration = 1.0 / acceleration;
    const double ramps = (2 * peak * peak - v * v - ve * ve) * perAcceleration / 2;
    const double cruise = std::max(0.0, left - ramps);
    return (2 * peak - v - ve) * perAcceleration + cruise / peak;
}

ProfilePoint profileAfter(ProfilePoint from, double seconds, double exitSpeed, double nominalSpeed,
                          double acceleration, double mm)
{
    const double left = mm - from.doneMm;
    const ProfilePoint end{mm, exitSpeed};
    if (left <= 0 || seconds <= 0)
        return left <= 0 ? end : from;
    const double v = std::max(from.speed, 0.0);
    const double ve = std::max(exitSpeed, 0.0);
    double t = seconds;
    if (v * v - ve * ve >= 2 * acceleration * left) {
        const double total = 2 * left / (v + ve);
        if (t >= total)
            return end;
        const double slowing = (v * v - ve * ve) / (2 * left);
        return {from.doneMm + v * t - slowing * t * t / 2, v - slowing * t};
    }
    double peak = std::sqrt((2 * acceleration * left + v * v + ve * ve) / 2);
    peak = std::max(std::min(peak, nominalSpeed), std::max(v, ve));
    const double rampUp = (peak * peak - v * v) / (2 * acceleration);
    const double rampDown = (peak * peak - ve * ve) / (2 * acceleration);
    const double cruise = std::max(0.0, left - rampUp - rampDown);
    // 1. Speeding up, 2. at the peak speed, 3. slowing down to the exit.
    const double upSeconds = (peak - v) / acceleration;
    if (t < upSeconds)
        return {from.doneMm + v * t + acceleration * t * t / 2, v + acceleration * t};
    t -= upSeconds;
    double done = from.doneMm + rampUp;
    const double cruiseSeconds = cruise / peak;
    if (t < cruiseSeconds)
        return {done + peak * t, peak};
    t -= cruiseSeconds;
    done += cruise;
    if (t < (peak - ve) / acceleration)
        return {std::min(mm, done + peak * t - acceleration * t * t / 2), peak - acceleration * t};
    return end;
}

double homingSeconds(const GrblSettings& s, int axis, double searchMm)
{
    const double acceleration = s.accelerationMmPerS2[axis];
    const double seek = std::min(s.homingSeekMmPerMin, s.maxRateMmPerMin[axis]) / 60.0;
    const double locate = std::min(s.homingFeedMmPerMin, s.maxRateMmPerMin[axis]) / 60.0;
    const double pullOff = s.homingPullOffMm;
    const double search = std::clamp(searchMm, 0.0, kHomingSearchScalar * s.maxTravelMm[axis]);
    const double pullOffSeconds = profileSecondsLeft(0, 0, 0, seek, acceleration, pullOff);
    return runToSeconds(search, seek, acceleration) + pullOffSeconds +
           runToSeconds(pullOff, locate, acceleration) + pullOffSeconds +
           kHomingPhases * s.homingDebounceMs / 1000.0;
}

double homingSearchMm(const GrblSettings& settings, int axis, double machinePositionMm)
{
    const bool towardsMinus = (settings.homingDirectionMask >> axis & 1) != 0;
    return std::max(0.0, towardsMinus ? machinePositionMm + settings.maxTravelMm[axis] : -machinePositionMm);
}

GrblPlanner::GrblPlanner(const GrblSettings& settings)
{
    setSettings(settings);
}

void GrblPlanner::setSettings(const GrblSettings& settings)
{
    m_settings = settings;
    for (int axis = 0; axis < 3; ++axis) {
        m_mmPerStep[axis] = 1.0 / settings.stepsPerMm[axis];
        m_perRate[axis] = 1.0 / settings.maxRateMmPerMin[axis];
        m_perAcceleration[axis] = 1.0 / settings.accelerationMmPerS2[axis];
    }
}

Axes GrblPlanner::position() const
{
    Axes position{};
    for (int axis = 0; axis < 3; ++axis)
        position[axis] = static_cast<double>(m_positionSteps[axis]) * m_mmPerStep[axis];
    return position;
}

void GrblPlanner::reset(const Axes& position)
{
    m_tail = 0;
    m_count = 0;
    m_planned = 0;
    for (int axis = 0; axis < 3; ++axis)
        m_positionSteps[axis] = roundSteps(position[axis] * m_settings.stepsPerMm[axis]);
    m_previousUnit = {};
    m_previousNominal = 0;
}

bool GrblPlanner::addLine(const Axes& target, double feedMmPerMin, bool rapid, std::uint32_t tag)
{
    // Grbl moves in whole steps: the move is the difference of the rounded step positions.
    std::array<long long, 3> targetSteps{};
    Axes delta{};
    bool moves = false;
    for (int axis = 0; axis < 3; ++axis) {
        targetSteps[axis] = roundSteps(target[axis] * m_settings.stepsPerMm[axis]);
        const long long steps = targetSteps[axis] - m_positionSteps[axis];
        moves = moves || steps != 0;
        delta[axis] = static_cast<double>(steps) * m_mmPerStep[axis];
    }
    if (!moves)
        return false;

    PlannerBlock& block = m_ring[index(m_count)];
    block = PlannerBlock{};
    block.tag = tag;
    block.start = position();
    block.millimeters = norm(delta);
    const double perMm = 1.0 / block.millimeters;
    for (int axis = 0; axis < 3; ++axis) {
        block.target[axis] = static_cast<double>(targetSteps[axis]) * m_mmPerStep[axis];
        block.unit[axis] = delta[axis] * perMm;
    }
    block.acceleration = limitAlong(m_perAcceleration, block.unit);
    const double rapidRate = limitAlong(m_perRate, block.unit);
    const double rate = std::max(rapid ? rapidRate : std::min(feedMmPerMin, rapidRate), kMinimumFeedMmPerMin);
    block.nominalSpeed = rate / 60.0;

    // 1. The junction with the previous move: the speed at which the centripetal acceleration
    // on a circle that deviates $11 from the corner stays within the acceleration limits.
    double junctionSqr = 0;  // from rest when nothing is planned
    if (m_count > 0) {
        double cosTheta = 0;
        Axes junctionUnit{};
        for (int axis = 0; axis < 3; ++axis) {
            cosTheta -= m_previousUnit[axis] * block.unit[axis];
            junctionUnit[axis] = block.unit[axis] - m_previousUnit[axis];
        }
        if (cosTheta > 0.999999) {
            junctionSqr = 0;  // a full reversal
        } else if (cosTheta < -0.999999) {
            junctionSqr = kLargeSpeedSqr;  // straight on
        } else {
            // The acceleration limit along the junction's direction: |u - p| = sqrt(2 + 2 cos).
            const double length = std::sqrt(2.0 + 2.0 * cosTheta);
            const double most = std::max({std::fabs(junctionUnit[0]) * m_perAcceleration[0],
                                          std::fabs(junctionUnit[1]) * m_perAcceleration[1],
                                          std::fabs(junctionUnit[2]) * m_perAcceleration[2]});
            const double sinHalf = std::sqrt(0.5 * (1.0 - cosTheta));
            // junction acceleration (length / most) x $11 x sin / (1 - sin)
            junctionSqr = length * m_settings.junctionDeviationMm * sinHalf / (most * (1.0 - sinHalf));
        }
    }
    // 2. Never faster than either move's nominal speed.
    const double slower = std::min(block.nominalSpeed, m_previousNominal);
    block.maxEntrySqr = std::min(slower * slower, junctionSqr);
    block.entrySqr = 0;
    m_previousNominal = block.nominalSpeed;
    m_previousUnit = block.unit;
    m_positionSteps = targetSteps;
    ++m_count;
    recalculate();
    return true;
}

void GrblPlanner::discardTail()
{
    if (m_count == 0)
        return;
    if (m_planned > 0)
        --m_planned;
    m_tail = (m_tail + 1) % kBlocks;
    --m_count;
}

void GrblPlanner::restartTail(const Axes& position, double remainingMm)
{
    if (m_count == 0)
        return;
    PlannerBlock& block = tail();
    block.start = position;
    block.millimeters = std::max(remainingMm, 0.0);
    block.entrySqr = 0;
    m_planned = 0;
    recalculate();
}

void GrblPlanner::recalculate()
{
    const std::size_t last = m_count - 1;
    if (last == m_planned)
        return;
    // 1. Backwards from the newest block, which must be able to stop at its end: each entry
    // is as fast as its block can still slow down from, within its junction limit.
    PlannerBlock* current = &m_ring[index(last)];
    current->entrySqr = std::min(current->maxEntrySqr, 2 * current->acceleration * current->millimeters);
    for (std::size_t i = last - 1; i > m_planned; --i) {
        const PlannerBlock* next = current;
        current = &m_ring[index(i)];
        if (current->entrySqr != current->maxEntrySqr) {
            const double entrySqr = next->entrySqr + 2 * current->acceleration * current->millimeters;
            current->entrySqr = std::min(entrySqr, current->maxEntrySqr);
        }
    }
    // 2. Forwards from the last block whose plan is final: no entry faster than the block
    // before can speed up to. Where a block accelerates fully, or enters at its maximum,
    // the plan before it can no longer improve.
    PlannerBlock* next = &m_ring[index(m_planned)];
    for (std::size_t i = m_planned + 1; i <= last; ++i) {
        current = next;
        next = &m_ring[index(i)];
        if (current->entrySqr < next->entrySqr) {
            const double entrySqr = current->entrySqr + 2 * current->acceleration * current->millimeters;
            if (entrySqr < next->entrySqr) {
                next->entrySqr = entrySqr;
                m_planned = i;
            }
        }
        if (next->entrySqr == next->maxEntrySqr)
            m_planned = i;
    }
}

bool readGrblNumber(std::string_view text, std::size_t& pos, double& value)
{
    std::size_t i = pos;
    const bool negative = i < text.size() && text[i] == '-';
    if (i < text.size() && (text[i] == '-' || text[i] == '+'))
        ++i;
    double whole = 0;
    double scale = 1;
    bool digits = false;
    bool point = false;
    for (; i < text.size(); ++i) {
        const char c = text[i];
        if (c >= '0' && c <= '9') {
            digits = true;
            if (point) {
                scale /= 10;
                whole += (c - '0') * scale;
            } else {
                whole = whole * 10 + (c - '0');
            }
        } else if (c == '.' && !point) {
            point = true;
        } else {
            break;
        }
    }
    if (!digits)
        return false;
    value = negative ? -whole : whole;
    pos = i;
    return true;
}

namespace {

constexpr std::uint32_t kJogTag = 1;

// A program line as Grbl reads it: blanks and control characters dropped, "(...)" and ";"
// comments removed, letters upper-cased; more than 79 characters overflow.
struct CleanLine {
    std::array<char, 80> chars{};
    std::size_t size = 0;
    bool overflow = false;
    std::string_view text() const { return {chars.data(), size}; }
};

// What each byte becomes in a clean line: itself (upper-cased), dropped (0), or the start of
// a comment.
constexpr char kDrop = 0;
constexpr char kOpenComment = 1;
constexpr char kRestIsComment = 2;
constexpr std::array<char, 256> kCleanByte = [] {
    std::array<char, 256> table{};
    for (int byte = '!'; byte < 0x7f; ++byte)
        table[static_cast<std::size_t>(byte)] = static_cast<char>(byte >= 'a' && byte <= 'z' ? byte - 'a' + 'A' : byte);
    table['/'] = kDrop;  // block delete
    table['('] = kOpenComment;
    table[';'] = kRestIsComment;
    return table;
}();

CleanLine cleanLine(std::string_view raw)
{
    CleanLine line;
    char* out = line.chars.data();
    const char* const last = out + line.chars.size() - 1;
    for (std::size_t i = 0; i < raw.size(); ++i) {
        const char c = kCleanByte[static_cast<unsigned char>(raw[i])];
        if (c > kRestIsComment) {
            if (out == last) {
                line.overflow = true;
                break;
            }
            *out++ = c;
        } else if (c == kOpenComment) {
            const auto close = raw.find(')', i + 1);
            if (close == std::string_view::npos)
                break;
            i = close;
        } else if (c == kRestIsComment) {
            break;
        }
    }
    line.size = static_cast<std::size_t>(out - line.chars.data());
    return line;
}


// The model of one run of a program through Grbl, line after line, with a host that sends
// the next line as soon as the last is answered: the machine runs the oldest planner block
// whenever a new one needs its place, and everything left when the program waits or ends.
class ProgramRun {
public:
    ProgramRun(const GrblSettings& settings, const EstimateOptions& options, MachineTime& out)
        : m_settings(settings), m_options(options), m_out(out), m_planner(settings)
    {
        m_planner.reset(m_position);
    }

    void line(std::size_t lineNo, std::string_view raw)
    {
        const CleanLine clean = cleanLine(raw);
        std::optional<int> error;
        if (clean.overflow)
            error = 11;
        else if (clean.size > 0)
            error = clean.text()[0] == '$' ? system(lineNo, clean.text()) : gcode(lineNo, clean.text());
        if (error) {
            ++m_out.refusedLines;
            note(lineNo, "error:" + std::to_string(*error) + " (" + std::string(errorMeaning(*error)) +
                             "), no time counted");
        }
        m_out.answeredAt.push_back(m_now);
    }

    void finish()
    {
        waitForMotion();
        m_out.seconds = m_now;
    }

private:
    enum class Spindle { Off, Clockwise, CounterClockwise };

    void note(std::size_t lineNo, std::string text)
    {
        if (m_out.notes.size() < MachineTime::kMaxNotes)
            m_out.notes.push_back({lineNo, std::move(text)});
        else
            ++m_out.moreNotes;
    }

    // The machine runs the oldest block from its planned entry to its planned exit.
    void runOldest()
    {
        const PlannerBlock& block = m_planner.block(0);
        // A block enters at the speed the one before it left at.
        const double entry = block.entrySqr == m_exitSqr ? m_exit : std::sqrt(block.entrySqr);
        m_exitSqr = m_planner.exitSpeedSqr(0);
        m_exit = std::sqrt(m_exitSqr);
        m_now += profileSecondsLeft(0, entry, m_exit, block.nominalSpeed, block.acceleration, block.millimeters);
        m_planner.discardTail();
    }

    // Grbl's buffer synchronisation: the line waits until every planned move is done.
    void waitForMotion()
    {
        while (!m_planner.empty())
            runOldest();
    }

    void queueMove(const Axes& target, double feedMmPerMin, bool rapid, std::uint32_t tag = 0)
    {
        while (m_planner.full())
            runOldest();
        if (m_planner.addLine(target, feedMmPerMin, rapid, tag))
            ++m_out.moves;
    }

    // Where the axis words of a line take the machine (machine mm).
    Axes moveTarget(const std::array<std::optional<double>, 3>& axes, double unit, bool relative,
                    bool machineCoordinates) const
    {
        Axes target = m_position;
        for (int axis = 0; axis < 3; ++axis) {
            if (!axes[axis])
                continue;
            const double value = *axes[axis] * unit;
            target[axis] = machineCoordinates ? value : relative ? target[axis] + value : value + m_g92[axis];
        }
        return target;
    }

    std::optional<int> system(std::size_t lineNo, std::string_view text)
    {
        if (text.starts_with("$J="))
            return jog(text.substr(3));
        if (text.size() >= 2 && text[1] == 'H') {
            // Homing needs a machine at rest: Grbl refuses it while moves are still running.
            if (!m_planner.empty())
                return 8;
            std::string_view axes = text.substr(2);
            if (axes.empty())
                axes = "X";  // our machines home X only
            for (const char name : axes) {
                if (name < 'X' || name > 'Z')
                    return 3;
            }
            for (const char name : axes)
                home(lineNo, name - 'X');
            return std::nullopt;
        }
        if (text.size() >= 2 && text[1] >= '0' && text[1] <= '9') {
            std::size_t pos = 1;
            double number = 0;
            double value = 0;
            if (!readGrblNumber(text, pos, number) || pos >= text.size() || text[pos] != '=')
                return 3;
            ++pos;
            if (!readGrblNumber(text, pos, value) || pos != text.size())
                return 2;
            if (!m_planner.empty())
                return 8;  // settings are written only at rest
            GrblSettings changed = m_settings;
            if (!changed.set(static_cast<int>(number), value)) {
                note(lineNo, "a setting no machine moves with: ignored");
                return std::nullopt;
            }
            m_settings = changed;
            m_planner.setSettings(m_settings);
            return std::nullopt;
        }
        if (text == "$C") {
            note(lineNo, "check mode is not modelled: the moves after it are counted");
            return std::nullopt;
        }
        static constexpr std::string_view kQuiet[] = {"$", "$$", "$#", "$G", "$I", "$N", "$X", "$SLP"};
        for (const std::string_view quiet : kQuiet) {
            if (text == quiet)
                return std::nullopt;
        }
        if (text.starts_with("$RST=") || text.starts_with("$N0=") || text.starts_with("$N1=") ||
            text.starts_with("$I="))
            return std::nullopt;
        return 3;
    }

    void home(std::size_t lineNo, int axis)
    {
        const bool towardsMinus = (m_settings.homingDirectionMask >> axis & 1) != 0;
        const double travel = m_settings.maxTravelMm[axis];
        double search = 0;
        if (m_homed[axis]) {
            search = homingSearchMm(m_settings, axis, m_position[axis]);
        } else if (m_options.homingSearchMm) {
            search = *m_options.homingSearchMm;
        } else {
            search = travel / 2;
            note(lineNo, "homing: the head is taken to start " + plainNumber(search) +
                             " mm from its switch (half the travel)");
        }
        const double seconds = homingSeconds(m_settings, axis, search);
        m_now += seconds;
        m_out.homingSeconds += seconds;
        m_position[axis] = towardsMinus ? -travel + m_settings.homingPullOffMm : -m_settings.homingPullOffMm;
        m_homed[axis] = true;
        m_planner.reset(m_position);
    }

    std::optional<int> jog(std::string_view text)
    {
        bool relative = m_relative;
        bool inches = m_inches;
        bool machineCoordinates = false;
        std::optional<double> feed;
        std::array<std::optional<double>, 3> axes;
        for (std::size_t pos = 0; pos < text.size();) {
            const char letter = text[pos++];
            double value = 0;
            if (!readGrblNumber(text, pos, value))
                return 2;
            switch (letter) {
            case 'G':
                if (value == 90 || value == 91)
                    relative = value == 91;
                else if (value == 20 || value == 21)
                    inches = value == 20;
                else if (value == 53)
                    machineCoordinates = true;
                else
                    return 16;
                break;
            case 'F': feed = value; break;
            case 'X': case 'Y': case 'Z': axes[letter - 'X'] = value; break;
            case 'N': break;
            default: return 16;
            }
        }
        if (!feed || *feed <= 0)
            return 22;
        if (!axes[0] && !axes[1] && !axes[2])
            return 16;
        // A jog runs only from rest or behind other jogs.
        for (std::size_t i = 0; i < m_planner.size(); ++i) {
            if (m_planner.block(i).tag != kJogTag)
                return 8;
        }
        const double unit = inches ? kMmPerInch : 1.0;
        const Axes target = moveTarget(axes, unit, relative, machineCoordinates);
        queueMove(target, *feed * unit, false, kJogTag);
        m_position = target;
        return std::nullopt;
    }

    std::optional<int> gcode(std::size_t lineNo, std::string_view text)
    {
        // 1. Read every word before acting, as Grbl does.
        int motion = m_motion;
        int plane = m_plane;
        bool relative = m_relative;
        bool inches = m_inches;
        bool inverseTime = m_inverseTime;
        bool dwell = false;
        bool setOffset = false;
        bool clearOffset = false;
        bool machineCoordinates = false;
        bool pause = false;
        bool programEnd = false;
        std::string unmodelled;
        std::optional<Spindle> spindle;
        std::optional<double> feed, speed, dwellSeconds, radius;
        std::array<std::optional<double>, 3> axes, offsets;
        for (std::size_t pos = 0; pos < text.size();) {
            const char letter = text[pos++];
            if (letter < 'A' || letter > 'Z')
                return 1;
            double value = 0;
            if (!readGrblNumber(text, pos, value))
                return 2;
            long tenths = 0;
            if (letter == 'G' || letter == 'M') {
                tenths = static_cast<long>(std::floor(value * 10 + 0.5));
                if (std::fabs(value * 10 - static_cast<double>(tenths)) > 1e-6)
                    return 20;
            }
            switch (letter) {
            case 'G':
                switch (tenths) {
                case 0: case 10: case 20: case 30: motion = static_cast<int>(tenths / 10); break;
                case 800: motion = -1; break;
                case 40: dwell = true; break;
                case 170: case 180: case 190: plane = static_cast<int>(tenths / 10); break;
                case 200: case 210: inches = tenths == 200; break;
                case 530: machineCoordinates = true; break;
                case 900: case 910: relative = tenths == 910; break;
                case 920: setOffset = true; break;
                case 921: clearOffset = true; break;
                case 930: case 940: inverseTime = tenths == 930; break;
                case 540: case 550: case 560: case 570: case 580: case 590:  // offsets taken as 0
                case 911: case 400: case 490: case 610: break;
                case 100: case 280: case 281: case 300: case 301: case 382: case 383: case 384:
                case 385: case 431:
                    unmodelled = plainNumber(static_cast<double>(tenths) / 10);
                    unmodelled.insert(unmodelled.begin(), 'G');
                    break;
                default: return 20;
                }
                break;
            case 'M':
                switch (tenths) {
                case 0: pause = true; break;
                case 20: case 300: programEnd = true; break;
                case 30: spindle = Spindle::Clockwise; break;
                case 40: spindle = Spindle::CounterClockwise; break;
                case 50: spindle = Spindle::Off; break;
                case 10: case 70: case 80: case 90: break;  // M1 is ignored by Grbl 1.1
                default: return 20;
                }
                break;
            case 'F': feed = value; break;
            case 'S': speed = value; break;
            case 'P': dwellSeconds = value; break;
            case 'R': radius = value; break;
            case 'X': case 'Y': case 'Z': axes[letter - 'X'] = value; break;
            case 'I': case 'J': case 'K': offsets[letter - 'I'] = value; break;
            case 'N': case 'L': case 'T': break;
            default: return 20;
            }
        }
        if (!unmodelled.empty()) {
            note(lineNo, unmodelled + " is not modelled: no time counted, the position is kept");
            return std::nullopt;
        }
        const bool anyAxis = axes[0] || axes[1] || axes[2];
        const bool axisMotion = anyAxis && !setOffset;
        if ((feed && *feed < 0) || (speed && *speed < 0) || (dwellSeconds && *dwellSeconds < 0))
            return 4;
        if (dwell && !dwellSeconds)
            return 28;
        if (axisMotion && motion < 0)
            return 31;
        if (machineCoordinates && motion != 0 && motion != 1)
            return 30;
        const bool cutting = motion >= 1 && motion <= 3;
        if (axisMotion && cutting && (inverseTime ? !feed : (feed ? *feed : m_feed) <= 0))
            return 22;
        if (motion == 2 || motion == 3) {
            if (axisMotion && !arcAxesOk(plane, axes))
                return 32;
        }
        const double unit = inches ? kMmPerInch : 1.0;

        // 2. Feed rate: units per minute, or (G93) the inverse of the move's minutes.
        if (feed && !inverseTime)
            m_feed = *feed * unit;
        m_inverseTime = inverseTime;

        // 3. Spindle speed. Without laser mode every change of S waits for the motion to end;
        // in laser mode a change carried by a cutting move does not, and M3 (constant power)
        // still waits when the line alone switches between cutting and travel modes.
        const double newSpeed = speed ? *speed : m_speed;
        const bool laserMotion = m_settings.laserMode && axisMotion;
        bool forceSync = false;
        if (m_settings.laserMode && !laserMotion && m_spindle == Spindle::Clockwise) {
            const bool wasCutting = m_motion >= 1 && m_motion <= 3;
            forceSync = wasCutting != cutting;
        }
        if ((newSpeed != m_speed || forceSync) && m_spindle != Spindle::Off && !laserMotion)
            waitForMotion();
        m_speed = newSpeed;
        // 4. Every spindle (laser, punch) switch waits for the motion, even in laser mode.
        if (spindle && *spindle != m_spindle) {
            waitForMotion();
            m_spindle = *spindle;
        }
        // 5. Dwell, once the moves before it are done.
        if (dwell) {
            waitForMotion();
            m_now += *dwellSeconds;
            m_out.dwellSeconds += *dwellSeconds;
        }
        m_plane = plane;
        m_inches = inches;
        m_relative = relative;
        // 6. G92: the current position takes the given work coordinates.
        if (setOffset) {
            for (int axis = 0; axis < 3; ++axis) {
                if (axes[axis])
                    m_g92[axis] = m_position[axis] - *axes[axis] * unit;
            }
        }
        if (clearOffset)
            m_g92 = {};
        // 7. Motion.
        m_motion = motion;
        if (axisMotion) {
            const Axes target = moveTarget(axes, unit, relative, machineCoordinates);
            if (motion == 0) {
                queueMove(target, 0, true);
            } else if (motion == 1) {
                queueMove(target, inverseTime ? *feed * distance(m_position, target) : m_feed, false);
            } else if (const auto error = arc(plane, target, offsets, radius, unit, motion == 2,
                                              inverseTime ? feed : std::nullopt)) {
                return error;
            }
            m_position = target;
        }
        // 8. Program pause and end, once the motion is done.
        if (pause) {
            waitForMotion();
            note(lineNo, "M0 waits for the operator's cycle start: not counted");
        }
        if (programEnd) {
            waitForMotion();
            m_motion = 1;
            m_plane = 17;
            m_relative = false;
            m_inverseTime = false;
            m_spindle = Spindle::Off;
        }
        return std::nullopt;
    }

    static double distance(const Axes& a, const Axes& b)
    {
        return norm({b[0] - a[0], b[1] - a[1], b[2] - a[2]});
    }

    static std::array<int, 3> planeAxes(int plane)
    {
        if (plane == 18)
            return {2, 0, 1};  // ZX, Y linear
        if (plane == 19)
            return {1, 2, 0};  // YZ, X linear
        return {0, 1, 2};
    }

    static bool arcAxesOk(int plane, const std::array<std::optional<double>, 3>& axes)
    {
        const auto p = planeAxes(plane);
        return axes[p[0]] || axes[p[1]];
    }

    // G2/G3 as Grbl runs them: chords whose deviation from the circle stays within $12.
    std::optional<int> arc(int plane, const Axes& target, const std::array<std::optional<double>, 3>& offsets,
                           std::optional<double> radius, double unit, bool clockwise,
                           std::optional<double> inverseFeed)
    {
        const auto [a0, a1, linear] = planeAxes(plane);
        const double x = target[a0] - m_position[a0];
        const double y = target[a1] - m_position[a1];
        double offset0 = 0;
        double offset1 = 0;
        double r = 0;
        if (radius) {
            // The centre from the radius: the sign picks the shorter or the longer arc.
            if (x == 0 && y == 0)
                return 33;
            r = *radius * unit;
            const double chord = std::hypot(x, y);
            const double h2 = 4 * r * r - x * x - y * y;
            if (h2 < 0)
                return 34;
            double h = -std::sqrt(h2) / chord;
            if (!clockwise)
                h = -h;
            if (r < 0) {
                h = -h;
                r = -r;
            }
            offset0 = 0.5 * (x - y * h);
            offset1 = 0.5 * (y + x * h);
        } else {
            if (!offsets[a0] && !offsets[a1])
                return 35;
            offset0 = offsets[a0].value_or(0) * unit;
            offset1 = offsets[a1].value_or(0) * unit;
            const double toTarget0 = x - offset0;
            const double toTarget1 = y - offset1;
            r = std::hypot(offset0, offset1);
            const double error = std::fabs(std::hypot(toTarget0, toTarget1) - r);
            if (error > 0.005 && (error > 0.5 || error > 0.001 * r))
                return 33;
        }
        const double r0 = -offset0;
        const double r1 = -offset1;
        const double t0 = x - offset0;
        const double t1 = y - offset1;
        double travel = std::atan2(r0 * t1 - r1 * t0, r0 * t0 + r1 * t1);
        constexpr double kEpsilon = 5e-7;
        if (clockwise && travel >= -kEpsilon)
            travel -= 2 * std::numbers::pi;
        else if (!clockwise && travel <= kEpsilon)
            travel += 2 * std::numbers::pi;
        const double tolerance = m_settings.arcToleranceMm;
        const auto segments = static_cast<long>(
            std::floor(std::fabs(0.5 * travel * r) / std::sqrt(tolerance * (2 * r - tolerance))));
        const double rise = target[linear] - m_position[linear];
        const double arcLength = std::hypot(travel * r, rise);
        const double rate = inverseFeed ? *inverseFeed * arcLength : m_feed;
        const Axes centre = [&] {
            Axes c = m_position;
            c[a0] += offset0;
            c[a1] += offset1;
            return c;
        }();
        for (long i = 1; i < segments; ++i) {
            const double angle = travel * static_cast<double>(i) / static_cast<double>(segments);
            Axes point = m_position;
            point[a0] = centre[a0] + r0 * std::cos(angle) - r1 * std::sin(angle);
            point[a1] = centre[a1] + r0 * std::sin(angle) + r1 * std::cos(angle);
            point[linear] += rise * static_cast<double>(i) / static_cast<double>(segments);
            queueMove(point, rate, false);
        }
        queueMove(target, rate, false);
        return std::nullopt;
    }

    GrblSettings m_settings;
    EstimateOptions m_options;
    MachineTime& m_out;
    GrblPlanner m_planner;
    double m_now = 0;
    double m_exitSqr = 0;  // the last block run left at this speed
    double m_exit = 0;
    // The parser's state (Grbl's gc_state): position in machine mm, modes.
    Axes m_position{};
    Axes m_g92{};
    std::array<bool, 3> m_homed{};
    int m_motion = 0;  // 0-3; -1 after G80
    int m_plane = 17;
    bool m_relative = false;
    bool m_inches = false;
    bool m_inverseTime = false;
    double m_feed = 0;  // mm/min, 0 until set
    double m_speed = 0;
    Spindle m_spindle = Spindle::Off;
};

}  // namespace

double MachineTime::secondsLeft(std::size_t answered, double sinceLastAnswer) const
{
    if (answeredAt.empty())
        return 0;
    const double last = answered == 0 ? 0.0 : answeredAt[std::min(answered, answeredAt.size()) - 1];
    const double next = answered < answeredAt.size() ? answeredAt[answered] : seconds;
    const double at = std::min(last + std::max(sinceLastAnswer, 0.0), next);
    return std::max(seconds - at, 0.0);
}

MachineTime estimateProgram(const std::vector<std::string>& lines, const GrblSettings& settings,
                            const EstimateOptions& options)
{
    MachineTime out;
    out.answeredAt.reserve(lines.size());
    ProgramRun run(settings, options, out);
    for (std::size_t i = 0; i < lines.size(); ++i)
        run.line(i + 1, lines[i]);
    run.finish();
    return out;
}

MachineTime estimateProgramText(std::string_view text, const GrblSettings& settings,
                                const EstimateOptions& options)
{
    MachineTime out;
    out.answeredAt.reserve(static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) + 1);
    ProgramRun run(settings, options, out);
    std::size_t lineNo = 0;
    while (!text.empty()) {
        const auto end = text.find('\n');
        run.line(++lineNo, text.substr(0, end));
        if (end == std::string_view::npos)
            break;
        text.remove_prefix(end + 1);
    }
    run.finish();
    return out;
}

std::string machineTimeLine(double seconds)
{
    const long long total = seconds > 0 ? std::llround(seconds) : 0;
    const std::string hours = total / 3600 < 10 ? fixedWidth(total / 3600, 2) : std::to_string(total / 3600);
    return "Machine time (Grbl model) : " + hours + ":" + fixedWidth(total / 60 % 60, 2) + ":" +
           fixedWidth(total % 60, 2);
}

}  // namespace veltrin
