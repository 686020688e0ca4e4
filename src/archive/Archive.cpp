#include "Archive.h"

#include "mtar.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cstring>

namespace {

constexpr uint32_t kChunkSize = 4096;

// OS images are downloaded, so every name in the archive is hostile. An
// absolute name would be written wherever it points, and a name whose
// cleaned form starts with ".." climbs out of the destination; both are
// refused. QDir::isAbsolutePath also counts Qt resource names (":x") as
// absolute, which QDir::filePath would pass through unchanged.
bool escapesDestination(const QString &name)
{
    return QDir::isAbsolutePath(name) || QDir::cleanPath(name).startsWith(QLatin1String(".."));
}

bool writeFileChunk(QFile &file, const char *data, qint64 size)
{
    qint64 written = 0;
    while (written < size) {
        const qint64 n = file.write(data + written, size - written);
        if (n < 0) {
            qCritical() << "Got an error while writing file chunk to disk:" << file.errorString();
            return false;
        }
        written += n;
    }
    return true;
}

// Streams the entry's data through one fixed buffer, so memory use stays the
// same whatever the entry's size.
Archive::Result extractFile(mtar_t &tar, const mtar_header_t &h, const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Truncate)) {
        qCritical().noquote() << "Failed to open QFile: '" + path + "'";
        return Archive::OutputOpenFailed;
    }
    char buffer[kChunkSize];
    std::memset(buffer, 0, sizeof buffer);
    uint32_t left = h.size;
    while (left > 0) {
        const uint32_t chunk = std::min(left, kChunkSize);
        const int ret = mtar_read_data(&tar, buffer, chunk);
        if (ret != MTAR_ESUCCESS) {
            qCritical() << "Result calling mtar_read_data(): ret =" << ret;
            return Archive::ReadDataFailed;
        }
        if (!writeFileChunk(file, buffer, chunk)) {
            qCritical() << "Result calling writeFileChunk().";
            return Archive::OutputWriteFailed;
        }
        left -= chunk;
    }
    if (!file.flush()) {
        qCritical() << "Got an error while flushing file.";
        return Archive::OutputFlushFailed;
    }
    return Archive::Success;
}

Archive::Result processEntry(mtar_t &tar, const mtar_header_t &h, const QString &destDir)
{
    const QString name = QString::fromLatin1(h.name, static_cast<int>(strnlen(h.name, sizeof h.name)));
    const QString path = QDir::cleanPath(QDir(destDir).filePath(name));
    if (escapesDestination(name)) {
        qWarning() << "Encountered path escape" << path;
        return Archive::PathEscape;
    }

    switch (h.type) {
    case MTAR_TDIR:
        if (!QDir().mkpath(path)) {
            qCritical().noquote() << "Destination directory cannot be created or is not accessible: '" + path + "'.";
            return Archive::CreateDirectoryFailed;
        }
        return Archive::Success;
    case MTAR_TREG:
        return extractFile(tar, h, path);
    case MTAR_TLNK:
    case MTAR_TSYM:
    case MTAR_TCHR:
    case MTAR_TBLK:
    case MTAR_TFIFO:
        qWarning().noquote() << "Skipping file '" + name + "' of unsupported type";
        return Archive::Success;
    default:
        // Old archives mark regular files with a NUL type byte; those are
        // skipped too rather than guessed at.
        qWarning().noquote() << "Skipping file '" + name + "' of unknown type";
        return Archive::Success;
    }
}

} // namespace

Archive::Result Archive::untar(const QString &tarPath, const QString &destDir)
{
    const QFileInfo tarInfo(tarPath);
    if (!tarInfo.exists() || !tarInfo.isFile() || !tarInfo.isReadable()) {
        qCritical().noquote() << "Tar is not accessible and readable: '" + tarPath + "'.";
        return TarNotReadable;
    }
    if (!QDir().mkpath(destDir)) {
        qCritical().noquote() << "Destination directory cannot be created or is not accessible: '" + destDir + "'.";
        return CreateDirectoryFailed;
    }

    mtar_t tar;
    int ret = mtar_open(&tar, QFile::encodeName(tarPath).constData(), "r");
    if (ret != MTAR_ESUCCESS) {
        qCritical().noquote() << "Fail to open archive '" + tarPath + "' with mtar_open(), ret =" << ret << ".";
        return OpenFailed;
    }

    mtar_header_t h;
    // A header that fails to read for any reason but the end marker is not
    // checked here: the cleared header passes as an unnamed entry of unknown
    // type, and stepping past it fails with the same error.
    std::memset(&h, 0, sizeof h);
    while (mtar_read_header(&tar, &h) != MTAR_ENULLRECORD) {
        const Result result = processEntry(tar, h, destDir);
        if (result != Success) {
            qCritical() << "Failed to process tar archive record.";
            mtar_close(&tar);
            return result;
        }
        ret = mtar_next(&tar);
        if (ret != MTAR_ESUCCESS) {
            qCritical() << "Failed to iterate to next tar archive record ret=" << ret;
            mtar_close(&tar);
            return NextRecordFailed;
        }
        std::memset(&h, 0, sizeof h);
    }

    ret = mtar_close(&tar);
    if (ret != MTAR_ESUCCESS) {
        qCritical().noquote() << "Fail to close archive '" + tarPath + "' with mtar_close() with ret =" << ret << ".";
        return CloseFailed;
    }
    return Success;
}

bool Archive::isOk(Result result)
{
    return result == Success;
}
