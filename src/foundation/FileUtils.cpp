#include "FileUtils.h"

#include "Logging_p.h"
#include "TriggerError.h"

#include <QDebug>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonParseError>
#include <QMutex>
#include <QMutexLocker>

#include <cerrno>
#include <cstring>

#include <ftw.h>
#include <sys/stat.h>

namespace {

// nftw() takes a plain function: the count lives here for the one walk that
// runs at a time (makePrivate() serialises them).
int g_tightened = 0;

int tightenEntry(const char *path, const struct stat *st, int type, struct FTW *)
{
    // Links are not followed (FTW_PHYS) and their own mode means nothing; an
    // entry that cannot be examined has no mode to go by.
    if (type == FTW_SL || type == FTW_SLN || type == FTW_NS || (st->st_mode & 077) == 0)
        return 0;
    if (::chmod(path, st->st_mode & 07700) != 0) {
        qCWarning(hvFoundationLog) << "Failed to restrict access to" << QFile::decodeName(path) << ":" << std::strerror(errno);
        return 0;
    }
    ++g_tightened;
    return 0;
}

} // namespace

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

bool FileUtils::copyDirectory(const QString &src, const QString &dst)
{
    const QFileInfo source(src);
    if (source.isFile())
        return makeDirectory(QFileInfo(dst).absolutePath()) && copyFile(src, dst);
    if (source.isDir()) {
        const QStringList names =
            QDir(src).entryList(QDir::Dirs | QDir::Files | QDir::NoSymLinks | QDir::NoDotAndDotDot | QDir::Hidden,
                                QDir::Unsorted);
        for (const QString &name : names) {
            if (!copyDirectory(src + QLatin1Char('/') + name, dst + QLatin1Char('/') + name)) {
                qCCritical(hvFoundationLog) << "Failed to copy" << name << "from" << src << "to" << dst;
                return false;
            }
        }
        return true;
    }
    qCCritical(hvFoundationLog) << "Failed to copy" << src << ". It's not a file nor a dir";
    return false;
}

QByteArray FileUtils::loadFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        qCWarning(hvFoundationLog) << "Failed to open" << path << file.errorString();
        return QByteArray();
    }
    const QByteArray content = file.readAll();
    if (file.error() != QFileDevice::NoError) {
        qCWarning(hvFoundationLog) << "Failed to read" << path << file.errorString();
        return QByteArray();
    }
    return content;
}

QByteArray FileUtils::loadFile(const QString &path, qint64 maxSize, QString *error)
{
    error->clear();
    // Not blocking: a FIFO in the file's place must not hang the reader.
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        *error = QString::fromLocal8Bit(std::strerror(errno));
        return QByteArray();
    }
    QByteArray content;
    struct stat st;
    if (::fstat(fd, &st) != 0) {
        *error = QString::fromLocal8Bit(std::strerror(errno));
    } else if (!S_ISREG(st.st_mode)) {
        *error = QStringLiteral("not a regular file");
    } else if (st.st_size > maxSize) {
        *error = QStringLiteral("holds %1 bytes, more than %2").arg(st.st_size).arg(maxSize);
    } else {
        // One byte more than it holds, to see the end in the same read.
        content.resize(int(st.st_size) + 1);
        qint64 done = 0;
        ssize_t got;
        while ((got = ::read(fd, content.data() + done, size_t(content.size() - done))) != 0) {
            if (got < 0 && errno == EINTR)
                continue;
            if (got < 0 || (done += got) > maxSize) {
                *error = got < 0 ? QString::fromLocal8Bit(std::strerror(errno))
                                 : QStringLiteral("grew past %1 bytes").arg(maxSize);
                break;
            }
            if (done == content.size())
                content.resize(int(qMin<qint64>(done * 2, maxSize + 1)));
        }
        content.resize(error->isEmpty() ? int(done) : 0);
    }
    ::close(fd);
    return content;
}

QJsonDocument FileUtils::loadJson(const QString &path)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(loadFile(path), &error);
    if (error.error != QJsonParseError::NoError) {
        qCWarning(hvFoundationLog) << "Failed to read json from" << path << error.errorString();
        return QJsonDocument();
    }
    return document;
}

namespace {

// Writes all of content, going on after short writes and interruptions.
// errno tells why it stopped early.
bool writeAll(int fd, const QByteArray &content)
{
    // The "diskfull" trigger stands for the disk that fills up under the
    // write: the same errno at the same step.
    if (TriggerError::diskFull()) {
        errno = ENOSPC;
        return false;
    }
    const char *data = content.constData();
    qint64 left = content.size();
    while (left > 0) {
        const ssize_t n = ::write(fd, data, size_t(left));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            if (n == 0)
                errno = EIO;
            return false;
        }
        data += n;
        left -= n;
    }
    return true;
}

} // namespace

bool FileUtils::flushToDisk(const QString &path)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    const bool synced = ::fsync(fd) == 0;
    const int saved = errno;
    ::close(fd);
    errno = saved;
    return synced;
}

bool FileUtils::saveFile(const QString &path, const QByteArray &content)
{
    // The new content goes to a private temporary file beside the old one,
    // reaches the disk, and only then takes the old file's name in one
    // rename: a crash or a full disk at any step leaves the old file whole.
    const QFileInfo info(path);
    const QByteArray target = QFile::encodeName(info.absoluteFilePath());
    QByteArray temporary = QFile::encodeName(info.absolutePath() + QStringLiteral("/.") + info.fileName()
                                             + QStringLiteral(".XXXXXX"));
    const int fd = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (fd < 0) {
        qCCritical(hvFoundationLog) << "Failed to write" << path << ":" << std::strerror(errno);
        return false;
    }
    bool written = ::fchmod(fd, S_IRUSR | S_IWUSR) == 0 && writeAll(fd, content) && ::fsync(fd) == 0;
    int error = errno;
    if (::close(fd) != 0 && written) {
        written = false;
        error = errno;
    }
    if (written && ::rename(temporary.constData(), target.constData()) != 0) {
        written = false;
        error = errno;
    }
    if (!written) {
        ::unlink(temporary.constData());
        qCCritical(hvFoundationLog) << "Failed to write" << path << ":" << std::strerror(error);
        return false;
    }
    // The rename itself lives in the directory: without this the new name
    // may not survive a power cut even though the data did. The new file is
    // in place either way, and every reader sees it.
    if (!flushToDisk(info.absolutePath()))
        qCWarning(hvFoundationLog) << "Wrote" << path << "but failed to flush its directory:" << std::strerror(errno)
                   << "; a power cut may still bring back the old file";
    return true;
}

QString FileUtils::whyCannotWrite(const QString &dir)
{
    QByteArray probe = QFile::encodeName(QDir(dir).absoluteFilePath(QStringLiteral(".write-probe.XXXXXX")));
    const int fd = ::mkostemp(probe.data(), O_CLOEXEC);
    if (fd < 0)
        return QString::fromLocal8Bit(std::strerror(errno));
    const bool written = writeAll(fd, QByteArray(512, '\0')) && ::fsync(fd) == 0;
    const int error = errno;
    ::close(fd);
    ::unlink(probe.constData());
    return written ? QString() : QString::fromLocal8Bit(std::strerror(error));
}

void FileUtils::walkDirectory(const QString &dir, const QStringList &nameFilters,
                              const std::function<void(QFile *)> &visit)
{
    QDirIterator it(dir, nameFilters, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        QFile file(it.next());
        visit(&file);
    }
}

int FileUtils::makePrivate(const QString &dir)
{
    static QBasicMutex mutex;
    QMutexLocker lock(&mutex);
    g_tightened = 0;
    if (::nftw(QFile::encodeName(dir).constData(), tightenEntry, 16, FTW_PHYS) != 0) {
        qCWarning(hvFoundationLog) << "Failed to walk" << dir << ":" << std::strerror(errno);
        return -1;
    }
    if (g_tightened > 0)
        qCInfo(hvFoundationLog) << "Restricted access to" << dir << ":" << g_tightened
                << "entries were open to other users; they are now the owner's only";
    return g_tightened;
}

bool FileUtils::makeDirectory(const QString &dir)
{
    const QString path = QDir(dir).absolutePath();
    if (QFileInfo(path).isDir())
        return true;
    const QString parent = QFileInfo(path).path();
    if (parent != path && !makeDirectory(parent))
        return false;
    // The mode is set again after the creation: the umask may have taken
    // bits from it, and the directory is the owner's whatever the umask.
    const QByteArray name = QFile::encodeName(path);
    if (::mkdir(name.constData(), S_IRWXU) == 0)
        return ::chmod(name.constData(), S_IRWXU) == 0;
    return errno == EEXIST && QFileInfo(path).isDir();
}

bool FileUtils::copyFile(const QString &src, const QString &dst, QString *error)
{
    QFile file(src);
    if (!file.copy(dst)) {
        if (error)
            *error = file.errorString();
        return false;
    }
    // The copy takes the source's mode; a disk or record copied from a file
    // an older version left open must not stay open.
    if (::chmod(QFile::encodeName(dst).constData(), S_IRUSR | S_IWUSR) != 0) {
        if (error)
            *error = QString::fromLocal8Bit(std::strerror(errno));
        return false;
    }
    return true;
}
