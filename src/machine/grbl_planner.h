#pragma once
// The machine time of a G-code program on Grbl 1.1, from a model of Grbl's motion planner:
// per-axis maximum rates and accelerations, junction speeds from the junction deviation $11,
// look-ahead over the planner's 15 usable blocks, trapezoid and triangle speed profiles, G0
// at the axes' maximum rates, laser mode $32, homing and dwells.
//
// Use: take the board's settings (parseSettingsList on its "$$" answer, or
// GrblSettings::defaults()), then estimateProgram(lines, settings); read seconds, and
// secondsLeft() while a job runs. GrblPlanner is the planner itself, which the emulator moves by.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/result.h"

namespace veltrin {

using Axes = std::array<double, 3>;  // X, Y, Z

// What Grbl's motion depends on, from its "$$" settings (lengths in mm, times in seconds).
struct GrblSettings {
    Axes stepsPerMm{250, 250, 250};         // $100-$102
    Axes maxRateMmPerMin{500, 500, 500};    // $110-$112
    Axes accelerationMmPerS2{10, 10, 10};   // $120-$122
    Axes maxTravelMm{200, 200, 200};        // $130-$132
    double junctionDeviationMm = 0.010;     // $11
    double arcToleranceMm = 0.002;          // $12
    int homingDirectionMask = 0;            // $23: bit set, the axis homes towards minus
    double homingFeedMmPerMin = 25;         // $24: the slow locate approach
    double homingSeekMmPerMin = 500;        // $25: the search and the pull-offs
    double homingDebounceMs = 250;          // $26
    double homingPullOffMm = 1;             // $27
    bool laserMode = false;                 // $32

    // Grbl 1.1h's factory values.
    static GrblSettings defaults() { return {}; }
    // Applies "$N=value" for a setting the model uses; false for a value it cannot move by
    // (a rate, acceleration or step count that is not above 0, a negative distance).
    bool set(int number, double value);
};

enum class GrblSettingsError {
    NoSettings,  // not one "$N=value" line
    BadValue,    // a value Grbl would never move with: detail names it
};
// The settings of a "$$" answer (or a file holding one): "$N=value" lines, with or without
// a comment after the value; other lines ("ok", the banner, messages) are passed over, and
// settings it does not list keep Grbl's defaults.
Result<GrblSettings, GrblSettingsError> parseSettingsList(const std::vector<std::string>& lines);
Result<GrblSettings, GrblSettingsError> parseSettingsText(std::string_view text);

// Speed profiles, in mm and seconds: a move of mm length entered at entrySpeed, left at
// exitSpeed, at most at nominalSpeed, accelerating and decelerating at acceleration.
// Seconds from doneMm into the move at speed, on to its end (trapezoid or triangle).
double profileSecondsLeft(double doneMm, double speed, double exitSpeed, double nominalSpeed,
                          double acceleration, double mm);
// Where the same profile is after seconds (never past the end): distance done and speed.
struct ProfilePoint {
    double doneMm = 0;
    double speed = 0;
};
ProfilePoint profileAfter(ProfilePoint from, double seconds, double exitSpeed, double nominalSpeed,
                          double acceleration, double mm);
// Seconds of "$H" for one axis whose switch lies searchMm away: search at $25 (stopped by
// the switch, no deceleration), pull-off at $25, locate at $24, pull-off again, a debounce
// delay after each of the four.
double homingSeconds(const GrblSettings& settings, int axis, double searchMm);
// How far an axis at machinePositionMm (homed before, so the position is true) stands from
// its switch: at -$13x homing towards minus ($23 bit set), else at 0.
double homingSearchMm(const GrblSettings& settings, int axis, double machinePositionMm);

// One straight move in the planner. Speeds in mm/s, squared where named so.
struct PlannerBlock {
    Axes start{};   // machine position, mm, on whole steps
    Axes target{};
    Axes unit{};    // direction
    double millimeters = 0;
    double acceleration = 0;  // mm/s², within every axis's limit along the direction
    double nominalSpeed = 0;  // the feed (or rapid) rate within every axis's maximum rate
    double maxEntrySqr = 0;   // junction and neighbouring nominal speeds
    double entrySqr = 0;      // as planned
    std::uint32_t tag = 0;    // the caller's (line number, jog flag)
};

// Grbl 1.1's planner: a ring of 16 blocks of which 15 hold moves, the oldest being the one
// the machine runs. Each new move gets its junction speed, then the plan is swept backwards
// (the last block ends at rest) and forwards (acceleration limits); blocks whose plan can no
// longer change are skipped, as Grbl does.
// Use: addLine() while !full(); the machine runs tail() from its entry speed to
// exitSpeedSqr(0); discardTail() when it is done.
class GrblPlanner {
public:
    static constexpr std::size_t kBlocks = 15;

    explicit GrblPlanner(const GrblSettings& settings = GrblSettings::defaults());
    void setSettings(const GrblSettings& settings);
    const GrblSettings& settings() const { return m_settings; }

    bool empty() const { return m_count == 0; }
    bool full() const { return m_count == kBlocks; }
    std::size_t size() const { return m_count; }
    // Block i from the oldest (0, the one running).
    const PlannerBlock& block(std::size_t i) const { return m_ring[index(i)]; }
    PlannerBlock& tail() { return m_ring[index(0)]; }
    // The planned exit speed² of block i: the next block's entry, 0 for the last.
    double exitSpeedSqr(std::size_t i) const { return i + 1 < m_count ? block(i + 1).entrySqr : 0.0; }

    // Where the next move starts (machine mm, on steps).
    Axes position() const;
    // The machine stands at position with no motion planned (start, homing, reset, alarm).
    void reset(const Axes& position);
    // Queues a straight move to target (machine mm) at feedMmPerMin, or at the axes' maximum
    // rates when rapid. False, and nothing queued, for a move shorter than a step. The
    // planner must not be full.
    bool addLine(const Axes& target, double feedMmPerMin, bool rapid, std::uint32_t tag = 0);
    void discardTail();
    // The running block stopped (a feed hold) with remainingMm still to go from position:
    // it starts again from rest and the blocks behind it are planned again.
    void restartTail(const Axes& position, double remainingMm);

private:
    std::size_t index(std::size_t i) const
    {
        const std::size_t at = m_tail + i;
        return at < kBlocks ? at : at - kBlocks;
    }
    void recalculate();

    GrblSettings m_settings;
    // 1 / the settings, as the many moves use them.
    Axes m_mmPerStep{};
    Axes m_perRate{};          // 1 / (mm/min)
    Axes m_perAcceleration{};  // 1 / (mm/s²)
    std::array<PlannerBlock, kBlocks> m_ring{};
    std::size_t m_tail = 0;
    std::size_t m_count = 0;
    std::size_t m_planned = 0;  // blocks from the tail whose plan is final
    std::array<long long, 3> m_positionSteps{};
    Axes m_previousUnit{};
    double m_previousNominal = 0;
};

// A note on one line of a program: refused by Grbl, not modelled, or a pause.
struct MachineTimeNote {
    std::size_t line = 0;  // from 1
    std::string text;
};

// The machine time of a program, and when Grbl answers each line.
struct MachineTime {
    // From the first line sent until the machine stops after the last.
    double seconds = 0;
    double homingSeconds = 0;
    double dwellSeconds = 0;
    std::size_t moves = 0;          // planner blocks (arcs count their chords)
    std::size_t refusedLines = 0;   // lines Grbl answers with "error:N" (no time counted)
    std::vector<MachineTimeNote> notes;  // the first kMaxNotes
    std::size_t moreNotes = 0;
    // answeredAt[i]: seconds from the start until Grbl answers line i (its "ok" comes when
    // the line enters the planner, or once done for homing, dwells and waits).
    std::vector<double> answeredAt;

    static constexpr std::size_t kMaxNotes = 20;

    // Seconds left once the first `answered` lines are answered, sinceLastAnswer seconds
    // after the last of those answers (never less than what is left after the next line).
    double secondsLeft(std::size_t answered, double sinceLastAnswer = 0) const;
};

struct EstimateOptions {
    // How far the X head stands from its switch when the first "$H" begins (homingSearchMm()
    // of the last machine position, when known); unknown by default, then half the X travel
    // ($130 / 2) is assumed.
    std::optional<double> homingSearchMm;
};

// The model run over a program: its lines as written (comments, blanks and CR allowed).
// Before any homing the machine stands at work and machine position 0.
MachineTime estimateProgram(const std::vector<std::string>& lines, const GrblSettings& settings,
                            const EstimateOptions& options = {});
// The same for a whole program text (lines end with LF or CR LF).
MachineTime estimateProgramText(std::string_view text, const GrblSettings& settings,
                                const EstimateOptions& options = {});

// "Machine time (Grbl model) : hh:mm:ss" (hours go past 24 rather than wrap).
std::string machineTimeLine(double seconds);

// Grbl's read_float: an optional sign, digits with at most one ".", at least one digit, read
// from text at pos; pos moves past it. False (pos unchanged) when there is no number there.
bool readGrblNumber(std::string_view text, std::size_t& pos, double& value);

}  // namespace veltrin
