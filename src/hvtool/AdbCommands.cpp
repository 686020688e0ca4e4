// hvtool device adb, and the debug bridge around a start and a stop: the
// user's adb client connected to the device, the guest's clock after a
// resume.
#include "AdbCommands.h"

#include "Settings.h"
#include "VersionNumber.h"

#include <QJsonObject>
#include <QProcess>
#include <QProcessEnvironment>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTcpSocket>

#include <unistd.h>

#include <vector>

namespace hvtool {
namespace {

const QString kConnectKey = QStringLiteral("adb.connect");
// The oldest client known to speak the shell packets that carry exit codes.
const char kMinimumVersion[] = "1.0.39";
const int kAdbTimeoutMs = 15000;
const int kClockTimeoutMs = 10000;

QString adbPath()
{
    return QStandardPaths::findExecutable(QStringLiteral("adb"));
}

/// Runs adb; its exit code and merged output, -1 when it did not run or end in time.
int runAdb(const QString &adb, const QStringList &arguments, QString *output)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.setStandardInputFile(QProcess::nullDevice());
    process.start(adb, arguments);
    if (!process.waitForFinished(kAdbTimeoutMs)) {
        process.kill();
        process.waitForFinished(1000);
        return -1;
    }
    *output = QString::fromLocal8Bit(process.readAll()).trimmed();
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

/// adb's version ("1.0.41"), empty when it does not say.
QString adbVersion(const QString &adb)
{
    QString output;
    runAdb(adb, {QStringLiteral("version")}, &output);
    return QRegularExpression(QStringLiteral("version (\\d+\\.\\d+\\.\\d+)")).match(output).captured(1);
}

/// Why adb cannot be used, empty when it can.
QString adbProblem(const QString &adb)
{
    if (adb.isEmpty())
        return QStringLiteral("adb is not installed: install the package adb (scripts/setup) or put adb on PATH");
    const QString version = adbVersion(adb);
    if (version.isEmpty())
        return QStringLiteral("'%1 version' does not say its version").arg(adb);
    if (VersionNumber::fromString(version) < VersionNumber::fromString(QString::fromLatin1(kMinimumVersion)))
        return QStringLiteral("adb %1 (%2) is too old: %3 or newer is needed").arg(version, adb, kMinimumVersion);
    return QString();
}

/// Connects the user's adb server to serial; empty, or why not.
QString connectAdb(const QString &adb, const QString &serial)
{
    QString output;
    const int code = runAdb(adb, {QStringLiteral("connect"), serial}, &output);
    if (code == 0 && output.contains(QLatin1String("connected to")))
        return QString();
    return output.isEmpty() ? QStringLiteral("adb connect did not finish") : output.split('\n').last();
}

/// Whether an adb server answers on its port: a disconnect must not start one.
bool adbServerRuns()
{
    const int port = qEnvironmentVariableIntValue("ANDROID_ADB_SERVER_PORT");
    QTcpSocket socket;
    socket.connectToHost(QStringLiteral("127.0.0.1"), quint16(port > 0 ? port : 5037));
    return socket.waitForConnected(1000);
}

QString serialOf(VMToolsMachine &machine)
{
    return machine.getRunInfo().adbSerial;
}

/// device adb NAME [--] ARGS...: adb runs in hvtool's place, so its output,
/// its terminal and its exit code are the user's.
int adb(Context &ctx)
{
    const QString adb = adbPath();
    const QString problem = adbProblem(adb);
    if (!problem.isEmpty())
        return ctx.fail(Failed, problem);
    const QString serial = serialOf(*ctx.device());
    const QString refused = connectAdb(adb, serial);
    if (!refused.isEmpty())
        return ctx.fail(Failed, QStringLiteral("adb could not connect to device '%1' at %2: %3")
                                    .arg(ctx.device()->getName(), serial, refused));
    QList<QByteArray> words{QFile::encodeName(adb), "-s", serial.toUtf8()};
    for (const QString &arg : ctx.args().mid(1))
        words << arg.toLocal8Bit();
    std::vector<char *> argv;
    for (QByteArray &word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    ::execv(argv.front(), argv.data());
    return ctx.fail(Failed, QStringLiteral("cannot run %1: %2").arg(adb, qt_error_string(errno)));
}

void setClock(Context &ctx, VMToolsMachine &machine, Output *output)
{
    qint64 movedMs = 0;
    QString failure;
    if (!ctx.engine()->setGuestClock(&machine, kClockTimeoutMs, &movedMs, &failure)) {
        ctx.note(QStringLiteral("could not set the guest's clock to the host's: %1").arg(failure));
        return;
    }
    QJsonObject object = output->json.toObject();
    object.insert(QStringLiteral("clock_moved_seconds"), double(movedMs / 1000));
    output->json = object;
    output->lines << QStringLiteral("guest clock set to the host's: moved %1%2 s")
                         .arg(movedMs >= 0 ? QStringLiteral("+") : QString())
                         .arg(movedMs / 1000);
}

} // namespace

void afterStart(Context &ctx, VMToolsMachine &machine, bool resumed, bool guestReady, Output *output)
{
    if (resumed)
        setClock(ctx, machine, output);
    const QString serial = serialOf(machine);
    const QString adb = adbPath();
    // A guest still booting would hold the start for adb's whole connect
    // time-out: it is connected once a wait has seen it ready.
    QString why = guestReady ? QStringLiteral("the setting %1 is false").arg(kConnectKey)
                             : QStringLiteral("the guest is still booting");
    if (guestReady && Settings::get(kConnectKey, true).toBool()) {
        why = adbProblem(adb);
        if (why.isEmpty())
            why = connectAdb(adb, serial);
    }
    QJsonObject object = output->json.toObject();
    object.insert(QStringLiteral("adb_connected"), why.isEmpty());
    output->json = object;
    if (why.isEmpty())
        output->lines << QStringLiteral("adb connected: adb -s %1 shell").arg(serial);
    else
        ctx.note(QStringLiteral("adb not connected (%1); connect with: adb connect %2").arg(why, serial));
}

void beforeStop(VMToolsMachine &machine)
{
    const QString adb = adbPath();
    if (adb.isEmpty() || !Settings::get(kConnectKey, true).toBool() || !adbServerRuns())
        return;
    QString output;
    runAdb(adb, {QStringLiteral("disconnect"), serialOf(machine)}, &output);
}

QString adbDoctorLine(bool *ok)
{
    const QString adb = adbPath();
    const QString problem = adbProblem(adb);
    *ok = problem.isEmpty();
    return *ok ? QStringLiteral("adb %1 (%2)").arg(adbVersion(adb), adb) : problem;
}

void addAdbCommands()
{
    settingKeys() << SettingKey{kConnectKey,
                                "whether device start connects the user's adb to the device and device stop "
                                "disconnects it: true or false",
                                [](const QString &text) {
                                    return text == QLatin1String("true") || text == QLatin1String("false")
                                        ? QString()
                                        : QStringLiteral("takes true or false");
                                }};
    commands() << Command({"device", "adb"}, QStringLiteral("NAME [--] ARGS..."),
                          QStringLiteral("Run adb on the device (adb -s SERIAL ARGS), connecting it first; adb's "
                                         "output and exit code are the command's."),
                          {}, 2, -1, adb, DeviceUse::Read, DeviceState::Running,
                          QStringLiteral("device '%1' is not running; start it with: hvtool device start %1"))
                      .withExample(QStringLiteral("hvtool device adb phone -- shell ls -l /sdcard"));
}

} // namespace hvtool
