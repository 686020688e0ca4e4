#pragma once

#include "halvistromcore_export.h"

#include <QByteArray>
#include <QString>
#include <QTcpSocket>

/// A connection to a guest's debug bridge daemon on a forwarded host port,
/// spoken directly (no adb client or server on the host): the handshake and
/// one-off shell commands. Each call blocks until its deadline at most.
class HALVISTROM_CORE_EXPORT GuestBridge
{
public:
    /// What the guest answered to the handshake.
    enum Answer {
        /// Nothing, or the connection failed or closed.
        Silent,
        /// A device banner: services can be opened.
        Device,
        /// The daemon asks for authentication, which this connection cannot give.
        AuthRequired,
        /// Bytes that are no debug bridge message.
        Other,
    };

    /// Connects to 127.0.0.1:port and exchanges the handshake within timeoutMs.
    Answer connect(quint16 port, int timeoutMs);
    /// The device's banner ("device::ro.product.name=...;...") after a Device
    /// answer; what the guest said first otherwise.
    QByteArray banner() const { return m_banner; }
    /// Runs command under the guest's shell, its output (both streams) in
    /// *output. False when the connection fails, the guest refuses the
    /// service or the command does not end within timeoutMs.
    bool shell(const QString &command, int timeoutMs, QByteArray *output);

private:
    struct Message {
        quint32 command = 0, arg0 = 0, arg1 = 0;
        QByteArray payload;
    };
    void send(quint32 command, quint32 arg0, quint32 arg1, const QByteArray &payload);
    /// The next message, or false when none came whole by the deadline
    /// (milliseconds since the epoch) or it was malformed.
    bool receive(qint64 deadline, Message *message);
    bool fill(qint64 size, qint64 deadline);

    QTcpSocket m_socket;
    QByteArray m_buffer;
    QByteArray m_banner;
    quint32 m_nextId = 0;
};
