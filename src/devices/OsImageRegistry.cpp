#include "OsImageRegistry.h"

#include "FileUtils.h"
#include "LockFiles.h"
#include "Logging_p.h"
#include "OsImageChecksum.h"
#include "OsImageIO.h"
#include "Paths.h"
#include "VersionUtils.h"
#include "mtar.h"

#include <QCoreApplication>
#include <QDebug>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QLockFile>
#include <QUrl>
#include <QUuid>

namespace {

using Registration = OsImageRegistry::Registration;
using Outcome = Registration::Outcome;

/// Registrations take it from their last check to their write, so that two
/// at once never register one OVA twice.
const char kLockName[] = ".registry.lock";
constexpr int kLockWaitMs = 30000;

OsImage loadImage(const QString &file)
{
    return OsImageIO::loadFromFile(file, HwProfile::Source::USER);
}

Registration refused(Outcome outcome, const QString &reason)
{
    qCInfo(hvDevicesLog) << "Not registering the OS image:" << reason;
    return {outcome, reason, {}};
}

/// The OVA's checksum, from its content: computed now, or kept for the
/// unchanged file when it was computed before (as a download wrote it).
QString hash(const QString &path, const OsImageRegistry::Progress &progress, QString *error)
{
    const qint64 total = QFileInfo(path).size();
    return OsImageChecksum::get(
        path, [&](qint64 done) { if (progress) progress(path, done, total); }, error);
}

/// Whether the image's uuid is taken, or its OVA registered already (the
/// refusal then in *refusal). Records may name one archive as images of
/// several Android versions (versions and checksum name the reference
/// disks, so those never share them); anyVersion refuses those too.
bool isTaken(const QString &path, const OsImage &image, bool anyVersion, bool checkOva, Registration *refusal)
{
    for (const OsImageRegistry::Entry &existing : OsImageRegistry::images()) {
        const OsImage &other = existing.value;
        if (RecordDirectory::bareUuid(other.uuid) == RecordDirectory::bareUuid(image.uuid)) {
            *refusal = refused(Outcome::AlreadyRegistered, QStringLiteral("image '%1' is already registered")
                                                               .arg(RecordDirectory::bareUuid(image.uuid)));
            return true;
        }
        if (checkOva && other.imageHash.compare(image.imageHash, Qt::CaseInsensitive) == 0
            && (anyVersion || (other.imageVersion == image.imageVersion && other.osVersion == image.osVersion))) {
            *refusal = refused(Outcome::AlreadyRegistered,
                               QStringLiteral("'%1' is already registered as image '%2' (%3, record '%4')")
                                   .arg(path, other.name, RecordDirectory::bareUuid(other.uuid), existing.file));
            return true;
        }
    }
    return false;
}

/// Writes the record whole, unless a registration that ran meanwhile took
/// its uuid or its OVA.
Registration store(const QString &path, const OsImage &image, bool anyVersion)
{
    const QString dir = Paths::getUserOsImagePath();
    const QString file = QDir(dir).absoluteFilePath(RecordDirectory::bareUuid(image.uuid) + ".json");
    const QString lockPath = QDir(dir).filePath(QLatin1String(kLockName));
    QLockFile lock(lockPath);
    if (!FileUtils::makeDirectory(dir) || !LockFiles::acquire(lock, lockPath, kLockWaitMs))
        return refused(Outcome::Refused, QStringLiteral("could not lock the image records in '%1'").arg(dir));
    Registration refusal;
    if (isTaken(path, image, anyVersion, true, &refusal))
        return refusal;
    if (!FileUtils::saveFile(file, QJsonDocument(OsImageIO::toJsonObject(image)).toJson()))
        return refused(Outcome::Refused, QStringLiteral("could not write '%1'").arg(file));
    qCDebug(hvDevicesLog) << "Registered the OS image" << image.name << "as" << file;
    return {Outcome::Registered, QString(), {image, file}};
}

/// Refuses a record whose OVA is here but whose declared checksum is not
/// that of the OVA's content; the checksum computed replaces the declared one.
QString checkDeclaredChecksum(const QString &path, OsImage *image, const OsImageRegistry::Progress &progress)
{
    QString error;
    const QString checksum = hash(image->getLocalPath(), progress, &error);
    if (checksum.isEmpty())
        return QStringLiteral("could not read '%1': %2").arg(image->getLocalPath(), error);
    if (image->imageHash.compare(checksum, Qt::CaseInsensitive) != 0)
        return QStringLiteral("'%1' declares sha-256 %2 but its OVA '%3' has sha-256 %4; nothing was registered")
            .arg(path, image->imageHash, image->getLocalPath(), checksum);
    image->imageHash = checksum;
    return QString();
}

/// Why the OVA must not become an image: not an archive of reference disks,
/// or refused by the inspection.
QString checkContent(const QString &ovaPath, const OsImageRegistry::Inspector &inspect)
{
    const QString problem = OsImageRegistry::checkOva(ovaPath);
    return problem.isEmpty() && inspect ? inspect(ovaPath) : problem;
}

/// The image the OVA at path is, as draft describes it.
OsImage describeOva(const QFileInfo &info, const OsImage &draft)
{
    OsImage image;
    image.uuid = QUuid::createUuid().toString();
    image.name = draft.name.isEmpty() ? QStringLiteral("Android %1").arg(draft.osVersion.toMajorMinorString())
                                      : draft.name;
    image.buildDate = info.lastModified().toUTC();
    image.source = HwProfile::Source::USER;
    image.supportedFormFactors = {HwProfile::FormFactor::PHONE, HwProfile::FormFactor::TABLET};
    image.osVersion = draft.osVersion;
    image.imageVersion = VersionNumber::fromString(QCoreApplication::applicationVersion());
    // The default follows the Android version as record migration does.
    image.arch = !draft.arch.isEmpty() ? draft.arch
                                       : (draft.osVersion >= VersionNumber(11, 0, 0) ? QStringLiteral("x86_64")
                                                                                     : QStringLiteral("x86"));
    image.imageUri = draft.imageUri.isEmpty() ? QUrl::fromLocalFile(info.absoluteFilePath()).toString() : draft.imageUri;
    image.imageSizeBytes = info.size();
    image.sdkVersion = VersionUtils::androidVersionToApi(draft.osVersion);
    image.version = OsImageIO::currentVersion();
    return image;
}

} // namespace

QList<OsImageRegistry::Entry> OsImageRegistry::images()
{
    return RecordDirectory::read<OsImage>(Paths::getUserOsImagePath(), loadImage);
}

QList<OsImageRegistry::Entry> OsImageRegistry::find(const QString &id)
{
    return RecordDirectory::find(
        images(), id, [](const OsImage &i, const QString &name) { return i.name == name; }, loadImage);
}

bool OsImageRegistry::isUserRecord(const Entry &entry)
{
    return RecordDirectory::isDirectlyInside(entry.file, Paths::getUserOsImagePath());
}

QString OsImageRegistry::checkOva(const QString &path)
{
    mtar_t tar;
    const int opened = mtar_open(&tar, QFile::encodeName(path).constData(), "r");
    if (opened != MTAR_ESUCCESS)
        return QStringLiteral("'%1' is not an OVA archive: %2").arg(path, QString::fromUtf8(mtar_strerror(opened)));
    QString problem;
    for (const QString &disk : OsImage::ovaDiskNames()) {
        mtar_header_t header;
        if (mtar_find(&tar, QFile::encodeName(disk).constData(), &header) != MTAR_ESUCCESS) {
            problem = QStringLiteral("'%1' is not an OVA archive of a device image: it has no %2").arg(path, disk);
            break;
        }
    }
    mtar_close(&tar);
    return problem;
}

Registration OsImageRegistry::addRecord(const QString &path, const Inspector &inspect, const Progress &progress)
{
    return addImage(loadImage(path), path, inspect, progress);
}

Registration OsImageRegistry::addImage(OsImage image, const QString &path, const Inspector &inspect,
                                       const Progress &progress)
{
    if (!image.isValid())
        return refused(Outcome::Refused, QStringLiteral("'%1' is not a valid OS image record").arg(path));
    // The uuid names the stored record: one holding a path would write
    // outside the records directory (or over a hardware profile).
    if (!RecordDirectory::isFileName(image.uuid, Paths::getUserOsImagePath()))
        return refused(Outcome::Refused,
                       QStringLiteral("'%1' is not a valid OS image record: its uuid '%2' is not a file name")
                           .arg(path, image.uuid));
    Registration refusal;
    if (isTaken(path, image, false, false, &refusal))
        return refusal;
    // An OVA already on this machine is checked now; one still to be
    // downloaded is inspected before its disks are converted.
    const bool local = image.isImageAvailableLocally();
    const QString mismatch = local ? checkDeclaredChecksum(path, &image, progress) : QString();
    if (!mismatch.isEmpty())
        return refused(Outcome::Refused, mismatch);
    if (isTaken(path, image, false, true, &refusal))
        return refusal;
    const QString problem = local ? checkContent(image.getLocalPath(), inspect) : QString();
    if (!problem.isEmpty())
        return refused(Outcome::Refused, problem);
    return store(path, image, false);
}

Registration OsImageRegistry::addOva(const QString &path, const OsImage &draft, const Inspector &inspect,
                                     const Progress &progress)
{
    const QString problem = checkContent(path, inspect);
    if (!problem.isEmpty())
        return refused(Outcome::Refused, problem);
    OsImage image = describeOva(QFileInfo(path), draft);
    QString error;
    image.imageHash = hash(image.getLocalPath(), progress, &error);
    if (image.imageHash.isEmpty())
        return refused(Outcome::Refused, QStringLiteral("could not read '%1': %2").arg(path, error));
    return store(path, image, true);
}
