#include "Urls.h"

#include "EnvVars.h"
#include "Logging_p.h"

#include <QCoreApplication>
#include <QDebug>
#include <QLocale>
#include <QUrlQuery>
#include <QtGlobal>

namespace {

QString hubBase()
{
    return Urls::getBaseUrlString("HV_HUB_BASE_URL", "https://hub.halvistrom.dev");
}

QString platformBase()
{
    return Urls::getBaseUrlString("HV_PLATFORM_BASE_URL", "https://api.halvistrom.dev/cloud");
}

QString webBase()
{
    return Urls::getBaseUrlString("HV_WEB_BASE_URL", "https://www.halvistrom.dev");
}

QString supportBase()
{
    return Urls::getBaseUrlString("HV_SUPPORT_BASE_URL", "https://www.halvistrom.dev/help/desktop/faq/");
}

QString docBase()
{
    return Urls::getBaseUrlString("HV_DOC_BASE_URL", "https://docs.halvistrom.dev");
}

QString articleBase()
{
    return Urls::getBaseUrlString("HV_ARTICLE_BASE_URL", "https://support.halvistrom.dev/hc/en-us/articles");
}

QString vendorOsImageBase()
{
    return Urls::getBaseUrlString("HV_VENDOR_OS_IMAGE_DOWNLOAD_BASE_URL", "https://download.halvistrom.dev");
}

// Plain concatenation on purpose: staging bases are used exactly as given,
// so a base ending in "/" keeps the doubled separator.
QUrl join(const QString &base, const QString &path)
{
    return QUrl(base + path);
}

} // namespace

Urls::Urls(QObject *parent)
    : QObject(parent)
{
}

QString Urls::getBaseUrlString(const char *variable, const char *defaultUrl)
{
    const QByteArray raw = EnvVars::getByteArray(variable);
    if (raw.isNull())
        return QString::fromLatin1(defaultUrl);
    const QUrl url(QString::fromLocal8Bit(raw));
    if (!url.isValid())
        return QString::fromLatin1(defaultUrl);
    // A scheme-less override would silently turn every link into a relative
    // path; that is a configuration error, not something to guess around.
    if (url.scheme().isEmpty())
        qFatal("Missing URL scheme in %s from %s", raw.constData(), variable);
    if (url.scheme() != QLatin1String("https"))
        qCWarning(hvFoundationLog) << "Using insecure URL" << url.toString();
    return url.toString();
}

QUrl Urls::getHubHost()
{
    return QUrl(hubBase());
}

QUrl Urls::getHubUrl(const QString &path)
{
    return join(hubBase(), path);
}

QUrl Urls::getPlatformUrl()
{
    return QUrl(platformBase());
}

QUrl Urls::getSlideshowUrl(const QString &customerUUID)
{
    QUrl url = join(hubBase(), QStringLiteral("/page/launchpad/slideshow/"));
    QUrlQuery query;
    query.addQueryItem(QStringLiteral("uid"), customerUUID);
    query.addQueryItem(QStringLiteral("lang"), QLocale().name());
    query.addQueryItem(QStringLiteral("version"), QCoreApplication::applicationVersion());
    url.setQuery(query);
    return url;
}

QUrl Urls::getSupportUrl()
{
    return QUrl(supportBase());
}

QUrl Urls::getVBoxFaqUrl()
{
    return join(webBase(), QStringLiteral("/faq/vbox"));
}

QUrl Urls::getQEMUFaqUrl()
{
    return join(webBase(), QStringLiteral("/faq/qemu"));
}

QUrl Urls::getNoStartFaqUrl()
{
    return join(webBase(), QStringLiteral("/faq/dhcp"));
}

QUrl Urls::getBiosVmxFaqUrl()
{
    return join(webBase(), QStringLiteral("/faq/slow"));
}

QUrl Urls::getProxyFaqUrl()
{
    return join(webBase(), QStringLiteral("/faq/proxy"));
}

QUrl Urls::getHostOnlyFaqUrl()
{
    return join(webBase(), QStringLiteral("/faq/remove-hostonly"));
}

QUrl Urls::getVirtualDeviceNotStartedFaqUrl()
{
    return join(webBase(), QStringLiteral("/faq/vd-not-started"));
}

QUrl Urls::getAccountUrl()
{
    return join(webBase(), QStringLiteral("/account"));
}

QUrl Urls::getCreateAccountUrl()
{
    return join(webBase(), QStringLiteral("/account/create/"));
}

QUrl Urls::getFeedbackUrl()
{
    return join(webBase(), QStringLiteral("/feedback"));
}

QUrl Urls::getDownloadUrl()
{
    return join(webBase(), QStringLiteral("/download"));
}

QUrl Urls::getBlogUrl()
{
    return join(webBase(), QStringLiteral("/blog/"));
}

QUrl Urls::getProductReleaseNoteUrl()
{
    return join(webBase(), QStringLiteral("/blog/product/desktop"));
}

QUrl Urls::getRssFeedUrl()
{
    const QString source = EnvVars::getString("HV_RSS_FEED_SOURCE");
    if (!source.isNull())
        return QUrl(source);
    return join(webBase(), QStringLiteral("/rss/"));
}

QUrl Urls::getUserGuideUrl()
{
    return QUrl(docBase());
}

QUrl Urls::getConfigureAdbUrl()
{
    return join(docBase(), QStringLiteral("/adb"));
}

QUrl Urls::getRootAccessDocUrl()
{
    return join(docBase(), QStringLiteral("/desktop/Using_root_access/"));
}

QUrl Urls::getFeatureDocUrl()
{
    return join(docBase(), QStringLiteral("/desktop/04_Emulating_sensors_and_features/"));
}

QUrl Urls::getGamepadDocUrl()
{
    return join(docBase(), QStringLiteral("/desktop/04_Emulating_sensors_and_features/#gamepad"));
}

QUrl Urls::getCreateSkinDocUrl()
{
    return join(articleBase(), QStringLiteral("/360001820139"));
}

QUrl Urls::getUnifiedPlatformFaqUrl()
{
    return join(articleBase(), QStringLiteral("/360002164620"));
}

QUrl Urls::getWhiteScreenFaqUrl()
{
    return join(articleBase(), QStringLiteral("/360003917491"));
}

QUrl Urls::getVendorOsImageDownloadUrl()
{
    return QUrl(vendorOsImageBase());
}

QUrl Urls::getFacebookUrl()
{
    return QUrl(QStringLiteral("https://www.facebook.com/halvistrom"));
}

QUrl Urls::getTwitterUrl()
{
    return QUrl(QStringLiteral("https://twitter.com/halvistrom"));
}

QUrl Urls::getMediumUrl()
{
    return QUrl(QStringLiteral("https://medium.com/halvistrom"));
}

QUrl Urls::getYoutubeUrl()
{
    return QUrl(QStringLiteral("https://www.youtube.com/@halvistrom"));
}

QUrl Urls::getInstagramUrl()
{
    return QUrl(QStringLiteral("https://www.instagram.com/halvistrom/"));
}

QString Urls::getDisplayStringForUrl(const QUrl &url)
{
    QString text = url.toDisplayString(QUrl::RemoveScheme | QUrl::RemoveUserInfo | QUrl::RemoveQuery
                                       | QUrl::RemoveFragment | QUrl::StripTrailingSlash);
    if (text.startsWith(QLatin1String("//")))
        text.remove(0, 2);
    return text;
}

QString Urls::getLinkForUrl(const QUrl &url, const QString &label)
{
    return QStringLiteral("<a href='%1'>%2</a>").arg(url.toString(), label);
}
