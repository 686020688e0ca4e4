#include "HwProfileRegistry.h"

#include "HwProfileIO.h"
#include "Paths.h"

namespace {

HwProfile loadProfile(const QString &file)
{
    return HwProfileIO::load(file);
}

} // namespace

QList<HwProfileRegistry::Entry> HwProfileRegistry::profiles()
{
    return RecordDirectory::read<HwProfile>(Paths::getUserHwProfilePath(), loadProfile);
}

QList<HwProfileRegistry::Entry> HwProfileRegistry::find(const QString &id)
{
    return RecordDirectory::find(
        profiles(), id, [](const HwProfile &p, const QString &name) { return p.getName() == name || p.getModel() == name; },
        loadProfile);
}

bool HwProfileRegistry::isUserRecord(const Entry &entry)
{
    return RecordDirectory::isDirectlyInside(entry.file, Paths::getUserHwProfilePath());
}
