#include "VMToolsEngine.h"

#include "MessageCapture.h"
#include "Paths.h"
#include "JsonSettings.h"
#include "Settings.h"
#include "TestEnvironment.h"
#include "TestFiles.h"
#include "VMToolsCpu_p.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

using hvtest::LogLine;
using hvtest::MessageCapture;
using ::testing::Return;

namespace {

// ---------------------------------------------------------------------------
// CPUID decisions, against the register values of various processors.

// Packs up to four characters into a register as CPUID reports them.
quint32 reg(const char *text)
{
    quint32 value = 0;
    for (int i = 0; i < 4 && text[i]; ++i)
        value |= quint32(quint8(text[i])) << (8 * i);
    return value;
}

struct CpuCase {
    const char *name;
    std::map<quint32, VMToolsCpu::Registers> leaves;
    QString vendor;
    bool available;
    QString logLine;
};

class CpuDetection : public ::testing::TestWithParam<CpuCase> {};

TEST_P(CpuDetection, readsVendorAndVirtualizationBit)
{
    const CpuCase &c = GetParam();
    const VMToolsCpu::CpuidFunction fake = [&](quint32 leaf) {
        const auto it = c.leaves.find(leaf);
        return it == c.leaves.end() ? VMToolsCpu::Registers{} : it->second;
    };
    const QString vendor = VMToolsCpu::vendor(fake);
    EXPECT_EQ(vendor, c.vendor);
    MessageCapture cap;
    EXPECT_EQ(VMToolsCpu::virtualizationAvailable(vendor, fake), c.available);
    EXPECT_EQ(cap.lines(), (QList<LogLine>{{QtDebugMsg, c.logLine}}));
}

// Leaf 0 of an Intel processor with the given highest leaf.
VMToolsCpu::Registers intelLeaf0(quint32 highest)
{
    return {highest, reg("Genu"), reg("ntel"), reg("ineI")};
}

VMToolsCpu::Registers amdLeaf0()
{
    return {0xd, reg("Auth"), reg("cAMD"), reg("enti")};
}

INSTANTIATE_TEST_SUITE_P(
    VMToolsEngine, CpuDetection,
    ::testing::Values(
        CpuCase{"intelWithVmx", {{0, intelLeaf0(0x16)}, {1, {0, 0, 0x7ffafbbf, 0}}}, "GenuineIntel", true,
                "[VMTools] CPUID 0x1 (Intel): ECX= \"7ffafbbf\""},
        CpuCase{"intelWithoutVmx", {{0, intelLeaf0(0x16)}, {1, {0, 0, 0x7ffafb9f, 0}}}, "GenuineIntel", false,
                "[VMTools] CPUID 0x1 (Intel): ECX= \"7ffafb9f\""},
        CpuCase{"intelWithoutLeafOne", {{0, intelLeaf0(0)}, {1, {0, 0, 0x20, 0}}}, "GenuineIntel", false,
                "[VMTools] CPUID 0x1 (Intel): ECX= \"0\""},
        CpuCase{"amdWithSvm", {{0, amdLeaf0()}, {0x80000000, {0x80000020, 0, 0, 0}}, {0x80000001, {0, 0, 0x4, 0}}},
                "AuthenticAMD", true, "[VMTools] CPUID 0x80000001 (AMD): ECX= \"4\""},
        CpuCase{"amdWhoseHighestExtendedLeafIsTheFirst",
                {{0, amdLeaf0()}, {0x80000000, {0x80000000, 0, 0, 0}}, {0x80000001, {0, 0, 0x4, 0}}}, "AuthenticAMD",
                false, "[VMTools] CPUID 0x80000001 (AMD): ECX= \"0\""},
        CpuCase{"otherVendorUsesTheAmdLeaf",
                {{0, {0xd, reg("Hygo"), reg("uine"), reg("nGen")}}, {0x80000000, {0x80000008, 0, 0, 0}},
                 {0x80000001, {0, 0, 0x20, 0}}},
                "HygonGenuine", false, "[VMTools] CPUID 0x80000001 (AMD): ECX= \"20\""},
        CpuCase{"vendorRegisterStopsAtZeroByte",
                {{0, {0x1, reg("Genu"), reg("in"), reg("Intel")}}, {0x80000000, {0, 0, 0, 0}}}, "GenuIntein", false,
                "[VMTools] CPUID 0x80000001 (AMD): ECX= \"0\""},
        CpuCase{"lowerCaseIntelIsNotIntel",
                {{0, {0x1, reg("genu"), reg("ntel"), reg("ineI")}}, {1, {0, 0, 0x20, 0}},
                 {0x80000000, {0x80000001, 0, 0, 0}}, {0x80000001, {0, 0, 0x4, 0}}},
                "genuineIntel", true, "[VMTools] CPUID 0x80000001 (AMD): ECX= \"4\""}),
    [](const auto &info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------
// The base class, through an engine whose own operations are scripted.

class FakeEngine : public VMToolsEngine
{
public:
    MOCK_METHOD(bool, doesMachineExistInHypervisor, (const QString &), (const, override));
    MOCK_METHOD(int, startMachine, (VMToolsMachine *, const QString &), (override));
    MOCK_METHOD(InitResult, initialize, (InitMode), (override));

    void dumpInfos(QFile *) override {}
    QString name() const override { return "fake"; }
    QUrl getDownloadUrl() const override { return QUrl(); }
    QString versionString() const override { return QString(); }
    VersionNumber versionNumber() const override { return VersionNumber(); }
    VersionNumber minimumVersionNumber() const override { return VersionNumber(); }
    VersionNumber maximumVersionNumber() const override { return VersionNumber(); }
    QList<VersionNumber> unsupportedVersionNumbers() const override { return {}; }
    QList<VMToolsMachine *> getMachines(std::function<bool()>) override { return {}; }
    VMToolsMachine *getMachine(const QString &) override { return nullptr; }
    QString getAdapterName() const override { return QString(); }
    int createMachine(const QString &, const OsImage &, const HwProfile &) override { return 1; }
    int createMachine(const QString &, const QString &, int, long long, long long, const VersionNumber &,
                      const VersionNumber &) override { return 1; }
    bool stopMachine(VMToolsMachine *) override { return false; }
    bool deleteMachine(const VMToolsMachine *) const override { return false; }
    bool isAccelerationSupported() const override { return false; }
    bool isSnapshotSupported() const override { return false; }
    bool setMachineIdentifiers(VMToolsMachine *, const QString &, const QString &) override { return false; }
    int cloneMachine(VMToolsMachine *, const QString &) override { return 1; }
    bool copyDisk(const QString &, const QString &) const override { return false; }
    bool deleteDisk(const QString &) const override { return false; }
    bool resizeDisk(const QString &, long long) const override { return false; }
    QString getDataDiskName() const override { return QString(); }
    QString getSDCardDiskName() const override { return QString(); }
    QStringList fetchBridgeableInterfaces() override { return {}; }
    QStringList getBridgeableInterfaces() const override { return {}; }
    int getHostOnlyNetworkType() const override { return 0; }
};

class VMToolsEngineBase : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_deployed = QDir(Paths::getDeployedPath());
        ASSERT_TRUE(m_deployed.mkpath("on-disk"));
        ASSERT_TRUE(hvtest::writeFile(m_deployed.filePath("plain-file"), ""));
    }
    void TearDown() override { m_deployed.removeRecursively(); }

    QDir m_deployed;
};

TEST_F(VMToolsEngineBase, devicesAreKnownToTheHypervisorOrHaveADirectory)
{
    FakeEngine engine;
    const struct {
        const char *name;
        bool inHypervisor;
        bool exists;
    } rows[] = {{"known-to-hypervisor", true, true}, {"on-disk", false, true}, {"ON-DISK", false, false},
                {"plain-file", false, false},        {"nowhere", false, false}};
    for (const auto &row : rows) {
        EXPECT_CALL(engine, doesMachineExistInHypervisor(QString(row.name))).WillOnce(Return(row.inHypervisor));
        EXPECT_EQ(engine.doesMachineExist(row.name), row.exists) << row.name;
    }
    ASSERT_TRUE(m_deployed.mkpath("Second device"));
    EXPECT_EQ(VMToolsEngine::getDevicesNamesSetFromDir(), (QSet<QString>{"on-disk", "Second device"}));
    m_deployed.removeRecursively();
    EXPECT_TRUE(VMToolsEngine::getDevicesNamesSetFromDir().isEmpty());
    // Without snapshot support the snapshot operations succeed and find none.
    EXPECT_TRUE(engine.fetchSnapshotNames(nullptr).isEmpty());
    EXPECT_TRUE(engine.saveSnapshot(nullptr, "latest"));
    EXPECT_TRUE(engine.deleteSnapshot(nullptr, "latest"));
}

TEST_F(VMToolsEngineBase, constructionReadsProcessorAndDevicesDirectory)
{
    MessageCapture cap;
    FakeEngine engine;
    const QString vendor = VMToolsCpu::vendor(VMToolsCpu::cpuid);
    EXPECT_EQ(engine.getCpuVendor(), vendor);
    EXPECT_EQ(engine.getCpuVendor().size(), 12);
    EXPECT_EQ(cap.lines().value(0), (LogLine{QtDebugMsg, "[VMTools] Chipset: \"" + vendor + "\""}));
    EXPECT_EQ(cap.lines().size(), 2);
    EXPECT_EQ(engine.isCPUVirtualizationAvailable(),
              VMToolsCpu::virtualizationAvailable(vendor, VMToolsCpu::cpuid));
    EXPECT_EQ(engine.getDevicesDirectory(), QDir(Paths::getDeployedPath()));

    Settings::set("virtual_devices.directory", "/srv/devices");
    FakeEngine moved;
    EXPECT_EQ(moved.getDevicesDirectory(), QDir("/srv/devices"));
    // An existing engine keeps the directory it was built with.
    EXPECT_EQ(engine.getDevicesDirectory(), QDir(Paths::getDeployedPath()));
    Settings::set("virtual_devices.directory", Paths::getDeployedPath());
}

// A relative devices directory would follow whatever directory the program
// runs in: it is refused when set, and ignored with a warning when a settings
// file holds one anyway.
TEST_F(VMToolsEngineBase, aRelativeDevicesDirectoryIsRefusedAndIgnored)
{
    MessageCapture cap;
    for (const QVariant &value : {QVariant("12"), QVariant("devices/here"), QVariant(12)}) {
        Settings::set("virtual_devices.directory", value);
        EXPECT_EQ(Settings::get("virtual_devices.directory").toString(), Paths::getDeployedPath());
        EXPECT_TRUE(cap.has(QtWarningMsg, "Refusing the setting \"virtual_devices.directory\" = \"" + value.toString()
                                              + "\" : it must be an absolute path"));
    }
    ASSERT_TRUE(Settings::getUserSettings()->setValue("virtual_devices.directory", "12"));
    FakeEngine engine;
    EXPECT_EQ(engine.getDevicesDirectory(), QDir(Paths::getDeployedPath()));
    EXPECT_TRUE(cap.has(QtWarningMsg, "[VMTools] Ignoring the setting \"virtual_devices.directory\" = \"12\" : not an "
                                      "absolute path; using \"" + Paths::getDeployedPath() + "\""));
    Settings::set("virtual_devices.directory", Paths::getDeployedPath());
}

// ---------------------------------------------------------------------------
// Loading by name.

TEST(VMToolsEngineLoad, unknownEngineReturnsAtOnce)
{
    MessageCapture cap;
    const VMToolsEngine::LoadResult result =
        VMToolsEngine::loadEngine("vmware", VMToolsEngine::Full);
    EXPECT_EQ(result.engine, nullptr);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.message, QString());
    // Nothing else was attempted: no "Loading" line, no library opened.
    EXPECT_EQ(cap.lines(),
              (QList<LogLine>{{QtCriticalMsg, "[VMTools] Tried to load unknown virtual engine \"vmware\""}}));
}

TEST(VMToolsEngineLoad, missingVirtualBoxPluginGivesNullEngineAndKeepsTheSetting)
{
    Settings::set("hypervisor", "virtualbox");
    const VMToolsEngine::LoadResult result = VMToolsEngine::loadEngine(VMToolsEngine::Full);
    EXPECT_EQ(result.engine, nullptr);
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(result.message.startsWith("the virtualbox engine plug-in (libvboxmanage.so) was not found in "
                                          + QCoreApplication::applicationDirPath() + "/plugins or "))
        << result.message.toStdString();
    EXPECT_EQ(Settings::get("hypervisor", QString()).toString(), "virtualbox");
}

} // namespace
