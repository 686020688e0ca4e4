#include "Engine.h"

#include "Command.h"

#include "QEMUEngine.h"
#include "QEMUMachine.h"
#include "VMToolsEngine.h"
#include "VMToolsMachine.h"

#include <memory>

namespace hvtool {

VMToolsEngine *engine(Context &ctx, int *code)
{
    static std::unique_ptr<VMToolsEngine> instance;
    *code = Success;
    if (instance)
        return instance.get();
    VMToolsEngine::LoadResult loaded = VMToolsEngine::loadEngine(VMToolsEngine::Full);
    if (!loaded.engine) {
        *code = ctx.fail(Failed, loaded.message.isEmpty()
                                     ? QStringLiteral("the engine plug-in could not be loaded")
                                     : QStringLiteral("the engine cannot be used: %1").arg(loaded.message));
        return nullptr;
    }
    instance.reset(loaded.engine);
    return instance.get();
}

VMToolsMachine *findDevice(VMToolsEngine *engine, const QString &name)
{
    return engine->getMachine(name);
}

QEMUEngine *qemu(VMToolsEngine *engine)
{
    return static_cast<QEMUEngine *>(engine);
}

QEMUMachine *qemu(VMToolsMachine *machine)
{
    return static_cast<QEMUMachine *>(machine);
}

} // namespace hvtool
