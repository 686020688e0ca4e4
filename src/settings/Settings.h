#pragma once

#include "JsonSettings.h"
#include "PlayerFeaturesConfig.h"
#include "PlayerShortcutConfig.h"
#include "halvistromcore_export.h"

#include <QSharedPointer>
#include <QString>
#include <QVariant>
#include <QVariantMap>

/// The static settings facade every program reads and writes its settings
/// through. The settings stack behind it is built on first use, once per
/// process, and re-reads its files at every call, so changes made by the
/// product's other programs show at the next read.
class HALVISTROM_CORE_EXPORT Settings
{
public:
    /// The setting: an installation key from the INI file, else the user's
    /// value, else the compiled-in default (invalid when there is none).
    static QVariant get(const QString &key);
    /// As get(key), but def when the value is absent, null or an empty string.
    static QVariant get(const QString &key, const QVariant &def);
    /// Stores the setting; an invalid value removes it.
    static void set(const QString &key, const QVariant &value);
    /// Removes the key from the user's settings file.
    static void remove(const QString &key);
    /// Every top-level user setting and installation key with its value.
    static QVariantMap getAll();
    /// The user's settings file, for nested keys.
    static QSharedPointer<JsonSettings> getUserSettings();
    /// The player's tool bar and features; lives until the process ends.
    static PlayerFeaturesConfig *getPlayerFeaturesConfig();
    /// The player's shortcuts; lives until the process ends.
    static PlayerShortcutConfig *getPlayerShortcutConfig();

    /// Puts the variables of the environment file
    /// (generic config location + "/Corbelwick/HalvistromEnv.json") into the
    /// process environment. Variables already set win. An unreadable or
    /// malformed file, or a non-string value, ends the process.
    static void applyHalvistromEnv();
};
