#include "machine/hole_progress.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <optional>

#include "base/numeric_text.h"
#include "machine/grbl_protocol.h"

namespace veltrin {

namespace {

// The words of a line as Grbl reads them: a letter (any case) and the number after it.
struct Words {
    std::vector<double> g;
    std::array<std::optional<double>, 3> axis;  // X, Y, Z
    bool system = false;                        // a "$" command
    std::array<bool, 3> homed{};                // axes a "$H" or "$HX" homes (all for "$H")
};

Words readWords(const std::string& text)
{
    Words words;
    if (!text.empty() && text.front() == '$') {
        words.system = true;
        if (text.size() > 1 && (text[1] == 'H' || text[1] == 'h')) {
            bool named = false;
            for (std::size_t i = 2; i < text.size(); ++i) {
                const char c = static_cast<char>(text[i] >= 'a' && text[i] <= 'z' ? text[i] - 'a' + 'A' : text[i]);
                if (c >= 'X' && c <= 'Z')
                    words.homed[static_cast<std::size_t>(c - 'X')] = named = true;
            }
            if (!named)
                words.homed = {true, true, true};
        }
        return words;
    }
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char letter = static_cast<char>(text[i] >= 'a' && text[i] <= 'z' ? text[i] - 'a' + 'A' : text[i]);
        if (letter < 'A' || letter > 'Z')
            continue;
        std::size_t end = i + 1;
        while (end < text.size() && (text[end] == ' ' || text[end] == '+' || text[end] == '-' ||
                                     text[end] == '.' || (text[end] >= '0' && text[end] <= '9')))
            ++end;
        std::string number;
        for (std::size_t k = i + 1; k < end; ++k) {
            if (text[k] != ' ')
                number += text[k];
        }
        const double value = leadingNumber(number);
        if (letter == 'G')
            words.g.push_back(value);
        else if (letter >= 'X' && letter <= 'Z')
            words.axis[static_cast<std::size_t>(letter - 'X')] = value;
        i = end - 1;
    }
    return words;
}

bool hasG(const Words& words, double code)
{
    return std::any_of(words.g.begin(), words.g.end(), [code](double g) { return std::abs(g - code) < 1e-6; });
}

}  // namespace

void HoleProgress::prepare(const std::vector<std::string>& lines, bool laser, double Vitcarton, double L_poincon)
{
    *this = HoleProgress();
    m_holeOfLine.assign(lines.size(), 0);
    m_blocksBefore.assign(lines.size() + 1, 0);
    // The position of each axis, when known.
    std::array<double, 3> position{};
    std::array<bool, 3> known{};
    bool relative = false;
    const double offsetMm = laser ? 0.0 : L_poincon / 2.0;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const Words words = readWords(lineToSend(lines[i]));
        bool block = false;
        if (words.system) {
            for (std::size_t a = 0; a < 3; ++a) {
                if (words.homed[a])
                    known[a] = false;
            }
        } else {
            if (hasG(words, 90))
                relative = false;
            if (hasG(words, 91))
                relative = true;
            // G92 sets the position named; G10 moves a coordinate system under it (unknown
            // after); G28.1 and G30.1 store the position and leave it.
            const bool stores = hasG(words, 28.1) || hasG(words, 30.1);
            const bool offsets = hasG(words, 10);
            const bool setsOnly = stores || offsets || hasG(words, 92);
            const bool homeMove = hasG(words, 28) || hasG(words, 30) || hasG(words, 53);
            for (std::size_t a = 0; a < 3; ++a) {
                if (!words.axis[a])
                    continue;
                if (stores)
                    continue;
                const double value = *words.axis[a];
                const bool fromHere = relative && !setsOnly;
                const double target = fromHere ? position[a] + value : value;
                // Through an intermediate point, in machine coordinates, or under new offsets:
                // where the axis ends is not known.
                const bool targetKnown = !(homeMove || offsets) && (!fromHere || known[a]);
                if (!setsOnly && known[a] && targetKnown && std::abs(target - position[a]) >= kLeastBlockMoveMm)
                    block = true;
                position[a] = target;
                known[a] = targetKnown;
            }
            const bool travel = hasG(words, 0) && !setsOnly && !homeMove;
            if (travel && words.axis[1]) {
                const double startMs = Vitcarton > 0 ? (*words.axis[1] - offsetMm) * 1000.0 / Vitcarton : 0.0;
                if (!m_starts.empty())
                    m_holeEnd.push_back(i);
                m_starts.push_back(startMs);
            }
        }
        m_holeOfLine[i] = m_starts.empty() ? 0 : m_starts.size() - 1;
        m_blocksBefore[i + 1] = m_blocksBefore[i] + (block ? 1 : 0);
    }
    if (!m_starts.empty())
        m_holeEnd.push_back(lines.size());
    m_earliestFrom.assign(m_starts.size(), 0.0);
    double earliest = std::numeric_limits<double>::max();
    for (std::size_t h = m_starts.size(); h-- > 0;) {
        earliest = std::min(earliest, m_starts[h]);
        m_earliestFrom[h] = earliest;
    }
    m_latestStart = m_starts.empty() ? 0.0 : *std::max_element(m_starts.begin(), m_starts.end());
}

std::size_t HoleProgress::blocksBefore(std::size_t line) const
{
    if (m_blocksBefore.empty())
        return 0;
    return m_blocksBefore[std::min(line, m_blocksBefore.size() - 1)];
}

void HoleProgress::statusReport(bool idle, std::size_t ackedLines)
{
    if (idle) {
        const auto ended = std::upper_bound(m_holeEnd.begin(), m_holeEnd.end(), m_ackedAtLastReport);
        m_idleDone = std::max(m_idleDone, static_cast<std::size_t>(ended - m_holeEnd.begin()));
    }
    m_ackedAtLastReport = ackedLines;
}

void HoleProgress::plannerLost(std::size_t ackedLines)
{
    if (ackedLines == 0)
        return;  // nothing was queued
    m_cap = std::min(m_cap, holesDone(ackedLines));
}

void HoleProgress::refused(std::size_t line)
{
    if (line >= m_holeOfLine.size())
        return;
    m_cap = std::min(m_cap, m_holeOfLine[line]);
    m_refusedBlocks += m_blocksBefore[line + 1] - m_blocksBefore[line];
}

std::size_t HoleProgress::holesDone(std::size_t ackedLines) const
{
    const std::size_t blocks = blocksBefore(ackedLines);
    const std::size_t queued = blocks > m_refusedBlocks ? blocks - m_refusedBlocks : 0;
    // Hole h is done by the blocks after it once queued >= blocksBefore(end of h) + 17.
    std::size_t byBlocks = 0;
    if (queued >= kBlocksAfterHole) {
        const std::size_t reach = queued - kBlocksAfterHole;
        byBlocks = static_cast<std::size_t>(
            std::upper_bound(m_holeEnd.begin(), m_holeEnd.end(), reach,
                             [this](std::size_t value, std::size_t end) { return value < m_blocksBefore[end]; }) -
            m_holeEnd.begin());
    }
    return std::min(m_cap, std::max(byBlocks, m_idleDone));
}

double HoleProgress::restartMs(std::size_t ackedLines) const
{
    if (m_starts.empty())
        return 0.0;
    const std::size_t done = holesDone(ackedLines);
    if (done >= m_starts.size())
        return std::floor(m_latestStart) + 1.0;
    return std::floor(m_earliestFrom[done]);
}

}  // namespace veltrin
