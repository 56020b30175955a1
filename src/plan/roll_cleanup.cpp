// The roll cleanup before the split.

#include "plan/roll_cleanup.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

#include "base/numeric_text.h"
#include "plan/plan_steps.h"

namespace veltrin {

namespace {

class TrackCleaner {
public:
    TrackCleaner(const RollCleanupValues& values, RollCleanupCounts& tally) : v(values), counts(tally) {}

    // The runs of one track, in order of their starts; heldFor: each run's length as it came.
    // Returns, for each run, whether it was joined to the hole before it.
    std::vector<bool> clean(std::vector<PlanNote*>& runs, const std::vector<double>& heldFor)
    {
        std::vector<bool> joined(runs.size(), false);
        if (runs.empty())
            return joined;
        std::size_t hole = 0;
        lengthen(*runs[0], heldFor[0]);
        for (std::size_t k = 1; k < runs.size(); ++k) {
            if (tooFastToSeparate(*runs[hole], *runs[k])) {
                // The card cannot hold a repeat this fast in time: a held note keeps the
                // song in time where separated repeats would push every later one back.
                PlanNote& a = *runs[hole];
                a.endMs = std::max(a.endMs, runs[k]->endMs);
                lengthen(a, a.endMs - a.startMs);
                joined[k] = true;
                ++counts.joined;
                continue;
            }
            separate(*runs[hole], *runs[k]);
            hole = k;
            lengthen(*runs[k], heldFor[k]);
        }
        return joined;
    }

private:
    // Where the hole of a note ends: a strike covers at least its own length.
    double holeEnd(const PlanNote& n) const
    {
        return v.laser ? n.endMs : std::max(n.endMs, n.startMs + v.strike);
    }
    double holeLength(const PlanNote& n) const { return holeEnd(n) - n.startMs; }

    // The shortest the hole of a note starting at start can be.
    double shortestEnd(double start) const
    {
        return std::ceil(start + (v.laser ? v.minHole : std::max(v.minHole, v.strike)));
    }

    // The last piece the split makes of a laser note this long (the same steps as the split).
    double lastPiece(double duree) const
    {
        if (v.piece <= 0.0 || duree < v.piece)
            return duree;
        const double step = v.piece + v.bridge;
        double reste = duree;
        while (step > 0.0 && reste > v.margin + v.piece)
            reste -= step;
        return reste;
    }
    bool splitsIntoSliver(const PlanNote& n) const
    {
        const double duree = n.endMs - n.startMs;
        return v.laser && v.piece > 0.0 && duree >= v.piece && lastPiece(duree) < v.minHole;
    }

    void lengthen(PlanNote& n, double heldFor)
    {
        if (holeLength(n) < v.minHole) {
            n.endMs = std::ceil(n.startMs + v.minHole);
            // A note that only became short by starting later is not counted as short.
            if (heldFor < v.minHole)
                ++counts.lengthened;
        } else if (splitsIntoSliver(n)) {
            // The last piece grows to the minimum; that stays under a piece, so the split
            // makes no further piece of it.
            n.endMs = std::ceil(n.endMs + v.minHole - lastPiece(n.endMs - n.startMs));
            ++counts.lengthened;
        }
    }

    // Where separate() would start b: its own start, or later after a at its shortest.
    double separatedStart(const PlanNote& a, const PlanNote& b) const
    {
        if (b.startMs - holeEnd(a) >= v.separation)
            return b.startMs;
        const double shortest = shortestEnd(a.startMs);
        if (std::floor(b.startMs - v.separation) >= shortest)
            return b.startMs;
        PlanNote cut = a;
        cut.endMs = std::min(a.endMs, shortest);
        return std::max(b.startMs, std::ceil(holeEnd(cut) + v.separation));
    }
    bool tooFastToSeparate(const PlanNote& a, const PlanNote& b) const
    {
        return separatedStart(a, b) - b.startMs > maxDelay(v);
    }

    void separate(PlanNote& a, PlanNote& b)
    {
        if (b.startMs - holeEnd(a) >= v.separation)
            return;
        ++counts.separated;
        const double shortest = shortestEnd(a.startMs);
        const double wanted = std::floor(b.startMs - v.separation);
        if (wanted >= shortest) {
            a.endMs = wanted;
            // A last piece too short to read: the hole ends with the piece before it.
            if (splitsIntoSliver(a))
                a.endMs = std::max(shortest, std::floor(a.endMs - lastPiece(a.endMs - a.startMs) - v.bridge));
            return;
        }
        // The earlier hole at its shortest is still too close: the later note starts after
        // the card, and ends where it did unless that is before its new start.
        a.endMs = std::min(a.endMs, shortest);
        const double start = std::ceil(holeEnd(a) + v.separation);
        if (start > b.startMs) {
            b.startMs = start;
            b.endMs = std::max(b.endMs, start);
            ++counts.delayed;
        }
    }

    const RollCleanupValues& v;
    RollCleanupCounts& counts;
};

std::string counted(int n, const char* one, const char* many)
{
    return std::to_string(n) + (n == 1 ? one : many);
}

}  // namespace

RollCleanupCounts cleanRoll(std::vector<PlanNote>& notes, const RollCleanupValues& values)
{
    RollCleanupCounts counts;
    // The notes of the scale, track by track, each track in order of start then end.
    std::vector<std::size_t> order;
    order.reserve(notes.size());
    for (std::size_t i = 0; i < notes.size(); ++i)
        if (notes[i].piste >= 0)
            order.push_back(i);
    std::stable_sort(order.begin(), order.end(), [&notes](std::size_t a, std::size_t b) {
        const PlanNote& x = notes[a];
        const PlanNote& y = notes[b];
        if (x.piste != y.piste)
            return x.piste < y.piste;
        if (x.startMs != y.startMs)
            return x.startMs < y.startMs;
        return x.endMs < y.endMs;
    });

    std::vector<bool> merged(notes.size(), false);
    std::vector<PlanNote*> runs;
    std::vector<std::size_t> runIndex;
    std::vector<double> heldFor;
    TrackCleaner cleaner(values, counts);
    for (std::size_t first = 0; first < order.size();) {
        const int piste = notes[order[first]].piste;
        runs.clear();
        runIndex.clear();
        heldFor.clear();
        std::size_t i = first;
        // 1. Overlapping notes become one run (a note that starts where the run ends is a
        //    repeat, not an overlap).
        for (; i < order.size() && notes[order[i]].piste == piste; ++i) {
            PlanNote& note = notes[order[i]];
            if (!runs.empty() && note.startMs < runs.back()->endMs) {
                runs.back()->endMs = std::max(runs.back()->endMs, note.endMs);
                heldFor.back() = runs.back()->endMs - runs.back()->startMs;
                merged[order[i]] = true;
                ++counts.merged;
                continue;
            }
            runs.push_back(&note);
            runIndex.push_back(order[i]);
            heldFor.push_back(note.endMs - note.startMs);
        }
        // 2. Lengths and the card between the runs; repeats too fast for the card join the
        //    hole before them and leave the list as merged notes do.
        const std::vector<bool> joined = cleaner.clean(runs, heldFor);
        for (std::size_t k = 0; k < joined.size(); ++k)
            if (joined[k])
                merged[runIndex[k]] = true;
        first = i;
    }

    if (counts.merged + counts.joined > 0) {
        std::size_t kept = 0;
        for (std::size_t i = 0; i < notes.size(); ++i)
            if (!merged[i])
                notes[kept++] = notes[i];
        notes.resize(kept);
    }
    return counts;
}

std::string rollCleanupReport(const RollCleanupCounts& counts)
{
    std::string parts;
    const auto add = [&parts](const std::string& part) { parts += (parts.empty() ? "" : ", ") + part; };
    if (counts.merged > 0)
        add(counted(counts.merged, " overlapping note merged", " overlapping notes merged"));
    if (counts.separated > 0) {
        std::string part = counted(counts.separated, " repeat separated", " repeats separated");
        if (counts.delayed > 0)
            part += " (" + std::to_string(counts.delayed) + " started later)";
        add(part);
    }
    if (counts.joined > 0)
        add(counted(counts.joined, " fast repeat joined to the hole before", " fast repeats joined to the hole before"));
    if (counts.lengthened > 0)
        add(counted(counts.lengthened, " short hole lengthened", " short holes lengthened"));
    return parts.empty() ? std::string() : "   - Roll cleanup : " + parts;
}

RollCleanupValues rollCleanupValues(const PlanValues& values, bool fractionner)
{
    RollCleanupValues r;
    r.laser = values.laser;
    r.separation = values.temps_pont > 0.0 ? values.temps_pont
                                           : kSeparationWithoutBridgesMm * 1000.0 / values.Vitcarton;
    r.minHole = values.temps_trou_min;
    r.strike = values.laser ? 0.0 : values.temps_poincon;
    // The last strike of a note starts one strike before its end, rounded to whole ms (half
    // away from zero): up to half a ms later, and its end with it. The card after it keeps
    // its full length.
    if (!values.laser && r.strike != std::floor(r.strike))
        r.separation += 0.5;
    if (values.laser && fractionner) {
        r.piece = values.temps_morceau;
        r.bridge = values.temps_pont;
        r.margin = static_cast<double>(roundHalfEven(values.temps_pont + 50.0));
        // Pieces between bridges are as long as the operator set them, shorter or not.
        r.minHole = std::min(r.minHole, r.piece);
    }
    return r;
}

}  // namespace veltrin
