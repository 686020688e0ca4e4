#include "SystemInfo.h"

#include "EnvVars.h"
#include "SysInfo.h"

#include <QSysInfo>

SystemInfo SystemInfo::getSystemInfo()
{
    const bool emulated = SysInfo().isRunningThroughRosetta();

    SystemInfo info;
    info.cpuArchitecture = emulated ? QStringLiteral("arm64") : QSysInfo::currentCpuArchitecture();
    info.buildCpuArchitecture = QSysInfo::buildCpuArchitecture();

    const QStringList defaultArchs =
        emulated ? QStringList{QStringLiteral("arm64")} : QStringList{QStringLiteral("x86"), QStringLiteral("x86_64")};
    const QStringList overridden = EnvVars::getStringList("HV_OSIMAGE_ARCH_LIST");
    info.osImageArchitectures = overridden.isEmpty() ? defaultArchs : overridden;

    QString product = QSysInfo::productType();
    if (product == QLatin1String("unknown"))
        product = QStringLiteral("Unknown");
    info.osName = QStringLiteral("Linux ") + product;

    info.osVersion = VersionNumber::fromString(EnvVars::getString("HV_OS_VERSION", QStringLiteral("-1")));
    if (info.osVersion.major < 0)
        info.osVersion = VersionNumber::fromString(QSysInfo::productVersion());
    return info;
}

bool SystemInfo::isWindows()
{
    return false;
}

SysInfo::~SysInfo() = default;

bool SysInfo::isRunningThroughRosetta() const
{
    return false;
}

bool SysInfo::isRosettaUi() const
{
    return qEnvironmentVariableIsSet("HV_ROSETTA_UI") || isRunningThroughRosetta();
}
