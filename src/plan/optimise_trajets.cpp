// The travel order: bands along the roll, visited in a serpentine across and along it.

#include <algorithm>
#include <cstdlib>

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

// Ordonne_bande's walk over band[0..count), appended to ordered.
void orderBand(const Piece* band, std::size_t count, bool sens, const PlanValues& values,
               std::vector<Piece>& ordered)
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
        if (ascending)
            ordered.insert(ordered.end(), band + first, band + last);
        else
            for (std::size_t i = last; i-- > first;)
                ordered.push_back(band[i]);
        previous = ordered.back();
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

}  // namespace

std::vector<Piece> Ordonne_bande(const std::vector<Piece>& band, bool sens,
                                 const PlanValues& values)
{
    std::vector<Piece> ordered;
    ordered.reserve(band.size());
    orderBand(band.data(), band.size(), sens, values, ordered);
    return ordered;
}

std::vector<Piece> Optimise_trajets(const std::vector<Piece>& ycroissant, int temps_fourchette,
                                    const PlanValues& values)
{
    std::vector<Piece> finale;
    finale.reserve(ycroissant.size());
    std::vector<Piece> band;  // List_GC_Xcroissant: the current band, (track, start, end) order
    int derniere_piste = 0;   // every generation starts from track 0

    auto closeBand = [&] {
        // The order of the band's track-first lines "TTT SSSSSSS EEEEEEE". Pieces equal in
        // all three fields are alike, so an unstable sort is enough.
        std::sort(band.begin(), band.end(), trackOrder);
        const int firstTrack = band.front().track;
        const int lastTrack = band.back().track;
        const bool sens = std::abs(firstTrack - derniere_piste) > std::abs(lastTrack - derniere_piste);
        orderBand(band.data(), band.size(), sens, values, finale);
        derniere_piste = finale.back().track;
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
    return finale;
}

}  // namespace veltrin
