#include "QEMUMachine.h"

#include "QEMUClient.h"
#include "QEMUConsoleLog_p.h"
#include "QEMUDeviceFiles.h"
#include "QEMUEngine.h"
#include "ReferenceDisks.h"
#include "QEMUErrorDiagnosis.h"
#include "QEMULockFile_p.h"
#include "QEMULogging_p.h"
#include "QEMUPortTable_p.h"
#include "QEMUSnapshotTable.h"
#include "EnvVars.h"
#include "FileUtils.h"
#include "Paths.h"
#include "VMToolsCommon.h"

#include <QDebug>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QThread>
#include <QUuid>

#include <algorithm>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>

#include <sys/stat.h>

namespace {

const char kUuidKey[] = "uuid";
const char kVirtualizerKey[] = "virtualizer";
const char kVirtualizer[] = "QEMU";
const char kLocalAddress[] = "127.0.0.1";

// The guest's ADB daemon listens on 5555; the host side sits 1000 above it.
const int kAdbHostShift = 1000;

// How long a start waits for the emulator to answer on its monitor with a
// running machine. Loading a large saved state takes seconds; an emulator
// that has neither ended nor answered after this is stuck.
const int kReadyTimeoutMs = 30000;
// How long a guest let go after a disk error has to fail again before it
// counts as going on: the emulator retries the failed requests at once.
const int kResumeSettleMs = 500;

// The value following option in an emulator's arguments; empty when absent.
QString optionValue(const QStringList &arguments, const QString &option)
{
    const int at = arguments.lastIndexOf(option);
    return at >= 0 ? arguments.value(at + 1) : QString();
}

quint16 shifted(int base, int offset)
{
    return quint16(base + offset);
}

} // namespace

QEMUMachine::QEMUMachine(QEMUEngine *engine, const QString &path)
    : VMToolsMachine(path), m_engine(engine)
{
    refreshPortOffset();
}

QEMUMachine::QEMUMachine(QEMUEngine *engine, const QString &path, const OsImage &image, const HwProfile &profile)
    : QEMUMachine(engine, path)
{
    setOsImage(image);
    setHwProfile(profile);
    setExtraKey(QLatin1String(kUuidKey), QUuid::createUuid().toString());
    setExtraKey(QLatin1String(kVirtualizerKey), QLatin1String(kVirtualizer));
}

QEMUMachine::~QEMUMachine() = default;

bool QEMUMachine::save() const
{
    if (isQEMURunning())
        qCWarning(hvQemuLog) << "[VMTools]" << "Writing in shared folder while QEMU is running is not recommended";
    return VMToolsMachine::save();
}

bool QEMUMachine::load()
{
    if (!VMToolsMachine::load())
        return false;
    const QString virtualizer = getExtraKey(QLatin1String(kVirtualizerKey)).toString();
    if (virtualizer != QLatin1String(kVirtualizer)) {
        qCWarning(hvQemuLog) << "[VMTools]" << "Not a QEMU device:" << getName() << "virtualizer" << virtualizer;
        return false;
    }
    const QString problem = recordProblem();
    if (!problem.isEmpty()) {
        qCWarning(hvQemuLog).noquote() << "[VMTools]"
                             << QStringLiteral("Refusing the record of device \"%1\": %2").arg(getName(), problem);
        return false;
    }
    setOnLoadStatus(getStatus());
    return true;
}

QString QEMUMachine::recordProblem() const
{
    const qint64 ram = getRamSize();
    if (ram < HwProfile::MinRamSize || ram > HwProfile::MaxRamSize)
        return QStringLiteral("its record gives it %1 MB of RAM, outside %2 to %3")
            .arg(ram)
            .arg(HwProfile::MinRamSize)
            .arg(HwProfile::MaxRamSize);
    const int cpus = getCpuCount();
    if (cpus < 1 || cpus > HwProfile::MaxCpuCount)
        return QStringLiteral("its record gives it %1 processors, outside 1 to %2").arg(cpus).arg(HwProfile::MaxCpuCount);
    const QString image = imageProblem();
    return image.isEmpty() ? referenceProblem() : image;
}

QString QEMUMachine::imageProblem() const
{
    if (!m_engine)
        return QString();
    const OsImage recorded = getOsImage();
    const OsImage registered = m_engine->getRegisteredImage(recorded.uuid);
    if (registered.uuid.isEmpty()
        || (recorded.imageUri == registered.imageUri
            && recorded.imageHash.compare(registered.imageHash, Qt::CaseInsensitive) == 0
            && recorded.imageVersion == registered.imageVersion && recorded.osVersion == registered.osVersion))
        return QString();
    return QStringLiteral("its record names the image '%1' at '%2' with checksum '%3', but that image is registered "
                          "at '%4' with checksum '%5'")
        .arg(recorded.uuid, recorded.imageUri, recorded.imageHash, registered.imageUri, registered.imageHash);
}

QString QEMUMachine::referenceProblem() const
{
    // The disk's header is out of the guest's reach. Only the directory of
    // the image's versions is looked at: the record's address would name a
    // file to read, and that is what is being checked.
    const QString backing = QEMUSnapshotTable::backingFile(files().systemDisk());
    if (backing.isEmpty())
        return QString();
    const OsImage image = getOsImage();
    const QString directory = QFileInfo(backing).absolutePath();
    const QString versions = QDir::cleanPath(Paths::getSystemImagePath(image.imageVersion, image.osVersion));
    // Devices of the previous layout are backed by the versions' own disks.
    if (directory == versions || QFileInfo(directory).absolutePath() == versions)
        return QString();
    return QStringLiteral("its record names the reference disks of image %1 for Android %2 in '%3', but its system "
                          "disk is backed by '%4'")
        .arg(image.imageVersion.toString(), image.osVersion.toString(), versions, backing);
}

bool QEMUMachine::reloadProperties()
{
    return load();
}

void QEMUMachine::reloadVmInfo()
{
    refreshPortOffset();
}

void QEMUMachine::dumpInfos(QFile *) {}

QString QEMUMachine::getName() const
{
    return QDir(getPath()).dirName();
}

bool QEMUMachine::setName(const QString &name)
{
    const QString oldName = getName();
    if (name.isEmpty() || name == QLatin1String(".") || name == QLatin1String("..")
        || name.contains(QLatin1Char('/'))) {
        qCWarning(hvQemuLog) << "[VMTools]" << "Invalid device name" << name;
        return false;
    }
    QDir parent(getPath());
    parent.cdUp();
    if (parent.exists(name)) {
        qCWarning(hvQemuLog) << "[VMTools]" << "Cannot rename" << oldName << "to" << name << ": the name is taken";
        return false;
    }
    if (!parent.rename(oldName, name)) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to rename" << getPath() << "to" << parent.filePath(name);
        return false;
    }
    setPath(parent.filePath(name));
    return true;
}

QString QEMUMachine::getUuid() const
{
    return getExtraKey(QLatin1String(kUuidKey)).toString();
}

bool QEMUMachine::setUuid(const QString &uuid)
{
    setExtraKey(QLatin1String(kUuidKey), uuid);
    return save();
}

bool QEMUMachine::changeUuid()
{
    return setUuid(QUuid::createUuid().toString());
}

int QEMUMachine::getStatus() const
{
    return isQEMURunning() ? On : Off;
}

int QEMUMachine::getRunState(QString *reason) const
{
    reason->clear();
    if (!isQEMURunning())
        return Off;
    QEMUClient client(getQmpSocketPath());
    // "io-error" is the state the emulator enters when a disk's error
    // policy (the launch line's werror and rerror) stops the guest.
    if (client.queryRunState() != QLatin1String("io-error"))
        return On;
    const QStringList errors = client.queryDiskErrors();
    *reason = errors.isEmpty() ? QStringLiteral("a disk error") : errors.join(QLatin1String("; "));
    return Paused;
}

bool QEMUMachine::resumeFromDiskError(QString *reason) const
{
    QEMUClient client(getQmpSocketPath());
    if (client.queryRunState() != QLatin1String("io-error")) {
        *reason = QStringLiteral("its emulator cannot be asked");
        return false;
    }
    if (!client.execCont()) {
        *reason = QStringLiteral("its emulator refused to go on");
        return false;
    }
    // The emulator retries the failed requests at once: a disk still full
    // stops the guest again within milliseconds.
    QThread::msleep(kResumeSettleMs);
    const QString state = client.queryRunState();
    if (state == QLatin1String("running"))
        return true;
    const QStringList errors = client.queryDiskErrors();
    *reason = errors.isEmpty() ? QStringLiteral("it stopped again (%1)").arg(state) : errors.join(QLatin1String("; "));
    return false;
}

QString QEMUMachine::getIPAddress() const
{
    return QLatin1String(kLocalAddress);
}

QString QEMUMachine::waitForIP(std::function<bool()>)
{
    return QLatin1String(kLocalAddress);
}

QString QEMUMachine::getAdbSerial() const
{
    return QStringLiteral("%1:%2").arg(QLatin1String(kLocalAddress)).arg(getAdbPort());
}

VMToolsMachine::AdapterType QEMUMachine::getAdapterType(unsigned int) const
{
    return Null;
}

bool QEMUMachine::setAdapterType(unsigned int, AdapterType, const QString &)
{
    qCDebug(hvQemuLog) << "[VMTools]" << "Network adapters of a QEMU device cannot be changed";
    return false;
}

bool QEMUMachine::createFactoryBackup()
{
    // The reference disks of the OS image are the factory state; there is
    // nothing to back up.
    return true;
}

bool QEMUMachine::resetFactory()
{
    if (!m_engine) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Cannot factory reset" << getName() << "without its engine";
        return false;
    }
    return m_engine->resetFactory(this);
}

VMToolsMachine::ConnectionInfo QEMUMachine::fetchConnectionInfo()
{
    return createUnknownConnectionInfo();
}

VMToolsMachine::ConnectionInfo QEMUMachine::getConnectionInfo() const
{
    return createUnknownConnectionInfo();
}

bool QEMUMachine::setConnectionInfo(const ConnectionInfo &)
{
    return true;
}

bool QEMUMachine::upgradeSystemDisk(const OsImage &image) const
{
    if (!m_engine) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Cannot upgrade the system disk of" << getName() << "without an engine";
        return false;
    }
    const QString reference =
        m_engine->prepareReferenceDisks(image.getLocalPath(), ReferenceDisks::directoryOf(image));
    const QFileInfo referenceDisk(reference, QEMUDeviceFiles::systemDiskName());
    if (reference.isEmpty()) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to get system disk info" << image.getLocalPath();
        return false;
    }
    // The new overlay is built beside the old disk and replaces it in one
    // rename, so a failure leaves the device with the disk it had.
    const QString disk = files().systemDisk();
    const QString upgraded = disk + QStringLiteral(".upgrade");
    if (!m_engine->deleteDisk(upgraded) || !m_engine->createDisk(referenceDisk, QFileInfo(upgraded))) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to upgrade the system disk of" << getName();
        return false;
    }
    if (std::rename(QFile::encodeName(upgraded).constData(), QFile::encodeName(disk).constData()) != 0) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to replace" << disk << ":" << std::strerror(errno);
        m_engine->deleteDisk(upgraded);
        return false;
    }
    return true;
}

QString QEMUMachine::getSdCardPath() const
{
    return files().sdCard();
}

bool QEMUMachine::setSdCardInserted(bool inserted)
{
    // A card is recorded as inserted only with an image the next start can
    // mount.
    if (inserted && !QFile::exists(getSdCardPath())
        && (!m_engine || !m_engine->createSDCard(getPath(), getSdCardSize()))) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Cannot insert the SD card of" << getName() << ": no image at"
                    << getSdCardPath();
        return false;
    }
    return VMToolsMachine::setSdCardInserted(inserted);
}

bool QEMUMachine::setSdCardSize(long long size)
{
    const QString card = getSdCardPath();
    if (QFile::exists(card) && (!m_engine || !m_engine->resizeDisk(card, size))) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to resize the SD card of" << getName() << "to" << size << "MB";
        return false;
    }
    return VMToolsMachine::setSdCardSize(size);
}

// Ports ---------------------------------------------------------------------

int QEMUMachine::getAdbPort() const
{
    return VMToolsMachine::getAdbPort() + kAdbHostShift + m_portOffset;
}

int QEMUMachine::getFrontCameraPort() const
{
    return shifted(VMToolsMachine::getFrontCameraPort(), m_portOffset);
}

int QEMUMachine::getBackCameraPort() const
{
    return shifted(VMToolsMachine::getBackCameraPort(), m_portOffset);
}

int QEMUMachine::getAudioInputPort() const
{
    return shifted(VMToolsMachine::getAudioInputPort(), m_portOffset);
}

int QEMUMachine::getAudioOutputPort() const
{
    return shifted(VMToolsMachine::getAudioOutputPort(), m_portOffset);
}

int QEMUMachine::getRedisPort() const
{
    return shifted(VMToolsMachine::getRedisPort(), m_portOffset);
}

int QEMUMachine::getRenderMainPort() const
{
    return shifted(VMToolsMachine::getRenderMainPort(), m_portOffset);
}

int QEMUMachine::getRenderDataPort() const
{
    return shifted(VMToolsMachine::getRenderDataPort(), m_portOffset);
}

QString QEMUMachine::getQmpSocketPath() const
{
    // An emulator started by an earlier version listens where that version
    // put its socket.
    const QString recorded = readLock().qmpSocket;
    return recorded.isEmpty() ? files().qmpSocket() : recorded;
}

int QEMUMachine::getPortOffset() const
{
    return m_portOffset;
}

void QEMUMachine::refreshPortOffset()
{
    QEMULockRecord lock;
    QEMULockFile::read(getLockFilePath(), &lock);
    m_portOffset = lock.offset;
}

// Lock file and process -----------------------------------------------------

QEMUDeviceFiles QEMUMachine::files() const
{
    return QEMUDeviceFiles(getPath());
}

QString QEMUMachine::getLockFilePath() const
{
    return files().lockFile();
}

QString QEMUMachine::getLogFilePath() const
{
    return files().logFile();
}

bool QEMUMachine::createLockFile(unsigned short offset, long long pid) const
{
    return createLockFile(offset, pid, -1);
}

bool QEMUMachine::createLockFile(unsigned short offset, long long pid, int writableSharedDrive,
                                 const QString &accelerator, const QString &cpuModel) const
{
    if (isQEMURunning()) {
        qCWarning(hvQemuLog) << "[VMTools]" << "The lock file already exists and QEMU seems to run.";
        return false;
    }
    QEMULockRecord lock;
    lock.pid = pid;
    // The pid alone may later name another process: the system hands out
    // ids again. Its start time tells the emulator from a newcomer.
    lock.startTime = VMToolsCommon::processStartTime(pid);
    lock.offset = offset;
    lock.writableSharedDrive = writableSharedDrive;
    lock.qmpSocket = files().qmpSocket();
    lock.accelerator = accelerator;
    lock.cpuModel = cpuModel;
    return QEMULockFile::write(getLockFilePath(), lock);
}

bool QEMUMachine::removeLockFile() const
{
    // The socket's own directory goes with the emulator, once it is empty.
    const QString socket = readLock().qmpSocket;
    const bool removed = QFile::remove(getLockFilePath());
    if (removed && !socket.isEmpty() && QFileInfo(socket).absolutePath() == QFileInfo(files().qmpSocket()).absolutePath())
        QDir().rmdir(QFileInfo(socket).absolutePath());
    return removed;
}

QEMULockRecord QEMUMachine::readLock() const
{
    QEMULockRecord lock;
    QEMULockFile::read(getLockFilePath(), &lock);
    return lock;
}

long long QEMUMachine::loadQEMUPid() const
{
    return readLock().pid;
}

long long QEMUMachine::loadQEMUStartTime() const
{
    return readLock().startTime;
}

QString QEMUMachine::runningAccelerator() const
{
    return readLock().accelerator;
}

QString QEMUMachine::runningCpuModel() const
{
    return readLock().cpuModel;
}

QString QEMUMachine::kvmFailure() const
{
    return QEMUErrorDiagnosis::kvmFailureLine(FileUtils::loadFile(getLogFilePath()));
}

bool QEMUMachine::hasWritableSharedDrive() const
{
    const int recorded = readLock().writableSharedDrive;
    return recorded < 0 ? (getCapabilities() & VMToolsMachine::VirtioDisks) == 0 : recorded == 1;
}

bool QEMUMachine::setWritableSharedDrive(bool attached) const
{
    QEMULockRecord lock = readLock();
    if (lock.pid == 0)
        return false;
    lock.writableSharedDrive = attached ? 1 : 0;
    return QEMULockFile::write(getLockFilePath(), lock);
}

bool QEMUMachine::isRecordedEmulator(const QEMULockRecord &lock)
{
    if (lock.pid == 0)
        return false;
    if (!VMToolsCommon::isSameProcess(lock.pid, lock.startTime)) {
        qCDebug(hvQemuLog) << "[VMTools]" << "See no QEMU process with PID" << lock.pid;
        return false;
    }
    return isEmulatorProcess(lock.pid);
}

bool QEMUMachine::isEmulatorProcess(long long pid)
{
    // The live process's name is the prefix tested against the binary name,
    // so a shortened process name still counts. An empty name means no
    // process we can see, which is never the emulator.
    const QString name = VMToolsCommon::processNameByPid(pid);
    return !name.isEmpty() && QEMUEngine::getQemuSystemBinaryName().startsWith(name);
}

bool QEMUMachine::isQEMURunning() const
{
    return isRecordedEmulator(readLock());
}

int QEMUMachine::start(const QString &program, const QStringList &arguments, unsigned short offset)
{
    if (isQEMURunning()) {
        qCWarning(hvQemuLog) << "[VMTools]" << "QEMU process is already running.";
        return Started;
    }
    const int launched = launch(program, arguments, offset);
    if (launched != Started)
        return launched;
    const int loadvm = arguments.indexOf(QStringLiteral("-loadvm"));
    return waitUntilReady(loadvm >= 0 && loadvm + 1 < arguments.size() ? arguments.at(loadvm + 1) : QString());
}

int QEMUMachine::launch(const QString &program, const QStringList &arguments, unsigned short offset)
{
    m_launchedPid = 0;
    m_startFailure.clear();
    m_startCause.clear();
    if (!m_engine) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Cannot start" << getName() << "without an engine";
        return StartFailed;
    }
    if (!m_engine->isAccelerationSupported()) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Hardware acceleration is not supported, cannot start" << getName();
        return AccelerationNotSupported;
    }
    if (!prepareDirectories())
        return StartFailed;

    if (!QFileInfo(program).isExecutable()) {
        qCCritical(hvQemuLog) << "[VMTools]" << "There is no emulator program at" << program;
        return EmulatorMissing;
    }
    const QString log = getLogFilePath();
    // The emulator outlives us: it must not hold our terminal or our output.
    qint64 pid = 0;
    if (!VMToolsCommon::startDetached(program, arguments, log, &pid)) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to start QEMU process with cmd:" << program << "args:"
                    << arguments.join(QLatin1String(", "));
        return StartFailed;
    }

    // Whether the emulator gets the writable view of the shared folder shows
    // on its command line; a snapshot save must detach that drive first.
    const bool writableShared = std::any_of(arguments.begin(), arguments.end(), [](const QString &argument) {
        return argument.startsWith(QLatin1String("format=vvfat")) && argument.contains(QLatin1String("fat:rw:"));
    });
    if (!createLockFile(offset, pid, writableShared ? 1 : 0, optionValue(arguments, QStringLiteral("-accel")),
                        optionValue(arguments, QStringLiteral("-cpu")))) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed create lock file.";
        // The lock file may not name the process just started; stop that one
        // directly so that it does not run on unrecorded.
        VMToolsCommon::destroyProcess(pid);
        return StartFailed;
    }
    m_launchedPid = pid;
    m_launchedStartTime = VMToolsCommon::processStartTime(pid);
    m_launchedOffset = offset;
    return Started;
}

bool QEMUMachine::prepareDirectories() const
{
    // The control socket's own directory, the owner's only, before the
    // emulator binds the socket in it.
    if (!files().makeSocketDirectory())
        return false;
    makeDevicePrivate();
    QEMUConsoleLog(getPath()).rotate();
    return true;
}

int QEMUMachine::waitForPorts(const QVector<int> &ports)
{
    const long long pid = m_launchedPid;
    const long long startTime = m_launchedStartTime;
    QElapsedTimer waited;
    waited.start();
    // The emulator binds its forwards while it sets up its devices, before it
    // loads any saved state: a fraction of a second.
    while (!QEMUPortTable::areListenedOnBy(pid, ports)) {
        if (!VMToolsCommon::isSameProcess(pid, startTime))
            return diagnoseEnd();
        if (waited.elapsed() > readyTimeoutMs())
            return abandonLaunch(PortsNotBound, QStringLiteral("QEMU did not open its forwarded ports within %1 s "
                                                               "and was stopped")
                                                    .arg(readyTimeoutMs() / 1000.0));
        QThread::msleep(2);
    }
    return Started;
}

int QEMUMachine::waitUntilReady(const QString &snapshotName)
{
    const long long pid = m_launchedPid;
    const long long startTime = m_launchedStartTime;
    const qint64 stateBytes = snapshotName.isEmpty() ? 0 : savedStateBytes(snapshotName);
    const int timeoutMs = readyTimeoutMs(stateBytes);
    QEMUClient probe(getQmpSocketPath());
    const QEMUClient::Readiness readiness = probe.waitUntilRunning(
        [pid, startTime] { return VMToolsCommon::isSameProcess(pid, startTime); }, timeoutMs);
    switch (readiness) {
    case QEMUClient::Readiness::Running:
        makeSocketPrivate(getQmpSocketPath());
        m_portOffset = m_launchedOffset;
        startTimer();
        return Started;
    case QEMUClient::Readiness::ProcessEnded:
        return diagnoseEnd();
    case QEMUClient::Readiness::NotQmp:
        return abandonLaunch(ProtocolError, QStringLiteral("QEMU's control socket did not speak QMP (%1); QEMU was "
                                                           "stopped")
                                                .arg(probe.lastError()));
    case QEMUClient::Readiness::InternalError:
        // KVM stopped the guest: the engine decides whether to go on under TCG.
        m_startCause = kvmFailure();
        qCCritical(hvQemuLog).noquote() << "[VMTools]" << "The emulator stopped the guest on an internal error:" << m_startCause;
        stopLaunched();
        return KvmFailed;
    case QEMUClient::Readiness::TimedOut:
        break;
    }
    if (stateBytes > 0) {
        m_stateLoadFailure = QStringLiteral("QEMU did not finish loading the saved state '%1' (%2 MiB) within %3 s "
                                            "and was stopped")
                                 .arg(snapshotName)
                                 .arg(stateBytes >> 20)
                                 .arg(timeoutMs / 1000.0);
        return abandonLaunch(StateLoadTimedOut, m_stateLoadFailure);
    }
    return abandonLaunch(NotReady, QStringLiteral("QEMU did not become ready within %1 s and was stopped")
                                       .arg(timeoutMs / 1000.0));
}

int QEMUMachine::abandonLaunch(int result, const QString &failure)
{
    m_startFailure = failure;
    qCCritical(hvQemuLog).noquote() << "[VMTools]" << failure;
    stopLaunched();
    return result;
}

void QEMUMachine::stopLaunched()
{
    // What the guest wrote before it was stopped tells why it did not come up.
    QEMUConsoleLog(getPath()).drain(getQmpSocketPath());
    VMToolsCommon::destroyProcess(m_launchedPid);
    VMToolsCommon::waitForFinished(m_launchedPid, 5000, m_launchedStartTime);
    removeLockFile();
}

int QEMUMachine::diagnoseEnd()
{
    // The emulator ended on its own: its error output, read once, says why.
    using Code = QEMUErrorDiagnosis::Code;
    switch (QEMUErrorDiagnosis::classify(getLogFilePath(), &m_startCause)) {
    case Code::ResourceBusy:
        return ResourceBusy;
    case Code::SystemFileLocked:
        return SystemFileUsed;
    case Code::PortTaken:
        return PortUsed;
    case Code::MemoryNotSupported:
        return MemoryNotSupported;
    case Code::StateNotLoadable:
        return StateNotLoaded;
    case Code::KvmFailure:
        return KvmFailed;
    case Code::AudioUnavailable:
        return AudioUnavailable;
    case Code::None:
    case Code::Unreadable:
    case Code::AcceleratorError:
        break;
    }
    qCCritical(hvQemuLog) << "[VMTools]" << "QEMU process has stopped too early. Check qemu.log for more details";
    return StartFailed;
}

qint64 QEMUMachine::savedStateBytes(const QString &snapshotName) const
{
    // The emulator writes the state into one of the disks: take the largest.
    qint64 bytes = 0;
    for (const QString &disk : {files().systemDisk(), files().dataDisk()}) {
        QList<QEMUSnapshotInfo> snapshots;
        QString error;
        QEMUSnapshotTable::read(disk, &snapshots, &error);
        for (const QEMUSnapshotInfo &snapshot : snapshots) {
            if (snapshot.name == snapshotName)
                bytes = qMax(bytes, snapshot.vmStateSize);
        }
    }
    return bytes;
}

void QEMUMachine::makeDevicePrivate() const
{
    // A device made or opened by an older version, or files the guest made
    // in its shared folder, may still be open to other users: they are
    // closed before the emulator runs again, wherever the device lives.
    FileUtils::makePrivate(getPath());
    makeSocketPrivate(getQmpSocketPath());
}

void QEMUMachine::makeSocketPrivate(const QString &socketPath)
{
    // Connecting takes write access to the socket and search access to its
    // directory: neither is anyone else's.
    const QByteArray directory = QFile::encodeName(QFileInfo(socketPath).absolutePath());
    const QByteArray socket = QFile::encodeName(socketPath);
    struct stat st;
    if (::lstat(directory.constData(), &st) == 0 && S_ISDIR(st.st_mode) && (st.st_mode & 077) != 0)
        ::chmod(directory.constData(), st.st_mode & 0700);
    if (::lstat(socket.constData(), &st) == 0 && S_ISSOCK(st.st_mode))
        ::chmod(socket.constData(), S_IRUSR | S_IWUSR);
}

int QEMUMachine::readyTimeoutMs()
{
    return EnvVars::getInt("HV_QEMU_READY_TIMEOUT_MS", kReadyTimeoutMs);
}

int QEMUMachine::readyTimeoutMs(qint64 stateBytes)
{
    // Each GiB of state adds the base once more: with the default base that
    // allows 34 MiB/s, a tenth of the rate measured loading states from a
    // local disk on a loaded host. A host slower still raises the base, and
    // the allowance for the state with it.
    const qint64 grown = qint64(readyTimeoutMs()) * ((qint64(1) << 30) + stateBytes) / (qint64(1) << 30);
    return int(qMin<qint64>(grown, std::numeric_limits<int>::max()));
}

bool QEMUMachine::forceStop()
{
    const QEMULockRecord lock = readLock();
    const long long pid = lock.pid;
    if (pid == 0) {
        qCDebug(hvQemuLog) << "[VMTools]" << "Cannot stop QEMU because no PID was found";
        m_portOffset = -1;
        return false;
    }
    if (isRecordedEmulator(lock)) {
        if (!VMToolsCommon::destroyProcess(pid))
            return false;
        return removeLockFile();
    }
    qCDebug(hvQemuLog) << "[VMTools]" << "We have a stall lock file: let's remove it.";
    removeLockFile();
    return false;
}

bool QEMUMachine::waitForFinished()
{
    const QEMULockRecord lock = readLock();
    if (lock.pid == 0) {
        qCDebug(hvQemuLog) << "[VMTools]" << "Failed to load QEMU pid";
        return false;
    }
    if (!VMToolsCommon::waitForFinished(lock.pid, 1000, lock.startTime))
        return false;
    removeLockFile();
    return true;
}
