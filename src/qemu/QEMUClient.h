#pragma once

#include <QMap>
#include <QObject>
#include <QString>
#include <QVariant>

#include <memory>

class QTcpSocket;
class QmpLineFramer;

/// A short-lived, blocking conversation with a running emulator over QMP on
/// the loopback address: enabling the protocol, quitting, saving a snapshot.
/// Used from one thread at a time; init() spins a local event loop, so that
/// thread needs an event dispatcher.
class QEMUClient : public QObject
{
    Q_OBJECT

public:
    enum ResponsePolicy {
        ResponseRequired = 0, ///< a missing response is a failure
        ResponseOptional = 1  ///< the command may end the connection: silence counts as success
    };
    Q_ENUM(ResponsePolicy)

    explicit QEMUClient(unsigned short port, QObject *parent = nullptr);
    ~QEMUClient() override;

    /// Connects, reads the emulator's greeting and enables the QMP
    /// capabilities. True when the connection is ready for commands.
    bool init();

    /// Sends command (keys "execute" and optionally "arguments") and reads the
    /// answer, skipping asynchronous events. True when the answer has a
    /// "return" equal to expected (any "return" when expected is null).
    /// timeoutMs bounds each wait for data.
    bool exec(const QMap<QString, QVariant> &command, const QVariant &expected, int timeoutMs,
              ResponsePolicy policy);

    /// Connects and asks the emulator to quit; a connection closed without
    /// an answer counts as success.
    bool execQuit();

    /// Connects and saves the internal snapshot name; with unplugShared the
    /// shared-folder drive is detached first, since a writable shared folder
    /// keeps the emulator from saving its state.
    bool execSaveSnapshot(const QString &name, bool unplugShared);

private:
    /// Moves what the socket received into the framer.
    void drainSocket();
    void onSocketError();

    unsigned short m_port;
    QTcpSocket *m_socket;
    std::unique_ptr<QmpLineFramer> m_framer;
};
