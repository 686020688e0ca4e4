#pragma once

#include <QLoggingCategory>

// The QEMU engine's logging categories, beside the library's own (see
// Logging_p.h): debug lines are off unless a rule turns them on.
/// The QEMU engine: devices, disks, launches, snapshots.
Q_DECLARE_LOGGING_CATEGORY(hvQemuLog)
/// The QMP client: the traffic with the emulator at debug level, and its
/// failures.
Q_DECLARE_LOGGING_CATEGORY(hvQmpLog)
