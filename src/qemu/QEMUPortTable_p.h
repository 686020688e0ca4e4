#pragma once

#include <QString>
#include <QVector>

/// One emulator that a program of this devices directory started: the port
/// offset it holds and what it may still take of the host's memory.
struct QEMUPortEntry {
    int offset = -1;
    /// The emulator, told from a later process with its pid by its start
    /// time, as in the device's lock file.
    long long pid = 0;
    long long startTime = 0;
    long long ramMiB = 0;
    /// The device directory's name, for the messages that count it.
    QString device;
};

/// The table of offsets in use, kept beside the port-offset lock so that a
/// start reads one small file instead of every device's record. It is read
/// and written under that lock; a reader without the lock sees a whole older
/// or newer table, never a torn one.
namespace QEMUPortTable {

/// The entries whose emulators still run; an unreadable or missing table is
/// empty.
QVector<QEMUPortEntry> readLive(const QString &path);

/// The offset the device last started on, -1 when the table knows none: a
/// device starts there again when it can, so its ports (its debug bridge
/// serial) stay the same from one start to the next.
int lastOffset(const QString &path, const QString &device);

/// Writes the table whole, private to its owner: the entries given, and the
/// last offsets of devices that do not run. False, logged, on failure.
bool write(const QString &path, const QVector<QEMUPortEntry> &entries);

/// Whether every one of ports (TCP, host byte order) is listened on by the
/// process pid: the emulator has bound its forwarded ports.
bool areListenedOnBy(long long pid, const QVector<int> &ports);

} // namespace QEMUPortTable
