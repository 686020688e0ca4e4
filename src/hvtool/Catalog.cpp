#include "Catalog.h"

namespace hvtool {
namespace Catalog {
namespace {

template<typename T>
bool pick(const QList<Stored<T>> &matches, Stored<T> *found, bool *ambiguous)
{
    if (ambiguous)
        *ambiguous = matches.size() > 1;
    if (matches.size() != 1)
        return false;
    *found = matches.first();
    return true;
}

} // namespace

QString bareUuid(const QString &uuid)
{
    return RecordDirectory::bareUuid(uuid);
}

bool findProfile(const QString &id, Stored<HwProfile> *found, bool *ambiguous)
{
    return pick(HwProfileRegistry::find(id), found, ambiguous);
}

bool findImage(const QString &id, Stored<OsImage> *found, bool *ambiguous)
{
    return pick(OsImageRegistry::find(id), found, ambiguous);
}

} // namespace Catalog
} // namespace hvtool
