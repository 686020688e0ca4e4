#include "Archive.h"

#include "FileUtils.h"
#include "Logging_p.h"
#include "mtar.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

namespace {

// Large enough that reading and writing cost no more than they do for tar
// itself; allocated once per extraction, whatever the members' sizes.
constexpr uint32_t kChunkSize = 1u << 20;

// OS images are downloaded, so every name in the archive is hostile. An
// absolute name would be written wherever it points, and a name whose
// cleaned form starts with ".." climbs out of the destination; both are
// refused. QDir::isAbsolutePath also counts Qt resource names (":x") as
// absolute, which QDir::filePath would pass through unchanged.
bool escapesDestination(const QString &name)
{
    return QDir::isAbsolutePath(name) || QDir::cleanPath(name).startsWith(QLatin1String(".."));
}

// Names are UTF-8. One in another encoding is refused rather than decoded
// into something the archive never said.
bool isUtf8(const char *text)
{
    const auto *p = reinterpret_cast<const unsigned char *>(text);
    while (*p) {
        unsigned extra = 0;
        uint32_t code = *p;
        if (code < 0x80)
            extra = 0;
        else if ((code & 0xe0) == 0xc0)
            extra = 1, code &= 0x1f;
        else if ((code & 0xf0) == 0xe0)
            extra = 2, code &= 0x0f;
        else if ((code & 0xf8) == 0xf0)
            extra = 3, code &= 0x07;
        else
            return false;
        ++p;
        for (unsigned i = 0; i < extra; ++i, ++p) {
            if ((*p & 0xc0) != 0x80)
                return false;
            code = (code << 6) | (*p & 0x3f);
        }
        static const uint32_t kSmallest[] = {0, 0x80, 0x800, 0x10000};
        if (code < kSmallest[extra] || code > 0x10ffff || (code >= 0xd800 && code <= 0xdfff))
            return false;
    }
    return true;
}

bool isZero(const char *data, size_t size)
{
    return size == 0 || (data[0] == 0 && std::memcmp(data, data + 1, size - 1) == 0);
}

QString errnoText(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

// One extraction: the archive, the destination and where the reader is.
class Extraction
{
public:
    Extraction(const QString &tarPath, const QString &destDir)
        : m_tarPath(tarPath)
        , m_destDir(destDir)
        , m_buffer(kChunkSize)
    {
    }

    Archive::Result run(mtar_t &tar);

private:
    Archive::Result processEntry(mtar_t &tar, const mtar_header_t &h);
    Archive::Result extractFile(mtar_t &tar, const mtar_header_t &h, const QString &path);
    Archive::Result copyData(mtar_t &tar, int fd, const QString &path, const std::vector<mtar_sparse_t> &map);
    QString afterMember() const
    {
        return m_member.isNull() ? QStringLiteral("before its first member")
                                 : QStringLiteral("after member '%1'").arg(m_member);
    }

    QString m_tarPath;
    QString m_destDir;
    QString m_member; // the last member whose header was read
    std::vector<char> m_buffer;
};

Archive::Result Extraction::run(mtar_t &tar)
{
    mtar_header_t *h = new mtar_header_t;
    std::unique_ptr<mtar_header_t> owner(h);
    for (;;) {
        int ret = mtar_read_header(&tar, h);
        if (ret == MTAR_ENULLRECORD)
            return Archive::Success;
        if (ret == MTAR_ETRUNCATED) {
            qCCritical(hvArchiveLog).noquote() << QStringLiteral("Archive '%1' is truncated at byte %2, %3.")
                                         .arg(m_tarPath, QString::number(tar.error_offset), afterMember());
            return Archive::NextRecordFailed;
        }
        if (ret != MTAR_ESUCCESS) {
            qCCritical(hvArchiveLog).noquote() << QStringLiteral("Archive '%1' has a bad header at byte %2, %3: %4.")
                                         .arg(m_tarPath, QString::number(tar.error_offset), afterMember(),
                                              QString::fromUtf8(mtar_strerror(ret)));
            return Archive::NextRecordFailed;
        }
        m_member = QString::fromUtf8(h->name);
        const Archive::Result result = processEntry(tar, *h);
        if (result != Archive::Success) {
            qCCritical(hvArchiveLog) << "Failed to process tar archive record.";
            return result;
        }
        // A sparse member may hold data beyond its map, which is not read:
        // step on from the member's header.
        tar.remaining = 0;
        ret = mtar_seek(&tar, tar.header_offset);
        if (ret == MTAR_ESUCCESS)
            ret = mtar_next(&tar);
        if (ret != MTAR_ESUCCESS) {
            qCCritical(hvArchiveLog) << "Failed to iterate to next tar archive record ret=" << ret;
            return Archive::NextRecordFailed;
        }
    }
}

Archive::Result Extraction::processEntry(mtar_t &tar, const mtar_header_t &h)
{
    if (!isUtf8(h.name)) {
        qCCritical(hvArchiveLog).noquote() << QStringLiteral("Archive '%1' has a member name that is not UTF-8 at byte %2: '%3'.")
                                     .arg(m_tarPath, QString::number(tar.header_offset),
                                          QString::fromLatin1(QByteArray(h.name).toPercentEncoding("/")));
        return Archive::NameNotUtf8;
    }
    const QString &name = m_member;
    const QString path = QDir::cleanPath(QDir(m_destDir).filePath(name));
    if (escapesDestination(name)) {
        qCWarning(hvArchiveLog) << "Encountered path escape" << path;
        return Archive::PathEscape;
    }

    switch (h.type) {
    case MTAR_TDIR:
        if (!FileUtils::makeDirectory(path)) {
            qCCritical(hvArchiveLog).noquote() << "Destination directory cannot be created or is not accessible: '" + path + "'.";
            return Archive::CreateDirectoryFailed;
        }
        return Archive::Success;
    case MTAR_TREG:
    case MTAR_TCONT: {
        // Archives need not hold their parent directories; they are made
        // here, inside the destination (the name passed the escape test).
        const QString parent = QFileInfo(path).path();
        if (!FileUtils::makeDirectory(parent)) {
            qCCritical(hvArchiveLog).noquote() << "Destination directory cannot be created or is not accessible: '" + parent + "'.";
            return Archive::CreateDirectoryFailed;
        }
        return extractFile(tar, h, path);
    }
    case MTAR_TLNK:
    case MTAR_TSYM:
    case MTAR_TCHR:
    case MTAR_TBLK:
    case MTAR_TFIFO:
        qCWarning(hvArchiveLog).noquote() << "Skipping file '" + name + "' of unsupported type";
        return Archive::Success;
    default:
        // Old archives mark regular files with a NUL type byte; those are
        // skipped too rather than guessed at.
        qCWarning(hvArchiveLog).noquote() << "Skipping file '" + name + "' of unknown type";
        return Archive::Success;
    }
}

// The data goes out through one fixed buffer, so memory use stays the same
// whatever the member's size. Runs of zeros become holes: disk images are
// mostly empty, and sparse members say so outright.
Archive::Result Extraction::extractFile(mtar_t &tar, const mtar_header_t &h, const QString &path)
{
    std::vector<mtar_sparse_t> map;
    if (h.sparse_count) {
        uint64_t count = 0;
        const mtar_sparse_t *entries = mtar_sparse_map(&tar, &count);
        map.assign(entries, entries + count);
    } else {
        map.push_back({0, h.size});
    }

    // Extracted disks are the owner's alone, whatever the umask, also when a
    // member replaces one of the same name.
    const int fd = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW,
                          S_IRUSR | S_IWUSR);
    if (fd < 0 || ::fchmod(fd, S_IRUSR | S_IWUSR) != 0) {
        const int error = errno;
        if (fd >= 0)
            ::close(fd);
        errno = error;
        qCCritical(hvArchiveLog).noquote() << "Failed to open output file '" + path + "':" << errnoText(errno);
        return Archive::OutputOpenFailed;
    }
    Archive::Result result = copyData(tar, fd, path, map);
    if (result == Archive::Success) {
        // A file that ends in a hole gets its length from the member.
        const off_t end = lseek(fd, 0, SEEK_END);
        if (end < 0 || (uint64_t(end) < h.real_size && ftruncate(fd, off_t(h.real_size)) != 0)) {
            qCCritical(hvArchiveLog).noquote() << "Failed to set the size of '" + path + "':" << errnoText(errno);
            result = Archive::OutputFlushFailed;
        }
    }
    if (::close(fd) != 0 && result == Archive::Success) {
        qCCritical(hvArchiveLog).noquote() << "Got an error while flushing file '" + path + "':" << errnoText(errno);
        result = Archive::OutputFlushFailed;
    }
    return result;
}

Archive::Result Extraction::copyData(mtar_t &tar, int fd, const QString &path, const std::vector<mtar_sparse_t> &map)
{
    char *buffer = m_buffer.data();
    for (const mtar_sparse_t &stretch : map) {
        uint64_t at = stretch.offset;
        uint64_t left = stretch.size;
        while (left > 0) {
            const uint32_t chunk = uint32_t(std::min<uint64_t>(left, kChunkSize));
            const int ret = mtar_read_data(&tar, buffer, chunk);
            if (ret == MTAR_ETRUNCATED) {
                qCCritical(hvArchiveLog).noquote() << QStringLiteral("Archive '%1' is truncated at byte %2, in member '%3'.")
                                             .arg(m_tarPath, QString::number(tar.error_offset), m_member);
                return Archive::ReadDataFailed;
            }
            if (ret != MTAR_ESUCCESS) {
                qCCritical(hvArchiveLog).noquote() << QStringLiteral("Could not read archive '%1' at byte %2, in member '%3': %4")
                                             .arg(m_tarPath, QString::number(tar.offset), m_member,
                                                  QString::fromUtf8(mtar_strerror(ret)));
                return Archive::ReadDataFailed;
            }
            const bool hole = isZero(buffer, chunk);
            for (uint32_t done = 0; done < chunk && !hole;) {
                const ssize_t n = pwrite(fd, buffer + done, chunk - done, off_t(at + done));
                if (n < 0 && errno == EINTR)
                    continue;
                if (n <= 0) {
                    qCCritical(hvArchiveLog).noquote() << "Got an error while writing file chunk to disk: '" + path + "':"
                                          << errnoText(n < 0 ? errno : ENOSPC);
                    return Archive::OutputWriteFailed;
                }
                done += uint32_t(n);
            }
            at += chunk;
            left -= chunk;
        }
    }
    return Archive::Success;
}

} // namespace

Archive::Result Archive::untar(const QString &tarPath, const QString &destDir)
{
    const QFileInfo tarInfo(tarPath);
    if (!tarInfo.exists() || !tarInfo.isFile() || !tarInfo.isReadable()) {
        qCCritical(hvArchiveLog).noquote() << "Tar is not accessible and readable: '" + tarPath + "'.";
        return TarNotReadable;
    }
    if (!FileUtils::makeDirectory(destDir)) {
        qCCritical(hvArchiveLog).noquote() << "Destination directory cannot be created or is not accessible: '" + destDir + "'.";
        return CreateDirectoryFailed;
    }

    mtar_t tar;
    int ret = mtar_open(&tar, QFile::encodeName(tarPath).constData(), "r");
    if (ret != MTAR_ESUCCESS) {
        qCCritical(hvArchiveLog).noquote() << QStringLiteral("Fail to open archive '%1' with mtar_open(), ret = %2 (%3 at byte %4).")
                                     .arg(tarPath, QString::number(ret), QString::fromUtf8(mtar_strerror(ret)),
                                          QString::number(tar.error_offset));
        return OpenFailed;
    }

    const Result result = Extraction(tarPath, destDir).run(tar);
    ret = mtar_close(&tar);
    if (result != Success)
        return result;
    if (ret != MTAR_ESUCCESS) {
        qCCritical(hvArchiveLog).noquote() << "Fail to close archive '" + tarPath + "' with mtar_close() with ret =" << ret << ".";
        return CloseFailed;
    }
    return Success;
}

bool Archive::isOk(Result result)
{
    return result == Success;
}
