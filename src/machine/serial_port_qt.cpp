#include "machine/serial_port_qt.h"

#include <QFile>
#include <QFileInfo>
#include <QSerialPortInfo>

#include <sys/stat.h>
#include <unistd.h>

#include "app/app_state.h"
#include "midi/resume_file.h"

namespace veltrin {

MachinePort::MachinePort(AppState& state, QObject* parent)
    : QObject(parent), m_state(&state), m_link(state)
{
    m_clock.start();
    connect(&m_port, &QSerialPort::readyRead, this, &MachinePort::onReadyRead);
    connect(&m_port, &QSerialPort::errorOccurred, this, &MachinePort::onError);
    // The link's own waits (detection, simulation pace, Stop fallback, next roll) need no
    // finer clock than this.
    m_tick.setInterval(10);
    connect(&m_tick, &QTimer::timeout, this, &MachinePort::onTick);
    m_tick.start();
    m_watch.setInterval(1000);
    connect(&m_watch, &QTimer::timeout, this, &MachinePort::watchPorts);
    m_listPorts = [] {
        QStringList locations;
        for (const QSerialPortInfo& info : QSerialPortInfo::availablePorts())
            locations << info.systemLocation();
        return locations;
    };
}

MachinePort::~MachinePort()
{
    if (m_port.isOpen())
        closeAndUnlock();
}

QString MachinePort::systemName(const QString& field)
{
    const QString name = field.trimmed();
#ifdef Q_OS_WIN
    bool isNumber = false;
    name.toInt(&isNumber);
    if (isNumber)
        return QStringLiteral("COM") + name;
#endif
    return name;
}

// Where QSerialPort opens a port name, as the port list gives it: ttyUSB0 is /dev/ttyUSB0, COM3
// is \\.\COM3. The watcher knows the open port among the listed ones by it.
QString MachinePort::systemLocation(const QString& name)
{
#ifdef Q_OS_WIN
    return name.startsWith(QLatin1String("COM")) ? QStringLiteral("\\\\.\\") + name : name;
#else
    if (name.startsWith(QLatin1Char('/')) || name.startsWith(QLatin1String("./")) ||
        name.startsWith(QLatin1String("../")))
        return name;
    return QStringLiteral("/dev/") + name;
#endif
}

void MachinePort::parametres_port()
{
    m_port.setBaudRate(QSerialPort::Baud115200);
    m_port.setDataBits(QSerialPort::Data8);
    m_port.setParity(QSerialPort::NoParity);
    m_port.setStopBits(QSerialPort::OneStop);
    m_port.setFlowControl(QSerialPort::NoFlowControl);
}

QString MachinePort::openFailureReason(bool exists, bool isCharacterDevice, bool readWritable,
                                       QSerialPort::SerialPortError error, const QString& errorText)
{
    if (!exists || error == QSerialPort::DeviceNotFoundError)
        return QStringLiteral("it does not exist (is the board plugged in?)");
    if (!isCharacterDevice)
        return QStringLiteral("it is not a serial port");
    if (error == QSerialPort::PermissionError || error == QSerialPort::OpenError) {
        if (!readWritable)
            return QStringLiteral("permission denied (on Linux, add your user to the dialout group "
                                  "and log in again)");
        return QStringLiteral("it is busy: another program (a serial monitor, another Veltrin) "
                              "has it open or locked");
    }
    if (errorText.contains(QLatin1String("ioctl"), Qt::CaseInsensitive))
        return QStringLiteral("it is not a serial port");
    return errorText.isEmpty() ? QStringLiteral("it cannot be opened") : errorText;
}

void MachinePort::closeAndUnlock()
{
    // Closing a serial device waits until its output has drained, up to 30 s on Linux: a port
    // with nothing behind it (a UART without a board) would freeze the program that long.
    // What Qt still holds is handed over now; what the device cannot send is dropped.
    // A device that has gone away fails these calls, and its error signal must not close the
    // port again from inside them.
    m_closing = true;
    if (m_port.isOpen()) {
        m_port.flush();
        m_port.clear(QSerialPort::Output);
    }
    m_port.close();
    m_closing = false;
    m_lock.release();
}

bool MachinePort::openOnly(const QString& field)
{
    if (m_port.isOpen())
        closeAndUnlock();
    m_openError.clear();
    const QString name = systemName(field);
    if (name.isEmpty()) {
        m_openError = QStringLiteral("no port given");
        return false;
    }
    // A name is opened at its system location and a symbolic link is followed, so that the
    // watcher can match the open port with the port list.
    QString location = systemLocation(name);
    if (location.startsWith(QLatin1Char('/'))) {
        const QFileInfo info(location);
        if (info.isSymLink())
            location = info.canonicalFilePath();
    }
    if (!m_lock.acquire(location)) {
        m_openError = QStringLiteral("it is in use by %1: one Veltrin per machine").arg(m_lock.holder());
        return false;
    }
    m_port.setPortName(location);
    parametres_port();
    if (!m_port.open(QIODevice::ReadWrite)) {
        m_lock.release();
#ifdef Q_OS_WIN
        const bool exists = m_port.error() != QSerialPort::DeviceNotFoundError;
        const bool isCharacterDevice = true;
        const bool readWritable = true;
#else
        struct stat info {};
        const QByteArray path = QFile::encodeName(location);
        const bool exists = ::stat(path.constData(), &info) == 0;
        const bool isCharacterDevice = exists && S_ISCHR(info.st_mode);
        const bool readWritable = ::access(path.constData(), R_OK | W_OK) == 0;
#endif
        m_openError = openFailureReason(exists, isCharacterDevice, readWritable, m_port.error(),
                                        m_port.errorString());
        m_port.clearError();
        return false;
    }
    parametres_port();
    // Opening raised DTR, which resets an Arduino (its welcome text follows); both lines then
    // stay low. A pseudo-terminal has neither line, which is no fault.
    m_port.setDataTerminalReady(false);
    m_port.setRequestToSend(false);
    m_port.clearError();
    m_portName = location;
    return true;
}

bool MachinePort::openPort(const QString& field)
{
    m_lent = false;
    if (!openOnly(field)) {
        if (!m_state->recherche_en_cours)
            m_link.logLine("Port " + field.toStdString() + " cannot be used: " + m_openError.toStdString());
        m_link.setPortOpen(false);
        carryOut();
        emit stateChanged();
        return false;
    }
    m_link.setPortOpen(true);
    m_link.connexion_on(nowMs(), m_state->recherche_en_cours);
    emit stateChanged();
    return true;
}

bool MachinePort::punch(JobProgram program)
{
    const bool started = m_link.envoi_programme(std::move(program), nowMs());
    carryOut();
    return started;
}

void MachinePort::closePort()
{
    if (m_port.isOpen())
        closeAndUnlock();
    m_link.setPortOpen(false);
    carryOut();
    emit stateChanged();
}

void MachinePort::lendPort()
{
    m_lent = true;
    if (m_port.isOpen())
        m_port.close();
    m_link.setPortOpen(false);
    carryOut();
    emit stateChanged();
}

void MachinePort::openAtStartup()
{
    if (!openPort(QString::fromStdString(m_state->settings.AdressePort)))
        scanPorts();
}

void MachinePort::portFieldChanged(const QString& field)
{
    if (m_state->recherche_en_cours || m_lent)
        return;
    m_state->settings.AdressePort = field.toStdString();
    if (m_port.isOpen())
        closePort();
    if (!openPort(field))
        closePort();
}

void MachinePort::scanPorts()
{
    if (m_port.isOpen() || m_state->recherche_en_cours || m_lent)
        return;
    m_scanCandidates = m_listPorts();
    m_scanFirstOpened.clear();
    m_scanFallback = false;
    m_state->recherche_en_cours = true;
    scanNext();
}

void MachinePort::scanNext()
{
    while (!m_scanCandidates.isEmpty()) {
        const QString candidate = m_scanCandidates.takeFirst();
        if (openPort(candidate)) {
            if (m_scanFirstOpened.isEmpty())
                m_scanFirstOpened = candidate;
            return;  // the detection's end calls back
        }
    }
    m_state->recherche_en_cours = false;
    if (!m_scanFirstOpened.isEmpty()) {
        // Nobody answered: keep the first port that opened; its detection says "No Grbl".
        m_scanFallback = true;
        m_state->settings.AdressePort = m_scanFirstOpened.toStdString();
        openPort(m_scanFirstOpened);
        return;
    }
    closePort();
    emit scanFinished(false);
}

void MachinePort::onReadyRead()
{
    const QByteArray bytes = m_port.readAll();
    m_link.onTick(nowMs());
    m_link.onBytes(std::string_view(bytes.constData(), static_cast<std::size_t>(bytes.size())));
    carryOut();
}

void MachinePort::onTick()
{
    m_link.onTick(nowMs());
    carryOut();
}

void MachinePort::onError(QSerialPort::SerialPortError error)
{
    // The device went away: an unplugged board gives a resource error, a pseudo-terminal
    // whose other end closed keeps failing to read (and would keep signalling so).
    if ((error == QSerialPort::ResourceError || error == QSerialPort::ReadError) && m_port.isOpen() && !m_closing) {
        m_port.clearError();
        closePort();
    }
}

void MachinePort::carryOut()
{
    bool changed = false;
    for (;;) {
        auto actions = m_link.takeActions();
        if (actions.empty())
            break;
        changed = true;
        for (auto& action : actions) {
            if (auto* w = std::get_if<WriteBytes>(&action)) {
                if (m_port.isOpen()) {
                    m_port.write(w->bytes.data(), static_cast<qint64>(w->bytes.size()));
                    // Out now rather than at the next turn of the event loop: with one line in
                    // flight, that turn would be part of every line's round trip.
                    m_port.flush();
                }
            } else if (auto* r = std::get_if<ResumePoint>(&action)) {
                ResumeFile content;
                content.songPath = r->songPath;
                content.restartMs = r->restartMs;
                content.restartLine = r->restartLine;
                content.Fourchette = r->Fourchette;
                content.settings = r->settings;
                if (!writeResumeFile(resumePathFor(r->songPath), content))
                    m_link.logLine("Resume file not written: " + resumePathFor(r->songPath));
            } else if (auto* f = std::get_if<ResumeFinished>(&action)) {
                const std::string path = resumePathFor(f->songPath);
                if (QFile::exists(QString::fromStdString(path))) {
                    if (QFile::remove(QString::fromStdString(path)))
                        m_link.logLine("Resume file removed, the job is finished: " + path);
                    else
                        m_link.logLine("Resume file not removed: " + path);
                }
            } else if (auto* d = std::get_if<DetectionDone>(&action)) {
                const bool found = d->grblFound;
                emit detectionFinished(found);
                if (m_state->recherche_en_cours) {
                    if (found) {
                        m_state->recherche_en_cours = false;
                        m_state->settings.AdressePort = m_portName.toStdString();
                        emit scanFinished(true);
                    } else {
                        closeAndUnlock();
                        m_link.setPortOpen(false);
                        QTimer::singleShot(20, this, &MachinePort::scanNext);
                    }
                } else if (m_scanFallback) {
                    m_scanFallback = false;
                    emit scanFinished(false);
                }
            } else if (auto* c = std::get_if<CommandDone>(&action)) {
                emit commandFinished(QString::fromStdString(c->command), QString::fromStdString(c->reply));
            } else if (auto* e = std::get_if<JobEnded>(&action)) {
                emit jobEnded(e->outcome);
                if (e->outcome == JobOutcome::NotStarted)
                    emit jobRefused(QString::fromStdString(e->why), e->laserModeOff);
            } else if (auto* folded = std::get_if<FoldEnded>(&action)) {
                emit foldMarkingEnded(folded->outcome, folded->foldsMarked);
            }
        }
    }
    if (changed)
        emit stateChanged();
}

void MachinePort::setWatching(bool on)
{
    const QStringList listed = m_listPorts();
    m_knownPorts = QSet<QString>(listed.begin(), listed.end());
    if (on)
        m_watch.start();
    else
        m_watch.stop();
}

void MachinePort::watchPorts()
{
    const QStringList listed = m_listPorts();
    const QSet<QString> now(listed.begin(), listed.end());
    if (m_port.isOpen() && m_knownPorts.contains(m_portName) && !now.contains(m_portName))
        closePort();
    for (const QString& location : listed) {
        if (m_knownPorts.contains(location))
            continue;
        m_knownPorts.insert(location);
        m_link.logLine("Arduino detected");
        if (m_state->recherche_en_cours || m_lent)
            continue;  // the scan keeps to its own list; a lent port comes back by itself
        // A device plugged in while a roll is being cut must not take the link away from
        // the job: it is only announced.
        if (m_port.isOpen() && m_link.jobRunning())
            continue;
        // The arrived port goes into the field, and a changed field reopens on it (the open port
        // closes first); then, should no port be open, the arrived one opens.
        const QString field = QString::fromStdString(m_state->settings.AdressePort);
        if (systemLocation(systemName(field)) != location)
            portFieldChanged(location);
        if (!m_port.isOpen()) {
            m_state->settings.AdressePort = location.toStdString();
            openPort(location);
        }
    }
    m_knownPorts = now;
}

}  // namespace veltrin
