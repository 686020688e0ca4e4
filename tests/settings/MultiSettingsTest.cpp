#include "MultiSettings.h"

#include "MessageCapture.h"
#include "SettingsTestUtils.h"

#include <QDir>
#include <QSettings>

#include <gtest/gtest.h>

using namespace hvtest;

namespace {

const QString kPersistent = QStringLiteral("virtualbox.host_only_interface_name");
const QVariant kDef = QStringLiteral("def");

class MultiSettingsTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(m_dir.isValid()); }

    MultiSettings &make(const QByteArray &defaults, const QByteArray &user)
    {
        m_settings = makeStack(m_dir, defaults, user, {kPersistent});
        return *m_settings;
    }
    /// The INI file as another program sees it.
    QVariant iniValue() const { return QSettings(m_ini, QSettings::IniFormat).value(kPersistent); }
    void setIniValue(const QVariant &v) const { QSettings(m_ini, QSettings::IniFormat).setValue(kPersistent, v); }

    SettingsDir m_dir;
    const QString m_user = m_dir.path(QStringLiteral("settings.json"));
    const QString m_ini = m_dir.path(QStringLiteral("halvistrom.ini"));
    std::unique_ptr<MultiSettings> m_settings;
};

TEST_F(MultiSettingsTest, answersFromTheRightLayer)
{
    const QVariant none, user = QStringLiteral("user"), fallback = QStringLiteral("default");
    const struct {
        QByteArray defaults, user;
        QVariant get, getWithDef; // get("k"), get("k", "def"); getChildValue({"k"}) answers as get("k")
    } cases[] = {
        {R"({"k": "default"})", R"({"k": "user"})", user, user},
        {R"({"k": "default"})", R"({"o": 1})", fallback, fallback},
        {R"({"o": 1})", R"({"o": 1})", none, kDef},
        {R"({"k": ""})", "{}", none, kDef},
        // A user value that is "" or null hides the default: the caller's
        // default answers, and for a path the user file answers.
        {R"({"k": "default"})", R"({"k": ""})", none, kDef},
        {R"({"k": "default"})", R"({"k": null})", none, kDef},
        {R"({"k": "default"})", R"({"k": {"a": 1}})", none, kDef},
        {R"({"k": "default"})", "not json", fallback, fallback},
    };
    for (const auto &c : cases) {
        MultiSettings &settings = make(c.defaults, c.user);
        const std::string files = c.defaults.toStdString() + " " + c.user.toStdString();
        EXPECT_EQ(settings.get(QStringLiteral("k")), c.get) << files;
        EXPECT_EQ(settings.get(QStringLiteral("k"), kDef), c.getWithDef) << files;
        EXPECT_EQ(settings.getChildValue({QStringLiteral("k")}), c.get) << files;
    }

    MultiSettings &settings = make(R"({"k": "default"})", R"({"o": 1})");
    settings.set(QStringLiteral("k"), QStringLiteral("mine"));
    EXPECT_EQ(readObject(m_user), parseObject(R"({"o": 1, "k": "mine"})"));
    settings.removeKey(QStringLiteral("k"));
    EXPECT_EQ(readObject(m_user), parseObject(R"({"o": 1})"));
    EXPECT_EQ(settings.get(QStringLiteral("k")), fallback);
    EXPECT_EQ(readObject(m_dir.path("defaults.json")), parseObject(R"({"k": "default"})"));
}

TEST_F(MultiSettingsTest, persistentKeyLivesInTheIniFile)
{
    MultiSettings &settings = make("{}", R"({"o": 1})");
    settings.set(kPersistent, QStringLiteral("vboxnet3"));
    EXPECT_EQ(iniValue(), QStringLiteral("vboxnet3"));
    EXPECT_EQ(readObject(m_user), parseObject(R"({"o": 1})"));

    // Reads ignore whatever the user file says about it.
    ASSERT_TRUE(writeFile(m_user, R"({"virtualbox.host_only_interface_name": "other"})"));
    EXPECT_EQ(settings.get(kPersistent, kDef), QStringLiteral("vboxnet3"));
    settings.set(kPersistent, QVariant());
    EXPECT_FALSE(iniValue().isValid());
    EXPECT_EQ(settings.get(kPersistent, kDef), kDef);
}

TEST_F(MultiSettingsTest, startCopiesWhatOnlyOneSideHas)
{
    const QVariant ini = QStringLiteral("from-ini"), json = QStringLiteral("from-json");
    const struct {
        QVariant ini;
        QByteArray user;
        QVariant iniAfter;
        QByteArray userAfter;
    } cases[] = {
        {ini, R"({"o": 1})", ini, R"({"o": 1, "virtualbox.host_only_interface_name": "from-ini"})"},
        {QVariant(), R"({"virtualbox.host_only_interface_name": "from-json"})", json, QByteArray()},
        {ini, R"({"virtualbox.host_only_interface_name": "from-json"})", ini, QByteArray()},
        {ini, R"({"virtualbox.host_only_interface_name": ""})", ini,
         R"({"virtualbox.host_only_interface_name": "from-ini"})"},
        {QVariant(), R"({"o": 1})", QVariant(), QByteArray()},
        {ini, "{broken", ini, QByteArray()}, // an unreadable user file is left alone
    };
    for (const auto &c : cases) {
        QFile::remove(m_ini);
        if (c.ini.isValid())
            setIniValue(c.ini);
        make("{}", c.user);
        EXPECT_EQ(iniValue(), c.iniAfter) << c.user.constData();
        EXPECT_EQ(readFile(m_user), c.userAfter.isNull() ? c.user : QJsonDocument(parseObject(c.userAfter)).toJson());
    }
}

TEST_F(MultiSettingsTest, unusableIniFileIsReportedAndReadsAsAbsent)
{
    ASSERT_TRUE(QDir().mkpath(m_ini)); // a directory where the INI file should be
    MessageCapture capture;
    MultiSettings &settings = make("{}", R"({"o": 1})");
    EXPECT_EQ(capture.lines(),
              QList<LogLine>({{QtWarningMsg, "Cannot init install path settings (status=1) " + m_ini}}));
    EXPECT_EQ(settings.get(kPersistent, kDef), kDef);
    EXPECT_EQ(settings.get(QStringLiteral("o"), 7), 1.0) << "the JSON files still work";
}

TEST_F(MultiSettingsTest, overrideIsAUserValueThatDiffersFromTheDefault)
{
    const QStringList shortcut{"player", "shortcuts", "SCREENSHOT"};
    MultiSettings &settings = make(R"({"player": {"shortcuts": {"SCREENSHOT": "Ctrl+Shift+S"}}})", "{}");
    EXPECT_FALSE(settings.isOverriden(shortcut));
    settings.setChildValue(shortcut, QStringLiteral("Ctrl+S"));
    EXPECT_TRUE(settings.isOverriden(shortcut));
    EXPECT_EQ(settings.getChildValue(shortcut), QStringLiteral("Ctrl+S"));
    settings.setChildValue(shortcut, QStringLiteral("Ctrl+Shift+S"));
    EXPECT_FALSE(settings.isOverriden(shortcut)) << "same text as the default";
    settings.setChildValue(shortcut, QString(""));
    EXPECT_FALSE(settings.isOverriden(shortcut)) << "an empty string is no value";
    EXPECT_FALSE(settings.getChildValue(shortcut).isValid()) << "the user file holds the path, so it answers";

    settings.setChildValue(shortcut, QStringLiteral("Ctrl+S"));
    settings.resetChildValue(shortcut);
    EXPECT_FALSE(settings.isOverriden(shortcut));
    EXPECT_EQ(settings.getChildValue(shortcut), QStringLiteral("Ctrl+Shift+S"));
    EXPECT_EQ(readObject(m_user), parseObject(R"({"player": {"shortcuts": {}}})"));

    // Copies the default, or removes the key that has none.
    ASSERT_TRUE(writeFile(m_user, R"({"player": {"shortcuts": {"SCREENSHOT": "A", "HOME": "B"}}})"));
    settings.setDefaultChildValue(shortcut);
    settings.setDefaultChildValue({"player", "shortcuts", "HOME"});
    EXPECT_EQ(readObject(m_user), parseObject(R"({"player": {"shortcuts": {"SCREENSHOT": "Ctrl+Shift+S"}}})"));
}

TEST_F(MultiSettingsTest, getAllListsUserAndPersistentKeys)
{
    setIniValue(QStringLiteral("from-ini"));
    MultiSettings &settings =
        make(R"({"only.default": 1})", R"({"a": 1, "b": "x", "empty": "", "obj": {"c": 2}, "list": [1]})");
    EXPECT_EQ(settings.getAll(), (QVariantMap{{"a", 1.0}, {"b", "x"}, {"empty", QVariant()},
                                              {"list", QVariantList{1.0}}, {kPersistent, "from-ini"}}));
}

} // namespace
