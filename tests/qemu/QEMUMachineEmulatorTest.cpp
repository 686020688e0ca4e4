// The machine runtime against the real emulator: TCG, no guest, a blank disk.
#include "QEMUMachine.h"

#include "QEMUEngine.h"

#include "MessageCapture.h"
#include "ScopedEnv.h"
#include "TestEnvironment.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QHostAddress>
#include <QPair>
#include <QProcess>
#include <QSettings>
#include <QTcpServer>
#include <QLocalSocket>
#include <QTcpSocket>
#include <QThread>

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

using hvtest::MessageCapture;

namespace {

// Each process takes its own offset of the QMP (23555) and ADB (6555) ports
// and checks that both are free; a death test's child uses its parent's.
int pickOffset()
{
    const QByteArray inherited = qgetenv("HV_TEST_PORT_OFFSET");
    if (!inherited.isEmpty())
        return inherited.toInt();
    for (int attempt = 0; attempt < 200; ++attempt) {
        const int offset = 2000 + int((::getpid() * 7 + attempt * 13) % 3000);
        QTcpServer qmp, adb;
        if (qmp.listen(QHostAddress::Any, quint16(23555 + offset)) && adb.listen(QHostAddress::Any, quint16(6555 + offset)))
            return offset;
    }
    return -1;
}

// Every emulator process whose command line names dir.
QList<qint64> emulatorsUsing(const QString &dir)
{
    QList<qint64> pids;
    for (const QString &entry : QDir("/proc").entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile cmdline("/proc/" + entry + "/cmdline");
        if (entry.toLongLong() > 0 && cmdline.open(QIODevice::ReadOnly)) {
            const QByteArray text = cmdline.readAll();
            if (text.contains("qemu-system") && text.contains(dir.toUtf8()))
                pids.append(entry.toLongLong());
        }
    }
    return pids;
}

bool waitUntilGone(qint64 pid)
{
    QElapsedTimer timer;
    timer.start();
    while (QFile::exists(QString("/proc/%1").arg(pid)) && timer.elapsed() < 5000)
        QThread::msleep(50);
    return !QFile::exists(QString("/proc/%1").arg(pid));
}

class QEMUMachineEmulator : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_dir = hvtest::testRoot() + "/devices/" + ::testing::UnitTest::GetInstance()->current_test_info()->name();
        QDir(m_dir).removeRecursively();
        ASSERT_TRUE(QDir().mkpath(m_dir));
        ASSERT_EQ(QProcess::execute(m_engine.getQemuImgBinaryPath(),
                                    {"create", "-q", "-f", "qcow2", m_dir + "/system.qcow2", "16M"}),
                  0);
        m_offset = pickOffset();
        ASSERT_GE(m_offset, 0) << "no free ports";
    }

    void TearDown() override
    {
        // Whatever a test left running is killed here; QProcess::startDetached
        // made the emulators children of init, which reaps them.
        for (qint64 pid : emulatorsUsing(m_dir)) {
            ::kill(pid_t(pid), SIGKILL);
            EXPECT_TRUE(waitUntilGone(pid)) << pid;
            ADD_FAILURE() << "emulator " << pid << " was left running";
        }
    }

    int start(QEMUMachine &machine, const QString &program = QString())
    {
        return machine.start(program.isEmpty() ? m_engine.getQemuSystemBinaryPath() : program,
                             {"-accel", "tcg", "-cpu", "max", "-m", "64", "-display", "none", "-nodefaults",
                              "-audiodev", "none,id=snd0", "-drive", "file=" + m_dir + "/system.qcow2,format=qcow2,if=virtio",
                              "-nic", QString("user,id=net0,hostfwd=tcp:127.0.0.1:%1-:5555").arg(6555 + m_offset),
                              "-qmp", "unix:" + machine.getQmpSocketPath() + ",server=on,wait=off"},
                             quint16(m_offset));
    }

    QEMUEngine m_engine;
    QString m_dir;
    int m_offset = -1;
};

TEST_F(QEMUMachineEmulator, startsRecordsAndStops)
{
    QEMUMachine machine(&m_engine, m_dir);
    ASSERT_EQ(start(machine), QEMUMachine::Started);
    const QSettings lock(machine.getLockFilePath(), QSettings::IniFormat);
    const qint64 pid = lock.value("pid").toLongLong();
    EXPECT_EQ(lock.value("offset").toInt(), m_offset);
    EXPECT_EQ(emulatorsUsing(m_dir), QList<qint64>{pid});
    EXPECT_TRUE(machine.isQEMURunning());
    EXPECT_EQ(machine.getStatus(), VMToolsMachine::On);
    EXPECT_EQ(machine.getPortOffset(), m_offset);
    EXPECT_EQ(lock.value("qmp_socket").toString(), machine.files().qmpSocket());
    QLocalSocket qmp;
    qmp.connectToServer(machine.getQmpSocketPath());
    EXPECT_TRUE(qmp.waitForConnected(5000)) << qmp.errorString().toStdString();
    qmp.abort();

    MessageCapture cap;
    EXPECT_EQ(start(machine), QEMUMachine::Started);
    EXPECT_TRUE(cap.has(QtWarningMsg, "[VMTools] QEMU process is already running."));
    EXPECT_EQ(emulatorsUsing(m_dir), QList<qint64>{pid});
    // Saving while it runs is allowed but discouraged.
    EXPECT_TRUE(machine.save());
    EXPECT_TRUE(cap.has(QtWarningMsg, "[VMTools] Writing in shared folder while QEMU is running is not recommended"));
    // Still running: the wait gives up after a second and keeps the lock.
    EXPECT_FALSE(machine.waitForFinished());
    EXPECT_TRUE(QFile::exists(machine.getLockFilePath()));

    EXPECT_TRUE(machine.forceStop());
    EXPECT_TRUE(waitUntilGone(pid));
    EXPECT_FALSE(QFile::exists(machine.getLockFilePath()));
    EXPECT_FALSE(machine.isQEMURunning());
}

// Starts that fail: a port taken (the emulator exits early and its log,
// in QEMU's own words, says why), a missing program, no acceleration.
TEST_F(QEMUMachineEmulator, failedStartsLeaveNothingRunning)
{
    {
        QEMUMachine machine(&m_engine, m_dir);
        MessageCapture cap;
        EXPECT_EQ(start(machine, m_dir + "/no-such-emulator"), QEMUMachine::EmulatorMissing);
        EXPECT_LOG(cap, QtCriticalMsg, "[VMTools] There is no emulator program at \"" + m_dir + "/no-such-emulator\"");
        EXPECT_FALSE(QFile::exists(machine.getLockFilePath()));
    }
    {
        hvtest::ScopedEnv trigger("HV_TRIGGER_ERROR", "hypervhaxmerror");
        QEMUMachine machine(&m_engine, m_dir);
        EXPECT_EQ(start(machine), QEMUMachine::AccelerationNotSupported);
        EXPECT_TRUE(emulatorsUsing(m_dir).isEmpty());
    }
    const QList<QPair<int, QByteArray>> taken{{6555, "Could not set up host forwarding rule"}};
    for (const auto &port : taken) {
        QTcpServer holder;
        ASSERT_TRUE(holder.listen(QHostAddress::Any, quint16(port.first + m_offset)));
        QEMUMachine machine(&m_engine, m_dir);
        MessageCapture cap;
        EXPECT_EQ(start(machine), QEMUMachine::PortUsed);
        // The error output is read once and answers once.
        EXPECT_EQ(cap.texts(QtCriticalMsg).count("[VMTools] Another process is using the same port"), 1);
        EXPECT_TRUE(emulatorsUsing(m_dir).isEmpty());
        EXPECT_FALSE(machine.isQEMURunning());
        QFile log(m_dir + "/qemu.log");
        ASSERT_TRUE(log.open(QIODevice::ReadOnly));
        const QByteArray text = log.readAll();
        EXPECT_TRUE(text.contains(port.second)) << text.toStdString();
    }
}

// The starter runs in a child process that dies by SIGKILL right after the
// start, as a crashed application would; this process takes over.
TEST_F(QEMUMachineEmulator, aNewProcessTakesOverAfterTheStarterIsKilled)
{
    qputenv("HV_TEST_PORT_OFFSET", QByteArray::number(m_offset));
    EXPECT_EXIT(
        {
            // The emulator inherits every descriptor not marked close-on-exec,
            // among them the death test's pipe: the parent would wait for it.
            for (const QString &fd : QDir("/proc/self/fd").entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot)) {
                if (fd.toInt() > 2)
                    ::fcntl(fd.toInt(), F_SETFD, ::fcntl(fd.toInt(), F_GETFD) | FD_CLOEXEC);
            }
            QEMUEngine engine;
            QEMUMachine machine(&engine, m_dir);
            if (start(machine) != QEMUMachine::Started)
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
    // The emulator quits by itself: the wait sees it and removes the lock.
    ASSERT_EQ(::kill(pid_t(pid), SIGTERM), 0);
    ASSERT_TRUE(waitUntilGone(pid));
    EXPECT_TRUE(machine.waitForFinished());
    EXPECT_FALSE(QFile::exists(machine.getLockFilePath()));
    EXPECT_EQ(machine.getStatus(), VMToolsMachine::Off);
}

} // namespace
