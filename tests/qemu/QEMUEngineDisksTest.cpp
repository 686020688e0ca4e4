#include "QEMUEngine.h"

#include "OsImageBuilder.h"
#include "Paths.h"
#include "QEMUMachine.h"

#include "MessageCapture.h"
#include "ScopedEnv.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <vector>

using hvtest::MessageCapture;

namespace {

QString fakeToolDir()
{
    return QCoreApplication::applicationDirPath() + QStringLiteral("/fake-qemu-img");
}

QString fakeTool()
{
    return fakeToolDir() + QStringLiteral("/qemu-img");
}

// Runs the real qemu-img for the test's own set-up and checks; true on exit 0.
bool qemuImg(const QStringList &arguments, QByteArray *output = nullptr)
{
    QProcess process;
    process.start(QStringLiteral("qemu-img"), arguments);
    if (!process.waitForFinished(60000)) {
        process.kill();
        process.waitForFinished(5000);
        return false;
    }
    if (output)
        *output = process.readAllStandardOutput();
    return process.exitStatus() == QProcess::NormalExit && process.exitCode() == 0;
}

QJsonObject imageInfo(const QString &path)
{
    QByteArray output;
    if (!qemuImg({QStringLiteral("info"), QStringLiteral("--output=json"), path}, &output))
        return QJsonObject();
    return QJsonDocument::fromJson(output).object();
}

QStringList snapshotsOf(const QString &path)
{
    QStringList names;
    for (const QJsonValue &snapshot : imageInfo(path).value(QStringLiteral("snapshots")).toArray())
        names.append(snapshot.toObject().value(QStringLiteral("name")).toString());
    return names;
}

QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QFile file(path);
    return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size();
}

// A device directory with real images: "base.qcow2" (a reference disk),
// "plain.qcow2", "source.vmdk" made from a raw image holding a pattern, and
// "system.qcow2" with the snapshot "latest".
class DiskImages : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_tmp.isValid());
        m_dir = m_tmp.path();
        ASSERT_TRUE(createImage(path("base.qcow2"), 16));
        ASSERT_TRUE(createImage(path("plain.qcow2"), 16));
        QByteArray pattern(1024 * 1024, '\0');
        pattern.replace(4096, 17, "reference content");
        ASSERT_TRUE(writeFile(path("pattern.raw"), pattern));
        ASSERT_TRUE(qemuImg({QStringLiteral("convert"), QStringLiteral("-f"), QStringLiteral("raw"),
                             QStringLiteral("-O"), QStringLiteral("vmdk"), path("pattern.raw"), path("source.vmdk")}));
        ASSERT_TRUE(createImage(path("system.qcow2"), 16));
        ASSERT_TRUE(addSnapshot(path("system.qcow2"), QStringLiteral("latest")));
    }

    QString path(const QString &name) const { return m_dir + QLatin1Char('/') + name; }

    static bool createImage(const QString &file, int sizeMiB)
    {
        return qemuImg({QStringLiteral("create"), QStringLiteral("-q"), QStringLiteral("-f"), QStringLiteral("qcow2"),
                        file, QString::number(sizeMiB) + QLatin1Char('M')});
    }

    static bool addSnapshot(const QString &file, const QString &name)
    {
        return qemuImg({QStringLiteral("snapshot"), QStringLiteral("-c"), name, file});
    }

    // "data.qcow2" and "sdcard.qcow2", each with the snapshot "latest".
    bool addDataAndSdCard() const
    {
        for (const char *disk : {"data.qcow2", "sdcard.qcow2"}) {
            if (!createImage(path(disk), 16) || !addSnapshot(path(disk), QStringLiteral("latest")))
                return false;
        }
        return true;
    }

    QTemporaryDir m_tmp;
    QString m_dir;
};

// The engine runs the fake tool, which records each run in "runs.log".
class FakeToolDisks : public DiskImages
{
protected:
    void SetUp() override
    {
        DiskImages::SetUp();
        ASSERT_TRUE(QFile::exists(fakeTool()));
        setEnv("HV_FAKE_QEMU_IMG_LOG", runLog().toLocal8Bit());
        hvtest::ScopedEnv binDir("HV_QEMU_BIN_DIR", fakeToolDir().toLocal8Bit());
        m_engine.reset(new QEMUEngine);
        ASSERT_EQ(m_engine->getQemuImgBinaryPath(), fakeTool());
    }

    QString runLog() const { return path(QStringLiteral("runs.log")); }

    // Every run of the tool, as its argument list, "%D" standing for the
    // device directory.
    QList<QStringList> runs() const
    {
        QList<QStringList> result;
        QStringList current;
        const QString text = QString::fromLocal8Bit(readAll(runLog()));
        for (const QString &line : text.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
            if (line == QLatin1String("--")) {
                result.append(current);
                current.clear();
            } else {
                current.append(QString(line).replace(m_dir, QStringLiteral("%D")));
            }
        }
        return result;
    }

    void setEnv(const char *name, const QByteArray &value)
    {
        m_env.push_back(std::make_unique<hvtest::ScopedEnv>(name, value));
    }

    // The device of this directory, run by the engine under test.
    QEMUMachine *device()
    {
        if (!m_device)
            m_device = std::make_unique<QEMUMachine>(m_engine.get(), m_dir);
        return m_device.get();
    }

    std::vector<std::unique_ptr<hvtest::ScopedEnv>> m_env;
    std::unique_ptr<QEMUEngine> m_engine;
    std::unique_ptr<QEMUMachine> m_device;
};

// One tool-driven operation, run against the device directory.
struct ToolOperation {
    const char *name;
    std::function<bool(QEMUEngine &, const QString &dir)> run;
    QStringList arguments;
    // The operation's own failure line, "%D" standing for the directory.
    QString failureLine;
    // Whether it runs with the long time-out.
    bool longTimeout;
};

void PrintTo(const ToolOperation &operation, std::ostream *os)
{
    *os << operation.name;
}

QString in(const QString &dir, const char *name)
{
    return dir + QLatin1Char('/') + QLatin1String(name);
}

const std::vector<ToolOperation> &toolOperations()
{
    static const std::vector<ToolOperation> operations = {
        {"createDisk",
         [](QEMUEngine &e, const QString &d) {
             return e.createDisk(QFileInfo(in(d, "base.qcow2")), QFileInfo(in(d, "overlay.qcow2")));
         },
         {"create", "-f", "qcow2", "-b", "%D/base.qcow2", "-F", "qcow2", "%D/overlay.qcow2"},
         "[VMTools] Failed to create disk \"%D/overlay.qcow2\" . \"\"", false},
        {"convertDisk",
         [](QEMUEngine &e, const QString &d) {
             return e.convertDisk(QFileInfo(in(d, "source.vmdk")), QFileInfo(in(d, "converted.qcow2")));
         },
         {"convert", "-O", "qcow2", "%D/source.vmdk", "%D/converted.qcow2"},
         "[VMTools] Failed to convert \"%D/source.vmdk\" to \"%D/converted.qcow2\" . \"\"", true},
        {"createSDCard", [](QEMUEngine &e, const QString &d) { return e.createSDCard(d, 64); },
         {"create", "-f", "qcow2", "%D/sdcard.qcow2", "64M"},
         "[VMTools] Failed to create \"%D/sdcard.qcow2\" . \"\"", false},
        {"resizeDisk", [](QEMUEngine &e, const QString &d) { return e.resizeDisk(in(d, "plain.qcow2"), 48); },
         {"resize", "%D/plain.qcow2", "48M"}, "[VMTools] Failed to resize \"%D/plain.qcow2\" . \"\"", true},
        {"snapshotNames",
         [](QEMUEngine &e, const QString &d) {
             QEMUMachine device(&e, d);
             return e.fetchSnapshotNames(&device) == QStringList{QStringLiteral("latest")};
         },
         {"snapshot", "-l", "%D/system.qcow2"}, "[VMTools] Failed to list snapshots of \"%D/system.qcow2\"", false},
        {"deleteSnapshot",
         [](QEMUEngine &e, const QString &d) {
             return e.deleteSnapshot(QFileInfo(in(d, "system.qcow2")), QStringLiteral("latest"));
         },
         {"snapshot", "-d", "latest", "%D/system.qcow2"},
         "[VMTools] Failed to delete snapshot: \"latest\" \"%D/system.qcow2\" . \"\"", false},
    };
    return operations;
}

class ToolOperations : public FakeToolDisks, public ::testing::WithParamInterface<ToolOperation>
{
};

TEST_P(ToolOperations, runsTheImageToolWithItsExactArguments)
{
    const ToolOperation &operation = GetParam();
    EXPECT_TRUE(operation.run(*m_engine, m_dir));
    EXPECT_EQ(runs(), QList<QStringList>{operation.arguments});
}

TEST_P(ToolOperations, failsWhenTheToolIsCutOffByTheTimeOut)
{
    const ToolOperation &operation = GetParam();
    const QByteArray before = readAll(path("source.vmdk"));
    setEnv("HV_CALL_TIMEOUT_MS", "300");
    setEnv("HV_CALL_LONG_TIMEOUT_MS", "300");
    setEnv("HV_FAKE_QEMU_IMG_DELAY", "20");
    MessageCapture cap;
    EXPECT_FALSE(operation.run(*m_engine, m_dir));
    EXPECT_TRUE(cap.has(QtCriticalMsg, QStringLiteral("[VMTools] Can't run \"%1\"").arg(fakeTool())));
    EXPECT_TRUE(cap.has(QtCriticalMsg, QString(operation.failureLine).replace(QStringLiteral("%D"), m_dir)));
    EXPECT_EQ(readAll(path("source.vmdk")), before);
    EXPECT_EQ(snapshotsOf(path("system.qcow2")), QStringList{QStringLiteral("latest")});
}

TEST_P(ToolOperations, waitsForSlowToolsOnlyWithTheLongTimeOut)
{
    const ToolOperation &operation = GetParam();
    setEnv("HV_CALL_TIMEOUT_MS", "200");
    setEnv("HV_CALL_LONG_TIMEOUT_MS", "60000");
    setEnv("HV_FAKE_QEMU_IMG_DELAY", "1");
    EXPECT_EQ(operation.run(*m_engine, m_dir), operation.longTimeout);
}

INSTANTIATE_TEST_SUITE_P(QEMUEngineDisks, ToolOperations, ::testing::ValuesIn(toolOperations()),
                         [](const ::testing::TestParamInfo<ToolOperation> &info) { return info.param.name; });

// The tool converted the whole image but was cut off before it ended: the
// complete-looking target does not count, the reference disk stays.
TEST_F(FakeToolDisks, conversionCutOffAfterWritingKeepsTheSource)
{
    setEnv("HV_CALL_LONG_TIMEOUT_MS", "1500");
    setEnv("HV_FAKE_QEMU_IMG_LINGER", "20");
    MessageCapture cap;
    EXPECT_FALSE(m_engine->convertDisk(QFileInfo(path("source.vmdk")), QFileInfo(path("converted.qcow2"))));
    EXPECT_TRUE(cap.has(QtCriticalMsg, QStringLiteral("[VMTools] Can't run \"%1\"").arg(fakeTool())));
    EXPECT_TRUE(QFile::exists(path("converted.qcow2")));
    EXPECT_TRUE(QFile::exists(path("source.vmdk")));
    EXPECT_TRUE(qemuImg({QStringLiteral("compare"), path("pattern.raw"), path("source.vmdk")}));
}

// The cascade, watched through the runs of the tool.
TEST_F(FakeToolDisks, snapshotDeletionStopsWhenTheSystemDiskFails)
{
    ASSERT_TRUE(addDataAndSdCard());
    setEnv("HV_FAKE_QEMU_IMG_FAIL", "-d");
    MessageCapture cap;
    EXPECT_FALSE(m_engine->deleteSnapshot(device(), QStringLiteral("latest")));
    EXPECT_TRUE(cap.has(QtCriticalMsg, QStringLiteral("[VMTools] Failed to delete snapshot: \"latest\" \"%1\" . "
                                                      "\"fake failure\"")
                                           .arg(path("system.qcow2"))));
    const QList<QStringList> expected = {{"snapshot", "-l", "%D/system.qcow2"},
                                         {"snapshot", "-d", "latest", "%D/system.qcow2"}};
    EXPECT_EQ(runs(), expected);
    for (const char *disk : {"system.qcow2", "data.qcow2", "sdcard.qcow2"})
        EXPECT_EQ(snapshotsOf(path(disk)), QStringList{QStringLiteral("latest")}) << disk;
}

TEST_F(FakeToolDisks, snapshotDeletionFollowsTheSystemDiskToDataAndSdCard)
{
    ASSERT_TRUE(addDataAndSdCard());
    EXPECT_TRUE(m_engine->deleteSnapshot(device(), QStringLiteral("latest")));
    const QList<QStringList> expected = {{"snapshot", "-l", "%D/system.qcow2"},
                                         {"snapshot", "-d", "latest", "%D/system.qcow2"},
                                         {"snapshot", "-d", "latest", "%D/data.qcow2"},
                                         {"snapshot", "-d", "latest", "%D/sdcard.qcow2"}};
    EXPECT_EQ(runs(), expected);
    for (const char *disk : {"system.qcow2", "data.qcow2", "sdcard.qcow2"})
        EXPECT_TRUE(snapshotsOf(path(disk)).isEmpty()) << disk;
}

TEST_F(FakeToolDisks, snapshotDeletionSkipsAnAbsentSdCardAndAnUnknownName)
{
    ASSERT_TRUE(createImage(path("data.qcow2"), 16));
    ASSERT_TRUE(addSnapshot(path("data.qcow2"), QStringLiteral("latest")));
    EXPECT_TRUE(m_engine->deleteSnapshot(device(), QStringLiteral("other")));
    EXPECT_TRUE(m_engine->deleteSnapshot(device(), QStringLiteral("latest")));
    const QList<QStringList> expected = {{"snapshot", "-l", "%D/system.qcow2"},
                                         {"snapshot", "-l", "%D/system.qcow2"},
                                         {"snapshot", "-d", "latest", "%D/system.qcow2"},
                                         {"snapshot", "-d", "latest", "%D/data.qcow2"}};
    EXPECT_EQ(runs(), expected);
    EXPECT_TRUE(snapshotsOf(path("data.qcow2")).isEmpty());
}

// The real image tool, found where the engine looks for the bundled QEMU.
class RealToolDisks : public DiskImages
{
protected:
    QEMUMachine *device()
    {
        if (!m_device)
            m_device = std::make_unique<QEMUMachine>(&m_engine, m_dir);
        return m_device.get();
    }

    QEMUEngine m_engine;
    std::unique_ptr<QEMUMachine> m_device;
};

TEST_F(RealToolDisks, createsAnOverlayOfTheBackingDisk)
{
    ASSERT_TRUE(m_engine.createDisk(QFileInfo(path("base.qcow2")), QFileInfo(path("overlay.qcow2"))));
    const QJsonObject info = imageInfo(path("overlay.qcow2"));
    EXPECT_EQ(info.value(QStringLiteral("format")).toString(), QStringLiteral("qcow2"));
    EXPECT_EQ(info.value(QStringLiteral("backing-filename")).toString(), path("base.qcow2"));
    EXPECT_EQ(info.value(QStringLiteral("backing-filename-format")).toString(), QStringLiteral("qcow2"));
    EXPECT_EQ(info.value(QStringLiteral("virtual-size")).toDouble(), 16.0 * 1024 * 1024);
}

TEST_F(RealToolDisks, refusesAnOverlayOfAMissingBackingDisk)
{
    MessageCapture cap;
    EXPECT_FALSE(m_engine.createDisk(QFileInfo(path("missing.qcow2")), QFileInfo(path("overlay.qcow2"))));
    EXPECT_EQ(cap.texts(QtWarningMsg),
              QStringList{QStringLiteral("[VMTools] Backing disk file not found: \"%1\"").arg(path("missing.qcow2"))});
    EXPECT_TRUE(cap.texts(QtDebugMsg).isEmpty()) << "the tool must not run";
    EXPECT_FALSE(QFile::exists(path("overlay.qcow2")));
}

TEST_F(RealToolDisks, reportsTheToolsRefusalOfABackingDiskThatIsNotQcow2)
{
    MessageCapture cap;
    EXPECT_FALSE(m_engine.createDisk(QFileInfo(path("pattern.raw")), QFileInfo(path("overlay.qcow2"))));
    EXPECT_TRUE(cap.hasContaining(
        QtCriticalMsg, QStringLiteral("[VMTools] Failed to create disk \"%1\" . \"qemu-img:").arg(path("overlay.qcow2"))));
}

TEST_F(RealToolDisks, convertsAVmdkAndRemovesTheSource)
{
    ASSERT_TRUE(m_engine.convertDisk(QFileInfo(path("source.vmdk")), QFileInfo(path("system-ref.qcow2"))));
    EXPECT_FALSE(QFile::exists(path("source.vmdk")));
    EXPECT_EQ(imageInfo(path("system-ref.qcow2")).value(QStringLiteral("format")).toString(), QStringLiteral("qcow2"));
    EXPECT_TRUE(qemuImg({QStringLiteral("compare"), path("pattern.raw"), path("system-ref.qcow2")}));
}

TEST_F(RealToolDisks, keepsTheSourceWhenTheConversionFails)
{
    const QString target = path("no-such-dir/system-ref.qcow2");
    MessageCapture cap;
    EXPECT_FALSE(m_engine.convertDisk(QFileInfo(path("source.vmdk")), QFileInfo(target)));
    EXPECT_TRUE(cap.hasContaining(
        QtCriticalMsg,
        QStringLiteral("[VMTools] Failed to convert \"%1\" to \"%2\" . \"qemu-img:").arg(path("source.vmdk"), target)));
    EXPECT_TRUE(qemuImg({QStringLiteral("compare"), path("pattern.raw"), path("source.vmdk")}));
}

TEST_F(RealToolDisks, refusesToConvertAMissingSource)
{
    MessageCapture cap;
    EXPECT_FALSE(m_engine.convertDisk(QFileInfo(path("missing.vmdk")), QFileInfo(path("system-ref.qcow2"))));
    EXPECT_EQ(cap.texts(QtWarningMsg),
              QStringList{QStringLiteral("[VMTools] Disk file not found: \"%1\"").arg(path("missing.vmdk"))});
    EXPECT_TRUE(cap.texts(QtDebugMsg).isEmpty()) << "the tool must not run";
}

TEST_F(RealToolDisks, createsAnSdCardOfTheAskedSize)
{
    ASSERT_TRUE(m_engine.createSDCard(m_dir, 96));
    const QJsonObject info = imageInfo(path("sdcard.qcow2"));
    EXPECT_EQ(info.value(QStringLiteral("format")).toString(), QStringLiteral("qcow2"));
    EXPECT_EQ(info.value(QStringLiteral("virtual-size")).toDouble(), 96.0 * 1024 * 1024);
}

TEST_F(RealToolDisks, reportsAnSdCardThatCannotBeCreated)
{
    MessageCapture cap;
    EXPECT_FALSE(m_engine.createSDCard(path("no-such-dir"), 96));
    EXPECT_TRUE(cap.hasContaining(
        QtCriticalMsg, QStringLiteral("[VMTools] Failed to create \"%1\" . \"qemu-img:").arg(path("no-such-dir/sdcard.qcow2"))));
}

TEST_F(RealToolDisks, resizesAnImage)
{
    ASSERT_TRUE(m_engine.resizeDisk(path("plain.qcow2"), 48));
    EXPECT_EQ(imageInfo(path("plain.qcow2")).value(QStringLiteral("virtual-size")).toDouble(), 48.0 * 1024 * 1024);
}

TEST_F(RealToolDisks, resizingAMissingImageFailsSilently)
{
    MessageCapture cap;
    EXPECT_FALSE(m_engine.resizeDisk(path("missing.qcow2"), 48));
    EXPECT_TRUE(cap.lines().isEmpty());
}

TEST_F(RealToolDisks, copiesAnImageButNeverOverAnother)
{
    ASSERT_TRUE(m_engine.copyDisk(path("base.qcow2"), path("copy.qcow2")));
    EXPECT_EQ(readAll(path("copy.qcow2")), readAll(path("base.qcow2")));

    const QByteArray before = readAll(path("plain.qcow2"));
    MessageCapture cap;
    EXPECT_FALSE(m_engine.copyDisk(path("source.vmdk"), path("plain.qcow2")));
    EXPECT_TRUE(cap.has(QtCriticalMsg, QStringLiteral("[VMTools] Failed to copy \"%1\" to \"%2\" : \"Destination file exists\"")
                                           .arg(path("source.vmdk"), path("plain.qcow2"))));
    EXPECT_EQ(readAll(path("plain.qcow2")), before);
}

TEST_F(RealToolDisks, deletesAnImageAndTakesAMissingOneAsDeleted)
{
    EXPECT_TRUE(m_engine.deleteDisk(path("plain.qcow2")));
    EXPECT_FALSE(QFile::exists(path("plain.qcow2")));
    MessageCapture cap;
    EXPECT_TRUE(m_engine.deleteDisk(path("plain.qcow2")));
    EXPECT_TRUE(cap.lines().isEmpty());
}

TEST_F(RealToolDisks, reportsADiskThatCannotBeRemoved)
{
    // A directory is not removed as a file, whoever runs the test.
    ASSERT_TRUE(QDir(m_dir).mkdir(QStringLiteral("folder.qcow2")));
    MessageCapture cap;
    EXPECT_FALSE(m_engine.deleteDisk(path("folder.qcow2")));
    EXPECT_TRUE(cap.hasContaining(QtCriticalMsg,
                                  QStringLiteral("[VMTools] Failed to remove \"%1\" : ").arg(path("folder.qcow2"))));
    EXPECT_TRUE(QFileInfo(path("folder.qcow2")).isDir());
}

TEST_F(RealToolDisks, listsSnapshotsWhoseNamesAreWords)
{
    for (const char *name : {"my-snap", "first_2", "v1.5", "Boot9"})
        ASSERT_TRUE(addSnapshot(path("system.qcow2"), QLatin1String(name)));
    MessageCapture cap;
    EXPECT_EQ(m_engine.fetchSnapshotNames(device()), (QStringList{"latest", "first_2", "Boot9"}));
    for (const char *name : {"latest", "first_2", "Boot9"})
        EXPECT_TRUE(cap.has(QtDebugMsg, QStringLiteral("[VMTools] found snapshot \"%1\"").arg(QLatin1String(name))));
}

TEST_F(RealToolDisks, listsNoSnapshotsOfADeviceWithoutSystemDisk)
{
    ASSERT_TRUE(QDir(m_dir).mkdir(QStringLiteral("empty")));
    MessageCapture cap;
    QEMUMachine empty(&m_engine, path("empty"));
    EXPECT_TRUE(m_engine.fetchSnapshotNames(&empty).isEmpty());
    EXPECT_TRUE(cap.has(QtCriticalMsg,
                        QStringLiteral("[VMTools] Failed to list snapshots of \"%1\"").arg(path("empty/system.qcow2"))));
}

TEST_F(RealToolDisks, refusesSnapshotWorkWithoutADevice)
{
    MessageCapture cap;
    EXPECT_TRUE(m_engine.fetchSnapshotNames(nullptr).isEmpty());
    EXPECT_FALSE(m_engine.deleteSnapshot(static_cast<const VMToolsMachine *>(nullptr), QStringLiteral("latest")));
    EXPECT_EQ(cap.texts(QtWarningMsg),
              QStringList{QStringLiteral("[VMTools] Cannot delete snapshot \"latest\" of no device")});
    EXPECT_TRUE(cap.texts(QtDebugMsg).isEmpty()) << "the tool must not run";
}

TEST_F(RealToolDisks, deletesASnapshotFromEveryDiskOfTheDevice)
{
    ASSERT_TRUE(addDataAndSdCard());
    for (const char *disk : {"system.qcow2", "data.qcow2", "sdcard.qcow2"})
        ASSERT_TRUE(addSnapshot(path(disk), QStringLiteral("keep")));
    EXPECT_TRUE(m_engine.deleteSnapshot(device(), QStringLiteral("latest")));
    for (const char *disk : {"system.qcow2", "data.qcow2", "sdcard.qcow2"})
        EXPECT_EQ(snapshotsOf(path(disk)), QStringList{QStringLiteral("keep")}) << disk;
}

// The device's own disk operations go to the engine.

OsImage imageOf(const VersionNumber &imageVersion)
{
    OsImage image = OsImageBuilder();
    image.osVersion = VersionNumber(11, 0);
    image.imageVersion = imageVersion;
    return image;
}

TEST_F(RealToolDisks, insertingAnSdCardCreatesItsImageOfTheRecordedSize)
{
    ASSERT_TRUE(device()->setSdCardSize(80));
    EXPECT_FALSE(QFile::exists(path("sdcard.qcow2")));
    ASSERT_TRUE(device()->setSdCardInserted(true));
    EXPECT_TRUE(device()->isSdCardInserted());
    EXPECT_EQ(imageInfo(path("sdcard.qcow2")).value(QStringLiteral("virtual-size")).toDouble(), 80.0 * 1024 * 1024);
    ASSERT_TRUE(device()->setSdCardSize(112));
    EXPECT_EQ(imageInfo(path("sdcard.qcow2")).value(QStringLiteral("virtual-size")).toDouble(), 112.0 * 1024 * 1024);
    EXPECT_EQ(device()->getSdCardSize(), 112);
}

TEST_F(FakeToolDisks, anSdCardWhoseImageCannotBeMadeIsNotInserted)
{
    ASSERT_TRUE(device()->setSdCardSize(80));
    setEnv("HV_FAKE_QEMU_IMG_FAIL", "create");
    MessageCapture cap;
    EXPECT_FALSE(device()->setSdCardInserted(true));
    EXPECT_FALSE(device()->isSdCardInserted());
    EXPECT_TRUE(cap.has(QtCriticalMsg,
                        QStringLiteral("[VMTools] Failed to create \"%1\" . \"fake failure\"").arg(path("sdcard.qcow2"))));
    const QList<QStringList> expected = {{"create", "-f", "qcow2", "%D/sdcard.qcow2", "80M"}};
    EXPECT_EQ(runs(), expected);
}

TEST_F(FakeToolDisks, upgradeLaysANewSystemDiskOverTheConvertedReference)
{
    const OsImage image = imageOf(VersionNumber(3, 9));
    const QString reference = QDir::cleanPath(Paths::getSystemImagePath(image.imageVersion, image.osVersion));
    ASSERT_TRUE(QDir().mkpath(reference));
    ASSERT_TRUE(QFile::copy(path("source.vmdk"), reference + "/system.vmdk"));

    ASSERT_TRUE(device()->upgradeSystemDisk(image));
    EXPECT_FALSE(QFile::exists(reference + "/system.vmdk"));
    const QJsonObject info = imageInfo(path("system.qcow2"));
    EXPECT_EQ(info.value(QStringLiteral("backing-filename")).toString(), reference + "/system.qcow2");
    EXPECT_TRUE(snapshotsOf(path("system.qcow2")).isEmpty()) << "the old disk's state is gone";
    EXPECT_TRUE(qemuImg({QStringLiteral("compare"), path("pattern.raw"), path("system.qcow2")}));
    EXPECT_FALSE(QFile::exists(path("system.qcow2.upgrade")));

    // The reference is converted once; a second upgrade only lays an overlay.
    ASSERT_TRUE(device()->upgradeSystemDisk(image));
    const QList<QStringList> expected = {
        {"convert", "-O", "qcow2", reference + "/system.vmdk", reference + "/system.qcow2"},
        {"create", "-f", "qcow2", "-b", reference + "/system.qcow2", "-F", "qcow2", "%D/system.qcow2.upgrade"},
        {"create", "-f", "qcow2", "-b", reference + "/system.qcow2", "-F", "qcow2", "%D/system.qcow2.upgrade"}};
    EXPECT_EQ(runs(), expected);
}

TEST_F(FakeToolDisks, aFailedUpgradeKeepsTheSystemDisk)
{
    const QByteArray before = readAll(path("system.qcow2"));
    const OsImage image = imageOf(VersionNumber(4, 0));
    const QString reference = QDir::cleanPath(Paths::getSystemImagePath(image.imageVersion, image.osVersion));
    MessageCapture cap;
    EXPECT_FALSE(device()->upgradeSystemDisk(image));
    EXPECT_TRUE(cap.has(QtWarningMsg, QStringLiteral("[VMTools] Disk file not found: \"%1/system.vmdk\"").arg(reference)));
    EXPECT_TRUE(cap.has(QtCriticalMsg,
                        QStringLiteral("[VMTools] Failed to get system disk info \"%1/system.qcow2\"").arg(reference)));

    // A reference that exists but an overlay that cannot be made.
    ASSERT_TRUE(QDir().mkpath(reference));
    ASSERT_TRUE(createImage(reference + "/system.qcow2", 16));
    setEnv("HV_FAKE_QEMU_IMG_FAIL", "create");
    EXPECT_FALSE(device()->upgradeSystemDisk(image));
    EXPECT_TRUE(cap.has(QtCriticalMsg, QStringLiteral("[VMTools] Failed to upgrade the system disk of \"%1\"")
                                           .arg(QDir(m_dir).dirName())));
    EXPECT_EQ(readAll(path("system.qcow2")), before);
    EXPECT_EQ(snapshotsOf(path("system.qcow2")), QStringList{QStringLiteral("latest")});
}

} // namespace
