#include "QEMULaunch_p.h"
#include "QEMUOptionSet.h"

#include "MessageCapture.h"
#include "ScopedEnv.h"

#include <gtest/gtest.h>

using hvtest::MessageCapture;

namespace {

const QStringList kHead{"-accel", "kvm", "-cpu", "host"};
const QStringList kSystem{"-drive", "file=/d/system.qcow2,format=qcow2,werror=stop,rerror=stop"};
const QStringList kData{"-drive", "file=/d/data.qcow2,format=qcow2,werror=stop,rerror=stop"};
const QStringList kShared{"-drive", "format=vvfat,label=shared,id=shared,file=fat:rw:/d/shared"};
const QStringList kDrives = kSystem + kData + kShared;
const QStringList kFlag{"-nographic"};

QEMUOptionSet baseOptions()
{
    QEMUOptionSet options;
    for (int i = 1; i < kDrives.size(); i += 2)
        options.add("-drive", kDrives.at(i));
    options.add("-accel", "kvm");
    options.add("-cpu", "host");
    options.addFlag("-nographic");
    return options;
}

struct OverrideCase {
    const char *name;
    QStringList items;
    QStringList expected;
    QString warning = QString(); // set when the item is ignored
};

void PrintTo(const OverrideCase &c, std::ostream *os) { *os << c.name; }

class StartArgsOverride : public ::testing::TestWithParam<OverrideCase>
{
};

TEST_P(StartArgsOverride, rewritesTheOptionSet)
{
    MessageCapture capture;
    QEMUOptionSet options = baseOptions();
    options.applyOverrides(GetParam().items);
    EXPECT_EQ(options.render(), GetParam().expected);
    if (GetParam().warning.isEmpty())
        EXPECT_TRUE(capture.noneAtOrAbove(QtWarningMsg));
    else
        EXPECT_EQ(capture.texts(QtWarningMsg), QStringList{"[VMTools] Ignoring start argument " + GetParam().warning});
}

const QString kForm = "not of the form -name[index]=value";

INSTANTIATE_TEST_SUITE_P(
    Forms, StartArgsOverride,
    ::testing::Values(
        OverrideCase{"none", {}, kHead + kDrives + kFlag},
        OverrideCase{"removeWithEmptyValue", {"-drive="}, kHead + kFlag},
        OverrideCase{"removeFlag", {"-nographic="}, kHead + kDrives},
        OverrideCase{"addNewOptionAtItsSortedPlace", {"-machine=q35"}, kHead + kDrives + QStringList{"-machine", "q35"} + kFlag},
        OverrideCase{"trueIsAFlag", {"-snapshot=true"}, kHead + kDrives + kFlag + QStringList{"-snapshot"}},
        OverrideCase{"appendWithMinusOne", {"-drive[-1]=file=/x.img"},
                     kHead + kDrives + QStringList{"-drive", "file=/x.img"} + kFlag},
        OverrideCase{"replaceLatestWithMinusTwo", {"-drive[-2]=fat:ro"},
                     kHead + kSystem + kData + QStringList{"-drive", "fat:ro"} + kFlag},
        OverrideCase{"replaceAtIndex", {"-drive[1]=file=/o.qcow2"},
                     kHead + kSystem + QStringList{"-drive", "file=/o.qcow2"} + kShared + kFlag},
        OverrideCase{"withoutIndexReplacesEveryValue", {"-accel=tcg", "-drive=file=/only.qcow2"},
                     {"-accel", "tcg", "-cpu", "host", "-drive", "file=/only.qcow2", "-nographic"}},
        OverrideCase{"itemsApplyInOrder", {"-cpu=", "-cpu=max", "-cpu[-1]=qemu64"},
                     QStringList{"-accel", "kvm", "-cpu", "max", "-cpu", "qemu64"} + kDrives + kFlag},
        OverrideCase{"doubleDashName", {"--device=ac97,audiodev=snd0"},
                     QStringList{"--device", "ac97,audiodev=snd0"} + kHead + kDrives + kFlag},
        OverrideCase{"noDash", {"accel=tcg"}, kHead + kDrives + kFlag, "\"accel=tcg\" " + kForm},
        OverrideCase{"noEquals", {"-accel"}, kHead + kDrives + kFlag, "\"-accel\" " + kForm},
        OverrideCase{"indexPastTheEnd", {"-drive[3]=x"}, kHead + kDrives + kFlag,
                     "\"-drive[3]=x\" index out of range"},
        OverrideCase{"negativeIndexOtherThanTheTwoForms", {"-drive[-3]=x"}, kHead + kDrives + kFlag,
                     "\"-drive[-3]=x\" index out of range"}),
    [](const ::testing::TestParamInfo<OverrideCase> &info) { return std::string(info.param.name); });

TEST(QEMUOptionSet, rendersNamesInCodeUnitOrderAndValuesInInsertionOrder)
{
    QEMUOptionSet options;
    options.add("-smp", "2");
    options.add("-nic", "net0");
    options.add("-M", "virt");
    options.add("--device", "ac97");
    options.add("-nic", "net1");
    options.addFlag("-nodefaults");
    options.addFlag("-hidden", false);
    EXPECT_EQ(options.render(),
              QStringList({"--device", "ac97", "-M", "virt", "-nic", "net0", "-nic", "net1", "-nodefaults", "-smp", "2"}));
}

TEST(QEMUOptionSet, readsTheVariableSplitOnSemicolons)
{
    hvtest::ScopedEnv args(QEMUOptionSet::startArgsVariable(),
                           "-accel=tcg;-drive[-2]=format=vvfat,file=fat:ro:/d/shared;-vga=none");
    EXPECT_STREQ(QEMUOptionSet::startArgsVariable(), "HV_QEMU_START_ARGS");
    QEMUOptionSet options = baseOptions();
    options.applyStartArgsVariable();
    EXPECT_EQ(options.render(), QStringList({"-accel", "tcg", "-cpu", "host"}) + kSystem + kData
                                    + QStringList({"-drive", "format=vvfat,file=fat:ro:/d/shared", "-nographic", "-vga", "none"}));
}

// The launch command line, rendered from the option set.

QEMULaunch::Request request(bool virtio)
{
    QEMULaunch::Request r;
    r.devicePath = "/devices/Pixel";
    r.virtioDisks = virtio;
    r.ramMiB = 2048;
    r.cpuCount = 4;
    r.portOffset = 7;
    r.qmpSocketPath = "/devices/Pixel/qmp.sock";
    r.accelerator = "kvm";
    r.cpuModel = "host";
    r.audioBackend = "pa";
    return r;
}

// Everything of a start but the drives (and the snapshot), in rendering order.
QStringList around(const QStringList &drives, const QStringList &loadvm = {})
{
    const QString net0 = "user,id=net0,model=virtio-net-pci,net=10.0.2.0/24"
                         ",hostfwd=tcp:127.0.0.1:6562-:5555,hostfwd=tcp:127.0.0.1:6386-:6379"
                         ",hostfwd=tcp:127.0.0.1:22475-:22468,hostfwd=tcp:127.0.0.1:24304-:24297"
                         ",hostfwd=tcp:127.0.0.1:24303-:24296,hostfwd=tcp:127.0.0.1:24807-:24800"
                         ",hostfwd=tcp:127.0.0.1:24817-:24810,hostfwd=tcp:127.0.0.1:25007-:25000";
    QStringList all{"--device", "ac97,audiodev=snd0", "-accel", "kvm", "-audiodev", "pa,id=snd0",
                    "-chardev", "ringbuf,id=console,size=65536", "-cpu", "host", "-device", "virtio-rng-pci"};
    for (const QString &drive : drives)
        all << "-drive" << drive;
    return all + loadvm
        + QStringList{"-m", "2048M", "-nic", net0, "-nic", "user,id=net1,model=virtio-net-pci,net=10.0.3.0/24",
                      "-nodefaults", "-nographic", "-object", "iothread,id=disk-iothread",
                      "-qmp", "unix:/devices/Pixel/qmp.sock,server=on,wait=off", "-serial", "chardev:console",
                      "-smp", "4", "-vga", "std"};
}

const QString kDisk = "file=/devices/Pixel/%1.qcow2,format=qcow2,werror=stop,rerror=stop";

TEST(QEMULaunch, coldBootOfAnIdeDevice)
{
    MessageCapture capture;
    EXPECT_EQ(QEMULaunch::composeOptions(request(false)).render(),
              around({kDisk.arg("system"), kDisk.arg("data"),
                      "format=vvfat,label=shared,id=shared,file=fat:rw:/devices/Pixel/shared"}));
    EXPECT_LOG(capture, QtDebugMsg, "[VMTools] No shapshot available. Load shared folder drive.");
    // A virtio device keeps its writable shared folder on virtio too.
    EXPECT_EQ(QEMULaunch::composeOptions(request(true)).values("-drive").last(),
              "format=vvfat,label=shared,id=shared,file=fat:rw:/devices/Pixel/shared,if=virtio");
}

TEST(QEMULaunch, snapshotStartOfAVirtioDeviceWithSdCard)
{
    MessageCapture capture;
    QEMULaunch::Request r = request(true);
    r.sdCardInserted = true;
    r.snapshotName = "latest";
    r.readOnlySharedDrive = true;
    EXPECT_EQ(QEMULaunch::composeOptions(r).render(),
              around({kDisk.arg("system") + ",if=virtio", kDisk.arg("data") + ",if=virtio",
                      kDisk.arg("sdcard") + ",if=virtio",
                      "format=vvfat,label=shared,file=fat:ro:/devices/Pixel/shared,if=virtio"},
                     {"-loadvm", "latest"}));
    EXPECT_LOG(capture, QtDebugMsg, "[VMTools] Starting from snapshot \"latest\"");
    // Without the read-only view a snapshot start has no shared drive.
    r = request(false);
    r.snapshotName = "latest";
    EXPECT_EQ(QEMULaunch::composeOptions(r).values("-drive"), QVariantList({kDisk.arg("system"), kDisk.arg("data")}));
}

TEST(QEMULaunch, rosettaHostsUseFirmwareAndVirtBoardWithoutVga)
{
    QEMULaunch::Request r = request(false);
    r.throughRosetta = true;
    r.firmwareDirPath = "/opt/share/qemu";
    r.showWindow = true;
    const QEMUOptionSet options = QEMULaunch::composeOptions(r);
    EXPECT_EQ(options.values("-bios"), QVariantList({"/opt/share/qemu/QEMU_EFI.fd"}));
    EXPECT_FALSE(options.contains("-vga"));
    EXPECT_FALSE(options.contains("-nographic"));
    // Closing the window must not end the device without its save.
    EXPECT_EQ(options.values("-display"), QVariantList({"gtk,window-close=off"}));
    EXPECT_EQ(options.render().mid(0, 4), QStringList({"--device", "ac97,audiodev=snd0", "-M", "virt"}));
}

TEST(QEMULaunch, theCommandPutsEachOptionOnItsOwnLine)
{
    EXPECT_EQ(QEMULaunch::formatCommand("/usr/bin/qemu-system-x86_64", {"-m", "2048M", "-nographic", "-smp", "2"}),
              "\"/usr/bin/qemu-system-x86_64\" \\\n-m 2048M \\\n-nographic \\\n-smp 2");
}

// The emulator splits option values on commas; a device directory holding
// ",file=/etc/shadow" must stay one path in every value it reaches.
TEST(QEMULaunch, commasInPathsAreDoubledInEveryOptionValue)
{
    QEMULaunch::Request r = request(true);
    r.devicePath = "/d/a,file=/etc/shadow";
    r.qmpSocketPath = r.devicePath + "/qmp.sock";
    r.sdCardInserted = true;
    const QEMUOptionSet cold = QEMULaunch::composeOptions(r);
    const QString dir = "/d/a,,file=/etc/shadow";
    EXPECT_EQ(cold.values("-drive"),
              QVariantList({"file=" + dir + "/system.qcow2,format=qcow2,werror=stop,rerror=stop,if=virtio",
                            "file=" + dir + "/data.qcow2,format=qcow2,werror=stop,rerror=stop,if=virtio",
                            "file=" + dir + "/sdcard.qcow2,format=qcow2,werror=stop,rerror=stop,if=virtio",
                            "format=vvfat,label=shared,id=shared,file=fat:rw:" + dir + "/shared,if=virtio"}));
    EXPECT_EQ(cold.values("-qmp"), QVariantList({"unix:" + dir + "/qmp.sock,server=on,wait=off"}));
    r.snapshotName = "latest";
    r.readOnlySharedDrive = true;
    EXPECT_EQ(QEMULaunch::composeOptions(r).values("-drive").last(),
              "format=vvfat,label=shared,file=fat:ro:" + dir + "/shared,if=virtio");
    EXPECT_EQ(QEMUOptionSet::escapeValue(",,a,"), ",,,,a,,");
}

} // namespace
