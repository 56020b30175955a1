#pragma once
// The playback's outputs: the system's MIDI outputs through RtMidi (the ALSA sequencer on
// Linux), and the built-in FluidSynth synthesizer with a General MIDI sound font, on the
// default audio device or rendering into a WAV file. They only send bytes: the timing is
// the playback's (view/playback.h, view/playback_qt.h).

#include <memory>
#include <string>
#include <vector>

#include "base/result.h"
#include "view/playback.h"

namespace veltrin {

enum class PlaybackOutputError {
    NoMidiOutput,     // the system has no MIDI output (or no sequencer at all)
    UnknownPort,      // no output answers to the name given
    NoSoundFont,      // no sound font file to load
    BadSoundFont,     // the file is not a sound font the synthesizer can load
    NoAudioDevice,    // no audio device for the synthesizer
    CannotWriteFile,  // the WAV file cannot be written
};

// Where playback messages go. send() is called from one thread at a time (the playback's).
class MidiSink {
public:
    virtual ~MidiSink() = default;
    virtual void send(const MidiMessage& message) = 0;
    // The output's name for the log: the port's, or "Built-in synthesizer (<driver>)".
    virtual std::string name() const = 0;
};

// The system's MIDI outputs; problem says why the list could not be read (empty when it
// could, even with no output).
struct MidiPortList {
    std::vector<std::string> names;
    std::string problem;
};
MidiPortList listMidiOutputs();

// Opens the output port designates (see findMidiPort); an empty port opens the default
// (defaultMidiPort).
Result<std::unique_ptr<MidiSink>, PlaybackOutputError> openMidiOutput(const std::string& port);

// The sound font to load: soundFont itself when given (empty when it is not a file), else
// the first of the General MIDI fonts of the system that exists (empty when none does).
std::string findSoundFont(const std::string& soundFont);
// Where the General MIDI font is looked for, in order.
const std::vector<std::string>& soundFontPlaces();
// Empty when findSoundFont(soundFont) finds a file; else what to do about it.
std::string soundFontProblem(const std::string& soundFont);

// The built-in synthesizer on the default audio device, with findSoundFont(soundFont).
Result<std::unique_ptr<MidiSink>, PlaybackOutputError> openSynthesizer(const std::string& soundFont);

// Plays schedule into a WAV file (16-bit stereo, 44100 Hz) as fast as the synthesizer
// renders, with tailMs of sound after the last message for the notes to die away. The file
// appears whole or not at all. Returns the length written, in seconds.
inline constexpr double kWavTailMs = 1000.0;
inline constexpr int kWavSampleRate = 44100;
Result<double, PlaybackOutputError> renderWav(const PlaybackSchedule& schedule, const std::string& wavPath,
                                              const std::string& soundFont, double tailMs = kWavTailMs);

// Which output a playback uses.
struct PlaybackOutput {
    enum class Kind {
        Default,  // the default MIDI output; with none, the built-in synthesizer
        Port,     // the MIDI output named by port
        Synth,    // the built-in synthesizer
    };
    Kind kind = Kind::Default;
    std::string port;
    std::string soundFont;  // empty: the system's General MIDI font
};

// Opens output. A default output that finds no MIDI port and no audio device says both.
Result<std::unique_ptr<MidiSink>, PlaybackOutputError> openPlaybackOutput(const PlaybackOutput& output);

}  // namespace veltrin
