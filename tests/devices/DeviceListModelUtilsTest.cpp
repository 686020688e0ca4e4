#include "DeviceListModelUtils.h"
#include "HwProfileBuilder.h"

#include <QCoreApplication>
#include <QTranslator>

#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace {

TEST(DeviceListModelUtils, roleTable)
{
    const QHash<int, QByteArray> expected = {
        {257, "uuid"},       {258, "formFactor"},         {259, "shared"}, {260, "sharer"},  {261, "source"},
        {262, "sourceLabel"}, {263, "name"},              {264, "physicalScreenSize"},       {265, "width"},
        {266, "height"},     {267, "sizeLabel"},          {269, "density"}, {270, "densityLabel"}};
    EXPECT_EQ(DeviceListModelUtils::roleNames(), expected);
}

TEST(DeviceListModelUtils, sizeKeys)
{
    struct Row {
        QSize size;
        qint64 key;
        QSize back; // what the key gives back
    };
    for (const Row &row : {Row{{1280, 768}, 128000768, {1280, 768}}, Row{{0, 0}, 0, {0, 0}},
                           Row{{1, 99999}, 199999, {1, 99999}}, Row{{21474, 83647}, 2147483647, {21474, 83647}},
                           // A height of 100000 or more does not round-trip.
                           Row{{3, 100000}, 400000, {4, 0}},
                           // Keys are 32-bit and wrap.
                           Row{{21475, 0}, qint64(qint32(quint32(2147500000u))), {-21474, -67296}}}) {
        EXPECT_EQ(DeviceListModelUtils::keyForSize(row.size), row.key) << row.key;
        EXPECT_EQ(DeviceListModelUtils::sizeForKey(row.key), row.back) << row.key;
    }
}

TEST(DeviceListModelUtils, stringKeyIsTheStandardHashOfTheUtf8Bytes)
{
    for (const QString &text : {QString(), QString("abc"), QString::fromUtf8("dé日本"), QString("a") + QChar(0) + "b"}) {
        const QByteArray utf8 = text.toUtf8();
        EXPECT_EQ(DeviceListModelUtils::keyForString(text),
                  std::hash<std::string>()(std::string(utf8.constData(), size_t(utf8.size()))));
    }
}

// Answers only in the helpers' own context, so the test also proves which
// context the labels are looked up in.
class LabelTranslator : public QTranslator
{
public:
    QString translate(const char *context, const char *sourceText, const char *, int) const override
    {
        return QByteArray(context) == "DeviceListModelUtils" ? QString("<") + sourceText + ">" : QString();
    }
    bool isEmpty() const override { return false; }
};

TEST(DeviceListModelUtils, sourceLabels)
{
    struct Row {
        int source;
        const char *email;
        const char *profileLabel;
        const char *sourceLabel;
    };
    const Row rows[] = {{0, "x@y", "Halvistrom", "Halvistrom"},  {1, "x@y", "x@y", "source.shared"},
                        {1, "", "", "source.shared"},            {2, "x@y", "source.user", "source.user"},
                        {-1234, "x@y", "Halvistrom", "Halvistrom"}};
    for (const Row &row : rows) {
        HwProfileBuilder profile;
        profile.source = HwProfile::Source(row.source);
        profile.sharerEmail = row.email;
        EXPECT_EQ(DeviceListModelUtils::sourceForHwProfile(profile), row.profileLabel) << row.source;
        EXPECT_EQ(DeviceListModelUtils::sourceToString(profile.source), row.sourceLabel) << row.source;
    }
    // Labels are translated in their context, the product word is not.
    LabelTranslator translator;
    QCoreApplication::installTranslator(&translator);
    EXPECT_EQ(DeviceListModelUtils::sourceToString(HwProfile::Source::SHARED), "<source.shared>");
    EXPECT_EQ(DeviceListModelUtils::sourceToString(HwProfile::Source::VENDOR), "Halvistrom");
    HwProfile user;
    user.source = HwProfile::Source::USER;
    EXPECT_EQ(DeviceListModelUtils::sourceForHwProfile(user), "<source.user>");
    QCoreApplication::removeTranslator(&translator);
}

TEST(DeviceListModelUtils, profilesOrderBySourceNameThenLowerCaseName)
{
    HwProfileBuilder vendor("a");
    HwProfileBuilder shared("z");
    shared.source = HwProfile::Source::SHARED;
    HwProfileBuilder user("m");
    user.source = HwProfile::Source::USER;
    HwProfileBuilder unknown("a");
    unknown.source = HwProfile::Source(HwProfile::UnknownEnumValue);
    EXPECT_TRUE(unknown < shared && shared < user && user < vendor && vendor > shared);
    HwProfileBuilder upper("Beta");
    HwProfileBuilder lower("alpha");
    HwProfileBuilder sameName("ALPHA");
    EXPECT_TRUE(lower < upper);
    EXPECT_FALSE(upper < lower || lower < sameName || sameName < lower);
}

} // namespace
