#pragma once

#include <QByteArray>
#include <QList>
#include <QMutex>
#include <QStringList>
#include <QTemporaryDir>

#include <thread>

/// A scripted QMP peer on a unix socket in a private temporary directory, as
/// the emulator listens in its device directory. It accepts one
/// connection and plays its script: bytes it sends, lines it expects, closing,
/// streaming bytes without a line break. Whatever the client does that the
/// script does not expect is an error. It runs on its own thread because the
/// client blocks its thread while it waits for answers; every wait is bounded.
class FakeQmpServer
{
public:
    struct Step {
        enum class Kind { Send, Expect, Close, Stream, Pause } kind;
        QByteArray data;  // Send: the bytes; Expect: the line, without "\n"
        qint64 count = 0; // Stream: how many bytes; Pause: milliseconds
    };
    static Step send(const QByteArray &bytes) { return {Step::Kind::Send, bytes}; }
    static Step expect(const QByteArray &line) { return {Step::Kind::Expect, line}; }
    static Step close() { return {Step::Kind::Close, {}}; }
    static Step stream(qint64 count) { return {Step::Kind::Stream, {}, count}; }
    static Step pause(qint64 ms) { return {Step::Kind::Pause, {}, ms}; }

    /// The greeting as the emulator sends it.
    static QByteArray greeting();

    explicit FakeQmpServer(const QList<Step> &script);
    ~FakeQmpServer() { finish(); }
    FakeQmpServer(const FakeQmpServer &) = delete;
    FakeQmpServer &operator=(const FakeQmpServer &) = delete;

    QString path() const { return m_dir.filePath(QStringLiteral("qmp.sock")); }
    /// Waits until the client has gone and the script is over; every deviation.
    QStringList finish();
    /// Bytes of the Stream steps that the client's side accepted.
    qint64 streamedBytes();

private:
    void serve(class QLocalSocket *socket, const QList<Step> &script);
    void fail(const QString &error);

    QTemporaryDir m_dir;
    std::thread m_thread;
    QMutex m_mutex;
    QStringList m_errors;
    qint64 m_streamed = 0;
};
