#include "ProfileFields.h"

#include "HostLimits.h"

#include <QMap>
#include <QMetaEnum>
#include <QRegularExpression>

namespace hvtool {
namespace ProfileFields {
namespace {

/// The bounds of a size field: a profile records its sizes as JSON numbers
/// that readers take as int, so anything larger would save a profile no one
/// can load.
struct Range {
    qint64 minimum;
    qint64 maximum;
    QString why; ///< why the maximum, when it is not the readers' limit
};

Range range(const QString &key)
{
    if (key == QLatin1String("cpus"))
        return {1, HostLimits::cpuCount(), QStringLiteral(" (this host's processors)")};
    if (key == QLatin1String("ram"))
        return {HwProfile::MinRamSize, HwProfile::MaxRamSize, QString()};
    if (key == QLatin1String("data-disk"))
        return {64, HwProfile::MaxRamSize, QString()};
    return {0, HwProfile::MaxRamSize, QString()};
}

qint64 *sizeOf(const QString &key, HwProfile *profile)
{
    if (key == QLatin1String("ram"))
        return &profile->ramSize;
    if (key == QLatin1String("data-disk"))
        return &profile->dataDiskSize;
    return key == QLatin1String("sdcard") ? &profile->sdCardSize : nullptr;
}

QString applyNumber(const QString &key, const QString &text, HwProfile *profile)
{
    const Range bounds = range(key);
    bool ok = false;
    const qint64 value = text.toLongLong(&ok);
    if (!ok || value < bounds.minimum || value > bounds.maximum)
        return QStringLiteral("%1 needs a whole number from %2 to %3%4, not '%5'")
            .arg(key)
            .arg(bounds.minimum)
            .arg(bounds.maximum)
            .arg(bounds.why, text);
    if (key == QLatin1String("cpus"))
        profile->cpuCount = int(value);
    else
        *sizeOf(key, profile) = value;
    profile->hasSdCard = profile->sdCardSize > 0;
    return QString();
}

QString applyDisplay(const QString &text, HwProfile *profile)
{
    static const QRegularExpression pattern(QStringLiteral("^(\\d{2,5})x(\\d{2,5})@(\\d{2,4})$"));
    const QRegularExpressionMatch match = pattern.match(text);
    if (!match.hasMatch())
        return QStringLiteral("display needs WIDTHxHEIGHT@DPI, for example 1080x1920@420, not '%1'").arg(text);
    HwProfile::Display display = profile->getPrimaryDisplay() ? *profile->getPrimaryDisplay() : HwProfile::Display();
    display.width = match.captured(1).toInt();
    display.height = match.captured(2).toInt();
    display.density = match.captured(3).toInt();
    profile->displaySettings.displays = {display};
    return QString();
}

QString applyFormFactor(const QString &text, HwProfile *profile)
{
    bool ok = false;
    const int value = QMetaEnum::fromType<HwProfile::FormFactor>().keyToValue(text.toUpper().toLatin1().constData(), &ok);
    if (!ok)
        return QStringLiteral("form-factor: unknown form factor '%1': use PHONE, TABLET, WATCH, CAR or TV").arg(text);
    profile->formFactor = HwProfile::FormFactor(value);
    return QString();
}

} // namespace

const QList<Field> &all()
{
    static const QList<Field> fields = {{"cpus", "N", true},           {"ram", "MB", true},
                                        {"data-disk", "MB", true},     {"sdcard", "MB", true},
                                        {"display", "WxH@DPI", false}, {"form-factor", "FORM", false}};
    return fields;
}

QStringList keys()
{
    QStringList result;
    for (const Field &field : all())
        result << QString::fromLatin1(field.key);
    return result;
}

QString help(const Field &field)
{
    const QString key = QString::fromLatin1(field.key);
    if (key == QLatin1String("display"))
        return QStringLiteral("Screen as WIDTHxHEIGHT@DPI, for example 1080x1920@420.");
    if (key == QLatin1String("form-factor"))
        return QStringLiteral("PHONE, TABLET, WATCH, CAR or TV; the sizes and screen default to the built-in "
                              "tablet's for TABLET, else the phone's.");
    static const QMap<QString, QString> what = {{"cpus", "Virtual CPUs"},
                                                {"ram", "Memory in MB"},
                                                {"data-disk", "Data disk size in MB"},
                                                {"sdcard", "SD card size in MB, 0 for none"}};
    // Help reads the same on every host (the manual page is made from it):
    // the host's own limit is named, its number is for the refusal.
    if (key == QLatin1String("cpus"))
        return QStringLiteral("%1: 1 to the number of this host's processors.").arg(what.value(key));
    const qint64 minimum = range(key).minimum;
    return minimum > 0 ? QStringLiteral("%1: at least %2.").arg(what.value(key)).arg(minimum) : what.value(key) + '.';
}

QString apply(const QString &key, const QString &text, HwProfile *profile)
{
    if (key == QLatin1String("display"))
        return applyDisplay(text, profile);
    if (key == QLatin1String("form-factor"))
        return applyFormFactor(text, profile);
    if (!keys().contains(key))
        return unknownKey(key + QLatin1Char('=') + text);
    return applyNumber(key, text, profile);
}

QString unknownKey(const QString &item)
{
    return QStringLiteral("'%1' is not KEY=VALUE with KEY one of %2").arg(item, keys().join(QStringLiteral(", ")));
}

} // namespace ProfileFields
} // namespace hvtool
