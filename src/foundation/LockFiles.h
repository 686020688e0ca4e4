#pragma once

#include "halvistromcore_export.h"

#include <QDateTime>
#include <QString>

class QLockFile;
class QString;

/// Waiting for lock files that several programs of the product take.
namespace LockFiles {

/// Takes lock (made on the file path), waiting at most waitMs. QLockFile's own wait backs off to
/// seconds between attempts, so that a waiter misses the short moments in
/// which holders of a busy lock let go; this polls at a short, growing
/// interval (1 to 32 ms) instead. A lock file that names no holder for over
/// a second (its writer was killed between creating it and naming itself)
/// is taken over. False when the wait ran out or the lock cannot be made;
/// lock.error() tells which.
HALVISTROM_CORE_EXPORT bool acquire(QLockFile &lock, const QString &path, int waitMs);

/// A lock that any number of holders share and one holder takes alone, on
/// the file at path (made when missing). The kernel lets go of it when its
/// holder ends, however it ends, so it never goes stale. Released when the
/// object is destroyed.
class HALVISTROM_CORE_EXPORT SharedLock
{
public:
    explicit SharedLock(const QString &path);
    ~SharedLock();
    SharedLock(const SharedLock &) = delete;
    SharedLock &operator=(const SharedLock &) = delete;

    /// Takes a share, waiting while a holder has the lock alone.
    bool lockShared();
    /// Takes the lock alone if nobody holds a share or the whole of it now.
    bool tryLockExclusive();
    /// Why the last call failed, in the system's words.
    QString errorString() const { return m_error; }
    /// The errno of the last failure: EWOULDBLOCK when the lock was held.
    int error() const { return m_errno; }

private:
    bool lock(int operation);

    QString m_path;
    QString m_error;
    int m_errno = 0;
    int m_fd = -1;
};

/// Who holds a command lock, as its file records it.
struct LockHolder {
    /// 0 when the file names no one yet (its holder is about to write it).
    qint64 pid = 0;
    /// The command the holder runs, in the user's words ("hvtool device start").
    QString command;
    QDateTime since;
};

/// An exclusive lock on a file, held for the span of one command, whose
/// file names the command that holds it. The kernel lets go of it when the
/// holder's process ends, however it ends, so a lock is never stale. The file
/// stays where it is; a lock whose file was moved away (its directory
/// removed) while it was waited for is never taken.
class HALVISTROM_CORE_EXPORT CommandLock
{
public:
    enum Result {
        Taken,
        /// Another process (or another lock of this one) held it for the whole wait.
        Busy,
        /// The file's directory is gone.
        Gone,
        Failed,
    };

    CommandLock() = default;
    ~CommandLock();
    CommandLock(const CommandLock &) = delete;
    CommandLock &operator=(const CommandLock &) = delete;

    /// Takes the lock on the file path (made private to its owner when it
    /// does not exist), waiting at most waitMs, polling at a short, growing
    /// interval; once taken, the file records command and this process.
    Result acquire(const QString &path, const QString &command, int waitMs);
    /// Lets go of the lock; the file then names no one.
    void release();
    bool isHeld() const { return m_fd >= 0; }
    /// After Busy: the holder the file names.
    LockHolder holder() const { return m_holder; }
    /// After Failed: why, in the system's words.
    QString errorString() const { return m_error; }

private:
    int m_fd = -1;
    LockHolder m_holder;
    QString m_error;
};

} // namespace LockFiles
