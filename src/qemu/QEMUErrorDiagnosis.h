#pragma once

#include <QByteArray>
#include <QString>

/// Reads what a QEMU process wrote to its error output ("qemu.log" in the
/// device directory) and tells why it stopped. Every question reads the file
/// afresh, so it can be asked while QEMU is still writing.
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

    /// Classifies the error output in the file at logPath. Logs the reason it
    /// found; never fails (an unreadable file is itself an answer).
    static Code classify(const QString &logPath);

    /// Classifies the text itself (bytes up to the first NUL).
    static Code classifyText(const QByteArray &content);

    /// The first line of text that shows KVM cannot run the guest here (as
    /// QEMU words it), or an empty string.
    static QString kvmFailureLine(const QByteArray &text);
    /// The line of the error output at logPath that the diagnosis rests on,
    /// for KVM and audio failures; an empty string otherwise.
    static QString causeLine(const QString &logPath);

    /// Whether QEMU reported a device or resource as busy.
    static bool isResourceBusy(const QString &logPath);
    /// Whether another process holds the write lock of a disk image.
    static bool isSystemFileUsedByAnotherProcess(const QString &logPath);
    /// Whether another process uses one of the device's ports.
    static bool isPortUsedByAnotherProcess(const QString &logPath);
    /// False only when QEMU reported a memory size the host cannot address
    /// (or the memory error trigger is active).
    static bool isMemorySupported(const QString &logPath);
    /// Whether QEMU failed to load the saved machine state it was given.
    static bool isStateNotLoadable(const QString &logPath);
};
