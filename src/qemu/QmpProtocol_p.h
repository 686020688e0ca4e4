#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QVariantMap>

/// What the lines of a QMP connection mean, apart from how they are framed:
/// the greeting the emulator sends first, the commands the client sends, and
/// the replies and asynchronous events that come back.
namespace QmpProtocol {

/// The command object as it goes on the wire: compact JSON plus "\n".
QByteArray encodeCommand(const QVariantMap &command);

/// Parses one received line. Succeeds only for a non-empty JSON object;
/// otherwise error receives the reason.
bool parseMessage(const QByteArray &line, QJsonObject *message, QString *error);

/// Whether the message is the emulator's greeting: an object under "QMP".
bool isGreeting(const QJsonObject &message);

/// Whether the message is an asynchronous event (it carries "timestamp")
/// rather than the answer to a command.
bool isEvent(const QJsonObject &message);

} // namespace QmpProtocol
