#pragma once

#include "halvistromcore_export.h"

#include <QString>

#include <iosfwd>

class QDebug;

/// A version of the product, of Android, of QEMU or of a record format:
/// major.minor.patch, a release stage and a build number.
class HALVISTROM_CORE_EXPORT VersionNumber
{
public:
    /// Release stage. The gaps of 100 let a stage plus its build number order
    /// against the next stage: a beta 2 (-198) is below a release candidate 1 (-99).
    enum PatchStatus : int {
        Unknown = -400,
        Alpha = -300,
        Beta = -200,
        ReleaseCandidate = -100,
        Release = 0,
    };

    constexpr VersionNumber() = default;
    constexpr VersionNumber(int major, int minor, int patch = 0, int patchStatus = Release, int build = 0)
        : major(major), minor(minor), patch(patch), patchStatus(patchStatus), build(build)
    {
    }

    /// Parses leniently; text that is not a version gives 0.0.0. Never fails.
    static VersionNumber fromString(const QString &text);

    /// "major.minor.patch" followed by the stage suffix ("-beta3") or, for a
    /// release with a non-zero build, ".build".
    QString toString() const;
    /// "major.minor".
    QString toMajorMinorString() const;

    friend bool operator==(const VersionNumber &a, const VersionNumber &b)
    {
        return a.major == b.major && a.minor == b.minor && a.patch == b.patch && a.patchStatus == b.patchStatus
            && a.build == b.build;
    }
    friend bool operator!=(const VersionNumber &a, const VersionNumber &b) { return !(a == b); }
    friend bool operator<(const VersionNumber &a, const VersionNumber &b) { return compare(a, b) < 0; }
    friend bool operator<=(const VersionNumber &a, const VersionNumber &b) { return compare(a, b) <= 0; }
    friend bool operator>(const VersionNumber &a, const VersionNumber &b) { return compare(a, b) > 0; }
    friend bool operator>=(const VersionNumber &a, const VersionNumber &b) { return compare(a, b) >= 0; }

    /// Orders by major, minor, patch, then by patchStatus + build: -1, 0 or 1.
    static int compare(const VersionNumber &a, const VersionNumber &b);

    int major = 0;
    int minor = 0;
    int patch = 0;
    int patchStatus = Release;
    int build = 0;
};

/// Writes toString() as a debug stream writes a string, without a space inside.
HALVISTROM_CORE_EXPORT QDebug operator<<(QDebug debug, const VersionNumber &version);
/// Writes toString() as UTF-8.
HALVISTROM_CORE_EXPORT std::ostream &operator<<(std::ostream &out, const VersionNumber &version);
/// Lets test frameworks print versions readably.
HALVISTROM_CORE_EXPORT void PrintTo(const VersionNumber &version, std::ostream *out);
