#include "HwProfileIO.h"

#include "DeviceJson_p.h"
#include "FileUtils.h"
#include "JsonReader.h"
#include "Logging_p.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QVariantMap>

using DeviceJson::enumKey;
using DeviceJson::readEnum;
using DeviceJson::readWholeInt;

namespace {

HwProfile::Display readDisplay(const JsonReader &reader, QStringList *errors)
{
    // Every element starts from the default screen; the optional fields keep
    // their defaults when absent.
    HwProfile::Display display;
    display.width = readWholeInt(reader, QStringLiteral("width"), errors);
    display.height = readWholeInt(reader, QStringLiteral("height"), errors);
    display.density = readWholeInt(reader, QStringLiteral("density"), errors);
    display.physicalSize = reader.readQReal(QStringLiteral("physical_size"));
    if (reader.contains(QStringLiteral("bottom_corner_radius")))
        display.bottomCornerRadius = readWholeInt(reader, QStringLiteral("bottom_corner_radius"), errors);
    if (reader.contains(QStringLiteral("top_corner_radius")))
        display.topCornerRadius = readWholeInt(reader, QStringLiteral("top_corner_radius"), errors);
    if (reader.contains(QStringLiteral("content_padding")))
        display.contentPadding = readWholeInt(reader, QStringLiteral("content_padding"), errors);
    return display;
}

// The optional string properties, in the order they are written.
struct StringProperty {
    const char *key;
    QString HwProfile::DeviceProperties::*member;
};
const StringProperty OptionalStringProperties[] = {
    {"product_name", &HwProfile::DeviceProperties::productName},
    {"product_manufacturer", &HwProfile::DeviceProperties::productManufacturer},
    {"product_board", &HwProfile::DeviceProperties::productBoard},
    {"product_device", &HwProfile::DeviceProperties::productDevice},
    {"build_display_id", &HwProfile::DeviceProperties::buildDisplayId},
    {"build_type", &HwProfile::DeviceProperties::buildType},
    {"build_fingerprint", &HwProfile::DeviceProperties::buildFingerprint},
    {"build_tags", &HwProfile::DeviceProperties::buildTags},
};

HwProfile::DeviceProperties readDeviceProperties(const JsonReader &reader, QStringList *errors)
{
    HwProfile::DeviceProperties properties;
    properties.productModel = reader.readString(QStringLiteral("product_model"));
    properties.productBrand = reader.readString(QStringLiteral("product_brand"));
    for (const StringProperty &property : OptionalStringProperties) {
        const QString key = QLatin1String(property.key);
        if (reader.contains(key))
            properties.*property.member = reader.readString(key);
    }
    // Older profiles name the serial number "build_serial".
    if (reader.contains(QStringLiteral("serialno")))
        properties.serialNo = reader.readString(QStringLiteral("serialno"));
    else if (reader.contains(QStringLiteral("build_serial")))
        properties.serialNo = reader.readString(QStringLiteral("build_serial"));
    if (reader.contains(QStringLiteral("vm_heap_size")))
        properties.vmHeapSize = readWholeInt(reader, QStringLiteral("vm_heap_size"), errors);
    return properties;
}

void readDisplaySettings(const JsonReader &reader, QStringList *errors, HwProfile::DisplaySettings *settings)
{
    settings->displays.clear();
    settings->hwNavigationKeys = reader.readBool(QStringLiteral("hw_navigation_keys"));
    settings->displayMode = readEnum<HwProfile::DisplayMode>(reader, QStringLiteral("display_mode"));
    // "display_list" is the older name of the array and wins when present.
    const QString displaysKey =
        reader.contains(QStringLiteral("display_list")) ? QStringLiteral("display_list") : QStringLiteral("displays");
    for (const JsonReader &display : reader.readArray(displaysKey))
        settings->displays.append(readDisplay(display, errors));
}

// Whether a foldable has its two screens and a multi-display profile at
// least two; logged when not.
bool hasScreensOfItsMode(const HwProfile::DisplaySettings &settings)
{
    const int displayCount = settings.displays.size();
    if (settings.displayMode == HwProfile::DisplayMode::FOLDABLE && displayCount != 2) {
        qCWarning(hvDevicesLog) << "Foldable phones must have exactly 2 screens, found" << displayCount;
        return false;
    }
    if (settings.displayMode == HwProfile::DisplayMode::MULTI_DISPLAY && displayCount < 2) {
        qCWarning(hvDevicesLog) << "Multi-screen phones must have at least 2 screens, found" << displayCount;
        return false;
    }
    return true;
}

QJsonObject displayToJson(const HwProfile::Display &display)
{
    QJsonObject object;
    object.insert(QStringLiteral("width"), display.width);
    object.insert(QStringLiteral("height"), display.height);
    object.insert(QStringLiteral("density"), display.density);
    object.insert(QStringLiteral("physical_size"), display.physicalSize);
    object.insert(QStringLiteral("bottom_corner_radius"), display.bottomCornerRadius);
    object.insert(QStringLiteral("top_corner_radius"), display.topCornerRadius);
    object.insert(QStringLiteral("content_padding"), display.contentPadding);
    return object;
}

QJsonObject devicePropertiesToJson(const HwProfile::DeviceProperties &properties)
{
    QJsonObject object;
    object.insert(QStringLiteral("product_model"), properties.productModel);
    object.insert(QStringLiteral("product_brand"), properties.productBrand);
    for (const StringProperty &property : OptionalStringProperties)
        object.insert(QLatin1String(property.key), properties.*property.member);
    object.insert(QStringLiteral("serialno"), properties.serialNo);
    object.insert(QStringLiteral("vm_heap_size"), properties.vmHeapSize);
    return object;
}

// The uuid names the profile's file. One holding a path separator or a NUL
// would put the file somewhere else than the directory it belongs in.
bool isSafeFileStem(const QString &uuid)
{
    return !uuid.contains(QLatin1Char('/')) && !uuid.contains(QLatin1Char('\\')) && !uuid.contains(QChar(0));
}

QString profileFilePath(const HwProfile &profile, const QString &dir)
{
    return dir + QLatin1Char('/') + profile.uuid + QStringLiteral(".json");
}

} // namespace

const VersionNumber &HwProfileIO::currentVersion()
{
    static const VersionNumber version(1, 0, 0);
    return version;
}

QJsonObject HwProfileIO::toJsonObject(const HwProfile &profile)
{
    QJsonArray displays;
    for (const HwProfile::Display &display : profile.displaySettings.displays)
        displays.append(displayToJson(display));

    QJsonObject displaySettings;
    displaySettings.insert(QStringLiteral("display_mode"), enumKey(profile.displaySettings.displayMode));
    displaySettings.insert(QStringLiteral("hw_navigation_keys"), profile.displaySettings.hwNavigationKeys);
    displaySettings.insert(QStringLiteral("displays"), displays);

    QJsonObject object;
    object.insert(QStringLiteral("version"), currentVersion().toString());
    object.insert(QStringLiteral("uuid"), profile.uuid);
    object.insert(QStringLiteral("source"), enumKey(profile.source));
    object.insert(QStringLiteral("sharer_email"), profile.sharerEmail);
    object.insert(QStringLiteral("form_factor"), enumKey(profile.formFactor));
    object.insert(QStringLiteral("cpu_count"), profile.cpuCount);
    object.insert(QStringLiteral("ram_size"), profile.ramSize);
    object.insert(QStringLiteral("data_disk_size"), profile.dataDiskSize);
    object.insert(QStringLiteral("sd_card_size"), profile.sdCardSize);
    object.insert(QStringLiteral("device_properties"), devicePropertiesToJson(profile.deviceProperties));
    object.insert(QStringLiteral("display_settings"), displaySettings);
    object.insert(QStringLiteral("skin"), profile.skin);
    return object;
}

HwProfile HwProfileIO::load(const QJsonObject &object)
{
    HwProfile profile;
    // The loader holds the error list itself, so that its own range checks
    // land in it in reading order, among the reader's errors.
    const auto errorList = std::make_shared<QStringList>();
    QStringList *errors = errorList.get();
    const JsonReader reader(object, QString(), errorList);
    const VersionNumber version = VersionNumber::fromString(reader.readString(QStringLiteral("version")));
    if (reader.hasErrors() || version.major > 1) {
        qCWarning(hvDevicesLog) << "Unsupported hardware profile: version=" << version << ", expected" << currentVersion();
        return HwProfile();
    }

    profile.uuid = reader.readString(QStringLiteral("uuid"));
    profile.source = readEnum<HwProfile::Source>(reader, QStringLiteral("source"));
    profile.sharerEmail = reader.readString(QStringLiteral("sharer_email"));
    profile.formFactor = readEnum<HwProfile::FormFactor>(reader, QStringLiteral("form_factor"));
    profile.cpuCount = readWholeInt(reader, QStringLiteral("cpu_count"), errors);
    profile.ramSize = readWholeInt(reader, QStringLiteral("ram_size"), errors);
    profile.dataDiskSize = readWholeInt(reader, QStringLiteral("data_disk_size"), errors);
    profile.sdCardSize = readWholeInt(reader, QStringLiteral("sd_card_size"), errors);
    profile.hasSdCard = profile.sdCardSize > 0;

    readDisplaySettings(reader.readObject(QStringLiteral("display_settings")), errors, &profile.displaySettings);
    profile.deviceProperties = readDeviceProperties(reader.readObject(QStringLiteral("device_properties")), errors);
    if (reader.contains(QStringLiteral("skin")))
        profile.skin = reader.readString(QStringLiteral("skin"));

    if (reader.hasErrors()) {
        for (const QString &error : qAsConst(*errors))
            qCWarning(hvDevicesLog) << "Error in field" << error;
        return HwProfile();
    }

    if (!hasScreensOfItsMode(profile.displaySettings))
        return HwProfile();
    return profile;
}

HwProfile HwProfileIO::load(const QString &path)
{
    const QJsonDocument document = DeviceJson::loadRecordFile(path, "hardware profile");
    if (document.isNull())
        return HwProfile();
    return load(document.object());
}

HwProfile HwProfileIO::load(const QVariant &record)
{
    QVariantMap map = record.toMap();
    // Web-service records leave out what every one of them would repeat.
    const auto insertDefault = [&map](const QString &key, const QVariant &value) {
        if (!map.contains(key))
            map.insert(key, value);
    };
    insertDefault(QStringLiteral("version"), QStringLiteral("1.0"));
    insertDefault(QStringLiteral("source"), QStringLiteral("VENDOR"));
    insertDefault(QStringLiteral("sharer_email"), QString());
    insertDefault(QStringLiteral("sd_card_size"), 0);
    return load(QJsonObject::fromVariantMap(map));
}

bool HwProfileIO::save(const HwProfile &profile, const QString &dir)
{
    if (!profile.isValid()) {
        qCWarning(hvDevicesLog) << "Cannot save invalid profile";
        return false;
    }
    if (!isSafeFileStem(profile.uuid)) {
        qCWarning(hvDevicesLog) << "Cannot save profile whose uuid is not a file name:" << profile.uuid;
        return false;
    }
    if (!FileUtils::makeDirectory(dir)) {
        qCWarning(hvDevicesLog) << "Cannot create directory" << dir;
        return false;
    }
    // A failed write never leaves a truncated profile behind.
    return FileUtils::saveFile(profileFilePath(profile, dir), QJsonDocument(toJsonObject(profile)).toJson());
}

bool HwProfileIO::remove(const HwProfile &profile, const QString &dir)
{
    if (!profile.isValid()) {
        qCWarning(hvDevicesLog) << "Cannot remove invalid profile";
        return false;
    }
    if (profile.source != HwProfile::Source::USER) {
        qCWarning(hvDevicesLog) << "Cannot remove non-user profile";
        return false;
    }
    if (!isSafeFileStem(profile.uuid)) {
        qCWarning(hvDevicesLog) << "Cannot remove profile whose uuid is not a file name:" << profile.uuid;
        return false;
    }
    const QString path = profileFilePath(profile, dir);
    if (QFile::exists(path))
        return QFile::remove(path);
    qCWarning(hvDevicesLog) << "Cannot remove local profile file for profile" << profile.uuid << ":" << dir;
    return false;
}
