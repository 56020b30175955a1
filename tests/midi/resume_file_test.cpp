#include "midi/resume_file.h"

#include <filesystem>
#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace veltrin {
namespace {

TEST(ResumeFile, WritesFourCrLfLinesAtomicallyAndReadsThemBack)
{
    testing::TempDir dir;
    const std::string path = (dir.path() / "valse.mid.rep").string();
    ASSERT_TRUE(writeResumeFile(path, {"/a much longer path/than the next one.mid", 99999, 12345, "30", {}}).ok());
    auto written = writeResumeFile(path, {"/songs/valse.mid", 12345.5, 418, "9", {}});
    ASSERT_TRUE(written.ok()) << written.detail();
    EXPECT_EQ(testing::readText(path), "/songs/valse.mid\r\n12345.5\r\n418\r\n9\r\n");
    EXPECT_FALSE(std::filesystem::exists(path + ".tmp"));
    auto read = readResumeFile(path);
    ASSERT_TRUE(read.ok()) << read.detail();
    EXPECT_EQ(read->songPath + "|" + read->Fourchette, "/songs/valse.mid|9");
    EXPECT_DOUBLE_EQ(read->restartMs, 12345.5);
    EXPECT_EQ(read->restartLine, 418);

    // Bare LF line ends; blanks of the path and of Fourchette are kept; a line that is not
    // key=value is skipped and listed.
    testing::writeText(path, "/my songs/b c.mid\n2500\n0\n 12 \nextra\nVitcarton=80\n\n");
    std::vector<std::string> skipped;
    read = readResumeFile(path, &skipped);
    ASSERT_TRUE(read.ok());
    EXPECT_EQ(read->songPath + "|" + read->Fourchette, "/my songs/b c.mid| 12 ");
    EXPECT_DOUBLE_EQ(read->restartMs, 2500);
    EXPECT_EQ(read->restartLine, 0);
    EXPECT_EQ(skipped, std::vector<std::string>{"line 5: extra"});
    EXPECT_EQ(read->settings, (SettingList{{"Vitcarton", "80"}}));

    EXPECT_TRUE(isResumePath(path));
    for (const char* other : {"/songs/valse.mid.REP", "/songs/valse.mid.Rep", "ep"})
        EXPECT_FALSE(isResumePath(other)) << other;
    EXPECT_EQ(resumePathFor("/songs/a.mid"), "/songs/a.mid.rep");
}

// A program made before the channels and the transposition were settings placed every channel
// unshifted: its resume file and record say so when read, and a newer one keeps its own.
TEST(ResumeFile, SettingsOfOlderProgramsPlaceEveryChannelUnshifted)
{
    testing::TempDir dir;
    const std::string path = (dir.path() / "valse.mid.rep").string();
    testing::writeText(path, "/songs/valse.mid\r\n0\r\n0\r\n7\r\nType_machine=Laser\r\nVitcarton=80\r\n");
    auto read = readResumeFile(path);
    ASSERT_TRUE(read.ok());
    EXPECT_EQ(read->settings, (SettingList{{"Type_machine", "Laser"}, {"Vitcarton", "80"}, {"Channels", "1-16"},
                                           {"Transpose", "0"}}));
    testing::writeText(path, "/songs/valse.mid\r\n0\r\n0\r\n7\r\nType_machine=Laser\r\nChannels=2\r\nTranspose=auto\r\n");
    read = readResumeFile(path);
    ASSERT_TRUE(read.ok());
    EXPECT_EQ(settingValue(read->settings, "Channels"), "2");
    EXPECT_EQ(settingValue(read->settings, "Transpose"), "auto");

    const std::string program = (dir.path() / "valse.gcode").string();
    ASSERT_TRUE(writeProgramRecord(program, "/songs/valse.mid", "G0 X1\r\n", {{"Type_machine", "Punch"}}).ok());
    bool matches = true;
    auto record = readProgramRecord(program, "G0 X2\r\n", &matches);
    ASSERT_TRUE(record.ok()) << "an edited program keeps the values it was made with";
    EXPECT_FALSE(matches);
    EXPECT_EQ(settingValue(record->settings, "Channels"), "1-16");
    EXPECT_FALSE(readProgramRecord(program, "G0 X2\r\n").ok());
}

// A broken number on line 2, 3 or 4 refuses the file, naming the line: read as 0 it would
// cut the whole roll again.
TEST(ResumeFile, BrokenNumbersAreRefusedNamingTheLine)
{
    struct Case {
        const char* restart;
        const char* line;
        const char* band;
        const char* named;  // empty: accepted
    };
    const Case cases[] = {
        {"2500", "41", "9", ""},
        {" 0 ", "0", "0", ""},
        {"abc", "41", "9", "line 2 = \"abc\": the restart time must be a number of 0 ms or more"},
        {"-500", "41", "9", "line 2 = \"-500\""},
        {"1e400", "41", "9", "line 2 = \"1e400\""},
        {"nan", "41", "9", "line 2 = \"nan\""},
        {"", "41", "9", "line 2 = \"\""},
        {"2500", "x", "9", "line 3 = \"x\": the program line to restart from must be a whole number of 0 or more"},
        {"2500", "-1", "9", "line 3 = \"-1\""},
        {"2500", "4.5", "9", "line 3 = \"4.5\""},
        {"2500", "41", "wide", "line 4 = \"wide\": the band width Fourchette must be a number of 0 or more (mm)"},
        {"2500", "41", "1e400", "line 4 = \"1e400\""},
    };
    testing::TempDir dir;
    const std::string path = (dir.path() / "valse.mid.rep").string();
    for (const Case& c : cases) {
        testing::writeText(path, std::string("/songs/valse.mid\r\n") + c.restart + "\r\n" + c.line + "\r\n" +
                                     c.band + "\r\n");
        const auto read = readResumeFile(path);
        if (std::string(c.named).empty()) {
            EXPECT_TRUE(read.ok()) << c.restart << " " << c.line << " " << c.band << ": " << read.detail();
            continue;
        }
        ASSERT_FALSE(read.ok()) << c.named;
        EXPECT_EQ(read.error(), ResumeFileError::BadLine) << c.named;
        EXPECT_EQ(read.detail().find(path + ": " + c.named), 0u) << read.detail();
    }
}

TEST(ResumeFile, SettingsFollowTheFourLinesAndTheSongPathIsMadeAbsolute)
{
    testing::TempDir dir;
    const std::string path = (dir.path() / "valse.mid.rep").string();
    const SettingList settings = {{"Vitcarton", "80"}, {"Standard", "Street organ"}, {"notes", "60,62,64"}, {"Empty", ""}};
    ASSERT_TRUE(writeResumeFile(path, {"songs/valse.mid", 2500, 41, "9", settings}).ok());
    const std::string absolute = (std::filesystem::current_path() / "songs" / "valse.mid").string();
    EXPECT_EQ(testing::readText(path), absolute + "\r\n2500\r\n41\r\n9\r\nVitcarton=80\r\nStandard=Street organ\r\n"
                                                  "notes=60,62,64\r\nEmpty=\r\n");
    auto read = readResumeFile(path);
    ASSERT_TRUE(read.ok());
    EXPECT_EQ(read->settings, settings);

    // Lines without "=" or without a key are no settings; a value may hold "=".
    testing::writeText(path, "/a.mid\n0\n0\n7\nnot a setting\n=3\nLaser_mode=M4=x\n");
    read = readResumeFile(path);
    ASSERT_TRUE(read.ok());
    EXPECT_EQ(read->settings, (SettingList{{"Laser_mode", "M4=x"}}));
}

// The values a program is made with come back whole on another machine's settings: the
// store's keys that shape a program and the scale's own table, not the port nor the
// learned durations.
TEST(ResumeFile, PlanSettingsRoundTripOverOtherSettingsAndScale)
{
    Settings made;
    made.Type_machine = "Punch";
    made.Standard = "Alder Fenn 20";
    made.Vitcarton = "55.5";
    made.Fourchette = "12";
    made.RollCleanup = "0";
    made.AdressePort = "ttyACM7";
    made.duree_metre_laser = "0.42";
    OrganScale madeScale;
    madeScale.standard_AF_actif = true;
    madeScale.nb_notes = 20;
    madeScale.longueur_pli = 210;
    for (std::size_t i = 0; i < madeScale.notes_AF.size(); ++i)
        madeScale.notes_AF[i] = static_cast<std::int16_t>(40 + 2 * i);

    const SettingList list = planSettingsOf(made, madeScale);
    for (const char* left : {"Port", "duree_metre_laser", "duree_trou_poincon", "VitcartonAF"})
        EXPECT_FALSE(settingValue(list, left).has_value()) << left;
    for (const char* kept : {"Type_machine", "Lgponts", "Dist_ponts", "L_poincon", "Fourchette", "VitesseF",
                             "OrigineX", "Laser_power", "Laser_mode", "Gen_entete", "Ldecoupe", "Dist_notes",
                             "Talon", "BassesAF", "RollCleanup", "MinHoleLength", "nb_notes", "longueur_pli"})
        EXPECT_TRUE(settingValue(list, kept).has_value()) << kept;
    EXPECT_EQ(settingValue(list, "notes"), "40,42,44,46,48,50,52,54,56,58,60,62,64,66,68,70,72,74,76,78");

    Settings other;
    other.AdressePort = "ttyUSB0";
    OrganScale otherScale;
    otherScale.nb_notes = 29;
    applyPlanSettings(list, other, otherScale);
    EXPECT_EQ(settingLines(planSettingsOf(other, otherScale)), settingLines(list));
    EXPECT_EQ(other.AdressePort, "ttyUSB0");
    EXPECT_EQ(other.duree_metre_laser, "999");
    EXPECT_TRUE(otherScale.standard_AF_actif);
    EXPECT_EQ(otherScale.trackNote(19), 78);
    EXPECT_DOUBLE_EQ(otherScale.longueur_pli, 210);

    EXPECT_EQ(settingDifferences(list, planSettingsOf(Settings{}, OrganScale{})).front(),
              "Type_machine=Punch (settings: Laser)");
}

TEST(ResumeFile, ProgramRecordBelongsToOneProgramText)
{
    testing::TempDir dir;
    const std::string program = (dir.path() / "song.gcode").string();
    const std::string text = ";Laser gcode of the file : song\r\nG0 X1 Y2\r\n";
    ASSERT_TRUE(writeProgramRecord(program, "/songs/song.mid", text, {{"Vitcarton", "80"}}).ok());
    EXPECT_EQ(programRecordPath(program), program + ".settings");
    EXPECT_FALSE(std::filesystem::exists(program + ".settings.tmp"));
    auto record = readProgramRecord(program, text);
    ASSERT_TRUE(record.ok()) << record.detail();
    EXPECT_EQ(record->songPath, "/songs/song.mid");
    EXPECT_EQ(record->settings, (SettingList{{"Vitcarton", "80"}}));
    EXPECT_EQ(readProgramRecord(program, text + "G0 X3 Y4\r\n").error(), ResumeFileError::OtherProgram);
    EXPECT_EQ(readProgramRecord(program + "x", text).error(), ResumeFileError::CannotOpen);
    EXPECT_NE(textHash("a"), textHash("b"));
    EXPECT_EQ(textHash("").size(), 16u);
}

TEST(ResumeFile, MissingShortAndUnwritableFilesAreErrors)
{
    testing::TempDir dir;
    EXPECT_EQ(readResumeFile((dir.path() / "none.mid.rep").string()).error(), ResumeFileError::CannotOpen);
    testing::writeText(dir.path() / "short.mid.rep", "/short.mid\r\n100\r\n3\r\n");
    EXPECT_EQ(readResumeFile((dir.path() / "short.mid.rep").string()).error(), ResumeFileError::Incomplete);
    EXPECT_EQ(writeResumeFile((dir.path() / "no such folder" / "x.rep").string(), {}).error(),
              ResumeFileError::CannotWrite);
}

}  // namespace
}  // namespace veltrin
