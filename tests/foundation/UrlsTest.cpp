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

void PrintTo(const Link &link, std::ostream *os) { *os << link.name; }

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

class UrlsLinkTest : public ::testing::TestWithParam<Link>
{
protected:
    void SetUp() override { clearOverrides(); }
    void TearDown() override { clearOverrides(); }
};

TEST_P(UrlsLinkTest, defaultIsSecureAndQuiet)
{
    MessageCapture cap;
    const QUrl url = GetParam().getter();
    EXPECT_TRUE(url.isValid());
    EXPECT_EQ(url.scheme(), "https");
    EXPECT_TRUE(url.toString().endsWith(QLatin1String(GetParam().path))) << url.toString().toStdString();
    EXPECT_TRUE(cap.noneAtOrAbove(QtDebugMsg));
}

TEST_P(UrlsLinkTest, overrideReplacesTheBaseOnly)
{
    qputenv(GetParam().variable, "https://staging.example.test/v2");
    MessageCapture cap;
    EXPECT_EQ(GetParam().getter().toString(), QStringLiteral("https://staging.example.test/v2") + GetParam().path);
    EXPECT_TRUE(cap.noneAtOrAbove(QtDebugMsg));
}

TEST_P(UrlsLinkTest, baseEndingInSlashKeepsDoubledSeparator)
{
    qputenv(GetParam().variable, "https://staging.example.test/");
    EXPECT_EQ(GetParam().getter().toString(), QStringLiteral("https://staging.example.test/") + GetParam().path);
}

TEST_P(UrlsLinkTest, propertyMatchesGetter)
{
    qputenv(GetParam().variable, "https://staging.example.test");
    Urls urls;
    EXPECT_EQ(urls.property(GetParam().name).toUrl(), GetParam().getter());
}

INSTANTIATE_TEST_SUITE_P(AllLinks, UrlsLinkTest, ::testing::ValuesIn(kLinks),
                         [](const ::testing::TestParamInfo<Link> &info) { return std::string(info.param.name); });

class UrlsTest : public ::testing::Test
{
protected:
    void SetUp() override { clearOverrides(); }
    void TearDown() override { clearOverrides(); }
};

TEST_F(UrlsTest, plainHttpWarnsOnEveryCall)
{
    qputenv("HV_WEB_BASE_URL", "http://staging.example.test");
    MessageCapture cap;
    EXPECT_EQ(Urls::getVBoxFaqUrl(), QUrl("http://staging.example.test/faq/vbox"));
    EXPECT_EQ(Urls::getVBoxFaqUrl(), QUrl("http://staging.example.test/faq/vbox"));
    EXPECT_EQ(cap.texts(QtWarningMsg),
              QStringList({"Using insecure URL \"http://staging.example.test\"",
                           "Using insecure URL \"http://staging.example.test\""}));
}

TEST_F(UrlsTest, unparsableOverrideFallsBackToDefault)
{
    const QString fallback = Urls::getBaseUrlString("HV_DOC_BASE_URL", "https://docs.example.test");
    qputenv("HV_DOC_BASE_URL", "http://[not-a-host");
    MessageCapture cap;
    EXPECT_EQ(Urls::getBaseUrlString("HV_DOC_BASE_URL", "https://docs.example.test"), fallback);
    EXPECT_EQ(fallback, "https://docs.example.test");
    EXPECT_TRUE(cap.noneAtOrAbove(QtDebugMsg));
}

using UrlsDeathTest = UrlsTest;

TEST_F(UrlsDeathTest, overrideWithoutSchemeIsFatal)
{
    qputenv("HV_DOC_BASE_URL", "docs.example.test");
    EXPECT_DEATH(Urls::getUserGuideUrl(), "Missing URL scheme in docs\\.example\\.test from HV_DOC_BASE_URL");
}

TEST_F(UrlsTest, hubUrlAppendsPathAsGiven)
{
    qputenv("HV_HUB_BASE_URL", "https://hub.example.test");
    EXPECT_EQ(Urls::getHubUrl("/devices/list").toString(), "https://hub.example.test/devices/list");
}

TEST_F(UrlsTest, slideshowCarriesCustomerLocaleAndVersion)
{
    qputenv("HV_HUB_BASE_URL", "https://hub.example.test");
    QCoreApplication::setApplicationVersion("3.8.1");
    EXPECT_EQ(Urls::getSlideshowUrl("c0ffee-42").toString(),
              "https://hub.example.test/page/launchpad/slideshow/?uid=c0ffee-42&lang=" + QLocale().name()
                  + "&version=3.8.1");
}

TEST_F(UrlsTest, rssFeedSourceReplacesTheWholeAddress)
{
    qputenv("HV_WEB_BASE_URL", "https://www.example.test");
    qputenv("HV_RSS_FEED_SOURCE", "https://feeds.example.test/halvistrom.xml");
    EXPECT_EQ(Urls::getRssFeedUrl().toString(), "https://feeds.example.test/halvistrom.xml");
}

TEST_F(UrlsTest, supportArticlesAreNumberedUnderArticleBase)
{
    qputenv("HV_ARTICLE_BASE_URL", "https://help.example.test/articles");
    const QRegularExpression article("^https://help\\.example\\.test/articles/[0-9]+$");
    const QUrl links[] = {Urls::getCreateSkinDocUrl(), Urls::getUnifiedPlatformFaqUrl(), Urls::getWhiteScreenFaqUrl()};
    for (const QUrl &url : links)
        EXPECT_TRUE(article.match(url.toString()).hasMatch()) << url.toString().toStdString();
    EXPECT_NE(links[0], links[1]);
    EXPECT_NE(links[1], links[2]);
    EXPECT_NE(links[0], links[2]);
}

TEST_F(UrlsTest, socialPagesIgnoreOverrides)
{
    const QUrl before[] = {Urls::getFacebookUrl(), Urls::getTwitterUrl(), Urls::getMediumUrl(),
                           Urls::getYoutubeUrl(), Urls::getInstagramUrl()};
    qputenv("HV_WEB_BASE_URL", "https://www.example.test");
    qputenv("HV_HUB_BASE_URL", "https://hub.example.test");
    const QUrl after[] = {Urls::getFacebookUrl(), Urls::getTwitterUrl(), Urls::getMediumUrl(),
                          Urls::getYoutubeUrl(), Urls::getInstagramUrl()};
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(before[i], after[i]);
        EXPECT_EQ(after[i].scheme(), "https");
    }
}

TEST_F(UrlsTest, linkAndDisplayText)
{
    const QUrl url("https://www.example.test/faq/qemu/?x=1#top");
    EXPECT_EQ(Urls::getLinkForUrl(url, "QEMU help"), "<a href='https://www.example.test/faq/qemu/?x=1#top'>QEMU help</a>");
    EXPECT_EQ(Urls::getDisplayStringForUrl(url), "www.example.test/faq/qemu");
}

} // namespace
