// Writes examples/au-clair-de-la-lune.mid: the traditional French song "Au clair de la lune"
// (public domain), encoded by hand as a small format-1 Standard MIDI File.
//
// Track 0 holds the tempo map (120 beats per minute, slowing to 96 for the last phrase),
// track 1 the melody on channel 1, track 2 a simple bass line on channel 2. The melody lies
// on the tracks of the "Kolby 27-29" scale; three bass notes (E3 = 52, B2 = 47, C2 = 36) do
// not, so the report of a conversion shows notes out of the scale.
//
// Usage: make-example-song OUTPUT.mid

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr int kDivision = 480;  // ticks per quarter note
constexpr int kQuarter = kDivision;
constexpr int kHalf = 2 * kDivision;
constexpr int kWhole = 4 * kDivision;

void putVariableLength(Bytes& out, std::uint32_t value)
{
    std::uint8_t groups[4];
    int count = 0;
    do {
        groups[count++] = static_cast<std::uint8_t>(value & 0x7F);
        value >>= 7;
    } while (value != 0 && count < 4);
    for (int i = count - 1; i >= 0; --i)
        out.push_back(static_cast<std::uint8_t>(groups[i] | (i > 0 ? 0x80 : 0x00)));
}

void putBigEndian(Bytes& out, std::uint32_t value, int bytes)
{
    for (int i = bytes - 1; i >= 0; --i)
        out.push_back(static_cast<std::uint8_t>((value >> (8 * i)) & 0xFF));
}

class Track {
public:
    void meta(std::uint32_t delta, std::uint8_t type, const Bytes& data)
    {
        putVariableLength(m_events, delta);
        m_events.push_back(0xFF);
        m_events.push_back(type);
        putVariableLength(m_events, static_cast<std::uint32_t>(data.size()));
        m_events.insert(m_events.end(), data.begin(), data.end());
    }
    void text(std::uint32_t delta, std::uint8_t type, const std::string& s)
    {
        meta(delta, type, Bytes(s.begin(), s.end()));
    }
    void tempo(std::uint32_t delta, int beatsPerMinute)
    {
        const std::uint32_t usPerQuarter = 60000000u / static_cast<std::uint32_t>(beatsPerMinute);
        Bytes data;
        putBigEndian(data, usPerQuarter, 3);
        meta(delta, 0x51, data);
    }
    void channel(std::uint32_t delta, std::uint8_t status, std::uint8_t a)
    {
        putVariableLength(m_events, delta);
        m_events.push_back(status);
        m_events.push_back(a);
    }
    void channel(std::uint32_t delta, std::uint8_t status, std::uint8_t a, std::uint8_t b)
    {
        putVariableLength(m_events, delta);
        m_events.push_back(status);
        m_events.push_back(a);
        m_events.push_back(b);
    }
    // A note on channel ch (0-based) of the given length, right after the previous event.
    void note(int ch, int key, int length, int velocity)
    {
        channel(m_rest, static_cast<std::uint8_t>(0x90 | ch), static_cast<std::uint8_t>(key),
                static_cast<std::uint8_t>(velocity));
        // Note-off written as a note-on with velocity 0, as many sequencers do.
        channel(static_cast<std::uint32_t>(length), static_cast<std::uint8_t>(0x90 | ch),
                static_cast<std::uint8_t>(key), 0);
        m_rest = 0;
    }
    void rest(int length) { m_rest += static_cast<std::uint32_t>(length); }
    Bytes chunk()
    {
        Track copy = *this;
        copy.meta(copy.m_rest, 0x2F, {});
        Bytes out{'M', 'T', 'r', 'k'};
        putBigEndian(out, static_cast<std::uint32_t>(copy.m_events.size()), 4);
        out.insert(out.end(), copy.m_events.begin(), copy.m_events.end());
        return out;
    }

private:
    Bytes m_events;
    std::uint32_t m_rest = 0;
};

struct Note {
    int key;
    int length;
};

// MIDI note numbers of the melody (C5 = 72).
constexpr int C5 = 72, D5 = 74, E5 = 76, B4 = 71, A4 = 69, G4 = 67;

const std::vector<Note> kPhraseA = {  // "Au clair de la lune, mon ami Pierrot"
    {C5, kQuarter}, {C5, kQuarter}, {C5, kQuarter}, {D5, kQuarter},
    {E5, kHalf},    {D5, kHalf},
    {C5, kQuarter}, {E5, kQuarter}, {D5, kQuarter}, {D5, kQuarter},
    {C5, kWhole},
};
const std::vector<Note> kPhraseB = {  // "Ma chandelle est morte, je n'ai plus de feu"
    {D5, kQuarter}, {D5, kQuarter}, {D5, kQuarter}, {D5, kQuarter},
    {A4, kHalf},    {A4, kHalf},
    {D5, kQuarter}, {C5, kQuarter}, {B4, kQuarter}, {A4, kQuarter},
    {G4, kWhole},
};
// Bass, half notes, one phrase (four bars) at a time.
const std::vector<Note> kBassA = {{48, kHalf}, {55, kHalf}, {48, kHalf}, {52, kHalf},
                                  {53, kHalf}, {55, kHalf}, {48, kWhole}};
const std::vector<Note> kBassB = {{50, kHalf}, {57, kHalf}, {53, kHalf}, {50, kHalf},
                                  {55, kHalf}, {47, kHalf}, {55, kWhole}};
const std::vector<Note> kBassEnd = {{48, kHalf}, {55, kHalf}, {48, kHalf}, {52, kHalf},
                                    {53, kHalf}, {55, kHalf}, {36, kWhole}};

void play(Track& track, int ch, const std::vector<Note>& notes, int velocity)
{
    for (const Note& n : notes)
        track.note(ch, n.key, n.length, velocity);
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: make-example-song OUTPUT.mid\n");
        return 2;
    }

    Track tempoTrack;
    tempoTrack.text(0, 0x03, "Au clair de la lune");
    tempoTrack.meta(0, 0x58, {4, 2, 24, 8});  // 4/4, 24 clocks per click, 8 32nds per quarter
    tempoTrack.meta(0, 0x59, {0, 0});         // C major
    tempoTrack.tempo(0, 120);
    tempoTrack.tempo(3 * 4 * kWhole, 96);  // the last phrase slows down

    Track melody;
    melody.text(0, 0x03, "Melody");
    melody.channel(0, 0xC0, 19);  // church organ
    play(melody, 0, kPhraseA, 96);
    play(melody, 0, kPhraseA, 90);
    play(melody, 0, kPhraseB, 100);
    play(melody, 0, kPhraseA, 84);

    Track bass;
    bass.text(0, 0x03, "Bass");
    bass.channel(0, 0xC1, 19);
    play(bass, 1, kBassA, 70);
    play(bass, 1, kBassA, 70);
    play(bass, 1, kBassB, 74);
    play(bass, 1, kBassEnd, 66);

    Bytes file{'M', 'T', 'h', 'd'};
    putBigEndian(file, 6, 4);
    putBigEndian(file, 1, 2);  // format 1
    putBigEndian(file, 3, 2);  // three tracks
    putBigEndian(file, kDivision, 2);
    for (Track* t : {&tempoTrack, &melody, &bass}) {
        const Bytes chunk = t->chunk();
        file.insert(file.end(), chunk.begin(), chunk.end());
    }

    std::ofstream out(argv[1], std::ios::binary);
    out.write(reinterpret_cast<const char*>(file.data()), static_cast<std::streamsize>(file.size()));
    if (!out) {
        std::fprintf(stderr, "make-example-song: cannot write %s\n", argv[1]);
        return 1;
    }
    return 0;
}
