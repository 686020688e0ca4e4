#pragma once

#include "OsImage.h"
#include "RecordDirectory.h"
#include "halvistromcore_export.h"

#include <QList>
#include <QString>

#include <functional>

/// The user's registered OS images: one record each in
/// Paths::getUserOsImagePath(), named after its uuid. An OVA is registered
/// once, under the checksum of its content computed here, never the one a
/// record declares; its reference disks are inspected before it is.
class HALVISTROM_CORE_EXPORT OsImageRegistry
{
public:
    using Entry = RecordDirectory::Entry<OsImage>;
    /// Why the OVA at ovaPath must not become an image (its disks name host
    /// files or are not what they claim); empty when it may. Programs pass
    /// their engine's VMToolsEngine::inspectOsImage.
    using Inspector = std::function<QString(const QString &ovaPath)>;
    /// Told while the checksum of the OVA file is computed: the bytes hashed
    /// so far of its size.
    using Progress = std::function<void(const QString &file, qint64 done, qint64 total)>;

    /// How a registration ended.
    struct Registration {
        enum class Outcome {
            Registered,
            /// The image's uuid or its OVA is registered already.
            AlreadyRegistered,
            /// The record or the OVA is refused, or could not be read or written.
            Refused,
        };
        Outcome outcome = Outcome::Refused;
        /// Why it was not registered, naming the file; empty when it was.
        QString reason;
        /// What was registered, with its record file.
        Entry entry;
    };

    /// Every valid image record of the user's, by file name.
    static QList<Entry> images();
    /// The images id names: by uuid (braced or not), by name, or as the path
    /// of an image record anywhere. Several when a name is shared.
    static QList<Entry> find(const QString &id);
    /// Whether the entry is a record of the user's images directory, the
    /// only ones that may be removed.
    static bool isUserRecord(const Entry &entry);

    /// Registers the image record in the file at path, as a user image. The
    /// record must be valid and its uuid a file name; when its OVA is on
    /// this machine, the OVA must have the checksum the record declares and
    /// pass inspect.
    static Registration addRecord(const QString &path, const Inspector &inspect, const Progress &progress = {});
    /// The same for an image read elsewhere (a catalogue, a web address);
    /// origin names where, for the messages.
    static Registration addImage(OsImage image, const QString &origin, const Inspector &inspect,
                                 const Progress &progress = {});
    /// Registers the OVA at path as an image of the Android version in
    /// draft.osVersion, named draft.name ("Android <version>" when empty),
    /// for draft.arch (by the Android version when empty: x86_64 from
    /// Android 11 on), fetched again from draft.imageUri (the OVA's own file
    /// when empty). The rest (address, size, checksum, dates, versions)
    /// is read from the file. The OVA must hold the reference disks and pass
    /// inspect.
    static Registration addOva(const QString &path, const OsImage &draft, const Inspector &inspect,
                               const Progress &progress = {});
    /// Why the file at path is not an OVA holding a device image's
    /// reference disks; empty when it is.
    static QString checkOva(const QString &path);
};
