#include "QEMUOptionSet.h"

#include "MessageCapture.h"
#include "ScopedEnv.h"

#include <gtest/gtest.h>

using hvtest::MessageCapture;

namespace {

const QStringList kHead{"-accel", "kvm", "-cpu", "host"};
const QStringList kSystem{"-drive", "file=/d/system.qcow2,format=qcow2"};
const QStringList kData{"-drive", "file=/d/data.qcow2,format=qcow2"};
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

} // namespace
