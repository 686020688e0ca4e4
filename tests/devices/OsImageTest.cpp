#include "DeviceTestData.h"
#include "MessageCapture.h"
#include "OsImageBuilder.h"
#include "OsImageChecksum.h"
#include "OsImageIO.h"
#include "Paths.h"
#include "TestEnvironment.h"
#include "TestFiles.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QUuid>

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>

using devtest::imageJson;
using devtest::with;
using devtest::without;
using hvtest::MessageCapture;

namespace {

const QString VendorBase = "https://images.example.test/vendor";

// A kept checksum stands only for the file it was computed from: an archive
// replaced by another of the same size and time is hashed again, and a
// vanished one keeps its last checksum.
TEST(OsImageChecksum, aReplacedArchiveIsHashedAgain)
{
    const QString path = hvtest::testRoot() + "/checksum.ova";
    const auto sha = [](const QByteArray &data) {
        return QString::fromLatin1(QCryptographicHash::hash(data, QCryptographicHash::Sha256).toHex());
    };
    const auto write = [](const QString &file, const QByteArray &data) {
        QFile out(file);
        return out.open(QIODevice::WriteOnly) && out.write(data) == data.size() && out.flush()
            && out.setFileTime(QDateTime::fromSecsSinceEpoch(1700000000), QFileDevice::FileModificationTime);
    };
    ASSERT_TRUE(write(path, "first"));
    EXPECT_EQ(OsImageChecksum::get(path), sha("first"));
    ASSERT_TRUE(write(path + ".new", "other"));
    ASSERT_EQ(std::rename(QFile::encodeName(path + ".new").constData(), QFile::encodeName(path).constData()), 0);
    EXPECT_EQ(OsImageChecksum::get(path), sha("other"));
    ASSERT_TRUE(QFile::remove(path));
    EXPECT_EQ(OsImageChecksum::lastKnown(path), sha("other"));
    EXPECT_EQ(OsImageChecksum::get(path), QString());
}

TEST(OsImage, builderMakesAValidPlaceholder)
{
    const OsImageBuilder image;
    EXPECT_TRUE(image.isValid());
    EXPECT_FALSE(OsImage().isValid());
    EXPECT_TRUE(image.uuid.startsWith('{') && !QUuid(image.uuid).isNull());
    EXPECT_NE(OsImageBuilder().uuid, OsImageBuilder().uuid);
    EXPECT_TRUE(image.imageUri.startsWith("https://") && image.imageUri.endsWith("/image.ova"));
    EXPECT_EQ(image.getReleaseDate(), QDateTime(QDate(2021, 2, 2), QTime(0, 0), Qt::UTC));
    EXPECT_EQ(::testing::PrintToString(OsImage(image)), "OsImage(uuid=" + image.uuid.toStdString() + " name=");
}

TEST(OsImage, validityNeedsEachCondition)
{
    const std::function<void(OsImage &)> breaks[] = {
        [](OsImage &i) { i.imageUri = "http://[::1"; },       [](OsImage &i) { i.supportedFormFactors.clear(); },
        [](OsImage &i) { i.imageUri = "ftp://host/x.ova"; },  [](OsImage &i) { i.imageUri = "x.ova"; },
        [](OsImage &i) { i.imageSizeBytes = 0; },             [](OsImage &i) { i.imageSizeBytes = -5; },
        [](OsImage &i) { i.imageHash.clear(); }};
    for (size_t row = 0; row < std::size(breaks); ++row) {
        OsImage image = OsImageBuilder();
        breaks[row](image);
        EXPECT_FALSE(image.isValid()) << "row " << row;
    }
    OsImage image = OsImageBuilder();
    image.uuid.clear();
    for (const char *uri : {"file:///tmp/a.ova", "http://host/a.ova", "https://host/a.ova", "{{VENDOR}}/a.ova"}) {
        image.imageUri = uri;
        EXPECT_TRUE(image.isValid()) << uri;
    }
}

TEST(OsImage, addressesAndLocalPaths)
{
    OsImage image = OsImageBuilder();
    image.imageUri = "https://elsewhere.test/{{VENDOR}}/{{VENDOR}}";
    EXPECT_EQ(image.getFormatedUri(), "https://elsewhere.test/" + VendorBase + "/" + VendorBase);
    image.imageUri = "{{vendor}}/x.ova";
    EXPECT_EQ(image.getFormatedUri(), "{{vendor}}/x.ova");

    // A remote image lives in the OVA directory, a file URL is the file itself.
    image.imageUri = "{{VENDOR}}/dists/9.0/ova/android-9.ova";
    EXPECT_EQ(image.getFormatedUri(), VendorBase + "/dists/9.0/ova/android-9.ova");
    EXPECT_EQ(image.getLocalPath(), QDir(Paths::getOvaPath()).absoluteFilePath("android-9.ova"));
    EXPECT_FALSE(image.isImageAvailableLocally());
    ASSERT_TRUE(QDir().mkpath(Paths::getOvaPath()));
    devtest::writeFile(Paths::getOvaPath(), "android-9.ova", "ova");
    EXPECT_TRUE(image.isImageAvailableLocally());

    QTemporaryDir temp;
    image.imageUri = QUrl::fromLocalFile(temp.path() + "/mine.ova").toString();
    EXPECT_EQ(image.getLocalPath(), temp.path() + "/mine.ova");
    EXPECT_FALSE(image.isImageAvailableLocally());
    devtest::writeFile(temp.path(), "mine.ova", "ova");
    EXPECT_TRUE(image.isImageAvailableLocally());
}

TEST(OsImage, versionQueriesFollowTheAndroidRelease)
{
    struct Row {
        VersionNumber os;
        bool roundedCorners;
        bool legacyNetwork;
    };
    for (const Row &row : {Row{{6, 0}, false, true}, Row{{7, 2}, false, true}, Row{{7, 3}, false, false},
                           Row{{8, 1}, false, false}, Row{{9, 0}, true, false}, Row{{9, -1}, false, false},
                           Row{{11, -3}, true, false}}) {
        OsImage image;
        image.osVersion = row.os;
        EXPECT_EQ(image.isRoundedCornerSupported(), row.roundedCorners) << row.os.toString().toStdString();
        EXPECT_EQ(image.isLegacyNetworkProfile(), row.legacyNetwork) << row.os.toString().toStdString();
    }
}

TEST(OsImage, equalityLeavesOutFormatVersionSdkAndBeta)
{
    const OsImage a = OsImageBuilder();
    OsImage b = a;
    b.version = {1, 0};
    b.sdkVersion = 99;
    b.beta = true;
    EXPECT_EQ(a, b);
    const std::function<void(OsImage &)> changes[] = {
        [](OsImage &i) { i.imageVersion.build = 1; }, [](OsImage &i) { i.osVersion.patchStatus = VersionNumber::Beta; },
        [](OsImage &i) { i.supportedFormFactors.insert(HwProfile::FormFactor::TV); },
        [](OsImage &i) { i.arch = "x86"; }, [](OsImage &i) { i.buildDate = i.buildDate.addSecs(1); }};
    for (const auto &change : changes) {
        b = a;
        change(b);
        EXPECT_NE(a, b);
    }
}

TEST(OsImage, ordersBySourceLabelThenOsVersionThenImageVersionText)
{
    OsImage vendor = OsImageBuilder();
    vendor.osVersion = {9, 0};
    vendor.imageVersion = {9, 0};
    OsImage shared = vendor;
    shared.source = HwProfile::Source::SHARED;
    OsImage user = vendor;
    user.source = HwProfile::Source::USER;
    OsImage unknown = vendor;
    unknown.source = HwProfile::Source(HwProfile::UnknownEnumValue);
    OsImage newerOs = vendor;
    newerOs.osVersion = {10, 0};
    newerOs.imageVersion = {1, 0};
    // Equal OS versions: "10.0.0" sorts before "9.0.0" as text.
    OsImage imageTen = vendor;
    imageTen.imageVersion = {10, 0};
    EXPECT_TRUE(vendor < shared && shared < user && user > vendor);
    EXPECT_FALSE(vendor < unknown || unknown < vendor);
    EXPECT_TRUE(vendor < newerOs && imageTen < vendor && vendor > imageTen);
}

// ---------------------------------------------------------------------------
// The JSON record.

TEST(OsImageIO, roundTripOfEverySource)
{
    OsImage image = OsImageBuilder();
    image.name = "Android 11";
    image.osVersion = {11, 0, 0};
    image.imageVersion = VersionNumber(4, 2, 1, VersionNumber::ReleaseCandidate, 2);
    image.arch = "x86_64";
    image.sdkVersion = 30;
    image.beta = true;
    image.imageSizeBytes = 5LL * 1024 * 1024 * 1024; // real images are larger than 2 GiB
    image.supportedFormFactors = {HwProfile::FormFactor::PHONE, HwProfile::FormFactor::CAR};
    image.imageUri = "{{VENDOR}}/dists/11.0/ova/android-11.ova";
    image.buildDate = QDateTime(QDate(2022, 3, 4), QTime(5, 6, 7), Qt::OffsetFromUTC, 3600);
    MessageCapture capture;
    for (int source : {0, 1, 2, HwProfile::UnknownEnumValue}) {
        image.source = HwProfile::Source(source);
        const QByteArray text = QJsonDocument(OsImageIO::toJsonObject(image)).toJson();
        const OsImage loaded = OsImageIO::load(QJsonDocument::fromJson(text).object());
        EXPECT_EQ(loaded, image);
        EXPECT_EQ(loaded.getSize(), 5368709120);
        EXPECT_EQ(loaded.version.toString(), "1.1.0");
        EXPECT_EQ(loaded.sdkVersion, 30);
        EXPECT_TRUE(loaded.isBeta());
    }
    EXPECT_TRUE(capture.noneAtOrAbove(QtWarningMsg));
}

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
    EXPECT_EQ(json["os_version"].toObject(),
              QJsonObject({{"os_version", "10.0.0"}, {"sdk_version", 29}, {"uuid", ""}, {"name", ""},
                           {"os_type", ""}, {"code_name", ""}, {"build_date", ""}}));
}

// One row per record that loads or is refused, with the warnings logged.
// A record refused for its fields is logged itself first (Record), then one
// warning per error.
const QString Record = "<the record>";

struct LoadCase {
    const char *name;
    QJsonObject json;
    bool refused;
    QStringList warnings;
};

class OsImageLoad : public ::testing::TestWithParam<LoadCase> {};

TEST_P(OsImageLoad, givesTheExactWarnings)
{
    MessageCapture capture;
    const OsImage image = OsImageIO::load(GetParam().json);
    QStringList warnings = capture.texts(QtWarningMsg);
    QStringList expected = GetParam().warnings;
    if (expected.value(0) == Record) {
        ASSERT_FALSE(warnings.isEmpty());
        EXPECT_EQ(QJsonDocument::fromJson(warnings.takeFirst().toUtf8()).object(), GetParam().json);
        expected.removeFirst();
    }
    EXPECT_EQ(warnings, expected);
    EXPECT_EQ(image == OsImage(), GetParam().refused);
    EXPECT_EQ(image.name, GetParam().refused ? "" : "Android 9.0");
}

const QString BadSize = "Invalid image_size_bytes of os image \"{0b5f8f2e-7f41-4a36-9d39-4f5b3c0d9e10}\" : %1 is "
                        "not a whole number of bytes";

INSTANTIATE_TEST_SUITE_P(
    Records, OsImageLoad,
    ::testing::Values(
        LoadCase{"negativeSize", with(imageJson(), "image_size_bytes", -1), false, {BadSize.arg("-1")}},
        LoadCase{"fractionalSize", with(imageJson(), "image_size_bytes", 1.5), false, {BadSize.arg("1.5")}},
        LoadCase{"sizeBeyondExactIntegers", with(imageJson(), "image_size_bytes", 18014398509481984.0), false,
                 {BadSize.arg("1.80144e+16")}},
        LoadCase{"hugeSize", with(imageJson(), "image_size_bytes", 1e300), false, {BadSize.arg("1e+300")}},
        LoadCase{"format100WithoutArch", with(without(imageJson(), "arch"), "version", "1.0.0"), false, {}},
        LoadCase{"format110WithoutArch", without(imageJson(), "arch"), true,
                 {Record, "Error in field \"arch is missing.\""}},
        LoadCase{"dateWithNul", with(imageJson(), "build_date", QString("2021-02-02") + QChar(0) + "T00:00Z"), true,
                 {Record, "Error in field \"build_date field does not respect datetime ISO format.\""}},
        LoadCase{"formatMissing", without(imageJson(), "version"), true,
                 {"Unsupported os image: version= \"0.0.0\" , expected \"1.1.0\""}},
        LoadCase{"formatTwo", with(imageJson(), "version", "2.0.0"), true,
                 {"Unsupported os image: version= \"2.0.0\" , expected \"1.1.0\""}},
        LoadCase{"formatZero", with(imageJson(), "version", "0.5"), false, {}},
        LoadCase{"formatLater1x", with(imageJson(), "version", "1.9.9"), false, {}},
        LoadCase{"unknownFormFactors", with(imageJson(), "supported_form_factors", QJsonArray{"PHONE", "FOO", 3}),
                 false, {}},
        LoadCase{"unknownSource", with(imageJson(), "source", "Vendor"), false, {}},
        LoadCase{"manyErrors",
                 with(with(with(without(imageJson(), "name"), "build_date", "yesterday"), "os_version/sdk_version",
                           "28"),
                      "image_hash", QJsonArray()),
                 true,
                 {Record, "Error in field \"name is missing.\"",
                  "Error in field \"build_date field does not respect datetime ISO format.\"",
                  "Error in field \"os_version.sdk_version is not the right type. Expected 2, got 3\"",
                  "Error in field \"image_hash is not the right type. Expected 3, got 4\""}}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(OsImageIO, readValuesOfOddRecords)
{
    EXPECT_EQ(OsImageIO::load(with(imageJson(), "version", "0.5")).version.toString(), "0.5.0");
    EXPECT_EQ(OsImageIO::load(without(with(imageJson(), "version", "1.0.0"), "arch")).getImageArch(), "");
    EXPECT_EQ(OsImageIO::load(with(imageJson(), "image_size_bytes", -1)).getSize(), 0);
    const OsImage sentinel = OsImageIO::load(with(imageJson(), "source", "Vendor"));
    EXPECT_EQ(int(sentinel.source), -1234);
    EXPECT_EQ(sentinel.getSource(), "Halvistrom");
    const auto formFactors = [](const QJsonArray &names) {
        return OsImageIO::load(with(imageJson(), "supported_form_factors", names));
    };
    EXPECT_EQ(formFactors({"PHONE", "FOO", 3}).supportedFormFactors,
              QSet<HwProfile::FormFactor>{HwProfile::FormFactor::PHONE});
    EXPECT_FALSE(formFactors({}).uuid.isEmpty());
    EXPECT_FALSE(formFactors({}).isValid());
}

TEST(OsImageIO, bareVendorFileNamesMoveUnderTheVendorAddress)
{
    const struct {
        const char *source;
        const char *osVersion;
        const char *uri;
        const char *expected;
    } rows[] = {{"VENDOR", "9.0.0", "x.ova", "{{VENDOR}}/dists/9.0/ova/x.ova"},
                {"VENDOR", "8.0.0", "a.ova", "{{VENDOR}}/dists/8.0/ova/a.ova"},
                {"VENDOR", "11.0.3", "a.ova", "{{VENDOR}}/dists/11.0/ova/a.ova"},
                {"VENDOR", "7.1.0", "a.ova", "{{VENDOR}}/dists/7.1.0/ova/a.ova"},
                {"VENDOR", "8.0.0-beta1", "a.ova", "{{VENDOR}}/dists/8.0.0-beta1/ova/a.ova"},
                {"VENDOR", "9.0", "%1%2.ova", "{{VENDOR}}/dists/9.0/ova/%1%2.ova"},
                {"VENDOR", "9.0", "{{vendor}}/x.ova", "{{VENDOR}}/dists/9.0/ova/{{vendor}}/x.ova"},
                {"VENDOR", "9.0", "ftp://h/x.ova", "{{VENDOR}}/dists/9.0/ova/ftp://h/x.ova"},
                {"VENDOR", "9.0", "https://h/x.ova", "https://h/x.ova"},
                {"VENDOR", "9.0", "http://h/x.ova", "http://h/x.ova"},
                {"VENDOR", "9.0", "file:///x.ova", "file:///x.ova"},
                {"VENDOR", "9.0", "{{VENDOR}}/x.ova", "{{VENDOR}}/x.ova"},
                {"SHARED", "9.0", "x.ova", "x.ova"},
                {"USER", "9.0", "x.ova", "x.ova"}};
    for (const auto &row : rows) {
        QJsonObject json = with(with(imageJson(), "source", row.source), "os_version/os_version", row.osVersion);
        const OsImage image = OsImageIO::load(with(json, "image_uri", row.uri));
        EXPECT_EQ(image.imageUri, row.expected) << row.source << " " << row.osVersion << " " << row.uri;
        // Only the vendor's rewritten names gain an accepted scheme.
        if (QString(row.uri) == "x.ova") {
            EXPECT_EQ(image.isValid(), QString(row.source) == "VENDOR") << row.source;
        }
    }
}

TEST(OsImageIO, filesAndDirectoriesTakeTheSourceGiven)
{
    QTemporaryDir temp;
    const auto write = [&](const QString &name, const QJsonObject &json) {
        return devtest::writeFile(temp.path(), name, QJsonDocument(json).toJson());
    };
    const QString path = write("1-good.json", with(imageJson(), "uuid", "one"));
    EXPECT_EQ(OsImageIO::loadFromFile(path, HwProfile::Source::SHARED).source, HwProfile::Source::SHARED);
    const QString broken = devtest::writeFile(temp.path(), "2-broken.json", "{ not json");
    const QString invalid = write("3-invalid.json", with(imageJson(), "image_hash", ""));
    write("4-good.json", without(with(imageJson(), "uuid", "four"), "source"));
    write("ignored.txt", imageJson());

    MessageCapture capture;
    const QList<OsImage> images = OsImageIO::loadFromDirectory(temp.path());
    ASSERT_EQ(images.size(), 2);
    EXPECT_EQ(images[0].uuid, "one");
    EXPECT_EQ(images[1].uuid, "four");
    EXPECT_EQ(images[1].source, HwProfile::Source::USER);
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

TEST(OsImageIO, migrationBringsFormat100To110)
{
    struct Row {
        VersionNumber format;
        VersionNumber os;
        const char *archBefore;
        bool migrated;
        const char *archAfter;
    };
    const Row rows[] = {{{1, 0, 0}, {10, 0, 0}, "", true, "x86"},
                        {{1, 0, 0}, {11, 0, 0}, "", true, "x86_64"},
                        {{1, 0, 0}, VersionNumber(11, 0, 0, VersionNumber::Beta, 1), "", true, "x86"},
                        {{1, 0, 0}, {12, 0, 0}, "arm", true, "arm"},
                        {{1, 1, 0}, {10, 0, 0}, "", false, ""},
                        {VersionNumber(1, 0, 0, VersionNumber::Release, 1), {10, 0}, "", false, ""},
                        {VersionNumber(1, 0, 0, VersionNumber::Beta, 0), {10, 0}, "", false, ""}};
    for (const Row &row : rows) {
        SCOPED_TRACE(row.os.toString().toStdString() + " format " + row.format.toString().toStdString());
        OsImage image = OsImageBuilder();
        image.name = "Android";
        image.version = row.format;
        image.osVersion = row.os;
        image.arch = row.archBefore;
        MessageCapture capture;
        EXPECT_EQ(OsImageIO::migrateV1_0ToV1_1("Pixel", &image), row.migrated);
        EXPECT_EQ(image.arch, row.archAfter);
        EXPECT_EQ(image.version.toString(), row.migrated ? "1.1.0" : row.format.toString());
        EXPECT_EQ(capture.texts(QtDebugMsg),
                  row.migrated ? QStringList{"Migrating OsImage Pixel of device Android from 1.0.0 to 1.1.0"}
                               : QStringList());
    }
}

} // namespace
