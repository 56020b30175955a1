// The checks before a generation: each refused value names its key and value, and nothing
// is written; odd values that Grbl reads well still make a program.

#include "plan/plan_checks.h"

#include <cmath>
#include <filesystem>
#include <limits>
#include <gtest/gtest.h>

#include "app/genere_gcode.h"
#include "plan_test_support.h"

namespace veltrin {
namespace {

class GenerationChecks : public ::testing::Test {
protected:
    GenerationChecks()
    {
        state.dossier_documents = documents.str();
        state.chemin_morceau = "/songs/song.mid";
        state.scale.nb_notes = 3;  // notes 60, 62, 64 on tracks 0, 1, 2
        state.scale.notes_standard = {60, 62, 64};
        state.Liste_tran = testing::songEvents({{1000, 1200, 60}, {20000, 20600, 64}});
    }
    std::filesystem::path temp() const { return documents.path() / "Veltrin" / "Temp"; }
    bool nothingWritten() const { return !std::filesystem::exists(temp()) || std::filesystem::is_empty(temp()); }

    testing::TempDir documents;
    AppState state;
};

struct Refused {
    const char* machine;
    const char* key;
    const char* value;
    PlanError error;
    const char* message;
    const char* otherKey = nullptr;  // a second setting the case needs
    const char* otherValue = nullptr;
};

TEST_F(GenerationChecks, EachRefusedSettingIsNamedWithItsValueAndNothingIsWritten)
{
    const Refused cases[] = {
        {"Laser", "VitesseF", "abc", PlanError::SettingRefused, "VitesseF = \"abc\": the laser feed must be a number above 0 (mm/min)"},
        {"Laser", "VitesseF", "0", PlanError::SettingRefused, "VitesseF = \"0\": the laser feed must be a number above 0"},
        {"Laser", "VitesseF", "-800", PlanError::SettingRefused, "VitesseF = \"-800\": the laser feed must be a number above 0"},
        {"Laser", "VitesseF", "800mm", PlanError::SettingRefused, "VitesseF = \"800mm\": the laser feed must be a number"},
        {"Laser", "VitesseF", "0.4", PlanError::SettingRefused, "VitesseF = \"0.4\": the laser feed must be at least 1 (mm/min)"},
        {"Laser", "VitesseF", "100000", PlanError::SettingRefused, "VitesseF = \"100000\": the laser feed must be at most 99999"},
        {"Punch", "VitesseF_poin", "fast", PlanError::SettingRefused, "VitesseF_poin = \"fast\": the punch feed between holes must be a number above 0"},
        {"Laser", "Laser_power", "abc", PlanError::SettingRefused, "Laser_power = \"abc\": the laser power must be a whole number from 0 to 1000"},
        {"Laser", "Laser_power", "5?0!", PlanError::SettingRefused, "Laser_power = \"5?0!\": the laser power must be a whole number"},
        {"Laser", "Laser_power", "500.5", PlanError::SettingRefused, "Laser_power = \"500.5\""},
        {"Laser", "Laser_power", "5e2", PlanError::SettingRefused, "Laser_power = \"5e2\""},
        {"Laser", "Laser_power", "-5", PlanError::SettingRefused, "Laser_power = \"-5\""},
        {"Laser", "Laser_power", "1001", PlanError::SettingRefused, "Laser_power = \"1001\""},
        {"Laser", "Laser_mode", "m3", PlanError::SettingRefused, "Laser_mode = \"m3\": the laser mode must be M3 (constant power) or M4"},
        {"Laser", "Type_machine", "Drill", PlanError::SettingRefused, "Type_machine = \"Drill\": the machine must be Laser or Punch"},
        {"Laser", "Gen_entete", "2", PlanError::SettingRefused, "Gen_entete = \"2\": the homing header must be 0 (not written) or 1"},
        {"Laser", "Vitcarton", "0", PlanError::ZeroRollSpeed, "Vitcarton = \"0\": the roll speed must be a number above 0 (mm/s)"},
        {"Laser", "Vitcarton", "x", PlanError::ZeroRollSpeed, "Vitcarton = \"x\": the roll speed must be a number above 0"},
        {"Laser", "Ldecoupe", "0", PlanError::SettingRefused, "Ldecoupe = \"0\": the hole size across the roll must be a number above 0 (mm)"},
        {"Laser", "Dist_notes", "-4.2", PlanError::SettingRefused, "Dist_notes = \"-4.2\": the track spacing must be a number above 0"},
        {"Laser", "Talon", "-1", PlanError::SettingRefused, "Talon = \"-1\": the distance from the roll border to the first track must be a number of 0 or more"},
        {"Laser", "Talon", "6,3", PlanError::SettingRefused, "Talon = \"6,3\": the distance from the roll border to the first track must be a number of 0 or more (mm), with \".\" as the decimal point"},
        {"Laser", "OrigineX", "-2.5", PlanError::SettingRefused, "OrigineX = \"-2.5\": the distance from the homing point"},
        {"Punch", "OrigineX_poin", "", PlanError::SettingRefused, "OrigineX_poin = \"\": the distance from the homing point"},
        {"Laser", "Lgponts", "-1", PlanError::SettingRefused, "Lgponts = \"-1\": the bridge length must be a number of 0 or more"},
        {"Laser", "Dist_ponts", "0", PlanError::SettingRefused, "Dist_ponts = \"0\": the distance between bridges (bridges are on"},
        {"Punch", "L_poincon", "0", PlanError::SettingRefused, "L_poincon = \"0\": the punch size along the roll must be a number above 0"},
        {"Punch", "L_poincon", "0.01", PlanError::SplitTooFine, "L_poincon = \"0.01\": L_poincon + Lgponts must be at least 0.06 mm", "Lgponts", "0"},
        {"Laser", "Fourchette", "abc", PlanError::SettingRefused, "Fourchette = \"abc\": the band width of the travel order must be a number of 0 or more"},
        {"Laser", "RollCleanup", "yes", PlanError::SettingRefused, "RollCleanup = \"yes\": the roll cleanup must be 0 (off) or 1 (on)"},
        {"Laser", "MinHoleLength", "-3", PlanError::SettingRefused, "MinHoleLength = \"-3\": the shortest hole must be a number of 0 or more"},
        {"Laser", "Transpose", "abc", PlanError::SettingRefused, "Transpose = \"abc\": the transposition must be a whole number of semitones from -24 to 24, or auto"},
        {"Laser", "Transpose", "99", PlanError::SettingRefused, "Transpose = \"99\": the transposition must be a whole number"},
        {"Laser", "Transpose", "-25", PlanError::SettingRefused, "Transpose = \"-25\""},
        {"Laser", "Transpose", "2.5", PlanError::SettingRefused, "Transpose = \"2.5\""},
        {"Laser", "Transpose", "", PlanError::SettingRefused, "Transpose = \"\""},
        {"Laser", "Channels", "0-3", PlanError::SettingRefused, "Channels = \"0-3\": the channels must be MIDI channel numbers or ranges from 1 to 16 separated by commas"},
        {"Laser", "Channels", "17", PlanError::SettingRefused, "Channels = \"17\": the channels must be"},
        {"Laser", "Channels", "9-1", PlanError::SettingRefused, "Channels = \"9-1\": the channels must be"},
        {"Laser", "Channels", "1-9,", PlanError::SettingRefused, "Channels = \"1-9,\": the channels must be"},
        {"Laser", "Channels", "drums", PlanError::SettingRefused, "Channels = \"drums\": the channels must be"},
        {"Laser", "Channels", " ", PlanError::SettingRefused, "Channels = \" \": no channel would go on the roll"},
        {"Laser", "duree_metre_laser", "n/a", PlanError::SettingRefused, "duree_metre_laser = \"n/a\""},
        // Sizes whose numbers would put the program beyond the machine or Grbl's line.
        {"Laser", "Talon", "1e150", PlanError::SettingRefused, "Talon = \"1e150\": track 0 would lie at X 1e+150 mm; coordinates must stay within +-99999 mm"},
        {"Laser", "Dist_notes", "60000", PlanError::SettingRefused, "Dist_notes = \"60000\": track 2 would lie at X 120004.8 mm"},
        {"Laser", "Vitcarton", "5000", PlanError::SettingRefused, "Vitcarton = \"5000\": the hole at 20.6 s of the song would lie at Y 103000 mm", "Lgponts", "0"},
        {"Punch", "L_poincon", "300000", PlanError::SettingRefused, "L_poincon = \"300000\": strikes would lie beyond Y 150000 mm"},
        {"Laser", "OrigineX", "100000", PlanError::SettingRefused, "OrigineX = \"100000\": the header would set X to 100000 mm"},
        {"Laser", "OrigineX", "1e-80", PlanError::SettingRefused, "OrigineX = \"1e-80\": the program would hold lines of 91 characters; Grbl takes at most 79"},
        {"Laser", "Fourchette", "7", PlanError::SettingRefused, "Fourchette = \"7\": at a roll speed of 1e-6 mm/s, at most 1 mm (1000000000 ms of roll) is allowed", "Vitcarton", "1e-6"},
        {"Laser", "MinHoleLength", "700000", PlanError::SettingRefused, "MinHoleLength = \"700000\": the shortest hole must be at most 20 mm"},
        {"Punch", "MinHoleLength", "20.5", PlanError::SettingRefused, "MinHoleLength = \"20.5\": the shortest hole must be at most 20 mm"},
        // Numbers too large for a double are no numbers, wherever they are read.
        {"Laser", "Lgponts", "1e400", PlanError::SettingRefused, "Lgponts = \"1e400\": the bridge length must be a number of 0 or more"},
        {"Punch", "OrigineX_poin", "1e400", PlanError::SettingRefused, "OrigineX_poin = \"1e400\": the distance from the homing point"},
        {"Laser", "Talon", "-1e400", PlanError::SettingRefused, "Talon = \"-1e400\": the distance from the roll border"},
        {"Laser", "Fourchette", "1e400", PlanError::SettingRefused, "Fourchette = \"1e400\": the band width of the travel order must be a number"},
        {"Laser", "MinHoleLength", "1e400", PlanError::SettingRefused, "MinHoleLength = \"1e400\": the shortest hole must be a number"},
        {"Laser", "RollCleanup", "1e400", PlanError::SettingRefused, "RollCleanup = \"1e400\": the roll cleanup must be 0 (off) or 1 (on)"},
        {"Laser", "duree_metre_laser", "1e400", PlanError::SettingRefused, "duree_metre_laser = \"1e400\""},
        {"Punch", "duree_trou_poincon", "1e400", PlanError::SettingRefused, "duree_trou_poincon = \"1e400\""},
        {"Laser", "Gen_entete", "yes", PlanError::SettingRefused, "Gen_entete = \"yes\": the homing header must be 0 (not written) or 1"},
        // Bridges and pieces too thin to hold or to lay out in whole ms.
        {"Laser", "Lgponts", "0.02", PlanError::SettingRefused, "Lgponts = \"0.02\": a bridge must be 0 or at least 0.1 mm"},
        {"Punch", "Lgponts", "0.01", PlanError::SettingRefused, "Lgponts = \"0.01\": the gap between strikes must be 0 or at least 0.1 mm"},
        {"Laser", "Dist_ponts", "0.016", PlanError::SettingRefused, "Dist_ponts = \"0.016\": the distance between bridges must be at least 1 mm"},
        {"Laser", "Vitcarton", "200", PlanError::SplitTooFine, "Vitcarton = \"200\": at this roll speed 1 ms of roll is 0.2 mm, more than Lgponts (0.15 mm)", "Lgponts", "0.15"},
        {"Punch", "Vitcarton", "5000", PlanError::SplitTooFine, "Vitcarton = \"5000\": at this roll speed 1 ms of roll is 5 mm, more than L_poincon + Lgponts (4.5 mm)"},
        {"Punch", "Vitcarton", "1e300", PlanError::SplitTooFine, "Vitcarton = \"1e300\": at this roll speed 1 ms of roll is 1e+297 mm"},
        // Holes that touch their neighbours or leave the roll.
        {"Laser", "Ldecoupe", "99999", PlanError::SettingRefused, "Ldecoupe = \"99999\": the hole size across the roll must be less than the track spacing Dist_notes (4.2 mm)"},
        {"Punch", "Ldecoupe", "4.2", PlanError::SettingRefused, "Ldecoupe = \"4.2\": the hole size across the roll must be less than the track spacing"},
        {"Laser", "Talon", "0", PlanError::SettingRefused, "Talon = \"0\": the first holes would start at X -1.5 mm, past the roll border: Talon must be at least 1.5 mm"},
        {"Laser", "Laser_power", "1000.00000000000000000000000000000000000000000000000000000000000000000000000000000", PlanError::SettingRefused, "the program would hold lines of 85 characters"},
    };
    for (const Refused& c : cases) {
        AppState s = state;
        s.settings.Type_machine = c.machine;
        *settingField(s.settings, c.key) = c.value;
        if (c.otherKey)
            *settingField(s.settings, c.otherKey) = c.otherValue;
        const auto written = Genere_GCode(s, false, false);
        ASSERT_FALSE(written.ok()) << c.key << " = " << c.value;
        EXPECT_EQ(written.error(), c.error) << c.key << " = " << c.value;
        EXPECT_NE(written.detail().find(c.message), std::string::npos) << written.detail();
        EXPECT_EQ(written.detail().find(c.key), 0u) << "the message starts with the key: " << written.detail();
        EXPECT_TRUE(nothingWritten()) << c.key << " = " << c.value;
        EXPECT_FALSE(s.punchEnabled);
    }
}

TEST_F(GenerationChecks, OddValuesThatGrblReadsWellStillMakeAProgram)
{
    struct Accepted {
        const char* machine;
        const char* key;
        const char* value;
    };
    const Accepted cases[] = {
        {"laser", "VitesseF", " 1200.5 "}, {"LASER", "Laser_power", "750.0"}, {"Laser", "Laser_power", "0"},
        {"Laser", "VitesseF", "1e3"},      {"Laser", "Lgponts", "0"},         {"Punch", "Talon", "0"},
        {"Laser", "Talon", "1.5"},         {"Laser", "Lgponts", "0.1"},       {"Laser", "MinHoleLength", "20"},
        {"Laser", "OrigineX", "0"},        {"Laser", "Fourchette", "0"},      {"PUNCH", "L_poincon", "2.2"},
        {"punch", "Dist_ponts", "0"},      {"Laser", "Laser_mode", "M4"},     {"Laser", "Gen_entete", "0"},
        {"Punch", "Laser_power", "abc"},   {"Laser", "L_poincon", "0"},       {"Laser", "BassesAF", "0"},
        {"Laser", "Transpose", " AUTO "},  {"Laser", "Transpose", "-24"},     {"Laser", "Transpose", "+3"},
        {"Laser", "Channels", "1-16"},     {"Laser", "Channels", " 10 "},     {"Laser", "Channels", "1, 3 ,5-8,5"},
        // Bridges off: Dist_ponts is not read.
        {"Laser", "Dist_ponts", "x"},
        // No header: the origin is not written.
        {"Laser", "OrigineX", "100000"},
    };
    for (const Accepted& c : cases) {
        AppState s = state;
        s.settings.Type_machine = c.machine;
        *settingField(s.settings, c.key) = c.value;
        if (std::string(c.key) == "Dist_ponts" && std::string(c.value) == "x")
            s.settings.Lgponts = "0";
        if (std::string(c.key) == "OrigineX" && std::string(c.value) == "100000")
            s.settings.Gen_entete = "0";
        const auto written = Genere_GCode(s, false, false);
        ASSERT_TRUE(written.ok()) << c.key << " = " << c.value << ": " << written.detail();
        const std::string program = testing::readText(written.value());
        const bool laser = std::string(c.machine) == "laser" || std::string(c.machine) == "LASER" ||
                           std::string(c.machine) == "Laser";
        EXPECT_TRUE(program.starts_with(laser ? ";Laser gcode" : ";Punch gcode")) << c.machine;
    }
}

// The 20-note scale's bass holes: BassesAF wide, 1.5 spacings apart, the last one spacing
// from the first treble hole, the first one centred on Talon.
TEST(SettingChecks, BassHolesOfTheTwentyNoteScaleMustNotTouch)
{
    struct Case {
        const char* BassesAF;
        const char* Talon;
        const char* message;  // empty: accepted
    };
    const Case cases[] = {
        {"4", "10", ""},
        {"7.9", "10", ""},  // (7.9 + 4) / 2 < 6
        {"8", "10", "BassesAF = \"8\": the bass holes must be less than 1.5 track spacings wide"},
        {"9", "10", "BassesAF = \"9\""},
        {"4", "2", ""},
        {"4", "1.9", "Talon = \"1.9\": the first holes would start at X -0.1 mm, past the roll border: Talon must be at least 2 mm"},
    };
    OrganScale scale;
    scale.standard_AF_actif = true;
    for (const Case& c : cases) {
        Settings s;
        s.Ldecoupe = "4", s.Dist_notes = "6", s.BassesAF = c.BassesAF, s.Talon = c.Talon;
        const auto checked = checkGenerationSettings(s, scale);
        if (std::string(c.message).empty()) {
            EXPECT_TRUE(checked.ok()) << c.BassesAF << " " << c.Talon << ": " << checked.detail();
        } else {
            ASSERT_FALSE(checked.ok()) << c.BassesAF << " " << c.Talon;
            EXPECT_EQ(checked.detail().find(c.message), 0u) << checked.detail();
        }
    }
}

TEST_F(GenerationChecks, OnlyTheHolesBetweenTheMarksMustFitTheMachine)
{
    // At 5000 mm/s the note at 20 s lies at Y 100000 mm; an end mark before it leaves it out.
    state.settings.Vitcarton = "5000";
    state.settings.Lgponts = "0";  // a bridge under 1 ms of roll would be refused
    ASSERT_FALSE(Genere_GCode(state, false, false).ok());
    state.fin_marque = 10000;
    const auto written = Genere_GCode(state, false, false);
    ASSERT_TRUE(written.ok()) << written.detail();
    EXPECT_NE(testing::readText(written.value()).find("G0 X4.8 Y5000\r\n"), std::string::npos);
    // A start mark that would put the roll's origin beyond reach is refused in the header.
    state.fin_marque = 500000;
    state.debut_marque = 20000;
    const auto far = Genere_GCode(state, false, false);
    ASSERT_FALSE(far.ok());
    EXPECT_NE(far.detail().find("Vitcarton = \"5000\": the start mark at 20000 ms would lie at Y 100000 mm"),
              std::string::npos)
        << far.detail();
}

TEST_F(GenerationChecks, ARollSpeedSoLowThatItsYTextsOutgrowGrblsLine)
{
    state.settings.Vitcarton = "1e-70";
    for (const char* key : {"Fourchette", "Lgponts", "MinHoleLength"})
        *settingField(state.settings, key) = "0";
    const auto written = Genere_GCode(state, false, false);
    ASSERT_FALSE(written.ok());
    EXPECT_EQ(written.detail().find("Vitcarton = \"1e-70\": the program would hold lines of 94 characters; "
                                    "Grbl takes at most 79 (spaces and comments aside)"),
              0u)
        << written.detail();
    EXPECT_TRUE(nothingWritten());
}

TEST(MarkChecks, RangeAndOrder)
{
    struct Case {
        std::optional<double> start;
        double end;
        const char* message;  // empty: accepted
    };
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    const Case cases[] = {
        {std::nullopt, 500000, ""},
        {900000, 500000, ""},  // the unset end mark: to the end of the song
        {0, 15000, ""},
        {2500.5, 2500.9, ""},
        {9999999, 500000, ""},
        {20000, 5000, "end mark = \"5000\": the end mark must come after the start mark (20000 ms)"},
        {3000, 3000, "end mark = \"3000\": the end mark must come after the start mark (3000 ms)"},
        {std::nullopt, 0, "end mark = \"0\": the end mark must come after the start of the song (0 ms)"},
        {std::nullopt, -300, "end mark = \"-300\": a mark must be a time from 0 to 9999999 ms"},
        {-0.5, 500000, "start mark = \"-0.5\": a mark must be a time from 0 to 9999999 ms"},
        {nan, 500000, "start mark = \"nan\""},
        {std::nullopt, inf, "end mark = \"inf\""},
        {10000000, 500000, "start mark = \"10000000\""},
        {std::nullopt, 1e300, "end mark = \"1e+300\""},
    };
    for (const Case& c : cases) {
        const auto checked = checkMarks(c.start, c.end);
        if (std::string(c.message).empty()) {
            EXPECT_TRUE(checked.ok()) << checked.detail();
        } else {
            ASSERT_FALSE(checked.ok()) << c.message;
            EXPECT_EQ(checked.error(), PlanError::MarkRefused);
            EXPECT_EQ(checked.detail().find(c.message), 0u) << checked.detail();
        }
    }
}

TEST_F(GenerationChecks, MarksSetInTheStateAreCheckedBeforeWriting)
{
    state.debut_marque = 20000;
    state.fin_marque = 5000;
    const auto written = Genere_GCode(state, false, false);
    ASSERT_FALSE(written.ok());
    EXPECT_EQ(written.error(), PlanError::MarkRefused);
    EXPECT_TRUE(nothingWritten());
}

TEST(StrictNumber, WholeTextOnly)
{
    const std::pair<const char*, std::optional<double>> cases[] = {
        {"800", 800.0},   {" 7.5\t", 7.5}, {"-2.50", -2.5}, {"+3", 3.0},       {".5", 0.5},
        {"5.", 5.0},      {"1e3", 1000.0}, {"2E-1", 0.2},   {"abc", std::nullopt}, {"", std::nullopt},
        {"4,5", std::nullopt}, {"12mm", std::nullopt}, {"1e", std::nullopt}, {".", std::nullopt},
 {"- 3", std::nullopt}, {"nan", std::nullopt}, {"inf", std::nullopt},
    };
    for (const auto& [text, value] : cases)
        EXPECT_EQ(strictNumber(text), value) << '"' << text << '"';
}

}  // namespace
}  // namespace veltrin
