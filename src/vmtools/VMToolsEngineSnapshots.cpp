// The quick-boot decision, the snapshot flag of a device and the unpacking of
// an OS image archive: engine operations that reach the concrete engine only
// through its virtual operations.
#include "VMToolsEngine.h"

#include "Archive.h"
#include "OsImage.h"
#include "Paths.h"
#include "VMToolsMachine.h"

#include <QDebug>
#include <QDir>

namespace {

const QString kLatestSnapshot = QStringLiteral("latest");

} // namespace

int VMToolsEngine::startFromLatestSnapshot(VMToolsMachine *machine, bool *quickBoot)
{
    if (!quickBoot || !*quickBoot)
        return startMachine(machine, QString());
    if (!isSnapshotSupported()) {
        qDebug() << "[VMTools]" << "Snapshot not supported, fallback on cold boot";
        *quickBoot = false;
        return startMachine(machine, QString());
    }
    if (!machine || !machine->isLatestSnapshotExist()) {
        qDebug() << "[VMTools]" << "No snapshot found, fallback on cold boot";
        *quickBoot = false;
        return startMachine(machine, QString());
    }
    *quickBoot = true;
    return startMachine(machine, kLatestSnapshot);
}

void VMToolsEngine::checkLatestSnapshotExists(VMToolsMachine *machine) const
{
    if (!machine)
        return;
    const QStringList names = fetchSnapshotNames(machine);
    machine->setLatestSnapshotExists(names.contains(kLatestSnapshot, Qt::CaseSensitive));
}

bool VMToolsEngine::extractOva(const QString &ovaPath, const VersionNumber &imageVersion,
                               const VersionNumber &osVersion) const
{
    QDir directory(Paths::getSystemImagePath(imageVersion, osVersion));
    // An image is extracted once and shared by every device made from it.
    if (directory.exists(QStringLiteral("system.vmdk")) && directory.exists(QStringLiteral("data.vmdk")))
        return true;
    if (!directory.mkpath(QStringLiteral("."))) {
        qCritical() << "[VMTools]" << "Failed to create directory" << directory.absolutePath();
        return false;
    }
    return Archive::isOk(Archive::untar(ovaPath, directory.absolutePath()));
}

bool VMToolsEngine::extractOva(const OsImage &image) const
{
    return extractOva(image.getLocalPath(), image.imageVersion, image.osVersion);
}
