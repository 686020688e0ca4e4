#pragma once

#include <QtGlobal>

/// How far a creation of a device has come.
struct CreateProgress {
    enum Phase {
        /// Nothing of it is on disk yet (or it is over).
        Waiting,
        /// The OS image's archive is being unpacked.
        PreparingImage,
        /// The device's own disks are being made.
        MakingDisks,
        /// The unpacked disks of the OS image are being converted to the
        /// engine's format (done and total count the archive's bytes).
        ConvertingImage,
        /// The OS image's archive is being checked against its checksum
        /// before its disks are made (amounts unknown).
        CheckingImage,
    };
    Phase phase = Waiting;
    /// Bytes written in this phase.
    qint64 done = 0;
    /// The bytes this phase is expected to write; 0 when unknown.
    qint64 total = 0;
};
