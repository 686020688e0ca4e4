#include "VMToolsCommon.h"

#include "MessageCapture.h"
#include "ScopedEnv.h"
#include "TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>
#include <QTimer>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>

extern char **environ;

using hvtest::MessageCapture;
using VMToolsCommon::CallResult;

namespace {

QString helper()
{
    return hvtest::helperPath(QStringLiteral("hv_call_helper"));
}

// Starts a direct child of the test process, outside QProcess, so that the
// pid operations see a plain child.
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
    if (::posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0)
        return -1;
    return pid;
}

// Starts a process that is not our child: a shell puts it in the background
// and exits, so it is re-parented away from us.
qint64 spawnOrphan(const QStringList &helperArguments)
{
    QProcess shell;
    const QStringList arguments = QStringList{QStringLiteral("-c"),
                                              QStringLiteral("\"$0\" \"$@\" >/dev/null 2>&1 & echo $!"), helper()}
                                  + helperArguments;
    shell.start(QStringLiteral("/bin/sh"), arguments);
    if (!shell.waitForFinished(10000))
        return -1;
    return shell.readAllStandardOutput().trimmed().toLongLong();
}

// Reads the pid a helper wrote, waiting until the file is there.
qint64 readPidFile(const QString &path)
{
    for (int i = 0; i < 100; ++i) {
        QFile file(path);
        if (file.open(QIODevice::ReadOnly)) {
            const qint64 pid = file.readAll().toLongLong();
            if (pid > 0)
                return pid;
        }
        QThread::msleep(50);
    }
    return -1;
}

// ---------------------------------------------------------------------------
// call(): exit codes, output and the log lines that go with them.

struct CallCase {
    const char *name;
    QStringList steps;
    VMToolsCommon::Options options;
    int returnCode;
    QString output;
    QString error;
    // Every line logged, in order, with its level.
    QList<hvtest::LogLine> log;
};

void PrintTo(const CallCase &c, std::ostream *os)
{
    *os << c.name;
}

class CallResults : public ::testing::TestWithParam<CallCase>
{
};

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

const QString kCallLineSuccess = QStringLiteral("[VMTools] Call: (\"out\", \"hello\")");

INSTANTIATE_TEST_SUITE_P(
    VMToolsCommon, CallResults,
    ::testing::Values(
        CallCase{"success",
                 {"out", "hello"},
                 {},
                 0,
                 "hello",
                 "",
                 {{QtDebugMsg, kCallLineSuccess}, {QtDebugMsg, "[VMTools] Return code: 0"}}},
        CallCase{"outputCutAtFirstNul",
                 {"out", "abc", "outnul", "out", "def", "err", "x", "errnul", "err", "y"},
                 VMToolsCommon::NoLog,
                 0,
                 "abc",
                 "x",
                 {}},
        CallCase{"nonZeroExitWithErrorText",
                 {"out", "partial", "err", " boom\n", "exit", "3"},
                 {},
                 3,
                 "partial",
                 " boom\n",
                 {{QtDebugMsg, "[VMTools] Call: (\"out\", \"partial\", \"err\", \" boom\\n\", \"exit\", \"3\")"},
                  {QtCriticalMsg, "[VMTools] Return code: 3"},
                  {QtCriticalMsg, "[VMTools] Output command: \"boom\""},
                  {QtWarningMsg, "[VMTools] 3 \" boom\\n\" \"partial\""}}},
        CallCase{"nonZeroExitWithBlankErrorText",
                 {"err", "  \n", "exit", "7"},
                 {},
                 7,
                 "",
                 "  \n",
                 {{QtDebugMsg, "[VMTools] Call: (\"err\", \"  \\n\", \"exit\", \"7\")"},
                  {QtCriticalMsg, "[VMTools] Return code: 7"},
                  {QtWarningMsg, "[VMTools] 7 \"  \\n\" \"\""}}},
        CallCase{"noLogKeepsOnlyTheSummary",
                 {"err", "bad", "exit", "2"},
                 VMToolsCommon::NoLog,
                 2,
                 "",
                 "bad",
                 {{QtWarningMsg, "[VMTools] 2 \"bad\" \"\""}}},
        CallCase{"latin1Decoding",
                 {"out", "caf\xc3\xa9"},
                 VMToolsCommon::NoLog,
                 0,
                 QString::fromLatin1("caf\xc3\xa9"),
                 "",
                 {}}),
    [](const ::testing::TestParamInfo<CallCase> &info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------
// call(): programs that do not finish.

TEST(VMToolsCommonCall, missingProgramIsReportedAsNotRunWithCodeZero)
{
    MessageCapture cap;
    int polls = 0;
    const QString program = hvtest::testRoot() + QStringLiteral("/no-such-tool");
    const CallResult result =
        VMToolsCommon::call(program, {QStringLiteral("--version")}, {}, [&polls] { return ++polls > 1000; });
    EXPECT_EQ(result.returnCode, 0);
    EXPECT_FALSE(result.finished);
    EXPECT_EQ(result.output, QString());
    EXPECT_EQ(result.error, QString());
    // A program that never started is not polled over and over.
    EXPECT_LE(polls, 2);
    EXPECT_EQ(cap.lines(), (QList<hvtest::LogLine>{
                               {QtDebugMsg, "[VMTools] Call: (\"--version\")"},
                               {QtCriticalMsg, "[VMTools] Can't run \"" + program + "\""},
                               {QtWarningMsg, "[VMTools] 0 \"\" \"\""},
                           }));
}

TEST(VMToolsCommonCall, timeOutReportsCodeZeroAndKillsTheProgram)
{
    hvtest::ScopedEnv shortTimeout("HV_CALL_TIMEOUT_MS", "300");
    QTemporaryDir dir;
    const QString pidFile = dir.filePath(QStringLiteral("pid"));
    MessageCapture cap;
    const CallResult result = VMToolsCommon::call(
        helper(), {QStringLiteral("pidfile"), pidFile, QStringLiteral("out"), QStringLiteral("early"),
                   QStringLiteral("sleep"), QStringLiteral("20000")});
    EXPECT_EQ(result.returnCode, 0);
    EXPECT_FALSE(result.finished);
    EXPECT_EQ(result.output, QStringLiteral("early"));
    EXPECT_TRUE(cap.has(QtCriticalMsg, "[VMTools] Can't run \"" + helper() + "\""));
    EXPECT_TRUE(cap.has(QtWarningMsg, "[VMTools] 0 \"\" \"early\""));
    const qint64 pid = readPidFile(pidFile);
    ASSERT_GT(pid, 0);
    // Neither running nor a zombie: kill(pid, 0) fails for both only once reaped.
    EXPECT_FALSE(VMToolsCommon::isRunning(pid));
}

TEST(VMToolsCommonCall, longTimeoutUsesTheLongLimit)
{
    hvtest::ScopedEnv shortTimeout("HV_CALL_TIMEOUT_MS", "100");
    hvtest::ScopedEnv longTimeout("HV_CALL_LONG_TIMEOUT_MS", "20000");
    const CallResult result = VMToolsCommon::call(helper(), {QStringLiteral("sleep"), QStringLiteral("600")},
                                                  VMToolsCommon::LongTimeout);
    EXPECT_TRUE(result.finished);
    EXPECT_EQ(result.returnCode, 0);
}

TEST(VMToolsCommonCall, noTimeoutWinsOverLongTimeout)
{
    hvtest::ScopedEnv shortTimeout("HV_CALL_TIMEOUT_MS", "100");
    hvtest::ScopedEnv longTimeout("HV_CALL_LONG_TIMEOUT_MS", "100");
    const CallResult result =
        VMToolsCommon::call(helper(), {QStringLiteral("sleep"), QStringLiteral("600"), QStringLiteral("exit"),
                                       QStringLiteral("4")},
                            VMToolsCommon::NoTimeout | VMToolsCommon::LongTimeout | VMToolsCommon::NoLog);
    EXPECT_TRUE(result.finished);
    EXPECT_EQ(result.returnCode, 4);
}

TEST(VMToolsCommonCall, timeOutAppliesWithACancelPredicateToo)
{
    hvtest::ScopedEnv shortTimeout("HV_CALL_TIMEOUT_MS", "200");
    int polls = 0;
    MessageCapture cap;
    const CallResult result = VMToolsCommon::call(helper(), {QStringLiteral("sleep"), QStringLiteral("20000")}, {},
                                                  [&polls] { return ++polls < 0; });
    EXPECT_FALSE(result.finished);
    EXPECT_EQ(result.returnCode, 0);
    EXPECT_GE(polls, 1);
    EXPECT_TRUE(cap.has(QtCriticalMsg, "[VMTools] Can't run \"" + helper() + "\""));
}

// ---------------------------------------------------------------------------
// call(): cancellation.

TEST(VMToolsCommonCall, cancelSendsSigintAndReportsCanceled)
{
    QTemporaryDir dir;
    const QString mark = dir.filePath(QStringLiteral("mark"));
    const QString pidFile = dir.filePath(QStringLiteral("pid"));
    MessageCapture cap;
    // Cancel once the program has set up its handler (it writes the pid after).
    const CallResult result = VMToolsCommon::call(
        helper(),
        {QStringLiteral("markint"), mark, QStringLiteral("pidfile"), pidFile, QStringLiteral("out"),
         QStringLiteral("lost"), QStringLiteral("sleep"), QStringLiteral("20000")},
        {}, [&pidFile] { return QFile::exists(pidFile) && QFile(pidFile).size() > 0; });
    EXPECT_EQ(result.returnCode, -1);
    EXPECT_EQ(result.output, QString());
    EXPECT_EQ(result.error, QStringLiteral("canceled"));
    EXPECT_FALSE(result.finished);
    QFile markFile(mark);
    ASSERT_TRUE(markFile.open(QIODevice::ReadOnly));
    EXPECT_EQ(markFile.readAll(), QByteArray("SIGINT"));
    EXPECT_TRUE(cap.has(QtWarningMsg, "[VMTools] -1 \"canceled\" \"\""));
}

TEST(VMToolsCommonCall, cancelAtFirstPollStillReturnsCanceled)
{
    MessageCapture cap;
    int polls = 0;
    const CallResult result = VMToolsCommon::call(helper(), {QStringLiteral("sleep"), QStringLiteral("20000")}, {},
                                                  [&polls] { return ++polls == 1; });
    EXPECT_EQ(polls, 1);
    EXPECT_EQ(result.returnCode, -1);
    EXPECT_EQ(result.error, QStringLiteral("canceled"));
    EXPECT_EQ(cap.texts(QtWarningMsg), QStringList{"[VMTools] -1 \"canceled\" \"\""});
}

TEST(VMToolsCommonCall, programIgnoringSigintIsKilledAndReaped)
{
    QTemporaryDir dir;
    const QString pidFile = dir.filePath(QStringLiteral("pid"));
    const CallResult result = VMToolsCommon::call(
        helper(),
        {QStringLiteral("ignoreint"), QStringLiteral("pidfile"), pidFile, QStringLiteral("sleep"),
         QStringLiteral("60000")},
        VMToolsCommon::NoLog, [&pidFile] { return QFile(pidFile).size() > 0; });
    EXPECT_EQ(result.returnCode, -1);
    const qint64 pid = readPidFile(pidFile);
    ASSERT_GT(pid, 0);
    EXPECT_FALSE(VMToolsCommon::isRunning(pid));
}

// ---------------------------------------------------------------------------
// call(): threads and the application's event loop.

TEST(VMToolsCommonCall, concurrentCallsRunOneAfterTheOther)
{
    QTemporaryDir dir;
    const QString journal = dir.filePath(QStringLiteral("journal"));
    auto steps = [&journal](const QString &who) {
        return QStringList{QStringLiteral("append"), journal, who + QStringLiteral("-start"),
                           QStringLiteral("sleep"), QStringLiteral("400"), QStringLiteral("append"),
                           journal, who + QStringLiteral("-end")};
    };
    std::atomic<bool> workerDone{false};
    // One call from a worker thread (blocking wait), one from the application
    // thread (event-loop wait), started together.
    std::thread worker([&] {
        VMToolsCommon::call(helper(), steps(QStringLiteral("worker")), VMToolsCommon::NoLog);
        workerDone = true;
    });
    QThread::msleep(50);
    VMToolsCommon::call(helper(), steps(QStringLiteral("main")), VMToolsCommon::NoLog);
    worker.join();
    ASSERT_TRUE(workerDone);

    QFile file(journal);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QStringList lines = QString::fromLatin1(file.readAll()).split('\n', Qt::SkipEmptyParts);
    ASSERT_EQ(lines.size(), 4);
    const QString first = lines[0].section('-', 0, 0);
    const QString second = lines[2].section('-', 0, 0);
    EXPECT_NE(first, second);
    EXPECT_EQ(lines, (QStringList{first + "-start", first + "-end", second + "-start", second + "-end"}));
}

TEST(VMToolsCommonCall, applicationEventsAreServedDuringACall)
{
    bool timerFired = false;
    QTimer::singleShot(50, [&timerFired] { timerFired = true; });
    const CallResult result =
        VMToolsCommon::call(helper(), {QStringLiteral("sleep"), QStringLiteral("500")}, VMToolsCommon::NoLog);
    EXPECT_TRUE(result.finished);
    EXPECT_TRUE(timerFired);
}

TEST(VMToolsCommonCall, workerThreadCallsDoNotNeedAnEventLoop)
{
    CallResult result;
    std::thread worker([&result] {
        result = VMToolsCommon::call(helper(), {QStringLiteral("out"), QStringLiteral("w"), QStringLiteral("exit"),
                                                QStringLiteral("5")},
                                     VMToolsCommon::NoLog);
    });
    worker.join();
    EXPECT_TRUE(result.finished);
    EXPECT_EQ(result.returnCode, 5);
    EXPECT_EQ(result.output, QStringLiteral("w"));
}

// ---------------------------------------------------------------------------
// Pid operations.

TEST(VMToolsCommonPid, destroyProcessKillsAndReapsAChild)
{
    const pid_t pid = spawnChild(helper(), {QStringLiteral("sleep"), QStringLiteral("60000")});
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(VMToolsCommon::isRunning(pid));
    MessageCapture cap;
    EXPECT_TRUE(VMToolsCommon::destroyProcess(pid));
    EXPECT_EQ(cap.lines(), (QList<hvtest::LogLine>{
                               {QtDebugMsg, QStringLiteral("[VMTools] destroyProcess( %1 ) -> true").arg(pid)}}));
    // Reaped: it is no longer a child to wait for.
    EXPECT_EQ(::waitpid(pid, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_FALSE(VMToolsCommon::isRunning(pid));
}

TEST(VMToolsCommonPid, destroyProcessOfANonChildReportsEchildAndSucceeds)
{
    const qint64 pid = spawnOrphan({QStringLiteral("sleep"), QStringLiteral("60000")});
    ASSERT_GT(pid, 0);
    ASSERT_TRUE(VMToolsCommon::isRunning(pid));
    MessageCapture cap;
    EXPECT_TRUE(VMToolsCommon::destroyProcess(pid));
    EXPECT_EQ(cap.lines(), (QList<hvtest::LogLine>{
                               {QtDebugMsg, QStringLiteral("[VMTools] No child to wait for Pid= %1").arg(pid)},
                               {QtDebugMsg, QStringLiteral("[VMTools] destroyProcess( %1 ) -> true").arg(pid)}}));
    EXPECT_TRUE(VMToolsCommon::waitForFinished(pid, 10000));
}

TEST(VMToolsCommonPid, destroyProcessOfAMissingPidFails)
{
    const qint64 pid = 0x7ffffff0;
    MessageCapture cap;
    EXPECT_FALSE(VMToolsCommon::destroyProcess(pid));
    EXPECT_EQ(cap.lines(), (QList<hvtest::LogLine>{
                               {QtCriticalMsg, QStringLiteral("[VMTools] Failed to kill process with id= %1").arg(pid)}}));
}

TEST(VMToolsCommonPid, processNameDropsTheDeletedMark)
{
    QTemporaryDir dir;
    const QString copy = dir.filePath(QStringLiteral("hv-doomed"));
    ASSERT_TRUE(QFile::copy(helper(), copy));
    const pid_t pid = spawnChild(copy, {QStringLiteral("sleep"), QStringLiteral("60000")});
    ASSERT_GT(pid, 0);
    EXPECT_EQ(VMToolsCommon::processNameByPid(pid), QStringLiteral("hv-doomed"));
    ASSERT_TRUE(QFile::remove(copy));
    EXPECT_TRUE(QFile::symLinkTarget(QStringLiteral("/proc/%1/exe").arg(pid)).contains("(deleted)")
                || QFile::symLinkTarget(QStringLiteral("/proc/%1/exe").arg(pid)).endsWith("hv-doomed"));
    EXPECT_EQ(VMToolsCommon::processNameByPid(pid), QStringLiteral("hv-doomed"));
    EXPECT_TRUE(VMToolsCommon::destroyProcess(pid));
}

TEST(VMToolsCommonPid, processNameOfAMissingPidIsEmpty)
{
    EXPECT_EQ(VMToolsCommon::processNameByPid(0x7ffffff0), QString());
    EXPECT_EQ(VMToolsCommon::processNameByPid(::getpid()), QStringLiteral("vmtools_tests"));
}

TEST(VMToolsCommonPid, waitForFinishedWithZeroTimeoutOnALivePidFails)
{
    MessageCapture cap;
    EXPECT_FALSE(VMToolsCommon::waitForFinished(::getpid(), 0));
    EXPECT_EQ(cap.lines(),
              (QList<hvtest::LogLine>{
                  {QtWarningMsg, QStringLiteral("[VMTools] Timeout waiting for process end Pid = %1").arg(::getpid())}}));
}

TEST(VMToolsCommonPid, waitForFinishedSeesAProcessEnd)
{
    MessageCapture cap;
    EXPECT_TRUE(VMToolsCommon::waitForFinished(0x7ffffff0, 0));
    const qint64 pid = spawnOrphan({QStringLiteral("sleep"), QStringLiteral("300")});
    ASSERT_GT(pid, 0);
    EXPECT_TRUE(VMToolsCommon::waitForFinished(pid, 20000));
    EXPECT_TRUE(cap.lines().isEmpty());
}

// ---------------------------------------------------------------------------
// VirtualBox tool lookup.

TEST(VMToolsCommonVBox, overrideIsReturnedUnchecked)
{
    hvtest::ScopedEnv vbox("HV_VBOXMANAGE", "/nonexistent/VBoxManage");
    MessageCapture cap;
    EXPECT_EQ(VMToolsCommon::findVBoxManage(), QStringLiteral("/nonexistent/VBoxManage"));
    EXPECT_TRUE(cap.has(QtDebugMsg, "[VMTools] \"Using '/nonexistent/VBoxManage' for VBoxManage\""));
    EXPECT_FALSE(VMToolsCommon::isVBoxInstalled());
}

TEST(VMToolsCommonVBox, foundOnThePathAndInstalled)
{
    QTemporaryDir dir;
    const QString tool = dir.filePath(QStringLiteral("VBoxManage"));
    ASSERT_TRUE(QFile::copy(helper(), tool));
    const QByteArray oldPath = qgetenv("PATH");
    qputenv("PATH", QFile::encodeName(dir.path()) + ":" + oldPath);
    EXPECT_EQ(VMToolsCommon::findVBoxManage(), tool);
    EXPECT_TRUE(VMToolsCommon::isVBoxInstalled());
    {
        hvtest::ScopedEnv trigger("HV_TRIGGER_ERROR", "noip,vboxnotinstalled");
        EXPECT_FALSE(VMToolsCommon::isVBoxInstalled());
    }
    qputenv("PATH", QFile::encodeName(dir.path() + QStringLiteral("/none")));
    EXPECT_EQ(VMToolsCommon::findVBoxManage(), QString());
    EXPECT_FALSE(VMToolsCommon::isVBoxInstalled());
    qputenv("PATH", oldPath);
}

} // namespace
