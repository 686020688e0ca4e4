#include "QEMUClient.h"

#include "MessageCapture.h"
#include "TestEnvironment.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QLocalSocket>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

namespace {

QByteArray qemuImg(const QStringList &arguments)
{
    QProcess process;
    process.start("qemu-img", arguments);
    EXPECT_TRUE(process.waitForFinished(30000) && process.exitCode() == 0) << process.readAllStandardError().constData();
    return process.readAllStandardOutput();
}

// One emulator (TCG) on a blank system disk with the shared folder attached
// as the launch command line attaches it: a writable FAT view, id "shared".
TEST(QEMUClientEmulator, savesOnlyOnceTheSharedFolderIsDetachedAndQuits)
{
    QTemporaryDir dir(hvtest::testRoot() + "/device-XXXXXX");
    ASSERT_TRUE(QDir(dir.path()).mkpath("shared"));
    const QString disk = dir.filePath("system.qcow2");
    qemuImg({"create", "-q", "-f", "qcow2", disk, "64M"});
    const QString socket = dir.filePath("qmp.sock");
    QProcess qemu;
    qemu.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    qemu.setStandardOutputFile(QProcess::nullDevice());
    qemu.start("qemu-system-x86_64", {"-accel", "tcg", "-cpu", "max", "-audiodev", "none,id=snd0", "-display", "none",
                                      "-nodefaults", "-m", "128M", "-drive", "file=" + disk + ",format=qcow2", "-drive",
                                      "format=vvfat,label=shared,id=shared,file=fat:rw:" + dir.filePath("shared"),
                                      "-qmp", "unix:" + socket + ",server=on,wait=off"});
    ASSERT_TRUE(qemu.waitForStarted(30000)) << qemu.errorString().toStdString();
    // The emulator opens its QMP socket shortly after it starts.
    bool listening = false;
    for (QDeadlineTimer deadline(30000); !listening && !deadline.hasExpired() && qemu.state() == QProcess::Running;) {
        QLocalSocket probe;
        probe.connectToServer(socket);
        listening = probe.waitForConnected(500);
        if (!listening)
            QThread::msleep(100);
    }
    EXPECT_TRUE(listening);

    hvtest::MessageCapture capture;
    if (listening) {
        // The writable shared folder keeps the emulator from saving.
        EXPECT_FALSE(QEMUClient(socket).execSaveSnapshot("latest", false));
        EXPECT_TRUE(capture.hasContaining(QtCriticalMsg, "does not support live migration"));
        EXPECT_TRUE(capture.has(QtWarningMsg, "[VMTools] QEMUClient: failed to save snapshot"));
        capture.clear();
        EXPECT_TRUE(QEMUClient(socket).execSaveSnapshot("latest", true));
        EXPECT_TRUE(capture.noneAtOrAbove(QtCriticalMsg));
        EXPECT_TRUE(QEMUClient(socket).execQuit());
    }
    if (!qemu.waitForFinished(30000)) {
        qemu.kill();
        qemu.waitForFinished(30000);
        FAIL() << "the emulator did not quit";
    }
    EXPECT_EQ(qemu.exitStatus(), QProcess::NormalExit);
    EXPECT_EQ(qemu.exitCode(), 0);
    // The disk is free again once the emulator is gone.
    const QByteArray snapshots = qemuImg({"snapshot", "-l", disk});
    EXPECT_NE(snapshots.indexOf(" latest "), -1) << snapshots.toStdString();
}

} // namespace
