#pragma once

#include <QElapsedTimer>
#include <QString>

namespace hvtool {

/// Progress of a long step on stderr: a bar redrawn in place on a terminal,
/// a plain line every few seconds otherwise.
class Progress
{
public:
    /// total: the amount of work, or 0 when unknown.
    Progress(const QString &label, qint64 total);
    ~Progress();
    void update(qint64 done) const;
    /// The same for a step of the work (shown after the label) whose amount
    /// is total (0 when unknown).
    void update(qint64 done, qint64 total, const QString &step);
    void finish();

private:
    QString m_label;
    QString m_step;
    qint64 m_total;
    bool m_terminal;
    bool m_finished = false;
    mutable QElapsedTimer m_sinceDraw;
    QElapsedTimer m_started;
};

} // namespace hvtool
