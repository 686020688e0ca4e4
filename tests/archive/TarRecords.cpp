#include "TarRecords.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

#include <cstring>

namespace tarrecords {

namespace {

void putOctal(QByteArray &record, int offset, int width, quint64 value)
{
    const QByteArray digits = QByteArray::number(value, 8).rightJustified(width - 1, '0');
    std::memcpy(record.data() + offset, digits.constData(), static_cast<size_t>(width - 1));
}

} // namespace

quint32 checksum(const QByteArray &record)
{
    quint32 sum = 0;
    for (int i = 0; i < 512; ++i)
        sum += (i >= 148 && i < 156) ? quint32(' ') : quint32(static_cast<unsigned char>(record.at(i)));
    return sum;
}

QByteArray header(const QByteArray &name, char type, quint64 size, const QByteArray &linkname)
{
    QByteArray record(512, '\0');
    std::memcpy(record.data(), name.constData(), static_cast<size_t>(qMin(name.size(), 100)));
    putOctal(record, 100, 8, 0644);
    putOctal(record, 108, 8, 1000);
    putOctal(record, 116, 8, 1000);
    putOctal(record, 124, 12, size);
    putOctal(record, 136, 12, 1700000000);
    record[156] = type;
    std::memcpy(record.data() + 157, linkname.constData(), static_cast<size_t>(qMin(linkname.size(), 100)));
    std::memcpy(record.data() + 257, "ustar\0" "00", 8);
    const QByteArray sum = QByteArray::number(checksum(record), 8).rightJustified(6, '0');
    std::memcpy(record.data() + 148, sum.constData(), 6);
    record[154] = '\0';
    record[155] = ' ';
    return record;
}

QByteArray padded(const QByteArray &data)
{
    QByteArray out = data;
    if (out.size() % 512)
        out.append(QByteArray(512 - out.size() % 512, '\0'));
    return out;
}

QByteArray file(const QByteArray &name, const QByteArray &data)
{
    return header(name, '0', static_cast<quint64>(data.size())) + padded(data);
}

QByteArray dir(const QByteArray &name)
{
    return header(name, '5', 0);
}

QByteArray end()
{
    return QByteArray(1024, '\0');
}

QByteArray noise(int size, quint32 seed)
{
    QByteArray out(size, '\0');
    quint32 x = seed | 1u;
    for (int i = 0; i < size; ++i) {
        x ^= x << 13;
        x ^= x >> 17;
        x ^= x << 5;
        out[i] = static_cast<char>(x & 0xff);
    }
    return out;
}

bool writeFile(const QString &path, const QByteArray &data)
{
    QFile f(path);
    return f.open(QIODevice::WriteOnly | QIODevice::Truncate) && f.write(data) == data.size();
}

QByteArray readFile(const QString &path)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly))
        return QByteArray();
    return f.readAll();
}

QStringList listTree(const QString &root)
{
    QStringList entries;
    const QDir base(root);
    QDirIterator it(root, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        const QFileInfo info = it.fileInfo();
        const QString rel = base.relativeFilePath(info.filePath());
        if (info.isSymLink())
            entries << rel + " -> " + info.symLinkTarget();
        else if (info.isDir())
            entries << rel + "/";
        else
            entries << rel + " " + QString::number(info.size());
    }
    entries.sort();
    return entries;
}

} // namespace tarrecords
