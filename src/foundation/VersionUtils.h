#pragma once

#include "VersionNumber.h"
#include "halvistromcore_export.h"

#include <QString>

/// Conversions between version texts, Android releases and API levels.
namespace VersionUtils {

/// The API level of an Android release; 0 (logged critical) for versions older
/// than 2.3, and one above the highest known level (logged warning) for
/// releases the table does not know.
HALVISTROM_CORE_EXPORT int androidVersionToApi(const VersionNumber &version);
HALVISTROM_CORE_EXPORT int androidVersionToApi(const QString &version);

/// Compares two version texts to a depth: 1 compares major only, 2 major and
/// minor, anything else the full ordering. Returns -1, 0 or 1.
HALVISTROM_CORE_EXPORT int compareVersionName(const QString &a, const QString &b, int depth);

/// Compares major.minor with 3.0: -1, 0 or 1.
HALVISTROM_CORE_EXPORT int compareToSupportedSystemVersion(const VersionNumber &version);

/// The "major.minor" form of a version text.
HALVISTROM_CORE_EXPORT QString getMajorMinor(const QString &version);

/// Internal pre-release numbers (91 and up in patch or build) shown as betas
/// of the next version: 3.8.91 is 3.9.0-beta1, 3.8.0.92 is 3.8.1-beta2.
HALVISTROM_CORE_EXPORT QString getUserFriendlyVersion(const VersionNumber &version);

} // namespace VersionUtils
