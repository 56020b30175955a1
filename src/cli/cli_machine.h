#pragma once
// What veltrin-cli stream and console share: the run's settings, the log printed as the
// application shows it, and opening the port with the detection of Grbl.

#include <QCoreApplication>
#include <QObject>

#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "app/app_state.h"
#include "app/folders_qt.h"
#include "app/settings_store_qt.h"
#include "app/startup.h"
#include "machine/serial_port_qt.h"

namespace veltrin::cli {

// The Qt application object of a command that needs an event loop (serial port, timers).
class CliApplication {
public:
    CliApplication() : m_application(m_argc, m_argv) {}

private:
    int m_argc = 1;
    char m_name[12] = "veltrin-cli";
    char* m_argv[2] = {m_name, nullptr};
    QCoreApplication m_application;
};

// Log text on stdout: the log's CR LF line ends become LF.
inline void printLog(std::string_view text)
{
    for (char c : text) {
        if (c != '\r')
            std::fputc(c, stdout);
    }
    std::fflush(stdout);
}

// The run's settings: the stored ones (none with defaults) and the "KEY=VALUE" overrides.
// False, after a message on stderr, when an override is wrong.
inline bool startMachineRun(const char* command, AppState& state, bool defaults,
                            const std::vector<std::string>& assignments,
                            std::unique_ptr<QtSettingsStore>& stored)
{
    if (!defaults)
        stored = std::make_unique<QtSettingsStore>();
    auto started = startForRun(state, stored.get(), assignments, platformFolders());
    if (!started) {
        std::fprintf(stderr, "veltrin-cli %s: %s: %s\n", command,
                     started.error() == SettingsError::UnknownKey ? "unknown setting" : "expected KEY=VALUE",
                     started.detail().c_str());
        return false;
    }
    return true;
}

// Opens the port and waits in the event loop for the detection. False, after the log has said
// why, when the port does not open or no Grbl answers. The log is echoed with printLog.
inline bool openAndDetect(const char* command, MachinePort& port, const std::string& portName)
{
    // A port that does not open is told once, on stderr, not in the log's echo too.
    port.link().setLogEcho({});
    const bool opened = port.openPort(QString::fromStdString(portName));
    port.link().setLogEcho(printLog);
    if (!opened) {
        std::fprintf(stderr, "veltrin-cli %s: cannot open the port %s: %s\n", command, portName.c_str(),
                     port.openError().toLocal8Bit().constData());
        return false;
    }
    bool found = false;
    bool done = false;
    const auto connection = QObject::connect(&port, &MachinePort::detectionFinished, qApp, [&](bool grblFound) {
        found = grblFound;
        done = true;
        QCoreApplication::exit(0);
    });
    if (!done)
        QCoreApplication::exec();
    QObject::disconnect(connection);
    return found && port.isOpen();
}

}  // namespace veltrin::cli
