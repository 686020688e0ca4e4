#pragma once

#include <QProcess>
#include <QString>
#include <QStringList>

namespace hvtest {

/// The version the system's emulator prints, read without the engine's own
/// pattern: the word after "version" on the first line of "--version".
inline QString systemQemuVersion()
{
    QProcess process;
    process.start(QStringLiteral("qemu-system-x86_64"), {QStringLiteral("--version")});
    if (!process.waitForFinished(30000))
        return QString();
    const QStringList words = QString::fromLatin1(process.readAllStandardOutput()).section('\n', 0, 0).split(' ');
    const int index = words.indexOf(QStringLiteral("version"));
    return index >= 0 ? words.value(index + 1) : QString();
}

} // namespace hvtest
