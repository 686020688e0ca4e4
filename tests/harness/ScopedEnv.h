#pragma once

#include <QByteArray>
#include <QtGlobal>

namespace hvtest {

/// Sets an environment variable for the life of the object, then puts back
/// what was there before (unset when it was unset).
class ScopedEnv
{
public:
    ScopedEnv(const char *name, const QByteArray &value)
        : m_name(name), m_wasSet(qEnvironmentVariableIsSet(name)), m_old(qgetenv(name))
    {
        qputenv(name, value);
    }
    ~ScopedEnv()
    {
        if (m_wasSet)
            qputenv(m_name, m_old);
        else
            qunsetenv(m_name);
    }
    ScopedEnv(const ScopedEnv &) = delete;
    ScopedEnv &operator=(const ScopedEnv &) = delete;

private:
    const char *m_name;
    bool m_wasSet;
    QByteArray m_old;
};

} // namespace hvtest
