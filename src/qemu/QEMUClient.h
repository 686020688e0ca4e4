#pragma once

#include <QJsonValue>
#include <QMap>
#include <QObject>
#include <QString>
#include <QVariant>

#include <functional>
#include <memory>

class QJsonObject;
class QLocalSocket;
class QmpLineFramer;

/// A short-lived, blocking conversation with a running emulator over QMP on
/// its private unix socket: enabling the protocol, quitting,
/// saving a snapshot. The socket, unlike a loopback port, is reachable only
/// by the device's owner.
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

    /// What waitUntilRunning() saw.
    enum class Readiness {
        Running,      ///< QMP answers and the virtual machine runs
        ProcessEnded, ///< the emulator ended before that
        TimedOut,     ///< neither within the time given
        NotQmp,       ///< something answered that does not speak QMP
        InternalError, ///< the emulator stopped the guest on an accelerator's internal error
    };

    /// A client of the emulator listening on the unix socket socketPath.
    explicit QEMUClient(const QString &socketPath, QObject *parent = nullptr);
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

    /// Waits until the freshly started emulator answers "query-status" with a
    /// running virtual machine (after loading its snapshot, when it was given
    /// one): connects, retrying while the emulator does not listen yet, then
    /// asks until it runs. alive is asked between tries, so an emulator that
    /// ends is noticed within a few milliseconds. Connection errors on the
    /// way are expected and not logged.
    Readiness waitUntilRunning(const std::function<bool()> &alive, int timeoutMs);

    /// Connects and asks the emulator to quit; a connection closed without
    /// an answer counts as success.
    bool execQuit();

    /// Connects and saves the internal snapshot name; with unplugShared the
    /// shared-folder drive is detached first, since a writable shared folder
    /// keeps the emulator from saving its state. With leavePaused the guest
    /// is paused before the save and stays paused after it, so that nothing
    /// it does later is missing from the state; a failed save resumes it.
    bool execSaveSnapshot(const QString &name, bool unplugShared, bool leavePaused = false);

    /// Connects and resumes a paused guest.
    bool execContinue();

    /// Connects and returns the running machine to the internal snapshot
    /// name; with unplugShared the shared-folder drive is detached first, as
    /// for a save.
    bool execLoadSnapshot(const QString &name, bool unplugShared);

    /// The guest's memory, which the time a save or a load may take grows
    /// with (10 s, and 20 ms per MiB); 0 until set.
    void setGuestMemory(qint64 mib) { m_guestMemoryMiB = mib; }

    /// Why waitUntilRunning() answered NotQmp: what came instead of QMP.
    QString lastError() const { return m_lastError; }

    /// Asks the machine's run state, connecting first when not connected ("running", "io-error",
    /// ...); empty when the emulator cannot be asked.
    QString queryRunState();
    /// On a connected client: the disks whose I/O failed, one text each
    /// naming the disk's file and whether it ran out of space.
    QStringList queryDiskErrors();
    /// On a connected client: lets the stopped machine go on ("cont").
    bool execCont();

    /// Connects and has the emulator write its screen as a PNG file at path
    /// (the emulator opens the file itself). False, with the emulator's
    /// words in error, when it cannot.
    bool execScreendump(const QString &path, QString *error);
    /// Connects and takes what the ring-buffer character device holds, at
    /// most maxBytes: a read empties the buffer. False when the emulator
    /// cannot be asked.
    bool takeRingBuffer(const QString &device, int maxBytes, QByteArray *data);

    /// Whether this client detached the shared-folder drive.
    bool hasDetachedSharedDrive() const { return m_detachedShared; }

private:
    /// Moves what the socket received into the framer.
    void drainSocket();
    void onSocketError();
    /// Sends command and reads its answer into reply, skipping events.
    /// False, logged, when nothing usable came back.
    bool request(const QMap<QString, QVariant> &command, int timeoutMs, ResponsePolicy policy,
                 QJsonObject *reply, bool *silent);
    /// Sends command and returns what it returned, or false with the
    /// emulator's error description.
    bool call(const QMap<QString, QVariant> &command, int timeoutMs, QJsonValue *returned, QString *error);
    /// Reads the answer to a command sent, skipping events.
    bool readReply(int timeoutMs, ResponsePolicy policy, QJsonObject *reply, bool *silent);
    /// How far a readiness probe got on its current connection.
    struct Probe {
        bool greeted = false;
        bool capable = false;
    };
    /// One step of waitUntilRunning(): connect, read the greeting, enable
    /// the capabilities or ask the run state. True with *outcome set when
    /// the wait is over.
    bool probeOnce(Probe *probe, Readiness *outcome);
    /// Reads and checks the greeting; greeted tells whether it was complete.
    bool readGreeting(int timeoutMs, bool *greeted);
    /// Saves (or loads) the internal snapshot name through the monitor,
    /// detaching the shared-folder drive first when unplugShared.
    bool runSnapshotCommand(bool save, const QString &name, bool unplugShared);
    /// Detaches the shared-folder drive; false, logged, on failure.
    bool unplugSharedDrive();

    /// False, logged, when the path does not fit a socket address.
    bool isSocketPathUsable() const;

    QString m_socketPath;
    QLocalSocket *m_socket;
    std::unique_ptr<QmpLineFramer> m_framer;
    bool m_quiet = false;
    QString m_lastError;
    bool m_detachedShared = false;
    qint64 m_guestMemoryMiB = 0;
    /// What the last command returned: a human monitor command answers text.
    QJsonValue m_lastReturn;
};
