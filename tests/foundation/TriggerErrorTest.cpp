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
using T = TriggerError;
const std::vector<Trigger> kTriggers = {
    {&T::launchpadVboxEngine, "vboxlaunchpad"}, {&T::playerVboxEngine, "vboxplayer"},
    {&T::vboxMachineRunning, "vboxmachinerunning"}, {&T::vboxMachinePause, "vboxmachinepause"},
    {&T::vboxMachineProcess, "vboxmachineprocess"}, {&T::vboxMachineAborted, "vboxmachineaborted"},
    {&T::incompatibleState, "incompatiblestate"}, {&T::noIpAddress, "noip"},
    {&T::incompatibleOsImageArch, "incompatibleosimagearch"}, {&T::deviceNotStarted, "devicenotstarted"},
    {&T::noVirtInBios, "novirtinbios"}, {&T::noMultiCpu, "nomulticpu"}, {&T::noVirtInCpu, "novirtincpu"},
    {&T::hostOnlyCreation, "hostonlycreation"}, {&T::hostOnlyConfiguration, "hostonlyconfiguration"},
    {&T::hostOnlyDeletion, "hostonlydeletion"}, {&T::noOpenGL, "noopengl"}, {&T::oldOpenGL, "oldopengl"},
    {&T::expectSegmentationFault, "segfault"}, {&T::corruptedDownload, "corrupteddownload"},
    {&T::devicePropertiesFailed, "devicepropertiesfailed"}, {&T::factoryBackupNotFound, "snapshotnotfound"},
    {&T::deleteDeviceFailed, "deletedevicefailed"}, {&T::renameDeviceFailed, "renamedevicefailed"},
    {&T::qemuNotInstalled, "qemunotinstalled"}, {&T::vboxNotInstalled, "vboxnotinstalled"},
    {&T::createSharedFolderFailed, "createsharedfolderfailed"}, {&T::saveSnapshotFailed, "savesnapshotfailed"},
    {&T::serviceFailed, "servicefailed"}, {&T::hypervhaxmError, "hypervhaxmerror"},
    {&T::deviceUpdateFailed, "deviceupdatefailed"}, {&T::restoringArchivesFailed, "restoringarchivesfailed"},
    {&T::memoryNotSupportedError, "memorynotsupportederror"}, {&T::amplitudeError, "amplitudeerror"},
    {&T::diskFull, "diskfull"},
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
