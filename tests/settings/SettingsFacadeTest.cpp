// The facade's settings stack is made once per process, so each suite here
// runs in a CTest entry of its own (see CMakeLists.txt) and is the first to
// touch Settings in its process.
#include "Settings.h"

#include "JsonSettings.h"
#include "MessageCapture.h"
#include "Paths.h"
#include "PlayerFeaturesConfig.h"
#include "PlayerShortcutConfig.h"
#include "SettingsTestUtils.h"

#include <QDir>

#include <gtest/gtest.h>

using namespace hvtest;

namespace {

QString userFile()
{
    return Paths::getHalvistromPath() + QStringLiteral("/settings.json");
}

QJsonObject machineDefaults()
{
    return QJsonObject{{"screencast.directory", Paths::getHomePath()},
                       {"version", 1},
                       {"virtual_devices.directory", Paths::getDeployedPath()}};
}

std::unique_ptr<QSettings> nativeSettings()
{
    return std::make_unique<QSettings>(QStringLiteral("Corbelwick"), QStringLiteral("Halvistrom"));
}

TEST(SettingsFacadeFresh, firstGetFillsTheMachineDefaults)
{
    ASSERT_FALSE(QFile::exists(userFile()));
    EXPECT_EQ(Settings::get(QStringLiteral("hypervisor")), QStringLiteral("qemu"));
    EXPECT_EQ(readObject(userFile()), machineDefaults());
    EXPECT_EQ(Settings::getUserSettings()->getFilePath(), userFile());
    EXPECT_FALSE(QFile::exists(nativeSettings()->fileName()))
        << "removing the retired native keys must not create the native settings file";

    // Further calls reuse the same stack and see changes at once.
    Settings::set(QStringLiteral("hypervisor"), QStringLiteral("other"));
    EXPECT_EQ(Settings::get(QStringLiteral("hypervisor"), QStringLiteral("qemu")), QStringLiteral("other"));
    Settings::remove(QStringLiteral("hypervisor"));
    EXPECT_EQ(Settings::get(QStringLiteral("hypervisor")), QStringLiteral("qemu"));
    EXPECT_EQ(readObject(userFile()), machineDefaults());

    const QVariantMap all = Settings::getAll();
    EXPECT_EQ(all.value(QStringLiteral("virtual_devices.directory")), Paths::getDeployedPath());
    EXPECT_TRUE(all.contains(QStringLiteral("virtualbox.host_only_interface_name")));
    EXPECT_FALSE(all.contains(QStringLiteral("hypervisor"))) << "keys only in the defaults are not listed";
    ASSERT_NE(Settings::getPlayerFeaturesConfig(), nullptr);
    EXPECT_TRUE(Settings::getPlayerFeaturesConfig()->isActionInToolBar(PlayerFeaturesConfig::SCREENSHOT));
    ASSERT_NE(Settings::getPlayerShortcutConfig(), nullptr);
    EXPECT_EQ(Settings::getPlayerShortcutConfig()->getShortcut(PlayerFeaturesConfig::TOGGLE_FULLSCREEN), "F11");
}

TEST(SettingsFacadeExisting, keepsUserValuesAndFillsOnlyNullOnes)
{
    ASSERT_TRUE(QDir().mkpath(Paths::getHalvistromPath()));
    ASSERT_TRUE(writeFile(userFile(), R"({"virtual_devices.directory": "", "screencast.directory": "/custom",
                                         "version": null, "other": 5})"));
    // Retired keys of older versions are removed from the native settings.
    nativeSettings()->setValue(QStringLiteral("customer.email"), QStringLiteral("a@b.c"));
    nativeSettings()->setValue(QStringLiteral("credentials.password"), QStringLiteral("secret"));
    nativeSettings()->setValue(QStringLiteral("kept"), 1);

    EXPECT_EQ(Settings::get(QStringLiteral("other")), 5.0);
    QJsonObject expected = machineDefaults();
    expected.insert("screencast.directory", "/custom");
    expected.insert("other", 5);
    EXPECT_EQ(readObject(userFile()), expected);
    EXPECT_EQ(nativeSettings()->allKeys(), QStringList{QStringLiteral("kept")});
}

TEST(SettingsFacadeUnreadable, unreadableUserFileIsLeftUntilADeliberateChange)
{
    ASSERT_TRUE(QDir().mkpath(Paths::getHalvistromPath()));
    const QByteArray broken = "{\"screencast.directory\": \"/mine\",";
    ASSERT_TRUE(writeFile(userFile(), broken));
    MessageCapture capture;

    EXPECT_EQ(Settings::get(QStringLiteral("hypervisor")), QStringLiteral("qemu"));
    EXPECT_EQ(Settings::get(QStringLiteral("screencast.directory"), QStringLiteral("def")), QStringLiteral("def"));
    EXPECT_EQ(readFile(userFile()), broken);
    EXPECT_TRUE(capture.has(QtWarningMsg, "Settings file is not a JSON object, leaving it as it is until the next "
                                          "change: \"" + userFile() + "\""));

    Settings::set(QStringLiteral("k"), 1);
    EXPECT_EQ(readObject(userFile()), parseObject(R"({"k": 1})"));
    EXPECT_EQ(readFile(userFile() + QStringLiteral(".bad")), broken);
}

} // namespace
