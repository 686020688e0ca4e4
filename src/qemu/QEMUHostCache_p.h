#pragma once

#include <QJsonObject>
#include <QString>

/// What the engine learns about the host and its emulator once and keeps in
/// small JSON files of the cache directory, so that later programs need not
/// ask again. A file that is missing, oversized or unreadable reads as empty:
/// the answer is then simply learned again.
namespace QEMUHostCache {

/// The identity of the file at path: its size, modification time, device
/// and inode. Replacing or upgrading the file changes it. Empty when the file
/// cannot be examined.
QJsonObject fileIdentity(const QString &path);

/// The cache file name (in the cache directory) as a JSON object.
QJsonObject read(const QString &name);

/// Stores entry under key in the cache file name, written whole. A cache that
/// cannot be written only costs a later program the question.
void store(const QString &name, const QString &key, const QJsonObject &entry);

} // namespace QEMUHostCache
