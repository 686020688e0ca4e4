#include "DeviceFixture.h"

#include "MessageCapture.h"
#include "QEMUClient.h"
#include "QEMUAccelerator.h"
#include "QEMUAudio.h"
#include "QEMUMachine.h"
#include "Settings.h"
#include "ScopedEnv.h"
#include "TestEnvironment.h"
#include "VMToolsCommon.h"

#include <QElapsedTimer>
#include <QFile>
#include <QLockFile>
#include <QNetworkProxy>
#include <QPair>
#include <QProcess>
#include <QSettings>
#include <QTcpServer>
#include <QThread>

#include <gtest/gtest.h>

#include <memory>
#include <vector>

using namespace devicefixture;
using hvtest::MessageCapture;

namespace {

// The emulator's command line, one argument a line.
QString commandLine(long long pid)
{
    QFile file(QString("/proc/%1/cmdline").arg(pid));
    return file.open(QIODevice::ReadOnly) ? QString::fromLocal8Bit(file.readAll().replace('\0', '\n')) : QString();
}

const QString &blankOva()
{
    static const QString ova = makeOva("blank.ova", 8);
    return ova;
}

// Every device a test starts is stopped at its end, whatever happened.
class EmulatorTest : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        // The emulator runs under TCG with no sound here.
        Settings::set(QEMUAccelerator::settingKey(), "tcg");
        Settings::set(QEMUAudio::settingKey(), "none");
    }

    void SetUp() override { m_engine = makeEngine(); }

    void TearDown() override
    {
        for (const QString &name : m_started) {
            std::unique_ptr<VMToolsMachine> machine(m_engine->getMachine(name));
            auto *qemuMachine = dynamic_cast<QEMUMachine *>(machine.get());
            if (qemuMachine && qemuMachine->isQEMURunning()) {
                const long long pid = qemuMachine->loadQEMUPid();
                qemuMachine->forceStop();
                VMToolsCommon::waitForFinished(pid, 10000);
            }
        }
    }

    std::unique_ptr<QEMUMachine> createDevice(const QString &name, const QString &androidVersion)
    {
        EXPECT_EQ(m_engine->createMachine(name, makeImage(blankOva(), androidVersion, "4.0.0"), makeProfile()), 0);
        m_started << name;
        return std::unique_ptr<QEMUMachine>(dynamic_cast<QEMUMachine *>(m_engine->getMachine(name)));
    }

    // A graceful stop: the emulator ends and the lock file goes.
    void stopGracefully(QEMUMachine *machine)
    {
        const long long pid = machine->loadQEMUPid();
        ASSERT_NE(pid, 0);
        EXPECT_TRUE(m_engine->stopMachine(machine));
        EXPECT_TRUE(VMToolsCommon::waitForFinished(pid, 10000));
        EXPECT_FALSE(QFile::exists(machine->getLockFilePath()));
    }

    std::unique_ptr<QEMUEngine> m_engine;
    QStringList m_started;
};

// An IDE device (Android 8) and a virtio one (Android 11): a cold start with
// the writable shared folder, offsets 0 and 7, a snapshot, a stop and a
// resume from the snapshot, four emulator starts in all.
TEST_F(EmulatorTest, coldStartSaveStopAndResume)
{
    const QList<QPair<QString, bool>> devices{{"Virtio", true}, {"Ide", false}};
    std::vector<std::unique_ptr<QEMUMachine>> machines;
    for (const auto &device : devices) {
        machines.push_back(createDevice(device.first, device.second ? "11.0.0" : "8.0.0"));
        QEMUMachine *machine = machines.back().get();
        ASSERT_NE(machine, nullptr);
        bool quickBoot = true;
        m_engine->checkLatestSnapshotExists(machine);
        ASSERT_EQ(m_engine->startFromLatestSnapshot(machine, &quickBoot), 1);
        EXPECT_FALSE(quickBoot);
        const QString cold = commandLine(machine->loadQEMUPid());
        EXPECT_TRUE(cold.contains("fat:rw:" + deployed(device.first) + "/shared"));
        EXPECT_EQ(cold.contains("/shared,if=virtio"), device.second);
        EXPECT_FALSE(cold.contains("-loadvm"));
        machine->refreshPortOffset();
        EXPECT_EQ(machine->getPortOffset(), machines.size() == 1 ? 0 : 7);
    }
    QEMUMachine *second = machines.back().get();
    EXPECT_EQ(second->getAdbPort(), 6555 + 7);
    EXPECT_TRUE(QSettings(second->getLockFilePath(), QSettings::IniFormat).value("writable_shared_drive").toBool());
    {
        MessageCapture capture;
        EXPECT_EQ(m_engine->startMachine(machines.front().get(), ""), 1);
        EXPECT_LOG(capture, QtInfoMsg, "[VMTools] Virtual Machine status: on. Nothing to do.");
    }
    {
        // A save killed after the drive went but before its lock file said
        // so: the next save takes the missing drive as detached.
        QEMUClient client(machines.front()->getQmpSocketPath());
        ASSERT_TRUE(client.init());
        const QVariantMap detach{{"execute", "human-monitor-command"},
                                 {"arguments", QVariantMap{{"command-line", "drive_del shared"}}}};
        ASSERT_TRUE(client.exec(detach, QString(""), 10000, QEMUClient::ResponseRequired));
    }
    for (const auto &machine : machines) {
        EXPECT_TRUE(m_engine->saveSnapshot(machine.get(), "latest"));
        EXPECT_FALSE(QSettings(machine->getLockFilePath(), QSettings::IniFormat).value("writable_shared_drive").toBool());
        stopGracefully(machine.get());
        m_engine->checkLatestSnapshotExists(machine.get());
        EXPECT_TRUE(machine->isLatestSnapshotExist());
    }
    for (int i = 0; i < devices.size(); ++i) {
        QEMUMachine *machine = machines.at(i).get();
        MessageCapture capture;
        bool quickBoot = true;
        ASSERT_EQ(m_engine->startFromLatestSnapshot(machine, &quickBoot), 1)
            << capture.texts(QtCriticalMsg).join('\n').toStdString();
        EXPECT_TRUE(quickBoot);
        const QString resumed = commandLine(machine->loadQEMUPid());
        EXPECT_TRUE(resumed.contains("\n-loadvm\nlatest\n"));
        EXPECT_FALSE(resumed.contains("fat:rw:"));
        // The read-only view takes the place of a virtio device's detached
        // drive; an IDE device resumes without one.
        EXPECT_EQ(resumed.contains("fat:ro:" + deployed(devices.at(i).first) + "/shared"), devices.at(i).second);
        EXPECT_TRUE(machine->isQEMURunning());
        // The running emulator uses the device's files: they stay.
        EXPECT_FALSE(m_engine->deleteMachine(machine));
        EXPECT_FALSE(machine->resetFactory());
        EXPECT_TRUE(QFileInfo::exists(machine->getConfigFilePath()));
        // A resumed device has no writable shared folder: saving again works
        // without detaching anything.
        EXPECT_TRUE(m_engine->saveSnapshot(machine, "latest"));
        stopGracefully(machine);
    }
}

TEST_F(EmulatorTest, twoProgramsStartingAtOnceGetDifferentOffsets)
{
    createDevice("RaceA", "11.0.0");
    createDevice("RaceB", "11.0.0");
    // Hold the programs' shared lock, so both starts are under way before
    // either can choose an offset; then let them race.
    QLockFile held(m_engine->getPortOffsetLockPath());
    held.setStaleLockTime(0);
    ASSERT_TRUE(held.tryLock(10000));

    QProcess a;
    QProcess b;
    a.start(hvtest::helperPath("hv_start_device"), {"RaceA"});
    b.start(hvtest::helperPath("hv_start_device"), {"RaceB"});
    for (QProcess *p : {&a, &b}) {
        ASSERT_TRUE(p->waitForStarted(30000));
        QElapsedTimer waited;
        waited.start();
        while (!p->canReadLine() && p->state() == QProcess::Running && waited.elapsed() < 60000)
            p->waitForReadyRead(1000);
        EXPECT_EQ(p->readLine(), QByteArray("starting\n"));
    }
    // Both are now waiting for the lock: neither may have started its
    // emulator.
    QThread::msleep(1500);
    EXPECT_FALSE(QFile::exists(deployed("RaceA/qemu.lock")));
    EXPECT_FALSE(QFile::exists(deployed("RaceB/qemu.lock")));
    held.unlock();

    for (QProcess *p : {&a, &b}) {
        if (!p->waitForFinished(120000)) {
            p->kill();
            p->waitForFinished(5000);
        }
    }
    EXPECT_EQ(a.exitCode(), 0) << a.readAllStandardError().toStdString();
    EXPECT_EQ(b.exitCode(), 0) << b.readAllStandardError().toStdString();
    QStringList offsets{QString::fromUtf8(a.readAllStandardOutput()).trimmed(),
                        QString::fromUtf8(b.readAllStandardOutput()).trimmed()};
    offsets.sort();
    EXPECT_EQ(offsets, QStringList({"offset=0", "offset=7"}));
    for (const char *name : {"RaceA", "RaceB"}) {
        std::unique_ptr<VMToolsMachine> machine(m_engine->getMachine(name));
        auto *qemuMachine = dynamic_cast<QEMUMachine *>(machine.get());
        ASSERT_NE(qemuMachine, nullptr);
        EXPECT_TRUE(qemuMachine->isQEMURunning());
        stopGracefully(qemuMachine);
    }
}

// A lock file left by an ended emulator does not hold its offset; any
// forwarded port of a candidate held by another program moves the offset;
// with every candidate taken the start fails.
TEST_F(EmulatorTest, portOffsetSkipsOnlyLiveLocksAndHeldPorts)
{
    std::unique_ptr<QEMUMachine> machine = createDevice("Stale", "11.0.0");
    QProcess ended;
    ended.start("true", QStringList());
    ASSERT_TRUE(ended.waitForStarted(10000));
    const qint64 deadPid = ended.processId();
    ASSERT_TRUE(ended.waitForFinished(10000));
    QSettings lock(machine->getLockFilePath(), QSettings::IniFormat);
    lock.setValue("pid", deadPid);
    lock.setValue("offset", 0);
    lock.sync();
    EXPECT_EQ(m_engine->computePortOffset(), 0);
    for (quint16 port : {6555, 6379, 24810, 25000}) {
        QTcpServer other;
        other.setProxy(QNetworkProxy::NoProxy);
        ASSERT_TRUE(other.listen(QHostAddress::Any, port));
        EXPECT_EQ(m_engine->computePortOffset(), 7) << port;
    }
    ASSERT_TRUE(QFile::remove(machine->getLockFilePath()));
    std::vector<std::unique_ptr<QTcpServer>> held;
    for (int offset = 0; offset <= 693; offset += 7) {
        held.push_back(std::make_unique<QTcpServer>());
        held.back()->setProxy(QNetworkProxy::NoProxy);
        ASSERT_TRUE(held.back()->listen(QHostAddress::Any, 6555 + offset)) << offset;
    }
    EXPECT_EQ(m_engine->computePortOffset(), -1);
    MessageCapture capture;
    EXPECT_EQ(m_engine->startMachine(machine.get(), ""), 0);
    EXPECT_LOG(capture, QtCriticalMsg, "[VMTools] Failed to determine a port offset");
    EXPECT_FALSE(QFile::exists(machine->getLockFilePath()));
}

// A port taken after the probe (here by a forward the probe does not know,
// held by this test) ends the emulator at once: the start moves on to other
// offsets, a bounded number of times, and says why it stopped.
TEST_F(EmulatorTest, aPortTakenAfterTheProbeMovesTheStartOnTwice)
{
    std::unique_ptr<QEMUMachine> machine = createDevice("Raced", "11.0.0");
    QTcpServer holder;
    holder.setProxy(QNetworkProxy::NoProxy);
    ASSERT_TRUE(holder.listen(QHostAddress::LocalHost, 0));
    hvtest::ScopedEnv args("HV_QEMU_START_ARGS",
                           QByteArray("-nic[-1]=user,id=net9,hostfwd=tcp:127.0.0.1:")
                               + QByteArray::number(holder.serverPort()) + "-:1");
    MessageCapture capture;
    EXPECT_EQ(m_engine->startMachine(machine.get(), ""), QEMUMachine::PortUsed);
    EXPECT_EQ(capture.texts(QtWarningMsg),
              (QStringList{"[VMTools] A port of offset 0 was taken before the emulator bound it",
                           "[VMTools] A port of offset 7 was taken before the emulator bound it",
                           "[VMTools] A port of offset 14 was taken before the emulator bound it"}));
    EXPECT_FALSE(QFile::exists(machine->getLockFilePath()));
}

// An emulator that refuses its command line ends within the start's wait; the
// failed start leaves no lock file naming its pid.
TEST_F(EmulatorTest, anEmulatorThatEndsEarlyLeavesNoLockFile)
{
    std::unique_ptr<QEMUMachine> machine = createDevice("Early", "11.0.0");
    hvtest::ScopedEnv args("HV_QEMU_START_ARGS", "-m=lots");
    MessageCapture capture;
    EXPECT_EQ(m_engine->startMachine(machine.get(), ""), 0);
    EXPECT_LOG(capture, QtCriticalMsg, "[VMTools] QEMU process has stopped too early. Check qemu.log for more details");
    EXPECT_FALSE(QFile::exists(machine->getLockFilePath()));
    EXPECT_EQ(machine->getStatus(), VMToolsMachine::Off);
}

} // namespace
