#include "DeviceFixture.h"

#include "MessageCapture.h"
#include "Paths.h"
#include "QEMUEngine.h"
#include "QEMUMachine.h"
#include "TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <memory>

using namespace devicefixture;
using hvtest::MessageCapture;

namespace {

QString deployed(const QString &name)
{
    return QDir(Paths::getDeployedPath()).absoluteFilePath(name);
}

QString referenceDir(const OsImage &image)
{
    return QDir(Paths::getSystemImagePath(image.imageVersion, image.osVersion)).absolutePath();
}

QString backingFile(const QString &disk)
{
    QByteArray output;
    run("qemu-img", {"info", "--output=json", "-U", disk}, &output);
    return QJsonDocument::fromJson(output).object().value("backing-filename").toString();
}

void writePattern(const QString &disk, const QString &pattern)
{
    run("qemu-io", {"-f", "qcow2", "-c", "write -P " + pattern + " 0 64k", disk});
}

// One OVA for the whole suite: each image version gets its own reference
// directory, so tests that need fresh reference disks use a version of their own.
const QString &sharedOva()
{
    static const QString ova = makeOva("shared.ova");
    return ova;
}

class QEMULifecycle : public ::testing::Test
{
protected:
    void SetUp() override { m_engine = makeEngine(); }
    std::unique_ptr<QEMUEngine> m_engine;
};

TEST_F(QEMULifecycle, createsDeviceWithOverlaySystemDiskCopiedDataDiskAndConfiguration)
{
    const OsImage image = makeImage(sharedOva(), "11.0.0", "5.1.0");
    const HwProfile profile = makeProfile(32);
    ASSERT_EQ(m_engine->createMachine("Created", image, profile), 0);

    const QDir device(deployed("Created"));
    const QDir reference(referenceDir(image));
    EXPECT_EQ(backingFile(device.absoluteFilePath("system.qcow2")), reference.absoluteFilePath("system.qcow2"));
    EXPECT_EQ(fileHash(device.absoluteFilePath("data.qcow2")), fileHash(reference.absoluteFilePath("data.qcow2")));
    EXPECT_TRUE(device.exists("sdcard.qcow2"));
    // The reference vmdk disks were converted: only the qcow2 forms remain.
    EXPECT_EQ(reference.entryList(QDir::Files, QDir::Name), QStringList({"data.qcow2", "system.qcow2"}));

    std::unique_ptr<VMToolsMachine> machine(m_engine->getMachine("Created"));
    ASSERT_NE(machine, nullptr);
    EXPECT_EQ(machine->getOsImage(), image);
    EXPECT_EQ(machine->getHwProfile(), profile);
    EXPECT_TRUE(machine->isSdCardInserted());
    EXPECT_EQ(machine->getRamSize(), 256);
    EXPECT_TRUE(m_engine->doesMachineExistInHypervisor("Created"));
    EXPECT_FALSE(m_engine->doesMachineExistInHypervisor("Absent"));
}

TEST_F(QEMULifecycle, secondDeviceReusesTheReferenceDisksWithoutConvertingAgain)
{
    const OsImage image = makeImage(sharedOva(), "8.0.0", "5.2.0");
    ASSERT_EQ(m_engine->createMachine("ReuseFirst", image, makeProfile()), 0);
    const QFileInfo referenceSystem(QDir(referenceDir(image)), "system.qcow2");
    const QDateTime converted = referenceSystem.lastModified();
    const QByteArray hash = fileHash(referenceSystem.absoluteFilePath());

    MessageCapture capture;
    ASSERT_EQ(m_engine->createMachine("ReuseSecond", image, makeProfile()), 0);
    EXPECT_EQ(QFileInfo(referenceSystem.absoluteFilePath()).lastModified(), converted);
    EXPECT_EQ(fileHash(referenceSystem.absoluteFilePath()), hash);
    EXPECT_FALSE(QFile::exists(referenceDir(image) + "/system.vmdk"));
    EXPECT_EQ(capture.texts(QtCriticalMsg), QStringList());
    EXPECT_EQ(backingFile(deployed("ReuseSecond/system.qcow2")), referenceSystem.absoluteFilePath());
}

TEST_F(QEMULifecycle, existingNameIsRefusedAndLeftUntouched)
{
    QDir().mkpath(deployed("Taken"));
    QFile marker(deployed("Taken/keep.txt"));
    ASSERT_TRUE(marker.open(QIODevice::WriteOnly));
    marker.write("mine");
    marker.close();

    MessageCapture capture;
    EXPECT_EQ(m_engine->createMachine("Taken", makeImage(sharedOva(), "11.0.0"), makeProfile()), 1);
    EXPECT_LOG(capture, QtWarningMsg, "[VMTools] Can't create already existing device \"Taken\"");
    EXPECT_EQ(QDir(deployed("Taken")).entryList(QDir::Files), QStringList({"keep.txt"}));
}

class InvalidName : public QEMULifecycle, public ::testing::WithParamInterface<const char *>
{
};

TEST_P(InvalidName, isRefusedBeforeAnythingIsWritten)
{
    const QStringList before = QDir(Paths::getDeployedPath()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
    MessageCapture capture;
    EXPECT_EQ(m_engine->createMachine(GetParam(), makeImage(sharedOva(), "11.0.0"), makeProfile()), 1);
    EXPECT_LOG(capture, QtWarningMsg, QString("[VMTools] Invalid device name \"%1\"").arg(GetParam()));
    EXPECT_EQ(QDir(Paths::getDeployedPath()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), before);
}

INSTANTIATE_TEST_SUITE_P(Names, InvalidName, ::testing::Values("", ".", "..", "../escape", "a/b"));

// Creations that fail half-way: each leaves no device directory behind.
struct RollbackCase {
    const char *name;
    const char *imageVersion;
    enum { MissingOva, CorruptOva, FailingImageTool } fault;
    int code;
    const char *critical;
};

class CreationRollback : public ::testing::TestWithParam<RollbackCase>
{
};

TEST_P(CreationRollback, leavesNoDeviceDirectory)
{
    const RollbackCase &c = GetParam();
    QString ova = sharedOva();
    if (c.fault == RollbackCase::MissingOva)
        ova = hvtest::testRoot() + "/missing.ova";
    if (c.fault == RollbackCase::CorruptOva) {
        ova = hvtest::testRoot() + "/corrupt.ova";
        QFile file(ova);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(QByteArray(3000, 'x'));
    }
    std::unique_ptr<QEMUEngine> engine = c.fault == RollbackCase::FailingImageTool
                                             ? makeEngineWithFailingImageTool("qemu-img: simulated failure")
                                             : std::make_unique<QEMUEngine>();

    MessageCapture capture;
    const QString device = QString("Rollback-%1").arg(c.name);
    EXPECT_EQ(engine->createMachine(device, makeImage(ova, "11.0.0", c.imageVersion), makeProfile()), c.code);
    EXPECT_FALSE(QFileInfo::exists(deployed(device)));
    EXPECT_TRUE(capture.hasContaining(QtCriticalMsg, c.critical));
    EXPECT_LOG(capture, QtCriticalMsg, QString("[VMTools] Failed to create device \"%1\"").arg(device));
}

INSTANTIATE_TEST_SUITE_P(
    Faults, CreationRollback,
    ::testing::Values(RollbackCase{"missingOva", "6.1.0", RollbackCase::MissingOva, 1, "[VMTools] Failed to extract OVA"},
                      RollbackCase{"corruptOva", "6.2.0", RollbackCase::CorruptOva, 1, "[VMTools] Failed to extract OVA"},
                      RollbackCase{"failingImageTool", "6.3.0", RollbackCase::FailingImageTool, 2,
                                   "[VMTools] Failed to get system disk info"}),
    [](const ::testing::TestParamInfo<RollbackCase> &info) { return std::string(info.param.name); });

TEST_F(QEMULifecycle, cloneHasItsOwnIdentityAndIndependentDisks)
{
    ASSERT_EQ(m_engine->createMachine("CloneSource", makeImage(sharedOva(), "11.0.0", "5.3.0"), makeProfile()), 0);
    std::unique_ptr<VMToolsMachine> source(m_engine->getMachine("CloneSource"));
    ASSERT_NE(source, nullptr);
    const QByteArray sourceData = fileHash(deployed("CloneSource/data.qcow2"));
    const QByteArray sourceSystem = fileHash(deployed("CloneSource/system.qcow2"));

    ASSERT_EQ(m_engine->cloneMachine(source.get(), "CloneTarget"), 0);
    std::unique_ptr<VMToolsMachine> clone(m_engine->getMachine("CloneTarget"));
    ASSERT_NE(clone, nullptr);
    EXPECT_NE(clone->getUuid(), source->getUuid());
    EXPECT_FALSE(clone->getUuid().isEmpty());

    writePattern(deployed("CloneTarget/data.qcow2"), "0x5a");
    writePattern(deployed("CloneTarget/system.qcow2"), "0xa5");
    EXPECT_NE(fileHash(deployed("CloneTarget/data.qcow2")), sourceData);
    EXPECT_EQ(fileHash(deployed("CloneSource/data.qcow2")), sourceData);
    EXPECT_EQ(fileHash(deployed("CloneSource/system.qcow2")), sourceSystem);

    MessageCapture capture;
    EXPECT_EQ(m_engine->cloneMachine(source.get(), "CloneTarget"), 2);
    EXPECT_LOG(capture, QtWarningMsg, "[VMTools] Can't clone to already existing device \"CloneTarget\"");
}

TEST_F(QEMULifecycle, cloneDoesNotTakeOverTheSourceLockFile)
{
    ASSERT_EQ(m_engine->createMachine("LockedSource", makeImage(sharedOva(), "11.0.0", "5.3.0"), makeProfile()), 0);
    std::unique_ptr<VMToolsMachine> source(m_engine->getMachine("LockedSource"));
    QFile lock(deployed("LockedSource/qemu.lock"));
    ASSERT_TRUE(lock.open(QIODevice::WriteOnly));
    lock.write("[General]\npid=1\noffset=14\n");
    lock.close();

    ASSERT_EQ(m_engine->cloneMachine(source.get(), "LockedClone"), 0);
    EXPECT_FALSE(QFile::exists(deployed("LockedClone/qemu.lock")));
}

TEST_F(QEMULifecycle, deleteRemovesTheDeviceDirectory)
{
    ASSERT_EQ(m_engine->createMachine("Doomed", makeImage(sharedOva(), "11.0.0", "5.3.0"), makeProfile()), 0);
    std::unique_ptr<VMToolsMachine> machine(m_engine->getMachine("Doomed"));
    MessageCapture capture;
    EXPECT_TRUE(m_engine->deleteMachine(machine.get()));
    EXPECT_FALSE(QFileInfo::exists(deployed("Doomed")));
    EXPECT_LOG(capture, QtDebugMsg, QString("[VMTools] deleteMachine() with path \"%1\"").arg(deployed("Doomed")));
    EXPECT_FALSE(m_engine->doesMachineExist("Doomed"));
}

TEST_F(QEMULifecycle, factoryResetRebuildsTheDisks)
{
    const OsImage image = makeImage(sharedOva(), "11.0.0", "5.4.0");
    ASSERT_EQ(m_engine->createMachine("Reset", image, makeProfile()), 0);
    std::unique_ptr<VMToolsMachine> machine(m_engine->getMachine("Reset"));
    const QByteArray freshSystem = fileHash(deployed("Reset/system.qcow2"));
    writePattern(deployed("Reset/data.qcow2"), "0x11");
    writePattern(deployed("Reset/system.qcow2"), "0x22");
    ASSERT_NE(fileHash(deployed("Reset/system.qcow2")), freshSystem);

    // The device's own reset goes through the engine.
    EXPECT_TRUE(machine->resetFactory());
    EXPECT_EQ(fileHash(deployed("Reset/data.qcow2")), fileHash(referenceDir(image) + "/data.qcow2"));
    EXPECT_EQ(fileHash(deployed("Reset/system.qcow2")), freshSystem);
    EXPECT_TRUE(QFile::exists(deployed("Reset/shared/config/device.json")));
}

TEST_F(QEMULifecycle, failedFactoryResetGivesBackThePreviousDisks)
{
    ASSERT_EQ(m_engine->createMachine("ResetFails", makeImage(sharedOva(), "11.0.0", "5.4.0"), makeProfile()), 0);
    writePattern(deployed("ResetFails/data.qcow2"), "0x33");
    writePattern(deployed("ResetFails/system.qcow2"), "0x44");
    const QByteArray system = fileHash(deployed("ResetFails/system.qcow2"));
    const QByteArray data = fileHash(deployed("ResetFails/data.qcow2"));

    std::unique_ptr<QEMUEngine> failing = makeEngineWithFailingImageTool("qemu-img: no space left");
    std::unique_ptr<VMToolsMachine> machine(failing->getMachine("ResetFails"));
    ASSERT_NE(machine, nullptr);

    MessageCapture capture;
    EXPECT_FALSE(failing->resetFactory(machine.get()));
    EXPECT_LOG(capture, QtCriticalMsg,
               QString("[VMTools] Failed to create system disk \"%1\"").arg(deployed("ResetFails")));
    EXPECT_EQ(fileHash(deployed("ResetFails/system.qcow2")), system);
    EXPECT_EQ(fileHash(deployed("ResetFails/data.qcow2")), data);
}

TEST_F(QEMULifecycle, factoryResetNeedsTheReferenceDisks)
{
    MessageCapture capture;
    EXPECT_FALSE(m_engine->resetFactory(nullptr));
    EXPECT_LOG(capture, QtCriticalMsg, "[VMTools] Cannot factory reset null machine");

    QEMUMachine orphan(m_engine.get(), deployed("Orphan"), makeImage(sharedOva(), "11.0.0", "7.7.7"), makeProfile());
    EXPECT_FALSE(m_engine->resetFactory(&orphan));
    EXPECT_TRUE(capture.hasContaining(QtCriticalMsg, "[VMTools] Reference disks don't exist"));
}

TEST_F(QEMULifecycle, extractOvaSkipsAnImageAlreadyExtracted)
{
    const VersionNumber imageVersion = VersionNumber::fromString("8.8.0");
    const VersionNumber osVersion = VersionNumber::fromString("11.0.0");
    const QString missing = hvtest::testRoot() + "/nowhere.ova";
    EXPECT_FALSE(m_engine->extractOva(missing, imageVersion, osVersion));

    ASSERT_TRUE(m_engine->extractOva(sharedOva(), imageVersion, osVersion));
    const QDir dir(Paths::getSystemImagePath(imageVersion, osVersion));
    EXPECT_EQ(dir.entryList(QDir::Files, QDir::Name), QStringList({"data.vmdk", "system.vmdk"}));
    EXPECT_TRUE(m_engine->extractOva(missing, imageVersion, osVersion));

    // Only one disk left: the archive is extracted again.
    QFile::remove(dir.absoluteFilePath("data.vmdk"));
    EXPECT_FALSE(m_engine->extractOva(missing, imageVersion, osVersion));
    EXPECT_TRUE(m_engine->extractOva(makeImage(sharedOva(), "11.0.0", "8.8.0")));
    EXPECT_TRUE(dir.exists("data.vmdk"));
}

TEST_F(QEMULifecycle, listingPollsTheCancelPredicate)
{
    ASSERT_EQ(m_engine->createMachine("ListA", makeImage(sharedOva(), "11.0.0", "5.3.0"), makeProfile()), 0);
    ASSERT_EQ(m_engine->createMachine("ListB", makeImage(sharedOva(), "11.0.0", "5.3.0"), makeProfile()), 0);
    QDir().mkpath(deployed("ListNotADevice"));

    const QList<VMToolsMachine *> all = m_engine->getMachines([] { return false; });
    QStringList names;
    for (VMToolsMachine *m : all)
        names << m->getName();
    qDeleteAll(all);
    EXPECT_TRUE(names.contains("ListA"));
    EXPECT_TRUE(names.contains("ListB"));
    EXPECT_FALSE(names.contains("ListNotADevice"));

    EXPECT_TRUE(m_engine->getMachines([] { return true; }).isEmpty());
    int polls = 0;
    const QList<VMToolsMachine *> one = m_engine->getMachines([&polls] { return ++polls > 1; });
    EXPECT_EQ(one.size(), 1);
    qDeleteAll(one);
}

// The quick-boot decision, with the start itself recorded instead of run.
class RecordingEngine : public QEMUEngine
{
public:
    int startMachine(VMToolsMachine *, const QString &snapshotName) override
    {
        starts << snapshotName;
        return 1;
    }
    bool isSnapshotSupported() const override { return snapshotSupported; }
    QStringList fetchSnapshotNames(const VMToolsMachine *) const override { return names; }

    QStringList starts;
    bool snapshotSupported = true;
    QStringList names;
};

struct QuickBootCase {
    const char *name;
    bool quickBoot;
    bool supported;
    bool snapshotExists;
    const char *startedWith;
    bool quickBootAfter;
    const char *debugLine;
};

class QuickBootDecision : public ::testing::TestWithParam<QuickBootCase>
{
};

TEST_P(QuickBootDecision, picksTheSnapshotOrFallsBackToColdBoot)
{
    const QuickBootCase &c = GetParam();
    RecordingEngine engine;
    engine.snapshotSupported = c.supported;
    QEMUMachine machine(&engine, deployed("Decision"), makeImage("/x.ova", "11.0.0"), makeProfile());
    machine.setLatestSnapshotExists(c.snapshotExists);
    bool quickBoot = c.quickBoot;

    MessageCapture capture;
    EXPECT_EQ(engine.startFromLatestSnapshot(&machine, &quickBoot), 1);
    EXPECT_EQ(engine.starts, QStringList({c.startedWith}));
    EXPECT_EQ(quickBoot, c.quickBootAfter);
    if (c.debugLine[0])
        EXPECT_LOG(capture, QtDebugMsg, c.debugLine);
    else
        EXPECT_TRUE(capture.lines().isEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, QuickBootDecision,
    ::testing::Values(
        QuickBootCase{"resumesLatest", true, true, true, "latest", true, ""},
        QuickBootCase{"noSnapshot", true, true, false, "", false, "[VMTools] No snapshot found, fallback on cold boot"},
        QuickBootCase{"notSupported", true, false, true, "", false,
                      "[VMTools] Snapshot not supported, fallback on cold boot"},
        QuickBootCase{"quickBootOff", false, true, true, "", false, ""}),
    [](const ::testing::TestParamInfo<QuickBootCase> &info) { return std::string(info.param.name); });

TEST(SnapshotFlag, isSetOnlyForASnapshotNamedExactlyLatest)
{
    RecordingEngine engine;
    QEMUMachine machine(&engine, deployed("Flag"), makeImage("/x.ova", "11.0.0"), makeProfile());
    engine.checkLatestSnapshotExists(nullptr);

    engine.names = QStringList{"Latest", "latest_old"};
    engine.checkLatestSnapshotExists(&machine);
    EXPECT_FALSE(machine.isLatestSnapshotExist());
    engine.names = QStringList{"other", "latest"};
    engine.checkLatestSnapshotExists(&machine);
    EXPECT_TRUE(machine.isLatestSnapshotExist());
    engine.names.clear();
    engine.checkLatestSnapshotExists(&machine);
    EXPECT_FALSE(machine.isLatestSnapshotExist());
}

TEST_F(QEMULifecycle, refusesAnImageTheHostCannotRun)
{
    OsImage image = makeImage(sharedOva(), "11.0.0", "5.3.0");
    image.arch = "arm64";
    ASSERT_EQ(m_engine->createMachine("Foreign", image, makeProfile()), 0);
    std::unique_ptr<VMToolsMachine> machine(m_engine->getMachine("Foreign"));
    MessageCapture capture;
    EXPECT_EQ(m_engine->startMachine(machine.get(), ""), 0);
    EXPECT_LOG(capture, QtWarningMsg, "[VMTools] Incompatible OsImage arch (expected: x86, x86_64, actual: arm64)");
    EXPECT_FALSE(QFile::exists(deployed("Foreign/qemu.lock")));
}

} // namespace
