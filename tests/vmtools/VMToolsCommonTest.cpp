#include "VMToolsCommon.h"

#include "MessageCapture.h"
#include "ScopedEnv.h"
#include "TestEnvironment.h"
#include "TestFiles.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>

extern char **environ;

using hvtest::LogLine;
using hvtest::MessageCapture;
using VMToolsCommon::CallResult;

namespace {

QString helper()
{
    return hvtest::helperPath(QStringLiteral("hv_call_helper"));
}

// A direct child of the test process, started outside QProcess.
pid_t spawnChild(const QString &program, const QStringList &arguments)
{
    QList<QByteArray> storage{QFile::encodeName(program)};
    for (const QString &argument : arguments)
        storage << argument.toLocal8Bit();
    std::vector<char *> argv;
    for (QByteArray &item : storage)
        argv.push_back(item.data());
    argv.push_back(nullptr);
    pid_t pid = 0;
    return ::posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) == 0 ? pid : -1;
}

// A process that is not our child: a shell starts it in the background and
// exits, so it is re-parented away from us.
qint64 spawnOrphan(const QStringList &helperArguments)
{
    QProcess shell;
    shell.start("/bin/sh", QStringList{"-c", "\"$0\" \"$@\" >/dev/null 2>&1 & echo $!", helper()} + helperArguments);
    return shell.waitForFinished(10000) ? shell.readAllStandardOutput().trimmed().toLongLong() : -1;
}

// The pid a helper wrote, waiting until the file is there.
qint64 readPidFile(const QString &path)
{
    for (int i = 0; i < 100; ++i) {
        const qint64 pid = hvtest::readFile(path).toLongLong();
        if (pid > 0)
            return pid;
        QThread::msleep(50);
    }
    return -1;
}

// ---------------------------------------------------------------------------
// call(): exit codes, output and every line logged with them.

struct CallCase {
    const char *name;
    QStringList steps;
    VMToolsCommon::Options options;
    int returnCode;
    QString output;
    QString error;
    QList<LogLine> log;
};

class CallResults : public ::testing::TestWithParam<CallCase> {};

TEST_P(CallResults, reportsCodeTextsAndLogLines)
{
    const CallCase &c = GetParam();
    MessageCapture cap;
    const CallResult result = VMToolsCommon::call(helper(), c.steps, c.options);
    EXPECT_EQ(result.returnCode, c.returnCode);
    EXPECT_EQ(result.output, c.output);
    EXPECT_EQ(result.error, c.error);
    EXPECT_TRUE(result.finished);
    EXPECT_EQ(cap.lines(), c.log);
}

INSTANTIATE_TEST_SUITE_P(
    VMToolsCommon, CallResults,
    ::testing::Values(
        CallCase{"success", {"out", "hello"}, {}, 0, "hello", "",
                 {{QtDebugMsg, "[VMTools] Call: (\"out\", \"hello\")"}, {QtDebugMsg, "[VMTools] Return code: 0"}}},
        CallCase{"outputCutAtFirstNul", {"out", "abc", "outnul", "out", "def", "err", "x", "errnul", "err", "y"},
                 VMToolsCommon::NoLog, 0, "abc", "x", {}},
        CallCase{"nonZeroExitWithErrorText", {"out", "partial", "err", " boom\n", "exit", "3"}, {}, 3, "partial",
                 " boom\n",
                 {{QtDebugMsg, "[VMTools] Call: (\"out\", \"partial\", \"err\", \" boom\\n\", \"exit\", \"3\")"},
                  {QtCriticalMsg, "[VMTools] Return code: 3"},
                  {QtCriticalMsg, "[VMTools] Output command: \"boom\""},
                  {QtWarningMsg, "[VMTools] 3 \" boom\\n\" \"partial\""}}},
        CallCase{"nonZeroExitWithBlankErrorText", {"err", "  \n", "exit", "7"}, {}, 7, "", "  \n",
                 {{QtDebugMsg, "[VMTools] Call: (\"err\", \"  \\n\", \"exit\", \"7\")"},
                  {QtCriticalMsg, "[VMTools] Return code: 7"},
                  {QtWarningMsg, "[VMTools] 7 \"  \\n\" \"\""}}},
        CallCase{"noLogKeepsOnlyTheSummary", {"err", "bad", "exit", "2"}, VMToolsCommon::NoLog, 2, "", "bad",
                 {{QtWarningMsg, "[VMTools] 2 \"bad\" \"\""}}},
        CallCase{"latin1Decoding", {"out", "caf\xc3\xa9"}, VMToolsCommon::NoLog, 0,
                 QString::fromLatin1("caf\xc3\xa9"), "", {}}),
    [](const auto &info) { return std::string(info.param.name); });

TEST(VMToolsCommonCall, missingProgramIsReportedAsNotRunWithCodeZero)
{
    MessageCapture cap;
    int polls = 0;
    const QString program = hvtest::testRoot() + "/no-such-tool";
    const CallResult result = VMToolsCommon::call(program, {"--version"}, {}, [&polls] { return ++polls > 1000; });
    EXPECT_EQ(result.returnCode, 0);
    EXPECT_FALSE(result.finished);
    EXPECT_EQ(result.output + result.error, QString());
    // A program that never started is not polled over and over.
    EXPECT_LE(polls, 2);
    EXPECT_EQ(cap.lines(), (QList<LogLine>{{QtDebugMsg, "[VMTools] Call: (\"--version\")"},
                                           {QtCriticalMsg, "[VMTools] Can't run \"" + program + "\""},
                                           {QtWarningMsg, "[VMTools] 0 \"\" \"\""}}));
}

// ---------------------------------------------------------------------------
// call(): time limits. Every program is gone (killed and reaped) afterwards.

struct LimitCase {
    const char *name;
    const char *shortMs;
    const char *longMs;
    VMToolsCommon::Options options;
    bool withCancelPredicate;
    QStringList steps;
    bool finished;
    int returnCode;
    QStringList criticals; // %1: the program
    QStringList warnings;
};

class CallLimits : public ::testing::TestWithParam<LimitCase> {};

TEST_P(CallLimits, followTheOptionsAndEnvironment)
{
    const LimitCase &c = GetParam();
    hvtest::ScopedEnv shortTimeout("HV_CALL_TIMEOUT_MS", c.shortMs);
    hvtest::ScopedEnv longTimeout("HV_CALL_LONG_TIMEOUT_MS", c.longMs);
    QTemporaryDir dir;
    const QString pidFile = dir.filePath("pid");
    int polls = 0;
    MessageCapture cap;
    const CallResult result =
        VMToolsCommon::call(helper(), QStringList{"pidfile", pidFile} + c.steps, c.options,
                            c.withCancelPredicate ? std::function<bool()>([&polls] { return ++polls < 0; }) : nullptr);
    EXPECT_EQ(result.finished, c.finished);
    EXPECT_EQ(result.returnCode, c.returnCode);
    EXPECT_EQ(polls > 0, c.withCancelPredicate);
    EXPECT_EQ(cap.texts(QtCriticalMsg), QStringList(c.criticals).replaceInStrings("%1", helper()));
    EXPECT_EQ(cap.texts(QtWarningMsg), c.warnings);
    const qint64 pid = readPidFile(pidFile);
    ASSERT_GT(pid, 0);
    EXPECT_FALSE(VMToolsCommon::isRunning(pid)); // kill(pid, 0) fails for a zombie only once reaped
}

INSTANTIATE_TEST_SUITE_P(
    VMToolsCommon, CallLimits,
    ::testing::Values(
        LimitCase{"shortLimitKills", "300", "20000", {}, false, {"out", "early", "sleep", "20000"}, false, 0,
                  {"[VMTools] Can't run \"%1\""}, {"[VMTools] 0 \"\" \"early\""}},
        LimitCase{"shortLimitWithCancelPredicate", "200", "20000", {}, true, {"sleep", "20000"}, false, 0,
                  {"[VMTools] Can't run \"%1\""}, {"[VMTools] 0 \"\" \"\""}},
        LimitCase{"longLimit", "100", "20000", VMToolsCommon::LongTimeout, false, {"sleep", "600"}, true, 0, {}, {}},
        LimitCase{"noTimeoutWinsOverLong", "100", "100",
                  VMToolsCommon::NoTimeout | VMToolsCommon::LongTimeout | VMToolsCommon::NoLog, false,
                  {"sleep", "600", "exit", "4"}, true, 4, {}, {"[VMTools] 4 \"\" \"\""}}),
    [](const auto &info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------
// call(): cancellation sends SIGINT, then kills what ignores it.

TEST(VMToolsCommonCall, cancelReportsCanceledAndLeavesNoProcess)
{
    QTemporaryDir dir;
    const QString mark = dir.filePath("mark");
    for (const QString first : {"markint", "ignoreint"}) {
        SCOPED_TRACE(first.toStdString());
        const QString pidFile = dir.filePath(first + ".pid");
        MessageCapture cap;
        // Cancelled once the program has set up its signal handling.
        const CallResult result = VMToolsCommon::call(
            helper(), QStringList{first} + (first == "markint" ? QStringList{mark} : QStringList())
                          + QStringList{"pidfile", pidFile, "out", "lost", "sleep", "60000"},
            {}, [&pidFile] { return QFile(pidFile).size() > 0; });
        EXPECT_EQ(result.returnCode, -1);
        EXPECT_EQ(result.output, QString());
        EXPECT_EQ(result.error, "canceled");
        EXPECT_FALSE(result.finished);
        EXPECT_EQ(cap.texts(QtWarningMsg), QStringList{"[VMTools] -1 \"canceled\" \"\""});
        EXPECT_FALSE(VMToolsCommon::isRunning(readPidFile(pidFile)));
    }
    EXPECT_EQ(hvtest::readFile(mark), QByteArray("SIGINT"));

    int polls = 0;
    const CallResult atOnce = VMToolsCommon::call(helper(), {"sleep", "20000"}, VMToolsCommon::NoLog,
                                                  [&polls] { return ++polls == 1; });
    EXPECT_EQ(polls, 1);
    EXPECT_EQ(atOnce.returnCode, -1);
    EXPECT_EQ(atOnce.error, "canceled");
}

// One call from a worker thread (blocking wait), one from the application
// thread (event-loop wait, serving the application's events): they run one
// after the other.
TEST(VMToolsCommonCall, concurrentCallsRunOneAfterTheOther)
{
    QTemporaryDir dir;
    const QString journal = dir.filePath("journal");
    const auto steps = [&journal](const QString &who) {
        return QStringList{"append", journal, who + "-start", "sleep", "400", "append", journal, who + "-end"};
    };
    CallResult workerResult;
    std::thread worker([&] {
        workerResult = VMToolsCommon::call(helper(), steps("worker") + QStringList{"exit", "5"}, VMToolsCommon::NoLog);
    });
    QThread::msleep(50);
    bool timerFired = false;
    QTimer::singleShot(50, [&timerFired] { timerFired = true; });
    EXPECT_TRUE(VMToolsCommon::call(helper(), steps("main"), VMToolsCommon::NoLog).finished);
    worker.join();
    EXPECT_TRUE(timerFired);
    EXPECT_EQ(workerResult.returnCode, 5);

    const QStringList lines = QString::fromLatin1(hvtest::readFile(journal)).split('\n', Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 4);
    const QString first = lines[0].section('-', 0, 0);
    const QString second = lines[2].section('-', 0, 0);
    EXPECT_NE(first, second);
    EXPECT_EQ(lines, (QStringList{first + "-start", first + "-end", second + "-start", second + "-end"}));
}

// ---------------------------------------------------------------------------
// Pid operations.

TEST(VMToolsCommonPid, destroyProcessKillsAndReaps)
{
    const pid_t child = spawnChild(helper(), {"sleep", "60000"});
    const qint64 orphan = spawnOrphan({"sleep", "60000"});
    ASSERT_GT(child, 0);
    ASSERT_GT(orphan, 0);
    ASSERT_TRUE(VMToolsCommon::isRunning(child) && VMToolsCommon::isRunning(orphan));
    const qint64 missing = 0x7ffffff0;
    MessageCapture cap;
    EXPECT_TRUE(VMToolsCommon::destroyProcess(child));
    EXPECT_TRUE(VMToolsCommon::destroyProcess(orphan));
    EXPECT_FALSE(VMToolsCommon::destroyProcess(missing));
    EXPECT_EQ(cap.lines(),
              (QList<LogLine>{{QtDebugMsg, QString("[VMTools] destroyProcess( %1 ) -> true").arg(child)},
                              {QtDebugMsg, QString("[VMTools] No child to wait for Pid= %1").arg(orphan)},
                              {QtDebugMsg, QString("[VMTools] destroyProcess( %1 ) -> true").arg(orphan)},
                              {QtCriticalMsg, QString("[VMTools] Failed to kill process with id= %1").arg(missing)}}));
    // The child was reaped: there is nothing left to wait for.
    EXPECT_EQ(::waitpid(child, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_TRUE(VMToolsCommon::waitForFinished(orphan, 10000));
}

TEST(VMToolsCommonPid, processNameDropsTheDeletedMark)
{
    QTemporaryDir dir;
    const QString copy = dir.filePath("hv-doomed");
    ASSERT_TRUE(QFile::copy(helper(), copy));
    const pid_t pid = spawnChild(copy, {"sleep", "60000"});
    ASSERT_GT(pid, 0);
    EXPECT_EQ(VMToolsCommon::processNameByPid(pid), "hv-doomed");
    ASSERT_TRUE(QFile::remove(copy));
    EXPECT_EQ(VMToolsCommon::processNameByPid(pid), "hv-doomed");
    EXPECT_TRUE(VMToolsCommon::destroyProcess(pid));
    EXPECT_EQ(VMToolsCommon::processNameByPid(0x7ffffff0), QString());
    EXPECT_EQ(VMToolsCommon::processNameByPid(::getpid()), "vmtools_tests");
}

TEST(VMToolsCommonPid, waitForFinished)
{
    MessageCapture cap;
    EXPECT_TRUE(VMToolsCommon::waitForFinished(0x7ffffff0, 0));
    const qint64 pid = spawnOrphan({"sleep", "300"});
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(VMToolsCommon::waitForFinished(pid, 20000));
    EXPECT_TRUE(cap.lines().isEmpty());
    EXPECT_FALSE(VMToolsCommon::waitForFinished(::getpid(), 0));
    EXPECT_EQ(cap.lines(), (QList<LogLine>{{QtWarningMsg, QString("[VMTools] Timeout waiting for process end Pid = %1")
                                                              .arg(::getpid())}}));
}

// A detached program outlives its caller: it must not keep the caller's
// descriptors (a lock it holds, the embedding program's sockets) open.
TEST(VMToolsCommonPid, aDetachedProgramKeepsNoDescriptorOfItsCaller)
{
    const int inherited = ::open("/dev/null", O_RDONLY);
    ASSERT_GE(inherited, 3);
    qint64 pid = 0;
    ASSERT_TRUE(VMToolsCommon::startDetached(helper(), {"sleep", "60000"}, hvtest::testRoot() + "/err.log", &pid));
    ::close(inherited);
    const QStringList fds = QDir(QString("/proc/%1/fd").arg(pid)).entryList(QDir::NoDotAndDotDot | QDir::System);
    EXPECT_TRUE(VMToolsCommon::destroyProcess(pid));
    ASSERT_FALSE(fds.isEmpty());
    for (const QString &fd : fds)
        EXPECT_LT(fd.toInt(), 3) << "descriptor " << fd.toStdString() << " was inherited";
}

// ---------------------------------------------------------------------------
// VirtualBox tool lookup.

TEST(VMToolsCommonVBox, overrideThenPathThenNothing)
{
    QTemporaryDir dir;
    const QString tool = dir.filePath("VBoxManage");
    ASSERT_TRUE(QFile::copy(helper(), tool));
    hvtest::ScopedEnv path("PATH", QFile::encodeName(dir.path()));
    {
        hvtest::ScopedEnv vbox("HV_VBOXMANAGE", "/nonexistent/VBoxManage");
        MessageCapture cap;
        EXPECT_EQ(VMToolsCommon::findVBoxManage(), "/nonexistent/VBoxManage");
        EXPECT_EQ(cap.lines(), (QList<LogLine>{
                                   {QtDebugMsg, "[VMTools] \"Using '/nonexistent/VBoxManage' for VBoxManage\""}}));
        EXPECT_FALSE(VMToolsCommon::isVBoxInstalled());
    }
    EXPECT_EQ(VMToolsCommon::findVBoxManage(), tool);
    EXPECT_TRUE(VMToolsCommon::isVBoxInstalled());
    {
        hvtest::ScopedEnv trigger("HV_TRIGGER_ERROR", "noip,vboxnotinstalled");
        EXPECT_FALSE(VMToolsCommon::isVBoxInstalled());
    }
    QFile::remove(tool);
    EXPECT_EQ(VMToolsCommon::findVBoxManage(), QString());
    EXPECT_FALSE(VMToolsCommon::isVBoxInstalled());
}

} // namespace
