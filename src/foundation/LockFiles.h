#pragma once

#include "halvistromcore_export.h"

class QLockFile;
class QString;

/// Waiting for lock files that several programs of the product take.
namespace LockFiles {

/// Takes lock (made on the file path), waiting at most waitMs. QLockFile's own wait backs off to
/// seconds between attempts, so that a waiter misses the short moments in
/// which holders of a busy lock let go; this polls at a short, growing
/// interval (1 to 32 ms) instead. A lock file that names no holder for over
/// a second (its writer was killed between creating it and naming itself)
/// is taken over. False when the wait ran out or the lock cannot be made;
/// lock.error() tells which.
HALVISTROM_CORE_EXPORT bool acquire(QLockFile &lock, const QString &path, int waitMs);

} // namespace LockFiles
