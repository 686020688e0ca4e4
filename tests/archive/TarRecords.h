#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

// Archive bytes written independently of the mtar writer, so the reader is
// never checked against its own twin.
namespace tarrecords {

/// A ustar header record (magic "ustar", version "00") with a correct
/// checksum; numbers are zero-padded octal as other writers produce them.
QByteArray header(const QByteArray &name, char type, quint64 size, const QByteArray &linkname = QByteArray());
/// The header's checksum: the byte sum with the checksum field as spaces.
quint32 checksum(const QByteArray &record);
/// Entry data padded with zeros to whole records.
QByteArray padded(const QByteArray &data);
/// A regular file entry with its data.
QByteArray file(const QByteArray &name, const QByteArray &data);
/// A directory entry.
QByteArray dir(const QByteArray &name);
/// The two null records that end an archive.
QByteArray end();

/// Deterministic pseudo-random bytes, so large test files differ everywhere.
QByteArray noise(int size, quint32 seed);

bool writeFile(const QString &path, const QByteArray &data);
QByteArray readFile(const QString &path);
/// Every file and directory below root, relative, with "/" after directories
/// and the size after files, sorted.
QStringList listTree(const QString &root);

} // namespace tarrecords
