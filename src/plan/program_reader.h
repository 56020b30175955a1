#pragma once
// Reads a G-code program back into the holes it makes: the rectangles a laser cuts and the
// strikes of a punch. Programs of ours and programs edited or written by hand alike: comments
// (";" to the end of the line, "(...)"), blanks anywhere, lower case, "$" lines, G90/G91,
// G20/G21 and G92 are understood as Grbl understands them.
//
// A laser cuts while a G1 (or G2/G3) move runs with the spindle on (M3 or M4) at a power
// above 0; G0 travels with the beam off (Grbl's laser mode, which a laser job needs). The
// moves of one cut, from one G0 to the next, make holes each time they come back to where
// they started: the hole is the rectangle around that closed path. A punch strikes on every
// move of Z; the strike is at the head's X and Y.

#include <string>
#include <string_view>
#include <vector>

namespace veltrin {

// One hole read back, in the program's coordinates (mm).
struct ReadHole {
    double x0 = 0.0;  // laser: the rectangle's left and right edges; punch: the axis, twice
    double x1 = 0.0;
    double y0 = 0.0;  // laser: the rectangle's ends along the roll; punch: the centre, twice
    double y1 = 0.0;
    int line = 0;     // the program line (1-based) that completes it
};

enum class ProgramMachine { Unknown, Laser, Punch };

struct ProgramReading {
    std::vector<ReadHole> cuts;     // laser holes, in program order
    std::vector<ReadHole> strikes;  // punch strikes, in program order
    // What the title line says the program is for (";Laser gcode..." / ";Punch gcode...").
    ProgramMachine titled = ProgramMachine::Unknown;
    // Cuts that never came back to their start: the line where each ended.
    std::vector<int> openCuts;
    // Lines not understood or not followed ("line 12: arcs are not read"), in order.
    std::vector<std::string> warnings;
};

// The holes of the program text (LF or CR LF line ends).
ProgramReading readProgram(std::string_view text);

}  // namespace veltrin
