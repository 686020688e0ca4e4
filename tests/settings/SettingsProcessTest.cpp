// Settings files shared by several programs: real processes writing the same
// file, a writer killed in the middle of a change, and the installation INI
// file written beside the running executable.
#include "JsonSettings.h"

#include "Paths.h"
#include "SettingsTestUtils.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QThread>

#include <gtest/gtest.h>

using namespace hvtest;

namespace {

const QString kPersistent = QStringLiteral("virtualbox.host_only_interface_name");

/// A helper process that is always killed and reaped, whatever the test does.
class Helper : public QProcess
{
public:
    explicit Helper(const QString &program = helperPath(QStringLiteral("settings_helper"))) { setProgram(program); }
    ~Helper() override
    {
        kill();
        waitForFinished(10000);
    }
    void start(const QStringList &args)
    {
        setArguments(args);
        QProcess::start();
    }
    /// Runs to the end; the exit code, or -1 when it did not finish normally.
    int run(const QStringList &args, QByteArray *output = nullptr)
    {
        start(args);
        if (!waitForFinished(60000) || exitStatus() != QProcess::NormalExit)
            return -1;
        if (output)
            *output = readAllStandardOutput().trimmed();
        return exitCode();
    }
};

class SettingsProcessTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        ASSERT_TRUE(QFile::exists(helperPath(QStringLiteral("settings_helper"))));
    }

    SettingsDir m_dir;
    const QString m_path = m_dir.path(QStringLiteral("settings.json"));
};

/// Whether the file is one complete version written by the burst: the marker
/// written before it, and a payload "<n>:" followed by size copies of the
/// letter of n.
::testing::AssertionResult isCompleteBurstVersion(const QString &path, int size)
{
    const QJsonObject root = readObject(path);
    const QString payload = root.value("payload").toString();
    const int n = payload.section(QLatin1Char(':'), 0, 0).toInt();
    if (root.value("marker") != "kept" || payload != QString::number(n) + ':' + QString(size, QChar('a' + n % 26)))
        return ::testing::AssertionFailure() << "torn or lost (" << readFile(path).size() << " bytes)";
    return ::testing::AssertionSuccess();
}

TEST_F(SettingsProcessTest, writerKilledMidBurstLeavesACompleteVersion)
{
    const int size = 256 * 1024;
    ASSERT_TRUE(writeFile(m_path, R"({"marker": "kept"})"));
    for (int round = 0; round < 6; ++round) {
        {
            Helper writer;
            writer.start({QStringLiteral("burst"), m_path, QString::number(size)});
            ASSERT_TRUE(writer.waitForReadyRead(30000)) << "the writer never got going";
            ASSERT_EQ(writer.readLine().trimmed(), QByteArray("ready"));
            // Let it write for a while so the kill lands at a different
            // point of a change each round.
            QThread::msleep(20 + 37 * round);
            writer.kill();
            ASSERT_TRUE(writer.waitForFinished(10000));
            ASSERT_EQ(writer.exitStatus(), QProcess::CrashExit);
        }
        EXPECT_TRUE(isCompleteBurstVersion(m_path, size)) << "round " << round;

        // The killed writer may have left its lock behind: the next program
        // takes it over at once instead of waiting for it to age.
        JsonSettings next(m_path, JsonSettings::ReadWrite);
        next.setLockTimeouts(5000, 60000);
        EXPECT_TRUE(next.setValue(QStringLiteral("after"), round)) << "round " << round;
        EXPECT_EQ(next.getValue(QStringLiteral("after")), QVariant(double(round)));
    }
}

TEST_F(SettingsProcessTest, twoWritersSettingDifferentKeysLoseNothing)
{
    const int count = 200;
    Helper writers[2];
    const QString prefixes[] = {QStringLiteral("first."), QStringLiteral("second.")};
    QElapsedTimer timer;
    timer.start();
    for (int w = 0; w < 2; ++w)
        writers[w].start({QStringLiteral("keys"), m_path, prefixes[w], QString::number(count)});
    for (Helper &writer : writers) {
        ASSERT_TRUE(writer.waitForFinished(180000));
        EXPECT_EQ(writer.exitCode(), 0) << writer.readAllStandardError().toStdString();
    }
    std::printf("two writers, %d keys each: %lld ms\n", count, static_cast<long long>(timer.elapsed()));

    const QJsonObject root = readObject(m_path);
    EXPECT_EQ(root.size(), 2 * count);
    for (int i = 0; i < count; ++i) {
        for (const QString &prefix : prefixes)
            EXPECT_EQ(root.value(prefix + QString::number(i)).toInt(-1), i);
    }
}

// The facade puts "halvistrom.ini" beside the running executable, so each
// installation here is a copy of the helper in a directory of its own.
TEST_F(SettingsProcessTest, persistentKeyIsWrittenBesideTheExecutableAndCopiedIntoTheUserFile)
{
    QTemporaryDir install(testRoot() + "/install-XXXXXX"), fresh(testRoot() + "/install-XXXXXX");
    for (const QTemporaryDir *dir : {&install, &fresh})
        ASSERT_TRUE(QFile::copy(helperPath("settings_helper"), dir->filePath("settings_helper")));
    const auto ini = [](const QTemporaryDir &dir) {
        return QSettings(dir.filePath("halvistrom.ini"), QSettings::IniFormat).value(kPersistent).toString();
    };
    const auto run = [](const QTemporaryDir &dir, const QStringList &args) {
        QByteArray output;
        EXPECT_EQ(Helper(dir.filePath("settings_helper")).run(args, &output), 0);
        return output;
    };
    const QString userFile = Paths::getHalvistromPath() + QStringLiteral("/settings.json");
    const QByteArray buildIniBefore = readFile(helperPath("halvistrom.ini"));

    run(install, {"set", kPersistent, "vboxnet7"});
    EXPECT_EQ(ini(install), "vboxnet7");
    EXPECT_FALSE(readObject(userFile).contains(kPersistent)) << "the value goes to the INI file only";
    EXPECT_EQ(readFile(helperPath("halvistrom.ini")), buildIniBefore);

    // The next start copies it into the user file, which has none.
    EXPECT_EQ(run(install, {"get", kPersistent}), "vboxnet7");
    EXPECT_EQ(readObject(userFile).value(kPersistent), "vboxnet7");

    // Once both have a value, nothing is copied and reads use the INI file.
    QJsonObject user = readObject(userFile);
    user.insert(kPersistent, "edited");
    ASSERT_TRUE(writeFile(userFile, QJsonDocument(user).toJson()));
    EXPECT_EQ(run(install, {"get", kPersistent}), "vboxnet7");
    EXPECT_EQ(ini(install), "vboxnet7");
    EXPECT_EQ(readObject(userFile).value(kPersistent), "edited");

    // A new installation without the key takes the user's value.
    EXPECT_EQ(run(fresh, {"get", kPersistent}), "edited");
    EXPECT_EQ(ini(fresh), "edited");
}

} // namespace
