#include "machine/process_runner_qt.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>
#include <QTimer>

#include "app/grbl_link.h"
#include "machine/serial_port_qt.h"

namespace veltrin {

ProcessRunner::ProcessRunner(QObject* parent) : QObject(parent)
{
    // avrdude writes everything to stderr.
    m_process.setProcessChannelMode(QProcess::MergedChannels);
    connect(&m_process, &QProcess::readyRead, this, [this] { readOutput(false); });
    connect(&m_process, &QProcess::finished, this, [this](int exitCode, QProcess::ExitStatus status) {
        readOutput(true);
        m_ended = true;
        emit finished(status == QProcess::NormalExit ? ProcessEnd::Exited : ProcessEnd::Crashed, exitCode, {});
    });
    connect(&m_process, &QProcess::errorOccurred, this, [this](QProcess::ProcessError error) {
        // Only a start failure comes without finished().
        if (error != QProcess::FailedToStart || m_ended)
            return;
        m_ended = true;
        emit finished(ProcessEnd::FailedToStart, -1, m_process.errorString());
    });
}

ProcessRunner::~ProcessRunner()
{
    if (running()) {
        m_process.kill();
        m_process.waitForFinished(1000);
    }
}

void ProcessRunner::start(const QString& program, const QStringList& arguments)
{
    if (running())
        return;
    m_partial.clear();
    m_ended = false;
    m_process.start(program, arguments);
}

void ProcessRunner::kill()
{
    if (running())
        m_process.kill();
}

void ProcessRunner::readOutput(bool flushAll)
{
    m_partial += m_process.readAll();
    qsizetype start = 0;
    for (qsizetype end = m_partial.indexOf('\n'); end >= 0; end = m_partial.indexOf('\n', start)) {
        const QString line = QString::fromLocal8Bit(m_partial.mid(start, end - start)).remove(QLatin1Char('\r'));
        start = end + 1;
        if (!line.trimmed().isEmpty())
            emit outputLine(line);
    }
    m_partial.remove(0, start);
    if (flushAll && !m_partial.isEmpty()) {
        const QString line = QString::fromLocal8Bit(m_partial).remove(QLatin1Char('\r'));
        m_partial.clear();
        if (!line.trimmed().isEmpty())
            emit outputLine(line);
    }
}

// --- firmware upload ---

FirmwareUpload::FirmwareUpload(MachinePort& port, QObject* parent) : QObject(parent), m_port(&port)
{
    const QString appDir = QCoreApplication::applicationDirPath();
    m_imageFolders << appDir << QDir(appDir).absoluteFilePath(QStringLiteral("../share/veltrin"));
    for (const QString& data : QStandardPaths::standardLocations(QStandardPaths::GenericDataLocation))
        m_imageFolders << QDir(data).absoluteFilePath(QStringLiteral("veltrin"));
    connect(&m_runner, &ProcessRunner::outputLine, this, [this](const QString& line) { log(line); });
    connect(&m_runner, &ProcessRunner::finished, this, &FirmwareUpload::processEnded);
}

QStringList FirmwareUpload::imageCandidates() const
{
    std::vector<std::string> folders;
    for (const QString& folder : m_imageFolders)
        folders.push_back(QDir::cleanPath(folder).toStdString());
    QStringList paths;
    for (const std::string& path : firmwareImageCandidates(folders))
        paths << QString::fromStdString(path);
    return paths;
}

QString FirmwareUpload::findImage() const
{
    for (const QString& path : imageCandidates()) {
        if (QFileInfo(path).isFile())
            return path;
    }
    return {};
}

void FirmwareUpload::tell(const QString& text)
{
    if (m_host)
        m_host->showMessage(text.toStdString());
    else
        log(text);
}

void FirmwareUpload::log(const QString& text)
{
    m_port->link().logLine(text.toStdString());
}

void FirmwareUpload::upload(GrblBoard board, const QString& image)
{
    if (m_running)
        return;
    QString path = image;
    if (path.isEmpty()) {
        path = findImage();
        if (path.isEmpty()) {
            tell(QStringLiteral("No Grbl firmware image: %1 is in none of these places:\n%2\nChoose the image "
                                "file (Intel hex).")
                     .arg(QString::fromLatin1(kFirmwareImageName.data(), static_cast<qsizetype>(kFirmwareImageName.size())),
                          imageCandidates().join(QLatin1Char('\n'))));
            return;
        }
    } else if (const QFileInfo info(path); !info.isFile() || !info.isReadable()) {
        tell(QStringLiteral("Firmware image %1: %2").arg(path, info.exists() ? QStringLiteral("not a readable file")
                                                                             : QStringLiteral("no such file")));
        return;
    }
    path = QFileInfo(path).absoluteFilePath();
    if (!m_host) {
        proceed(board, path);
        return;
    }
    m_host->askYesNo(kReflashQuestion, false, [this, board, path](bool yes) {
        if (yes)
            proceed(board, path);
    });
}

void FirmwareUpload::proceed(GrblBoard board, const QString& image)
{
    if (m_running)
        return;
    // The port opened (and Grbl's detection ran) is the proof that the port name is right.
    if (!m_port->isOpen()) {
        tell(QStringLiteral("Bad port number"));
        return;
    }
    if (m_port->link().jobRunning()) {
        tell(QStringLiteral("A job or a fold marking is running: stop it before flashing the board"));
        return;
    }
    m_portLocation = m_port->portName();
    m_running = true;
    emit runningChanged(true);
    m_port->lendPort();
    log(QStringLiteral("Waiting for uploading is finished"));
    QStringList arguments;
    for (const std::string& argument :
         avrdudeArguments(board, m_portLocation.toStdString(), QDir::toNativeSeparators(image).toStdString()))
        arguments << QString::fromStdString(argument);
    // The port has just closed; the board's USB side settles before avrdude opens it.
    QTimer::singleShot(200, this, [this, arguments] {
        log(m_program + QLatin1Char(' ') + arguments.join(QLatin1Char(' ')));
        m_runner.start(m_program, arguments);
    });
}

void FirmwareUpload::processEnded(ProcessEnd end, int exitCode, const QString& detail)
{
    log(QString::fromStdString(uploadOutcomeText(end, exitCode, QFileInfo(m_program).fileName().toStdString(),
                                                 detail.toStdString())));
    // Opening the port runs connexion_on: Grbl's welcome text tells the new firmware runs.
    m_port->openPort(m_portLocation);
    log(QStringLiteral("Select a midi file or enter a command"));
    m_running = false;
    emit runningChanged(false);
    emit finished(end == ProcessEnd::Exited && exitCode == 0);
}

}  // namespace veltrin
