#pragma once
// EmulatorProcess: `veltrin-cli emulate` as a child process, a Grbl board on a real
// pseudo-terminal. Options are those of `veltrin-cli emulate --help`; by default the board is
// set up as our machines are (it powers up locked: "$X" or "$HX" first), "--factory-settings"
// gives Grbl's defaults. Opening the port resets the board (banner after --boot-ms); lines K of
// the fault options count every line received since start, from 1.

#include <QProcess>
#include <QString>
#include <QStringList>

namespace veltrin::test {

class EmulatorProcess {
public:
    explicit EmulatorProcess(QStringList options = {});
    ~EmulatorProcess();
    EmulatorProcess(const EmulatorProcess&) = delete;
    EmulatorProcess& operator=(const EmulatorProcess&) = delete;

    // Starts the emulator and waits for the pty path on its stdout.
    bool start(int timeoutMs = 10000);
    // SIGTERM, then a kill after timeoutMs.
    void stop(int timeoutMs = 5000);
    // Waits for the process to end by itself (hang-up fault); false on time-out.
    bool waitForExit(int timeoutMs);

    QString portPath() const { return m_portPath; }
    QString errorText() const { return m_error; }
    int exitCode() const { return m_process.exitCode(); }
    // Creates a QCoreApplication when none exists (QProcess and QSerialPort want one).
    static void ensureApplication();

private:
    QStringList m_options;
    QProcess m_process;
    QString m_portPath;
    QString m_error;
};

}  // namespace veltrin::test
