#pragma once

#include "halvistromcore_export.h"

#include <QByteArray>
#include <QChar>
#include <QString>
#include <QStringList>

/// Typed reading of the "HV_" environment overrides. Every override in the
/// system is read here. A malformed number is a configuration error that
/// ends the process rather than being silently ignored.
namespace EnvVars {

/// The raw value, which may be empty; def when the variable is not set.
HALVISTROM_CORE_EXPORT QByteArray getByteArray(const char *name, const QByteArray &def = QByteArray());
/// The value decoded as local 8-bit; def when the variable is not set.
HALVISTROM_CORE_EXPORT QString getString(const char *name, const QString &def = QString());
/// The decimal value; def when unset or empty. Fatal when not an integer.
HALVISTROM_CORE_EXPORT int getInt(const char *name, int def);
/// The value as a double; def when unset or empty. Fatal when not a number.
HALVISTROM_CORE_EXPORT double getDouble(const char *name, double def);
/// The value split on sep (":" when sep is null), empty pieces kept; def
/// when unset or empty.
HALVISTROM_CORE_EXPORT QStringList getStringList(const char *name, const QStringList &def = QStringList(),
                                                 const QChar &sep = QChar());
/// Whether value is one of the colon-separated pieces of the variable.
HALVISTROM_CORE_EXPORT bool isStringListed(const char *name, const QString &value);

} // namespace EnvVars
