// Nothing lost: what hvtool leaves behind when the disk is full, when it is
// killed half-way and when two of it run at once. Real hvtool processes, the
// real qemu-img (behind a recording stand-in where a run must be slowed down)
// and real SIGKILLs.
#include "HvtoolRun.h"
#include "ScopedTmpfs.h"
#include "TestEnvironment.h"
#include "TestFiles.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QThread>
#include <QUrl>
#include <QUuid>

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <sys/stat.h>

using hvtest::CliResult;
using hvtest::hvtool;

namespace {

// The environment of an hvtool run with the step shim preloaded. A sanitizer
// build's runtime asks to come first; the shim only wraps libc calls, so the
// order does not matter to it.
QMap<QString, QString> shimmed(QMap<QString, QString> env)
{
    env.insert("LD_PRELOAD", hvtest::helperPath("hv_step_shim.so"));
    env.insert("ASAN_OPTIONS", qEnvironmentVariable("ASAN_OPTIONS") + ":verify_asan_link_order=0");
    return env;
}

QString hvHome()
{
    return QString::fromLocal8Bit(qgetenv("HV_HOME"));
}

// Where the device lives, as hvtool reports it (the devices directory is a
// setting other tests may change).
QString deviceDir(const QString &name)
{
    return hvtool({"device", "show", name, "--format", "json"}).json().object().value("path").toString();
}

QByteArray fileHash(const QString &path)
{
    QFile file(path);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    return file.open(QIODevice::ReadOnly) && hash.addData(&file) ? hash.result().toHex() : QByteArray();
}

// Every file below dir with its content's hash: two equal trees hold the
// same data. Logs and locks change with every run and are left out.
QMap<QString, QByteArray> tree(const QString &dir)
{
    QMap<QString, QByteArray> files;
    QDirIterator it(dir, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        if (!path.endsWith(".log") && !path.endsWith(".lock"))
            files.insert(QDir(dir).relativeFilePath(path), fileHash(path));
    }
    return files;
}

bool run(const QString &program, const QStringList &args)
{
    QProcess p;
    p.start(program, args);
    const bool ok = p.waitForFinished(60000) && p.exitCode() == 0;
    EXPECT_TRUE(ok) << program.toStdString() << " " << args.join(' ').toStdString() << ": "
                    << p.readAllStandardError().toStdString();
    return ok;
}

// An OVA of two vmdk disks made by the real qemu-img, its content unique;
// with paddingMiB, a member of that size comes first.
QString makeOva(const QString &name, int sizeMiB = 16, int paddingMiB = 0)
{
    const QString dir = hvtest::testRoot() + "/ova-" + name;
    QDir().mkpath(dir);
    for (const QString disk : {"system.vmdk", "data.vmdk"})
        run("qemu-img", {"create", "-f", "vmdk", dir + "/" + disk, QString::number(sizeMiB) + "M"});
    hvtest::writeFile(dir + "/id.txt", name.toUtf8());
    QStringList members{"system.vmdk", "data.vmdk", "id.txt"};
    if (paddingMiB > 0) {
        // Not zeros: the extraction leaves holes for those and writes nothing.
        QFile padding(dir + "/padding.bin");
        EXPECT_TRUE(padding.open(QIODevice::WriteOnly));
        const QByteArray chunk(1 << 20, 'p');
        for (int i = 0; i < paddingMiB; ++i)
            padding.write(chunk);
        padding.close();
        members.prepend("padding.bin");
    }
    run("tar", QStringList{"--format=ustar", "-C", dir, "-cf", dir + "/" + name} + members);
    QFile::remove(dir + "/padding.bin");
    return dir + "/" + name;
}

// A bin directory whose qemu-img is the recording stand-in, so a run can be
// slowed down or counted.
QString fakeBin()
{
    const QString bin = hvtest::testRoot() + "/fake-bin";
    if (!QDir(bin).exists()) {
        QDir().mkpath(bin);
        QFile::link(hvtest::helperPath("fake-qemu-img/qemu-img"), bin + "/qemu-img");
        QFile::link(QStandardPaths::findExecutable("qemu-system-x86_64"), bin + "/qemu-system-x86_64");
    }
    return bin;
}

QString registerImage(const QString &ova, const QMap<QString, QString> &env = {}, const QString &android = "11.0")
{
    const CliResult added = hvtool({"image", "add", ova, "--android", android, "--format", "json"}, env);
    EXPECT_EQ(added.code, 0) << added.err.toStdString();
    return added.json().object().value("uuid").toString();
}

QString profile(const QMap<QString, QString> &env = {})
{
    const QString name = "P-" + QUuid::createUuid().toString(QUuid::WithoutBraces).left(8);
    const CliResult made = hvtool({"profile", "create", name, "--ram", "256"}, env);
    EXPECT_EQ(made.code, 0) << made.err.toStdString();
    return name;
}

// How often the recording stand-in ran the image tool with that verb.
int countRuns(const QString &log, const QString &verb)
{
    const QStringList lines = QString::fromUtf8(hvtest::readFile(log)).split('\n');
    int runs = 0;
    for (int i = 0; i < lines.size(); ++i) {
        if (lines.at(i) == verb && (i == 0 || lines.at(i - 1) == "--"))
            ++runs;
    }
    return runs;
}

// The children of a process, read before it is killed so they can be killed
// too (a stand-in tool left sleeping would go on writing).
QList<qint64> childrenOf(qint64 pid)
{
    // Each thread's children are its own: the tool may run from a worker.
    QList<qint64> children;
    for (const QString &task : QDir(QString("/proc/%1/task").arg(pid)).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const QByteArray text = hvtest::readFile(QString("/proc/%1/task/%2/children").arg(pid).arg(task));
        for (const QByteArray &item : text.split(' ')) {
            if (!item.trimmed().isEmpty())
                children << item.trimmed().toLongLong();
        }
    }
    return children;
}

void killTree(qint64 pid, int signal = SIGKILL)
{
    const QList<qint64> children = childrenOf(pid);
    ::kill(pid_t(pid), signal);
    for (qint64 child : children) {
        for (qint64 grandchild : childrenOf(child))
            ::kill(pid_t(grandchild), signal);
        ::kill(pid_t(child), signal);
    }
}

// The backing file a qcow2 disk names, as the image tool reads it.
QString backingOf(const QString &disk)
{
    QProcess p;
    p.start("qemu-img", {"info", "-U", "--output=json", disk});
    p.waitForFinished(30000);
    return QJsonDocument::fromJson(p.readAllStandardOutput()).object().value("full-backing-filename").toString();
}

bool waitFor(const std::function<bool()> &condition, int ms = 30000)
{
    QElapsedTimer timer;
    timer.start();
    while (!condition()) {
        if (timer.elapsed() > ms)
            return false;
        QThread::msleep(1);
    }
    return true;
}

// Each command that saves something, on a disk that is full when it writes:
// it fails with the cause, and not one byte of the user's data changes.
TEST(HvtoolDiskFull, everyWriterFailsWithTheCauseAndChangesNothing)
{
    const QString image = registerImage(makeOva("full.ova"));
    const QString hwProfile = profile();
    ASSERT_EQ(hvtool({"device", "create", "Full", "--image", image, "--profile", hwProfile}).code, 0);
    ASSERT_EQ(hvtool({"settings", "set", "emulator.audio", "none"}).code, 0);
    const QString otherOva = makeOva("other.ova");
    const QStringList commands[] = {
        {"settings", "set", "emulator.audio", "pa"},
        {"settings", "reset", "emulator.audio"},
        {"device", "set", "Full", "ram=1024"},
        {"device", "set", "Full", "quickboot=false"},
        {"profile", "create", "Other"},
        {"image", "add", otherOva, "--android", "11.0"},
        {"device", "create", "Second", "--image", image, "--profile", hwProfile},
    };
    const QMap<QString, QByteArray> before = tree(hvHome());
    for (const QStringList &command : commands) {
        SCOPED_TRACE(command.join(' ').toStdString());
        const CliResult r = hvtool(command, {{"HV_TRIGGER_ERROR", "diskfull"}});
        EXPECT_EQ(r.code, 1);
        EXPECT_TRUE(r.err.contains("No space left on device")) << r.err.toStdString();
        EXPECT_EQ(tree(hvHome()), before);
    }
    EXPECT_EQ(hvtool({"settings", "get", "emulator.audio"}).out, "none\n");
    EXPECT_EQ(hvtool({"device", "show", "Full", "--format", "json"}).json().object().value("ram_mb").toInt(), 256);
}

// The same on a real file system that is full: the device and the settings
// stay as they were, and work again once there is room.
TEST(HvtoolDiskFull, aFullFileSystemKeepsTheDeviceAndTheSettings)
{
    const QString home = hvtest::testRoot() + "/tmpfs-home";
    hvtest::ScopedTmpfs tmpfs(home, 8 * 1024);
    if (!tmpfs.isMounted())
        GTEST_SKIP() << tmpfs.skipReason();
    const QMap<QString, QString> env{{"HV_HOME", home}};
    const QString image = registerImage(makeOva("tmpfs.ova"), env);
    const QString hwProfile = profile(env);
    ASSERT_EQ(hvtool({"device", "create", "Tight", "--image", image, "--profile", hwProfile}, env).code, 0);
    ASSERT_EQ(hvtool({"settings", "set", "emulator.audio", "none"}, env).code, 0);
    tmpfs.fill();
    const QMap<QString, QByteArray> before = tree(home);
    for (const QStringList &command : {QStringList{"device", "set", "Tight", "ram=1024", "cpus=2"},
                                       QStringList{"settings", "set", "emulator.audio", "pa"}}) {
        const CliResult r = hvtool(command, env);
        EXPECT_EQ(r.code, 1) << command.join(' ').toStdString();
        EXPECT_TRUE(r.err.contains("No space left on device")) << r.err.toStdString();
        EXPECT_EQ(tree(home), before);
    }
    EXPECT_EQ(hvtool({"device", "list", "--format", "json"}, env).json().array().at(0).toObject().value("name"),
              "Tight");
    QFile::remove(home + "/filler");
    EXPECT_EQ(hvtool({"device", "set", "Tight", "ram=1024"}, env).code, 0);
    EXPECT_EQ(hvtool({"device", "show", "Tight", "--format", "json"}, env).json().object().value("ram_mb").toInt(),
              1024);
}

class HvtoolReferenceDisks : public ::testing::Test
{
protected:
    QString referenceRoot() const { return hvHome() + "/.Corbelwick/Halvistrom/system-images"; }
    // A file of that name in a preparation under way; empty when none.
    QString partialFile(const QString &name) const
    {
        QDirIterator it(referenceRoot(), {name}, QDir::Files, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QString path = it.next();
            if (path.contains(".partial/"))
                return path;
        }
        return QString();
    }
    // The completed reference directories: those holding the marker.
    QStringList completed() const
    {
        QStringList dirs;
        QDirIterator it(referenceRoot(), {".complete"}, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
        while (it.hasNext())
            dirs << QFileInfo(it.next()).absolutePath();
        return dirs;
    }
};

// A creation in progress is no device: nothing lists it as one or deletes
// it. Killed while it prepares the reference disks, in the middle of the
// extraction or once the disks are out and being checked, it leaves a
// leftover that 'device cleanup' reclaims, and nothing that a later creation
// uses: the next one makes the reference disks again from the start.
TEST_F(HvtoolReferenceDisks, aKilledPreparationIsNeverUsed)
{
    const QString hwProfile = profile();
    const struct {
        const char *name;
        const char *delay;
        bool midExtraction;
        int convertsBeforeKill;
    } rows[] = {{"MidExtraction", "0", true, 0}, {"AfterExtraction", "30", false, 0}};
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        // A large first member keeps the extraction busy long enough to be
        // caught half-way.
        const QString image = registerImage(makeOva(QString(row.name) + ".ova", 16, row.midExtraction ? 256 : 0));
        const QStringList before = completed();
        const QString log = hvtest::testRoot() + "/" + row.name + "-runs.log";
        QProcess creation;
        creation.setProcessEnvironment(hvtest::environmentWith(
            {{"HV_QEMU_BIN_DIR", fakeBin()}, {"HV_FAKE_QEMU_IMG_LOG", log}, {"HV_FAKE_QEMU_IMG_DELAY", row.delay}}));
        creation.start(hvtest::helperPath("hvtool"),
                       {"device", "create", row.name, "--image", image, "--profile", hwProfile});
        if (row.midExtraction) {
            ASSERT_TRUE(waitFor([&] {
                const QFileInfo padding(partialFile("padding.bin"));
                return padding.exists() && padding.size() > 0 && padding.size() < (qint64(256) << 20);
            }));
        } else {
            // The stand-in records its run before it sleeps: the archive is
            // extracted and the first disk is being looked at before its
            // conversion.
            ASSERT_TRUE(waitFor([&] { return countRuns(log, "info") == 1; }));
        }
        const CliResult listed = hvtool({"device", "list"});
        EXPECT_FALSE(listed.out.contains(row.name)) << listed.out.toStdString();
        EXPECT_EQ(hvtool({"device", "delete", row.name, "--yes"}).code, 3);
        const CliResult kept = hvtool({"device", "cleanup"});
        EXPECT_TRUE(kept.err.contains(QString("is left as it is: process %1 is still running the creation of '%2'")
                                          .arg(creation.processId())
                                          .arg(row.name)))
            << kept.err.toStdString();
        killTree(creation.processId());
        ASSERT_TRUE(creation.waitForFinished(10000));
        EXPECT_EQ(creation.exitStatus(), QProcess::CrashExit);
        EXPECT_EQ(countRuns(log, "convert"), row.convertsBeforeKill);
        EXPECT_EQ(completed(), before);
        const QJsonArray all = hvtool({"device", "list", "--all", "--format", "json"}).json().array();
        ASSERT_FALSE(all.isEmpty());
        EXPECT_EQ(all.last().toObject().value("status"), "Leftover");
        EXPECT_EQ(all.last().toObject().value("device"), row.name);

        const CliResult remade = hvtool({"device", "create", row.name, "--image", image, "--profile", hwProfile},
                                        {{"HV_QEMU_BIN_DIR", fakeBin()}, {"HV_FAKE_QEMU_IMG_LOG", log}});
        ASSERT_EQ(remade.code, 0) << remade.err.toStdString();
        EXPECT_EQ(countRuns(log, "convert"), row.convertsBeforeKill + 2) << "both disks converted from a fresh extraction";
        QStringList made = completed();
        for (const QString &old : before)
            made.removeOne(old);
        ASSERT_EQ(made.size(), 1);
        const QString reference = made.at(0);
        EXPECT_TRUE(run("qemu-img", {"check", reference + "/system.qcow2"}));
        EXPECT_TRUE(run("qemu-img", {"compare", "-U", reference + "/data.qcow2",
                                     deviceDir(row.name) + "/data.qcow2"}));
        EXPECT_FALSE(QFileInfo::exists(reference + ".partial"));
        const CliResult reclaimed = hvtool({"device", "cleanup"});
        EXPECT_TRUE(reclaimed.out.contains(QString("left by an interrupted creation of '%1'").arg(row.name)))
            << reclaimed.out.toStdString();
        EXPECT_FALSE(hvtool({"device", "list", "--all"}).out.contains(QString(".%1.create-").arg(row.name)));
    }
}

// Ctrl-C in the middle of a creation (the terminal interrupts hvtool and the
// image tool it runs) cancels it: nothing of the device is left, not even a
// leftover for 'device cleanup'.
TEST_F(HvtoolReferenceDisks, anInterruptedCreationIsTakenBack)
{
    const QString image = registerImage(makeOva("Interrupted.ova"));
    const QString log = hvtest::testRoot() + "/interrupted-runs.log";
    QProcess creation;
    creation.setProcessEnvironment(hvtest::environmentWith(
        {{"HV_QEMU_BIN_DIR", fakeBin()}, {"HV_FAKE_QEMU_IMG_LOG", log}, {"HV_FAKE_QEMU_IMG_DELAY", "30"}}));
    creation.start(hvtest::helperPath("hvtool"), {"device", "create", "Interrupted", "--image", image, "--profile", profile()});
    ASSERT_TRUE(waitFor([&] { return countRuns(log, "info") == 1; }));
    killTree(creation.processId(), SIGINT);
    ASSERT_TRUE(creation.waitForFinished(20000));
    EXPECT_EQ(creation.exitCode(), 1);
    const QString err = QString::fromUtf8(creation.readAllStandardError());
    EXPECT_TRUE(err.contains("could not create device 'Interrupted': the creation was cancelled; nothing is left of it"))
        << err.toStdString();
    EXPECT_FALSE(QFileInfo::exists(deviceDir("Interrupted")));
    EXPECT_FALSE(hvtool({"device", "list", "--all"}).out.contains("Interrupted"));
}

// Two creations from one new image at the same moment: one makes the
// reference disks, the other waits and uses them. Repeated with a fresh
// image each round, since only the first use of an image prepares it.
TEST_F(HvtoolReferenceDisks, twoCreationsAtOnceShareOneWholePreparation)
{
    const QString hwProfile = profile();
    const int before = completed().size();
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        const QString image = registerImage(makeOva(QString("race-%1.ova").arg(round)));
        const QString log = hvtest::testRoot() + QString("/race-%1.log").arg(round);
        std::unique_ptr<QProcess> processes[2];
        for (int i = 0; i < 2; ++i) {
            processes[i] = std::make_unique<QProcess>();
            processes[i]->setProcessEnvironment(hvtest::environmentWith(
                {{"HV_QEMU_BIN_DIR", fakeBin()}, {"HV_FAKE_QEMU_IMG_LOG", log}, {"HV_FAKE_QEMU_IMG_DELAY", "0.2"}}));
        }
        for (int i = 0; i < 2; ++i)
            processes[i]->start(hvtest::helperPath("hvtool"), {"device", "create", QString("Race-%1-%2").arg(round).arg(i),
                                                               "--image", image, "--profile", hwProfile});
        for (auto &process : processes) {
            ASSERT_TRUE(process->waitForFinished(60000));
            EXPECT_EQ(process->exitCode(), 0) << process->readAllStandardError().toStdString();
        }
        EXPECT_EQ(countRuns(log, "convert"), 2) << "each reference disk converted once";
        ASSERT_EQ(completed().size(), before + round + 1);
        for (const QString &reference : completed())
            EXPECT_TRUE(run("qemu-img", {"check", reference + "/data.qcow2"}));
        for (int i = 0; i < 2; ++i) {
            const CliResult shown = hvtool({"device", "show", QString("Race-%1-%2").arg(round).arg(i)});
            EXPECT_EQ(shown.code, 0) << shown.err.toStdString();
        }
    }
}

// An image owns its reference disks: they stay while a device uses them and
// go with the image.
TEST_F(HvtoolReferenceDisks, removingAnImageTakesItsDisksButNeverFromADevice)
{
    const QString image = registerImage(makeOva("owned.ova"));
    const QString hwProfile = profile();
    const int before = completed().size();
    ASSERT_EQ(hvtool({"device", "create", "Owner", "--image", image, "--profile", hwProfile}).code, 0);
    ASSERT_EQ(completed().size(), before + 1);
    const CliResult refused = hvtool({"image", "remove", image});
    EXPECT_EQ(refused.code, 4);
    EXPECT_TRUE(refused.err.contains("image 'Android 11.0' is used by device(s) 'Owner'; delete them first"))
        << refused.err.toStdString();
    EXPECT_EQ(completed().size(), before + 1);

    ASSERT_EQ(hvtool({"device", "delete", "Owner", "--yes"}).code, 0);
    const CliResult removed = hvtool({"image", "remove", image});
    EXPECT_EQ(removed.code, 0) << removed.err.toStdString();
    EXPECT_EQ(completed().size(), before);
    EXPECT_EQ(hvtool({"image", "show", image}).code, 3);
}

// A record is held to the OVA it names: a checksum copied from another image
// is refused with both values, the same OVA twice is refused, and a true
// record gets reference disks of its own.
TEST_F(HvtoolReferenceDisks, recordsAreCheckedAgainstTheirOva)
{
    const QString first = registerImage(makeOva("first.ova"));
    const QJsonObject registered = hvtool({"image", "show", first, "--format", "json"}).json().object();
    const QString otherOva = makeOva("other.ova");
    const QString otherHash = QString::fromLatin1(fileHash(otherOva));
    const auto record = [&](const QString &ova, const QString &hash) {
        QJsonObject object = registered;
        object["uuid"] = QUuid::createUuid().toString();
        object["image_uri"] = QUrl::fromLocalFile(ova).toString();
        object["image_hash"] = hash;
        const QString file = hvtest::testRoot() + "/" + object["uuid"].toString() + ".json";
        hvtest::writeFile(file, QJsonDocument(object).toJson());
        return file;
    };
    const int images = hvtool({"image", "list", "--format", "json"}).json().array().size();
    const CliResult copied = hvtool({"image", "add", record(otherOva, registered["image_hash"].toString())});
    EXPECT_EQ(copied.code, 1);
    EXPECT_TRUE(copied.err.contains(QString("declares sha-256 %1 but its OVA '%2' has sha-256 %3; nothing was registered")
                                        .arg(registered["image_hash"].toString(), otherOva, otherHash)))
        << copied.err.toStdString();
    const CliResult twice = hvtool({"image", "add", record(QUrl(registered["image_uri"].toString()).toLocalFile(),
                                                           registered["image_hash"].toString())});
    EXPECT_EQ(twice.code, 4);
    EXPECT_TRUE(twice.err.contains("is already registered as image 'Android 11.0'")) << twice.err.toStdString();
    EXPECT_EQ(hvtool({"image", "list", "--format", "json"}).json().array().size(), images);

    const CliResult added = hvtool({"image", "add", record(otherOva, otherHash.toUpper()), "--format", "json"});
    ASSERT_EQ(added.code, 0) << added.err.toStdString();
    const QString hwProfile = profile();
    ASSERT_EQ(hvtool({"device", "create", "Other", "--image", added.json().object()["uuid"].toString(), "--profile",
                      hwProfile}).code, 0);
    EXPECT_EQ(QFileInfo(backingOf(deviceDir("Other") + "/system.qcow2")).dir().dirName(), otherHash);
}

// A listing loads the devices side by side: one whose record breaks is still
// listed, as broken and why, beside the others. A FIFO put in a record's
// place (the shared folder is the guest's) is refused, not waited on.
TEST_F(HvtoolReferenceDisks, aBrokenRecordIsListedBesideTheGoodDevices)
{
    const QString image = registerImage(makeOva("listed.ova"));
    for (const QString name : {"Bad", "Good", "Piped"})
        ASSERT_EQ(hvtool({"device", "create", name, "--image", image, "--profile", profile()}).code, 0);
    ASSERT_TRUE(hvtest::writeFile(deviceDir("Bad") + "/shared/config/device.json", "{ broken"));
    const QByteArray piped = QFile::encodeName(deviceDir("Piped") + "/shared/config/device.json");
    ASSERT_TRUE(QFile::remove(piped) && ::mkfifo(piped.constData(), 0600) == 0);
    // Devices in the order of names, then the broken ones.
    QStringList order;
    QString reason;
    for (const QJsonValue &device : hvtool({"device", "list", "--format", "json"}).json().array()) {
        const QJsonObject object = device.toObject();
        order << object["name"].toString() + ":" + object["status"].toString();
        reason += object["reason"].toString();
    }
    EXPECT_GT(order.indexOf("Bad:Broken"), order.indexOf("Good:Off")) << order.join(' ').toStdString();
    EXPECT_GE(order.indexOf("Good:Off"), 0) << order.join(' ').toStdString();
    EXPECT_GE(order.indexOf("Piped:Broken"), 0) << order.join(' ').toStdString();
    EXPECT_TRUE(reason.contains("device.json' cannot be read: not a regular file")) << reason.toStdString();
}

// The completion script hvtool prints, sourced in bash and driven as the
// shell drives it on Tab: nouns, verbs, options and the names that exist.
TEST_F(HvtoolReferenceDisks, bashCompletesCommandsOptionsAndDeviceNames)
{
    const QString image = registerImage(makeOva("completed.ova"));
    ASSERT_EQ(hvtool({"device", "create", "Quokka One", "--image", image, "--profile", profile()}).code, 0);
    const CliResult script = hvtool({"completion", "bash"});
    ASSERT_EQ(script.code, 0) << script.err.toStdString();
    ASSERT_TRUE(hvtest::writeFile(hvtest::testRoot() + "/hvtool.bash", script.out.toUtf8()));
    const auto complete = [&](const QString &line) {
        QProcess bash;
        bash.setProcessEnvironment(hvtest::environmentWith({}));
        const QString words = line.endsWith(' ') ? line + "''" : line;
        bash.start("bash", {"-c", QString("source '%1'; COMP_WORDS=('%2' %3); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); "
                                          "_hvtool; printf '%s\\n' \"${COMPREPLY[@]}\"")
                                      .arg(hvtest::testRoot() + "/hvtool.bash", hvtest::helperPath("hvtool"), words.section(' ', 1))});
        EXPECT_TRUE(bash.waitForFinished(30000));
        return QString::fromUtf8(bash.readAllStandardOutput()).split('\n', Qt::SkipEmptyParts);
    };
    EXPECT_EQ(complete("hvtool dev"), QStringList{"device"});
    EXPECT_EQ(complete("hvtool device st"), (QStringList{"start", "stop"}));
    EXPECT_EQ(complete("hvtool device start --co"), QStringList{"--cold"});
    EXPECT_EQ(complete("hvtool settings get emulator.ac"), QStringList{"emulator.accelerator"});
    EXPECT_EQ(complete("hvtool --format json device start Quo"), QStringList{"Quokka\\ One"});
    const QString hwProfile = profile();
    EXPECT_TRUE(complete("hvtool device create x --profile ").contains(hwProfile)) << "the profile as named";
}

// An image removed while a device is being created from it: the removal is
// refused, however long the creation takes, and the device gets whole
// disks. A lock file left empty by a killed program is not waited for.
TEST_F(HvtoolReferenceDisks, removalWaitsForNoCreation)
{
    const QString ova = makeOva("contested.ova");
    const QString image = registerImage(ova);
    const QString hwProfile = profile();
    const QString reference = referenceRoot() + "/" + hvtool({"image", "show", image, "--format", "json"})
        .json().object()["image_version"].toString() + "/11.0.0/" + fileHash(ova);
    QDir().mkpath(QFileInfo(reference).absolutePath());
    hvtest::writeFile(reference + ".lock", QByteArray());
    QFile lockFile(reference + ".lock");
    ASSERT_TRUE(lockFile.open(QIODevice::ReadWrite)
                && lockFile.setFileTime(QDateTime::currentDateTime().addSecs(-10), QFileDevice::FileModificationTime));
    lockFile.close();
    const QString log = hvtest::testRoot() + "/contested.log";
    QProcess creation;
    creation.setProcessEnvironment(hvtest::environmentWith(
        {{"HV_QEMU_BIN_DIR", fakeBin()}, {"HV_FAKE_QEMU_IMG_LOG", log}, {"HV_FAKE_QEMU_IMG_DELAY", "1"}}));
    creation.start(hvtest::helperPath("hvtool"), {"device", "create", "Contested", "--image", image, "--profile", hwProfile});
    ASSERT_TRUE(waitFor([&] { return countRuns(log, "info") == 1; }));
    const CliResult refused = hvtool({"image", "remove", image});
    EXPECT_EQ(refused.code, 4);
    EXPECT_TRUE(refused.err.contains("image 'Android 11.0' is in use by a device creation under way"))
        << refused.err.toStdString();
    ASSERT_TRUE(creation.waitForFinished(60000));
    EXPECT_EQ(creation.exitCode(), 0) << creation.readAllStandardError().toStdString();
    EXPECT_TRUE(run("qemu-img", {"check", deviceDir("Contested") + "/system.qcow2"}));
    EXPECT_EQ(hvtool({"image", "remove", image}).code, 4);
}

// A device of the previous release, its overlay backed by the reference disks
// directly in the image's versions directory, built for real. Its first
// reset moves it onto its image's own directory: killed before the rebase
// or after it, the device is backed by a disk that exists; the old disks go
// once no device uses them. A device whose backing file is gone says so.
TEST(HvtoolPreviousLayout, aDeviceOfThePreviousReleaseMovesAndResets)
{
    const QString image = registerImage(makeOva("previous.ova"));
    ASSERT_EQ(hvtool({"device", "create", "Old", "--image", image, "--profile", profile()}).code, 0);
    const QString dir = deviceDir("Old");
    const QString reference = QFileInfo(backingOf(dir + "/system.qcow2")).absolutePath();
    const QString old = QFileInfo(reference).absolutePath();
    for (const QString disk : {"/system.qcow2", "/data.qcow2"})
        ASSERT_TRUE(QFile::rename(reference + disk, old + disk));
    ASSERT_TRUE(QDir(reference).removeRecursively());
    ASSERT_TRUE(run("qemu-img", {"rebase", "-u", "-b", old + "/system.qcow2", "-F", "qcow2", dir + "/system.qcow2"}));
    ASSERT_TRUE(run("qemu-io", {"-f", "qcow2", "-c", "write -P 0x5a 0 64k", dir + "/data.qcow2"}));

    const QString log = hvtest::testRoot() + "/previous-runs.log";
    for (const char *linger : {"0", "30"}) {
        SCOPED_TRACE(linger);
        QProcess reset;
        reset.setProcessEnvironment(hvtest::environmentWith(
            {{"HV_QEMU_BIN_DIR", fakeBin()}, {"HV_FAKE_QEMU_IMG_LOG", log}, {"HV_FAKE_QEMU_IMG_LINGER_ONLY", "rebase"},
             {"HV_FAKE_QEMU_IMG_DELAY", linger[0] == '0' ? "30" : "0"}, {"HV_FAKE_QEMU_IMG_LINGER", linger}}));
        reset.start(hvtest::helperPath("hvtool"), {"device", "reset", "Old", "--yes"});
        ASSERT_TRUE(waitFor([&] {
            return linger[0] == '0' ? countRuns(log, "rebase") == 1 : backingOf(dir + "/system.qcow2") != old + "/system.qcow2";
        }));
        killTree(reset.processId());
        ASSERT_TRUE(reset.waitForFinished(10000));
        EXPECT_TRUE(QFileInfo::exists(backingOf(dir + "/system.qcow2")));
        EXPECT_TRUE(QFileInfo::exists(old + "/data.qcow2"));
        EXPECT_TRUE(QFileInfo::exists(reference + "/.complete"));
    }
    const CliResult done = hvtool({"device", "reset", "Old", "--yes"});
    ASSERT_EQ(done.code, 0) << done.err.toStdString();
    EXPECT_EQ(backingOf(dir + "/system.qcow2"), reference + "/system.qcow2");
    EXPECT_TRUE(run("qemu-img", {"compare", reference + "/data.qcow2", dir + "/data.qcow2"}));
    EXPECT_FALSE(QFileInfo::exists(old + "/system.qcow2") || QFileInfo::exists(old + "/data.qcow2"));

    ASSERT_TRUE(QFile::rename(reference, reference + ".away"));
    const CliResult lost = hvtool({"device", "reset", "Old", "--yes"});
    EXPECT_EQ(lost.code, 1);
    EXPECT_TRUE(lost.err.contains(QString("device 'Old' cannot be used: its system disk is backed by '%1/system.qcow2', "
                                          "which is missing: the reference disks of its OS image were removed")
                                      .arg(reference)))
        << lost.err.toStdString();
}

// A factory reset killed while it makes the new disks leaves the device with
// its own disks; the next reset goes through and leaves no stray files.
TEST(HvtoolReset, aKilledResetLeavesTheDeviceAsItWas)
{
    const QString image = registerImage(makeOva("reset.ova"));
    ASSERT_EQ(hvtool({"device", "create", "Kept", "--image", image, "--profile", profile()}).code, 0);
    const QString dir = deviceDir("Kept");
    ASSERT_TRUE(run("qemu-io", {"-f", "qcow2", "-c", "write -P 0x5a 0 64k", dir + "/data.qcow2"}));
    const QMap<QString, QByteArray> before = tree(dir);
    const QString log = hvtest::testRoot() + "/reset-runs.log";
    QProcess reset;
    reset.setProcessEnvironment(hvtest::environmentWith(
        {{"HV_QEMU_BIN_DIR", fakeBin()}, {"HV_FAKE_QEMU_IMG_LOG", log}, {"HV_FAKE_QEMU_IMG_DELAY", "30"}}));
    reset.start(hvtest::helperPath("hvtool"), {"device", "reset", "Kept", "--yes"});
    ASSERT_TRUE(waitFor([&] { return countRuns(log, "create") == 1; }));
    const CliResult busy = hvtool({"device", "start", "Kept"});
    EXPECT_EQ(busy.code, 4);
    EXPECT_TRUE(busy.err.contains(QString("device 'Kept' is busy: 'hvtool device reset' (pid %1) has been changing it "
                                          "since ")
                                      .arg(reset.processId())))
        << busy.err.toStdString();
    killTree(reset.processId());
    ASSERT_TRUE(reset.waitForFinished(10000));
    EXPECT_EQ(tree(dir), before);
    EXPECT_EQ(hvtool({"device", "show", "Kept"}).code, 0);

    const CliResult done = hvtool({"device", "reset", "Kept", "--yes"});
    ASSERT_EQ(done.code, 0) << done.err.toStdString();
    EXPECT_NE(fileHash(dir + "/data.qcow2"), before.value("data.qcow2"));
    EXPECT_EQ(tree(dir).keys(), before.keys());
}

// A factory reset killed (SIGKILL) at each of its file steps in turn, then
// run through: the next start finds the device whole, resuming its old state
// when the kill came before the new disks were marked complete, booting cold
// on the new disks after. The recorded steps show the new disks and their
// names on disk before the marker, and the marker before any old disk goes.
TEST(HvtoolReset, aResetKilledAtAnyStepIsFinishedOrUndone)
{
    const QMap<QString, QString> tcg{{"HV_QEMU_START_ARGS", "-accel=tcg;-cpu=max;-audiodev=none,id=snd0"}};
    ASSERT_EQ(hvtool({"device", "create", "Steps", "--image", registerImage(makeOva("steps.ova")), "--profile",
                      profile()}).code, 0);
    ASSERT_EQ(hvtool({"device", "start", "Steps"}, tcg).code, 0);
    ASSERT_EQ(hvtool({"device", "stop", "Steps"}).code, 0) << "saves the quick-boot state";
    const QString dir = deviceDir("Steps");
    const QString saved = hvtest::testRoot() + "/steps-saved";
    ASSERT_TRUE(run("cp", {"-a", dir, saved}));
    const QString log = hvtest::testRoot() + "/steps.log";
    QStringList steps;
    for (int step = 1; step < 30; ++step) {
        SCOPED_TRACE(step);
        ASSERT_TRUE(run("rm", {"-rf", dir}) && run("cp", {"-a", saved, dir}));
        QFile::remove(log);
        const CliResult reset = hvtool({"device", "reset", "Steps", "--yes"},
                                       shimmed({{"HV_SHIM_DIR", dir}, {"HV_SHIM_LOG", log}, {"HV_SHIM_KILL_AT", QString::number(step)}}));
        steps = QString::fromUtf8(hvtest::readFile(log)).replace(dir, "D").split('\n', Qt::SkipEmptyParts);
        if (steps.size() < step) {
            EXPECT_EQ(reset.code, 0) << reset.err.toStdString();
            break;
        }
        const bool marked = !steps.mid(0, step - 1).filter(QRegularExpression("^rename .* D/reset.pending$")).isEmpty();
        const CliResult started = hvtool({"device", "start", "Steps", "--format", "json"}, tcg);
        EXPECT_EQ(started.code, 0) << steps.last().toStdString() << started.err.toStdString();
        EXPECT_EQ(started.json().object().value("boot").toString(), marked ? "cold" : "resumed");
        EXPECT_EQ(hvtool({"device", "stop", "Steps", "--force"}).code, 0);
        EXPECT_EQ(QDir(dir).entryList({"*.reset", "reset.pending"}), QStringList());
        EXPECT_EQ(QFileInfo::exists(dir + "/snapshots.json"), !marked);
    }
    steps.replaceInStrings(QRegularExpression("pending\\.\\w+"), "pending.tmp");
    EXPECT_EQ(steps, QStringList({"fsync D/system.qcow2.reset", "fsync D/data.qcow2.reset", "fsync D",
                                  "fsync D/.reset.pending.tmp", "rename D/.reset.pending.tmp D/reset.pending", "fsync D",
                                  "rename D/data.qcow2.reset D/data.qcow2",
                                  "rename D/system.qcow2.reset D/system.qcow2", "fsync D", "unlink D/snapshots.json",
                                  "unlink D/reset.pending", "fsync D"}));
}

// A file that took its new name is saved, even when its directory cannot be
// flushed after the rename: the command succeeds and the value is there.
TEST(HvtoolDiskFull, aDirectoryThatCannotBeFlushedStillKeepsTheNewFile)
{
    ASSERT_EQ(hvtool({"device", "create", "Flush", "--image", registerImage(makeOva("flush.ova")), "--profile",
                      profile()}).code, 0);
    const QString config = deviceDir("Flush") + "/shared/config";
    const CliResult set = hvtool({"device", "set", "Flush", "ram=1024"},
                                 shimmed({{"HV_SHIM_DIR", config}, {"HV_SHIM_FAIL_AT", "3"},
                                          {"HV_SHIM_LOG", hvtest::testRoot() + "/flush.log"}}));
    EXPECT_EQ(set.code, 0) << set.err.toStdString();
    EXPECT_EQ(hvtest::readFile(hvtest::testRoot() + "/flush.log").split('\n').value(2), "fsync " + config.toUtf8());
    EXPECT_EQ(hvtool({"device", "show", "Flush", "--format", "json"}).json().object().value("ram_mb").toInt(), 1024);
}

// A clone killed half-way through its copy leaves a hidden leftover that no
// device name shows and 'device cleanup' reclaims; the source stays whole.
TEST(HvtoolCleanup, aKilledCloneIsReclaimed)
{
    const QString image = registerImage(makeOva("clone.ova"));
    ASSERT_EQ(hvtool({"device", "create", "Big", "--image", image, "--profile", profile()}).code, 0);
    // A large file in the shared folder keeps the copy busy long enough.
    ASSERT_TRUE(hvtest::writeFile(deviceDir("Big") + "/shared/big.bin", QByteArray(256 << 20, 'b')));
    const QString devices = QFileInfo(deviceDir("Big")).absolutePath();
    QProcess clone;
    clone.start(hvtest::helperPath("hvtool"), {"device", "clone", "Big", "BigCopy"});
    ASSERT_TRUE(waitFor([&] { return !QDir(devices).entryList({".BigCopy.clone-*"}, QDir::Dirs | QDir::Hidden).isEmpty(); }));
    killTree(clone.processId());
    ASSERT_TRUE(clone.waitForFinished(10000));
    EXPECT_EQ(hvtool({"device", "show", "BigCopy"}).code, 3);

    const CliResult reclaimed = hvtool({"device", "cleanup"});
    EXPECT_EQ(reclaimed.code, 0);
    EXPECT_TRUE(reclaimed.out.contains("left by an interrupted clone of 'BigCopy'")) << reclaimed.out.toStdString();
    EXPECT_EQ(QDir(devices).entryList({".BigCopy.*"}, QDir::Dirs | QDir::Hidden), QStringList());
    EXPECT_EQ(QFileInfo(deviceDir("Big") + "/shared/big.bin").size(), 256 << 20);
    EXPECT_EQ(hvtool({"device", "cleanup"}).out.trimmed(), "nothing to reclaim");
}

// A folder of the user's is never taken for a device: not listed, not
// deleted, its name not reused, and a folder of the user's files is refused
// as the devices directory.
TEST(HvtoolDevicesDirectory, aUserFolderIsNeverTakenForADevice)
{
    const QString mydocs = hvtest::testRoot() + "/mydocs";
    ASSERT_TRUE(hvtest::writeFile(mydocs + "/photos/cat.jpg", "cat"));
    const CliResult refused = hvtool({"settings", "set", "virtual_devices.directory", mydocs});
    EXPECT_EQ(refused.code, 4);
    EXPECT_TRUE(refused.err.contains("not using it as the devices directory: '" + mydocs +
                                     "' holds 'photos' and no device the system made; choose an empty or new folder"))
        << refused.err.toStdString();

    const QString devices = hvtool({"settings", "get", "virtual_devices.directory"}).out.trimmed();
    ASSERT_TRUE(hvtest::writeFile(devices + "/photos/cat.jpg", "cat"));
    EXPECT_FALSE(hvtool({"device", "list", "--all"}).out.contains("photos"));
    const CliResult deleted = hvtool({"device", "delete", "photos", "--yes"});
    EXPECT_EQ(deleted.code, 3);
    EXPECT_TRUE(deleted.err.contains("device 'photos' does not exist: '" + QDir(devices).absoluteFilePath("photos") +
                                     "' was not made by hvtool (it has no '.halvistrom-device' marker); it is left as it is"))
        << deleted.err.toStdString();
    const CliResult created = hvtool({"device", "create", "photos", "--image", registerImage(makeOva("photos.ova")),
                                      "--profile", profile()});
    EXPECT_EQ(created.code, 4);
    EXPECT_TRUE(created.err.contains("the name 'photos' is taken: '")) << created.err.toStdString();
    EXPECT_EQ(hvtest::readFile(devices + "/photos/cat.jpg"), "cat");
}

// 'device create NAME' takes the newest image and the built-in phone, says
// so, and checks the name where devices are made now.
TEST(HvtoolDevicesDirectory, createTakesTheNewestImageAndThePhoneWhereDevicesGo)
{
    const QString devices = hvtest::testRoot() + "/elsewhere";
    const QMap<QString, QString> env{{"HV_HOME", hvtest::testRoot() + "/defaults-home"}};
    const CliResult none = hvtool({"device", "create", "first"}, env);
    EXPECT_EQ(none.code, 3);
    EXPECT_TRUE(none.err.contains("there is no OS image yet: add one with 'hvtool image add FILE'"));
    registerImage(makeOva("older.ova"), env, "11.0");
    const QString newer = makeOva("newer.ova");
    const QString newest = registerImage(newer, env, "12.0");
    const CliResult made = hvtool({"device", "create", "first"}, env);
    ASSERT_EQ(made.code, 0) << made.err.toStdString();
    EXPECT_TRUE(made.err.contains("using image 'Android 12.0' (Android 12.0.0, ")) << made.err.toStdString();
    EXPECT_TRUE(made.err.contains("the newest of 2")) << made.err.toStdString();
    EXPECT_TRUE(made.err.contains("using profile 'phone'")) << made.err.toStdString();
    EXPECT_EQ(hvtool({"device", "create", "sized", "--cpus", "1", "--ram", "300"}, env).code, 0);
    const QJsonObject sized = hvtool({"device", "show", "sized", "--format", "json"}, env).json().object();
    EXPECT_EQ(sized.value("cpus").toInt(), 1);
    EXPECT_EQ(sized.value("ram_mb").toInt(), 300);

    // As new as can be: the same Android, built at the same moment.
    const QString twin = makeOva("twin.ova");
    run("touch", {"-r", newer, twin});
    registerImage(twin, env, "12.0");
    const CliResult twins = hvtool({"device", "create", "second"}, env);
    EXPECT_EQ(twins.code, 2);
    EXPECT_TRUE(twins.err.contains("are equally new; name one with --image")) << twins.err.toStdString();
    ASSERT_EQ(hvtool({"settings", "set", "virtual_devices.directory", devices}, env).code, 0);
    const CliResult again = hvtool({"device", "create", "first", "--image", newest}, env);
    EXPECT_EQ(again.code, 0) << again.err.toStdString();
    EXPECT_TRUE(QFileInfo(devices + "/first").isDir());
}

// A creation longer than a second shows its phase and how far it has come:
// redrawn in place on a terminal, in plain lines in a log. Each image tool
// run takes half a second here, so the conversion takes seconds.
TEST(HvtoolProgress, aLongCreationShowsItsPhaseAndPercent)
{
    const QMap<QString, QString> slow{{"HV_QEMU_BIN_DIR", fakeBin()}, {"HV_FAKE_QEMU_IMG_DELAY", "0.5"}};
    QProcess terminal;
    terminal.setProcessEnvironment(hvtest::environmentWith(slow));
    terminal.start("python3", {"-c", "import pty, sys; pty.spawn(sys.argv[1:])", hvtest::helperPath("hvtool"), "device",
                               "create", "shown", "--image", registerImage(makeOva("shown.ova"))});
    ASSERT_TRUE(terminal.waitForFinished(60000));
    const QString drawn = QString::fromUtf8(terminal.readAllStandardOutput());
    EXPECT_TRUE(drawn.contains("\r\033[Kcreating device 'shown': converting the image's disks [")) << drawn.toStdString();
    EXPECT_TRUE(drawn.contains("\r\033[Kcreating device 'shown': done in ")) << drawn.toStdString();

    const CliResult logged = hvtool({"device", "create", "logged", "--image", registerImage(makeOva("logged.ova"))}, slow);
    EXPECT_TRUE(logged.err.contains(QRegularExpression("\ncreating device 'logged': converting the image's disks, "
                                                       "\\d+%\n")))
        << logged.err.toStdString();
    EXPECT_FALSE(logged.err.contains('\r') || logged.err.contains('\033')) << logged.err.toStdString();
}

// A start and a delete of one device at the same moment, again and again:
// one goes first, the other waits for it and then finds the device running
// or gone (or gives up, naming the first). Never half-deleted, never an
// emulator writing into a directory that is being removed.
TEST(HvtoolDeviceLock, aStartAndADeleteAtOnceLeaveTheDeviceWholeOrGone)
{
    const QString image = registerImage(makeOva("raced.ova"));
    const QString hwProfile = profile();
    const QString devices = hvHome() + "/.Corbelwick/Halvistrom/deployed";
    for (int round = 0; round < 6; ++round) {
        SCOPED_TRACE(round);
        ASSERT_EQ(hvtool({"device", "create", "Raced", "--image", image, "--profile", hwProfile}).code, 0);
        QProcess start;
        QProcess remove;
        start.setProcessEnvironment(
            hvtest::environmentWith({{"HV_QEMU_START_ARGS", "-accel=tcg;-cpu=max;-audiodev=none,id=snd0"}}));
        const QStringList startArgs{"device", "start", "Raced"};
        const QStringList deleteArgs{"device", "delete", "Raced", "--yes"};
        const bool deleteFirst = round % 2;
        QProcess &first = deleteFirst ? remove : start;
        QProcess &second = deleteFirst ? start : remove;
        first.start(hvtest::helperPath("hvtool"), deleteFirst ? deleteArgs : startArgs);
        QThread::msleep(unsigned(round / 2) * 20);
        second.start(hvtest::helperPath("hvtool"), deleteFirst ? startArgs : deleteArgs);
        ASSERT_TRUE(first.waitForFinished(60000) && second.waitForFinished(60000));
        const QString started = start.readAllStandardError();
        const QString removed = remove.readAllStandardError();
        QStringList listed;
        for (const QJsonValue &device : hvtool({"device", "list", "--format", "json"}).json().array()) {
            if (device.toObject().value("name") == "Raced")
                listed << device.toObject().value("status").toString();
        }
        if (start.exitCode() == 0) {
            EXPECT_EQ(hvtool({"device", "stop", "Raced", "--force"}).code, 0);
            EXPECT_EQ(remove.exitCode(), 4);
            EXPECT_TRUE(removed.contains("device 'Raced' is running; stop it first")
                        || removed.contains(QString("device 'Raced' is busy: 'hvtool device start' (pid %1)")
                                                .arg(start.processId())))
                << removed.toStdString();
            EXPECT_EQ(listed, QStringList{"On"});
            EXPECT_EQ(hvtool({"device", "delete", "Raced", "--yes"}).code, 0);
        } else {
            EXPECT_EQ(remove.exitCode(), 0) << removed.toStdString();
            EXPECT_EQ(start.exitCode(), 3) << started.toStdString();
            EXPECT_TRUE(started.contains("device 'Raced' does not exist")) << started.toStdString();
            EXPECT_EQ(listed, QStringList());
        }
        EXPECT_EQ(QDir(devices).entryList({"*Raced*"}, QDir::AllEntries | QDir::Hidden), QStringList());
    }
}

// Device sizes the device file could not be read back with are refused
// before anything is written.
TEST(HvtoolLimits, deviceSizesBeyondTheReadersAreRefused)
{
    const QString image = registerImage(makeOva("limits.ova"));
    ASSERT_EQ(hvtool({"device", "create", "Limits", "--image", image, "--profile", profile()}).code, 0);
    const QString config = deviceDir("Limits") + "/shared/config/device.json";
    const QByteArray before = hvtest::readFile(config);
    const struct {
        const char *setting;
        const char *message;
    } rows[] = {{"ram=2147483648", "ram needs a whole number from 256 to 2147483647, not '2147483648'"},
                {"sdcard-size=9999999999", "sdcard-size needs a whole number from 0 to 2147483647"},
                {"cpus=513", "cpus needs a whole number from 1 to 512, not '513'"}};
    for (const auto &row : rows) {
        const CliResult r = hvtool({"device", "set", "Limits", row.setting});
        EXPECT_EQ(r.code, 2) << row.setting;
        EXPECT_TRUE(r.err.contains(row.message)) << r.err.toStdString();
    }
    EXPECT_EQ(hvtest::readFile(config), before);

    // The guest can rewrite this record: the device is refused, and the way
    // out hvtool offers does not pass over what a delete takes with it.
    QJsonObject record = QJsonDocument::fromJson(before).object();
    QJsonObject hardware = record.value("hardware_profile").toObject();
    hardware.insert("ram_size", -4096);
    record.insert("hardware_profile", hardware);
    hvtest::writeFile(config, QJsonDocument(record).toJson());
    const CliResult refused = hvtool({"device", "start", "Limits"});
    EXPECT_EQ(refused.code, 4);
    EXPECT_TRUE(refused.err.contains("its record gives it -4096 MB of RAM")
                && refused.err.contains("its disks are kept until you mend its record or delete the device and its "
                                        "disks")) << refused.err.toStdString();
    hvtest::writeFile(config, before);
    EXPECT_EQ(hvtool({"device", "show", "Limits"}).code, 0) << "the mended record brings the device back";
}

} // namespace
