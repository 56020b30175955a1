#include "folding/fold_marker.h"

#include "base/numeric_text.h"
#include "machine/grbl_protocol.h"

namespace veltrin {

void FoldMarker::begin(const FoldValues& values)
{
    m_values = values;
    m_inFlight.reset();
    m_pending.clear();
    m_foldInProgress = false;
    m_foldsMarked = 0;
    m_lastFold.reset();
    m_laserMode.reset();
    m_holdCount = 0;
    m_holdMessage.clear();
    m_silentHold = false;
    m_phase = Phase::Checking;
    // Not logged unless it refuses the marking, as for a job.
    m_inFlight = "$$";
    m_actions.emplace_back(WriteBytes{"$$\r"});
}

void FoldMarker::startForward(const FoldValues& values, bool arret_demande, std::optional<int> foldCount)
{
    if (running())
        return;
    m_backward = false;
    m_stopWanted = arret_demande;
    m_stopSetAtStart = arret_demande;
    begin(values);
    m_nextFold = 0;
    if (foldCount)
        m_lastFold = *foldCount - 1;
    for (auto& command : foldPreamble(values))
        m_pending.push_back(std::move(command));
    m_log->line("Marking the folds every " + plainNumber(values.longueur_pli) +
                " mm from Y 0; Stop ends the marking once the fold in progress is marked");
}

void FoldMarker::startBackward(const FoldValues& values, double y_max)
{
    if (running())
        return;
    m_backward = true;
    m_stopWanted = false;
    m_stopSetAtStart = false;
    begin(values);
    m_nextFold = backwardFirstFold(y_max, values.longueur_pli);
    const std::string firstY = plainNumber(values.longueur_pli * m_nextFold);
    m_pending = {"G0 Y" + firstY, laserOnCommand(values), feedCommand(values)};
    m_log->line("Marking the folds backwards from Y " + firstY + " to Y 0");
}

void FoldMarker::send(std::string command)
{
    m_log->raw(command);
    m_inFlight = command;
    command += '\r';
    m_actions.emplace_back(WriteBytes{std::move(command)});
}

void FoldMarker::next()
{
    while (!m_inFlight && m_phase == Phase::Marking) {
        if (!m_pending.empty()) {
            std::string command = std::move(m_pending.front());
            m_pending.pop_front();
            send(std::move(command));
            return;
        }
        // A fold boundary: the stop flag is read here only, so a fold begun is finished.
        if (m_foldInProgress) {
            m_foldInProgress = false;
            ++m_foldsMarked;
        }
        const bool more = m_backward ? m_nextFold >= 0
                                     : (!m_lastFold || m_nextFold <= *m_lastFold) &&
                                           m_values.longueur_pli * m_nextFold <= maxFoldY();
        if (m_stopWanted || !more) {
            if (m_stopSetAtStart && m_foldsMarked == 0)
                m_log->line("Stop was still set from an earlier job or marking: no fold marked (a job or "
                            "a backward marking clears it)");
            m_phase = Phase::Ending;
            send(std::string(kLaserOff));
            return;
        }
        for (auto& command : foldLines(m_values, m_nextFold))
            m_pending.push_back(std::move(command));
        m_foldInProgress = true;
        m_nextFold += m_backward ? -1 : 1;
    }
}

void FoldMarker::checkLine(std::string_view line)
{
    const Reply reply = classifyReply(line);
    if (reply.kind == ReplyKind::Setting) {
        if (line.starts_with("$32="))
            m_laserMode = leadingNumber(line.substr(4));
        return;
    }
    if (reply.kind == ReplyKind::Banner) {
        // Restarted under the check: ask again.
        m_laserMode.reset();
        m_actions.emplace_back(WriteBytes{"$$\r"});
        return;
    }
    if (!isResponse(reply))
        return;
    m_inFlight.reset();
    if (reply.kind == ReplyKind::Error) {
        finish(FoldOutcome::NotStarted, "Grbl did not list its settings (\"$$\" answered " + explainedReply(line) +
                                            "), so its laser mode ($32) is unknown. Fold marking not started");
    } else if (!m_laserMode) {
        finish(FoldOutcome::NotStarted, "Grbl listed no laser mode setting ($32): fold marking needs Grbl 1.1 "
                                        "with $32=1. Fold marking not started");
    } else if (*m_laserMode == 0) {
        finish(FoldOutcome::NotStarted, "Laser mode is off ($32=0): Grbl would keep the beam on during G0 "
                                        "travel and burn lines across the book. Send $32=1 to turn it on. "
                                        "Fold marking not started");
    } else {
        m_phase = Phase::Marking;
        next();
    }
}

void FoldMarker::onLine(std::string_view line)
{
    if (!running())
        return;
    const Reply reply = classifyReply(line);
    if (reply.kind == ReplyKind::Status)
        return;
    if (m_phase == Phase::Checking) {
        checkLine(line);
        return;
    }
    m_log->raw(" < " + explainedReply(line) + "\r\n");
    switch (reply.kind) {
    case ReplyKind::Banner:
        m_inFlight.reset();  // a restart answers nothing more
        finish(FoldOutcome::Restarted, "Grbl restarted during the fold marking: the fold positions are lost. "
                                       "Fold marking stopped after " + std::to_string(m_foldsMarked) + " folds");
        break;
    case ReplyKind::Alarm:
        // Grbl has stopped the motion and the laser itself, and refuses every command now.
        finish(FoldOutcome::Alarm, "Grbl alarm: " + explainedReply(line) + ". Fold marking stopped after " +
                                       std::to_string(m_foldsMarked) + " folds");
        break;
    case ReplyKind::Ok:
    case ReplyKind::Error: {
        if (!m_inFlight)
            break;
        const std::string command = std::move(*m_inFlight);
        m_inFlight.reset();
        m_log->trimTo(JobStreamer::kLogLimit);
        if (m_phase == Phase::Ending) {
            finish(FoldOutcome::Done);
        } else if (reply.kind == ReplyKind::Error) {
            hold("Grbl refused \"" + command + "\": " + explainedReply(line) + ". Fold marking held");
        } else {
            next();
        }
        break;
    }
    default:
        break;
    }
}

void FoldMarker::hold(std::string why)
{
    m_phase = Phase::Held;
    ++m_holdCount;
    m_holdMessage = why;
    m_log->line(why);
    if (m_continuePrompt)
        m_log->line("Hit Continue to resume");
}

void FoldMarker::resume()
{
    if (m_phase != Phase::Held)
        return;
    // After an error the refused command is left out; after a silence its answer is still
    // awaited.
    m_silentHold = false;
    m_phase = Phase::Marking;
    next();
}

void FoldMarker::stop()
{
    if (!running())
        return;
    m_stopWanted = true;
    if (m_phase != Phase::Held)
        return;  // read at the next fold boundary
    if (m_silentHold) {
        // The last command may never be answered and the laser may be on: a soft reset turns
        // it off at once.
        m_log->line("Soft reset (Ctrl-X)");
        m_actions.emplace_back(WriteBytes{"\x18"});
        finish(FoldOutcome::Stopped);
        return;
    }
    m_pending.clear();
    m_foldInProgress = false;
    m_phase = Phase::Ending;
    send(std::string(kLaserOff));
}

void FoldMarker::controllerSilent(std::int64_t silentMs)
{
    if (!running() || !m_inFlight)
        return;
    const std::string seconds = plainNumber(static_cast<double>(silentMs) / 1000.0);
    if (m_phase == Phase::Checking) {
        finish(FoldOutcome::NotStarted,
               "The controller is not answering: no status report for " + seconds + " s. Fold marking not started");
        return;
    }
    if (m_phase == Phase::Ending) {
        m_log->raw("\r\n");
        m_log->line("The controller is not answering \"M5 S0\": soft reset (Ctrl-X) to turn the laser off");
        m_actions.emplace_back(WriteBytes{"\x18"});
        finish(FoldOutcome::Stopped);
        return;
    }
    if (m_phase != Phase::Marking)
        return;
    m_log->raw("\r\n");
    m_silentHold = true;
    hold("The controller is not answering: no status report for " + seconds + " s. Fold marking held");
}

void FoldMarker::portLost()
{
    if (!running())
        return;
    if (m_inFlight && m_phase != Phase::Checking)
        m_log->raw("\r\n");
    finish(FoldOutcome::PortLost, "Port closed: fold marking interrupted after " + std::to_string(m_foldsMarked) +
                                      " folds");
}

void FoldMarker::finish(FoldOutcome outcome, std::string why)
{
    FoldEnded ended;
    ended.outcome = outcome;
    ended.foldsMarked = m_foldsMarked;
    ended.answerOwed = m_inFlight.has_value();
    if (!why.empty())
        m_log->line(why);
    if (outcome == FoldOutcome::Done || outcome == FoldOutcome::Stopped)
        m_log->line("Folds marked : " + std::to_string(m_foldsMarked));
    ended.why = std::move(why);
    m_phase = Phase::Idle;
    m_inFlight.reset();
    m_pending.clear();
    m_foldInProgress = false;
    m_silentHold = false;
    m_actions.emplace_back(std::move(ended));
}

std::vector<FoldAction> FoldMarker::takeActions()
{
    std::vector<FoldAction> out;
    out.swap(m_actions);
    return out;
}

}  // namespace veltrin
