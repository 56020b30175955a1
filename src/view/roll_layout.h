#pragma once
// RollLayout: where the roll stands on screen. The view shows five stacked strips, each a
// consecutive stretch of the roll read left to right like lines of text; the roll's width
// fills a strip's card band, bass (X = 0) at the bottom, as the card lies on the machine.
// Strip coordinates (those of the marks' rule, app/marks.h): a strip's X in pixels counts
// from the start of the stretch shown in strip 0, so (strip offset + X) / zoom is
// millimetres along the roll from the roll position at the left of strip 0.
//
// Use: RollLayout::fit(width, height, zoom, scrollMm, rollWidthMm) for the widget's size,
// then ask it where a roll position lies (alongPx, acrossPx) and what is under a pixel
// (stripAt, stripCoordinate, rollMmAt). visibleHoles and holeRuns pick and merge what one
// strip draws.

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "view/roll_picture.h"

namespace veltrin {

inline constexpr int kRollStrips = 5;
// facteur_zoom at start-up and after "default zoom": pixels per millimetre of roll.
inline constexpr double kDefaultZoom = 3.0;
// The widest zoom, 25 mm of roll a pixel: five strips 1000 px wide hold 125 m, so any roll
// a program can hold fits on screen. The closest, 40 px a mm, shows a bridge's edges.
inline constexpr double kMinimumZoom = 0.04;
inline constexpr double kMaximumZoom = 40.0;
// One step of H (zoom in) or G (zoom out).
inline constexpr double kZoomStep = 1.5;
// Right / Left move the roll by this many millimetres.
inline constexpr int kScrollStepMm = 10;
// Blank pixels above each strip's card band.
inline constexpr int kStripGapPx = 4;

// The zoom kept within kMinimumZoom..kMaximumZoom (the default for a value that is not a
// number).
double clampZoom(double pixelsPerMm);
double zoomedIn(double pixelsPerMm);   // H
double zoomedOut(double pixelsPerMm);  // G

// The scroll value after Right: value + kScrollStepMm, at most maximum.
int scrollForwardValue(int value, int maximum);
// The scroll value after Left: value - kScrollStepMm only when the value is at least that
// step; a smaller value stays as it is.
int scrollBackValue(int value);

struct RollLayout {
    double zoom = kDefaultZoom;  // pixels per mm along the roll
    double scrollMm = 0.0;       // roll position at the left edge of strip 0
    int stripWidthPx = 0;
    int stripHeightPx = 0;       // each strip, gap included
    int gapPx = kStripGapPx;     // blank above each strip's card band
    double rollWidthMm = 0.0;

    // The layout of five strips filling widthPx x heightPx.
    static RollLayout fit(int widthPx, int heightPx, double zoom, double scrollMm, double rollWidthMm);

    // Millimetres of roll one strip shows.
    double stripLengthMm() const;
    // The four strip lengths of the marks' rule, in strip coordinate units (pixels).
    std::array<double, 4> stripLengths() const;
    // The roll position at the left edge of a strip, mm.
    double stripStartMm(int strip) const;
    // The stretch the five strips show: [scrollMm, visibleEndMm()).
    double visibleEndMm() const;

    // Card band of a strip: top row and height in pixels.
    int cardTopPx(int strip) const;
    int cardHeightPx() const;
    // Pixels across per mm of roll width.
    double acrossScale() const;

    // Pixels from a strip's left edge to the roll position yMm (may lie outside the strip).
    double alongPx(int strip, double yMm) const;
    // The widget row of the roll position xMm across (0 = the border next to track 0, at
    // the bottom of the card band).
    double acrossPx(int strip, double xMm) const;
    // The strip under a widget row (each strip's gap belongs to it); -1 outside the strips.
    int stripAt(double widgetY) const;
    // The strip under a roll position shown on screen; -1 when it is not shown.
    int stripShowing(double yMm) const;
    // A pixel's column in strip coordinate units: the scroll position in pixels plus the
    // column, so that (stripOffset + x) / zoom is mm from the start of the roll.
    double stripCoordinate(double localX) const;
    // The roll position (mm) under a column of a strip.
    double rollMmAt(int strip, double localX) const;

    // The scroll bar's largest value for a roll of lengthMm: the roll's end can be brought
    // into strip 3, leaving the last strip blank, so the end is always within reach; 0 when
    // the whole roll fits in four strips.
    int scrollMaximum(double lengthMm) const;
    // The mm one wheel notch moves: a tenth of a strip, at least 1.
    int wheelStepMm() const;
    // The scroll value that shows yMm: the current one when yMm is on screen, else one that
    // puts yMm a quarter of a strip from the left of strip 0; within 0..maximum.
    int scrollToShow(double yMm, int current, int maximum) const;
};

// Index range [first, last) of a vector.
struct IndexRange {
    std::size_t first = 0;
    std::size_t last = 0;
    bool empty() const { return first >= last; }
    std::size_t size() const { return empty() ? 0 : last - first; }
};

// The holes (sorted by y0) that may reach into [fromMm, toMm): those starting from
// fromMm - longestMm on, before toMm. Found by binary search.
IndexRange visibleHoles(const std::vector<RollHole>& holes, double longestMm, double fromMm, double toMm);
IndexRange visibleDropped(const std::vector<DroppedNote>& notes, double longestMm, double fromMm,
                          double toMm);

enum class HoleStyle : std::uint8_t {
    Planned,  // in the program, not yet cut
    Cut,      // acknowledged by the machine
    Outside,  // a hole of the plan that the program between the marks leaves out
};

// How a hole is drawn during a job that has acknowledgedLines program lines (-1: no job).
HoleStyle holeStyle(const RollHole& hole, int acknowledgedLines);

// A run of pixels along one strip: holes of one track (or dropped notes of one note) that
// touch or overlap once drawn at the zoom, merged into one rectangle.
struct PixelRun {
    int key = 0;           // the track, or the note number of dropped notes
    int fromPx = 0;        // columns [fromPx, toPx) of the strip
    int toPx = 0;
    float x0 = 0, x1 = 0;  // across the roll, mm (x0 == x1 for a dropped note)
    HoleStyle style = HoleStyle::Planned;
};

// The holes of a strip as pixel runs, each at least one pixel long, clipped to the strip.
// Holes of one track merge when their columns touch or overlap and they share a style.
// out is cleared first: the caller's buffer, so that frames reuse its memory.
void holeRuns(const RollLayout& layout, int strip, const RollPicture& picture, int acknowledgedLines,
              std::vector<PixelRun>& out);
// The dropped notes of a strip as pixel runs, merged per note.
void droppedRuns(const RollLayout& layout, int strip, const RollPicture& picture,
                 std::vector<PixelRun>& out);

}  // namespace veltrin
