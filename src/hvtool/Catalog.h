#pragma once

#include "HwProfile.h"
#include "OsImage.h"

#include <QList>
#include <QString>

namespace hvtool {

/// A record together with the file it was read from.
template<typename T>
struct Stored {
    T value;
    QString file;
};

/// The user's hardware profiles and OS images, as the path layout stores them.
namespace Catalog {

QList<Stored<HwProfile>> profiles();
QList<Stored<OsImage>> images();

/// Finds a record by uuid (braced or not), exact name, or path to a file.
/// Returns false when nothing matches; *ambiguous is set when a name
/// matches more than one record.
bool findProfile(const QString &id, Stored<HwProfile> *found, bool *ambiguous = nullptr);
bool findImage(const QString &id, Stored<OsImage> *found, bool *ambiguous = nullptr);

/// The uuid without braces, as used in file names and shown to users.
QString bareUuid(const QString &uuid);

/// Whether file is an entry directly inside dir (".." and symbolic links in
/// the directory part resolved), so that acting on it cannot reach anything
/// outside dir.
bool isDirectlyInside(const QString &file, const QString &dir);

} // namespace Catalog
} // namespace hvtool
