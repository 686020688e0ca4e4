#pragma once

#include "halvistromcore_export.h"

/// The static settings facade every program reads and writes its settings through.
class HALVISTROM_CORE_EXPORT Settings
{
public:
    /// Puts the variables of the environment file
    /// (generic config location + "/Corbelwick/HalvistromEnv.json") into the
    /// process environment. Variables already set win. An unreadable or
    /// malformed file, or a non-string value, ends the process.
    static void applyHalvistromEnv();
};
