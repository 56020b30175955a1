#include "view/playback_qt.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <condition_variable>
#include <limits>
#include <mutex>
#include <thread>
#include <utility>

#if defined(__linux__)
#include <pthread.h>
#include <sched.h>
#include <sys/prctl.h>
#endif

namespace veltrin {

namespace {

// Below a sound server's (JACK and PipeWire use 20 and up), above ordinary threads.
[[maybe_unused]] constexpr int kRealTimePriority = 10;

}  // namespace

struct PlaybackRunner::Shared {
    std::mutex mutex;
    std::condition_variable wake;
    bool stopAsked = false;
    std::atomic<double> songMs{std::numeric_limits<double>::quiet_NaN()};
    std::thread thread;
};

void PlaybackRunner::run(Shared& shared, PlaybackSchedule schedule, const Opener& open, const Callbacks& callbacks)
{
    using namespace std::chrono;
    auto sink = open();
    if (!sink) {
        if (callbacks.failed)
            callbacks.failed(sink.detail());
        if (callbacks.finished)
            callbacks.finished();
        return;
    }
#if defined(__linux__)
    // The kernel may otherwise let a sleep run 50 us late to group wake-ups.
    prctl(PR_SET_TIMERSLACK, 1UL);
    // Where the system allows it (an audio group's limits, root), the thread wakes ahead of
    // busy ones, as sound servers do; elsewhere it keeps the ordinary policy. It sleeps
    // between messages and sends little, so it never holds a core. Only once the output is
    // open: loading a sound font takes a while, and the output's own threads are made there.
    sched_param realTime{};
    realTime.sched_priority = std::min(kRealTimePriority, sched_get_priority_max(SCHED_FIFO));
    pthread_setschedparam(pthread_self(), SCHED_FIFO, &realTime);
#endif
    PlaybackCursor cursor(std::move(schedule));
    const auto t0 = Clock::now();
    if (callbacks.started)
        callbacks.started(sink.value()->name(), t0);
    while (const std::optional<double> next = cursor.nextDueMs()) {
        const auto deadline = t0 + duration_cast<Clock::duration>(duration<double, std::milli>(*next));
        bool stopped = false;
        {
            std::unique_lock lock(shared.mutex);
            stopped = shared.wake.wait_until(lock, deadline, [&] { return shared.stopAsked; });
        }
        const auto elapsedMs = duration<double, std::milli>(Clock::now() - t0).count();
        for (const TimedMessage& timed : stopped ? cursor.stop() : cursor.takeDue(elapsedMs))
            sink.value()->send(timed.message);
        if (const std::optional<double> songMs = cursor.songMs())
            shared.songMs.store(*songMs);
    }
    sink.value().reset();
    if (callbacks.finished)
        callbacks.finished();
}

PlaybackRunner::~PlaybackRunner()
{
    stop();
    join();
}

void PlaybackRunner::start(PlaybackSchedule schedule, Opener open, Callbacks callbacks)
{
    stop();
    join();
    m_shared = std::make_shared<Shared>();
    Shared& shared = *m_shared;
    shared.thread = std::thread([&shared, schedule = std::move(schedule), open = std::move(open),
                                 callbacks = std::move(callbacks)]() mutable {
        run(shared, std::move(schedule), open, callbacks);
    });
}

void PlaybackRunner::stop()
{
    if (!m_shared)
        return;
    {
        const std::lock_guard lock(m_shared->mutex);
        m_shared->stopAsked = true;
    }
    m_shared->wake.notify_all();
}

void PlaybackRunner::join()
{
    if (m_shared && m_shared->thread.joinable())
        m_shared->thread.join();
}

std::optional<double> PlaybackRunner::songMs() const
{
    if (!m_shared)
        return std::nullopt;
    const double songMs = m_shared->songMs.load();
    return std::isnan(songMs) ? std::nullopt : std::optional(songMs);
}

PlaybackController::PlaybackController(QObject* parent) : QObject(parent)
{
    // The view is redrawn about 60 times a second; the follower counts its 2 ms ticks from
    // the time it is given, so a late timeout only means a longer step.
    m_timer2.setInterval(16);
    connect(&m_timer2, &QTimer::timeout, this, &PlaybackController::follow);
}

PlaybackController::~PlaybackController()
{
    // The thread's last callbacks post to this object: it must be gone first.
    m_runner.reset();
}

void PlaybackController::play(PlaybackSchedule schedule, double mmPerSecond, const PlaybackOutput& output)
{
    begin(std::move(schedule), mmPerSecond, [output] { return openPlaybackOutput(output); });
}

void PlaybackController::play(PlaybackSchedule schedule, double mmPerSecond, std::unique_ptr<MidiSink> sink)
{
    auto shared = std::make_shared<std::unique_ptr<MidiSink>>(std::move(sink));
    begin(std::move(schedule), mmPerSecond, [shared]() -> Result<std::unique_ptr<MidiSink>, PlaybackOutputError> {
        if (!*shared)
            return fail(PlaybackOutputError::NoMidiOutput, "no output");
        return std::move(*shared);
    });
}

void PlaybackController::begin(PlaybackSchedule schedule, double mmPerSecond, PlaybackRunner::Opener open)
{
    m_runner.reset();
    const int run = ++m_run;
    m_follower.emplace(mmPerSecond);
    m_lastSongMs.reset();
    m_running = true;
    PlaybackRunner::Callbacks callbacks;
    callbacks.started = [this, run](const std::string& name, PlaybackRunner::Clock::time_point) {
        QMetaObject::invokeMethod(
            this, [this, run, name = QString::fromStdString(name)] {
                if (run == m_run)
                    emit started(name);
            },
            Qt::QueuedConnection);
    };
    callbacks.failed = [this, run](const std::string& problem) {
        QMetaObject::invokeMethod(
            this, [this, run, problem = QString::fromStdString(problem)] {
                if (run == m_run)
                    emit failed(problem);
            },
            Qt::QueuedConnection);
    };
    callbacks.finished = [this, run] {
        QMetaObject::invokeMethod(this, [this, run] { end(run); }, Qt::QueuedConnection);
    };
    m_runner = std::make_unique<PlaybackRunner>();
    m_runner->start(std::move(schedule), std::move(open), std::move(callbacks));
    m_clock.start();
    m_timer2.start();
}

void PlaybackController::stop()
{
    if (!m_running || !m_runner)
        return;
    m_timer2.stop();
    m_runner->stop();
}

void PlaybackController::follow()
{
    if (!m_runner || !m_follower)
        return;
    const double nowMs = static_cast<double>(m_clock.nsecsElapsed()) / 1e6;
    const std::optional<double> songMs = m_runner->songMs();
    if (songMs && songMs != m_lastSongMs) {
        m_lastSongMs = songMs;
        emit positionChanged(*songMs);
        const double target = m_follower->rollMm(*songMs);
        if (m_follower->started())
            m_follower->setTarget(target);
        else
            m_follower->jumpTo(target, nowMs);
    }
    if (m_follower->started())
        emit scrollChanged(m_follower->advanceTo(nowMs));
}

void PlaybackController::end(int run)
{
    if (run != m_run)
        return;
    m_timer2.stop();
    m_runner->join();
    m_running = false;
    emit finished();
}

}  // namespace veltrin
