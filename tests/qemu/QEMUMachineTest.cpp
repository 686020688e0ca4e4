#include "QEMUMachine.h"

#include "HwProfileIO.h"
#include "OsImageBuilder.h"
#include "QEMUEngine.h"

#include "MessageCapture.h"
#include "TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSettings>
#include <QUuid>

#include <gtest/gtest.h>

#include <csignal>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

using hvtest::MessageCapture;

namespace {

HwProfile makeProfile()
{
    HwProfile profile;
    profile.uuid = "{11111111-2222-3333-4444-555555555555}";
    profile.deviceProperties.productBrand = "ACME";
    profile.deviceProperties.productModel = "Rocket";
    profile.cpuCount = 1;
    profile.ramSize = 64;
    return profile;
}

OsImage makeImage()
{
    OsImage image = OsImageBuilder();
    image.osVersion = VersionNumber(11, 0);
    image.imageVersion = VersionNumber(3, 8);
    image.arch = "x86_64";
    return image;
}

QString deviceDir(const QString &name)
{
    const QString dir = hvtest::testRoot() + "/devices/" + name;
    QDir(dir).removeRecursively();
    QDir().mkpath(dir);
    return dir;
}

QString currentTestName()
{
    return QString::fromLatin1(::testing::UnitTest::GetInstance()->current_test_info()->name());
}

void writeLock(const QString &dir, const QByteArray &content)
{
    QFile file(dir + "/qemu.lock");
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(content);
}

// The engine is a real one: the machine asks it for the emulator's name, the
// SD card's file name and whether acceleration is supported.
class QEMUMachineTest : public ::testing::Test
{
protected:
    void SetUp() override { m_dir = deviceDir(currentTestName()); }

    QEMUEngine m_engine;
    QString m_dir;
};

struct PortRow {
    int offset; // -1: no lock file
    int qmp, adb, frontCamera, backCamera, audioIn, audioOut, redis, renderMain, renderData;
};

class Ports : public QEMUMachineTest, public ::testing::WithParamInterface<PortRow>
{
};

TEST_P(Ports, followTheOffsetInSixteenBits)
{
    const PortRow &row = GetParam();
    if (row.offset >= 0) {
        QEMUMachine writer(&m_engine, m_dir);
        ASSERT_TRUE(writer.createLockFile(quint16(row.offset), 999999));
    }
    QEMUMachine machine(&m_engine, m_dir);
    EXPECT_EQ(machine.getPortOffset(), row.offset);
    EXPECT_EQ(machine.getQmpPort(), row.qmp);
    EXPECT_EQ(machine.getAdbPort(), row.adb);
    EXPECT_EQ(machine.getFrontCameraPort(), row.frontCamera);
    EXPECT_EQ(machine.getBackCameraPort(), row.backCamera);
    EXPECT_EQ(machine.getAudioInputPort(), row.audioIn);
    EXPECT_EQ(machine.getAudioOutputPort(), row.audioOut);
    EXPECT_EQ(machine.getRedisPort(), row.redis);
    EXPECT_EQ(machine.getRenderMainPort(), row.renderMain);
    EXPECT_EQ(machine.getRenderDataPort(), row.renderData);
    EXPECT_EQ(machine.getAdbSerial(), QString("127.0.0.1:%1").arg(row.adb));
}

INSTANTIATE_TEST_SUITE_P(
    Offsets, Ports,
    ::testing::Values(PortRow{-1, 23554, 6554, 24809, 24799, 24296, 24295, 6378, 24999, 22467},
                      PortRow{0, 23555, 6555, 24810, 24800, 24297, 24296, 6379, 25000, 22468},
                      PortRow{7, 23562, 6562, 24817, 24807, 24304, 24303, 6386, 25007, 22475},
                      // 40536 + 25000 = 65536: render main wraps to 0, ADB does not wrap.
                      PortRow{40536, 64091, 47091, 65346, 65336, 64833, 64832, 46915, 0, 63004},
                      PortRow{65535, 23554, 72090, 24809, 24799, 24296, 24295, 6378, 24999, 22467}));

TEST_F(QEMUMachineTest, refreshReadsTheOffsetAgain)
{
    QEMUMachine machine(&m_engine, m_dir);
    EXPECT_EQ(machine.getPortOffset(), -1);
    ASSERT_TRUE(machine.createLockFile(14, 999999));
    EXPECT_EQ(machine.getPortOffset(), -1);
    machine.reloadVmInfo();
    EXPECT_EQ(machine.getPortOffset(), 14);
    EXPECT_EQ(QSettings(machine.getLockFilePath(), QSettings::IniFormat).value("pid").toLongLong(), 999999);
    ASSERT_TRUE(machine.removeLockFile());
    machine.refreshPortOffset();
    EXPECT_EQ(machine.getPortOffset(), -1);
}

TEST_F(QEMUMachineTest, newDeviceGetsAUuidAndTheVirtualizerTag)
{
    QEMUMachine created(&m_engine, m_dir, makeImage(), makeProfile());
    const QString uuid = created.getUuid();
    EXPECT_FALSE(QUuid(uuid).isNull()) << uuid.toStdString();
    EXPECT_TRUE(uuid.startsWith('{') && uuid.endsWith('}'));
    ASSERT_TRUE(created.save());

    const QJsonObject top = QJsonDocument::fromJson([&] {
                                QFile file(created.getConfigFilePath());
                                file.open(QIODevice::ReadOnly);
                                return file.readAll();
                            }())
                                .object();
    EXPECT_EQ(top.value("virtualizer").toString(), "QEMU");
    EXPECT_EQ(top.value("uuid").toString(), uuid);

    QEMUMachine loaded(&m_engine, m_dir);
    ASSERT_TRUE(loaded.load());
    EXPECT_EQ(loaded.getUuid(), uuid);
    EXPECT_EQ(loaded.getName(), currentTestName());
    EXPECT_EQ(loaded.getOnLoadStatus(), VMToolsMachine::Off);

    ASSERT_TRUE(loaded.changeUuid());
    EXPECT_NE(loaded.getUuid(), uuid);
    QEMUMachine reloaded(&m_engine, m_dir);
    ASSERT_TRUE(reloaded.reloadProperties());
    EXPECT_EQ(reloaded.getUuid(), loaded.getUuid());
}

TEST_F(QEMUMachineTest, deviceOfAnotherVirtualizerIsRefused)
{
    for (const char *virtualizer : {"qemu", "VirtualBox", ""}) {
        QEMUMachine created(&m_engine, m_dir, makeImage(), makeProfile());
        ASSERT_TRUE(created.save());
        QFile file(created.getConfigFilePath());
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        QJsonObject top = QJsonDocument::fromJson(file.readAll()).object();
        file.close();
        top.insert("virtualizer", virtualizer);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(QJsonDocument(top).toJson());
        file.close();

        QEMUMachine loaded(&m_engine, m_dir);
        MessageCapture cap;
        EXPECT_FALSE(loaded.load()) << virtualizer;
        EXPECT_TRUE(cap.hasContaining(QtWarningMsg, "[VMTools] Not a QEMU device:")) << virtualizer;
    }
}

TEST_F(QEMUMachineTest, fixedAnswersOfTheQemuEngine)
{
    QEMUMachine machine(&m_engine, m_dir, makeImage(), makeProfile());
    EXPECT_EQ(machine.getStatus(), VMToolsMachine::Off);
    EXPECT_EQ(machine.getIPAddress(), "127.0.0.1");
    EXPECT_EQ(machine.waitForIP([] { return false; }), "127.0.0.1");
    EXPECT_EQ(machine.getAdapterType(0), VMToolsMachine::Null);
    EXPECT_FALSE(machine.setAdapterType(0, VMToolsMachine::HostOnly, "vboxnet0"));
    EXPECT_EQ(machine.getAdapterType(0), VMToolsMachine::Null);
    EXPECT_TRUE(machine.createFactoryBackup());
    EXPECT_EQ(machine.getConnectionInfo().type(), VMToolsMachine::UnknownConnection);
    EXPECT_EQ(machine.fetchConnectionInfo().type(), VMToolsMachine::UnknownConnection);
    EXPECT_TRUE(machine.setConnectionInfo(VMToolsMachine::createNatConnectionInfo()));
    EXPECT_EQ(machine.getConnectionInfo().type(), VMToolsMachine::UnknownConnection);
}

TEST_F(QEMUMachineTest, renameMovesTheDirectoryAndTheLockFile)
{
    QEMUMachine machine(&m_engine, m_dir, makeImage(), makeProfile());
    ASSERT_TRUE(machine.save());
    const QString target = hvtest::testRoot() + "/devices/renamed";
    QDir(target).removeRecursively();

    ASSERT_TRUE(machine.setName("renamed"));
    EXPECT_EQ(machine.getName(), "renamed");
    EXPECT_EQ(machine.getPath(), target);
    EXPECT_EQ(machine.getLockFilePath(), target + "/qemu.lock");
    EXPECT_FALSE(QDir(m_dir).exists());
    EXPECT_TRUE(QFile::exists(target + "/shared/config/device.json"));

    deviceDir("taken");
    for (const char *bad : {"taken", "", "..", "a/b"}) {
        MessageCapture cap;
        EXPECT_FALSE(machine.setName(bad)) << bad;
        EXPECT_FALSE(cap.noneAtOrAbove(QtWarningMsg)) << bad;
        EXPECT_EQ(machine.getPath(), target);
    }
}

struct BadLock {
    const char *name;
    QByteArray content;
};

void PrintTo(const BadLock &row, std::ostream *os)
{
    *os << row.name;
}

class BadLockFile : public QEMUMachineTest, public ::testing::WithParamInterface<BadLock>
{
};

TEST_P(BadLockFile, namesNoProcess)
{
    writeLock(m_dir, GetParam().content);
    QEMUMachine machine(&m_engine, m_dir);
    EXPECT_EQ(machine.loadQEMUPid(), 0);
    EXPECT_FALSE(machine.isQEMURunning());
    MessageCapture cap;
    EXPECT_FALSE(machine.forceStop());
    EXPECT_TRUE(cap.has(QtDebugMsg, "[VMTools] Cannot stop QEMU because no PID was found"));
    EXPECT_EQ(machine.getPortOffset(), -1);
}

INSTANTIATE_TEST_SUITE_P(
    Contents, BadLockFile,
    ::testing::Values(BadLock{"empty", ""}, BadLock{"noPid", "[General]\noffset=7\n"},
                      BadLock{"minusOne", "[General]\npid=-1\noffset=7\n"}, BadLock{"zero", "[General]\npid=0\n"},
                      BadLock{"text", "[General]\npid=qemu\n"}, BadLock{"huge", "[General]\npid=99999999999999\n"},
                      BadLock{"oversized", "[General]\npid=1\n" + QByteArray(8192, '#')},
                      BadLock{"binary", QByteArray("\0\xff\xfe[General]\npid=1", 19)}),
    [](const ::testing::TestParamInfo<BadLock> &info) { return info.param.name; });

TEST_F(QEMUMachineTest, deadPidIsNotRunning)
{
    // Above the largest pid_max Linux allows: no process can have it.
    const qint64 pid = 4194305;
    writeLock(m_dir, QByteArray("[General]\npid=") + QByteArray::number(pid) + "\noffset=0\n");
    QEMUMachine machine(&m_engine, m_dir);
    EXPECT_EQ(machine.loadQEMUPid(), pid);
    MessageCapture cap;
    EXPECT_FALSE(machine.isQEMURunning());
    EXPECT_TRUE(cap.has(QtDebugMsg, QString("[VMTools] See no QEMU process with PID %1").arg(pid)));
}

TEST_F(QEMUMachineTest, lockOfAnotherProgramIsStaleAndItsProcessLivesOn)
{
    QProcess other;
    other.start("sleep", QStringList{"60"});
    ASSERT_TRUE(other.waitForStarted(5000));
    QEMUMachine machine(&m_engine, m_dir);
    ASSERT_TRUE(machine.createLockFile(21, other.processId()));
    machine.refreshPortOffset();

    EXPECT_FALSE(machine.isQEMURunning());
    EXPECT_EQ(machine.getStatus(), VMToolsMachine::Off);
    // A stale lock file does not stop a new one from being written.
    EXPECT_TRUE(machine.createLockFile(21, other.processId()));
    MessageCapture cap;
    EXPECT_FALSE(machine.forceStop());
    EXPECT_TRUE(cap.has(QtDebugMsg, "[VMTools] We have a stall lock file: let's remove it."));
    EXPECT_FALSE(QFile::exists(machine.getLockFilePath()));
    EXPECT_EQ(other.state(), QProcess::Running);
    EXPECT_EQ(::kill(pid_t(other.processId()), 0), 0);

    other.kill();
    EXPECT_TRUE(other.waitForFinished(5000));
}

TEST_F(QEMUMachineTest, waitForFinishedWithoutLockFileSaysSo)
{
    QEMUMachine machine(&m_engine, m_dir);
    MessageCapture cap;
    EXPECT_FALSE(machine.waitForFinished());
    EXPECT_TRUE(cap.has(QtDebugMsg, "[VMTools] Failed to load QEMU pid"));
}

TEST_F(QEMUMachineTest, insertingAnSdCardMakesItsImage)
{
    QEMUMachine machine(&m_engine, m_dir, makeImage(), makeProfile());
    EXPECT_TRUE(machine.setSdCardInserted(true));
    EXPECT_TRUE(QFile::exists(m_dir + "/sdcard.qcow2"));
    EXPECT_TRUE(machine.isSdCardInserted());
    EXPECT_TRUE(machine.setSdCardInserted(false));
    EXPECT_FALSE(machine.isSdCardInserted());
    // Without an image there is nothing to resize: the size is only stored.
    ASSERT_TRUE(QFile::remove(m_dir + "/sdcard.qcow2"));
    EXPECT_TRUE(machine.setSdCardSize(256));
    EXPECT_EQ(machine.getSdCardSize(), 256);
}

} // namespace
