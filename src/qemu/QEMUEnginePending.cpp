// Engine operations whose implementation arrives with the machine runtime,
// the disk operations and the device lifecycle. Until then each one fails
// loudly, so that the engine can be loaded and its start-up used. Each
// definition here is removed when its real one lands.
#include "QEMUEngine.h"

#include <QDebug>

namespace {

void notAvailable(const char *operation)
{
    qCritical() << "[VMTools]" << operation << "not available yet";
}

} // namespace

QList<VMToolsMachine *> QEMUEngine::getMachines(std::function<bool()>)
{
    notAvailable("getMachines");
    return QList<VMToolsMachine *>();
}

VMToolsMachine *QEMUEngine::getMachine(const QString &)
{
    notAvailable("getMachine");
    return nullptr;
}

bool QEMUEngine::doesMachineExistInHypervisor(const QString &) const
{
    notAvailable("doesMachineExistInHypervisor");
    return false;
}

int QEMUEngine::createMachine(const QString &, const OsImage &, const HwProfile &)
{
    notAvailable("createMachine");
    return 1;
}

int QEMUEngine::createMachine(const QString &, const QString &, int, long long, long long, const VersionNumber &,
                              const VersionNumber &)
{
    notAvailable("createMachine");
    return 1;
}

int QEMUEngine::startMachine(VMToolsMachine *, const QString &)
{
    notAvailable("startMachine");
    return 1;
}

bool QEMUEngine::stopMachine(VMToolsMachine *)
{
    notAvailable("stopMachine");
    return false;
}

bool QEMUEngine::deleteMachine(const VMToolsMachine *) const
{
    notAvailable("deleteMachine");
    return false;
}

bool QEMUEngine::setMachineIdentifiers(VMToolsMachine *, const QString &, const QString &)
{
    notAvailable("setMachineIdentifiers");
    return false;
}

int QEMUEngine::cloneMachine(VMToolsMachine *, const QString &)
{
    notAvailable("cloneMachine");
    return 1;
}
