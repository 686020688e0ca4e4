// The base answers of the operations that let a program run devices without
// knowing the engine: each answers as an engine without that capability
// would, so an engine overrides what it can do.
#include "VMToolsEngine.h"

#include "Logging_p.h"
#include "VMToolsMachine.h"

#include <QDebug>

QList<VMToolsMachine *> VMToolsEngine::getMachines(std::function<bool()> cancel, QList<BrokenMachine> *)
{
    return getMachines(std::move(cancel));
}

QStringList VMToolsEngine::getMachineNames() const
{
    // An engine that cannot name its devices without loading them.
    QStringList names;
    for (VMToolsMachine *machine : const_cast<VMToolsEngine *>(this)->getMachines({})) {
        names << machine->getName();
        delete machine;
    }
    return names;
}

QString VMToolsEngine::brokenMachineReason(const QString &) const
{
    return QString();
}

bool VMToolsEngine::deleteBrokenMachine(const QString &name) const
{
    qCWarning(hvEngineLog) << "[VMTools]" << "The engine cannot delete the broken device" << name;
    return false;
}

QString VMToolsEngine::foreignEntryReason(const QString &) const
{
    return QString();
}

LockFiles::CommandLock::Result VMToolsEngine::lockMachine(const QString &name, const QString &,
                                                          LockFiles::CommandLock *) const
{
    qCWarning(hvEngineLog) << "[VMTools]" << "The engine cannot lock the device" << name;
    return LockFiles::CommandLock::Failed;
}

QList<MachineLeftover> VMToolsEngine::getLeftovers() const
{
    return {};
}

bool VMToolsEngine::reclaimLeftover(const MachineLeftover &leftover) const
{
    qCWarning(hvEngineLog) << "[VMTools]" << "The engine cannot reclaim" << leftover.path;
    return false;
}

QList<SnapshotInfo> VMToolsEngine::fetchSnapshots(const VMToolsMachine *machine) const
{
    QList<SnapshotInfo> snapshots;
    for (const QString &name : fetchSnapshotNames(machine))
        snapshots.append(SnapshotInfo{name, QDateTime(), 0, 0});
    return snapshots;
}

bool VMToolsEngine::loadSnapshot(VMToolsMachine *, const QString &name) const
{
    qCWarning(hvEngineLog) << "[VMTools]" << "The engine cannot load the snapshot" << name << "of a running device";
    return false;
}

bool VMToolsEngine::saveSnapshot(VMToolsMachine *machine, const QString &name, bool *recorded) const
{
    if (recorded)
        *recorded = true;
    return saveSnapshot(machine, name);
}

int VMToolsEngine::cloneMachine(VMToolsMachine *machine, const QString &newName, bool crashConsistent)
{
    if (crashConsistent && machine && machine->getStatus() == VMToolsMachine::On) {
        qCWarning(hvEngineLog) << "[VMTools]" << "The engine cannot copy a running device";
        return 1;
    }
    return cloneMachine(machine, newName);
}

VMToolsEngine::ResetResult VMToolsEngine::resetDevice(const VMToolsMachine *) const
{
    qCWarning(hvEngineLog) << "[VMTools]" << "The engine cannot reset a device to its factory state";
    return ResetResult::Unchanged;
}

QString VMToolsEngine::checkReferenceDisks(const VMToolsMachine *) const
{
    return QString();
}

bool VMToolsEngine::saveScreenshot(VMToolsMachine *, const QString &, QString *error) const
{
    *error = QStringLiteral("the engine cannot take screenshots");
    return false;
}

ConsoleRead VMToolsEngine::readConsole(VMToolsMachine *, qint64) const
{
    return ConsoleRead();
}

QString VMToolsEngine::logPath(const VMToolsMachine *, bool) const
{
    return QString();
}

StartOutcome VMToolsEngine::startDevice(VMToolsMachine *machine, const StartRequest &request)
{
    StartOutcome outcome;
    bool quickBoot = !request.cold;
    const int result = request.snapshot.isEmpty() ? startFromLatestSnapshot(machine, &quickBoot)
                                                  : startMachine(machine, request.snapshot);
    if (result != 1) {
        outcome.failure = QStringLiteral("the engine failed to start it (code %1)").arg(result);
        return outcome;
    }
    outcome.result = StartOutcome::Started;
    outcome.boot = !request.snapshot.isEmpty() ? StartOutcome::FromSnapshot
                                                : (quickBoot ? StartOutcome::Resumed : StartOutcome::Cold);
    return outcome;
}

GuestWait VMToolsEngine::waitForGuest(VMToolsMachine *machine, int, const std::function<bool()> &cancel,
                                       const std::function<void(GuestWait::Phase)> &)
{
    GuestWait wait;
    if (!machine->waitForIP(cancel).isEmpty()) {
        wait.phase = GuestWait::Answered;
        wait.end = GuestWait::Ready;
    } else {
        wait.failure = QStringLiteral("the guest did not answer");
    }
    return wait;
}

bool VMToolsEngine::setGuestClock(VMToolsMachine *, int, qint64 *, QString *failure)
{
    *failure = QStringLiteral("this engine cannot reach the guest");
    return false;
}

int VMToolsEngine::createMachine(const QString &name, const OsImage &image, const HwProfile &profile,
                                 const std::function<bool()> &, QString *error)
{
    const int code = createMachine(name, image, profile);
    if (code != 0 && error)
        *error = QStringLiteral("the engine failed to create it (code %1)").arg(code);
    return code;
}

CreateProgress VMToolsEngine::creationProgress(const QString &, const OsImage &) const
{
    return {};
}
