#include "support/emulator_process.h"

#include <QCoreApplication>
#include <QDeadlineTimer>

namespace veltrin::test {

void EmulatorProcess::ensureApplication()
{
    if (QCoreApplication::instance() != nullptr)
        return;
    static int argc = 1;
    static char name[] = "veltrin-tests";
    static char* argv[] = {name, nullptr};
    static QCoreApplication application(argc, argv);
}

EmulatorProcess::EmulatorProcess(QStringList options) : m_options(std::move(options))
{
    ensureApplication();
}

EmulatorProcess::~EmulatorProcess()
{
    stop();
}

bool EmulatorProcess::start(int timeoutMs)
{
    QStringList arguments{QStringLiteral("emulate")};
    arguments += m_options;
    m_process.setProgram(QStringLiteral(VELTRIN_CLI));
    m_process.setArguments(arguments);
    m_process.start();
    if (!m_process.waitForStarted(timeoutMs)) {
        m_error = m_process.errorString();
        return false;
    }
    const QDeadlineTimer deadline(timeoutMs);
    while (!m_process.canReadLine()) {
        if (deadline.hasExpired() || !m_process.waitForReadyRead(int(deadline.remainingTime()))) {
            m_error = QStringLiteral("no pty path from the emulator: ") +
                      QString::fromLocal8Bit(m_process.readAllStandardError());
            stop();
            return false;
        }
    }
    m_portPath = QString::fromLocal8Bit(m_process.readLine()).trimmed();
    return !m_portPath.isEmpty();
}

void EmulatorProcess::stop(int timeoutMs)
{
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.terminate();
    if (!m_process.waitForFinished(timeoutMs)) {
        m_process.kill();
        m_process.waitForFinished(timeoutMs);
    }
}

bool EmulatorProcess::waitForExit(int timeoutMs)
{
    return m_process.state() == QProcess::NotRunning || m_process.waitForFinished(timeoutMs);
}

}  // namespace veltrin::test
