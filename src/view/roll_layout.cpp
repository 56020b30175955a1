#include "view/roll_layout.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace veltrin {

namespace {

// Holes and dropped notes have their own records; both are found and merged alike.
float startOf(const RollHole& hole) { return hole.y0; }
float startOf(const DroppedNote& note) { return note.y0; }

template <typename Item>
IndexRange visibleRange(const std::vector<Item>& items, double longestMm, double fromMm, double toMm)
{
    const auto before = [](const Item& item, double mm) { return startOf(item) < mm; };
    const auto first = std::lower_bound(items.begin(), items.end(), fromMm - longestMm, before);
    const auto last = std::lower_bound(first, items.end(), toMm, before);
    return {static_cast<std::size_t>(first - items.begin()), static_cast<std::size_t>(last - items.begin())};
}

// Merges one item's columns into the open run of its key, or opens a new run.
class RunMerger {
public:
    explicit RunMerger(std::vector<PixelRun>& out) : m_out(out) { m_out.clear(); }

    void add(int key, int fromPx, int toPx, float x0, float x1, HoleStyle style)
    {
        if (key < 0)
            key = 0;
        const auto slot = static_cast<std::size_t>(key);
        if (slot >= m_open.size())
            m_open.resize(slot + 1, kNone);
        const std::size_t open = m_open[slot];
        if (open != kNone) {
            PixelRun& run = m_out[open];
            // Holes of a track come in ascending y0, so a run only ever grows to the right.
            if (run.style == style && fromPx <= run.toPx) {
                run.toPx = std::max(run.toPx, toPx);
                return;
            }
        }
        m_open[slot] = m_out.size();
        m_out.push_back(PixelRun{key, fromPx, toPx, x0, x1, style});
    }

private:
    static constexpr std::size_t kNone = std::numeric_limits<std::size_t>::max();
    std::vector<PixelRun>& m_out;
    std::vector<std::size_t> m_open;  // per key, its last run in m_out
};

// The columns of one strip: where a stretch of roll lies in it.
class StripColumns {
public:
    StripColumns(const RollLayout& layout, int strip)
        : m_originMm(layout.stripStartMm(strip)), m_zoom(layout.zoom), m_width(layout.stripWidthPx)
    {
    }

    // The columns [from, to) of the stretch [y0, y1], at least one pixel; false when it
    // lies outside the strip.
    bool of(double y0, double y1, int& from, int& to) const
    {
        const double a = (y0 - m_originMm) * m_zoom;
        const double b = (y1 - m_originMm) * m_zoom;
        // A hole that ends where the strip begins belongs to the strip before.
        if ((b <= 0.0 && a < 0.0) || a >= m_width || !(m_width > 0.0))
            return false;
        // Clipped first: at the closest zoom a long roll's far end lies beyond an int's range.
        from = static_cast<int>(std::floor(std::max(a, 0.0)));
        to = static_cast<int>(std::ceil(std::min(b, m_width)));
        to = std::max(to, from + 1);
        return true;
    }

private:
    double m_originMm;
    double m_zoom;
    double m_width;
};

}  // namespace

double clampZoom(double pixelsPerMm)
{
    if (std::isnan(pixelsPerMm))
        return kDefaultZoom;
    return std::clamp(pixelsPerMm, kMinimumZoom, kMaximumZoom);
}

double zoomedIn(double pixelsPerMm)
{
    return clampZoom(pixelsPerMm * kZoomStep);
}

double zoomedOut(double pixelsPerMm)
{
    return clampZoom(pixelsPerMm / kZoomStep);
}

int scrollForwardValue(int value, int maximum)
{
    return std::max(value, std::min(value + kScrollStepMm, maximum));
}

int scrollBackValue(int value)
{
    return value >= kScrollStepMm ? value - kScrollStepMm : value;
}

RollLayout RollLayout::fit(int widthPx, int heightPx, double zoom, double scrollMm, double rollWidthMm)
{
    RollLayout layout;
    layout.zoom = clampZoom(zoom);
    layout.scrollMm = scrollMm;
    layout.stripWidthPx = std::max(widthPx, 0);
    layout.stripHeightPx = std::max(heightPx, 0) / kRollStrips;
    layout.gapPx = std::min(kStripGapPx, layout.stripHeightPx / 4);
    layout.rollWidthMm = rollWidthMm;
    return layout;
}

double RollLayout::stripLengthMm() const
{
    return stripWidthPx / zoom;
}

std::array<double, 4> RollLayout::stripLengths() const
{
    const double width = stripWidthPx;
    return {width, width, width, width};
}

double RollLayout::stripStartMm(int strip) const
{
    return scrollMm + strip * stripLengthMm();
}

double RollLayout::visibleEndMm() const
{
    return stripStartMm(kRollStrips);
}

int RollLayout::cardTopPx(int strip) const
{
    return strip * stripHeightPx + gapPx;
}

int RollLayout::cardHeightPx() const
{
    return std::max(stripHeightPx - gapPx, 0);
}

double RollLayout::acrossScale() const
{
    // A picture without a width (no scale yet) still gets a card band to draw on.
    return rollWidthMm > 0.0 ? cardHeightPx() / rollWidthMm : 1.0;
}

double RollLayout::alongPx(int strip, double yMm) const
{
    return (yMm - stripStartMm(strip)) * zoom;
}

double RollLayout::acrossPx(int strip, double xMm) const
{
    return cardTopPx(strip) + cardHeightPx() - xMm * acrossScale();
}

int RollLayout::stripAt(double widgetY) const
{
    if (stripHeightPx <= 0 || widgetY < 0.0)
        return -1;
    const int strip = static_cast<int>(widgetY / stripHeightPx);
    return strip < kRollStrips ? strip : -1;
}

int RollLayout::stripShowing(double yMm) const
{
    if (stripWidthPx <= 0 || yMm < scrollMm || yMm >= visibleEndMm())
        return -1;
    return std::min(static_cast<int>((yMm - scrollMm) / stripLengthMm()), kRollStrips - 1);
}

double RollLayout::stripCoordinate(double localX) const
{
    return scrollMm * zoom + localX;
}

double RollLayout::rollMmAt(int strip, double localX) const
{
    return stripStartMm(strip) + localX / zoom;
}

int RollLayout::scrollMaximum(double lengthMm) const
{
    const double slack = lengthMm - (kRollStrips - 1) * stripLengthMm();
    if (!(slack > 0.0))
        return 0;
    return static_cast<int>(std::min(std::ceil(slack), double{std::numeric_limits<int>::max()}));
}

int RollLayout::wheelStepMm() const
{
    return std::max(1, static_cast<int>(std::lround(stripLengthMm() / 10.0)));
}

int RollLayout::scrollToShow(double yMm, int current, int maximum) const
{
    RollLayout now = *this;
    now.scrollMm = current;
    if (now.stripShowing(yMm) >= 0)
        return current;
    const double wanted = std::floor(yMm - stripLengthMm() / 4.0);
    return static_cast<int>(std::clamp(wanted, 0.0, static_cast<double>(std::max(maximum, 0))));
}

IndexRange visibleHoles(const std::vector<RollHole>& holes, double longestMm, double fromMm, double toMm)
{
    return visibleRange(holes, longestMm, fromMm, toMm);
}

IndexRange visibleDropped(const std::vector<DroppedNote>& notes, double longestMm, double fromMm,
                          double toMm)
{
    return visibleRange(notes, longestMm, fromMm, toMm);
}

HoleStyle holeStyle(const RollHole& hole, int acknowledgedLines)
{
    if (hole.programLine == kNotInProgram)
        return HoleStyle::Outside;
    return hole.programLine < acknowledgedLines ? HoleStyle::Cut : HoleStyle::Planned;
}

void holeRuns(const RollLayout& layout, int strip, const RollPicture& picture, int acknowledgedLines,
              std::vector<PixelRun>& out)
{
    RunMerger runs(out);
    const StripColumns columns(layout, strip);
    const double from = layout.stripStartMm(strip);
    const IndexRange range =
        visibleHoles(picture.holes, picture.longestHoleMm, from, from + layout.stripLengthMm());
    for (std::size_t i = range.first; i < range.last; ++i) {
        const RollHole& hole = picture.holes[i];
        int fromPx = 0;
        int toPx = 0;
        if (columns.of(hole.y0, hole.y1, fromPx, toPx))
            runs.add(hole.track, fromPx, toPx, hole.x0, hole.x1, holeStyle(hole, acknowledgedLines));
    }
}

void droppedRuns(const RollLayout& layout, int strip, const RollPicture& picture,
                 std::vector<PixelRun>& out)
{
    RunMerger runs(out);
    const StripColumns columns(layout, strip);
    const double from = layout.stripStartMm(strip);
    const IndexRange range =
        visibleDropped(picture.dropped, picture.longestDroppedMm, from, from + layout.stripLengthMm());
    for (std::size_t i = range.first; i < range.last; ++i) {
        const DroppedNote& note = picture.dropped[i];
        int fromPx = 0;
        int toPx = 0;
        if (columns.of(note.y0, note.y1, fromPx, toPx))
            runs.add(note.note, fromPx, toPx, note.x, note.x, HoleStyle::Planned);
    }
}

}  // namespace veltrin
