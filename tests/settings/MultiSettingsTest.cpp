#include "MultiSettings.h"

#include "MessageCapture.h"
#include "SettingsTestUtils.h"

#include <QDir>
#include <QFile>
#include <QSettings>

#include <gtest/gtest.h>

using hvtest::MessageCapture;
using hvtest::parseObject;
using hvtest::readFile;
using hvtest::readObject;
using hvtest::writeFile;

namespace {

const QString kPersistent = QStringLiteral("virtualbox.host_only_interface_name");

class MultiSettingsTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        m_defaultsPath = m_dir.path(QStringLiteral("defaults.json"));
        m_userPath = m_dir.path(QStringLiteral("settings.json"));
        m_iniPath = m_dir.path(QStringLiteral("halvistrom.ini"));
    }

    MultiSettings &make(const QByteArray &defaults, const QByteArray &user)
    {
        EXPECT_TRUE(writeFile(m_defaultsPath, defaults));
        if (!user.isNull()) {
            EXPECT_TRUE(writeFile(m_userPath, user));
        }
        m_settings = std::make_unique<MultiSettings>(
            QSharedPointer<JsonSettings>::create(m_defaultsPath, JsonSettings::ReadOnly),
            QSharedPointer<JsonSettings>::create(m_userPath, JsonSettings::ReadWrite),
            QSharedPointer<QSettings>::create(m_iniPath, QSettings::IniFormat), QSet<QString>{kPersistent});
        return *m_settings;
    }

    /// The INI file as another program would read it.
    QVariant iniValue(const QString &key) const { return QSettings(m_iniPath, QSettings::IniFormat).value(key); }
    void setIniValue(const QString &key, const QVariant &value) const
    {
        QSettings(m_iniPath, QSettings::IniFormat).setValue(key, value);
    }

    hvtest::SettingsDir m_dir;
    QString m_defaultsPath;
    QString m_userPath;
    QString m_iniPath;
    std::unique_ptr<MultiSettings> m_settings;
};

// ---- flat keys: which layer answers ----------------------------------------

struct LayerCase {
    const char *name;
    QByteArray defaults;
    QByteArray user;
    QVariant get;           // get("k")
    QVariant getWithDef;    // get("k", "def")
    QVariant getChildValue; // getChildValue({"k"})
};

void PrintTo(const LayerCase &c, std::ostream *os)
{
    *os << c.name;
}

class MultiSettingsLayerTest : public MultiSettingsTest, public ::testing::WithParamInterface<LayerCase>
{
};

TEST_P(MultiSettingsLayerTest, answersFromTheRightLayer)
{
    const LayerCase &c = GetParam();
    MultiSettings &settings = make(c.defaults, c.user);

    EXPECT_EQ(settings.get(QStringLiteral("k")), c.get);
    EXPECT_EQ(settings.get(QStringLiteral("k"), QStringLiteral("def")), c.getWithDef);
    EXPECT_EQ(settings.getChildValue({QStringLiteral("k")}), c.getChildValue);
}

const QVariant kNone;
const QVariant kDef = QStringLiteral("def");
const QVariant kUser = QStringLiteral("user");
const QVariant kDefault = QStringLiteral("default");

INSTANTIATE_TEST_SUITE_P(
    Keys, MultiSettingsLayerTest,
    ::testing::Values(
        LayerCase{"userWins", R"({"k": "default"})", R"({"k": "user"})", kUser, kUser, kUser},
        LayerCase{"defaultsFillIn", R"({"k": "default"})", R"({"o": 1})", kDefault, kDefault, kDefault},
        LayerCase{"neither", R"({"o": 1})", R"({"o": 1})", kNone, kDef, kNone},
        LayerCase{"emptyDefaultGivesCallerDefault", R"({"k": ""})", "{}", kNone, kDef, kNone},
        // A user value that is "" or null hides the default: the caller's
        // default answers, and for a path the user file answers.
        LayerCase{"emptyUserValueGivesCallerDefault", R"({"k": "default"})", R"({"k": ""})", kNone, kDef, kNone},
        LayerCase{"nullUserValueGivesCallerDefault", R"({"k": "default"})", R"({"k": null})", kNone, kDef, kNone},
        LayerCase{"userObjectGivesCallerDefault", R"({"k": "default"})", R"({"k": {"a": 1}})", kNone, kDef, kNone},
        LayerCase{"unreadableUserFileReadsAsEmpty", R"({"k": "default"})", "not json", kDefault, kDefault,
                  kDefault}),
    [](const ::testing::TestParamInfo<LayerCase> &info) { return std::string(info.param.name); });

TEST_F(MultiSettingsTest, setAndRemoveGoToTheUserFile)
{
    MultiSettings &settings = make(R"({"k": "default"})", R"({"o": 1})");

    settings.set(QStringLiteral("k"), QStringLiteral("mine"));
    EXPECT_EQ(readObject(m_userPath), parseObject(R"({"o": 1, "k": "mine"})"));
    EXPECT_EQ(settings.get(QStringLiteral("k")), QVariant(QStringLiteral("mine")));

    settings.removeKey(QStringLiteral("k"));
    EXPECT_EQ(readObject(m_userPath), parseObject(R"({"o": 1})"));
    EXPECT_EQ(settings.get(QStringLiteral("k")), kDefault);
    EXPECT_EQ(readObject(m_defaultsPath), parseObject(R"({"k": "default"})"));
}

// ---- persistent keys ---------------------------------------------------------

TEST_F(MultiSettingsTest, persistentKeyLivesInTheIniFile)
{
    MultiSettings &settings = make("{}", R"({"o": 1})");

    settings.set(kPersistent, QStringLiteral("vboxnet3"));

    EXPECT_EQ(iniValue(kPersistent), QVariant(QStringLiteral("vboxnet3")));
    EXPECT_EQ(readObject(m_userPath), parseObject(R"({"o": 1})"));

    // Reads ignore whatever the user file says about it.
    ASSERT_TRUE(writeFile(m_userPath, R"({"virtualbox.host_only_interface_name": "other"})"));
    EXPECT_EQ(settings.get(kPersistent), QVariant(QStringLiteral("vboxnet3")));
    EXPECT_EQ(settings.get(kPersistent, kDef), QVariant(QStringLiteral("vboxnet3")));

    settings.set(kPersistent, QVariant());
    EXPECT_FALSE(iniValue(kPersistent).isValid());
    EXPECT_FALSE(settings.get(kPersistent).isValid());
    EXPECT_EQ(settings.get(kPersistent, kDef), kDef);
}

struct SyncCase {
    const char *name;
    QVariant ini;      // before
    QByteArray user;   // before
    QVariant iniAfter;
    QByteArray userAfter;
};

void PrintTo(const SyncCase &c, std::ostream *os)
{
    *os << c.name;
}

class MultiSettingsSyncTest : public MultiSettingsTest, public ::testing::WithParamInterface<SyncCase>
{
};

TEST_P(MultiSettingsSyncTest, copiesWhatOnlyOneSideHas)
{
    const SyncCase &c = GetParam();
    if (c.ini.isValid())
        setIniValue(kPersistent, c.ini);

    make("{}", c.user);

    EXPECT_EQ(iniValue(kPersistent), c.iniAfter);
    EXPECT_EQ(readObject(m_userPath), parseObject(c.userAfter));
}

const QVariant kIni = QStringLiteral("from-ini");
const QVariant kJson = QStringLiteral("from-json");

INSTANTIATE_TEST_SUITE_P(
    PersistentKeys, MultiSettingsSyncTest,
    ::testing::Values(
        SyncCase{"iniToUser", kIni, R"({"o": 1})", kIni,
                 R"({"o": 1, "virtualbox.host_only_interface_name": "from-ini"})"},
        SyncCase{"userToIni", QVariant(), R"({"virtualbox.host_only_interface_name": "from-json"})", kJson,
                 R"({"virtualbox.host_only_interface_name": "from-json"})"},
        SyncCase{"bothKeepTheirOwn", kIni, R"({"virtualbox.host_only_interface_name": "from-json"})", kIni,
                 R"({"virtualbox.host_only_interface_name": "from-json"})"},
        SyncCase{"emptyUserValueCountsAsNone", kIni, R"({"virtualbox.host_only_interface_name": ""})", kIni,
                 R"({"virtualbox.host_only_interface_name": "from-ini"})"},
        SyncCase{"neither", QVariant(), R"({"o": 1})", QVariant(), R"({"o": 1})"}),
    [](const ::testing::TestParamInfo<SyncCase> &info) { return std::string(info.param.name); });

TEST_F(MultiSettingsTest, syncLeavesAnUnreadableUserFileAlone)
{
    setIniValue(kPersistent, kIni);
    make("{}", "{broken");
    EXPECT_EQ(readFile(m_userPath), QByteArray("{broken"));
}

TEST_F(MultiSettingsTest, unusableIniFileIsReportedAndReadsAsAbsent)
{
    ASSERT_TRUE(QDir().mkpath(m_iniPath)); // a directory where the INI file should be
    MessageCapture capture;

    MultiSettings &settings = make("{}", R"({"o": 1})");

    EXPECT_TRUE(capture.has(QtWarningMsg,
                            QStringLiteral("Cannot init install path settings (status=1) %1").arg(m_iniPath)));
    EXPECT_FALSE(settings.get(kPersistent).isValid());
    EXPECT_EQ(settings.get(kPersistent, kDef), kDef);
    EXPECT_EQ(settings.get(QStringLiteral("o"), 7), QVariant(1.0)) << "the JSON files still work";
}

// ---- paths -------------------------------------------------------------------

const QStringList kShortcut{QStringLiteral("player"), QStringLiteral("shortcuts"), QStringLiteral("SCREENSHOT")};
const QByteArray kDefaultsWithShortcut = R"({"player": {"shortcuts": {"SCREENSHOT": "Ctrl+Shift+S"}}})";

TEST_F(MultiSettingsTest, overrideIsAUserValueThatDiffersFromTheDefault)
{
    MultiSettings &settings = make(kDefaultsWithShortcut, "{}");
    EXPECT_FALSE(settings.isOverriden(kShortcut));

    settings.setChildValue(kShortcut, QStringLiteral("Ctrl+S"));
    EXPECT_TRUE(settings.isOverriden(kShortcut));
    EXPECT_EQ(settings.getChildValue(kShortcut), QVariant(QStringLiteral("Ctrl+S")));

    settings.setChildValue(kShortcut, QStringLiteral("Ctrl+Shift+S"));
    EXPECT_FALSE(settings.isOverriden(kShortcut)) << "same text as the default";

    settings.setChildValue(kShortcut, QString(""));
    EXPECT_FALSE(settings.isOverriden(kShortcut)) << "an empty string is no value";
    EXPECT_FALSE(settings.getChildValue(kShortcut).isValid()) << "the user file holds the path, so it answers";

    settings.setChildValue(kShortcut, QStringLiteral("Ctrl+S"));
    settings.resetChildValue(kShortcut);
    EXPECT_FALSE(settings.isOverriden(kShortcut));
    EXPECT_EQ(settings.getChildValue(kShortcut), QVariant(QStringLiteral("Ctrl+Shift+S")));
    EXPECT_EQ(readObject(m_userPath), parseObject(R"({"player": {"shortcuts": {}}})"));
}

TEST_F(MultiSettingsTest, setDefaultChildValueCopiesOrRemoves)
{
    MultiSettings &settings = make(kDefaultsWithShortcut, R"({"player": {"shortcuts": {"SCREENSHOT": "A",
                                                                        "HOME": "B"}}})");

    settings.setDefaultChildValue(kShortcut);
    settings.setDefaultChildValue({QStringLiteral("player"), QStringLiteral("shortcuts"), QStringLiteral("HOME")});

    EXPECT_EQ(readObject(m_userPath), parseObject(R"({"player": {"shortcuts": {"SCREENSHOT": "Ctrl+Shift+S"}}})"));
}

TEST_F(MultiSettingsTest, getAllListsUserAndPersistentKeys)
{
    setIniValue(kPersistent, kIni);
    MultiSettings &settings =
        make(R"({"only.default": 1})", R"({"a": 1, "b": "x", "empty": "", "obj": {"c": 2}, "list": [1]})");

    const QVariantMap expected{
        {QStringLiteral("a"), 1.0},
        {QStringLiteral("b"), QStringLiteral("x")},
        {QStringLiteral("empty"), QVariant()},
        {QStringLiteral("list"), QVariantList{1.0}},
        {kPersistent, kIni},
    };
    EXPECT_EQ(settings.getAll(), expected);
}

} // namespace
