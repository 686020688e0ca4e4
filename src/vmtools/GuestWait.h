#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

/// What came of waiting until a started device's guest answers.
struct GuestWait {
    /// How far the guest got, in order.
    enum Phase {
        /// The emulator does not run (any more).
        NotRunning,
        /// The emulator runs; nothing answers on the guest's port yet.
        Booting,
        /// The guest's port takes connections but the guest is silent.
        Connected,
        /// The guest answered: a debug bridge handshake, or words of its own.
        Answered,
        /// The guest's debug bridge says its boot completed (sys.boot_completed).
        Booted,
    };
    enum End {
        Ready,
        TimedOut,
        Cancelled,
        /// The emulator ended.
        Failed,
        /// KVM stopped the guest and the device could not be started again
        /// under another accelerator: the start failed after all.
        RestartFailed,
    };

    Phase phase = NotRunning;
    End end = Failed;
    /// Whether readiness meant a completed boot: the guest's debug bridge
    /// let the wait in. Otherwise the guest's answer was enough.
    bool bootAwaited = false;
    /// What the guest said first: the debug bridge's device banner
    /// ("device::ro.product.name=...") or the guest's own words.
    QByteArray banner;
    /// Lines for the user said along the way (a restart under TCG).
    QStringList notes;
    /// Why the guest did not answer, in words; empty when it did.
    QString failure;
    /// Whether the device was started again cold on the way (the state it
    /// resumed is gone).
    bool restartedCold = false;

    bool ready() const { return end == Ready; }
};
