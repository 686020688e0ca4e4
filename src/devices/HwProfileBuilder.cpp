#include "HwProfileBuilder.h"

#include <QUuid>

HwProfileBuilder::HwProfileBuilder(const QString &name)
{
    uuid = QUuid::createUuid().toString();
    deviceProperties.productBrand = QStringLiteral("ACME");
    deviceProperties.productModel = name.isEmpty() ? QStringLiteral("Unnamed") : name;
    cpuCount = 4;
    ramSize = 2048;
    dataDiskSize = 8192;
    deviceProperties.vmHeapSize = 256;

    Display display;
    display.width = 1280;
    display.height = 768;
    display.density = 120;
    display.physicalSize = 9.0;
    // Appended to the display HwProfile() already holds: callers rely on a
    // builder profile starting with two identical displays.
    displaySettings.displays.append(display);
}
