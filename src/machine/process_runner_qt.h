#pragma once
// ProcessRunner: runs a program with its argument list through QProcess (never a shell),
// hands out its output (stdout and stderr together) line by line as it comes, and tells how
// it ended. Everything comes through signals: the event loop keeps turning while it runs.
//
// FirmwareUpload: the "Grbl upload" entries on top of it: the question, the port lent to
// avrdude and taken back, avrdude's output and its end in the log.
// Use: create it on the window's MachinePort, setHost(window); each menu entry calls
// upload(board) (or upload(board, image) with an image chosen in a file dialog).

#include <QObject>
#include <QProcess>
#include <QString>
#include <QStringList>

#include "machine/firmware_upload.h"

namespace veltrin {

class JobHost;
class MachinePort;

class ProcessRunner : public QObject {
    Q_OBJECT
public:
    explicit ProcessRunner(QObject* parent = nullptr);
    ~ProcessRunner() override;

    // program is looked for on PATH when it has no folder.
    void start(const QString& program, const QStringList& arguments);
    bool running() const { return m_process.state() != QProcess::NotRunning; }
    // Ends the program (it then reports Crashed).
    void kill();

signals:
    // One line of output, without its line end; blank lines are left out.
    void outputLine(const QString& line);
    // The program ended; detail is the system's reason when it could not be started.
    void finished(veltrin::ProcessEnd end, int exitCode, const QString& detail);

private:
    void readOutput(bool flushAll);

    QProcess m_process;
    QByteArray m_partial;
    bool m_ended = true;
};

class FirmwareUpload : public QObject {
    Q_OBJECT
public:
    explicit FirmwareUpload(MachinePort& port, QObject* parent = nullptr);

    // Where the question and the messages go; without a host there is no question (the
    // caller has asked it) and messages go to the log.
    void setHost(JobHost* host) { m_host = host; }
    // The avrdude program; by default "avrdude" from PATH.
    void setProgram(const QString& program) { m_program = program; }
    // The folders the image is looked for below (Veltrin_uploader/Binaire/
    // Veltrin_grblUpload.hex); by default the executable's folder, then the installed data
    // folders (<prefix>/share/veltrin beside the executable's bin, then the system's
    // share/veltrin folders).
    void setImageFolders(const QStringList& folders) { m_imageFolders = folders; }
    QStringList imageCandidates() const;
    // The first candidate that is a file; empty when there is none.
    QString findImage() const;

    // Prog_uno_Click, Prog_Nano_N_Click, Prog_Nano_Click: flashes Grbl onto board. image
    // empty: the one findImage() finds. A missing image is told first; then "Really want to
    // re-flash firmware ?" (No by default); on Yes, "Bad port number" when the port is not
    // open; else connexion_off (the port lent), "Waiting for uploading is finished",
    // avrdude 200 ms later with its output in the log, its end in words, the port opened
    // again with connexion_on, and "Select a midi file or enter a command".
    void upload(GrblBoard board, const QString& image = {});
    // From the Yes until the port is taken back.
    bool running() const { return m_running; }

signals:
    void runningChanged(bool running);
    // The upload ended (ok: avrdude returned 0); not emitted when nothing was run.
    void finished(bool ok);

private:
    void tell(const QString& text);
    void log(const QString& text);
    void proceed(GrblBoard board, const QString& image);
    void processEnded(ProcessEnd end, int exitCode, const QString& detail);

    MachinePort* m_port;
    JobHost* m_host = nullptr;
    ProcessRunner m_runner;
    QString m_program = QStringLiteral("avrdude");
    QStringList m_imageFolders;
    QString m_portLocation;
    bool m_running = false;
};

}  // namespace veltrin
