#include "Settings.h"

#include "HalvistromAppUtils.h"
#include "Logging_p.h"

#include <QDebug>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QStandardPaths>

void Settings::applyHalvistromEnv()
{
    const QString path = QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + QLatin1Char('/')
        + HalvistromAppUtils::getOrganizationName() + QStringLiteral("/HalvistromEnv.json");
    if (!QFile::exists(path))
        return;

    qCDebug(hvSettingsLog) << "Loading environment variables from" << path;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        qFatal("Failed to open %s", qPrintable(path));

    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll(), &error);
    if (error.error != QJsonParseError::NoError)
        qFatal("Failed to parse JSON from %s. offset %d: %s", qPrintable(path), error.offset,
               qPrintable(error.errorString()));

    const QJsonObject variables = document.object();
    for (auto it = variables.begin(); it != variables.end(); ++it) {
        const QByteArray name = it.key().toUtf8();
        // The real environment always wins over the file.
        if (qEnvironmentVariableIsSet(name.constData())) {
            qCDebug(hvSettingsLog) << "Not setting" << it.key() << "since it is already set.";
            continue;
        }
        if (!it.value().isString())
            qFatal("value of key %s is not a string", name.constData());
        const QString value = it.value().toString();
        qCDebug(hvSettingsLog) << "Setting environment variable" << it.key() << "to" << value;
        qputenv(name.constData(), value.toUtf8());
    }
}
