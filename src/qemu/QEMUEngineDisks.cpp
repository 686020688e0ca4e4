// The disk operations of the QEMU engine: overlays, conversion, the SD card,
// resizing, copying, deleting, and the internal snapshots of a device's
// images. Everything but copying and deleting runs the image tool.
#include "QEMUEngine.h"

#include "QEMUDeviceFiles.h"
#include "QEMUSnapshotTable.h"
#include "VMToolsCommon.h"
#include "VMToolsMachine.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QRegularExpression>

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
        qWarning() << "[VMTools]" << "Backing disk file not found:" << backing.absoluteFilePath();
        return false;
    }
    // The backing format is always given: the tool refuses to guess it for
    // an image it would then write through.
    const VMToolsCommon::CallResult result = VMToolsCommon::call(
        m_qemuImgBinaryPath,
        {QStringLiteral("create"), QStringLiteral("-f"), QStringLiteral("qcow2"), QStringLiteral("-b"),
         backing.absoluteFilePath(), QStringLiteral("-F"), QStringLiteral("qcow2"), target.absoluteFilePath()});
    if (!succeeded(result) || !QFileInfo::exists(target.absoluteFilePath())) {
        qCritical() << "[VMTools]" << "Failed to create disk" << target.absoluteFilePath() << "."
                    << result.error.trimmed();
        return false;
    }
    return true;
}

bool QEMUEngine::convertDisk(const QFileInfo &source, const QFileInfo &target) const
{
    if (!source.exists()) {
        qWarning() << "[VMTools]" << "Disk file not found:" << source.absoluteFilePath();
        return false;
    }
    // A reference disk is several gigabytes: its conversion gets the long
    // time-out.
    const VMToolsCommon::CallResult result = VMToolsCommon::call(
        m_qemuImgBinaryPath,
        {QStringLiteral("convert"), QStringLiteral("-O"), QStringLiteral("qcow2"), source.absoluteFilePath(),
         target.absoluteFilePath()},
        VMToolsCommon::LongTimeout);
    // The source goes only when the converted image is complete: every device
    // made from it would break on a half-written one.
    if (!succeeded(result) || !QFileInfo::exists(target.absoluteFilePath())) {
        qCritical() << "[VMTools]" << "Failed to convert" << source.absoluteFilePath() << "to"
                    << target.absoluteFilePath() << "." << result.error.trimmed();
        return false;
    }
    deleteDisk(source.absoluteFilePath());
    return true;
}

bool QEMUEngine::createSDCard(const QString &directory, long long sizeMiB) const
{
    const QString file = diskInDirectory(directory, getSDCardDiskName());
    const VMToolsCommon::CallResult result = VMToolsCommon::call(
        m_qemuImgBinaryPath, {QStringLiteral("create"), QStringLiteral("-f"), QStringLiteral("qcow2"), file,
                              mebibytes(sizeMiB)});
    if (!succeeded(result)) {
        qCritical() << "[VMTools]" << "Failed to create" << file << "." << result.error.trimmed();
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
        qCritical() << "[VMTools]" << "Failed to resize" << image.absoluteFilePath() << "." << result.error.trimmed();
        return false;
    }
    return true;
}

bool QEMUEngine::copyDisk(const QString &source, const QString &destination) const
{
    QFile file(source);
    if (!file.copy(destination)) {
        qCritical() << "[VMTools]" << "Failed to copy" << source << "to" << destination << ":" << file.errorString();
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
        qCritical() << "[VMTools]" << "Failed to remove" << path << ":" << file.errorString();
        return false;
    }
    return true;
}

QStringList QEMUEngine::fetchSnapshotNames(const VMToolsMachine *machine) const
{
    QStringList names;
    if (!machine)
        return names;
    const QString disk = diskInDirectory(machine->getPath(), kSystemDiskName);
    // The table read straight from the image works while the emulator runs
    // and holds the image's lock; the image tool is asked only when the file
    // cannot be read that way, and then without taking the lock.
    QString error;
    QStringList fromTable;
    if (QEMUSnapshotTable::readNames(disk, &fromTable, &error)) {
        static const QRegularExpression word(QStringLiteral("^\\w+$"));
        for (const QString &name : fromTable) {
            if (word.match(name).hasMatch())
                names.append(name);
        }
        return names;
    }
    const VMToolsCommon::CallResult result = VMToolsCommon::call(
        m_qemuImgBinaryPath, {QStringLiteral("snapshot"), QStringLiteral("-l"), QStringLiteral("-U"), disk});
    if (!succeeded(result)) {
        qCritical() << "[VMTools]" << "Failed to list snapshots of" << disk;
        return names;
    }
    // One snapshot per line, its number first; the header lines start with
    // words and never match. A name with other characters than \w is left out
    // rather than passed on to a command line that might misread it.
    static const QRegularExpression line(QStringLiteral("^\\d+\\s+(?<name>\\w+)\\s+\\N+$"),
                                         QRegularExpression::MultilineOption);
    QRegularExpressionMatchIterator it = line.globalMatch(result.output);
    while (it.hasNext()) {
        const QString name = it.next().captured(QStringLiteral("name"));
        qDebug() << "[VMTools]" << "found snapshot" << name;
        names.append(name);
    }
    return names;
}

bool QEMUEngine::deleteSnapshot(const QFileInfo &disk, const QString &name) const
{
    const VMToolsCommon::CallResult result = VMToolsCommon::call(
        m_qemuImgBinaryPath, {QStringLiteral("snapshot"), QStringLiteral("-d"), name, disk.absoluteFilePath()});
    if (!succeeded(result)) {
        qCritical() << "[VMTools]" << "Failed to delete snapshot:" << name << disk.absoluteFilePath() << "."
                    << result.error.trimmed();
        return false;
    }
    return true;
}

bool QEMUEngine::deleteSnapshot(const VMToolsMachine *machine, const QString &name) const
{
    if (!machine) {
        qWarning() << "[VMTools]" << "Cannot delete snapshot" << name << "of no device";
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
