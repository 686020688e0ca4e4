#pragma once

#include "halvistromcore_export.h"

/// Queries about an instruction-set emulation layer on the host.
class HALVISTROM_CORE_EXPORT SysInfo
{
public:
    virtual ~SysInfo();
    /// Whether this program runs under an emulation layer; never on this host.
    virtual bool isRunningThroughRosetta() const;
    /// True when "HV_ROSETTA_UI" is set (even empty), else isRunningThroughRosetta().
    virtual bool isRosettaUi() const;
};
