// Making and unmaking devices on disk: creation from an OS image, cloning,
// deletion and factory reset. Every multi-step operation is guarded by a
// scoped rollback object, so that a failure half-way leaves no half-made
// device behind.
#include "QEMUEngine.h"

#include "FileUtils.h"
#include "HwProfile.h"
#include "OsImage.h"
#include "Paths.h"
#include "QEMUDeviceFiles.h"
#include "QEMUEngineDirectoryCleaner.h"
#include "QEMUEngineDirectoryRestorer.h"
#include "QEMUMachine.h"

#include <QDebug>
#include <QDir>
#include <QFile>

#include <memory>

namespace {

const QString kSystemDisk = QEMUDeviceFiles::systemDiskName();
const QString kDataDisk = QEMUDeviceFiles::dataDiskName();
const QString kSystemVmdk = QStringLiteral("system.vmdk");
const QString kDataVmdk = QStringLiteral("data.vmdk");

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
        qWarning() << "[VMTools]" << "Invalid device name" << name;
        return false;
    }
    if (engine.doesMachineExist(name)) {
        qWarning() << "[VMTools]" << refusal << name;
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
    qWarning() << "[VMTools]" << "Refusing device directory" << path << ": it is a symbolic link to"
               << QFileInfo(path).symLinkTarget();
    return true;
}

} // namespace

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

QEMUEngine::DirectoryRestorer::DirectoryRestorer(const QDir &directory) : m_directory(directory) {}

QEMUEngine::DirectoryRestorer::~DirectoryRestorer()
{
    if (!m_enabled)
        return;
    const QString path = m_directory.absolutePath();
    qWarning() << "[VMTools]" << "Restoring" << path << "from its backup";
    if (!cleanDirectory(path) || !QDir().mkpath(path) || !FileUtils::copyDirectory(m_backup.path(), path))
        qCritical() << "[VMTools]" << "Failed to restore" << path << "from" << m_backup.path();
}

bool QEMUEngine::DirectoryRestorer::backup()
{
    if (!m_backup.isValid()) {
        qCritical() << "[VMTools]" << "Failed to create a temporary directory:" << m_backup.errorString();
        return false;
    }
    return FileUtils::copyDirectory(m_directory.absolutePath(), m_backup.path());
}

void QEMUEngine::DirectoryRestorer::disable()
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
    const QString devicePath = m_devicesDirectory.absoluteFilePath(name);
    DirectoryCleaner cleaner{QDir(devicePath)};
    if (!cleanDirectory(devicePath)) {
        qCritical() << "[VMTools]" << "Failed to clean" << devicePath;
        return 1;
    }
    if (!QDir().mkpath(devicePath)) {
        qCritical() << "[VMTools]" << "Failed to create directory" << devicePath;
        return 1;
    }

    const QDir reference(Paths::getSystemImagePath(imageVersion, osVersion));
    const QFileInfo referenceSystem(reference, kSystemDisk);
    const QFileInfo referenceData(reference, kDataDisk);
    // Once both reference disks are converted the archive is not needed any
    // more: extracting it again would only bring back the vmdk files that the
    // conversion removed.
    if (!(referenceSystem.exists() && referenceData.exists()) &&
        !extractOva(ovaPath, imageVersion, osVersion)) {
        qCritical() << "[VMTools]" << "Failed to extract OVA" << ovaPath;
        return 1;
    }
    if (!referenceSystem.exists() && !convertDisk(QFileInfo(reference, kSystemVmdk), referenceSystem)) {
        qCritical() << "[VMTools]" << "Failed to get system disk info" << reference.absolutePath();
        return 2;
    }
    if (!referenceData.exists() && !convertDisk(QFileInfo(reference, kDataVmdk), referenceData)) {
        qCritical() << "[VMTools]" << "Failed to get data disk info" << reference.absolutePath();
        return 2;
    }

    const QDir device(devicePath);
    if (!createDisk(referenceSystem, QFileInfo(device, kSystemDisk))) {
        qCritical() << "[VMTools]" << "Failed to create disks" << devicePath;
        return 2;
    }
    if (!copyDisk(referenceData.absoluteFilePath(), device.absoluteFilePath(kDataDisk))) {
        qCritical() << "[VMTools]" << "Failed to copy reference data disk to local one" << devicePath;
        return 2;
    }
    if (sdCardSize != 0 && !createSDCard(devicePath, sdCardSize)) {
        qCritical() << "[VMTools]" << "Failed to create sdcard disk" << devicePath;
        return 2;
    }
    cleaner.disable();
    return 0;
}

int QEMUEngine::createMachine(const QString &name, const OsImage &image, const HwProfile &profile)
{
    if (!isFreeDeviceName(*this, name, "Can't create already existing device"))
        return 1;
    const QString devicePath = m_devicesDirectory.absoluteFilePath(name);
    DirectoryCleaner cleaner{QDir(devicePath)};
    const int code = static_cast<const QEMUEngine *>(this)->createMachine(
        name, image.getLocalPath(), profile.sdCardSize, image.imageVersion, image.osVersion);
    if (code != 0) {
        qCritical() << "[VMTools]" << "Failed to create device" << name;
        return code;
    }
    // setProperties also records the profile's CPU, RAM and SD card values in
    // the device's configuration, then saves device.json.
    QEMUMachine machine(this, devicePath, image, profile);
    if (!machine.setProperties(profile, image)) {
        qCritical() << "[VMTools]" << "Failed to save device" << name;
        return 1;
    }
    cleaner.disable();
    return 0;
}

int QEMUEngine::cloneMachine(VMToolsMachine *source, const QString &newName)
{
    if (!source) {
        qCritical() << "[VMTools]" << "Cannot clone null machine";
        return 1;
    }
    if (isLinkedDeviceDirectory(source->getPath()))
        return 1;
    if (!isFreeDeviceName(*this, newName, "Can't clone to already existing device"))
        return isValidDeviceName(newName) ? 2 : 1;
    const QString targetPath = m_devicesDirectory.absoluteFilePath(newName);
    DirectoryCleaner cleaner{QDir(targetPath)};
    if (!cleanDirectory(targetPath)) {
        qCritical() << "[VMTools]" << "Failed to clean" << targetPath;
        return 1;
    }
    if (!FileUtils::copyDirectory(source->getPath(), targetPath)) {
        qCritical() << "[VMTools]" << "Failed to copy" << source->getPath() << targetPath;
        return 1;
    }
    // The source's lock file names the source's emulator: the clone does not
    // run, and must not take over that pid and port offset.
    QFile::remove(QEMUDeviceFiles(targetPath).lockFile());
    std::unique_ptr<VMToolsMachine> clone(getMachine(newName));
    if (!clone) {
        qCritical() << "[VMTools]" << "Failed to retrieve cloned device" << newName;
        return 1;
    }
    auto *qemuClone = dynamic_cast<QEMUMachine *>(clone.get());
    if (!qemuClone || !qemuClone->changeUuid()) {
        qCritical() << "[VMTools]" << "Failed to update UUID of cloned device" << newName;
        return 1;
    }
    cleaner.disable();
    return 0;
}

bool QEMUEngine::deleteMachine(const VMToolsMachine *machine) const
{
    if (!machine) {
        qCritical() << "[VMTools]" << "Cannot delete null machine";
        return false;
    }
    qDebug() << "[VMTools]" << "deleteMachine() with path" << machine->getPath();
    if (isLinkedDeviceDirectory(machine->getPath()))
        return false;
    if (!QDir(machine->getPath()).removeRecursively()) {
        qCritical() << "[VMTools]" << "Failed to remove" << machine->getPath();
        return false;
    }
    return true;
}

bool QEMUEngine::resetFactory(const VMToolsMachine *machine) const
{
    if (!machine) {
        qCritical() << "[VMTools]" << "Cannot factory reset null machine";
        return false;
    }
    if (isLinkedDeviceDirectory(machine->getPath()))
        return false;
    const QDir reference(Paths::getSystemImagePath(machine->getHalvistromVersion(), machine->getAndroidVersion()));
    const QFileInfo referenceSystem(reference, kSystemDisk);
    const QFileInfo referenceData(reference, kDataDisk);
    if (!referenceSystem.exists() || !referenceData.exists()) {
        qCritical() << "[VMTools]" << "Reference disks don't exist" << reference.absolutePath();
        return false;
    }
    const QDir device(machine->getPath());
    DirectoryRestorer restorer(device);
    if (!restorer.backup()) {
        qCritical() << "[VMTools]" << "Failed to backup" << device.absolutePath();
        return false;
    }
    if (!deleteDisk(device.absoluteFilePath(kSystemDisk))) {
        qCritical() << "[VMTools]" << "Failed to delete system disk" << device.absolutePath();
        return false;
    }
    if (!deleteDisk(device.absoluteFilePath(kDataDisk))) {
        qCritical() << "[VMTools]" << "Failed to delete data disk" << device.absolutePath();
        return false;
    }
    if (!createDisk(referenceSystem, QFileInfo(device, kSystemDisk))) {
        qCritical() << "[VMTools]" << "Failed to create system disk" << device.absolutePath();
        return false;
    }
    if (!copyDisk(referenceData.absoluteFilePath(), device.absoluteFilePath(kDataDisk))) {
        qCritical() << "[VMTools]" << "Failed to copy data disk" << device.absolutePath();
        return false;
    }
    restorer.disable();
    return true;
}

QEMUMachine *QEMUEngine::loadMachine(const QString &path) const
{
    if (!QFileInfo(path).isDir() || isLinkedDeviceDirectory(path))
        return nullptr;
    auto machine = std::make_unique<QEMUMachine>(const_cast<QEMUEngine *>(this), path);
    if (!machine->load())
        return nullptr;
    return machine.release();
}

QList<QEMUMachine *> QEMUEngine::loadMachines(const std::function<bool()> &cancel) const
{
    QList<QEMUMachine *> machines;
    const QStringList names = m_devicesDirectory.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    for (const QString &name : names) {
        if (cancel && cancel()) {
            qDebug() << "[VMTools]" << "Listing devices cancelled";
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

VMToolsMachine *QEMUEngine::getMachine(const QString &name)
{
    if (!isValidDeviceName(name))
        return nullptr;
    return loadMachine(m_devicesDirectory.absoluteFilePath(name));
}

bool QEMUEngine::doesMachineExistInHypervisor(const QString &name) const
{
    if (!isValidDeviceName(name))
        return false;
    std::unique_ptr<QEMUMachine> machine(loadMachine(m_devicesDirectory.absoluteFilePath(name)));
    return machine != nullptr;
}
