#pragma once
// What the play commands play: the song as decoded (Liste_play), or the roll as the organ
// will read it from the holes of the last program; both between the marks.

#include <string>
#include <vector>

#include "app/app_state.h"
#include "view/playback.h"

namespace veltrin {

enum class PlaybackSource {
    Song,  // the song's notes (Liste_play): "Play (p)"
    Roll,  // the holes of the last program, as the organ reads them
};

struct PlaybackPlan {
    PlaybackSchedule schedule;
    // S: mm of roll per second of song (the roll speed of the last program), for the view.
    double mmPerSecond = 0.0;
};

// The marks as a playback stretch: from debut_marque (none = from the start of the song) to
// fin_marque, which at 500000 means to the end of the song.
PlaybackRange playbackRange(const AppState& state);

// The notes an organ plays from the holes of the last program (writtenHoles), as playback
// lines "TTTTTTT NNN NOTE" / "TTTTTTT NNN NOOF", sorted: each track's note sounds while one
// of its holes passes the reading bar (a laser cut from its piece's start to its end, a punch
// strike for L_poincon of roll from its piece's start), the holes of one note running into
// each other sounding as one note. Bridges are thus short silences, and a note the scale has
// no track for is never heard. Times are those of the program's own roll speed and scale
// (programSettings; the current settings before any program).
std::vector<std::string> rollPlayLines(const AppState& state);

// The playback of source between the marks.
PlaybackPlan playbackPlan(const AppState& state, PlaybackSource source);

}  // namespace veltrin
