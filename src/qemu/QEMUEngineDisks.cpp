// The disk operations of the QEMU engine: overlays, conversion, the SD card,
// resizing, copying, deleting, and the internal snapshots of a device's
// images. Everything but copying and deleting runs the image tool.
#include "QEMUEngine.h"

#include "FileUtils.h"
#include "QEMUDeviceFiles.h"
#include "QEMULogging_p.h"
#include "QEMUSnapshotTable.h"
#include "VMToolsCommon.h"
#include "VMToolsMachine.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

const QString kSystemDiskName = QEMUDeviceFiles::systemDiskName();
const QString kDataDiskName = QEMUDeviceFiles::dataDiskName();

// Sizes reach the image tool as whole mebibytes.
QString mebibytes(long long sizeMiB)
{
    return QString::number(sizeMiB) + QLatin1Char('M');
}

// A run cut off by the time-out (or one that never started) reports exit code
// 0, so the exit code alone would take a half-written image for a good one.
// call() has already logged "Can't run" for such a run.
bool succeeded(const VMToolsCommon::CallResult &result)
{
    return result.finished && result.returnCode == 0;
}

QString diskInDirectory(const QString &directory, const QString &name)
{
    return QDir(directory).absoluteFilePath(name);
}

} // namespace

bool QEMUEngine::createDisk(const QFileInfo &backing, const QFileInfo &target) const
{
    if (!backing.exists()) {
        qCWarning(hvQemuLog) << "[VMTools]" << "Backing disk file not found:" << backing.absoluteFilePath();
        return false;
    }
    // The backing format is always given: the tool refuses to guess it for
    // an image it would then write through.
    const VMToolsCommon::CallResult result = VMToolsCommon::call(
        m_qemuImgBinaryPath,
        {QStringLiteral("create"), QStringLiteral("-f"), QStringLiteral("qcow2"), QStringLiteral("-b"),
         backing.absoluteFilePath(), QStringLiteral("-F"), QStringLiteral("qcow2"), target.absoluteFilePath()});
    if (!succeeded(result) || !QFileInfo::exists(target.absoluteFilePath())) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to create disk" << target.absoluteFilePath() << "."
                    << result.error.trimmed();
        return false;
    }
    return true;
}

bool QEMUEngine::rebaseDisk(const QString &disk, const QString &backing) const
{
    const VMToolsCommon::CallResult result = VMToolsCommon::call(
        m_qemuImgBinaryPath, {QStringLiteral("rebase"), QStringLiteral("-u"), QStringLiteral("-f"), QStringLiteral("qcow2"),
                              QStringLiteral("-b"), backing, QStringLiteral("-F"), QStringLiteral("qcow2"), disk});
    if (!succeeded(result)) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to rebase" << disk << "onto" << backing << "." << result.error.trimmed();
        return false;
    }
    return true;
}

bool QEMUEngine::convertDisk(const QFileInfo &source, const QFileInfo &target) const
{
    if (!source.exists()) {
        qCWarning(hvQemuLog) << "[VMTools]" << "Disk file not found:" << source.absoluteFilePath();
        return false;
    }
    // The source format is always named: a guessed one would let a "vmdk"
    // that is really another format pull in the files it names.
    const QString format = source.suffix().toLower();
    const QString refusal = inspectDisk(source.absoluteFilePath(), format);
    if (!refusal.isEmpty()) {
        qCCritical(hvQemuLog).noquote() << "[VMTools]" << "Refusing to convert" << refusal;
        return false;
    }
    // A reference disk is several gigabytes: its conversion gets the long
    // time-out.
    const VMToolsCommon::CallResult result = VMToolsCommon::call(
        m_qemuImgBinaryPath,
        {QStringLiteral("convert"), QStringLiteral("-f"), format, QStringLiteral("-O"), QStringLiteral("qcow2"),
         source.absoluteFilePath(), target.absoluteFilePath()},
        VMToolsCommon::LongTimeout);
    // The source goes only when the converted image is complete: every device
    // made from it would break on a half-written one.
    if (!succeeded(result) || !QFileInfo::exists(target.absoluteFilePath())) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to convert" << source.absoluteFilePath() << "to"
                    << target.absoluteFilePath() << "." << result.error.trimmed();
        return false;
    }
    deleteDisk(source.absoluteFilePath());
    return true;
}

QString QEMUEngine::inspectDisk(const QString &path, const QString &format) const
{
    const QString name = QStringLiteral("'%1'").arg(path);
    if (format != QLatin1String("vmdk") && format != QLatin1String("qcow2"))
        return QStringLiteral("disk %1: '%2' is not a disk format an OS image may hold").arg(name, format);
    // With the format given the tool does not probe, and "info" opens the
    // image without its backing file and without reading its data. It gets
    // the time a conversion of the same image gets.
    const VMToolsCommon::CallResult result = VMToolsCommon::call(
        m_qemuImgBinaryPath,
        {QStringLiteral("info"), QStringLiteral("--output=json"), QStringLiteral("-f"), format, path},
        VMToolsCommon::LongTimeout);
    if (!succeeded(result))
        return QStringLiteral("disk %1: not a %2 image: %3")
            .arg(name, format, result.finished ? result.error.trimmed() : QStringLiteral("the image tool did not finish"));
    QJsonParseError error;
    const QJsonObject info = QJsonDocument::fromJson(result.output.toLatin1(), &error).object();
    if (error.error != QJsonParseError::NoError || info.isEmpty())
        return QStringLiteral("disk %1: unreadable image information: %2").arg(name, error.errorString());
    if (info.value(QLatin1String("format")).toString() != format)
        return QStringLiteral("disk %1: format '%2', expected '%3'")
            .arg(name, info.value(QLatin1String("format")).toString(), format);
    // Anything the image names outside itself would be read into every disk
    // made from it: a backing file, an external data file, a foreign extent.
    for (const char *key : {"backing-filename", "full-backing-filename"}) {
        if (info.contains(QLatin1String(key)))
            return QStringLiteral("disk %1: it has a backing file '%2'")
                .arg(name, info.value(QLatin1String(key)).toString());
    }
    const QJsonObject data = info.value(QLatin1String("format-specific")).toObject().value(QLatin1String("data")).toObject();
    if (data.contains(QLatin1String("data-file")))
        return QStringLiteral("disk %1: it has an external data file '%2'")
            .arg(name, data.value(QLatin1String("data-file")).toString());
    const QString self = info.value(QLatin1String("filename")).toString();
    for (const QJsonValue &extent : data.value(QLatin1String("extents")).toArray()) {
        const QString file = extent.toObject().value(QLatin1String("filename")).toString();
        if (file != self)
            return QStringLiteral("disk %1: it has an extent in another file '%2'").arg(name, file);
    }
    return QString();
}

bool QEMUEngine::createSDCard(const QString &directory, long long sizeMiB) const
{
    const QString file = diskInDirectory(directory, getSDCardDiskName());
    const VMToolsCommon::CallResult result = VMToolsCommon::call(
        m_qemuImgBinaryPath, {QStringLiteral("create"), QStringLiteral("-f"), QStringLiteral("qcow2"), file,
                              mebibytes(sizeMiB)});
    if (!succeeded(result)) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to create" << file << "." << result.error.trimmed();
        return false;
    }
    return true;
}

bool QEMUEngine::resizeDisk(const QString &path, long long size) const
{
    const QFileInfo image(path);
    if (!image.exists())
        return false;
    // Growing an image may copy much of it: the long time-out applies.
    const VMToolsCommon::CallResult result =
        VMToolsCommon::call(m_qemuImgBinaryPath,
                            {QStringLiteral("resize"), image.absoluteFilePath(), mebibytes(size)},
                            VMToolsCommon::LongTimeout);
    if (!succeeded(result)) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to resize" << image.absoluteFilePath() << "." << result.error.trimmed();
        return false;
    }
    return true;
}

bool QEMUEngine::copyDisk(const QString &source, const QString &destination) const
{
    QString error;
    if (!FileUtils::copyFile(source, destination, &error)) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to copy" << source << "to" << destination << ":" << error;
        return false;
    }
    return true;
}

bool QEMUEngine::deleteDisk(const QString &path) const
{
    if (!QFile::exists(path))
        return true;
    QFile file(path);
    if (!file.remove()) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to remove" << path << ":" << file.errorString();
        return false;
    }
    return true;
}

QStringList QEMUEngine::fetchSnapshotNames(const VMToolsMachine *machine) const
{
    // Every name the system disk holds, whatever its characters: what is
    // listed can be deleted (the name is one argument of the image tool).
    QStringList names;
    for (const QEMUSnapshotInfo &snapshot : fetchSnapshots(machine))
        names.append(snapshot.name);
    return names;
}

bool QEMUEngine::deleteSnapshot(const QFileInfo &disk, const QString &name) const
{
    const VMToolsCommon::CallResult result = VMToolsCommon::call(
        m_qemuImgBinaryPath, {QStringLiteral("snapshot"), QStringLiteral("-d"), name, disk.absoluteFilePath()});
    if (!succeeded(result)) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to delete snapshot:" << name << disk.absoluteFilePath() << "."
                    << result.error.trimmed();
        return false;
    }
    return true;
}

bool QEMUEngine::deleteSnapshot(const VMToolsMachine *machine, const QString &name) const
{
    if (!machine) {
        qCWarning(hvQemuLog) << "[VMTools]" << "Cannot delete snapshot" << name << "of no device";
        return false;
    }
    if (!fetchSnapshotNames(machine).contains(name))
        return true;
    const QString directory = machine->getPath();
    if (!deleteSnapshot(QFileInfo(diskInDirectory(directory, kSystemDiskName)), name))
        return false;
    // The system disk decides: the device's state is its snapshot. The other
    // disks follow it; a copy of the snapshot left on them only costs space.
    deleteSnapshot(QFileInfo(diskInDirectory(directory, kDataDiskName)), name);
    const QFileInfo sdCard(diskInDirectory(directory, getSDCardDiskName()));
    if (sdCard.exists())
        deleteSnapshot(sdCard, name);
    return true;
}
