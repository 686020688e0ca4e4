#include "GuestBridge.h"

#include <QDateTime>
#include <QtEndian>

namespace {

constexpr quint32 fourcc(const char (&s)[5])
{
    return quint32(quint8(s[0])) | quint32(quint8(s[1])) << 8 | quint32(quint8(s[2])) << 16
        | quint32(quint8(s[3])) << 24;
}

const quint32 kConnect = fourcc("CNXN");
const quint32 kAuth = fourcc("AUTH");
const quint32 kOpen = fourcc("OPEN");
const quint32 kOkay = fourcc("OKAY");
const quint32 kClose = fourcc("CLSE");
const quint32 kWrite = fourcc("WRTE");
// The version whose peers do not check data sums; sums are sent all the same
// for daemons of the version before.
const quint32 kVersion = 0x01000001;
const quint32 kOurMaxPayload = 256 * 1024;
// A guest's banner or a shell's chunk: a message announcing more is not one.
const quint32 kMaxPayloadAccepted = 1024 * 1024;
const int kHeaderSize = 24;

qint64 now()
{
    return QDateTime::currentMSecsSinceEpoch();
}

} // namespace

void GuestBridge::send(quint32 command, quint32 arg0, quint32 arg1, const QByteArray &payload)
{
    quint32 sum = 0;
    for (const char c : payload)
        sum += quint8(c);
    const quint32 words[6] = {command, arg0, arg1, quint32(payload.size()), sum, command ^ 0xffffffffu};
    QByteArray header(kHeaderSize, '\0');
    for (int i = 0; i < 6; ++i)
        qToLittleEndian(words[i], header.data() + 4 * i);
    m_socket.write(header + payload);
    m_socket.flush();
}

bool GuestBridge::fill(qint64 size, qint64 deadline)
{
    while (m_buffer.size() < size) {
        const qint64 left = deadline - now();
        if (m_socket.bytesAvailable() == 0 && (left <= 0 || !m_socket.waitForReadyRead(int(left))))
            return false;
        m_buffer += m_socket.readAll();
    }
    return true;
}

bool GuestBridge::receive(qint64 deadline, Message *message)
{
    if (!fill(kHeaderSize, deadline))
        return false;
    const auto word = [this](int i) { return qFromLittleEndian<quint32>(m_buffer.constData() + 4 * i); };
    message->command = word(0);
    message->arg0 = word(1);
    message->arg1 = word(2);
    const quint32 length = word(3);
    if (word(5) != (message->command ^ 0xffffffffu) || length > kMaxPayloadAccepted
        || !fill(kHeaderSize + qint64(length), deadline))
        return false;
    message->payload = m_buffer.mid(kHeaderSize, int(length));
    m_buffer.remove(0, kHeaderSize + int(length));
    return true;
}

GuestBridge::Answer GuestBridge::connect(quint16 port, int timeoutMs)
{
    const qint64 deadline = now() + timeoutMs;
    m_socket.abort();
    m_buffer.clear();
    m_banner.clear();
    m_socket.connectToHost(QStringLiteral("127.0.0.1"), port);
    if (!m_socket.waitForConnected(timeoutMs))
        return Silent;
    send(kConnect, kVersion, kOurMaxPayload, QByteArray("host::\0", 7));
    Message message;
    if (receive(deadline, &message)) {
        m_banner = message.payload;
        if (message.command == kConnect) {
            return Device;
        }
        if (message.command == kAuth)
            return AuthRequired;
    }
    // A guest that speaks first, in words of its own.
    m_banner = m_buffer;
    return m_banner.isEmpty() ? Silent : Other;
}

bool GuestBridge::shell(const QString &command, int timeoutMs, QByteArray *output)
{
    const qint64 deadline = now() + timeoutMs;
    const quint32 local = ++m_nextId;
    send(kOpen, local, 0, QByteArray("shell:") + command.toUtf8() + '\0');
    output->clear();
    Message message;
    while (receive(deadline, &message)) {
        if (message.arg1 != local)
            continue;
        if (message.command == kClose)
            return message.arg0 != 0; // a refusal closes a stream that never opened
        if (message.command == kWrite) {
            output->append(message.payload);
            send(kOkay, local, message.arg0, QByteArray());
        }
    }
    m_socket.abort();
    return false;
}
