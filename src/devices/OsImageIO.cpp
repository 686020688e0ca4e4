#include "OsImageIO.h"

#include "DeviceJson_p.h"
#include "JsonReader.h"
#include "Logging_p.h"

#include <QDebug>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QUrl>
#include <QVariantMap>

#include <algorithm>
#include <cmath>

using DeviceJson::enumFromKey;
using DeviceJson::enumKey;
using DeviceJson::readEnum;

namespace {

// Doubles hold every integer up to 2^53 exactly; sizes beyond are not
// trustworthy, and no image comes near.
constexpr double MaxExactJsonInteger = 9007199254740992.0;

// A rejected record is dumped for whoever reads the log; a hostile one may be
// huge, so only its beginning is.
constexpr int MaxLoggedRecordBytes = 64 * 1024;

const VersionNumber ArchRequiredSince(1, 1, 0);

bool isByteCount(double value)
{
    return std::isfinite(value) && value >= 0 && value <= MaxExactJsonInteger && std::floor(value) == value;
}

void logRejectedRecord(const QJsonObject &object)
{
    const QByteArray json = QJsonDocument(object).toJson(QJsonDocument::Indented);
    if (json.size() <= MaxLoggedRecordBytes) {
        qCWarning(hvDevicesLog).noquote() << QString::fromUtf8(json);
        return;
    }
    qCWarning(hvDevicesLog).noquote() << QString::fromUtf8(json.left(MaxLoggedRecordBytes)) << "... (cut, the record has"
                         << json.size() << "bytes)";
}

QJsonObject osVersionToJson(const OsImage &image)
{
    // The legacy shape of an OS-version record; only the version and the
    // SDK level are read back.
    QJsonObject object;
    object.insert(QStringLiteral("uuid"), QString());
    object.insert(QStringLiteral("name"), QString());
    object.insert(QStringLiteral("os_type"), QString());
    object.insert(QStringLiteral("code_name"), QString());
    object.insert(QStringLiteral("build_date"), QString());
    object.insert(QStringLiteral("os_version"), image.osVersion.toString());
    object.insert(QStringLiteral("sdk_version"), image.sdkVersion);
    return object;
}

QSet<HwProfile::FormFactor> readFormFactors(const JsonReader &reader)
{
    QSet<HwProfile::FormFactor> formFactors;
    for (const QString &name : reader.readStringList(QStringLiteral("supported_form_factors"))) {
        // Form factors this program does not know are skipped silently.
        const auto formFactor = enumFromKey<HwProfile::FormFactor>(name);
        if (int(formFactor) != HwProfile::UnknownEnumValue)
            formFactors.insert(formFactor);
    }
    return formFactors;
}

// Read as a 64-bit count: real images are larger than 2 GiB. 0 when absent
// or not a whole number of bytes (with a warning).
qint64 readImageSize(const JsonReader &reader, const QString &uuid)
{
    const QJsonValue size = reader.getValue(QStringLiteral("image_size_bytes"), QJsonValue::Double);
    if (size.isUndefined())
        return 0;
    if (isByteCount(size.toDouble()))
        return qint64(size.toDouble());
    qCWarning(hvDevicesLog) << "Invalid image_size_bytes of os image" << uuid << ":" << size.toDouble()
                            << "is not a whole number of bytes";
    return 0;
}

// Vendor records may name only the OVA file; it lives under the vendor
// download address, in the folder of its Android release.
void completeVendorUri(OsImage *image)
{
    if (image->source != HwProfile::Source::VENDOR || image->imageUri.startsWith(QLatin1String("{{VENDOR}}"))
        || DeviceJson::isAcceptedScheme(QUrl(image->imageUri).scheme()))
        return;
    const QString osVersionText =
        image->osVersion >= VersionNumber(8, 0, 0) ? image->osVersion.toMajorMinorString() : image->osVersion.toString();
    image->imageUri = QStringLiteral("{{%1}}/dists/%2/ova/%3").arg(enumKey(image->source), osVersionText, image->imageUri);
}

} // namespace

const VersionNumber &OsImageIO::currentVersion()
{
    static const VersionNumber version(1, 1, 0);
    return version;
}

QJsonObject OsImageIO::toJsonObject(const OsImage &image)
{
    // Sorted, so the same image always gives the same text.
    QList<HwProfile::FormFactor> formFactors = image.supportedFormFactors.values();
    std::sort(formFactors.begin(), formFactors.end());
    QJsonArray formFactorNames;
    for (HwProfile::FormFactor formFactor : qAsConst(formFactors))
        formFactorNames.append(enumKey(formFactor));

    QJsonObject object;
    object.insert(QStringLiteral("version"), currentVersion().toString());
    object.insert(QStringLiteral("name"), image.name);
    object.insert(QStringLiteral("uuid"), image.uuid);
    object.insert(QStringLiteral("source"), enumKey(image.source));
    object.insert(QStringLiteral("supported_form_factors"), formFactorNames);
    object.insert(QStringLiteral("os_version"), osVersionToJson(image));
    object.insert(QStringLiteral("image_version"), image.imageVersion.toString());
    object.insert(QStringLiteral("arch"), image.arch);
    object.insert(QStringLiteral("image_uri"), image.imageUri);
    object.insert(QStringLiteral("image_size_bytes"), image.imageSizeBytes);
    object.insert(QStringLiteral("image_hash"), image.imageHash);
    object.insert(QStringLiteral("build_date"), image.buildDate.toString(Qt::ISODate));
    object.insert(QStringLiteral("is_beta"), image.beta);
    return object;
}

OsImage OsImageIO::load(const QJsonObject &object)
{
    // The loader holds the error list itself, so that its own range check
    // lands in it in reading order, among the reader's errors.
    const auto errorList = std::make_shared<QStringList>();
    const JsonReader reader(object, QString(), errorList);
    const VersionNumber version = VersionNumber::fromString(reader.readString(QStringLiteral("version")));
    if (reader.hasErrors() || version.major > 1) {
        qCWarning(hvDevicesLog) << "Unsupported os image: version=" << version << ", expected" << currentVersion();
        return OsImage();
    }

    OsImage image;
    image.version = version;
    image.name = reader.readString(QStringLiteral("name"));
    image.uuid = reader.readString(QStringLiteral("uuid"));
    image.buildDate = reader.readDateTime(QStringLiteral("build_date"));
    image.source = readEnum<HwProfile::Source>(reader, QStringLiteral("source"));
    image.supportedFormFactors = readFormFactors(reader);
    const JsonReader osVersion = reader.readObject(QStringLiteral("os_version"));
    image.osVersion = VersionNumber::fromString(osVersion.readString(QStringLiteral("os_version")));
    image.sdkVersion = DeviceJson::readWholeInt(osVersion, QStringLiteral("sdk_version"), errorList.get());
    image.imageVersion = VersionNumber::fromString(reader.readString(QStringLiteral("image_version")));
    if (version >= ArchRequiredSince || reader.contains(QStringLiteral("arch")))
        image.arch = reader.readString(QStringLiteral("arch"));
    image.imageUri = reader.readString(QStringLiteral("image_uri"));
    image.imageSizeBytes = readImageSize(reader, image.uuid);
    image.imageHash = reader.readString(QStringLiteral("image_hash"));
    if (reader.contains(QStringLiteral("is_beta")))
        image.beta = reader.readBool(QStringLiteral("is_beta"));

    if (reader.hasErrors()) {
        logRejectedRecord(object);
        for (const QString &error : qAsConst(*errorList))
            qCWarning(hvDevicesLog) << "Error in field" << error;
        return OsImage();
    }

    completeVendorUri(&image);
    return image;
}

OsImage OsImageIO::loadFromFile(const QString &path, const HwProfile::Source &source)
{
    const QJsonDocument document = DeviceJson::loadRecordFile(path, "os image");
    if (document.isNull())
        return OsImage();
    // Where the file was found decides the source, not what it says.
    QJsonObject object = document.object();
    object.insert(QStringLiteral("source"), enumKey(source));
    return load(object);
}

QList<OsImage> OsImageIO::loadFromDirectory(const QString &dir)
{
    QList<OsImage> images;
    const QStringList entries = QDir(dir).entryList(QStringList{QStringLiteral("*.json")});
    for (const QString &entry : entries) {
        const QString path = dir + QLatin1Char('/') + entry;
        const OsImage image = loadFromFile(path, HwProfile::Source::USER);
        if (!image.isValid()) {
            qCWarning(hvDevicesLog) << "Invalid OsImage in" << path;
            continue;
        }
        images.append(image);
    }
    return images;
}

OsImage OsImageIO::loadFromWebService(const QVariant &record)
{
    QVariantMap map = record.toMap();
    if (!map.contains(QStringLiteral("version")))
        map.insert(QStringLiteral("version"), currentVersion().toString());
    if (!map.contains(QStringLiteral("source")))
        map.insert(QStringLiteral("source"), QStringLiteral("VENDOR"));
    return load(QJsonObject::fromVariantMap(map));
}

bool OsImageIO::migrateV1_0ToV1_1(const QString &text, OsImage *image)
{
    if (!image || image->version != VersionNumber(1, 0, 0))
        return false;
    // The caller passes the device's name as text, so the two names sit in
    // each other's places in this sentence; the wording is kept as it is.
    qCDebug(hvDevicesLog).noquote() << QStringLiteral("Migrating OsImage %1 of device %2 from 1.0.0 to 1.1.0").arg(text, image->name);
    if (image->arch.isEmpty())
        image->arch = image->osVersion >= VersionNumber(11, 0, 0) ? QStringLiteral("x86_64") : QStringLiteral("x86");
    image->version = VersionNumber(1, 1, 0);
    return true;
}
