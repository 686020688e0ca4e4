#pragma once

#include "HwProfile.h"
#include "JsonReader.h"

#include <QJsonDocument>
#include <QMetaEnum>
#include <QString>

// Helpers shared by the profile and image loaders. Not installed.
namespace DeviceJson {

/// The enumerator whose key name is exactly text, or the unknown-value
/// sentinel. Keys are compared as whole strings: QMetaEnum::keyToValue would
/// also take scoped names and stop at an embedded NUL.
template <typename Enum>
Enum enumFromKey(const QString &text)
{
    const QMetaEnum meta = QMetaEnum::fromType<Enum>();
    for (int i = 0; i < meta.keyCount(); ++i) {
        if (text == QLatin1String(meta.key(i)))
            return static_cast<Enum>(meta.value(i));
    }
    return static_cast<Enum>(HwProfile::UnknownEnumValue);
}

/// The key name of value; empty for a value without one.
template <typename Enum>
QString enumKey(Enum value)
{
    return QString::fromLatin1(QMetaEnum::fromType<Enum>().valueToKey(static_cast<int>(value)));
}

/// Reads a string field naming an enumerator. A missing or non-string field
/// is recorded by the reader; an unknown name is not an error.
template <typename Enum>
Enum readEnum(const JsonReader &reader, const QString &key)
{
    return enumFromKey<Enum>(reader.readString(key));
}

/// Reads a number that must be a whole number within the int range. Qt turns
/// anything else into 0 without a word, so such a value is recorded in errors
/// (the list the reader shares) as prefix + key + " is not a whole number
/// within the int range.". A missing or non-number field is recorded by the
/// reader itself.
int readWholeInt(const JsonReader &reader, const QString &key, QStringList *errors);

/// The URL schemes an image can be fetched with: "file", "http", "https".
bool isAcceptedScheme(const QString &scheme);

/// Files that describe one profile or image are a few kilobytes; anything
/// beyond this is refused before it is read into memory.
constexpr qint64 MaxRecordFileSize = 16 * 1024 * 1024;

/// The JSON document of a record file: null (and logged) when the file is
/// too large, unreadable, malformed or does not hold an object.
QJsonDocument loadRecordFile(const QString &path, const char *what);

} // namespace DeviceJson
