#pragma once
// Runs the event loop until done() holds or timeoutMs pass; false on time-out. For tests that
// drive the real serial port and processes without a window.

#include <QCoreApplication>
#include <QElapsedTimer>

#include <functional>

#include <unistd.h>

namespace veltrin::testing {

inline bool waitUntil(const std::function<bool()>& done, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > timeoutMs)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
        usleep(200);
    }
    return true;
}

}  // namespace veltrin::testing
