#include "QEMUErrorDiagnosis.h"

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

// What keeps the emulator from setting up the machine, in the order of the
// checks; true with *code set when one decided (an accelerator it fell back
// from decides too: nothing went wrong).
bool setupFailure(const QString &text, QEMUErrorDiagnosis::Code *code)
{
    using Code = QEMUErrorDiagnosis::Code;
    if (text.contains(QLatin1String(kResourceBusy))) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Device or resource busy";
        *code = Code::ResourceBusy;
        return true;
    }
    if (text.contains(QLatin1String(kWriteLock))) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Another process is using a system file";
        *code = Code::SystemFileLocked;
        return true;
    }
    for (const char *phrase : kPortPhrases) {
        if (text.contains(QLatin1String(phrase), Qt::CaseInsensitive)) {
            qCCritical(hvQemuLog) << "[VMTools]" << "Another process is using the same port";
            *code = Code::PortTaken;
            return true;
        }
    }
    if (text.contains(QLatin1String(kAddressingLimited)) || TriggerError::memoryNotSupportedError()) {
        *code = Code::MemoryNotSupported;
        return true;
    }
    for (const char *phrase : kAcceleratorPhrases) {
        if (!text.contains(QLatin1String(phrase)))
            continue;
        const bool fellBack = text.contains(QLatin1String(kFallingBack));
        if (fellBack)
            qCInfo(hvQemuLog) << "[VMTools]" << "QEMU succeed to switch on another accelerator" << text;
        else
            qCCritical(hvQemuLog) << "[VMTools]" << "QEMU error found in logs" << text;
        *code = fellBack ? Code::None : Code::AcceleratorError;
        return true;
    }
    return false;
}

// What stops the guest once the machine is set up; *line gets the line of
// the output a KVM or audio failure rests on.
QEMUErrorDiagnosis::Code runFailure(const QString &text, QString *line)
{
    using Code = QEMUErrorDiagnosis::Code;
    *line = lineWith(text, kKvmPhrases, std::size(kKvmPhrases));
    if (!line->isEmpty()) {
        qCCritical(hvQemuLog).noquote() << "[VMTools]" << "KVM cannot run the guest:" << *line;
        return Code::KvmFailure;
    }
    *line = lineWith(text, kAudioPhrases, std::size(kAudioPhrases));
    if (!line->isEmpty()) {
        qCCritical(hvQemuLog).noquote() << "[VMTools]" << "The audio backend is not available:" << *line;
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

} // namespace

QEMUErrorDiagnosis::Code QEMUErrorDiagnosis::classify(const QString &logPath, QString *cause)
{
    if (cause)
        cause->clear();
    QFile file(logPath);
    if (!file.open(QIODevice::ReadOnly)) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Cannot open QEMU stderr, assuming an error";
        return Code::Unreadable;
    }
    return classifyText(file.readAll(), cause);
}

QEMUErrorDiagnosis::Code QEMUErrorDiagnosis::classifyText(const QByteArray &content, QString *cause)
{
    const QString text = textOf(content);
    Code code = Code::None;
    QString line;
    if (!setupFailure(text, &code))
        code = runFailure(text, &line);
    if (cause)
        *cause = line;
    return code;
}

QString QEMUErrorDiagnosis::kvmFailureLine(const QByteArray &text)
{
    return lineWith(textOf(text), kKvmPhrases, std::size(kKvmPhrases));
}
