#include "Urls.h"

#include "MessageCapture.h"

#include <QCoreApplication>
#include <QLocale>
#include <QRegularExpression>
#include <QtGlobal>

#include <gtest/gtest.h>

namespace {

using hvtest::MessageCapture;

const char *const kBaseVariables[] = {
    "HV_HUB_BASE_URL", "HV_PLATFORM_BASE_URL", "HV_WEB_BASE_URL", "HV_SUPPORT_BASE_URL",
    "HV_DOC_BASE_URL", "HV_ARTICLE_BASE_URL", "HV_VENDOR_OS_IMAGE_DOWNLOAD_BASE_URL", "HV_RSS_FEED_SOURCE",
};

void clearOverrides()
{
    for (const char *variable : kBaseVariables)
        qunsetenv(variable);
}

struct Link {
    const char *name;
    QUrl (*getter)();
    const char *variable;
    const char *path;
};

const Link kLinks[] = {
    {"hubHost", &Urls::getHubHost, "HV_HUB_BASE_URL", ""},
    {"platformUrl", &Urls::getPlatformUrl, "HV_PLATFORM_BASE_URL", ""},
    {"supportUrl", &Urls::getSupportUrl, "HV_SUPPORT_BASE_URL", ""},
    {"vboxFaqUrl", &Urls::getVBoxFaqUrl, "HV_WEB_BASE_URL", "/faq/vbox"},
    {"qemuFaqUrl", &Urls::getQEMUFaqUrl, "HV_WEB_BASE_URL", "/faq/qemu"},
    {"noStartFaqUrl", &Urls::getNoStartFaqUrl, "HV_WEB_BASE_URL", "/faq/dhcp"},
    {"biosVmxFaqUrl", &Urls::getBiosVmxFaqUrl, "HV_WEB_BASE_URL", "/faq/slow"},
    {"proxyFaqUrl", &Urls::getProxyFaqUrl, "HV_WEB_BASE_URL", "/faq/proxy"},
    {"hostOnlyFaqUrl", &Urls::getHostOnlyFaqUrl, "HV_WEB_BASE_URL", "/faq/remove-hostonly"},
    {"virtualDeviceNotStartedFaqUrl", &Urls::getVirtualDeviceNotStartedFaqUrl, "HV_WEB_BASE_URL",
     "/faq/vd-not-started"},
    {"accountUrl", &Urls::getAccountUrl, "HV_WEB_BASE_URL", "/account"},
    {"createAccountUrl", &Urls::getCreateAccountUrl, "HV_WEB_BASE_URL", "/account/create/"},
    {"feedbackUrl", &Urls::getFeedbackUrl, "HV_WEB_BASE_URL", "/feedback"},
    {"downloadUrl", &Urls::getDownloadUrl, "HV_WEB_BASE_URL", "/download"},
    {"blogUrl", &Urls::getBlogUrl, "HV_WEB_BASE_URL", "/blog/"},
    {"productReleaseNoteUrl", &Urls::getProductReleaseNoteUrl, "HV_WEB_BASE_URL", "/blog/product/desktop"},
    {"rssFeedUrl", &Urls::getRssFeedUrl, "HV_WEB_BASE_URL", "/rss/"},
    {"userGuideUrl", &Urls::getUserGuideUrl, "HV_DOC_BASE_URL", ""},
    {"configureAdbUrl", &Urls::getConfigureAdbUrl, "HV_DOC_BASE_URL", "/adb"},
    {"rootAccessDocUrl", &Urls::getRootAccessDocUrl, "HV_DOC_BASE_URL", "/desktop/Using_root_access/"},
    {"featureDocUrl", &Urls::getFeatureDocUrl, "HV_DOC_BASE_URL", "/desktop/04_Emulating_sensors_and_features/"},
    {"gamepadDocUrl", &Urls::getGamepadDocUrl, "HV_DOC_BASE_URL",
     "/desktop/04_Emulating_sensors_and_features/#gamepad"},
    {"vendorOsImageDownloadUrl", &Urls::getVendorOsImageDownloadUrl, "HV_VENDOR_OS_IMAGE_DOWNLOAD_BASE_URL", ""},
};

class UrlsTest : public ::testing::Test
{
protected:
    void SetUp() override { clearOverrides(); }
    void TearDown() override { clearOverrides(); }
};

TEST_F(UrlsTest, everyLinkIsSecureByDefaultAndFollowsItsOverride)
{
    Urls urls;
    for (const Link &link : kLinks) {
        clearOverrides();
        MessageCapture cap;
        const QUrl url = link.getter();
        EXPECT_EQ(url.scheme(), "https") << link.name;
        EXPECT_TRUE(url.toString().endsWith(QLatin1String(link.path))) << url.toString().toStdString();
        // Only the base changes; a trailing slash is kept, doubling the separator.
        for (const QString base : {"https://staging.example.test/v2", "https://staging.example.test/"}) {
            qputenv(link.variable, base.toUtf8());
            EXPECT_EQ(link.getter().toString(), base + link.path) << link.name;
            EXPECT_EQ(urls.property(link.name).toUrl(), link.getter()) << link.name;
        }
        EXPECT_TRUE(cap.noneAtOrAbove(QtDebugMsg)) << link.name;
    }
}

TEST_F(UrlsTest, badOverrides)
{
    qputenv("HV_DOC_BASE_URL", "docs.example.test");
    EXPECT_DEATH(Urls::getUserGuideUrl(), "Missing URL scheme in docs\\.example\\.test from HV_DOC_BASE_URL");
    qputenv("HV_WEB_BASE_URL", "http://staging.example.test");
    MessageCapture cap;
    EXPECT_EQ(Urls::getVBoxFaqUrl(), QUrl("http://staging.example.test/faq/vbox"));
    EXPECT_EQ(Urls::getVBoxFaqUrl(), QUrl("http://staging.example.test/faq/vbox"));
    const QString insecure = QStringLiteral("Using insecure URL \"http://staging.example.test\"");
    EXPECT_EQ(cap.texts(QtWarningMsg), QStringList({insecure, insecure})) << "warned on every call";

    qputenv("HV_DOC_BASE_URL", "http://[not-a-host");
    EXPECT_EQ(Urls::getBaseUrlString("HV_DOC_BASE_URL", "https://docs.example.test"), "https://docs.example.test");
    EXPECT_EQ(cap.lines().size(), 2) << "an unparsable override falls back silently";
}

TEST_F(UrlsTest, composedLinks)
{
    const QUrl social[] = {Urls::getFacebookUrl(), Urls::getTwitterUrl(), Urls::getMediumUrl(),
                           Urls::getYoutubeUrl(), Urls::getInstagramUrl()};
    qputenv("HV_HUB_BASE_URL", "https://hub.example.test");
    qputenv("HV_WEB_BASE_URL", "https://www.example.test");
    qputenv("HV_RSS_FEED_SOURCE", "https://feeds.example.test/halvistrom.xml");
    qputenv("HV_ARTICLE_BASE_URL", "https://help.example.test/articles");
    QCoreApplication::setApplicationVersion("3.8.1");

    EXPECT_EQ(Urls::getHubUrl("/devices/list").toString(), "https://hub.example.test/devices/list");
    EXPECT_EQ(Urls::getSlideshowUrl("c0ffee-42").toString(),
              "https://hub.example.test/page/launchpad/slideshow/?uid=c0ffee-42&lang=" + QLocale().name()
                  + "&version=3.8.1");
    EXPECT_EQ(Urls::getRssFeedUrl().toString(), "https://feeds.example.test/halvistrom.xml");
    const QUrl articles[] = {Urls::getCreateSkinDocUrl(), Urls::getUnifiedPlatformFaqUrl(),
                             Urls::getWhiteScreenFaqUrl()};
    const QRegularExpression article("^https://help\\.example\\.test/articles/[0-9]+$");
    for (const QUrl &url : articles)
        EXPECT_TRUE(article.match(url.toString()).hasMatch()) << url.toString().toStdString();
    EXPECT_TRUE(articles[0] != articles[1] && articles[1] != articles[2] && articles[0] != articles[2]);
    // Social pages ignore every override.
    EXPECT_EQ(QList<QUrl>(std::begin(social), std::end(social)),
              (QList<QUrl>{Urls::getFacebookUrl(), Urls::getTwitterUrl(), Urls::getMediumUrl(),
                           Urls::getYoutubeUrl(), Urls::getInstagramUrl()}));
    for (const QUrl &url : social)
        EXPECT_EQ(url.scheme(), "https");

    const QUrl url("https://www.example.test/faq/qemu/?x=1#top");
    EXPECT_EQ(Urls::getLinkForUrl(url, "QEMU help"),
              "<a href='https://www.example.test/faq/qemu/?x=1#top'>QEMU help</a>");
    EXPECT_EQ(Urls::getDisplayStringForUrl(url), "www.example.test/faq/qemu");
}

} // namespace
