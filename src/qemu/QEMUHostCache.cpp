#include "QEMUHostCache_p.h"

#include "FileUtils.h"
#include "Paths.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>

#include <sys/stat.h>

namespace {

// Each file holds a few entries of a few hundred bytes.
const qint64 kMaxCacheSize = 64 * 1024;

QString cachePath(const QString &name)
{
    return Paths::getHalvistromCachePath() + name;
}

} // namespace

namespace QEMUHostCache {

QJsonObject fileIdentity(const QString &path)
{
    struct stat st;
    if (::stat(QFile::encodeName(path).constData(), &st) != 0)
        return QJsonObject();
    const qint64 mtimeNs = qint64(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
    return QJsonObject{{QStringLiteral("size"), QString::number(qint64(st.st_size))},
                       {QStringLiteral("mtime_ns"), QString::number(mtimeNs)},
                       {QStringLiteral("device"), QString::number(quint64(st.st_dev))},
                       {QStringLiteral("inode"), QString::number(quint64(st.st_ino))}};
}

QJsonObject read(const QString &name)
{
    QFile file(cachePath(name));
    if (!file.open(QIODevice::ReadOnly) || file.size() > kMaxCacheSize)
        return QJsonObject();
    return QJsonDocument::fromJson(file.readAll()).object();
}

void store(const QString &name, const QString &key, const QJsonObject &entry)
{
    QJsonObject cache = read(name);
    cache.insert(key, entry);
    FileUtils::makeDirectory(Paths::getHalvistromCachePath());
    FileUtils::saveFile(cachePath(name), QJsonDocument(cache).toJson(QJsonDocument::Compact));
}

} // namespace QEMUHostCache
