#include "OsImageBuilder.h"

#include <QUuid>

OsImageBuilder::OsImageBuilder()
{
    imageSizeBytes = 1;
    imageHash = QStringLiteral("imageHash");
    supportedFormFactors = {HwProfile::FormFactor::PHONE};
    imageUri = QStringLiteral("https://download.halvistrom.dev/image.ova");
    uuid = QUuid::createUuid().toString();
    buildDate = QDateTime::fromString(QStringLiteral("2021-02-02T00:00Z"), Qt::ISODate);
}
