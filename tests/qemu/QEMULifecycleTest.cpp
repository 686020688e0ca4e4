#include "DeviceFixture.h"
#include "HwProfileIO.h"

#include "FileUtils.h"

#include "MessageCapture.h"
#include "ScopedEnv.h"
#include "Paths.h"
#include "QEMUDeviceFiles.h"
#include "QEMUMachine.h"
#include "ReferenceDisks.h"
#include "TestEnvironment.h"
#include "TestFiles.h"

#include <QDir>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using namespace devicefixture;
using hvtest::MessageCapture;

namespace {

QString referenceDir(const OsImage &image)
{
    return QEMUEngine::getReferenceDirectory(image);
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

TEST_F(QEMULifecycle, createsDevicesOverOneConvertedReference)
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
    EXPECT_EQ(reference.entryList(QDir::Files | QDir::Hidden, QDir::Name),
              QStringList({".complete", "data.qcow2", "system.qcow2"}));
    std::unique_ptr<VMToolsMachine> machine(m_engine->getMachine("Created"));
    ASSERT_NE(machine, nullptr);
    EXPECT_EQ(machine->getOsImage(), image);
    EXPECT_EQ(machine->getHwProfile(), profile);
    EXPECT_TRUE(machine->isSdCardInserted());
    EXPECT_TRUE(m_engine->doesMachineExistInHypervisor("Created"));
    EXPECT_FALSE(m_engine->doesMachineExistInHypervisor("Absent"));
    // A saved state depends on the OVA's own checksum, not on the "0" its record declares.
    ASSERT_TRUE(m_engine->recordSavedState(machine.get(), "latest"));
    const QJsonObject saved = QJsonDocument::fromJson(hvtest::readFile(QEMUDeviceFiles(device.path()).savedStates())).object();
    EXPECT_EQ(saved["latest"].toObject()["image_sha256"].toString(), QString(fileHash(sharedOva())));

    // A second device of the same image reuses the reference disks.
    const QString referenceSystem = reference.absoluteFilePath("system.qcow2");
    const QDateTime converted = QFileInfo(referenceSystem).lastModified();
    const QByteArray hash = fileHash(referenceSystem);
    MessageCapture capture;
    ASSERT_EQ(m_engine->createMachine("Second", image, makeProfile()), 0);
    EXPECT_EQ(QFileInfo(referenceSystem).lastModified(), converted);
    EXPECT_EQ(fileHash(referenceSystem), hash);
    EXPECT_EQ(capture.texts(QtCriticalMsg), QStringList());
    EXPECT_EQ(backingFile(deployed("Second/system.qcow2")), referenceSystem);
}

// Names that are taken or not names are refused before anything is written.
TEST_F(QEMULifecycle, refusesExistingAndInvalidNames)
{
    ASSERT_TRUE(hvtest::writeFile(deployed("Taken/keep.txt"), "mine"));
    const QStringList before = QDir(Paths::getDeployedPath()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
    for (const QString name : {"Taken", "", ".", "..", "../escape", "a/b"}) {
        MessageCapture capture;
        EXPECT_EQ(m_engine->createMachine(name, makeImage(sharedOva(), "11.0.0"), makeProfile()), 1);
        EXPECT_LOG(capture, QtWarningMsg,
                   name == "Taken" ? QString("[VMTools] Can't create already existing device \"Taken\"")
                                   : QString("[VMTools] Invalid device name \"%1\"").arg(name));
        EXPECT_EQ(QDir(Paths::getDeployedPath()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), before);
    }
    EXPECT_EQ(QDir(deployed("Taken")).entryList(QDir::Files), QStringList({"keep.txt"}));
}

// Creations that fail half-way (a missing or corrupt OVA, a failing image
// tool) each leave no device directory behind.
TEST_F(QEMULifecycle, failedCreationLeavesNoDeviceDirectory)
{
    const QString corrupt = hvtest::testRoot() + "/corrupt.ova";
    ASSERT_TRUE(hvtest::writeFile(corrupt, QByteArray(3000, 'x')));
    const std::unique_ptr<QEMUEngine> failing = makeEngineWithFailingImageTool("qemu-img: simulated failure");
    const struct {
        QString ova, imageVersion;
        QEMUEngine *engine;
        int code;
        QString critical;
    } rows[] = {{hvtest::testRoot() + "/missing.ova", "6.1.0", m_engine.get(), 1, "[VMTools] Failed to read the checksum of"},
                {corrupt, "6.2.0", m_engine.get(), 1, "[VMTools] Failed to extract OVA"},
                {sharedOva(), "6.3.0", failing.get(), 1, "[VMTools] Failed to get system disk info"}};
    for (const auto &row : rows) {
        MessageCapture capture;
        const QString device = "Rollback-" + row.imageVersion;
        EXPECT_EQ(row.engine->createMachine(device, makeImage(row.ova, "11.0.0", row.imageVersion), makeProfile()), row.code);
        EXPECT_FALSE(QFileInfo::exists(deployed(device)));
        EXPECT_TRUE(capture.hasContaining(QtCriticalMsg, row.critical));
        EXPECT_LOG(capture, QtCriticalMsg, QString("[VMTools] Failed to create device \"%1\"").arg(device));
    }
}

// What would not load back from the device's record is refused before
// anything is made (such a device would never start), and a creation
// cancelled between its steps takes back what it made.
TEST_F(QEMULifecycle, aCreationRefusedOrCancelledLeavesNothing)
{
    OsImage undated = makeImage(sharedOva(), "11.0.0", "5.4.0");
    undated.buildDate = QDateTime();
    QString error;
    EXPECT_EQ(m_engine->createMachine("Undated", undated, makeProfile(), {}, &error), 1);
    EXPECT_EQ(error, QString("the OS image '%1' does not load back from a device record (a field it lacks or holds "
                             "in a form its reader refuses)")
                         .arg(undated.name));
    EXPECT_FALSE(QFileInfo::exists(referenceDir(undated)));

    const OsImage image = makeImage(sharedOva(), "11.0.0", "5.5.0");
    for (const int cancelAt : {1, 2, 3}) {
        int polls = 0;
        const QString name = QString("Cancelled-%1").arg(cancelAt);
        EXPECT_EQ(m_engine->createMachine(name, image, makeProfile(), [&] { return ++polls >= cancelAt; }, &error), 1);
        EXPECT_EQ(error, "the creation was cancelled; nothing is left of it");
        EXPECT_FALSE(QFileInfo::exists(deployed(name)));
        EXPECT_TRUE(m_engine->getLeftovers().isEmpty());
    }
    EXPECT_EQ(m_engine->createMachine("Made", image, makeProfile(), [] { return false; }, &error), 0);
    EXPECT_TRUE(QFileInfo::exists(deployed("Made/system.qcow2")));
}

// A clone has its own identity and disks, never the source's lock file;
// deleting it removes its directory.
TEST_F(QEMULifecycle, cloneAndDelete)
{
    ASSERT_EQ(m_engine->createMachine("CloneSource", makeImage(sharedOva(), "11.0.0", "5.3.0"), makeProfile()), 0);
    std::unique_ptr<VMToolsMachine> source(m_engine->getMachine("CloneSource"));
    ASSERT_NE(source, nullptr);
    ASSERT_TRUE(hvtest::writeFile(deployed("CloneSource/qemu.lock"), "[General]\npid=1\noffset=14\n"));
    const QByteArray sourceData = fileHash(deployed("CloneSource/data.qcow2"));
    const QByteArray sourceSystem = fileHash(deployed("CloneSource/system.qcow2"));

    ASSERT_EQ(m_engine->cloneMachine(source.get(), "Clone"), 0);
    std::unique_ptr<VMToolsMachine> clone(m_engine->getMachine("Clone"));
    ASSERT_NE(clone, nullptr);
    EXPECT_NE(clone->getUuid(), source->getUuid());
    EXPECT_FALSE(clone->getUuid().isEmpty());
    EXPECT_FALSE(QFile::exists(deployed("Clone/qemu.lock")));
    writePattern(deployed("Clone/data.qcow2"), "0x5a");
    writePattern(deployed("Clone/system.qcow2"), "0xa5");
    EXPECT_NE(fileHash(deployed("Clone/data.qcow2")), sourceData);
    EXPECT_EQ(fileHash(deployed("CloneSource/data.qcow2")), sourceData);
    EXPECT_EQ(fileHash(deployed("CloneSource/system.qcow2")), sourceSystem);

    // A clone is built under a hidden name; one that was interrupted there
    // (named as an earlier version named it) is neither listed nor broken,
    // takes no name and is reclaimed as what it is.
    const QString interrupted = deployed(".Other.clone-x1y2z3");
    ASSERT_TRUE(FileUtils::copyDirectory(deployed("Clone"), interrupted));
    const QList<VMToolsMachine *> listed = m_engine->getMachines({});
    for (VMToolsMachine *m : listed)
        EXPECT_NE(m->getPath(), interrupted);
    qDeleteAll(listed);
    EXPECT_FALSE(m_engine->doesMachineExist("Other"));
    EXPECT_EQ(QDir(Paths::getDeployedPath()).entryList({".Clone.*"}, QDir::Dirs | QDir::Hidden), QStringList());
    const QList<QEMUEngine::Leftover> leftovers = m_engine->getLeftovers();
    ASSERT_EQ(leftovers.size(), 1);
    EXPECT_EQ(QStringList({leftovers[0].device, leftovers[0].operation}), QStringList({"Other", "clone"}));
    EXPECT_TRUE(m_engine->reclaimLeftover(leftovers[0]));
    EXPECT_FALSE(QFileInfo::exists(interrupted));

    MessageCapture capture;
    EXPECT_EQ(m_engine->cloneMachine(source.get(), "Clone"), 2);
    EXPECT_LOG(capture, QtWarningMsg, "[VMTools] Can't clone to already existing device \"Clone\"");
    EXPECT_TRUE(m_engine->deleteMachine(clone.get()));
    EXPECT_FALSE(QFileInfo::exists(deployed("Clone")));
    EXPECT_LOG(capture, QtDebugMsg, QString("[VMTools] deleteMachine() with path \"%1\"").arg(deployed("Clone")));
    EXPECT_FALSE(m_engine->doesMachineExist("Clone"));
}

// A state whose record cannot be written leaves no record of that name at
// all: the old one would describe a state that is gone, and have a start
// throw the new one away.
TEST_F(QEMULifecycle, anUnwrittenStateRecordLeavesNoStaleOne)
{
    ASSERT_EQ(m_engine->createMachine("Recorded", makeImage(sharedOva(), "11.0.0", "5.3.0"), makeProfile()), 0);
    std::unique_ptr<VMToolsMachine> machine(m_engine->getMachine("Recorded"));
    ASSERT_TRUE(m_engine->recordSavedState(machine.get(), "state"));
    ASSERT_TRUE(machine->setRamSize(machine->getRamSize() * 2));
    ASSERT_TRUE(m_engine->savedStateMismatch(machine.get(), "state").contains("MB of RAM"));
    MessageCapture capture;
    const hvtest::ScopedEnv full("HV_TRIGGER_ERROR", "diskfull");
    EXPECT_FALSE(m_engine->recordSavedState(machine.get(), "state"));
    EXPECT_LOG(capture, QtCriticalMsg, "[VMTools] Failed to record what snapshot \"state\" was saved with");
    EXPECT_EQ(m_engine->savedStateMismatch(machine.get(), "state"), QString());
}

// A reset rebuilds the disks from the reference; a failed one gives back the
// previous disks, and without reference disks there is nothing to reset to.
TEST_F(QEMULifecycle, factoryReset)
{
    MessageCapture capture;
    EXPECT_FALSE(m_engine->resetFactory(nullptr));
    EXPECT_LOG(capture, QtCriticalMsg, "[VMTools] Cannot factory reset null machine");
    QEMUMachine orphan(m_engine.get(), deployed("Orphan"), makeImage(sharedOva(), "11.0.0", "7.7.7"), makeProfile());
    EXPECT_FALSE(m_engine->resetFactory(&orphan));
    EXPECT_TRUE(capture.hasContaining(QtCriticalMsg, "[VMTools] Reference disks don't exist"));

    const OsImage image = makeImage(sharedOva(), "11.0.0", "5.4.0");
    ASSERT_EQ(m_engine->createMachine("Reset", image, makeProfile()), 0);
    const QByteArray freshSystem = fileHash(deployed("Reset/system.qcow2"));
    writePattern(deployed("Reset/data.qcow2"), "0x11");
    writePattern(deployed("Reset/system.qcow2"), "0x22");
    const QByteArray system = fileHash(deployed("Reset/system.qcow2"));
    const QByteArray data = fileHash(deployed("Reset/data.qcow2"));
    ASSERT_NE(system, freshSystem);

    const QStringList files = QDir(deployed("Reset")).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    std::unique_ptr<QEMUEngine> failing = makeEngineWithFailingImageTool("qemu-img: no space left");
    std::unique_ptr<VMToolsMachine> machine(failing->getMachine("Reset"));
    ASSERT_NE(machine, nullptr);
    EXPECT_FALSE(failing->resetFactory(machine.get()));
    EXPECT_LOG(capture, QtCriticalMsg, QString("[VMTools] Failed to create system disk \"%1\"").arg(deployed("Reset")));
    EXPECT_EQ(fileHash(deployed("Reset/system.qcow2")), system);
    EXPECT_EQ(fileHash(deployed("Reset/data.qcow2")), data);
    EXPECT_EQ(QDir(deployed("Reset")).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot), files);

    // Nothing of the device is copied outside its directory: a temporary
    // directory that cannot be used takes no part in the reset. The device's
    // own reset goes through the engine.
    const hvtest::ScopedEnv noTemporary("TMPDIR", "/nonexistent/tmp");
    machine.reset(m_engine->getMachine("Reset"));
    EXPECT_TRUE(machine->resetFactory());
    EXPECT_EQ(QDir(deployed("Reset")).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot), files);
    EXPECT_EQ(fileHash(deployed("Reset/data.qcow2")), fileHash(referenceDir(image) + "/data.qcow2"));
    EXPECT_EQ(fileHash(deployed("Reset/system.qcow2")), freshSystem);
    EXPECT_TRUE(QFile::exists(deployed("Reset/shared/config/device.json")));
}

// The public extraction makes the same reference disks as a creation, in
// their own directory and only whole: a hostile OVA leaves nothing anywhere,
// a killed extraction leaves nothing that counts, and the next one finishes.
TEST_F(QEMULifecycle, extractOvaMakesTheReferenceDisksWholeOrNothing)
{
    const VersionNumber imageVersion = VersionNumber::fromString("8.8.0");
    const VersionNumber osVersion = VersionNumber::fromString("11.0.0");
    const QDir versions(Paths::getSystemImagePath(imageVersion, osVersion));
    const QString dir = QFileInfo(sharedOva()).path();
    ASSERT_TRUE(QFile::link("/etc/hostname", dir + "/link.vmdk") && QDir(dir).mkdir("sub"));
    ASSERT_TRUE(run("tar", {"--format=ustar", "-C", dir, "-cf", dir + "/link.ova", "--transform=s/link/system/",
                            "link.vmdk", "data.vmdk"}));
    ASSERT_TRUE(run("tar", {"--format=ustar", "-P", "-C", dir + "/sub", "-cf", dir + "/escape.ova", "../system.vmdk",
                            "../data.vmdk"}));
    for (const char *hostile : {"link.ova", "escape.ova"}) {
        EXPECT_FALSE(m_engine->extractOva(dir + "/" + hostile, imageVersion, osVersion)) << hostile;
        EXPECT_EQ(versions.entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot), QStringList()) << hostile;
    }

    const QString reference = ReferenceDisks::directoryOf(sharedOva(), imageVersion, osVersion);
    const pid_t child = ::fork();
    if (child == 0) {
        ReferenceDisks::prepare(sharedOva(), reference, OsImage::ovaDiskNames(),
                                [](const QString &) { return ::raise(SIGKILL) == 0; });
        ::_exit(0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
    EXPECT_TRUE(QFileInfo::exists(ReferenceDisks::partialPath(reference)));
    EXPECT_FALSE(QEMUEngine::isReferenceComplete(reference));
    ASSERT_TRUE(m_engine->extractOva(sharedOva(), imageVersion, osVersion));
    EXPECT_TRUE(QEMUEngine::isReferenceComplete(reference));
    EXPECT_EQ(versions.entryList(QDir::Dirs | QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot),
              QStringList{QFileInfo(reference).fileName()});
    EXPECT_EQ(QDir(reference).entryList(QDir::Files, QDir::Name), (QStringList{"data.qcow2", "system.qcow2"}));
    // Made once: an image whose OVA is gone is still extracted.
    EXPECT_TRUE(m_engine->extractOva(makeImage(sharedOva(), "11.0.0", "8.8.0")));
}

// A record whose file broke under it keeps what it had: the next change
// saves the good profile back, not the broken one. The directory is listed
// as broken with its reason and can be deleted.
TEST_F(QEMULifecycle, aBrokenFileKeepsTheRecordAndIsReported)
{
    const HwProfile profile = makeProfile();
    ASSERT_EQ(m_engine->createMachine("Reloaded", makeImage(sharedOva(), "11.0.0", "5.3.0"), profile), 0);
    std::unique_ptr<VMToolsMachine> machine(m_engine->getMachine("Reloaded"));
    ASSERT_NE(machine, nullptr);
    const QString config = deployed("Reloaded/shared/config/device.json");
    QJsonObject top = FileUtils::loadJson(config).object();
    top.insert("hardware_profile", QJsonObject{{"cpu_count", "many"}});
    ASSERT_TRUE(hvtest::writeFile(config, QJsonDocument(top).toJson()));
    EXPECT_FALSE(machine->reloadProperties());
    EXPECT_EQ(machine->getHwProfile(), profile);
    const QList<QPair<QString, QString>> broken = m_engine->getBrokenMachines();
    EXPECT_TRUE(broken.contains({"Reloaded", "its device configuration file '" + config
                                                 + "' does not describe a device of this engine with a valid hardware "
                                                   "profile"}));
    ASSERT_TRUE(machine->setQuickbootEnabled(false));
    EXPECT_EQ(HwProfileIO::load(FileUtils::loadJson(config).object().value("hardware_profile").toObject()), profile);

    ASSERT_TRUE(hvtest::writeFile(config, "{ broken"));
    EXPECT_TRUE(m_engine->getBrokenMachines().contains(
        {"Reloaded", "its device configuration file '" + config + "' is not a JSON object"}));
    MessageCapture capture;
    EXPECT_EQ(m_engine->createMachine("Reloaded", makeImage(sharedOva(), "11.0.0", "5.3.0"), profile), 1);
    EXPECT_LOG(capture, QtWarningMsg, "[VMTools] Can't create already existing device \"Reloaded\"");
    EXPECT_TRUE(QFile::exists(config));
    EXPECT_TRUE(m_engine->deleteBrokenMachine("Reloaded"));
    EXPECT_FALSE(QFileInfo::exists(deployed("Reloaded")));
}

// Listing skips folders that are no devices, and neither lists them as
// broken nor deletes them; a device an earlier version made, without the
// marker, is adopted. Listing polls its cancel predicate; a device of an
// architecture the host cannot run is listed but not started.
TEST_F(QEMULifecycle, listsDevicesAndRefusesToStartForeignOnes)
{
    OsImage foreign = makeImage(sharedOva(), "11.0.0", "5.3.0");
    foreign.arch = "arm64";
    ASSERT_EQ(m_engine->createMachine("ListA", makeImage(sharedOva(), "11.0.0", "5.3.0"), makeProfile()), 0);
    ASSERT_EQ(m_engine->createMachine("Foreign", foreign, makeProfile()), 0);
    ASSERT_TRUE(QFile::remove(deployed("Foreign/.halvistrom-device")));
    ASSERT_TRUE(hvtest::writeFile(deployed("ListNotADevice/cat.jpg"), "cat"));
    EXPECT_FALSE(m_engine->getBrokenMachines().contains({"ListNotADevice", m_engine->brokenReason(deployed("ListNotADevice"))}));
    EXPECT_FALSE(m_engine->deleteBrokenMachine("ListNotADevice"));
    EXPECT_EQ(hvtest::readFile(deployed("ListNotADevice/cat.jpg")), "cat");
    const QList<VMToolsMachine *> all = m_engine->getMachines([] { return false; });
    QStringList names;
    for (VMToolsMachine *m : all)
        names << m->getName();
    qDeleteAll(all);
    EXPECT_TRUE(names.contains("ListA") && names.contains("Foreign"));
    EXPECT_FALSE(names.contains("ListNotADevice"));
    EXPECT_TRUE(QFile::exists(deployed("Foreign/.halvistrom-device")));
    EXPECT_TRUE(m_engine->getMachines([] { return true; }).isEmpty());
    int polls = 0;
    const QList<VMToolsMachine *> one = m_engine->getMachines([&polls] { return ++polls > 1; });
    EXPECT_EQ(one.size(), 1);
    qDeleteAll(one);

    std::unique_ptr<VMToolsMachine> machine(m_engine->getMachine("Foreign"));
    MessageCapture capture;
    EXPECT_EQ(m_engine->startMachine(machine.get(), ""), 0);
    EXPECT_LOG(capture, QtWarningMsg, "[VMTools] Incompatible OsImage arch (expected: x86, x86_64, actual: arm64)");
    EXPECT_FALSE(QFile::exists(deployed("Foreign/qemu.lock")));
}

// The quick-boot decision, with the start itself recorded instead of run.
class RecordingEngine : public QEMUEngine
{
public:
    int startMachine(VMToolsMachine *, const QString &snapshotName) override
    {
        starts << snapshotName;
        return snapshotName.isEmpty() ? 1 : snapshotResult;
    }
    bool isSnapshotSupported() const override { return snapshotSupported; }
    QStringList fetchSnapshotNames(const VMToolsMachine *) const override { return names; }
    QString savedStateMismatch(const VMToolsMachine *, const QString &) const override { return mismatch; }

    QStringList starts;
    bool snapshotSupported = true;
    QStringList names;
    QString mismatch;
    int snapshotResult = 1;
};

// A state saved with other hardware or before a session that ended
// without saving is not tried; a state the emulator cannot load is tried
// once, then the device boots cold, once.
TEST(QuickBootDecision, aStateThatCannotResumeBootsColdOnce)
{
    const struct {
        QString mismatch;
        int snapshotResult;
        QStringList starts;
        int result;
        QtMsgType level;
        QString line;
        QByteArray session = "{\"ended_with_save\": true}";
    } rows[] = {
        {"", 1, {""}, 1, QtInfoMsg,
         "[VMTools] the last session of 'Stale' ended without saving its state: booting cold, keeping its disk writes",
         "{\"ended_with_save\": false}"},
        {"saved with 512 MB of RAM, the device now has 1024 MB", 1, {""}, 1, QtInfoMsg,
         "[VMTools] quick-boot state saved with 512 MB of RAM, the device now has 1024 MB: booting cold"},
        {"", QEMUMachine::StateNotLoaded, {"latest", ""}, 1, QtWarningMsg,
         "[VMTools] The quick-boot state could not be loaded: booting cold"},
        // Any other failure of the resume is reported as it is.
        {"", QEMUMachine::PortUsed, {"latest"}, QEMUMachine::PortUsed, QtWarningMsg, ""},
    };
    for (const auto &row : rows) {
        RecordingEngine engine;
        engine.names = QStringList{"latest"};
        engine.mismatch = row.mismatch;
        engine.snapshotResult = row.snapshotResult;
        QEMUMachine machine(&engine, deployed("Stale"), makeImage("/x.ova", "11.0.0"), makeProfile());
        ASSERT_TRUE(hvtest::writeFile(deployed("Stale/session.json"), row.session));
        bool quickBoot = true;
        MessageCapture capture;
        EXPECT_EQ(engine.startFromLatestSnapshot(&machine, &quickBoot), row.result);
        EXPECT_EQ(engine.starts, row.starts);
        EXPECT_EQ(quickBoot, row.starts == QStringList{"latest"});
        EXPECT_EQ(capture.texts(row.level), row.line.isEmpty() ? QStringList() : QStringList{row.line});
    }
}

TEST(QuickBootDecision, picksTheSnapshotOrFallsBackToColdBoot)
{
    const struct {
        bool quickBoot, supported, snapshotExists;
        QString startedWith;
        bool quickBootAfter;
        QString debugLine;
    } rows[] = {{true, true, true, "latest", true, ""},
                {true, true, false, "", false, "[VMTools] No snapshot found, fallback on cold boot"},
                {true, false, true, "", false, "[VMTools] Snapshot not supported, fallback on cold boot"},
                {false, true, true, "", false, ""}};
    for (const auto &row : rows) {
        RecordingEngine engine;
        engine.snapshotSupported = row.supported;
        QEMUMachine machine(&engine, deployed("Decision"), makeImage("/x.ova", "11.0.0"), makeProfile());
        // The decision looks the snapshot up itself; a flag set beforehand
        // is not trusted.
        machine.setLatestSnapshotExists(!row.snapshotExists);
        engine.names = row.snapshotExists ? QStringList{"other", "latest"} : QStringList{"Latest"};
        bool quickBoot = row.quickBoot;
        MessageCapture capture;
        EXPECT_EQ(engine.startFromLatestSnapshot(&machine, &quickBoot), 1);
        EXPECT_EQ(engine.starts, QStringList({row.startedWith}));
        EXPECT_EQ(quickBoot, row.quickBootAfter);
        EXPECT_EQ(capture.texts(QtDebugMsg), row.debugLine.isEmpty() ? QStringList() : QStringList{row.debugLine});
    }
    // The flag is set only for a snapshot named exactly "latest".
    RecordingEngine engine;
    QEMUMachine machine(&engine, deployed("Flag"), makeImage("/x.ova", "11.0.0"), makeProfile());
    engine.checkLatestSnapshotExists(nullptr);
    for (const QStringList &names : {QStringList{"Latest", "latest_old"}, QStringList{"other", "latest"}, QStringList()}) {
        engine.names = names;
        engine.checkLatestSnapshotExists(&machine);
        EXPECT_EQ(machine.isLatestSnapshotExist(), names.contains("latest")) << names.join(',').toStdString();
    }
}

} // namespace
