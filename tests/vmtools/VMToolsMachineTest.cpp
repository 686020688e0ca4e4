#include "VMToolsMachine.h"

#include "HwProfileIO.h"
#include "OsImageBuilder.h"
#include "OsImageIO.h"

#include "MessageCapture.h"
#include "TestEnvironment.h"
#include "TestFiles.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <functional>

using hvtest::MessageCapture;

namespace {

// The record alone: the run-time side is not what these tests look at.
class RecordMachine : public VMToolsMachine
{
public:
    using VMToolsMachine::VMToolsMachine;
    void dumpInfos(QFile *) override {}
    bool reloadProperties() override { return load(); }
    void reloadVmInfo() override {}
    QString getName() const override { return QDir(getPath()).dirName(); }
    bool setName(const QString &) override { return false; }
    QString getUuid() const override { return QString(); }
    bool setUuid(const QString &) override { return false; }
    QString waitForIP(std::function<bool()>) override { return QString(); }
    int getStatus() const override { return Off; }
    QString getIPAddress() const override { return QString(); }
    QString getAdbSerial() const override { return QString(); }
    AdapterType getAdapterType(unsigned int) const override { return Null; }
    bool setAdapterType(unsigned int, AdapterType, const QString &) override { return false; }
    bool createFactoryBackup() override { return true; }
    bool resetFactory() override { return false; }
    ConnectionInfo fetchConnectionInfo() override { return createUnknownConnectionInfo(); }
    ConnectionInfo getConnectionInfo() const override { return createUnknownConnectionInfo(); }
    bool setConnectionInfo(const ConnectionInfo &) override { return true; }
    bool upgradeSystemDisk(const OsImage &) const override { return false; }
};

HwProfile makeProfile(int displays = 2)
{
    HwProfile profile;
    profile.uuid = "{11111111-2222-3333-4444-555555555555}";
    profile.source = HwProfile::Source::USER;
    profile.deviceProperties.productBrand = "ACME";
    profile.deviceProperties.productModel = "Rocket";
    profile.cpuCount = 2;
    profile.ramSize = 2048;
    profile.dataDiskSize = 8192;
    profile.displaySettings.displays.clear();
    for (int i = 0; i < displays; ++i)
        profile.displaySettings.displays.append(HwProfile::Display());
    return profile;
}

OsImage makeImage(const VersionNumber &android = VersionNumber(11, 0))
{
    OsImage image = OsImageBuilder();
    image.uuid = "{99999999-8888-7777-6666-555555555555}";
    image.name = "Android image";
    image.osVersion = android;
    image.imageVersion = VersionNumber(3, 8);
    image.sdkVersion = 30;
    image.arch = "x86_64";
    return image;
}

QJsonObject standardTop()
{
    return {{"os_image", OsImageIO::toJsonObject(makeImage())},
            {"hardware_profile", HwProfileIO::toJsonObject(makeProfile())}};
}

QByteArray bytes(const QJsonObject &top)
{
    return QJsonDocument(top).toJson();
}

// A device directory named after the test, with its configuration file.
class MachineFile : public ::testing::Test
{
protected:
    void SetUp() override
    {
        const auto *info = ::testing::UnitTest::GetInstance()->current_test_info();
        m_dir = hvtest::testRoot() + "/devices/" + info->name();
        QDir(m_dir).removeRecursively();
        ASSERT_TRUE(QDir().mkpath(m_dir + "/shared/config"));
    }

    QString configPath() const { return m_dir + "/shared/config/device.json"; }

    void writeConfig(const QByteArray &content) const { ASSERT_TRUE(hvtest::writeFile(configPath(), content)); }
    QJsonObject readConfig() const { return QJsonDocument::fromJson(hvtest::readFile(configPath())).object(); }

    // Puts the file's modification time in the past, so a later write shows.
    void ageConfig() const
    {
        QFile file(configPath());
        ASSERT_TRUE(file.open(QIODevice::ReadWrite));
        ASSERT_TRUE(file.setFileTime(QDateTime(QDate(2001, 1, 1), QTime(0, 0)), QFileDevice::FileModificationTime));
    }

    bool configWasWritten() const
    {
        return QFileInfo(configPath()).lastModified() > QDateTime(QDate(2001, 1, 1), QTime(0, 0, 1));
    }

    QString m_dir;
};

TEST_F(MachineFile, keepsUnknownKeysButRebuildsRoot)
{
    QJsonObject top = standardTop();
    top.insert("uuid", "{abc}");
    top.insert("custom", QJsonObject{{"nested", QJsonArray{1, "two"}}});
    top.insert("configuration", QJsonObject{{"quickboot", false},
                                            {"player_zoom", 1.5},
                                            {"theme", "dark"},
                                            {"root", QJsonObject{{"active", true}, {"su_path", "/sbin/su"}}}});
    writeConfig(bytes(top));
    RecordMachine machine(m_dir);
    ASSERT_TRUE(machine.load());
    EXPECT_FALSE(machine.isQuickbootEnabled());
    EXPECT_TRUE(machine.isRootAccessEnabled());
    ASSERT_TRUE(machine.save());

    const QJsonObject saved = readConfig();
    EXPECT_EQ(saved.value("uuid").toString(), "{abc}");
    EXPECT_EQ(saved.value("custom"), top.value("custom"));
    const QJsonObject configuration = saved.value("configuration").toObject();
    EXPECT_EQ(configuration.value("theme").toString(), "dark");
    EXPECT_EQ(configuration.value("player_zoom").toDouble(), 1.5);
    EXPECT_EQ(configuration.value("quickboot"), QJsonValue(false));
    EXPECT_EQ(configuration.value("root").toObject(), (QJsonObject{{"active", true}}));
    EXPECT_EQ(HwProfileIO::load(saved.value("hardware_profile").toObject()), makeProfile());
    EXPECT_EQ(OsImageIO::load(saved.value("os_image").toObject()), makeImage());
}

TEST_F(MachineFile, fileWithoutConfigurationReadsDefaultsAndIsNotRewritten)
{
    writeConfig(bytes(standardTop()));
    ageConfig();
    RecordMachine machine(m_dir);
    ASSERT_TRUE(machine.load());
    EXPECT_FALSE(configWasWritten());
    EXPECT_TRUE(machine.isQuickbootEnabled());
    EXPECT_FALSE(machine.isRootAccessEnabled());
    EXPECT_FALSE(machine.isSdCardInserted());
    EXPECT_FALSE(machine.isVirtualKeyboardEnabled());
    EXPECT_FALSE(machine.isFullScreen());
    EXPECT_EQ(machine.getGlEsApiLevel(), QString());
    EXPECT_EQ(machine.getHwProfile(), makeProfile());
    EXPECT_EQ(machine.getCapabilities(), int(VMToolsMachine::VirtioDisks));
}

TEST_F(MachineFile, migratesAVersionOneImageAndSavesAtOnce)
{
    QJsonObject image = OsImageIO::toJsonObject(makeImage(VersionNumber(10, 0)));
    image.insert("version", "1.0.0");
    image.remove("arch");
    QJsonObject top = standardTop();
    top.insert("os_image", image);
    writeConfig(bytes(top));
    ageConfig();
    RecordMachine machine(m_dir);
    MessageCapture cap;
    ASSERT_TRUE(machine.load());
    EXPECT_TRUE(configWasWritten());
    EXPECT_TRUE(cap.has(QtDebugMsg, "Migrating OsImage migratesAVersionOneImageAndSavesAtOnce of device "
                                    "Android image from 1.0.0 to 1.1.0"));
    const QJsonObject saved = readConfig().value("os_image").toObject();
    EXPECT_EQ(saved.value("version").toString(), "1.1.0");
    EXPECT_EQ(saved.value("arch").toString(), "x86");
    EXPECT_EQ(machine.getOsImageArch(), "x86");
}

QByteArray withConfiguration(const QJsonValue &configuration)
{
    QJsonObject top = standardTop();
    top.insert("configuration", configuration);
    return bytes(top);
}

TEST_F(MachineFile, badFilesAreRefusedAndLeftAsTheyWere)
{
    const struct {
        const char *name;
        QByteArray content;
    } rows[] = {{"truncated", bytes(standardTop()).left(bytes(standardTop()).size() / 2)},
                {"notJson", "this is not json"},
                {"empty", ""},
                {"array", "[1, 2, 3]"},
                {"configurationString", withConfiguration("quickboot")},
                {"configurationArray", withConfiguration(QJsonArray{1})},
                {"noProfile", bytes({{"os_image", QJsonObject()}})},
                {"profileString", bytes({{"hardware_profile", "x"}})}};
    for (const auto &row : rows) {
        writeConfig(row.content);
        RecordMachine machine(m_dir);
        MessageCapture cap;
        EXPECT_FALSE(machine.load()) << row.name;
        EXPECT_FALSE(cap.noneAtOrAbove(QtWarningMsg)) << row.name << ": a refusal must be logged";
        EXPECT_EQ(QFile(configPath()).size(), row.content.size()) << row.name;
    }
    writeConfig(bytes({{"hardware_profile", QJsonObject()}}));
    RecordMachine machine(m_dir);
    MessageCapture cap;
    EXPECT_FALSE(machine.load());
    EXPECT_TRUE(cap.has(QtWarningMsg,
                        "[VMTools] Failed to load hwProfile \"badFilesAreRefusedAndLeftAsTheyWere\" , skip device"));
    QFile::remove(configPath());
    EXPECT_FALSE(machine.hasConfigFile());
    EXPECT_FALSE(machine.load());
}

TEST_F(MachineFile, unwritableDirectoryFailsTheSaveWithItsPath)
{
    // A plain file where the "shared" directory should be.
    QDir(m_dir + "/shared").removeRecursively();
    ASSERT_TRUE(hvtest::writeFile(m_dir + "/shared", ""));
    RecordMachine machine(m_dir);
    machine.setHwProfile(makeProfile());
    MessageCapture cap;
    EXPECT_FALSE(machine.setRamSize(4096));
    EXPECT_TRUE(cap.has(QtCriticalMsg, "[VMTools] Failed to create directory: \"" + m_dir + "/shared/config\""));
}

// Which setters write the file when given the value it already holds.
struct SetterRow {
    const char *name;
    std::function<bool(VMToolsMachine &)> set;
    bool writesUnchanged;
};

class SavingRules : public MachineFile, public ::testing::WithParamInterface<SetterRow> {};

TEST_P(SavingRules, setterWritesTheFileOnlyWhenItShould)
{
    RecordMachine machine(m_dir);
    machine.setHwProfile(makeProfile());
    machine.setOsImage(makeImage());
    ASSERT_TRUE(GetParam().set(machine));
    ASSERT_TRUE(machine.hasConfigFile());
    ageConfig();
    ASSERT_TRUE(GetParam().set(machine));
    EXPECT_EQ(configWasWritten(), GetParam().writesUnchanged);
}

INSTANTIATE_TEST_SUITE_P(
    Setters, SavingRules,
    ::testing::Values(
        SetterRow{"displayMode", [](VMToolsMachine &m) { return m.setDisplayMode(HwProfile::DisplayMode::FOLDABLE); },
                  false},
        SetterRow{"rootAccess", [](VMToolsMachine &m) { return m.setRootAccessEnabled(true); }, false},
        SetterRow{"quickboot", [](VMToolsMachine &m) { return m.setQuickbootEnabled(false); }, true},
        SetterRow{"fullScreen", [](VMToolsMachine &m) { return m.setFullScreen(true); }, true},
        SetterRow{"virtualKeyboard", [](VMToolsMachine &m) { return m.setVirtualKeyboardEnabled(true); }, true},
        SetterRow{"sdCardInserted", [](VMToolsMachine &m) { return m.setSdCardInserted(true); }, true},
        SetterRow{"glEsApiLevel", [](VMToolsMachine &m) { return m.setGlEsApiLevel("3.1"); }, true},
        SetterRow{"ramSize", [](VMToolsMachine &m) { return m.setRamSize(4096); }, true},
        SetterRow{"cpuCount", [](VMToolsMachine &m) { return m.setCpuCount(4); }, true},
        SetterRow{"density", [](VMToolsMachine &m) { return m.setDensity(320); }, true},
        SetterRow{"navigationBar", [](VMToolsMachine &m) { return m.setNavigationBarVisibility(false); }, true},
        SetterRow{"buildTags", [](VMToolsMachine &m) { return m.setBuildTags("release-keys"); }, true},
        SetterRow{"androidVersion", [](VMToolsMachine &m) { return m.setAndroidVersion(VersionNumber(12, 0)); },
                  true}),
    [](const auto &info) { return std::string(info.param.name); });

TEST_F(MachineFile, displaySettersTouchThePrimaryDisplayAndCornersTouchAll)
{
    // Without a display every display setter succeeds and does nothing.
    const std::function<bool(VMToolsMachine &)> displaySetters[] = {
        [](VMToolsMachine &m) { return m.setResolution(QSize(100, 200)); },
        [](VMToolsMachine &m) { return m.setDensity(320); },
        [](VMToolsMachine &m) { return m.setNavigationBarVisibility(false); },
        [](VMToolsMachine &m) { return m.setRoundedTopCornerRadius(8); },
        [](VMToolsMachine &m) { return m.setRoundedBottomCornerRadius(8); },
        [](VMToolsMachine &m) { return m.setRoundedCornerContentPadding(8); }};
    RecordMachine none(m_dir);
    none.setHwProfile(makeProfile(0));
    for (const auto &set : displaySetters)
        EXPECT_TRUE(set(none));
    EXPECT_FALSE(none.hasConfigFile());
    EXPECT_TRUE(none.getDisplays().isEmpty());
    EXPECT_TRUE(none.getNavigationBarVisibility());

    RecordMachine machine(m_dir);
    machine.setHwProfile(makeProfile(2));
    ASSERT_TRUE(machine.setResolution(QSize(1080, 1920)));
    ASSERT_TRUE(machine.setDensity(420));
    ASSERT_TRUE(machine.setRoundedTopCornerRadius(11));
    ASSERT_TRUE(machine.setRoundedBottomCornerRadius(12));
    ASSERT_TRUE(machine.setRoundedCornerContentPadding(13));
    ASSERT_TRUE(machine.setNavigationBarVisibility(false));
    const QList<HwProfile::Display> displays = machine.getDisplays();
    ASSERT_EQ(displays.size(), 2);
    EXPECT_EQ(machine.getResolution(), QSize(1080, 1920));
    EXPECT_EQ(machine.getDensity(), 420);
    EXPECT_EQ(displays[1].width, HwProfile::Display().width);
    EXPECT_EQ(displays[1].density, HwProfile::Display().density);
    for (const HwProfile::Display &display : displays) {
        EXPECT_EQ(display.topCornerRadius, 11);
        EXPECT_EQ(display.bottomCornerRadius, 12);
        EXPECT_EQ(display.contentPadding, 13);
    }
    EXPECT_FALSE(machine.getNavigationBarVisibility());
    EXPECT_TRUE(machine.getHwProfile().displaySettings.hwNavigationKeys);
    // What was written is what a fresh record reads.
    RecordMachine reread(m_dir);
    ASSERT_TRUE(reread.load());
    EXPECT_EQ(reread.getDisplays(), displays);
    EXPECT_FALSE(reread.getNavigationBarVisibility());
}

TEST_F(MachineFile, setPropertiesTakesTheProfilesValues)
{
    HwProfile profile = makeProfile();
    profile.cpuCount = 6;
    profile.ramSize = 3072;
    profile.sdCardSize = 512;
    profile.hasSdCard = true;
    RecordMachine machine(m_dir);
    ASSERT_TRUE(machine.setProperties(profile, makeImage(VersionNumber(8, 0))));
    RecordMachine reread(m_dir);
    ASSERT_TRUE(reread.load());
    EXPECT_EQ(reread.getCpuCount(), 6);
    EXPECT_EQ(reread.getRamSize(), 3072);
    EXPECT_EQ(reread.getSdCardSize(), 512);
    EXPECT_TRUE(reread.isSdCardInserted());
    EXPECT_EQ(reread.getAndroidVersion(), VersionNumber(8, 0));
    EXPECT_EQ(reread.getCapabilities(), 0);
}

TEST_F(MachineFile, getDataGivesTextOrTheDefault)
{
    writeConfig(withConfiguration(QJsonObject{{"count", 42}, {"list", QJsonArray{1}}, {"blank", ""}}));
    RecordMachine machine(m_dir);
    ASSERT_TRUE(machine.load());
    EXPECT_EQ(machine.getData("count", "none"), QVariant(QString("42")));
    EXPECT_EQ(machine.getData("list", "none"), QVariant("none"));
    EXPECT_EQ(machine.getData("blank", "none"), QVariant("none"));
    EXPECT_EQ(machine.getData("absent", 7), QVariant(7));
    machine.setData("player_zoom", 2);
    EXPECT_EQ(readConfig().value("configuration").toObject().value("player_zoom").toInt(), 2);
    EXPECT_EQ(machine.getData("player_zoom"), QVariant(QString("2")));
}

TEST(MachineNames, statusAndAdapterStrings)
{
    const std::pair<int, const char *> states[] = {{0, "Unknown"}, {1, "On"},      {2, "Off"},    {3, "Paused"},
                                                   {4, "Process"}, {5, "Aborted"}, {6, "Unknown"}, {-1, "Unknown"},
                                                   {99, "Unknown"}};
    for (const auto &[state, text] : states)
        EXPECT_EQ(VMToolsMachine::getStatusString(state), text) << state;
    const std::pair<int, const char *> adapters[] = {{0, "null"},        {1, "unknown"}, {2, "hostonly"},
                                                     {3, "hostonlynet"}, {4, "null"},    {-3, "null"}};
    for (const auto &[type, text] : adapters)
        EXPECT_EQ(VMToolsMachine::getAdapterTypeString(type), text) << type;
}

TEST_F(MachineFile, capabilitiesAndPlatformFollowImageAndProfile)
{
    const std::pair<VersionNumber, int> rows[] = {
        {VersionNumber(8, 0, 0), 0},
        {VersionNumber(7, 9, 9), 0},
        {VersionNumber(8, 0, 0, VersionNumber::Release, 1), 1},
        {VersionNumber(8, 0, 0, VersionNumber::Beta, 250), 1},
        {VersionNumber(8, 0, 0, VersionNumber::Beta, 199), 0},
        {VersionNumber(8, 0, 1), 1},
        {VersionNumber(9, 0, 0), 1},
        {VersionNumber(-1, 0), 0}};
    RecordMachine machine(m_dir);
    for (const auto &[android, capabilities] : rows) {
        machine.setOsImage(makeImage(android));
        EXPECT_EQ(machine.getCapabilities(), capabilities) << android.toString().toStdString();
    }
    machine.setHwProfile(makeProfile());
    EXPECT_EQ(machine.getPlatform(), "p");
    ASSERT_TRUE(machine.setFormFactor(HwProfile::FormFactor::TABLET));
    EXPECT_EQ(machine.getPlatform(), "tp");
    EXPECT_TRUE(machine.setPlatform("p"));
    EXPECT_EQ(machine.getPlatform(), "tp");
    EXPECT_EQ(machine.getElapsedTime(), 0);
}

TEST_F(MachineFile, sizeOnDiskIsComputedOnceUntilAskedAgain)
{
    ASSERT_TRUE(hvtest::writeFile(m_dir + "/system.qcow2", QByteArray(1000, 'x')));
    ASSERT_TRUE(hvtest::writeFile(m_dir + "/shared/config/other.bin", QByteArray(234, 'y')));
    RecordMachine machine(m_dir);
    EXPECT_EQ(machine.getSizeOnDisk(), 1234);
    ASSERT_TRUE(hvtest::writeFile(m_dir + "/shared/config/other.bin", QByteArray(334, 'y')));
    EXPECT_EQ(machine.getSizeOnDisk(), 1234);
    EXPECT_EQ(machine.computeSizeOnDisk(), 1334);
    EXPECT_EQ(machine.getSizeOnDisk(), 1334);
    // Links, to a file or a directory outside, are not the device's bytes.
    QTemporaryDir outside;
    ASSERT_TRUE(hvtest::writeFile(outside.filePath("big"), QByteArray(5000, 'z')));
    ASSERT_TRUE(QFile::link(outside.filePath("big"), m_dir + "/linked.qcow2"));
    ASSERT_TRUE(QFile::link(outside.path(), m_dir + "/shared/linked-dir"));
    EXPECT_EQ(machine.computeSizeOnDisk(), 1334);
}

TEST_F(MachineFile, upgradingFlagIsAnIniFile)
{
    RecordMachine machine(m_dir);
    const QString flag = m_dir + "/upgrading.flag";
    EXPECT_EQ(machine.getUpgradingFlagPath(), flag);
    EXPECT_FALSE(machine.isUpgrading());
    MessageCapture cap;
    ASSERT_TRUE(machine.setUpgrading(true));
    EXPECT_TRUE(machine.isUpgrading());
    EXPECT_TRUE(QSettings(flag, QSettings::IniFormat).value("upgrading").toBool());
    ASSERT_TRUE(machine.setUpgrading(false));
    EXPECT_FALSE(machine.isUpgrading());
    EXPECT_FALSE(machine.setUpgrading(false));
    EXPECT_EQ(cap.lines(), (QList<hvtest::LogLine>{{QtDebugMsg, "[VMTools] Created \"" + flag + "\" flag"},
                                                   {QtDebugMsg, "[VMTools] Removed \"" + flag + "\" flag"},
                                                   {QtWarningMsg, "[VMTools] Cannot remove file \"" + flag + "\""}}));
}

TEST_F(MachineFile, quickbootSnapshotFilesAreRemovedWhenPresent)
{
    RecordMachine machine(m_dir);
    EXPECT_EQ(machine.snapshotFilename(), m_dir + "/snapshot.snap");
    EXPECT_EQ(machine.textureFilename(), m_dir + "/snapshot.stex");
    ASSERT_TRUE(hvtest::writeFile(machine.snapshotFilename(), ""));
    MessageCapture cap;
    machine.deleteOpenglSnapshot();
    EXPECT_FALSE(QFile::exists(machine.snapshotFilename()));
    EXPECT_TRUE(cap.noneAtOrAbove(QtWarningMsg));
}

} // namespace
