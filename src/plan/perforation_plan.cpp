// The perforation plan: derived values, pairing of note starts and ends, the split into
// pieces and the track positions.

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "app/numeric_text.h"
#include "plan/plan_steps.h"

namespace veltrin {

namespace {

// Characters pos (1-based) to pos + length - 1 of line, as far as the line goes.
std::string_view mid(std::string_view line, std::size_t pos, std::size_t length)
{
    if (pos - 1 >= line.size())
        return {};
    return line.substr(pos - 1, length);
}

std::int32_t roundedMs(double ms)
{
    // Piece times are written with the pattern "0000000": rounded half away from zero.
    return static_cast<std::int32_t>(std::round(ms));
}

// leadingNumber of a field of a note line, whose fields are plain digits but for lines
// written by hand: digits alone are read directly.
double fieldNumber(std::string_view field)
{
    if (field.empty() || field.size() > 9)
        return leadingNumber(field);
    long value = 0;
    for (const char c : field) {
        if (c < '0' || c > '9')
            return leadingNumber(field);
        value = value * 10 + (c - '0');
    }
    return static_cast<double>(value);
}

// The first eight characters of text as one number whose order is the text order of those
// characters (missing characters count as 0).
std::uint64_t prefixKey(const std::string& text)
{
    std::uint64_t key = 0;
    for (std::size_t i = 0; i < 8; ++i)
        key = (key << 8) | (i < text.size() ? static_cast<unsigned char>(text[i]) : 0U);
    return key;
}

// Sorts lines in std::string order. The lines begin with fixed-width times, so comparing
// their first eight characters as one number settles most comparisons.
void sortLines(std::vector<std::string>& lines)
{
    struct Entry {
        std::uint64_t key;
        std::uint32_t index;
    };
    std::vector<Entry> entries(lines.size());
    for (std::size_t i = 0; i < lines.size(); ++i)
        entries[i] = Entry{prefixKey(lines[i]), static_cast<std::uint32_t>(i)};
    std::sort(entries.begin(), entries.end(), [&lines](const Entry& a, const Entry& b) {
        if (a.key != b.key)
            return a.key < b.key;
        return lines[a.index] < lines[b.index];
    });
    std::vector<std::string> sorted;
    sorted.reserve(lines.size());
    for (const Entry& entry : entries)
        sorted.push_back(std::move(lines[entry.index]));
    lines = std::move(sorted);
}

}  // namespace

std::string pieceLine(const Piece& piece)
{
    return fixedWidth(piece.startMs, 7) + " " + fixedWidth(piece.track, 3) + " " +
           fixedWidth(piece.endMs, 7);
}

std::string finalLine(const Piece& piece)
{
    return pieceLine(piece) + (piece.flag ? " 1" : " 0");
}

int bandTime(double fourchetteMm, double Vitcarton)
{
    return static_cast<int>(roundHalfEven(fourchetteMm * 1000.0 / Vitcarton));
}

PlanValues planValues(const Settings& settings, const OrganScale& scale)
{
    PlanValues v;
    v.Vitcarton = leadingNumber(settings.Vitcarton);
    v.temps_pont = leadingNumber(settings.Lgponts) * 1000.0 / v.Vitcarton;
    v.temps_morceau = leadingNumber(settings.Dist_ponts) * 1000.0 / v.Vitcarton;
    v.largeur_coupe = leadingNumber(settings.Ldecoupe);
    v.laser = settings.isLaser();
    v.Ldecoupe = v.largeur_coupe;
    v.talon_x = v.laser ? leadingNumber(settings.Talon) - v.Ldecoupe / 2.0
                        : leadingNumber(settings.Talon);
    v.origine_x = leadingNumber(v.laser ? settings.OrigineX : settings.OrigineX_poin);
    v.vitesse_avance = static_cast<int>(
        roundHalfEven(leadingNumber(v.laser ? settings.VitesseF : settings.VitesseF_poin)));
    v.pas_pistes = leadingNumber(settings.Dist_notes);
    v.temps_fourchette = bandTime(leadingNumber(settings.Fourchette), v.Vitcarton);
    v.L_poincon = leadingNumber(settings.L_poincon);
    v.temps_poincon = v.L_poincon * 1000.0 / v.Vitcarton;
    v.BassesAF = leadingNumber(settings.BassesAF);
    v.standard_AF_actif = scale.standard_AF_actif;
    return v;
}

std::vector<std::string> pairNotes(const std::vector<std::string>& Liste_tran,
                                   std::vector<std::string>& playLines)
{
    std::vector<std::string> notes;
    notes.reserve(Liste_tran.size() / 2);
    playLines.clear();
    playLines.reserve(Liste_tran.size());
    std::string pending;
    std::string_view lastNote;  // note number of the last NOTE line, for the NOOF playback line
    auto playLine = [&](std::string_view line, std::string_view what) {
        std::string& play = playLines.emplace_back();
        play.reserve(16);
        play.append(mid(line, 6, 8)).append(lastNote).append(what);
    };
    for (const std::string& line : Liste_tran) {
        const std::string_view keyword = mid(line, 1, 4);
        if (keyword == "NOTE") {
            lastNote = mid(line, 29, 3);
            pending.assign(mid(line, 6, 7)).append(" ").append(lastNote);
            playLine(line, " NOTE");
        } else if (keyword == "NOOF") {
            // Positional on purpose: a NOOF closes whatever note was opened last.
            std::string& note = notes.emplace_back();
            note.reserve(19);
            note.append(pending).append(" ").append(mid(line, 6, 7));
            pending.clear();
            playLine(line, " NOOF");
        }
    }
    sortLines(notes);
    sortLines(playLines);
    return notes;
}

SplitResult Decoupe_notes(const std::vector<std::string>& noteLines, bool fractionner,
                          const PlanValues& values, const OrganScale& scale)
{
    SplitResult result;
    // 1. Bridges of the laser keep a margin, so that the last piece is never a sliver; the
    //    punch works in strikes and needs none.
    double marge_pont = 0.0;
    double temps_morceau = values.temps_morceau;
    if (values.laser)
        marge_pont = static_cast<double>(roundHalfEven(values.temps_pont + 50.0));
    else
        temps_morceau = values.temps_poincon;

    const bool af = scale.standard_AF_actif;
    const int tableSize = af ? kAlderFennTracks : kMaxTracks;
    const int searched = std::clamp(scale.nb_notes, 0, tableSize);
    result.pieces.reserve(noteLines.size());

    for (const std::string& line : noteLines) {
        // 2. The note line's fields.
        double start = fieldNumber(mid(line, 1, 7));
        const double end = fieldNumber(mid(line, 13, 7));
        const double duree = end - start;
        const double note = fieldNumber(mid(line, 9, 3));

        // 3. Its track: the first table entry that plays this note.
        int piste = -1;
        for (int i = 0; i < searched; ++i) {
            const double tableNote = af ? scale.notes_AF[static_cast<std::size_t>(i)]
                                        : scale.notes_standard[static_cast<std::size_t>(i)];
            if (tableNote == note) {
                piste = i;
                break;
            }
        }
        if (piste < 0) {
            ++result.notes_hors_gamme;
            continue;
        }
        result.piste_courante = piste;

        auto add = [&](double from, double to) {
            result.pieces.push_back(Piece{roundedMs(from), piste, roundedMs(to), false});
        };
        // 4. The pieces.
        if (fractionner && duree >= temps_morceau) {
            double reste = duree;
            while (reste > marge_pont + temps_morceau) {
                add(start, start + temps_morceau);
                start += temps_morceau + values.temps_pont;
                reste -= temps_morceau + values.temps_pont;
            }
            if (values.laser)
                add(start, end);
            else
                add(end - values.temps_poincon, end);  // last strike ends at the note's end
        } else {
            add(start, end);
        }
    }
    std::sort(result.pieces.begin(), result.pieces.end(),
              [](const Piece& a, const Piece& b) { return planOrder(a, b); });
    return result;
}

double Position_piste(const PlanValues& values, int piste)
{
    if (!values.standard_AF_actif)
        return values.talon_x + piste * values.pas_pistes;
    // The 20-note scale: the four bass tracks are wider and spaced 1.5 pitches; the treble
    // tracks stay on the normal grid, so only the bass tracks are shifted by decalage.
    if (piste <= 3) {
        const double decalage = values.laser ? (values.BassesAF - values.Ldecoupe) / 2.0 : 0.0;
        return values.talon_x - decalage + piste * 1.5 * values.pas_pistes;
    }
    return values.talon_x + 4.5 * values.pas_pistes + (piste - 3) * values.pas_pistes;
}

}  // namespace veltrin
