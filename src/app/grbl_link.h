#pragma once
// GrblLink: the machine link's core. It owns the detection of Grbl (connexion_on), the
// single commands with their wait (envoi_commande, the console, the jog keys), the job
// (envoi_programme, through JobStreamer), the next roll (rouleau_suivant) and the live fold
// marking (marquage_plis, through FoldMarker). Exactly one line
// is unanswered at any time, whoever sent it. It never touches a port or reads a clock.
// Use: the adapter opens the port and calls setPortOpen(true) then connexion_on(now); it feeds
// received bytes to onBytes() and the time to onTick(), and carries out takeActions().

#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "folding/fold_marker.h"
#include "machine/grbl_planner.h"
#include "machine/grbl_protocol.h"
#include "machine/job_streamer.h"

namespace veltrin {

struct AppState;

// What the link needs from the front end (main window or CLI) beyond the port.
class JobHost {
public:
    virtual ~JobHost() = default;
    // Several songs chosen at once: true while another roll is to be made after this one.
    virtual bool hasNextRoll() = 0;
    // The roll gap in mm, by which the cardboard advances before the next roll.
    virtual int rollGapMm() = 0;
    // Opens the next song and returns its program; nullopt when that fails.
    virtual std::optional<JobProgram> openNextRoll() = 0;
    // Asks a Yes/No question; answer() is called later, from the front end's event loop.
    virtual void askYesNo(std::string_view question, bool defaultYes, std::function<void(bool)> answer) = 0;
    // A message box.
    virtual void showMessage(std::string_view text) = 0;
    // The operator chose to mark the folds backwards after a laser job: the host calls
    // GrblLink::marquage_plis_arriere with the y_max of the program just cut.
    virtual void startBackwardFolds() = 0;
};

// A job for the program lines of the current song (chemin_morceau), with the machine type,
// roll speed, punch size and Fourchette of the settings.
JobProgram programForJob(const AppState& state, std::vector<std::string> lines, std::string fileName);

// The machine's settings for the machine-time model: its last "$$" answer, or Grbl's defaults.
GrblSettings machineSettings(const AppState& state);

// The link's clocks. Tests shorten them; statusEveryMs 0 turns polling and the watchdog off.
struct LinkTimings {
    // "?" while connected, about 4 times a second, one unanswered at most.
    std::int64_t statusEveryMs = 250;
    // A "?" unanswered this long is taken as lost (it fell into a reset), and another may go.
    std::int64_t statusLostMs = 1000;
    // Watchdog: no status report this long while a job streams or a command waits.
    std::int64_t silenceMs = 5000;
    // A command waits while the board reports Idle, Hold or Alarm this long: its answer is
    // not coming (lost, or held back by a hold), and it is given up.
    std::int64_t stuckMs = 5000;
    // A job's soft reset waits this long for the welcome text.
    std::int64_t bannerWaitMs = JobStreamer::kBannerWaitMs;
};

// What the last status report said. Not logged: at 4 reports a second they would bury the
// log; a console "?" shows its report.
struct MachineStatus {
    bool known = false;
    std::string state;               // "Idle", "Run", "Hold:0", "Alarm", ...
    double machinePosition[3] = {};  // MPos, or WPos + the last WCO
    std::int64_t atMs = 0;
};

// Outputs of the link, carried out by the adapter.
struct DetectionDone {
    bool grblFound = false;
};
struct CommandDone {
    std::string command;
    std::string reply;  // "ok", "error:N", or empty when the board restarted or the port closed
};
using LinkAction =
    std::variant<WriteBytes, ResumePoint, ResumeFinished, JobEnded, DetectionDone, CommandDone, FoldEnded>;

class GrblLink {
public:
    static constexpr std::int64_t kDetectionWaitMs = 2500;
    static constexpr std::int64_t kNextRollPauseMs = 1000;

    // state: settings, the log and the link flags (connecte, en_pause, ...) it keeps up to date.
    explicit GrblLink(AppState& state);

    void setHost(JobHost* host) { m_host = host; }
    void setTimings(const LinkTimings& timings);
    const LinkTimings& timings() const { return m_timings; }
    // A copy of every text appended to the log, as appended (CR LF included).
    void setLogEcho(std::function<void(std::string_view)> echo) { m_log.setEcho(std::move(echo)); }
    // False where nobody can hit Continue (a command line without a terminal): holds do not
    // say "Hit Continue to resume".
    void setContinuePrompt(bool on)
    {
        m_job.setContinuePrompt(on);
        m_fold.setContinuePrompt(on);
    }

    // The adapter tells whether the port is open.
    void setPortOpen(bool open);
    bool portOpen() const { return m_portOpen; }

    // connexion_on: detects Grbl on the port just opened: its welcome text within 2.5 s, else a
    // lone "\r" and 2.5 s more for an answer. Sets connecte at the end either way.
    // quiet: a port scan's probe, which does not log "No Grbl on this board".
    void connexion_on(std::int64_t nowMs, bool quiet = false);
    // connexion_off: the port was closed: clears connecte, drops pending commands, ends a job.
    void connexion_off();
    bool detecting() const { return m_detection != Detection::None; }
    // A message of the program in the log (CR LF appended).
    void logLine(std::string_view message) { m_log.line(message); }

    // envoi_commande ("send command"): queued; sent when nothing else is unanswered; the log
    // shows the line and " < " + each received line until its "ok" or "error:N".
    void envoi_commande(std::string line);
    // Text1_KeyPress Enter: a console command ("$$" annotated from the glossary). Logs
    // "Machine not connected" and returns false when the port is closed.
    bool consoleCommand(std::string text);
    // Commands queued or unanswered.
    bool commandPending() const { return m_command.has_value() || !m_queue.empty(); }
    // A real-time character typed alone at the console ("!" feed hold, "~" cycle start, "?"
    // status, whose next report is shown): logged and sent at once, ahead of any queued line,
    // and answered by nothing.
    void realtimeCommand(char c);
    // Ctrl-X: Grbl's soft reset (the only way out after ALARM:1), queued like a command and
    // done when the welcome text comes.
    void softReset();
    // After ALARM:1 or ALARM:2 Grbl answers nothing, not even "?", until a soft reset.
    bool controllerDeaf() const { return m_critical; }

    const MachineStatus& status() const { return m_status; }
    // The head in work coordinates (the program's: X across the roll, Y along it), from the
    // last status report and the last work offset Grbl reported; nullopt before a report.
    std::optional<std::pair<double, double>> workPositionXY() const;
    // One line for a progress display: state, machine position, line k of n, time left.
    std::string progressLine() const;

    // The key table's machine commands (Alt+arrows, Alt+Z, Alt+P, Alt+L).
    void jog(char axis, int distanceMm);
    void homeX();
    void toolTest();
    void laserPointer();

    // Punch_button_Click -> envoi_programme: "Machine not connected" unless connected or in
    // simulation mode; otherwise the job starts.
    bool envoi_programme(JobProgram program, std::int64_t nowMs);
    // Pause_button_Click: toggles pause and resume; Continue of a held fold marking.
    void Pause_button_Click();
    // Stop_button_Click: cancels the job; a fold marking ends once the fold in progress is
    // marked ("M5 S0"), or at once when it is held.
    void Stop_button_Click();

    // Marque_plis_Click ("mark folds", the "Live folding dots" entry): arms the live marking.
    // "Folds length not defined" (a message) when the scale has no fold length, and a message
    // for a punch; otherwise the Punch button becomes "Fold" and the log says
    // "Set the first fold under the laser ray and hit the Fold button".
    bool Marque_plis_Click();
    // Armed by Marque_plis_Click and not yet started: the Punch button reads "Fold".
    bool foldArmed() const { return m_foldArmed; }
    // The Punch button's caption: "Fold" while armed or marking, else "Punch".
    std::string_view punchCaption() const { return m_foldArmed || m_fold.running() ? "Fold" : "Punch"; }
    // marquage_plis ("fold marking"), the Fold button: "Machine non connectée" unless
    // connected; a setting the marking cannot use is told (message); otherwise the forward
    // marking starts (fold 0 at Y 0, until Stop; foldCount: stop by itself after that many).
    // arret_demande is left as the last job or marking set it.
    bool marquage_plis(std::optional<int> foldCount = {});
    // marquage_plis_arriere ("backward fold marking"), after a laser job that reached y_max
    // (mm, AppState::y_max): from the highest fold line at or below y_max - 20 mm down to 0.
    // Clears arret_demande.
    bool marquage_plis_arriere(double y_max);
    const FoldMarker& folds() const { return m_fold; }

    void onBytes(std::string_view bytes);
    void onLine(std::string_view line);
    void onTick(std::int64_t nowMs);
    std::vector<LinkAction> takeActions();

    const JobStreamer& job() const { return m_job; }
    // A job, the wait for the next roll, or a fold marking.
    bool jobRunning() const
    {
        return m_job.running() || m_nextRollDueMs.has_value() || m_nextRollJogPending || m_fold.running();
    }

private:
    enum class Detection { None, Banner, Answer };
    struct Command {
        std::string text;
        bool console = false;
        bool annotate = false;
        bool reset = false;  // Ctrl-X: answered by the welcome text
    };

    void write(std::string bytes);
    void sendQueued();
    void commandLine(std::string_view line, const Reply& reply);
    void detectionLine(std::string_view line, const Reply& reply);
    void finishDetection(bool grblFound);
    void takeJobActions();
    void takeFoldActions();
    // The checks both fold markings make before they start: false after telling why.
    bool foldsMayStart(bool backward);
    // Tells why something was not done (a message box, or the log without a host); false.
    bool refuse(std::string_view why);
    void jobEnded(const JobEnded& ended);
    void rouleau_suivant();
    void syncFlags();
    void statusLine(std::string_view line);
    // Keeps a "$N=value" line of the board in the state (AppState::grblSettingsLines).
    void rememberSetting(std::string_view line);
    // Gives up the command in flight (and, with queuedToo, those queued) with a log line.
    void giveUpCommands(std::string_view why, bool queuedToo);
    void pollAndWatch(std::int64_t nowMs);

    AppState* m_state;
    LogSink m_log;
    JobStreamer m_job;
    FoldMarker m_fold;
    bool m_foldArmed = false;
    JobHost* m_host = nullptr;
    LineAssembler m_lines;
    SettingsAnnotator m_annotator;
    bool m_portOpen = false;
    std::int64_t m_now = 0;

    Detection m_detection = Detection::None;
    bool m_quietDetection = false;
    std::int64_t m_detectionDeadlineMs = 0;
    // Responses still owed to a line whose waiter has given up (the detection's "\r" when a
    // message ended its wait first); they are logged and not taken for another line's answer.
    int m_owedResponses = 0;

    std::deque<Command> m_queue;
    std::optional<Command> m_command;  // the command in flight

    bool m_nextRollJogPending = false;
    std::optional<std::int64_t> m_nextRollDueMs;

    LinkTimings m_timings;
    MachineStatus m_status;
    double m_workOffset[3] = {};
    std::optional<std::int64_t> m_statusAskedMs;  // the "?" unanswered
    std::int64_t m_lastStatusMs = 0;
    std::int64_t m_lastPollMs = 0;
    bool m_waiting = false;  // a job streams or a command waits
    std::int64_t m_waitSinceMs = 0;
    // Since when the board has reported a state in which the command's answer cannot come.
    std::optional<std::int64_t> m_stuckSinceMs;
    bool m_showNextStatus = false;
    // The detection's "\r" went out before a late welcome text: it may have been lost in the
    // boot or be answered yet. Commands wait until an "ok" or a status report tells.
    bool m_probeUncertain = false;
    bool m_critical = false;

    std::vector<LinkAction> m_actions;
};

}  // namespace veltrin
