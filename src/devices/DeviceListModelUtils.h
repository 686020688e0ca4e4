#pragma once

#include "HwProfile.h"
#include "halvistromcore_export.h"

#include <QByteArray>
#include <QHash>
#include <QSize>
#include <QString>

/// Helpers for the list models that show hardware profiles and devices: the
/// role table, compact integer keys for screen sizes and densities, a hash key
/// for strings, and the user-visible labels of a profile's origin.
class HALVISTROM_CORE_EXPORT DeviceListModelUtils
{
public:
    /// Roles 257 to 270 (268 unused) and their names.
    static QHash<int, QByteArray> roleNames();
    /// width * 100000 + height, in 32-bit signed arithmetic, then widened.
    static qint64 keyForSize(const QSize &size);
    /// The size of a key; exact for heights below 100000.
    static QSize sizeForKey(qint64 key);
    /// Density keys are the dpi values themselves.
    static int densityForKey(qint64 key);
    /// The standard library's string hash of the UTF-8 bytes. Stable within one
    /// build only: for in-memory keys, never stored.
    static quint64 keyForString(const QString &text);
    /// The sharer's e-mail for a shared profile, the user label for a user
    /// profile, the product word otherwise.
    static QString sourceForHwProfile(const HwProfile &profile);
    /// The label of a source: translated for SHARED and USER, the product word
    /// for anything else.
    static QString sourceToString(const HwProfile::Source &source);
};
