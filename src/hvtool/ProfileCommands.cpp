// hvtool profile: the built-in hardware profiles and the user's own.
#include "Catalog.h"
#include "Command.h"
#include "ProfileFields.h"

#include "HostLimits.h"
#include "HwProfileIO.h"
#include "Paths.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QMetaEnum>

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

/// A profile as hvtool shows it: its record, with the bare uuid, the name
/// it is found by and whether it ships with hvtool.
QJsonObject profileJson(const HwProfile &profile)
{
    QJsonObject object = HwProfileIO::toJsonObject(profile);
    object.insert(QStringLiteral("uuid"), Catalog::bareUuid(profile.uuid));
    object.insert(QStringLiteral("name"), profile.getModel());
    object.insert(QStringLiteral("builtin"), HwProfileRegistry::isBuiltIn(profile));
    return object;
}

QString originText(const Stored<HwProfile> &entry)
{
    return entry.file.isEmpty() ? QStringLiteral("built in") : entry.file;
}

int list(Context &ctx)
{
    return Catalog::printList(ctx, HwProfileRegistry::profiles(), profileJson,
                              {"NAME", "FORM", "CPUS", "RAM", "SCREEN", "UUID"}, [](const HwProfile &p) {
                                  const QSize screen = p.getPrimaryResolution();
                                  return QStringList{p.getModel(), formFactorName(p.formFactor),
                                                     QString::number(p.cpuCount), sizeText(p.ramSize << 20),
                                                     QStringLiteral("%1x%2").arg(screen.width()).arg(screen.height()),
                                                     Catalog::bareUuid(p.uuid)};
                              });
}

int show(Context &ctx)
{
    Stored<HwProfile> found;
    const int code = Catalog::findOne(ctx, "profile", ctx.arg(0), HwProfileRegistry::find(ctx.arg(0)), &found);
    if (code != Success)
        return code;
    const HwProfile &p = found.value;
    return ctx.show({profileJson(p),
                     {},
                     {},
                     {QStringLiteral("name:        %1").arg(p.getModel()),
                      QStringLiteral("uuid:        %1").arg(Catalog::bareUuid(p.uuid)),
                      QStringLiteral("form factor: %1").arg(formFactorName(p.formFactor)),
                      QStringLiteral("cpus:        %1").arg(p.cpuCount),
                      QStringLiteral("ram:         %1").arg(sizeText(p.ramSize << 20)),
                      QStringLiteral("data disk:   %1").arg(sizeText(p.dataDiskSize << 20)),
                      QStringLiteral("sd card:     %1").arg(p.sdCardSize > 0 ? sizeText(p.sdCardSize << 20)
                                                                             : QStringLiteral("none")),
                      QStringLiteral("display:     %1").arg(displayText(p)),
                      QStringLiteral("file:        %1").arg(originText(found))}});
}

int create(Context &ctx)
{
    // The form factor picks the defaults the other options change.
    HwProfile probe;
    const QString form = ctx.isSet(QStringLiteral("form-factor")) ? ctx.value(QStringLiteral("form-factor"))
                                                                    : QStringLiteral("PHONE");
    QString refusal = ProfileFields::apply(QStringLiteral("form-factor"), form, &probe);
    HwProfile profile = HwProfileRegistry::newUserProfile(ctx.arg(0), probe.formFactor);
    for (const ProfileFields::Field &field : ProfileFields::all()) {
        const QString key = QString::fromLatin1(field.key);
        if (refusal.isEmpty() && ctx.isSet(key))
            refusal = ProfileFields::apply(key, ctx.value(key), &profile);
    }
    if (!refusal.isEmpty())
        return ctx.fail(Usage, QStringLiteral("--") + refusal);
    Stored<HwProfile> existing;
    bool ambiguous = false;
    if (Catalog::findProfile(ctx.arg(0), &existing, &ambiguous) || ambiguous)
        return ctx.fail(Conflict, QStringLiteral("profile '%1' already exists").arg(ctx.arg(0)));
    if (!HwProfileIO::save(profile, Paths::getUserHwProfilePath()))
        return ctx.fail(Failed, QStringLiteral("could not save profile '%1'").arg(ctx.arg(0)));
    return ctx.done(profileJson(profile),
                    QStringLiteral("created profile '%1' (%2)").arg(ctx.arg(0), Catalog::bareUuid(profile.uuid)));
}

/// The user's own profile ID names, for a command that changes it: exit 3
/// when none, 4 for a built-in profile, 2 for a file elsewhere.
int findUserProfile(Context &ctx, const QString &verb, Stored<HwProfile> *found)
{
    const int code = Catalog::findOne(ctx, "profile", ctx.arg(0), HwProfileRegistry::find(ctx.arg(0)), found);
    if (code != Success)
        return code;
    if (HwProfileRegistry::isBuiltIn(found->value))
        return ctx.fail(Conflict, QStringLiteral("profile '%1' is built in and cannot be %2; make your own with "
                                                 "'hvtool profile create NAME'")
                                      .arg(ctx.arg(0), verb));
    // An ID may be the path of any profile file: only the user's own records
    // are changed.
    if (!HwProfileRegistry::isUserRecord(*found))
        return ctx.fail(Usage, QStringLiteral("'%1' is not a user profile: it is outside '%2'")
                                   .arg(found->file, QDir(Paths::getUserHwProfilePath()).absolutePath()));
    return Success;
}

int set(Context &ctx)
{
    Stored<HwProfile> found;
    const int code = findUserProfile(ctx, QStringLiteral("changed"), &found);
    if (code != Success)
        return code;
    HwProfile &profile = found.value;
    // Every change is checked before any is saved.
    QStringList changed;
    for (const QString &item : ctx.args().mid(1)) {
        const int eq = item.indexOf(QLatin1Char('='));
        const QString refusal = eq > 0 ? ProfileFields::apply(item.left(eq), item.mid(eq + 1), &profile)
                                       : ProfileFields::unknownKey(item);
        if (!refusal.isEmpty())
            return ctx.fail(Usage, refusal);
        changed << item;
    }
    if (!HwProfileIO::save(profile, QFileInfo(found.file).absolutePath()))
        return ctx.fail(Failed, QStringLiteral("could not save profile '%1'; it is unchanged").arg(ctx.arg(0)));
    return ctx.done(profileJson(profile), QStringLiteral("changed profile '%1': %2 (devices made from it keep their own)")
                                              .arg(profile.getModel(), changed.join(QLatin1Char(' '))));
}

int remove(Context &ctx)
{
    Stored<HwProfile> found;
    const int code = findUserProfile(ctx, QStringLiteral("deleted"), &found);
    if (code != Success)
        return code;
    if (!QFile::remove(found.file))
        return ctx.fail(Failed, QStringLiteral("could not delete '%1'").arg(found.file));
    return ctx.done(QJsonObject{{"uuid", Catalog::bareUuid(found.value.uuid)}, {"name", found.value.getModel()},
                                {"deleted", true}},
                    QStringLiteral("deleted profile '%1'").arg(found.value.getModel()));
}

} // namespace

void addProfileCommands()
{
    QList<QCommandLineOption> createOptions;
    for (const ProfileFields::Field &field : ProfileFields::all())
        createOptions << QCommandLineOption(QString::fromLatin1(field.key), ProfileFields::help(field),
                                            QString::fromLatin1(field.valueName));
    commands() << Command{{"profile", "list"}, {}, "List the built-in hardware profiles and the user's.", {}, 0, 0, list}
                          .withExample("hvtool profile list")
               << Command{{"profile", "show"}, "ID", "Show one profile (ID: name, uuid or file).", {}, 1, 1, show}
                          .withExample("hvtool profile show phone")
               << Command{{"profile", "create"}, "NAME", "Create a hardware profile.", createOptions, 1, 1, create}
                          .withExample("hvtool profile create pixel --cpus 2 --ram 2048")
               << Command{{"profile", "set"},
                          "ID KEY=VALUE...",
                          QStringLiteral("Change a profile of the user's: %1. Devices made from it keep their own "
                                         "copy.")
                              .arg(ProfileFields::keys().join(QStringLiteral(", "))),
                          {},
                          2,
                          -1,
                          set}
                          .withExample("hvtool profile set pixel ram=4096")
               << Command{{"profile", "delete"}, "ID", "Delete a user profile.", {}, 1, 1, remove}
                          .withExample("hvtool profile delete pixel");
}

} // namespace hvtool
