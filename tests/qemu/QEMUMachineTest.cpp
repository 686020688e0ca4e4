#include "QEMUMachine.h"

#include "HwProfileBuilder.h"
#include "OsImageBuilder.h"
#include "QEMUEngine.h"

#include "MessageCapture.h"
#include "TestEnvironment.h"
#include "TestFiles.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSettings>
#include <QUuid>

#include <gtest/gtest.h>

#include <csignal>

using hvtest::MessageCapture;

namespace {

// A fresh device directory named after the test; the engine is a real one.
class QEMUMachineTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_dir = hvtest::testRoot() + "/devices/" + ::testing::UnitTest::GetInstance()->current_test_info()->name();
        QDir(m_dir).removeRecursively();
        QDir().mkpath(m_dir);
        m_image.osVersion = VersionNumber(11, 0);
        m_image.arch = "x86_64";
    }

    QEMUEngine m_engine;
    QString m_dir;
    OsImage m_image = OsImageBuilder();
    HwProfile m_profile = HwProfileBuilder("Rocket");
};

TEST_F(QEMUMachineTest, portsFollowTheOffsetInSixteenBits)
{
    const struct {
        int offset; // -1: no lock file
        int adb, frontCamera, backCamera, audioIn, audioOut, redis, renderMain, renderData;
    } rows[] = {{-1, 6554, 24809, 24799, 24296, 24295, 6378, 24999, 22467},
                {7, 6562, 24817, 24807, 24304, 24303, 6386, 25007, 22475},
                // 40536 + 25000 = 65536: render main wraps to 0, ADB does not wrap.
                {40536, 47091, 65346, 65336, 64833, 64832, 46915, 0, 63004},
                {65535, 72090, 24809, 24799, 24296, 24295, 6378, 24999, 22467}};
    for (const auto &row : rows) {
        QEMUMachine machine(&m_engine, m_dir);
        if (row.offset >= 0) {
            ASSERT_TRUE(machine.createLockFile(quint16(row.offset), 999999));
            EXPECT_EQ(machine.getPortOffset(), -1) << "read only on a refresh";
            machine.reloadVmInfo();
        }
        EXPECT_EQ(machine.getPortOffset(), row.offset);
        EXPECT_EQ(QList<int>({machine.getAdbPort(), machine.getFrontCameraPort(),
                              machine.getBackCameraPort(), machine.getAudioInputPort(), machine.getAudioOutputPort(),
                              machine.getRedisPort(), machine.getRenderMainPort(), machine.getRenderDataPort()}),
                  QList<int>({row.adb, row.frontCamera, row.backCamera, row.audioIn, row.audioOut, row.redis,
                              row.renderMain, row.renderData}))
            << row.offset;
        EXPECT_EQ(machine.getAdbSerial(), QString("127.0.0.1:%1").arg(row.adb));
        if (row.offset >= 0) {
            EXPECT_EQ(QSettings(machine.getLockFilePath(), QSettings::IniFormat).value("pid").toLongLong(), 999999);
            ASSERT_TRUE(machine.removeLockFile());
            machine.refreshPortOffset();
            EXPECT_EQ(machine.getPortOffset(), -1);
        }
    }
}

TEST_F(QEMUMachineTest, configurationCarriesUuidAndTheVirtualizerTag)
{
    QEMUMachine created(&m_engine, m_dir, m_image, m_profile);
    const QString uuid = created.getUuid();
    EXPECT_FALSE(QUuid(uuid).isNull()) << uuid.toStdString();
    EXPECT_TRUE(uuid.startsWith('{') && uuid.endsWith('}'));
    ASSERT_TRUE(created.save());
    QJsonObject top = QJsonDocument::fromJson(hvtest::readFile(created.getConfigFilePath())).object();
    EXPECT_EQ(top.value("virtualizer").toString(), "QEMU");
    EXPECT_EQ(top.value("uuid").toString(), uuid);

    QEMUMachine loaded(&m_engine, m_dir);
    ASSERT_TRUE(loaded.load());
    EXPECT_EQ(loaded.getUuid(), uuid);
    EXPECT_EQ(loaded.getOnLoadStatus(), VMToolsMachine::Off);
    ASSERT_TRUE(loaded.changeUuid());
    EXPECT_NE(loaded.getUuid(), uuid);
    QEMUMachine reloaded(&m_engine, m_dir);
    ASSERT_TRUE(reloaded.reloadProperties());
    EXPECT_EQ(reloaded.getUuid(), loaded.getUuid());

    // A device of another virtualizer (the tag is case-sensitive) is refused.
    for (const char *virtualizer : {"qemu", "VirtualBox", ""}) {
        top.insert("virtualizer", virtualizer);
        ASSERT_TRUE(hvtest::writeFile(created.getConfigFilePath(), QJsonDocument(top).toJson()));
        QEMUMachine other(&m_engine, m_dir);
        MessageCapture cap;
        EXPECT_FALSE(other.load()) << virtualizer;
        EXPECT_TRUE(cap.hasContaining(QtWarningMsg, "[VMTools] Not a QEMU device:")) << virtualizer;
    }
}

TEST_F(QEMUMachineTest, renameMovesTheDirectoryAndTheLockFile)
{
    QEMUMachine machine(&m_engine, m_dir, m_image, m_profile);
    ASSERT_TRUE(machine.save());
    const QString target = hvtest::testRoot() + "/devices/renamed";
    QDir(target).removeRecursively();
    ASSERT_TRUE(machine.setName("renamed"));
    EXPECT_EQ(machine.getName(), "renamed");
    EXPECT_EQ(machine.getLockFilePath(), target + "/qemu.lock");
    EXPECT_FALSE(QDir(m_dir).exists());
    EXPECT_TRUE(QFile::exists(target + "/shared/config/device.json"));

    QDir().mkpath(hvtest::testRoot() + "/devices/taken");
    for (const char *bad : {"taken", "", "..", "a/b"}) {
        MessageCapture cap;
        EXPECT_FALSE(machine.setName(bad)) << bad;
        EXPECT_FALSE(cap.noneAtOrAbove(QtWarningMsg)) << bad;
        EXPECT_EQ(machine.getPath(), target);
    }
}

// Lock files that name no live emulator: nothing runs, nothing is stopped.
TEST_F(QEMUMachineTest, badLockFilesNameNoProcess)
{
    {
        QEMUMachine machine(&m_engine, m_dir);
        MessageCapture cap;
        EXPECT_FALSE(machine.waitForFinished());
        EXPECT_TRUE(cap.has(QtDebugMsg, "[VMTools] Failed to load QEMU pid"));
    }
    for (const QByteArray &content :
         {QByteArray(), QByteArray("[General]\noffset=7\n"), QByteArray("[General]\npid=-1\noffset=7\n"),
          QByteArray("[General]\npid=0\n"), QByteArray("[General]\npid=qemu\n"), QByteArray("[General]\npid=99999999999999\n"),
          "[General]\npid=1\n" + QByteArray(8192, '#'), QByteArray("\0\xff\xfe[General]\npid=1", 19)}) {
        ASSERT_TRUE(hvtest::writeFile(m_dir + "/qemu.lock", content));
        QEMUMachine machine(&m_engine, m_dir);
        EXPECT_EQ(machine.loadQEMUPid(), 0) << content.constData();
        EXPECT_FALSE(machine.isQEMURunning());
        MessageCapture cap;
        EXPECT_FALSE(machine.forceStop());
        EXPECT_TRUE(cap.has(QtDebugMsg, "[VMTools] Cannot stop QEMU because no PID was found"));
        EXPECT_EQ(machine.getPortOffset(), -1);
    }
    // Above the largest pid_max Linux allows: no process can have it.
    ASSERT_TRUE(hvtest::writeFile(m_dir + "/qemu.lock", "[General]\npid=4194305\noffset=0\n"));
    QEMUMachine machine(&m_engine, m_dir);
    EXPECT_EQ(machine.loadQEMUPid(), 4194305);
    MessageCapture cap;
    EXPECT_FALSE(machine.isQEMURunning());
    EXPECT_TRUE(cap.has(QtDebugMsg, "[VMTools] See no QEMU process with PID 4194305"));
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
    EXPECT_EQ(::kill(pid_t(other.processId()), 0), 0);
    other.kill();
    EXPECT_TRUE(other.waitForFinished(5000));
}

TEST_F(QEMUMachineTest, identifiersAreStoredInTheDeviceConfiguration)
{
    QEMUMachine created(&m_engine, m_dir, m_image, m_profile);
    ASSERT_TRUE(created.save());
    ASSERT_TRUE(m_engine.setMachineIdentifiers(&created, "HV0001", "3f2a9c"));
    QEMUMachine reloaded(&m_engine, m_dir);
    ASSERT_TRUE(reloaded.load());
    EXPECT_EQ(reloaded.getBuildSerial(), "HV0001");
    EXPECT_EQ(reloaded.getData("android_id").toString(), "3f2a9c");
    MessageCapture capture;
    EXPECT_FALSE(m_engine.setMachineIdentifiers(nullptr, "a", "b"));
    EXPECT_TRUE(capture.has(QtWarningMsg, "[VMTools] Cannot set identifiers of a null machine"));
}

} // namespace
