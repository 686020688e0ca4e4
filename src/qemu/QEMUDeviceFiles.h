#pragma once

#include <QString>

/// The files of a QEMU device's directory, named in this one place: the
/// marker that says the system made the directory, the disks, the lock file
/// that ties a running emulator to the device, the emulator's error output,
/// its control socket, the folder the guest sees as a drive and the markers
/// of commands under way. Everyone who needs one of them asks here.
class QEMUDeviceFiles
{
public:
    /// The files of the device whose directory is deviceDir.
    explicit QEMUDeviceFiles(const QString &deviceDir);

    static QString systemDiskName();
    static QString dataDiskName();
    static QString sdCardName();
    static QString lockFileName();
    static QString logFileName();
    static QString consoleLogName();
    static QString previousConsoleLogName();
    static QString sharedFolderName();
    static QString savedStatesName();
    static QString sessionRecordName();
    static QString qmpSocketName();
    static QString commandLockName();
    static QString resetMarkerName();
    static QString markerName();
    /// Whether name is one of the files above: what an interrupted copy of a
    /// device can hold.
    static bool isDeviceFileName(const QString &name);

    QString directory() const { return m_dir; }
    /// "system.qcow2": the overlay of the OS image's system disk.
    QString systemDisk() const;
    /// "data.qcow2": the device's own copy of the image's data disk.
    QString dataDisk() const;
    /// "sdcard.qcow2", when the device has a card.
    QString sdCard() const;
    /// "qemu.lock": the running emulator's pid, start time and port offset.
    QString lockFile() const;
    /// "qemu.log": the emulator's error output.
    QString logFile() const;
    /// "console.log": what the guest wrote on its serial console in its
    /// current (or last) run, as far as it was read from the emulator.
    QString consoleLog() const;
    /// "console.log.1": the console of the run before.
    QString previousConsoleLog() const;
    /// "shared": the folder the guest sees as a drive.
    QString sharedFolder() const;
    /// "snapshots.json": what each saved machine state was saved with.
    QString savedStates() const;
    /// "session.json": whether the device's last session ended with the
    /// quick-boot save.
    QString sessionRecord() const;
    /// ".halvistrom-device": written first into every directory the system
    /// makes for a device. Only a directory that carries it is ever listed as
    /// a device or deleted.
    QString marker() const;
    /// "qmp.sock" in a private directory of its own whose path does not grow
    /// with the device's: $XDG_RUNTIME_DIR/halvistrom/<id>, or
    /// <data tree>/run/<id> without a runtime directory, where the id is a
    /// short digest of the device's path. A socket address holds 107 bytes.
    QString qmpSocket() const;
    /// "command.lock": held by the one command that changes the device at a
    /// time, and naming it.
    QString commandLock() const;
    /// "reset.pending": a factory reset whose new disks are complete and
    /// take the old ones' names; whoever finds it finishes the reset.
    QString resetMarker() const;
    /// Makes the socket's directory, private to the owner; false, logged, when
    /// it cannot be made or is not the owner's only.
    bool makeSocketDirectory() const;

private:
    QString path(const QString &name) const;

    QString m_dir;
};
