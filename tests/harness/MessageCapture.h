#pragma once

#include <QList>
#include <QString>
#include <QtGlobal>

#include <gtest/gtest.h>

#include <ostream>

namespace hvtest {

/// One log line as the message handler saw it.
struct LogLine {
    QtMsgType type;
    QString text;
    bool operator==(const LogLine &other) const { return type == other.type && text == other.text; }
};

void PrintTo(const LogLine &line, std::ostream *os);

/// Captures every Qt log line emitted while it lives (from any thread), so
/// tests can assert the exact text and level. Captures nest: the previous
/// handler comes back when the capture is destroyed.
class MessageCapture
{
public:
    /// With forward set, lines are also passed on to the previous handler.
    explicit MessageCapture(bool forward = false);
    ~MessageCapture();
    MessageCapture(const MessageCapture &) = delete;
    MessageCapture &operator=(const MessageCapture &) = delete;

    QList<LogLine> lines() const;
    /// The texts logged at the given level, in order.
    QStringList texts(QtMsgType type) const;
    void clear();

    /// Success when a line with exactly this level and text was logged; the
    /// failure message lists everything that was captured.
    ::testing::AssertionResult has(QtMsgType type, const QString &text) const;
    /// Same, but the text only has to contain the fragment.
    ::testing::AssertionResult hasContaining(QtMsgType type, const QString &fragment) const;
    /// Success when nothing was logged at this level or above.
    ::testing::AssertionResult noneAtOrAbove(QtMsgType type) const;

private:
    std::string dump() const;
};

const char *levelName(QtMsgType type);

} // namespace hvtest

#define EXPECT_LOG(capture, type, text) EXPECT_TRUE((capture).has((type), (text)))
