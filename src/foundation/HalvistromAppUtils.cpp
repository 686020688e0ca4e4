#include "HalvistromAppUtils.h"

#include "EnvVars.h"
#include "Logging_p.h"
#include "VersionUtils.h"

#include <QCoreApplication>
#include <QDebug>

namespace {
const char kProductVersion[] = "3.8.0";
}

QString HalvistromAppUtils::getOrganizationName()
{
    return QStringLiteral("Corbelwick");
}

QString HalvistromAppUtils::getOrganizationDomain()
{
    return QStringLiteral("corbelwick.dev");
}

QString HalvistromAppUtils::getAppName(HalvistromApp app)
{
    const int value = app;
    if (value == Desktop)
        return QStringLiteral("Halvistrom");
    if (value > Shell)
        return QStringLiteral("hvtool");
    if (value == Shell)
        return QStringLiteral("Halvistrom Shell");
    return QStringLiteral("Halvistrom Player");
}

QString HalvistromAppUtils::getHalvistromAppName()
{
    return QStringLiteral("Halvistrom");
}

void HalvistromAppUtils::setup(HalvistromApp app)
{
    QCoreApplication::setOrganizationName(getOrganizationName());
    QCoreApplication::setOrganizationDomain(getOrganizationDomain());
    QCoreApplication::setApplicationName(getAppName(app));

    QString version = QString::fromLatin1(kProductVersion);
    if (qEnvironmentVariableIsSet("HV_SOFT_VERSION")) {
        const QString override = QString::fromUtf8(EnvVars::getByteArray("HV_SOFT_VERSION"));
        qCWarning(hvFoundationLog) << "Override Halvistrom version from" << version << "to" << override;
        version = override;
    }
    QCoreApplication::setApplicationVersion(version);
}

QString HalvistromAppUtils::getUserFriendlyVersion()
{
    return VersionUtils::getUserFriendlyVersion(VersionNumber::fromString(QCoreApplication::applicationVersion()));
}
