// Starting and stopping a device's emulator, and saving its snapshot.
#include "QEMUEngine.h"

#include "EnvVars.h"
#include "LockFiles.h"
#include "QEMUClient.h"
#include "QEMUConsoleLog_p.h"
#include "QEMULaunch_p.h"
#include "QEMULogging_p.h"
#include "QEMUMachine.h"
#include "QEMUPortTable_p.h"
#include "SysInfo.h"
#include "SystemInfo.h"
#include "VMToolsCommon.h"

#include <QDebug>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QLockFile>
#include <QNetworkProxy>
#include <QSet>
#include <QTcpServer>

#include <memory>

namespace {

// How long a graceful stop waits for the emulator to end: it usually ends
// within a tenth of a second of answering "quit", and the stop is done the
// moment it has.
constexpr int kQuitTimeoutMs = 15000;
// How long a start waits for other starts to choose their offsets. Each holds
// the lock only until its emulator has bound its ports, a fraction of a
// second.
constexpr int kPortOffsetLockTimeoutMs = 60000;
// How many offsets a start tries when another program takes a port between
// the probe and the emulator's bind.
constexpr int kPortRaceAttempts = 3;

bool arePortsFree(int offset)
{
    for (const QEMULaunch::PortForward &forward : QEMULaunch::portForwards()) {
        QTcpServer server;
        server.setProxy(QNetworkProxy::NoProxy);
        if (!server.listen(QHostAddress::Any, static_cast<quint16>(forward.hostBase + offset)))
            return false;
        server.close();
    }
    return true;
}

QVector<int> forwardedPorts(int offset)
{
    QVector<int> ports;
    for (const QEMULaunch::PortForward &forward : QEMULaunch::portForwards())
        ports << forward.hostBase + offset;
    return ports;
}

// An emulator that ended early leaves a lock file naming a pid the system may
// soon give to another device's emulator, making this device look running
// and a forced stop kill the wrong process.
void dropLockOfEndedEmulator(QEMUMachine *machine)
{
    if (!machine->isQEMURunning() && QFile::exists(machine->getLockFilePath()))
        machine->removeLockFile();
}

QEMUMachine *asQemuMachine(VMToolsMachine *machine)
{
    auto *qemuMachine = dynamic_cast<QEMUMachine *>(machine);
    if (!qemuMachine)
        qCCritical(hvQemuLog) << "[VMTools]" << "Not a QEMU device";
    return qemuMachine;
}

} // namespace

QString QEMUEngine::portOffsetLockName()
{
    return QStringLiteral("port-offset.lock");
}

QString QEMUEngine::getPortOffsetLockPath() const
{
    return m_devicesDirectory.absoluteFilePath(portOffsetLockName());
}

QString QEMUEngine::getPortTablePath() const
{
    return m_devicesDirectory.absoluteFilePath(QStringLiteral("port-offsets.json"));
}

int QEMUEngine::computePortOffset() const
{
    return computePortOffset(QSet<int>(), -1);
}

int QEMUEngine::computePortOffset(const QSet<int> &skip, int preferred) const
{
    // Only a running emulator holds its offset: an entry left by one that
    // ended (or lingers as a zombie, or whose pid now names another process)
    // does not. Emulators started by older programs are not in the table,
    // but the ports they bound are not free either.
    QSet<int> taken = skip;
    for (const QEMUPortEntry &entry : QEMUPortTable::readLive(getPortTablePath()))
        taken.insert(entry.offset);
    if (preferred >= 0 && preferred <= QEMULaunch::kMaxPortOffset && preferred % QEMULaunch::kPortOffsetStep == 0
        && !taken.contains(preferred) && arePortsFree(preferred))
        return preferred;
    for (int offset = 0; offset <= QEMULaunch::kMaxPortOffset; offset += QEMULaunch::kPortOffsetStep) {
        if (!taken.contains(offset) && arePortsFree(offset))
            return offset;
    }
    return -1;
}

int QEMUEngine::launchMachine(VMToolsMachine *machine, const QString &snapshotName, const QString &accelerator)
{
    QEMUMachine *qemuMachine = asQemuMachine(machine);
    if (!qemuMachine || !canStart(machine))
        return QEMUMachine::StartFailed;
    if (machine->getStatus() == VMToolsMachine::On) {
        qCInfo(hvQemuLog) << "[VMTools]" << "Virtual Machine status: on. Nothing to do.";
        return QEMUMachine::Started;
    }
    // A device of the previous layout starts either way; moved first, it
    // keeps working once the old reference disks are gone.
    migrateDevice(machine);

    QEMULaunch::Request request;
    if (!openSession(machine, snapshotName) || !composeRequest(qemuMachine, snapshotName, &request)
        || !chooseHostSetup(accelerator, &request) || !checkSdCard(request))
        return QEMUMachine::StartFailed;

    // The ports are probed free, then released for the emulator to bind: a
    // program outside the port lock can take one in between. The emulator
    // then ends at once, and the start moves on to another offset.
    QSet<int> tried;
    int result = QEMUMachine::StartFailed;
    for (int attempt = 0; attempt < kPortRaceAttempts; ++attempt) {
        const int launched = launchOnFreeOffset(qemuMachine, request, &tried);
        // The state loads, and the guest starts, outside the port lock:
        // other starts choose their offsets meanwhile.
        result = launched == QEMUMachine::Started ? qemuMachine->waitUntilReady(snapshotName) : launched;
        if (result != QEMUMachine::Started)
            dropLockOfEndedEmulator(qemuMachine);
        if (result != QEMUMachine::PortUsed)
            break;
        qCWarning(hvQemuLog) << "[VMTools]" << "A port of offset" << request.portOffset
                   << "was taken before the emulator bound it";
    }
    return result;
}

bool QEMUEngine::canStart(const VMToolsMachine *machine)
{
    const SystemInfo host = SystemInfo::getSystemInfo();
    if (host.osImageArchitectures.contains(machine->getOsImageArch(), Qt::CaseSensitive))
        return true;
    qCWarning(hvQemuLog).noquote() << "[VMTools]"
                         << QStringLiteral("Incompatible OsImage arch (expected: %1, actual: %2)")
                                .arg(host.osImageArchitectures.join(QLatin1String(", ")), machine->getOsImageArch());
    return false;
}

bool QEMUEngine::composeRequest(QEMUMachine *machine, const QString &snapshotName, QEMULaunch::Request *request) const
{
    const QDir device(machine->getPath());
    machine->loadCapabilities();
    request->devicePath = device.absolutePath();
    request->virtioDisks = (machine->getCapabilities() & VMToolsMachine::VirtioDisks) != 0;
    request->sdCardInserted = machine->isSdCardInserted();
    request->ramMiB = machine->getRamSize();
    request->cpuCount = machine->getCpuCount();
    request->snapshotName = snapshotName;
    request->qmpSocketPath = machine->files().qmpSocket();
    if (QFile::encodeName(request->qmpSocketPath).size() > QEMULaunch::kMaxSocketPathBytes) {
        // The emulator could not bind it, and a shortened path might name
        // another socket. The path does not depend on the device's name.
        qCCritical(hvQemuLog) << "[VMTools]" << "Cannot start" << machine->getName() << ": the control socket path"
                    << request->qmpSocketPath << "is longer than" << QEMULaunch::kMaxSocketPathBytes
                    << "bytes; set XDG_RUNTIME_DIR to a shorter directory";
        return false;
    }
    // A snapshot start of a virtio device brings the read-only view of the
    // shared folder: it takes the place of the writable virtio drive that a
    // cold boot had (detached, not removed, before the save), so the resumed
    // device has the topology it was saved with. An IDE device resumes
    // without a shared folder: its detached drive left an empty IDE unit.
    request->readOnlySharedDrive = !snapshotName.isEmpty() && request->virtioDisks;
    request->throughRosetta = SysInfo().isRunningThroughRosetta();
    request->firmwareDirPath = m_firmwareDirPath;
    request->showWindow = m_windowRequested || !EnvVars::getByteArray("HV_HYPERVISOR_WINDOW").isNull();
    request->consoleRingBytes = QEMUConsoleLog::ringBytes();
    request->consoleId = QEMUConsoleLog::chardevId();
    return true;
}

bool QEMUEngine::checkSdCard(const QEMULaunch::Request &request) const
{
    if (!request.sdCardInserted)
        return true;
    const QFileInfo sdCard(QDir(request.devicePath), getSDCardDiskName());
    if (sdCard.exists() && sdCard.isReadable() && sdCard.isWritable())
        return true;
    qCCritical(hvQemuLog) << "[VMTools]" << "Failed to mount SdCard disk" << sdCard.absoluteFilePath()
                << ", disk is either missing or doesn't have RW permission.";
    return false;
}

int QEMUEngine::launchOnFreeOffset(QEMUMachine *machine, QEMULaunch::Request &request, QSet<int> *tried) const
{
    // Two programs starting devices at once must not pick the same offset:
    // the offset is chosen, bound by the emulator and recorded in the port
    // table under one lock shared by every program that uses this devices
    // directory.
    QLockFile portLock(getPortOffsetLockPath());
    // The holder's pid tells a dead holder.
    portLock.setStaleLockTime(0);
    if (!LockFiles::acquire(portLock, getPortOffsetLockPath(), kPortOffsetLockTimeoutMs)) {
        if (portLock.error() == QLockFile::LockFailedError)
            qCCritical(hvQemuLog).noquote() << "[VMTools]"
                                  << QStringLiteral("Gave up after %1 s waiting for other starts to choose their "
                                                    "port offsets (lock '%2')")
                                         .arg(kPortOffsetLockTimeoutMs / 1000)
                                         .arg(getPortOffsetLockPath());
        else
            qCCritical(hvQemuLog) << "[VMTools]" << "Failed to lock" << getPortOffsetLockPath() << "error" << portLock.error();
        return QEMUMachine::StartFailed;
    }
    QElapsedTimer held;
    held.start();
    const int offset = computePortOffset(*tried, QEMUPortTable::lastOffset(getPortTablePath(), machine->getName()));
    if (offset < 0) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to determine a port offset";
        return QEMUMachine::StartFailed;
    }
    tried->insert(offset);
    request.portOffset = offset;

    QEMUOptionSet options = QEMULaunch::composeOptions(request);
    options.applyStartArgsVariable();
    const QStringList arguments = options.render();
    qCDebug(hvQemuLog).noquote() << "[VMTools]" << "Start command:"
                       << QEMULaunch::formatCommand(m_qemuSystemBinaryPath, arguments);

    int result = machine->launch(m_qemuSystemBinaryPath, arguments, static_cast<unsigned short>(offset));
    if (result == QEMUMachine::Started)
        result = machine->waitForPorts(forwardedPorts(offset));
    if (result == QEMUMachine::Started)
        recordPortOffset(machine, offset);
    qCDebug(hvQemuLog) << "[VMTools]" << "Held the port offset lock for" << held.elapsed() << "ms";
    return result;
}

void QEMUEngine::recordPortOffset(const QEMUMachine *machine, int offset) const
{
    QVector<QEMUPortEntry> entries = QEMUPortTable::readLive(getPortTablePath());
    QEMUPortEntry entry;
    entry.offset = offset;
    entry.pid = machine->launchedPid();
    entry.startTime = VMToolsCommon::processStartTime(entry.pid);
    entry.ramMiB = machine->getRamSize();
    entry.device = machine->getName();
    entries.append(entry);
    // Without the entry the offset is still safe (its ports are bound now);
    // only the memory check misses this device.
    QEMUPortTable::write(getPortTablePath(), entries);
}

bool QEMUEngine::stopMachine(VMToolsMachine *machine)
{
    QEMUMachine *qemuMachine = asQemuMachine(machine);
    if (!qemuMachine)
        return false;
    qemuMachine->refreshPortOffset();
    // The last run's console stays readable once the emulator is gone.
    QEMUConsoleLog(qemuMachine->getPath()).drain(qemuMachine->getQmpSocketPath());
    QEMUClient client(qemuMachine->getQmpSocketPath());
    if (client.execQuit()) {
        // The emulator writes its disks back before it ends, which can take
        // longer than the machine's own one-second wait on a busy host.
        VMToolsCommon::waitForFinished(qemuMachine->loadQEMUPid(), kQuitTimeoutMs,
                                       qemuMachine->loadQEMUStartTime());
        qemuMachine->waitForFinished();
        return true;
    }
    qCWarning(hvQemuLog) << "[VMTools]" << "Failed to quit VM gracefully";
    return qemuMachine->forceStop();
}

bool QEMUEngine::saveSnapshot(VMToolsMachine *machine, const QString &name) const
{
    return saveSnapshot(machine, name, nullptr);
}

bool QEMUEngine::saveSnapshot(VMToolsMachine *machine, const QString &name, bool *recorded) const
{
    QEMUMachine *qemuMachine = asQemuMachine(machine);
    if (!qemuMachine)
        return false;
    qemuMachine->refreshPortOffset();
    // The emulator cannot save its state while a writable shared-folder drive
    // is attached, whatever the disk interface.
    const bool unplugShared = qemuMachine->hasWritableSharedDrive();
    // The record changes before the drive goes: a save killed in between
    // leaves a lock file that says detached, and the client takes a drive
    // that is already gone as detached, so the next save goes through.
    if (unplugShared && !qemuMachine->setWritableSharedDrive(false)) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to save snapshot" << name;
        return false;
    }

    // The quick-boot state is what a session ends with: the guest stays
    // paused after it, so the disks cannot move on past the state.
    const bool endsSession = name == latestSnapshotName();
    QEMUClient client(qemuMachine->getQmpSocketPath());
    client.setGuestMemory(qemuMachine->getRamSize());
    if (!client.execSaveSnapshot(name, unplugShared, endsSession)) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to save snapshot" << name;
        // Whether the drive went before the failure is unknown; asking to
        // detach it again next time is harmless either way.
        if (unplugShared)
            qemuMachine->setWritableSharedDrive(true);
        return false;
    }
    // Without the record the state would still resume; only a change of
    // hardware would then be noticed late, by the emulator.
    const bool stateRecorded = recordSavedState(machine, name);
    if (recorded)
        *recorded = stateRecorded;
    if (endsSession && !recordSessionEnd(machine, true)) {
        // Unrecorded, the save would never be resumed: the session goes on.
        QEMUClient(qemuMachine->getQmpSocketPath()).execContinue();
        return false;
    }
    return true;
}
