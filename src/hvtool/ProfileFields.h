#pragma once

#include "HwProfile.h"

#include <QList>
#include <QString>
#include <QStringList>

namespace hvtool {

/// The values of a hardware profile a user sets by name: the options of
/// 'profile create', the keys of 'profile set' and, for the sizes, the
/// options of 'device create' that override its profile.
namespace ProfileFields {

struct Field {
    const char *key;       ///< "cpus": the option and the key
    const char *valueName; ///< "N"
    bool device;           ///< also an option of 'device create'
};

/// Every field, in the order help lists them.
const QList<Field> &all();
/// Their keys.
QStringList keys();
/// The field's line of help, with its unit and range.
QString help(const Field &field);
/// Sets the field key of profile from text; empty when done, else the
/// refusal ("cpus needs a whole number from 1 to 2, ...") and profile is
/// unchanged.
QString apply(const QString &key, const QString &text, HwProfile *profile);
/// The refusal of item, which names no field.
QString unknownKey(const QString &item);

} // namespace ProfileFields
} // namespace hvtool
