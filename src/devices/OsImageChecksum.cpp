#include "OsImageChecksum.h"

#include "FileUtils.h"
#include "Logging_p.h"
#include "Paths.h"
#include "Sha256.h"

#include <QCryptographicHash>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

namespace {

// What tells that a file is unchanged since it was hashed.
QJsonObject fileIdentity(const QString &path, QString *error)
{
    struct stat st;
    if (::stat(QFile::encodeName(path).constData(), &st) != 0) {
        *error = QString::fromLocal8Bit(std::strerror(errno));
        return QJsonObject();
    }
    // Numbers as text: a JSON double loses nanoseconds and large inodes.
    return QJsonObject{{QStringLiteral("path"), path},
                       {QStringLiteral("size"), QString::number(qint64(st.st_size))},
                       {QStringLiteral("mtime_ns"), QString::number(qint64(st.st_mtim.tv_sec) * 1000000000
                                                                    + st.st_mtim.tv_nsec)},
                       {QStringLiteral("inode"), QString::number(quint64(st.st_ino))},
                       {QStringLiteral("device"), QString::number(quint64(st.st_dev))}};
}

// One small file per archive path, so that programs hashing different
// archives at once never write the same file.
QString entryPath(const QString &path)
{
    const QByteArray key = QCryptographicHash::hash(path.toUtf8(), QCryptographicHash::Sha256).toHex();
    return QDir(Paths::getHalvistromCachePath()).absoluteFilePath(QStringLiteral("checksums/") + QLatin1String(key)
                                                                  + QStringLiteral(".json"));
}

QJsonObject readEntry(const QString &path)
{
    QFile file(entryPath(path));
    if (!file.open(QIODevice::ReadOnly) || file.size() > 4096)
        return QJsonObject();
    return QJsonDocument::fromJson(file.readAll()).object();
}

QString hashFile(const QString &path, const OsImageChecksum::Progress &progress, QString *error)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = file.errorString();
        return QString();
    }
    Sha256 hash;
    QByteArray buffer(1 << 20, Qt::Uninitialized);
    qint64 done = 0;
    for (;;) {
        const qint64 n = file.read(buffer.data(), buffer.size());
        if (n < 0) {
            *error = file.errorString();
            return QString();
        }
        if (n == 0)
            break;
        hash.addData(buffer.constData(), n);
        done += n;
        if (progress)
            progress(done);
    }
    return hash.hexResult();
}

void keepEntry(QJsonObject entry, const QString &checksum)
{
    const QString path = entry.value(QStringLiteral("path")).toString();
    entry.insert(QStringLiteral("sha256"), checksum);
    const QString kept = entryPath(path);
    // Only a cache: a checksum that cannot be kept is computed again next time.
    if (!FileUtils::makeDirectory(QFileInfo(kept).absolutePath()) || !FileUtils::saveFile(kept, QJsonDocument(entry).toJson()))
        qCWarning(hvDevicesLog) << "Failed to keep the checksum of" << path << "in" << kept;
}

} // namespace

bool OsImageChecksum::isChecksum(const QString &text)
{
    static const QRegularExpression hex(QStringLiteral("^[0-9a-f]{64}$"));
    return hex.match(text).hasMatch();
}

QString OsImageChecksum::compute(const QString &file, const Progress &progress, QString *error)
{
    QString ignored;
    QString &why = error ? *error : ignored;
    const QString path = QFileInfo(file).absoluteFilePath();
    const QJsonObject before = fileIdentity(path, &why);
    if (before.isEmpty())
        return QString();
    const QString checksum = hashFile(path, progress, &why);
    if (checksum.isEmpty())
        return QString();
    // A file written to while it was read has no checksum worth keeping.
    if (fileIdentity(path, &why) != before) {
        why = QStringLiteral("the file changed while it was read");
        return QString();
    }
    keepEntry(before, checksum);
    return checksum;
}

void OsImageChecksum::keep(const QString &file, const QString &checksum)
{
    QString ignored;
    const QJsonObject identity = fileIdentity(QFileInfo(file).absoluteFilePath(), &ignored);
    if (!identity.isEmpty() && isChecksum(checksum))
        keepEntry(identity, checksum);
}

QString OsImageChecksum::get(const QString &file, const Progress &progress, QString *error)
{
    QString ignored;
    const QString path = QFileInfo(file).absoluteFilePath();
    QJsonObject entry = readEntry(path);
    const QString kept = entry.take(QStringLiteral("sha256")).toString();
    if (isChecksum(kept) && entry == fileIdentity(path, error ? error : &ignored))
        return kept;
    return compute(path, progress, error);
}

QString OsImageChecksum::lastKnown(const QString &file)
{
    const QString path = QFileInfo(file).absoluteFilePath();
    const QJsonObject entry = readEntry(path);
    const QString kept = entry.value(QStringLiteral("sha256")).toString();
    return entry.value(QStringLiteral("path")).toString() == path && isChecksum(kept) ? kept : QString();
}
