#include "QEMUAccelerator.h"

#include "EnvVars.h"
#include "FileUtils.h"
#include "QEMUErrorDiagnosis.h"
#include "QEMUHostCache_p.h"
#include "QEMULogging_p.h"
#include "QEMUOptionSet.h"

#include <QDeadlineTimer>
#include <QDebug>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

#include <sys/utsname.h>

namespace {

const char kSettingKey[] = "emulator.accelerator";
const char kAuto[] = "auto";
const char kKvm[] = "kvm";
const char kTcg[] = "tcg";
const char kCacheFile[] = "kvm-verdict.json";
constexpr int kProbeTimeoutMs = 10000;
constexpr int kProbeSliceMs = 20;

// The probe guest's boot sector. Under nested virtualisation KVM may run
// firmware yet stop a real guest's boot loader, which switches to protected
// mode and returns from an interrupt before its segments are all set up;
// this sector does exactly that, then reports through the debug-exit port
// (the emulator ends with code (1 << 1) | 1). In order: cli; zero DS, ES, SS;
// SP 0x7c00; lgdt (null, flat code 0x08, flat data 0x10, 32-bit TSS 0x18);
// set CR0.PE; far jump to 32-bit code; load DS, ES, SS with 0x10 and FS, GS
// with null selectors; ltr 0x18; write an interrupt gate for vector 0x20 at
// 0x1100; lidt (base 0x1000); int 0x20 (the handler is a bare iret);
// out 0xf4 <- 1; hlt.
const unsigned char kProbeCode[] = {
    0xfa, 0x31, 0xc0, 0x8e, 0xd8, 0x8e, 0xc0, 0x8e, 0xd0, 0xbc, 0x00, 0x7c, 0x66, 0x0f, 0x01, 0x16,
    0x90, 0x7c, 0x0f, 0x20, 0xc0, 0x0c, 0x01, 0x0f, 0x22, 0xc0, 0x66, 0xea, 0x22, 0x7c, 0x00, 0x00,
    0x08, 0x00, 0x66, 0xb8, 0x10, 0x00, 0x8e, 0xd8, 0x8e, 0xc0, 0x8e, 0xd0, 0x66, 0x31, 0xc0, 0x8e,
    0xe0, 0x8e, 0xe8, 0x66, 0xb8, 0x18, 0x00, 0x0f, 0x00, 0xd8, 0xbf, 0x00, 0x11, 0x00, 0x00, 0xb8,
    0x69, 0x7c, 0x00, 0x00, 0x66, 0x89, 0x07, 0x66, 0xc7, 0x47, 0x02, 0x08, 0x00, 0x66, 0xc7, 0x47,
    0x04, 0x00, 0x8e, 0x66, 0xc7, 0x47, 0x06, 0x00, 0x00, 0x0f, 0x01, 0x1d, 0x96, 0x7c, 0x00, 0x00,
    0xcd, 0x20, 0xb0, 0x01, 0xe6, 0xf4, 0xf4, 0xeb, 0xfd, 0xcf, 0x8d, 0xb6, 0x00, 0x00, 0x00, 0x00,
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xff, 0xff, 0x00, 0x00, 0x00, 0x9b, 0xcf, 0x00,
    0xff, 0xff, 0x00, 0x00, 0x00, 0x93, 0xcf, 0x00, 0x67, 0x00, 0x9c, 0x7c, 0x00, 0x89, 0x00, 0x00,
    0x1f, 0x00, 0x70, 0x7c, 0x00, 0x00, 0x07, 0x01, 0x00, 0x10,
};
constexpr int kProbeExitCode = 3;

QByteArray probeSector()
{
    QByteArray sector(reinterpret_cast<const char *>(kProbeCode), int(sizeof(kProbeCode)));
    sector.append(QByteArray(510 - sector.size(), '\0'));
    return sector.append("\x55\xaa", 2);
}

// What the verdict holds for: a new kernel (or module), a reboot or another
// emulator may run guests differently.
QJsonObject hostKey(const QString &emulator)
{
    struct utsname host;
    const QString release = ::uname(&host) == 0 ? QString::fromLocal8Bit(host.release) : QString();
    const QByteArray bootId = FileUtils::loadFile(QStringLiteral("/proc/sys/kernel/random/boot_id")).trimmed();
    return QJsonObject{{QStringLiteral("kernel"), release},
                       {QStringLiteral("boot_id"), QString::fromLatin1(bootId)},
                       {QStringLiteral("emulator"), QEMUHostCache::fileIdentity(emulator)}};
}

QEMUAccelerator::Verdict verdictOf(QEMUAccelerator::Verdict::State state, const QString &reason)
{
    QEMUAccelerator::Verdict verdict;
    verdict.state = state;
    verdict.reason = reason;
    return verdict;
}

// Why the probe guest did not reach its end, in the emulator's words.
QString probeFailure(const QByteArray &output, int exitCode)
{
    const QString kvmLine = QEMUErrorDiagnosis::kvmFailureLine(output);
    if (!kvmLine.isEmpty())
        return kvmLine;
    const QString last = QString::fromLocal8Bit(output).trimmed().section(QLatin1Char('\n'), -1);
    return last.isEmpty() ? QStringLiteral("the probe guest ended with code %1").arg(exitCode) : last;
}

} // namespace

QEMUAccelerator::QEMUAccelerator(const QString &emulatorPath) : m_emulator(emulatorPath) {}

QString QEMUAccelerator::settingKey()
{
    return QLatin1String(kSettingKey);
}

QStringList QEMUAccelerator::choices()
{
    return {QLatin1String(kAuto), QLatin1String(kKvm), QLatin1String(kTcg)};
}

QString QEMUAccelerator::cpuModel(const QString &accelerator)
{
    return accelerator == QLatin1String(kKvm) ? QStringLiteral("host") : QStringLiteral("max");
}

QString QEMUAccelerator::unknownValue(const QString &key, const QString &value, const QStringList &choices)
{
    return QStringLiteral("unknown value '%1' for the setting %2: choose one of %3")
        .arg(value, key, choices.join(QLatin1String(", ")));
}

QString QEMUAccelerator::tcgAdvice()
{
    return QStringLiteral("hvtool settings set %1 %2").arg(QLatin1String(kSettingKey), QLatin1String(kTcg));
}

int QEMUAccelerator::probeTimeoutMs()
{
    return EnvVars::getInt("HV_KVM_PROBE_TIMEOUT_MS", kProbeTimeoutMs);
}

QEMUAccelerator::Choice QEMUAccelerator::choose(const QString &configured) const
{
    Choice choice;
    if (!choices().contains(configured)) {
        choice.note = unknownValue(settingKey(), configured, choices());
        return choice;
    }
    choice.accelerator = configured;
    if (configured == QLatin1String(kAuto)) {
        choice.automatic = true;
        const Verdict known = verdict();
        choice.accelerator = QLatin1String(known.state == Verdict::Runs ? kKvm : kTcg);
        if (known.state == Verdict::Fails)
            choice.note = QStringLiteral("KVM cannot run guests on this host (%1): running under TCG; to make it "
                                         "permanent: %2")
                              .arg(known.reason, tcgAdvice());
        else if (known.state == Verdict::Unknown)
            choice.note = QStringLiteral("KVM could not be checked (%1): running under TCG this time")
                              .arg(known.reason);
    }
    choice.cpuModel = cpuModel(choice.accelerator);
    return choice;
}

QEMUAccelerator::Verdict QEMUAccelerator::cachedVerdict() const
{
    const QJsonObject entry = QEMUHostCache::read(QLatin1String(kCacheFile)).value(m_emulator).toObject();
    if (entry.value(QStringLiteral("key")).toObject() != hostKey(m_emulator))
        return Verdict();
    const QString kvm = entry.value(QStringLiteral("kvm")).toString();
    if (kvm == QLatin1String("runs"))
        return verdictOf(Verdict::Runs, QString());
    if (kvm == QLatin1String("fails"))
        return verdictOf(Verdict::Fails, entry.value(QStringLiteral("reason")).toString());
    return Verdict();
}

QEMUAccelerator::Verdict QEMUAccelerator::verdict() const
{
    const Verdict cached = cachedVerdict();
    if (cached.state != Verdict::Unknown)
        return cached;
    const Verdict probed = probe();
    recordVerdict(probed);
    return probed;
}

void QEMUAccelerator::recordVerdict(const Verdict &verdict) const
{
    if (verdict.state == Verdict::Unknown)
        return;
    const bool runs = verdict.state == Verdict::Runs;
    // The choice built on the verdict tells the caller (a start's notes);
    // the probe's own line is for whoever follows the engine's progress.
    qCDebug(hvQemuLog).noquote() << "[VMTools]" << (runs ? QStringLiteral("KVM runs guests on this host")
                                              : QStringLiteral("KVM cannot run guests on this host: ") + verdict.reason);
    QEMUHostCache::store(QLatin1String(kCacheFile), m_emulator,
                         QJsonObject{{QStringLiteral("key"), hostKey(m_emulator)},
                                     {QStringLiteral("kvm"), runs ? QStringLiteral("runs") : QStringLiteral("fails")},
                                     {QStringLiteral("reason"), verdict.reason}});
}

QEMUAccelerator::Verdict QEMUAccelerator::probe() const
{
    // The guest's disk sits in a private directory of its own.
    const QTemporaryDir directory;
    const QString disk = directory.filePath(QStringLiteral("probe.img"));
    if (!directory.isValid() || !FileUtils::saveFile(disk, probeSector()))
        return verdictOf(Verdict::Unknown, QStringLiteral("could not write the probe guest's disk"));
    QProcess qemu;
    qemu.setProgram(m_emulator);
    qemu.setArguments({QStringLiteral("-accel"), QLatin1String(kKvm), QStringLiteral("-cpu"), cpuModel(kKvm),
                       QStringLiteral("-m"), QStringLiteral("16"), QStringLiteral("-nodefaults"),
                       QStringLiteral("-display"), QStringLiteral("none"), QStringLiteral("-no-reboot"),
                       QStringLiteral("-device"), QStringLiteral("isa-debug-exit,iobase=0xf4,iosize=1"),
                       QStringLiteral("-drive"),
                       QStringLiteral("file=%1,format=raw,if=ide,snapshot=on").arg(QEMUOptionSet::escapeValue(disk))});
    qemu.setStandardInputFile(QProcess::nullDevice());
    qemu.setProcessChannelMode(QProcess::MergedChannels);
    qemu.start();
    if (!qemu.waitForStarted(probeTimeoutMs()))
        return verdictOf(Verdict::Unknown, QStringLiteral("could not run %1: %2").arg(m_emulator, qemu.errorString()));

    // An emulator that meets a KVM internal error stops its guest and waits:
    // its output says so, and it is stopped then.
    const QDeadlineTimer deadline(probeTimeoutMs());
    QByteArray output;
    while (!qemu.waitForFinished(kProbeSliceMs)) {
        output += qemu.readAll();
        const QString failure = QEMUErrorDiagnosis::kvmFailureLine(output);
        if (failure.isEmpty() && !deadline.hasExpired())
            continue;
        qemu.kill();
        qemu.waitForFinished(5000);
        if (!failure.isEmpty())
            return verdictOf(Verdict::Fails, failure);
        qCWarning(hvQemuLog).noquote() << "[VMTools]"
                             << QStringLiteral("The KVM probe did not finish within %1 s; it was stopped")
                                    .arg(probeTimeoutMs() / 1000.0);
        return verdictOf(Verdict::Unknown,
                         QStringLiteral("the probe did not finish within %1 s").arg(probeTimeoutMs() / 1000.0));
    }
    output += qemu.readAll();
    if (qemu.exitStatus() == QProcess::NormalExit && qemu.exitCode() == kProbeExitCode)
        return verdictOf(Verdict::Runs, QString());
    return verdictOf(Verdict::Fails, probeFailure(output, qemu.exitCode()));
}
