// The operations through which a program finds, locks and makes devices
// without knowing this engine: devices by name, the broken and the foreign
// entries of the devices directory, and a creation that can be followed and
// cancelled.
#include "QEMUEngine.h"

#include "HwProfile.h"
#include "OsImage.h"
#include "OsImageChecksum.h"
#include "OsImageIO.h"
#include "QEMUDeviceFiles.h"
#include "QEMULogging_p.h"
#include "QEMUMachine.h"
#include "ReferenceDisks.h"

#include <QDebug>
#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>

#include <memory>

namespace {

/// Bytes in the files of the given directories, not descending.
qint64 bytesIn(const QStringList &dirs)
{
    qint64 total = 0;
    for (const QString &dir : dirs) {
        for (const QFileInfo &file : QDir(dir).entryInfoList(QDir::Files))
            total += file.size();
    }
    return total;
}

} // namespace

QList<VMToolsMachine *> QEMUEngine::getMachines(std::function<bool()> cancel, QList<BrokenMachine> *broken)
{
    QList<QPair<QString, QString>> unusable;
    QList<VMToolsMachine *> machines;
    // One pass over the directory: a thousand devices read each record once.
    for (QEMUMachine *machine : scanMachines(broken ? &unusable : nullptr)) {
        if (cancel && cancel())
            delete machine;
        else
            machines.append(machine);
    }
    for (const auto &[name, reason] : unusable)
        broken->append(BrokenMachine{name, m_devicesDirectory.absoluteFilePath(name), reason});
    return machines;
}

QString QEMUEngine::brokenMachineReason(const QString &name) const
{
    const QString path = existingDevicePath(name);
    if (path.isEmpty())
        return QString();
    if (std::unique_ptr<QEMUMachine> machine{loadMachine(path)})
        return QString();
    return isDeviceDirectory(path, false) ? brokenReason(path) : QString();
}

QString QEMUEngine::existingDevicePath(const QString &name) const
{
    const QString path = deviceEntryPath(name);
    return !path.isEmpty() && QFileInfo(path).isDir() ? path : QString();
}

QString QEMUEngine::foreignEntryReason(const QString &name) const
{
    const QString path = deviceEntryPath(name);
    if (path.isEmpty())
        return QString();
    const QFileInfo entry(path);
    if ((!entry.exists() && !entry.isSymLink()) || isDeviceDirectory(entry.absoluteFilePath(), true))
        return QString();
    return QStringLiteral("'%1' was not made by hvtool (it has no '%2' marker)")
        .arg(entry.absoluteFilePath(), QEMUDeviceFiles::markerName());
}

LockFiles::CommandLock::Result QEMUEngine::lockMachine(const QString &name, const QString &command,
                                                       LockFiles::CommandLock *lock) const
{
    const QString path = existingDevicePath(name);
    return path.isEmpty() ? LockFiles::CommandLock::Gone : lockDevice(path, command, lock);
}

QString QEMUEngine::recordRefusal(const OsImage &image, const HwProfile &profile) const
{
    // The record is written and read back where no device is looked for:
    // what does not survive it would give a device that never loads.
    QTemporaryDir scratch;
    if (!scratch.isValid())
        return QStringLiteral("no temporary directory to check its record in: %1").arg(scratch.errorString());
    const QEMUMachine written(const_cast<QEMUEngine *>(this), scratch.path(), image, profile);
    if (!written.save())
        return QStringLiteral("its record could not be written");
    QEMUMachine read(const_cast<QEMUEngine *>(this), scratch.path());
    if (!read.VMToolsMachine::load() || !(read.getHwProfile() == profile))
        return QStringLiteral("the hardware profile '%1' does not load back from a device record").arg(profile.getName());
    // An image of the first record format is brought to the present one on
    // every load: it comes back migrated.
    OsImage expected = image;
    OsImageIO::migrateV1_0ToV1_1(read.getName(), &expected);
    if (!(read.getOsImage() == expected))
        return QStringLiteral("the OS image '%1' does not load back from a device record (a field it lacks or "
                              "holds in a form its reader refuses)")
            .arg(image.name);
    const QString problem = read.recordProblem();
    return problem.isEmpty() ? QString() : QStringLiteral("a device record of them would be refused: %1").arg(problem);
}

int QEMUEngine::createMachine(const QString &name, const OsImage &image, const HwProfile &profile,
                              const std::function<bool()> &cancel, QString *error)
{
    QString why = recordRefusal(image, profile);
    if (!why.isEmpty()) {
        qCWarning(hvQemuLog).noquote() << "[VMTools]" << QStringLiteral("Refusing to create device \"%1\": %2").arg(name, why);
        if (error)
            *error = why;
        return 1;
    }
    const auto cancelled = [&] { return cancel && cancel(); };
    const int code = createFromImage(name, image, profile, cancelled);
    if (code != 0 && error)
        *error = cancelled() ? QStringLiteral("the creation was cancelled; nothing is left of it")
                             : QStringLiteral("the engine failed to make it (code %1); nothing is left of it").arg(code);
    return code;
}

CreateProgress QEMUEngine::creationProgress(const QString &name, const OsImage &image) const
{
    CreateProgress progress;
    const QStringList building = buildDirectories(name);
    if (!building.isEmpty()) {
        progress.phase = CreateProgress::MakingDisks;
        progress.done = bytesIn(building);
    }
    // The reference disks are known only once the OVA's checksum is: until
    // then the creation is still reading it.
    if (OsImageChecksum::lastKnown(image.getLocalPath()).isEmpty())
        return progress;
    const QString reference = getReferenceDirectory(image);
    if (building.isEmpty() || !isReferenceComplete(reference)) {
        const QString partial = ReferenceDisks::partialPath(reference);
        if (!QFileInfo(partial).isDir())
            return progress;
        progress.phase = CreateProgress::PreparingImage;
        progress.done = bytesIn({partial});
        progress.total = QFileInfo(image.getLocalPath()).size();
        return progress;
    }
    progress.total = QFileInfo(QDir(reference), getDataDiskName()).size();
    return progress;
}
