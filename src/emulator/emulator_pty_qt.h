#pragma once
// EmulatorPty: puts a GrblEmulator on a pseudo-terminal, so that any serial client (our
// QSerialPort code, a terminal program) can talk to it as to a board on /dev/ttyUSB0.
//
// Use: create it inside a running QCoreApplication, call open(), hand slavePath() (or the
// symlink) to the client; it runs from the event loop (a notifier on the pty master for the
// bytes in, a 5 ms timer for time and the bytes out) until close() or a hang-up fault.
//
// A client's opening is seen the way the board sees DTR: the pty master reports a hang-up
// while no client holds the slave side, and when that ends (a client opened the port) the
// board resets and the welcome text follows after the boot delay. Nothing is written while no
// client is there (what the board says then is lost, as on an unplugged cable); after a client
// leaves, the line is put back into raw mode for the next one. Every soft reset (0x18) prints
// the welcome text again.

#include <QElapsedTimer>
#include <QObject>
#include <QString>
#include <QTimer>

#include <string>

#include "emulator/grbl_emulator.h"

class QSocketNotifier;

namespace veltrin {

class EmulatorPty : public QObject {
    Q_OBJECT
public:
    static constexpr int kTickMs = 5;

    explicit EmulatorPty(GrblEmulatorOptions options, QObject* parent = nullptr);
    ~EmulatorPty() override;

    // Opens the pseudo-terminal and starts the board; linkPath, when not empty, becomes a
    // symlink to the slave (an existing symlink there is replaced). False with errorText().
    bool open(const QString& linkPath = {});
    // Closes the pty (clients see a hang-up) and removes the symlink.
    void close();

    bool isOpen() const { return m_master >= 0; }
    QString slavePath() const { return m_slavePath; }
    QString errorText() const { return m_error; }
    // False when a record file was asked for and cannot be written.
    bool recordOpen() const { return m_emulator.recordOpen(); }

signals:
    // The hang-up fault fired: the pty is closed.
    void hungUp();

private:
    void onReadable();
    void onTick();
    void checkClient();
    bool setRawMode();
    void flushOutput();
    bool clientHasReadAll();
    std::int64_t nowMs() const { return m_clock.elapsed(); }

    GrblEmulator m_emulator;
    int m_master = -1;
    QString m_slavePath;
    QString m_linkPath;
    QString m_error;
    QSocketNotifier* m_notifier = nullptr;
    QTimer m_timer;
    QElapsedTimer m_clock;
    std::string m_unwritten;
    // After the hang-up fault: a handle on the slave to see when the client has read all.
    int m_drainSlave = -1;
    std::int64_t m_hangUpMs = 0;
    bool m_clientPresent = false;
};

}  // namespace veltrin
