#include "DeviceListModelUtils.h"

#include <QCoreApplication>

#include <functional>
#include <string_view>

namespace {

const char *const ProductWord = "Halvistrom";

QString translated(const char *key)
{
    return QCoreApplication::translate("DeviceListModelUtils", key);
}

} // namespace

QHash<int, QByteArray> DeviceListModelUtils::roleNames()
{
    // The numbers are part of the models' interface with the QML views;
    // 268 was retired and stays free.
    return {
        {257, "uuid"},
        {258, "formFactor"},
        {259, "shared"},
        {260, "sharer"},
        {261, "source"},
        {262, "sourceLabel"},
        {263, "name"},
        {264, "physicalScreenSize"},
        {265, "width"},
        {266, "height"},
        {267, "sizeLabel"},
        {269, "density"},
        {270, "densityLabel"},
    };
}

qint64 DeviceListModelUtils::keyForSize(const QSize &size)
{
    // 32-bit arithmetic that wraps like the int keys always have; done in
    // unsigned so a large width wraps instead of being undefined.
    const quint32 key = quint32(size.width()) * 100000u + quint32(size.height());
    return qint64(qint32(key));
}

QSize DeviceListModelUtils::sizeForKey(qint64 key)
{
    const qint64 width = key / 100000;
    return QSize(int(width), int(key - width * 100000));
}

int DeviceListModelUtils::densityForKey(qint64 key)
{
    return int(key);
}

quint64 DeviceListModelUtils::keyForString(const QString &text)
{
    const QByteArray utf8 = text.toUtf8();
    return std::hash<std::string_view>()(std::string_view(utf8.constData(), size_t(utf8.size())));
}

QString DeviceListModelUtils::sourceForHwProfile(const HwProfile &profile)
{
    switch (profile.source) {
    case HwProfile::Source::SHARED:
        return profile.sharerEmail;
    case HwProfile::Source::USER:
        return translated("source.user");
    default:
        return QString::fromLatin1(ProductWord);
    }
}

QString DeviceListModelUtils::sourceToString(const HwProfile::Source &source)
{
    switch (source) {
    case HwProfile::Source::SHARED:
        return translated("source.shared");
    case HwProfile::Source::USER:
        return translated("source.user");
    default:
        return QString::fromLatin1(ProductWord);
    }
}
