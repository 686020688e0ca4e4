#include "Paths.h"

#include "EnvVars.h"
#include "FileUtils.h"
#include "HalvistromAppUtils.h"
#include "Logging_p.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDebug>
#include <QDir>
#include <QFileInfo>

namespace {

QString homeDirectory()
{
    const QByteArray raw = EnvVars::getByteArray("HV_HOME");
    if (raw.isEmpty())
        return QDir::homePath();
    const QString home = QString::fromLocal8Bit(raw);
    if (!FileUtils::makeDirectory(home))
        qFatal("HV_HOME is set to '%s', but this directory cannot be created.", home.toUtf8().constData());
    return QDir(home).absolutePath();
}

Paths::PathInfo computeLayout()
{
    Paths::PathInfo p;
    p.homePath = homeDirectory();
    p.organizationPath = p.homePath + QStringLiteral("/.") + HalvistromAppUtils::getOrganizationName();
    p.halvistromPath = p.organizationPath + QLatin1Char('/') + HalvistromAppUtils::getHalvistromAppName();
    p.cachePath = p.halvistromPath + QStringLiteral("/cache/");
    p.ovaPath = p.halvistromPath + QStringLiteral("/ova/");
    p.userHwProfilePath = p.halvistromPath + QStringLiteral("/hwprofiles/");
    p.userOsImagePath = p.halvistromPath + QStringLiteral("/osimages/");
    p.systemImagesPath = p.halvistromPath + QStringLiteral("/system-images/");
    p.deployedPath = p.halvistromPath + QStringLiteral("/deployed/");
    p.themePath = p.halvistromPath + QStringLiteral("/themes/");
    p.skinsPath = p.halvistromPath + QStringLiteral("/skins/");
    p.mediaPath = p.halvistromPath + QStringLiteral("/media/");

    const QString created[] = {p.halvistromPath, p.cachePath,         p.ovaPath,          p.deployedPath,
                               p.themePath,      p.userHwProfilePath, p.userOsImagePath,  p.systemImagesPath,
                               p.skinsPath,      p.mediaPath};
    // The tree holds disks with saved guest memory, lock files and control
    // sockets: every directory of it is made for the owner alone.
    for (const QString &dir : created) {
        if (!FileUtils::makeDirectory(dir))
            qCCritical(hvFoundationLog) << "Failed to create" << dir << "things may go wrong";
    }
    // A tree made by an older program (or under a wide umask) is closed once;
    // the marker saves every later start a walk of every device's files.
    // What is created afterwards is private by the modes it is created with.
    const QString closed = p.halvistromPath + QStringLiteral("/.private");
    if (!QFileInfo::exists(closed) && FileUtils::makePrivate(p.organizationPath) >= 0)
        FileUtils::saveFile(closed, QByteArrayLiteral("the data tree was made private\n"));
    return p;
}

} // namespace

const Paths::PathInfo &Paths::info()
{
    static const PathInfo layout = computeLayout();
    return layout;
}

QString Paths::getHomePath() { return info().homePath; }
QString Paths::getOrganizationPath() { return info().organizationPath; }
QString Paths::getHalvistromPath() { return info().halvistromPath; }
QString Paths::getHalvistromCachePath() { return info().cachePath; }
QString Paths::getOvaPath() { return info().ovaPath; }
QString Paths::getUserHwProfilePath() { return info().userHwProfilePath; }
QString Paths::getUserOsImagePath() { return info().userOsImagePath; }
QString Paths::getDeployedPath() { return info().deployedPath; }
QString Paths::getHalvistromThemePath() { return info().themePath; }
QString Paths::getHalvistromSkinsPath() { return info().skinsPath; }
QString Paths::getHalvistromMediaPath() { return info().mediaPath; }
QString Paths::getNetworkCachePath() { return info().cachePath + QStringLiteral("network/"); }
QString Paths::getAuthCachePath() { return info().cachePath + QStringLiteral("auth/"); }
QString Paths::getHwProfileCachePath() { return info().cachePath + QStringLiteral("hwprofile/"); }
QString Paths::getOsImageCachePath() { return info().cachePath + QStringLiteral("osimage/"); }
QString Paths::getOpenGAppsCachePath() { return info().cachePath + QStringLiteral("opengapps/"); }
QString Paths::getQtLocationCachePath() { return info().cachePath + QStringLiteral("qtlocation/"); }
QString Paths::getHwProfileCacheFile() { return getHwProfileCachePath() + QStringLiteral("/hwprofiles.list"); }
QString Paths::getOsImageCacheFile() { return getOsImageCachePath() + QStringLiteral("/osimages.list"); }
QString Paths::getHalvistromLogPath() { return info().organizationPath + QStringLiteral("/halvistrom.log"); }

QString Paths::getSystemImagePath(const VersionNumber &productVersion, const VersionNumber &androidVersion)
{
    return info().systemImagesPath + QLatin1Char('/') + productVersion.toString() + QLatin1Char('/')
        + androidVersion.toString();
}

QString Paths::getHalvistromLogsArchivePath(const QString &defaultDir)
{
    const QString dir = EnvVars::getString("HV_LOGS_ARCHIVE_DIR", defaultDir);
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss"));
    return QDir::cleanPath(QStringLiteral("%1/halvistrom-logs-%2.zip").arg(dir, stamp));
}

QString Paths::getLaunchpadDirPath() { return QCoreApplication::applicationDirPath(); }
QString Paths::getLaunchpadBinaryPath() { return getLaunchpadDirPath() + QStringLiteral("/halvistrom"); }
QString Paths::getPlayerBinaryPath() { return getLaunchpadDirPath() + QStringLiteral("/player"); }
QString Paths::getQEmuBinDirPath() { return getLaunchpadDirPath() + QStringLiteral("/qemu/x86_64/bin"); }

QString Paths::getTemporaryDirPath()
{
    const QString dir = info().halvistromPath + QStringLiteral("/tmp/");
    if (FileUtils::makeDirectory(dir))
        return dir;
    qCWarning(hvFoundationLog) << "QString Paths::getTemporaryDirPath()"
               << "Failed to create" << dir << ". Falling back to QDir::tempPath()";
    return QDir::tempPath();
}

QString Paths::findExecutableInPath(const QString &name)
{
    // Empty components are dropped: a leading or doubled ":" must not mean
    // the current directory.
    const QStringList dirs = EnvVars::getString("PATH").split(QLatin1Char(':'), Qt::SkipEmptyParts);
    for (const QString &dir : dirs) {
        const QFileInfo candidate(dir + QLatin1Char('/') + name);
        if (candidate.isExecutable())
            return candidate.absoluteFilePath();
    }
    return QString();
}
