#pragma once

#include <QByteArray>
#include <QString>

/// Reads what a QEMU process wrote to its error output ("qemu.log" in the
/// device directory) and tells why it stopped. The engine's yes/no questions
/// (QEMUEngine::isResourceBusy() and the others) are answered from it.
class QEMUErrorDiagnosis
{
public:
    /// What the error output says, first match wins in this order of checks.
    enum class Code {
        /// Nothing recognised, or QEMU fell back to another accelerator.
        None = 0,
        /// The error output could not be read.
        Unreadable = 1,
        /// The accelerator failed and QEMU did not fall back.
        AcceleratorError = 2,
        /// "device or resource busy".
        ResourceBusy = 3,
        /// A disk image is locked by another process.
        SystemFileLocked = 4,
        /// A forwarded port or the QMP port is taken.
        PortTaken = 5,
        /// The memory size is not supported on this host.
        MemoryNotSupported = 6,
        /// A saved machine state could not be loaded (it was saved with other
        /// hardware, or by an emulator that wrote it differently).
        StateNotLoadable = 7,
        /// KVM cannot run the guest here: the emulator could not set up the
        /// processor, or stopped the guest on a KVM internal error.
        KvmFailure = 8,
        /// The audio backend the emulator was given is missing or cannot
        /// reach its sound server.
        AudioUnavailable = 9,
    };

    /// Classifies the error output in the file at logPath, read once. Logs
    /// the reason it found; never fails (an unreadable file is itself an
    /// answer). For KVM and audio failures, cause (when given) gets the line
    /// of the output the diagnosis rests on; it is emptied otherwise.
    static Code classify(const QString &logPath, QString *cause = nullptr);

    /// Classifies the text itself (bytes up to the first NUL).
    static Code classifyText(const QByteArray &content, QString *cause = nullptr);

    /// The first line of text that shows KVM cannot run the guest here (as
    /// QEMU words it), or an empty string.
    static QString kvmFailureLine(const QByteArray &text);
};
