#include "QmpFraming_p.h"

QmpLineFramer::QmpLineFramer(int maxLineLength)
    : m_maxLineLength(maxLineLength)
{
}

void QmpLineFramer::append(const QByteArray &data)
{
    m_buffer.append(data);
}

QmpLineFramer::Status QmpLineFramer::takeLine(QByteArray *line)
{
    const int end = m_buffer.indexOf('\n', m_scanned);
    if (end < 0) {
        m_scanned = m_buffer.size();
        if (m_buffer.size() <= m_maxLineLength)
            return Status::Incomplete;
        m_buffer.clear();
        m_buffer.squeeze();
        m_scanned = 0;
        return Status::Overlong;
    }
    if (end > m_maxLineLength) {
        // The line break came, but too late: the line is no more acceptable
        // than one that never ends. Whatever follows belongs to a stream
        // that is out of step, so it goes too.
        m_buffer.clear();
        m_buffer.squeeze();
        m_scanned = 0;
        return Status::Overlong;
    }
    *line = m_buffer.left(end).trimmed();
    m_buffer.remove(0, end + 1);
    m_scanned = 0;
    return Status::Line;
}
