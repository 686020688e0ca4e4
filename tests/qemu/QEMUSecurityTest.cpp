// Another user of the machine, and a hostile OS image, against devices made
// and run the way a user makes and runs them. This suite runs under umask 000
// (its CTest entry sets HV_TEST_UMASK), the widest a user could set.
#include "DeviceFixture.h"

#include "FileUtils.h"
#include "MessageCapture.h"
#include "OsImageIO.h"
#include "Paths.h"
#include "QEMUAccelerator.h"
#include "QEMUAudio.h"
#include "QEMUMachine.h"
#include "QEMUSnapshotTable.h"
#include "Settings.h"
#include "TestEnvironment.h"
#include "TestFiles.h"
#include "VMToolsCommon.h"

#include <QDeadlineTimer>
#include <QDirIterator>
#include <QHostAddress>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>
#include <QTcpSocket>
#include <QUuid>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <iostream>
#include <memory>

#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace devicefixture;
using hvtest::MessageCapture;

namespace {

const QByteArray kSecret = "HOST-SECRET-MARKER";

/// Every entry below dir (dir included) that the group or others may reach,
/// with its mode; symbolic links have no mode of their own.
QStringList openEntries(const QString &dir)
{
    QStringList open;
    QStringList paths{dir};
    QDirIterator it(dir, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext())
        paths << it.next();
    for (const QString &path : paths) {
        struct stat st;
        if (::lstat(QFile::encodeName(path).constData(), &st) == 0 && !S_ISLNK(st.st_mode) && (st.st_mode & 077))
            open << QString("%1 %2").arg(st.st_mode & 07777, 0, 8).arg(path);
    }
    return open;
}

/// Every file below dir whose bytes hold marker.
QStringList filesHolding(const QString &dir, const QByteArray &marker)
{
    QStringList found;
    QDirIterator it(dir, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        if (hvtest::readFile(path).contains(marker))
            found << path;
    }
    return found;
}

/// The TCP ports the process listens on (IPv4 and IPv6), from /proc.
QList<quint16> listeningPorts(long long pid)
{
    QSet<QByteArray> inodes;
    for (const QFileInfo &fd : QDir(QString("/proc/%1/fd").arg(pid)).entryInfoList(QDir::System | QDir::Files)) {
        const QString target = fd.symLinkTarget().isEmpty() ? QFile::symLinkTarget(fd.filePath()) : fd.symLinkTarget();
        const QString name = QFileInfo(target).fileName();
        if (name.startsWith("socket:["))
            inodes.insert(name.mid(8, name.size() - 9).toLatin1());
    }
    QList<quint16> ports;
    for (const char *table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
        const QList<QByteArray> lines = hvtest::readFile(table).split('\n');
        for (const QByteArray &line : lines.mid(1)) {
            const QList<QByteArray> fields = line.simplified().split(' ');
            // local address, state 0A (listening), inode
            if (fields.size() > 9 && fields.at(3) == "0A" && inodes.contains(fields.at(9)))
                ports << quint16(fields.at(1).split(':').last().toUInt(nullptr, 16));
        }
    }
    return ports;
}

/// Whether a QMP greeting comes from the port within a second.
bool greetsWithQmp(quint16 port)
{
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, port);
    if (!socket.waitForConnected(1000))
        return false;
    QByteArray received;
    for (QDeadlineTimer deadline(1000); !deadline.hasExpired() && socket.state() == QAbstractSocket::ConnectedState;) {
        if (socket.waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime()))))
            received += socket.readAll();
    }
    return received.contains("QMP");
}

/// Connects to the unix socket as the unprivileged user "nobody" (the test
/// runs as root): 0 when that works, else the errno of the attempt.
int connectAsNobody(const QString &path)
{
    const QByteArray address = QFile::encodeName(path);
    const pid_t child = ::fork();
    if (child == 0) {
        // Only system calls from here on: the child of a threaded process.
        if (::setgroups(0, nullptr) != 0 || ::setgid(65534) != 0 || ::setuid(65534) != 0)
            ::_exit(200);
        const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un un{};
        un.sun_family = AF_UNIX;
        std::memcpy(un.sun_path, address.constData(), size_t(address.size()));
        ::_exit(::connect(fd, reinterpret_cast<sockaddr *>(&un), sizeof(un)) == 0 ? 0 : errno);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// An OVA whose system disk the make function writes; its data disk is a
/// plain vmdk.
QString makeHostileOva(const QString &name, const std::function<void(const QString &)> &make)
{
    const QString dir = hvtest::testRoot() + "/hostile-" + name;
    QDir().mkpath(dir);
    make(dir + "/system.vmdk");
    run("qemu-img", {"create", "-q", "-f", "vmdk", dir + "/data.vmdk", "1M"});
    run("tar", {"--format=ustar", "-C", dir, "-cf", dir + "/" + name, "system.vmdk", "data.vmdk"});
    return dir + "/" + name;
}

class Security : public ::testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        Settings::set(QEMUAccelerator::settingKey(), "tcg");
        Settings::set(QEMUAudio::settingKey(), "none");
    }
    void SetUp() override { m_engine = makeEngine(); }

    std::unique_ptr<QEMUMachine> device(const QString &name)
    {
        return std::unique_ptr<QEMUMachine>(dynamic_cast<QEMUMachine *>(m_engine->getMachine(name)));
    }

    std::unique_ptr<QEMUEngine> m_engine;
};

// The running device's control channel is a socket in a private directory
// of its own: no TCP port of the emulator answers QMP, and another user
// cannot connect. Every file the device has is the owner's only.
TEST_F(Security, aRunningDeviceIsReachableByItsOwnerOnly)
{
    const OsImage image = makeImage(makeOva("private.ova", 8), "11.0.0", "7.0.0");
    ASSERT_EQ(m_engine->createMachine("Private", image, makeProfile(16)), 0);
    std::unique_ptr<QEMUMachine> machine = device("Private");
    ASSERT_NE(machine, nullptr);
    ASSERT_EQ(m_engine->startMachine(machine.get(), ""), 1);
    const long long pid = machine->loadQEMUPid();
    const QString socket = machine->getQmpSocketPath();
    EXPECT_TRUE(socket.startsWith(qEnvironmentVariable("XDG_RUNTIME_DIR") + "/halvistrom/")) << socket.toStdString();
    EXPECT_EQ(QSettings(machine->getLockFilePath(), QSettings::IniFormat).value("qmp_socket").toString(), socket);

    const QList<quint16> ports = listeningPorts(pid);
    EXPECT_TRUE(ports.contains(quint16(6555 + machine->getPortOffset()))) << "the forwarded ports are seen";
    for (quint16 port : ports)
        EXPECT_FALSE(greetsWithQmp(port)) << port;

    struct stat st;
    ASSERT_EQ(::stat(QFile::encodeName(socket).constData(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_uid, ::getuid());
    if (::getuid() == 0) {
        EXPECT_EQ(connectAsNobody(socket), EACCES);
    } else {
        // Without root no other user can be taken on; the directory's mode
        // below shows that none can pass.
        std::cout << "[ note ] not root: the socket's directory mode stands for another user's attempt\n";
    }
    EXPECT_EQ(openEntries(Paths::getOrganizationPath()), QStringList());
    EXPECT_EQ(openEntries(QFileInfo(socket).absolutePath()), QStringList());

    ASSERT_EQ(m_engine->cloneMachine(machine.get(), "PrivateCopy", true), 0);
    EXPECT_EQ(openEntries(deployed("PrivateCopy")), QStringList());
    EXPECT_TRUE(m_engine->stopMachine(machine.get()));
    EXPECT_TRUE(VMToolsCommon::waitForFinished(pid, 10000));
    EXPECT_FALSE(QFile::exists(QFileInfo(socket).absolutePath())) << "the socket's directory goes with it";
    // All of it private by explicit modes: the umask of the program that
    // embeds the library (000 here) is as it was.
    const mode_t mask = ::umask(0);
    ::umask(mask);
    EXPECT_EQ(mask, mode_t(0));
}

// A devices directory outside the data tree, holding a device an older
// version left open: the next program closes it, and so does every start.
TEST_F(Security, anOpenDeviceOutsideTheDataTreeIsClosedBeforeItRuns)
{
    const QString devices = hvtest::testRoot() + "/devices";
    Settings::set("virtual_devices.directory", devices);
    const std::shared_ptr<void> restore(nullptr, [](void *) {
        Settings::set("virtual_devices.directory", Paths::getDeployedPath());
    });
    std::unique_ptr<QEMUEngine> engine = makeEngine();
    ASSERT_EQ(engine->createMachine("Old", makeImage(makeOva("old.ova", 8), "11.0.0", "7.3.0"), makeProfile()), 0);
    const QString device = devices + "/Old";
    const auto leaveOpen = [&device] {
        for (const QString dir : {"", "/shared", "/shared/config"})
            ::chmod(QFile::encodeName(device + dir).constData(), 0755);
        for (const QString file : {"/shared/config/device.json", "/system.qcow2"})
            ::chmod(QFile::encodeName(device + file).constData(), 0644);
    };
    leaveOpen();
    makeEngine();
    EXPECT_EQ(openEntries(device), QStringList());

    leaveOpen();
    std::unique_ptr<QEMUMachine> machine(dynamic_cast<QEMUMachine *>(engine->getMachine("Old")));
    ASSERT_NE(machine, nullptr);
    ASSERT_EQ(engine->startMachine(machine.get(), ""), 1);
    EXPECT_EQ(openEntries(device), QStringList());
    EXPECT_TRUE(engine->stopMachine(machine.get()));
}

// The guest writes device.json through its shared drive. A record rewritten
// to name a host file, another image's reference disks or impossible
// hardware is refused with the cause; put back, the device is as it was.
TEST_F(Security, aRecordTheGuestRewroteIsRefused)
{
    const OsImage image = makeImage(makeOva("guest.ova", 8), "11.0.0", "7.4.0");
    ASSERT_TRUE(FileUtils::saveFile(Paths::getUserOsImagePath() + "guest.json",
                                    QJsonDocument(OsImageIO::toJsonObject(image)).toJson()));
    ASSERT_EQ(m_engine->createMachine("Guest", image, makeProfile()), 0);
    const OsImage other = makeImage(makeOva("other.ova", 8), "11.0.0", "7.4.1");
    ASSERT_EQ(m_engine->createMachine("Other", other, makeProfile()), 0);
    const QString record = deployed("Guest") + "/shared/config/device.json";
    const QByteArray original = hvtest::readFile(record);
    const QString backing = QEMUSnapshotTable::backingFile(deployed("Guest") + "/system.qcow2");
    ASSERT_EQ(QFileInfo(backing).path(), QDir::cleanPath(QEMUEngine::getReferenceDirectory(image)));
    const auto rewritten = [&original](const QString &part, const QString &key, const QJsonValue &value) {
        QJsonObject top = QJsonDocument::fromJson(original).object();
        QJsonObject object = top.value(part).toObject();
        object.insert(key, value);
        top.insert(part, key.isEmpty() ? value : object);
        return QJsonDocument(top).toJson();
    };
    const struct {
        QByteArray content;
        QString problem;
    } rows[] = {
        {rewritten("os_image", "image_uri", "file:///etc/shadow"),
         "its record names the image '" + image.uuid + "' at 'file:///etc/shadow' with checksum '" + image.imageHash
             + "', but that image is registered at '" + image.imageUri + "' with checksum '" + image.imageHash + "'"},
        {rewritten("os_image", "", OsImageIO::toJsonObject(other)),
         "its record names the reference disks of image 7.4.1 for Android 11.0.0 in '"
             + QDir::cleanPath(Paths::getSystemImagePath(other.imageVersion, other.osVersion))
             + "', but its system disk is backed by '" + backing + "'"},
        {rewritten("hardware_profile", "ram_size", -4096),
         "its record gives it -4096 MB of RAM, outside 256 to 2147483647"},
        {rewritten("hardware_profile", "cpu_count", 100000), "its record gives it 100000 processors, outside 1 to 512"},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.problem.toStdString());
        ASSERT_TRUE(hvtest::writeFile(record, row.content));
        MessageCapture capture;
        EXPECT_EQ(std::unique_ptr<VMToolsMachine>(m_engine->getMachine("Guest")), nullptr);
        EXPECT_TRUE(capture.has(QtWarningMsg, "[VMTools] Refusing the record of device \"Guest\": " + row.problem));
        EXPECT_EQ(m_engine->brokenReason(deployed("Guest")), row.problem);
    }
    ASSERT_TRUE(hvtest::writeFile(record, original));
    EXPECT_NE(std::unique_ptr<VMToolsMachine>(m_engine->getMachine("Guest")), nullptr);
}

// A socket address holds 107 bytes, yet any name a device may have starts,
// however deep its directory: the socket's path does not grow with it.
TEST_F(Security, aLongNameInADeepDirectoryStarts)
{
    const QString name = QString(64, 'n');
    ASSERT_EQ(m_engine->createMachine(name, makeImage(makeOva("deep.ova", 8), "11.0.0", "7.1.0"), makeProfile()), 0);
    const QString deep = hvtest::testRoot() + "/" + QString(100, 'd') + "/" + name;
    ASSERT_TRUE(QDir().mkpath(QFileInfo(deep).absolutePath()) && QDir().rename(deployed(name), deep));
    QEMUMachine machine(m_engine.get(), deep);
    ASSERT_TRUE(machine.load());
    ASSERT_EQ(m_engine->startMachine(&machine, ""), 1);
    EXPECT_TRUE(machine.isQEMURunning());
    EXPECT_TRUE(m_engine->stopMachine(&machine));
}

// A reference disk that names a host file is refused before conversion: the
// device is not made and the host file's bytes reach no disk.
TEST_F(Security, aHostileImageNeverCopiesAHostFileIntoADisk)
{
    const QString secret = hvtest::testRoot() + "/secret.raw";
    ASSERT_TRUE(hvtest::writeFile(secret, kSecret.leftJustified(1 << 20, 'S')));
    const struct {
        const char *name;
        std::function<void(const QString &)> make;
        QString reason;
    } rows[] = {
        {"backed.ova",
         [&](const QString &disk) { run("qemu-img", {"create", "-q", "-f", "qcow2", "-b", secret, "-F", "raw", disk}); },
         "not a vmdk image: qemu-img: Could not open"},
        {"extent.ova",
         [&](const QString &disk) {
             hvtest::writeFile(disk, "# Disk DescriptorFile\nversion=1\nCID=fffffffe\nparentCID=ffffffff\n"
                                     "createType=\"monolithicFlat\"\nRW 2048 FLAT \"" + secret.toUtf8() + "\" 0\n");
         },
         "it has an extent in another file '" + secret + "'"},
    };
    int version = 0;
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        const OsImage image = makeImage(makeHostileOva(row.name, row.make), "11.0.0", QString("8.%1.0").arg(version++));
        const QString reference = QEMUEngine::getReferenceDirectory(image);
        MessageCapture capture;
        EXPECT_EQ(m_engine->createMachine("Hostile", image, makeProfile()), 1);
        EXPECT_TRUE(capture.hasContaining(QtCriticalMsg, "[VMTools] Refusing to convert disk '" + reference
                                                             + ".partial/system.vmdk': " + row.reason));
        EXPECT_FALSE(QFile::exists(deployed("Hostile")));
        EXPECT_FALSE(QFile::exists(reference));
        EXPECT_FALSE(QFile::exists(reference + ".partial"));
        EXPECT_EQ(filesHolding(qEnvironmentVariable("HV_HOME"), kSecret), QStringList());
    }
}

// Deletion, reset and cloning stay inside the device directory: a link in it
// is never followed, and a device directory that is itself a link is refused.
TEST_F(Security, symbolicLinksAreNeverFollowedOutOfADevice)
{
    ASSERT_EQ(m_engine->createMachine("Real", makeImage(makeOva("real.ova", 8), "11.0.0", "7.2.0"), makeProfile()), 0);
    const QString outside = hvtest::testRoot() + "/outside";
    ASSERT_TRUE(hvtest::writeFile(outside + "/keep.txt", "keep"));
    ASSERT_TRUE(QFile::link(outside, deployed("Real") + "/escape"));
    const QString elsewhere = hvtest::testRoot() + "/elsewhere";
    ASSERT_TRUE(QDir().mkpath(elsewhere));
    ASSERT_TRUE(hvtest::writeFile(elsewhere + "/device.json", hvtest::readFile(deployed("Real") + "/device.json")));
    ASSERT_TRUE(hvtest::writeFile(elsewhere + "/keep.txt", "keep"));
    ASSERT_TRUE(QFile::link(elsewhere, deployed("Linked")));

    {
        MessageCapture capture;
        EXPECT_EQ(m_engine->getMachine("Linked"), nullptr);
        EXPECT_TRUE(capture.has(QtWarningMsg, "[VMTools] Refusing device directory \"" + deployed("Linked")
                                                  + "\" : it is a symbolic link to \"" + elsewhere + "\""))
            << capture.texts(QtWarningMsg).join('\n').toStdString();
        QEMUMachine linked(m_engine.get(), deployed("Linked"));
        EXPECT_FALSE(m_engine->deleteMachine(&linked));
        EXPECT_FALSE(m_engine->resetFactory(&linked));
        EXPECT_EQ(m_engine->cloneMachine(&linked, "LinkedCopy"), 1);
        EXPECT_EQ(QDir(elsewhere).entryList(QDir::Files), QStringList({"device.json", "keep.txt"}));
        EXPECT_FALSE(QFile::exists(deployed("LinkedCopy")));
    }

    std::unique_ptr<QEMUMachine> real = device("Real");
    ASSERT_NE(real, nullptr);
    ASSERT_EQ(m_engine->cloneMachine(real.get(), "RealCopy"), 0);
    EXPECT_FALSE(QFileInfo::exists(deployed("RealCopy") + "/escape"));
    EXPECT_TRUE(m_engine->resetFactory(real.get()));
    EXPECT_TRUE(m_engine->deleteMachine(real.get()));
    EXPECT_FALSE(QFileInfo::exists(deployed("Real")));
    EXPECT_EQ(hvtest::readFile(outside + "/keep.txt"), "keep");
}

} // namespace
