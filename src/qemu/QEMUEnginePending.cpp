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

bool QEMUEngine::setMachineIdentifiers(VMToolsMachine *, const QString &, const QString &)
{
    notAvailable("setMachineIdentifiers");
    return false;
}
