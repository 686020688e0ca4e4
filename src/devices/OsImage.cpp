#include "OsImage.h"

#include "DeviceJson_p.h"
#include "DeviceListModelUtils.h"
#include "Paths.h"
#include "Urls.h"

#include <QFile>
#include <QFileInfo>
#include <QUrl>

#include <ostream>

bool OsImage::isValid() const
{
    const QUrl url(getFormatedUri());
    return url.isValid() && !supportedFormFactors.isEmpty() && DeviceJson::isAcceptedScheme(url.scheme())
        && imageSizeBytes > 0 && !imageHash.isEmpty();
}

QString OsImage::getFormatedUri() const
{
    return formatUri(imageUri);
}

QString OsImage::formatUri(QString uri)
{
    return uri.replace(QStringLiteral("{{VENDOR}}"), Urls::getVendorOsImageDownloadUrl().toString());
}

QString OsImage::getLocalPath() const
{
    const QUrl url(getFormatedUri());
    if (url.isLocalFile())
        return url.toLocalFile();
    return QFileInfo(Paths::getOvaPath() + QLatin1Char('/') + url.fileName()).absoluteFilePath();
}

QStringList OsImage::ovaDiskNames()
{
    return {QStringLiteral("system.vmdk"), QStringLiteral("data.vmdk")};
}

bool OsImage::isImageAvailableLocally() const
{
    return QFile::exists(getLocalPath());
}

QString OsImage::getOsVersion() const
{
    return osVersion.toString();
}

QString OsImage::getImageVersion() const
{
    return imageVersion.toString();
}

int OsImage::getSdkVersion() const
{
    return sdkVersion;
}

QString OsImage::getImageArch() const
{
    return arch;
}

QDateTime OsImage::getReleaseDate() const
{
    return buildDate;
}

qint64 OsImage::getSize() const
{
    return imageSizeBytes;
}

bool OsImage::isBeta() const
{
    return beta;
}

QString OsImage::getSource() const
{
    return DeviceListModelUtils::sourceToString(source);
}

bool OsImage::isOfficial() const
{
    return source == HwProfile::Source::VENDOR;
}

bool OsImage::isRoundedCornerSupported() const
{
    return osVersion.major > 9 || (osVersion.major == 9 && osVersion.minor >= 0);
}

bool OsImage::isLegacyNetworkProfile() const
{
    return osVersion.major < 7 || (osVersion.major == 7 && osVersion.minor <= 2);
}

bool operator==(const OsImage &a, const OsImage &b)
{
    return a.uuid == b.uuid && a.name == b.name && a.buildDate == b.buildDate && a.source == b.source
        && a.supportedFormFactors == b.supportedFormFactors && a.osVersion == b.osVersion
        && a.imageVersion == b.imageVersion && a.arch == b.arch && a.imageUri == b.imageUri
        && a.imageHash == b.imageHash && a.imageSizeBytes == b.imageSizeBytes;
}

bool operator!=(const OsImage &a, const OsImage &b)
{
    return !(a == b);
}

bool operator<(const OsImage &a, const OsImage &b)
{
    // Sources order by their display labels, so the vendor's images (the
    // product word) come before shared and user ones when untranslated.
    const QString sourceA = a.getSource().toLower();
    const QString sourceB = b.getSource().toLower();
    if (sourceA != sourceB)
        return sourceA < sourceB;
    // The tie-break on equal OS versions is textual on purpose: "10.0.0"
    // sorts before "9.0.0".
    if (a.osVersion == b.osVersion)
        return a.getImageVersion() < b.getImageVersion();
    return a.osVersion < b.osVersion;
}

bool operator>(const OsImage &a, const OsImage &b)
{
    return b < a;
}

void PrintTo(const OsImage &image, std::ostream *out)
{
    *out << "OsImage(uuid=" << image.uuid.toStdString() << " name=" << image.name.toStdString();
}
