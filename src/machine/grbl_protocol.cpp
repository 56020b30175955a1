#include "machine/grbl_protocol.h"

#include <array>
#include <cmath>

#include "app/numeric_text.h"

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
