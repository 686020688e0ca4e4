#pragma once

#include <QtGlobal>

/// How far a creation of a device has come.
struct CreateProgress {
    enum Phase {
        /// Nothing of it is on disk yet (or it is over).
        Waiting,
        /// The OS image's reference disks are being unpacked and converted.
        PreparingImage,
        /// The device's own disks are being made.
        MakingDisks,
    };
    Phase phase = Waiting;
    /// Bytes written in this phase.
    qint64 done = 0;
    /// The bytes this phase is expected to write; 0 when unknown.
    qint64 total = 0;
};
