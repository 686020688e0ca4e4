#include "QEMUConsoleLog_p.h"

#include "FakeQmpServer.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace {

// One drain: the emulator's buffer holds bytes.
bool drain(const QEMUConsoleLog &console, const QByteArray &bytes)
{
    FakeQmpServer emulator({FakeQmpServer::send(FakeQmpServer::greeting()),
                            FakeQmpServer::expect(R"({"execute":"qmp_capabilities"})"),
                            FakeQmpServer::send("{\"return\": {}}\r\n"),
                            FakeQmpServer::expect(R"({"arguments":{"device":"console","format":"base64","size":2048},)"
                                                  R"("execute":"ringbuf-read"})"),
                            FakeQmpServer::send("{\"return\": \"" + bytes.toBase64() + "\"}\r\n")});
    const bool drained = console.drain(emulator.path());
    const QStringList errors = emulator.finish();
    EXPECT_EQ(errors.join("; ").toStdString(), "");
    return errors.isEmpty() && drained;
}

} // namespace

// The kept console stays within its cap however much the guest prints, and
// a reader that follows it by position loses its place neither when the
// front is trimmed nor when a new run starts.
TEST(QEMUConsoleLog, staysWithinItsCapAndKeepsPositions)
{
    qputenv("HV_CONSOLE_LOG_BYTES", "4096");
    QTemporaryDir dir;
    const QEMUConsoleLog console(dir.path());
    ASSERT_TRUE(drain(console, "boot line\n"));
    EXPECT_EQ(console.read(0).text, "boot line\n");
    qint64 position = console.read(0).next;
    QByteArray chunk;
    for (int round = 0; round < 8; ++round) {
        chunk = QByteArray(999, char('a' + round)) + '\n';
        ASSERT_TRUE(drain(console, chunk));
        EXPECT_LE(QFile(dir.filePath("console.log")).size(), 4096);
        const ConsoleRead read = console.read(position);
        EXPECT_EQ(read.text, chunk);
        EXPECT_EQ(read.next, position + chunk.size());
        position = read.next;
    }
    // Everything from the start: the dropped bytes counted, the rest whole.
    const ConsoleRead all = console.read(0);
    const QByteArray kept = all.text.mid(all.text.indexOf('\n') + 1);
    EXPECT_EQ(all.text.left(all.text.indexOf('\n') + 1),
              "[" + QByteArray::number(all.next - kept.size()) + " bytes of earlier console output dropped]\n");
    EXPECT_TRUE(kept.endsWith(chunk));
    // A follower that fell behind the trim is told how much it missed.
    EXPECT_TRUE(console.read(10).text.startsWith("[" + QByteArray::number(all.next - kept.size() - 10) + " bytes"));
    // The next run starts a new file; the last run's stays beside it.
    console.rotate();
    ASSERT_TRUE(drain(console, "second run\n"));
    EXPECT_EQ(console.read(position).text, "second run\n");
    QFile previous(dir.filePath("console.log.1"));
    EXPECT_TRUE(previous.open(QIODevice::ReadOnly) && previous.readAll().endsWith(chunk));
    qunsetenv("HV_CONSOLE_LOG_BYTES");
}
