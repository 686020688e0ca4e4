#pragma once

#include <QElapsedTimer>
#include <QString>

#include <condition_variable>
#include <mutex>
#include <thread>

namespace hvtool {

/// Progress of a long step on stderr. A step that ends within a second shows
/// nothing. On a terminal one line is redrawn in place: the phase, then a
/// bar and the percent when the amount of work is known, else the time so
/// far. Otherwise plain lines: one when the phase changes and one every few
/// seconds, never a control character.
class Progress
{
public:
    /// total: the amount of work, or 0 when unknown.
    Progress(const QString &label, qint64 total);
    ~Progress();
    void update(qint64 done);
    /// The same for a phase of the work (shown after the label) whose amount
    /// is total (0 when unknown).
    void update(qint64 done, qint64 total, const QString &phase);
    /// Ends the line; says how long the step took when anything was shown.
    void finish();
    /// Ends the line with outcome instead ("the guest answered"); with an
    /// empty one, the line is only cleared.
    void finish(const QString &outcome);

private:
    QString text(qint64 done) const;

    QString m_label;
    QString m_phase;
    QString m_shownPhase;
    qint64 m_total;
    bool m_terminal;
    bool m_shown = false;
    bool m_finished = false;
    QElapsedTimer m_sinceDraw;
    QElapsedTimer m_started;
};

/// A step that blocks this thread (a save, a copy): its label and the time
/// so far, drawn as Progress draws them by a thread of its own that touches
/// nothing but stderr, for as long as the ticker lives.
class ProgressTicker
{
public:
    explicit ProgressTicker(const QString &label);
    ~ProgressTicker();

private:
    Progress m_progress;
    std::mutex m_mutex;
    std::condition_variable m_woken;
    bool m_over = false;
    std::thread m_drawer;
};

/// What step returns, with its label and the time so far shown while it runs.
template<typename Step>
auto ticking(const QString &label, Step step)
{
    ProgressTicker ticker(label);
    return step();
}

} // namespace hvtool
