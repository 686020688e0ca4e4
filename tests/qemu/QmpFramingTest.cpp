#include "QmpFraming_p.h"
#include "QmpProtocol_p.h"

#include <QJsonObject>
#include <QVariantMap>

#include <gtest/gtest.h>

namespace {

// What takeLine gave, written as "line:<text>", "incomplete" or "overlong".
QStringList drain(QmpLineFramer &framer)
{
    QStringList taken;
    for (;;) {
        QByteArray line;
        switch (framer.takeLine(&line)) {
        case QmpLineFramer::Status::Line:
            taken << QStringLiteral("line:") + QString::fromUtf8(line);
            continue;
        case QmpLineFramer::Status::Overlong:
            taken << QStringLiteral("overlong");
            continue;
        case QmpLineFramer::Status::Incomplete:
            taken << QStringLiteral("incomplete");
            return taken;
        }
    }
}

struct FramingCase {
    const char *name;
    QList<QByteArray> chunks;
    QStringList taken; // after all chunks, in order
};

void PrintTo(const FramingCase &c, std::ostream *os) { *os << c.name; }

class QmpFraming : public ::testing::TestWithParam<FramingCase> {};

TEST_P(QmpFraming, cutsStreamIntoLines)
{
    QmpLineFramer framer(8);
    QStringList taken;
    for (const QByteArray &chunk : GetParam().chunks) {
        framer.append(chunk);
        taken += drain(framer);
    }
    taken.removeAll(QStringLiteral("incomplete"));
    EXPECT_EQ(taken, GetParam().taken);
}

const FramingCase framingCases[] = {
    {"oneLine", {"abc\n"}, {"line:abc"}},
    {"lineInPieces", {"a", "b", "c\r\n"}, {"line:abc"}},
    {"twoLinesInOneChunk", {"a\nb\n"}, {"line:a", "line:b"}},
    {"trimsWhiteSpace", {"  {} \r\n"}, {"line:{}"}},
    {"noLineBreakYet", {"abc"}, {}},
    {"lineAtTheLimit", {"12345678\n"}, {"line:12345678"}},
    {"atTheLimitWithoutBreakWaits", {"1234", "5678"}, {}},
    {"pastTheLimitWithoutBreak", {"1234", "56789"}, {"overlong"}},
    {"lineBreakTooLate", {"123456789\n"}, {"overlong"}},
    {"lineThenOverlongTail", {"ok\n123456789"}, {"line:ok", "overlong"}},
    {"recoversAfterOverlong", {"123456789", "next\n"}, {"overlong", "line:next"}},
};

INSTANTIATE_TEST_SUITE_P(Table, QmpFraming, ::testing::ValuesIn(framingCases),
                         [](const ::testing::TestParamInfo<FramingCase> &info) { return info.param.name; });

TEST(QmpFramingLimit, holdsNoMoreThanOneLineAndOneChunk)
{
    QmpLineFramer framer;
    const int limit = QmpLineFramer::DefaultMaxLineLength;
    const QByteArray chunk(64 * 1024, 'x');
    qint64 fed = 0;
    int largest = 0;
    QmpLineFramer::Status status = QmpLineFramer::Status::Incomplete;
    while (status == QmpLineFramer::Status::Incomplete && fed < 2LL * limit) {
        framer.append(chunk);
        fed += chunk.size();
        largest = qMax(largest, framer.bufferedSize());
        QByteArray line;
        status = framer.takeLine(&line);
    }
    EXPECT_EQ(status, QmpLineFramer::Status::Overlong);
    EXPECT_GT(fed, limit);
    EXPECT_LE(fed, limit + chunk.size());
    EXPECT_LE(largest, limit + chunk.size());
    EXPECT_EQ(framer.bufferedSize(), 0);
}

TEST(QmpFramingLimit, acceptsLineOfExactly16MiB)
{
    QmpLineFramer framer;
    framer.append(QByteArray(QmpLineFramer::DefaultMaxLineLength, 'x') + '\n');
    QByteArray line;
    ASSERT_EQ(framer.takeLine(&line), QmpLineFramer::Status::Line);
    EXPECT_EQ(line.size(), 16 * 1024 * 1024);
}

TEST(QmpProtocol, encodesCommandAsOneCompactLine)
{
    QVariantMap arguments;
    arguments.insert(QStringLiteral("command-line"), QStringLiteral("savevm latest"));
    QVariantMap command;
    command.insert(QStringLiteral("execute"), QStringLiteral("human-monitor-command"));
    command.insert(QStringLiteral("arguments"), arguments);
    EXPECT_EQ(QmpProtocol::encodeCommand(command),
              QByteArray(R"({"arguments":{"command-line":"savevm latest"},"execute":"human-monitor-command"})"
                         "\n"));
}

struct MessageCase {
    const char *line;
    const char *error; // empty when the line is a message
    bool greeting;
    bool event;
};

class QmpMessage : public ::testing::TestWithParam<MessageCase> {};

TEST_P(QmpMessage, isClassified)
{
    const MessageCase &c = GetParam();
    QJsonObject message;
    QString error;
    EXPECT_EQ(QmpProtocol::parseMessage(c.line, &message, &error), *c.error == 0);
    EXPECT_EQ(error, QString::fromLatin1(c.error));
    EXPECT_EQ(QmpProtocol::isGreeting(message), c.greeting);
    EXPECT_EQ(QmpProtocol::isEvent(message), c.event);
}

INSTANTIATE_TEST_SUITE_P(
    Table, QmpMessage,
    ::testing::Values(MessageCase{R"({"QMP": {"version": {}, "capabilities": []}})", "", true, false},
                      MessageCase{R"({"QMP": "text"})", "", false, false},
                      MessageCase{R"({"timestamp": {"seconds": 1}, "event": "STOP"})", "", false, true},
                      MessageCase{R"({"return": {}})", "", false, false},
                      MessageCase{"[]", "not a JSON object", false, false},
                      MessageCase{"{}", "empty JSON object", false, false},
                      MessageCase{"QMP", "illegal value", false, false},
                      MessageCase{"", "illegal value", false, false}));

} // namespace
