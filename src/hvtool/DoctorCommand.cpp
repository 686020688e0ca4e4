// hvtool doctor and hvtool --version: what the set-up can do.
#include "Command.h"
#include "Engine.h"
#include "FileUtils.h"

#include "HalvistromAppUtils.h"
#include "Paths.h"
#include "QEMUAccelerator.h"
#include "QEMUAudio.h"
#include "QEMUEngine.h"
#include "Settings.h"
#include "VMToolsEngine.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QStorageInfo>
#include <QTemporaryFile>

#include <cstdio>
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

/// The configured accelerator and what "auto" picks here, from a fresh
/// probe of KVM (which the engine then keeps for its starts).
Check acceleratorCheck(const QEMUEngine &engine)
{
    const QString configured = engine.configuredAccelerator();
    const QString name = QStringLiteral("accelerator");
    if (!QEMUAccelerator::choices().contains(configured))
        return {name, Level::Fail, QEMUAccelerator(engine.getQemuSystemBinaryPath()).choose(configured).note};
    if (::isatty(STDERR_FILENO))
        std::fprintf(stderr, "probing KVM with a tiny guest (at most %d s)...\n", QEMUAccelerator::probeTimeoutMs() / 1000);
    const QEMUAccelerator accelerator(engine.getQemuSystemBinaryPath());
    const QEMUAccelerator::Verdict verdict = accelerator.probe();
    accelerator.recordVerdict(verdict);
    QString picks = QStringLiteral("auto picks KVM here");
    if (verdict.state == QEMUAccelerator::Verdict::Fails)
        picks = QStringLiteral("auto picks TCG here: KVM cannot run guests (%1)").arg(verdict.reason);
    else if (verdict.state == QEMUAccelerator::Verdict::Unknown)
        picks = QStringLiteral("auto picks TCG here: %1").arg(verdict.reason);
    const QString detail = QStringLiteral("%1 is %2; %3").arg(QEMUAccelerator::settingKey(), configured, picks);
    if (configured != QLatin1String("kvm") || verdict.state == QEMUAccelerator::Verdict::Runs)
        return {name, Level::Ok, detail};
    if (verdict.state == QEMUAccelerator::Verdict::Unknown)
        return {name, Level::Warn, detail};
    return {name, Level::Fail,
            QStringLiteral("%1 is kvm, but KVM cannot run guests on this host (%2); run devices under TCG: %3")
                .arg(QEMUAccelerator::settingKey(), verdict.reason, QEMUAccelerator::tcgAdvice())};
}

/// The configured audio backend and what "auto" picks here.
Check audioCheck(const QEMUEngine &engine)
{
    const QString configured = Settings::get(QEMUAudio::settingKey(), QStringLiteral("auto")).toString();
    const QEMUAudio audio(engine.getQemuSystemBinaryPath());
    const QEMUAudio::Choice automatic = audio.choose(QStringLiteral("auto"));
    const QString picks = automatic.note.isEmpty() ? QStringLiteral("auto picks pa here")
                                                   : QStringLiteral("auto picks none here: %1").arg(automatic.note);
    const QString detail = QStringLiteral("%1 is %2; %3").arg(QEMUAudio::settingKey(), configured, picks);
    if (!QEMUAudio::choices().contains(configured))
        return {"audio", Level::Fail, audio.choose(configured).note};
    if (configured == QLatin1String("pa") && automatic.backend != QLatin1String("pa"))
        return {"audio", Level::Fail,
                QStringLiteral("%1 is pa, but %2; a device cannot start: hvtool settings set %1 auto")
                    .arg(QEMUAudio::settingKey(), automatic.note)};
    return {"audio", Level::Ok, detail};
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
    const QString emulator = QFileInfo(engine.getQemuSystemBinaryPath()).absolutePath();
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
        checks << Check{"qemu-installed", Level::Ok, QStringLiteral("QEMU programs found in ") + emulator};
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

    if (init.first == 0)
        checks << acceleratorCheck(engine) << audioCheck(engine);

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
    commands() << Command{{"doctor"}, {}, "Check the set-up: QEMU, the plug-in, KVM, the accelerator, audio and the devices directory.", {}, 0,
                          0, doctor}
               << Command{{"version"}, {}, "Show hvtool's, the library's and QEMU's versions.", {}, 0, 0, version};
}

} // namespace hvtool
