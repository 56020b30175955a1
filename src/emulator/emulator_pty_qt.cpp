#include "emulator/emulator_pty_qt.h"

#include <QFile>
#include <QFileInfo>
#include <QSocketNotifier>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace veltrin {

namespace {

QString systemError(const char* what)
{
    return QStringLiteral("%1: %2").arg(QString::fromLatin1(what),
                                        QString::fromLocal8Bit(std::strerror(errno)));
}

}  // namespace

EmulatorPty::EmulatorPty(GrblEmulatorOptions options, QObject* parent)
    : QObject(parent), m_emulator(std::move(options))
{
    m_timer.setTimerType(Qt::PreciseTimer);
    m_timer.setInterval(kTickMs);
    connect(&m_timer, &QTimer::timeout, this, &EmulatorPty::onTick);
}

EmulatorPty::~EmulatorPty()
{
    close();
}

bool EmulatorPty::open(const QString& linkPath)
{
    if (!m_emulator.recordOpen()) {
        m_error = QStringLiteral("cannot write the record file");
        return false;
    }
    m_master = ::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (m_master < 0) {
        m_error = systemError("posix_openpt");
        return false;
    }
    ::fcntl(m_master, F_SETFD, FD_CLOEXEC);
    char name[256] = {};
    if (::grantpt(m_master) != 0 || ::unlockpt(m_master) != 0 ||
        ::ptsname_r(m_master, name, sizeof name) != 0) {
        m_error = systemError("pseudo-terminal");
        close();
        return false;
    }
    m_slavePath = QString::fromLocal8Bit(name);
    if (!setRawMode()) {
        close();
        return false;
    }

    if (!linkPath.isEmpty()) {
        const QByteArray link = QFile::encodeName(linkPath);
        const QFileInfo info(linkPath);
        if (info.isSymLink())
            ::unlink(link.constData());
        if (::symlink(name, link.constData()) != 0) {
            m_error = systemError("symlink");
            close();
            return false;
        }
        m_linkPath = linkPath;
    }

    m_notifier = new QSocketNotifier(m_master, QSocketNotifier::Read, this);
    m_notifier->setEnabled(false);
    connect(m_notifier, &QSocketNotifier::activated, this, &EmulatorPty::onReadable);
    m_clock.start();
    m_emulator.powerUp(nowMs());
    m_timer.start();
    return true;
}

void EmulatorPty::close()
{
    m_timer.stop();
    delete m_notifier;
    m_notifier = nullptr;
    if (!m_linkPath.isEmpty()) {
        ::unlink(QFile::encodeName(m_linkPath).constData());
        m_linkPath.clear();
    }
    if (m_drainSlave >= 0)
        ::close(m_drainSlave);
    m_drainSlave = -1;
    if (m_master >= 0)
        ::close(m_master);
    m_master = -1;
    m_clientPresent = false;
}

void EmulatorPty::onReadable()
{
    m_emulator.advance(nowMs());
    char buffer[4096];
    while (m_master >= 0) {
        const ssize_t count = ::read(m_master, buffer, sizeof buffer);
        if (count <= 0) {
            if (count < 0 && errno == EIO)
                checkClient();  // the client has gone
            break;
        }
        m_emulator.receive(std::string_view(buffer, static_cast<std::size_t>(count)));
    }
    flushOutput();
}

void EmulatorPty::onTick()
{
    checkClient();
    m_emulator.advance(nowMs());
    flushOutput();
    if (m_emulator.hungUp() && !m_emulator.outputPending() && m_unwritten.empty() &&
        clientHasReadAll()) {
        close();
        emit hungUp();
    }
}

bool EmulatorPty::clientHasReadAll()
{
    // Closing the master throws away what the client has not read yet; give it a moment
    // (the kernel hands written bytes to the slave side a little later) and up to a second
    // to take the last answer.
    constexpr std::int64_t kSettleMs = 100;
    constexpr std::int64_t kDrainMs = 1000;
    if (!m_clientPresent)
        return true;
    if (m_drainSlave < 0) {
        m_drainSlave = ::open(m_slavePath.toLocal8Bit().constData(),
                              O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
        m_hangUpMs = nowMs();
        if (m_drainSlave < 0)
            return true;
    }
    int unread = 0;
    if (::ioctl(m_drainSlave, FIONREAD, &unread) != 0)
        unread = 0;
    const std::int64_t waited = nowMs() - m_hangUpMs;
    return (unread == 0 && waited >= kSettleMs) || waited >= kDrainMs;
}

bool EmulatorPty::setRawMode()
{
    // Clients may leave the line cooked (echo, line editing); the board's line is raw.
    const int slave =
        ::open(m_slavePath.toLocal8Bit().constData(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (slave < 0) {
        m_error = systemError("open slave");
        return false;
    }
    termios settings{};
    ::tcgetattr(slave, &settings);
    ::cfmakeraw(&settings);
    ::cfsetispeed(&settings, B115200);
    ::cfsetospeed(&settings, B115200);
    ::tcsetattr(slave, TCSANOW, &settings);
    ::close(slave);
    return true;
}

void EmulatorPty::checkClient()
{
    if (m_master < 0)
        return;
    // The master reads a hang-up while no one holds the slave side open.
    pollfd entry{m_master, POLLIN, 0};
    ::poll(&entry, 1, 0);
    const bool present = (entry.revents & POLLHUP) == 0;
    if (present == m_clientPresent)
        return;
    m_clientPresent = present;
    m_notifier->setEnabled(present);
    m_unwritten.clear();
    if (present) {
        // Opening the port raised DTR: the board resets.
        m_emulator.powerUp(nowMs());
    } else {
        m_emulator.takeOutput();
        setRawMode();  // opens and closes the slave: the hang-up stands
    }
}

void EmulatorPty::flushOutput()
{
    if (!m_clientPresent) {
        m_emulator.takeOutput();  // no one listens: lost
        return;
    }
    m_unwritten += m_emulator.takeOutput();
    while (!m_unwritten.empty() && m_master >= 0) {
        const ssize_t written = ::write(m_master, m_unwritten.data(), m_unwritten.size());
        if (written <= 0)
            break;  // the client is not reading: keep the rest for the next tick
        m_unwritten.erase(0, static_cast<std::size_t>(written));
    }
}

}  // namespace veltrin
