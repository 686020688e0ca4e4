#include "VMToolsEngine.h"

#include "FileUtils.h"
#include "Logging_p.h"
#include "Paths.h"
#include "Settings.h"
#include "SysInfo.h"
#include "SystemInfo.h"
#include "VMToolsCpu_p.h"
#include "VMToolsMachine.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QLibrary>

#include <dlfcn.h>

#include <thread>

namespace {

const QString kQemuEngine = QStringLiteral("qemu");
const QString kVirtualBoxEngine = QStringLiteral("virtualbox");
const QString kHypervisorKey = QStringLiteral("hypervisor");

using EngineFactory = VMToolsEngine *(*)();
using EngineVersion = const char *(*)();

// The entry points of an engine plug-in: the factory, and the version of the
// library the plug-in was built with. The engine's binary interface is the
// library's classes, so a plug-in works only with the library of its own
// version.
const char kFactoryEntry[] = "getVMToolsEngine";
const char kVersionEntry[] = "getVMToolsEngineVersion";

// The directory of this library's own file, as the dynamic loader found it.
QString libraryDirectory()
{
    Dl_info info;
    if (!dladdr(reinterpret_cast<void *>(&libraryDirectory), &info) || !info.dli_fname)
        return QString();
    return QFileInfo(QFile::decodeName(info.dli_fname)).canonicalPath();
}

// Where an engine plug-in is looked for, in order: "plugins" beside the
// application, then the library's own plug-in directory, found from where the
// library lies now (an installed tree that was moved still finds its own).
QStringList pluginDirectories()
{
    QStringList directories{QCoreApplication::applicationDirPath() + QStringLiteral("/plugins")};
    const QString library = libraryDirectory();
    if (!library.isEmpty())
        directories << library + QStringLiteral("/" HV_PLUGIN_SUBDIR);
    directories.removeDuplicates();
    return directories;
}

// The factory of the plug-in at that path, or null with the reason in the
// message: the file does not load, has no factory, or was built with another
// version of the library.
EngineFactory openPlugin(const QString &path, QString *message)
{
    // The library object goes away on return without unloading: the engine's
    // code must stay mapped for as long as the engine lives.
    QLibrary library(path);
    const auto factory = reinterpret_cast<EngineFactory>(library.resolve(kFactoryEntry));
    if (!factory) {
        *message = QStringLiteral("%1 is not an engine plug-in: %2").arg(path, library.errorString());
        return nullptr;
    }
    const auto version = reinterpret_cast<EngineVersion>(library.resolve(kVersionEntry));
    const QString own = QStringLiteral("Halvistrom core " HV_PRODUCT_VERSION);
    const QString built = version ? QStringLiteral("Halvistrom core ") + QString::fromUtf8(version())
                                  : QStringLiteral("an unknown version of Halvistrom core");
    if (built == own)
        return factory;
    *message = QStringLiteral("the engine plug-in %1 was built for %2, but this library is %3: install the plug-in "
                              "of the same version")
                   .arg(path, built, own);
    return nullptr;
}

// The factory of the named engine's plug-in from the first place that holds
// its file, or null with the reason in the message.
EngineFactory findPlugin(const QString &name, const QString &baseName, QString *message)
{
    const QString fileName = QStringLiteral("lib%1.so").arg(baseName);
    const QStringList directories = pluginDirectories();
    for (const QString &directory : directories) {
        const QString path = QDir(directory).filePath(fileName);
        if (QFileInfo::exists(path))
            return openPlugin(path, message);
    }
    *message = QStringLiteral("the %1 engine plug-in (%2) was not found in %3")
                   .arg(name, fileName, directories.join(QStringLiteral(" or ")));
    return nullptr;
}

const QFileDevice::Permissions kOthersAndGroup = QFileDevice::ReadGroup | QFileDevice::WriteGroup
    | QFileDevice::ExeGroup | QFileDevice::ReadOther | QFileDevice::WriteOther | QFileDevice::ExeOther;

} // namespace

VMToolsEngine::VMToolsEngine()
{
    m_cpuVendor = VMToolsCpu::vendor(VMToolsCpu::cpuid);
    qCDebug(hvEngineLog) << "[VMTools]" << "Chipset:" << m_cpuVendor;
    updateCPUVirtualizationAvailability();
    m_devicesDirectory = QDir(getDevicesDirectorySetting());
    closeOpenDevices();
}

void VMToolsEngine::closeOpenDevices() const
{
    // A devices directory of the user's choosing may lie outside the data
    // tree that the path layout closes. The directory itself may be shared
    // (it is the user's choice), but each device in it that an older version
    // left open is closed, once: a closed device directory is not walked
    // again.
    const QString tree = QDir(Paths::getOrganizationPath()).absolutePath() + QLatin1Char('/');
    if (m_devicesDirectory.absolutePath().startsWith(tree))
        return;
    const QFileInfoList devices =
        m_devicesDirectory.entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::NoSymLinks | QDir::Hidden);
    for (const QFileInfo &device : devices) {
        const QString path = device.absoluteFilePath();
        if ((device.permissions() & kOthersAndGroup) && QFileInfo::exists(VMToolsMachine::configFilePath(path)))
            FileUtils::makePrivate(path);
    }
}

QString VMToolsEngine::devicesDirectoryKey()
{
    return QStringLiteral("virtual_devices.directory");
}

QString VMToolsEngine::getDevicesDirectorySetting()
{
    const QString key = devicesDirectoryKey();
    const QString value = Settings::get(key, Paths::getDeployedPath()).toString();
    // A relative value would put devices wherever the program happens to run.
    if (!QDir::isAbsolutePath(value)) {
        qCWarning(hvEngineLog) << "[VMTools]" << "Ignoring the setting" << key << "=" << value
                   << ": not an absolute path; using" << Paths::getDeployedPath();
        return Paths::getDeployedPath();
    }
    return value;
}

VMToolsEngine::~VMToolsEngine() = default;

bool VMToolsEngine::doesMachineExist(const QString &name) const
{
    return doesMachineExistInHypervisor(name) || doesMachineExistInDir(name);
}

bool VMToolsEngine::doesMachineExistInDir(const QString &name) const
{
    // The devices directory the setting names, not the default one: a name
    // taken only there is free here.
    if (name.isEmpty() || name.contains(QLatin1Char('/')) || name == QLatin1String(".") || name == QLatin1String(".."))
        return false;
    return QFileInfo(m_devicesDirectory.absoluteFilePath(name)).isDir();
}

QStringList VMToolsEngine::fetchSnapshotNames(const VMToolsMachine *) const
{
    return QStringList();
}

bool VMToolsEngine::saveSnapshot(VMToolsMachine *, const QString &) const
{
    return true;
}

bool VMToolsEngine::deleteSnapshot(const VMToolsMachine *, const QString &) const
{
    return true;
}

VMToolsEngine::LoadResult VMToolsEngine::loadEngine(InitMode mode)
{
    // A host that translates x86 code cannot run any other engine.
    if (SysInfo().isRosettaUi())
        Settings::set(kHypervisorKey, kQemuEngine);
    QString name = Settings::get(kHypervisorKey, kQemuEngine).toString();
    if (name != kQemuEngine && name != kVirtualBoxEngine)
        name = kQemuEngine;

    const LoadResult result = loadEngine(name, mode);
    // Written only when it changes: every program of the product loads the
    // engine, and most runs would otherwise rewrite the settings file.
    if (result.status == 0 && Settings::get(kHypervisorKey, QString()).toString() != name)
        Settings::set(kHypervisorKey, name);
    return result;
}

VMToolsEngine::LoadResult VMToolsEngine::loadEngine(const QString &name, InitMode mode)
{
    LoadResult result;
    QString baseName;
    if (name == kQemuEngine) {
        baseName = QStringLiteral("qemu");
    } else if (name == kVirtualBoxEngine) {
        baseName = QStringLiteral("vboxmanage");
    } else {
        qCCritical(hvEngineLog) << "[VMTools]" << "Tried to load unknown virtual engine" << name;
        return result;
    }

    qCDebug(hvEngineLog) << "[VMTools]" << "Loading" << name << "plugin";
    const EngineFactory factory = findPlugin(name, baseName, &result.message);
    // The caller shows the message; the log keeps it for a debugging session.
    if (!factory) {
        qCDebug(hvEngineLog) << "[VMTools]" << result.message;
        return result;
    }

    qCDebug(hvEngineLog) << "[VMTools]" << "Constructing engine";
    VMToolsEngine *engine = factory();
    if (!engine) {
        result.message = QStringLiteral("the %1 engine plug-in built no engine").arg(name);
        qCCritical(hvEngineLog) << "[VMTools]" << result.message;
        return result;
    }

    qCDebug(hvEngineLog) << "[VMTools]" << "Initializing engine";
    const InitResult init = engine->initialize(mode);
    result.status = init.first;
    result.message = init.second;
    if (result.status != 0) {
        qCCritical(hvEngineLog) << "[VMTools]" << "Unable to initialize the" << name << "engine";
        delete engine;
        return result;
    }

    qCDebug(hvEngineLog) << "[VMTools]" << "VMX/SVM CPU availability:" << engine->isCPUVirtualizationAvailable();
    qCDebug(hvEngineLog) << "[VMTools]" << "VM engine version:" << engine->versionString();
    result.engine = engine;
    return result;
}

bool VMToolsEngine::isCPUVirtualizationAvailable() const
{
    return m_cpuVirtualizationAvailable;
}

void VMToolsEngine::updateCPUVirtualizationAvailability()
{
    m_cpuVirtualizationAvailable = VMToolsCpu::virtualizationAvailable(m_cpuVendor, VMToolsCpu::cpuid);
}

int VMToolsEngine::getMaxCpuCount()
{
    return static_cast<int>(std::thread::hardware_concurrency());
}

QSet<QString> VMToolsEngine::getDevicesNamesSetFromDir()
{
    const QStringList names =
        QDir(Paths::getDeployedPath()).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::NoSort);
    return QSet<QString>(names.begin(), names.end());
}

void VMToolsEngine::initMigration(AbstractHwProfileListController *controller)
{
    m_migrationController = controller;
}

QString VMToolsEngine::getCpuVendor() const
{
    return m_cpuVendor;
}

QDir VMToolsEngine::getDevicesDirectory() const
{
    return m_devicesDirectory;
}

