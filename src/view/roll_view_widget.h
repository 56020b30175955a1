#pragma once
// RollViewWidget (Picture1 with its strips Picture2..Picture6 and the scroll bar HScroll1):
// paints a RollPicture in five stacked strips in the cardboard colour, with the marks, the
// holes already cut and the machine head. It draws only what is visible. It computes no
// plan: the window hands it a new picture after each generation.
// Keys, while it has the focus: H zooms in, G out, J back to the default zoom; Right and
// Left move the roll (scrollForward, scrollBack).

#include <QWidget>

#include <memory>
#include <optional>

#include "view/roll_layout.h"
#include "view/roll_picture.h"

class QScrollBar;

namespace veltrin {

class RollViewWidget : public QWidget {
    Q_OBJECT
public:
    explicit RollViewWidget(QWidget* parent = nullptr);
    ~RollViewWidget() override;

    // A new plan (after a generation); null or empty: the bare cardboard.
    void setPicture(std::shared_ptr<const RollPicture> picture);
    std::shared_ptr<const RollPicture> picture() const;

    // Marks, in mm along the roll; nullopt = not set (the end mark unset = to the end).
    void setMarks(std::optional<double> startMm, std::optional<double> endMm);
    // A job's progress: holes whose programLine is below acknowledgedLines are drawn as cut;
    // -1 = no job.
    void setProgress(int acknowledgedLines);
    // The machine head in roll mm (X across, Y along); nullopt hides the cross-hair.
    void setHead(std::optional<double> xMm, std::optional<double> yMm);
    // Notes outside the scale drawn faintly, or not.
    void setShowDropped(bool on);
    bool showDropped() const;

    // facteur_zoom, pixels per mm along the roll, within minimumZoom()..maximumZoom() (see
    // view/roll_layout.h). Zoom keeps the roll position at the left.
    double zoom() const;
    void setZoom(double pixelsPerMm);
    void zoomIn();       // H
    void zoomOut();      // G
    void zoomDefault();  // J
    double minimumZoom() const;  // the widest view
    double maximumZoom() const;

    // HScroll1: its value is the roll position at the left of strip 0, in mm.
    QScrollBar* HScroll1() const;
    int scrollValue() const;
    void setScrollValue(int value);
    // Right: value + 10; Left: value - 10, only when the value is at least 10.
    void scrollForward();
    void scrollBack();
    // Brings the roll position yMm into view (a job's progress, playback).
    void ensureVisible(double yMm);

    // The geometry in force (strip lengths and zoom for the marks' rule).
    RollLayout layout() const;

signals:
    // A mouse button went down on strip 0..4 at x in strip coordinate units (pixels counted
    // from the start of the stretch strip 0 shows; see RollLayout).
    void stripMouseDown(Qt::MouseButton button, Qt::KeyboardModifiers modifiers, int strip, double x);
    // The zoom changed (setZoom, the zoom keys): the window keeps facteur_zoom with it.
    void zoomChanged(double pixelsPerMm);

protected:
    void paintEvent(QPaintEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void wheelEvent(QWheelEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;

private:
    // The height of the five strips: the widget less HScroll1 below them.
    int stripsHeight() const;
    // HScroll1's range and page for the picture, the zoom and the size in force.
    void updateScrollRange();

    struct Private;
    std::unique_ptr<Private> d;
};

}  // namespace veltrin
