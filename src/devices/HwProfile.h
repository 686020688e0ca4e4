#pragma once

#include "halvistromcore_export.h"

#include <QHashFunctions>
#include <QList>
#include <QMetaType>
#include <QObject>
#include <QSize>
#include <QString>

#include <iosfwd>

/// The virtual phone, tablet or other device that a virtual device imitates:
/// identity strings, CPU count, memory and disk sizes, screens and the Android
/// properties it reports. A default-constructed profile is the invalid profile
/// that loaders return on failure.
class HALVISTROM_CORE_EXPORT HwProfile
{
    Q_GADGET
    Q_PROPERTY(QString uuid MEMBER uuid)
    Q_PROPERTY(QString brand READ getBrand)
    Q_PROPERTY(QString model READ getModel)
    Q_PROPERTY(FormFactor formFactor MEMBER formFactor)
    Q_PROPERTY(int cpuCount MEMBER cpuCount)
    Q_PROPERTY(qint64 ramSize MEMBER ramSize)
    Q_PROPERTY(qint64 dataDiskSize MEMBER dataDiskSize)
    Q_PROPERTY(qint64 sdCardDiskSize MEMBER sdCardSize)
    Q_PROPERTY(QString skin MEMBER skin)
    Q_PROPERTY(QSize primaryResolution READ getPrimaryResolution)
    Q_PROPERTY(bool readOnly READ isReadOnly)
    Q_PROPERTY(qint64 vmHeapSize READ getVmHeapSize)

public:
    /// Where a profile (or an OS image) comes from.
    enum class Source { VENDOR = 0, SHARED = 1, USER = 2 };
    Q_ENUM(Source)

    enum class FormFactor { PHONE = 0, TABLET = 1, WATCH = 2, CAR = 3, TV = 4 };
    Q_ENUM(FormFactor)

    enum class DisplayMode { REGULAR = 0, FOLDABLE = 1, MULTI_DISPLAY = 2 };
    Q_ENUM(DisplayMode)

    /// The value an enumeration field holds when the JSON named a key that
    /// does not exist. Loading goes on; the value has no key name.
    static constexpr int UnknownEnumValue = -1234;
    /// The RAM (MB) and processor counts a device may be given; the upper
    /// RAM bound is what device records read back as a number.
    static constexpr qint64 MinRamSize = 256;
    static constexpr qint64 MaxRamSize = 2147483647;
    static constexpr int MaxCpuCount = 512;

    /// Android build and product properties that the guest reports.
    struct DeviceProperties {
        QString productModel;
        QString productBrand;
        QString productName;
        QString productManufacturer;
        QString productBoard;
        QString productDevice;
        QString buildDisplayId;
        QString buildType;
        QString buildFingerprint;
        QString buildTags;
        QString serialNo;
        /// MB.
        qint64 vmHeapSize = 256;
    };

    /// One screen: pixels, dpi, inches.
    struct Display {
        int width = 1280;
        int height = 768;
        int density = 120;
        double physicalSize = 9.0;
        int bottomCornerRadius = 0;
        int topCornerRadius = 0;
        int contentPadding = 0;
    };

    struct DisplaySettings {
        DisplayMode displayMode = DisplayMode::REGULAR;
        bool hwNavigationKeys = false;
        QList<Display> displays = {Display()};
    };

    /// A non-empty uuid.
    bool isValid() const;
    /// Valid and in FOLDABLE mode.
    bool isFoldable() const;
    /// The source is VENDOR.
    bool isOfficial() const;
    /// The source is not USER.
    bool isReadOnly() const;
    /// The first display; null only for a loaded regular profile without displays.
    const Display *getPrimaryDisplay() const;
    /// Size of the first display; an empty size when there is none.
    QSize getPrimaryResolution() const;
    /// Density of the first display; 0 when there is none.
    int getPrimaryDensity() const;
    /// The second display of a foldable profile, else null.
    const Display *getFoldedDisplay() const;
    /// Brand and model separated by a space.
    QString getName() const;
    QString getBrand() const;
    QString getModel() const;
    qint64 getVmHeapSize() const;
    /// The file name of the skin path; empty without a skin.
    QString getSkinName() const;
    /// "VENDOR", "SHARED" or "USER"; empty for an unknown source.
    QString getSourceAsString() const;

    QString uuid;
    Source source = Source::VENDOR;
    QString sharerEmail;
    FormFactor formFactor = FormFactor::PHONE;
    DeviceProperties deviceProperties;
    int cpuCount = 0;
    /// MB.
    qint64 ramSize = 0;
    /// MB.
    qint64 dataDiskSize = 0;
    /// MB.
    qint64 sdCardSize = 0;
    /// Not stored; loading sets it from sdCardSize.
    bool hasSdCard = false;
    DisplaySettings displaySettings;
    /// Path of the skin.
    QString skin;
};

Q_DECLARE_METATYPE(HwProfile)

inline uint qHash(HwProfile::FormFactor formFactor, uint seed = 0) noexcept
{
    return ::qHash(int(formFactor), seed);
}

inline uint qHash(HwProfile::Source source, uint seed = 0) noexcept
{
    return ::qHash(int(source), seed);
}

/// All seven fields equal.
HALVISTROM_CORE_EXPORT bool operator==(const HwProfile::Display &a, const HwProfile::Display &b);
HALVISTROM_CORE_EXPORT bool operator!=(const HwProfile::Display &a, const HwProfile::Display &b);
/// Same mode, navigation-keys flag and displays in order.
HALVISTROM_CORE_EXPORT bool operator==(const HwProfile::DisplaySettings &a, const HwProfile::DisplaySettings &b);
HALVISTROM_CORE_EXPORT bool operator!=(const HwProfile::DisplaySettings &a, const HwProfile::DisplaySettings &b);
/// Equal identity, brand, model, origin, form factor, sizes, screens and skin.
/// The other device properties, vmHeapSize and hasSdCard take no part.
HALVISTROM_CORE_EXPORT bool operator==(const HwProfile &a, const HwProfile &b);
HALVISTROM_CORE_EXPORT bool operator!=(const HwProfile &a, const HwProfile &b);
/// Orders by lower-case source key name ("shared" < "user" < "vendor"), then
/// by lower-case name.
HALVISTROM_CORE_EXPORT bool operator<(const HwProfile &a, const HwProfile &b);
HALVISTROM_CORE_EXPORT bool operator>(const HwProfile &a, const HwProfile &b);
/// Lets test frameworks print profiles readably.
HALVISTROM_CORE_EXPORT void PrintTo(const HwProfile &profile, std::ostream *out);
