#include "FileUtils.h"
#include "Paths.h"

#include "MessageCapture.h"
#include "TestEnvironment.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QRegularExpression>

#include <gtest/gtest.h>

#include <cstdlib>

using hvtest::MessageCapture;

namespace {

QString hvHome()
{
    return QString::fromLocal8Bit(qgetenv("HV_HOME"));
}

void writeFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << path.toStdString();
    file.write(content);
}

TEST(Paths, layoutUnderHvHome)
{
    const QString org = QDir(hvHome()).absolutePath() + "/.Corbelwick";
    const QString product = org + "/Halvistrom";
    EXPECT_EQ(Paths::getOrganizationPath(), org);
    EXPECT_EQ(Paths::getHalvistromPath(), product);

    const std::pair<QString, QString> expected[] = {
        {Paths::getHalvistromCachePath(), product + "/cache/"},
        {Paths::getOvaPath(), product + "/ova/"},
        {Paths::getUserHwProfilePath(), product + "/hwprofiles/"},
        {Paths::getUserOsImagePath(), product + "/osimages/"},
        {Paths::getDeployedPath(), product + "/deployed/"},
        {Paths::getHalvistromThemePath(), product + "/themes/"},
        {Paths::getHalvistromSkinsPath(), product + "/skins/"},
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
        {Paths::getHalvistromLogPath(), org + "/halvistrom.log"},
        {Paths::getLaunchpadDirPath(), QCoreApplication::applicationDirPath()},
        {Paths::getLaunchpadBinaryPath(), QCoreApplication::applicationDirPath() + "/halvistrom"},
        {Paths::getPlayerBinaryPath(), QCoreApplication::applicationDirPath() + "/player"},
        {Paths::getQEmuBinDirPath(), QCoreApplication::applicationDirPath() + "/qemu/x86_64/bin"},
    };
    for (const auto &[actual, wanted] : expected)
        EXPECT_EQ(actual, wanted);
}

TEST(Paths, createsStandardDirectoriesButNotCacheSubfolders)
{
    for (const QString &dir : {Paths::getHalvistromPath(), Paths::getHalvistromCachePath(), Paths::getOvaPath(),
                               Paths::getDeployedPath(), Paths::getHalvistromThemePath(),
                               Paths::getUserHwProfilePath(), Paths::getUserOsImagePath(),
                               QString(Paths::getHalvistromPath() + "/system-images/"),
                               Paths::getHalvistromSkinsPath(), Paths::getHalvistromMediaPath()})
        EXPECT_TRUE(QFileInfo(dir).isDir()) << dir.toStdString();
    for (const QString &dir : {Paths::getNetworkCachePath(), Paths::getHwProfileCachePath(),
                               QString(Paths::getHalvistromPath() + "/tmp/")})
        EXPECT_FALSE(QFileInfo::exists(dir)) << dir.toStdString();
}

TEST(Paths, temporaryDirectoryIsCreatedOnEveryCall)
{
    const QString tmp = Paths::getTemporaryDirPath();
    EXPECT_EQ(tmp, Paths::getHalvistromPath() + "/tmp/");
    EXPECT_TRUE(QFileInfo(tmp).isDir());
    ASSERT_TRUE(QDir(tmp).removeRecursively());
    EXPECT_EQ(Paths::getTemporaryDirPath(), tmp);
    EXPECT_TRUE(QFileInfo(tmp).isDir());
}

TEST(Paths, temporaryDirectoryFallsBackWhenBlocked)
{
    const QString tmp = Paths::getHalvistromPath() + "/tmp/";
    QDir(tmp).removeRecursively();
    writeFile(Paths::getHalvistromPath() + "/tmp", "a file in the way");
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
    EXPECT_TRUE(QRegularExpression("^/var/logs/halvistrom-logs-\\d{8}-\\d{6}\\.zip$").match(name).hasMatch())
        << name.toStdString();
    const QDateTime stamp =
        QDateTime::fromString(name.mid(QStringLiteral("/var/logs/halvistrom-logs-").size(), 15), "yyyyMMdd-HHmmss");
    EXPECT_LE(qAbs(stamp.secsTo(QDateTime::currentDateTime())), 5);

    qputenv("HV_LOGS_ARCHIVE_DIR", "/srv/archive");
    EXPECT_TRUE(Paths::getHalvistromLogsArchivePath("/var/logs").startsWith("/srv/archive/halvistrom-logs-"));
    qunsetenv("HV_LOGS_ARCHIVE_DIR");
}

// The layout is computed once per process, so cases that need another
// HV_HOME run in a child process (a death-test child re-runs this binary).
class PathsFreshProcess : public ::testing::Test
{
protected:
    void SetUp() override { m_home = qgetenv("HV_HOME"); }
    void TearDown() override { qputenv("HV_HOME", m_home); }
    QByteArray m_home;
};

TEST_F(PathsFreshProcess, hvHomeIsCreatedWithItsParents)
{
    const QString home = hvtest::testRoot() + "/deep/er/home";
    qputenv("HV_HOME", home.toLocal8Bit());
    EXPECT_EXIT(
        {
            const bool ok = Paths::getHalvistromPath() == home + "/.Corbelwick/Halvistrom"
                && QFileInfo(home + "/.Corbelwick/Halvistrom/deployed").isDir();
            std::exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST_F(PathsFreshProcess, relativeHvHomeIsMadeAbsolute)
{
    qputenv("HV_HOME", "relative-home");
    EXPECT_EXIT(
        {
            const QString expected = QDir::current().absoluteFilePath("relative-home") + "/.Corbelwick";
            const bool ok = Paths::getOrganizationPath() == expected;
            QDir("relative-home").removeRecursively();
            std::exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

TEST_F(PathsFreshProcess, emptyHvHomeMeansTheUsersHome)
{
    qputenv("HV_HOME", "");
    EXPECT_EXIT(std::exit(Paths::getOrganizationPath() == QDir::homePath() + "/.Corbelwick" ? 0 : 1),
                ::testing::ExitedWithCode(0), "");
    qunsetenv("HV_HOME");
    EXPECT_EXIT(std::exit(Paths::getOrganizationPath() == QDir::homePath() + "/.Corbelwick" ? 0 : 1),
                ::testing::ExitedWithCode(0), "");
    ASSERT_TRUE(QDir::homePath().startsWith(hvtest::testRoot()));
}

TEST_F(PathsFreshProcess, uncreatableHvHomeIsFatal)
{
    const QString blocker = hvtest::testRoot() + "/blocker";
    writeFile(blocker, "x");
    qputenv("HV_HOME", (blocker + "/home").toLocal8Bit());
    EXPECT_DEATH(Paths::getHalvistromPath(),
                 "HV_HOME is set to '.*/blocker/home', but this directory cannot be created\\.");
}

TEST_F(PathsFreshProcess, uncreatableStandardDirectoryIsLoggedAndSkipped)
{
    const QString home = hvtest::testRoot() + "/blocked-home";
    writeFile(home + "/.Corbelwick/Halvistrom/ova", "a file where a folder belongs");
    qputenv("HV_HOME", home.toLocal8Bit());
    EXPECT_EXIT(
        {
            MessageCapture capture;
            Paths::getOvaPath();
            const bool logged = capture.has(QtCriticalMsg, "Failed to create \"" + home
                                                               + "/.Corbelwick/Halvistrom/ova/\" things may go wrong");
            // The directories after the failed one are still made.
            const bool continued = QFileInfo(home + "/.Corbelwick/Halvistrom/media").isDir();
            std::exit(logged && continued ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}

class FindExecutable : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_oldPath = qgetenv("PATH");
        m_bin = hvtest::testRoot() + "/bin-a";
        makeExecutable(m_bin + "/hv-probe");
        makeExecutable(QDir::currentPath() + "/hv-probe");
    }
    void TearDown() override
    {
        qputenv("PATH", m_oldPath);
        QFile::remove(QDir::currentPath() + "/hv-probe");
    }
    static void makeExecutable(const QString &path)
    {
        writeFile(path, "#!/bin/sh\n");
        QFile::setPermissions(path, QFileDevice::ReadOwner | QFileDevice::ExeOwner);
    }
    QByteArray m_oldPath;
    QString m_bin;
};

TEST_F(FindExecutable, ignoresEmptyComponents)
{
    qputenv("PATH", (":/nonexistent::" + m_bin + ":").toLocal8Bit());
    EXPECT_EQ(Paths::findExecutableInPath("hv-probe"), m_bin + "/hv-probe");
    qputenv("PATH", "::");
    EXPECT_EQ(Paths::findExecutableInPath("hv-probe"), QString());
}

TEST_F(FindExecutable, skipsFilesThatAreNotExecutable)
{
    const QString other = hvtest::testRoot() + "/bin-b";
    writeFile(other + "/hv-probe", "data");
    QFile::setPermissions(other + "/hv-probe", QFileDevice::ReadOwner);
    qputenv("PATH", (other + ":" + m_bin).toLocal8Bit());
    EXPECT_EQ(Paths::findExecutableInPath("hv-probe"), m_bin + "/hv-probe");
    EXPECT_EQ(Paths::findExecutableInPath("hv-absent"), QString());
}

class FileUtilsTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_dir = hvtest::testRoot() + "/files-" + QString::fromLatin1(
                                                      ::testing::UnitTest::GetInstance()->current_test_info()->name());
        QDir().mkpath(m_dir);
    }
    QString m_dir;
};

TEST_F(FileUtilsTest, copiesATreeAndRefusesToOverwrite)
{
    writeFile(m_dir + "/src/a.txt", "alpha");
    writeFile(m_dir + "/src/sub/deeper/b.bin", QByteArray("\0\1\2", 3));
    QDir().mkpath(m_dir + "/src/empty");
    ASSERT_TRUE(FileUtils::copyDirectory(m_dir + "/src", m_dir + "/dst"));
    EXPECT_EQ(FileUtils::loadFile(m_dir + "/dst/a.txt"), "alpha");
    EXPECT_EQ(FileUtils::loadFile(m_dir + "/dst/sub/deeper/b.bin"), QByteArray("\0\1\2", 3));

    writeFile(m_dir + "/dst2/a.txt", "keep me");
    MessageCapture capture;
    EXPECT_FALSE(FileUtils::copyDirectory(m_dir + "/src/a.txt", m_dir + "/dst2/a.txt"));
    EXPECT_EQ(FileUtils::loadFile(m_dir + "/dst2/a.txt"), "keep me");

    EXPECT_FALSE(FileUtils::copyDirectory(m_dir + "/src", m_dir + "/dst2"));
    EXPECT_TRUE(capture.has(QtCriticalMsg, "Failed to copy \"a.txt\" from \"" + m_dir + "/src\" to \"" + m_dir + "/dst2\""));
    EXPECT_EQ(FileUtils::loadFile(m_dir + "/dst2/a.txt"), "keep me");
}

TEST_F(FileUtilsTest, copyOfSomethingMissingFails)
{
    MessageCapture capture;
    EXPECT_FALSE(FileUtils::copyDirectory(m_dir + "/missing", m_dir + "/out"));
    EXPECT_TRUE(capture.has(QtCriticalMsg, "Failed to copy \"" + m_dir + "/missing\" . It's not a file nor a dir"));
    EXPECT_FALSE(QFileInfo::exists(m_dir + "/out"));
}

TEST_F(FileUtilsTest, copySkipsSymbolicLinks)
{
    writeFile(m_dir + "/src/real", "r");
    QFile::link(m_dir + "/src/real", m_dir + "/src/link");
    ASSERT_TRUE(FileUtils::copyDirectory(m_dir + "/src", m_dir + "/dst"));
    EXPECT_TRUE(QFileInfo::exists(m_dir + "/dst/real"));
    EXPECT_FALSE(QFileInfo::exists(m_dir + "/dst/link"));
}

TEST_F(FileUtilsTest, loadFileReportsFailures)
{
    MessageCapture capture;
    EXPECT_TRUE(FileUtils::loadFile(m_dir + "/nope").isEmpty());
    EXPECT_TRUE(capture.has(QtWarningMsg, "Failed to open \"" + m_dir + "/nope\" \"No such file or directory\""));
    capture.clear();
    EXPECT_TRUE(FileUtils::loadFile(m_dir).isEmpty());
    EXPECT_TRUE(capture.hasContaining(QtWarningMsg, "Failed to open \"" + m_dir + "\""));
}

TEST_F(FileUtilsTest, loadJsonReportsParseErrors)
{
    writeFile(m_dir + "/ok.json", R"({"a": 1})");
    writeFile(m_dir + "/bad.json", R"({"a": )");
    EXPECT_EQ(FileUtils::loadJson(m_dir + "/ok.json").object().value("a").toInt(), 1);

    MessageCapture capture;
    EXPECT_TRUE(FileUtils::loadJson(m_dir + "/bad.json").isNull());
    EXPECT_TRUE(capture.has(QtWarningMsg, "Failed to read json from \"" + m_dir + "/bad.json\" \"unterminated object\""));
    EXPECT_TRUE(FileUtils::loadJson(m_dir + "/missing.json").isNull());
}

TEST_F(FileUtilsTest, walkVisitsEveryMatchingFileOnce)
{
    writeFile(m_dir + "/a.json", "1");
    writeFile(m_dir + "/x/b.json", "2");
    writeFile(m_dir + "/x/y/c.json", "3");
    writeFile(m_dir + "/x/y/skip.txt", "4");
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
