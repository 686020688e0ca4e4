#pragma once

#include "VersionNumber.h"
#include "halvistromcore_export.h"

#include <QString>

/// The one place that knows the on-disk layout: the user's data, caches,
/// images and logs under the organisation directory, and the program's own
/// binaries beside the running executable. Computed once, on first use.
class HALVISTROM_CORE_EXPORT Paths
{
public:
    /// The layout, computed once per process.
    struct PathInfo {
        QString homePath;
        QString organizationPath;
        QString halvistromPath;
        QString cachePath;
        QString ovaPath;
        QString userHwProfilePath;
        QString userOsImagePath;
        QString systemImagesPath;
        QString deployedPath;
        QString themePath;
        QString skinsPath;
        QString mediaPath;
    };

    /// "HV_HOME" when it is set, else the user's home directory: the
    /// directory the data tree and every per-user default live in.
    static QString getHomePath();
    static QString getOrganizationPath();
    static QString getHalvistromPath();
    static QString getHalvistromCachePath();
    static QString getOvaPath();
    static QString getUserHwProfilePath();
    static QString getUserOsImagePath();
    static QString getDeployedPath();
    static QString getHalvistromThemePath();
    static QString getHalvistromSkinsPath();
    static QString getHalvistromMediaPath();
    static QString getNetworkCachePath();
    static QString getAuthCachePath();
    static QString getHwProfileCachePath();
    static QString getOsImageCachePath();
    static QString getOpenGAppsCachePath();
    static QString getQtLocationCachePath();
    static QString getHwProfileCacheFile();
    static QString getOsImageCacheFile();
    static QString getHalvistromLogPath();
    /// system images + "/" + product version + "/" + Android version.
    static QString getSystemImagePath(const VersionNumber &productVersion, const VersionNumber &androidVersion);
    /// A new, time-stamped zip name in "HV_LOGS_ARCHIVE_DIR" or defaultDir.
    static QString getHalvistromLogsArchivePath(const QString &defaultDir);
    static QString getLaunchpadDirPath();
    static QString getLaunchpadBinaryPath();
    static QString getPlayerBinaryPath();
    static QString getQEmuBinDirPath();
    /// The product's temporary directory, created on each call; the system's
    /// temporary directory when it cannot be created.
    static QString getTemporaryDirPath();
    /// The first executable of that name in "PATH" (empty components ignored),
    /// or an empty string.
    static QString findExecutableInPath(const QString &name);

private:
    static const PathInfo &info();
};
