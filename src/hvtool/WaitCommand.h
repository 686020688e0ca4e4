#pragma once

#include "Command.h"

#include "GuestWait.h"

namespace hvtool {

/// How long a wait for a guest lasts unless the user says otherwise.
constexpr int kDefaultWaitSeconds = 300;

/// Waits at most seconds until the guest of the running device answers,
/// showing on stderr the phase it has reached and the time so far, and the
/// notes of the engine on the way. Success, or the failure it reported
/// (exit 1): the emulator ended, it could not be started again, or the time
/// ran out (saying how to wait again). *wait is what came of it.
int awaitGuest(Context &ctx, VMToolsMachine &machine, int seconds, GuestWait *wait);

} // namespace hvtool
