#pragma once

#include "halvistromcore_export.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QString>
#include <QStringList>

#include <memory>

/// Reads typed fields out of a JSON object without failing on the spot: each
/// missing or wrongly typed field adds one line to an error list shared with
/// every reader made from this one, and the read returns a neutral default.
/// A loader reads everything, then checks hasErrors() once.
class HALVISTROM_CORE_EXPORT JsonReader
{
public:
    /// A top-level reader with a new, empty error list.
    explicit JsonReader(const QJsonObject &object);
    /// A nested reader that shares errors; prefix goes in front of its keys.
    JsonReader(const QJsonObject &object, const QString &prefix, const std::shared_ptr<QStringList> &errors);

    /// Whether the key is present (a JSON null counts). Records nothing.
    bool contains(const QString &key) const;
    bool hasErrors() const;
    /// The shared error list, in the order the errors were recorded.
    QStringList errors() const;

    /// The value when it has the expected type (a null is accepted as an empty
    /// string); otherwise records the error and returns Undefined.
    QJsonValue getValue(const QString &key, QJsonValue::Type type) const;

    QString readString(const QString &key) const;
    int readInt(const QString &key) const;
    bool readBool(const QString &key) const;
    qreal readQReal(const QString &key) const;
    QDateTime readDateTime(const QString &key) const;
    /// A reader over the nested object, prefixed with key + ".".
    JsonReader readObject(const QString &key) const;
    /// One reader per element, prefixed with prefix + "." + key + "[i].".
    QList<JsonReader> readArray(const QString &key) const;
    /// The elements as strings; elements are not type-checked.
    QStringList readStringList(const QString &key) const;

    const QJsonObject &object() const { return m_object; }
    QString prefix() const { return m_prefix; }

private:
    QJsonObject m_object;
    QString m_prefix;
    std::shared_ptr<QStringList> m_errors;
};
