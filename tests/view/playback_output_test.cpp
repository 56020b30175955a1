// The playback's outputs and its thread: renderings of real songs with the General MIDI sound
// font, the failures a maker meets (no font, no device, a file that cannot be written), the
// system's MIDI output when there is one, and Stop in the middle.

#include <QCoreApplication>
#include <QSignalSpy>

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "app/playback_plan.h"
#include "app/song_import.h"
#include "base/numeric_text.h"
#include "scales/scale_file.h"
#include "support/midi_bytes.h"
#include "support/temp_dir.h"
#include "view/midi_output_qt.h"
#include "view/playback_qt.h"

namespace veltrin {
namespace {

// A 16-bit PCM WAV file: its rate and samples, channels interleaved.
struct Wav {
    int channels = 0;
    int rate = 0;
    std::vector<std::int16_t> samples;

    explicit Wav(const std::filesystem::path& path)
    {
        const std::string bytes = testing::readText(path);
        const auto number = [&](std::size_t at, std::size_t size) {
            std::uint32_t v = 0;
            std::memcpy(&v, bytes.data() + at, size);
            return v;
        };
        for (std::size_t at = 12; bytes.starts_with("RIFF") && at + 8 <= bytes.size();) {
            const std::size_t size = number(at + 4, 4);
            if (bytes.compare(at, 4, "fmt ") == 0) {
                channels = static_cast<int>(number(at + 10, 2));
                rate = static_cast<int>(number(at + 12, 4));
            } else if (bytes.compare(at, 4, "data") == 0) {
                samples.resize(std::min(size, bytes.size() - at - 8) / 2);
                std::memcpy(samples.data(), bytes.data() + at + 8, samples.size() * 2);
            }
            at += 8 + size + (size & 1);
        }
    }
    double seconds() const { return channels ? double(samples.size()) / channels / rate : 0.0; }
    // Root mean square of [fromMs, toMs), full scale = 1.
    double rms(double fromMs, double toMs) const
    {
        const auto index = [&](double ms) {
            return std::min(samples.size(), static_cast<std::size_t>(ms * rate / 1000.0) * channels);
        };
        double sum = 0.0;
        for (std::size_t i = index(fromMs); i < index(toMs); ++i)
            sum += double(samples[i]) * samples[i];
        return std::sqrt(sum / std::max<double>(1.0, double(index(toMs) - index(fromMs)))) / 32768.0;
    }
};

// Quieter than this is silence (-60 dB); a note of the synthesizer is far above.
constexpr double kSilence = 0.001;

class PlaybackOutput_ : public ::testing::Test {
protected:
    // Opens a song as the window does, on a built-in scale, with the laser.
    void open(const std::filesystem::path& song)
    {
        state = AppState();
        state.dossier_documents = dir.str();
        state.settings.Standard = kKolbyName;
        MessageLog log;
        Def_standard(dir.str(), state.settings, state.scale, log);
        state.programPathOverride = (dir.path() / "song.gcode").string();
        auto report = Ouvre_midi(state, {song.string()}, 0, {nullptr, false});
        ASSERT_TRUE(report.ok()) << report.detail();
    }

    Wav render(PlaybackSource source, const std::string& name)
    {
        const auto path = dir.path() / name;
        auto seconds = renderWav(playbackPlan(state, source).schedule, path.string(), {});
        EXPECT_TRUE(seconds.ok()) << seconds.detail();
        Wav wav(path);
        EXPECT_EQ(wav.rate, kWavSampleRate);
        if (seconds.ok()) {
            EXPECT_NEAR(wav.seconds(), seconds.value(), 0.01);
        }
        return wav;
    }

    void SetUp() override
    {
        if (findSoundFont({}).empty())
            GTEST_SKIP() << soundFontProblem({});
    }

    testing::TempDir dir;
    AppState state;
};

TEST_F(PlaybackOutput_, TheExampleSongRendersAsLongAsItLastsSoundingWhereverANotePlays)
{
    open(std::filesystem::path(TEST_DATA_DIR).parent_path().parent_path() / "examples" / "au-clair-de-la-lune.mid");
    const PlaybackSchedule schedule = playbackPlan(state, PlaybackSource::Song).schedule;
    ASSERT_EQ(schedule.durationMs(), 34000.0) << "the last note ends at 34 s";
    const Wav wav = render(PlaybackSource::Song, "song.wav");
    EXPECT_NEAR(wav.seconds(), 34.0 + kWavTailMs / 1000.0, 0.01);
    // Some note plays all along the song.
    for (double ms = 0.0; ms < 34000.0; ms += 250.0)
        EXPECT_GT(wav.rms(ms, ms + 250.0), kSilence * 10) << "at " << ms << " ms";
    // Once every note is off and has died away, nothing.
    EXPECT_LT(wav.rms(34600.0, 35000.0), kSilence);
}

TEST_F(PlaybackOutput_, TheRollLeavesSilentTheNotesTheScaleCannotPlay)
{
    // Note 60 is on the 27-29 scale, 59 is not; nothing plays from 1.5 s to 2.5 s.
    const auto song = dir.path() / "two-notes.mid";
    testing::writeFile(song, testing::midiFile({{0, 500, 60}, {1000, 1500, 59}, {2500, 3000, 62}}));
    open(song);
    const Wav played = render(PlaybackSource::Song, "song.wav");
    const Wav roll = render(PlaybackSource::Roll, "roll.wav");
    for (const Wav* wav : {&played, &roll}) {
        EXPECT_GT(wav->rms(100.0, 400.0), kSilence * 10);
        EXPECT_GT(wav->rms(2600.0, 2900.0), kSilence * 10);
        EXPECT_LT(wav->rms(2000.0, 2450.0), kSilence) << "no note plays there";
    }
    EXPECT_GT(played.rms(1100.0, 1400.0), kSilence * 10) << "the song has note 59";
    EXPECT_LT(roll.rms(1100.0, 1400.0), kSilence) << "the roll has no hole for it";
}

TEST_F(PlaybackOutput_, FailuresAreToldAndLeaveNoFile)
{
    const auto song = dir.path() / "song.mid";
    testing::writeFile(song, testing::midiFile(testing::kFiveNotes));
    const PlaybackSchedule schedule = planPlayback({"0000000 060 NOTE", "0000100 060 NOOF"}, {});
    struct Case {
        const char* what;
        std::filesystem::path wav;
        std::string soundFont;
        PlaybackOutputError error;
    };
    const Case cases[] = {
        {"a folder that is not there", dir.path() / "no-folder" / "x.wav", {}, PlaybackOutputError::CannotWriteFile},
        {"a font that is not there", dir.path() / "x.wav", (dir.path() / "none.sf2").string(),
         PlaybackOutputError::NoSoundFont},
        {"a file that is no font", dir.path() / "x.wav", song.string(), PlaybackOutputError::BadSoundFont},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        auto rendered = renderWav(schedule, c.wav.string(), c.soundFont);
        ASSERT_FALSE(rendered.ok());
        EXPECT_EQ(rendered.error(), c.error);
        EXPECT_FALSE(rendered.detail().empty());
        EXPECT_FALSE(std::filesystem::exists(c.wav));
        EXPECT_FALSE(std::filesystem::exists(c.wav.string() + ".tmp"));
    }
}

TEST(SystemMidiOutput, TheDefaultOutputTakesANote)
{
    const MidiPortList ports = listMidiOutputs();
    if (!defaultMidiPort(ports.names))
        GTEST_SKIP() << "no MIDI output here: " << (ports.problem.empty() ? "none" : ports.problem);
    auto sink = openMidiOutput({});
    ASSERT_TRUE(sink.ok()) << sink.detail();
    sink.value()->send(Play_Note(60));
    sink.value()->send(Stop_Note(60));
    EXPECT_FALSE(sink.value()->name().empty());
}

// Keeps what it is sent, with the time, in a list the test reads once the playback ended.
struct Sent {
    std::chrono::steady_clock::time_point at;
    MidiMessage message;
};
class RecordingSink final : public MidiSink {
public:
    explicit RecordingSink(std::vector<Sent>& sent) : m_sent(sent) {}
    void send(const MidiMessage& message) override { m_sent.push_back({std::chrono::steady_clock::now(), message}); }
    std::string name() const override { return "recorder"; }

private:
    std::vector<Sent>& m_sent;
};

void application()
{
    static int argc = 1;
    static char name[] = "playback_output_tests";
    static char* argv[] = {name, nullptr};
    static QCoreApplication app(argc, argv);
}

TEST(PlaybackController, PlaysEveryMessageInOrderNeverBeforeItsTimeWithTheViewFollowing)
{
    application();
    const std::vector<std::string> lines = {"0001000 060 NOTE", "0001100 060 NOOF", "0001100 062 NOTE",
                                            "0001250 062 NOOF"};
    const PlaybackSchedule schedule = planPlayback(lines, {});
    std::vector<Sent> sent;
    PlaybackController controller;
    QSignalSpy finished(&controller, &PlaybackController::finished);
    QSignalSpy position(&controller, &PlaybackController::positionChanged);
    QSignalSpy scroll(&controller, &PlaybackController::scrollChanged);
    const auto start = std::chrono::steady_clock::now();
    controller.play(schedule, 60.0, std::make_unique<RecordingSink>(sent));
    EXPECT_TRUE(controller.running());
    ASSERT_TRUE(finished.wait(5000));
    EXPECT_FALSE(controller.running());
    ASSERT_EQ(sent.size(), schedule.messages.size());
    for (std::size_t i = 0; i < sent.size(); ++i) {
        EXPECT_EQ(sent[i].message, schedule.messages[i].message) << i;
        const double atMs = std::chrono::duration<double, std::milli>(sent[i].at - start).count();
        EXPECT_GE(atMs, schedule.messages[i].atMs) << i;
    }
    ASSERT_FALSE(position.isEmpty());
    EXPECT_EQ(position.first().at(0).toDouble(), 1000.0) << "the song time of the first line";
    ASSERT_FALSE(scroll.isEmpty());
    EXPECT_GE(scroll.first().at(0).toDouble(), 60.0) << "the view starts where the first line lies";
}

TEST(PlaybackController, StopInTheMiddleSwitchesEveryNoteOffAndPlaysNothingMore)
{
    application();
    std::vector<std::string> lines;
    for (int ms = 0; ms < 60000; ms += 100) {
        lines.push_back(fixedWidth(ms, 7) + " 060 NOTE");
        lines.push_back(fixedWidth(ms + 50, 7) + " 060 NOOF");
    }
    const PlaybackSchedule schedule = planPlayback(lines, {});
    std::vector<Sent> sent;
    PlaybackController controller;
    QSignalSpy finished(&controller, &PlaybackController::finished);
    QSignalSpy position(&controller, &PlaybackController::positionChanged);
    controller.play(schedule, 60.0, std::make_unique<RecordingSink>(sent));
    ASSERT_TRUE(position.wait(5000));
    controller.stop();
    ASSERT_TRUE(finished.wait(5000)) << "a minute of song is not waited for";
    ASSERT_GT(sent.size(), 128u);
    ASSERT_LT(sent.size(), schedule.messages.size() - 1) << "the song did not play on";
    for (int note = 0; note < 128; ++note)
        EXPECT_EQ(sent[sent.size() - 128 + static_cast<std::size_t>(note)].message, Stop_Note(note));
    EXPECT_FALSE(controller.running());
}

TEST(PlaybackController, AnOutputThatDoesNotOpenIsToldAndTheRunEnds)
{
    application();
    PlaybackController controller;
    QSignalSpy failed(&controller, &PlaybackController::failed);
    QSignalSpy finished(&controller, &PlaybackController::finished);
    PlaybackOutput output;
    output.kind = PlaybackOutput::Kind::Synth;
    output.soundFont = "/no/such/font.sf2";
    controller.play(planPlayback({"0000000 060 NOTE"}, {}), 60.0, output);
    ASSERT_TRUE(finished.wait(5000));
    ASSERT_EQ(failed.size(), 1);
    EXPECT_TRUE(failed.first().at(0).toString().contains(QStringLiteral("/no/such/font.sf2")));
}

}  // namespace
}  // namespace veltrin
