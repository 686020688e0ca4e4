#include "QmpProtocol_p.h"

#include <QJsonDocument>
#include <QJsonParseError>

namespace QmpProtocol {

QByteArray encodeCommand(const QVariantMap &command)
{
    return QJsonDocument(QJsonObject::fromVariantMap(command)).toJson(QJsonDocument::Compact) + '\n';
}

bool parseMessage(const QByteArray &line, QJsonObject *message, QString *error)
{
    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(line, &parseError);
    if (parseError.error != QJsonParseError::NoError) {
        *error = parseError.errorString();
        return false;
    }
    if (!document.isObject()) {
        *error = QStringLiteral("not a JSON object");
        return false;
    }
    if (document.object().isEmpty()) {
        *error = QStringLiteral("empty JSON object");
        return false;
    }
    *message = document.object();
    return true;
}

bool isGreeting(const QJsonObject &message)
{
    return message.value(QLatin1String("QMP")).isObject();
}

bool isEvent(const QJsonObject &message)
{
    return message.contains(QLatin1String("timestamp"));
}

} // namespace QmpProtocol
