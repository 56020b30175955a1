#pragma once
// HoleProgress: which holes of a streaming program are surely made, for the resume file.
//
// Grbl answers "ok" when a line has entered its planner (16 blocks), not when it has been
// cut, so an acknowledged hole may still be waiting in the planner when the computer or the
// board goes down. A hole counts as done when
//   - the lines of kBlocksAfterHole (17) further blocks have been acknowledged after its
//     last line: by then its own block and the one after it have left the planner; or
//   - the machine reported Idle ("<Idle|...>") and the hole's lines had been acknowledged
//     before the status report that came before that Idle one. Grbl answers a status request
//     before it starts the motion of a line just queued into an empty planner, so an Idle
//     report that follows an "ok" at once may come from a machine about to move; by the next
//     report (a quarter of a second later) the motion has started, and Idle then means done.
// A block is a program line that Grbl queues as a motion: a line with an X, Y or Z word that
// is not a "$" command nor a G10/G28.1/G30.1/G92 (which name axes without moving), and
// that moves some axis by at least kLeastBlockMoveMm from a known position. Grbl drops moves
// that round to no step, so shorter moves, moves from an unknown position (before any
// "G92" or after "$H") and refused lines are not counted: the count never runs ahead of
// the planner. Arcs, which Grbl splits into several blocks, count as one.
// Once the planner has been emptied without cutting (soft reset, restart of the board, alarm)
// nothing more is taken as done in the job, and a refused line keeps its hole from ever
// being done.
// A hole starts with a travel move ("G0 ... Y...") to its start corner (laser) or strike
// centre (punch); its start time is Y turned back into ms with the roll speed the program
// was made with.

#include <cstddef>
#include <string>
#include <vector>

namespace veltrin {

class HoleProgress {
public:
    static constexpr std::size_t kBlocksAfterHole = 17;
    static constexpr double kLeastBlockMoveMm = 0.05;

    // The program's lines as they stand in the file; laser, Vitcarton (mm/s) and L_poincon
    // (mm) as the program was made with.
    void prepare(const std::vector<std::string>& lines, bool laser, double Vitcarton, double L_poincon);

    // A status report arrived; ackedLines: lines [0, ackedLines) are answered.
    void statusReport(bool idle, std::size_t ackedLines);
    // The planner was emptied without cutting: nothing more becomes done in this job.
    void plannerLost(std::size_t ackedLines);
    // Grbl answered "error:N" to line: it was not queued.
    void refused(std::size_t line);

    std::size_t holeCount() const { return m_starts.size(); }
    // Holes done, in program order: done holes are always the first ones.
    std::size_t holesDone(std::size_t ackedLines) const;
    // The restart time: the earliest start (whole ms, rounded down) among the holes not yet
    // done; one past the latest start when all are done; 0 for a program without holes.
    double restartMs(std::size_t ackedLines) const;
    // Start (ms) of each hole, in program order.
    const std::vector<double>& holeStarts() const { return m_starts; }
    // Blocks among lines [0, line) (refused ones included).
    std::size_t blocksBefore(std::size_t line) const;

private:
    std::vector<double> m_starts;
    std::vector<std::size_t> m_holeOfLine;   // header lines: hole 0
    std::vector<std::size_t> m_holeEnd;      // one past the hole's last line
    std::vector<std::size_t> m_blocksBefore; // lines.size() + 1 entries
    std::vector<double> m_earliestFrom;
    double m_latestStart = 0.0;
    std::size_t m_refusedBlocks = 0;
    std::size_t m_idleDone = 0;
    std::size_t m_ackedAtLastReport = 0;
    std::size_t m_cap = static_cast<std::size_t>(-1);
};

}  // namespace veltrin
