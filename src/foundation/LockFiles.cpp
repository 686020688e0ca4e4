#include "LockFiles.h"

#include <QDateTime>
#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>
#include <QLockFile>
#include <QThread>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace LockFiles {

namespace {

// A live holder names itself within milliseconds of creating the file.
constexpr qint64 kNamelessLockMs = 1000;
constexpr int kLongestPauseMs = 32;

} // namespace

bool acquire(QLockFile &lock, const QString &path, int waitMs)
{
    const QDeadlineTimer deadline(waitMs);
    int pauseMs = 1;
    while (!lock.tryLock(0)) {
        if (lock.error() != QLockFile::LockFailedError || deadline.hasExpired())
            return false;
        qint64 pid = 0;
        QString host;
        QString application;
        if (!lock.getLockInfo(&pid, &host, &application)) {
            // The info call failing on an existing file means the file is
            // empty or unreadable.
            const QFileInfo info(path);
            if (info.exists() && info.lastModified().msecsTo(QDateTime::currentDateTime()) > kNamelessLockMs) {
                lock.removeStaleLockFile();
                continue;
            }
        }
        QThread::msleep(static_cast<unsigned long>(qMin<qint64>(pauseMs, qMax<qint64>(deadline.remainingTime(), 1))));
        pauseMs = qMin(pauseMs * 2, kLongestPauseMs);
    }
    // The lock file is made with the process's umask; it names the holder,
    // which is nobody else's business.
    ::chmod(QFile::encodeName(path).constData(), S_IRUSR | S_IWUSR);
    return true;
}

SharedLock::SharedLock(const QString &path)
    : m_path(path)
{
}

SharedLock::~SharedLock()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

bool SharedLock::lockShared()
{
    return lock(LOCK_SH);
}

bool SharedLock::tryLockExclusive()
{
    return lock(LOCK_EX | LOCK_NB);
}

bool SharedLock::lock(int operation)
{
    if (m_fd < 0)
        m_fd = ::open(QFile::encodeName(m_path).constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    int result = m_fd < 0 ? -1 : 0;
    while (result == 0 && (result = ::flock(m_fd, operation)) != 0 && errno == EINTR)
        result = 0;
    if (result != 0) {
        m_errno = errno;
        m_error = QString::fromLocal8Bit(std::strerror(m_errno));
    }
    return result == 0;
}

} // namespace LockFiles
