#include "view/roll_view_widget.h"

#include <QImage>
#include <QScrollBar>
#include <QSignalSpy>
#include <QTest>

#include <cmath>
#include <gtest/gtest.h>
#include <memory>

#include "app/marks.h"

namespace veltrin {
namespace {

constexpr QRgb kCardRgb = qRgb(216, 181, 141);

int brightness(QRgb rgb)
{
    return qRed(rgb) + qGreen(rgb) + qBlue(rgb);
}

// A 100 mm wide roll, 5 m long: hole A (programLine 5) and hole B (programLine 20) on
// track 0 in strip 0, hole C far along.
std::shared_ptr<RollPicture> testPicture()
{
    auto picture = std::make_shared<RollPicture>();
    picture->widthMm = 100;
    picture->trackAxesMm = {25, 55};
    picture->holes = {
        RollHole{20, 30, 10, 40, 0, 5},
        RollHole{50, 60, 60, 90, 1, 20},
        RollHole{20, 30, 4990, 5000, 0, 30},
    };
    picture->longestHoleMm = 30;
    picture->lengthMm = 5000;
    picture->foldLengthMm = 0;
    picture->mmPerSecond = 60;
    return picture;
}

QImage rendered(RollViewWidget& view)
{
    QImage image(view.size(), QImage::Format_RGB32);
    view.render(&image);
    return image;
}

// The painted roll: cardboard, holes where the layout puts them, the cut ones darker, the
// marks' lines and the dimmed stretch before the start mark.
TEST(RollViewWidget, PaintsCardHolesProgressAndMarksWhereTheLayoutSays)
{
    RollViewWidget view;
    view.resize(1200, 700);
    view.setPicture(testPicture());
    view.setProgress(10);  // A is cut, B is not
    view.setMarks(5.0, 1000.0);
    const QImage image = rendered(view);
    const RollLayout layout = view.layout();
    ASSERT_EQ(layout.zoom, kDefaultZoom);
    ASSERT_EQ(layout.scrollMm, 0);

    const auto at = [&](int strip, double yMm, double xMm) {
        return image.pixel(static_cast<int>(layout.alongPx(strip, yMm)), static_cast<int>(layout.acrossPx(strip, xMm)));
    };
    EXPECT_EQ(at(0, 150, 80), kCardRgb) << "plain card between the marks";
    EXPECT_EQ(at(1, layout.stripStartMm(1) + 100, 10), kCardRgb) << "strip 1";
    const QRgb cut = at(0, 25, 25);
    const QRgb planned = at(0, 75, 55);
    EXPECT_LT(brightness(cut), brightness(kCardRgb) / 2);
    EXPECT_LT(brightness(planned), brightness(kCardRgb) / 2);
    EXPECT_NE(cut, planned) << "cut holes stand out from those still to cut";
    EXPECT_EQ(at(0, 75, 40), kCardRgb) << "across the roll, hole B covers 50 to 60 mm only";
    EXPECT_EQ(at(0, 95, 57), kCardRgb) << "along the roll, hole B ends at 90 mm";

    const QRgb before = at(0, 2, 80);
    EXPECT_LT(brightness(before), brightness(kCardRgb)) << "dimmed before the start mark";
    const QRgb start = at(0, 5, 80);
    EXPECT_GT(qGreen(start), qRed(start));
    EXPECT_GT(qGreen(start), qBlue(start));
    // 1200 px at 3 px/mm: 400 mm a strip, so the end mark is in strip 2.
    const QRgb end = at(2, 1000, 80);
    EXPECT_GT(qRed(end), 2 * qGreen(end));
    EXPECT_EQ(at(2, 990, 80), kCardRgb);
    EXPECT_LT(brightness(at(2, 1010, 80)), brightness(kCardRgb)) << "dimmed after the end mark";
    EXPECT_LT(brightness(at(3, 1300, 80)), brightness(kCardRgb));
}

// A press on a strip reports the strip and a column in strip coordinate units; the marks'
// rule turns them back into the roll position under the pointer.
TEST(RollViewWidget, ClickGivesTheRollPositionThroughTheMarksRule)
{
    RollViewWidget view;
    view.resize(1200, 700);
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    view.setPicture(testPicture());
    view.setZoom(2.0);
    view.setScrollValue(250);
    ASSERT_EQ(view.scrollValue(), 250);
    QSignalSpy spy(&view, &RollViewWidget::stripMouseDown);
    const RollLayout layout = view.layout();
    // 1200 px at 2 px/mm: 600 mm a strip; strip 3 starts at 250 + 1800 mm.
    const int row = layout.cardTopPx(3) + 10;
    QTest::mouseClick(&view, Qt::LeftButton, Qt::ShiftModifier, QPoint(300, row));
    ASSERT_EQ(spy.count(), 1);
    const QList<QVariant> args = spy.takeFirst();
    EXPECT_EQ(args.at(0).value<Qt::MouseButton>(), Qt::LeftButton);
    EXPECT_EQ(args.at(1).value<Qt::KeyboardModifiers>(), Qt::ShiftModifier);
    const int strip = args.at(2).toInt();
    const double x = args.at(3).toDouble();
    EXPECT_EQ(strip, 3);
    const double ms = markTimeAt(stripOffset(layout.stripLengths(), strip), x, view.zoom(), 60);
    EXPECT_NEAR(ms, (250 + 1800 + 150) * 1000.0 / 60, 1e-6);
}

// Zoom keeps the roll position at the left of strip 0; the keys follow their rules.
TEST(RollViewWidget, ZoomAndScrollKeys)
{
    RollViewWidget view;
    view.resize(1200, 700);
    view.show();
    ASSERT_TRUE(QTest::qWaitForWindowExposed(&view));
    view.setPicture(testPicture());
    view.setScrollValue(500);
    QSignalSpy zooms(&view, &RollViewWidget::zoomChanged);
    QTest::keyClick(&view, Qt::Key_H);
    EXPECT_DOUBLE_EQ(view.zoom(), kDefaultZoom * kZoomStep);
    EXPECT_EQ(view.scrollValue(), 500);
    EXPECT_EQ(view.layout().rollMmAt(0, 0), 500);
    QTest::keyClick(&view, Qt::Key_G);
    QTest::keyClick(&view, Qt::Key_G);
    EXPECT_DOUBLE_EQ(view.zoom(), kDefaultZoom / kZoomStep);
    QTest::keyClick(&view, Qt::Key_J);
    EXPECT_EQ(view.zoom(), kDefaultZoom);
    EXPECT_EQ(zooms.count(), 4);
    EXPECT_EQ(view.scrollValue(), 500);

    // 400 mm a strip at the default zoom: the 5 m roll scrolls up to 5000 - 1600.
    EXPECT_EQ(view.HScroll1()->maximum(), 3400);
    EXPECT_EQ(view.HScroll1()->pageStep(), 2000);
    view.setScrollValue(10);
    QTest::keyClick(&view, Qt::Key_Left);
    EXPECT_EQ(view.scrollValue(), 0);
    view.setScrollValue(3395);
    QTest::keyClick(&view, Qt::Key_Right);
    EXPECT_EQ(view.scrollValue(), 3400);
    view.ensureVisible(20);
    EXPECT_EQ(view.scrollValue(), 0);
}

}  // namespace
}  // namespace veltrin
