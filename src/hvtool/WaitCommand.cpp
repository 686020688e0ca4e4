// hvtool device wait: wait again for a running device's guest, and the wait
// that 'device start --wait' shares.
#include "WaitCommand.h"

#include "Progress.h"

#include <QElapsedTimer>
#include <QJsonObject>

#include <limits>

namespace hvtool {
namespace {

QString phaseText(GuestWait::Phase phase)
{
    switch (phase) {
    case GuestWait::NotRunning:
        return QStringLiteral("the emulator is not running");
    case GuestWait::Booting:
        return QStringLiteral("booting");
    case GuestWait::Connected:
        return QStringLiteral("the guest's port is open, the guest is silent");
    case GuestWait::Answered:
        return QStringLiteral("the guest answered; waiting for its boot to complete (sys.boot_completed)");
    case GuestWait::Booted:
        return QStringLiteral("the guest's boot completed");
    }
    return QStringLiteral("phase %1").arg(int(phase));
}

/// The wait, showing the phase as the engine reaches it and the time so far
/// between its probes.
GuestWait waitShowingProgress(VMToolsEngine *e, VMToolsMachine &machine, qint64 limitMs, Progress *progress)
{
    QString phase;
    const auto redraw = [&] {
        progress->update(0, 0, phase);
        return false;
    };
    return e->waitForGuest(&machine, int(qMin<qint64>(limitMs, std::numeric_limits<int>::max())), redraw,
                           [&](GuestWait::Phase reached) {
                               phase = phaseText(reached);
                               redraw();
                           });
}

int waitCommand(Context &ctx)
{
    bool ok = true;
    const int seconds =
        ctx.isSet(QStringLiteral("timeout")) ? ctx.value(QStringLiteral("timeout")).toInt(&ok) : kDefaultWaitSeconds;
    if (!ok || seconds <= 0)
        return ctx.fail(Usage, QStringLiteral("--timeout needs a whole number of seconds, not '%1'")
                                   .arg(ctx.value(QStringLiteral("timeout"))));
    QElapsedTimer timer;
    timer.start();
    GuestWait wait;
    const int code = awaitGuest(ctx, *ctx.device(), seconds, &wait);
    if (code != Success)
        return code;
    const QString name = ctx.device()->getName();
    return ctx.show({QJsonObject{{"name", name},
                                 {"ready", true},
                                 {"ready_seconds", timer.elapsed() / 1000.0},
                                 {"banner", QString::fromUtf8(wait.banner).trimmed()}},
                     {},
                     {},
                     {QStringLiteral("device '%1' is ready: the guest answered after %2 s")
                          .arg(name, QString::number(timer.elapsed() / 1000.0, 'f', 2))}});
}

/// The console's last lines that the failure of a wait shows under its
/// first line, with the line break before them; empty when it has none.
QString consoleLines(const GuestWait &wait)
{
    const int end = wait.failure.indexOf(QLatin1Char('\n'));
    return end < 0 ? QString() : wait.failure.mid(end);
}

} // namespace

int awaitGuest(Context &ctx, VMToolsMachine &machine, int seconds, GuestWait *wait)
{
    const QString name = machine.getName();
    Progress progress(QStringLiteral("waiting for '%1'").arg(name), 0);
    *wait = waitShowingProgress(ctx.engine(), machine, qint64(seconds) * 1000, &progress);
    // A failure says what was reached in its own line.
    progress.finish(wait->ready() ? QStringLiteral("the guest answered") : QString());
    for (const QString &line : wait->notes)
        ctx.note(line);
    if (wait->ready())
        return Success;
    if (wait->end == GuestWait::RestartFailed)
        return ctx.fail(Failed, QStringLiteral("could not start device '%1': %2").arg(name, wait->failure));
    if (wait->end == GuestWait::TimedOut)
        return ctx.fail(Failed, QStringLiteral("device '%1' runs but its guest did not answer within %2 s (%3); wait "
                                               "again with 'hvtool device wait %1'%4")
                                    .arg(name)
                                    .arg(seconds)
                                    .arg(phaseText(wait->phase), consoleLines(*wait)));
    return ctx.fail(Failed, QStringLiteral("device '%1' started but %2").arg(name, wait->failure));
}

void addWaitCommand()
{
    commands() << Command{{"device", "wait"},
                          "NAME",
                          "Wait until a running device's guest answers, showing how far it has come; for a start "
                          "whose --wait ran out, or one made without it.",
                          {{"timeout",
                            QStringLiteral("Give up after this many seconds (%1).").arg(kDefaultWaitSeconds),
                            "SECONDS"}},
                          1,
                          1,
                          waitCommand,
                          DeviceUse::Read,
                          DeviceState::Running,
                          "device '%1' is not running; start it with 'hvtool device start %1 --wait'"}
                      .withExample("hvtool device wait pixel --timeout 120");
}

} // namespace hvtool
