// veltrin-screenshots: takes the pictures of the README with the real windows. It starts the
// main window as `veltrin` does, on the board at --port (the emulator that
// scripts/screenshots.sh starts), opens the example song and saves PNGs of the main window,
// the settings dialog in its laser and punch layouts, and a job in progress.

#include <QApplication>
#include <QComboBox>
#include <QDir>
#include <QElapsedTimer>
#include <QProgressBar>
#include <QPushButton>
#include <QThread>
#include <QTimer>

#include <cstdio>
#include <functional>

#include "app/app_state.h"
#include "app/main_window.h"
#include "app/settings_dialog.h"
#include "app/settings_store_qt.h"
#include "machine/serial_port_qt.h"

namespace {

bool waitFor(const std::function<bool()>& done, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > timeoutMs)
            return false;
        QApplication::processEvents(QEventLoop::AllEvents, 20);
        QThread::msleep(5);
    }
    return true;
}

// Lets the windows settle (layouts, repaints) before a picture.
void settle(int ms = 400)
{
    waitFor([] { return false; }, ms);
}

bool save(QWidget* widget, const QDir& folder, const char* name)
{
    const QString path = folder.filePath(QString::fromLatin1(name));
    const bool saved = widget->grab().save(path);
    std::fprintf(stderr, "%s %s\n", saved ? "saved" : "NOT SAVED", qPrintable(path));
    return saved;
}

// Chooses an entry of a drop-down list as the operator does.
void choose(QWidget* parent, const char* name, const QString& text)
{
    auto* box = parent->findChild<QComboBox*>(QLatin1String(name));
    if (!box)
        return;
    const int index = box->findText(text);
    box->setCurrentIndex(index);
    emit box->activated(index);
}

}  // namespace

int main(int argc, char** argv)
{
    QApplication application(argc, argv);
    QApplication::setOrganizationName(QStringLiteral("Veltrin"));
    QApplication::setApplicationName(QStringLiteral("Veltrin"));
    const QStringList args = QApplication::arguments();
    const int portAt = static_cast<int>(args.indexOf(QStringLiteral("--port")));
    if (args.size() < 4 || portAt < 0 || portAt + 1 >= args.size()) {
        std::fprintf(stderr, "usage: veltrin-screenshots --port PORT --song SONG.mid OUTDIR\n");
        return 2;
    }
    const int songAt = static_cast<int>(args.indexOf(QStringLiteral("--song")));
    const QString port = args.at(portAt + 1);
    const QString song = songAt >= 0 ? args.at(songAt + 1) : QString();
    const QDir out(args.back());
    QDir().mkpath(out.path());

    veltrin::AppState state;
    veltrin::QtSettingsStore store;
    store.write("Port", port.toStdString());
    veltrin::MainWindow window(state, store);
    window.resize(1360, 860);
    window.startUp();
    window.show();
    if (!waitFor([&] { return state.connecte && !window.machine().link().detecting(); }, 15000)) {
        std::fprintf(stderr, "no board on %s\n", qPrintable(port));
        return 1;
    }
    window.openFilesWithGap({song}, 0);
    settle();
    bool ok = save(&window, out, "main-window.png");

    window.Param_perf_Click();
    veltrin::SettingsDialog& dialog = window.settingsDialog();
    settle();
    ok = save(&dialog, out, "settings-laser.png") && ok;
    choose(&dialog, "Type_machine", QStringLiteral("Punch"));
    choose(&dialog, "Standard", QStringLiteral("Alder Fenn 20"));
    settle();
    ok = save(&dialog, out, "settings-punch-20-note.png") && ok;
    choose(&dialog, "Standard", QStringLiteral("Kolby 27-29"));
    choose(&dialog, "Type_machine", QStringLiteral("Laser"));
    dialog.hide();
    settle(800);

    // A job: the holes already cut darker, the head's cross-hair where the machine is.
    auto* punch = window.findChild<QPushButton*>(QStringLiteral("Punch_button"));
    auto* gauge = window.findChild<QProgressBar*>(QStringLiteral("gauge1"));
    if (!punch || !punch->isEnabled()) {
        std::fprintf(stderr, "Punch is not enabled\n");
        return 1;
    }
    punch->click();
    if (!waitFor([&] { return gauge->value() > gauge->maximum() / 3; }, 120000)) {
        std::fprintf(stderr, "the job did not get a third of the way\n");
        return 1;
    }
    settle(600);
    ok = save(&window, out, "job-in-progress.png") && ok;
    window.Stop_button_Click();
    waitFor([&] { return !window.machine().link().jobRunning(); }, 10000);
    window.close();
    return ok ? 0 : 1;
}
