#include "TriggerError.h"

#include "EnvVars.h"

namespace {

// Read on every call, never cached: a test harness or a support session may
// change the variable while the program runs.
bool isTriggered(const char *key)
{
    return EnvVars::getByteArray("HV_TRIGGER_ERROR").contains(key);
}

} // namespace

bool TriggerError::exists()
{
    return !EnvVars::getByteArray("HV_TRIGGER_ERROR").isEmpty();
}

bool TriggerError::launchpadVboxEngine()
{
    return isTriggered("vboxlaunchpad");
}

bool TriggerError::playerVboxEngine()
{
    return isTriggered("vboxplayer");
}

bool TriggerError::vboxMachineRunning()
{
    return isTriggered("vboxmachinerunning");
}

bool TriggerError::vboxMachinePause()
{
    return isTriggered("vboxmachinepause");
}

bool TriggerError::vboxMachineProcess()
{
    return isTriggered("vboxmachineprocess");
}

bool TriggerError::vboxMachineAborted()
{
    return isTriggered("vboxmachineaborted");
}

bool TriggerError::incompatibleState()
{
    return isTriggered("incompatiblestate");
}

bool TriggerError::noIpAddress()
{
    return isTriggered("noip");
}

bool TriggerError::incompatibleOsImageArch()
{
    return isTriggered("incompatibleosimagearch");
}

bool TriggerError::deviceNotStarted()
{
    return isTriggered("devicenotstarted");
}

bool TriggerError::noVirtInBios()
{
    return isTriggered("novirtinbios");
}

bool TriggerError::noMultiCpu()
{
    return isTriggered("nomulticpu");
}

bool TriggerError::noVirtInCpu()
{
    return isTriggered("novirtincpu");
}

bool TriggerError::hostOnlyCreation()
{
    return isTriggered("hostonlycreation");
}

bool TriggerError::hostOnlyConfiguration()
{
    return isTriggered("hostonlyconfiguration");
}

bool TriggerError::hostOnlyDeletion()
{
    return isTriggered("hostonlydeletion");
}

bool TriggerError::noOpenGL()
{
    return isTriggered("noopengl");
}

bool TriggerError::oldOpenGL()
{
    return isTriggered("oldopengl");
}

bool TriggerError::expectSegmentationFault()
{
    return isTriggered("segfault");
}

bool TriggerError::corruptedDownload()
{
    return isTriggered("corrupteddownload");
}

bool TriggerError::devicePropertiesFailed()
{
    return isTriggered("devicepropertiesfailed");
}

bool TriggerError::factoryBackupNotFound()
{
    return isTriggered("snapshotnotfound");
}

bool TriggerError::deleteDeviceFailed()
{
    return isTriggered("deletedevicefailed");
}

bool TriggerError::renameDeviceFailed()
{
    return isTriggered("renamedevicefailed");
}

bool TriggerError::qemuNotInstalled()
{
    return isTriggered("qemunotinstalled");
}

bool TriggerError::vboxNotInstalled()
{
    return isTriggered("vboxnotinstalled");
}

bool TriggerError::createSharedFolderFailed()
{
    return isTriggered("createsharedfolderfailed");
}

bool TriggerError::saveSnapshotFailed()
{
    return isTriggered("savesnapshotfailed");
}

bool TriggerError::serviceFailed()
{
    return isTriggered("servicefailed");
}

bool TriggerError::hypervhaxmError()
{
    return isTriggered("hypervhaxmerror");
}

bool TriggerError::deviceUpdateFailed()
{
    return isTriggered("deviceupdatefailed");
}

bool TriggerError::restoringArchivesFailed()
{
    return isTriggered("restoringarchivesfailed");
}

bool TriggerError::memoryNotSupportedError()
{
    return isTriggered("memorynotsupportederror");
}

bool TriggerError::amplitudeError()
{
    return isTriggered("amplitudeerror");
}

bool TriggerError::diskFull()
{
    return isTriggered("diskfull");
}
