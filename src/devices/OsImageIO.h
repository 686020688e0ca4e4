#pragma once

#include "HwProfile.h"
#include "OsImage.h"
#include "VersionNumber.h"
#include "halvistromcore_export.h"

#include <QJsonObject>
#include <QList>
#include <QString>
#include <QVariant>

/// Converts OS images to and from JSON, reads them from files, directories
/// and web-service records, and migrates records of format 1.0.0. Failures
/// are logged; loaders then return the invalid image.
class HALVISTROM_CORE_EXPORT OsImageIO
{
public:
    /// The format version that toJsonObject writes: 1.1.0.
    static const VersionNumber &currentVersion();

    /// The JSON form of image, format 1.1.0.
    static QJsonObject toJsonObject(const OsImage &image);
    /// The image described by object; the invalid image (with its warnings
    /// logged) when the object is not a supported image record. A vendor's
    /// bare file name becomes a "{{VENDOR}}/dists/<version>/ova/" address.
    static OsImage load(const QJsonObject &object);
    /// The image in the file at path, with its source set to source whatever
    /// the file says; the invalid image on failure.
    static OsImage loadFromFile(const QString &path, const HwProfile::Source &source);
    /// Every valid image of the "*.json" files in dir, as user images, in
    /// listing order. Invalid files are skipped with a warning each.
    static QList<OsImage> loadFromDirectory(const QString &dir);
    /// A record from the web service: absent "version" and "source" become
    /// "1.1.0" and "VENDOR".
    static OsImage loadFromWebService(const QVariant &record);
    /// Brings an image read with format 1.0.0 to 1.1.0, filling in its arch.
    /// text is the name of the device the image belongs to. False, with
    /// nothing changed, when the image is not at 1.0.0.
    static bool migrateV1_0ToV1_1(const QString &text, OsImage *image);
};
