#include "view/playback.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <utility>

#include "base/numeric_text.h"

namespace veltrin {

namespace {

std::uint8_t dataByte(int value)
{
    return static_cast<std::uint8_t>(value & 0x7F);
}

std::uint8_t statusByte(int kind, int channel)
{
    return static_cast<std::uint8_t>(kind | (channel & 0x0F));
}

// Columns of a playback line: time 1-7, note 9-11, keyword 13-16.
std::string_view column(std::string_view line, std::size_t from, std::size_t count)
{
    return from < line.size() ? line.substr(from, count) : std::string_view();
}

std::string lowered(std::string_view text)
{
    std::string out(text);
    for (char& c : out)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
}

}  // namespace

MidiMessage Play_Note(int note)
{
    return {statusByte(0x90, kPlaybackChannel), dataByte(note), dataByte(kPlaybackVelocity), 3};
}

MidiMessage Stop_Note(int note)
{
    return {statusByte(0x80, kPlaybackChannel), dataByte(note), 0, 3};
}

std::vector<MidiMessage> Stop_all_Notes()
{
    std::vector<MidiMessage> messages;
    messages.reserve(128);
    for (int note = 0; note < 128; ++note)
        messages.push_back(Stop_Note(note));
    return messages;
}

MidiMessage programChange(int program, int channel)
{
    return {statusByte(0xC0, channel), dataByte(program), 0, 2};
}

PlaybackSchedule planPlayback(const std::vector<std::string>& lines, const PlaybackRange& range)
{
    PlaybackSchedule schedule;
    std::vector<TimedMessage>& out = schedule.messages;
    out.reserve(lines.size() + 129);
    // 1. Opening the output sets the sound.
    out.push_back({0.0, std::nullopt, programChange(kPlaybackProgram, kPlaybackChannel)});

    // 2. The lines, each after the wait from the line before; the first without any.
    double previousMs = 0.0;
    double atMs = 0.0;
    bool started = false;
    for (const std::string& line : lines) {
        if (line.empty())
            continue;
        const double t = leadingNumber(column(line, 0, 7));
        if (t < range.startMs)
            continue;
        if (t < previousMs)
            continue;
        // The wait is in whole ms, as the line times are.
        const double wait = std::trunc(t - previousMs);
        if (started)
            atMs += wait;
        previousMs = t;
        const double note = leadingNumber(column(line, 8, 3));
        const std::string_view keyword = column(line, 12, 4);
        if (note >= 0.0 && note <= 127.0) {
            if (keyword == "NOTE")
                out.push_back({atMs, t, Play_Note(static_cast<int>(note))});
            else if (keyword == "NOOF")
                out.push_back({atMs, t, Stop_Note(static_cast<int>(note))});
        }
        ++schedule.linesPlayed;
        if (!started)
            schedule.firstSongMs = t;
        schedule.lastSongMs = t;
        started = true;
        if (range.endMs && t >= *range.endMs)
            break;
    }

    // 3. Nothing may hang once the playback ends.
    schedule.closingFrom = out.size();
    for (const MidiMessage& off : Stop_all_Notes())
        out.push_back({atMs, std::nullopt, off});
    return schedule;
}

PlaybackCursor::PlaybackCursor(PlaybackSchedule schedule) : m_schedule(std::move(schedule)) {}

std::span<const TimedMessage> PlaybackCursor::take(std::size_t end)
{
    const std::span<const TimedMessage> all(m_schedule.messages);
    const std::size_t from = m_next;
    m_next = std::max(m_next, end);
    for (std::size_t i = from; i < m_next; ++i) {
        if (all[i].songMs)
            m_songMs = all[i].songMs;
    }
    return all.subspan(from, m_next - from);
}

std::span<const TimedMessage> PlaybackCursor::takeDue(double elapsedMs)
{
    std::size_t end = m_next;
    const auto& all = m_schedule.messages;
    while (end < all.size() && all[end].atMs <= elapsedMs)
        ++end;
    return take(end);
}

std::optional<double> PlaybackCursor::nextDueMs() const
{
    if (finished())
        return std::nullopt;
    return m_schedule.messages[m_next].atMs;
}

std::span<const TimedMessage> PlaybackCursor::stop()
{
    // The lines not yet played are dropped; the note-offs go out whatever their time.
    m_next = std::max(m_next, m_schedule.closingFrom);
    return take(m_schedule.messages.size());
}

bool PlaybackCursor::finished() const
{
    return m_next >= m_schedule.messages.size();
}

ScrollFollower::ScrollFollower(double mmPerSecond)
    : m_mmPerSecond(std::max(mmPerSecond, 0.0)), m_unitMm(m_mmPerSecond * kTickMs / 1000.0)
{
}

void ScrollFollower::jumpTo(double targetMm, double nowMs)
{
    m_started = true;
    m_originMs = nowMs;
    m_ticksDone = 0;
    m_positionMm = targetMm;
    m_targetMm = targetMm;
    m_budget = 0;
    m_counter = 0;
}

double ScrollFollower::advanceTo(double nowMs)
{
    if (!m_started)
        return m_positionMm;
    const auto due = static_cast<long long>(std::floor((nowMs - m_originMs) / kTickMs));
    for (; m_ticksDone < due; ++m_ticksDone)
        tick();
    return m_positionMm;
}

void ScrollFollower::tick()
{
    // 1. One extra unit while the budget lasts.
    int step = 0;
    if (m_budget >= 1) {
        step = 1;
        --m_budget;
    }
    // 2. The steady unit and the extra one.
    m_positionMm += (1 + step) * m_unitMm;
    // 3. Every seventh tick the budget is measured again: the whole units still to catch up.
    if (m_counter < kMeasureEvery) {
        ++m_counter;
    } else {
        m_budget = m_unitMm > 0.0 ? static_cast<long long>(std::trunc((m_targetMm - m_positionMm) / m_unitMm)) : 0;
        m_budget = std::max(m_budget, 0LL);
        m_counter = 0;
    }
}

std::optional<std::size_t> defaultMidiPort(const std::vector<std::string>& portNames)
{
    for (std::size_t i = 0; i < portNames.size(); ++i) {
        if (!lowered(portNames[i]).starts_with("midi through"))
            return i;
    }
    return std::nullopt;
}

std::optional<std::size_t> findMidiPort(const std::vector<std::string>& portNames, std::string_view name)
{
    if (name.empty())
        return std::nullopt;
    for (std::size_t i = 0; i < portNames.size(); ++i) {
        if (portNames[i] == name)
            return i;
    }
    std::size_t index = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), index);
    if (error == std::errc() && end == name.data() + name.size())
        return index < portNames.size() ? std::optional(index) : std::nullopt;
    const std::string wanted = lowered(name);
    std::optional<std::size_t> found;
    for (std::size_t i = 0; i < portNames.size(); ++i) {
        if (lowered(portNames[i]).find(wanted) == std::string::npos)
            continue;
        if (found)
            return std::nullopt;
        found = i;
    }
    return found;
}

}  // namespace veltrin
