#include "Progress.h"

#include <cstdio>
#include <unistd.h>

namespace hvtool {
namespace {

// Steps shorter than this show nothing.
constexpr qint64 kQuietMs = 1000;
// A terminal is redrawn this often; a log gets a line this often.
constexpr qint64 kTerminalMs = 100;
constexpr qint64 kLogMs = 5000;

QString secondsText(qint64 ms)
{
    return QString::number(ms / 1000.0, 'f', 1) + QStringLiteral(" s");
}

} // namespace

Progress::Progress(const QString &label, qint64 total)
    : m_label(label)
    , m_total(total)
    , m_terminal(::isatty(STDERR_FILENO))
{
    m_started.start();
}

Progress::~Progress()
{
    finish();
}

QString Progress::text(qint64 done) const
{
    QString line = m_phase.isEmpty() ? m_label : m_label + QStringLiteral(": ") + m_phase;
    if (m_total <= 0)
        return line + QStringLiteral(", ") + QString::number(m_started.elapsed() / 1000) + QStringLiteral(" s");
    const int percent = int(qBound<qint64>(0, done * 100 / m_total, 100));
    if (!m_terminal)
        return line + QStringLiteral(", %1%").arg(percent);
    const int width = 30;
    const int filled = percent * width / 100;
    return line + QStringLiteral(" [%1%2] %3%")
                      .arg(QString(filled, QLatin1Char('#')), QString(width - filled, QLatin1Char('.')))
                      .arg(percent, 3);
}

void Progress::update(qint64 done)
{
    if (m_finished || m_started.elapsed() < kQuietMs)
        return;
    const bool newPhase = !m_shown || m_phase != m_shownPhase;
    if (m_shown && !newPhase && m_sinceDraw.elapsed() < (m_terminal ? kTerminalMs : kLogMs))
        return;
    m_sinceDraw.restart();
    m_shown = true;
    m_shownPhase = m_phase;
    if (m_terminal)
        std::fprintf(stderr, "\r\033[K%s", qPrintable(text(done)));
    else
        std::fprintf(stderr, "%s\n", qPrintable(text(done)));
    std::fflush(stderr);
}

void Progress::update(qint64 done, qint64 total, const QString &phase)
{
    m_total = total;
    m_phase = phase;
    update(done);
}

void Progress::finish()
{
    finish(QStringLiteral("done in ") + secondsText(m_started.elapsed()));
}

void Progress::finish(const QString &outcome)
{
    if (m_finished)
        return;
    m_finished = true;
    if (!m_shown)
        return;
    if (outcome.isEmpty())
        std::fprintf(stderr, "%s", m_terminal ? "\r\033[K" : "");
    else
        std::fprintf(stderr, "%s%s: %s\n", m_terminal ? "\r\033[K" : "", qPrintable(m_label), qPrintable(outcome));
    std::fflush(stderr);
}

ProgressTicker::ProgressTicker(const QString &label)
    : m_progress(label, 0)
    , m_drawer([this] {
        std::unique_lock<std::mutex> lock(m_mutex);
        while (!m_woken.wait_for(lock, std::chrono::milliseconds(kTerminalMs), [this] { return m_over; }))
            m_progress.update(0);
    })
{
}

ProgressTicker::~ProgressTicker()
{
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_over = true;
    }
    m_woken.notify_one();
    m_drawer.join();
    m_progress.finish();
}

} // namespace hvtool
