// hvtool image: the user's OS images.
#include "Catalog.h"
#include "Command.h"
#include "Engine.h"
#include "Progress.h"
#include "PullCommands.h"

#include "OsImageIO.h"
#include "OsImageRegistry.h"
#include "Paths.h"
#include "VMToolsEngine.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>

#include <memory>

namespace hvtool {
namespace {

int list(Context &ctx)
{
    return Catalog::printList(ctx, OsImageRegistry::images(), OsImageIO::toJsonObject,
                              {"UUID", "NAME", "ANDROID", "API", "ARCH", "SIZE", "LOCAL"}, [](const OsImage &i) {
                                  return QStringList{Catalog::bareUuid(i.uuid), i.name, i.osVersion.toString(),
                                                     QString::number(i.sdkVersion), i.arch, sizeText(i.imageSizeBytes),
                                                     i.isImageAvailableLocally() ? QStringLiteral("yes")
                                                                                 : QStringLiteral("no")};
                              });
}

int show(Context &ctx)
{
    Stored<OsImage> found;
    int code = Catalog::findOne(ctx, "image", ctx.arg(0), OsImageRegistry::find(ctx.arg(0)), &found);
    if (code != Success)
        return code;
    const OsImage &i = found.value;
    return ctx.show(
        {OsImageIO::toJsonObject(i),
         {},
         {},
         {QStringLiteral("uuid:     %1").arg(Catalog::bareUuid(i.uuid)), QStringLiteral("name:     %1").arg(i.name),
          QStringLiteral("android:  %1 (API %2)").arg(i.osVersion.toString()).arg(i.sdkVersion),
          QStringLiteral("arch:     %1").arg(i.arch), QStringLiteral("image:    %1").arg(i.imageVersion.toString()),
          QStringLiteral("size:     %1 (%2 bytes)").arg(sizeText(i.imageSizeBytes)).arg(i.imageSizeBytes),
          QStringLiteral("sha256:   %1").arg(i.imageHash), QStringLiteral("uri:      %1").arg(i.getFormatedUri()),
          QStringLiteral("local:    %1").arg(i.getLocalPath()), QStringLiteral("record:   %1").arg(found.file)}});
}

/// Draws the hashing of an OVA once it has begun.
OsImageRegistry::Progress hashProgress(std::unique_ptr<Progress> *bar)
{
    return [bar](const QString &file, qint64 done, qint64 total) {
        if (!*bar)
            bar->reset(new Progress(QStringLiteral("hashing %1").arg(QFileInfo(file).fileName()), total));
        (*bar)->update(done);
        if (done >= total)
            (*bar)->finish();
    };
}

/// Prints what was registered, or why not.
int report(Context &ctx, const OsImageRegistry::Registration &registration)
{
    using Outcome = OsImageRegistry::Registration::Outcome;
    if (registration.outcome != Outcome::Registered)
        return ctx.fail(registration.outcome == Outcome::AlreadyRegistered ? Conflict : Failed, registration.reason);
    const OsImage &image = registration.entry.value;
    return ctx.done(OsImageIO::toJsonObject(image),
                    QStringLiteral("added image '%1' (%2)").arg(image.name, Catalog::bareUuid(image.uuid)));
}

/// The image an OVA is, as the options describe it.
int describeOva(Context &ctx, OsImage *draft)
{
    if (!ctx.isSet(QStringLiteral("android")))
        return ctx.fail(Usage, QStringLiteral("an OVA needs --android VERSION, for example --android 11.0"));
    draft->osVersion = VersionNumber::fromString(ctx.value(QStringLiteral("android")));
    if (draft->osVersion.major < 2)
        return ctx.fail(Usage,
                        QStringLiteral("'%1' is not an Android version").arg(ctx.value(QStringLiteral("android"))));
    draft->name = ctx.value(QStringLiteral("name"));
    draft->arch = ctx.value(QStringLiteral("arch"));
    return Success;
}

int add(Context &ctx)
{
    if (isWebAddress(ctx.arg(0)))
        return addFromUrl(ctx, describeOva);
    const QFileInfo info(ctx.arg(0));
    if (!info.isFile())
        return ctx.fail(NotFound, QStringLiteral("file '%1' does not exist").arg(ctx.arg(0)));
    const bool record = info.suffix().compare(QLatin1String("json"), Qt::CaseInsensitive) == 0;
    OsImage draft;
    int code = record ? Success : describeOva(ctx, &draft);
    if (code != Success)
        return code;
    // The engine is needed only when there is an OVA here to look into.
    const auto inspect = [&](const QString &ova) {
        VMToolsEngine *e = engine(ctx, &code);
        return e ? e->inspectOsImage(ova) : QStringLiteral("the engine cannot be used");
    };
    std::unique_ptr<Progress> bar;
    const OsImageRegistry::Registration registration =
        record ? OsImageRegistry::addRecord(info.absoluteFilePath(), inspect, hashProgress(&bar))
               : OsImageRegistry::addOva(info.absoluteFilePath(), draft, inspect, hashProgress(&bar));
    return code != Success ? code : report(ctx, registration);
}

int remove(Context &ctx)
{
    Stored<OsImage> found;
    int code = Catalog::findOne(ctx, "image", ctx.arg(0), OsImageRegistry::find(ctx.arg(0)), &found);
    if (code != Success)
        return code;
    if (!OsImageRegistry::isUserRecord(found))
        return ctx.fail(Usage, QStringLiteral("'%1' is not a registered image record: it is outside '%2'")
                                   .arg(found.file, QDir(Paths::getUserOsImagePath()).absolutePath()));
    // The image owns its reference disks: they go with it, but never from
    // under a device made from them.
    VMToolsEngine *e = engine(ctx, &code);
    if (!e)
        return code;
    QStringList users;
    bool creating = false;
    if (!e->removeReferenceDisks(found.value, &users, &creating)) {
        if (creating)
            return ctx.fail(Conflict, QStringLiteral("image '%1' is in use by a device creation under way; try again "
                                                     "when it has ended")
                                          .arg(found.value.name));
        if (!users.isEmpty())
            return ctx.fail(Conflict, QStringLiteral("image '%1' is used by device(s) %2; delete them first")
                                          .arg(found.value.name, QLatin1Char('\'') + users.join(QStringLiteral("', '"))
                                                                     + QLatin1Char('\'')));
        return ctx.fail(Failed, QStringLiteral("could not remove the reference disks of image '%1'").arg(found.value.name));
    }
    if (!QFile::remove(found.file))
        return ctx.fail(Failed, QStringLiteral("could not delete '%1'").arg(found.file));
    return ctx.done(QJsonObject{{"uuid", Catalog::bareUuid(found.value.uuid)}, {"name", found.value.name},
                                {"removed", true}},
                    QStringLiteral("removed image '%1' and its reference disks").arg(found.value.name));
}

} // namespace

void addImageCommands()
{
    const QList<QCommandLineOption> addOptions = {
        {"android", "Android version of an OVA, e.g. 11.0 (required for an OVA).", "VERSION"},
        {"arch", "Architecture of an OVA: x86 or x86_64 (by Android version).", "ARCH"},
        {"name", "Display name of an OVA (\"Android <version>\").", "NAME"},
    };
    commands() << Command{{"image", "add"}, "FILE|URL",
                          "Register an OS image: a record (.json) or an OVA archive (.ova, with --android), a file "
                          "or at an http(s) address (its OVA is then downloaded).",
                          addOptions, 1, 1, add}
                          .withExample("hvtool image add android-11.ova --android 11.0")
               << Command{{"image", "list"}, {}, "List the registered OS images.", {}, 0, 0, list}
                          .withExample("hvtool image list")
               << Command{{"image", "show"}, "ID", "Show one image (ID: uuid, name or file).", {}, 1, 1, show}
                          .withExample("hvtool image show \"Android 11.0\"")
               << Command{{"image", "remove"}, "ID",
                          "Forget a registered image and remove its reference disks (the OVA stays); refused while "
                          "devices use it.",
                          {}, 1, 1, remove}
                          .withExample("hvtool image remove \"Android 11.0\"");
}

} // namespace hvtool
