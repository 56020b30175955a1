#include "view/playback.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

namespace veltrin {
namespace {

// "at:status,data1[,data2]" for each message before the closing note-offs, "|" between them.
std::string opening(const PlaybackSchedule& schedule)
{
    std::string text;
    for (std::size_t i = 0; i < schedule.closingFrom; ++i) {
        const TimedMessage& m = schedule.messages[i];
        char item[48];
        if (m.message.size == 2)
            std::snprintf(item, sizeof item, "%g:%02X,%d", m.atMs, m.message.status, m.message.data1);
        else
            std::snprintf(item, sizeof item, "%g:%02X,%d,%d", m.atMs, m.message.status, m.message.data1,
                          m.message.data2);
        if (!text.empty())
            text += '|';
        text += item;
    }
    return text;
}

// The closing block: a note-off for every note, in order, at the end time.
void expectClosing(const PlaybackSchedule& schedule, double atMs)
{
    ASSERT_EQ(schedule.messages.size() - schedule.closingFrom, 128u);
    for (int note = 0; note < 128; ++note) {
        const TimedMessage& m = schedule.messages[schedule.closingFrom + static_cast<std::size_t>(note)];
        EXPECT_EQ(m.message, (MidiMessage{0x80, static_cast<std::uint8_t>(note), 0, 3})) << note;
        EXPECT_EQ(m.atMs, atMs) << note;
    }
}

const std::vector<std::string> kTune = {
    "0000500 060 NOTE", "0001000 060 NOOF", "0001000 062 NOTE", "0001250 062 NOOF", "0002000 064 NOTE",
    "0003000 064 NOOF",
};

TEST(PlanPlayback, MessagesAndTimesFollowTheLines)
{
    struct Case {
        const char* what;
        std::vector<std::string> lines;
        PlaybackRange range;
        const char* expected;
        double end;
    };
    const Case cases[] = {
        {"the first line goes out at once, whatever its time", kTune, {},
         "0:C0,79|0:90,60,127|500:80,60,0|500:90,62,127|750:80,62,0|1500:90,64,127|2500:80,64,0", 2500},
        {"an empty list: the program change and the note-offs", {}, {}, "0:C0,79", 0},
        {"a line earlier than the one before is skipped, empty lines too",
         {"0000100 060 NOTE", "", "0000050 061 NOTE", "0000300 060 NOOF"}, {},
         "0:C0,79|0:90,60,127|200:80,60,0", 200},
        {"the start mark: lines before it are not played and the first after it waits for nothing", kTune,
         {1000.0, {}}, "0:C0,79|0:80,60,0|0:90,62,127|250:80,62,0|1000:90,64,127|2000:80,64,0", 2000},
        {"the end mark: the first line at or past it is the last one played", kTune, {0.0, 1000.0},
         "0:C0,79|0:90,60,127|500:80,60,0", 500},
        {"the end mark between lines", kTune, {0.0, 1100.0},
         "0:C0,79|0:90,60,127|500:80,60,0|500:90,62,127|750:80,62,0", 750},
        {"a note number no MIDI byte holds sends nothing, its time still counts",
         {"0000000 200 NOTE", "0000400 061 NOTE", "0000900 061 NOOF"}, {}, "0:C0,79|400:90,61,127|900:80,61,0", 900},
        {"an unknown keyword sends nothing", {"0000000 060 NOTE", "0000100 060 XXXX", "0000300 060 NOOF"}, {},
         "0:C0,79|0:90,60,127|300:80,60,0", 300},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        const PlaybackSchedule schedule = planPlayback(c.lines, c.range);
        EXPECT_EQ(opening(schedule), c.expected);
        expectClosing(schedule, c.end);
        EXPECT_EQ(schedule.durationMs(), c.end);
    }
}

TEST(PlaybackCursor, HandsOutWhatIsDueAndStopSwitchesEverythingOff)
{
    PlaybackCursor cursor(planPlayback(kTune, {}));
    EXPECT_EQ(cursor.nextDueMs(), 0.0);
    EXPECT_EQ(cursor.takeDue(0.0).size(), 2u) << "the program change and the first note";
    EXPECT_EQ(cursor.songMs(), 500.0) << "the song time of the line, not of the playback";
    EXPECT_TRUE(cursor.takeDue(499.9).empty());
    EXPECT_EQ(cursor.nextDueMs(), 500.0);
    EXPECT_EQ(cursor.takeDue(800.0).size(), 3u) << "a late wake-up sends everything due by then, in order";
    EXPECT_EQ(cursor.songMs(), 1250.0);

    // Stop in the middle: the third note is never played, the 128 note-offs go out now.
    const auto closing = cursor.stop();
    ASSERT_EQ(closing.size(), 128u);
    EXPECT_EQ(closing.front().message, Stop_Note(0));
    EXPECT_EQ(closing.back().message, Stop_Note(127));
    EXPECT_TRUE(cursor.finished());
    EXPECT_FALSE(cursor.nextDueMs());
    EXPECT_TRUE(cursor.stop().empty()) << "the note-offs go out once";
    EXPECT_TRUE(cursor.takeDue(1e9).empty());
}

TEST(PlaybackCursor, AStopAfterTheEndSendsNothingMore)
{
    PlaybackCursor cursor(planPlayback(kTune, {}));
    EXPECT_EQ(cursor.takeDue(1e9).size(), 7u + 128u);
    EXPECT_TRUE(cursor.finished());
    EXPECT_TRUE(cursor.stop().empty());
}

// At 500 mm/s one scroll unit (the roll of one 2 ms tick) is exactly 1 mm.
TEST(ScrollFollower, MovesAtTheMusicsPaceAndIsNotHeldBackWhenAhead)
{
    ScrollFollower view(500.0);
    EXPECT_EQ(view.advanceTo(100.0), 0.0) << "nothing moves before the first line";
    view.jumpTo(25.0, 1000.0);
    view.setTarget(0.0);
    EXPECT_DOUBLE_EQ(view.advanceTo(1101.0), 75.0) << "50 whole ticks, one unit each";
    view.advanceTo(1050.0);
    EXPECT_DOUBLE_EQ(view.positionMm(), 75.0) << "time given backwards moves nothing";
}

TEST(ScrollFollower, TheBudgetIsMeasuredOnTheSeventhTickAndSpentOneUnitATick)
{
    ScrollFollower view(500.0);
    view.jumpTo(0.0, 0.0);
    view.setTarget(100.0);
    std::vector<double> places;
    for (int tick = 1; tick <= 10; ++tick)
        places.push_back(view.advanceTo(2.0 * tick));
    EXPECT_EQ(places, (std::vector<double>{1, 2, 3, 4, 5, 6, 7, 9, 11, 13}));
}

TEST(ScrollFollower, ALateViewCatchesUpOneUnitATickAndThenKeepsPace)
{
    // The music is 20 mm ahead of the view and moves on at the view's pace.
    ScrollFollower view(500.0);
    view.jumpTo(0.0, 0.0);
    int extraUnits = 0;
    double last = 0.0;
    for (int tick = 1; tick <= 60; ++tick) {
        view.setTarget(20.0 + tick);
        const double at = view.advanceTo(2.0 * tick);
        extraUnits += static_cast<int>(at - last) - 1;
        last = at;
    }
    EXPECT_EQ(extraUnits, 20);
    EXPECT_NEAR(view.positionMm(), 20.0 + 60.0, 1.0) << "in step with the music";
}

TEST(MidiPorts, DefaultSkipsMidiThroughAndANameIsFoundWholeByNumberOrByAPart)
{
    const std::vector<std::string> ports = {"Midi Through:Midi Through Port-0 14:0",
                                            "FLUID Synth (1234):Synth input port (1234:0) 128:0",
                                            "USB MIDI Interface:USB MIDI Interface MIDI 1 20:0"};
    EXPECT_EQ(defaultMidiPort(ports), 1u);
    EXPECT_FALSE(defaultMidiPort({ports[0]}));
    EXPECT_FALSE(defaultMidiPort({}));

    struct Case {
        const char* name;
        std::optional<std::size_t> found;
    };
    for (const Case c : {Case{"USB MIDI Interface:USB MIDI Interface MIDI 1 20:0", 2u}, Case{"0", 0u},
                         Case{"2", 2u}, Case{"3", std::nullopt}, Case{"fluid", 1u}, Case{"usb midi", 2u},
                         Case{"midi", std::nullopt}, Case{"Casio", std::nullopt}, Case{"", std::nullopt}}) {
        EXPECT_EQ(findMidiPort(ports, c.name), c.found) << c.name;
    }
}

}  // namespace
}  // namespace veltrin
