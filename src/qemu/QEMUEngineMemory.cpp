// Whether the host has the memory a device's start would take.
#include "QEMUEngine.h"

#include "QEMUPortTable_p.h"
#include "VMToolsMachine.h"

#include <QFile>

namespace {

// A field of a /proc meminfo or status file, in KiB; -1 when it is missing.
qint64 fieldKiB(const QString &path, const QByteArray &field)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray &line : file.readAll().split('\n')) {
        if (!line.startsWith(field + ':'))
            continue;
        bool ok = false;
        const qint64 kib = line.mid(field.size() + 1).simplified().split(' ').value(0).toLongLong(&ok);
        return ok ? kib : -1;
    }
    return -1;
}

} // namespace

QString QEMUEngine::memoryShortfall(const VMToolsMachine *machine, const QString &meminfoPath) const
{
    const qint64 availableMiB = fieldKiB(meminfoPath, "MemAvailable") / 1024;
    if (availableMiB < 0)
        return QString();
    // A running guest holds only the memory it has touched; what it has not
    // touched yet it may still take, so that counts as taken.
    qint64 claimedMiB = 0;
    for (const QEMUPortEntry &entry : QEMUPortTable::readLive(getPortTablePath())) {
        if (entry.device == machine->getName())
            continue;
        const qint64 residentMiB = fieldKiB(QStringLiteral("/proc/%1/status").arg(entry.pid), "VmRSS") / 1024;
        claimedMiB += qMax<qint64>(0, entry.ramMiB - qMax<qint64>(0, residentMiB));
    }
    const qint64 neededMiB = machine->getRamSize();
    if (neededMiB <= availableMiB - claimedMiB)
        return QString();
    return QStringLiteral("it needs %1 MiB of memory and the host has %2 MiB available%3")
        .arg(neededMiB)
        .arg(availableMiB)
        .arg(claimedMiB > 0 ? QStringLiteral(", of which running devices may still take %1 MiB").arg(claimedMiB)
                            : QString());
}
