#include "VersionNumber.h"
#include "VersionUtils.h"

#include "MessageCapture.h"

#include <QDebug>

#include <gtest/gtest.h>

#include <sstream>

using hvtest::MessageCapture;

namespace {

struct ParseCase {
    const char *text;
    VersionNumber expected;
    const char *printed;
};

void PrintTo(const ParseCase &c, std::ostream *os)
{
    *os << '"' << c.text << '"';
}

class VersionParsing : public ::testing::TestWithParam<ParseCase>
{
};

TEST_P(VersionParsing, parsesAndPrintsBack)
{
    const ParseCase &c = GetParam();
    const VersionNumber parsed = VersionNumber::fromString(QString::fromUtf8(c.text));
    EXPECT_EQ(parsed.major, c.expected.major);
    EXPECT_EQ(parsed.minor, c.expected.minor);
    EXPECT_EQ(parsed.patch, c.expected.patch);
    EXPECT_EQ(parsed.patchStatus, c.expected.patchStatus);
    EXPECT_EQ(parsed.build, c.expected.build);
    EXPECT_EQ(parsed.toString().toStdString(), c.printed);
}

using V = VersionNumber;
INSTANTIATE_TEST_SUITE_P(
    Grammar, VersionParsing,
    ::testing::Values(ParseCase{"3.8.0", V(3, 8, 0), "3.8.0"}, ParseCase{"3.8.0.7", V(3, 8, 0, V::Release, 7), "3.8.0.7"},
                      ParseCase{"3.8.0.0", V(3, 8, 0), "3.8.0"}, ParseCase{"3.8", V(3, 8, 0), "3.8.0"},
                      ParseCase{"1.2.3-rc2", V(1, 2, 3, V::ReleaseCandidate, 2), "1.2.3-rc2"},
                      ParseCase{"1.2.3-alpha", V(1, 2, 3, V::Alpha, 0), "1.2.3-alpha0"},
                      ParseCase{"3.8.0-beta", V(3, 8, 0, V::Beta, 0), "3.8.0-beta0"},
                      ParseCase{"3.8.0-beta12", V(3, 8, 0, V::Beta, 12), "3.8.0-beta12"},
                      ParseCase{"3.8.0-beta12x", V(3, 8, 0, V::Beta, 0), "3.8.0-beta0"},
                      ParseCase{"1.2.3.4.5", V(1, 2, 3, V::Release, 4), "1.2.3.4"},
                      ParseCase{"", V(0, 0, 0), "0.0.0"}, ParseCase{"abc", V(0, 0, 0), "0.0.0"},
                      ParseCase{"1.x.3", V(1, 0, 3), "1.0.3"},
                      ParseCase{"2.0-beta1-alpha3", V(2, 0, 0, V::Alpha, 3), "2.0.0-alpha3"},
                      ParseCase{"2.0-alpha1-beta3", V(2, 0, 0, V::Alpha, 0), "2.0.0-alpha0"},
                      ParseCase{"5.1-alpha4", V(5, 1, 0, V::Alpha, 4), "5.1.0-alpha4"},
                      ParseCase{"-1", V(-1, 0, 0), "-1.0.0"}, ParseCase{"7.1.2-RC1", V(7, 1, 0), "7.1.0"}));

TEST(VersionNumber, defaultIsAllZeroRelease)
{
    const VersionNumber v;
    EXPECT_EQ(v, VersionNumber(0, 0, 0, VersionNumber::Release, 0));
    EXPECT_EQ(v.toString(), "0.0.0");
}

TEST(VersionNumber, printsUnknownStageWithCriticalLine)
{
    MessageCapture capture;
    EXPECT_EQ(VersionNumber(1, 2, 3, VersionNumber::Unknown, 5).toString(), "1.2.3-unknown");
    EXPECT_TRUE(capture.has(QtCriticalMsg, "Unknown patch status."));
    EXPECT_EQ(VersionNumber(1, 2, 3, 17, 5).toString(), "1.2.3");
}

TEST(VersionNumber, majorMinorString)
{
    EXPECT_EQ(VersionNumber::fromString("11.0.4-rc1").toMajorMinorString(), "11.0");
    EXPECT_EQ(VersionUtils::getMajorMinor("8.1.0"), "8.1");
}

struct OrderCase {
    const char *lower;
    const char *higher;
};

class VersionOrdering : public ::testing::TestWithParam<OrderCase>
{
};

TEST_P(VersionOrdering, ordersByComponentsThenStagePlusBuild)
{
    const VersionNumber a = VersionNumber::fromString(GetParam().lower);
    const VersionNumber b = VersionNumber::fromString(GetParam().higher);
    EXPECT_LT(a, b);
    EXPECT_LE(a, b);
    EXPECT_GT(b, a);
    EXPECT_GE(b, a);
    EXPECT_NE(a, b);
    EXPECT_FALSE(b < a);
    EXPECT_EQ(VersionNumber::compare(a, b), -1);
    EXPECT_EQ(VersionNumber::compare(b, a), 1);
}

INSTANTIATE_TEST_SUITE_P(Pairs, VersionOrdering,
                         ::testing::Values(OrderCase{"3.8.0-beta2", "3.8.0-rc1"}, OrderCase{"3.8.0-rc1", "3.8.0"},
                                           OrderCase{"3.8.0", "3.8.0.5"}, OrderCase{"3.8.0-rc1", "3.8.0-beta120"},
                                           OrderCase{"3.8.0-alpha99", "3.8.0-beta0"}, OrderCase{"3.7.99", "3.8.0-alpha1"},
                                           OrderCase{"2.9.9", "3.0"}, OrderCase{"3.8.1-alpha0", "3.8.1"},
                                           OrderCase{"10.0", "11.0"}));

TEST(VersionNumber, equalSumsWithDifferentFieldsAreOrderedEqualButNotEqual)
{
    // -100 + 100 == 0 + 0: same place in the order, different values.
    const VersionNumber rc100(1, 0, 0, VersionNumber::ReleaseCandidate, 100);
    const VersionNumber release(1, 0, 0);
    EXPECT_EQ(VersionNumber::compare(rc100, release), 0);
    EXPECT_FALSE(rc100 < release);
    EXPECT_FALSE(release < rc100);
    EXPECT_NE(rc100, release);
}

TEST(VersionNumber, extremeStageAndBuildDoNotOverflow)
{
    const VersionNumber big(1, 0, 0, VersionNumber::Release, INT_MAX);
    const VersionNumber low(1, 0, 0, VersionNumber::Alpha, INT_MIN);
    EXPECT_LT(low, big);
}

TEST(VersionNumber, debugStreamQuotesWithoutInnerSpaceAndKeepsSpacing)
{
    QString out;
    QDebug(&out) << "v" << VersionNumber(3, 8, 0, VersionNumber::Beta, 2) << "end";
    EXPECT_EQ(out, "v \"3.8.0-beta2\" end ");

    QString noquote;
    QDebug(&noquote).noquote() << VersionNumber(1, 2, 3);
    EXPECT_EQ(noquote, "1.2.3 ");

    QString nospace;
    QDebug(&nospace).nospace() << "a" << VersionNumber(1, 2, 3) << "b";
    EXPECT_EQ(nospace, "a\"1.2.3\"b");
}

TEST(VersionNumber, stdStreamWritesText)
{
    std::ostringstream out;
    out << VersionNumber(11, 0, 0, VersionNumber::Release, 3);
    EXPECT_EQ(out.str(), "11.0.0.3");
}

struct DepthCase {
    const char *a;
    const char *b;
    int depth;
    int expected;
};

class CompareVersionName : public ::testing::TestWithParam<DepthCase>
{
};

TEST_P(CompareVersionName, comparesToTheAskedDepth)
{
    const DepthCase &c = GetParam();
    EXPECT_EQ(VersionUtils::compareVersionName(c.a, c.b, c.depth), c.expected) << c.a << " vs " << c.b << " @" << c.depth;
}

INSTANTIATE_TEST_SUITE_P(Depths, CompareVersionName,
                         ::testing::Values(DepthCase{"3.8.1", "3.8.0", 2, 0}, DepthCase{"3.8.1", "3.8.0", 3, 1},
                                           DepthCase{"3.9.0", "3.8.5", 1, 0}, DepthCase{"4.0", "3.9", 1, 1},
                                           DepthCase{"3.7.9", "3.8.0", 2, -1}, DepthCase{"3.8.0-rc1", "3.8.0", 3, -1},
                                           DepthCase{"3.8.0-rc1", "3.8.0", 0, -1}, DepthCase{"3.8.0-rc1", "3.8.0", 2, 0},
                                           DepthCase{"2.1", "10.0", 1, -1}, DepthCase{"1.2.3", "1.2.3", 7, 0}));

TEST(VersionUtils, comparesToSupportedSystemVersion)
{
    EXPECT_EQ(VersionUtils::compareToSupportedSystemVersion(V(2, 99, 0)), -1);
    EXPECT_EQ(VersionUtils::compareToSupportedSystemVersion(V(3, -1, 0)), -1);
    EXPECT_EQ(VersionUtils::compareToSupportedSystemVersion(V(3, 0, 9)), 0);
    EXPECT_EQ(VersionUtils::compareToSupportedSystemVersion(V(3, 1, 0)), 1);
    EXPECT_EQ(VersionUtils::compareToSupportedSystemVersion(V(4, 0, 0)), 1);
}

struct ApiCase {
    const char *version;
    int api;
};

class AndroidApi : public ::testing::TestWithParam<ApiCase>
{
};

TEST_P(AndroidApi, mapsKnownReleasesWithoutLogging)
{
    MessageCapture capture;
    EXPECT_EQ(VersionUtils::androidVersionToApi(QString::fromUtf8(GetParam().version)), GetParam().api);
    EXPECT_TRUE(capture.noneAtOrAbove(QtWarningMsg));
}

INSTANTIATE_TEST_SUITE_P(
    Table, AndroidApi,
    ::testing::Values(ApiCase{"2.3", 9}, ApiCase{"2.3.1", 9}, ApiCase{"2.3.2", 9}, ApiCase{"2.3.3", 10},
                      ApiCase{"2.3.7", 10}, ApiCase{"3.0", 13}, ApiCase{"3.2", 13}, ApiCase{"4.0", 14},
                      ApiCase{"4.0.2", 14}, ApiCase{"4.0.3", 15}, ApiCase{"4.0.4", 15}, ApiCase{"4.1", 16},
                      ApiCase{"4.2.2", 17}, ApiCase{"4.3", 18}, ApiCase{"4.4.4", 19}, ApiCase{"5.0", 21},
                      ApiCase{"5.1.1", 22}, ApiCase{"6.0", 23}, ApiCase{"7.0", 24}, ApiCase{"7.1.2", 25},
                      ApiCase{"8.0.0", 26}, ApiCase{"8.1", 27}, ApiCase{"9.0", 28}, ApiCase{"10.0", 29},
                      ApiCase{"11.0", 30}, ApiCase{"12.0", 31}, ApiCase{"12.1", 32}, ApiCase{"13.0", 33},
                      ApiCase{"14.0", 34}, ApiCase{"15.0", 35}, ApiCase{"2.3.0.1", 9}));

class AndroidApiUnknown : public ::testing::TestWithParam<const char *>
{
};

TEST_P(AndroidApiUnknown, assumesTheNextLevelWithAWarning)
{
    MessageCapture capture;
    const VersionNumber v = VersionNumber::fromString(GetParam());
    EXPECT_EQ(VersionUtils::androidVersionToApi(v), 36);
    EXPECT_TRUE(capture.has(QtWarningMsg, QStringLiteral("Unknown Android version: \"%1\" . Assuming this version uses "
                                                         "the next API level.")
                                              .arg(v.toString())));
}

INSTANTIATE_TEST_SUITE_P(OutsideTable, AndroidApiUnknown,
                         ::testing::Values("2.4", "4.5", "5.2", "6.1", "9.1", "15.1", "16.0"));

class AndroidApiInvalid : public ::testing::TestWithParam<VersionNumber>
{
};

TEST_P(AndroidApiInvalid, givesZeroWithACriticalLine)
{
    MessageCapture capture;
    EXPECT_EQ(VersionUtils::androidVersionToApi(GetParam()), 0);
    EXPECT_TRUE(capture.has(QtCriticalMsg, QStringLiteral("Invalid version \"%1\"").arg(GetParam().toString())));
}

INSTANTIATE_TEST_SUITE_P(TooOld, AndroidApiInvalid,
                         ::testing::Values(V(1, 6, 0), V(2, 2, 0), V(2, 3, -1), V(2, 3, 0, V::Beta, 5),
                                           V(2, 3, 0, V::ReleaseCandidate, 99), V(0, 0, 0)));

TEST(VersionUtils, userFriendlyVersionShowsInternalBuildsAsBetas)
{
    EXPECT_EQ(VersionUtils::getUserFriendlyVersion(V::fromString("3.8.0")), "3.8.0");
    EXPECT_EQ(VersionUtils::getUserFriendlyVersion(V::fromString("3.8.90")), "3.8.90");
    EXPECT_EQ(VersionUtils::getUserFriendlyVersion(V::fromString("3.8.91")), "3.9.0-beta1");
    EXPECT_EQ(VersionUtils::getUserFriendlyVersion(V::fromString("3.8.0.92")), "3.8.1-beta2");
    EXPECT_EQ(VersionUtils::getUserFriendlyVersion(V::fromString("3.8.95.93")), "3.8.96-beta3");
    EXPECT_EQ(VersionUtils::getUserFriendlyVersion(V::fromString("3.8.0.90")), "3.8.0.90");
}

} // namespace
