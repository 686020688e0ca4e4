#include "LockFiles.h"

#include "Logging_p.h"

#include <QDateTime>
#include <QDebug>
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

void pause(const QDeadlineTimer &deadline, int *pauseMs)
{
    QThread::msleep(static_cast<unsigned long>(qMin<qint64>(*pauseMs, qMax<qint64>(deadline.remainingTime(), 1))));
    *pauseMs = qMin(*pauseMs * 2, kLongestPauseMs);
}

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
        pause(deadline, &pauseMs);
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

namespace {

// A record is a few short lines; anything larger is not one.
constexpr qint64 kMaxRecordSize = 4096;

LockHolder readHolder(int fd)
{
    LockHolder holder;
    QByteArray text(kMaxRecordSize, '\0');
    const ssize_t n = ::pread(fd, text.data(), size_t(text.size()), 0);
    text.truncate(n > 0 ? int(n) : 0);
    for (const QByteArray &line : text.split('\n')) {
        const int equals = line.indexOf('=');
        const QByteArray key = line.left(equals);
        const QByteArray value = line.mid(equals + 1);
        if (key == "pid")
            holder.pid = value.toLongLong();
        else if (key == "command")
            holder.command = QString::fromUtf8(value);
        else if (key == "since")
            holder.since = QDateTime::fromString(QString::fromLatin1(value), Qt::ISODate);
    }
    return holder;
}

bool writeHolder(int fd, const QString &command)
{
    QString oneLine = command;
    oneLine.replace(QLatin1Char('\n'), QLatin1Char(' '));
    const QByteArray text = "pid=" + QByteArray::number(qint64(::getpid())) + "\ncommand=" + oneLine.toUtf8()
        + "\nsince=" + QDateTime::currentDateTimeUtc().toString(Qt::ISODate).toLatin1() + '\n';
    return ::ftruncate(fd, 0) == 0 && ::pwrite(fd, text.constData(), size_t(text.size()), 0) == text.size();
}

// Whether fd is still the file at path: a file moved away with its
// directory, or replaced, locks nothing anyone else will look at.
bool isStillAt(int fd, const QByteArray &path)
{
    struct stat opened;
    struct stat named;
    return ::fstat(fd, &opened) == 0 && ::stat(path.constData(), &named) == 0 && opened.st_dev == named.st_dev
        && opened.st_ino == named.st_ino;
}

} // namespace

CommandLock::~CommandLock()
{
    release();
}

CommandLock::Result CommandLock::acquire(const QString &path, const QString &command, int waitMs)
{
    release();
    m_holder = LockHolder();
    m_error.clear();
    const QByteArray name = QFile::encodeName(path);
    const QDeadlineTimer deadline(waitMs);
    int pauseMs = 1;
    for (;;) {
        const int fd = ::open(name.constData(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
        if (fd < 0) {
            if (errno == ENOENT)
                return Gone;
            m_error = QString::fromLocal8Bit(std::strerror(errno));
            return Failed;
        }
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0) {
            if (isStillAt(fd, name)) {
                m_fd = fd;
                if (!writeHolder(fd, command))
                    qCWarning(hvFoundationLog) << "Failed to record the holder of" << path << ":" << std::strerror(errno);
                return Taken;
            }
            ::close(fd);
            continue;
        }
        const int error = errno;
        m_holder = readHolder(fd);
        ::close(fd);
        if (error != EWOULDBLOCK) {
            m_error = QString::fromLocal8Bit(std::strerror(error));
            return Failed;
        }
        if (deadline.hasExpired())
            return Busy;
        pause(deadline, &pauseMs);
    }
}

void CommandLock::release()
{
    if (m_fd < 0)
        return;
    // Emptied while still held: a waiter never reads a holder that is gone.
    if (::ftruncate(m_fd, 0) != 0)
        qCWarning(hvFoundationLog) << "Failed to clear a command lock:" << std::strerror(errno);
    ::close(m_fd);
    m_fd = -1;
}

} // namespace LockFiles
