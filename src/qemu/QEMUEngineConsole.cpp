// What a device shows: its screen and its console.
#include "QEMUEngine.h"

#include "FileUtils.h"
#include "QEMUClient.h"
#include "QEMUConsoleLog_p.h"
#include "QEMULogging_p.h"
#include "QEMUMachine.h"

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryFile>

namespace {

// The first emulator whose screendump writes PNG.
constexpr VersionNumber kPngScreendump(7, 1);

QEMUMachine *runningMachine(VMToolsMachine *machine)
{
    auto *qemuMachine = dynamic_cast<QEMUMachine *>(machine);
    return qemuMachine && qemuMachine->isQEMURunning() ? qemuMachine : nullptr;
}

bool isPng(const QByteArray &bytes)
{
    return bytes.startsWith(QByteArray("\x89PNG\r\n\x1a\n", 8));
}

} // namespace

bool QEMUEngine::saveScreenshot(VMToolsMachine *machine, const QString &file, QString *error) const
{
    QEMUMachine *qemuMachine = runningMachine(machine);
    if (!qemuMachine) {
        *error = QStringLiteral("device '%1' is not running").arg(machine->getName());
        return false;
    }
    if (versionNumber() < kPngScreendump) {
        *error = QStringLiteral("a screenshot needs QEMU %1 or later; this emulator is %2")
                     .arg(kPngScreendump.toString(), versionNumber().toString());
        return false;
    }
    // The emulator writes into the device directory, which only the owner
    // reaches; the image takes its name only once it is whole.
    QTemporaryFile dump(QDir(qemuMachine->getPath()).absoluteFilePath(QStringLiteral(".screenshot-XXXXXX.png")));
    if (!dump.open()) {
        *error = QStringLiteral("cannot write in '%1': %2").arg(qemuMachine->getPath(), dump.errorString());
        return false;
    }
    dump.close();
    qemuMachine->refreshPortOffset();
    QEMUClient client(qemuMachine->getQmpSocketPath());
    QString emulatorError;
    if (!client.execScreendump(dump.fileName(), &emulatorError)) {
        *error = QStringLiteral("the emulator could not write the screen: %1").arg(emulatorError);
        return false;
    }
    QFile written(dump.fileName());
    const QByteArray image = written.open(QIODevice::ReadOnly) ? written.readAll() : QByteArray();
    if (!isPng(image)) {
        *error = QStringLiteral("the emulator did not write a PNG image");
        return false;
    }
    if (!FileUtils::saveFile(file, image)) {
        *error = QStringLiteral("cannot write '%1'").arg(QFileInfo(file).absoluteFilePath());
        return false;
    }
    return true;
}

ConsoleRead QEMUEngine::readConsole(VMToolsMachine *machine, qint64 from) const
{
    const QEMUConsoleLog console(machine->getPath());
    QEMUMachine *qemuMachine = runningMachine(machine);
    if (qemuMachine) {
        qemuMachine->refreshPortOffset();
        if (!console.drain(qemuMachine->getQmpSocketPath()))
            return ConsoleRead();
    }
    return console.read(from);
}

QString QEMUEngine::logPath(const VMToolsMachine *machine, bool emulator) const
{
    const QEMUDeviceFiles files(machine->getPath());
    return emulator ? files.logFile() : files.consoleLog();
}
