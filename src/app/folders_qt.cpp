#include "app/folders_qt.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QStandardPaths>
#include <QString>

namespace veltrin {

std::string lire_dossier_documents()
{
    const QString fromEnvironment = qEnvironmentVariable("VELTRIN_DOCUMENTS");
    if (!fromEnvironment.isEmpty())
        return fromEnvironment.toStdString();
    return QStandardPaths::writableLocation(QStandardPaths::DocumentsLocation).toStdString();
}

std::string applicationFolder()
{
    if (QCoreApplication::instance())
        return QCoreApplication::applicationDirPath().toStdString();
    // Without an application object (command-line tools) ask the system directly.
    const QFileInfo self(QStringLiteral("/proc/self/exe"));
    return self.exists() ? self.canonicalFilePath().section(QLatin1Char('/'), 0, -2).toStdString()
                         : std::string();
}

StartupFolders platformFolders()
{
    return StartupFolders{applicationFolder(), lire_dossier_documents()};
}

}  // namespace veltrin
