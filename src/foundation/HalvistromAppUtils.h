#pragma once

#include "halvistromcore_export.h"

#include <QString>

/// The identity of the running program, set once at start-up into the Qt
/// application object. It decides where settings and standard locations live.
class HALVISTROM_CORE_EXPORT HalvistromAppUtils
{
public:
    /// The product's programs. Any value above Shell counts as Tool, any other
    /// non-zero value as Player.
    enum HalvistromApp { Desktop = 0, Player = 1, Shell = 2, Tool = 3 };

    static QString getOrganizationName();
    /// The organisation's fixed domain.
    static QString getOrganizationDomain();
    static QString getAppName(HalvistromApp app);
    static QString getHalvistromAppName();
    /// Names the organisation, the application and its version on the
    /// QCoreApplication; "HV_SOFT_VERSION" overrides the version.
    static void setup(HalvistromApp app);
    /// The application version with internal pre-release numbers shown as betas.
    static QString getUserFriendlyVersion();
};
