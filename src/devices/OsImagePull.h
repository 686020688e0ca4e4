#pragma once

#include "Download.h"
#include "OsImage.h"
#include "OsImageRegistry.h"
#include "halvistromcore_export.h"

#include <QList>
#include <QString>
#include <QStringList>
#include <QUrl>

/// OS images from the network: the catalogue of images a server offers,
/// image records at web addresses, and the OVA of an image fetched into the
/// OVA directory and checked against its record before it is registered.
/// The settings "images.catalogue_url", "downloads.ca_file" and
/// "downloads.stall_timeout" say where and how.
class HALVISTROM_CORE_EXPORT OsImagePull
{
public:
    using Progress = Download::Progress;
    using Cancelled = Download::Cancelled;

    struct Catalogue {
        QUrl url;
        /// Its valid records, in its order.
        QList<OsImage> images;
        /// One line for each record skipped.
        QStringList warnings;
        /// Why the catalogue could not be read at all; empty when it was.
        QString error;
    };

    /// The images the catalogue offers.
    static Catalogue catalogue();
    /// The image record at url (http, https or file), as a user's image;
    /// the invalid image, *error saying why, when it cannot be read.
    static OsImage fetchRecord(const QUrl &url, QString *error);
    /// Fetches the OVA of image to image.getLocalPath(), unless it is there.
    static Download::Result download(const OsImage &image, const Progress &progress = {},
                                     const Cancelled &cancelled = {});
    /// Fetches the OVA of image, then registers the image. Nothing is
    /// registered unless the OVA arrived whole and checked; *fetched says
    /// how the download went.
    static OsImageRegistry::Registration pull(OsImage image, const OsImageRegistry::Inspector &inspect,
                                              const Progress &progress, const Cancelled &cancelled,
                                              Download::Result *fetched);
    /// Fetches the OVA at url into the OVA directory and registers it as
    /// draft describes (OsImageRegistry::addOva).
    static OsImageRegistry::Registration pullOva(const QUrl &url, OsImage draft,
                                                 const OsImageRegistry::Inspector &inspect,
                                                 const Progress &progress, const Cancelled &cancelled,
                                                 Download::Result *fetched);
    /// The download options the settings give.
    static Download::Options options();
    /// Where an OVA fetched from url goes; empty when its name there is
    /// none that can stay inside the OVA directory.
    static QString ovaPath(const QUrl &url);
};
