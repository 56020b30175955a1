#include "view/midi_output_qt.h"

#include <fluidsynth.h>
#include <rtmidi/RtMidi.h>
#if VELTRIN_HAVE_ALSA
#include <alsa/asoundlib.h>
#endif

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <mutex>
#include <sstream>
#include <system_error>

namespace veltrin {

namespace {

// --- quiet libraries: their complaints become our messages ---

#if VELTRIN_HAVE_ALSA
// libasound prints every failed lookup ("cannot find card '0'") on stderr; a machine
// without a sound card is an expected case here, told in one clear message.
void silentAlsaError(const char*, int, const char*, int, const char*, ...) {}
#endif

// FluidSynth's errors and warnings, kept for the message that follows a failure.
std::mutex g_fluidLogMutex;
std::string g_fluidLog;

void keepFluidLog(int level, const char* message, void*)
{
    if (level > FLUID_WARN || !message)
        return;
    const std::lock_guard lock(g_fluidLogMutex);
    if (!g_fluidLog.empty())
        g_fluidLog += "; ";
    g_fluidLog += message;
}

void quietLibraries()
{
    static std::once_flag once;
    std::call_once(once, [] {
#if VELTRIN_HAVE_ALSA
        snd_lib_error_set_handler(silentAlsaError);
#endif
        for (int level : {FLUID_PANIC, FLUID_ERR, FLUID_WARN, FLUID_INFO, FLUID_DBG})
            fluid_set_log_function(level, keepFluidLog, nullptr);
    });
}

std::string takeFluidLog()
{
    const std::lock_guard lock(g_fluidLogMutex);
    return std::exchange(g_fluidLog, std::string());
}

// RtMidi prints its errors on std::cerr before it throws them; the exception says the same.
class QuietCerr {
public:
    QuietCerr() : m_saved(std::cerr.rdbuf(m_sink.rdbuf())) {}
    ~QuietCerr() { std::cerr.rdbuf(m_saved); }
    QuietCerr(const QuietCerr&) = delete;
    QuietCerr& operator=(const QuietCerr&) = delete;

private:
    std::ostringstream m_sink;
    std::streambuf* m_saved;
};

std::string trimmed(std::string text)
{
    while (!text.empty() && (text.back() == '\n' || text.back() == ' ' || text.back() == '.'))
        text.pop_back();
    while (!text.empty() && (text.front() == '\n' || text.front() == ' '))
        text.erase(0, 1);
    return text;
}

// --- system MIDI outputs ---

RtMidi::Api systemApi()
{
#if defined(__linux__)
    return RtMidi::LINUX_ALSA;
#else
    return RtMidi::UNSPECIFIED;
#endif
}

std::unique_ptr<RtMidiOut> newRtMidiOut(std::string& problem)
{
    quietLibraries();
    const QuietCerr quiet;
    try {
        return std::make_unique<RtMidiOut>(systemApi(), "Veltrin");
    } catch (const RtMidiError& error) {
#if defined(__linux__)
        std::error_code ec;
        if (!std::filesystem::exists("/dev/snd/seq", ec))
            problem = "the ALSA sequencer is not there (no /dev/snd/seq, no sound driver loaded)";
        else
#endif
            problem = trimmed(error.getMessage());
    }
    return nullptr;
}

std::vector<std::string> portNames(RtMidiOut& out)
{
    const QuietCerr quiet;
    std::vector<std::string> names;
    const unsigned count = out.getPortCount();
    for (unsigned i = 0; i < count; ++i)
        names.push_back(out.getPortName(i));
    return names;
}

class RtMidiSink final : public MidiSink {
public:
    RtMidiSink(std::unique_ptr<RtMidiOut> out, std::string name) : m_out(std::move(out)), m_name(std::move(name)) {}
    ~RtMidiSink() override
    {
        const QuietCerr quiet;
        m_out->closePort();
    }
    void send(const MidiMessage& message) override
    {
        const unsigned char bytes[3] = {message.status, message.data1, message.data2};
        try {
            m_out->sendMessage(bytes, message.size);
        } catch (const RtMidiError&) {
            // A port that went away mid-song: the rest is lost, the playback goes on to its end.
        }
    }
    std::string name() const override { return m_name; }

private:
    std::unique_ptr<RtMidiOut> m_out;
    std::string m_name;
};

// --- the built-in synthesizer ---

void sendToSynth(fluid_synth_t* synth, const MidiMessage& message)
{
    const int channel = message.status & 0x0F;
    switch (message.status & 0xF0) {
    case 0x90:
        if (message.data2 == 0)
            fluid_synth_noteoff(synth, channel, message.data1);
        else
            fluid_synth_noteon(synth, channel, message.data1, message.data2);
        break;
    case 0x80:
        fluid_synth_noteoff(synth, channel, message.data1);
        break;
    case 0xB0:
        fluid_synth_cc(synth, channel, message.data1, message.data2);
        break;
    case 0xC0:
        fluid_synth_program_change(synth, channel, message.data1);
        break;
    default:
        break;
    }
}

// Settings and synthesizer with the sound font loaded.
class Synth {
public:
    Synth() : m_settings(new_fluid_settings()) {}
    ~Synth()
    {
        if (m_synth)
            delete_fluid_synth(m_synth);
        delete_fluid_settings(m_settings);
    }
    Synth(const Synth&) = delete;
    Synth& operator=(const Synth&) = delete;

    fluid_settings_t* settings() const { return m_settings; }
    fluid_synth_t* synth() const { return m_synth; }

    // Creates the synthesizer once the settings are made, and loads the font.
    Result<bool, PlaybackOutputError> load(const std::string& soundFont)
    {
        quietLibraries();
        const std::string font = findSoundFont(soundFont);
        if (font.empty())
            return fail(PlaybackOutputError::NoSoundFont, soundFontProblem(soundFont));
        fluid_settings_setnum(m_settings, "synth.sample-rate", kWavSampleRate);
        fluid_settings_setnum(m_settings, "synth.gain", 0.4);
        m_synth = new_fluid_synth(m_settings);
        takeFluidLog();
        if (!m_synth || fluid_synth_sfload(m_synth, font.c_str(), 1) == FLUID_FAILED) {
            const std::string why = takeFluidLog();
            return fail(PlaybackOutputError::BadSoundFont,
                        "sound font " + font + ": cannot be loaded" + (why.empty() ? "" : " (" + why + ")"));
        }
        return true;
    }

private:
    fluid_settings_t* m_settings;
    fluid_synth_t* m_synth = nullptr;
};

class SynthSink final : public MidiSink {
public:
    SynthSink(std::unique_ptr<Synth> synth, fluid_audio_driver_t* driver, std::string driverName)
        : m_synth(std::move(synth)), m_driver(driver), m_name("Built-in synthesizer (" + driverName + ")")
    {
    }
    ~SynthSink() override { delete_fluid_audio_driver(m_driver); }
    void send(const MidiMessage& message) override { sendToSynth(m_synth->synth(), message); }
    std::string name() const override { return m_name; }

private:
    std::unique_ptr<Synth> m_synth;
    fluid_audio_driver_t* m_driver;
    std::string m_name;
};

// The drivers of the usual desktop sound servers, then the plain ALSA device. JACK is left
// out: with no server running it would try to start one.
constexpr const char* kAudioDrivers[] = {"pulseaudio", "alsa"};

}  // namespace

MidiPortList listMidiOutputs()
{
    MidiPortList list;
    std::unique_ptr<RtMidiOut> out = newRtMidiOut(list.problem);
    if (out)
        list.names = portNames(*out);
    return list;
}

Result<std::unique_ptr<MidiSink>, PlaybackOutputError> openMidiOutput(const std::string& port)
{
    std::string problem;
    std::unique_ptr<RtMidiOut> out = newRtMidiOut(problem);
    if (!out)
        return fail(PlaybackOutputError::NoMidiOutput, "no MIDI output: " + problem);
    const std::vector<std::string> names = portNames(*out);
    const std::optional<std::size_t> index = port.empty() ? defaultMidiPort(names) : findMidiPort(names, port);
    if (!index) {
        if (port.empty())
            return fail(PlaybackOutputError::NoMidiOutput,
                        names.empty() ? "no MIDI output: the system has none"
                                      : "no MIDI output but \"" + names.front() + "\", which plays nothing");
        std::string known;
        for (const std::string& name : names)
            known += (known.empty() ? "" : ", ") + ("\"" + name + "\"");
        return fail(PlaybackOutputError::UnknownPort,
                    "no MIDI output \"" + port + "\" (or several match); the outputs are: " +
                        (known.empty() ? "none" : known));
    }
    try {
        const QuietCerr quiet;
        out->openPort(static_cast<unsigned>(*index), "Veltrin playback");
    } catch (const RtMidiError& error) {
        return fail(PlaybackOutputError::NoMidiOutput,
                    "MIDI output \"" + names[*index] + "\" does not open: " + trimmed(error.getMessage()));
    }
    return std::unique_ptr<MidiSink>(std::make_unique<RtMidiSink>(std::move(out), names[*index]));
}

const std::vector<std::string>& soundFontPlaces()
{
    static const std::vector<std::string> places = {
        "/usr/share/sounds/sf2/FluidR3_GM.sf2",
        "/usr/share/sounds/sf2/default-GM.sf2",
        "/usr/share/soundfonts/FluidR3_GM.sf2",
        "/usr/share/soundfonts/default.sf2",
    };
    return places;
}

std::string findSoundFont(const std::string& soundFont)
{
    std::error_code ec;
    if (!soundFont.empty())
        return std::filesystem::is_regular_file(soundFont, ec) ? soundFont : std::string();
    for (const std::string& place : soundFontPlaces()) {
        if (std::filesystem::is_regular_file(place, ec))
            return place;
    }
    return {};
}

std::string soundFontProblem(const std::string& soundFont)
{
    if (!findSoundFont(soundFont).empty())
        return {};
    if (!soundFont.empty())
        return "sound font " + soundFont + ": no such file";
    return "no General MIDI sound font (looked for " + soundFontPlaces().front() +
           "): install the package fluid-soundfont-gm, or name one with --soundfont";
}

Result<std::unique_ptr<MidiSink>, PlaybackOutputError> openSynthesizer(const std::string& soundFont)
{
    auto synth = std::make_unique<Synth>();
    if (auto loaded = synth->load(soundFont); !loaded)
        return fail(loaded.error(), loaded.detail());
    std::string tried;
    for (const char* driverName : kAudioDrivers) {
        fluid_settings_setstr(synth->settings(), "audio.driver", driverName);
        takeFluidLog();
        if (fluid_audio_driver_t* driver = new_fluid_audio_driver(synth->settings(), synth->synth())) {
            return std::unique_ptr<MidiSink>(std::make_unique<SynthSink>(std::move(synth), driver, driverName));
        }
        const std::string why = takeFluidLog();
        tried += (tried.empty() ? "" : ", ") + std::string(driverName) + (why.empty() ? "" : ": " + why);
    }
    return fail(PlaybackOutputError::NoAudioDevice, "no audio device for the built-in synthesizer (" + tried + ")");
}

Result<double, PlaybackOutputError> renderWav(const PlaybackSchedule& schedule, const std::string& wavPath,
                                              const std::string& soundFont, double tailMs)
{
    Synth synth;
    const std::string temporary = wavPath + ".tmp";
    fluid_settings_setstr(synth.settings(), "audio.file.name", temporary.c_str());
    fluid_settings_setstr(synth.settings(), "audio.file.type", "wav");
    fluid_settings_setstr(synth.settings(), "audio.file.format", "s16");
    if (auto loaded = synth.load(soundFont); !loaded)
        return fail(loaded.error(), loaded.detail());
    int periodFrames = 64;
    fluid_settings_getint(synth.settings(), "audio.period-size", &periodFrames);

    takeFluidLog();
    fluid_file_renderer_t* renderer = new_fluid_file_renderer(synth.synth());
    if (!renderer) {
        const std::string why = takeFluidLog();
        return fail(PlaybackOutputError::CannotWriteFile,
                    "cannot write " + wavPath + (why.empty() ? "" : " (" + why + ")"));
    }
    // Each message goes in at the first block that starts at or after its time: the blocks
    // are 64 frames, under 1.5 ms.
    long long frames = 0;
    bool written = true;
    const auto renderUntil = [&](double ms) {
        const auto until = static_cast<long long>(std::ceil(ms * kWavSampleRate / 1000.0));
        while (written && frames < until) {
            written = fluid_file_renderer_process_block(renderer) == FLUID_OK;
            frames += periodFrames;
        }
    };
    for (const TimedMessage& timed : schedule.messages) {
        renderUntil(timed.atMs);
        sendToSynth(synth.synth(), timed.message);
    }
    renderUntil(schedule.durationMs() + std::max(0.0, tailMs));
    delete_fluid_file_renderer(renderer);

    std::error_code ec;
    if (written)
        std::filesystem::rename(temporary, wavPath, ec);
    if (!written || ec) {
        std::filesystem::remove(temporary, ec);
        return fail(PlaybackOutputError::CannotWriteFile,
                    "cannot write " + wavPath + (written ? ": " + ec.message() : ": the disk refused the sound"));
    }
    return static_cast<double>(frames) / kWavSampleRate;
}

Result<std::unique_ptr<MidiSink>, PlaybackOutputError> openPlaybackOutput(const PlaybackOutput& output)
{
    switch (output.kind) {
    case PlaybackOutput::Kind::Port:
        return openMidiOutput(output.port);
    case PlaybackOutput::Kind::Synth:
        return openSynthesizer(output.soundFont);
    case PlaybackOutput::Kind::Default:
        break;
    }
    auto port = openMidiOutput({});
    if (port)
        return port;
    auto synth = openSynthesizer(output.soundFont);
    if (synth || synth.error() != PlaybackOutputError::NoAudioDevice)
        return synth;
    return fail(PlaybackOutputError::NoAudioDevice, port.detail() + "; and " + synth.detail());
}

}  // namespace veltrin
