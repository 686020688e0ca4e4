// hvtool profile: the user's hardware profiles.
#include "Catalog.h"
#include "Command.h"

#include "HwProfileBuilder.h"
#include "HwProfileIO.h"
#include "Paths.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QMetaEnum>
#include <QRegularExpression>

#include <limits>

namespace hvtool {
namespace {

QString formFactorName(HwProfile::FormFactor formFactor)
{
    return QString::fromLatin1(QMetaEnum::fromType<HwProfile::FormFactor>().valueToKey(int(formFactor)));
}

QString displayText(const HwProfile &profile)
{
    const HwProfile::Display *display = profile.getPrimaryDisplay();
    if (!display)
        return QStringLiteral("-");
    return QStringLiteral("%1x%2@%3").arg(display->width).arg(display->height).arg(display->density);
}

int list(Context &ctx)
{
    return Catalog::printList(ctx, HwProfileRegistry::profiles(), HwProfileIO::toJsonObject,
                              {"UUID", "NAME", "FORM", "CPUS", "RAM_MB", "DISPLAY"}, [](const HwProfile &p) {
                                  return QStringList{Catalog::bareUuid(p.uuid), p.getName(),
                                                     formFactorName(p.formFactor), QString::number(p.cpuCount),
                                                     QString::number(p.ramSize), displayText(p)};
                              });
}

int show(Context &ctx)
{
    Stored<HwProfile> found;
    const int code = Catalog::findOne(ctx, "profile", ctx.arg(0), HwProfileRegistry::find(ctx.arg(0)), &found);
    if (code != Success)
        return code;
    const HwProfile &p = found.value;
    return ctx.show({HwProfileIO::toJsonObject(p),
                     {},
                     {},
                     {QStringLiteral("uuid:        %1").arg(Catalog::bareUuid(p.uuid)),
                      QStringLiteral("name:        %1").arg(p.getName()),
                      QStringLiteral("form factor: %1").arg(formFactorName(p.formFactor)),
                      QStringLiteral("cpus:        %1").arg(p.cpuCount),
                      QStringLiteral("ram:         %1 MB").arg(p.ramSize),
                      QStringLiteral("data disk:   %1 MB").arg(p.dataDiskSize),
                      QStringLiteral("sd card:     %1 MB").arg(p.sdCardSize),
                      QStringLiteral("display:     %1").arg(displayText(p)),
                      QStringLiteral("file:        %1").arg(found.file)}});
}

constexpr qint64 kMaxSize = std::numeric_limits<int>::max();

bool positive(Context &ctx, const QString &option, qint64 *target, qint64 minimum)
{
    if (!ctx.isSet(option))
        return true;
    bool ok = false;
    const qint64 value = ctx.value(option).toLongLong(&ok);
    // A profile records its sizes as JSON numbers that readers take as int:
    // anything larger would save a profile no one can load.
    if (!ok || value < minimum || value > kMaxSize) {
        ctx.fail(Usage, QStringLiteral("--%1 needs a whole number from %2 to %3, not '%4'")
                            .arg(option)
                            .arg(minimum)
                            .arg(kMaxSize)
                            .arg(ctx.value(option)));
        return false;
    }
    *target = value;
    return true;
}

int create(Context &ctx)
{
    HwProfileBuilder profile(ctx.arg(0));
    profile.source = HwProfile::Source::USER;

    if (ctx.isSet(QStringLiteral("form-factor"))) {
        bool ok = false;
        const int value = QMetaEnum::fromType<HwProfile::FormFactor>().keyToValue(
            ctx.value(QStringLiteral("form-factor")).toUpper().toLatin1().constData(), &ok);
        if (!ok)
            return ctx.fail(Usage, QStringLiteral("unknown form factor '%1': use PHONE, TABLET, WATCH, CAR or TV")
                                       .arg(ctx.value(QStringLiteral("form-factor"))));
        profile.formFactor = HwProfile::FormFactor(value);
    }

    qint64 cpus = profile.cpuCount;
    if (!positive(ctx, QStringLiteral("cpus"), &cpus, 1) || !positive(ctx, QStringLiteral("ram"), &profile.ramSize, 256)
        || !positive(ctx, QStringLiteral("data-disk"), &profile.dataDiskSize, 64)
        || !positive(ctx, QStringLiteral("sdcard"), &profile.sdCardSize, 0))
        return Usage;
    profile.cpuCount = int(qMin<qint64>(cpus, 512));
    profile.hasSdCard = profile.sdCardSize > 0;

    HwProfile::Display display;
    if (ctx.isSet(QStringLiteral("display"))) {
        static const QRegularExpression pattern(QStringLiteral("^(\\d{2,5})x(\\d{2,5})@(\\d{2,4})$"));
        const QRegularExpressionMatch match = pattern.match(ctx.value(QStringLiteral("display")));
        if (!match.hasMatch())
            return ctx.fail(Usage, QStringLiteral("--display needs WIDTHxHEIGHT@DPI, for example 1080x1920@420"));
        display.width = match.captured(1).toInt();
        display.height = match.captured(2).toInt();
        display.density = match.captured(3).toInt();
    }
    profile.displaySettings.displays = {display};

    Stored<HwProfile> existing;
    bool ambiguous = false;
    if (Catalog::findProfile(ctx.arg(0), &existing, &ambiguous) || ambiguous)
        return ctx.fail(Conflict, QStringLiteral("profile '%1' already exists").arg(ctx.arg(0)));
    if (!HwProfileIO::save(profile, Paths::getUserHwProfilePath()))
        return ctx.fail(Failed, QStringLiteral("could not save profile '%1'").arg(profile.getName()));

    return ctx.show({HwProfileIO::toJsonObject(profile), {}, {}, {Catalog::bareUuid(profile.uuid)}});
}

int remove(Context &ctx)
{
    Stored<HwProfile> found;
    const int code = Catalog::findOne(ctx, "profile", ctx.arg(0), HwProfileRegistry::find(ctx.arg(0)), &found);
    if (code != Success)
        return code;
    // An ID may be the path of any profile file: only the user's own records
    // are deleted.
    if (!HwProfileRegistry::isUserRecord(found))
        return ctx.fail(Usage, QStringLiteral("'%1' is not a user profile: it is outside '%2'")
                                   .arg(found.file, QDir(Paths::getUserHwProfilePath()).absolutePath()));
    if (!QFile::remove(found.file))
        return ctx.fail(Failed, QStringLiteral("could not delete '%1'").arg(found.file));
    return ctx.done(QJsonObject{{"uuid", Catalog::bareUuid(found.value.uuid)}, {"name", found.value.getName()},
                                {"deleted", true}},
                    QStringLiteral("deleted profile '%1'").arg(found.value.getName()));
}

} // namespace

void addProfileCommands()
{
    const QList<QCommandLineOption> createOptions = {
        {"form-factor", "PHONE, TABLET, WATCH, CAR or TV (PHONE).", "FORM"},
        {"cpus", "Number of virtual CPUs (4).", "N"},
        {"ram", "Memory in MB (2048).", "MB"},
        {"data-disk", "Data disk size in MB (8192).", "MB"},
        {"sdcard", "SD card size in MB; 0 for none (0).", "MB"},
        {"display", "Screen as WIDTHxHEIGHT@DPI (1280x768@120).", "WxH@DPI"},
    };
    commands() << Command{{"profile", "list"}, {}, "List the user's hardware profiles.", {}, 0, 0, list}
               << Command{{"profile", "show"}, "ID", "Show one profile (ID: uuid, name or file).", {}, 1, 1, show}
               << Command{{"profile", "create"}, "NAME", "Create a hardware profile.", createOptions, 1, 1, create}
               << Command{{"profile", "delete"}, "ID", "Delete a user profile.", {}, 1, 1, remove};
}

} // namespace hvtool
