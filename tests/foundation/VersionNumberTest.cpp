#include "VersionNumber.h"
#include "VersionUtils.h"

#include "MessageCapture.h"

#include <QDebug>

#include <gtest/gtest.h>

using hvtest::MessageCapture;
using V = VersionNumber;

namespace {

TEST(VersionNumber, parsesAndPrintsBack)
{
    const struct {
        const char *text;
        V expected;
        const char *printed;
    } cases[] = {
        {"3.8.0", V(3, 8, 0), "3.8.0"}, {"3.8.0.7", V(3, 8, 0, V::Release, 7), "3.8.0.7"},
        {"3.8.0.0", V(3, 8, 0), "3.8.0"}, {"3.8", V(3, 8, 0), "3.8.0"},
        {"1.2.3-rc2", V(1, 2, 3, V::ReleaseCandidate, 2), "1.2.3-rc2"},
        {"1.2.3-alpha", V(1, 2, 3, V::Alpha, 0), "1.2.3-alpha0"},
        {"3.8.0-beta12", V(3, 8, 0, V::Beta, 12), "3.8.0-beta12"},
        {"3.8.0-beta12x", V(3, 8, 0, V::Beta, 0), "3.8.0-beta0"},
        {"1.2.3.4.5", V(1, 2, 3, V::Release, 4), "1.2.3.4"}, {"", V(0, 0, 0), "0.0.0"}, {"abc", V(), "0.0.0"},
        {"1.x.3", V(1, 0, 3), "1.0.3"}, {"2.0-beta1-alpha3", V(2, 0, 0, V::Alpha, 3), "2.0.0-alpha3"},
        {"2.0-alpha1-beta3", V(2, 0, 0, V::Alpha, 0), "2.0.0-alpha0"}, {"-1", V(-1, 0, 0), "-1.0.0"},
        {"7.1.2-RC1", V(7, 1, 0), "7.1.0"},
    };
    for (const auto &c : cases) {
        const V parsed = V::fromString(c.text);
        EXPECT_EQ(parsed, c.expected) << c.text;
        EXPECT_EQ(parsed.toString(), c.printed) << c.text;
    }
    MessageCapture capture;
    EXPECT_EQ(V(1, 2, 3, V::Unknown, 5).toString(), "1.2.3-unknown");
    EXPECT_TRUE(capture.has(QtCriticalMsg, "Unknown patch status."));
    EXPECT_EQ(V::fromString("11.0.4-rc1").toMajorMinorString(), "11.0");
    EXPECT_EQ(VersionUtils::getMajorMinor("8.1.0"), "8.1");
}

TEST(VersionNumber, ordersByComponentsThenStagePlusBuild)
{
    const std::pair<const char *, const char *> pairs[] = {
        {"3.8.0-beta2", "3.8.0-rc1"}, {"3.8.0-rc1", "3.8.0"},       {"3.8.0", "3.8.0.5"},
        {"3.8.0-rc1", "3.8.0-beta120"}, {"3.8.0-alpha99", "3.8.0-beta0"}, {"3.7.99", "3.8.0-alpha1"},
        {"2.9.9", "3.0"}, {"10.0", "11.0"},
    };
    for (const auto &[lower, higher] : pairs) {
        const V a = V::fromString(lower), b = V::fromString(higher);
        EXPECT_TRUE(a < b && a <= b && b > a && b >= a && a != b && !(b < a)) << lower << " < " << higher;
        EXPECT_EQ(V::compare(a, b), -1);
        EXPECT_EQ(V::compare(b, a), 1);
    }
    // -100 + 100 == 0 + 0: the same place in the order, yet different values.
    const V rc100(1, 0, 0, V::ReleaseCandidate, 100), release(1, 0, 0);
    EXPECT_EQ(V::compare(rc100, release), 0);
    EXPECT_NE(rc100, release);
    EXPECT_LT(V(1, 0, 0, V::Alpha, INT_MIN), V(1, 0, 0, V::Release, INT_MAX)) << "no overflow";
}

TEST(VersionNumber, debugStreamQuotesWithoutInnerSpace)
{
    QString out, nospace;
    QDebug(&out) << "v" << V(3, 8, 0, V::Beta, 2) << "end";
    EXPECT_EQ(out, "v \"3.8.0-beta2\" end ");
    QDebug(&nospace).nospace() << "a" << V(1, 2, 3) << "b";
    EXPECT_EQ(nospace, "a\"1.2.3\"b");
}

TEST(VersionUtils, comparesVersions)
{
    const struct {
        const char *a, *b;
        int depth, expected;
    } names[] = {{"3.8.1", "3.8.0", 2, 0},     {"3.8.1", "3.8.0", 3, 1},     {"3.9.0", "3.8.5", 1, 0},
                 {"4.0", "3.9", 1, 1},         {"3.7.9", "3.8.0", 2, -1},    {"3.8.0-rc1", "3.8.0", 3, -1},
                 {"3.8.0-rc1", "3.8.0", 0, -1}, {"3.8.0-rc1", "3.8.0", 2, 0}, {"2.1", "10.0", 1, -1}};
    for (const auto &c : names)
        EXPECT_EQ(VersionUtils::compareVersionName(c.a, c.b, c.depth), c.expected) << c.a << " " << c.b << c.depth;

    const std::pair<V, int> supported[] = {{V(2, 99, 0), -1}, {V(3, -1, 0), -1}, {V(3, 0, 9), 0}, {V(3, 1, 0), 1}};
    for (const auto &[version, expected] : supported)
        EXPECT_EQ(VersionUtils::compareToSupportedSystemVersion(version), expected) << version;

    const std::pair<const char *, const char *> friendly[] = {
        {"3.8.90", "3.8.90"}, {"3.8.91", "3.9.0-beta1"}, {"3.8.0.92", "3.8.1-beta2"},
        {"3.8.95.93", "3.8.96-beta3"}, {"3.8.0.90", "3.8.0.90"}};
    for (const auto &[version, expected] : friendly)
        EXPECT_EQ(VersionUtils::getUserFriendlyVersion(V::fromString(version)), expected) << version;
}

TEST(VersionUtils, androidVersionToApi)
{
    // Every row of the table at its edges; 0 with a critical line below 2.3,
    // the next level with a warning past the table.
    const std::pair<V, int> cases[] = {
        {V(2, 3, 0), 9},  {V(2, 3, 2), 9},   {V(2, 3, 3), 10}, {V(3, 2, 0), 13},  {V(4, 0, 2), 14},
        {V(4, 0, 3), 15}, {V(4, 1, 0), 16},  {V(4, 2, 2), 17}, {V(4, 3, 0), 18},  {V(4, 4, 4), 19},
        {V(5, 0, 0), 21}, {V(5, 1, 1), 22},  {V(6, 0, 0), 23}, {V(7, 0, 0), 24},  {V(7, 1, 2), 25},
        {V(8, 0, 0), 26}, {V(8, 1, 0), 27},  {V(9, 0, 0), 28}, {V(10, 0, 0), 29}, {V(11, 0, 0), 30},
        {V(12, 0, 0), 31}, {V(12, 1, 0), 32}, {V(13, 0, 0), 33}, {V(14, 0, 0), 34}, {V(15, 0, 0), 35},
        {V(2, 4, 0), 36}, {V(4, 5, 0), 36},  {V(5, 2, 0), 36}, {V(15, 1, 0), 36}, {V(16, 0, 0), 36},
        {V(1, 6, 0), 0},  {V(2, 2, 0), 0},   {V(2, 3, -1), 0}, {V(2, 3, 0, V::Beta, 5), 0},
        {V(2, 3, 0, V::ReleaseCandidate, 99), 0}, {V(2, 3, 0, V::ReleaseCandidate, 100), 9},
    };
    for (const auto &[version, api] : cases) {
        MessageCapture capture;
        EXPECT_EQ(VersionUtils::androidVersionToApi(version), api) << version;
        QList<hvtest::LogLine> expected;
        if (api == 0)
            expected = {{QtCriticalMsg, QStringLiteral("Invalid version \"%1\"").arg(version.toString())}};
        if (api == 36)
            expected = {{QtWarningMsg, QStringLiteral("Unknown Android version: \"%1\" . Assuming this version uses "
                                                      "the next API level.").arg(version.toString())}};
        EXPECT_EQ(capture.lines(), expected) << version;
    }
    EXPECT_EQ(VersionUtils::androidVersionToApi(QStringLiteral("2.3.0.1")), 9);
}

} // namespace
