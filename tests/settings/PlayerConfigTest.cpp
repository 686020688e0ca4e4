#include "PlayerFeaturesConfig.h"
#include "PlayerShortcutConfig.h"

#include "MultiSettings.h"
#include "SettingsTestUtils.h"

#include <QJsonArray>
#include <QMetaEnum>

#include <gtest/gtest.h>

using hvtest::parseObject;
using hvtest::readFile;
using hvtest::readObject;
using hvtest::writeFile;

namespace {

using Action = PlayerFeaturesConfig::ActionId;
using Feature = PlayerFeaturesConfig::Feature;
using Actions = QList<Action>;

const QByteArray kDefaults = R"({"player": {
    "toolbar": ["ROTATE_LEFT", "ROTATE_RIGHT", "SCREENSHOT"],
    "shortcuts": {"SCREENSHOT": "Ctrl+Shift+S", "HOME": "Ctrl+H"}}})";

class PlayerConfigTest : public ::testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(m_dir.isValid()); }

    /// A settings stack over the given files (user may be null: no file).
    MultiSettings *stack(const QByteArray &user)
    {
        EXPECT_TRUE(writeFile(m_dir.path(QStringLiteral("defaults.json")), kDefaults));
        if (!user.isNull()) {
            EXPECT_TRUE(writeFile(userPath(), user));
        }
        m_settings = std::make_unique<MultiSettings>(
            QSharedPointer<JsonSettings>::create(m_dir.path(QStringLiteral("defaults.json")), JsonSettings::ReadOnly),
            QSharedPointer<JsonSettings>::create(userPath(), JsonSettings::ReadWrite),
            QSharedPointer<QSettings>::create(m_dir.path(QStringLiteral("halvistrom.ini")), QSettings::IniFormat),
            QSet<QString>());
        return m_settings.get();
    }

    QString userPath() const { return m_dir.path(QStringLiteral("settings.json")); }
    QJsonArray storedToolBar() const
    {
        return readObject(userPath()).value("player").toObject().value("toolbar").toArray();
    }

    hvtest::SettingsDir m_dir;
    std::unique_ptr<MultiSettings> m_settings;
};

// ---- the enumerations are the file format --------------------------------------

TEST(PlayerEnumerations, namesAndValuesAreTheStoredForm)
{
    const QStringList actions = QStringLiteral(
        "ROTATE_LEFT ROTATE_RIGHT PIXEL_PERFECT CAPTURE DEVELOPER ANDROID_CONTROLS BASEBAND BATTERY BIOMETRICS "
        "DISKIO GAMEPAD GPS DEVICE_ID MEDIA_INJECTION MOTION_SENSORS NETWORK PHONE BACK HOME OVERVIEW MENU POWER "
        "VOLUME_UP VOLUME_DOWN OPEN_GAPPS SETTINGS ADD_WIDGET AMBIENT_SENSORS FOLD REMOTE_CONTROL SCREENCAST "
        "SCREENSHOT SCREENSHOT_BROWSE SHOW_TOUCHES TOGGLE_FULLSCREEN TOGGLE_TOOLBAR UNKNOWN")
                                    .split(' ');
    const QStringList features = QStringLiteral(
        "ROTATE PIXEL_PERFECT DEVELOPER CAPTURE BATTERY BIOMETRICS GAMEPAD GPS MEDIA_INJECTION MOTION_SENSORS "
        "CAMERA REMOTE_CONTROL ANDROID_CONTROLS AMBIENT_SENSORS IDENTIFIERS DISKIO NETWORK BASEBAND PHONE "
        "OPENGAPPS VOLUME BACK HOME OVERVIEW MENU POWER FOLD")
                                     .split(' ');
    const QStringList categories =
        QStringLiteral("WINDOW DEVICE HARDWARE_BUTTONS TOOLS SETTING_BUTTONS UNKNOWN_BUTTONS").split(' ');

    const std::pair<QMetaEnum, QStringList> enums[] = {
        {QMetaEnum::fromType<PlayerFeaturesConfig::ActionId>(), actions},
        {QMetaEnum::fromType<PlayerFeaturesConfig::Feature>(), features},
        {QMetaEnum::fromType<PlayerFeaturesConfig::ActionCategory>(), categories},
    };
    for (const auto &[meta, names] : enums) {
        ASSERT_EQ(meta.keyCount(), names.size()) << meta.name();
        for (int value = 0; value < names.size(); ++value)
            EXPECT_EQ(QString::fromLatin1(meta.valueToKey(value)), names.at(value)) << meta.name() << value;
    }
    EXPECT_EQ(PlayerFeaturesConfig::getActionStrFromId(PlayerFeaturesConfig::SCREENSHOT), QStringLiteral("SCREENSHOT"));
}

// ---- features ------------------------------------------------------------------

struct FlagsCase {
    const char *name;
    const char *flags; // nullptr: unset
    bool fold;
    bool ambient;
};

class PlayerFeaturesFlagsTest : public PlayerConfigTest, public ::testing::WithParamInterface<FlagsCase>
{
protected:
    void TearDown() override { qunsetenv("HV_FEATURE_FLAGS"); }
};

TEST_P(PlayerFeaturesFlagsTest, experimentalFeaturesNeedTheirFlag)
{
    const FlagsCase &c = GetParam();
    if (c.flags)
        qputenv("HV_FEATURE_FLAGS", c.flags);
    else
        qunsetenv("HV_FEATURE_FLAGS");
    PlayerFeaturesConfig config(stack("{}"));

    const QMetaEnum meta = QMetaEnum::fromType<Feature>();
    for (int i = 0; i < meta.keyCount(); ++i) {
        const auto feature = static_cast<Feature>(meta.value(i));
        bool expected = true;
        if (feature == Feature::FOLD)
            expected = c.fold;
        else if (feature == Feature::AMBIENT_SENSORS)
            expected = c.ambient;
        EXPECT_EQ(config.hasFeature(feature), expected) << meta.key(i);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Flags, PlayerFeaturesFlagsTest,
    ::testing::Values(FlagsCase{"unset", nullptr, false, false}, FlagsCase{"empty", "", false, false},
                      FlagsCase{"both", "foldabledisplay:ambientsensors", true, true},
                      FlagsCase{"foldOnly", "foldabledisplay", true, false},
                      FlagsCase{"ambientAmongOthers", "x::ambientsensors:y", false, true},
                      FlagsCase{"wholeNamesOnly", "foldabledisplays:ambient", false, false}),
    [](const ::testing::TestParamInfo<FlagsCase> &info) { return std::string(info.param.name); });

// ---- tool bar ------------------------------------------------------------------

TEST_F(PlayerConfigTest, toolBarComesFromTheDefaultsUntilTheUserHasOne)
{
    PlayerFeaturesConfig config(stack(nullptr));
    EXPECT_EQ(config.getToolBarActions(),
              (Actions{PlayerFeaturesConfig::ROTATE_LEFT, PlayerFeaturesConfig::ROTATE_RIGHT,
                       PlayerFeaturesConfig::SCREENSHOT}));
    EXPECT_TRUE(config.isActionInToolBar(PlayerFeaturesConfig::SCREENSHOT));
    EXPECT_FALSE(config.isActionInToolBar(PlayerFeaturesConfig::HOME));
}

TEST_F(PlayerConfigTest, storedNamesThatAreNoActionAreDropped)
{
    PlayerFeaturesConfig config(stack(R"({"player": {"toolbar": ["HOME", "ZOOM", "BACK"]}})"));
    EXPECT_EQ(config.getToolBarActions(), (Actions{PlayerFeaturesConfig::HOME, PlayerFeaturesConfig::BACK}));
}

TEST_F(PlayerConfigTest, emptyUserToolBarStaysEmpty)
{
    PlayerFeaturesConfig config(stack(R"({"player": {"toolbar": []}})"));
    EXPECT_TRUE(config.getToolBarActions().isEmpty());
}

TEST_F(PlayerConfigTest, addAppendsAndStoresTheWholeToolBar)
{
    PlayerFeaturesConfig config(stack(R"({"player": {"shortcuts": {"HOME": "X"}}})"));

    config.addActionFromToolbar(PlayerFeaturesConfig::HOME);

    EXPECT_EQ(readObject(userPath()),
              parseObject(R"({"player": {"shortcuts": {"HOME": "X"},
                             "toolbar": ["ROTATE_LEFT", "ROTATE_RIGHT", "SCREENSHOT", "HOME"]}})"));
}

TEST_F(PlayerConfigTest, addingAnActionAlreadyThereDoesNotRewriteTheFile)
{
    const QByteArray compact = R"({"player":{"toolbar":["HOME","BACK"]}})";
    PlayerFeaturesConfig config(stack(compact));

    config.addActionFromToolbar(PlayerFeaturesConfig::BACK);

    EXPECT_EQ(readFile(userPath()), compact);
    EXPECT_EQ(config.getToolBarActions(), (Actions{PlayerFeaturesConfig::HOME, PlayerFeaturesConfig::BACK}));
}

TEST_F(PlayerConfigTest, removeDropsEveryOccurrence)
{
    PlayerFeaturesConfig config(stack(R"({"player": {"toolbar": ["HOME", "BACK", "HOME"]}})"));

    config.removeActionFromToolbar(PlayerFeaturesConfig::HOME);

    EXPECT_EQ(config.getToolBarActions(), Actions{PlayerFeaturesConfig::BACK});
    EXPECT_EQ(storedToolBar(), QJsonArray({"BACK"}));
}

struct MoveCase {
    const char *name;
    Action moved;
    Action target;
    QStringList expected; // empty: nothing moves and nothing is written
};

class PlayerToolBarMoveTest : public PlayerConfigTest, public ::testing::WithParamInterface<MoveCase>
{
};

TEST_P(PlayerToolBarMoveTest, movesOntoTheTargetsPosition)
{
    const MoveCase &c = GetParam();
    const QByteArray compact = R"({"player":{"toolbar":["HOME","BACK","POWER"]}})";
    PlayerFeaturesConfig config(stack(compact));

    config.moveActionInToolbar(c.moved, c.target);

    if (c.expected.isEmpty()) {
        EXPECT_EQ(readFile(userPath()), compact);
        EXPECT_EQ(config.getToolBarActions(),
                  (Actions{PlayerFeaturesConfig::HOME, PlayerFeaturesConfig::BACK, PlayerFeaturesConfig::POWER}));
    } else {
        EXPECT_EQ(storedToolBar(), QJsonArray::fromStringList(c.expected));
        QStringList names;
        for (Action action : config.getToolBarActions())
            names.append(PlayerFeaturesConfig::getActionStrFromId(action));
        EXPECT_EQ(names, c.expected);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Moves, PlayerToolBarMoveTest,
    ::testing::Values(
        MoveCase{"firstOntoThird", PlayerFeaturesConfig::HOME, PlayerFeaturesConfig::POWER, {"BACK", "POWER", "HOME"}},
        MoveCase{"thirdOntoFirst", PlayerFeaturesConfig::POWER, PlayerFeaturesConfig::HOME, {"POWER", "HOME", "BACK"}},
        MoveCase{"secondOntoThird", PlayerFeaturesConfig::BACK, PlayerFeaturesConfig::POWER, {"HOME", "POWER", "BACK"}},
        MoveCase{"ontoItself", PlayerFeaturesConfig::BACK, PlayerFeaturesConfig::BACK, {}},
        MoveCase{"targetNotOnToolBar", PlayerFeaturesConfig::HOME, PlayerFeaturesConfig::MENU, {}},
        MoveCase{"movedNotOnToolBar", PlayerFeaturesConfig::MENU, PlayerFeaturesConfig::HOME, {}}),
    [](const ::testing::TestParamInfo<MoveCase> &info) { return std::string(info.param.name); });

TEST_F(PlayerConfigTest, moveOnEmptyToolBarDoesNothing)
{
    const QByteArray compact = R"({"player":{"toolbar":[]}})";
    PlayerFeaturesConfig config(stack(compact));
    config.moveActionInToolbar(PlayerFeaturesConfig::HOME, PlayerFeaturesConfig::BACK);
    EXPECT_EQ(readFile(userPath()), compact);
}

TEST_F(PlayerConfigTest, resetCopiesTheDefaultToolBar)
{
    PlayerFeaturesConfig config(stack(R"({"player": {"toolbar": ["HOME"], "shortcuts": {"HOME": "X"}}})"));

    config.resetActionFromToolbar();

    EXPECT_EQ(config.getToolBarActions(),
              (Actions{PlayerFeaturesConfig::ROTATE_LEFT, PlayerFeaturesConfig::ROTATE_RIGHT,
                       PlayerFeaturesConfig::SCREENSHOT}));
    EXPECT_EQ(readObject(userPath()),
              parseObject(R"({"player": {"shortcuts": {"HOME": "X"},
                             "toolbar": ["ROTATE_LEFT", "ROTATE_RIGHT", "SCREENSHOT"]}})"));
}

// ---- shortcuts -----------------------------------------------------------------

TEST_F(PlayerConfigTest, userShortcutSitsBesideTheOthersUntilReset)
{
    PlayerShortcutConfig shortcuts(stack(R"({"player": {"toolbar": ["HOME"], "shortcuts": {"HOME": "X"}}})"));
    EXPECT_EQ(shortcuts.getShortcut(PlayerFeaturesConfig::SCREENSHOT), QStringLiteral("Ctrl+Shift+S"));
    EXPECT_FALSE(shortcuts.isResetAvailable(PlayerFeaturesConfig::SCREENSHOT));

    shortcuts.setShortcut(PlayerFeaturesConfig::SCREENSHOT, QStringLiteral("Ctrl+S"));

    EXPECT_EQ(readObject(userPath()),
              parseObject(R"({"player": {"toolbar": ["HOME"], "shortcuts": {"HOME": "X", "SCREENSHOT": "Ctrl+S"}}})"));
    EXPECT_EQ(shortcuts.getShortcut(PlayerFeaturesConfig::SCREENSHOT), QStringLiteral("Ctrl+S"));
    EXPECT_TRUE(shortcuts.isResetAvailable(PlayerFeaturesConfig::SCREENSHOT));

    shortcuts.resetShortcut(PlayerFeaturesConfig::SCREENSHOT);

    EXPECT_EQ(shortcuts.getShortcut(PlayerFeaturesConfig::SCREENSHOT), QStringLiteral("Ctrl+Shift+S"));
    EXPECT_FALSE(shortcuts.isResetAvailable(PlayerFeaturesConfig::SCREENSHOT));
    EXPECT_EQ(readObject(userPath()),
              parseObject(R"({"player": {"toolbar": ["HOME"], "shortcuts": {"HOME": "X"}}})"));
}

TEST_F(PlayerConfigTest, shortcutEqualToTheDefaultOffersNoReset)
{
    PlayerShortcutConfig shortcuts(stack("{}"));
    shortcuts.setShortcut(PlayerFeaturesConfig::HOME, QStringLiteral("Ctrl+H"));
    EXPECT_FALSE(shortcuts.isResetAvailable(PlayerFeaturesConfig::HOME));
    shortcuts.setShortcut(PlayerFeaturesConfig::MENU, QStringLiteral("Ctrl+M"));
    EXPECT_TRUE(shortcuts.isResetAvailable(PlayerFeaturesConfig::MENU)) << "no default at all";
    EXPECT_EQ(shortcuts.getShortcut(PlayerFeaturesConfig::GPS), QString());
}

} // namespace
