// An OS image's reference disks: the qcow2 disks every device of the image is
// made from. They are made once, whole, by one program at a time, and only
// removed with the image when no device uses them.
#include "QEMUEngine.h"

#include "Archive.h"
#include "FileUtils.h"
#include "OsImage.h"
#include "LockFiles.h"
#include "OsImageChecksum.h"
#include "OsImageIO.h"
#include "Paths.h"
#include "QEMULogging_p.h"
#include "QEMUSnapshotTable.h"
#include "QEMUDeviceFiles.h"
#include "QEMUMachine.h"

#include <QDebug>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QLockFile>
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
// Shared by every creation under way from the image, taken alone by its
// removal.
const QString kUsersSuffix = QStringLiteral(".users");
const char *const kDiskNames[] = {"system", "data"};
// A large image takes minutes to extract and convert; a program that waits
// for another one to finish it waits that long, but not forever.
constexpr int kReferenceLockTimeoutMs = 30 * 60 * 1000;

// The directory is named after the OVA's checksum as this engine computed
// it: a record's text never reaches the path.
QString referenceDirectory(const VersionNumber &imageVersion, const VersionNumber &osVersion,
                           const QString &checksum)
{
    if (!OsImageChecksum::isChecksum(checksum))
        return QString();
    return QDir(Paths::getSystemImagePath(imageVersion, osVersion)).absoluteFilePath(checksum);
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
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to flush" << path << ":" << std::strerror(error);
    return synced;
}

// One program works on an image's reference disks at a time. A holder that
// died is known by its pid, or by a lock file that never got one.
bool lockReference(QLockFile &lock, const QString &directory)
{
    const QString path = directory + kLockSuffix;
    lock.setStaleLockTime(0);
    if (!LockFiles::acquire(lock, path, kReferenceLockTimeoutMs)) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to lock" << path << "error" << lock.error();
        return false;
    }
    return true;
}

QString diskPath(const QString &directory, const char *name, const char *suffix)
{
    return QDir(directory).absoluteFilePath(QLatin1String(name) + QLatin1String(suffix));
}

// Whatever is in the directory or its partial twin now was left by a
// preparation that did not finish.
bool startPartial(const QString &directory)
{
    const QString partial = directory + kPartialSuffix;
    if (!QEMUEngine::cleanDirectory(directory) || !QEMUEngine::cleanDirectory(partial) || !FileUtils::makeDirectory(partial)) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to clean" << directory;
        return false;
    }
    return true;
}

// The completed partial directory takes its name in one rename.
bool publishPartial(const QString &directory)
{
    const QString partial = directory + kPartialSuffix;
    if (std::rename(QFile::encodeName(partial).constData(), QFile::encodeName(directory).constData()) != 0) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to rename" << partial << "to" << directory << ":"
                    << std::strerror(errno);
        return false;
    }
    syncDirectory(QFileInfo(directory).absolutePath());
    return true;
}

bool makeParent(const QString &directory)
{
    const QString parent = QFileInfo(directory).absolutePath();
    if (directory.isEmpty() || !FileUtils::makeDirectory(parent)) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to create directory" << parent;
        return false;
    }
    return true;
}

} // namespace

QString QEMUEngine::referencePartialDirectory(const QString &directory)
{
    return directory + kPartialSuffix;
}

QString QEMUEngine::getReferenceDirectory(const OsImage &image)
{
    // The OVA may be gone since its disks were made; its checksum is not.
    const QString ova = image.getLocalPath();
    const QString checksum = QFileInfo::exists(ova) ? OsImageChecksum::get(ova) : OsImageChecksum::lastKnown(ova);
    return referenceDirectory(image.imageVersion, image.osVersion, checksum);
}

QString QEMUEngine::getReferenceDirectory(const QString &ovaPath, const VersionNumber &imageVersion,
                                          const VersionNumber &osVersion)
{
    return referenceDirectory(imageVersion, osVersion, OsImageChecksum::get(ovaPath));
}

bool QEMUEngine::isReferenceComplete(const QString &directory)
{
    const QDir dir(directory);
    return !directory.isEmpty() && dir.exists(kCompleteMarker) && dir.exists(QEMUDeviceFiles::systemDiskName())
        && dir.exists(QEMUDeviceFiles::dataDiskName());
}

bool QEMUEngine::validateReferenceDisk(const QString &path) const
{
    if (!QFileInfo(path).isFile()) {
        qCCritical(hvQemuLog) << "[VMTools]" << "The OVA holds no disk" << QFileInfo(path).fileName();
        return false;
    }
    return true;
}

QString QEMUEngine::prepareReferenceDisks(const QString &ovaPath, const QString &directory) const
{
    if (directory.isEmpty()) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to read the checksum of" << ovaPath;
        return QString();
    }
    if (isReferenceComplete(directory))
        return directory;
    // One program prepares an image at a time; the others wait for it and
    // then find the directory complete.
    QLockFile lock(directory + kLockSuffix);
    if (!makeParent(directory) || !lockReference(lock, directory))
        return QString();
    return prepareLockedReference(ovaPath, directory);
}

QString QEMUEngine::prepareLockedReference(const QString &ovaPath, const QString &directory) const
{
    if (isReferenceComplete(directory))
        return directory;
    // The name may come from a checksum kept from an earlier read of the
    // file: the disks are made only from content that has that checksum.
    QString error;
    const QString checksum = OsImageChecksum::compute(ovaPath, {}, &error);
    if (checksum != QFileInfo(directory).fileName()) {
        qCCritical(hvQemuLog) << "[VMTools]" << "The OVA" << ovaPath << "has sha-256"
                    << (checksum.isEmpty() ? error : checksum) << "not" << QFileInfo(directory).fileName();
        return QString();
    }
    if (!startPartial(directory))
        return QString();
    if (!makeReferenceDisks(ovaPath, directory + kPartialSuffix) || !publishPartial(directory)) {
        cleanDirectory(directory + kPartialSuffix);
        return QString();
    }
    return directory;
}

bool QEMUEngine::makeReferenceDisks(const QString &ovaPath, const QString &partial) const
{
    if (!Archive::isOk(Archive::untar(ovaPath, partial))) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to extract OVA" << ovaPath;
        return false;
    }
    for (const char *name : kDiskNames) {
        const QString vmdk = diskPath(partial, name, ".vmdk");
        // Checked before conversion: a disk the image tool would read must
        // be one we accept as a device's base.
        if (!validateReferenceDisk(vmdk))
            return false;
        if (!convertDisk(QFileInfo(vmdk), QFileInfo(diskPath(partial, name, ".qcow2")))) {
            qCCritical(hvQemuLog) << "[VMTools]" << "Failed to get" << name << "disk info" << ovaPath;
            return false;
        }
    }
    // The marker is the last thing written: its presence means every disk
    // above is complete, on disk and not only in the page cache.
    for (const char *name : kDiskNames) {
        if (!syncFile(diskPath(partial, name, ".qcow2")))
            return false;
    }
    return FileUtils::saveFile(QDir(partial).absoluteFilePath(kCompleteMarker), QByteArrayLiteral("complete\n"));
}

std::unique_ptr<LockFiles::SharedLock> QEMUEngine::useReference(const QString &ovaPath,
                                                                 const QString &directory) const
{
    // Registered under the image's lock, which its removal holds while it
    // lists the image's users: a removal either sees this creation or
    // finishes before it begins.
    if (directory.isEmpty()) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to read the checksum of" << ovaPath;
        return nullptr;
    }
    QLockFile lock(directory + kLockSuffix);
    if (!makeParent(directory) || !lockReference(lock, directory))
        return nullptr;
    auto use = std::make_unique<LockFiles::SharedLock>(directory + kUsersSuffix);
    if (!use->lockShared()) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to lock" << directory + kUsersSuffix << ":" << use->errorString();
        return nullptr;
    }
    return use;
}

QString QEMUEngine::getDeviceReference(const VMToolsMachine *machine) const
{
    const OsImage image = machine->getOsImage();
    const QString backing = QEMUSnapshotTable::backingFile(QEMUDeviceFiles(machine->getPath()).systemDisk());
    const QFileInfo directory(QFileInfo(backing).absolutePath());
    // Only a reference directory of the device's own image versions counts.
    if (!backing.isEmpty() && OsImageChecksum::isChecksum(directory.fileName())
        && directory.absolutePath() == QDir::cleanPath(Paths::getSystemImagePath(image.imageVersion, image.osVersion)))
        return directory.absoluteFilePath();
    return getReferenceDirectory(image);
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

QStringList QEMUEngine::getMachinesUsingImage(const OsImage &image)
{
    const QString reference = getReferenceDirectory(image);
    QStringList users;
    for (QEMUMachine *machine : loadMachines({})) {
        // Made from the image, or backed by its disks whatever its record says.
        const QString backing = QEMUSnapshotTable::backingFile(QEMUDeviceFiles(machine->getPath()).systemDisk());
        if (machine->getOsImage().uuid == image.uuid
            || (!reference.isEmpty() && QFileInfo(backing).absolutePath() == reference))
            users << machine->getName();
        delete machine;
    }
    return users;
}

bool QEMUEngine::removeReferenceDisks(const OsImage &image, QStringList *users, bool *creating)
{
    *creating = false;
    const QString directory = getReferenceDirectory(image);
    // An image never used has no reference disks, nor a directory for them.
    const bool made = !directory.isEmpty() && QFileInfo::exists(QFileInfo(directory).absolutePath());
    // The users are listed and the disks removed under the image's lock, so
    // that no program prepares them or registers a creation meanwhile; one
    // registered before holds its share of the users' lock.
    // A creation under way is seen at once, not after waiting for the
    // preparation it may be in the middle of.
    if (made) {
        LockFiles::SharedLock probe(directory + kUsersSuffix);
        if (!probe.tryLockExclusive() && probe.error() == EWOULDBLOCK) {
            *creating = true;
            return false;
        }
    }
    QLockFile lock(directory + kLockSuffix);
    if (made && !lockReference(lock, directory))
        return false;
    LockFiles::SharedLock use(directory + kUsersSuffix);
    if (made && !use.tryLockExclusive()) {
        *creating = use.error() == EWOULDBLOCK;
        qCWarning(hvQemuLog) << "[VMTools]" << "Cannot remove the reference disks" << directory << ":" << use.errorString();
        return false;
    }
    *users = getMachinesUsingImage(image);
    if (!users->isEmpty()) {
        qCWarning(hvQemuLog) << "[VMTools]" << "Cannot remove the reference disks" << directory << "used by"
                   << users->join(QStringLiteral(", "));
        return false;
    }
    if (made && (!cleanDirectory(directory + kPartialSuffix) || !cleanDirectory(directory))) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to remove" << directory;
        return false;
    }
    QFile::remove(directory + kUsersSuffix);
    return true;
}

bool QEMUEngine::migrateDevice(const VMToolsMachine *machine) const
{
    const OsImage image = machine->getOsImage();
    const QString oldDirectory = QDir::cleanPath(Paths::getSystemImagePath(image.imageVersion, image.osVersion));
    const QString oldSystem = diskPath(oldDirectory, "system", ".qcow2");
    const QString disk = QEMUDeviceFiles(machine->getPath()).systemDisk();
    if (QEMUSnapshotTable::backingFile(disk) != oldSystem) {
        // A move cut off before it removed the old disks left them behind.
        if (QFileInfo::exists(oldSystem))
            reclaimOldReference(oldDirectory);
        return true;
    }
    const QString directory = getReferenceDirectory(image);
    QLockFile lock(directory + kLockSuffix);
    if (directory.isEmpty() || !lockReference(lock, directory)) {
        qCWarning(hvQemuLog) << "[VMTools]" << "Cannot move" << machine->getName() << "off" << oldDirectory
                   << ": the checksum of its OVA is unknown";
        return false;
    }
    // Another program may have moved it meanwhile.
    if (QEMUSnapshotTable::backingFile(disk) != oldSystem)
        return true;
    if (!isReferenceComplete(directory) && !adoptOldReference(oldDirectory, directory)
        && prepareLockedReference(image.getLocalPath(), directory).isEmpty())
        return false;
    // The overlay's header names its backing file; the new one holds the
    // same data, so only the name changes. Both exist until the old one is
    // used by no device, so a kill at any point leaves a usable device.
    if (!rebaseDisk(disk, diskPath(directory, "system", ".qcow2")) || !syncFile(disk))
        return false;
    qCInfo(hvQemuLog) << "[VMTools]" << "Moved" << machine->getName() << "from" << oldDirectory << "to" << directory;
    reclaimOldReference(oldDirectory);
    return true;
}

bool QEMUEngine::adoptOldReference(const QString &oldDirectory, const QString &directory) const
{
    for (const char *name : kDiskNames) {
        if (!QFileInfo::exists(diskPath(oldDirectory, name, ".qcow2")))
            return false;
    }
    if (!startPartial(directory))
        return false;
    // Linked, not moved: the devices not moved yet go on using the old names.
    const QString partial = directory + kPartialSuffix;
    for (const char *name : kDiskNames) {
        const QString from = diskPath(oldDirectory, name, ".qcow2");
        const QString to = diskPath(partial, name, ".qcow2");
        if ((::link(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) != 0
             && !FileUtils::copyFile(from, to))
            || !syncFile(to)) {
            qCCritical(hvQemuLog) << "[VMTools]" << "Failed to move" << from << "to" << to;
            cleanDirectory(partial);
            return false;
        }
    }
    if (!FileUtils::saveFile(QDir(partial).absoluteFilePath(kCompleteMarker), QByteArrayLiteral("complete\n"))
        || !publishPartial(directory)) {
        cleanDirectory(partial);
        return false;
    }
    return true;
}

void QEMUEngine::reclaimOldReference(const QString &oldDirectory) const
{
    const QString oldSystem = diskPath(oldDirectory, "system", ".qcow2");
    // Every disk of every directory here, half-made and hidden ones too.
    const QStringList names = m_devicesDirectory.entryList(QDir::Dirs | QDir::Hidden | QDir::NoDotAndDotDot);
    for (const QString &name : names) {
        QDirIterator disks(m_devicesDirectory.absoluteFilePath(name), QDir::Files | QDir::Hidden);
        while (disks.hasNext()) {
            if (QEMUSnapshotTable::backingFile(disks.next()) == oldSystem)
                return;
        }
    }
    for (const char *name : kDiskNames) {
        for (const char *suffix : {".qcow2", ".vmdk"})
            QFile::remove(diskPath(oldDirectory, name, suffix));
    }
    qCInfo(hvQemuLog) << "[VMTools]" << "Removed the reference disks no device uses from" << oldDirectory;
}

QString QEMUEngine::checkReferenceDisks(const VMToolsMachine *machine) const
{
    migrateDevice(machine);
    const QString backing = QEMUSnapshotTable::backingFile(QEMUDeviceFiles(machine->getPath()).systemDisk());
    if (backing.isEmpty() || QFileInfo::exists(backing))
        return QString();
    return QStringLiteral("its system disk is backed by '%1', which is missing: the reference disks of its OS "
                          "image were removed")
        .arg(backing);
}
