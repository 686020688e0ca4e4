#include "QEMUClient.h"

#include "QEMULaunch_p.h"
#include "QEMULogging_p.h"
#include "QmpFraming_p.h"
#include "QmpProtocol_p.h"

#include <QDeadlineTimer>
#include <QDebug>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QJsonValue>
#include <QJsonArray>
#include <QLocalSocket>
#include <QRegularExpression>
#include <QThread>
#include <QTimer>

#include <limits>

namespace {

const char Tag[] = "[VMTools]";

constexpr int ConnectTimeoutMs = 2000;
constexpr int GreetingTimeoutMs = 2000;
constexpr int CapabilitiesTimeoutMs = 1000;
constexpr int QuitTimeoutMs = 1000;
// Pausing and resuming the guest only flip the emulator's run state.
constexpr int PauseTimeoutMs = 2000;
constexpr int UnplugTimeoutMs = 1000;
// A start's readiness probe waits in short slices, so that it notices an
// emulator that ended within a few milliseconds.
constexpr int ProbeSliceMs = 50;
constexpr int ProbeRetryMs = 5;
// Saving writes the whole guest memory into the system disk, loading reads
// it back: a fixed part, and time for each MiB of guest memory at a slow
// disk's 50 MiB/s.
constexpr int SaveSnapshotTimeoutMs = 10000;
// The emulator renders the screen before it writes it: a fraction of a
// second, longer on a busy host under emulation.
constexpr int ScreendumpTimeoutMs = 10000;
constexpr int RingBufferTimeoutMs = 2000;
constexpr int SnapshotMsPerMiB = 20;

// The socket hands over at most this much per read, so what it holds on top
// of the framer's bounded line stays small too.
constexpr qint64 SocketReadChunk = 64 * 1024;

QVariantMap humanMonitorCommand(const QString &commandLine)
{
    QVariantMap arguments;
    arguments.insert(QStringLiteral("command-line"), commandLine);
    QVariantMap command;
    command.insert(QStringLiteral("execute"), QStringLiteral("human-monitor-command"));
    command.insert(QStringLiteral("arguments"), arguments);
    return command;
}

QVariantMap plainCommand(const QString &name)
{
    QVariantMap command;
    command.insert(QStringLiteral("execute"), name);
    return command;
}

// The human monitor answers an empty text on success and an error text
// otherwise. A non-null empty string, so that the answer is checked.
QVariant emptyMonitorAnswer()
{
    return QVariant(QString(QLatin1String("")));
}

QString overlongReason(const QmpLineFramer &framer)
{
    return QStringLiteral("line longer than %1 bytes").arg(framer.maxLineLength());
}

} // namespace

QEMUClient::QEMUClient(const QString &socketPath, QObject *parent)
    : QObject(parent)
    , m_socketPath(socketPath)
    , m_socket(new QLocalSocket(this))
    , m_framer(new QmpLineFramer)
{
    m_socket->setReadBufferSize(SocketReadChunk);
#if QT_VERSION >= QT_VERSION_CHECK(5, 15, 0)
    connect(m_socket, &QLocalSocket::errorOccurred, this, &QEMUClient::onSocketError);
#else
    connect(m_socket, QOverload<QLocalSocket::LocalSocketError>::of(&QLocalSocket::error), this,
            &QEMUClient::onSocketError);
#endif
}

bool QEMUClient::isSocketPathUsable() const
{
    // A path longer than a socket address holds would be cut short and
    // could name another socket: refuse it rather than connect.
    if (QFile::encodeName(m_socketPath).size() <= QEMULaunch::kMaxSocketPathBytes)
        return true;
    qCCritical(hvQmpLog) << Tag << "QEMUClient: socket path too long" << m_socketPath;
    return false;
}

QEMUClient::~QEMUClient() = default;

void QEMUClient::onSocketError()
{
    if (m_quiet)
        return;
    qCWarning(hvQmpLog) << Tag << "QEMUClient: unexpected error" << m_socket->errorString();
}

void QEMUClient::drainSocket()
{
    while (m_socket->bytesAvailable() > 0)
        m_framer->append(m_socket->read(SocketReadChunk));
}

bool QEMUClient::readGreeting(int timeoutMs, bool *greeted)
{
    *greeted = false;
    QByteArray greeting;
    drainSocket();
    QmpLineFramer::Status status = m_framer->takeLine(&greeting);
    if (status == QmpLineFramer::Status::Incomplete) {
        // A blocking wait that runs out leaves the socket with a time-out
        // error, which the socket reports as a failure: a caller that waits
        // in an event loop of its own asks for no wait at all.
        if (timeoutMs <= 0 || !m_socket->waitForReadyRead(timeoutMs))
            return true;
        drainSocket();
        status = m_framer->takeLine(&greeting);
        if (status == QmpLineFramer::Status::Incomplete)
            return true;
    }
    if (status == QmpLineFramer::Status::Overlong) {
        m_lastError = QStringLiteral("a greeting %1").arg(overlongReason(*m_framer));
        qCCritical(hvQmpLog) << Tag << "QEMUClient: failed to parse response as JSON" << overlongReason(*m_framer);
        return false;
    }
    QJsonObject message;
    QString error;
    if (!QmpProtocol::parseMessage(greeting, &message, &error) || !QmpProtocol::isGreeting(message)) {
        // What came, short and printable, tells a stranger on the socket
        // from a broken emulator.
        m_lastError = QStringLiteral("it greeted with \"%1\"")
                          .arg(QString::fromUtf8(greeting.left(60)).replace(QRegularExpression("[^ -~]"), "?"));
        qCCritical(hvQmpLog) << Tag << "QEMUClient: bad message during initialization";
        return false;
    }
    *greeted = true;
    return true;
}

bool QEMUClient::init()
{
    if (!isSocketPathUsable())
        return false;
    m_socket->connectToServer(m_socketPath, QIODevice::ReadWrite);
    if (!m_socket->waitForConnected(ConnectTimeoutMs)) {
        // Going on would only wait for a greeting that cannot come.
        qCCritical(hvQmpLog) << Tag << "QEMUClient: connection timeout";
        return false;
    }

    // The greeting may come in several pieces; all of them must be there
    // within the one time-out.
    const QDeadlineTimer deadline(GreetingTimeoutMs);
    bool greeted = false;
    for (;;) {
        if (!readGreeting(0, &greeted))
            return false;
        if (greeted)
            break;
        // A local event loop rather than a blocking wait, so that the
        // caller's thread keeps serving its other events meanwhile.
        QEventLoop loop;
        connect(m_socket, &QIODevice::readyRead, &loop, &QEventLoop::quit);
        QTimer::singleShot(qMax<qint64>(0, deadline.remainingTime()), &loop, [&loop] { loop.exit(1); });
        if (loop.exec() != 0) {
            qCCritical(hvQmpLog) << Tag << "QEMUClient: timeout during initialization";
            return false;
        }
    }

    qCDebug(hvQmpLog) << Tag << "QEMUClient: enabling QMP capabilities";
    if (!exec(plainCommand(QStringLiteral("qmp_capabilities")), QVariant(), CapabilitiesTimeoutMs,
              ResponseRequired)) {
        qCWarning(hvQmpLog) << Tag << "QEMUClient: failed to enable QMP capabilities";
        return false;
    }
    return true;
}

bool QEMUClient::request(const QMap<QString, QVariant> &command, int timeoutMs, ResponsePolicy policy,
                         QJsonObject *reply, bool *silent)
{
    *silent = false;
    if (m_socket->state() != QLocalSocket::ConnectedState) {
        qCCritical(hvQmpLog) << Tag << "QEMUClient: not connected";
        return false;
    }

    const QByteArray bytes = QmpProtocol::encodeCommand(command);
    qCDebug(hvQmpLog) << Tag << "QEMUClient: request" << bytes;
    if (m_socket->write(bytes) == -1) {
        qCCritical(hvQmpLog) << Tag << "QEMUClient: failed to write message to QMP socket";
        return false;
    }
    m_socket->flush();
    return readReply(timeoutMs, policy, reply, silent);
}

bool QEMUClient::readReply(int timeoutMs, ResponsePolicy policy, QJsonObject *reply, bool *silent)
{
    // One deadline for the answer: events the emulator sends meanwhile (a
    // guest can make it send them) do not stretch the wait.
    const QDeadlineTimer deadline(timeoutMs);
    for (;;) {
        QByteArray line;
        const QmpLineFramer::Status status = m_framer->takeLine(&line);
        if (status == QmpLineFramer::Status::Incomplete) {
            if (deadline.hasExpired() || !m_socket->waitForReadyRead(int(deadline.remainingTime()))) {
                if (policy == ResponseOptional) {
                    qCDebug(hvQmpLog) << Tag << "QEMUClient: did not received response from QMP but it's expected.";
                    *silent = true;
                }
                // Otherwise nothing usable came: the empty reply fails in the caller.
                return true;
            }
            drainSocket();
            continue;
        }
        if (status == QmpLineFramer::Status::Overlong) {
            qCCritical(hvQmpLog) << Tag << "QEMUClient: failed to parse response as JSON" << overlongReason(*m_framer);
            return false;
        }

        qCDebug(hvQmpLog) << Tag << "QEMUClient: response" << line;
        QJsonObject message;
        QString error;
        if (!QmpProtocol::parseMessage(line, &message, &error)) {
            qCCritical(hvQmpLog) << Tag << "QEMUClient: failed to parse response as JSON" << error;
            return false;
        }
        if (QmpProtocol::isEvent(message))
            continue;
        *reply = message;
        return true;
    }
}

bool QEMUClient::exec(const QMap<QString, QVariant> &command, const QVariant &expected, int timeoutMs,
                      ResponsePolicy policy)
{
    QJsonObject reply;
    bool silent = false;
    if (!request(command, timeoutMs, policy, &reply, &silent))
        return false;
    if (silent)
        return true;

    if (!reply.contains(QLatin1String("return"))) {
        qCDebug(hvQmpLog) << Tag << "QEMUClient: error returned from QMP" << reply.value(QLatin1String("error"));
        return false;
    }
    const QJsonValue returned = reply.value(QLatin1String("return"));
    m_lastReturn = returned;
    if (!expected.isNull()) {
        const QJsonValue wanted = QJsonValue::fromVariant(expected);
        if (returned != wanted) {
            qCCritical(hvQmpLog) << Tag << "QEMUClient: QEMU returned" << returned << "while we expected" << wanted;
            return false;
        }
    }
    return true;
}

QEMUClient::Readiness QEMUClient::waitUntilRunning(const std::function<bool()> &alive, int timeoutMs)
{
    if (!isSocketPathUsable())
        return Readiness::NotQmp;
    const QDeadlineTimer deadline(timeoutMs);
    // A refused or dropped connection is the normal state of an emulator
    // that has not opened its monitor yet.
    m_quiet = true;
    Probe probe;
    Readiness outcome = Readiness::TimedOut;
    for (;;) {
        if (!alive()) {
            outcome = Readiness::ProcessEnded;
            break;
        }
        if (deadline.hasExpired() || probeOnce(&probe, &outcome))
            break;
    }
    m_quiet = false;
    return outcome;
}

bool QEMUClient::probeOnce(Probe *probe, Readiness *outcome)
{
    if (m_socket->state() != QLocalSocket::ConnectedState) {
        m_socket->abort();
        m_framer.reset(new QmpLineFramer);
        *probe = Probe();
        // Until the emulator has bound its socket the path is missing (or
        // names the socket of an emulator that ended): retry.
        m_socket->connectToServer(m_socketPath, QIODevice::ReadWrite);
        if (!m_socket->waitForConnected(ProbeSliceMs)) {
            m_socket->abort();
            QThread::msleep(ProbeRetryMs);
        }
        return false;
    }
    if (!probe->greeted) {
        // The emulator accepts connections before it serves them (while it
        // loads a snapshot, say): wait in slices, asking alive between.
        if (readGreeting(ProbeSliceMs, &probe->greeted))
            return false;
        *outcome = Readiness::NotQmp;
        return true;
    }
    if (!probe->capable)
        probe->capable = exec(plainCommand(QStringLiteral("qmp_capabilities")), QVariant(), CapabilitiesTimeoutMs,
                              ResponseRequired);
    QJsonObject reply;
    bool silent = false;
    if (!probe->capable
        || !request(plainCommand(QStringLiteral("query-status")), CapabilitiesTimeoutMs, ResponseRequired, &reply,
                    &silent)) {
        m_socket->abort();
        return false;
    }
    const QJsonObject status = reply.value(QLatin1String("return")).toObject();
    // KVM stopped the guest for good: asking again would only wait for the
    // time-out.
    if (status.value(QLatin1String("running")).toBool())
        *outcome = Readiness::Running;
    else if (status.value(QLatin1String("status")).toString() == QLatin1String("internal-error"))
        *outcome = Readiness::InternalError;
    else
        QThread::msleep(ProbeRetryMs);
    return *outcome != Readiness::TimedOut;
}

QString QEMUClient::queryRunState()
{
    QJsonObject reply;
    bool silent = false;
    const bool connected = m_socket->state() == QLocalSocket::ConnectedState;
    if ((!connected && !init())
        || !request(plainCommand(QStringLiteral("query-status")), CapabilitiesTimeoutMs, ResponseRequired, &reply,
                    &silent))
        return QString();
    return reply.value(QLatin1String("return")).toObject().value(QLatin1String("status")).toString();
}

QStringList QEMUClient::queryDiskErrors()
{
    QStringList errors;
    QJsonObject reply;
    bool silent = false;
    if (!request(plainCommand(QStringLiteral("query-block")), CapabilitiesTimeoutMs, ResponseRequired, &reply,
                 &silent))
        return errors;
    // A disk whose last request failed keeps an "io-status" other than "ok"
    // until the machine goes on.
    for (const QJsonValue &value : reply.value(QLatin1String("return")).toArray()) {
        const QJsonObject disk = value.toObject();
        const QString status = disk.value(QLatin1String("io-status")).toString();
        if (status.isEmpty() || status == QLatin1String("ok"))
            continue;
        const QString file = disk.value(QLatin1String("inserted")).toObject().value(QLatin1String("file")).toString();
        const QString name = QFileInfo(file).fileName();
        errors << (status == QLatin1String("nospace")
                       ? QStringLiteral("no space left for '%1' (%2)").arg(name, QFileInfo(file).absolutePath())
                       : QStringLiteral("an I/O error on '%1'").arg(name));
    }
    return errors;
}

bool QEMUClient::execCont()
{
    return exec(plainCommand(QStringLiteral("cont")), QVariant(), CapabilitiesTimeoutMs, ResponseRequired);
}

bool QEMUClient::execQuit()
{
    if (!init())
        return false;
    qCDebug(hvQmpLog) << Tag << "QEMUClient: sending quit command";
    // The emulator may close the connection before it answers: the end of
    // the connection is the answer then, not a socket failure.
    m_quiet = true;
    const bool ok = exec(plainCommand(QStringLiteral("quit")), QVariant(), QuitTimeoutMs, ResponseOptional);
    m_quiet = false;
    if (!ok)
        qCWarning(hvQmpLog) << Tag << "QEMUClient: failed to quit";
    return ok;
}

bool QEMUClient::execSaveSnapshot(const QString &name, bool unplugShared, bool leavePaused)
{
    if (!init())
        return false;
    // The monitor's save resumes a guest that ran before it: a guest paused
    // first stays paused.
    if (leavePaused && !exec(plainCommand(QStringLiteral("stop")), QVariant(), PauseTimeoutMs, ResponseRequired)) {
        qCWarning(hvQmpLog) << Tag << "QEMUClient: failed to pause the guest before saving";
        return false;
    }
    const bool ok = runSnapshotCommand(true, name, unplugShared);
    if (!ok && leavePaused)
        exec(plainCommand(QStringLiteral("cont")), QVariant(), PauseTimeoutMs, ResponseRequired);
    return ok;
}

bool QEMUClient::execContinue()
{
    if (!init())
        return false;
    const bool ok = exec(plainCommand(QStringLiteral("cont")), QVariant(), PauseTimeoutMs, ResponseRequired);
    if (!ok)
        qCWarning(hvQmpLog) << Tag << "QEMUClient: failed to resume the guest";
    return ok;
}

bool QEMUClient::unplugSharedDrive()
{
    qCDebug(hvQmpLog) << Tag << "QEMUClient: unplugging shared folder";
    // A drive that is already gone (an earlier save went that far) counts as
    // detached.
    if (!exec(humanMonitorCommand(QStringLiteral("drive_del shared")), QVariant(), UnplugTimeoutMs,
              ResponseRequired)) {
        qCWarning(hvQmpLog) << Tag << "QEMUClient: failed to unplug shared folder";
        return false;
    }
    const QString answer = m_lastReturn.toString();
    if (answer.contains(QLatin1String("not found"), Qt::CaseInsensitive)) {
        qCDebug(hvQmpLog) << Tag << "QEMUClient: shared folder already unplugged";
    } else if (!m_lastReturn.isString() || !answer.isEmpty()) {
        qCWarning(hvQmpLog) << Tag << "QEMUClient: failed to unplug shared folder:" << m_lastReturn;
        return false;
    }
    m_detachedShared = true;
    return true;
}

bool QEMUClient::execLoadSnapshot(const QString &name, bool unplugShared)
{
    return init() && runSnapshotCommand(false, name, unplugShared);
}

bool QEMUClient::runSnapshotCommand(bool save, const QString &name, bool unplugShared)
{
    if (unplugShared && !unplugSharedDrive())
        return false;
    qCDebug(hvQmpLog) << Tag << (save ? "QEMUClient: saving snapshot" : "QEMUClient: loading snapshot");
    // Saving writes the whole guest memory into the system disk; loading
    // reads it back.
    const QString command = save ? QStringLiteral("savevm %1") : QStringLiteral("loadvm %1");
    const qint64 timeoutMs = SaveSnapshotTimeoutMs + qMax<qint64>(0, m_guestMemoryMiB) * SnapshotMsPerMiB;
    const bool ok = exec(humanMonitorCommand(command.arg(name)), emptyMonitorAnswer(),
                         int(qMin<qint64>(timeoutMs, std::numeric_limits<int>::max())), ResponseRequired);
    if (!ok)
        qCWarning(hvQmpLog) << Tag << (save ? "QEMUClient: failed to save snapshot" : "QEMUClient: failed to load snapshot");
    return ok;
}

bool QEMUClient::call(const QMap<QString, QVariant> &command, int timeoutMs, QJsonValue *returned, QString *error)
{
    QJsonObject reply;
    bool silent = false;
    if (!request(command, timeoutMs, ResponseRequired, &reply, &silent) || reply.isEmpty()) {
        *error = QStringLiteral("the emulator did not answer");
        return false;
    }
    if (!reply.contains(QLatin1String("return"))) {
        *error = reply.value(QLatin1String("error")).toObject().value(QLatin1String("desc")).toString();
        return false;
    }
    *returned = reply.value(QLatin1String("return"));
    return true;
}

bool QEMUClient::execScreendump(const QString &path, QString *error)
{
    if (!init()) {
        *error = QStringLiteral("the emulator's control socket does not answer");
        return false;
    }
    QVariantMap command = plainCommand(QStringLiteral("screendump"));
    command.insert(QStringLiteral("arguments"),
                   QVariantMap{{QStringLiteral("filename"), path}, {QStringLiteral("format"), QStringLiteral("png")}});
    QJsonValue returned;
    return call(command, ScreendumpTimeoutMs, &returned, error);
}

bool QEMUClient::takeRingBuffer(const QString &device, int maxBytes, QByteArray *data)
{
    if (!init())
        return false;
    QVariantMap command = plainCommand(QStringLiteral("ringbuf-read"));
    // Base64 keeps the guest's bytes as they are; as text the emulator would
    // mend what is not UTF-8.
    command.insert(QStringLiteral("arguments"), QVariantMap{{QStringLiteral("device"), device},
                                                            {QStringLiteral("size"), maxBytes},
                                                            {QStringLiteral("format"), QStringLiteral("base64")}});
    QJsonValue returned;
    QString error;
    if (!call(command, RingBufferTimeoutMs, &returned, &error)) {
        qCWarning(hvQmpLog) << Tag << "QEMUClient: cannot read" << device << ":" << error;
        return false;
    }
    *data = QByteArray::fromBase64(returned.toString().toLatin1());
    return true;
}
