// The travel order: bands along the roll, visited in a serpentine across and along it.

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <utility>

#include "plan/plan_steps.h"

namespace veltrin {

double distF(const Piece& a, const Piece& b, const PlanValues& values)
{
    const double xa = values.pas_pistes * a.track + values.talon_x;
    const double xb = values.pas_pistes * b.track + values.talon_x;
    const double ya = values.Vitcarton * a.startMs / 1000.0;
    const double yb = values.Vitcarton * b.startMs / 1000.0;
    return (xa - xb) * (xa - xb) + (ya - yb) * (ya - yb);
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
// which is their (track, start, end) order, so the bands need no sorting.
constexpr int kGroupedTracks = 64;
struct TrackGroups {
    std::vector<Piece> byTrack;  // track by track, each track's pieces in plan order
    std::array<std::size_t, kGroupedTracks> first{};  // where each track's pieces begin
};

// The groups of ycroissant, or nothing for pieces out of plan order or of other tracks.
std::optional<TrackGroups> groupByTrack(const std::vector<Piece>& ycroissant)
{
    for (std::size_t k = 0; k < ycroissant.size(); ++k) {
        const int track = ycroissant[k].track;
        if (track < 0 || track >= kGroupedTracks || (k > 0 && planOrder(ycroissant[k], ycroissant[k - 1])))
            return std::nullopt;
    }
    TrackGroups groups;
    for (const Piece& piece : ycroissant)
        ++groups.first[static_cast<std::size_t>(piece.track)];
    std::size_t offset = 0;
    for (std::size_t& first : groups.first)
        offset += std::exchange(first, offset);
    groups.byTrack.resize(ycroissant.size());
    std::array<std::size_t, kGroupedTracks> fill = groups.first;
    for (const Piece& piece : ycroissant)
        groups.byTrack[fill[static_cast<std::size_t>(piece.track)]++] = piece;
    return groups;
}

// travelOrderSorting's walk over the groups of ycroissant.
template <typename Visit>
void travelOrderByTrack(const std::vector<Piece>& ycroissant, const TrackGroups& groups,
                        int temps_fourchette, const PlanValues& values, Visit&& visit)
{
    constexpr int kTracks = kGroupedTracks;
    std::array<std::size_t, kTracks> next = groups.first;  // each track's first piece not visited
    std::array<std::size_t, kTracks> inBand{};              // the band's piece count of each track
    int derniere_piste = 0;                                 // every generation starts from track 0
    long long debut_bande = 0;
    const std::size_t n = ycroissant.size();
    std::size_t i = 0;
    while (i < n) {
        // The band: ycroissant[i, j), its first piece and those starting up to
        // debut_bande + temps_fourchette; the tracks it holds, as bits.
        std::uint64_t tracks = 0;
        std::size_t j = i;
        do {
            const auto track = static_cast<std::size_t>(ycroissant[j].track);
            tracks |= std::uint64_t{1} << track;
            ++inBand[track];
            ++j;
        } while (j < n && ycroissant[j].startMs <= debut_bande + temps_fourchette);

        const int firstTrack = std::countr_zero(tracks);
        const int lastTrack = kTracks - 1 - std::countl_zero(tracks);
        const bool sens = std::abs(firstTrack - derniere_piste) > std::abs(lastTrack - derniere_piste);
        // Ordonne_bande: track by track in the walking direction, each track from its end
        // nearer to the previous piece (the first from track 0 at time 0).
        Piece previous{};
        while (tracks != 0) {
            const int track = sens ? kTracks - 1 - std::countl_zero(tracks) : std::countr_zero(tracks);
            tracks &= ~(std::uint64_t{1} << track);
            const auto t = static_cast<std::size_t>(track);
            const Piece* run = groups.byTrack.data() + next[t];
            const std::size_t count = std::exchange(inBand[t], 0);
            next[t] += count;
            const bool ascending = count == 1 || distF(previous, run[0], values) <=
                                                     distF(previous, run[count - 1], values);
            if (ascending) {
                for (std::size_t k = 0; k < count; ++k)
                    visit(run[k]);
                previous = run[count - 1];
            } else {
                for (std::size_t k = count; k-- > 0;)
                    visit(run[k]);
                previous = run[0];
            }
        }
        derniere_piste = previous.track;
        i = j;
        if (i < n)
            debut_bande = ycroissant[i].startMs;
    }
}

// Optimise_trajets' walk, grouped when the pieces allow it (groups from groupByTrack).
template <typename Visit>
void travelOrder(const std::vector<Piece>& ycroissant, const std::optional<TrackGroups>& groups,
                 int temps_fourchette, const PlanValues& values, Visit&& visit)
{
    if (groups)
        travelOrderByTrack(ycroissant, *groups, temps_fourchette, values, visit);
    else
        travelOrderSorting(ycroissant, temps_fourchette, values, visit);
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
    std::vector<Piece> finale;
    finale.reserve(ycroissant.size());
    travelOrder(ycroissant, groupByTrack(ycroissant), temps_fourchette, values,
                [&finale](const Piece& piece) { finale.push_back(piece); });
    return finale;
}

std::vector<double> travelDistances(const std::vector<Piece>& ycroissant,
                                    const std::vector<int>& widths, const PlanValues& values,
                                    const MarkRange& marks)
{
    // Made once for all widths: Position_piste of each track (tracks from the scale are
    // never below 0) and the grouping by track.
    int highest = 0;
    for (const Piece& piece : ycroissant)
        highest = std::max(highest, piece.track);
    std::vector<double> positions(static_cast<std::size_t>(highest) + 1);
    for (int track = 0; track <= highest; ++track)
        positions[static_cast<std::size_t>(track)] = Position_piste(values, track);
    const std::optional<TrackGroups> groups = groupByTrack(ycroissant);
    const MarkFilter betweenMarks(marks);

    std::vector<double> distances;
    for (const int width : widths) {
        TravelLength travel;
        travelOrder(ycroissant, groups, width, values, [&](const Piece& piece) {
            if (!betweenMarks.keeps(piece.startMs))
                return;
            const double x = piece.track >= 0 ? positions[static_cast<std::size_t>(piece.track)]
                                              : Position_piste(values, piece.track);
            travel.moveTo(x, holeY(values, piece));
        });
        distances.push_back(travel.total);
    }
    return distances;
}

}  // namespace veltrin
