#include "midi/mdlvert.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstddef>
#include <string_view>

#include "base/numeric_text.h"
#include "midi/event_line.h"

namespace veltrin {

namespace {

constexpr std::array<std::string_view, 12> kNoteNames = {"C",  "C#", "D",  "D#", "E",  "F",
                                                         "F#", "G",  "G#", "A",  "A#", "B"};

// Keywords of the meta text events 0x01 to 0x07, in that order.
constexpr std::array<std::string_view, 7> kTextKeywords = {"TEXT", "AUTH", "TNAM", "INST",
                                                           "LYRC", "MARK", "CUEP"};

constexpr int kChannels = 17;  // 1..16 used; index 0 kept so that channel numbers index directly
constexpr int kNotes = 128;
constexpr std::int64_t kDefaultTempo = 500000;  // microseconds per quarter note (120 BPM)

constexpr int kErrEof = 1;
constexpr int kErrDeltaTime = 2;
constexpr int kErrRunningStatus = 3;
constexpr int kErrNoHeader = kDecodeNoHeaderChunk;
constexpr int kErrNoTrack = kDecodeNoTrackChunk;

std::string hexOffset(std::size_t offset)
{
    std::array<char, 24> buffer{};
    const auto [ptr, ec] = std::to_chars(buffer.data(), buffer.data() + buffer.size(),
                                         static_cast<unsigned long long>(offset), 16);
    (void)ec;
    std::string text(buffer.data(), ptr);
    for (char& c : text)
        if (c >= 'a' && c <= 'f')
            c = static_cast<char>(c - 'a' + 'A');
    return text;
}

std::string errorMessage(int code, std::size_t offset)
{
    const std::string position = "\r\n    Events processed until loc hex: " + hexOffset(offset);
    switch (code) {
    case kErrEof:
        return "*** Midifile corrupt, unexpected EOF." + position;
    case kErrDeltaTime:
        return "Midifile corrupt, deltatime invalid format." + position;
    case kErrRunningStatus:
        return "Midifile corrupt, running status error. " + position;
    case kErrNoHeader:
        return "Midifile corrupt: header MThd not in file.";
    case kErrNoTrack:
        return "Midifile corrupt, header MTrk not in file.";
    default:
        return {};
    }
}

using event_line::roundMs;

// An event line being built on the stack: a keyword and fixed-width fields.
class LineBuffer {
public:
    explicit LineBuffer(std::string_view keyword) { append(keyword); }

    void append(std::string_view text)
    {
        const std::size_t count = std::min(text.size(), m_data.size() - m_size);
        std::copy_n(text.data(), count, m_data.data() + m_size);
        m_size += count;
    }

    // One blank and the field: the same text as fixedWidth(value, width).
    void field(long long value, int width)
    {
        if (m_data.size() - m_size < event_line::kFieldRoom)
            return;  // never reached by the lines made here, which are short
        char* const end = event_line::writeField(m_data.data() + m_size, value, width);
        m_size = static_cast<std::size_t>(end - m_data.data());
    }

    // The name of a note 0-127 and its octave, note / 12 - 2 written without its sign, so
    // notes 0-11 give octave "2" and 12-23 give "1" (middle C, 60, is "C3").
    void noteName(int note)
    {
        append(kNoteNames[static_cast<std::size_t>(note % 12)]);
        const char octave = static_cast<char>('0' + std::abs(note / 12 - 2));
        append(std::string_view(&octave, 1));
    }

    std::string str() const { return std::string(m_data.data(), m_size); }
    void addTo(std::vector<std::string>& lines) const { lines.emplace_back(m_data.data(), m_size); }

private:
    // Room for a keyword, six fields of any value and a note name.
    std::array<char, 192> m_data;
    std::size_t m_size = 0;
};

// One blank and a fixed-width field, appended to a text line.
void appendField(std::string& line, long long value, int width)
{
    LineBuffer field("");
    field.field(value, width);
    line += field.str();
}

struct TempoEntry {
    std::int64_t tick;
    std::int64_t tempo;  // microseconds per quarter note
    float msPerTick;     // from tempo and the division
    double startMs;      // time at tick, the same for every track
};

// A note that may be sounding: [channel][note].
struct NoteSlot {
    std::int64_t startTick = -1;  // -1: not sounding
    float velocity = 0.0F;
    float carriedMs = 0.0F;  // ms elapsed before the last tempo change the note spans
    int count = 0;           // note-ons not yet matched by note-offs
    int soundingIndex = -1;  // position in Decoder::m_sounding
};

class Decoder {
public:
    Decoder(std::span<const std::uint8_t> bytes, const std::string& path,
            const DecodeOptions& options, DecodeResult& result)
        : m_bytes(bytes), m_path(path), m_options(options), m_out(result)
    {
    }

    void run();

private:
    // Reading. Every read is bounded by m_limit; false means the data ran out.
    bool readByte(std::uint8_t& value);
    bool skip(std::uint64_t count);
    // A variable-length quantity of at most four bytes; sets error 2 or 1 itself.
    bool readVarLen(std::uint32_t& value);
    std::uint16_t be16(std::size_t at) const;

    bool fail(int code, std::size_t offset);
    bool failEof() { return fail(kErrEof, m_eventStart); }

    float msPerTick(std::int64_t tempo) const;
    void appendTempo(std::int64_t tick, std::int64_t tempo);
    void startTrack();
    bool decodeTrack();
    void advanceTempoMap();
    double timeAt(std::int64_t tick) const;
    LineBuffer eventLine(std::string_view keyword);

    bool channelEvent(std::uint8_t status, bool running, std::uint8_t firstData);
    bool metaEvent(bool& endOfTrack);
    void noteOn(int channel, int note, int velocity);
    void noteOff(int channel, int note);
    void releasePedal(int channel);
    void writeNote(int channel, int note, std::int64_t endTick);

    std::span<const std::uint8_t> m_bytes;
    const std::string& m_path;
    const DecodeOptions& m_options;
    DecodeResult& m_out;

    std::size_t m_pos = 0;
    std::size_t m_limit = 0;
    std::size_t m_eventStart = 0;

    int m_format = 0;
    int m_division = 0;
    bool m_firstTrack = true;
    std::uint8_t m_lastStatus = 0;

    // Tempo map, grown by the tempo events; a cursor past the last entry never moves.
    std::vector<TempoEntry> m_tempoMap;
    bool m_mapInTickOrder = true;  // false once a later track adds an earlier change
    std::size_t m_cursor = 0;
    float m_msPerTick = 0.0F;
    double m_accumulatedMs = 0.0;  // time at the tick of the cursor's entry
    std::int64_t m_tick = 0;

    std::array<std::array<NoteSlot, kNotes>, kChannels> m_notes{};
    std::vector<std::uint16_t> m_sounding;  // channel * kNotes + note of each sounding note
    std::array<bool, kChannels> m_pedalDown{};
    float m_latestEndMs = 0.0F;

    int m_numerator = 4;
    int m_denominator = 4;
};

bool Decoder::readByte(std::uint8_t& value)
{
    if (m_pos >= m_limit)
        return false;
    value = m_bytes[m_pos++];
    return true;
}

bool Decoder::skip(std::uint64_t count)
{
    if (count > m_limit - m_pos)
        return false;
    m_pos += static_cast<std::size_t>(count);
    return true;
}

bool Decoder::readVarLen(std::uint32_t& value)
{
    value = 0;
    for (int i = 0; i < 4; ++i) {
        std::uint8_t byte = 0;
        if (!readByte(byte))
            return failEof();
        value = (value << 7) | (byte & 0x7FU);
        if ((byte & 0x80U) == 0)
            return true;
    }
    return fail(kErrDeltaTime, m_eventStart);
}

std::uint16_t Decoder::be16(std::size_t at) const
{
    return static_cast<std::uint16_t>((m_bytes[at] << 8) | m_bytes[at + 1]);
}

bool Decoder::fail(int code, std::size_t offset)
{
    m_out.errorCode = code;
    m_out.errorMessage = errorMessage(code, offset);
    return false;
}

float Decoder::msPerTick(std::int64_t tempo) const
{
    if (m_division > 0)
        return static_cast<float>(static_cast<double>(tempo) / m_division / 1000.0);
    if (m_division < 0) {
        // SMPTE timing: -frames per second in the high byte, ticks per frame in the low
        // byte; the tempo plays no part. -29 is the 29.97 fps drop-frame rate.
        const int framesPerSecond = -static_cast<std::int8_t>((m_division >> 8) & 0xFF);
        const int ticksPerFrame = m_division & 0xFF;
        const double fps = framesPerSecond == 29 ? 29.97 : framesPerSecond;
        if (ticksPerFrame == 0 || framesPerSecond <= 0)
            return 0.0F;
        return static_cast<float>(1000.0 / (fps * ticksPerFrame));
    }
    return 0.0F;  // a division of 0 has no time: every event stands at 0 ms
}

void Decoder::appendTempo(std::int64_t tick, std::int64_t tempo)
{
    // The time of the new entry is what walking the map up to it gives, computed once.
    double startMs = 0.0;
    if (!m_tempoMap.empty()) {
        const TempoEntry& last = m_tempoMap.back();
        startMs = last.startMs + static_cast<double>(last.msPerTick) *
                                     static_cast<double>(tick - last.tick);
        m_mapInTickOrder = m_mapInTickOrder && tick >= last.tick;
    }
    m_tempoMap.push_back(TempoEntry{tick, tempo, msPerTick(tempo), startMs});
}

void Decoder::startTrack()
{
    for (const std::uint16_t id : m_sounding)
        m_notes[id / kNotes][id % kNotes] = NoteSlot{};
    m_sounding.clear();
    m_tick = 0;
    m_cursor = 0;
    m_accumulatedMs = 0.0;
    m_msPerTick = m_tempoMap[0].msPerTick;
}

void Decoder::advanceTempoMap()
{
    if (m_cursor + 1 >= m_tempoMap.size() || m_tick < m_tempoMap[m_cursor + 1].tick)
        return;
    if (m_sounding.empty() && m_mapInTickOrder) {
        // Nothing to carry: jump to the last entry at or before the tick.
        const auto after = std::upper_bound(
            m_tempoMap.begin() + static_cast<std::ptrdiff_t>(m_cursor) + 1, m_tempoMap.end(),
            m_tick, [](std::int64_t tick, const TempoEntry& entry) { return tick < entry.tick; });
        m_cursor = static_cast<std::size_t>(after - m_tempoMap.begin()) - 1;
    } else {
        while (m_cursor + 1 < m_tempoMap.size() && m_tick >= m_tempoMap[m_cursor + 1].tick) {
            const std::int64_t changeTick = m_tempoMap[m_cursor + 1].tick;
            const double rate = m_tempoMap[m_cursor].msPerTick;
            // Sounding notes keep the time they have sounded so far (a float, rounded at
            // each change); their start moves on to the change, where the new rate applies.
            for (const std::uint16_t id : m_sounding) {
                NoteSlot& slot = m_notes[id / kNotes][id % kNotes];
                slot.carriedMs = static_cast<float>(
                    static_cast<double>(slot.carriedMs) +
                    rate * static_cast<double>(changeTick - slot.startTick));
                slot.startTick = changeTick;
            }
            ++m_cursor;
        }
    }
    m_accumulatedMs = m_tempoMap[m_cursor].startMs;
    m_msPerTick = m_tempoMap[m_cursor].msPerTick;
}

double Decoder::timeAt(std::int64_t tick) const
{
    return m_accumulatedMs +
           static_cast<double>(m_msPerTick) * static_cast<double>(tick - m_tempoMap[m_cursor].tick);
}

// Keyword, TIME (7) and TICK (6) of the current event.
LineBuffer Decoder::eventLine(std::string_view keyword)
{
    LineBuffer line(keyword);
    line.field(roundMs(timeAt(m_tick)), 7);
    line.field(m_tick, 6);
    return line;
}

void Decoder::writeNote(int channel, int note, std::int64_t endTick)
{
    NoteSlot& slot = m_notes[channel][note];
    const long long startMs = roundMs(timeAt(slot.startTick) - static_cast<double>(slot.carriedMs));
    const long long endMs = roundMs(timeAt(endTick));

    LineBuffer line("NOTE");
    line.field(startMs, 7);
    line.field(endTick, 6);
    line.field(channel, 5);
    line.field(note, 5);
    line.field(endMs - startMs, 5);
    line.field(roundMs(slot.velocity), 5);
    line.append(" ");
    line.noteName(note);
    line.addTo(m_out.lines);

    LineBuffer noteOff("NOOF");
    noteOff.field(endMs, 7);
    noteOff.field(endTick, 6);
    noteOff.field(channel, 5);
    noteOff.addTo(m_out.lines);

    m_out.latestNoteMs = std::max({m_out.latestNoteMs, startMs, endMs});
    if (static_cast<float>(endMs) > m_latestEndMs)
        m_latestEndMs = static_cast<float>(endMs);

    // Swap-remove from the sounding list.
    const int index = slot.soundingIndex;
    if (index >= 0) {
        const std::uint16_t moved = m_sounding.back();
        m_sounding[static_cast<std::size_t>(index)] = moved;
        m_notes[moved / kNotes][moved % kNotes].soundingIndex = index;
        m_sounding.pop_back();
    }
    slot = NoteSlot{};
}

void Decoder::noteOn(int channel, int note, int velocity)
{
    NoteSlot& slot = m_notes[channel][note];
    if (slot.startTick < 0) {
        slot.startTick = m_tick;
        slot.velocity = static_cast<float>(velocity);
        slot.carriedMs = 0.0F;
        slot.soundingIndex = static_cast<int>(m_sounding.size());
        m_sounding.push_back(static_cast<std::uint16_t>(channel * kNotes + note));
    }
    ++slot.count;
}

void Decoder::noteOff(int channel, int note)
{
    NoteSlot& slot = m_notes[channel][note];
    if (slot.startTick < 0)
        return;  // not sounding: nothing to end
    // A note released under the pedal stays at 0 however many more note-offs arrive.
    slot.count = std::max(slot.count - 1, 0);
    if (slot.count < 1 && !(m_options.sustain && m_pedalDown[channel]))
        writeNote(channel, note, m_tick);
}

void Decoder::releasePedal(int channel)
{
    for (int note = 0; note < kNotes; ++note) {
        const NoteSlot& slot = m_notes[channel][note];
        if (slot.startTick >= 0 && slot.count == 0)
            writeNote(channel, note, m_tick);
    }
}

bool Decoder::channelEvent(std::uint8_t status, bool running, std::uint8_t firstData)
{
    const int kind = status & 0xF0;
    const int channel = (status & 0x0F) + 1;
    std::uint8_t data1 = firstData;
    if (!running && !readByte(data1))
        return failEof();
    std::uint8_t data2 = 0;
    if (kind != 0xC0 && kind != 0xD0 && !readByte(data2))
        return failEof();

    switch (kind) {
    case 0x80:
    case 0x90:
        // Data bytes are taken as read; a note number of 128 or more names no note.
        if (data1 >= kNotes)
            return true;
        if (kind == 0x90 && data2 > 0)
            noteOn(channel, data1, data2);
        else
            noteOff(channel, data1);
        return true;
    case 0xA0: {
        LineBuffer line = eventLine("KAFT");
        line.field(channel, 5);
        line.field(data1, 5);
        line.addTo(m_out.lines);
        return true;
    }
    case 0xB0: {
        LineBuffer line = eventLine("CONC");
        line.field(channel, 5);
        line.field(data1, 5);
        line.field(data2, 5);
        line.addTo(m_out.lines);
        if (m_options.sustain && data1 == 64) {
            if (data2 >= 64) {
                m_pedalDown[channel] = true;
            } else {
                m_pedalDown[channel] = false;
                releasePedal(channel);
            }
        }
        return true;
    }
    case 0xC0:
    case 0xD0: {
        LineBuffer line = eventLine(kind == 0xC0 ? "PRGC" : "CAFT");
        line.field(channel, 5);
        line.field(data1, 5);
        line.addTo(m_out.lines);
        return true;
    }
    default: {  // 0xE0
        LineBuffer line = eventLine("PBEN");
        line.field(channel, 5);
        line.field(data1 + 128 * data2, 5);
        line.addTo(m_out.lines);
        return true;
    }
    }
}

bool Decoder::metaEvent(bool& endOfTrack)
{
    std::uint8_t type = 0;
    if (!readByte(type))
        return failEof();
    std::uint32_t length = 0;
    if (!readVarLen(length))
        return false;
    if (length > m_limit - m_pos)
        return failEof();
    const std::uint8_t* data = m_bytes.data() + m_pos;
    m_pos += length;
    // Missing bytes of a short event read as 0.
    const auto byteAt = [&](std::uint32_t i) -> int { return i < length ? data[i] : 0; };

    if (type >= 0x01 && type <= 0x07) {
        std::string line = eventLine(kTextKeywords[type - 1U]).str();
        line.push_back(' ');
        line.append(reinterpret_cast<const char*>(data), length);
        m_out.lines.push_back(std::move(line));
        return true;
    }
    switch (type) {
    case 0x00: {
        LineBuffer line = eventLine("SEQN");
        line.field(length >= 2 ? byteAt(0) * 256 + byteAt(1) : byteAt(0), 5);
        line.addTo(m_out.lines);
        return true;
    }
    case 0x2F:
        endOfTrack = true;
        return true;
    case 0x51: {
        if (length < 3)
            return true;  // no tempo in it
        // In format 1 only the first track carries the tempo map; the others' tempo events
        // are ignored.
        if (m_format == 1 && !m_firstTrack)
            return true;
        const std::int64_t tempo = (byteAt(0) << 16) | (byteAt(1) << 8) | byteAt(2);
        LineBuffer line = eventLine("TEMP");
        line.field(tempo, 7);
        line.addTo(m_out.lines);
        if (m_options.forcedTempoBpm <= 0)
            appendTempo(m_tick, tempo);
        return true;
    }
    case 0x54: {
        LineBuffer line = eventLine("SMPT");
        for (std::uint32_t i = 0; i < 5; ++i)
            line.field(byteAt(i), 5);
        line.addTo(m_out.lines);
        return true;
    }
    case 0x58: {
        if (length >= 1)
            m_numerator = byteAt(0);
        if (length >= 2 && byteAt(1) <= 5)
            m_denominator = 1 << byteAt(1);
        LineBuffer line = eventLine("TIME");
        line.field(m_numerator, 5);
        line.field(m_denominator, 5);
        line.field(byteAt(2), 5);
        line.field(byteAt(3), 5);
        line.addTo(m_out.lines);
        return true;
    }
    case 0x59: {
        // The key's sharps/flats count is a signed byte, written as its byte value so the
        // field keeps its width (-1 flat gives 00255).
        LineBuffer line = eventLine("KEYS");
        line.field(byteAt(0), 5);
        line.field(byteAt(1), 5);
        line.addTo(m_out.lines);
        return true;
    }
    default:
        return true;  // other meta events are skipped by their length
    }
}

bool Decoder::decodeTrack()
{
    startTrack();
    for (;;) {
        m_eventStart = m_pos;
        if (m_pos >= m_limit)
            return failEof();
        std::uint32_t delta = 0;
        if (!readVarLen(delta))
            return false;
        m_tick += delta;
        advanceTempoMap();

        std::uint8_t byte = 0;
        if (!readByte(byte))
            return failEof();
        std::uint8_t status = byte;
        bool running = false;
        if (byte >= 0x80) {
            m_lastStatus = byte;
        } else {
            // Running status: the byte is the first data byte of a repeated channel message.
            if (m_lastStatus < 0x80 || m_lastStatus > 0xEF)
                return fail(kErrRunningStatus, m_eventStart);
            status = m_lastStatus;
            running = true;
        }

        if (status < 0xF0) {
            if (!channelEvent(status, running, byte))
                return false;
            continue;
        }
        switch (status) {
        case 0xFF: {
            bool endOfTrack = false;
            if (!metaEvent(endOfTrack))
                return false;
            if (endOfTrack)
                return true;
            break;
        }
        case 0xF0:
        case 0xF7: {
            // System exclusive data, skipped by its length; an 0xF7 packet is also listed.
            if (status == 0xF7)
                m_out.lines.push_back(eventLine("F7XX").str());
            std::uint32_t length = 0;
            if (!readVarLen(length))
                return false;
            if (!skip(length))
                return failEof();
            break;
        }
        case 0xF1:
        case 0xF3: {
            std::uint8_t data = 0;
            if (!readByte(data))
                return failEof();
            LineBuffer line = eventLine(status == 0xF1 ? "MQTR" : "SNGS");
            line.field(data, 5);
            line.addTo(m_out.lines);
            break;
        }
        case 0xF2: {
            std::uint8_t low = 0;
            std::uint8_t high = 0;
            if (!readByte(low) || !readByte(high))
                return failEof();
            LineBuffer line = eventLine("SNGP");
            line.field(low + 128 * high, 5);
            line.addTo(m_out.lines);
            break;
        }
        default: {
            // 0xF4 to 0xFE carry no data: "F4XX" ... "FEXX".
            static constexpr char kHex[] = "0123456789ABCDEF";
            const char keyword[4] = {'F', kHex[status & 0x0F], 'X', 'X'};
            m_out.lines.push_back(eventLine(std::string_view(keyword, 4)).str());
            break;
        }
        }
    }
}

void Decoder::run()
{
    const std::size_t size = m_bytes.size();
    // 1. Header chunk.
    if (size < 4 || m_bytes[0] != 'M' || m_bytes[1] != 'T' || m_bytes[2] != 'h' ||
        m_bytes[3] != 'd') {
        fail(kErrNoHeader, 0);
        return;
    }
    if (size < 14) {
        fail(kErrEof, 0);
        return;
    }
    m_format = be16(8);
    const int trackCount = be16(10);
    m_division = static_cast<std::int16_t>(be16(12));
    // The header's length field is read past, not used: the first "MTrk" must follow the
    // division at once. Likewise a track's length is not used (below).
    m_pos = 14;
    m_limit = size;

    // 2. Tempo map: entry 0 is the initial (or forced) tempo at tick 0.
    std::int64_t initialTempo = kDefaultTempo;
    if (m_options.forcedTempoBpm > 0)
        initialTempo = roundHalfEven(60.0 / m_options.forcedTempoBpm * 1000000.0);
    m_tempoMap.reserve(64);
    appendTempo(0, initialTempo);
    // About one line per three bytes of a dense song; capped for big non-song files.
    m_out.lines.reserve(std::min<std::size_t>(size / 3, std::size_t{1} << 20));
    m_sounding.reserve(kChannels * kNotes);

    // 3. Track chunks, one after the other.
    for (int track = 0; track < trackCount; ++track) {
        const std::size_t chunkStart = m_pos;
        if (size - m_pos < 4 || m_bytes[m_pos] != 'M' || m_bytes[m_pos + 1] != 'T' ||
            m_bytes[m_pos + 2] != 'r' || m_bytes[m_pos + 3] != 'k') {
            fail(kErrNoTrack, chunkStart);
            return;
        }
        if (size - m_pos < 8) {
            fail(kErrEof, chunkStart);
            return;
        }
        // Events are read one after another up to the end-of-track event, and the next
        // "MTrk" is expected right after it: a chunk length that disagrees with the events
        // is not trusted.
        m_pos += 8;
        m_firstTrack = track == 0;
        if (!decodeTrack())
            return;
    }

    // 4. Notes still held by a pedal at the end of the song end there.
    if (m_options.sustain) {
        for (int channel = 1; channel < kChannels; ++channel)
            if (m_pedalDown[channel])
                releasePedal(channel);
    }

    m_out.lines.emplace_back("ENDF 9999999");
    // The keyword text "HEAD ##10000 " and then a blank before the path.
    std::string head = "HEAD ##10000  ";
    head += m_path;
    appendField(head, roundMs(m_latestEndMs), 5);
    m_out.lines.push_back(std::move(head));
}

}  // namespace

DecodeResult Vertalen(std::span<const std::uint8_t> bytes, const std::string& path,
                      const DecodeOptions& options)
{
    DecodeResult result;
    Decoder decoder(bytes, path, options, result);
    decoder.run();
    return result;
}

}  // namespace veltrin
