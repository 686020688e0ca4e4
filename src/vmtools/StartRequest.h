#pragma once

#include <QString>

/// What one start of a device asks for.
struct StartRequest {
    /// Start from this named snapshot; empty: the quick-boot state when the
    /// device may resume it, else a cold boot.
    QString snapshot;
    /// Boot cold even when a quick-boot state could resume.
    bool cold = false;
    /// The accelerator of this start alone ("kvm" or "tcg"); empty: the
    /// setting's.
    QString accelerator;
    /// Start even when the host seems short of memory for the device.
    bool ignoreMemory = false;
    /// Show the emulator's own window; the start fails when there is no
    /// display to show it on.
    bool window = false;
};
