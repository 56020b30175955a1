// Whole generations: the program file, its report and the state they leave, worked out by hand.

#include <gtest/gtest.h>

#include "app/genere_gcode.h"
#include "plan/plan_steps.h"
#include "plan_test_support.h"

namespace veltrin {
namespace {

using testing::crlf;
using Lines = std::vector<std::string>;

const std::string kLaserHead = crlf({";Laser gcode of the file : song", "$HX ;X origin search",
                                     "G92 X5 Y0 Z-1 ;Homing position at 5 mm from X origin",
                                     "M3 S1000 ;Laser power 1000. M3 = constant power"});

std::string cut(const std::string& x1, const std::string& y1, const std::string& x2, const std::string& y2)
{
    return crlf({"G0 X" + x1 + " Y" + y1, "G1 X" + x2 + " F800", "G1 Y" + y2 + " F800",
                 "G1 X" + x1 + " F800", "G1 Y" + y1 + " F800"});
}

class Program : public ::testing::Test {
protected:
    std::string generate(bool garder_notes = false, bool sans_optimisation = false)
    {
        auto written = Genere_GCode(state, garder_notes, sans_optimisation);
        EXPECT_TRUE(written.ok()) << written.detail();
        return written.ok() ? testing::readText(written.value()) : std::string();
    }
    std::string temp(const std::string& name) const { return documents.str() + "/Veltrin/Temp/" + name; }

    Program()
    {
        state.dossier_documents = documents.str();  // default laser settings
        state.chemin_morceau = "/songs/song.mid";
        state.scale.nb_notes = 3;  // notes 60, 62, 64 on tracks 0, 1, 2
        state.scale.notes_standard = {60, 62, 64};
    }
    testing::TempDir documents;
    AppState state;
};

// Laser: talon_x = 6.3 - 3/2 = 4.8, tracks every 4.2 mm, 0.06 mm per ms, pieces of 250 ms,
// bridges of 25 ms (margin 75), bands of 7000/60 -> 117 ms.
//   note 60 (track 0) 1000-1200: X 4.8..7.8, Y 60..72
//   note 64 (track 2, X 13.2..16.2) 1050-1650: [1050,1300] Y 63..78, rest 325: [1325,1650]
//   Y 79.5..99. 1050 > 0 + 117 and 1325 > 1050 + 117: three bands, in time order.
TEST_F(Program, LaserWithBridges)
{
    state.Liste_tran = testing::songEvents({{1000, 1200, 60}, {1050, 1650, 64}});
    EXPECT_EQ(generate(), kLaserHead + cut("4.8", "60", "7.8", "72") + cut("13.2", "63", "16.2", "78") +
                              cut("13.2", "79.5", "16.2", "99") + crlf({"G0 M5 S0"}));
    // Cuts 2 x 12 + 6, 2 x 15 + 6, 2 x 19.5 + 6 = 111 mm. Travel hypot(4.8, 60) +
    // hypot(8.4, 3) + 16.5 = 85.61 mm. Roll: y_max 99 mm. (111 + 85.61) / 800 x 60 = 14.75 s.
    EXPECT_EQ(state.user_msg_list.text(),
              crlf({"Travel optimizing 7(Width : 117)", "   - Cuttings length : 0.11 m",
                    "   - Overall length between holes : 0.09 m", "Roll length : 0.099 m",
                    "Estimated punch duration : 00:00:15",
                    "Machine time (Grbl model) : 00:00:51", "Ready to punch", ""}));
    EXPECT_NEAR(state.distance_totale, 85.61133502751647, 1e-9);
    EXPECT_DOUBLE_EQ(state.y_premiere_coupe, 60.0);
    EXPECT_DOUBLE_EQ(state.rollViewScale, 81195.01 / 99.0);
    EXPECT_TRUE(state.punchEnabled);
    EXPECT_EQ(state.Liste_play, (Lines{"0001000 060 NOTE", "0001050 064 NOTE", "0001200 060 NOOF", "0001650 064 NOOF"}));
    EXPECT_EQ(state.writtenHoles.at(1).second, 9) << "first line of the second hole";

    // Every total starts from 0 at each generation.
    generate();
    EXPECT_DOUBLE_EQ(state.longueur_coupe, 111.0);
    EXPECT_EQ(state.Liste_play.size(), 4u);
}

// Punch: talon_x = 6.3, strikes of 50 ms with gaps of 25, Y = 0.06 x start + 1.5.
//   note 60 1000-1030: one strike at Y 61.5
//   note 62 (track 1, X 10.5) 2000-2180: Y 121.5, 126, and the last strike ends at the end
//   of the note, [2130,2180]: Y 129.3. Bands {1000}, {2000, 2075}, {2130}.
// The report uses the operator's decimal comma, the program keeps its points.
TEST_F(Program, PunchStrikesAlternateZ)
{
    state.settings.Type_machine = "Punch";
    state.reportDecimalSeparator = ',';
    state.Liste_tran = testing::songEvents({{1000, 1030, 60}, {2000, 2180, 62}});
    EXPECT_EQ(generate(), crlf({";Punch gcode of the file : song", "$HX ;X origin search",
                                "G92 X10.5 Y0 Z-1 ;Homing position at 10.5 mm from X origin", "M3 S1000 F8000",
                                "G0 X6.3 Y61.5", "G1 Z1", "G0 X10.5 Y121.5", "G1 Z-1", "G0 X10.5 Y126", "G1 Z1",
                                "G0 X10.5 Y129.3", "G1 Z-1", "G0 M5 S0"}));
    // Travel hypot(6.3, 61.5) + hypot(4.2, 60) + 4.5 + 3.3 = 129.77 mm; roll 0.1293 +
    // 0.0015 m; 129.77 / 8000 x 1.5 x 60 = 1.46 s.
    EXPECT_EQ(state.user_msg_list.text(),
              crlf({"Travel optimizing 7(Width : 117)", "   - Overall distances : 0,13 m",
                    "   - Number of punch strikes : 4", "Roll length : 0,131 m",
                    "Estimated punch duration : 00:00:01",
                    "Machine time (Grbl model) : 00:00:39", "Ready to punch", ""}));
}

// The 20-note scale without header, M4: Talon 10, Ldecoupe 4, Dist_notes 6, BassesAF 5;
// talon_x 8, decalage 0.5. Note 60 on bass track 2: X 7.5 + 18 = 25.5, 5 mm wide; note 64
// on track 5: X 8 + 27 + 12 = 47, 4 mm wide.
TEST_F(Program, TwentyNoteScaleBassHoleWithoutHeader)
{
    state.scale.standard_AF_actif = true;
    state.scale.nb_notes = 20;
    state.scale.notes_AF[2] = 60;
    state.scale.notes_AF[5] = 64;
    Settings& s = state.settings;
    s.Talon = "10", s.Ldecoupe = "4", s.Dist_notes = "6", s.BassesAF = "5";
    s.Gen_entete = "0", s.Laser_mode = "M4", s.Laser_power = "800", s.duree_metre_laser = "0.1";
    state.Liste_tran = testing::songEvents({{1000, 1100, 60}, {1000, 1200, 64}});
    EXPECT_EQ(generate(), crlf({";Laser gcode of the file : song",
                                "M4 S800 ; M4 = Adaptative power according to speed up to 800max"}) +
                              cut("25.5", "60", "30.5", "66") + cut("47", "60", "51", "72") + crlf({"G0 M5 S0"}));
    // The bass cut counts Ldecoupe: 12 + 8 + 24 + 8 = 52 mm. Learned: 0.1 s/mm x (52 +
    // hypot(25.5, 60) + 21.5) = 13.87 s.
    EXPECT_DOUBLE_EQ(state.longueur_coupe, 52.0);
    EXPECT_NE(state.user_msg_list.text().find("Estimated punch duration : 00:00:14\r\n"), std::string::npos);
}

// Notes on tracks 0, 1, 2 at 1000, 2000 and 3000 ms: X 4.8, 9, 13.2; Y 60, 120, 180.
// With marks, the travel order of the last generation is kept.
class Marks : public Program {
protected:
    Marks()
    {
        state.Liste_tran = testing::songEvents({{1000, 1200, 60}, {2000, 2100, 62}, {3000, 3100, 64}});
        generate();
        state.user_msg_list.clear();
    }
    std::string header(const std::string& y0) const
    {
        return crlf({";Laser gcode of the file : song", "$HX ;X origin search",
                     "G92 X5 Y" + y0 + " Z-1 ;Homing position at 5 mm from X origin and at " + y0 +
                         " mm from roll begining",
                     "M3 S1000 ;Laser power 1000. M3 = constant power"});
    }
};

TEST_F(Marks, BetweenMarks)
{
    state.debut_marque = 1500.0;  // the roll was advanced to 1500 x 0.06 = 90 mm
    state.fin_marque = 2500.0;
    EXPECT_EQ(generate(true, true), header("90") + cut("9", "120", "12", "126") + crlf({"G0 M5 S0"}));
    // Cut 18 mm; travel hypot(9, 120) = 120.34 mm; roll (150 - 90) / 1000; 10.38 s.
    EXPECT_EQ(state.user_msg_list.text(),
              crlf({"   - Cuttings length : 0.02 m", "   - Overall length between holes : 0.12 m",
                    "Roll length : 0.060 m", "Estimated punch duration : 00:00:10",
                    "Machine time (Grbl model) : 00:00:26", "Ready to punch", ""}));
    EXPECT_TRUE(std::filesystem::exists(temp("song_between marks.gcode")));
    EXPECT_DOUBLE_EQ(state.longueur_rouleau, 186.0) << "the view's length is the whole song's";

    // No hole between the marks; the roll length comes from them: (114 - 78) / 1000.
    state.debut_marque = 1300.0;
    state.fin_marque = 1900.0;
    EXPECT_EQ(generate(true, true), header("78") + crlf({"G0 M5 S0"}));
    EXPECT_NE(state.user_msg_list.text().find("Roll length : 0.036 m\r\n"), std::string::npos);
}

TEST_F(Marks, OneMarkOnly)
{
    // Unset end mark: to the end of the song; the roll ends at the last hole: (180 -
    // 2000.6 x 0.06) / 1000 = 0.059964. Int(2000.6) = 2000 still takes the piece at 2000.
    state.debut_marque = 2000.6;
    EXPECT_EQ(generate(true, true), header("120") + cut("9", "120", "12", "126") +
                                        cut("13.2", "180", "16.2", "186") + crlf({"G0 M5 S0"}));
    EXPECT_NE(state.user_msg_list.text().find("Roll length : 0.060 m\r\n"), std::string::npos);

    // End mark only: the plain header, y_max of the holes written (126 mm).
    state.debut_marque.reset();
    state.fin_marque = 2500.0;
    state.user_msg_list.clear();
    EXPECT_EQ(generate(true, true), kLaserHead + cut("4.8", "60", "7.8", "72") + cut("9", "120", "12", "126") +
                                        crlf({"G0 M5 S0"}));
    EXPECT_NE(state.user_msg_list.text().find("Roll length : 0.126 m\r\n"), std::string::npos);
}

// A roll 10^150 mm wide: every X is 151 digits long, so the program outgrows its first guess
// of about 90 bytes a hole, and the long texts are copied whole. Genere_GCode refuses such a
// roll; the writer is driven directly.
TEST_F(Program, HugeCoordinatesOutgrowTheFirstGuess)
{
    state.settings.Talon = "1e150";
    const std::vector<Piece> pieces = {{1000, 0, 1200}, {1050, 2, 1300}, {1325, 2, 1650}};
    WriterInput input;
    input.finale = &pieces;
    input.values = planValues(state.settings, state.scale);
    input.Laser_mode = "M3";
    input.Laser_power = "1000";
    const std::string x = "1" + std::string(150, '0');
    const std::string program = writeProgram(input, false).text;
    EXPECT_EQ(program.substr(program.find("G0 X")), cut(x, "60", x, "72") + cut(x, "63", x, "78") +
                                                        cut(x, "79.5", x, "99") + crlf({"G0 M5 S0"}));
}

TEST_F(Program, SongLongerThanTheUnsetEndMark)
{
    // 500000 ms is only the unset mark: a note at 600000 ms (Y 36000) is written.
    state.Liste_tran = testing::songEvents({{600000, 600100, 62}});
    EXPECT_NE(generate().find("G0 X9 Y36000\r\n"), std::string::npos);
    EXPECT_NE(state.user_msg_list.text().find("Roll length : 36.006 m\r\n"), std::string::npos);
}

TEST_F(Program, ChangeHandlersAndSilentRuns)
{
    state.Liste_tran = testing::songEvents({{1000, 1200, 60}});
    EXPECT_FALSE(planSettingsChanged(state).has_value()) << "start-up not finished";
    state.demarrage_fini = true;
    ASSERT_TRUE(planSettingsChanged(state).value().ok());
    // A new band width re-orders the pieces of the last split; the changed song is not read.
    state.Liste_tran = testing::songEvents({{5000, 5200, 62}});
    state.settings.Fourchette = "3";
    ASSERT_TRUE(fourchetteChanged(state).value().ok());
    EXPECT_NE(state.user_msg_list.text().find("Travel optimizing 3(Width : 50)\r\n"), std::string::npos);
    EXPECT_EQ(state.List_GC_Finale, (std::vector<Piece>{{1000, 0, 1200}}));
    // The width search's silent generation: totals only, no file, no log.
    std::filesystem::remove_all(documents.str() + "/Veltrin");
    state.recherche_largeur = true;
    EXPECT_EQ(Genere_GCode(state, false, false).value(), "");
    EXPECT_DOUBLE_EQ(state.y_max, 5200 * 0.06);
    EXPECT_FALSE(std::filesystem::exists(documents.str() + "/Veltrin"));
}

TEST_F(Program, FilesTitlesAndFailures)
{
    // The title drops Grbl's real-time characters and non-ASCII bytes; an older file is replaced.
    state.chemin_morceau = "C:\\songs\\Wh?at!~\xc3\xa9 tune.mid";
    state.Liste_tran = testing::songEvents({{1000, 1200, 60}});
    const std::string path = temp("Wh?at!~\xc3\xa9 tune.gcode");
    std::filesystem::create_directories(temp(""));
    testing::writeText(path, "an older and much longer program\n");
    const std::string program = generate();
    EXPECT_EQ(program.substr(0, program.find('\r')), ";Laser gcode of the file : What tune");
    EXPECT_EQ(testing::readText(path), program);
    EXPECT_FALSE(std::filesystem::exists(path + ".tmp"));
    // The documents "folder" is a file: nothing written, nothing reported.
    state.dossier_documents = path;
    state.user_msg_list.clear();
    EXPECT_EQ(Genere_GCode(state, false, true).error(), PlanError::CannotWriteProgram);
    EXPECT_EQ(state.user_msg_list.text(), "");
    state.settings.Vitcarton = "x";
    EXPECT_EQ(Genere_GCode(state, false, false).error(), PlanError::ZeroRollSpeed);
}

}  // namespace
}  // namespace veltrin
