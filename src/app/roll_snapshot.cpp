#include "app/roll_snapshot.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <iterator>
#include <string_view>
#include <utility>

#include "base/numeric_text.h"
#include "midi/resume_file.h"
#include "plan/plan_steps.h"
#include "scales/scale_file.h"

namespace veltrin {

namespace {

// Where a track's holes lie across the roll, as the program writes them.
struct TrackColumn {
    double x1 = 0.0;     // Position_piste: left edge of a laser cut, axis of a strike
    double width = 0.0;  // hole size across
    double axis = 0.0;
};

TrackColumn trackColumn(const PlanValues& v, int track)
{
    TrackColumn column;
    column.x1 = Position_piste(v, track);
    // The 20-note scale's four bass holes are BassesAF wide, as the program cuts them.
    column.width = v.standard_AF_actif && track < 4 ? v.BassesAF : v.Ldecoupe;
    column.axis = v.laser ? column.x1 + column.width / 2.0 : column.x1;
    return column;
}

RollHole holeOf(const PlanValues& v, const TrackColumn& column, const Piece& piece, int programLine)
{
    RollHole hole;
    hole.track = piece.track;
    hole.programLine = programLine;
    if (v.laser) {
        // The cut's rectangle: from Position_piste across, from the piece's start to its end.
        hole.x0 = static_cast<float>(column.x1);
        hole.x1 = static_cast<float>(column.x1 + column.width);
        hole.y0 = static_cast<float>(holeY(v, piece));
        hole.y1 = static_cast<float>(piece.endMs * v.Vitcarton / 1000.0);
    } else {
        // One strike of the punch, centred where the program moves it.
        const double centre = holeY(v, piece);
        hole.x0 = static_cast<float>(column.axis - column.width / 2.0);
        hole.x1 = static_cast<float>(column.axis + column.width / 2.0);
        hole.y0 = static_cast<float>(centre - v.L_poincon / 2.0);
        hole.y1 = static_cast<float>(centre + v.L_poincon / 2.0);
    }
    return hole;
}

// The pieces of the plan that the last program leaves out (those outside the marks): the
// travel-ordered pieces less the holes written, counted as a multiset.
std::vector<Piece> piecesLeftOut(const AppState& state)
{
    if (state.List_GC_Finale.size() <= state.writtenHoles.size())
        return {};
    std::vector<Piece> plan = state.List_GC_Finale;
    std::vector<Piece> written;
    written.reserve(state.writtenHoles.size());
    for (const auto& [piece, line] : state.writtenHoles)
        written.push_back(piece);
    std::sort(plan.begin(), plan.end(), planOrder);
    std::sort(written.begin(), written.end(), planOrder);
    std::vector<Piece> left;
    std::set_difference(plan.begin(), plan.end(), written.begin(), written.end(), std::back_inserter(left),
                        planOrder);
    return left;
}

// Where a note the scale does not play would lie across the roll: between the axes of the
// scale's nearest lower and higher notes, in proportion to the pitch; half a track pitch
// beyond the last track for a note below or above them all.
class PitchPlaces {
public:
    PitchPlaces(const OrganScale& scale, int trackCount, const std::vector<double>& axes, double pitchMm,
                double widthMm)
        : m_pitchMm(pitchMm), m_widthMm(widthMm)
    {
        for (int track = 0; track < trackCount; ++track) {
            const int note = scale.trackNote(track);
            if (note < 0 || note >= static_cast<int>(m_played.size()))
                continue;
            if (!m_played[static_cast<std::size_t>(note)])
                m_notes.emplace_back(note, axes[static_cast<std::size_t>(track)]);
            m_played[static_cast<std::size_t>(note)] = true;
        }
        std::sort(m_notes.begin(), m_notes.end());
    }

    bool played(int note) const
    {
        return note >= 0 && note < static_cast<int>(m_played.size()) && m_played[static_cast<std::size_t>(note)];
    }

    double place(int note) const
    {
        if (m_notes.empty())
            return m_widthMm / 2.0;
        const auto higher = std::upper_bound(m_notes.begin(), m_notes.end(), std::pair{note, 1e300});
        if (higher == m_notes.begin())
            return std::max(0.0, higher->second - m_pitchMm / 2.0);
        const auto lower = higher - 1;
        if (higher == m_notes.end())
            return std::min(m_widthMm, lower->second + m_pitchMm / 2.0);
        const double share = double(note - lower->first) / double(higher->first - lower->first);
        return lower->second + share * (higher->second - lower->second);
    }

private:
    double m_pitchMm;
    double m_widthMm;
    std::array<bool, 1000> m_played{};
    std::vector<std::pair<int, double>> m_notes;  // (note, axis), the first track of each note
};

// The notes of the playback list ("TTTTTTT NNN NOTE" / "TTTTTTT NNN NOOF") that no track
// plays, each NOOF closing the earliest open start of its note.
std::vector<DroppedNote> droppedNotes(const std::vector<std::string>& Liste_play, const PitchPlaces& places,
                                      double Vitcarton)
{
    std::vector<DroppedNote> dropped;
    // Per note, its starts not yet closed: open[note][next[note]] onwards.
    std::vector<std::vector<long>> open(1000);
    std::vector<std::size_t> next(1000, 0);
    for (const std::string& line : Liste_play) {
        if (line.size() < 16)
            continue;
        long time = 0;
        int note = 0;
        const char* text = line.data();
        if (std::from_chars(text, text + 7, time).ec != std::errc() ||
            std::from_chars(text + 8, text + 11, note).ec != std::errc() || note < 0 || note >= 1000 ||
            places.played(note))
            continue;
        const std::string_view kind(text + 12, 4);
        const auto slot = static_cast<std::size_t>(note);
        std::vector<long>& starts = open[slot];
        if (kind == "NOTE") {
            starts.push_back(time);
        } else if (kind == "NOOF" && next[slot] < starts.size()) {
            DroppedNote& d = dropped.emplace_back();
            d.x = static_cast<float>(places.place(note));
            d.y0 = static_cast<float>(static_cast<double>(starts[next[slot]++]) * Vitcarton / 1000.0);
            d.y1 = static_cast<float>(static_cast<double>(time) * Vitcarton / 1000.0);
            d.note = note;
        }
    }
    std::stable_sort(dropped.begin(), dropped.end(),
                     [](const DroppedNote& a, const DroppedNote& b) { return a.y0 < b.y0; });
    return dropped;
}

}  // namespace

RollPicture rollPictureOf(const AppState& state)
{
    RollPicture picture;
    // 1. The values the last program was made with: the operator may have edited a setting
    //    since, and a resumed song is made with its resume file's values.
    Settings settings = state.settings;
    OrganScale scale = state.scale;
    if (!state.programSettings.empty())
        applyPlanSettings(state.programSettings, settings, scale);
    const PlanValues v = planValues(settings, scale);
    picture.mmPerSecond = v.Vitcarton;
    picture.foldLengthMm = scale.longueur_pli;

    // 2. The tracks across the roll.
    const int tableSize = scale.standard_AF_actif ? kAlderFennTracks : kMaxTracks;
    const int trackCount = std::clamp(scale.nb_notes, 0, tableSize);
    int highestTrack = trackCount - 1;
    for (const auto& [piece, line] : state.writtenHoles)
        highestTrack = std::max(highestTrack, piece.track);
    for (const Piece& piece : state.List_GC_Finale)
        highestTrack = std::max(highestTrack, piece.track);
    std::vector<TrackColumn> columns;
    for (int track = 0; track <= highestTrack; ++track)
        columns.push_back(trackColumn(v, track));
    double farEdge = 0.0;
    double topAxis = 0.0;
    for (int track = 0; track < trackCount; ++track) {
        const TrackColumn& column = columns[static_cast<std::size_t>(track)];
        picture.trackAxesMm.push_back(column.axis);
        farEdge = std::max(farEdge, column.axis + column.width / 2.0);
        topAxis = std::max(topAxis, column.axis);
    }

    // 3. The holes: those of the program, then the plan's pieces it leaves out.
    const auto columnOf = [&](int track) {
        return track >= 0 ? columns[static_cast<std::size_t>(track)] : trackColumn(v, track);
    };
    picture.holes.reserve(state.List_GC_Finale.size());
    for (const auto& [piece, line] : state.writtenHoles)
        picture.holes.push_back(holeOf(v, columnOf(piece.track), piece, line));
    for (const Piece& piece : piecesLeftOut(state))
        picture.holes.push_back(holeOf(v, columnOf(piece.track), piece, kNotInProgram));
    std::sort(picture.holes.begin(), picture.holes.end(), [](const RollHole& a, const RollHole& b) {
        return a.y0 != b.y0 ? a.y0 < b.y0 : a.track < b.track;
    });
    for (const RollHole& hole : picture.holes) {
        picture.longestHoleMm = std::max(picture.longestHoleMm, double{hole.y1 - hole.y0});
        picture.lengthMm = std::max(picture.lengthMm, double{hole.y1});
        farEdge = std::max(farEdge, double{hole.x1});
    }

    // 4. The roll width: a scale file gives it; a built-in scale leaves the same margin
    //    beyond the last track as Talon before the first (a file scale's width may still
    //    stand in the scale record after a built-in one is chosen).
    const double talon = leadingNumber(settings.Talon);
    picture.widthMm = !isBuiltInScale(settings.Standard) && scale.largeur_carton > 0.0
                          ? scale.largeur_carton
                          : (picture.trackAxesMm.empty() ? farEdge : topAxis + talon);
    picture.widthMm = std::max(picture.widthMm, farEdge);

    // 5. The notes no track plays.
    const PitchPlaces places(scale, trackCount, picture.trackAxesMm, v.pas_pistes, picture.widthMm);
    picture.dropped = droppedNotes(state.Liste_play, places, v.Vitcarton);
    for (const DroppedNote& note : picture.dropped) {
        picture.longestDroppedMm = std::max(picture.longestDroppedMm, double{note.y1 - note.y0});
        picture.lengthMm = std::max(picture.lengthMm, double{note.y1});
    }
    return picture;
}

}  // namespace veltrin
