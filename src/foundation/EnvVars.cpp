#include "EnvVars.h"

#include <QtGlobal>

namespace EnvVars {

QByteArray getByteArray(const char *name, const QByteArray &def)
{
    if (!qEnvironmentVariableIsSet(name))
        return def;
    return qgetenv(name);
}

QString getString(const char *name, const QString &def)
{
    const QByteArray value = getByteArray(name, def.isNull() ? QByteArray() : def.toLocal8Bit());
    if (value.isNull())
        return QString();
    return QString::fromLocal8Bit(value);
}

int getInt(const char *name, int def)
{
    const QByteArray value = getByteArray(name);
    if (value.isEmpty())
        return def;
    bool ok = false;
    const int result = value.toInt(&ok, 10);
    if (!ok)
        qFatal("Invalid int: %s", value.constData());
    return result;
}

double getDouble(const char *name, double def)
{
    const QByteArray value = getByteArray(name);
    if (value.isEmpty())
        return def;
    bool ok = false;
    const double result = value.toDouble(&ok);
    if (!ok)
        qFatal("Invalid double: %s", value.constData());
    return result;
}

QStringList getStringList(const char *name, const QStringList &def, const QChar &sep)
{
    const QString value = getString(name);
    if (value.isEmpty())
        return def;
    return value.split(sep.isNull() ? QLatin1Char(':') : sep, Qt::KeepEmptyParts, Qt::CaseSensitive);
}

bool isStringListed(const char *name, const QString &value)
{
    return getStringList(name).contains(value, Qt::CaseSensitive);
}

} // namespace EnvVars
