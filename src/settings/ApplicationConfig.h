#pragma once

#include "JsonSettings.h"
#include "MultiSettings.h"
#include "PlayerFeaturesConfig.h"
#include "PlayerShortcutConfig.h"
#include "halvistromcore_export.h"

#include <QSharedPointer>

#include <memory>

/// The settings stack of one program: the compiled-in defaults, the user's
/// settings file in the product directory and the installation's INI file
/// beside the executable, plus the player's configuration on top of them.
/// The Settings facade makes one per process on first use.
class HALVISTROM_CORE_EXPORT ApplicationConfig
{
public:
    /// Builds the stack and fills the machine-dependent defaults
    /// ("screencast.directory", "version", "virtual_devices.directory") into
    /// the user file where it has none; existing values stay.
    ApplicationConfig();
    ~ApplicationConfig();
    ApplicationConfig(const ApplicationConfig &) = delete;
    ApplicationConfig &operator=(const ApplicationConfig &) = delete;

    MultiSettings *getMultiSettings() const;
    QSharedPointer<JsonSettings> getUserSettings() const;
    PlayerFeaturesConfig *getPlayerFeaturesConfig() const;
    PlayerShortcutConfig *getPlayerShortcutConfig() const;

private:
    std::unique_ptr<MultiSettings> m_multiSettings;
    std::unique_ptr<PlayerFeaturesConfig> m_playerFeaturesConfig;
    std::unique_ptr<PlayerShortcutConfig> m_playerShortcutConfig;
};
