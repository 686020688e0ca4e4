#include "QEMUAudio.h"

#include "QEMUAccelerator.h"
#include "QEMUHostCache_p.h"
#include "VMToolsCommon.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QLocalSocket>
#include <QTcpSocket>

#include <unistd.h>

namespace {

const char kSettingKey[] = "emulator.audio";
const char kAuto[] = "auto";
const char kNone[] = "none";
const char kPulse[] = "pa";
const char kCacheFile[] = "qemu-audio.json";
// A sound server on this host answers at once; one that does not within
// this is as good as absent for a guest's sound.
constexpr int kServerTimeoutMs = 500;
constexpr quint16 kPulseTcpPort = 4713;

// The emulator loads its backends from module files: installing one (the
// PulseAudio backend comes in a package of its own) changes the directory,
// not the binary. The answer is kept for the binary and these directories.
QJsonObject backendKey(const QString &emulator)
{
    const QDir binaries = QFileInfo(QFileInfo(emulator).canonicalFilePath()).dir();
    QStringList directories{binaries.absoluteFilePath(QStringLiteral("../lib/x86_64-linux-gnu/qemu")),
                            binaries.absoluteFilePath(QStringLiteral("../lib/qemu"))};
    if (qEnvironmentVariableIsSet("QEMU_MODULE_DIR"))
        directories << qEnvironmentVariable("QEMU_MODULE_DIR");
    QJsonObject modules;
    for (const QString &directory : directories)
        modules.insert(QDir::cleanPath(directory), QEMUHostCache::fileIdentity(directory));
    return QJsonObject{{QStringLiteral("emulator"), QEMUHostCache::fileIdentity(emulator)},
                       {QStringLiteral("modules"), modules}};
}

bool localServerAnswers(const QString &path)
{
    QLocalSocket socket;
    socket.connectToServer(path);
    return socket.waitForConnected(kServerTimeoutMs);
}

// One entry of PULSE_SERVER: "unix:PATH", a path, "tcp:HOST[:PORT]" or
// "HOST[:PORT]", optionally after a "{machine id}" prefix.
bool serverAnswers(QString entry)
{
    if (entry.startsWith(QLatin1Char('{')))
        entry = entry.section(QLatin1Char('}'), 1);
    if (entry.startsWith(QLatin1String("unix:")))
        return localServerAnswers(entry.mid(5));
    if (entry.startsWith(QLatin1Char('/')))
        return localServerAnswers(entry);
    if (entry.startsWith(QLatin1String("tcp:")) || entry.startsWith(QLatin1String("tcp4:")))
        entry = entry.section(QLatin1Char(':'), 1);
    const QString host = entry.section(QLatin1Char(':'), 0, 0);
    bool ok = false;
    const quint16 port = entry.section(QLatin1Char(':'), 1).toUShort(&ok);
    QTcpSocket socket;
    socket.connectToHost(host, ok ? port : kPulseTcpPort);
    return socket.waitForConnected(kServerTimeoutMs);
}

} // namespace

QEMUAudio::QEMUAudio(const QString &emulatorPath) : m_emulator(emulatorPath) {}

QString QEMUAudio::settingKey()
{
    return QLatin1String(kSettingKey);
}

QStringList QEMUAudio::choices()
{
    return {QLatin1String(kAuto), QLatin1String(kNone), QLatin1String(kPulse)};
}

QStringList QEMUAudio::parseBackends(const QString &helpOutput)
{
    // A heading, then one backend a line. Missing modules add sentences of
    // their own ("module audio-audio-pa not found, ..."), never one word.
    QStringList backends;
    for (const QString &raw : helpOutput.split(QLatin1Char('\n'))) {
        const QString line = raw.trimmed();
        if (!line.isEmpty() && !line.contains(QLatin1Char(' ')) && !line.contains(QLatin1Char(':')))
            backends << line;
    }
    return backends;
}

bool QEMUAudio::isSoundServerAnswering()
{
    const QString servers = qEnvironmentVariable("PULSE_SERVER");
    if (!servers.isEmpty()) {
        for (const QString &entry : servers.split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
            if (serverAnswers(entry))
                return true;
        }
        return false;
    }
    QString runtime = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (runtime.isEmpty())
        runtime = QStringLiteral("/run/user/%1").arg(::getuid());
    return localServerAnswers(runtime + QLatin1String("/pulse/native"));
}

QStringList QEMUAudio::backends() const
{
    const QJsonObject key = backendKey(m_emulator);
    const QJsonObject entry = QEMUHostCache::read(QLatin1String(kCacheFile)).value(m_emulator).toObject();
    if (entry.value(QStringLiteral("key")).toObject() == key) {
        QStringList cached;
        for (const QJsonValue &backend : entry.value(QStringLiteral("backends")).toArray())
            cached << backend.toString();
        return cached;
    }
    const VMToolsCommon::CallResult result =
        VMToolsCommon::call(m_emulator, {QStringLiteral("-audiodev"), QStringLiteral("help")});
    if (!result.finished || result.returnCode != 0)
        return QStringList();
    const QStringList found = parseBackends(result.output);
    QEMUHostCache::store(QLatin1String(kCacheFile), m_emulator,
                         QJsonObject{{QStringLiteral("key"), key},
                                     {QStringLiteral("backends"), QJsonArray::fromStringList(found)}});
    return found;
}

QEMUAudio::Choice QEMUAudio::choose(const QString &configured) const
{
    Choice choice;
    if (!choices().contains(configured)) {
        choice.note = QEMUAccelerator::unknownValue(settingKey(), configured, choices());
        return choice;
    }
    if (configured != QLatin1String(kAuto)) {
        choice.backend = configured;
        return choice;
    }
    choice.backend = QLatin1String(kNone);
    if (!backends().contains(QLatin1String(kPulse)))
        choice.note = QStringLiteral("the emulator has no PulseAudio backend (package qemu-system-gui)");
    else if (!isSoundServerAnswering())
        choice.note = QStringLiteral("no sound server answers");
    else
        choice.backend = QLatin1String(kPulse);
    return choice;
}
