// hvtool doctor and hvtool --version: what the set-up can do.
#include "AdbCommands.h"
#include "Command.h"

#include "FileUtils.h"
#include "VMToolsEngine.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonObject>
#include <QStorageInfo>
#include <QTemporaryFile>

#include <cstdio>
#include <memory>
#include <unistd.h>

namespace hvtool {
namespace {

using Check = VMToolsHostCheck;
using Level = VMToolsHostCheck::Level;

QString levelText(Level level)
{
    switch (level) {
    case Level::Ok: return QStringLiteral("ok");
    case Level::Warn: return QStringLiteral("warn");
    case Level::Fail: return QStringLiteral("fail");
    }
    return QString();
}

/// Whether the plug-in loaded and its engine could start working.
QList<Check> loadChecks(const VMToolsEngine::LoadResult &loaded)
{
    const QString cause = loaded.message.isEmpty() ? QString() : QStringLiteral(": ") + loaded.message;
    // A status is set only by the engine's initialisation: the plug-in loaded.
    if (!loaded.engine && loaded.status == 0)
        return {{"plugin", Level::Fail, "the QEMU engine plug-in does not load" + cause}};
    QList<Check> checks{{"plugin", Level::Ok, "the QEMU engine plug-in loads"}};
    if (!loaded.engine)
        checks.append({"qemu-installed", Level::Fail, loaded.message});
    return checks;
}

Check cpuCheck(const VMToolsEngine &engine)
{
    const bool offered = engine.isCPUVirtualizationAvailable();
    return {"cpu-virtualisation", offered ? Level::Ok : Level::Warn,
            QStringLiteral("the %1 processor %2 VMX/SVM")
                .arg(engine.getCpuVendor(), offered ? QStringLiteral("offers") : QStringLiteral("does not offer"))};
}

Check devicesDirectoryCheck()
{
    const QString devices = VMToolsEngine::getDevicesDirectorySetting();
    FileUtils::makeDirectory(devices);
    QTemporaryFile probe(devices + QStringLiteral("/.hvtool-doctor-XXXXXX"));
    if (!probe.open())
        return {"devices-directory", Level::Fail, devices + " is not writable: " + probe.errorString()};
    const qint64 free = QStorageInfo(devices).bytesAvailable();
    const qint64 gib = qint64(1) << 30;
    return {"devices-directory", free < 2 * gib ? Level::Warn : Level::Ok,
            QStringLiteral("%1 is writable, %2 GiB free").arg(devices).arg(double(free) / gib, 0, 'f', 1)};
}

/// What interrupted creations and clones left in the devices directory.
Check leftoversCheck(VMToolsEngine *engine)
{
    QStringList names;
    qint64 bytes = 0;
    for (const MachineLeftover &leftover : engine->getLeftovers()) {
        if (leftover.inProgress)
            continue;
        names << QLatin1Char('\'') + leftover.name + QLatin1Char('\'');
        bytes += leftover.bytes;
    }
    if (names.isEmpty())
        return {"leftovers", Level::Ok, "no interrupted creation or clone left anything"};
    return {"leftovers", Level::Warn,
            QStringLiteral("interrupted creations or clones left %1 (%2); reclaim them with "
                           "'hvtool device cleanup'")
                .arg(names.join(QLatin1String(", ")), sizeText(bytes))};
}

/// adb is how developers reach a device; without it hvtool still works.
Check adbCheck()
{
    bool ok = false;
    const QString line = adbDoctorLine(&ok);
    return {"adb", ok ? Level::Ok : Level::Warn, line};
}

/// Shows the checks; Failed when one of them failed.
int report(Context &ctx, const QList<Check> &checks)
{
    QStringList failed;
    Output output;
    QJsonArray array;
    for (const Check &check : checks) {
        if (check.level == Level::Fail)
            failed << check.name;
        array.append(QJsonObject{{"check", check.name}, {"result", levelText(check.level)}, {"detail", check.detail}});
        output.lines << QStringLiteral("%1 %2 %3").arg(levelText(check.level), -5).arg(check.name, -19).arg(check.detail);
    }
    output.json = array;
    ctx.show(output);
    return failed.isEmpty() ? Success
                            : ctx.fail(Failed, QStringLiteral("%1 check(s) failed: %2").arg(failed.size()).arg(failed.join(", ")));
}

int doctor(Context &ctx)
{
    const VMToolsEngine::LoadResult loaded = VMToolsEngine::loadEngine(VMToolsEngine::Full);
    const std::unique_ptr<VMToolsEngine> engine(loaded.engine);
    QList<Check> checks = loadChecks(loaded);
    const auto noteOnTerminal = [](const QString &line) {
        if (::isatty(STDERR_FILENO))
            std::fprintf(stderr, "%s\n", qPrintable(line));
    };
    if (engine)
        checks << engine->checkHost(noteOnTerminal) << cpuCheck(*engine);
    checks << devicesDirectoryCheck() << adbCheck();
    if (engine)
        checks << leftoversCheck(engine.get());
    return report(ctx, checks);
}

int version(Context &ctx)
{
    const std::unique_ptr<VMToolsEngine> engine(VMToolsEngine::loadEngine(VMToolsEngine::NoAccelerationCheck).engine);
    const QString qemu = engine ? engine->versionString() : QStringLiteral("not found");
    Output output;
    output.json = QJsonObject{{"hvtool", QStringLiteral(HVTOOL_VERSION)},
                              {"library", QCoreApplication::applicationVersion()},
                              {"qemu", qemu}};
    output.lines << QStringLiteral("hvtool %1").arg(QStringLiteral(HVTOOL_VERSION))
                 << QStringLiteral("libhalvistrom-core %1").arg(QCoreApplication::applicationVersion())
                 << QStringLiteral("QEMU %1").arg(qemu);
    return ctx.show(output);
}

} // namespace

void addDoctorCommand()
{
    commands() << Command{{"doctor"}, {},
                          "Check the set-up: QEMU, the plug-in, KVM, the accelerator, audio and the devices directory.",
                          {}, 0, 0, doctor}
                          .withExample("hvtool doctor")
               << Command{{"version"}, {}, "Show hvtool's, the library's and QEMU's versions.", {}, 0, 0, version}
                          .withExample("hvtool version");
}

} // namespace hvtool
