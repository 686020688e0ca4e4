#pragma once

#include "TestFiles.h"

#include <QDirIterator>

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <vector>

// Archive bytes written independently of the mtar writer, so the reader is
// never checked against its own twin.
namespace tarrecords {

using hvtest::readFile;
using hvtest::writeFile;

/// The header's checksum: the byte sum with the checksum field as spaces.
inline quint32 checksum(const QByteArray &record)
{
    quint32 sum = 0;
    for (int i = 0; i < 512; ++i)
        sum += (i >= 148 && i < 156) ? quint32(' ') : quint32(static_cast<unsigned char>(record.at(i)));
    return sum;
}

/// A ustar header record (magic "ustar", version "00") with a correct
/// checksum; numbers are zero-padded octal as other writers produce them.
inline QByteArray header(const QByteArray &name, char type, quint64 size, const QByteArray &linkname = {})
{
    QByteArray r(512, '\0');
    const auto put = [&r](int offset, const QByteArray &bytes, int width) {
        std::memcpy(r.data() + offset, bytes.constData(), static_cast<size_t>(qMin(bytes.size(), width)));
    };
    const auto octal = [](quint64 value, int width) { return QByteArray::number(value, 8).rightJustified(width, '0'); };
    put(0, name, 100);
    put(100, octal(0644, 7), 7);
    put(108, octal(1000, 7), 7);
    put(116, octal(1000, 7), 7);
    put(124, octal(size, 11), 11);
    put(136, octal(1700000000, 11), 11);
    r[156] = type;
    put(157, linkname, 100);
    put(257, QByteArray("ustar\0" "00", 8), 8);
    put(148, octal(checksum(r), 6), 6);
    r[155] = ' ';
    return r;
}

/// A pax extended header ('x', or 'g' for a global one) holding these
/// keyword=value records, each "LENGTH KEY=VALUE\n".
inline QByteArray pax(const QList<QPair<QByteArray, QByteArray>> &records, char type = 'x');
/// A GNU long-name record ('L', or 'K' for a link target) before a header.
inline QByteArray gnuLongName(const QByteArray &name, char type = 'L');
/// The record with its checksum recomputed after a field was changed.
inline QByteArray resealed(QByteArray r)
{
    const QByteArray sum = QByteArray::number(checksum(r), 8).rightJustified(6, '0') + '\0';
    std::memcpy(r.data() + 148, sum.constData(), 7);
    r[155] = ' ';
    return r;
}
/// A header whose 12-byte size field holds the GNU base-256 encoding.
inline QByteArray base256Header(const QByteArray &name, quint64 size)
{
    QByteArray r = header(name, '0', 0);
    r[124] = char(0x80);
    for (int i = 11; i > 0; --i, size >>= 8)
        r[124 + i] = char(size & 0xff);
    return resealed(r);
}

/// Entry data padded with zeros to whole records.
inline QByteArray padded(QByteArray data)
{
    return data.append(QByteArray((512 - data.size() % 512) % 512, '\0'));
}
inline QByteArray file(const QByteArray &name, const QByteArray &data)
{
    return header(name, '0', static_cast<quint64>(data.size())) + padded(data);
}
inline QByteArray dir(const QByteArray &name) { return header(name, '5', 0); }
/// The two null records that end an archive.
inline QByteArray end() { return QByteArray(1024, '\0'); }

inline QByteArray pax(const QList<QPair<QByteArray, QByteArray>> &records, char type)
{
    QByteArray data;
    for (const auto &record : records) {
        const QByteArray body = " " + record.first + "=" + record.second + "\n";
        int length = body.size() + 1;
        while (QByteArray::number(length).size() + body.size() != length)
            ++length;
        data += QByteArray::number(length) + body;
    }
    return header("PaxHeaders/x", type, quint64(data.size())) + padded(data);
}

inline QByteArray gnuLongName(const QByteArray &name, char type)
{
    const QByteArray data = name + '\0';
    return header("././@LongLink", type, quint64(data.size())) + padded(data);
}

/// Deterministic pseudo-random bytes, so large test files differ everywhere.
inline QByteArray noise(int size, quint32 seed)
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

/// Every file and directory below root, relative, with "/" after directories
/// and the size after files, sorted.
inline QStringList listTree(const QString &root)
{
    QStringList entries;
    QDirIterator it(root, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        const QFileInfo info = it.fileInfo();
        const QString rel = QDir(root).relativeFilePath(info.filePath());
        if (info.isSymLink())
            entries << rel + " -> " + info.symLinkTarget();
        else
            entries << (info.isDir() ? rel + "/" : rel + " " + QString::number(info.size()));
    }
    entries.sort();
    return entries;
}

/// Byte-for-byte equality of two files that may be sparse and many GiB
/// large: only the stretches that hold data in either file are read, the
/// rest is a hole in both and reads as zeros.
inline bool sameContent(const QString &a, const QString &b)
{
    const int fds[2] = {::open(QFile::encodeName(a).constData(), O_RDONLY | O_CLOEXEC),
                        ::open(QFile::encodeName(b).constData(), O_RDONLY | O_CLOEXEC)};
    const auto closeBoth = [&fds] {
        for (int fd : fds) {
            if (fd >= 0)
                ::close(fd);
        }
    };
    if (fds[0] < 0 || fds[1] < 0 || lseek(fds[0], 0, SEEK_END) != lseek(fds[1], 0, SEEK_END)) {
        closeBoth();
        return false;
    }
    std::vector<std::pair<off_t, off_t>> stretches;
    for (int fd : fds) {
        for (off_t at = 0, data; (data = lseek(fd, at, SEEK_DATA)) >= 0; at = lseek(fd, data, SEEK_HOLE))
            stretches.emplace_back(data, lseek(fd, data, SEEK_HOLE));
    }
    std::vector<char> x(1 << 20), y(1 << 20);
    for (const auto &[from, to] : stretches) {
        for (off_t at = from; at < to; at += off_t(x.size())) {
            const size_t n = size_t(std::min<off_t>(off_t(x.size()), to - at));
            if (pread(fds[0], x.data(), n, at) != ssize_t(n) || pread(fds[1], y.data(), n, at) != ssize_t(n)
                || std::memcmp(x.data(), y.data(), n) != 0) {
                closeBoth();
                return false;
            }
        }
    }
    closeBoth();
    return true;
}

/// Regular files below root (no links), relative.
inline QStringList regularFiles(const QString &root)
{
    QStringList files;
    QDirIterator it(root, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        it.next();
        if (!it.fileInfo().isSymLink())
            files << QDir(root).relativeFilePath(it.filePath());
    }
    files.sort();
    return files;
}

} // namespace tarrecords
