#pragma once

#include "QEMUOptionSet.h"

#include <QString>
#include <QStringList>
#include <QVector>

/// The pieces of the emulator's command line that do not need a running
/// engine, so that the exact arguments can be composed and checked alone.
namespace QEMULaunch {

/// One forwarded host port: the host port is base plus the device's offset.
struct PortForward {
    int hostBase;
    int guestPort;
};

/// The forwarded ports, the debug bridge first.
const QVector<PortForward> &portForwards();

/// Offsets step by the number of ports one device needs on the host.
constexpr int kPortOffsetStep = 7;
/// The last candidate offset.
constexpr int kMaxPortOffset = 693;
/// The longest path a unix socket address holds (without its final NUL).
constexpr int kMaxSocketPathBytes = 107;

/// What a start needs to know about the device and the host.
struct Request {
    QString devicePath;
    /// Disks as virtio devices (Android above 8.0.0) rather than IDE.
    bool virtioDisks = false;
    bool sdCardInserted = false;
    long long ramMiB = 0;
    int cpuCount = 1;
    int portOffset = 0;
    /// Where the emulator listens for QMP: a unix socket, never a port.
    QString qmpSocketPath;
    /// Empty for a cold boot.
    QString snapshotName;
    /// Attach the shared folder read-only beside a snapshot start.
    bool readOnlySharedDrive = false;
    bool throughRosetta = false;
    QString firmwareDirPath;
    /// Show the emulator's own window ("--window", or "HV_HYPERVISOR_WINDOW"
    /// set) rather than run without a display.
    bool showWindow = false;
    /// The guest's serial console goes into a ring buffer of this many bytes
    /// (a power of two) in the emulator, under this chardev id.
    int consoleRingBytes = 65536;
    QString consoleId = QStringLiteral("console");
    /// "kvm" or "tcg", and the CPU model the emulator runs under it.
    QString accelerator = QStringLiteral("tcg");
    QString cpuModel = QStringLiteral("max");
    /// The audio backend: "pa" or "none" (the sound card stays, silent).
    QString audioBackend = QStringLiteral("none");
};

/// "file=<path>,format=qcow2" with the error policies that stop the guest on
/// a failed read or write, plus ",if=virtio" for virtio disks.
QString diskValue(const QString &path, bool virtio);
/// The shared folder as a vvfat drive: writable (with the id "shared" that
/// lets it be detached, on the disks' interface) or read-only (always a
/// virtio device).
QString sharedDriveValue(const QString &devicePath, bool writable, bool virtio);
/// The options of a start, before "HV_QEMU_START_ARGS" is applied.
QEMUOptionSet composeOptions(const Request &request);
/// The start command as logged: the program in double quotes, each option on
/// a line of its own.
QString formatCommand(const QString &program, const QStringList &arguments);

} // namespace QEMULaunch
