#pragma once

#include "MultiSettings.h"
#include "PlayerFeaturesConfig.h"
#include "halvistromcore_export.h"

#include <QString>

/// The player's keyboard shortcut of each action, stored under "player" /
/// "shortcuts" / the action's name. The user's shortcut wins over the
/// default one until it is reset.
class HALVISTROM_CORE_EXPORT PlayerShortcutConfig
{
public:
    /// settings is not owned.
    explicit PlayerShortcutConfig(MultiSettings *settings);

    /// The user's shortcut text, else the default one, else "".
    QString getShortcut(PlayerFeaturesConfig::ActionId action) const;
    /// Stores the shortcut text in the user file.
    void setShortcut(PlayerFeaturesConfig::ActionId action, const QString &shortcut);
    /// Removes the user's shortcut so the default applies again.
    void resetShortcut(PlayerFeaturesConfig::ActionId action);
    /// Whether the user's shortcut differs from the default.
    bool isResetAvailable(PlayerFeaturesConfig::ActionId action) const;

private:
    MultiSettings *m_settings;
};
