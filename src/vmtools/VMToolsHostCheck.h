#pragma once

#include <QString>

/// One finding about the host set-up a program runs devices on: what was
/// checked, how it went, and the detail in words, for a person to act on.
struct VMToolsHostCheck {
    enum class Level {
        Ok,
        /// Devices can run, but not as well as they could.
        Warn,
        /// Devices cannot run, or not as configured.
        Fail,
    };
    /// A short name: "accelerator", "kvm-device".
    QString name;
    Level level = Level::Ok;
    QString detail;
};
