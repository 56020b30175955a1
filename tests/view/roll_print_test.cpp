// The roll on paper: the paging at 1:1 (GUI-free), the PDF and SVG files read back, the
// footer of a program, and veltrin-cli print.

#include "view/roll_print.h"

#include <QFile>
#include <QGuiApplication>
#include <QXmlStreamReader>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <gtest/gtest.h>
#include <regex>
#include <string>
#include <vector>

#include "app/roll_snapshot.h"
#include "app/song_import.h"
#include "midi/resume_file.h"
#include "scales/scale_file.h"
#include "support/midi_bytes.h"
#include "support/run_cli.h"
#include "support/temp_dir.h"
#include "view/roll_print_qt.h"

namespace veltrin {
namespace {

RollPicture plainRoll(double widthMm, double lengthMm, double foldMm = 0.0)
{
    RollPicture picture;
    picture.widthMm = widthMm;
    picture.lengthMm = lengthMm;
    picture.foldLengthMm = foldMm;
    return picture;
}

PrintOptions paperOptions(Paper paper, double marginMm, double overlapMm)
{
    PrintOptions options;
    options.paper = paper;
    options.marginMm = marginMm;
    options.overlapMm = overlapMm;
    return options;
}

// The sheets' stretches follow each other with the overlap, cover the roll from 0 to its
// printed length, and the roll and footer stay within the printable area.
TEST(LayRollOnPaper, PagesTheRollAlongTheSheetsWithTheOverlap)
{
    struct Case {
        const char* what;
        Paper paper;
        double margin, overlap, width, length, fold;
        bool turned;
        double printedLength;
        std::size_t sheets;
    };
    // A4 upright, 10 mm margins: 297 - 20 - 13 (footer) - 2 = 262 mm of roll a sheet.
    const Case cases[] = {
        {"short roll", Paper::A4, 10, 10, 130, 200, 0, false, 200, 1},
        {"exactly one sheet", Paper::A4, 10, 10, 130, 262, 0, false, 262, 1},
        {"just over one sheet", Paper::A4, 10, 10, 130, 262.5, 0, false, 262.5, 2},
        {"the example book", Paper::A4, 10, 10, 130, 2075, 160, false, 2080, 9},
        {"book to its last fold", Paper::A4, 10, 10, 130, 170, 160, false, 320, 2},
        {"empty roll: one sheet of tracks", Paper::A4, 10, 10, 130, 0, 0, false, 262, 1},
        {"Letter: 244.4 mm a sheet", Paper::Letter, 10, 10, 130, 500, 0, false, 500, 3},
        {"no overlap", Paper::A4, 10, 0, 130, 524, 0, false, 524, 2},
        {"wide roll turned: 175 mm a sheet", Paper::A4, 10, 0, 200, 400, 0, true, 400, 3},
        {"widest upright roll", Paper::A4, 10, 10, 190, 100, 0, false, 100, 1},
        {"a little wider: turned", Paper::A4, 10, 10, 190.5, 100, 0, true, 100, 1},
        {"widest turned roll", Paper::Letter, 0, 10, 279.4, 100, 0, true, 100, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        auto laid = layRollOnPaper(plainRoll(c.width, c.length, c.fold), paperOptions(c.paper, c.margin, c.overlap));
        ASSERT_TRUE(laid.ok()) << laid.detail();
        const RollPrintLayout& layout = laid.value();
        EXPECT_EQ(layout.turned, c.turned);
        EXPECT_EQ(layout.sheetWidthMm > layout.sheetHeightMm, c.turned) << "the roll runs down the sheet";
        EXPECT_DOUBLE_EQ(layout.lengthMm, c.printedLength);
        ASSERT_EQ(layout.sheets.size(), c.sheets);
        EXPECT_EQ(layout.sheets.front().fromMm, 0.0);
        EXPECT_DOUBLE_EQ(layout.sheets.back().toMm, c.printedLength);
        for (std::size_t k = 0; k + 1 < layout.sheets.size(); ++k) {
            EXPECT_NEAR(layout.sheets[k].toMm - layout.sheets[k].fromMm, layout.stretchMm, 1e-9) << "sheet " << k;
            EXPECT_NEAR(layout.sheets[k + 1].fromMm, layout.sheets[k].toMm - c.overlap, 1e-9) << "sheet " << k;
        }
        EXPECT_GE(layout.sheetX(0.0), c.margin - 1e-9);
        EXPECT_LE(layout.sheetX(c.width), layout.sheetWidthMm - c.margin + 1e-9);
        EXPECT_LT(layout.sheetY(0, layout.stretchMm), layout.footerTopMm()) << "the roll stops above the footer";
        EXPECT_NEAR(layout.footerTopMm() + kFooterHeightMm, layout.sheetHeightMm - c.margin, 1e-9);
    }
}

TEST(LayRollOnPaper, RefusesWhatCannotBePrintedAndSaysWhy)
{
    struct Case {
        double width, margin, overlap;
        PrintError error;
        const char* said;
    };
    const Case cases[] = {
        {0, 10, 10, PrintError::NothingToPrint, "no organ scale"},
        {278, 10, 10, PrintError::RollTooWide, "the roll is 278.0 mm wide: A4 paper prints 190.0 mm across, 277.0 mm"},
        {278, 10, 10, PrintError::RollTooWide, "margins of 9.5 mm or less make it fit"},
        {300, 0, 10, PrintError::RollTooWide, "no sheet of that paper holds it"},
        {130, -1, 10, PrintError::BadMargin, "margin -1 mm: give 0 to 40 mm"},
        {130, 40.5, 10, PrintError::BadMargin, "give 0 to 40 mm"},
        {130, std::nan(""), 10, PrintError::BadMargin, "give 0 to 40 mm"},
        {130, 10, -1, PrintError::BadOverlap, "overlap -1 mm: give 0 to 131.0 mm"},
        {130, 10, 131.5, PrintError::BadOverlap, "give 0 to 131.0 mm"},
        {130, 10, std::nan(""), PrintError::BadOverlap, "give 0 to 131.0 mm"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.said);
        auto laid = layRollOnPaper(plainRoll(c.width, 500), paperOptions(Paper::A4, c.margin, c.overlap));
        ASSERT_FALSE(laid.ok());
        EXPECT_EQ(laid.error(), c.error);
        EXPECT_NE(laid.detail().find(c.said), std::string::npos) << laid.detail();
    }
}

bool hasText(const SheetDrawing& drawing, const std::string& text)
{
    return std::any_of(drawing.texts.begin(), drawing.texts.end(), [&](const SheetText& t) { return t.text == text; });
}

// A4, 10 mm margins and overlap: sheet 1 shows [0, 262], sheet 2 [252, 514], sheet 3 [504, 600].
TEST(DrawSheet, HolesAreCutShortAtTheSheetEndsAndJoinsMeetAtOneRollPosition)
{
    RollPicture picture = plainRoll(100, 600, 100);
    picture.trackAxesMm = {10, 20};
    picture.holes = {{8, 12, 10, 300, 0, 0}, {18, 22, 20, 30, 1, 0}, {18, 22, 250, 265, 1, 0}, {8, 12, 262, 270, 0, 0}};
    picture.longestHoleMm = 290;
    const RollPrintLayout layout = layRollOnPaper(picture, paperOptions(Paper::A4, 10, 10)).value();
    ASSERT_EQ(layout.sheets.size(), 3u);
    const double left = layout.sheetX(0);

    struct Expected {
        std::vector<std::pair<double, double>> holes;  // roll Y from, to
        std::vector<double> folds;
        std::vector<double> joins;  // roll Y
    };
    const Expected expected[] = {
        {{{10, 262}, {20, 30}, {250, 262}}, {100, 200}, {257}},
        {{{252, 300}, {252, 265}, {262, 270}}, {300, 400, 500}, {257, 509}},
        {{}, {}, {509}},
    };
    for (int k = 0; k < 3; ++k) {
        SCOPED_TRACE("sheet " + std::to_string(k + 1));
        const SheetDrawing drawing = drawSheet(picture, layout, PrintFooter{"valse", "Kolby 27-29", "Laser", {}}, k);
        const auto rollY = [&](double sheetY) { return sheetY - layout.rollTopMm + layout.sheets[k].fromMm; };
        const Expected& e = expected[k];
        ASSERT_EQ(drawing.holes.size(), e.holes.size());
        for (std::size_t i = 0; i < e.holes.size(); ++i) {
            EXPECT_NEAR(rollY(drawing.holes[i].y), e.holes[i].first, 1e-9) << "hole " << i;
            EXPECT_NEAR(rollY(drawing.holes[i].y + drawing.holes[i].height), e.holes[i].second, 1e-9) << "hole " << i;
        }
        ASSERT_EQ(drawing.foldLines.size(), e.folds.size()) << "the end of the book at 600 is no fold";
        for (std::size_t i = 0; i < e.folds.size(); ++i) {
            EXPECT_NEAR(rollY(drawing.foldLines[i].y1), e.folds[i], 1e-9);
            EXPECT_TRUE(hasText(drawing, "fold " + std::to_string(static_cast<int>(e.folds[i] / 100))));
        }
        ASSERT_EQ(drawing.joinLines.size(), e.joins.size());
        ASSERT_EQ(drawing.alignmentMarks.size(), 2 * e.joins.size());
        for (std::size_t i = 0; i < e.joins.size(); ++i) {
            EXPECT_NEAR(rollY(drawing.joinLines[i].y1), e.joins[i], 1e-9);
            EXPECT_EQ(drawing.alignmentMarks[2 * i], std::make_pair(left, drawing.joinLines[i].y1));
            EXPECT_EQ(drawing.alignmentMarks[2 * i + 1], std::make_pair(left + 100, drawing.joinLines[i].y1));
        }
        // The card's start is drawn on the first sheet only, its end on the last.
        EXPECT_EQ(drawing.cardEdges.size(), k == 1 ? 2u : 3u);
        EXPECT_TRUE(hasText(drawing, "page " + std::to_string(k + 1) + " of 3"));
    }
}

// Printing needs a QGuiApplication for the text; the tests run on the offscreen platform.
void ensureGuiApplication()
{
    static int argc = 1;
    static char name[] = "roll_print_tests";
    static char* argv[] = {name, nullptr};
    if (QCoreApplication::instance() == nullptr) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
        new QGuiApplication(argc, argv);
    }
}

struct SvgRect {
    double x, y, width, height;
};

// The rectangles of an SVG file, split by their group's fill: holes are filled black, the
// sheets' frames are not filled.
void readSvgRects(const QString& path, std::vector<SvgRect>& holes, std::vector<SvgRect>& frames)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    QXmlStreamReader xml(&file);
    std::vector<QString> fills{QStringLiteral("none")};
    while (!xml.atEnd()) {
        xml.readNext();
        if (xml.isStartElement() && xml.name() == QLatin1String("g")) {
            const auto fill = xml.attributes().value(QLatin1String("fill"));
            fills.push_back(fill.isEmpty() ? fills.back() : fill.toString());
        } else if (xml.isEndElement() && xml.name() == QLatin1String("g")) {
            fills.pop_back();
        } else if (xml.isStartElement() && xml.name() == QLatin1String("rect")) {
            const auto number = [&](const char* name) {
                return xml.attributes().value(QLatin1String(name)).toDouble();
            };
            const SvgRect rect{number("x"), number("y"), number("width"), number("height")};
            (fills.back() == QLatin1String("#000000") ? holes : frames).push_back(rect);
        }
    }
    ASSERT_FALSE(xml.hasError()) << xml.errorString().toStdString();
}

class PrintRoll : public ::testing::Test {
protected:
    void SetUp() override { ensureGuiApplication(); }

    // A song of 9 s with notes on the bass and treble tracks: a 640 mm book of 3 sheets.
    RollPicture songPicture(const std::string& machine)
    {
        state = AppState();
        state.dossier_documents = dir.str();
        MessageLog log;
        Def_standard(dir.str(), state.settings, state.scale, log);
        state.settings.Type_machine = machine;
        std::vector<testing::TestNote> notes = testing::kFiveNotes;
        notes.insert(notes.end(), {{4100, 4600, 86}, {5000, 6500, 53}, {8000, 9000, 72}});
        testing::writeFile(dir.path() / "valse.mid", testing::midiFile(notes));
        auto report = Ouvre_midi(state, {(dir.path() / "valse.mid").string()}, 0, {nullptr, false});
        EXPECT_TRUE(report.ok()) << report.detail();
        return rollPictureOf(state);
    }

    testing::TempDir dir;
    AppState state;
};

// Every hole of the plan is in the SVG where the layout puts it, clipped to each sheet it
// reaches, and there is one framed sheet per sheet of the layout.
TEST_F(PrintRoll, SvgShowsEveryHoleOfThePlanAtItsPlaceOnEachSheet)
{
    for (const std::string machine : {"Laser", "Punch"}) {
        SCOPED_TRACE(machine);
        const RollPicture picture = songPicture(machine);
        PrintOptions options;
        options.footer = printFooterOf(state);
        const RollPrintLayout layout = layRollOnPaper(picture, options).value();
        ASSERT_EQ(layout.sheets.size(), 3u);
        const QString path = QString::fromStdString((dir.path() / "valse.svg").string());
        auto printed = printRoll(picture, options, path);
        ASSERT_TRUE(printed.ok()) << printed.detail();
        EXPECT_EQ(printed.value(), 3);

        std::vector<SvgRect> holes, frames;
        readSvgRects(path, holes, frames);
        ASSERT_EQ(frames.size(), 3u);
        std::vector<SvgRect> expected;
        for (int k = 0; k < 3; ++k) {
            const double offset = k * (297.0 + kSvgSheetGapMm);
            EXPECT_NEAR(frames[k].y, offset * 10, 0.1);
            EXPECT_NEAR(frames[k].height, 2970, 0.1);
            const PrintSheet& sheet = layout.sheets[static_cast<std::size_t>(k)];
            for (const RollHole& hole : picture.holes) {
                if (hole.y1 <= sheet.fromMm || hole.y0 >= sheet.toMm)
                    continue;
                const double y0 = std::max<double>(hole.y0, sheet.fromMm);
                const double y1 = std::min<double>(hole.y1, sheet.toMm);
                const double left = (210.0 - picture.widthMm) / 2;  // the roll centred across A4
                expected.push_back({(left + hole.x0) * 10, (offset + 10 + y0 - sheet.fromMm) * 10,
                                    (hole.x1 - hole.x0) * 10.0, (y1 - y0) * 10});
            }
        }
        ASSERT_GT(expected.size(), picture.holes.size()) << "a hole reaches into two sheets";
        ASSERT_EQ(holes.size(), expected.size());
        const auto order = [](const SvgRect& a, const SvgRect& b) { return std::tie(a.y, a.x) < std::tie(b.y, b.x); };
        std::sort(holes.begin(), holes.end(), order);
        std::sort(expected.begin(), expected.end(), order);
        for (std::size_t i = 0; i < holes.size(); ++i) {
            EXPECT_NEAR(holes[i].x, expected[i].x, 0.1) << "hole " << i;
            EXPECT_NEAR(holes[i].y, expected[i].y, 0.1) << "hole " << i;
            EXPECT_NEAR(holes[i].width, expected[i].width, 0.1) << "hole " << i;
            EXPECT_NEAR(holes[i].height, expected[i].height, 0.1) << "hole " << i;
        }
        const std::string svg = testing::readText(dir.path() / "valse.svg");
        EXPECT_NE(svg.find("width=\"210mm\""), std::string::npos) << "1:1: the file's own size is the paper's";
    }
}

// One PDF page per sheet, landscape for a turned roll; a file that cannot be made leaves
// what was there.
TEST_F(PrintRoll, PdfHasOnePageASheetAndFailuresLeaveTheFileAlone)
{
    const auto pdfPages = [](const std::string& pdf) {
        const std::regex page("/Type /Page[^s]");
        return std::distance(std::sregex_iterator(pdf.begin(), pdf.end(), page), std::sregex_iterator());
    };
    RollPicture picture = songPicture("Laser");
    const std::string pdfPath = (dir.path() / "valse.pdf").string();
    PrintOptions options;
    ASSERT_EQ(printRoll(picture, options, QString::fromStdString(pdfPath)).value(), 3);
    std::string pdf = testing::readText(pdfPath);
    EXPECT_EQ(pdf.rfind("%PDF", 0), 0u);
    EXPECT_EQ(pdfPages(pdf), 3);
    EXPECT_NE(pdf.find("/MediaBox [0 0 595"), std::string::npos) << "A4 upright";

    picture.widthMm = 250;
    options.paper = Paper::Letter;
    ASSERT_EQ(printRoll(picture, options, QString::fromStdString(pdfPath)).value(), 4);
    pdf = testing::readText(pdfPath);
    EXPECT_EQ(pdfPages(pdf), 4);
    EXPECT_NE(pdf.find("/MediaBox [0 0 792"), std::string::npos) << "Letter turned sideways";

    picture.widthMm = 300;
    EXPECT_EQ(printRoll(picture, options, QString::fromStdString(pdfPath)).error(), PrintError::RollTooWide);
    EXPECT_EQ(testing::readText(pdfPath), pdf);
    picture.widthMm = 130;
    const QString txt = QString::fromStdString((dir.path() / "valse.txt").string());
    EXPECT_EQ(printRoll(picture, options, txt).error(), PrintError::UnknownFormat);
    EXPECT_EQ(printRoll(picture, options, QString::fromStdString((dir.path() / "no/valse.pdf").string())).error(),
              PrintError::CannotWrite);
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "valse.txt"));
}

// The footer names the values the program was made with, and the settings of its machine.
TEST(PrintFooterOf, NamesTheSettingsThatShapedTheHoles)
{
    AppState state;
    state.chemin_morceau = "/songs/la valse.mid";
    state.settings.Standard = kAlderFennName;
    MessageLog log;
    Def_standard("", state.settings, state.scale, log);
    state.settings.Type_machine = "Punch";
    state.settings.Vitcarton = "80";
    state.programSettings = planSettingsOf(state.settings, state.scale);
    state.settings.Vitcarton = "45";  // edited after the program was written
    state.settings.Type_machine = "Laser";
    const PrintFooter footer = printFooterOf(state);
    EXPECT_EQ(footer.song, "la valse");
    EXPECT_EQ(footer.scale, kAlderFennName);
    EXPECT_EQ(footer.machine, "Punch");
    const std::vector<std::string> settings = {"Vitcarton 80 mm/s", "Ldecoupe 4 mm", "Dist_notes 6 mm",
                                               "Talon 10 mm",       "Lgponts 1.5 mm", "L_poincon 3 mm",
                                               "BassesAF 4 mm"};
    EXPECT_EQ(footer.settings, settings);
}

TEST(CliPrint, WritesTheFileOrSaysWhyNot)
{
    const testing::TempDir dir;
    const std::string song = (dir.path() / "valse.mid").string();
    testing::writeFile(song, testing::midiFile(testing::kFiveNotes));
    const std::string environment =
        "VELTRIN_DOCUMENTS=" + testing::quoted(dir.str()) + " XDG_CONFIG_HOME=" + testing::quoted(dir.str());
    struct Case {
        std::vector<std::string> args;
        int exitCode;
        std::string said;
    };
    const std::string svg = (dir.path() / "valse.svg").string();
    const Case cases[] = {
        {{"--out", svg}, 0, svg + ": 2 sheets of A4 paper, the roll along the long side, 320.0 mm long"},
        {{"--out", svg, "--paper", "letter", "--scale", kAlderFennName, "--margin", "20"}, 0,
         svg + ": 2 sheets of Letter paper, the roll along the long side, 252.0 mm long"},
        {{"--out", svg, "--set", "Talon=80"}, 2, "the roll is 277.6 mm wide"},
        {{"--out", svg, "--set", "Talon=80", "--margin", "9.6"}, 0,
         "2 sheets of A4 paper, the roll along the short side, 320.0 mm long"},
        {{"--out", (dir.path() / "valse.png").string()}, 2, "name a .pdf file (to print) or a .svg file"},
        {{"--out", song + ".pdf", "--overlap", "200"}, 2, "overlap 200 mm: give 0 to 131.0 mm"},
    };
    for (const Case& c : cases) {
        std::vector<std::string> args = {"print", song, "--defaults"};
        args.insert(args.end(), c.args.begin(), c.args.end());
        const testing::CliRun run = testing::runCli(environment, args);
        SCOPED_TRACE(run.out + run.err);
        EXPECT_EQ(run.exitCode, c.exitCode);
        EXPECT_NE((run.out + run.err).find(c.said), std::string::npos);
    }
    EXPECT_FALSE(std::filesystem::exists(song + ".pdf"));
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "Veltrin" / "Temp" / "valse.gcode")) << "nothing left behind";
}

}  // namespace
}  // namespace veltrin
