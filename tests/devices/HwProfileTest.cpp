#include "DeviceTestData.h"
#include "HwProfile.h"
#include "HwProfileBuilder.h"

#include <QMetaProperty>
#include <QUuid>

#include <gtest/gtest.h>

namespace {

TEST(HwProfile, defaultIsInvalidWithOneDefaultDisplay)
{
    const HwProfile profile;
    EXPECT_FALSE(profile.isValid());
    EXPECT_FALSE(profile.isFoldable());
    EXPECT_EQ(profile.source, HwProfile::Source::VENDOR);
    EXPECT_EQ(profile.formFactor, HwProfile::FormFactor::PHONE);
    EXPECT_EQ(profile.getVmHeapSize(), 256);
    ASSERT_EQ(profile.displaySettings.displays.size(), 1);
    EXPECT_EQ(profile.getPrimaryResolution(), QSize(1280, 768));
    EXPECT_EQ(profile.getPrimaryDensity(), 120);
    EXPECT_EQ(profile.getPrimaryDisplay()->physicalSize, 9.0);
}

TEST(HwProfile, builderMakesAValidProfileWithTwoIdenticalDisplays)
{
    const HwProfileBuilder profile("Pixelish");
    EXPECT_TRUE(profile.isValid());
    EXPECT_FALSE(QUuid(profile.uuid).isNull());
    EXPECT_TRUE(profile.uuid.startsWith('{') && profile.uuid.endsWith('}'));
    EXPECT_EQ(profile.getName(), "ACME Pixelish");
    EXPECT_EQ(profile.cpuCount, 4);
    EXPECT_EQ(profile.ramSize, 2048);
    EXPECT_EQ(profile.dataDiskSize, 8192);
    EXPECT_EQ(profile.source, HwProfile::Source::VENDOR);
    ASSERT_EQ(profile.displaySettings.displays.size(), 2);
    EXPECT_EQ(profile.displaySettings.displays.at(0), profile.displaySettings.displays.at(1));
    EXPECT_EQ(HwProfileBuilder().getModel(), "Unnamed");
    EXPECT_NE(HwProfileBuilder().uuid, HwProfileBuilder().uuid);
}

struct SourceCase {
    int source;
    const char *keyName;
    bool official;
    bool readOnly;
};

class HwProfileSource : public ::testing::TestWithParam<SourceCase>
{
};

TEST_P(HwProfileSource, queriesFollowTheSource)
{
    HwProfile profile;
    profile.source = HwProfile::Source(GetParam().source);
    EXPECT_EQ(profile.getSourceAsString(), GetParam().keyName);
    EXPECT_EQ(profile.isOfficial(), GetParam().official);
    EXPECT_EQ(profile.isReadOnly(), GetParam().readOnly);
}

INSTANTIATE_TEST_SUITE_P(All, HwProfileSource,
                         ::testing::Values(SourceCase{0, "VENDOR", true, true}, SourceCase{1, "SHARED", false, true},
                                           SourceCase{2, "USER", false, false},
                                           SourceCase{HwProfile::UnknownEnumValue, "", false, true}));

TEST(HwProfile, foldedDisplayOnlyForValidFoldables)
{
    HwProfileBuilder profile;
    profile.displaySettings.displays[1].width = 2200;
    EXPECT_EQ(profile.getFoldedDisplay(), nullptr);
    profile.displaySettings.displayMode = HwProfile::DisplayMode::FOLDABLE;
    ASSERT_NE(profile.getFoldedDisplay(), nullptr);
    EXPECT_EQ(profile.getFoldedDisplay()->width, 2200);
    profile.uuid.clear();
    EXPECT_EQ(profile.getFoldedDisplay(), nullptr);
}

TEST(HwProfile, profileWithoutDisplaysHasNoPrimaryDisplay)
{
    HwProfile profile;
    profile.displaySettings.displays.clear();
    EXPECT_EQ(profile.getPrimaryDisplay(), nullptr);
    EXPECT_EQ(profile.getPrimaryResolution(), QSize());
    EXPECT_EQ(profile.getPrimaryDensity(), 0);
}

TEST(HwProfile, skinNameIsTheFileNameOfTheSkinPath)
{
    HwProfile profile;
    EXPECT_EQ(profile.getSkinName(), "");
    profile.skin = "/opt/skins/round_watch";
    EXPECT_EQ(profile.getSkinName(), "round_watch");
}

TEST(HwProfile, equalityLeavesOutTheOtherDevicePropertiesAndHeap)
{
    const HwProfileBuilder a("Same");
    HwProfile b = a;
    b.deviceProperties.productName = "other";
    b.deviceProperties.serialNo = "other";
    b.deviceProperties.vmHeapSize = 1;
    b.hasSdCard = true;
    EXPECT_EQ(a, b);

    const auto changed = [&a](void (*change)(HwProfile &)) {
        HwProfile c = a;
        change(c);
        return c;
    };
    EXPECT_NE(a, changed([](HwProfile &p) { p.deviceProperties.productBrand = "X"; }));
    EXPECT_NE(a, changed([](HwProfile &p) { p.sdCardSize = 1; }));
    EXPECT_NE(a, changed([](HwProfile &p) { p.skin = "s"; }));
    EXPECT_NE(a, changed([](HwProfile &p) { p.displaySettings.hwNavigationKeys = true; }));
    EXPECT_NE(a, changed([](HwProfile &p) { p.displaySettings.displays.removeLast(); }));
    EXPECT_NE(a, changed([](HwProfile &p) { p.displaySettings.displays[1].contentPadding = 1; }));
    EXPECT_NE(a, changed([](HwProfile &p) { p.displaySettings.displays[0].physicalSize = 9.000001; }));
}

TEST(HwProfile, gadgetPropertiesInOrder)
{
    const QMetaObject &meta = HwProfile::staticMetaObject;
    QStringList names;
    for (int i = meta.propertyOffset(); i < meta.propertyCount(); ++i)
        names << meta.property(i).name();
    EXPECT_EQ(names, QStringList({"uuid", "brand", "model", "formFactor", "cpuCount", "ramSize", "dataDiskSize",
                                  "sdCardDiskSize", "skin", "primaryResolution", "readOnly", "vmHeapSize"}));

    HwProfileBuilder profile("Gadget");
    profile.sdCardSize = 99;
    profile.source = HwProfile::Source::USER;
    const auto read = [&](const char *name) {
        return meta.property(meta.indexOfProperty(name)).readOnGadget(&profile);
    };
    EXPECT_EQ(read("model").toString(), "Gadget");
    EXPECT_EQ(read("sdCardDiskSize").toLongLong(), 99);
    EXPECT_EQ(read("primaryResolution").toSize(), QSize(1280, 768));
    EXPECT_EQ(read("readOnly").toBool(), false);
    EXPECT_FALSE(meta.property(meta.indexOfProperty("brand")).isWritable());

    QMetaProperty cpuCount = meta.property(meta.indexOfProperty("cpuCount"));
    EXPECT_TRUE(cpuCount.writeOnGadget(&profile, 6));
    EXPECT_EQ(profile.cpuCount, 6);
    QMetaProperty formFactor = meta.property(meta.indexOfProperty("formFactor"));
    EXPECT_TRUE(formFactor.isEnumType());
    EXPECT_TRUE(formFactor.writeOnGadget(&profile, QVariant::fromValue(HwProfile::FormFactor::WATCH)));
    EXPECT_EQ(profile.formFactor, HwProfile::FormFactor::WATCH);
}

TEST(HwProfile, printsReadably)
{
    const HwProfileBuilder profile("Model X");
    EXPECT_EQ(::testing::PrintToString(HwProfile(profile)),
              "HwProfile(uuid=" + profile.uuid.toStdString() + " brand=ACME model=Model X");
}

} // namespace
