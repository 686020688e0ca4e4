#pragma once

#include <QString>
#include <QStringList>

namespace hvtool {

/// Reads the internal snapshot names straight from a qcow2 image's snapshot
/// table. Listing many devices this way costs a file read each instead of a
/// process each, and works while the emulator holds the image's lock.
/// Returns false (with *error set) for a file that is not a sane qcow2 image.
bool readQcow2SnapshotNames(const QString &path, QStringList *names, QString *error);

} // namespace hvtool
