#include "QEMUClient.h"

#include "MessageCapture.h"
#include "TestEnvironment.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QHostAddress>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

namespace {

constexpr int ProcessWaitMs = 30000;

// Runs a short host program and returns its standard output; empty on failure.
QByteArray run(const QString &program, const QStringList &arguments)
{
    QProcess process;
    process.start(program, arguments);
    if (!process.waitForFinished(ProcessWaitMs)) {
        process.kill();
        process.waitForFinished(ProcessWaitMs);
        ADD_FAILURE() << program.toStdString() << " did not finish";
        return {};
    }
    EXPECT_EQ(process.exitCode(), 0) << program.toStdString() << ": " << process.readAllStandardError().toStdString();
    return process.readAllStandardOutput();
}

unsigned short freeLoopbackPort()
{
    QTcpServer probe;
    if (!probe.listen(QHostAddress::LocalHost, 0))
        return 0;
    return probe.serverPort();
}

// A device directory with a blank system disk and a shared folder, and an
// emulator on it that the fixture always kills and reaps.
class QEMUClientEmulator : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        ASSERT_TRUE(QDir(m_dir.path()).mkpath(QStringLiteral("shared")));
        QFile note(m_dir.filePath(QStringLiteral("shared/note.txt")));
        ASSERT_TRUE(note.open(QIODevice::WriteOnly));
        note.write("shared with the guest\n");
        note.close();
        run(QStringLiteral("qemu-img"), {QStringLiteral("create"), QStringLiteral("-q"), QStringLiteral("-f"),
                                         QStringLiteral("qcow2"), systemDisk(), QStringLiteral("64M")});
        ASSERT_TRUE(QFile::exists(systemDisk()));

        m_port = freeLoopbackPort();
        ASSERT_NE(m_port, 0);
        // The shared folder is attached as the launch command line attaches
        // it: a writable FAT view with the id "shared".
        m_qemu.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_qemu.setStandardOutputFile(QProcess::nullDevice());
        m_qemu.start(QStringLiteral("qemu-system-x86_64"),
                     {QStringLiteral("-accel"), QStringLiteral("tcg"), QStringLiteral("-cpu"), QStringLiteral("max"),
                      QStringLiteral("-audiodev"), QStringLiteral("none,id=snd0"), QStringLiteral("-display"),
                      QStringLiteral("none"), QStringLiteral("-nodefaults"), QStringLiteral("-m"),
                      QStringLiteral("128M"), QStringLiteral("-drive"),
                      QStringLiteral("file=%1,format=qcow2").arg(systemDisk()), QStringLiteral("-drive"),
                      QStringLiteral("format=vvfat,label=shared,id=shared,file=fat:rw:%1/shared").arg(m_dir.path()),
                      QStringLiteral("-qmp"),
                      QStringLiteral("tcp:127.0.0.1:%1,server=on,wait=off").arg(m_port)});
        ASSERT_TRUE(m_qemu.waitForStarted(ProcessWaitMs)) << m_qemu.errorString().toStdString();
        ASSERT_TRUE(waitForQmpPort());
    }

    void TearDown() override
    {
        if (m_qemu.state() != QProcess::NotRunning) {
            m_qemu.kill();
            m_qemu.waitForFinished(ProcessWaitMs);
        }
    }

    QString systemDisk() const { return m_dir.filePath(QStringLiteral("system.qcow2")); }

    // The emulator opens its QMP port shortly after it starts.
    bool waitForQmpPort()
    {
        const QDeadlineTimer deadline(ProcessWaitMs);
        while (!deadline.hasExpired() && m_qemu.state() == QProcess::Running) {
            QTcpSocket probe;
            probe.connectToHost(QHostAddress::LocalHost, m_port);
            if (probe.waitForConnected(500)) {
                probe.abort();
                return true;
            }
            QThread::msleep(100);
        }
        return false;
    }

    QTemporaryDir m_dir{hvtest::testRoot() + QStringLiteral("/device-XXXXXX")};
    QProcess m_qemu;
    unsigned short m_port = 0;
};

TEST_F(QEMUClientEmulator, savesSnapshotOnlyOnceSharedFolderIsDetached)
{
    hvtest::MessageCapture capture;
    {
        // The writable shared folder keeps the emulator from saving.
        QEMUClient client(m_port);
        EXPECT_FALSE(client.execSaveSnapshot(QStringLiteral("latest"), false));
        EXPECT_TRUE(capture.hasContaining(QtCriticalMsg, QStringLiteral("does not support live migration")));
        EXPECT_TRUE(capture.has(QtWarningMsg, QStringLiteral("[VMTools] QEMUClient: failed to save snapshot")));
    }
    capture.clear();
    {
        QEMUClient client(m_port);
        EXPECT_TRUE(client.execSaveSnapshot(QStringLiteral("latest"), true));
        EXPECT_TRUE(capture.noneAtOrAbove(QtCriticalMsg));
    }
    {
        QEMUClient client(m_port);
        EXPECT_TRUE(client.execQuit());
    }
    ASSERT_TRUE(m_qemu.waitForFinished(ProcessWaitMs));
    // The disk is free again once the emulator is gone.
    const QByteArray snapshots = run(QStringLiteral("qemu-img"), {QStringLiteral("snapshot"), QStringLiteral("-l"), systemDisk()});
    EXPECT_NE(snapshots.indexOf(" latest "), -1) << snapshots.toStdString();
}

TEST_F(QEMUClientEmulator, quitEndsTheEmulator)
{
    {
        QEMUClient client(m_port);
        EXPECT_TRUE(client.execQuit());
    }
    ASSERT_TRUE(m_qemu.waitForFinished(ProcessWaitMs));
    EXPECT_EQ(m_qemu.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(m_qemu.exitCode(), 0);
}

} // namespace
