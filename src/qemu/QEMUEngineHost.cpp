// What the QEMU engine finds of the host: its programs, /dev/kvm, the
// accelerator and the audio backend, and the choices of their settings.
#include "QEMUEngine.h"

#include "QEMUAccelerator.h"
#include "QEMUAudio.h"
#include "Settings.h"

#include <QFileInfo>

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>

namespace {

using Level = VMToolsHostCheck::Level;

VMToolsHostCheck versionCheck(const QEMUEngine &engine)
{
    const VersionNumber version = engine.versionNumber();
    const VersionNumber minimum = engine.minimumVersionNumber();
    const VersionNumber maximum = engine.maximumVersionNumber();
    // A maximum with a negative major means no upper bound.
    const bool bounded = maximum.major >= 0;
    const bool supported = !(version < minimum) && !(bounded && version > maximum);
    QString bounds = QStringLiteral("%1 (supported from %2").arg(version.toString(), minimum.toString());
    bounds += bounded ? QStringLiteral(" to %1)").arg(maximum.toString()) : QStringLiteral(")");
    return {"qemu-version", supported ? Level::Ok : Level::Fail, bounds};
}

VMToolsHostCheck kvmDeviceCheck()
{
    const QString device = QStringLiteral("/dev/kvm");
    if (!QFileInfo::exists(device))
        return {"kvm-device", Level::Warn, device + " does not exist"};
    const int kvm = ::open("/dev/kvm", O_RDWR | O_CLOEXEC);
    if (kvm < 0)
        return {"kvm-device", Level::Warn, device + " exists but cannot be opened: " + qt_error_string(errno)};
    ::close(kvm);
    return {"kvm-device", Level::Ok, device + " opens for reading and writing"};
}

/// What "auto" picks here, from the verdict on KVM.
QString autoPicks(const QEMUAccelerator::Verdict &verdict)
{
    if (verdict.state == QEMUAccelerator::Verdict::Fails)
        return QStringLiteral("auto picks TCG here: KVM cannot run guests (%1)").arg(verdict.reason);
    if (verdict.state == QEMUAccelerator::Verdict::Unknown)
        return QStringLiteral("auto picks TCG here: %1").arg(verdict.reason);
    return QStringLiteral("auto picks KVM here");
}

/// The configured accelerator and what "auto" picks here, from a fresh
/// probe of KVM, which is kept for the starts.
VMToolsHostCheck acceleratorCheck(const QEMUEngine &engine, const std::function<void(const QString &)> &note)
{
    const QString configured = engine.configuredAccelerator();
    const QString name = QStringLiteral("accelerator");
    const QEMUAccelerator accelerator(engine.getQemuSystemBinaryPath());
    if (!QEMUAccelerator::choices().contains(configured))
        return {name, Level::Fail, accelerator.choose(configured).note};
    if (note)
        note(QStringLiteral("probing KVM with a tiny guest (at most %1 s)...")
                 .arg(QEMUAccelerator::probeTimeoutMs() / 1000));
    const QEMUAccelerator::Verdict verdict = accelerator.probe();
    accelerator.recordVerdict(verdict);
    const QString detail = QStringLiteral("%1 is %2; %3").arg(QEMUAccelerator::settingKey(), configured,
                                                              autoPicks(verdict));
    if (configured != QLatin1String("kvm") || verdict.state == QEMUAccelerator::Verdict::Runs)
        return {name, Level::Ok, detail};
    if (verdict.state == QEMUAccelerator::Verdict::Unknown)
        return {name, Level::Warn, detail};
    return {name, Level::Fail,
            QStringLiteral("%1 is kvm, but KVM cannot run guests on this host (%2); run devices under TCG: %3")
                .arg(QEMUAccelerator::settingKey(), verdict.reason, QEMUAccelerator::tcgAdvice())};
}

/// The configured audio backend and what "auto" picks here.
VMToolsHostCheck audioCheck(const QEMUEngine &engine)
{
    const QString configured = Settings::get(QEMUAudio::settingKey(), QStringLiteral("auto")).toString();
    const QEMUAudio audio(engine.getQemuSystemBinaryPath());
    const QEMUAudio::Choice automatic = audio.choose(QStringLiteral("auto"));
    const QString picks = automatic.note.isEmpty() ? QStringLiteral("auto picks pa here")
                                                   : QStringLiteral("auto picks none here: %1").arg(automatic.note);
    if (!QEMUAudio::choices().contains(configured))
        return {"audio", Level::Fail, audio.choose(configured).note};
    if (configured == QLatin1String("pa") && automatic.backend != QLatin1String("pa"))
        return {"audio", Level::Fail,
                QStringLiteral("%1 is pa, but %2; a device cannot start: hvtool settings set %1 auto")
                    .arg(QEMUAudio::settingKey(), automatic.note)};
    return {"audio", Level::Ok, QStringLiteral("%1 is %2; %3").arg(QEMUAudio::settingKey(), configured, picks)};
}

} // namespace

QList<VMToolsHostCheck> QEMUEngine::checkHost(const std::function<void(const QString &)> &note)
{
    const QString programs = QFileInfo(getQemuSystemBinaryPath()).absolutePath();
    return {{"qemu-installed", Level::Ok, QStringLiteral("QEMU programs found in ") + programs}, versionCheck(*this),
            kvmDeviceCheck(), acceleratorCheck(*this, note), audioCheck(*this)};
}

QStringList QEMUEngine::settingChoices(const QString &key) const
{
    if (key == QEMUAccelerator::settingKey())
        return QEMUAccelerator::choices();
    if (key == QEMUAudio::settingKey())
        return QEMUAudio::choices();
    return QStringList();
}
