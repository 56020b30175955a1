#include "machine/job_streamer.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "base/message_log.h"
#include "base/numeric_text.h"

namespace veltrin {

void LogSink::line(std::string_view message)
{
    // A message starts on a line of its own, even after a line sent and still unanswered.
    if (m_midLine)
        raw("\r\n");
    m_log->append(message);
    if (m_echo) {
        std::string text(message);
        text += "\r\n";
        m_echo(text);
    }
}

void LogSink::raw(std::string_view text)
{
    if (text.empty())
        return;
    m_log->appendRaw(text);
    m_midLine = text.back() != '\n';
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
    m_holdReason = HoldReason::None;
    m_holdCount = 0;
    m_checkingSettings = false;
    m_laserMode.reset();
    m_emulatorSpeed.reset();
    m_criticalAlarm = false;
    m_now = nowMs;
    m_startMs = nowMs;
    m_lastResumeMs = nowMs;
    m_resumeWrittenFor.reset();
    m_resumeMsWritten = -1.0;
    m_resumeArmed = false;
    m_idleReports = 0;
    m_log->line("Sending file : " + m_program.fileName);
    prepareHoles();
    if (m_simulation) {
        m_phase = Phase::Streaming;
        m_nextSimulatedMs = nowMs;
        return;
    }
    // Soft reset; the checks and the first line leave once the welcome text says Grbl is
    // ready again.
    m_phase = Phase::Resetting;
    m_bannerDeadlineMs = nowMs + m_bannerWaitMs;
    write("\x18");
}

void JobStreamer::prepareHoles()
{
    const auto& lines = m_program.lines;
    m_holes.prepare(lines, m_program.laser, m_program.Vitcarton, m_program.L_poincon);
    m_measureTotal = 0.0;
    double x = 0.0;
    double y = 0.0;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const std::string text = lineToSend(lines[i]);
        const bool travel = text.starts_with("G0 ") || text.starts_with("G00 ");
        const bool cut = text.starts_with("G1 ") || text.starts_with("G01 ");
        const auto lineX = word(text, 'X');
        const auto lineY = word(text, 'Y');
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
}

void JobStreamer::emitResumePoint()
{
    if (m_simulation || m_program.songPath.empty() || !m_resumeArmed)
        return;
    // The restart time: the earliest start among the holes not surely made (hole_progress.h).
    const double restartMs = m_holes.restartMs(m_next);
    if (m_resumeWrittenFor == m_next && m_resumeMsWritten == restartMs)
        return;
    m_resumeWrittenFor = m_next;
    m_resumeMsWritten = restartMs;
    ResumePoint point;
    point.songPath = m_program.songPath;
    point.Fourchette = m_program.Fourchette;
    point.restartLine = static_cast<long long>(m_next);
    point.restartMs = restartMs;
    point.settings = m_program.planSettings;
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
    if (m_waitForIdle) {
        // Done when the machine says so; the watchdog still watches.
        m_phase = Phase::Draining;
        m_idleReports = 0;
        return;
    }
    finish(JobOutcome::EndOfPunch);
}

void JobStreamer::onLine(std::string_view line)
{
    if (!running())
        return;
    const Reply reply = classifyReply(line);
    if (reply.kind == ReplyKind::Banner)
        m_criticalAlarm = false;
    if (reply.kind == ReplyKind::Status) {
        // A push message: it tells which holes are cut (hole_progress.h), and is not logged.
        const bool idle = line.starts_with("<Idle");
        m_holes.statusReport(idle, m_next);
        if (m_phase == Phase::Draining) {
            // The first Idle after the last "ok" may come before Grbl starts the motion just
            // queued (hole_progress.h); the next one means done.
            m_idleReports = idle ? m_idleReports + 1 : 0;
            if (m_idleReports >= 2)
                finish(JobOutcome::EndOfPunch);
        }
        return;
    }
    if (reply.kind == ReplyKind::Alarm ||
        (reply.kind == ReplyKind::Banner && m_phase != Phase::Resetting && m_phase != Phase::Checking))
        m_holes.plannerLost(m_next);  // what Grbl had queued is not cut
    if (m_phase == Phase::Checking) {
        checkLine(reply, line);
        return;
    }
    m_log->raw((m_inFlight == InFlight::M5 ? " < " : "  < ") + std::string(line) + "\r\n");

    switch (reply.kind) {
    case ReplyKind::Banner:
        if (m_phase == Phase::Resetting) {
            // The checks' lines and answers stay out of the log unless a check fails.
            m_phase = Phase::Checking;
            m_checkingSettings = false;
            m_inFlight = InFlight::Check;
            write("$I\r");
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
            hold("Grbl restarted during the job: punch held at line " + std::to_string(m_next + 1),
                 HoldReason::Restarted);
        }
        break;
    case ReplyKind::Alarm:
        if (isCriticalAlarm(reply.code))
            m_criticalAlarm = true;
        if (m_phase == Phase::Streaming || m_phase == Phase::Paused || m_phase == Phase::Held ||
            m_phase == Phase::Draining) {
            std::string why = "Grbl alarm: " + explainedReply(line) + ". Punch held at line " +
                              std::to_string(m_next + 1);
            if (m_criticalAlarm)
                why += ". Grbl answers nothing now until a soft reset: Stop the job";
            hold(why, m_criticalAlarm ? HoldReason::CriticalAlarm : HoldReason::Alarm);
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
    const bool firstAcknowledged = reply.kind == ReplyKind::Ok && !m_resumeArmed;
    if (reply.kind == ReplyKind::Ok) {
        ++m_okCount;
        m_resumeArmed = true;
    }
    ++m_next;
    m_lastAnswerMs = m_now;
    if (firstAcknowledged)
        emitResumePoint();
    m_log->trimTo(kLogLimit);
    if (reply.kind == ReplyKind::Error) {
        m_holes.refused(m_next - 1);
        const std::string sent = lineToSend(m_program.lines[m_next - 1]);
        if (sent.starts_with("$H") && reply.code == 3) {
            hold("This board's Grbl has no single-axis homing: \"" + sent + "\" of the program's "
                 "header was refused (error:3). Turn the header off (Gen_entete=0) or flash a Grbl "
                 "built with single-axis homing. Punch held",
                 HoldReason::Homing);
        } else if (sent.starts_with("$H") && reply.code == 5) {
            hold("Homing is disabled on this board ($22=0): \"" + sent + "\" of the program's "
                 "header was refused (error:5). Enable it with $22=1 or turn the header off "
                 "(Gen_entete=0). Punch held",
                 HoldReason::Homing);
        } else {
            hold("Grbl refused line " + std::to_string(m_next) + ": " + explainedReply(line) + ". Punch held",
                 HoldReason::Refused);
        }
    } else if (m_phase == Phase::Streaming)
        sendNext();
}

void JobStreamer::checkLine(const Reply& reply, std::string_view line)
{
    if (reply.kind == ReplyKind::Message) {
        if (const auto speed = emulatorSpeed(line))
            m_emulatorSpeed = speed;
        return;
    }
    if (reply.kind == ReplyKind::Setting) {
        if (line.starts_with("$32="))
            m_laserMode = leadingNumber(line.substr(4));
        return;
    }
    if (reply.kind == ReplyKind::Banner) {
        // Restarted under the checks: ask again.
        m_checkingSettings = false;
        write("$I\r");
        return;
    }
    if (!isResponse(reply))
        return;
    if (!m_checkingSettings && m_program.laser) {
        // "$I" answered ("error:N" from a build without it is no fault): the laser mode next.
        m_checkingSettings = true;
        write("$$\r");
        return;
    }
    m_inFlight = InFlight::None;
    if (m_program.laser) {
        if (reply.kind == ReplyKind::Error) {
            notStarted("Grbl did not list its settings (\"$$\" answered " + explainedReply(line) +
                       "), so its laser mode ($32) is unknown. Punch not started");
            return;
        }
        if (!m_laserMode) {
            notStarted("Grbl listed no laser mode setting ($32): a laser job needs Grbl 1.1 with $32=1. "
                       "Punch not started");
            return;
        }
        if (*m_laserMode == 0) {
            notStarted("Laser mode is off ($32=0): Grbl would keep the beam on during G0 travel and burn "
                       "lines across the roll. Send $32=1 to turn it on. Punch not started",
                       true);
            return;
        }
    }
    m_phase = Phase::Streaming;
    sendNext();
}

void JobStreamer::notStarted(std::string_view why, bool laserModeOff)
{
    m_notStartedWhy = std::string(why);
    m_laserModeOff = laserModeOff;
    m_log->line(why);
    finish(JobOutcome::NotStarted);
}

void JobStreamer::controllerSilent(std::int64_t silentMs)
{
    if (!streaming())
        return;
    if (m_phase == Phase::Checking) {
        notStarted("The controller is not answering: no status report for " +
                   plainNumber(static_cast<double>(silentMs) / 1000.0) + " s. Punch not started");
        return;
    }
    hold("The controller is not answering: no status report for " + plainNumber(static_cast<double>(silentMs) / 1000.0) +
             " s. Punch held at line " + std::to_string(m_next + 1),
         HoldReason::Silent);
}

void JobStreamer::hold(std::string_view why, HoldReason reason)
{
    m_phase = Phase::Held;
    m_holdReason = reason;
    ++m_holdCount;
    m_holdMessage = std::string(why);
    m_pauseWanted = true;
    m_log->line(why);
    if (m_continuePrompt)
        m_log->line("Hit Continue to resume");
    emitResumePoint();
}

void JobStreamer::pause()
{
    if (m_phase != Phase::Streaming && m_phase != Phase::Draining)
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
    if (m_criticalAlarm && !m_simulation) {
        m_log->line("Grbl answers nothing after a limit alarm until a soft reset: only Stop ends this hold");
        return;
    }
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
    const bool resetSent = m_phase == Phase::Resetting || m_phase == Phase::Checking;
    m_phase = Phase::Stopping;
    m_holes.plannerLost(m_next);  // the soft reset empties the planner
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
    if (m_phase == Phase::Resetting && nowMs >= m_bannerDeadlineMs) {
        notStarted("The board does not answer like Grbl: no welcome text within " +
                   plainNumber(static_cast<double>(m_bannerWaitMs) / 1000.0) + " s of its soft reset. Punch not started");
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
        // An emulated board at another pace than real time says nothing of the machine's.
        const bool fakePace = m_emulatorSpeed && *m_emulatorSpeed != 1.0;
        if (!m_simulation && m_measureTotal > 0.0 && seconds > 0.0 && !fakePace)
            ended.measuredDuration = seconds / m_measureTotal;
        m_log->raw("\r\n");
        m_log->line("End of punch");
        if (fakePace && !m_simulation)
            m_log->line("Emulated board at speed x" + plainNumber(*m_emulatorSpeed) +
                        ": the learned durations stay as they were");
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
    case JobOutcome::NotStarted:
        ended.why = m_notStartedWhy;
        ended.laserModeOff = m_laserModeOff;
        m_laserModeOff = false;
        break;
    }
    if (outcome == JobOutcome::EndOfPunch && m_phase == Phase::Draining && m_resumeArmed &&
        !m_program.songPath.empty())
        m_actions.emplace_back(ResumeFinished{m_program.songPath});
    else
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
    // The model of Grbl's planner knows when each line is answered and how long the motion
    // still queued takes.
    if (m_program.machineTime && m_program.machineTime->answeredAt.size() == m_program.lines.size())
        return remainingClock(m_program.machineTime->secondsLeft(
            m_next, m_next > 0 ? static_cast<double>(m_now - m_lastAnswerMs) / 1000.0 : 0.0));
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
