#include "QEMUOptionSet.h"

#include "MessageCapture.h"

#include <gtest/gtest.h>

using hvtest::MessageCapture;

namespace {

QEMUOptionSet baseOptions()
{
    QEMUOptionSet options;
    options.add("-drive", "file=/d/system.qcow2,format=qcow2");
    options.add("-drive", "file=/d/data.qcow2,format=qcow2");
    options.add("-drive", "format=vvfat,label=shared,id=shared,file=fat:rw:/d/shared");
    options.add("-accel", "kvm");
    options.add("-cpu", "host");
    options.addFlag("-nographic");
    return options;
}

struct OverrideCase {
    const char *name;
    QStringList items;
    QStringList expected;
};

class StartArgsOverride : public ::testing::TestWithParam<OverrideCase>
{
};

TEST_P(StartArgsOverride, rewritesTheOptionSet)
{
    QEMUOptionSet options = baseOptions();
    options.applyOverrides(GetParam().items);
    EXPECT_EQ(options.render(), GetParam().expected);
}

const QStringList kSystem{"-drive", "file=/d/system.qcow2,format=qcow2"};
const QStringList kData{"-drive", "file=/d/data.qcow2,format=qcow2"};
const QStringList kShared{"-drive", "format=vvfat,label=shared,id=shared,file=fat:rw:/d/shared"};

INSTANTIATE_TEST_SUITE_P(
    Forms, StartArgsOverride,
    ::testing::Values(
        OverrideCase{"none", {}, QStringList{"-accel", "kvm", "-cpu", "host"} + kSystem + kData + kShared +
                                     QStringList{"-nographic"}},
        OverrideCase{"removeWithEmptyValue", {"-drive="},
                     {"-accel", "kvm", "-cpu", "host", "-nographic"}},
        OverrideCase{"removeFlag", {"-nographic="}, QStringList{"-accel", "kvm", "-cpu", "host"} + kSystem + kData + kShared},
        OverrideCase{"addNewOptionAtItsSortedPlace", {"-machine=q35"},
                     QStringList{"-accel", "kvm", "-cpu", "host"} + kSystem + kData + kShared +
                         QStringList{"-machine", "q35", "-nographic"}},
        OverrideCase{"trueIsAFlag", {"-snapshot=true"},
                     QStringList{"-accel", "kvm", "-cpu", "host"} + kSystem + kData + kShared +
                         QStringList{"-nographic", "-snapshot"}},
        OverrideCase{"appendWithMinusOne", {"-drive[-1]=file=/x.img"},
                     QStringList{"-accel", "kvm", "-cpu", "host"} + kSystem + kData + kShared +
                         QStringList{"-drive", "file=/x.img", "-nographic"}},
        OverrideCase{"replaceLatestWithMinusTwo", {"-drive[-2]=fat:ro"},
                     QStringList{"-accel", "kvm", "-cpu", "host"} + kSystem + kData +
                         QStringList{"-drive", "fat:ro", "-nographic"}},
        OverrideCase{"replaceAtIndex", {"-drive[1]=file=/other.qcow2"},
                     QStringList{"-accel", "kvm", "-cpu", "host"} + kSystem +
                         QStringList{"-drive", "file=/other.qcow2"} + kShared + QStringList{"-nographic"}},
        OverrideCase{"withoutIndexReplacesEveryValue", {"-accel=tcg", "-drive=file=/only.qcow2"},
                     {"-accel", "tcg", "-cpu", "host", "-drive", "file=/only.qcow2", "-nographic"}},
        OverrideCase{"itemsApplyInOrder", {"-cpu=", "-cpu=max", "-cpu[-1]=qemu64"},
                     QStringList{"-accel", "kvm", "-cpu", "max", "-cpu", "qemu64"} + kSystem + kData + kShared +
                         QStringList{"-nographic"}},
        OverrideCase{"doubleDashName", {"--device=ac97,audiodev=snd0"},
                     QStringList{"--device", "ac97,audiodev=snd0", "-accel", "kvm", "-cpu", "host"} + kSystem +
                         kData + kShared + QStringList{"-nographic"}}),
    [](const ::testing::TestParamInfo<OverrideCase> &info) { return std::string(info.param.name); });

struct IgnoredCase {
    const char *name;
    QString item;
    QString warning;
};

class StartArgsIgnored : public ::testing::TestWithParam<IgnoredCase>
{
};

TEST_P(StartArgsIgnored, leavesTheSetAsItWasAndSaysWhy)
{
    MessageCapture capture;
    QEMUOptionSet options = baseOptions();
    options.applyOverrides({GetParam().item});
    EXPECT_EQ(options.render(), baseOptions().render());
    EXPECT_LOG(capture, QtWarningMsg, GetParam().warning);
}

INSTANTIATE_TEST_SUITE_P(
    Items, StartArgsIgnored,
    ::testing::Values(
        IgnoredCase{"noDash", "accel=tcg",
                    "[VMTools] Ignoring start argument \"accel=tcg\" not of the form -name[index]=value"},
        IgnoredCase{"noEquals", "-accel",
                    "[VMTools] Ignoring start argument \"-accel\" not of the form -name[index]=value"},
        IgnoredCase{"indexPastTheEnd", "-drive[3]=x",
                    "[VMTools] Ignoring start argument \"-drive[3]=x\" index out of range"},
        IgnoredCase{"negativeIndexOtherThanTheTwoForms", "-drive[-3]=x",
                    "[VMTools] Ignoring start argument \"-drive[-3]=x\" index out of range"}),
    [](const ::testing::TestParamInfo<IgnoredCase> &info) { return std::string(info.param.name); });

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
    EXPECT_STREQ(QEMUOptionSet::startArgsVariable(), "HV_QEMU_START_ARGS");
    qputenv("HV_QEMU_START_ARGS", "-accel=tcg;-drive[-2]=format=vvfat,file=fat:ro:/d/shared;-vga=none");
    QEMUOptionSet options = baseOptions();
    options.applyStartArgsVariable();
    qunsetenv("HV_QEMU_START_ARGS");
    EXPECT_EQ(options.render(), QStringList({"-accel", "tcg", "-cpu", "host"}) + kSystem + kData +
                                    QStringList({"-drive", "format=vvfat,file=fat:ro:/d/shared", "-nographic", "-vga",
                                                 "none"}));
}

} // namespace
