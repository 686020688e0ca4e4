#pragma once

#include "halvistromcore_export.h"

#include <QtGlobal>

/// What this host can give a device: the bounds that profiles and devices
/// made here are held to.
class HALVISTROM_CORE_EXPORT HostLimits
{
public:
    /// The host's hardware threads; at least 1.
    static int cpuCount();
    /// The host's memory in MB; 0 when it cannot be read.
    static qint64 ramSize();
    /// The most memory (MB) a device gets unless the user asks for more:
    /// half the host's, so that the host and a second device keep room;
    /// never below the smallest memory a device may have.
    static qint64 defaultRamCap();
};
