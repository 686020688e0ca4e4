#include "DeviceListModelUtils.h"
#include "HwProfileBuilder.h"

#include <QCoreApplication>
#include <QRandomGenerator>
#include <QTranslator>

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace {

TEST(DeviceListModelUtils, roleTable)
{
    const QHash<int, QByteArray> expected = {
        {257, "uuid"},  {258, "formFactor"},         {259, "shared"}, {260, "sharer"},    {261, "source"},
        {262, "sourceLabel"}, {263, "name"}, {264, "physicalScreenSize"}, {265, "width"}, {266, "height"},
        {267, "sizeLabel"}, {269, "density"}, {270, "densityLabel"}};
    EXPECT_EQ(DeviceListModelUtils::roleNames(), expected);
}

struct SizeCase {
    QSize size;
    qint64 key;
};

class SizeKeys : public ::testing::TestWithParam<SizeCase>
{
};

TEST_P(SizeKeys, roundTripBelowAHeightOf100000)
{
    EXPECT_EQ(DeviceListModelUtils::keyForSize(GetParam().size), GetParam().key);
    EXPECT_EQ(DeviceListModelUtils::sizeForKey(GetParam().key), GetParam().size);
}

INSTANTIATE_TEST_SUITE_P(Sizes, SizeKeys,
                         ::testing::Values(SizeCase{{1280, 768}, 128000768}, SizeCase{{0, 0}, 0},
                                           SizeCase{{1, 99999}, 199999}, SizeCase{{2160, 3840}, 216003840},
                                           SizeCase{{21474, 83647}, 2147483647}));

TEST(DeviceListModelUtils, randomSizesRoundTrip)
{
    QRandomGenerator random(5);
    for (int i = 0; i < 1000; ++i) {
        const QSize size(random.bounded(21474), random.bounded(100000));
        EXPECT_EQ(DeviceListModelUtils::sizeForKey(DeviceListModelUtils::keyForSize(size)), size);
    }
}

TEST(DeviceListModelUtils, heightsOf100000OrMoreDoNotRoundTrip)
{
    const QSize size(3, 100000);
    EXPECT_EQ(DeviceListModelUtils::keyForSize(size), 400000);
    EXPECT_EQ(DeviceListModelUtils::sizeForKey(400000), QSize(4, 0));
}

TEST(DeviceListModelUtils, sizeKeysWrapIn32Bits)
{
    EXPECT_EQ(DeviceListModelUtils::keyForSize(QSize(21475, 0)), qint64(qint32(quint32(2147500000u))));
    EXPECT_LT(DeviceListModelUtils::keyForSize(QSize(21475, 0)), 0);
}

TEST(DeviceListModelUtils, stringKeyIsTheStandardHashOfTheUtf8Bytes)
{
    for (const QString &text : {QString(), QString("abc"), QString::fromUtf8("dé日本"), QString("a") + QChar(0) + "b"}) {
        const QByteArray utf8 = text.toUtf8();
        EXPECT_EQ(DeviceListModelUtils::keyForString(text),
                  std::hash<std::string>()(std::string(utf8.constData(), size_t(utf8.size()))));
    }
    EXPECT_NE(DeviceListModelUtils::keyForString("a"), DeviceListModelUtils::keyForString("b"));
}

// Answers only in the helpers' own context, so the test also proves which
// context the labels are looked up in.
class LabelTranslator : public QTranslator
{
public:
    QString translate(const char *context, const char *sourceText, const char *, int) const override
    {
        if (QByteArray(context) != "DeviceListModelUtils")
            return QString();
        return QString("<") + sourceText + ">";
    }
    bool isEmpty() const override { return false; }
};

struct LabelCase {
    int source;
    const char *email;
    const char *profileLabel;
    const char *sourceLabel;
};

class SourceLabels : public ::testing::TestWithParam<LabelCase>
{
};

TEST_P(SourceLabels, untranslated)
{
    HwProfileBuilder profile;
    profile.source = HwProfile::Source(GetParam().source);
    profile.sharerEmail = GetParam().email;
    EXPECT_EQ(DeviceListModelUtils::sourceForHwProfile(profile), GetParam().profileLabel);
    EXPECT_EQ(DeviceListModelUtils::sourceToString(profile.source), GetParam().sourceLabel);
}

INSTANTIATE_TEST_SUITE_P(Sources, SourceLabels,
                         ::testing::Values(LabelCase{0, "x@y", "Halvistrom", "Halvistrom"},
                                           LabelCase{1, "x@y", "x@y", "source.shared"},
                                           LabelCase{1, "", "", "source.shared"},
                                           LabelCase{2, "x@y", "source.user", "source.user"},
                                           LabelCase{-1234, "x@y", "Halvistrom", "Halvistrom"}));

TEST(DeviceListModelUtils, labelsAreTranslatedInTheirContextButTheProductWordIsNot)
{
    LabelTranslator translator;
    QCoreApplication::installTranslator(&translator);
    EXPECT_EQ(DeviceListModelUtils::sourceToString(HwProfile::Source::SHARED), "<source.shared>");
    EXPECT_EQ(DeviceListModelUtils::sourceToString(HwProfile::Source::USER), "<source.user>");
    EXPECT_EQ(DeviceListModelUtils::sourceToString(HwProfile::Source::VENDOR), "Halvistrom");
    HwProfile user;
    user.source = HwProfile::Source::USER;
    EXPECT_EQ(DeviceListModelUtils::sourceForHwProfile(user), "<source.user>");
    QCoreApplication::removeTranslator(&translator);
}

} // namespace
