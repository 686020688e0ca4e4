#pragma once

#include "HwProfile.h"
#include "VersionNumber.h"
#include "halvistromcore_export.h"

#include <QJsonObject>
#include <QString>
#include <QVariant>

/// Converts hardware profiles to and from their JSON form and keeps user
/// profiles as one file each (named after the uuid) in a directory, normally
/// Paths::getUserHwProfilePath(). Failures are logged; loaders then return
/// the invalid profile.
class HALVISTROM_CORE_EXPORT HwProfileIO
{
public:
    /// The format version that toJsonObject writes.
    static const VersionNumber &currentVersion();

    /// The JSON form of profile, format 1.0.0.
    static QJsonObject toJsonObject(const HwProfile &profile);
    /// The profile described by object; the invalid profile (with its
    /// warnings logged) when the object is not a supported profile.
    static HwProfile load(const QJsonObject &object);
    /// The profile stored in the file at path; the invalid profile on failure.
    static HwProfile load(const QString &path);
    /// A record from the web service: absent "version", "source",
    /// "sharer_email" and "sd_card_size" get their defaults first.
    static HwProfile load(const QVariant &record);
    /// Writes dir + "/" + uuid + ".json", creating dir when needed.
    static bool save(const HwProfile &profile, const QString &dir);
    /// Deletes the file of a user profile from dir.
    static bool remove(const HwProfile &profile, const QString &dir);
};
