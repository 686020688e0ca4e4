#pragma once

#include "halvistromcore_export.h"

#include <QJsonObject>
#include <QList>
#include <QMetaEnum>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <functional>


/// One settings store backed by one JSON file whose root is an object. Keys
/// are either plain member names (dots are part of the name) or paths of
/// nested object names. Nothing is cached: every read parses the file again
/// and every change rewrites the whole file atomically.
///
/// Several programs of the product write the same file, so every change is a
/// read-modify-write made under a lock file (the file name plus ".lock"):
/// a change that cannot get the lock in time is logged and dropped rather
/// than risk losing another program's update. Reads take no lock.
class HALVISTROM_CORE_EXPORT JsonSettings : public QObject
{
    Q_OBJECT
public:
    enum ReadMode { ReadWrite = 0, ReadOnly = 1 };
    Q_ENUM(ReadMode)

    /// How long a change waits for the lock file by default.
    static constexpr int kDefaultLockWaitMs = 10000;
    /// Age after which a lock left by a program that hangs is taken over.
    static constexpr int kDefaultStaleLockMs = 30000;

    /// Stores the path and the mode; touches no file.
    JsonSettings(const QString &filePath, ReadMode mode, QObject *parent = nullptr);

    QString getFilePath() const;
    ReadMode getReadMode() const;

    /// The file's root object; an empty object when the file is missing,
    /// unreadable, too large, not JSON or not an object.
    QJsonObject getRootObject() const;
    /// Whether getRootObject() is not empty.
    bool isJsonObjValid() const;
    /// Whether the file exists with content that is not a JSON object. Such a
    /// file reads as empty and only a deliberate change replaces it.
    bool hasUnreadableContent() const;

    /// Whether the path leads through objects to a present member.
    bool keyExists(const QString &key) const;
    bool childKeyExists(const QStringList &path) const;

    /// The member's value, or def when it is missing, null, an object or an
    /// empty string. Numbers come back as double, arrays as variant lists.
    QVariant getValue(const QString &key, const QVariant &def = QVariant()) const;
    QVariant getChildValue(const QStringList &path, const QVariant &def = QVariant()) const;
    /// The strings of the array at the path (non-string elements read as "").
    QStringList getStringList(const QStringList &path) const;
    /// The array of names at the path converted to values of the registered
    /// enumeration T; names T does not know are left out.
    template <typename T> QList<T> getEnumList(const QStringList &path) const;

    /// Sets the member, or removes it when value is invalid, and writes the
    /// file. A leaf never replaces an object and a path never goes through a
    /// non-object: such a change is refused. False when refused or not
    /// written (read-only store, lock not had, file not writable).
    bool setValue(const QString &key, const QVariant &value);
    bool setChildValue(const QStringList &path, const QVariant &value);
    /// Sets the member only when it reads as null (absent, null or an empty
    /// string), checked and written under the same lock, so a value another
    /// program wrote meanwhile is never overwritten. False when not written.
    bool setValueIfNull(const QString &key, const QVariant &value);
    bool remove(const QString &key);
    bool removeChild(const QStringList &path);

    /// Writes other's root object as this file's whole content.
    bool copy(const JsonSettings &other);
    /// Writes an empty object.
    bool clear();
    /// Writes root as the whole file.
    bool save(const QJsonObject &root);

    /// Bounds of the lock taken by every change: how long to wait for it and
    /// the age after which a lock whose owner hangs counts as abandoned.
    void setLockTimeouts(int waitMs, int staleMs);

private:
    /// Runs change on the current root under the lock and writes the result
    /// when change accepts it. what names the key in the log lines.
    bool modify(const QString &what, const std::function<bool(QJsonObject &)> &change);
    bool writeRoot(const QJsonObject &root) const;

    QString m_filePath;
    ReadMode m_readMode;
    int m_lockWaitMs = kDefaultLockWaitMs;
    int m_staleLockMs = kDefaultStaleLockMs;
};

template <typename T> QList<T> JsonSettings::getEnumList(const QStringList &path) const
{
    const QMetaEnum meta = QMetaEnum::fromType<T>();
    QList<T> values;
    for (const QString &name : getStringList(path)) {
        bool ok = false;
        const int value = meta.keyToValue(name.toUtf8().constData(), &ok);
        // Only the bare enumerator name is the stored form.
        if (ok && QLatin1String(meta.valueToKey(value)) == name)
            values.append(static_cast<T>(value));
    }
    return values;
}
