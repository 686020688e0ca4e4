// hvtool device screenshot and device logs: what a device shows of itself,
// through the engine interface.
#include "Command.h"

#include "ConsoleRead.h"
#include "VMToolsEngine.h"
#include "VMToolsMachine.h"

#include <QDateTime>
#include <QFile>
#include <QFileInfo>
#include <QJsonObject>
#include <QSize>
#include <QThread>
#include <QtEndian>

namespace hvtool {
namespace {

/// How often a followed log is read again.
constexpr int kFollowPollMs = 500;

/// Reads a log from a position on.
using LogReader = std::function<ConsoleRead(qint64 from)>;

/// The width and height in a PNG image's header; empty when it has none.
QSize pngSize(const QString &file)
{
    QFile image(file);
    const QByteArray header = image.open(QIODevice::ReadOnly) ? image.read(24) : QByteArray();
    if (header.size() < 24 || header.mid(12, 4) != "IHDR")
        return QSize();
    const auto *bytes = reinterpret_cast<const uchar *>(header.constData());
    return QSize(int(qFromBigEndian<quint32>(bytes + 16)), int(qFromBigEndian<quint32>(bytes + 20)));
}

int screenshot(Context &ctx)
{
    const QString name = ctx.device()->getName();
    const QString stamp = QDateTime::currentDateTime().toString(QStringLiteral("yyyyMMdd-HHmmss"));
    const QString file =
        QFileInfo(ctx.args().size() > 1 ? ctx.arg(1) : QStringLiteral("%1-%2.png").arg(name, stamp)).absoluteFilePath();
    QString error;
    if (!ctx.engine()->saveScreenshot(ctx.device(), file, &error))
        return ctx.fail(Failed, QStringLiteral("no screenshot of device '%1': %2").arg(name, error));
    const QSize size = pngSize(file);
    const QJsonObject object{{"device", name}, {"file", file}, {"width", size.width()}, {"height", size.height()}};
    return ctx.show({object, {}, {}, {QStringLiteral("saved the screen of '%1' (%2x%3) to %4")
                                          .arg(name)
                                          .arg(size.width())
                                          .arg(size.height())
                                          .arg(file)}});
}

/// The emulator's own output from a position on; a file shorter than that
/// (a new start wrote it again) is read from its beginning.
ConsoleRead readFile(const QString &path, qint64 from)
{
    ConsoleRead read;
    QFile file(path);
    read.available = true;
    if (!file.open(QIODevice::ReadOnly))
        return read;
    read.next = file.size();
    if (from > read.next)
        from = 0;
    file.seek(from);
    read.text = file.readAll();
    read.next = from + read.text.size();
    return read;
}

/// Prints the complete lines of what was read; an unfinished last line
/// waits in pending for the rest, unless finish.
void printLines(Context &ctx, const QByteArray &bytes, QString *pending, bool finish)
{
    QString text = *pending + ConsoleRead::printable(bytes);
    const int end = finish ? text.size() : text.lastIndexOf(QLatin1Char('\n')) + 1;
    *pending = text.mid(end);
    text.truncate(end);
    if (text.endsWith(QLatin1Char('\n')))
        text.chop(1);
    if (!text.isEmpty())
        ctx.show({QJsonValue(), {}, {}, {text}});
}

/// Prints what the log gains until the device stops, then what it gained
/// last.
int follow(Context &ctx, const LogReader &reader, qint64 from)
{
    VMToolsMachine &machine = *ctx.device();
    QString pending;
    bool running = true;
    while (running) {
        QThread::msleep(kFollowPollMs);
        running = machine.getStatus() != VMToolsMachine::Off;
        const ConsoleRead read = reader(from);
        if (!read.available)
            continue;
        printLines(ctx, read.text, &pending, !running);
        from = read.next;
    }
    ctx.note(QStringLiteral("device '%1' stopped").arg(machine.getName()));
    return Success;
}

int logs(Context &ctx)
{
    VMToolsEngine *e = ctx.engine();
    VMToolsMachine *machine = ctx.device();
    const bool emulator = ctx.isSet(QStringLiteral("emulator"));
    const QString path = e->logPath(machine, emulator);
    const LogReader reader = emulator ? LogReader([path](qint64 from) { return readFile(path, from); })
                                      : LogReader([e, machine](qint64 from) { return e->readConsole(machine, from); });
    const ConsoleRead read = reader(0);
    if (!read.available)
        return ctx.fail(Failed, QStringLiteral("cannot read the console of device '%1'").arg(machine->getName()));
    if (ctx.json())
        return ctx.show({QJsonObject{{"device", machine->getName()}, {"log", path},
                                     {"text", ConsoleRead::printable(read.text)}},
                         {}, {}, {}});
    QString pending;
    printLines(ctx, read.text, &pending, !ctx.isSet(QStringLiteral("follow")));
    if (ctx.isSet(QStringLiteral("follow")) && machine->getStatus() != VMToolsMachine::Off)
        return follow(ctx, reader, read.next);
    // Something shows even then: where the output will be.
    if (read.text.isEmpty())
        ctx.show({QJsonValue(), {}, {}, {QStringLiteral("nothing in %1 yet").arg(path)}});
    return Success;
}

int checkLogsArguments(Context &ctx)
{
    if (ctx.isSet(QStringLiteral("follow")) && ctx.json())
        return ctx.fail(Usage, QStringLiteral("--follow prints lines as they come and cannot be one JSON document"));
    return Success;
}

} // namespace

void addViewCommands()
{
    commands()
        << Command{{"device", "screenshot"},
                   "NAME [FILE]",
                   "Save the running device's screen as a PNG image (by default NAME-date-time.png here).",
                   {},
                   1,
                   2,
                   screenshot,
                   DeviceUse::Read,
                   DeviceState::Running,
                   "device '%1' is not running; start it to take a screenshot"}
                  .withExample("hvtool device screenshot pixel pixel.png")
        << Command{{"device", "logs"},
                   "NAME",
                   "Show what the device's guest wrote on its console in its current or last run.",
                   {{"follow", "Go on printing what comes until the device stops."},
                    {"emulator", "Show the emulator's own output instead."}},
                   1,
                   1,
                   logs,
                   DeviceUse::Read,
                   DeviceState::Any,
                   QString(),
                   checkLogsArguments}
                  .withExample("hvtool device logs pixel --follow");
}

} // namespace hvtool
