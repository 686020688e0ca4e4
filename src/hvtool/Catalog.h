#pragma once

#include "Command.h"
#include "HwProfileRegistry.h"
#include "OsImageRegistry.h"

#include <QJsonArray>
#include <QString>

namespace hvtool {

/// A record together with the file it was read from.
template<typename T>
using Stored = RecordDirectory::Entry<T>;

/// The user's hardware profiles and OS images, as the library finds them.
namespace Catalog {

/// The one record id names (uuid, name or path to a file). False when none
/// or several do; *ambiguous is set when a name names several.
bool findProfile(const QString &id, Stored<HwProfile> *found, bool *ambiguous = nullptr);
bool findImage(const QString &id, Stored<OsImage> *found, bool *ambiguous = nullptr);

/// The uuid without braces, as used in file names and shown to users.
QString bareUuid(const QString &uuid);

/// The one record of matches, those id names, in *found; else the failure
/// reported through ctx and its exit code: NotFound, or Usage for a name
/// that several records share. noun names their kind: "image", "profile".
template<typename T>
int findOne(Context &ctx, const QString &noun, const QString &id, const QList<Stored<T>> &matches, Stored<T> *found)
{
    if (matches.size() > 1)
        return ctx.fail(Usage, QStringLiteral("%1 name '%2' is ambiguous; use its uuid").arg(noun, id));
    if (matches.isEmpty())
        return ctx.fail(NotFound, QStringLiteral("%1 '%2' does not exist").arg(noun, id));
    *found = matches.first();
    return Success;
}

/// Prints the records as a JSON array of toJson's objects, or as a table of
/// header and a row from each.
template<typename T, typename ToJson, typename Row>
int printList(Context &ctx, const QList<Stored<T>> &entries, ToJson toJson, const QStringList &header, Row row)
{
    Output output{QJsonValue(), header, {}, {}};
    QJsonArray array;
    for (const Stored<T> &entry : entries) {
        array.append(toJson(entry.value));
        output.rows << row(entry.value);
    }
    output.json = array;
    return ctx.show(output);
}

} // namespace Catalog
} // namespace hvtool
