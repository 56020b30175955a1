#pragma once
// Playback of the song (or of the roll) through a MIDI output: which messages go out and
// when, and where the roll view stands while they do. Nothing here reads a clock or touches
// a device: the schedule is made from the playback lines, a PlaybackCursor hands out what is
// due at a time it is given, and the adapter (view/playback_qt.h) only sends bytes.
//
// Use: planPlayback(Liste_play, range) once; then, on the playback thread, cursor.takeDue(t)
// whenever t reaches cursor.nextDueMs(), and cursor.stop() for Stop. The window's view follows
// with a ScrollFollower fed the song time of the last line played.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace veltrin {

// The output's setting for every playback: the first channel, full velocity, program 79
// (General MIDI's ocarina).
inline constexpr int kPlaybackChannel = 0;
inline constexpr int kPlaybackVelocity = 127;
inline constexpr int kPlaybackProgram = 79;

// One MIDI short message: a status byte and one or two data bytes.
struct MidiMessage {
    std::uint8_t status = 0;
    std::uint8_t data1 = 0;
    std::uint8_t data2 = 0;
    std::uint8_t size = 3;  // bytes to send: 2 for a program change

    friend bool operator==(const MidiMessage&, const MidiMessage&) = default;
};

// Play_Note: note on, velocity 127, on the playback channel.
MidiMessage Play_Note(int note);
// Stop_Note: note off, velocity 0, on the playback channel.
MidiMessage Stop_Note(int note);
// Stop_all_Notes: a note off for each note 0 to 127.
std::vector<MidiMessage> Stop_all_Notes();
MidiMessage programChange(int program, int channel);

// One message at its planned time.
struct TimedMessage {
    double atMs = 0.0;  // from the start of the playback: the first line played is at 0
    // The song time of the playback line that sends it; none for the opening program change
    // and the closing note-offs.
    std::optional<double> songMs;
    MidiMessage message;
};

// The stretch of the song to play, ms: from startMs; up to and including the first line at
// or past endMs, or to the end of the song when endMs is not set.
struct PlaybackRange {
    double startMs = 0.0;
    std::optional<double> endMs;
};

struct PlaybackSchedule {
    // The program change, the notes, then the 128 note-offs from closingFrom on.
    std::vector<TimedMessage> messages;
    std::size_t closingFrom = 0;
    int linesPlayed = 0;  // playback lines taken, whether or not they sent a note
    std::optional<double> firstSongMs;  // the song time of the first line played
    std::optional<double> lastSongMs;

    // When the closing note-offs go out: the time of the last line played.
    double durationMs() const { return messages.empty() ? 0.0 : messages.back().atMs; }
};

// The playback of lines "TTTTTTT NNN NOTE" / "TTTTTTT NNN NOOF" (time in ms, note number;
// sorted, so text order is time order): the program change first; then each line from
// range.startMs on, skipping empty lines and lines earlier than the one before (out of
// order), a note on for NOTE and a note off for NOOF, each at its time less the first line's
// (the first line goes out at once, whatever its time); the playback ends after the first
// line at or past range.endMs, then every note is switched off. A note number outside 0..127
// sends nothing.
PlaybackSchedule planPlayback(const std::vector<std::string>& lines, const PlaybackRange& range);

// Walks a schedule in time. Not thread-safe: one thread drives it.
class PlaybackCursor {
public:
    explicit PlaybackCursor(PlaybackSchedule schedule);

    // The messages due at elapsedMs (from the start) not yet taken, in order.
    std::span<const TimedMessage> takeDue(double elapsedMs);
    // When the next message is due; nullopt once everything is taken.
    std::optional<double> nextDueMs() const;
    // Stop: the notes not yet played are dropped and the closing note-offs are due at once
    // (each returned once; nothing once the playback has ended).
    std::span<const TimedMessage> stop();
    bool finished() const;
    // The song time of the last line taken; nullopt before the first.
    std::optional<double> songMs() const { return m_songMs; }
    const PlaybackSchedule& schedule() const { return m_schedule; }

private:
    std::span<const TimedMessage> take(std::size_t end);

    PlaybackSchedule m_schedule;
    std::size_t m_next = 0;
    std::optional<double> m_songMs;
};

// Timer2: the roll view following the music. It ticks every 2 ms of the time it is given;
// each tick the view moves one scroll unit, the roll that passes in one tick at
// mmPerSecond, so the steady pace is the music's, and one unit more while its catch-up budget
// lasts. Every seventh tick the budget becomes the whole units from the view to the target
// (none when the view is ahead): a view left behind catches up, one ahead is not held back.
//
// Use: jumpTo(target, now) at the first line played, setTarget() at each later one, and
// advanceTo(now) from a timer of any period; positions are mm along the roll.
class ScrollFollower {
public:
    static constexpr double kTickMs = 2.0;
    static constexpr int kMeasureEvery = 6;  // ticks counted before the budget is measured

    explicit ScrollFollower(double mmPerSecond);

    void jumpTo(double targetMm, double nowMs);
    void setTarget(double targetMm) { m_targetMm = targetMm; }
    // Runs the ticks due by nowMs; returns the position.
    double advanceTo(double nowMs);
    double positionMm() const { return m_positionMm; }
    bool started() const { return m_started; }
    // The roll position of a song time.
    double rollMm(double songMs) const { return songMs * m_mmPerSecond / 1000.0; }

private:
    void tick();

    double m_mmPerSecond;
    double m_unitMm;
    bool m_started = false;
    double m_originMs = 0.0;
    long long m_ticksDone = 0;
    double m_positionMm = 0.0;
    double m_targetMm = 0.0;
    long long m_budget = 0;
    int m_counter = 0;
};

// The output chosen when none is named: the first whose name does not start with
// "Midi Through" (the ALSA port that only forwards); nullopt when there is none.
std::optional<std::size_t> defaultMidiPort(const std::vector<std::string>& portNames);

// The port that name designates: the exact name, else its index ("2"), else the only port
// whose name contains it (case ignored); nullopt when none or several match.
std::optional<std::size_t> findMidiPort(const std::vector<std::string>& portNames, std::string_view name);

}  // namespace veltrin
