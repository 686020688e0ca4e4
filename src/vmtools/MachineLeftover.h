#pragma once

#include <QString>

/// A hidden directory of the devices directory in which a creation or a
/// clone builds a device before it takes its name, or a deletion removes
/// one; left behind when the process that made it was killed.
struct MachineLeftover {
    QString name;            ///< the hidden directory's name
    QString path;            ///< its absolute path
    QString device;          ///< the device it was to become
    QString operation;       ///< "creation", "clone" or "deletion"
    long long pid = 0;       ///< the process that made it; 0 when an earlier version did
    bool inProgress = false; ///< that process still runs
    qint64 bytes = 0;        ///< what its files take
};
