#pragma once
// MachinePort: the serial port to the Grbl board on QSerialPort, driving the core GrblLink.
// It opens ports (by name or path, a pseudo-terminal too), feeds received bytes and a 10 ms
// clock to the link, writes what the link asks, writes the resume file, scans the ports and
// watches them come and go. Everything runs from the event loop: no nested loop, no
// processEvents, so the window stays live and Stop always gets through.
// Use: create it with the application state, connect its signals, call openAtStartup() (or
// openPort()), then drive the job and the commands through link().

#include <QElapsedTimer>
#include <QObject>
#include <QSerialPort>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QTimer>

#include <functional>

#include "app/grbl_link.h"
#include "machine/port_lock_qt.h"

namespace veltrin {

struct AppState;

class MachinePort : public QObject {
    Q_OBJECT
public:
    explicit MachinePort(AppState& state, QObject* parent = nullptr);
    ~MachinePort() override;

    GrblLink& link() { return m_link; }
    // Milliseconds of the port's clock (the time given to the link).
    std::int64_t nowMs() const { return m_clock.elapsed(); }
    bool isOpen() const { return m_port.isOpen(); }
    QString portName() const { return m_portName; }

    // Opens the port named in the field (a name such as ttyUSB0 or COM3, a bare number N for
    // COMN on Windows, or any path) and runs connexion_on. False when it does not open.
    bool openPort(const QString& field);
    // Why the last openPort() failed, in words ("it does not exist (is the board plugged
    // in?)", "it is busy: ...", "permission denied ...", "it is not a serial port").
    QString openError() const { return m_openError; }
    // The words of openError() from what is known of the port.
    static QString openFailureReason(bool exists, bool isCharacterDevice, bool readWritable,
                                     QSerialPort::SerialPortError error, const QString& errorText);

    // connexion_off with the port closed.
    void closePort();
    // connexion_off with the port closed for another program (avrdude) but its lock kept, so
    // that no other Veltrin takes it meanwhile; neither the watcher, the scan nor a changed port
    // field opens a port until openPort() takes it back.
    void lendPort();
    bool lent() const { return m_lent; }
    // Opening at start-up: the saved AdressePort, else the port scan.
    void openAtStartup();
    // AdressePort changed by the operator: reopen on the new port (ignored during a scan).
    void portFieldChanged(const QString& field);
    // Label3 click: tries every available port; the first on which Grbl answers wins, else the
    // first that opened is kept. Only when no port is open.
    void scanPorts();
    // Follows ports appearing and disappearing, about once a second.
    void setWatching(bool on);
    // The ports that the scan tries and the watcher follows, by system location; by default
    // those that QSerialPortInfo lists (pseudo-terminals are not listed: a test gives its own).
    void setPortLister(std::function<QStringList()> lister) { m_listPorts = std::move(lister); }

    // Punch: envoi_programme at the port's clock.
    bool punch(JobProgram program);
    // The actions of a call made on link() directly (console, keys, Pause, Stop) are carried out
    // at the next tick; this carries them out at once.
    void carryOut();

signals:
    void detectionFinished(bool grblFound);
    void commandFinished(const QString& command, const QString& reply);
    void jobEnded(veltrin::JobOutcome outcome);
    // A fold marking ended (after "M5 S0", or cut short: see FoldOutcome).
    void foldMarkingEnded(veltrin::FoldOutcome outcome, int foldsMarked);
    // The checks after the soft reset refused the job (why, as logged); laserModeOff: the one
    // fault is Grbl's $32=0.
    void jobRefused(const QString& why, bool laserModeOff);
    // Connection, progress or flags changed: a good moment to refresh the view of the state.
    void stateChanged();
    void scanFinished(bool found);

private:
    void onReadyRead();
    void onTick();
    void onError(QSerialPort::SerialPortError error);
    void watchPorts();
    void scanNext();
    void parametres_port();
    void closeAndUnlock();
    bool openOnly(const QString& field);
    static QString systemName(const QString& field);
    static QString systemLocation(const QString& name);

    AppState* m_state;
    GrblLink m_link;
    QSerialPort m_port;
    PortLock m_lock;
    QString m_portName;
    QString m_openError;
    QTimer m_tick;
    QTimer m_watch;
    QElapsedTimer m_clock;
    QSet<QString> m_knownPorts;
    std::function<QStringList()> m_listPorts;

    // Port scan state.
    QStringList m_scanCandidates;
    QString m_scanFirstOpened;
    bool m_scanFallback = false;
    bool m_lent = false;
    bool m_closing = false;
};

}  // namespace veltrin
