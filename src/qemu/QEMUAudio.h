#pragma once

#include <QString>
#include <QStringList>

/// The emulator's audio backend, chosen by the setting "emulator.audio":
/// "pa" (the PulseAudio backend), "none" (the guest keeps its sound card,
/// silent) or "auto", which takes "pa" only when the emulator has that
/// backend and a sound server answers.
class QEMUAudio
{
public:
    /// The backend of one start.
    struct Choice {
        /// "pa" or "none"; empty when the configured value is not one of choices().
        QString backend;
        /// Why "auto" chose "none", or why the configured value is refused.
        QString note;
    };

    explicit QEMUAudio(const QString &emulatorPath);

    static QString settingKey();
    /// "auto", "none", "pa".
    static QStringList choices();
    /// The backends listed by the emulator's "-audiodev help" output.
    static QStringList parseBackends(const QString &helpOutput);
    /// Whether a sound server answers: the one "PULSE_SERVER" names, else
    /// the user's own socket in the runtime directory.
    static bool isSoundServerAnswering();

    /// The backend for the configured value ("auto", "none", "pa").
    Choice choose(const QString &configured) const;
    /// The backends the emulator has, asked once per binary and module set.
    QStringList backends() const;

private:
    QString m_emulator;
};
