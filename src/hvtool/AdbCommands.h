#pragma once

#include "Command.h"

namespace hvtool {

/// After a start: the guest's clock set to the host's when it resumed a
/// saved state, and the user's adb connected to the device unless the
/// setting "adb.connect" is false (the line to connect it said otherwise);
/// what came of both added to output. Nothing here fails the start.
void afterStart(Context &ctx, VMToolsMachine &machine, bool resumed, bool guestReady, Output *output);
/// Before a stop: disconnects the user's adb from the device, when an adb
/// server runs.
void beforeStop(VMToolsMachine &machine);
/// The doctor's line on adb: whether it is found, and its version.
QString adbDoctorLine(bool *ok);

} // namespace hvtool
