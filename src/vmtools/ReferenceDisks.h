#pragma once

#include "OsImage.h"
#include "VersionNumber.h"
#include "halvistromcore_export.h"

#include <QString>
#include <QStringList>

#include <functional>

class QLockFile;

/// An OS image's reference disks: where they live and how they are made from
/// its OVA, once and whole. The directory of an image's disks sits in the
/// system-image directory of its image and Android versions and is named
/// after the sha-256 of its OVA as computed here, so that two OVAs never
/// share disks and nothing a record says reaches the path. It is made beside
/// itself (".partial"), under a lock every program shares (".lock"), and
/// takes its name with a completion marker inside only when everything
/// worked: a directory without the marker is never used, it is made again.
class HALVISTROM_CORE_EXPORT ReferenceDisks
{
public:
    /// What turns the extracted OVA members in the partial directory into
    /// the disks an engine uses; false, logged, on failure.
    using Finish = std::function<bool(const QString &partial)>;

    /// The directory of the image's reference disks; empty when the checksum
    /// of its OVA is unknown. The OVA may be gone since its disks were made:
    /// the last checksum computed for its path then names it.
    static QString directoryOf(const OsImage &image);
    /// The same for an OVA known by its path and versions.
    static QString directoryOf(const QString &ovaPath, const VersionNumber &imageVersion,
                               const VersionNumber &osVersion);
    /// Whether path is the reference directory of an OVA of those versions
    /// (named by a checksum in their system-image directory).
    static bool isReferenceDirectory(const QString &path, const VersionNumber &imageVersion,
                                     const VersionNumber &osVersion);
    /// Whether the directory was completed and holds every one of files.
    static bool isComplete(const QString &directory, const QStringList &files);

    /// The lock file of the directory's preparation and removal.
    static QString lockPath(const QString &directory);
    /// The lock every creation from the directory shares and its removal
    /// takes alone.
    static QString usersPath(const QString &directory);
    /// The directory it is made in before it takes its name.
    static QString partialPath(const QString &directory);
    /// Takes the directory's lock, waiting for another program's preparation
    /// (minutes at most); false, logged, when it cannot be taken.
    static bool lock(QLockFile &lock, const QString &directory);

    /// Makes the directory from the OVA unless it is complete with files:
    /// under its lock, the OVA's content is checked against the checksum the
    /// directory is named after, extracted into the partial directory (never
    /// into the directory itself or beside it), its members checked to be
    /// regular files, finish run, everything flushed, the marker written and
    /// the partial directory renamed. The directory, or an empty string on
    /// failure, when nothing of it is left.
    static QString prepare(const QString &ovaPath, const QString &directory, const QStringList &files,
                           const Finish &finish);
    /// The same with the lock already held.
    static QString prepareLocked(const QString &ovaPath, const QString &directory, const QStringList &files,
                                 const Finish &finish);
    /// Empties the directory and its partial twin (what an interrupted
    /// preparation left) and makes the partial directory afresh.
    static bool startPartial(const QString &directory);
    /// Flushes files of the partial directory (never through a link), writes
    /// the marker last and renames the partial directory into place; false,
    /// logged, on failure, when the caller removes the partial directory.
    static bool completePartial(const QString &directory, const QStringList &files);
};
