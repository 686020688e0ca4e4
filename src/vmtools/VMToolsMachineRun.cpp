// The base answers of the run-time operations: those of a machine without an
// emulator of its own.
#include "VMToolsMachine.h"

MachineRunInfo VMToolsMachine::getRunInfo() const
{
    MachineRunInfo info;
    info.state = getRunState(&info.reason);
    if (info.state != Off)
        info.adbSerial = getAdbSerial();
    return info;
}

bool VMToolsMachine::forceStop()
{
    return false;
}

bool VMToolsMachine::waitForStop(int)
{
    return getStatus() != On;
}

bool VMToolsMachine::resumeFromDiskError(QString *reason) const
{
    if (reason)
        *reason = QStringLiteral("the engine cannot resume a paused device");
    return false;
}

bool VMToolsMachine::clearDeadEmulator() const
{
    return true;
}
