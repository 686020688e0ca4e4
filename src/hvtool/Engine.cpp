#include "Engine.h"

#include "Command.h"

#include "QEMUEngine.h"
#include "QEMUMachine.h"

#include <memory>

namespace hvtool {

QEMUEngine *engine(Context &ctx, int *code)
{
    static std::unique_ptr<QEMUEngine> instance;
    static bool initialised = false;
    if (initialised) {
        *code = Success;
        return instance.get();
    }
    instance = std::make_unique<QEMUEngine>();
    const auto result = instance->initialize(VMToolsEngine::Full);
    if (result.first != 0) {
        instance.reset();
        *code = ctx.fail(Failed, QStringLiteral("QEMU cannot be used: %1").arg(result.second));
        return nullptr;
    }
    initialised = true;
    *code = Success;
    return instance.get();
}

QEMUMachine *findDevice(QEMUEngine *engine, const QString &name)
{
    return static_cast<QEMUMachine *>(engine->getMachine(name));
}

} // namespace hvtool
