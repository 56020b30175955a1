#include "scales/scale_file.h"

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace veltrin {
namespace {

using testing::TempDir;

// The state one load acts on, and the verdict.
struct Loaded {
    Settings settings;
    OrganScale scale;
    MessageLog log;
    ScaleLoad load;
};

Loaded parse(const std::string& text, OrganScale scale = {})
{
    Loaded out;
    out.settings.Standard = "test";
    out.scale = scale;
    out.load = parseScaleText(text, out.settings, out.scale, out.log);
    return out;
}

// A scale file with the given track-count line and note lines 40, 41, ...
std::string scaleText(const std::string& countLine, int noteLines)
{
    std::string text = "55\n200\n7\n5\n0\n" + countLine + "\n";
    for (int i = 0; i < noteLines; ++i)
        text += std::to_string(40 + i) + "\n";
    return text;
}

TEST(RangCommentaire, CountsTheCharactersBeforeTheFirstDoubleSlash)
{
    for (const auto& [line, rank] : {std::pair{"", 0}, {"127.3", 5}, {"60 // roll speed", 3}, {"// header", 0},
                                     {"a/b//c//d", 3}})
        EXPECT_EQ(rang_commentaire(line), rank) << line;
}

TEST(ParseScaleText, ReadsEveryValueOfAValidFileWhateverTheLineEnds)
{
    for (const std::string eol : {"\r\n", "\n", "\r"}) {
        std::string text;
        for (const char* line : {"// my organ", "62.50 // mm/s", "127.3", "6,3 // comma", "4.2",
                                 "160", " 3 // tracks", "60.6", "60 // C", "62.5"})
            text += line + eol;
        OrganScale before;
        before.standard_AF_actif = true;
        const Loaded r = parse(text.substr(0, text.size() - eol.size()), before);
        ASSERT_TRUE(r.load.ok()) << "line end of " << eol.size();
        // A comma ends the number; a file never sets the hole size (Ldecoupe).
        EXPECT_EQ(r.settings.Vitcarton + "|" + r.settings.Talon + "|" + r.settings.Dist_notes + "|" +
                      r.settings.Ldecoupe,
                  "62.5|6|4.2|3");
        EXPECT_DOUBLE_EQ(r.scale.largeur_carton, 127.3);
        EXPECT_EQ(r.scale.longueur_pli, 160.0);
        EXPECT_EQ(r.scale.nb_notes, 3);
        // Notes are rounded, halves to the even neighbour.
        EXPECT_EQ(std::vector<int>(r.scale.notes_standard.begin(), r.scale.notes_standard.begin() + 4),
                  (std::vector<int>{61, 60, 62, 0}));
        EXPECT_FALSE(r.scale.standard_AF_actif);
        EXPECT_DOUBLE_EQ(r.scale.facteur_dessin, 382.0 / 127.3);
        EXPECT_EQ(r.log.text(), "Standard : test\r\n");
    }
}

TEST(ParseScaleText, ReadsTheTrackCountFromItsSecondCharacterAndHeadersOnlyAtTheTop)
{
    for (const auto& [line, tracks] : {std::pair{"29", 9}, {" 29", 29}, {"x5 // five", 5},
                                       {"7", 0}, {"", 0}, {"//29", 0}})
        EXPECT_EQ(parse(scaleText(line, 29)).scale.nb_notes, tracks) << '"' << line << '"';

    // Header lines only at the top.
    const Loaded r = parse("// a\n//b\n58\n// not a header\n7\n5\n0\n 0\n");
    EXPECT_EQ(r.settings.Vitcarton, "58");
    EXPECT_EQ(r.scale.largeur_carton, 0.0) << "a \"//\" line after the first value reads 0";
    EXPECT_EQ(parse(" // header?\n100\n7\n5\n0\n 0\n").settings.Vitcarton, "0");
}

TEST(ParseScaleText, StopsAtTheFirstErrorKeepingWhatItRead)
{
    const std::pair<std::string, ScaleError> errors[] = {
        {"//h\n70\n150\n8.5\n", ScaleError::EndOfFile},
        {"// only\r\n// headers\r\n", ScaleError::EndOfFile},
        {scaleText(" 4", 3), ScaleError::EndOfFile},
        {scaleText(" 52", 52), ScaleError::TooManyTracks},
        {"60\nwide\n7\n5\n0\n 0\n", ScaleError::BadWidth},
        {"60\n6E-310\n7\n5\n0\n 0\n", ScaleError::BadWidth},  // 382 / width is no drawing factor
        {"60\n100\n7\n5\n0\n 2\n64\n40000\n", ScaleError::Overflow},
        {"60\n100\n7\n5\n0\n 1e9\n", ScaleError::Overflow}};
    for (const auto& [text, error] : errors)
        EXPECT_EQ(parse(text).load.error, error) << text;
    EXPECT_TRUE(parse(scaleText(" 51", 51)).load.ok());

    OrganScale before;
    before.standard_AF_actif = true;
    before.facteur_dessin = 1.25;
    const Loaded tooLong = parse(scaleText(" 52", 52), before);
    EXPECT_EQ(tooLong.load.linesRead, 6 + 52) << "stops on the 52nd note line";
    EXPECT_EQ(tooLong.settings.Vitcarton, "55") << "earlier steps keep their values";
    EXPECT_EQ(tooLong.scale.nb_notes, 52);
    EXPECT_EQ(tooLong.scale.notes_standard[50], 90);
    EXPECT_TRUE(tooLong.scale.standard_AF_actif) << "later steps never ran";
    EXPECT_EQ(tooLong.scale.facteur_dessin, 1.25);
    EXPECT_EQ(tooLong.log.text(), "Warning: scale \"test\": line 6: 52 tracks, but a scale holds at most 51; "
                                  "loading stops at the 52nd note\r\n");

    const Loaded early = parse("//h\n70\n150\n8.5\n");
    EXPECT_EQ(early.settings.Talon + "|" + early.settings.Dist_notes, "8.5|4.2") << "Dist_notes never reached";
    const Loaded flat = parse("60\nwide\n7\n5\n0\n 0\n", before);
    EXPECT_EQ(flat.scale.facteur_dessin, 1.25);
    EXPECT_FALSE(flat.scale.standard_AF_actif) << "cleared before the width is used";
}

// What a maker would not expect is said in the log; the load goes as it would without.
TEST(ParseScaleText, WarnsAboutWhatAMakerWouldNotExpect)
{
    struct Case {
        std::string text;
        ScaleError error;
        std::string warning;  // empty: none
    };
    const Case cases[] = {
        {scaleText("26", 26), ScaleError::None,
         "line 6: the track count is read from its second character: \"26\" reads as 6 tracks (write \" 26\" for 26)"},
        {scaleText("3 // tracks", 3), ScaleError::None, "\"3 \" reads as 0 tracks"},
        {scaleText(" 40", 40), ScaleError::None, "track 39 lies at 202 mm from the border, beyond the roll width of 200 mm"},
        {scaleText(" 10", 7), ScaleError::EndOfFile, "the file ends after 7 of its 10 note lines; loading stopped there"},
        {scaleText(" 60", 60), ScaleError::TooManyTracks, "line 6: 60 tracks, but a scale holds at most 51"},
        {"60\n0\n7\n5\n0\n 1\n60\n", ScaleError::BadWidth,
         "the roll width (second value) is 0; it must be above 0 mm; loading stopped"},
        {"60\n100\n7\n5\n0\n 2\n60\n62\n", ScaleError::None, ""},
        {"60\n12\n7\n5\n0\n 2\n60\n62\n", ScaleError::None, "track 1 lies at 12 mm from the border"},  // on the edge: fine
    };
    for (const Case& c : cases) {
        const Loaded r = parse(c.text);
        EXPECT_EQ(r.load.error, c.error) << c.text;
        const std::string log = r.log.text();
        if (c.warning.empty()) {
            EXPECT_EQ(log.find("Warning"), std::string::npos) << log;
        } else if (c.warning.starts_with("track 1 lies at 12 mm")) {
            EXPECT_EQ(log.find("Warning"), std::string::npos) << "a track on the edge is on the roll: " << log;
        } else {
            EXPECT_NE(log.find("Warning: scale \"test\": "), std::string::npos) << log;
            EXPECT_NE(log.find(c.warning), std::string::npos) << log;
        }
        EXPECT_EQ(log.ends_with("Standard : test\r\n"), c.error == ScaleError::None) << log;
    }
}

TEST(DefStandard, InstallsTheBuiltInScalesAndNeverReadsAFileOfTheirName)
{
    TempDir documents;
    documents.writeScale("Kolby 27-29", scaleText(" 3", 3));
    documents.writeScale("Street", testing::kStreetOrgan);
    Settings settings;
    OrganScale scale;
    MessageLog log;
    const auto install = [&](const char* name) {
        settings.Standard = name;
        return Def_standard(documents.str(), settings, scale, log);
    };

    ASSERT_TRUE(install("Kolby 27-29").ok());
    EXPECT_EQ(settings.Vitcarton + settings.Ldecoupe + settings.Dist_notes + settings.Talon, "6034.26.3");
    EXPECT_EQ(scale.nb_notes, 29);
    EXPECT_EQ(scale.longueur_pli, 160.0);
    EXPECT_EQ(scale.trackNote(0), 57) << "the extra notes sit on the first and last tracks";
    EXPECT_EQ(scale.trackNote(28), 68);

    ASSERT_TRUE(install("Street").ok());
    ASSERT_TRUE(install("Alder Fenn 20").ok());
    EXPECT_EQ(settings.BassesAF + settings.Ldecoupe + settings.Dist_notes + settings.Talon, "44610");
    EXPECT_EQ(scale.nb_notes, 20);
    EXPECT_EQ(scale.facteur_dessin, 2.7);
    EXPECT_EQ(scale.longueur_pli, 0.0);
    EXPECT_EQ(scale.notes_standard[1], 62) << "the file's table stays";
    EXPECT_EQ(scale.trackNote(1), 58) << "but the 20-note table is the one in use";
    EXPECT_EQ(log.text(), "Standard 27-29 notes Kolby\r\nStandard : Street\r\n"
                          "Standard Alder Fenn 20 notes\r\n");

    EXPECT_EQ(install("Gone").error, ScaleError::FileMissing);
    EXPECT_EQ(scale.nb_notes, 20);
}

TEST(ListStdPerso, ListsTheScaleFilesSortedAfterTheBuiltIns)
{
    TempDir documents;
    EXPECT_EQ(list_std_perso(documents.str()), (std::vector<std::string>{"Kolby 27-29", "Alder Fenn 20"}));
    for (const char* name : {"Alder Fenn 20", "zither", "Barrel B", "barrel a"})
        documents.writeScale(name, "60\n");
    const std::string folder = instrumentsFolder(documents.str());
    testing::writeText(folder + "/Caliope.TXT", "60\n");
    testing::writeText(folder + "/notes.md", "60\n");
    std::filesystem::create_directories(folder + "/folder.txt");
    EXPECT_EQ(list_std_perso(documents.str()),
              (std::vector<std::string>{"Kolby 27-29", "Alder Fenn 20", "barrel a", "Barrel B",
                                        "Caliope", "zither"}));
}

// Every name the list offers can be chosen: "Caliope" is the file "Caliope.TXT".
TEST(ScaleFilePath, FindsEveryListedScaleWhateverTheCaseOfItsExtension)
{
    TempDir documents;
    const std::string folder = instrumentsFolder(documents.str());
    std::filesystem::create_directories(folder);
    testing::writeText(folder + "/Caliope.TXT", testing::kStreetOrgan);
    testing::writeText(folder + "/Upper.Txt", testing::kStreetOrgan);
    documents.writeScale("Street", testing::kStreetOrgan);
    EXPECT_EQ(scaleFilePath(documents.str(), "Caliope"), folder + "/Caliope.TXT");
    EXPECT_EQ(scaleFilePath(documents.str(), "Street"), folder + "/Street.txt");
    for (const char* absent : {"caliope", "Calio", "Caliope.TXT", ""})
        EXPECT_EQ(scaleFilePath(documents.str(), absent), "") << "names keep their case: " << absent;
    for (const std::string& name : list_std_perso(documents.str())) {
        Settings settings;
        settings.Standard = name;
        OrganScale scale;
        MessageLog log;
        EXPECT_TRUE(Def_standard(documents.str(), settings, scale, log).ok()) << name;
    }
}

}  // namespace
}  // namespace veltrin
