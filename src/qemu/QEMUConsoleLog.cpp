#include "QEMUConsoleLog_p.h"

#include "EnvVars.h"
#include "FileUtils.h"
#include "QEMUClient.h"
#include "QEMUDeviceFiles.h"
#include "QEMULogging_p.h"

#include <QDebug>
#include <QFile>
#include <QRegularExpression>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

constexpr qint64 kDefaultCapBytes = 1 << 20;
constexpr qint64 kMinimumCapBytes = 4096;

// The first line of a file whose front was trimmed.
QByteArray droppedLine(qint64 bytes)
{
    return QStringLiteral("[%1 bytes of earlier console output dropped]\n").arg(bytes).toUtf8();
}

// How many bytes the file's first line says were dropped, and how long that
// line is; 0 and 0 for a file that was never trimmed.
qint64 droppedBytes(const QByteArray &file, int *lineLength)
{
    static const QRegularExpression pattern(QStringLiteral("^\\[(\\d+) bytes of earlier console output dropped\\]\n"));
    const QRegularExpressionMatch match = pattern.match(QString::fromLatin1(file.left(80)));
    *lineLength = match.hasMatch() ? match.capturedLength(0) : 0;
    return match.hasMatch() ? match.captured(1).toLongLong() : 0;
}

// Holds the device directory's lock for as long as it lives: two programs'
// drains would otherwise append what they took in the wrong order.
class DirectoryLock
{
public:
    explicit DirectoryLock(const QString &dir)
        : m_fd(::open(QFile::encodeName(dir).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))
    {
        while (m_fd >= 0 && ::flock(m_fd, LOCK_EX) != 0 && errno == EINTR) {
        }
    }
    ~DirectoryLock()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    DirectoryLock(const DirectoryLock &) = delete;
    DirectoryLock &operator=(const DirectoryLock &) = delete;
    bool held() const { return m_fd >= 0; }

private:
    int m_fd;
};

} // namespace

QEMUConsoleLog::QEMUConsoleLog(const QString &deviceDir)
    : m_dir(deviceDir)
    , m_path(QEMUDeviceFiles(deviceDir).consoleLog())
{
}

QString QEMUConsoleLog::chardevId()
{
    return QStringLiteral("console");
}

qint64 QEMUConsoleLog::capBytes()
{
    return qMax<qint64>(kMinimumCapBytes, EnvVars::getInt("HV_CONSOLE_LOG_BYTES", int(kDefaultCapBytes)));
}

int QEMUConsoleLog::ringBytes()
{
    int bytes = 1;
    while (bytes * qint64(4) <= capBytes())
        bytes *= 2;
    return bytes;
}

void QEMUConsoleLog::rotate() const
{
    const QEMUDeviceFiles files(m_dir);
    if (QFile::exists(m_path) && ::rename(QFile::encodeName(m_path).constData(),
                                          QFile::encodeName(files.previousConsoleLog()).constData()) != 0)
        qCWarning(hvQemuLog) << "[VMTools]" << "Cannot keep the previous console log" << m_path << ":"
                             << std::strerror(errno);
}

bool QEMUConsoleLog::drain(const QString &qmpSocketPath) const
{
    DirectoryLock lock(m_dir);
    if (!lock.held())
        return false;
    QEMUClient client(qmpSocketPath);
    QByteArray data;
    if (!client.takeRingBuffer(chardevId(), ringBytes(), &data))
        return false;
    return data.isEmpty() || append(data);
}

bool QEMUConsoleLog::append(const QByteArray &data) const
{
    QFile file(m_path);
    const QByteArray kept = file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    file.close();
    if (kept.size() + data.size() <= capBytes()) {
        const int fd = ::open(QFile::encodeName(m_path).constData(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC,
                              S_IRUSR | S_IWUSR);
        const bool written = fd >= 0 && ::write(fd, data.constData(), size_t(data.size())) == data.size();
        if (fd >= 0)
            ::close(fd);
        return written;
    }
    // Trimmed to three quarters of the cap at a line's start, so that the
    // next trims are as rare as the output allows.
    int lineLength = 0;
    const qint64 dropped = droppedBytes(kept, &lineLength);
    QByteArray body = kept.mid(lineLength) + data;
    int cut = int(body.size() - capBytes() * 3 / 4);
    const int lineStart = body.indexOf('\n', cut);
    if (lineStart >= 0 && lineStart - cut < 1024)
        cut = lineStart + 1;
    body.remove(0, cut);
    return FileUtils::saveFile(m_path, droppedLine(dropped + cut) + body);
}

ConsoleRead QEMUConsoleLog::read(qint64 from) const
{
    ConsoleRead result;
    QFile file(m_path);
    result.available = true;
    if (!file.open(QIODevice::ReadOnly))
        return result;
    const QByteArray content = file.readAll();
    int lineLength = 0;
    const qint64 dropped = droppedBytes(content, &lineLength);
    result.next = dropped + content.size() - lineLength;
    if (from > result.next)
        from = 0;
    if (from < dropped)
        result.text = droppedLine(dropped - from) + content.mid(lineLength);
    else
        result.text = content.mid(int(from - dropped + lineLength));
    return result;
}

QStringList QEMUConsoleLog::tail(int count) const
{
    QFile file(m_path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    QStringList lines = ConsoleRead::printable(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    for (QString &line : lines)
        line = line.trimmed();
    lines.removeAll(QString());
    return lines.mid(qMax(0, lines.size() - count));
}
