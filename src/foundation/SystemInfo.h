#pragma once

#include "VersionNumber.h"
#include "halvistromcore_export.h"

#include <QString>
#include <QStringList>

/// A snapshot of the host: processor, the OS-image architectures it can run,
/// and the operating system.
struct HALVISTROM_CORE_EXPORT SystemInfo {
    QString cpuArchitecture;
    QString buildCpuArchitecture;
    QStringList osImageArchitectures;
    QString osName;
    VersionNumber osVersion;

    /// Reads the host now; "HV_OSIMAGE_ARCH_LIST" and "HV_OS_VERSION" override.
    static SystemInfo getSystemInfo();
    static bool isWindows();
};
