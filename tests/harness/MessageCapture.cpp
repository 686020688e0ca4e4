#include "MessageCapture.h"

#include <QMutex>
#include <QMutexLocker>
#include <QStringList>

#include <sstream>
#include <vector>

namespace hvtest {
namespace {

struct CaptureState {
    QMutex mutex;
    std::vector<QList<LogLine> *> stack;
    std::vector<QtMessageHandler> previous;
    std::vector<bool> forward;
};

CaptureState &state()
{
    static CaptureState s;
    return s;
}

int severity(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg: return 0;
    case QtInfoMsg: return 1;
    case QtWarningMsg: return 2;
    case QtCriticalMsg: return 3;
    case QtFatalMsg: return 4;
    }
    return 0;
}

void handler(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    QtMessageHandler forwardTo = nullptr;
    {
        QMutexLocker lock(&state().mutex);
        if (!state().stack.empty()) {
            state().stack.back()->append({type, text});
            if (state().forward.back())
                forwardTo = state().previous.back();
        }
    }
    if (forwardTo)
        forwardTo(type, context, text);
}

} // namespace

const char *levelName(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg: return "debug";
    case QtInfoMsg: return "info";
    case QtWarningMsg: return "warning";
    case QtCriticalMsg: return "critical";
    case QtFatalMsg: return "fatal";
    }
    return "?";
}

void PrintTo(const LogLine &line, std::ostream *os)
{
    *os << levelName(line.type) << ": " << line.text.toStdString();
}


MessageCapture::MessageCapture(bool forward)
{
    QMutexLocker lock(&state().mutex);
    state().stack.push_back(new QList<LogLine>);
    state().forward.push_back(forward);
    state().previous.push_back(qInstallMessageHandler(handler));
}

MessageCapture::~MessageCapture()
{
    QMutexLocker lock(&state().mutex);
    delete state().stack.back();
    state().stack.pop_back();
    state().forward.pop_back();
    qInstallMessageHandler(state().previous.back());
    state().previous.pop_back();
}

QList<LogLine> MessageCapture::lines() const
{
    QMutexLocker lock(&state().mutex);
    return *state().stack.back();
}

QStringList MessageCapture::texts(QtMsgType type) const
{
    QStringList result;
    for (const LogLine &line : lines()) {
        if (line.type == type)
            result << line.text;
    }
    return result;
}

void MessageCapture::clear()
{
    QMutexLocker lock(&state().mutex);
    state().stack.back()->clear();
}

std::string MessageCapture::dump() const
{
    std::ostringstream out;
    out << "captured lines:";
    for (const LogLine &line : lines()) {
        out << "\n  ";
        PrintTo(line, &out);
    }
    return out.str();
}

::testing::AssertionResult MessageCapture::has(QtMsgType type, const QString &text) const
{
    if (lines().contains({type, text}))
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "no " << levelName(type) << " line '" << text.toStdString()
                                         << "'; " << dump();
}

::testing::AssertionResult MessageCapture::hasContaining(QtMsgType type, const QString &fragment) const
{
    for (const LogLine &line : lines()) {
        if (line.type == type && line.text.contains(fragment))
            return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "no " << levelName(type) << " line containing '"
                                         << fragment.toStdString() << "'; " << dump();
}

::testing::AssertionResult MessageCapture::noneAtOrAbove(QtMsgType type) const
{
    for (const LogLine &line : lines()) {
        if (severity(line.type) >= severity(type))
            return ::testing::AssertionFailure() << "unexpected line; " << dump();
    }
    return ::testing::AssertionSuccess();
}

} // namespace hvtest
