#include "Settings.h"

#include "ApplicationConfig.h"
#include "Logging_p.h"
#include "MultiSettings.h"

#include <QDebug>
#include <QDir>

namespace {

ApplicationConfig &config()
{
    static ApplicationConfig instance;
    return instance;
}

} // namespace

QVariant Settings::get(const QString &key)
{
    return config().getMultiSettings()->get(key);
}

QVariant Settings::get(const QString &key, const QVariant &def)
{
    return config().getMultiSettings()->get(key, def);
}

void Settings::set(const QString &key, const QVariant &value)
{
    // Devices under a relative directory would land wherever the program
    // happens to run.
    if (key == QLatin1String("virtual_devices.directory")
        && (value.userType() != QMetaType::QString || !QDir::isAbsolutePath(value.toString()))) {
        qCWarning(hvSettingsLog) << "Refusing the setting" << key << "=" << value.toString() << ": it must be an absolute path";
        return;
    }
    config().getMultiSettings()->set(key, value);
}

void Settings::remove(const QString &key)
{
    config().getMultiSettings()->removeKey(key);
}

QVariantMap Settings::getAll()
{
    return config().getMultiSettings()->getAll();
}

QSharedPointer<JsonSettings> Settings::getUserSettings()
{
    return config().getUserSettings();
}

PlayerFeaturesConfig *Settings::getPlayerFeaturesConfig()
{
    return config().getPlayerFeaturesConfig();
}

PlayerShortcutConfig *Settings::getPlayerShortcutConfig()
{
    return config().getPlayerShortcutConfig();
}
