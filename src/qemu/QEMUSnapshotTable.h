#pragma once

#include "SnapshotInfo.h"

#include <QDateTime>
#include <QList>
#include <QString>

/// One internal snapshot of a qcow2 image, as its snapshot table records it.
using QEMUSnapshotInfo = SnapshotInfo;

/// Reads the internal snapshot table straight from a qcow2 image. Listing many
/// devices this way costs a file read each instead of a process each, and it
/// works while the emulator holds the image's lock.
class QEMUSnapshotTable
{
public:
    /// The snapshots of the image at path, in table order. False (with
    /// *error set and *snapshots empty) for a file that is not a sane qcow2
    /// image.
    static bool read(const QString &path, QList<QEMUSnapshotInfo> *snapshots, QString *error);
    /// Their names only.
    static bool readNames(const QString &path, QStringList *names, QString *error);
    /// The backing file the image at path names, made absolute against the
    /// image's directory; empty when it names none or is not a qcow2 image.
    static QString backingFile(const QString &path);
};
