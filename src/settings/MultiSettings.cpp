#include "MultiSettings.h"

#include "Logging_p.h"

#include <QDebug>
#include <QJsonObject>

namespace {

// The INI file gives strings back; an empty one is no value either.
bool hasValue(const QVariant &value)
{
    return value.isValid() && !(value.type() == QVariant::String && value.toString().isEmpty());
}

} // namespace

MultiSettings::MultiSettings(const QSharedPointer<JsonSettings> &defaults, const QSharedPointer<JsonSettings> &user,
                             const QSharedPointer<QSettings> &install, const QSet<QString> &persistentKeys)
    : m_defaults(defaults)
    , m_user(user)
    , m_install(install)
    , m_persistentKeys(persistentKeys)
{
    m_install->sync();
    if (m_install->status() != QSettings::NoError) {
        qCWarning(hvSettingsLog).noquote() << QStringLiteral("Cannot init install path settings (status=%1) %2")
                                    .arg(static_cast<int>(m_install->status()))
                                    .arg(m_install->fileName());
    }
    syncPersistentSettings();
}

QVariant MultiSettings::get(const QString &key) const
{
    if (m_persistentKeys.contains(key))
        return m_install->value(key);
    if (m_user->keyExists(key))
        return m_user->getValue(key);
    return m_defaults->getValue(key);
}

QVariant MultiSettings::get(const QString &key, const QVariant &def) const
{
    if (m_persistentKeys.contains(key))
        return m_install->value(key, def);
    if (m_user->keyExists(key))
        return m_user->getValue(key, def);
    if (m_defaults->keyExists(key))
        return m_defaults->getValue(key, def);
    return def;
}

void MultiSettings::set(const QString &key, const QVariant &value)
{
    if (!m_persistentKeys.contains(key)) {
        m_user->setValue(key, value);
        return;
    }
    if (value.isValid())
        m_install->setValue(key, value);
    else
        m_install->remove(key);
    m_install->sync();
    if (m_install->status() != QSettings::NoError)
        qCCritical(hvSettingsLog) << "Failed to write" << key << "to" << m_install->fileName();
}

void MultiSettings::removeKey(const QString &key)
{
    m_user->remove(key);
}

QVariant MultiSettings::getChildValue(const QStringList &path) const
{
    if (m_user->childKeyExists(path))
        return m_user->getChildValue(path);
    return m_defaults->getChildValue(path);
}

void MultiSettings::setChildValue(const QStringList &path, const QVariant &value)
{
    m_user->setChildValue(path, value);
}

void MultiSettings::resetChildValue(const QStringList &path)
{
    m_user->removeChild(path);
}

void MultiSettings::setDefaultChildValue(const QStringList &path)
{
    m_user->setChildValue(path, m_defaults->getChildValue(path));
}

bool MultiSettings::isOverriden(const QStringList &path) const
{
    const QVariant user = m_user->getChildValue(path);
    return user.isValid() && user != m_defaults->getChildValue(path);
}

QVariantMap MultiSettings::getAll() const
{
    QVariantMap all;
    const QJsonObject root = m_user->getRootObject();
    for (auto it = root.begin(); it != root.end(); ++it) {
        if (!it.value().isObject())
            all.insert(it.key(), get(it.key(), QVariant()));
    }
    for (const QString &key : m_persistentKeys)
        all.insert(key, get(key, QVariant()));
    return all;
}

QSharedPointer<JsonSettings> MultiSettings::getUserSettings() const
{
    return m_user;
}

QSharedPointer<JsonSettings> MultiSettings::getDefaultSettings() const
{
    return m_defaults;
}

void MultiSettings::syncPersistentSettings()
{
    // A user file nobody can read is left alone until a deliberate change.
    const bool userWritable = !m_user->hasUnreadableContent();
    for (const QString &key : m_persistentKeys) {
        const QVariant installValue = m_install->value(key);
        const QVariant userValue = m_user->getValue(key);
        if (hasValue(installValue) && !userValue.isValid()) {
            if (userWritable)
                m_user->setValue(key, installValue);
        } else if (!hasValue(installValue) && userValue.isValid()) {
            m_install->setValue(key, userValue);
            m_install->sync();
        }
    }
}
