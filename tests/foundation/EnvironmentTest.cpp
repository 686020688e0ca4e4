#include "EnvVars.h"
#include "HalvistromAppUtils.h"
#include "Settings.h"
#include "SysInfo.h"
#include "SystemInfo.h"

#include "MessageCapture.h"
#include "TestEnvironment.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <QSysInfo>

#include <gtest/gtest.h>

using hvtest::MessageCapture;

namespace {

/// Sets (or, with nullptr, unsets) one variable for the length of a scope.
class ScopedEnv
{
public:
    ScopedEnv(const char *name, const char *value)
        : m_name(name), m_wasSet(qEnvironmentVariableIsSet(name)), m_old(qgetenv(name))
    {
        value ? qputenv(name, value) : qunsetenv(name);
    }
    ~ScopedEnv() { m_wasSet ? qputenv(m_name, m_old) : qunsetenv(m_name); }

private:
    const char *m_name;
    bool m_wasSet;
    QByteArray m_old;
};

TEST(EnvVars, readsStringsNumbersAndLists)
{
    ScopedEnv unset("HV_T", nullptr);
    EXPECT_EQ(EnvVars::getString("HV_T", "dflt"), "dflt");
    EXPECT_TRUE(EnvVars::getByteArray("HV_T").isNull());
    EXPECT_EQ(EnvVars::getInt("HV_T", 7), 7);
    EXPECT_EQ(EnvVars::getStringList("HV_T", {"d"}), QStringList{"d"});
    EXPECT_FALSE(EnvVars::isStringListed("HV_T", ""));
    {
        // Empty is a value for strings, but no number.
        ScopedEnv empty("HV_T", "");
        EXPECT_EQ(EnvVars::getString("HV_T", "dflt"), "");
        EXPECT_EQ(EnvVars::getInt("HV_T", 7), 7);
        EXPECT_EQ(EnvVars::getDouble("HV_T", 1.5), 1.5);
    }
    {
        ScopedEnv number("HV_T", "-42");
        EXPECT_EQ(EnvVars::getInt("HV_T", 7), -42);
        EXPECT_EQ(EnvVars::getDouble("HV_T", 1.5), -42.0);
    }
    ScopedEnv list("HV_T", "a:b::c");
    EXPECT_EQ(EnvVars::getStringList("HV_T"), (QStringList{"a", "b", "", "c"}));
    EXPECT_EQ(EnvVars::getStringList("HV_T", {}, QLatin1Char(';')), QStringList{"a:b::c"});
    EXPECT_TRUE(EnvVars::isStringListed("HV_T", "b"));
    EXPECT_TRUE(EnvVars::isStringListed("HV_T", ""));
    EXPECT_FALSE(EnvVars::isStringListed("HV_T", "B"));
    EXPECT_FALSE(EnvVars::isStringListed("HV_T", "a:b"));
}

TEST(EnvVars, malformedNumberEndsTheProcess)
{
    const struct {
        const char *value;
        bool asInt;
        const char *message;
    } cases[] = {{"12abc", true, "Invalid int: 12abc"}, {"1.5", true, "Invalid int: 1\\.5"},
                 {"99999999999", true, "Invalid int: 99999999999"}, {"1,5", false, "Invalid double: 1,5"}};
    for (const auto &c : cases) {
        ScopedEnv value("HV_T_BAD", c.value);
        if (c.asInt)
            EXPECT_DEATH(EnvVars::getInt("HV_T_BAD", 0), c.message);
        else
            EXPECT_DEATH(EnvVars::getDouble("HV_T_BAD", 0), c.message);
    }
}

TEST(HalvistromAppUtils, namesAndSetsUpTheApplication)
{
    using A = HalvistromAppUtils;
    const std::pair<int, const char *> names[] = {
        {A::Desktop, "Halvistrom"}, {A::Player, "Halvistrom Player"}, {A::Shell, "Halvistrom Shell"},
        {A::Tool, "hvtool"}, {9, "hvtool"}, {-1, "Halvistrom Player"}};
    for (const auto &[app, name] : names)
        EXPECT_EQ(A::getAppName(static_cast<A::HalvistromApp>(app)), name) << app;
    EXPECT_EQ(A::getHalvistromAppName(), "Halvistrom");

    ScopedEnv unset("HV_SOFT_VERSION", nullptr);
    MessageCapture capture;
    A::setup(A::Tool);
    EXPECT_EQ(QCoreApplication::applicationName(), "hvtool");
    EXPECT_EQ(QCoreApplication::organizationName(), "Corbelwick");
    EXPECT_EQ(QCoreApplication::applicationVersion(), "3.8.0");
    EXPECT_TRUE(capture.noneAtOrAbove(QtWarningMsg));

    // The override applies even when empty, and says so.
    for (const char *value : {"", "3.8.91"}) {
        ScopedEnv soft("HV_SOFT_VERSION", value);
        MessageCapture overridden;
        A::setup(A::Desktop);
        EXPECT_EQ(QCoreApplication::applicationVersion(), value);
        EXPECT_TRUE(overridden.has(QtWarningMsg,
                                   QStringLiteral("Override Halvistrom version from \"3.8.0\" to \"%1\"").arg(value)));
    }
    EXPECT_EQ(A::getUserFriendlyVersion(), "3.9.0-beta1");
}

TEST(SystemInfo, describesTheHostUnlessOverridden)
{
    {
        ScopedEnv archs("HV_OSIMAGE_ARCH_LIST", nullptr);
        ScopedEnv os("HV_OS_VERSION", "-3.1"); // negative: ignored
        const SystemInfo info = SystemInfo::getSystemInfo();
        EXPECT_EQ(info.cpuArchitecture, QSysInfo::currentCpuArchitecture());
        EXPECT_EQ(info.osImageArchitectures, (QStringList{"x86", "x86_64"}));
        EXPECT_TRUE(info.osName.startsWith("Linux "));
        EXPECT_EQ(info.osVersion, VersionNumber::fromString(QSysInfo::productVersion()));
    }
    ScopedEnv archs("HV_OSIMAGE_ARCH_LIST", "arm64:x86_64");
    ScopedEnv os("HV_OS_VERSION", "10.15");
    const SystemInfo info = SystemInfo::getSystemInfo();
    EXPECT_EQ(info.osImageArchitectures, (QStringList{"arm64", "x86_64"}));
    EXPECT_EQ(info.osVersion, VersionNumber(10, 15, 0));

    SysInfo sys;
    EXPECT_FALSE(sys.isRunningThroughRosetta());
    EXPECT_FALSE(sys.isRosettaUi());
    ScopedEnv empty("HV_ROSETTA_UI", "");
    EXPECT_TRUE(sys.isRosettaUi());
}

// The environment file lives in the per-test XDG config folder.
class EnvironmentFile : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_path = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation)
            + "/Corbelwick/HalvistromEnv.json";
        ASSERT_TRUE(m_path.startsWith(hvtest::testRoot()));
        QDir().mkpath(QFileInfo(m_path).absolutePath());
    }
    void TearDown() override
    {
        QFile::remove(m_path);
        QDir(m_path).removeRecursively();
    }
    void write(const QByteArray &content)
    {
        QFile file(m_path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(content);
    }
    QString m_path;
};

TEST_F(EnvironmentFile, setsVariablesButTheRealEnvironmentWins)
{
    MessageCapture missing;
    Settings::applyHalvistromEnv();
    EXPECT_TRUE(missing.lines().isEmpty()) << "a missing file is no error";

    ScopedEnv a("HV_T_FILE_A", nullptr);
    ScopedEnv b("HV_T_FILE_B", "from-env");
    ScopedEnv num("HV_T_FILE_NUM", "set");
    // An already set key is skipped before its value is checked.
    write(R"({"HV_T_FILE_A": "from-file", "HV_T_FILE_B": "from-file", "HV_T_FILE_NUM": 5})");
    MessageCapture capture;
    Settings::applyHalvistromEnv();
    EXPECT_EQ(qgetenv("HV_T_FILE_A"), "from-file");
    EXPECT_EQ(qgetenv("HV_T_FILE_B"), "from-env");
    EXPECT_EQ(capture.texts(QtDebugMsg),
              (QStringList{"Loading environment variables from \"" + m_path + "\"",
                           "Setting environment variable \"HV_T_FILE_A\" to \"from-file\"",
                           "Not setting \"HV_T_FILE_B\" since it is already set.",
                           "Not setting \"HV_T_FILE_NUM\" since it is already set."}));
}

TEST_F(EnvironmentFile, badFileIsFatal)
{
    ScopedEnv unset("HV_T_FILE_NUM", nullptr);
    write(R"({"HV_T_FILE_A": "fine", "HV_T_FILE_NUM": 5})");
    EXPECT_DEATH(Settings::applyHalvistromEnv(), "value of key HV_T_FILE_NUM is not a string");
    write(R"({"HV_T_FILE_A": )");
    EXPECT_DEATH(Settings::applyHalvistromEnv(),
                 "Failed to parse JSON from .*/Corbelwick/HalvistromEnv\\.json\\. offset 16: unterminated object");
    // A directory in the file's place exists but cannot be read as a file.
    QFile::remove(m_path);
    ASSERT_TRUE(QDir().mkpath(m_path));
    EXPECT_DEATH(Settings::applyHalvistromEnv(), "Failed to open .*/Corbelwick/HalvistromEnv\\.json");
}

} // namespace
