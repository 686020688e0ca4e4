#include "PlayerFeaturesConfig.h"
#include "PlayerShortcutConfig.h"

#include "SettingsTestUtils.h"

#include <QJsonArray>
#include <QMetaEnum>

#include <gtest/gtest.h>

using namespace hvtest;

namespace {

using P = PlayerFeaturesConfig;
using Actions = QList<P::ActionId>;

class PlayerConfigTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(m_dir.isValid()); }

    MultiSettings *stack(const QByteArray &user)
    {
        m_settings = makeStack(m_dir, R"({"player": {"toolbar": ["ROTATE_LEFT", "ROTATE_RIGHT", "SCREENSHOT"],
                                          "shortcuts": {"SCREENSHOT": "Ctrl+Shift+S", "HOME": "Ctrl+H"}}})",
                               user);
        return m_settings.get();
    }
    QByteArray userFile() const { return readFile(m_dir.path(QStringLiteral("settings.json"))); }
    QJsonObject userObject() const { return parseObject(userFile()); }

    SettingsDir m_dir;
    std::unique_ptr<MultiSettings> m_settings;
};

TEST_F(PlayerConfigTest, experimentalFeaturesNeedTheirFlag)
{
    const struct {
        const char *flags; // nullptr: unset
        bool fold, ambient;
    } cases[] = {{nullptr, false, false},         {"", false, false},
                 {"foldabledisplay:ambientsensors", true, true}, {"foldabledisplay", true, false},
                 {"x::ambientsensors:y", false, true}, {"foldabledisplays:ambient", false, false}};
    const QMetaEnum meta = QMetaEnum::fromType<P::Feature>();
    for (const auto &c : cases) {
        c.flags ? qputenv("HV_FEATURE_FLAGS", c.flags) : qunsetenv("HV_FEATURE_FLAGS");
        const P config(stack("{}"));
        for (int i = 0; i < meta.keyCount(); ++i) {
            const auto feature = static_cast<P::Feature>(meta.value(i));
            const bool expected = feature == P::Feature::FOLD ? c.fold
                : feature == P::Feature::AMBIENT_SENSORS      ? c.ambient
                                                              : true;
            EXPECT_EQ(config.hasFeature(feature), expected) << meta.key(i) << " with " << (c.flags ? c.flags : "unset");
        }
    }
    qunsetenv("HV_FEATURE_FLAGS");
}

TEST_F(PlayerConfigTest, toolBarComesFromTheDefaultsUntilTheUserHasOne)
{
    const Actions defaults{P::ROTATE_LEFT, P::ROTATE_RIGHT, P::SCREENSHOT};
    const std::pair<QByteArray, Actions> cases[] = {
        {QByteArray(), defaults},
        {R"({"player": {"toolbar": []}})", {}},
        {R"({"player": {"toolbar": ["HOME", "ZOOM", "BACK"]}})", {P::HOME, P::BACK}}, // no action: dropped
    };
    for (const auto &[user, actions] : cases) {
        const P config(stack(user));
        EXPECT_EQ(config.getToolBarActions(), actions) << user.constData();
        EXPECT_EQ(config.isActionInToolBar(P::SCREENSHOT), actions.contains(P::SCREENSHOT));
    }

    P config(stack(R"({"player": {"shortcuts": {"HOME": "X"}}})"));
    config.addActionFromToolbar(P::HOME);
    EXPECT_EQ(userObject(), parseObject(R"({"player": {"shortcuts": {"HOME": "X"},
                                         "toolbar": ["ROTATE_LEFT", "ROTATE_RIGHT", "SCREENSHOT", "HOME"]}})"));
    ASSERT_TRUE(writeFile(m_dir.path("settings.json"), R"({"player":{"toolbar":["HOME","BACK","HOME"],"x":1}})"));
    P stored(m_settings.get());
    stored.addActionFromToolbar(P::BACK);
    EXPECT_EQ(userFile(), R"({"player":{"toolbar":["HOME","BACK","HOME"],"x":1}})") << "already there: no rewrite";
    stored.removeActionFromToolbar(P::HOME);
    EXPECT_EQ(stored.getToolBarActions(), Actions{P::BACK});
    EXPECT_EQ(userObject(), parseObject(R"({"player": {"toolbar": ["BACK"], "x": 1}})"));
    stored.resetActionFromToolbar();
    EXPECT_EQ(stored.getToolBarActions(), defaults);
    EXPECT_EQ(userObject(), parseObject(R"({"player": {"toolbar": ["ROTATE_LEFT", "ROTATE_RIGHT", "SCREENSHOT"],
                                           "x": 1}})"));
}

TEST_F(PlayerConfigTest, moveTakesTheTargetsPosition)
{
    const struct {
        P::ActionId moved, target;
        QStringList expected; // empty: nothing moves and nothing is written
    } cases[] = {
        {P::HOME, P::POWER, {"BACK", "POWER", "HOME"}}, {P::POWER, P::HOME, {"POWER", "HOME", "BACK"}},
        {P::BACK, P::POWER, {"HOME", "POWER", "BACK"}}, {P::BACK, P::BACK, {}},
        {P::HOME, P::MENU, {}},                         {P::MENU, P::HOME, {}},
    };
    const QByteArray compact = R"({"player":{"toolbar":["HOME","BACK","POWER"]}})";
    for (const auto &c : cases) {
        P config(stack(compact));
        config.moveActionInToolbar(c.moved, c.target);
        const QStringList expected = c.expected.isEmpty() ? QStringList{"HOME", "BACK", "POWER"} : c.expected;
        QStringList names;
        for (P::ActionId action : config.getToolBarActions())
            names << P::getActionStrFromId(action);
        EXPECT_EQ(names, expected);
        if (c.expected.isEmpty()) {
            EXPECT_EQ(userFile(), compact);
        } else {
            EXPECT_EQ(userObject().value("player").toObject().value("toolbar"), QJsonArray::fromStringList(expected));
        }
    }
    const QByteArray empty = R"({"player":{"toolbar":[]}})";
    P(stack(empty)).moveActionInToolbar(P::HOME, P::BACK);
    EXPECT_EQ(userFile(), empty);
}

TEST_F(PlayerConfigTest, userShortcutSitsBesideTheOthersUntilReset)
{
    PlayerShortcutConfig shortcuts(stack(R"({"player": {"toolbar": ["HOME"], "shortcuts": {"HOME": "X"}}})"));
    EXPECT_EQ(shortcuts.getShortcut(P::SCREENSHOT), "Ctrl+Shift+S");
    EXPECT_FALSE(shortcuts.isResetAvailable(P::SCREENSHOT));
    shortcuts.setShortcut(P::SCREENSHOT, QStringLiteral("Ctrl+S"));
    EXPECT_EQ(userObject(),
              parseObject(R"({"player": {"toolbar": ["HOME"], "shortcuts": {"HOME": "X", "SCREENSHOT": "Ctrl+S"}}})"));
    EXPECT_EQ(shortcuts.getShortcut(P::SCREENSHOT), "Ctrl+S");
    EXPECT_TRUE(shortcuts.isResetAvailable(P::SCREENSHOT));
    shortcuts.resetShortcut(P::SCREENSHOT);
    EXPECT_EQ(shortcuts.getShortcut(P::SCREENSHOT), "Ctrl+Shift+S");
    EXPECT_FALSE(shortcuts.isResetAvailable(P::SCREENSHOT));
    EXPECT_EQ(userObject(), parseObject(R"({"player": {"toolbar": ["HOME"], "shortcuts": {"HOME": "X"}}})"));

    shortcuts.setShortcut(P::HOME, QStringLiteral("Ctrl+H"));
    EXPECT_FALSE(shortcuts.isResetAvailable(P::HOME)) << "equal to the default";
    shortcuts.setShortcut(P::MENU, QStringLiteral("Ctrl+M"));
    EXPECT_TRUE(shortcuts.isResetAvailable(P::MENU)) << "no default at all";
    EXPECT_EQ(shortcuts.getShortcut(P::GPS), QString());
}

// The compiled-in defaults name only actions, with experiments off.
TEST(SettingsResource, defaultsNameOnlyActions)
{
    const JsonSettings defaults(QStringLiteral(":/settings.json"), JsonSettings::ReadOnly);
    ASSERT_FALSE(defaults.hasUnreadableContent());
    EXPECT_EQ(defaults.getValue(QStringLiteral("device_upgraded_at_least_once")), false);
    EXPECT_EQ(defaults.getValue(QStringLiteral("version")), 1.0);

    const QStringList toolbar{"player", "toolbar"};
    const Actions actions = defaults.getEnumList<P::ActionId>(toolbar);
    ASSERT_FALSE(actions.isEmpty());
    const QStringList names = defaults.getStringList(toolbar);
    EXPECT_EQ(actions.size(), names.size()) << names.join(' ').toStdString();
    EXPECT_EQ(QSet<P::ActionId>(actions.begin(), actions.end()).size(), actions.size()) << "no duplicates";
    for (P::ActionId hidden : {P::FOLD, P::AMBIENT_SENSORS, P::UNKNOWN})
        EXPECT_FALSE(actions.contains(hidden)) << P::getActionStrFromId(hidden).toStdString();

    const QJsonObject shortcuts = defaults.getRootObject().value("player").toObject().value("shortcuts").toObject();
    QSet<QString> texts;
    for (auto it = shortcuts.begin(); it != shortcuts.end(); ++it) {
        bool known = false;
        QMetaEnum::fromType<P::ActionId>().keyToValue(it.key().toLatin1().constData(), &known);
        EXPECT_TRUE(known) << it.key().toStdString();
        EXPECT_FALSE(it.value().toString().isEmpty()) << it.key().toStdString();
        EXPECT_FALSE(texts.contains(it.value().toString())) << "used twice: " << it.value().toString().toStdString();
        texts.insert(it.value().toString());
    }
    for (P::ActionId action : {P::SCREENSHOT, P::TOGGLE_FULLSCREEN, P::VOLUME_UP, P::VOLUME_DOWN, P::ROTATE_LEFT,
                               P::ROTATE_RIGHT, P::BACK, P::HOME, P::POWER})
        EXPECT_TRUE(shortcuts.contains(P::getActionStrFromId(action))) << P::getActionStrFromId(action).toStdString();
}

} // namespace
