#pragma once

#include <QByteArray>

/// Cuts the byte stream of a QMP connection into lines: one JSON object per
/// line, ended by "\n". It knows nothing of what the lines mean. A line may
/// be at most maxLineLength bytes long; the framer never holds more than that
/// plus the last chunk it was given, so a peer that streams without a line
/// break cannot make the client buffer without bound.
class QmpLineFramer
{
public:
    /// The longest line the client accepts (16 MiB), line break excluded.
    static constexpr int DefaultMaxLineLength = 16 * 1024 * 1024;

    enum class Status {
        Incomplete, ///< no whole line buffered yet: more bytes are needed
        Line,       ///< a whole line was taken
        Overlong    ///< the current line exceeds the limit; the buffer was dropped
    };

    explicit QmpLineFramer(int maxLineLength = DefaultMaxLineLength);

    /// Adds bytes received from the peer.
    void append(const QByteArray &data);

    /// Takes the next whole line, without its line break and trimmed of
    /// surrounding white space. Overlong is reported once the buffered
    /// bytes prove the current line too long, with or without a line break;
    /// everything buffered is then dropped.
    Status takeLine(QByteArray *line);

    /// Bytes currently held.
    int bufferedSize() const { return m_buffer.size(); }
    int maxLineLength() const { return m_maxLineLength; }

private:
    QByteArray m_buffer;
    // Bytes of m_buffer already searched for a line break, so a long line
    // arriving in many chunks is scanned once rather than once per chunk.
    int m_scanned = 0;
    int m_maxLineLength;
};
