#include "QEMUSnapshotTable.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QtEndian>

namespace {

// Limits of the format itself; anything above is a damaged or hostile file.
constexpr quint32 kMaxSnapshots = 65536;
constexpr quint32 kMaxExtraData = 1024;
constexpr quint32 kHeaderSize = 72;
constexpr quint32 kEntryFixedSize = 40;
// The format keeps backing file names below 1024 bytes.
constexpr quint32 kMaxBackingName = 1023;

} // namespace

namespace {

// Reads the table entry at the file's position into info and moves past it.
bool readEntry(QFile &file, QEMUSnapshotInfo *info, QString *error)
{
    const qint64 start = file.pos();
    const QByteArray fixed = file.read(kEntryFixedSize);
    if (fixed.size() < int(kEntryFixedSize)) {
        *error = QStringLiteral("truncated snapshot table");
        return false;
    }
    const auto *e = reinterpret_cast<const uchar *>(fixed.constData());
    const quint16 idSize = qFromBigEndian<quint16>(e + 12);
    const quint16 nameSize = qFromBigEndian<quint16>(e + 14);
    const quint32 extraSize = qFromBigEndian<quint32>(e + 36);
    if (extraSize > kMaxExtraData) {
        *error = QStringLiteral("damaged snapshot table");
        return false;
    }
    const QByteArray rest = file.read(qint64(extraSize) + idSize + nameSize);
    if (rest.size() != int(extraSize + idSize + nameSize)) {
        *error = QStringLiteral("truncated snapshot table");
        return false;
    }
    info->name = QString::fromUtf8(rest.mid(int(extraSize + idSize), nameSize));
    info->date = QDateTime::fromSecsSinceEpoch(qFromBigEndian<quint32>(e + 16));
    info->guestClockNs = qint64(qFromBigEndian<quint64>(e + 24) & 0x7fffffffffffffffULL);
    info->vmStateSize = qFromBigEndian<quint32>(e + 32);
    // Version 3 images keep the full 64-bit state size in the extra data.
    if (extraSize >= 8)
        info->vmStateSize =
            qint64(qFromBigEndian<quint64>(reinterpret_cast<const uchar *>(rest.constData())) & 0x7fffffffffffffffULL);
    // Entries are padded to a multiple of eight bytes.
    const qint64 length = file.pos() - start;
    if (!file.seek(start + ((length + 7) & ~qint64(7)))) {
        *error = QStringLiteral("truncated snapshot table");
        return false;
    }
    return true;
}

} // namespace

bool QEMUSnapshotTable::read(const QString &path, QList<QEMUSnapshotInfo> *snapshots, QString *error)
{
    snapshots->clear();
    QList<QEMUSnapshotInfo> found;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        *error = file.errorString();
        return false;
    }
    const QByteArray header = file.read(kHeaderSize);
    if (header.size() < int(kHeaderSize) || !header.startsWith("QFI\xfb")) {
        *error = QStringLiteral("not a qcow2 image");
        return false;
    }
    const auto *h = reinterpret_cast<const uchar *>(header.constData());
    const quint32 count = qFromBigEndian<quint32>(h + 60);
    const quint64 offset = qFromBigEndian<quint64>(h + 64);
    if (count == 0)
        return true;
    if (count > kMaxSnapshots || offset >= quint64(file.size()) || !file.seek(qint64(offset))) {
        *error = QStringLiteral("damaged snapshot table");
        return false;
    }
    for (quint32 i = 0; i < count; ++i) {
        QEMUSnapshotInfo info;
        if (!readEntry(file, &info, error))
            return false;
        found.append(info);
    }
    *snapshots = found;
    return true;
}

bool QEMUSnapshotTable::readNames(const QString &path, QStringList *names, QString *error)
{
    names->clear();
    QList<QEMUSnapshotInfo> snapshots;
    if (!read(path, &snapshots, error))
        return false;
    for (const QEMUSnapshotInfo &snapshot : snapshots)
        names->append(snapshot.name);
    return true;
}

QString QEMUSnapshotTable::backingFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QString();
    const QByteArray header = file.read(kHeaderSize);
    if (header.size() < int(kHeaderSize) || !header.startsWith("QFI\xfb"))
        return QString();
    const auto *h = reinterpret_cast<const uchar *>(header.constData());
    const quint64 offset = qFromBigEndian<quint64>(h + 8);
    const quint32 size = qFromBigEndian<quint32>(h + 16);
    if (offset == 0 || size == 0 || size > kMaxBackingName || !file.seek(qint64(offset)))
        return QString();
    const QByteArray name = file.read(size);
    if (name.size() != int(size))
        return QString();
    return QDir::cleanPath(QFileInfo(path).absoluteDir().absoluteFilePath(QFile::decodeName(name)));
}
