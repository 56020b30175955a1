#include "view/marks.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>

#include "import/midi_bytes.h"
#include "import/temp_dir.h"
#include "midi/song_import.h"
#include "scales/scale_file.h"

namespace veltrin {
namespace {

using testing::holeYs;
using testing::readText;

TEST(StripClick, PositionToTimeButtonsModifiersAndBusy)
{
    const std::array<double, 4> lengths = {100, 200, 300, 400};
    EXPECT_EQ(stripOffset(lengths, 4), 1000) << "the fifth strip follows all four";
    // Strip 2 starts at 300: (300 + 128) / 4.28 = 100 mm, at 60 mm/s 1666.7 ms.
    const auto plain = stripClick(false, MouseButton::Left, false, lengths, 2, 128, 4.28, 60);
    EXPECT_EQ(plain.action, StripClickAction::SetStartMark);
    EXPECT_NEAR(plain.timeMs, 100.0 * 1000 / 60, 1e-9);

    const auto modified = stripClick(false, MouseButton::Left, true, lengths, 1, 50, 2.5, 60);
    EXPECT_EQ(modified.action, StripClickAction::SetEndMark);
    EXPECT_DOUBLE_EQ(modified.timeMs, 1000);

    EXPECT_EQ(stripClick(false, MouseButton::Right, false, lengths, 0, 10, 2.5, 60).action,
              StripClickAction::ZoomMenu);
    EXPECT_EQ(stripClick(false, MouseButton::Middle, false, lengths, 0, 10, 2.5, 60).action,
              StripClickAction::Nothing);
    EXPECT_EQ(stripClick(true, MouseButton::Left, false, lengths, 0, 10, 2.5, 60).action,
              StripClickAction::Nothing);
}

class Marks : public ::testing::Test {
protected:
    Marks()
    {
        std::filesystem::create_directories(temp());
        state.dossier_documents = (dir.path() / "docs").string();
        Def_notes_Kolby(state.scale);
        state.scale.nb_notes = 29;
    }

    std::filesystem::path temp() const { return dir.path() / "docs" / "Veltrin" / "Temp"; }
    std::filesystem::path partial() const { return temp() / "valse_between marks.gcode"; }

    void load()
    {
        const auto song = dir.path() / "valse.mid";
        testing::writeFile(song, testing::midiFile(testing::kFiveNotes));
        ASSERT_TRUE(Ouvre_midi(state, {song.string()}, 0, {nullptr, false}).ok());
        state.user_msg_list.clear();
    }

    long writings() const
    {
        const auto lines = testing::textLines(state.user_msg_list.text());
        return std::count(lines.begin(), lines.end(), "Gcode writing between marks");
    }

    TempDir dir;
    AppState state;
};

TEST_F(Marks, WithoutASongOnlyTheMarkIsStored)
{
    auto start = setStartMark(state, 1500);
    auto end = setEndMark(state, 2500);
    ASSERT_TRUE(start.ok() && end.ok());
    EXPECT_TRUE(start.value().empty() && end.value().empty());
    EXPECT_EQ(state.debut_marque, 1500.0);
    EXPECT_EQ(state.fin_marque, 2500.0);
    EXPECT_TRUE(state.user_msg_list.text().empty());
    EXPECT_TRUE(std::filesystem::is_empty(temp()));
}

TEST_F(Marks, StartMarkWritesFromThereOnARollAdvancedToIt)
{
    load();
    auto written = setStartMark(state, 2000);
    ASSERT_TRUE(written.ok()) << written.detail();
    EXPECT_EQ(written.value(), partial().string());
    EXPECT_EQ(writings(), 1);
    const std::string program = readText(partial());
    EXPECT_NE(program.find("\r\nG92 X5 Y120 Z-1 ;Homing position at 5 mm from X origin and at "
                           "120 mm from roll begining\r\n"),
              std::string::npos)
        << program;
    EXPECT_EQ(holeYs(program), (std::vector<double>{120, 180, 240}));
}

TEST_F(Marks, EndMarkAloneWritesUpToIt)
{
    load();
    ASSERT_TRUE(setEndMark(state, 2000).ok());
    const std::string program = readText(partial());
    EXPECT_NE(program.find("\r\nG92 X5 Y0 Z-1 ;Homing position at 5 mm from X origin\r\n"),
              std::string::npos)
        << program;
    EXPECT_EQ(holeYs(program), (std::vector<double>{0, 60})) << "a hole starting at the end mark is out";
}

TEST_F(Marks, BothMarksWriteTwice)
{
    load();
    ASSERT_TRUE(setStartMark(state, 1000).ok());
    EXPECT_EQ(holeYs(readText(partial())), (std::vector<double>{60, 120, 180, 240}))
        << "the end mark is still at the end of the song";
    ASSERT_TRUE(setEndMark(state, 3500).ok());
    EXPECT_EQ(writings(), 2);
    EXPECT_EQ(holeYs(readText(partial())), (std::vector<double>{60, 120, 180}));
}

}  // namespace
}  // namespace veltrin
