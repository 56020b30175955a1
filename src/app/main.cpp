// veltrin: the desktop application. `veltrin [SONG.mid | SONG.mid.rep ...]` opens the songs
// given as "Open midi file..." would.

#include <QApplication>
#include <QStringList>
#include <QTimer>

#include "app/app_state.h"
#include "app/main_window.h"
#include "app/settings_store_qt.h"

int main(int argc, char** argv)
{
    QApplication application(argc, argv);
    QApplication::setOrganizationName(QStringLiteral("Veltrin"));
    QApplication::setApplicationName(QStringLiteral("Veltrin"));
    QApplication::setApplicationVersion(QStringLiteral(VELTRIN_VERSION));

    veltrin::AppState state;
    veltrin::QtSettingsStore store;
    veltrin::MainWindow window(state, store);
    window.startUp();
    window.show();
    const QStringList songs = QApplication::arguments().mid(1);
    if (!songs.isEmpty())
        QTimer::singleShot(0, &window, [&window, songs] { window.openFiles(songs); });
    return QApplication::exec();
}
