#include "QEMUDeviceFiles.h"

#include "FileUtils.h"
#include "Paths.h"
#include "QEMULogging_p.h"

#include <QCryptographicHash>
#include <QDebug>
#include <QDir>
#include <QFile>

#include <cerrno>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// The directory that holds the devices' control sockets: the session's
// runtime directory when there is one, else a directory of the data tree.
QString socketsDirectory()
{
    const QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (QDir::isAbsolutePath(runtime) && QFileInfo(runtime).isDir())
        return QDir::cleanPath(runtime) + QStringLiteral("/halvistrom");
    return QDir::cleanPath(Paths::getOrganizationPath()) + QStringLiteral("/run");
}

// Makes dir with mode 0700, or takes the one that exists when it is a real
// directory of the owner's, closing it to others.
bool makePrivateDirectory(const QString &dir)
{
    const QByteArray path = QFile::encodeName(dir);
    if (::mkdir(path.constData(), 0700) != 0 && errno != EEXIST) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to create directory" << dir << ":" << std::strerror(errno);
        return false;
    }
    struct stat st;
    if (::lstat(path.constData(), &st) != 0 || !S_ISDIR(st.st_mode) || st.st_uid != ::getuid()) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Refusing" << dir << ": not a directory of this user's";
        return false;
    }
    if ((st.st_mode & 077) != 0 && ::chmod(path.constData(), 0700) != 0) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to close" << dir << ":" << std::strerror(errno);
        return false;
    }
    return true;
}

} // namespace

QEMUDeviceFiles::QEMUDeviceFiles(const QString &deviceDir)
    : m_dir(QDir(deviceDir).absolutePath())
{
}

QString QEMUDeviceFiles::systemDiskName()
{
    return QStringLiteral("system.qcow2");
}

QString QEMUDeviceFiles::dataDiskName()
{
    return QStringLiteral("data.qcow2");
}

QString QEMUDeviceFiles::sdCardName()
{
    return QStringLiteral("sdcard.qcow2");
}

QString QEMUDeviceFiles::lockFileName()
{
    return QStringLiteral("qemu.lock");
}

QString QEMUDeviceFiles::logFileName()
{
    return QStringLiteral("qemu.log");
}

QString QEMUDeviceFiles::consoleLogName()
{
    return QStringLiteral("console.log");
}

QString QEMUDeviceFiles::previousConsoleLogName()
{
    return consoleLogName() + QLatin1String(".1");
}

QString QEMUDeviceFiles::sharedFolderName()
{
    return QStringLiteral("shared");
}

QString QEMUDeviceFiles::savedStatesName()
{
    return QStringLiteral("snapshots.json");
}

QString QEMUDeviceFiles::sessionRecordName()
{
    return QStringLiteral("session.json");
}

QString QEMUDeviceFiles::qmpSocketName()
{
    return QStringLiteral("qmp.sock");
}

QString QEMUDeviceFiles::commandLockName()
{
    return QStringLiteral("command.lock");
}

QString QEMUDeviceFiles::resetMarkerName()
{
    return QStringLiteral("reset.pending");
}

QString QEMUDeviceFiles::markerName()
{
    return QStringLiteral(".halvistrom-device");
}

bool QEMUDeviceFiles::isDeviceFileName(const QString &name)
{
    return name == systemDiskName() || name == dataDiskName() || name == sdCardName() || name == lockFileName() ||
           name == logFileName() || name == sharedFolderName() || name == savedStatesName() ||
           name == sessionRecordName() || name == qmpSocketName() || name == commandLockName() ||
           name == resetMarkerName() || name == markerName() || name == consoleLogName() ||
           name == previousConsoleLogName();
}

QString QEMUDeviceFiles::path(const QString &name) const
{
    return m_dir + QLatin1Char('/') + name;
}

QString QEMUDeviceFiles::systemDisk() const
{
    return path(systemDiskName());
}

QString QEMUDeviceFiles::dataDisk() const
{
    return path(dataDiskName());
}

QString QEMUDeviceFiles::sdCard() const
{
    return path(sdCardName());
}

QString QEMUDeviceFiles::lockFile() const
{
    return path(lockFileName());
}

QString QEMUDeviceFiles::logFile() const
{
    return path(logFileName());
}

QString QEMUDeviceFiles::consoleLog() const
{
    return path(consoleLogName());
}

QString QEMUDeviceFiles::previousConsoleLog() const
{
    return path(previousConsoleLogName());
}

QString QEMUDeviceFiles::sharedFolder() const
{
    return path(sharedFolderName());
}

QString QEMUDeviceFiles::savedStates() const
{
    return path(savedStatesName());
}

QString QEMUDeviceFiles::marker() const
{
    return path(markerName());
}

QString QEMUDeviceFiles::qmpSocket() const
{
    const QByteArray digest = QCryptographicHash::hash(QFile::encodeName(m_dir), QCryptographicHash::Sha256);
    return socketsDirectory() + QLatin1Char('/') + QString::fromLatin1(digest.toHex().left(16)) + QLatin1Char('/') +
           qmpSocketName();
}

bool QEMUDeviceFiles::makeSocketDirectory() const
{
    const QString base = socketsDirectory();
    if (!FileUtils::makeDirectory(QFileInfo(base).absolutePath()))
        return false;
    return makePrivateDirectory(base) && makePrivateDirectory(QFileInfo(qmpSocket()).absolutePath());
}

QString QEMUDeviceFiles::commandLock() const
{
    return path(commandLockName());
}

QString QEMUDeviceFiles::resetMarker() const
{
    return path(resetMarkerName());
}

QString QEMUDeviceFiles::sessionRecord() const
{
    return path(sessionRecordName());
}
