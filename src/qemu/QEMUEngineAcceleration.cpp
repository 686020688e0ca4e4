// The accelerator and audio backend of a start, and the fall-back to TCG
// when "auto" chose KVM and KVM cannot run the guest after all.
#include "QEMUEngine.h"

#include "QEMUAudio.h"
#include "QEMULaunch_p.h"
#include "QEMULogging_p.h"
#include "QEMUMachine.h"
#include "Settings.h"

#include <QDebug>

namespace {

const char kAuto[] = "auto";
const char kTcg[] = "tcg";

} // namespace

void QEMUEngine::setOneOffAccelerator(const QString &accelerator)
{
    m_oneOffAccelerator = accelerator;
}

QString QEMUEngine::configuredAccelerator() const
{
    if (!m_oneOffAccelerator.isEmpty())
        return m_oneOffAccelerator;
    return Settings::get(QEMUAccelerator::settingKey(), QLatin1String(kAuto)).toString();
}

QEMUAccelerator::Choice QEMUEngine::chooseAccelerator() const
{
    return QEMUAccelerator(m_qemuSystemBinaryPath).choose(configuredAccelerator());
}

QStringList QEMUEngine::takeStartNotes()
{
    QStringList notes;
    notes.swap(m_startNotes);
    return notes;
}

bool QEMUEngine::lastStartFellBackToTcg() const
{
    return m_fellBackToTcg;
}

bool QEMUEngine::chooseHostSetup(const QString &accelerator, QEMULaunch::Request *request)
{
    const QEMUAccelerator::Choice processor = QEMUAccelerator(m_qemuSystemBinaryPath).choose(accelerator);
    const QString audioSetting = Settings::get(QEMUAudio::settingKey(), QLatin1String(kAuto)).toString();
    const QEMUAudio::Choice audio = QEMUAudio(m_qemuSystemBinaryPath).choose(audioSetting);
    for (const QString &refusal : {processor.accelerator.isEmpty() ? processor.note : QString(),
                                   audio.backend.isEmpty() ? audio.note : QString()}) {
        if (!refusal.isEmpty()) {
            qCCritical(hvQemuLog).noquote() << "[VMTools]" << refusal;
            return false;
        }
    }
    if (!processor.note.isEmpty() && !m_startNotes.contains(processor.note))
        m_startNotes << processor.note;
    // A silent guest under "auto" is the normal case on a host without a
    // sound server: worth a line when debugging, not on every start.
    if (!audio.note.isEmpty())
        qCDebug(hvQemuLog).noquote() << "[VMTools]" << "No sound:" << audio.note;
    request->accelerator = processor.accelerator;
    request->cpuModel = processor.cpuModel;
    request->audioBackend = audio.backend;
    return true;
}

int QEMUEngine::startMachine(VMToolsMachine *machine, const QString &snapshotName)
{
    m_fellBackToTcg = false;
    m_startNotes.clear();
    const QString accelerator = configuredAccelerator();
    const int result = launchMachine(machine, snapshotName, accelerator);
    auto *qemuMachine = dynamic_cast<QEMUMachine *>(machine);
    if (result != QEMUMachine::KvmFailed || accelerator != QLatin1String(kAuto) || !qemuMachine)
        return result;
    // "auto" chose KVM from what it knew, and the emulator proved otherwise.
    return fallBackToTcg(machine, qemuMachine->kvmFailure());
}

int QEMUEngine::restartAfterKvmFailure(VMToolsMachine *machine)
{
    auto *qemuMachine = dynamic_cast<QEMUMachine *>(machine);
    if (!qemuMachine || configuredAccelerator() != QLatin1String(kAuto)
        || qemuMachine->runningAccelerator() != QLatin1String("kvm"))
        return 0;
    const QString failure = qemuMachine->kvmFailure();
    if (failure.isEmpty())
        return 0;
    qCWarning(hvQemuLog).noquote() << "[VMTools]" << "KVM stopped the guest of" << machine->getName() << ":" << failure;
    qemuMachine->forceStop();
    m_startNotes.clear();
    return fallBackToTcg(machine, failure);
}

int QEMUEngine::fallBackToTcg(VMToolsMachine *machine, const QString &failure)
{
    // Remembered, so that the next starts go to TCG at once; the boot is
    // cold, since a state saved under KVM does not load under TCG.
    QEMUAccelerator::Verdict verdict;
    verdict.state = QEMUAccelerator::Verdict::Fails;
    verdict.reason = failure;
    QEMUAccelerator(m_qemuSystemBinaryPath).recordVerdict(verdict);
    m_startNotes << QStringLiteral("KVM cannot run guests on this host (%1): starting again cold under TCG; to make "
                                   "it permanent: %2")
                        .arg(failure, QEMUAccelerator::tcgAdvice());
    m_fellBackToTcg = true;
    return launchMachine(machine, QString(), QLatin1String(kTcg));
}
