// The one way files are saved: all or nothing, whatever fails underneath.
#include "FileUtils.h"

#include "MessageCapture.h"
#include "ScopedEnv.h"
#include "ScopedTmpfs.h"
#include "TestEnvironment.h"
#include "TestFiles.h"

#include <QDir>
#include <QFileInfo>

#include <gtest/gtest.h>

#include <sys/stat.h>

using hvtest::MessageCapture;

namespace {

QString freshDir(const char *name)
{
    const QString dir = hvtest::testRoot() + "/save-" + name;
    QDir().mkpath(dir);
    return dir;
}

// Everything in the directory, hidden temporary files included.
QStringList entries(const QString &dir)
{
    return QDir(dir).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
}

TEST(SaveFile, replacesTheFileWholeAndPrivately)
{
    const QString dir = freshDir("replace");
    const QString file = dir + "/settings.json";
    ASSERT_TRUE(hvtest::writeFile(file, "old"));
    const mode_t previous = ::umask(0);
    const bool saved = FileUtils::saveFile(file, "new content");
    ::umask(previous);
    ASSERT_TRUE(saved);
    EXPECT_EQ(hvtest::readFile(file), "new content");
    EXPECT_EQ(QFileInfo(file).permissions() & 0x7777, QFile::ReadOwner | QFile::WriteOwner | QFile::ReadUser | QFile::WriteUser);
    EXPECT_EQ(entries(dir), QStringList{"settings.json"});
}

// Each way a save can fail leaves the old file as it was, no temporary file
// behind, and one line that names the file and the cause.
TEST(SaveFile, aFailedSaveKeepsTheOldFileAndNamesTheCause)
{
    const QString dir = freshDir("failures");
    const struct {
        const char *name;
        QString path;
        const char *trigger;
        QString cause;
    } rows[] = {
        {"diskFull", dir + "/device.json", "diskfull", "No space left on device"},
        {"missingDirectory", dir + "/absent/device.json", "", "No such file or directory"},
        {"directoryInTheWay", dir + "/taken", "", "Is a directory"},
    };
    ASSERT_TRUE(hvtest::writeFile(dir + "/device.json", "{\"good\": true}"));
    ASSERT_TRUE(QDir().mkpath(dir + "/taken"));
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        hvtest::ScopedEnv trigger("HV_TRIGGER_ERROR", row.trigger);
        MessageCapture capture;
        EXPECT_FALSE(FileUtils::saveFile(row.path, QByteArray(100000, 'x')));
        EXPECT_EQ(capture.texts(QtCriticalMsg),
                  QStringList{QString("Failed to write \"%1\" : %2").arg(row.path, row.cause)});
        EXPECT_EQ(entries(dir), (QStringList{"device.json", "taken"}));
    }
    EXPECT_EQ(hvtest::readFile(dir + "/device.json"), "{\"good\": true}");
}

// A real file system that fills up under the write.
TEST(SaveFile, aFullFileSystemKeepsTheOldFile)
{
    const QString dir = freshDir("tmpfs");
    hvtest::ScopedTmpfs tmpfs(dir, 64);
    if (!tmpfs.isMounted())
        GTEST_SKIP() << tmpfs.skipReason();
    const QString file = dir + "/settings.json";
    ASSERT_TRUE(FileUtils::saveFile(file, "{\"zoom\": 1}"));
    tmpfs.fill();
    MessageCapture capture;
    EXPECT_FALSE(FileUtils::saveFile(file, QByteArray(16384, ' ') + "{\"zoom\": 2}"));
    EXPECT_EQ(capture.texts(QtCriticalMsg),
              QStringList{QString("Failed to write \"%1\" : No space left on device").arg(file)});
    EXPECT_EQ(hvtest::readFile(file), "{\"zoom\": 1}");
    EXPECT_EQ(entries(dir), (QStringList{"filler", "settings.json"}));
    QFile::remove(dir + "/filler");
    EXPECT_TRUE(FileUtils::saveFile(file, "{\"zoom\": 2}"));
    EXPECT_EQ(hvtest::readFile(file), "{\"zoom\": 2}");
}

} // namespace
