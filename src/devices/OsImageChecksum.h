#pragma once

#include "halvistromcore_export.h"

#include <QString>
#include <QtGlobal>

#include <functional>

/// The sha-256 of an OS image archive, always computed from its content,
/// never taken from a record. Hashing a large archive takes seconds, so each
/// result is kept with the file's path, size, modification time, inode and
/// device: the next call for the unchanged file reads it from there.
class HALVISTROM_CORE_EXPORT OsImageChecksum
{
public:
    /// Told how many bytes have been hashed so far.
    using Progress = std::function<void(qint64 bytesDone)>;

    /// The checksum of the file at path: the kept one while the file is
    /// unchanged, else computed now. Empty when the file cannot be read;
    /// error then says why.
    static QString get(const QString &path, const Progress &progress = {}, QString *error = nullptr);
    /// The checksum computed from the file's content now, and kept.
    static QString compute(const QString &path, const Progress &progress = {}, QString *error = nullptr);
    /// The last checksum computed for the path, even when the file has
    /// changed or is gone since; empty when none was.
    static QString lastKnown(const QString &path);
    /// Keeps checksum as that of the file at path as it is now: one computed
    /// from its content while it was written (a download hashes what arrives).
    static void keep(const QString &path, const QString &checksum);
    /// Whether text looks like a sha-256 in hex.
    static bool isChecksum(const QString &text);
};
