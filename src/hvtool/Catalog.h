#pragma once

#include "HwProfileRegistry.h"
#include "OsImageRegistry.h"

#include <QString>

namespace hvtool {

/// A record together with the file it was read from.
template<typename T>
using Stored = RecordDirectory::Entry<T>;

/// The user's hardware profiles and OS images, as the library finds them.
namespace Catalog {

/// The one record id names (uuid, name or path to a file). False when none
/// or several do; *ambiguous is set when a name names several.
bool findProfile(const QString &id, Stored<HwProfile> *found, bool *ambiguous = nullptr);
bool findImage(const QString &id, Stored<OsImage> *found, bool *ambiguous = nullptr);

/// The uuid without braces, as used in file names and shown to users.
QString bareUuid(const QString &uuid);

} // namespace Catalog
} // namespace hvtool
