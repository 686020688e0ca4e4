#include "TriggerError.h"

#include <QByteArray>
#include <QtGlobal>

#include <gtest/gtest.h>

#include <vector>

namespace {

struct Trigger {
    bool (*query)();
    const char *key;
};

// Every query with the key that support staff put in "HV_TRIGGER_ERROR".
const std::vector<Trigger> kTriggers = {
    {&TriggerError::launchpadVboxEngine, "vboxlaunchpad"},
    {&TriggerError::playerVboxEngine, "vboxplayer"},
    {&TriggerError::vboxMachineRunning, "vboxmachinerunning"},
    {&TriggerError::vboxMachinePause, "vboxmachinepause"},
    {&TriggerError::vboxMachineProcess, "vboxmachineprocess"},
    {&TriggerError::vboxMachineAborted, "vboxmachineaborted"},
    {&TriggerError::incompatibleState, "incompatiblestate"},
    {&TriggerError::noIpAddress, "noip"},
    {&TriggerError::incompatibleOsImageArch, "incompatibleosimagearch"},
    {&TriggerError::deviceNotStarted, "devicenotstarted"},
    {&TriggerError::noVirtInBios, "novirtinbios"},
    {&TriggerError::noMultiCpu, "nomulticpu"},
    {&TriggerError::noVirtInCpu, "novirtincpu"},
    {&TriggerError::hostOnlyCreation, "hostonlycreation"},
    {&TriggerError::hostOnlyConfiguration, "hostonlyconfiguration"},
    {&TriggerError::hostOnlyDeletion, "hostonlydeletion"},
    {&TriggerError::noOpenGL, "noopengl"},
    {&TriggerError::oldOpenGL, "oldopengl"},
    {&TriggerError::expectSegmentationFault, "segfault"},
    {&TriggerError::corruptedDownload, "corrupteddownload"},
    {&TriggerError::devicePropertiesFailed, "devicepropertiesfailed"},
    {&TriggerError::factoryBackupNotFound, "snapshotnotfound"},
    {&TriggerError::deleteDeviceFailed, "deletedevicefailed"},
    {&TriggerError::renameDeviceFailed, "renamedevicefailed"},
    {&TriggerError::qemuNotInstalled, "qemunotinstalled"},
    {&TriggerError::vboxNotInstalled, "vboxnotinstalled"},
    {&TriggerError::createSharedFolderFailed, "createsharedfolderfailed"},
    {&TriggerError::saveSnapshotFailed, "savesnapshotfailed"},
    {&TriggerError::serviceFailed, "servicefailed"},
    {&TriggerError::hypervhaxmError, "hypervhaxmerror"},
    {&TriggerError::deviceUpdateFailed, "deviceupdatefailed"},
    {&TriggerError::restoringArchivesFailed, "restoringarchivesfailed"},
    {&TriggerError::memoryNotSupportedError, "memorynotsupportederror"},
    {&TriggerError::amplitudeError, "amplitudeerror"},
};

class TriggerErrorTest : public ::testing::Test
{
protected:
    void TearDown() override { qunsetenv("HV_TRIGGER_ERROR"); }
};

std::vector<const char *> firedKeys()
{
    std::vector<const char *> fired;
    for (const Trigger &t : kTriggers) {
        if (t.query())
            fired.push_back(t.key);
    }
    return fired;
}

TEST_F(TriggerErrorTest, unsetVariableFiresNothing)
{
    qunsetenv("HV_TRIGGER_ERROR");
    EXPECT_FALSE(TriggerError::exists());
    EXPECT_TRUE(firedKeys().empty());
}

TEST_F(TriggerErrorTest, emptyVariableFiresNothing)
{
    qputenv("HV_TRIGGER_ERROR", QByteArray(""));
    EXPECT_FALSE(TriggerError::exists());
    EXPECT_TRUE(firedKeys().empty());
}

// Setting one key at a time must fire exactly its own query; if any key were
// a substring of another, the longer one would fire both.
TEST_F(TriggerErrorTest, eachKeyFiresOnlyItsOwnQuery)
{
    for (const Trigger &t : kTriggers) {
        qputenv("HV_TRIGGER_ERROR", QByteArray(t.key));
        EXPECT_TRUE(TriggerError::exists()) << t.key;
        EXPECT_EQ(firedKeys(), std::vector<const char *>{t.key});
    }
}

TEST_F(TriggerErrorTest, noKeyIsASubstringOfAnother)
{
    for (const Trigger &a : kTriggers) {
        for (const Trigger &b : kTriggers) {
            if (&a == &b)
                continue;
            EXPECT_FALSE(QByteArray(a.key).contains(b.key)) << a.key << " contains " << b.key;
        }
    }
}

TEST_F(TriggerErrorTest, severalKeysInOneValueAllFire)
{
    qputenv("HV_TRIGGER_ERROR", QByteArray("noopengl,segfault"));
    EXPECT_TRUE(TriggerError::noOpenGL());
    EXPECT_TRUE(TriggerError::expectSegmentationFault());
    EXPECT_FALSE(TriggerError::oldOpenGL());
    EXPECT_EQ(firedKeys(), (std::vector<const char *>{"noopengl", "segfault"}));

    // No separator at all works too.
    qputenv("HV_TRIGGER_ERROR", QByteArray("qemunotinstallednoipsnapshotnotfound"));
    EXPECT_EQ(firedKeys(), (std::vector<const char *>{"noip", "snapshotnotfound", "qemunotinstalled"}));
}

TEST_F(TriggerErrorTest, upperCaseDoesNotMatch)
{
    qputenv("HV_TRIGGER_ERROR", QByteArray("NOOPENGL SegFault QEMUNOTINSTALLED"));
    EXPECT_TRUE(TriggerError::exists());
    EXPECT_TRUE(firedKeys().empty());
}

TEST_F(TriggerErrorTest, variableIsReadOnEveryCall)
{
    qputenv("HV_TRIGGER_ERROR", QByteArray("novirtincpu"));
    EXPECT_TRUE(TriggerError::noVirtInCpu());
    qputenv("HV_TRIGGER_ERROR", QByteArray("novirtinbios"));
    EXPECT_FALSE(TriggerError::noVirtInCpu());
    EXPECT_TRUE(TriggerError::noVirtInBios());
}

} // namespace
