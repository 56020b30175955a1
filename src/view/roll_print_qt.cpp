#include "view/roll_print_qt.h"

#include <QFileInfo>
#include <QFont>
#include <QFontMetricsF>
#include <QGuiApplication>
#include <QPageLayout>
#include <QPageSize>
#include <QPainter>
#include <QPdfWriter>
#include <QSaveFile>
#include <QSvgGenerator>

#include <cmath>
#include <utility>

#include "app/app_state.h"
#include "app/genere_gcode.h"
#include "base/numeric_text.h"
#include "midi/resume_file.h"

namespace veltrin {

namespace {

constexpr int kPdfDpi = 600;

QString qText(const std::string& text)
{
    return QString::fromStdString(text);
}

// Draws sheets given in mm onto a device of unitsPerMm, each sheet offsetMm down the device.
class SheetPainter {
public:
    SheetPainter(QPainter& painter, double unitsPerMm) : m_painter(painter), m_k(unitsPerMm) {}

    void paint(const SheetDrawing& drawing, double offsetMm)
    {
        m_offset = offsetMm;
        m_painter.setBrush(Qt::NoBrush);
        lines(drawing.trackLines, pen(0.1, QColor(170, 170, 170)));
        lines(drawing.cardEdges, pen(0.3, Qt::black));
        lines(drawing.foldLines, pen(0.3, QColor(60, 60, 60), {6.0, 4.0}));
        lines(drawing.joinLines, pen(0.2, Qt::black, {8.0, 4.0}));

        m_painter.setPen(pen(0.2, Qt::black));
        const double r = drawing.alignmentMarkRadiusMm;
        for (const auto& [x, y] : drawing.alignmentMarks) {
            m_painter.drawEllipse(at(x, y), r * m_k, r * m_k);
            m_painter.drawLine(at(x - r - 1.5, y), at(x + r + 1.5, y));
            m_painter.drawLine(at(x, y - r - 1.5), at(x, y + r + 1.5));
        }

        m_painter.setPen(pen(0.4, Qt::black));
        const SheetLine& bar = drawing.scaleBar;
        m_painter.drawLine(at(bar.x1, bar.y1), at(bar.x2, bar.y2));
        for (const double x : {bar.x1, bar.x2})
            m_painter.drawLine(at(x, bar.y1 - 1.2), at(x, bar.y1 + 1.2));

        // Holes last, over the lines, filled as the card will be open.
        m_painter.setPen(Qt::NoPen);
        m_painter.setBrush(Qt::black);
        for (const SheetRect& hole : drawing.holes)
            m_painter.drawRect(QRectF(at(hole.x, hole.y), QSizeF(hole.width * m_k, hole.height * m_k)));
        m_painter.setBrush(Qt::NoBrush);

        m_painter.setPen(Qt::black);
        for (const SheetText& text : drawing.texts)
            write(text);
    }

    // A hairline around the sheet (SVG, where the sheets share one drawing).
    void frame(double widthMm, double heightMm, double offsetMm)
    {
        m_offset = offsetMm;
        m_painter.setPen(pen(0.1, QColor(200, 200, 200)));
        m_painter.setBrush(Qt::NoBrush);
        m_painter.drawRect(QRectF(at(0.0, 0.0), QSizeF(widthMm * m_k, heightMm * m_k)));
    }

private:
    QPointF at(double x, double y) const { return {x * m_k, (y + m_offset) * m_k}; }

    QPen pen(double widthMm, const QColor& colour, QList<qreal> dashes = {}) const
    {
        QPen result(colour, widthMm * m_k, Qt::SolidLine, Qt::FlatCap);
        if (!dashes.isEmpty())
            result.setDashPattern(dashes);
        return result;
    }

    void lines(const std::vector<SheetLine>& list, const QPen& linePen)
    {
        m_painter.setPen(linePen);
        for (const SheetLine& line : list)
            m_painter.drawLine(at(line.x1, line.y1), at(line.x2, line.y2));
    }

    void write(const SheetText& text)
    {
        QFont font(QStringLiteral("DejaVu Sans"));
        font.setPointSizeF(text.sizePt);
        m_painter.setFont(font);
        const QFontMetricsF metrics(font, m_painter.device());
        QString shown = qText(text.text);
        if (text.maxWidthMm > 0.0)
            shown = metrics.elidedText(shown, Qt::ElideRight, text.maxWidthMm * m_k);
        QPointF point = at(text.x, text.y);
        if (text.anchor == SheetText::Anchor::Right)
            point.rx() -= metrics.horizontalAdvance(shown);
        m_painter.drawText(point, shown);
    }

    QPainter& m_painter;
    double m_k;
    double m_offset = 0.0;
};

QString titleOf(const PrintOptions& options)
{
    return qText(options.footer.song.empty() ? std::string("Roll") : options.footer.song);
}

bool writePdf(QSaveFile& file, const RollPicture& picture, const RollPrintLayout& layout,
              const PrintOptions& options)
{
    QPdfWriter writer(&file);
    writer.setResolution(kPdfDpi);
    writer.setCreator(QStringLiteral("Veltrin"));
    writer.setTitle(titleOf(options));
    const QPageSize size(layout.paper == Paper::Letter ? QPageSize::Letter : QPageSize::A4);
    writer.setPageLayout(QPageLayout(size, layout.turned ? QPageLayout::Landscape : QPageLayout::Portrait,
                                     QMarginsF(0, 0, 0, 0)));
    QPainter painter;
    if (!painter.begin(&writer))
        return false;
    SheetPainter sheets(painter, kPdfDpi / 25.4);
    for (int k = 0; k < static_cast<int>(layout.sheets.size()); ++k) {
        if (k > 0 && !writer.newPage())
            return false;
        sheets.paint(drawSheet(picture, layout, options.footer, k), 0.0);
    }
    return painter.end();
}

bool writeSvg(QSaveFile& file, const RollPicture& picture, const RollPrintLayout& layout,
              const PrintOptions& options)
{
    const int count = static_cast<int>(layout.sheets.size());
    const double heightMm = count * layout.sheetHeightMm + (count - 1) * kSvgSheetGapMm;
    const QSize size(static_cast<int>(std::lround(layout.sheetWidthMm * kSvgUnitsPerMm)),
                     static_cast<int>(std::lround(heightMm * kSvgUnitsPerMm)));
    QSvgGenerator generator;
    generator.setOutputDevice(&file);
    // 254 dots an inch: ten units a millimetre, so the file's width and height are the
    // paper's in mm and every coordinate is a tenth of a millimetre.
    generator.setResolution(static_cast<int>(std::lround(kSvgUnitsPerMm * 25.4)));
    generator.setSize(size);
    generator.setViewBox(QRect(QPoint(0, 0), size));
    generator.setTitle(titleOf(options));
    generator.setDescription(QStringLiteral("%1 sheets of %2 paper at actual size")
                                 .arg(count)
                                 .arg(QString::fromLatin1(paperName(layout.paper))));
    QPainter painter;
    if (!painter.begin(&generator))
        return false;
    SheetPainter sheets(painter, kSvgUnitsPerMm);
    for (int k = 0; k < count; ++k) {
        const double offset = k * (layout.sheetHeightMm + kSvgSheetGapMm);
        sheets.frame(layout.sheetWidthMm, layout.sheetHeightMm, offset);
        sheets.paint(drawSheet(picture, layout, options.footer, k), offset);
    }
    return painter.end();
}

std::string shownValue(const std::string& value, const char* unit)
{
    return plainNumber(leadingNumber(value)) + " " + unit;
}

}  // namespace

Result<int, PrintError> printRoll(const RollPicture& picture, const PrintOptions& options, const QString& path)
{
    const QString suffix = QFileInfo(path).suffix().toLower();
    if (suffix != QLatin1String("pdf") && suffix != QLatin1String("svg")) {
        return fail(PrintError::UnknownFormat,
                    path.toStdString() + ": name a .pdf file (to print) or a .svg file (to edit)");
    }
    if (qobject_cast<QGuiApplication*>(QCoreApplication::instance()) == nullptr)
        return fail(PrintError::NoGuiApplication, "printing needs a QGuiApplication");
    auto layout = layRollOnPaper(picture, options);
    if (!layout)
        return fail(layout.error(), layout.detail());

    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return fail(PrintError::CannotWrite, path.toStdString() + ": " + file.errorString().toStdString());
    const bool painted = suffix == QLatin1String("pdf") ? writePdf(file, picture, layout.value(), options)
                                                         : writeSvg(file, picture, layout.value(), options);
    if (!painted) {
        file.cancelWriting();
        return fail(PrintError::CannotWrite, path.toStdString() + ": the pages could not be painted");
    }
    if (!file.commit())
        return fail(PrintError::CannotWrite, path.toStdString() + ": " + file.errorString().toStdString());
    return static_cast<int>(layout->sheets.size());
}

PrintFooter printFooterOf(const AppState& state)
{
    Settings settings = state.settings;
    OrganScale scale = state.scale;
    if (!state.programSettings.empty())
        applyPlanSettings(state.programSettings, settings, scale);
    PrintFooter footer;
    footer.song = songTitle(state.chemin_morceau);
    footer.scale = settings.Standard;
    footer.machine = settings.isLaser() ? "Laser" : "Punch";
    footer.settings = {
        "Vitcarton " + shownValue(settings.Vitcarton, "mm/s"),
        "Ldecoupe " + shownValue(settings.Ldecoupe, "mm"),
        "Dist_notes " + shownValue(settings.Dist_notes, "mm"),
        "Talon " + shownValue(settings.Talon, "mm"),
        "Lgponts " + shownValue(settings.Lgponts, "mm"),
    };
    if (settings.isLaser())
        footer.settings.push_back("Dist_ponts " + shownValue(settings.Dist_ponts, "mm"));
    else
        footer.settings.push_back("L_poincon " + shownValue(settings.L_poincon, "mm"));
    if (scale.standard_AF_actif)
        footer.settings.push_back("BassesAF " + shownValue(settings.BassesAF, "mm"));
    return footer;
}

}  // namespace veltrin
