#include "QEMUEngine.h"
#include "QEMUErrorDiagnosis.h"

#include "MessageCapture.h"
#include "ScopedEnv.h"
#include "TestEnvironment.h"

#include <QFile>

#include <gtest/gtest.h>

using hvtest::MessageCapture;
using Code = QEMUErrorDiagnosis::Code;

namespace {

QString writeLog(const QByteArray &content)
{
    const QString path = hvtest::testRoot() + "/qemu.log";
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(content);
    return path;
}

struct DiagnosisRow {
    const char *name;
    QByteArray text;
    Code code;
    QtMsgType level;
    QString line; // the line the diagnosis logs; empty when it logs nothing
};

void PrintTo(const DiagnosisRow &row, std::ostream *os) { *os << row.name; }

const QString kBusy = "[VMTools] Device or resource busy";
const QString kLocked = "[VMTools] Another process is using a system file";
const QString kPort = "[VMTools] Another process is using the same port";

// Each phrase in the order the diagnosis tries them; an earlier phrase wins
// over every later one, whatever their order in the text.
const DiagnosisRow kRows[] = {
    {"busy", "qemu: could not open /dev/kvm: device or resource busy\n", Code::ResourceBusy, QtCriticalMsg, kBusy},
    {"busyBeatsLock", "failed to get \"write\" lock\ndevice or resource busy", Code::ResourceBusy, QtCriticalMsg, kBusy},
    {"lockBeatsPort", "failed to find an available port\nfailed to get \"write\" lock", Code::SystemFileLocked,
     QtCriticalMsg, kLocked},
    {"portBeatsMemory", "addressing limited\nfailed to find an available port", Code::PortTaken, QtCriticalMsg, kPort},
    {"memoryBeatsAccelerator", "no accelerator found\naddressing limited", Code::MemoryNotSupported, QtDebugMsg, {}},
    {"noAccelerator", "no accelerator found", Code::AcceleratorError, QtCriticalMsg,
     "[VMTools] QEMU error found in logs \"no accelerator found\""},
    {"invalidAccelerator", "invalid accelerator kvm", Code::AcceleratorError, QtCriticalMsg,
     "[VMTools] QEMU error found in logs \"invalid accelerator kvm\""},
    {"fallback", "invalid accelerator kvm, falling back to tcg", Code::None, QtInfoMsg,
     "[VMTools] QEMU succeed to switch on another accelerator \"invalid accelerator kvm, falling back to tcg\""},
    {"caseSensitive", "No accelerator found\nDevice or resource busy", Code::None, QtDebugMsg, {}},
    // What QEMU 7.2 really prints when a listening port or a forwarded port
    // is taken.
    {"portTakenAsQemuSaysIt",
     "qemu-system-x86_64: -qmp tcp:localhost:23555,server,nowait: Failed to find an available port: Address already "
     "in use\n",
     Code::PortTaken, QtCriticalMsg, kPort},
    {"forwardTakenAsQemuSaysIt",
     "qemu-system-x86_64: -nic user,hostfwd=tcp:127.0.0.1:6555-:5555: Could not set up host forwarding rule "
     "'tcp:127.0.0.1:6555-:5555'\n",
     Code::PortTaken, QtCriticalMsg, kPort},
    // What QEMU 7.2 prints when a saved state does not fit the machine.
    {"stateNotLoadable",
     "qemu-system-x86_64: Size mismatch: pc.ram: 0x10000000 != 0x20000000: Invalid argument\n"
     "qemu-system-x86_64: error while loading state for instance 0x0 of device 'ram'\n"
     "qemu-system-x86_64: Error -22 while loading VM state\n",
     Code::StateNotLoadable, QtCriticalMsg, "[VMTools] QEMU could not load the saved state"},
    // A state on one disk and not on another (a disk replaced on its own).
    {"stateMissingFromADisk", "qemu-system-x86_64: Snapshot 'latest' does not exist in one or more devices\n",
     Code::StateNotLoadable, QtCriticalMsg, "[VMTools] QEMU could not load the saved state"},
    // What QEMU 7.2 prints on a host whose KVM cannot run guests (nested
    // virtualisation): with the host's CPU model the MSR set-up fails and
    // aborts; with another model the guest stops on an internal error.
    {"kvmMsr",
     "qemu-system-x86_64: error: failed to set MSR 0x10a to 0x69\n"
     "qemu-system-x86_64: ../../target/i386/kvm/kvm.c:3183: kvm_buf_set_msrs: Assertion `ret == "
     "cpu->kvm_msr_buf->nmsrs' failed.\n",
     Code::KvmFailure, QtCriticalMsg,
     "[VMTools] KVM cannot run the guest: qemu-system-x86_64: error: failed to set MSR 0x10a to 0x69"},
    {"kvmInternalError",
     "qemu-system-x86_64: warning: host doesn't support requested feature: CPUID.01H:ECX.pni [bit 0]\n"
     "KVM internal error. Suberror: 1\nextra data[0]: 0x0000000000000001\nemulation failure\n"
     "EAX=00000001 EBX=00000000 ECX=00000000 EDX=00101f28\n",
     Code::KvmFailure, QtCriticalMsg, "[VMTools] KVM cannot run the guest: KVM internal error. Suberror: 1"},
    {"kvmNotAccessible",
     "Could not access KVM kernel module: Permission denied\n"
     "qemu-system-x86_64: -accel kvm: failed to initialize kvm: Permission denied\n",
     Code::KvmFailure, QtCriticalMsg,
     "[VMTools] KVM cannot run the guest: Could not access KVM kernel module: Permission denied"},
    // Without the PulseAudio module, and with it but no sound server.
    {"audioBackendMissing",
     "qemu: module audio-audio-pa not found, do you want to install qemu-system-gui package?\n"
     "audio: Unknown audio driver `pa'\n",
     Code::AudioUnavailable, QtCriticalMsg,
     "[VMTools] The audio backend is not available: audio: Unknown audio driver `pa'"},
    {"audioServerMissing", "audio: Could not init `pa' audio driver\n", Code::AudioUnavailable, QtCriticalMsg,
     "[VMTools] The audio backend is not available: audio: Could not init `pa' audio driver"},
    {"empty", "", Code::None, QtDebugMsg, {}},
    {"afterNul", QByteArray("harmless\0device or resource busy", 32), Code::None, QtDebugMsg, {}},
    {"beforeNul", QByteArray("failed to find an available port\0junk", 37), Code::PortTaken, QtCriticalMsg, kPort},
};

class DiagnosisTable : public ::testing::TestWithParam<DiagnosisRow>
{
};

// The classification, its log line, and every yes/no question derived from it.
TEST_P(DiagnosisTable, classifiesTheErrorOutput)
{
    const DiagnosisRow &row = GetParam();
    const QString log = writeLog(row.text);
    {
        MessageCapture cap;
        EXPECT_EQ(QEMUErrorDiagnosis::classify(log), row.code);
        if (row.line.isEmpty())
            EXPECT_TRUE(cap.noneAtOrAbove(QtInfoMsg));
        else
            EXPECT_EQ(cap.lines(), QList<hvtest::LogLine>({{row.level, row.line}}));
    }
    MessageCapture cap;
    const QEMUEngine engine;
    EXPECT_EQ(engine.isResourceBusy(log), row.code == Code::ResourceBusy);
    EXPECT_EQ(engine.isSystemFileUsedByAnotherProcess(log), row.code == Code::SystemFileLocked);
    EXPECT_EQ(engine.isPortUsedByAnotherProcess(log), row.code == Code::PortTaken);
    EXPECT_EQ(engine.isMemorySupported(log), row.code != Code::MemoryNotSupported);
    // The line the start's message quotes is the one the diagnosis rests on.
    QString cause;
    QEMUErrorDiagnosis::classify(log, &cause);
    EXPECT_EQ(cause.isEmpty(), row.code != Code::KvmFailure && row.code != Code::AudioUnavailable);
    EXPECT_TRUE(row.line.endsWith(": " + cause) || cause.isEmpty());
    for (const char *question : {"device or resource is busy", "another process is using a system file of QEMU",
                                 "another process is using the port of QEMU", "memory size not supported on machine"})
        EXPECT_TRUE(cap.has(QtDebugMsg, QString("[VMTools] Checking if %1...").arg(question)));
}

INSTANTIATE_TEST_SUITE_P(Phrases, DiagnosisTable, ::testing::ValuesIn(kRows),
                         [](const ::testing::TestParamInfo<DiagnosisRow> &info) { return info.param.name; });

TEST(Diagnosis, unreadableOutputIsAnErrorAndAnswersNoToEveryQuestion)
{
    const QString missing = hvtest::testRoot() + "/no-such-dir/qemu.log";
    MessageCapture cap;
    EXPECT_EQ(QEMUErrorDiagnosis::classify(missing), Code::Unreadable);
    EXPECT_TRUE(cap.has(QtCriticalMsg, "[VMTools] Cannot open QEMU stderr, assuming an error"));
    const QEMUEngine engine;
    EXPECT_FALSE(engine.isResourceBusy(missing));
    EXPECT_FALSE(engine.isPortUsedByAnotherProcess(missing));
    EXPECT_TRUE(engine.isMemorySupported(missing));
    // The memory trigger turns readable output without earlier phrases into
    // a memory error, never an unreadable one.
    hvtest::ScopedEnv trigger("HV_TRIGGER_ERROR", "memorynotsupportederror");
    EXPECT_EQ(QEMUErrorDiagnosis::classify(missing), Code::Unreadable);
    EXPECT_EQ(QEMUErrorDiagnosis::classify(writeLog("no accelerator found")), Code::MemoryNotSupported);
    EXPECT_EQ(QEMUErrorDiagnosis::classify(writeLog("failed to find an available port")), Code::PortTaken);
}

} // namespace
