#include "DeviceTestData.h"
#include "MessageCapture.h"
#include "OsImageBuilder.h"
#include "OsImageIO.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using devtest::imageJson;
using devtest::with;
using devtest::without;
using hvtest::MessageCapture;

namespace {

class OsImageRoundTrip : public ::testing::TestWithParam<int>
{
};

TEST_P(OsImageRoundTrip, loadOfToJsonObjectGivesAnEqualImage)
{
    OsImage image = OsImageBuilder();
    image.source = HwProfile::Source(GetParam());
    image.name = "Android 11";
    image.osVersion = {11, 0, 0};
    image.imageVersion = VersionNumber(4, 2, 1, VersionNumber::ReleaseCandidate, 2);
    image.arch = "x86_64";
    image.sdkVersion = 30;
    image.beta = true;
    image.supportedFormFactors = {HwProfile::FormFactor::PHONE, HwProfile::FormFactor::TABLET,
                                  HwProfile::FormFactor::CAR};
    image.imageUri = "{{VENDOR}}/dists/11.0/ova/android-11.ova";
    image.buildDate = QDateTime(QDate(2022, 3, 4), QTime(5, 6, 7), Qt::OffsetFromUTC, 3600);

    MessageCapture capture;
    const OsImage loaded = OsImageIO::load(OsImageIO::toJsonObject(image));
    EXPECT_EQ(loaded, image);
    EXPECT_EQ(loaded.version.toString(), "1.1.0");
    EXPECT_EQ(loaded.sdkVersion, 30);
    EXPECT_TRUE(loaded.isBeta());
    EXPECT_TRUE(capture.noneAtOrAbove(QtWarningMsg));
}

INSTANTIATE_TEST_SUITE_P(EverySource, OsImageRoundTrip, ::testing::Values(0, 1, 2, HwProfile::UnknownEnumValue));

TEST(OsImageIO, writesTheFormatWithTheLegacyOsVersionObject)
{
    OsImage image = OsImageBuilder();
    image.osVersion = {10, 0};
    image.sdkVersion = 29;
    image.supportedFormFactors = {HwProfile::FormFactor::TV, HwProfile::FormFactor::PHONE};
    const QJsonObject json = OsImageIO::toJsonObject(image);
    EXPECT_EQ(json.keys(), QStringList({"arch", "build_date", "image_hash", "image_size_bytes", "image_uri",
                                        "image_version", "is_beta", "name", "os_version", "source",
                                        "supported_form_factors", "uuid", "version"}));
    EXPECT_EQ(json["version"].toString(), "1.1.0");
    EXPECT_EQ(json["build_date"].toString(), "2021-02-02T00:00:00Z");
    EXPECT_EQ(json["supported_form_factors"].toArray(), QJsonArray({"PHONE", "TV"}));
    EXPECT_EQ(json["os_version"].toObject(), QJsonObject({{"os_version", "10.0.0"},
                                                          {"sdk_version", 29},
                                                          {"uuid", ""},
                                                          {"name", ""},
                                                          {"os_type", ""},
                                                          {"code_name", ""},
                                                          {"build_date", ""}}));
}

TEST(OsImageIO, fiveGibibyteSizeSurvivesTheRoundTrip)
{
    OsImage image = OsImageBuilder();
    image.imageSizeBytes = 5LL * 1024 * 1024 * 1024;
    const QByteArray text = QJsonDocument(OsImageIO::toJsonObject(image)).toJson();
    const OsImage loaded = OsImageIO::load(QJsonDocument::fromJson(text).object());
    EXPECT_EQ(loaded.getSize(), 5368709120);
    EXPECT_TRUE(loaded.isValid());
}

struct SizeCase {
    const char *name;
    double size;
};

class OsImageBadSize : public ::testing::TestWithParam<SizeCase>
{
};

TEST_P(OsImageBadSize, makesTheImageInvalidWithAWarning)
{
    MessageCapture capture;
    const OsImage image = OsImageIO::load(with(imageJson(), "image_size_bytes", GetParam().size));
    EXPECT_EQ(image.getSize(), 0);
    EXPECT_FALSE(image.isValid());
    EXPECT_EQ(image.name, "Android 9.0");
    EXPECT_TRUE(capture.has(QtWarningMsg, "Invalid image_size_bytes of os image "
                                          "\"{0b5f8f2e-7f41-4a36-9d39-4f5b3c0d9e10}\" : "
                                          + QString::number(GetParam().size) + " is not a whole number of bytes"));
}

INSTANTIATE_TEST_SUITE_P(Sizes, OsImageBadSize,
                         ::testing::Values(SizeCase{"negative", -1}, SizeCase{"fractional", 1.5},
                                           SizeCase{"beyondExactIntegers", 18014398509481984.0},
                                           SizeCase{"huge", 1e300}),
                         [](const auto &info) { return std::string(info.param.name); });

struct VersionCase {
    const char *name;
    QJsonValue version;
    const char *warning; // empty when accepted
};

class OsImageVersionGate : public ::testing::TestWithParam<VersionCase>
{
};

TEST_P(OsImageVersionGate, acceptsOnlyMajorZeroAndOne)
{
    const QJsonObject json = GetParam().version.isUndefined() ? without(imageJson(), "version")
                                                              : with(imageJson(), "version", GetParam().version);
    MessageCapture capture;
    const OsImage image = OsImageIO::load(json);
    if (*GetParam().warning == '\0') {
        EXPECT_TRUE(image.isValid());
        EXPECT_EQ(image.version.toString(), VersionNumber::fromString(GetParam().version.toString()).toString());
        EXPECT_TRUE(capture.noneAtOrAbove(QtWarningMsg));
    } else {
        EXPECT_EQ(image, OsImage());
        EXPECT_EQ(capture.texts(QtWarningMsg), QStringList{GetParam().warning});
    }
}

INSTANTIATE_TEST_SUITE_P(
    Versions, OsImageVersionGate,
    ::testing::Values(
        VersionCase{"missing", QJsonValue(QJsonValue::Undefined),
                    "Unsupported os image: version= \"0.0.0\" , expected \"1.1.0\""},
        VersionCase{"two", QJsonValue("2.0.0"), "Unsupported os image: version= \"2.0.0\" , expected \"1.1.0\""},
        VersionCase{"zero", QJsonValue("0.5"), ""}, VersionCase{"later1x", QJsonValue("1.9.9"), ""}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(OsImageIO, archIsRequiredFromFormat110On)
{
    const QJsonObject old = with(without(imageJson(), "arch"), "version", "1.0.0");
    MessageCapture capture;
    const OsImage image = OsImageIO::load(old);
    EXPECT_TRUE(image.isValid());
    EXPECT_EQ(image.getImageArch(), "");
    EXPECT_TRUE(capture.noneAtOrAbove(QtWarningMsg));

    const QJsonObject current = with(old, "version", "1.1.0");
    EXPECT_EQ(OsImageIO::load(current), OsImage());
    const QStringList warnings = capture.texts(QtWarningMsg);
    ASSERT_EQ(warnings.size(), 2);
    // The rejected record itself, then its errors.
    EXPECT_EQ(QJsonDocument::fromJson(warnings[0].toUtf8()).object(), current);
    EXPECT_EQ(warnings[1], "Error in field \"arch is missing.\"");
}

TEST(OsImageIO, logsEveryErrorOfARejectedRecord)
{
    QJsonObject json = without(imageJson(), "name");
    json = with(json, "build_date", "yesterday");
    json = with(json, "os_version/sdk_version", "28");
    json = with(json, "image_hash", QJsonArray());
    MessageCapture capture;
    EXPECT_EQ(OsImageIO::load(json), OsImage());
    QStringList warnings = capture.texts(QtWarningMsg);
    ASSERT_FALSE(warnings.isEmpty());
    warnings.removeFirst();
    EXPECT_EQ(warnings, QStringList({"Error in field \"name is missing.\"",
                                     "Error in field \"build_date field does not respect datetime ISO format.\"",
                                     "Error in field \"os_version.sdk_version is not the right type. Expected 2, got 3\"",
                                     "Error in field \"image_hash is not the right type. Expected 3, got 4\""}));
}

TEST(OsImageIO, unknownFormFactorsAreSkippedSilently)
{
    MessageCapture capture;
    const OsImage image = OsImageIO::load(with(imageJson(), "supported_form_factors", QJsonArray{"PHONE", "FOO", 3}));
    EXPECT_EQ(image.supportedFormFactors, QSet<HwProfile::FormFactor>{HwProfile::FormFactor::PHONE});
    EXPECT_TRUE(capture.noneAtOrAbove(QtWarningMsg));

    const OsImage none = OsImageIO::load(with(imageJson(), "supported_form_factors", QJsonArray()));
    EXPECT_FALSE(none.uuid.isEmpty());
    EXPECT_FALSE(none.isValid());
    EXPECT_TRUE(capture.noneAtOrAbove(QtWarningMsg));
}

TEST(OsImageIO, unknownSourceNameStoresTheSentinel)
{
    MessageCapture capture;
    const OsImage image = OsImageIO::load(with(imageJson(), "source", "Vendor"));
    EXPECT_EQ(int(image.source), -1234);
    EXPECT_EQ(image.getSource(), "Halvistrom");
    EXPECT_TRUE(capture.noneAtOrAbove(QtWarningMsg));
}

struct UriCase {
    const char *name;
    const char *source;
    const char *osVersion;
    const char *uri;
    const char *expected;
};

class OsImageVendorUri : public ::testing::TestWithParam<UriCase>
{
};

TEST_P(OsImageVendorUri, bareVendorFileNamesMoveUnderTheVendorAddress)
{
    QJsonObject json = with(imageJson(), "source", GetParam().source);
    json = with(json, "os_version/os_version", GetParam().osVersion);
    json = with(json, "image_uri", GetParam().uri);
    EXPECT_EQ(OsImageIO::load(json).imageUri, GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Addresses, OsImageVendorUri,
    ::testing::Values(
        UriCase{"android9", "VENDOR", "9.0.0", "android.ova", "{{VENDOR}}/dists/9.0/ova/android.ova"},
        UriCase{"android8", "VENDOR", "8.0.0", "a.ova", "{{VENDOR}}/dists/8.0/ova/a.ova"},
        UriCase{"android11Patch", "VENDOR", "11.0.3", "a.ova", "{{VENDOR}}/dists/11.0/ova/a.ova"},
        UriCase{"android7", "VENDOR", "7.1.0", "a.ova", "{{VENDOR}}/dists/7.1.0/ova/a.ova"},
        UriCase{"android8Beta", "VENDOR", "8.0.0-beta1", "a.ova", "{{VENDOR}}/dists/8.0.0-beta1/ova/a.ova"},
        UriCase{"percentSigns", "VENDOR", "9.0", "%1%2.ova", "{{VENDOR}}/dists/9.0/ova/%1%2.ova"},
        UriCase{"lowerCaseMarker", "VENDOR", "9.0", "{{vendor}}/x.ova", "{{VENDOR}}/dists/9.0/ova/{{vendor}}/x.ova"},
        UriCase{"otherScheme", "VENDOR", "9.0", "ftp://h/x.ova", "{{VENDOR}}/dists/9.0/ova/ftp://h/x.ova"},
        UriCase{"https", "VENDOR", "9.0", "https://h/x.ova", "https://h/x.ova"},
        UriCase{"http", "VENDOR", "9.0", "http://h/x.ova", "http://h/x.ova"},
        UriCase{"file", "VENDOR", "9.0", "file:///x.ova", "file:///x.ova"},
        UriCase{"marker", "VENDOR", "9.0", "{{VENDOR}}/x.ova", "{{VENDOR}}/x.ova"},
        UriCase{"shared", "SHARED", "9.0", "x.ova", "x.ova"}, UriCase{"user", "USER", "9.0", "x.ova", "x.ova"}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(OsImageIO, rewrittenVendorImageIsValidAndSharedOneIsNot)
{
    const OsImage vendor = OsImageIO::load(with(imageJson(), "image_uri", "x.ova"));
    EXPECT_TRUE(vendor.isValid());
    EXPECT_EQ(vendor.getFormatedUri(), "https://images.example.test/vendor/dists/9.0/ova/x.ova");
    const OsImage shared = OsImageIO::load(with(with(imageJson(), "image_uri", "x.ova"), "source", "SHARED"));
    EXPECT_FALSE(shared.isValid());
}

class OsImageFiles : public ::testing::Test
{
protected:
    QString write(const QString &name, const QJsonObject &json)
    {
        return devtest::writeFile(m_temp.path(), name, QJsonDocument(json).toJson());
    }
    QTemporaryDir m_temp;
};

TEST_F(OsImageFiles, fileSourceIsTheOneGiven)
{
    const QString path = write("a.json", imageJson());
    EXPECT_EQ(OsImageIO::loadFromFile(path, HwProfile::Source::SHARED).source, HwProfile::Source::SHARED);
    EXPECT_EQ(OsImageIO::loadFromFile(path, HwProfile::Source::USER).source, HwProfile::Source::USER);
    const QString unsourced = write("b.json", without(imageJson(), "source"));
    EXPECT_TRUE(OsImageIO::loadFromFile(unsourced, HwProfile::Source::VENDOR).isValid());
}

TEST_F(OsImageFiles, directorySkipsInvalidFilesWithOneWarningEach)
{
    write("1-good.json", with(imageJson(), "uuid", "one"));
    const QString broken = devtest::writeFile(m_temp.path(), "2-broken.json", "{ not json");
    const QString invalid = write("3-invalid.json", with(imageJson(), "image_hash", ""));
    write("4-good.json", with(imageJson(), "uuid", "four"));
    write("ignored.txt", imageJson());

    MessageCapture capture;
    const QList<OsImage> images = OsImageIO::loadFromDirectory(m_temp.path());
    ASSERT_EQ(images.size(), 2);
    EXPECT_EQ(images[0].uuid, "one");
    EXPECT_EQ(images[1].uuid, "four");
    EXPECT_EQ(images[0].source, HwProfile::Source::USER);
    EXPECT_EQ(capture.texts(QtWarningMsg).filter("Invalid OsImage in"),
              QStringList({"Invalid OsImage in \"" + broken + "\"", "Invalid OsImage in \"" + invalid + "\""}));
}

TEST(OsImageIO, webServiceRecordsGetVersionAndSource)
{
    QVariantMap record = without(without(without(imageJson(), "version"), "source"), "arch").toVariantMap();
    MessageCapture capture;
    EXPECT_EQ(OsImageIO::loadFromWebService(record), OsImage());
    EXPECT_TRUE(capture.has(QtWarningMsg, "Error in field \"arch is missing.\""));

    record.insert("arch", "x86");
    const OsImage image = OsImageIO::loadFromWebService(record);
    EXPECT_EQ(image.version.toString(), "1.1.0");
    EXPECT_EQ(image.source, HwProfile::Source::VENDOR);
    record.insert("source", "USER");
    EXPECT_EQ(OsImageIO::loadFromWebService(record).source, HwProfile::Source::USER);
}

struct MigrationCase {
    const char *name;
    VersionNumber format;
    VersionNumber os;
    const char *archBefore;
    bool migrated;
    const char *archAfter;
};

class OsImageMigration : public ::testing::TestWithParam<MigrationCase>
{
};

TEST_P(OsImageMigration, bringsFormat100To110)
{
    OsImage image = OsImageBuilder();
    image.name = "Android";
    image.version = GetParam().format;
    image.osVersion = GetParam().os;
    image.arch = GetParam().archBefore;
    MessageCapture capture;
    EXPECT_EQ(OsImageIO::migrateV1_0ToV1_1("Pixel", &image), GetParam().migrated);
    EXPECT_EQ(image.arch, GetParam().archAfter);
    if (GetParam().migrated) {
        EXPECT_EQ(image.version.toString(), "1.1.0");
        EXPECT_EQ(capture.texts(QtDebugMsg), QStringList{"Migrating OsImage Pixel of device Android from 1.0.0 to 1.1.0"});
    } else {
        EXPECT_EQ(image.version.toString(), GetParam().format.toString());
        EXPECT_TRUE(capture.lines().isEmpty());
    }
}

INSTANTIATE_TEST_SUITE_P(
    Records, OsImageMigration,
    ::testing::Values(MigrationCase{"android10", {1, 0, 0}, {10, 0, 0}, "", true, "x86"},
                      MigrationCase{"android11", {1, 0, 0}, {11, 0, 0}, "", true, "x86_64"},
                      MigrationCase{"android11Beta", {1, 0, 0}, VersionNumber(11, 0, 0, VersionNumber::Beta, 1), "",
                                    true, "x86"},
                      MigrationCase{"keepsArch", {1, 0, 0}, {12, 0, 0}, "arm", true, "arm"},
                      MigrationCase{"alreadyCurrent", {1, 1, 0}, {10, 0, 0}, "", false, ""},
                      MigrationCase{"build1", VersionNumber(1, 0, 0, VersionNumber::Release, 1), {10, 0}, "", false, ""},
                      MigrationCase{"beta", VersionNumber(1, 0, 0, VersionNumber::Beta, 0), {10, 0}, "", false, ""}),
    [](const auto &info) { return std::string(info.param.name); });

} // namespace
