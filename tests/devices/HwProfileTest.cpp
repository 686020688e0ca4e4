#include "DeviceTestData.h"
#include "HwProfileBuilder.h"
#include "HwProfileIO.h"
#include "HwProfileRegistry.h"
#include "MessageCapture.h"
#include "Paths.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QMetaProperty>
#include <QTemporaryDir>
#include <QUuid>

#include <gtest/gtest.h>

#include <functional>

using devtest::profileJson;
using devtest::with;
using devtest::without;
using hvtest::MessageCapture;

namespace {

TEST(HwProfile, sourceQueries)
{
    const struct {
        int source;
        const char *keyName;
        bool official;
        bool readOnly;
    } rows[] = {{0, "VENDOR", true, true}, {1, "SHARED", false, true}, {2, "USER", false, false},
                {HwProfile::UnknownEnumValue, "", false, true}};
    for (const auto &row : rows) {
        HwProfile profile;
        profile.source = HwProfile::Source(row.source);
        EXPECT_EQ(profile.getSourceAsString(), row.keyName) << row.source;
        EXPECT_EQ(profile.isOfficial(), row.official) << row.source;
        EXPECT_EQ(profile.isReadOnly(), row.readOnly) << row.source;
    }
}

TEST(HwProfile, builderAndDisplayQueries)
{
    HwProfileBuilder profile("Pixelish");
    EXPECT_TRUE(profile.isValid());
    EXPECT_FALSE(HwProfile().isValid());
    EXPECT_TRUE(profile.uuid.startsWith('{') && !QUuid(profile.uuid).isNull());
    EXPECT_NE(HwProfileBuilder().uuid, HwProfileBuilder().uuid);
    EXPECT_EQ(profile.getName(), "ACME Pixelish");
    EXPECT_EQ(::testing::PrintToString(HwProfile(profile)), "HwProfile(uuid=" + profile.uuid.toStdString()
                                                                + " brand=ACME model=Pixelish");
    ASSERT_EQ(profile.displaySettings.displays.size(), 2);
    EXPECT_EQ(profile.displaySettings.displays.at(0), profile.displaySettings.displays.at(1));

    // Only a valid foldable has a folded display: the second one.
    profile.displaySettings.displays[1].width = 2200;
    EXPECT_EQ(profile.getFoldedDisplay(), nullptr);
    profile.displaySettings.displayMode = HwProfile::DisplayMode::FOLDABLE;
    ASSERT_NE(profile.getFoldedDisplay(), nullptr);
    EXPECT_EQ(profile.getFoldedDisplay()->width, 2200);
    profile.uuid.clear();
    EXPECT_EQ(profile.getFoldedDisplay(), nullptr);

    profile.displaySettings.displays.clear();
    EXPECT_EQ(profile.getPrimaryDisplay(), nullptr);
    EXPECT_EQ(profile.getPrimaryResolution(), QSize());
    EXPECT_EQ(profile.getPrimaryDensity(), 0);
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
    const std::function<void(HwProfile &)> changes[] = {
        [](HwProfile &p) { p.deviceProperties.productBrand = "X"; },
        [](HwProfile &p) { p.sdCardSize = 1; },
        [](HwProfile &p) { p.skin = "s"; },
        [](HwProfile &p) { p.displaySettings.hwNavigationKeys = true; },
        [](HwProfile &p) { p.displaySettings.displays.removeLast(); },
        [](HwProfile &p) { p.displaySettings.displays[1].contentPadding = 1; },
        [](HwProfile &p) { p.displaySettings.displays[0].physicalSize = 9.000001; }};
    for (const auto &change : changes) {
        HwProfile c = a;
        change(c);
        EXPECT_NE(a, c);
    }
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
    const auto read = [&](const char *name) {
        return meta.property(meta.indexOfProperty(name)).readOnGadget(&profile);
    };
    EXPECT_EQ(read("sdCardDiskSize").toLongLong(), 99);
    EXPECT_EQ(read("primaryResolution").toSize(), QSize(1280, 768));
    EXPECT_EQ(read("readOnly").toBool(), true);
    const QMetaProperty formFactor = meta.property(meta.indexOfProperty("formFactor"));
    EXPECT_TRUE(formFactor.writeOnGadget(&profile, QVariant::fromValue(HwProfile::FormFactor::WATCH)));
    EXPECT_EQ(profile.formFactor, HwProfile::FormFactor::WATCH);
    EXPECT_FALSE(meta.property(meta.indexOfProperty("brand")).isWritable());
}

// ---------------------------------------------------------------------------
// The JSON record.

QJsonObject withDisplays(const char *mode, int count)
{
    const QJsonValue one = profileJson()["display_settings"].toObject()["displays"].toArray().at(0);
    QJsonArray displays;
    for (int i = 0; i < count; ++i)
        displays.append(one);
    return with(with(profileJson(), "display_settings/display_mode", mode), "display_settings/displays", displays);
}

TEST(HwProfileIO, everyEnumerationNameRoundTrips)
{
    MessageCapture capture;
    for (const char *source : {"VENDOR", "SHARED", "USER"}) {
        for (const char *formFactor : {"PHONE", "TABLET", "WATCH", "CAR", "TV"}) {
            for (const char *mode : {"REGULAR", "MULTI_DISPLAY", "FOLDABLE"}) {
                const QJsonObject json = with(with(withDisplays(mode, 2), "form_factor", formFactor), "source", source);
                EXPECT_EQ(HwProfileIO::toJsonObject(HwProfileIO::load(json)), json) << formFactor << " " << mode;
            }
        }
    }
    EXPECT_TRUE(capture.noneAtOrAbove(QtWarningMsg));
}

TEST(HwProfileIO, readsAndWritesEveryKeyOfTheFormat)
{
    const HwProfile p = HwProfileIO::load(profileJson());
    ASSERT_TRUE(p.isValid());
    EXPECT_EQ(p.source, HwProfile::Source::USER);
    EXPECT_EQ(p.formFactor, HwProfile::FormFactor::TABLET);
    EXPECT_EQ(p.getName(), "Gadgetco Tab 7");
    EXPECT_EQ(p.getVmHeapSize(), 512);
    EXPECT_TRUE(p.hasSdCard);
    // Written back, the record is the one read: every key under its own name.
    EXPECT_EQ(HwProfileIO::toJsonObject(p), profileJson());
}

TEST(HwProfileIO, optionalFieldsTakeTheirDefaults)
{
    QJsonObject json = with(without(profileJson(), "skin"), "sd_card_size", 0);
    for (const char *key : {"product_name", "product_manufacturer", "product_board", "product_device",
                            "build_display_id", "build_type", "build_fingerprint", "build_tags", "serialno",
                            "vm_heap_size"})
        json = without(json, QString("device_properties/") + key);
    for (const char *key : {"bottom_corner_radius", "top_corner_radius", "content_padding"})
        json = without(json, QString("display_settings/displays/0/") + key);
    const HwProfile p = HwProfileIO::load(json);
    ASSERT_TRUE(p.isValid());
    EXPECT_EQ(p.skin, "");
    EXPECT_EQ(p.deviceProperties.productName, "");
    EXPECT_EQ(p.deviceProperties.serialNo, "");
    EXPECT_EQ(p.getVmHeapSize(), 256);
    EXPECT_FALSE(p.hasSdCard);
    EXPECT_EQ(p.displaySettings.displays[0].contentPadding, 0);
    EXPECT_EQ(p.displaySettings.displays[0].topCornerRadius, 0);
}

// One row per record that loads (no warning) or is refused with exactly these warnings.
struct LoadCase {
    const char *name;
    QJsonObject json;
    QStringList warnings;
};

class HwProfileLoad : public ::testing::TestWithParam<LoadCase> {};

TEST_P(HwProfileLoad, acceptsOrRefusesWithTheExactWarnings)
{
    MessageCapture capture;
    const HwProfile p = HwProfileIO::load(GetParam().json);
    EXPECT_EQ(capture.texts(QtWarningMsg), GetParam().warnings);
    if (GetParam().warnings.isEmpty())
        EXPECT_TRUE(p.isValid());
    else
        EXPECT_EQ(p, HwProfile());
}

const QString Unsupported = "Unsupported hardware profile: version= \"%1\" , expected \"1.0.0\"";

INSTANTIATE_TEST_SUITE_P(
    Records, HwProfileLoad,
    ::testing::Values(
        LoadCase{"versionMissing", without(profileJson(), "version"), {Unsupported.arg("0.0.0")}},
        LoadCase{"versionNumber", with(profileJson(), "version", 1), {Unsupported.arg("0.0.0")}},
        LoadCase{"versionTwo", with(profileJson(), "version", "2.0"), {Unsupported.arg("2.0.0")}},
        LoadCase{"versionZero", with(profileJson(), "version", "0.9"), {}},
        LoadCase{"versionOneLater", with(profileJson(), "version", "1.7.3"), {}},
        LoadCase{"foldableOne", withDisplays("FOLDABLE", 1), {"Foldable phones must have exactly 2 screens, found 1"}},
        LoadCase{"foldableTwo", withDisplays("FOLDABLE", 2), {}},
        LoadCase{"foldableThree", withDisplays("FOLDABLE", 3),
                 {"Foldable phones must have exactly 2 screens, found 3"}},
        LoadCase{"multiOne", withDisplays("MULTI_DISPLAY", 1),
                 {"Multi-screen phones must have at least 2 screens, found 1"}},
        LoadCase{"multiTwo", withDisplays("MULTI_DISPLAY", 2), {}},
        LoadCase{"multiFour", withDisplays("MULTI_DISPLAY", 4), {}},
        LoadCase{"regularNone", withDisplays("REGULAR", 0), {}},
        LoadCase{"regularTwo", withDisplays("REGULAR", 2), {}},
        LoadCase{"noDeviceProperties",
                 without(profileJson(), "device_properties"),
                 {"Error in field \"device_properties is missing.\"",
                  "Error in field \"device_properties.product_model is missing.\"",
                  "Error in field \"device_properties.product_brand is missing.\""}},
        LoadCase{"displayWithoutWidth",
                 without(profileJson(), "display_settings/displays/0/width"),
                 {"Error in field \"display_settings..displays[0].width is missing.\""}},
        LoadCase{"wrongTypes",
                 with(with(profileJson(), "cpu_count", "4"), "skin", 3),
                 {"Error in field \"cpu_count is not the right type. Expected 2, got 3\"",
                  "Error in field \"skin is not the right type. Expected 3, got 2\""}},
        LoadCase{"missingEnumeration", without(profileJson(), "form_factor"),
                 {"Error in field \"form_factor is missing.\""}},
        LoadCase{"sizeOutsideInt",
                 with(with(profileJson(), "ram_size", 1e300), "display_settings/displays/0/density", 120.5),
                 {"Error in field \"ram_size is not a whole number within the int range.\"",
                  "Error in field \"display_settings..displays[0].density is not a whole number within the int "
                  "range.\""}},
        LoadCase{"arrayForObject",
                 with(profileJson(), "display_settings", QJsonArray{1, 2}),
                 {"Error in field \"display_settings is not the right type. Expected 5, got 4\"",
                  "Error in field \"display_settings.hw_navigation_keys is missing.\"",
                  "Error in field \"display_settings.display_mode is missing.\"",
                  "Error in field \"display_settings.displays is missing.\""}}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(HwProfileIO, unknownEnumerationNamesStoreTheSentinelWithoutError)
{
    const std::pair<const char *, QString> rows[] = {
        {"source", "vendor"},   {"source", "HwProfile::USER"}, {"source", QString("USER") + QChar(0) + "x"},
        {"form_factor", ""},    {"form_factor", "PHONE "},     {"display_settings/display_mode", "Regular"}};
    MessageCapture capture;
    for (const auto &[path, value] : rows) {
        const HwProfile p = HwProfileIO::load(with(profileJson(), path, value));
        ASSERT_TRUE(p.isValid()) << path;
        const QString key = path;
        EXPECT_EQ(key == "source"        ? int(p.source)
                  : key == "form_factor" ? int(p.formFactor)
                                         : int(p.displaySettings.displayMode),
                  -1234)
            << path << " " << value.toStdString();
        // The sentinel survives a round trip.
        EXPECT_EQ(HwProfileIO::load(HwProfileIO::toJsonObject(p)), p);
    }
    EXPECT_TRUE(capture.noneAtOrAbove(QtWarningMsg));
}

TEST(HwProfileIO, displayListWinsOverDisplays)
{
    QJsonArray list = profileJson()["display_settings"].toObject()["displays"].toArray();
    list.append(QJsonObject{{"width", 10}, {"height", 20}, {"density", 30}, {"physical_size", 1.5}});
    const HwProfile p = HwProfileIO::load(with(profileJson(), "display_settings/display_list", list));
    ASSERT_EQ(p.displaySettings.displays.size(), 2);
    EXPECT_EQ(p.displaySettings.displays[1].height, 20);
    EXPECT_EQ(p.displaySettings.displays[1].physicalSize, 1.5);
}

TEST(HwProfileIO, buildSerialIsReadOnlyWhenSerialnoIsAbsent)
{
    const QJsonObject both = with(profileJson(), "device_properties/build_serial", "OLD");
    EXPECT_EQ(HwProfileIO::load(both).deviceProperties.serialNo, "SER7");
    const HwProfile p = HwProfileIO::load(without(both, "device_properties/serialno"));
    EXPECT_EQ(p.deviceProperties.serialNo, "OLD");
    const QJsonObject written = HwProfileIO::toJsonObject(p)["device_properties"].toObject();
    EXPECT_EQ(written["serialno"].toString(), "OLD");
    EXPECT_FALSE(written.contains("build_serial"));
}

TEST(HwProfileIO, webServiceRecordsGetDefaultsForAbsentKeys)
{
    QVariantMap record = profileJson().toVariantMap();
    for (const char *key : {"version", "source", "sharer_email", "sd_card_size"})
        record.remove(key);
    const HwProfile p = HwProfileIO::load(QVariant(record));
    ASSERT_TRUE(p.isValid());
    EXPECT_EQ(p.source, HwProfile::Source::VENDOR);
    EXPECT_EQ(p.sharerEmail, "");
    EXPECT_EQ(p.sdCardSize, 0);
    record.insert("source", "SHARED");
    EXPECT_EQ(HwProfileIO::load(QVariant(record)).source, HwProfile::Source::SHARED);
}

// ---------------------------------------------------------------------------
// Profile files in a directory.

class HwProfileStore : public ::testing::Test
{
protected:
    QString dir() const { return m_temp.path() + "/profiles/user"; }
    static HwProfileBuilder userProfile()
    {
        HwProfileBuilder profile("Saved");
        profile.source = HwProfile::Source::USER;
        return profile;
    }
    QTemporaryDir m_temp;
    MessageCapture m_capture;
};

TEST_F(HwProfileStore, savedFilesLoadBackUnderTheBracedUuid)
{
    HwProfileBuilder profile = userProfile();
    ASSERT_TRUE(HwProfileIO::save(profile, dir()));
    const QString path = dir() + "/" + profile.uuid + ".json";
    EXPECT_EQ(HwProfileIO::load(path), profile);
    profile.cpuCount = 8;
    ASSERT_TRUE(HwProfileIO::save(profile, dir()));
    EXPECT_EQ(HwProfileIO::load(path).cpuCount, 8);
    EXPECT_EQ(QDir(dir()).entryList(QDir::Files).size(), 1);
    EXPECT_TRUE(HwProfileIO::remove(profile, dir()));
    EXPECT_FALSE(QFile::exists(path));
    EXPECT_TRUE(m_capture.noneAtOrAbove(QtWarningMsg));
}

// The user's profiles are found by uuid in any spelling; a name that two
// share finds both, so that no caller takes one for the other.
TEST(HwProfileRegistry, findsByUuidAndNameAndEveryProfileOfASharedName)
{
    HwProfileBuilder first("Twin"), second("Twin");
    for (HwProfileBuilder *profile : {&first, &second}) {
        profile->source = HwProfile::Source::USER;
        ASSERT_TRUE(HwProfileIO::save(*profile, Paths::getUserHwProfilePath()));
    }
    const QList<HwProfileRegistry::Entry> byUuid =
        HwProfileRegistry::find(QUuid(first.uuid).toString(QUuid::WithoutBraces).toUpper());
    ASSERT_EQ(byUuid.size(), 1);
    EXPECT_EQ(byUuid.first().value, first);
    EXPECT_TRUE(HwProfileRegistry::isUserRecord(byUuid.first()));
    EXPECT_EQ(HwProfileRegistry::find(first.getName()).size(), 2);
    EXPECT_TRUE(HwProfileRegistry::find("No such profile").isEmpty());
    for (const HwProfileRegistry::Entry &entry : HwProfileRegistry::profiles()) {
        if (HwProfileRegistry::isUserRecord(entry))
            QFile::remove(entry.file);
    }
}

TEST_F(HwProfileStore, refusesWhatItMustNotDoWithOneWarningEach)
{
    EXPECT_FALSE(HwProfileIO::save(HwProfile(), dir()));
    EXPECT_FALSE(HwProfileIO::remove(HwProfile(), dir()));
    HwProfileBuilder escaping = userProfile();
    escaping.uuid = "../escaped";
    EXPECT_FALSE(HwProfileIO::save(escaping, dir()));
    EXPECT_FALSE(HwProfileIO::remove(escaping, dir()));
    const HwProfileBuilder missing = userProfile();
    EXPECT_FALSE(HwProfileIO::remove(missing, dir()));
    EXPECT_EQ(m_capture.texts(QtWarningMsg),
              QStringList({"Cannot save invalid profile", "Cannot remove invalid profile",
                           "Cannot save profile whose uuid is not a file name: \"../escaped\"",
                           "Cannot remove profile whose uuid is not a file name: \"../escaped\"",
                           "Cannot remove local profile file for profile \"" + missing.uuid + "\" : \"" + dir()
                               + "\""}));
    EXPECT_FALSE(QFile::exists(m_temp.path() + "/profiles/escaped.json"));

    for (HwProfile::Source source : {HwProfile::Source::VENDOR, HwProfile::Source::SHARED}) {
        HwProfileBuilder profile;
        profile.source = source;
        ASSERT_TRUE(HwProfileIO::save(profile, dir()));
        m_capture.clear();
        EXPECT_FALSE(HwProfileIO::remove(profile, dir()));
        EXPECT_EQ(m_capture.texts(QtWarningMsg), QStringList{"Cannot remove non-user profile"});
        EXPECT_TRUE(QFile::exists(dir() + "/" + profile.uuid + ".json"));
    }
}

TEST_F(HwProfileStore, reportsWhatCannotBeCreated)
{
    const QString blocker = devtest::writeFile(m_temp.path(), "file", "x");
    EXPECT_FALSE(HwProfileIO::save(HwProfileBuilder(), blocker + "/sub"));
    const HwProfileBuilder profile;
    ASSERT_TRUE(QDir().mkpath(dir() + "/" + profile.uuid + ".json"));
    EXPECT_FALSE(HwProfileIO::save(profile, dir()));
    EXPECT_EQ(m_capture.texts(QtWarningMsg), QStringList({"Cannot create directory \"" + blocker + "/sub\""}));
    EXPECT_EQ(m_capture.texts(QtCriticalMsg),
              QStringList({"Failed to write \"" + dir() + "/" + profile.uuid + ".json\" : Is a directory"}));
}

} // namespace
