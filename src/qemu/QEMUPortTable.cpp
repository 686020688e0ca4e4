#include "QEMUPortTable_p.h"

#include "FileUtils.h"
#include "QEMULockFile_p.h"
#include "QEMULogging_p.h"
#include "QEMUMachine.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>

namespace {

// A few lines per running device: anything far larger was not written here.
constexpr qint64 kMaxTableSize = 1 << 20;

const char kOffsetKey[] = "offset";
const char kPidKey[] = "pid";
const char kStartTimeKey[] = "start_time";
const char kRamKey[] = "ram_mb";
const char kDeviceKey[] = "device";

QEMUPortEntry entryFrom(const QJsonObject &object)
{
    QEMUPortEntry entry;
    entry.offset = object.value(QLatin1String(kOffsetKey)).toInt(-1);
    entry.pid = qint64(object.value(QLatin1String(kPidKey)).toDouble());
    entry.startTime = qint64(object.value(QLatin1String(kStartTimeKey)).toDouble());
    entry.ramMiB = qint64(object.value(QLatin1String(kRamKey)).toDouble());
    entry.device = object.value(QLatin1String(kDeviceKey)).toString();
    return entry;
}

// The inodes of the sockets the process has open.
QSet<QByteArray> socketInodes(long long pid)
{
    QSet<QByteArray> inodes;
    const QDir fds(QStringLiteral("/proc/%1/fd").arg(pid));
    for (const QString &fd : fds.entryList(QDir::System | QDir::NoDotAndDotDot)) {
        const QByteArray target = QFile::encodeName(QFile::symLinkTarget(fds.filePath(fd)));
        // The link reads "socket:[<inode>]"; symLinkTarget makes it a path.
        const int at = target.indexOf("socket:[");
        if (at >= 0)
            inodes.insert(target.mid(at + 8, target.indexOf(']', at) - at - 8));
    }
    return inodes;
}

// Every entry, those of ended emulators too, oldest first.
QVector<QEMUPortEntry> readAll(const QString &path)
{
    QVector<QEMUPortEntry> all;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || file.size() > kMaxTableSize)
        return all;
    const QJsonArray entries = QJsonDocument::fromJson(file.readAll()).array();
    for (const QJsonValue &value : entries)
        all.append(entryFrom(value.toObject()));
    return all;
}

// An entry of an emulator that ended (or whose pid now names another
// process) holds nothing: it only remembers where its device last ran.
bool isLive(const QEMUPortEntry &entry)
{
    QEMULockRecord emulator;
    emulator.pid = entry.pid;
    emulator.startTime = entry.startTime;
    return entry.offset >= 0 && entry.pid > 0 && QEMUMachine::isRecordedEmulator(emulator);
}

} // namespace

namespace QEMUPortTable {

QVector<QEMUPortEntry> readLive(const QString &path)
{
    QVector<QEMUPortEntry> live;
    for (const QEMUPortEntry &entry : readAll(path)) {
        if (isLive(entry))
            live.append(entry);
    }
    return live;
}

int lastOffset(const QString &path, const QString &device)
{
    int offset = -1;
    for (const QEMUPortEntry &entry : readAll(path)) {
        if (entry.device == device && entry.offset >= 0)
            offset = entry.offset;
    }
    return offset;
}

bool write(const QString &path, const QVector<QEMUPortEntry> &live)
{
    // One remembered entry per device that runs no more: its newest.
    QSet<QString> devices;
    for (const QEMUPortEntry &entry : live)
        devices.insert(entry.device);
    QVector<QEMUPortEntry> entries;
    const QVector<QEMUPortEntry> old = readAll(path);
    for (auto entry = old.crbegin(); entry != old.crend(); ++entry) {
        if (entry->offset < 0 || entry->device.isEmpty() || devices.contains(entry->device) || isLive(*entry))
            continue;
        devices.insert(entry->device);
        entries.prepend(*entry);
    }
    entries += live;
    QJsonArray array;
    for (const QEMUPortEntry &entry : entries)
        array.append(QJsonObject{{QLatin1String(kOffsetKey), entry.offset},
                                 {QLatin1String(kPidKey), double(entry.pid)},
                                 {QLatin1String(kStartTimeKey), double(entry.startTime)},
                                 {QLatin1String(kRamKey), double(entry.ramMiB)},
                                 {QLatin1String(kDeviceKey), entry.device}});
    if (!FileUtils::saveFile(path, QJsonDocument(array).toJson(QJsonDocument::Compact))) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to write the port offset table" << path;
        return false;
    }
    return true;
}

bool areListenedOnBy(long long pid, const QVector<int> &ports)
{
    QFile table(QStringLiteral("/proc/net/tcp"));
    if (!table.open(QIODevice::ReadOnly))
        return false;
    const QSet<QByteArray> inodes = socketInodes(pid);
    QSet<int> listening;
    // Lines read "sl local rem st ... uid timeout inode": local is the
    // address and port in hex, st 0A a listening socket.
    for (const QByteArray &line : table.readAll().split('\n')) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        if (fields.size() < 10 || fields.at(3) != "0A" || !inodes.contains(fields.at(9)))
            continue;
        const QByteArray local = fields.at(1);
        bool ok = false;
        const int port = local.mid(local.indexOf(':') + 1).toInt(&ok, 16);
        if (ok)
            listening.insert(port);
    }
    for (int port : ports) {
        if (!listening.contains(port))
            return false;
    }
    return true;
}

} // namespace QEMUPortTable
