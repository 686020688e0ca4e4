#pragma once

#include <QString>

/// What a device shows of its run: its state and, while its emulator runs,
/// the process and where to reach it.
struct MachineRunInfo {
    /// A VMToolsMachine::State.
    int state = 0;
    /// Why the guest is held (a disk error, a full disk); empty otherwise.
    QString reason;
    /// The emulator's process; 0 when it does not run.
    long long pid = 0;
    /// The offset of its forwarded ports; -1 when it does not run.
    int portOffset = -1;
    /// Its control channel; empty when it does not run.
    QString controlSocket;
    /// Where a debugger reaches the guest; empty when it does not run.
    QString adbSerial;
};
