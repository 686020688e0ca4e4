#pragma once

#include "halvistromcore_export.h"

#include <QLoggingCategory>

// The library's logging categories, one per subsystem, all named
// "halvistrom.<subsystem>". Debug lines are off unless a rule turns them on
// (QT_LOGGING_RULES="halvistrom.*.debug=true", or
// QLoggingCategory::setFilterRules), so a program that embeds the library
// sees nothing on stderr while everything goes well.
Q_DECLARE_LOGGING_CATEGORY(hvFoundationLog)
Q_DECLARE_LOGGING_CATEGORY(hvArchiveLog)
Q_DECLARE_LOGGING_CATEGORY(hvSettingsLog)
Q_DECLARE_LOGGING_CATEGORY(hvDevicesLog)
/// The engine and machine interfaces and the loading of the engine.
/// Exported for the inline processor checks that tests run on their own.
HALVISTROM_CORE_EXPORT const QLoggingCategory &hvEngineLog();
/// The host programs the engine runs and the processes it watches.
Q_DECLARE_LOGGING_CATEGORY(hvProcessLog)
