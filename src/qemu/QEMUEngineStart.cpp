// A start as a program asks for it: the request checked, the quick-boot
// decision said in words, the start, and the wait until the guest answers,
// each outcome with its reasons as text.
#include "QEMUEngine.h"

#include "GuestBridge.h"
#include "QEMUAudio.h"
#include "QEMUConsoleLog_p.h"
#include "QEMUDeviceFiles.h"
#include "QEMUMachine.h"
#include "Settings.h"

#include <QDateTime>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QThread>

namespace {

const QString kLatest = VMToolsEngine::latestSnapshotName();

using PhaseReport = std::function<void(GuestWait::Phase)>;

const QString kBootCompletedQuery = QStringLiteral("getprop sys.boot_completed");
// One step of a probe: the connection and handshake, or one command.
constexpr int kProbeStepMs = 2000;

/// Points at the emulator's error output when this start wrote one: a start
/// refused before the launch leaves none, or only an older run's.
QString logHint(const QEMUMachine &machine, const QDateTime &startedAt)
{
    const QFileInfo log(machine.getLogFilePath());
    if (!log.exists() || (startedAt.isValid() && log.lastModified() < startedAt))
        return QString();
    return QStringLiteral("; see '%1'").arg(log.absoluteFilePath());
}

/// How many of the console's last lines a failure shows.
constexpr int kConsoleHintLines = 8;

/// The console's last lines of the run that began at startedAt, for a
/// failure to show; empty when that run wrote none.
QString consoleHint(const QEMUMachine &machine, const QDateTime &startedAt)
{
    const QFileInfo log(QEMUDeviceFiles(machine.getPath()).consoleLog());
    if (!log.exists() || (startedAt.isValid() && log.lastModified() < startedAt))
        return QString();
    const QStringList lines = QEMUConsoleLog(machine.getPath()).tail(kConsoleHintLines);
    if (lines.isEmpty())
        return QString();
    return QStringLiteral("\nthe console's last lines ('%1'):\n  %2")
        .arg(log.absoluteFilePath(), lines.join(QLatin1String("\n  ")));
}

/// The emulator's last words in its error output, as one line; empty when
/// it wrote none.
QString lastEmulatorLine(const QEMUMachine &machine)
{
    QFile log(machine.getLogFilePath());
    if (!log.open(QIODevice::ReadOnly))
        return QString();
    const QStringList lines = ConsoleRead::printable(log.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    return lines.isEmpty() ? QString() : lines.last().trimmed().left(300);
}

/// Whether a window can be shown: a display server is named.
bool hasDisplay()
{
    return !qEnvironmentVariableIsEmpty("DISPLAY") || !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
}

/// A setting with a fixed set of choices that holds none of them, in words
/// with the way out; empty when both hold known values.
QString unknownSetting()
{
    const QList<QPair<QString, QStringList>> settings{{QEMUAccelerator::settingKey(), QEMUAccelerator::choices()},
                                                      {QEMUAudio::settingKey(), QEMUAudio::choices()}};
    for (const auto &[key, choices] : settings) {
        const QString value = Settings::get(key, QStringLiteral("auto")).toString();
        if (!choices.contains(value))
            return QStringLiteral("the setting %1 holds '%2', which is none of %3; fix it with: hvtool settings set %1 "
                                  "auto")
                .arg(key, value, choices.join(QLatin1String(", ")));
    }
    return QString();
}

/// One look at the guest through its forwarded debug bridge port: true once
/// it is ready, its banner and phases in *wait.
bool probeGuest(const QEMUMachine &machine, GuestWait *wait, const std::function<void(GuestWait::Phase)> &advance)
{
    GuestBridge bridge;
    const GuestBridge::Answer answer = bridge.connect(quint16(machine.getAdbPort()), kProbeStepMs);
    if (answer == GuestBridge::Silent)
        return false;
    wait->banner = bridge.banner();
    advance(GuestWait::Answered);
    // A bridge that wants a key, or a guest with words of its own: its
    // answer is all there is to wait for.
    if (answer != GuestBridge::Device)
        return true;
    wait->bootAwaited = true;
    QByteArray value;
    if (!bridge.shell(kBootCompletedQuery, kProbeStepMs, &value) || value.trimmed() != "1")
        return false;
    advance(GuestWait::Booted);
    return true;
}

/// Polls the guest until it is ready, the emulator ends or KVM stops the
/// guest, the time runs out or cancel says so.
GuestWait pollGuest(const QEMUMachine &machine, int timeoutMs, const std::function<bool()> &cancel,
                    const PhaseReport &reached)
{
    GuestWait wait;
    QElapsedTimer timer;
    timer.start();
    wait.end = GuestWait::TimedOut;
    const auto advance = [&](GuestWait::Phase phase) {
        if (phase <= wait.phase)
            return;
        wait.phase = phase;
        if (reached)
            reached(phase);
    };
    while (timer.elapsed() < timeoutMs) {
        if (!machine.isQEMURunning() || !machine.kvmFailure().isEmpty()) {
            wait.phase = GuestWait::NotRunning;
            wait.end = GuestWait::Failed;
            return wait;
        }
        if (cancel && cancel()) {
            wait.end = GuestWait::Cancelled;
            return wait;
        }
        advance(GuestWait::Booting);
        if (probeGuest(machine, &wait, advance)) {
            wait.end = GuestWait::Ready;
            return wait;
        }
        QThread::msleep(250);
    }
    return wait;
}

} // namespace

QString QEMUEngine::startFailureText(const QEMUMachine &machine, int result, const QDateTime &startedAt) const
{
    const QString stopped = machine.getStartFailure();
    return (stopped.isEmpty() ? startDiagnosis(machine, result) : stopped) + logHint(machine, startedAt)
        + consoleHint(machine, startedAt);
}

QString QEMUEngine::startDiagnosis(const QEMUMachine &machine, int result) const
{
    const QString cause = machine.getStartCause();
    switch (result) {
    case QEMUMachine::KvmFailed:
        return QStringLiteral("KVM cannot run guests on this host (QEMU: \"%1\"); run devices under TCG: %2")
            .arg(cause, QEMUAccelerator::tcgAdvice());
    case QEMUMachine::AudioUnavailable:
        return QStringLiteral("the audio backend is not available (QEMU: \"%1\"); install qemu-system-gui and run a "
                              "sound server, or: hvtool settings set %2 auto")
            .arg(cause, QEMUAudio::settingKey());
    case QEMUMachine::EmulatorMissing:
        return QStringLiteral("the emulator %1 is missing; install it (scripts/setup) or point HV_QEMU_BIN_DIR at it")
            .arg(getQemuSystemBinaryPath());
    case QEMUMachine::AccelerationNotSupported:
        return QStringLiteral("hardware acceleration is not available on this host");
    case QEMUMachine::ResourceBusy:
        return QStringLiteral("a device or resource QEMU needs is busy");
    case QEMUMachine::SystemFileUsed:
        return QStringLiteral("a system file of the device is used by another process");
    case QEMUMachine::PortUsed:
        return QStringLiteral("a port the device needs is used by another program");
    case QEMUMachine::MemoryNotSupported:
        return QStringLiteral("the memory size is not supported by QEMU on this host");
    case QEMUMachine::NotReady:
        return QStringLiteral("QEMU did not become ready within %1 s and was stopped")
            .arg(QEMUMachine::readyTimeoutMs() / 1000.0);
    case QEMUMachine::StateNotLoaded:
        return QStringLiteral("QEMU could not load the saved state");
    default: {
        const QString words = lastEmulatorLine(machine);
        return QStringLiteral("QEMU failed to start or exited early")
            + (words.isEmpty() ? QString() : QStringLiteral(" (QEMU: \"%1\")").arg(words));
    }
    }
}

bool QEMUEngine::expectQuickBoot(const VMToolsMachine *machine, bool oneOffAccelerator, QStringList *notes) const
{
    const QString unsaved = unsavedSessionReason(machine);
    if (!unsaved.isEmpty()) {
        notes->append(QStringLiteral("%1: booting cold, keeping its disk writes").arg(unsaved));
        return false;
    }
    if (!fetchSnapshotNames(machine).contains(kLatest))
        return false;
    const QString mismatch = savedStateMismatch(machine, kLatest);
    if (mismatch.isEmpty())
        return true;
    // A one-off accelerator that does not fit replaces the state, as every cold boot does.
    notes->append(QStringLiteral("quick-boot state %1: booting cold%2")
                      .arg(mismatch, oneOffAccelerator ? QStringLiteral("; the cold boot replaces the quick-boot state")
                                                       : QString()));
    return false;
}

StartOutcome QEMUEngine::refuseStart(const VMToolsMachine *machine, const StartRequest &request) const
{
    StartOutcome outcome;
    // "auto" is the setting's own: a start asks for one accelerator.
    QStringList accelerators = QEMUAccelerator::choices();
    accelerators.removeAll(QStringLiteral("auto"));
    if (!request.accelerator.isEmpty() && !accelerators.contains(request.accelerator)) {
        outcome.result = StartOutcome::BadRequest;
        outcome.failure = QStringLiteral("takes %1, not '%2'")
                              .arg(accelerators.join(QLatin1String(" or ")), request.accelerator);
        return outcome;
    }
    outcome.failure = unknownSetting();
    if (outcome.failure.isEmpty() && request.window && !hasDisplay())
        outcome.failure = QStringLiteral("there is no display to show its window on: neither DISPLAY nor "
                                         "WAYLAND_DISPLAY is set");
    if (outcome.failure.isEmpty() && !request.ignoreMemory) {
        outcome.failure = memoryShortfall(machine);
        outcome.result = StartOutcome::ShortOfMemory;
    }
    return outcome;
}

bool QEMUEngine::checkNamedSnapshot(const VMToolsMachine *machine, const QString &snapshot, StartOutcome *outcome) const
{
    const QString name = machine->getName();
    if (!fetchSnapshotNames(machine).contains(snapshot)) {
        outcome->result = StartOutcome::NoSuchSnapshot;
        outcome->failure = QStringLiteral("snapshot '%1' of device '%2' does not exist").arg(snapshot, name);
        return false;
    }
    // The user asked for that state: a state the device cannot take is
    // refused rather than replaced by a cold boot.
    const QString mismatch = savedStateMismatch(machine, snapshot);
    if (mismatch.isEmpty())
        return true;
    outcome->result = StartOutcome::SnapshotUnloadable;
    outcome->failure = QStringLiteral("snapshot '%1' of device '%2' was %3; it cannot be loaded").arg(snapshot, name, mismatch);
    return false;
}

StartOutcome QEMUEngine::startDevice(VMToolsMachine *machine, const StartRequest &request)
{
    StartOutcome outcome = refuseStart(machine, request);
    if (!outcome.failure.isEmpty())
        return outcome;
    outcome.result = StartOutcome::Failed;
    // What a saved state fits depends on the accelerator it runs under.
    setOneOffAccelerator(request.accelerator);
    m_windowRequested = request.window;
    if (!request.snapshot.isEmpty() && !checkNamedSnapshot(machine, request.snapshot, &outcome))
        return outcome;
    bool quickBoot = request.snapshot.isEmpty() && !request.cold && machine->isQuickbootEnabled();
    const bool expectResume = quickBoot && expectQuickBoot(machine, !request.accelerator.isEmpty(), &outcome.notes);
    auto *qemuMachine = static_cast<QEMUMachine *>(machine);
    const QDateTime startedAt = QDateTime::currentDateTime().addSecs(-1);
    const int result = request.snapshot.isEmpty() ? startFromLatestSnapshot(machine, &quickBoot)
                                                  : startMachine(machine, request.snapshot);
    outcome.notes += takeStartNotes();
    if (result != QEMUMachine::Started) {
        outcome.failure = startFailureText(*qemuMachine, result, startedAt);
        return outcome;
    }
    quickBoot = quickBoot && !m_fellBackToTcg;
    if (expectResume && !quickBoot && !m_fellBackToTcg) {
        // The failed load's own words, when it was stopped rather than ended.
        const QString why = qemuMachine->getStateLoadFailure();
        outcome.notes << QStringLiteral("the quick-boot state could not be loaded%1: booted cold; the next stop saves "
                                        "a new one")
                             .arg(why.isEmpty() ? QString() : QStringLiteral(" (%1)").arg(why));
    }
    machine->reloadVmInfo();
    outcome.result = StartOutcome::Started;
    outcome.boot = !request.snapshot.isEmpty() && !m_fellBackToTcg
        ? StartOutcome::FromSnapshot
        : (quickBoot ? StartOutcome::Resumed : StartOutcome::Cold);
    return outcome;
}

GuestWait QEMUEngine::restartAndWait(QEMUMachine *machine, int timeoutMs, const std::function<bool()> &cancel,
                                     const PhaseReport &reached)
{
    GuestWait wait;
    wait.end = GuestWait::RestartFailed;
    // The start's command lock went once the device ran; starting it again
    // changes it, so the lock is taken again.
    LockFiles::CommandLock lock;
    if (lockDevice(machine->getPath(), QStringLiteral("a restart under TCG after a KVM failure"), &lock)
        != LockFiles::CommandLock::Taken) {
        wait.failure = QStringLiteral("KVM stopped its guest, and another command holds the device");
        return wait;
    }
    const QDateTime startedAt = QDateTime::currentDateTime().addSecs(-1);
    const int result = restartAfterKvmFailure(machine);
    wait.notes = takeStartNotes();
    if (result != QEMUMachine::Started) {
        if (result == 0)
            machine->forceStop();
        wait.failure = startFailureText(*machine, result == 0 ? int(QEMUMachine::KvmFailed) : result, startedAt);
        return wait;
    }
    machine->reloadVmInfo();
    lock.release();
    const QStringList notes = wait.notes;
    wait = pollGuest(*machine, timeoutMs, cancel, reached);
    wait.notes = notes;
    wait.restartedCold = true;
    return wait;
}

GuestWait QEMUEngine::waitForGuest(VMToolsMachine *machine, int timeoutMs, const std::function<bool()> &cancel,
                                   const PhaseReport &reached)
{
    auto *qemuMachine = static_cast<QEMUMachine *>(machine);
    GuestWait wait = pollGuest(*qemuMachine, timeoutMs, cancel, reached);
    if (!wait.ready() && wait.end != GuestWait::Cancelled && !qemuMachine->kvmFailure().isEmpty())
        wait = restartAndWait(qemuMachine, timeoutMs, cancel, reached);
    if (wait.ready() || wait.end == GuestWait::Cancelled || wait.end == GuestWait::RestartFailed)
        return wait;
    if (!qemuMachine->isQEMURunning()) {
        // The lock file names an emulator that is gone.
        qemuMachine->clearDeadEmulator();
        wait.failure = QStringLiteral("its emulator ended before the guest answered") + logHint(*qemuMachine, {});
        wait.end = GuestWait::Failed;
        return wait;
    }
    QEMUConsoleLog(machine->getPath()).drain(qemuMachine->getQmpSocketPath());
    wait.failure = wait.phase >= GuestWait::Answered
        ? QStringLiteral("its guest answered on port %1 but did not complete its boot (sys.boot_completed) within %2 s")
        : QStringLiteral("its guest did not answer on port %1 within %2 s");
    wait.failure = wait.failure.arg(machine->getAdbPort()).arg(timeoutMs / 1000) + consoleHint(*qemuMachine, {});
    return wait;
}

bool QEMUEngine::setGuestClock(VMToolsMachine *machine, int timeoutMs, qint64 *movedMs, QString *failure)
{
    GuestBridge bridge;
    const int port = machine->getAdbPort();
    if (bridge.connect(quint16(port), timeoutMs) != GuestBridge::Device) {
        *failure = QStringLiteral("its debug bridge on port %1 did not let us in").arg(port);
        return false;
    }
    // The guest's time, then the host's set: one command, so the two are a
    // moment apart. Whole seconds are what the guest's date takes.
    const qint64 host = QDateTime::currentSecsSinceEpoch();
    QByteArray output;
    const bool ran = bridge.shell(QStringLiteral("date +%s; date -u -s @%1 >/dev/null && echo set").arg(host),
                                  timeoutMs, &output);
    const QList<QByteArray> lines = output.trimmed().split('\n');
    bool ok = false;
    const qint64 guest = lines.value(0).trimmed().toLongLong(&ok);
    if (!ran || !ok || lines.value(1).trimmed() != "set") {
        *failure = QStringLiteral("the guest did not take the time: %1")
                       .arg(QString::fromUtf8(output.simplified().left(200)));
        return false;
    }
    *movedMs = (host - guest) * 1000;
    return true;
}
