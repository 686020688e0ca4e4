#pragma once

#include <QString>

class QEMUEngine;
class QEMUMachine;

namespace hvtool {

class Context;

/// The QEMU engine, initialised once per run. Null after reporting the
/// failure through ctx (exit code in *code).
QEMUEngine *engine(Context &ctx, int *code);

/// The device of that name, owned by the caller; null when it does not exist.
QEMUMachine *findDevice(QEMUEngine *engine, const QString &name);

} // namespace hvtool
