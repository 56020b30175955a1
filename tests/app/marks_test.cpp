#include "app/marks.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <filesystem>
#include <tuple>
#include <gtest/gtest.h>

#include "app/song_import.h"
#include "scales/scale_file.h"
#include "support/midi_bytes.h"
#include "support/temp_dir.h"

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

    for (const auto& [busy, button, action] :
         {std::tuple{false, MouseButton::Right, StripClickAction::ZoomMenu},
          {false, MouseButton::Middle, StripClickAction::Nothing},
          {true, MouseButton::Left, StripClickAction::Nothing}})
        EXPECT_EQ(stripClick(busy, button, false, lengths, 0, 10, 2.5, 60).action, action);
}

TEST(Marks, EachMarkStoredAndWithASongTheProgramBetweenThemWritten)
{
    testing::TempDir dir;
    AppState state;
    const auto temp = dir.path() / "docs" / "Veltrin" / "Temp";
    std::filesystem::create_directories(temp);
    state.dossier_documents = (dir.path() / "docs").string();
    Def_notes_Kolby(state.scale);
    state.scale.nb_notes = 29;
    ASSERT_TRUE(setStartMark(state, 1500).value().empty() && setEndMark(state, 2500).value().empty());
    EXPECT_EQ(state.debut_marque, 1500.0);
    EXPECT_EQ(state.fin_marque, 2500.0);
    EXPECT_TRUE(state.user_msg_list.text().empty() && std::filesystem::is_empty(temp)) << "no song";

    const auto song = dir.path() / "valse.mid";
    testing::writeFile(song, testing::midiFile(testing::kFiveNotes));
    ASSERT_TRUE(Ouvre_midi(state, {song.string()}, 0, {nullptr, false}).ok());
    state.user_msg_list.clear();
    auto written = setStartMark(state, 1000);
    ASSERT_TRUE(written.ok()) << written.detail();
    EXPECT_EQ(written.value(), (temp / "valse_between marks.gcode").string());
    EXPECT_EQ(holeYs(readText(written.value())), (std::vector<double>{60, 120, 180, 240}))
        << "the end mark is still at the end of the song";
    ASSERT_TRUE(setEndMark(state, 3000).ok());
    EXPECT_EQ(holeYs(readText(written.value())), (std::vector<double>{60, 120}))
        << "a hole starting at the end mark is out";
    const auto log = testing::textLines(state.user_msg_list.text());
    EXPECT_EQ(std::count(log.begin(), log.end(), "Gcode writing between marks"), 2);
}

// A mark the program could not hold, or an end before the start, is refused and not stored:
// the program between the earlier marks stays as it was.
TEST(Marks, ImpossibleMarksAreRefusedAndNotStored)
{
    testing::TempDir dir;
    AppState state;
    state.dossier_documents = (dir.path() / "docs").string();
    Def_notes_Kolby(state.scale);
    state.scale.nb_notes = 29;
    const auto song = dir.path() / "valse.mid";
    testing::writeFile(song, testing::midiFile(testing::kFiveNotes));
    ASSERT_TRUE(Ouvre_midi(state, {song.string()}, 0, {nullptr, false}).ok());
    auto written = setStartMark(state, 2000);
    ASSERT_TRUE(written.ok()) << written.detail();
    const std::string before = readText(written.value());
    state.user_msg_list.clear();

    using SetMark = Result<std::string, PlanError> (*)(AppState&, double);
    const std::tuple<SetMark, double, const char*> cases[] = {
        {setEndMark, 1500, "end mark = \"1500\": the end mark must come after the start mark (2000 ms)"},
        {setEndMark, 2000, "end mark = \"2000\": the end mark must come after the start mark (2000 ms)"},
        {setEndMark, -300, "end mark = \"-300\": a mark must be a time from 0 to 9999999 ms"},
        {setEndMark, std::nan(""), "end mark = \"nan\""},
        {setStartMark, -1, "start mark = \"-1\""},
        {setStartMark, 1e7, "start mark = \"10000000\""},
        {setStartMark, std::numeric_limits<double>::infinity(), "start mark = \"inf\""},
    };
    for (const auto& [set, timeMs, message] : cases) {
        const auto refused = set(state, timeMs);
        ASSERT_FALSE(refused.ok()) << message;
        EXPECT_EQ(refused.error(), PlanError::MarkRefused);
        EXPECT_EQ(refused.detail().find(message), 0u) << refused.detail();
    }
    EXPECT_EQ(state.debut_marque, 2000.0);
    EXPECT_EQ(state.fin_marque, 500000.0);
    EXPECT_EQ(state.user_msg_list.text(), "") << "nothing rewritten";
    EXPECT_EQ(readText(written.value()), before);

    // With an end mark set, a start mark at or after it is refused the same way.
    ASSERT_TRUE(setEndMark(state, 4000).ok());
    const auto late = setStartMark(state, 4000);
    ASSERT_FALSE(late.ok());
    EXPECT_EQ(late.detail(), "end mark = \"4000\": the end mark must come after the start mark (4000 ms)");
    EXPECT_EQ(state.debut_marque, 2000.0);
}

}  // namespace
}  // namespace veltrin
