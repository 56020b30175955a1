// The roll read back from a program, and what is wrong with it.

#include "plan/roll_check.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "plan/arrangement.h"
#include "plan/plan_text.h"

namespace veltrin {

namespace {

// Times of a hole read back and of the plan are the same when they differ by no more than
// this much roll: the program's numbers are whole ms of the plan turned into mm, and a
// hand-edited program may keep fewer digits.
constexpr double kSameTimeMm = 0.1;

double sameTimeMs(const PlanValues& v)
{
    return std::max(1.0, kSameTimeMm * 1000.0 / v.Vitcarton);
}

int trackCount(const OrganScale& scale)
{
    return std::clamp(scale.nb_notes, 0, scale.standard_AF_actif ? kAlderFennTracks : kMaxTracks);
}

double holeWidth(const PlanValues& v, int track)
{
    return v.standard_AF_actif && track < 4 ? v.BassesAF : v.Ldecoupe;
}

std::string mm(double value)
{
    return fixedDecimals(value, 1, 1, '.');
}

std::string ms(double value)
{
    return std::to_string(std::lround(std::fabs(value))) + " ms";
}

// "G#3 at 0:12.4 on track 14"
std::string where(const OrganScale& scale, int track, double startMs)
{
    return noteName(scale.trackNote(track)) + " at " + songTimeText(startMs) + " on track " + std::to_string(track);
}

std::string lineText(int first, int last)
{
    if (first == last)
        return "line " + std::to_string(first);
    return "lines " + std::to_string(std::min(first, last)) + " and " + std::to_string(std::max(first, last));
}

// The longest single opening the split makes, as time: a laser piece with the margin that
// keeps the last piece from being a sliver; two strikes of the punch, the last of a note
// overlapping the one before. No limit without bridges.
double longestOpeningMs(const PlanValues& v, double bridgeMm)
{
    if (!(bridgeMm > 0.0))
        return std::numeric_limits<double>::infinity();
    if (v.laser)
        return v.temps_morceau + static_cast<double>(std::lround(v.temps_pont + 50.0));
    return 2.0 * v.temps_poincon;
}

// One track's holes and planned pieces, checked together.
class TrackCheck {
public:
    TrackCheck(const RollCheckInput& in, int track, std::vector<const TrackHole*> holes, std::vector<Piece> planned,
               std::vector<RollProblem>& problems)
        : m_in(in), m_v(in.values), m_track(track), m_holes(std::move(holes)), m_planned(std::move(planned)),
          m_problems(problems), m_tolerance(sameTimeMs(in.values)), m_holeDone(m_holes.size(), false),
          m_holeMatched(m_holes.size(), false), m_plannedDone(m_planned.size(), false)
    {
    }

    void run()
    {
        openings();
        if (m_in.planned) {
            matchExactly();
            matchShifted();
            reportMissing();
        }
        doubleCuts();
    }

private:
    void add(RollProblemKind kind, double startMs, int line, std::string detail)
    {
        m_problems.push_back({kind, m_track, startMs, line, std::move(detail)});
    }

    std::string at(double startMs) const { return where(*m_in.scale, m_track, startMs); }

    // 1. Openings: holes that touch or overlap are one opening in the card.
    void openings()
    {
        const double longest = longestOpeningMs(m_v, m_in.bridgeMm);
        for (std::size_t first = 0; first < m_holes.size();) {
            double end = m_holes[first]->endMs;
            std::size_t next = first + 1;
            while (next < m_holes.size() && m_holes[next]->startMs <= end + m_tolerance) {
                end = std::max(end, m_holes[next]->endMs);
                ++next;
            }
            const double start = m_holes[first]->startMs;
            const int firstLine = m_holes[first]->line;
            const int lastLine = m_holes[next - 1]->line;
            const double lengthMs = end - start;
            if (lengthMs > longest + m_tolerance) {
                add(RollProblemKind::NoBridge, start, firstLine,
                    "slot with no bridge: " + at(start) + ", an opening of " + mm(lengthMs * m_v.Vitcarton / 1000.0) +
                        " mm where a piece is at most " + mm(longest * m_v.Vitcarton / 1000.0) + " mm (" +
                        lineText(firstLine, lastLine) + ")");
                accountFor(first, next, start, end);
            } else if (m_in.planned && joinsPlannedPieces(start, end)) {
                add(RollProblemKind::NoBridge, start, firstLine,
                    "slot with no bridge: " + at(start) + ", the card the plan leaves between two holes is cut away (" +
                        lineText(firstLine, lastLine) + ")");
                accountFor(first, next, start, end);
            }
            first = next;
        }
    }

    // Whether two planned pieces with card between them lie within start..end.
    bool joinsPlannedPieces(double start, double end) const
    {
        const Piece* previous = nullptr;
        for (std::size_t i = plannedFrom(start - m_tolerance); i < m_planned.size() && m_planned[i].startMs <= end; ++i) {
            const Piece& p = m_planned[i];
            if (previous && p.startMs > previous->endMs + m_tolerance && p.startMs < end - m_tolerance)
                return true;
            if (!previous || p.endMs > previous->endMs)
                previous = &p;
        }
        return false;
    }

    // A single hole that covers several planned pieces is told as the slot it is, not also
    // as a missing or shifted hole.
    void accountFor(std::size_t first, std::size_t next, double start, double end)
    {
        if (next - first != 1)
            return;
        m_holeDone[first] = true;
        for (std::size_t i = plannedFrom(start - m_tolerance); i < m_planned.size() && m_planned[i].startMs < end; ++i)
            m_plannedDone[i] = true;
    }

    bool sameTime(double a, double b) const { return std::fabs(a - b) <= m_tolerance; }

    // The first planned piece not yet taken whose start is at or after startMs.
    std::size_t plannedFrom(double startMs) const
    {
        return static_cast<std::size_t>(
            std::lower_bound(m_planned.begin(), m_planned.end(), startMs,
                             [](const Piece& p, double t) { return p.startMs < t; }) -
            m_planned.begin());
    }

    // 2. Holes where the plan has them: the same start, and for a laser cut the same end.
    void matchExactly()
    {
        for (std::size_t h = 0; h < m_holes.size(); ++h) {
            if (m_holeDone[h])
                continue;
            const TrackHole& hole = *m_holes[h];
            for (std::size_t p = plannedFrom(hole.startMs - m_tolerance);
                 p < m_planned.size() && m_planned[p].startMs <= hole.startMs + m_tolerance; ++p) {
                if (m_plannedDone[p] || (m_v.laser && !sameTime(m_planned[p].endMs, hole.endMs)))
                    continue;
                m_plannedDone[p] = true;
                m_holeDone[h] = true;
                m_holeMatched[h] = true;
                break;
            }
        }
    }

    // 3. The holes left: over a piece of the plan it is shifted, else extra.
    void matchShifted()
    {
        double longest = 0.0;
        for (const Piece& p : m_planned)
            longest = std::max(longest, static_cast<double>(p.endMs - p.startMs));
        for (std::size_t h = 0; h < m_holes.size(); ++h) {
            if (m_holeDone[h])
                continue;
            const TrackHole& hole = *m_holes[h];
            std::size_t nearest = m_planned.size();
            for (std::size_t p = plannedFrom(hole.startMs - longest - m_v.temps_poincon);
                 p < m_planned.size() && m_planned[p].startMs < hole.endMs; ++p) {
                // A strike covers one punch length, whatever the piece.
                const double plannedEnd =
                    std::max<double>(m_planned[p].endMs, m_planned[p].startMs + (m_v.laser ? 0.0 : m_v.temps_poincon));
                if (m_plannedDone[p] || plannedEnd <= hole.startMs)
                    continue;
                if (nearest == m_planned.size() || std::fabs(m_planned[p].startMs - hole.startMs) <
                                                       std::fabs(m_planned[nearest].startMs - hole.startMs))
                    nearest = p;
            }
            m_holeDone[h] = true;
            if (nearest == m_planned.size()) {
                add(RollProblemKind::NoteExtra, hole.startMs, hole.line,
                    "note extra: " + at(hole.startMs) + ", a hole the plan does not have (line " +
                        std::to_string(hole.line) + ")");
                continue;
            }
            m_plannedDone[nearest] = true;
            const Piece& p = m_planned[nearest];
            std::string how;
            const auto tell = [&](const char* what, double by) {
                if (sameTime(by, 0.0))
                    return;
                how += (how.empty() ? "" : " and ") + std::string(what) + " " + ms(by) + (by > 0 ? " late" : " early");
            };
            tell("starts", hole.startMs - p.startMs);
            if (m_v.laser)
                tell("ends", hole.endMs - p.endMs);
            add(RollProblemKind::NoteShifted, p.startMs, hole.line,
                "note shifted: " + at(p.startMs) + " " + how + " (line " + std::to_string(hole.line) + ")");
        }
    }

    // 4. Planned pieces no hole makes, a note's pieces (one bridge apart) told together.
    void reportMissing()
    {
        const double bridge = m_v.temps_pont + m_tolerance;
        for (std::size_t p = 0; p < m_planned.size();) {
            if (m_plannedDone[p]) {
                ++p;
                continue;
            }
            std::size_t next = p + 1;
            while (next < m_planned.size() && !m_plannedDone[next] &&
                   m_planned[next].startMs - m_planned[next - 1].endMs <= bridge)
                ++next;
            const std::size_t count = next - p;
            add(RollProblemKind::NoteMissing, m_planned[p].startMs, 0,
                "note missing: " + at(m_planned[p].startMs) + ", " + std::to_string(count) +
                    (count == 1 ? " hole" : " holes") + " of the plan not made");
            p = next;
        }
    }

    // 5. Card cut twice: laser holes that overlap; punch strikes on the same spot, unless
    //    the plan strikes there twice (the last strike of a note may fall on the one before).
    void doubleCuts()
    {
        std::size_t reach = 0;  // the hole reaching farthest so far
        for (std::size_t h = 1; h < m_holes.size(); ++h) {
            const TrackHole& a = *m_holes[m_v.laser ? reach : h - 1];
            const TrackHole& b = *m_holes[h];
            if (m_v.laser) {
                const double overlap = std::min(a.endMs, b.endMs) - b.startMs;
                if (overlap > m_tolerance)
                    add(RollProblemKind::DoubleCut, b.startMs, b.line,
                        "double cut: " + at(b.startMs) + ", " + lineText(a.line, b.line) + " cut the same card over " +
                            mm(overlap * m_v.Vitcarton / 1000.0) + " mm");
                if (b.endMs > a.endMs)
                    reach = h;
            } else if (sameTime(a.startMs, b.startMs) && !(m_holeMatched[h - 1] && m_holeMatched[h])) {
                add(RollProblemKind::DoubleCut, b.startMs, b.line,
                    "double cut: " + at(b.startMs) + ", " + lineText(a.line, b.line) + " strike the same spot");
            }
        }
    }

    const RollCheckInput& m_in;
    const PlanValues& m_v;
    int m_track;
    std::vector<const TrackHole*> m_holes;
    std::vector<Piece> m_planned;
    std::vector<RollProblem>& m_problems;
    double m_tolerance;
    std::vector<bool> m_holeDone;
    std::vector<bool> m_holeMatched;
    std::vector<bool> m_plannedDone;
};

const char* kindName(RollProblemKind kind, int count)
{
    switch (kind) {
    case RollProblemKind::NoteMissing:
        return count == 1 ? "note missing" : "notes missing";
    case RollProblemKind::NoteExtra:
        return count == 1 ? "note extra" : "notes extra";
    case RollProblemKind::NoteShifted:
        return count == 1 ? "note shifted" : "notes shifted";
    case RollProblemKind::NoBridge:
        return count == 1 ? "slot with no bridge" : "slots with no bridge";
    case RollProblemKind::DoubleCut:
        return count == 1 ? "double cut" : "double cuts";
    case RollProblemKind::OffTrack:
        return count == 1 ? "hole off the tracks" : "holes off the tracks";
    case RollProblemKind::OpenCut:
        return count == 1 ? "cut not closed" : "cuts not closed";
    }
    return "";
}

// The report shows this many problems; the counts cover them all.
constexpr std::size_t kProblemsShown = 200;

}  // namespace

RollReading readRoll(const ProgramReading& program, const PlanValues& v, const OrganScale& scale)
{
    RollReading roll;
    roll.laser = v.laser;
    roll.openCuts = program.openCuts;
    roll.warnings = program.warnings;
    const int tracks = trackCount(scale);
    const double reach = v.pas_pistes / 4.0;
    const auto trackAt = [&](double x) {
        int best = -1;
        double bestDistance = reach;
        for (int t = 0; t < tracks; ++t) {
            const double axis = v.laser ? Position_piste(v, t) + holeWidth(v, t) / 2.0 : Position_piste(v, t);
            const double distance = std::fabs(x - axis);
            if (distance <= bestDistance) {
                bestDistance = distance;
                best = t;
            }
        }
        return best;
    };
    const double msPerMm = 1000.0 / v.Vitcarton;
    for (const ReadHole& hole : v.laser ? program.cuts : program.strikes) {
        const int track = trackAt((hole.x0 + hole.x1) / 2.0);
        if (track < 0) {
            roll.offTrack.push_back(hole);
            continue;
        }
        if (v.laser)
            roll.holes.push_back({track, hole.y0 * msPerMm, hole.y1 * msPerMm, hole.line});
        else {
            const double start = (hole.y0 - v.L_poincon / 2.0) * msPerMm;
            roll.holes.push_back({track, start, start + v.temps_poincon, hole.line});
        }
    }
    const auto& other = v.laser ? program.strikes : program.cuts;
    if (!other.empty()) {
        roll.warnings.push_back(std::to_string(other.size()) + (v.laser ? " punch strikes" : " laser cuts") +
                                " in a program read for the " + (v.laser ? "laser" : "punch") + ": not counted");
    }
    std::sort(roll.holes.begin(), roll.holes.end(), [](const TrackHole& a, const TrackHole& b) {
        return a.track != b.track ? a.track < b.track : a.startMs != b.startMs ? a.startMs < b.startMs : a.endMs < b.endMs;
    });
    return roll;
}

std::vector<RollNote> rollNotes(const RollReading& roll, const PlanValues& v, const OrganScale& scale)
{
    const double runsOn = sameTimeMs(v);
    std::vector<RollNote> notes;
    for (std::size_t i = 0; i < roll.holes.size();) {
        const TrackHole& first = roll.holes[i];
        double end = first.endMs;
        std::size_t next = i + 1;
        while (next < roll.holes.size() && roll.holes[next].track == first.track &&
               roll.holes[next].startMs - end <= runsOn) {
            end = std::max(end, roll.holes[next].endMs);
            ++next;
        }
        notes.push_back({first.track, scale.trackNote(first.track), first.startMs, end});
        i = next;
    }
    std::stable_sort(notes.begin(), notes.end(),
                     [](const RollNote& a, const RollNote& b) { return a.startMs < b.startMs; });
    return notes;
}

std::vector<RollProblem> checkRoll(const RollCheckInput& in)
{
    std::vector<RollProblem> problems;
    const RollReading& roll = *in.roll;
    // Each track on its own: the holes read, and the plan's pieces.
    std::vector<std::vector<const TrackHole*>> holes(static_cast<std::size_t>(trackCount(*in.scale)));
    std::vector<std::vector<Piece>> planned(holes.size());
    for (const TrackHole& hole : roll.holes)
        holes[static_cast<std::size_t>(hole.track)].push_back(&hole);
    if (in.planned) {
        for (const Piece& piece : *in.planned) {
            if (piece.track >= 0 && static_cast<std::size_t>(piece.track) < planned.size())
                planned[static_cast<std::size_t>(piece.track)].push_back(piece);
        }
        for (std::vector<Piece>& pieces : planned)
            std::sort(pieces.begin(), pieces.end(), planOrder);
    }
    for (std::size_t t = 0; t < holes.size(); ++t)
        TrackCheck(in, static_cast<int>(t), std::move(holes[t]), std::move(planned[t]), problems).run();

    const double msPerMm = 1000.0 / in.values.Vitcarton;
    for (const ReadHole& hole : roll.offTrack) {
        problems.push_back({RollProblemKind::OffTrack, -1, hole.y0 * msPerMm, hole.line,
                            "off the tracks: a hole at X " + mm((hole.x0 + hole.x1) / 2.0) + " mm, Y " + mm(hole.y0) +
                                " mm, on no track of the scale (line " + std::to_string(hole.line) + ")"});
    }
    for (const int line : roll.openCuts) {
        problems.push_back({RollProblemKind::OpenCut, -1, 0.0, line,
                            "cut not closed: the cut ending on line " + std::to_string(line) +
                                " does not come back to its start; its piece does not fall out"});
    }
    std::stable_sort(problems.begin(), problems.end(), [](const RollProblem& a, const RollProblem& b) {
        return a.startMs != b.startMs ? a.startMs < b.startMs : a.track < b.track;
    });
    return problems;
}

std::vector<std::string> rollCheckReport(const RollReading& roll, const std::vector<RollNote>& notes,
                                         const std::vector<RollProblem>& problems, bool againstSong)
{
    std::vector<std::string> lines;
    int tracksUsed = 0;
    for (std::size_t i = 0; i < roll.holes.size(); ++i)
        tracksUsed += i == 0 || roll.holes[i].track != roll.holes[i - 1].track ? 1 : 0;
    std::string read = "Roll read back : " + std::to_string(roll.holes.size()) +
                       (roll.laser ? " holes on " : " strikes on ") + std::to_string(tracksUsed) +
                       (tracksUsed == 1 ? " track, " : " tracks, ") + std::to_string(notes.size()) +
                       (notes.size() == 1 ? " note" : " notes");
    if (!notes.empty()) {
        double last = 0.0;
        for (const RollNote& note : notes)
            last = std::max(last, note.endMs);
        read += " from " + songTimeText(notes.front().startMs) + " to " + songTimeText(last);
    }
    lines.push_back(read);
    for (const std::string& warning : roll.warnings)
        lines.push_back("Warning: " + warning);
    for (std::size_t i = 0; i < problems.size() && i < kProblemsShown; ++i)
        lines.push_back("   - " + problems[i].detail);
    if (problems.size() > kProblemsShown)
        lines.push_back("   ... and " + std::to_string(problems.size() - kProblemsShown) + " more");
    if (problems.empty()) {
        lines.push_back(againstSong ? "No problem found: the program plays the song as planned"
                                    : "No problem found in the program (not compared with a song)");
        return lines;
    }
    std::string counts;
    for (int k = 0; k <= static_cast<int>(RollProblemKind::OpenCut); ++k) {
        const auto kind = static_cast<RollProblemKind>(k);
        const auto count = std::count_if(problems.begin(), problems.end(),
                                         [kind](const RollProblem& p) { return p.kind == kind; });
        if (count > 0)
            counts += (counts.empty() ? "" : ", ") + std::to_string(count) + " " + kindName(kind, static_cast<int>(count));
    }
    lines.push_back(std::to_string(problems.size()) + (problems.size() == 1 ? " problem (" : " problems (") + counts +
                    (againstSong ? "): the program would not play the song as planned"
                                 : "): the program would not cut the roll as it should"));
    return lines;
}

}  // namespace veltrin
