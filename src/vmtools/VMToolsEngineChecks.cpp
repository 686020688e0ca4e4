// What the engine tells of OS images and of the host, for the programs that
// register images and check the set-up.
#include "VMToolsEngine.h"

#include "Archive.h"
#include "OsImage.h"
#include "Paths.h"

#include <QDir>
#include <QTemporaryDir>

QString VMToolsEngine::inspectDisk(const QString &, const QString &) const
{
    return QString();
}

bool VMToolsEngine::removeReferenceDisks(const OsImage &, QStringList *users, bool *creating)
{
    users->clear();
    *creating = false;
    return true;
}

QString VMToolsEngine::inspectOsImage(const QString &ovaPath) const
{
    // Unpacked into a private directory of the system's own, so that a disk
    // naming a host file is refused before anything reaches the
    // system-image directory.
    QTemporaryDir scratch(QDir(Paths::getTemporaryDirPath()).filePath(QStringLiteral("inspect-XXXXXX")));
    if (!scratch.isValid())
        return QStringLiteral("could not make a temporary directory: %1").arg(scratch.errorString());
    const Archive::Result untarred = Archive::untar(ovaPath, scratch.path());
    if (!Archive::isOk(untarred))
        return QStringLiteral("'%1' could not be unpacked (error %2)").arg(ovaPath).arg(int(untarred));
    for (const QString &disk : OsImage::ovaDiskNames()) {
        const QString reason = inspectDisk(scratch.filePath(disk), QFileInfo(disk).suffix());
        if (!reason.isEmpty())
            return QStringLiteral("'%1' is refused: %2").arg(ovaPath, QString(reason).replace(scratch.path() + '/', QString()));
    }
    return QString();
}

QList<VMToolsHostCheck> VMToolsEngine::checkHost(const std::function<void(const QString &)> &)
{
    return {};
}

QStringList VMToolsEngine::settingChoices(const QString &) const
{
    return {};
}

QString VMToolsEngine::foreignDevicesDirectoryReason(const QString &) const
{
    return QString();
}
