#pragma once

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace hvtest {

/// Writes bytes as the whole file, making its folder first; false when it cannot.
inline bool writeFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(content) == content.size();
}

/// The file's bytes; empty when it cannot be read.
inline QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace hvtest
