#include "app/settings_store_qt.h"

#include <QString>
#include <QStringList>
#include <QVariant>

namespace veltrin {

namespace {

QString startupKey(std::string_view key)
{
    return QStringLiteral("Startup/") +
           QString::fromUtf8(key.data(), static_cast<qsizetype>(key.size()));
}

}  // namespace

QtSettingsStore::QtSettingsStore() : m_settings(QStringLiteral("Veltrin"), QStringLiteral("Veltrin"))
{
}

std::optional<std::string> QtSettingsStore::read(std::string_view key)
{
    const QString name = startupKey(key);
    if (!m_settings.contains(name))
        return std::nullopt;
    const QVariant value = m_settings.value(name);
    // A hand-edited file may hold an unquoted "a, b", which QSettings reads as a list.
    if (value.typeId() == QMetaType::QStringList)
        return value.toStringList().join(QStringLiteral(", ")).toStdString();
    return value.toString().toStdString();
}

std::string QtSettingsStore::problem() const
{
    const std::string path = m_settings.fileName().toStdString();
    switch (m_settings.status()) {
    case QSettings::NoError:
        return {};
    case QSettings::AccessError:
        return "Settings file cannot be opened (every setting takes its default): " + path;
    case QSettings::FormatError:
        return "Settings file is not in the settings format (what cannot be read takes its default): " + path;
    }
    return {};
}

void QtSettingsStore::write(std::string_view key, std::string_view value)
{
    m_settings.setValue(startupKey(key),
                        QString::fromUtf8(value.data(), static_cast<qsizetype>(value.size())));
    m_settings.sync();
}

}  // namespace veltrin
