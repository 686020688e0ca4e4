// hvtool doctor and hvtool --version: what the set-up can do.
#include "Command.h"
#include "Engine.h"
#include "FileUtils.h"

#include "HalvistromAppUtils.h"
#include "Paths.h"
#include "QEMUEngine.h"
#include "QEMUOptionSet.h"
#include "Settings.h"
#include "VMToolsEngine.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QStorageInfo>
#include <QLocalSocket>
#include <QTemporaryDir>
#include <QTemporaryFile>
#include <QThread>

#include <fcntl.h>
#include <unistd.h>

namespace hvtool {
namespace {

enum class Level { Ok, Warn, Fail };

struct Check {
    QString name;
    Level level;
    QString detail;
};

QString levelText(Level level)
{
    switch (level) {
    case Level::Ok: return QStringLiteral("ok");
    case Level::Warn: return QStringLiteral("warn");
    case Level::Fail: return QStringLiteral("fail");
    }
    return QString();
}

/// Reads one QMP reply line (skipping events) within the time left.
QJsonObject readQmp(QLocalSocket &socket, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < timeoutMs) {
        while (socket.canReadLine()) {
            const QJsonObject object = QJsonDocument::fromJson(socket.readLine(1 << 20)).object();
            if (!object.contains(QLatin1String("event")))
                return object;
        }
        if (socket.bytesAvailable() > (1 << 20))
            return {};
        socket.waitForReadyRead(int(qMax<qint64>(1, timeoutMs - timer.elapsed())));
    }
    return {};
}

/// Launches the emulator with KVM for a moment and asks it whether its
/// processor runs or stopped on an internal error (as nested virtualisation
/// does on some hosts).
Check probeKvm(const QString &emulator)
{
    // The probe's control socket sits in a directory of its own (mode 0700),
    // like a device's, so no other user can reach the probe guest.
    const QTemporaryDir socketDir;
    if (!socketDir.isValid())
        return {"kvm-runs-guest", Level::Fail, "could not make a temporary directory: " + socketDir.errorString()};
    const QString socketPath = socketDir.filePath(QStringLiteral("qmp.sock"));
    QProcess qemu;
    qemu.setProgram(emulator);
    qemu.setArguments({"-accel", "kvm", "-cpu", "host", "-m", "64", "-nodefaults", "-display", "none", "-no-reboot",
                       "-qmp", QStringLiteral("unix:%1,server=on,wait=off").arg(QEMUOptionSet::escapeValue(socketPath))});
    qemu.setProcessChannelMode(QProcess::MergedChannels);
    qemu.start();
    if (!qemu.waitForStarted(5000))
        return {"kvm-runs-guest", Level::Fail, "could not launch " + emulator};

    auto finish = [&qemu](Check check) {
        if (qemu.state() != QProcess::NotRunning) {
            qemu.kill();
            qemu.waitForFinished(5000);
        }
        return check;
    };

    QLocalSocket socket;
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < 5000 && qemu.state() == QProcess::Running) {
        socket.connectToServer(socketPath);
        if (socket.waitForConnected(500))
            break;
        socket.abort();
        QThread::msleep(100);
    }
    if (socket.state() != QLocalSocket::ConnectedState) {
        qemu.waitForFinished(1000);
        const QString output = QString::fromLocal8Bit(qemu.readAll()).trimmed().section('\n', -1);
        return finish({"kvm-runs-guest", Level::Fail, "the emulator did not start with KVM: " + output});
    }
    readQmp(socket, 3000);
    socket.write("{\"execute\": \"qmp_capabilities\"}\n");
    readQmp(socket, 3000);
    // Give the guest's processor a moment to run into trouble, if it will.
    QThread::msleep(1500);
    socket.write("{\"execute\": \"query-status\"}\n");
    const QString status = readQmp(socket, 3000).value("return").toObject().value("status").toString();
    if (status == QLatin1String("running"))
        return finish({"kvm-runs-guest", Level::Ok, "a KVM guest runs"});
    if (status == QLatin1String("internal-error"))
        return finish({"kvm-runs-guest", Level::Warn,
                       "KVM stops guests with an internal error here (nested virtualisation?); use TCG through "
                       "HV_QEMU_START_ARGS"});
    return finish({"kvm-runs-guest", Level::Warn, "KVM guest status: " + (status.isEmpty() ? "no answer" : status)});
}

/// What interrupted creations and clones left in the devices directory.
Check leftoversCheck(const QEMUEngine &engine)
{
    QStringList names;
    qint64 bytes = 0;
    for (const QEMUEngine::Leftover &leftover : engine.getLeftovers()) {
        if (leftover.inProgress)
            continue;
        names << QLatin1Char('\'') + leftover.name + QLatin1Char('\'');
        bytes += leftover.bytes;
    }
    if (names.isEmpty())
        return {"leftovers", Level::Ok, "no interrupted creation or clone left anything"};
    return {"leftovers", Level::Warn,
            QStringLiteral("interrupted creations or clones left %1 (%2 MiB); reclaim them with "
                           "'hvtool device cleanup'")
                .arg(names.join(QLatin1String(", ")))
                .arg(double(bytes) / (1 << 20), 0, 'f', 1)};
}

int doctor(Context &ctx)
{
    QList<Check> checks;

    QEMUEngine engine;
    const auto init = engine.initialize(VMToolsEngine::Full);
    QString emulator = QDir(QString::fromLocal8Bit(qgetenv("HV_QEMU_BIN_DIR"))).absolutePath();
    if (qEnvironmentVariableIsEmpty("HV_QEMU_BIN_DIR"))
        emulator = Paths::getQEmuBinDirPath();
    emulator += QStringLiteral("/") + QEMUEngine::getQemuSystemBinaryName();
    if (init.first != 0) {
        checks << Check{"qemu-installed", Level::Fail, init.second};
    } else {
        const VersionNumber version = engine.versionNumber();
        const VersionNumber minimum = engine.minimumVersionNumber();
        const VersionNumber maximum = engine.maximumVersionNumber();
        const bool tooOld = version < minimum;
        // A maximum with a negative major means no upper bound.
        const bool tooNew = maximum.major >= 0 && version > maximum;
        QString bounds = QStringLiteral("%1 (supported from %2").arg(version.toString(), minimum.toString());
        bounds += maximum.major >= 0 ? QStringLiteral(" to %1)").arg(maximum.toString()) : QStringLiteral(")");
        checks << Check{"qemu-installed", Level::Ok, QStringLiteral("QEMU programs found beside ") + emulator};
        checks << Check{"qemu-version", tooOld || tooNew ? Level::Fail : Level::Ok, bounds};
    }

    const VMToolsEngine::LoadResult loaded = VMToolsEngine::loadEngine(QStringLiteral("qemu"),
                                                                       VMToolsEngine::NoAccelerationCheck);
    if (loaded.engine) {
        checks << Check{"plugin", Level::Ok, "the QEMU engine plug-in loads"};
        delete loaded.engine;
    } else {
        checks << Check{"plugin", Level::Fail,
                        "the QEMU engine plug-in does not load from " + QCoreApplication::applicationDirPath()
                            + "/plugins/" + (loaded.message.isEmpty() ? QString() : ": " + loaded.message)};
    }

    checks << Check{"cpu-virtualisation", engine.isCPUVirtualizationAvailable() ? Level::Ok : Level::Warn,
                    engine.isCPUVirtualizationAvailable()
                        ? QStringLiteral("the %1 processor offers VMX/SVM").arg(engine.getCpuVendor())
                        : QStringLiteral("the %1 processor does not offer VMX/SVM").arg(engine.getCpuVendor())};

    const int kvm = ::open("/dev/kvm", O_RDWR | O_CLOEXEC);
    const bool kvmOpens = kvm >= 0;
    if (kvmOpens)
        ::close(kvm);
    if (!QFileInfo::exists("/dev/kvm"))
        checks << Check{"kvm-device", Level::Warn, "/dev/kvm does not exist"};
    else
        checks << Check{"kvm-device", kvmOpens ? Level::Ok : Level::Warn,
                        kvmOpens ? QStringLiteral("/dev/kvm opens for reading and writing")
                                 : QStringLiteral("/dev/kvm exists but cannot be opened: ") + qt_error_string(errno)};

    if (kvmOpens && init.first == 0) {
        Check kvmRuns = probeKvm(emulator);
        // A /dev/kvm without VMX/SVM in the processor is an outer
        // hypervisor's: the short probe guest runs on it, yet a real guest
        // can stop in its boot code with a KVM internal error.
        if (kvmRuns.level == Level::Ok && !engine.isCPUVirtualizationAvailable())
            kvmRuns = {"kvm-runs-guest", Level::Warn,
                       "a short KVM guest runs, but without VMX/SVM in the processor this KVM is an outer "
                       "hypervisor's and may stop real guests with an internal error; if a device does not boot, "
                       "use TCG through HV_QEMU_START_ARGS"};
        checks << kvmRuns;
    } else
        checks << Check{"kvm-runs-guest", Level::Warn, "not probed: KVM or QEMU is not available"};

    const QString devices = VMToolsEngine::getDevicesDirectorySetting();
    FileUtils::makeDirectory(devices);
    QTemporaryFile probe(devices + QStringLiteral("/.hvtool-doctor-XXXXXX"));
    if (!probe.open()) {
        checks << Check{"devices-directory", Level::Fail, devices + " is not writable: " + probe.errorString()};
    } else {
        const qint64 free = QStorageInfo(devices).bytesAvailable();
        const qint64 gib = qint64(1) << 30;
        checks << Check{"devices-directory", free < 2 * gib ? Level::Warn : Level::Ok,
                        QStringLiteral("%1 is writable, %2 GiB free").arg(devices).arg(double(free) / gib, 0, 'f', 1)};
    }

    checks << leftoversCheck(engine);

    bool failed = false;
    QJsonArray array;
    for (const Check &check : checks) {
        failed = failed || check.level == Level::Fail;
        array.append(QJsonObject{{"check", check.name}, {"result", levelText(check.level)}, {"detail", check.detail}});
        if (!ctx.json())
            ctx.print(QStringLiteral("%1 %2 %3").arg(levelText(check.level), -5).arg(check.name, -19).arg(check.detail));
    }
    if (ctx.json())
        ctx.printJson(array);
    return failed ? Failed : Success;
}

int version(Context &ctx)
{
    QEMUEngine engine;
    const auto init = engine.initialize(VMToolsEngine::NoAccelerationCheck);
    const QString qemu = init.first == 0 ? engine.versionString() : QStringLiteral("not found");
    if (ctx.json()) {
        ctx.printJson(QJsonObject{{"hvtool", QStringLiteral(HVTOOL_VERSION)},
                                  {"library", QCoreApplication::applicationVersion()},
                                  {"qemu", qemu}});
        return Success;
    }
    ctx.print(QStringLiteral("hvtool %1").arg(QStringLiteral(HVTOOL_VERSION)));
    ctx.print(QStringLiteral("libhalvistrom-core %1").arg(QCoreApplication::applicationVersion()));
    ctx.print(QStringLiteral("QEMU %1").arg(qemu));
    return Success;
}

} // namespace

void addDoctorCommand()
{
    commands() << Command{{"doctor"}, {}, "Check the set-up: QEMU, the plug-in, KVM and the devices directory.", {}, 0,
                          0, doctor}
               << Command{{"version"}, {}, "Show hvtool's, the library's and QEMU's versions.", {}, 0, 0, version};
}

} // namespace hvtool
