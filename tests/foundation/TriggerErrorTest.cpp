#include "TriggerError.h"

#include <QByteArray>

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

std::vector<const char *> firedKeys(const char *value)
{
    qputenv("HV_TRIGGER_ERROR", QByteArray(value));
    std::vector<const char *> fired;
    for (const Trigger &t : kTriggers) {
        if (t.query())
            fired.push_back(t.key);
    }
    return fired;
}

using Keys = std::vector<const char *>;

// Setting one key must fire exactly its own query (if a key were part of
// another, the longer one would fire both); the variable is read on every call.
TEST(TriggerError, eachKeyFiresOnlyItsOwnQuery)
{
    for (const Trigger &t : kTriggers) {
        EXPECT_EQ(firedKeys(t.key), Keys{t.key});
        EXPECT_TRUE(TriggerError::exists()) << t.key;
    }
    const std::pair<const char *, Keys> values[] = {
        {"", {}},
        {"noopengl,segfault", {"noopengl", "segfault"}},
        {"qemunotinstallednoipsnapshotnotfound", {"noip", "snapshotnotfound", "qemunotinstalled"}},
        {"NOOPENGL SegFault", {}}, // case matters
    };
    for (const auto &[value, fired] : values) {
        EXPECT_EQ(firedKeys(value), fired) << value;
        EXPECT_EQ(TriggerError::exists(), *value != '\0') << value;
    }
    qunsetenv("HV_TRIGGER_ERROR");
    EXPECT_FALSE(TriggerError::exists());
    EXPECT_FALSE(TriggerError::noOpenGL());
}

} // namespace
