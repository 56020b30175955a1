#include "machine/port_lock_qt.h"

#include <QDir>

namespace veltrin {

QString PortLock::lockPath(const QString& location)
{
    QString name = location;
    for (QChar& c : name) {
        if (!c.isLetterOrNumber() && c != QLatin1Char('.') && c != QLatin1Char('-'))
            c = QLatin1Char('_');
    }
    return QDir::temp().filePath(QStringLiteral("veltrin-port-%1.lock").arg(name));
}

bool PortLock::acquire(const QString& location)
{
    if (m_lock && m_location == location)
        return true;
    release();
    m_holder.clear();
    auto lock = std::make_unique<QLockFile>(lockPath(location));
    // A lock whose process is gone is stale at once; a live holder never goes stale by age.
    lock->setStaleLockTime(0);
    if (!lock->tryLock(0)) {
        qint64 pid = 0;
        QString hostName;
        QString application;
        lock->getLockInfo(&pid, &hostName, &application);
        m_holder = QStringLiteral("another %1 (process %2)")
                       .arg(application.isEmpty() ? QStringLiteral("Veltrin") : application)
                       .arg(pid);
        return false;
    }
    m_lock = std::move(lock);
    m_location = location;
    return true;
}

void PortLock::release()
{
    if (m_lock)
        m_lock->unlock();
    m_lock.reset();
    m_location.clear();
}

}  // namespace veltrin
