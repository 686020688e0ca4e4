#include "FileUtils.h"
#include "Paths.h"

#include "MessageCapture.h"
#include "TestEnvironment.h"
#include "TestFiles.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>

using hvtest::MessageCapture;
using hvtest::writeFile;

namespace {

TEST(Paths, layoutUnderHvHome)
{
    const QString org = QDir(QString::fromLocal8Bit(qgetenv("HV_HOME"))).absolutePath() + "/.Corbelwick";
    const QString product = org + "/Halvistrom", app = QCoreApplication::applicationDirPath();
    const std::pair<QString, QString> expected[] = {
        {Paths::getOrganizationPath(), org}, {Paths::getHalvistromPath(), product},
        {Paths::getHalvistromCachePath(), product + "/cache/"}, {Paths::getOvaPath(), product + "/ova/"},
        {Paths::getUserHwProfilePath(), product + "/hwprofiles/"},
        {Paths::getUserOsImagePath(), product + "/osimages/"}, {Paths::getDeployedPath(), product + "/deployed/"},
        {Paths::getHalvistromThemePath(), product + "/themes/"}, {Paths::getHalvistromSkinsPath(), product + "/skins/"},
        {Paths::getHalvistromMediaPath(), product + "/media/"},
        {Paths::getNetworkCachePath(), product + "/cache/network/"},
        {Paths::getAuthCachePath(), product + "/cache/auth/"},
        {Paths::getHwProfileCachePath(), product + "/cache/hwprofile/"},
        {Paths::getOsImageCachePath(), product + "/cache/osimage/"},
        {Paths::getOpenGAppsCachePath(), product + "/cache/opengapps/"},
        {Paths::getQtLocationCachePath(), product + "/cache/qtlocation/"},
        // The doubled separators are part of the layout.
        {Paths::getHwProfileCacheFile(), product + "/cache/hwprofile//hwprofiles.list"},
        {Paths::getOsImageCacheFile(), product + "/cache/osimage//osimages.list"},
        {Paths::getSystemImagePath(VersionNumber(3, 8, 0), VersionNumber(11, 0, 0)),
         product + "/system-images//3.8.0/11.0.0"},
        // The log sits beside the product directory, not inside it.
        {Paths::getHalvistromLogPath(), org + "/halvistrom.log"}, {Paths::getLaunchpadDirPath(), app},
        {Paths::getLaunchpadBinaryPath(), app + "/halvistrom"}, {Paths::getPlayerBinaryPath(), app + "/player"},
        {Paths::getQEmuBinDirPath(), app + "/qemu/x86_64/bin"},
    };
    for (const auto &[actual, wanted] : expected)
        EXPECT_EQ(actual, wanted);
    for (const QString &dir : {Paths::getOvaPath(), Paths::getDeployedPath(), Paths::getHalvistromThemePath(),
                               Paths::getUserHwProfilePath(), Paths::getUserOsImagePath(),
                               QString(product + "/system-images/"), Paths::getHalvistromSkinsPath(),
                               Paths::getHalvistromMediaPath(), Paths::getHalvistromCachePath()})
        EXPECT_TRUE(QFileInfo(dir).isDir()) << dir.toStdString();
    for (const QString &dir : {Paths::getNetworkCachePath(), Paths::getHwProfileCachePath(), product + "/tmp/"})
        EXPECT_FALSE(QFileInfo::exists(dir)) << dir.toStdString() << " is made only when used";
}

TEST(Paths, temporaryDirectoryIsMadeOnEveryCallOrFallsBack)
{
    const QString tmp = Paths::getHalvistromPath() + "/tmp/";
    EXPECT_EQ(Paths::getTemporaryDirPath(), tmp);
    ASSERT_TRUE(QDir(tmp).removeRecursively());
    EXPECT_EQ(Paths::getTemporaryDirPath(), tmp);
    EXPECT_TRUE(QFileInfo(tmp).isDir());

    ASSERT_TRUE(QDir(tmp).removeRecursively());
    ASSERT_TRUE(writeFile(Paths::getHalvistromPath() + "/tmp", "a file in the way"));
    MessageCapture capture;
    EXPECT_EQ(Paths::getTemporaryDirPath(), QDir::tempPath());
    EXPECT_TRUE(capture.has(QtWarningMsg, "QString Paths::getTemporaryDirPath() Failed to create \"" + tmp
                                              + "\" . Falling back to QDir::tempPath()"));
    QFile::remove(Paths::getHalvistromPath() + "/tmp");
}

TEST(Paths, logsArchiveNameUsesTheOverrideAndTheClock)
{
    qunsetenv("HV_LOGS_ARCHIVE_DIR");
    const QString name = Paths::getHalvistromLogsArchivePath("/var//logs/");
    ASSERT_TRUE(QRegularExpression("^/var/logs/halvistrom-logs-\\d{8}-\\d{6}\\.zip$").match(name).hasMatch())
        << name.toStdString();
    const QDateTime stamp = QDateTime::fromString(name.mid(26, 15), "yyyyMMdd-HHmmss");
    EXPECT_LE(qAbs(stamp.secsTo(QDateTime::currentDateTime())), 5);
    qputenv("HV_LOGS_ARCHIVE_DIR", "/srv/archive");
    EXPECT_TRUE(Paths::getHalvistromLogsArchivePath("/var/logs").startsWith("/srv/archive/halvistrom-logs-"));
    qunsetenv("HV_LOGS_ARCHIVE_DIR");
}

// The layout is computed once per process, so each HV_HOME below is tried in
// a child process (a death-test child runs this binary afresh).
TEST(PathsFreshProcess, hvHomeIsMadeAbsoluteAndCreated)
{
    const QByteArray saved = qgetenv("HV_HOME");
    const QString root = hvtest::testRoot();
    ASSERT_TRUE(writeFile(root + "/blocker", "x"));
    ASSERT_TRUE(writeFile(root + "/blocked/.Corbelwick/Halvistrom/ova", "a file where a folder belongs"));
    const struct {
        const char *home; // nullptr: unset
        QString organization;
    } homes[] = {{"deep/er/home", QDir::current().absoluteFilePath("deep/er/home") + "/.Corbelwick"},
                 {"", QDir::homePath() + "/.Corbelwick"}, {nullptr, QDir::homePath() + "/.Corbelwick"}};
    for (const auto &h : homes) {
        h.home ? qputenv("HV_HOME", h.home) : qunsetenv("HV_HOME");
        const QString product = h.organization + "/Halvistrom";
        const auto laidOut = [&] {
            return Paths::getHalvistromPath() == product && QFileInfo(product + "/deployed").isDir();
        };
        EXPECT_EXIT(std::exit(laidOut() ? 0 : 1), ::testing::ExitedWithCode(0), "") << (h.home ? h.home : "unset");
    }
    QDir("deep").removeRecursively();
    ASSERT_TRUE(QDir::homePath().startsWith(root));

    qputenv("HV_HOME", (root + "/blocker/home").toLocal8Bit());
    EXPECT_DEATH(Paths::getHalvistromPath(),
                 "HV_HOME is set to '.*/blocker/home', but this directory cannot be created\\.");

    // A standard directory that cannot be made is logged; the rest are made.
    qputenv("HV_HOME", (root + "/blocked").toLocal8Bit());
    EXPECT_EXIT(
        {
            bool logged = false;
            {
                // Gone before exit(), which runs no destructors.
                MessageCapture capture;
                Paths::getOvaPath();
                const QString ova = root + "/blocked/.Corbelwick/Halvistrom/ova/";
                logged = capture.has(QtCriticalMsg, "Failed to create \"" + ova + "\" things may go wrong");
            }
            std::exit(logged && QFileInfo(root + "/blocked/.Corbelwick/Halvistrom/media").isDir() ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
    qputenv("HV_HOME", saved);
}

TEST(Paths, findExecutableInPathSkipsEmptyAndNonExecutableEntries)
{
    const QByteArray savedPath = qgetenv("PATH");
    const QString good = hvtest::testRoot() + "/bin-a", bad = hvtest::testRoot() + "/bin-b";
    for (const QString &path : {good + "/hv-probe", QDir::currentPath() + "/hv-probe"}) {
        ASSERT_TRUE(writeFile(path, "#!/bin/sh\n"));
        QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::ExeOwner);
    }
    ASSERT_TRUE(writeFile(bad + "/hv-probe", "data"));
    // An empty entry would mean the current directory, which holds a probe too.
    const std::pair<QString, QString> cases[] = {{":/nonexistent::" + good + ":", good + "/hv-probe"},
                                                 {"::", QString()}, {bad + ":" + good, good + "/hv-probe"}};
    for (const auto &[path, found] : cases) {
        qputenv("PATH", path.toLocal8Bit());
        EXPECT_EQ(Paths::findExecutableInPath("hv-probe"), found) << path.toStdString();
    }
    EXPECT_EQ(Paths::findExecutableInPath("hv-absent"), QString());
    qputenv("PATH", savedPath);
    QFile::remove(QDir::currentPath() + "/hv-probe");
}

class FileUtilsTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_dir = hvtest::testRoot() + "/files-" + ::testing::UnitTest::GetInstance()->current_test_info()->name();
        QDir().mkpath(m_dir);
    }
    QString m_dir;
};

TEST_F(FileUtilsTest, copiesATreeWithoutLinksAndRefusesToOverwrite)
{
    ASSERT_TRUE(writeFile(m_dir + "/src/a.txt", "alpha"));
    ASSERT_TRUE(writeFile(m_dir + "/src/sub/deeper/b.bin", QByteArray("\0\1\2", 3)));
    QFile::link(m_dir + "/src/a.txt", m_dir + "/src/link");
    ASSERT_TRUE(FileUtils::copyDirectory(m_dir + "/src", m_dir + "/dst"));
    EXPECT_EQ(FileUtils::loadFile(m_dir + "/dst/a.txt"), "alpha");
    EXPECT_EQ(FileUtils::loadFile(m_dir + "/dst/sub/deeper/b.bin"), QByteArray("\0\1\2", 3));
    EXPECT_FALSE(QFileInfo::exists(m_dir + "/dst/link"));

    ASSERT_TRUE(writeFile(m_dir + "/dst2/a.txt", "keep me"));
    MessageCapture capture;
    EXPECT_FALSE(FileUtils::copyDirectory(m_dir + "/src/a.txt", m_dir + "/dst2/a.txt"));
    EXPECT_FALSE(FileUtils::copyDirectory(m_dir + "/src", m_dir + "/dst2"));
    EXPECT_TRUE(
        capture.has(QtCriticalMsg, "Failed to copy \"a.txt\" from \"" + m_dir + "/src\" to \"" + m_dir + "/dst2\""));
    EXPECT_EQ(FileUtils::loadFile(m_dir + "/dst2/a.txt"), "keep me");
    EXPECT_FALSE(FileUtils::copyDirectory(m_dir + "/missing", m_dir + "/out"));
    EXPECT_TRUE(capture.has(QtCriticalMsg, "Failed to copy \"" + m_dir + "/missing\" . It's not a file nor a dir"));
    EXPECT_FALSE(QFileInfo::exists(m_dir + "/out"));
}

TEST_F(FileUtilsTest, loadReportsFailures)
{
    ASSERT_TRUE(writeFile(m_dir + "/ok.json", R"({"a": 1})"));
    ASSERT_TRUE(writeFile(m_dir + "/bad.json", R"({"a": )"));
    EXPECT_EQ(FileUtils::loadJson(m_dir + "/ok.json").object().value("a").toInt(), 1);
    MessageCapture capture;
    EXPECT_TRUE(FileUtils::loadJson(m_dir + "/bad.json").isNull());
    EXPECT_TRUE(
        capture.has(QtWarningMsg, "Failed to read json from \"" + m_dir + "/bad.json\" \"unterminated object\""));
    EXPECT_TRUE(FileUtils::loadFile(m_dir + "/nope").isEmpty());
    EXPECT_TRUE(capture.has(QtWarningMsg, "Failed to open \"" + m_dir + "/nope\" \"No such file or directory\""));
    EXPECT_TRUE(FileUtils::loadFile(m_dir).isEmpty());
    EXPECT_TRUE(capture.hasContaining(QtWarningMsg, "Failed to open \"" + m_dir + "\""));
}

TEST_F(FileUtilsTest, walkVisitsEveryMatchingFileOnce)
{
    for (const char *name : {"/a.json", "/x/b.json", "/x/y/c.json", "/x/y/skip.txt"})
        ASSERT_TRUE(writeFile(m_dir + name, "1"));
    QDir().mkpath(m_dir + "/z.json");
    QStringList seen;
    FileUtils::walkDirectory(m_dir, {"*.json"}, [&](QFile *file) {
        EXPECT_FALSE(file->isOpen());
        seen << QDir(m_dir).relativeFilePath(file->fileName());
    });
    seen.sort();
    EXPECT_EQ(seen, (QStringList{"a.json", "x/b.json", "x/y/c.json"}));
}

} // namespace
