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
#include <QFile>
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

/// What a child of this process that names path on its command line (the
/// image tool converting it) has read so far; 0 when there is none.
qint64 bytesReadByChildOn(const QString &path)
{
    const QByteArray wanted = QFile::encodeName(path);
    for (const QString &task : QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile children(QStringLiteral("/proc/self/task/%1/children").arg(task));
        if (!children.open(QIODevice::ReadOnly))
            continue;
        for (const QByteArray &pid : children.read(64 * 1024).simplified().split(' ')) {
            QFile commandLine(QStringLiteral("/proc/%1/cmdline").arg(QString::fromLatin1(pid)));
            if (pid.isEmpty() || !commandLine.open(QIODevice::ReadOnly)
                || !commandLine.read(64 * 1024).split('\0').contains(wanted))
                continue;
            QFile io(QStringLiteral("/proc/%1/io").arg(QString::fromLatin1(pid)));
            const QByteArray text = io.open(QIODevice::ReadOnly) ? io.read(4096) : QByteArray();
            const int at = text.indexOf("rchar:");
            return at < 0 ? 0 : text.mid(at + 6, text.indexOf('\n', at) - at - 6).trimmed().toLongLong();
        }
    }
    return 0;
}

/// How far the conversion of the disks unpacked in partial has come, out of
/// the archive's size: each disk is removed once converted, and the one in
/// conversion counts what the image tool has read of it.
void conversionProgress(const QString &partial, qint64 archiveSize, CreateProgress *progress)
{
    qint64 unconverted = 0;
    qint64 read = 0;
    for (const QString &member : OsImage::ovaDiskNames()) {
        const QFileInfo disk(QDir(partial).absoluteFilePath(member));
        if (!disk.isFile())
            continue;
        unconverted += disk.size();
        read += qMin(disk.size(), bytesReadByChildOn(disk.absoluteFilePath()));
    }
    progress->phase = CreateProgress::ConvertingImage;
    progress->total = archiveSize;
    progress->done = qBound<qint64>(0, archiveSize - unconverted + read, archiveSize);
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
        if (!QFileInfo(partial).isDir()) {
            // The archive is read whole for its checksum before it is unpacked.
            if (!building.isEmpty())
                progress = CreateProgress{CreateProgress::CheckingImage, 0, 0};
            return progress;
        }
        const qint64 archiveSize = QFileInfo(image.getLocalPath()).size();
        // The converted disks appear once the archive is all unpacked.
        if (QFileInfo::exists(QDir(partial).absoluteFilePath(QEMUDeviceFiles::systemDiskName()))) {
            conversionProgress(partial, archiveSize, &progress);
            return progress;
        }
        progress.phase = CreateProgress::PreparingImage;
        progress.done = bytesIn({partial});
        progress.total = archiveSize;
        return progress;
    }
    progress.total = QFileInfo(QDir(reference), getDataDiskName()).size();
    return progress;
}
