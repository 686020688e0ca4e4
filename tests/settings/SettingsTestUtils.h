#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QTemporaryDir>

namespace hvtest {

/// A scratch directory for settings files, inside the test's own root.
class SettingsDir
{
public:
    SettingsDir();
    QString path(const QString &name) const;
    bool isValid() const { return m_dir.isValid(); }

private:
    QTemporaryDir m_dir;
};

/// Writes bytes as the whole file; false when it cannot.
bool writeFile(const QString &path, const QByteArray &content);
QByteArray readFile(const QString &path);
/// The file's root object; an empty object when it is not one.
QJsonObject readObject(const QString &path);
/// Parses a JSON object given as text (for expected values in tables).
QJsonObject parseObject(const QByteArray &json);

} // namespace hvtest
