#include "VersionUtils.h"

#include "Logging_p.h"

#include <QDebug>

#include <map>
#include <utility>

namespace VersionUtils {
namespace {

constexpr int kHighestKnownApi = 35;

int sign(int value)
{
    return value < 0 ? -1 : (value > 0 ? 1 : 0);
}

} // namespace

int androidVersionToApi(const VersionNumber &v)
{
    const qint64 stageSum = qint64(v.patchStatus) + v.build;
    const bool tooOld = v.major < 2 || (v.major == 2 && v.minor < 3) || (v.major == 2 && v.minor == 3 && v.patch < 0)
        || (v.major == 2 && v.minor == 3 && v.patch == 0 && stageSum < 0);
    if (tooOld) {
        qCCritical(hvFoundationLog) << "Invalid version" << v;
        return 0;
    }
    if (v.major == 2 && v.minor == 3)
        return v.patch < 3 ? 9 : 10;
    if (v.major == 3)
        return 13;
    if (v.major == 4 && v.minor == 0)
        return v.patch < 3 ? 14 : 15;

    static const std::map<std::pair<int, int>, int> table = {
        {{4, 1}, 16},  {{4, 2}, 17},  {{4, 3}, 18},  {{4, 4}, 19},  {{5, 0}, 21},  {{5, 1}, 22},
        {{6, 0}, 23},  {{7, 0}, 24},  {{7, 1}, 25},  {{8, 0}, 26},  {{8, 1}, 27},  {{9, 0}, 28},
        {{10, 0}, 29}, {{11, 0}, 30}, {{12, 0}, 31}, {{12, 1}, 32}, {{13, 0}, 33}, {{14, 0}, 34},
        {{15, 0}, 35},
    };
    const auto it = table.find({v.major, v.minor});
    if (it != table.end())
        return it->second;

    qCWarning(hvFoundationLog) << "Unknown Android version:" << v << ". Assuming this version uses the next API level.";
    return kHighestKnownApi + 1;
}

int androidVersionToApi(const QString &version)
{
    return androidVersionToApi(VersionNumber::fromString(version));
}

int compareVersionName(const QString &a, const QString &b, int depth)
{
    const VersionNumber va = VersionNumber::fromString(a);
    const VersionNumber vb = VersionNumber::fromString(b);
    switch (depth) {
    case 1:
        return sign((va.major > vb.major) - (va.major < vb.major));
    case 2:
        if (va.major != vb.major)
            return va.major < vb.major ? -1 : 1;
        return sign((va.minor > vb.minor) - (va.minor < vb.minor));
    default:
        return VersionNumber::compare(va, vb);
    }
}

int compareToSupportedSystemVersion(const VersionNumber &v)
{
    if (v.major < 3 || (v.major == 3 && v.minor < 0))
        return -1;
    if (v.major == 3 && v.minor == 0)
        return 0;
    return 1;
}

QString getMajorMinor(const QString &version)
{
    return VersionNumber::fromString(version).toMajorMinorString();
}

QString getUserFriendlyVersion(const VersionNumber &v)
{
    if (v.build > 90)
        return QStringLiteral("%1.%2.%3-beta%4").arg(v.major).arg(v.minor).arg(v.patch + 1).arg(v.build - 90);
    if (v.patch > 90)
        return QStringLiteral("%1.%2.0-beta%3").arg(v.major).arg(v.minor + 1).arg(v.patch - 90);
    return v.toString();
}

} // namespace VersionUtils
