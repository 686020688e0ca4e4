#pragma once

#include <QString>
#include <QStringList>

/// How the emulator runs a guest's processor on this host: with KVM or in
/// software (TCG), chosen by the setting "emulator.accelerator" ("auto",
/// "kvm" or "tcg"). Whether KVM can run guests here is learned once, by a
/// tiny probe guest or from a start that failed, and kept per kernel
/// release, boot and emulator binary, so that later starts need not ask.
class QEMUAccelerator
{
public:
    /// What is known about KVM on this host.
    struct Verdict {
        enum State { Unknown, Runs, Fails };
        State state = Unknown;
        /// Why KVM cannot run guests, in the emulator's words, or why
        /// nothing is known; empty when it runs.
        QString reason;
    };

    /// The accelerator of one start.
    struct Choice {
        /// "kvm" or "tcg"; empty when the configured value is not one of choices().
        QString accelerator;
        /// The emulator's CPU model for it.
        QString cpuModel;
        /// Whether "auto" chose it, so that a KVM failure may fall back to TCG.
        bool automatic = false;
        /// The one line to show the user: why "auto" chose TCG, or why the
        /// configured value is refused.
        QString note;
    };

    explicit QEMUAccelerator(const QString &emulatorPath);

    static QString settingKey();
    /// "auto", "kvm", "tcg".
    static QStringList choices();
    /// The CPU model the emulator runs under accelerator: the host's own
    /// under KVM, the richest model TCG emulates ("max") under TCG.
    static QString cpuModel(const QString &accelerator);
    /// The refusal of a value a setting with a fixed set of choices does not know.
    static QString unknownValue(const QString &key, const QString &value, const QStringList &choices);
    /// The one line that tells how to run devices under TCG for good.
    static QString tcgAdvice();
    /// How long the probe may take, in ms ("HV_KVM_PROBE_TIMEOUT_MS", by
    /// default 10 s); a probe that takes longer is stopped and tells nothing.
    static int probeTimeoutMs();

    /// The accelerator for the configured value ("auto", "kvm", "tcg");
    /// "auto" uses the learned verdict, probing once when there is none.
    Choice choose(const QString &configured) const;
    /// The verdict learned for this host and emulator; Unknown when none.
    Verdict cachedVerdict() const;
    /// The learned verdict, or the probe's when none is (kept unless Unknown).
    Verdict verdict() const;
    /// Keeps the verdict for this host and emulator. An Unknown one is not kept.
    void recordVerdict(const Verdict &verdict) const;
    /// Boots a tiny guest under KVM with the CPU model devices get there and
    /// waits for it to reach its end (Runs), for the emulator to stop it or
    /// end on a KVM failure (Fails), or for the time-out (Unknown, logged).
    /// The verdict depends on what the guest did, never on how long it took.
    Verdict probe() const;

private:
    QString m_emulator;
};
