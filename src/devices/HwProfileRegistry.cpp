#include "HwProfileRegistry.h"

#include "HostLimits.h"
#include "HwProfileBuilder.h"
#include "HwProfileIO.h"
#include "Paths.h"

namespace {

HwProfile loadProfile(const QString &file)
{
    return HwProfileIO::load(file);
}

/// A shipped profile; the uuid is fixed so that the profile a device was
/// made from can be told by it across releases.
HwProfile builtIn(const char *uuid, const char *model, HwProfile::FormFactor formFactor, qint64 ramSize,
                  HwProfile::Display display)
{
    HwProfile profile;
    profile.uuid = QString::fromLatin1(uuid);
    profile.source = HwProfile::Source::VENDOR;
    profile.formFactor = formFactor;
    profile.deviceProperties.productBrand = QStringLiteral("Halvistrom");
    profile.deviceProperties.productModel = QString::fromLatin1(model);
    profile.deviceProperties.productName = QString::fromLatin1(model);
    profile.deviceProperties.productManufacturer = QStringLiteral("Halvistrom");
    profile.cpuCount = qMin(4, HostLimits::cpuCount());
    profile.ramSize = qMin(ramSize, HostLimits::defaultRamCap());
    profile.dataDiskSize = 8192;
    profile.displaySettings.displays = {display};
    return profile;
}

HwProfile phone()
{
    HwProfile::Display display;
    display.width = 1080;
    display.height = 1920;
    display.density = 420;
    display.physicalSize = 5.2;
    return builtIn("{6117e033-8cf1-4250-a577-98ad6162d786}", "phone", HwProfile::FormFactor::PHONE, 2048, display);
}

HwProfile tablet()
{
    HwProfile::Display display;
    display.width = 2560;
    display.height = 1600;
    display.density = 320;
    display.physicalSize = 10.1;
    return builtIn("{12814576-c4e5-42e3-8cd7-010a1893f847}", "tablet", HwProfile::FormFactor::TABLET, 4096, display);
}

} // namespace

QList<HwProfileRegistry::Entry> HwProfileRegistry::builtIns()
{
    return {Entry{phone(), QString()}, Entry{tablet(), QString()}};
}

HwProfile HwProfileRegistry::defaultProfile()
{
    return phone();
}

bool HwProfileRegistry::isBuiltIn(const HwProfile &profile)
{
    for (const Entry &entry : builtIns()) {
        if (RecordDirectory::bareUuid(entry.value.uuid) == RecordDirectory::bareUuid(profile.uuid))
            return true;
    }
    return false;
}

HwProfile HwProfileRegistry::newUserProfile(const QString &name, HwProfile::FormFactor formFactor)
{
    const HwProfile model = formFactor == HwProfile::FormFactor::TABLET ? tablet() : phone();
    HwProfileBuilder profile(name);
    profile.source = HwProfile::Source::USER;
    profile.formFactor = formFactor;
    profile.cpuCount = model.cpuCount;
    profile.ramSize = model.ramSize;
    profile.dataDiskSize = model.dataDiskSize;
    profile.displaySettings.displays = model.displaySettings.displays;
    return profile;
}

QList<HwProfileRegistry::Entry> HwProfileRegistry::profiles()
{
    return builtIns() + RecordDirectory::read<HwProfile>(Paths::getUserHwProfilePath(), loadProfile);
}

QList<HwProfileRegistry::Entry> HwProfileRegistry::find(const QString &id)
{
    return RecordDirectory::find(
        profiles(), id, [](const HwProfile &p, const QString &name) { return p.getName() == name || p.getModel() == name; },
        loadProfile);
}

bool HwProfileRegistry::isUserRecord(const Entry &entry)
{
    return !entry.file.isEmpty() && RecordDirectory::isDirectlyInside(entry.file, Paths::getUserHwProfilePath());
}
