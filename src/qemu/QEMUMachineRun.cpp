// What a device shows of its emulator and how a program waits for it to end,
// through the machine interface.
#include "QEMUMachine.h"

#include "VMToolsCommon.h"

#include <QFile>

MachineRunInfo QEMUMachine::getRunInfo() const
{
    MachineRunInfo info;
    info.state = getRunState(&info.reason);
    if (info.state == Off)
        return info;
    info.pid = loadQEMUPid();
    info.portOffset = getPortOffset();
    info.controlSocket = getQmpSocketPath();
    info.adbSerial = getAdbSerial();
    return info;
}

bool QEMUMachine::waitForStop(int timeoutMs)
{
    if (!VMToolsCommon::waitForFinished(loadQEMUPid(), timeoutMs, loadQEMUStartTime()))
        return false;
    if (QFile::exists(getLockFilePath()))
        removeLockFile();
    return true;
}

bool QEMUMachine::clearDeadEmulator() const
{
    if (!QFile::exists(getLockFilePath()))
        return true;
    if (isQEMURunning())
        return false;
    return removeLockFile();
}
