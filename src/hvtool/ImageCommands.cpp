// hvtool image: the user's OS images.
#include "Catalog.h"
#include "Command.h"
#include "Engine.h"
#include "Progress.h"

#include "Archive.h"
#include "FileUtils.h"
#include "HalvistromAppUtils.h"
#include "OsImageChecksum.h"
#include "OsImageIO.h"
#include "Paths.h"
#include "QEMUEngine.h"
#include "VersionUtils.h"
#include "mtar.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QUrl>
#include <QUuid>

namespace hvtool {
namespace {

const char *const kRequiredDisks[] = {"system.vmdk", "data.vmdk"};

int notFound(Context &ctx, const QString &id, bool ambiguous)
{
    if (ambiguous)
        return ctx.fail(Usage, QStringLiteral("image name '%1' is ambiguous; use its uuid").arg(id));
    return ctx.fail(NotFound, QStringLiteral("image '%1' does not exist").arg(id));
}

QString sizeText(qint64 bytes)
{
    if (bytes >= (qint64(1) << 30))
        return QString::number(double(bytes) / (1 << 30), 'f', 1) + QStringLiteral(" GiB");
    return QString::number(double(bytes) / (1 << 20), 'f', 1) + QStringLiteral(" MiB");
}

int list(Context &ctx)
{
    const auto images = Catalog::images();
    if (ctx.json()) {
        QJsonArray array;
        for (const auto &entry : images)
            array.append(OsImageIO::toJsonObject(entry.value));
        ctx.printJson(array);
        return Success;
    }
    QList<QStringList> rows;
    for (const auto &entry : images) {
        const OsImage &i = entry.value;
        rows << QStringList{Catalog::bareUuid(i.uuid), i.name, i.osVersion.toString(), QString::number(i.sdkVersion),
                            i.arch, sizeText(i.imageSizeBytes),
                            i.isImageAvailableLocally() ? QStringLiteral("yes") : QStringLiteral("no")};
    }
    ctx.printTable({"UUID", "NAME", "ANDROID", "API", "ARCH", "SIZE", "LOCAL"}, rows);
    return Success;
}

int show(Context &ctx)
{
    Stored<OsImage> found;
    bool ambiguous = false;
    if (!Catalog::findImage(ctx.arg(0), &found, &ambiguous))
        return notFound(ctx, ctx.arg(0), ambiguous);
    const OsImage &i = found.value;
    if (ctx.json()) {
        ctx.printJson(OsImageIO::toJsonObject(i));
        return Success;
    }
    ctx.print(QStringLiteral("uuid:     %1").arg(Catalog::bareUuid(i.uuid)));
    ctx.print(QStringLiteral("name:     %1").arg(i.name));
    ctx.print(QStringLiteral("android:  %1 (API %2)").arg(i.osVersion.toString()).arg(i.sdkVersion));
    ctx.print(QStringLiteral("arch:     %1").arg(i.arch));
    ctx.print(QStringLiteral("image:    %1").arg(i.imageVersion.toString()));
    ctx.print(QStringLiteral("size:     %1 (%2 bytes)").arg(sizeText(i.imageSizeBytes)).arg(i.imageSizeBytes));
    ctx.print(QStringLiteral("sha256:   %1").arg(i.imageHash));
    ctx.print(QStringLiteral("uri:      %1").arg(i.getFormatedUri()));
    ctx.print(QStringLiteral("local:    %1").arg(i.getLocalPath()));
    ctx.print(QStringLiteral("record:   %1").arg(found.file));
    return Success;
}

/// Checks that the file is a tar archive holding the reference disks; the
/// error names what is missing.
QString checkOva(const QString &path)
{
    mtar_t tar;
    const int opened = mtar_open(&tar, QFile::encodeName(path).constData(), "r");
    if (opened != MTAR_ESUCCESS)
        return QStringLiteral("'%1' is not an OVA archive: %2").arg(path, QString::fromUtf8(mtar_strerror(opened)));
    QString problem;
    for (const char *disk : kRequiredDisks) {
        mtar_header_t header;
        if (mtar_find(&tar, disk, &header) != MTAR_ESUCCESS) {
            problem = QStringLiteral("'%1' is not an OVA archive of a device image: it has no %2")
                          .arg(path, QString::fromLatin1(disk));
            break;
        }
    }
    mtar_close(&tar);
    return problem;
}

/// Unpacks the OVA into a private temporary directory and lets the engine
/// inspect each reference disk, so that a disk naming a host file (a
/// backing file, a foreign extent) or holding another format is refused
/// before anything reaches the system-image directory. Returns the refusal,
/// naming the disk, or an empty string; *code is set when the engine cannot
/// be used.
QString inspectOva(Context &ctx, const QString &path, int *code)
{
    QEMUEngine *e = qemu(engine(ctx, code));
    if (!e)
        return QStringLiteral("QEMU cannot be used");
    QTemporaryDir scratch(QDir(Paths::getTemporaryDirPath()).filePath(QStringLiteral("inspect-XXXXXX")));
    if (!scratch.isValid())
        return QStringLiteral("could not make a temporary directory: %1").arg(scratch.errorString());
    const Archive::Result untarred = Archive::untar(path, scratch.path());
    if (!Archive::isOk(untarred))
        return QStringLiteral("'%1' could not be unpacked (error %2)").arg(path).arg(int(untarred));
    for (const char *disk : kRequiredDisks) {
        const QString reason = e->inspectDisk(scratch.filePath(QLatin1String(disk)), QStringLiteral("vmdk"));
        if (!reason.isEmpty())
            return QStringLiteral("'%1' is refused: %2").arg(path, QString(reason).replace(scratch.path() + '/', QString()));
    }
    return QString();
}

/// The OVA's sha-256, computed now from its content with the progress shown.
QString hashOva(const QString &path, QString *error)
{
    Progress progress(QStringLiteral("hashing %1").arg(QFileInfo(path).fileName()), QFileInfo(path).size());
    const QString checksum = OsImageChecksum::compute(path, [&](qint64 done) { progress.update(done); }, error);
    progress.finish();
    return checksum;
}

/// An OVA is registered once. Records may name one archive as images of
/// several Android versions (versions and checksum name the reference
/// disks, so those never share them); anyVersion refuses those too.
int refuseRegistered(Context &ctx, const QString &path, const OsImage &image, bool anyVersion)
{
    for (const Stored<OsImage> &existing : Catalog::images()) {
        if (existing.value.imageHash.compare(image.imageHash, Qt::CaseInsensitive) == 0
            && (anyVersion
                || (existing.value.imageVersion == image.imageVersion && existing.value.osVersion == image.osVersion)))
            return ctx.fail(Conflict, QStringLiteral("'%1' is already registered as image '%2' (%3, record '%4')")
                                          .arg(path, existing.value.name, Catalog::bareUuid(existing.value.uuid),
                                               existing.file));
    }
    return Success;
}

/// Refuses a record whose OVA is here but whose declared checksum is not
/// that of the OVA's content, or one for an OVA already registered.
int checkRecordOva(Context &ctx, const QString &path, OsImage *image)
{
    if (!image->isImageAvailableLocally())
        return refuseRegistered(ctx, path, *image, false);
    QString error;
    const QString checksum = hashOva(image->getLocalPath(), &error);
    if (checksum.isEmpty())
        return ctx.fail(Failed, QStringLiteral("could not read '%1': %2").arg(image->getLocalPath(), error));
    if (image->imageHash.compare(checksum, Qt::CaseInsensitive) != 0)
        return ctx.fail(Failed, QStringLiteral("'%1' declares sha-256 %2 but its OVA '%3' has sha-256 %4; nothing was "
                                               "registered")
                                    .arg(path, image->imageHash, image->getLocalPath(), checksum));
    image->imageHash = checksum;
    return refuseRegistered(ctx, path, *image, false);
}

bool saveRecord(const OsImage &image, QString *file)
{
    FileUtils::makeDirectory(Paths::getUserOsImagePath());
    *file = QDir(Paths::getUserOsImagePath()).absoluteFilePath(Catalog::bareUuid(image.uuid) + ".json");
    return FileUtils::saveFile(*file, QJsonDocument(OsImageIO::toJsonObject(image)).toJson());
}

/// Stores the record among the user's images and prints what was registered.
int registerImage(Context &ctx, const OsImage &image)
{
    QString file;
    if (!saveRecord(image, &file))
        return ctx.fail(Failed, QStringLiteral("could not write '%1'").arg(file));
    if (ctx.json())
        ctx.printJson(OsImageIO::toJsonObject(image));
    else
        ctx.print(Catalog::bareUuid(image.uuid));
    return Success;
}

int addRecord(Context &ctx, const QString &path)
{
    OsImage image = OsImageIO::loadFromFile(path, HwProfile::Source::USER);
    if (!image.isValid())
        return ctx.fail(Failed, QStringLiteral("'%1' is not a valid OS image record").arg(path));
    // The uuid names the stored record: one holding a path would write
    // outside the records directory (or over a hardware profile).
    const QString uuid = Catalog::bareUuid(image.uuid);
    if (uuid.isEmpty() || uuid.contains(QLatin1Char('/')) || uuid.contains(QLatin1Char('\\')) || uuid.contains(QChar(0))
        || !Catalog::isDirectlyInside(QDir(Paths::getUserOsImagePath()).filePath(uuid + ".json"),
                                      Paths::getUserOsImagePath()))
        return ctx.fail(Failed, QStringLiteral("'%1' is not a valid OS image record: its uuid '%2' is not a file name")
                                    .arg(path, image.uuid));
    Stored<OsImage> existing;
    if (Catalog::findImage(image.uuid, &existing))
        return ctx.fail(Conflict, QStringLiteral("image '%1' is already registered").arg(Catalog::bareUuid(image.uuid)));
    const int refused = checkRecordOva(ctx, path, &image);
    if (refused != Success)
        return refused;
    // An OVA already on this machine is inspected now; one still to be
    // downloaded is inspected before its disks are converted.
    if (image.isImageAvailableLocally()) {
        int code = Success;
        const QString problem = inspectOva(ctx, image.getLocalPath(), &code);
        if (code != Success)
            return code;
        if (!problem.isEmpty())
            return ctx.fail(Failed, problem);
    }
    return registerImage(ctx, image);
}

int addOva(Context &ctx, const QString &path)
{
    if (!ctx.isSet(QStringLiteral("android")))
        return ctx.fail(Usage, QStringLiteral("an OVA needs --android VERSION, for example --android 11.0"));
    const VersionNumber android = VersionNumber::fromString(ctx.value(QStringLiteral("android")));
    if (android.major < 2)
        return ctx.fail(Usage,
                        QStringLiteral("'%1' is not an Android version").arg(ctx.value(QStringLiteral("android"))));

    QString problem = checkOva(path);
    if (!problem.isEmpty())
        return ctx.fail(Failed, problem);
    int code = Success;
    problem = inspectOva(ctx, path, &code);
    if (code != Success)
        return code;
    if (!problem.isEmpty())
        return ctx.fail(Failed, problem);

    const QFileInfo info(path);
    OsImage image;
    image.uuid = QUuid::createUuid().toString();
    image.name = ctx.isSet(QStringLiteral("name")) ? ctx.value(QStringLiteral("name"))
                                                   : QStringLiteral("Android %1").arg(android.toMajorMinorString());
    image.buildDate = info.lastModified().toUTC();
    image.source = HwProfile::Source::USER;
    image.supportedFormFactors = {HwProfile::FormFactor::PHONE, HwProfile::FormFactor::TABLET};
    image.osVersion = android;
    image.imageVersion = VersionNumber::fromString(QCoreApplication::applicationVersion());
    // Without --arch, the default follows the Android version as record
    // migration does: x86_64 from Android 11 on.
    image.arch = ctx.isSet(QStringLiteral("arch")) ? ctx.value(QStringLiteral("arch"))
                                                    : (android >= VersionNumber(11, 0, 0) ? QStringLiteral("x86_64")
                                                                                          : QStringLiteral("x86"));
    image.imageUri = QUrl::fromLocalFile(info.absoluteFilePath()).toString();
    image.imageSizeBytes = info.size();
    image.sdkVersion = VersionUtils::androidVersionToApi(android);
    image.version = OsImageIO::currentVersion();

    QString error;
    image.imageHash = hashOva(info.absoluteFilePath(), &error);
    if (image.imageHash.isEmpty())
        return ctx.fail(Failed, QStringLiteral("could not read '%1': %2").arg(path, error));
    const int refused = refuseRegistered(ctx, path, image, true);
    return refused != Success ? refused : registerImage(ctx, image);
}

int add(Context &ctx)
{
    const QString path = ctx.arg(0);
    const QFileInfo info(path);
    if (!info.isFile())
        return ctx.fail(NotFound, QStringLiteral("file '%1' does not exist").arg(path));
    if (info.suffix().compare(QLatin1String("json"), Qt::CaseInsensitive) == 0)
        return addRecord(ctx, info.absoluteFilePath());
    return addOva(ctx, info.absoluteFilePath());
}

int remove(Context &ctx)
{
    Stored<OsImage> found;
    bool ambiguous = false;
    if (!Catalog::findImage(ctx.arg(0), &found, &ambiguous))
        return notFound(ctx, ctx.arg(0), ambiguous);
    if (!Catalog::isDirectlyInside(found.file, Paths::getUserOsImagePath()))
        return ctx.fail(Usage, QStringLiteral("'%1' is not a registered image record: it is outside '%2'")
                                   .arg(found.file, QDir(Paths::getUserOsImagePath()).absolutePath()));
    // The image owns its reference disks: they go with it, but never from
    // under a device made from them.
    int code = Success;
    QEMUEngine *e = qemu(engine(ctx, &code));
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
    ctx.print(QStringLiteral("removed image '%1' and its reference disks").arg(found.value.name));
    return Success;
}

} // namespace

void addImageCommands()
{
    const QList<QCommandLineOption> addOptions = {
        {"android", "Android version of an OVA, e.g. 11.0 (required for an OVA).", "VERSION"},
        {"arch", "Architecture of an OVA: x86 or x86_64 (by Android version).", "ARCH"},
        {"name", "Display name of an OVA (\"Android <version>\").", "NAME"},
    };
    commands() << Command{{"image", "add"}, "FILE",
                          "Register an OS image: a record (.json) or an OVA archive (.ova, with --android).",
                          addOptions, 1, 1, add}
               << Command{{"image", "list"}, {}, "List the registered OS images.", {}, 0, 0, list}
               << Command{{"image", "show"}, "ID", "Show one image (ID: uuid, name or file).", {}, 1, 1, show}
               << Command{{"image", "remove"}, "ID", "Forget a registered image and remove its reference disks (the OVA stays); refused while devices use it.", {}, 1, 1, remove};
}

} // namespace hvtool
