#include "SettingsTestUtils.h"

#include "TestEnvironment.h"

#include <QFile>
#include <QJsonDocument>

namespace hvtest {

SettingsDir::SettingsDir()
    : m_dir(testRoot() + QStringLiteral("/settings-XXXXXX"))
{
}

QString SettingsDir::path(const QString &name) const
{
    return m_dir.filePath(name);
}

bool writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(content) == content.size();
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QJsonObject readObject(const QString &path)
{
    return QJsonDocument::fromJson(readFile(path)).object();
}

QJsonObject parseObject(const QByteArray &json)
{
    return QJsonDocument::fromJson(json).object();
}

} // namespace hvtest
