#include "TestEnvironment.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace hvtest {
namespace {

std::string g_root;
bool g_ownsRoot = false;

// A test that fails between a start and its stop leaves a detached emulator
// behind; it would hold the test's ports and files after the process ends.
// Every process whose command line names this test's root is ended.
void endLeftoverProcesses()
{
    const QByteArray root = QByteArray::fromStdString(g_root) + '/';
    QDirIterator it(QStringLiteral("/proc"), QDir::Dirs | QDir::NoDotAndDotDot);
    while (it.hasNext()) {
        bool numeric = false;
        const pid_t pid = pid_t(it.next().section('/', -1).toInt(&numeric));
        if (!numeric || pid == ::getpid())
            continue;
        QFile cmdline(it.filePath() + QStringLiteral("/cmdline"));
        if (cmdline.open(QIODevice::ReadOnly) && cmdline.readAll().contains(root))
            ::kill(pid, SIGKILL);
    }
}

// A free TCP port on 127.0.0.1 (0 when none), or whether one is listened on.
int localPort(int port, bool *listened = nullptr)
{
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(uint16_t(port));
    socklen_t size = sizeof addr;
    if (listened)
        *listened = ::connect(fd, reinterpret_cast<sockaddr *>(&addr), size) == 0;
    else if (::bind(fd, reinterpret_cast<sockaddr *>(&addr), size) == 0)
        ::getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &size);
    ::close(fd);
    return ntohs(addr.sin_port);
}

// A start connects the user's adb to the device: each test process has an
// adb server of its own, ended with it.
void endAdbServer()
{
    const char *port = std::getenv("ANDROID_ADB_SERVER_PORT");
    bool listened = false;
    if (port && (localPort(std::atoi(port), &listened), listened)
        && std::system((std::string("adb -P ") + port + " kill-server >/dev/null 2>&1").c_str()) != 0)
        std::fprintf(stderr, "the adb server on port %s did not end\n", port);
}

void removeRoot()
{
    if (g_ownsRoot && !g_root.empty()) {
        endAdbServer();
        endLeftoverProcesses();
        QDir(QString::fromStdString(g_root)).removeRecursively();
    }
}

void makeDir(const std::string &path, mode_t mode = 0700)
{
    ::mkdir(path.c_str(), mode);
}

} // namespace

void isolateProcess()
{
    // A death test's child re-runs this main; it reuses its parent's root.
    if (const char *inherited = std::getenv("HV_TEST_ROOT")) {
        g_root = inherited;
        return;
    }
    char pattern[] = "/tmp/hvtest-XXXXXX";
    if (!::mkdtemp(pattern))
        std::abort();
    g_root = pattern;
    g_ownsRoot = true;
    std::atexit(removeRoot);

    const std::pair<const char *, const char *> dirs[] = {
        {"HOME", "/home"},
        {"XDG_CONFIG_HOME", "/config"},
        {"XDG_DATA_HOME", "/data"},
        {"XDG_CACHE_HOME", "/cache"},
        {"XDG_RUNTIME_DIR", "/runtime"},
        {"TMPDIR", "/tmp"},
    };
    for (const auto &[name, sub] : dirs) {
        const std::string path = g_root + sub;
        makeDir(path);
        ::setenv(name, path.c_str(), 1);
    }
    ::setenv("HV_TEST_ROOT", g_root.c_str(), 1);
    // A test entry can run under a file-creation mask of its choosing (octal),
    // set before the system under test creates anything.
    if (const char *mask = std::getenv("HV_TEST_UMASK"))
        ::umask(mode_t(std::strtol(mask, nullptr, 8)));
    ::unsetenv("XDG_CONFIG_DIRS");
    ::unsetenv("XDG_DATA_DIRS");
    ::setenv("ANDROID_ADB_SERVER_PORT", std::to_string(localPort(0)).c_str(), 1);
    if (!std::getenv("HV_TEST_KEEP_HV_HOME"))
        ::setenv("HV_HOME", (g_root + "/hvhome").c_str(), 1);
}

QString testRoot()
{
    return QString::fromStdString(g_root);
}

QString helperPath(const QString &name)
{
    return QCoreApplication::applicationDirPath() + QLatin1Char('/') + name;
}

} // namespace hvtest
