#pragma once

#include <QByteArray>
#include <QList>
#include <QMutex>
#include <QStringList>

#include <thread>

/// A scripted QMP peer on 127.0.0.1 (port 0, so the system picks a free
/// one). It accepts one connection and plays its script step by step: bytes
/// it sends, lines it expects from the client, closing, streaming. Anything
/// the client sends that the script did not expect is recorded as an error.
/// It runs on a thread of its own because the client blocks its thread
/// while it waits for answers.
class FakeQmpServer
{
public:
    struct Step {
        enum class Kind { Send, Expect, Close, Stream };
        Kind kind;
        QByteArray data;   // Send: the bytes; Expect: the line, without "\n"
        qint64 count = 0;  // Stream: how many bytes without a line break
    };

    static Step send(const QByteArray &bytes) { return {Step::Kind::Send, bytes}; }
    static Step expect(const QByteArray &line) { return {Step::Kind::Expect, line}; }
    static Step close() { return {Step::Kind::Close, {}}; }
    static Step stream(qint64 count) { return {Step::Kind::Stream, {}, count}; }

    /// The greeting as the emulator sends it.
    static QByteArray greeting();

    /// Starts listening and serving the script; returns once the port is known.
    explicit FakeQmpServer(const QList<Step> &script);
    /// Waits (bounded) for the script and the connection to end.
    ~FakeQmpServer();
    FakeQmpServer(const FakeQmpServer &) = delete;
    FakeQmpServer &operator=(const FakeQmpServer &) = delete;

    unsigned short port() const { return m_port; }

    /// Waits (bounded) until the client has gone and the script is over,
    /// then returns every deviation from the script.
    QStringList finish();

    /// Bytes of the Stream steps that the client's side accepted.
    qint64 streamedBytes();

private:
    void fail(const QString &error);

    unsigned short m_port = 0;
    std::thread m_thread;
    QMutex m_mutex;
    QStringList m_errors;
    qint64 m_streamed = 0;
};
