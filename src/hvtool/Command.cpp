#include "Command.h"

#include "Engine.h"

#include <QCommandLineParser>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLoggingCategory>
#include <QMutex>
#include <QMutexLocker>
#include <QTextStream>

#include <cstdio>
#include <unistd.h>

namespace hvtool {
namespace {

QTextStream &out()
{
    static QTextStream stream(stdout);
    return stream;
}

QTextStream &err()
{
    static QTextStream stream(stderr);
    return stream;
}

struct LogState {
    QMutex mutex;
    bool verbose = false;
    QStringList problems;
};

LogState &logState()
{
    static LogState state;
    return state;
}

void logHandler(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    LogState &state = logState();
    QMutexLocker lock(&state.mutex);
    if (state.verbose) {
        static const char *const levels[] = {"debug", "warning", "critical", "fatal", "info"};
        std::fprintf(stderr, "[%s] %s\n", levels[qBound(0, int(type), 4)], qPrintable(text));
        std::fflush(stderr);
    } else if (type == QtWarningMsg || type == QtCriticalMsg || type == QtFatalMsg) {
        state.problems.append(text);
        // Only the last few lines are worth showing as the cause of a failure.
        while (state.problems.size() > 20)
            state.problems.removeFirst();
    }
    if (type == QtFatalMsg) {
        std::fprintf(stderr, "hvtool: %s\n", qPrintable(text));
        std::fflush(stderr);
    }
}

const char kExitCodes[] =
    "Exit codes:\n"
    "  0  success\n"
    "  1  the operation failed\n"
    "  2  the command line is wrong\n"
    "  3  the named device, image, profile or snapshot does not exist\n"
    "  4  the request conflicts with the current state (the name exists, the\n"
    "     device runs, the device is stopped)\n";

const char kGlobalOptions[] =
    "Options accepted everywhere:\n"
    "  --format text|json  output format (text by default)\n"
    "  -v, --verbose       show the library's log lines on stderr\n"
    "  -h, --help          show help for the command or level\n";

QString usageLine(const Command &command)
{
    QString line = QStringLiteral("hvtool ") + command.path.join(QLatin1Char(' '));
    if (!command.arguments.isEmpty())
        line += QLatin1Char(' ') + command.arguments;
    for (const QCommandLineOption &option : command.options) {
        const QString name = option.names().constLast();
        line += QStringLiteral(" [--") + name;
        if (!option.valueName().isEmpty())
            line += QLatin1Char(' ') + option.valueName();
        line += QLatin1Char(']');
    }
    return line;
}

bool startsWith(const QStringList &path, const QStringList &prefix)
{
    if (prefix.size() > path.size())
        return false;
    for (int i = 0; i < prefix.size(); ++i) {
        if (path.at(i) != prefix.at(i))
            return false;
    }
    return true;
}

QString levelHelp(const QStringList &prefix)
{
    QString text;
    QTextStream s(&text);
    s << "Usage: hvtool " << (prefix.isEmpty() ? QStringLiteral("NOUN VERB") : prefix.join(QLatin1Char(' ')) + " VERB")
      << " [ARGUMENTS] [OPTIONS]\n\n";
    if (prefix.isEmpty())
        s << "Manages Android virtual devices: OS images, hardware profiles, devices and settings.\n\n"
          << "  hvtool --version    hvtool's, the library's and QEMU's versions\n";
    s << "Commands:\n";
    for (const Command &command : commands()) {
        if (startsWith(command.path, prefix))
            s << "  " << usageLine(command) << "\n      " << command.summary << "\n";
    }
    s << "\n" << kGlobalOptions << "\n" << kExitCodes;
    return text;
}

QString commandHelp(const Command &command)
{
    QString text;
    QTextStream s(&text);
    s << "Usage: " << usageLine(command) << "\n\n" << command.summary << "\n";
    if (!command.options.isEmpty()) {
        s << "\nOptions:\n";
        for (const QCommandLineOption &option : command.options) {
            QStringList names;
            for (const QString &name : option.names())
                names << (name.size() == 1 ? "-" : "--") + name;
            QString head = names.join(QStringLiteral(", "));
            if (!option.valueName().isEmpty())
                head += QLatin1Char(' ') + option.valueName();
            s << "  " << head.leftJustified(26) << ' ' << option.description() << "\n";
        }
    }
    s << "\n" << kGlobalOptions << "\n" << kExitCodes;
    return text;
}

int usageError(const QString &message, const QString &help)
{
    err() << "hvtool: " << message << "\n\n" << help;
    err().flush();
    return Usage;
}

} // namespace

QList<Command> &commands()
{
    static QList<Command> all;
    return all;
}

QStringList recentLibraryProblems()
{
    QMutexLocker lock(&logState().mutex);
    return logState().problems;
}

void installLogHandler(bool verbose)
{
    logState().verbose = verbose;
    // The library logs its progress at debug level, off unless asked for.
    if (verbose)
        QLoggingCategory::setFilterRules(QStringLiteral("halvistrom.*.debug=true"));
    qInstallMessageHandler(logHandler);
}

Context::Context(const QStringList &args, const QCommandLineParser &parser, Format format, bool verbose)
    : m_args(args)
    , m_parser(parser)
    , m_format(format)
    , m_verbose(verbose)
{
}

void Context::setCommand(const QStringList &path)
{
    m_command = QStringLiteral("hvtool ") + path.join(QLatin1Char(' '));
}

bool Context::isSet(const QString &option) const
{
    return m_parser.isSet(option);
}

QString Context::value(const QString &option) const
{
    return m_parser.value(option);
}

void Context::print(const QString &line) const
{
    out() << line << '\n';
    out().flush();
}

void Context::printJson(const QJsonValue &value) const
{
    const QJsonDocument document =
        value.isArray() ? QJsonDocument(value.toArray()) : QJsonDocument(value.toObject());
    out() << document.toJson(QJsonDocument::Indented);
    out().flush();
}

void Context::printTable(const QStringList &header, const QList<QStringList> &rows) const
{
    QVector<int> widths(header.size());
    for (int c = 0; c < header.size(); ++c) {
        widths[c] = header.at(c).size();
        for (const QStringList &row : rows)
            widths[c] = qMax(widths[c], row.value(c).size());
    }
    auto line = [&](const QStringList &cells) {
        QString text;
        for (int c = 0; c < header.size(); ++c)
            text += (c + 1 < header.size() ? cells.value(c).leftJustified(widths[c] + 2) : cells.value(c));
        print(text.trimmed());
    };
    line(header);
    for (const QStringList &row : rows)
        line(row);
}

void Context::note(const QString &line) const
{
    err() << line << '\n';
    err().flush();
}

int Context::fail(int code, const QString &message) const
{
    err() << "hvtool: " << message << '\n';
    if (!m_verbose) {
        QStringList problems = recentLibraryProblems();
        // Each question the diagnosis answers logs its finding again.
        problems.removeDuplicates();
        // The last few warnings are usually the underlying cause.
        const int first = qMax(0, problems.size() - 3);
        for (int i = first; i < problems.size(); ++i)
            err() << "  cause: " << problems.at(i) << '\n';
    }
    err().flush();
    return code;
}

bool Context::confirm(const QString &question) const
{
    if (isSet(QStringLiteral("yes")))
        return true;
    if (!::isatty(STDIN_FILENO))
        return false;
    err() << question << " [y/N] ";
    err().flush();
    QTextStream in(stdin);
    const QString answer = in.readLine().trimmed().toLower();
    return answer == QLatin1String("y") || answer == QLatin1String("yes");
}

void Context::setTarget(VMToolsEngine *engine, std::unique_ptr<VMToolsMachine> device,
                        std::unique_ptr<LockFiles::CommandLock> lock)
{
    m_engine = engine;
    m_device = std::move(device);
    m_lock = std::move(lock);
}

void Context::releaseDevice()
{
    if (m_lock)
        m_lock->release();
}

int Context::show(const Output &output) const
{
    if (json()) {
        printJson(output.json);
        return Success;
    }
    if (!output.header.isEmpty())
        printTable(output.header, output.rows);
    for (const QString &line : output.lines)
        print(line);
    return Success;
}

namespace {

/// The command line without the options every command takes, which may
/// stand anywhere, and what they ask.
struct GlobalOptions {
    QStringList rest;
    Format format = Format::Text;
    bool verbose = false;
    bool help = false;
    bool version = false;
};

/// Takes the global options out of arguments; Success, or the usage error.
int readGlobalOptions(const QStringList &arguments, GlobalOptions *options)
{
    for (int i = 1; i < arguments.size(); ++i) {
        const QString &a = arguments.at(i);
        if (a == QLatin1String("-v") || a == QLatin1String("--verbose")) {
            options->verbose = true;
        } else if (a == QLatin1String("-h") || a == QLatin1String("--help")) {
            options->help = true;
        } else if (a == QLatin1String("--version")) {
            options->version = true;
        } else if (a == QLatin1String("--format") || a.startsWith(QLatin1String("--format="))) {
            if (a == QLatin1String("--format") && i + 1 >= arguments.size())
                return usageError(QStringLiteral("--format needs a value: text or json"), levelHelp({}));
            const QString value = a == QLatin1String("--format") ? arguments.at(++i) : a.mid(9);
            if (value != QLatin1String("json") && value != QLatin1String("text"))
                return usageError(QStringLiteral("unknown format '%1': use text or json").arg(value), levelHelp({}));
            options->format = value == QLatin1String("json") ? Format::Json : Format::Text;
        } else {
            options->rest << a;
        }
    }
    return Success;
}

/// The longest command path that the leading words name; null when none.
const Command *findCommand(const QStringList &words)
{
    const Command *found = nullptr;
    for (const Command &command : commands()) {
        if (startsWith(words, command.path) && (!found || command.path.size() > found->path.size()))
            found = &command;
    }
    return found;
}

/// Answers words that name no command: "--version" alone, the help of the
/// level (noun) they name, or the usage error.
int answerLevel(const GlobalOptions &options)
{
    if (options.version && options.rest.isEmpty()) {
        if (const Command *version = findCommand({QStringLiteral("version")})) {
            QCommandLineParser none;
            Context context({}, none, options.format, options.verbose);
            return version->run(context);
        }
    }
    QStringList prefix;
    for (const QString &word : options.rest) {
        QStringList candidate = prefix;
        candidate << word;
        bool known = false;
        for (const Command &command : commands())
            known = known || startsWith(command.path, candidate);
        if (!known)
            break;
        prefix = candidate;
    }
    const QString text = levelHelp(prefix);
    if (options.help && prefix.size() == options.rest.size()) {
        out() << text;
        out().flush();
        return Success;
    }
    if (options.rest.size() > prefix.size())
        return usageError(QStringLiteral("unknown command '%1'").arg(options.rest.mid(0, prefix.size() + 1).join(' ')),
                          text);
    return usageError(QStringLiteral("missing command"), text);
}

/// Parses the command's own options and arguments, opens the device it
/// names and runs it.
int runCommand(const Command &command, const QString &program, const GlobalOptions &options)
{
    QCommandLineParser parser;
    parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
    parser.setOptionsAfterPositionalArgumentsMode(QCommandLineParser::ParseAsOptions);
    parser.addOptions(command.options);
    if (!parser.parse(QStringList{program} + options.rest.mid(command.path.size())))
        return usageError(parser.errorText(), commandHelp(command));
    const QStringList positional = parser.positionalArguments();
    if (positional.size() < command.minArgs)
        return usageError(QStringLiteral("missing argument: %1").arg(command.arguments), commandHelp(command));
    if (command.maxArgs >= 0 && positional.size() > command.maxArgs)
        return usageError(QStringLiteral("unexpected argument '%1'").arg(positional.at(command.maxArgs)),
                          commandHelp(command));
    Context context(positional, parser, options.format, options.verbose);
    context.setCommand(command.path);
    const int invalid = command.checkArguments ? command.checkArguments(context) : Success;
    const int opened = invalid == Success ? openTarget(command, context) : invalid;
    return opened == Success ? command.run(context) : opened;
}

} // namespace

int runCommandLine(const QStringList &arguments)
{
    GlobalOptions options;
    const int invalid = readGlobalOptions(arguments, &options);
    if (invalid != Success)
        return invalid;
    installLogHandler(options.verbose);
    const Command *found = findCommand(options.rest);
    if (!found)
        return answerLevel(options);
    if (options.help) {
        out() << commandHelp(*found);
        out().flush();
        return Success;
    }
    return runCommand(*found, arguments.value(0), options);
}

} // namespace hvtool
