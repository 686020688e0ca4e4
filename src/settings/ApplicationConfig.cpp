#include "ApplicationConfig.h"

#include "HalvistromAppUtils.h"
#include "JsonSettings.h"
#include "Logging_p.h"
#include "MultiSettings.h"
#include "Paths.h"
#include "PlayerFeaturesConfig.h"
#include "PlayerShortcutConfig.h"

#include <QDebug>
#include <QDir>
#include <QSettings>

namespace {

const char kPersistentInterfaceKey[] = "virtualbox.host_only_interface_name";

/// Older versions kept these in the native per-user settings; they no longer
/// belong there.
void dropRetiredNativeKeys()
{
    QSettings native(HalvistromAppUtils::getOrganizationName(), HalvistromAppUtils::getHalvistromAppName());
    const QString retired[] = {QStringLiteral("customer.email"), QStringLiteral("credentials.password")};
    for (const QString &key : retired) {
        // Checking first keeps a program that never had them from creating
        // the native file just to remove nothing.
        if (native.contains(key))
            native.remove(key);
    }
}

} // namespace

ApplicationConfig::ApplicationConfig()
{
    auto defaults = QSharedPointer<JsonSettings>::create(QStringLiteral(":/settings.json"), JsonSettings::ReadOnly);
    auto user = QSharedPointer<JsonSettings>::create(Paths::getHalvistromPath() + QStringLiteral("/settings.json"),
                                                     JsonSettings::ReadWrite);
    auto install = QSharedPointer<QSettings>::create(Paths::getLaunchpadDirPath() + QStringLiteral("/halvistrom.ini"),
                                                     QSettings::IniFormat);
    m_multiSettings = std::make_unique<MultiSettings>(defaults, user, install,
                                                      QSet<QString>{QString::fromLatin1(kPersistentInterfaceKey)});
    m_playerFeaturesConfig = std::make_unique<PlayerFeaturesConfig>(m_multiSettings.get());
    m_playerShortcutConfig = std::make_unique<PlayerShortcutConfig>(m_multiSettings.get());

    dropRetiredNativeKeys();

    // A user file that does not parse still holds the user's settings; the
    // machine defaults must not be written over it behind their back.
    if (user->hasUnreadableContent()) {
        qCWarning(hvSettingsLog) << "Settings file is not a JSON object, leaving it as it is until the next change:"
                   << user->getFilePath();
        return;
    }
    const std::pair<QString, QVariant> machineDefaults[] = {
        {QStringLiteral("screencast.directory"), Paths::getHomePath()},
        {QStringLiteral("version"), 1},
        {QStringLiteral("virtual_devices.directory"), Paths::getDeployedPath()},
    };
    for (const auto &[key, value] : machineDefaults) {
        if (!user->getValue(key).isValid())
            user->setValueIfNull(key, value);
    }
}

ApplicationConfig::~ApplicationConfig() = default;

MultiSettings *ApplicationConfig::getMultiSettings() const
{
    return m_multiSettings.get();
}

QSharedPointer<JsonSettings> ApplicationConfig::getUserSettings() const
{
    return m_multiSettings->getUserSettings();
}

PlayerFeaturesConfig *ApplicationConfig::getPlayerFeaturesConfig() const
{
    return m_playerFeaturesConfig.get();
}

PlayerShortcutConfig *ApplicationConfig::getPlayerShortcutConfig() const
{
    return m_playerShortcutConfig.get();
}
