// An OS image's reference disks: the qcow2 disks every device of the image is
// made from. They are made once, whole, by one program at a time, and only
// removed with the image when no device uses them.
#include "QEMUEngine.h"

#include "FileUtils.h"
#include "OsImage.h"
#include "LockFiles.h"
#include "OsImageChecksum.h"
#include "OsImageIO.h"
#include "Paths.h"
#include "ReferenceDisks.h"
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

// The disks of a reference directory: the OVA's members converted, the
// system disk first, named as a device names its own.
QStringList referenceDiskNames()
{
    return {QEMUDeviceFiles::systemDiskName(), QEMUDeviceFiles::dataDiskName()};
}

QString systemDiskIn(const QString &directory)
{
    return QDir(directory).absoluteFilePath(QEMUDeviceFiles::systemDiskName());
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

} // namespace

QString QEMUEngine::getReferenceDirectory(const OsImage &image)
{
    return ReferenceDisks::directoryOf(image);
}

bool QEMUEngine::isReferenceComplete(const QString &directory)
{
    return ReferenceDisks::isComplete(directory, referenceDiskNames());
}

QString QEMUEngine::prepareReferenceDisks(const QString &ovaPath, const QString &directory) const
{
    return ReferenceDisks::prepare(ovaPath, directory, referenceDiskNames(),
                                   [this, &ovaPath](const QString &partial) { return convertOva(ovaPath, partial); });
}

bool QEMUEngine::convertOva(const QString &ovaPath, const QString &partial) const
{
    const QStringList members = OsImage::ovaDiskNames();
    const QStringList disks = referenceDiskNames();
    for (int i = 0; i < members.size(); ++i) {
        const QFileInfo vmdk(QDir(partial).absoluteFilePath(members.at(i)));
        if (!convertDisk(vmdk, QFileInfo(QDir(partial).absoluteFilePath(disks.at(i))))) {
            qCCritical(hvQemuLog) << "[VMTools]" << "Failed to get" << qUtf8Printable(QFileInfo(members.at(i)).baseName())
                                  << "disk info" << ovaPath;
            return false;
        }
    }
    return true;
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
    QLockFile lock(ReferenceDisks::lockPath(directory));
    if (!ReferenceDisks::lock(lock, directory))
        return nullptr;
    auto use = std::make_unique<LockFiles::SharedLock>(ReferenceDisks::usersPath(directory));
    if (!use->lockShared()) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to lock" << ReferenceDisks::usersPath(directory) << ":"
                              << use->errorString();
        return nullptr;
    }
    return use;
}

QString QEMUEngine::getDeviceReference(const VMToolsMachine *machine) const
{
    const OsImage image = machine->getOsImage();
    const QString backing = QEMUSnapshotTable::backingFile(QEMUDeviceFiles(machine->getPath()).systemDisk());
    const QString directory = QFileInfo(backing).absolutePath();
    // Only a reference directory of the device's own image versions counts.
    if (!backing.isEmpty() && ReferenceDisks::isReferenceDirectory(directory, image.imageVersion, image.osVersion))
        return directory;
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
        LockFiles::SharedLock probe(ReferenceDisks::usersPath(directory));
        if (!probe.tryLockExclusive() && probe.error() == EWOULDBLOCK) {
            *creating = true;
            return false;
        }
    }
    QLockFile lock(ReferenceDisks::lockPath(directory));
    if (made && !ReferenceDisks::lock(lock, directory))
        return false;
    LockFiles::SharedLock use(ReferenceDisks::usersPath(directory));
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
    if (made && (!cleanDirectory(ReferenceDisks::partialPath(directory)) || !cleanDirectory(directory))) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to remove" << directory;
        return false;
    }
    QFile::remove(ReferenceDisks::usersPath(directory));
    return true;
}

bool QEMUEngine::migrateDevice(const VMToolsMachine *machine) const
{
    const OsImage image = machine->getOsImage();
    const QString oldDirectory = QDir::cleanPath(Paths::getSystemImagePath(image.imageVersion, image.osVersion));
    const QString oldSystem = systemDiskIn(oldDirectory);
    const QString disk = QEMUDeviceFiles(machine->getPath()).systemDisk();
    if (QEMUSnapshotTable::backingFile(disk) != oldSystem) {
        // A move cut off before it removed the old disks left them behind.
        if (QFileInfo::exists(oldSystem))
            reclaimOldReference(oldDirectory);
        return true;
    }
    const QString directory = getReferenceDirectory(image);
    QLockFile lock(ReferenceDisks::lockPath(directory));
    if (directory.isEmpty() || !ReferenceDisks::lock(lock, directory)) {
        qCWarning(hvQemuLog) << "[VMTools]" << "Cannot move" << machine->getName() << "off" << oldDirectory
                   << ": the checksum of its OVA is unknown";
        return false;
    }
    // Another program may have moved it meanwhile.
    if (QEMUSnapshotTable::backingFile(disk) != oldSystem)
        return true;
    if (!isReferenceComplete(directory) && !adoptOldReference(oldDirectory, directory)
        && ReferenceDisks::prepareLocked(image.getLocalPath(), directory, referenceDiskNames(),
                                         [this, &image](const QString &partial) {
                                             return convertOva(image.getLocalPath(), partial);
                                         })
               .isEmpty())
        return false;
    // The overlay's header names its backing file; the new one holds the
    // same data, so only the name changes. Both exist until the old one is
    // used by no device, so a kill at any point leaves a usable device.
    if (!rebaseDisk(disk, systemDiskIn(directory)) || !syncFile(disk))
        return false;
    qCInfo(hvQemuLog) << "[VMTools]" << "Moved" << machine->getName() << "from" << oldDirectory << "to" << directory;
    reclaimOldReference(oldDirectory);
    return true;
}

bool QEMUEngine::adoptOldReference(const QString &oldDirectory, const QString &directory) const
{
    const QStringList disks = referenceDiskNames();
    for (const QString &name : disks) {
        if (!QFileInfo::exists(QDir(oldDirectory).absoluteFilePath(name)))
            return false;
    }
    if (!ReferenceDisks::startPartial(directory))
        return false;
    // Linked, not moved: the devices not moved yet go on using the old names.
    const QString partial = ReferenceDisks::partialPath(directory);
    for (const QString &name : disks) {
        const QString from = QDir(oldDirectory).absoluteFilePath(name);
        const QString to = QDir(partial).absoluteFilePath(name);
        if (::link(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) != 0
            && !FileUtils::copyFile(from, to)) {
            qCCritical(hvQemuLog) << "[VMTools]" << "Failed to move" << from << "to" << to;
            cleanDirectory(partial);
            return false;
        }
    }
    if (!ReferenceDisks::completePartial(directory, disks)) {
        cleanDirectory(partial);
        return false;
    }
    return true;
}

void QEMUEngine::reclaimOldReference(const QString &oldDirectory) const
{
    const QString oldSystem = systemDiskIn(oldDirectory);
    // Every disk of every directory here, half-made and hidden ones too.
    const QStringList names = m_devicesDirectory.entryList(QDir::Dirs | QDir::Hidden | QDir::NoDotAndDotDot);
    for (const QString &name : names) {
        QDirIterator disks(m_devicesDirectory.absoluteFilePath(name), QDir::Files | QDir::Hidden);
        while (disks.hasNext()) {
            if (QEMUSnapshotTable::backingFile(disks.next()) == oldSystem)
                return;
        }
    }
    for (const QString &name : referenceDiskNames() + OsImage::ovaDiskNames())
        QFile::remove(QDir(oldDirectory).absoluteFilePath(name));
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
