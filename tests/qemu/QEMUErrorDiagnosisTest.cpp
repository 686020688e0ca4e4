#include "QEMUErrorDiagnosis.h"

#include "MessageCapture.h"
#include "TestEnvironment.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

using hvtest::MessageCapture;
using Code = QEMUErrorDiagnosis::Code;

namespace {

QString writeLog(const QByteArray &content)
{
    const QString path = hvtest::testRoot() + "/qemu.log";
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        ADD_FAILURE() << "cannot write " << path.toStdString();
    file.write(content);
    return path;
}

struct DiagnosisRow {
    const char *name;
    QByteArray text;
    Code code;
    QtMsgType level;
    /// The line the diagnosis logs; empty when it logs nothing.
    QString line;
};

void PrintTo(const DiagnosisRow &row, std::ostream *os)
{
    *os << row.name;
}

// Each phrase in the order the diagnosis tries them; an earlier phrase wins
// over every later one, whatever their order in the text.
const DiagnosisRow kRows[] = {
    {"busy", "qemu: could not open /dev/kvm: device or resource busy\n", Code::ResourceBusy, QtCriticalMsg,
     "[VMTools] Device or resource busy"},
    {"busyBeatsLock", "failed to get \"write\" lock\ndevice or resource busy", Code::ResourceBusy, QtCriticalMsg,
     "[VMTools] Device or resource busy"},
    {"writeLock",
     "qemu-system-x86_64: -drive file=system.qcow2: Failed to get \"write\" lock\n"
     "failed to get \"write\" lock\nno accelerator found",
     Code::SystemFileLocked, QtCriticalMsg, "[VMTools] Another process is using a system file"},
    {"lockBeatsPort", "failed to find an available port\nfailed to get \"write\" lock", Code::SystemFileLocked,
     QtCriticalMsg, "[VMTools] Another process is using a system file"},
    {"port", "qemu: failed to find an available port: Address already in use", Code::PortTaken, QtCriticalMsg,
     "[VMTools] Another process is using the same port"},
    {"portBeatsMemory", "addressing limited\nfailed to find an available port", Code::PortTaken, QtCriticalMsg,
     "[VMTools] Another process is using the same port"},
    {"memory", "RAM size larger than the addressing limited by the host", Code::MemoryNotSupported, QtDebugMsg,
     QString()},
    {"memoryBeatsAccelerator", "no accelerator found\naddressing limited", Code::MemoryNotSupported, QtDebugMsg,
     QString()},
    {"noAccelerator", "no accelerator found", Code::AcceleratorError, QtCriticalMsg,
     "[VMTools] QEMU error found in logs \"no accelerator found\""},
    {"invalidAccelerator", "invalid accelerator kvm", Code::AcceleratorError, QtCriticalMsg,
     "[VMTools] QEMU error found in logs \"invalid accelerator kvm\""},
    {"fallback", "invalid accelerator kvm, falling back to tcg", Code::None, QtInfoMsg,
     "[VMTools] QEMU succeed to switch on another accelerator \"invalid accelerator kvm, falling back to tcg\""},
    {"fallbackNoAccelerator", "no accelerator found, falling back", Code::None, QtInfoMsg,
     "[VMTools] QEMU succeed to switch on another accelerator \"no accelerator found, falling back\""},
    {"caseSensitive", "No accelerator found\nDevice or resource busy\nFailed to find an available port", Code::None,
     QtDebugMsg, QString()},
    {"empty", "", Code::None, QtDebugMsg, QString()},
    {"afterNul", QByteArray("harmless\0device or resource busy", 32), Code::None, QtDebugMsg, QString()},
    {"beforeNul", QByteArray("failed to find an available port\0junk", 37), Code::PortTaken, QtCriticalMsg,
     "[VMTools] Another process is using the same port"},
};

class DiagnosisTable : public ::testing::TestWithParam<DiagnosisRow>
{
};

TEST_P(DiagnosisTable, classifiesTheErrorOutput)
{
    const DiagnosisRow &row = GetParam();
    const QString log = writeLog(row.text);
    MessageCapture cap;
    EXPECT_EQ(QEMUErrorDiagnosis::classify(log), row.code);
    if (row.line.isEmpty())
        EXPECT_TRUE(cap.noneAtOrAbove(QtInfoMsg));
    else
        EXPECT_TRUE(cap.has(row.level, row.line));
}

TEST_P(DiagnosisTable, answersEachQuestionFromTheCode)
{
    const DiagnosisRow &row = GetParam();
    const QString log = writeLog(row.text);
    MessageCapture cap;
    EXPECT_EQ(QEMUErrorDiagnosis::isResourceBusy(log), row.code == Code::ResourceBusy);
    EXPECT_EQ(QEMUErrorDiagnosis::isSystemFileUsedByAnotherProcess(log), row.code == Code::SystemFileLocked);
    EXPECT_EQ(QEMUErrorDiagnosis::isPortUsedByAnotherProcess(log), row.code == Code::PortTaken);
    EXPECT_EQ(QEMUErrorDiagnosis::isMemorySupported(log), row.code != Code::MemoryNotSupported);
    EXPECT_TRUE(cap.has(QtDebugMsg, "[VMTools] Checking if device or resource is busy..."));
    EXPECT_TRUE(cap.has(QtDebugMsg, "[VMTools] Checking if another process is using a system file of QEMU..."));
    EXPECT_TRUE(cap.has(QtDebugMsg, "[VMTools] Checking if another process is using the port of QEMU..."));
    EXPECT_TRUE(cap.has(QtDebugMsg, "[VMTools] Checking if memory size not supported on machine..."));
}

INSTANTIATE_TEST_SUITE_P(Phrases, DiagnosisTable, ::testing::ValuesIn(kRows),
                         [](const ::testing::TestParamInfo<DiagnosisRow> &info) { return info.param.name; });

TEST(Diagnosis, unreadableOutputIsAnErrorAndAnswersNoToEveryQuestion)
{
    const QString missing = hvtest::testRoot() + "/no-such-dir/qemu.log";
    MessageCapture cap;
    EXPECT_EQ(QEMUErrorDiagnosis::classify(missing), Code::Unreadable);
    EXPECT_TRUE(cap.has(QtCriticalMsg, "[VMTools] Cannot open QEMU stderr, assuming an error"));
    EXPECT_FALSE(QEMUErrorDiagnosis::isResourceBusy(missing));
    EXPECT_FALSE(QEMUErrorDiagnosis::isSystemFileUsedByAnotherProcess(missing));
    EXPECT_FALSE(QEMUErrorDiagnosis::isPortUsedByAnotherProcess(missing));
    EXPECT_TRUE(QEMUErrorDiagnosis::isMemorySupported(missing));
}

class MemoryTrigger : public ::testing::Test
{
protected:
    void SetUp() override { qputenv("HV_TRIGGER_ERROR", "memorynotsupportederror"); }
    void TearDown() override { qunsetenv("HV_TRIGGER_ERROR"); }
};

TEST_F(MemoryTrigger, turnsAnyReadableOutputWithoutEarlierPhrasesIntoAMemoryError)
{
    EXPECT_EQ(QEMUErrorDiagnosis::classify(writeLog("")), Code::MemoryNotSupported);
    EXPECT_EQ(QEMUErrorDiagnosis::classify(writeLog("no accelerator found")), Code::MemoryNotSupported);
    EXPECT_FALSE(QEMUErrorDiagnosis::isMemorySupported(writeLog("all fine")));
    EXPECT_EQ(QEMUErrorDiagnosis::classify(writeLog("failed to find an available port")), Code::PortTaken);
}

TEST_F(MemoryTrigger, doesNotApplyToAnUnreadableOutput)
{
    EXPECT_EQ(QEMUErrorDiagnosis::classify(hvtest::testRoot() + "/missing.log"), Code::Unreadable);
}

} // namespace
