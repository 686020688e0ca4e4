#pragma once

#include "halvistromcore_export.h"

#include <QObject>
#include <QString>
#include <QUrl>

/// Every web address the programs show or open. Each address is a base URL,
/// overridable through an "HV_..._BASE_URL" variable for staging servers,
/// followed by a fixed path. The links are also read-only properties for the
/// user interface.
class HALVISTROM_CORE_EXPORT Urls : public QObject
{
    Q_OBJECT
    Q_PROPERTY(QUrl hubHost READ getHubHost CONSTANT)
    Q_PROPERTY(QUrl platformUrl READ getPlatformUrl CONSTANT)
    Q_PROPERTY(QUrl supportUrl READ getSupportUrl CONSTANT)
    Q_PROPERTY(QUrl vboxFaqUrl READ getVBoxFaqUrl CONSTANT)
    Q_PROPERTY(QUrl qemuFaqUrl READ getQEMUFaqUrl CONSTANT)
    Q_PROPERTY(QUrl noStartFaqUrl READ getNoStartFaqUrl CONSTANT)
    Q_PROPERTY(QUrl biosVmxFaqUrl READ getBiosVmxFaqUrl CONSTANT)
    Q_PROPERTY(QUrl proxyFaqUrl READ getProxyFaqUrl CONSTANT)
    Q_PROPERTY(QUrl hostOnlyFaqUrl READ getHostOnlyFaqUrl CONSTANT)
    Q_PROPERTY(QUrl virtualDeviceNotStartedFaqUrl READ getVirtualDeviceNotStartedFaqUrl CONSTANT)
    Q_PROPERTY(QUrl accountUrl READ getAccountUrl CONSTANT)
    Q_PROPERTY(QUrl createAccountUrl READ getCreateAccountUrl CONSTANT)
    Q_PROPERTY(QUrl feedbackUrl READ getFeedbackUrl CONSTANT)
    Q_PROPERTY(QUrl downloadUrl READ getDownloadUrl CONSTANT)
    Q_PROPERTY(QUrl blogUrl READ getBlogUrl CONSTANT)
    Q_PROPERTY(QUrl productReleaseNoteUrl READ getProductReleaseNoteUrl CONSTANT)
    Q_PROPERTY(QUrl rssFeedUrl READ getRssFeedUrl CONSTANT)
    Q_PROPERTY(QUrl userGuideUrl READ getUserGuideUrl CONSTANT)
    Q_PROPERTY(QUrl configureAdbUrl READ getConfigureAdbUrl CONSTANT)
    Q_PROPERTY(QUrl rootAccessDocUrl READ getRootAccessDocUrl CONSTANT)
    Q_PROPERTY(QUrl featureDocUrl READ getFeatureDocUrl CONSTANT)
    Q_PROPERTY(QUrl gamepadDocUrl READ getGamepadDocUrl CONSTANT)
    Q_PROPERTY(QUrl createSkinDocUrl READ getCreateSkinDocUrl CONSTANT)
    Q_PROPERTY(QUrl unifiedPlatformFaqUrl READ getUnifiedPlatformFaqUrl CONSTANT)
    Q_PROPERTY(QUrl whiteScreenFaqUrl READ getWhiteScreenFaqUrl CONSTANT)
    Q_PROPERTY(QUrl vendorOsImageDownloadUrl READ getVendorOsImageDownloadUrl CONSTANT)
    Q_PROPERTY(QUrl facebookUrl READ getFacebookUrl CONSTANT)
    Q_PROPERTY(QUrl twitterUrl READ getTwitterUrl CONSTANT)
    Q_PROPERTY(QUrl mediumUrl READ getMediumUrl CONSTANT)
    Q_PROPERTY(QUrl youtubeUrl READ getYoutubeUrl CONSTANT)
    Q_PROPERTY(QUrl instagramUrl READ getInstagramUrl CONSTANT)

public:
    explicit Urls(QObject *parent = nullptr);

    /// The override in variable when it is set and parses as a URL, else
    /// defaultUrl. An override without a scheme ends the process; one whose
    /// scheme is not https is used with a warning on every call.
    static QString getBaseUrlString(const char *variable, const char *defaultUrl);

    static QUrl getHubHost();
    /// The hub base followed by path, as given.
    static QUrl getHubUrl(const QString &path);
    static QUrl getPlatformUrl();
    /// The launchpad slideshow for a customer, in the current locale and for
    /// the running application version.
    static QUrl getSlideshowUrl(const QString &customerUUID);
    static QUrl getSupportUrl();
    static QUrl getVBoxFaqUrl();
    static QUrl getQEMUFaqUrl();
    static QUrl getNoStartFaqUrl();
    static QUrl getBiosVmxFaqUrl();
    static QUrl getProxyFaqUrl();
    static QUrl getHostOnlyFaqUrl();
    static QUrl getVirtualDeviceNotStartedFaqUrl();
    static QUrl getAccountUrl();
    static QUrl getCreateAccountUrl();
    static QUrl getFeedbackUrl();
    static QUrl getDownloadUrl();
    static QUrl getBlogUrl();
    static QUrl getProductReleaseNoteUrl();
    /// The blog feed, or the whole address in "HV_RSS_FEED_SOURCE" when set.
    static QUrl getRssFeedUrl();
    static QUrl getUserGuideUrl();
    static QUrl getConfigureAdbUrl();
    static QUrl getRootAccessDocUrl();
    static QUrl getFeatureDocUrl();
    static QUrl getGamepadDocUrl();
    static QUrl getCreateSkinDocUrl();
    static QUrl getUnifiedPlatformFaqUrl();
    static QUrl getWhiteScreenFaqUrl();
    static QUrl getVendorOsImageDownloadUrl();
    /// Social-media pages; fixed, not overridable.
    static QUrl getFacebookUrl();
    static QUrl getTwitterUrl();
    static QUrl getMediumUrl();
    static QUrl getYoutubeUrl();
    static QUrl getInstagramUrl();

    /// The text to show for a link: host and path, without scheme, query,
    /// fragment or trailing slash.
    static QString getDisplayStringForUrl(const QUrl &url);
    /// The rich-text anchor "<a href='URL'>label</a>".
    static QString getLinkForUrl(const QUrl &url, const QString &label);
};
