// The travel order: bands along the roll, visited in a serpentine across and along it.

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <system_error>
#include <thread>
#include <utility>

#include "plan/plan_steps.h"

namespace veltrin {

namespace {

// distF's point of a piece's start: X by the plain track formula, Y along the roll.
double pointX(const PlanValues& values, int track)
{
    return values.pas_pistes * track + values.talon_x;
}

double pointY(const PlanValues& values, std::int32_t startMs)
{
    return values.Vitcarton * startMs / 1000.0;
}

double squaredDistance(double xa, double ya, double xb, double yb)
{
    return (xa - xb) * (xa - xb) + (ya - yb) * (ya - yb);
}

}  // namespace

double distF(const Piece& a, const Piece& b, const PlanValues& values)
{
    return squaredDistance(pointX(values, a.track), pointY(values, a.startMs),
                           pointX(values, b.track), pointY(values, b.startMs));
}

namespace {

// Ordonne_bande's walk over band[0..count): visit(piece) for each piece in visiting order.
template <typename Visit>
void orderBand(const Piece* band, std::size_t count, bool sens, const PlanValues& values,
               Visit&& visit)
{
    // The remembered previous point starts empty, which reads as track 0 at time 0.
    Piece previous{};
    std::size_t done = 0;
    while (done < count) {
        // The next track group in the walking direction: band[first, last).
        std::size_t first = 0;
        std::size_t last = 0;
        if (sens) {
            last = count - done;
            first = last - 1;
            while (first > 0 && band[first - 1].track == band[last - 1].track)
                --first;
        } else {
            first = done;
            last = first + 1;
            while (last < count && band[last].track == band[first].track)
                ++last;
        }
        done += last - first;
        const bool ascending = last - first == 1 ||
                               distF(previous, band[first], values) <=
                                   distF(previous, band[last - 1], values);
        if (ascending) {
            for (std::size_t i = first; i < last; ++i)
                visit(band[i]);
            previous = band[last - 1];
        } else {
            for (std::size_t i = last; i-- > first;)
                visit(band[i]);
            previous = band[first];
        }
    }
}

bool trackOrder(const Piece& a, const Piece& b)
{
    if (a.track != b.track)
        return a.track < b.track;
    if (a.startMs != b.startMs)
        return a.startMs < b.startMs;
    return a.endMs < b.endMs;
}

// Optimise_trajets' walk: visit(piece) for each piece in travel order, whatever the pieces.
template <typename Visit>
void travelOrderSorting(const std::vector<Piece>& ycroissant, int temps_fourchette,
                 const PlanValues& values, Visit&& visit)
{
    std::vector<Piece> band;  // List_GC_Xcroissant: the current band, (track, start, end) order
    int derniere_piste = 0;   // every generation starts from track 0
    auto visitAndRemember = [&](const Piece& piece) {
        visit(piece);
        derniere_piste = piece.track;
    };

    auto closeBand = [&] {
        // The order of the band's track-first lines "TTT SSSSSSS EEEEEEE". Pieces equal in
        // all three fields are alike, so an unstable sort is enough.
        std::sort(band.begin(), band.end(),
                  [](const Piece& a, const Piece& b) { return trackOrder(a, b); });
        const int firstTrack = band.front().track;
        const int lastTrack = band.back().track;
        const bool sens = std::abs(firstTrack - derniere_piste) > std::abs(lastTrack - derniere_piste);
        orderBand(band.data(), band.size(), sens, values, visitAndRemember);
        band.clear();
    };

    long long debut_bande = 0;
    bool anySeen = false;
    for (const Piece& piece : ycroissant) {
        if (anySeen && piece.startMs > debut_bande + temps_fourchette) {
            closeBand();
            debut_bande = piece.startMs;
        }
        band.push_back(piece);
        anySeen = true;
    }
    // The last band goes out like every other.
    if (!band.empty())
        closeBand();
}

// Pieces in plan order whose tracks are 0 to 63, as Decoupe_notes gives them, grouped by
// track: a band's pieces of one track are then the next ones of that track in plan order,
// which is their (track, start, end) order, so the bands need no sorting. The walks over
// the same pieces (every width of the width search) share the groups and the points.
constexpr int kGroupedTracks = 64;
struct TrackGroups {
    std::vector<Piece> byTrack;  // track by track, each track's pieces in plan order
    std::array<std::size_t, kGroupedTracks> first{};  // where each track's pieces begin
    std::array<std::size_t, kGroupedTracks> end{};    // where they end
    // What the cut into bands reads, in plan order.
    std::vector<std::int32_t> starts;
    std::vector<std::uint8_t> tracks;
    // distF's point of each track (X) and of each piece of byTrack (Y).
    std::array<double, kGroupedTracks> pointXs{};
    std::vector<double> pointYs;
    double originY = 0.0;  // the point of time 0
};

// The groups of ycroissant, or nothing for pieces out of plan order or of other tracks.
std::optional<TrackGroups> groupByTrack(const std::vector<Piece>& ycroissant,
                                        const PlanValues& values)
{
    for (std::size_t k = 0; k < ycroissant.size(); ++k) {
        const int track = ycroissant[k].track;
        if (track < 0 || track >= kGroupedTracks || (k > 0 && planOrder(ycroissant[k], ycroissant[k - 1])))
            return std::nullopt;
    }
    TrackGroups groups;
    for (const Piece& piece : ycroissant)
        ++groups.end[static_cast<std::size_t>(piece.track)];
    std::size_t offset = 0;
    for (std::size_t t = 0; t < groups.first.size(); ++t) {
        groups.first[t] = offset;
        offset += groups.end[t];
        groups.end[t] = offset;
    }
    const std::size_t n = ycroissant.size();
    groups.byTrack.resize(n);
    groups.starts.resize(n);
    groups.tracks.resize(n);
    std::array<std::size_t, kGroupedTracks> fill = groups.first;
    for (std::size_t i = 0; i < n; ++i) {
        const Piece& piece = ycroissant[i];
        groups.byTrack[fill[static_cast<std::size_t>(piece.track)]++] = piece;
        groups.starts[i] = piece.startMs;
        groups.tracks[i] = static_cast<std::uint8_t>(piece.track);
    }
    // From a copy of the values, which the points written cannot alias.
    const PlanValues v = values;
    for (int track = 0; track < kGroupedTracks; ++track)
        groups.pointXs[static_cast<std::size_t>(track)] = pointX(v, track);
    groups.originY = pointY(v, 0);
    groups.pointYs.resize(n);
    for (std::size_t k = 0; k < n; ++k)
        groups.pointYs[k] = pointY(v, groups.byTrack[k].startMs);
    return groups;
}

// travelOrderSorting's walk over the groups: visitRun(track, from, to, ascending) for each
// track group of each band in visiting order, the group being groups.byTrack[from, to),
// visited from its first piece when ascending, else from its last. Returns visitRun, which
// may keep what it adds up.
template <typename VisitRun>
VisitRun travelOrderByTrack(const TrackGroups& groups, int temps_fourchette, VisitRun visitRun)
{
    constexpr int kTracks = kGroupedTracks;
    std::array<std::size_t, kTracks> next = groups.first;  // each track's first piece not visited
    std::array<std::size_t, kTracks> inBand{};              // the band's piece count of each track
    const std::int32_t* starts = groups.starts.data();
    const std::uint8_t* tracks = groups.tracks.data();
    const double* pointYs = groups.pointYs.data();
    int derniere_piste = 0;  // every generation starts from track 0
    long long debut_bande = 0;
    const std::size_t n = groups.starts.size();
    std::size_t i = 0;
    while (i < n) {
        // The band: the pieces from i on, its first piece and those starting up to
        // debut_bande + temps_fourchette.
        const long long bandEnd = debut_bande + temps_fourchette;
        if (i + 1 == n || starts[i + 1] > bandEnd) {
            // A band of one piece, the most common at small widths.
            const int track = tracks[i];
            const std::size_t from = next[static_cast<std::size_t>(track)]++;
            visitRun(track, from, from + 1, true);
            derniere_piste = track;
            if (++i < n)
                debut_bande = starts[i];
            continue;
        }
        // The tracks the band holds, as bits.
        std::uint64_t present = 0;
        std::size_t j = i;
        do {
            present |= std::uint64_t{1} << tracks[j];
            ++inBand[tracks[j]];
            ++j;
        } while (j < n && starts[j] <= bandEnd);

        const int firstTrack = std::countr_zero(present);
        const int lastTrack = kTracks - 1 - std::countl_zero(present);
        const bool sens = std::abs(firstTrack - derniere_piste) > std::abs(lastTrack - derniere_piste);
        // Ordonne_bande: track by track in the walking direction, each track from its end
        // nearer to the previous piece (the first from track 0 at time 0).
        double previousX = groups.pointXs[0];
        double previousY = groups.originY;
        int track = 0;
        while (present != 0) {
            track = sens ? kTracks - 1 - std::countl_zero(present) : std::countr_zero(present);
            present &= ~(std::uint64_t{1} << track);
            const auto t = static_cast<std::size_t>(track);
            const std::size_t from = next[t];
            const std::size_t to = from + std::exchange(inBand[t], 0);
            next[t] = to;
            const double x = groups.pointXs[t];
            const bool ascending =
                to - from == 1 || squaredDistance(previousX, previousY, x, pointYs[from]) <=
                                      squaredDistance(previousX, previousY, x, pointYs[to - 1]);
            visitRun(track, from, to, ascending);
            previousX = x;
            previousY = pointYs[ascending ? to - 1 : from];
        }
        derniere_piste = track;
        i = j;
        if (i < n)
            debut_bande = starts[i];
    }
    return visitRun;
}

// Optimise_trajets' walk, grouped when the pieces allow it (groups from groupByTrack):
// visit(piece) for each piece in travel order.
template <typename Visit>
void travelOrder(const std::vector<Piece>& ycroissant, const std::optional<TrackGroups>& groups,
                 int temps_fourchette, const PlanValues& values, Visit&& visit)
{
    if (!groups) {
        travelOrderSorting(ycroissant, temps_fourchette, values, visit);
        return;
    }
    const Piece* byTrack = groups->byTrack.data();
    travelOrderByTrack(*groups, temps_fourchette,
                       [&visit, byTrack](int, std::size_t from, std::size_t to, bool ascending) {
                           if (ascending) {
                               for (std::size_t k = from; k < to; ++k)
                                   visit(byTrack[k]);
                           } else {
                               for (std::size_t k = to; k-- > from;)
                                   visit(byTrack[k]);
                           }
                       });
}

// writeProgram's distance_totale at any band width, for grouped pieces on tracks whose
// positions are finite. A walk writes the square of each move in visiting order; their
// square roots, added in that order, are the program's sum. A hole follows the one before
// on its own track from the same X, so that move is the Y step alone, made once here for
// all widths (its square is the same in either direction).
class GroupTravel {
public:
    GroupTravel(const TrackGroups& groups, const PlanValues& values, const MarkRange& marks)
        : m_groups(groups)
    {
        const MarkFilter betweenMarks(marks);
        const std::size_t n = groups.byTrack.size();
        m_ys.resize(n);
        m_squaredSteps.resize(n);
        for (std::size_t t = 0; t < kGroupedTracks; ++t) {
            m_x[t] = Position_piste(values, static_cast<int>(t));
            // A track's pieces go by start, so those between the marks follow each other.
            m_keptFrom[t] = groups.end[t];
            m_keptTo[t] = groups.end[t];
            for (std::size_t k = groups.first[t]; k < groups.end[t]; ++k) {
                m_ys[k] = holeY(values, groups.byTrack[k]);
                const double dy = k > groups.first[t] ? m_ys[k] - m_ys[k - 1] : 0.0;
                m_squaredSteps[k] = dy * dy;
                if (betweenMarks.keeps(groups.byTrack[k].startMs)) {
                    if (m_keptFrom[t] == groups.end[t])
                        m_keptFrom[t] = k;
                    m_keptTo[t] = k + 1;
                }
            }
            for (std::size_t k = m_keptFrom[t]; k < m_keptTo[t]; ++k)
                m_usable = m_usable && betweenMarks.keeps(groups.byTrack[k].startMs);
            m_usable = m_usable && (groups.first[t] == groups.end[t] || std::isfinite(m_x[t]));
            m_moveCount += m_keptTo[t] - m_keptFrom[t];
        }
    }

    // False when the shortcut does not hold for these pieces (travelDistances then walks
    // piece by piece).
    bool usable() const { return m_usable; }

    // moves: room for the walk, kept from one width to the next.
    double distance(int temps_fourchette, std::vector<double>& moves) const
    {
        moves.resize(m_moveCount);
        travelOrderByTrack(m_groups, temps_fourchette, Walker{*this, moves.data()});
        // The square roots do not wait for the sum, which goes in visiting order.
        double total = 0.0;
        for (const double move : moves)
            total += std::sqrt(move);
        return total;
    }

private:
    // Writes the squares of the moves of a walk, group after group.
    struct Walker {
        const GroupTravel& measures;
        double* moves;
        double x = 0.0;  // where the head stands
        double y = 0.0;
        void operator()(int track, std::size_t from, std::size_t to, bool ascending)
        {
            const auto t = static_cast<std::size_t>(track);
            const std::size_t a = std::max(from, measures.m_keptFrom[t]);
            const std::size_t b = std::min(to, measures.m_keptTo[t]);
            if (a >= b)
                return;
            const double* ys = measures.m_ys.data();
            const double* squaredSteps = measures.m_squaredSteps.data();
            const double toX = measures.m_x[t];
            if (ascending) {
                *moves++ = squaredMove(x, y, toX, ys[a]);
                for (std::size_t k = a + 1; k < b; ++k)
                    *moves++ = squaredSteps[k];
                y = ys[b - 1];
            } else {
                *moves++ = squaredMove(x, y, toX, ys[b - 1]);
                for (std::size_t k = b - 1; k > a; --k)
                    *moves++ = squaredSteps[k];
                y = ys[a];
            }
            x = toX;
        }
    };

    const TrackGroups& m_groups;
    std::array<double, kGroupedTracks> m_x{};  // Position_piste of each track
    std::vector<double> m_ys;                 // holeY of each piece of byTrack
    std::vector<double> m_squaredSteps;       // the move from the piece before on its track
    std::array<std::size_t, kGroupedTracks> m_keptFrom{};  // each track's holes between
    std::array<std::size_t, kGroupedTracks> m_keptTo{};    // the marks: [from, to)
    std::size_t m_moveCount = 0;                            // all holes between the marks
    bool m_usable = true;
};

// The threads to share the measures of widthCount widths of pieceCount pieces: one while
// the work is too small to pay for starting threads.
unsigned measuringThreads(std::size_t pieceCount, std::size_t widthCount)
{
    const std::size_t work = pieceCount * widthCount / kTravelMovesPerThread;
    const std::size_t cores = std::max(1u, std::thread::hardware_concurrency());
    return static_cast<unsigned>(std::max<std::size_t>(1, std::min({work, cores, widthCount})));
}

}  // namespace

std::vector<Piece> Ordonne_bande(const std::vector<Piece>& band, bool sens,
                                 const PlanValues& values)
{
    std::vector<Piece> ordered;
    ordered.reserve(band.size());
    orderBand(band.data(), band.size(), sens, values,
              [&ordered](const Piece& piece) { ordered.push_back(piece); });
    return ordered;
}

std::vector<Piece> Optimise_trajets(const std::vector<Piece>& ycroissant, int temps_fourchette,
                                    const PlanValues& values)
{
    const std::optional<TrackGroups> groups = groupByTrack(ycroissant, values);
    std::vector<Piece> finale;
    if (!groups) {
        finale.reserve(ycroissant.size());
        travelOrderSorting(ycroissant, temps_fourchette, values,
                           [&finale](const Piece& piece) { finale.push_back(piece); });
        return finale;
    }
    // Each track group is a stretch of byTrack, copied forwards or backwards.
    finale.resize(ycroissant.size());
    const Piece* byTrack = groups->byTrack.data();
    travelOrderByTrack(*groups, temps_fourchette,
                       [byTrack, out = finale.data()](int, std::size_t from, std::size_t to,
                                                      bool ascending) mutable {
                           if (ascending)
                               out = std::copy(byTrack + from, byTrack + to, out);
                           else
                               out = std::reverse_copy(byTrack + from, byTrack + to, out);
                       });
    return finale;
}

std::vector<double> travelDistances(const std::vector<Piece>& ycroissant,
                                    const std::vector<int>& widths, const PlanValues& values,
                                    const MarkRange& marks)
{
    // Made once for all widths: the grouping by track and what the travel reads of it.
    const std::optional<TrackGroups> groups = groupByTrack(ycroissant, values);
    std::optional<GroupTravel> grouped;
    if (groups)
        grouped.emplace(*groups, values, marks);
    const bool shortcut = grouped && grouped->usable();

    // Otherwise piece by piece, as the program is written.
    int highest = 0;
    if (!shortcut) {
        for (const Piece& piece : ycroissant)
            highest = std::max(highest, piece.track);
    }
    std::vector<double> positions(static_cast<std::size_t>(highest) + 1);
    for (int track = 0; !shortcut && track <= highest; ++track)
        positions[static_cast<std::size_t>(track)] = Position_piste(values, track);
    const MarkFilter betweenMarks(marks);
    auto pieceByPiece = [&](int width) {
        TravelLength travel;
        travelOrder(ycroissant, groups, width, values, [&](const Piece& piece) {
            if (!betweenMarks.keeps(piece.startMs))
                return;
            const double x = piece.track >= 0 ? positions[static_cast<std::size_t>(piece.track)]
                                              : Position_piste(values, piece.track);
            travel.moveTo(x, holeY(values, piece));
        });
        return travel.total;
    };

    // The widths are independent: each thread takes the next width not yet taken.
    std::vector<double> distances(widths.size());
    std::atomic<std::size_t> nextWidth{0};
    auto measure = [&] {
        std::vector<double> moves;
        for (std::size_t w = nextWidth++; w < widths.size(); w = nextWidth++)
            distances[w] = shortcut ? grouped->distance(widths[w], moves) : pieceByPiece(widths[w]);
    };
    const unsigned threads = measuringThreads(ycroissant.size(), widths.size());
    std::vector<std::thread> helpers;
    helpers.reserve(threads);
    for (unsigned t = 1; t < threads; ++t) {
        try {
            helpers.emplace_back(measure);
        } catch (const std::system_error&) {
            break;  // no thread to be had: the others take its widths
        }
    }
    measure();
    for (std::thread& helper : helpers)
        helper.join();
    return distances;
}

}  // namespace veltrin
