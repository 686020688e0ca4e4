#include "QEMUClient.h"

#include "FakeQmpServer.h"
#include "MessageCapture.h"

#include <QTemporaryDir>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>

using hvtest::LogLine;
using hvtest::MessageCapture;
using Step = FakeQmpServer::Step;

namespace {

const QByteArray Capabilities = R"({"execute":"qmp_capabilities"})";
const QByteArray Quit = R"({"execute":"quit"})";
const QByteArray DriveDel = R"({"arguments":{"command-line":"drive_del shared"},"execute":"human-monitor-command"})";
const QByteArray SaveVm = R"({"arguments":{"command-line":"savevm latest"},"execute":"human-monitor-command"})";
const QByteArray EmptyReturn = "{\"return\": {}}\r\n";
const QByteArray EmptyText = "{\"return\": \"\"}\r\n";
const QByteArray StopEvent = R"({"timestamp": {"seconds": 1795313671, "microseconds": 799499}, "event": "STOP"})" "\r\n";
const QByteArray ShutdownEvent = R"({"timestamp": {"seconds": 1795313671, "microseconds": 847719}, "event": "SHUTDOWN", )"
                                 R"("data": {"guest": false, "reason": "host-qmp-quit"}})" "\r\n";
constexpr qint64 MaxLine = 16 * 1024 * 1024;
const auto send = FakeQmpServer::send;
const auto expect = FakeQmpServer::expect;
const Step Greeting = send(FakeQmpServer::greeting());

// The greeting, the capabilities and their acceptance, then the rest.
QList<Step> ready(const QList<Step> &then)
{
    return QList<Step>{Greeting, expect(Capabilities), send(EmptyReturn)} + then;
}

// An event every tenth of a second for two seconds, then the answer.
QList<Step> eventsThenAnswer()
{
    QList<Step> steps{Greeting, expect(Capabilities)};
    for (int i = 0; i < 20; ++i)
        steps << FakeQmpServer::pause(100) << send(StopEvent);
    return steps << send(EmptyReturn);
}

QString line(const QString &text)
{
    return "[VMTools] QEMUClient: " + text;
}

struct ExchangeCase {
    const char *name;
    QList<Step> script;
    std::function<bool(QEMUClient &)> action;
    bool result;
    QList<LogLine> lines; // each must have been logged with exactly this level
};

void PrintTo(const ExchangeCase &c, std::ostream *os) { *os << c.name; }

const auto doInit = [](QEMUClient &client) { return client.init(); };
const auto doQuit = [](QEMUClient &client) { return client.execQuit(); };
const auto doSave = [](QEMUClient &client) { return client.execSaveSnapshot("latest", false); };
const auto doUnplugAndSave = [](QEMUClient &client) { return client.execSaveSnapshot("latest", true); };

class QEMUClientExchange : public ::testing::TestWithParam<ExchangeCase> {};

TEST_P(QEMUClientExchange, givesResultAndLogLine)
{
    const ExchangeCase &c = GetParam();
    FakeQmpServer server(c.script);
    ASSERT_NE(server.path(), 0);
    MessageCapture capture;
    EXPECT_EQ(c.action(*std::make_unique<QEMUClient>(server.path())), c.result);
    for (const LogLine &expected : c.lines)
        EXPECT_TRUE(capture.has(expected.type, expected.text));
    // An exchange that succeeds is nothing to warn about.
    if (c.result) {
        EXPECT_TRUE(capture.noneAtOrAbove(QtWarningMsg));
    }
    EXPECT_THAT(server.finish(), ::testing::IsEmpty());
}

const QString TooLong = line(R"(failed to parse response as JSON "line longer than 16777216 bytes")");
const QString BadInit = line("bad message during initialization");

const ExchangeCase exchangeCases[] = {
    {"greetingNeverArrives", {}, doInit, false, {{QtCriticalMsg, line("timeout during initialization")}}},
    {"greetingNotJson", {send("Welcome to the monitor\r\n")}, doInit, false, {{QtCriticalMsg, BadInit}}},
    {"greetingWithoutQmpObject", {send(EmptyReturn)}, doInit, false, {{QtCriticalMsg, BadInit}}},
    {"greetingInPieces",
     {send(FakeQmpServer::greeting().left(25)), send(FakeQmpServer::greeting().mid(25)), expect(Capabilities),
      send(EmptyReturn)},
     doInit, true,
     {{QtDebugMsg, line("enabling QMP capabilities")},
      {QtDebugMsg, line(R"(request "{\"execute\":\"qmp_capabilities\"}\n")")}}},
    {"eventsBeforeAnswerAreSkipped", {Greeting, expect(Capabilities), send(StopEvent), send(StopEvent), send(EmptyReturn)},
     doInit, true, {{QtDebugMsg, line(R"(response "{\"return\": {}}")")}}},
    {"eventsAndAnswerInOneSegment", {Greeting, expect(Capabilities), send(StopEvent + StopEvent + EmptyReturn)}, doInit,
     true, {}},
    {"replyWithoutReturn",
     {Greeting, expect(Capabilities), send(R"({"error": {"class": "CommandNotFound", "desc": "no such command"}})" "\r\n")},
     doInit, false,
     {{QtDebugMsg, line(R"(error returned from QMP QJsonValue(object, QJsonObject({"class":"CommandNotFound","desc":"no such command"})))")},
      {QtWarningMsg, line("failed to enable QMP capabilities")}}},
    {"noAnswerWithinTimeout", {Greeting, expect(Capabilities)}, doInit, false,
     {{QtDebugMsg, line("error returned from QMP QJsonValue(undefined)")},
      {QtWarningMsg, line("failed to enable QMP capabilities")}}},
    // The capabilities' one second holds however many events come.
    {"eventsDoNotStretchTheWait", eventsThenAnswer(), doInit, false,
     {{QtWarningMsg, line("failed to enable QMP capabilities")}}},
    {"answerNotJson", {Greeting, expect(Capabilities), send("return ok\r\n")}, doInit, false,
     {{QtCriticalMsg, line(R"(failed to parse response as JSON "illegal value")")}}},
    {"quitClosedWithoutAnswer", ready({expect(Quit), FakeQmpServer::close()}), doQuit, true,
     {{QtDebugMsg, line("sending quit command")},
      {QtDebugMsg, line("did not received response from QMP but it's expected.")}}},
    {"quitEventThenClosed", ready({expect(Quit), send(ShutdownEvent), FakeQmpServer::close()}), doQuit, true,
     {{QtDebugMsg, line("did not received response from QMP but it's expected.")}}},
    {"quitRefused", ready({expect(Quit), send(R"({"error": {"class": "GenericError", "desc": "busy"}})" "\r\n")}), doQuit,
     false, {{QtWarningMsg, line("failed to quit")}}},
    {"savevmAnswersErrorText",
     ready({expect(SaveVm), send(R"({"return": "Error: Device 'shared' does not support live migration\r\n"})" "\r\n")}),
     doSave, false,
     {{QtDebugMsg, line("saving snapshot")},
      {QtCriticalMsg, line(R"(QEMU returned QJsonValue(string, "Error: Device 'shared' does not support live migration\r\n"))"
                           R"( while we expected QJsonValue(string, ""))")},
      {QtWarningMsg, line("failed to save snapshot")}}},
    {"savevmAfterUnplug", ready({expect(DriveDel), send(EmptyText), expect(SaveVm), send(StopEvent + EmptyText)}),
     doUnplugAndSave, true, {{QtDebugMsg, line("unplugging shared folder")}, {QtDebugMsg, line("saving snapshot")}}},
    // A drive an interrupted save already took away counts as detached.
    {"unplugOfAGoneDriveSaves",
     ready({expect(DriveDel), send(R"({"return": "Device 'shared' not found\r\n"})" "\r\n"), expect(SaveVm),
            send(EmptyText)}),
     doUnplugAndSave, true, {{QtDebugMsg, line("shared folder already unplugged")}}},
    {"unplugRefused", ready({expect(DriveDel), send(R"({"return": "Error: drive is in use\r\n"})" "\r\n")}),
     doUnplugAndSave, false,
     {{QtWarningMsg, line(R"(failed to unplug shared folder: QJsonValue(string, "Error: drive is in use\r\n"))")}}},
    {"greetingStreamsWithoutLineBreak", {FakeQmpServer::stream(3 * MaxLine)}, doInit, false, {{QtCriticalMsg, TooLong}}},
};

INSTANTIATE_TEST_SUITE_P(FakeServer, QEMUClientExchange, ::testing::ValuesIn(exchangeCases),
                         [](const ::testing::TestParamInfo<ExchangeCase> &info) { return info.param.name; });

TEST(QEMUClient, answerStreamIsCutAtTheLineLimit)
{
    FakeQmpServer server(ready({expect(Quit), FakeQmpServer::stream(3 * MaxLine)}));
    MessageCapture capture;
    EXPECT_FALSE(QEMUClient(server.path()).execQuit());
    EXPECT_TRUE(capture.has(QtCriticalMsg, TooLong));
    EXPECT_TRUE(capture.has(QtWarningMsg, line("failed to quit")));
    EXPECT_THAT(server.finish(), ::testing::IsEmpty());
    // The client read past the limit before giving up, and stopped reading
    // long before the stream's end.
    EXPECT_GT(server.streamedBytes(), MaxLine);
    EXPECT_LT(server.streamedBytes(), 3 * MaxLine);
}

TEST(QEMUClient, refusesWorkWithoutAConnection)
{
    QTemporaryDir dir;
    MessageCapture capture;
    QEMUClient client(dir.filePath("qmp.sock"));
    EXPECT_FALSE(client.exec(QVariantMap{{"execute", "quit"}}, QVariant(), 100, QEMUClient::ResponseOptional));
    EXPECT_TRUE(capture.has(QtCriticalMsg, line("not connected")));
    EXPECT_FALSE(client.init());
    EXPECT_TRUE(capture.has(QtCriticalMsg, line("connection timeout")));
    EXPECT_TRUE(capture.hasContaining(QtWarningMsg, line("unexpected error")));
}

// A socket address holds 107 bytes: a longer path would be cut short and
// could name another socket, so the client never connects to it.
TEST(QEMUClient, refusesASocketPathLongerThanAnAddressHolds)
{
    const QString path = "/tmp/" + QString(103, 'd');
    MessageCapture capture;
    EXPECT_FALSE(QEMUClient(path + "/qmp").execQuit());
    EXPECT_TRUE(capture.has(QtCriticalMsg, line("socket path too long \"" + path + "/qmp\"")));
}

} // namespace
