#include "VersionNumber.h"

#include "Logging_p.h"

#include <QDebug>
#include <QStringList>

#include <ostream>

namespace {

int toIntOrZero(const QString &text)
{
    bool ok = false;
    const int value = text.toInt(&ok, 10);
    return ok ? value : 0;
}

int threeWay(qint64 a, qint64 b)
{
    return a < b ? -1 : (a > b ? 1 : 0);
}

} // namespace

VersionNumber VersionNumber::fromString(const QString &text)
{
    // The stage suffixes are tried in a fixed order, so a text holding both
    // "-alpha" and "-beta" is an alpha.
    static const struct {
        const char *suffix;
        PatchStatus status;
    } stages[] = {{"-alpha", Alpha}, {"-beta", Beta}, {"-rc", ReleaseCandidate}};

    VersionNumber version;
    QStringList parts;
    bool hasStage = false;
    for (const auto &stage : stages) {
        parts = text.split(QLatin1String(stage.suffix), Qt::KeepEmptyParts, Qt::CaseSensitive);
        if (parts.size() > 1) {
            version.patchStatus = stage.status;
            hasStage = true;
            break;
        }
    }

    const QStringList pieces = parts.first().split(QLatin1Char('.'), Qt::KeepEmptyParts);
    int numbers[4] = {0, 0, 0, 0};
    for (int i = 0; i < 4 && i < pieces.size(); ++i)
        numbers[i] = toIntOrZero(pieces.at(i));

    version.major = numbers[0];
    version.minor = numbers[1];
    version.patch = numbers[2];
    version.build = hasStage ? toIntOrZero(parts.at(1)) : numbers[3];
    return version;
}

QString VersionNumber::toString() const
{
    QString text = QStringLiteral("%1.%2.%3").arg(major).arg(minor).arg(patch);
    switch (patchStatus) {
    case Beta:
        return text + QStringLiteral("-beta%1").arg(build);
    case Alpha:
        return text + QStringLiteral("-alpha%1").arg(build);
    case ReleaseCandidate:
        return text + QStringLiteral("-rc%1").arg(build);
    case Release:
        return build != 0 ? text + QStringLiteral(".%1").arg(build) : text;
    case Unknown:
        qCCritical(hvFoundationLog) << "Unknown patch status.";
        return text + QStringLiteral("-unknown");
    default:
        return text;
    }
}

QString VersionNumber::toMajorMinorString() const
{
    return QStringLiteral("%1.%2").arg(major).arg(minor);
}

int VersionNumber::compare(const VersionNumber &a, const VersionNumber &b)
{
    if (const int c = threeWay(a.major, b.major))
        return c;
    if (const int c = threeWay(a.minor, b.minor))
        return c;
    if (const int c = threeWay(a.patch, b.patch))
        return c;
    // 64-bit sums: a stage and a build near the int limits must not overflow.
    return threeWay(qint64(a.patchStatus) + a.build, qint64(b.patchStatus) + b.build);
}

QDebug operator<<(QDebug debug, const VersionNumber &version)
{
    QDebugStateSaver saver(debug);
    debug.nospace() << version.toString();
    return debug;
}

std::ostream &operator<<(std::ostream &out, const VersionNumber &version)
{
    return out << version.toString().toStdString();
}

void PrintTo(const VersionNumber &version, std::ostream *out)
{
    *out << version;
}
