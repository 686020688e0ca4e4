#pragma once

#include "LockFiles.h"
#include "VMToolsEngine.h"
#include "VMToolsMachine.h"

#include <QString>

namespace hvtool {

class Context;
struct Command;

/// The engine the settings name, loaded from its plug-in once per run and
/// kept to the end of it. Null after reporting the failure through ctx
/// (exit code in *code).
VMToolsEngine *engine(Context &ctx, int *code);

/// The device of that name, owned by the caller; null when it does not exist.
VMToolsMachine *findDevice(VMToolsEngine *engine, const QString &name);

/// What hvtool says of a broken device. Its disks may hold a user's work (a
/// record the guest rewrote is refused, not lost), so the way out it offers
/// says what a delete takes with it.
QString brokenText(const QString &name, const QString &reason);

/// Takes the command lock of the device name for this command: Success, or
/// the exit code that reports why not (the holder of a busy device named).
int lockDevice(Context &ctx, VMToolsEngine *engine, const QString &name, LockFiles::CommandLock *lock);

/// Gives ctx the engine and the device its command names, found, locked
/// when the command changes it and read afresh under the lock, in the state
/// the command needs: Success, or the exit code that reports why not.
int openTarget(const Command &command, Context &ctx);

} // namespace hvtool
