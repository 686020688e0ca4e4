#include "QEMUEngine.h"

#include "MessageCapture.h"
#include "SystemQemu.h"
#include "ScopedEnv.h"
#include "Paths.h"
#include "TestEnvironment.h"
#include "Urls.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <gtest/gtest.h>

using hvtest::LogLine;
using hvtest::MessageCapture;

namespace {

QString bundledDir()
{
    return QCoreApplication::applicationDirPath() + QStringLiteral("/qemu/x86_64/bin");
}

// ---------------------------------------------------------------------------
// parseVersion

struct VersionTextCase {
    const char *name;
    QString text;
    QString version;
};

void PrintTo(const VersionTextCase &c, std::ostream *os)
{
    *os << c.name;
}

class ParseVersion : public ::testing::TestWithParam<VersionTextCase>
{
};

TEST_P(ParseVersion, extractsTheVersionWord)
{
    EXPECT_EQ(QEMUEngine::parseVersion(GetParam().text), GetParam().version);
}

INSTANTIATE_TEST_SUITE_P(
    QEMUEngine, ParseVersion,
    ::testing::Values(
        VersionTextCase{"debianOutput",
                        "QEMU emulator version 7.2.22 (Debian 1:7.2+dfsg-7+deb12u18+b3)\n"
                        "Copyright (c) 2003-2022 Fabrice Bellard and the QEMU Project developers\n",
                        "7.2.22"},
        VersionTextCase{"packageNote", "QEMU emulator version 6.2.0 (Debian 1:6.2+dfsg-2ubuntu6.15)", "6.2.0"},
        VersionTextCase{"vendorSuffixKeptWhole", "QEMU emulator version 8.2.1-rc2.vendor-3 (build 7)",
                        "8.2.1-rc2.vendor-3"},
        VersionTextCase{"suffixAfterOtherCharacterDropped", "QEMU emulator version 9.0.0+git20240101", "9.0.0"},
        VersionTextCase{"wordsNoVersionHere", "no version here", "here"},
        VersionTextCase{"beginsWithVersion", "version 7.2.0", ""},
        VersionTextCase{"versionOnLaterLine", "banner\nQEMU emulator version 5.1.0\n", "5.1.0"},
        VersionTextCase{"nothingAfterVersion", "QEMU emulator version ", ""},
        VersionTextCase{"empty", "", ""}),
    [](const ::testing::TestParamInfo<VersionTextCase> &info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------
// Construction, fixed answers and initialisation.

TEST(QEMUEngineSetup, findsTheBundledProgramsWithoutEnvironment)
{
    ASSERT_TRUE(qgetenv("HV_QEMU_BIN_DIR").isEmpty());
    MessageCapture cap;
    QEMUEngine engine;
    EXPECT_EQ(engine.getQemuSystemBinaryPath(), bundledDir() + QStringLiteral("/qemu-system-x86_64"));
    EXPECT_EQ(engine.getQemuImgBinaryPath(), bundledDir() + QStringLiteral("/qemu-img"));
    EXPECT_TRUE(cap.has(QtDebugMsg, "[VMTools] QEMU path: \"" + bundledDir() + "/qemu-system-x86_64\""));
    // The bundled directory links to the system's own programs.
    for (const QString &program : {QStringLiteral("qemu-system-x86_64"), QStringLiteral("qemu-img")}) {
        const QFileInfo link(bundledDir() + '/' + program);
        EXPECT_TRUE(link.isSymLink()) << program.toStdString();
        EXPECT_EQ(link.canonicalFilePath(),
                  QFileInfo(QStandardPaths::findExecutable(program)).canonicalFilePath());
    }
}

TEST(QEMUEngineSetup, initializeReadsTheRealVersion)
{
    const QString expected = hvtest::systemQemuVersion();
    ASSERT_FALSE(expected.isEmpty());
    QEMUEngine engine;
    EXPECT_EQ(engine.versionString(), QString());
    MessageCapture cap;
    const VMToolsEngine::InitResult result = engine.initialize(VMToolsEngine::Full);
    EXPECT_EQ(result.first, 0);
    EXPECT_EQ(result.second, QString());
    EXPECT_EQ(engine.versionString(), expected);
    EXPECT_EQ(engine.versionNumber(), VersionNumber::fromString(expected));
    EXPECT_TRUE(engine.versionNumber() >= engine.minimumVersionNumber());
    EXPECT_EQ(cap.lines(), (QList<LogLine>{
                               {QtDebugMsg, "[VMTools] Call: (\"--version\")"},
                               {QtDebugMsg, "[VMTools] Return code: 0"},
                               {QtDebugMsg, "[VMTools] QEMU version string : \"" + expected + "\""},
                           }));
}

TEST(QEMUEngineSetup, fixedAnswers)
{
    QEMUEngine engine;
    EXPECT_EQ(engine.name(), QStringLiteral("QEMU"));
    EXPECT_EQ(engine.getDownloadUrl(), QUrl(QStringLiteral("https://www.qemu.org/download/")));
    EXPECT_EQ(engine.getDownloadUrl().path(), QStringLiteral("/download/"));
    EXPECT_EQ(engine.getAdapterName(), QString());
    EXPECT_EQ(engine.getDataDiskName(), QString());
    EXPECT_EQ(engine.getSDCardDiskName(), QStringLiteral("sdcard.qcow2"));
    EXPECT_TRUE(engine.isSnapshotSupported());
    EXPECT_TRUE(engine.fetchBridgeableInterfaces().isEmpty());
    EXPECT_TRUE(engine.getBridgeableInterfaces().isEmpty());
    EXPECT_EQ(engine.getHostOnlyNetworkType(), 0);
    EXPECT_TRUE(engine.unsupportedVersionNumbers().isEmpty());
    EXPECT_EQ(QEMUEngine::getQemuSystemBinaryName(), QStringLiteral("qemu-system-x86_64"));
    EXPECT_EQ(QEMUEngine::getQemuImgBinaryName(), QStringLiteral("qemu-img"));
    QTemporaryDir dir;
    QFile file(dir.filePath(QStringLiteral("dump")));
    ASSERT_TRUE(file.open(QIODevice::ReadWrite));
    engine.dumpInfos(&file);
    EXPECT_EQ(file.size(), 0);
}

TEST(QEMUEngineSetup, accelerationIsAssumedUnlessTriggered)
{
    QEMUEngine engine;
    EXPECT_TRUE(engine.isAccelerationSupported());
    engine.checkAcceleration();
    EXPECT_TRUE(engine.isAccelerationSupported());
    hvtest::ScopedEnv trigger("HV_TRIGGER_ERROR", "hypervhaxmerror");
    EXPECT_FALSE(engine.isAccelerationSupported());
}

TEST(QEMUEngineSetup, firmwareDirectoryIsShareQemuBesideTheBinaries)
{
    QTemporaryDir root;
    ASSERT_TRUE(QDir(root.path()).mkpath(QStringLiteral("bin")));
    {
        hvtest::ScopedEnv binDir("HV_QEMU_BIN_DIR", QFile::encodeName(root.filePath(QStringLiteral("bin"))));
        // A missing level leaves the directory where the walk stopped.
        EXPECT_EQ(QEMUEngine().getFirmwareDirPath(), root.path());
    }
    ASSERT_TRUE(QDir(root.path()).mkpath(QStringLiteral("share/qemu")));
    hvtest::ScopedEnv binDir("HV_QEMU_BIN_DIR", QFile::encodeName(root.filePath(QStringLiteral("bin"))));
    EXPECT_EQ(QEMUEngine().getFirmwareDirPath(), root.filePath(QStringLiteral("share/qemu")));
}

struct MissingCase {
    const char *name;
    bool withImageTool;
    bool withEmulator;
    QByteArray trigger;
    const char *missing; // the program the message names
};

void PrintTo(const MissingCase &c, std::ostream *os)
{
    *os << c.name;
}

class MissingPrograms : public ::testing::TestWithParam<MissingCase>
{
};

TEST_P(MissingPrograms, initializeNamesTheMissingProgram)
{
    const MissingCase &c = GetParam();
    QTemporaryDir dir;
    if (c.withImageTool) {
        ASSERT_TRUE(QFile::link(QStandardPaths::findExecutable(QStringLiteral("qemu-img")),
                                dir.filePath(QStringLiteral("qemu-img"))));
    }
    if (c.withEmulator) {
        ASSERT_TRUE(QFile::link(QStandardPaths::findExecutable(QStringLiteral("qemu-system-x86_64")),
                                dir.filePath(QStringLiteral("qemu-system-x86_64"))));
    }
    hvtest::ScopedEnv binDir("HV_QEMU_BIN_DIR", QFile::encodeName(dir.path()));
    hvtest::ScopedEnv trigger("HV_TRIGGER_ERROR", c.trigger);
    QEMUEngine engine;
    MessageCapture cap;
    const VMToolsEngine::InitResult result = engine.initialize(VMToolsEngine::NoAccelerationCheck);
    const QString missing = dir.filePath(QString::fromLatin1(c.missing));
    EXPECT_EQ(result.first, 1);
    EXPECT_EQ(result.second,
              "install.error." + missing + "." + Urls::getLinkForUrl(Urls::getDownloadUrl(), QString()));
    EXPECT_TRUE(result.second.contains("<a href='"));
    EXPECT_TRUE(cap.has(QtWarningMsg, "[VMTools] Could not find \"" + missing + "\""));
    EXPECT_EQ(cap.texts(QtWarningMsg).size(), c.withEmulator ? 1 : 2); // plus the failed --version run
    if (c.withEmulator) {
        EXPECT_FALSE(engine.versionString().isEmpty());
    } else {
        EXPECT_EQ(engine.versionString(), QString());
        EXPECT_TRUE(cap.has(QtCriticalMsg, "[VMTools] \"" + dir.filePath("qemu-system-x86_64")
                                               + "\" --version failed."));
    }
}

INSTANTIATE_TEST_SUITE_P(
    QEMUEngine, MissingPrograms,
    ::testing::Values(MissingCase{"emptyDirectory", false, false, "", "qemu-img"},
                      MissingCase{"onlyEmulator", false, true, "", "qemu-img"},
                      MissingCase{"onlyImageTool", true, false, "", "qemu-system-x86_64"},
                      MissingCase{"triggerWithBothPresent", true, true, "noip qemunotinstalled", "qemu-img"}),
    [](const ::testing::TestParamInfo<MissingCase> &info) { return std::string(info.param.name); });

TEST(QEMUEngineSetup, emptyBinDirOverrideMeansTheBundledPrograms)
{
    hvtest::ScopedEnv binDir("HV_QEMU_BIN_DIR", "");
    EXPECT_EQ(QEMUEngine().getQemuImgBinaryPath(), bundledDir() + QStringLiteral("/qemu-img"));
}

// ---------------------------------------------------------------------------
// Version bounds. Without overrides (this entry runs without the variables).

TEST(QEMUEngineVersionDefaults, builtInBoundsAreKeptForTheProcess)
{
    ASSERT_TRUE(qgetenv("HV_QEMU_MIN_VERSION").isEmpty());
    QEMUEngine engine;
    EXPECT_EQ(engine.minimumVersionNumber(), VersionNumber(6, 2, 0, VersionNumber::Release, 0));
    EXPECT_EQ(engine.maximumVersionNumber().major, -1);
    EXPECT_EQ(engine.maximumVersionNumber(), VersionNumber(-1, 0, 0, 0, 0));
    EXPECT_EQ(engine.versionNumber(), VersionNumber::fromString(QString()));
    // Read once per process: a later change of the environment is not seen.
    hvtest::ScopedEnv min("HV_QEMU_MIN_VERSION", "9.9.9");
    hvtest::ScopedEnv max("HV_QEMU_MAX_VERSION", "9.9.9");
    hvtest::ScopedEnv version("HV_QEMU_VERSION", "9.9.9");
    EXPECT_EQ(engine.minimumVersionNumber(), VersionNumber(6, 2, 0));
    EXPECT_EQ(QEMUEngine().maximumVersionNumber().major, -1);
    EXPECT_EQ(engine.versionNumber(), VersionNumber::fromString(QString()));
}

// With overrides, in an entry of its own that sets HV_QEMU_VERSION=7.0.0,
// HV_QEMU_MIN_VERSION=7.1 and HV_QEMU_MAX_VERSION=8.0.0-beta2.
TEST(QEMUEngineVersionOverrides, environmentReplacesTheBoundsOnce)
{
    QEMUEngine engine;
    ASSERT_EQ(engine.initialize(VMToolsEngine::NoAccelerationCheck).first, 0);
    EXPECT_EQ(engine.versionString(), hvtest::systemQemuVersion());
    EXPECT_EQ(engine.versionNumber(), VersionNumber(7, 0, 0));
    EXPECT_EQ(engine.minimumVersionNumber(), VersionNumber(7, 1, 0));
    EXPECT_EQ(engine.maximumVersionNumber(), VersionNumber(8, 0, 0, VersionNumber::Beta, 2));
    qputenv("HV_QEMU_VERSION", "5.0.0");
    qputenv("HV_QEMU_MIN_VERSION", "1.0");
    qunsetenv("HV_QEMU_MAX_VERSION");
    QEMUEngine other;
    EXPECT_EQ(other.versionNumber(), VersionNumber(7, 0, 0));
    EXPECT_EQ(other.minimumVersionNumber(), VersionNumber(7, 1, 0));
    EXPECT_EQ(other.maximumVersionNumber(), VersionNumber(8, 0, 0, VersionNumber::Beta, 2));
}

} // namespace
