#include "VMToolsCommon.h"

#include "EnvVars.h"
#include "Logging_p.h"
#include "Paths.h"
#include "TriggerError.h"

#include <QCoreApplication>
#include <QDebug>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRecursiveMutex>
#include <QStandardPaths>
#include <QThread>
#include <QTimer>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <vector>

namespace VMToolsCommon {
namespace {

// One lock for every external program. Recursive, so that a handler run by
// the nested event loop of a call on the application thread may itself call
// without dead-locking its own thread.
Q_GLOBAL_STATIC(QRecursiveMutex, g_callMutex)

constexpr int kDefaultTimeoutMs = 30000;
constexpr int kLongTimeoutMs = 300000;
constexpr int kCancelPollMs = 1000;
// How long a cancelled program gets to act on SIGINT before it is killed.
constexpr int kCancelGraceMs = 1000;
// Bound on the wait for a killed program to be reaped.
constexpr int kReapTimeoutMs = 5000;

int timeoutFor(Options options)
{
    if (options.testFlag(NoTimeout))
        return -1;
    if (options.testFlag(LongTimeout))
        return EnvVars::getInt("HV_CALL_LONG_TIMEOUT_MS", kLongTimeoutMs);
    return EnvVars::getInt("HV_CALL_TIMEOUT_MS", kDefaultTimeoutMs);
}

// Tools may write binary data after their text; only the part before the
// first NUL is meaningful.
QString decode(const QByteArray &bytes)
{
    const int nul = bytes.indexOf('\0');
    return QString::fromLatin1(nul < 0 ? bytes : bytes.left(nul));
}

bool onApplicationThread()
{
    const QCoreApplication *app = QCoreApplication::instance();
    return app && QThread::currentThread() == app->thread();
}

// Waits up to ms (negative: no limit) for the program to end. On the
// application thread a local event loop keeps timers, signals and queued
// calls flowing while the tool runs.
bool waitForProcess(QProcess &process, int ms)
{
    if (!onApplicationThread())
        return process.waitForFinished(ms);
    if (process.state() == QProcess::NotRunning)
        return false;

    QEventLoop loop;
    QTimer timer;
    timer.setSingleShot(true);
    QObject::connect(&timer, &QTimer::timeout, &loop, [&loop] { loop.exit(-1); });
    QObject::connect(&process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), &loop,
                     [&loop] { loop.exit(0); });
    // A program that cannot be started never sends finished; without this the
    // loop would sit out the whole time-out.
    QObject::connect(&process, &QProcess::errorOccurred, &loop, [&loop](QProcess::ProcessError error) {
        if (error == QProcess::FailedToStart)
            loop.exit(-1);
    });
    if (ms >= 0)
        timer.start(ms);
    return loop.exec(QEventLoop::ExcludeUserInputEvents) == 0;
}

// Never leave a running program behind a QProcess that goes away: kill it and
// reap it, with a bound on the wait.
void killAndReap(QProcess &process)
{
    if (process.state() == QProcess::NotRunning)
        return;
    process.kill();
    process.waitForFinished(kReapTimeoutMs);
}

// The disks, snapshots and sockets the tools make hold the guest's data:
// they are made for the owner alone, whatever mask the embedding program
// keeps for its own files.
class PrivateFilesProcess : public QProcess
{
protected:
    void setupChildProcess() override { ::umask(S_IRWXG | S_IRWXO); }
};

enum class WaitOutcome { Finished, NotFinished, Canceled };

WaitOutcome waitWithCancel(QProcess &process, int timeoutMs, const std::function<bool()> &cancel)
{
    if (!cancel)
        return waitForProcess(process, timeoutMs) ? WaitOutcome::Finished : WaitOutcome::NotFinished;

    QElapsedTimer elapsed;
    elapsed.start();
    for (;;) {
        if (timeoutMs >= 0 && elapsed.elapsed() >= timeoutMs)
            return WaitOutcome::NotFinished;
        if (cancel())
            return WaitOutcome::Canceled;
        if (waitForProcess(process, kCancelPollMs))
            return WaitOutcome::Finished;
        // A program that never started would otherwise be polled in a tight
        // loop until the time-out.
        if (process.state() == QProcess::NotRunning)
            return WaitOutcome::NotFinished;
    }
}

// Asks a canceled program to stop, then kills it.
CallResult cancelCall(QProcess &process)
{
    const qint64 pid = process.processId();
    // Guard the pid: kill(0, ...) would signal our whole process group.
    if (pid > 0) {
        ::kill(static_cast<pid_t>(pid), SIGINT);
        process.waitForFinished(kCancelGraceMs);
    }
    killAndReap(process);
    qCWarning(hvProcessLog) << "[VMTools]" << -1 << QStringLiteral("canceled") << QString();
    CallResult result;
    result.returnCode = -1;
    result.error = QStringLiteral("canceled");
    return result;
}

void logFailedCall(const QString &program, const CallResult &result)
{
    if (!result.finished) {
        qCCritical(hvProcessLog) << "[VMTools]" << "Can't run" << program;
        return;
    }
    qCCritical(hvProcessLog) << "[VMTools]" << "Return code:" << result.returnCode;
    const QString trimmedError = result.error.trimmed();
    if (!trimmedError.isEmpty())
        qCCritical(hvProcessLog) << "[VMTools]" << "Output command:" << trimmedError;
}

} // namespace

CallResult call(const QString &program, const QStringList &arguments, Options options,
                const std::function<bool()> &cancel)
{
    QMutexLocker locker(g_callMutex.isDestroyed() ? nullptr : g_callMutex());

    const bool logged = !options.testFlag(NoLog);
    PrivateFilesProcess process;
    if (logged)
        qCDebug(hvProcessLog) << "[VMTools]" << "Call:" << arguments;
    process.start(program, arguments, QIODevice::ReadWrite);

    const WaitOutcome outcome = waitWithCancel(process, timeoutFor(options), cancel);

    if (outcome == WaitOutcome::Canceled)
        return cancelCall(process);

    CallResult result;
    result.finished = outcome == WaitOutcome::Finished;
    // A program that did not finish has no exit code; report 0 as callers
    // expect, even where QProcess keeps the status of a failed exec (255).
    result.returnCode = result.finished ? process.exitCode() : 0;
    result.output = decode(process.readAllStandardOutput());
    result.error = decode(process.readAllStandardError());
    killAndReap(process);

    if (result.finished && result.returnCode == 0) {
        if (logged)
            qCDebug(hvProcessLog) << "[VMTools]" << "Return code:" << 0;
        return result;
    }
    if (logged)
        logFailedCall(program, result);
    qCWarning(hvProcessLog) << "[VMTools]" << result.returnCode << result.error << result.output;
    return result;
}

namespace {

// What /proc tells of one process. The state letter is 0 when the process
// could not be read.
struct ProcStat {
    char state = 0;
    qint64 startTime = 0;
};

ProcStat readProcStat(qint64 pid)
{
    ProcStat stat;
    QFile file(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!file.open(QIODevice::ReadOnly))
        return stat;
    // One short line; the command name in parentheses may itself hold spaces
    // and parentheses, so the fields are counted from the last ')'.
    const QByteArray line = file.read(4096);
    const int close = line.lastIndexOf(')');
    if (close < 0)
        return stat;
    const QList<QByteArray> fields = line.mid(close + 1).simplified().split(' ');
    // fields[0] is the state (the third field of the line), fields[19] the
    // start time (the twenty-second).
    constexpr int kStartTimeField = 19;
    if (fields.size() <= kStartTimeField || fields[0].size() != 1)
        return stat;
    bool ok = false;
    const qint64 startTime = fields[kStartTimeField].toLongLong(&ok);
    if (!ok)
        return stat;
    stat.state = fields[0].at(0);
    stat.startTime = startTime;
    return stat;
}

bool isEnded(const ProcStat &stat)
{
    // Z: a zombie; X: dead, about to vanish.
    return stat.state == 'Z' || stat.state == 'X';
}

// Whether a thread of the process has not ended yet. A killed process's
// first thread can end (and show as a zombie) before the others, which still
// hold its files, and the locks on them, until they end too.
bool hasLiveThread(qint64 pid)
{
    const QDir tasks(QStringLiteral("/proc/%1/task").arg(pid));
    for (const QString &tid : tasks.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile file(tasks.filePath(tid + QStringLiteral("/stat")));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        // As in the process's own stat line: the state follows the last ')'.
        const QByteArray line = file.read(4096);
        const QByteArray rest = line.mid(line.lastIndexOf(')') + 1).simplified();
        ProcStat stat;
        stat.state = rest.isEmpty() ? 'X' : rest.at(0);
        if (!isEnded(stat))
            return true;
    }
    return false;
}

constexpr int kEndPollMs = 5;

} // namespace

namespace {

// The descriptors a detached program starts with, and the pipes that tell
// its pid and whether its exec failed.
struct DetachedStart {
    int input = -1;
    int output = -1;
    int error = -1;
    int pidPipe[2] = {-1, -1};
    int execPipe[2] = {-1, -1};

    ~DetachedStart()
    {
        for (int fd : {input, output, error, pidPipe[0], pidPipe[1], execPipe[0], execPipe[1]}) {
            if (fd >= 0)
                ::close(fd);
        }
    }
};

// The program outlives its caller: a descriptor it inherited (a lock the
// caller holds, a socket of the embedding application) would stay open as
// long as it runs. Everything from first up is closed at the exec.
// System calls only: it runs in a forked child.
void closeOnExecFrom(int first)
{
    if (::close_range(unsigned(first), ~0U, CLOSE_RANGE_CLOEXEC) == 0)
        return;
    // Kernels before 5.11 have no close_range.
    const long last = ::sysconf(_SC_OPEN_MAX);
    for (long fd = first; fd < (last > 0 ? last : 65536); ++fd)
        ::fcntl(int(fd), F_SETFD, FD_CLOEXEC);
}

// Runs in the forked child of a multi-threaded process: system calls only.
// The child leaves at once, so the program it forks is nobody's child here.
[[noreturn]] void runDetached(const DetachedStart &start, const char *path, char *const argv[])
{
    ::setsid();
    const pid_t pid = ::fork();
    if (pid != 0) {
        const qint64 value = pid;
        const bool told = ::write(start.pidPipe[1], &value, sizeof value) == ssize_t(sizeof value);
        ::_exit(pid > 0 && told ? 0 : 1);
    }
    ::umask(S_IRWXG | S_IRWXO);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    closeOnExecFrom(3);
    if (::dup2(start.input, 0) >= 0 && ::dup2(start.output, 1) >= 0 && ::dup2(start.error, 2) >= 0)
        ::execv(path, argv);
    const int error = errno;
    const ssize_t told = ::write(start.execPipe[1], &error, sizeof error);
    ::_exit(told == ssize_t(sizeof error) ? 127 : 126);
}

// Forks the starter and learns the program's pid and errno of a failed
// exec (0 when it runs).
bool forkDetached(DetachedStart &start, const char *path, char *const argv[], qint64 *pid, int *execError)
{
    const pid_t starter = ::fork();
    if (starter < 0)
        return false;
    if (starter == 0)
        runDetached(start, path, argv);
    ::close(start.pidPipe[1]);
    ::close(start.execPipe[1]);
    start.pidPipe[1] = start.execPipe[1] = -1;
    int status = 0;
    while (::waitpid(starter, &status, 0) < 0 && errno == EINTR) {
    }
    qint64 value = 0;
    if (::read(start.pidPipe[0], &value, sizeof value) != ssize_t(sizeof value) || value <= 0) {
        errno = EAGAIN;
        return false;
    }
    *pid = value;
    // The pipe closes at the exec; a failed exec writes its errno first.
    ssize_t n = 0;
    while ((n = ::read(start.execPipe[0], execError, sizeof *execError)) < 0 && errno == EINTR) {
    }
    if (n != ssize_t(sizeof *execError))
        *execError = 0;
    return true;
}

} // namespace

bool startDetached(const QString &program, const QStringList &arguments, const QString &errorFile, qint64 *pid)
{
    // A bare name is looked up in PATH, as QProcess does, before the fork.
    const QString path = program.contains(QLatin1Char('/')) ? program : QStandardPaths::findExecutable(program);
    QList<QByteArray> encoded{QFile::encodeName(path.isEmpty() ? program : path)};
    for (const QString &argument : arguments)
        encoded << argument.toLocal8Bit();
    std::vector<char *> argv;
    for (QByteArray &argument : encoded)
        argv.push_back(argument.data());
    argv.push_back(nullptr);

    DetachedStart start;
    start.error = ::open(QFile::encodeName(errorFile).constData(),
                         O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
    if (start.error < 0 || ::fchmod(start.error, S_IRUSR | S_IWUSR) != 0) {
        qCCritical(hvProcessLog) << "[VMTools]" << "Cannot run" << program << ": cannot write" << errorFile << ":"
                    << std::strerror(errno);
        return false;
    }
    start.input = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    start.output = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    int execError = 0;
    const bool forked = start.input >= 0 && start.output >= 0 && ::pipe2(start.pidPipe, O_CLOEXEC) == 0
        && ::pipe2(start.execPipe, O_CLOEXEC) == 0 && forkDetached(start, argv[0], argv.data(), pid, &execError);
    const int error = forked ? execError : errno;
    if (error == 0)
        return true;
    qCCritical(hvProcessLog) << "[VMTools]" << "Cannot run" << program << ":" << std::strerror(error);
    return false;
}

bool isRunning(qint64 pid)
{
    return isSameProcess(pid, 0);
}

qint64 processStartTime(qint64 pid)
{
    if (pid <= 0)
        return 0;
    return readProcStat(pid).startTime;
}

bool isSameProcess(qint64 pid, qint64 startTime)
{
    if (pid <= 0 || ::kill(static_cast<pid_t>(pid), 0) != 0)
        return false;
    // Without /proc (another system) the signal test is all there is.
    const ProcStat stat = readProcStat(pid);
    if (isEnded(stat) && !hasLiveThread(pid))
        return false;
    return startTime == 0 || stat.startTime == 0 || stat.startTime == startTime;
}

bool destroyProcess(qint64 pid)
{
    if (::kill(static_cast<pid_t>(pid), SIGKILL) != 0) {
        qCCritical(hvProcessLog) << "[VMTools]" << "Failed to kill process with id=" << pid;
        return false;
    }

    int status = 0;
    pid_t reaped = 0;
    // Retry only on an interrupted wait; errno is cleared first so that a
    // stale EINTR cannot make a successful wait repeat.
    do {
        errno = 0;
        reaped = ::waitpid(static_cast<pid_t>(pid), &status, WUNTRACED | WCONTINUED);
    } while (errno == EINTR);

    if (reaped == -1) {
        if (errno == ECHILD)
            qCDebug(hvProcessLog) << "[VMTools]" << "No child to wait for Pid=" << pid;
        else
            qCCritical(hvProcessLog) << "[VMTools]" << "Error waiting for Pid =" << pid << ", error=" << ::strerror(errno);
    } else if (!WIFEXITED(status) && !WIFSIGNALED(status)) {
        return false;
    }
    qCDebug(hvProcessLog) << "[VMTools]" << "destroyProcess(" << pid << ") -> true";
    return true;
}

QString processNameByPid(qint64 pid)
{
    const QString target = QFile::symLinkTarget(QStringLiteral("/proc/%1/exe").arg(pid));
    return QFileInfo(target).fileName().remove(QStringLiteral("(deleted)")).trimmed();
}

bool waitForFinished(qint64 pid, int timeoutMs, qint64 startTime)
{
    if (!isSameProcess(pid, startTime))
        return true;
    QElapsedTimer elapsed;
    elapsed.start();
    while (elapsed.elapsed() < timeoutMs) {
        QThread::msleep(kEndPollMs);
        if (!isSameProcess(pid, startTime))
            return true;
    }
    qCWarning(hvProcessLog) << "[VMTools]" << "Timeout waiting for process end Pid =" << pid;
    return false;
}

QString findVBoxManage()
{
    const QString fromEnv = EnvVars::getString("HV_VBOXMANAGE");
    if (!fromEnv.isEmpty()) {
        qCDebug(hvProcessLog) << "[VMTools]" << QStringLiteral("Using '%1' for VBoxManage").arg(fromEnv);
        return fromEnv;
    }
    return Paths::findExecutableInPath(QStringLiteral("VBoxManage"));
}

bool isVBoxInstalled()
{
    if (TriggerError::vboxNotInstalled())
        return false;
    return QFile::exists(findVBoxManage());
}

} // namespace VMToolsCommon
