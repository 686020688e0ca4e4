#pragma once

#include "VMToolsEngine.h"
#include "VMToolsMachine.h"

#include <QString>

class QEMUEngine;
class QEMUMachine;

namespace hvtool {

class Context;

/// The engine the settings name, loaded from its plug-in once per run and
/// kept to the end of it. Null after reporting the failure through ctx
/// (exit code in *code).
VMToolsEngine *engine(Context &ctx, int *code);

/// The device of that name, owned by the caller; null when it does not exist.
VMToolsMachine *findDevice(VMToolsEngine *engine, const QString &name);

/// The QEMU classes behind the interface, for the commands that still call
/// them directly. It goes once every command works through the interface.
QEMUEngine *qemu(VMToolsEngine *engine);
QEMUMachine *qemu(VMToolsMachine *machine);

} // namespace hvtool
