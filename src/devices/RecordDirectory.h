#pragma once

#include "halvistromcore_export.h"

#include <QFileInfo>
#include <QList>
#include <QString>
#include <QStringList>

/// A directory of the user's records (hardware profiles, OS images): one
/// JSON file each, named after the record's uuid. Records are found by
/// uuid, by name, or by the path of a record file anywhere.
class HALVISTROM_CORE_EXPORT RecordDirectory
{
public:
    /// A record with the file it was read from.
    template<typename T>
    struct Entry {
        T value;
        QString file;
    };

    /// The uuid without braces, in lower case: how a record's file is named
    /// and how uuids are compared and shown.
    static QString bareUuid(const QString &uuid);
    /// The "*.json" files of dir, by name, as absolute paths.
    static QStringList files(const QString &dir);
    /// Whether file is an entry directly inside dir (".." and symbolic links
    /// in the directory part resolved), so that acting on it cannot reach
    /// anything outside dir.
    static bool isDirectlyInside(const QString &file, const QString &dir);
    /// Whether uuid can name a record file of dir: a file name that stays in it.
    static bool isFileName(const QString &uuid, const QString &dir);

    /// The entries of all that id names: the one of that uuid (braced or
    /// not); else those whose name matches (several when a name is shared);
    /// else, when id is the path of a file that load reads as a valid
    /// record, that one. Empty when nothing matches.
    template<typename T, typename NameMatches, typename Load>
    static QList<Entry<T>> find(const QList<Entry<T>> &all, const QString &id, NameMatches nameMatches, Load load)
    {
        for (const Entry<T> &entry : all) {
            if (!id.isEmpty() && bareUuid(entry.value.uuid) == bareUuid(id))
                return {entry};
        }
        QList<Entry<T>> named;
        for (const Entry<T> &entry : all) {
            if (nameMatches(entry.value, id))
                named.append(entry);
        }
        if (!named.isEmpty())
            return named;
        const QFileInfo file(id);
        if (!file.isFile())
            return {};
        const T value = load(file.absoluteFilePath());
        if (!value.isValid())
            return {};
        return {Entry<T>{value, file.absoluteFilePath()}};
    }

    /// Every valid record of dir that load reads, with its file.
    template<typename T, typename Load>
    static QList<Entry<T>> read(const QString &dir, Load load)
    {
        QList<Entry<T>> result;
        for (const QString &file : files(dir)) {
            const T value = load(file);
            if (value.isValid())
                result.append({value, file});
        }
        return result;
    }
};
