#include "view/roll_print.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "base/numeric_text.h"

namespace veltrin {

namespace {

// Roll positions closer than this are the same line (fold lines at whole multiples, sheet
// ends computed by additions).
constexpr double kSameMm = 1e-6;
// Join lines and their marks reach this far beyond the card's borders.
constexpr double kJoinOverhangMm = 5.0;
// Room a label needs beside the card to stand outside it.
constexpr double kFoldLabelRoomMm = 12.0;
constexpr double kJoinLabelRoomMm = 26.0;
constexpr double kLabelPt = 6.5;
constexpr double kFooterPt = 7.0;

std::string mm(double value)
{
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", value);
    return text;
}

}  // namespace

PaperSize paperSize(Paper paper)
{
    return paper == Paper::Letter ? PaperSize{215.9, 279.4} : PaperSize{210.0, 297.0};
}

const char* paperName(Paper paper)
{
    return paper == Paper::Letter ? "Letter" : "A4";
}

double RollPrintLayout::sheetY(int sheet, double rollY) const
{
    return rollTopMm + rollY - sheets[static_cast<std::size_t>(sheet)].fromMm;
}

Result<RollPrintLayout, PrintError> layRollOnPaper(const RollPicture& picture, const PrintOptions& options)
{
    const PaperSize paper = paperSize(options.paper);
    const double margin = options.marginMm;
    if (!std::isfinite(picture.widthMm) || picture.widthMm <= 0.0)
        return fail(PrintError::NothingToPrint, "the roll has no width: no organ scale to print");
    if (!std::isfinite(margin) || margin < 0.0 || margin > kMaximumMarginMm)
        return fail(PrintError::BadMargin, "margin " + plainNumber(margin) + " mm: give 0 to " +
                                               plainNumber(kMaximumMarginMm) + " mm");

    // 1. The roll runs along the long side; a roll too wide for the short side is turned.
    RollPrintLayout layout;
    layout.paper = options.paper;
    layout.marginMm = margin;
    layout.rollWidthMm = picture.widthMm;
    layout.foldLengthMm = picture.foldLengthMm > 0.0 ? picture.foldLengthMm : 0.0;
    const double acrossUpright = paper.widthMm - 2.0 * margin;
    const double acrossTurned = paper.heightMm - 2.0 * margin;
    layout.turned = picture.widthMm > acrossUpright + kSameMm;
    if (layout.turned && picture.widthMm > acrossTurned + kSameMm) {
        // Splitting the roll lengthwise over sheets would need a second join along every
        // track: too easy to glue askew for a template to punch from.
        const double widestMargin = std::floor((paper.heightMm - picture.widthMm) / 2.0 * 10.0) / 10.0;
        const std::string remedy = widestMargin >= 0.0 ? "margins of " + mm(widestMargin) + " mm or less make it fit"
                                                       : std::string("no sheet of that paper holds it");
        return fail(PrintError::RollTooWide,
                    "the roll is " + mm(picture.widthMm) + " mm wide: " + paperName(options.paper) + " paper prints " +
                        mm(acrossUpright) + " mm across, " + mm(acrossTurned) +
                        " mm on a sheet turned sideways, with " + plainNumber(margin) +
                        " mm margins, and a roll is not split lengthwise; " + remedy);
    }
    layout.sheetWidthMm = layout.turned ? paper.heightMm : paper.widthMm;
    layout.sheetHeightMm = layout.turned ? paper.widthMm : paper.heightMm;
    layout.stretchMm = layout.sheetHeightMm - 2.0 * margin - kFooterHeightMm - kFooterGapMm;
    layout.rollLeftMm = (layout.sheetWidthMm - picture.widthMm) / 2.0;
    layout.rollTopMm = margin;

    // 2. The overlap: at most half a sheet, so that each sheet brings new roll.
    const double overlap = options.overlapMm;
    if (!std::isfinite(overlap) || overlap < 0.0 || overlap > layout.stretchMm / 2.0) {
        return fail(PrintError::BadOverlap, "overlap " + plainNumber(overlap) + " mm: give 0 to " +
                                                mm(std::floor(layout.stretchMm / 2.0 * 10.0) / 10.0) +
                                                " mm (half of the " + mm(layout.stretchMm) +
                                                " mm of roll a sheet holds)");
    }
    layout.overlapMm = overlap;

    // 3. The length: a book ends on a fold line, so its last leaf is whole; an empty roll
    //    still shows its tracks on one sheet, to check a scale against an organ.
    double length = std::max(0.0, picture.lengthMm);
    if (layout.foldLengthMm > 0.0)
        length = std::max(1.0, std::ceil(length / layout.foldLengthMm - kSameMm)) * layout.foldLengthMm;
    if (length <= 0.0)
        length = layout.stretchMm;
    layout.lengthMm = length;

    // 4. The sheets: each starts overlap before the end of the one before.
    const double step = layout.stretchMm - overlap;
    const int count = std::max(1, static_cast<int>(std::ceil((length - overlap) / step - kSameMm)));
    layout.sheets.reserve(static_cast<std::size_t>(count));
    for (int k = 0; k < count; ++k) {
        const double from = k * step;
        layout.sheets.push_back({from, std::min(from + layout.stretchMm, length)});
    }
    return layout;
}

std::string pageLabel(int sheet, int sheetCount)
{
    return "page " + std::to_string(sheet + 1) + " of " + std::to_string(sheetCount);
}

std::vector<std::string> footerLines(const PrintFooter& footer, double scaleBarMm)
{
    std::string settings;
    for (const std::string& setting : footer.settings)
        settings += (settings.empty() ? "" : "   ") + setting;
    return {
        "Song: " + footer.song + "   Scale: " + footer.scale + "   Machine: " + footer.machine,
        settings,
        "This bar is " + plainNumber(scaleBarMm) + " mm long: print at actual size (100 %)",
    };
}

SheetDrawing drawSheet(const RollPicture& picture, const RollPrintLayout& layout, const PrintFooter& footer,
                       int sheet)
{
    SheetDrawing drawing;
    const int count = static_cast<int>(layout.sheets.size());
    const PrintSheet& stretch = layout.sheets[static_cast<std::size_t>(sheet)];
    const double top = layout.sheetY(sheet, stretch.fromMm);
    const double bottom = layout.sheetY(sheet, stretch.toMm);
    const double left = layout.sheetX(0.0);
    const double right = layout.sheetX(layout.rollWidthMm);
    const double roomLeft = left - layout.marginMm;
    const double roomRight = layout.sheetWidthMm - layout.marginMm - right;

    // 1. The card: its borders, its start on the first sheet and its end on the last.
    drawing.cardEdges.push_back({left, top, left, bottom});
    drawing.cardEdges.push_back({right, top, right, bottom});
    if (stretch.fromMm <= kSameMm)
        drawing.cardEdges.push_back({left, top, right, top});
    if (stretch.toMm >= layout.lengthMm - kSameMm)
        drawing.cardEdges.push_back({left, bottom, right, bottom});
    for (const double axis : picture.trackAxesMm)
        drawing.trackLines.push_back({layout.sheetX(axis), top, layout.sheetX(axis), bottom});

    // 2. The holes reaching into the stretch: they are sorted by their start, and none is
    //    longer than longestHoleMm.
    const auto first = std::partition_point(picture.holes.begin(), picture.holes.end(), [&](const RollHole& hole) {
        return hole.y0 < stretch.fromMm - picture.longestHoleMm - kSameMm;
    });
    for (auto hole = first; hole != picture.holes.end() && hole->y0 < stretch.toMm; ++hole) {
        if (hole->y1 <= stretch.fromMm)
            continue;
        const double y0 = std::max<double>(hole->y0, stretch.fromMm);
        const double y1 = std::min<double>(hole->y1, stretch.toMm);
        drawing.holes.push_back(
            {layout.sheetX(hole->x0), layout.sheetY(sheet, y0), double{hole->x1 - hole->x0}, y1 - y0});
    }

    // 3. A book's fold lines, numbered from the start; the end of the card is not a fold.
    if (layout.foldLengthMm > 0.0) {
        const bool outside = roomRight >= kFoldLabelRoomMm;
        for (int fold = std::max(1, static_cast<int>(std::ceil(stretch.fromMm / layout.foldLengthMm - kSameMm)));
             fold * layout.foldLengthMm <= stretch.toMm + kSameMm; ++fold) {
            const double along = fold * layout.foldLengthMm;
            if (along >= layout.lengthMm - kSameMm)
                break;
            const double y = layout.sheetY(sheet, along);
            drawing.foldLines.push_back({left, y, right, y});
            SheetText label{outside ? right + 1.5 : right - 1.0, y - 0.8, "fold " + std::to_string(fold),
                            outside ? SheetText::Anchor::Left : SheetText::Anchor::Right, kLabelPt, 0.0};
            drawing.texts.push_back(std::move(label));
        }
    }

    // 4. The joins with the sheets before and after: halfway through the shared stretch.
    const bool joinOutside = roomLeft >= kJoinLabelRoomMm;
    const auto join = [&](double along, int otherSheet) {
        const double y = layout.sheetY(sheet, along);
        drawing.joinLines.push_back({left - kJoinOverhangMm, y, right + kJoinOverhangMm, y});
        drawing.alignmentMarks.emplace_back(left, y);
        drawing.alignmentMarks.emplace_back(right, y);
        const double offset = drawing.alignmentMarkRadiusMm + 1.5;
        drawing.texts.push_back({joinOutside ? left - offset : left + offset, y - 0.8,
                                 "page " + std::to_string(otherSheet + 1) + " joins here",
                                 joinOutside ? SheetText::Anchor::Right : SheetText::Anchor::Left, kLabelPt, 0.0});
    };
    if (sheet > 0)
        join(stretch.fromMm + layout.overlapMm / 2.0, sheet - 1);
    if (sheet + 1 < count)
        join(layout.sheets[static_cast<std::size_t>(sheet + 1)].fromMm + layout.overlapMm / 2.0, sheet + 1);

    // 5. The footer: three lines, the page number on the right of the first, and a bar of
    //    known length beside the last.
    const double footerTop = layout.footerTopMm();
    const double footerLeft = layout.marginMm;
    const double footerRight = layout.sheetWidthMm - layout.marginMm;
    const double footerWidth = footerRight - footerLeft;
    drawing.scaleBarMm = footerWidth >= 180.0 ? 100.0 : 50.0;
    const std::vector<std::string> lines = footerLines(footer, drawing.scaleBarMm);
    const std::string page = pageLabel(sheet, count);
    drawing.texts.push_back({footerRight, footerTop + 3.5, page, SheetText::Anchor::Right, kFooterPt, 0.0});
    drawing.texts.push_back({footerLeft, footerTop + 3.5, lines[0], SheetText::Anchor::Left, kFooterPt,
                             footerWidth - 25.0});
    drawing.texts.push_back({footerLeft, footerTop + 7.5, lines[1], SheetText::Anchor::Left, kFooterPt, footerWidth});
    drawing.scaleBar = {footerLeft, footerTop + 11.0, footerLeft + drawing.scaleBarMm, footerTop + 11.0};
    drawing.texts.push_back({footerLeft + drawing.scaleBarMm + 3.0, footerTop + 12.0, lines[2],
                             SheetText::Anchor::Left, kFooterPt, footerWidth - drawing.scaleBarMm - 3.0});
    return drawing;
}

}  // namespace veltrin
