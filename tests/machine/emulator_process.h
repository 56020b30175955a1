#pragma once
// EmulatorProcess: runs `veltrin-cli emulate` as a child process for tests that need a Grbl
// board on a real pseudo-terminal (the code under test opens it with the real QSerialPort).
//
//   EmulatorProcess grbl({"--speed", "0", "--boot-ms", "50", "--factory-settings"});
//   ASSERT_TRUE(grbl.start()) << grbl.errorText();
//   QSerialPort port;
//   port.setPortName(grbl.portPath());      // "/dev/pts/N"; QSerialPort accepts the full path
//   port.setBaudRate(115200);
//   port.open(QIODevice::ReadWrite);        // a board reset: the banner follows after --boot-ms
//   ...
//   grbl.stop();                            // SIGTERM; the destructor stops it too
//
// Options are those of `veltrin-cli emulate --help`. Worth knowing:
// - By default the board is set up as our machines are ($22=1 homing on, $23=1): it powers up
//   in the alarm lock ("[MSG:'$H'|'$X' to unlock]") and answers G-code with "error:9" until
//   "$X" or "$HX". Pass "--factory-settings" for Grbl's defaults (idle at power-up, and "$$"
//   lists exactly 1.1h's defaults).
// - The board resets (banner after --boot-ms, default 1000) when a client opens the port with
//   a line speed (QSerialPort always sets one), and after every 0x18. Bytes sent during the
//   boot delay or within 20 ms of a soft reset are lost, as on a real board.
// - Fault lines K count every line received since start, soft resets included, from 1.
// - "--speed 0" makes motion take no time; "--record FILE" writes each received line.
// - As on Grbl, a feed hold ("!") suspends the parsing of lines: a line sent during a hold
//   (even an empty one) is answered only after "~". "~" is ignored until the hold has stopped
//   the machine ("Hold:0"). Outside laser mode ($32=0) M3/M5 wait for the motion to end.

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

    // Starts the emulator and waits (at most timeoutMs) for the pty path on its stdout.
    bool start(int timeoutMs = 10000);
    // Ends it with SIGTERM and waits for the exit (kills it after timeoutMs).
    void stop(int timeoutMs = 5000);
    // Waits for the process to end by itself (hang-up fault); false on time-out.
    bool waitForExit(int timeoutMs);

    QString portPath() const { return m_portPath; }
    QString errorText() const { return m_error; }
    bool isRunning() const { return m_process.state() != QProcess::NotRunning; }
    int exitCode() const { return m_process.exitCode(); }
    QProcess::ExitStatus exitStatus() const { return m_process.exitStatus(); }
    // Creates a QCoreApplication when none exists (QProcess and QSerialPort want one).
    static void ensureApplication();
    // What the emulator wrote on stderr so far.
    QString standardError();

private:
    QStringList m_options;
    QProcess m_process;
    QString m_portPath;
    QString m_error;
};

}  // namespace veltrin::test
