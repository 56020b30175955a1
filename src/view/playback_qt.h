#pragma once
// Playback in real time: a thread of its own sleeps until each message of the schedule is
// due (no busy wait) and hands it to the output; Stop wakes it at once and every note is
// switched off. PlaybackController puts that under a window: signals for the song position
// and the roll view (Timer2's rule), and the end.

#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QTimer>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "view/midi_output_qt.h"
#include "view/playback.h"

namespace veltrin {

// The timer thread. Use: start() with a schedule and a way to open the output (called on the
// thread, so a sound font that takes a moment to load holds nobody); stop() at any time; the
// callbacks come on the thread; join() (or the destructor) waits for its end.
class PlaybackRunner {
public:
    using Clock = std::chrono::steady_clock;
    using Opener = std::function<Result<std::unique_ptr<MidiSink>, PlaybackOutputError>()>;

    struct Callbacks {
        // The output is open; the schedule's times count from t0.
        std::function<void(const std::string& outputName, Clock::time_point t0)> started;
        // The output did not open: nothing was played.
        std::function<void(const std::string& problem)> failed;
        // The last message has gone out (after failed too).
        std::function<void()> finished;
    };

    PlaybackRunner() = default;
    ~PlaybackRunner();
    PlaybackRunner(const PlaybackRunner&) = delete;
    PlaybackRunner& operator=(const PlaybackRunner&) = delete;

    // A runner plays one schedule; a running one is stopped and joined first.
    void start(PlaybackSchedule schedule, Opener open, Callbacks callbacks);
    // Stop: the notes not yet played are dropped, the 128 note-offs go out now.
    void stop();
    void join();
    // The song time of the last line sent; nullopt before the first.
    std::optional<double> songMs() const;

private:
    struct Shared;
    static void run(Shared& shared, PlaybackSchedule schedule, const Opener& open, const Callbacks& callbacks);
    std::shared_ptr<Shared> m_shared;
};

// Playback for the window. play() returns at once; running() until finished().
// While it plays, positionChanged gives the song time of each line as it is played and
// scrollChanged the roll view's position (mm along the roll, HScroll1's unit), moved by
// Timer2's rule from the first line on. stop() ends it at once: finished() follows.
class PlaybackController : public QObject {
    Q_OBJECT
public:
    explicit PlaybackController(QObject* parent = nullptr);
    ~PlaybackController() override;

    // Plays schedule on output; mmPerSecond (S, roll per second of song) moves the view.
    void play(PlaybackSchedule schedule, double mmPerSecond, const PlaybackOutput& output = {});
    // The same on an output opened by the caller.
    void play(PlaybackSchedule schedule, double mmPerSecond, std::unique_ptr<MidiSink> sink);
    void stop();
    bool running() const { return m_running; }

signals:
    void started(const QString& outputName);
    // The output did not open (no MIDI output and no audio device, no sound font ...).
    void failed(const QString& message);
    void positionChanged(double songMs);
    void scrollChanged(double rollMm);
    void finished();

private:
    void begin(PlaybackSchedule schedule, double mmPerSecond, PlaybackRunner::Opener open);
    void follow();
    void end(int run);

    std::unique_ptr<PlaybackRunner> m_runner;
    QTimer m_timer2;
    QElapsedTimer m_clock;
    std::optional<ScrollFollower> m_follower;
    std::optional<double> m_lastSongMs;
    bool m_running = false;
    int m_run = 0;
};

}  // namespace veltrin
