#pragma once

#include "HwProfile.h"
#include "RecordDirectory.h"
#include "halvistromcore_export.h"

#include <QList>
#include <QString>

/// The user's hardware profiles: one record each in
/// Paths::getUserHwProfilePath(), written by HwProfileIO::save.
class HALVISTROM_CORE_EXPORT HwProfileRegistry
{
public:
    using Entry = RecordDirectory::Entry<HwProfile>;

    /// Every valid profile of the user's, by file name.
    static QList<Entry> profiles();
    /// The profiles id names: by uuid (braced or not), by full name ("ACME
    /// Pocket") or the model name it was created with ("Pocket"), or as the
    /// path of a profile file anywhere. Several when a name is shared.
    static QList<Entry> find(const QString &id);
    /// Whether the entry is a record of the user's profiles directory, the
    /// only ones that may be deleted.
    static bool isUserRecord(const Entry &entry);
};
