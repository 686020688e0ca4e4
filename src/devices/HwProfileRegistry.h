#pragma once

#include "HwProfile.h"
#include "RecordDirectory.h"
#include "halvistromcore_export.h"

#include <QList>
#include <QString>

/// The hardware profiles a device can be made from: the library's built-in
/// ones, and the user's, one record each in Paths::getUserHwProfilePath(),
/// written by HwProfileIO::save.
class HALVISTROM_CORE_EXPORT HwProfileRegistry
{
public:
    using Entry = RecordDirectory::Entry<HwProfile>;

    /// The built-in profiles, then every valid profile of the user's by file
    /// name. A built-in entry has no file.
    static QList<Entry> profiles();
    /// The profiles the library ships: a phone held upright ("phone") and a
    /// tablet ("tablet"), with fixed uuids, their processors and memory
    /// capped to this host's (HostLimits). They are never written to disk.
    static QList<Entry> builtIns();
    /// The built-in phone: the profile a device gets when none is named.
    static HwProfile defaultProfile();
    /// Whether profile is one of the built-in ones (by uuid).
    static bool isBuiltIn(const HwProfile &profile);
    /// A new user profile named name: a new uuid, the sizes and screen of the
    /// built-in profile of that form factor (the phone's for a form factor
    /// without one), its processors and memory within this host's.
    static HwProfile newUserProfile(const QString &name, HwProfile::FormFactor formFactor);
    /// The profiles id names: by uuid (braced or not), by full name ("ACME
    /// Pocket") or the model name it was created with ("Pocket"), or as the
    /// path of a profile file anywhere. Several when a name is shared.
    static QList<Entry> find(const QString &id);
    /// Whether the entry is a record of the user's profiles directory, the
    /// only ones that may be changed or deleted.
    static bool isUserRecord(const Entry &entry);
};
