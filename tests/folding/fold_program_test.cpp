// The fold-marking program file: its lines, and what it refuses.

#include <gtest/gtest.h>

#include "folding/fold_program.h"
#include "support/temp_dir.h"

namespace veltrin {
namespace {

OrganScale oneTrackBook()
{
    OrganScale scale;
    scale.nb_notes = 1;
    scale.longueur_pli = 150;
    return scale;
}

TEST(FoldProgram, TheLiveMarkingsDashesForFoldsZeroToNMinusOne)
{
    const std::string path = foldProgramPath("/docs", "song");
    EXPECT_EQ(path, "/docs/Veltrin/Temp/song_folds.gcode");
    const testing::TempDir dir;
    Settings s;
    auto written = writeFoldProgram(s, oneTrackBook(), "song", 3, dir.str() + "/Temp/song_folds.gcode");
    ASSERT_TRUE(written) << written.detail();
    EXPECT_EQ(testing::readText(written.value()),
              ";Laser gcode of the file : song_folds\r\n"
              "$HX ;X origin search\r\n"
              "G92 X5 Y0 Z-1 ;Homing position at 5 mm from X origin\r\n"
              "M3 S1000 ;Laser power 1000. M3 = constant power\r\n"
              "F800\r\n"
              "G0 Y0 X5.3\r\nG0 X5.3\r\nG1 X7.3\r\n"
              "G0 Y150 X5.3\r\nG0 X5.3\r\nG1 X7.3\r\n"
              "G0 Y300 X5.3\r\nG0 X5.3\r\nG1 X7.3\r\n"
              "M5 S0\r\n");
}

TEST(FoldProgram, HeaderAndLaserLineFollowGenEnteteAndLaserMode)
{
    FoldProgramInput input;
    input.values = foldValues(Settings{}, oneTrackBook());
    input.count = 1;
    input.title = "song";
    input.Laser_mode = "M4";
    input.header = false;
    EXPECT_EQ(foldProgramText(input), ";Laser gcode of the file : song_folds\r\n"
                                      "M4 S1000 ; M4 = Adaptative power according to speed up to 1000max\r\n"
                                      "F800\r\nG0 Y0 X5.3\r\nG0 X5.3\r\nG1 X7.3\r\nM5 S0\r\n");
}

TEST(FoldProgram, RefusesWhatWouldBurnNothingUsefulAndWritesNothing)
{
    struct Case {
        std::string key;  // a setting given value, or "" for none
        std::string value;
        double fold;
        int count;
        FoldError error;
        std::string words;
    };
    const std::vector<Case> cases = {
        {"", "", 0, 3, FoldError::NoFoldLength, "Folds length not defined"},
        {"Type_machine", "Punch", 150, 3, FoldError::NotLaser, "laser"},
        {"longueur_point", "13", 150, 3, FoldError::SettingRefused, "before the roll's edge"},
        {"Dist_notes", "4,2", 150, 3, FoldError::SettingRefused, "Dist_notes"},
        {"Laser_power", "1500", 150, 3, FoldError::SettingRefused, "Laser_power"},
        {"", "", 150, 0, FoldError::BadCount, "at least 1"},
        {"", "", 150, 668, FoldError::BadCount, "at most 667"},
    };
    const testing::TempDir dir;
    const std::string path = dir.str() + "/folds.gcode";
    for (const Case& c : cases) {
        const std::string name = c.key + "=" + c.value + " count " + std::to_string(c.count);
        Settings s;
        if (!c.key.empty())
            *settingField(s, c.key) = c.value;
        OrganScale scale = oneTrackBook();
        scale.longueur_pli = c.fold;
        auto written = writeFoldProgram(s, scale, "song", c.count, path);
        ASSERT_FALSE(written) << name;
        EXPECT_EQ(written.error(), c.error) << name;
        EXPECT_NE(written.detail().find(c.words), std::string::npos) << name << ": " << written.detail();
        EXPECT_FALSE(std::filesystem::exists(path)) << name;
    }
    EXPECT_TRUE(writeFoldProgram(Settings{}, oneTrackBook(), "song", 667, path)) << "fold 666 stands at Y 99900";
}

TEST(FoldProgram, FoldsForRollCoverTheRollsEnd)
{
    struct Case {
        double roll, fold;
        int expected;
    };
    for (const Case c : {Case{0, 160, 1}, Case{1, 160, 2}, Case{160, 160, 2}, Case{160.0000001, 160, 2},
                         Case{160.1, 160, 3}, Case{2040, 160, 14}, Case{500, 0, 1}})
        EXPECT_EQ(foldsForRoll(c.roll, c.fold), c.expected) << c.roll << " / " << c.fold;
}

}  // namespace
}  // namespace veltrin
