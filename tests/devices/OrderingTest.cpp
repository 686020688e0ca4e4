#include "DeviceTestData.h"
#include "HwProfileBuilder.h"
#include "OsImageBuilder.h"

#include <QRandomGenerator>

#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>
#include <vector>

namespace {

// The orders as the product promises them, written out here independently of
// the library: sources by their names or labels, then names or versions.

QString profileSourceName(HwProfile::Source source)
{
    switch (int(source)) {
    case 0:
        return "vendor";
    case 1:
        return "shared";
    case 2:
        return "user";
    default:
        return "";
    }
}

bool profileBefore(const HwProfile &a, const HwProfile &b)
{
    const auto key = [](const HwProfile &p) {
        return std::make_tuple(profileSourceName(p.source),
                               (p.deviceProperties.productBrand + " " + p.deviceProperties.productModel).toLower());
    };
    return key(a) < key(b);
}

QString imageSourceLabel(HwProfile::Source source)
{
    switch (int(source)) {
    case 1:
        return "source.shared";
    case 2:
        return "source.user";
    default:
        return "halvistrom";
    }
}

bool imageBefore(const OsImage &a, const OsImage &b)
{
    const auto version = [](const VersionNumber &v) { return std::make_tuple(v.major, v.minor, v.patch); };
    const auto imageText = [](const VersionNumber &v) {
        return QString("%1.%2.%3").arg(v.major).arg(v.minor).arg(v.patch);
    };
    return std::make_tuple(imageSourceLabel(a.source), version(a.osVersion), imageText(a.imageVersion))
        < std::make_tuple(imageSourceLabel(b.source), version(b.osVersion), imageText(b.imageVersion));
}

TEST(Ordering, profilesBySourceNameThenLowerCaseName)
{
    HwProfileBuilder vendor("a");
    HwProfileBuilder shared("z");
    shared.source = HwProfile::Source::SHARED;
    HwProfileBuilder user("m");
    user.source = HwProfile::Source::USER;
    EXPECT_TRUE(shared < user);
    EXPECT_TRUE(user < vendor);
    EXPECT_TRUE(vendor > shared);

    HwProfileBuilder upper("Beta");
    HwProfileBuilder lower("alpha");
    EXPECT_TRUE(lower < upper);
    EXPECT_FALSE(upper < lower);
    HwProfileBuilder sameName("ALPHA");
    EXPECT_FALSE(lower < sameName);
    EXPECT_FALSE(sameName < lower);
}

TEST(Ordering, imagesBySourceLabelThenOsVersionThenImageVersionText)
{
    OsImage vendor = OsImageBuilder();
    OsImage shared = OsImageBuilder();
    shared.source = HwProfile::Source::SHARED;
    OsImage user = OsImageBuilder();
    user.source = HwProfile::Source::USER;
    EXPECT_TRUE(vendor < shared);
    EXPECT_TRUE(shared < user);
    EXPECT_TRUE(user > vendor);

    OsImage older = OsImageBuilder();
    older.osVersion = {9, 0};
    older.imageVersion = {9, 0};
    OsImage newer = older;
    newer.osVersion = {10, 0};
    newer.imageVersion = {1, 0};
    EXPECT_TRUE(older < newer);

    // Equal OS versions: the image versions compare as text.
    OsImage ten = older;
    ten.imageVersion = {10, 0};
    EXPECT_TRUE(ten < older);
    EXPECT_TRUE(older > ten);
}

TEST(Ordering, sortedRandomListsFollowTheRules)
{
    QRandomGenerator random(20240);
    const QStringList words = {"Alpha", "beta", "Gamma", "delta", "ALPHA", "zeta", "Eta"};
    const int sources[] = {0, 1, 2, HwProfile::UnknownEnumValue};

    std::vector<HwProfile> profiles;
    std::vector<OsImage> images;
    for (int i = 0; i < 1000; ++i) {
        HwProfileBuilder profile(words[random.bounded(words.size())]);
        profile.deviceProperties.productBrand = words[random.bounded(words.size())];
        profile.source = HwProfile::Source(sources[random.bounded(4)]);
        profiles.push_back(profile);

        OsImage image = OsImageBuilder();
        image.source = HwProfile::Source(sources[random.bounded(4)]);
        image.osVersion = {int(random.bounded(5, 13)), int(random.bounded(2)), int(random.bounded(2))};
        image.imageVersion = {int(random.bounded(12)), int(random.bounded(12)), int(random.bounded(3))};
        images.push_back(image);
    }
    std::sort(profiles.begin(), profiles.end());
    std::sort(images.begin(), images.end());
    for (size_t i = 1; i < profiles.size(); ++i)
        ASSERT_FALSE(profileBefore(profiles[i], profiles[i - 1])) << i;
    for (size_t i = 1; i < images.size(); ++i)
        ASSERT_FALSE(imageBefore(images[i], images[i - 1])) << i;
    std::sort(profiles.begin(), profiles.end(), [](const HwProfile &a, const HwProfile &b) { return a > b; });
    for (size_t i = 1; i < profiles.size(); ++i)
        ASSERT_FALSE(profileBefore(profiles[i - 1], profiles[i])) << i;
}

} // namespace
