#include "Logging_p.h"

// Info and above by default: debug lines are progress, for whoever asks.
Q_LOGGING_CATEGORY(hvFoundationLog, "halvistrom.foundation", QtInfoMsg)
Q_LOGGING_CATEGORY(hvArchiveLog, "halvistrom.archive", QtInfoMsg)
Q_LOGGING_CATEGORY(hvSettingsLog, "halvistrom.settings", QtInfoMsg)
Q_LOGGING_CATEGORY(hvDevicesLog, "halvistrom.devices", QtInfoMsg)
Q_LOGGING_CATEGORY(hvEngineLog, "halvistrom.engine", QtInfoMsg)
Q_LOGGING_CATEGORY(hvProcessLog, "halvistrom.process", QtInfoMsg)
