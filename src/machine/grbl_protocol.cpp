#include "machine/grbl_protocol.h"

#include <array>
#include <cmath>

#include "base/numeric_text.h"

namespace veltrin {

std::vector<std::string> LineAssembler::feed(std::string_view bytes)
{
    std::vector<std::string> lines;
    for (char c : bytes) {
        if (c == '\n') {
            if (!m_partial.empty())
                lines.push_back(std::move(m_partial));
            m_partial.clear();
        } else if (c != '\r' && c != '\0') {
            m_partial.push_back(c);
        }
    }
    return lines;
}

namespace {

int codeAfter(std::string_view line, std::size_t prefixLength)
{
    return static_cast<int>(leadingNumber(line.substr(prefixLength)));
}

}  // namespace

Reply classifyReply(std::string_view line)
{
    if (line == "ok")
        return {ReplyKind::Ok, 0};
    if (line.starts_with("error:"))
        return {ReplyKind::Error, codeAfter(line, 6)};
    if (line.starts_with("ALARM:"))
        return {ReplyKind::Alarm, codeAfter(line, 6)};
    if (line.starts_with("Grbl "))
        return {ReplyKind::Banner, 0};
    if (line.starts_with("["))
        return {ReplyKind::Message, 0};
    if (line.starts_with("<"))
        return {ReplyKind::Status, 0};
    if (line.size() > 1 && line[0] == '$' && line.find('=') != std::string_view::npos)
        return {ReplyKind::Setting, 0};
    return {ReplyKind::Other, 0};
}

std::string lineToSend(std::string_view programLine)
{
    std::string out;
    out.reserve(programLine.size());
    bool inParenthesis = false;
    for (char ch : programLine) {
        const auto c = static_cast<unsigned char>(ch);
        if (inParenthesis) {
            if (c == ')')
                inParenthesis = false;
            continue;
        }
        if (c == '(') {
            inParenthesis = true;
            continue;
        }
        if (c == ';')
            break;
        // Grbl acts on these bytes wherever they stand, even inside a comment, so they never
        // leave with a program line.
        if (c == '?' || c == '!' || c == '~' || c < 0x20 || c >= 0x7F)
            continue;
        out.push_back(ch);
    }
    const auto first = out.find_first_not_of(' ');
    if (first == std::string::npos)
        return {};
    const auto last = out.find_last_not_of(' ');
    return out.substr(first, last - first + 1);
}

long long jogFeed(bool laser, std::string_view VitesseF, std::string_view VitesseF_poin)
{
    return static_cast<long long>(leadingNumber(laser ? VitesseF : VitesseF_poin));
}

std::string jogCommand(char axis, int distanceMm, long long feed)
{
    return "$J=G91" + std::string(1, axis) + std::to_string(distanceMm) + "F" + std::to_string(feed);
}

std::string nextRollJog(int rollGapMm, long long feed)
{
    return jogCommand('Y', rollGapMm, feed);
}

std::vector<std::string> toolTestCommands(bool laser, std::string_view laserPower)
{
    std::string on = laser ? "M03 S" + std::string(laserPower) : std::string("M03 S1000");
    return {std::move(on), "G1 F1000", "G0 F1000 S0"};
}

std::vector<std::string> laserPointerCommands(bool laser, bool pointerOn, std::string_view laserPower)
{
    if (!laser)
        return {};
    if (pointerOn)
        return {"G0 F1000 S0"};
    return {"M03 S" + std::string(laserPower), "G1 F1000"};
}

void remplir_glossaire(std::vector<std::string>& Liste_commentaires_grbl)
{
    static constexpr std::array<const char*, 35> kEntries = {
        " (Step pulse time)",
        " (Step idle delay)",
        " (Step pulse invert - 00000ZYX)",
        " (Step direction invert - 00000ZYX)",
        " (Invert step enable pin)",
        " (Invert limit pin)",
        " (Invert probe pin)",
        " (Status report option)",
        " (Junction deviation)",
        " (Arc tolerance)",
        " (Report in inches)",
        " (Soft limits enable)",
        " (Hard limits enable)",
        " (Homing cycle enable)",
        " (Homing direction invert - 00000ZYX)",
        " (Homing locate feed rate)",
        " (Homing search seek rate)",
        " (Homing switch debounce delay)",
        " (Homing switch pull-off distance)",
        " (Max. spindle speed)",
        " (Min. spindle speed)",
        " (Laser mode enable)",
        " (X-axis travel resolution)",
        " (Y-axis travel resolution)",
        " (Z-axis travel resolution)",
        " (X-axis max. rate)",
        " (Y-axis max. rate)",
        " (Z-axis max. rate)",
        " (X-axis max. acceleration)",
        " (Y-axis max. acceleration)",
        " (Z-axis max. acceleration)",
        " (X-axis max. travel)",
        " (Y-axis max. travel)",
        " (Z-axis max. travel)",
        " ",
    };
    Liste_commentaires_grbl.insert(Liste_commentaires_grbl.end(), kEntries.begin(), kEntries.end());
}

std::string SettingsAnnotator::annotate(std::string_view line)
{
    std::string out(line);
    // Paired by position, not by setting number: another Grbl version's list shows shifted
    // explanations, and lines past the glossary get none.
    if (m_lineCounter < m_glossary->size())
        out += (*m_glossary)[m_lineCounter];
    ++m_lineCounter;
    return out;
}

std::string_view errorMeaning(int code)
{
    static constexpr std::array<const char*, 39> kErrors = {
        "",
        "expected a command letter: a G-code word is a letter and a value",
        "bad number format: a value is missing or not a number",
        "invalid statement: this '$' command is not known to this firmware",
        "negative value where a positive one is expected",
        "homing is not enabled in the settings ($22)",
        "step pulse time under 3 microseconds",
        "settings memory (EEPROM) read failed; the defaults were restored",
        "'$' command refused while the machine is not idle",
        "G-code locked out during an alarm or a jog",
        "soft limits need homing enabled",
        "line too long: more than 80 characters, not run",
        "setting would make the step rate exceed 30 kHz",
        "safety door open",
        "build info or start-up line too long to be stored",
        "jog target beyond the machine's travel: jog ignored",
        "invalid jog command: no '=' or a G-code that a jog does not allow",
        "laser mode needs the PWM output",
        "",
        "",
        "unsupported or invalid G-code command",
        "two commands of the same modal group in one line",
        "feed rate not set",
        "G-code command needs a whole number",
        "two commands that need axis words in one line",
        "a word is repeated in the line",
        "no axis words for a command that needs them",
        "invalid line number",
        "a command lacks a value word it needs",
        "G59.x work coordinate systems are not supported",
        "G53 is allowed only with G0 and G1",
        "axis words that no command uses",
        "G2/G3 arc without an axis word in its plane",
        "invalid motion target",
        "invalid arc radius",
        "G2/G3 arc without an offset word in its plane",
        "value words that no command uses",
        "tool length offset not on the tool length axis",
        "tool number beyond the largest supported",
    };
    if (code < 1 || code >= static_cast<int>(kErrors.size()))
        return {};
    return kErrors[static_cast<std::size_t>(code)];
}

std::string_view alarmMeaning(int code)
{
    static constexpr std::array<const char*, 10> kAlarms = {
        "",
        "hard limit switch hit: the machine stopped at once and its position is likely lost; home again",
        "soft limit: a motion target lies beyond the machine's travel; the position is kept",
        "reset while moving: the position is likely lost; home again",
        "probe fail: the probe was not in its expected state before the probing cycle",
        "probe fail: the probe touched nothing within the programmed travel",
        "homing fail: the homing cycle was reset",
        "homing fail: the safety door opened during homing",
        "homing fail: pulling off did not clear the limit switch (pull-off setting $27, wiring)",
        "homing fail: no limit switch found within the search distance (max travel $130, wiring)",
    };
    if (code < 1 || code >= static_cast<int>(kAlarms.size()))
        return {};
    return kAlarms[static_cast<std::size_t>(code)];
}

std::string explainedReply(std::string_view line)
{
    const Reply reply = classifyReply(line);
    std::string_view meaning;
    if (reply.kind == ReplyKind::Error)
        meaning = errorMeaning(reply.code);
    else if (reply.kind == ReplyKind::Alarm)
        meaning = alarmMeaning(reply.code);
    std::string out(line);
    if (!meaning.empty()) {
        out += " (";
        out += meaning;
        out += ')';
    }
    return out;
}

namespace {

// "x,y,z" into three numbers; false when it is not three numbers.
bool readTriple(std::string_view text, double (&out)[3])
{
    for (int axis = 0; axis < 3; ++axis) {
        const auto comma = text.find(',');
        const std::string_view field = axis < 2 ? text.substr(0, comma) : text;
        if (field.empty() || (axis < 2 && comma == std::string_view::npos))
            return false;
        const char first = field.front();
        if (!(first == '-' || first == '.' || (first >= '0' && first <= '9')))
            return false;
        out[axis] = leadingNumber(field);
        if (axis < 2)
            text.remove_prefix(comma + 1);
    }
    return true;
}

}  // namespace

std::optional<StatusReport> parseStatusReport(std::string_view line)
{
    if (line.size() < 2 || line.front() != '<' || line.back() != '>')
        return std::nullopt;
    std::string_view body = line.substr(1, line.size() - 2);
    StatusReport report;
    bool hasPosition = false;
    bool first = true;
    while (true) {
        const auto bar = body.find('|');
        const std::string_view part = body.substr(0, bar);
        if (first) {
            if (part.empty())
                return std::nullopt;
            report.state = std::string(part);
            first = false;
        } else if (part.starts_with("MPos:") || part.starts_with("WPos:")) {
            if (!readTriple(part.substr(5), report.position))
                return std::nullopt;
            report.machinePosition = part[0] == 'M';
            hasPosition = true;
        } else if (part.starts_with("WCO:")) {
            if (!readTriple(part.substr(4), report.workOffset))
                return std::nullopt;
            report.hasWorkOffset = true;
        }
        if (bar == std::string_view::npos)
            break;
        body.remove_prefix(bar + 1);
    }
    if (!hasPosition)
        return std::nullopt;
    return report;
}

std::optional<double> emulatorSpeed(std::string_view versionLine)
{
    if (!versionLine.starts_with("[VER:") || !versionLine.ends_with("]"))
        return std::nullopt;
    const std::string_view body = versionLine.substr(5, versionLine.size() - 6);
    const auto colon = body.find(':');
    if (colon == std::string_view::npos)
        return std::nullopt;
    const std::string_view info = body.substr(colon + 1);
    constexpr std::string_view kPrefix = "emulator x";
    if (!info.starts_with(kPrefix) || info.size() == kPrefix.size())
        return std::nullopt;
    return leadingNumber(info.substr(kPrefix.size()));
}

std::string emulatorBuildInfo(double speed)
{
    return "emulator x" + plainNumber(speed);
}

std::string remainingClock(double seconds)
{
    long long total = seconds > 0 ? static_cast<long long>(std::llround(seconds)) : 0;
    total %= 86400;
    const auto two = [](long long v) { return fixedWidth(v, 2); };
    return two(total / 3600) + ":" + two(total / 60 % 60) + ":" + two(total % 60);
}

double learnedDuration(double stored, double measured)
{
    if (stored == 999.0)
        return measured;
    return (stored + measured) / 2.0;
}

}  // namespace veltrin
