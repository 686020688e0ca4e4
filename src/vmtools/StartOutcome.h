#pragma once

#include <QString>
#include <QStringList>

/// What came of one start of a device, with the reasons in words.
struct StartOutcome {
    enum Result {
        Started,
        /// The request names an accelerator the engine does not know.
        BadRequest,
        /// The named snapshot does not exist.
        NoSuchSnapshot,
        /// The named snapshot cannot be loaded on the device as it is now.
        SnapshotUnloadable,
        /// The host seems short of memory for the device.
        ShortOfMemory,
        /// The start was tried, or a setting keeps it from being tried, and
        /// the device does not run.
        Failed,
    };
    /// How a device that runs came up.
    enum Boot {
        Cold,
        /// From its quick-boot state.
        Resumed,
        /// From the named snapshot.
        FromSnapshot,
    };

    Result result = Failed;
    Boot boot = Cold;
    /// Lines for the user said along the way, in order: why a quick boot
    /// boots cold, what "auto" chose, a failed load of the saved state.
    QStringList notes;
    /// Why the device was not started, in words; empty when it started.
    QString failure;

    bool started() const { return result == Started; }
};
