#pragma once
// OrganScale: the active organ scale's layout beyond the values kept as settings text
// (Vitcarton, Talon, Dist_notes, Ldecoupe and BassesAF live in Settings).

#include <array>
#include <cstdint>
#include <string>

namespace veltrin {

inline constexpr int kMaxTracks = 51;
inline constexpr int kAlderFennTracks = 20;
inline constexpr const char* kKolbyName = "Kolby 27-29";
inline constexpr const char* kAlderFennName = "Alder Fenn 20";

struct OrganScale {
    // largeur_carton: roll width, mm; only used to derive facteur_dessin for a file scale.
    double largeur_carton = 0.0;
    // facteur_dessin: drawing scale across the roll, pixels per mm.
    double facteur_dessin = 3.0;
    // longueur_pli: length of one fold of a cardboard book, mm; 0 = not folded.
    double longueur_pli = 160.0;
    // nb_notes: number of tracks (at most 51).
    int nb_notes = 29;
    // notes_standard: MIDI note of each track for every scale but the 20-note built-in one.
    std::array<std::int16_t, kMaxTracks> notes_standard{};
    // notes_AF: MIDI note of each track of the 20-note built-in scale.
    std::array<std::int16_t, kAlderFennTracks> notes_AF{};
    // standard_AF_actif: set while the 20-note built-in scale is active (notes_AF in use).
    bool standard_AF_actif = false;

    // The MIDI note that track plays, from the table in use.
    int trackNote(int track) const
    {
        return standard_AF_actif ? notes_AF.at(static_cast<std::size_t>(track))
                                 : notes_standard.at(static_cast<std::size_t>(track));
    }
};

}  // namespace veltrin
