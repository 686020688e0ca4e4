#include "ConsoleRead.h"

QString ConsoleRead::printable(const QByteArray &bytes)
{
    const QString text = QString::fromUtf8(bytes);
    QString result;
    result.reserve(text.size());
    for (int i = 0; i < text.size(); ++i) {
        const QChar c = text.at(i);
        if (c == QLatin1Char('\x1b')) {
            // ESC [ parameters final, or ESC and one character.
            if (i + 1 < text.size() && text.at(i + 1) == QLatin1Char('[')) {
                i += 2;
                while (i < text.size() && (text.at(i).unicode() < 0x40 || text.at(i).unicode() > 0x7e))
                    ++i;
            } else {
                ++i;
            }
            continue;
        }
        if (c == QLatin1Char('\n') || c == QLatin1Char('\t') || (c.category() != QChar::Other_Control))
            result += c;
    }
    return result;
}
