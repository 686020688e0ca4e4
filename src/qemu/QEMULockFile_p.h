#pragma once

#include <QString>

/// What "qemu.lock" records of a device's running emulator. Only this file's
/// functions read or write it.
struct QEMULockRecord {
    /// The emulator's pid; 0 when the file names none (or nothing that can be
    /// a process: zero and negative ids address process groups in kill()).
    long long pid = 0;
    /// The emulator's start time (VMToolsCommon::processStartTime); 0 in
    /// files written before it was recorded.
    long long startTime = 0;
    /// The port offset the emulator was started with; -1 when unknown.
    int offset = -1;
    /// Whether the emulator has the writable shared-folder drive attached:
    /// 1 yes, 0 no, -1 not recorded.
    int writableSharedDrive = -1;
    /// The emulator's QMP socket, for other programs to find; empty when not
    /// recorded.
    QString qmpSocket;
    /// The accelerator ("kvm", "tcg") and CPU model the emulator was started
    /// with; empty when not recorded.
    QString accelerator;
    QString cpuModel;
};

namespace QEMULockFile {

/// Reads the record at path. False, with an empty record, when there is no
/// file; a file that is oversized or unreadable reads as empty too.
bool read(const QString &path, QEMULockRecord *record);

/// Writes the record whole (a temporary file renamed over the old one),
/// readable by its owner only. False, logged with the cause, on failure; the
/// old file then stays as it was.
bool write(const QString &path, const QEMULockRecord &record);

} // namespace QEMULockFile
