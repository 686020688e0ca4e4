#include "RecordDirectory.h"

#include <QDir>

QString RecordDirectory::bareUuid(const QString &uuid)
{
    QString text = uuid.trimmed();
    if (text.startsWith(QLatin1Char('{')) && text.endsWith(QLatin1Char('}')))
        text = text.mid(1, text.size() - 2);
    return text.toLower();
}

QStringList RecordDirectory::files(const QString &dir)
{
    QStringList files;
    const QFileInfoList entries = QDir(dir).entryInfoList({QStringLiteral("*.json")}, QDir::Files, QDir::Name);
    for (const QFileInfo &entry : entries)
        files << entry.absoluteFilePath();
    return files;
}

bool RecordDirectory::isDirectlyInside(const QString &file, const QString &dir)
{
    const QFileInfo entry(file);
    const QString name = entry.fileName();
    if (name.isEmpty() || name == QLatin1String(".") || name == QLatin1String(".."))
        return false;
    const QString parent = QFileInfo(entry.absolutePath()).canonicalFilePath();
    return !parent.isEmpty() && parent == QFileInfo(dir).canonicalFilePath();
}

bool RecordDirectory::isFileName(const QString &uuid, const QString &dir)
{
    const QString name = bareUuid(uuid);
    return !name.isEmpty() && !name.contains(QLatin1Char('/')) && !name.contains(QLatin1Char('\\'))
        && !name.contains(QChar(0)) && isDirectlyInside(QDir(dir).filePath(name + ".json"), dir);
}
