#pragma once
// JobStreamer: envoi_programme ("send program"), the streaming of a G-code program to Grbl
// with one line in flight. It never touches a port or reads a clock.
// Use: start() with the program, then feed every received line to onLine() and the time to
// onTick(); carry out takeActions() (bytes to write, resume points, the end). pause(),
// resume() and stop() are the Pause and Stop buttons.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "machine/grbl_planner.h"
#include "machine/grbl_protocol.h"
#include "machine/hole_progress.h"

namespace veltrin {

class MessageLog;

// A program to punch and what the streamer needs to know about it.
struct JobProgram {
    std::vector<std::string> lines;
    // Name shown after "Sending file : " (the program file's name).
    std::string fileName;
    // Song whose resume file is written while the job runs; empty: no resume file.
    std::string songPath;
    // Fourchette, line 4 of the resume file.
    std::string Fourchette;
    // Duration estimate of the program writer, in seconds (0 when unknown).
    double estimatedSeconds = 0.0;
    // The model of Grbl's planner for these lines: the remaining time follows its answers.
    std::optional<MachineTime> machineTime;
    bool laser = true;
    // Vitcarton (mm/s) and L_poincon (mm) turn a hole's Y back into its start time: the
    // values the program was made with.
    double Vitcarton = 60.0;
    double L_poincon = 3.0;
    // Every setting the program was made with (key, value), for the resume file.
    std::vector<std::pair<std::string, std::string>> planSettings;
};

// Outputs of the streamer, taken by the adapter.
struct WriteBytes {
    std::string bytes;
};
// The resume file's content is due: restart time and first line not yet acknowledged.
struct ResumePoint {
    std::string songPath;
    std::string Fourchette;
    double restartMs = 0.0;
    long long restartLine = 0;
    // JobProgram::planSettings.
    std::vector<std::pair<std::string, std::string>> settings;
};
// Every hole is done (the machine reported Idle after the last line): the song's resume file
// has nothing left to resume and goes.
struct ResumeFinished {
    std::string songPath;
};
// NotStarted: the checks after the soft reset refused the job (no welcome text, laser mode off).
enum class JobOutcome { EndOfPunch, Cancelled, PortLost, NotStarted };
// Why a job is held, for a front end that decides between Continue and Stop.
enum class HoldReason {
    None,
    Refused,        // "error:N" to a program line
    Homing,         // "$HX" of the header refused (error:3 or error:5)
    Alarm,          // "ALARM:N"
    CriticalAlarm,  // ALARM:1 or ALARM:2: Grbl answers nothing until a soft reset (Stop)
    Restarted,      // the welcome text came in the middle of the job
    Silent,         // no status report for the watchdog's time
};
struct JobEnded {
    JobOutcome outcome = JobOutcome::EndOfPunch;
    // The measure of the job for the learned durations (unset in simulation or when cancelled):
    // seconds per hole (punch) or per millimetre of cut and travel (laser).
    std::optional<double> measuredDuration;
    // A line sent by the job is still unanswered (a Stop that gave up waiting for the "M5"
    // answer): its response, should it come, belongs to nobody.
    bool answerOwed = false;
    // NotStarted: why, as logged; laserModeOff when the only fault is Grbl's $32=0, which the
    // operator may turn on and start again.
    std::string why;
    bool laserModeOff = false;
};
using JobAction = std::variant<WriteBytes, ResumePoint, ResumeFinished, JobEnded>;

// Writes what goes to the message log; an optional echo sees the same text (CLI output).
class LogSink {
public:
    explicit LogSink(MessageLog& log) : m_log(&log) {}
    void setEcho(std::function<void(std::string_view)> echo) { m_echo = std::move(echo); }
    // Appends message + CR LF.
    void line(std::string_view message);
    // Appends text as it stands.
    void raw(std::string_view text);
    void trimTo(std::size_t maxChars);

private:
    MessageLog* m_log;
    std::function<void(std::string_view)> m_echo;
    bool m_midLine = false;
};

class JobStreamer {
public:
    static constexpr std::int64_t kSimulationLineMs = 50;
    static constexpr std::size_t kLogLimit = 10000;
    // A Stop waits this long for the welcome text after its soft reset, then sends "M5" anyway.
    static constexpr std::int64_t kStopBannerWaitMs = 2500;
    // The resume file is rewritten at most this often (and at every hold, pause and end).
    static constexpr std::int64_t kResumeEveryMs = 500;
    static constexpr double kLinesBeforeMeasure = 20;
    // After its soft reset a job waits this long for the welcome text, then does not start.
    static constexpr std::int64_t kBannerWaitMs = 5000;

    explicit JobStreamer(LogSink& log) : m_log(&log) {}

    // Starts a job at nowMs; simulation writes nothing and shows a line every 50 ms.
    void start(JobProgram program, bool simulation, std::int64_t nowMs);
    void pause();
    void resume();
    void stop();
    // The port closed under the job: it ends at once, after a last resume point.
    void portLost();
    // The link's watchdog: no status report for silentMs while the job streams; it holds.
    void controllerSilent(std::int64_t silentMs);
    // Shortened by tests only.
    void setBannerWaitMs(std::int64_t ms) { m_bannerWaitMs = ms; }
    // With status reports coming (the link polls), the job ends only when the machine reports
    // Idle after the last line: Grbl still has up to 16 blocks to run after its last "ok".
    void setWaitForIdle(bool on) { m_waitForIdle = on; }
    // A hold logs "Hit Continue to resume" only where somebody may hit it.
    void setContinuePrompt(bool on) { m_continuePrompt = on; }
    // The job has written the song's resume file (a line of it was acknowledged).
    bool resumeWritten() const { return m_resumeArmed && !m_program.songPath.empty() && !m_simulation; }
    const std::string& songPath() const { return m_program.songPath; }

    void onLine(std::string_view line);
    void onTick(std::int64_t nowMs);
    std::vector<JobAction> takeActions();

    bool running() const { return m_phase != Phase::Idle; }
    bool en_pause() const { return m_pauseWanted; }
    bool arret_demande() const { return m_stopWanted; }
    bool held() const { return m_phase == Phase::Held; }
    HoldReason holdReason() const { return m_phase == Phase::Held ? m_holdReason : HoldReason::None; }
    // Counts the holds since start(), so that a front end asks once per hold.
    int holdCount() const { return m_holdCount; }
    // Why the job is held, as logged (the code's meaning included).
    const std::string& holdMessage() const { return m_holdMessage; }
    // The job waits on the controller (a line in flight or to come): the watchdog applies.
    bool streaming() const
    {
        return !m_simulation && (m_phase == Phase::Checking || m_phase == Phase::Streaming ||
                                 m_phase == Phase::Paused || m_phase == Phase::Draining);
    }
    bool simulation() const { return m_simulation; }
    // Progress: lines acknowledged (or shown, in simulation) of lineCount().
    std::size_t progress() const { return m_next; }
    std::size_t lineCount() const { return m_program.lines.size(); }
    std::size_t okCount() const { return m_okCount; }
    // temps_restant ("remaining time"): "hh:mm:ss".
    std::string temps_restant() const;

private:
    // Draining: every line is acknowledged; the machine runs what its planner still holds.
    enum class Phase { Idle, Resetting, Checking, Streaming, Paused, Held, Stopping, Draining };
    enum class InFlight { None, ProgramLine, M5, Check };

    void write(std::string bytes);
    void sendNext();
    void answered(const Reply& reply, std::string_view line);
    void hold(std::string_view why, HoldReason reason);
    void checkLine(const Reply& reply, std::string_view line);
    void notStarted(std::string_view why, bool laserModeOff = false);
    void finish(JobOutcome outcome);
    void sendStopM5();
    void prepareHoles();
    void emitResumePoint();

    LogSink* m_log;
    JobProgram m_program;
    bool m_simulation = false;
    Phase m_phase = Phase::Idle;
    InFlight m_inFlight = InFlight::None;
    std::size_t m_next = 0;  // first line not yet acknowledged (the one in flight, if any)
    std::size_t m_okCount = 0;
    bool m_pauseWanted = false;
    bool m_stopWanted = false;
    bool m_waitBannerForStop = false;
    HoldReason m_holdReason = HoldReason::None;
    int m_holdCount = 0;
    std::string m_holdMessage;
    std::string m_notStartedWhy;
    bool m_laserModeOff = false;
    // Checks between the welcome text and the first line: "$I" (an emulator's speed factor),
    // then for a laser "$$" (laser mode $32).
    std::int64_t m_bannerWaitMs = kBannerWaitMs;
    std::int64_t m_bannerDeadlineMs = 0;
    bool m_checkingSettings = false;
    std::optional<double> m_laserMode;
    std::optional<double> m_emulatorSpeed;
    bool m_criticalAlarm = false;
    std::int64_t m_now = 0;
    std::int64_t m_startMs = 0;
    std::int64_t m_lastAnswerMs = 0;  // when the last program line was answered
    std::int64_t m_nextSimulatedMs = 0;
    std::int64_t m_stopDeadlineMs = 0;
    bool m_answerOwed = false;
    std::int64_t m_lastResumeMs = 0;
    std::optional<std::size_t> m_resumeWrittenFor;
    double m_resumeMsWritten = -1.0;
    // The resume file is left alone until a line of this job is acknowledged: a job refused
    // at its start must not wipe the resume point of an earlier one.
    bool m_resumeArmed = false;
    bool m_waitForIdle = false;
    bool m_continuePrompt = true;
    int m_idleReports = 0;  // consecutive Idle reports while draining
    // Which holes are surely made (hole_progress.h).
    HoleProgress m_holes;
    double m_measureTotal = 0.0;  // holes (punch) or mm of motion (laser)
    std::vector<JobAction> m_actions;
};

}  // namespace veltrin
