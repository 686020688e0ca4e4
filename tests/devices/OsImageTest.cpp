#include "DeviceTestData.h"
#include "OsImage.h"
#include "OsImageBuilder.h"
#include "Paths.h"

#include <QDir>
#include <QTemporaryDir>
#include <QUuid>

#include <gtest/gtest.h>

namespace {

const QString VendorBase = "https://images.example.test/vendor";

TEST(OsImage, defaultIsInvalid)
{
    const OsImage image;
    EXPECT_FALSE(image.isValid());
    EXPECT_EQ(image.getOsVersion(), "-1.0.0");
    EXPECT_EQ(image.getImageVersion(), "-1.0.0");
    EXPECT_EQ(image.getSize(), 0);
    EXPECT_TRUE(image.isOfficial());
}

TEST(OsImage, builderMakesAValidPlaceholder)
{
    const OsImageBuilder image;
    EXPECT_TRUE(image.isValid());
    EXPECT_FALSE(QUuid(image.uuid).isNull());
    EXPECT_TRUE(image.uuid.startsWith('{'));
    EXPECT_EQ(image.getSize(), 1);
    EXPECT_EQ(image.imageHash, "imageHash");
    EXPECT_EQ(image.supportedFormFactors, QSet<HwProfile::FormFactor>{HwProfile::FormFactor::PHONE});
    EXPECT_TRUE(image.imageUri.startsWith("https://"));
    EXPECT_TRUE(image.imageUri.endsWith("/image.ova"));
    EXPECT_EQ(image.getReleaseDate(), QDateTime(QDate(2021, 2, 2), QTime(0, 0), Qt::UTC));
    EXPECT_NE(OsImageBuilder().uuid, OsImageBuilder().uuid);
}

struct ValidityCase {
    const char *name;
    void (*change)(OsImage &);
};

class OsImageValidity : public ::testing::TestWithParam<ValidityCase>
{
};

TEST_P(OsImageValidity, eachConditionAloneMakesTheImageInvalid)
{
    OsImage image = OsImageBuilder();
    GetParam().change(image);
    EXPECT_FALSE(image.isValid());
}

INSTANTIATE_TEST_SUITE_P(
    Conditions, OsImageValidity,
    ::testing::Values(ValidityCase{"invalidUrl", [](OsImage &i) { i.imageUri = "http://[::1"; }},
                      ValidityCase{"noFormFactor", [](OsImage &i) { i.supportedFormFactors.clear(); }},
                      ValidityCase{"ftpScheme", [](OsImage &i) { i.imageUri = "ftp://host/x.ova"; }},
                      ValidityCase{"noScheme", [](OsImage &i) { i.imageUri = "x.ova"; }},
                      ValidityCase{"zeroSize", [](OsImage &i) { i.imageSizeBytes = 0; }},
                      ValidityCase{"negativeSize", [](OsImage &i) { i.imageSizeBytes = -5; }},
                      ValidityCase{"noHash", [](OsImage &i) { i.imageHash.clear(); }}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(OsImage, acceptsFileHttpAndHttpsAddressesAndIgnoresTheUuid)
{
    OsImage image = OsImageBuilder();
    image.uuid.clear();
    for (const char *uri : {"file:///tmp/a.ova", "http://host/a.ova", "https://host/a.ova", "{{VENDOR}}/a.ova"}) {
        image.imageUri = uri;
        EXPECT_TRUE(image.isValid()) << uri;
    }
}

TEST(OsImage, formatedUriPutsInTheVendorAddress)
{
    OsImage image;
    image.imageUri = "{{VENDOR}}/dists/9.0/ova/android.ova";
    EXPECT_EQ(image.getFormatedUri(), VendorBase + "/dists/9.0/ova/android.ova");
    image.imageUri = "https://elsewhere.test/{{VENDOR}}/{{VENDOR}}";
    EXPECT_EQ(image.getFormatedUri(), "https://elsewhere.test/" + VendorBase + "/" + VendorBase);
    image.imageUri = "{{vendor}}/x.ova";
    EXPECT_EQ(image.getFormatedUri(), "{{vendor}}/x.ova");
}

TEST(OsImage, localPathOfAFileUrlIsTheFileItself)
{
    QTemporaryDir temp;
    OsImage image = OsImageBuilder();
    image.imageUri = QUrl::fromLocalFile(temp.path() + "/mine.ova").toString();
    EXPECT_EQ(image.getLocalPath(), temp.path() + "/mine.ova");
    EXPECT_FALSE(image.isImageAvailableLocally());
    devtest::writeFile(temp.path(), "mine.ova", "ova");
    EXPECT_TRUE(image.isImageAvailableLocally());
}

TEST(OsImage, localPathOfARemoteUrlIsInTheOvaDirectory)
{
    OsImage image = OsImageBuilder();
    image.imageUri = "{{VENDOR}}/dists/9.0/ova/android-9.ova";
    const QString expected = QDir(Paths::getOvaPath()).absoluteFilePath("android-9.ova");
    EXPECT_EQ(image.getLocalPath(), expected);
    EXPECT_FALSE(image.isImageAvailableLocally());
    ASSERT_TRUE(QDir().mkpath(Paths::getOvaPath()));
    devtest::writeFile(Paths::getOvaPath(), "android-9.ova", "ova");
    EXPECT_TRUE(image.isImageAvailableLocally());
}

struct VersionQueryCase {
    VersionNumber os;
    bool roundedCorners;
    bool legacyNetwork;
};

class OsImageVersionQueries : public ::testing::TestWithParam<VersionQueryCase>
{
};

TEST_P(OsImageVersionQueries, followTheAndroidRelease)
{
    OsImage image;
    image.osVersion = GetParam().os;
    EXPECT_EQ(image.isRoundedCornerSupported(), GetParam().roundedCorners);
    EXPECT_EQ(image.isLegacyNetworkProfile(), GetParam().legacyNetwork);
}

INSTANTIATE_TEST_SUITE_P(Releases, OsImageVersionQueries,
                         ::testing::Values(VersionQueryCase{{6, 0}, false, true}, VersionQueryCase{{7, 1}, false, true},
                                           VersionQueryCase{{7, 2}, false, true}, VersionQueryCase{{7, 3}, false, false},
                                           VersionQueryCase{{8, 1}, false, false}, VersionQueryCase{{9, 0}, true, false},
                                           VersionQueryCase{{9, -1}, false, false},
                                           VersionQueryCase{{11, -3}, true, false}));

TEST(OsImage, equalityLeavesOutFormatVersionSdkAndBeta)
{
    const OsImage a = OsImageBuilder();
    OsImage b = a;
    b.version = {1, 0};
    b.sdkVersion = 99;
    b.beta = true;
    EXPECT_EQ(a, b);

    b = a;
    b.imageVersion.build = 1;
    EXPECT_NE(a, b);
    b = a;
    b.osVersion.patchStatus = VersionNumber::Beta;
    EXPECT_NE(a, b);
    b = a;
    b.supportedFormFactors.insert(HwProfile::FormFactor::TV);
    EXPECT_NE(a, b);
    b = a;
    b.arch = "x86";
    EXPECT_NE(a, b);
    b = a;
    b.buildDate = b.buildDate.addSecs(1);
    EXPECT_NE(a, b);
}

TEST(OsImage, printsReadably)
{
    OsImage image;
    image.uuid = "u-1";
    image.name = "Android 10";
    EXPECT_EQ(::testing::PrintToString(image), "OsImage(uuid=u-1 name=Android 10");
}

} // namespace
