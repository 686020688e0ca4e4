#include "QEMULockFile_p.h"

#include "FileUtils.h"
#include "QEMULogging_p.h"

#include <QDebug>
#include <QFile>

#include <cctype>
#include <limits>
#include <sys/types.h>

namespace {

// The lock file is a few short lines. Anything larger was not written by us
// and is not worth parsing.
constexpr qint64 kMaxLockFileSize = 4096;

const char kPidKey[] = "pid";
const char kStartTimeKey[] = "start_time";
const char kOffsetKey[] = "offset";
const char kWritableSharedKey[] = "writable_shared_drive";
const char kQmpSocketKey[] = "qmp_socket";
const char kAcceleratorKey[] = "accelerator";
const char kCpuModelKey[] = "cpu";

// A word of letters, digits and the few signs a CPU model or accelerator
// name has: anything else was not written by us.
bool isPlainWord(const QByteArray &value)
{
    for (const char c : value) {
        if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_' && c != '.')
            return false;
    }
    return true;
}

} // namespace

namespace QEMULockFile {

bool read(const QString &path, QEMULockRecord *record)
{
    *record = QEMULockRecord();
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return false;
    if (file.size() > kMaxLockFileSize) {
        qCWarning(hvQemuLog) << "[VMTools]" << "Ignoring oversized lock file" << path << file.size();
        return true;
    }
    // INI text, as QSettings writes it: a "[General]" line, then key=value.
    // A file with anything else in it was not written by us: it names no one.
    const QByteArray text = file.readAll();
    QEMULockRecord parsed;
    for (const QByteArray &raw : text.split('\n')) {
        const QByteArray line = raw.trimmed();
        if (line.isEmpty() || line == "[General]")
            continue;
        const int equals = line.indexOf('=');
        if (equals <= 0 || line.contains('\0')) {
            qCWarning(hvQemuLog) << "[VMTools]" << "Ignoring malformed lock file" << path;
            return true;
        }
        const QByteArray key = line.left(equals).trimmed();
        const QByteArray value = line.mid(equals + 1).trimmed();
        bool ok = false;
        if (key == kPidKey) {
            const long long pid = value.toLongLong(&ok);
            parsed.pid = ok && pid > 0 && pid <= std::numeric_limits<pid_t>::max() ? pid : 0;
        } else if (key == kStartTimeKey) {
            const long long startTime = value.toLongLong(&ok);
            parsed.startTime = ok && startTime > 0 ? startTime : 0;
        } else if (key == kOffsetKey) {
            const int offset = value.toInt(&ok);
            parsed.offset = ok ? offset : -1;
        } else if (key == kWritableSharedKey) {
            parsed.writableSharedDrive = value == "true" ? 1 : (value == "false" ? 0 : -1);
        } else if (key == kQmpSocketKey) {
            parsed.qmpSocket = QFile::decodeName(value);
        } else if ((key == kAcceleratorKey || key == kCpuModelKey) && isPlainWord(value)) {
            (key == kAcceleratorKey ? parsed.accelerator : parsed.cpuModel) = QString::fromLatin1(value);
        }
    }
    *record = parsed;
    return true;
}

bool write(const QString &path, const QEMULockRecord &record)
{
    QByteArray text("[General]\n");
    text += QByteArray(kOffsetKey) + '=' + QByteArray::number(record.offset) + '\n';
    text += QByteArray(kPidKey) + '=' + QByteArray::number(record.pid) + '\n';
    text += QByteArray(kStartTimeKey) + '=' + QByteArray::number(record.startTime) + '\n';
    if (record.writableSharedDrive >= 0)
        text += QByteArray(kWritableSharedKey) + '=' + (record.writableSharedDrive ? "true" : "false") + '\n';
    // A path with a line break would end the line early: such a path is
    // never recorded (the socket is always the device's own "qmp.sock").
    const QByteArray socket = QFile::encodeName(record.qmpSocket);
    if (!socket.isEmpty() && !socket.contains('\n') && !socket.contains('\r'))
        text += QByteArray(kQmpSocketKey) + '=' + socket + '\n';
    if (!record.accelerator.isEmpty() && isPlainWord(record.accelerator.toLatin1()))
        text += QByteArray(kAcceleratorKey) + '=' + record.accelerator.toLatin1() + '\n';
    if (!record.cpuModel.isEmpty() && isPlainWord(record.cpuModel.toLatin1()))
        text += QByteArray(kCpuModelKey) + '=' + record.cpuModel.toLatin1() + '\n';

    // Replaced whole, private to its owner: a full disk or a crash never
    // leaves a half-written record of the emulator.
    if (!FileUtils::saveFile(path, text)) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to write PID file to disk" << path;
        return false;
    }
    return true;
}

} // namespace QEMULockFile
