#pragma once

#include "ConsoleRead.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

/// The guest's serial console. The emulator keeps the latest output in a
/// ring buffer of its own (the chardev "console", so a guest printing
/// without end costs a bounded amount of memory); a read takes what the
/// buffer holds into "console.log" in the device directory, trimmed at
/// the front to a cap, so the file is bounded too. A start moves the
/// previous run's file to "console.log.1".
///
/// Positions count the bytes of the run's output: once the front was
/// trimmed, the file begins with a line that says how many bytes were
/// dropped, so that a reader that follows the output knows where it is.
class QEMUConsoleLog
{
public:
    explicit QEMUConsoleLog(const QString &deviceDir);

    /// The id of the emulator's character device that holds the console.
    static QString chardevId();
    /// The most "console.log" holds, in bytes: "HV_CONSOLE_LOG_BYTES", 1 MiB
    /// by default, 4 KiB at least.
    static qint64 capBytes();
    /// The size of the emulator's ring buffer: the largest power of two
    /// that is at most half the cap.
    static int ringBytes();

    /// At a start: the previous run's console becomes "console.log.1".
    void rotate() const;
    /// Takes what the running emulator's buffer holds into the file; false
    /// when the emulator cannot be asked. Drains of two programs do not
    /// interleave.
    bool drain(const QString &qmpSocketPath) const;
    /// What the file holds from position from on. A position past its end
    /// (a read that followed the previous run) starts at the beginning.
    ConsoleRead read(qint64 from) const;
    /// The last lines of the file, at most count, without control
    /// characters.
    QStringList tail(int count) const;

private:
    /// Adds data at the end of the file, dropping the front past the cap.
    bool append(const QByteArray &data) const;

    QString m_dir;
    QString m_path;
};
