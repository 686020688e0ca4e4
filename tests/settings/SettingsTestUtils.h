#pragma once

#include "MultiSettings.h"
#include "TestEnvironment.h"
#include "TestFiles.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>
#include <QTemporaryDir>

namespace hvtest {

/// A scratch directory for settings files, inside the test's own root.
class SettingsDir
{
public:
    QString path(const QString &name) const { return m_dir.filePath(name); }
    bool isValid() const { return m_dir.isValid(); }

private:
    QTemporaryDir m_dir{testRoot() + QStringLiteral("/settings-XXXXXX")};
};

/// A JSON object given as text (for expected values in tables).
inline QJsonObject parseObject(const QByteArray &json)
{
    return QJsonDocument::fromJson(json).object();
}
/// The file's root object; an empty object when it is not one.
inline QJsonObject readObject(const QString &path)
{
    return parseObject(readFile(path));
}

/// A settings stack over "defaults.json", "settings.json" and "halvistrom.ini"
/// in dir, the JSON files written first (user may be null: no user file).
inline std::unique_ptr<MultiSettings> makeStack(const SettingsDir &dir, const QByteArray &defaults,
                                                const QByteArray &user, const QSet<QString> &persistent = {})
{
    writeFile(dir.path(QStringLiteral("defaults.json")), defaults);
    if (!user.isNull())
        writeFile(dir.path(QStringLiteral("settings.json")), user);
    return std::make_unique<MultiSettings>(
        QSharedPointer<JsonSettings>::create(dir.path(QStringLiteral("defaults.json")), JsonSettings::ReadOnly),
        QSharedPointer<JsonSettings>::create(dir.path(QStringLiteral("settings.json")), JsonSettings::ReadWrite),
        QSharedPointer<QSettings>::create(dir.path(QStringLiteral("halvistrom.ini")), QSettings::IniFormat),
        persistent);
}

} // namespace hvtest
