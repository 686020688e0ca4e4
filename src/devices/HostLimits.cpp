#include "HostLimits.h"

#include "HwProfile.h"

#include <QFile>
#include <QThread>

int HostLimits::cpuCount()
{
    return qMax(1, QThread::idealThreadCount());
}

qint64 HostLimits::ramSize()
{
    QFile meminfo(QStringLiteral("/proc/meminfo"));
    if (!meminfo.open(QIODevice::ReadOnly))
        return 0;
    // The first line is "MemTotal:  <n> kB"; the file is a few kB at most.
    for (const QByteArray &line : meminfo.read(64 * 1024).split('\n')) {
        if (!line.startsWith("MemTotal:"))
            continue;
        bool ok = false;
        const qint64 kib = line.mid(9).simplified().split(' ').value(0).toLongLong(&ok);
        return ok ? kib / 1024 : 0;
    }
    return 0;
}

qint64 HostLimits::defaultRamCap()
{
    const qint64 host = ramSize();
    if (host <= 0)
        return HwProfile::MaxRamSize;
    return qMax(HwProfile::MinRamSize, host / 2);
}
