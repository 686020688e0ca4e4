#include "FakeQmpServer.h"

#include <QDeadlineTimer>
#include <QHostAddress>
#include <QMutexLocker>
#include <QNetworkProxy>
#include <QTcpServer>
#include <QTcpSocket>

#include <future>

namespace {

// Every wait of the server is bounded, so a broken client cannot hang a test.
constexpr int ConnectWaitMs = 10000;
constexpr int LineWaitMs = 5000;
constexpr int WriteWaitMs = 5000;
constexpr int HangUpWaitMs = 15000;

bool flushAll(QTcpSocket *socket)
{
    while (socket->bytesToWrite() > 0) {
        if (!socket->waitForBytesWritten(WriteWaitMs))
            return false;
    }
    return true;
}

} // namespace

QByteArray FakeQmpServer::greeting()
{
    return R"({"QMP": {"version": {"qemu": {"micro": 0, "minor": 2, "major": 7}, "package": ""}, "capabilities": ["oob"]}})"
           "\r\n";
}

FakeQmpServer::FakeQmpServer(const QList<Step> &script)
{
    std::promise<unsigned short> portPromise;
    std::future<unsigned short> portFuture = portPromise.get_future();
    m_thread = std::thread([this, script, &portPromise] {
        QTcpServer server;
        server.setProxy(QNetworkProxy::NoProxy);
        if (!server.listen(QHostAddress::LocalHost, 0)) {
            fail(QStringLiteral("cannot listen: ") + server.errorString());
            portPromise.set_value(0);
            return;
        }
        portPromise.set_value(server.serverPort());
        if (!server.waitForNewConnection(ConnectWaitMs)) {
            fail(QStringLiteral("no client connected"));
            return;
        }
        QTcpSocket *socket = server.nextPendingConnection();
        QByteArray received;
        for (const Step &step : script) {
            switch (step.kind) {
            case Step::Kind::Send:
                socket->write(step.data);
                flushAll(socket);
                break;
            case Step::Kind::Expect: {
                const QDeadlineTimer deadline(LineWaitMs);
                while (!received.contains('\n') && !deadline.hasExpired()) {
                    if (socket->waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime()))))
                        received += socket->readAll();
                    else if (socket->state() != QAbstractSocket::ConnectedState)
                        break;
                }
                const int end = received.indexOf('\n');
                if (end < 0) {
                    fail(QStringLiteral("expected %1, got %2").arg(QString::fromUtf8(step.data),
                                                                    received.isEmpty() ? QStringLiteral("nothing")
                                                                                       : QString::fromUtf8(received)));
                    return;
                }
                const QByteArray line = received.left(end);
                received.remove(0, end + 1);
                if (line != step.data) {
                    fail(QStringLiteral("expected %1, got %2").arg(QString::fromUtf8(step.data), QString::fromUtf8(line)));
                    return;
                }
                break;
            }
            case Step::Kind::Close:
                socket->disconnectFromHost();
                if (socket->state() != QAbstractSocket::UnconnectedState)
                    socket->waitForDisconnected(WriteWaitMs);
                break;
            case Step::Kind::Stream: {
                const QByteArray chunk(64 * 1024, 'x');
                qint64 sent = 0;
                while (sent < step.count) {
                    const qint64 size = qMin<qint64>(chunk.size(), step.count - sent);
                    if (socket->write(chunk.constData(), size) != size || !flushAll(socket))
                        break;
                    sent += size;
                }
                QMutexLocker lock(&m_mutex);
                m_streamed += sent;
                break;
            }
            }
        }
        // The script is over: the client may only hang up now.
        const QDeadlineTimer deadline(HangUpWaitMs);
        while (socket->state() == QAbstractSocket::ConnectedState && !deadline.hasExpired()) {
            if (socket->waitForReadyRead(100))
                received += socket->readAll();
        }
        if (socket->state() == QAbstractSocket::ConnectedState)
            fail(QStringLiteral("the client did not hang up"));
        if (!received.isEmpty())
            fail(QStringLiteral("unexpected data: ") + QString::fromUtf8(received));
    });
    m_port = portFuture.get();
}

FakeQmpServer::~FakeQmpServer()
{
    if (m_thread.joinable())
        m_thread.join();
}

QStringList FakeQmpServer::finish()
{
    if (m_thread.joinable())
        m_thread.join();
    QMutexLocker lock(&m_mutex);
    return m_errors;
}

qint64 FakeQmpServer::streamedBytes()
{
    QMutexLocker lock(&m_mutex);
    return m_streamed;
}

void FakeQmpServer::fail(const QString &error)
{
    QMutexLocker lock(&m_mutex);
    m_errors.append(error);
}
