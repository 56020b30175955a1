#include "emulator/grbl_emulator.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <vector>

#include "machine/grbl_planner.h"

namespace veltrin {

namespace {

constexpr std::string_view kWelcome = "\r\nGrbl 1.1h ['$' for help]\r\n";
constexpr std::string_view kUnlockHint = "[MSG:'$H'|'$X' to unlock]";
constexpr double kInf = std::numeric_limits<double>::infinity();
constexpr double kMmPerInch = 25.4;

struct Word {
    char letter;
    double value;
};


// Splits a cleaned line into letter-number words; returns Grbl's error code on failure.
std::optional<int> parseWords(std::string_view text, std::vector<Word>& words)
{
    std::size_t pos = 0;
    while (pos < text.size()) {
        const char letter = text[pos];
        if (letter < 'A' || letter > 'Z')
            return 1;  // expected command letter
        ++pos;
        double value = 0;
        if (!readGrblNumber(text, pos, value))
            return 2;  // bad number format
        words.push_back({letter, value});
    }
    return std::nullopt;
}

std::string fixedText(double value, int decimals)
{
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value,
                                      std::chars_format::fixed, decimals);
    return std::string(buffer, result.ptr);
}

std::string wholeText(double value)
{
    return std::to_string(std::llround(value));
}

bool isWhole(double value, int& whole)
{
    whole = static_cast<int>(std::lround(value));
    return std::fabs(value - whole) < 1e-6;
}

}  // namespace

GrblEmulator::GrblEmulator(GrblEmulatorOptions options) : m_options(std::move(options))
{
    // Grbl 1.1h defaults, in the order "$$" lists them; the second number is the decimals shown.
    m_settings = {
        {0, {10, 0}},     {1, {25, 0}},      {2, {0, 0}},       {3, {0, 0}},
        {4, {0, 0}},      {5, {0, 0}},       {6, {0, 0}},       {10, {1, 0}},
        {11, {0.010, 3}}, {12, {0.002, 3}},  {13, {0, 0}},      {20, {0, 0}},
        {21, {0, 0}},     {22, {0, 0}},      {23, {0, 0}},      {24, {25, 3}},
        {25, {500, 3}},   {26, {250, 0}},    {27, {1, 3}},      {30, {1000, 0}},
        {31, {0, 0}},     {32, {0, 0}},      {100, {250, 3}},   {101, {250, 3}},
        {102, {250, 3}},  {110, {500, 3}},   {111, {500, 3}},   {112, {500, 3}},
        {120, {10, 3}},   {121, {10, 3}},    {122, {10, 3}},    {130, {200, 3}},
        {131, {200, 3}},  {132, {200, 3}},
    };
    if (!m_options.factorySettings) {
        m_settings[22].value = 1;  // homing on
        m_settings[23].value = 1;  // X homes towards minus
        m_settings[32].value = 1;  // laser mode
    }
    if (m_options.laserMode >= 0)
        m_settings[32].value = m_options.laserMode != 0 ? 1 : 0;
    m_planner.setSettings(motionSettings());
    if (!m_options.recordPath.empty())
        m_record.open(m_options.recordPath, std::ios::out | std::ios::trunc | std::ios::binary);
    powerUp(0);
}

// What a reset forgets besides the motion: unparsed input and the modal state.
void GrblEmulator::clearInputAndModes()
{
    m_rx.clear();
    m_line.clear();
    m_lineOverflow = false;
    m_commentDepth = 0;
    m_semicolon = false;
    m_g92Offset = {};
    m_relative = false;
    m_inches = false;
    m_motion = 0;
    m_feed = 0;
    m_spindleS = 0;
    m_spindleOn = false;
}

void GrblEmulator::powerUp(std::int64_t nowMs)
{
    m_nowMs = std::max(m_nowMs, static_cast<double>(nowMs));
    m_output.clear();
    m_lastDueMs = m_nowMs;
    m_booting = true;
    m_bootEndMs = m_nowMs + m_options.bootMs;
    m_critical = false;
    m_pending.reset();
    m_position = {};
    m_gcPosition = {};
    stopMotion();
    clearInputAndModes();
    m_holdComplete = false;
    // With homing enabled Grbl powers up locked: the position is unknown until homed.
    m_state = setting(22) != 0 ? State::Alarm : State::Idle;
}

void GrblEmulator::receive(std::string_view bytes)
{
    for (const char c : bytes) {
        if (m_hungUp)
            return;
        const auto byte = static_cast<unsigned char>(c);
        if (m_options.okToEverything) {
            if (byte == 0x18 || c == '?' || c == '!' || c == '~' || byte >= 0x80)
                continue;
            record(c);
            if (c == '\r' || c == '\n') {
                const int lineNo = ++m_lineCount;
                respond(lineNo, "ok");
            }
            continue;
        }
        // Real-time commands are picked out by the serial interrupt, wherever they stand.
        if (byte == 0x18 || c == '?' || c == '!' || c == '~' || byte >= 0x80) {
            realtime(byte);
            continue;
        }
        record(c);
        if (m_booting || m_rx.size() >= static_cast<std::size_t>(kRxBufferBytes)) {
            ++m_droppedBytes;
            continue;
        }
        m_rx.push_back(c);
        // At 115200 baud the main loop keeps pace with the bytes unless a line holds it up.
        pump();
    }
    settle();
}

void GrblEmulator::record(char c)
{
    if (!m_record.is_open())
        return;
    if (c == '\n' || c == '\r') {
        m_record << m_recordLine << '\n';
        m_record.flush();
        m_recordLine.clear();
    } else {
        m_recordLine += c;
    }
}

void GrblEmulator::advance(std::int64_t nowMs)
{
    const double target = std::max(static_cast<double>(nowMs), m_nowMs);
    settle();
    // Step from event to event (a block ending, a hold stopping, a dwell ending) so that
    // lines waiting for the planner are taken at the moment a block frees.
    while (true) {
        const double step = std::min(nextEventMs(), target);
        if (step > m_nowMs) {
            moveMotion(step - m_nowMs);
            m_nowMs = step;
        }
        settle();
        if (step >= target)
            break;
    }
}

std::string GrblEmulator::takeOutput()
{
    std::string out;
    while (!m_output.empty() && m_output.front().dueMs <= m_nowMs) {
        out += m_output.front().bytes;
        const bool firstHalf = m_output.front().firstHalf;
        m_output.pop_front();
        if (firstHalf) {
            // However late this is taken, the second half leaves in a later write.
            const double due = m_nowMs + kSplitGapMs;
            for (Chunk& chunk : m_output)
                chunk.dueMs = std::max(chunk.dueMs, due);
            m_lastDueMs = std::max(m_lastDueMs, due);
            break;
        }
    }
    return out;
}

std::string GrblEmulator::stateText() const
{
    switch (m_state) {
    case State::Idle: return "Idle";
    case State::Run: return "Run";
    case State::Hold: return m_holdComplete ? "Hold:0" : "Hold:1";
    case State::Jog: return "Jog";
    case State::Alarm: return "Alarm";
    case State::Home: return "Home";
    }
    return "Idle";
}

void GrblEmulator::realtime(unsigned char byte)
{
    if (m_silent || m_hungUp)
        return;
    if (byte == 0x18) {
        softReset();
        return;
    }
    // While booting, and after a hard or soft limit alarm, Grbl acts on nothing but a reset.
    if (m_booting || m_critical)
        return;
    switch (byte) {
    case '?':
        sendLine(statusReport());
        break;
    case '!':
        if (m_state == State::Run) {
            // The carriage slows down at the acceleration of the moves it runs, to a stop.
            m_state = State::Hold;
            m_holdComplete = false;
        } else if (m_state == State::Jog) {
            realtime(0x85);  // a feed hold cancels a jog
        } else if (m_state == State::Idle) {
            m_state = State::Hold;
            m_holdComplete = true;
        }
        break;
    case '~':
        // Grbl resumes only once the hold has come to a stop.
        if (m_state == State::Hold && m_holdComplete)
            m_state = m_planner.empty() ? State::Idle : State::Run;
        break;
    case 0x85:  // jog cancel
        if (m_state == State::Jog) {
            stopMotion();
            m_gcPosition = m_position;
            m_state = State::Idle;
        }
        break;
    default:
        break;  // safety door, overrides and coolant toggles have no effect here; others dropped
    }
    settle();
}

void GrblEmulator::softReset()
{
    if (m_booting)
        return;
    // A reset in motion loses the position: Grbl says so and stays locked afterwards.
    if (m_state == State::Home) {
        sendLine("ALARM:6");
        m_state = State::Alarm;
    } else if (motionActive() && !m_planner.empty()) {
        sendLine("ALARM:3");
        m_state = State::Alarm;
    } else if (m_state != State::Alarm) {
        m_state = State::Idle;
    }
    m_critical = false;
    stopMotion();
    m_pending.reset();
    m_gcPosition = m_position;
    clearInputAndModes();
    m_booting = true;
    m_bootEndMs = m_nowMs + kSoftResetMs;
}

void GrblEmulator::sendLine(std::string_view line)
{
    std::string bytes(line);
    bytes += "\r\n";
    sendRaw(std::move(bytes));
}

void GrblEmulator::sendRaw(std::string bytes)
{
    if (m_silent || m_hungUp || bytes.empty())
        return;
    const double due = std::max(m_nowMs + m_options.replyDelayMs, m_lastDueMs);
    if (m_options.splitReplies && bytes.size() > 1) {
        m_output.push_back({due, bytes.substr(0, 1), true});
        m_output.push_back({due + kSplitGapMs, bytes.substr(1)});
        m_lastDueMs = due + kSplitGapMs;
    } else {
        m_output.push_back({due, std::move(bytes)});
        m_lastDueMs = due;
    }
}

void GrblEmulator::respond(int lineNo, std::string_view text)
{
    sendLine(text);
    if (m_options.alarmAt.line == lineNo)
        raiseAlarm(m_options.alarmAt.code);
    if (m_options.silentAfter == lineNo)
        m_silent = true;
    if (m_options.hangupAfter == lineNo)
        m_hungUp = true;
}

void GrblEmulator::raiseAlarm(int code)
{
    sendLine("ALARM:" + std::to_string(code));
    flushMotion();
    m_state = State::Alarm;
    // Hard and soft limits: Grbl waits for a reset and answers nothing meanwhile.
    if (code == 1 || code == 2) {
        sendLine("[MSG:Reset to continue]");
        m_critical = true;
    }
}

void GrblEmulator::flushMotion()
{
    stopMotion();
    m_pending.reset();
    m_gcPosition = m_position;
}

void GrblEmulator::stopMotion()
{
    m_planner.reset(m_position);
    m_doneMm = 0;
    m_speed = 0;
}

GrblSettings GrblEmulator::motionSettings() const
{
    GrblSettings motion;
    for (const auto& [number, value] : m_settings)
        motion.set(number, value.value);
    return motion;
}

bool GrblEmulator::motionActive() const
{
    return m_state == State::Run || m_state == State::Jog ||
           (m_state == State::Hold && !m_holdComplete);
}

double GrblEmulator::scaled(double realMs) const
{
    if (m_options.speed <= 0)
        return 0;
    return realMs / m_options.speed;
}

double GrblEmulator::nextEventMs() const
{
    // Only events still ahead count: what is due now is settle()'s business, and a step that
    // cannot move the clock (rounding at large times) must not stall advance().
    double next = kInf;
    const auto consider = [&](double eventMs) {
        if (eventMs > m_nowMs)
            next = std::min(next, eventMs);
    };
    if (m_booting)
        consider(m_bootEndMs);
    if (motionActive() && !m_planner.empty() && m_options.speed > 0)
        consider(m_nowMs + motionEventSeconds() * 1000.0 / m_options.speed);
    if (m_pending) {
        if (m_pending->dwellEndMs)
            consider(*m_pending->dwellEndMs);
        if (m_pending->homingEndMs)
            consider(*m_pending->homingEndMs);
    }
    return next;
}

// Machine seconds until the running block ends or, in a feed hold, the carriage stops.
double GrblEmulator::motionEventSeconds() const
{
    const PlannerBlock& block = m_planner.block(0);
    const double left = block.millimeters - m_doneMm;
    if (holding()) {
        const double a = block.acceleration;
        if (m_speed * m_speed <= 2 * a * left)
            return m_speed / a;
        return (m_speed - std::sqrt(m_speed * m_speed - 2 * a * left)) / a;
    }
    return profileSecondsLeft(m_doneMm, m_speed, std::sqrt(m_planner.exitSpeedSqr(0)), block.nominalSpeed,
                              block.acceleration, block.millimeters);
}

void GrblEmulator::moveMotion(double dtMs)
{
    if (!motionActive() || m_planner.empty() || m_options.speed <= 0)
        return;
    const PlannerBlock& block = m_planner.block(0);
    const double seconds = std::min(dtMs / 1000.0 * m_options.speed, motionEventSeconds());
    if (holding()) {
        const double a = block.acceleration;
        m_doneMm = std::min(block.millimeters, m_doneMm + m_speed * seconds - a * seconds * seconds / 2);
        m_speed = std::max(0.0, m_speed - a * seconds);
    } else {
        const ProfilePoint point = profileAfter({m_doneMm, m_speed}, seconds, std::sqrt(m_planner.exitSpeedSqr(0)),
                                                block.nominalSpeed, block.acceleration, block.millimeters);
        m_doneMm = point.doneMm;
        m_speed = point.speed;
    }
    for (int axis = 0; axis < 3; ++axis)
        m_position[axis] = block.start[axis] + block.unit[axis] * m_doneMm;
}

void GrblEmulator::settle()
{
    bool changed = true;
    while (changed) {
        changed = false;
        if (m_booting && m_nowMs >= m_bootEndMs) {
            m_booting = false;
            if (!m_options.okToEverything) {
                sendRaw(std::string(kWelcome));
                if (m_state == State::Alarm)
                    sendLine(kUnlockHint);
            }
            changed = true;
        }
        if (retireBlocks())
            changed = true;
        if (holding() && (m_speed <= 0 || m_planner.empty())) {
            // Stopped: what is left of the block starts again from rest after "~".
            m_holdComplete = true;
            if (!m_planner.empty()) {
                m_planner.restartTail(m_position, m_planner.block(0).millimeters - m_doneMm);
                m_doneMm = 0;
            }
            changed = true;
        }
        if (pump())
            changed = true;
    }
}

// Ends the blocks whose time is up; a cycle with nothing left to do goes idle.
bool GrblEmulator::retireBlocks()
{
    bool changed = false;
    while (motionActive() && !m_planner.empty() &&
           (m_options.speed <= 0 || m_doneMm >= m_planner.block(0).millimeters - 1e-9)) {
        m_position = m_planner.block(0).target;
        m_planner.discardTail();
        m_doneMm = 0;
        changed = true;
    }
    if (m_planner.empty())
        m_speed = 0;
    if ((m_state == State::Run || m_state == State::Jog) && m_planner.empty()) {
        m_state = State::Idle;
        changed = true;
    }
    return changed;
}

// The firmware's main loop: takes bytes out of the receive buffer one at a time, but stalls
// on a line that waits (planner full, synchronisation, dwell, homing).
bool GrblEmulator::pump()
{
    bool progressed = false;
    while (!m_booting && !m_critical && !m_silent && !m_hungUp) {
        // A hold suspends the main program: a waiting line, and the end of a line with
        // something to run, wait for the cycle start (only real-time bytes are acted on
        // meanwhile). An empty line is still answered "ok", as Grbl does for syncing.
        const bool lineToRun = !m_line.empty() || m_lineOverflow;
        if (m_state == State::Hold &&
            (m_pending || (lineToRun && !m_rx.empty() && (m_rx.front() == '\n' || m_rx.front() == '\r'))))
            break;
        if (m_pending) {
            if (!finishPending())
                break;
            progressed = true;
            continue;
        }
        if (m_rx.empty())
            break;
        const char c = m_rx.front();
        m_rx.pop_front();
        consume(c);
        progressed = true;
    }
    return progressed;
}

bool GrblEmulator::finishPending()
{
    Pending& pending = *m_pending;
    if (pending.sync) {
        if (!m_planner.empty() || motionActive())
            return false;
        pending.sync = false;
        if (pending.spindleOn) {
            m_spindleOn = *pending.spindleOn != 0;
            m_spindleS = pending.spindleS;
        }
        if (pending.dwellMs > 0)
            pending.dwellEndMs = m_nowMs + scaled(pending.dwellMs);
        if (pending.programPause) {
            // M0: the machine holds, and the line is answered after the cycle start.
            m_state = State::Hold;
            m_holdComplete = true;
            pending.programPause = false;
            return false;
        }
        if (pending.programEnd) {
            sendLine("[MSG:Pgm End]");
            m_motion = 1;
            m_relative = false;
            m_spindleOn = false;
        }
    }
    if (pending.dwellEndMs && m_nowMs < *pending.dwellEndMs)
        return false;
    if (pending.homingAxis >= 0) {
        const int axis = pending.homingAxis;
        if (!pending.homingEndMs) {
            // Search the switch, pull off, locate it slowly, pull off again.
            const GrblSettings motion = motionSettings();
            const double seconds = homingSeconds(motion, axis, homingSearchMm(motion, axis, m_position[axis]));
            pending.homingEndMs = m_nowMs + scaled(seconds * 1000.0);
            m_state = State::Home;
            if (m_nowMs < *pending.homingEndMs)
                return false;
        }
        if (m_nowMs < *pending.homingEndMs)
            return false;
        m_position[axis] = homePosition(axis);
        m_gcPosition = m_position;
        stopMotion();
        m_state = State::Idle;
    }
    if (pending.move) {
        if (m_planner.full())
            return false;
        const Move& move = *pending.move;
        if (m_planner.addLine(move.target, move.feed, move.rapid, move.jog ? 1 : 0) && m_state == State::Idle)
            m_state = move.jog ? State::Jog : State::Run;
        retireBlocks();  // without motion time a block is done as soon as it is queued
    }
    const int lineNo = pending.lineNo;
    m_pending.reset();
    respond(lineNo, "ok");
    return true;
}

void GrblEmulator::consume(char c)
{
    if (c == '\n' || c == '\r') {
        endLine();
        return;
    }
    if (m_commentDepth > 0) {
        if (c == ')')
            m_commentDepth = 0;
        return;
    }
    if (m_semicolon || m_lineOverflow)
        return;
    if (c <= ' ' || c == '/')
        return;  // blanks, control characters, block delete
    if (c == '(') {
        m_commentDepth = 1;
        return;
    }
    if (c == ';') {
        m_semicolon = true;
        return;
    }
    if (m_line.size() >= static_cast<std::size_t>(kLineMax)) {
        m_lineOverflow = true;
        return;
    }
    m_line += (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
}

void GrblEmulator::endLine()
{
    const int lineNo = ++m_lineCount;
    const std::string line = m_line;
    const bool overflow = m_lineOverflow;
    m_line.clear();
    m_lineOverflow = false;
    m_commentDepth = 0;
    m_semicolon = false;

    if (m_options.errorAt.line == lineNo) {
        respond(lineNo, "error:" + std::to_string(m_options.errorAt.code));
        return;
    }
    if (overflow) {
        respond(lineNo, "error:11");
        return;
    }
    if (line.empty()) {
        respond(lineNo, "ok");  // empty or comment-only lines answer "ok", for syncing
        return;
    }
    execute(lineNo, line);
}

void GrblEmulator::execute(int lineNo, const std::string& line)
{
    const std::optional<int> error =
        line[0] == '$' ? executeSystem(lineNo, line) : executeGcode(lineNo, line);
    if (error)
        respond(lineNo, "error:" + std::to_string(*error));
}

std::optional<int> GrblEmulator::executeSystem(int lineNo, const std::string& line)
{
    const auto ok = [&] {
        respond(lineNo, "ok");
        return std::nullopt;
    };
    if (line == "$") {
        sendLine("[HLP:$$ $# $G $I $N $x=val $Nx=line $J=line $SLP $C $X $H ~ ! ? ctrl-x]");
        return ok();
    }
    if (line.rfind("$J=", 0) == 0)
        return executeJog(lineNo, line.substr(3));
    if (line == "$$") {
        if (m_state == State::Run || m_state == State::Hold)
            return 8;  // Grbl will not print the settings during a cycle
        for (const std::string& settingLine : settingsList())
            sendLine(settingLine);
        return ok();
    }
    if (line == "$G") {
        sendLine("[GC:G" + std::to_string(m_motion) + " G54 G17 " + (m_inches ? "G20" : "G21") +
             (m_relative ? " G91" : " G90") + " G94 " + (m_spindleOn ? "M3" : "M5") +
             " M9 T0 F" + wholeText(m_feed) + " S" + wholeText(m_spindleS) + "]");
        return ok();
    }
    if (line == "$I") {
        // The build info tells a host that this board is an emulator running at this pace.
        char speed[32];
        const auto end = std::to_chars(speed, speed + sizeof speed, m_options.speed).ptr;
        sendLine("[VER:1.1h.20190830:emulator x" + std::string(speed, end) + "]");
        sendLine("[OPT:V,15,128]");
        return ok();
    }
    if (line == "$#") {
        const std::string zero = "0.000,0.000,0.000";
        for (const char* name : {"G54", "G55", "G56", "G57", "G58", "G59", "G28", "G30"}) {
            std::string parameter = "[";
            parameter += name;
            parameter += ':';
            parameter += zero;
            parameter += ']';
            sendLine(parameter);
        }
        std::string offset = "[G92:";
        for (int axis = 0; axis < 3; ++axis)
            offset += fixedText(m_g92Offset[axis], 3) + (axis < 2 ? "," : "]");
        sendLine(offset);
        sendLine("[TLO:0.000]");
        sendLine("[PRB:" + zero + ":0]");
        return ok();
    }
    if (line == "$N") {
        sendLine("$N0=");
        sendLine("$N1=");
        return ok();
    }
    if (line == "$X") {
        if (m_state == State::Alarm) {
            sendLine("[MSG:Caution: Unlocked]");
            m_state = State::Idle;
        }
        return ok();
    }
    // The remaining commands need an idle or alarmed machine.
    if (m_state != State::Idle && m_state != State::Alarm)
        return 8;
    if (line[1] == 'H') {
        if (setting(22) == 0)
            return 5;  // homing not enabled
        int axis = -1;
        if (line == "$H") {
            axis = 0;  // the only axis with a switch
        } else if (line.size() == 3 && !m_options.stock && line[2] == 'X') {
            axis = 0;
        } else {
            // Grbl enters the Home state before it judges the statement, so a stock image
            // that does not know "$HX" stays there until a soft reset.
            if (m_options.stock && line.size() == 3 &&
                (line[2] == 'X' || line[2] == 'Y' || line[2] == 'Z'))
                m_state = State::Home;
            return 3;
        }
        Pending pending;
        pending.lineNo = lineNo;
        pending.homingAxis = axis;
        m_pending = pending;
        return std::nullopt;
    }
    if (line.size() > 1 && line[1] >= '0' && line[1] <= '9') {
        std::size_t pos = 1;
        double number = 0;
        if (!readGrblNumber(line, pos, number) || pos >= line.size() || line[pos] != '=')
            return 3;
        ++pos;
        double value = 0;
        if (!readGrblNumber(line, pos, value) || pos != line.size())
            return 2;
        int settingNumber = 0;
        if (!isWhole(number, settingNumber) || !m_settings.count(settingNumber))
            return 3;
        if (value < 0)
            return 4;  // negative value
        Setting& setting = m_settings[settingNumber];
        if (setting.decimals == 0)
            value = std::trunc(value);
        setting.value = value;
        m_planner.setSettings(motionSettings());
        return ok();
    }
    return 3;
}

std::optional<int> GrblEmulator::executeJog(int lineNo, const std::string& text)
{
    if (m_state != State::Idle && m_state != State::Jog)
        return 8;
    std::vector<Word> words;
    if (const auto error = parseWords(text, words))
        return error;
    bool relative = m_relative;
    bool inches = m_inches;
    bool machineCoordinates = false;
    std::optional<double> feed;
    std::array<std::optional<double>, 3> axes;
    for (const Word& word : words) {
        int g = 0;
        switch (word.letter) {
        case 'G':
            if (!isWhole(word.value, g))
                return 16;
            if (g == 90 || g == 91)
                relative = g == 91;
            else if (g == 20 || g == 21)
                inches = g == 20;
            else if (g == 53)
                machineCoordinates = true;
            else
                return 16;
            break;
        case 'F': feed = word.value; break;
        case 'X': axes[0] = word.value; break;
        case 'Y': axes[1] = word.value; break;
        case 'Z': axes[2] = word.value; break;
        case 'N': break;
        default: return 16;
        }
    }
    if (!feed || *feed <= 0)
        return 22;
    if (!axes[0] && !axes[1] && !axes[2])
        return 16;
    const double unit = inches ? kMmPerInch : 1.0;
    const Vec3 target = moveTarget(axes, unit, relative, machineCoordinates);
    if (setting(20) != 0) {
        for (int axis = 0; axis < 3; ++axis) {
            if (target[axis] > 0 || target[axis] < -setting(130 + axis))
                return 15;  // jog target beyond the soft limits
        }
    }
    Pending pending;
    pending.lineNo = lineNo;
    pending.move = Move{target, *feed * unit, false, true};
    m_gcPosition = target;
    m_pending = pending;
    return std::nullopt;
}

std::optional<int> GrblEmulator::executeGcode(int lineNo, const std::string& line)
{
    if (m_state == State::Alarm || m_state == State::Jog)
        return 9;  // locked by an alarm or a jog
    std::vector<Word> words;
    if (const auto error = parseWords(line, words))
        return error;

    // 1. Read the whole block before changing any state, as Grbl does.
    int motion = m_motion;
    bool relative = m_relative;
    bool inches = m_inches;
    bool dwell = false;
    bool setOffset = false;
    bool machineCoordinates = false;
    bool programEnd = false;
    bool programPause = false;
    std::optional<bool> spindle;
    std::optional<double> feed;
    std::optional<double> speed;
    std::optional<double> dwellSeconds;
    std::array<std::optional<double>, 3> axes;
    for (const Word& word : words) {
        int code = 0;
        switch (word.letter) {
        case 'G':
            if (!isWhole(word.value, code))
                return 20;
            switch (code) {
            case 0: case 1: case 2: case 3: motion = code; break;
            case 4: dwell = true; break;
            case 17: case 94: break;
            case 54: case 55: case 56: case 57: case 58: case 59: break;  // all offsets zero
            case 20: case 21: inches = code == 20; break;
            case 53: machineCoordinates = true; break;
            case 90: relative = false; break;
            case 91: relative = true; break;
            case 92: setOffset = true; break;
            default: return 20;
            }
            break;
        case 'M':
            if (!isWhole(word.value, code))
                return 20;
            switch (code) {
            case 0: case 1: programPause = true; break;
            case 2: case 30: programEnd = true; break;
            case 3: case 4: spindle = true; break;
            case 5: spindle = false; break;
            case 7: case 8: case 9: break;
            default: return 20;
            }
            break;
        case 'F': feed = word.value; break;
        case 'S': speed = word.value; break;
        case 'P': dwellSeconds = word.value; break;
        case 'X': axes[0] = word.value; break;
        case 'Y': axes[1] = word.value; break;
        case 'Z': axes[2] = word.value; break;
        case 'N': case 'I': case 'J': case 'K': case 'R': case 'T': break;
        default: return 20;
        }
    }
    if (dwell && !dwellSeconds)
        return 28;  // value word missing
    if ((feed && *feed < 0) || (speed && *speed < 0) || (dwellSeconds && *dwellSeconds < 0))
        return 4;
    const double unit = inches ? kMmPerInch : 1.0;
    const bool anyAxis = axes[0] || axes[1] || axes[2];
    const double newFeed = feed ? *feed * unit : m_feed;
    const bool moves = anyAxis && !setOffset;
    if (moves && motion != 0 && newFeed <= 0)
        return 22;  // G1 without any feed ever set

    // 2. Modal state.
    const int previousMotion = m_motion;
    m_motion = motion;
    m_relative = relative;
    m_inches = inches;
    m_feed = newFeed;
    Pending pending;
    pending.lineNo = lineNo;

    // 3. Spindle (laser, punch): switching it waits for the motion to end, in laser mode too.
    // A change of S waits as well unless, in laser mode, a cutting move carries it; there M3
    // also waits when a line alone switches between cutting (G1-G3) and travel modes.
    const bool newOn = spindle ? *spindle : m_spindleOn;
    const double newS = speed ? *speed : m_spindleS;
    const bool laser = setting(32) != 0;
    const bool cutting = motion >= 1 && motion <= 3;
    const bool laserMotion = laser && moves;
    const bool wasCutting = previousMotion >= 1 && previousMotion <= 3;
    const bool forceSync = laser && !laserMotion && m_spindleOn && wasCutting != cutting;
    if (newOn != m_spindleOn || ((newS != m_spindleS || forceSync) && m_spindleOn && !laserMotion)) {
        pending.sync = true;
        pending.spindleOn = newOn ? 1 : 0;
        pending.spindleS = newS;
    } else {
        m_spindleS = newS;
    }
    // 4. Dwell, after the planned motion is done.
    if (dwell) {
        pending.sync = true;
        pending.dwellMs = *dwellSeconds * 1000.0;
    }
    // 5. G92: the current position takes the given work coordinates.
    if (setOffset) {
        for (int axis = 0; axis < 3; ++axis) {
            if (axes[axis])
                m_g92Offset[axis] = m_gcPosition[axis] - *axes[axis] * unit;
        }
    }
    // 6. Motion.
    if (moves) {
        const Vec3 target = moveTarget(axes, unit, relative, machineCoordinates);
        pending.move = Move{target, m_feed, motion == 0, false};
        m_gcPosition = target;
    }
    // 7. Program pause and end, once the motion is done.
    if (programPause || programEnd)
        pending.sync = true;
    pending.programEnd = programEnd;
    pending.programPause = programPause;
    m_pending = pending;
    return std::nullopt;
}

// Grbl's machine space is negative: homed towards minus ($23 bit set) an axis stands at
// -max travel + pull-off, towards plus at -pull-off.
double GrblEmulator::homePosition(int axis) const
{
    const bool towardsMinus = (static_cast<int>(setting(23)) >> axis & 1) != 0;
    return towardsMinus ? -setting(130 + axis) + setting(27) : -setting(27);
}

GrblEmulator::Vec3 GrblEmulator::moveTarget(const std::array<std::optional<double>, 3>& axes,
                                            double unit, bool relative,
                                            bool machineCoordinates) const
{
    Vec3 target = m_gcPosition;
    for (int axis = 0; axis < 3; ++axis) {
        if (!axes[axis])
            continue;
        const double value = *axes[axis] * unit;
        if (machineCoordinates)
            target[axis] = value;
        else if (relative)
            target[axis] += value;
        else
            target[axis] = value + m_g92Offset[axis];
    }
    return target;
}

std::string GrblEmulator::statusReport() const
{
    const bool machine = (static_cast<int>(setting(10)) & 1) != 0;
    std::string report = "<";
    report += stateText();
    report += machine ? "|MPos:" : "|WPos:";
    for (int axis = 0; axis < 3; ++axis) {
        // Grbl counts steps, so positions are whole steps (and never "-0.000").
        const double steps = setting(100 + axis);
        double value = m_position[axis] - (machine ? 0.0 : m_g92Offset[axis]);
        value = std::round(value * steps) / steps;
        if (value == 0)
            value = 0;
        report += fixedText(value, 3);
        report += axis < 2 ? "," : "";
    }
    // The speed the carriage moves at now, as Grbl reports it.
    double feed = 0;
    if (motionActive() && !m_planner.empty())
        feed = m_speed * 60.0;
    report += "|FS:" + wholeText(feed) + "," + wholeText(m_spindleOn ? m_spindleS : 0);
    // Grbl gives its work coordinate offset every 30th report while moving, every 10th while
    // idle, and in the next report after the offset changed. A zero offset that never changed
    // is left out here, so that the reports of a board without offsets stay short.
    const bool changed = m_g92Offset != m_wcoReported;
    const bool anyOffset = m_g92Offset != Vec3{};
    const bool due = m_wcoCountdown == 0;
    if (!due)
        --m_wcoCountdown;
    if (changed || (anyOffset && due)) {
        m_wcoCountdown = (m_state == State::Idle || m_state == State::Alarm ? 10 : 30) - 1;
        m_wcoReported = m_g92Offset;
        report += "|WCO:";
        for (int axis = 0; axis < 3; ++axis) {
            double value = m_g92Offset[axis];
            if (value == 0)
                value = 0;
            report += fixedText(value, 3);
            report += axis < 2 ? "," : "";
        }
    }
    report += ">";
    return report;
}

std::vector<std::string> GrblEmulator::settingsList() const
{
    std::vector<std::string> list;
    for (const auto& [number, value] : m_settings)
    {
        std::string line = "$";
        line += std::to_string(number);
        line += '=';
        line += fixedText(value.value, value.decimals);
        list.push_back(std::move(line));
    }
    return list;
}

}  // namespace veltrin
