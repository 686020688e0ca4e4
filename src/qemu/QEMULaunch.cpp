#include "QEMULaunch_p.h"

#include "QEMUDeviceFiles.h"
#include "QEMULogging_p.h"

#include <QDebug>
#include <QDir>

namespace QEMULaunch {

const QVector<PortForward> &portForwards()
{
    static const QVector<PortForward> forwards{
        {6555, 5555},   {6379, 6379},   {22468, 22468}, {24297, 24297},
        {24296, 24296}, {24800, 24800}, {24810, 24810}, {25000, 25000},
    };
    return forwards;
}

QString diskValue(const QString &path, bool virtio)
{
    // A failed read or write stops the guest instead of reaching it: a full
    // disk or a passing I/O error then costs nothing once it is mended and
    // the device goes on ("hvtool device resume").
    QString value =
        QStringLiteral("file=%1,format=qcow2,werror=stop,rerror=stop").arg(QEMUOptionSet::escapeValue(path));
    if (virtio)
        value += QLatin1String(",if=virtio");
    return value;
}

QString sharedDriveValue(const QString &devicePath, bool writable, bool virtio)
{
    const QString shared = QEMUOptionSet::escapeValue(QEMUDeviceFiles(devicePath).sharedFolder());
    if (writable) {
        // On the disks' interface: an IDE drive beside virtio disks would be
        // the first hard disk the firmware tries to boot.
        QString value = QStringLiteral("format=vvfat,label=shared,id=shared,file=fat:rw:%1").arg(shared);
        if (virtio)
            value += QLatin1String(",if=virtio");
        return value;
    }
    return QStringLiteral("format=vvfat,label=shared,file=fat:ro:%1,if=virtio").arg(shared);
}

// The guest's first network, with the device's host ports forwarded into it.
static QString forwardingNetworkValue(int portOffset)
{
    QString net0 = QStringLiteral("user,id=net0,model=virtio-net-pci,net=10.0.2.0/24");
    for (const PortForward &forward : portForwards()) {
        net0 += QStringLiteral(",hostfwd=tcp:%1:%2-:%3")
                    .arg(QStringLiteral("127.0.0.1"))
                    .arg(forward.hostBase + portOffset)
                    .arg(forward.guestPort);
    }
    return net0;
}

// The guest's console and where its screen goes.
static void addScreenAndConsole(const Request &request, QEMUOptionSet *options)
{
    // The console is kept in the emulator, bounded, and read over QMP.
    options->add(QStringLiteral("-chardev"),
                 QStringLiteral("ringbuf,id=%1,size=%2").arg(request.consoleId).arg(request.consoleRingBytes));
    options->add(QStringLiteral("-serial"), QStringLiteral("chardev:%1").arg(request.consoleId));
    // Closing the window must not end the device without its quick-boot
    // save: the window stays, and the device stops through hvtool.
    if (request.showWindow)
        options->add(QStringLiteral("-display"), QStringLiteral("gtk,window-close=off"));
    else
        options->addFlag(QStringLiteral("-nographic"));
}

QEMUOptionSet composeOptions(const Request &request)
{
    const QEMUDeviceFiles device(request.devicePath);
    QEMUOptionSet options;
    options.add(QStringLiteral("-drive"), diskValue(device.systemDisk(), request.virtioDisks));
    options.add(QStringLiteral("-drive"), diskValue(device.dataDisk(), request.virtioDisks));
    options.add(QStringLiteral("-object"), QStringLiteral("iothread,id=disk-iothread"));
    if (!request.throughRosetta)
        options.add(QStringLiteral("-vga"), QStringLiteral("std"));
    if (request.sdCardInserted)
        options.add(QStringLiteral("-drive"), diskValue(device.sdCard(), request.virtioDisks));
    options.add(QStringLiteral("-m"), QStringLiteral("%1M").arg(request.ramMiB));
    options.add(QStringLiteral("-smp"), QString::number(request.cpuCount));
    if (request.throughRosetta)
        options.add(QStringLiteral("-bios"), request.firmwareDirPath + QLatin1String("/QEMU_EFI.fd"));
    options.add(QStringLiteral("--device"), QStringLiteral("ac97,audiodev=snd0"));
    options.add(QStringLiteral("-audiodev"), request.audioBackend + QLatin1String(",id=snd0"));
    options.add(QStringLiteral("-accel"), request.accelerator);
    options.add(QStringLiteral("-cpu"), request.cpuModel);
    if (request.throughRosetta)
        options.add(QStringLiteral("-M"), QStringLiteral("virt"));

    options.add(QStringLiteral("-nic"), forwardingNetworkValue(request.portOffset));
    options.add(QStringLiteral("-nic"), QStringLiteral("user,id=net1,model=virtio-net-pci,net=10.0.3.0/24"));

    if (request.snapshotName.isEmpty()) {
        qCDebug(hvQemuLog) << "[VMTools]" << "No shapshot available. Load shared folder drive.";
        options.add(QStringLiteral("-drive"), sharedDriveValue(request.devicePath, true, request.virtioDisks));
    } else {
        qCDebug(hvQemuLog) << "[VMTools]" << "Starting from snapshot" << request.snapshotName;
        options.add(QStringLiteral("-loadvm"), request.snapshotName);
        if (request.readOnlySharedDrive)
            options.add(QStringLiteral("-drive"), sharedDriveValue(request.devicePath, false, true));
    }

    // A unix socket in a private directory: only the device's owner can
    // reach it, where a loopback port would answer every local process.
    options.add(QStringLiteral("-qmp"),
                QStringLiteral("unix:%1,server=on,wait=off").arg(QEMUOptionSet::escapeValue(request.qmpSocketPath)));
    addScreenAndConsole(request, &options);
    options.addFlag(QStringLiteral("-nodefaults"));
    options.add(QStringLiteral("-device"), QStringLiteral("virtio-rng-pci"));
    return options;
}

QString formatCommand(const QString &program, const QStringList &arguments)
{
    QString text = QLatin1Char('"') + program + QLatin1Char('"');
    for (const QString &argument : arguments) {
        text += argument.startsWith(QLatin1Char('-')) ? QStringLiteral(" \\\n") : QStringLiteral(" ");
        text += argument;
    }
    return text;
}

} // namespace QEMULaunch
