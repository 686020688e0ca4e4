// The machine runtime against the real emulator: TCG, no guest, a blank disk.
#include "QEMUMachine.h"

#include "QEMUEngine.h"

#include "MessageCapture.h"
#include "TestEnvironment.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QHostAddress>
#include <QProcess>
#include <QSettings>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

using hvtest::MessageCapture;

namespace {

// Ports in use while a test runs: its offset shifts the QMP port (23555) and
// the forwarded ADB port (6555). Other test processes may run at the same
// time, so each process takes its own offset and checks that both are free.
int pickOffset()
{
    // A death test's child must use its parent's offset.
    const QByteArray inherited = qgetenv("HV_TEST_PORT_OFFSET");
    if (!inherited.isEmpty())
        return inherited.toInt();
    for (int attempt = 0; attempt < 200; ++attempt) {
        const int offset = 2000 + int((::getpid() * 7 + attempt * 13) % 3000);
        bool free = true;
        for (int port : {23555 + offset, 6555 + offset}) {
            QTcpServer probe;
            free = free && probe.listen(QHostAddress::Any, quint16(port));
        }
        if (free)
            return offset;
    }
    return -1;
}

// Every emulator process whose command line names dir.
QList<qint64> emulatorsUsing(const QString &dir)
{
    QList<qint64> pids;
    const QStringList entries = QDir("/proc").entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    for (const QString &entry : entries) {
        bool ok = false;
        const qint64 pid = entry.toLongLong(&ok);
        if (!ok)
            continue;
        QFile cmdline("/proc/" + entry + "/cmdline");
        if (!cmdline.open(QIODevice::ReadOnly))
            continue;
        const QByteArray text = cmdline.readAll();
        if (text.contains("qemu-system") && text.contains(dir.toUtf8()))
            pids.append(pid);
    }
    return pids;
}

bool waitUntilGone(qint64 pid, int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while (QFile::exists(QString("/proc/%1").arg(pid))) {
        if (timer.elapsed() > timeoutMs)
            return false;
        QThread::msleep(50);
    }
    return true;
}

// The emulator runs detached and inherits every descriptor not marked
// close-on-exec, among them the pipe through which a death test's child
// reports to its parent: the parent would wait for that pipe's end as long as
// the emulator lives.
void markDescriptorsCloseOnExec()
{
    const QStringList fds = QDir("/proc/self/fd").entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot);
    for (const QString &entry : fds) {
        const int fd = entry.toInt();
        if (fd > 2)
            ::fcntl(fd, F_SETFD, ::fcntl(fd, F_GETFD) | FD_CLOEXEC);
    }
}

class QEMUMachineEmulator : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_dir = hvtest::testRoot() + "/devices/"
            + ::testing::UnitTest::GetInstance()->current_test_info()->name();
        QDir(m_dir).removeRecursively();
        ASSERT_TRUE(QDir().mkpath(m_dir));
        const int rc = QProcess::execute(m_engine.getQemuImgBinaryPath(),
                                         {"create", "-q", "-f", "qcow2", m_dir + "/system.qcow2", "16M"});
        ASSERT_EQ(rc, 0);
        m_offset = pickOffset();
        ASSERT_GE(m_offset, 0) << "no free ports";
    }

    void TearDown() override
    {
        // Whatever a test left running is killed here; QProcess::startDetached
        // made the emulators children of init, which reaps them.
        for (qint64 pid : emulatorsUsing(m_dir)) {
            ::kill(pid_t(pid), SIGKILL);
            EXPECT_TRUE(waitUntilGone(pid, 5000)) << pid;
            ADD_FAILURE() << "emulator " << pid << " was left running";
        }
    }

    QStringList arguments() const
    {
        return {"-accel", "tcg", "-cpu", "max", "-m", "64", "-display", "none", "-nodefaults",
                "-audiodev", "none,id=snd0",
                "-drive", "file=" + m_dir + "/system.qcow2,format=qcow2,if=virtio",
                "-nic", QString("user,id=net0,hostfwd=tcp:127.0.0.1:%1-:5555").arg(6555 + m_offset),
                "-qmp", QString("tcp:localhost:%1,server,nowait").arg(23555 + m_offset)};
    }

    QString emulator() const { return m_engine.getQemuSystemBinaryPath(); }

    QEMUEngine m_engine;
    QString m_dir;
    int m_offset = -1;
};

TEST_F(QEMUMachineEmulator, startsRecordsAndStops)
{
    QEMUMachine machine(&m_engine, m_dir);
    ASSERT_EQ(machine.start(emulator(), arguments(), quint16(m_offset)), QEMUMachine::Started);

    const QSettings lock(machine.getLockFilePath(), QSettings::IniFormat);
    const qint64 pid = lock.value("pid").toLongLong();
    EXPECT_EQ(lock.value("offset").toInt(), m_offset);
    EXPECT_EQ(emulatorsUsing(m_dir), QList<qint64>{pid});
    EXPECT_TRUE(machine.isQEMURunning());
    EXPECT_EQ(machine.getStatus(), VMToolsMachine::On);
    EXPECT_EQ(machine.getPortOffset(), m_offset);
    EXPECT_EQ(machine.getQmpPort(), 23555 + m_offset);

    QTcpSocket qmp;
    qmp.connectToHost(QHostAddress::LocalHost, machine.getQmpPort());
    EXPECT_TRUE(qmp.waitForConnected(5000)) << qmp.errorString().toStdString();
    qmp.abort();

    {
        MessageCapture cap;
        EXPECT_EQ(machine.start(emulator(), arguments(), quint16(m_offset)), QEMUMachine::Started);
        EXPECT_TRUE(cap.has(QtWarningMsg, "[VMTools] QEMU process is already running."));
        EXPECT_EQ(emulatorsUsing(m_dir), QList<qint64>{pid});
        // Saving while it runs is allowed but discouraged.
        EXPECT_TRUE(machine.save());
        EXPECT_TRUE(cap.has(QtWarningMsg,
                            "[VMTools] Writing in shared folder while QEMU is running is not recommended"));
    }

    EXPECT_TRUE(machine.forceStop());
    EXPECT_TRUE(waitUntilGone(pid, 5000));
    EXPECT_FALSE(QFile::exists(machine.getLockFilePath()));
    EXPECT_FALSE(machine.isQEMURunning());
}

TEST_F(QEMUMachineEmulator, waitForFinishedRemovesTheLockAfterTheEmulatorQuits)
{
    QEMUMachine machine(&m_engine, m_dir);
    ASSERT_EQ(machine.start(emulator(), arguments(), quint16(m_offset)), QEMUMachine::Started);
    const qint64 pid = machine.loadQEMUPid();
    // Still running: the wait gives up after a second and keeps the lock.
    EXPECT_FALSE(machine.waitForFinished());
    EXPECT_TRUE(QFile::exists(machine.getLockFilePath()));

    ASSERT_EQ(::kill(pid_t(pid), SIGTERM), 0);
    ASSERT_TRUE(waitUntilGone(pid, 5000));
    EXPECT_TRUE(machine.waitForFinished());
    EXPECT_FALSE(QFile::exists(machine.getLockFilePath()));
}

struct TakenPort {
    const char *name;
    int base;
    const char *qemuMessage;
};

void PrintTo(const TakenPort &row, std::ostream *os)
{
    *os << row.name;
}

class TakenPortStart : public QEMUMachineEmulator, public ::testing::WithParamInterface<TakenPort>
{
};

TEST_P(TakenPortStart, emulatorExitsEarlyAndTheLogSaysWhy)
{
    QTcpServer holder;
    ASSERT_TRUE(holder.listen(QHostAddress::Any, quint16(GetParam().base + m_offset)));

    QEMUMachine machine(&m_engine, m_dir);
    MessageCapture cap;
    EXPECT_EQ(machine.start(emulator(), arguments(), quint16(m_offset)), QEMUMachine::StartFailed);
    EXPECT_TRUE(cap.has(QtCriticalMsg,
                        "[VMTools] QEMU process has stopped too early. Check qemu.log for more details"));
    EXPECT_TRUE(emulatorsUsing(m_dir).isEmpty());
    EXPECT_FALSE(machine.isQEMURunning());

    QFile log(m_dir + "/qemu.log");
    ASSERT_TRUE(log.open(QIODevice::ReadOnly));
    const QByteArray text = log.readAll();
    EXPECT_TRUE(text.contains(GetParam().qemuMessage)) << text.toStdString();
}

INSTANTIATE_TEST_SUITE_P(Ports, TakenPortStart,
                         ::testing::Values(TakenPort{"qmp", 23555, "Address already in use"},
                                           TakenPort{"adb", 6555, "Could not set up host forwarding rule"}),
                         [](const ::testing::TestParamInfo<TakenPort> &info) { return info.param.name; });

TEST_F(QEMUMachineEmulator, missingProgramFailsToStart)
{
    QEMUMachine machine(&m_engine, m_dir);
    MessageCapture cap;
    EXPECT_EQ(machine.start(m_dir + "/no-such-emulator", {"-m", "64"}, quint16(m_offset)), QEMUMachine::StartFailed);
    EXPECT_TRUE(cap.has(QtCriticalMsg, "[VMTools] Failed to start QEMU process with cmd: \"" + m_dir
                                           + "/no-such-emulator\" args: \"-m, 64\""));
    EXPECT_FALSE(QFile::exists(machine.getLockFilePath()));
}

TEST_F(QEMUMachineEmulator, accelerationTriggerRefusesTheStart)
{
    qputenv("HV_TRIGGER_ERROR", "hypervhaxmerror");
    QEMUMachine machine(&m_engine, m_dir);
    EXPECT_EQ(machine.start(emulator(), arguments(), quint16(m_offset)), QEMUMachine::AccelerationNotSupported);
    qunsetenv("HV_TRIGGER_ERROR");
    EXPECT_TRUE(emulatorsUsing(m_dir).isEmpty());
}

TEST_F(QEMUMachineEmulator, aNewProcessTakesOverAfterTheStarterIsKilled)
{
    // The starter runs in a child process that dies by SIGKILL right after
    // the start, as a crashed application would.
    qputenv("HV_TEST_PORT_OFFSET", QByteArray::number(m_offset));
    EXPECT_EXIT(
        {
            markDescriptorsCloseOnExec();
            QEMUEngine engine;
            QEMUMachine machine(&engine, m_dir);
            if (machine.start(emulator(), arguments(), quint16(m_offset)) != QEMUMachine::Started)
                ::_exit(3);
            ::raise(SIGKILL);
        },
        ::testing::KilledBySignal(SIGKILL), "");
    qunsetenv("HV_TEST_PORT_OFFSET");

    QEMUMachine machine(&m_engine, m_dir);
    const qint64 pid = machine.loadQEMUPid();
    ASSERT_GT(pid, 0);
    EXPECT_EQ(machine.getStatus(), VMToolsMachine::On);
    EXPECT_EQ(machine.getPortOffset(), m_offset);
    EXPECT_EQ(emulatorsUsing(m_dir), QList<qint64>{pid});

    EXPECT_TRUE(machine.forceStop());
    EXPECT_TRUE(waitUntilGone(pid, 5000));
    EXPECT_FALSE(QFile::exists(machine.getLockFilePath()));
    EXPECT_EQ(machine.getStatus(), VMToolsMachine::Off);
}

} // namespace
