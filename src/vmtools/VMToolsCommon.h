#pragma once

#include "halvistromcore_export.h"

#include <QFlags>
#include <QString>
#include <QStringList>
#include <QtGlobal>

#include <functional>

/// Running host programs and looking after host processes. Every program the
/// engine runs (qemu-img, the emulator asking for its version) goes through
/// call(), so all of them share one time-out policy, one cancellation scheme
/// and the same log lines.
namespace VMToolsCommon {

enum Option {
    /// Wait as long as the program takes; wins over LongTimeout.
    NoTimeout = 1,
    /// Five minutes instead of the default thirty seconds.
    LongTimeout = 2,
    /// No "Call:", "Return code:", "Output command:" or "Can't run" lines;
    /// the summary warnings are still written.
    NoLog = 4,
};
Q_DECLARE_FLAGS(Options, Option)

/// What call() learned about one run.
struct CallResult {
    /// The exit code; -1 when the call was cancelled. A program that did not
    /// finish (time-out, or it never started) reports 0 here: look at finished.
    int returnCode = 0;
    /// Standard output as Latin-1, cut at the first NUL byte.
    QString output;
    /// Standard error as Latin-1, cut at the first NUL byte; "canceled" when
    /// the call was cancelled.
    QString error;
    /// True only when the program ran to its end (normally or by a crash).
    /// False after a time-out, a cancellation or a failed start.
    bool finished = false;
};

/// Runs program with arguments and waits for it; what it creates is the
/// owner's only (its file-creation mask is 077). All calls of the process are
/// serialised. The wait lasts 30 s (LongTimeout: 300 s, NoTimeout: no limit);
/// "HV_CALL_TIMEOUT_MS" and "HV_CALL_LONG_TIMEOUT_MS" replace those two limits.
/// On the application thread the wait runs a local event loop (user input held
/// back), elsewhere it blocks. When cancel is set it is polled about once a
/// second; when it returns true the program receives SIGINT and the result is
/// -1 / "canceled". A program still running when call() returns has been
/// killed and reaped.
HALVISTROM_CORE_EXPORT CallResult call(const QString &program, const QStringList &arguments,
                                       Options options = Options(),
                                       const std::function<bool()> &cancel = std::function<bool()>());

/// Starts program detached: in a session of its own and no child of this
/// process, so that it outlives it. Its input and output go to /dev/null and
/// its error output to errorFile, created or emptied and the owner's only.
/// Whatever it creates is the owner's only (its file-creation mask is 077,
/// set in it alone; this process's mask stays as it is). *pid receives its
/// id. False, with one critical line naming the program and the cause, when
/// it could not be started.
HALVISTROM_CORE_EXPORT bool startDetached(const QString &program, const QStringList &arguments,
                                          const QString &errorFile, qint64 *pid);

/// Whether a process with this id exists, may be signalled and has not
/// ended. A zombie (a process that has ended and waits for its parent to
/// collect it) is not running: its parent may collect it late, or never.
HALVISTROM_CORE_EXPORT bool isRunning(qint64 pid);

/// When the process started, in clock ticks since the host booted; 0 when
/// there is no such process or its start cannot be read. Together with the
/// pid it names one process: a pid the system hands out again gets a
/// different start time.
HALVISTROM_CORE_EXPORT qint64 processStartTime(qint64 pid);

/// Whether pid is running (as isRunning()) and is the process that started
/// at startTime. A startTime of 0 (not recorded) accepts any running process.
HALVISTROM_CORE_EXPORT bool isSameProcess(qint64 pid, qint64 startTime);

/// Kills the process and reaps it when it is a child of this process. False
/// when the kill fails or the reaped child was only stopped or continued; a
/// process that is not our child counts as destroyed.
HALVISTROM_CORE_EXPORT bool destroyProcess(qint64 pid);

/// The file name of the executable the process runs, without the "(deleted)"
/// mark of a removed binary; empty when there is no such process.
HALVISTROM_CORE_EXPORT QString processNameByPid(qint64 pid);

/// Polls every 5 ms until the process that started at startTime is gone
/// (by the rule of isSameProcess()): true when it ended within timeoutMs (or
/// was not running), false with a warning otherwise.
HALVISTROM_CORE_EXPORT bool waitForFinished(qint64 pid, int timeoutMs, qint64 startTime = 0);

/// "HV_VBOXMANAGE" as it stands, else VBoxManage from "PATH", else empty.
HALVISTROM_CORE_EXPORT QString findVBoxManage();

/// Whether the file findVBoxManage() names exists.
HALVISTROM_CORE_EXPORT bool isVBoxInstalled();

} // namespace VMToolsCommon

Q_DECLARE_OPERATORS_FOR_FLAGS(VMToolsCommon::Options)
