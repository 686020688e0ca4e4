#include "QEMUEngine.h"

#include "OsImageBuilder.h"
#include "Paths.h"
#include "QEMUMachine.h"

#include "MessageCapture.h"
#include "ScopedEnv.h"
#include "TestFiles.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QUrl>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <vector>

using hvtest::MessageCapture;

namespace {

const double MiB = 1024 * 1024;

QString fakeTool()
{
    return QCoreApplication::applicationDirPath() + "/fake-qemu-img/qemu-img";
}

// Runs the real qemu-img for the test's own set-up and checks; true on exit 0.
bool qemuImg(const QStringList &arguments, QByteArray *output = nullptr)
{
    QProcess process;
    process.start("qemu-img", arguments);
    if (!process.waitForFinished(60000)) {
        process.kill();
        process.waitForFinished(5000);
    }
    if (output)
        *output = process.readAllStandardOutput();
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

QJsonObject imageInfo(const QString &path)
{
    QByteArray output;
    return qemuImg({"info", "--output=json", path}, &output) ? QJsonDocument::fromJson(output).object() : QJsonObject();
}

QStringList snapshotsOf(const QString &path)
{
    QStringList names;
    for (const QJsonValue &snapshot : imageInfo(path).value("snapshots").toArray())
        names.append(snapshot.toObject().value("name").toString());
    return names;
}

// A device directory with real images: "base.qcow2" (a reference disk),
// "plain.qcow2", "source.vmdk" made from a raw image holding a pattern, and
// "system.qcow2" with the snapshot "latest". The engine runs the fake image
// tool (build/bin/fake-qemu-img), which records each run in "runs.log", can
// be made slow or failing, and otherwise hands over to the real qemu-img.
class Disks : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_tmp.isValid());
        m_dir = m_tmp.path();
        ASSERT_TRUE(createImage(path("base.qcow2")) && createImage(path("plain.qcow2")));
        QByteArray pattern(1024 * 1024, '\0');
        pattern.replace(4096, 17, "reference content");
        ASSERT_TRUE(hvtest::writeFile(path("pattern.raw"), pattern));
        ASSERT_TRUE(qemuImg({"convert", "-f", "raw", "-O", "vmdk", path("pattern.raw"), path("source.vmdk")}));
        ASSERT_TRUE(createImage(path("system.qcow2")) && addSnapshot(path("system.qcow2"), "latest"));
        setEnv("HV_FAKE_QEMU_IMG_LOG", path("runs.log").toLocal8Bit());
        hvtest::ScopedEnv binDir("HV_QEMU_BIN_DIR", QFileInfo(fakeTool()).path().toLocal8Bit());
        m_engine = std::make_unique<QEMUEngine>();
        ASSERT_EQ(m_engine->getQemuImgBinaryPath(), fakeTool());
        m_device = std::make_unique<QEMUMachine>(m_engine.get(), m_dir);
    }

    void TearDown() override
    {
        while (!m_env.empty()) // the latest setting of a variable is undone first
            m_env.pop_back();
    }

    QString path(const QString &name) const { return m_dir + '/' + name; }
    static bool createImage(const QString &file) { return qemuImg({"create", "-q", "-f", "qcow2", file, "16M"}); }
    static bool addSnapshot(const QString &file, const QString &name) { return qemuImg({"snapshot", "-c", name, file}); }
    double virtualSize(const char *disk) const { return imageInfo(path(disk)).value("virtual-size").toDouble(); }
    void setEnv(const char *name, const QByteArray &value) { m_env.push_back(std::make_unique<hvtest::ScopedEnv>(name, value)); }

    // Every run of the tool as its argument list, "%D" standing for the directory.
    QList<QStringList> runs() const
    {
        QList<QStringList> result;
        QStringList current;
        for (const QString &line : QString::fromLocal8Bit(hvtest::readFile(path("runs.log"))).split('\n', Qt::SkipEmptyParts)) {
            if (line == "--")
                result.append(std::exchange(current, {}));
            else
                current.append(QString(line).replace(m_dir, "%D"));
        }
        return result;
    }

    QTemporaryDir m_tmp;
    QString m_dir;
    std::vector<std::unique_ptr<hvtest::ScopedEnv>> m_env;
    std::unique_ptr<QEMUEngine> m_engine;
    std::unique_ptr<QEMUMachine> m_device;
};

// One tool-driven operation, run against the device directory.
struct ToolOperation {
    const char *name;
    std::function<bool(QEMUEngine &, const QString &dir)> run;
    QStringList arguments;
    QString failureLine; // the operation's own failure line, "%D" standing for the directory
    bool longTimeout;
};

void PrintTo(const ToolOperation &operation, std::ostream *os) { *os << operation.name; }

QFileInfo in(const QString &dir, const char *name)
{
    return QFileInfo(dir + '/' + name);
}

const ToolOperation toolOperations[] = {
    {"createDisk", [](QEMUEngine &e, const QString &d) { return e.createDisk(in(d, "base.qcow2"), in(d, "overlay.qcow2")); },
     {"create", "-f", "qcow2", "-b", "%D/base.qcow2", "-F", "qcow2", "%D/overlay.qcow2"},
     "[VMTools] Failed to create disk \"%D/overlay.qcow2\" . \"\"", false},
    {"convertDisk", [](QEMUEngine &e, const QString &d) { return e.convertDisk(in(d, "source.vmdk"), in(d, "converted.qcow2")); },
     {"convert", "-f", "vmdk", "-O", "qcow2", "%D/source.vmdk", "%D/converted.qcow2"},
     "[VMTools] Refusing to convert disk '%D/source.vmdk': not a vmdk image: the image tool did not finish", true},
    {"createSDCard", [](QEMUEngine &e, const QString &d) { return e.createSDCard(d, 64); },
     {"create", "-f", "qcow2", "%D/sdcard.qcow2", "64M"}, "[VMTools] Failed to create \"%D/sdcard.qcow2\" . \"\"", false},
    {"resizeDisk", [](QEMUEngine &e, const QString &d) { return e.resizeDisk(d + "/plain.qcow2", 48); },
     {"resize", "%D/plain.qcow2", "48M"}, "[VMTools] Failed to resize \"%D/plain.qcow2\" . \"\"", true},
    {"deleteSnapshot", [](QEMUEngine &e, const QString &d) { return e.deleteSnapshot(in(d, "system.qcow2"), "latest"); },
     {"snapshot", "-d", "latest", "%D/system.qcow2"},
     "[VMTools] Failed to delete snapshot: \"latest\" \"%D/system.qcow2\" . \"\"", false},
};

class ToolOperations : public Disks, public ::testing::WithParamInterface<ToolOperation>
{
};

// Cut off by its time-out, an operation fails and changes nothing; a slow
// tool is waited for only with the long time-out; the tool gets the exact
// arguments.
TEST_P(ToolOperations, runsTheImageToolWithItsArgumentsAndTimeOut)
{
    const ToolOperation &operation = GetParam();
    const QByteArray before = hvtest::readFile(path("source.vmdk"));
    setEnv("HV_CALL_TIMEOUT_MS", "300");
    setEnv("HV_CALL_LONG_TIMEOUT_MS", "300");
    setEnv("HV_FAKE_QEMU_IMG_DELAY", "20");
    MessageCapture cap;
    EXPECT_FALSE(operation.run(*m_engine, m_dir));
    EXPECT_TRUE(cap.has(QtCriticalMsg, "[VMTools] Can't run \"" + fakeTool() + "\""));
    EXPECT_TRUE(cap.has(QtCriticalMsg, QString(operation.failureLine).replace("%D", m_dir)));
    EXPECT_EQ(hvtest::readFile(path("source.vmdk")), before);
    EXPECT_EQ(snapshotsOf(path("system.qcow2")), QStringList{"latest"});

    setEnv("HV_CALL_TIMEOUT_MS", "200");
    setEnv("HV_CALL_LONG_TIMEOUT_MS", "60000");
    setEnv("HV_FAKE_QEMU_IMG_DELAY", "1");
    EXPECT_EQ(operation.run(*m_engine, m_dir), operation.longTimeout);
    if (!operation.longTimeout) {
        setEnv("HV_CALL_TIMEOUT_MS", "60000");
        setEnv("HV_FAKE_QEMU_IMG_DELAY", "0");
        EXPECT_TRUE(operation.run(*m_engine, m_dir));
    }
    ASSERT_FALSE(runs().isEmpty());
    EXPECT_EQ(runs().last(), operation.arguments);
}

INSTANTIATE_TEST_SUITE_P(QEMUEngineDisks, ToolOperations, ::testing::ValuesIn(toolOperations),
                         [](const ::testing::TestParamInfo<ToolOperation> &info) { return info.param.name; });

TEST_F(Disks, createsAnOverlayOfAQcow2BackingDiskOnly)
{
    ASSERT_TRUE(m_engine->createDisk(QFileInfo(path("base.qcow2")), QFileInfo(path("overlay.qcow2"))));
    const QJsonObject info = imageInfo(path("overlay.qcow2"));
    EXPECT_EQ(info.value("format").toString(), "qcow2");
    EXPECT_EQ(info.value("backing-filename").toString(), path("base.qcow2"));
    EXPECT_EQ(info.value("backing-filename-format").toString(), "qcow2");
    EXPECT_EQ(info.value("virtual-size").toDouble(), 16 * MiB);

    MessageCapture cap;
    EXPECT_FALSE(m_engine->createDisk(QFileInfo(path("missing.qcow2")), QFileInfo(path("other.qcow2"))));
    EXPECT_EQ(cap.texts(QtWarningMsg), QStringList{"[VMTools] Backing disk file not found: \"" + path("missing.qcow2") + "\""});
    EXPECT_EQ(runs().size(), 1) << "the tool must not run";
    EXPECT_FALSE(m_engine->createDisk(QFileInfo(path("pattern.raw")), QFileInfo(path("other.qcow2"))));
    EXPECT_TRUE(cap.hasContaining(QtCriticalMsg, "[VMTools] Failed to create disk \"" + path("other.qcow2") + "\" . \"qemu-img:"));
    EXPECT_FALSE(QFile::exists(path("other.qcow2")));
}

TEST_F(Disks, convertsAVmdkAndRemovesTheSourceOnlyOnSuccess)
{
    MessageCapture cap;
    EXPECT_FALSE(m_engine->convertDisk(QFileInfo(path("missing.vmdk")), QFileInfo(path("ref.qcow2"))));
    EXPECT_EQ(cap.texts(QtWarningMsg), QStringList{"[VMTools] Disk file not found: \"" + path("missing.vmdk") + "\""});
    EXPECT_TRUE(runs().isEmpty()) << "the tool must not run";
    const QString badTarget = path("no-such-dir/ref.qcow2");
    EXPECT_FALSE(m_engine->convertDisk(QFileInfo(path("source.vmdk")), QFileInfo(badTarget)));
    EXPECT_TRUE(cap.hasContaining(QtCriticalMsg, QString("[VMTools] Failed to convert \"%1\" to \"%2\" . \"qemu-img:")
                                                     .arg(path("source.vmdk"), badTarget)));
    EXPECT_TRUE(qemuImg({"compare", path("pattern.raw"), path("source.vmdk")}));

    // The tool converted the whole image but was cut off before it ended: the
    // complete-looking target does not count, the reference disk stays.
    setEnv("HV_CALL_LONG_TIMEOUT_MS", "1500");
    setEnv("HV_FAKE_QEMU_IMG_LINGER", "20");
    setEnv("HV_FAKE_QEMU_IMG_LINGER_ONLY", "convert");
    EXPECT_FALSE(m_engine->convertDisk(QFileInfo(path("source.vmdk")), QFileInfo(path("ref.qcow2"))));
    EXPECT_TRUE(QFile::exists(path("ref.qcow2")));
    EXPECT_TRUE(qemuImg({"compare", path("pattern.raw"), path("source.vmdk")}));

    setEnv("HV_FAKE_QEMU_IMG_LINGER", "0");
    ASSERT_TRUE(m_engine->convertDisk(QFileInfo(path("source.vmdk")), QFileInfo(path("ref.qcow2"))));
    EXPECT_FALSE(QFile::exists(path("source.vmdk")));
    EXPECT_EQ(imageInfo(path("ref.qcow2")).value("format").toString(), "qcow2");
    EXPECT_TRUE(qemuImg({"compare", path("pattern.raw"), path("ref.qcow2")}));
}

// An OS image's disk that names a host file would copy that file into the
// reference disk every device boots. Each kind is refused before the
// conversion runs, with the disk and the reason in the message.
TEST_F(Disks, refusesDisksThatNameFilesOutsideThemselves)
{
    const QString secret = path("secret.raw");
    ASSERT_TRUE(hvtest::writeFile(secret, QByteArray("HOST-SECRET-MARKER").leftJustified(1024 * 1024, 'S')));
    ASSERT_TRUE(qemuImg({"create", "-q", "-f", "qcow2", "-b", secret, "-F", "raw", path("backed.qcow2")}));
    ASSERT_TRUE(QFile::copy(path("backed.qcow2"), path("disguised.vmdk")));
    ASSERT_TRUE(hvtest::writeFile(path("descriptor.vmdk"),
                                  "# Disk DescriptorFile\nversion=1\nCID=fffffffe\nparentCID=ffffffff\n"
                                  "createType=\"monolithicFlat\"\nRW 2048 FLAT \"" + secret.toUtf8() + "\" 0\n"));
    ASSERT_TRUE(qemuImg({"create", "-q", "-f", "qcow2", "-o", "data_file=" + secret + ",data_file_raw=on",
                         path("datafile.qcow2"), "1M"}));
    const struct {
        const char *disk;
        QString reason;
    } rows[] = {
        {"disguised.vmdk", "not a vmdk image: qemu-img: Could not open '%D/disguised.vmdk': invalid VMDK image descriptor"},
        {"descriptor.vmdk", "it has an extent in another file '%D/secret.raw'"},
        {"backed.qcow2", "it has a backing file '%D/secret.raw'"},
        {"datafile.qcow2", "it has an external data file '%D/secret.raw'"},
        {"secret.raw", "'raw' is not a disk format an OS image may hold"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.disk);
        MessageCapture cap;
        EXPECT_FALSE(m_engine->convertDisk(QFileInfo(path(row.disk)), QFileInfo(path("ref.qcow2"))));
        EXPECT_TRUE(cap.has(QtCriticalMsg, "[VMTools] Refusing to convert disk '" + path(row.disk) + "': "
                                               + QString(row.reason).replace("%D", m_dir)));
        EXPECT_FALSE(QFile::exists(path("ref.qcow2")));
        EXPECT_TRUE(QFile::exists(path(row.disk)));
    }
    for (const QStringList &run : runs())
        EXPECT_NE(run.first(), "convert") << run.join(' ').toStdString();
    // The refused images themselves stay as they were, without the secret.
    for (const auto &row : rows) {
        if (QString(row.disk) != "secret.raw") {
            EXPECT_FALSE(hvtest::readFile(path(row.disk)).contains("HOST-SECRET-MARKER")) << row.disk;
        }
    }
}

TEST_F(Disks, createsSdCardsResizesCopiesAndDeletes)
{
    ASSERT_TRUE(m_engine->createSDCard(m_dir, 96));
    EXPECT_EQ(imageInfo(path("sdcard.qcow2")).value("format").toString(), "qcow2");
    EXPECT_EQ(virtualSize("sdcard.qcow2"), 96 * MiB);
    ASSERT_TRUE(m_engine->resizeDisk(path("plain.qcow2"), 48));
    EXPECT_EQ(virtualSize("plain.qcow2"), 48 * MiB);
    MessageCapture cap;
    EXPECT_FALSE(m_engine->resizeDisk(path("missing.qcow2"), 48));
    EXPECT_TRUE(cap.lines().isEmpty()) << "a missing image fails silently";
    EXPECT_FALSE(m_engine->createSDCard(path("no-such-dir"), 96));
    EXPECT_TRUE(cap.hasContaining(QtCriticalMsg, "[VMTools] Failed to create \"" + path("no-such-dir/sdcard.qcow2") + "\" . \"qemu-img:"));

    ASSERT_TRUE(m_engine->copyDisk(path("base.qcow2"), path("copy.qcow2")));
    EXPECT_EQ(hvtest::readFile(path("copy.qcow2")), hvtest::readFile(path("base.qcow2")));
    const QByteArray before = hvtest::readFile(path("plain.qcow2"));
    EXPECT_FALSE(m_engine->copyDisk(path("source.vmdk"), path("plain.qcow2")));
    EXPECT_TRUE(cap.has(QtCriticalMsg, QString("[VMTools] Failed to copy \"%1\" to \"%2\" : \"Destination file exists\"")
                                           .arg(path("source.vmdk"), path("plain.qcow2"))));
    EXPECT_EQ(hvtest::readFile(path("plain.qcow2")), before);

    EXPECT_TRUE(m_engine->deleteDisk(path("plain.qcow2")));
    EXPECT_FALSE(QFile::exists(path("plain.qcow2")));
    cap.clear();
    EXPECT_TRUE(m_engine->deleteDisk(path("plain.qcow2"))); // a missing disk counts as deleted
    EXPECT_TRUE(cap.lines().isEmpty());
    // A directory is not removed as a file, whoever runs the test.
    ASSERT_TRUE(QDir(m_dir).mkdir("folder.qcow2"));
    EXPECT_FALSE(m_engine->deleteDisk(path("folder.qcow2")));
    EXPECT_TRUE(cap.hasContaining(QtCriticalMsg, "[VMTools] Failed to remove \"" + path("folder.qcow2") + "\" : "));
    EXPECT_TRUE(QFileInfo(path("folder.qcow2")).isDir());
}

// Read from the image's own table, without the tool, so that a running
// emulator's lock on the image does not matter. Every name the disk holds is
// listed, and what is listed is deleted, whatever its characters.
TEST_F(Disks, listsAndDeletesEveryNameTheDiskHolds)
{
    for (const char *name : {"my-snap.1", "first_2", "-dash first"})
        ASSERT_TRUE(addSnapshot(path("system.qcow2"), name));
    QFile::remove(path("runs.log"));
    MessageCapture cap;
    EXPECT_EQ(m_engine->fetchSnapshotNames(m_device.get()), (QStringList{"latest", "my-snap.1", "first_2", "-dash first"}));
    EXPECT_TRUE(runs().isEmpty()) << "the table is read without the tool";
    EXPECT_TRUE(m_engine->deleteSnapshot(m_device.get(), "my-snap.1"));
    EXPECT_TRUE(m_engine->deleteSnapshot(m_device.get(), "-dash first"));
    EXPECT_EQ(snapshotsOf(path("system.qcow2")), (QStringList{"latest", "first_2"}));
    ASSERT_TRUE(QDir(m_dir).mkdir("empty"));
    EXPECT_TRUE(m_engine->fetchSnapshotNames(std::make_unique<QEMUMachine>(m_engine.get(), path("empty")).get()).isEmpty());
    EXPECT_TRUE(cap.hasContaining(QtCriticalMsg, "[VMTools] Failed to list snapshots of \"" + path("empty/system.qcow2") + "\""));
}

// The cascade, watched through the runs of the tool: an unknown name is only
// listed, an absent SD card is skipped, a failing system disk stops it.
TEST_F(Disks, snapshotDeletionFollowsTheSystemDisk)
{
    MessageCapture cap;
    EXPECT_TRUE(m_engine->fetchSnapshotNames(nullptr).isEmpty());
    EXPECT_FALSE(m_engine->deleteSnapshot(static_cast<const VMToolsMachine *>(nullptr), "latest"));
    EXPECT_EQ(cap.texts(QtWarningMsg), QStringList{"[VMTools] Cannot delete snapshot \"latest\" of no device"});
    EXPECT_TRUE(runs().isEmpty()) << "the tool must not run";

    ASSERT_TRUE(createImage(path("data.qcow2")) && addSnapshot(path("data.qcow2"), "latest"));
    EXPECT_TRUE(m_engine->deleteSnapshot(m_device.get(), "other"));
    EXPECT_TRUE(m_engine->deleteSnapshot(m_device.get(), "latest"));
    const QList<QStringList> expected = {{"snapshot", "-d", "latest", "%D/system.qcow2"},
                                         {"snapshot", "-d", "latest", "%D/data.qcow2"}};
    EXPECT_EQ(runs(), expected);
    EXPECT_TRUE(snapshotsOf(path("data.qcow2")).isEmpty());

    const QStringList disks{"system.qcow2", "data.qcow2", "sdcard.qcow2"};
    ASSERT_TRUE(createImage(path("sdcard.qcow2")));
    for (const QString &disk : disks)
        ASSERT_TRUE(addSnapshot(path(disk), "latest") && addSnapshot(path(disk), "keep"));
    ASSERT_TRUE(QFile::remove(path("runs.log")));
    setEnv("HV_FAKE_QEMU_IMG_FAIL", "-d");
    EXPECT_FALSE(m_engine->deleteSnapshot(m_device.get(), "latest"));
    EXPECT_TRUE(cap.has(QtCriticalMsg, QString("[VMTools] Failed to delete snapshot: \"latest\" \"%1\" . \"fake failure\"")
                                           .arg(path("system.qcow2"))));
    EXPECT_EQ(runs(), expected.mid(0, 1));
    for (const QString &disk : disks)
        EXPECT_EQ(snapshotsOf(path(disk)), QStringList({"latest", "keep"})) << disk.toStdString();
    setEnv("HV_FAKE_QEMU_IMG_FAIL", "");
    EXPECT_TRUE(m_engine->deleteSnapshot(m_device.get(), "latest"));
    for (const QString &disk : disks)
        EXPECT_EQ(snapshotsOf(path(disk)), QStringList{"keep"}) << disk.toStdString();
}

// The device's own disk operations go to the engine.
TEST_F(Disks, anSdCardIsInsertedOnlyWithItsImageOfTheRecordedSize)
{
    ASSERT_TRUE(m_device->setSdCardSize(80));
    EXPECT_FALSE(QFile::exists(path("sdcard.qcow2")));
    setEnv("HV_FAKE_QEMU_IMG_FAIL", "create");
    MessageCapture cap;
    EXPECT_FALSE(m_device->setSdCardInserted(true));
    EXPECT_FALSE(m_device->isSdCardInserted());
    EXPECT_TRUE(cap.has(QtCriticalMsg, "[VMTools] Failed to create \"" + path("sdcard.qcow2") + "\" . \"fake failure\""));

    setEnv("HV_FAKE_QEMU_IMG_FAIL", "");
    ASSERT_TRUE(m_device->setSdCardInserted(true));
    EXPECT_TRUE(m_device->isSdCardInserted());
    EXPECT_EQ(virtualSize("sdcard.qcow2"), 80 * MiB);
    ASSERT_TRUE(m_device->setSdCardSize(112));
    EXPECT_EQ(virtualSize("sdcard.qcow2"), 112 * MiB);
    const QStringList create{"create", "-f", "qcow2", "%D/sdcard.qcow2", "80M"};
    EXPECT_EQ(runs(), (QList<QStringList>{create, create, {"resize", "%D/sdcard.qcow2", "112M"}}));
}

// The reference disks of an OS image, made once from its OVA; every upgrade
// lays a new overlay over the system disk and keeps the old disk when
// anything fails.
TEST_F(Disks, upgradeLaysANewSystemDiskOverTheConvertedReference)
{
    OsImage image = OsImageBuilder();
    image.osVersion = VersionNumber(11, 0);
    image.imageVersion = VersionNumber(3, 9);
    const QString ova = path("image.ova");
    image.imageUri = QUrl::fromLocalFile(ova).toString();
    const QByteArray before = hvtest::readFile(path("system.qcow2"));
    MessageCapture cap;
    EXPECT_FALSE(m_device->upgradeSystemDisk(image));
    EXPECT_TRUE(cap.has(QtCriticalMsg, "[VMTools] Failed to read the checksum of \"" + ova + "\""));
    EXPECT_TRUE(cap.has(QtCriticalMsg, "[VMTools] Failed to get system disk info \"" + ova + "\""));
    EXPECT_EQ(hvtest::readFile(path("system.qcow2")), before);

    ASSERT_TRUE(QFile::copy(path("source.vmdk"), path("system.vmdk")) && QFile::copy(path("source.vmdk"), path("data.vmdk")));
    QProcess tar;
    tar.start("tar", {"--format=ustar", "-C", m_dir, "-cf", ova, "system.vmdk", "data.vmdk"});
    ASSERT_TRUE(tar.waitForFinished(30000) && tar.exitCode() == 0);
    const QString reference = QEMUEngine::getReferenceDirectory(image);
    const QString partial = reference + ".partial";
    setEnv("HV_FAKE_QEMU_IMG_FAIL", "create");
    EXPECT_FALSE(m_device->upgradeSystemDisk(image)); // converted, but no overlay can be made
    EXPECT_TRUE(cap.has(QtCriticalMsg, "[VMTools] Failed to upgrade the system disk of \"" + QDir(m_dir).dirName() + "\""));
    EXPECT_EQ(hvtest::readFile(path("system.qcow2")), before);
    EXPECT_EQ(snapshotsOf(path("system.qcow2")), QStringList{"latest"});

    setEnv("HV_FAKE_QEMU_IMG_FAIL", "");
    ASSERT_TRUE(m_device->upgradeSystemDisk(image));
    EXPECT_TRUE(QEMUEngine::isReferenceComplete(reference));
    EXPECT_FALSE(QFile::exists(reference + "/system.vmdk"));
    EXPECT_EQ(imageInfo(path("system.qcow2")).value("backing-filename").toString(), reference + "/system.qcow2");
    EXPECT_TRUE(snapshotsOf(path("system.qcow2")).isEmpty()) << "the old disk's state is gone";
    EXPECT_TRUE(qemuImg({"compare", path("pattern.raw"), path("system.qcow2")}));
    EXPECT_FALSE(QFile::exists(path("system.qcow2.upgrade")));
    const QStringList overlay{"create", "-f", "qcow2", "-b", reference + "/system.qcow2", "-F", "qcow2", "%D/system.qcow2.upgrade"};
    EXPECT_EQ(runs(), (QList<QStringList>{{"info", "--output=json", "-f", "vmdk", partial + "/system.vmdk"},
                                          {"convert", "-f", "vmdk", "-O", "qcow2", partial + "/system.vmdk", partial + "/system.qcow2"},
                                          {"info", "--output=json", "-f", "vmdk", partial + "/data.vmdk"},
                                          {"convert", "-f", "vmdk", "-O", "qcow2", partial + "/data.vmdk", partial + "/data.qcow2"},
                                          overlay, overlay}));
}

} // namespace
