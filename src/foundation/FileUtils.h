#pragma once

#include "halvistromcore_export.h"

#include <QByteArray>
#include <QJsonDocument>
#include <QString>
#include <QStringList>

#include <functional>

class QFile;

/// File operations shared across the system. Failures are logged and
/// reported through the result.
class HALVISTROM_CORE_EXPORT FileUtils
{
public:
    /// Copies a file or a directory tree; never overwrites an existing file.
    /// What it creates is the owner's only.
    static bool copyDirectory(const QString &src, const QString &dst);
    /// The whole content; empty on failure.
    static QByteArray loadFile(const QString &path);
    /// The parsed content; a null document on failure.
    static QJsonDocument loadJson(const QString &path);
    /// The whole content of the regular file at path when it holds at most
    /// maxSize bytes; otherwise empty, with *error saying why ("No such file
    /// or directory", "holds N bytes, more than M"). Nothing is logged. One
    /// open, one status and the reads: cheap enough for a thousand records.
    static QByteArray loadFile(const QString &path, qint64 maxSize, QString *error);
    /// Replaces the file at path with content, all or nothing: the old file
    /// stays as it was unless the new content is complete and flushed to
    /// disk. The file is readable by its owner only. On failure one critical
    /// line names the file and the cause ("No space left on device"). Once
    /// the new file has its name it is a success: a directory that cannot be
    /// flushed after that gets a warning (a power cut may still bring back
    /// the old file).
    static bool saveFile(const QString &path, const QByteArray &content);
    /// Flushes the file or directory at path to disk (for a directory: the
    /// names in it). False, with errno set, when it cannot.
    static bool flushToDisk(const QString &path);
    /// Why a file cannot be written in dir now, in the system's words ("No
    /// space left on device"), found by writing a small private file there
    /// and removing it; empty when that works.
    static QString whyCannotWrite(const QString &dir);
    /// Calls visit once for every file below dir that matches nameFilters.
    /// The QFile is not opened.
    static void walkDirectory(const QString &dir, const QStringList &nameFilters,
                              const std::function<void(QFile *)> &visit);
    /// Takes every group and other permission away from dir and everything
    /// below it, without following symbolic links. Returns how many entries
    /// had to change (one info line names dir when any did); -1 when dir
    /// cannot be walked.
    static int makePrivate(const QString &dir);
    /// Creates dir and every missing parent, each readable by its owner only
    /// (0700) whatever the process's umask; directories that exist keep their
    /// mode. False when dir is not a directory afterwards.
    static bool makeDirectory(const QString &dir);
    /// Copies the file src to dst (which must not exist), making the copy
    /// readable by its owner only (0600) whatever src's mode. On failure
    /// *error (when given) holds the cause.
    static bool copyFile(const QString &src, const QString &dst, QString *error = nullptr);
};
