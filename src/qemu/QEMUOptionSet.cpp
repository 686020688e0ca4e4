#include "QEMUOptionSet.h"

#include "EnvVars.h"
#include "QEMULogging_p.h"

#include <QDebug>
#include <QRegularExpression>

const char *QEMUOptionSet::startArgsVariable()
{
    return "HV_QEMU_START_ARGS";
}

QChar QEMUOptionSet::startArgsSeparator()
{
    return QLatin1Char(';');
}

QString QEMUOptionSet::escapeValue(const QString &text)
{
    QString escaped = text;
    return escaped.replace(QLatin1Char(','), QLatin1String(",,"));
}

void QEMUOptionSet::add(const QString &name, const QString &value)
{
    m_options[name].append(value);
}

void QEMUOptionSet::addFlag(const QString &name, bool on)
{
    m_options[name].append(on);
}

void QEMUOptionSet::remove(const QString &name)
{
    m_options.remove(name);
}

bool QEMUOptionSet::contains(const QString &name) const
{
    return m_options.contains(name);
}

QVariantList QEMUOptionSet::values(const QString &name) const
{
    return m_options.value(name);
}

QVariant QEMUOptionSet::overrideValue(const QString &text)
{
    if (text == QLatin1String("true"))
        return true;
    return text;
}

void QEMUOptionSet::applyOverrides(const QStringList &items)
{
    static const QRegularExpression pattern(
        QStringLiteral("^(?<key>--?\\w+)(\\[(?<index>[-]?\\d+)\\])?=(?<value>.*)$"));
    for (const QString &item : items) {
        const QRegularExpressionMatch match = pattern.match(item);
        if (!match.hasMatch()) {
            qCWarning(hvQemuLog) << "[VMTools]" << "Ignoring start argument" << item << "not of the form -name[index]=value";
            continue;
        }
        const QString key = match.captured(QStringLiteral("key"));
        const QString valueText = match.captured(QStringLiteral("value"));
        const bool hasIndex = match.capturedLength(QStringLiteral("index")) > 0;
        const int index = match.captured(QStringLiteral("index")).toInt();

        if (valueText.isEmpty()) {
            m_options.remove(key);
            continue;
        }
        const QVariant value = overrideValue(valueText);
        if (!m_options.contains(key)) {
            m_options[key].append(value);
            continue;
        }
        QVariantList &values = m_options[key];
        if (!hasIndex) {
            values = QVariantList{value};
        } else if (index == -1) {
            values.append(value);
        } else if (index == -2) {
            values.last() = value;
        } else if (index >= 0 && index < values.size()) {
            values[index] = value;
        } else {
            qCWarning(hvQemuLog) << "[VMTools]" << "Ignoring start argument" << item << "index out of range";
        }
    }
}

void QEMUOptionSet::applyStartArgsVariable()
{
    applyOverrides(EnvVars::getStringList(startArgsVariable(), QStringList(), startArgsSeparator()));
}

QStringList QEMUOptionSet::render() const
{
    QStringList arguments;
    for (auto it = m_options.cbegin(); it != m_options.cend(); ++it) {
        for (const QVariant &value : it.value()) {
            if (value.type() == QVariant::Bool) {
                if (value.toBool())
                    arguments << it.key();
            } else {
                arguments << it.key() << value.toString();
            }
        }
    }
    return arguments;
}
