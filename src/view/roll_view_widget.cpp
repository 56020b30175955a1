#include "view/roll_view_widget.h"

#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QScrollBar>
#include <QWheelEvent>

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

namespace veltrin {

namespace {

const QColor kBackground(96, 96, 96);
const QColor kStartMark(20, 150, 40);
const QColor kEndMark(200, 30, 30);
const QColor kHead(0, 70, 230);

// Track lines are drawn only when tracks lie this many pixels apart or more; closer, they
// would turn the card into stripes.
constexpr double kTrackLineMinPitchPx = 6.0;
// Fold lines likewise, along the roll.
constexpr double kFoldLineMinSpacingPx = 12.0;
constexpr int kHeadArmPx = 14;

// What a strip draws under the marks' lines, bottom layer first.
enum class Layer { Card, TrackLine, FoldLine, Dropped, Planned, Cut, Count };
constexpr auto kLayers = static_cast<std::size_t>(Layer::Count);

const std::array<QColor, kLayers> kLayerColours = {
    QColor(216, 181, 141),  // the cardboard
    QColor(207, 171, 131),  // track lines, barely there
    QColor(160, 122, 84),   // fold lines
    QColor(150, 160, 205),  // notes outside the scale
    QColor(92, 62, 38),     // holes to cut
    QColor(24, 16, 10),     // holes cut
};

// A colour as seen under the shade that dims the roll outside the marks.
QColor dimmed(const QColor& colour)
{
    constexpr int kShade[3] = {40, 30, 20};
    constexpr int kAlpha = 120;  // of 255
    const auto mix = [](int under, int shade) { return (under * (255 - kAlpha) + shade * kAlpha + 127) / 255; };
    return QColor(mix(colour.red(), kShade[0]), mix(colour.green(), kShade[1]), mix(colour.blue(), kShade[2]));
}

// The rectangles of each layer of one strip, each split where the dimmed stretches begin
// and end, so that the strip is painted with opaque colours only: a shade blended over
// the strips would cost a pass over every pixel. Rectangles of one colour go to the
// painter in one call, as a wide zoom has thousands.
struct LayerRects {
    std::array<std::vector<QRect>, kLayers> plain;
    std::array<std::vector<QRect>, kLayers> dim;
};

class StripPainter {
public:
    StripPainter(LayerRects& rects, int keptFrom, int keptTo)
        : m_rects(rects), m_keptFrom(keptFrom), m_keptTo(std::max(keptFrom, keptTo))
    {
        for (std::size_t i = 0; i < kLayers; ++i) {
            m_rects.plain[i].clear();
            m_rects.dim[i].clear();
        }
    }

    void add(Layer layer, const QRect& rect)
    {
        const auto i = static_cast<std::size_t>(layer);
        const int left = rect.left();
        const int right = rect.left() + rect.width();
        const auto put = [&](std::vector<QRect>& into, int from, int to) {
            if (from < to)
                into.emplace_back(from, rect.top(), to - from, rect.height());
        };
        put(m_rects.dim[i], left, std::min(right, m_keptFrom));
        put(m_rects.plain[i], std::max(left, m_keptFrom), std::min(right, m_keptTo));
        put(m_rects.dim[i], std::max(left, m_keptTo), right);
    }

    void paint(QPainter& painter) const
    {
        for (std::size_t i = 0; i < kLayers; ++i) {
            for (const bool dim : {false, true}) {
                const std::vector<QRect>& rects = dim ? m_rects.dim[i] : m_rects.plain[i];
                if (rects.empty())
                    continue;
                painter.setBrush(dim ? dimmed(kLayerColours[i]) : kLayerColours[i]);
                painter.drawRects(rects.data(), static_cast<int>(rects.size()));
            }
        }
    }

private:
    LayerRects& m_rects;
    int m_keptFrom;
    int m_keptTo;
};

}  // namespace

struct RollViewWidget::Private {
    std::shared_ptr<const RollPicture> picture;
    std::optional<double> startMm;
    std::optional<double> endMm;
    int acknowledgedLines = -1;
    std::optional<double> headXMm;
    std::optional<double> headYMm;
    bool showDropped = false;
    double zoom = kDefaultZoom;
    QScrollBar* scroll = nullptr;
    double wheelNotches = 0.0;  // a touchpad's part-notches, kept until they make one
    // Reused by every strip of every frame.
    std::vector<PixelRun> runs;
    LayerRects layers;

    double lengthMm() const { return picture ? picture->lengthMm : 0.0; }
    double widthMm() const { return picture ? picture->widthMm : 0.0; }
};

RollViewWidget::RollViewWidget(QWidget* parent) : QWidget(parent), d(std::make_unique<Private>())
{
    setObjectName("Picture1");
    setFocusPolicy(Qt::StrongFocus);
    setAttribute(Qt::WA_OpaquePaintEvent);
    setMinimumSize(200, 150);
    d->scroll = new QScrollBar(Qt::Horizontal, this);
    d->scroll->setObjectName("HScroll1");
    // The keys go to the roll view, whose Left and Right follow their own rule.
    d->scroll->setFocusPolicy(Qt::NoFocus);
    d->scroll->setSingleStep(kScrollStepMm);
    connect(d->scroll, &QScrollBar::valueChanged, this, [this] { update(); });
    updateScrollRange();
}

RollViewWidget::~RollViewWidget() = default;

void RollViewWidget::setPicture(std::shared_ptr<const RollPicture> picture)
{
    d->picture = std::move(picture);
    updateScrollRange();
    update();
}

std::shared_ptr<const RollPicture> RollViewWidget::picture() const
{
    return d->picture;
}

void RollViewWidget::setMarks(std::optional<double> startMm, std::optional<double> endMm)
{
    d->startMm = startMm;
    d->endMm = endMm;
    update();
}

void RollViewWidget::setProgress(int acknowledgedLines)
{
    if (d->acknowledgedLines == acknowledgedLines)
        return;
    d->acknowledgedLines = acknowledgedLines;
    update();
}

void RollViewWidget::setHead(std::optional<double> xMm, std::optional<double> yMm)
{
    d->headXMm = xMm;
    d->headYMm = yMm;
    update();
}

void RollViewWidget::setShowDropped(bool on)
{
    d->showDropped = on;
    update();
}

bool RollViewWidget::showDropped() const
{
    return d->showDropped;
}

double RollViewWidget::zoom() const
{
    return d->zoom;
}

void RollViewWidget::setZoom(double pixelsPerMm)
{
    const double zoom = clampZoom(pixelsPerMm);
    if (zoom == d->zoom)
        return;
    // The scroll value is the roll position at the left of strip 0, so it stays put.
    d->zoom = zoom;
    updateScrollRange();
    update();
    emit zoomChanged(zoom);
}

void RollViewWidget::zoomIn()
{
    setZoom(zoomedIn(d->zoom));
}

void RollViewWidget::zoomOut()
{
    setZoom(zoomedOut(d->zoom));
}

void RollViewWidget::zoomDefault()
{
    setZoom(kDefaultZoom);
}

double RollViewWidget::minimumZoom() const
{
    return kMinimumZoom;
}

double RollViewWidget::maximumZoom() const
{
    return kMaximumZoom;
}

QScrollBar* RollViewWidget::HScroll1() const
{
    return d->scroll;
}

int RollViewWidget::scrollValue() const
{
    return d->scroll->value();
}

void RollViewWidget::setScrollValue(int value)
{
    d->scroll->setValue(value);
}

void RollViewWidget::scrollForward()
{
    setScrollValue(scrollForwardValue(scrollValue(), d->scroll->maximum()));
}

void RollViewWidget::scrollBack()
{
    setScrollValue(scrollBackValue(scrollValue()));
}

void RollViewWidget::ensureVisible(double yMm)
{
    setScrollValue(layout().scrollToShow(yMm, scrollValue(), d->scroll->maximum()));
}

RollLayout RollViewWidget::layout() const
{
    return RollLayout::fit(width(), stripsHeight(), d->zoom, d->scroll->value(), d->widthMm());
}

int RollViewWidget::stripsHeight() const
{
    return std::max(0, height() - d->scroll->sizeHint().height());
}

void RollViewWidget::updateScrollRange()
{
    const RollLayout now = layout();
    d->scroll->setRange(0, now.scrollMaximum(d->lengthMm()));
    d->scroll->setPageStep(std::max(1, static_cast<int>(std::lround(kRollStrips * now.stripLengthMm()))));
}

void RollViewWidget::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    const RollLayout layout = this->layout();
    const int width = std::max(layout.stripWidthPx, 0);
    const int cardHeight = layout.cardHeightPx();
    // The background shows only in the gaps and below the strips; the card covers the rest.
    for (int strip = 0; strip < kRollStrips; ++strip)
        painter.fillRect(0, strip * layout.stripHeightPx, width, layout.gapPx, kBackground);
    const int stripsBottom = kRollStrips * layout.stripHeightPx;
    painter.fillRect(0, stripsBottom, width, height() - stripsBottom, kBackground);
    if (cardHeight <= 0 || width <= 0)
        return;
    const RollPicture* picture = d->picture.get();
    painter.setPen(Qt::NoPen);

    for (int strip = 0; strip < kRollStrips; ++strip) {
        const QRect card(0, layout.cardTopPx(strip), width, cardHeight);
        const double startMm = layout.stripStartMm(strip);
        const double endMm = layout.stripStartMm(strip + 1);
        // The columns outside the marks, [0, keptFrom) and [keptTo, width), are dimmed.
        const auto columnOf = [&](double mm) {
            return static_cast<int>(std::clamp(std::lround(layout.alongPx(strip, mm)), 0L, long{width}));
        };
        StripPainter layers(d->layers, d->startMm ? columnOf(*d->startMm) : 0, d->endMm ? columnOf(*d->endMm) : width);
        layers.add(Layer::Card, card);
        if (picture) {
            painter.setClipRect(card);
            // 1. Quiet lines: the track axes and the folds of a book.
            const auto& axes = picture->trackAxesMm;
            if (axes.size() > 1 && std::abs(axes[1] - axes[0]) * layout.acrossScale() >= kTrackLineMinPitchPx) {
                for (const double axis : axes)
                    layers.add(Layer::TrackLine,
                               QRect(0, static_cast<int>(std::lround(layout.acrossPx(strip, axis))), width, 1));
            }
            const double fold = picture->foldLengthMm;
            if (fold > 0.0 && fold * layout.zoom >= kFoldLineMinSpacingPx) {
                for (double k = std::ceil(startMm / fold); k * fold < endMm; ++k) {
                    const int x = static_cast<int>(std::floor(layout.alongPx(strip, k * fold)));
                    layers.add(Layer::FoldLine, QRect(x, card.top(), 1, cardHeight));
                }
            }

            // 2. Notes outside the scale, faintly, under the holes.
            if (d->showDropped) {
                droppedRuns(layout, strip, *picture, d->runs);
                for (const PixelRun& run : d->runs) {
                    const int y = static_cast<int>(std::lround(layout.acrossPx(strip, run.x0)));
                    layers.add(Layer::Dropped, QRect(run.fromPx, y - 1, run.toPx - run.fromPx, 2));
                }
            }

            // 3. The holes, merged per track into pixel runs.
            holeRuns(layout, strip, *picture, d->acknowledgedLines, d->runs);
            for (const PixelRun& run : d->runs) {
                const int top = static_cast<int>(std::floor(layout.acrossPx(strip, run.x1)));
                const int bottom = static_cast<int>(std::ceil(layout.acrossPx(strip, run.x0)));
                layers.add(run.style == HoleStyle::Cut ? Layer::Cut : Layer::Planned,
                           QRect(run.fromPx, top, run.toPx - run.fromPx, std::max(1, bottom - top)));
            }
        }
        layers.paint(painter);

        // 4. The marks' lines.
        for (const auto& [mark, colour] : {std::pair{d->startMm, kStartMark}, std::pair{d->endMm, kEndMark}}) {
            if (mark && *mark >= startMm && *mark <= endMm) {
                const int x = static_cast<int>(std::lround(layout.alongPx(strip, *mark)));
                painter.fillRect(x - 1, card.top(), 2, cardHeight, colour);
            }
        }
        painter.setClipping(false);
    }

    // 5. The machine head.
    if (d->headXMm && d->headYMm) {
        const int strip = layout.stripShowing(*d->headYMm);
        if (strip >= 0) {
            // A head beyond the roll's border (homing, a jog) stays on its own strip, at the edge.
            const QRect card(0, layout.cardTopPx(strip), width, cardHeight);
            painter.setClipRect(card);
            const int x = static_cast<int>(std::lround(layout.alongPx(strip, *d->headYMm)));
            const int y = std::clamp(static_cast<int>(std::lround(layout.acrossPx(strip, *d->headXMm))), card.top(),
                                     card.bottom());
            painter.fillRect(x - kHeadArmPx, y - 1, 2 * kHeadArmPx + 1, 3, kHead);
            painter.fillRect(x - 1, y - kHeadArmPx, 3, 2 * kHeadArmPx + 1, kHead);
            painter.setRenderHint(QPainter::Antialiasing);
            painter.setPen(QPen(kHead, 2));
            painter.setBrush(Qt::NoBrush);
            painter.drawEllipse(QPoint(x, y), kHeadArmPx / 2, kHeadArmPx / 2);
        }
    }
}

void RollViewWidget::mousePressEvent(QMouseEvent* event)
{
    const RollLayout layout = this->layout();
    const QPointF at = event->position();
    const int strip = layout.stripAt(at.y());
    if (strip < 0) {
        QWidget::mousePressEvent(event);
        return;
    }
    emit stripMouseDown(event->button(), event->modifiers(), strip, layout.stripCoordinate(at.x()));
    event->accept();
}

void RollViewWidget::resizeEvent(QResizeEvent*)
{
    const int barHeight = d->scroll->sizeHint().height();
    d->scroll->setGeometry(0, height() - barHeight, width(), barHeight);
    updateScrollRange();
}

void RollViewWidget::wheelEvent(QWheelEvent* event)
{
    const QPoint delta = event->angleDelta();
    // Turning the wheel away from the operator goes back along the roll.
    d->wheelNotches -= (delta.y() != 0 ? delta.y() : delta.x()) / 120.0;
    const double whole = std::trunc(d->wheelNotches);
    if (whole != 0.0) {
        d->wheelNotches -= whole;
        const double step = whole * layout().wheelStepMm();
        setScrollValue(static_cast<int>(std::clamp(scrollValue() + step, 0.0, static_cast<double>(d->scroll->maximum()))));
    }
    event->accept();
}

void RollViewWidget::keyPressEvent(QKeyEvent* event)
{
    // Alt, Ctrl and Shift combinations belong to the window's own commands.
    if ((event->modifiers() & ~Qt::KeypadModifier) != Qt::NoModifier) {
        QWidget::keyPressEvent(event);
        return;
    }
    switch (event->key()) {
    case Qt::Key_H:
        zoomIn();
        break;
    case Qt::Key_G:
        zoomOut();
        break;
    case Qt::Key_J:
        zoomDefault();
        break;
    case Qt::Key_Right:
        scrollForward();
        break;
    case Qt::Key_Left:
        scrollBack();
        break;
    default:
        QWidget::keyPressEvent(event);
        return;
    }
    event->accept();
}

}  // namespace veltrin
