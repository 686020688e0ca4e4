#include "QEMUErrorDiagnosis.h"

#include "FileUtils.h"
#include "QEMULogging_p.h"
#include "TriggerError.h"

#include <QByteArray>
#include <QDebug>
#include <QFile>

#include <iterator>

namespace {

// QEMU's own wording. The search is case-sensitive: these are the exact
// phrases QEMU prints, and a looser match would mistake a guest's console
// text for a host failure. The port phrases alone are matched in any case:
// QEMU starts its sentences with a capital ("Failed to find an available
// port" for a listening port, "Could not set up host forwarding rule" for a
// forwarded one).
const char kResourceBusy[] = "device or resource busy";
const char kWriteLock[] = "failed to get \"write\" lock";
const char *const kPortPhrases[] = {"failed to find an available port", "could not set up host forwarding rule"};
const char kAddressingLimited[] = "addressing limited";
const char kFallingBack[] = "falling back";
// What QEMU prints when a saved state does not fit the machine it starts
// ("error while loading state for instance 0x0 of device 'ram'"), cannot
// be read at all ("Error -22 while loading VM state") or is missing from one
// of the disks ("Snapshot 'latest' does not exist in one or more devices").
const char *const kStatePhrases[] = {"error while loading state", "while loading VM state",
                                     "does not exist in one or more devices"};
const char *const kAcceleratorPhrases[] = {"no accelerator found", "invalid accelerator"};
// What QEMU prints when KVM cannot run the guest: the processor's set-up
// fails ("error: failed to set MSR 0x10a to 0x69", then an assertion in
// kvm_buf_set_msrs that aborts the emulator), the guest stops on "KVM
// internal error. Suberror: 1" (an emulation failure), an entry fails, or
// the module cannot be used ("Could not access KVM kernel module", "failed
// to initialize kvm").
const char *const kKvmPhrases[] = {"failed to set MSR", "kvm_buf_set_msrs: Assertion", "KVM internal error",
                                   "KVM: entry failed", "Could not access KVM kernel module",
                                   "failed to initialize kvm"};
// "audio: Unknown audio driver `pa'" without the backend's module, "audio:
// Could not init `pa' audio driver" without a sound server.
const char *const kAudioPhrases[] = {"Unknown audio driver", "Could not init `"};

// The first line of text holding one of the phrases.
QString lineWith(const QString &text, const char *const *phrases, size_t count)
{
    for (const QString &line : text.split(QLatin1Char('\n'))) {
        for (size_t i = 0; i < count; ++i) {
            if (line.contains(QLatin1String(phrases[i])))
                return line.trimmed();
        }
    }
    return QString();
}

QString textOf(const QByteArray &content)
{
    const int nul = content.indexOf('\0');
    return QString::fromLatin1(nul < 0 ? content : content.left(nul));
}

} // namespace

QEMUErrorDiagnosis::Code QEMUErrorDiagnosis::classify(const QString &logPath)
{
    const QByteArray content = FileUtils::loadFile(logPath);
    if (content.isEmpty()) {
        // loadFile cannot tell an empty file from an unreadable one; an empty
        // error output is a normal start, an unreadable one is not.
        QFile file(logPath);
        if (!file.open(QIODevice::ReadOnly)) {
            qCCritical(hvQemuLog) << "[VMTools]" << "Cannot open QEMU stderr, assuming an error";
            return Code::Unreadable;
        }
    }
    return classifyText(content);
}

QEMUErrorDiagnosis::Code QEMUErrorDiagnosis::classifyText(const QByteArray &content)
{
    const QString text = textOf(content);

    if (text.contains(QLatin1String(kResourceBusy))) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Device or resource busy";
        return Code::ResourceBusy;
    }
    if (text.contains(QLatin1String(kWriteLock))) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Another process is using a system file";
        return Code::SystemFileLocked;
    }
    for (const char *phrase : kPortPhrases) {
        if (text.contains(QLatin1String(phrase), Qt::CaseInsensitive)) {
            qCCritical(hvQemuLog) << "[VMTools]" << "Another process is using the same port";
            return Code::PortTaken;
        }
    }
    if (text.contains(QLatin1String(kAddressingLimited)) || TriggerError::memoryNotSupportedError())
        return Code::MemoryNotSupported;
    for (const char *phrase : kAcceleratorPhrases) {
        if (!text.contains(QLatin1String(phrase)))
            continue;
        if (text.contains(QLatin1String(kFallingBack))) {
            qCInfo(hvQemuLog) << "[VMTools]" << "QEMU succeed to switch on another accelerator" << text;
            return Code::None;
        }
        qCCritical(hvQemuLog) << "[VMTools]" << "QEMU error found in logs" << text;
        return Code::AcceleratorError;
    }
    const QString kvm = lineWith(text, kKvmPhrases, std::size(kKvmPhrases));
    if (!kvm.isEmpty()) {
        qCCritical(hvQemuLog).noquote() << "[VMTools]" << "KVM cannot run the guest:" << kvm;
        return Code::KvmFailure;
    }
    const QString audio = lineWith(text, kAudioPhrases, std::size(kAudioPhrases));
    if (!audio.isEmpty()) {
        qCCritical(hvQemuLog).noquote() << "[VMTools]" << "The audio backend is not available:" << audio;
        return Code::AudioUnavailable;
    }
    for (const char *phrase : kStatePhrases) {
        if (text.contains(QLatin1String(phrase))) {
            qCCritical(hvQemuLog) << "[VMTools]" << "QEMU could not load the saved state";
            return Code::StateNotLoadable;
        }
    }
    return Code::None;
}

QString QEMUErrorDiagnosis::kvmFailureLine(const QByteArray &text)
{
    return lineWith(textOf(text), kKvmPhrases, std::size(kKvmPhrases));
}

QString QEMUErrorDiagnosis::causeLine(const QString &logPath)
{
    const QString text = textOf(FileUtils::loadFile(logPath));
    const QString kvm = lineWith(text, kKvmPhrases, std::size(kKvmPhrases));
    return kvm.isEmpty() ? lineWith(text, kAudioPhrases, std::size(kAudioPhrases)) : kvm;
}

bool QEMUErrorDiagnosis::isResourceBusy(const QString &logPath)
{
    qCDebug(hvQemuLog) << "[VMTools]" << "Checking if device or resource is busy...";
    return classify(logPath) == Code::ResourceBusy;
}

bool QEMUErrorDiagnosis::isSystemFileUsedByAnotherProcess(const QString &logPath)
{
    qCDebug(hvQemuLog) << "[VMTools]" << "Checking if another process is using a system file of QEMU...";
    return classify(logPath) == Code::SystemFileLocked;
}

bool QEMUErrorDiagnosis::isPortUsedByAnotherProcess(const QString &logPath)
{
    qCDebug(hvQemuLog) << "[VMTools]" << "Checking if another process is using the port of QEMU...";
    return classify(logPath) == Code::PortTaken;
}

bool QEMUErrorDiagnosis::isMemorySupported(const QString &logPath)
{
    qCDebug(hvQemuLog) << "[VMTools]" << "Checking if memory size not supported on machine...";
    return classify(logPath) != Code::MemoryNotSupported;
}

bool QEMUErrorDiagnosis::isStateNotLoadable(const QString &logPath)
{
    qCDebug(hvQemuLog) << "[VMTools]" << "Checking if QEMU could not load the saved state...";
    return classify(logPath) == Code::StateNotLoadable;
}
