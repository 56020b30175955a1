#include "machine/job_streamer.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "app/message_log.h"
#include "app/numeric_text.h"

namespace veltrin {

void LogSink::line(std::string_view message)
{
    m_log->append(message);
    if (m_echo) {
        std::string text(message);
        text += "\r\n";
        m_echo(text);
    }
}

void LogSink::raw(std::string_view text)
{
    m_log->appendRaw(text);
    if (m_echo)
        m_echo(text);
}

void LogSink::trimTo(std::size_t maxChars)
{
    m_log->trimTo(maxChars);
}

namespace {

// The number after an axis letter in a G-code line (already stripped of comments).
std::optional<double> word(std::string_view text, char letter)
{
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == letter || text[i] == letter + ('a' - 'A'))
            return leadingNumber(text.substr(i + 1));
    }
    return std::nullopt;
}

}  // namespace

void JobStreamer::start(JobProgram program, bool simulation, std::int64_t nowMs)
{
    if (running())
        return;
    m_program = std::move(program);
    m_simulation = simulation;
    m_inFlight = InFlight::None;
    m_next = 0;
    m_okCount = 0;
    m_pauseWanted = false;
    m_stopWanted = false;
    m_waitBannerForStop = false;
    m_now = nowMs;
    m_startMs = nowMs;
    m_lastResumeMs = nowMs;
    m_resumeWrittenFor.reset();
    m_log->line("Sending file : " + m_program.fileName);
    prepareHoles();
    if (m_simulation) {
        m_phase = Phase::Streaming;
        m_nextSimulatedMs = nowMs;
        return;
    }
    emitResumePoint();
    // Soft reset; the first line leaves once the welcome text says Grbl is ready again.
    m_phase = Phase::Resetting;
    write("\x18");
}

void JobStreamer::prepareHoles()
{
    const auto& lines = m_program.lines;
    m_holeOfLine.assign(lines.size(), 0);
    std::vector<double> starts;
    m_measureTotal = 0.0;
    double x = 0.0;
    double y = 0.0;
    const double offsetMm = m_program.laser ? 0.0 : m_program.L_poincon / 2.0;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const std::string text = lineToSend(lines[i]);
        const bool travel = text.starts_with("G0 ") || text.starts_with("G00 ");
        const bool cut = text.starts_with("G1 ") || text.starts_with("G01 ");
        const auto lineX = word(text, 'X');
        const auto lineY = word(text, 'Y');
        // Every hole of the program starts with a travel move to its start corner (laser) or
        // strike centre (punch).
        if (travel && lineY) {
            const double startMs =
                m_program.Vitcarton > 0 ? (*lineY - offsetMm) * 1000.0 / m_program.Vitcarton : 0.0;
            starts.push_back(startMs);
        }
        m_holeOfLine[i] = starts.empty() ? 0 : starts.size() - 1;
        if (m_program.laser) {
            if ((travel || cut) && (lineX || lineY)) {
                const double nx = lineX.value_or(x);
                const double ny = lineY.value_or(y);
                m_measureTotal += std::hypot(nx - x, ny - y);
                x = nx;
                y = ny;
            }
        } else if (cut && word(text, 'Z')) {
            m_measureTotal += 1.0;
        }
    }
    m_earliestFrom.assign(starts.size(), 0.0);
    double earliest = std::numeric_limits<double>::max();
    for (std::size_t h = starts.size(); h-- > 0;) {
        earliest = std::min(earliest, starts[h]);
        m_earliestFrom[h] = earliest;
    }
    m_latestStart = starts.empty() ? 0.0 : *std::max_element(starts.begin(), starts.end());
}

void JobStreamer::emitResumePoint()
{
    if (m_simulation || m_program.songPath.empty() || m_resumeWrittenFor == m_next)
        return;
    m_resumeWrittenFor = m_next;
    ResumePoint point;
    point.songPath = m_program.songPath;
    point.Fourchette = m_program.Fourchette;
    point.restartLine = static_cast<long long>(m_next);
    if (m_earliestFrom.empty())
        point.restartMs = 0.0;
    else if (m_next >= m_program.lines.size())
        point.restartMs = std::floor(m_latestStart) + 1.0;  // every hole is made
    else
        point.restartMs = std::floor(m_earliestFrom[m_holeOfLine[m_next]]);
    m_actions.emplace_back(point);
}

void JobStreamer::write(std::string bytes)
{
    m_actions.emplace_back(WriteBytes{std::move(bytes)});
}

void JobStreamer::sendNext()
{
    const auto& lines = m_program.lines;
    while (m_next < lines.size()) {
        const std::string& line = lines[m_next];
        std::string text = lineToSend(line);
        m_log->raw(">  " + line);
        if (text.empty()) {
            // A comment or blank line: nothing for Grbl, so nothing to wait for.
            m_log->raw("\r\n");
            ++m_next;
            continue;
        }
        text += '\r';
        m_inFlight = InFlight::ProgramLine;
        write(std::move(text));
        return;
    }
    finish(JobOutcome::EndOfPunch);
}

void JobStreamer::onLine(std::string_view line)
{
    if (!running())
        return;
    const Reply reply = classifyReply(line);
    m_log->raw((m_inFlight == InFlight::M5 ? " < " : "  < ") + std::string(line) + "\r\n");

    switch (reply.kind) {
    case ReplyKind::Banner:
        if (m_phase == Phase::Resetting) {
            m_phase = Phase::Streaming;
            sendNext();
        } else if (m_phase == Phase::Stopping) {
            if (m_waitBannerForStop) {
                m_waitBannerForStop = false;
                sendStopM5();
            } else if (m_inFlight == InFlight::M5) {
                finish(JobOutcome::Cancelled);
            }
        } else {
            // The board restarted under the job: the line in flight is lost and goes again
            // on resume.
            m_inFlight = InFlight::None;
            hold("Grbl restarted during the job: punch held at line " + std::to_string(m_next + 1));
        }
        break;
    case ReplyKind::Alarm:
        if (m_phase == Phase::Streaming || m_phase == Phase::Paused) {
            hold("Grbl alarm " + std::string(line) + ": punch held at line " + std::to_string(m_next + 1));
        }
        break;
    case ReplyKind::Ok:
    case ReplyKind::Error:
        if (m_inFlight != InFlight::None)
            answered(reply, line);
        break;
    default:
        break;
    }
}

void JobStreamer::answered(const Reply& reply, std::string_view line)
{
    const InFlight what = m_inFlight;
    m_inFlight = InFlight::None;
    if (what == InFlight::M5) {
        finish(JobOutcome::Cancelled);
        return;
    }
    if (reply.kind == ReplyKind::Ok)
        ++m_okCount;
    ++m_next;
    m_log->trimTo(kLogLimit);
    if (reply.kind == ReplyKind::Error)
        hold("Grbl refused line " + std::to_string(m_next) + " (" + std::string(line) + "): punch held");
    else if (m_phase == Phase::Streaming)
        sendNext();
}

void JobStreamer::hold(std::string_view why)
{
    m_phase = Phase::Held;
    m_pauseWanted = true;
    m_log->line(why);
    m_log->line("Hit Continue to resume");
    emitResumePoint();
}

void JobStreamer::pause()
{
    if (m_phase != Phase::Streaming)
        return;
    m_pauseWanted = true;
    m_phase = Phase::Paused;
    // The feed hold acts at once. The line in flight may stay unanswered until the resume
    // (Grbl holds its "ok" back while the planner is full), so the pause does not wait for it.
    if (!m_simulation)
        write("!");
    m_log->line("Hit Continue to resume");
    emitResumePoint();
}

void JobStreamer::resume()
{
    if (m_phase != Phase::Paused && m_phase != Phase::Held)
        return;
    m_pauseWanted = false;
    m_phase = Phase::Streaming;
    if (m_simulation) {
        m_nextSimulatedMs = m_now;
        return;
    }
    write("~");
    if (m_inFlight == InFlight::None)
        sendNext();
}

void JobStreamer::stop()
{
    if (m_phase == Phase::Idle || m_phase == Phase::Stopping)
        return;
    m_stopWanted = true;
    m_pauseWanted = false;
    if (m_simulation) {
        finish(JobOutcome::Cancelled);
        return;
    }
    const bool resetSent = m_phase == Phase::Resetting;
    m_phase = Phase::Stopping;
    // Grbl may still hold up to 16 queued moves (after an error too), a line may wait for an
    // "ok" that a feed hold never lets come, and a laser must not finish the queued cuts: a
    // soft reset empties the planner and turns the tool off at once. "M5" follows the
    // welcome text.
    if (!resetSent)
        write("\x18");
    if (m_inFlight == InFlight::ProgramLine)
        m_log->raw("\r\n");  // its answer may never come
    m_inFlight = InFlight::None;
    m_waitBannerForStop = true;
    m_stopDeadlineMs = m_now + kStopBannerWaitMs;
}

void JobStreamer::sendStopM5()
{
    // A controller that stays silent does not keep the job from ending.
    m_stopDeadlineMs = m_now + kStopBannerWaitMs;
    m_inFlight = InFlight::M5;
    m_log->raw("M5");
    write("M5\r");
}

void JobStreamer::portLost()
{
    if (!running())
        return;
    finish(JobOutcome::PortLost);
}

void JobStreamer::onTick(std::int64_t nowMs)
{
    m_now = nowMs;
    if (!running())
        return;
    if (m_simulation) {
        while (m_phase == Phase::Streaming && nowMs >= m_nextSimulatedMs) {
            if (m_next >= m_program.lines.size()) {
                finish(JobOutcome::EndOfPunch);
                return;
            }
            m_log->line(">  " + m_program.lines[m_next]);
            m_log->trimTo(kLogLimit);
            ++m_next;
            m_nextSimulatedMs += kSimulationLineMs;
        }
        return;
    }
    if (m_phase == Phase::Stopping && nowMs >= m_stopDeadlineMs) {
        if (m_waitBannerForStop) {
            m_waitBannerForStop = false;
            sendStopM5();
        } else if (m_inFlight == InFlight::M5) {
            m_log->raw("\r\n");
            m_answerOwed = true;
            finish(JobOutcome::Cancelled);
            return;
        }
    }
    if (nowMs - m_lastResumeMs >= kResumeEveryMs) {
        m_lastResumeMs = nowMs;
        emitResumePoint();
    }
}

void JobStreamer::finish(JobOutcome outcome)
{
    JobEnded ended;
    ended.outcome = outcome;
    ended.answerOwed = m_answerOwed;
    m_answerOwed = false;
    switch (outcome) {
    case JobOutcome::EndOfPunch: {
        const double seconds = static_cast<double>(m_now - m_startMs) / 1000.0;
        if (!m_simulation && m_measureTotal > 0.0 && seconds > 0.0)
            ended.measuredDuration = seconds / m_measureTotal;
        m_log->raw("\r\n");
        m_log->line("End of punch");
        break;
    }
    case JobOutcome::Cancelled:
        m_log->line("Punch cancelled");
        break;
    case JobOutcome::PortLost:
        if (m_inFlight == InFlight::ProgramLine)
            m_log->raw("\r\n");
        m_log->line("Port closed: punch interrupted at line " + std::to_string(m_next + 1));
        break;
    }
    emitResumePoint();
    m_phase = Phase::Idle;
    m_inFlight = InFlight::None;
    m_pauseWanted = false;
    m_actions.emplace_back(ended);
}

std::vector<JobAction> JobStreamer::takeActions()
{
    std::vector<JobAction> out;
    out.swap(m_actions);
    return out;
}

std::string JobStreamer::temps_restant() const
{
    const double total = static_cast<double>(m_program.lines.size());
    const double done = static_cast<double>(m_next);
    const double left = total - done;
    if (left <= 0)
        return remainingClock(0);
    if (m_simulation)
        return remainingClock(left * kSimulationLineMs / 1000.0);
    const double elapsed = static_cast<double>(m_now - m_startMs) / 1000.0;
    // The writer's estimate until the job has run long enough to measure its own pace.
    if (done >= kLinesBeforeMeasure && elapsed >= 2.0)
        return remainingClock(elapsed * left / done);
    if (m_program.estimatedSeconds > 0)
        return remainingClock(m_program.estimatedSeconds * left / total);
    if (done > 0)
        return remainingClock(elapsed * left / done);
    return remainingClock(0);
}

}  // namespace veltrin
