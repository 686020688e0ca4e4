#include "JsonReader.h"

JsonReader::JsonReader(const QJsonObject &object)
    : m_object(object)
    , m_errors(std::make_shared<QStringList>())
{
}

JsonReader::JsonReader(const QJsonObject &object, const QString &prefix, const std::shared_ptr<QStringList> &errors)
    : m_object(object)
    , m_prefix(prefix)
    , m_errors(errors ? errors : std::make_shared<QStringList>())
{
}

bool JsonReader::contains(const QString &key) const
{
    return !m_object.value(key).isUndefined();
}

bool JsonReader::hasErrors() const
{
    return !m_errors->isEmpty();
}

QStringList JsonReader::errors() const
{
    return *m_errors;
}

QJsonValue JsonReader::getValue(const QString &key, QJsonValue::Type type) const
{
    const QJsonValue value = m_object.value(key);
    if (value.isUndefined()) {
        m_errors->append(m_prefix + key + QStringLiteral(" is missing."));
        return QJsonValue(QJsonValue::Undefined);
    }
    // A null where a string is wanted is an accepted way to write "".
    if (type == QJsonValue::String && value.isNull())
        return QJsonValue(QString());
    if (value.type() == type)
        return value;
    m_errors->append(QStringLiteral("%1%2 is not the right type. Expected %3, got %4")
                         .arg(m_prefix, key)
                         .arg(int(type))
                         .arg(int(value.type())));
    return QJsonValue(QJsonValue::Undefined);
}

QString JsonReader::readString(const QString &key) const
{
    const QJsonValue value = getValue(key, QJsonValue::String);
    return value.isUndefined() ? QString() : value.toString();
}

int JsonReader::readInt(const QString &key) const
{
    const QJsonValue value = getValue(key, QJsonValue::Double);
    return value.isUndefined() ? 0 : value.toInt(0);
}

bool JsonReader::readBool(const QString &key) const
{
    const QJsonValue value = getValue(key, QJsonValue::Bool);
    return value.isUndefined() ? false : value.toBool(false);
}

qreal JsonReader::readQReal(const QString &key) const
{
    const QJsonValue value = getValue(key, QJsonValue::Double);
    return value.isUndefined() ? 0.0 : value.toDouble(0.0);
}

QDateTime JsonReader::readDateTime(const QString &key) const
{
    const QJsonValue value = getValue(key, QJsonValue::String);
    if (value.isUndefined())
        return QDateTime();
    const QDateTime parsed = QDateTime::fromString(value.toString(), Qt::ISODate);
    if (!parsed.isValid()) {
        // Built from the bare key, without the reader's prefix.
        m_errors->append(key + QStringLiteral(" field does not respect datetime ISO format."));
        return QDateTime();
    }
    return parsed;
}

JsonReader JsonReader::readObject(const QString &key) const
{
    const QJsonValue value = getValue(key, QJsonValue::Object);
    // Only the key names the nested object; this reader's own prefix is not
    // carried along, so a deep reader names just its immediate parent.
    return JsonReader(value.toObject(), key + QLatin1Char('.'), m_errors);
}

QList<JsonReader> JsonReader::readArray(const QString &key) const
{
    QList<JsonReader> readers;
    const QJsonValue value = getValue(key, QJsonValue::Array);
    if (value.isUndefined())
        return readers;
    const QJsonArray array = value.toArray();
    readers.reserve(array.size());
    for (int i = 0; i < array.size(); ++i) {
        const QString elementPrefix = QStringLiteral("%1.%2[%3].").arg(m_prefix, key).arg(i);
        readers.append(JsonReader(array.at(i).toObject(), elementPrefix, m_errors));
    }
    return readers;
}

QStringList JsonReader::readStringList(const QString &key) const
{
    QStringList strings;
    const QJsonValue value = getValue(key, QJsonValue::Array);
    if (value.isUndefined())
        return strings;
    const QJsonArray array = value.toArray();
    for (const QJsonValue &element : array)
        strings.append(element.toString());
    return strings;
}
