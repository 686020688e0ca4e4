#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QString>

#include <cerrno>
#include <cstring>
#include <sys/mount.h>
#include <unistd.h>

namespace hvtest {

/// A small tmpfs mounted at a directory for the life of the object: a real
/// file system that fills up. Mounting needs root; why it could not be
/// mounted is in skipReason().
class ScopedTmpfs
{
public:
    ScopedTmpfs(const QString &path, int sizeKiB) : m_path(path)
    {
        QDir().mkpath(path);
        if (::geteuid() != 0) {
            m_skipReason = "mounting a tmpfs to fill up needs root";
            return;
        }
        const QByteArray options = "size=" + QByteArray::number(sizeKiB) + "k,mode=0700";
        if (::mount("tmpfs", QFile::encodeName(path).constData(), "tmpfs", 0, options.constData()) != 0) {
            m_skipReason = QByteArray("mounting a tmpfs failed: ") + QByteArray(std::strerror(errno));
            return;
        }
        m_mounted = true;
    }
    ~ScopedTmpfs()
    {
        if (m_mounted)
            ::umount2(QFile::encodeName(m_path).constData(), MNT_DETACH);
    }
    ScopedTmpfs(const ScopedTmpfs &) = delete;
    ScopedTmpfs &operator=(const ScopedTmpfs &) = delete;

    bool isMounted() const { return m_mounted; }
    const char *skipReason() const { return m_skipReason.constData(); }

    /// Writes zeros into a file until the file system is full.
    void fill(const QString &name = QStringLiteral("filler")) const
    {
        QFile file(m_path + QLatin1Char('/') + name);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Append | QIODevice::Unbuffered))
            return;
        const QByteArray block(4096, '\0');
        while (file.write(block) > 0) {
        }
        // The last partial block may still fit byte by byte.
        while (file.write(block.constData(), 1) > 0) {
        }
    }

private:
    QString m_path;
    QByteArray m_skipReason;
    bool m_mounted = false;
};

} // namespace hvtest
