// What interrupted creations, clones and deletions leave in the devices
// directory: the hidden directories they build devices in or remove them from. They are found by their names,
// which record the process that made them, and reclaimed once that process
// is gone.
#include "QEMUEngine.h"

#include "FileUtils.h"
#include "QEMUDeviceFiles.h"
#include "QEMULogging_p.h"
#include "VMToolsCommon.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QHash>
#include <QRegularExpression>

namespace {

// ".<device>.<operation>-<pid>-<start time>-XXXXXX"; an earlier version made
// ".<device>.clone-XXXXXX", without the process.
const QRegularExpression &buildNamePattern()
{
    static const QRegularExpression pattern(
        QStringLiteral("^\\.(.+)\\.(create|clone|delete)-(?:([0-9]+)-([0-9]+)-)?[A-Za-z0-9]{6}$"));
    return pattern;
}

// The system's when it carries the device marker, or when it holds nothing
// but the files of a device (a copy killed before the marker arrived).
bool holdsOnlyDeviceFiles(const QString &path)
{
    if (QFileInfo(QEMUDeviceFiles(path).marker()).isFile())
        return true;
    const QStringList names = QDir(path).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    for (const QString &name : names) {
        if (!QEMUDeviceFiles::isDeviceFileName(name))
            return false;
    }
    return true;
}

qint64 bytesBelow(const QString &path)
{
    qint64 bytes = 0;
    FileUtils::walkDirectory(path, {}, [&bytes](QFile *file) { bytes += file->size(); });
    return bytes;
}

} // namespace

QEMUEngine::Leftover QEMUEngine::parseLeftover(const QFileInfo &entry)
{
    Leftover leftover;
    leftover.pid = -1;
    const QRegularExpressionMatch match = buildNamePattern().match(entry.fileName());
    if (!match.hasMatch() || !entry.isDir() || entry.isSymLink() || !holdsOnlyDeviceFiles(entry.absoluteFilePath()))
        return leftover;
    leftover.name = entry.fileName();
    leftover.path = entry.absoluteFilePath();
    leftover.device = match.captured(1);
    static const QHash<QString, QString> operations = {{QStringLiteral("create"), QStringLiteral("creation")},
                                                       {QStringLiteral("clone"), QStringLiteral("clone")},
                                                       {QStringLiteral("delete"), QStringLiteral("deletion")}};
    leftover.operation = operations.value(match.captured(2));
    leftover.pid = match.captured(3).toLongLong();
    leftover.inProgress = leftover.pid > 0 && VMToolsCommon::isSameProcess(leftover.pid, match.captured(4).toLongLong());
    return leftover;
}

QList<QEMUEngine::Leftover> QEMUEngine::getLeftovers() const
{
    QList<Leftover> leftovers;
    const QFileInfoList entries = m_devicesDirectory.entryInfoList(
        {QStringLiteral(".*")}, QDir::Dirs | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
    for (const QFileInfo &entry : entries) {
        Leftover leftover = parseLeftover(entry);
        if (leftover.pid < 0)
            continue;
        leftover.bytes = bytesBelow(leftover.path);
        leftovers.append(leftover);
    }
    return leftovers;
}

bool QEMUEngine::reclaimLeftover(const Leftover &leftover) const
{
    // Looked at again: the process may have been started since the list.
    const Leftover now = parseLeftover(QFileInfo(leftover.path));
    if (now.pid < 0 || QFileInfo(now.path).absolutePath() != m_devicesDirectory.absolutePath()) {
        qCWarning(hvQemuLog) << "[VMTools]" << "Not reclaiming" << leftover.path << ": it is no leftover of this devices directory";
        return false;
    }
    if (now.inProgress) {
        qCWarning(hvQemuLog) << "[VMTools]" << "Not reclaiming" << leftover.path << ": process" << now.pid << "still makes it";
        return false;
    }
    // Another cleanup may be removing it at the same moment.
    if (!QDir(now.path).removeRecursively() && QFileInfo::exists(now.path)) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to remove" << now.path;
        return false;
    }
    qCInfo(hvQemuLog) << "[VMTools]" << "Reclaimed" << now.path;
    return true;
}

QStringList QEMUEngine::buildDirectories(const QString &name) const
{
    QStringList paths;
    const QFileInfoList entries = m_devicesDirectory.entryInfoList(
        {QLatin1Char('.') + name + QStringLiteral(".*")}, QDir::Dirs | QDir::Hidden | QDir::NoDotAndDotDot);
    for (const QFileInfo &entry : entries) {
        const QRegularExpressionMatch match = buildNamePattern().match(entry.fileName());
        if (match.hasMatch() && match.captured(1) == name)
            paths << entry.absoluteFilePath();
    }
    return paths;
}
