#include "QEMULaunch_p.h"

#include "MessageCapture.h"

#include <gtest/gtest.h>

using hvtest::MessageCapture;

namespace {

QEMULaunch::Request request(bool virtio)
{
    QEMULaunch::Request r;
    r.devicePath = "/devices/Pixel";
    r.virtioDisks = virtio;
    r.ramMiB = 2048;
    r.cpuCount = 4;
    r.portOffset = 7;
    return r;
}

const QString kNet0 = "user,id=net0,model=virtio-net-pci,net=10.0.2.0/24"
                      ",hostfwd=tcp:127.0.0.1:6562-:5555,hostfwd=tcp:127.0.0.1:6386-:6379"
                      ",hostfwd=tcp:127.0.0.1:22475-:22468,hostfwd=tcp:127.0.0.1:24304-:24297"
                      ",hostfwd=tcp:127.0.0.1:24303-:24296,hostfwd=tcp:127.0.0.1:24807-:24800"
                      ",hostfwd=tcp:127.0.0.1:24817-:24810,hostfwd=tcp:127.0.0.1:25007-:25000";

TEST(QEMULaunch, coldBootOfAnIdeDevice)
{
    MessageCapture capture;
    const QStringList arguments = QEMULaunch::composeOptions(request(false)).render();
    const QStringList expected{
        "--device", "ac97,audiodev=snd0",
        "-accel", "kvm",
        "-audiodev", "pa,id=snd0",
        "-cpu", "host",
        "-device", "virtio-rng-pci",
        "-drive", "file=/devices/Pixel/system.qcow2,format=qcow2",
        "-drive", "file=/devices/Pixel/data.qcow2,format=qcow2",
        "-drive", "format=vvfat,label=shared,id=shared,file=fat:rw:/devices/Pixel/shared",
        "-m", "2048M",
        "-nic", kNet0,
        "-nic", "user,id=net1,model=virtio-net-pci,net=10.0.3.0/24",
        "-nodefaults",
        "-nographic",
        "-object", "iothread,id=disk-iothread",
        "-qmp", "tcp:localhost:23562,server,nowait",
        "-smp", "4",
        "-vga", "std",
    };
    EXPECT_EQ(arguments, expected);
    EXPECT_LOG(capture, QtDebugMsg, "[VMTools] No shapshot available. Load shared folder drive.");
}

TEST(QEMULaunch, snapshotStartOfAVirtioDeviceWithSdCard)
{
    MessageCapture capture;
    QEMULaunch::Request r = request(true);
    r.sdCardInserted = true;
    r.snapshotName = "latest";
    r.readOnlySharedDrive = true;
    const QStringList expected{
        "--device", "ac97,audiodev=snd0",
        "-accel", "kvm",
        "-audiodev", "pa,id=snd0",
        "-cpu", "host",
        "-device", "virtio-rng-pci",
        "-drive", "file=/devices/Pixel/system.qcow2,format=qcow2,if=virtio",
        "-drive", "file=/devices/Pixel/data.qcow2,format=qcow2,if=virtio",
        "-drive", "file=/devices/Pixel/sdcard.qcow2,format=qcow2,if=virtio",
        "-drive", "format=vvfat,label=shared,file=fat:ro:/devices/Pixel/shared,if=virtio",
        "-loadvm", "latest",
        "-m", "2048M",
        "-nic", kNet0,
        "-nic", "user,id=net1,model=virtio-net-pci,net=10.0.3.0/24",
        "-nodefaults",
        "-nographic",
        "-object", "iothread,id=disk-iothread",
        "-qmp", "tcp:localhost:23562,server,nowait",
        "-smp", "4",
        "-vga", "std",
    };
    EXPECT_EQ(QEMULaunch::composeOptions(r).render(), expected);
    EXPECT_LOG(capture, QtDebugMsg, "[VMTools] Starting from snapshot \"latest\"");
}

TEST(QEMULaunch, coldBootOfAVirtioDeviceKeepsTheSharedFolderOnVirtio)
{
    const QVariantList drives = QEMULaunch::composeOptions(request(true)).values("-drive");
    EXPECT_EQ(drives, QVariantList({"file=/devices/Pixel/system.qcow2,format=qcow2,if=virtio",
                                    "file=/devices/Pixel/data.qcow2,format=qcow2,if=virtio",
                                    "format=vvfat,label=shared,id=shared,file=fat:rw:/devices/Pixel/shared,if=virtio"}));
}

TEST(QEMULaunch, snapshotStartWithoutTheReadOnlyDriveHasNoSharedDrive)
{
    QEMULaunch::Request r = request(false);
    r.snapshotName = "latest";
    const QVariantList drives = QEMULaunch::composeOptions(r).values("-drive");
    EXPECT_EQ(drives, QVariantList({"file=/devices/Pixel/system.qcow2,format=qcow2",
                                    "file=/devices/Pixel/data.qcow2,format=qcow2"}));
}

TEST(QEMULaunch, rosettaHostsUseFirmwareAndVirtBoardWithoutVga)
{
    QEMULaunch::Request r = request(false);
    r.throughRosetta = true;
    r.firmwareDirPath = "/opt/share/qemu";
    r.showWindow = true;
    const QEMUOptionSet options = QEMULaunch::composeOptions(r);
    EXPECT_EQ(options.values("-bios"), QVariantList({"/opt/share/qemu/QEMU_EFI.fd"}));
    EXPECT_EQ(options.values("-M"), QVariantList({"virt"}));
    EXPECT_FALSE(options.contains("-vga"));
    EXPECT_FALSE(options.contains("-nographic"));
    EXPECT_EQ(options.render().mid(0, 4), QStringList({"--device", "ac97,audiodev=snd0", "-M", "virt"}));
}

TEST(QEMULaunch, qmpPortWrapsInSixteenBits)
{
    QEMULaunch::Request r = request(false);
    r.portOffset = 65536 - 23555 + 3;
    EXPECT_EQ(QEMULaunch::composeOptions(r).values("-qmp"), QVariantList({"tcp:localhost:3,server,nowait"}));
}

TEST(QEMULaunch, startCommandPutsEachOptionOnItsOwnLine)
{
    EXPECT_EQ(QEMULaunch::formatCommand("/usr/bin/qemu-system-x86_64", {"-m", "2048M", "-nographic", "-smp", "2"}),
              "\"/usr/bin/qemu-system-x86_64\" \\\n-m 2048M \\\n-nographic \\\n-smp 2");
}

} // namespace
