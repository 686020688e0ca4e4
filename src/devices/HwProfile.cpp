#include "HwProfile.h"

#include <QFileInfo>
#include <QMetaEnum>

#include <ostream>

namespace {

QString lowerSourceName(const HwProfile &profile)
{
    return profile.getSourceAsString().toLower();
}

} // namespace

bool HwProfile::isValid() const
{
    return !uuid.isEmpty();
}

bool HwProfile::isFoldable() const
{
    return isValid() && displaySettings.displayMode == DisplayMode::FOLDABLE;
}

bool HwProfile::isOfficial() const
{
    return source == Source::VENDOR;
}

bool HwProfile::isReadOnly() const
{
    return source != Source::USER;
}

const HwProfile::Display *HwProfile::getPrimaryDisplay() const
{
    // A regular profile may legitimately be loaded without displays; hand
    // back null rather than reading past the end.
    return displaySettings.displays.isEmpty() ? nullptr : &displaySettings.displays.first();
}

QSize HwProfile::getPrimaryResolution() const
{
    const Display *display = getPrimaryDisplay();
    return display ? QSize(display->width, display->height) : QSize();
}

int HwProfile::getPrimaryDensity() const
{
    const Display *display = getPrimaryDisplay();
    return display ? display->density : 0;
}

const HwProfile::Display *HwProfile::getFoldedDisplay() const
{
    if (!isFoldable() || displaySettings.displays.size() < 2)
        return nullptr;
    return &displaySettings.displays.at(1);
}

QString HwProfile::getName() const
{
    return deviceProperties.productBrand + QLatin1Char(' ') + deviceProperties.productModel;
}

QString HwProfile::getBrand() const
{
    return deviceProperties.productBrand;
}

QString HwProfile::getModel() const
{
    return deviceProperties.productModel;
}

qint64 HwProfile::getVmHeapSize() const
{
    return deviceProperties.vmHeapSize;
}

QString HwProfile::getSkinName() const
{
    return skin.isEmpty() ? QString() : QFileInfo(skin).fileName();
}

QString HwProfile::getSourceAsString() const
{
    return QString::fromLatin1(QMetaEnum::fromType<Source>().valueToKey(int(source)));
}

bool operator==(const HwProfile::Display &a, const HwProfile::Display &b)
{
    return a.width == b.width && a.height == b.height && a.density == b.density
        && a.physicalSize == b.physicalSize && a.bottomCornerRadius == b.bottomCornerRadius
        && a.topCornerRadius == b.topCornerRadius && a.contentPadding == b.contentPadding;
}

bool operator!=(const HwProfile::Display &a, const HwProfile::Display &b)
{
    return !(a == b);
}

bool operator==(const HwProfile::DisplaySettings &a, const HwProfile::DisplaySettings &b)
{
    return a.displayMode == b.displayMode && a.hwNavigationKeys == b.hwNavigationKeys && a.displays == b.displays;
}

bool operator!=(const HwProfile::DisplaySettings &a, const HwProfile::DisplaySettings &b)
{
    return !(a == b);
}

bool operator==(const HwProfile &a, const HwProfile &b)
{
    return a.uuid == b.uuid && a.deviceProperties.productBrand == b.deviceProperties.productBrand
        && a.deviceProperties.productModel == b.deviceProperties.productModel && a.source == b.source
        && a.sharerEmail == b.sharerEmail && a.formFactor == b.formFactor && a.cpuCount == b.cpuCount
        && a.ramSize == b.ramSize && a.dataDiskSize == b.dataDiskSize && a.sdCardSize == b.sdCardSize
        && a.displaySettings == b.displaySettings && a.skin == b.skin;
}

bool operator!=(const HwProfile &a, const HwProfile &b)
{
    return !(a == b);
}

bool operator<(const HwProfile &a, const HwProfile &b)
{
    // Sources order by their key names, not their numbers, so profile lists
    // show shared, then user, then vendor profiles.
    const QString sourceA = lowerSourceName(a);
    const QString sourceB = lowerSourceName(b);
    if (sourceA == sourceB)
        return a.getName().toLower() < b.getName().toLower();
    return sourceA < sourceB;
}

bool operator>(const HwProfile &a, const HwProfile &b)
{
    return b < a;
}

void PrintTo(const HwProfile &profile, std::ostream *out)
{
    *out << "HwProfile(uuid=" << profile.uuid.toStdString() << " brand=" << profile.getBrand().toStdString()
         << " model=" << profile.getModel().toStdString();
}
