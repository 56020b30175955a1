#pragma once
// PortLock: one Veltrin per serial port. Two windows (or a window and veltrin-cli) sending to
// the same board would interleave their lines; two machines are two instances on two ports.
// The lock is a lock file per port in the temporary folder; a lock left by a process that
// died is taken over.

#include <QLockFile>
#include <QString>

#include <memory>

namespace veltrin {

class PortLock {
public:
    // Takes the lock of the port at its system location (e.g. "/dev/ttyUSB0"); false when
    // another live process holds it, and holder() then says which.
    bool acquire(const QString& location);
    void release();
    bool held() const { return m_lock != nullptr; }
    // "another Veltrin (process 1234)" after a failed acquire.
    QString holder() const { return m_holder; }
    // Where the lock of a port lives.
    static QString lockPath(const QString& location);

private:
    std::unique_ptr<QLockFile> m_lock;
    QString m_location;
    QString m_holder;
};

}  // namespace veltrin
