#pragma once
// GrblEmulator: a Grbl 1.1h controller in software, for the machine-link tests and as a
// virtual machine for users without hardware. Bytes go in, bytes come out, time is passed in;
// it never reads a clock or touches a port (emulator_pty_qt.h puts it on a pseudo-terminal).
//
// Use: create it (the board powers up at time 0), then feed it:
//   GrblEmulator grbl(options);
//   grbl.advance(1000);          // the welcome text is due after options.bootMs
//   grbl.receive("G1 X10 F600\r");
//   grbl.advance(nowMs);         // motion, planner and delayed replies move on
//   std::string bytes = grbl.takeOutput();
//
// What it models: the 128-byte receive buffer (overflowing bytes are dropped), the line
// cleaning and the one response per line, Grbl's planner (machine/grbl_planner.h: 15 moves
// whose fullness holds back "ok", per-axis rates and accelerations, junction speeds, look-ahead,
// G0 at the $110-$112 rates, G1 at F within them) with the carriage following each move's speed
// profile so that "?" follows the motion, feed hold (a stop at the acceleration; as in Grbl it
// suspends the lines to run until "~", and an empty line is still answered "ok") and cycle
// start, soft reset, jogging, single-axis homing (search, pull-off, locate, pull-off), the alarm
// lock, the settings and the fault options below. Not modelled: arcs (G2/G3 run as straight moves),
// check mode ($C), sleep, the safety door, overrides, probing, G10, G28/G30 (error:20); the
// work coordinate systems G54-G59 all have zero offsets (G92 offsets are kept).

#include <array>
#include <cstdint>
#include <deque>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "machine/grbl_planner.h"

namespace veltrin {

// A fault tied to the K-th line received (counted from 1 since power-up, soft resets
// included); line 0 means "off".
struct LineFault {
    int line = 0;
    int code = 0;
};

struct GrblEmulatorOptions {
    // Motion time = real motion time / speed; 0 means moves, homing, dwells and holds take no
    // time at all (fast tests, throughput measures).
    double speed = 1.0;
    // A stock 1.1h image, built without single-axis homing: "$HX" answers "error:3" and
    // leaves the board in the Home state until a soft reset.
    bool stock = false;
    // Start from Grbl's factory settings ($22=0 and $23=0: no homing, no alarm lock at
    // power-up). By default the board is set up as our machines are: $22=1 (homing on, so it
    // powers up locked with "[MSG:'$H'|'$X' to unlock]") and $23=1 (X homes towards minus).
    bool factorySettings = false;
    // Laser mode $32: -1 leaves the board's default, which is 1 on our machines' board (they
    // cut with a laser, which must be off during G0 travel) and 0 with factory settings.
    int laserMode = -1;
    // Not Grbl at all: a board that answers "ok" to every line and nothing else (no welcome
    // text, real-time bytes ignored, "?" unanswered).
    bool okToEverything = false;
    // From a power-up or port opening (board reset through DTR) to the welcome text, in ms.
    // Bytes that arrive meanwhile are lost, as on a board still in its boot loader.
    int bootMs = 1000;
    // Every output line leaves in two writes, kSplitGapMs apart ("o", then "k\r\n").
    bool splitReplies = false;
    // Everything the board sends is held back this long, in ms.
    int replyDelayMs = 0;
    LineFault errorAt;    // line K answers "error:N" instead of running
    LineFault alarmAt;    // "ALARM:N" right after the response to line K
    int silentAfter = 0;  // after the response to line K the board sends nothing more
    int hangupAfter = 0;  // after the response to line K the link goes down (hungUp())
    // When set, every line that reaches the port is written to this file as it came (before
    // cleaning, without its line end; real-time bytes and bytes >= 0x80 left out; lines the
    // board then lost, while booting or to a full buffer, included), flushed line by line.
    std::string recordPath;
};

class GrblEmulator {
public:
    static constexpr int kRxBufferBytes = 128;
    static constexpr int kPlannerBlocks = static_cast<int>(GrblPlanner::kBlocks);
    static constexpr int kLineMax = 79;
    static constexpr int kSplitGapMs = 20;
    // A soft reset takes this long (ms); bytes arriving meanwhile are flushed with the buffer.
    static constexpr int kSoftResetMs = 20;

    explicit GrblEmulator(GrblEmulatorOptions options = {});

    // A board reset as when a client opens the port (DTR): everything but the settings is
    // lost and the welcome text follows after bootMs.
    void powerUp(std::int64_t nowMs);
    // Bytes from the host, at the time of the last advance().
    void receive(std::string_view bytes);
    // Moves time on to nowMs (never backwards).
    void advance(std::int64_t nowMs);
    void onTick(std::int64_t nowMs) { advance(nowMs); }
    // Bytes due by now, in order.
    std::string takeOutput();
    // True while some output is held back (reply delay, second half of a split reply).
    bool outputPending() const { return !m_output.empty(); }
    // The hang-up fault has fired: the link should be closed once the output is gone.
    bool hungUp() const { return m_hungUp; }
    // False when a record file was asked for and could not be opened.
    bool recordOpen() const { return m_options.recordPath.empty() || m_record.is_open(); }

    // The state word of the status report ("Idle", "Run", "Hold:0", "Alarm", ...).
    std::string stateText() const;
    int linesReceived() const { return m_lineCount; }
    std::int64_t droppedBytes() const { return m_droppedBytes; }

private:
    enum class State { Idle, Run, Hold, Jog, Alarm, Home };
    using Vec3 = std::array<double, 3>;

    // A move parsed and waiting for its place in the planner.
    struct Move {
        Vec3 target{};
        double feed = 0;  // mm/min
        bool rapid = false;
        bool jog = false;
    };
    // A parsed line whose response waits: for the planner to empty (spindle, dwell, program
    // end), for a dwell or a homing cycle to end, or for a free planner block.
    struct Pending {
        int lineNo = 0;
        bool sync = false;
        std::optional<int> spindleOn;  // applied once in sync: 0 off, 1 on
        double spindleS = 0;
        double dwellMs = 0;
        std::optional<double> dwellEndMs;
        bool programEnd = false;
        bool programPause = false;
        std::optional<Move> move;
        std::optional<double> homingEndMs;
        int homingAxis = -1;  // -1: no homing; 0..2 the axis
        bool homingFails = false;
    };
    struct Setting {
        double value;
        int decimals;
    };
    struct Chunk {
        double dueMs;
        std::string bytes;
        bool firstHalf = false;  // the rest waits kSplitGapMs from the moment this leaves
    };

    void record(char c);
    void realtime(unsigned char byte);
    void softReset();
    void sendLine(std::string_view line);
    void sendRaw(std::string bytes);
    void respond(int lineNo, std::string_view text);
    void settle();
    bool retireBlocks();
    bool pump();
    bool finishPending();
    void consume(char c);
    void endLine();
    void execute(int lineNo, const std::string& line);
    std::optional<int> executeSystem(int lineNo, const std::string& line);
    std::optional<int> executeGcode(int lineNo, const std::string& line);
    std::optional<int> executeJog(int lineNo, const std::string& words);
    void raiseAlarm(int code);
    void flushMotion();
    void queueOrWait(Pending pending);
    bool motionActive() const;
    bool holding() const { return m_state == State::Hold && !m_holdComplete; }
    double nextEventMs() const;
    double motionEventSeconds() const;
    void moveMotion(double dtMs);
    double scaled(double realMs) const;
    double homePosition(int axis) const;
    GrblSettings motionSettings() const;
    // The planner forgets its moves; the carriage stands where it is.
    void stopMotion();
    void clearInputAndModes();
    // Where a move or jog with these axis words ends (G90/G91, G20, G53 and G92 applied).
    Vec3 moveTarget(const std::array<std::optional<double>, 3>& axes, double unit, bool relative,
                    bool machineCoordinates) const;
    Vec3 currentPosition() const;
    std::string statusReport() const;
    std::vector<std::string> settingsList() const;
    double setting(int number) const { return m_settings.at(number).value; }

    GrblEmulatorOptions m_options;
    std::ofstream m_record;
    std::string m_recordLine;
    std::map<int, Setting> m_settings;

    double m_nowMs = 0;
    double m_lastDueMs = 0;
    std::deque<Chunk> m_output;
    bool m_booting = true;
    double m_bootEndMs = 0;
    bool m_critical = false;  // after ALARM:1/2: deaf until a soft reset
    bool m_silent = false;
    bool m_hungUp = false;

    // Serial receive buffer and the line being assembled from it.
    std::deque<char> m_rx;
    std::string m_line;
    bool m_lineOverflow = false;
    int m_commentDepth = 0;  // inside "(...)"
    bool m_semicolon = false;
    int m_lineCount = 0;
    std::int64_t m_droppedBytes = 0;

    // Machine.
    State m_state = State::Idle;
    bool m_holdComplete = false;
    GrblPlanner m_planner;
    // The oldest planner block is the one running: how far along it is and at what speed.
    double m_doneMm = 0;
    double m_speed = 0;  // mm/s
    std::optional<Pending> m_pending;
    Vec3 m_position{};  // machine position, mm

    // Parser state (gc_state).
    Vec3 m_gcPosition{};  // where the last queued block ends
    Vec3 m_g92Offset{};
    // Status reports until the next one repeats "WCO:", and the offset it last gave.
    mutable int m_wcoCountdown = 0;
    mutable Vec3 m_wcoReported{};
    bool m_relative = false;
    bool m_inches = false;
    int m_motion = 0;
    double m_feed = 0;  // mm/min, 0 = never set
    double m_spindleS = 0;
    bool m_spindleOn = false;
};

}  // namespace veltrin
