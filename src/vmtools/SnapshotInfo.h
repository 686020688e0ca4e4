#pragma once

#include <QDateTime>
#include <QString>

/// One saved state of a device, as its disks record it.
struct SnapshotInfo {
    QString name;
    /// When it was taken; invalid when the engine does not know.
    QDateTime date;
    /// Bytes of saved machine state (guest memory and devices); 0 for a
    /// snapshot of the disks alone.
    qint64 vmStateSize = 0;
    /// The guest's clock when it was taken, in nanoseconds since it booted.
    qint64 guestClockNs = 0;
};
