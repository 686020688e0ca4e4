#include "OsImagePull.h"

#include "Logging_p.h"
#include "OsImageChecksum.h"
#include "OsImageIO.h"
#include "Paths.h"
#include "Settings.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

using Registration = OsImageRegistry::Registration;

constexpr qint64 kMaxCatalogueBytes = 16 << 20;
constexpr qint64 kMaxRecordBytes = 1 << 20;

Download::Result failed(const QString &error)
{
    Download::Result result;
    result.error = error;
    qCInfo(hvDevicesLog).noquote() << "Not downloading:" << error;
    return result;
}

Registration notRegistered(const Download::Result &fetched)
{
    return {Registration::Outcome::Refused, fetched.error, {}};
}

/// Registers what was fetched; a registration that fails takes the OVA it
/// fetched with it.
Registration registerFetched(const Registration &registration, const QString &ova, const Download::Result &fetched)
{
    if (registration.outcome != Registration::Outcome::Registered && !fetched.alreadyThere) {
        qCInfo(hvDevicesLog) << "Removing" << ova << "which was fetched for an image that was not registered";
        QFile::remove(ova);
    }
    return registration;
}

} // namespace

Download::Options OsImagePull::options()
{
    Download::Options options;
    options.caFile = Settings::get(QStringLiteral("downloads.ca_file")).toString();
    options.tlsHint = QStringLiteral("; a private mirror's certificate authority can be named in the setting "
                                     "downloads.ca_file");
    options.stallTimeoutMs = qMax(1, Settings::get(QStringLiteral("downloads.stall_timeout")).toInt()) * 1000;
    return options;
}

QString OsImagePull::ovaPath(const QUrl &url)
{
    const QString name = url.fileName();
    const QDir ovaDir(Paths::getOvaPath());
    const QString path = ovaDir.absoluteFilePath(name);
    // Neither a name that climbs out ("..") nor none at all (an address
    // ending in "/"), nor a hidden one that passes for the system's own files.
    if (name.isEmpty() || name.startsWith(QLatin1Char('.')) || QFileInfo(path).absolutePath() != ovaDir.absolutePath())
        return QString();
    return path;
}

OsImagePull::Catalogue OsImagePull::catalogue()
{
    Catalogue result;
    result.url = QUrl(OsImage::formatUri(Settings::get(QStringLiteral("images.catalogue_url")).toString()));
    const QByteArray content = Download::fetch(result.url, kMaxCatalogueBytes, options(), &result.error);
    if (!result.error.isEmpty())
        return result;
    QJsonParseError parse;
    const QJsonDocument document = QJsonDocument::fromJson(content, &parse);
    if (parse.error != QJsonParseError::NoError || !document.isArray()) {
        result.error = QStringLiteral("the catalogue at '%1' is not a JSON array of image records%2")
                           .arg(result.url.toString(), parse.error != QJsonParseError::NoError
                                                           ? QStringLiteral(": ") + parse.errorString()
                                                           : QString());
        return result;
    }
    const QJsonArray records = document.array();
    for (int i = 0; i < records.size(); ++i) {
        const OsImage image = OsImageIO::loadFromWebService(records.at(i).toVariant());
        if (image.isValid())
            result.images << image;
        else
            result.warnings
                << QStringLiteral("skipped record %1 of the catalogue (%2): it is not a valid OS image record")
                       .arg(i + 1)
                       .arg(records.at(i).toObject().value(QStringLiteral("name")).toString(QStringLiteral("no name")));
    }
    return result;
}

OsImage OsImagePull::fetchRecord(const QUrl &url, QString *error)
{
    const QByteArray content = Download::fetch(url, kMaxRecordBytes, options(), error);
    if (!error->isEmpty())
        return OsImage();
    const QJsonDocument document = QJsonDocument::fromJson(content);
    OsImage image = document.isObject() ? OsImageIO::loadFromWebService(document.object().toVariantMap()) : OsImage();
    if (!image.isValid()) {
        *error = QStringLiteral("'%1' is not a valid OS image record").arg(url.toString());
        return OsImage();
    }
    image.source = HwProfile::Source::USER;
    return image;
}

Download::Result OsImagePull::download(const OsImage &image, const Progress &progress, const Cancelled &cancelled)
{
    const QUrl url(image.getFormatedUri());
    if (url.isLocalFile()) {
        if (!image.isImageAvailableLocally())
            return failed(QStringLiteral("the OVA of image '%1' is the local file '%2', which does not exist")
                              .arg(image.name, image.getLocalPath()));
        Download::Result there;
        there.outcome = Download::Result::Outcome::Done;
        there.alreadyThere = true;
        return there;
    }
    if (url.scheme() != QLatin1String("http") && url.scheme() != QLatin1String("https"))
        return failed(QStringLiteral("the address '%1' of image '%2' is neither a file nor an http(s) address")
                          .arg(url.toString(), image.name));
    const QString target = ovaPath(url);
    if (target.isEmpty() || target != image.getLocalPath())
        return failed(QStringLiteral("the address '%1' of image '%2' names no file that can go in '%3'")
                          .arg(url.toString(), image.name, Paths::getOvaPath()));
    const Download::Result result =
        Download::fetchFile({url, target, image.imageSizeBytes, image.imageHash}, options(), progress, cancelled);
    if (result.outcome == Download::Result::Outcome::Done && !result.alreadyThere)
        OsImageChecksum::keep(target, result.sha256);
    return result;
}

Registration OsImagePull::pull(OsImage image, const OsImageRegistry::Inspector &inspect, const Progress &progress,
                               const Cancelled &cancelled, Download::Result *fetched)
{
    *fetched = download(image, progress, cancelled);
    if (fetched->outcome != Download::Result::Outcome::Done)
        return notRegistered(*fetched);
    image.source = HwProfile::Source::USER;
    return registerFetched(OsImageRegistry::addImage(image, image.getFormatedUri(), inspect), image.getLocalPath(),
                           *fetched);
}

Registration OsImagePull::pullOva(const QUrl &url, OsImage draft, const OsImageRegistry::Inspector &inspect,
                                  const Progress &progress, const Cancelled &cancelled, Download::Result *fetched)
{
    const QString target = ovaPath(url);
    if (target.isEmpty())
        *fetched = failed(QStringLiteral("the address '%1' names no file that can go in '%2'")
                              .arg(url.toString(), Paths::getOvaPath()));
    else if (QFileInfo::exists(target))
        *fetched = failed(QStringLiteral("'%1' is already in the OVA directory: register that file instead")
                              .arg(target));
    else
        *fetched = Download::fetchFile({url, target, -1, QString()}, options(), progress, cancelled);
    if (fetched->outcome != Download::Result::Outcome::Done)
        return notRegistered(*fetched);
    OsImageChecksum::keep(target, fetched->sha256);
    draft.imageUri = url.toString();
    return registerFetched(OsImageRegistry::addOva(target, draft, inspect), target, *fetched);
}
