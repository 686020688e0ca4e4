// Making and unmaking devices on disk: creation from an OS image, cloning,
// deletion and factory reset. Every multi-step operation is guarded by a
// scoped rollback object, so that a failure half-way leaves no half-made
// device behind.
#include "QEMUEngine.h"

#include "FileUtils.h"
#include "HwProfile.h"
#include "LockFiles.h"
#include "OsImage.h"
#include "QEMUClient.h"
#include "QEMUDeviceFiles.h"
#include "QEMUEngineDirectoryCleaner.h"
#include "QEMULogging_p.h"
#include "QEMUMachine.h"
#include "ReferenceDisks.h"
#include "VMToolsCommon.h"

#include <QDebug>
#include <QDir>
#include <QFile>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <stdlib.h>
#include <unistd.h>
#include <utility>

namespace {

const QString kSystemDisk = QEMUDeviceFiles::systemDiskName();
const QString kDataDisk = QEMUDeviceFiles::dataDiskName();
const QString kResetSuffix = QStringLiteral(".reset");
const QByteArray kMarkerText = "This directory is a virtual device made by Halvistrom: its disks, its record and\n"
                               "its shared folder. Remove it with 'hvtool device delete'.\n";

bool isMarked(const QString &path)
{
    return QFileInfo(QEMUDeviceFiles(path).marker()).isFile();
}

// A directory that holds no loadable device is the system's (broken) only
// when it carries the marker: anything else is someone's folder.
bool isBrokenDevice(const QString &path)
{
    return QFileInfo(path).isDir() && !QFileInfo(path).isSymLink() && isMarked(path);
}
// Long enough for a command that only checks and writes a record, short
// enough that a user is not left wondering; a start or a clone takes longer
// and is reported as busy.
constexpr int kDeviceLockWaitMs = 5000;
// Stopping a guest flushes its disks: seconds at most.
constexpr int kGuestPauseTimeoutMs = 30000;

// A running emulator would go on with the device's disks replaced or
// unlinked under it, holding its ports: true, logged, when it runs.
bool refusedWhileRunning(const VMToolsMachine *machine, const char *action)
{
    const auto *qemuMachine = dynamic_cast<const QEMUMachine *>(machine);
    if (!qemuMachine || !qemuMachine->isQEMURunning())
        return false;
    qCWarning(hvQemuLog) << "[VMTools]" << "Cannot" << action << machine->getName() << "while its emulator runs";
    return true;
}

// A device name is one directory inside the devices directory: anything that
// could reach outside it (or be the directory itself) is refused, since a
// failed creation removes the directory it names.
bool isValidDeviceName(const QString &name)
{
    return !name.isEmpty() && name != QLatin1String(".") && name != QLatin1String("..") &&
           !name.contains(QLatin1Char('/')) && !name.contains(QLatin1Char('\\')) && !name.contains(QChar(0));
}

// Refuses a name that is not a device directory name or that a device holds
// already, with the warning refusal names.
bool isFreeDeviceName(const QEMUEngine &engine, const QString &name, const char *refusal)
{
    if (!isValidDeviceName(name)) {
        qCWarning(hvQemuLog) << "[VMTools]" << "Invalid device name" << name;
        return false;
    }
    // A directory that holds no loadable device still holds someone's
    // data: it is never cleaned to make room for a new device.
    if (engine.doesMachineExist(name) || QFileInfo::exists(engine.getDevicesDirectory().absoluteFilePath(name))) {
        qCWarning(hvQemuLog) << "[VMTools]" << refusal << name;
        return false;
    }
    return true;
}

// A device directory that is a symbolic link would lead deletion, reset and
// cloning to whatever it points at: such a device is refused.
bool isLinkedDeviceDirectory(const QString &path)
{
    if (!QFileInfo(path).isSymLink())
        return false;
    qCWarning(hvQemuLog) << "[VMTools]" << "Refusing device directory" << path << ": it is a symbolic link to"
               << QFileInfo(path).symLinkTarget();
    return true;
}

// Makes an empty private directory beside the devices, hidden from every
// listing, named after the device and what it is for
// (".NAME.clone-XXXXXX"); empty, logged, on failure.
// A hidden directory of the devices directory in which the device name is
// built, or left on its way out, by purpose ("create", "clone", "delete").
// The process's pid and start time in its name tell a command that still
// runs from a leftover, from the first moment the directory exists.
QString makeHiddenDirectory(const QDir &devices, const QString &name, const QString &purpose)
{
    const qint64 pid = ::getpid();
    QByteArray pattern = QFile::encodeName(devices.absoluteFilePath(
        QStringLiteral(".%1.%2-%3-%4-XXXXXX").arg(name, purpose).arg(pid).arg(VMToolsCommon::processStartTime(pid))));
    if (!FileUtils::makeDirectory(devices.absolutePath()) || !::mkdtemp(pattern.data())) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to create a directory to" << purpose << name << "in"
                    << devices.absolutePath() << ":" << std::strerror(errno);
        return QString();
    }
    return QFile::decodeName(pattern);
}

} // namespace

int QEMUEngine::deviceLockWaitMs()
{
    return kDeviceLockWaitMs;
}

LockFiles::CommandLock::Result QEMUEngine::lockDevice(const QString &devicePath, const QString &command,
                                                      LockFiles::CommandLock *lock) const
{
    const auto result = lock->acquire(QEMUDeviceFiles(devicePath).commandLock(), command, kDeviceLockWaitMs);
    if (result == LockFiles::CommandLock::Taken)
        finishInterruptedReset(devicePath);
    return result;
}

QEMUEngine::DirectoryCleaner::DirectoryCleaner(const QDir &directory) : m_directory(directory) {}

QEMUEngine::DirectoryCleaner::~DirectoryCleaner()
{
    if (m_enabled)
        cleanDirectory(m_directory.absolutePath());
}

void QEMUEngine::DirectoryCleaner::disable()
{
    m_enabled = false;
}

bool QEMUEngine::cleanDirectory(const QString &path)
{
    QDir directory(path);
    if (!directory.exists())
        return true;
    return directory.removeRecursively();
}

int QEMUEngine::createMachine(const QString &name, const QString &path, int, long long, long long sdCardSize,
                              const VersionNumber &imageVersion, const VersionNumber &osVersion)
{
    return static_cast<const QEMUEngine *>(this)->createMachine(name, path, sdCardSize, imageVersion, osVersion);
}

int QEMUEngine::createMachine(const QString &name, const QString &ovaPath, long long sdCardSize,
                              const VersionNumber &imageVersion, const VersionNumber &osVersion) const
{
    if (!isFreeDeviceName(*this, name, "Can't create already existing device"))
        return 1;
    const QString reference = ReferenceDisks::directoryOf(ovaPath, imageVersion, osVersion);
    // A user of the image's reference disks until the device has its name.
    const auto use = useReference(ovaPath, reference);
    return buildDevice(name, [&](const QString &path) {
        return use ? createDevice(path, ovaPath, reference, sdCardSize) : 1;
    });
}

int QEMUEngine::moveIntoPlace(const QString &buildPath, const QString &target)
{
    // Never over a directory that appeared meanwhile, not even an empty one.
    // A file system without the no-replace rename gets a check first.
    const QByteArray from = QFile::encodeName(buildPath);
    const QByteArray to = QFile::encodeName(target);
    int renamed = ::renameat2(AT_FDCWD, from.constData(), AT_FDCWD, to.constData(), RENAME_NOREPLACE);
    if (renamed != 0 && errno == EINVAL) {
        errno = EEXIST;
        renamed = QFileInfo::exists(target) ? -1 : std::rename(from.constData(), to.constData());
    }
    if (renamed == 0)
        return 0;
    const int error = errno;
    qCCritical(hvQemuLog) << "[VMTools]" << "Failed to rename" << buildPath << "to" << target << ":" << std::strerror(error);
    return error;
}

int QEMUEngine::buildDevice(const QString &name, const std::function<int(const QString &)> &build) const
{
    // The device is made under a hidden name, which no listing offers as a
    // device, and takes its own name only once it is complete.
    const QString buildPath = makeHiddenDirectory(m_devicesDirectory, name, QStringLiteral("create"));
    if (buildPath.isEmpty())
        return 1;
    DirectoryCleaner cleaner{QDir(buildPath)};
    if (!FileUtils::saveFile(QEMUDeviceFiles(buildPath).marker(), kMarkerText))
        return 1;
    const int code = build(buildPath);
    if (code != 0)
        return code;
    if (moveIntoPlace(buildPath, m_devicesDirectory.absoluteFilePath(name)) != 0)
        return 1;
    cleaner.disable();
    return 0;
}

int QEMUEngine::createDevice(const QString &devicePath, const QString &ovaPath, const QString &referencePath,
                             long long sdCardSize, const std::function<bool()> &cancelled) const
{
    if (prepareReferenceDisks(ovaPath, referencePath).isEmpty()) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to extract OVA" << ovaPath;
        return 1;
    }
    if (cancelled && cancelled())
        return 1;
    const QDir reference(referencePath);
    const QFileInfo referenceSystem(reference, kSystemDisk);
    const QFileInfo referenceData(reference, kDataDisk);
    const QDir device(devicePath);
    if (!createDisk(referenceSystem, QFileInfo(device, kSystemDisk))) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to create disks" << devicePath;
        return 2;
    }
    if (!copyDisk(referenceData.absoluteFilePath(), device.absoluteFilePath(kDataDisk))) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to copy reference data disk to local one" << devicePath;
        return 2;
    }
    if (sdCardSize != 0 && !createSDCard(devicePath, sdCardSize)) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to create sdcard disk" << devicePath;
        return 2;
    }
    return 0;
}

int QEMUEngine::createMachine(const QString &name, const OsImage &image, const HwProfile &profile)
{
    return createMachine(name, image, profile, std::function<bool()>(), nullptr);
}

int QEMUEngine::createFromImage(const QString &name, const OsImage &image, const HwProfile &profile,
                                const std::function<bool()> &cancelled) const
{
    if (!isFreeDeviceName(*this, name, "Can't create already existing device"))
        return 1;
    // A user of the image's reference disks until the device has its name.
    const QString reference = getReferenceDirectory(image);
    const auto use = useReference(image.getLocalPath(), reference);
    // A cancel between the steps fails the build, which removes what it made.
    return buildDevice(name, [&](const QString &devicePath) {
        const int code = use && !cancelled()
            ? createDevice(devicePath, image.getLocalPath(), reference, profile.sdCardSize, cancelled)
            : 1;
        if (code != 0) {
            qCCritical(hvQemuLog) << "[VMTools]" << "Failed to create device" << name;
            return code;
        }
        // setProperties also records the profile's CPU, RAM and SD card
        // values in the device's configuration, then saves device.json.
        QEMUMachine machine(const_cast<QEMUEngine *>(this), devicePath, image, profile);
        if (!machine.setProperties(profile, image)) {
            qCCritical(hvQemuLog) << "[VMTools]" << "Failed to save device" << name;
            return 1;
        }
        return cancelled() ? 1 : 0;
    });
}

int QEMUEngine::cloneMachine(VMToolsMachine *source, const QString &newName)
{
    return cloneMachine(source, newName, false);
}

int QEMUEngine::cloneMachine(VMToolsMachine *source, const QString &newName, bool crashConsistent)
{
    if (!source) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Cannot clone null machine";
        return 1;
    }
    if (isLinkedDeviceDirectory(source->getPath()))
        return 1;
    if (!isFreeDeviceName(*this, newName, "Can't clone to already existing device"))
        return isValidDeviceName(newName) ? 2 : 1;
    const QString targetPath = m_devicesDirectory.absoluteFilePath(newName);
    // The clone is built under a hidden name, which no listing shows, and
    // takes its own name only once it is complete with its own identity: a
    // clone that is interrupted is never taken for a device.
    const QString buildPath = makeHiddenDirectory(m_devicesDirectory, newName, QStringLiteral("clone"));
    if (buildPath.isEmpty())
        return 1;
    DirectoryCleaner cleaner{QDir(buildPath)};
    // The copy brings the source's marker, which a source made by an
    // earlier version may lack.
    if (!copyDevice(source, buildPath, crashConsistent) || !isDeviceDirectory(buildPath, true))
        return 1;
    QEMUMachine clone(const_cast<QEMUEngine *>(this), buildPath);
    if (!clone.load()) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to retrieve cloned device" << newName;
        return 1;
    }
    if (!clone.changeUuid()) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to update UUID of cloned device" << newName;
        return 1;
    }
    const int moved = moveIntoPlace(buildPath, targetPath);
    if (moved != 0)
        return moved == EEXIST ? 2 : 1;
    cleaner.disable();
    return 0;
}

bool QEMUEngine::copyDevice(VMToolsMachine *source, const QString &buildPath, bool crashConsistent) const
{
    auto *running = dynamic_cast<QEMUMachine *>(source);
    if (running && !running->isQEMURunning())
        running = nullptr;
    if (running && !crashConsistent) {
        qCWarning(hvQemuLog) << "[VMTools]" << "Cannot clone" << source->getName()
                   << "while it runs: its disks change under the copy; stop it first";
        return false;
    }
    // Stopping the guest makes the emulator flush its disks and write no
    // more until it goes on: the copy is the disks at one moment, as a power
    // cut would have left them.
    QEMUClient client(running ? running->getQmpSocketPath() : QString());
    const auto pause = [&](const char *command) {
        return client.exec({{QStringLiteral("execute"), QString::fromLatin1(command)}}, QVariant(), kGuestPauseTimeoutMs,
                           QEMUClient::ResponseRequired);
    };
    if (running && !(client.init() && pause("stop"))) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to pause" << source->getName() << "for a crash-consistent copy";
        return false;
    }
    const bool copied = FileUtils::copyDirectory(source->getPath(), buildPath);
    if (running && !pause("cont"))
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to let" << source->getName() << "go on after copying it";
    if (!copied) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to copy" << source->getPath() << "to" << buildPath;
        return false;
    }
    // The source's lock files and logs describe the source's emulator, guest
    // and commands: the clone does not run, and must not take over that pid
    // and port offset.
    const QEMUDeviceFiles files(buildPath);
    for (const QString &file :
         {files.lockFile(), files.logFile(), files.commandLock(), files.consoleLog(), files.previousConsoleLog()})
        QFile::remove(file);
    return true;
}

bool QEMUEngine::deleteMachine(const VMToolsMachine *machine) const
{
    if (!machine) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Cannot delete null machine";
        return false;
    }
    qCDebug(hvQemuLog) << "[VMTools]" << "deleteMachine() with path" << machine->getPath();
    if (isLinkedDeviceDirectory(machine->getPath()))
        return false;
    if (!isDeviceDirectory(machine->getPath(), true)) {
        qCWarning(hvQemuLog) << "[VMTools]" << "Refusing to delete" << machine->getPath() << ": the system did not make it";
        return false;
    }
    if (refusedWhileRunning(machine, "delete"))
        return false;
    // The directory leaves the devices in one rename, under a hidden name,
    // and is removed there: a removal that fails half-way leaves no
    // half-device behind, only files that no listing takes for one.
    const QDir path(machine->getPath());
    const QString trash = makeHiddenDirectory(QDir::cleanPath(path.absoluteFilePath(QStringLiteral(".."))), path.dirName(),
                                              QStringLiteral("delete"));
    if (trash.isEmpty())
        return false;
    if (std::rename(QFile::encodeName(path.absolutePath()).constData(), QFile::encodeName(trash).constData()) != 0) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to remove" << path.absolutePath() << ":" << std::strerror(errno);
        QDir().rmdir(trash);
        return false;
    }
    if (!QDir(trash).removeRecursively())
        qCCritical(hvQemuLog) << "[VMTools]" << "Removed device" << path.dirName() << "but not all of its files: they are left in"
                    << trash;
    return true;
}

bool QEMUEngine::resetFactory(const VMToolsMachine *machine) const
{
    return resetDevice(machine) == ResetResult::Done;
}

QEMUEngine::ResetResult QEMUEngine::resetDevice(const VMToolsMachine *machine) const
{
    if (!machine) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Cannot factory reset null machine";
        return ResetResult::Unchanged;
    }
    if (isLinkedDeviceDirectory(machine->getPath()) || refusedWhileRunning(machine, "factory reset"))
        return ResetResult::Unchanged;
    migrateDevice(machine);
    const QDir reference(getDeviceReference(machine));
    if (!isReferenceComplete(reference.absolutePath())) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Reference disks don't exist" << reference.absolutePath();
        return ResetResult::Unchanged;
    }
    // The new disks are made under temporary names inside the device
    // directory, on the device's own file system, and reach the disk. Only
    // then does the marker say that they are complete: from there on the
    // reset goes forward, here or in the next command that finds the marker.
    const QEMUDeviceFiles files(machine->getPath());
    if (!makeResetDisks(reference, files))
        return ResetResult::Unchanged;
    if (!FileUtils::saveFile(files.resetMarker(), QByteArrayLiteral("factory reset: the new disks are complete\n"))) {
        discardResetDisks(files);
        return ResetResult::Unchanged;
    }
    return completeReset(files) ? ResetResult::Done : ResetResult::Pending;
}

bool QEMUEngine::makeResetDisks(const QDir &reference, const QEMUDeviceFiles &files) const
{
    const QString newSystem = files.systemDisk() + kResetSuffix;
    const QString newData = files.dataDisk() + kResetSuffix;
    if (!discardResetDisks(files)) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to clean" << files.directory();
        return false;
    }
    const QFileInfo referenceData(reference, kDataDisk);
    bool made = createDisk(QFileInfo(reference, kSystemDisk), QFileInfo(newSystem));
    if (!made)
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to create system disk" << files.directory();
    else if (!(made = copyDisk(referenceData.absoluteFilePath(), newData) && QFileInfo(newData).size() == referenceData.size()))
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to copy data disk" << files.directory();
    for (const QString &path : {newSystem, newData, files.directory()}) {
        if (made && !(made = FileUtils::flushToDisk(path)))
            qCCritical(hvQemuLog) << "[VMTools]" << "Failed to flush" << path << ":" << std::strerror(errno);
    }
    if (!made)
        discardResetDisks(files);
    return made;
}

bool QEMUEngine::discardResetDisks(const QEMUDeviceFiles &files) const
{
    return deleteDisk(files.systemDisk() + kResetSuffix) && deleteDisk(files.dataDisk() + kResetSuffix);
}

bool QEMUEngine::completeReset(const QEMUDeviceFiles &files) const
{
    // A disk already renamed by an earlier attempt has no temporary name
    // left: each step can be done again.
    for (const QString &disk : {files.dataDisk(), files.systemDisk()}) {
        const QByteArray fresh = QFile::encodeName(disk + kResetSuffix);
        if (QFile::exists(QFile::decodeName(fresh))
            && std::rename(fresh.constData(), QFile::encodeName(disk).constData()) != 0) {
            qCCritical(hvQemuLog) << "[VMTools]" << "Failed to replace" << disk << ":" << std::strerror(errno);
            return false;
        }
    }
    if (!FileUtils::flushToDisk(files.directory())) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to flush" << files.directory() << ":" << std::strerror(errno);
        return false;
    }
    // The records of the states saved in the old disks describe none now.
    for (const QString &record : {files.savedStates(), files.resetMarker()}) {
        if (QFile::exists(record) && !QFile::remove(record)) {
            qCCritical(hvQemuLog) << "[VMTools]" << "Failed to remove" << record;
            return false;
        }
    }
    if (!FileUtils::flushToDisk(files.directory()))
        qCWarning(hvQemuLog) << "[VMTools]" << "Failed to flush" << files.directory() << ":" << std::strerror(errno);
    return true;
}

bool QEMUEngine::finishInterruptedReset(const QString &devicePath) const
{
    const QEMUDeviceFiles files(devicePath);
    if (QFileInfo::exists(files.resetMarker())) {
        qCInfo(hvQemuLog) << "[VMTools]" << "Finishing the factory reset of" << QDir(devicePath).dirName()
                << "that was interrupted after its new disks were complete";
        return completeReset(files);
    }
    // Without the marker the new disks may be incomplete: the old ones are
    // the device's, and what there is of the new ones goes.
    if (QFileInfo::exists(files.systemDisk() + kResetSuffix) || QFileInfo::exists(files.dataDisk() + kResetSuffix)) {
        qCInfo(hvQemuLog) << "[VMTools]" << "Removing the unfinished disks of an interrupted factory reset of"
                << QDir(devicePath).dirName();
        return discardResetDisks(files);
    }
    return true;
}

QEMUMachine *QEMUEngine::loadMachine(const QString &path) const
{
    if (!QFileInfo(path).isDir() || isLinkedDeviceDirectory(path))
        return nullptr;
    // A reset left half-way by a killed command is finished first, unless a
    // command holds the device (it does so itself).
    const QEMUDeviceFiles files(path);
    if (QFileInfo::exists(files.resetMarker())) {
        LockFiles::CommandLock lock;
        if (lock.acquire(files.commandLock(), QStringLiteral("finishing an interrupted factory reset"), 0)
            == LockFiles::CommandLock::Taken)
            finishInterruptedReset(path);
    }
    auto machine = std::make_unique<QEMUMachine>(const_cast<QEMUEngine *>(this), path);
    if (!machine->load())
        return nullptr;
    if (!isMarked(path))
        adoptDirectory(path);
    return machine.release();
}

bool QEMUEngine::isDeviceDirectory(const QString &path, bool adopt)
{
    if (!QFileInfo(path).isDir() || QFileInfo(path).isSymLink())
        return false;
    if (isMarked(path))
        return true;
    QEMUMachine record(nullptr, path);
    if (!record.load())
        return false;
    if (adopt)
        adoptDirectory(path);
    return true;
}

void QEMUEngine::adoptDirectory(const QString &path)
{
    // A device an earlier version made: it gets the marker it would have
    // had, so that it stays the system's even once its record breaks.
    if (FileUtils::saveFile(QEMUDeviceFiles(path).marker(), kMarkerText))
        qCInfo(hvQemuLog) << "[VMTools]" << "Adopted the device directory" << path << "made by an earlier version";
}

QString QEMUEngine::foreignDevicesDirectoryReason(const QString &dir) const
{
    const QDir directory(dir);
    const QFileInfoList entries = directory.entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System |
                                                          QDir::NoDotAndDotDot, QDir::Name);
    QStringList foreign;
    for (const QFileInfo &entry : entries) {
        if (entry.fileName() == portOffsetLockName() || isDeviceDirectory(entry.absoluteFilePath(), false) ||
            parseLeftover(entry).pid >= 0)
            return QString();
        foreign << QLatin1Char('\'') + entry.fileName() + QLatin1Char('\'');
    }
    if (foreign.isEmpty())
        return QString();
    const int shown = 3;
    return QStringLiteral("'%1' holds %2%3 and no device the system made; choose an empty or new folder")
        .arg(directory.absolutePath(), QStringList(foreign.mid(0, shown)).join(QLatin1String(", ")),
             foreign.size() > shown ? QStringLiteral(" and %1 more").arg(foreign.size() - shown) : QString());
}

QEMUMachine *QEMUEngine::loadDevice(const QString &path) const
{
    return loadMachine(path);
}

QStringList QEMUEngine::getMachineNames() const
{
    // Hidden entries are what interrupted creations, clones and deletions left.
    return m_devicesDirectory.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
}

QList<QEMUMachine *> QEMUEngine::loadMachines(const std::function<bool()> &cancel) const
{
    QList<QEMUMachine *> machines;
    for (const QString &name : getMachineNames()) {
        if (cancel && cancel()) {
            qCDebug(hvQemuLog) << "[VMTools]" << "Listing devices cancelled";
            break;
        }
        if (QEMUMachine *machine = loadMachine(m_devicesDirectory.absoluteFilePath(name)))
            machines.append(machine);
    }
    return machines;
}

QList<VMToolsMachine *> QEMUEngine::getMachines(std::function<bool()> cancel)
{
    QList<VMToolsMachine *> machines;
    for (QEMUMachine *machine : loadMachines(cancel))
        machines.append(machine);
    return machines;
}

QString QEMUEngine::deviceEntryPath(const QString &name) const
{
    return isValidDeviceName(name) ? m_devicesDirectory.absoluteFilePath(name) : QString();
}

VMToolsMachine *QEMUEngine::getMachine(const QString &name)
{
    if (!isValidDeviceName(name))
        return nullptr;
    return loadMachine(m_devicesDirectory.absoluteFilePath(name));
}

QString QEMUEngine::brokenReason(const QString &path) const
{
    QEMUMachine record(const_cast<QEMUEngine *>(this), path);
    const QString config = record.getConfigFilePath();
    if (!QFileInfo::exists(config))
        return QStringLiteral("it has no device configuration file '%1'").arg(config);
    if (!FileUtils::loadJson(config).isObject())
        return QStringLiteral("its device configuration file '%1' is not a JSON object").arg(config);
    const QString problem = record.VMToolsMachine::load() ? record.recordProblem() : QString();
    if (!problem.isEmpty())
        return problem;
    return QStringLiteral("its device configuration file '%1' does not describe a device of this engine "
                          "with a valid hardware profile")
        .arg(config);
}

QList<QEMUMachine *> QEMUEngine::scanMachines(QList<QPair<QString, QString>> *broken) const
{
    // One pass over the directory: listing a thousand devices reads each
    // device.json once.
    QList<QEMUMachine *> machines;
    for (const QString &name : getMachineNames()) {
        const QString path = m_devicesDirectory.absoluteFilePath(name);
        if (QEMUMachine *machine = loadMachine(path))
            machines.append(machine);
        else if (broken && isBrokenDevice(path))
            broken->append({name, brokenReason(path)});
    }
    return machines;
}

QList<QPair<QString, QString>> QEMUEngine::getBrokenMachines() const
{
    QList<QPair<QString, QString>> broken;
    qDeleteAll(scanMachines(&broken));
    return broken;
}

bool QEMUEngine::deleteBrokenMachine(const QString &name) const
{
    if (!isValidDeviceName(name) || !QFileInfo(m_devicesDirectory.absoluteFilePath(name)).isDir()) {
        qCWarning(hvQemuLog) << "[VMTools]" << "No device directory" << name;
        return false;
    }
    if (!isBrokenDevice(m_devicesDirectory.absoluteFilePath(name))) {
        qCWarning(hvQemuLog) << "[VMTools]" << "Refusing to delete" << m_devicesDirectory.absoluteFilePath(name)
                   << ": the system did not make it";
        return false;
    }
    const QEMUMachine record(const_cast<QEMUEngine *>(this), m_devicesDirectory.absoluteFilePath(name));
    return deleteMachine(&record);
}

bool QEMUEngine::doesMachineExistInHypervisor(const QString &name) const
{
    if (!isValidDeviceName(name))
        return false;
    std::unique_ptr<QEMUMachine> machine(loadMachine(m_devicesDirectory.absoluteFilePath(name)));
    return machine != nullptr;
}
