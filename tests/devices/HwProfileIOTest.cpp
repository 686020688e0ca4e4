#include "DeviceTestData.h"
#include "HwProfileBuilder.h"
#include "HwProfileIO.h"
#include "MessageCapture.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using devtest::profileJson;
using devtest::with;
using devtest::without;
using hvtest::MessageCapture;

namespace {

HwProfile::Display display(int width, int height)
{
    HwProfile::Display d;
    d.width = width;
    d.height = height;
    d.density = 320;
    d.physicalSize = 6.25;
    d.bottomCornerRadius = 1;
    d.topCornerRadius = 2;
    d.contentPadding = 3;
    return d;
}

struct Shape {
    HwProfile::FormFactor formFactor;
    HwProfile::DisplayMode mode;
    int displays;
};

class HwProfileRoundTrip : public ::testing::TestWithParam<Shape>
{
};

TEST_P(HwProfileRoundTrip, loadOfToJsonObjectGivesAnEqualProfile)
{
    HwProfileBuilder profile("Round");
    profile.formFactor = GetParam().formFactor;
    profile.displaySettings.displayMode = GetParam().mode;
    profile.displaySettings.displays.clear();
    for (int i = 0; i < GetParam().displays; ++i)
        profile.displaySettings.displays.append(display(1080 + i, 1920 - i));
    profile.source = HwProfile::Source::SHARED;
    profile.sharerEmail = "share@example.test";
    profile.sdCardSize = 256;
    profile.skin = "/skins/a";
    profile.deviceProperties.vmHeapSize = 384;
    profile.deviceProperties.buildFingerprint = "fp";

    MessageCapture capture;
    const HwProfile loaded = HwProfileIO::load(HwProfileIO::toJsonObject(profile));
    EXPECT_EQ(loaded, profile);
    EXPECT_TRUE(loaded.hasSdCard);
    EXPECT_EQ(loaded.getVmHeapSize(), 384);
    EXPECT_EQ(loaded.deviceProperties.buildFingerprint, "fp");
    EXPECT_TRUE(capture.noneAtOrAbove(QtWarningMsg));
}

INSTANTIATE_TEST_SUITE_P(
    EveryFormFactorAndMode, HwProfileRoundTrip,
    ::testing::Values(Shape{HwProfile::FormFactor::PHONE, HwProfile::DisplayMode::REGULAR, 1},
                      Shape{HwProfile::FormFactor::TABLET, HwProfile::DisplayMode::REGULAR, 1},
                      Shape{HwProfile::FormFactor::WATCH, HwProfile::DisplayMode::REGULAR, 1},
                      Shape{HwProfile::FormFactor::CAR, HwProfile::DisplayMode::MULTI_DISPLAY, 3},
                      Shape{HwProfile::FormFactor::TV, HwProfile::DisplayMode::MULTI_DISPLAY, 2},
                      Shape{HwProfile::FormFactor::PHONE, HwProfile::DisplayMode::FOLDABLE, 2}));

TEST(HwProfileIO, writesEveryKeyOfTheFormat)
{
    const QJsonObject json = HwProfileIO::toJsonObject(HwProfileBuilder("Keys"));
    EXPECT_EQ(json.keys(), QStringList({"cpu_count", "data_disk_size", "device_properties", "display_settings",
                                        "form_factor", "ram_size", "sd_card_size", "sharer_email", "skin", "source",
                                        "uuid", "version"}));
    EXPECT_EQ(json["version"].toString(), "1.0.0");
    EXPECT_EQ(json["source"].toString(), "VENDOR");
    EXPECT_EQ(json["device_properties"].toObject().size(), 12);
    EXPECT_FALSE(json["device_properties"].toObject().contains("build_serial"));
    const QJsonObject firstDisplay = json["display_settings"].toObject()["displays"].toArray().at(0).toObject();
    EXPECT_EQ(firstDisplay.keys(), QStringList({"bottom_corner_radius", "content_padding", "density", "height",
                                                "physical_size", "top_corner_radius", "width"}));
}

TEST(HwProfileIO, readsEveryFieldOfARecord)
{
    const HwProfile p = HwProfileIO::load(profileJson());
    ASSERT_TRUE(p.isValid());
    EXPECT_EQ(p.source, HwProfile::Source::USER);
    EXPECT_EQ(p.formFactor, HwProfile::FormFactor::TABLET);
    EXPECT_EQ(p.sharerEmail, "someone@example.test");
    EXPECT_EQ(p.cpuCount, 2);
    EXPECT_EQ(p.ramSize, 3072);
    EXPECT_EQ(p.dataDiskSize, 16384);
    EXPECT_EQ(p.sdCardSize, 512);
    EXPECT_EQ(p.getSkinName(), "nexus_7");
    EXPECT_EQ(p.getName(), "Gadgetco Tab 7");
    EXPECT_EQ(p.deviceProperties.productBoard, "board7");
    EXPECT_EQ(p.deviceProperties.serialNo, "SER7");
    EXPECT_EQ(p.getVmHeapSize(), 512);
    EXPECT_TRUE(p.displaySettings.hwNavigationKeys);
    ASSERT_EQ(p.displaySettings.displays.size(), 1);
    HwProfile::Display expected;
    expected.width = 800;
    expected.height = 1280;
    expected.density = 213;
    expected.physicalSize = 7.0;
    expected.bottomCornerRadius = 3;
    expected.topCornerRadius = 4;
    expected.contentPadding = 5;
    EXPECT_EQ(p.displaySettings.displays[0], expected);
}

TEST(HwProfileIO, optionalFieldsTakeTheirDefaults)
{
    QJsonObject json = without(profileJson(), "skin");
    for (const char *key : {"product_name", "product_manufacturer", "product_board", "product_device",
                            "build_display_id", "build_type", "build_fingerprint", "build_tags", "serialno",
                            "vm_heap_size"})
        json = without(json, QString("device_properties/") + key);
    for (const char *key : {"bottom_corner_radius", "top_corner_radius", "content_padding"})
        json = without(json, QString("display_settings/displays/0/") + key);
    json = with(json, "sd_card_size", 0);

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

struct VersionCase {
    const char *name;
    QJsonValue version;
    bool accepted;
    const char *warning;
};

class HwProfileVersionGate : public ::testing::TestWithParam<VersionCase>
{
};

TEST_P(HwProfileVersionGate, acceptsOnlyMajorZeroAndOne)
{
    const QJsonObject json = GetParam().version.isUndefined() ? without(profileJson(), "version")
                                                              : with(profileJson(), "version", GetParam().version);
    MessageCapture capture;
    const HwProfile p = HwProfileIO::load(json);
    EXPECT_EQ(p.isValid(), GetParam().accepted);
    if (GetParam().accepted) {
        EXPECT_TRUE(capture.noneAtOrAbove(QtWarningMsg));
    } else {
        EXPECT_EQ(capture.texts(QtWarningMsg), QStringList{GetParam().warning});
        EXPECT_EQ(p, HwProfile());
    }
}

INSTANTIATE_TEST_SUITE_P(
    Versions, HwProfileVersionGate,
    ::testing::Values(
        VersionCase{"missing", QJsonValue(QJsonValue::Undefined), false,
                    "Unsupported hardware profile: version= \"0.0.0\" , expected \"1.0.0\""},
        VersionCase{"number", QJsonValue(1), false,
                    "Unsupported hardware profile: version= \"0.0.0\" , expected \"1.0.0\""},
        VersionCase{"two", QJsonValue("2.0"), false,
                    "Unsupported hardware profile: version= \"2.0.0\" , expected \"1.0.0\""},
        VersionCase{"zero", QJsonValue("0.9"), true, ""}, VersionCase{"one", QJsonValue("1.7.3"), true, ""}),
    [](const auto &info) { return std::string(info.param.name); });

struct EnumCase {
    const char *name;
    const char *path;
    const char *value;
};

class HwProfileUnknownEnum : public ::testing::TestWithParam<EnumCase>
{
};

TEST_P(HwProfileUnknownEnum, storesTheSentinelWithoutError)
{
    MessageCapture capture;
    const HwProfile p = HwProfileIO::load(with(profileJson(), GetParam().path, QString::fromUtf8(GetParam().value)));
    ASSERT_TRUE(p.isValid());
    EXPECT_TRUE(capture.noneAtOrAbove(QtWarningMsg));
    const QString path = GetParam().path;
    const int stored = path == "source" ? int(p.source)
        : path == "form_factor"         ? int(p.formFactor)
                                        : int(p.displaySettings.displayMode);
    EXPECT_EQ(stored, -1234);
}

INSTANTIATE_TEST_SUITE_P(Names, HwProfileUnknownEnum,
                         ::testing::Values(EnumCase{"lowerCaseSource", "source", "vendor"},
                                           EnumCase{"scopedSource", "source", "HwProfile::USER"},
                                           EnumCase{"emptyFormFactor", "form_factor", ""},
                                           EnumCase{"spacedFormFactor", "form_factor", "PHONE "},
                                           EnumCase{"mixedCaseMode", "display_settings/display_mode", "Regular"}),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(HwProfileIO, unknownSourceIsNeitherOfficialNorUserOwned)
{
    const HwProfile p = HwProfileIO::load(with(profileJson(), "source", "vendor"));
    EXPECT_FALSE(p.isOfficial());
    EXPECT_TRUE(p.isReadOnly());
    EXPECT_EQ(p.getSourceAsString(), "");
    // The sentinel survives a round trip.
    EXPECT_EQ(HwProfileIO::load(HwProfileIO::toJsonObject(p)), p);
}

TEST(HwProfileIO, enumNameWithEmbeddedNulIsUnknown)
{
    const HwProfile p = HwProfileIO::load(with(profileJson(), "source", QString("USER") + QChar(0) + "x"));
    ASSERT_TRUE(p.isValid());
    EXPECT_EQ(int(p.source), -1234);
}

TEST(HwProfileIO, displayListWinsOverDisplays)
{
    QJsonObject json = profileJson();
    QJsonArray list = json["display_settings"].toObject()["displays"].toArray();
    list.append(QJsonObject{{"width", 10}, {"height", 20}, {"density", 30}, {"physical_size", 1.5}});
    json = with(json, "display_settings/display_list", list);
    const HwProfile p = HwProfileIO::load(json);
    ASSERT_EQ(p.displaySettings.displays.size(), 2);
    EXPECT_EQ(p.displaySettings.displays[1].height, 20);
    EXPECT_EQ(p.displaySettings.displays[1].physicalSize, 1.5);
}

TEST(HwProfileIO, buildSerialIsReadOnlyWhenSerialnoIsAbsent)
{
    const QJsonObject both = with(profileJson(), "device_properties/build_serial", "OLD");
    EXPECT_EQ(HwProfileIO::load(both).deviceProperties.serialNo, "SER7");
    const QJsonObject old = without(both, "device_properties/serialno");
    const HwProfile p = HwProfileIO::load(old);
    EXPECT_EQ(p.deviceProperties.serialNo, "OLD");
    const QJsonObject written = HwProfileIO::toJsonObject(p)["device_properties"].toObject();
    EXPECT_EQ(written["serialno"].toString(), "OLD");
    EXPECT_FALSE(written.contains("build_serial"));
}

struct DisplayCountCase {
    const char *mode;
    int count;
    const char *warning; // empty when the profile loads
};

class HwProfileDisplayCount : public ::testing::TestWithParam<DisplayCountCase>
{
};

TEST_P(HwProfileDisplayCount, enforcesTheScreensOfTheMode)
{
    QJsonArray displays;
    for (int i = 0; i < GetParam().count; ++i)
        displays.append(profileJson()["display_settings"].toObject()["displays"].toArray().at(0));
    QJsonObject json = with(profileJson(), "display_settings/display_mode", GetParam().mode);
    json = with(json, "display_settings/displays", displays);

    MessageCapture capture;
    const HwProfile p = HwProfileIO::load(json);
    if (*GetParam().warning == '\0') {
        EXPECT_TRUE(p.isValid());
        EXPECT_EQ(p.displaySettings.displays.size(), GetParam().count);
        EXPECT_TRUE(capture.noneAtOrAbove(QtWarningMsg));
    } else {
        EXPECT_FALSE(p.isValid());
        EXPECT_EQ(capture.texts(QtWarningMsg), QStringList{GetParam().warning});
    }
}

INSTANTIATE_TEST_SUITE_P(
    Modes, HwProfileDisplayCount,
    ::testing::Values(DisplayCountCase{"FOLDABLE", 1, "Foldable phones must have exactly 2 screens, found 1"},
                      DisplayCountCase{"FOLDABLE", 2, ""},
                      DisplayCountCase{"FOLDABLE", 3, "Foldable phones must have exactly 2 screens, found 3"},
                      DisplayCountCase{"MULTI_DISPLAY", 1, "Multi-screen phones must have at least 2 screens, found 1"},
                      DisplayCountCase{"MULTI_DISPLAY", 2, ""}, DisplayCountCase{"MULTI_DISPLAY", 4, ""},
                      DisplayCountCase{"REGULAR", 0, ""}, DisplayCountCase{"REGULAR", 2, ""}));

struct ErrorCase {
    const char *name;
    QJsonObject json;
    QStringList warnings;
};

class HwProfileFieldErrors : public ::testing::TestWithParam<ErrorCase>
{
};

TEST_P(HwProfileFieldErrors, logsEachErrorAndRejects)
{
    MessageCapture capture;
    EXPECT_EQ(HwProfileIO::load(GetParam().json), HwProfile());
    EXPECT_EQ(capture.texts(QtWarningMsg), GetParam().warnings);
}

INSTANTIATE_TEST_SUITE_P(
    Records, HwProfileFieldErrors,
    ::testing::Values(
        ErrorCase{"noDeviceProperties",
                  without(profileJson(), "device_properties"),
                  {"Error in field \"device_properties is missing.\"",
                   "Error in field \"device_properties.product_model is missing.\"",
                   "Error in field \"device_properties.product_brand is missing.\""}},
        ErrorCase{"displayWithoutWidth",
                  without(profileJson(), "display_settings/displays/0/width"),
                  {"Error in field \"display_settings..displays[0].width is missing.\""}},
        ErrorCase{"wrongTypes",
                  with(with(profileJson(), "cpu_count", "4"), "skin", 3),
                  {"Error in field \"cpu_count is not the right type. Expected 2, got 3\"",
                   "Error in field \"skin is not the right type. Expected 3, got 2\""}},
        ErrorCase{"missingEnumeration",
                  without(profileJson(), "form_factor"),
                  {"Error in field \"form_factor is missing.\""}},
        ErrorCase{"sizeOutsideInt",
                  with(with(profileJson(), "ram_size", 1e300), "display_settings/displays/0/density", 120.5),
                  {"Error in field \"ram_size is not a whole number within the int range.\"",
                   "Error in field \"display_settings..displays[0].density is not a whole number within the int "
                   "range.\""}},
        ErrorCase{"arrayForObject",
                  with(profileJson(), "display_settings", QJsonArray{1, 2}),
                  {"Error in field \"display_settings is not the right type. Expected 5, got 4\"",
                   "Error in field \"display_settings.hw_navigation_keys is missing.\"",
                   "Error in field \"display_settings.display_mode is missing.\"",
                   "Error in field \"display_settings.displays is missing.\""}}),
    [](const auto &info) { return std::string(info.param.name); });

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

class HwProfileStore : public ::testing::Test
{
protected:
    QTemporaryDir m_temp;
    QString dir() const { return m_temp.path() + "/profiles/user"; }
};

TEST_F(HwProfileStore, savedFilesLoadBackUnderTheBracedUuid)
{
    HwProfileBuilder profile("Saved");
    profile.source = HwProfile::Source::USER;
    ASSERT_TRUE(HwProfileIO::save(profile, dir()));
    const QString path = dir() + "/" + profile.uuid + ".json";
    ASSERT_TRUE(QFile::exists(path));
    EXPECT_TRUE(profile.uuid.startsWith('{'));
    EXPECT_EQ(HwProfileIO::load(path), profile);

    // Saving again replaces the file.
    profile.cpuCount = 8;
    ASSERT_TRUE(HwProfileIO::save(profile, dir()));
    EXPECT_EQ(HwProfileIO::load(path).cpuCount, 8);
    EXPECT_EQ(QDir(dir()).entryList(QDir::Files).size(), 1);

    EXPECT_TRUE(HwProfileIO::remove(profile, dir()));
    EXPECT_FALSE(QFile::exists(path));
}

TEST_F(HwProfileStore, refusesToSaveOrRemoveWhatItMustNot)
{
    MessageCapture capture;
    EXPECT_FALSE(HwProfileIO::save(HwProfile(), dir()));
    EXPECT_FALSE(HwProfileIO::remove(HwProfile(), dir()));
    EXPECT_EQ(capture.texts(QtWarningMsg), QStringList({"Cannot save invalid profile", "Cannot remove invalid profile"}));

    for (HwProfile::Source source : {HwProfile::Source::VENDOR, HwProfile::Source::SHARED}) {
        HwProfileBuilder profile;
        profile.source = source;
        ASSERT_TRUE(HwProfileIO::save(profile, dir()));
        capture.clear();
        EXPECT_FALSE(HwProfileIO::remove(profile, dir()));
        EXPECT_EQ(capture.texts(QtWarningMsg), QStringList{"Cannot remove non-user profile"});
        EXPECT_TRUE(QFile::exists(dir() + "/" + profile.uuid + ".json"));
    }

    HwProfileBuilder missing;
    missing.source = HwProfile::Source::USER;
    capture.clear();
    EXPECT_FALSE(HwProfileIO::remove(missing, dir()));
    EXPECT_EQ(capture.texts(QtWarningMsg),
              QStringList{"Cannot remove local profile file for profile \"" + missing.uuid + "\" : \"" + dir() + "\""});
}

TEST_F(HwProfileStore, refusesUuidsThatLeaveTheDirectory)
{
    HwProfileBuilder profile;
    profile.source = HwProfile::Source::USER;
    profile.uuid = "../escaped";
    MessageCapture capture;
    EXPECT_FALSE(HwProfileIO::save(profile, dir()));
    EXPECT_FALSE(HwProfileIO::remove(profile, dir()));
    EXPECT_EQ(capture.texts(QtWarningMsg),
              QStringList({"Cannot save profile whose uuid is not a file name: \"../escaped\"",
                           "Cannot remove profile whose uuid is not a file name: \"../escaped\""}));
    EXPECT_FALSE(QFile::exists(m_temp.path() + "/profiles/escaped.json"));
}

TEST_F(HwProfileStore, reportsADirectoryThatCannotBeCreated)
{
    const QString blocker = devtest::writeFile(m_temp.path(), "file", "x");
    MessageCapture capture;
    EXPECT_FALSE(HwProfileIO::save(HwProfileBuilder(), blocker + "/sub"));
    EXPECT_EQ(capture.texts(QtWarningMsg), QStringList{"Cannot create directory \"" + blocker + "/sub\""});
}

TEST_F(HwProfileStore, reportsAFileThatCannotBeCreated)
{
    const HwProfileBuilder profile;
    ASSERT_TRUE(QDir().mkpath(dir() + "/" + profile.uuid + ".json"));
    MessageCapture capture;
    EXPECT_FALSE(HwProfileIO::save(profile, dir()));
    EXPECT_EQ(capture.texts(QtWarningMsg), QStringList{"Cannot create local profile file for profile \"" +
                                                       profile.uuid + "\" in \"" + dir() + "\""});
}

} // namespace
