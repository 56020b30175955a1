#pragma once
// The roll on paper: a RollPicture laid at 1:1 onto A4 or Letter sheets, for makers who punch
// by hand from a printed template or check a scale against their organ before cutting.
//
// The roll runs down each sheet, along its long side, border X = 0 on the left, the start of
// the song at the top of sheet 1. A roll too wide for the short side is turned to run along
// the short side of a landscape sheet; one too wide for that as well is refused (a roll split
// lengthwise across sheets could not be glued true enough to punch from). Consecutive sheets
// share overlapMm of roll: a dashed join line halfway through the shared stretch, with
// alignment marks on both borders, lies at the same roll position on both sheets.
//
// Use: layRollOnPaper(picture, options) pages the roll (or says why it cannot), then
// drawSheet(picture, layout, footer, k) gives what sheet k shows, in millimetres of sheet
// from its top left corner; a painter (view/roll_print_qt.h) only draws it.

#include <string>
#include <utility>
#include <vector>

#include "base/result.h"
#include "view/roll_picture.h"

namespace veltrin {

enum class Paper { A4, Letter };

// A sheet standing upright (portrait), mm.
struct PaperSize {
    double widthMm = 0.0;
    double heightMm = 0.0;
};
PaperSize paperSize(Paper paper);
const char* paperName(Paper paper);

// What the footer of every sheet says besides its page number.
struct PrintFooter {
    std::string song;     // the song's title
    std::string scale;    // the organ scale (Standard)
    std::string machine;  // "Laser" or "Punch"
    // The settings that shape the holes, each as the maker reads it ("Vitcarton 60 mm/s").
    std::vector<std::string> settings;
};

struct PrintOptions {
    Paper paper = Paper::A4;
    // Border the printer cannot print on, each side of the sheet, mm.
    double marginMm = 10.0;
    // Roll shown on both of two consecutive sheets, mm.
    double overlapMm = 10.0;
    PrintFooter footer;
};

enum class PrintError {
    NothingToPrint,    // no scale: the roll has no width
    RollTooWide,       // wider than the printable width of a turned sheet
    BadMargin,         // negative, not a number, or leaving too little of the sheet
    BadOverlap,        // negative, not a number, or over half a sheet's stretch
    UnknownFormat,     // neither .pdf nor .svg
    CannotWrite,       // the file could not be written
    NoGuiApplication,  // text needs a QGuiApplication
};

// Height of the footer at the foot of the printable area, and the blank above it, mm.
inline constexpr double kFooterHeightMm = 13.0;
inline constexpr double kFooterGapMm = 2.0;
// Widest margin accepted, mm.
inline constexpr double kMaximumMarginMm = 40.0;

// One sheet: the stretch of roll it shows, [fromMm, toMm] along the roll.
struct PrintSheet {
    double fromMm = 0.0;
    double toMm = 0.0;
};

struct RollPrintLayout {
    Paper paper = Paper::A4;
    // The sheet as it lies: turned is a landscape sheet, the roll along its short side.
    double sheetWidthMm = 0.0;
    double sheetHeightMm = 0.0;
    bool turned = false;
    double marginMm = 0.0;
    double overlapMm = 0.0;
    double rollWidthMm = 0.0;
    // Roll printed: to the end of the last hole; a book to its last fold line.
    double lengthMm = 0.0;
    // Sheet position of the roll's border (X = 0) and of the start of each sheet's stretch.
    double rollLeftMm = 0.0;
    double rollTopMm = 0.0;
    // Roll one sheet holds.
    double stretchMm = 0.0;
    double foldLengthMm = 0.0;  // 0: a roll
    std::vector<PrintSheet> sheets;

    // Where a point of the roll (across, along) lies on a sheet, mm from its top left corner.
    double sheetX(double rollX) const { return rollLeftMm + rollX; }
    double sheetY(int sheet, double rollY) const;
    // The top of the footer on every sheet.
    double footerTopMm() const { return sheetHeightMm - marginMm - kFooterHeightMm; }
};

// Pages the roll for options.paper, options.marginMm and options.overlapMm. Fails with a
// message a maker can act on: the roll's width against what the paper prints, the margin or
// overlap that is wrong and what is allowed.
Result<RollPrintLayout, PrintError> layRollOnPaper(const RollPicture& picture, const PrintOptions& options);

// --- what one sheet shows, in mm of sheet ---

struct SheetLine {
    double x1 = 0.0, y1 = 0.0, x2 = 0.0, y2 = 0.0;
};

struct SheetRect {
    double x = 0.0, y = 0.0, width = 0.0, height = 0.0;
};

struct SheetText {
    enum class Anchor { Left, Right };
    double x = 0.0;
    double y = 0.0;  // baseline
    std::string text;
    Anchor anchor = Anchor::Left;
    double sizePt = 7.0;
    double maxWidthMm = 0.0;  // longer text is cut short with an ellipsis; 0: no limit
};

struct SheetDrawing {
    // The card's borders along the sheet, and its start and end across it where they fall.
    std::vector<SheetLine> cardEdges;
    std::vector<SheetLine> trackLines;  // each track's axis
    // The holes as they will be cut; a hole that runs past the sheet's stretch is cut short.
    std::vector<SheetRect> holes;
    std::vector<SheetLine> foldLines;  // a book's folds, numbered in texts
    std::vector<SheetLine> joinLines;  // where this sheet meets the one before or after
    // Centres of the alignment marks (a circle with a cross) on the join lines.
    std::vector<std::pair<double, double>> alignmentMarks;
    double alignmentMarkRadiusMm = 2.5;
    // A bar of scaleBarMm along the footer, to check that the printer did not scale.
    SheetLine scaleBar;
    double scaleBarMm = 0.0;
    // Fold numbers, join notes, the footer's lines and "page k of n".
    std::vector<SheetText> texts;
};

// What sheet k (0-based) of layout shows.
SheetDrawing drawSheet(const RollPicture& picture, const RollPrintLayout& layout, const PrintFooter& footer,
                       int sheet);

// The footer's three lines: song, scale and machine; the settings; the note beside the
// scale bar. pageLabel ("page 2 of 5" for sheet 1 of 5) stands on the right of the first.
std::vector<std::string> footerLines(const PrintFooter& footer, double scaleBarMm);
std::string pageLabel(int sheet, int sheetCount);

}  // namespace veltrin
