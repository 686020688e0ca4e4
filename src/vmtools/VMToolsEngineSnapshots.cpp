// The quick-boot decision, the snapshot flag of a device and the unpacking of
// an OS image archive: engine operations that reach the concrete engine only
// through its virtual operations.
#include "VMToolsEngine.h"

#include "FileUtils.h"
#include "Logging_p.h"
#include "OsImage.h"
#include "ReferenceDisks.h"
#include "VMToolsMachine.h"

#include <QDebug>
#include <QDir>

QString VMToolsEngine::latestSnapshotName()
{
    return QStringLiteral("latest");
}

int VMToolsEngine::startFromLatestSnapshot(VMToolsMachine *machine, bool *quickBoot)
{
    const auto bootCold = [&] {
        if (quickBoot)
            *quickBoot = false;
        return startMachine(machine, QString());
    };
    if (!quickBoot || !*quickBoot)
        return bootCold();
    if (!isSnapshotSupported()) {
        qCDebug(hvEngineLog) << "[VMTools]" << "Snapshot not supported, fallback on cold boot";
        return bootCold();
    }
    // Resuming a state older than the disks would silently take back what
    // the last session wrote.
    const QString unsaved = unsavedSessionReason(machine);
    if (!unsaved.isEmpty()) {
        qCInfo(hvEngineLog).noquote() << "[VMTools]" << QStringLiteral("%1: booting cold, keeping its disk writes").arg(unsaved);
        return bootCold();
    }
    // Looked up here rather than trusted from the caller: a program that
    // never asked would otherwise boot cold every time.
    checkLatestSnapshotExists(machine);
    if (!machine || !machine->isLatestSnapshotExist()) {
        qCDebug(hvEngineLog) << "[VMTools]" << "No snapshot found, fallback on cold boot";
        return bootCold();
    }
    const QString mismatch = savedStateMismatch(machine, latestSnapshotName());
    if (!mismatch.isEmpty()) {
        qCInfo(hvEngineLog).noquote() << "[VMTools]" << QStringLiteral("quick-boot state %1: booting cold").arg(mismatch);
        return bootCold();
    }
    *quickBoot = true;
    const int result = startMachine(machine, latestSnapshotName());
    if (!isStateLoadFailure(result))
        return result;
    // The emulator could not read the state it saved (an upgrade, a change
    // made behind the device's back): boot cold, once. The next save
    // replaces the state.
    qCWarning(hvEngineLog) << "[VMTools]" << "The quick-boot state could not be loaded: booting cold";
    return bootCold();
}

QString VMToolsEngine::savedStateMismatch(const VMToolsMachine *, const QString &) const
{
    return QString();
}

QString VMToolsEngine::unsavedSessionReason(const VMToolsMachine *) const
{
    return QString();
}

bool VMToolsEngine::isStateLoadFailure(int) const
{
    return false;
}

void VMToolsEngine::checkLatestSnapshotExists(VMToolsMachine *machine) const
{
    if (!machine)
        return;
    const QStringList names = fetchSnapshotNames(machine);
    machine->setLatestSnapshotExists(names.contains(latestSnapshotName(), Qt::CaseSensitive));
}

bool VMToolsEngine::extractOva(const QString &ovaPath, const VersionNumber &imageVersion,
                               const VersionNumber &osVersion) const
{
    return !prepareReferenceDisks(ovaPath, ReferenceDisks::directoryOf(ovaPath, imageVersion, osVersion)).isEmpty();
}

bool VMToolsEngine::extractOva(const OsImage &image) const
{
    return !prepareReferenceDisks(image.getLocalPath(), ReferenceDisks::directoryOf(image)).isEmpty();
}

QString VMToolsEngine::prepareReferenceDisks(const QString &ovaPath, const QString &directory) const
{
    return ReferenceDisks::prepare(ovaPath, directory, OsImage::ovaDiskNames(), {});
}
