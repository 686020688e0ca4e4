#include "JsonSettings.h"

#include "FileUtils.h"
#include "JsonReader.h"
#include "LockFiles.h"
#include "Logging_p.h"

#include <QDebug>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonValue>
#include <QLockFile>

namespace {

// A settings file is a few kilobytes; anything far larger is not one of ours
// and is not worth loading into memory.
constexpr qint64 kMaxFileSize = 16 * 1024 * 1024;

QString describePath(const QStringList &path)
{
    return path.join(QLatin1Char('/'));
}

/// Applies one change along path, starting at path[index] inside object.
/// Refuses to replace an object by a leaf or to descend through a
/// non-object; a refused change leaves object as it was.
bool applyChange(QJsonObject &object, const QStringList &path, int index, const QVariant &value)
{
    const QString &name = path.at(index);
    const auto member = object.constFind(name);
    const bool present = member != object.constEnd();
    if (index == path.size() - 1) {
        if (present && member->isObject())
            return false;
        if (value.isValid())
            object.insert(name, QJsonValue::fromVariant(value));
        else
            object.remove(name);
        return true;
    }
    if (present && !member->isObject())
        return false;
    QJsonObject child = present ? member->toObject() : QJsonObject();
    if (!applyChange(child, path, index + 1, value))
        return false;
    object.insert(name, child);
    return true;
}

/// The object that holds the last element of path, or an empty object when
/// the path does not lead through objects.
QJsonObject parentObject(const QJsonObject &root, const QStringList &path)
{
    QJsonObject current = root;
    for (int i = 0; i + 1 < path.size(); ++i) {
        current = current.value(path.at(i)).toObject();
        if (current.isEmpty())
            break;
    }
    return current;
}

} // namespace

JsonSettings::JsonSettings(const QString &filePath, ReadMode mode, QObject *parent)
    : QObject(parent)
    , m_filePath(filePath)
    , m_readMode(mode)
{
}

QString JsonSettings::getFilePath() const
{
    return m_filePath;
}

JsonSettings::ReadMode JsonSettings::getReadMode() const
{
    return m_readMode;
}

QJsonObject JsonSettings::getRootObject() const
{
    const QFileInfo info(m_filePath);
    // A missing file is the normal state before the first change: the
    // defaults apply, and there is nothing to report.
    if (!info.exists())
        return QJsonObject();
    if (info.size() > kMaxFileSize) {
        qCWarning(hvSettingsLog) << "Settings file is too large, ignoring it:" << m_filePath << info.size();
        return QJsonObject();
    }
    const QJsonDocument document = FileUtils::loadJson(m_filePath);
    if (!document.isNull() && !document.isObject())
        qCWarning(hvSettingsLog) << "Settings file does not hold a JSON object, ignoring it:" << m_filePath;
    return document.object();
}

bool JsonSettings::isJsonObjValid() const
{
    return !getRootObject().isEmpty();
}

bool JsonSettings::hasUnreadableContent() const
{
    QFile file(m_filePath);
    if (!file.exists() || file.size() == 0)
        return false;
    if (file.size() > kMaxFileSize || !file.open(QIODevice::ReadOnly))
        return true;
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &error);
    return error.error != QJsonParseError::NoError || !document.isObject();
}

bool JsonSettings::keyExists(const QString &key) const
{
    return childKeyExists(QStringList{key});
}

bool JsonSettings::childKeyExists(const QStringList &path) const
{
    if (path.isEmpty())
        return false;
    QJsonObject current = getRootObject();
    for (int i = 0; i + 1 < path.size(); ++i) {
        const QJsonValue next = current.value(path.at(i));
        if (!next.isObject())
            return false;
        current = next.toObject();
    }
    return current.contains(path.last());
}

QVariant JsonSettings::getValue(const QString &key, const QVariant &def) const
{
    return getChildValue(QStringList{key}, def);
}

QVariant JsonSettings::getChildValue(const QStringList &path, const QVariant &def) const
{
    if (path.isEmpty())
        return def;
    const QJsonObject parent = parentObject(getRootObject(), path);
    if (parent.isEmpty())
        return def;
    const QJsonValue value = parent.value(path.last());
    // An empty string reads as the default: that is how a setting is put
    // back to its default without removing it.
    if (value.isUndefined() || value.isNull() || value.isObject() || (value.isString() && value.toString().isEmpty()))
        return def;
    // JSON has one kind of number; readers get it as a double whatever its
    // digits look like.
    if (value.isDouble())
        return value.toDouble();
    return value.toVariant();
}

QStringList JsonSettings::getStringList(const QStringList &path) const
{
    if (path.isEmpty())
        return QStringList();
    const QJsonObject parent = parentObject(getRootObject(), path);
    if (!parent.contains(path.last()))
        return QStringList();
    return JsonReader(parent).readStringList(path.last());
}

bool JsonSettings::setValue(const QString &key, const QVariant &value)
{
    return setChildValue(QStringList{key}, value);
}

bool JsonSettings::setChildValue(const QStringList &path, const QVariant &value)
{
    if (path.isEmpty())
        return false;
    return modify(describePath(path), [&](QJsonObject &root) { return applyChange(root, path, 0, value); });
}

bool JsonSettings::setValueIfNull(const QString &key, const QVariant &value)
{
    return modify(key, [&](QJsonObject &root) {
        const QJsonValue current = root.value(key);
        const bool isNull =
            current.isUndefined() || current.isNull() || (current.isString() && current.toString().isEmpty());
        return isNull && applyChange(root, QStringList{key}, 0, value);
    });
}

bool JsonSettings::remove(const QString &key)
{
    return setValue(key, QVariant());
}

bool JsonSettings::removeChild(const QStringList &path)
{
    return setChildValue(path, QVariant());
}

bool JsonSettings::copy(const JsonSettings &other)
{
    return save(other.getRootObject());
}

bool JsonSettings::clear()
{
    return save(QJsonObject());
}

bool JsonSettings::save(const QJsonObject &root)
{
    return modify(QString(), [&](QJsonObject &current) {
        current = root;
        return true;
    });
}

void JsonSettings::setLockTimeouts(int waitMs, int staleMs)
{
    m_lockWaitMs = waitMs;
    m_staleLockMs = staleMs;
}

bool JsonSettings::modify(const QString &what, const std::function<bool(QJsonObject &)> &change)
{
    if (m_readMode == ReadOnly)
        return false;
    // Without its directory the file cannot be written; say so the same way
    // a failed save would, rather than as a lock problem.
    if (!QFileInfo(QFileInfo(m_filePath).absolutePath()).isDir()) {
        qCCritical(hvSettingsLog) << "Failed to open file for writing:" << m_filePath;
        return false;
    }

    // Every program of the product changes this file; the lock keeps their
    // read-modify-write sequences from interleaving and losing updates.
    const QString lockPath = m_filePath + QStringLiteral(".lock");
    QLockFile lock(lockPath);
    lock.setStaleLockTime(m_staleLockMs);
    if (!LockFiles::acquire(lock, lockPath, m_lockWaitMs)) {
        if (lock.error() != QLockFile::LockFailedError)
            qCCritical(hvSettingsLog) << "Failed to create lock file" << lockPath << "to change" << what << "in" << m_filePath << ":"
                        << qPrintable(FileUtils::whyCannotWrite(QFileInfo(m_filePath).absolutePath()));
        else if (what.isEmpty())
            qCCritical(hvSettingsLog) << "Failed to lock settings file" << m_filePath << "in time to replace its content";
        else
            qCCritical(hvSettingsLog) << "Failed to lock settings file" << m_filePath << "in time to change" << what;
        return false;
    }

    QJsonObject root = getRootObject();
    if (!change(root))
        return false;

    // A file someone broke by hand still holds their settings: keep it
    // beside the new one instead of silently dropping it.
    if (hasUnreadableContent()) {
        const QString backup = m_filePath + QStringLiteral(".bad");
        QFile::remove(backup);
        if (FileUtils::copyFile(m_filePath, backup))
            qCWarning(hvSettingsLog) << "Kept the unreadable settings file" << m_filePath << "as" << backup;
        else
            qCWarning(hvSettingsLog) << "Failed to keep the unreadable settings file" << m_filePath << "as" << backup;
    }
    return writeRoot(root);
}

bool JsonSettings::writeRoot(const QJsonObject &root) const
{
    return FileUtils::saveFile(m_filePath, QJsonDocument(root).toJson());
}
