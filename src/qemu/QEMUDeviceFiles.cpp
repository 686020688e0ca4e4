#include "QEMUDeviceFiles.h"

#include <QDir>

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

QString QEMUDeviceFiles::sharedFolder() const
{
    return path(sharedFolderName());
}

QString QEMUDeviceFiles::savedStates() const
{
    return path(savedStatesName());
}

QString QEMUDeviceFiles::qmpSocket() const
{
    return path(qmpSocketName());
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
