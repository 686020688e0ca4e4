#include "PlayerShortcutConfig.h"

#include "MultiSettings.h"

namespace {

QStringList shortcutPath(PlayerFeaturesConfig::ActionId action)
{
    return QStringList{QStringLiteral("player"), QStringLiteral("shortcuts"),
                       PlayerFeaturesConfig::getActionStrFromId(action)};
}

} // namespace

PlayerShortcutConfig::PlayerShortcutConfig(MultiSettings *settings)
    : m_settings(settings)
{
}

QString PlayerShortcutConfig::getShortcut(PlayerFeaturesConfig::ActionId action) const
{
    return m_settings->getChildValue(shortcutPath(action)).toString();
}

void PlayerShortcutConfig::setShortcut(PlayerFeaturesConfig::ActionId action, const QString &shortcut)
{
    m_settings->setChildValue(shortcutPath(action), shortcut);
}

void PlayerShortcutConfig::resetShortcut(PlayerFeaturesConfig::ActionId action)
{
    m_settings->resetChildValue(shortcutPath(action));
}

bool PlayerShortcutConfig::isResetAvailable(PlayerFeaturesConfig::ActionId action) const
{
    return m_settings->isOverriden(shortcutPath(action));
}
