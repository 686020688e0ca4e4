#include "FakeQmpServer.h"

#include <QDeadlineTimer>
#include <QLocalServer>
#include <QLocalSocket>
#include <QMutexLocker>
#include <QThread>

#include <future>

namespace {

bool flushAll(QLocalSocket *socket)
{
    while (socket->bytesToWrite() > 0) {
        if (!socket->waitForBytesWritten(5000))
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
    std::promise<void> listening;
    m_thread = std::thread([this, script, &listening] {
        QLocalServer server;
        const bool ok = server.listen(path());
        listening.set_value();
        if (!ok || !server.waitForNewConnection(10000))
            return fail("no client connected: " + server.errorString());
        serve(server.nextPendingConnection(), script);
    });
    listening.get_future().wait();
}

void FakeQmpServer::serve(QLocalSocket *socket, const QList<Step> &script)
{
    QByteArray received;
    for (const Step &step : script) {
        if (step.kind == Step::Kind::Send) {
            socket->write(step.data);
            flushAll(socket);
        } else if (step.kind == Step::Kind::Expect) {
            const QDeadlineTimer deadline(5000);
            while (!received.contains('\n') && !deadline.hasExpired() && socket->state() == QLocalSocket::ConnectedState) {
                if (socket->waitForReadyRead(int(qMax<qint64>(1, deadline.remainingTime()))))
                    received += socket->readAll();
            }
            const int end = received.indexOf('\n');
            if (end < 0 || received.left(end) != step.data)
                return fail("expected " + step.data + ", got " + (received.isEmpty() ? QByteArray("nothing") : received));
            received.remove(0, end + 1);
        } else if (step.kind == Step::Kind::Pause) {
            QThread::msleep(static_cast<unsigned long>(step.count));
        } else if (step.kind == Step::Kind::Close) {
            socket->disconnectFromServer();
            if (socket->state() != QLocalSocket::UnconnectedState)
                socket->waitForDisconnected(5000);
        } else {
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
        }
    }
    // The script is over: the client may only hang up now.
    for (QDeadlineTimer deadline(15000); socket->state() == QLocalSocket::ConnectedState && !deadline.hasExpired();) {
        if (socket->waitForReadyRead(100))
            received += socket->readAll();
    }
    if (socket->state() == QLocalSocket::ConnectedState)
        fail("the client did not hang up");
    if (!received.isEmpty())
        fail("unexpected data: " + received);
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
