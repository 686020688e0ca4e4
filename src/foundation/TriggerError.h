#pragma once

#include "halvistromcore_export.h"

/// Failure simulation for support staff and testers. Each query is true when
/// "HV_TRIGGER_ERROR" contains its key (case-sensitive, any separator); code
/// that would detect the real failure asks the query first and, when it is
/// true, behaves exactly as if the failure had happened. The variable is read
/// afresh on every call.
class HALVISTROM_CORE_EXPORT TriggerError
{
public:
    /// True when "HV_TRIGGER_ERROR" is set and not empty.
    static bool exists();

    static bool launchpadVboxEngine();
    static bool playerVboxEngine();
    static bool vboxMachineRunning();
    static bool vboxMachinePause();
    static bool vboxMachineProcess();
    static bool vboxMachineAborted();
    static bool incompatibleState();
    /// Answers to the short key "noip".
    static bool noIpAddress();
    static bool incompatibleOsImageArch();
    static bool deviceNotStarted();
    static bool noVirtInBios();
    static bool noMultiCpu();
    static bool noVirtInCpu();
    static bool hostOnlyCreation();
    static bool hostOnlyConfiguration();
    static bool hostOnlyDeletion();
    static bool noOpenGL();
    static bool oldOpenGL();
    static bool expectSegmentationFault();
    static bool corruptedDownload();
    static bool devicePropertiesFailed();
    /// Answers to the key "snapshotnotfound".
    static bool factoryBackupNotFound();
    static bool deleteDeviceFailed();
    static bool renameDeviceFailed();
    static bool qemuNotInstalled();
    static bool vboxNotInstalled();
    static bool createSharedFolderFailed();
    static bool saveSnapshotFailed();
    static bool serviceFailed();
    static bool hypervhaxmError();
    static bool deviceUpdateFailed();
    static bool restoringArchivesFailed();
    static bool memoryNotSupportedError();
    static bool amplitudeError();
    /// Answers to the key "diskfull": every file the system saves fails as
    /// on a full disk.
    static bool diskFull();
};
