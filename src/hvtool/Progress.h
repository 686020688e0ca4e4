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
    void finish();

private:
    QString m_label;
    qint64 m_total;
    bool m_terminal;
    bool m_finished = false;
    mutable QElapsedTimer m_sinceDraw;
    QElapsedTimer m_started;
};

} // namespace hvtool
