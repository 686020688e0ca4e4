#include "Engine.h"

#include "Command.h"

#include "VMToolsEngine.h"
#include "VMToolsMachine.h"

#include <QDateTime>

#include <memory>

namespace hvtool {
namespace {

using MachinePtr = std::unique_ptr<VMToolsMachine>;

/// The device name, or the exit code that reports a missing or broken one.
MachinePtr lookUp(Context &ctx, VMToolsEngine *e, const QString &name, int *code)
{
    MachinePtr machine(e->getMachine(name));
    if (machine) {
        machine->reloadVmInfo();
        return machine;
    }
    const QString broken = e->brokenMachineReason(name);
    *code = broken.isEmpty() ? ctx.fail(NotFound, QStringLiteral("device '%1' does not exist").arg(name))
                             : ctx.fail(Conflict, QStringLiteral("device ") + brokenText(name, broken));
    return nullptr;
}

/// The refusal of a device that is not in the state the command needs;
/// Success when it is.
int checkState(const Command &command, Context &ctx, const VMToolsMachine &machine)
{
    const bool running = machine.getStatus() == VMToolsMachine::On;
    QString refusal = command.refusal;
    int state = machine.getStatus();
    if (command.state == DeviceState::Paused) {
        QString reason;
        state = machine.getRunState(&reason);
        if (state == VMToolsMachine::Paused)
            return Success;
        if (refusal.isEmpty())
            refusal = QStringLiteral("device '%1' is not paused (it is %3)");
    } else if (command.state == DeviceState::Running && !running) {
        if (refusal.isEmpty())
            refusal = QStringLiteral("device '%1' is not running");
    } else if (command.state == DeviceState::Stopped && running) {
        if (refusal.isEmpty())
            refusal = QStringLiteral("device '%1' is running; stop it first");
    } else {
        return Success;
    }
    refusal.replace(QLatin1String("%3"), VMToolsMachine::getStatusString(state));
    return ctx.fail(Conflict, refusal.contains(QLatin1String("%2")) ? refusal.arg(machine.getName(), ctx.arg(1))
                                                                    : refusal.arg(machine.getName()));
}

} // namespace

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

QString brokenText(const QString &name, const QString &reason)
{
    return QStringLiteral("'%1' is broken: %2; its disks are kept until you mend its record or delete the device "
                          "and its disks with 'hvtool device delete \"%1\" --yes'")
        .arg(name, reason);
}

int lockDevice(Context &ctx, VMToolsEngine *e, const QString &name, LockFiles::CommandLock *lock)
{
    switch (e->lockMachine(name, ctx.command(), lock)) {
    case LockFiles::CommandLock::Taken:
        return Success;
    case LockFiles::CommandLock::Gone:
        return ctx.fail(NotFound, QStringLiteral("device '%1' does not exist").arg(name));
    case LockFiles::CommandLock::Busy: {
        const LockFiles::LockHolder holder = lock->holder();
        const QString who = holder.pid <= 0 ? QStringLiteral("another command is changing it")
                                            : QStringLiteral("'%1' (pid %2) has been changing it since %3")
                                                  .arg(holder.command)
                                                  .arg(holder.pid)
                                                  .arg(holder.since.toLocalTime().toString(QStringLiteral("HH:mm:ss")));
        return ctx.fail(Conflict, QStringLiteral("device '%1' is busy: %2; try again once it is done").arg(name, who));
    }
    case LockFiles::CommandLock::Failed:
        break;
    }
    return ctx.fail(Failed, QStringLiteral("could not lock device '%1': %2").arg(name, lock->errorString()));
}

int openTarget(const Command &command, Context &ctx)
{
    if (command.device == DeviceUse::None)
        return Success;
    int code = Success;
    VMToolsEngine *e = engine(ctx, &code);
    if (!e)
        return code;
    const QString name = ctx.arg(0);
    MachinePtr machine = lookUp(ctx, e, name, &code);
    if (!machine)
        return code;
    std::unique_ptr<LockFiles::CommandLock> lock;
    if (command.device == DeviceUse::Change) {
        // The command that held the lock may have changed the device, or
        // deleted it, meanwhile: it is read again under the lock.
        lock = std::make_unique<LockFiles::CommandLock>();
        if ((code = lockDevice(ctx, e, name, lock.get())) != Success)
            return code;
        if (!(machine = lookUp(ctx, e, name, &code)))
            return code;
    }
    if ((code = checkState(command, ctx, *machine)) != Success)
        return code;
    ctx.setTarget(e, std::move(machine), std::move(lock));
    return Success;
}

} // namespace hvtool
