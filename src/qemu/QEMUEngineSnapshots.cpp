// What a saved machine state depends on, and restoring named states: a state
// holds the guest's memory and devices as the emulator had them, so it can
// only be resumed on the RAM size, CPU count, disk interface, OS image and
// emulator it was saved with.
#include "QEMUEngine.h"

#include "FileUtils.h"
#include "OsImage.h"
#include "QEMUClient.h"
#include "QEMUDeviceFiles.h"
#include "QEMULogging_p.h"
#include "QEMUMachine.h"
#include "QEMUSnapshotTable.h"

#include <QDebug>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

// The record is a few hundred bytes per state; anything far larger was not
// written by us.
constexpr qint64 kMaxRecordSize = 1024 * 1024;

const QString kRamKey = QStringLiteral("ram_mb");
const QString kCpusKey = QStringLiteral("cpus");
const QString kDisksKey = QStringLiteral("disks");
const QString kImageKey = QStringLiteral("image_sha256");
const QString kEmulatorKey = QStringLiteral("emulator");
const QString kAcceleratorKey = QStringLiteral("accelerator");
const QString kCpuModelKey = QStringLiteral("cpu");
const QString kEndedWithSaveKey = QStringLiteral("ended_with_save");

QString diskInterface(const VMToolsMachine *machine)
{
    return (machine->getCapabilities() & VMToolsMachine::VirtioDisks) ? QStringLiteral("virtio")
                                                                     : QStringLiteral("IDE");
}

QJsonObject readRecords(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || file.size() > kMaxRecordSize)
        return QJsonObject();
    return QJsonDocument::fromJson(file.readAll()).object();
}

} // namespace

QJsonObject QEMUEngine::describeSavedState(VMToolsMachine *machine, const QString &accelerator,
                                           const QString &cpuModel) const
{
    machine->loadCapabilities();
    QJsonObject state{{kRamKey, double(machine->getRamSize())},
                      {kCpusKey, machine->getCpuCount()},
                      {kDisksKey, diskInterface(machine)},
                      {kImageKey, QFileInfo(getDeviceReference(machine)).fileName()},
                      {kEmulatorKey, m_versionString}};
    if (!accelerator.isEmpty()) {
        state.insert(kAcceleratorKey, accelerator);
        state.insert(kCpuModelKey, cpuModel);
    }
    return state;
}

bool QEMUEngine::recordSavedState(VMToolsMachine *machine, const QString &name) const
{
    const QString path = QEMUDeviceFiles(machine->getPath()).savedStates();
    QJsonObject records = readRecords(path);
    // The state holds the processor as the running emulator had it.
    auto *qemuMachine = dynamic_cast<QEMUMachine *>(machine);
    records.insert(name, qemuMachine ? describeSavedState(machine, qemuMachine->runningAccelerator(),
                                                          qemuMachine->runningCpuModel())
                                     : describeSavedState(machine, QString(), QString()));
    if (!FileUtils::saveFile(path, QJsonDocument(records).toJson())) {
        // The old record of that name would describe a state that is gone:
        // no record at all is the truth (removing takes no room on a full disk).
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to record what snapshot" << name << "was saved with";
        if (!QFile::remove(path))
            qCCritical(hvQemuLog) << "[VMTools]" << "Failed to remove the stale records" << path;
        return false;
    }
    return true;
}

bool QEMUEngine::openSession(VMToolsMachine *machine, const QString &snapshotName) const
{
    if (snapshotName != latestSnapshotName() && !discardQuickBootState(machine))
        return false;
    // Written before the emulator runs: a session that ends any other way
    // than with the quick-boot save (a crash, a kill, a power loss) leaves
    // the record as it is.
    return recordSessionEnd(machine, false);
}

bool QEMUEngine::discardQuickBootState(VMToolsMachine *machine) const
{
    const QString name = latestSnapshotName();
    if (!deleteSnapshot(machine, name)) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to discard the quick-boot state of" << machine->getName();
        return false;
    }
    const QString path = QEMUDeviceFiles(machine->getPath()).savedStates();
    QJsonObject records = readRecords(path);
    if (!records.contains(name))
        return true;
    records.remove(name);
    if (!FileUtils::saveFile(path, QJsonDocument(records).toJson())) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to forget what the quick-boot state of" << machine->getName()
                    << "was saved with";
        return false;
    }
    return true;
}

bool QEMUEngine::recordSessionEnd(const VMToolsMachine *machine, bool endedWithSave) const
{
    const QString path = QEMUDeviceFiles(machine->getPath()).sessionRecord();
    if (FileUtils::saveFile(path, QJsonDocument(QJsonObject{{kEndedWithSaveKey, endedWithSave}}).toJson()))
        return true;
    qCCritical(hvQemuLog) << "[VMTools]" << "Failed to record how the session of" << machine->getName() << "ends";
    return false;
}

QString QEMUEngine::unsavedSessionReason(const VMToolsMachine *machine) const
{
    if (!machine)
        return QString();
    const QString path = QEMUDeviceFiles(machine->getPath()).sessionRecord();
    if (!QFile::exists(path))
        return QString();
    // A record that cannot be read says nothing for the saved state.
    if (readRecords(path).value(kEndedWithSaveKey).toBool())
        return QString();
    return QStringLiteral("the last session of '%1' ended without saving its state").arg(machine->getName());
}

QString QEMUEngine::savedStateMismatch(const VMToolsMachine *constMachine, const QString &name) const
{
    if (!constMachine)
        return QString();
    // Reading the capabilities refreshes a cached flag; nothing is written.
    auto *machine = const_cast<VMToolsMachine *>(constMachine);
    const QJsonObject saved =
        readRecords(QEMUDeviceFiles(machine->getPath()).savedStates()).value(name).toObject();
    // A state saved before its conditions were recorded is tried; an
    // emulator that cannot load it is caught by the start.
    if (saved.isEmpty())
        return QString();
    // A state saved before the accelerator was recorded is not judged by it.
    QEMUAccelerator::Choice processor;
    if (saved.contains(kAcceleratorKey))
        processor = chooseAccelerator();
    const QJsonObject now = describeSavedState(machine, processor.accelerator, processor.cpuModel);
    if (saved.value(kRamKey) != now.value(kRamKey))
        return QStringLiteral("saved with %1 MB of RAM, the device now has %2 MB")
            .arg(qint64(saved.value(kRamKey).toDouble()))
            .arg(qint64(now.value(kRamKey).toDouble()));
    if (saved.value(kCpusKey) != now.value(kCpusKey))
        return QStringLiteral("saved with %1 CPUs, the device now has %2")
            .arg(saved.value(kCpusKey).toInt())
            .arg(now.value(kCpusKey).toInt());
    if (saved.value(kDisksKey) != now.value(kDisksKey))
        return QStringLiteral("saved with %1 disks, the device now has %2 disks")
            .arg(saved.value(kDisksKey).toString(), now.value(kDisksKey).toString());
    if (saved.value(kImageKey) != now.value(kImageKey))
        return QStringLiteral("saved with another OS image (sha-256 %1), the device now has %2")
            .arg(saved.value(kImageKey).toString().left(12), now.value(kImageKey).toString().left(12));
    if (saved.value(kEmulatorKey) != now.value(kEmulatorKey))
        return QStringLiteral("saved with QEMU %1, the emulator is now %2")
            .arg(saved.value(kEmulatorKey).toString(), now.value(kEmulatorKey).toString());
    if (!processor.accelerator.isEmpty()
        && (saved.value(kAcceleratorKey) != now.value(kAcceleratorKey)
            || saved.value(kCpuModelKey) != now.value(kCpuModelKey)))
        return QStringLiteral("saved under %1 with CPU model %2, this start runs %3 with %4")
            .arg(saved.value(kAcceleratorKey).toString().toUpper(), saved.value(kCpuModelKey).toString(),
                 processor.accelerator.toUpper(), processor.cpuModel);
    return QString();
}

bool QEMUEngine::isStateLoadFailure(int startResult) const
{
    // A load that outlasted its time-out was stopped like one that failed:
    // the device boots cold rather than not at all.
    return startResult == QEMUMachine::StateNotLoaded || startResult == QEMUMachine::StateLoadTimedOut;
}

QList<QEMUSnapshotInfo> QEMUEngine::fetchSnapshots(const VMToolsMachine *machine) const
{
    QList<QEMUSnapshotInfo> snapshots;
    if (!machine)
        return snapshots;
    const QString disk = QEMUDeviceFiles(machine->getPath()).systemDisk();
    QString error;
    if (!QEMUSnapshotTable::read(disk, &snapshots, &error))
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to list snapshots of" << disk << ":" << error;
    return snapshots;
}

bool QEMUEngine::loadSnapshot(VMToolsMachine *machine, const QString &name) const
{
    auto *qemuMachine = dynamic_cast<QEMUMachine *>(machine);
    if (!qemuMachine || !qemuMachine->isQEMURunning()) {
        qCWarning(hvQemuLog) << "[VMTools]" << "Cannot load snapshot" << name << "of a device that does not run";
        return false;
    }
    qemuMachine->refreshPortOffset();
    // A writable shared folder keeps the emulator from loading a state, as it
    // keeps it from saving one.
    const bool unplugShared = qemuMachine->hasWritableSharedDrive();
    QEMUClient client(qemuMachine->getQmpSocketPath());
    client.setGuestMemory(qemuMachine->getRamSize());
    const bool loaded = client.execLoadSnapshot(name, unplugShared);
    if (unplugShared && client.hasDetachedSharedDrive())
        qemuMachine->setWritableSharedDrive(false);
    if (!loaded) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to load snapshot" << name;
        return false;
    }
    return true;
}
