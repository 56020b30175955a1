#pragma once
// The roll view's picture of the current plan: every hole of the last program written, as
// the machine will cut it, with the scale's tracks, the book's folds and the notes the scale
// does not play.

#include "app/app_state.h"
#include "view/roll_picture.h"

namespace veltrin {

// Laser holes run from the start to the end of their piece along the roll, Ldecoupe wide from
// the track's Position_piste; punch strikes are L_poincon long, centred on the strike's Y, and
// Ldecoupe (BassesAF on the 20-note scale's wide bass tracks) wide around the track axis.
// The values are those the last program was made with (state.programSettings; the current
// settings before any program), so an edit that has not made a new program moves nothing.
// Pieces of the plan that a program between marks leaves out come with kNotInProgram.
RollPicture rollPictureOf(const AppState& state);

}  // namespace veltrin
