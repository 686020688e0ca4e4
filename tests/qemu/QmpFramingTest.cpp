#include "QmpFraming_p.h"
#include "QmpProtocol_p.h"

#include <QJsonObject>
#include <QVariantMap>

#include <gtest/gtest.h>

namespace {

// Chunks fed to a framer of 8 bytes a line; what takeLine gave after each,
// as "line:<text>" or "overlong".
TEST(QmpFraming, cutsTheStreamIntoLinesOfBoundedLength)
{
    const QList<QPair<QList<QByteArray>, QStringList>> rows = {
        {{"abc\n"}, {"line:abc"}},
        {{"a", "b", "c\r\n"}, {"line:abc"}},
        {{"a\nb\n"}, {"line:a", "line:b"}},
        {{"  {} \r\n"}, {"line:{}"}},
        {{"abc"}, {}},
        {{"12345678\n"}, {"line:12345678"}},
        {{"1234", "5678"}, {}}, // at the limit without a break: waits
        {{"1234", "56789"}, {"overlong"}},
        {{"123456789\n"}, {"overlong"}},
        {{"ok\n123456789"}, {"line:ok", "overlong"}},
        {{"123456789", "next\n"}, {"overlong", "line:next"}},
    };
    for (const auto &row : rows) {
        QmpLineFramer framer(8);
        QStringList taken;
        for (const QByteArray &chunk : row.first) {
            framer.append(chunk);
            for (;;) {
                QByteArray line;
                const QmpLineFramer::Status status = framer.takeLine(&line);
                if (status == QmpLineFramer::Status::Incomplete)
                    break;
                taken << (status == QmpLineFramer::Status::Line ? "line:" + QString::fromUtf8(line) : "overlong");
            }
        }
        EXPECT_EQ(taken, row.second) << row.first.join('|').constData();
    }
}

TEST(QmpFraming, defaultLimitIs16MiBAndHoldsNoMoreThanOneLineAndOneChunk)
{
    QmpLineFramer exact;
    exact.append(QByteArray(QmpLineFramer::DefaultMaxLineLength, 'x') + '\n');
    QByteArray line;
    ASSERT_EQ(exact.takeLine(&line), QmpLineFramer::Status::Line);
    EXPECT_EQ(line.size(), 16 * 1024 * 1024);

    QmpLineFramer framer;
    const QByteArray chunk(64 * 1024, 'x');
    qint64 fed = 0;
    int largest = 0;
    QmpLineFramer::Status status = QmpLineFramer::Status::Incomplete;
    while (status == QmpLineFramer::Status::Incomplete && fed < 2LL * QmpLineFramer::DefaultMaxLineLength) {
        framer.append(chunk);
        fed += chunk.size();
        largest = qMax(largest, framer.bufferedSize());
        status = framer.takeLine(&line);
    }
    EXPECT_EQ(status, QmpLineFramer::Status::Overlong);
    EXPECT_GT(fed, QmpLineFramer::DefaultMaxLineLength);
    EXPECT_LE(fed, QmpLineFramer::DefaultMaxLineLength + chunk.size());
    EXPECT_LE(largest, QmpLineFramer::DefaultMaxLineLength + chunk.size());
    EXPECT_EQ(framer.bufferedSize(), 0);
}

TEST(QmpProtocol, encodesCommandsAndClassifiesMessages)
{
    const QVariantMap command{{"execute", "human-monitor-command"},
                              {"arguments", QVariantMap{{"command-line", "savevm latest"}}}};
    EXPECT_EQ(QmpProtocol::encodeCommand(command),
              QByteArray(R"({"arguments":{"command-line":"savevm latest"},"execute":"human-monitor-command"})" "\n"));

    const struct {
        const char *line;
        QString error; // empty when the line is a message
        bool greeting, event;
    } rows[] = {{R"({"QMP": {"version": {}, "capabilities": []}})", "", true, false},
                {R"({"QMP": "text"})", "", false, false},
                {R"({"timestamp": {"seconds": 1}, "event": "STOP"})", "", false, true},
                {R"({"return": {}})", "", false, false},
                {"[]", "not a JSON object", false, false},
                {"{}", "empty JSON object", false, false},
                {"QMP", "illegal value", false, false},
                {"", "illegal value", false, false}};
    for (const auto &row : rows) {
        QJsonObject message;
        QString error;
        EXPECT_EQ(QmpProtocol::parseMessage(row.line, &message, &error), row.error.isEmpty()) << row.line;
        EXPECT_EQ(error, row.error) << row.line;
        EXPECT_EQ(QmpProtocol::isGreeting(message), row.greeting) << row.line;
        EXPECT_EQ(QmpProtocol::isEvent(message), row.event) << row.line;
    }
}

} // namespace
