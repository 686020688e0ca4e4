#include "ReferenceDisks.h"

#include "Archive.h"
#include "FileUtils.h"
#include "LockFiles.h"
#include "Logging_p.h"
#include "OsImage.h"
#include "OsImageChecksum.h"
#include "Paths.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLockFile>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Written last into a reference directory: without it the directory is an
// interrupted or failed preparation and is made again.
const QString kCompleteMarker = QStringLiteral(".complete");
// A large image takes minutes to extract and convert; a program that waits
// for another one to finish it waits that long, but not forever.
constexpr int kLockTimeoutMs = 30 * 60 * 1000;

QString versionsDirectory(const VersionNumber &imageVersion, const VersionNumber &osVersion)
{
    return QDir::cleanPath(Paths::getSystemImagePath(imageVersion, osVersion));
}

QString directoryNamed(const VersionNumber &imageVersion, const VersionNumber &osVersion, const QString &checksum)
{
    if (!OsImageChecksum::isChecksum(checksum))
        return QString();
    return QDir(versionsDirectory(imageVersion, osVersion)).absoluteFilePath(checksum);
}

bool removeDirectory(const QString &path)
{
    QDir directory(path);
    return !directory.exists() || directory.removeRecursively();
}

// Opened without following a link: what the archive left must be the file
// itself. Flushed, so that the marker never stands for data still in the
// page cache.
bool syncRegularFile(const QString &path)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    struct stat st;
    bool synced = false;
    if (fd >= 0) {
        synced = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && ::fsync(fd) == 0;
        ::close(fd);
    }
    if (!synced)
        qCCritical(hvEngineLog) << "[VMTools]" << "Failed to flush" << path << ": not a file, or"
                                << std::strerror(errno);
    return synced;
}

// The rename of a directory lives in its parent; flushed so that a power cut
// cannot undo it while the devices made from it survive.
void syncDirectory(const QString &path)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return;
    ::fsync(fd);
    ::close(fd);
}

bool makeParent(const QString &directory)
{
    const QString parent = QFileInfo(directory).absolutePath();
    if (directory.isEmpty() || !FileUtils::makeDirectory(parent)) {
        qCCritical(hvEngineLog) << "[VMTools]" << "Failed to create directory" << parent;
        return false;
    }
    return true;
}

} // namespace

QString ReferenceDisks::directoryOf(const OsImage &image)
{
    return directoryOf(image.getLocalPath(), image.imageVersion, image.osVersion);
}

QString ReferenceDisks::directoryOf(const QString &ovaPath, const VersionNumber &imageVersion,
                                   const VersionNumber &osVersion)
{
    const QString checksum =
        QFileInfo::exists(ovaPath) ? OsImageChecksum::get(ovaPath) : OsImageChecksum::lastKnown(ovaPath);
    return directoryNamed(imageVersion, osVersion, checksum);
}

bool ReferenceDisks::isReferenceDirectory(const QString &path, const VersionNumber &imageVersion,
                                          const VersionNumber &osVersion)
{
    const QFileInfo directory(path);
    return OsImageChecksum::isChecksum(directory.fileName())
        && directory.absolutePath() == versionsDirectory(imageVersion, osVersion);
}

bool ReferenceDisks::isComplete(const QString &directory, const QStringList &files)
{
    const QDir dir(directory);
    if (directory.isEmpty() || !dir.exists(kCompleteMarker))
        return false;
    for (const QString &file : files) {
        if (!dir.exists(file))
            return false;
    }
    return true;
}

QString ReferenceDisks::lockPath(const QString &directory)
{
    return directory + QStringLiteral(".lock");
}

QString ReferenceDisks::usersPath(const QString &directory)
{
    return directory + QStringLiteral(".users");
}

QString ReferenceDisks::partialPath(const QString &directory)
{
    return directory + QStringLiteral(".partial");
}

bool ReferenceDisks::lock(QLockFile &lock, const QString &directory)
{
    // A holder that died is known by its pid, or by a lock file that never
    // got one.
    lock.setStaleLockTime(0);
    if (!makeParent(directory) || !LockFiles::acquire(lock, lockPath(directory), kLockTimeoutMs)) {
        qCCritical(hvEngineLog) << "[VMTools]" << "Failed to lock" << lockPath(directory) << "error" << lock.error();
        return false;
    }
    return true;
}

QString ReferenceDisks::prepare(const QString &ovaPath, const QString &directory, const QStringList &files,
                                const Finish &finish)
{
    if (directory.isEmpty()) {
        qCCritical(hvEngineLog) << "[VMTools]" << "Failed to read the checksum of" << ovaPath;
        return QString();
    }
    if (isComplete(directory, files))
        return directory;
    // One program prepares an image at a time; the others wait for it and
    // then find the directory complete.
    QLockFile held(lockPath(directory));
    if (!lock(held, directory))
        return QString();
    return prepareLocked(ovaPath, directory, files, finish);
}

QString ReferenceDisks::prepareLocked(const QString &ovaPath, const QString &directory, const QStringList &files,
                                      const Finish &finish)
{
    if (isComplete(directory, files))
        return directory;
    // The name may come from a checksum kept from an earlier read of the
    // file: the disks are made only from content that has that checksum.
    QString error;
    const QString checksum = OsImageChecksum::compute(ovaPath, {}, &error);
    if (checksum != QFileInfo(directory).fileName()) {
        qCCritical(hvEngineLog) << "[VMTools]" << "The OVA" << ovaPath << "has sha-256"
                                << (checksum.isEmpty() ? error : checksum) << "not" << QFileInfo(directory).fileName();
        return QString();
    }
    if (!startPartial(directory))
        return QString();
    const QString partial = partialPath(directory);
    const auto fail = [&partial] {
        removeDirectory(partial);
        return QString();
    };
    if (!Archive::isOk(Archive::untar(ovaPath, partial))) {
        qCCritical(hvEngineLog) << "[VMTools]" << "Failed to extract OVA" << ovaPath;
        return fail();
    }
    for (const QString &member : OsImage::ovaDiskNames()) {
        // The archive skips links; a member it never held is no disk either.
        const QFileInfo disk(QDir(partial).filePath(member));
        if (!disk.isFile() || disk.isSymLink()) {
            qCCritical(hvEngineLog) << "[VMTools]" << "The OVA holds no disk" << member;
            return fail();
        }
    }
    if ((finish && !finish(partial)) || !completePartial(directory, files))
        return fail();
    return directory;
}

bool ReferenceDisks::startPartial(const QString &directory)
{
    const QString partial = partialPath(directory);
    if (!removeDirectory(directory) || !removeDirectory(partial) || !FileUtils::makeDirectory(partial)) {
        qCCritical(hvEngineLog) << "[VMTools]" << "Failed to clean" << directory;
        return false;
    }
    return true;
}

bool ReferenceDisks::completePartial(const QString &directory, const QStringList &files)
{
    const QString partial = partialPath(directory);
    // The marker is the last thing written: its presence means every disk
    // is complete, on disk and not only in the page cache.
    for (const QString &file : files) {
        if (!syncRegularFile(QDir(partial).filePath(file)))
            return false;
    }
    if (!FileUtils::saveFile(QDir(partial).absoluteFilePath(kCompleteMarker), QByteArrayLiteral("complete\n")))
        return false;
    if (std::rename(QFile::encodeName(partial).constData(), QFile::encodeName(directory).constData()) != 0) {
        qCCritical(hvEngineLog) << "[VMTools]" << "Failed to rename" << partial << "to" << directory << ":"
                                << std::strerror(errno);
        return false;
    }
    syncDirectory(QFileInfo(directory).absolutePath());
    return true;
}
