#include "DeviceTestData.h"

#include "TestFiles.h"

#include <QJsonArray>
#include <QStringList>

#include <gtest/gtest.h>

namespace devtest {

namespace {

QJsonValue edit(const QJsonValue &node, const QStringList &path, int depth, const QJsonValue &value)
{
    const QString &key = path.at(depth);
    const bool last = depth + 1 == path.size();
    bool isIndex = false;
    const int index = key.toInt(&isIndex);
    if (isIndex) {
        QJsonArray array = node.toArray();
        if (last && value.isUndefined())
            array.removeAt(index);
        else
            array[index] = last ? value : edit(array.at(index), path, depth + 1, value);
        return array;
    }
    QJsonObject object = node.toObject();
    if (last && value.isUndefined())
        object.remove(key);
    else
        object[key] = last ? value : edit(object.value(key), path, depth + 1, value);
    return object;
}

} // namespace

QJsonObject profileJson()
{
    const QJsonObject display{{"width", 800},           {"height", 1280},           {"density", 213},
                              {"physical_size", 7.0},   {"bottom_corner_radius", 3}, {"top_corner_radius", 4},
                              {"content_padding", 5}};
    const QJsonObject properties{{"product_model", "Tab 7"},       {"product_brand", "Gadgetco"},
                                 {"product_name", "tab7"},         {"product_manufacturer", "Gadgetco Ltd"},
                                 {"product_board", "board7"},      {"product_device", "device7"},
                                 {"build_display_id", "ID7"},      {"build_type", "user"},
                                 {"build_fingerprint", "gadgetco/tab7:9/ID7:user/release-keys"},
                                 {"build_tags", "release-keys"},   {"serialno", "SER7"},
                                 {"vm_heap_size", 512}};
    return {{"version", "1.0.0"},      {"uuid", "{6c7cc1bb-7a3e-4c25-a3a2-2f0b3d6b3a01}"},
            {"source", "USER"},        {"sharer_email", "someone@example.test"},
            {"form_factor", "TABLET"}, {"cpu_count", 2},
            {"ram_size", 3072},        {"data_disk_size", 16384},
            {"sd_card_size", 512},     {"skin", "/skins/nexus_7"},
            {"device_properties", properties},
            {"display_settings",
             QJsonObject{
                 {"display_mode", "REGULAR"}, {"hw_navigation_keys", true}, {"displays", QJsonArray{display}}}}};
}

QJsonObject imageJson()
{
    return {{"version", "1.1.0"},
            {"name", "Android 9.0"},
            {"uuid", "{0b5f8f2e-7f41-4a36-9d39-4f5b3c0d9e10}"},
            {"source", "VENDOR"},
            {"supported_form_factors", QJsonArray{"PHONE", "TABLET"}},
            {"os_version", QJsonObject{{"os_version", "9.0.0"}, {"sdk_version", 28}}},
            {"image_version", "3.2.1"},
            {"arch", "x86"},
            {"image_uri", "https://downloads.example.test/android9.ova"},
            {"image_size_bytes", 1234567},
            {"image_hash", "0123456789abcdef"},
            {"build_date", "2021-02-02T10:20:30Z"},
            {"is_beta", true}};
}

QJsonObject with(const QJsonObject &object, const QString &path, const QJsonValue &value)
{
    return edit(object, path.split('/'), 0, value).toObject();
}

QJsonObject without(const QJsonObject &object, const QString &path)
{
    return with(object, path, QJsonValue(QJsonValue::Undefined));
}

QString writeFile(const QString &dir, const QString &name, const QByteArray &content)
{
    const QString path = dir + "/" + name;
    EXPECT_TRUE(hvtest::writeFile(path, content)) << path.toStdString();
    return path;
}

QString dataPath(const QString &name)
{
    return QStringLiteral(HV_DEVICES_TEST_DATA "/") + name;
}

} // namespace devtest

namespace {

// A fixed vendor download address, so image addresses can be asserted exactly.
class VendorAddress : public ::testing::Environment
{
    void SetUp() override { qputenv("HV_VENDOR_OS_IMAGE_DOWNLOAD_BASE_URL", "https://images.example.test/vendor"); }
};
::testing::Environment *const vendorAddress = ::testing::AddGlobalTestEnvironment(new VendorAddress);

} // namespace

void PrintTo(const QString &text, std::ostream *out)
{
    *out << '"' << text.toStdString() << '"';
}
