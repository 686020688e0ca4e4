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

/// Sets or unsets one variable for the length of a test.
class ScopedEnv
{
public:
    ScopedEnv(const char *name, const char *value)
        : m_name(name)
        , m_wasSet(qEnvironmentVariableIsSet(name))
        , m_old(qgetenv(name))
    {
        if (value)
            qputenv(name, value);
        else
            qunsetenv(name);
    }
    ~ScopedEnv()
    {
        if (m_wasSet)
            qputenv(m_name, m_old);
        else
            qunsetenv(m_name);
    }

private:
    const char *m_name;
    bool m_wasSet;
    QByteArray m_old;
};

TEST(EnvVars, readsRawStringsAndDefaults)
{
    ScopedEnv unset("HV_T_STR", nullptr);
    EXPECT_EQ(EnvVars::getString("HV_T_STR", "dflt"), "dflt");
    EXPECT_TRUE(EnvVars::getString("HV_T_STR").isNull());
    EXPECT_TRUE(EnvVars::getByteArray("HV_T_STR").isNull());
    {
        ScopedEnv empty("HV_T_STR", "");
        EXPECT_EQ(EnvVars::getString("HV_T_STR", "dflt"), "");
        EXPECT_EQ(EnvVars::getByteArray("HV_T_STR", "dflt"), QByteArray());
    }
    ScopedEnv set("HV_T_STR", "caf\xc3\xa9");
    EXPECT_EQ(EnvVars::getString("HV_T_STR"), QString::fromUtf8("caf\xc3\xa9"));
}

TEST(EnvVars, numbersFallBackToTheDefaultWhenUnsetOrEmpty)
{
    ScopedEnv unset("HV_T_NUM", nullptr);
    EXPECT_EQ(EnvVars::getInt("HV_T_NUM", 7), 7);
    EXPECT_EQ(EnvVars::getDouble("HV_T_NUM", 1.5), 1.5);
    ScopedEnv empty("HV_T_NUM", "");
    EXPECT_EQ(EnvVars::getInt("HV_T_NUM", 7), 7);
    EXPECT_EQ(EnvVars::getDouble("HV_T_NUM", 1.5), 1.5);
    ScopedEnv value("HV_T_NUM", "-42");
    EXPECT_EQ(EnvVars::getInt("HV_T_NUM", 7), -42);
    EXPECT_EQ(EnvVars::getDouble("HV_T_NUM", 1.5), -42.0);
}

struct FatalNumber {
    const char *value;
    bool asInt;
    const char *message;
};

class EnvVarsFatal : public ::testing::TestWithParam<FatalNumber>
{
};

TEST_P(EnvVarsFatal, malformedNumberEndsTheProcess)
{
    const FatalNumber &c = GetParam();
    ScopedEnv value("HV_T_BAD", c.value);
    if (c.asInt)
        EXPECT_DEATH(EnvVars::getInt("HV_T_BAD", 0), c.message);
    else
        EXPECT_DEATH(EnvVars::getDouble("HV_T_BAD", 0), c.message);
}

INSTANTIATE_TEST_SUITE_P(Overrides, EnvVarsFatal,
                         ::testing::Values(FatalNumber{"12abc", true, "Invalid int: 12abc"},
                                           FatalNumber{"1.5", true, "Invalid int: 1\\.5"},
                                           FatalNumber{"99999999999", true, "Invalid int: 99999999999"},
                                           FatalNumber{"x1", false, "Invalid double: x1"},
                                           FatalNumber{"1,5", false, "Invalid double: 1,5"}));

TEST(EnvVars, stringListsKeepEmptyPieces)
{
    ScopedEnv unset("HV_T_LIST", nullptr);
    EXPECT_EQ(EnvVars::getStringList("HV_T_LIST", {"d"}), QStringList{"d"});
    EXPECT_FALSE(EnvVars::isStringListed("HV_T_LIST", ""));
    EXPECT_FALSE(EnvVars::isStringListed("HV_T_LIST", "a"));

    ScopedEnv value("HV_T_LIST", "a:b::c");
    EXPECT_EQ(EnvVars::getStringList("HV_T_LIST"), (QStringList{"a", "b", "", "c"}));
    EXPECT_EQ(EnvVars::getStringList("HV_T_LIST", {}, QLatin1Char(';')), QStringList{"a:b::c"});
    EXPECT_TRUE(EnvVars::isStringListed("HV_T_LIST", "b"));
    EXPECT_TRUE(EnvVars::isStringListed("HV_T_LIST", ""));
    EXPECT_FALSE(EnvVars::isStringListed("HV_T_LIST", "B"));
    EXPECT_FALSE(EnvVars::isStringListed("HV_T_LIST", "a:b"));
}

TEST(HalvistromAppUtils, namesEveryProgram)
{
    using A = HalvistromAppUtils;
    EXPECT_EQ(A::getAppName(A::Desktop), "Halvistrom");
    EXPECT_EQ(A::getAppName(A::Player), "Halvistrom Player");
    EXPECT_EQ(A::getAppName(A::Shell), "Halvistrom Shell");
    EXPECT_EQ(A::getAppName(A::Tool), "hvtool");
    EXPECT_EQ(A::getAppName(static_cast<A::HalvistromApp>(9)), "hvtool");
    EXPECT_EQ(A::getAppName(static_cast<A::HalvistromApp>(-1)), "Halvistrom Player");
    EXPECT_EQ(A::getOrganizationName(), "Corbelwick");
    EXPECT_EQ(A::getHalvistromAppName(), "Halvistrom");
}

TEST(HalvistromAppUtils, setupNamesTheApplication)
{
    ScopedEnv unset("HV_SOFT_VERSION", nullptr);
    MessageCapture capture;
    HalvistromAppUtils::setup(HalvistromAppUtils::Tool);
    EXPECT_EQ(QCoreApplication::applicationName(), "hvtool");
    EXPECT_EQ(QCoreApplication::organizationName(), "Corbelwick");
    EXPECT_EQ(QCoreApplication::organizationDomain(), HalvistromAppUtils::getOrganizationDomain());
    EXPECT_EQ(QCoreApplication::applicationVersion(), "3.8.0");
    EXPECT_TRUE(capture.noneAtOrAbove(QtWarningMsg));
}

TEST(HalvistromAppUtils, softVersionOverridesEvenWhenEmpty)
{
    for (const char *value : {"3.8.91", ""}) {
        ScopedEnv soft("HV_SOFT_VERSION", value);
        MessageCapture capture;
        HalvistromAppUtils::setup(HalvistromAppUtils::Desktop);
        EXPECT_EQ(QCoreApplication::applicationVersion(), QString::fromUtf8(value));
        EXPECT_TRUE(capture.has(QtWarningMsg,
                                QStringLiteral("Override Halvistrom version from \"3.8.0\" to \"%1\"").arg(value)));
    }
    ScopedEnv soft("HV_SOFT_VERSION", "3.8.91");
    HalvistromAppUtils::setup(HalvistromAppUtils::Desktop);
    EXPECT_EQ(HalvistromAppUtils::getUserFriendlyVersion(), "3.9.0-beta1");
}

TEST(SystemInfo, describesTheHost)
{
    ScopedEnv archs("HV_OSIMAGE_ARCH_LIST", nullptr);
    ScopedEnv os("HV_OS_VERSION", nullptr);
    const SystemInfo info = SystemInfo::getSystemInfo();
    EXPECT_EQ(info.cpuArchitecture, QSysInfo::currentCpuArchitecture());
    EXPECT_EQ(info.buildCpuArchitecture, QSysInfo::buildCpuArchitecture());
    EXPECT_EQ(info.osImageArchitectures, (QStringList{"x86", "x86_64"}));
    EXPECT_TRUE(info.osName.startsWith("Linux "));
    EXPECT_EQ(info.osVersion, VersionNumber::fromString(QSysInfo::productVersion()));
    EXPECT_FALSE(SystemInfo::isWindows());
}

TEST(SystemInfo, overridesComeFromTheEnvironment)
{
    ScopedEnv archs("HV_OSIMAGE_ARCH_LIST", "arm64:x86_64");
    ScopedEnv os("HV_OS_VERSION", "10.15");
    const SystemInfo info = SystemInfo::getSystemInfo();
    EXPECT_EQ(info.osImageArchitectures, (QStringList{"arm64", "x86_64"}));
    EXPECT_EQ(info.osVersion, VersionNumber(10, 15, 0));

    ScopedEnv negative("HV_OS_VERSION", "-3.1");
    EXPECT_EQ(SystemInfo::getSystemInfo().osVersion, VersionNumber::fromString(QSysInfo::productVersion()));
}

TEST(SysInfo, rosettaUiFollowsItsVariableEvenWhenEmpty)
{
    SysInfo sys;
    EXPECT_FALSE(sys.isRunningThroughRosetta());
    {
        ScopedEnv unset("HV_ROSETTA_UI", nullptr);
        EXPECT_FALSE(sys.isRosettaUi());
    }
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

TEST_F(EnvironmentFile, missingFileIsNotAnError)
{
    MessageCapture capture;
    Settings::applyHalvistromEnv();
    EXPECT_TRUE(capture.lines().isEmpty());
}

TEST_F(EnvironmentFile, setsVariablesButTheRealEnvironmentWins)
{
    ScopedEnv a("HV_T_FILE_A", nullptr);
    ScopedEnv b("HV_T_FILE_B", "from-env");
    write(R"({"HV_T_FILE_A": "from-file", "HV_T_FILE_B": "from-file"})");
    MessageCapture capture;
    Settings::applyHalvistromEnv();
    EXPECT_EQ(qgetenv("HV_T_FILE_A"), "from-file");
    EXPECT_EQ(qgetenv("HV_T_FILE_B"), "from-env");
    EXPECT_EQ(capture.texts(QtDebugMsg),
              (QStringList{"Loading environment variables from \"" + m_path + "\"",
                           "Setting environment variable \"HV_T_FILE_A\" to \"from-file\"",
                           "Not setting \"HV_T_FILE_B\" since it is already set."}));
}

TEST_F(EnvironmentFile, alreadySetKeyIsSkippedBeforeItsValueIsChecked)
{
    ScopedEnv home("HV_T_FILE_NUM", "set");
    write(R"({"HV_T_FILE_NUM": 5})");
    Settings::applyHalvistromEnv();
    EXPECT_EQ(qgetenv("HV_T_FILE_NUM"), "set");
}

TEST_F(EnvironmentFile, nonStringValueIsFatal)
{
    ScopedEnv unset("HV_T_FILE_NUM", nullptr);
    write(R"({"HV_T_FILE_A": "fine", "HV_T_FILE_NUM": 5})");
    EXPECT_DEATH(Settings::applyHalvistromEnv(), "value of key HV_T_FILE_NUM is not a string");
}

TEST_F(EnvironmentFile, malformedFileIsFatal)
{
    write(R"({"HV_T_FILE_A": )");
    EXPECT_DEATH(Settings::applyHalvistromEnv(),
                 "Failed to parse JSON from .*/Corbelwick/HalvistromEnv\\.json\\. offset 16: unterminated object");
}

TEST_F(EnvironmentFile, unreadableFileIsFatal)
{
    // A directory in the file's place exists but cannot be read as a file.
    ASSERT_TRUE(QDir().mkpath(m_path));
    EXPECT_DEATH(Settings::applyHalvistromEnv(), "Failed to open .*/Corbelwick/HalvistromEnv\\.json");
}

} // namespace
