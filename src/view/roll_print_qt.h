#pragma once
// The roll on paper, painted with QtGui: a PDF (QPdfWriter) of one page per sheet, or an SVG
// (QSvgGenerator) holding the sheets one under another. Painting text needs a
// QGuiApplication (the command line makes one on the offscreen platform).

#include <QString>

#include "base/result.h"
#include "view/roll_print.h"

namespace veltrin {

struct AppState;

// Blank between two sheets in an SVG file, mm; each sheet is framed by a hairline.
inline constexpr double kSvgSheetGapMm = 10.0;
// SVG user units per millimetre of paper (the file's own width and height are in mm).
inline constexpr double kSvgUnitsPerMm = 10.0;

// Writes the roll (see layRollOnPaper, drawSheet) into path, a ".pdf" or ".svg" file (any
// case), replacing it whole or leaving it as it was. Returns the number of sheets.
Result<int, PrintError> printRoll(const RollPicture& picture, const PrintOptions& options, const QString& path);

// The footer of the state's roll: the song's title, the scale, the machine and the settings
// that shape the holes, with the values its last program was made with (the current
// settings before any program).
PrintFooter printFooterOf(const AppState& state);

}  // namespace veltrin
