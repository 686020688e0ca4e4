#include "JsonSettings.h"

#include "PlayerFeaturesConfig.h"

#include <QFile>
#include <QJsonArray>
#include <QMetaEnum>

#include <gtest/gtest.h>

namespace {

using Action = PlayerFeaturesConfig::ActionId;

TEST(SettingsResource, defaultsAreCompiledIntoTheLibrary)
{
    ASSERT_TRUE(QFile::exists(QStringLiteral(":/settings.json")));
    JsonSettings defaults(QStringLiteral(":/settings.json"), JsonSettings::ReadOnly);
    ASSERT_FALSE(defaults.hasUnreadableContent());
    ASSERT_TRUE(defaults.isJsonObjValid());

    // Keys the product reads without a default of its own.
    EXPECT_EQ(defaults.getValue(QStringLiteral("hypervisor")), QVariant(QStringLiteral("qemu")));
    EXPECT_EQ(defaults.getValue(QStringLiteral("device_upgraded_at_least_once")), QVariant(false));
    EXPECT_EQ(defaults.getValue(QStringLiteral("version")), QVariant(1.0));
}

TEST(SettingsResource, defaultToolBarNamesOnlyActionsAndLeavesExperimentsOff)
{
    JsonSettings defaults(QStringLiteral(":/settings.json"), JsonSettings::ReadOnly);
    const QStringList path{QStringLiteral("player"), QStringLiteral("toolbar")};
    const QStringList names = defaults.getStringList(path);
    const QList<Action> actions = defaults.getEnumList<Action>(path);

    ASSERT_FALSE(names.isEmpty());
    EXPECT_EQ(actions.size(), names.size()) << names.join(' ').toStdString();
    EXPECT_EQ(QSet<Action>(actions.begin(), actions.end()).size(), actions.size()) << "no duplicates";
    EXPECT_FALSE(actions.contains(PlayerFeaturesConfig::FOLD));
    EXPECT_FALSE(actions.contains(PlayerFeaturesConfig::AMBIENT_SENSORS));
    EXPECT_FALSE(actions.contains(PlayerFeaturesConfig::UNKNOWN));
}

TEST(SettingsResource, everyDefaultShortcutBelongsToAnAction)
{
    JsonSettings defaults(QStringLiteral(":/settings.json"), JsonSettings::ReadOnly);
    const QJsonObject shortcuts = defaults.getRootObject().value("player").toObject().value("shortcuts").toObject();
    const QMetaEnum meta = QMetaEnum::fromType<Action>();
    QSet<QString> texts;
    for (auto it = shortcuts.begin(); it != shortcuts.end(); ++it) {
        bool known = false;
        meta.keyToValue(it.key().toLatin1().constData(), &known);
        EXPECT_TRUE(known) << it.key().toStdString();
        EXPECT_FALSE(it.value().toString().isEmpty()) << it.key().toStdString();
        EXPECT_FALSE(texts.contains(it.value().toString())) << "shortcut used twice: " << it.value().toString().toStdString();
        texts.insert(it.value().toString());
    }
    const Action expected[] = {PlayerFeaturesConfig::SCREENSHOT, PlayerFeaturesConfig::TOGGLE_FULLSCREEN,
                               PlayerFeaturesConfig::VOLUME_UP,  PlayerFeaturesConfig::VOLUME_DOWN,
                               PlayerFeaturesConfig::ROTATE_LEFT, PlayerFeaturesConfig::ROTATE_RIGHT,
                               PlayerFeaturesConfig::BACK,        PlayerFeaturesConfig::HOME,
                               PlayerFeaturesConfig::POWER};
    for (Action action : expected)
        EXPECT_TRUE(shortcuts.contains(PlayerFeaturesConfig::getActionStrFromId(action)))
            << PlayerFeaturesConfig::getActionStrFromId(action).toStdString();
}

} // namespace
