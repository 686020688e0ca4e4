#include "DeviceJson_p.h"

#include "FileUtils.h"
#include "Logging_p.h"

#include <QDebug>
#include <QFileInfo>
#include <QSet>

#include <cmath>
#include <limits>

namespace DeviceJson {

int readWholeInt(const JsonReader &reader, const QString &key, QStringList *errors)
{
    const QJsonValue value = reader.getValue(key, QJsonValue::Double);
    if (value.isUndefined())
        return 0;
    const double number = value.toDouble();
    if (number >= std::numeric_limits<int>::min() && number <= std::numeric_limits<int>::max()
        && std::floor(number) == number)
        return int(number);
    errors->append(reader.prefix() + key + QStringLiteral(" is not a whole number within the int range."));
    return 0;
}

bool isAcceptedScheme(const QString &scheme)
{
    static const QSet<QString> schemes = {QStringLiteral("file"), QStringLiteral("http"), QStringLiteral("https")};
    return schemes.contains(scheme);
}

QJsonDocument loadRecordFile(const QString &path, const char *what)
{
    // Checked before reading, so a huge file never reaches memory.
    const QFileInfo info(path);
    if (info.isFile() && info.size() > MaxRecordFileSize) {
        qCWarning(hvDevicesLog) << "Refusing" << what << "file" << path << "of" << info.size() << "bytes, the limit is"
                   << MaxRecordFileSize;
        return QJsonDocument();
    }
    const QJsonDocument document = FileUtils::loadJson(path);
    if (document.isNull())
        return document;
    if (!document.isObject()) {
        qCWarning(hvDevicesLog) << "Not a JSON object in" << what << "file" << path;
        return QJsonDocument();
    }
    return document;
}

} // namespace DeviceJson
