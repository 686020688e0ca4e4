// The identity a device reports to its guest.
#include "QEMUEngine.h"

#include "QEMULogging_p.h"
#include "VMToolsMachine.h"

#include <QDebug>

namespace {
const char kAndroidIdKey[] = "android_id";
}

// The first identifier is the serial number the guest reports
// ("ro.serialno", kept in the hardware profile); the second is the Android
// id, kept in the device's configuration. Both take effect at the next start.
bool QEMUEngine::setMachineIdentifiers(VMToolsMachine *machine, const QString &serial, const QString &androidId)
{
    if (!machine) {
        qCWarning(hvQemuLog) << "[VMTools]" << "Cannot set identifiers of a null machine";
        return false;
    }
    if (!machine->setBuildSerial(serial)) {
        qCCritical(hvQemuLog) << "[VMTools]" << "Failed to set the serial number of" << machine->getPath();
        return false;
    }
    machine->setData(QString::fromLatin1(kAndroidIdKey), androidId);
    return machine->getData(QString::fromLatin1(kAndroidIdKey)).toString() == androidId;
}
