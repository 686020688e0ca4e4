#include "FileUtils.h"

#include <QDebug>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonParseError>

bool FileUtils::copyDirectory(const QString &src, const QString &dst)
{
    const QFileInfo source(src);
    if (source.isFile()) {
        const bool dirMade = QFileInfo(dst).absoluteDir().mkpath(QStringLiteral("."));
        return dirMade && QFile::copy(src, dst);
    }
    if (source.isDir()) {
        const QStringList names =
            QDir(src).entryList(QDir::Dirs | QDir::Files | QDir::NoSymLinks | QDir::NoDotAndDotDot | QDir::Hidden,
                                QDir::Unsorted);
        for (const QString &name : names) {
            if (!copyDirectory(src + QLatin1Char('/') + name, dst + QLatin1Char('/') + name)) {
                qCritical() << "Failed to copy" << name << "from" << src << "to" << dst;
                return false;
            }
        }
        return true;
    }
    qCritical() << "Failed to copy" << src << ". It's not a file nor a dir";
    return false;
}

QByteArray FileUtils::loadFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        qWarning() << "Failed to open" << path << file.errorString();
        return QByteArray();
    }
    const QByteArray content = file.readAll();
    if (file.error() != QFileDevice::NoError) {
        qWarning() << "Failed to read" << path << file.errorString();
        return QByteArray();
    }
    return content;
}

QJsonDocument FileUtils::loadJson(const QString &path)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(loadFile(path), &error);
    if (error.error != QJsonParseError::NoError) {
        qWarning() << "Failed to read json from" << path << error.errorString();
        return QJsonDocument();
    }
    return document;
}

void FileUtils::walkDirectory(const QString &dir, const QStringList &nameFilters,
                              const std::function<void(QFile *)> &visit)
{
    QDirIterator it(dir, nameFilters, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        QFile file(it.next());
        visit(&file);
    }
}
