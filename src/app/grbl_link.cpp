#include "app/grbl_link.h"

#include "app/app_state.h"
#include "base/numeric_text.h"

#include <algorithm>
#include <cstdio>

namespace veltrin {

GrblSettings machineSettings(const AppState& state)
{
    if (state.grblSettingsLines.empty())
        return GrblSettings::defaults();
    auto parsed = parseSettingsList(state.grblSettingsLines);
    return parsed ? parsed.value() : GrblSettings::defaults();
}

JobProgram programForJob(const AppState& state, std::vector<std::string> lines, std::string fileName)
{
    JobProgram program;
    program.lines = std::move(lines);
    program.fileName = std::move(fileName);
    program.songPath = state.chemin_morceau;
    // The values the program was made with (its record, state.programSettings) where known,
    // else the current settings.
    Settings made = state.settings;
    for (const auto& [key, value] : state.programSettings) {
        if (std::string* field = settingField(made, key); field && key != "Port")
            *field = value;
    }
    program.planSettings = state.programSettings;
    program.Fourchette = made.Fourchette;
    program.laser = made.isLaser();
    program.Vitcarton = leadingNumber(made.Vitcarton);
    program.L_poincon = leadingNumber(made.L_poincon);
    program.machineTime = estimateProgram(program.lines, machineSettings(state));
    program.estimatedSeconds = program.machineTime->seconds;
    return program;
}

GrblLink::GrblLink(AppState& state)
    : m_state(&state),
      m_log(state.user_msg_list),
      m_job(m_log),
      m_fold(m_log),
      m_annotator(state.Liste_commentaires_grbl)
{
    setTimings(m_timings);
}

void GrblLink::setTimings(const LinkTimings& timings)
{
    m_timings = timings;
    m_job.setBannerWaitMs(timings.bannerWaitMs);
    m_job.setWaitForIdle(timings.statusEveryMs > 0);
}

void GrblLink::setPortOpen(bool open)
{
    m_portOpen = open;
    if (!open)
        connexion_off();
}

void GrblLink::write(std::string bytes)
{
    m_actions.emplace_back(WriteBytes{std::move(bytes)});
}

void GrblLink::syncFlags()
{
    m_state->en_pause = m_job.en_pause();
    if (m_job.running())
        m_state->arret_demande = m_job.arret_demande();
    m_state->gauge1_max = static_cast<int>(m_job.lineCount());
    m_state->gauge1_value = static_cast<int>(m_job.progress());
    m_state->Text2 = m_job.temps_restant();
}

// --- detection ---

void GrblLink::connexion_on(std::int64_t nowMs, bool quiet)
{
    m_quietDetection = quiet;
    m_now = nowMs;
    m_lines.clear();
    m_owedResponses = 0;
    m_status = MachineStatus{};
    m_statusAskedMs.reset();
    m_lastStatusMs = nowMs;
    m_critical = false;
    m_probeUncertain = false;
    m_stuckSinceMs.reset();
    m_detection = Detection::Banner;
    m_detectionDeadlineMs = nowMs + kDetectionWaitMs;
}

void GrblLink::detectionLine(std::string_view line, const Reply& reply)
{
    if (m_detection == Detection::Banner) {
        // Opening the port resets an Arduino, so Grbl greets us unasked.
        if (reply.kind == ReplyKind::Other || reply.kind == ReplyKind::Setting) {
            m_log.raw(" < " + std::string(line) + "\r\n");
            return;
        }
        m_log.line(line);
        if (isResponse(reply))
            m_owedResponses = 0;
        finishDetection(true);
        return;
    }
    m_log.raw(" < " + std::string(line) + "\r\n");
    if (isResponse(reply)) {
        finishDetection(true);
    } else if (reply.kind == ReplyKind::Message || reply.kind == ReplyKind::Banner) {
        // Grbl is there; the answer to our "\r" is still to come, unless it just restarted.
        if (reply.kind == ReplyKind::Message)
            m_owedResponses = 1;
        else
            m_probeUncertain = m_timings.statusEveryMs > 0;  // lost in the boot, or answered yet
        finishDetection(true);
    }
}

void GrblLink::finishDetection(bool grblFound)
{
    m_detection = Detection::None;
    if (!grblFound && !m_quietDetection)
        m_log.line("No Grbl on this board");
    m_state->ouvre_midi_actif = grblFound;
    m_state->connecte = true;
    m_actions.emplace_back(DetectionDone{grblFound});
    sendQueued();
}

void GrblLink::connexion_off()
{
    const bool wasDetecting = detecting();
    m_detection = Detection::None;
    m_portOpen = false;
    m_state->connecte = false;
    m_owedResponses = 0;
    m_lines.clear();
    m_status.known = false;
    m_statusAskedMs.reset();
    m_waiting = false;
    m_critical = false;
    m_probeUncertain = false;
    m_stuckSinceMs.reset();
    if (m_command || !m_queue.empty())
        giveUpCommands("Port closed: command not answered", true);
    m_nextRollJogPending = false;
    m_nextRollDueMs.reset();
    if (m_job.running() && !m_job.simulation()) {
        m_job.portLost();
        takeJobActions();
    }
    if (m_fold.running()) {
        m_fold.portLost();
        takeFoldActions();
    }
    if (wasDetecting)
        m_actions.emplace_back(DetectionDone{false});
}

// --- single commands ---

void GrblLink::envoi_commande(std::string line)
{
    if (!m_portOpen)
        return;
    m_queue.push_back(Command{std::move(line), false, false});
    sendQueued();
}

bool GrblLink::consoleCommand(std::string text)
{
    if (!m_portOpen) {
        if (m_host)
            m_host->showMessage("Machine not connected");
        else
            m_log.line("Machine not connected");
        return false;
    }
    const bool annotate = text == "$$";
    m_queue.push_back(Command{std::move(text), true, annotate});
    sendQueued();
    return true;
}

void GrblLink::sendQueued()
{
    if (m_command || detecting() || m_job.running() || m_fold.running() || !m_portOpen || m_probeUncertain)
        return;
    // Deaf after a limit alarm: every command up to a soft reset is refused at once.
    while (m_critical && !m_queue.empty() && !m_queue.front().reset) {
        Command refused = std::move(m_queue.front());
        m_queue.pop_front();
        m_log.line("Grbl answers nothing after a limit alarm until a soft reset (Ctrl-X): command not sent: \"" +
                   refused.text + "\"");
        m_actions.emplace_back(CommandDone{std::move(refused.text), {}});
    }
    if (m_queue.empty())
        return;
    m_command = std::move(m_queue.front());
    m_queue.pop_front();
    if (m_command->reset) {
        m_log.line("Soft reset (Ctrl-X)");
        m_statusAskedMs.reset();
        write("\x18");
    } else {
        if (m_command->console)
            m_log.line(m_command->text);
        else
            m_log.raw(m_command->text);
        if (m_command->annotate)
            m_annotator.restart();
        write(m_command->text + "\r");
    }
    m_waiting = true;
    m_waitSinceMs = m_now;
    m_stuckSinceMs.reset();
}

void GrblLink::realtimeCommand(char c)
{
    if (!m_portOpen) {
        m_log.line("Machine not connected");
        return;
    }
    m_log.line(std::string(1, c));
    if (c == '?')
        m_showNextStatus = true;
    write(std::string(1, c));
}

namespace {

// A command as the log names it: Ctrl-X has no glyph.
std::string printable(const std::string& text)
{
    return text == "\x18" ? std::string("Ctrl-X") : text;
}

}  // namespace

void GrblLink::giveUpCommands(std::string_view why, bool queuedToo)
{
    if (!m_command && m_queue.empty())
        return;
    if (m_command) {
        m_log.line(std::string(why) + ": \"" + printable(m_command->text) + "\"");
        m_actions.emplace_back(CommandDone{m_command->text, {}});
        m_command.reset();
        // Should its answer come after all, it belongs to nobody.
        ++m_owedResponses;
    }
    m_stuckSinceMs.reset();
    m_nextRollJogPending = false;
    if (!queuedToo)
        return;
    for (auto& queued : m_queue) {
        m_log.line("Not sent: \"" + printable(queued.text) + "\"");
        m_actions.emplace_back(CommandDone{std::move(queued.text), {}});
    }
    m_queue.clear();
}

void GrblLink::softReset()
{
    if (!m_portOpen || m_job.running() || m_fold.running())
        return;
    Command reset;
    reset.text = "\x18";
    reset.console = true;
    reset.reset = true;
    m_queue.push_back(std::move(reset));
    sendQueued();
}

void GrblLink::commandLine(std::string_view line, const Reply& reply)
{
    const bool push = reply.kind == ReplyKind::Alarm || reply.kind == ReplyKind::Message ||
                      reply.kind == ReplyKind::Banner;
    // Lines are labelled by position; an "error:N" gets its meaning instead.
    if (m_command->annotate && !push && reply.kind != ReplyKind::Error) {
        m_log.line(m_annotator.annotate(line));
    } else if (m_command->console) {
        m_log.line(explainedReply(line));
    } else {
        m_log.raw(" < " + explainedReply(line) + "\r\n");
    }
    if (reply.kind == ReplyKind::Banner) {
        // The board restarted: the command is lost and will never be answered (a reset is
        // answered so).
        m_actions.emplace_back(CommandDone{m_command->text, m_command->reset ? std::string(line) : std::string()});
        m_command.reset();
        sendQueued();
        return;
    }
    if (!isResponse(reply))
        return;
    if (reply.kind == ReplyKind::Error && reply.code == 3 && m_command->text == "$HX")
        m_log.line("This board runs a Grbl without single-axis homing ($HX); it may stay in Home: "
                   "soft-reset it (Ctrl-X)");
    if (reply.kind == ReplyKind::Error && reply.code == 5 && m_command->text.starts_with("$H"))
        m_log.line("Homing is disabled on this board: send $22=1 to enable it");
    Command done = std::move(*m_command);
    m_command.reset();
    m_actions.emplace_back(CommandDone{std::move(done.text), std::string(line)});
    if (m_nextRollJogPending) {
        m_nextRollJogPending = false;
        m_nextRollDueMs = m_now + kNextRollPauseMs;
    }
    sendQueued();
}

void GrblLink::jog(char axis, int distanceMm)
{
    const auto& s = m_state->settings;
    envoi_commande(jogCommand(axis, distanceMm, jogFeed(s.isLaser(), s.VitesseF, s.VitesseF_poin)));
}

void GrblLink::homeX()
{
    envoi_commande("$HX");
}

void GrblLink::toolTest()
{
    // The 10 ms pause between "G1 F1000" and "G0 F1000 S0" is covered by the wait for the
    // acknowledgement in between.
    for (auto& command : toolTestCommands(m_state->settings.isLaser(), m_state->settings.Laser_power))
        envoi_commande(std::move(command));
}

void GrblLink::laserPointer()
{
    const auto& s = m_state->settings;
    if (!s.isLaser())
        return;
    for (auto& command : laserPointerCommands(true, m_state->pointeur_laser, s.Laser_power))
        envoi_commande(std::move(command));
    m_state->pointeur_laser = !m_state->pointeur_laser;
}

// --- job ---

bool GrblLink::envoi_programme(JobProgram program, std::int64_t nowMs)
{
    m_now = nowMs;
    if (m_job.running() || m_fold.running())
        return false;
    const bool simulation = m_state->mode_simulation;
    if (!m_state->connecte && !simulation) {
        if (m_host)
            m_host->showMessage("Machine not connected");
        else
            m_log.line("Machine not connected");
        return false;
    }
    if (m_command && !simulation) {
        // The job's soft reset swallows the answer this command still waits for.
        m_actions.emplace_back(CommandDone{m_command->text, {}});
        m_command.reset();
    }
    m_state->arret_demande = false;
    m_state->jobProgressOnRoll = true;
    m_job.start(std::move(program), simulation, nowMs);
    takeJobActions();
    syncFlags();
    return true;
}

void GrblLink::Pause_button_Click()
{
    if (m_fold.held()) {
        m_fold.resume();
        takeFoldActions();
        return;
    }
    if (!m_job.running())
        return;
    if (m_job.en_pause())
        m_job.resume();
    else
        m_job.pause();
    takeJobActions();
    syncFlags();
}

void GrblLink::Stop_button_Click()
{
    m_nextRollJogPending = false;
    m_nextRollDueMs.reset();
    if (m_fold.running()) {
        m_state->arret_demande = true;
        m_fold.stop();
        takeFoldActions();
        return;
    }
    if (!m_job.running())
        return;
    m_state->arret_demande = true;
    m_job.stop();
    takeJobActions();
    syncFlags();
}

void GrblLink::takeJobActions()
{
    for (auto& action : m_job.takeActions()) {
        if (auto* ended = std::get_if<JobEnded>(&action)) {
            const JobEnded copy = *ended;
            m_actions.emplace_back(copy);
            jobEnded(copy);
        } else {
            std::visit([this](auto& a) { m_actions.emplace_back(std::move(a)); }, action);
        }
    }
}

void GrblLink::jobEnded(const JobEnded& ended)
{
    m_state->jobProgressOnRoll = false;
    if (ended.answerOwed)
        ++m_owedResponses;
    syncFlags();
    if (ended.outcome != JobOutcome::EndOfPunch) {
        sendQueued();
        return;
    }
    auto& s = m_state->settings;
    const bool laser = s.isLaser();
    if (ended.measuredDuration) {
        std::string& field = laser ? s.duree_metre_laser : s.duree_trou_poincon;
        field = plainNumber(learnedDuration(leadingNumber(field), *ended.measuredDuration));
    }
    if (m_host && m_host->hasNextRoll()) {
        rouleau_suivant();
        return;
    }
    sendQueued();
    if (laser && m_host) {
        JobHost* host = m_host;
        const double foldLength = m_state->scale.longueur_pli;
        host->askYesNo("Cutting folds backwardly ?", false, [host, foldLength](bool yes) {
            if (!yes)
                return;
            if (!(foldLength > 0))
                host->showMessage("Folds length not defined");
            else
                host->startBackwardFolds();
        });
    }
}

void GrblLink::rouleau_suivant()
{
    if (m_job.simulation() && !m_portOpen) {
        m_nextRollDueMs = m_now + kNextRollPauseMs;
        return;
    }
    if (!m_portOpen)
        return;
    const auto& s = m_state->settings;
    m_nextRollJogPending = true;
    envoi_commande(nextRollJog(m_host->rollGapMm(), jogFeed(s.isLaser(), s.VitesseF, s.VitesseF_poin)));
}

// --- fold marking ---

bool GrblLink::refuse(std::string_view why)
{
    if (m_host)
        m_host->showMessage(why);
    else
        m_log.line(why);
    return false;
}

bool GrblLink::Marque_plis_Click()
{
    if (jobRunning())
        return false;
    if (!(m_state->scale.longueur_pli > 0.0))
        return refuse("Folds length not defined");
    if (!m_state->settings.isLaser())
        return refuse("Fold marking needs the laser: Type_machine is \"" + m_state->settings.Type_machine + "\"");
    m_foldArmed = true;
    m_log.line("Set the first fold under the laser ray and hit the Fold button");
    return true;
}

bool GrblLink::foldsMayStart(bool backward)
{
    if (jobRunning())
        return false;
    if (!m_state->connecte || !m_portOpen)
        return refuse("Machine non connectée");
    if (m_critical)
        return refuse("Grbl answers nothing after a limit alarm until a soft reset (Ctrl-X): fold marking not started");
    if (m_command || !m_queue.empty())
        return refuse(std::string("A command still waits for its answer: ") +
                      (backward ? "the folds were not marked" : "hit Fold again once it is answered"));
    if (auto checked = checkFoldSettings(m_state->settings, m_state->scale); !checked)
        return refuse(checked.detail());
    return true;
}

bool GrblLink::marquage_plis(std::optional<int> foldCount)
{
    if (!foldsMayStart(false))
        return false;
    m_foldArmed = false;
    m_fold.startForward(foldValues(m_state->settings, m_state->scale), m_state->arret_demande, foldCount);
    takeFoldActions();
    return true;
}

bool GrblLink::marquage_plis_arriere(double y_max)
{
    if (!foldsMayStart(true))
        return false;
    m_foldArmed = false;
    m_state->arret_demande = false;
    m_fold.startBackward(foldValues(m_state->settings, m_state->scale), y_max);
    takeFoldActions();
    return true;
}

void GrblLink::takeFoldActions()
{
    for (auto& action : m_fold.takeActions()) {
        if (auto* ended = std::get_if<FoldEnded>(&action)) {
            if (ended->answerOwed)
                ++m_owedResponses;
            m_actions.emplace_back(std::move(*ended));
            sendQueued();
        } else {
            std::visit([this](auto& a) { m_actions.emplace_back(std::move(a)); }, action);
        }
    }
}

// --- input ---

void GrblLink::onBytes(std::string_view bytes)
{
    for (const auto& line : m_lines.feed(bytes))
        onLine(line);
}

std::optional<std::pair<double, double>> GrblLink::workPositionXY() const
{
    if (!m_status.known)
        return std::nullopt;
    return std::make_pair(m_status.machinePosition[0] - m_workOffset[0],
                          m_status.machinePosition[1] - m_workOffset[1]);
}

void GrblLink::statusLine(std::string_view line)
{
    m_statusAskedMs.reset();
    m_lastStatusMs = m_now;
    if (const auto report = parseStatusReport(line)) {
        if (report->hasWorkOffset)
            std::copy(std::begin(report->workOffset), std::end(report->workOffset), m_workOffset);
        m_status.known = true;
        m_status.state = report->state;
        m_status.atMs = m_now;
        // Idle, Hold and Alarm answer nothing more to a line already sent (a hold holds its
        // answer back until "~"): after a while the command is given up (pollAndWatch).
        const bool noAnswerComing = report->state == "Idle" || report->state.starts_with("Hold") ||
                                    report->state == "Alarm";
        if (!m_command || m_command->reset || !noAnswerComing)
            m_stuckSinceMs.reset();
        else if (!m_stuckSinceMs)
            m_stuckSinceMs = m_now;
        for (int axis = 0; axis < 3; ++axis)
            m_status.machinePosition[axis] =
                report->position[axis] + (report->machinePosition ? 0.0 : m_workOffset[axis]);
    }
    // The job learns from Idle which holes are cut (its resume file), and that it is done.
    const bool jobRunning = m_job.running();
    if (jobRunning)
        m_job.onLine(line);
    // Only a "?" typed at the console shows its report.
    if (m_showNextStatus || (m_command && m_command->console && m_command->text.find('?') != std::string::npos))
        m_log.line(line);
    m_showNextStatus = false;
    if (jobRunning) {
        takeJobActions();
        syncFlags();
    }
    // A report came before any answer to the detection's "\r": it was lost in the boot.
    if (m_probeUncertain) {
        m_probeUncertain = false;
        sendQueued();
    }
}

void GrblLink::rememberSetting(std::string_view line)
{
    // "$110=500.000": the lines of one setting replace each other.
    const std::string_view key = line.substr(0, line.find('=') + 1);
    auto& lines = m_state->grblSettingsLines;
    const auto same = std::find_if(lines.begin(), lines.end(),
                                   [key](const std::string& known) { return known.starts_with(key); });
    if (same != lines.end())
        *same = std::string(line);
    else
        lines.emplace_back(line);
}

void GrblLink::onLine(std::string_view line)
{
    const Reply reply = classifyReply(line);
    if (reply.kind == ReplyKind::Setting)
        rememberSetting(line);
    const bool probeReleased = reply.kind == ReplyKind::Banner && m_probeUncertain;
    if (reply.kind == ReplyKind::Banner) {
        m_owedResponses = 0;  // a restart cancels every answer still owed
        m_critical = false;
        m_probeUncertain = false;
        m_statusAskedMs.reset();
    }
    if (detecting()) {
        detectionLine(line, reply);
        return;
    }
    if (reply.kind == ReplyKind::Status) {
        statusLine(line);
        return;
    }
    const bool critical = (reply.kind == ReplyKind::Alarm && isCriticalAlarm(reply.code)) ||
                          line == "[MSG:Reset to continue]";
    if (critical && !m_critical) {
        m_critical = true;
        m_statusAskedMs.reset();
        if (!m_job.running() && m_command) {
            // Its answer will never come.
            commandLine(line, reply);
            giveUpCommands("Grbl answers nothing after a limit alarm until a soft reset (Ctrl-X): "
                           "given up",
                           false);
            sendQueued();
            return;
        }
    }
    if (isResponse(reply) && m_probeUncertain && !m_command) {
        m_probeUncertain = false;
        m_log.raw(" < " + std::string(line) + "\r\n");
        sendQueued();
        return;
    }
    if (m_command && !isResponse(reply))
        m_stuckSinceMs.reset();  // the command's own output: it is being answered
    if (isResponse(reply) && m_owedResponses > 0) {
        --m_owedResponses;
        m_log.raw(" < " + std::string(line) + "\r\n");
        return;
    }
    if (m_job.running()) {
        m_job.onLine(line);
        takeJobActions();
        syncFlags();
        return;
    }
    if (m_fold.running()) {
        m_fold.onLine(line);
        takeFoldActions();
        return;
    }
    if (m_command) {
        commandLine(line, reply);
        return;
    }
    // Nobody waits: a push message (an alarm, a welcome text after a reset).
    m_log.raw(" < " + explainedReply(line) + "\r\n");
    if (probeReleased)
        sendQueued();
}

void GrblLink::onTick(std::int64_t nowMs)
{
    m_now = nowMs;
    if (m_detection != Detection::None && nowMs >= m_detectionDeadlineMs) {
        if (m_detection == Detection::Banner) {
            // No welcome text: an empty line makes a running Grbl answer "ok".
            m_detection = Detection::Answer;
            m_detectionDeadlineMs = nowMs + kDetectionWaitMs;
            write("\r");
        } else {
            m_log.raw(" < " + m_lines.pending() + "\r\n");
            // Should Grbl still answer the "\r", that "ok" belongs to nobody.
            m_owedResponses = 1;
            finishDetection(false);
        }
    }
    if (m_job.running()) {
        m_job.onTick(nowMs);
        takeJobActions();
        syncFlags();
    }
    pollAndWatch(nowMs);
    if (m_nextRollDueMs && nowMs >= *m_nextRollDueMs) {
        m_nextRollDueMs.reset();
        if (m_host) {
            if (auto program = m_host->openNextRoll())
                envoi_programme(std::move(*program), nowMs);
        }
    }
}

void GrblLink::pollAndWatch(std::int64_t nowMs)
{
    if (m_timings.statusEveryMs <= 0 || !m_portOpen || !m_state->connecte || detecting() || m_critical) {
        m_waiting = false;
        return;
    }
    if (m_statusAskedMs && nowMs - *m_statusAskedMs >= m_timings.statusLostMs)
        m_statusAskedMs.reset();
    if (!m_statusAskedMs && nowMs - m_lastPollMs >= m_timings.statusEveryMs) {
        m_statusAskedMs = nowMs;
        m_lastPollMs = nowMs;
        write("?");
    }
    if (m_probeUncertain && nowMs - m_lastStatusMs >= m_timings.silenceMs) {
        m_probeUncertain = false;  // no report to tell: the commands go, under the watchdog
        sendQueued();
    }
    if (m_command && m_stuckSinceMs && nowMs - *m_stuckSinceMs >= m_timings.stuckMs) {
        giveUpCommands("No answer while Grbl reports " + m_status.state + " for " +
                           plainNumber(static_cast<double>(m_timings.stuckMs) / 1000.0) +
                           " s (after \"!\" send \"~\"; after an alarm, \"$X\" or Ctrl-X): command given up",
                       true);
        sendQueued();
    }
    const bool waiting = m_command.has_value() || m_job.streaming() || m_fold.waiting();
    if (waiting && !m_waiting)
        m_waitSinceMs = nowMs;
    m_waiting = waiting;
    if (!waiting || nowMs - std::max(m_lastStatusMs, m_waitSinceMs) < m_timings.silenceMs)
        return;
    m_waiting = false;
    if (m_job.streaming()) {
        m_job.controllerSilent(m_timings.silenceMs);
        takeJobActions();
        syncFlags();
    } else if (m_fold.waiting()) {
        m_fold.controllerSilent(m_timings.silenceMs);
        takeFoldActions();
    } else {
        giveUpCommands("The controller is not answering: no status report for " +
                           plainNumber(static_cast<double>(m_timings.silenceMs) / 1000.0) + " s, command given up",
                       true);
        sendQueued();
    }
}

std::string GrblLink::progressLine() const
{
    std::string out;
    if (m_status.known) {
        char position[96];
        std::snprintf(position, sizeof position, " X%.3f Y%.3f", m_status.machinePosition[0],
                      m_status.machinePosition[1]);
        out = m_status.state + position;
    }
    if (m_job.running() || m_job.lineCount() > 0) {
        if (!out.empty())
            out += "  ";
        out += "line " + std::to_string(m_job.progress()) + " of " + std::to_string(m_job.lineCount());
        out += "  " + m_job.temps_restant() + " left";
    }
    return out;
}

std::vector<LinkAction> GrblLink::takeActions()
{
    std::vector<LinkAction> out;
    out.swap(m_actions);
    return out;
}

}  // namespace veltrin
