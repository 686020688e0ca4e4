// An OS image's reference disks: the qcow2 disks every device of the image is
// made from. They are made once, whole, by one program at a time, and only
// removed with the image when no device uses them.
#include "QEMUEngine.h"

#include "Archive.h"
#include "FileUtils.h"
#include "OsImage.h"
#include "OsImageIO.h"
#include "Paths.h"
#include "QEMUDeviceFiles.h"
#include "QEMUMachine.h"

#include <QCryptographicHash>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QLockFile>
#include <QRegularExpression>
#include <QUuid>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <unistd.h>

namespace {

// Written last into a reference directory: without it the directory is an
// interrupted or failed preparation and is made again.
const QString kCompleteMarker = QStringLiteral(".complete");
const QString kPartialSuffix = QStringLiteral(".partial");
const QString kLockSuffix = QStringLiteral(".lock");
const char *const kDiskNames[] = {"system", "data"};
// A large image takes minutes to extract and convert; a program that waits
// for another one to finish it waits that long, but not forever.
constexpr int kReferenceLockTimeoutMs = 30 * 60 * 1000;

// The identity as a directory name: a checksum in hex is used as it is,
// anything else by its own hash, so a record's text never reaches the path.
QString identityName(const QString &identity)
{
    static const QRegularExpression hex(QStringLiteral("^[0-9a-fA-F]{1,128}$"));
    if (hex.match(identity).hasMatch())
        return identity.toLower();
    return QString::fromLatin1(QCryptographicHash::hash(identity.toUtf8(), QCryptographicHash::Sha256).toHex());
}

QString referenceDirectory(const VersionNumber &imageVersion, const VersionNumber &osVersion,
                           const QString &identity)
{
    return QDir(Paths::getSystemImagePath(imageVersion, osVersion)).absoluteFilePath(identityName(identity));
}

QString fileSha256(const QString &path)
{
    QFile file(path);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    if (!file.open(QIODevice::ReadOnly) || !hash.addData(&file))
        return QString();
    return QString::fromLatin1(hash.result().toHex());
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

bool syncFile(const QString &path)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_CLOEXEC);
    const bool synced = fd >= 0 && ::fsync(fd) == 0;
    const int error = errno;
    if (fd >= 0)
        ::close(fd);
    if (!synced)
        qCritical() << "[VMTools]" << "Failed to flush" << path << ":" << std::strerror(error);
    return synced;
}

} // namespace

QString QEMUEngine::getReferenceDirectory(const OsImage &image)
{
    return referenceDirectory(image.imageVersion, image.osVersion, image.imageHash);
}

QString QEMUEngine::getReferenceDirectory(const QString &ovaPath, const VersionNumber &imageVersion,
                                          const VersionNumber &osVersion)
{
    const QString checksum = fileSha256(ovaPath);
    return referenceDirectory(imageVersion, osVersion, checksum.isEmpty() ? ovaPath : checksum);
}

bool QEMUEngine::isReferenceComplete(const QString &directory)
{
    const QDir dir(directory);
    return dir.exists(kCompleteMarker) && dir.exists(QEMUDeviceFiles::systemDiskName())
        && dir.exists(QEMUDeviceFiles::dataDiskName());
}

bool QEMUEngine::validateReferenceDisk(const QString &path) const
{
    if (!QFileInfo(path).isFile()) {
        qCritical() << "[VMTools]" << "The OVA holds no disk" << QFileInfo(path).fileName();
        return false;
    }
    return true;
}

QString QEMUEngine::prepareReferenceDisks(const QString &ovaPath, const QString &directory) const
{
    if (isReferenceComplete(directory))
        return directory;
    const QString parent = QFileInfo(directory).absolutePath();
    if (!FileUtils::makeDirectory(parent)) {
        qCritical() << "[VMTools]" << "Failed to create directory" << parent;
        return QString();
    }
    // One program prepares an image at a time; the others wait for it and
    // then find the directory complete. A holder that died is known by its
    // pid, so the wait is never for a lock nobody holds.
    QLockFile lock(directory + kLockSuffix);
    lock.setStaleLockTime(0);
    if (!lock.tryLock(kReferenceLockTimeoutMs)) {
        qCritical() << "[VMTools]" << "Failed to lock" << directory + kLockSuffix << "error" << lock.error();
        return QString();
    }
    if (isReferenceComplete(directory))
        return directory;

    // Whatever is here now was left by a preparation that did not finish.
    const QString partial = directory + kPartialSuffix;
    if (!cleanDirectory(directory) || !cleanDirectory(partial) || !FileUtils::makeDirectory(partial)) {
        qCritical() << "[VMTools]" << "Failed to clean" << directory;
        return QString();
    }
    if (!makeReferenceDisks(ovaPath, partial)) {
        cleanDirectory(partial);
        return QString();
    }
    if (std::rename(QFile::encodeName(partial).constData(), QFile::encodeName(directory).constData()) != 0) {
        qCritical() << "[VMTools]" << "Failed to rename" << partial << "to" << directory << ":"
                    << std::strerror(errno);
        cleanDirectory(partial);
        return QString();
    }
    syncDirectory(parent);
    return directory;
}

bool QEMUEngine::makeReferenceDisks(const QString &ovaPath, const QString &partial) const
{
    if (!Archive::isOk(Archive::untar(ovaPath, partial))) {
        qCritical() << "[VMTools]" << "Failed to extract OVA" << ovaPath;
        return false;
    }
    const QDir dir(partial);
    for (const char *name : kDiskNames) {
        const QString vmdk = dir.absoluteFilePath(QLatin1String(name) + QStringLiteral(".vmdk"));
        // Checked before conversion: a disk the image tool would read must
        // be one we accept as a device's base.
        if (!validateReferenceDisk(vmdk))
            return false;
        if (!convertDisk(QFileInfo(vmdk), QFileInfo(dir, QLatin1String(name) + QStringLiteral(".qcow2")))) {
            qCritical() << "[VMTools]" << "Failed to get" << name << "disk info" << ovaPath;
            return false;
        }
    }
    // The marker is the last thing written: its presence means every disk
    // above is complete, on disk and not only in the page cache.
    for (const char *name : kDiskNames) {
        if (!syncFile(dir.absoluteFilePath(QLatin1String(name) + QStringLiteral(".qcow2"))))
            return false;
    }
    return FileUtils::saveFile(dir.absoluteFilePath(kCompleteMarker), QByteArrayLiteral("complete\n"));
}

QStringList QEMUEngine::getMachinesUsingImage(const OsImage &image)
{
    const QString reference = getReferenceDirectory(image);
    QStringList users;
    for (QEMUMachine *machine : loadMachines({})) {
        if (getReferenceDirectory(machine->getOsImage()) == reference)
            users << machine->getName();
        delete machine;
    }
    return users;
}

OsImage QEMUEngine::getRegisteredImage(const QString &uuid) const
{
    // Devices are loaded on several threads at once; the records are read
    // by the first of them.
    std::call_once(m_registryRead,
                   [this] { m_registeredImages = OsImageIO::loadFromDirectory(Paths::getUserOsImagePath()); });
    const QUuid wanted = QUuid::fromString(uuid);
    for (const OsImage &image : qAsConst(m_registeredImages)) {
        if (wanted.isNull() ? image.uuid == uuid : QUuid::fromString(image.uuid) == wanted)
            return image;
    }
    return OsImage();
}

bool QEMUEngine::removeReferenceDisks(const OsImage &image, QStringList *users)
{
    *users = getMachinesUsingImage(image);
    const QString directory = getReferenceDirectory(image);
    if (!users->isEmpty()) {
        qWarning() << "[VMTools]" << "Cannot remove the reference disks" << directory << "used by"
                   << users->join(QStringLiteral(", "));
        return false;
    }
    // An image never used has no reference disks, nor a directory for them.
    if (!QFileInfo::exists(QFileInfo(directory).absolutePath()))
        return true;
    // Under the preparation lock, so that no program is making them now.
    QLockFile lock(directory + kLockSuffix);
    lock.setStaleLockTime(0);
    if (!lock.tryLock(kReferenceLockTimeoutMs)) {
        qCritical() << "[VMTools]" << "Failed to lock" << directory + kLockSuffix << "error" << lock.error();
        return false;
    }
    if (!cleanDirectory(directory + kPartialSuffix) || !cleanDirectory(directory)) {
        qCritical() << "[VMTools]" << "Failed to remove" << directory;
        return false;
    }
    lock.unlock();
    return true;
}
