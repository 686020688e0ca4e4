#pragma once

#include "JsonSettings.h"
#include "halvistromcore_export.h"

#include <QObject>
#include <QSet>
#include <QSettings>
#include <QSharedPointer>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVariantMap>

/// The settings a program sees: the user's JSON file over the read-only
/// defaults, plus a few persistent keys that belong to the installation and
/// live in an INI file beside the executable.
class HALVISTROM_CORE_EXPORT MultiSettings : public QObject
{
    Q_OBJECT
public:
    /// Takes the stores, checks the INI file (a warning when it is unusable;
    /// its values then read as absent) and syncs the persistent keys.
    MultiSettings(const QSharedPointer<JsonSettings> &defaults, const QSharedPointer<JsonSettings> &user,
                  const QSharedPointer<QSettings> &install, const QSet<QString> &persistentKeys);

    /// A persistent key from the INI file; else the user's value when the
    /// user file has the key; else the default (invalid when there is none).
    QVariant get(const QString &key) const;
    /// A persistent key from the INI file or def; else the user's value read
    /// with def when the user file has the key; else the default read with
    /// def. So a user value that is "" or null gives def, not the default.
    QVariant get(const QString &key, const QVariant &def) const;
    /// A persistent key goes to the INI file, synced at once; any other key
    /// to the user file.
    void set(const QString &key, const QVariant &value);
    /// Removes the key from the user file.
    void removeKey(const QString &key);

    /// The user's value when the user file has the path, else the default.
    QVariant getChildValue(const QStringList &path) const;
    void setChildValue(const QStringList &path, const QVariant &value);
    /// Removes the path from the user file, so the default shows again.
    void resetChildValue(const QStringList &path);
    /// Copies the default at the path into the user file (removes it there
    /// when there is no default).
    void setDefaultChildValue(const QStringList &path);
    /// Whether the user file holds a non-null value at the path that differs
    /// from the default.
    bool isOverriden(const QStringList &path) const;

    /// Every top-level non-object key of the user file, then every persistent
    /// key, each with its value as get(key, QVariant()) gives it.
    QVariantMap getAll() const;

    QSharedPointer<JsonSettings> getUserSettings() const;
    QSharedPointer<JsonSettings> getDefaultSettings() const;

    /// Copies each persistent key that only one side has to the other side;
    /// when both have a value the INI file's wins at every read.
    void syncPersistentSettings();

private:
    QSharedPointer<JsonSettings> m_defaults;
    QSharedPointer<JsonSettings> m_user;
    QSharedPointer<QSettings> m_install;
    QSet<QString> m_persistentKeys;
};
