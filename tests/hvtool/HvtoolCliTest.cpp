// hvtool's command contract, run as a user runs it: the real binary, its
// exit codes, its stdout and stderr.
#include "HvtoolRun.h"
#include "TestEnvironment.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <QProcess>
#include <QRegularExpression>
#include <QThread>
#include <QUrl>

#include <functional>

#include <gtest/gtest.h>

namespace {

using hvtest::CliResult;
using hvtest::hvtool;

int run(const QString &program, const QStringList &args)
{
    QProcess p;
    p.start(program, args);
    EXPECT_TRUE(p.waitForFinished(60000));
    EXPECT_EQ(p.exitCode(), 0) << p.readAllStandardError().toStdString();
    return p.exitCode();
}

/// Every regular file below dir whose content holds marker.
QStringList filesHolding(const QString &dir, const QByteArray &marker)
{
    QStringList found;
    QDirIterator it(dir, QDir::Files | QDir::Hidden | QDir::System, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        QFile file(it.next());
        if (file.open(QIODevice::ReadOnly) && file.readAll().contains(marker))
            found << file.fileName();
    }
    return found;
}

QString dataTree()
{
    return qEnvironmentVariable("HV_HOME") + "/.Corbelwick";
}


struct CliCase {
    const char *name;
    QStringList args;
    int code;
    const char *stdoutHas;
    const char *stderrHas;
};

class HvtoolContract : public ::testing::TestWithParam<CliCase>
{
};

TEST_P(HvtoolContract, exitCodeAndMessage)
{
    const CliCase &c = GetParam();
    const CliResult r = hvtool(c.args);
    EXPECT_EQ(r.code, c.code) << r.err.toStdString();
    EXPECT_TRUE(r.out.contains(QString::fromUtf8(c.stdoutHas))) << r.out.toStdString();
    EXPECT_TRUE(r.err.contains(QString::fromUtf8(c.stderrHas))) << r.err.toStdString();
}

INSTANTIATE_TEST_SUITE_P(
    CommandLine, HvtoolContract,
    ::testing::Values(
        CliCase{"noCommand", {}, 2, "", "hvtool: missing command"},
        CliCase{"unknownNoun", {"frobnicate"}, 2, "", "hvtool: unknown command 'frobnicate'"},
        CliCase{"unknownVerb", {"device", "explode"}, 2, "", "hvtool: unknown command 'device explode'"},
        CliCase{"nounAlone", {"device"}, 2, "", "hvtool device start NAME [--cold] [--snapshot SNAPSHOT] [--wait SECONDS] [--accel ACCELERATOR]"},
        CliCase{"nounHelp", {"device", "snapshot", "--help"}, 0, "hvtool device snapshot save NAME SNAPSHOT", ""},
        CliCase{"topHelpListsExitCodes", {"--help"}, 0, "  3  the named device, image, profile or snapshot", ""},
        CliCase{"verbHelp", {"device", "start", "--help"}, 0,
                "Usage: hvtool device start NAME [--cold] [--snapshot SNAPSHOT] [--wait SECONDS] [--accel ACCELERATOR]", ""},
        CliCase{"badFormat", {"--format", "xml", "device", "list"}, 2, "", "hvtool: unknown format 'xml'"},
        CliCase{"missingArgument", {"device", "start"}, 2, "", "hvtool: missing argument: NAME"},
        CliCase{"extraArgument", {"device", "start", "a", "b"}, 2, "", "hvtool: unexpected argument 'b'"},
        CliCase{"unknownOption", {"device", "list", "--colour"}, 2, "", "Unknown option 'colour'"},
        CliCase{"unknownDevice", {"device", "start", "nosuch"}, 3, "", "hvtool: device 'nosuch' does not exist"},
        // What follows "--" is adb's, options named like hvtool's too.
        CliCase{"adbArguments", {"device", "adb", "nosuch", "--", "shell", "ls", "-h"}, 3, "", "device 'nosuch' does not exist"},
        CliCase{"unknownDeviceJson", {"device", "show", "nosuch", "--format", "json"}, 3, "\"exit_code\": 3",
                "device 'nosuch' does not exist"},
        CliCase{"typoGetsASuggestion", {"device", "strat", "x"}, 2, "",
                "hvtool: unknown command 'device strat'; did you mean 'hvtool device start'?\n"},
        CliCase{"deleteUnknown", {"device", "delete", "nosuch", "--yes"}, 3, "", "device 'nosuch' does not exist"},
        CliCase{"badDeviceName", {"device", "create", "../evil", "--image", "x", "--profile", "y"}, 2, "",
                "'../evil' is not a valid device name"},
        CliCase{"unknownSetting", {"settings", "set", "no.such.key", "1"}, 2, "",
                "unknown setting 'no.such.key'; the settings are hypervisor, emulator.accelerator,"},
        CliCase{"unknownProfile", {"profile", "show", "nosuch"}, 3, "", "profile 'nosuch' does not exist"},
        CliCase{"badDisplay", {"profile", "create", "p", "--display", "big"}, 2, "",
                "--display needs WIDTHxHEIGHT@DPI"},
        CliCase{"badFormFactor", {"profile", "create", "p", "--form-factor", "toaster"}, 2, "",
                "unknown form factor 'toaster'"},
        CliCase{"tooLittleRam", {"profile", "create", "p", "--ram", "12"}, 2, "",
                "--ram needs a whole number from 256 to 2147483647, not '12'"},
        CliCase{"tooMuchRam", {"profile", "create", "p", "--ram", "2147483648"}, 2, "",
                "--ram needs a whole number from 256 to 2147483647, not '2147483648'"},
        CliCase{"tooLargeDataDisk", {"profile", "create", "p", "--data-disk", "99999999999"}, 2, "",
                "--data-disk needs a whole number from 64 to 2147483647"},
        CliCase{"missingImageFile", {"image", "add", "/nonexistent.ova"}, 3, "",
                "file '/nonexistent.ova' does not exist"},
        CliCase{"versionFlag", {"--version"}, 0, "libhalvistrom-core 3.8.0", ""},
        // The library's progress is at debug level, which only --verbose turns on.
        CliCase{"verboseShowsTheLibrarysProgress", {"-v", "device", "list"}, 0, "NAME", "[debug] "}),
    [](const ::testing::TestParamInfo<CliCase> &info) { return std::string(info.param.name); });

TEST(HvtoolSettings, setGetResetRoundTripWithSources)
{
    // A setting that is not the engine's needs no QEMU at hand.
    EXPECT_EQ(hvtool({"settings", "set", "emulator.accelerator", "tcg"}, {{"HV_QEMU_BIN_DIR", "/nonexistent"}}).code, 0);
    EXPECT_EQ(hvtool({"settings", "get", "emulator.accelerator"}).out, "tcg\n");
    QMap<QString, QJsonObject> listed;
    for (const QJsonValue &row : hvtool({"settings", "list", "--format", "json"}).json().array())
        listed.insert(row.toObject().value("key").toString(), row.toObject());
    EXPECT_TRUE(listed.contains("virtual_devices.directory"));
    EXPECT_FALSE(listed.contains("virtualbox.host_only_interface_name"));
    EXPECT_EQ(listed["emulator.accelerator"].value("source"), "user");
    EXPECT_EQ(listed["emulator.audio"].value("source"), "default");
    EXPECT_EQ(listed["virtual_devices.directory"].value("source"), "environment");
    EXPECT_FALSE(hvtool({"settings", "list"}).out.contains(QDir::homePath() + "/"));
    EXPECT_EQ(hvtool({"settings", "reset", "emulator.accelerator"}).out, "reset emulator.accelerator to its default, auto\n");
    EXPECT_EQ(hvtool({"settings", "get", "emulator.accelerator"}).out, "auto\n");
    const CliResult homeless = hvtool({"settings", "list", "--format", "json"}, {{"HV_HOME", "/proc/no/home"}});
    EXPECT_EQ(homeless.code, 1);
    EXPECT_EQ(homeless.json().object().value("error").toObject().value("message"),
              "HV_HOME is set to '/proc/no/home', but this directory cannot be created: No such file or directory");
}

// A fresh install lists a phone held upright and a tablet, within this
// host, and keeps them; profiles go by the name they were given.
TEST(HvtoolProfiles, builtInProfilesAreListedCappedAndKept)
{
    const int hostCpus = QThread::idealThreadCount();
    QStringList names;
    // Other tests of this process add profiles of their own after these.
    const QJsonArray all = hvtool({"profile", "list", "--format", "json"}).json().array();
    for (int i = 0; i < qMin(2, all.size()); ++i) {
        const QJsonObject profile = all.at(i).toObject();
        names << profile.value("name").toString();
        EXPECT_TRUE(profile.value("builtin").toBool());
        EXPECT_LE(profile.value("cpu_count").toInt(), hostCpus);
        EXPECT_FALSE(profile.value("uuid").toString().startsWith('{'));
    }
    EXPECT_EQ(names, QStringList({"phone", "tablet"}));
    const QJsonObject phone = hvtool({"profile", "show", "phone", "--format", "json"}).json().object();
    const QJsonObject screen = phone.value("display_settings").toObject().value("displays").toArray().at(0).toObject();
    EXPECT_GT(screen.value("height").toInt(), screen.value("width").toInt());
    for (const QStringList &change : {QStringList{"delete", "phone"}, QStringList{"set", "tablet", "cpus=1"}}) {
        const CliResult refused = hvtool(QStringList{"profile"} + change);
        EXPECT_EQ(refused.code, 4);
        EXPECT_TRUE(refused.err.contains("is built in and cannot be")) << refused.err.toStdString();
    }
    const CliResult tooMany = hvtool({"profile", "create", "big", "--cpus", QString::number(hostCpus + 1)});
    EXPECT_EQ(tooMany.code, 2);
    EXPECT_TRUE(tooMany.err.contains("(this host's processors)")) << tooMany.err.toStdString();
}

TEST(HvtoolProfiles, createListShowSetDelete)
{
    const CliResult created = hvtool({"profile", "create", "Pocket", "--form-factor", "tablet", "--cpus", "2", "--ram",
                                "1024", "--display", "1080x1920@420", "--format", "json"});
    ASSERT_EQ(created.code, 0) << created.err.toStdString();
    const QJsonObject profile = created.json().object();
    EXPECT_EQ(profile.value("form_factor").toString(), "TABLET");
    EXPECT_EQ(profile.value("cpu_count").toInt(), 2);
    EXPECT_EQ(profile.value("ram_size").toInt(), 1024);

    const CliResult again = hvtool({"profile", "create", "Pocket"});
    EXPECT_EQ(again.code, 4);
    EXPECT_TRUE(again.err.contains("profile 'Pocket' already exists")) << again.err.toStdString();

    const CliResult list = hvtool({"profile", "show", "Pocket"});
    EXPECT_TRUE(list.out.contains("1080x1920@420")) << list.out.toStdString();
    EXPECT_EQ(profile.value("name").toString(), "Pocket");
    const CliResult shown = hvtool({"profile", "show", "Pocket", "--format", "json"});
    EXPECT_EQ(shown.json().object().value("uuid"), profile.value("uuid"));

    const CliResult set = hvtool({"profile", "set", "Pocket", "cpus=1", "display=720x1280@320"});
    EXPECT_EQ(set.code, 0) << set.err.toStdString();
    EXPECT_TRUE(set.out.startsWith("changed profile 'Pocket': cpus=1 display=720x1280@320")) << set.out.toStdString();
    // One bad change refuses them all.
    EXPECT_EQ(hvtool({"profile", "set", "Pocket", "cpus=2", "ram=1"}).code, 2);
    EXPECT_EQ(hvtool({"profile", "set", "Pocket", "ram=512", "colour=red"}).code, 2);
    const QJsonObject changed = hvtool({"profile", "show", "Pocket", "--format", "json"}).json().object();
    EXPECT_EQ(changed.value("cpu_count").toInt(), 1);
    EXPECT_EQ(changed.value("ram_size").toInt(), 1024);

    EXPECT_EQ(hvtool({"profile", "delete", "Pocket"}).code, 0);
    EXPECT_EQ(hvtool({"profile", "show", "Pocket"}).code, 3);
}

class HvtoolImages : public ::testing::Test
{
protected:
    QString makeTar(const QString &name, const QStringList &members)
    {
        const QString dir = hvtest::testRoot() + "/ova-src-" + name;
        QDir().mkpath(dir);
        for (const QString &member : members) {
            // Disks are real vmdk images: image add inspects them.
            if (member.endsWith(".vmdk") && !QFile::exists(dir + "/" + member)) {
                EXPECT_EQ(run("qemu-img", {"create", "-q", "-f", "vmdk", dir + "/" + member, "1M"}), 0);
                continue;
            }
            if (QFile::exists(dir + "/" + member))
                continue;
            QFile f(dir + "/" + member);
            EXPECT_TRUE(f.open(QIODevice::WriteOnly));
            f.write(QByteArray(3000, member.at(0).toLatin1()));
        }
        const QString tar = hvtest::testRoot() + "/" + name;
        QProcess p;
        p.start("tar", QStringList{"--format=ustar", "-cf", tar, "-C", dir} + members);
        EXPECT_TRUE(p.waitForFinished(30000));
        EXPECT_EQ(p.exitCode(), 0);
        return tar;
    }
};

TEST_F(HvtoolImages, addsAnOvaWithItsHashSizeAndDefaults)
{
    const QString ova = makeTar("good.ova", {"system.vmdk", "data.vmdk", "device.ovf"});
    const CliResult added = hvtool({"image", "add", ova, "--android", "11.0", "--format", "json"});
    ASSERT_EQ(added.code, 0) << added.err.toStdString();
    const QJsonObject record = added.json().object();

    QFile file(ova);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray content = file.readAll();
    EXPECT_EQ(record.value("image_hash").toString(),
              QString::fromLatin1(QCryptographicHash::hash(content, QCryptographicHash::Sha256).toHex()));
    EXPECT_EQ(record.value("image_size_bytes").toDouble(), double(content.size()));
    EXPECT_EQ(record.value("arch").toString(), "x86_64");
    EXPECT_EQ(record.value("os_version").toObject().value("sdk_version").toInt(), 30);
    EXPECT_EQ(QUrl(record.value("image_uri").toString()).toLocalFile(), ova);

    // One OVA is one image: the same content again is refused, naming the record.
    const CliResult again = hvtool({"image", "add", ova, "--android", "7.1"});
    EXPECT_EQ(again.code, 4);
    EXPECT_TRUE(again.err.contains("is already registered as image 'Android 11.0' ("
                                   + record.value("uuid").toString().remove('{').remove('}')))
        << again.err.toStdString();

    const QString older = makeTar("older.ova", {"system.vmdk", "data.vmdk", "readme.txt"});
    const CliResult legacy = hvtool({"image", "add", older, "--android", "7.1", "--name", "Old", "--format", "json"});
    ASSERT_EQ(legacy.code, 0) << legacy.err.toStdString();
    EXPECT_EQ(legacy.json().object().value("arch").toString(), "x86");
    EXPECT_EQ(legacy.json().object().value("os_version").toObject().value("sdk_version").toInt(), 25);

    const CliResult list = hvtool({"image", "list", "--format", "json"});
    EXPECT_EQ(list.json().array().size(), 2);
    EXPECT_EQ(hvtool({"image", "show", "Old"}).code, 0);
    EXPECT_EQ(hvtool({"image", "remove", "Old"}).code, 0);
    EXPECT_EQ(hvtool({"image", "show", "Old"}).code, 3);
}

TEST_F(HvtoolImages, refusesFilesThatAreNotDeviceOvas)
{
    const int before = hvtool({"image", "list", "--format", "json"}).json().array().size();
    const QString text = hvtest::testRoot() + "/text.ova";
    QFile f(text);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.write(QByteArray(2048, 'x'));
    f.close();
    CliResult r = hvtool({"image", "add", text, "--android", "11.0"});
    EXPECT_EQ(r.code, 1);
    EXPECT_TRUE(r.err.contains("is not an OVA archive")) << r.err.toStdString();

    const QString noDisks = makeTar("nodisks.ova", {"readme.txt"});
    r = hvtool({"image", "add", noDisks, "--android", "11.0"});
    EXPECT_EQ(r.code, 1);
    EXPECT_TRUE(r.err.contains("is not an OVA archive of a device image: it has no system.vmdk")) << r.err.toStdString();

    r = hvtool({"image", "add", noDisks});
    EXPECT_EQ(r.code, 2);
    EXPECT_TRUE(r.err.contains("an OVA needs --android VERSION")) << r.err.toStdString();
    EXPECT_EQ(hvtool({"image", "list", "--format", "json"}).json().array().size(), before);
}

// A disk that names a host file (as a backing file or an extent), or is not
// the vmdk it claims to be, is refused at image add: nothing is registered,
// nothing is left behind, and the host file's bytes reach no file of ours.
TEST_F(HvtoolImages, refusesHostileOvasAndLeavesNothingBehind)
{
    const QString secret = hvtest::testRoot() + "/secret.raw";
    QFile f(secret);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.write(QByteArray("HOST-SECRET-MARKER").leftJustified(1 << 20, 'S'));
    f.close();
    const struct {
        const char *name;
        std::function<void(const QString &disk)> make;
        QString reason;
    } rows[] = {
        {"backed", [&](const QString &disk) {
             run("qemu-img", {"create", "-q", "-f", "qcow2", "-b", secret, "-F", "raw", disk});
         }, "not a vmdk image: qemu-img: Could not open"},
        {"extent", [&](const QString &disk) {
             QFile d(disk);
             d.open(QIODevice::WriteOnly);
             d.write("# Disk DescriptorFile\nversion=1\nCID=fffffffe\nparentCID=ffffffff\n"
                     "createType=\"monolithicFlat\"\nRW 2048 FLAT \"" + secret.toUtf8() + "\" 0\n");
         }, "it has an extent in another file '" + secret + "'"},
        {"text", [&](const QString &disk) {
             QFile d(disk);
             d.open(QIODevice::WriteOnly);
             d.write(QByteArray(3000, 'x'));
         }, "not a vmdk image"},
    };
    const int before = hvtool({"image", "list", "--format", "json"}).json().array().size();
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const QString dir = hvtest::testRoot() + "/ova-src-" + row.name + ".ova";
        QDir().mkpath(dir);
        row.make(dir + "/system.vmdk");
        const QString ova = makeTar(QString(row.name) + ".ova", {"system.vmdk", "data.vmdk"});
        const CliResult r = hvtool({"image", "add", ova, "--android", "11.0"});
        EXPECT_EQ(r.code, 1);
        EXPECT_TRUE(r.err.contains("'" + ova + "' is refused: disk 'system.vmdk': " + row.reason)) << r.err.toStdString();
        EXPECT_EQ(hvtool({"image", "list", "--format", "json"}).json().array().size(), before);
        EXPECT_EQ(QDir(dataTree() + "/Halvistrom/tmp").entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList());
        EXPECT_EQ(filesHolding(dataTree(), "HOST-SECRET-MARKER"), QStringList());
    }
}

enum Shape { Text, Change, Object, Array };

struct WalkRow {
    Shape shape;
    int code;
    QStringList args;
};

// The walk, in an order where each row finds what it needs: its exit code
// per the README's table, the format it runs in and what it shows.
const WalkRow kWalk[] = {
    {Text, 0, {"settings", "list"}}, {Array, 0, {"settings", "list"}},
    {Object, 0, {"settings", "get", "emulator.audio"}}, {Change, 0, {"settings", "set", "emulator.audio", "none"}},
    {Object, 0, {"settings", "set", "images.catalogue_url", "http://127.0.0.1:9/c.json"}},
    {Change, 0, {"settings", "reset", "emulator.audio"}}, {Object, 2, {"settings", "set", "no.such", "1"}},
    {Text, 2, {"settings", "set", "emulator.accelerator", "fast"}}, {Object, 2, {"settings", "get", "no.such"}},
    {Change, 0, {"profile", "create", "Small", "--cpus", "1", "--ram", "256"}},
    {Object, 0, {"profile", "create", "Other"}}, {Object, 4, {"profile", "create", "Small"}},
    {Array, 0, {"profile", "list"}}, {Object, 0, {"profile", "show", "Small"}}, {Text, 3, {"profile", "show", "no"}},
    {Change, 0, {"profile", "set", "Small", "ram=512"}}, {Object, 2, {"profile", "set", "Small", "ram=1"}},
    {Change, 0, {"profile", "delete", "Other"}}, {Object, 3, {"profile", "delete", "Other"}},
    {Object, 0, {"image", "add", "@walk.ova", "--android", "11.0", "--name", "Walk"}},
    {Change, 0, {"image", "add", "@spare.ova", "--android", "11.0", "--name", "Spare"}},
    {Text, 4, {"image", "add", "@walk.ova", "--android", "11.0"}}, {Object, 3, {"image", "add", "/nonexistent.ova"}},
    {Array, 0, {"image", "list"}}, {Object, 0, {"image", "show", "Spare"}}, {Change, 0, {"image", "remove", "Spare"}},
    {Object, 3, {"image", "remove", "Spare"}}, {Object, 1, {"image", "available"}}, {Text, 1, {"image", "pull", "x"}},
    {Change, 0, {"device", "create", "A", "--profile", "Small", "--image", "Walk"}},
    {Object, 0, {"device", "create", "B", "--profile", "Small", "--image", "Walk"}}, {Object, 4, {"device", "create", "A"}},
    {Text, 0, {"device", "list"}}, {Array, 0, {"device", "list", "--all"}}, {Object, 0, {"device", "show", "A"}},
    {Text, 3, {"device", "show", "nosuch"}}, {Change, 0, {"device", "set", "A", "root=true", "sdcard-size=64"}},
    {Object, 0, {"device", "set", "A", "virtual-keyboard=on"}}, {Text, 2, {"device", "set", "A", "colour=red"}},
    {Object, 2, {"device", "set", "A", "cpus=0"}}, {Object, 0, {"device", "clone", "A", "C"}},
    {Text, 4, {"device", "clone", "A", "C"}}, {Array, 0, {"device", "snapshot", "list", "A"}},
    {Change, 0, {"device", "start", "A"}}, {Object, 4, {"device", "start", "A"}}, {Text, 0, {"device", "list"}},
    {Object, 0, {"device", "screenshot", "A", "@shot.png"}}, {Text, 1, {"device", "screenshot", "A", "/no/such.png"}},
    {Object, 4, {"device", "screenshot", "B"}}, {Object, 0, {"device", "logs", "A"}}, {Text, 0, {"device", "logs", "B"}},
    {Object, 1, {"device", "wait", "A", "--timeout", "1"}},
    {Object, 0, {"device", "snapshot", "save", "A", "one"}}, {Change, 0, {"device", "snapshot", "save", "A", "two"}},
    {Change, 0, {"device", "snapshot", "load", "A", "one"}}, {Object, 3, {"device", "snapshot", "load", "A", "x"}},
    {Object, 4, {"device", "resume", "A"}}, {Text, 4, {"device", "snapshot", "delete", "A", "one"}},
    {Object, 0, {"device", "stop", "A", "--no-save"}}, {Object, 0, {"device", "start", "A"}},
    {Change, 0, {"device", "stop", "A", "--force"}}, {Change, 0, {"device", "stop", "A"}},
    {Object, 0, {"device", "stop", "A"}}, {Object, 4, {"device", "adb", "A", "shell", "true"}},
    {Object, 0, {"device", "snapshot", "delete", "A", "one"}},
    {Change, 0, {"device", "snapshot", "delete", "A", "two"}}, {Change, 0, {"device", "reset", "A", "--yes"}},
    {Object, 0, {"device", "reset", "B", "--yes"}}, {Object, 2, {"device", "delete", "C"}},
    {Change, 0, {"device", "delete", "C", "--yes"}}, {Object, 0, {"device", "delete", "B", "--yes"}},
    {Text, 0, {"device", "cleanup"}}, {Array, 0, {"device", "cleanup"}}, {Array, 0, {"doctor"}},
    {Object, 0, {"version"}}, {Object, 3, {"device", "wait", "nosuch"}}, {Text, 0, {"completion", "bash"}},
    {Object, 2, {"completion"}}, {Text, 0, {"manual"}}, {Object, 0, {"manual"}}, {Object, 2, {"device", "strat"}}, {Object, 2, {"device", "show"}},
};

// One row run as a user runs it; what its output must be, checked.
void checkRow(const WalkRow &row, const QStringList &args, const QMap<QString, QString> &env)
{
    const bool json = row.shape == Object || row.shape == Array;
    SCOPED_TRACE((args.join(' ') + (json ? " --format json" : "")).toStdString());
    const CliResult r = hvtool(args + (json ? QStringList{"--format", "json"} : QStringList()), env);
    EXPECT_EQ(r.code, row.code) << r.err.toStdString();
    EXPECT_FALSE(QRegularExpression("\\{[0-9a-fA-F]{8}-").match(r.out).hasMatch()) << r.out.toStdString();
    if (!json) {
        EXPECT_EQ(r.err.startsWith("hvtool: "), row.code != 0) << r.err.toStdString();
        for (const QString &line : args.mid(0, 2) == QStringList{"device", "list"} ? r.out.split('\n') : QStringList())
            EXPECT_LE(line.size(), 80) << line.toStdString();
        EXPECT_EQ(r.out.isEmpty(), row.code != 0) << r.out.toStdString();
        return;
    }
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(r.out.toUtf8(), &error);
    ASSERT_EQ(error.error, QJsonParseError::NoError) << r.out.toStdString();
    const QJsonObject failure = document.object().value("error").toObject();
    if (row.code != 0) {
        EXPECT_EQ(failure.value("exit_code").toInt(), row.code);
        EXPECT_TRUE(r.err.contains(failure.value("message").toString())) << r.out.toStdString();
        return;
    }
    EXPECT_EQ(document.isArray(), row.shape == Array);
    EXPECT_TRUE(failure.isEmpty() && (document.isArray() || !document.object().isEmpty()));
}

// Every command in both formats, as the README's output contract promises:
// the documented exit code; in JSON one document, the error object on
// failure; in text a line for every change; uuids bare everywhere.
TEST_F(HvtoolImages, everyCommandKeepsTheOutputContract)
{
    const QMap<QString, QString> files{{"@walk.ova", makeTar("walk.ova", {"system.vmdk", "data.vmdk"})},
                                       {"@spare.ova", makeTar("spare.ova", {"system.vmdk", "data.vmdk", "spare.txt"})},
                                       {"@shot.png", hvtest::testRoot() + "/shot.png"}};
    const QMap<QString, QString> tcg{{"HV_QEMU_START_ARGS", "-accel=tcg;-cpu=max;-audiodev=none,id=snd0"}};
    QStringList walked;
    for (const WalkRow &row : kWalk) {
        QStringList args = row.args;
        for (QString &arg : args)
            arg = files.value(arg, arg);
        for (int words = 1; words <= 3; ++words)
            walked << args.mid(0, words).join(' ');
        checkRow(row, args, tcg);
    }
    // Declined on a terminal: exit 1 and the device kept, where a missing
    // --yes off a terminal was exit 2.
    QProcess terminal;
    terminal.start("script", {"-qec", hvtest::helperPath("hvtool") + " device delete A", "/dev/null"});
    terminal.write("n\n");
    ASSERT_TRUE(terminal.waitForFinished(30000));
    EXPECT_EQ(terminal.exitCode(), 1);
    EXPECT_TRUE(terminal.readAll().contains("hvtool: device 'A' not deleted"));
    const QString shown = hvtool({"device", "show", "A"}).out;
    EXPECT_TRUE(shown.contains(QRegularExpression("\nroot: +true\nvirtual-keyboard: +true\n"))) << shown.toStdString();
    // Every command is walked, and its help shows how to use it.
    for (const QString &line : hvtool({"--help"}).out.split('\n').filter(QRegularExpression("^  hvtool [a-z]"))) {
        const QString path = line.section(' ', 3).section(QRegularExpression(" [A-Z\\[]"), 0, 0);
        EXPECT_TRUE(walked.contains(path)) << "not walked: " << path.toStdString();
        EXPECT_TRUE(hvtool(path.split(' ') << "--help").out.contains("Example:\n  hvtool " + path))
            << path.toStdString();
    }
}

// Paths made from records stay in their directories: a record's uuid never
// names a file elsewhere, and delete/remove act on the user's records only.
TEST_F(HvtoolImages, pathsFromRecordsStayInTheirDirectories)
{
    const QString ova = makeTar("fine.ova", {"system.vmdk", "data.vmdk"});
    const CliResult added = hvtool({"image", "add", ova, "--android", "11.0", "--format", "json"});
    ASSERT_EQ(added.code, 0) << added.err.toStdString();
    QJsonObject record = added.json().object();
    record.insert("uuid", "../hwprofiles/evil");
    const QString crafted = hvtest::testRoot() + "/crafted.json";
    QFile f(crafted);
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.write(QJsonDocument(record).toJson());
    f.close();
    CliResult r = hvtool({"image", "add", crafted});
    EXPECT_EQ(r.code, 1);
    EXPECT_TRUE(r.err.contains("its uuid '../hwprofiles/evil' is not a file name")) << r.err.toStdString();
    EXPECT_FALSE(QFile::exists(dataTree() + "/Halvistrom/hwprofiles/evil.json"));

    // A record file outside the records directories, named by its path.
    ASSERT_EQ(hvtool({"profile", "create", "Outside"}).code, 0);
    const QString profiles = dataTree() + "/Halvistrom/hwprofiles";
    const QString outsideProfile = hvtest::testRoot() + "/outside-profile.json";
    ASSERT_TRUE(QFile::copy(QDir(profiles).entryInfoList({"*.json"}).value(0).absoluteFilePath(), outsideProfile));
    const QString outsideImage = hvtest::testRoot() + "/outside-image.json";
    record.insert("uuid", "0b0e2c1e-6f59-4a4c-9a32-6a3f1a1b2c3d");
    ASSERT_TRUE(f.open(QIODevice::WriteOnly));
    f.write(QJsonDocument(record).toJson());
    f.close();
    ASSERT_TRUE(QFile::rename(crafted, outsideImage));
    const struct {
        QStringList args;
        QString file;
        QString message;
    } rows[] = {
        {{"profile", "delete", outsideProfile}, outsideProfile, "is not a user profile: it is outside"},
        {{"image", "remove", outsideImage}, outsideImage, "is not a registered image record: it is outside"},
    };
    for (const auto &row : rows) {
        r = hvtool(row.args);
        EXPECT_EQ(r.code, 2);
        EXPECT_TRUE(r.err.contains("'" + row.file + "' " + row.message)) << r.err.toStdString();
        EXPECT_TRUE(QFile::exists(row.file));
    }
}

// The devices directory must be absolute: a relative one would put devices
// wherever hvtool happens to run.
TEST(HvtoolSettings, devicesDirectoryMustBeAbsolute)
{
    const CliResult r = hvtool({"settings", "set", "virtual_devices.directory", "12"});
    EXPECT_EQ(r.code, 2);
    EXPECT_TRUE(r.err.contains("it must be an absolute path")) << r.err.toStdString();
    EXPECT_NE(hvtool({"settings", "get", "virtual_devices.directory"}).out.trimmed(), "12");
    const QString absolute = hvtest::testRoot() + "/devices";
    EXPECT_EQ(hvtool({"settings", "set", "virtual_devices.directory", absolute}).code, 0);
    EXPECT_EQ(hvtool({"settings", "get", "virtual_devices.directory"}).out.trimmed(), absolute);
}

// A data tree left open by an older program or a wide umask is closed on
// first use, with one line saying so; a closed one is left alone silently,
// without walking it again.
TEST(HvtoolPrivacy, anOpenDataTreeIsClosedOnFirstUse)
{
    ASSERT_EQ(hvtool({"profile", "create", "Open"}).code, 0);
    const QString profiles = dataTree() + "/Halvistrom/hwprofiles";
    const QString record = QDir(profiles).entryInfoList({"*.json"}).value(0).absoluteFilePath();
    ASSERT_FALSE(record.isEmpty());
    EXPECT_EQ(QFile(record).permissions() & 0x0077, 0) << "records are private from the start";
    // What an older program left: open modes and no mark of a closed tree.
    ASSERT_TRUE(QFile::remove(dataTree() + "/Halvistrom/.private"));
    ASSERT_TRUE(QFile::setPermissions(profiles, QFileDevice::Permissions(0x7755)));
    ASSERT_TRUE(QFile::setPermissions(record, QFileDevice::Permissions(0x6644)));
    CliResult r = hvtool({"-v", "profile", "list"});
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.err.count("Restricted access to \"" + dataTree() + "\" : 2 entries were open to other users"), 1)
        << r.err.toStdString();
    EXPECT_EQ(QFile(profiles).permissions() & 0x0077, 0);
    EXPECT_EQ(QFile(record).permissions() & 0x0077, 0);
    r = hvtool({"-v", "profile", "list"});
    EXPECT_FALSE(r.err.contains("Restricted access")) << r.err.toStdString();
}

TEST(HvtoolDoctor, reportsEveryCheckAndWhatAutoPicksHere)
{
    const CliResult r = hvtool({"doctor", "--format", "json"});
    EXPECT_EQ(r.code, 0) << r.out.toStdString() << r.err.toStdString();
    QMap<QString, QJsonObject> checks;
    for (const QJsonValue &check : r.json().array())
        checks.insert(check.toObject().value("check").toString(), check.toObject());
    EXPECT_EQ(checks.keys(), (QStringList{"accelerator", "adb", "audio", "cpu-virtualisation", "devices-directory",
                                          "kvm-device", "leftovers", "plugin", "qemu-installed", "qemu-version"}));
    for (const QString name : {"accelerator", "audio", "plugin", "qemu-installed"})
        EXPECT_EQ(checks[name].value("result").toString(), "ok") << checks[name].value("detail").toString().toStdString();
    EXPECT_TRUE(checks["accelerator"].value("detail").toString().startsWith("emulator.accelerator is auto; auto picks "));
    EXPECT_TRUE(checks["audio"].value("detail").toString().startsWith("emulator.audio is auto; auto picks "));
}

} // namespace
