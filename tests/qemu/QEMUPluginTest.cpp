// The engine as an application gets it: through VMToolsEngine::loadEngine and
// the plug-in in bin/plugins. This executable does not link the QEMU classes.
#include "VMToolsEngine.h"

#include "MessageCapture.h"
#include "ScopedEnv.h"
#include "SystemQemu.h"
#include "Settings.h"
#include "Urls.h"

#include <QCoreApplication>
#include <QFile>
#include <QLibrary>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <memory>

using hvtest::LogLine;
using hvtest::MessageCapture;

namespace {

QString pluginPath()
{
    return QCoreApplication::applicationDirPath() + QStringLiteral("/plugins/qemu");
}

QString hypervisorSetting()
{
    return Settings::get(QStringLiteral("hypervisor"), QStringLiteral("<unset>")).toString();
}

TEST(QEMUPlugin, exportsTheUndecoratedFactory)
{
    QLibrary library(pluginPath());
    EXPECT_NE(library.resolve("getVMToolsEngine"), nullptr) << library.errorString().toStdString();
}

TEST(QEMUPlugin, loadEngineGivesAnInitialisedQemuEngine)
{
    const QString expected = hvtest::systemQemuVersion();
    ASSERT_FALSE(expected.isEmpty());
    MessageCapture cap;
    const VMToolsEngine::LoadResult result = VMToolsEngine::loadEngine(VMToolsEngine::Full);
    std::unique_ptr<VMToolsEngine> engine(result.engine);
    ASSERT_NE(engine, nullptr);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.message, QString());
    EXPECT_EQ(engine->name(), QStringLiteral("QEMU"));
    EXPECT_EQ(engine->versionString(), expected);
    EXPECT_TRUE(expected.startsWith(QStringLiteral("7.2.")));
    EXPECT_TRUE(engine->isAccelerationSupported());
    EXPECT_EQ(hypervisorSetting(), QStringLiteral("qemu"));
    EXPECT_TRUE(cap.has(QtDebugMsg, "[VMTools] Loading \"qemu\" plugin"));
    EXPECT_TRUE(cap.has(QtDebugMsg, "[VMTools] Constructing engine"));
    EXPECT_TRUE(cap.has(QtDebugMsg, "[VMTools] Initializing engine"));
    EXPECT_TRUE(cap.has(QtDebugMsg, QStringLiteral("[VMTools] VMX/SVM CPU availability: %1")
                                        .arg(engine->isCPUVirtualizationAvailable() ? "true" : "false")));
    EXPECT_TRUE(cap.has(QtDebugMsg, "[VMTools] VM engine version: \"" + expected + "\""));
    EXPECT_TRUE(cap.noneAtOrAbove(QtWarningMsg));
}

TEST(QEMUPlugin, everyLoadBuildsAFreshEngine)
{
    const VMToolsEngine::LoadResult first = VMToolsEngine::loadEngine(QStringLiteral("qemu"), VMToolsEngine::Full);
    const VMToolsEngine::LoadResult second =
        VMToolsEngine::loadEngine(QStringLiteral("qemu"), VMToolsEngine::NoAccelerationCheck);
    std::unique_ptr<VMToolsEngine> a(first.engine), b(second.engine);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_NE(a.get(), b.get());
    EXPECT_EQ(a->versionString(), b->versionString());
}

struct SettingCase {
    const char *name;
    QString stored;
};

class HypervisorSetting : public ::testing::TestWithParam<SettingCase>
{
};

TEST_P(HypervisorSetting, unknownOrMisspelledNamesLoadQemuAndAreCorrected)
{
    Settings::set(QStringLiteral("hypervisor"), GetParam().stored);
    const VMToolsEngine::LoadResult result = VMToolsEngine::loadEngine(VMToolsEngine::NoAccelerationCheck);
    std::unique_ptr<VMToolsEngine> engine(result.engine);
    ASSERT_NE(engine, nullptr);
    EXPECT_EQ(engine->name(), QStringLiteral("QEMU"));
    EXPECT_EQ(hypervisorSetting(), QStringLiteral("qemu"));
}

INSTANTIATE_TEST_SUITE_P(QEMUPlugin, HypervisorSetting,
                         ::testing::Values(SettingCase{"upperCase", "QEMU"}, SettingCase{"unknown", "vmware"},
                                           SettingCase{"empty", ""}, SettingCase{"qemu", "qemu"}),
                         [](const ::testing::TestParamInfo<SettingCase> &info) { return info.param.name; });

TEST(QEMUPlugin, missingProgramsGiveStatusOneAndNoEngine)
{
    QTemporaryDir empty;
    hvtest::ScopedEnv binDir("HV_QEMU_BIN_DIR", QFile::encodeName(empty.path()));
    Settings::set(QStringLiteral("hypervisor"), QStringLiteral("virtualbox-old"));
    MessageCapture cap;
    const VMToolsEngine::LoadResult result = VMToolsEngine::loadEngine(VMToolsEngine::Full);
    EXPECT_EQ(result.engine, nullptr);
    EXPECT_EQ(result.status, 1);
    const QString imageTool = empty.path() + QStringLiteral("/qemu-img");
    EXPECT_EQ(result.message,
              "install.error." + imageTool + "." + Urls::getLinkForUrl(Urls::getDownloadUrl(), QString()));
    EXPECT_TRUE(cap.has(QtWarningMsg, "[VMTools] Could not find \"" + imageTool + "\""));
    EXPECT_TRUE(cap.has(QtCriticalMsg, "[VMTools] Unable to initialize engine from \"" + pluginPath() + "\""));
    // A failed initialisation does not store the name.
    EXPECT_EQ(hypervisorSetting(), QStringLiteral("virtualbox-old"));
}

// In an entry of its own that sets HV_ROSETTA_UI: a translating host runs
// only QEMU, whatever the setting says.
TEST(QEMUPluginRosetta, translatedHostForcesQemu)
{
    Settings::set(QStringLiteral("hypervisor"), QStringLiteral("virtualbox"));
    const VMToolsEngine::LoadResult result = VMToolsEngine::loadEngine(VMToolsEngine::NoAccelerationCheck);
    std::unique_ptr<VMToolsEngine> engine(result.engine);
    ASSERT_NE(engine, nullptr);
    EXPECT_EQ(engine->name(), QStringLiteral("QEMU"));
    EXPECT_EQ(hypervisorSetting(), QStringLiteral("qemu"));
}

} // namespace
