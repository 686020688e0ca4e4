// The engine as an application gets it: through VMToolsEngine::loadEngine and
// the plug-in in bin/plugins. This executable does not link the QEMU classes.
#include "VMToolsEngine.h"

#include "MessageCapture.h"
#include "ScopedEnv.h"
#include "Settings.h"
#include "SystemQemu.h"

#include <QCoreApplication>
#include <QFile>
#include <QLibrary>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <memory>

using hvtest::MessageCapture;

namespace {

QString pluginPath()
{
    return QCoreApplication::applicationDirPath() + "/plugins/qemu";
}

QString hypervisorSetting()
{
    return Settings::get("hypervisor", "<unset>").toString();
}

TEST(QEMUPlugin, loadEngineGivesAnInitialisedQemuEngine)
{
    QLibrary library(pluginPath());
    EXPECT_NE(library.resolve("getVMToolsEngine"), nullptr) << library.errorString().toStdString();
    const QString expected = hvtest::systemQemuVersion();
    ASSERT_TRUE(expected.startsWith("7.2."));
    MessageCapture cap;
    const VMToolsEngine::LoadResult result = VMToolsEngine::loadEngine(VMToolsEngine::Full);
    std::unique_ptr<VMToolsEngine> engine(result.engine);
    ASSERT_NE(engine, nullptr);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.message, QString());
    EXPECT_EQ(engine->name(), "QEMU");
    EXPECT_EQ(engine->versionString(), expected);
    EXPECT_EQ(hypervisorSetting(), "qemu");
    for (const QString line : {"Loading \"qemu\" plugin", "Constructing engine", "Initializing engine"})
        EXPECT_TRUE(cap.has(QtDebugMsg, "[VMTools] " + line));
    EXPECT_TRUE(cap.has(QtDebugMsg, QString("[VMTools] VMX/SVM CPU availability: %1")
                                        .arg(engine->isCPUVirtualizationAvailable() ? "true" : "false")));
    EXPECT_TRUE(cap.has(QtDebugMsg, "[VMTools] VM engine version: \"" + expected + "\""));
    EXPECT_TRUE(cap.noneAtOrAbove(QtWarningMsg));
    // Every load builds a fresh engine.
    std::unique_ptr<VMToolsEngine> second(VMToolsEngine::loadEngine("qemu", VMToolsEngine::NoAccelerationCheck).engine);
    ASSERT_NE(second, nullptr);
    EXPECT_NE(second.get(), engine.get());
}

TEST(QEMUPlugin, unknownOrMisspelledNamesLoadQemuAndAreCorrected)
{
    for (const QString stored : {"QEMU", "vmware", ""}) {
        Settings::set("hypervisor", stored);
        std::unique_ptr<VMToolsEngine> engine(VMToolsEngine::loadEngine(VMToolsEngine::NoAccelerationCheck).engine);
        ASSERT_NE(engine, nullptr) << stored.toStdString();
        EXPECT_EQ(engine->name(), "QEMU");
        EXPECT_EQ(hypervisorSetting(), "qemu") << stored.toStdString();
    }
}

TEST(QEMUPlugin, missingProgramsGiveStatusOneAndNoEngine)
{
    QTemporaryDir empty;
    hvtest::ScopedEnv binDir("HV_QEMU_BIN_DIR", QFile::encodeName(empty.path()));
    Settings::set("hypervisor", "virtualbox-old");
    MessageCapture cap;
    const VMToolsEngine::LoadResult result = VMToolsEngine::loadEngine(VMToolsEngine::Full);
    EXPECT_EQ(result.engine, nullptr);
    EXPECT_EQ(result.status, 1);
    const QString imageTool = empty.path() + "/qemu-img";
    EXPECT_EQ(result.message, "QEMU's qemu-img was not found in " + empty.path()
                                  + " (HV_QEMU_BIN_DIR): install the Debian package qemu-utils");
    EXPECT_TRUE(cap.has(QtWarningMsg, "[VMTools] Could not find \"" + imageTool + "\""));
    // A failed initialisation does not store the name.
    EXPECT_EQ(hypervisorSetting(), "virtualbox-old");
}

// In an entry of its own that sets HV_ROSETTA_UI: a translating host runs
// only QEMU, whatever the setting says.
TEST(QEMUPluginRosetta, translatedHostForcesQemu)
{
    Settings::set("hypervisor", "virtualbox");
    std::unique_ptr<VMToolsEngine> engine(VMToolsEngine::loadEngine(VMToolsEngine::NoAccelerationCheck).engine);
    ASSERT_NE(engine, nullptr);
    EXPECT_EQ(engine->name(), "QEMU");
    EXPECT_EQ(hypervisorSetting(), "qemu");
}

} // namespace
