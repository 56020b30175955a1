#pragma once
// FoldMarker: the live fold marking on the machine, forwards from the fold under the laser
// (marquage_plis) or backwards over a roll just cut (marquage_plis_arriere). One command in
// flight, each released by its "ok". It never touches a port or reads a clock.
// Use: startForward() or startBackward(), then feed every received line except status
// reports to onLine(), and carry out takeActions() (bytes to write, the end). stop() is the
// Stop button; resume() is Continue after a hold.
//
// Before its first command the marking asks "$$" (not logged) and starts only with Grbl's
// laser mode on ($32=1): with it off, Grbl keeps the beam on along every G0 travel and would
// burn a line down the book. Then the preamble (forward) or the travel to the first fold
// (backward), then fold after fold; the stop flag is tested at every fold boundary, so a
// fold begun is finished, and "M5 S0" ends the marking.

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "folding/fold_commands.h"
#include "machine/job_streamer.h"

namespace veltrin {

enum class FoldOutcome {
    Done,        // "M5 S0" answered: stopped, the count reached, or fold 0 of the backward marking
    NotStarted,  // the laser-mode check refused the marking (nothing but "$$" sent)
    Stopped,     // Stop during a hold: Grbl soft-reset, which turns the laser off at once
    Alarm,       // "ALARM:N": Grbl stopped the machine and the laser itself
    Restarted,   // the welcome text: the board restarted, the fold positions are lost
    PortLost,
};

struct FoldEnded {
    FoldOutcome outcome = FoldOutcome::Done;
    int foldsMarked = 0;
    // A command is still unanswered: its answer, should it come, belongs to nobody.
    bool answerOwed = false;
    // NotStarted: why, as logged.
    std::string why;
};
using FoldAction = std::variant<WriteBytes, FoldEnded>;

class FoldMarker {
public:
    explicit FoldMarker(LogSink& log) : m_log(&log) {}

    // marquage_plis: fold 0 at Y 0 where the operator put it, then fold after fold until
    // stop() (or foldCount folds). arret_demande ("stop asked") is the flag as the last job or
    // marking left it: the forward marking never clears it, so a flag still set sends the
    // preamble and "M5 S0" at once.
    void startForward(const FoldValues& values, bool arret_demande, std::optional<int> foldCount = {});
    // marquage_plis_arriere: after a job that reached y_max (mm), from the highest fold line at
    // or below y_max - 20 mm down to fold 0. Clears the stop flag.
    void startBackward(const FoldValues& values, double y_max);
    void stop();
    void resume();
    void onLine(std::string_view line);
    // The port closed: the marking ends at once.
    void portLost();
    // No status report for silentMs while a command waits: the marking holds.
    void controllerSilent(std::int64_t silentMs);
    // A hold logs "Hit Continue to resume" only where somebody may hit it.
    void setContinuePrompt(bool on) { m_continuePrompt = on; }
    std::vector<FoldAction> takeActions();

    bool running() const { return m_phase != Phase::Idle; }
    bool held() const { return m_phase == Phase::Held; }
    // A command waits for its answer: the link's watchdog applies.
    bool waiting() const { return m_inFlight.has_value(); }
    bool arret_demande() const { return m_stopWanted; }
    // Counts the holds since the start, so that a front end asks once per hold.
    int holdCount() const { return m_holdCount; }
    // Why the marking is held, as logged.
    const std::string& holdMessage() const { return m_holdMessage; }
    // Folds whose dashes are all acknowledged.
    int foldsMarked() const { return m_foldsMarked; }
    bool backward() const { return m_backward; }

private:
    enum class Phase { Idle, Checking, Marking, Held, Ending };

    void begin(const FoldValues& values);
    void send(std::string command);
    void next();
    void hold(std::string why);
    void finish(FoldOutcome outcome, std::string why = {});
    void checkLine(std::string_view line);

    LogSink* m_log;
    FoldValues m_values;
    Phase m_phase = Phase::Idle;
    bool m_backward = false;
    bool m_stopWanted = false;
    bool m_stopSetAtStart = false;
    bool m_silentHold = false;  // held for a silent controller, its answer still awaited
    bool m_continuePrompt = true;
    std::optional<std::string> m_inFlight;
    std::deque<std::string> m_pending;  // the rest of the preamble or of the fold in progress
    bool m_foldInProgress = false;
    int m_nextFold = 0;                 // forward: counts up; backward: counts down to 0
    std::optional<int> m_lastFold;      // forward with a count: the last fold to mark
    int m_foldsMarked = 0;
    std::optional<double> m_laserMode;  // $32 of the "$$" answer
    int m_holdCount = 0;
    std::string m_holdMessage;
    std::vector<FoldAction> m_actions;
};

}  // namespace veltrin
