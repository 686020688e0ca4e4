#pragma once

#include "HwProfile.h"
#include "VersionNumber.h"
#include "halvistromcore_export.h"

#include <QDateTime>
#include <QMetaType>
#include <QSet>
#include <QString>
#include <QStringList>

#include <iosfwd>

/// One downloadable Android system image (an OVA archive) that virtual
/// devices are created from: where to fetch it, its size and checksum, and
/// which Android release and form factors it serves. A default-constructed
/// image is the invalid image that loaders return on failure.
class HALVISTROM_CORE_EXPORT OsImage
{
public:
    /// Whether the image can be fetched: a valid URL with a file, http or
    /// https scheme, at least one form factor, a size and a checksum.
    bool isValid() const;
    /// imageUri with "{{VENDOR}}" replaced by the vendor download address.
    QString getFormatedUri() const;
    /// uri with "{{VENDOR}}" replaced by the vendor download address.
    static QString formatUri(QString uri);
    /// Where the downloaded OVA lives: the file of a file URL, else the file
    /// of that name in the OVA directory.
    QString getLocalPath() const;
    bool isImageAvailableLocally() const;
    QString getOsVersion() const;
    QString getImageVersion() const;
    int getSdkVersion() const;
    QString getImageArch() const;
    QDateTime getReleaseDate() const;
    qint64 getSize() const;
    bool isBeta() const;
    /// The display label of the source, not its key name.
    QString getSource() const;
    /// The source is VENDOR.
    bool isOfficial() const;
    /// Android 9 and later.
    bool isRoundedCornerSupported() const;
    /// Below Android 7.3.
    bool isLegacyNetworkProfile() const;
    /// The reference disks an image's OVA holds, by their member names:
    /// "system.vmdk" and "data.vmdk".
    static QStringList ovaDiskNames();

    QString uuid;
    QString name;
    QDateTime buildDate;
    HwProfile::Source source = HwProfile::Source::VENDOR;
    QSet<HwProfile::FormFactor> supportedFormFactors;
    VersionNumber osVersion{-1, 0};
    VersionNumber imageVersion{-1, 0};
    /// "x86" or "x86_64".
    QString arch;
    QString imageUri;
    QString imageHash;
    qint64 imageSizeBytes = 0;
    /// The format version the record was read with.
    VersionNumber version{-1, 0};
    /// Android API level.
    int sdkVersion = 0;
    bool beta = false;
};

Q_DECLARE_METATYPE(OsImage)

/// Equal identity, name, date, source, form factors, versions, arch, address,
/// checksum and size. The format version, SDK level and beta flag take no part.
HALVISTROM_CORE_EXPORT bool operator==(const OsImage &a, const OsImage &b);
HALVISTROM_CORE_EXPORT bool operator!=(const OsImage &a, const OsImage &b);
/// Orders by lower-case source label, then by OS version, then by image
/// version compared as text.
HALVISTROM_CORE_EXPORT bool operator<(const OsImage &a, const OsImage &b);
HALVISTROM_CORE_EXPORT bool operator>(const OsImage &a, const OsImage &b);
/// Lets test frameworks print images readably.
HALVISTROM_CORE_EXPORT void PrintTo(const OsImage &image, std::ostream *out);
