#include "Progress.h"

#include <cstdio>
#include <unistd.h>

namespace hvtool {

Progress::Progress(const QString &label, qint64 total)
    : m_label(label)
    , m_total(total)
    , m_terminal(::isatty(STDERR_FILENO))
{
    m_started.start();
    m_sinceDraw.start();
    if (!m_terminal) {
        std::fprintf(stderr, "%s...\n", qPrintable(m_label));
        std::fflush(stderr);
    }
}

Progress::~Progress()
{
    finish();
}

void Progress::update(qint64 done) const
{
    // A terminal redraws often; a log file gets a line every five seconds.
    const qint64 interval = m_terminal ? 100 : 5000;
    if (m_sinceDraw.elapsed() < interval)
        return;
    m_sinceDraw.restart();
    const int percent = m_total > 0 ? int(qBound<qint64>(0, done * 100 / m_total, 100)) : -1;
    const QString label = m_step.isEmpty() ? m_label : m_label + QStringLiteral(", ") + m_step;
    if (m_terminal && percent < 0) {
        std::fprintf(stderr, "\r%s: %.1f MiB written, %lld s", qPrintable(label), done / 1048576.0,
                     m_started.elapsed() / 1000);
    } else if (m_terminal) {
        const int width = 30;
        const int filled = percent < 0 ? 0 : percent * width / 100;
        std::fprintf(stderr, "\r%s [%s%s] %3d%%", qPrintable(label), QByteArray(filled, '#').constData(),
                     QByteArray(width - filled, '.').constData(), qMax(percent, 0));
    } else if (percent >= 0) {
        std::fprintf(stderr, "%s: %d%%\n", qPrintable(label), percent);
    } else {
        std::fprintf(stderr, "%s: %.1f MiB written, %lld s\n", qPrintable(label), done / 1048576.0,
                     m_started.elapsed() / 1000);
    }
    std::fflush(stderr);
}

void Progress::update(qint64 done, qint64 total, const QString &step)
{
    m_total = total;
    m_step = step;
    update(done);
}

void Progress::finish()
{
    if (m_finished)
        return;
    m_finished = true;
    if (m_terminal)
        std::fprintf(stderr, "\r%s done in %.1f s%s\n", qPrintable(m_label), m_started.elapsed() / 1000.0,
                     QByteArray(24, ' ').constData());
    else
        std::fprintf(stderr, "%s: done in %.1f s\n", qPrintable(m_label), m_started.elapsed() / 1000.0);
    std::fflush(stderr);
}

} // namespace hvtool
