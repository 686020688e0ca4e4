#include "QEMULogging_p.h"

Q_LOGGING_CATEGORY(hvQemuLog, "halvistrom.qemu", QtInfoMsg)
Q_LOGGING_CATEGORY(hvQmpLog, "halvistrom.qmp", QtInfoMsg)
